#include "quarnel/platform/internal/winpath.h"

#include <cstdio>

namespace quarnel_internal {

namespace {

constexpr unsigned kWinPathNotFound = 3;
constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinInvalidName = 123;
constexpr unsigned kWinBadPathname = 161;
constexpr unsigned kWinFilenameTooLong = 206;
constexpr std::size_t kMaxComponent = 255;

bool IsSep(char16_t c, bool slashToo) { return c == u'\\' || (slashToo && c == u'/'); }

bool IsAsciiLetter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }

char16_t UpperAscii(char16_t c) { return c >= u'a' && c <= u'z' ? c - 32 : c; }

bool IsWild(char16_t c) { return c == u'*' || c == u'?' || c == u'<' || c == u'>' || c == u'"'; }

// 0, or the error a component with this text gives.
unsigned CheckComponent(const std::u16string& part, bool wildOk) {
  if (part.size() > kMaxComponent) return kWinFilenameTooLong;
  for (char16_t c : part) {
    if (c < 32 || c == u'|') return kWinInvalidName;
    if (IsWild(c) && !wildOk) return kWinInvalidName;
  }
  return 0;
}

// Appends the components of `rest` (separated by backslashes, and slashes
// when `slashToo`) to `out`, resolving "." and "..". A last component with
// wildcards keeps its trailing dots when `wildLast` ("*." is a pattern).
void AppendComponents(const std::u16string& rest, bool slashToo, bool wildLast, WinPath* out) {
  std::size_t i = 0;
  out->trailingSeparator = false;
  while (i < rest.size()) {
    std::size_t j = i;
    while (j < rest.size() && !IsSep(rest[j], slashToo)) ++j;
    std::u16string part = rest.substr(i, j - i);
    if (part == u"..") {
      if (!out->parts.empty()) out->parts.pop_back();
    } else if (!part.empty() && part != u".") {
      const bool pattern = wildLast && j >= rest.size() && HasWildcard(part);
      while (!pattern && !part.empty() && (part.back() == u'.' || part.back() == u' '))
        part.pop_back();
      if (!part.empty()) out->parts.push_back(part);
    }
    out->trailingSeparator = j < rest.size() && j + 1 == rest.size();
    i = j + 1;
  }
}

// Reads "\\server\share" (after the two backslashes) from `rest`; returns the
// position after the share, or npos when the root is malformed.
std::size_t ParseUncRoot(const std::u16string& rest, std::size_t from, bool slashToo,
                         WinPath* out) {
  std::size_t i = from;
  while (i < rest.size() && !IsSep(rest[i], slashToo)) ++i;
  out->server = rest.substr(from, i - from);
  if (out->server.empty() || i >= rest.size()) return std::u16string::npos;
  const std::size_t s = i + 1;
  std::size_t j = s;
  while (j < rest.size() && !IsSep(rest[j], slashToo)) ++j;
  out->share = rest.substr(s, j - s);
  if (out->share.empty()) return std::u16string::npos;
  return j;
}

bool Glob(const char16_t* p, std::size_t pn, const char16_t* s, std::size_t sn) {
  std::size_t pi = 0, si = 0, star = std::u16string::npos, mark = 0;
  while (si < sn) {
    if (pi < pn && (p[pi] == u'?' || p[pi] == u'>')) {
      ++pi;
      ++si;
    } else if (pi < pn && p[pi] == u'*') {
      star = pi++;
      mark = si;
    } else if (pi < pn && FoldUnit(p[pi]) == FoldUnit(s[si])) {
      ++pi;
      ++si;
    } else if (star != std::u16string::npos) {
      pi = star + 1;
      si = ++mark;
    } else {
      return false;
    }
  }
  while (pi < pn && p[pi] == u'*') ++pi;
  return pi == pn;
}

bool Glob(const std::u16string& p, const std::u16string& s) {
  return Glob(p.data(), p.size(), s.data(), s.size());
}

bool ShortNameUnit(char16_t c) {
  if (IsAsciiLetter(c) || (c >= u'0' && c <= u'9')) return true;
  for (char16_t k : std::u16string(u"!#$%&'()-@^_`{}~"))
    if (c == k) return true;
  return false;
}

void AppendUtf8(std::string* out, char32_t cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::u16string LongPathForm(const std::u16string& path) {
  if (path.size() >= 4 && path[0] == u'\\' && path[1] == u'\\' &&
      (path[2] == u'?' || path[2] == u'.') && path[3] == u'\\') {
    return path;
  }
  if (path.size() >= 2 && path[0] == u'\\' && path[1] == u'\\')
    return u"\\\\?\\UNC" + path.substr(1);
  if (path.size() >= 2 && IsAsciiLetter(path[0]) && path[1] == u':') return u"\\\\?\\" + path;
  return path;
}

unsigned ParseWinPath(const char16_t* path, const std::u16string& current, bool wildLast,
                      WinPath* out) {
  if (path == nullptr || out == nullptr) return kWinInvalidParameter;
  *out = WinPath{};
  std::u16string text(path);
  if (text.empty()) return kWinPathNotFound;
  bool slashToo = true;
  std::size_t restAt = 0;
  if (text.size() >= 4 && text[0] == u'\\' && text[1] == u'\\' && text[2] == u'?' &&
      text[3] == u'\\') {
    slashToo = false;
    text = text.substr(4);
    if (text.size() >= 4 && UpperAscii(text[0]) == u'U' && UpperAscii(text[1]) == u'N' &&
        UpperAscii(text[2]) == u'C' && text[3] == u'\\') {
      text = u"\\\\" + text.substr(4);
    } else if (text.size() >= 2 && IsAsciiLetter(text[0]) && text[1] == u':') {
      // "\\?\C:" and "\\?\C:name" name the drive's root and what lies below it.
      if (text.size() > 2 && text[2] != u'\\') text.insert(2, u"\\");
      if (text.size() == 2) text += u'\\';
    } else {
      return kWinBadPathname;
    }
  }
  if (text.size() >= 2 && IsSep(text[0], slashToo) && IsSep(text[1], slashToo)) {
    if (text.size() >= 4 && text[2] == u'.' && IsSep(text[3], slashToo)) {
      // The device namespace: only drives ("\\.\C:") are known.
      const std::u16string dev = text.substr(4);
      if (dev.size() == 2 && IsAsciiLetter(dev[0]) && dev[1] == u':') {
        out->kind = WinPath::kDevice;
        out->drive = UpperAscii(dev[0]);
        return 0;
      }
      return kWinBadPathname;
    }
    out->kind = WinPath::kUnc;
    const std::size_t after = ParseUncRoot(text, 2, slashToo, out);
    if (after == std::u16string::npos) return kWinBadPathname;
    if (CheckComponent(out->server, false) || CheckComponent(out->share, false))
      return kWinInvalidName;
    restAt = after;
  } else if (text.size() >= 2 && IsAsciiLetter(text[0]) && text[1] == u':') {
    out->kind = WinPath::kDrive;
    out->drive = UpperAscii(text[0]);
    restAt = 2;
    if (text.size() == 2 || !IsSep(text[2], slashToo)) {
      // "X:name": relative to the current folder when it is on that drive.
      WinPath base;
      if (!current.empty() && ParseWinPath(current.c_str(), u"", false, &base) == 0 &&
          base.kind == WinPath::kDrive && base.drive == out->drive) {
        out->parts = base.parts;
      }
    }
  } else {
    WinPath base;
    if (current.empty() || ParseWinPath(current.c_str(), u"", false, &base) != 0 ||
        base.kind == WinPath::kDevice) {
      return kWinPathNotFound;
    }
    *out = base;
    out->trailingSeparator = false;
    if (IsSep(text[0], slashToo)) out->parts.clear();  // "\name": the current root
  }
  AppendComponents(text.substr(restAt), slashToo, wildLast, out);
  for (std::size_t i = 0; i < out->parts.size(); ++i) {
    const unsigned err = CheckComponent(out->parts[i], wildLast && i + 1 == out->parts.size());
    if (err) return err;
  }
  return 0;
}

std::u16string FormatWinPath(const WinPath& p, bool trailing) {
  std::u16string s;
  switch (p.kind) {
    case WinPath::kDevice:
      return std::u16string(u"\\\\.\\") + p.drive + u':';
    case WinPath::kDrive:
      s = std::u16string(1, p.drive) + u':';
      break;
    case WinPath::kUnc:
      s = u"\\\\" + p.server + u'\\' + p.share;
      break;
  }
  if (p.parts.empty()) return s + u'\\';
  for (const std::u16string& part : p.parts) s += u'\\' + part;
  if (trailing) s += u'\\';
  return s;
}

char16_t FoldUnit(char16_t c) {
  if (c < 0x80) return UpperAscii(c);
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 0x20;
  if (c == 0xFF) return 0x178;
  if (c >= 0x100 && c <= 0x17F) {
    if (c == 0x131) return u'I';
    if (c == 0x130 || c == 0x138 || c == 0x149 || c == 0x17F) return c;
    const bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
    if (oddUpper) return (c & 1) ? c : c - 1;
    return (c & 1) ? c - 1 : c;
  }
  if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return c - 0x20;
  if (c == 0x3C2) return 0x3A3;
  if (c >= 0x430 && c <= 0x44F) return c - 0x20;
  if (c >= 0x450 && c <= 0x45F) return c - 0x50;
  if (c >= 0xFF41 && c <= 0xFF5A) return c - 0x20;
  return c;
}

std::u16string FoldName(const std::u16string& name) {
  std::u16string out(name);
  for (char16_t& c : out) c = FoldUnit(c);
  return out;
}

bool SameNameFolded(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (FoldUnit(a[i]) != FoldUnit(b[i])) return false;
  return true;
}

bool HasWildcard(const std::u16string& pattern) {
  for (char16_t c : pattern)
    if (IsWild(c)) return true;
  return false;
}

bool WildcardMatch(const std::u16string& pattern, const std::u16string& name) {
  if (pattern == u"*" || pattern == u"*.*") return true;
  const bool dotName = name == u"." || name == u"..";
  if (pattern.size() >= 2 && pattern.back() == u'.') {
    if (!dotName && name.find(u'.') != std::u16string::npos) return false;
    return Glob(pattern.substr(0, pattern.size() - 1), name);
  }
  if (pattern.size() >= 2 && pattern[pattern.size() - 2] == u'.' && pattern.back() == u'*') {
    if (Glob(pattern, name)) return true;
    return !dotName && name.find(u'.') == std::u16string::npos &&
           Glob(pattern.substr(0, pattern.size() - 2), name);
  }
  return Glob(pattern, name);
}

bool IsShortName(const std::u16string& name) {
  if (name == u"." || name == u"..") return true;
  const std::size_t dot = name.find(u'.');
  const std::size_t baseLen = dot == std::u16string::npos ? name.size() : dot;
  if (baseLen < 1 || baseLen > 8) return false;
  if (dot != std::u16string::npos) {
    const std::size_t extLen = name.size() - dot - 1;
    if (extLen < 1 || extLen > 3 || name.find(u'.', dot + 1) != std::u16string::npos) return false;
  }
  for (std::size_t i = 0; i < name.size(); ++i)
    if (i != dot && !ShortNameUnit(name[i])) return false;
  return true;
}

ShortNameStem ShortStemOf(const std::u16string& name) {
  std::size_t start = 0;
  while (start < name.size() && (name[start] == u'.' || name[start] == u' ')) ++start;
  const std::size_t dot = name.rfind(u'.');
  const bool hasExt = dot != std::u16string::npos && dot >= start;
  auto usable = [](char16_t c) -> char16_t { return ShortNameUnit(c) ? UpperAscii(c) : u'_'; };
  ShortNameStem stem;
  const std::size_t baseEnd = hasExt ? dot : name.size();
  for (std::size_t i = start; i < baseEnd; ++i)
    if (name[i] != u'.' && name[i] != u' ') stem.base += usable(name[i]);
  if (hasExt) {
    for (std::size_t i = dot + 1; i < name.size() && stem.ext.size() < 3; ++i)
      if (name[i] != u' ') stem.ext += usable(name[i]);
  }
  if (stem.base.empty()) stem.base = u"_";
  return stem;
}

std::u16string ShortNameFrom(const ShortNameStem& stem, int n) {
  char digits[16];
  const int len = std::snprintf(digits, sizeof digits, "~%d", n < 1 ? 1 : n);
  const std::size_t keep = len >= 8 ? 1 : static_cast<std::size_t>(8 - len);
  std::u16string out = stem.base.substr(0, keep);
  for (int i = 0; i < len; ++i) out += static_cast<char16_t>(digits[i]);
  if (!stem.ext.empty()) out += u'.' + stem.ext;
  return out;
}

std::u16string ShortNameFor(const std::u16string& name, int n) {
  return ShortNameFrom(ShortStemOf(name), n);
}

std::string HostFromWide(const std::u16string& wide) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    const char16_t c = wide[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] <= 0xDFFF) {
      AppendUtf8(&out, 0x10000 + ((char32_t(c) - 0xD800) << 10) + (wide[i + 1] - 0xDC00));
      ++i;
    } else if (c >= 0xDC80 && c <= 0xDCFF) {
      out.push_back(static_cast<char>(c - 0xDC00));  // an escaped host byte
    } else {
      AppendUtf8(&out, c);
    }
  }
  return out;
}

std::u16string WideFromHost(const std::string& host) {
  std::u16string out;
  out.reserve(host.size());
  const auto* s = reinterpret_cast<const unsigned char*>(host.data());
  const std::size_t n = host.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char b = s[i];
    if (b < 0x80) {
      out.push_back(b);
      ++i;
      continue;
    }
    int len = 0;
    char32_t cp = 0, min = 0;
    if (b >= 0xC2 && b <= 0xDF) {
      len = 2, cp = b & 0x1F, min = 0x80;
    } else if (b >= 0xE0 && b <= 0xEF) {
      len = 3, cp = b & 0x0F, min = 0x800;
    } else if (b >= 0xF0 && b <= 0xF4) {
      len = 4, cp = b & 0x07, min = 0x10000;
    }
    bool ok = len > 0 && i + len <= n;
    for (int k = 1; ok && k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (!ok) {
      out.push_back(static_cast<char16_t>(0xDC00 + b));
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += static_cast<std::size_t>(len);
  }
  return out;
}

}  // namespace quarnel_internal
