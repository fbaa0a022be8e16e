// Calendar time with Win32 meaning: SYSTEMTIME and FILETIME records and the
// conversions between them, DOS packed dates, local time.
//
// A FILETIME counts 100-nanosecond ticks since 1601-01-01 00:00:00 in the
// proleptic Gregorian calendar. The conversions are exact integer arithmetic
// and refuse what Windows refuses:
//
//   USystemTimeToFileTime   year 1601..30827, month 1..12, day 1..length of
//                           the month (February 29 only in leap years), hour
//                           0..23, minute and second 0..59, millisecond
//                           0..999; the day of the week is ignored.
//   UFileTimeToSystemTime   values from 2^63 on.
//   UDosDateTimeToFileTime  month 0 or above 12, day 0 or above the month's
//                           length in a leap year (February 29 of a common
//                           year is taken and gives March 1), hour above 23,
//                           minute above 59, second above 59 (the packed
//                           two-second count above 29).
//   UFileTimeToDosDateTime  dates before 1980-01-01 and after 2107-12-31.
//
// A refused call returns 0 and leaves its output as it was. The SYSTEMTIME
// and FILETIME calls set the last error 87; UDosDateTimeToFileTime leaves the
// last error alone, as Windows does. A null pointer is refused with 87
// instead of faulting.
//
// Local time is the process's time zone (TZ) through the C library.
// ULocalFileTimeToFileTime and UFileTimeToLocalFileTime apply the offset from
// UTC in force now (daylight saving time included), not the one in force at
// the converted time: that is Windows' documented rule, and USetLocalTime
// follows it as well.
//
// Every call may be made from any thread. USetTimeZone and the clock
// override are meant for start-up and tests, not for use while other threads
// read the time.
#ifndef QUARNEL_PLATFORM_WINTIME_H_
#define QUARNEL_PLATFORM_WINTIME_H_

#include <cstdint>

#include "quarnel/foundation/export.h"

struct USYSTEMTIME {
  std::uint16_t wYear;
  std::uint16_t wMonth;      // 1 = January
  std::uint16_t wDayOfWeek;  // 0 = Sunday
  std::uint16_t wDay;
  std::uint16_t wHour;
  std::uint16_t wMinute;
  std::uint16_t wSecond;
  std::uint16_t wMilliseconds;
};
static_assert(sizeof(USYSTEMTIME) == 16, "SYSTEMTIME is 16 bytes");

struct UFILETIME {
  std::uint32_t dwLowDateTime;
  std::uint32_t dwHighDateTime;
};
static_assert(sizeof(UFILETIME) == 8, "FILETIME is 8 bytes");

// The 64-bit tick count of a FILETIME and back.
constexpr std::uint64_t UFileTimeTicks(const UFILETIME& ft) {
  return (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
constexpr UFILETIME UMakeFileTime(std::uint64_t ticks) {
  return UFILETIME{static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};
}

// Ticks per unit of a FILETIME.
inline constexpr std::uint64_t kFileTimeTicksPerSecond = 10000000;
inline constexpr std::uint64_t kFileTimeTicksPerDay = 864000000000;

// Win32 SystemTimeToFileTime: 1 on success, 0 (last error 87) for a refused
// time; *ft is written only on success.
QUARNEL_API int USystemTimeToFileTime(const USYSTEMTIME* st, UFILETIME* ft);

// Win32 FileTimeToSystemTime: 1 on success with every field, the day of the
// week included; 0 (last error 87) from 2^63 on, *st untouched.
QUARNEL_API int UFileTimeToSystemTime(const UFILETIME* ft, USYSTEMTIME* st);

// Win32 DosDateTimeToFileTime. The date packs (year - 1980) in bits 9..15,
// the month in bits 5..8 and the day in bits 0..4; the time packs the hour in
// bits 11..15, the minute in bits 5..10 and the second divided by two in bits
// 0..4. 1 on success; 0 for a refused date or time, *ft untouched and the
// last error unchanged (a null ft: 0 with 87).
QUARNEL_API int UDosDateTimeToFileTime(std::uint16_t dosDate, std::uint16_t dosTime, UFILETIME* ft);

// Win32 FileTimeToDosDateTime: 1 on success (the seconds are halved, the
// fraction dropped); 0 with last error 87 for a time before 1980 or after
// 2107, or from 2^63 on, both outputs untouched.
QUARNEL_API int UFileTimeToDosDateTime(const UFILETIME* ft, std::uint16_t* dosDate,
                                       std::uint16_t* dosTime);

// Win32 LocalFileTimeToFileTime / FileTimeToLocalFileTime: add or take off
// the current offset from UTC (see above). 1 on success; 0 with 87 for a null
// pointer or a result outside 0 .. 2^63 - 1.
QUARNEL_API int ULocalFileTimeToFileTime(const UFILETIME* local, UFILETIME* utc);
QUARNEL_API int UFileTimeToLocalFileTime(const UFILETIME* utc, UFILETIME* local);

// Minutes to add to local time to get UTC now (Win32's Bias plus the
// daylight bias when it applies): -60 in Central European winter time.
QUARNEL_API int UCurrentTimeZoneBias();

// Win32 GetSystemTimeAsFileTime: UTC now.
QUARNEL_API void UGetSystemTimeAsFileTime(UFILETIME* ft);

// Win32 GetLocalTime: the local date and time now, to the millisecond.
QUARNEL_API void UGetLocalTime(USYSTEMTIME* st);

// Win32 SetLocalTime: sets the system clock to the given local time. 1 on
// success; 0 with 87 for a refused time (the rules of
// USystemTimeToFileTime), 1314 (privilege not held) when the process may not
// set the clock. Through the test seam, UCall::kSetLocalTime fails it; while
// a clock override is set, the override is moved instead of the clock.
QUARNEL_API int USetLocalTime(const USYSTEMTIME* st);

// Test seam: while set, the clock reads `utcNow` (a FILETIME in UTC) and
// stands still there: UGetSystemTimeAsFileTime answers it, UGetLocalTime
// its local time, and the local/UTC conversions take the offset in force at
// that instant. Null returns to the system clock.
void USetClockOverride(const UFILETIME* utcNow);

// Sets the process time zone (the TZ variable, POSIX or zoneinfo form such as
// "CET-1CEST,M3.5.0,M10.5.0/3" or "Europe/Berlin") and makes the C library
// read it again. Null restores the zone the process had before the first
// call. For hosts at start-up and for tests.
QUARNEL_API void USetTimeZone(const char* tz);

#endif  // QUARNEL_PLATFORM_WINTIME_H_
