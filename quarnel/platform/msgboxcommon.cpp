// The message box's default buttons and its responder, the same on every
// platform; showing the box is each platform's own (ShowMessageBox).
#include <atomic>

#include "quarnel/platform/internal/msgboxshow.h"
#include "quarnel/platform/msgbox.h"

namespace {

std::atomic<MessageBoxResponder> g_responder{nullptr};

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
  if (text == nullptr) text = u"";
  if (title == nullptr) title = u"";
  if (MessageBoxResponder responder = g_responder.load(std::memory_order_acquire)) {
    return responder(text, title, style);
  }
  return quarnel_internal::ShowMessageBox(text, title, style);
}

MessageBoxResponder USetMessageBoxResponder(MessageBoxResponder responder) {
  return g_responder.exchange(responder, std::memory_order_acq_rel);
}
