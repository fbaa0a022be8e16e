// The drive map on Windows: the identity, but for the process's own drive
// aliases (files.h says how paths reach the system).
#include "quarnel/platform/drivemap.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "quarnel/platform/env.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/files.h"

namespace quarnel_internal {

namespace {

constexpr unsigned kWinPathNotFound = 3;
constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinInsufficientBuffer = 122;
// Below this many units a full path reaches the system as it is; from it on,
// in the "\\?\" form (a folder's path leaves room for an 8.3 name).
constexpr std::size_t kClassicLimit = MAX_PATH - 12;

struct Aliases {
  std::shared_mutex lock;
  std::wstring drives[26];  // full system folders, no trailing backslash but "X:\"
  std::wstring uncRoot;
  bool any = false;  // a letter or the UNC root is aliased
};

wchar_t Upper(wchar_t c) { return c >= L'a' && c <= L'z' ? c - 32 : c; }

bool IsSep(wchar_t c) { return c == L'\\' || c == L'/'; }

bool IsDriveSpec(const std::wstring& p) {
  return p.size() >= 2 && p[1] == L':' && Upper(p[0]) >= L'A' && Upper(p[0]) <= L'Z';
}

// GetFullPathNameW of `path`; "" when it fails.
std::wstring Full(const std::wstring& path) {
  wchar_t small[MAX_PATH];
  DWORD n = ::GetFullPathNameW(path.c_str(), MAX_PATH, small, nullptr);
  if (n == 0) return std::wstring();
  if (n < MAX_PATH) return std::wstring(small, n);
  std::wstring big(n, L'\0');
  n = ::GetFullPathNameW(path.c_str(), n, big.data(), nullptr);
  big.resize(n < big.size() ? n : 0);
  return big;
}

// A host folder as an alias keeps it: full, without a trailing backslash
// unless it is a drive's root.
std::wstring AliasFolder(const char* hostFolder) {
  std::wstring full = Full(WideOf(hostFolder));
  while (full.size() > 3 && IsSep(full.back())) full.pop_back();
  return full;
}

Aliases& Map() {
  static Aliases* map = [] {
    auto* m = new Aliases;
    if (const char* spec = std::getenv("QUARNEL_DRIVES")) {
      const std::string s(spec);
      std::size_t i = 0;
      while (i < s.size()) {
        std::size_t j = s.find(';', i);
        if (j == std::string::npos) j = s.size();
        const std::string item = s.substr(i, j - i);
        if (item.size() >= 2 && item[1] == '=' && std::isalpha(static_cast<unsigned char>(item[0])))
          m->drives[Upper(static_cast<wchar_t>(item[0])) - L'A'] = AliasFolder(item.c_str() + 2);
        i = j + 1;
      }
    }
    if (const char* root = std::getenv("QUARNEL_UNC_ROOT")) {
      if (*root) m->uncRoot = AliasFolder(root);
    }
    for (const std::wstring& d : m->drives) m->any = m->any || !d.empty();
    m->any = m->any || !m->uncRoot.empty();
    return m;
  }();
  return *map;
}

// `p` with `prefix` (compared without case) and a separator or its end.
bool Under(const std::wstring& p, const std::wstring& prefix) {
  if (prefix.empty() || p.size() < prefix.size()) return false;
  if (::CompareStringOrdinal(p.c_str(), static_cast<int>(prefix.size()), prefix.c_str(),
                             static_cast<int>(prefix.size()), TRUE) != CSTR_EQUAL) {
    return false;
  }
  return p.size() == prefix.size() || IsSep(p[prefix.size()]) || IsSep(prefix.back());
}

// Strips the "\\?\" and "\\?\UNC\" forms.
std::wstring WithoutLongForm(const std::wstring& p) {
  if (p.rfind(L"\\\\?\\UNC\\", 0) == 0) return L"\\\\" + p.substr(8);
  if (p.rfind(L"\\\\?\\", 0) == 0) return p.substr(4);
  return p;
}

std::wstring LongForm(const std::wstring& full) {
  if (full.size() < kClassicLimit || full.rfind(L"\\\\?\\", 0) == 0 ||
      full.rfind(L"\\\\.\\", 0) == 0) {
    return full;
  }
  if (full.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + full.substr(2);
  return L"\\\\?\\" + full;
}

// A full caller's path with the aliases applied; "" when none applies and
// the letter is aliased (cannot happen) or the text is not a full path.
std::wstring Forward(const Aliases& m, const std::wstring& full) {
  if (IsDriveSpec(full)) {
    const std::wstring& folder = m.drives[Upper(full[0]) - L'A'];
    if (folder.empty()) return full;
    std::wstring rest = full.substr(2);
    if (!rest.empty() && IsSep(rest[0]) && IsSep(folder.back())) rest.erase(0, 1);
    return folder + rest;
  }
  if (full.rfind(L"\\\\", 0) == 0 && !m.uncRoot.empty()) return m.uncRoot + full.substr(1);
  return full;
}

std::u16string Text16(const std::wstring& w) {
  return std::u16string(reinterpret_cast<const char16_t*>(w.c_str()), w.size());
}

// The caller's path of a system path (without the long form), the map held.
std::u16string Backward(const Aliases& m, const std::wstring& p) {
  if (!m.any) return Text16(p);
  // The longest alias folder holding the path names it.
  int best = -1;
  for (int i = 0; i < 26; ++i) {
    if (Under(p, m.drives[i]) && (best < 0 || m.drives[i].size() > m.drives[best].size())) best = i;
  }
  if (best >= 0) {
    std::wstring rest = p.substr(m.drives[best].size());
    if (!rest.empty() && !IsSep(rest[0])) rest.insert(rest.begin(), L'\\');
    if (rest.empty()) rest = L"\\";
    return Text16(std::wstring(1, static_cast<wchar_t>(L'A' + best)) + L":" + rest);
  }
  if (Under(p, m.uncRoot) && p.size() > m.uncRoot.size()) {
    return Text16(L"\\" + p.substr(m.uncRoot.size()));
  }
  if (IsDriveSpec(p) && !m.drives[Upper(p[0]) - L'A'].empty()) return std::u16string();
  return Text16(p);
}

// The current folder as callers see it, the map held.
std::wstring CallerCurrent(const Aliases& m) {
  wchar_t buf[MAX_PATH];
  DWORD n = ::GetCurrentDirectoryW(MAX_PATH, buf);
  std::wstring cur;
  if (n < MAX_PATH) {
    cur.assign(buf, n);
  } else {
    cur.resize(n);
    n = ::GetCurrentDirectoryW(n, cur.data());
    cur.resize(n < cur.size() ? n : 0);
  }
  const std::u16string caller = Backward(m, cur);
  return caller.empty() ? cur : std::wstring(W(caller.c_str()), caller.size());
}

// A caller's path made absolute against the caller's current folder, the
// way Windows takes relative paths.
std::wstring Absolute(const Aliases& m, const std::wstring& p) {
  if (p.rfind(L"\\\\", 0) == 0 || p.rfind(L"//", 0) == 0) return p;
  if (IsDriveSpec(p) && p.size() >= 3 && IsSep(p[2])) return p;
  const std::wstring cur = CallerCurrent(m);
  std::wstring root;  // the current folder's root, "X:" or "\\srv\share"
  if (IsDriveSpec(cur)) {
    root = cur.substr(0, 2);
  } else {
    const std::size_t server = cur.find(L'\\', 2);
    const std::size_t share = server == std::wstring::npos ? server : cur.find(L'\\', server + 1);
    root = cur.substr(0, share);
  }
  if (IsDriveSpec(p)) {  // "X:rest", relative to the folder current on X:
    if (Upper(p[0]) == Upper(cur[0]) && IsDriveSpec(cur)) return cur + L"\\" + p.substr(2);
    return p.substr(0, 2) + L"\\" + p.substr(2);
  }
  if (!p.empty() && IsSep(p[0])) return root + p;
  return cur + L"\\" + p;
}

}  // namespace

std::wstring SystemPath(const char16_t* path, unsigned* err) {
  *err = 0;
  if (path == nullptr) {
    *err = kWinInvalidParameter;
    return std::wstring();
  }
  const std::wstring p(W(path));
  if (p.empty()) {
    *err = kWinPathNotFound;
    return std::wstring();
  }
  Aliases& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  if (p.rfind(L"\\\\?\\", 0) == 0) {  // taken as it is, but for the aliases
    const std::wstring inner = WithoutLongForm(p);
    return inner == p ? p : LongForm(Forward(m, inner));
  }
  if (p.rfind(L"\\\\.\\", 0) == 0) {  // a device; an aliased drive is its folder's volume
    const std::wstring device = p.substr(4);
    if (IsDriveSpec(device) && device.size() == 2 && !m.drives[Upper(device[0]) - L'A'].empty()) {
      wchar_t volume[MAX_PATH];
      const std::wstring& folder = m.drives[Upper(device[0]) - L'A'];
      if (!::GetVolumePathNameW(folder.c_str(), volume, MAX_PATH)) {
        *err = ::GetLastError();
        return std::wstring();
      }
      std::wstring v(volume);
      if (!v.empty() && IsSep(v.back())) v.pop_back();
      return L"\\\\.\\" + v;
    }
    return p;
  }
  if (!m.any) {
    const std::wstring full = Full(p);
    if (full.empty()) *err = ::GetLastError();
    return LongForm(full);
  }
  const std::wstring full = Full(Absolute(m, p));
  if (full.empty()) {
    *err = ::GetLastError();
    return std::wstring();
  }
  return LongForm(Forward(m, full));
}

std::u16string CallerPath(const std::wstring& system) {
  Aliases& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  return Backward(m, WithoutLongForm(system));
}

std::wstring SystemVolumeRoot(const char16_t* root, unsigned* err) {
  char16_t letter = 0;
  if (root != nullptr && OnAliasedDrive(root, &letter)) {
    const std::u16string r(root);
    const std::size_t after = r.rfind(u"\\\\?\\", 0) == 0 ? 6 : 2;
    if (r.size() > after + 1) {  // not the drive's root
      *err = 144;
      return std::wstring();
    }
    const std::wstring folder = SystemPath(r.substr(0, after).append(u"\\").c_str(), err);
    if (folder.empty()) return folder;
    wchar_t volume[MAX_PATH];
    if (!::GetVolumePathNameW(folder.c_str(), volume, MAX_PATH)) {
      *err = ::GetLastError();
      return std::wstring();
    }
    return volume;
  }
  if (root == nullptr) return std::wstring();
  return SystemPath(root, err);
}

bool OnAliasedDrive(const char16_t* path, char16_t* letter) {
  Aliases& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  if (!m.any) return false;
  std::wstring p = WithoutLongForm(W(path));
  if (p.rfind(L"\\\\.\\", 0) == 0) p = p.substr(4);
  if (!IsDriveSpec(p)) {
    if (!p.empty() && (IsSep(p[0]) || p.size() < 2 || p[1] != L':')) {
      // A relative path is on the current folder's drive.
      const std::wstring cur = CallerCurrent(m);
      if (!IsDriveSpec(cur) || (p.size() >= 2 && IsSep(p[0]) && IsSep(p[1]))) return false;
      p = cur;
    } else {
      return false;
    }
  }
  if (m.drives[Upper(p[0]) - L'A'].empty()) return false;
  *letter = static_cast<char16_t>(Upper(p[0]));
  return true;
}

unsigned CopyOut(const std::u16string& s, unsigned size, char16_t* buffer) {
  if (buffer == nullptr || size <= s.size()) return static_cast<unsigned>(s.size() + 1);
  std::memcpy(buffer, s.c_str(), (s.size() + 1) * sizeof(char16_t));
  return static_cast<unsigned>(s.size());
}

}  // namespace quarnel_internal

using namespace quarnel_internal;

int QuarnelSetDrive(char16_t letter, const char* hostFolder) {
  if (letter >= u'a' && letter <= u'z') letter -= 32;
  if (letter < u'A' || letter > u'Z') return 0;
  std::wstring folder = hostFolder && *hostFolder ? AliasFolder(hostFolder) : std::wstring();
  // The drive's own root is no alias.
  if (folder.size() == 3 && Upper(folder[0]) == letter && folder[1] == L':') folder.clear();
  Aliases& m = Map();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  m.drives[letter - u'A'] = folder;
  m.any = !m.uncRoot.empty();
  for (const std::wstring& d : m.drives) m.any = m.any || !d.empty();
  return 1;
}

std::string QuarnelGetDrive(char16_t letter) {
  if (letter >= u'a' && letter <= u'z') letter -= 32;
  if (letter < u'A' || letter > u'Z') return std::string();
  Aliases& m = Map();
  {
    std::shared_lock<std::shared_mutex> hold(m.lock);
    if (!m.drives[letter - u'A'].empty()) return Utf8Of(m.drives[letter - u'A']);
  }
  if ((::GetLogicalDrives() & (1u << (letter - u'A'))) == 0) return std::string();
  return std::string(1, static_cast<char>(letter)) + ":\\";
}

void QuarnelSetUncRoot(const char* hostFolder) {
  const std::wstring folder = hostFolder && *hostFolder ? AliasFolder(hostFolder) : std::wstring();
  Aliases& m = Map();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  m.uncRoot = folder;
  m.any = !folder.empty();
  for (const std::wstring& d : m.drives) m.any = m.any || !d.empty();
}

std::string QuarnelGetUncRoot() {
  Aliases& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  return Utf8Of(m.uncRoot);
}

int ULocFromHostPath(const char* hostPath, char16_t* out, int size) {
  if (hostPath == nullptr || out == nullptr || size <= 0) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  const std::wstring full = Full(WideOf(hostPath));
  const std::u16string loc = full.empty() ? std::u16string() : CallerPath(full);
  if (loc.empty()) {
    USetLastError(kWinPathNotFound);
    return 0;
  }
  if (loc.size() + 1 > static_cast<std::size_t>(size)) {
    USetLastError(kWinInsufficientBuffer);
    return 0;
  }
  std::memcpy(out, loc.c_str(), (loc.size() + 1) * sizeof(char16_t));
  return static_cast<int>(loc.size());
}

int UHostPathFromLoc(const char16_t* path, char* out, int size) {
  if (out == nullptr || size <= 0) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  unsigned err = 0;
  const std::wstring system = SystemPath(path, &err);
  if (system.empty()) {
    USetLastError(err);
    return 0;
  }
  const std::string host = Utf8Of(WithoutLongForm(system));
  if (host.size() + 1 > static_cast<std::size_t>(size)) {
    USetLastError(kWinInsufficientBuffer);
    return 0;
  }
  std::memcpy(out, host.c_str(), host.size() + 1);
  return static_cast<int>(host.size());
}

unsigned UGetLogicalDrives() {
  unsigned mask = ::GetLogicalDrives();
  Aliases& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  for (int i = 0; i < 26; ++i) {
    if (!m.drives[i].empty()) mask |= 1u << i;
  }
  return mask;
}
