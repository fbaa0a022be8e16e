// The formatting engine. The contract (conversions, flags, templates and
// scanning) is in sprintf.h.
#include "quarnel/text/sprintf.h"

#include <cstdint>
#include <cstring>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/internal/datefmt.h"
#include "quarnel/text/token.h"
#include "quarnel/text/tstring.h"

namespace {

// Assertion lines of this module.
enum : int {
  kLineNoUnitLetters = 591,  // list 16000 has no entry 'KMkm'
};

constexpr unsigned FourCC(const char (&s)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(s[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(s[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(s[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(s[3]));
}

constexpr unsigned short kLibraryList = 16000;
constexpr int kMaxTemplateDepth = 32;
constexpr int kMaxOut = TString::kMaxLength;

// ---- locale words ------------------------------------------------------------

struct Word {
  char16_t u[8];
  int n;
};

struct LocaleWords {
  unsigned lcid;
  bool ready;
  Word decimal;   // token 1
  Word thousand;  // token 2
  Word plus;      // token 4
  Word minus;     // token 5
  Word time;      // token 24
};

void LoadWord(Word* w, unsigned short token, unsigned lcid) {
  const TString t = TokenToString(token, lcid);
  int n = t.Length();
  if (n > 8) n = 8;
  std::memcpy(w->u, t.Text(), static_cast<std::size_t>(n) * 2);
  w->n = n;
}

// The words of the locale, loaded once per thread and locale: the locale
// items behind these tokens are fixed tables, so the cache cannot go stale.
const LocaleWords& WordsFor(unsigned lcid) {
  thread_local LocaleWords words{};
  if (!words.ready || words.lcid != lcid) {
    LocaleWords fresh{};
    LoadWord(&fresh.decimal, 1, lcid);
    LoadWord(&fresh.thousand, 2, lcid);
    LoadWord(&fresh.plus, 4, lcid);
    LoadWord(&fresh.minus, 5, lcid);
    LoadWord(&fresh.time, 24, lcid);
    fresh.lcid = lcid;
    fresh.ready = true;
    words = fresh;
  }
  return words;
}

// ---- output ----------------------------------------------------------------------

class Out {
 public:
  void Put(char16_t c) {
    if (n_ < kMaxOut) buf_[n_++] = c;
  }
  void Put(const char16_t* s, int n) {
    if (n > kMaxOut - n_) n = kMaxOut - n_;
    if (n <= 0) return;
    std::memcpy(buf_ + n_, s, static_cast<std::size_t>(n) * 2);
    n_ += n;
  }
  void Put(const Word& w) { Put(w.u, w.n); }
  void Fill(char16_t c, int count) {
    if (count > kMaxOut - n_) count = kMaxOut - n_;
    while (count-- > 0) buf_[n_++] = c;
  }
  // Widens 8-bit text known to be ASCII.
  void PutAscii(const char* s, int n) {
    if (n > kMaxOut - n_) n = kMaxOut - n_;
    for (int i = 0; i < n; ++i) buf_[n_ + i] = static_cast<unsigned char>(s[i]);
    if (n > 0) n_ += n;
  }
  const char16_t* Data() const { return buf_; }
  int Size() const { return n_; }

 private:
  char16_t buf_[kMaxOut + 1];
  int n_ = 0;
};

inline char16_t Unit(char16_t c) { return c; }
inline char16_t Unit(char c) { return static_cast<unsigned char>(c); }

inline bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// Appends the decimal digits of v, grouped with `sep` (null: no grouping),
// before `end`; returns the new start. The buffer must hold 20 digits and 6
// separators of up to 8 units.
char16_t* Decimal(char16_t* end, std::uint64_t v, const Word* sep) {
  char16_t* p = end;
  int count = 0;
  do {
    if (sep != nullptr && count > 0 && count % 3 == 0) {
      p -= sep->n;
      std::memcpy(p, sep->u, static_cast<std::size_t>(sep->n) * 2);
    }
    *--p = static_cast<char16_t>(u'0' + v % 10);
    v /= 10;
    ++count;
  } while (v != 0);
  return p;
}

char16_t* Hex(char16_t* end, std::uint64_t v, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char16_t* p = end;
  do {
    *--p = static_cast<char16_t>(digits[v & 15]);
    v >>= 4;
  } while (v != 0);
  return p;
}

struct Spec {
  bool left = false;
  bool zero = false;
  bool hasWidth = false;
  int width = 0;
  int precision = -1;
  bool tilde = false;
  bool semicolon = false;
  bool wide = false;
};

bool IsSpecUnit(char16_t c) {
  return IsDigit(c) || c == u'-' || c == u'*' || c == u'.' || c == u'~' || c == u';' || c == u'L';
}

// Skips a conversion starting at the "%" p points to; returns the unit after it.
template <class Ch>
const Ch* SkipConversion(const Ch* p, const Ch* end) {
  ++p;
  while (p < end && IsSpecUnit(Unit(*p))) ++p;
  return p < end ? p + 1 : end;
}

// The "}" closing the group whose "{" p points to, or end.
template <class Ch>
const Ch* MatchBrace(const Ch* p, const Ch* end) {
  int depth = 0;
  while (p < end) {
    const char16_t c = Unit(*p);
    if (c == u'%') {
      p = SkipConversion(p, end);
      continue;
    }
    if (c == u'{') ++depth;
    if (c == u'}' && --depth == 0) return p;
    ++p;
  }
  return end;
}

// ---- the engine ---------------------------------------------------------------------

template <class Ch>
class Engine {
 public:
  Engine(Out* out, const Args* args, int count, const LocaleWords& words)
      : out_(*out), args_(args), count_(count), words_(words) {}

  void Plain(const Ch* p, const Ch* end) {
    while (p < end && !stopped_) {
      const Ch* run = p;
      while (p < end && *p != Ch('%')) ++p;
      PutText(run, p);
      if (p < end) p = Conversion(p + 1, end);
    }
  }

  void Body(const Ch* p, const Ch* end, int depth) {
    while (p < end && !stopped_) {
      const char16_t c = Unit(*p);
      if (c == u'%') {
        p = Conversion(p + 1, end);
      } else if (c == u'{') {
        const Ch* close = MatchBrace(p, end);
        if (close == end) malformed_ = true;
        if (depth < kMaxTemplateDepth) {
          if (p + 1 < close && *(p + 1) == Ch('#')) {
            Choice(p + 2, close, depth + 1);
          } else {
            Body(p + 1, close, depth + 1);
          }
        }
        p = close < end ? close + 1 : end;
      } else {
        out_.Put(c);
        ++p;
      }
    }
  }

  bool Malformed() const { return malformed_; }

 private:
  void PutText(const Ch* b, const Ch* e) {
    if constexpr (sizeof(Ch) == 2) {
      out_.Put(reinterpret_cast<const char16_t*>(b), static_cast<int>(e - b));
    } else {
      for (; b < e; ++b) out_.Put(Unit(*b));
    }
  }

  const TArg* Next() {
    const TArg* t =
        (args_ != nullptr && pos_ >= 0 && pos_ < count_) ? &args_->items[pos_] : nullptr;
    if (pos_ < count_) ++pos_;
    return t;
  }

  static std::uint64_t IntOf(const TArg* t) {
    if (t == nullptr) return 0;
    switch (t->kind) {
      case TArg::kSigned:
      case TArg::kUnsigned:
        return t->u;
      case TArg::kPointer:
        return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(t->p));
      default:
        return 0;
    }
  }

  std::uint64_t NextInt() { return IntOf(Next()); }

  int ReadCount(const Ch*& p, const Ch* end) {
    if (p < end && *p == Ch('*')) {
      ++p;
      return static_cast<int>(NextInt() & 0xFFFF);
    }
    int v = 0;
    while (p < end && IsDigit(Unit(*p))) {
      v = v * 10 + (Unit(*p) - u'0');
      if (v > kMaxOut) v = kMaxOut;
      ++p;
    }
    return v;
  }

  // Pads and writes a field: prefix (a sign) then body.
  void Field(const Spec& s, const char16_t* prefix, int prefixLen, const char16_t* body,
             int bodyLen) {
    const int pad = s.width - prefixLen - bodyLen;
    if (pad > 0 && !s.left && !s.zero) out_.Fill(u' ', pad);
    if (prefixLen > 0) out_.Put(prefix, prefixLen);
    if (pad > 0 && !s.left && s.zero) out_.Fill(u'0', pad);
    if (bodyLen > 0) out_.Put(body, bodyLen);
    if (pad > 0 && s.left) out_.Fill(u' ', pad);
  }

  const Word* Grouping(const Spec& s) const {
    return (s.tilde || s.zero || words_.thousand.n == 0) ? nullptr : &words_.thousand;
  }

  void Signed(const Spec& s, std::int64_t v) {
    char16_t buf[80];
    char16_t* end = buf + 80;
    const std::uint64_t mag =
        v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    char16_t* p = Decimal(end, mag, Grouping(s));
    const Word* sign = v < 0 ? &words_.minus : (s.semicolon ? &words_.plus : nullptr);
    Field(s, sign ? sign->u : nullptr, sign ? sign->n : 0, p, static_cast<int>(end - p));
  }

  void Unsigned(const Spec& s, std::uint64_t v) {
    char16_t buf[80];
    char16_t* end = buf + 80;
    char16_t* p = Decimal(end, v, Grouping(s));
    Field(s, nullptr, 0, p, static_cast<int>(end - p));
  }

  void Text(const Spec& s, const TArg* t) {
    if (t == nullptr) return Field(s, nullptr, 0, nullptr, 0);
    const int cap = s.precision >= 0 ? s.precision : kMaxOut;
    if (t->kind == TArg::kString && t->str != nullptr) {
      const int n = t->str->Length();
      return Field(s, nullptr, 0, t->str->Text(), n < cap ? n : cap);
    }
    if (t->kind == TArg::kWide && t->w != nullptr) {
      int n = 0;
      while (n < cap && t->w[n] != 0) ++n;
      return Field(s, nullptr, 0, t->w, n);
    }
    if (t->kind == TArg::kNarrow && t->s != nullptr) {
      int n = 0;
      bool ascii = true;
      while (n < 32767 && t->s[n] != 0) {
        ascii = ascii && static_cast<unsigned char>(t->s[n]) < 0x80;
        ++n;
      }
      if (ascii) {
        if (n > cap) n = cap;
        const int pad = s.width - n;
        if (pad > 0 && !s.left) out_.Fill(s.zero ? u'0' : u' ', pad);
        out_.PutAscii(t->s, n);
        if (pad > 0 && s.left) out_.Fill(u' ', pad);
        return;
      }
      TString wide;
      wide.AssignAnsi(t->s, static_cast<short>(n), 0);
      const int w = wide.Length();
      return Field(s, nullptr, 0, wide.Text(), w < cap ? w : cap);
    }
    Field(s, nullptr, 0, nullptr, 0);
  }

  // Fixed point: v holds `precision` implied decimals.
  void Fixed(const Spec& s, std::uint64_t v) {
    char16_t digits[24];
    char16_t* dend = digits + 24;
    char16_t* d = Decimal(dend, v, nullptr);
    int nd = static_cast<int>(dend - d);
    const int prec = s.precision > 0 ? s.precision : 0;
    char16_t buf[kMaxOut + 1];
    int n = 0;
    auto put = [&](char16_t c) {
      if (n < kMaxOut) buf[n++] = c;
    };
    const int intDigits = nd > prec ? nd - prec : 0;
    if (intDigits == 0) {
      put(u'0');
    } else {
      const Word* sep = Grouping(s);
      for (int i = 0; i < intDigits; ++i) {
        if (sep != nullptr && i > 0 && (intDigits - i) % 3 == 0) {
          for (int k = 0; k < sep->n; ++k) put(sep->u[k]);
        }
        put(d[i]);
      }
    }
    if (prec > 0) {
      for (int k = 0; k < words_.decimal.n; ++k) put(words_.decimal.u[k]);
      for (int i = nd; i < prec; ++i) put(u'0');
      for (int i = intDigits; i < nd; ++i) put(d[i]);
    }
    Field(s, nullptr, 0, buf, n);
  }

  void ErrorText(const Spec& s, int err) {
    TString msg;
    unsigned short list = 0;
    unsigned key = 0;
    if (!RMGetErrID(err, &list, &key) || !msg.LoadKString(list, key) || msg.IsEmpty()) {
      msg.LoadKString(kLibraryList, FourCC("0000"));
    }
    const int cap = s.precision >= 0 ? s.precision : kMaxOut;
    Field(s, nullptr, 0, msg.Text(), msg.Length() < cap ? msg.Length() : cap);
  }

  void FourChar(const Spec& s, std::uint32_t v) {
    char16_t buf[4];
    for (int i = 0; i < 4; ++i) {
      const unsigned b = (v >> (24 - 8 * i)) & 0xFF;
      buf[i] = b == 0 ? u'7' : static_cast<char16_t>(b);
    }
    Field(s, nullptr, 0, buf, 4);
  }

  static std::uint64_t CeilDiv1024(std::uint64_t v) {
    return (v >> 10) + ((v & 1023) != 0 ? 1 : 0);
  }

  void Size(const Spec& s, std::uint64_t v, int unit) {
    TString letters;
    if (!letters.LoadKString(kLibraryList, FourCC("KMkm"))) Debug("sprintf", kLineNoUnitLetters);
    char16_t buf[200];
    int n = 0;
    auto letter = [&](int u) {
      if (u < letters.Length()) buf[n++] = letters.Text()[u];
    };
    const Word* sep = s.tilde ? nullptr : (words_.thousand.n ? &words_.thousand : nullptr);
    if (v == 0) {
      const TString zero(kLibraryList, FourCC("Zero"));
      const int zn = zero.Length() < 160 ? zero.Length() : 160;
      std::memcpy(buf, zero.Text(), static_cast<std::size_t>(zn) * 2);
      n = zn;
      buf[n++] = u' ';
      letter(unit);
    } else if (v <= 9999) {
      char16_t num[80];
      char16_t* e = num + 80;
      char16_t* p = Decimal(e, v, sep);
      n = static_cast<int>(e - p);
      std::memcpy(buf, p, static_cast<std::size_t>(n) * 2);
      buf[n++] = u' ';
      letter(unit);
    } else {
      if (v >= 1023898 || v > 0xFFFFFFFFull) {
        v = CeilDiv1024(v);
        ++unit;
      }
      v = CeilDiv1024(v * 10);
      ++unit;
      char16_t num[80];
      char16_t* e = num + 80;
      *--e = static_cast<char16_t>(u'0' + v % 10);
      char16_t* p = e - words_.decimal.n;
      std::memcpy(p, words_.decimal.u, static_cast<std::size_t>(words_.decimal.n) * 2);
      p = Decimal(p, v / 10, sep);
      n = static_cast<int>(num + 80 - p);
      std::memcpy(buf, p, static_cast<std::size_t>(n) * 2);
      buf[n++] = u' ';
      letter(unit);
    }
    Field(s, nullptr, 0, buf, n);
  }

  void Skip(const Spec& s) {
    const int by = s.hasWidth ? s.width : 1;
    if (s.left) {
      pos_ = pos_ - by < 0 ? 0 : pos_ - by;
    } else {
      pos_ = pos_ + by > count_ ? count_ : pos_ + by;
    }
  }

  // p follows the "%"; returns the unit after the conversion.
  const Ch* Conversion(const Ch* p, const Ch* end) {
    Spec s;
    if (p < end && *p == Ch('-')) s.left = true, ++p;
    if (p < end && *p == Ch('0')) s.zero = true, ++p;
    if (p < end && (*p == Ch('*') || IsDigit(Unit(*p)))) {
      s.hasWidth = true;
      s.width = ReadCount(p, end);
    }
    if (p < end && *p == Ch('.')) {
      ++p;
      s.precision = ReadCount(p, end);
    }
    if (p < end && *p == Ch('~')) s.tilde = true, ++p;
    if (p < end && *p == Ch(';')) s.semicolon = true, ++p;
    if (p < end && *p == Ch('L')) s.wide = true, ++p;
    if (p >= end) {
      stopped_ = true;
      return end;
    }
    const char16_t c = Unit(*p++);
    switch (c) {
      case u'%':
      case u'^':
      case u'{':
      case u'}':
      case u'|':
        out_.Put(c);
        break;
      case u'd': {
        const std::uint64_t v = NextInt();
        Signed(s, s.wide ? static_cast<std::int64_t>(v)
                         : static_cast<std::int32_t>(static_cast<std::uint32_t>(v)));
        break;
      }
      case u'h':
        Signed(s, static_cast<std::int64_t>(NextInt()));
        break;
      case u'u': {
        const std::uint64_t v = NextInt();
        Unsigned(s, s.wide ? v : (v & 0xFFFFFFFFu));
        break;
      }
      case u'H':
        Unsigned(s, NextInt());
        break;
      case u'x':
      case u'X': {
        std::uint64_t v = NextInt();
        if (!s.wide) v &= 0xFFFFFFFFu;
        char16_t buf[20];
        char16_t* p2 = Hex(buf + 20, v, c == u'X');
        Field(s, nullptr, 0, p2, static_cast<int>(buf + 20 - p2));
        break;
      }
      case u'c':
      case u'C': {
        const char16_t ch = static_cast<char16_t>(NextInt() & 0xFFFF);
        Field(s, nullptr, 0, &ch, ch != 0 ? 1 : 0);
        break;
      }
      case u's':
      case u'S':
        Text(s, Next());
        break;
      case u'F': {
        const std::uint64_t v = NextInt();
        Fixed(s, s.wide ? v : (v & 0xFFFFFFFFu));
        break;
      }
      case u'E':
        ErrorText(s, static_cast<std::int32_t>(static_cast<std::uint32_t>(NextInt())));
        break;
      case u'Y':
      case u'y':
        FourChar(s, static_cast<std::uint32_t>(NextInt()));
        break;
      case u'K':
      case u'k': {
        const std::uint64_t v = NextInt();
        const int unit = c == u'K' ? 0 : 3;
        Size(s, s.wide ? v : CeilDiv1024(v & 0xFFFFFFFFu), unit);
        break;
      }
      case u'D':
      case u'T': {
        const TArg* t = Next();
        const TDate* date = (t != nullptr && t->kind == TArg::kDate) ? t->date : nullptr;
        TString text;
        quarnel_internal::AppendDate(
            &text, date, quarnel_internal::DateForm{c, s.precision, s.zero, c == u'D' && s.tilde},
            words_.lcid);
        Spec blanks = s;
        blanks.zero = false;
        Field(blanks, nullptr, 0, text.Text(), text.Length());
        break;
      }
      case u'I': {
        const TArg* t = Next();
        const TInterval* iv = (t != nullptr && t->kind == TArg::kInterval) ? t->interval : nullptr;
        TString text;
        quarnel_internal::AppendInterval(&text, iv, s.precision, words_.lcid);
        Spec blanks = s;
        blanks.zero = false;
        Field(blanks, nullptr, 0, text.Text(), text.Length());
        break;
      }
      case u'i':
        Skip(s);
        break;
      default:
        break;
    }
    return p;
  }

  // A choice group; p follows "{#", end is its "}".
  void Choice(const Ch* p, const Ch* end, int depth) {
    std::int64_t n = 0;
    bool any = false;
    while (p < end && IsDigit(Unit(*p))) {
      if (n < 100000) n = n * 10 + (Unit(*p) - u'0');
      ++p, any = true;
    }
    std::int64_t mod = 0;
    if (p < end && *p == Ch('%')) {
      ++p;
      while (p < end && IsDigit(Unit(*p))) {
        if (mod < 1000000000) mod = mod * 10 + (Unit(*p) - u'0');
        ++p;
      }
      if (mod == 0) any = false;
    }
    if (!any || n < 1 || p >= end || *p != Ch(':')) {
      malformed_ = true;
      return;
    }
    ++p;
    const TArg* t = (args_ != nullptr && n <= count_) ? &args_->items[n - 1] : nullptr;
    std::int64_t v = static_cast<std::int64_t>(IntOf(t));
    if (mod > 0) v = ((v % mod) + mod) % mod;
    while (p <= end && !stopped_) {
      const Ch* alt = p;
      const Ch* bar = AltEnd(p, end);
      const Ch* text = nullptr;
      if (Holds(alt, bar, v, &text)) {
        Body(text, bar, depth);
        return;
      }
      if (bar >= end) return;
      p = bar + 1;
    }
  }

  // The "|" or end that closes the alternative starting at p.
  static const Ch* AltEnd(const Ch* p, const Ch* end) {
    while (p < end) {
      const char16_t c = Unit(*p);
      if (c == u'|') return p;
      if (c == u'%') {
        p = SkipConversion(p, end);
      } else if (c == u'{') {
        const Ch* close = MatchBrace(p, end);
        p = close < end ? close + 1 : end;
      } else {
        ++p;
      }
    }
    return end;
  }

  static bool Number(const Ch*& p, const Ch* end, std::int64_t* v) {
    bool neg = false;
    if (p < end && *p == Ch('-')) neg = true, ++p;
    if (p >= end || !IsDigit(Unit(*p))) return false;
    std::int64_t n = 0;
    while (p < end && IsDigit(Unit(*p))) {
      if (n < 1000000000000000000LL / 10) n = n * 10 + (Unit(*p) - u'0');
      ++p;
    }
    *v = neg ? -n : n;
    return true;
  }

  // Whether the alternative [p, end) holds v; *text is where its text starts.
  // An alternative without a well-formed "values=" head is a default.
  static bool Holds(const Ch* p, const Ch* end, std::int64_t v, const Ch** text) {
    const Ch* start = p;
    bool hit = false;
    for (;;) {
      std::int64_t a = 0;
      if (!Number(p, end, &a)) break;
      std::int64_t b = a;
      if (p < end && *p == Ch('-')) {
        ++p;
        if (!Number(p, end, &b)) break;
      }
      if (v >= a && v <= b) hit = true;
      if (p < end && *p == Ch(',')) {
        ++p;
        continue;
      }
      if (p < end && *p == Ch('=')) {
        *text = p + 1;
        return hit;
      }
      break;
    }
    *text = start;
    return true;
  }

  Out& out_;
  const Args* args_;
  int count_;
  const LocaleWords& words_;
  int pos_ = 0;
  bool stopped_ = false;
  bool malformed_ = false;
};

// Formats [f, end) into out; returns false when the template was malformed.
template <class Ch>
bool Run(Out* out, const Ch* f, const Ch* end, const Args* args, int count, bool asTemplate) {
  if (args == nullptr) count = 0;
  if (count < 0) count = 0;
  const LocaleWords& words = WordsFor(UGetDefaultLCID());
  Engine<Ch> engine(out, args, count, words);
  if (asTemplate || (f < end && *f == Ch('{'))) {
    engine.Body(f, end, 0);
  } else {
    engine.Plain(f, end);
  }
  return !engine.Malformed();
}

int Length16(const char16_t* s) {
  int n = 0;
  while (n < kMaxOut && s[n] != 0) ++n;
  return n;
}

// ---- scanning -------------------------------------------------------------------------

class Scanner {
 public:
  Scanner(const char16_t* s, int n, const ScanArgs* outs, const LocaleWords& words)
      : s_(s), n_(n), outs_(outs), count_(outs ? outs->count : 0), words_(words) {}

  int Run(const char16_t* f, const char16_t* end) {
    while (f < end) {
      const char16_t c = *f;
      if (c == u' ') {
        SkipBlanks();
        ++f;
        continue;
      }
      if (c != u'%') {
        if (i_ < n_ && s_[i_] == c) {
          ++i_, ++f;
          continue;
        }
        break;
      }
      const char16_t* after = Conversion(f + 1, end);
      if (after == nullptr) break;
      f = after;
    }
    return stored_;
  }

 private:
  void SkipBlanks() {
    while (i_ < n_ && (s_[i_] == u' ' || s_[i_] == u'\t')) ++i_;
  }

  bool At(const Word& w) const {
    if (w.n == 0 || i_ + w.n > n_) return false;
    return std::memcmp(s_ + i_, w.u, static_cast<std::size_t>(w.n) * 2) == 0;
  }

  static int HexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
  }

  bool HexPrefix() const {
    return i_ + 2 < n_ && s_[i_] == u'0' && (s_[i_ + 1] == u'x' || s_[i_ + 1] == u'X') &&
           HexDigit(s_[i_ + 2]) >= 0;
  }

  bool ReadHex(std::uint64_t* v) {
    if (HexPrefix()) i_ += 2;
    if (i_ >= n_ || HexDigit(s_[i_]) < 0) return false;
    std::uint64_t r = 0;
    while (i_ < n_ && HexDigit(s_[i_]) >= 0)
      r = (r << 4) | static_cast<unsigned>(HexDigit(s_[i_++]));
    *v = r;
    return true;
  }

  bool ReadDecimal(bool grouped, std::uint64_t* v) {
    if (i_ >= n_ || !IsDigit(s_[i_])) return false;
    std::uint64_t r = 0;
    for (;;) {
      while (i_ < n_ && IsDigit(s_[i_])) r = r * 10 + (s_[i_++] - u'0');
      if (!grouped || !At(words_.thousand)) break;
      const int g = i_ + words_.thousand.n;
      if (g + 3 > n_ || !IsDigit(s_[g]) || !IsDigit(s_[g + 1]) || !IsDigit(s_[g + 2]) ||
          (g + 3 < n_ && IsDigit(s_[g + 3]))) {
        break;
      }
      i_ = g;
    }
    *v = r;
    return true;
  }

  // A number for d, u, H, h: sign, then 0x-hex or grouped decimal.
  bool ReadInteger(bool grouped, std::uint64_t* v) {
    SkipBlanks();
    const int start = i_;
    bool neg = false;
    if (At(words_.minus)) {
      neg = true;
      i_ += words_.minus.n;
    } else if (At(words_.plus)) {
      i_ += words_.plus.n;
    }
    std::uint64_t r = 0;
    const bool ok = HexPrefix() ? ReadHex(&r) : ReadDecimal(grouped, &r);
    if (!ok) {
      i_ = start;
      return false;
    }
    *v = neg ? 0 - r : r;
    return true;
  }

  bool ReadFixed(bool grouped, int prec, std::uint64_t* v) {
    SkipBlanks();
    std::uint64_t r = 0;
    if (!ReadDecimal(grouped, &r)) return false;
    for (int k = 0; k < prec; ++k) r *= 10;
    if (At(words_.decimal)) {
      const int save = i_;
      i_ += words_.decimal.n;
      if (i_ < n_ && IsDigit(s_[i_])) {
        std::uint64_t scale = 1;
        for (int k = 1; k < prec; ++k) scale *= 10;
        int k = 0;
        while (i_ < n_ && IsDigit(s_[i_])) {
          if (k < prec) {
            r += static_cast<std::uint64_t>(s_[i_] - u'0') * scale;
            scale /= 10;
          }
          ++k, ++i_;
        }
      } else {
        i_ = save;
      }
    }
    *v = r;
    return true;
  }

  const ScanArg* Slot(bool suppress) {
    if (suppress) return nullptr;
    const ScanArg* a = (outs_ != nullptr && pos_ < count_) ? &outs_->items[pos_] : nullptr;
    if (pos_ < count_) ++pos_;
    return a;
  }

  void StoreInt(const ScanArg* a, std::uint64_t v) {
    if (a == nullptr || a->p == nullptr ||
        (a->kind != ScanArg::kSigned && a->kind != ScanArg::kUnsigned)) {
      return;
    }
    switch (a->size) {
      case 1: {
        const std::uint8_t x = static_cast<std::uint8_t>(v);
        std::memcpy(a->p, &x, 1);
        break;
      }
      case 2: {
        const std::uint16_t x = static_cast<std::uint16_t>(v);
        std::memcpy(a->p, &x, 2);
        break;
      }
      case 4: {
        const std::uint32_t x = static_cast<std::uint32_t>(v);
        std::memcpy(a->p, &x, 4);
        break;
      }
      case 8:
        std::memcpy(a->p, &v, 8);
        break;
      default:
        return;
    }
    ++stored_;
  }

  void StoreText(const ScanArg* a, const char16_t* t, int n) {
    if (a == nullptr || a->p == nullptr || a->kind != ScanArg::kString) return;
    static_cast<TString*>(a->p)->Assign(t, static_cast<short>(n));
    ++stored_;
  }

  // p follows the "%"; returns the format position after the conversion, or
  // null when scanning stops.
  const char16_t* Conversion(const char16_t* p, const char16_t* end) {
    bool left = false, suppress = false, tilde = false, wide = false, hasWidth = false;
    int width = 0, prec = -1;
    if (p < end && *p == u'-') left = true, ++p;
    if (p < end && *p == u'0') ++p;
    if (p < end && *p == u'*') suppress = true, ++p;
    while (p < end && IsDigit(*p)) {
      hasWidth = true;
      width = width * 10 + (*p++ - u'0');
      if (width > kMaxOut) width = kMaxOut;
    }
    if (p < end && *p == u'.') {
      ++p;
      prec = 0;
      while (p < end && IsDigit(*p)) {
        prec = prec * 10 + (*p++ - u'0');
        if (prec > 19) prec = 19;
      }
    }
    if (p < end && *p == u'~') tilde = true, ++p;
    if (p < end && *p == u';') ++p;
    if (p < end && *p == u'L') wide = true, ++p;
    if (p >= end) return nullptr;
    const char16_t c = *p++;
    std::uint64_t v = 0;
    switch (c) {
      case u'%':
      case u'^':
      case u'{':
      case u'}':
      case u'|':
        if (i_ < n_ && s_[i_] == c) {
          ++i_;
          return p;
        }
        return nullptr;
      case u'd':
      case u'u':
      case u'h':
      case u'H':
        if (!ReadInteger(!tilde, &v)) return nullptr;
        if (!wide && (c == u'd' || c == u'u')) v &= 0xFFFFFFFFu;
        if (!wide && c == u'd')
          v = static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(v)));
        StoreInt(Slot(suppress), v);
        return p;
      case u'x':
      case u'X':
        SkipBlanks();
        if (!ReadHex(&v)) return nullptr;
        if (!wide) v &= 0xFFFFFFFFu;
        StoreInt(Slot(suppress), v);
        return p;
      case u'F':
        if (!ReadFixed(!tilde, prec > 0 ? prec : 0, &v)) return nullptr;
        StoreInt(Slot(suppress), v);
        return p;
      case u'c':
      case u'C': {
        if (i_ >= n_) return nullptr;
        const char16_t ch = s_[i_++];
        const ScanArg* a = Slot(suppress);
        if (a != nullptr && a->kind == ScanArg::kString) {
          StoreText(a, &ch, 1);
        } else {
          StoreInt(a, ch);
        }
        return p;
      }
      case u's':
      case u'S': {
        int stop = n_;
        if (p < end && *p != u'%') {
          stop = i_;
          while (stop < n_ && s_[stop] != *p) ++stop;
        } else if (p + 1 < end && *p == u'%' &&
                   (p[1] == u'%' || p[1] == u'^' || p[1] == u'{' || p[1] == u'}' || p[1] == u'|')) {
          stop = i_;
          while (stop < n_ && s_[stop] != p[1]) ++stop;
        }
        if (hasWidth && stop - i_ > width) stop = i_ + width;
        StoreText(Slot(suppress), s_ + i_, stop - i_);
        i_ = stop;
        return p;
      }
      case u'Y':
      case u'y': {
        if (i_ + 4 > n_) return nullptr;
        for (int k = 0; k < 4; ++k) {
          if (s_[i_ + k] > 0xFF) return nullptr;
          v = (v << 8) | s_[i_ + k];
        }
        i_ += 4;
        StoreInt(Slot(suppress), v);
        return p;
      }
      case u'i': {
        const int by = hasWidth ? width : 1;
        if (left) {
          pos_ = pos_ - by < 0 ? 0 : pos_ - by;
        } else {
          pos_ = pos_ + by > count_ ? count_ : pos_ + by;
        }
        return p;
      }
      case u'D':
      case u'T': {
        const ScanArg* a = Slot(suppress);
        TDate* target = (a != nullptr && a->p != nullptr && a->kind == ScanArg::kDate)
                            ? static_cast<TDate*>(a->p)
                            : nullptr;
        TDate value = target != nullptr ? *target : TDate();
        const char16_t stop = (p < end && *p != u'%') ? *p : 0;
        const int used = quarnel_internal::ScanDate(
            s_ + i_, n_ - i_, quarnel_internal::DateForm{c, prec, false, c == u'D' && tilde},
            words_.lcid, stop, &value);
        if (used < 0) return nullptr;
        i_ += used;
        if (target != nullptr) {
          *target = value;
          ++stored_;
        }
        return p;
      }
      case u'I': {
        const ScanArg* a = Slot(suppress);
        TInterval value;
        const int used =
            quarnel_internal::ScanInterval(s_ + i_, n_ - i_, prec, words_.lcid, &value);
        if (used < 0) return nullptr;
        i_ += used;
        if (a != nullptr && a->p != nullptr && a->kind == ScanArg::kInterval) {
          *static_cast<TInterval*>(a->p) = value;
          ++stored_;
        }
        return p;
      }
      case u'K':
      case u'k':
      case u'E':
        return nullptr;
      default:
        return p;
    }
  }

  const char16_t* s_;
  int n_;
  int i_ = 0;
  const ScanArgs* outs_;
  int count_;
  int pos_ = 0;
  int stored_ = 0;
  const LocaleWords& words_;
};

}  // namespace

// ---- TString members ------------------------------------------------------------------

void TString::SPrintf(const char16_t* format, const Args* args) {
  Out out;
  if (format != nullptr) {
    // The format may be this string's own text: the result is assigned last.
    Run(&out, format, format + Length16(format), args, args ? args->count : 0, false);
  }
  Assign(out.Data(), static_cast<short>(out.Size()));
}

void TString::SPrintf(const TString* format, const Args* args) {
  Out out;
  if (format != nullptr) {
    Run(&out, format->Text(), format->Text() + format->Length(), args, args ? args->count : 0,
        false);
  }
  Assign(out.Data(), static_cast<short>(out.Size()));
}

void TString::SPrintf(unsigned short listId, int key, const Args* args) {
  TString format;
  format.LoadKString(listId, static_cast<unsigned>(key));
  SPrintf(&format, args);
}

int TString::ParseTemplate(const TString* tmpl, unsigned short argCount, const Args* args) {
  Out out;
  bool ok = true;
  if (tmpl != nullptr) {
    int count = args ? args->count : 0;
    if (argCount < count) count = argCount;
    ok = Run(&out, tmpl->Text(), tmpl->Text() + tmpl->Length(), args, count, true);
  }
  Assign(out.Data(), static_cast<short>(out.Size()));
  return ok ? kErrNone : kErrInvalidData;
}

int TString::ParseTemplate(unsigned short listId, int key, const Args* args) {
  TString tmpl;
  if (!tmpl.LoadKString(listId, static_cast<unsigned>(key))) {
    Clear();
    return kErrResourceNameNotFound;
  }
  return ParseTemplate(&tmpl, 0xFFFF, args);
}

void TString::FormatOrdinal(int n) {
  ParseTemplate(kLibraryList, static_cast<int>(FourCC("Ords")), n, n % 10, n / 10);
}

int TString::SScanf(const char16_t* format, const ScanArgs* outs) const {
  if (format == nullptr) return 0;
  Scanner scanner(Text(), Length(), outs, WordsFor(UGetDefaultLCID()));
  return scanner.Run(format, format + Length16(format));
}

int TString::SScanf(const TString* format, const ScanArgs* outs) const {
  if (format == nullptr) return 0;
  return SScanf(format->Text(), outs);
}

int TString::SScanf(unsigned short listId, int key, const ScanArgs* outs) const {
  const TString format(listId, static_cast<unsigned>(key));
  return SScanf(&format, outs);
}

void quarnel_internal::FormatNarrow(TString* out, const char* format, const Args* args) {
  if (out == nullptr) return;
  Out buf;
  if (format != nullptr) {
    Run(&buf, format, format + std::strlen(format), args, args ? args->count : 0, false);
  }
  out->Assign(buf.Data(), static_cast<short>(buf.Size()));
}
