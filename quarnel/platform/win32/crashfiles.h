// Files the crash report opens on a broken process: opened with NtCreateFile
// from paths built in fixed storage (the Win32 path calls allocate from the
// process heap), read and written with ReadFile and WriteFile.
#ifndef QUARNEL_PLATFORM_WIN32_CRASHFILES_H_
#define QUARNEL_PLATFORM_WIN32_CRASHFILES_H_

#include <cstdint>

#include "quarnel/platform/internal/elffile.h"
#include "quarnel/platform/win32/winapi.h"

namespace quarnel_internal {

// Opens the file at `path` (UTF-8; a full path, or one relative to the
// current folder; either separator) for appending writes, created when
// missing (`write`), or for reading. INVALID_HANDLE_VALUE when it cannot.
HANDLE CrashOpenFile(const char* path, bool write);
HANDLE CrashOpenFileW(const wchar_t* path, bool write);

// A small table of open crash files, so that the report can name each by a
// descriptor number: -1 when full.
int CrashKeepHandle(HANDLE h);
HANDLE CrashHandleOf(int fd);  // INVALID_HANDLE_VALUE for an unknown one
void CrashForgetHandle(int fd);

// Random access to an open file through a fixed read-ahead buffer.
class CrashFileSource : public ElfSource {
 public:
  // Reads `h` from now on (the buffer is emptied).
  void Reset(HANDLE h);
  std::uint64_t Size() const override { return size_; }
  bool ReadAt(std::uint64_t offset, void* dst, std::size_t n) const override;

 private:
  HANDLE h_ = INVALID_HANDLE_VALUE;
  std::uint64_t size_ = 0;
  mutable std::uint64_t bufferAt_ = 0;
  mutable std::size_t bufferBytes_ = 0;
  mutable unsigned char buffer_[16384];
};

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_WIN32_CRASHFILES_H_
