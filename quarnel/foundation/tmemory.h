// TMemory: the library's resizable, movable, purgeable memory block.
//
// One object owns one contiguous byte buffer whose size can change at any
// time; its address may move when it does (MemPtr is valid until the next
// resize). Storage is chosen by size and priority among a 1,024-byte area
// inside the object, the process heap, and reserved-then-committed virtual
// memory. Process-wide statistics of all blocks are kept under one monitor;
// growth that would leave the machine short of physical memory is refused
// (-625) and purgeable blocks are emptied, oldest first, to make room.
//
// Priorities: 0 never uses the inline area or the heap; 1 uses any storage;
// 2 (the default) is exempt from the denial rule and asserts on failure.
// A failing resize leaves the block's storage, size and bytes as they were.
// A single TMemory is used by one thread at a time.
//
// Purgeable blocks: while the purgeable flag is set, any thread's growth may
// empty the block (SetSize 0) under the memory monitor. Its owner clears the
// flag before it touches the block again, then tests GetSize: 0 means the
// content was purged. Resizing a purgeable block to a non-zero size asserts
// (tmemory 180) and goes on; no purge it causes empties the block itself.
//
// Assertions of module "tmemory": 62 bad priority given, 95 bad priority at
// destruction, 180 purgeable block resized, 452 release without storage, 488
// a block counter below zero, 537 purge ran out of blocks, 574 priority-2
// resize failed, 610 AllocBuffer bad arguments at priority 2, 662 AllocBuffer
// got nothing at priority 2.
#ifndef QUARNEL_FOUNDATION_TMEMORY_H_
#define QUARNEL_FOUNDATION_TMEMORY_H_

#include "quarnel/foundation/export.h"

constexpr unsigned kTMemoryInlineSize = 1024;
constexpr unsigned kTMemPurgeable = 1;  // flag bit 0

class QUARNEL_API TMemory {
 public:
  TMemory();                         // priority 2, size 0
  explicit TMemory(short priority);  // a priority outside 0..2 asserts and is kept
  // Same priority and bytes as `other`; on a sizing failure the bytes are not
  // copied and the error stays in CheckError. Flags are not copied.
  TMemory(const TMemory& other);
  TMemory& operator=(const TMemory& other);
  // Takes the storage of `other` (heap or virtual storage changes hands; an
  // inline block's bytes are copied), with its size, priority and flags;
  // `other` is left empty (size 0, inline, flags 0, its priority kept). A
  // purgeable block's place on the purge list passes to this block, so the
  // oldest-first order holds; the whole move runs under the memory monitor
  // then, so that no purge empties either block halfway. Move assignment
  // first releases this block's own storage (and its place on the list).
  TMemory(TMemory&& other) noexcept;
  TMemory& operator=(TMemory&& other) noexcept;
  ~TMemory();

  unsigned GetSize() const { return size_; }
  unsigned char* MemPtr() { return data_; }
  const unsigned char* MemPtr() const { return data_; }
  // Resizes keeping the first min(old, new) bytes; new bytes are zero,
  // except that a size within the same 8-byte step only records the size
  // (the bytes keep their values). `priority` -1 means the block's own;
  // another value governs this call only. Returns 0 or -625, also kept as
  // the last error; a failure logs "TMemory::SetSize: priority %d failed
  // from %K to %K" (514 at priority 2, with an assertion; else 517).
  int SetSize(unsigned size, short priority = -1);
  int Reset();  // SetSize(0, -1)
  void Zero();  // all GetSize bytes to 0
  short GetPriority() const { return priority_; }
  int SetPriority(short priority);
  // flags = (flags | set) & ~clear; bit 0 (purgeable) puts the block on the
  // process-wide purgeable list or takes it off. Returns the new flags.
  unsigned SetFlags(unsigned set, unsigned clear);
  unsigned GetFlags() const { return flags_; }
  int CheckError() const { return lastError_; }
  // The largest buffer between `a` and `b` (either order, both rounded up to
  // `granularity`) that memory allows: returns the size obtained, or 0 with
  // -626 (bad arguments) or -625 in CheckError. A priority-0 block that only
  // gets memory by its priority-1 fallback returns lo - granularity, below
  // the caller's minimum, on purpose: that is how the caller learns of the
  // fallback, while GetSize tells the size really held. Sizes above the
  // physical-memory figure are denied alike, so after a denial the search
  // goes straight to the largest size below the figure. An upper bound past
  // 4 GiB is taken as the largest multiple of `granularity` below it.
  unsigned AllocBuffer(unsigned a, unsigned b, unsigned granularity);

  // Storage diagnostics: the reservation and commitment of a virtual block
  // (0 otherwise), and whether the inline area is in use.
  unsigned ReservedBytes() const { return reserved_; }
  unsigned CommittedBytes() const { return committed_; }
  bool IsInline() const { return data_ == inline_; }

 private:
  struct Change;  // counter changes of one resize, applied under the monitor

  // Moves the storage, size, priority and flags of `other` into this block,
  // which holds no storage and is off the purge list.
  void takeFrom(TMemory& other);

  void init(short priority);
  int mhalloc(unsigned size, short priority);
  int mhdealloc();
  void setLastError(int err) { lastError_ = err; }
  int growthCheck(unsigned long long newAligned, unsigned long long oldAligned, short priority);
  bool heapResize(unsigned newAligned, Change* change);
  bool virtualResize(unsigned long long newAligned, Change* change);
  void zeroGrowth(unsigned size);

  unsigned char* data_;
  int lastError_;
  unsigned size_;
  short priority_;
  unsigned short flags_;
  unsigned reserved_;
  unsigned committed_;
  // Heap or virtual storage: how many bytes from its start may hold non-zero
  // data (the highest size held in it); beyond, the storage is known zero.
  unsigned dirty_;
  alignas(16) unsigned char inline_[kTMemoryInlineSize];
};

// Empties purgeable blocks, oldest first, until the purgeable bytes are at
// most `target`; logs "tmemPurgeBlocks: purged %K (%~d blocks)" (517).
QUARNEL_API void tmemPurgeBlocks(unsigned target);
// Writes the five statistics lines at level 513.
QUARNEL_API void tmemLogStats();

// The process-wide counters, read together under the memory monitor.
struct TMemoryStats {
  int heapBlocks;
  unsigned heapBytes;
  int virtualBlocks;
  unsigned reservedBytes;
  unsigned committedBytes;
  int purgeableBlocks;
  unsigned purgeableBytes;
  int requestedBlocks;
  unsigned requestedBytes;
};
QUARNEL_API TMemoryStats tmemGetStats();

#endif  // QUARNEL_FOUNDATION_TMEMORY_H_
