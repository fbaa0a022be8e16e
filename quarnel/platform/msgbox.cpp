#include "quarnel/platform/msgbox.h"

#include <unistd.h>

#include <string>

#include "quarnel/platform/internal/msgboxshow.h"
#include "quarnel/platform/utf8.h"

namespace {

const char* IconWord(unsigned style) {
  switch (style & 0xF0) {
    case kMbIconStop:
      return "Stop";
    case kMbIconQuestion:
      return "Question";
    case kMbIconExclamation:
      return "Exclamation";
    case kMbIconInformation:
      return "Information";
    default:
      return "Message";
  }
}

}  // namespace

namespace quarnel_internal {

// Without a desktop: one line on standard error, and the style's default
// button, as a box nobody answers would give.
int ShowMessageBox(const char16_t* text, const char16_t* title, unsigned style) {
  std::string line;
  if (*title != 0) {
    line += Utf16ToUtf8(title);
    line += ": ";
  }
  line += IconWord(style);
  line += ": ";
  line += Utf16ToUtf8(text);
  line += '\n';
  const char* p = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    const ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n <= 0) break;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return UMessageBoxDefaultButton(style);
}

}  // namespace quarnel_internal
