// Token names: the text that stands for a small numeric token in a locale
// (separators, AM/PM, day and month names, and the library's own words from
// string list 16005).
#ifndef QUARNEL_TEXT_TOKEN_H_
#define QUARNEL_TEXT_TOKEN_H_

#include "quarnel/foundation/export.h"
#include "quarnel/text/tstring.h"

// `locale` 0 = the default locale. An undefined token (3, 63 to 69, 73 and
// above) asserts (token, 352) and gives an empty string; a missing list entry
// or locale item gives an empty string.
QUARNEL_API TString TokenToString(unsigned short token, unsigned locale = 0);

#endif  // QUARNEL_TEXT_TOKEN_H_
