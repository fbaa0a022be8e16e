// Locales, with Win32 meaning (GetLocaleInfo, CompareString, the default
// LCID). The items come from built-in tables for en-US (0x0409), de-DE
// (0x0407), fr-FR (0x040C), ja-JP (0x0411) and en-GB (0x0809), with Windows'
// values, so that output does not depend on the glibc locales a machine has.
#ifndef QUARNEL_PLATFORM_LOCALE_H_
#define QUARNEL_PLATFORM_LOCALE_H_

#include "quarnel/foundation/export.h"

// LCTYPE values (the LOCALE_ constants of Win32).
enum : unsigned {
  kLocaleIDate = 0x21,
  kLocaleILDate = 0x22,
  kLocaleITime = 0x23,
  kLocaleITLZero = 0x25,
  kLocaleIDayLZero = 0x26,
  kLocaleIMonLZero = 0x27,
  kLocaleS1159 = 0x28,
  kLocaleS2359 = 0x29,
  kLocaleSDayName1 = 0x2A,         // Monday; 0x2A..0x30 Monday..Sunday
  kLocaleSAbbrevDayName1 = 0x31,   // 0x31..0x37
  kLocaleSMonthName1 = 0x38,       // 0x38..0x43
  kLocaleSAbbrevMonthName1 = 0x44, // 0x44..0x4F
  kLocaleSDecimal = 0x0E,
  kLocaleSThousand = 0x0F,
  kLocaleSDate = 0x1D,
  kLocaleSTime = 0x1E,
  kLocaleSShortDate = 0x1F,
  kLocaleSLongDate = 0x20,
  kLocaleSTimeFormat = 0x1003,
};

enum : unsigned { kLcidEnUs = 0x0409, kLcidDeDe = 0x0407, kLcidFrFr = 0x040C, kLcidJaJp = 0x0411, kLcidEnGb = 0x0809 };

// The process's locale: from LC_ALL, else LC_COLLATE... else LANG; the C and
// POSIX locales and unknown names are 0x0409. The environment record may set it.
QUARNEL_API unsigned UGetDefaultLCID();

// Win32 GetLocaleInfoW / GetLocaleInfoA: the item's length with its
// terminator; a length of 0 asks for the size; 0 on failure (87 unknown
// locale or item, 122 buffer too small). The A form converts through the
// locale's ANSI code page.
QUARNEL_API int UGetLocaleInfoW(unsigned lcid, unsigned lctype, char16_t* buf, int len);
QUARNEL_API int UGetLocaleInfoA(unsigned lcid, unsigned lctype, char* buf, int len);

enum : unsigned { kNormIgnoreCase = 0x1, kSortStringSort = 0x1000 };
// Win32 CompareStringW: 1 less, 2 equal, 3 greater; 0 on failure. Lengths of
// -1 count to the terminator.
QUARNEL_API int UCompareStringW(unsigned lcid, unsigned flags, const char16_t* a, int lenA,
                                const char16_t* b, int lenB);

#endif  // QUARNEL_PLATFORM_LOCALE_H_
