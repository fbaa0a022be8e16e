// CreateFile and the calls on file handles.
#include "quarnel/platform/fileapi.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <memory>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/fileops.h"
#include "quarnel/platform/internal/handles.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"

namespace quarnel_internal {

namespace {

constexpr unsigned kWinFileNotFound = 2;
constexpr unsigned kWinAccessDenied = 5;
constexpr unsigned kWinInvalidHandle = 6;
constexpr unsigned kWinInvalidFunction = 1;
constexpr unsigned kWinSharingViolation = 32;
constexpr unsigned kWinFileExists = 80;
constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinNegativeSeek = 131;
constexpr unsigned kWinDirNotEmpty = 145;
constexpr unsigned kWinAlreadyExists = 183;

// The reserved bytes of the sharing announcements: one per access kind held
// and one per access kind denied to others, far past any data.
constexpr off_t kShareBase = 0x7FFFFFFFFFFF0000;
constexpr int kHeldOffset = 0;
constexpr int kDeniedOffset = 3;

bool LockByte(int fd, int which) {
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = kShareBase + which;
  fl.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

// True when a handle other than `fd`'s holds the byte.
bool HeldElsewhere(int fd, int which) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = kShareBase + which;
  fl.l_len = 1;
  return fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
}

unsigned AccessBits(unsigned access) {
  unsigned bits = 0;
  if (access & (kModeRead | kGenericRead)) bits |= kAccessRead;
  if (access & (kModeWrite | kModeWriteOrRead | kGenericWrite)) bits |= kAccessWrite;
  if (access & kDeleteAccess) bits |= kAccessDelete;
  return bits;
}

bool FolderIsEmpty(const std::string& host) {
  DIR* dir = opendir(host.c_str());
  if (!dir) return false;
  bool empty = true;
  while (dirent* e = readdir(dir)) {
    if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") {
      empty = false;
      break;
    }
  }
  closedir(dir);
  return empty;
}

UHANDLE Fail(unsigned* err, unsigned code) {
  *err = code;
  return kInvalidHandleValue;
}

UFileObject* FileOf(UHANDLE handle) {
  auto* f = static_cast<UFileObject*>(FindHandle(handle, UObject::kFile));
  if (f == nullptr) USetLastError(kWinInvalidHandle);
  return f;
}

UHANDLE OpenOnce(const char16_t* path, unsigned access, unsigned share, unsigned disposition,
                 unsigned flags, unsigned* err) {
  Resolved r;
  const std::u16string longForm = LongPathForm(path ? std::u16string(path) : std::u16string());
  if (path == nullptr) return Fail(err, kWinInvalidParameter);
  if (const unsigned e = ResolvePath(longForm.c_str(), false, &r)) return Fail(err, e);
  if (disposition < kCreateNew || disposition > kTruncateExisting)
    return Fail(err, kWinInvalidParameter);
  const unsigned bits = AccessBits(access);
  const bool deleteOnClose = (flags & kFileFlagDeleteOnClose) != 0;
  auto object = std::make_unique<UFileObject>();
  object->access = bits | (deleteOnClose ? unsigned{kAccessDelete} : 0u);
  WinPath root = r.win;
  root.parts.clear();
  if (root.kind == WinPath::kDevice) root.kind = WinPath::kDrive;
  object->volRoot = FormatWinPath(root);
  object->host = r.host;
  *err = 0;
  int fd = -1;
  if (r.win.kind == WinPath::kDevice) {
    fd = ::open(r.rootHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Fail(err, UWinErrorFromErrno(errno, true));
    object->isVolume = true;
  } else if (r.exists && S_ISDIR(r.st.st_mode)) {
    if (!(flags & kFileFlagBackupSemantics)) return Fail(err, kWinAccessDenied);
    if (disposition == kCreateNew) return Fail(err, kWinAlreadyExists);
    if (disposition == kCreateAlways || disposition == kTruncateExisting)
      return Fail(err, kWinAccessDenied);
    if (deleteOnClose) {
      if (r.isRoot || IsReadOnly(r.st)) return Fail(err, kWinAccessDenied);
      if (!FolderIsEmpty(r.host)) return Fail(err, kWinDirNotEmpty);
    }
    fd = ::open(r.host.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Fail(err, UWinErrorFromErrno(errno, true));
    object->isFolder = true;
  } else if (r.exists) {
    if (disposition == kCreateNew) return Fail(err, kWinFileExists);
    const bool truncate = disposition == kCreateAlways || disposition == kTruncateExisting;
    if (disposition == kTruncateExisting && !(bits & kAccessWrite))
      return Fail(err, kWinInvalidParameter);
    if (IsReadOnly(r.st) && ((bits & kAccessWrite) || truncate || deleteOnClose))
      return Fail(err, kWinAccessDenied);
    int oflags = O_CLOEXEC | O_NOCTTY;
    oflags |= (bits & kAccessWrite) ? O_RDWR : O_RDONLY;
    if ((access & kModeWriteThrough) || (flags & kFileFlagWriteThrough)) oflags |= O_DSYNC;
    fd = ::open(r.host.c_str(), oflags);
    if (fd < 0) return Fail(err, errno == ENOENT ? kWinFileNotFound : UWinErrorFromErrno(errno));
    object->fd = fd;
    if (ShareAcquire(fd, object->access, share) != 0) return Fail(err, kWinSharingViolation);
    if (truncate && ftruncate(fd, 0) != 0) return Fail(err, UWinErrorFromErrno(errno));
    if (disposition == kCreateAlways || disposition == kOpenAlways) *err = kWinAlreadyExists;
  } else {
    if (!r.parentExists) return Fail(err, MissingError(r));
    if (disposition == kOpenExisting || disposition == kTruncateExisting)
      return Fail(err, kWinFileNotFound);
    int oflags = O_CLOEXEC | O_NOCTTY | O_CREAT | O_EXCL | O_RDWR;
    if ((access & kModeWriteThrough) || (flags & kFileFlagWriteThrough)) oflags |= O_DSYNC;
    const mode_t mode = (flags & kFileAttributeReadOnly) ? 0444 : 0666;
    fd = ::open(r.host.c_str(), oflags, mode);
    if (fd < 0) return Fail(err, UWinErrorFromErrno(errno));
    object->fd = fd;
    if (ShareAcquire(fd, object->access, share) != 0) return Fail(err, kWinSharingViolation);
  }
  object->fd = fd;
  object->deleteOnClose = deleteOnClose;
  const UHANDLE h = AddHandle(object.release());
  if (h == kInvalidHandleValue) *err = 4;
  return h;
}

}  // namespace

unsigned AttributesOf(const struct stat& st, const std::string& name) {
  unsigned a = S_ISDIR(st.st_mode) ? kFileAttributeDirectory : kFileAttributeArchive;
  if (IsReadOnly(st)) a |= kFileAttributeReadOnly;
  if (!name.empty() && name[0] == '.') a |= kFileAttributeHidden;
  return a;
}

bool IsReadOnly(const struct stat& st) { return (st.st_mode & S_IWUSR) == 0; }

UFILETIME FileTimeOf(const timespec& ts) {
  constexpr std::int64_t kEpochDelta = 11644473600;  // seconds from 1601 to 1970
  const std::int64_t sec = static_cast<std::int64_t>(ts.tv_sec) + kEpochDelta;
  if (sec < 0) return UMakeFileTime(0);
  return UMakeFileTime(static_cast<std::uint64_t>(sec) * 10000000u +
                       static_cast<std::uint64_t>(ts.tv_nsec / 100));
}

unsigned MissingError(const Resolved& r) { return r.parentExists ? 2u : 3u; }

unsigned ShareAcquire(int fd, unsigned access, unsigned share) {
  if (access == 0) return 0;  // an open without data access takes part in no sharing
  for (int k = 0; k < 3; ++k) {
    if ((access & (1u << k)) && !LockByte(fd, kHeldOffset + k)) return 0;  // no locks here
    if (!(share & (1u << k)) && !LockByte(fd, kDeniedOffset + k)) return 0;
  }
  for (int k = 0; k < 3; ++k) {
    if ((access & (1u << k)) && HeldElsewhere(fd, kDeniedOffset + k)) return kWinSharingViolation;
    if (!(share & (1u << k)) && HeldElsewhere(fd, kHeldOffset + k)) return kWinSharingViolation;
  }
  return 0;
}

bool DeleteDenied(const std::string& host) {
  const int fd = ::open(host.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  const bool denied = HeldElsewhere(fd, kDeniedOffset + 2);
  ::close(fd);
  return denied;
}

UHANDLE OpenFile(const char16_t* path, unsigned access, unsigned share, unsigned disposition,
                 unsigned flags, unsigned* err) {
  UHANDLE h = OpenOnce(path, access, share, disposition, flags, err);
  if (h == kInvalidHandleValue && *err == kWinAccessDenied && (access & kModeWriteOrRead)) {
    access &= ~(kModeWrite | kModeWriteOrRead | kGenericWrite);
    h = OpenOnce(path, access, share, disposition, flags, err);
  }
  return h;
}

}  // namespace quarnel_internal

using namespace quarnel_internal;

UHANDLE UCreateFile(const char16_t* path, unsigned access, unsigned share, unsigned disposition,
                    unsigned flags) {
  unsigned err = 0;
  if (UShouldFail(UCall::kCreateFile, &err)) {
    USetLastError(err);
    return kInvalidHandleValue;
  }
  if (!DiskRecording()) {
    const UHANDLE h = OpenFile(path, access, share, disposition, flags, &err);
    USetLastError(err);
    return h;
  }
  // The simulated disk sees the file before and after an open that may
  // create or truncate it.
  Resolved before;
  const bool known =
      path != nullptr && ResolvePath(LongPathForm(path).c_str(), false, &before) == 0;
  if (known) DiskTouch(before.host);
  const UHANDLE h = OpenFile(path, access, share, disposition, flags, &err);
  const bool made =
      disposition == kCreateAlways || disposition == kTruncateExisting || (known && !before.exists);
  if (h != kInvalidHandleValue && made) {
    if (auto* f = static_cast<UFileObject*>(FindHandle(h, UObject::kFile)); f && !f->isFolder)
      DiskNoteWhole(f->host);
  }
  USetLastError(err);
  return h;
}

namespace {

// The open file of `handle` for a call on its data: null with the last error
// set when the fault seam fails `call`, when the handle is not a file's (6),
// names a folder or, unless `volumeToo`, a volume (1), or lacks `access` (5).
UFileObject* DataFile(UHANDLE handle, UCall call, unsigned access, bool volumeToo = false) {
  unsigned err = 0;
  if (UShouldFail(call, &err)) {
    USetLastError(err);
    return nullptr;
  }
  UFileObject* f = FileOf(handle);
  if (f == nullptr) return nullptr;
  if (f->isFolder || (f->isVolume && !volumeToo)) {
    USetLastError(kWinInvalidFunction);
    return nullptr;
  }
  if (!f->isVolume && (f->access & access) != access) {
    USetLastError(kWinAccessDenied);
    return nullptr;
  }
  return f;
}

// Reads or writes `count` bytes, stopping early only at the end of the file
// (reading) or on an error; *done is what was moved.
int Transfer(UFileObject* f, char* buffer, unsigned count, unsigned* done, bool write) {
  unsigned moved = 0;
  while (moved < count) {
    const ssize_t n = write ? ::write(f->fd, buffer + moved, count - moved)
                            : ::read(f->fd, buffer + moved, count - moved);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || (n == 0 && write)) {
      if (done) *done = moved;
      USetLastError(n == 0 ? 112u : UWinErrorFromErrno(errno));
      return 0;
    }
    if (n == 0) break;
    moved += static_cast<unsigned>(n);
  }
  if (done) *done = moved;
  return 1;
}

// The spans as an I/O vector without empty pieces; false (87 or 998 set)
// when they are too many, too long together, or a piece has no memory.
bool SpanVector(const UFileSpan* spans, int count, iovec* out, int* pieces) {
  if (count < 0 || count > kUFileSpansMax || (spans == nullptr && count > 0)) {
    USetLastError(kWinInvalidParameter);
    return false;
  }
  std::uint64_t total = 0;
  *pieces = 0;
  for (int i = 0; i < count; ++i) {
    if (spans[i].count == 0) continue;
    if (spans[i].data == nullptr) {
      USetLastError(998);
      return false;
    }
    total += spans[i].count;
    out[(*pieces)++] = iovec{spans[i].data, spans[i].count};
  }
  if (total > 0xFFFFFFFFu) {
    USetLastError(kWinInvalidParameter);
    return false;
  }
  return true;
}

// Transfer at a position, through an I/O vector (advanced as it goes).
int TransferAt(UFileObject* f, iovec* iov, int pieces, std::uint64_t offset, unsigned* done,
               bool write) {
  unsigned moved = 0;
  int first = 0;
  while (first < pieces) {
    const auto at = static_cast<off_t>(offset + moved);
    const ssize_t n = write ? ::pwritev(f->fd, iov + first, pieces - first, at)
                            : ::preadv(f->fd, iov + first, pieces - first, at);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || (n == 0 && write)) {
      *done = moved;
      USetLastError(n == 0 ? 112u : UWinErrorFromErrno(errno));
      return 0;
    }
    if (n == 0) break;
    moved += static_cast<unsigned>(n);
    auto left = static_cast<std::size_t>(n);
    while (first < pieces && left >= iov[first].iov_len) left -= iov[first++].iov_len;
    if (first < pieces) {
      iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + left;
      iov[first].iov_len -= left;
    }
  }
  *done = moved;
  return 1;
}

}  // namespace

namespace {

// A positioned call: the handle and the spans checked, then the transfer;
// a write is recorded on the simulated disk as one write of all its bytes.
int PositionedCall(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                   unsigned* done, bool write) {
  if (done) *done = 0;
  UFileObject* f = write ? DataFile(file, UCall::kWriteFile, kAccessWrite)
                         : DataFile(file, UCall::kReadFile, kAccessRead);
  iovec iov[kUFileSpansMax];
  int pieces = 0;
  if (f == nullptr || !SpanVector(spans, count, iov, &pieces)) return 0;
  unsigned moved = 0;
  int ok = 0;
  if (!write || !DiskRecording()) {
    ok = TransferAt(f, iov, pieces, offset, &moved, write);
  } else {
    DiskTouch(f->host);
    std::string bytes;
    for (int i = 0; i < pieces; ++i)
      bytes.append(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
    iovec whole{bytes.data(), bytes.size()};
    ok = TransferAt(f, &whole, bytes.empty() ? 0 : 1, offset, &moved, true);
    DiskNoteWrite(f->host, offset, bytes.data(), moved);
  }
  if (done) *done = moved;
  return ok;
}

}  // namespace

int UReadFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                unsigned* read) {
  return PositionedCall(file, spans, count, offset, read, false);
}

int UWriteFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                 unsigned* written) {
  return PositionedCall(file, spans, count, offset, written, true);
}

int UReadFile(UHANDLE file, void* buffer, unsigned count, unsigned* read) {
  if (read) *read = 0;
  UFileObject* f = DataFile(file, UCall::kReadFile, kAccessRead);
  if (f == nullptr) return 0;
  if (buffer == nullptr && count > 0) {
    USetLastError(998);
    return 0;
  }
  return Transfer(f, static_cast<char*>(buffer), count, read, false);
}

int UWriteFile(UHANDLE file, const void* buffer, unsigned count, unsigned* written) {
  if (written) *written = 0;
  UFileObject* f = DataFile(file, UCall::kWriteFile, kAccessWrite);
  if (f == nullptr) return 0;
  if (buffer == nullptr && count > 0) {
    USetLastError(998);
    return 0;
  }
  if (!DiskRecording())
    return Transfer(f, static_cast<char*>(const_cast<void*>(buffer)), count, written, true);
  DiskTouch(f->host);
  const off_t at = lseek(f->fd, 0, SEEK_CUR);
  unsigned done = 0;
  const int ok = Transfer(f, static_cast<char*>(const_cast<void*>(buffer)), count, &done, true);
  if (at >= 0) DiskNoteWrite(f->host, static_cast<std::uint64_t>(at), buffer, done);
  if (written) *written = done;
  return ok;
}

unsigned USetFilePointer(UHANDLE file, std::int32_t low, std::int32_t* high, unsigned method) {
  UFileObject* f = DataFile(file, UCall::kSetFilePointer, 0);
  if (f == nullptr) return kInvalidSetFilePointer;
  if (method > kFileEnd) {
    USetLastError(kWinInvalidParameter);
    return kInvalidSetFilePointer;
  }
  const std::int64_t distance =
      high ? static_cast<std::int64_t>(
                 (static_cast<std::uint64_t>(static_cast<std::uint32_t>(*high)) << 32) |
                 static_cast<std::uint32_t>(low))
           : static_cast<std::int64_t>(low);
  std::int64_t origin = 0;
  if (method == kFileCurrent) {
    origin = lseek(f->fd, 0, SEEK_CUR);
  } else if (method == kFileEnd) {
    struct stat st;
    origin = fstat(f->fd, &st) == 0 ? st.st_size : -1;
  }
  if (origin < 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return kInvalidSetFilePointer;
  }
  const auto target = static_cast<std::int64_t>(static_cast<std::uint64_t>(origin) +
                                                static_cast<std::uint64_t>(distance));
  if (target < 0) {
    USetLastError(kWinNegativeSeek);
    return kInvalidSetFilePointer;
  }
  if (lseek(f->fd, target, SEEK_SET) < 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return kInvalidSetFilePointer;
  }
  if (high) *high = static_cast<std::int32_t>(static_cast<std::uint64_t>(target) >> 32);
  const auto newLow = static_cast<unsigned>(static_cast<std::uint64_t>(target) & 0xFFFFFFFFu);
  if (newLow == kInvalidSetFilePointer) USetLastError(0);
  return newLow;
}

int USetEndOfFile(UHANDLE file) {
  UFileObject* f = DataFile(file, UCall::kSetEndOfFile, kAccessWrite);
  if (f == nullptr) return 0;
  const off_t pos = lseek(f->fd, 0, SEEK_CUR);
  DiskTouch(f->host);
  if (pos < 0 || ftruncate(f->fd, pos) != 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return 0;
  }
  DiskNoteLength(f->host, static_cast<std::uint64_t>(pos));
  return 1;
}

int UFlushFileBuffers(UHANDLE file) {
  UFileObject* f = DataFile(file, UCall::kFlushFileBuffers, kAccessWrite, true);
  if (f == nullptr) return 0;
  if ((f->isVolume ? syncfs(f->fd) : fdatasync(f->fd)) != 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return 0;
  }
  if (!f->isVolume) DiskNoteFlush(f->host);
  return 1;
}

int UStartWriteBack(UHANDLE file, std::uint64_t offset, std::uint64_t length) {
  UFileObject* f = FileOf(file);
  if (f == nullptr) return 0;
  if (f->isFolder || f->isVolume || length == 0) return 1;
  if (::sync_file_range(f->fd, static_cast<off_t>(offset), static_cast<off_t>(length),
                        SYNC_FILE_RANGE_WRITE) != 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return 0;
  }
  return 1;
}

int UCloseHandle(UHANDLE handle) {
  unsigned err = 0;
  const bool known = FindHandle(handle, UObject::kFile) || FindHandle(handle, UObject::kFind) ||
                     FindHandle(handle, UObject::kVolumeFind) ||
                     FindHandle(handle, UObject::kMountFind);
  if (!known) {
    USetLastError(kWinInvalidHandle);
    return 0;
  }
  if (UShouldFail(UCall::kCloseHandle, &err)) {
    USetLastError(err);
    return 0;
  }
  std::unique_ptr<UObject> object(RemoveHandle(handle));
  if (!object) {
    USetLastError(kWinInvalidHandle);
    return 0;
  }
  if (object->kind != UObject::kFile) return 1;
  auto* f = static_cast<UFileObject*>(object.get());
  if (f->fd >= 0) {
    ::close(f->fd);
    f->fd = -1;
  }
  if (f->deleteOnClose) {
    if (!f->isFolder) DiskTouch(f->host);
    const int rc = f->isFolder ? ::rmdir(f->host.c_str()) : ::unlink(f->host.c_str());
    if (rc != 0) {
      USetLastError(UWinErrorFromErrno(errno));
      return 0;
    }
    if (!f->isFolder) DiskNoteDelete(f->host);
  }
  return 1;
}

int UGetFileInformationByHandle(UHANDLE file, UBY_HANDLE_FILE_INFORMATION* info) {
  unsigned err = 0;
  if (UShouldFail(UCall::kGetFileInformationByHandle, &err)) {
    USetLastError(err);
    return 0;
  }
  UFileObject* f = FileOf(file);
  if (f == nullptr) return 0;
  if (info == nullptr) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  struct stat st;
  if (fstat(f->fd, &st) != 0) {
    USetLastError(UWinErrorFromErrno(errno));
    return 0;
  }
  const std::size_t slash = f->host.rfind('/');
  const std::string name =
      f->isVolume || slash == std::string::npos ? std::string() : f->host.substr(slash + 1);
  info->dwFileAttributes = AttributesOf(st, name);
  info->ftCreationTime = FileTimeOf(st.st_mtim);
  info->ftLastAccessTime = FileTimeOf(st.st_atim);
  info->ftLastWriteTime = FileTimeOf(st.st_mtim);
  Resolved root;
  info->dwVolumeSerialNumber =
      ResolvePath(f->volRoot.c_str(), false, &root) == 0 ? VolumeSerialFor(root.rootHost) : 0;
  const auto size = static_cast<std::uint64_t>(st.st_size);
  info->nFileSizeHigh = static_cast<std::uint32_t>(size >> 32);
  info->nFileSizeLow = static_cast<std::uint32_t>(size);
  info->nNumberOfLinks = static_cast<std::uint32_t>(st.st_nlink);
  const auto ino = static_cast<std::uint64_t>(st.st_ino);
  info->nFileIndexHigh = static_cast<std::uint32_t>(ino >> 32);
  info->nFileIndexLow = static_cast<std::uint32_t>(ino);
  return 1;
}
