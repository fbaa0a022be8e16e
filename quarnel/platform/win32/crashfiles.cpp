#include "quarnel/platform/win32/crashfiles.h"

#include <cstring>

namespace quarnel_internal {

namespace {

constexpr int kMaxFiles = 4;
constexpr ULONG kFileOpenIf = 3;
constexpr ULONG kFileOpen = 1;
constexpr ULONG kSynchronousNonAlert = 0x20;
constexpr ULONG kNonDirectory = 0x40;

HANDLE g_files[kMaxFiles] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE,
                             INVALID_HANDLE_VALUE};

bool IsSep(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

HANDLE CrashOpenFileW(const wchar_t* path, bool write) {
  // The object-manager name: \??\X:\..., \??\UNC\server\share\...
  static wchar_t name[32768 + 16];
  std::size_t at = 0;
  auto put = [&](const wchar_t* s) {
    while (*s != L'\0' && at + 1 < sizeof name / sizeof name[0]) name[at++] = *s++;
    name[at] = L'\0';
  };
  put(L"\\??\\");
  if (IsSep(path[0]) && IsSep(path[1])) {
    if (path[2] == L'?' || path[2] == L'.') {
      path += 4;  // already in the long or device form
    } else {
      put(L"UNC\\");
      path += 2;
    }
  } else if (!(path[0] != L'\0' && path[1] == L':' && IsSep(path[2]))) {
    wchar_t cur[MAX_PATH];
    const DWORD n = ::GetCurrentDirectoryW(MAX_PATH, cur);
    if (n == 0 || n >= MAX_PATH) return INVALID_HANDLE_VALUE;
    put(cur);
    if (IsSep(path[0])) {
      at = 4 + 2;  // the current drive's root
      name[at] = L'\0';
    } else if (at > 0 && !IsSep(name[at - 1])) {
      put(L"\\");
    }
  }
  const std::size_t start = at;
  put(path);
  for (std::size_t i = start; i < at; ++i) {
    if (name[i] == L'/') name[i] = L'\\';
  }
  UNICODE_STRING text;
  text.Buffer = name;
  text.Length = static_cast<USHORT>(at * sizeof(wchar_t));
  text.MaximumLength = text.Length;
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  IO_STATUS_BLOCK io;
  HANDLE h = INVALID_HANDLE_VALUE;
  const ACCESS_MASK access =
      SYNCHRONIZE | FILE_READ_ATTRIBUTES | (write ? FILE_GENERIC_WRITE : FILE_GENERIC_READ);
  const NTSTATUS status = ::NtCreateFile(
      &h, access, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL,
      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, write ? kFileOpenIf : kFileOpen,
      kSynchronousNonAlert | kNonDirectory, nullptr, 0);
  return status == 0 ? h : INVALID_HANDLE_VALUE;
}

HANDLE CrashOpenFile(const char* path, bool write) {
  static wchar_t wide[32768];
  if (path == nullptr || ::MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, 32768) == 0)
    return INVALID_HANDLE_VALUE;
  return CrashOpenFileW(wide, write);
}

int CrashKeepHandle(HANDLE h) {
  for (int i = 0; i < kMaxFiles; ++i) {
    if (g_files[i] == INVALID_HANDLE_VALUE) {
      g_files[i] = h;
      return i;
    }
  }
  return -1;
}

HANDLE CrashHandleOf(int fd) {
  return fd >= 0 && fd < kMaxFiles ? g_files[fd] : INVALID_HANDLE_VALUE;
}

void CrashForgetHandle(int fd) {
  if (fd >= 0 && fd < kMaxFiles) g_files[fd] = INVALID_HANDLE_VALUE;
}

void CrashFileSource::Reset(HANDLE h) {
  h_ = h;
  size_ = 0;
  bufferAt_ = 0;
  bufferBytes_ = 0;
  LARGE_INTEGER size{};
  if (h != INVALID_HANDLE_VALUE && ::GetFileSizeEx(h, &size))
    size_ = static_cast<std::uint64_t>(size.QuadPart);
}

bool CrashFileSource::ReadAt(std::uint64_t offset, void* dst, std::size_t n) const {
  if (offset > size_ || n > size_ - offset) return false;
  auto* out = static_cast<unsigned char*>(dst);
  while (n > 0) {
    if (offset < bufferAt_ || offset >= bufferAt_ + bufferBytes_) {
      OVERLAPPED at;
      std::memset(&at, 0, sizeof at);
      at.Offset = static_cast<DWORD>(offset);
      at.OffsetHigh = static_cast<DWORD>(offset >> 32);
      DWORD got = 0;
      if (!::ReadFile(h_, buffer_, sizeof buffer_, &got, &at) || got == 0) return false;
      bufferAt_ = offset;
      bufferBytes_ = got;
    }
    const std::size_t in = static_cast<std::size_t>(offset - bufferAt_);
    const std::size_t take = bufferBytes_ - in < n ? bufferBytes_ - in : n;
    std::memcpy(out, buffer_ + in, take);
    out += take;
    offset += take;
    n -= take;
  }
  return true;
}

}  // namespace quarnel_internal
