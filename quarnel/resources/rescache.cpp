#include "quarnel/resources/rescache.h"

#include <cstdint>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"

namespace {
// Assertion lines of module "trescache".
constexpr int kLineCount = 38;
constexpr int kLineCopy = 66;
constexpr int kLineReturnSlot = 128;
constexpr int kLineReturnCount = 129;
constexpr int kLineReturnId = 147;
constexpr int kLineReturnIdCount = 148;

constexpr int kMaxUsage = 100;
}  // namespace

TResCache::TResCache(int count)
    : TDict(count, 0), slots_(nullptr), slotCount_(count), nextSlot_(1) {
  if (count < 1) {
    Debug("trescache", kLineCount);
    slotCount_ = 1;
  }
  slots_ = static_cast<Slot*>(MemAlloc(static_cast<unsigned>(slotCount_) * sizeof(Slot)));
  if (slots_ == nullptr) slotCount_ = 0;
}

TResCache::TResCache(const TResCache& /*other*/)
    : TDict(0, 0), slots_(nullptr), slotCount_(0), nextSlot_(1) {
  Debug("trescache", kLineCopy);
}

TResCache& TResCache::operator=(const TResCache& /*other*/) {
  Debug("trescache", kLineCopy);
  return *this;
}

TResCache::~TResCache() { MemFree(slots_); }

int TResCache::Get(int id, void** handle) {
  const int slot = Lookup(id);
  if (slot < 1 || slot > slotCount_) {
    if (handle != nullptr) *handle = nullptr;
    return 0;
  }
  Slot& s = slots_[slot - 1];
  if (handle != nullptr) *handle = s.handle;
  if (s.usage < 0 || s.usage > kMaxUsage) {
    DebugLogf(kLogDetail, "TResCache::Get: bad usage count (%d) for handle %x", s.usage,
              static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(s.handle)));
  }
  if (s.usage < kMaxUsage * 1000) ++s.usage;  // never past what an int holds
  return slot;
}

int TResCache::Cache(int id, void* handle, void** evicted) {
  if (evicted != nullptr) *evicted = nullptr;
  if (handle == nullptr || slotCount_ < 1) return 0;
  int slot = 0;
  for (int i = 0; i < slotCount_; ++i) {
    const int candidate = (nextSlot_ + i - 1) % slotCount_ + 1;
    if (slots_[candidate - 1].usage == 0) {
      slot = candidate;
      break;
    }
  }
  if (slot == 0) return 0;
  Slot& s = slots_[slot - 1];
  if (evicted != nullptr) *evicted = s.handle;
  // The id that pointed here leaves the dictionary. Find does not see key 0
  // (held beside the table), so that one is checked by itself.
  const int oldId = Find(slot);
  if (oldId != 0) {
    Undefine(oldId);
  } else if (Lookup(0) == slot) {
    Undefine(0);
  }
  s.handle = handle;
  s.usage = 1;
  Define(id, slot);
  nextSlot_ = slot % slotCount_ + 1;
  return slot;
}

void TResCache::Return(int slot) {
  if (slot < 1 || slot > slotCount_) {
    Debug("trescache", kLineReturnSlot);
    return;
  }
  Slot& s = slots_[slot - 1];
  if (s.usage < 1) Debug("trescache", kLineReturnCount);
  --s.usage;
}

void TResCache::ReturnByID(int id) {
  const int slot = Lookup(id);
  if (slot < 1 || slot > slotCount_) {
    Debug("trescache", kLineReturnId);
    return;
  }
  Slot& s = slots_[slot - 1];
  if (s.usage < 1) Debug("trescache", kLineReturnIdCount);
  --s.usage;
}

void TResCache::ReturnByHandle(void* handle) {
  for (int i = 0; i < slotCount_; ++i) {
    Slot& s = slots_[i];
    if (s.handle == handle) {
      if (--s.usage < 0) s.usage = 0;
      return;
    }
  }
}
