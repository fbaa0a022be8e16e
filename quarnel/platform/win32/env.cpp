#include "quarnel/platform/env.h"

#include <cstdio>

#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/utf8.h"
#include "quarnel/platform/vmem.h"
#include "quarnel/platform/win32/winapi.h"

// The record on Windows: folders are Windows paths (UTF-8, '\' separators, no
// trailing separator):
//   userFolder     %USERPROFILE%
//   workFolder     the current folder at the first call
//   appFolder      the folder of the running program
//   logFolder      %LOCALAPPDATA%\<appName> (not created)
//   appName        the program's file name without ".exe"
//   systemVersion  "Windows <major>.<minor>.<build>" as the system reports
//                  itself (RtlGetVersion, which no compatibility shim alters)
//   systemExtra    the service pack text
//   acp            GetACP(); lcid 0 (the user's locale)

namespace quarnel_internal {

std::wstring WideOf(const std::string& utf8) {
  const std::u16string u = Utf8ToUtf16(utf8);
  return std::wstring(u.begin(), u.end());
}

std::string Utf8Of(const wchar_t* wide, std::size_t n) {
  return Utf16ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(wide), n));
}

std::string Utf8Of(const std::wstring& wide) { return Utf8Of(wide.data(), wide.size()); }

}  // namespace quarnel_internal

namespace {

using quarnel_internal::Utf8Of;

std::string EnvVar(const wchar_t* name) {
  wchar_t buf[32768];
  const DWORD n = ::GetEnvironmentVariableW(name, buf, 32768);
  return n > 0 && n < 32768 ? Utf8Of(buf, n) : std::string();
}

std::string StripTrailingSeparators(std::string path) {
  while (path.size() > 3 && (path.back() == '\\' || path.back() == '/')) path.pop_back();
  return path;
}

std::string ProgramPath() {
  wchar_t buf[32768];
  const DWORD n = ::GetModuleFileNameW(nullptr, buf, 32768);
  return n > 0 && n < 32768 ? Utf8Of(buf, n) : std::string();
}

}  // namespace

QuarnelEnvType QuarnelDefaultEnv() {
  QuarnelEnvType env;
  env.userFolder = StripTrailingSeparators(EnvVar(L"USERPROFILE"));
  wchar_t cwd[32768];
  const DWORD n = ::GetCurrentDirectoryW(32768, cwd);
  if (n > 0 && n < 32768) env.workFolder = StripTrailingSeparators(Utf8Of(cwd, n));
  const std::string program = ProgramPath();
  const std::size_t slash = program.find_last_of("\\/");
  if (slash != std::string::npos) {
    env.appFolder = program.substr(0, slash);
    env.appName = program.substr(slash + 1);
  } else {
    env.appName = program;
  }
  if (env.appName.size() > 4) {
    std::string ext = env.appName.substr(env.appName.size() - 4);
    for (char& c : ext) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    if (ext == ".exe") env.appName.resize(env.appName.size() - 4);
  }
  const std::string local = StripTrailingSeparators(EnvVar(L"LOCALAPPDATA"));
  if (!local.empty()) env.logFolder = local + "\\" + env.appName;

  using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
  OSVERSIONINFOW info{};
  info.dwOSVersionInfoSize = sizeof info;
  auto getVersion = reinterpret_cast<RtlGetVersionFn>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  if (getVersion != nullptr && getVersion(&info) == 0) {
    env.osMajor = static_cast<int>(info.dwMajorVersion);
    env.osMinor = static_cast<int>(info.dwMinorVersion);
    env.osBuild = static_cast<int>(info.dwBuildNumber);
    char text[64];
    std::snprintf(text, sizeof text, "Windows %d.%d.%d", env.osMajor, env.osMinor, env.osBuild);
    env.systemVersion = text;
    env.systemExtra = Utf8Of(info.szCSDVersion, wcsnlen(info.szCSDVersion, 128));
  }
  MEMORYSTATUSEX mem{};
  mem.dwLength = sizeof mem;
  if (::GlobalMemoryStatusEx(&mem)) {
    env.availPhysMemory = mem.ullAvailPhys;
    env.totalPhysMemory = mem.ullTotalPhys;
  }
  env.acp = ::GetACP();
  env.lcid = 0;
  return env;
}

int QuarnelMakeLogFolder() {
  const std::string& folder = QuarnelEnv()->logFolder;
  if (folder.empty()) {
    USetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
  }
  // Every prefix ending before a separator, then the whole path; a drive
  // ("C:") or the start of a UNC name is never created.
  for (std::size_t i = 1; i <= folder.size(); ++i) {
    if (i < folder.size() && folder[i] != '\\' && folder[i] != '/') continue;
    const std::string prefix = folder.substr(0, i);
    if (prefix.size() <= 2 || prefix.back() == ':' || prefix == "\\\\") continue;
    if (!::CreateDirectoryW(quarnel_internal::WideOf(prefix).c_str(), nullptr) &&
        ::GetLastError() != ERROR_ALREADY_EXISTS) {
      // A share's server and share names cannot be made: look further on.
      if (prefix.rfind("\\\\", 0) == 0) continue;
      return 0;
    }
  }
  const DWORD attributes = ::GetFileAttributesW(quarnel_internal::WideOf(folder).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    USetLastError(ERROR_DIRECTORY);
    return 0;
  }
  return 1;
}
