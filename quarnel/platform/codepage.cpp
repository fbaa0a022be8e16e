#include "quarnel/platform/codepage.h"

#include <errno.h>
#include <iconv.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/codepage_tables.h"
#include "quarnel/platform/internal/utf8step.h"
#include "quarnel/platform/lasterror.h"

using quarnel_internal::SbcsTable;

namespace {

constexpr unsigned kErrInvalidParameter = 87;
constexpr unsigned kErrInsufficientBuffer = 122;
constexpr unsigned kErrInvalidFlags = 1004;
constexpr unsigned kErrNoUnicodeTranslation = 1113;

constexpr unsigned kMbValidFlags =
    kMbPrecomposed | kMbComposite | kMbUseGlyphChars | kMbErrInvalidChars;
constexpr unsigned kWcValidFlags =
    kWcDiscardNs | kWcSepChars | kWcDefaultChar | kWcCompositeCheck | kWcNoBestFitChars;

constexpr char16_t kReplacement = 0xFFFD;  // invalid UTF-8 and lone surrogates
constexpr char16_t kCp932DefaultUnit = 0x30FB;
constexpr char16_t kIconvDefaultUnit = 0x003F;
constexpr char kDefaultByte = '?';

int Fail(unsigned err) {
  USetLastError(err);
  return 0;
}

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// CP_ACP and CP_THREAD_ACP are the record's page, CP_OEMCP is 437, CP_MACCP
// is 10000.
unsigned ResolveCodePage(unsigned codePage) {
  switch (codePage) {
    case kCpAcp:
    case kCpThreadAcp:
      return UGetACP();
    case kCpOemCp:
      return 437;
    case kCpMacCp:
      return kCpMacRoman;
    default:
      return codePage;
  }
}

const SbcsTable* TableFor(unsigned codePage) {
  if (codePage == kCp1252) return &quarnel_internal::kCp1252Table;
  if (codePage == kCpMacRoman) return &quarnel_internal::kMacRomanTable;
  return nullptr;
}

// Where converted units or bytes go. A capacity of 0 only counts. A put that
// does not fit sets `full` and writes nothing: a character is never split.
template <typename T>
struct Sink {
  T* dst;
  int cap;
  int n = 0;
  bool full = false;

  bool Room(int k) {
    if (cap == 0) return true;
    if (n + k > cap) {
      full = true;
      return false;
    }
    return true;
  }
  bool Put(T v) {
    if (!Room(1)) return false;
    if (cap) dst[n] = v;
    ++n;
    return true;
  }
  bool Put2(T a, T b) {
    if (!Room(2)) return false;
    if (cap) {
      dst[n] = a;
      dst[n + 1] = b;
    }
    n += 2;
    return true;
  }
};

// The result of a conversion that ran: the count, or 0 and 122 when the
// destination was too small.
template <typename T>
int Finish(const Sink<T>& out) {
  if (out.full) return Fail(kErrInsufficientBuffer);
  return out.n;
}

// ---------------------------------------------------------------- iconv

const char* NativeUtf16() {
  return std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";
}

// One iconv conversion descriptor, closed on scope exit.
class Iconv {
 public:
  Iconv(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  ~Iconv() {
    if (ok()) iconv_close(cd_);
  }
  Iconv(const Iconv&) = delete;
  Iconv& operator=(const Iconv&) = delete;

  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // Converts the whole of [in, in + inLen) into `out` (up to `outCap` bytes);
  // returns the bytes written, or -1 when iconv refuses or stops early.
  int Whole(const void* in, std::size_t inLen, void* out, std::size_t outCap) {
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    char* ip = static_cast<char*>(const_cast<void*>(in));
    char* op = static_cast<char*>(out);
    std::size_t il = inLen, ol = outCap;
    if (iconv(cd_, &ip, &il, &op, &ol) == static_cast<std::size_t>(-1) || il != 0) return -1;
    if (iconv(cd_, nullptr, nullptr, &op, &ol) == static_cast<std::size_t>(-1)) return -1;
    return static_cast<int>(outCap - ol);
  }

  // One step: converts as much as it can. Returns 0 when all input was
  // consumed, else the errno that stopped it (EILSEQ, EINVAL, E2BIG).
  int Step(const char** in, std::size_t* inLen, char** out, std::size_t* outLen) {
    char* ip = const_cast<char*>(*in);
    const std::size_t r = iconv(cd_, &ip, inLen, out, outLen);
    *in = ip;
    return r == static_cast<std::size_t>(-1) ? errno : 0;
  }
  void Flush(char** out, std::size_t* outLen) { iconv(cd_, nullptr, nullptr, out, outLen); }
  iconv_t raw() const { return cd_; }

 private:
  iconv_t cd_;
};

std::string IconvName(unsigned codePage) {
  return codePage == kCpUtf7 ? "UTF-7" : "CP" + std::to_string(codePage);
}

// Whether iconv converts the page both ways.
bool IconvKnows(unsigned codePage) {
  const std::string name = IconvName(codePage);
  return Iconv(NativeUtf16(), name.c_str()).ok() && Iconv(name.c_str(), NativeUtf16()).ok();
}

// Whether every byte of an iconv page is a character of its own (or no
// character): no byte waits for a follower.
bool IconvSingleByte(unsigned codePage) {
  Iconv cd(NativeUtf16(), IconvName(codePage).c_str());
  for (unsigned b = 0; b < 256; ++b) {
    const char in = static_cast<char>(b);
    const char* ip = &in;
    std::size_t il = 1;
    char16_t out[4];
    char* op = reinterpret_cast<char*>(out);
    std::size_t ol = sizeof out;
    iconv(cd.raw(), nullptr, nullptr, nullptr, nullptr);
    if (cd.Step(&ip, &il, &op, &ol) == EINVAL) return false;
  }
  return true;
}

// Pages whose WideCharToMultiByte refuses a default character or a
// usedDefault flag (87), as Windows does for the stateful and the
// algorithmic pages.
bool RefusesDefaultChar(unsigned codePage) {
  switch (codePage) {
    case 42:
    case 50220:
    case 50221:
    case 50222:
    case 50225:
    case 50227:
    case 50229:
    case 52936:
    case 54936:
    case 65000:
    case kCpUtf8:
      return true;
    default:
      return codePage >= 57002 && codePage <= 57011;
  }
}

// ---------------------------------------------------------------- 932

// Code page 932 in both directions, built once from glibc's "CP932" and the
// recorded differences from Windows.
struct Cp932 {
  bool ok = false;
  unsigned char lead[256];
  char16_t single[256];        // for bytes that are not lead bytes
  bool singleStrict[256];      // false: refused under MB_ERR_INVALID_CHARS
  char16_t pair[65536];        // lead << 8 | trail; 0 = no such character
  unsigned short wide[65536];  // unit -> byte or lead << 8 | trail; 0 = none

  // The unit the bytes `v` (a byte or lead << 8 | trail) convert to, or 0.
  char16_t Decode(unsigned short v) const {
    if (v < 0x100) return lead[v] ? 0 : single[v];
    return pair[v];
  }
};

void BuildCp932(Cp932* t) {
  const quarnel_internal::Cp932Fixes& fixes = quarnel_internal::kCp932Fixes;
  std::memcpy(t->lead, fixes.leadFlags, 256);
  Iconv toWide(NativeUtf16(), "CP932");
  Iconv toBytes("CP932", NativeUtf16());
  if (!toWide.ok() || !toBytes.ok()) return;

  for (int b = 0; b < 256; ++b) {
    char16_t u = 0;
    unsigned char in = static_cast<unsigned char>(b);
    t->single[b] = kCp932DefaultUnit;
    t->singleStrict[b] = false;
    if (t->lead[b]) continue;
    if (toWide.Whole(&in, 1, &u, sizeof u) == 2) {
      t->single[b] = u;
      t->singleStrict[b] = true;
    }
  }
  for (std::size_t i = 0; i < fixes.byteCount; ++i) {
    const unsigned b = fixes.bytes[i].bytes & 0xFF;
    const char16_t u = fixes.bytes[i].unit;
    t->single[b] = u;
    // Windows gives these bytes placeholders in the private-use area and
    // refuses them when asked to report invalid input.
    t->singleStrict[b] = !(u >= 0xE000 && u <= 0xF8FF);
  }

  std::memset(t->pair, 0, sizeof t->pair);
  for (int l = 0; l < 256; ++l) {
    if (!t->lead[l]) continue;
    for (int tr = 0x40; tr <= 0xFC; ++tr) {
      unsigned char in[2] = {static_cast<unsigned char>(l), static_cast<unsigned char>(tr)};
      char16_t u[2] = {0, 0};
      if (toWide.Whole(in, 2, u, sizeof u) == 2) t->pair[l << 8 | tr] = u[0];
    }
  }
  for (std::size_t i = 0; i < fixes.pairCount; ++i)
    t->pair[fixes.pairs[i].bytes] = fixes.pairs[i].unit;

  std::memset(t->wide, 0, sizeof t->wide);
  for (unsigned u = 1; u < 0x10000; ++u) {
    if (u >= 0xD800 && u <= 0xDFFF) continue;
    const char16_t in = static_cast<char16_t>(u);
    unsigned char out[4];
    const int n = toBytes.Whole(&in, 2, out, sizeof out);
    if (n == 1)
      t->wide[u] = out[0];
    else if (n == 2)
      t->wide[u] = static_cast<unsigned short>(out[0] << 8 | out[1]);
  }
  for (std::size_t i = 0; i < fixes.unitCount; ++i)
    t->wide[fixes.units[i].unit] = fixes.units[i].bytes;
  t->ok = true;
}

// The 932 tables, or null when this system's iconv has no CP932.
const Cp932* Cp932Tables() {
  static std::once_flag once;
  static std::unique_ptr<Cp932> tables;
  std::call_once(once, [] {
    auto t = std::make_unique<Cp932>();
    BuildCp932(t.get());
    if (t->ok) tables = std::move(t);
  });
  return tables.get();
}

// ---------------------------------------------------------------- to UTF-16

int SbcsToWide(const SbcsTable& t, const unsigned char* src, int len, char16_t* dst, int cap) {
  if (cap == 0) return len;
  const int n = std::min(len, cap);
  const char16_t* map = t.toUnicode;
  for (int i = 0; i < n; ++i) dst[i] = map[src[i]];
  if (n < len) return Fail(kErrInsufficientBuffer);
  return len;
}

// UTF-8 as Windows reads it: each maximal ill-formed subsequence (a byte that
// cannot start a character, or the start of a character that breaks off)
// becomes one U+FFFD, or fails the call with 1113 when `strict`.
int Utf8ToWide(const unsigned char* s, int len, char16_t* dst, int cap, bool strict) {
  Sink<char16_t> out{dst, cap};
  int i = 0;
  while (i < len) {
    const unsigned b = s[i];
    if (b < 0x80) {
      // A run of ASCII in one tight loop; it stops at the first other byte,
      // at the end, or when the destination is full.
      const int room = cap ? cap - out.n : len - i;
      const int lim = std::min(len - i, room);
      const unsigned char* p = s + i;
      int k = 0;
      if (cap) {
        char16_t* d = dst + out.n;
        for (; k < lim && p[k] < 0x80; ++k) d[k] = p[k];
      } else {
        while (k < lim && p[k] < 0x80) ++k;
      }
      out.n += k;
      i += k;
      if (k == room && i < len) {
        out.full = true;
        break;
      }
      continue;
    }
    char32_t cp;
    const int taken = quarnel_internal::Utf8Next(s + i, static_cast<std::size_t>(len - i), &cp);
    if (cp == quarnel_internal::kNoCharacter) {
      if (strict) return Fail(kErrNoUnicodeTranslation);
      if (!out.Put(kReplacement)) break;
    } else if (cp >= 0x10000) {
      char16_t pair[2];
      quarnel_internal::Utf16Put(cp, pair);
      if (!out.Put2(pair[0], pair[1])) break;
    } else if (!out.Put(static_cast<char16_t>(cp))) {
      break;
    }
    i += taken;
  }
  return Finish(out);
}

int Cp932ToWide(const Cp932& t, const unsigned char* s, int len, char16_t* dst, int cap,
                bool strict) {
  Sink<char16_t> out{dst, cap};
  int i = 0;
  while (i < len) {
    const unsigned b = s[i];
    char16_t u;
    bool valid;
    if (!t.lead[b]) {
      u = t.single[b];
      valid = t.singleStrict[b];
      ++i;
    } else if (i + 1 < len && s[i + 1] >= 0x40 && s[i + 1] <= 0xFC) {
      // A lead byte takes any byte of the trail range with it, even when the
      // pair is no character: the pair becomes one default unit.
      u = t.pair[b << 8 | s[i + 1]];
      valid = u != 0;
      if (!valid) u = kCp932DefaultUnit;
      i += 2;
    } else {
      // A lead byte at the end, or before a byte that cannot trail (which is
      // read again on its own).
      u = kCp932DefaultUnit;
      valid = false;
      ++i;
    }
    if (!valid && strict) return Fail(kErrNoUnicodeTranslation);
    if (!out.Put(u)) break;
  }
  return Finish(out);
}

int IconvToWide(unsigned codePage, const unsigned char* s, int len, char16_t* dst, int cap,
                bool strict) {
  Iconv cd(NativeUtf16(), IconvName(codePage).c_str());
  if (!cd.ok()) return Fail(kErrInvalidParameter);
  std::vector<char16_t> buf(static_cast<std::size_t>(len) + 8);
  const char* in = reinterpret_cast<const char*>(s);
  std::size_t inLen = static_cast<std::size_t>(len);
  std::size_t used = 0;  // units produced
  for (;;) {
    char* op = reinterpret_cast<char*>(buf.data() + used);
    std::size_t ol = (buf.size() - used) * sizeof(char16_t);
    const int err = cd.Step(&in, &inLen, &op, &ol);
    used = (op - reinterpret_cast<char*>(buf.data())) / sizeof(char16_t);
    if (err == 0) {
      cd.Flush(&op, &ol);
      used = (op - reinterpret_cast<char*>(buf.data())) / sizeof(char16_t);
      break;
    }
    if (err == E2BIG || used == buf.size()) {
      buf.resize(buf.size() * 2 + 8);
      continue;
    }
    // EILSEQ or EINVAL: one byte that cannot be read becomes the default unit.
    if (strict) return Fail(kErrNoUnicodeTranslation);
    buf[used++] = kIconvDefaultUnit;
    ++in;
    --inLen;
  }
  Sink<char16_t> out{dst, cap};
  for (std::size_t k = 0; k < used; ++k) {
    const char16_t u = buf[k];
    if (IsHighSurrogate(u) && k + 1 < used) {
      if (!out.Put2(u, buf[k + 1])) break;
      ++k;
    } else if (!out.Put(u)) {
      break;
    }
  }
  return Finish(out);
}

// ---------------------------------------------------------------- from UTF-16

// The bytes to write for an unconvertible unit.
struct DefaultBytes {
  char b[2];
  int n;
};

int WideToSbcs(const SbcsTable& t, const char16_t* src, int len, char* dst, int cap, unsigned flags,
               char defaultByte, int* usedDefault) {
  const bool noBestFit = (flags & kWcNoBestFitChars) != 0;
  if (cap == 0 && !usedDefault) return len;  // one byte per unit, always
  bool used = false;
  const int n = cap == 0 ? len : std::min(len, cap);
  const SbcsTable local = t;  // the table's pointers stay in registers
  for (int i = 0; i < n; ++i) {
    const char16_t u = src[i];
    unsigned char b = u < 0x80 ? static_cast<unsigned char>(u) : local.FromUnicode(u);
    if ((b == 0 && u != 0) || (noBestFit && local.toUnicode[b] != u)) {
      b = static_cast<unsigned char>(defaultByte);
      used = true;
    }
    if (cap) dst[i] = static_cast<char>(b);
  }
  if (usedDefault) *usedDefault = used;
  if (n < len) return Fail(kErrInsufficientBuffer);
  return len;
}

int WideToUtf8(const char16_t* src, int len, char* dst, int cap, bool strict) {
  Sink<char> out{dst, cap};
  for (int i = 0; i < len; ++i) {
    unsigned u = src[i];
    if (u < 0x80) {
      // A run of ASCII, as in Utf8ToWide.
      const int room = cap ? cap - out.n : len - i;
      const int lim = std::min(len - i, room);
      const char16_t* p = src + i;
      int k = 0;
      if (cap) {
        char* d = dst + out.n;
        for (; k < lim && p[k] < 0x80; ++k) d[k] = static_cast<char>(p[k]);
      } else {
        while (k < lim && p[k] < 0x80) ++k;
      }
      out.n += k;
      i += k - 1;
      if (k == room && i + 1 < len) {
        out.full = true;
        break;
      }
      continue;
    }
    char32_t cp;
    const int units = quarnel_internal::Utf16Next(src + i, static_cast<std::size_t>(len - i), &cp);
    if (cp == quarnel_internal::kNoCharacter) {
      if (strict) return Fail(kErrNoUnicodeTranslation);
      cp = kReplacement;
    }
    char b[4];
    const int k = quarnel_internal::Utf8Put(cp, b);
    if (!out.Room(k)) break;
    if (cap) std::memcpy(dst + out.n, b, static_cast<std::size_t>(k));
    out.n += k;
    i += units - 1;
  }
  return Finish(out);
}

int WideTo932(const Cp932& t, const char16_t* src, int len, char* dst, int cap, unsigned flags,
              const DefaultBytes& def, int* usedDefault) {
  const bool noBestFit = (flags & kWcNoBestFitChars) != 0;
  Sink<char> out{dst, cap};
  bool used = false;
  for (int i = 0; i < len; ++i) {
    const char16_t u = src[i];
    unsigned short v = t.wide[u];
    if (u != 0 && (v == 0 || (noBestFit && t.Decode(v) != u))) {
      used = true;
      const bool ok = def.n == 2 ? out.Put2(def.b[0], def.b[1]) : out.Put(def.b[0]);
      if (!ok) break;
      continue;
    }
    const bool ok = v < 0x100 ? out.Put(static_cast<char>(v))
                              : out.Put2(static_cast<char>(v >> 8), static_cast<char>(v & 0xFF));
    if (!ok) break;
  }
  if (usedDefault) *usedDefault = used;
  return Finish(out);
}

int WideToIconv(unsigned codePage, const char16_t* src, int len, char* dst, int cap,
                const DefaultBytes& def, int* usedDefault) {
  Iconv cd(IconvName(codePage).c_str(), NativeUtf16());
  if (!cd.ok()) return Fail(kErrInvalidParameter);
  std::vector<char> buf(static_cast<std::size_t>(len) * 4 + 16);
  const char* in = reinterpret_cast<const char*>(src);
  std::size_t inLen = static_cast<std::size_t>(len) * sizeof(char16_t);
  std::size_t used = 0;
  bool usedDef = false;
  for (;;) {
    char* op = buf.data() + used;
    std::size_t ol = buf.size() - used;
    const int err = cd.Step(&in, &inLen, &op, &ol);
    used = static_cast<std::size_t>(op - buf.data());
    if (err == 0) {
      cd.Flush(&op, &ol);
      used = static_cast<std::size_t>(op - buf.data());
      break;
    }
    if (err == E2BIG || buf.size() - used < 2) {
      buf.resize(buf.size() * 2 + 16);
      continue;
    }
    // A unit (or surrogate pair) the page has no bytes for.
    usedDef = true;
    for (int k = 0; k < def.n; ++k) buf[used++] = def.b[k];
    const char16_t* unit = reinterpret_cast<const char16_t*>(in);
    std::size_t skip = sizeof(char16_t);
    if (inLen >= 2 * sizeof(char16_t) && IsHighSurrogate(unit[0]) && IsLowSurrogate(unit[1]))
      skip *= 2;
    in += skip;
    inLen -= skip;
  }
  if (usedDefault) *usedDefault = usedDef;
  if (cap == 0) return static_cast<int>(used);
  const std::size_t n = std::min(used, static_cast<std::size_t>(cap));
  std::memcpy(dst, buf.data(), n);
  if (n < used) return Fail(kErrInsufficientBuffer);
  return static_cast<int>(used);
}

bool IsDbcsLead(unsigned codePage, unsigned char b) {
  switch (codePage) {
    case kCp932:
      return quarnel_internal::kCp932Fixes.leadFlags[b] != 0;
    case 936:
    case 949:
    case 950:
      return b >= 0x81 && b <= 0xFE;
    default:
      return false;
  }
}

}  // namespace

unsigned UGetACP() { return QuarnelEnv()->acp; }

int UMultiByteToWideChar(unsigned codePage, unsigned flags, const char* src, int srcLen,
                         char16_t* dst, int dstLen) {
  unsigned err = 0;
  if (UShouldFail(UCall::kMultiByteToWideChar, &err)) return Fail(err);
  if (!src || srcLen == 0 || srcLen < -1 || dstLen < 0 || (dstLen != 0 && !dst) ||
      static_cast<const void*>(src) == static_cast<const void*>(dst))
    return Fail(kErrInvalidParameter);
  if (srcLen == -1) srcLen = static_cast<int>(std::strlen(src)) + 1;
  const unsigned cp = ResolveCodePage(codePage);
  const auto* s = reinterpret_cast<const unsigned char*>(src);
  const bool strict = (flags & kMbErrInvalidChars) != 0;

  if (cp == kCpUtf8) {
    // MB_PRECOMPOSED is accepted (and means nothing) here: the library asks
    // for it on every page, and the system page may be UTF-8.
    if (flags & ~(kMbPrecomposed | kMbErrInvalidChars)) return Fail(kErrInvalidFlags);
    return Utf8ToWide(s, srcLen, dst, dstLen, strict);
  }
  if (flags & ~kMbValidFlags) return Fail(kErrInvalidFlags);
  if ((flags & kMbPrecomposed) && (flags & kMbComposite)) return Fail(kErrInvalidFlags);
  if (const SbcsTable* t = TableFor(cp)) return SbcsToWide(*t, s, srcLen, dst, dstLen);
  if (cp == kCp932) {
    const Cp932* t = Cp932Tables();
    if (!t) return Fail(kErrInvalidParameter);
    return Cp932ToWide(*t, s, srcLen, dst, dstLen, strict);
  }
  return IconvToWide(cp, s, srcLen, dst, dstLen, strict);
}

int UWideCharToMultiByte(unsigned codePage, unsigned flags, const char16_t* src, int srcLen,
                         char* dst, int dstLen, const char* defaultChar, int* usedDefault) {
  unsigned err = 0;
  if (UShouldFail(UCall::kWideCharToMultiByte, &err)) return Fail(err);
  if (!src || srcLen == 0 || srcLen < -1 || dstLen < 0 || (dstLen != 0 && !dst) ||
      static_cast<const void*>(src) == static_cast<const void*>(dst))
    return Fail(kErrInvalidParameter);
  if (srcLen == -1) srcLen = static_cast<int>(std::char_traits<char16_t>::length(src)) + 1;
  const unsigned cp = ResolveCodePage(codePage);

  if (RefusesDefaultChar(cp) && (defaultChar || usedDefault)) return Fail(kErrInvalidParameter);
  if (cp == kCpUtf8) {
    if (flags & ~kWcErrInvalidChars) return Fail(kErrInvalidFlags);
    return WideToUtf8(src, srcLen, dst, dstLen, (flags & kWcErrInvalidChars) != 0);
  }
  if (flags & ~kWcValidFlags) return Fail(kErrInvalidFlags);

  DefaultBytes def{{kDefaultByte, 0}, 1};
  if (defaultChar) {
    def.b[0] = defaultChar[0];
    if (IsDbcsLead(cp, static_cast<unsigned char>(defaultChar[0])) && defaultChar[1] != 0) {
      def.b[1] = defaultChar[1];
      def.n = 2;
    }
  }
  if (const SbcsTable* t = TableFor(cp))
    return WideToSbcs(*t, src, srcLen, dst, dstLen, flags, def.b[0], usedDefault);
  if (cp == kCp932) {
    const Cp932* t = Cp932Tables();
    if (!t) return Fail(kErrInvalidParameter);
    return WideTo932(*t, src, srcLen, dst, dstLen, flags, def, usedDefault);
  }
  return WideToIconv(cp, src, srcLen, dst, dstLen, def, usedDefault);
}

int UGetCPInfo(unsigned codePage, UCPINFO* info) {
  if (info == nullptr) return Fail(kErrInvalidParameter);
  const unsigned cp = ResolveCodePage(codePage);
  unsigned size = 0;
  if (cp == kCpUtf8) {
    size = 4;
  } else if (cp == kCpUtf7) {
    size = IconvKnows(cp) ? 5 : 0;
  } else if (TableFor(cp) != nullptr) {
    size = 1;
  } else if (cp == kCp932) {
    size = Cp932Tables() != nullptr ? 2 : 0;
  } else if (IconvKnows(cp)) {
    if (IsDbcsLead(cp, 0x81)) {
      size = 2;
    } else if (IconvSingleByte(cp)) {
      size = 1;
    }  // other multi-byte pages are not described
  }
  if (size == 0) return Fail(kErrInvalidParameter);
  *info = UCPINFO{};
  info->MaxCharSize = size;
  info->DefaultChar[0] = kDefaultByte;
  // Lead bytes as ranges (first, last), ended by a pair of zeros.
  unsigned n = 0;
  for (unsigned b = 0; b < 256 && n + 2 < sizeof info->LeadByte; ++b) {
    if (!IsDbcsLead(cp, static_cast<unsigned char>(b))) continue;
    unsigned last = b;
    while (last < 255 && IsDbcsLead(cp, static_cast<unsigned char>(last + 1))) ++last;
    info->LeadByte[n++] = static_cast<unsigned char>(b);
    info->LeadByte[n++] = static_cast<unsigned char>(last);
    b = last;
  }
  return 1;
}

int UIsDBCSLeadByteEx(unsigned codePage, unsigned char byte) {
  return IsDbcsLead(ResolveCodePage(codePage), byte) ? 1 : 0;
}

int UIsDBCSLeadByte(unsigned char byte) { return UIsDBCSLeadByteEx(kCpAcp, byte); }
