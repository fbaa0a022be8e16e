#include "quarnel/containers/tlist.h"

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"

// Assertion lines of module "list".
namespace {
constexpr int kLineRing = 101;         // head or sentinel missing, or the ring broken
constexpr int kLineAddIndex = 140;     // AddAt index outside 0..count
constexpr int kLineRemoveIndex = 171;  // RemoveAt index outside 0..count-1
constexpr int kLineRemoveRing = 190;   // the ring broken after an unlink
constexpr int kLineRawIndex = 214;     // GetAtRaw index outside 0..count-1
constexpr int kLineNext = 268;         // Next from a null position or the sentinel
constexpr int kLineDestroy = 60;       // destroyed with items left after Clear
}  // namespace

// The sentinel lives inside the list object, so that making a list cannot
// fail; item nodes come from MemAlloc, one per item.
TList::TList() : head_(nullptr), sentinel_(&sentinelNode_), count_(0) {
  sentinel_->item = 0;
  sentinel_->next = sentinel_;
  sentinel_->prev = sentinel_;
  head_ = sentinel_;
}

TList::TList(TList&& other) noexcept : TList() {
  TMonitorHold hold(other);
  takeNodes(other);
}

TList& TList::operator=(TList&& other) noexcept {
  if (&other == this) return *this;
  TMonitorHold own(*this);
  Clear();
  TMonitorHold hold(other);
  takeNodes(other);
  return *this;
}

void TList::takeNodes(TList& other) {
  if (!other.checkRing(kLineRing) || other.count_ == 0) return;
  Node* first = other.head_;
  Node* last = other.sentinel_->prev;
  first->prev = sentinel_;
  last->next = sentinel_;
  sentinel_->next = first;
  sentinel_->prev = last;
  head_ = first;
  count_.store(other.count_.load(std::memory_order_relaxed), std::memory_order_relaxed);
  other.sentinel_->next = other.sentinel_;
  other.sentinel_->prev = other.sentinel_;
  other.head_ = other.sentinel_;
  other.count_.store(0, std::memory_order_relaxed);
}

TList::~TList() {
  Clear();
  if (head_ != sentinel_) Debug("list", kLineDestroy);
  sentinel_ = head_ = nullptr;
}

// The ring invariant: head's previous is the sentinel and the sentinel's
// next is head.
bool TList::checkRing(int line) const {
  if (head_ == nullptr || sentinel_ == nullptr || head_->prev != sentinel_ ||
      sentinel_->next != head_) {
    Debug("list", line);
    return false;
  }
  return true;
}

TList::Node* TList::nodeAt(int index) const {
  Node* node = head_;
  for (int i = 0; i < index; ++i) node = node->next;
  return node;
}

void TList::AddAt(std::intptr_t item, int index) {
  TMonitorHold hold(*this);
  if (!checkRing(kLineRing)) return;
  if (index < 0 || index > count_) {
    Debug("list", kLineAddIndex);
    return;
  }
  Node* next = index == count_ ? sentinel_ : nodeAt(index);
  auto* node = static_cast<Node*>(MemAlloc(sizeof(Node)));
  if (node == nullptr) return;  // MemAlloc has asserted; the list stays as it was
  node->item = item;
  node->next = next;
  node->prev = next->prev;
  next->prev->next = node;
  next->prev = node;
  if (index == 0) head_ = node;
  ++count_;
}

void TList::AddFirst(std::intptr_t item) { AddAt(item, 0); }
void TList::AddLast(std::intptr_t item) {
  TMonitorHold hold(*this);
  AddAt(item, count_);
}

std::intptr_t TList::RemoveAt(int index) {
  TMonitorHold hold(*this);
  if (!checkRing(kLineRing)) return 0;
  if (index < 0 || index >= count_) {
    Debug("list", kLineRemoveIndex);
    return 0;
  }
  Node* node = index == count_ - 1 ? sentinel_->prev : nodeAt(index);
  node->prev->next = node->next;
  node->next->prev = node->prev;
  if (index == 0) head_ = node->next;
  checkRing(kLineRemoveRing);
  const std::intptr_t item = node->item;
  MemFree(node);
  --count_;
  return item;
}

std::intptr_t TList::RemoveFirst() { return RemoveAt(0); }
std::intptr_t TList::RemoveLast() {
  TMonitorHold hold(*this);
  return RemoveAt(count_ - 1);
}

void* TList::GetAtRaw(int index) const {
  TMonitorHold hold(monitor());
  if (!checkRing(kLineRing)) return nullptr;
  if (index < 0 || index >= count_) {
    Debug("list", kLineRawIndex);
    return nullptr;
  }
  return index == count_ - 1 ? sentinel_->prev : nodeAt(index);
}

std::intptr_t TList::GetAt(int index) const {
  void* node = GetAtRaw(index);
  return node == nullptr ? 0 : Item(node);
}

std::intptr_t TList::GetFirst() const { return GetAt(0); }
std::intptr_t TList::GetLast() const {
  TMonitorHold hold(monitor());
  return GetAt(count_ - 1);
}

void TList::Clear() {
  TMonitorHold hold(*this);
  while (count_ >= 1) RemoveAt(0);
}

// The sought item goes into the sentinel, so the walk needs no bound check.
int TList::Find(std::intptr_t item) const {
  TMonitorHold hold(monitor());
  if (!checkRing(kLineRing)) return -1;
  sentinel_->item = item;
  int index = 0;
  Node* node = head_;
  while (node->item != item) {
    node = node->next;
    ++index;
  }
  return node == sentinel_ ? -1 : index;
}

void TList::Remove(std::intptr_t item) {
  TMonitorHold hold(*this);
  const int index = Find(item);
  if (index >= 0) RemoveAt(index);
}

void* TList::First() const { return count_ == 0 ? nullptr : head_; }

void* TList::Next(void* position) const {
  auto* node = static_cast<Node*>(position);
  if (node == nullptr || node == sentinel_) {
    Debug("list", kLineNext);
    return nullptr;
  }
  return node->next == sentinel_ ? nullptr : node->next;
}

std::intptr_t TList::Item(void* position) { return static_cast<Node*>(position)->item; }

std::intptr_t TList::FindIf(Predicate pred, void** position) const {
  void* node = (position == nullptr || *position == nullptr) ? First() : Next(*position);
  for (; node != nullptr; node = Next(node)) {
    if (pred(Item(node)) != 0) {
      if (position != nullptr) *position = node;
      return Item(node);
    }
  }
  if (position != nullptr) *position = nullptr;
  return 0;
}

std::intptr_t TList::RemoveIf(Predicate pred) {
  for (void* node = First(); node != nullptr; node = Next(node)) {
    const std::intptr_t item = Item(node);
    if (pred(item) != 0) {
      Remove(item);
      return item;
    }
  }
  return 0;
}

// Passing items go to the front of a temporary list (reversed), then back to
// the front of this one (reversed again, so in their order).
void TList::FilterIf(Predicate pred) {
  TList kept;
  for (void* node = First(); node != nullptr; node = Next(node)) {
    if (pred(Item(node)) != 0) kept.AddFirst(Item(node));
  }
  Clear();
  for (void* node = kept.First(); node != nullptr; node = kept.Next(node)) AddFirst(Item(node));
  kept.Clear();
}

TList& TList::operator+=(const TList& other) {
  for (void* node = other.First(); node != nullptr; node = other.Next(node)) {
    if (Find(Item(node)) < 0) AddFirst(Item(node));
  }
  return *this;
}

TList& TList::operator-=(const TList& other) {
  if (&other == this) {  // removing every item of itself: walking it while removing would not work
    Clear();
    return *this;
  }
  for (void* node = other.First(); node != nullptr; node = other.Next(node)) Remove(Item(node));
  return *this;
}
