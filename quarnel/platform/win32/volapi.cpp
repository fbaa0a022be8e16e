// Volumes on the system's own calls. A root on an aliased letter is the root
// of the volume holding the alias's folder, as for a subst drive.
#include "quarnel/platform/volapi.h"

#include <cstring>

#include "quarnel/platform/env.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/netapi.h"
#include "quarnel/platform/win32/files.h"

using namespace quarnel_internal;

namespace {

bool Root(const char16_t* root, std::wstring* out) {
  unsigned err = 0;
  *out = SystemVolumeRoot(root, &err);
  if (out->empty()) USetLastError(err);
  return !out->empty();
}

}  // namespace

int UGetVolumeInformation(const char16_t* root, char16_t* name, unsigned nameSize, unsigned* serial,
                          unsigned* maxComponentLength, unsigned* fileSystemFlags,
                          char16_t* fileSystemName, unsigned fileSystemNameSize) {
  std::wstring r;
  if (Faulted(UCall::kGetVolumeInformation) || !Root(root, &r)) return 0;
  DWORD s = 0, max = 0, flags = 0;
  if (!::GetVolumeInformationW(r.c_str(), W(name), name ? nameSize : 0, &s, &max, &flags,
                               W(fileSystemName), fileSystemName ? fileSystemNameSize : 0)) {
    return 0;
  }
  if (serial) *serial = s;
  if (maxComponentLength) *maxComponentLength = max;
  if (fileSystemFlags) *fileSystemFlags = flags;
  return 1;
}

int USetVolumeLabel(const char16_t* root, const char16_t* label) {
  std::wstring r;
  if (Faulted(UCall::kGetVolumeInformation) || !Root(root, &r)) return 0;
  return ::SetVolumeLabelW(r.c_str(), W(label)) ? 1 : 0;
}

// The 64-bit serial the system gives the volume's root folder, else its
// 32-bit serial.
int UGetVolumeFileSystemId(const char16_t* root, std::uint64_t* id) {
  std::wstring r;
  if (!Root(root, &r)) return 0;
  const HANDLE h =
      ::CreateFileW(r.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h != INVALID_HANDLE_VALUE) {
    FILE_ID_INFO info;
    const BOOL ok = ::GetFileInformationByHandleEx(h, FileIdInfo, &info, sizeof info);
    ::CloseHandle(h);
    if (ok) {
      if (id) *id = info.VolumeSerialNumber;
      return 1;
    }
  }
  DWORD serial = 0;
  if (!::GetVolumeInformationW(r.c_str(), nullptr, 0, &serial, nullptr, nullptr, nullptr, 0))
    return 0;
  if (id) *id = serial;
  return 1;
}

int UGetDiskFreeSpace(const char16_t* root, unsigned* sectorsPerCluster, unsigned* bytesPerSector,
                      unsigned* freeClusters, unsigned* totalClusters) {
  std::wstring r;
  if (Faulted(UCall::kGetDiskFreeSpace) || !Root(root, &r)) return 0;
  DWORD spc = 0, bps = 0, fc = 0, tc = 0;
  if (!::GetDiskFreeSpaceW(r.c_str(), &spc, &bps, &fc, &tc)) return 0;
  if (sectorsPerCluster) *sectorsPerCluster = spc;
  if (bytesPerSector) *bytesPerSector = bps;
  if (freeClusters) *freeClusters = fc;
  if (totalClusters) *totalClusters = tc;
  return 1;
}

int UGetDiskFreeSpaceEx(const char16_t* path, std::uint64_t* freeToCaller, std::uint64_t* total,
                        std::uint64_t* totalFree) {
  if (Faulted(UCall::kGetDiskFreeSpace)) return 0;
  unsigned err = 0;
  const std::wstring p = SystemPath(path, &err);
  if (p.empty()) return Refuse(err);
  ULARGE_INTEGER a{}, t{}, f{};
  if (!::GetDiskFreeSpaceExW(p.c_str(), &a, &t, &f)) return 0;
  if (freeToCaller) *freeToCaller = a.QuadPart;
  if (total) *total = t.QuadPart;
  if (totalFree) *totalFree = f.QuadPart;
  return 1;
}

// A letter the host aliases to a folder of a share under the aliased UNC
// root, and a share under that root, are network drives, as on Linux.
unsigned UGetDriveType(const char16_t* root) {
  if (root == nullptr) return ::GetDriveTypeW(nullptr);
  char16_t letter = 0;
  if (OnAliasedDrive(root, &letter) &&
      !quarnel_internal::RemoteNameOfHost(QuarnelGetDrive(letter)).empty()) {
    return kDriveRemote;
  }
  if ((root[0] == u'\\' || root[0] == u'/') && (root[1] == u'\\' || root[1] == u'/') &&
      root[2] != u'?' && root[2] != u'.' && !QuarnelGetUncRoot().empty()) {
    return kDriveRemote;
  }
  unsigned err = 0;
  const std::wstring r = SystemVolumeRoot(root, &err);
  if (r.empty()) return kDriveNoRootDir;
  return ::GetDriveTypeW(r.c_str());
}

int UGetVolumePathName(const char16_t* path, char16_t* out, unsigned size) {
  if (path == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
  char16_t letter = 0;
  if (OnAliasedDrive(path, &letter)) {  // the alias's own root
    const char16_t root[] = {letter, u':', u'\\', 0};
    if (out == nullptr || size < 4) return Refuse(ERROR_FILENAME_EXCED_RANGE);
    std::memcpy(out, root, sizeof root);
    return 1;
  }
  unsigned err = 0;
  const std::wstring p = SystemPath(path, &err);
  if (p.empty()) return Refuse(err);
  std::wstring volume(p.size() + 2, L'\0');
  if (!::GetVolumePathNameW(p.c_str(), volume.data(), static_cast<DWORD>(volume.size()))) return 0;
  volume.resize(std::wcslen(volume.c_str()));
  std::u16string caller = CallerPath(volume);
  if (caller.empty())
    caller.assign(reinterpret_cast<const char16_t*>(volume.c_str()), volume.size());
  if (out == nullptr || size <= caller.size()) return Refuse(ERROR_FILENAME_EXCED_RANGE);
  std::memcpy(out, caller.c_str(), (caller.size() + 1) * sizeof(char16_t));
  return 1;
}

UHANDLE UFindFirstVolume(char16_t* name, unsigned size) {
  const HANDLE h = ::FindFirstVolumeW(W(name), size);
  if (h == INVALID_HANDLE_VALUE) return kInvalidHandleValue;
  return AddHandle(h, HandleKind::kVolumeFind);
}

int UFindNextVolume(UHANDLE find, char16_t* name, unsigned size) {
  if (!IsHandle(find, HandleKind::kVolumeFind)) return Refuse(ERROR_INVALID_HANDLE);
  return ::FindNextVolumeW(find, W(name), size) ? 1 : 0;
}

int UFindVolumeClose(UHANDLE find) {
  return CloseTableHandle(find, [](HandleKind k) { return k == HandleKind::kVolumeFind; });
}

int UGetVolumePathNamesForVolumeName(const char16_t* volumeName, char16_t* names, unsigned size,
                                     unsigned* returned) {
  DWORD n = 0;
  const BOOL ok = ::GetVolumePathNamesForVolumeNameW(W(volumeName), W(names), size, &n);
  if (returned) *returned = n;
  return ok ? 1 : 0;
}

UHANDLE UFindFirstVolumeMountPoint(const char16_t* root, char16_t* mountPoint, unsigned size) {
  std::wstring r;
  if (!Root(root, &r)) return kInvalidHandleValue;
  const HANDLE h = ::FindFirstVolumeMountPointW(r.c_str(), W(mountPoint), size);
  if (h == INVALID_HANDLE_VALUE) return kInvalidHandleValue;
  return AddHandle(h, HandleKind::kMountFind);
}

int UFindNextVolumeMountPoint(UHANDLE find, char16_t* mountPoint, unsigned size) {
  if (!IsHandle(find, HandleKind::kMountFind)) return Refuse(ERROR_INVALID_HANDLE);
  return ::FindNextVolumeMountPointW(find, W(mountPoint), size) ? 1 : 0;
}

int UFindVolumeMountPointClose(UHANDLE find) {
  return CloseTableHandle(find, [](HandleKind k) { return k == HandleKind::kMountFind; });
}

// Device control is not handed to the system: the library ejects, locks and
// formats no drive, on either platform (volapi.h).
int UDeviceIoControl(UHANDLE device, unsigned, const void*, unsigned, void*, unsigned,
                     unsigned* returned) {
  if (returned) *returned = 0;
  return Refuse(IsHandle(device, HandleKind::kVolume) ? ERROR_NOT_SUPPORTED : ERROR_INVALID_HANDLE);
}
