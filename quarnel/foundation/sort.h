// Sort: the library's sort of fixed-size records.
//
// Sorts `count` records of `size` bytes each, in place, by a comparison
// function of the caller's that also receives the caller's `context`. The
// sort is stable: records that compare equal keep their order. It takes a
// temporary buffer of count × size bytes (a TMemory) and sorts by merging in
// O(n log n); when that buffer cannot be had it merges in place instead, in
// O(n log² n) with no extra memory. The comparison may be called with
// pointers into that buffer as well as into the caller's records.
//
// Misuse asserts (module "sort") and sorts nothing: a null comparison, or
// null records with a count above 1.
#ifndef QUARNEL_FOUNDATION_SORT_H_
#define QUARNEL_FOUNDATION_SORT_H_

#include "quarnel/foundation/export.h"

// Negative when *a sorts before *b, 0 when they are equal, positive after.
using SortCompareProc = int (*)(void* context, const void* a, const void* b);

QUARNEL_API void Sort(void* records, unsigned count, unsigned size, void* context,
                      SortCompareProc compare);

namespace quarnel_internal {

// Sort as it runs when no buffer can be had: merging in place.
void SortInPlace(void* records, unsigned count, unsigned size, void* context,
                 SortCompareProc compare);

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_SORT_H_
