// ElementSpace: a packed store of variable-size byte elements addressed by
// small positive numbers (refnums, from 1).
//
// The space is a TMemory whose whole content is one self-describing area of
// little-endian 32-bit words: an 80-byte header, a table of element offsets
// (slots) growing upward from the header, and the element records packed
// downward from the end of the area, with the free gap between the two. The
// area holds no pointers, so it can be stored and read back as it stands;
// LmValid checks an area read from elsewhere, and an area it accepts is safe
// to use with every member.
//
//   0   signature 'Lms.'         40  reserved
//   4   version 256              44  current growth unit (KiB)
//   6   compatible version 256   48  reserved (24 bytes)
//   8   reserve floor            72  count (slots in the table)
//   12  freed bytes              76  slot 0, always 0
//   16  data start               76 + 4r  slot of refnum r
//   20  end (the buffer size)
//   24  base growth unit (KiB)
//   28  flags (bit 0: required)
//   32  lock count
//   36  empty-slot count
//
// A slot holds its record's offset in bits 0-29 (0: empty), a flag in bit 30
// that every operation keeps and none sets, and the mark in bit 31. A record
// is a 32-bit size n, n bytes and zero bytes up to a multiple of 4. Removed
// and cut-off storage stays as dead records until compression, which runs
// once dead storage passes a fifth of the buffer, or on demand. Refnums stay
// stable across growth, shrinking and compression; only addresses move.
//
// Errors: -610 bad argument or refnum, -611 the space is locked, -612 the
// space is full; growth failures pass on TMemory's error. Misuse while locked
// asserts (module "elementspace") and goes on. One thread at a time; the lock
// count guards pointers from LmGet, it is not a thread lock.
#ifndef QUARNEL_CONTAINERS_ELEMENTSPACE_H_
#define QUARNEL_CONTAINERS_ELEMENTSPACE_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"

constexpr unsigned kLmSignature = 0x4C6D732E;  // 'Lms.'
constexpr int kLmHeaderSize = 80;              // header and slot 0
constexpr int kLmOffsetMask = 0x3FFFFFFF;      // a slot's offset bits

class QUARNEL_API ElementSpace : public TMemory {
 public:
  // A TMemory of priority 2, then LmNew(size, required).
  ElementSpace(int size, int required);
  ~ElementSpace();
  // Copies are byte copies of the area (it holds no pointers); a move takes
  // the storage (TMemory's move). Pointers from LmGet stay valid across a
  // move only while the area is not held inline (GetSize above 1,024 bytes).
  ElementSpace(const ElementSpace& other) = default;
  ElementSpace& operator=(const ElementSpace& other) = default;
  ElementSpace(ElementSpace&& other) noexcept = default;
  ElementSpace& operator=(ElementSpace&& other) noexcept = default;

  // Makes an empty area with room for `size` bytes (at least 1 KiB, in whole
  // KiB) and that growth unit. 0, or the sizing error after "LmNew: not
  // enough memory, %E" (517).
  int LmNew(int size, int required);

  // Appends an element of `size` bytes copied from `data` (zeros when data
  // is null). Returns its refnum (the lowest empty slot, else count + 1) or
  // an error.
  int LmAdd(const char* data, int size);
  // Sets the size of element `refnum`, creating it when needed; new bytes
  // read as zero. 0 or an error. Setting an empty slot inside the table sets
  // the count to refnum all the same and leaves the empty-slot count as it
  // was: kept as the library has it; callers fill inner slots with LmAdd.
  int LmSet(int refnum, int size);
  // A new element with a copy of refnum's bytes; its refnum or an error.
  int LmDupe(int refnum);
  // Removes an element; 0 or -610. May compress and shrink the area.
  int LmRemove(int refnum);
  // Exchanges the slot words (flags included) of two existing elements.
  int LmSwap(int a, int b);
  // The element's bytes, valid until the next call that can move data; null
  // (with a log line and an assertion) for a bad refnum.
  char* LmGet(int refnum);
  // The element's size, or -610.
  int LmSize(int refnum) const;
  // 0 when refnum names an element, else -1.
  int LmTest(int refnum) const;
  int LmCount() const;
  // Free room: the gap less one future slot and 4 bytes, rounded down to 4.
  int LmAvail() const;
  // The physical size of a record of `size` bytes; 0 for a size out of range.
  int LmPhys(int size) const;
  // Slot bytes that `n` more elements would take; 0 for n out of range.
  int LmOverhead(int n) const;
  // 1 when the live storage approaches the 1 GiB limit.
  int LmFull() const;

  // Mark and sweep: LmMark returns 1 when it set the mark, 0 when the mark
  // was set already; LmCollect removes every unmarked element.
  int LmMark(int refnum);
  int LmUnmark();
  int LmCollect();

  // The lock count: while it is above 0 the area does not move.
  int LmLock();
  int LmUnlock();

  // Reclaims all dead storage and shrinks the area to its content.
  int LmCompress();
  // Sets a reserve of free room below which the area does not shrink.
  int LmReserve(int size);
  // Makes sure that at least `size` bytes are free.
  int LmPreflight(int size);
  // 0 for a sound area, else one of twelve positive codes (not error codes),
  // each logged at 517.
  int LmValid() const;
  // Clears the lock count and the required flag, then LmValid.
  int LmRepair();
  // The growth unit in bytes and the required flag.
  int LmSetParms(int unit, int required);
  int LmGetParms(int* unit, int* required) const;
  // LmAdd, LmSet and LmDupe with the required flag set for the one call; a
  // failure asserts.
  int LmAddAssert(const char* data, int size);
  int LmSetAssert(int refnum, int size);
  int LmDupeAssert(int refnum);

  // Range-for over the elements in refnum order, empty slots skipped. Each
  // step gives the refnum, the element's bytes (as LmGet) and its size; the
  // addresses are valid until the next call that can move data. An area
  // read from elsewhere is checked with LmValid first, as for LmGet.
  template <class Byte>
  struct ElementOf {
    int refnum;
    Byte* data;
    int size;
  };
  template <class Space, class Byte>
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ElementOf<Byte>;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = ElementOf<Byte>;

    Iterator() = default;
    Iterator(Space* space, int refnum) : space_(space), refnum_(refnum) { skip(); }
    ElementOf<Byte> operator*() const {
      const int offset = space_->slot(refnum_) & kLmOffsetMask;
      return {refnum_, reinterpret_cast<Byte*>(space_->MemPtr() + offset + 4), space_->rd(offset)};
    }
    Iterator& operator++() {
      ++refnum_;
      skip();
      return *this;
    }
    Iterator operator++(int) {
      Iterator was(*this);
      ++*this;
      return was;
    }
    bool operator==(const Iterator& o) const { return refnum_ == o.refnum_; }

   private:
    void skip() {
      const int count = space_->LmCount();
      while (refnum_ <= count && space_->slot(refnum_) == 0) ++refnum_;
      if (refnum_ > count) refnum_ = count + 1;
    }
    Space* space_ = nullptr;
    int refnum_ = 1;
  };
  using iterator = Iterator<ElementSpace, char>;
  using const_iterator = Iterator<const ElementSpace, const char>;
  iterator begin() { return iterator(this, 1); }
  iterator end() { return iterator(this, LmCount() + 1); }
  const_iterator begin() const { return const_iterator(this, 1); }
  const_iterator end() const { return const_iterator(this, LmCount() + 1); }

 protected:
  int lmSizer(int want);
  int lmNeeded(int bytes);
  int lmCompress(int want);
  void lmXtoSize();
  void lmPacker();
  void lmXtoOffset();
  void lmCheck() {}
  void lmShuffle() {}

 private:
  // The area's little-endian words. Defined here so that they inline: an
  // exported member could not be.
  int rd(long long offset) const {
    std::uint32_t v;
    std::memcpy(&v, MemPtr() + offset, 4);
    if constexpr (std::endian::native == std::endian::big) v = swap32(v);
    return static_cast<int>(v);
  }
  void wr(long long offset, int value) {
    std::uint32_t v = static_cast<std::uint32_t>(value);
    if constexpr (std::endian::native == std::endian::big) v = swap32(v);
    std::memcpy(MemPtr() + offset, &v, 4);
  }
  static std::uint32_t swap32(std::uint32_t v) {
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
  }
  int slot(long long r) const { return rd(76 + 4 * r); }
  void setSlot(long long r, int word) { wr(76 + 4 * r, word); }
  // The buffer holds at least a header, and the area's start and end fit it.
  bool isArea() const {
    const unsigned size = GetSize();
    if (size < 84) return false;
    const int end = rd(20);
    const int start = rd(16);
    return end >= 0 && static_cast<unsigned>(end) <= size && start >= kLmHeaderSize && start <= end;
  }
  void dropTrailingEmpty();
  int makeRoom(int bytes);
  int addRecord(const char* data, int size);
};

#endif  // QUARNEL_CONTAINERS_ELEMENTSPACE_H_
