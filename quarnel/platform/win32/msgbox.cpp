#include "quarnel/platform/msgbox.h"

#include <atomic>

#include "quarnel/platform/win32/winapi.h"

namespace {
std::atomic<MessageBoxResponder> g_responder{nullptr};
}

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

// The system's box; when it cannot be shown (no desktop), the style's
// default button, as a box nobody answers would give.
int UMessageBoxW(const char16_t* text, const char16_t* title, unsigned style) {
  if (MessageBoxResponder responder = g_responder.load(std::memory_order_acquire)) {
    return responder(text ? text : u"", title ? title : u"", style);
  }
  const int id = ::MessageBoxW(nullptr, quarnel_internal::W(text ? text : u""),
                               quarnel_internal::W(title ? title : u""), style);
  return id != 0 ? id : UMessageBoxDefaultButton(style);
}

MessageBoxResponder USetMessageBoxResponder(MessageBoxResponder responder) {
  return g_responder.exchange(responder, std::memory_order_acq_rel);
}
