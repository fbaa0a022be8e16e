// One character at a time between UTF-8, UTF-16 and code points: the rules
// every UTF-8 conversion of the library applies (the code-page functions,
// Utf8ToUtf16 and Utf16ToUtf8, and through them TString, module names and
// message boxes). Inline, for the code-page functions' tight loops.
#ifndef QUARNEL_PLATFORM_INTERNAL_UTF8STEP_H_
#define QUARNEL_PLATFORM_INTERNAL_UTF8STEP_H_

#include <cstddef>

namespace quarnel_internal {

// What the step functions give for input that is no character.
constexpr char32_t kNoCharacter = 0xFFFFFFFF;
constexpr char16_t kReplacementCharacter = 0xFFFD;

// Reads the UTF-8 character at s[0..len) (len >= 1): returns the bytes it
// takes and sets *cp to its code point. A maximal ill-formed subsequence (a
// byte that cannot start a character, or the start of one that breaks off:
// overlong forms, surrogates, values above U+10FFFF, a truncated sequence)
// takes its bytes and sets *cp to kNoCharacter.
inline int Utf8Next(const unsigned char* s, std::size_t len, char32_t* cp) {
  const unsigned b = s[0];
  if (b < 0x80) {
    *cp = b;
    return 1;
  }
  int need;                       // continuation bytes
  unsigned lo = 0x80, hi = 0xBF;  // range of the second byte
  char32_t c;
  if (b >= 0xC2 && b <= 0xDF) {
    need = 1;
    c = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    need = 2;
    c = b & 0x0F;
    if (b == 0xE0) lo = 0xA0;  // no overlong forms
    if (b == 0xED) hi = 0x9F;  // no surrogates
  } else if (b >= 0xF0 && b <= 0xF4) {
    need = 3;
    c = b & 0x07;
    if (b == 0xF0) lo = 0x90;  // no overlong forms
    if (b == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    *cp = kNoCharacter;
    return 1;
  }
  for (int k = 1; k <= need; ++k) {
    if (static_cast<std::size_t>(k) >= len) {
      *cp = kNoCharacter;
      return k;
    }
    const unsigned t = s[k];
    if (t < (k == 1 ? lo : 0x80u) || t > (k == 1 ? hi : 0xBFu)) {
      *cp = kNoCharacter;
      return k;
    }
    c = c << 6 | (t & 0x3F);
  }
  *cp = c;
  return need + 1;
}

// Reads the UTF-16 character at s[0..len) (len >= 1): a surrogate pair takes
// two units, anything else one; a lone surrogate sets *cp to kNoCharacter.
inline int Utf16Next(const char16_t* s, std::size_t len, char32_t* cp) {
  const char32_t u = s[0];
  if (u < 0xD800 || u > 0xDFFF) {
    *cp = u;
    return 1;
  }
  if (u <= 0xDBFF && len > 1 && s[1] >= 0xDC00 && s[1] <= 0xDFFF) {
    *cp = 0x10000 + ((u - 0xD800) << 10) + (s[1] - 0xDC00);
    return 2;
  }
  *cp = kNoCharacter;
  return 1;
}

// Writes a code point (a scalar value up to U+10FFFF) as 1 to 4 bytes;
// returns the count.
inline int Utf8Put(char32_t cp, char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | cp >> 6);
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | cp >> 12);
    out[1] = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | cp >> 18);
  out[1] = static_cast<char>(0x80 | (cp >> 12 & 0x3F));
  out[2] = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

// Writes a code point as 1 or 2 UTF-16 units; returns the count.
inline int Utf16Put(char32_t cp, char16_t* out) {
  if (cp < 0x10000) {
    out[0] = static_cast<char16_t>(cp);
    return 1;
  }
  cp -= 0x10000;
  out[0] = static_cast<char16_t>(0xD800 + (cp >> 10));
  out[1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  return 2;
}

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_UTF8STEP_H_
