// Packing and unpacking a whole block in place, over a plain byte buffer.
// No host includes this header; TCompStat runs these on a TMemory block's
// bytes and does the resizing and the logging.
//
// Packed block: the four magic bytes, the unpacked size N as a signed 32-bit
// big-endian word (-N when a segment is stored raw), then one record per
// 4,096-byte slice of the data (the last one holds the rest): the body (the
// coded tokens, or the raw bytes when its length equals the slice's) and its
// length as an unsigned 16-bit big-endian trailer. Readers walk the records
// from the end.
#ifndef QUARNEL_COMPRESS_INTERNAL_PACKBLOCK_H_
#define QUARNEL_COMPRESS_INTERNAL_PACKBLOCK_H_

#include <cstdint>

#include "quarnel/compress/internal/segcode.h"

namespace quarnel_internal {

constexpr unsigned kPackMagicCode = 0x516E5179;  // "QnQy", first byte most significant
constexpr unsigned kPackHeaderSize = 8;
// The largest block that can be packed: N must fit the signed size word.
constexpr unsigned kPackMaxSize = 0x7FFFFFFF;

// Bytes the block grows by while it is packed (and its data moves up by).
inline unsigned PackSlack(unsigned n) { return (n >> 11) + 32; }

inline bool StartsWithMagic(const std::uint8_t* p, unsigned size, unsigned magic) {
  return size >= 4 && p[0] == (magic >> 24) && p[1] == ((magic >> 16) & 0xFF) &&
         p[2] == ((magic >> 8) & 0xFF) && p[3] == (magic & 0xFF);
}

using PackPollProc = int (*)(void*);

struct PackOutcome {
  enum Kind {
    kPacked,       // the packed block fills the first `size` bytes
    kSmallBuffer,  // a single segment that does not pay: the data is back at offset 0
    kAborted,      // the poll procedure answered `pollResult`; the bytes are lost
  };
  Kind kind;
  unsigned size;
  bool anyRaw;
  int pollResult;
};

// Packs the `n` bytes at the start of `buf` (n <= kPackMaxSize), which has
// room for n + PackSlack(n) bytes. The data first moves up by the slack; the
// writer then never overtakes the reader. `poll`, when set, is called with
// `pollArg` before each segment; a non-zero answer stops the packing.
PackOutcome PackInPlace(std::uint8_t* buf, unsigned n, unsigned magic, const SegmentCoder& coder,
                        PackPollProc poll, void* pollArg);

// What is wrong with a packed block that does not unpack.
enum class PackDefect {
  kNone,
  kSizeWord,    // the size word cannot be a block's size
  kTrailer,     // a trailer gives more bytes than its slice or than the block holds
  kCode,        // a coded body is not a well-formed token stream for its slice
  kOverlap,     // a slice would be written over records not yet read
  kStrayBytes,  // the records do not reach back to the header
};

// The readable text of a defect, for the log line.
const char* PackDefectText(PackDefect defect);

struct UnpackPlan {
  unsigned n = 0;       // unpacked size
  unsigned margin = 0;  // where the unpacked data is built, before it moves down
  unsigned room = 0;    // bytes the buffer must hold while unpacking: max(b, margin + n)
  bool allRaw = false;  // every slice stored raw: unpacked in order, in place, margin 0
  PackDefect defect = PackDefect::kNone;
  unsigned offset = 0;  // where the defect was found
};

// Checks the `b` bytes of a packed block (b >= 8, starting with the magic)
// without changing them: every trailer, that no slice is written over
// records still to be read, and the tokens of the slices that UnpackInPlace
// writes over the block's bytes after it has first changed them. The other
// slices (those written above the block's bytes, and the first one written
// over them, which is decoded aside) are checked as UnpackInPlace decodes
// them. Returns true and fills `plan` when the block may be unpacked; else
// false with the defect and its offset. A defect in the records is reported
// before one in the tokens.
bool PlanUnpack(const std::uint8_t* block, unsigned b, UnpackPlan* plan);

// Brings back the n data bytes of a block that PackInPlace has just packed
// into `packed` bytes of `buf` (which still has room for n + PackSlack(n)),
// for when the block cannot be shrunk to its packed size. Afterwards the data
// fills the first n bytes. Returns false, with nothing changed, for a buffer
// that does not hold such a block.
bool RestorePacked(std::uint8_t* buf, unsigned packed, unsigned n);

// Unpacks a block that PlanUnpack accepted. `buf` holds the b packed bytes
// and has room for plan->room bytes; afterwards its first plan->n bytes are
// the data. Returns false, with the defect in `plan`, when a slice checked on
// the way is not well formed: the first b bytes are then as they were.
bool UnpackInPlace(std::uint8_t* buf, unsigned b, UnpackPlan* plan);

}  // namespace quarnel_internal

#endif  // QUARNEL_COMPRESS_INTERNAL_PACKBLOCK_H_
