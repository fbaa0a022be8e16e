#include "quarnel/platform/msgbox.h"
#include "quarnel/platform/internal/msgboxshow.h"

#include "quarnel/platform/win32/winapi.h"

namespace quarnel_internal {

// The system's box; when it cannot be shown (no desktop), the style's
// default button, as a box nobody answers would give.
int ShowMessageBox(const char16_t* text, const char16_t* title, unsigned style) {
  const int id = ::MessageBoxW(nullptr, W(text), W(title), style);
  return id != 0 ? id : UMessageBoxDefaultButton(style);
}

}  // namespace quarnel_internal
