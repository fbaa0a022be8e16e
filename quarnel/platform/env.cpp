#include "quarnel/platform/env.h"

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/vmem.h"

namespace quarnel_internal {

unsigned AcpFromLocaleName(const char* name) {
  if (!name) return 1252;
  const char* dot = std::strchr(name, '.');
  if (!dot) return 1252;
  // The codeset runs from the dot to the modifier ('@') or the end; "UTF-8",
  // "utf8", "UTF8" all name it.
  std::string codeset;
  for (const char* p = dot + 1; *p && *p != '@'; ++p) {
    if (*p == '-' || *p == '_') continue;
    codeset += static_cast<char>(*p >= 'A' && *p <= 'Z' ? *p - 'A' + 'a' : *p);
  }
  return codeset == "utf8" ? 65001u : 1252u;
}

}  // namespace quarnel_internal

namespace {

std::string EnvVar(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string HomeFolder() {
  std::string home = EnvVar("HOME");
  if (!home.empty()) return StripTrailingSlashes(home);
  struct passwd pw;
  struct passwd* found = nullptr;
  char buf[4096];
  if (getpwuid_r(getuid(), &pw, buf, sizeof buf, &found) == 0 && found && found->pw_dir)
    return StripTrailingSlashes(found->pw_dir);
  return std::string();
}

std::string CurrentFolder() {
  char buf[4096];
  if (getcwd(buf, sizeof buf)) return buf;
  return std::string();
}

std::string ProgramFolder() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return std::string();
  std::string path(buf, static_cast<std::size_t>(n));
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string ProgramName() {
  std::string name;
  if (FILE* f = std::fopen("/proc/self/comm", "r")) {
    char buf[64];
    if (std::fgets(buf, sizeof buf, f)) name = buf;
    std::fclose(f);
  }
  while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
  return name.empty() ? std::string("quarnel") : name;
}

// Reads "MemAvailable:" and "MemTotal:" (kB) from /proc/meminfo; false when
// the file cannot be read.
bool ReadMeminfo(std::uint64_t* avail, std::uint64_t* total) {
  FILE* f = std::fopen("/proc/meminfo", "r");
  if (!f) return false;
  char line[256];
  bool gotAvail = false;
  while (std::fgets(line, sizeof line, f)) {
    unsigned long long kb = 0;
    if (std::sscanf(line, "MemAvailable: %llu", &kb) == 1) {
      *avail = kb * 1024;
      gotAvail = true;
    } else if (std::sscanf(line, "MemTotal: %llu", &kb) == 1) {
      *total = kb * 1024;
    }
  }
  std::fclose(f);
  return gotAvail;
}

// "6.1.0-18-amd64" gives 6, 1, 0: the first three numbers of the release.
void ParseRelease(const char* release, int* major, int* minor, int* build) {
  int* out[3] = {major, minor, build};
  const char* p = release;
  for (int i = 0; i < 3; ++i) {
    if (*p < '0' || *p > '9') break;
    long v = 0;
    while (*p >= '0' && *p <= '9') {
      v = v * 10 + (*p - '0');
      if (v > 0x7FFFFFFF) v = 0x7FFFFFFF;
      ++p;
    }
    *out[i] = static_cast<int>(v);
    if (*p != '.') break;
    ++p;
  }
}

unsigned ProcessAcp() {
  for (const char* var : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* v = std::getenv(var);
    if (v && *v) return quarnel_internal::AcpFromLocaleName(v);
  }
  return 1252;
}

}  // namespace

QuarnelEnvType QuarnelDefaultEnv() {
  QuarnelEnvType env;
  env.userFolder = HomeFolder();
  env.workFolder = CurrentFolder();
  env.appFolder = ProgramFolder();
  env.appName = ProgramName();
  const std::string state = StripTrailingSlashes(EnvVar("XDG_STATE_HOME"));
  if (!state.empty() && state[0] == '/')
    env.logFolder = state + "/" + env.appName;
  else if (!env.userFolder.empty())
    env.logFolder =
        (env.userFolder == "/" ? std::string() : env.userFolder) + "/.local/state/" + env.appName;
  struct utsname un;
  if (uname(&un) == 0) {
    env.systemVersion = std::string(un.sysname) + " " + un.release;
    env.systemExtra = un.version;
    ParseRelease(un.release, &env.osMajor, &env.osMinor, &env.osBuild);
  }
  ReadMeminfo(&env.availPhysMemory, &env.totalPhysMemory);
  env.acp = ProcessAcp();
  env.lcid = 0;
  return env;
}

int QuarnelMakeLogFolder() {
  const std::string& folder = QuarnelEnv()->logFolder;
  if (folder.empty()) {
    USetLastError(3);  // ERROR_PATH_NOT_FOUND
    return 0;
  }
  // Every prefix ending before a '/', then the whole path.
  for (std::size_t i = 1; i <= folder.size(); ++i) {
    if (i < folder.size() && folder[i] != '/') continue;
    const std::string prefix = folder.substr(0, i);
    if (mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      USetLastError(UWinErrorFromErrno(errno, true));
      return 0;
    }
  }
  struct stat st;
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    USetLastError(267);  // ERROR_DIRECTORY: the name is not a folder
    return 0;
  }
  return 1;
}
