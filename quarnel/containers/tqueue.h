// TQueue: a thread-safe byte ring buffer (a FIFO of bytes, or of fixed-size
// items) held in a TMemory.
//
// The TMemory base is the ring; its size is the capacity. The queue adds the
// offset of the oldest byte (head), the number of bytes stored, and its own
// TMonitor. AddToEnd, GetFromFront, PeekAt, SetSize and the copy operations
// hold the queue's monitor; the size queries and Reset do not. A failing call
// changes nothing. Misuse asserts (module "queue") and goes on as each member
// says.
#ifndef QUARNEL_CONTAINERS_TQUEUE_H_
#define QUARNEL_CONTAINERS_TQUEUE_H_

#include <atomic>

#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"

class QUARNEL_API TQueue : public TMemory {
 public:
  // An empty queue of priority 2 storage, capacity 0.
  TQueue();
  // A queue of `capacity` bytes; a negative capacity asserts and gives 0.
  explicit TQueue(int capacity);
  // Copies storage, head and size under the source's monitor; the copy has
  // a monitor of its own. When the storage cannot be sized, the copy is an
  // empty queue (the TMemory error stays in CheckError).
  TQueue(const TQueue& other);
  // As the copy constructor, holding only the source's monitor; the own
  // monitor stays.
  TQueue& operator=(const TQueue& other);
  // Take the storage (TMemory's move), head and size of `other` under its
  // monitor; `other` is left an empty queue of capacity 0. Each queue keeps
  // a monitor of its own; assignment holds only the source's, as copying
  // does.
  TQueue(TQueue&& other) noexcept;
  TQueue& operator=(TQueue&& other) noexcept;
  // Deletes the monitor, then the storage.
  ~TQueue();

  // Appends n bytes of `data`. Returns 0, or -635 when fewer than n bytes
  // are free (a null `data` with n > 0 asserts and gives -635 as well).
  int AddToEnd(const unsigned char* data, unsigned n);
  // Removes the n oldest bytes into `buffer`. Returns 0, -636 when the queue
  // is empty, -637 when fewer than n bytes are stored (nothing is taken; a
  // null `buffer` with n > 0 asserts and gives -637 too).
  int GetFromFront(unsigned char* buffer, unsigned n);
  // Points *item at item number `index` (items of itemSize bytes counted
  // from the head) without removing it. Returns 0, or -637 with *item = null
  // when index >= DataSize / itemSize (an itemSize of 0 asserts and gives
  // -637). A stored size that is not a multiple of itemSize asserts and goes
  // on. The pointer is into the ring: an item that crosses the ring's end is
  // not contiguous, so queues of items use a capacity that is a multiple of
  // the item size. It stays valid while no other thread removes data.
  int PeekAt(unsigned index, unsigned char** item, unsigned itemSize);
  // Changes the capacity keeping the content in order; content that wrapped
  // round the old end is moved to the end of the new ring. Shrinking a queue
  // that holds data asserts and leaves the capacity as it was. A failure of
  // the storage is not passed on (it asserts, as priority 2 storage does).
  // Returns 0.
  int SetSize(unsigned capacity);
  // Empties the queue and releases its storage, without locking.
  void Reset();

  // Read without locking.
  unsigned DataSize() const { return dataSize_.load(std::memory_order_relaxed); }
  bool IsEmpty() const { return DataSize() == 0; }
  bool IsFull() const { return DataSize() == GetSize(); }
  unsigned SpaceAvail() const { return GetSize() - DataSize(); }
  // DataSize / itemSize; an itemSize of 0 asserts and gives 0.
  unsigned ItemCount(unsigned itemSize) const;

  // The queue's monitor, for a caller that keeps a PeekAt pointer.
  TMonitor& Monitor() { return *monitor_; }

 private:
  void copyFrom(const TQueue& other);
  void moveFrom(TQueue& other);

  unsigned head_;
  std::atomic<unsigned> dataSize_;
  TMonitor* monitor_;
};

#endif  // QUARNEL_CONTAINERS_TQUEUE_H_
