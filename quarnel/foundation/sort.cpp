#include "quarnel/foundation/sort.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/tmemory.h"

namespace {

// Assertion lines of module "sort".
constexpr int kLineNoCompare = 40;  // null comparison function
constexpr int kLineNoRecords = 41;  // null records with a count above 1

constexpr std::size_t kRun = 8;           // records sorted by insertion before merging
constexpr std::size_t kStackBytes = 256;  // rotations up to this many bytes go through the stack

class Sorter {
 public:
  Sorter(std::size_t size, void* context, SortCompareProc compare)
      : size_(size), context_(context), compare_(compare) {}

  unsigned char* at(unsigned char* base, std::size_t i) const { return base + i * size_; }
  const unsigned char* at(const unsigned char* base, std::size_t i) const {
    return base + i * size_;
  }
  bool less(const void* a, const void* b) const { return compare_(context_, a, b) < 0; }

  // Sorts records [first, last) by binary insertion.
  void insertionSort(unsigned char* base, std::size_t first, std::size_t last) const {
    for (std::size_t i = first + 1; i < last; ++i) {
      const std::size_t pos = upperBound(base, first, i, at(base, i));
      rotate(base, pos, i, i + 1);
    }
  }

  // Merges the sorted runs [lo, mid) and [mid, hi) of `src` into `dst`.
  void mergeInto(const unsigned char* src, unsigned char* dst, std::size_t lo, std::size_t mid,
                 std::size_t hi) const {
    std::size_t i = lo;
    std::size_t j = mid;
    std::size_t k = lo;
    if (mid < hi && mid > lo && !less(at(src, mid), at(src, mid - 1))) {
      std::memcpy(at(dst, lo), at(src, lo), (hi - lo) * size_);  // already in order
      return;
    }
    while (i < mid && j < hi) {
      if (less(at(src, j), at(src, i))) {
        std::memcpy(at(dst, k++), at(src, j++), size_);
      } else {
        std::memcpy(at(dst, k++), at(src, i++), size_);
      }
    }
    if (i < mid) std::memcpy(at(dst, k), at(src, i), (mid - i) * size_);
    if (j < hi) std::memcpy(at(dst, k), at(src, j), (hi - j) * size_);
  }

  // Merges [first, middle) and [middle, last) with no buffer: the longer run
  // is cut in half, the other at the matching place, the two middle pieces
  // swap places by a rotation and each side is merged again.
  void mergeInPlace(unsigned char* base, std::size_t first, std::size_t middle,
                    std::size_t last) const {
    while (first < middle && middle < last) {
      const std::size_t len1 = middle - first;
      const std::size_t len2 = last - middle;
      if (len1 + len2 == 2) {
        if (less(at(base, middle), at(base, first))) rotate(base, first, middle, last);
        return;
      }
      std::size_t cut1;
      std::size_t cut2;
      if (len1 > len2) {
        cut1 = first + len1 / 2;
        cut2 = lowerBound(base, middle, last, at(base, cut1));
      } else {
        cut2 = middle + len2 / 2;
        cut1 = upperBound(base, first, middle, at(base, cut2));
      }
      rotate(base, cut1, middle, cut2);
      const std::size_t newMiddle = cut1 + (cut2 - middle);
      // Recurse into the smaller side, loop on the larger one.
      if (newMiddle - first < last - newMiddle) {
        mergeInPlace(base, first, cut1, newMiddle);
        first = newMiddle;
        middle = cut2;
      } else {
        mergeInPlace(base, newMiddle, cut2, last);
        last = newMiddle;
        middle = cut1;
      }
    }
  }

 private:
  // The first record in [first, last) that sorts after *value.
  std::size_t upperBound(const unsigned char* base, std::size_t first, std::size_t last,
                         const void* value) const {
    while (first < last) {
      const std::size_t mid = first + (last - first) / 2;
      if (less(value, at(base, mid))) {
        last = mid;
      } else {
        first = mid + 1;
      }
    }
    return first;
  }

  // The first record in [first, last) that does not sort before *value.
  std::size_t lowerBound(const unsigned char* base, std::size_t first, std::size_t last,
                         const void* value) const {
    while (first < last) {
      const std::size_t mid = first + (last - first) / 2;
      if (less(at(base, mid), value)) {
        first = mid + 1;
      } else {
        last = mid;
      }
    }
    return first;
  }

  // Exchanges the blocks [first, middle) and [middle, last).
  void rotate(unsigned char* base, std::size_t first, std::size_t middle, std::size_t last) const {
    if (first == middle || middle == last) return;
    const std::size_t left = (middle - first) * size_;
    const std::size_t right = (last - middle) * size_;
    unsigned char* p = at(base, first);
    if (std::min(left, right) <= kStackBytes) {
      unsigned char held[kStackBytes];
      if (right <= left) {
        std::memcpy(held, p + left, right);
        std::memmove(p + right, p, left);
        std::memcpy(p, held, right);
      } else {
        std::memcpy(held, p, left);
        std::memmove(p, p + left, right);
        std::memcpy(p + right, held, left);
      }
      return;
    }
    // Three reversals: each record's bytes are reversed twice, so they come
    // back in order.
    std::reverse(p, p + left);
    std::reverse(p + left, p + left + right);
    std::reverse(p, p + left + right);
  }

  std::size_t size_;
  void* context_;
  SortCompareProc compare_;
};

}  // namespace

namespace {

enum class Buffering { kTry, kNone };

void sortRecords(void* records, unsigned count, unsigned size, void* context,
                 SortCompareProc compare, Buffering buffering) {
  if (compare == nullptr) {
    Debug("sort", kLineNoCompare);
    return;
  }
  if (count < 2 || size == 0) return;
  if (records == nullptr) {
    Debug("sort", kLineNoRecords);
    return;
  }
  const Sorter sorter(size, context, compare);
  auto* base = static_cast<unsigned char*>(records);
  const std::size_t n = count;
  for (std::size_t lo = 0; lo < n; lo += kRun) {
    sorter.insertionSort(base, lo, std::min(lo + kRun, n));
  }
  if (n <= kRun) return;

  const std::uint64_t bytes = static_cast<std::uint64_t>(count) * size;
  TMemory buffer(1);
  if (buffering == Buffering::kTry && bytes <= UINT_MAX &&
      buffer.SetSize(static_cast<unsigned>(bytes)) == 0 && buffer.GetSize() == bytes) {
    const unsigned char* src = base;
    unsigned char* dst = buffer.MemPtr();
    unsigned char* other = base;
    for (std::size_t width = kRun; width < n; width *= 2) {
      for (std::size_t lo = 0; lo < n; lo += 2 * width) {
        const std::size_t mid = std::min(lo + width, n);
        const std::size_t hi = std::min(lo + 2 * width, n);
        sorter.mergeInto(src, dst, lo, mid, hi);
      }
      src = dst;
      std::swap(dst, other);
    }
    if (src != base) std::memcpy(base, src, static_cast<std::size_t>(bytes));
    return;
  }
  for (std::size_t width = kRun; width < n; width *= 2) {
    for (std::size_t lo = 0; lo + width < n; lo += 2 * width) {
      sorter.mergeInPlace(base, lo, lo + width, std::min(lo + 2 * width, n));
    }
  }
}

}  // namespace

void Sort(void* records, unsigned count, unsigned size, void* context, SortCompareProc compare) {
  sortRecords(records, count, size, context, compare, Buffering::kTry);
}

void quarnel_internal::SortInPlace(void* records, unsigned count, unsigned size, void* context,
                                   SortCompareProc compare) {
  sortRecords(records, count, size, context, compare, Buffering::kNone);
}
