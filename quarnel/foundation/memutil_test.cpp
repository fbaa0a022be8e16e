#include "quarnel/foundation/memutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/debugger.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/heap.h"
#include "quarnel/platform/vmem.h"
#include "quarnel/platform/wintime.h"
#include "quarnel/text/tstring.h"
#include "tests/support/helpers.h"

namespace {

class MemTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    blocks0_ = MemBlockCount();
    bytes0_ = MemByteCount();
  }
  int Blocks() const { return MemBlockCount() - blocks0_; }
  int Bytes() const { return MemByteCount() - bytes0_; }
  // The blocks and bytes counted since the test began.
  std::pair<int, int> Counted() const { return {Blocks(), Bytes()}; }

  static bool AllZero(const void* p, unsigned n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (unsigned i = 0; i < n; ++i) {
      if (b[i] != 0) return false;
    }
    return true;
  }

  int blocks0_ = 0;
  int bytes0_ = 0;
};

TEST_F(MemTest, OversizedRequestsAssertAndAreServed) {
  void* p = MemAlloc(32769);
  EXPECT_EQ(Asserted(), "memutil-150");
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(MemSize(p), 32769u);
  EXPECT_EQ(Bytes(), 32769);
  ClearRecords();

  p = MemRealloc(p, 40000);
  EXPECT_EQ(Asserted(), "memutil-198");
  EXPECT_EQ(MemSize(p), 40000u);
  EXPECT_EQ(Bytes(), 40000);
  MemFree(p);
  ClearRecords();

  // A null block goes to MemAlloc, which checks the size again.
  p = MemRealloc(nullptr, 32769);
  EXPECT_EQ(Asserted(), "memutil-198 memutil-150");
  MemFree(p);
  EXPECT_EQ(Blocks() + Bytes(), 0);
  EXPECT_EQ(MemSize(nullptr), 0u);
  MemFree(nullptr);
}

// Random allocations, reallocations and frees against a byte-vector model:
// blocks are 16-byte aligned and distinct, new and grown bytes read zero,
// kept bytes survive, and the counters follow.
TEST_F(MemTest, RandomOperationsMatchModel) {
  struct Live {
    unsigned char* p;
    std::vector<unsigned char> bytes;
  };
  std::mt19937 rng(20240611);
  std::vector<Live> live;
  long total = 0;
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(step);
    const int op = static_cast<int>(rng() % 3);
    if (op == 0 || live.empty()) {
      const unsigned size = step % 50 == 0 ? 32768 : rng() % 2000;
      Live l{static_cast<unsigned char*>(MemAlloc(size)), std::vector<unsigned char>(size, 0)};
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(l.p) % 16, 0u);
      ASSERT_TRUE(AllZero(l.p, size));
      for (const Live& other : live) ASSERT_NE(other.p, l.p);
      for (unsigned i = 0; i < size; ++i) l.p[i] = l.bytes[i] = static_cast<unsigned char>(rng());
      total += size;
      live.push_back(std::move(l));
    } else if (op == 1) {
      Live& l = live[rng() % live.size()];
      const unsigned size = rng() % 5000;
      total += static_cast<long>(size) - static_cast<long>(l.bytes.size());
      // Half the time unfilled, as strings grow: the new bytes are then written.
      const bool fill = rng() % 2 == 0;
      l.p = static_cast<unsigned char*>(fill ? MemRealloc(l.p, size)
                                             : quarnel_internal::MemReallocUnfilled(l.p, size));
      for (std::size_t i = l.bytes.size(); i < size && !fill; ++i)
        l.p[i] = static_cast<unsigned char>(i);
      for (std::size_t i = l.bytes.size(); i < size; ++i)
        l.bytes.push_back(fill ? 0 : static_cast<unsigned char>(i));
      l.bytes.resize(size);
      ASSERT_TRUE(size == 0 || std::memcmp(l.p, l.bytes.data(), size) == 0);
    } else {
      const std::size_t i = rng() % live.size();
      ASSERT_EQ(MemSize(live[i].p), live[i].bytes.size());
      ASSERT_TRUE(live[i].bytes.empty() ||
                  std::memcmp(live[i].p, live[i].bytes.data(), live[i].bytes.size()) == 0);
      total -= static_cast<long>(live[i].bytes.size());
      MemFree(live[i].p);
      live.erase(live.begin() + static_cast<long>(i));
    }
    ASSERT_EQ(Blocks(), static_cast<int>(live.size()));
    ASSERT_EQ(Bytes(), total);
  }
  for (Live& l : live) {
    ASSERT_EQ(MemSize(l.p), l.bytes.size());
    ASSERT_TRUE(l.bytes.empty() || std::memcmp(l.p, l.bytes.data(), l.bytes.size()) == 0);
    MemFree(l.p);
  }
  EXPECT_EQ(Counted(), std::make_pair(0, 0));
  EXPECT_EQ(Asserted(), "");
}

TEST_F(MemTest, FreedBlocksAreCaught) {
  // Freed memory stays readable, as in a heap that has not reused it.
  USetHeapFreeDeferred(1);
  const unsigned sizes[] = {0, 24};
  for (unsigned size : sizes) {
    SCOPED_TRACE(size);
    ClearRecords();
    void* p = MemAlloc(size);
    MemFree(p);
    EXPECT_EQ(Counted(), std::make_pair(0, 0));
    MemFree(p);
    EXPECT_EQ(MemSize(p), 0u);
    EXPECT_EQ(MemRealloc(p, 10), p);
    EXPECT_EQ(Asserted(), "memutil-249 memutil-283 memutil-202");
    // The counters moved only once.
    EXPECT_EQ(Counted(), std::make_pair(0, 0));
  }
  USetHeapFreeDeferred(0);
}

struct HeapFaultRow {
  bool realloc;
  UCall failCall;
  int failRepeat;
  bool validateFails;
  const char* lines;
  const char* assertions;
  bool succeeds;
};

// Refused once, the heap is asked again (after a failed validation, which is
// logged); refused twice, the call asserts. A refused reallocation falls
// back to a new block and, that refused too, keeps the old one.
TEST_F(MemTest, HeapRefusalsRetryOnceThenAssert) {
  const char* invalid = "514 MemAlloc: HeapValidate failed\n";
  const HeapFaultRow rows[] = {{false, UCall::kHeapAlloc, 1, false, "", "", true},
                               {false, UCall::kHeapAlloc, 1, true, invalid, "", true},
                               {false, UCall::kHeapAlloc, 2, false, "", "memutil-163", false},
                               {true, UCall::kHeapReAlloc, 1, false, "", "", true},
                               {true, UCall::kHeapReAlloc, 1, true, invalid, "", true},
                               {true, UCall::kHeapAlloc, 1, false, "", "memutil-215", false}};
  for (const HeapFaultRow& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.realloc << row.failRepeat << row.validateFails);
    auto* old = static_cast<unsigned char*>(MemAlloc(64));
    for (int i = 0; i < 64; ++i) old[i] = static_cast<unsigned char>(0x40 + i);
    ClearRecords();
    if (row.realloc && row.failCall == UCall::kHeapAlloc) UFailCall(UCall::kHeapReAlloc, 1, 8);
    UFailCall(row.failCall, 1, 8, row.failRepeat);
    if (row.validateFails) UFailCall(UCall::kHeapValidate, 1, 1);
    void* p = row.realloc ? MemRealloc(old, 200) : MemAlloc(200);
    UClearFaults();
    EXPECT_EQ(Logged(), row.lines);
    EXPECT_EQ(Asserted(), row.assertions);
    if (row.realloc) {
      auto* q = static_cast<unsigned char*>(p);
      ASSERT_NE(q, nullptr);
      const unsigned size = row.succeeds ? 200 : 64;
      EXPECT_EQ(MemSize(q), size);
      for (int i = 0; i < 64; ++i) ASSERT_EQ(q[i], 0x40 + i) << i;
      EXPECT_TRUE(AllZero(q + 64, size - 64));
      EXPECT_EQ(Counted(), std::make_pair(1, static_cast<int>(size)));
      MemFree(q);
    } else {
      EXPECT_EQ(p != nullptr, row.succeeds);
      EXPECT_EQ(Counted(), std::make_pair(row.succeeds ? 2 : 1, row.succeeds ? 264 : 64));
      MemFree(p);
      MemFree(old);
    }
    EXPECT_EQ(Counted(), std::make_pair(0, 0));
  }
}

TEST_F(MemTest, MemPackLogsFailedValidation) {
  MemPack();
  EXPECT_EQ(Logged(), "");
  UFailCall(UCall::kHeapValidate, 1, 1);
  MemPack();
  EXPECT_EQ(Logged(), "514 MemPack: HeapValidate failed\n");
}

TEST_F(MemTest, CountersHoldUnderConcurrentUse) {
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::mt19937 rng(static_cast<unsigned>(t));
      std::vector<void*> mine;
      for (int i = 0; i < 20000; ++i) {
        if (mine.size() < 50 && (rng() % 3 != 0 || mine.empty())) {
          mine.push_back(MemAlloc(rng() % 512));
        } else if (rng() % 2 == 0) {
          const std::size_t k = rng() % mine.size();
          mine[k] = MemRealloc(mine[k], rng() % 1024);
        } else {
          MemFree(mine.back());
          mine.pop_back();
        }
      }
      for (void* p : mine) MemFree(p);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(Counted(), std::make_pair(0, 0));
  EXPECT_EQ(Asserted(), "");
}

// Random moves (overlapping either way), fills, zeroing and comparisons on
// one buffer, done alike by the C library on a copy. Fills use two values
// so that comparisons find equal ranges too.
TEST_F(MemTest, BlockOperationsMatchTheCLibrary) {
  std::mt19937 rng(5);
  unsigned char buf[64], model[64];
  for (int i = 0; i < 64; ++i) buf[i] = model[i] = static_cast<unsigned char>(i);
  int equal = 0, compared = 0;
  for (int step = 0; step < 4000; ++step) {
    SCOPED_TRACE(step);
    const unsigned a = rng() % 64, b = rng() % 64;
    const unsigned n = rng() % (65 - std::max(a, b));
    const auto value = static_cast<unsigned char>(rng() % 2 ? 0x5A : 0);
    switch (rng() % 4) {
      case 0:
        BlockMove(buf + a, buf + b, n);
        std::memmove(model + b, model + a, n);
        break;
      case 1:
        BlockFill(buf + a, n, value);
        std::memset(model + a, value, n);
        break;
      case 2:
        ZeroFill(buf + a, n);
        std::memset(model + a, 0, n);
        break;
      default: {
        const int same = std::memcmp(model + a, model + b, n) == 0 ? 1 : 0;
        ASSERT_EQ(EqualBlock(buf + a, buf + b, n), same);
        equal += same;
        ++compared;
      }
    }
    ASSERT_EQ(std::memcmp(buf, model, 64), 0);
  }
  EXPECT_GT(equal, compared / 10);
  EXPECT_LT(equal, compared);
}

TEST_F(MemTest, CeilingAndFloor) {
  struct Row {
    unsigned value, multiple, ceiling, floor;
  };
  const Row rows[] = {{0, 8, 0, 0},  {1, 8, 8, 0},      {8, 8, 8, 8},
                      {9, 8, 16, 8}, {100, 7, 105, 98}, {5, 0, 5, 5}};
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.value << " by " << r.multiple);
    EXPECT_EQ(Ceiling(r.value, r.multiple), r.ceiling);
    EXPECT_EQ(Floor(r.value, r.multiple), r.floor);
  }
}

UMEMORYSTATUS Status(std::size_t total, std::size_t avail) {
  UMEMORYSTATUS s{};
  s.dwTotalPhys = total;
  s.dwAvailPhys = avail;
  s.dwTotalVirtual = std::size_t{1} << 47;
  s.dwAvailVirtual = std::size_t{1} << 46;
  return s;
}

TEST_F(MemTest, MemAvailBudgets) {
  constexpr std::size_t kMB = 1 << 20;
  for (const auto& r : ReadTsv("memavail.tsv")) {
    SCOPED_TRACE(r[0]);
    const UMEMORYSTATUS s = Status(std::stoul(r[1]) * kMB, std::stoul(r[2]) * kMB);
    USetGlobalMemoryStatusOverride(&s);
    EXPECT_EQ(MemAvail(static_cast<short>(std::stoi(r[3])), std::stoi(r[4])), std::stoul(r[5]));
  }
  EXPECT_EQ(Asserted(), "");

  const UMEMORYSTATUS s = Status(8 * kMB, 4 * kMB);
  USetGlobalMemoryStatusOverride(&s);
  EXPECT_EQ(MemAvail(0, 101), 2097100u);
  EXPECT_EQ(MemAvail(0, -1), 0u);
  EXPECT_EQ(Asserted(), "memutil-332 memutil-332");
}

TEST_F(MemTest, MemAvailSearchesBelowTheBudget) {
  constexpr std::size_t kMB = 1 << 20;
  const UMEMORYSTATUS s = Status(1024 * kMB, 256 * kMB);  // kind 0 budget 528482300
  USetGlobalMemoryStatusOverride(&s);
  struct Row {
    std::size_t limit;
    unsigned expected;
  };
  // Worked by hand from the halving search: x = 264241150, step 264241150,
  // minimum step 33030143.
  const Row rows[] = {
      {528482300, 528482300},  // the budget itself fits
      {100000000, 66060288},   // 264241150 no, 132120575 no, 66060288 yes
      {300000000, 264241150},  // 264241150 yes, 396361725 no, 330301438 no
      {500000000, 462422012},  // 264241150, 396361725, 462422012 yes
      {4096, 0},               // nothing fits: the step runs down below 4097
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.limit);
    USetVirtualReserveLimit(r.limit);
    const unsigned got = MemAvail(0, 100);
    EXPECT_EQ(got, r.expected);
    EXPECT_LE(got, r.limit);
  }
  // Kind 1 holds 32 MB aside: with reservations limited below it, the hold
  // fails and the search goes on without it.
  USetVirtualReserveLimit(0x1000000);
  const UMEMORYSTATUS big = Status(2048 * kMB, 1 * kMB);  // kind 1 budget 1073741800
  USetGlobalMemoryStatusOverride(&big);
  // 536870900 halved down to 67108863 without a hit, then on below the
  // minimum step until 8388610 fits.
  EXPECT_EQ(MemAvail(1, 100), 8388610u);
}

// The address space is probed only when less than a terabyte would be left
// beside the budget (and kind 1's 32 MB): here every reservation is refused,
// so a probe answers 0 and a skipped one the budget.
TEST_F(MemTest, MemAvailProbesOnlyWhenAddressSpaceRunsShort) {
  constexpr std::size_t kMB = 1 << 20;
  constexpr std::size_t kTB = std::size_t{1} << 40;
  struct Row {
    std::size_t availVirtual;
    short kind;
    unsigned expected;
  };
  // Kind 0 budget 528482300, kind 1 budget 1073741800.
  const Row rows[] = {
      {std::size_t{1} << 46, 0, 528482300},
      {kTB + 528482300, 0, 528482300},
      {kTB + 528482299, 0, 0},
      {kTB + 1073741800 + 32 * kMB, 1, 1073741800},
      {kTB + 1073741800, 1, 0},
  };
  UFailCall(UCall::kVirtualReserve, 1, 8, -1);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.availVirtual);
    UMEMORYSTATUS s = Status(1024 * kMB, 256 * kMB);
    s.dwAvailVirtual = r.availVirtual;
    USetGlobalMemoryStatusOverride(&s);
    EXPECT_EQ(MemAvail(r.kind, 100), r.expected);
  }
  UClearFaults();
}

TEST_F(MemTest, MemDebugReportAndBreaks) {
  constexpr std::size_t kMB = 1 << 20;
  const UMEMORYSTATUS s = Status(1024 * kMB, 256 * kMB);
  USetGlobalMemoryStatusOverride(&s);
  TMemory block(1);
  ASSERT_EQ(block.SetSize(5000), 0);  // one heap block of 5,000 bytes in the TMemory lines
  MemDebug(0);  // the first report sets up what the library keeps for good (its string lists)
  void* keep = MemAlloc(3000);
  const int blocks = MemBlockCount();
  const unsigned bytes = static_cast<unsigned>(MemByteCount());
  const int breaks = UDebugBreakCount();
  ClearRecords();
  MemDebug(0);
  std::vector<std::string> seen;
  for (const LogLine& l : Lines()) seen.push_back(std::to_string(l.level) + " " + l.format);
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "513 " /* a blank line */, "513 Memory Status at %~D...",
                      "513 TMemory:     heap %6~d %9K", "513           virtual %6~d %9K",
                      "513            commit        %9K", "513         purgeable %6~d %9K",
                      "513         requested %6~d %9K", "513 Utility:     heap %6~d %9K",
                      "513         available        %9K", "513       requestable        %9K",
                      "513        bufferable        %9K"}));
  ASSERT_EQ(Lines().size(), 11u);
  EXPECT_EQ(Lines()[7].text, Fmt(u"Utility:     heap %6~d %9K", blocks, bytes >> 10));
  // The heading carries the date and time of the report.
  USetTimeZone("UTC0");
  const UFILETIME noon{0x2A8E4000u, 0x01DB7E2Cu};  // a fixed instant
  USetClockOverride(&noon);
  ClearRecords();
  MemDebug(0);
  USetClockOverride(nullptr);
  USetTimeZone(nullptr);
  const TDate when(&noon);
  ASSERT_GE(Lines().size(), 2u);
  EXPECT_EQ(Lines()[1].text, "Memory Status at " + Fmt(u"%~D", &when) + "...");
  EXPECT_EQ(UDebugBreakCount(), breaks);
  MemFree(keep);

  ClearRecords();
  MemDebug(static_cast<int>(kMemDebugLast));
  EXPECT_EQ(Logged(), "");
  EXPECT_EQ(UDebugBreakCount(), breaks);
  MemDebug(1);
  EXPECT_EQ(UDebugBreakCount(), breaks + 1);
  EXPECT_EQ(Logged(), "");
}

TEST_F(MemTest, NullBlocksAssertAndAreLeftAlone) {
  unsigned char b[4] = {1, 2, 3, 4};
  BlockMove(nullptr, b, 4);
  BlockMove(b, nullptr, 4);
  BlockFill(nullptr, 4, 9);
  ZeroFill(nullptr, 4);
  EXPECT_EQ(EqualBlock(b, nullptr, 4), 0);
  BlockMove(nullptr, nullptr, 0);  // nothing to do, nothing to say
  EXPECT_EQ(Asserted(), "memutil-364 memutil-364 memutil-377 memutil-389 memutil-402");
  EXPECT_EQ(b[0] + b[3], 5);
}

}  // namespace
