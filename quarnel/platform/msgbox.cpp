#include "quarnel/platform/msgbox.h"

#include <unistd.h>

#include <atomic>
#include <string>

namespace {

std::atomic<MessageBoxResponder> g_responder{nullptr};

void AppendUtf8(std::string* out, const char16_t* text) {
  if (text == nullptr) return;
  for (const char16_t* p = text; *p; ++p) {
    char32_t c = *p;
    if (c >= 0xD800 && c < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
      ++p;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;  // a lone surrogate
    }
    if (c < 0x80) {
      *out += static_cast<char>(c);
    } else if (c < 0x800) {
      *out += static_cast<char>(0xC0 | (c >> 6));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      *out += static_cast<char>(0xE0 | (c >> 12));
      *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (c >> 18));
      *out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
}

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

int UMessageBoxDefaultButton(unsigned style) {
  static const int kSets[][3] = {
      {kIdOk, 0, 0},                    // OK
      {kIdOk, kIdCancel, 0},            // OK, Cancel
      {kIdAbort, kIdRetry, kIdIgnore},  // Abort, Retry, Ignore
      {kIdYes, kIdNo, kIdCancel},       // Yes, No, Cancel
      {kIdYes, kIdNo, 0},               // Yes, No
      {kIdRetry, kIdCancel, 0},         // Retry, Cancel
  };
  const unsigned set = style & 0xF;
  if (set >= sizeof kSets / sizeof kSets[0]) return kIdOk;
  const unsigned def = (style >> 8) & 0xF;
  if (def < 3 && kSets[set][def] != 0) return kSets[set][def];
  return kSets[set][0];
}

int UMessageBoxW(const char16_t* text, const char16_t* title, unsigned style) {
  if (MessageBoxResponder responder = g_responder.load(std::memory_order_acquire)) {
    return responder(text ? text : u"", title ? title : u"", style);
  }
  std::string line;
  if (title != nullptr && *title != 0) {
    AppendUtf8(&line, title);
    line += ": ";
  }
  line += IconWord(style);
  line += ": ";
  AppendUtf8(&line, text);
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

MessageBoxResponder USetMessageBoxResponder(MessageBoxResponder responder) {
  return g_responder.exchange(responder, std::memory_order_acq_rel);
}
