#include "quarnel/platform/module.h"

#include <algorithm>
#include <atomic>
#include <string>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

using quarnel_internal::W;
using quarnel_internal::WideOf;

std::atomic<unsigned> g_generation{0};

bool IsPath(const std::wstring& name) { return name.find_first_of(L"\\/") != std::wstring::npos; }

bool IsFile(const std::wstring& path) {
  const DWORD a = ::GetFileAttributesW(path.c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// The folder of the module that holds this code (libquarnel.dll, or the
// program itself when the library is linked in).
std::wstring LibraryFolder() {
  HMODULE self = nullptr;
  ::GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      reinterpret_cast<LPCWSTR>(&LibraryFolder), &self);
  wchar_t buf[32768];
  const DWORD n = ::GetModuleFileNameW(self, buf, 32768);
  if (n == 0 || n >= 32768) return std::wstring();
  std::wstring path(buf, n);
  const std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// A bare name is looked for in the application folder, then in the
// library's, before the system's own search.
// A path with the separators the loader's search rules want.
std::wstring Backslashed(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path;
}

std::wstring Located(const std::wstring& name) {
  if (IsPath(name)) return Backslashed(name);
  for (const std::wstring& folder : {WideOf(QuarnelEnv()->appFolder), LibraryFolder()}) {
    if (folder.empty()) continue;
    const std::wstring path = folder + L"\\" + name;
    if (IsFile(path)) return path;
  }
  return name;
}

HMODULE Load(const char16_t* name, DWORD flags) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kLoadLibrary, &injected)) {
    USetLastError(injected);
    return nullptr;
  }
  if (name == nullptr || name[0] == 0) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const std::wstring path = Located(W(name));
  if (IsPath(path)) flags |= LOAD_WITH_ALTERED_SEARCH_PATH;
  HMODULE m = ::LoadLibraryExW(path.c_str(), nullptr, flags);
  if (m != nullptr && (flags & LOAD_LIBRARY_AS_DATAFILE) == 0) {
    g_generation.fetch_add(1, std::memory_order_release);
  }
  return m;
}

}  // namespace

HMODULE ULoadLibrary(const char16_t* name) { return Load(name, 0); }

HMODULE ULoadLibraryEx(const char16_t* name, unsigned flags) {
  return Load(name, (flags & kLoadLibraryAsDatafile) != 0 ? LOAD_LIBRARY_AS_DATAFILE : 0);
}

int UFreeLibrary(HMODULE module) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kFreeLibrary, &injected)) {
    USetLastError(injected);
    return 0;
  }
  if (module == nullptr) {
    USetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  if (module == ::GetModuleHandleW(nullptr)) return 1;
  if (!::FreeLibrary(module)) return 0;
  g_generation.fetch_add(1, std::memory_order_release);
  return 1;
}

HMODULE UGetModuleHandle(const char16_t* name) {
  if (name == nullptr) return ::GetModuleHandleW(nullptr);
  return ::GetModuleHandleW(Backslashed(W(name)).c_str());
}

int UGetModuleFileName(HMODULE module, char16_t* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const DWORD n = ::GetModuleFileNameW(module, W(buffer), static_cast<DWORD>(size));
  if (n == 0) {
    buffer[0] = 0;
    return 0;
  }
  // Windows XP leaves a cut name without its terminator.
  const int written = std::min(static_cast<int>(n), size - 1);
  buffer[written] = 0;
  return written;
}

void* UGetProcAddress(HMODULE module, const char* name) {
  if (name == nullptr) {
    USetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  const FARPROC address = ::GetProcAddress(module ? module : ::GetModuleHandleW(nullptr), name);
  return reinterpret_cast<void*>(address);
}

// Windows numbers resources 1 to 65535; any other number names nothing.
HRSRC UFindResource(HMODULE module, int id, unsigned type) {
  if (id < 1 || id > 0xFFFF) {
    USetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
    return nullptr;
  }
  if (type < 1 || type > 0xFFFF) {
    USetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return nullptr;
  }
  return ::FindResourceW(module, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(type));
}

HRSRC UFindResourceNamed(HMODULE module, const char16_t* name, int length, unsigned type) {
  if (name == nullptr || length <= 0) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (type < 1 || type > 0xFFFF) {
    USetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return nullptr;
  }
  const std::wstring copy(W(name), static_cast<std::size_t>(length));
  return ::FindResourceW(module, copy.c_str(), MAKEINTRESOURCEW(type));
}

unsigned USizeofResource(HMODULE module, HRSRC resource) {
  return ::SizeofResource(module, resource);
}

HGLOBAL ULoadResource(HMODULE module, HRSRC resource) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kLoadResource, &injected)) {
    USetLastError(injected);
    return nullptr;
  }
  return ::LoadResource(module, resource);
}

const void* ULockResource(HGLOBAL data) { return ::LockResource(data); }

int UFreeResource(HGLOBAL data) { return ::FreeResource(data) ? 1 : 0; }

int ULoadString(HMODULE module, unsigned id, char16_t* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  buffer[0] = 0;
  return ::LoadStringW(module, id, W(buffer), size);
}

unsigned UModuleGeneration() { return g_generation.load(std::memory_order_acquire); }
