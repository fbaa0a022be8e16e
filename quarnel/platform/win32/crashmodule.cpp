// The loaded modules and the memory as the crash report reads them on
// Windows: the loader's module list, each module's PE headers and resources
// as mapped, its symbol table from its file, and VirtualQuery.
//
// A module is one segment, its whole image. Its resource container holds
// one resource: the symbol map (resource 256/1 of the module's Win32
// resources), which is all the report reads from it. The dynamic symbols of
// a module are the functions of its file's symbol table (a module's exports
// name only what it exports): the function with the highest address at or
// below the one asked for, in the same section. Memory is asked about when
// the report reads it (VirtualQuery); a snapshot of the memory map has
// nothing to keep.
#include "quarnel/platform/internal/crashmodule.h"

#include <cstring>

#include "quarnel/platform/internal/pefile.h"
#include "quarnel/platform/resblob.h"
#include "quarnel/platform/win32/crashfiles.h"
#include "quarnel/platform/win32/winapi.h"

using namespace quarnel_internal;

namespace {

constexpr int kMaxModules = 512;
constexpr unsigned kSymbolMapType = 256;
constexpr unsigned kSymbolMapId = 1;

UModuleInfo g_modules[kMaxModules];
wchar_t g_paths[kMaxModules][UModuleInfo::kMaxPath];
int g_moduleCount = 0;
HMODULE g_handles[kMaxModules];
PeHeaders g_headers;  // of the module last asked about, as mapped
PeHeaders g_fileHeaders;
CrashFileSource g_file;

bool Readable(DWORD protect) {
  if (protect & (PAGE_GUARD | PAGE_NOACCESS)) return false;
  return (protect & (PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                     PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

bool Writable(DWORD protect) {
  if (protect & (PAGE_GUARD | PAGE_NOACCESS)) return false;
  return (protect &
          (PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

// The mapped image of a module, read where VirtualQuery shows it readable.
class ImageSource : public ElfSource {
 public:
  explicit ImageSource(const UModuleInfo& m) : base_(m.base), size_(m.hi[0] - m.lo[0]) {}
  std::uint64_t Size() const override { return size_; }
  bool ReadAt(std::uint64_t offset, void* dst, std::size_t n) const override {
    if (offset > size_ || n > size_ - offset ||
        !UMemoryAccessible(base_ + static_cast<std::uintptr_t>(offset), n, false)) {
      return false;
    }
    std::memcpy(dst, reinterpret_cast<const void*>(base_ + offset), n);
    return true;
  }

 private:
  std::uintptr_t base_;
  std::uint64_t size_;
};

bool Headers(const UModuleInfo& module) {
  return PeReadHeaders(ImageSource(module), true, &g_headers) == kPeFound;
}

int IndexOf(const UModuleInfo& module) { return static_cast<int>(&module - g_modules); }

void Put32(unsigned char* p, std::uint32_t v) {
  for (int k = 0; k < 4; ++k) p[k] = static_cast<unsigned char>(v >> (8 * k));
}

}  // namespace

int USnapshotModules() {
  DWORD needed = 0;
  if (!::K32EnumProcessModules(::GetCurrentProcess(), g_handles, sizeof g_handles, &needed)) {
    g_moduleCount = 0;
    return 0;
  }
  int n = static_cast<int>(needed / sizeof(HMODULE));
  if (n > kMaxModules) n = kMaxModules;
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    UModuleInfo& m = g_modules[kept];
    MODULEINFO info;
    if (!::K32GetModuleInformation(::GetCurrentProcess(), g_handles[i], &info, sizeof info))
      continue;
    m.base = reinterpret_cast<std::uintptr_t>(info.lpBaseOfDll);
    m.segments = 1;
    m.lo[0] = m.base;
    m.hi[0] = m.base + info.SizeOfImage;
    const DWORD len = ::GetModuleFileNameW(g_handles[i], g_paths[kept], UModuleInfo::kMaxPath);
    g_paths[kept][len < UModuleInfo::kMaxPath ? len : 0] = L'\0';
    const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, g_paths[kept], -1, m.path,
                                            UModuleInfo::kMaxPath, nullptr, nullptr);
    if (bytes == 0) m.path[0] = '\0';
    ++kept;
  }
  g_moduleCount = kept;
  return kept;
}

const UModuleInfo* UModuleOf(std::uintptr_t address) {
  for (int i = 0; i < g_moduleCount; ++i) {
    const UModuleInfo& m = g_modules[i];
    if (address >= m.lo[0] && address < m.hi[0]) return &m;
  }
  return nullptr;
}

const char* UModuleBaseName(const UModuleInfo* module) {
  if (module == nullptr) return "";
  const char* base = module->path;
  for (const char* p = module->path; *p != '\0'; ++p) {
    if (*p == '\\' || *p == '/') base = p + 1;
  }
  return base;
}

bool UModuleSectionOf(const UModuleInfo& module, std::uintptr_t address, unsigned* section,
                      std::uint32_t* offset) {
  return Headers(module) && address >= module.base &&
         PeSectionOf(g_headers, address - module.base, section, offset);
}

std::size_t UModuleReadResources(const UModuleInfo& module, void* buf, std::size_t capacity) {
  std::uint64_t at = 0;
  std::uint32_t size = 0;
  const ImageSource image(module);
  if (!Headers(module) ||
      PeFindResource(image, g_headers, kSymbolMapType, kSymbolMapId, &at, &size) != kPeFound) {
    return 0;
  }
  // A container of one entry: header, directory, the data on a 4-byte boundary.
  const std::uint32_t dataAt = kResBlobHeaderSize + kResBlobEntrySize;
  const std::uint32_t total = dataAt + ((size + 3) & ~3u);
  if (total > capacity) return 0;
  auto* out = static_cast<unsigned char*>(buf);
  std::memset(out, 0, total);
  Put32(out, kResBlobMagic);
  out[4] = kResBlobVersion;
  out[6] = kResBlobEntrySize;
  Put32(out + 8, 1);
  Put32(out + 12, total);
  unsigned char* entry = out + kResBlobHeaderSize;
  Put32(entry, kSymbolMapType);
  Put32(entry + 4, kSymbolMapId);
  Put32(entry + 12, dataAt);
  Put32(entry + 16, size);
  if (!image.ReadAt(at, out + dataAt, size)) return 0;
  return total;
}

bool UModuleDynamicSymbol(const UModuleInfo& module, std::uintptr_t address, char* name,
                          std::size_t size, std::uintptr_t* symbol) {
  if (address < module.base || !Headers(module)) return false;
  const int index = IndexOf(module);
  if (index < 0 || index >= g_moduleCount) return false;
  const HANDLE h = CrashOpenFileW(g_paths[index], false);
  if (h == INVALID_HANDLE_VALUE) return false;
  g_file.Reset(h);
  std::uint64_t start = 0;
  const bool found =
      PeReadHeaders(g_file, false, &g_fileHeaders) == kPeFound &&
      PeNearestFunction(g_file, g_fileHeaders, address - module.base, name, size, &start);
  g_file.Reset(INVALID_HANDLE_VALUE);
  ::CloseHandle(h);
  if (found) *symbol = module.base + static_cast<std::uintptr_t>(start);
  return found;
}

bool USnapshotMemoryMap() { return true; }

bool UMemoryAccessible(std::uintptr_t p, std::size_t size, bool write) {
  if (size == 0) return true;
  if (p + size < p) return false;
  std::uintptr_t at = p;
  while (at < p + size) {
    MEMORY_BASIC_INFORMATION info;
    if (::VirtualQuery(reinterpret_cast<const void*>(at), &info, sizeof info) == 0 ||
        info.State != MEM_COMMIT || !(write ? Writable(info.Protect) : Readable(info.Protect))) {
      return false;
    }
    at = reinterpret_cast<std::uintptr_t>(info.BaseAddress) + info.RegionSize;
  }
  return true;
}

// A stack guard: a guard page, or a reserved region directly below a
// committed one of the same reservation (a thread's stack not yet committed).
bool UInStackGuard(std::uintptr_t address) {
  MEMORY_BASIC_INFORMATION info;
  if (::VirtualQuery(reinterpret_cast<const void*>(address), &info, sizeof info) == 0) return false;
  if (info.State == MEM_COMMIT && (info.Protect & PAGE_GUARD)) return true;
  if (info.State != MEM_RESERVE) return false;
  const std::uintptr_t above = reinterpret_cast<std::uintptr_t>(info.BaseAddress) + info.RegionSize;
  MEMORY_BASIC_INFORMATION next;
  return ::VirtualQuery(reinterpret_cast<const void*>(above), &next, sizeof next) != 0 &&
         next.AllocationBase == info.AllocationBase && next.State == MEM_COMMIT &&
         (next.Protect & PAGE_GUARD) != 0;
}
