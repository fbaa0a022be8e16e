// The host file calls the simulated disk's record needs, on Windows, and the
// file layer's paths as the record names them.
#include <string>
#include <string_view>

#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/win32/files.h"

namespace quarnel_internal {

std::string DiskHost(const std::wstring& system) {
  std::wstring s = system;
  if (s.rfind(L"\\\\?\\UNC\\", 0) == 0) {
    s.erase(0, 6);
    s[0] = L'\\';
  } else if (s.rfind(L"\\\\?\\", 0) == 0) {
    s.erase(0, 4);
  }
  for (wchar_t& c : s)
    if (c == L'\\') c = L'/';
  return Utf8Of(s);
}

std::wstring DiskSystem(const std::string& host) {
  std::wstring s = WideOf(host);
  for (wchar_t& c : s)
    if (c == L'/') c = L'\\';
  if (s.size() < MAX_PATH) return s;
  return s.rfind(L"\\\\", 0) == 0 ? L"\\\\?\\UNC" + s.substr(1) : L"\\\\?\\" + s;
}

unsigned HostFolderOf(const char16_t* folder, std::string* host) {
  unsigned err = 0;
  const std::wstring system = SystemPath(folder, &err);
  if (system.empty()) return err;
  const DWORD attributes = ::GetFileAttributesW(system.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    return ERROR_PATH_NOT_FOUND;
  *host = DiskHost(system);
  while (host->size() > 1 && host->back() == '/') host->pop_back();
  return 0;
}

// Read with every sharing allowed, so that a file the library holds open
// reads too (unless its handle refuses read sharing: then it reads as none).
bool ReadHostFile(const std::string& host, std::string* bytes) {
  const std::wstring system = DiskSystem(host);
  const DWORD attributes = ::GetFileAttributesW(system.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    return false;
  const HANDLE h = ::CreateFileW(system.c_str(), GENERIC_READ,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  char buf[65536];
  DWORD n = 0;
  while (::ReadFile(h, buf, sizeof buf, &n, nullptr) && n > 0) bytes->append(buf, n);
  ::CloseHandle(h);
  return true;
}

unsigned ReplaceHostFile(const std::string& host, const std::string* bytes) {
  const std::wstring system = DiskSystem(host);
  if (!::DeleteFileW(system.c_str()) && ::GetLastError() != ERROR_FILE_NOT_FOUND &&
      ::GetLastError() != ERROR_PATH_NOT_FOUND)
    return ::GetLastError();
  if (bytes == nullptr) return 0;
  // Missing folders on the way; a failure shows in the file's own creation.
  for (std::size_t at = system.find(L'\\', 3); at != std::wstring::npos;
       at = system.find(L'\\', at + 1))
    ::CreateDirectoryW(system.substr(0, at).c_str(), nullptr);
  const HANDLE h = ::CreateFileW(system.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return ::GetLastError();
  bool ok = true;
  if (!bytes->empty()) {
    DWORD n = 0;
    ok = ::WriteFile(h, bytes->data(), static_cast<DWORD>(bytes->size()), &n, nullptr) != 0;
    if (ok && n != bytes->size()) {
      ok = false;
      ::SetLastError(ERROR_DISK_FULL);
    }
  }
  const unsigned err = ok ? 0u : ::GetLastError();
  ::CloseHandle(h);
  return err;
}

bool SameHostName(std::string_view a, std::string_view b) {
  const std::wstring wa = WideOf(std::string(a)), wb = WideOf(std::string(b));
  return ::CompareStringOrdinal(wa.data(), static_cast<int>(wa.size()), wb.data(),
                                static_cast<int>(wb.size()), TRUE) == CSTR_EQUAL;
}

}  // namespace quarnel_internal
