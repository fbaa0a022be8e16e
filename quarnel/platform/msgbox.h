// The message box (MessageBoxW), headless.
//
// Linux gives the library no dialog of its own, so the box behaves as a
// headless one would: it writes the title, the icon word and the text as one
// line to standard error and answers the default button that the style word
// chooses. The library's tests install a responder that sees the box and
// chooses the button instead; the responder and UMessageBoxDefaultButton are
// not exported (tests link the static archive).
#ifndef QUARNEL_PLATFORM_MSGBOX_H_
#define QUARNEL_PLATFORM_MSGBOX_H_

#include "quarnel/foundation/export.h"

// Style word: buttons in bits 0-3, icon in bits 4-7, default button in bits
// 8-11, as in Win32.
enum : unsigned {
  kMbOk = 0x0,
  kMbOkCancel = 0x1,
  kMbAbortRetryIgnore = 0x2,
  kMbYesNoCancel = 0x3,
  kMbYesNo = 0x4,
  kMbRetryCancel = 0x5,
  kMbIconStop = 0x10,
  kMbIconQuestion = 0x20,
  kMbIconExclamation = 0x30,
  kMbIconInformation = 0x40,
  kMbDefButton2 = 0x100,
  kMbDefButton3 = 0x200,
  kMbDefButton4 = 0x300,
  kMbSetForeground = 0x10000,
  kMbTopmost = 0x40000,
};

// Button ids, as MessageBoxW returns them.
enum : int {
  kIdOk = 1,
  kIdCancel = 2,
  kIdAbort = 3,
  kIdRetry = 4,
  kIdIgnore = 5,
  kIdYes = 6,
  kIdNo = 7,
};

// Shows the box and returns the id of the button pressed: the responder's
// answer when one is installed, else the style's default button. `text` and
// `title` may be null (shown empty). Thread-safe; one line per box.
QUARNEL_API int UMessageBoxW(const char16_t* text, const char16_t* title, unsigned style);

// The id of the button a headless box answers: the default button of the
// style's button set (a default beyond the set's last button falls back to
// the first, as Win32 does).
int UMessageBoxDefaultButton(unsigned style);

// Replaces the headless answer: the responder is called with the box's text,
// title and style and returns the button id; nothing is written to standard
// error. Null restores the headless box. Returns the previous responder.
using MessageBoxResponder = int (*)(const char16_t* text, const char16_t* title, unsigned style);
MessageBoxResponder USetMessageBoxResponder(MessageBoxResponder responder);

#endif  // QUARNEL_PLATFORM_MSGBOX_H_
