// Helpers shared by the platform's file, find and volume calls.
#ifndef QUARNEL_PLATFORM_INTERNAL_FILEOPS_H_
#define QUARNEL_PLATFORM_INTERNAL_FILEOPS_H_

#include <sys/stat.h>

#include <string>

#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/resolve.h"

namespace quarnel_internal {

// Access kinds, as bits of UFileObject::access and of share modes.
enum : unsigned { kAccessRead = 1, kAccessWrite = 2, kAccessDelete = 4 };

// The Windows attributes of a host file (see fileapi.h); `name` is its
// on-disk name ("" for a root).
unsigned AttributesOf(const struct stat& st, const std::string& name);
UFILETIME FileTimeOf(const timespec& ts);
bool IsReadOnly(const struct stat& st);

// 2 when the folder holding a missing path exists, else 3.
unsigned MissingError(const Resolved& r);

// Announces the access kinds and the sharing denials of a new handle on
// `fd`, then checks them against every other handle of the file. Returns 0,
// or 32 when an existing handle's access or sharing forbids this one (the
// caller closes `fd`, which withdraws the announcement).
unsigned ShareAcquire(int fd, unsigned access, unsigned share);
// True when some open handle of `host` does not share delete access.
bool DeleteDenied(const std::string& host);

// CreateFile without the fault check (UCreateFile and UCopyFile use it).
// Returns the handle or kInvalidHandleValue with *err set.
UHANDLE OpenFile(const char16_t* path, unsigned access, unsigned share, unsigned disposition,
                 unsigned flags, unsigned* err);

// The serial number of the volume whose root folder is `rootHost`.
unsigned VolumeSerialFor(const std::string& rootHost);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_FILEOPS_H_
