// TList: a list of pointer-sized integers (values, or pointers cast to
// integers) with its own lock.
//
// A circular doubly linked list with a sentinel node, indexed from 0. Every
// list is its own TMonitor: AddAt, RemoveAt, Clear, Find, Remove and GetAtRaw
// hold it for their whole run. Count, Next and Item read without locking, and
// a walk with First/Next, RemoveIf, FilterIf, FindIf, += and -= are not
// atomic as a whole: a caller that needs them so holds the list's monitor
// (Enter/Exit) around them.
//
// Each structural operation checks the ring first; a broken ring, an index
// out of range or a walk from a null position asserts (module "list") and the
// call goes on as documented per member.
#ifndef QUARNEL_CONTAINERS_TLIST_H_
#define QUARNEL_CONTAINERS_TLIST_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/export.h"

class QUARNEL_API TList : public TMonitor {
 public:
  using Predicate = int (*)(std::intptr_t);

  TList();
  ~TList();
  TList(const TList&) = delete;
  TList& operator=(const TList&) = delete;
  // Takes the items of `other` (their nodes, so position handles stay
  // valid and now belong to this list) under other's monitor; `other` is
  // left empty. Each list keeps its own monitor. Move assignment first
  // clears this list, holding its monitor, then the source's.
  TList(TList&& other) noexcept;
  TList& operator=(TList&& other) noexcept;

  // Inserts `item` so that it gets position `index` (0..Count; Count
  // appends). An index outside that range asserts and inserts nothing; so
  // does a node the heap refuses (MemAlloc asserts).
  void AddAt(std::intptr_t item, int index);
  void AddFirst(std::intptr_t item);
  void AddLast(std::intptr_t item);

  // Removes and returns the item at `index` (0..Count-1). Outside that range:
  // an assertion and 0.
  std::intptr_t RemoveAt(int index);
  std::intptr_t RemoveFirst();
  std::intptr_t RemoveLast();

  // The item at `index`, the first, the last (0 with an assertion when out of
  // range).
  std::intptr_t GetAt(int index) const;
  std::intptr_t GetFirst() const;
  std::intptr_t GetLast() const;
  // The position handle (node) at `index`; null with an assertion outside
  // 0..Count-1.
  void* GetAtRaw(int index) const;

  int Count() const { return count_.load(std::memory_order_relaxed); }
  int IsEmpty() const { return Count() == 0; }
  // Removes every item, holding the lock throughout.
  void Clear();

  // Index of the first occurrence of `item`, -1 when absent.
  int Find(std::intptr_t item) const;
  // Unlinks the first occurrence of `item`; nothing when absent.
  void Remove(std::intptr_t item);

  // Position handles: First is the node at index 0 (null when empty); Next
  // the following node, null after the last (a null position asserts and
  // gives null); Item the node's item.
  void* First() const;
  void* Next(void* position) const;
  static std::intptr_t Item(void* position);

  // The first item after *position (from the start when position or
  // *position is null) for which `pred` is non-zero: stores its node in
  // *position and returns the item. None: *position = null, result 0.
  std::intptr_t FindIf(Predicate pred, void** position) const;
  // Removes the first item for which `pred` is non-zero (through Remove, so
  // its first occurrence) and returns it; 0 when none.
  std::intptr_t RemoveIf(Predicate pred);
  // Keeps only the items for which `pred` is non-zero, in their order.
  void FilterIf(Predicate pred);

  // Adds each item of `other` that this list lacks at the front, so that the
  // added items end up in reverse order ahead of the old ones; deliberate.
  TList& operator+=(const TList& other);
  // Removes the first occurrence of each item of `other`.
  TList& operator-=(const TList& other);

  // Range-for over the items, first to last. Every iterator object holds
  // the list's monitor from the moment it is made (or copied) until it is
  // destroyed, so a loop `for (std::intptr_t item : list)` holds it from
  // begin() to the loop's end, break and exceptions included: other threads
  // cannot change the list meanwhile. The loop's own thread must not add or
  // remove items while it walks.
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::intptr_t;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::intptr_t*;
    using reference = std::intptr_t;

    const_iterator() = default;
    const_iterator(const const_iterator& o) : list_(o.list_), node_(o.node_) { enter(); }
    const_iterator& operator=(const const_iterator& o) {
      if (this != &o) {
        o.enter();
        leave();
        list_ = o.list_;
        node_ = o.node_;
      }
      return *this;
    }
    ~const_iterator() { leave(); }

    std::intptr_t operator*() const { return static_cast<const Node*>(node_)->item; }
    const_iterator& operator++() {
      node_ = static_cast<const Node*>(node_)->next;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator was(*this);
      ++*this;
      return was;
    }
    bool operator==(const const_iterator& o) const { return node_ == o.node_; }

   private:
    friend class TList;
    // The first node is read once the monitor is held.
    const_iterator(const TList* list, bool atEnd) : list_(list) {
      enter();
      node_ = atEnd ? list->sentinel_ : list->head_;
    }
    void enter() const {
      if (list_ != nullptr) const_cast<TList*>(list_)->Enter();
    }
    void leave() const {
      if (list_ != nullptr) const_cast<TList*>(list_)->Exit();
    }

    const TList* list_ = nullptr;
    const void* node_ = nullptr;
  };
  const_iterator begin() const { return const_iterator(this, false); }
  const_iterator end() const { return const_iterator(this, true); }

 private:
  struct Node {
    std::intptr_t item;
    Node* next;
    Node* prev;
  };

  bool checkRing(int line) const;
  // The list's own monitor, for const members that hold it.
  TMonitor& monitor() const { return const_cast<TList&>(*this); }
  // Links the nodes of `other` into this empty list and empties `other`;
  // the caller holds other's monitor.
  void takeNodes(TList& other);
  Node* nodeAt(int index) const;

  Node* head_;
  Node* sentinel_;
  mutable Node sentinelNode_;  // Find writes the sought item into it
  std::atomic<int> count_;     // read without the lock by Count
};

#endif  // QUARNEL_CONTAINERS_TLIST_H_
