#include "quarnel/platform/faults.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

class FaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { UClearFaults(); }
  void TearDown() override { UClearFaults(); }
};

TEST_F(FaultsTest, BadArgumentsAreIgnored) {
  UFailCall(UCall::kCount, 1, 5);
  UFailCall(static_cast<UCall>(-1), 1, 5);
  unsigned err = 0;
  EXPECT_FALSE(UShouldFail(UCall::kCount, &err));
  EXPECT_FALSE(UShouldFail(static_cast<UCall>(-1), &err));
  // A null error pointer is allowed.
  UFailCall(UCall::kMultiByteToWideChar, 1, 1113);
  EXPECT_TRUE(UShouldFail(UCall::kMultiByteToWideChar, nullptr));
  EXPECT_FALSE(UShouldFail(UCall::kMultiByteToWideChar, nullptr));
}

// Arming (nth below 1 and repeat 0 arm nothing, repeat -1 fails every call
// from the nth on), re-arming, clearing and counting each call apart, at
// random.
TEST_F(FaultsTest, MatchesModelUnderRandomOperations) {
  struct Model {
    int countdown = 0;
    int repeat = 0;
    unsigned winerr = 0;
  };
  constexpr int kCalls = static_cast<int>(UCall::kCount);
  Model model[kCalls];
  std::mt19937 rng(5);
  for (int step = 0; step < 20000; ++step) {
    const int op = static_cast<int>(rng() % 100);
    const int c = static_cast<int>(rng() % kCalls);
    if (op < 10) {
      const int nth = static_cast<int>(rng() % 6) - 1;
      const int repeat = static_cast<int>(rng() % 5) - 1;
      const unsigned winerr = 1 + rng() % 2000;
      UFailCall(static_cast<UCall>(c), nth, winerr, repeat);
      if (nth >= 1 && repeat != 0) model[c] = {nth, repeat, winerr};
    } else if (op < 11) {
      UClearFaults();
      for (Model& m : model) m = Model{};
    } else {
      Model& m = model[c];
      bool want = false;
      if (m.countdown > 1) {
        --m.countdown;
      } else if (m.countdown == 1 || m.repeat != 0) {
        m.countdown = 0;
        want = true;
        if (m.repeat > 0) --m.repeat;
      }
      unsigned err = 0;
      ASSERT_EQ(UShouldFail(static_cast<UCall>(c), &err), want) << "step " << step;
      if (want) {
        ASSERT_EQ(err, m.winerr) << "step " << step;
      }
    }
  }
}

TEST_F(FaultsTest, ThreadsShareOneCountdown) {
  struct Row {
    const char* name;
    int nth;
    int repeat;
    int failures;
  } rows[] = {
      {"one failure", 1500, 1, 1},
      {"ten failures", 700, 10, 10},
      {"every call from the 3001st", 3001, -1, 1000},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    UClearFaults();
    UFailCall(UCall::kWriteFile, r.nth, 39, r.repeat);
    std::atomic<int> failures{0};
    std::atomic<int> wrongError{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 1000; ++i) {
          unsigned err = 0;
          if (UShouldFail(UCall::kWriteFile, &err)) {
            failures.fetch_add(1);
            if (err != 39) wrongError.fetch_add(1);
          }
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), r.failures);
    EXPECT_EQ(wrongError.load(), 0);
  }
}

}  // namespace
