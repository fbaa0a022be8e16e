// The calling thread's identity, with Win32 meaning (GetCurrentThreadId,
// GetCurrentThread).
#ifndef QUARNEL_PLATFORM_THREADID_H_
#define QUARNEL_PLATFORM_THREADID_H_

#include "quarnel/foundation/export.h"

// The system-wide id of the calling thread (its kernel thread id).
QUARNEL_API unsigned UGetCurrentThreadId();
// A handle naming the calling thread within the process (its pthread_t).
QUARNEL_API void* UGetCurrentThread();

#endif  // QUARNEL_PLATFORM_THREADID_H_
