#include "quarnel/containers/tdict64.h"

#include "quarnel/containers/internal/dicthash.h"
#include "quarnel/foundation/tmemory.h"

namespace quarnel_internal {

template <>
struct DictTraits<TDict64> {
  using Key = std::uint64_t;
  using Value = std::uint64_t;
  static constexpr const char* kModule = "dicthash64";
  // The low 32 bits of the key's 64-bit square, shifted.
  static unsigned Square(std::uint64_t key, int shift) {
    return static_cast<unsigned>((key * key) >> shift);
  }
  // The order test compares the low halves only, deliberately.
  static bool Less(std::uint64_t a, std::uint64_t b) {
    return static_cast<std::uint32_t>(a) < static_cast<std::uint32_t>(b);
  }
};

}  // namespace quarnel_internal

using Ops64 = quarnel_internal::DictOps<TDict64>;

TDict64::TDict64(int size, int ordered)
    : ordered_(ordered),
      nullValue_(0),
      size_(0),
      mask_(0),
      shift_(0),
      used_(0),
      deleted_(0),
      lowWater_(0),
      highWater_(0),
      tombstoneLimit_(0),
      tableMemory_(new TMemory()),
      table_(nullptr),
      parent_(nullptr) {
  Reset(size);
}

TDict64::TDict64(const TDict64& other) : TDict64(0, other.ordered_) { Ops64::Copy(*this, other); }

TDict64& TDict64::operator=(const TDict64& other) {
  if (this != &other) Ops64::Copy(*this, other);
  return *this;
}

TDict64::TDict64(TDict64&& other) noexcept : TDict64(0, other.ordered_) {
  Ops64::Swap(*this, other);
}

TDict64& TDict64::operator=(TDict64&& other) noexcept {
  if (this != &other) {
    Ops64::Swap(*this, other);
    other.Reset(0);
  }
  return *this;
}

TDict64::~TDict64() { delete tableMemory_; }

void TDict64::Reset(int size) { Ops64::Reset(*this, size); }
void TDict64::Define(std::uint64_t key, std::uint64_t value) { Ops64::Define(*this, key, value); }
void TDict64::Undefine(std::uint64_t key) { Ops64::Undefine(*this, key); }
std::uint64_t TDict64::Lookup(std::uint64_t key) const { return Ops64::Lookup(*this, key); }
std::uint64_t TDict64::Find(std::uint64_t value) const { return Ops64::Find(*this, value); }
int TDict64::GetCount() const { return Ops64::Count(*this); }
std::uint64_t TDict64::GetIndKey(int i) const { return Ops64::IndKey(*this, i); }
std::uint64_t TDict64::GetIndData(int i) const { return Ops64::IndData(*this, i); }
int TDict64::LookupKeydex(std::uint64_t key) const { return Ops64::Keydex(*this, key); }
void TDict64::addTable(std::uint64_t key, std::uint64_t value) { Ops64::Add(*this, key, value); }
void TDict64::delTable(std::uint64_t key) { Ops64::Undefine(*this, key); }
void TDict64::checkRehash() { Ops64::CheckRehash(*this); }

TDictShape TDict64::Shape() const {
  return TDictShape{size_, mask_, shift_, used_, deleted_, lowWater_, highWater_, tombstoneLimit_};
}

TDict64Iter::TDict64Iter(const TDict64& dict) : dict_(dict), index_(-1), state_(0) { Reset(); }

void TDict64Iter::Reset() { Ops64::IterReset(*this); }

TDict64Iter& TDict64Iter::operator++() {
  Ops64::IterNext(*this);
  return *this;
}

TDict64Iter::operator int() const { return index_ < dict_.size_ || state_ < 0; }

std::uint64_t TDict64Iter::Key() const {
  const TDict64::Slot* s = Ops64::IterSlot(*this);
  return s != nullptr ? s->key : 0;
}

std::uint64_t TDict64Iter::Data() const {
  if (state_ < 0) return dict_.nullValue_;
  const TDict64::Slot* s = Ops64::IterSlot(*this);
  return s != nullptr ? s->value : 0;
}
