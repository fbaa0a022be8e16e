// Block compression: MemComp and MemUncomp pack and unpack a whole TMemory
// block in place.
//
// The data is cut into segments of 4,096 bytes, each coded by itself with the
// library's LZ77 variant (back-references to absolute positions inside the
// segment) and kept raw when coding does not make it smaller. Packing grows
// the block only by a slack of N/2048 + 32 bytes while it works; unpacking
// builds the data backwards inside the block. A packed block starts with the
// magic "QnQy" and is recognised by it alone: packing a packed block and
// unpacking a plain one do nothing and return 0.
//
// Packed block: magic (4 bytes), the unpacked size N as a signed 32-bit
// big-endian word (-N when a segment is stored raw), then for each segment its
// body and its body length as an unsigned 16-bit big-endian trailer.
//
// Unpacking checks the structure of the packed block before it changes
// anything it could not restore: the size word, every trailer, that the
// records fill the block from its header to its end, and that each coded
// body is a whole token stream giving exactly its slice, every copy from
// bytes already written. A block that fails is refused with kErrInvalidData
// and a log line and is left as it was. The content is not checked: a packed
// block carries no checksum, so damage that keeps the structure (a changed
// literal or raw byte, a copy position or length that still fits; most single
// bit flips are of this kind) unpacks to different bytes without complaint.
// Where the content matters, keep a checksum of the data beside it, as the
// chunk store does with its data hash (HashBlock).
//
// One block is packed or unpacked by one thread at a time; different blocks
// may be worked on by different threads at once.
#ifndef QUARNEL_COMPRESS_MEMCOMP_H_
#define QUARNEL_COMPRESS_MEMCOMP_H_

#include <cstdint>

#include "quarnel/foundation/export.h"

class TMemory;

constexpr unsigned kMemCompMagic = 0x516E5179;  // "QnQy"

// Called before each segment is packed; a non-zero answer stops the packing.
using TCompPollProc = int (*)(void* pollArg);

// The worker behind MemComp and MemUncomp; lives for one call. Log lines
// name its operations "TCompStat::pack" and "TCompStat::unpack".
class QUARNEL_API TCompStat {
 public:
  explicit TCompStat(TMemory* memory);
  TCompStat(TMemory* memory, void* pollArg, TCompPollProc pollProc);
  ~TCompStat();  // frees the index tables
  TCompStat(const TCompStat&) = delete;
  TCompStat& operator=(const TCompStat&) = delete;

  // Packs the block, writing `magic` in front. Returns 0 on success and when
  // nothing was done (the block already starts with `magic`, or a block of
  // one segment does not pay: it then keeps its data in its first N bytes
  // and the grown size N + slack, logged as "can't compress small buffer").
  // A failing resize returns TMemory's error with the data as it was; a poll
  // procedure's non-zero answer empties the block (the half-packed content
  // cannot be restored) and is returned. A block above 0x7FFFFFFF bytes is
  // refused with kErrBadParameter.
  int pack(unsigned magic);
  // Unpacks a block that starts with the library's magic; 0 also when it
  // does not. kErrInvalidData for a damaged block (left unchanged), else a
  // failing resize's error.
  int unpack();

 private:
  TMemory* memory_;
  std::uint16_t* chain_;  // one link per position of the segment (8,192 bytes)
  std::uint16_t* head_;   // the chain heads by key, and the runs (23,040 bytes)
  void* pollArg_;
  TCompPollProc pollProc_;
};

// Packs `mem` in place with the library's magic (see TCompStat::pack).
QUARNEL_API int MemComp(TMemory* mem);
QUARNEL_API int MemComp(TMemory* mem, void* pollArg, TCompPollProc pollProc);
// Unpacks `mem` in place (see TCompStat::unpack).
QUARNEL_API int MemUncomp(TMemory* mem);

namespace quarnel_internal {
// Assertion lines of the module "memcomp".
constexpr int kMemCompNoBlockLine = 70;  // a TCompStat without a block
}  // namespace quarnel_internal

#endif  // QUARNEL_COMPRESS_MEMCOMP_H_
