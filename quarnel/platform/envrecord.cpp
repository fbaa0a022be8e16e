// The live environment record and its memory figure: the same on every
// platform; only QuarnelDefaultEnv, which fills the record first, differs.
#include <atomic>
#include <cstdint>

#include "quarnel/platform/env.h"
#include "quarnel/platform/vmem.h"

namespace {

QuarnelEnvType& LiveRecord() {
  static QuarnelEnvType record = QuarnelDefaultEnv();
  return record;
}

}  // namespace

QuarnelEnvType* QuarnelEnv() { return &LiveRecord(); }

void QuarnelSetEnv(const QuarnelEnvType& env) {
  QuarnelEnvType& live = LiveRecord();
  if (&live != &env) live = env;
}

// Through GlobalMemoryStatus, so that a test's status override governs the
// figure as it governs MemAvail; a status without a total means that
// the system's figures could not be read.
std::uint64_t QuarnelRefreshAvailMemory() {
  std::atomic_ref<std::uint64_t> figure(LiveRecord().availPhysMemory);
  UMEMORYSTATUS status{};
  UGlobalMemoryStatus(&status);
  if (status.dwTotalPhys == 0) return figure.load(std::memory_order_relaxed);
  const std::uint64_t avail = status.dwAvailPhys;
  figure.store(avail, std::memory_order_relaxed);
  return avail;
}

std::uint64_t QuarnelAvailPhysMemory() {
  return std::atomic_ref<std::uint64_t>(LiveRecord().availPhysMemory)
      .load(std::memory_order_relaxed);
}
