#include <unistd.h>

#include <atomic>
#include <mutex>

#include "quarnel/platform/internal/handles.h"

namespace quarnel_internal {

namespace {

constexpr std::size_t kChunkSlots = 1024;
constexpr std::size_t kChunks = 256;

struct Chunk {
  std::atomic<UObject*> slots[kChunkSlots];
};

// Lookups read the slots without a lock; adding and removing take it.
struct Table {
  std::mutex lock;
  std::atomic<Chunk*> chunks[kChunks] = {};
  std::vector<std::size_t> freeSlots;
  std::size_t used = 0;  // slots handed out at least once
  std::atomic<int> open{0};
};

Table& TheTable() {
  static auto* table = new Table;
  return *table;
}

std::size_t SlotOf(UHANDLE handle) {
  const auto v = reinterpret_cast<std::uintptr_t>(handle);
  if (v == 0 || (v & 3) != 0) return kChunks * kChunkSlots;
  return v / 4 - 1;
}

std::atomic<UObject*>* SlotPtr(Table& t, std::size_t slot) {
  if (slot >= kChunks * kChunkSlots) return nullptr;
  Chunk* c = t.chunks[slot / kChunkSlots].load(std::memory_order_acquire);
  return c ? &c->slots[slot % kChunkSlots] : nullptr;
}

}  // namespace

UFileObject::~UFileObject() {
  if (fd >= 0) ::close(fd);
}

UFindObject::~UFindObject() {
  if (folderFd >= 0) ::close(folderFd);
}

UHANDLE AddHandle(UObject* object) {
  Table& t = TheTable();
  std::lock_guard<std::mutex> hold(t.lock);
  std::size_t slot;
  if (!t.freeSlots.empty()) {
    slot = t.freeSlots.back();
    t.freeSlots.pop_back();
  } else {
    if (t.used >= kChunks * kChunkSlots) {
      delete object;
      return kInvalidHandleValue;
    }
    slot = t.used++;
    if (slot % kChunkSlots == 0)
      t.chunks[slot / kChunkSlots].store(new Chunk{}, std::memory_order_release);
  }
  SlotPtr(t, slot)->store(object, std::memory_order_release);
  t.open.fetch_add(1, std::memory_order_relaxed);
  return reinterpret_cast<UHANDLE>((slot + 1) * 4);
}

UObject* FindHandle(UHANDLE handle, UObject::Kind kind) {
  std::atomic<UObject*>* p = SlotPtr(TheTable(), SlotOf(handle));
  if (p == nullptr) return nullptr;
  UObject* o = p->load(std::memory_order_acquire);
  return o != nullptr && o->kind == kind ? o : nullptr;
}

UObject* RemoveHandle(UHANDLE handle) {
  Table& t = TheTable();
  std::lock_guard<std::mutex> hold(t.lock);
  const std::size_t slot = SlotOf(handle);
  std::atomic<UObject*>* p = SlotPtr(t, slot);
  if (p == nullptr) return nullptr;
  UObject* o = p->exchange(nullptr, std::memory_order_acq_rel);
  if (o != nullptr) {
    t.freeSlots.push_back(slot);
    t.open.fetch_sub(1, std::memory_order_relaxed);
  }
  return o;
}

int UOpenHandleCount() { return TheTable().open.load(std::memory_order_relaxed); }

}  // namespace quarnel_internal
