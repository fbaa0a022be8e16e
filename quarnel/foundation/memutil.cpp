#include "quarnel/foundation/memutil.h"

#include "quarnel/datetime/tdate.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/alert.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/heap.h"
#include "quarnel/platform/vmem.h"

namespace {

// Every block starts with a 16-byte header so that the caller's pointer keeps
// the heap's 16-byte alignment. The 32-bit size the caller asked for sits
// just before the caller's pointer; a freed block has it negated, and its
// state word changed, so that a second free is caught while the heap has not
// reused the memory (a block of size 0 negates to 0: the state word catches it).
struct BlockHeader {
  std::uint32_t reserved[2];
  std::uint32_t state;
  std::int32_t size;
};
static_assert(sizeof(BlockHeader) == 16);

constexpr std::uint32_t kLive = 0x516E4D61;   // 'QnMa'
constexpr std::uint32_t kFreed = 0x516E4672;  // 'QnFr'

// The two counters share one 64-bit word (blocks in the high half, bytes in
// the low half) changed with one atomic addition: the same totals as under
// the memory lock, without a lock on the allocation path, and the pair is
// always read consistently. The byte total of live blocks never leaves
// [0, 2^32), so a negative delta added modulo 2^64 leaves the block half alone.
std::atomic<std::uint64_t> g_counters{0};

void Count(std::int64_t blocks, std::int64_t bytes) {
  g_counters.fetch_add(static_cast<std::uint64_t>(blocks * (std::int64_t{1} << 32) + bytes),
                       std::memory_order_relaxed);
}

BlockHeader* HeaderOf(const void* p) {
  return reinterpret_cast<BlockHeader*>(const_cast<char*>(static_cast<const char*>(p)) -
                                        sizeof(BlockHeader));
}

bool IsFreed(const BlockHeader* h) { return h->size < 0 || h->state != kLive; }

void* UserOf(BlockHeader* h) { return reinterpret_cast<char*>(h) + sizeof(BlockHeader); }

constexpr unsigned kMemAvailHold = 0x2000000;    // 32 MB set aside by kind 1
constexpr unsigned kMemReportFloor = 0x1000000;  // 16 MB not counted by kind 0

// The physical figures as the 32-bit status record gives them: capped at
// 4 GB - 1, which keeps the budget arithmetic (and the answer) in 32 bits.
unsigned Clamp32(std::size_t v) { return v > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned>(v); }

bool TryReserve(unsigned bytes) {
  void* p = UVirtualAlloc(nullptr, bytes, kMemReserve, kPageNoAccess);
  if (p == nullptr) return false;
  UVirtualFree(p, 0, kMemRelease);
  return true;
}

}  // namespace

namespace {

// The allocation paths of MemAlloc and MemRealloc; `fill` zero-fills the
// bytes the caller has not had before.
void* Allocate(unsigned size, bool fill) {
  const unsigned flags = fill ? static_cast<unsigned>(kHeapZeroMemory) : 0u;
  if (size > kMemLargestRequest) Debug("memutil", 150);
  auto* h = static_cast<BlockHeader*>(UHeapAlloc(flags, sizeof(BlockHeader) + size));
  if (h == nullptr) {
    if (UHeapValidate()) {
      UHeapCompact();
    } else {
      DebugLogf(kLogPlatform, "MemAlloc: HeapValidate failed");
    }
    h = static_cast<BlockHeader*>(UHeapAlloc(flags, sizeof(BlockHeader) + size));
    if (h == nullptr) {
      Debug("memutil", 163);
      return nullptr;
    }
  }
  h->state = kLive;
  h->size = static_cast<std::int32_t>(size);
  Count(1, size);
  return UserOf(h);
}

void* Reallocate(void* p, unsigned size, bool fill) {
  if (size > kMemLargestRequest) Debug("memutil", 198);
  if (p == nullptr) return Allocate(size, fill);
  BlockHeader* h = HeaderOf(p);
  if (IsFreed(h)) {
    Debug("memutil", 202);
    return p;
  }
  const std::int32_t old = h->size;
  // An unfilled block (the string class's buffer, grown a step at a time)
  // grows into what the heap already gave it without a call, and otherwise
  // asks the heap for half as much again as it held, so that the next steps
  // fit. The size asked for is what MemSize and the counters show.
  std::size_t request = sizeof(BlockHeader) + size;
  if (!fill && size > static_cast<unsigned>(old)) {
    if (quarnel_internal::HeapUsableSize(h) >= request) {
      h->size = static_cast<std::int32_t>(size);
      Count(0, static_cast<std::int64_t>(size) - old);
      return p;
    }
    const unsigned ahead = std::min(static_cast<unsigned>(old) / 2 * 3, kMemLargestRequest);
    request = sizeof(BlockHeader) + std::max(size, ahead);
  }
  auto* n = static_cast<BlockHeader*>(UHeapReAlloc(0, h, request));
  if (n == nullptr) {
    if (UHeapValidate()) {
      UHeapCompact();
    } else {
      DebugLogf(kLogPlatform, "MemAlloc: HeapValidate failed");
    }
    n = static_cast<BlockHeader*>(UHeapAlloc(0, sizeof(BlockHeader) + size));
    if (n == nullptr) {
      Debug("memutil", 215);
      return p;
    }
    std::memcpy(n, h, sizeof(BlockHeader) + std::min<unsigned>(static_cast<unsigned>(old), size));
    UHeapFree(h);
  }
  if (fill && size > static_cast<unsigned>(old)) {
    std::memset(reinterpret_cast<char*>(n) + sizeof(BlockHeader) + old, 0, size - old);
  }
  n->size = static_cast<std::int32_t>(size);
  Count(0, static_cast<std::int64_t>(size) - old);
  return UserOf(n);
}

}  // namespace

void* MemAlloc(unsigned size) { return Allocate(size, true); }

void* MemRealloc(void* p, unsigned size) { return Reallocate(p, size, true); }

void* quarnel_internal::MemAllocUnfilled(unsigned size) { return Allocate(size, false); }

void* quarnel_internal::MemReallocUnfilled(void* p, unsigned size) {
  return Reallocate(p, size, false);
}

void MemFree(void* p) {
  if (p == nullptr) return;
  BlockHeader* h = HeaderOf(p);
  if (IsFreed(h)) {
    Debug("memutil", 249);
    return;
  }
  const std::int32_t size = h->size;
  h->size = -size;
  h->state = kFreed;
  Count(-1, -static_cast<std::int64_t>(size));
  UHeapFree(h);
}

unsigned MemSize(const void* p) {
  if (p == nullptr) return 0;
  const BlockHeader* h = HeaderOf(p);
  if (IsFreed(h)) {
    Debug("memutil", 283);
    return 0;
  }
  return static_cast<unsigned>(h->size);
}

// The heap calls are the C library's, which raises nothing: the Win32
// version's "ignoring exception in OS allocation" lines have no cause here.
void MemPack() {
  if (!UHeapValidate()) DebugLogf(kLogPlatform, "MemPack: HeapValidate failed");
  UHeapCompact();
}

unsigned MemAvail(short kind, int percent) {
  if (percent < 0 || percent > 100) {
    Debug("memutil", 332);
    percent = percent < 0 ? 0 : 100;  // measured within the nearest valid budget
  }
  TMonitorHold hold(quarnel_internal::MemoryLock());
  void* held = nullptr;
  if (kind == 1) held = UVirtualAlloc(nullptr, kMemAvailHold, kMemReserve, kPageNoAccess);

  UMEMORYSTATUS status{};
  UGlobalMemoryStatus(&status);
  const unsigned totalPhys = Clamp32(status.dwTotalPhys);
  const unsigned availPhys = Clamp32(status.dwAvailPhys);
  unsigned budget;
  if (kind <= 0) {
    budget = totalPhys > kMemReportFloor ? totalPhys - kMemReportFloor : 0;
    if (availPhys > budget) budget = availPhys;
    budget = budget / 100 / 2;
  } else {
    budget = totalPhys / 100;
    if (budget > 10737418) budget = 10737418;
  }
  budget *= static_cast<unsigned>(percent);

  unsigned found = 0;
  if (TryReserve(budget)) {
    found = budget;
  } else {
    unsigned x = budget / 2;
    unsigned step = x;
    const unsigned minStep = x / 8;
    for (;;) {
      if (step <= minStep && (found != 0 || step < 4097)) break;
      step /= 2;
      if (!TryReserve(x)) {
        x -= step;
      } else {
        found = x;
        if (step > minStep) x += step;
      }
    }
  }

  if (held != nullptr) UVirtualFree(held, 0, kMemRelease);
  return found;
}

void MemDebug(int what) {
  if (static_cast<unsigned>(what) == kMemDebugLast) return;
  if (what != 0) {
    DebuggerBreak();
    return;
  }
  DebugLogf(kLogStats, "");
  TDate now;
  now.SetToCurrent();
  DebugLogf(kLogStats, "Memory Status at %~D...", &now);
  tmemLogStats();
  int blocks;
  unsigned bytes;
  unsigned available;
  unsigned requestable;
  unsigned bufferable;
  {
    TMonitorHold hold(quarnel_internal::MemoryLock());
    blocks = MemBlockCount();
    bytes = static_cast<unsigned>(MemByteCount());
    available = MemAvail(2, 100);
    requestable = MemAvail(1, 100);
    bufferable = MemAvail(0, 100);
  }
  // The lines are written after the lock is left, so a log hook never runs
  // under the memory lock.
  DebugLogf(kLogStats, "Utility:     heap %6~d %9K", blocks, bytes >> 10);
  DebugLogf(kLogStats, "        available        %9K", available >> 10);
  DebugLogf(kLogStats, "      requestable        %9K", requestable >> 10);
  DebugLogf(kLogStats, "       bufferable        %9K", bufferable >> 10);
}

int MemBlockCount() { return static_cast<int>(g_counters.load(std::memory_order_relaxed) >> 32); }
int MemByteCount() {
  return static_cast<int>(static_cast<std::uint32_t>(g_counters.load(std::memory_order_relaxed)));
}

namespace {

// A null pointer with a non-zero count asserts and the call does nothing.
constexpr int kLineNullMove = 364;
constexpr int kLineNullFill = 377;
constexpr int kLineNullZero = 389;
constexpr int kLineNullCompare = 402;

bool NullWithBytes(const void* a, const void* b, long long n, int line) {
  if (n <= 0 || (a != nullptr && b != nullptr)) return false;
  Debug("memutil", line);
  return true;
}

}  // namespace

void BlockMove(const void* from, void* to, unsigned n) {
  if (n != 0 && !NullWithBytes(from, to, n, kLineNullMove)) std::memmove(to, from, n);
}

void BlockFill(void* p, unsigned n, unsigned char value) {
  if (n != 0 && !NullWithBytes(p, p, n, kLineNullFill)) std::memset(p, value, n);
}

void ZeroFill(void* p, unsigned n) {
  if (n != 0 && !NullWithBytes(p, p, n, kLineNullZero)) std::memset(p, 0, n);
}

int EqualBlock(const void* a, const void* b, int n) {
  if (n <= 0) return 1;
  if (NullWithBytes(a, b, n, kLineNullCompare)) return 0;
  return std::memcmp(a, b, static_cast<std::size_t>(n)) == 0 ? 1 : 0;
}

unsigned Ceiling(unsigned value, unsigned multiple) {
  if (multiple == 0) return value;
  const unsigned rest = value % multiple;
  return rest == 0 ? value : value + (multiple - rest);
}

unsigned Floor(unsigned value, unsigned multiple) {
  if (multiple == 0) return value;
  return value - value % multiple;
}

namespace quarnel_internal {

TMonitor& MemoryLock() {
  static auto* lock = new TMonitor;  // never destroyed: used until the process ends
  return *lock;
}

}  // namespace quarnel_internal
