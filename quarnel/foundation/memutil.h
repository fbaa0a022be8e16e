// Small blocks and the block utilities.
//
// MemAlloc hands out zero-filled blocks of at most 32768 bytes from the
// process heap, each preceded by a header that records the size asked for;
// the library counts the live blocks and their bytes. Larger and movable
// memory belongs in TMemory. Allocation does not report failure: after one
// validate-and-compact retry it asserts.
//
// The block utilities are the library's names for copy, fill and compare.
// BlockMove takes the source first, deliberately the reverse of memmove.
// A null pointer with a count above 0 asserts (module memutil) and nothing is
// touched; EqualBlock then answers 0.
#ifndef QUARNEL_FOUNDATION_MEMUTIL_H_
#define QUARNEL_FOUNDATION_MEMUTIL_H_

#include "quarnel/foundation/export.h"

class TMonitor;

constexpr unsigned kMemLargestRequest = 32768;
constexpr unsigned kMemDebugLast = 0x6C617374;  // 'last'

// A zero-filled block of `size` bytes, aligned to 16. A size above 32768
// asserts (memutil 150) and is served anyway. When the heap refuses, the heap
// is validated ("MemAlloc: HeapValidate failed" at 514 when that fails) or
// compacted and the allocation tried once more; a second refusal asserts
// (memutil 163) and answers null.
QUARNEL_API void* MemAlloc(unsigned size);
// Resizes `p` (null: MemAlloc), keeping the contents up to the smaller size;
// new bytes are zero. Returns the block, which may have moved. Asserts: size
// above 32768 (198, served anyway), a freed block (202, `p` is returned as it
// is), a refused fallback allocation (215, `p` is returned unchanged).
QUARNEL_API void* MemRealloc(void* p, unsigned size);
// Frees; null is ignored; a block freed before asserts (249) and is left.
QUARNEL_API void MemFree(void* p);
// The size asked for; 0 for null; a freed block asserts (283) and gives 0.
QUARNEL_API unsigned MemSize(const void* p);
// Validates ("MemPack: HeapValidate failed" at 514) and compacts the heap.
QUARNEL_API void MemPack();
// The largest reservation of address space that succeeds in one piece,
// searched within a budget taken from the physical memory: kind 0 or below
// from the larger of total-less-16-MB and available, kind above 0 from the
// total (kind 1 holds 32 MB aside meanwhile); `percent` (0..100, else
// assertion 332) scales the budget. Runs under the memory lock.
QUARNEL_API unsigned MemAvail(short kind, int percent);
// 0: writes the memory report at level 513 (the heading, the TMemory
// statistics of tmemLogStats, then the small-block and address-space lines);
// 'last': nothing; any other value: DebuggerBreak.
QUARNEL_API void MemDebug(int what);

// The library-wide counters: live blocks and the bytes asked for in them.
QUARNEL_API int MemBlockCount();
QUARNEL_API int MemByteCount();

QUARNEL_API void BlockMove(const void* from, void* to, unsigned n);
QUARNEL_API void BlockFill(void* p, unsigned n, unsigned char value);
QUARNEL_API void ZeroFill(void* p, unsigned n);
QUARNEL_API int EqualBlock(const void* a, const void* b, int n);

// `value` rounded up (Ceiling) or down (Floor) to a multiple of `multiple`.
QUARNEL_API unsigned Ceiling(unsigned value, unsigned multiple);
QUARNEL_API unsigned Floor(unsigned value, unsigned multiple);

namespace quarnel_internal {

// MemAlloc and MemRealloc without the zero fill, for callers that write every
// byte they later read (TString's storage). Same header, counters, limits and
// assertions.
void* MemAllocUnfilled(unsigned size);
void* MemReallocUnfilled(void* p, unsigned size);

// The memory lock: the TMonitor that guards MemAvail's measurement, the
// memory report, and the TMemory statistics and purgeable list. Made on first
// use and never destroyed, so that it outlives every block.
TMonitor& MemoryLock();

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_MEMUTIL_H_
