#include "quarnel/platform/netapi.h"

#include <string>

#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/files.h"
#include "quarnel/platform/win32/winapi.h"

// Drive letters and the UNC root the host aliases are the process's own
// (files.h): their shares are folders under the UNC root's alias, as on
// Linux. Everything else is the system's own WNet calls.

using namespace quarnel_internal;

namespace {

unsigned Answer(unsigned err) {
  USetLastError(err);
  return err;
}

bool IsFolder(const std::wstring& path) {
  const DWORD a = ::GetFileAttributesW(path.c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::wstring Slashed(std::wstring p) {
  for (wchar_t& c : p)
    if (c == L'/') c = L'\\';
  while (!p.empty() && p.back() == L'\\') p.pop_back();
  return p;
}

std::string Utf8OrEmpty(const char16_t* s) {
  return s != nullptr ? Utf8Of(W(s), std::char_traits<char16_t>::length(s)) : std::string();
}

}  // namespace

namespace quarnel_internal {

std::u16string RemoteNameOfHost(const std::string& hostFolder) {
  const std::wstring root = Slashed(WideOf(QuarnelGetUncRoot()));
  if (root.empty()) return {};
  const std::wstring folder = Slashed(WideOf(hostFolder));
  if (folder.size() <= root.size() + 1 ||
      ::_wcsnicmp(folder.c_str(), root.c_str(), root.size()) != 0 || folder[root.size()] != L'\\') {
    return {};
  }
  const std::wstring rest = folder.substr(root.size() + 1);
  // At least a server and a share, both named.
  const std::size_t sep = rest.find(L'\\');
  if (sep == 0 || sep == std::wstring::npos || sep + 1 == rest.size()) return {};
  const std::wstring remote = L"\\\\" + rest;
  return std::u16string(remote.begin(), remote.end());
}

}  // namespace quarnel_internal

unsigned UNetGetConnection(const char16_t* localName, char16_t* remoteName, unsigned* length) {
  if (localName == nullptr || length == nullptr) return Answer(ERROR_BAD_DEVICE);
  const std::u16string local(localName);
  char16_t letter = local.size() == 2 && local[1] == u':' ? local[0] : 0;
  if (letter >= u'a' && letter <= u'z') letter -= 32;
  if (letter < u'A' || letter > u'Z') return Answer(ERROR_BAD_DEVICE);
  const std::string host = QuarnelGetDrive(letter);
  const bool aliased = !host.empty() && host != std::string(1, static_cast<char>(letter)) + ":\\";
  if (!aliased) {
    DWORD n = *length;
    const DWORD err = ::WNetGetConnectionW(W(localName), W(remoteName), &n);
    if (err == ERROR_MORE_DATA) *length = n;
    // A local drive, or one the system does not have (the name is well formed).
    if (err != NO_ERROR && err != ERROR_MORE_DATA) return Answer(ERROR_NOT_CONNECTED);
    return Answer(err);
  }
  const std::u16string remote = RemoteNameOfHost(host);
  if (remote.empty()) return Answer(ERROR_NOT_CONNECTED);
  if (remoteName == nullptr || *length <= remote.size()) {
    *length = static_cast<unsigned>(remote.size() + 1);
    return Answer(ERROR_MORE_DATA);
  }
  remote.copy(remoteName, remote.size());
  remoteName[remote.size()] = 0;
  return Answer(0);
}

unsigned UNetAddConnection(const char16_t* remoteName, const char16_t* password,
                           const char16_t* user) {
  if (remoteName == nullptr) return Answer(ERROR_BAD_NET_NAME);
  std::u16string name(remoteName);
  if (!name.empty() && name.back() == u'\\') name.pop_back();
  // "\\server\share": two names, nothing else.
  const std::size_t server = name.rfind(u'\\');
  if (name.size() < 5 || name.compare(0, 2, u"\\\\") != 0 || server <= 2 ||
      server + 1 == name.size() || name.find(u'\\', 2) != server) {
    return Answer(ERROR_BAD_NET_NAME);
  }
  const std::wstring root = Slashed(WideOf(QuarnelGetUncRoot()));
  if (root.empty()) {
    NETRESOURCEW share{};
    share.dwType = RESOURCETYPE_DISK;
    std::wstring remote(W(name.c_str()), name.size());
    share.lpRemoteName = remote.data();
    return Answer(::WNetAddConnection2W(&share, W(password), W(user), 0));
  }
  const std::wstring serverFolder = root + L'\\' + std::wstring(W(name.c_str()) + 2, server - 2);
  const std::wstring shareFolder =
      serverFolder + L'\\' + std::wstring(W(name.c_str()) + server + 1);
  if (IsFolder(shareFolder)) return Answer(0);
  if (auto* connect = QuarnelEnv()->netConnect) {
    const std::string u = Utf8OrEmpty(user), p = Utf8OrEmpty(password);
    const unsigned err =
        connect(Utf8OrEmpty(name.c_str()).c_str(), Utf8Of(shareFolder).c_str(),
                user != nullptr ? u.c_str() : nullptr, password != nullptr ? p.c_str() : nullptr);
    if (err != 0) return Answer(err);
    return Answer(IsFolder(shareFolder) ? 0 : ERROR_BAD_NET_NAME);
  }
  return Answer(IsFolder(serverFolder) ? ERROR_BAD_NET_NAME : ERROR_BAD_NETPATH);
}
