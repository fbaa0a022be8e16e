#include "tools/qnrc/symbols.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "quarnel/compress/memcomp.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/internal/elffile.h"
#include "quarnel/platform/internal/pefile.h"
#include "quarnel/platform/resblob.h"

namespace qnrc {

namespace {

constexpr unsigned kSymbolMapType = 256;
constexpr int kSymbolMapId = 1;

// Only C++ names are demangled: the runtime would also read a C name such
// as "g" as the encoding of a type.
std::string Demangled(const std::string& name) {
  if (name.compare(0, 2, "_Z") != 0) return name;
  int status = 0;
  char* text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  std::string result = status == 0 && text != nullptr ? text : name;
  std::free(text);
  return result;
}

// The packed form of `bytes`, as MemComp leaves a block. A map of one
// segment that does not get smaller (MemComp then leaves it plain) is
// written as a packed block whose one segment is stored raw.
bool Pack(const std::vector<unsigned char>& bytes, std::vector<unsigned char>* packed) {
  TMemory block(1);
  if (block.SetSize(static_cast<unsigned>(bytes.size())) != 0) return false;
  std::memcpy(block.MemPtr(), bytes.data(), bytes.size());
  if (MemComp(&block) != 0) return false;
  const unsigned char* p = block.MemPtr();
  if (block.GetSize() >= 4 && p[0] == (kMemCompMagic >> 24) &&
      p[1] == ((kMemCompMagic >> 16) & 0xFF) && p[2] == ((kMemCompMagic >> 8) & 0xFF) &&
      p[3] == (kMemCompMagic & 0xFF)) {
    packed->assign(p, p + block.GetSize());
    return true;
  }
  const auto n = static_cast<std::uint32_t>(bytes.size());
  if (n > 4096) return false;
  const std::uint32_t negative = 0u - n;
  packed->clear();
  for (int k = 3; k >= 0; --k)
    packed->push_back(static_cast<unsigned char>(kMemCompMagic >> (8 * k)));
  for (int k = 3; k >= 0; --k) packed->push_back(static_cast<unsigned char>(negative >> (8 * k)));
  packed->insert(packed->end(), bytes.begin(), bytes.end());
  packed->push_back(static_cast<unsigned char>(n >> 8));
  packed->push_back(static_cast<unsigned char>(n));
  return true;
}

bool Unpack(const unsigned char* bytes, unsigned size, std::vector<unsigned char>* plain) {
  TMemory block(1);
  if (block.SetSize(size) != 0) return false;
  std::memcpy(block.MemPtr(), bytes, size);
  if (MemUncomp(&block) != 0) return false;
  plain->assign(block.MemPtr(), block.MemPtr() + block.GetSize());
  return true;
}

bool IsPe(const std::vector<unsigned char>& module) {
  return module.size() >= 2 && module[0] == 'M' && module[1] == 'Z';
}

// The functions of an ELF file or of a Windows module (PE image).
bool FunctionsOf(const std::vector<unsigned char>& module, std::vector<Function>* functions,
                 std::string* error) {
  const quarnel_internal::ElfMemorySource source(module.data(), module.size());
  std::vector<quarnel_internal::ElfFunction> found;
  if (IsPe(module)) {
    if (quarnel_internal::PeFunctionSymbols(source, &found) != quarnel_internal::kPeFound) {
      *error = "not a Windows module, or its symbol table lies outside it";
      return false;
    }
  } else if (quarnel_internal::ElfFunctionSymbols(source, &found) != quarnel_internal::kElfFound) {
    *error = "not an ELF file, or its symbol table lies outside it";
    return false;
  }
  functions->clear();
  for (const auto& f : found) functions->push_back(Function{f.value, f.name, f.global});
  return true;
}

}  // namespace

std::vector<unsigned char> BuildSymbolMap(std::vector<Function> functions) {
  for (Function& f : functions) f.name = Demangled(f.name);
  functions.erase(
      std::remove_if(functions.begin(), functions.end(),
                     [](const Function& f) { return f.offset > 0xFFFFFFFFu || f.name.empty(); }),
      functions.end());
  std::sort(functions.begin(), functions.end(), [](const Function& a, const Function& b) {
    if (a.offset != b.offset) return a.offset < b.offset;
    if (a.global != b.global) return a.global;
    if (a.name.size() != b.name.size()) return a.name.size() < b.name.size();
    return a.name < b.name;
  });
  std::vector<unsigned char> map;
  for (std::size_t i = 0; i < functions.size(); ++i) {
    if (i > 0 && functions[i].offset == functions[i - 1].offset) continue;
    const std::string name = functions[i].name.substr(0, kMaxSymbolName);
    const unsigned length = static_cast<unsigned>(name.size()) + 4;
    const auto offset = static_cast<std::uint32_t>(functions[i].offset);
    map.push_back(static_cast<unsigned char>(length));
    map.push_back(static_cast<unsigned char>(length >> 8));
    for (int k = 0; k < 4; ++k) map.push_back(static_cast<unsigned char>(offset >> (8 * k)));
    map.insert(map.end(), name.begin(), name.end());
    if (length & 1) map.push_back(0);
  }
  map.push_back(0xFF);
  map.push_back(0xFF);
  return map;
}

bool SymbolMapResource(const std::vector<unsigned char>& module, Resource* resource,
                       std::string* error) {
  std::vector<Function> functions;
  if (!FunctionsOf(module, &functions, error)) return false;
  resource->type = kSymbolMapType;
  resource->id = kSymbolMapId;
  resource->name.clear();
  if (!Pack(BuildSymbolMap(std::move(functions)), &resource->data)) {
    *error = "the symbol map could not be packed";
    return false;
  }
  return true;
}

bool CheckSymbolMap(const std::vector<unsigned char>& module, std::string* error) {
  std::vector<Function> functions;
  if (!FunctionsOf(module, &functions, error)) return false;
  const quarnel_internal::ElfMemorySource source(module.data(), module.size());
  const unsigned char* packed = nullptr;
  unsigned packedSize = 0;
  if (IsPe(module)) {  // a Win32 resource of the module
    quarnel_internal::PeHeaders headers;
    std::uint64_t offset = 0;
    std::uint32_t size = 0;
    if (quarnel_internal::PeReadHeaders(source, false, &headers) == quarnel_internal::kPeFound &&
        quarnel_internal::PeFindResource(source, headers, kSymbolMapType, kSymbolMapId, &offset,
                                         &size) == quarnel_internal::kPeFound) {
      packed = module.data() + offset;
      packedSize = size;
    }
  } else {  // an entry of the module's resource container
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    UResBlob blob;
    UResEntry entry;
    if (quarnel_internal::ElfFindSymbolBytes(source, "quarnel_resources", &offset, &size) ==
            quarnel_internal::kElfFound &&
        UResBlobOpen(module.data() + offset, size, &blob) == 0 &&
        UResBlobFind(blob, kSymbolMapType, kSymbolMapId, &entry) != nullptr) {
      packed = entry.bytes;
      packedSize = entry.size;
    }
  }
  if (packed == nullptr) {
    *error = "the module carries no symbol map";
    return false;
  }
  std::vector<unsigned char> carried;
  if (!Unpack(packed, packedSize, &carried) || carried != BuildSymbolMap(std::move(functions))) {
    *error = "the symbol map does not match the module's functions";
    return false;
  }
  return true;
}

}  // namespace qnrc
