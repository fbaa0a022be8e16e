// The drive map: how Windows paths live on this host.
//
// Every file call of the platform takes a Windows-form path (C:\Data\x,
// \\server\share\x, with the \\?\ and \\?\UNC\ long forms accepted) and
// reaches the host through the drive map, as Wine does: each drive letter
// names a host folder. By default Z: is "/". The environment variable
// QUARNEL_DRIVES ("C=/srv/vello;D=/media/usb"), read once at first use, and
// QuarnelSetDrive (env.h) add, replace or remove drives at any time. A UNC
// path \\server\share\rest is <unc root>/server/share/rest; the UNC root is
// QUARNEL_UNC_ROOT, else "/net" (QuarnelSetUncRoot changes it).
//
// Names: the path as given is tried first; a component that is not found is
// then matched case-insensitively in its folder (Windows' comparison on a
// case-sensitive disk); a new name keeps the case given. ".." at a root
// stays at the root, so no path leaves a drive's host folder by its text.
// Host names are UTF-8; bytes that are not UTF-8 appear as U+DC80..U+DCFF.
//
// Threads: any thread may call these functions and the file calls; the map
// and the folder index behind the case-insensitive lookup have their own lock.
#ifndef QUARNEL_PLATFORM_DRIVEMAP_H_
#define QUARNEL_PLATFORM_DRIVEMAP_H_

#include "quarnel/foundation/export.h"

// The Windows path of a host path (absolute, or relative to the process's
// host folder): the drive whose host folder is the longest prefix of it, else
// the UNC root's share ("/net/srv/share/x" is \\srv\share\x). Writes at most
// size - 1 units and a terminator; returns the units of the whole path, 0
// when no drive holds the path (last error 3) or the buffer is too small
// (122, nothing written), like winepath -w.
QUARNEL_API int ULocFromHostPath(const char* hostPath, char16_t* out, int size);

// The host path of a Windows path: the names as the disk spells them where
// they exist, the rest as given. Returns the bytes written (terminator
// excluded), 0 on failure (the last error: 3 unmapped drive or missing
// folder, 123 bad name, 122 buffer too small), like winepath -u.
QUARNEL_API int UHostPathFromLoc(const char16_t* path, char* out, int size);

// Bit n set for each mapped drive letter 'A' + n (GetLogicalDrives).
QUARNEL_API unsigned UGetLogicalDrives();

#endif  // QUARNEL_PLATFORM_DRIVEMAP_H_
