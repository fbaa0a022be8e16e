#include "quarnel/platform/module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/elffile.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/utf8.h"

struct UModule {
  enum class Kind { kShared, kDataFile, kHost };
  Kind kind = Kind::kShared;
  void* dl = nullptr;  // dlopen handle of a shared object
  std::string path;    // UTF-8
  int refs = 1;
  UResBlob blob;
  std::vector<unsigned char> bytes;  // a data-file module's copy of its blob
};

namespace {

constexpr unsigned kErrorFileNotFound = 2;
constexpr unsigned kErrorInvalidHandle = 6;
constexpr unsigned kErrorInvalidData = 13;
constexpr unsigned kErrorBadParameter = 87;
constexpr unsigned kErrorModNotFound = 126;
constexpr unsigned kErrorProcNotFound = 127;
constexpr unsigned kErrorBadExeFormat = 193;
constexpr unsigned kErrorResourceTypeNotFound = 1813;
constexpr unsigned kErrorResourceNameNotFound = 1814;
// A blob larger than this is not read from a file.
constexpr std::uint64_t kMaxBlobBytes = 256ull << 20;

std::mutex g_lock;  // the table of loaded modules and their reference counts
std::atomic<unsigned> g_generation{0};

// Every call into the dynamic loader runs under this lock. The loader keeps
// its own lock, but takes it inside the C library where ThreadSanitizer does
// not see it; the loader's own bookkeeping (a module's open count, its
// link map, freed at the last dlclose) then reads as a race between threads
// that load and free the same module. Held the same way, this lock adds no
// waiting the loader's lock does not already impose, and it is recursive
// because a module's constructors may load modules too. It is never taken
// while g_lock is held.
std::recursive_mutex& LoaderLock() {
  static auto* lock = new std::recursive_mutex;  // used until the process ends
  return *lock;
}

void* LoaderOpen(const char* path, int flags) {
  std::lock_guard<std::recursive_mutex> hold(LoaderLock());
  return dlopen(path, flags);
}

void LoaderClose(void* dl) {
  std::lock_guard<std::recursive_mutex> hold(LoaderLock());
  dlclose(dl);
}

std::vector<UModule*>& Modules() {
  static auto* modules = new std::vector<UModule*>;
  return *modules;
}

unsigned Fail(unsigned winerr) {
  USetLastError(winerr);
  return winerr;
}

// UTF-16 to UTF-8 and back (bad input becomes U+FFFD).
std::string ToUtf8(const char16_t* s, std::size_t n) { return Utf16ToUtf8({s, n}); }

std::u16string ToUtf16(const std::string& s) { return Utf8ToUtf16(s); }

std::string NameOf(const char16_t* name) {
  std::size_t n = 0;
  while (name[n] != 0) ++n;
  return ToUtf8(name, n);
}

std::string BaseName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool IsFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The folder of the shared object that holds this code; empty when that is
// the executable itself (its folder is the application folder).
std::string LibraryFolder() {
  static const std::string folder = [] {
    std::lock_guard<std::recursive_mutex> hold(LoaderLock());
    Dl_info info{};
    void* mapHere = nullptr;
    if (dladdr1(reinterpret_cast<void*>(&ULoadLibrary), &info, &mapHere, RTLD_DL_LINKMAP) == 0 ||
        mapHere == nullptr || info.dli_fname == nullptr) {
      return std::string();
    }
    void* self = dlopen(nullptr, RTLD_NOW);
    void* mapMain = nullptr;
    if (self != nullptr) {
      dlinfo(self, RTLD_DI_LINKMAP, &mapMain);
      dlclose(self);
    }
    if (mapHere == mapMain) return std::string();
    const std::string path = info.dli_fname;
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
  }();
  return folder;
}

std::vector<std::string> SearchFolders(bool withLibraryPath) {
  std::vector<std::string> folders;
  const std::string app = QuarnelEnv()->appFolder;
  if (!app.empty()) folders.push_back(app);
  const std::string lib = LibraryFolder();
  if (!lib.empty() && lib != app) folders.push_back(lib);
  if (withLibraryPath) {
    if (const char* ld = std::getenv("LD_LIBRARY_PATH")) {
      std::string all = ld;
      std::size_t start = 0;
      while (start <= all.size()) {
        const std::size_t end = std::min(all.find(':', start), all.size());
        if (end > start) folders.push_back(all.substr(start, end - start));
        start = end + 1;
      }
    }
  }
  return folders;
}

// The object of a dlopen handle's link map, and whether `address` lies in it.
bool InObject(void* handle, const void* address, std::uint64_t* symbolSize) {
  void* mapHandle = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &mapHandle) != 0 || mapHandle == nullptr) return false;
  Dl_info info{};
  void* mapAddress = nullptr;
  if (dladdr1(address, &info, &mapAddress, RTLD_DL_LINKMAP) == 0 || mapAddress != mapHandle) {
    return false;
  }
  void* sym = nullptr;
  if (dladdr1(address, &info, &sym, RTLD_DL_SYMENT) == 0 || sym == nullptr ||
      info.dli_saddr != address) {
    return false;
  }
  *symbolSize = static_cast<const ElfW(Sym)*>(sym)->st_size;
  return true;
}

// Finds the blob a loaded object exports. 0 (with an empty blob when the
// object has none of its own) or 13 for a malformed blob.
unsigned FindLoadedBlob(void* handle, UResBlob* blob) {
  std::lock_guard<std::recursive_mutex> hold(LoaderLock());
  *blob = UResBlob{};
  dlerror();
  const void* address = dlsym(handle, kResourceSymbol);
  std::uint64_t size = 0;
  if (address == nullptr || !InObject(handle, address, &size)) return 0;
  return UResBlobOpen(address, static_cast<std::size_t>(size), blob);
}

class FileSource : public quarnel_internal::ElfSource {
 public:
  explicit FileSource(int fd) : fd_(fd) {
    struct stat st;
    size_ = ::fstat(fd, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  }
  std::uint64_t Size() const override { return size_; }
  bool ReadAt(std::uint64_t offset, void* dst, std::size_t n) const override {
    if (offset > size_ || n > size_ - offset) return false;
    auto* p = static_cast<unsigned char*>(dst);
    while (n > 0) {
      const ssize_t got = ::pread(fd_, p, n, static_cast<off_t>(offset));
      if (got <= 0) return false;
      p += got;
      n -= static_cast<std::size_t>(got);
      offset += static_cast<std::uint64_t>(got);
    }
    return true;
  }

 private:
  int fd_;
  std::uint64_t size_;
};

UModule* LoadDataFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(UWinErrorFromErrno(errno));
    return nullptr;
  }
  FileSource source(fd);
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  // A file the loader would refuse is no module, even as data.
  const unsigned found =
      quarnel_internal::ElfCheckLoadable(source) != quarnel_internal::kElfFound
          ? quarnel_internal::kElfBadFormat
          : quarnel_internal::ElfFindSymbolBytes(source, kResourceSymbol, &offset, &size);
  auto* m = new UModule;
  m->kind = UModule::Kind::kDataFile;
  m->path = path;
  unsigned err = 0;
  if (found == quarnel_internal::kElfFound) {
    if (size > kMaxBlobBytes) {
      err = kErrorInvalidData;
    } else {
      m->bytes.resize(static_cast<std::size_t>(size));
      if (!source.ReadAt(offset, m->bytes.data(), m->bytes.size())) {
        err = kErrorBadExeFormat;
      } else {
        err = UResBlobOpen(m->bytes.data(), m->bytes.size(), &m->blob);
      }
    }
  } else if (found != quarnel_internal::kElfNoSymbol) {
    err = kErrorBadExeFormat;
  }
  ::close(fd);
  if (err != 0) {
    delete m;
    Fail(err);
    return nullptr;
  }
  std::lock_guard<std::mutex> hold(g_lock);
  Modules().push_back(m);
  return m;
}

// Before a file found by path is handed to the loader: it must be a whole
// shared object, and a resource blob it carries must be well formed, so that
// neither a cut file nor a bad blob gets as far as running the module's code.
unsigned CheckFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return kErrorModNotFound;
  FileSource source(fd);
  unsigned err = quarnel_internal::ElfCheckLoadable(source) == 0 ? 0 : kErrorBadExeFormat;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  if (err == 0) {
    const unsigned found =
        quarnel_internal::ElfFindSymbolBytes(source, kResourceSymbol, &offset, &size);
    if (found == quarnel_internal::kElfBadFormat) {
      err = kErrorBadExeFormat;
    } else if (found == quarnel_internal::kElfFound) {
      std::vector<unsigned char> bytes;
      UResBlob blob;
      if (size > kMaxBlobBytes) {
        err = kErrorInvalidData;
      } else {
        bytes.resize(static_cast<std::size_t>(size));
        if (!source.ReadAt(offset, bytes.data(), bytes.size())) {
          err = kErrorBadExeFormat;
        } else {
          err = UResBlobOpen(bytes.data(), bytes.size(), &blob);
        }
      }
    }
  }
  ::close(fd);
  return err;
}

UModule* LoadShared(const std::string& path, bool isPath, unsigned* err) {
  if (isPath) {
    *err = CheckFile(path);
    if (*err != 0) return nullptr;
  }
  void* dl = LoaderOpen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (dl == nullptr) {
    *err = isPath ? kErrorBadExeFormat : kErrorModNotFound;
    return nullptr;
  }
  // What a new entry needs is read before the table is locked, so that the
  // loader is never called under g_lock.
  UResBlob blob;
  const unsigned bad = FindLoadedBlob(dl, &blob);
  std::string name = path;
  if (!isPath) {
    std::lock_guard<std::recursive_mutex> hold(LoaderLock());
    const link_map* map = nullptr;
    if (dlinfo(dl, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name != nullptr &&
        map->l_name[0] != 0) {
      name = map->l_name;
    }
  }
  {
    std::lock_guard<std::mutex> hold(g_lock);
    for (UModule* m : Modules()) {
      if (m->dl == dl && m->kind == UModule::Kind::kShared) {
        ++m->refs;
        return m;
      }
    }
    if (bad == 0) {
      auto* m = new UModule;
      m->dl = dl;
      m->blob = blob;
      m->path = std::move(name);
      Modules().push_back(m);
      g_generation.fetch_add(1, std::memory_order_release);
      return m;
    }
  }
  LoaderClose(dl);
  *err = bad;
  return nullptr;
}

UModule& Host() {
  static UModule* host = [] {
    auto* m = new UModule;
    m->kind = UModule::Kind::kHost;
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n > 0) m->path.assign(buf, static_cast<std::size_t>(n));
    void* self = LoaderOpen(nullptr, RTLD_NOW);
    if (self != nullptr) {
      if (FindLoadedBlob(self, &m->blob) != 0) m->blob = UResBlob{};
      LoaderClose(self);
    }
    return m;
  }();
  return *host;
}

bool Known(UModule* m) {
  if (m == &Host()) return true;
  const auto& all = Modules();
  return std::find(all.begin(), all.end(), m) != all.end();
}

// The directory entry `resource` of the module's blob, or null when it is not one.
const unsigned char* EntryOf(UModule* m, HRSRC resource) {
  if (m == nullptr || resource == nullptr || m->blob.data == nullptr) return nullptr;
  const auto at = reinterpret_cast<std::uintptr_t>(resource);
  const auto first = reinterpret_cast<std::uintptr_t>(m->blob.data) + kResBlobHeaderSize;
  const std::uintptr_t span = std::uintptr_t{m->blob.count} * m->blob.entrySize;
  if (at < first || at - first >= span || (at - first) % m->blob.entrySize != 0) return nullptr;
  return static_cast<const unsigned char*>(resource);
}

unsigned IndexOf(UModule* m, const unsigned char* entry) {
  return static_cast<unsigned>((entry - m->blob.data - kResBlobHeaderSize) / m->blob.entrySize);
}

}  // namespace

namespace quarnel_internal {

std::vector<std::string> ModuleNameCandidates(const std::string& name) {
  std::vector<std::string> names;
  if (name.size() > 4) {
    std::string ext = name.substr(name.size() - 4);
    for (char& c : ext) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    if (ext == ".dll") {
      const std::string stem = name.substr(0, name.size() - 4);
      names.push_back("lib" + stem + ".so");
      names.push_back(stem + ".so");
    }
  }
  names.push_back(name);
  return names;
}

}  // namespace quarnel_internal

HMODULE ULoadLibrary(const char16_t* name) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kLoadLibrary, &injected)) {
    Fail(injected);
    return nullptr;
  }
  if (name == nullptr || name[0] == 0) {
    Fail(kErrorBadParameter);
    return nullptr;
  }
  const std::string given = NameOf(name);
  unsigned err = kErrorModNotFound;
  if (given.find('/') != std::string::npos) {
    if (!IsFile(given)) {
      Fail(kErrorModNotFound);
      return nullptr;
    }
    UModule* m = LoadShared(given, true, &err);
    if (m == nullptr) Fail(err);
    return m;
  }
  const std::vector<std::string> names = quarnel_internal::ModuleNameCandidates(given);
  for (const std::string& folder : SearchFolders(false)) {
    for (const std::string& n : names) {
      const std::string path = folder + "/" + n;
      if (!IsFile(path)) continue;
      UModule* m = LoadShared(path, true, &err);
      if (m == nullptr) Fail(err);
      return m;
    }
  }
  for (const std::string& n : names) {
    if (UModule* m = LoadShared(n, false, &err)) return m;
  }
  Fail(err);
  return nullptr;
}

HMODULE ULoadLibraryEx(const char16_t* name, unsigned flags) {
  if ((flags & kLoadLibraryAsDatafile) == 0) return ULoadLibrary(name);
  unsigned injected = 0;
  if (UShouldFail(UCall::kLoadLibrary, &injected)) {
    Fail(injected);
    return nullptr;
  }
  if (name == nullptr || name[0] == 0) {
    Fail(kErrorBadParameter);
    return nullptr;
  }
  const std::string given = NameOf(name);
  if (given.find('/') != std::string::npos) return LoadDataFile(given);
  const std::vector<std::string> names = quarnel_internal::ModuleNameCandidates(given);
  for (const std::string& folder : SearchFolders(true)) {
    for (const std::string& n : names) {
      const std::string path = folder + "/" + n;
      if (IsFile(path)) return LoadDataFile(path);
    }
  }
  Fail(kErrorFileNotFound);
  return nullptr;
}

int UFreeLibrary(HMODULE module) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kFreeLibrary, &injected)) {
    Fail(injected);
    return 0;
  }
  if (module == nullptr) {
    Fail(kErrorInvalidHandle);
    return 0;
  }
  if (module == &Host()) return 1;
  void* dl = nullptr;
  {
    std::lock_guard<std::mutex> hold(g_lock);
    auto& all = Modules();
    const auto it = std::find(all.begin(), all.end(), module);
    if (it == all.end()) {
      Fail(kErrorInvalidHandle);
      return 0;
    }
    dl = module->dl;
    if (--module->refs <= 0) {
      all.erase(it);
      if (module->kind == UModule::Kind::kShared) {
        g_generation.fetch_add(1, std::memory_order_release);
      }
      delete module;
    }
  }
  if (dl != nullptr) LoaderClose(dl);
  return 1;
}

HMODULE UGetModuleHandle(const char16_t* name) {
  if (name == nullptr) return &Host();
  const std::string given = NameOf(name);
  const bool isPath = given.find('/') != std::string::npos;
  const std::vector<std::string> names = quarnel_internal::ModuleNameCandidates(given);
  std::lock_guard<std::mutex> hold(g_lock);
  for (const std::string& n : names) {
    for (UModule* m : Modules()) {
      if (m->kind != UModule::Kind::kShared) continue;
      if (isPath ? m->path == given : BaseName(m->path) == n) return m;
    }
    if (isPath) break;
  }
  Fail(kErrorModNotFound);
  return nullptr;
}

void* UGetProcAddress(HMODULE module, const char* name) {
  void* handle = nullptr;
  bool host = false;
  {
    std::lock_guard<std::mutex> hold(g_lock);
    UModule* m = module == nullptr ? &Host() : module;
    host = m == &Host();
    if (!host && Known(m) && m->kind == UModule::Kind::kShared) handle = m->dl;
  }
  if (host) handle = dlopen(nullptr, RTLD_NOW);
  if (handle == nullptr || name == nullptr) {
    if (host && handle != nullptr) dlclose(handle);
    Fail(kErrorInvalidHandle);
    return nullptr;
  }
  void* address = dlsym(handle, name);
  if (host) dlclose(handle);
  if (address == nullptr) Fail(kErrorProcNotFound);
  return address;
}

int UGetModuleFileName(HMODULE module, char16_t* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    Fail(kErrorBadParameter);
    return 0;
  }
  std::string path;
  UModule* const host = &Host();  // made before g_lock: making it calls the loader
  {
    std::lock_guard<std::mutex> hold(g_lock);
    UModule* m = module == nullptr ? host : module;
    if (!Known(m)) {
      buffer[0] = 0;
      Fail(kErrorInvalidHandle);
      return 0;
    }
    path = m->path;
  }
  const std::u16string wide = ToUtf16(path);
  const int n = std::min(static_cast<int>(wide.size()), size - 1);
  std::copy(wide.begin(), wide.begin() + n, buffer);
  buffer[n] = 0;
  return n;
}

namespace {

// The error of a failed find: 1813 when the module holds no resource of the
// type at all, as Windows answers, else 1814.
unsigned NotFound(const UResBlob& blob, unsigned type) {
  for (unsigned i = 0; i < blob.count; ++i) {
    if (UResBlobEntry(blob, i).type == type) return kErrorResourceNameNotFound;
  }
  return kErrorResourceTypeNotFound;
}

}  // namespace

HRSRC UFindResource(HMODULE module, int id, unsigned type) {
  UModule* m = module == nullptr ? &Host() : module;
  const unsigned char* entry = UResBlobFind(m->blob, type, id, nullptr);
  if (entry == nullptr) Fail(NotFound(m->blob, type));
  return entry;
}

HRSRC UFindResourceNamed(HMODULE module, const char16_t* name, int length, unsigned type) {
  UModule* m = module == nullptr ? &Host() : module;
  if (name == nullptr || length <= 0) {
    Fail(kErrorBadParameter);
    return nullptr;
  }
  const unsigned char* entry =
      UResBlobFindNamed(m->blob, type, name, static_cast<unsigned>(length), nullptr);
  if (entry == nullptr) Fail(NotFound(m->blob, type));
  return entry;
}

unsigned USizeofResource(HMODULE module, HRSRC resource) {
  UModule* m = module == nullptr ? &Host() : module;
  const unsigned char* entry = EntryOf(m, resource);
  if (entry == nullptr) {
    Fail(kErrorResourceTypeNotFound);
    return 0;
  }
  return UResBlobEntry(m->blob, IndexOf(m, entry)).size;
}

HGLOBAL ULoadResource(HMODULE module, HRSRC resource) {
  unsigned injected = 0;
  if (UShouldFail(UCall::kLoadResource, &injected)) {
    Fail(injected);
    return nullptr;
  }
  UModule* m = module == nullptr ? &Host() : module;
  const unsigned char* entry = EntryOf(m, resource);
  if (entry == nullptr) {
    Fail(kErrorInvalidHandle);
    return nullptr;
  }
  return UResBlobEntry(m->blob, IndexOf(m, entry)).bytes;
}

const void* ULockResource(HGLOBAL data) { return data; }

int UFreeResource(HGLOBAL) { return 0; }

int ULoadString(HMODULE module, unsigned id, char16_t* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    Fail(kErrorBadParameter);
    return 0;
  }
  buffer[0] = 0;
  UModule* m = module == nullptr ? &Host() : module;
  UResEntry block{};
  if (UResBlobFind(m->blob, kResTypeStringTable, static_cast<int>((id >> 4) + 1), &block) ==
      nullptr) {
    Fail(kErrorResourceNameNotFound);
    return 0;
  }
  // Sixteen strings, each a 16-bit unit count and that many UTF-16LE units.
  unsigned pos = 0;
  for (unsigned index = 0; index <= (id & 15); ++index) {
    if (pos + 2 > block.size) {
      Fail(kErrorResourceNameNotFound);
      return 0;
    }
    const unsigned n = block.bytes[pos] | (unsigned{block.bytes[pos + 1]} << 8);
    pos += 2;
    if (n > (block.size - pos) / 2) {
      Fail(kErrorResourceNameNotFound);
      return 0;
    }
    if (index == (id & 15)) {
      const int copied = std::min(static_cast<int>(n), size - 1);
      for (int k = 0; k < copied; ++k) {
        buffer[k] = static_cast<char16_t>(block.bytes[pos + 2 * k] |
                                          (unsigned{block.bytes[pos + 2 * k + 1]} << 8));
      }
      buffer[copied] = 0;
      return copied;
    }
    pos += 2 * n;
  }
  return 0;
}

unsigned UModuleGeneration() { return g_generation.load(std::memory_order_acquire); }

int UEnumResource(HMODULE module, int index, UResEntry* entry) {
  UResBlob blob;
  {
    std::lock_guard<std::mutex> hold(g_lock);
    UModule* m = module == nullptr ? &Host() : module;
    if (!Known(m)) {
      Fail(kErrorInvalidHandle);
      return 0;
    }
    blob = m->blob;
  }
  if (index < 0 || static_cast<unsigned>(index) >= blob.count) {
    USetLastError(1813);
    return 0;
  }
  *entry = UResBlobEntry(blob, static_cast<unsigned>(index));
  return 1;
}

UResBlob UModuleResources(HMODULE module) {
  UModule* m = module == nullptr ? &Host() : module;
  return m->blob;
}
