#include "quarnel/platform/msgbox.h"

#include <unistd.h>

#include <atomic>
#include <string>

#include "quarnel/platform/utf8.h"

namespace {

std::atomic<MessageBoxResponder> g_responder{nullptr};

void AppendUtf8(std::string* out, const char16_t* text) {
  if (text != nullptr) *out += Utf16ToUtf8(text);
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
