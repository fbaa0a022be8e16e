// Import and OldImport of arbitrary bytes: no crash, no read outside the
// input, and a string that is unchanged after a refused record.
//
// Area: quarnel/text/tstring_persist.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quarnel/text/tstring.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int n = size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size);
  // An exact-size copy, so that a read past the end is caught.
  std::vector<std::uint8_t> bytes(data, data + size);
  for (int swap = 0; swap < 2; ++swap) {
    TString s(u"before");
    const int used = s.Import(bytes.data(), n, swap);
    if (used > 0) {
      if (used > n || s.Length() < 0 || s.Length() > TString::kMaxLength) std::abort();
      // What was read is exported again byte for byte, apart from the header
      // and the padding (which the reader ignores).
      std::vector<std::uint8_t> again(static_cast<std::size_t>(used));
      if (s.Export(again.data(), used, 0) != used) std::abort();
      TString back;
      if (back.Import(again.data(), used, 0) != used || !back.Identical(s)) std::abort();
    } else if (!s.Identical(u"before", -1)) {
      std::abort();
    }
  }
  // OldImport trusts its caller for the size: hand it the input padded to
  // the longest record it can read.
  std::vector<std::uint8_t> padded(13 + 2 * TString::kMaxLength + 2, 0);
  std::memcpy(padded.data(), data, size < padded.size() ? size : padded.size());
  for (int swap = 0; swap < 2; ++swap) {
    TString s;
    const int used = s.OldImport(padded.data(), swap);
    if (used > static_cast<int>(padded.size())) std::abort();
  }
  return 0;
}
