#include "quarnel/platform/ptrcheck.h"

#include "quarnel/platform/win32/winapi.h"

// The system's probes: they touch the memory under an exception handler of
// their own, so a bad range is reported, never faulted on.
int UIsBadReadPtr(const void* p, std::size_t size) {
  if (size == 0) return 0;
  if (p == nullptr) return 1;
  return ::IsBadReadPtr(p, size) ? 1 : 0;
}

int UIsBadWritePtr(void* p, std::size_t size) {
  if (size == 0) return 0;
  if (p == nullptr) return 1;
  return ::IsBadWritePtr(p, size) ? 1 : 0;
}
