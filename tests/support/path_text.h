// Paths as the tables under tests/data write them: {c*N} stands for N copies
// of c and {#hh} for the unit hh, so that long names and control characters
// fit a line.
#ifndef QUARNEL_TESTS_SUPPORT_PATH_TEXT_H_
#define QUARNEL_TESTS_SUPPORT_PATH_TEXT_H_

#include <string>

#include "tests/support/recording_hooks.h"

inline std::u16string ExpandPath(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const std::size_t end = s.find('}', i);
    if (s[i] != '{' || end == std::string::npos) {
      out += s[i];
      continue;
    }
    const std::string in = s.substr(i + 1, end - i - 1);
    out += in[0] == '#' ? std::string(1, static_cast<char>(std::stoi(in.substr(1), nullptr, 16)))
                        : std::string(std::stoul(in.substr(2)), in[0]);
    i = end;
  }
  return Utf16(out);
}

#endif  // QUARNEL_TESTS_SUPPORT_PATH_TEXT_H_
