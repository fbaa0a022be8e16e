// Reading a Windows module (a PE image: program or DLL) as data: its
// sections, its resources and the functions of its symbol table. The bytes
// come from an ElfSource (elffile.h), laid out either as the file holds them
// or as the loader maps them (`mapped`: a section's bytes at its relative
// virtual address). Every offset and size taken from the image is checked
// against the source before use.
//
// PeReadHeaders, PeSectionOf, PeFindResource and PeNearestFunction allocate
// nothing and take no lock: the crash report calls them on a broken process.
#ifndef QUARNEL_PLATFORM_INTERNAL_PEFILE_H_
#define QUARNEL_PLATFORM_INTERNAL_PEFILE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "quarnel/platform/internal/elffile.h"

namespace quarnel_internal {

enum : unsigned {
  kPeFound = 0,
  kPeNotThere = 1,     // a well-formed image without what was asked for
  kPeBadFormat = 193,  // not a PE image, or a part it needs lies outside it
};

struct PeSection {
  char name[9];  // the short name, zero-terminated
  std::uint32_t rva;
  std::uint32_t virtualSize;
  std::uint32_t fileOffset;
  std::uint32_t fileSize;
};

// The headers of an image: up to 96 sections, as the format allows.
struct PeHeaders {
  static constexpr int kMaxSections = 96;
  bool mapped = false;
  std::uint64_t imageBase = 0;  // the preferred load address
  std::uint32_t resourceRva = 0;
  std::uint32_t resourceSize = 0;
  std::uint32_t symbolTable = 0;  // file offset of the symbol table, 0 when stripped
  std::uint32_t symbolCount = 0;
  int sectionCount = 0;
  PeSection sections[kMaxSections];
};

unsigned PeReadHeaders(const ElfSource& source, bool mapped, PeHeaders* out);

// The section holding the relative virtual address `rva` (numbered from 1,
// as the symbol table numbers them) and the offset in it. False when none does.
bool PeSectionOf(const PeHeaders& h, std::uint64_t rva, unsigned* section, std::uint32_t* offset);

// The data of the numbered resource `type`/`id` (its first language): where
// it lies in the source and its size.
unsigned PeFindResource(const ElfSource& source, const PeHeaders& h, unsigned type, unsigned id,
                        std::uint64_t* offset, std::uint32_t* size);

// The functions of the image's symbol table (file layout only: the loader
// does not map the table): value is the relative virtual address; global for
// external and weak external symbols. kPeFound with none when the image is
// stripped.
unsigned PeFunctionSymbols(const ElfSource& source, std::vector<ElfFunction>* out);

// The function of the symbol table with the highest address at or below
// `rva` in the same section. Its name goes to `name` (zero-terminated, cut to
// fit) and its address to *start. False when none.
bool PeNearestFunction(const ElfSource& source, const PeHeaders& h, std::uint64_t rva, char* name,
                       std::size_t size, std::uint64_t* start);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_PEFILE_H_
