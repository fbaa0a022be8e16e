// Reading an ELF file as data: finds an exported symbol's bytes in the file
// without loading it, the way a resource module's blob is read by
// ULoadLibraryEx with the data-file flag. Both classes (32- and 64-bit) and
// both byte orders are read; every offset and size taken from the file is
// checked against the file's size before use.
#ifndef QUARNEL_PLATFORM_INTERNAL_ELFFILE_H_
#define QUARNEL_PLATFORM_INTERNAL_ELFFILE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarnel_internal {

// Random access to the bytes of a file (or of a buffer, for tests and fuzzing).
class ElfSource {
 public:
  virtual ~ElfSource() = default;
  virtual std::uint64_t Size() const = 0;
  // Copies `n` bytes from `offset`; false when they are not all there.
  virtual bool ReadAt(std::uint64_t offset, void* dst, std::size_t n) const = 0;
};

// An ElfSource over bytes in memory.
class ElfMemorySource : public ElfSource {
 public:
  ElfMemorySource(const void* data, std::size_t size) : data_(data), size_(size) {}
  std::uint64_t Size() const override { return size_; }
  bool ReadAt(std::uint64_t offset, void* dst, std::size_t n) const override;

 private:
  const void* data_;
  std::size_t size_;
};

enum : unsigned {
  kElfFound = 0,        // *offset and *size give the symbol's bytes in the file
  kElfNoSymbol = 1,     // a well-formed ELF file without that dynamic symbol
  kElfBadFormat = 193,  // not an ELF file, or a part it needs lies outside the file
};

// Looks `name` up among the file's dynamic symbols (.dynsym). The symbol must
// be defined in a section that holds file bytes (not .bss), and its value and
// size must lie within that section and the file.
unsigned ElfFindSymbolBytes(const ElfSource& source, const char* name, std::uint64_t* offset,
                            std::uint64_t* size);

// Checks what the loader maps before it maps it: an ELF shared object (type
// ET_DYN) whose loadable and dynamic segments lie within the file, so that a
// cut or damaged file is refused instead of faulting when its pages are
// touched. kElfFound (0) or kElfBadFormat.
unsigned ElfCheckLoadable(const ElfSource& source);

// A function the file's symbol table defines.
struct ElfFunction {
  std::uint64_t value;  // its address relative to the load address
  std::string name;     // as the table holds it (mangled)
  bool global;          // global or weak binding
};

// The functions of the file's full symbol table (.symtab), or of its dynamic
// symbols when it has been stripped: symbols of type FUNC or IFUNC defined in
// a section of the file, in the table's order. kElfFound (0), or
// kElfBadFormat for a file that is not ELF or whose tables lie outside it.
unsigned ElfFunctionSymbols(const ElfSource& source, std::vector<ElfFunction>* out);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_ELFFILE_H_
