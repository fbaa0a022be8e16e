#include "quarnel/platform/tick.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace {

class TickTest : public ::testing::Test {
 protected:
  void TearDown() override {
    UFreezeTickCount(0);
    USetTickOffset(0);
  }
};

TEST_F(TickTest, OffsetMovesBothCountsAndWraps) {
  UFreezeTickCount(1);
  const std::uint64_t base = UGetTickCount64();
  USetTickOffset(1000);
  EXPECT_EQ(UGetTickCount64(), base + 1000);
  // Bring the 32-bit count to 10 ms short of its wrap, then past it.
  const std::int64_t toWrap =
      static_cast<std::int64_t>((std::uint64_t{1} << 32) - (base & 0xFFFFFFFFu));
  USetTickOffset(toWrap - 10);
  EXPECT_EQ(UGetTickCount(), 0xFFFFFFF6u);
  USetTickOffset(toWrap + 5);
  EXPECT_EQ(UGetTickCount(), 5u);
  EXPECT_EQ(UGetTickCount64() >> 32, (base >> 32) + 1);
}

TEST_F(TickTest, FreezeStopsTheClockAndReleaseRestartsIt) {
  EXPECT_EQ(UFreezeTickCount(1), 0);
  EXPECT_EQ(UFreezeTickCount(1), 1);  // stays where it stood
  const std::uint64_t frozen = UGetTickCount64();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(UGetTickCount64(), frozen);
  EXPECT_EQ(UFreezeTickCount(0), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(UGetTickCount64(), frozen + 15);
  EXPECT_EQ(UFreezeTickCount(0), 0);
}

TEST_F(TickTest, RunningClockNeverGoesBack) {
  std::uint64_t last = UGetTickCount64();
  for (int i = 0; i < 10000; ++i) {
    const std::uint64_t now = UGetTickCount64();
    ASSERT_GE(now, last);
    last = now;
  }
}

}  // namespace
