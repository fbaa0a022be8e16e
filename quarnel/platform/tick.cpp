// The tick count, its test offset and its freezing, on the clock each
// platform supplies (RawTickMilliseconds).
#include "quarnel/platform/tick.h"

#include <atomic>

#include "quarnel/platform/internal/tickraw.h"

namespace {

std::atomic<std::int64_t> g_offset{0};
// The raw clock reading the clock stands at while frozen; -1 while it runs.
std::atomic<std::int64_t> g_frozenAt{-1};

}  // namespace

std::uint64_t UGetTickCount64() {
  const std::int64_t frozen = g_frozenAt.load(std::memory_order_relaxed);
  const std::int64_t raw = frozen >= 0 ? frozen : quarnel_internal::RawTickMilliseconds();
  return static_cast<std::uint64_t>(raw) +
         static_cast<std::uint64_t>(g_offset.load(std::memory_order_relaxed));
}

unsigned UGetTickCount() { return static_cast<unsigned>(UGetTickCount64()); }

void USetTickOffset(std::int64_t ms) { g_offset.store(ms, std::memory_order_relaxed); }

std::int64_t UGetTickOffset() { return g_offset.load(std::memory_order_relaxed); }

// Freezing a frozen clock keeps it where it stands.
int UFreezeTickCount(int frozen) {
  if (frozen == 0) return g_frozenAt.exchange(-1, std::memory_order_relaxed) >= 0 ? 1 : 0;
  std::int64_t running = -1;
  return g_frozenAt.compare_exchange_strong(running, quarnel_internal::RawTickMilliseconds(),
                                            std::memory_order_relaxed)
             ? 0
             : 1;
}
