#include "quarnel/platform/netapi.h"

#include <sys/stat.h>

#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/resolve.h"
#include "quarnel/platform/internal/winpath.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/utf8.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kWinBadNetPath = 53;
constexpr unsigned kWinBadNetName = 67;
constexpr unsigned kWinMoreData = 234;
constexpr unsigned kWinBadDevice = 1200;
constexpr unsigned kWinNotConnected = 2250;

unsigned Answer(unsigned err) {
  USetLastError(err);
  return err;
}

bool IsFolder(const std::string& host) {
  struct stat st;
  return stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string Utf8OrEmpty(const char16_t* s) { return s != nullptr ? Utf16ToUtf8(s) : std::string(); }

}  // namespace

namespace quarnel_internal {

std::u16string RemoteNameOfHost(const std::string& hostFolder) {
  const std::string root = UncRootHost();
  const std::string prefix = root == "/" ? "/" : root + "/";
  if (hostFolder.compare(0, prefix.size(), prefix) != 0) return {};
  std::u16string rest = WideFromHost(hostFolder.substr(prefix.size()));
  for (char16_t& c : rest)
    if (c == u'/') c = u'\\';
  // At least a server and a share, both named.
  const std::size_t sep = rest.find(u'\\');
  if (sep == 0 || sep == std::u16string::npos || sep + 1 == rest.size() || rest[sep + 1] == u'\\')
    return {};
  return u"\\\\" + rest;
}

}  // namespace quarnel_internal

unsigned UNetGetConnection(const char16_t* localName, char16_t* remoteName, unsigned* length) {
  if (localName == nullptr || length == nullptr) return Answer(kWinBadDevice);
  const std::u16string local(localName);
  const char16_t letter = local.size() == 2 && local[1] == u':' ? FoldUnit(local[0]) : 0;
  if (letter < u'A' || letter > u'Z') return Answer(kWinBadDevice);
  const std::string host = DriveHost(letter);
  const std::u16string remote = host.empty() ? std::u16string() : RemoteNameOfHost(host);
  if (remote.empty()) return Answer(kWinNotConnected);
  if (remoteName == nullptr || *length <= remote.size()) {
    *length = static_cast<unsigned>(remote.size() + 1);
    return Answer(kWinMoreData);
  }
  remote.copy(remoteName, remote.size());
  remoteName[remote.size()] = 0;
  return Answer(0);
}

unsigned UNetAddConnection(const char16_t* remoteName, const char16_t* password,
                           const char16_t* user) {
  if (remoteName == nullptr) return Answer(kWinBadNetName);
  std::u16string name(remoteName);
  if (!name.empty() && name.back() == u'\\') name.pop_back();
  // "\\server\share": two names, nothing else.
  const std::size_t server = name.rfind(u'\\');
  if (name.size() < 5 || name.compare(0, 2, u"\\\\") != 0 || server <= 2 ||
      server + 1 == name.size() || name.find(u'\\', 2) != server) {
    return Answer(kWinBadNetName);
  }
  const std::string root = UncRootHost();
  const std::string serverHost = JoinHost(root, HostFromWide(name.substr(2, server - 2)));
  const std::string shareHost = JoinHost(serverHost, HostFromWide(name.substr(server + 1)));
  if (IsFolder(shareHost)) return Answer(0);
  if (auto* connect = QuarnelEnv()->netConnect) {
    const std::string u = Utf8OrEmpty(user), p = Utf8OrEmpty(password);
    const unsigned err =
        connect(Utf16ToUtf8(name).c_str(), shareHost.c_str(), user != nullptr ? u.c_str() : nullptr,
                password != nullptr ? p.c_str() : nullptr);
    if (err != 0) return Answer(err);
    return Answer(IsFolder(shareHost) ? 0 : kWinBadNetName);
  }
  return Answer(IsFolder(serverHost) ? kWinBadNetName : kWinBadNetPath);
}
