#include "quarnel/foundation/internal/symmap.h"

bool quarnel_internal::FindInSymbolMap(const unsigned char* map, std::size_t size,
                                       std::uint32_t offset, SymbolMapHit* hit) {
  bool found = false;
  std::uint32_t previous = 0;
  std::size_t at = 0;
  while (map != nullptr && at + 2 <= size) {
    const unsigned length = map[at] | map[at + 1] << 8;
    if (length == kSymbolMapEnd || length < 4 || at + 2 + length > size) break;
    const std::uint32_t recordOffset = static_cast<std::uint32_t>(map[at + 2]) |
                                       static_cast<std::uint32_t>(map[at + 3]) << 8 |
                                       static_cast<std::uint32_t>(map[at + 4]) << 16 |
                                       static_cast<std::uint32_t>(map[at + 5]) << 24;
    if (recordOffset > offset || recordOffset < previous) break;
    previous = recordOffset;
    hit->name = reinterpret_cast<const char*>(map + at + 6);
    hit->length = static_cast<int>(length - 4);
    hit->offset = recordOffset;
    found = true;
    at += 2 + length + (length & 1);
  }
  return found;
}
