// The date-picture formatter and reader of %D, %T and %I. The forms are
// listed in sprintf.h.
//
// Pictures use the locale picture tokens: d dd (day), ddd dddd (abbreviated
// and full day name), M MM (month), MMM MMMM (month names), y yy (year in
// the century), yyyy (year), h hh (12-hour clock), H HH (24-hour clock), m mm
// (minute), s ss (second), t tt (first letter of and full AM/PM designator),
// g gg (era: printed as nothing); text in apostrophes is literal, two
// apostrophes stand for one, and every other character is literal.
#include "quarnel/text/internal/datefmt.h"

#include <string>
#include <string_view>

#include "quarnel/datetime/internal/calendar.h"
#include "quarnel/datetime/tdate.h"
#include "quarnel/platform/locale.h"
#include "quarnel/text/token.h"
#include "quarnel/text/tstring.h"

namespace {

using quarnel_internal::DateForm;

constexpr unsigned short kLibraryList = 16000;
constexpr unsigned kNeverKey = 0x4E657672;  // 'Nevr'

// Tokens of the locale words used here.
enum : unsigned short {
  kTokDecimal = 1,
  kTokPlus = 4,
  kTokMinus = 5,
  kTokAm = 6,
  kTokPm = 7,
  kTokDayName = 8,  // Sunday .. Saturday: 8 .. 14
  kTokTimeSeparator = 24,
  kTokAbbrevDayName = 29,    // 29 .. 35
  kTokMonthName = 36,        // January .. December: 36 .. 47
  kTokAbbrevMonthName = 48,  // 48 .. 59
};

// Fixed pictures of the forms that do not come from the locale.
// The crash report's narrow formatter uses the same pictures.
#define QN_ABBREVIATED_PICTURE "ddd, dd MMM yy"
#define QN_ISO_DATE_PICTURE "yyyy-MM-dd"
#define QN_ISO_DATE_TIME_PICTURE "yyyy-MM-dd'T'HH:mm:ss"
constexpr char16_t kAbbreviatedPicture[] = u"" QN_ABBREVIATED_PICTURE;
constexpr char16_t kIsoDatePicture[] = u"" QN_ISO_DATE_PICTURE;
constexpr char16_t kIsoDateTimePicture[] = u"" QN_ISO_DATE_TIME_PICTURE;

struct Fields {
  long long year = 1;
  int month = 1;
  int day = 1;
  int dow = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

std::u16string Word(unsigned short token, unsigned lcid) {
  const TString t = TokenToString(token, lcid);
  return std::u16string(t.Text(), static_cast<std::size_t>(t.Length()));
}

std::u16string LocaleItem(unsigned lcid, unsigned lctype) {
  char16_t buf[128];
  int r = UGetLocaleInfoW(lcid, lctype, buf, 128);
  if (r <= 0) r = UGetLocaleInfoW(kLcidEnUs, lctype, buf, 128);
  return r > 0 ? std::u16string(buf, static_cast<std::size_t>(r - 1)) : std::u16string();
}

// The locale's time picture without its seconds: everything from the end of
// the minutes to the end of the seconds goes ("h:mm:ss tt" gives "h:mm tt").
std::u16string WithoutSeconds(const std::u16string& p) {
  std::size_t minutesEnd = std::u16string::npos;
  bool quoted = false;
  for (std::size_t i = 0; i < p.size(); ++i) {
    if (p[i] == u'\'') quoted = !quoted;
    if (quoted) continue;
    if (p[i] == u'm') minutesEnd = i + 1;
    if (p[i] == u's' && minutesEnd != std::u16string::npos) {
      std::size_t end = i;
      while (end < p.size() && p[end] == u's') ++end;
      return p.substr(0, minutesEnd) + p.substr(end);
    }
  }
  return p;
}

std::u16string Quoted(const std::u16string& text) {
  std::u16string q = u"'";
  for (const char16_t c : text) {
    q += c;
    if (c == u'\'') q += c;
  }
  return q + u"'";
}

// The picture of a form. T1 is built from the locale's time separator.
std::u16string PictureOf(char16_t conversion, int precision, unsigned lcid) {
  if (conversion == u'T') {
    const std::u16string locale = LocaleItem(lcid, kLocaleSTimeFormat);
    if (precision == 1) {
      const std::u16string sep = Quoted(Word(kTokTimeSeparator, lcid));
      return u"HH" + sep + u"mm" + sep + u"ss";
    }
    return precision == 2 ? WithoutSeconds(locale) : locale;
  }
  switch (precision) {
    case 1:
      return LocaleItem(lcid, kLocaleSLongDate);
    case 2:
      return kAbbreviatedPicture;
    case 3:
      return kIsoDatePicture;
    case 4:
      return kIsoDateTimePicture;
    default:
      return LocaleItem(lcid, kLocaleSShortDate);
  }
}

bool IsPictureLetter(char16_t c) {
  return c == u'd' || c == u'M' || c == u'y' || c == u'h' || c == u'H' || c == u'm' || c == u's' ||
         c == u't' || c == u'g';
}

// One element of a picture: a literal unit or a run of a picture letter.
struct Element {
  char16_t letter;  // 0 for a literal
  int count;
  char16_t literal;
};

// A unit of a picture as UTF-16 (8-bit pictures are read byte by byte).
inline char16_t Unit(char16_t c) { return c; }
inline char16_t Unit(char c) { return static_cast<unsigned char>(c); }

// Calls fn(Element) for every element of the picture (a u16string or an
// 8-bit string_view).
template <class P, class Fn>
bool ForEachElement(const P& p, Fn fn) {
  std::size_t i = 0;
  while (i < p.size()) {
    const char16_t c = Unit(p[i]);
    if (c == u'\'') {
      ++i;
      while (i < p.size()) {
        if (p[i] == '\'') {
          if (i + 1 < p.size() && p[i + 1] == '\'') {
            if (!fn(Element{0, 1, u'\''})) return false;
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        if (!fn(Element{0, 1, Unit(p[i])})) return false;
        ++i;
      }
      continue;
    }
    if (IsPictureLetter(c)) {
      std::size_t j = i;
      while (j < p.size() && Unit(p[j]) == c) ++j;
      if (!fn(Element{c, static_cast<int>(j - i), 0})) return false;
      i = j;
      continue;
    }
    if (!fn(Element{0, 1, c})) return false;
    ++i;
  }
  return true;
}

// ---- output ----------------------------------------------------------------------------------
//
// The forms are written through an output and a word source, so that the
// engine (UTF-16 text that grows, the locale's words looked up as needed) and
// the crash report (8-bit text in a fixed buffer, words prepared ahead) follow
// the same rules. An output has Put(unit) and Put(text); a word source has
// Word(token) and Picture(conversion, precision).

// The engine's output and words.
struct U16Out {
  std::u16string* s;
  void Put(char16_t c) { *s += c; }
  void Put(const std::u16string& w) { *s += w; }
};

struct LocaleWords {
  unsigned lcid;
  std::u16string Word(unsigned short token) const { return ::Word(token, lcid); }
  std::u16string Picture(char16_t conversion, int precision) const {
    return PictureOf(conversion, precision, lcid);
  }
};

// The crash report's output and words.
struct NarrowOut {
  char* p;
  int cap;
  int n = 0;
  void Put(char16_t c) {
    if (n + 1 < cap) p[n++] = static_cast<char>(c);
  }
  void Put(std::string_view w) {
    for (const char c : w) Put(Unit(c));
  }
};

struct PreparedWords {
  const quarnel_internal::NarrowDateWords& w;
  std::string_view Word(unsigned short token) const {
    return token < quarnel_internal::NarrowDateWords::kTokens ? std::string_view(w.words[token])
                                                              : std::string_view();
  }
  std::string_view Picture(char16_t conversion, int precision) const {
    if (conversion == u'T') {
      return precision == 1 ? w.time1 : precision == 2 ? w.timeNoSeconds : w.time;
    }
    switch (precision) {
      case 1:
        return w.longDate;
      case 2:
        return QN_ABBREVIATED_PICTURE;
      case 3:
        return QN_ISO_DATE_PICTURE;
      case 4:
        return QN_ISO_DATE_TIME_PICTURE;
      default:
        return w.shortDate;
    }
  }
};

template <class Out>
void Number(Out& out, long long v, int minDigits) {
  char16_t buf[24];
  int n = 0;
  const bool neg = v < 0;
  unsigned long long m =
      neg ? 0 - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
  do {
    buf[n++] = static_cast<char16_t>(u'0' + m % 10);
    m /= 10;
  } while (m != 0);
  while (n < minDigits) buf[n++] = u'0';
  if (neg) out.Put(u'-');
  while (n > 0) out.Put(buf[--n]);
}

void Number(std::u16string* out, long long v, int minDigits) {
  U16Out o{out};
  Number(o, v, minDigits);
}

template <class Out, class Words, class P>
void Render(Out& out, const P& picture, const Fields& f, bool zero, const Words& words) {
  const int pad1 = zero ? 2 : 1;
  const int month = quarnel_calendar::ClampMonth(f.month);
  ForEachElement(picture, [&](const Element& e) {
    switch (e.letter) {
      case 0:
        out.Put(e.literal);
        break;
      case u'd':
        if (e.count <= 2) {
          Number(out, f.day, e.count == 1 ? pad1 : 2);
        } else {
          out.Put(words.Word(static_cast<unsigned short>(
              (e.count == 3 ? kTokAbbrevDayName : kTokDayName) + f.dow)));
        }
        break;
      case u'M':
        if (e.count <= 2) {
          Number(out, f.month, e.count == 1 ? pad1 : 2);
        } else {
          out.Put(words.Word(static_cast<unsigned short>(
              (e.count == 3 ? kTokAbbrevMonthName : kTokMonthName) + month - 1)));
        }
        break;
      case u'y':
        if (e.count <= 2) {
          Number(out, f.year % 100, e.count == 1 ? pad1 : 2);
        } else {
          Number(out, f.year, 4);
        }
        break;
      case u'h': {
        const int h = f.hour % 12 == 0 ? 12 : f.hour % 12;
        Number(out, h, e.count == 1 ? pad1 : 2);
        break;
      }
      case u'H':
        Number(out, f.hour, e.count == 1 ? pad1 : 2);
        break;
      case u'm':
        Number(out, f.minute, e.count == 1 ? pad1 : 2);
        break;
      case u's':
        Number(out, f.second, e.count == 1 ? pad1 : 2);
        break;
      case u't': {
        const auto d = words.Word(f.hour < 12 ? kTokAm : kTokPm);
        out.Put(e.count == 1 ? d.substr(0, 1) : d);
        break;
      }
      default:  // g: the era, not shown
        break;
    }
    return true;
  });
}

Fields FieldsOf(const TDate& d) {
  Fields f;
  f.year = d.GetYear();
  f.month = d.GetMonth();
  f.day = d.GetDay();
  f.dow = quarnel_calendar::DayOfWeek(
      quarnel_calendar::DayNumber(d.GetYear(), d.GetMonth(), d.GetDay()));
  f.hour = d.GetHour();
  f.minute = d.GetMinute();
  f.second = d.GetSecond();
  f.millisecond = d.GetMillisecond();
  return f;
}

template <class Out, class Words>
void AppendOffset(Out& out, const TDate& d, const Words& words) {
  if (!(d.GetFlags() & kDateFlagAbsolute)) return;
  const int offset = d.GetGMTOffset();
  const int magnitude = offset < 0 ? -offset : offset;
  out.Put(words.Word(offset < 0 ? kTokMinus : kTokPlus));
  Number(out, magnitude / 60, 2);
  Number(out, magnitude % 60, 2);
}

template <class Out, class Words>
void WriteDate(Out& out, const TDate& d, const DateForm& form, const Words& words) {
  const Fields f = FieldsOf(d);
  const int precision = form.precision < 0 ? 0 : form.precision;
  if (form.conversion == u'T') {
    Render(out, words.Picture(u'T', precision), f, form.zero, words);
    if (precision == 1) {
      out.Put(words.Word(kTokDecimal));
      Number(out, f.millisecond, 3);
    }
    return;
  }
  Render(out, words.Picture(u'D', precision), f, form.zero, words);
  if (precision == 4) {
    out.Put(u'.');
    Number(out, f.millisecond, 3);
    AppendOffset(out, d, words);
  } else if (form.withTime) {
    out.Put(u' ');
    Render(out, words.Picture(u'T', 0), f, form.zero, words);
  }
}

std::u16string TextOf(const TDate& d, const DateForm& form, unsigned lcid) {
  std::u16string text;
  U16Out out{&text};
  WriteDate(out, d, form, LocaleWords{lcid});
  return text;
}

// ---- input -----------------------------------------------------------------------------------

char16_t Fold(char16_t c) { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c; }

bool MatchesAt(const char16_t* s, int n, int at, const std::u16string& w) {
  if (w.empty() || at + static_cast<int>(w.size()) > n) return false;
  for (std::size_t k = 0; k < w.size(); ++k) {
    if (Fold(s[at + static_cast<int>(k)]) != Fold(w[k])) return false;
  }
  return true;
}

// The longest of `count` words of tokens first.. that stands at s[at]; its
// index, or -1. *len gets its length.
int MatchWord(const char16_t* s, int n, int at, unsigned short first, int count, unsigned lcid,
              int* len) {
  int best = -1;
  int bestLen = 0;
  for (int i = 0; i < count; ++i) {
    const std::u16string w = Word(static_cast<unsigned short>(first + i), lcid);
    if (static_cast<int>(w.size()) > bestLen && MatchesAt(s, n, at, w)) {
      best = i;
      bestLen = static_cast<int>(w.size());
    }
  }
  *len = bestLen;
  return best;
}

bool ReadDigits(const char16_t* s, int n, int* at, int maxDigits, long long* v,
                int* digits = nullptr) {
  long long r = 0;
  int k = 0;
  while (*at < n && k < maxDigits && s[*at] >= u'0' && s[*at] <= u'9') {
    r = r * 10 + (s[*at] - u'0');
    ++*at, ++k;
  }
  if (k == 0) return false;
  *v = r;
  if (digits) *digits = k;
  return true;
}

struct Parsed {
  long long year = 1;
  long long month = 1;
  long long day = 1;
  long long hour = 0;
  long long minute = 0;
  long long second = 0;
  long long millisecond = 0;
  int designator = -1;  // 0 AM, 1 PM, -1 none read
  bool twelveHour = false;
};

bool Parse(const char16_t* s, int n, int* at, const std::u16string& picture, unsigned lcid,
           Parsed* p) {
  return ForEachElement(picture, [&](const Element& e) {
    long long v = 0;
    int len = 0;
    switch (e.letter) {
      case 0:
        if (*at < n && s[*at] == e.literal) {
          ++*at;
          return true;
        }
        return false;
      case u'd':
        if (e.count <= 2) return ReadDigits(s, n, at, 2, &p->day);
        if (MatchWord(s, n, *at, e.count == 3 ? kTokAbbrevDayName : kTokDayName, 7, lcid, &len) <
            0) {
          return false;
        }
        *at += len;  // the weekday follows from the date
        return true;
      case u'M': {
        if (e.count <= 2) return ReadDigits(s, n, at, 2, &p->month);
        const int m = MatchWord(s, n, *at, e.count == 3 ? kTokAbbrevMonthName : kTokMonthName, 12,
                                lcid, &len);
        if (m < 0) return false;
        p->month = m + 1;
        *at += len;
        return true;
      }
      case u'y':
        if (e.count <= 2) {
          if (!ReadDigits(s, n, at, 2, &v)) return false;
          p->year = v < 30 ? 2000 + v : 1900 + v;  // a two-digit year: 1930..2029
          return true;
        }
        return ReadDigits(s, n, at, 5, &p->year);
      case u'h':
        p->twelveHour = true;
        return ReadDigits(s, n, at, 2, &p->hour);
      case u'H':
        return ReadDigits(s, n, at, 2, &p->hour);
      case u'm':
        return ReadDigits(s, n, at, 2, &p->minute);
      case u's':
        return ReadDigits(s, n, at, 2, &p->second);
      case u't': {
        std::u16string am = Word(kTokAm, lcid);
        std::u16string pm = Word(kTokPm, lcid);
        if (e.count == 1) am = am.substr(0, 1), pm = pm.substr(0, 1);
        const bool isAm = MatchesAt(s, n, *at, am);
        const bool isPm = MatchesAt(s, n, *at, pm);
        if (!isAm && !isPm) return am.empty() && pm.empty();
        // The longer designator wins when both match (one may start the other).
        const bool pickPm = isPm && (!isAm || pm.size() > am.size());
        p->designator = pickPm ? 1 : 0;
        *at += static_cast<int>(pickPm ? pm.size() : am.size());
        return true;
      }
      default:
        return true;
    }
  });
}

bool ParseMilliseconds(const char16_t* s, int n, int* at, const std::u16string& separator,
                       Parsed* p) {
  if (!MatchesAt(s, n, *at, separator)) return false;
  *at += static_cast<int>(separator.size());
  return ReadDigits(s, n, at, 5, &p->millisecond);
}

void SkipBlanks(const char16_t* s, int n, int* at) {
  while (*at < n && (s[*at] == u' ' || s[*at] == u'\t')) ++*at;
}

bool ValidDate(const Parsed& p) {
  return p.year >= 1 && p.year <= quarnel_calendar::kLastYear && p.month >= 1 && p.month <= 12 &&
         p.day >= 1 && p.day <= 31;
}

bool ValidTime(Parsed* p) {
  if (p->twelveHour) {
    if (p->hour < 1 || p->hour > 12) return false;
    if (p->designator == 1 && p->hour < 12) p->hour += 12;
    if (p->designator == 0 && p->hour == 12) p->hour = 0;
  }
  return p->hour <= 23 && p->minute <= 59 && p->second <= 59 && p->millisecond <= 999;
}

void SetTime(TDate* d, const Parsed& p) {
  d->SetHour(static_cast<unsigned short>(p.hour));
  d->SetMinute(static_cast<unsigned short>(p.minute));
  d->SetSecond(static_cast<unsigned short>(p.second));
  d->SetMillisecond(static_cast<unsigned short>(p.millisecond));
}

// "+hhmm" or "-hhmm" (more hour digits when the offset is that large).
bool ParseOffsetAt(const char16_t* s, int n, int* at, unsigned lcid, int* minutes) {
  const std::u16string plus = Word(kTokPlus, lcid);
  const std::u16string minus = Word(kTokMinus, lcid);
  int sign = 0;
  if (MatchesAt(s, n, *at, plus)) {
    sign = 1;
    *at += static_cast<int>(plus.size());
  } else if (MatchesAt(s, n, *at, minus)) {
    sign = -1;
    *at += static_cast<int>(minus.size());
  } else {
    return false;
  }
  long long v = 0;
  int digits = 0;
  if (!ReadDigits(s, n, at, 5, &v, &digits) || digits < 4 || v % 100 > 59) return false;
  const long long magnitude = v / 100 * 60 + v % 100;
  if (magnitude > (sign > 0 ? 32767 : 32768)) return false;  // the offset is a 16-bit field
  *minutes = static_cast<int>(sign * magnitude);
  return true;
}

// An offset, or nothing read at all.
bool ParseOffset(const char16_t* s, int n, int* at, unsigned lcid, int* minutes) {
  int probe = *at;
  if (!ParseOffsetAt(s, n, &probe, lcid, minutes)) return false;
  *at = probe;
  return true;
}

}  // namespace

// ---- entry points ------------------------------------------------------------------------------

void quarnel_internal::AppendDate(TString* out, const TDate* date, const DateForm& form,
                                  unsigned lcid) {
  if (date == nullptr || date->IsDefault()) {
    out->Append(TString(kLibraryList, kNeverKey));
    return;
  }
  const std::u16string text = TextOf(*date, form, lcid);
  out->Append(text.c_str(), static_cast<short>(text.size()));
}

namespace {

void FillNarrow(char* dst, int size, const std::u16string& text) {
  const TString t(text.c_str(), static_cast<short>(text.size()));
  const short n = t.FillBufferAnsi(dst, static_cast<short>(size));
  dst[n > 0 ? (n < size ? n : size - 1) : 0] = '\0';
}

}  // namespace

void quarnel_internal::PrepareNarrowDateWords(unsigned lcid, NarrowDateWords* w) {
  for (unsigned short t = 0; t < NarrowDateWords::kTokens; ++t) {
    const bool used = t == kTokDecimal || t == kTokPlus || t == kTokMinus || t == kTokAm ||
                      t == kTokPm || (t >= kTokDayName && t < kTokDayName + 7) ||
                      t == kTokTimeSeparator || t >= kTokAbbrevDayName;
    if (used) {
      FillNarrow(w->words[t], NarrowDateWords::kWord, Word(t, lcid));
    } else {
      w->words[t][0] = '\0';
    }
  }
  FillNarrow(w->shortDate, NarrowDateWords::kPicture, PictureOf(u'D', 0, lcid));
  FillNarrow(w->longDate, NarrowDateWords::kPicture, PictureOf(u'D', 1, lcid));
  FillNarrow(w->time, NarrowDateWords::kPicture, PictureOf(u'T', 0, lcid));
  FillNarrow(w->timeNoSeconds, NarrowDateWords::kPicture, PictureOf(u'T', 2, lcid));
  FillNarrow(w->time1, NarrowDateWords::kPicture, PictureOf(u'T', 1, lcid));
}

int quarnel_internal::FormatDateNarrow(char* out, int cap, const TDate& date, const DateForm& form,
                                       const NarrowDateWords& words) {
  if (cap <= 0) return 0;
  NarrowOut o{out, cap};
  if (!date.IsDefault()) WriteDate(o, date, form, PreparedWords{words});
  out[o.n] = '\0';
  return o.n;
}

void quarnel_internal::AppendInterval(TString* out, const TInterval* iv, int precision,
                                      unsigned lcid) {
  TInterval v = iv != nullptr ? *iv : TInterval();
  v.normalize();
  long long days = v.RawDays();
  long long ms = v.RawMilliseconds();
  std::u16string text;
  if (days < 0 || (days == 0 && ms < 0)) {
    text += Word(kTokMinus, lcid);
    days = -days;
    ms = -ms;
  }
  const std::u16string sep = Word(kTokTimeSeparator, lcid);
  const long long h = ms / 3600000, m = ms / 60000 % 60, s = ms / 1000 % 60;
  switch (precision) {
    case 1:  // total hours "%d:%02d:%02d"
      Number(&text, days * 24 + h, 1);
      text += sep;
      Number(&text, m, 2);
      text += sep;
      Number(&text, s, 2);
      break;
    case 2:  // total minutes "%d:%02d"
      Number(&text, (days * 24 + h) * 60 + m, 1);
      text += sep;
      Number(&text, s, 2);
      break;
    default:  // "%~d %02d:%02d:%02d", or "%02d:%02d:%02d" without days
      if (precision == 3 || days != 0) {
        Number(&text, days, 1);
        text += u' ';
      }
      Number(&text, h, 2);
      text += sep;
      Number(&text, m, 2);
      text += sep;
      Number(&text, s, 2);
      break;
  }
  out->Append(text.c_str(), static_cast<short>(text.size()));
}

int quarnel_internal::ScanDate(const char16_t* s, int n, const DateForm& form, unsigned lcid,
                               char16_t stop, TDate* out) {
  int at = 0;
  SkipBlanks(s, n, &at);
  const TString never(kLibraryList, kNeverKey);
  const std::u16string neverWord(never.Text(), static_cast<std::size_t>(never.Length()));
  if (MatchesAt(s, n, at, neverWord)) {
    if (out != nullptr) *out = TDate();
    return at + static_cast<int>(neverWord.size());
  }
  if (neverWord.empty() && (at == n || (stop != 0 && s[at] == stop))) {
    if (out != nullptr) *out = TDate();
    return at;
  }
  const int precision = form.precision < 0 ? 0 : form.precision;
  Parsed p;
  if (form.conversion == u'T') {
    if (!Parse(s, n, &at, PictureOf(u'T', precision, lcid), lcid, &p)) return -1;
    if (precision == 1 && !ParseMilliseconds(s, n, &at, Word(kTokDecimal, lcid), &p)) return -1;
    if (!ValidTime(&p)) return -1;
    if (out != nullptr) SetTime(out, p);
    return at;
  }
  if (!Parse(s, n, &at, PictureOf(u'D', precision, lcid), lcid, &p)) return -1;
  int offset = 0;
  bool hasOffset = false;
  if (precision == 4) {
    if (!ParseMilliseconds(s, n, &at, u".", &p)) return -1;
    hasOffset = ParseOffset(s, n, &at, lcid, &offset);
  } else if (form.withTime) {
    const int before = at;
    SkipBlanks(s, n, &at);
    if (at == before) return -1;
    if (!Parse(s, n, &at, PictureOf(u'T', 0, lcid), lcid, &p)) return -1;
  }
  if (!ValidDate(p) || !ValidTime(&p)) return -1;
  if (out != nullptr) {
    TDate d(static_cast<unsigned short>(p.year), static_cast<unsigned short>(p.month),
            static_cast<unsigned short>(p.day), 0, 0, 0, 0);
    SetTime(&d, p);
    if (hasOffset) {
      d.SetGMTOffset(offset);
      d.SetFlags(kDateFlagAbsolute, 0);
    }
    *out = d;
  }
  return at;
}

int quarnel_internal::ScanInterval(const char16_t* s, int n, int precision, unsigned lcid,
                                   TInterval* out) {
  int at = 0;
  SkipBlanks(s, n, &at);
  const std::u16string minus = Word(kTokMinus, lcid);
  const std::u16string sep = Word(kTokTimeSeparator, lcid);
  int sign = 1;
  if (MatchesAt(s, n, at, minus)) {
    sign = -1;
    at += static_cast<int>(minus.size());
  }
  auto part = [&](long long* v, int maxDigits) { return ReadDigits(s, n, &at, maxDigits, v); };
  auto separator = [&]() {
    if (!MatchesAt(s, n, at, sep)) return false;
    at += static_cast<int>(sep.size());
    return true;
  };
  long long days = 0, h = 0, m = 0, sec = 0;
  if (precision == 2) {
    if (!part(&m, 12) || !separator() || !part(&sec, 2)) return -1;
    days = m / 1440;
    h = m / 60 % 24;
    m %= 60;
  } else {
    long long first = 0;
    if (!part(&first, 10)) return -1;
    if (precision == 1) {
      days = first / 24;
      h = first % 24;
    } else if (at < n && s[at] == u' ') {
      days = first;
      ++at;
      if (!part(&h, 2)) return -1;
    } else if (precision == 3) {
      return -1;
    } else {
      h = first;
    }
    if (!separator() || !part(&m, 2) || !separator() || !part(&sec, 2)) return -1;
  }
  if (h > 23 || m > 59 || sec > 59 || days > 0x7FFFFFFF) return -1;
  if (out != nullptr) {
    // Stored as read, without TInterval::Set's range assertion: a long
    // interval that was printed reads back.
    out->SetRaw(static_cast<int>(sign * days),
                static_cast<int>(sign * (((h * 60 + m) * 60 + sec) * 1000)));
  }
  return at;
}
