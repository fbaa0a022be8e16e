#include "quarnel/platform/internal/elffile.h"

#include <cstring>
#include <vector>

namespace quarnel_internal {

namespace {

constexpr unsigned kShtProgbits = 1;
constexpr unsigned kShtStrtab = 3;
constexpr unsigned kShtSymtab = 2;
constexpr unsigned kShtDynsym = 11;
constexpr unsigned kSttFunc = 2;
constexpr unsigned kSttGnuIfunc = 10;
constexpr unsigned kStbGlobal = 1;
constexpr unsigned kStbWeak = 2;
constexpr unsigned kShnLoReserve = 0xFF00;
constexpr unsigned kEtDyn = 3;
constexpr unsigned kPtLoad = 1;
constexpr unsigned kPtDynamic = 2;
// Limits on what is read into memory: far above any real module's symbol
// and string tables, low enough that a forged size cannot exhaust memory.
constexpr std::uint64_t kMaxTableBytes = 64ull << 20;

bool Within(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

// Field reader for one file's class and byte order.
struct Layout {
  bool is64;
  bool bigEndian;

  std::uint64_t Get(const unsigned char* p, int bytes) const {
    std::uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) {
      const int k = bigEndian ? i : bytes - 1 - i;
      v = (v << 8) | p[k];
    }
    return v;
  }
  std::uint64_t Addr(const unsigned char* p) const { return Get(p, is64 ? 8 : 4); }
};

struct Section {
  unsigned type = 0;
  std::uint64_t addr = 0;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  unsigned link = 0;
  std::uint64_t entsize = 0;
};

Section ReadSection(const Layout& l, const unsigned char* h) {
  Section s;
  s.type = static_cast<unsigned>(l.Get(h + 4, 4));
  if (l.is64) {
    s.addr = l.Get(h + 16, 8);
    s.offset = l.Get(h + 24, 8);
    s.size = l.Get(h + 32, 8);
    s.link = static_cast<unsigned>(l.Get(h + 40, 4));
    s.entsize = l.Get(h + 56, 8);
  } else {
    s.addr = l.Get(h + 12, 4);
    s.offset = l.Get(h + 16, 4);
    s.size = l.Get(h + 20, 4);
    s.link = static_cast<unsigned>(l.Get(h + 24, 4));
    s.entsize = l.Get(h + 36, 4);
  }
  return s;
}

bool ReadTable(const ElfSource& src, const Section& s, std::vector<unsigned char>* out) {
  if (s.size > kMaxTableBytes || !Within(s.offset, s.size, src.Size())) return false;
  out->resize(static_cast<std::size_t>(s.size));
  return s.size == 0 || src.ReadAt(s.offset, out->data(), out->size());
}

}  // namespace

bool ElfMemorySource::ReadAt(std::uint64_t offset, void* dst, std::size_t n) const {
  if (!Within(offset, n, size_)) return false;
  if (n != 0) std::memcpy(dst, static_cast<const unsigned char*>(data_) + offset, n);
  return true;
}

unsigned ElfCheckLoadable(const ElfSource& source) {
  unsigned char h[64] = {};
  if (!source.ReadAt(0, h, 16) || h[0] != 0x7F || h[1] != 'E' || h[2] != 'L' || h[3] != 'F' ||
      (h[4] != 1 && h[4] != 2) || (h[5] != 1 && h[5] != 2) || h[6] != 1) {
    return kElfBadFormat;
  }
  const Layout l{h[4] == 2, h[5] == 2};
  if (!source.ReadAt(0, h, l.is64 ? 64 : 52)) return kElfBadFormat;
  if (l.Get(h + 16, 2) != kEtDyn) return kElfBadFormat;
  const std::uint64_t phoff = l.is64 ? l.Get(h + 32, 8) : l.Get(h + 28, 4);
  const unsigned phentsize = static_cast<unsigned>(l.Get(h + (l.is64 ? 54 : 42), 2));
  const unsigned phnum = static_cast<unsigned>(l.Get(h + (l.is64 ? 56 : 44), 2));
  if (phnum == 0 || phentsize < (l.is64 ? 56u : 32u)) return kElfBadFormat;
  std::vector<unsigned char> table;
  if (!ReadTable(source, Section{0, 0, phoff, std::uint64_t{phnum} * phentsize, 0, 0}, &table)) {
    return kElfBadFormat;
  }
  bool loads = false;
  for (unsigned i = 0; i < phnum; ++i) {
    const unsigned char* p = table.data() + std::size_t{i} * phentsize;
    const std::uint64_t type = l.Get(p, 4);
    if (type != kPtLoad && type != kPtDynamic) continue;
    const std::uint64_t offset = l.is64 ? l.Get(p + 8, 8) : l.Get(p + 4, 4);
    const std::uint64_t filesz = l.is64 ? l.Get(p + 32, 8) : l.Get(p + 16, 4);
    if (!Within(offset, filesz, source.Size())) return kElfBadFormat;
    if (type == kPtLoad) loads = true;
  }
  return loads ? kElfFound : kElfBadFormat;
}

namespace {

// Reads the identification, the header and the section table.
unsigned ReadSections(const ElfSource& source, Layout* layout, std::vector<Section>* sections) {
  unsigned char ident[64] = {};
  if (!source.ReadAt(0, ident, 16)) return kElfBadFormat;
  if (ident[0] != 0x7F || ident[1] != 'E' || ident[2] != 'L' || ident[3] != 'F') {
    return kElfBadFormat;
  }
  if ((ident[4] != 1 && ident[4] != 2) || (ident[5] != 1 && ident[5] != 2) || ident[6] != 1) {
    return kElfBadFormat;
  }
  const Layout l{ident[4] == 2, ident[5] == 2};
  *layout = l;
  const unsigned headerSize = l.is64 ? 64 : 52;
  if (!source.ReadAt(0, ident, headerSize)) return kElfBadFormat;
  const std::uint64_t shoff = l.is64 ? l.Get(ident + 40, 8) : l.Get(ident + 32, 4);
  const unsigned shentsize = static_cast<unsigned>(l.Get(ident + (l.is64 ? 58 : 46), 2));
  const unsigned shnum = static_cast<unsigned>(l.Get(ident + (l.is64 ? 60 : 48), 2));
  const unsigned minEntry = l.is64 ? 64 : 40;
  sections->clear();
  if (shnum == 0) return kElfFound;  // no section table
  if (shentsize < minEntry) return kElfBadFormat;
  std::vector<unsigned char> headers;
  if (!ReadTable(source, Section{0, 0, shoff, std::uint64_t{shnum} * shentsize, 0, 0}, &headers)) {
    return kElfBadFormat;
  }
  sections->resize(shnum);
  for (unsigned i = 0; i < shnum; ++i) {
    (*sections)[i] = ReadSection(l, headers.data() + std::size_t{i} * shentsize);
  }
  return kElfFound;
}

}  // namespace

unsigned ElfFunctionSymbols(const ElfSource& source, std::vector<ElfFunction>* out) {
  out->clear();
  Layout l{};
  std::vector<Section> sections;
  if (ReadSections(source, &l, &sections) != kElfFound) return kElfBadFormat;
  const unsigned shnum = static_cast<unsigned>(sections.size());
  const Section* table = nullptr;
  for (const Section& s : sections) {
    if (s.type == kShtSymtab) table = &s;
  }
  for (const Section& s : sections) {
    if (table == nullptr && s.type == kShtDynsym) table = &s;
  }
  if (table == nullptr) return kElfFound;
  if (table->link >= shnum || sections[table->link].type != kShtStrtab) return kElfBadFormat;
  const unsigned symSize = l.is64 ? 24 : 16;
  const std::uint64_t stride = table->entsize == 0 ? symSize : table->entsize;
  std::vector<unsigned char> symbols;
  std::vector<unsigned char> strings;
  if (stride < symSize || !ReadTable(source, *table, &symbols) ||
      !ReadTable(source, sections[table->link], &strings)) {
    return kElfBadFormat;
  }
  for (std::uint64_t k = 0; k < table->size / stride; ++k) {
    const unsigned char* s = symbols.data() + k * stride;
    const unsigned info = s[l.is64 ? 4 : 12];
    const unsigned shndx = static_cast<unsigned>(l.Get(s + (l.is64 ? 6 : 14), 2));
    const unsigned type = info & 0xF;
    if ((type != kSttFunc && type != kSttGnuIfunc) || shndx == 0 || shndx >= kShnLoReserve) {
      continue;
    }
    const std::uint64_t nameOffset = l.Get(s, 4);
    if (nameOffset >= strings.size()) continue;
    const char* name = reinterpret_cast<const char*>(strings.data() + nameOffset);
    const std::size_t length = strnlen(name, strings.size() - nameOffset);
    const std::uint64_t value = l.is64 ? l.Get(s + 8, 8) : l.Get(s + 4, 4);
    const unsigned bind = info >> 4;
    out->push_back(
        ElfFunction{value, std::string(name, length), bind == kStbGlobal || bind == kStbWeak});
  }
  return kElfFound;
}

unsigned ElfFindSymbolBytes(const ElfSource& source, const char* name, std::uint64_t* offset,
                            std::uint64_t* size) {
  *offset = 0;
  *size = 0;
  Layout l{};
  std::vector<Section> sections;
  if (ReadSections(source, &l, &sections) != kElfFound) return kElfBadFormat;
  const unsigned shnum = static_cast<unsigned>(sections.size());
  if (shnum == 0) return kElfNoSymbol;  // no section table: nothing to look up

  const unsigned symSize = l.is64 ? 24 : 16;
  const std::size_t nameLength = std::strlen(name);
  std::vector<unsigned char> symbols;
  std::vector<unsigned char> strings;
  for (const Section& dynsym : sections) {
    if (dynsym.type != kShtDynsym) continue;
    if (dynsym.link >= shnum || sections[dynsym.link].type != kShtStrtab) return kElfBadFormat;
    const std::uint64_t stride = dynsym.entsize == 0 ? symSize : dynsym.entsize;
    if (stride < symSize) return kElfBadFormat;
    if (!ReadTable(source, dynsym, &symbols) ||
        !ReadTable(source, sections[dynsym.link], &strings)) {
      return kElfBadFormat;
    }
    const std::uint64_t count = dynsym.size / stride;
    for (std::uint64_t k = 0; k < count; ++k) {
      const unsigned char* s = symbols.data() + k * stride;
      const std::uint64_t nameOffset = l.Get(s, 4);
      if (!Within(nameOffset, nameLength + 1, strings.size())) continue;
      if (std::memcmp(strings.data() + nameOffset, name, nameLength + 1) != 0) continue;
      const std::uint64_t value = l.is64 ? l.Get(s + 8, 8) : l.Get(s + 4, 4);
      const std::uint64_t bytes = l.is64 ? l.Get(s + 16, 8) : l.Get(s + 8, 4);
      const unsigned shndx = static_cast<unsigned>(l.Get(s + (l.is64 ? 6 : 14), 2));
      if (shndx == 0 || shndx >= kShnLoReserve) continue;  // undefined or absolute
      if (shndx >= shnum) return kElfBadFormat;
      const Section& home = sections[shndx];
      if (home.type != kShtProgbits) return kElfBadFormat;
      if (value < home.addr || !Within(value - home.addr, bytes, home.size)) return kElfBadFormat;
      const std::uint64_t at = home.offset + (value - home.addr);
      if (at < home.offset || !Within(at, bytes, source.Size())) return kElfBadFormat;
      *offset = at;
      *size = bytes;
      return kElfFound;
    }
  }
  return kElfNoSymbol;
}

}  // namespace quarnel_internal
