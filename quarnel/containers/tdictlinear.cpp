#include "quarnel/containers/tdictlinear.h"

#include <algorithm>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"

// Assertion lines of module "dictlinear".
namespace {
constexpr int kLineOwnParent = 207;    // SetParent(this)
constexpr int kLineNoRoom = 61;        // the block could not be resized; the change is dropped
constexpr int kLineParentCycle = 150;  // the parents form a cycle
constexpr int kMaxParentDepth = 1 << 16;
constexpr int kInitialRoom = 10;
}  // namespace

TDictLinear::TDictLinear() : count_(0), parent_(nullptr), capacity_(0), array_(nullptr) {
  resize(kInitialRoom);
}

TDictLinear::TDictLinear(const TDictLinear& other)
    : count_(0), parent_(other.parent_), capacity_(0), array_(nullptr) {
  if (!resize(other.count_)) return;
  count_ = other.count_;
  const unsigned n = std::min(capacity_, other.capacity_);
  if (n != 0 && other.array_ != nullptr) BlockMove(other.array_, array_, n);
}

TDictLinear& TDictLinear::operator=(const TDictLinear& other) {
  if (this == &other) return *this;
  // The own block is forgotten, not freed: kept as the library has it.
  count_ = 0;
  parent_ = other.parent_;
  capacity_ = 0;
  array_ = nullptr;
  if (!resize(other.count_)) return *this;
  count_ = other.count_;
  const unsigned n = std::min(capacity_, other.capacity_);
  if (n != 0 && other.array_ != nullptr) BlockMove(other.array_, array_, n);
  return *this;
}

TDictLinear::TDictLinear(TDictLinear&& other) noexcept
    : count_(other.count_),
      parent_(other.parent_),
      capacity_(other.capacity_),
      array_(other.array_) {
  other.count_ = 0;
  other.parent_ = nullptr;
  other.capacity_ = 0;
  other.array_ = nullptr;
}

TDictLinear& TDictLinear::operator=(TDictLinear&& other) noexcept {
  if (this == &other) return *this;
  MemFree(array_);
  count_ = other.count_;
  parent_ = other.parent_;
  capacity_ = other.capacity_;
  array_ = other.array_;
  other.count_ = 0;
  other.parent_ = nullptr;
  other.capacity_ = 0;
  other.array_ = nullptr;
  return *this;
}

TDictLinear::~TDictLinear() { MemFree(array_); }

// Room for count + delta entries and the sentinel. True when the block holds
// at least that much.
bool TDictLinear::resize(int delta) {
  const long long bytes = (static_cast<long long>(count_) + delta) * 8 + 8;
  if (bytes < 8 || bytes > 0x3FFFFFFF) {
    Debug("dictlinear", kLineNoRoom);
    return false;
  }
  const unsigned want = static_cast<unsigned>(bytes + bytes % 80);
  if (want != capacity_) {
    void* p = MemRealloc(array_, want);
    if (p == nullptr || MemSize(p) < want) {
      // The old block stays, with what it held.
      if (p != nullptr) array_ = static_cast<Pair*>(p);
      capacity_ = p != nullptr ? MemSize(p) : 0;
      Debug("dictlinear", kLineNoRoom);
      return capacity_ >= bytes;
    }
    array_ = static_cast<Pair*>(p);
    capacity_ = want;
  }
  return true;
}

// The position (1..count) of key, 0 when absent.
int TDictLinear::search(int key) const {
  if (array_ == nullptr) return 0;
  array_[0].key = key;
  int i = count_;
  while (array_[i].key != key) --i;
  return i;
}

void TDictLinear::Reset() {
  count_ = 0;
  parent_ = nullptr;
  capacity_ = 0;
  resize(kInitialRoom);
}

void TDictLinear::Define(int key, int value) {
  if (value == 0) {
    Undefine(key);
    return;
  }
  const int i = search(key);
  if (i != 0) {
    array_[i].value = value;
    return;
  }
  if (!resize(1)) return;
  ++count_;
  array_[count_].key = key;
  array_[count_].value = value;
}

void TDictLinear::Undefine(int key) {
  const int i = search(key);
  if (i == 0) return;
  array_[i] = array_[count_];
  resize(-1);
  --count_;
}

int TDictLinear::Lookup(int key) const {
  int depth = 0;
  for (const TDictLinear* d = this; d != nullptr; d = d->parent_) {
    if (++depth > kMaxParentDepth) {
      Debug("dictlinear", kLineParentCycle);
      return 0;
    }
    const int i = d->search(key);
    if (i != 0) return d->array_[i].value;
  }
  return 0;
}

int TDictLinear::LookupKeydex(int key) const { return search(key) - 1; }

int TDictLinear::Find(int value) const {
  if (array_ == nullptr) return 0;
  array_[0].key = 0;
  array_[0].value = value;
  int i = count_;
  while (array_[i].value != value) --i;
  return array_[i].key;
}

int TDictLinear::GetIndKey(int i) const {
  if (i >= count_ || i < -1 || array_ == nullptr) return 0;
  return array_[i + 1].key;
}

int TDictLinear::GetIndData(int i) const {
  if (i >= count_ || i < -1 || array_ == nullptr) return 0;
  return array_[i + 1].value;
}

void TDictLinear::SetParent(TDictLinear* parent) {
  if (parent == this) {
    Debug("dictlinear", kLineOwnParent);
    return;
  }
  parent_ = parent;
}
