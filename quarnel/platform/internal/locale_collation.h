// The library's collation: Windows' sort order for the default table, as
// CompareStringW applies it. Internal to the platform layer.
#ifndef QUARNEL_PLATFORM_INTERNAL_LOCALE_COLLATION_H_
#define QUARNEL_PLATFORM_INTERNAL_LOCALE_COLLATION_H_

namespace quarnel_internal {

// Collation flags understood by CollateCompare (the Win32 values).
enum : unsigned {
  kCollateIgnoreCase = 0x1,      // NORM_IGNORECASE
  kCollateIgnoreNonSpace = 0x2,  // NORM_IGNORENONSPACE: accents do not count
  kCollateIgnoreSymbols = 0x4,   // NORM_IGNORESYMBOLS: punctuation does not count
  kCollateStringSort = 0x1000,   // SORT_STRINGSORT: ' and - sort as punctuation
};

// Compares a[0..lenA) with b[0..lenB) (explicit lengths, pointers non-null):
// -1, 0 or 1. The order, level by level, the first difference deciding:
//  1. the base weights: ignorable units (C0 and C1 controls except tab, LF,
//     VT, FF and CR; DEL; the soft hyphen) have none; then punctuation and
//     symbols, digits, letters, and last every other unit by its code point.
//     A string that ends first sorts first.
//  2. accents, unaccented first (skipped with kCollateIgnoreNonSpace);
//  3. case, lower case first (skipped with kCollateIgnoreCase);
//  4. without kCollateStringSort only: the apostrophes and hyphens, which
//     word sort leaves out of levels 1 to 3, by position and kind.
// Comparing by these levels is a total preorder: consistent and transitive.
int CollateCompare(const char16_t* a, int lenA, const char16_t* b, int lenB, unsigned flags);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_LOCALE_COLLATION_H_
