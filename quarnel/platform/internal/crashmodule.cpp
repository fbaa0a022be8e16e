#include "quarnel/platform/internal/crashmodule.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cstring>

namespace {

// ---- loaded modules ------------------------------------------------------------------------

constexpr int kMaxModules = 512;
UModuleInfo g_modules[kMaxModules];
int g_moduleCount = 0;

void CopyText(char* dst, std::size_t size, const char* src) {
  std::size_t n = 0;
  if (src != nullptr) {
    while (src[n] != '\0' && n + 1 < size) ++n;
    std::memcpy(dst, src, n);
  }
  dst[n] = '\0';
}

int AddModule(dl_phdr_info* info, std::size_t, void*) {
  if (g_moduleCount >= kMaxModules) return 1;
  UModuleInfo& m = g_modules[g_moduleCount];
  m.base = static_cast<std::uintptr_t>(info->dlpi_addr);
  m.segments = 0;
  for (int i = 0; i < info->dlpi_phnum && m.segments < UModuleInfo::kMaxSegments; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD || ph.p_memsz == 0) continue;
    m.lo[m.segments] = m.base + ph.p_vaddr;
    m.hi[m.segments] = m.base + ph.p_vaddr + ph.p_memsz;
    ++m.segments;
  }
  const char* name = info->dlpi_name;
  if (g_moduleCount == 0 && (name == nullptr || name[0] == '\0')) {
    // The main program: its file is the one the process runs.
    const ssize_t n = ::readlink("/proc/self/exe", m.path, UModuleInfo::kMaxPath - 1);
    m.path[n > 0 ? n : 0] = '\0';
  } else {
    CopyText(m.path, UModuleInfo::kMaxPath, name);
  }
  ++g_moduleCount;
  return 0;
}

// ---- the module's file -----------------------------------------------------------------------

bool ReadAt(int fd, std::uint64_t offset, void* dst, std::size_t n) {
  auto* p = static_cast<unsigned char*>(dst);
  while (n > 0) {
    const ssize_t r = ::pread(fd, p, n, static_cast<off_t>(offset));
    if (r <= 0) return false;
    p += r;
    offset += static_cast<std::uint64_t>(r);
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

// An open ELF file and its section header table.
class ElfFile {
 public:
  explicit ElfFile(const char* path) {
    if (path == nullptr || path[0] != '/') return;
    fd_ = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return;
    Elf64_Ehdr eh;
    if (!ReadAt(fd_, 0, &eh, sizeof eh) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 ||
        eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_shentsize < sizeof(Elf64_Shdr) ||
        eh.e_shoff == 0) {
      return;
    }
    shoff_ = eh.e_shoff;
    shentsize_ = eh.e_shentsize;
    shnum_ = eh.e_shnum;
    shstrndx_ = eh.e_shstrndx;
    Elf64_Shdr first;
    if (!ReadAt(fd_, shoff_, &first, sizeof first)) return;
    if (shnum_ == 0) shnum_ = first.sh_size;  // more sections than the header field holds
    if (shstrndx_ == SHN_XINDEX) shstrndx_ = first.sh_link;
    ok_ = true;
  }
  ~ElfFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  ElfFile(const ElfFile&) = delete;
  ElfFile& operator=(const ElfFile&) = delete;

  bool ok() const { return ok_; }
  std::uint64_t count() const { return shnum_; }
  int fd() const { return fd_; }

  bool Section(std::uint64_t index, Elf64_Shdr* sh) const {
    return index < shnum_ && ReadAt(fd_, shoff_ + index * shentsize_, sh, sizeof *sh);
  }

  // True when the section's name is `name`.
  bool NameIs(const Elf64_Shdr& sh, const char* name) const {
    Elf64_Shdr strtab;
    if (!Section(shstrndx_, &strtab)) return false;
    const std::size_t n = std::strlen(name) + 1;
    char buf[32];
    if (n > sizeof buf || sh.sh_name + n > strtab.sh_size) return false;
    return ReadAt(fd_, strtab.sh_offset + sh.sh_name, buf, n) && std::memcmp(buf, name, n) == 0;
  }

 private:
  int fd_ = -1;
  bool ok_ = false;
  std::uint64_t shoff_ = 0;
  std::uint64_t shentsize_ = 0;
  std::uint64_t shnum_ = 0;
  std::uint64_t shstrndx_ = 0;
};

// ---- the memory map --------------------------------------------------------------------------

struct Mapping {
  std::uintptr_t lo;
  std::uintptr_t hi;
  bool read;
  bool write;
  bool exec;
  bool stack;  // "[stack]"
};

constexpr int kMaxMappings = 16384;
Mapping g_maps[kMaxMappings];
int g_mapCount = 0;

bool ParseHex(const char*& p, const char* end, std::uintptr_t* v) {
  std::uintptr_t r = 0;
  const char* start = p;
  while (p < end) {
    const char c = *p;
    int d;
    if (c >= '0' && c <= '9') {
      d = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      d = c - 'a' + 10;
    } else {
      break;
    }
    r = r * 16 + static_cast<std::uintptr_t>(d);
    ++p;
  }
  *v = r;
  return p > start;
}

// One line "lo-hi perms offset dev inode   path".
bool ParseMapLine(const char* p, const char* end, Mapping* m) {
  *m = Mapping{};
  if (!ParseHex(p, end, &m->lo) || p >= end || *p++ != '-' || !ParseHex(p, end, &m->hi) ||
      end - p < 5 || *p++ != ' ') {
    return false;
  }
  m->read = p[0] == 'r';
  m->write = p[1] == 'w';
  m->exec = p[2] == 'x';
  static const char kStack[] = "[stack]";
  const std::size_t n = sizeof kStack - 1;
  m->stack = static_cast<std::size_t>(end - p) >= n && std::memcmp(end - n, kStack, n) == 0;
  return true;
}

// Calls fn(const Mapping&) for each line of /proc/self/maps, in address
// order, reading it through a buffer on the stack. A line longer than the
// buffer (a very long path) is taken by its start. False when the map cannot
// be read.
template <class Fn>
bool ForEachMapping(Fn fn) {
  const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  std::size_t have = 0;
  bool skipping = false;  // inside the rest of an over-long line
  Mapping m;
  ssize_t r;
  while ((r = ::read(fd, buf + have, sizeof buf - have)) > 0) {
    have += static_cast<std::size_t>(r);
    std::size_t start = 0;
    for (std::size_t i = 0; i < have; ++i) {
      if (buf[i] != '\n') continue;
      if (!skipping && ParseMapLine(buf + start, buf + i, &m)) fn(m);
      skipping = false;
      start = i + 1;
    }
    if (start == 0 && have == sizeof buf) {
      if (!skipping && ParseMapLine(buf, buf + have, &m)) fn(m);
      skipping = true;
      have = 0;
      continue;
    }
    std::memmove(buf, buf + start, have - start);
    have -= start;
  }
  ::close(fd);
  if (r < 0) return false;
  if (have > 0 && !skipping && ParseMapLine(buf, buf + have, &m)) fn(m);
  return true;
}

// The index of the first mapping that ends above `p` (g_mapCount when none).
int FirstEndingAbove(std::uintptr_t p) {
  int lo = 0;
  int hi = g_mapCount;
  while (lo < hi) {
    const int mid = (lo + hi) / 2;
    if (g_maps[mid].hi <= p) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

constexpr std::uintptr_t kMainStackGap = 1u << 20;

}  // namespace

int USnapshotModules() {
  g_moduleCount = 0;
  ::dl_iterate_phdr(AddModule, nullptr);
  return g_moduleCount;
}

const UModuleInfo* UModuleOf(std::uintptr_t address) {
  for (int i = 0; i < g_moduleCount; ++i) {
    const UModuleInfo& m = g_modules[i];
    for (int s = 0; s < m.segments; ++s) {
      if (address >= m.lo[s] && address < m.hi[s]) return &m;
    }
  }
  return nullptr;
}

const char* UModuleBaseName(const UModuleInfo* module) {
  if (module == nullptr) return "";
  const char* base = module->path;
  for (const char* p = module->path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

bool UModuleSectionOf(const UModuleInfo& module, std::uintptr_t address, unsigned* section,
                      std::uint32_t* offset) {
  const ElfFile file(module.path);
  if (!file.ok()) return false;
  const std::uint64_t vaddr = address - module.base;
  Elf64_Shdr sh;
  for (std::uint64_t i = 1; i < file.count() && file.Section(i, &sh); ++i) {
    if ((sh.sh_flags & SHF_ALLOC) && vaddr >= sh.sh_addr && vaddr - sh.sh_addr < sh.sh_size) {
      *section = static_cast<unsigned>(i);
      *offset = static_cast<std::uint32_t>(vaddr - sh.sh_addr);
      return true;
    }
  }
  return false;
}

std::size_t UModuleReadResources(const UModuleInfo& module, void* buf, std::size_t capacity) {
  const ElfFile file(module.path);
  if (!file.ok()) return 0;
  Elf64_Shdr sh;
  for (std::uint64_t i = 1; i < file.count() && file.Section(i, &sh); ++i) {
    if (sh.sh_type == SHT_NOBITS || !file.NameIs(sh, ".qnres")) continue;
    if (sh.sh_size == 0 || sh.sh_size > capacity) return 0;
    return ReadAt(file.fd(), sh.sh_offset, buf, sh.sh_size) ? sh.sh_size : 0;
  }
  return 0;
}

bool UModuleDynamicSymbol(const UModuleInfo& module, std::uintptr_t address, char* name,
                          std::size_t size, std::uintptr_t* symbol) {
  const ElfFile file(module.path);
  if (!file.ok() || size == 0) return false;
  Elf64_Shdr dynsym;
  std::uint64_t i = 1;
  for (; i < file.count() && file.Section(i, &dynsym); ++i) {
    if (dynsym.sh_type == SHT_DYNSYM) break;
  }
  Elf64_Shdr strtab;
  if (i >= file.count() || !file.Section(dynsym.sh_link, &strtab)) return false;
  const std::uint64_t vaddr = address - module.base;
  const std::uint64_t count = dynsym.sh_size / sizeof(Elf64_Sym);
  bool found = false;
  Elf64_Sym best{};
  Elf64_Sym chunk[128];
  for (std::uint64_t first = 0; first < count; first += 128) {
    const std::uint64_t n = count - first < 128 ? count - first : 128;
    if (!ReadAt(file.fd(), dynsym.sh_offset + first * sizeof(Elf64_Sym), chunk,
                n * sizeof(Elf64_Sym))) {
      return false;
    }
    for (std::uint64_t k = 0; k < n; ++k) {
      const Elf64_Sym& s = chunk[k];
      const unsigned bind = ELF64_ST_BIND(s.st_info);
      const unsigned vis = ELF64_ST_VISIBILITY(s.st_other);
      if ((bind != STB_GLOBAL && bind != STB_WEAK) || vis == STV_HIDDEN || vis == STV_INTERNAL ||
          ELF64_ST_TYPE(s.st_info) == STT_TLS || s.st_shndx == SHN_UNDEF || s.st_shndx == SHN_ABS ||
          s.st_name >= strtab.sh_size || vaddr < s.st_value) {
        continue;
      }
      const bool covers = s.st_size == 0 ? vaddr == s.st_value : vaddr - s.st_value < s.st_size;
      if (covers && (!found || best.st_value < s.st_value)) {
        best = s;
        found = true;
      }
    }
  }
  if (!found) return false;
  std::size_t n = size - 1;
  if (strtab.sh_size - best.st_name < n) n = strtab.sh_size - best.st_name;
  if (!ReadAt(file.fd(), strtab.sh_offset + best.st_name, name, n)) return false;
  name[n] = '\0';
  *symbol = module.base + best.st_value;
  return true;
}

bool USnapshotMemoryMap() {
  g_mapCount = 0;
  return ForEachMapping([](const Mapping& m) {
    if (g_mapCount < kMaxMappings) g_maps[g_mapCount++] = m;
  });
}

bool UMemoryAccessible(std::uintptr_t p, std::size_t size, bool write) {
  if (size == 0) return true;
  if (p == 0 || size > UINTPTR_MAX - p) return false;
  const std::uintptr_t end = p + size;
  std::uintptr_t cur = p;
  for (int i = FirstEndingAbove(p); i < g_mapCount; ++i) {
    const Mapping& m = g_maps[i];
    if (m.lo > cur || !m.read || (write && !m.write)) return false;
    cur = m.hi;
    if (cur >= end) return true;
  }
  return false;
}

bool UInStackGuard(std::uintptr_t address) {
  // The mapping holding the address (or the first above it) and the one after.
  Mapping at{};
  Mapping next{};
  int seen = 0;
  ForEachMapping([&](const Mapping& m) {
    if (seen == 0 && m.hi > address) {
      at = m;
      seen = 1;
    } else if (seen == 1) {
      next = m;
      seen = 2;
    }
  });
  if (seen == 0) return false;
  if (at.lo <= address) {
    const bool noAccess = !at.read && !at.write && !at.exec;
    return noAccess && seen == 2 && next.lo == at.hi && next.read && next.write;
  }
  return at.stack && at.lo - address <= kMainStackGap;
}
