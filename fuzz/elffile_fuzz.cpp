// The ELF reader that finds a module's resource blob in its file, the
// reader of its functions (qnrc's symbol maps), and the check made before a
// file goes to the loader: arbitrary bytes never lead
// them outside the file, and what they find lies within it.
//
// Area: quarnel/platform/internal/elffile.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "quarnel/platform/internal/elffile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);
  const quarnel_internal::ElfMemorySource source(bytes.data(), bytes.size());
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  const unsigned r =
      quarnel_internal::ElfFindSymbolBytes(source, "quarnel_resources", &offset, &length);
  if (r == quarnel_internal::kElfFound && (offset > size || length > size - offset)) std::abort();
  if (r != quarnel_internal::kElfFound && (offset != 0 || length != 0)) std::abort();
  quarnel_internal::ElfCheckLoadable(source);
  std::vector<quarnel_internal::ElfFunction> functions;
  quarnel_internal::ElfFunctionSymbols(source, &functions);
  return 0;
}
