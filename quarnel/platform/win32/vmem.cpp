#include "quarnel/platform/vmem.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

constexpr unsigned kErrNotEnoughMemory = 8;

std::atomic<std::size_t> g_reserveLimit{0};
std::mutex g_statusLock;
std::atomic<bool> g_statusOverridden{false};
UMEMORYSTATUS g_statusOverride{};

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
  const std::size_t limit = g_reserveLimit.load(std::memory_order_relaxed);
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

namespace {

// A reading of the real figures stays current for kStatusHold, as on Linux:
// the growth check of every block asks for them.
constexpr std::chrono::milliseconds kStatusHold{10};
UMEMORYSTATUS g_statusCache{};
std::chrono::steady_clock::time_point g_statusCacheTime{};
bool g_statusCached = false;

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

}  // namespace

void UGlobalMemoryStatus(UMEMORYSTATUS* status) {
  if (status == nullptr) return;
  {
    std::lock_guard<std::mutex> hold(g_statusLock);
    if (g_statusOverridden.load(std::memory_order_acquire)) {
      *status = g_statusOverride;
      status->dwLength = sizeof(UMEMORYSTATUS);
    } else {
      const auto now = std::chrono::steady_clock::now();
      if (!g_statusCached || now - g_statusCacheTime >= kStatusHold) {
        ReadMemoryStatus(&g_statusCache);
        g_statusCacheTime = now;
        g_statusCached = true;
      }
      *status = g_statusCache;
    }
  }
  const std::size_t limit = g_reserveLimit.load(std::memory_order_relaxed);
  if (limit != 0 && status->dwAvailVirtual > limit) status->dwAvailVirtual = limit;
}

void USetVirtualReserveLimit(std::size_t limit) {
  g_reserveLimit.store(limit, std::memory_order_relaxed);
}

void USetGlobalMemoryStatusOverride(const UMEMORYSTATUS* status) {
  std::lock_guard<std::mutex> hold(g_statusLock);
  if (status != nullptr) g_statusOverride = *status;
  g_statusOverridden.store(status != nullptr, std::memory_order_release);
  g_statusCached = false;
}
