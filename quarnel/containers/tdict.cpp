#include "quarnel/containers/tdict.h"

#include "quarnel/containers/internal/dicthash.h"
#include "quarnel/foundation/tmemory.h"

namespace quarnel_internal {

template <>
struct DictTraits<TDict> {
  using Key = int;
  using Value = int;
  static constexpr const char* kModule = "dicthash";
  // The middle bits of the key's 32-bit square.
  static unsigned Square(int key, int shift) {
    const unsigned k = static_cast<unsigned>(key);
    return (k * k) >> shift;
  }
  // The order test of ordered dictionaries: keys compare as unsigned numbers.
  static bool Less(int a, int b) { return static_cast<unsigned>(a) < static_cast<unsigned>(b); }
};

}  // namespace quarnel_internal

using Ops = quarnel_internal::DictOps<TDict>;

TDict::TDict(int size, int ordered)
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

TDict::TDict(const TDict& other) : TDict(0, other.ordered_) { Ops::Copy(*this, other); }

TDict& TDict::operator=(const TDict& other) {
  if (this != &other) Ops::Copy(*this, other);
  return *this;
}

TDict::TDict(TDict&& other) noexcept : TDict(0, other.ordered_) { Ops::Swap(*this, other); }

TDict& TDict::operator=(TDict&& other) noexcept {
  if (this != &other) {
    Ops::Swap(*this, other);
    other.Reset(0);
  }
  return *this;
}

TDict::~TDict() { delete tableMemory_; }

void TDict::Reset(int size) { Ops::Reset(*this, size); }
void TDict::Define(int key, int value) { Ops::Define(*this, key, value); }
void TDict::Undefine(int key) { Ops::Undefine(*this, key); }
int TDict::Lookup(int key) const { return Ops::Lookup(*this, key); }
int TDict::Find(int value) const { return Ops::Find(*this, value); }
int TDict::GetCount() const { return Ops::Count(*this); }
int TDict::GetIndKey(int i) const { return Ops::IndKey(*this, i); }
int TDict::GetIndData(int i) const { return Ops::IndData(*this, i); }
int TDict::LookupKeydex(int key) const { return Ops::Keydex(*this, key); }
void TDict::addTable(int key, int value) { Ops::Add(*this, key, value); }
void TDict::delTable(int key) { Ops::Undefine(*this, key); }
void TDict::checkRehash() { Ops::CheckRehash(*this); }

TDictShape TDict::Shape() const {
  return TDictShape{size_, mask_, shift_, used_, deleted_, lowWater_, highWater_, tombstoneLimit_};
}

TDictIter::TDictIter(const TDict& dict) : dict_(dict), index_(-1), state_(0) { Reset(); }

void TDictIter::Reset() { Ops::IterReset(*this); }

TDictIter& TDictIter::operator++() {
  Ops::IterNext(*this);
  return *this;
}

TDictIter::operator int() const { return index_ < dict_.size_ || state_ < 0; }

int TDictIter::Key() const {
  const TDict::Slot* s = Ops::IterSlot(*this);
  return s != nullptr ? s->key : 0;
}

int TDictIter::Data() const {
  if (state_ < 0) return dict_.nullValue_;
  const TDict::Slot* s = Ops::IterSlot(*this);
  return s != nullptr ? s->value : 0;
}
