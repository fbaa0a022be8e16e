// GlobalMemoryStatus with its test override and reservation limit, the same on
// every platform over the reading each one supplies.
#include <atomic>
#include <chrono>
#include <mutex>

#include "quarnel/platform/internal/memstatus.h"
#include "quarnel/platform/vmem.h"

namespace {

std::atomic<std::size_t> g_reserveLimit{0};
std::mutex g_statusLock;
bool g_statusOverridden = false;
UMEMORYSTATUS g_statusOverride{};

// A reading of the real figures stays current for kStatusHold: the growth
// check of every block asks for them, and reading them costs several system
// calls each time. Memory pressure builds up far more slowly than that.
constexpr std::chrono::milliseconds kStatusHold{10};
UMEMORYSTATUS g_statusCache{};
std::chrono::steady_clock::time_point g_statusCacheTime{};
bool g_statusCached = false;

}  // namespace

namespace quarnel_internal {

std::size_t VirtualReserveLimit() { return g_reserveLimit.load(std::memory_order_relaxed); }

}  // namespace quarnel_internal

void UGlobalMemoryStatus(UMEMORYSTATUS* status) {
  if (status == nullptr) return;
  {
    std::lock_guard<std::mutex> hold(g_statusLock);
    if (g_statusOverridden) {
      *status = g_statusOverride;
      status->dwLength = sizeof(UMEMORYSTATUS);
    } else {
      const auto now = std::chrono::steady_clock::now();
      if (!g_statusCached || now - g_statusCacheTime >= kStatusHold) {
        quarnel_internal::ReadMemoryStatus(&g_statusCache);
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
  g_statusOverridden = status != nullptr;
  g_statusCached = false;
}
