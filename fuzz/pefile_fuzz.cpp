// The PE reader of Windows modules (qnrc's symbol maps of a DLL, the crash
// report on Windows): arbitrary bytes, read both as a file and as a mapped
// image, never lead it outside them, and what it finds lies within them.
//
// Area: quarnel/platform/internal/pefile.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "quarnel/platform/internal/pefile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quarnel_internal;
  const std::vector<std::uint8_t> bytes(data, data + size);
  const ElfMemorySource source(bytes.data(), bytes.size());
  for (const bool mapped : {false, true}) {
    PeHeaders h;
    if (PeReadHeaders(source, mapped, &h) != kPeFound) continue;
    for (const unsigned id : {1u, 7u}) {
      std::uint64_t offset = 0;
      std::uint32_t length = 0;
      if (PeFindResource(source, h, 10, id, &offset, &length) == kPeFound &&
          (offset > size || length > size - offset)) {
        std::abort();
      }
    }
    unsigned section = 0;
    std::uint32_t within = 0;
    char name[32];
    std::uint64_t start = 0;
    for (int i = 0; i < h.sectionCount; ++i) {
      const std::uint64_t rva = h.sections[i].rva + h.sections[i].virtualSize / 2;
      if (PeSectionOf(h, rva, &section, &within) && section == 0) std::abort();
      if (!mapped) PeNearestFunction(source, h, rva, name, sizeof name, &start);
    }
  }
  std::vector<ElfFunction> functions;
  PeFunctionSymbols(source, &functions);
  return 0;
}
