#include "quarnel/platform/internal/tickraw.h"

#include <time.h>

namespace quarnel_internal {

std::int64_t RawTickMilliseconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace quarnel_internal
