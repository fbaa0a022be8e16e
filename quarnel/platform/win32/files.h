// The Windows file layer's shared pieces: the drive aliases behind the drive
// map, and the table of the handles the library gave out.
//
// Paths. Windows paths are host paths: a path reaches the system as given,
// made full by GetFullPathNameW, unless a drive letter or the UNC root is
// aliased (QuarnelSetDrive, QuarnelSetUncRoot, QUARNEL_DRIVES). An alias is
// the process's own, like a subst drive that no other process sees: "X:\rest"
// reaches the system as "<folder>\rest", "\\srv\share\rest" as
// "<unc root>\srv\share\rest", and a relative path is taken against the
// current folder as the aliases show it. While a letter is aliased, the
// system's own drive of that letter is reachable only through the alias.
// Paths longer than the system's classic limit get the "\\?\" form.
#ifndef QUARNEL_PLATFORM_WIN32_FILES_H_
#define QUARNEL_PLATFORM_WIN32_FILES_H_

#include <cstddef>
#include <string>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/win32/winapi.h"

namespace quarnel_internal {

// The system path of a path as the library's callers write it, or "" with
// *err set (87 null, 3 empty or not expressible).
std::wstring SystemPath(const char16_t* path, unsigned* err);

// The path as the library's callers see it of a system path (the aliases
// applied backwards, the "\\?\" form undone); "" when the path lies on an
// aliased letter's own drive outside the alias.
std::u16string CallerPath(const std::wstring& system);

// The system root of the volume a caller's root names: an aliased letter's
// root is the root of the volume holding its folder, as for a subst drive.
std::wstring SystemVolumeRoot(const char16_t* root, unsigned* err);

// True when `path` (a caller's path) lies on an aliased letter: the volume
// calls answer for it as for a subst drive.
bool OnAliasedDrive(const char16_t* path, char16_t* letter);

// Copies `s` with its terminator to `buffer` when `size` units hold it and
// returns its length; otherwise returns the size needed (terminator
// included), as the Win32 calls that fill a buffer do.
unsigned CopyOut(const std::u16string& s, unsigned size, char16_t* buffer);

// The handles the library gave out, by kind, so that a made-up or stale
// handle is refused with 6 and UCloseHandle closes each with its own call.
enum class HandleKind { kFile, kVolume, kFind, kVolumeFind, kMountFind };
// A file handle keeps its path as the simulated disk names it (DiskHost) and
// whether the file goes at its close.
UHANDLE AddHandle(HANDLE h, HandleKind kind, std::string disk = std::string(),
                  bool deleteOnClose = false);
// True when `h` is a handle of that kind given out and not yet closed.
bool IsHandle(UHANDLE h, HandleKind kind);
bool IsFileHandle(UHANDLE h);  // a file, folder or volume handle
// Closes a handle of the table with the call its kind needs; 6 when unknown.
int CloseTableHandle(UHANDLE h, bool (*kindOk)(HandleKind));

// A system path as the simulated disk names it: the "\\?\" form undone,
// "/" between components, UTF-8; DiskSystem turns it back.
std::string DiskHost(const std::wstring& system);
std::wstring DiskSystem(const std::string& host);

// True (last error set) when the fault seam fails `call` now.
bool Faulted(UCall call);
// Sets the last error and answers 0.
int Refuse(unsigned err);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_WIN32_FILES_H_
