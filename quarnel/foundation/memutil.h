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
#ifndef QUARNEL_FOUNDATION_MEMUTIL_H_
#define QUARNEL_FOUNDATION_MEMUTIL_H_

#include "quarnel/foundation/export.h"

constexpr unsigned kMemLargestRequest = 32768;
constexpr unsigned kMemDebugLast = 0x6C617374;  // 'last'

QUARNEL_API void* MemAlloc(unsigned size);
QUARNEL_API void* MemRealloc(void* p, unsigned size);
QUARNEL_API void MemFree(void* p);
QUARNEL_API unsigned MemSize(const void* p);
QUARNEL_API void MemPack();
QUARNEL_API unsigned MemAvail(short kind, int percent);
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

#endif  // QUARNEL_FOUNDATION_MEMUTIL_H_
