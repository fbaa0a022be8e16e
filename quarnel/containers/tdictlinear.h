// TDictLinear: a small unsorted dictionary of 32-bit pairs, searched linearly.
//
// For a handful of entries. Pairs live in one raw block (MemAlloc); pair 0 is
// a search sentinel and the entries are pairs 1..count. Every search writes
// what it seeks into the sentinel and scans from the last entry down, so that
// the scan always stops; later entries are found first. A value of 0 means
// absent. Lookups fall back to a parent dictionary (not owned).
//
// The block is resized on most changes, deliberately: room for n entries is
// (n * 8 + 8) bytes plus that number modulo 80, on purpose not a rounding to
// a multiple of 80. operator= forgets its own block without freeing it before
// copying, as the library has always done. One thread at a time.
#ifndef QUARNEL_CONTAINERS_TDICTLINEAR_H_
#define QUARNEL_CONTAINERS_TDICTLINEAR_H_

#include "quarnel/foundation/export.h"

class QUARNEL_API TDictLinear {
 public:
  struct Pair {
    int key;
    int value;
  };

  TDictLinear();  // empty, room for 10 entries
  // The source's entries and parent; room for exactly its entries.
  TDictLinear(const TDictLinear& other);
  // As the copy constructor, after forgetting (not freeing) the own block.
  // Assigning a dictionary to itself changes nothing.
  TDictLinear& operator=(const TDictLinear& other);
  // Takes the block, entries and parent of `other`, which is left empty with
  // no block (its next change makes one). Move assignment frees this
  // dictionary's own block first.
  TDictLinear(TDictLinear&& other) noexcept;
  TDictLinear& operator=(TDictLinear&& other) noexcept;
  ~TDictLinear();

  // Empties the dictionary and forgets the parent; room for 10 entries.
  void Reset();
  // Value 0 removes key; an existing key gets the value in place; a new key
  // is appended.
  void Define(int key, int value);
  // The last entry moves into the removed entry's place.
  void Undefine(int key);
  // The value from this dictionary, else from its parents in turn; 0 when
  // absent.
  int Lookup(int key) const;
  // The 0-based entry index of key, -1 when absent.
  int LookupKeydex(int key) const;
  // The key of the last entry holding value; 0 when none (and for value 0).
  int Find(int value) const;
  // Key or value of entry i (0-based) when i < count, else 0. Index -1 reads
  // the search sentinel; below -1 the answer is 0.
  int GetIndKey(int i) const;
  int GetIndData(int i) const;
  int GetCount() const { return count_; }
  TDictLinear* GetParent() const { return parent_; }
  // Setting the dictionary as its own parent asserts (dictlinear 207) and is
  // refused.
  void SetParent(TDictLinear* parent);

  // Diagnostics: the bytes allocated for the pairs, and the block.
  unsigned Capacity() const { return capacity_; }
  const Pair* Array() const { return array_; }

  // Range-for over the entries (pairs 1..count), in the order they are
  // stored. Valid until the dictionary next changes.
  const Pair* begin() const { return array_ != nullptr ? array_ + 1 : nullptr; }
  const Pair* end() const { return array_ != nullptr ? array_ + 1 + count_ : nullptr; }

 private:
  bool resize(int delta);
  int search(int key) const;

  int count_;
  TDictLinear* parent_;
  unsigned capacity_;
  Pair* array_;
};

#endif  // QUARNEL_CONTAINERS_TDICTLINEAR_H_
