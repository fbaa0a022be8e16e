#include "quarnel/containers/tqueue.h"

#include <algorithm>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"

namespace {

// Assertion lines of module "queue".
constexpr const char* kModule = "queue";
constexpr int kLineNegativeCapacity = 40;  // TQueue(int) given a negative capacity
constexpr int kLineNullData = 88;          // AddToEnd from a null pointer
constexpr int kLineNullBuffer = 121;       // GetFromFront into a null pointer
constexpr int kLineNullItem = 150;         // PeekAt without a place for the pointer
constexpr int kLineItemSize = 160;         // PeekAt or ItemCount with an item size of 0
constexpr int kLinePeekMisaligned = 166;   // PeekAt: stored size not a multiple of the item size
constexpr int kLineShrinkWithData = 203;   // SetSize below the capacity while holding data

// Copies between the caller's buffer and the ring in pieces of at most 2 KiB,
// each a call of BlockMove: below the size from which the C library moves
// with a string instruction, which on some processors runs many times slower
// when source and destination lie at nearly the same offset within their
// pages (as 4 KiB items in a ring easily do). Overlapping regions (a pointer
// from PeekAt handed back in) go through BlockMove whole.
constexpr unsigned kCopyPiece = 2048;

void CopyBytes(const unsigned char* from, unsigned char* to, unsigned n) {
  if ((from < to + n && to < from + n) || n <= kCopyPiece) {
    BlockMove(from, to, n);
    return;
  }
  for (unsigned done = 0; done < n; done += kCopyPiece)
    BlockMove(from + done, to + done, std::min(kCopyPiece, n - done));
}

// (a + b) mod m without overflow; m > 0.
unsigned AddMod(unsigned a, unsigned long long b, unsigned m) {
  return static_cast<unsigned>((static_cast<unsigned long long>(a) + b) % m);
}

}  // namespace

TQueue::TQueue() : TMemory(static_cast<short>(2)), head_(0), dataSize_(0), monitor_(new TMonitor) {}

TQueue::TQueue(int capacity) : TQueue() {
  if (capacity < 0) {
    Debug(kModule, kLineNegativeCapacity);
    capacity = 0;
  }
  SetSize(static_cast<unsigned>(capacity));
}

TQueue::TQueue(const TQueue& other) : TQueue() { copyFrom(other); }

TQueue& TQueue::operator=(const TQueue& other) {
  copyFrom(other);
  return *this;
}

TQueue::TQueue(TQueue&& other) noexcept : TQueue() { moveFrom(other); }

TQueue& TQueue::operator=(TQueue&& other) noexcept {
  if (this != &other) moveFrom(other);
  return *this;
}

TQueue::~TQueue() {
  delete monitor_;
  monitor_ = nullptr;
}

void TQueue::moveFrom(TQueue& other) {
  TMonitorHold hold(*other.monitor_);
  TMemory::operator=(static_cast<TMemory&&>(other));
  head_ = other.head_;
  dataSize_.store(other.DataSize(), std::memory_order_relaxed);
  other.head_ = 0;
  other.dataSize_.store(0, std::memory_order_relaxed);
}

void TQueue::copyFrom(const TQueue& other) {
  TMonitorHold hold(*other.monitor_);
  TMemory::operator=(other);
  if (GetSize() == other.GetSize()) {
    head_ = other.head_;
    dataSize_.store(other.DataSize(), std::memory_order_relaxed);
  } else {  // the storage could not be sized: an empty queue, never a stale head
    head_ = 0;
    dataSize_.store(0, std::memory_order_relaxed);
  }
}

int TQueue::AddToEnd(const unsigned char* data, unsigned n) {
  TMonitorHold hold(*monitor_);
  const unsigned capacity = GetSize();
  const unsigned size = DataSize();
  if (n > capacity - size) return kErrQueueNoRoom;
  if (n == 0) return 0;
  if (data == nullptr) {
    Debug(kModule, kLineNullData);
    return kErrQueueNoRoom;
  }
  const unsigned offset = AddMod(head_, size, capacity);
  const unsigned first = std::min(n, capacity - offset);
  CopyBytes(data, MemPtr() + offset, first);
  if (n > first) CopyBytes(data + first, MemPtr(), n - first);
  dataSize_.store(size + n, std::memory_order_relaxed);
  return 0;
}

int TQueue::GetFromFront(unsigned char* buffer, unsigned n) {
  TMonitorHold hold(*monitor_);
  const unsigned size = DataSize();
  if (size == 0) return kErrQueueEmpty;
  if (n > size) return kErrQueueNoData;
  if (n == 0) return 0;
  if (buffer == nullptr) {
    Debug(kModule, kLineNullBuffer);
    return kErrQueueNoData;
  }
  const unsigned capacity = GetSize();
  const unsigned first = std::min(n, capacity - head_);
  CopyBytes(MemPtr() + head_, buffer, first);
  if (n > first) CopyBytes(MemPtr(), buffer + first, n - first);
  dataSize_.store(size - n, std::memory_order_relaxed);
  head_ = AddMod(head_, n, capacity);
  return 0;
}

int TQueue::PeekAt(unsigned index, unsigned char** item, unsigned itemSize) {
  TMonitorHold hold(*monitor_);
  if (item == nullptr) {
    Debug(kModule, kLineNullItem);
    return kErrQueueNoData;
  }
  *item = nullptr;
  if (itemSize == 0) {
    Debug(kModule, kLineItemSize);
    return kErrQueueNoData;
  }
  const unsigned size = DataSize();
  if (size % itemSize != 0) Debug(kModule, kLinePeekMisaligned);
  if (index >= size / itemSize) return kErrQueueNoData;
  const unsigned long long offset = static_cast<unsigned long long>(index) * itemSize;
  *item = MemPtr() + AddMod(head_, offset, GetSize());
  return 0;
}

int TQueue::SetSize(unsigned capacity) {
  TMonitorHold hold(*monitor_);
  const unsigned old = GetSize();
  const unsigned size = DataSize();
  if (capacity < old && size != 0) {
    Debug(kModule, kLineShrinkWithData);
    return 0;
  }
  TMemory::SetSize(capacity, -1);
  if (size == 0) {
    head_ = 0;  // nothing to keep in place; the head stays inside any capacity
  } else if (GetSize() == capacity && capacity > old &&
             static_cast<unsigned long long>(head_) + size > old) {
    // The part from the head to the old end moves to the new end.
    const unsigned grown = capacity - old;
    BlockMove(MemPtr() + head_, MemPtr() + head_ + grown, old - head_);
    head_ += grown;
  }
  return 0;
}

void TQueue::Reset() {
  head_ = 0;
  dataSize_.store(0, std::memory_order_relaxed);
  TMemory::Reset();
}

unsigned TQueue::ItemCount(unsigned itemSize) const {
  if (itemSize == 0) {
    Debug(kModule, kLineItemSize);
    return 0;
  }
  return DataSize() / itemSize;
}
