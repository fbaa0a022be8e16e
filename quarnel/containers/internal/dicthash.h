// The hash dictionary's algorithms, shared by TDict (32-bit keys and values)
// and TDict64 (64-bit). Included only by their implementation files, which
// supply a DictTraits specialisation: the key type, the home slot of a key,
// the order test of ordered dictionaries and the assertion module.
#ifndef QUARNEL_CONTAINERS_INTERNAL_DICTHASH_H_
#define QUARNEL_CONTAINERS_INTERNAL_DICTHASH_H_

#include <cstring>
#include <utility>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/tmemory.h"

namespace quarnel_internal {

// The capacities: the largest prime below each power of two from 2^7 to 2^24.
inline constexpr int kDictPrimes[18] = {127,    251,     509,     1021,    2039,    4093,
                                        8191,   16381,   32749,   65521,   131071,  262139,
                                        524287, 1048573, 2097143, 4194301, 8388593, 16777213};
inline constexpr int kDictLargestPrime = 16777213;  // 0xFFFFFD, the limit

// The first prime of the table at or above n; 0 when n is above the largest.
inline int DictPrimeAtLeast(long long n) {
  for (int p : kDictPrimes) {
    if (p >= n) return p;
  }
  return 0;
}

// Assertion lines, the same in module "dicthash" (TDict) and "dicthash64".
enum : int {
  kDictLineResetTooMany = 112,   // Reset(n): n above 0xFFFFFD entries
  kDictLineResetNotPrime = 121,  // Reset(-n): -n is not one of the primes
  kDictLineTableShort = 140,     // the table memory could not be sized; a smaller table is used
  kDictLineTombstones = 233,     // redefining a tombstone took deleted below 0
  kDictLineDeletedAbove = 291,   // a deletion took deleted above used
  kDictLineLiveNegative = 342,   // rehash: used - deleted is negative
  kDictLineTableFull = 254,      // a probe met no empty slot: the table is full
  kDictLineParentCycle = 318,    // the parents of a dictionary form a cycle
};

// A chain of parents longer than this is taken for a cycle.
inline constexpr int kDictMaxParentDepth = 1 << 16;

template <class D>
struct DictTraits;

template <class D>
struct DictOps {
  using Tr = DictTraits<D>;
  using Key = typename Tr::Key;
  using Value = typename Tr::Value;
  using Slot = typename D::Slot;

  static unsigned Home(const D& d, Key key) { return Tr::Square(key, d.shift_) & d.mask_; }
  // The probe step: the next slot is the current one minus the step, wrapped.
  static int Step(const D& d, unsigned home) {
    return home != 0 ? d.size_ - static_cast<int>(home) : 1;
  }
  static int Next(const D& d, int index, int step) {
    index -= step;
    return index < 0 ? index + d.size_ : index;
  }
  static bool Live(const Slot& s) { return s.key != 0 && s.value != 0; }

  // Takes `size` slots (a prime of the table): counters, table memory, mask
  // and shift. When the memory cannot be sized, the largest prime that fits
  // the memory held is used instead (127 slots always fit), so the table
  // never outgrows its memory.
  static void SizeTable(D& d, int size) {
    const unsigned want = static_cast<unsigned>(size) * sizeof(Slot);
    if (d.tableMemory_->SetSize(want, -1) != 0 || d.tableMemory_->GetSize() < want) {
      Debug(Tr::kModule, kDictLineTableShort);
      const unsigned have = d.tableMemory_->GetSize();
      size = 0;
      for (int p : kDictPrimes) {
        if (static_cast<unsigned>(p) * sizeof(Slot) <= have) size = p;
      }
      if (size == 0 && d.tableMemory_->SetSize(kDictPrimes[0] * sizeof(Slot), -1) == 0) {
        size = kDictPrimes[0];
      }
      if (size != 0) d.tableMemory_->SetSize(static_cast<unsigned>(size) * sizeof(Slot), -1);
    }
    d.size_ = size;
    d.lowWater_ = size * 20 / 100;
    d.highWater_ = size * 80 / 100;
    if (d.highWater_ < 1) d.highWater_ = 1;
    d.tombstoneLimit_ = size * 50 / 100;
    d.table_ = size != 0 ? reinterpret_cast<Slot*>(d.tableMemory_->MemPtr()) : nullptr;
    if (size != 0) std::memset(static_cast<void*>(d.table_), 0, size * sizeof(Slot));
    unsigned mask = 0;
    int exponent = 0;
    for (long long v = 2; v <= size; v *= 2) {
      mask = static_cast<unsigned>(v - 1);
      ++exponent;
    }
    d.mask_ = mask;
    d.shift_ = exponent < 17 ? 16 : 32 - exponent;
  }

  static void Reset(D& d, int n) {
    d.used_ = 0;
    d.deleted_ = 0;
    d.nullValue_ = 0;
    d.parent_ = nullptr;
    int size;
    if (n >= 0) {
      if (n > kDictLargestPrime) Debug(Tr::kModule, kDictLineResetTooMany);
      const long long want = (static_cast<long long>(n) * 100 + 79) / 80;
      size = DictPrimeAtLeast(want);
      if (size == 0) size = kDictLargestPrime;
    } else {
      const long long ask = -static_cast<long long>(n);
      size = ask < kDictLargestPrime + 1 ? DictPrimeAtLeast(ask) : kDictLargestPrime;
      if (size != ask) Debug(Tr::kModule, kDictLineResetNotPrime);
    }
    SizeTable(d, size);
  }

  // Exchanges everything two dictionaries hold; the tables stay where they
  // are (each lives in its own heap TMemory).
  static void Swap(D& a, D& b) {
    std::swap(a.ordered_, b.ordered_);
    std::swap(a.nullValue_, b.nullValue_);
    std::swap(a.size_, b.size_);
    std::swap(a.mask_, b.mask_);
    std::swap(a.shift_, b.shift_);
    std::swap(a.used_, b.used_);
    std::swap(a.deleted_, b.deleted_);
    std::swap(a.lowWater_, b.lowWater_);
    std::swap(a.highWater_, b.highWater_);
    std::swap(a.tombstoneLimit_, b.tombstoneLimit_);
    std::swap(a.tableMemory_, b.tableMemory_);
    std::swap(a.table_, b.table_);
    std::swap(a.parent_, b.parent_);
  }

  // Copies `from` into `d`, whose table memory already exists.
  static void Copy(D& d, const D& from) {
    d.ordered_ = from.ordered_;
    d.nullValue_ = from.nullValue_;
    d.used_ = from.used_;
    d.deleted_ = from.deleted_;
    SizeTable(d, from.size_);
    if (d.size_ == from.size_) {
      if (d.size_ != 0)
        std::memcpy(static_cast<void*>(d.table_), from.table_, d.size_ * sizeof(Slot));
    } else {
      d.used_ = 0;
      d.deleted_ = 0;
    }
    d.parent_ = from.parent_;
  }

  static void Define(D& d, Key key, Value value) {
    if (key == 0) {
      d.nullValue_ = value;
      return;
    }
    if (value == 0) {
      Undefine(d, key);
      return;
    }
    if (d.used_ + 1 >= d.highWater_) CheckRehash(d);
    Add(d, key, value);
  }

  static void Add(D& d, Key key, Value value) {
    if (d.size_ == 0) {
      Debug(Tr::kModule, kDictLineTableFull);
      return;
    }
    unsigned home = Home(d, key);
    int index = static_cast<int>(home);
    int step = Step(d, home);
    for (int probes = 0;;) {
      Slot& s = d.table_[index];
      if (s.key == 0) {
        s.key = key;
        s.value = value;
        ++d.used_;
        return;
      }
      if (s.key == key) {
        if (s.value == 0) {
          --d.deleted_;
          if (d.deleted_ < 0) Debug(Tr::kModule, kDictLineTombstones);
        }
        s.value = value;
        return;
      }
      if (d.ordered_ != 0 && Tr::Less(s.key, key)) {
        // Displace the smaller key and place it again from its own home.
        std::swap(s.key, key);
        std::swap(s.value, value);
        home = Home(d, key);
        index = static_cast<int>(home);
        step = Step(d, home);
        probes = 0;
        continue;
      }
      index = Next(d, index, step);
      if (++probes >= d.size_) {
        Debug(Tr::kModule, kDictLineTableFull);
        return;
      }
    }
  }

  static void Undefine(D& d, Key key) {
    if (key == 0) {
      d.nullValue_ = 0;
      return;
    }
    if (d.size_ == 0) return;
    const unsigned home = Home(d, key);
    int index = static_cast<int>(home);
    const int step = Step(d, home);
    for (int probes = 0; probes < d.size_; ++probes) {
      Slot& s = d.table_[index];
      if (s.key == 0) return;
      if (s.key == key) {
        if (s.value == 0) return;
        s.value = 0;
        ++d.deleted_;
        if (d.deleted_ > d.used_) Debug(Tr::kModule, kDictLineDeletedAbove);
        if (d.used_ < d.lowWater_ || d.deleted_ >= d.tombstoneLimit_) CheckRehash(d);
        return;
      }
      if (d.ordered_ != 0 && Tr::Less(s.key, key)) return;
      index = Next(d, index, step);
    }
  }

  static Value Lookup(const D& d, Key key) {
    int depth = 0;
    for (const D* x = &d; x != nullptr; x = x->parent_) {
      if (++depth > kDictMaxParentDepth) {
        Debug(Tr::kModule, kDictLineParentCycle);
        return 0;
      }
      if (key == 0) {
        if (x->nullValue_ != 0) return x->nullValue_;
        continue;
      }
      if (x->size_ == 0) continue;
      const unsigned home = Home(*x, key);
      const Slot* table = x->table_;
      const Slot* s = &table[home];
      if (s->key == key) {
        if (s->value != 0) return s->value;
        continue;  // a tombstone at home: ask the parent
      }
      if (s->key == 0) continue;
      const bool ordered = x->ordered_ != 0;
      if (ordered && Tr::Less(s->key, key)) continue;
      int index = static_cast<int>(home);
      const int step = Step(*x, home);
      const int size = x->size_;
      for (int probes = 1; probes < size; ++probes) {
        index -= step;
        if (index < 0) index += size;
        s = &table[index];
        if (s->key == key) return s->value;  // even a tombstone ends the search
        if (s->key == 0 || (ordered && Tr::Less(s->key, key))) break;
      }
    }
    return 0;
  }

  static void CheckRehash(D& d) {
    long long live = static_cast<long long>(d.used_) - d.deleted_;
    if (live < 0) {
      Debug(Tr::kModule, kDictLineLiveNegative);
      live = 0;
    }
    int target;
    if (live >= 10737418) {
      target = kDictLargestPrime;
    } else {
      const long long want = live * 200 / 100 + 1;
      target = want >= kDictLargestPrime + 1 ? kDictLargestPrime : DictPrimeAtLeast(want);
    }
    if (target == d.size_ && d.deleted_ < d.tombstoneLimit_) return;
    // Built unordered even for an ordered dictionary, deliberately.
    D temp(-target, 0);
    if (temp.size_ != target) return;  // no memory for the new table: keep the old one
    for (int i = 0; i < d.size_; ++i) {
      const Slot& s = d.table_[i];
      if (Live(s)) Define(temp, s.key, s.value);
    }
    delete d.tableMemory_;
    d.size_ = temp.size_;
    d.mask_ = temp.mask_;
    d.shift_ = temp.shift_;
    d.used_ = temp.used_;
    d.deleted_ = 0;
    d.lowWater_ = temp.lowWater_;
    d.highWater_ = temp.highWater_;
    d.tombstoneLimit_ = temp.tombstoneLimit_;
    d.tableMemory_ = temp.tableMemory_;
    d.table_ = temp.table_;
    temp.tableMemory_ = nullptr;
    temp.table_ = nullptr;
  }

  static Key Find(const D& d, Value value) {
    if (value == 0 || value == d.nullValue_) return 0;
    for (int i = 0; i < d.size_; ++i) {
      const Slot& s = d.table_[i];
      if (s.key != 0 && s.value == value) return s.key;
    }
    return 0;
  }

  static int Count(const D& d) { return d.used_ - d.deleted_ + (d.nullValue_ != 0 ? 1 : 0); }

  // The slot index of the i-th live slot, or -1 (with *live the number of
  // live slots when i is beyond them).
  static int IndSlot(const D& d, int i, int* live) {
    int n = 0;
    for (int k = 0; k < d.size_; ++k) {
      if (Live(d.table_[k])) {
        if (n == i) return k;
        ++n;
      }
    }
    *live = n;
    return -1;
  }

  static Key IndKey(const D& d, int i) {
    if (i < 0) return 0;
    int live = 0;
    const int k = IndSlot(d, i, &live);
    return k >= 0 ? d.table_[k].key : 0;
  }

  static Value IndData(const D& d, int i) {
    if (i < 0) return 0;
    int live = 0;
    const int k = IndSlot(d, i, &live);
    if (k >= 0) return d.table_[k].value;
    return i == live ? d.nullValue_ : 0;
  }

  static int Keydex(const D& d, Key key) {
    int n = 0;
    for (int k = 0; k < d.size_; ++k) {
      const Slot& s = d.table_[k];
      if (Live(s)) {
        if (key != 0 && s.key == key) return n;
        ++n;
      }
    }
    return key == 0 ? n : -1;
  }

  template <class It>
  static void IterReset(It& it) {
    it.index_ = -1;
    it.state_ = 0;
    IterNext(it);
    it.state_ = it.dict_.nullValue_ != 0 ? -1 : 0;
  }

  template <class It>
  static void IterNext(It& it) {
    if (it.state_ == -1) {
      it.state_ = 0;  // leaving key 0; Reset found the first slot already
      return;
    }
    const D& d = it.dict_;
    if (it.index_ >= d.size_) return;
    for (int k = it.index_ + 1; k < d.size_; ++k) {
      if (Live(d.table_[k])) {
        it.index_ = k;
        ++it.state_;
        return;
      }
    }
    it.index_ = d.size_;
  }

  // The slot under the iterator, or null on key 0 and past the end.
  template <class It>
  static const Slot* IterSlot(const It& it) {
    const D& d = it.dict_;
    if (it.state_ < 0 || it.state_ >= d.used_ || it.index_ < 0 || it.index_ >= d.size_) {
      return nullptr;
    }
    return &d.table_[it.index_];
  }
};

}  // namespace quarnel_internal

#endif  // QUARNEL_CONTAINERS_INTERNAL_DICTHASH_H_
