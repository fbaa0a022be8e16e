#include "quarnel/datetime/ticker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/tick.h"
#include "tests/support/helpers.h"

namespace {

constexpr unsigned kMinute = 60000;
constexpr unsigned kHour = 3600000;
constexpr unsigned kDay = 86400000;
constexpr std::uint64_t kWrap = std::uint64_t{1} << 32;

std::string HourNote(const std::string& id) {
  return "517 TTicker::GetMS: note that TTicker('" + id + "') has exceeded 1 hour\n";
}
std::string DaysWarning(const std::string& id) {
  return "515 TTicker::GetMS: TTicker('" + id + "') has reached 21 days of 49 max\n";
}
std::string Overflowed(const std::string& id) {
  return "515 TTicker::GetMS: TTicker('" + id + "') overflowed\n";
}

// The clock stands still; Advance moves it. Every test starts and ends with
// no live ticker, so each one starts its own hourly timer.
class TickerTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    ASSERT_EQ(TTickerTimerActive(), 0u) << "a ticker outlived an earlier test";
    UFreezeTickCount(1);
  }
  void TearDown() override {
    EXPECT_EQ(TTickerTimerActive(), 0u);
    RecordingTest::TearDown();
  }
  static void Advance(std::int64_t ms) { USetTickOffset(UGetTickOffset() + ms); }
  // Moves the clock so that the 32-bit count reads `tick`.
  static void AdvanceTo32(unsigned tick) {
    Advance(static_cast<std::int64_t>(static_cast<unsigned>(tick - UGetTickCount())));
  }
};

// A second GetMS logs nothing more.
TEST_F(TickerTest, GetMSRulesByRow) {
  const std::map<std::string, std::string> lines = {{"-", ""},
                                                    {"hour", HourNote("Span")},
                                                    {"days", DaysWarning("Span")},
                                                    {"overflow", Overflowed("Span")}};
  for (const auto& r : ReadTsv("ticker_spans.tsv")) {
    SCOPED_TRACE(r[0]);
    ClearRecords();
    TTicker t(Key("Span"));
    t.SetMS(static_cast<unsigned>(std::stoul(r[1])));
    Advance(std::stoll(r[2]));
    EXPECT_EQ(t.GetMS(), std::stoul(r[3]));
    EXPECT_EQ(t.GetMS(), std::stoul(r[3]));
    EXPECT_EQ(Logged(), lines.at(r[4]));
  }
}

TEST_F(TickerTest, EachNoteOnceAndLaterStatesSilenceEarlierOnes) {
  TTicker t(Key("life"));
  Advance(2 * kHour);
  EXPECT_EQ(t.GetMS(), 2 * kHour);
  Advance(20ll * kDay);
  EXPECT_EQ(t.GetMS(), 2 * kHour + 20 * kDay);  // past 1 hour already noted
  Advance(kDay);
  EXPECT_EQ(t.GetMS(), 2 * kHour + 21 * kDay);
  Advance(1194ll * kHour);
  EXPECT_EQ(t.GetMS(), 0xFFFFFFFFu);
  EXPECT_EQ(t.GetMS(), 0xFFFFFFFFu);
  EXPECT_EQ(Logged(), HourNote("life") + DaysWarning("life") + Overflowed("life"));
  // An overflowed span starts again after Reset, its notes under the new id.
  ClearRecords();
  t.SetID(Key("next"));
  t.Reset();
  EXPECT_EQ(t.GetMS(), 0u);
  Advance(kHour + 1);
  EXPECT_EQ(t.GetMS(), kHour + 1);
  EXPECT_EQ(Logged(), HourNote("next"));
}

TEST_F(TickerTest, SpanAcrossTheWrapOfTheTickCount) {
  AdvanceTo32(0xFFFFFFFFu - 500);
  TTicker t(Key("wrap"));
  Advance(1500);
  EXPECT_LT(UGetTickCount(), 1500u);
  EXPECT_EQ(t.GetMS(), 1500u);
  // SetMS reaching back over the wrap.
  t.SetMS(2000);
  EXPECT_EQ(t.GetMS(), 2000u);
  EXPECT_EQ(Logged(), "");
}

// The hour count is seen only through the overflow rules. A ticker set to
// 1192 hours that the clock then moves by 62 minutes measures 1193 h 2 min,
// just short of the wrap of the 32-bit count (1193 h 2.78 min): it overflows
// when two firings reach it (1194 hours) and not with one. Any 62 minutes
// hold one firing; two only when the first comes within 2 minutes.
constexpr unsigned kProbeSpan = 62 * kMinute;
constexpr unsigned kProbeMeasured = 1192 * kHour + kProbeSpan;

TEST_F(TickerTest, TickersShareOneTimerAndItsPhase) {
  TTicker keeper(Key("keep"));
  const unsigned timer = TTickerTimerActive();
  EXPECT_NE(timer, 0u);
  Advance(59 * kMinute);
  TTicker probe(Key("prob"));
  EXPECT_EQ(TTickerTimerActive(), timer);
  probe.SetMS(1192 * kHour);
  Advance(kProbeSpan);  // firings 1 and 61 minutes after the probe began
  EXPECT_EQ(probe.GetMS(), 0xFFFFFFFFu);
  EXPECT_EQ(Logged(), Overflowed("prob"));
}

TEST_F(TickerTest, LastTickerKillsTheTimerAndTheNextStartsAnother) {
  unsigned first;
  {
    TTicker a(Key("aaaa"));
    first = TTickerTimerActive();
    EXPECT_NE(first, 0u);
    { TTicker b(Key("bbbb")); }
    EXPECT_EQ(TTickerTimerActive(), first);  // a is still alive
    Advance(59 * kMinute);
  }
  EXPECT_EQ(TTickerTimerActive(), 0u);

  // The new timer starts with the new ticker: its first firing is an hour
  // after this point, not a minute after as the killed timer's would have been.
  TTicker probe(Key("prob"));
  const unsigned second = TTickerTimerActive();
  EXPECT_NE(second, 0u);
  EXPECT_NE(second, first);
  probe.SetMS(1192 * kHour);
  Advance(kProbeSpan);
  EXPECT_EQ(probe.GetMS(), kProbeMeasured);
  EXPECT_EQ(Logged(), DaysWarning("prob"));
}

// Firings that fell due before a span starts are delivered before it
// starts, so they count only for the tickers that were running then.
TEST_F(TickerTest, FiringsDueBeforeASpanStartsDoNotCountForIt) {
  TTicker keeper(Key("keep"));
  Advance(kMinute);
  TTicker probe(Key("prob"));
  Advance(2 * kHour);  // two firings due, nobody has looked yet
  probe.SetMS(1192 * kHour);
  Advance(kProbeSpan);  // one more firing, 59 minutes after the probe began
  EXPECT_EQ(probe.GetMS(), kProbeMeasured);
  EXPECT_EQ(Logged(), DaysWarning("prob"));
}

// Eight threads make, read, restart and destroy tickers while one of them
// moves the clock through many hours. Two long-lived tickers check that every
// firing reached them exactly once, whatever the interleaving:
//  - `under` (made first, at the timer's start) is set to 1192 - N hours and
//    59 minutes; after N firings it measures past the wrap and overflows, but
//    would read as a short span with a firing lost;
//  - `over` (made 50 minutes later) is set to 1193 - N hours; after N
//    firings it measures 1192 h 30 min exactly, and would overflow with one
//    firing too many.
TEST_F(TickerTest, ThreadTickersMadeReadAndDestroyedConcurrently) {
  constexpr unsigned kHoursPassed = 24;
  auto under = std::make_unique<TTicker>(Key("undr"));
  under->SetMS((1192 - kHoursPassed) * kHour + 59 * kMinute);
  Advance(50 * kMinute);
  auto over = std::make_unique<TTicker>(Key("over"));
  over->SetMS((1193 - kHoursPassed) * kHour);

  std::atomic<bool> clockDone{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    // From 50 minutes to N hours 20 minutes after the timer's start.
    const int steps = static_cast<int>((kHoursPassed * kHour - 30 * kMinute) / (10 * kMinute));
    for (int i = 0; i < steps; ++i) {
      Advance(10 * kMinute);
      std::this_thread::yield();
    }
    clockDone = true;
  });
  for (int t = 1; t < 8; ++t) {
    threads.emplace_back([&, t] {
      unsigned i = 0;
      while (!clockDone || i < 500) {
        TTicker a(Key("wrk0") + t);
        EXPECT_LE(a.GetMS(), 25 * kHour);  // the clock may run on meanwhile
        {
          TTicker b(Key("nest"));
          b.SetMS(i * 1000);
          EXPECT_GE(b.GetMS(), i * 1000);
        }
        a.Reset();
        a.GetMS();
        ++i;
      }
    });
  }
  for (std::thread& th : threads) th.join();

  EXPECT_NE(TTickerTimerActive(), 0u);
  ClearRecords();
  EXPECT_EQ(under->GetMS(), 0xFFFFFFFFu);
  EXPECT_EQ(over->GetMS(), 1192 * kHour + 30 * kMinute);
  EXPECT_EQ(Logged(), Overflowed("undr") + DaysWarning("over"));
  under.reset();
  over.reset();
  EXPECT_EQ(TTickerTimerActive(), 0u);
}

// ---------------------------------------------------------------- TProfiler

class ProfilerTest : public TickerTest {};

// Runs `ops` operations of which the first lasts `busy` ms, then lets the
// clock run to `elapsed` ms after the profiler's start.
void RunProfile(TProfiler& p, unsigned ops, unsigned busy, unsigned elapsed) {
  const std::int64_t start = UGetTickOffset();
  for (unsigned i = 0; i < ops; ++i) {
    p.Start();
    if (i == 0) USetTickOffset(UGetTickOffset() + busy);
    p.Stop();
  }
  USetTickOffset(start + elapsed);
}

// Calls on a profiler: a number moves the clock by that many ms, S starts,
// s stops, R reports once, r reports always, X resets, D destroys it; then
// the assertions and the line, written `times` times.
TEST_F(ProfilerTest, CallSequences) {
  const struct {
    const char* calls;
    const char* asserted;
    const char* line;
    int times = 1;
  } rows[] = {
      // A nested start counts as an operation; the busy span is the outer one.
      {"1000 S 200 S 300 s 500 s 1000 R", "",
       "1.000 of 3.0 secs (33.33%) for 2 ops (500,000.0 uSec/op)"},
      // The destructor reports what was not reported.
      {"S 10 s 90 D", "", "0.010 of 0.1 secs (10.00%) for 1 ops (10,000.0 uSec/op)"},
      // A stop without a start asserts and goes back to depth 0.
      {"s S S 10 s R", "timer-303", "0.010 of 0.0 secs (100.00%) for 2 ops (5,000.0 uSec/op)"},
      // Once only: neither a Reset nor the destructor brings the report back.
      {"S 10 s 90 R R r X R D", "", "0.010 of 0.1 secs (10.00%) for 1 ops (10,000.0 uSec/op)", 2},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.calls);
    ClearRecords();
    auto p = std::make_unique<TProfiler>("p", 0);
    std::istringstream in(r.calls);
    for (std::string w; in >> w;) {
      if (w == "S") {
        p->Start();
      } else if (w == "s") {
        p->Stop();
      } else if (w == "R" || w == "r") {
        p->Report(w == "R");
      } else if (w == "X") {
        p->Reset();
      } else if (w == "D") {
        p.reset();
      } else {
        Advance(std::stoll(w));
      }
    }
    EXPECT_EQ(Asserted(), r.asserted);
    std::string lines;
    for (int i = 0; i < r.times; ++i) lines += std::string("513 p: ") + r.line + "\n";
    EXPECT_EQ(Logged(), lines);
  }
}

// Each row after a Reset, which clears the counters and restarts the span.
TEST_F(ProfilerTest, ReportFiguresByRow) {
  for (const auto& r : ReadTsv("profiler_figures.tsv")) {
    SCOPED_TRACE(r[0]);
    ClearRecords();
    TProfiler p("p", 0);
    RunProfile(p, 5, 100, 1000);
    p.Reset();
    RunProfile(p, std::stoul(r[1]), std::stoul(r[2]), std::stoul(r[3]));
    p.Report(0);
    EXPECT_EQ(Logged(), "513 " + r[4] + "\n");
    p.Report(1);  // the destructor then says nothing
    ClearRecords();
  }
  EXPECT_TRUE(Lines().empty());
}

TEST_F(ProfilerTest, ReportAllReportsNewestFirstAndEmptiesTheRegistry) {
  auto a = std::make_unique<TProfiler>("first", 0);
  auto b = std::make_unique<TProfiler>("second", 519);
  auto c = std::make_unique<TProfiler>("third", 0);
  TProfileReportAll();
  const std::string zero = " 0.000 of 0.0 secs (0.00%) for 0 ops (0.0 uSec/op)\n";
  EXPECT_EQ(Logged(), "513 third:" + zero + "519 second:" + zero + "513 first:" + zero);
  ClearRecords();
  TProfileReportAll();
  b.reset();
  EXPECT_TRUE(Lines().empty());

  // A profiler made afterwards is registered again and reported on its own.
  auto d = std::make_unique<TProfiler>("fourth", 0);
  a.reset();
  c.reset();
  EXPECT_TRUE(Lines().empty());
  TProfileReportAll();
  EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(ProfilerTest, ThreadProfilersMadeAndReportedConcurrently) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        TProfiler p("w", 0);
        p.Start();
        p.Stop();
        if ((i + t) % 3 == 0) p.Report(1);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(Lines().size(), static_cast<std::size_t>(kThreads * kPerThread));
}

}  // namespace
