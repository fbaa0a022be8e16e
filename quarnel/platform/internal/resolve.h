// Windows path to host path through the drive map, for the platform's file
// calls. Only platform code includes this header.
#ifndef QUARNEL_PLATFORM_INTERNAL_RESOLVE_H_
#define QUARNEL_PLATFORM_INTERNAL_RESOLVE_H_

#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quarnel/platform/internal/winpath.h"

namespace quarnel_internal {

struct Resolved {
  WinPath win;                // the parsed path
  std::string rootHost;       // host folder of the drive or share
  std::string host;           // host path: on-disk spelling where it exists, the rest as given
  std::string parentHost;     // host path of the folder holding the last component
  std::string leaf;           // host name of the last component ("" for a root)
  bool isRoot = false;        // the path names the drive's or share's root
  bool exists = false;        // the whole path exists (st is filled)
  bool parentExists = false;  // the folder holding the last component exists
  struct stat st {};
};

// Parses and resolves a path (see drivemap.h). Returns 0 when the path is
// well formed and its drive is mapped (whether or not it exists), else the
// Windows error: those of ParseWinPath, 3 unmapped drive or missing drive
// folder, 53 missing server, 67 missing share. The device form \\.\X: is
// resolved to the drive's root. A path that does not exist gives 0 with
// `exists` false; the caller chooses between 2 (parentExists) and 3.
unsigned ResolvePath(const char16_t* path, bool wildLast, Resolved* out);

// The current folder in Windows form ("C:\" for a root, else no trailing
// backslash). Starts as the Windows form of the host's working folder.
std::u16string CurrentFolder();
void SetCurrentFolder(const std::u16string& full);

// The mapped drives in letter order, with their host folders.
std::vector<std::pair<char16_t, std::string>> DriveList();
std::string UncRootHost();

// The host folder that a drive letter names, "" when unmapped.
std::string DriveHost(char16_t letter);

// Joins a host folder and a name ("/" + "a" is "/a").
std::string JoinHost(const std::string& folder, const std::string& name);

// Windows path of an absolute host path, "" when no drive holds it.
std::u16string LocFromHost(const std::string& host);

// One entry of a folder: the on-disk name, its Windows name and its 8.3
// name ("" when the name is already one).
struct FolderEntry {
  std::string host;
  std::u16string name;
  std::u16string shortName;
};

// The entries of `folder` (without "." and "..") as they are now, in the
// order of their upper-cased names, with their 8.3 names: a name that is not
// a valid 8.3 name gets ShortNameFor(name, n) with the least n that no
// earlier entry's name or 8.3 name holds. False when the folder cannot be read.
bool FolderEntries(const std::string& folder, std::shared_ptr<const std::vector<FolderEntry>>* out);

// The 8.3 name of the entry `hostName` of `folder` ("" when it needs none
// or is not there).
std::u16string ShortNameIn(const std::string& folder, const std::string& hostName);

// Forgets the cached folder index (the folder changed under a known name).
void ForgetFolderIndex(const std::string& folderHost);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_RESOLVE_H_
