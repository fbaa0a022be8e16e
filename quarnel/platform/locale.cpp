#include "quarnel/platform/locale.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "quarnel/platform/codepage.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/locale_collation.h"
#include "quarnel/platform/internal/locale_tables.h"
#include "quarnel/platform/lasterror.h"

using quarnel_internal::LocaleItem;
using quarnel_internal::LocaleTable;

namespace {

// Windows error numbers set by the calls of this file.
enum : unsigned {
  kErrInvalidParameter = 87,
  kErrInsufficientBuffer = 122,
  kErrInvalidFlags = 1004,
};

enum : unsigned {
  kLocaleUserDefault = 0x0400,
  kLocaleSystemDefault = 0x0800,
  kLocaleModifiers = kLocaleNoUserOverride | kLocaleUseCpAcp | kLocaleReturnNumber,
};

// CompareString flags this collation honours; the width and kana flags are
// accepted and change nothing (units beyond Latin sort by code point).
enum : unsigned {
  kNormIgnoreNonSpace = 0x2,
  kNormIgnoreSymbols = 0x4,
  kLinguisticIgnoreCase = 0x10,
  kLinguisticIgnoreDiacritic = 0x20,
  kNormIgnoreKanaType = 0x10000,
  kNormIgnoreWidth = 0x20000,
  kNormLinguisticCasing = 0x08000000,
  kCompareFlags = kNormIgnoreCase | kNormIgnoreNonSpace | kNormIgnoreSymbols |
                  kLinguisticIgnoreCase | kLinguisticIgnoreDiacritic | kNormIgnoreKanaType |
                  kNormIgnoreWidth | kNormLinguisticCasing | kSortStringSort,
};

bool IsDefaultLcid(unsigned lcid) {
  return lcid == 0 || lcid == kLocaleUserDefault || lcid == kLocaleSystemDefault;
}

const LocaleTable* TableFor(unsigned lcid) {
  if (IsDefaultLcid(lcid)) lcid = UGetDefaultLCID();
  return quarnel_internal::FindLocaleTable(lcid);
}

// The items whose value is a number (LOCALE_RETURN_NUMBER may ask for them).
bool IsNumericItem(unsigned lctype) {
  switch (lctype) {
    case kLocaleIDate:
    case kLocaleILDate:
    case kLocaleITime:
    case kLocaleITLZero:
    case kLocaleIDayLZero:
    case kLocaleIMonLZero:
    case kLocaleIDefaultCodePage:
    case kLocaleIDefaultAnsiCodePage:
    case kLocaleIDefaultMacCodePage:
      return true;
    default:
      return false;
  }
}

// Finds the item, or sets the last error and returns null.
const LocaleItem* FindItem(unsigned lcid, unsigned lctype, const LocaleTable** table) {
  *table = TableFor(lcid);
  const int slot = quarnel_internal::LocaleItemSlot(lctype & ~kLocaleModifiers);
  if (*table == nullptr || slot < 0) {
    USetLastError(kErrInvalidParameter);
    return nullptr;
  }
  if ((lctype & kLocaleReturnNumber) && !IsNumericItem(lctype & ~kLocaleModifiers)) {
    USetLastError(kErrInvalidFlags);
    return nullptr;
  }
  return &(*table)->items[slot];
}

// Copies `count` elements (terminator included) of `src` by Win32 rules: a
// size query with len 0, 122 when the buffer is too small.
template <class T>
int CopyOut(const T* src, int count, T* buf, int len) {
  if (len == 0) return count;
  if (len < count) {
    USetLastError(kErrInsufficientBuffer);
    return 0;
  }
  std::memcpy(buf, src, static_cast<std::size_t>(count) * sizeof(T));
  return count;
}

unsigned NumberOf(const char16_t* text) {
  unsigned n = 0;
  for (; *text >= u'0' && *text <= u'9'; ++text) n = n * 10 + (*text - u'0');
  return n;
}

bool IsAscii(const char* text) {
  for (; *text != 0; ++text) {
    if (static_cast<unsigned char>(*text) >= 0x80) return false;
  }
  return true;
}

// The LCID of a POSIX locale name ("de_DE.UTF-8@euro", "fr", "en-GB"), or
// 0x0409 for C, POSIX and names of languages without a table. A country
// without a table of its own takes the main country of its language.
unsigned LcidFromLocaleName(const char* name) {
  struct Known {
    const char* language;
    const char* country;  // the first row of a language is its main country
    unsigned lcid;
  };
  static constexpr Known kKnown[] = {
      {"en", "US", kLcidEnUs}, {"en", "GB", kLcidEnGb}, {"de", "DE", kLcidDeDe},
      {"fr", "FR", kLcidFrFr}, {"ja", "JP", kLcidJaJp},
  };
  auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  char language[4] = {};
  char country[4] = {};
  int i = 0;
  for (; i < 3 && isLetter(name[i]); ++i) language[i] = static_cast<char>(name[i] | 0x20);
  if (name[i] == '_' || name[i] == '-') {
    const char* c = name + i + 1;
    for (int j = 0; j < 3 && isLetter(c[j]); ++j) country[j] = static_cast<char>(c[j] & ~0x20);
  }
  unsigned byLanguage = 0;
  for (const Known& k : kKnown) {
    if (std::strcmp(k.language, language) != 0) continue;
    if (std::strcmp(k.country, country) == 0) return k.lcid;
    if (byLanguage == 0) byLanguage = k.lcid;
  }
  return byLanguage != 0 ? byLanguage : kLcidEnUs;
}

}  // namespace

// The order follows POSIX for the collation category: LC_ALL, then
// LC_COLLATE, then LANG; the first one set and not empty decides. The LCID
// names the formats as well, but one LCID serves both and collation is what
// TString's comparisons see on every call.
unsigned UGetDefaultLCID() {
  if (const QuarnelEnvType* env = QuarnelEnv(); env != nullptr && env->lcid != 0) return env->lcid;
  for (const char* var : {"LC_ALL", "LC_COLLATE", "LANG"}) {
    const char* value = std::getenv(var);
    if (value != nullptr && value[0] != 0) return LcidFromLocaleName(value);
  }
  return kLcidEnUs;
}

namespace {

// The item a GetLocaleInfo call asks for, after checking its buffer
// arguments; null (with the last error set) when the call must fail.
const LocaleItem* CheckedItem(unsigned lcid, unsigned lctype, const void* buf, int len,
                              const LocaleTable** table) {
  if (len < 0 || (len > 0 && buf == nullptr)) {
    USetLastError(kErrInvalidParameter);
    return nullptr;
  }
  return FindItem(lcid, lctype, table);
}

}  // namespace

int UGetLocaleInfoW(unsigned lcid, unsigned lctype, char16_t* buf, int len) {
  const LocaleTable* table;
  const LocaleItem* item = CheckedItem(lcid, lctype, buf, len, &table);
  if (item == nullptr) return 0;
  if (lctype & kLocaleReturnNumber) {
    const unsigned n = NumberOf(item->wide);
    char16_t units[2];
    std::memcpy(units, &n, sizeof n);
    // Two units hold the number; there is no terminator.
    if (len == 0) return 2;
    if (len < 2) {
      USetLastError(kErrInsufficientBuffer);
      return 0;
    }
    std::memcpy(buf, units, sizeof units);
    return 2;
  }
  int count = 0;
  while (item->wide[count] != 0) ++count;
  return CopyOut(item->wide, count + 1, buf, len);
}

int UGetLocaleInfoA(unsigned lcid, unsigned lctype, char* buf, int len) {
  const LocaleTable* table;
  const LocaleItem* item = CheckedItem(lcid, lctype, buf, len, &table);
  if (item == nullptr) return 0;
  if (lctype & kLocaleReturnNumber) {
    const unsigned n = NumberOf(item->wide);
    return CopyOut(reinterpret_cast<const char*>(&n), static_cast<int>(sizeof n), buf, len);
  }
  const char* text = item->ansi;
  char converted[64];
  if ((lctype & kLocaleUseCpAcp) && !IsAscii(text)) {
    const unsigned acp = UGetACP();
    if (acp != table->ansiCodePage) {
      const int n = UWideCharToMultiByte(acp, 0, item->wide, -1, converted,
                                         static_cast<int>(sizeof converted), nullptr, nullptr);
      if (n <= 0) return 0;  // the conversion set the last error
      text = converted;
    }
  }
  return CopyOut(text, static_cast<int>(std::strlen(text)) + 1, buf, len);
}

int UCompareStringW(unsigned lcid, unsigned flags, const char16_t* a, int lenA, const char16_t* b,
                    int lenB) {
  // Every locale of the tables sorts by the same default table, so the
  // default LCIDs need no resolving here.
  if ((!IsDefaultLcid(lcid) && quarnel_internal::FindLocaleTable(lcid) == nullptr) ||
      a == nullptr || b == nullptr) {
    USetLastError(kErrInvalidParameter);
    return 0;
  }
  if (flags & ~kCompareFlags) {
    USetLastError(kErrInvalidFlags);
    return 0;
  }
  if (lenA < 0) lenA = static_cast<int>(std::char_traits<char16_t>::length(a));
  if (lenB < 0) lenB = static_cast<int>(std::char_traits<char16_t>::length(b));
  unsigned collate =
      flags & (quarnel_internal::kCollateIgnoreCase | quarnel_internal::kCollateIgnoreNonSpace |
               quarnel_internal::kCollateIgnoreSymbols | quarnel_internal::kCollateStringSort);
  if (flags & kLinguisticIgnoreCase) collate |= quarnel_internal::kCollateIgnoreCase;
  if (flags & kLinguisticIgnoreDiacritic) collate |= quarnel_internal::kCollateIgnoreNonSpace;
  return quarnel_internal::CollateCompare(a, lenA, b, lenB, collate) + 2;
}
