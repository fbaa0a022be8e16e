// Name-level file calls (delete, copy, move, folders, attributes, the
// current folder, full paths, temporary names) and find-first/next, on the
// system's own calls.
#include <cstring>

#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/files.h"

using namespace quarnel_internal;

namespace {

// The system path of a caller's path; false (last error set) when it has none.
bool Path(const char16_t* path, std::wstring* out) {
  unsigned err = 0;
  *out = SystemPath(path, &err);
  if (out->empty()) USetLastError(err);
  return !out->empty();
}

std::u16string Text16(const wchar_t* w, std::size_t n) {
  return std::u16string(reinterpret_cast<const char16_t*>(w), n);
}

// A call that fills a buffer of `size` units, made with a growing buffer.
template <class Call>
std::wstring Filled(Call call) {
  std::wstring buf(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = call(static_cast<DWORD>(buf.size()), buf.data());
    if (n == 0) return std::wstring();
    if (n < buf.size()) return buf.substr(0, n);
    buf.resize(n);
  }
}

// A move of a file as the simulated disk sees it: its source deleted and its
// target written whole (nothing for a folder or a new spelling of the name).
class DiskMove {
 public:
  DiskMove(const std::wstring& from, const std::wstring& to) {
    if (!DiskRecording()) return;
    const DWORD a = ::GetFileAttributesW(from.c_str());
    if (a == INVALID_FILE_ATTRIBUTES || (a & FILE_ATTRIBUTE_DIRECTORY) != 0) return;
    from_ = DiskHost(from);
    to_ = DiskHost(to);
    if (SameHostName(from_, to_)) from_.clear();
    if (from_.empty()) return;
    DiskTouch(from_);
    DiskTouch(to_);
  }
  // After the move: answers `moved`.
  int Done(BOOL moved) const {
    if (moved && !from_.empty()) {
      DiskNoteWhole(to_);
      DiskNoteDelete(from_);
    }
    return moved ? 1 : 0;
  }

 private:
  std::string from_, to_;
};

}  // namespace

int UDeleteFile(const char16_t* path) {
  std::wstring p;
  if (Faulted(UCall::kDeleteFile) || !Path(path, &p)) return 0;
  if (!DiskRecording()) return ::DeleteFileW(p.c_str()) ? 1 : 0;
  const std::string disk = DiskHost(p);
  DiskTouch(disk);
  if (!::DeleteFileW(p.c_str())) return 0;
  DiskNoteDelete(disk);
  return 1;
}

int UCopyFile(const char16_t* from, const char16_t* to, int failIfExists) {
  std::wstring f, t;
  if (Faulted(UCall::kCopyFile) || !Path(from, &f) || !Path(to, &t)) return 0;
  if (!DiskRecording()) return ::CopyFileW(f.c_str(), t.c_str(), failIfExists) ? 1 : 0;
  const std::string disk = DiskHost(t);
  DiskTouch(disk);
  if (!::CopyFileW(f.c_str(), t.c_str(), failIfExists)) return 0;
  DiskNoteWhole(disk);
  return 1;
}

int UMoveFile(const char16_t* from, const char16_t* to) {
  std::wstring f, t;
  if (Faulted(UCall::kMoveFile) || !Path(from, &f) || !Path(to, &t)) return 0;
  const DiskMove move(f, t);
  return move.Done(::MoveFileW(f.c_str(), t.c_str()));
}

int UCreateDirectory(const char16_t* path) {
  std::wstring p;
  if (Faulted(UCall::kCreateDirectory) || !Path(path, &p)) return 0;
  return ::CreateDirectoryW(p.c_str(), nullptr) ? 1 : 0;
}

// A drive's root is never removed, an aliased letter's neither.
int URemoveDirectory(const char16_t* path) {
  std::wstring p;
  if (Faulted(UCall::kRemoveDirectory) || !Path(path, &p)) return 0;
  const std::u16string caller = CallerPath(p);
  if (caller.size() <= 3 && caller.size() >= 2 && caller[1] == u':')
    return Refuse(ERROR_ACCESS_DENIED);
  return ::RemoveDirectoryW(p.c_str()) ? 1 : 0;
}

unsigned UGetFileAttributes(const char16_t* path) {
  std::wstring p;
  if (Faulted(UCall::kGetFileAttributes) || !Path(path, &p)) return kInvalidFileAttributes;
  return ::GetFileAttributesW(p.c_str());
}

int USetFileAttributes(const char16_t* path, unsigned attributes) {
  std::wstring p;
  if (Faulted(UCall::kSetFileAttributes) || !Path(path, &p)) return 0;
  return ::SetFileAttributesW(p.c_str(), attributes) ? 1 : 0;
}

unsigned UGetCurrentDirectory(unsigned size, char16_t* buffer) {
  const std::wstring cur = Filled([](DWORD n, wchar_t* b) { return ::GetCurrentDirectoryW(n, b); });
  if (cur.empty()) return 0;
  std::u16string caller = CallerPath(cur);
  if (caller.empty()) caller = Text16(cur.c_str(), cur.size());
  return CopyOut(caller, size, buffer);
}

int USetCurrentDirectory(const char16_t* path) {
  std::wstring p;
  if (!Path(path, &p)) return 0;
  return ::SetCurrentDirectoryW(p.c_str()) ? 1 : 0;
}

unsigned UGetFullPathName(const char16_t* path, unsigned size, char16_t* buffer,
                          char16_t** filePart) {
  if (filePart) *filePart = nullptr;
  std::wstring p;
  if (!Path(path, &p)) return 0;
  std::u16string full = CallerPath(p);
  if (full.empty()) full = Text16(p.c_str(), p.size());
  const unsigned n = CopyOut(full, size, buffer);
  if (n == full.size() && filePart && !full.empty() && full.back() != u'\\') {
    *filePart = buffer + full.rfind(u'\\') + 1;
  }
  return n;
}

unsigned UGetTempPath(unsigned size, char16_t* buffer) {
  const std::wstring temp = Filled([](DWORD n, wchar_t* b) { return ::GetTempPathW(n, b); });
  if (temp.empty()) return 0;
  std::u16string caller = CallerPath(temp);
  if (caller.empty()) caller = Text16(temp.c_str(), temp.size());
  if (caller.back() != u'\\') caller += u'\\';
  return CopyOut(caller, size, buffer);
}

// The name is the folder as the caller gave it, then the system's name.
unsigned UGetTempFileName(const char16_t* folder, const char16_t* prefix, unsigned unique,
                          char16_t* out) {
  if (Faulted(UCall::kGetTempFileName)) return 0;
  if (folder == nullptr || out == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
  std::wstring f;
  if (!Path(folder, &f)) return 0;
  wchar_t name[MAX_PATH + 16];
  const UINT n = ::GetTempFileNameW(f.c_str(), W(prefix ? prefix : u""), unique, name);
  if (n == 0) return 0;
  std::u16string given(folder);
  if (given.empty() || (given.back() != u'\\' && given.back() != u'/')) given += u'\\';
  const wchar_t* leaf = std::wcsrchr(name, L'\\');
  given += Text16(leaf ? leaf + 1 : name, std::wcslen(leaf ? leaf + 1 : name));
  if (given.size() >= kMaxPath) return Refuse(ERROR_FILENAME_EXCED_RANGE);
  std::memcpy(out, given.c_str(), (given.size() + 1) * sizeof(char16_t));
  return n;
}

unsigned UGetWindowsDirectory(char16_t* buffer, unsigned size) {
  return ::GetWindowsDirectoryW(W(buffer), size);
}

unsigned UGetSystemDirectory(char16_t* buffer, unsigned size) {
  return ::GetSystemDirectoryW(W(buffer), size);
}

int UIsCharAlpha(char16_t ch) { return ::IsCharAlphaW(static_cast<wchar_t>(ch)) ? 1 : 0; }

// ---- find ---------------------------------------------------------------------------------------

static_assert(sizeof(UWIN32_FIND_DATAW) == sizeof(WIN32_FIND_DATAW) &&
                  offsetof(UWIN32_FIND_DATAW, cAlternateFileName) ==
                      offsetof(WIN32_FIND_DATAW, cAlternateFileName),
              "the record is the system's own");

UHANDLE UFindFirstFile(const char16_t* pattern, UWIN32_FIND_DATAW* data) {
  std::wstring p;
  if (Faulted(UCall::kFindFirstFile) || !Path(pattern, &p)) return kInvalidHandleValue;
  if (data == nullptr) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return kInvalidHandleValue;
  }
  // The full path lost a trailing separator of the pattern; so does the system.
  WIN32_FIND_DATAW found;
  const HANDLE h = ::FindFirstFileW(p.c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return kInvalidHandleValue;
  std::memcpy(data, &found, sizeof found);
  return AddHandle(h, HandleKind::kFind);
}

int UFindNextFile(UHANDLE find, UWIN32_FIND_DATAW* data) {
  if (Faulted(UCall::kFindNextFile)) return 0;
  if (!IsHandle(find, HandleKind::kFind)) return Refuse(ERROR_INVALID_HANDLE);
  if (data == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
  WIN32_FIND_DATAW found;
  if (!::FindNextFileW(find, &found)) return 0;
  std::memcpy(data, &found, sizeof found);
  return 1;
}

int UFindClose(UHANDLE find) {
  return CloseTableHandle(find, [](HandleKind k) { return k == HandleKind::kFind; });
}

int UMoveFileEx(const char16_t* from, const char16_t* to, unsigned flags) {
  if ((flags & ~(kMoveFileReplaceExisting | kMoveFileCopyAllowed | kMoveFileWriteThrough)) != 0)
    return Refuse(ERROR_INVALID_PARAMETER);
  if ((flags & kMoveFileReplaceExisting) == 0) return UMoveFile(from, to);
  std::wstring f, t;
  if (Faulted(UCall::kMoveFile) || !Path(from, &f) || !Path(to, &t)) return 0;
  // MoveFileEx replaces a folder's name too; the library's rule refuses it.
  const DWORD target = ::GetFileAttributesW(t.c_str());
  if (target != INVALID_FILE_ATTRIBUTES && (target & FILE_ATTRIBUTE_DIRECTORY) != 0)
    return Refuse(ERROR_ACCESS_DENIED);
  const DiskMove move(f, t);
  return move.Done(::MoveFileExW(f.c_str(), t.c_str(), flags));
}
