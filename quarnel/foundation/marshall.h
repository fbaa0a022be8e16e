// Byte order and the persistence header.
//
// Every stored object of the library starts with an 8-byte PersistHeader in
// the byte order of the machine that wrote it: a four-character signature
// (most significant byte = first character, 'Cfh.' is 0x4366682E), the oldest
// reader version that can read the record and the record's own version. A
// reader recognises a record of the other byte order by its byte-swapped
// signature (_checkpersist returns -690) and may convert it with ChangeEndian.
//
// None of these functions checks bounds: the caller hands over a record that
// is as long as the header or the format says. They keep no state and may be
// called from any thread.
#ifndef QUARNEL_FOUNDATION_MARSHALL_H_
#define QUARNEL_FOUNDATION_MARSHALL_H_

#include <cstdint>
#include <type_traits>

#include "quarnel/foundation/export.h"

struct PersistHeader {
  std::uint32_t signature;         // four-character code of the stored object
  std::int16_t compatibleVersion;  // oldest reader version that can read the record (>= 1)
  std::int16_t version;            // format version of the record (>= 1)
};
static_assert(sizeof(PersistHeader) == 8, "the persistence header is 8 bytes");

// True for a well-formed signature: no byte with bit 7 set and at least one
// byte with bit 5 or 6 set. The test is the same in either byte order.
constexpr bool IsPersistSignature(std::uint32_t signature) {
  return (signature & 0x80808080u) == 0 && (signature & 0x60606060u) != 0;
}

// Writes the header in this machine's byte order and returns the first
// payload byte (header + 8). A malformed signature or a version below 1
// raises Debug("marshall", 159); the fields are stored all the same. The
// header need not be aligned. A null header returns null.
QUARNEL_API void* _initpersist(PersistHeader* header, unsigned signature, short compatibleVersion,
                               short version);

// Checks a stored header against the signature the caller expects, the
// oldest version it can read and its own current version. Returns 0 for a
// readable record of this byte order, -690 (kErrPersistOtherByteOrder) for a
// readable record of the other byte order, -691 for a malformed signature or
// a stored version field below 1 (checked as stored, before any swap; a null
// header too), -692 for another signature, -693 when the record's version is
// below `oldestReadable`, -694 when its compatible version is above
// `currentVersion`. Versions compare as signed 16-bit values. The header is
// never changed and need not be aligned.
QUARNEL_API int _checkpersist(const PersistHeader* header, unsigned signature,
                              unsigned short oldestReadable, unsigned short currentVersion);

// The value with its bytes in reverse order.
QUARNEL_API std::int16_t SwapSint16(std::int16_t value);
QUARNEL_API std::uint16_t SwapUint16(std::uint16_t value);
QUARNEL_API std::int32_t SwapSint32(std::int32_t value);
QUARNEL_API std::uint32_t SwapUint32(std::uint32_t value);
QUARNEL_API std::int64_t SwapSint64(std::int64_t value);
QUARNEL_API std::uint64_t SwapUint64(std::uint64_t value);

// ChangeEndian swaps the byte order of the record at `data` in place as
// `format` describes, and returns the byte after the last one processed.
// The format is read one character at a time with three registers: a count
// (initially 1), a remembered value (0) and a repeat counter (0), and a loop
// start (initially the start of the format):
//
//   digits  a decimal number becomes the count
//   %       the count is the next of the `counts` (0 when they are used up)
//   w W     swap `count` 16-bit items; count becomes 1
//   l       swap `count` 32-bit items; count becomes 1
//   v       swap `count` 64-bit items; count becomes 1
//   b       skip `count` bytes; count becomes 1
//   s       skip a length byte and that many bytes; count becomes 1
//   C       read a value of `count` bytes (4, 2, else 1) as it stands, swap
//           it, remember the value read; count is kept
//   K       swap a value of `count` bytes, remember the swapped value
//   k       the count becomes the remembered value
//   R       like C, but the value read becomes the repeat counter
//   r       like K, but the swapped value becomes the repeat counter
//   f       the loop starts after this character
//   n       decrement the repeat counter; unless it is now 0, continue at
//           the loop start
//   other   the count becomes 0 (so "2l w" swaps two 32-bit words and no
//           16-bit word: the blank empties the count). Kept so on purpose.
//
// C and R read a count in the data's order before the call (converting this
// machine's records for a foreign reader); K and r read it after the swap
// (converting foreign records for this machine).
//
// The repeat counter is an unsigned 32-bit number: `n` with a counter of 0
// wraps it to 0xFFFFFFFF, so the loop runs 2^32 more times, as it always
// has; a loop whose passes touch data runs them all (no bounds are checked).
// A pass that touches no data and ends in a state an earlier jump of the same
// data position had (counter aside) would repeat forever or until the counter
// runs out with nothing changed: the loop ends there, as if the counter had
// run down to 0. The result equals running the passes for a loop with one
// `n`; formats that would never end (two `n` after one `f`: the second always
// meets a counter of 0) end too.
QUARNEL_API void* ChangeEndianCounts(void* data, const char* format, const std::uint32_t* counts,
                                     int countCount);

template <class... A>
void* ChangeEndian(void* data, const char* format, A... counts) {
  static_assert((std::is_integral_v<A> && ...), "ChangeEndian takes integer counts");
  if constexpr (sizeof...(A) == 0) {
    return ChangeEndianCounts(data, format, nullptr, 0);
  } else {
    const std::uint32_t list[] = {static_cast<std::uint32_t>(counts)...};
    return ChangeEndianCounts(data, format, list, static_cast<int>(sizeof...(A)));
  }
}

#endif  // QUARNEL_FOUNDATION_MARSHALL_H_
