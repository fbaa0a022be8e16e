#include "quarnel/platform/wintime.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "tests/support/helpers.h"

namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr std::uint64_t kFill64 = 0xAAAAAAAAAAAAAAAAull;
constexpr std::uint16_t kFill16 = 0xAAAA;
constexpr std::uint64_t kTicksPerMs = 10000;

// 1601-01-01 as a count of days of the standard library's calendar.
const sys_days kEpoch1601 = sys_days(std::chrono::year(1601) / 1 / 1);

std::vector<std::vector<std::string>> RecordedRows(const std::string& kind) {
  std::vector<std::vector<std::string>> rows;
  for (auto& cells : ReadTsv("time.tsv")) {
    if (cells[0] == kind) rows.push_back(std::move(cells));
  }
  return rows;
}

std::uint64_t Hex64(const std::string& s) { return std::stoull(s, nullptr, 16); }
unsigned Num(const std::string& s) { return static_cast<unsigned>(std::stoul(s)); }

// The last error a recorded row names ("-": none recorded).
void ExpectLastError(const std::string& recorded) {
  if (recorded != "-") {
    EXPECT_EQ(UGetLastError(), Num(recorded));
  }
}

USYSTEMTIME Filled() {
  USYSTEMTIME st;
  st.wYear = st.wMonth = st.wDayOfWeek = st.wDay = kFill16;
  st.wHour = st.wMinute = st.wSecond = st.wMilliseconds = kFill16;
  return st;
}

USYSTEMTIME Make(unsigned y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0,
                 unsigned s = 0, unsigned ms = 0, unsigned dow = 0) {
  return USYSTEMTIME{static_cast<std::uint16_t>(y),   static_cast<std::uint16_t>(mo),
                     static_cast<std::uint16_t>(dow), static_cast<std::uint16_t>(d),
                     static_cast<std::uint16_t>(h),   static_cast<std::uint16_t>(mi),
                     static_cast<std::uint16_t>(s),   static_cast<std::uint16_t>(ms)};
}

// The fields in the order of the recorded columns: year month weekday day
// hour minute second ms.
using Fields8 = std::array<unsigned, 8>;
Fields8 Fields(const USYSTEMTIME& st) {
  return {st.wYear, st.wMonth,  st.wDayOfWeek, st.wDay,
          st.wHour, st.wMinute, st.wSecond,    st.wMilliseconds};
}

// The eight SYSTEMTIME columns starting at cells[i].
Fields8 Columns(const std::vector<std::string>& c, std::size_t i) {
  Fields8 out;
  for (std::size_t k = 0; k < 8; ++k) out[k] = Num(c[i + k]);
  return out;
}

// The standard library's answer for a tick count: date, weekday, time.
USYSTEMTIME ChronoSystemTime(std::uint64_t ticks) {
  const sys_days day = kEpoch1601 + days(static_cast<long>(ticks / kFileTimeTicksPerDay));
  const year_month_day ymd(day);
  const std::uint64_t ms = ticks % kFileTimeTicksPerDay / kTicksPerMs;
  return Make(static_cast<unsigned>(static_cast<int>(ymd.year())),
              static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
              static_cast<unsigned>(ms / 3600000), static_cast<unsigned>(ms / 60000 % 60),
              static_cast<unsigned>(ms / 1000 % 60), static_cast<unsigned>(ms % 1000),
              std::chrono::weekday(day).c_encoding());
}

std::uint64_t ChronoTicks(int y, unsigned m, unsigned d, std::uint64_t msOfDay) {
  const sys_days day = sys_days(std::chrono::year(y) / m / d);
  return static_cast<std::uint64_t>((day - kEpoch1601).count()) * kFileTimeTicksPerDay +
         msOfDay * kTicksPerMs;
}

using WinTimeTest = RecordingTest;

// ---- the recorded answers ---------------------------------------------------------------

TEST_F(WinTimeTest, FileTimeToSystemTimeAgreesWithRecordedRows) {
  const auto rows = RecordedRows("FT2ST");
  for (const auto& c : rows) {
    SCOPED_TRACE(c[1] + " " + c[2]);
    const UFILETIME ft = UMakeFileTime(Hex64(c[2]));
    USYSTEMTIME st = Filled();
    USetLastError(0);
    EXPECT_EQ(UFileTimeToSystemTime(&ft, &st), static_cast<int>(Num(c[3])));
    ExpectLastError(c[4]);
    EXPECT_EQ(Fields(st), Columns(c, 5));
  }
}

TEST_F(WinTimeTest, SystemTimeToFileTimeAgreesWithRecordedRows) {
  const auto rows = RecordedRows("ST2FT");
  int windowsOnly = 0;
  for (const auto& c : rows) {
    SCOPED_TRACE(c[1] + " " + c[2] + "-" + c[3] + "-" + c[5]);
    const USYSTEMTIME st = Make(Num(c[2]), Num(c[3]), Num(c[5]), Num(c[6]), Num(c[7]), Num(c[8]),
                                Num(c[9]), Num(c[4]));
    UFILETIME ft = UMakeFileTime(kFill64);
    USetLastError(0);
    const int ret = USystemTimeToFileTime(&st, &ft);
    if (st.wYear > 30827) {
      // Recorded under Wine, which takes years up to 30828; Windows refuses them.
      ++windowsOnly;
      if (WineDiffers("SystemTimeToFileTime takes years above 30827")) continue;
      EXPECT_EQ(ret, 0);
      EXPECT_EQ(UGetLastError(), 87u);
      EXPECT_EQ(UFileTimeTicks(ft), kFill64);
      continue;
    }
    EXPECT_EQ(ret, static_cast<int>(Num(c[10])));
    ExpectLastError(c[11]);
    EXPECT_EQ(UFileTimeTicks(ft), Hex64(c[12]));
  }
  EXPECT_EQ(windowsOnly, 3);
}

TEST_F(WinTimeTest, DosDateTimeToFileTimeAgreesWithRecordedRows) {
  const auto rows = RecordedRows("DOS2FT");
  for (const auto& c : rows) {
    SCOPED_TRACE(c[1] + " " + c[2] + " " + c[3]);
    UFILETIME ft = UMakeFileTime(kFill64);
    USetLastError(0);
    EXPECT_EQ(UDosDateTimeToFileTime(static_cast<std::uint16_t>(Hex64(c[2])),
                                     static_cast<std::uint16_t>(Hex64(c[3])), &ft),
              static_cast<int>(Num(c[6])));
    ExpectLastError(c[7]);
    EXPECT_EQ(UFileTimeTicks(ft), Hex64(c[8]));
    if (c[9] != "-") {
      USYSTEMTIME st = Filled();
      ASSERT_EQ(UFileTimeToSystemTime(&ft, &st), 1);
      EXPECT_EQ(Fields(st), Columns(c, 9));
    }
  }
}

TEST_F(WinTimeTest, FileTimeToDosDateTimeAgreesWithRecordedRows) {
  const auto rows = RecordedRows("FT2DOS");
  // 2108-01-01 00:00:00: Windows refuses from here on, where Wine wrapped
  // the year into the seven bits.
  const std::uint64_t first2108 = ChronoTicks(2108, 1, 1, 0);
  EXPECT_EQ(first2108, 0x023868B86803C000ull);
  int windowsOnly = 0;
  for (const auto& c : rows) {
    SCOPED_TRACE(c[1] + " " + c[2]);
    const UFILETIME ft = UMakeFileTime(Hex64(c[2]));
    std::uint16_t date = kFill16;
    std::uint16_t time = kFill16;
    USetLastError(0);
    const int ret = UFileTimeToDosDateTime(&ft, &date, &time);
    if (UFileTimeTicks(ft) >= first2108) {
      ++windowsOnly;
      if (WineDiffers("FileTimeToDosDateTime wraps the years after 2107")) continue;
      EXPECT_EQ(ret, 0);
      EXPECT_EQ(UGetLastError(), 87u);
      EXPECT_EQ(date, kFill16);
      EXPECT_EQ(time, kFill16);
      continue;
    }
    EXPECT_EQ(ret, static_cast<int>(Num(c[3])));
    ExpectLastError(c[4]);
    EXPECT_EQ(date, Hex64(c[5]));
    EXPECT_EQ(time, Hex64(c[6]));
  }
  EXPECT_GT(windowsOnly, 5);
}

// ---- refusals --------------------------------------------------------------------------

// The limits the recorded rows (taken under Wine) do not show as Windows
// answers them: a year before 1601 and February 29 of a common year.
TEST_F(WinTimeTest, SystemTimeToFileTimeRefusesDatesWindowsRefuses) {
  const USYSTEMTIME rows[] = {Make(1600, 12, 31, 23, 59, 59, 999), Make(2023, 2, 29)};
  for (const USYSTEMTIME& st : rows) {
    SCOPED_TRACE(::testing::Message() << st.wYear << "-" << st.wMonth << "-" << st.wDay);
    if (st.wYear != 1600 &&
        WineDiffers("SystemTimeToFileTime takes February 29 of a common year")) {
      continue;
    }
    UFILETIME ft = UMakeFileTime(kFill64);
    USetLastError(0);
    EXPECT_EQ(USystemTimeToFileTime(&st, &ft), 0);
    EXPECT_EQ(UGetLastError(), 87u);
    EXPECT_EQ(UFileTimeTicks(ft), kFill64);
  }
}

TEST_F(WinTimeTest, NullPointersAreRefusedWithInvalidParameter) {
  USYSTEMTIME st = Make(2024, 1, 1);
  UFILETIME ft = UMakeFileTime(0);
  std::uint16_t d = 0, t = 0;
  USetLastError(0);
  EXPECT_EQ(USystemTimeToFileTime(nullptr, &ft), 0);
  EXPECT_EQ(USystemTimeToFileTime(&st, nullptr), 0);
  EXPECT_EQ(UFileTimeToSystemTime(nullptr, &st), 0);
  EXPECT_EQ(UFileTimeToSystemTime(&ft, nullptr), 0);
  EXPECT_EQ(UDosDateTimeToFileTime(0x21, 0, nullptr), 0);
  EXPECT_EQ(UFileTimeToDosDateTime(nullptr, &d, &t), 0);
  EXPECT_EQ(UFileTimeToDosDateTime(&ft, nullptr, &t), 0);
  EXPECT_EQ(ULocalFileTimeToFileTime(nullptr, &ft), 0);
  EXPECT_EQ(UFileTimeToLocalFileTime(&ft, nullptr), 0);
  EXPECT_EQ(USetLocalTime(nullptr), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  UGetLocalTime(nullptr);
  UGetSystemTimeAsFileTime(nullptr);
}

// ---- dense round trips against the standard library ----------------------------------------

TEST_F(WinTimeTest, FileTimesRoundTripAndMatchTheStandardCalendar) {
  std::mt19937_64 rng(1601);
  std::vector<std::uint64_t> samples;
  // Every day boundary (and the tick before it) of the first and last
  // 400-year cycles, and random ticks over the whole valid range.
  for (std::uint64_t day = 0; day < 146097; day += 1) {
    samples.push_back(day * kFileTimeTicksPerDay);
    if (day > 0) samples.push_back(day * kFileTimeTicksPerDay - 1);
  }
  const std::uint64_t lastDay = 0x7FFFFFFFFFFFFFFFull / kFileTimeTicksPerDay;
  for (std::uint64_t day = lastDay - 146097; day <= lastDay; day += 7) {
    samples.push_back(day * kFileTimeTicksPerDay + 12345678);
  }
  for (int i = 0; i < 200000; ++i) samples.push_back(rng() >> 1);
  samples.push_back(0x7FFFFFFFFFFFFFFFull);
  for (const std::uint64_t ticks : samples) {
    const UFILETIME ft = UMakeFileTime(ticks);
    USYSTEMTIME st = Filled();
    ASSERT_EQ(UFileTimeToSystemTime(&ft, &st), 1) << ticks;
    ASSERT_EQ(Fields(st), Fields(ChronoSystemTime(ticks))) << std::hex << ticks;
    if (st.wYear > 30827 && WineDiffers("SystemTimeToFileTime takes years above 30827")) continue;
    UFILETIME back = UMakeFileTime(kFill64);
    ASSERT_EQ(USystemTimeToFileTime(&st, &back), st.wYear <= 30827 ? 1 : 0) << ticks;
    if (st.wYear <= 30827) {
      ASSERT_EQ(UFileTimeTicks(back), ticks - ticks % kTicksPerMs) << ticks;
    }
  }
  for (const std::uint64_t ticks : {0x8000000000000000ull, ~0ull}) {
    const UFILETIME ft = UMakeFileTime(ticks);
    USYSTEMTIME st = Filled();
    EXPECT_EQ(UFileTimeToSystemTime(&ft, &st), 0);
    EXPECT_EQ(st.wYear, kFill16);
  }
}

// Every packed DOS date, at times of day on and past each field's limit:
// accepted exactly when the fields are valid, converted to the standard
// calendar's tick count, and packed back to the same values.
TEST_F(WinTimeTest, EveryDosDateAndTimeConvertsBothWays) {
  const std::uint16_t times[] = {0x0000, 0x0001, 0x5290, 0xBF7D, 0xC000, 0x601E, 0x601F, 0x6780};
  int accepted = 0;
  for (unsigned date = 0; date <= 0xFFFF; ++date) {
    const unsigned y = 1980 + (date >> 9), m = (date >> 5) & 15, d = date & 31;
    for (const std::uint16_t time : times) {
      const unsigned h = time >> 11, mi = (time >> 5) & 63, s = (time & 31) * 2;
      const bool leapDayOfCommonYear =
          m == 2 && d == 29 && !std::chrono::year(static_cast<int>(y)).is_leap();
      const bool valid =
          m >= 1 && m <= 12 && d >= 1 &&
          (leapDayOfCommonYear ||
           std::chrono::year_month_day(std::chrono::year(static_cast<int>(y)) / m / d).ok()) &&
          h <= 23 && mi <= 59 && s <= 59;
      UFILETIME ft = UMakeFileTime(kFill64);
      ASSERT_EQ(UDosDateTimeToFileTime(static_cast<std::uint16_t>(date), time, &ft), valid ? 1 : 0)
          << std::hex << date << " " << time;
      if (!valid) {
        ASSERT_EQ(UFileTimeTicks(ft), kFill64);
        continue;
      }
      ++accepted;
      const std::uint64_t ms = (h * 3600ull + mi * 60 + s) * 1000;
      const std::uint64_t want = leapDayOfCommonYear ? ChronoTicks(static_cast<int>(y), 3, 1, ms)
                                                     : ChronoTicks(static_cast<int>(y), m, d, ms);
      ASSERT_EQ(UFileTimeTicks(ft), want) << std::hex << date << " " << time;
      std::uint16_t date2 = 0, time2 = 0;
      ASSERT_EQ(UFileTimeToDosDateTime(&ft, &date2, &time2), 1);
      if (!leapDayOfCommonYear) {
        ASSERT_EQ(date2, date);
        ASSERT_EQ(time2, time);
      } else {
        ASSERT_EQ(date2, ((y - 1980) << 9) | (3 << 5) | 1);
      }
    }
  }
  // 128 years, each with the 366 dates of a leap year (February 29 always
  // passes), at the four valid times of the list.
  EXPECT_EQ(accepted, 128 * 366 * 4);
}

// ---- local time and the clock ------------------------------------------------------------------

TEST_F(WinTimeTest, LocalConversionsUseTheOffsetInForceNow) {
  const std::uint64_t winter = ChronoTicks(2024, 1, 15, 12 * 3600000ull);
  const std::uint64_t summer = ChronoTicks(2024, 7, 15, 12 * 3600000ull);
  const std::uint64_t hour = 3600 * kFileTimeTicksPerSecond;

  USetTimeZone("XST-3");  // three hours east of Greenwich, no daylight saving
  EXPECT_EQ(UCurrentTimeZoneBias(), -180);
  UFILETIME in = UMakeFileTime(winter), out = UMakeFileTime(0);
  ASSERT_EQ(ULocalFileTimeToFileTime(&in, &out), 1);
  EXPECT_EQ(UFileTimeTicks(out), winter - 3 * hour);
  ASSERT_EQ(UFileTimeToLocalFileTime(&in, &out), 1);
  EXPECT_EQ(UFileTimeTicks(out), winter + 3 * hour);

  // A zone with daylight saving: the offset of the present moment applies to
  // every converted time, summer or winter, as Windows does it.
  USetTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  const UFILETIME summerNow = UMakeFileTime(summer);
  USetClockOverride(&summerNow);
  EXPECT_EQ(UCurrentTimeZoneBias(), -120);
  in = UMakeFileTime(winter);
  ASSERT_EQ(ULocalFileTimeToFileTime(&in, &out), 1);
  EXPECT_EQ(UFileTimeTicks(out), winter - 2 * hour);
  const UFILETIME winterNow = UMakeFileTime(winter);
  USetClockOverride(&winterNow);
  EXPECT_EQ(UCurrentTimeZoneBias(), -60);
  in = UMakeFileTime(summer);
  ASSERT_EQ(UFileTimeToLocalFileTime(&in, &out), 1);
  EXPECT_EQ(UFileTimeTicks(out), summer + hour);

  // Results outside the FILETIME range are refused.
  USetTimeZone("XST-3");
  in = UMakeFileTime(hour);
  out = UMakeFileTime(kFill64);
  USetLastError(0);
  EXPECT_EQ(ULocalFileTimeToFileTime(&in, &out), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  EXPECT_EQ(UFileTimeTicks(out), kFill64);
  in = UMakeFileTime(0x7FFFFFFFFFFFFFFFull - hour);
  EXPECT_EQ(UFileTimeToLocalFileTime(&in, &out), 0);
  EXPECT_EQ(UFileTimeTicks(out), kFill64);
  USetTimeZone("XST+5");
  in = UMakeFileTime(hour);
  EXPECT_EQ(UFileTimeToLocalFileTime(&in, &out), 0);
  EXPECT_EQ(ULocalFileTimeToFileTime(&in, &out), 1);
  EXPECT_EQ(UFileTimeTicks(out), 6 * hour);
}

TEST_F(WinTimeTest, GetLocalTimeReadsTheOverriddenClockInTheProcessZone) {
  USetTimeZone("XST-3");
  const UFILETIME now = UMakeFileTime(ChronoTicks(2024, 3, 5, 11 * 3600000ull + 7 * 60000 + 9042));
  USetClockOverride(&now);
  USYSTEMTIME st = Filled();
  UGetLocalTime(&st);
  EXPECT_EQ(Fields(st), (Fields8{2024, 3, 2, 5, 14, 7, 9, 42}));
  UFILETIME sys = UMakeFileTime(0);
  UGetSystemTimeAsFileTime(&sys);
  EXPECT_EQ(UFileTimeTicks(sys), UFileTimeTicks(now));

  // Across midnight and the year's end.
  const UFILETIME late = UMakeFileTime(ChronoTicks(2023, 12, 31, 22 * 3600000ull));
  USetClockOverride(&late);
  UGetLocalTime(&st);
  EXPECT_EQ(Fields(st), (Fields8{2024, 1, 1, 1, 1, 0, 0, 0}));

  // Back on the system clock: a present-day date.
  USetClockOverride(nullptr);
  UGetLocalTime(&st);
  EXPECT_GE(st.wYear, 2024);
  EXPECT_LE(st.wMonth, 12);
}

TEST_F(WinTimeTest, SetLocalTimeChecksItsInputAndFailsWithoutThePrivilege) {
  USetTimeZone("XST-3");
  const UFILETIME start = UMakeFileTime(ChronoTicks(2024, 3, 5, 0));
  USetClockOverride(&start);

  USYSTEMTIME bad = Make(2023, 2, 29, 10);
  if (!WineDiffers("SystemTimeToFileTime takes February 29 of a common year")) {
    USetLastError(0);
    EXPECT_EQ(USetLocalTime(&bad), 0);
    EXPECT_EQ(UGetLastError(), 87u);
  }

  // Without the privilege: 0 and 1314, the clock unchanged.
  USYSTEMTIME want = Make(2025, 6, 1, 10, 30, 15, 500);
  UFailCall(UCall::kSetLocalTime, 1, 1314);
  EXPECT_EQ(USetLocalTime(&want), 0);
  EXPECT_EQ(UGetLastError(), 1314u);
  UFILETIME sys = UMakeFileTime(0);
  UGetSystemTimeAsFileTime(&sys);
  EXPECT_EQ(UFileTimeTicks(sys), UFileTimeTicks(start));

  // With the clock overridden the override moves: local 10:30 is 07:30 UTC.
  EXPECT_EQ(USetLocalTime(&want), 1);
  UGetSystemTimeAsFileTime(&sys);
  EXPECT_EQ(UFileTimeTicks(sys),
            ChronoTicks(2025, 6, 1, (7 * 3600 + 30 * 60 + 15) * 1000ull + 500));
  USYSTEMTIME got = Filled();
  UGetLocalTime(&got);
  EXPECT_EQ(Fields(got), (Fields8{2025, 6, 0, 1, 10, 30, 15, 500}));  // a Sunday
}

}  // namespace
