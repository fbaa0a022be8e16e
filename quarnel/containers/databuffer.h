// Data buffers: growable arrays kept in a TMemory.
//
// TDataBuffer holds records of one fixed size chosen at construction;
// TDateBuffer holds dates; TUint8Buffer, TSint16Buffer, TSint32Buffer,
// TUint32Buffer and TUint64Buffer hold integers of one type each. Every
// buffer is a TMemory: the element count is always the memory's size divided
// by the element size, there is no count field, and every address handed
// out is valid until the buffer next changes size. None of them locks.
//
// Growth is not reported: a growth the memory refuses leaves the old size,
// and the member then writes nothing beyond the old end (Append and Insert
// return null, Add stores nothing). Indexes are checked where the member
// says so; an index out of range asserts (module "databuffer") and never
// reads or writes outside the buffer: a store goes to a scratch element
// whose contents are lost, a reference refers to it.
#ifndef QUARNEL_CONTAINERS_DATABUFFER_H_
#define QUARNEL_CONTAINERS_DATABUFFER_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"

class TString;

// Records of `elementSize` bytes.
class QUARNEL_API TDataBuffer : public TMemory {
 public:
  // An element size of 0 asserts; such a buffer holds no element and every
  // growth is refused.
  explicit TDataBuffer(unsigned elementSize);

  unsigned ElementSize() const { return elementSize_; }
  // GetSize / element size.
  unsigned Count() const { return elementSize_ != 0 ? GetSize() / elementSize_ : 0; }
  // SetSize(n × element size, -1): 0, or -625 (also when the product passes
  // 32 bits, which asserts and changes nothing).
  int SetCount(unsigned n);

  // Address of element i, not checked against the count.
  void* PointAt(unsigned i) const;
  // Address of element i; null when i >= Count.
  void* GetAt(unsigned i) const;
  void* Enum(unsigned i) const { return GetAt(i); }

  // Grows by n elements and copies n elements from `data` to the old end
  // (null data leaves them zero). Returns the address of the first new
  // element, or null when the growth was refused. `data` may point into this
  // buffer.
  void* Append(const void* data, unsigned n);
  // Grows by n elements, moves elements at..Count-1 up by n and copies the n
  // new ones to position `at` (zero when data is null). Returns their
  // address. `at` above Count asserts and inserts nothing (null); a refused
  // growth inserts nothing (null).
  void* Insert(const void* data, unsigned n, unsigned at);

  // Range-for over the elements' addresses, one element size apart; valid
  // until the buffer next changes size.
  template <class Address>
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Address;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Address;

    Iterator() = default;
    Iterator(Address at, unsigned step) : at_(at), step_(step) {}
    Address operator*() const { return at_; }
    Iterator& operator++() {
      at_ = static_cast<Address>(static_cast<Byte*>(at_) + step_);
      return *this;
    }
    Iterator operator++(int) {
      Iterator was(*this);
      ++*this;
      return was;
    }
    bool operator==(const Iterator& o) const { return at_ == o.at_; }

   private:
    using Byte = std::conditional_t<std::is_const_v<std::remove_pointer_t<Address>>,
                                    const unsigned char, unsigned char>;
    Address at_ = nullptr;
    unsigned step_ = 0;
  };
  using iterator = Iterator<void*>;
  using const_iterator = Iterator<const void*>;
  iterator begin() { return {MemPtr(), elementSize_}; }
  iterator end() {
    return {MemPtr() + static_cast<std::size_t>(Count()) * elementSize_, elementSize_};
  }
  const_iterator begin() const { return {MemPtr(), elementSize_}; }
  const_iterator end() const {
    return {MemPtr() + static_cast<std::size_t>(Count()) * elementSize_, elementSize_};
  }

 protected:
  // Whether n more elements keep the size within 32 bits (asserts when
  // not); false too with element size 0.
  bool fits(unsigned n) const;
  // Grows by n elements; false (nothing changed) when refused.
  bool grow(unsigned n);

  unsigned elementSize_;
};

// Dates: a TDataBuffer of 16-byte elements, each a TDate.
class QUARNEL_API TDateBuffer : public TDataBuffer {
 public:
  static constexpr unsigned kDateSize = sizeof(TDate);
  static_assert(kDateSize == 16);

  TDateBuffer() : TDataBuffer(kDateSize) {}
  // Asserts only when i is not below the size in bytes (a deliberately loose
  // test), then returns GetAt(i): the date's address, or null beyond Count.
  TDate* operator[](unsigned i) const;

  // Range-for over the dates; valid until the buffer next changes size.
  TDate* begin() { return reinterpret_cast<TDate*>(MemPtr()); }
  TDate* end() { return begin() + Count(); }
  const TDate* begin() const { return reinterpret_cast<const TDate*>(MemPtr()); }
  const TDate* end() const { return begin() + Count(); }
};

// The pattern the integer buffers share. Not used on its own.
template <class T>
class QUARNEL_API TIntegerBuffer : public TMemory {
 public:
  using Element = T;

  // Element i; i >= count asserts and gives a reference to a scratch element
  // (reading 0; what is written to it is lost).
  T& operator[](unsigned i);
  // Stores value at i; i >= count asserts and the value is lost.
  void SetAt(unsigned i, T value);

  // Range-for over the elements; valid until the buffer next changes size.
  T* begin() { return elements(); }
  T* end() { return elements() + count(); }
  const T* begin() const { return elements(); }
  const T* end() const { return elements() + count(); }

 protected:
  unsigned count() const { return GetSize() / sizeof(T); }
  T* elements() { return reinterpret_cast<T*>(MemPtr()); }
  const T* elements() const { return reinterpret_cast<const T*>(MemPtr()); }
  // Grows by one element (SetSize(size + element size, -1)) and stores value
  // at the old count; a refused growth stores nothing.
  void add(T value);
};

extern template class TIntegerBuffer<std::uint8_t>;
extern template class TIntegerBuffer<std::int16_t>;
extern template class TIntegerBuffer<std::int32_t>;
extern template class TIntegerBuffer<std::uint32_t>;
extern template class TIntegerBuffer<std::uint64_t>;

class QUARNEL_API TUint8Buffer : public TIntegerBuffer<std::uint8_t> {
 public:
  void Add(std::uint8_t value) { add(value); }
  unsigned Count() const { return count(); }
  // Address of element i, unchecked.
  std::uint8_t* PointAt(unsigned i) const;
  // Address of element i; null when i >= Count.
  std::uint8_t* GetAt(unsigned i) const;
};

// 16-bit units: no Add and no Count of its own.
class QUARNEL_API TSint16Buffer : public TIntegerBuffer<std::int16_t> {
 public:
  // Copies n elements from `data` to positions at.. without growing. Beyond
  // the end (at + n above the count) asserts and copies nothing.
  void Load(const void* data, unsigned n, unsigned at);
  // Grows by `bytes` bytes (a byte count, not an element count) and copies
  // them from `data` to the old end; null data leaves them zero. A refused
  // growth copies nothing.
  void Append(const void* data, unsigned bytes);
  // Appends the string's UTF-16 units (Length × 2 bytes). Null appends
  // nothing.
  void Append(const TString* text);
};

class QUARNEL_API TSint32Buffer : public TIntegerBuffer<std::int32_t> {
 public:
  void Add(std::int32_t value) { add(value); }
  unsigned Count() const { return count(); }
};

class QUARNEL_API TUint32Buffer : public TIntegerBuffer<std::uint32_t> {
 public:
  void Add(std::uint32_t value) { add(value); }
  unsigned Count() const { return count(); }
};

class QUARNEL_API TUint64Buffer : public TIntegerBuffer<std::uint64_t> {
 public:
  void Add(std::uint64_t value) { add(value); }
  unsigned Count() const { return count(); }
  // Moves n elements from position `from` to position `to`; the ranges may
  // overlap. Asserts when from >= n or n >= Count: this test compares from
  // with n, as it always has, and the move is made all the same. A move
  // reaching beyond the count asserts again and moves nothing.
  void Move(unsigned from, unsigned to, unsigned n);
};

#endif  // QUARNEL_CONTAINERS_DATABUFFER_H_
