#include "quarnel/fileio/tvol.h"

#include <vector>

#include "quarnel/fileio/internal/locpath.h"
#include "quarnel/fileio/location.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/volapi.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kVolSignature = 0x566F6C2E;  // 'Vol.'
constexpr unsigned kWinInvalidDrive = 15;
constexpr unsigned kWinNotSupported = 50;
constexpr unsigned kWinNotReady = 21;
constexpr unsigned kIoctlMediaRemoval = 0x2D4804;  // IOCTL_STORAGE_MEDIA_REMOVAL
constexpr unsigned kIoctlScsiAddress = 0x41018;    // IOCTL_SCSI_GET_ADDRESS
constexpr unsigned kFsctlLockVolume = 0x90018;     // FSCTL_LOCK_VOLUME
constexpr unsigned kFsctlUnlockVolume = 0x9001C;   // FSCTL_UNLOCK_VOLUME

unsigned FlagsOfDriveType(unsigned type) {
  switch (type) {
    case kDriveRemovable:
      return kVolRemovable;
    case kDriveFixed:
      return kVolFixed;
    case kDriveRemote:
      return kVolRemote;
    case kDriveCdrom:
      return kVolCdrom;
    case kDriveRamdisk:
      return kVolRamdisk;
    default:
      return 0;
  }
}

void EnsureTrailing(TString* path) {
  if (path->IsEmpty() || (*path)[static_cast<short>(path->Length() - 1)] != u'\\')
    path->Append(u'\\');
}

bool IsDriveForm(const TString& p) { return p.Length() >= 2 && p[1] == u':' && UIsCharAlpha(p[0]); }

}  // namespace

// ---- NativVolInfo -----------------------------------------------------------------

NativVolInfo::NativVolInfo() { Reset(); }

void NativVolInfo::Reset() {
  flags = serial = fsIdLow = fsIdHigh = labelHash = 0;
  maxComponentLength = fileSystemFlags = 0;
  path.Clear();
  name.Clear();
  fsName.Clear();
}

void NativVolInfo::GetIdentity(unsigned words[5]) const {
  words[0] = flags;
  words[1] = serial;
  words[2] = fsIdLow;
  words[3] = fsIdHigh;
  words[4] = labelHash;
}

// ---- TVol: names ----------------------------------------------------------------------

TVol& TVol::operator=(const TVol& other) {
  if (this != &other) path_ = other.path_;
  return *this;
}

int TVol::Set(const TString* path, int parse) {
  if (path == nullptr) return NullArgument("TVol::Set");
  const TString& p = *path;
  const short n = p.Length();
  if (!parse) {
    path_ = p;
    EnsureTrailing(&path_);
    return 0;
  }
  if (n == 0 || p[0] != u'\\') {
    if (!IsDriveForm(p)) {
      DebugLogf(kLogInternalData, "TVol::Set: not a drive letter nor UNC name");
      return kErrDeviceNotPresent;
    }
    const short first = p.FindChar(u'\\');
    if (n == 2) {
      path_ = p;
    } else if (first == 2) {
      path_ = p.Left(3);
    }
    // Any other drive form keeps the old path (trailing backslash ensured).
    EnsureTrailing(&path_);
    return 0;
  }
  if (n < 2 || p[1] != u'\\') return kErrDeviceNotPresent;
  const short third = p.FindChar(u'\\', 2);
  if (third < 0 || third == 2) {
    DebugLogf(kLogMisuse, "TVol::Set: no volume name");
    return kErrDeviceNotPresent;
  }
  const short fourth = p.FindChar(u'\\', static_cast<short>(third + 1));
  if (fourth < 0 && n > third + 1) {
    path_ = p;
  } else if (fourth > third + 1 && n > fourth + 1) {
    path_ = p.Left(static_cast<short>(fourth + 1));
  }
  // "\\srv\" and "\\srv\share\" exactly keep the old path.
  EnsureTrailing(&path_);
  return 0;
}

namespace {

int SetFromLocation(TVol* vol, const TString& locPath) {
  TString path = locPath;
  if (path.IsEmpty() || path[static_cast<short>(path.Length() - 1)] != u'\\') path.Append(u'\\');
  char16_t root[kMaxPath];
  if (UGetVolumePathName(path.Text(), root, kMaxPath)) path.Assign(root);
  return vol->Set(&path, 1);
}

}  // namespace

int TVol::Set(const TFileLoc* loc) {
  if (loc == nullptr) return NullArgument("TVol::Set");
  return SetFromLocation(this, loc->Path());
}

int TVol::Set(const TFolderLoc* loc) {
  if (loc == nullptr) return NullArgument("TVol::Set");
  return SetFromLocation(this, loc->Path());
}

int TVol::GetPath(TString* path) const {
  if (path == nullptr) return NullArgument("TVol::GetPath");
  *path = path_;
  return 0;
}

int TVol::IsValid(int checkSerial, int strict) const {
  const TString& p = path_;
  const short n = p.Length();
  if (n < 2) return 0;
  bool valid = false;
  if (p[0] == u'\\') {
    const short third = p[1] == u'\\' ? p.FindChar(u'\\', 2) : -1;
    if (third > 2) {
      const short fourth = p.FindChar(u'\\', static_cast<short>(third + 1));
      valid = (fourth < 0 && n > third + 1) || (fourth > third + 1 && fourth == n - 1);
    }
  } else if (IsDriveForm(p)) {
    const short first = p.FindChar(u'\\');
    valid = (n == 2 && first < 0) || first == 2;
    if (strict && n >= 4) valid = false;
  }
  if (valid && checkSerial) {
    unsigned serial = 0;
    valid = GetSerialNo(&serial) == 0;
  }
  return valid ? 1 : 0;
}

int TVol::operator==(const TVol& other) const { return path_.Compare(other.path_, 0) == 0; }

int TVol::operator==(const TFolderLoc& folder) const {
  TVol vol;
  vol.Set(&folder);
  return *this == vol;
}

// ---- TVol: volume information -------------------------------------------------------

int TVol::SetLabel(const TString* label) const {
  if (!USetVolumeLabel(path_.Text(), label ? label->Text() : nullptr))
    return MapAndLogErr(&path_, "TVol::SetLabel: USetVolumeLabel failed", 0);
  return 0;
}

int TVol::GetName(TString* label) const {
  if (label == nullptr) return NullArgument("TVol::GetName");
  char16_t name[kMaxPath];
  if (!UGetVolumeInformation(path_.Text(), name, kMaxPath, nullptr, nullptr, nullptr, nullptr, 0))
    return MapAndLogErr(&path_, "TVol::GetName: UGetVolumeInformation failed", 0);
  label->Assign(name);
  return 0;
}

int TVol::GetFSName(TString* fsName) const {
  if (fsName == nullptr) return NullArgument("TVol::GetFSName");
  char16_t name[kMaxPath];
  if (!UGetVolumeInformation(path_.Text(), nullptr, 0, nullptr, nullptr, nullptr, name, kMaxPath))
    return MapAndLogErr(&path_, "TVol::GetFSName: UGetVolumeInformation failed", 0);
  fsName->Assign(name);
  return 0;
}

int TVol::GetSerialNo(unsigned* serial) const {
  if (serial == nullptr) return NullArgument("TVol::GetSerialNo");
  if (!UGetVolumeInformation(path_.Text(), nullptr, 0, serial, nullptr, nullptr, nullptr, 0))
    return MapAndLogErr(&path_, "TVol::GetSerialNo: UGetVolumeInformation failed", 0);
  return 0;
}

int TVol::GetStats(std::uint64_t* total, std::uint64_t* used, std::uint64_t* free,
                   unsigned* unit) const {
  std::uint64_t avail = 0, all = 0, allFree = 0;
  if (!UGetDiskFreeSpaceEx(path_.Text(), &avail, &all, &allFree))
    return MapAndLogErr(&path_, "TVol::GetStats: UGetDiskFreeSpaceEx failed", 0);
  if (total) *total = all;
  if (free) *free = avail;
  if (used) *used = all - avail;
  if (unit) {
    unsigned sectors = 0, bytes = 0;
    if (!UGetDiskFreeSpace(path_.Text(), &sectors, &bytes, nullptr, nullptr))
      return MapAndLogErr(&path_, "TVol::GetStats: UGetDiskFreeSpace failed", 0);
    *unit = sectors * bytes;
  }
  return 0;
}

int TVol::GetFlags(unsigned* flags, int withFileSystemFlags) const {
  if (flags == nullptr) return NullArgument("TVol::GetFlags");
  *flags = 0;
  const unsigned type = UGetDriveType(path_.Text());
  if (type == kDriveNoRootDir) {
    USetLastError(kWinInvalidDrive);
    return MapAndLogErr(&path_, "TVol::GetFlags: UGetDriveType failed", kWinInvalidDrive);
  }
  *flags = FlagsOfDriveType(type);
  if (withFileSystemFlags) {
    unsigned fsFlags = 0;
    if (!UGetVolumeInformation(path_.Text(), nullptr, 0, nullptr, nullptr, &fsFlags, nullptr, 0)) {
      *flags |= kVolNoFileSystemFlags;
      return MapAndLogErr(&path_, "TVol::GetFlags: UGetVolumeInformation failed", 0);
    }
    *flags |= fsFlags;
  }
  return 0;
}

int TVol::GetDeviceNumber(unsigned* number) const {
  if (number) *number = 0;
  return 0;
}

int TVol::GetBlockSize(unsigned* size) const {
  if (size == nullptr) return NullArgument("TVol::GetBlockSize");
  unsigned sectors = 0, bytes = 0;
  if (!UGetDiskFreeSpace(path_.Text(), &sectors, &bytes, nullptr, nullptr))
    return MapAndLogErr(&path_, "TVol::GetBlockSize: UGetDiskFreeSpace failed", 0);
  *size = sectors * bytes;
  return 0;
}

int TVol::GetInfo(NativVolInfo* info) const {
  if (info == nullptr) return NullArgument("TVol::GetInfo");
  char16_t label[kMaxPath], fsName[kMaxPath];
  unsigned serial = 0, maxLen = 0, fsFlags = 0;
  if (!UGetVolumeInformation(path_.Text(), label, kMaxPath, &serial, &maxLen, &fsFlags, fsName,
                             kMaxPath)) {
    return MapAndLogErr(&path_, "TVol::GetInfo: UGetVolumeInformation failed", 0);
  }
  std::uint64_t fsId = 0;
  UGetVolumeFileSystemId(path_.Text(), &fsId);
  info->Reset();
  info->flags = FlagsOfDriveType(UGetDriveType(path_.Text()));
  info->serial = serial;
  info->fsIdLow = static_cast<unsigned>(fsId);
  info->fsIdHigh = static_cast<unsigned>(fsId >> 32);
  info->name.Assign(label);
  info->labelHash = info->name.IsEmpty() ? 0u : static_cast<unsigned>(info->name.Hash());
  info->maxComponentLength = maxLen;
  info->fileSystemFlags = fsFlags;
  info->path = path_;
  info->fsName.Assign(fsName);
  return 0;
}

// ---- TVol: media --------------------------------------------------------------------

int TVol::openAsNtDevice(void** handle) const {
  *handle = nullptr;
  if (UGetDriveType(path_.Text()) == kDriveNoRootDir) {
    USetLastError(kWinInvalidDrive);
    return MapAndLogErr(&path_, "TVol::openAsNtDevice: UGetDriveType failed", kWinInvalidDrive);
  }
  char16_t device[] = u"\\\\.\\?:";
  device[4] = path_.IsEmpty() ? u'?' : path_[0];
  const UHANDLE h =
      UCreateFile(device, kGenericRead, kFileShareRead | kFileShareWrite, kOpenExisting, 0);
  if (h == kInvalidHandleValue)
    return MapAndLogErr(&path_, "TVol::openAsNtDevice: CreateFile failed", 0);
  *handle = h;
  return 0;
}

int TVol::IsEmpty(int* empty) const {
  if (empty == nullptr) return NullArgument("TVol::IsEmpty");
  const int ok =
      UGetVolumeInformation(path_.Text(), nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0);
  *empty = !ok && UGetLastError() == kWinNotReady;
  return 0;
}

int TVol::IsEjectable(int* ejectable, unsigned) const {
  if (ejectable == nullptr) return NullArgument("TVol::IsEjectable");
  const unsigned type = UGetDriveType(path_.Text());
  *ejectable = type == kDriveRemovable || type == kDriveCdrom;
  return 0;
}

int TVol::IsFloppy(int* floppy) const {
  if (floppy == nullptr) return NullArgument("TVol::IsFloppy");
  const char16_t letter = path_.IsEmpty() ? 0 : ToUpper(path_[0]);
  *floppy = (letter == u'A' || letter == u'B') && IsDriveForm(path_) &&
            UGetDriveType(path_.Text()) == kDriveRemovable;
  return 0;
}

int TVol::IsLocked(int* locked) const {
  if (locked == nullptr) return NullArgument("TVol::IsLocked");
  *locked = 0;
  return 0;
}

int TVol::IsBusy() const { return 0; }

int TVol::Lock(void** handle, unsigned, unsigned) const {
  if (handle == nullptr) return NullArgument("TVol::Lock");
  if (const int err = openAsNtDevice(handle)) return err;
  unsigned returned = 0;
  if (UDeviceIoControl(*handle, kFsctlLockVolume, nullptr, 0, nullptr, 0, &returned)) return 0;
  const int err = MapWindowsError(0);
  UCloseHandle(*handle);
  *handle = nullptr;
  return err;
}

int TVol::Unlock(void* handle) const {
  if (handle == nullptr) return 0;
  unsigned returned = 0;
  UDeviceIoControl(handle, kFsctlUnlockVolume, nullptr, 0, nullptr, 0, &returned);
  return UCloseHandle(handle) ? 0 : MapWindowsError(0);
}

int TVol::Eject() const {
  void* h = nullptr;
  if (const int err = openAsNtDevice(&h)) return err;
  unsigned char prevent = 0;
  unsigned returned = 0;
  int err = 0;
  if (!UDeviceIoControl(h, kIoctlMediaRemoval, &prevent, 1, nullptr, 0, &returned)) {
    err = MapAndLogErr(&path_, "TVol::Eject: DeviceIoControl can't change media removal", 0);
  }
  UCloseHandle(h);
  return err;
}

int TVol::MakeEjectable(int ejectable) const {
  void* h = nullptr;
  if (const int err = openAsNtDevice(&h)) {
    DebugLogf(kLogPlatform, "TVol::MakeEjectable: openAsNtDevice can't open device");
    return err;
  }
  unsigned char prevent = ejectable ? 0 : 1;
  unsigned returned = 0;
  int err = 0;
  if (!UDeviceIoControl(h, kIoctlMediaRemoval, &prevent, 1, nullptr, 0, &returned)) {
    err =
        MapAndLogErr(&path_, "TVol::MakeEjectable: DeviceIoControl can't change media removal", 0);
  }
  UCloseHandle(h);
  return err;
}

int TVol::Format(void*, TString*) const {
  const int err = MapWindowsError(kWinNotSupported);
  DebugLogf(kLogPlatform, "TVol::Format: SHFormatDrive %s failed, winerr = %~d, err = %~d", &path_,
            static_cast<int>(kWinNotSupported), err);
  return err;
}

int TVol::GetScsiInfo(unsigned* port, unsigned* path, unsigned* target, unsigned* lun) const {
  for (unsigned* p : {port, path, target, lun})
    if (p) *p = 0;
  void* h = nullptr;
  if (const int err = openAsNtDevice(&h)) {
    DebugLogf(kLogPlatform, "TVol::GetScsiInfo: openAsNtDevice can't open device");
    return err;
  }
  unsigned char address[8] = {};
  unsigned returned = 0;
  int err = 0;
  if (!UDeviceIoControl(h, kIoctlScsiAddress, nullptr, 0, address, sizeof address, &returned)) {
    err = MapAndLogErr(&path_, "TVol::GetScsiInfo: DeviceIoControl can't get scsi info", 0);
  }
  UCloseHandle(h);
  return err;
}

int TVol::Flush() const {
  void* h = nullptr;
  if (const int err = openAsNtDevice(&h)) return err;
  int err = 0;
  if (!UFlushFileBuffers(h)) err = MapAndLogErr(&path_, "TVol::Flush: FlushFileBuffers failed", 0);
  UCloseHandle(h);
  return err;
}

// ---- TVol: persisted form ---------------------------------------------------------

unsigned TVol::StoreSize() const { return LocationStoreSize(path_); }

int TVol::Export(void* buffer, int size) const {
  return ExportLocation(path_, kVolSignature, buffer, size);
}

int TVol::Import(const void* buffer, int size) {
  return ImportLocation(&path_, kVolSignature, buffer, size);
}

// ---- TLocalVolEnum ------------------------------------------------------------------

struct TLocalVolEnum::State {
  std::vector<TString> enumed;
  std::vector<TString> queue;  // paths of the current volume not yet handed out
  UHANDLE volumes = kInvalidHandleValue;
  bool opened = false;  // the platform's volume walk has begun
  bool done = false;
};

TLocalVolEnum::TLocalVolEnum() : state_(new State) {}

TLocalVolEnum::~TLocalVolEnum() {
  Reset();
  delete state_;
}

void TLocalVolEnum::Reset() {
  if (state_->volumes != kInvalidHandleValue) UFindVolumeClose(state_->volumes);
  state_->volumes = kInvalidHandleValue;
  state_->enumed.clear();
  state_->queue.clear();
  state_->opened = false;
  state_->done = false;
}

int TLocalVolEnum::StartEnum() {
  Reset();
  return 0;
}

int TLocalVolEnum::AlreadyEnumed(const TString* path) const {
  if (path == nullptr) return 0;
  for (const TString& p : state_->enumed)
    if (p.Compare(*path, 0) == 0) return 1;
  return 0;
}

int TLocalVolEnum::AddEnumed(const TString* path) {
  if (path == nullptr) return NullArgument("TLocalVolEnum::AddEnumed");
  state_->enumed.push_back(*path);
  return 0;
}

int TLocalVolEnum::NextEnum(TVol* vol) {
  if (vol == nullptr) return NullArgument("TVol::NextEnum");
  for (;;) {
    while (!state_->queue.empty()) {
      TString path = state_->queue.front();
      state_->queue.erase(state_->queue.begin());
      if (AlreadyEnumed(&path)) continue;
      AddEnumed(&path);
      return vol->Set(&path, 0);
    }
    if (state_->done) return kErrNoMoreEntries;
    char16_t name[kMaxPath];
    bool more;
    if (!state_->opened) {
      state_->opened = true;
      state_->volumes = UFindFirstVolume(name, kMaxPath);
      more = state_->volumes != kInvalidHandleValue;
    } else {
      more = UFindNextVolume(state_->volumes, name, kMaxPath) != 0;
    }
    if (!more) {
      if (state_->volumes != kInvalidHandleValue) UFindVolumeClose(state_->volumes);
      state_->volumes = kInvalidHandleValue;
      state_->done = true;
      continue;
    }
    char16_t roots[kMaxPath];
    unsigned returned = 0;
    if (!UGetVolumePathNamesForVolumeName(name, roots, kMaxPath, &returned)) continue;
    for (const char16_t* r = roots; *r; r += WideCharCount(r) + 1) {
      const TString root(r);
      state_->queue.push_back(root);
      char16_t mount[kMaxPath];
      const UHANDLE mounts = UFindFirstVolumeMountPoint(r, mount, kMaxPath);
      if (mounts == kInvalidHandleValue) continue;
      do {
        state_->queue.push_back(root + TString(mount));
      } while (UFindNextVolumeMountPoint(mounts, mount, kMaxPath));
      if (UGetLastError() != 18) {
        MapAndLogErr(&root, "TVol::NextEnum: UFindNextVolumeMountPoint failed", 0);
      }
      UFindVolumeMountPointClose(mounts);
    }
  }
}
