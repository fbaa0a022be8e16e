#include "quarnel/platform/threadid.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

unsigned UGetCurrentThreadId() { return static_cast<unsigned>(::syscall(SYS_gettid)); }

void* UGetCurrentThread() { return reinterpret_cast<void*>(::pthread_self()); }
