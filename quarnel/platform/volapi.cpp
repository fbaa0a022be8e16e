#include "quarnel/platform/volapi.h"

#include <errno.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/fileops.h"
#include "quarnel/platform/internal/handles.h"
#include "quarnel/platform/lasterror.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kWinPathNotFound = 3;
constexpr unsigned kWinInvalidHandle = 6;
constexpr unsigned kWinNoMoreFiles = 18;
constexpr unsigned kWinNotReady = 21;
constexpr unsigned kWinNotSupported = 50;
constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinMoreData = 234;
constexpr unsigned kWinDirNotRoot = 144;
constexpr unsigned kWinLabelTooLong = 154;
constexpr unsigned kWinFilenameTooLong = 206;
constexpr std::size_t kMaxLabel = 32;

int Refuse(unsigned err) {
  USetLastError(err);
  return 0;
}

bool Faulted(UCall call) {
  unsigned err = 0;
  if (!UShouldFail(call, &err)) return false;
  USetLastError(err);
  return true;
}

// The volume of a root path: its host folder, and whether it is a share.
struct Volume {
  std::string host;
  bool share = false;
  char16_t drive = 0;
};

// Resolves `root` (must name a volume's root unless `anyPath`); 0 or the
// Windows error.
unsigned VolumeOf(const char16_t* root, bool anyPath, Volume* v) {
  if (root == nullptr) return kWinInvalidParameter;
  Resolved r;
  const std::u16string longForm = LongPathForm(root);
  unsigned err = ResolvePath(longForm.c_str(), false, &r);
  if (err == kWinPathNotFound &&
      (r.win.kind == WinPath::kDrive || r.win.kind == WinPath::kDevice) &&
      !DriveHost(r.win.drive).empty()) {
    return kWinNotReady;  // the drive's folder is missing: no medium
  }
  if (err) return err;
  if (!anyPath && !r.isRoot) return kWinDirNotRoot;
  if (anyPath && !r.exists) return MissingError(r);
  v->host = anyPath ? r.host : r.rootHost;
  v->share = r.win.kind == WinPath::kUnc;
  v->drive = r.win.drive;
  return 0;
}

std::string Unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

// The file-system type and mount point of the mount that holds `host`.
bool MountOf(const std::string& host, std::string* type, std::string* mountPoint) {
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  std::size_t best = 0;
  bool found = false;
  char real[4096];
  const std::string path = realpath(host.c_str(), real) ? std::string(real) : host;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, point, field;
    fields >> id >> parent >> dev >> root >> point;
    point = Unescape(point);
    while (fields >> field && field != "-") {
    }
    std::string fsType;
    fields >> fsType;
    const bool under = point == "/" || (path.compare(0, point.size(), point) == 0 &&
                                        (path.size() == point.size() || path[point.size()] == '/'));
    if (under && point.size() >= best) {
      best = point.size();
      *type = fsType;
      *mountPoint = point;
      found = true;
    }
  }
  return found;
}

unsigned DriveTypeOf(const Volume& v) {
  if (v.share) return kDriveRemote;
  std::string type, point;
  if (!MountOf(v.host, &type, &point)) return kDriveFixed;
  if (type == "tmpfs" || type == "ramfs") return kDriveRamdisk;
  static const char* const kRemote[] = {"nfs",  "nfs4", "cifs",       "smb3",      "smbfs", "afs",
                                        "ceph", "9p",   "fuse.sshfs", "glusterfs", "lustre"};
  for (const char* r : kRemote)
    if (type == r) return kDriveRemote;
  if (type == "iso9660" || type == "udf") return kDriveCdrom;
  if (point.rfind("/media/", 0) == 0 || point.rfind("/run/media/", 0) == 0) return kDriveRemovable;
  return kDriveFixed;
}

std::uint64_t FileSystemIdOf(const std::string& host) {
  struct statvfs vfs;
  if (statvfs(host.c_str(), &vfs) == 0 && vfs.f_fsid != 0) return vfs.f_fsid;
  struct stat st;
  return stat(host.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_dev) : 0;
}

std::string FirstLine(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  return line;
}

void CopyText(const std::u16string& s, char16_t* out, unsigned size) {
  if (out == nullptr || size == 0) return;
  const std::size_t n = std::min<std::size_t>(s.size(), size - 1);
  std::memcpy(out, s.data(), n * sizeof(char16_t));
  out[n] = 0;
}

std::u16string VolumeName(char16_t letter, const std::string& host) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "\\\\?\\Volume{%08X-0000-0000-0000-0000000000%02X}\\",
                VolumeSerialFor(host), static_cast<unsigned>(letter));
  return WideFromHost(buf);
}

// The other drives whose folders lie inside `host`, relative, with a
// trailing backslash.
std::vector<std::u16string> MountPointsIn(const std::string& host, char16_t self) {
  std::vector<std::u16string> out;
  for (const auto& [letter, folder] : DriveList()) {
    if (letter == self || folder == host) continue;
    const std::string prefix = host == "/" ? "/" : host + "/";
    if (folder.compare(0, prefix.size(), prefix) != 0 || folder.size() == prefix.size()) continue;
    std::u16string rel = WideFromHost(folder.substr(prefix.size()));
    for (char16_t& c : rel)
      if (c == u'/') c = u'\\';
    out.push_back(rel + u'\\');
  }
  return out;
}

int GiveName(const std::u16string& name, char16_t* out, unsigned size) {
  if (out == nullptr || size <= name.size()) return Refuse(kWinFilenameTooLong);
  CopyText(name, out, size);
  return 1;
}

UHANDLE StartWalk(UObject::Kind kind, std::vector<std::u16string> names, char16_t* out,
                  unsigned size) {
  if (names.empty()) {
    USetLastError(kWinNoMoreFiles);
    return kInvalidHandleValue;
  }
  auto walk = std::make_unique<UNameWalk>(kind);
  walk->names = std::move(names);
  if (!GiveName(walk->names[0], out, size)) return kInvalidHandleValue;
  walk->next = 1;
  return AddHandle(walk.release());
}

int StepWalk(UHANDLE h, UObject::Kind kind, char16_t* out, unsigned size) {
  auto* walk = static_cast<UNameWalk*>(FindHandle(h, kind));
  if (walk == nullptr) return Refuse(kWinInvalidHandle);
  if (walk->next >= walk->names.size()) return Refuse(kWinNoMoreFiles);
  if (!GiveName(walk->names[walk->next], out, size)) return 0;
  ++walk->next;
  return 1;
}

int EndWalk(UHANDLE h, UObject::Kind kind) {
  if (FindHandle(h, kind) == nullptr) return Refuse(kWinInvalidHandle);
  delete RemoveHandle(h);
  return 1;
}

}  // namespace

namespace quarnel_internal {

unsigned VolumeSerialFor(const std::string& rootHost) {
  const std::string text = FirstLine(JoinHost(rootHost, ".windows-serial"));
  if (!text.empty()) {
    char* end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 16);
    if (end != text.c_str()) return static_cast<unsigned>(v);
  }
  const std::uint64_t id = FileSystemIdOf(rootHost);
  return static_cast<unsigned>(id ^ (id >> 32));
}

}  // namespace quarnel_internal

int UGetVolumeInformation(const char16_t* root, char16_t* name, unsigned nameSize, unsigned* serial,
                          unsigned* maxComponentLength, unsigned* fileSystemFlags,
                          char16_t* fileSystemName, unsigned fileSystemNameSize) {
  if (Faulted(UCall::kGetVolumeInformation)) return 0;
  Volume v;
  if (const unsigned err = VolumeOf(root, false, &v)) return Refuse(err);
  const std::u16string label = WideFromHost(FirstLine(JoinHost(v.host, ".windows-label")));
  std::string type = "unknown", point;
  MountOf(v.host, &type, &point);
  const std::u16string fsName = WideFromHost(type);
  if ((name && nameSize <= label.size()) || (fileSystemName && fileSystemNameSize <= fsName.size()))
    return Refuse(kWinMoreData);
  CopyText(label, name, nameSize);
  CopyText(fsName, fileSystemName, fileSystemNameSize);
  if (serial) *serial = VolumeSerialFor(v.host);
  if (maxComponentLength) *maxComponentLength = 255;
  if (fileSystemFlags) {
    struct statvfs vfs;
    const bool readOnly = statvfs(v.host.c_str(), &vfs) == 0 && (vfs.f_flag & ST_RDONLY);
    *fileSystemFlags = kFileCasePreservedNames | kFileUnicodeOnDisk |
                       (readOnly ? unsigned{kFileReadOnlyVolume} : 0u);
  }
  return 1;
}

int USetVolumeLabel(const char16_t* root, const char16_t* label) {
  if (Faulted(UCall::kGetVolumeInformation)) return 0;
  Volume v;
  if (const unsigned err = VolumeOf(root, false, &v)) return Refuse(err);
  const std::u16string text = label ? std::u16string(label) : std::u16string();
  if (text.size() > kMaxLabel) return Refuse(kWinLabelTooLong);
  const std::string file = JoinHost(v.host, ".windows-label");
  if (text.empty()) {
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) return Refuse(UWinErrorFromErrno(errno));
    return 1;
  }
  std::FILE* f = std::fopen(file.c_str(), "w");
  if (f == nullptr) return Refuse(UWinErrorFromErrno(errno));
  const std::string bytes = HostFromWide(text) + "\n";
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok) return Refuse(UWinErrorFromErrno(errno));
  return 1;
}

int UGetVolumeFileSystemId(const char16_t* root, std::uint64_t* id) {
  Volume v;
  if (const unsigned err = VolumeOf(root, false, &v)) return Refuse(err);
  if (id) *id = FileSystemIdOf(v.host);
  return 1;
}

int UGetDiskFreeSpace(const char16_t* root, unsigned* sectorsPerCluster, unsigned* bytesPerSector,
                      unsigned* freeClusters, unsigned* totalClusters) {
  if (Faulted(UCall::kGetDiskFreeSpace)) return 0;
  Volume v;
  if (const unsigned err = VolumeOf(root, false, &v)) return Refuse(err);
  struct statvfs vfs;
  if (statvfs(v.host.c_str(), &vfs) != 0) return Refuse(UWinErrorFromErrno(errno));
  const std::uint64_t cluster = vfs.f_frsize >= 512 ? vfs.f_frsize : 512;
  auto clusters = [&](std::uint64_t blocks) {
    const std::uint64_t n = blocks * vfs.f_frsize / cluster;
    return static_cast<unsigned>(n > 0xFFFFFFFFu ? 0xFFFFFFFFu : n);
  };
  if (sectorsPerCluster) *sectorsPerCluster = static_cast<unsigned>(cluster / 512);
  if (bytesPerSector) *bytesPerSector = 512;
  if (freeClusters) *freeClusters = clusters(vfs.f_bavail);
  if (totalClusters) *totalClusters = clusters(vfs.f_blocks);
  return 1;
}

int UGetDiskFreeSpaceEx(const char16_t* path, std::uint64_t* freeToCaller, std::uint64_t* total,
                        std::uint64_t* totalFree) {
  if (Faulted(UCall::kGetDiskFreeSpace)) return 0;
  Volume v;
  if (const unsigned err = VolumeOf(path, true, &v)) return Refuse(err);
  struct statvfs vfs;
  if (statvfs(v.host.c_str(), &vfs) != 0) return Refuse(UWinErrorFromErrno(errno));
  const std::uint64_t unit = vfs.f_frsize;
  if (freeToCaller) *freeToCaller = static_cast<std::uint64_t>(vfs.f_bavail) * unit;
  if (total) *total = static_cast<std::uint64_t>(vfs.f_blocks) * unit;
  if (totalFree) *totalFree = static_cast<std::uint64_t>(vfs.f_bfree) * unit;
  return 1;
}

unsigned UGetDriveType(const char16_t* root) {
  std::u16string path = root ? std::u16string(root) : CurrentFolder();
  if (root == nullptr) {
    WinPath p;
    if (ParseWinPath(path.c_str(), u"", false, &p) != 0) return kDriveNoRootDir;
    p.parts.clear();
    path = FormatWinPath(p);
  }
  Volume v;
  if (VolumeOf(path.c_str(), false, &v) != 0) return kDriveNoRootDir;
  return DriveTypeOf(v);
}

int UGetVolumePathName(const char16_t* path, char16_t* out, unsigned size) {
  if (path == nullptr) return Refuse(kWinInvalidParameter);
  Resolved r;
  const std::u16string longForm = LongPathForm(path);
  if (const unsigned err = ResolvePath(longForm.c_str(), false, &r)) return Refuse(err);
  WinPath root = r.win;
  root.parts.clear();
  if (root.kind == WinPath::kDevice) root.kind = WinPath::kDrive;
  return GiveName(FormatWinPath(root), out, size);
}

UHANDLE UFindFirstVolume(char16_t* name, unsigned size) {
  std::vector<std::u16string> names;
  for (const auto& [letter, folder] : DriveList()) names.push_back(VolumeName(letter, folder));
  return StartWalk(UObject::kVolumeFind, std::move(names), name, size);
}

int UFindNextVolume(UHANDLE find, char16_t* name, unsigned size) {
  return StepWalk(find, UObject::kVolumeFind, name, size);
}

int UFindVolumeClose(UHANDLE find) { return EndWalk(find, UObject::kVolumeFind); }

int UGetVolumePathNamesForVolumeName(const char16_t* volumeName, char16_t* names, unsigned size,
                                     unsigned* returned) {
  if (volumeName == nullptr) return Refuse(kWinInvalidParameter);
  const std::u16string wanted(volumeName);
  for (const auto& [letter, folder] : DriveList()) {
    if (VolumeName(letter, folder) != wanted) continue;
    const std::u16string list = std::u16string(1, letter) + u":\\" + u'\0' + u'\0';
    if (returned) *returned = static_cast<unsigned>(list.size());
    if (names == nullptr || size < list.size()) return Refuse(kWinMoreData);
    std::memcpy(names, list.data(), list.size() * sizeof(char16_t));
    return 1;
  }
  return Refuse(kWinInvalidParameter);
}

UHANDLE UFindFirstVolumeMountPoint(const char16_t* root, char16_t* mountPoint, unsigned size) {
  Volume v;
  if (const unsigned err = VolumeOf(root, false, &v)) {
    USetLastError(err);
    return kInvalidHandleValue;
  }
  return StartWalk(UObject::kMountFind,
                   v.share ? std::vector<std::u16string>() : MountPointsIn(v.host, v.drive),
                   mountPoint, size);
}

int UFindNextVolumeMountPoint(UHANDLE find, char16_t* mountPoint, unsigned size) {
  return StepWalk(find, UObject::kMountFind, mountPoint, size);
}

int UFindVolumeMountPointClose(UHANDLE find) { return EndWalk(find, UObject::kMountFind); }

int UDeviceIoControl(UHANDLE device, unsigned, const void*, unsigned, void*, unsigned,
                     unsigned* returned) {
  if (returned) *returned = 0;
  auto* f = static_cast<UFileObject*>(FindHandle(device, UObject::kFile));
  if (f == nullptr || !f->isVolume) return Refuse(kWinInvalidHandle);
  return Refuse(kWinNotSupported);
}
