// The one piece of the message box each platform supplies: showing it when no
// responder is installed.
#ifndef QUARNEL_PLATFORM_INTERNAL_MSGBOXSHOW_H_
#define QUARNEL_PLATFORM_INTERNAL_MSGBOXSHOW_H_

namespace quarnel_internal {

// Shows the box (text and title never null) and returns the button chosen.
int ShowMessageBox(const char16_t* text, const char16_t* title, unsigned style);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_MSGBOXSHOW_H_
