// Feeds arbitrary formats to the formatting engine: SPrintf with a short fixed
// argument list of every kind, ParseTemplate, and SScanf of the input read by
// a format taken from the input itself. Nothing may crash or read out of
// bounds, whatever the format.
//
// Area: quarnel/text/sprintf.cpp
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "quarnel/text/sprintf.h"
#include "quarnel/text/tstring.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  // The input as UTF-16: pairs of bytes, then as 8-bit text.
  char16_t wide[2049];
  const std::size_t units = size / 2;
  std::memcpy(wide, data, units * 2);
  wide[units] = 0;
  char narrow[4097];
  std::memcpy(narrow, data, size);
  narrow[size] = 0;

  static const TString named(u"named");
  TString out;
  out.SPrintf(wide, -7, 123456789u, "text", &named, std::uint64_t{1} << 40, 'c', nullptr);
  quarnel_internal::FormatNarrow(&out, narrow, nullptr);
  Args none{};
  out.SPrintf(wide, &none);

  const TString tmpl(wide);
  out.ParseTemplate(&tmpl, 2, 1, 22, "x");

  // Scan the input with the first half as the format.
  const TString subject(wide + units / 2);
  int i = 0;
  unsigned u = 0;
  long long big = 0;
  char16_t c = 0;
  TString s;
  wide[units / 2] = 0;
  subject.SScanf(wide, &i, &u, &big, &c, &s);
  return 0;
}
