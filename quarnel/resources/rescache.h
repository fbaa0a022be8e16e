// TResCache: a fixed number of loaded resource handles, found by a 32-bit
// resource id, with a usage count per slot.
//
// The cache keeps handles; it never loads or frees a resource. A handle in
// use (usage count above 0) is never evicted. When a new handle is cached,
// the next free slot in round-robin order is taken and the handle it held
// before is given back to the caller to release. The dictionary it derives
// from maps each cached id to its slot (1-based).
//
// The three ways of returning a slot differ on purpose: Return and
// ReturnByID assert on a bad slot, an unknown id or a count already below 1
// (module "trescache") and let the decrement stand; ReturnByHandle ignores an
// unknown handle and clamps the count at 0 without an assertion.
//
// Not locked: a cache is owned by one thread or guarded by its owner.
#ifndef QUARNEL_RESOURCES_RESCACHE_H_
#define QUARNEL_RESOURCES_RESCACHE_H_

#include "quarnel/containers/tdict.h"
#include "quarnel/foundation/export.h"

class QUARNEL_API TResCache : public TDict {
 public:
  struct Slot {
    void* handle;  // null when the slot was never used
    int usage;     // 0: free; above 100 or below 0: invalid
  };

  // A cache of `count` slots; a count below 1 asserts (trescache 38) and
  // makes a cache of 1 slot.
  explicit TResCache(int count);
  // Copying is not allowed: asserts (trescache 66) and copies nothing; the
  // copy is an empty cache without slots.
  TResCache(const TResCache& other);
  TResCache& operator=(const TResCache& other);
  // Frees the slot array; the handles are not released.
  ~TResCache();

  // When id is cached: *handle gets its handle, the usage count goes up and
  // the slot is returned. Otherwise *handle = null and the result is 0.
  int Get(int id, void** handle);
  // Caches `handle` under `id` in the next free slot with a usage count of 1
  // (the caller holds it) and returns the slot; *evicted gets the handle the
  // slot held before (null when none), for the caller to release. Returns 0
  // when handle is null or every slot is in use: the caller keeps its handle
  // uncached.
  int Cache(int id, void* handle, void** evicted);
  // One use less of a slot, of the slot of a cached id, of the slot holding
  // a handle.
  void Return(int slot);
  void ReturnByID(int id);
  void ReturnByHandle(void* handle);

  // Diagnostics.
  int SlotCount() const { return slotCount_; }
  int NextSlot() const { return nextSlot_; }
  const Slot* Slots() const { return slots_; }

 private:
  Slot* slots_;
  int slotCount_;
  int nextSlot_;
};

#endif  // QUARNEL_RESOURCES_RESCACHE_H_
