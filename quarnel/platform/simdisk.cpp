// The host file calls the simulated disk's record needs, on Linux.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "quarnel/platform/internal/resolve.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"

namespace quarnel_internal {
namespace {

constexpr unsigned kWinPathNotFound = 3;

bool MakeFolders(const std::string& path) {
  for (std::size_t at = 1; (at = path.find('/', at)) != std::string::npos; ++at) {
    const std::string part = path.substr(0, at);
    if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  return true;
}

}  // namespace

unsigned HostFolderOf(const char16_t* folder, std::string* host) {
  Resolved r;
  if (const unsigned err = ResolvePath(LongPathForm(folder).c_str(), false, &r)) return err;
  if (!r.exists || !S_ISDIR(r.st.st_mode)) return kWinPathNotFound;
  *host = r.host;
  while (host->size() > 1 && host->back() == '/') host->pop_back();
  return 0;
}

bool ReadHostFile(const std::string& host, std::string* bytes) {
  struct stat st;
  if (::stat(host.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  std::FILE* f = std::fopen(host.c_str(), "rb");
  if (f == nullptr) return false;
  char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes->append(buf, n);
  std::fclose(f);
  return true;
}

unsigned ReplaceHostFile(const std::string& host, const std::string* bytes) {
  if (::unlink(host.c_str()) != 0 && errno != ENOENT) return UWinErrorFromErrno(errno);
  if (bytes == nullptr) return 0;
  if (!MakeFolders(host)) return UWinErrorFromErrno(errno);
  std::FILE* f = std::fopen(host.c_str(), "wb");
  if (f == nullptr) return UWinErrorFromErrno(errno);
  const bool ok = std::fwrite(bytes->data(), 1, bytes->size(), f) == bytes->size();
  if (std::fclose(f) != 0 || !ok) return UWinErrorFromErrno(errno);
  return 0;
}

bool SameHostName(std::string_view a, std::string_view b) { return a == b; }

}  // namespace quarnel_internal
