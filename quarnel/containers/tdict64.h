// TDict64: the hash dictionary of TDict with 64-bit keys and values.
//
// Everything TDict does, with 16-byte slots of (key, value), both unsigned
// 64-bit: the same 18 capacities, sizing, probing, tombstones, parents,
// rehashing and indexed access; key 0 and value 0 mean a 64-bit zero. The home
// slot is taken from the low 32 bits of the key's 64-bit square, shifted.
//
// In an ordered TDict64 the order tests compare only the low 32-bit halves of
// the keys, as unsigned numbers: two keys with equal low halves are neither
// smaller than the other. Equality tests always compare all 64 bits. This
// economy is kept deliberately. As with TDict, a rehash rebuilds the table
// unordered. Assertions name module "dicthash64". One thread at a time.
#ifndef QUARNEL_CONTAINERS_TDICT64_H_
#define QUARNEL_CONTAINERS_TDICT64_H_

#include <cstdint>

#include "quarnel/containers/tdict.h"
#include "quarnel/foundation/export.h"

class QUARNEL_API TDict64 {
 public:
  struct Slot {
    std::uint64_t key;    // 0: empty
    std::uint64_t value;  // 0 with a key: tombstone
  };

  TDict64(int size, int ordered);
  // Copies and moves as TDict does.
  TDict64(const TDict64& other);
  TDict64& operator=(const TDict64& other);
  TDict64(TDict64&& other) noexcept;
  TDict64& operator=(TDict64&& other) noexcept;
  ~TDict64();

  void Reset(int size);
  void Define(std::uint64_t key, std::uint64_t value);
  void Undefine(std::uint64_t key);
  std::uint64_t Lookup(std::uint64_t key) const;
  std::uint64_t Find(std::uint64_t value) const;
  int GetCount() const;
  std::uint64_t GetIndKey(int i) const;
  std::uint64_t GetIndData(int i) const;
  int LookupKeydex(std::uint64_t key) const;
  TDict64* GetParent() const { return parent_; }
  void SetParent(TDict64* parent) { parent_ = parent; }

  // Diagnostics: the table's counters and its slots (Shape().size of them).
  TDictShape Shape() const;
  const Slot* Slots() const { return table_; }
  int IsOrdered() const { return ordered_; }

  // Range-for over the entries as (key, value) pairs, as over a TDict.
  using const_iterator = quarnel_dict::PairIterator<TDict64, std::uint64_t, std::uint64_t>;
  const_iterator begin() const { return const_iterator(this, nullValue_ != 0 ? -1 : 0); }
  const_iterator end() const { return const_iterator(this, size_); }

 private:
  friend class TDict64Iter;
  friend class quarnel_dict::PairIterator<TDict64, std::uint64_t, std::uint64_t>;
  template <class D>
  friend struct quarnel_internal::DictOps;

  void addTable(std::uint64_t key, std::uint64_t value);
  void delTable(std::uint64_t key);
  void checkRehash();

  int ordered_;
  std::uint64_t nullValue_;
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
  TDict64* parent_;
};

// Walks one TDict64 as TDictIter walks a TDict: key 0 first when it has a
// value, then the live slots in ascending slot order.
class QUARNEL_API TDict64Iter {
 public:
  explicit TDict64Iter(const TDict64& dict);
  void Reset();
  TDict64Iter& operator++();
  operator int() const;
  std::uint64_t Key() const;
  std::uint64_t Data() const;

 private:
  template <class D>
  friend struct quarnel_internal::DictOps;

  const TDict64& dict_;
  int index_;
  int state_;  // -1 on key 0, else the number of live slots passed
};

#endif  // QUARNEL_CONTAINERS_TDICT64_H_
