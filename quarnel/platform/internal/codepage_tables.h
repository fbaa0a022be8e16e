// The library's own code-page tables (generated into codepage_tables.cpp by
// tools/gen_codepage_tables.py). No host includes this header.
#ifndef QUARNEL_PLATFORM_INTERNAL_CODEPAGE_TABLES_H_
#define QUARNEL_PLATFORM_INTERNAL_CODEPAGE_TABLES_H_

#include <cstddef>

namespace quarnel_internal {

// A single-byte code page in both directions.
//
// toUnicode[b] is the unit of byte b (every byte converts). A unit u converts
// to pages[pageIndex[u >> 8]][u & 0xFF]; a 0 there means the unit has no
// mapping (only U+0000 converts to byte 0). A unit whose byte does not convert
// back to it is a best-fit mapping (U+0100 -> 'A').
struct SbcsTable {
  const char16_t* toUnicode;
  const unsigned char* pageIndex;
  const unsigned char (*pages)[256];

  unsigned char FromUnicode(char16_t u) const { return pages[pageIndex[u >> 8]][u & 0xFF]; }
};

extern const SbcsTable kCp1252Table;
extern const SbcsTable kMacRomanTable;

struct CodeUnitFix {
  unsigned short bytes;  // a single byte, or lead << 8 | trail
  char16_t unit;
};

struct UnitBytesFix {
  char16_t unit;
  unsigned short bytes;  // a single byte, lead << 8 | trail, or 0 = no mapping
};

// Where Windows' code page 932 differs from glibc's "CP932" converter.
struct Cp932Fixes {
  const unsigned char* leadFlags;  // 256 entries, 1 for a lead byte
  const CodeUnitFix* bytes;
  std::size_t byteCount;
  const CodeUnitFix* pairs;
  std::size_t pairCount;
  const UnitBytesFix* units;  // sorted by unit
  std::size_t unitCount;
};

extern const Cp932Fixes kCp932Fixes;

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_CODEPAGE_TABLES_H_
