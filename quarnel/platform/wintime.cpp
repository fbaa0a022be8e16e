#include "quarnel/platform/wintime.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <string>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"

namespace {

constexpr unsigned kWinInvalidParameter = 87;
constexpr unsigned kWinPrivilegeNotHeld = 1314;

constexpr std::uint64_t kTicksPerMs = 10000;
constexpr std::uint64_t kMaxTicks = 0x7FFFFFFFFFFFFFFFull;  // the last valid FILETIME
// FILETIME of 1970-01-01 00:00:00 UTC, the C library's epoch.
constexpr std::int64_t kUnixEpochTicks = 116444736000000000;

constexpr int kDaysPer400Years = 146097;
constexpr int kDaysPer100Years = 36524;
constexpr int kDaysPer4Years = 1461;

// Days before each month (index month - 1), and a 13th entry: the year's length.
constexpr int kDaysBefore[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

constexpr bool IsLeap(unsigned y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

constexpr int MonthLength(unsigned y, unsigned m) {
  return kDaysBefore[IsLeap(y)][m] - kDaysBefore[IsLeap(y)][m - 1];
}

// Days from 1601-01-01 to the given date; the year starts a 400-year cycle,
// so the usual leap-day count applies to (year - 1601). Month 1..12; the day
// is added as it is.
constexpr std::int64_t DaysFrom1601(unsigned y, unsigned m, unsigned d) {
  const std::int64_t y1 = static_cast<std::int64_t>(y) - 1601;
  return y1 * 365 + y1 / 4 - y1 / 100 + y1 / 400 + kDaysBefore[IsLeap(y)][m - 1] + d - 1;
}

// The inverse of DaysFrom1601 for n >= 0.
void CivilFrom1601(std::int64_t n, USYSTEMTIME* st) {
  const std::int64_t q400 = n / kDaysPer400Years;
  std::int64_t r = n % kDaysPer400Years;
  std::int64_t q100 = r / kDaysPer100Years;
  if (q100 > 3) q100 = 3;  // the last day of a 400-year cycle
  r -= q100 * kDaysPer100Years;
  const std::int64_t q4 = r / kDaysPer4Years;
  r %= kDaysPer4Years;
  std::int64_t q1 = r / 365;
  if (q1 > 3) q1 = 3;  // the last day of a leap year
  r -= q1 * 365;
  const unsigned year = static_cast<unsigned>(1601 + 400 * q400 + 100 * q100 + 4 * q4 + q1);
  const int* before = kDaysBefore[IsLeap(year)];
  unsigned month = 1;
  while (before[month] <= r) ++month;
  st->wYear = static_cast<std::uint16_t>(year);
  st->wMonth = static_cast<std::uint16_t>(month);
  st->wDay = static_cast<std::uint16_t>(r - before[month - 1] + 1);
  st->wDayOfWeek = static_cast<std::uint16_t>((n + 1) % 7);  // 1601-01-01 was a Monday
}

void SystemTimeFromTicks(std::uint64_t ticks, USYSTEMTIME* st) {
  CivilFrom1601(static_cast<std::int64_t>(ticks / kFileTimeTicksPerDay), st);
  const std::uint64_t ms = (ticks % kFileTimeTicksPerDay) / kTicksPerMs;
  st->wHour = static_cast<std::uint16_t>(ms / 3600000);
  st->wMinute = static_cast<std::uint16_t>(ms / 60000 % 60);
  st->wSecond = static_cast<std::uint16_t>(ms / 1000 % 60);
  st->wMilliseconds = static_cast<std::uint16_t>(ms % 1000);
}

// The ticks of a SYSTEMTIME that passes Windows' checks, or false.
bool TicksFromSystemTime(const USYSTEMTIME& st, std::uint64_t* ticks) {
  if (st.wYear < 1601 || st.wYear > 30827 || st.wMonth < 1 || st.wMonth > 12 || st.wDay < 1 ||
      st.wDay > MonthLength(st.wYear, st.wMonth) || st.wHour > 23 || st.wMinute > 59 ||
      st.wSecond > 59 || st.wMilliseconds > 999) {
    return false;
  }
  const std::uint64_t days = static_cast<std::uint64_t>(DaysFrom1601(st.wYear, st.wMonth, st.wDay));
  const std::uint64_t ms =
      st.wHour * 3600000ull + st.wMinute * 60000ull + st.wSecond * 1000ull + st.wMilliseconds;
  *ticks = days * kFileTimeTicksPerDay + ms * kTicksPerMs;
  return true;
}

// ---- the clock ------------------------------------------------------------------------

constexpr std::uint64_t kNoOverride = ~0ull;
std::atomic<std::uint64_t> g_override{kNoOverride};

std::uint64_t NowTicks() {
  const std::uint64_t fixed = g_override.load(std::memory_order_relaxed);
  if (fixed != kNoOverride) return fixed;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<std::uint64_t>(kUnixEpochTicks +
                                    static_cast<std::int64_t>(ts.tv_sec) *
                                        static_cast<std::int64_t>(kFileTimeTicksPerSecond) +
                                    ts.tv_nsec / 100);
}

// Seconds and the tick remainder since the C library's epoch (floor).
time_t UnixSeconds(std::uint64_t ticks, std::int64_t* rest) {
  const std::int64_t t = static_cast<std::int64_t>(ticks) - kUnixEpochTicks;
  const std::int64_t per = static_cast<std::int64_t>(kFileTimeTicksPerSecond);
  std::int64_t s = t / per;
  std::int64_t r = t % per;
  if (r < 0) r += per, --s;
  *rest = r;
  return static_cast<time_t>(s);
}

// Seconds east of UTC at the instant `ticks` under the process time zone.
std::int64_t OffsetAt(std::uint64_t ticks) {
  std::int64_t rest = 0;
  const time_t t = UnixSeconds(ticks, &rest);
  tm local{};
  if (localtime_r(&t, &local) == nullptr) return 0;
  return local.tm_gmtoff;
}

std::int64_t CurrentOffsetSeconds() { return OffsetAt(NowTicks()); }

// from + bySeconds, when the result is a valid FILETIME (0 .. 2^63 - 1).
bool ShiftTicks(std::uint64_t from, std::int64_t bySeconds, std::uint64_t* to) {
  if (from > kMaxTicks) return false;
  const std::int64_t delta = bySeconds * static_cast<std::int64_t>(kFileTimeTicksPerSecond);
  const std::uint64_t magnitude =
      delta < 0 ? 0 - static_cast<std::uint64_t>(delta) : static_cast<std::uint64_t>(delta);
  if (delta < 0) {
    if (from < magnitude) return false;
    *to = from - magnitude;
  } else {
    if (kMaxTicks - from < magnitude) return false;
    *to = from + magnitude;
  }
  return true;
}

std::mutex g_tzLock;
bool g_tzSaved = false;
bool g_tzHadValue = false;
std::string g_tzOriginal;

}  // namespace

int USystemTimeToFileTime(const USYSTEMTIME* st, UFILETIME* ft) {
  std::uint64_t ticks = 0;
  if (st == nullptr || ft == nullptr || !TicksFromSystemTime(*st, &ticks)) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  *ft = UMakeFileTime(ticks);
  return 1;
}

int UFileTimeToSystemTime(const UFILETIME* ft, USYSTEMTIME* st) {
  if (ft == nullptr || st == nullptr || UFileTimeTicks(*ft) > kMaxTicks) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  SystemTimeFromTicks(UFileTimeTicks(*ft), st);
  return 1;
}

int UDosDateTimeToFileTime(std::uint16_t dosDate, std::uint16_t dosTime, UFILETIME* ft) {
  if (ft == nullptr) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  const unsigned year = 1980u + (dosDate >> 9);
  const unsigned month = (dosDate >> 5) & 15u;
  const unsigned day = dosDate & 31u;
  const unsigned hour = dosTime >> 11;
  const unsigned minute = (dosTime >> 5) & 63u;
  const unsigned second = (dosTime & 31u) * 2;
  // The day is checked against the month of a leap year: February 29 of a
  // common year passes and counts on into March 1.
  if (month < 1 || month > 12 || day < 1 ||
      static_cast<int>(day) > kDaysBefore[1][month] - kDaysBefore[1][month - 1] || hour > 23 ||
      minute > 59 || second > 59) {
    return 0;
  }
  const std::uint64_t days = static_cast<std::uint64_t>(DaysFrom1601(year, month, day));
  *ft = UMakeFileTime(days * kFileTimeTicksPerDay +
                      (hour * 3600ull + minute * 60ull + second) * kFileTimeTicksPerSecond);
  return 1;
}

int UFileTimeToDosDateTime(const UFILETIME* ft, std::uint16_t* dosDate, std::uint16_t* dosTime) {
  USYSTEMTIME st{};
  if (ft == nullptr || dosDate == nullptr || dosTime == nullptr ||
      UFileTimeTicks(*ft) > kMaxTicks) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  SystemTimeFromTicks(UFileTimeTicks(*ft), &st);
  if (st.wYear < 1980 || st.wYear > 2107) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  *dosDate = static_cast<std::uint16_t>(((st.wYear - 1980) << 9) | (st.wMonth << 5) | st.wDay);
  *dosTime = static_cast<std::uint16_t>((st.wHour << 11) | (st.wMinute << 5) | (st.wSecond / 2));
  return 1;
}

int ULocalFileTimeToFileTime(const UFILETIME* local, UFILETIME* utc) {
  std::uint64_t r = 0;
  if (local == nullptr || utc == nullptr ||
      !ShiftTicks(UFileTimeTicks(*local), -CurrentOffsetSeconds(), &r)) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  *utc = UMakeFileTime(r);
  return 1;
}

int UFileTimeToLocalFileTime(const UFILETIME* utc, UFILETIME* local) {
  std::uint64_t r = 0;
  if (utc == nullptr || local == nullptr ||
      !ShiftTicks(UFileTimeTicks(*utc), CurrentOffsetSeconds(), &r)) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  *local = UMakeFileTime(r);
  return 1;
}

int UCurrentTimeZoneBias() { return static_cast<int>(-CurrentOffsetSeconds() / 60); }

void UGetSystemTimeAsFileTime(UFILETIME* ft) {
  if (ft != nullptr) *ft = UMakeFileTime(NowTicks());
}

void UGetLocalTime(USYSTEMTIME* st) {
  if (st == nullptr) return;
  const std::uint64_t now = NowTicks();
  std::int64_t rest = 0;
  const time_t t = UnixSeconds(now, &rest);
  tm local{};
  if (localtime_r(&t, &local) == nullptr || local.tm_year + 1900 < 1601 ||
      local.tm_year + 1900 > 30827) {
    SystemTimeFromTicks(now > kMaxTicks ? kMaxTicks : now, st);  // no local form: UTC
    return;
  }
  st->wYear = static_cast<std::uint16_t>(local.tm_year + 1900);
  st->wMonth = static_cast<std::uint16_t>(local.tm_mon + 1);
  st->wDayOfWeek = static_cast<std::uint16_t>(local.tm_wday);
  st->wDay = static_cast<std::uint16_t>(local.tm_mday);
  st->wHour = static_cast<std::uint16_t>(local.tm_hour);
  st->wMinute = static_cast<std::uint16_t>(local.tm_min);
  st->wSecond = static_cast<std::uint16_t>(local.tm_sec > 59 ? 59 : local.tm_sec);
  st->wMilliseconds = static_cast<std::uint16_t>(rest / static_cast<std::int64_t>(kTicksPerMs));
}

int USetLocalTime(const USYSTEMTIME* st) {
  std::uint64_t local = 0;
  std::uint64_t utc = 0;
  if (st == nullptr || !TicksFromSystemTime(*st, &local) ||
      !ShiftTicks(local, -CurrentOffsetSeconds(), &utc)) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  unsigned injected = 0;
  if (UShouldFail(UCall::kSetLocalTime, &injected)) {
    USetLastError(injected);
    return 0;
  }
  if (g_override.load(std::memory_order_relaxed) != kNoOverride) {
    g_override.store(utc, std::memory_order_relaxed);
    return 1;
  }
  std::int64_t rest = 0;
  timespec ts{};
  ts.tv_sec = UnixSeconds(utc, &rest);
  ts.tv_nsec = static_cast<long>(rest * 100);
  if (clock_settime(CLOCK_REALTIME, &ts) != 0) {
    const int err = errno;
    USetLastError(err == EPERM ? kWinPrivilegeNotHeld
                               : (err == EINVAL ? kWinInvalidParameter : UWinErrorFromErrno(err)));
    return 0;
  }
  return 1;
}

void USetClockOverride(const UFILETIME* utcNow) {
  g_override.store(utcNow == nullptr ? kNoOverride : UFileTimeTicks(*utcNow),
                   std::memory_order_relaxed);
}

void USetTimeZone(const char* tz) {
  std::lock_guard<std::mutex> hold(g_tzLock);
  if (!g_tzSaved) {
    const char* was = getenv("TZ");
    g_tzHadValue = was != nullptr;
    if (was != nullptr) g_tzOriginal = was;
    g_tzSaved = true;
  }
  if (tz != nullptr) {
    setenv("TZ", tz, 1);
  } else if (g_tzHadValue) {
    setenv("TZ", g_tzOriginal.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}
