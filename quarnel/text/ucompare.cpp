#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/locale.h"
#include "quarnel/text/tstring.h"

namespace {

// Assertion line for a comparison the platform refused (an answer other than
// less, equal or greater).
constexpr int kLineCompareFailed = 2248;
constexpr unsigned kLocaleUserDefault = 0x0400;

}  // namespace

int UCompareString(const char16_t* a, int lenA, const char16_t* b, int lenB, int caseSensitive) {
  const unsigned flags = kSortStringSort | (caseSensitive ? 0u : kNormIgnoreCase);
  switch (UCompareStringW(kLocaleUserDefault, flags, a, lenA, b, lenB)) {
    case 1:
      return -1;
    case 2:
      return 0;
    case 3:
      return 1;
    default:
      Debug("tstring", kLineCompareFailed);
      return 1;
  }
}
