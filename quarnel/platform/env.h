// The host environment record: what the library knows of the process it runs
// in (folders, memory, the application's name and version, the system, the
// ANSI code page and the locale).
//
// The record is filled with Linux defaults on the first call of QuarnelEnv()
// (win32/env.cpp says what the Windows build fills in):
//   userFolder     $HOME (else the password database's home folder)
//   workFolder     the current folder at that moment
//   appFolder      the folder of the running program (/proc/self/exe)
//   logFolder      $XDG_STATE_HOME/<appName>, else $HOME/.local/state/<appName>
//                  (not created: QuarnelMakeLogFolder() does that)
//   appName        /proc/self/comm
//   appVersion     empty: the host sets it
//   systemVersion  "<sysname> <release>" from uname ("Linux 6.1.0-18-amd64"),
//                  with osMajor, osMinor and osBuild read from the release
//   systemExtra    the kernel's version text (uname's version field)
//   availPhysMemory, totalPhysMemory   MemAvailable and MemTotal of
//                  /proc/meminfo, in bytes
//   acp            65001 when the process locale names the UTF-8 codeset
//                  (the first non-empty of LC_ALL, LC_CTYPE, LANG), else 1252
//   lcid           0: the locale is taken from LC_ALL / LC_CTYPE / LANG
//
// Folders are host paths (UTF-8, '/' separators, no trailing separator).
//
// Threads: the host sets the record, through QuarnelSetEnv() or by assigning
// fields through QuarnelEnv(), before other threads call into the library;
// after that the record is read-only, except for the available-memory figure,
// which QuarnelRefreshAvailMemory() may update from any thread (read it with
// QuarnelAvailPhysMemory() where such a refresh may race).
#ifndef QUARNEL_PLATFORM_ENV_H_
#define QUARNEL_PLATFORM_ENV_H_

#include <cstdint>
#include <string>

#include "quarnel/foundation/export.h"

struct QuarnelEnvType {
  std::string userFolder;
  std::string workFolder;
  std::string appFolder;
  std::string logFolder;
  std::string appName;
  std::string appVersion;
  std::string systemVersion;
  std::string systemExtra;
  int osMajor = 0;
  int osMinor = 0;
  int osBuild = 0;
  alignas(8) std::uint64_t availPhysMemory = 0;
  std::uint64_t totalPhysMemory = 0;
  unsigned acp = 1252;
  unsigned lcid = 0;
  // Connects a network share for UNetAddConnection (netapi.h) when the
  // share's folder under the UNC root cannot be reached: `remote` is
  // "\\server\share", `hostFolder` the folder where the share must then
  // appear, `user` and `password` UTF-8 or null. Returns 0 when connected,
  // else a Windows error number. Null (the default): no connector, and an
  // unreachable share fails with 67.
  unsigned (*netConnect)(const char* remote, const char* hostFolder, const char* user,
                         const char* password) = nullptr;
};

// The live record, filled with the defaults above on the first call (that
// first call is thread-safe). Never null; the library owns it.
QUARNEL_API QuarnelEnvType* QuarnelEnv();

// Replaces the whole record by a copy of `env`. Before threads start.
QUARNEL_API void QuarnelSetEnv(const QuarnelEnvType& env);

// A record with the Linux defaults as they are now, without touching the live
// one (a host can adjust it and hand it to QuarnelSetEnv).
QUARNEL_API QuarnelEnvType QuarnelDefaultEnv();

// Reads MemAvailable again (through UGlobalMemoryStatus, so its test
// override applies) and stores it in the record. Returns the new figure in
// bytes, or the old one when /proc/meminfo cannot be read. Any thread.
QUARNEL_API std::uint64_t QuarnelRefreshAvailMemory();

// The record's available-memory figure, safe against a concurrent refresh.
QUARNEL_API std::uint64_t QuarnelAvailPhysMemory();

// Creates the log folder and its missing parents. Returns 1 when the folder
// exists afterwards, 0 otherwise (the last error says why).
QUARNEL_API int QuarnelMakeLogFolder();

// The drive map (drivemap.h): drive `letter` ('A'..'Z', either case) becomes
// the host folder `hostFolder` (made absolute against the current host
// folder); null or "" removes the drive. Any thread, at any time: calls made
// afterwards see the new map. Returns 1, or 0 for a letter outside A..Z.
QUARNEL_API int QuarnelSetDrive(char16_t letter, const char* hostFolder);
// The host folder of a drive, "" when the letter is not mapped.
QUARNEL_API std::string QuarnelGetDrive(char16_t letter);
// The host folder under which \\server\share lives ("/net" unless
// QUARNEL_UNC_ROOT or this call said otherwise).
QUARNEL_API void QuarnelSetUncRoot(const char* hostFolder);
QUARNEL_API std::string QuarnelGetUncRoot();

#if !defined(_WIN32)
namespace quarnel_internal {
// The code page a locale name's codeset implies: 65001 for "xx_YY.UTF-8",
// "C.utf8" and the like, 1252 for anything else (empty, "C", "POSIX").
unsigned AcpFromLocaleName(const char* name);
}  // namespace quarnel_internal
#endif

#endif  // QUARNEL_PLATFORM_ENV_H_
