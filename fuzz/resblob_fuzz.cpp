// The resource container reader over arbitrary bytes: no read outside the
// input, and every entry of a container it accepts lies within it.
//
// Area: quarnel/platform/resblob.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "quarnel/platform/resblob.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy, so that a read past the end is caught.
  const std::vector<std::uint8_t> bytes(data, data + size);
  UResBlob blob;
  if (UResBlobOpen(bytes.data(), bytes.size(), &blob) != 0) {
    if (blob.data != nullptr || blob.count != 0) std::abort();
    return 0;
  }
  if (blob.size > bytes.size()) std::abort();
  const unsigned char* end = bytes.data() + bytes.size();
  for (unsigned i = 0; i < blob.count; ++i) {
    const UResEntry e = UResBlobEntry(blob, i);
    if (e.bytes < bytes.data() || e.bytes + e.size > end) std::abort();
    if (e.name != nullptr && (e.nameLength == 0 || e.name + 2 * e.nameLength > end)) std::abort();
    // Each entry is found again by its key (perhaps as an earlier twin).
    UResEntry again{};
    const unsigned char* hit = nullptr;
    if (e.name == nullptr) {
      hit = UResBlobFind(blob, e.type, e.id, &again);
    } else {
      std::vector<char16_t> name(e.nameLength);
      for (unsigned k = 0; k < e.nameLength; ++k) {
        name[k] = static_cast<char16_t>(e.name[2 * k] | (e.name[2 * k + 1] << 8));
      }
      hit = UResBlobFindNamed(blob, e.type, name.data(), e.nameLength, &again);
    }
    if (hit == nullptr || again.type != e.type) std::abort();
  }
  return 0;
}
