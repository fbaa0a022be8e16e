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
  kLocaleSDayName1 = 0x2A,          // Monday; 0x2A..0x30 Monday..Sunday
  kLocaleSAbbrevDayName1 = 0x31,    // 0x31..0x37
  kLocaleSMonthName1 = 0x38,        // 0x38..0x43
  kLocaleSAbbrevMonthName1 = 0x44,  // 0x44..0x4F
  kLocaleSDecimal = 0x0E,
  kLocaleSThousand = 0x0F,
  kLocaleSDate = 0x1D,
  kLocaleSTime = 0x1E,
  kLocaleSShortDate = 0x1F,
  kLocaleSLongDate = 0x20,
  kLocaleSTimeFormat = 0x1003,
  kLocaleIDefaultCodePage = 0x0B,  // OEM code page
  kLocaleIDefaultAnsiCodePage = 0x1004,
  kLocaleIDefaultMacCodePage = 0x1011,
};

// Modifier flags that may be or-ed into an LCTYPE.
enum : unsigned {
  kLocaleNoUserOverride = 0x80000000u,  // accepted; there are no user overrides
  kLocaleUseCpAcp = 0x40000000u,        // A form: convert through the system ANSI code page
  kLocaleReturnNumber = 0x20000000u,    // numeric items only: the value as a 32-bit number
};

enum : unsigned {
  kLcidEnUs = 0x0409,
  kLcidDeDe = 0x0407,
  kLcidFrFr = 0x040C,
  kLcidJaJp = 0x0411,
  kLcidEnGb = 0x0809
};

// The process's locale: the environment record's lcid when the host set it
// (non-zero); else the first set and non-empty of LC_ALL, LC_COLLATE and LANG:
// en_US 0x0409, en_GB 0x0809, de_DE 0x0407, fr_FR 0x040C, ja_JP 0x0411 (codeset
// and modifier ignored; '-' accepted for '_'); a bare language or another
// country of these languages takes the language's main locale (en 0x0409);
// C, POSIX, other languages and no variable at all give 0x0409. LC_CTYPE is
// not consulted: it often holds a bare codeset ("UTF-8") that names no language.
// Read on every call (no caching).
// LOCALE_USER_DEFAULT (0x0400), LOCALE_SYSTEM_DEFAULT (0x0800) and 0 name this
// locale in the calls below.
QUARNEL_API unsigned UGetDefaultLCID();

// Win32 GetLocaleInfoW / GetLocaleInfoA: the item's length with its
// terminator (units for W, bytes for A); a length of 0 asks for the size and
// writes nothing; 0 on failure, with the last error 87 (unknown locale or
// item, negative length, null buffer with a length), 122 (buffer too small:
// nothing is written) or 1004 (kLocaleReturnNumber on a text item). The A
// form gives the locale's own ANSI code page (1252; 932 for ja-JP), or the
// system's with kLocaleUseCpAcp. kLocaleReturnNumber writes the value as a
// 32-bit number: 2 units or 4 bytes, no terminator. Any thread.
QUARNEL_API int UGetLocaleInfoW(unsigned lcid, unsigned lctype, char16_t* buf, int len);
QUARNEL_API int UGetLocaleInfoA(unsigned lcid, unsigned lctype, char* buf, int len);

enum : unsigned { kNormIgnoreCase = 0x1, kSortStringSort = 0x1000 };
// Win32 CompareStringW: 1 less, 2 equal, 3 greater; 0 on failure (87 locale
// without a table or null string, 1004 unknown flag). A negative length
// counts to the terminator. Every locale sorts by the same table, Windows'
// default order (see internal/locale_collation.h for the levels and weights):
// NORM_IGNORECASE (1), NORM_IGNORENONSPACE (2), NORM_IGNORESYMBOLS (4),
// LINGUISTIC_IGNORECASE (0x10) and LINGUISTIC_IGNOREDIACRITIC (0x20) are
// honoured; NORM_IGNOREKANATYPE, NORM_IGNOREWIDTH and NORM_LINGUISTIC_CASING
// are accepted and change nothing; without SORT_STRINGSORT apostrophes and
// hyphens count only when the strings are otherwise equal. Any thread.
QUARNEL_API int UCompareStringW(unsigned lcid, unsigned flags, const char16_t* a, int lenA,
                                const char16_t* b, int lenB);

#endif  // QUARNEL_PLATFORM_LOCALE_H_
