#include "quarnel/datetime/pcfsdate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "quarnel/datetime/tdate.h"
#include "quarnel/platform/wintime.h"
#include "tests/support/recording_hooks.h"

namespace {

constexpr std::uint64_t kSecond = 10000000;
constexpr std::uint64_t kHour = 3600 * kSecond;
constexpr std::uint64_t k1980 = 0x01A8E79FE1D58000ull;                // 1980-01-01 00:00:00
constexpr std::uint64_t kNoon = 0x01D99F80E9B90F70ull - 999 * 10000;  // 2023-06-15 12:00:00

TPcFsDate At(std::uint64_t ticks) {
  TPcFsDate p;
  p.SetTicks(ticks);
  return p;
}

using PcFsDateTest = RecordingTest;

TEST_F(PcFsDateTest, NormalizeOfZeroIsTheDosEpochInLocalTime) {
  TPcFsDate p;
  USetTimeZone("XST-3");  // local time is UTC + 3 hours
  p.Normalize();
  EXPECT_EQ(p.Ticks(), k1980 - 3 * kHour);
  USetTimeZone("XST+5");
  p.Reset();
  p.Normalize();
  EXPECT_EQ(p.Ticks(), k1980 + 5 * kHour);
  // The offset in force now applies (here summer time), as Windows does it.
  USetTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  const UFILETIME summer = UMakeFileTime(kNoon);
  USetClockOverride(&summer);
  p.Reset();
  p.Normalize();
  EXPECT_EQ(p.Ticks(), k1980 - 2 * kHour);
}

// Normalize cuts to whole seconds; MakeEven rounds odd seconds up.
TEST_F(PcFsDateTest, NormalizeAndMakeEven) {
  struct Row {
    bool even;
    std::uint64_t in, out;
  };
  const Row rows[] = {
      {false, kNoon + 9 * kSecond / 10, kNoon},
      {true, kNoon + kSecond + kSecond / 2, kNoon + 2 * kSecond},      // 12:00:01.5
      {true, kNoon + 2 * kSecond + kSecond / 2, kNoon + 2 * kSecond},  // 12:00:02.5
      {true, kNoon + 59 * kSecond, kNoon + 60 * kSecond},              // carries into the minute
      {true, 1, 0},
  };
  for (const Row& r : rows) {
    TPcFsDate p = At(r.in);
    if (r.even) {
      p.MakeEven();
    } else {
      p.Normalize();
    }
    EXPECT_EQ(p.Ticks(), r.out) << r.even << " " << r.in;
  }
}

TEST_F(PcFsDateTest, OrderIsTheUnsignedOrderOfTheTickCount) {
  // Every third pair differs only in the low half.
  std::mt19937_64 rng(4);
  for (int i = 0; i < 100000; ++i) {
    std::uint64_t a = rng(), b = rng();
    if (i % 3 == 0) b = (a & 0xFFFFFFFF00000000ull) | (b & 0xFFFFFFFF);
    if (i % 11 == 0) b = a;
    const TPcFsDate pa = At(a), pb = At(b);
    ASSERT_EQ(pa < pb, a < b);
    ASSERT_EQ(pa > pb, a > b);
    ASSERT_EQ(pa <= pb, a <= b);
    ASSERT_EQ(pa >= pb, a >= b);
    ASSERT_EQ(pa == pb, a == b);
    ASSERT_EQ(pa != pb, a != b);
  }
}

TEST_F(PcFsDateTest, ConvertsToAndFromDatesWithoutTimeZone) {
  USetTimeZone("XST-3");  // must not matter here
  const TDate date(2023, 6, 15, 12, 0, 0, 0);
  TPcFsDate p;
  p = date;
  EXPECT_EQ(p.Ticks(), kNoon);
  TPcFsDate q;
  q.FromTDate(&date);
  EXPECT_TRUE(p == q);
  TDate back(1999, 1, 1, 0, 0, 0, 0);
  p.ToTDate(&back);
  EXPECT_TRUE(back == date);
  EXPECT_EQ(p.Compare(&date), 0);
  const TDate later(2023, 6, 15, 12, 0, 1, 0), earlier(2023, 6, 15, 11, 59, 59, 0);
  EXPECT_EQ(p.Compare(&later), -1);
  EXPECT_EQ(p.Compare(&earlier), 1);
  // Sub-millisecond ticks vanish in the date: equal.
  EXPECT_EQ(At(kNoon + 9999).Compare(&date), 0);
  // Zero is "no date": the default TDate, and back.
  TPcFsDate none;
  EXPECT_TRUE(none.IsDefault());
  none.ToTDate(&back);
  EXPECT_TRUE(back.IsDefault());
  EXPECT_EQ(none.Compare(&back), 0);
  p.FromTDate(&back);
  EXPECT_TRUE(p.IsDefault());
}

TEST_F(PcFsDateTest, StoreWritesTheFileTimeLowHalfFirst) {
  const TPcFsDate p = At(0x0123456789ABCDEFull);
  unsigned char out[10];
  std::memset(out, 0xEE, sizeof out);
  p.Store(out);
  const unsigned char want[10] = {0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01, 0xEE, 0xEE};
  EXPECT_EQ(std::memcmp(out, want, 10), 0);
}

}  // namespace
