#include "quarnel/platform/vmem.h"

#include <cstring>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/memstatus.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

constexpr unsigned kErrNotEnoughMemory = 8;

void* Fail(unsigned winerr) {
  USetLastError(winerr);
  return nullptr;
}

}  // namespace

// The kinds and protections have the system's values; the system checks them.
void* UVirtualAlloc(void* addr, std::size_t size, unsigned type, unsigned protect) {
  unsigned winerr = 0;
  const bool reserves = (type & kMemReserve) != 0 || addr == nullptr;
  if (reserves && size != 0 && UShouldFail(UCall::kVirtualReserve, &winerr)) return Fail(winerr);
  if ((type & kMemCommit) != 0 && size != 0 && UShouldFail(UCall::kVirtualCommit, &winerr)) {
    return Fail(winerr);
  }
  const std::size_t limit = quarnel_internal::VirtualReserveLimit();
  if (reserves && limit != 0 && size > limit) return Fail(kErrNotEnoughMemory);
  return ::VirtualAlloc(addr, size, type, protect);
}

int UVirtualFree(void* addr, std::size_t size, unsigned type) {
  return ::VirtualFree(addr, size, type) ? 1 : 0;
}

// Windows cannot move committed pages between reservations: the caller copies.
int UVirtualMove(const void*, void*, std::size_t) { return 0; }

std::size_t UVirtualPageSize() {
  static const std::size_t size = [] {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    return static_cast<std::size_t>(info.dwPageSize);
  }();
  return size;
}

namespace quarnel_internal {

void ReadMemoryStatus(UMEMORYSTATUS* status) {
  std::memset(status, 0, sizeof *status);
  status->dwLength = sizeof(UMEMORYSTATUS);
  MEMORYSTATUSEX ex{};
  ex.dwLength = sizeof ex;
  if (!::GlobalMemoryStatusEx(&ex)) return;
  status->dwMemoryLoad = ex.dwMemoryLoad;
  status->dwTotalPhys = static_cast<std::size_t>(ex.ullTotalPhys);
  status->dwAvailPhys = static_cast<std::size_t>(ex.ullAvailPhys);
  status->dwTotalPageFile = static_cast<std::size_t>(ex.ullTotalPageFile);
  status->dwAvailPageFile = static_cast<std::size_t>(ex.ullAvailPageFile);
  status->dwTotalVirtual = static_cast<std::size_t>(ex.ullTotalVirtual);
  status->dwAvailVirtual = static_cast<std::size_t>(ex.ullAvailVirtual);
}

}  // namespace quarnel_internal
