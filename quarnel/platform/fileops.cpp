// The name-level file calls: delete, copy, move, folders, attributes, the
// current folder, full paths and temporary names.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/fileops.h"
#include "quarnel/platform/internal/handles.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/tick.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kWinAccessDenied = 5;
constexpr unsigned kWinNotSameDevice = 17;
constexpr unsigned kWinSharingViolation = 32;
constexpr unsigned kWinFileExists = 80;
constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinDirNotEmpty = 145;
constexpr unsigned kWinAlreadyExists = 183;
constexpr unsigned kWinFilenameTooLong = 206;
constexpr unsigned kWinDirectory = 267;

bool Faulted(UCall call) {
  unsigned err = 0;
  if (!UShouldFail(call, &err)) return false;
  USetLastError(err);
  return true;
}

int Refuse(unsigned err) {
  USetLastError(err);
  return 0;
}

// Resolves a path given to a name-level call (in its long form).
unsigned ResolveLong(const char16_t* path, Resolved* r) {
  if (path == nullptr) return kWinInvalidParameter;
  const std::u16string longForm = LongPathForm(path);
  return ResolvePath(longForm.c_str(), false, r);
}

unsigned CopyOut(const std::u16string& s, unsigned size, char16_t* buffer) {
  if (buffer == nullptr || size <= s.size()) return static_cast<unsigned>(s.size() + 1);
  std::memcpy(buffer, s.c_str(), (s.size() + 1) * sizeof(char16_t));
  return static_cast<unsigned>(s.size());
}

// Copies the bytes of one open file into another.
bool CopyBytes(int from, int to) {
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(from, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(to, buf + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        if (w == 0) errno = ENOSPC;
        return false;
      }
      done += w;
    }
  }
}

int FdOf(UHANDLE h) {
  auto* f = static_cast<UFileObject*>(FindHandle(h, UObject::kFile));
  return f ? f->fd : -1;
}

// CopyFile's work, on resolved paths; returns 0 or the Windows error.
unsigned CopyResolved(const char16_t* from, const char16_t* to, const Resolved& src,
                      int failIfExists) {
  unsigned err = 0;
  const UHANDLE in =
      OpenFile(from, kGenericRead, kFileShareRead | kFileShareWrite | kFileShareDelete,
               kOpenExisting, 0, &err);
  if (in == kInvalidHandleValue) return err;
  const UHANDLE out = OpenFile(to, kGenericWrite, 0, failIfExists ? kCreateNew : kCreateAlways,
                               kFileAttributeNormal, &err);
  if (out == kInvalidHandleValue) {
    UCloseHandle(in);
    return err;
  }
  err = 0;
  if (!CopyBytes(FdOf(in), FdOf(out))) err = UWinErrorFromErrno(errno);
  if (err == 0) {
    const timespec times[2] = {src.st.st_atim, src.st.st_mtim};
    futimens(FdOf(out), times);
    if (IsReadOnly(src.st)) fchmod(FdOf(out), src.st.st_mode & ~static_cast<mode_t>(0222));
  }
  Resolved dst;
  ResolveLong(to, &dst);
  UCloseHandle(out);
  UCloseHandle(in);
  if (err != 0) ::unlink(dst.host.c_str());
  return err;
}

std::atomic<unsigned> g_tempCounter{0};

std::u16string TempFolderText() {
  const char* names[] = {"TMP", "TEMP"};
  std::string value;
  for (const char* n : names) {
    const char* v = std::getenv(n);
    if (v && *v) {
      value = v;
      break;
    }
  }
  if (value.empty()) value.assign("/tmp", 4);
  std::u16string loc;
  const bool windowsForm = (value.size() >= 2 && value[1] == ':') || value.rfind("\\\\", 0) == 0;
  if (windowsForm) {
    WinPath p;
    if (ParseWinPath(WideFromHost(value).c_str(), CurrentFolder(), false, &p) == 0)
      loc = FormatWinPath(p);
  } else {
    loc = LocFromHost(value);
  }
  if (!loc.empty() && loc.back() != u'\\') loc += u'\\';
  return loc;
}

// Resolves both ends of a move and the host name the moved entry takes: 0,
// or the Windows error. A drive root as the target gives `rootTarget`.
unsigned MoveEnds(const char16_t* from, const char16_t* to, unsigned rootTarget, Resolved* src,
                  Resolved* dst, std::string* target) {
  if (const unsigned err = ResolveLong(from, src)) return err;
  if (!src->exists) return MissingError(*src);
  if (src->isRoot) return kWinAccessDenied;
  if (const unsigned err = ResolveLong(to, dst)) return err;
  if (dst->isRoot) return rootTarget;
  if (!dst->exists && !dst->parentExists) return MissingError(*dst);
  *target = JoinHost(dst->parentHost, HostFromWide(dst->win.parts.back()));
  return 0;
}

}  // namespace

int UDeleteFile(const char16_t* path) {
  if (Faulted(UCall::kDeleteFile)) return 0;
  Resolved r;
  if (const unsigned err = ResolveLong(path, &r)) return Refuse(err);
  if (!r.exists) return Refuse(MissingError(r));
  if (S_ISDIR(r.st.st_mode) || IsReadOnly(r.st)) return Refuse(kWinAccessDenied);
  if (DeleteDenied(r.host)) return Refuse(kWinSharingViolation);
  DiskTouch(r.host);
  if (::unlink(r.host.c_str()) != 0) return Refuse(UWinErrorFromErrno(errno));
  DiskNoteDelete(r.host);
  return 1;
}

int UCopyFile(const char16_t* from, const char16_t* to, int failIfExists) {
  if (Faulted(UCall::kCopyFile)) return 0;
  Resolved src, dst;
  if (const unsigned err = ResolveLong(from, &src)) return Refuse(err);
  if (!src.exists) return Refuse(MissingError(src));
  if (S_ISDIR(src.st.st_mode)) return Refuse(kWinAccessDenied);
  if (const unsigned err = ResolveLong(to, &dst)) return Refuse(err);
  if (dst.exists) {
    if (failIfExists) return Refuse(kWinFileExists);
    if (S_ISDIR(dst.st.st_mode) || IsReadOnly(dst.st)) return Refuse(kWinAccessDenied);
    if (dst.st.st_dev == src.st.st_dev && dst.st.st_ino == src.st.st_ino)
      return Refuse(kWinSharingViolation);  // a file copied onto itself
  } else if (!dst.parentExists) {
    return Refuse(MissingError(dst));
  }
  DiskTouch(dst.host);
  if (const unsigned err = CopyResolved(from, to, src, failIfExists)) return Refuse(err);
  DiskNoteWhole(dst.host);
  return 1;
}

int UMoveFile(const char16_t* from, const char16_t* to) {
  if (Faulted(UCall::kMoveFile)) return 0;
  Resolved src, dst;
  std::string target;
  if (const unsigned err = MoveEnds(from, to, kWinAlreadyExists, &src, &dst, &target))
    return Refuse(err);
  if (dst.exists) {
    // Only a new spelling of the source's own name may name an existing entry.
    if (dst.host != src.host) return Refuse(kWinAlreadyExists);
    if (target == src.host) return 1;
  }
  const bool folder = S_ISDIR(src.st.st_mode);
  if (!folder && DeleteDenied(src.host)) return Refuse(kWinSharingViolation);
  if (!folder) {
    DiskTouch(src.host);
    DiskTouch(target);
  }
  // A moved file reaches the simulated disk as its source deleted and its
  // target written whole.
  const auto noteMove = [&] {
    if (folder) return;
    DiskNoteWhole(target);
    DiskNoteDelete(src.host);
  };
  int rc = renameat2(AT_FDCWD, src.host.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
  if (rc != 0 && errno == EINVAL) {
    // A file system without no-replace renames.
    struct stat st;
    if (target != src.host && lstat(target.c_str(), &st) == 0) return Refuse(kWinAlreadyExists);
    rc = ::rename(src.host.c_str(), target.c_str());
  }
  if (rc == 0) {
    noteMove();
    return 1;
  }
  if (errno == EEXIST || errno == ENOTEMPTY) return Refuse(kWinAlreadyExists);
  if (errno != EXDEV) return Refuse(UWinErrorFromErrno(errno, true));
  if (folder) return Refuse(kWinNotSameDevice);
  // A file moves to another volume as a copy and a delete.
  if (const unsigned err = CopyResolved(from, to, src, 1)) return Refuse(err);
  if (::unlink(src.host.c_str()) != 0) return Refuse(UWinErrorFromErrno(errno));
  noteMove();
  return 1;
}

namespace {

// Flushes the folder that holds the entry `path` names.
void SyncFolderOf(const char16_t* path) {
  Resolved r;
  if (ResolveLong(path, &r) != 0) return;
  const int fd = ::open(r.parentHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// UMoveFileEx with kMoveFileReplaceExisting.
int MoveReplacing(const char16_t* from, const char16_t* to, bool copyAllowed) {
  if (Faulted(UCall::kMoveFile)) return 0;
  Resolved src, dst;
  std::string target;
  if (const unsigned err = MoveEnds(from, to, kWinAccessDenied, &src, &dst, &target))
    return Refuse(err);
  const bool folder = S_ISDIR(src.st.st_mode);
  if (dst.exists && dst.host != src.host) {
    if (folder || S_ISDIR(dst.st.st_mode) || IsReadOnly(dst.st)) return Refuse(kWinAccessDenied);
    if (DeleteDenied(dst.host)) return Refuse(kWinSharingViolation);
    target = dst.host;
  }
  if (!folder && DeleteDenied(src.host)) return Refuse(kWinSharingViolation);
  // As in UMoveFile: the simulated disk sees the source deleted and the
  // target written whole.
  const bool note = !folder && target != src.host;
  if (note) {
    DiskTouch(src.host);
    DiskTouch(target);
  }
  const auto noteMove = [&] {
    if (!note) return 1;
    DiskNoteWhole(target);
    DiskNoteDelete(src.host);
    return 1;
  };
  if (::rename(src.host.c_str(), target.c_str()) == 0) return noteMove();
  if (errno != EXDEV) return Refuse(UWinErrorFromErrno(errno, true));
  if (folder || !copyAllowed) return Refuse(kWinNotSameDevice);
  if (const unsigned err = CopyResolved(from, to, src, 0)) return Refuse(err);
  if (::unlink(src.host.c_str()) != 0) return Refuse(UWinErrorFromErrno(errno));
  return noteMove();
}

}  // namespace

int UMoveFileEx(const char16_t* from, const char16_t* to, unsigned flags) {
  if ((flags & ~(kMoveFileReplaceExisting | kMoveFileCopyAllowed | kMoveFileWriteThrough)) != 0)
    return Refuse(kWinInvalidParameter);
  const int moved = (flags & kMoveFileReplaceExisting) != 0
                        ? MoveReplacing(from, to, (flags & kMoveFileCopyAllowed) != 0)
                        : UMoveFile(from, to);
  if (moved && (flags & kMoveFileWriteThrough) != 0) SyncFolderOf(to);
  return moved;
}

int UCreateDirectory(const char16_t* path) {
  if (Faulted(UCall::kCreateDirectory)) return 0;
  Resolved r;
  if (const unsigned err = ResolveLong(path, &r)) return Refuse(err);
  if (r.exists) return Refuse(kWinAlreadyExists);
  if (!r.parentExists) return Refuse(3);
  if (::mkdir(r.host.c_str(), 0777) != 0) return Refuse(UWinErrorFromErrno(errno, true));
  return 1;
}

int URemoveDirectory(const char16_t* path) {
  if (Faulted(UCall::kRemoveDirectory)) return 0;
  Resolved r;
  if (const unsigned err = ResolveLong(path, &r)) return Refuse(err);
  if (!r.exists) return Refuse(MissingError(r));
  if (!S_ISDIR(r.st.st_mode)) return Refuse(kWinDirectory);
  if (r.isRoot || IsReadOnly(r.st)) return Refuse(kWinAccessDenied);
  if (DeleteDenied(r.host)) return Refuse(kWinSharingViolation);
  if (::rmdir(r.host.c_str()) != 0) {
    if (errno == ENOTEMPTY || errno == EEXIST) return Refuse(kWinDirNotEmpty);
    return Refuse(UWinErrorFromErrno(errno, true));
  }
  return 1;
}

unsigned UGetFileAttributes(const char16_t* path) {
  if (Faulted(UCall::kGetFileAttributes)) return kInvalidFileAttributes;
  Resolved r;
  if (const unsigned err = ResolveLong(path, &r)) {
    USetLastError(err);
    return kInvalidFileAttributes;
  }
  if (!r.exists) {
    USetLastError(MissingError(r));
    return kInvalidFileAttributes;
  }
  return AttributesOf(r.st, r.isRoot ? std::string() : r.leaf);
}

int USetFileAttributes(const char16_t* path, unsigned attributes) {
  if (Faulted(UCall::kSetFileAttributes)) return 0;
  Resolved r;
  if (const unsigned err = ResolveLong(path, &r)) return Refuse(err);
  if (attributes == kInvalidFileAttributes) return Refuse(kWinInvalidParameter);
  if (!r.exists) return Refuse(MissingError(r));
  mode_t mode = r.st.st_mode & 07777;
  if (attributes & kFileAttributeReadOnly) {
    mode &= ~static_cast<mode_t>(0222);
  } else {
    mode |= S_IWUSR;
  }
  if (mode != (r.st.st_mode & 07777) && ::chmod(r.host.c_str(), mode) != 0)
    return Refuse(UWinErrorFromErrno(errno));
  return 1;
}

unsigned UGetCurrentDirectory(unsigned size, char16_t* buffer) {
  return CopyOut(CurrentFolder(), size, buffer);
}

int USetCurrentDirectory(const char16_t* path) {
  Resolved r;
  if (path == nullptr) return Refuse(kWinInvalidParameter);
  if (const unsigned err = ResolvePath(path, false, &r)) return Refuse(err);
  if (!r.exists) return Refuse(MissingError(r));
  if (!S_ISDIR(r.st.st_mode)) return Refuse(kWinDirectory);
  SetCurrentFolder(FormatWinPath(r.win));
  return 1;
}

unsigned UGetFullPathName(const char16_t* path, unsigned size, char16_t* buffer,
                          char16_t** filePart) {
  if (filePart) *filePart = nullptr;
  WinPath p;
  std::u16string current;
  if (path != nullptr) current = CurrentFolder();
  if (const unsigned err = ParseWinPath(path, current, true, &p)) {
    USetLastError(err);
    return 0;
  }
  const std::u16string full = FormatWinPath(p, p.trailingSeparator);
  const unsigned n = CopyOut(full, size, buffer);
  if (n == full.size() && filePart && !p.parts.empty() && !p.trailingSeparator) {
    *filePart = buffer + full.size() - p.parts.back().size();
  }
  return n;
}

unsigned UGetTempPath(unsigned size, char16_t* buffer) {
  const std::u16string loc = TempFolderText();
  if (loc.empty()) {
    USetLastError(3);
    return 0;
  }
  return CopyOut(loc, size, buffer);
}

unsigned UGetTempFileName(const char16_t* folder, const char16_t* prefix, unsigned unique,
                          char16_t* out) {
  if (Faulted(UCall::kGetTempFileName)) return 0;
  if (folder == nullptr || out == nullptr) return Refuse(kWinInvalidParameter);
  Resolved r;
  if (const unsigned err = ResolveLong(folder, &r)) return Refuse(err == 3 ? kWinDirectory : err);
  if (!r.exists || !S_ISDIR(r.st.st_mode)) return Refuse(kWinDirectory);
  std::u16string base(folder);
  if (base.empty() || (base.back() != u'\\' && base.back() != u'/')) base += u'\\';
  if (prefix) base += std::u16string(prefix).substr(0, 3);
  auto nameFor = [&](unsigned n) {
    static const char16_t kHex[] = u"0123456789ABCDEF";
    std::u16string digits;
    do {
      digits.insert(digits.begin(), kHex[n & 15]);
      n >>= 4;
    } while (n != 0);
    return base + digits + u".TMP";
  };
  auto give = [&](const std::u16string& name, unsigned n) -> unsigned {
    if (name.size() >= kMaxPath) return Refuse(kWinFilenameTooLong);
    std::memcpy(out, name.c_str(), (name.size() + 1) * sizeof(char16_t));
    USetLastError(0);
    return n;
  };
  unique &= 0xFFFF;
  if (unique != 0) return give(nameFor(unique), unique);
  unsigned expected = 0;
  g_tempCounter.compare_exchange_strong(expected, (UGetTickCount() & 0xFFFF) | 0x10000);
  for (int tries = 0; tries < 0xFFFF; ++tries) {
    const unsigned n = g_tempCounter.fetch_add(1) & 0xFFFF;
    if (n == 0) continue;
    const std::u16string name = nameFor(n);
    if (name.size() >= kMaxPath) return Refuse(kWinFilenameTooLong);
    unsigned err = 0;
    const UHANDLE h =
        OpenFile(name.c_str(), kGenericWrite, 0, kCreateNew, kFileAttributeNormal, &err);
    if (h != kInvalidHandleValue) {
      UCloseHandle(h);
      return give(name, n);
    }
    if (err != kWinFileExists && err != kWinAccessDenied && err != kWinSharingViolation)
      return Refuse(err);
  }
  return Refuse(kWinFileExists);
}

unsigned UGetWindowsDirectory(char16_t* buffer, unsigned size) {
  return CopyOut(u"C:\\Windows", size, buffer);
}

unsigned UGetSystemDirectory(char16_t* buffer, unsigned size) {
  return CopyOut(u"C:\\Windows\\System32", size, buffer);
}

int UIsCharAlpha(char16_t c) {
  if ((c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z')) return 1;
  if (c < 0xAA) return 0;
  if (c == 0xAA || c == 0xB5 || c == 0xBA) return 1;
  if (c >= 0xC0 && c <= 0x24F) return c != 0xD7 && c != 0xF7;
  if (c >= 0x370 && c <= 0x3FF)
    return c != 0x375 && c != 0x37E && c != 0x384 && c != 0x385 && c != 0x387;
  if ((c >= 0x400 && c <= 0x481) || (c >= 0x48A && c <= 0x52F)) return 1;
  if (c >= 0x3041 && c <= 0x30FF) return c != 0x30A0 && c != 0x30FB;
  if ((c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xAC00 && c <= 0xD7A3)) return 1;
  return (c >= 0xFF21 && c <= 0xFF3A) || (c >= 0xFF41 && c <= 0xFF5A);
}
