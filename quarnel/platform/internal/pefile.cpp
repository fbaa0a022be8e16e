#include "quarnel/platform/internal/pefile.h"

#include <cstring>
#include <string>

namespace quarnel_internal {

namespace {

constexpr unsigned kPe32Magic = 0x10B;
constexpr unsigned kPe32PlusMagic = 0x20B;
constexpr unsigned kResourceDirectory = 2;
constexpr unsigned kSymbolSize = 18;
constexpr unsigned kFunctionType = 0x20;  // complex type "function"
constexpr unsigned kClassExternal = 2;
constexpr unsigned kClassStatic = 3;
constexpr unsigned kClassWeakExternal = 105;
constexpr unsigned kResourceLevels = 3;  // type, name, language

std::uint32_t U16(const unsigned char* p) { return p[0] | p[1] << 8; }
std::uint32_t U32(const unsigned char* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
std::uint64_t U64(const unsigned char* p) {
  return U32(p) | static_cast<std::uint64_t>(U32(p + 4)) << 32;
}

// Where the byte at `rva` lies in the source; false when no section (or the
// headers, for a mapped image) holds it with `length` bytes.
bool SourceOffset(const PeHeaders& h, std::uint64_t rva, std::uint64_t length,
                  std::uint64_t* offset) {
  if (h.mapped) {
    *offset = rva;
    return true;
  }
  for (int i = 0; i < h.sectionCount; ++i) {
    const PeSection& s = h.sections[i];
    if (rva >= s.rva && rva - s.rva < s.fileSize && length <= s.fileSize - (rva - s.rva)) {
      *offset = s.fileOffset + (rva - s.rva);
      return true;
    }
  }
  return false;
}

bool ReadRva(const ElfSource& source, const PeHeaders& h, std::uint64_t rva, void* dst,
             std::size_t n) {
  std::uint64_t offset = 0;
  return SourceOffset(h, rva, n, &offset) && source.ReadAt(offset, dst, n);
}

// One symbol record of the table, by index.
bool ReadSymbol(const ElfSource& source, const PeHeaders& h, std::uint32_t index,
                unsigned char* record) {
  return source.ReadAt(h.symbolTable + std::uint64_t{index} * kSymbolSize, record, kSymbolSize);
}

bool IsFunction(const unsigned char* record) {
  const unsigned storage = record[16];
  const auto section = static_cast<std::int16_t>(U16(record + 12));
  return (U16(record + 14) & 0x30) == kFunctionType && section > 0 &&
         (storage == kClassExternal || storage == kClassStatic || storage == kClassWeakExternal);
}

// The name of a symbol record into `name` (zero-terminated, cut to `size`).
void SymbolName(const ElfSource& source, const PeHeaders& h, const unsigned char* record,
                char* name, std::size_t size) {
  if (size == 0) return;
  std::size_t n = 0;
  if (U32(record) != 0) {
    while (n < 8 && n + 1 < size && record[n] != 0) {
      name[n] = static_cast<char>(record[n]);
      ++n;
    }
  } else {
    const std::uint64_t at =
        h.symbolTable + std::uint64_t{h.symbolCount} * kSymbolSize + U32(record + 4);
    char c = 0;
    while (n + 1 < size && source.ReadAt(at + n, &c, 1) && c != 0) name[n++] = c;
  }
  name[n] = '\0';
}

}  // namespace

unsigned PeReadHeaders(const ElfSource& source, bool mapped, PeHeaders* out) {
  *out = PeHeaders{};
  out->mapped = mapped;
  unsigned char dos[64];
  if (!source.ReadAt(0, dos, sizeof dos) || dos[0] != 'M' || dos[1] != 'Z') return kPeBadFormat;
  const std::uint64_t pe = U32(dos + 0x3C);
  unsigned char coff[24];
  if (!source.ReadAt(pe, coff, sizeof coff) || std::memcmp(coff, "PE\0\0", 4) != 0)
    return kPeBadFormat;
  const unsigned sectionCount = U16(coff + 6);
  const unsigned optionalSize = U16(coff + 20);
  if (sectionCount > PeHeaders::kMaxSections) return kPeBadFormat;
  const std::uint64_t optional = pe + 24;
  unsigned char opt[240] = {};
  if (optionalSize < 2 || optionalSize > sizeof opt || !source.ReadAt(optional, opt, optionalSize))
    return kPeBadFormat;
  const unsigned magic = U16(opt);
  unsigned dirCountAt = 0;
  if (magic == kPe32PlusMagic) {
    out->imageBase = U64(opt + 24);
    dirCountAt = 108;
  } else if (magic == kPe32Magic) {
    out->imageBase = U32(opt + 28);
    dirCountAt = 92;
  } else {
    return kPeBadFormat;
  }
  if (dirCountAt + 4 <= optionalSize) {
    const std::uint32_t dirs = U32(opt + dirCountAt);
    const unsigned at = dirCountAt + 4 + 8 * kResourceDirectory;
    if (dirs > kResourceDirectory && at + 8 <= optionalSize) {
      out->resourceRva = U32(opt + at);
      out->resourceSize = U32(opt + at + 4);
    }
  }
  out->symbolTable = U32(coff + 12);
  out->symbolCount = U32(coff + 16);
  if (out->symbolCount == 0) out->symbolTable = 0;
  for (unsigned i = 0; i < sectionCount; ++i) {
    unsigned char s[40];
    if (!source.ReadAt(optional + optionalSize + 40ull * i, s, sizeof s)) return kPeBadFormat;
    PeSection& section = out->sections[i];
    std::memcpy(section.name, s, 8);
    section.name[8] = '\0';
    section.virtualSize = U32(s + 8);
    section.rva = U32(s + 12);
    section.fileSize = U32(s + 16);
    section.fileOffset = U32(s + 20);
  }
  out->sectionCount = static_cast<int>(sectionCount);
  return kPeFound;
}

bool PeSectionOf(const PeHeaders& h, std::uint64_t rva, unsigned* section, std::uint32_t* offset) {
  for (int i = 0; i < h.sectionCount; ++i) {
    const PeSection& s = h.sections[i];
    const std::uint32_t extent = s.virtualSize != 0 ? s.virtualSize : s.fileSize;
    if (rva >= s.rva && rva - s.rva < extent) {
      *section = static_cast<unsigned>(i + 1);
      *offset = static_cast<std::uint32_t>(rva - s.rva);
      return true;
    }
  }
  return false;
}

unsigned PeFindResource(const ElfSource& source, const PeHeaders& h, unsigned type, unsigned id,
                        std::uint64_t* offset, std::uint32_t* size) {
  *offset = 0;
  *size = 0;
  if (h.resourceRva == 0 || h.resourceSize < 16) return kPeNotThere;
  const unsigned wanted[kResourceLevels - 1] = {type, id};
  std::uint32_t directory = 0;  // offset in the resource section
  for (unsigned level = 0; level < kResourceLevels; ++level) {
    unsigned char head[16];
    if (directory > h.resourceSize - 16 ||
        !ReadRva(source, h, h.resourceRva + directory, head, sizeof head)) {
      return kPeBadFormat;
    }
    const unsigned named = U16(head + 12);
    const unsigned numbered = U16(head + 14);
    const std::uint64_t first = directory + 16ull;
    if (first + 8ull * (named + numbered) > h.resourceSize) return kPeBadFormat;
    std::uint32_t target = 0;
    bool found = false;
    if (level == kResourceLevels - 1) {  // the first language there is
      if (named + numbered == 0) return kPeNotThere;
      unsigned char entry[8];
      if (!ReadRva(source, h, h.resourceRva + first, entry, sizeof entry)) return kPeBadFormat;
      target = U32(entry + 4);
      found = true;
    } else {
      for (unsigned k = named; k < named + numbered && !found; ++k) {
        unsigned char entry[8];
        if (!ReadRva(source, h, h.resourceRva + first + 8ull * k, entry, sizeof entry))
          return kPeBadFormat;
        if (U32(entry) == wanted[level]) {
          target = U32(entry + 4);
          found = true;
        }
      }
      if (!found) return kPeNotThere;
    }
    const bool subdirectory = (target & 0x80000000u) != 0;
    target &= 0x7FFFFFFFu;
    if (level + 1 < kResourceLevels) {
      if (!subdirectory) return kPeBadFormat;
      directory = target;
      continue;
    }
    unsigned char data[16];
    if (subdirectory || target > h.resourceSize - 16 ||
        !ReadRva(source, h, h.resourceRva + target, data, sizeof data)) {
      return kPeBadFormat;
    }
    const std::uint32_t dataRva = U32(data);
    const std::uint32_t dataSize = U32(data + 4);
    std::uint64_t at = 0;
    if (!SourceOffset(h, dataRva, dataSize, &at) || at > source.Size() ||
        dataSize > source.Size() - at) {
      return kPeBadFormat;
    }
    *offset = at;
    *size = dataSize;
    return kPeFound;
  }
  return kPeNotThere;
}

unsigned PeFunctionSymbols(const ElfSource& source, std::vector<ElfFunction>* out) {
  out->clear();
  PeHeaders h;
  if (PeReadHeaders(source, false, &h) != kPeFound) return kPeBadFormat;
  if (h.symbolTable == 0) return kPeFound;
  if (std::uint64_t{h.symbolCount} * kSymbolSize > source.Size() ||
      h.symbolTable > source.Size() - std::uint64_t{h.symbolCount} * kSymbolSize) {
    return kPeBadFormat;
  }
  for (std::uint32_t i = 0; i < h.symbolCount; ++i) {
    unsigned char record[kSymbolSize];
    if (!ReadSymbol(source, h, i, record)) return kPeBadFormat;
    const std::uint32_t aux = record[17];
    if (IsFunction(record)) {
      const auto section = static_cast<unsigned>(U16(record + 12));
      if (section <= static_cast<unsigned>(h.sectionCount)) {
        char name[1024];
        SymbolName(source, h, record, name, sizeof name);
        const unsigned storage = record[16];
        out->push_back(ElfFunction{std::uint64_t{h.sections[section - 1].rva} + U32(record + 8),
                                   std::string(name), storage != kClassStatic});
      }
    }
    i += aux;
  }
  return kPeFound;
}

bool PeNearestFunction(const ElfSource& source, const PeHeaders& h, std::uint64_t rva, char* name,
                       std::size_t size, std::uint64_t* start) {
  unsigned section = 0;
  std::uint32_t offset = 0;
  if (h.symbolTable == 0 || !PeSectionOf(h, rva, &section, &offset)) return false;
  unsigned char best[kSymbolSize];
  bool found = false;
  std::uint32_t bestValue = 0;
  for (std::uint32_t i = 0; i < h.symbolCount; ++i) {
    unsigned char record[kSymbolSize];
    if (!ReadSymbol(source, h, i, record)) break;
    const std::uint32_t aux = record[17];
    if (IsFunction(record) && U16(record + 12) == section) {
      const std::uint32_t value = U32(record + 8);
      // Of several functions at one address the global one names it.
      if (value <= offset &&
          (!found || value > bestValue || (value == bestValue && record[16] != kClassStatic))) {
        std::memcpy(best, record, sizeof best);
        bestValue = value;
        found = true;
      }
    }
    i += aux;
  }
  if (!found) return false;
  SymbolName(source, h, best, name, size);
  *start = std::uint64_t{h.sections[section - 1].rva} + bestValue;
  return true;
}

}  // namespace quarnel_internal
