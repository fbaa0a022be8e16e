#include "quarnel/platform/faults.h"

#include <atomic>
#include <mutex>

namespace {

constexpr int kCalls = static_cast<int>(UCall::kCount);

struct Fault {
  int countdown = 0;  // calls left before the first failing one; 0 = disarmed
  int repeat = 0;     // failing calls left once failing (-1 = no end)
  unsigned winerr = 0;
};

std::atomic<int> g_armed{0};  // number of armed calls: the fast path reads only this
std::mutex g_lock;
Fault g_faults[kCalls];

}  // namespace

void UFailCall(UCall call, int nth, unsigned winerr, int repeat) {
  const int i = static_cast<int>(call);
  if (i < 0 || i >= kCalls || nth < 1 || repeat == 0) return;
  std::lock_guard<std::mutex> hold(g_lock);
  Fault& f = g_faults[i];
  if (f.countdown == 0 && f.repeat == 0) g_armed.fetch_add(1, std::memory_order_relaxed);
  f.countdown = nth;
  f.repeat = repeat;
  f.winerr = winerr;
}

void UClearFaults() {
  std::lock_guard<std::mutex> hold(g_lock);
  for (Fault& f : g_faults) f = Fault{};
  g_armed.store(0, std::memory_order_relaxed);
}

bool UShouldFail(UCall call, unsigned* winerr) {
  if (g_armed.load(std::memory_order_relaxed) == 0) return false;
  const int i = static_cast<int>(call);
  if (i < 0 || i >= kCalls) return false;
  std::lock_guard<std::mutex> hold(g_lock);
  Fault& f = g_faults[i];
  if (f.countdown == 0 && f.repeat == 0) return false;
  if (f.countdown > 1) {
    --f.countdown;
    return false;
  }
  f.countdown = 0;
  if (winerr) *winerr = f.winerr;
  if (f.repeat > 0) --f.repeat;
  if (f.repeat == 0) g_armed.fetch_sub(1, std::memory_order_relaxed);
  return true;
}
