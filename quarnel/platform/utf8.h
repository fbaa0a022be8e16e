// UTF-8 and UTF-16 of whole texts: the library's one converter between the
// two, also behind TString's UTF-8 members and code page 65001.
//
// Reading UTF-8, each maximal ill-formed subsequence (a byte that cannot
// start a character, or the start of one that breaks off: an overlong form,
// a surrogate, a value above U+10FFFF, a truncated sequence) becomes one
// U+FFFD, as MultiByteToWideChar reads code page 65001. Writing UTF-8, a
// surrogate pair becomes one four-byte character and a lone surrogate
// becomes U+FFFD. Both count the U+FFFD they write in place of bad input in
// *replaced (may be null); a U+FFFD in the input is kept and not counted.
// Any thread.
#ifndef QUARNEL_PLATFORM_UTF8_H_
#define QUARNEL_PLATFORM_UTF8_H_

#include <string>
#include <string_view>

#include "quarnel/foundation/export.h"

QUARNEL_API std::u16string Utf8ToUtf16(std::string_view utf8, int* replaced = nullptr);
QUARNEL_API std::string Utf16ToUtf8(std::u16string_view utf16, int* replaced = nullptr);

#endif  // QUARNEL_PLATFORM_UTF8_H_
