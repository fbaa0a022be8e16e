#include "quarnel/platform/utf8.h"

#include "quarnel/platform/internal/utf8step.h"

using quarnel_internal::kNoCharacter;
using quarnel_internal::kReplacementCharacter;

std::u16string Utf8ToUtf16(std::string_view utf8, int* replaced) {
  std::u16string out;
  out.reserve(utf8.size());
  const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
  const std::size_t len = utf8.size();
  int bad = 0;
  for (std::size_t i = 0; i < len;) {
    char32_t cp;
    i += static_cast<std::size_t>(quarnel_internal::Utf8Next(s + i, len - i, &cp));
    if (cp == kNoCharacter) {
      ++bad;
      out += kReplacementCharacter;
      continue;
    }
    char16_t units[2];
    out.append(units, static_cast<std::size_t>(quarnel_internal::Utf16Put(cp, units)));
  }
  if (replaced != nullptr) *replaced = bad;
  return out;
}

std::string Utf16ToUtf8(std::u16string_view utf16, int* replaced) {
  std::string out;
  out.reserve(utf16.size());
  const std::size_t len = utf16.size();
  int bad = 0;
  for (std::size_t i = 0; i < len;) {
    char32_t cp;
    i += static_cast<std::size_t>(quarnel_internal::Utf16Next(utf16.data() + i, len - i, &cp));
    if (cp == kNoCharacter) {
      ++bad;
      cp = kReplacementCharacter;
    }
    char bytes[4];
    out.append(bytes, static_cast<std::size_t>(quarnel_internal::Utf8Put(cp, bytes)));
  }
  if (replaced != nullptr) *replaced = bad;
  return out;
}
