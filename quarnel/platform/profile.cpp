#include "quarnel/platform/profile.h"

#if defined(_WIN32)
#include <cstdio>

#include "quarnel/platform/win32/files.h"
#include "quarnel/platform/win32/winapi.h"
#else
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quarnel/platform/internal/fileops.h"
#include "quarnel/platform/internal/resolve.h"
#endif

#include <algorithm>
#include <cstdint>
#include <string>

#include "quarnel/platform/codepage.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/profiletext.h"
#include "quarnel/platform/lasterror.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kWinFileNotFound = 2;
constexpr unsigned kWinPathNotFound = 3;
constexpr unsigned kWinAccessDenied = 5;
constexpr unsigned kWinNotEnoughMemory = 8;
constexpr unsigned kWinInvalidParameter = 87;
constexpr std::uint64_t kMaxProfileBytes = 64u << 20;

#if !defined(_WIN32)  // the Windows file layer has its own (files.h)
int Refuse(unsigned err) {
  USetLastError(err);
  return 0;
}
#endif

bool IsSlash(char16_t c) { return c == u'\\' || c == u'/'; }

// A full path as it is; any other name inside the Windows folder.
std::u16string ProfilePath(const char16_t* file) {
  const std::u16string name(file);
  const bool drive = name.size() >= 3 && name[1] == u':' && IsSlash(name[2]);
  const bool unc = name.size() >= 2 && IsSlash(name[0]) && IsSlash(name[1]);
  if (drive || unc) return name;
  char16_t folder[kMaxPath];
  const unsigned n = UGetWindowsDirectory(folder, kMaxPath);
  return std::u16string(folder, std::min<unsigned>(n, kMaxPath - 1)) + u'\\' + name;
}

// The whole file into *bytes. 0, or the Windows error (2 when the file is
// missing).
unsigned ReadWhole(const std::u16string& path, std::string* bytes) {
  bytes->clear();
  const UHANDLE file =
      UCreateFile(path.c_str(), kGenericRead, kFileShareRead | kFileShareWrite | kFileShareDelete,
                  kOpenExisting, 0);
  if (file == kInvalidHandleValue) return UGetLastError();
  unsigned err = 0;
  UBY_HANDLE_FILE_INFORMATION info;
  if (!UGetFileInformationByHandle(file, &info)) {
    err = UGetLastError();
  } else if ((std::uint64_t{info.nFileSizeHigh} << 32 | info.nFileSizeLow) > kMaxProfileBytes) {
    err = kWinNotEnoughMemory;
  } else {
    // One read more than the size finds the end; a file that grows meanwhile
    // is read on, up to the limit.
    std::size_t want = info.nFileSizeLow + 1;
    for (;;) {
      const std::size_t at = bytes->size();
      bytes->resize(at + want);
      unsigned got = 0;
      if (!UReadFile(file, bytes->data() + at, static_cast<unsigned>(want), &got)) {
        err = UGetLastError();
        break;
      }
      bytes->resize(at + got);
      if (got < want) break;
      if (bytes->size() > kMaxProfileBytes) {
        err = kWinNotEnoughMemory;
        break;
      }
      want = 64 << 10;
    }
  }
  UCloseHandle(file);
  if (err) bytes->clear();
  return err;
}

// The file's bytes for a query; empty when it cannot be read.
std::string QueryBytes(const char16_t* file) {
  std::string bytes;
  if (file != nullptr) ReadWhole(ProfilePath(file), &bytes);
  return bytes;
}

#if defined(_WIN32)

// An exclusive lock on a folder for a read-modify-write of a file in it: a
// named mutex of the folder's full system path (case folded), which the
// system releases when its owner ends, however it ends.
class FolderLock {
 public:
  FolderLock() = default;
  ~FolderLock() {
    if (mutex_ != nullptr) {
      ::ReleaseMutex(mutex_);
      ::CloseHandle(mutex_);
    }
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

  unsigned Take(const std::u16string& folder) {
    unsigned err = 0;
    std::wstring path = SystemPath(folder.c_str(), &err);
    if (path.empty()) return err;
    ::CharUpperBuffW(path.data(), static_cast<DWORD>(path.size()));
    std::uint64_t hash = 14695981039346656037ull;  // FNV-1a of the units
    for (wchar_t c : path) hash = (hash ^ static_cast<std::uint16_t>(c)) * 1099511628211ull;
    wchar_t name[64];
    std::swprintf(name, 64, L"Local\\quarnel-profile-%016llx",
                  static_cast<unsigned long long>(hash));
    mutex_ = ::CreateMutexW(nullptr, FALSE, name);
    if (mutex_ == nullptr) return ::GetLastError();
    const DWORD got = ::WaitForSingleObject(mutex_, INFINITE);
    if (got != WAIT_OBJECT_0 && got != WAIT_ABANDONED) {
      ::CloseHandle(mutex_);
      mutex_ = nullptr;
      return ERROR_LOCK_VIOLATION;
    }
    return 0;
  }

 private:
  HANDLE mutex_ = nullptr;
};

// What a write needs to know of the file: 0, or the Windows error.
struct FileState {
  bool exists = false;
  bool refused = false;  // a folder, or read-only
  unsigned mode = 0;     // the attributes the new file keeps
};

unsigned StateOf(const std::u16string& path, FileState* st) {
  const unsigned a = UGetFileAttributes(path.c_str());
  if (a == kInvalidFileAttributes) {
    const unsigned err = UGetLastError();
    return err == kWinFileNotFound ? 0 : err;
  }
  st->exists = true;
  st->refused = (a & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0;
  st->mode = a & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE);
  return 0;
}

void GiveMode(const std::u16string& temp, unsigned mode) { USetFileAttributes(temp.c_str(), mode); }

std::u16string FolderOf(const std::u16string& path) {
  const std::size_t slash = path.find_last_of(u"\\/");
  return slash == std::u16string::npos ? std::u16string(u".") : path.substr(0, slash + 1);
}

#else

// An exclusive lock on a folder for a read-modify-write of a file in it.
class FolderLock {
 public:
  FolderLock() = default;
  ~FolderLock() {
    if (fd_ >= 0) close(fd_);  // releases the lock
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

  unsigned Take(const std::string& folderHost) {
    fd_ = open(folderHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) return UWinErrorFromErrno(errno, true);
    while (flock(fd_, LOCK_EX) != 0)
      if (errno != EINTR) return UWinErrorFromErrno(errno);
    return 0;
  }

 private:
  int fd_ = -1;
};

unsigned Resolve(const std::u16string& path, Resolved* r) {
  return ResolvePath(LongPathForm(path).c_str(), false, r);
}

void GiveMode(const std::u16string& temp, unsigned mode) {
  Resolved t;
  if (Resolve(temp, &t) == 0 && t.exists) chmod(t.host.c_str(), mode);
}

#endif

// Writes `bytes` to the temporary file beside `path`, flushes it, gives it
// `mode` (when not 0) and renames it over `path`. 0, or the Windows error
// with the temporary file gone and `path` untouched.
unsigned ReplaceFile(const std::u16string& path, const std::string& bytes, unsigned mode) {
  const std::size_t slash = path.find_last_of(u"\\/");
  const std::u16string temp =
      path.substr(0, slash + 1) + u'.' + path.substr(slash + 1) + u".qnltmp";
  const UHANDLE file = UCreateFile(temp.c_str(), kGenericWrite, 0, kCreateAlways, 0);
  if (file == kInvalidHandleValue) return UGetLastError();
  unsigned err = 0;
  for (std::size_t at = 0; at < bytes.size() && err == 0;) {
    const unsigned chunk =
        static_cast<unsigned>(std::min<std::size_t>(bytes.size() - at, 1u << 30));
    unsigned written = 0;
    if (!UWriteFile(file, bytes.data() + at, chunk, &written)) err = UGetLastError();
    at += written;
  }
  if (err == 0 && !UFlushFileBuffers(file)) err = UGetLastError();
  if (!UCloseHandle(file)) {
    if (err == 0) err = UGetLastError();
    UCloseHandle(file);  // a close refused once is tried again: the handle must go
  }
  if (err == 0 && mode != 0) GiveMode(temp, mode);
  if (err == 0 &&
      !UMoveFileEx(temp.c_str(), path.c_str(), kMoveFileReplaceExisting | kMoveFileWriteThrough)) {
    err = UGetLastError();
  }
  if (err != 0) UDeleteFile(temp.c_str());
  return err;
}

bool BlankOnly(const char16_t* s) {
  for (; *s != 0; ++s)
    if (*s != u' ' && *s != u'\t' && *s != u'\v' && *s != u'\f') return false;
  return true;
}

}  // namespace

unsigned UGetPrivateProfileString(const char16_t* section, const char16_t* key,
                                  const char16_t* defaultValue, char16_t* buffer, unsigned size,
                                  const char16_t* file) {
  const std::string bytes = QueryBytes(file);
  return ProfileGetString(bytes, UGetACP(), section, key, defaultValue, buffer, size);
}

unsigned UGetPrivateProfileInt(const char16_t* section, const char16_t* key, int defaultValue,
                               const char16_t* file) {
  const std::string bytes = QueryBytes(file);
  return ProfileGetInt(bytes, UGetACP(), section, key, defaultValue);
}

unsigned UGetPrivateProfileSection(const char16_t* section, char16_t* buffer, unsigned size,
                                   const char16_t* file) {
  const std::string bytes = QueryBytes(file);
  return ProfileGetSection(bytes, UGetACP(), section, buffer, size);
}

unsigned UGetPrivateProfileSectionNames(char16_t* buffer, unsigned size, const char16_t* file) {
  const std::string bytes = QueryBytes(file);
  return ProfileGetString(bytes, UGetACP(), nullptr, nullptr, nullptr, buffer, size);
}

int UWritePrivateProfileString(const char16_t* section, const char16_t* key, const char16_t* value,
                               const char16_t* file) {
  if (file == nullptr) return Refuse(kWinInvalidParameter);
  if (section == nullptr)
    return key == nullptr && value == nullptr ? 1 : Refuse(kWinInvalidParameter);
  if (BlankOnly(section)) return Refuse(kWinInvalidParameter);
  const std::u16string path = ProfilePath(file);
#if defined(_WIN32)
  FileState st;
  if (const unsigned err = StateOf(path, &st)) return Refuse(err);
  FolderLock lock;
  if (const unsigned err = lock.Take(FolderOf(path))) return Refuse(err);
  // Under the lock: the file as the last writer left it.
  st = FileState();
  if (const unsigned err = StateOf(path, &st)) return Refuse(err);
  if (st.refused) return Refuse(kWinAccessDenied);
  const unsigned mode = st.mode;
#else
  Resolved r;
  if (const unsigned err = Resolve(path, &r)) return Refuse(err);
  if (!r.exists && !r.parentExists) return Refuse(kWinPathNotFound);
  FolderLock lock;
  if (const unsigned err = lock.Take(r.parentHost)) return Refuse(err);
  // Under the lock: the file as the last writer left it.
  if (const unsigned err = Resolve(path, &r)) return Refuse(err);
  if (r.exists && (S_ISDIR(r.st.st_mode) || IsReadOnly(r.st))) return Refuse(kWinAccessDenied);
  const unsigned mode = r.exists ? (r.st.st_mode & 07777) : 0;
#endif
  std::string bytes;
  if (const unsigned err = ReadWhole(path, &bytes); err != 0 && err != kWinFileNotFound)
    return Refuse(err);
  const ProfileEdit edit = ProfileWrite(bytes, UGetACP(), section, key, value);
  if (!edit.changed) return 1;
  bytes.replace(edit.from, edit.to - edit.from, edit.bytes);
  if (const unsigned err = ReplaceFile(path, bytes, mode)) return Refuse(err);
  return 1;
}
