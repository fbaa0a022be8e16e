// The symbol map a module may carry as resource type 256, id 1: the names of
// its functions by their offsets from the module's load address, packed with
// MemComp. Unpacked, it is a run of records in increasing offset order:
//
//   2 bytes   record length L (little-endian), 4 or more
//   4 bytes   the function's offset from the load address (little-endian)
//   L - 4     the name, without terminator
//   1 byte    padding, when L is odd
//
// and a length of 0xFFFF ends the list. qnrc builds it from a linked module's
// symbol table (qnrc --symbols-from).
#ifndef QUARNEL_FOUNDATION_INTERNAL_SYMMAP_H_
#define QUARNEL_FOUNDATION_INTERNAL_SYMMAP_H_

#include <cstddef>
#include <cstdint>

namespace quarnel_internal {

constexpr int kSymbolMapResource = 1;
constexpr unsigned kSymbolMapEnd = 0xFFFF;

struct SymbolMapHit {
  const char* name;  // not terminated
  int length;
  std::uint32_t offset;
};

// The last record whose offset is at or below `offset` in the unpacked map
// `map` (`size` bytes). The walk stops at the end marker, at the end of the
// bytes, at a record that does not fit in them or is shorter than 4, and at a
// record whose offset is lower than the one before. False when no record
// qualifies. Allocates nothing.
bool FindInSymbolMap(const unsigned char* map, std::size_t size, std::uint32_t offset,
                     SymbolMapHit* hit);

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_INTERNAL_SYMMAP_H_
