#include "quarnel/platform/threadid.h"

#include "quarnel/platform/win32/winapi.h"

namespace {

// GetCurrentThread gives a pseudo-handle that is the same in every thread;
// the thread's own real handle is made once and closed when it ends.
struct ThreadHandle {
  HANDLE handle = nullptr;
  ThreadHandle() {
    ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &handle,
                      0, FALSE, DUPLICATE_SAME_ACCESS);
  }
  ~ThreadHandle() {
    if (handle != nullptr) ::CloseHandle(handle);
  }
};

}  // namespace

unsigned UGetCurrentThreadId() { return ::GetCurrentThreadId(); }

void* UGetCurrentThread() {
  thread_local ThreadHandle self;
  return self.handle;
}
