#include "quarnel/platform/module.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

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

namespace {

// One resource of a module's walk: its type, its number or name.
struct WalkEntry {
  unsigned type;
  int id;
  std::u16string name;
};

BOOL CALLBACK OnName(HMODULE, LPCWSTR type, LPWSTR name, LONG_PTR walk) {
  auto* entries = reinterpret_cast<std::vector<WalkEntry>*>(walk);
  WalkEntry e{static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(type)), 0, {}};
  if (IS_INTRESOURCE(name)) {
    e.id = static_cast<int>(reinterpret_cast<ULONG_PTR>(name));
  } else {
    for (const wchar_t* c = name; *c != 0; ++c) e.name.push_back(static_cast<char16_t>(*c));
  }
  entries->push_back(std::move(e));
  return TRUE;
}

BOOL CALLBACK OnType(HMODULE module, LPWSTR type, LONG_PTR walk) {
  // Types are numbers 1 to 65535 here, as for UFindResource; named types are
  // left out.
  if (IS_INTRESOURCE(type)) ::EnumResourceNamesW(module, type, OnName, walk);
  return TRUE;
}

// The last walk, kept for the entry's name, which lives as long as the next
// walk of any module.
std::mutex g_walkLock;
std::vector<WalkEntry> g_walk;

}  // namespace

// The walk runs afresh at index 0 and whenever another module is asked for;
// the order is the system's (types, then names before numbers, each sorted).
int UEnumResource(HMODULE module, int index, UResEntry* entry) {
  static HMODULE walked = nullptr;
  static unsigned walkedGeneration = 0;
  const HMODULE m = module == nullptr ? ::GetModuleHandleW(nullptr) : module;
  std::lock_guard<std::mutex> hold(g_walkLock);
  if (index == 0 || walked != m || walkedGeneration != UModuleGeneration()) {
    g_walk.clear();
    walked = nullptr;
    if (!::EnumResourceTypesW(m, OnType, reinterpret_cast<LONG_PTR>(&g_walk)) &&
        ::GetLastError() != ERROR_RESOURCE_TYPE_NOT_FOUND &&
        ::GetLastError() != ERROR_RESOURCE_DATA_NOT_FOUND) {
      USetLastError(ERROR_INVALID_HANDLE);
      return 0;
    }
    walked = m;
    walkedGeneration = UModuleGeneration();
  }
  if (index < 0 || static_cast<std::size_t>(index) >= g_walk.size()) {
    USetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return 0;
  }
  const WalkEntry& e = g_walk[static_cast<std::size_t>(index)];
  const HRSRC found = e.name.empty() ? UFindResource(m, e.id, e.type)
                                     : UFindResourceNamed(m, e.name.c_str(),
                                                          static_cast<int>(e.name.size()), e.type);
  const HGLOBAL data = found != nullptr ? ULoadResource(m, found) : nullptr;
  if (data == nullptr) return 0;
  entry->type = e.type;
  entry->id = e.id;
  entry->name = e.name.empty() ? nullptr : reinterpret_cast<const unsigned char*>(e.name.data());
  entry->nameLength = static_cast<unsigned>(e.name.size());
  entry->bytes = static_cast<const unsigned char*>(::LockResource(data));
  entry->size = ::SizeofResource(m, found);
  return 1;
}
