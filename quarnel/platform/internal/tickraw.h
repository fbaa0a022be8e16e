// The system's monotonic clock in milliseconds: the one piece of the tick
// count that each platform supplies.
#ifndef QUARNEL_PLATFORM_INTERNAL_TICKRAW_H_
#define QUARNEL_PLATFORM_INTERNAL_TICKRAW_H_

#include <cstdint>

namespace quarnel_internal {

std::int64_t RawTickMilliseconds();

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_TICKRAW_H_
