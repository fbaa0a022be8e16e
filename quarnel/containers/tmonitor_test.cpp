#include "quarnel/containers/tmonitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/recording_hooks.h"

namespace {

// The calling thread's held monitors, most recently first entered first, as
// the links say; also checks that the links agree both ways.
std::vector<TMonitor*> HeldList() {
  std::vector<TMonitor*> held;
  TMonitor* newer = nullptr;
  for (TMonitor* m = *ThreadMonitorList(); m != nullptr; m = m->Older()) {
    EXPECT_EQ(m->Newer(), newer);
    held.push_back(m);
    newer = m;
    if (held.size() > 1000) break;  // a cycle
  }
  return held;
}

class MonitorTest : public RecordingTest {};

TEST_F(MonitorTest, LeavingInAnyOrderKeepsTheHeldListLinked) {
  TMonitor a, b, c;
  a.Enter();
  b.Enter();
  EXPECT_EQ(HeldList(), (std::vector<TMonitor*>{&b, &a}));
  a.Exit();  // the older one first
  EXPECT_EQ(HeldList(), std::vector<TMonitor*>{&b});
  EXPECT_EQ(b.Older(), nullptr);
  c.Enter();
  a.Enter();
  EXPECT_EQ(HeldList(), (std::vector<TMonitor*>{&a, &c, &b}));
  c.Exit();  // from the middle
  EXPECT_EQ(HeldList(), (std::vector<TMonitor*>{&a, &b}));
  a.Exit();
  b.Exit();
  EXPECT_TRUE(HeldList().empty());
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(MonitorTest, MisuseAssertsAndChangesNothing) {
  TMonitor m;
  EXPECT_EQ(m.Exit(), 0);  // never entered
  TMonitor copy(m);
  copy = m;
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{
                              {"tmonitor", 66, ""}, {"tmonitor", 31, ""}, {"tmonitor", 37, ""}}));
  EXPECT_EQ(m.EntryCount(), 0);
  EXPECT_TRUE(HeldList().empty());
  ClearRecords();
  {
    TMonitor held;
    held.Enter();
    std::thread other([&] { EXPECT_EQ(held.Exit(), 0); });  // not the holder
    other.join();
    EXPECT_EQ(held.EntryCount(), 1);
    EXPECT_EQ(held.Exit(), 0);
  }
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmonitor", 66, ""}}));
}

// Each thread enters and leaves a shared set of monitors in random orders and
// checks after every step that its list holds exactly what it entered, in
// order of first entry, while the monitors exclude each other.
TEST(MonitorThreadTest, RandomOrdersKeepEachThreadListConsistent) {
  constexpr int kMonitors = 6;
  constexpr int kThreads = 8;
  std::vector<TMonitor> monitors(kMonitors);
  std::vector<int> guarded(kMonitors, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      std::vector<int> order;  // indexes held, first entered last
      std::vector<int> depth(kMonitors, 0);
      for (int step = 0; step < 4000; ++step) {
        const int i = static_cast<int>(rng() % kMonitors);
        if (depth[i] == 0 || (rng() % 3 == 0 && depth[i] < 3)) {
          // Only enter monitors in ascending index order, re-entry included,
          // so that threads cannot deadlock.
          if (!order.empty() && i < *std::max_element(order.begin(), order.end())) continue;
          EXPECT_EQ(monitors[i].Enter(), depth[i] + 1);
          if (depth[i]++ == 0) {
            order.insert(order.begin(), i);
            ++guarded[i];  // data race here if the monitor did not exclude
          }
        } else {
          if (depth[i] == 1) --guarded[i];
          EXPECT_EQ(monitors[i].Exit(), depth[i] - 1);
          if (--depth[i] == 0) order.erase(std::find(order.begin(), order.end(), i));
        }
        std::vector<TMonitor*> expected;
        for (int k : order) expected.push_back(&monitors[k]);
        ASSERT_EQ(HeldList(), expected);
      }
      for (int k : std::vector<int>(order)) {
        --guarded[k];
        while (depth[k]-- > 0) monitors[k].Exit();
      }
      EXPECT_EQ(*ThreadMonitorList(), nullptr);
    });
  }
  for (auto& th : threads) th.join();
  for (int g : guarded) EXPECT_EQ(g, 0);
}

}  // namespace
