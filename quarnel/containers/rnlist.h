// RNList: a list of 32-bit record numbers with set operations.
//
// The entries live in the list's TMemory, four bytes each, in the order
// they were put there; the count is the memory's size / 4. Add keeps the
// list a set (it appends only numbers not yet present); Ins allows
// duplicates. The set operations work on another list, the destination,
// given as their argument: a.Append(&b) adds a's entries to b, not b's to a.
// The destination may be the list itself.
//
// Every member returns 0 unless said otherwise. A member that grows the list
// returns -625 when the memory refuses and then leaves the list as it was.
// Misuse asserts (module "rnlist"); an index out of range never reads or
// writes outside the list. An RNList is used by one thread at a time.
#ifndef QUARNEL_CONTAINERS_RNLIST_H_
#define QUARNEL_CONTAINERS_RNLIST_H_

#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"

class QUARNEL_API RNList : public TMemory {
 public:
  RNList() = default;

  // The number of entries.
  int Count() const { return static_cast<int>(GetSize() / sizeof(int)); }
  // Sets the count to n; new entries are 0. A negative n asserts and
  // returns -1010 with the list unchanged.
  int Alloc(int n);
  // The list becomes exactly [rn].
  int One(int rn);
  // Entry i; 0 when i is outside 0..Count-1.
  int Enum(int i) const;
  // Entry i. Outside the range: a per-thread scratch integer that reads 0
  // and loses what is written to it.
  int& operator[](int i);
  // Stores rn at i and returns the old entry. Outside the range: an
  // assertion, the store is lost and the result is 0.
  int Set(int i, int rn);
  // Index of the first rn; -1 when absent.
  int Find(int rn) const;
  // Appends rn unless it is already present.
  int Add(int rn);
  // Inserts rn at position `at`, moving the rest up (duplicates allowed).
  // `at` outside 0..Count asserts and returns -1010 with nothing inserted.
  int Ins(int rn, int at);
  // Removes every occurrence of rn and returns how many there were; the
  // memory shrinks only when there were any.
  int Del(int rn);

  // Makes `other` an exact copy of this list.
  int Copy(RNList* other);
  // Appends to `other` each entry of this list that `other` does not yet
  // hold; an entry repeated in this list is added once.
  int Append(RNList* other);
  // Removes from `other` every occurrence of each entry of this list.
  int Remove(RNList* other);
  // `at` is clamped to 0..other's count. `other` becomes: its first `at`
  // entries, then this list's entries not among them, then its former
  // remaining entries not already present.
  int Insert(RNList* other, int at);
  // Sorts the entries with Sort (records of 4 bytes); `compare` is a
  // SortCompareProc (see quarnel/foundation/sort.h) given the entries'
  // addresses and `context`.
  int Sort(void* context, void* compare);

  // Range-for over the entries, in order; valid until the list next changes
  // size.
  int* begin() { return entries(); }
  int* end() { return entries() + Count(); }
  const int* begin() const { return entries(); }
  const int* end() const { return entries() + Count(); }

 private:
  int* entries() { return reinterpret_cast<int*>(MemPtr()); }
  const int* entries() const { return reinterpret_cast<const int*>(MemPtr()); }
  // Sets the count to n; false (unchanged) when the memory refuses.
  bool resize(int n);
};

#endif  // QUARNEL_CONTAINERS_RNLIST_H_
