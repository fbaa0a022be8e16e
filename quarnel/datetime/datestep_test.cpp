#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <sstream>
#include <vector>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/errors.h"
#include "tests/support/datefields.h"
#include "tests/support/helpers.h"

namespace {

using namespace std::chrono;

// "Y-M-D h:m:s.ms" as the data file writes a date.
F Parse(const std::string& text) {
  F f{};
  char sep;
  std::istringstream in(text);
  in >> f.y >> sep >> f.mo >> sep >> f.d >> f.h >> sep >> f.mi >> sep >> f.s >> sep >> f.ms;
  return f;
}

// A step from its eight fields, years first, separated by blanks.
TDateStep StepOf(const std::string& fields) {
  unsigned short p[8];
  std::istringstream parts(fields);
  for (unsigned short& v : p) parts >> v;
  return TDateStep(p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7]);
}

class DateStepTest : public RecordingTest {};

// ---- calendar steps -------------------------------------------------------------------------

TEST_F(DateStepTest, StepsFollowTheCalendarAsWorkedByHand) {
  for (const auto& r : ReadTsv("datestep.tsv")) {
    SCOPED_TRACE(r[0]);
    const TDateStep step = StepOf(r[2]);
    const bool forward = r[3] == "1";
    TDate start = Make(Parse(r[1]));
    start.SetFlags(kDateFlagAbsolute, 0);
    start.SetTimezone(5);
    start.SetGMTOffset(60);
    ClearRecords();
    const TDate moved = forward ? start + step : start - step;
    EXPECT_EQ(Of(moved), Parse(r[4]));
    std::string assertions;
    for (const AssertionSeen& a : Assertions())
      assertions += (assertions.empty() ? "" : " ") + std::to_string(a.line);
    EXPECT_EQ(assertions, r[5]);
    // Arithmetic builds a fresh date.
    EXPECT_EQ(moved.GetFlags(), kDateFlagFields);
    EXPECT_EQ(moved.GetTimezone() + moved.GetGMTOffset(), 0);
    // The assigning forms agree.
    TDate in = start;
    EXPECT_EQ(Of(forward ? in += step : in -= step), Parse(r[4]));
    EXPECT_EQ(Of(in), Parse(r[4]));
  }
}

// Random dates and steps against the standard library's calendar: months
// and years on year_month with the day clamped to the month's end, then
// days and time as exact durations.
TEST_F(DateStepTest, StepsAgreeWithTheStandardCalendar) {
  std::mt19937 rng(2024);
  const auto r = [&](unsigned n) { return static_cast<int>(rng() % n); };
  const auto u = [&](unsigned n) { return static_cast<unsigned short>(rng() % n); };
  for (int i = 0; i < 200000; ++i) {
    const int y = 1800 + r(2000), mo = 1 + r(12);  // steps stay inside 1..4000
    const auto last = static_cast<unsigned>((year(y) / mo / std::chrono::last).day());
    const F start{y, mo, 1 + r(last), r(24), r(60), r(60), r(256)};
    const TDateStep step(u(90), u(300), u(300), u(1000), u(100), u(100), u(100), u(1000));
    const int sign = (rng() & 1) ? 1 : -1;

    const year_month ym = year(y) / mo + months(sign * (step.GetMonths() + 12 * step.GetYears()));
    const auto ymLast = static_cast<unsigned>((ym / std::chrono::last).day());
    sys_time<milliseconds> t = sys_days(ym / std::min(static_cast<unsigned>(start.d), ymLast)) +
                               hours(start.h) + minutes(start.mi) + seconds(start.s) +
                               milliseconds(start.ms);
    t += sign * (days(step.GetWeeks() * 7 + step.GetDays()) + hours(step.GetHours()) +
                 minutes(step.GetMinutes()) + seconds(step.GetSeconds()) +
                 milliseconds(step.GetMilliseconds()));
    const sys_days whole = floor<days>(t);
    const year_month_day ymd(whole);
    const hh_mm_ss<milliseconds> hms(t - whole);
    const F want{static_cast<int>(ymd.year()),
                 static_cast<int>(unsigned{ymd.month()}),
                 static_cast<int>(unsigned{ymd.day()}),
                 static_cast<int>(hms.hours().count()),
                 static_cast<int>(hms.minutes().count()),
                 static_cast<int>(hms.seconds().count()),
                 static_cast<int>(hms.subseconds().count() & 0xFF)};
    const TDate moved = sign > 0 ? Make(start) + step : Make(start) - step;
    ASSERT_EQ(Of(moved), want) << Of(Make(start)) << " sign " << sign;
  }
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DateStepTest, StepFieldsClampSilently) {
  TDateStep s(1, 2, 3, 4, 200, 200, 200, 1500);
  const auto fields = [&] {
    return std::vector<int>({s.GetYears(), s.GetMonths(), s.GetWeeks(), s.GetDays(), s.GetHours(),
                             s.GetMinutes(), s.GetSeconds(), s.GetMilliseconds()});
  };
  EXPECT_EQ(fields(), std::vector<int>({1, 2, 3, 4, 99, 99, 99, 999}));
  s.SetMinutes(200);
  s.SetMilliseconds(1500);
  s.SetYears(65535);
  s.SetDays(65535);
  EXPECT_EQ(fields(), std::vector<int>({65535, 2, 3, 65535, 99, 99, 99, 999}));
  s.Reset();
  EXPECT_TRUE(s == TDateStep());
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DateStepTest, StepComparisonsKeepTheirDeliberateOrder) {
  for (const auto& r : ReadTsv("datestep_compare.tsv")) {
    SCOPED_TRACE(r[0]);
    const TDateStep a = StepOf(r[1]), b = StepOf(r[2]);
    const bool lt = r[3] == "<", gt = r[3] == ">", eq = r[3] == "=";
    EXPECT_EQ(a < b, lt);
    EXPECT_EQ(a > b, gt);
    EXPECT_EQ(a == b, eq);
    EXPECT_EQ(a != b, !eq);
    EXPECT_EQ(a <= b, lt || eq);
    EXPECT_EQ(a >= b, gt || eq);
    EXPECT_EQ(b < a, gt);
  }
}

// ---- intervals ----------------------------------------------------------------------------------

TEST_F(DateStepTest, IntervalsNormaliseTheirFields) {
  struct Row {
    int d, h, m, s, ms;
    int days, millis;
  };
  // At the 32-bit day limits the carry wraps like the fields; the result
  // keeps the invariant, and every getter and a second pass agree.
  const Row limits[] = {{INT32_MAX, 0, 0, 0, 86400001, -INT32_MAX, -86399999},
                        {INT32_MIN, 0, 0, 0, -86400001, INT32_MAX - 1, 86399999}};
  for (const Row& r : limits) {
    TInterval iv;
    iv.SetRaw(r.d, r.ms);
    EXPECT_EQ(iv.GetMilliseconds(), r.millis);
    EXPECT_EQ(iv.GetDays(), r.days);
    EXPECT_EQ(iv.RawMilliseconds(), r.millis);
  }
  // Random parts, every other set near zero so that totals of either sign
  // below a day come up: the total is kept and the invariant holds; sums,
  // differences and order with the interval before follow the totals.
  std::mt19937 rng(11);
  int scale = 1;
  auto part = [&](int range) {
    return static_cast<int>(rng() % (2 * (range / scale) + 1)) - range / scale;
  };
  const auto total = [](const TInterval& v) {
    return v.RawDays() * 86400000LL + v.RawMilliseconds();
  };
  TInterval prev;
  for (int i = 0; i < 100000; ++i) {
    scale = i % 2 ? 1 : 10000;
    const int d = part(100000), h = part(100000), m = part(1000000), s = part(10000000),
              ms = part(1000000000);
    TInterval iv;
    iv.Set(d, h, m, s, ms);
    const long long t = total(iv), tp = total(prev);
    ASSERT_EQ(t, d * 86400000LL + h * 3600000LL + m * 60000LL + s * 1000LL + ms);
    ASSERT_LT(std::abs(iv.RawMilliseconds()), 86400000);
    ASSERT_TRUE(iv.RawDays() == 0 || (iv.RawDays() > 0) == (iv.RawMilliseconds() >= 0));
    const TInterval sum = iv + prev, diff = iv - prev;
    ASSERT_EQ(total(sum), t + tp);
    ASSERT_EQ(total(diff), t - tp);
    TInterval c = iv;
    c += prev;
    ASSERT_TRUE(c == sum);
    c -= prev;
    ASSERT_TRUE(c == iv);
    ASSERT_EQ(iv < prev, t < tp);
    ASSERT_EQ(iv > prev, t > tp);
    ASSERT_EQ(iv <= prev, t <= tp);
    ASSERT_EQ(iv >= prev, t >= tp);
    prev = iv;
  }
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DateStepTest, IntervalTotalsTruncateTowardZero) {
  TInterval iv;
  iv.SetRaw(-1, -1500);  // normalised by the getters
  EXPECT_EQ(iv.GetSeconds(), -86401);
  EXPECT_EQ(iv.GetMinutes(), -1440);
  EXPECT_EQ(iv.GetHours(), -24);
  iv.SetRaw(0, 90000000);  // a day and an hour, not yet normalised
  EXPECT_EQ(iv.GetHours(), 25);
  EXPECT_EQ(iv.RawDays(), 1);
  EXPECT_EQ(iv.GetSeconds(), 90000);
  EXPECT_FALSE(iv.IsDefault());
  iv.Reset();
  EXPECT_TRUE(iv.IsDefault());
}

TEST_F(DateStepTest, IntervalsBeyondTheCalendarAssertAndKeepTheirValue) {
  TInterval ok(1460970, 23, 0, 0, 0);
  EXPECT_EQ(Asserted(), "");
  TInterval over(1460970, 24, 0, 0, 0);
  EXPECT_EQ(Asserted(), "datetime-1405");
  EXPECT_EQ(over.GetDays(), 1460971);
  ClearRecords();
  TInterval negative(-3000000, 0, 0, 0, 0);  // only the upper bound is checked
  EXPECT_EQ(Asserted(), "");
  EXPECT_EQ(negative.GetDays(), -3000000);
}

TEST_F(DateStepTest, IntervalsCompareTheirStoredFields) {
  // Stored fields compare as they stand: one day is not 86,400,000 ms.
  TInterval day(1, 0, 0, 0, 0), ms;
  ms.SetRaw(0, 86400000);
  EXPECT_FALSE(day == ms);
  EXPECT_TRUE(ms < day);
  ms.normalize();
  EXPECT_TRUE(day == ms);
}

TEST_F(DateStepTest, IntervalsMoveDatesExactly) {
  const TDate start(2024, 3, 5, 14, 7, 9, 42);
  struct Row {
    TInterval iv;
    int sign;
    F want;
  };
  const Row rows[] = {
      {TInterval(0, 0, 0, 0, -43), 1, {2024, 3, 5, 14, 7, 8, 999 & 0xFF}},
      {TInterval(65, 0, 0, 0, 0), -1, {2023, 12, 31, 14, 7, 9, 42}},
      {TInterval(0, 0, 0, 0, 214), 1, {2024, 3, 5, 14, 7, 9, 0}},  // 256 kept as 0
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(::testing::Message() << r.want);
    EXPECT_EQ(Of(r.sign > 0 ? start + r.iv : start - r.iv), r.want);
    TDate in = start;
    EXPECT_EQ(Of(r.sign > 0 ? in += r.iv : in -= r.iv), r.want);
    EXPECT_EQ(Of(in), r.want);
  }
  EXPECT_EQ(Asserted(), "");
}

// ---- stored forms -------------------------------------------------------------------------------

TEST_F(DateStepTest, StepAndIntervalRecordsHaveTheirExactBytes) {
  const TDateStep step(0x0102, 0x0304, 0x0506, 0x0708, 11, 22, 33, 444);
  EXPECT_EQ(step.StoreSize(), 24);
  Bytes out(24, 0xEE);
  EXPECT_EQ(step.Export(out.data(), 23), kErrExportBufferTooSmall);
  EXPECT_EQ(step.Export(out.data(), 24), 24);
  const Bytes stepBytes = {
      0x2E, 0x53, 0x74, 0x44, 0x00, 0x01, 0x00, 0x01,   // 'DtS.', 256, 256
      0xBC, 0x01, 0x21, 0x00, 0x16, 0x00, 0x0B, 0x00,   // ms, s, min, h
      0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};  // days, weeks, months, years
  EXPECT_EQ(out, stepBytes);
  TDateStep back;
  EXPECT_EQ(back.Import(stepBytes.data(), 24), 24);
  EXPECT_TRUE(back == step);
  // Imported fields are taken as they are, beyond the setters' limits.
  Bytes wide = stepBytes;
  wide[8] = 0xFF, wide[9] = 0xFF;
  EXPECT_EQ(back.Import(wide.data(), 24), 24);
  EXPECT_EQ(back.GetMilliseconds(), 0xFFFF);

  TInterval iv;
  iv.SetRaw(0, 90000000);  // exported normalised: 1 day 1 hour
  EXPECT_EQ(iv.StoreSize(), 16);
  Bytes ivOut(16, 0xEE);
  EXPECT_EQ(iv.Export(ivOut.data(), 15), kErrExportBufferTooSmall);
  EXPECT_EQ(iv.Export(ivOut.data(), 16), 16);
  const Bytes ivBytes = {0x2E, 0x76, 0x74, 0x49, 0x00, 0x01, 0x00, 0x01,   // 'Itv.', 256, 256
                         0x01, 0x00, 0x00, 0x00, 0x80, 0xEE, 0x36, 0x00};  // 1, 3,600,000
  EXPECT_EQ(ivOut, ivBytes);
  // Import normalises what it reads.
  const Bytes loose = {0x2E, 0x76, 0x74, 0x49, 0x00, 0x01, 0x00, 0x01,
                       0x02, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};  // 2 days, -1 ms
  TInterval in;
  EXPECT_EQ(in.Import(loose.data(), 16), 16);
  EXPECT_EQ(in.RawDays(), 1);
  EXPECT_EQ(in.RawMilliseconds(), 86399999);
}

TEST_F(DateStepTest, ImportsRefuseShortAndForeignRecords) {
  const Bytes step = {0x2E, 0x53, 0x74, 0x44, 0x00, 0x01, 0x00, 0x01, 1, 0, 2, 0,
                      3,    0,    4,    0,    5,    0,    6,    0,    7, 0, 8, 0};
  const Bytes iv = {0x2E, 0x76, 0x74, 0x49, 0x00, 0x01, 0x00, 0x01, 1, 0, 0, 0, 2, 0, 0, 0};
  auto retagged = [](Bytes b) {
    b[0] = 0x2E, b[1] = 0x65;  // another record's tag
    return b;
  };
  // Each record's import refuses it short and retagged, and keeps the value
  // it had (the record header's own checks answer for the rest).
  const auto refuses = [&](const auto& keep, const Bytes& good) {
    const int size = static_cast<int>(good.size());
    const struct {
      const char* name;
      Bytes bytes;
      int size, code;
    } rows[] = {{"short", good, size - 1, kErrImportDataTooShort},
                {"date record", retagged(good), size, kErrPersistWrongSignature}};
    for (const auto& r : rows) {
      SCOPED_TRACE(r.name);
      auto v = keep;
      EXPECT_EQ(v.Import(r.bytes.data(), r.size), r.code);
      EXPECT_TRUE(v == keep);
    }
  };
  refuses(TDateStep(9, 9, 9, 9, 9, 9, 9, 9), step);
  refuses(TInterval(9, 0, 0, 0, 9), iv);
  TDateStep s;
  EXPECT_EQ(s.Import(nullptr, 24), kErrImportDataTooShort);
  EXPECT_EQ(s.Export(nullptr, 24), kErrExportBufferTooSmall);
}

}  // namespace
