// The crash report's readers of what a module's file holds: the symbol map
// (a stored resource) and the names of dynamic symbols, which the report
// demangles. Arbitrary bytes never lead them outside their input or their
// output buffer, and what they find lies within the input.
//
// The first byte chooses: even, the rest is a symbol map searched at the
// offset of the next four bytes; odd, the rest is a name demangled into a
// buffer of (first byte) bytes.
//
// Area: quarnel/foundation/internal/symmap.cpp quarnel/foundation/internal/demangle.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quarnel/foundation/internal/demangle.h"
#include "quarnel/foundation/internal/symmap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  if (data[0] % 2 == 0) {
    if (size < 5) return 0;
    std::uint32_t offset;
    std::memcpy(&offset, data + 1, sizeof offset);
    const std::vector<std::uint8_t> map(data + 5, data + size);
    quarnel_internal::SymbolMapHit hit{};
    if (quarnel_internal::FindInSymbolMap(map.data(), map.size(), offset, &hit)) {
      const auto* name = reinterpret_cast<const std::uint8_t*>(hit.name);
      if (hit.offset > offset || hit.length < 0 || name < map.data() ||
          name + hit.length > map.data() + map.size()) {
        std::abort();
      }
    }
    return 0;
  }
  const std::string name(reinterpret_cast<const char*>(data + 1), size - 1);
  const int cap = data[0];
  std::vector<char> out(static_cast<std::size_t>(cap) + 1, '\x7F');
  const int n = quarnel_internal::Demangle(name.c_str(), out.data(), cap);
  if (n >= cap || out[static_cast<std::size_t>(cap)] != '\x7F') std::abort();
  if (n >= 0 && (out[static_cast<std::size_t>(n)] != '\0' ||
                 std::strlen(out.data()) != static_cast<std::size_t>(n)))
    std::abort();
  return 0;
}
