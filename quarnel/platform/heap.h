// The process heap, with Win32 meaning (HeapAlloc, HeapReAlloc, HeapFree,
// HeapValidate, HeapCompact), on the C library's allocator. A failing call
// returns null and sets the last error to 8 (not enough memory). The fault
// seam's kHeapAlloc and kHeapReAlloc entries make allocations fail (a failed
// reallocation leaves the block as it was), kHeapValidate makes validation
// report a damaged heap.
#ifndef QUARNEL_PLATFORM_HEAP_H_
#define QUARNEL_PLATFORM_HEAP_H_

#include <cstddef>

#include "quarnel/foundation/export.h"

enum : unsigned { kHeapZeroMemory = 0x8 };

QUARNEL_API void* UHeapAlloc(unsigned flags, std::size_t bytes);
// With kHeapZeroMemory the bytes beyond the old size are zero.
QUARNEL_API void* UHeapReAlloc(unsigned flags, void* block, std::size_t bytes);
QUARNEL_API int UHeapFree(void* block);
// The C library checks its heap as it goes: validation succeeds (1) unless
// the fault seam says otherwise (0).
QUARNEL_API int UHeapValidate();
// Returns unused heap memory to the system (malloc_trim); answers 0.
QUARNEL_API std::size_t UHeapCompact();

// Test seam: while deferral is on, UHeapFree keeps the blocks it is given
// (their memory stays readable, as a Win32 heap's freed block stays until it
// is reused); turning it off frees them. Lets a test reach a second free
// of the same block under AddressSanitizer.
void USetHeapFreeDeferred(int on);

namespace quarnel_internal {
// The bytes of a heap block that may be used: at least what was asked for,
// often a little more (the allocator's rounding). 0 for null.
std::size_t HeapUsableSize(void* block);
}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_HEAP_H_
