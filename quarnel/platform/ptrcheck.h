// Pointer probes, with Win32 meaning (IsBadReadPtr, IsBadWritePtr).
//
// The probes read the process's memory map instead of touching the memory,
// so an unmapped or inaccessible range is reported, never faulted on. The
// answer is a snapshot: another thread may map or unmap memory right after.
#ifndef QUARNEL_PLATFORM_PTRCHECK_H_
#define QUARNEL_PLATFORM_PTRCHECK_H_

#include <cstddef>

#include "quarnel/foundation/export.h"

// 0 when every byte of [p, p + size) is readable (writable), else 1. A size
// of 0 is never bad; a null pointer with a size is.
QUARNEL_API int UIsBadReadPtr(const void* p, std::size_t size);
QUARNEL_API int UIsBadWritePtr(void* p, std::size_t size);

#endif  // QUARNEL_PLATFORM_PTRCHECK_H_
