// TDict: a hash dictionary of 32-bit integer keys and values.
//
// Open addressing in one flat table of (key, value) pairs held in a TMemory,
// with a prime capacity from a fixed table of 18 primes (127 ... 16777213),
// tombstone deletion and automatic rehashing that keeps the load between 20 %
// and 80 % of the capacity. Key 0 is held outside the table (the null value),
// and a value of 0 means absent: defining a key as 0 removes it.
//
// A key's home slot is the middle bits of its 32-bit square; the probe from a
// home h visits h, 2h, 3h, ... modulo the capacity (home 0 walks down from the
// top). Because the home mask is below the largest power of two that fits,
// homes fall in the lower part of the table and the slots above are reached
// only by probing.
//
// An ordered dictionary keeps the keys along each probe chain in descending
// order (as unsigned numbers), so that a search stops early at a smaller key.
// A rehash rebuilds the table unordered while the ordered flag stays set;
// kept deliberately so, as the library has always done: an ordered dictionary
// is exact only until its first rehash.
//
// Lookups fall back to a parent dictionary (not owned), so that a chain of
// dictionaries acts as nested scopes. A tombstone in a key's home slot sends
// the search to the parent; a tombstone met further along the probe ends the
// whole search with 0. This asymmetry is deliberate.
//
// The live slots are numbered from slot 0 upward by GetIndKey, GetIndData and
// LookupKeydex, so the slot layout is part of the observable behaviour.
// Inconsistent counters and sizes beyond the prime table assert (module
// "dicthash"); no member reports an error. One thread at a time.
#ifndef QUARNEL_CONTAINERS_TDICT_H_
#define QUARNEL_CONTAINERS_TDICT_H_

#include <cstddef>
#include <iterator>
#include <utility>

#include "quarnel/foundation/export.h"

class TMemory;
namespace quarnel_internal {
template <class D>
struct DictOps;
}

namespace quarnel_dict {

// Range-for over one dictionary (not its parents) as (key, value) pairs, in
// TDictIter's order: key 0 first when it has a value, then the live slots in
// ascending slot order. Valid until the dictionary next changes.
template <class D, class K, class V>
class PairIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = std::pair<K, V>;
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = std::pair<K, V>;

  PairIterator() = default;
  // index -1 is key 0, 0 .. size - 1 a slot, size the end.
  PairIterator(const D* dict, int index) : dict_(dict), index_(index) { skip(); }

  std::pair<K, V> operator*() const {
    if (index_ < 0) return {K{0}, dict_->nullValue_};
    return {dict_->table_[index_].key, dict_->table_[index_].value};
  }
  PairIterator& operator++() {
    ++index_;
    skip();
    return *this;
  }
  PairIterator operator++(int) {
    PairIterator was(*this);
    ++*this;
    return was;
  }
  bool operator==(const PairIterator& o) const { return index_ == o.index_; }

 private:
  void skip() {
    if (index_ < 0) return;
    while (index_ < dict_->size_ &&
           (dict_->table_[index_].key == 0 || dict_->table_[index_].value == 0))
      ++index_;
  }

  const D* dict_ = nullptr;
  int index_ = 0;
};

}  // namespace quarnel_dict

// The counters of a dictionary's table, for diagnostics and tests.
struct TDictShape {
  int size;            // capacity in slots (one of the 18 primes)
  unsigned mask;       // (largest power of two <= size) - 1
  int shift;           // right shift of the squared key before masking
  int used;            // slots holding a key, tombstones included
  int deleted;         // tombstones
  int lowWater;        // size * 20 / 100
  int highWater;       // size * 80 / 100, at least 1
  int tombstoneLimit;  // size * 50 / 100
};

class QUARNEL_API TDict {
 public:
  struct Slot {
    int key;    // 0: empty
    int value;  // 0 with a key: tombstone
  };

  // `size` >= 0 is a number of entries (the capacity is the first prime at
  // or above size / 0.8); `size` < 0 asks for exactly -size slots, which must
  // be one of the primes. `ordered` non-zero keeps probe chains descending.
  TDict(int size, int ordered);
  // Copies the entries, the counters, the ordered flag and the parent.
  TDict(const TDict& other);
  TDict& operator=(const TDict& other);
  // Takes the table, counters, ordered flag and parent of `other`, which is
  // left empty (its smallest table, no parent). Dictionaries that name
  // `other` as their parent keep pointing at it.
  TDict(TDict&& other) noexcept;
  TDict& operator=(TDict&& other) noexcept;
  ~TDict();

  // Empties the dictionary (null value and parent too) and sizes the table
  // as the constructor does.
  void Reset(int size);
  // Sets key's value; value 0 removes the key; key 0 sets the null value.
  void Define(int key, int value);
  // Removes key; key 0 clears the null value.
  void Undefine(int key);
  // Key's value from this dictionary, else from its parents in turn; 0 when
  // absent.
  int Lookup(int key) const;
  // The key of the first live slot (lowest slot index) holding value, in
  // this dictionary only; 0 when value is 0, equals the null value or is
  // absent.
  int Find(int value) const;
  // Live entries, key 0 included.
  int GetCount() const;
  // Key or value of the i-th live slot counted from slot 0; 0 for i < 0 or
  // beyond. GetIndData answers the null value for i equal to the number of
  // live slots.
  int GetIndKey(int i) const;
  int GetIndData(int i) const;
  // The index (as GetIndKey counts) of key among the live slots; for key 0
  // the number of live slots; -1 when absent.
  int LookupKeydex(int key) const;
  TDict* GetParent() const { return parent_; }
  void SetParent(TDict* parent) { parent_ = parent; }

  // Diagnostics: the table's counters and its slots (Shape().size of them).
  TDictShape Shape() const;
  const Slot* Slots() const { return table_; }
  int IsOrdered() const { return ordered_; }

  // Range-for over the entries as (key, value) pairs:
  //   for (auto [key, value] : dict) ...
  using const_iterator = quarnel_dict::PairIterator<TDict, int, int>;
  const_iterator begin() const { return const_iterator(this, nullValue_ != 0 ? -1 : 0); }
  const_iterator end() const { return const_iterator(this, size_); }

 private:
  friend class TDictIter;
  friend class quarnel_dict::PairIterator<TDict, int, int>;
  template <class D>
  friend struct quarnel_internal::DictOps;

  void addTable(int key, int value);
  void delTable(int key);
  void checkRehash();

  int ordered_;
  int nullValue_;
  int size_;
  unsigned mask_;
  int shift_;
  int used_;
  int deleted_;
  int lowWater_;
  int highWater_;
  int tombstoneLimit_;
  TMemory* tableMemory_;
  Slot* table_;
  TDict* parent_;
};

// Walks one dictionary (not its parents): key 0 first when it has a value,
// then the live slots in ascending slot order. The dictionary must not change
// during the walk.
//
//   for (TDictIter it(dict); it; ++it) use(it.Key(), it.Data());
class QUARNEL_API TDictIter {
 public:
  explicit TDictIter(const TDict& dict);
  void Reset();
  TDictIter& operator++();
  operator int() const;
  int Key() const;
  int Data() const;

 private:
  template <class D>
  friend struct quarnel_internal::DictOps;

  const TDict& dict_;
  int index_;
  int state_;  // -1 on key 0, else the number of live slots passed
};

#endif  // QUARNEL_CONTAINERS_TDICT_H_
