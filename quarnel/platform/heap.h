// The process heap, with Win32 meaning (HeapAlloc, HeapReAlloc, HeapFree,
// HeapValidate, HeapCompact). A failing call returns null and sets the last
// error to 8 (not enough memory).
#ifndef QUARNEL_PLATFORM_HEAP_H_
#define QUARNEL_PLATFORM_HEAP_H_

#include <cstddef>

#include "quarnel/foundation/export.h"

enum : unsigned { kHeapZeroMemory = 0x8 };

QUARNEL_API void* UHeapAlloc(unsigned flags, std::size_t bytes);
QUARNEL_API void* UHeapReAlloc(unsigned flags, void* block, std::size_t bytes);
QUARNEL_API int UHeapFree(void* block);
// The C library checks its heap as it goes: validation always succeeds.
QUARNEL_API int UHeapValidate();
// Returns unused heap memory to the system (malloc_trim).
QUARNEL_API std::size_t UHeapCompact();

#endif  // QUARNEL_PLATFORM_HEAP_H_
