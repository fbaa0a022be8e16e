// HashBlock: the library's block checksum.
//
// A 32-bit cyclic redundancy check over the bytes: polynomial 0x04C11DB7,
// most significant bit first (no reflection), initial value 0, no final
// inversion. A result of 0 is returned as 1, so that 0 is never a checksum and
// a stored 0 can mean "no checksum kept". The chunk store's chHashBlock and the
// volume code use it; "123456789" gives 0x89A1897F, an empty range 1.
//
// The tables are fixed when the library is built; on processors with
// carry-less multiplication long ranges are folded 64 bytes at a time. Any
// thread may call at any time.
#ifndef QUARNEL_COMPRESS_HASHBLOCK_H_
#define QUARNEL_COMPRESS_HASHBLOCK_H_

#include <cstddef>
#include <cstdint>

#include "quarnel/foundation/export.h"

// The checksum of the `length` bytes at `data`. A negative length, or null
// data with a positive length, asserts (hashblock 40) and is answered as for
// an empty range.
QUARNEL_API unsigned HashBlock(const unsigned char* data, int length);

namespace quarnel_internal {

constexpr int kHashBlockBadArgsLine = 40;

// The plain CRC, continued from `crc` (0 to start): no replacement of 0.
// Uses the folding by carry-less multiplication when the processor has it
// and the range is long enough, else the eight-table form.
std::uint32_t BlockCrc(std::uint32_t crc, const unsigned char* data, std::size_t length);

// The two forms, for the tests and benchmarks: slicing by eight, and folding
// by carry-less multiplication (which falls back to slicing for ranges
// shorter than kFoldedCrcMinLength or on a processor without it).
constexpr std::size_t kFoldedCrcMinLength = 64;
std::uint32_t SlicedCrc(std::uint32_t crc, const unsigned char* data, std::size_t length);
std::uint32_t FoldedCrc(std::uint32_t crc, const unsigned char* data, std::size_t length);
bool FoldedCrcAvailable();

}  // namespace quarnel_internal

#endif  // QUARNEL_COMPRESS_HASHBLOCK_H_
