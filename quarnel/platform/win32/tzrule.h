// A time zone given as a POSIX TZ rule ("CET-1CEST,M3.5.0,M10.5.0/3",
// "XST-3", "UTC0"), for the Windows build's time-zone test seam: a Windows
// process cannot change its own zone, so the platform applies such a rule
// itself while one is set. Internal to the platform layer.
#ifndef QUARNEL_PLATFORM_WIN32_TZRULE_H_
#define QUARNEL_PLATFORM_WIN32_TZRULE_H_

#include <cstdint>

namespace quarnel_internal {

struct TzRule {
  // When daylight saving time starts or ends: month/week/weekday (Mm.w.d),
  // a day of the year without the leap day (Jn), or one counting it (n).
  struct Change {
    enum Kind { kMonthWeekDay, kJulian1, kJulian0 } kind = kMonthWeekDay;
    int month = 0, week = 0, weekday = 0, day = 0;
    int seconds = 7200;  // local time of the change
  };
  int stdEast = 0;  // seconds east of UTC in standard time
  int dstEast = 0;  // seconds east of UTC in daylight saving time
  bool hasDst = false;
  Change start, end;
};

// Parses `tz`; false (and a rule of UTC) when it is not a POSIX TZ rule.
bool ParseTzRule(const char* tz, TzRule* rule);

// Seconds east of UTC under `rule` at `unixSeconds` (UTC).
int TzOffsetAt(const TzRule& rule, std::int64_t unixSeconds);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_WIN32_TZRULE_H_
