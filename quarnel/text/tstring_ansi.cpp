// TString: 8-bit text (the system ANSI code page, Mac Roman and the
// library's own Mac Roman table) and tagged strings from string lists.
#include <atomic>
#include <climits>
#include <cstring>
#include <string>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/codepage.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace {

// Not computed yet. The choices are made on first use without a lock: the
// computation is idempotent, so racing threads store the same value.
constexpr int kUnset = INT_MIN;
std::atomic<int> g_acp{kUnset};
std::atomic<int> g_mac{kUnset};

constexpr int kInternalMac = -1;

// Mac OS Roman, bytes 0x80 to 0xFF, in its revised form (0xDB is the euro
// sign, 0xF0 the private-use Apple logo). The 0 after the last row stops the
// reverse search.
const char16_t kMacRoman[129] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1,  // 80
    0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8,  // 88
    0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,  // 90
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC,  // 98
    0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF,  // A0
    0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,  // A8
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211,  // B0
    0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8,  // B8
    0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,  // C0
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153,  // C8
    0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,  // D0
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,  // D8
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,  // E0
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4,  // E8
    0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,  // F0
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,  // F8
    0x0000,
};

// The byte the internal translation writes for a unit it cannot map; kept
// so on purpose, readers of the 8-bit text rely on it.
constexpr char kUnmappable = 7;

int SystemAcp() {
  int acp = g_acp.load(std::memory_order_relaxed);
  if (acp == kUnset) {
    acp = static_cast<int>(UGetACP());
    g_acp.store(acp, std::memory_order_relaxed);
  }
  return acp;
}

// Whether the platform converts "xyzzy" through `codePage` both ways unchanged.
bool ProbeMac(unsigned codePage) {
  static const char kProbe[6] = "xyzzy";
  char16_t wide[6] = {};
  char back[6] = {};
  if (UMultiByteToWideChar(codePage, kMbPrecomposed, kProbe, -1, wide, 6) == 0) return false;
  if (UWideCharToMultiByte(codePage, 0, wide, -1, back, 6, nullptr, nullptr) == 0) return false;
  return std::memcmp(back, kProbe, 6) == 0;
}

int MacChoice() {
  int mac = g_mac.load(std::memory_order_relaxed);
  if (mac == kUnset) {
    if (ProbeMac(kCpMacCp)) {
      mac = kCpMacCp;
    } else if (ProbeMac(kCpMacRoman)) {
      mac = kCpMacRoman;
    } else {
      DebugLogf(kLogInternalData, "Mac code pages failed: using internal translation instead");
      mac = kInternalMac;
    }
    g_mac.store(mac, std::memory_order_relaxed);
  }
  return mac;
}

// The platform's flags for a page: Windows refuses MB_PRECOMPOSED for UTF-8.
unsigned ToWideFlags(int codePage) {
  return codePage == static_cast<int>(kCpUtf8) ? 0u : unsigned{kMbPrecomposed};
}

// The page the internal translation hands over to the platform: the table
// is not used on a Japanese system, whose ANSI page converts itself.
bool UsesTable(int codePage) {
  return codePage == kInternalMac && SystemAcp() != static_cast<int>(kCp932);
}

int PlatformPage(int codePage) {
  return codePage == kInternalMac ? static_cast<int>(kCp932) : codePage;
}

}  // namespace

namespace quarnel_internal {

int TStringResolveCodePage(int selector) {
  if (selector != 0 && selector != 2) {
    Debug("tstring", 232);
    selector = 0;
  }
  return selector == 0 ? SystemAcp() : MacChoice();
}

int TStringToWide(int codePage, const char* src, int srcLen, char16_t* dst, int dstLen) {
  if (src == nullptr || srcLen <= 0) return 0;
  if (UsesTable(codePage)) {
    if (dstLen == 0) return srcLen;
    const int n = srcLen < dstLen ? srcLen : dstLen;
    for (int i = 0; i < n; ++i) {
      const auto b = static_cast<unsigned char>(src[i]);
      dst[i] = b < 128 ? static_cast<char16_t>(b) : kMacRoman[b - 128];
    }
    return n;
  }
  const int page = PlatformPage(codePage);
  return UMultiByteToWideChar(static_cast<unsigned>(page), ToWideFlags(page), src, srcLen, dst,
                              dstLen);
}

int TStringToAnsi(int codePage, const char16_t* src, int srcLen, char* dst, int dstLen) {
  if (src == nullptr || srcLen <= 0) return 0;
  if (UsesTable(codePage)) {
    if (dstLen == 0) return srcLen;
    const int n = srcLen < dstLen ? srcLen : dstLen;
    for (int i = 0; i < n; ++i) {
      const char16_t u = src[i];
      if (u < 128) {
        dst[i] = static_cast<char>(u);
        continue;
      }
      int r = 0;
      while (kMacRoman[r] != 0 && kMacRoman[r] != u) ++r;
      dst[i] = kMacRoman[r] != 0 ? static_cast<char>(128 + r) : kUnmappable;
    }
    return n;
  }
  return UWideCharToMultiByte(static_cast<unsigned>(PlatformPage(codePage)), 0, src, srcLen, dst,
                              dstLen, nullptr, nullptr);
}

void TStringSetCodePages(int acp, int mac) {
  g_acp.store(acp, std::memory_order_relaxed);
  g_mac.store(mac, std::memory_order_relaxed);
}

void TStringResetCodePages() {
  g_acp.store(kUnset, std::memory_order_relaxed);
  g_mac.store(kUnset, std::memory_order_relaxed);
}

}  // namespace quarnel_internal

using quarnel_internal::TStringResolveCodePage;
using quarnel_internal::TStringToAnsi;
using quarnel_internal::TStringToWide;

// ---- 8-bit text ------------------------------------------------------------

// Replaces the text by `len` bytes converted from `codePage`: the size is
// measured first, then the text converted into place.
void TString::assignAnsiResolved(int codePage, const char* text, int len) {
  checkUnlocked(kLineLocked);
  codePage_ = codePage;
  const int units = TStringToWide(codePage, text, len, nullptr, 0);
  if (units <= 0) {
    length_ = 0;
    text_[0] = 0;
    return;
  }
  if (units > kMaxLength) {
    setBufferSize(units * 2);  // asserts; the text is cut
    std::u16string all(static_cast<std::size_t>(units), u'\0');
    const int n = TStringToWide(codePage, text, len, all.data(), units);
    Assign(all.data(), static_cast<short>(n < kMaxLength ? n : kMaxLength));
    return;
  }
  setBufferSize(units * 2);
  const int n = TStringToWide(codePage, text, len, text_, units);
  length_ = static_cast<short>(n > 0 ? n : 0);
  text_[length_] = 0;
}

short TString::AssignAnsi(const char* text, short len, int codePage) {
  const int page = TStringResolveCodePage(codePage);
  if (text == nullptr) {
    len = 0;
  } else if (len < 0) {
    len = AnsiByteCount(text);
  }
  assignAnsiResolved(page, text, len);
  return len;
}

void TString::AppendAnsi(const char* text, short len, int codePage) {
  const int page = TStringResolveCodePage(codePage);
  if (text == nullptr) return;
  if (len < 0) len = AnsiByteCount(text);
  TString converted;
  converted.assignAnsiResolved(page, text, len);
  codePage_ = page;
  Append(converted);
}

// The number of units at the start of the text whose 8-bit form fits in
// `bytes` bytes. A character is never split: a surrogate pair is measured as
// one, and a double-byte character that would end past the limit (its lead
// byte in the last allowed position) ends the prefix before it, as does a
// lone lead byte before the terminator.
int TString::ansiPrefixUnits(int codePage, int bytes) const {
  if (bytes <= 0 || length_ == 0) return 0;
  const int total = TStringToAnsi(codePage, text_, length_, nullptr, 0);
  if (total <= bytes) return length_;
  const bool dbcs = codePage != -1 || SystemAcp() == static_cast<int>(kCp932);
  const unsigned leadPage =
      static_cast<unsigned>(codePage == -1 ? static_cast<int>(kCp932) : codePage);
  int used = 0;
  int i = 0;
  while (i < length_) {
    int k = 1;
    if (text_[i] >= 0xD800 && text_[i] < 0xDC00 && i + 1 < length_ && text_[i + 1] >= 0xDC00 &&
        text_[i + 1] < 0xE000) {
      k = 2;
    }
    char one[16];
    const int b = TStringToAnsi(codePage, text_ + i, k, one, sizeof one);
    if (used + b > bytes) break;
    if (dbcs && b == 1 && UIsDBCSLeadByteEx(leadPage, static_cast<unsigned char>(one[0]))) break;
    used += b;
    i += k;
  }
  return i;
}

short TString::fillAnsiResolved(int codePage, char* dst, int size) const {
  if (size <= 0) return 0;
  const int units = ansiPrefixUnits(codePage, size - 1);
  int n = TStringToAnsi(codePage, text_, units, dst, size - 1);
  if (n < 0) n = 0;
  dst[n] = 0;
  return static_cast<short>(n);
}

TString TString::LeftAnsi(int bytes, int codePage) const {
  const int page = TStringResolveCodePage(codePage);
  return Left(static_cast<short>(ansiPrefixUnits(page, bytes)));
}

short TString::FillBufferAnsi(char* dst, short size, int codePage) const {
  const int page = TStringResolveCodePage(codePage);
  if (dst == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  if (size <= 0) {
    Debug("tstring", kLineRange);
    return 0;
  }
  return fillAnsiResolved(page, dst, size);
}

char* TString::GetBufferAnsi(short bytes, int codePage) {
  const int page = TStringResolveCodePage(codePage);
  if (ansi_ != nullptr) {
    Debug("tstring", kLineAnsiOut);
    return ansi_;
  }
  int size = bytes;
  if (size < 0) size = TStringToAnsi(page, text_, length_, nullptr, 0);
  if (size > 32767) size = 32767;
  ansi_ = static_cast<char*>(MemAlloc(static_cast<unsigned>(size) + 1));
  fillAnsiResolved(page, ansi_, size + 1);
  codePage_ = page;
  ++ansiLocks_;
  return ansi_;
}

void TString::ReleaseBufferAnsi() {
  if (ansi_ == nullptr || ansiLocks_ == 0) {
    Debug("tstring", kLineNotOut);
    return;
  }
  --ansiLocks_;
  const int cap = static_cast<int>(MemSize(ansi_)) - 1;
  int n = 0;
  while (n < cap && ansi_[n] != 0) ++n;
  char* copy = ansi_;
  ansi_ = nullptr;
  assignAnsiResolved(codePage_, copy, n);
  MemFree(copy);
}

const char* TString::ReadBufferAnsi(int codePage) {
  const int page = TStringResolveCodePage(codePage);
  if (ansi_ != nullptr) {
    Debug("tstring", kLineAnsiOut);
    return ansi_;
  }
  int size = TStringToAnsi(page, text_, length_, nullptr, 0);
  if (size > 32767) size = 32767;
  if (size < 0) size = 0;
  ansi_ = static_cast<char*>(MemAlloc(static_cast<unsigned>(size) + 1));
  fillAnsiResolved(page, ansi_, size + 1);
  codePage_ = page;
  ++ansiReadLocks_;
  return ansi_;
}

void TString::CloseBufferAnsi() {
  if (ansi_ == nullptr || ansiReadLocks_ == 0) {
    Debug("tstring", kLineNotOut);
    return;
  }
  --ansiReadLocks_;
  MemFree(ansi_);
  ansi_ = nullptr;
}

// ---- string lists ------------------------------------------------------------

namespace {

constexpr unsigned kListDump = 0xFFFF;

bool WellFormedTag(unsigned tag) { return (tag & 0x80808080u) == 0 && (tag & 0x60606060u) != 0; }

}  // namespace

// A list is a run of entries: a 16-bit length L (tag and text), the 4-byte
// tag (first character first), L - 4 bytes of text, a pad byte after an odd
// L; an L of 0xFFFF ends it. Every entry is checked against the resource's
// size before it is read.
int TString::LoadKString(unsigned short listId, unsigned key) {
  Clear();
  // The list's bytes belong to its module: no module unloads while they are read.
  TMonitorHold hold(RMModuleLock());
  int size = 0;
  const auto* data = static_cast<const unsigned char*>(RMGetKList(listId, &size));
  if (data == nullptr) return key == kListDump ? 1 : 0;
  if (key != kListDump) {
    // A well-formed list is looked up through its index; the walk below
    // gives the same answer, and is still what reports a faulty list.
    const unsigned char* text = nullptr;
    int length = 0;
    const int found = quarnel_internal::KListLookup(data, size, key, &text, &length);
    if (found == 1) assignAnsiResolved(SystemAcp(), reinterpret_cast<const char*>(text), length);
    if (found >= 0) return found;
  }
  const int id = listId;
  const auto bad = [&] {
    DebugLogf(kLogInternalData, "LoadKString: Bad resource looking for %Y in ID %~d", key, id);
  };
  bool found = false;
  int pos = 0;
  while (true) {
    if (pos + 2 > size) {
      bad();
      break;
    }
    unsigned short len;
    std::memcpy(&len, data + pos, 2);
    if (len == 0xFFFF) break;
    if (len < 4 || pos + 2 + len > size) {
      bad();
      break;
    }
    const unsigned char* t = data + pos + 2;
    const unsigned tag =
        (unsigned{t[0]} << 24) | (unsigned{t[1]} << 16) | (unsigned{t[2]} << 8) | t[3];
    if (!WellFormedTag(tag)) {
      DebugLogf(kLogInternalData, "LoadKString: Invalid signature (%Y) looking for %Y in ID %~d",
                tag, key, id);
      break;
    }
    if (tag == key) {
      assignAnsiResolved(SystemAcp(), reinterpret_cast<const char*>(t + 4), len - 4);
      found = true;
      break;
    }
    if (key == kListDump) DebugLogf(kLogMisuse, "%y", tag);
    pos += 2 + len + (len & 1);
    if (pos >= size) {
      bad();
      break;
    }
  }
  return (found || key == kListDump) ? 1 : 0;
}
