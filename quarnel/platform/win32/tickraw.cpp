#include "quarnel/platform/internal/tickraw.h"
#include "quarnel/platform/win32/winapi.h"

namespace quarnel_internal {

std::int64_t RawTickMilliseconds() { return static_cast<std::int64_t>(::GetTickCount64()); }

}  // namespace quarnel_internal
