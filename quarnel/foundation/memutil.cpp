#include "quarnel/foundation/memutil.h"

#include <atomic>
#include <cstdint>
#include <algorithm>
#include <cstring>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/heap.h"

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

// The counters are changed with atomic additions: the same totals as under
// the memory lock, without a lock on the allocation path.
std::atomic<std::int32_t> g_blocks{0};
std::atomic<std::int32_t> g_bytes{0};

BlockHeader* HeaderOf(const void* p) {
  return reinterpret_cast<BlockHeader*>(const_cast<char*>(static_cast<const char*>(p)) -
                                        sizeof(BlockHeader));
}

bool IsFreed(const BlockHeader* h) { return h->size < 0 || h->state != kLive; }

void* UserOf(BlockHeader* h) { return reinterpret_cast<char*>(h) + sizeof(BlockHeader); }

}  // namespace

void* MemAlloc(unsigned size) {
  if (size > kMemLargestRequest) Debug("memutil", 150);
  auto* h = static_cast<BlockHeader*>(UHeapAlloc(kHeapZeroMemory, sizeof(BlockHeader) + size));
  if (h == nullptr) {
    if (UHeapValidate()) {
      UHeapCompact();
    } else {
      DebugLogf(kLogPlatform, "MemAlloc: HeapValidate failed");
    }
    h = static_cast<BlockHeader*>(UHeapAlloc(kHeapZeroMemory, sizeof(BlockHeader) + size));
    if (h == nullptr) {
      Debug("memutil", 163);
      return nullptr;
    }
  }
  h->state = kLive;
  h->size = static_cast<std::int32_t>(size);
  g_blocks.fetch_add(1, std::memory_order_relaxed);
  g_bytes.fetch_add(static_cast<std::int32_t>(size), std::memory_order_relaxed);
  return UserOf(h);
}

void* MemRealloc(void* p, unsigned size) {
  if (size > kMemLargestRequest) Debug("memutil", 198);
  if (p == nullptr) return MemAlloc(size);
  BlockHeader* h = HeaderOf(p);
  if (IsFreed(h)) {
    Debug("memutil", 202);
    return p;
  }
  const std::int32_t old = h->size;
  auto* n = static_cast<BlockHeader*>(UHeapReAlloc(kHeapZeroMemory, h, sizeof(BlockHeader) + size));
  if (n == nullptr) {
    if (UHeapValidate()) {
      UHeapCompact();
    } else {
      DebugLogf(kLogPlatform, "MemAlloc: HeapValidate failed");
    }
    n = static_cast<BlockHeader*>(UHeapAlloc(kHeapZeroMemory, sizeof(BlockHeader) + size));
    if (n == nullptr) {
      Debug("memutil", 215);
      return p;
    }
    std::memcpy(n, h, sizeof(BlockHeader) + std::min<unsigned>(static_cast<unsigned>(old), size));
    UHeapFree(h);
  }
  if (size > static_cast<unsigned>(old)) {
    std::memset(reinterpret_cast<char*>(n) + sizeof(BlockHeader) + old, 0, size - old);
  }
  n->size = static_cast<std::int32_t>(size);
  g_bytes.fetch_add(static_cast<std::int32_t>(size) - old, std::memory_order_relaxed);
  return UserOf(n);
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
  g_bytes.fetch_sub(size, std::memory_order_relaxed);
  g_blocks.fetch_sub(1, std::memory_order_relaxed);
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

int MemBlockCount() { return g_blocks.load(std::memory_order_relaxed); }
int MemByteCount() { return g_bytes.load(std::memory_order_relaxed); }

void BlockMove(const void* from, void* to, unsigned n) {
  if (n != 0) std::memmove(to, from, n);
}

void BlockFill(void* p, unsigned n, unsigned char value) {
  if (n != 0) std::memset(p, value, n);
}

void ZeroFill(void* p, unsigned n) {
  if (n != 0) std::memset(p, 0, n);
}

int EqualBlock(const void* a, const void* b, int n) {
  if (n <= 0) return 1;
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
