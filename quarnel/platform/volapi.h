// Volumes with Win32 meaning, on the drive map (drivemap.h).
//
// A volume is a mapped drive (root "C:\") or a network share ("\\srv\share\",
// a folder under the UNC root). What the volume calls answer:
//   label        the first line of the file ".windows-label" in the volume's
//                folder (Wine's convention), else ""; USetVolumeLabel writes
//                that file (an empty label removes it); at most 32 units (154)
//   serial       ".windows-serial" in the folder (hexadecimal text), else
//                derived from the file-system id
//   file system  the type of the file system mounted there ("ext4",
//                "tmpfs", ...; /proc/self/mountinfo), with flags case
//                preserved (0x2), Unicode (0x4) and, when mounted read-only,
//                read-only volume (0x80000); names up to 255 units
//   drive type   tmpfs and ramfs: RAM disk (6); nfs, cifs, smb and other
//                network file systems, and every share: remote (4); iso9660
//                and udf: CD-ROM (5); a mount under /media or /run/media:
//                removable (2); anything else: fixed (3); a letter that is not
//                mapped, or a path that is not a root: no root folder (1)
//   space        statvfs: free bytes are those available to the caller; a
//                sector is 512 bytes and a cluster the file system's fragment
//                size
// A drive whose host folder is missing answers 21 (not ready); an unmapped
// letter 3; a missing server 53, a missing share 67; a path that is not a
// volume's root 144.
//
// Volume names (FindFirstVolume) are "\\?\Volume{SSSSSSSS-0000-0000-0000-0000000000LL}\"
// with the serial and the drive letter's code; the mount points of a drive
// are the other drives whose host folders lie inside its own (Z: = "/" holds
// them all), as paths relative to its root with a trailing backslash.
// Device control (DeviceIoControl) is not supported: 50 for every code.
//
// The fault seam fails UGetVolumeInformation and USetVolumeLabel through
// UCall::kGetVolumeInformation, the free-space calls through kGetDiskFreeSpace.
#ifndef QUARNEL_PLATFORM_VOLAPI_H_
#define QUARNEL_PLATFORM_VOLAPI_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/platform/fileapi.h"

enum : unsigned {
  kDriveUnknown = 0,
  kDriveNoRootDir = 1,
  kDriveRemovable = 2,
  kDriveFixed = 3,
  kDriveRemote = 4,
  kDriveCdrom = 5,
  kDriveRamdisk = 6,
  kFileCasePreservedNames = 0x2,
  kFileUnicodeOnDisk = 0x4,
  kFileReadOnlyVolume = 0x80000,
};

// Any output pointer may be null; texts are cut to their size - 1 units.
QUARNEL_API int UGetVolumeInformation(const char16_t* root, char16_t* name, unsigned nameSize,
                                      unsigned* serial, unsigned* maxComponentLength,
                                      unsigned* fileSystemFlags, char16_t* fileSystemName,
                                      unsigned fileSystemNameSize);
QUARNEL_API int USetVolumeLabel(const char16_t* root, const char16_t* label);
// The file-system id (statvfs f_fsid, else the device number) of the volume:
// what tells two volumes apart when their labels and serials agree.
QUARNEL_API int UGetVolumeFileSystemId(const char16_t* root, std::uint64_t* id);
QUARNEL_API int UGetDiskFreeSpace(const char16_t* root, unsigned* sectorsPerCluster,
                                  unsigned* bytesPerSector, unsigned* freeClusters,
                                  unsigned* totalClusters);
// `path` is any existing folder of the volume.
QUARNEL_API int UGetDiskFreeSpaceEx(const char16_t* path, std::uint64_t* freeToCaller,
                                    std::uint64_t* total, std::uint64_t* totalFree);
// Null `root`: the current folder's volume.
QUARNEL_API unsigned UGetDriveType(const char16_t* root);
// The root of the volume that holds `path` (which need not exist), with a
// trailing backslash. 206 when it does not fit.
QUARNEL_API int UGetVolumePathName(const char16_t* path, char16_t* out, unsigned size);

QUARNEL_API UHANDLE UFindFirstVolume(char16_t* name, unsigned size);
QUARNEL_API int UFindNextVolume(UHANDLE find, char16_t* name, unsigned size);
QUARNEL_API int UFindVolumeClose(UHANDLE find);
// The drive roots of a volume name as a double-terminated list ("C:\\0\0").
QUARNEL_API int UGetVolumePathNamesForVolumeName(const char16_t* volumeName, char16_t* names,
                                                 unsigned size, unsigned* returned);
QUARNEL_API UHANDLE UFindFirstVolumeMountPoint(const char16_t* root, char16_t* mountPoint,
                                               unsigned size);
QUARNEL_API int UFindNextVolumeMountPoint(UHANDLE find, char16_t* mountPoint, unsigned size);
QUARNEL_API int UFindVolumeMountPointClose(UHANDLE find);

// Always fails: 6 for a handle that is not a volume's, else 50.
QUARNEL_API int UDeviceIoControl(UHANDLE device, unsigned code, const void* in, unsigned inSize,
                                 void* out, unsigned outSize, unsigned* returned);

#endif  // QUARNEL_PLATFORM_VOLAPI_H_
