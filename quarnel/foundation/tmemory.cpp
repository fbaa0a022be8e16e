#include "quarnel/foundation/tmemory.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "quarnel/containers/tlist.h"
#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/heap.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/vmem.h"

namespace {

// Assertion lines of module "tmemory".
constexpr const char* kModule = "tmemory";
constexpr int kLineBadPriority = 62;  // constructor or SetPriority given a priority outside 0..2
constexpr int kLineDestroyPriority = 95;     // destroyed with a priority outside 0..2 (or twice)
constexpr int kLinePurgeableResize = 180;    // a purgeable block resized to a non-zero size
constexpr int kLineNoStorage = 452;          // release of a non-inline block without storage
constexpr int kLineNegativeCount = 488;      // a block counter went below zero
constexpr int kLinePurgeExhausted = 537;     // purge ran out of blocks before reaching its target
constexpr int kLineRequiredFailed = 574;     // SetSize failed at priority 2
constexpr int kLineAllocBufferArgs = 610;    // AllocBuffer: bad granularity, priority 2
constexpr int kLineAllocBufferFailed = 662;  // AllocBuffer: nothing obtained, priority 2

constexpr unsigned long long kAlign = 8;
constexpr unsigned long long kHeapLimit = 0x100000;     // 1 MiB: larger blocks are virtual
constexpr unsigned long long kCommitStep = 0x80000;     // 512 KiB
constexpr unsigned long long kReserveStep = 0x800000;   // 8 MiB
constexpr unsigned long long kAvailMargin = 0x6000000;  // 96 MiB kept free of blocks
constexpr unsigned long long kMax32 = 0xFFFFFFFFull;    // the counters' and fields' range
constexpr unsigned kRequiredCheckEvery = 100;           // priority 2: full check every 101st growth
constexpr unsigned long long kRequiredCheckBytes = 32768;  // ... or for a larger growth
constexpr unsigned kMaxGranularity = 0x800000;             // AllocBuffer: 8 MiB
constexpr unsigned kMoveAtLeast = 0x10000;   // virtual moves of 64 KiB and more move pages
constexpr unsigned kErrNotEnoughMemory = 8;  // Windows' ERROR_NOT_ENOUGH_MEMORY

unsigned long long RoundUp(unsigned long long value, unsigned long long multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

unsigned long long Aligned(unsigned size) { return RoundUp(size, kAlign); }

unsigned Clamp32(unsigned long long v) {
  return v > kMax32 ? static_cast<unsigned>(kMax32) : static_cast<unsigned>(v);
}

// The process-wide state of all blocks, made on first use and never
// destroyed. The monitor is the library's memory lock.
struct Shared {
  TMonitor& monitor = quarnel_internal::MemoryLock();
  TList purgeable;  // TMemory pointers, in the order they became purgeable
  TMemoryStats stats{};
  unsigned growthCounter = 0;
};

Shared& G() {
  static Shared* shared = new Shared;
  return *shared;
}

// Called with the monitor held.
void CheckCounts(const TMemoryStats& s) {
  if (s.heapBlocks < 0 || s.virtualBlocks < 0 || s.purgeableBlocks < 0 || s.requestedBlocks < 0)
    Debug(kModule, kLineNegativeCount);
}

void Add(unsigned* counter, long long delta) {
  *counter += static_cast<unsigned>(delta);  // modulo 2^32, so a negative delta subtracts
}

void ValidateAndCompactHeap() {
  if (UHeapValidate()) {
    UHeapCompact();
  } else {
    DebugLogf(kLogPlatform, "TMemory::mhalloc: HeapValidate failed");
  }
}

// tmemPurgeBlocks, keeping `exclude` (a block in the middle of its own
// resize) out of the purge.
void PurgeBlocks(unsigned target, const TMemory* exclude) {
  Shared& g = G();
  unsigned bytes = 0;
  int count = 0;
  {
    TMonitorHold hold(g.monitor);
    void* position = g.purgeable.First();
    while (g.stats.purgeableBytes > target) {
      if (position == nullptr) {
        Debug(kModule, kLinePurgeExhausted);
        break;
      }
      auto* block = reinterpret_cast<TMemory*>(TList::Item(position));
      if (block != exclude && block->GetSize() != 0) {
        // The emptied block stays on the list; the next round finds it empty
        // and moves on.
        bytes += block->GetSize();
        ++count;
        block->SetSize(0, -1);
      } else {
        position = g.purgeable.Next(position);
      }
    }
  }
  DebugLogf(kLogInternalData, "tmemPurgeBlocks: purged %K (%~d blocks)", bytes >> 10, count);
}

}  // namespace

// What one resize or release changes in the process-wide counters; applied
// in one step under the monitor.
struct TMemory::Change {
  int heapBlocks = 0;
  long long heapBytes = 0;
  int virtualBlocks = 0;
  long long reservedBytes = 0;
  long long committedBytes = 0;
  int requestedBlocks = 0;
  long long requestedBytes = 0;
  long long purgeableBytes = 0;

  void Apply() const {
    Shared& g = G();
    TMonitorHold hold(g.monitor);
    TMemoryStats& s = g.stats;
    s.heapBlocks += heapBlocks;
    Add(&s.heapBytes, heapBytes);
    s.virtualBlocks += virtualBlocks;
    Add(&s.reservedBytes, reservedBytes);
    Add(&s.committedBytes, committedBytes);
    s.requestedBlocks += requestedBlocks;
    Add(&s.requestedBytes, requestedBytes);
    Add(&s.purgeableBytes, purgeableBytes);
    CheckCounts(s);
  }
};

TMemory::TMemory() { init(2); }

TMemory::TMemory(short priority) { init(priority); }

TMemory::TMemory(const TMemory& other) {
  init(other.priority_);
  if (SetSize(other.size_, -1) == 0) BlockMove(other.data_, data_, other.size_);
}

TMemory& TMemory::operator=(const TMemory& other) {
  SetPriority(other.priority_);
  if (SetSize(other.size_, -1) == 0 && &other != this) BlockMove(other.data_, data_, other.size_);
  return *this;
}

TMemory::TMemory(TMemory&& other) noexcept {
  init(other.priority_);
  takeFrom(other);
}

TMemory& TMemory::operator=(TMemory&& other) noexcept {
  if (&other == this) return *this;
  SetFlags(0, kTMemPurgeable);
  mhdealloc();
  takeFrom(other);
  return *this;
}

// The counters do not change: the same storage, size and purgeable bytes
// belong to another object now.
void TMemory::takeFrom(TMemory& other) {
  Shared& g = G();
  std::optional<TMonitorHold> hold;
  if ((other.flags_ & kTMemPurgeable) != 0) {
    hold.emplace(g.monitor);
    const int at = g.purgeable.Find(reinterpret_cast<std::intptr_t>(&other));
    if (at >= 0) {
      g.purgeable.RemoveAt(at);
      g.purgeable.AddAt(reinterpret_cast<std::intptr_t>(this), at);
    }
  }
  if (other.data_ == other.inline_) {
    // The whole 8-byte steps: bytes past the size within the last step keep
    // their values, as they do when the size changes within a step.
    std::memcpy(inline_, other.inline_, static_cast<std::size_t>(Aligned(other.size_)));
    data_ = inline_;
  } else {
    data_ = other.data_;
  }
  size_ = other.size_;
  priority_ = other.priority_;
  flags_ = other.flags_;
  lastError_ = other.lastError_;
  reserved_ = other.reserved_;
  committed_ = other.committed_;
  dirty_ = other.dirty_;
  other.data_ = other.inline_;
  other.size_ = 0;
  other.flags_ = 0;
  other.lastError_ = 0;
  other.reserved_ = 0;
  other.committed_ = 0;
  other.dirty_ = 0;
}

// The purgeable flag is cleared before the storage is released (the reverse
// of the order one might expect): once off the list, no purge running on
// another thread can release the same storage. The counters end the same.
TMemory::~TMemory() {
  if (priority_ < 0 || priority_ > 2) Debug(kModule, kLineDestroyPriority);
  SetFlags(0, kTMemPurgeable);
  mhdealloc();
  priority_ = -1;
}

void TMemory::init(short priority) {
  G();
  data_ = inline_;
  lastError_ = 0;
  size_ = 0;
  priority_ = priority;
  flags_ = 0;
  reserved_ = 0;
  committed_ = 0;
  dirty_ = 0;
  std::memset(inline_, 0, sizeof inline_);
  if (priority < 0 || priority > 2) Debug(kModule, kLineBadPriority);
}

int TMemory::SetSize(unsigned size, short priority) {
  const short effective = priority == -1 ? priority_ : priority;
  const unsigned old = size_;
  const int err = mhalloc(size, effective);
  setLastError(err);
  if (err != 0) {
    DebugLogf(effective == 2 ? kLogPlatform : kLogInternalData,
              "TMemory::SetSize: priority %d failed from %K to %K", static_cast<int>(effective),
              old >> 10, size >> 10);
    if (effective == 2) Debug(kModule, kLineRequiredFailed);
  }
  return err;
}

int TMemory::Reset() { return SetSize(0, -1); }

void TMemory::Zero() {
  if (size_ != 0) std::memset(data_, 0, size_);
}

int TMemory::SetPriority(short priority) {
  if (priority < 0 || priority > 2) Debug(kModule, kLineBadPriority);
  priority_ = priority;
  return 0;
}

unsigned TMemory::SetFlags(unsigned set, unsigned clear) {
  Shared& g = G();
  TMonitorHold hold(g.monitor);
  const unsigned old = flags_;
  const unsigned now = ((old | set) & ~clear) & 0xFFFFu;
  flags_ = static_cast<unsigned short>(now);
  const bool was = (old & kTMemPurgeable) != 0;
  const bool is = (now & kTMemPurgeable) != 0;
  if (was && !is) {
    g.purgeable.Remove(reinterpret_cast<std::intptr_t>(this));
    g.stats.purgeableBytes -= size_;
    g.stats.purgeableBlocks -= 1;
    CheckCounts(g.stats);
  } else if (!was && is) {
    g.purgeable.AddLast(reinterpret_cast<std::intptr_t>(this));
    g.stats.purgeableBytes += size_;
    g.stats.purgeableBlocks += 1;
  }
  return now;
}

// Newly exposed bytes of heap or virtual storage read as zero. Fresh
// commitments are zero already; what the block held before in the same
// storage (dirty_) is cleared here.
void TMemory::zeroGrowth(unsigned size) {
  if (size <= size_) return;
  const unsigned end = std::min(size, dirty_);
  if (end > size_) std::memset(data_ + size_, 0, end - size_);
  if (dirty_ < size) dirty_ = size;
}

// The release keeps the monitor for a purgeable block throughout, so that it
// cannot race with a purge emptying the same block.
int TMemory::mhdealloc() {
  const bool purgeable = (flags_ & kTMemPurgeable) != 0;
  std::optional<TMonitorHold> hold;
  if (purgeable) hold.emplace(G().monitor);
  Change change;
  if (data_ != inline_) {
    if (reserved_ != 0) {
      const int decommitted = UVirtualFree(data_, 0, kMemDecommit);
      const int released = UVirtualFree(data_, 0, kMemRelease);
      if (!decommitted || !released) {
        DebugLogf(kLogPlatform, "TMemory::mhdealloc: VirtualFree failed, error %~d",
                  static_cast<int>(UGetLastError()));
      }
      change.committedBytes = -static_cast<long long>(committed_);
      change.reservedBytes = -static_cast<long long>(reserved_);
      change.virtualBlocks = -1;
    } else if (data_ == nullptr) {
      Debug(kModule, kLineNoStorage);
    } else {
      UHeapFree(data_);
      change.heapBytes = -static_cast<long long>(Aligned(size_));
      change.heapBlocks = -1;
    }
    change.requestedBlocks = -1;
    change.requestedBytes = -static_cast<long long>(size_);
  }
  if (purgeable) change.purgeableBytes = -static_cast<long long>(size_);
  if (data_ != inline_ || purgeable) change.Apply();
  data_ = inline_;
  reserved_ = 0;
  committed_ = 0;
  dirty_ = 0;
  size_ = 0;
  return 0;
}

int TMemory::mhalloc(unsigned size, short priority) {
  if (size == 0) return mhdealloc();
  const bool purgeable = (flags_ & kTMemPurgeable) != 0;
  std::optional<TMonitorHold> hold;
  if (purgeable) {
    // Misuse: the resize goes on, holding the monitor so that no purge
    // empties the block meanwhile, and the purgeable bytes follow the size.
    Debug(kModule, kLinePurgeableResize);
    hold.emplace(G().monitor);
  }
  const long long delta = static_cast<long long>(size) - size_;
  const unsigned long long newAligned = Aligned(size);
  const unsigned long long oldAligned = Aligned(size_);
  const bool wasInline = data_ == inline_;

  // The same storage: only the size changes; the bytes keep their values.
  if (newAligned == oldAligned) {
    if (!wasInline || purgeable) {
      Change change;
      if (!wasInline) change.requestedBytes = delta;
      if (purgeable) change.purgeableBytes = delta;
      change.Apply();
    }
    if (!wasInline && dirty_ < size) dirty_ = size;
    size_ = size;
    return 0;
  }

  if (priority != 0 && wasInline && newAligned <= kTMemoryInlineSize) {
    if (size > size_) std::memset(inline_ + size_, 0, size - size_);
    if (purgeable) {
      Change change;
      change.purgeableBytes = delta;
      change.Apply();
    }
    size_ = size;
    return 0;
  }

  if (size > size_) {
    const int err = growthCheck(newAligned, oldAligned, priority);
    if (err != 0) return err;
  }

  Change change;
  bool done = false;
  if (priority != 0 && reserved_ == 0 && newAligned <= kHeapLimit)
    done = heapResize(static_cast<unsigned>(newAligned), &change);
  if (!done && !virtualResize(newAligned, &change)) return kErrMemNotObtained;

  if (wasInline) {
    change.requestedBlocks += 1;
    change.requestedBytes += size;
  } else {
    change.requestedBytes += delta;
  }
  if (purgeable) change.purgeableBytes += delta;
  change.Apply();
  zeroGrowth(size);
  size_ = size;
  return 0;
}

// The growth check and the denial rule. Returns 0 or -625 (denied).
int TMemory::growthCheck(unsigned long long newAligned, unsigned long long oldAligned,
                         short priority) {
  Shared& g = G();
  unsigned long long allowance;
  unsigned purgeable;
  {
    TMonitorHold hold(g.monitor);
    g.growthCounter += 1;
    if (g.growthCounter <= kRequiredCheckEvery && priority == 2 &&
        newAligned - oldAligned <= kRequiredCheckBytes) {
      return 0;
    }
    g.growthCounter = 0;
    QuarnelRefreshAvailMemory();
    const unsigned long long avail = MemAvail(priority, 100);
    const unsigned long long margin = avail > kAvailMargin ? avail - kAvailMargin : 0;
    // Purgeable blocks held inline are not requested blocks: the need is
    // taken as 0 rather than wrapping below it.
    long long need = static_cast<long long>(g.stats.requestedBytes) +
                     static_cast<long long>(newAligned - oldAligned) -
                     static_cast<long long>(g.stats.purgeableBytes);
    if (need < 0) need = 0;
    const auto needed = static_cast<unsigned long long>(need);
    allowance = needed > margin ? 0 : (margin - needed) / 100 * 60;
    if (margin < newAligned) allowance = newAligned <= allowance ? allowance - newAligned : 0;
    purgeable = g.stats.purgeableBytes;
  }
  if (purgeable > allowance) {
    PurgeBlocks(Clamp32(allowance), this);
    ValidateAndCompactHeap();
    MemAvail(priority, 100);
  }
  if (priority == 0 || priority == 1) {
    const std::uint64_t physical = QuarnelAvailPhysMemory();
    if (newAligned > physical) {
      DebugLogf(kLogInternal,
                "TMemory::mhalloc: denied (requested: %~u, current: %~u, physical memory "
                "available: %~u)",
                Clamp32(newAligned), Clamp32(oldAligned), Clamp32(physical));
      return kErrMemNotObtained;
    }
  }
  return 0;
}

// Heap storage for a block that is inline, empty or on the heap. On failure
// the block is as it was.
bool TMemory::heapResize(unsigned newAligned, Change* change) {
  const bool fromInline = data_ == inline_;
  auto attempt = [&]() -> void* {
    return fromInline ? UHeapAlloc(kHeapZeroMemory, newAligned)
                      : UHeapReAlloc(kHeapZeroMemory, data_, newAligned);
  };
  void* p = attempt();
  if (p == nullptr) {
    PurgeBlocks(0, this);
    ValidateAndCompactHeap();
    p = attempt();
  }
  if (p == nullptr) {
    DebugLogf(kLogInternal, "TMemory::mhalloc: MemHeap[Re]Alloc(%u) failed", newAligned);
    return false;
  }
  if (fromInline) {
    std::memcpy(p, inline_, std::min(newAligned, size_));
    change->heapBlocks += 1;
    change->heapBytes += newAligned;
  } else {
    change->heapBytes +=
        static_cast<long long>(newAligned) - static_cast<long long>(Aligned(size_));
  }
  data_ = static_cast<unsigned char*>(p);
  // A new block comes zeroed beyond the bytes copied into it; a reallocated
  // one may hand back bytes it held before beyond the old size: treat it as
  // possibly dirty throughout, so that growth always clears.
  dirty_ = fromInline ? std::min(newAligned, size_) : 0xFFFFFFFFu;
  return true;
}

// Virtual storage: grows or shrinks inside the reservation, or moves to a
// new one. On failure the block is as it was.
bool TMemory::virtualResize(unsigned long long newAligned, Change* change) {
  const unsigned long long commit = RoundUp(newAligned, kCommitStep);
  if (reserved_ != 0 && commit <= reserved_) {
    // Shrinking never decommits: the pages stay committed until release.
    if (commit > committed_) {
      if (UVirtualAlloc(data_ + committed_, commit - committed_, kMemCommit, kPageReadWrite) ==
          nullptr) {
        DebugLogf(kLogInternal, "TMemory::mhalloc: VirtualAlloc(%K, MEM_COMMIT) failed, error %~d",
                  Clamp32(commit >> 10), static_cast<int>(UGetLastError()));
        return false;
      }
      change->committedBytes += static_cast<long long>(commit - committed_);
      committed_ = static_cast<unsigned>(commit);
    }
    return true;
  }

  // Twice the need in 8 MiB steps, so that growth rarely moves the block;
  // a reservation beyond the 32-bit counters counts as a refusal.
  unsigned long long reserve = RoundUp(2 * commit, kReserveStep);
  void* base = nullptr;
  if (reserve <= kMax32) {
    base = UVirtualAlloc(nullptr, reserve, kMemReserve, kPageNoAccess);
  } else {
    USetLastError(kErrNotEnoughMemory);
  }
  if (base == nullptr) {
    PurgeBlocks(0, this);
    reserve = commit;
    if (reserve <= kMax32) {
      base = UVirtualAlloc(nullptr, reserve, kMemReserve, kPageNoAccess);
    } else {
      USetLastError(kErrNotEnoughMemory);
    }
    if (base == nullptr) {
      DebugLogf(kLogPlatform, "TMemory::mhalloc: VirtualAlloc(%K, MEM_RESERVE) failed, error %~d",
                Clamp32(reserve >> 10), static_cast<int>(UGetLastError()));
      return false;
    }
  }
  if (UVirtualAlloc(base, commit, kMemCommit, kPageReadWrite) == nullptr) {
    DebugLogf(kLogInternal, "TMemory::mhalloc: VirtualAlloc(%K, MEM_COMMIT) failed, error %~d",
              Clamp32(commit >> 10), static_cast<int>(UGetLastError()));
    UVirtualFree(base, 0, kMemRelease);
    return false;
  }

  const unsigned copy = static_cast<unsigned>(std::min<unsigned long long>(commit, size_));
  unsigned dirty = copy;
  if (reserved_ != 0 && copy >= kMoveAtLeast && UVirtualMove(data_, base, copy)) {
    // Whole pages moved, not copied: they bring what the block held past
    // its size up to the page's end.
    const unsigned long long page = UVirtualPageSize();
    dirty = static_cast<unsigned>(std::min<unsigned long long>(dirty_, RoundUp(copy, page)));
  } else if (copy != 0) {
    std::memcpy(base, data_, copy);
  }
  if (reserved_ != 0) {
    UVirtualFree(data_, 0, kMemDecommit);
    if (!UVirtualFree(data_, 0, kMemRelease)) {
      DebugLogf(kLogPlatform, "TMemory::mhalloc: VirtualFree failed for reallocation, error %~d",
                static_cast<int>(UGetLastError()));
    }
    change->reservedBytes -= reserved_;
    change->committedBytes -= committed_;
  } else if (data_ != inline_) {
    UHeapFree(data_);
    change->heapBlocks -= 1;
    change->heapBytes -= static_cast<long long>(Aligned(size_));
    change->virtualBlocks += 1;
  } else {
    change->virtualBlocks += 1;
  }
  reserved_ = static_cast<unsigned>(reserve);
  committed_ = static_cast<unsigned>(commit);
  change->reservedBytes += static_cast<long long>(reserve);
  change->committedBytes += static_cast<long long>(commit);
  data_ = static_cast<unsigned char*>(base);
  dirty_ = dirty;
  return true;
}

unsigned TMemory::AllocBuffer(unsigned a, unsigned b, unsigned granularity) {
  setLastError(0);
  const unsigned long long g = granularity;
  const unsigned long long lo64 = g == 0 ? std::min(a, b) : RoundUp(std::min(a, b), g);
  unsigned long long hi64 = g == 0 ? std::max(a, b) : RoundUp(std::max(a, b), g);
  if (g == 0 || g > kMaxGranularity || g > lo64 || lo64 > kMax32) {
    setLastError(kErrMemBadArguments);
    if (priority_ == 2) Debug(kModule, kLineAllocBufferArgs);
    return 0;
  }
  if (hi64 > kMax32) hi64 = kMax32 / g * g;  // the largest size a block can hold
  const auto lo = static_cast<unsigned>(lo64);
  const auto hi = static_cast<unsigned>(hi64);
  const short priority = priority_;

  mhdealloc();
  long long n = static_cast<long long>(MemAvail(priority, 100) / g * g);
  n = std::clamp<long long>(n, lo, hi);
  while (n >= lo) {
    const int err = mhalloc(static_cast<unsigned>(n), priority);
    setLastError(err);
    if (err == 0) return static_cast<unsigned>(n);
    n -= static_cast<long long>(g);
    // Sizes above the physical-memory figure would all be denied the same
    // way: go straight to the largest one below it.
    if ((priority == 0 || priority == 1) && n >= lo) {
      const long long ceiling = static_cast<long long>(QuarnelAvailPhysMemory() / kAlign * kAlign);
      if (n > ceiling) {
        const long long steps =
            (n - ceiling + static_cast<long long>(g) - 1) / static_cast<long long>(g);
        n -= steps * static_cast<long long>(g);
        if (n < lo) n = static_cast<long long>(lo) - static_cast<long long>(g);
      }
    }
  }
  // The priority-1 fallback returns the loop's last n, lo - granularity:
  // below the caller's minimum on purpose, so that the caller learns of the
  // fallback; GetSize tells the size really held.
  if (priority == 0) {
    const int err = mhalloc(lo, 1);
    setLastError(err);
    if (err == 0) return static_cast<unsigned>(n);
  }
  DebugLogf(kLogPlatform, "TMemory::AllocBuffer(%K, %K, 0x%x) failed", lo >> 10, hi >> 10,
            granularity);
  setLastError(kErrMemNotObtained);
  if (priority == 2) Debug(kModule, kLineAllocBufferFailed);
  return 0;
}

void tmemPurgeBlocks(unsigned target) { PurgeBlocks(target, nullptr); }

TMemoryStats tmemGetStats() {
  Shared& g = G();
  TMonitorHold hold(g.monitor);
  return g.stats;
}

void tmemLogStats() {
  const TMemoryStats s = tmemGetStats();
  DebugLogf(kLogStats, "TMemory:     heap %6~d %9K", s.heapBlocks, s.heapBytes >> 10);
  DebugLogf(kLogStats, "          virtual %6~d %9K", s.virtualBlocks, s.reservedBytes >> 10);
  DebugLogf(kLogStats, "           commit        %9K", s.committedBytes >> 10);
  DebugLogf(kLogStats, "        purgeable %6~d %9K", s.purgeableBlocks, s.purgeableBytes >> 10);
  DebugLogf(kLogStats, "        requested %6~d %9K", s.requestedBlocks, s.requestedBytes >> 10);
}
