#include "quarnel/text/token.h"

#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/locale.h"

namespace {

enum class Source : unsigned char { kNone, kLocale, kList, kFixed };

struct Token {
  Source source;
  unsigned value;  // the LCTYPE, the list key, or the fixed character
};

constexpr unsigned short kTokenList = 16005;
constexpr int kLineUndefined = 352;

constexpr Token Locale(unsigned lctype) { return {Source::kLocale, lctype}; }
constexpr Token List(unsigned key) { return {Source::kList, key}; }
constexpr Token Fixed(char16_t ch) { return {Source::kFixed, ch}; }
constexpr Token None() { return {Source::kNone, 0}; }

// Four-character key, first character in the most significant byte.
constexpr unsigned Key(const char (&k)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(k[3]));
}
static_assert(Key("Elps") == 0x456C7073);

// Both day-name runs start on Sunday, which the platform numbers seventh.
constexpr Token kTokens[] = {
    List(Key("Elps")),                      // 0 ellipsis
    Locale(kLocaleSDecimal),                // 1
    Locale(kLocaleSThousand),               // 2
    None(),                                 // 3
    Fixed(u'+'),                            // 4
    Fixed(u'-'),                            // 5
    Locale(kLocaleS1159),                   // 6 AM
    Locale(kLocaleS2359),                   // 7 PM
    Locale(kLocaleSDayName1 + 6),           // 8 Sunday
    Locale(kLocaleSDayName1 + 0),           // 9 Monday
    Locale(kLocaleSDayName1 + 1),           // 10
    Locale(kLocaleSDayName1 + 2),           // 11
    Locale(kLocaleSDayName1 + 3),           // 12
    Locale(kLocaleSDayName1 + 4),           // 13
    Locale(kLocaleSDayName1 + 5),           // 14 Saturday
    List(Key("Tmrw")),                      // 15 tomorrow
    List(Key("Tody")),                      // 16 today
    List(Key("PCPa")),                      // 17
    List(Key("McPa")),                      // 18
    List(Key("PCcd")),                      // 19
    List(Key("Mccd")),                      // 20
    List(Key("PCpp")),                      // 21
    List(Key("Mcpp")),                      // 22
    Locale(kLocaleSDate),                   // 23
    Locale(kLocaleSTime),                   // 24
    Locale(kLocaleIDate),                   // 25
    Locale(kLocaleILDate),                  // 26
    Locale(kLocaleIMonLZero),               // 27
    Locale(kLocaleIDayLZero),               // 28
    Locale(kLocaleSAbbrevDayName1 + 6),     // 29 Sun
    Locale(kLocaleSAbbrevDayName1 + 0),     // 30 Mon
    Locale(kLocaleSAbbrevDayName1 + 1),     // 31
    Locale(kLocaleSAbbrevDayName1 + 2),     // 32
    Locale(kLocaleSAbbrevDayName1 + 3),     // 33
    Locale(kLocaleSAbbrevDayName1 + 4),     // 34
    Locale(kLocaleSAbbrevDayName1 + 5),     // 35 Sat
    Locale(kLocaleSMonthName1 + 0),         // 36 January
    Locale(kLocaleSMonthName1 + 1),         // 37
    Locale(kLocaleSMonthName1 + 2),         // 38
    Locale(kLocaleSMonthName1 + 3),         // 39
    Locale(kLocaleSMonthName1 + 4),         // 40
    Locale(kLocaleSMonthName1 + 5),         // 41
    Locale(kLocaleSMonthName1 + 6),         // 42
    Locale(kLocaleSMonthName1 + 7),         // 43
    Locale(kLocaleSMonthName1 + 8),         // 44
    Locale(kLocaleSMonthName1 + 9),         // 45
    Locale(kLocaleSMonthName1 + 10),        // 46
    Locale(kLocaleSMonthName1 + 11),        // 47 December
    Locale(kLocaleSAbbrevMonthName1 + 0),   // 48 Jan
    Locale(kLocaleSAbbrevMonthName1 + 1),   // 49
    Locale(kLocaleSAbbrevMonthName1 + 2),   // 50
    Locale(kLocaleSAbbrevMonthName1 + 3),   // 51
    Locale(kLocaleSAbbrevMonthName1 + 4),   // 52
    Locale(kLocaleSAbbrevMonthName1 + 5),   // 53
    Locale(kLocaleSAbbrevMonthName1 + 6),   // 54
    Locale(kLocaleSAbbrevMonthName1 + 7),   // 55
    Locale(kLocaleSAbbrevMonthName1 + 8),   // 56
    Locale(kLocaleSAbbrevMonthName1 + 9),   // 57
    Locale(kLocaleSAbbrevMonthName1 + 10),  // 58
    Locale(kLocaleSAbbrevMonthName1 + 11),  // 59 Dec
    Locale(kLocaleITLZero),                 // 60
    Locale(kLocaleITime),                   // 61
    Fixed(u'0'),                            // 62
    None(),
    None(),
    None(),
    None(),
    None(),
    None(),
    None(),             // 63 to 69
    List(Key("UxPa")),  // 70
    List(Key("Uxcd")),  // 71
    List(Key("Uxpp")),  // 72
};
static_assert(sizeof kTokens / sizeof kTokens[0] == 73);

}  // namespace

// Locale items are asked for with LOCALE_USE_CP_ACP, so that the bytes are in
// the system ANSI code page that AssignAnsi(..., 0) reads. Where that page is
// the locale's own (1252 for the European locales on a 1252 system) the bytes
// are those of a plain GetLocaleInfoA; on a UTF-8 system it keeps "März" and
// the Japanese names intact instead of reading 1252 or Shift-JIS bytes as UTF-8.
TString TokenToString(unsigned short token, unsigned locale) {
  TString result;
  const Token t = token < sizeof kTokens / sizeof kTokens[0] ? kTokens[token] : None();
  switch (t.source) {
    case Source::kNone:
      Debug("token", kLineUndefined);
      break;
    case Source::kLocale: {
      char buf[64];
      if (UGetLocaleInfoA(locale, t.value | kLocaleUseCpAcp, buf, static_cast<int>(sizeof buf)) >
          0) {
        result.AssignAnsi(buf, -1, 0);
      }
      break;
    }
    case Source::kList:
      result.LoadKString(kTokenList, t.value);
      break;
    case Source::kFixed: {
      const char16_t ch = static_cast<char16_t>(t.value);
      result.Assign(&ch, 1);
      break;
    }
  }
  return result;
}
