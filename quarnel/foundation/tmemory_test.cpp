#include "quarnel/foundation/tmemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/locale.h"
#include "quarnel/platform/vmem.h"
#include "tests/support/helpers.h"

namespace {

constexpr unsigned kKiB = 1024;
constexpr unsigned kMiB = 1024 * 1024;
constexpr std::size_t kBigMiB = std::size_t{1} << 20;
constexpr unsigned kAny = ~0u;

unsigned Align8(unsigned v) { return (v + 7u) & ~7u; }

unsigned char PatternByte(unsigned seed, unsigned i) {
  return static_cast<unsigned char>((seed * 131u) ^ (i * 7u) ^ (i >> 9));
}

// Blocks are filled with a pattern that repeats every 4,093 bytes (a prime,
// so that bytes moved by whole pages do not read the same), written and
// checked a period at a time.
constexpr unsigned kPeriod = 4093;

std::vector<unsigned char> PatternRow(unsigned seed, bool zero = false) {
  std::vector<unsigned char> row(2 * kPeriod, 0);
  for (unsigned k = 0; k < row.size() && !zero; ++k) row[k] = PatternByte(seed, k % kPeriod);
  return row;
}

void Fill(TMemory& m, unsigned seed) {
  const std::vector<unsigned char> row = PatternRow(seed);
  for (unsigned i = 0; i < m.GetSize(); i += kPeriod)
    std::memcpy(m.MemPtr() + i, row.data(), std::min(kPeriod, m.GetSize() - i));
}

// Index of the first byte in [from, to) that differs from the pattern (or
// from zero when `zero`), or -1.
long FirstMismatch(const TMemory& m, unsigned seed, unsigned from, unsigned to, bool zero = false) {
  const std::vector<unsigned char> row = PatternRow(seed, zero);
  for (unsigned i = from; i < to;) {
    const unsigned n = std::min(to - i, kPeriod - i % kPeriod);
    const unsigned char* want = row.data() + i % kPeriod;
    if (std::memcmp(m.MemPtr() + i, want, n) != 0) {
      for (unsigned k = 0; k < n; ++k) {
        if (m.MemPtr()[i + k] != want[k]) return static_cast<long>(i + k);
      }
    }
    i += n;
  }
  return -1;
}
long FirstNonZero(const TMemory& m, unsigned from, unsigned to) {
  return FirstMismatch(m, 0, from, to, true);
}

using Stats = std::vector<long long>;

Stats Of(const TMemoryStats& s) {
  return {s.heapBlocks,      s.heapBytes,      s.virtualBlocks,   s.reservedBytes, s.committedBytes,
          s.purgeableBlocks, s.purgeableBytes, s.requestedBlocks, s.requestedBytes};
}

// The counters a set of live blocks accounts for, read off the blocks, in the
// order of Of().
Stats Sum(const std::vector<const TMemory*>& blocks) {
  Stats s(9, 0);
  for (const TMemory* b : blocks) {
    if (!b->IsInline()) {
      const bool virt = b->ReservedBytes() != 0;
      s[virt ? 2 : 0] += 1;
      s[1] += virt ? 0 : Align8(b->GetSize());
      s[3] += b->ReservedBytes();
      s[4] += b->CommittedBytes();
      s[7] += 1;
      s[8] += b->GetSize();
    }
    if (b->GetFlags() & kTMemPurgeable) {
      s[5] += 1;
      s[6] += b->GetSize();
    }
  }
  return s;
}

class TMemoryTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    env_->lcid = kLcidEnUs;
    env_->acp = 65001;
    SetMachine(8192 * kBigMiB, 4096 * kBigMiB);
    base_ = Of(tmemGetStats());
    ASSERT_EQ(base_[6], 0);
    ClearRecords();
  }
  void TearDown() override {
    EXPECT_EQ(Of(tmemGetStats()), base_) << "blocks left behind";
    RecordingTest::TearDown();
  }

  // The machine as GlobalMemoryStatus reports it: MemAvail's budget and the
  // available-memory figure of the denial rule follow it.
  void SetMachine(std::size_t total, std::size_t avail) {
    status_ = UMEMORYSTATUS{};
    status_.dwTotalPhys = total;
    status_.dwAvailPhys = avail;
    status_.dwTotalVirtual = std::size_t{1} << 47;
    status_.dwAvailVirtual = std::size_t{1} << 46;
    USetGlobalMemoryStatusOverride(&status_);
  }

  // The counters since SetUp equal what `blocks` account for.
  void ExpectCounters(const std::vector<const TMemory*>& blocks) {
    Stats now = Of(tmemGetStats());
    for (std::size_t i = 0; i < now.size(); ++i) now[i] -= base_[i];
    EXPECT_EQ(now, Sum(blocks));
  }

  ScopedEnv env_;
  UnitLetters units_;
  Stats base_;
  UMEMORYSTATUS status_{};
};

// Each group resizes one block step by step: where its storage lives, how
// much is reserved and committed (twice the commitment, in 8 MiB steps), and
// whether it stayed in place. Bytes up to the smaller size survive; growth
// into another 8-byte step reads zero.
TEST_F(TMemoryTest, StorageFollowsTheSize) {
  enum Where { kInline, kHeap, kVirtual };
  struct Step {
    unsigned size;
    Where where;
    unsigned reserved = 0, committed = 0;
    bool inPlace = false;
  };
  const std::vector<std::pair<short, std::vector<Step>>> groups = {
      {1,
       {{1000, kInline},
        {1100, kHeap},
        {2 * kMiB, kVirtual, 8 * kMiB, 2 * kMiB},
        {1024, kVirtual, 8 * kMiB, 2 * kMiB, true},  // shrinking keeps the pages
        {0, kInline}}},
      {1, {{kMiB, kHeap}, {kMiB + 1, kVirtual, 8 * kMiB, 1536 * kKiB}}},
      {1,
       {{2 * kMiB, kVirtual, 8 * kMiB, 2 * kMiB},
        {3 * kMiB, kVirtual, 8 * kMiB, 3 * kMiB, true},
        {8 * kMiB, kVirtual, 8 * kMiB, 8 * kMiB, true},
        {8 * kMiB + 1, kVirtual, 24 * kMiB, 8704 * kKiB}}},
      {2, {{4 * kMiB + 1, kVirtual, 16 * kMiB, 4608 * kKiB}}},
      {1, {{12 * kMiB, kVirtual, 24 * kMiB, 12 * kMiB}}},
      // Priority 0 is virtual whatever the size.
      {0, {{10, kVirtual, 8 * kMiB, 512 * kKiB}, {1024, kVirtual, 8 * kMiB, 512 * kKiB, true}}},
      // Shrunk, then grown past the reservation: what it held past the small
      // size does not come back, whether its pages are copied or moved whole.
      {1,
       {{6 * kMiB, kVirtual, 16 * kMiB, 6 * kMiB},
        {1000, kVirtual, 16 * kMiB, kAny, true},
        {17 * kMiB, kVirtual, 40 * kMiB, kAny}}},
      {1,
       {{6 * kMiB, kVirtual, 16 * kMiB, 6 * kMiB},
        {102401, kVirtual, 16 * kMiB, kAny, true},
        {17 * kMiB, kVirtual, 40 * kMiB, kAny}}},
  };
  unsigned seed = 0;
  for (const auto& [priority, steps] : groups) {
    TMemory m(priority);
    for (const Step& s : steps) {
      SCOPED_TRACE(::testing::Message() << "priority " << priority << " size " << s.size);
      Fill(m, ++seed);
      const unsigned old = m.GetSize();
      const unsigned char* where = m.MemPtr();
      ASSERT_EQ(m.SetSize(s.size), 0);
      EXPECT_EQ(m.IsInline(), s.where == kInline);
      EXPECT_EQ(m.ReservedBytes(), s.reserved);
      if (s.committed != kAny) {
        EXPECT_EQ(m.CommittedBytes(), s.committed);
      }
      if (s.inPlace) {
        EXPECT_EQ(m.MemPtr(), where);
      }
      EXPECT_EQ(FirstMismatch(m, seed, 0, std::min(old, s.size)), -1);
      EXPECT_EQ(FirstNonZero(m, old, s.size), -1);
      ExpectCounters({&m});
    }
  }
  EXPECT_EQ(Logged(), "");
  EXPECT_EQ(Asserted(), "");
}

// The model test covers the purge order and its targets at random; this pins
// the amount in the log line and the flags a purged block keeps.
TEST_F(TMemoryTest, GrowthPastTheAllowancePurgesOldestFirst) {
  // MemAvail(1, 100) is then 100 MiB: a margin of 4 MiB over the 96 MiB kept
  // free.
  SetMachine(100 * kBigMiB, 1024 * kBigMiB);
  TMemory p1(1), p2(1), p3(1), x(1);
  for (TMemory* p : {&p1, &p2, &p3}) {
    ASSERT_EQ(p->SetSize(512 * kKiB), 0);
    Fill(*p, 22);
    EXPECT_EQ(p->SetFlags(kTMemPurgeable | 0x40, 0), kTMemPurgeable | 0x40);
  }
  // need = requested + growth - purgeable; allowance = 60% of (margin -
  // need), here 786,420 bytes: the two oldest blocks go, the third stays.
  ASSERT_EQ(x.SetSize((2883584u - static_cast<unsigned>(base_[8])) & ~7u), 0);
  EXPECT_EQ(Logged(), "517 tmemPurgeBlocks: purged 1 K (2 blocks)\n");
  EXPECT_EQ(p1.GetSize() + p2.GetSize(), 0u);
  EXPECT_TRUE(p1.IsInline());
  EXPECT_EQ(p1.GetFlags(), kTMemPurgeable | 0x40);  // purged blocks keep their flags
  EXPECT_EQ(FirstMismatch(p3, 22, 0, 512 * kKiB), -1);
  ExpectCounters({&p1, &p2, &p3, &x});
  for (TMemory* p : {&p1, &p2, &p3}) EXPECT_EQ(p->SetFlags(0, ~0u), 0u);
  ExpectCounters({&p1, &p2, &p3, &x});
}

TEST_F(TMemoryTest, DenialLeavesTheBlockUntouched) {
  SetMachine(8192 * kBigMiB, 64 * kBigMiB);
  for (short priority : {short{0}, short{1}}) {
    SCOPED_TRACE(priority);
    ClearRecords();
    TMemory m(priority);
    ASSERT_EQ(m.SetSize(2 * kMiB), 0);
    Fill(m, 30);
    const unsigned char* where = m.MemPtr();
    const Stats before = Of(tmemGetStats());

    EXPECT_EQ(m.SetSize(100 * kMiB), kErrMemNotObtained);
    EXPECT_EQ(m.CheckError(), kErrMemNotObtained);
    EXPECT_EQ(m.GetSize(), 2 * kMiB);
    EXPECT_EQ(m.MemPtr(), where);
    EXPECT_EQ(m.CommittedBytes(), 2 * kMiB);
    EXPECT_EQ(FirstMismatch(m, 30, 0, 2 * kMiB), -1);
    EXPECT_EQ(Of(tmemGetStats()), before);
    EXPECT_EQ(Logged(),
              "516 TMemory::mhalloc: denied (requested: 104857600, current: 2097152, physical "
              "memory available: 67108864)\n517 TMemory::SetSize: priority " +
                  std::to_string(priority) + " failed from 2 K to 100 K\n");
    EXPECT_EQ(Asserted(), "");

    // A required call for this once is exempt, and the block's own priority
    // is kept.
    EXPECT_EQ(m.SetSize(100 * kMiB, 2), 0);
    EXPECT_EQ(m.GetPriority(), priority);
    EXPECT_EQ(FirstMismatch(m, 30, 0, 2 * kMiB), -1);
    EXPECT_EQ(m.CheckError(), 0);
  }

  // The inline area is never denied; the figure is read afresh at each check.
  SetMachine(8192 * kBigMiB, 0);
  TMemory small(1);
  EXPECT_EQ(small.SetSize(800), 0);
  QuarnelEnv()->availPhysMemory = 0;
  SetMachine(8192 * kBigMiB, 64 * kBigMiB);
  EXPECT_EQ(small.SetSize(3 * kMiB), 0);
  EXPECT_EQ(QuarnelAvailPhysMemory(), 64 * kBigMiB);
}

TEST_F(TMemoryTest, AllocBufferResults) {
  for (const auto& r : ReadTsv("tmemory_allocbuffer.tsv")) {
    SCOPED_TRACE(r[0] + " " + r[1] + " " + r[2] + " " + r[3]);
    ClearRecords();
    TMemory m(static_cast<short>(std::stoi(r[0])));
    ASSERT_EQ(m.SetSize(100), 0);
    EXPECT_EQ(m.AllocBuffer(std::stoul(r[1]), std::stoul(r[2]), std::stoul(r[3])),
              std::stoul(r[4]));
    EXPECT_EQ(m.GetSize(), std::stoul(r[5]));
    EXPECT_EQ(m.CheckError(), std::stoi(r[6]));
    EXPECT_EQ(Asserted(), r[7]);
    EXPECT_EQ(Logged(), "");
    ExpectCounters({&m});
  }

  // Priorities 1 and 2 measure 100 MiB here (the total), priority 0 half of
  // the larger of the available memory and the total less 16 MB.
  SetMachine(100 * kBigMiB, 1024 * kBigMiB);
  for (auto [priority, result] : {std::pair{2, 100 * kMiB}, {1, 100 * kMiB}, {0, 511 * kMiB}}) {
    SCOPED_TRACE(priority);
    TMemory m(static_cast<short>(priority));
    EXPECT_EQ(m.AllocBuffer(kMiB, 1024 * kMiB, kMiB), result);
    EXPECT_EQ(m.GetSize(), result);
    ExpectCounters({&m});
  }

  // Sizes above the physical-memory figure are denied: after the first
  // denial the search goes straight to the largest size below the figure.
  SetMachine(8192 * kBigMiB, 32 * kBigMiB);
  ClearRecords();
  TMemory m(1);
  EXPECT_EQ(m.AllocBuffer(kMiB, 256 * kMiB, kMiB), 32 * kMiB);
  EXPECT_EQ(Logged(),
            "516 TMemory::mhalloc: denied (requested: 268435456, current: 0, physical memory "
            "available: 33554432)\n");
}

TEST_F(TMemoryTest, AllocBufferFallbackAndFailure) {
  // Priority 0 gets no virtual memory; its priority-1 fallback on the heap
  // succeeds and the result is lo - granularity, below the minimum. The
  // address space is short, so MemAvail probes it and finds nothing.
  status_.dwAvailVirtual = std::size_t{1} << 36;
  USetGlobalMemoryStatusOverride(&status_);
  UFailCall(UCall::kVirtualReserve, 1, 8, -1);
  TMemory zero(0);
  EXPECT_EQ(zero.AllocBuffer(64 * kKiB, 16 * kKiB, 4 * kKiB), 12 * kKiB);
  EXPECT_EQ(zero.GetSize(), 16 * kKiB);
  EXPECT_EQ(zero.CheckError(), 0);
  EXPECT_EQ(zero.ReservedBytes(), 0u);
  EXPECT_EQ(Logged(),
            "517 tmemPurgeBlocks: purged Zero K (0 blocks)\n"
            "514 TMemory::mhalloc: VirtualAlloc(1 K, MEM_RESERVE) failed, error 8\n");

  // A required block that gets nothing asserts.
  ClearRecords();
  TMemory two(2);
  EXPECT_EQ(two.AllocBuffer(2 * kMiB, 4 * kMiB, kMiB), 0u);
  EXPECT_EQ(two.CheckError(), kErrMemNotObtained);
  EXPECT_EQ(two.GetSize(), 0u);
  EXPECT_EQ(Logged(),
            "517 tmemPurgeBlocks: purged Zero K (0 blocks)\n"
            "514 TMemory::mhalloc: VirtualAlloc(2 K, MEM_RESERVE) failed, error 8\n"
            "514 TMemory::AllocBuffer(2 K, 4 K, 0x100000) failed\n");
  EXPECT_EQ(Asserted(), "tmemory-662");
  ExpectCounters({&zero, &two});
}

// A failing platform call leaves size, storage and bytes as they were.
TEST_F(TMemoryTest, FailedCallsLeaveTheBlockAsItWas) {
  const std::string noPurge = "517 tmemPurgeBlocks: purged Zero K (0 blocks)\n";
  for (const auto& r : ReadTsv("tmemory_failedcalls.tsv")) {
    SCOPED_TRACE(r[4]);
    const short priority = static_cast<short>(std::stoi(r[0]));
    const unsigned from = std::stoul(r[1]), to = std::stoul(r[2]);
    const bool reserve = r[3] == "reserve";
    TMemory m(priority);
    ASSERT_EQ(m.SetSize(from), 0);
    Fill(m, 40);
    const unsigned char* where = m.MemPtr();
    const unsigned reserved = m.ReservedBytes();
    const unsigned committed = m.CommittedBytes();
    const Stats before = Of(tmemGetStats());
    ClearRecords();

    UFailCall(reserve ? UCall::kVirtualReserve : UCall::kVirtualCommit, 1, 8, reserve ? -1 : 1);
    EXPECT_EQ(m.SetSize(to), kErrMemNotObtained);
    UClearFaults();
    EXPECT_EQ(m.CheckError(), kErrMemNotObtained);
    EXPECT_EQ(m.GetSize(), from);
    EXPECT_EQ(m.MemPtr(), where);
    EXPECT_EQ(m.ReservedBytes(), reserved);
    EXPECT_EQ(m.CommittedBytes(), committed);
    EXPECT_EQ(FirstMismatch(m, 40, 0, from), -1);
    EXPECT_EQ(Of(tmemGetStats()), before);
    EXPECT_EQ(Logged(), (reserve ? noPurge : "") + r[4] + "\n" + r[5] + "\n");
    EXPECT_EQ(Asserted(), priority == 2 ? "tmemory-574" : "");
    // The same resize succeeds once the platform gives memory again.
    EXPECT_EQ(m.SetSize(to), 0);
    EXPECT_EQ(FirstMismatch(m, 40, 0, from), -1);
    ExpectCounters({&m});
  }
}

// A platform call refused once or twice: the resize still succeeds, on the
// heap or in virtual memory, with the bytes it held.
TEST_F(TMemoryTest, FallbacksWhenThePlatformRefusesOnce) {
  const std::string noPurge = "517 tmemPurgeBlocks: purged Zero K (0 blocks)\n";
  const struct {
    unsigned from, to;
    UCall call;
    int times;
    unsigned reserved, committed;
    std::string lines;
  } rows[] = {
      // The heap refuses twice: the block goes to virtual memory.
      {500, 5000, UCall::kHeapAlloc, 2, 8 * kMiB, 512 * kKiB,
       noPurge + "516 TMemory::mhalloc: MemHeap[Re]Alloc(5,000) failed\n"},
      // Once: the retry gets it.
      {900, 3000, UCall::kHeapAlloc, 1, 0, 0, noPurge},
      // A heap block whose reallocation fails moves to virtual memory.
      {3000, 9000, UCall::kHeapReAlloc, 2, 8 * kMiB, 512 * kKiB,
       noPurge + "516 TMemory::mhalloc: MemHeap[Re]Alloc(9,000) failed\n"},
      // The doubled reservation is refused, the bare commitment is not. (With
      // the machine's ample address space MemAvail reserves nothing.)
      {0, 2 * kMiB, UCall::kVirtualReserve, 1, 2 * kMiB, 2 * kMiB, noPurge},
  };
  unsigned seed = 50;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.to);
    TMemory m(1);
    ASSERT_EQ(m.SetSize(row.from), 0);
    Fill(m, ++seed);
    ClearRecords();
    UFailCall(row.call, 1, 8, row.times);
    ASSERT_EQ(m.SetSize(row.to), 0);
    UClearFaults();
    EXPECT_EQ(m.ReservedBytes(), row.reserved);
    EXPECT_EQ(m.CommittedBytes(), row.committed);
    EXPECT_EQ(FirstMismatch(m, seed, 0, row.from), -1);
    EXPECT_EQ(FirstNonZero(m, row.from, row.to), -1);
    EXPECT_EQ(Logged(), row.lines);
    ExpectCounters({&m});
  }
}

TEST_F(TMemoryTest, MisuseAssertsAndGoesOn) {
  {
    TMemory m(5);
    EXPECT_EQ(m.GetPriority(), 5);
    EXPECT_EQ(m.SetSize(5000), 0);  // anything but 0 may use the heap
    EXPECT_EQ(m.ReservedBytes(), 0u);
    EXPECT_EQ(Asserted(), "tmemory-62");
  }
  EXPECT_EQ(Asserted(), "tmemory-62 tmemory-95");
  ClearRecords();
  TMemory q;
  EXPECT_EQ(q.GetPriority(), 2);
  EXPECT_EQ(q.SetPriority(-3), 0);
  EXPECT_EQ(q.GetPriority(), -3);
  EXPECT_EQ(q.SetPriority(1), 0);
  EXPECT_EQ(Asserted(), "tmemory-62");

  // Resizing a purgeable block asserts, then resizes; no purge it causes
  // empties the block itself, so the purge runs out of blocks (with no margin
  // the allowance is 0).
  SetMachine(50 * kBigMiB, 1024 * kBigMiB);
  ClearRecords();
  ASSERT_EQ(q.SetSize(600 * kKiB), 0);
  Fill(q, 60);
  q.SetFlags(kTMemPurgeable, 0);
  EXPECT_EQ(q.SetSize(700 * kKiB), 0);
  EXPECT_EQ(q.GetSize(), 700 * kKiB);
  EXPECT_EQ(FirstMismatch(q, 60, 0, 600 * kKiB), -1);
  EXPECT_EQ(Asserted(), "tmemory-180 tmemory-537");
  EXPECT_EQ(Logged(), "517 tmemPurgeBlocks: purged Zero K (0 blocks)\n");
  ExpectCounters({&q});

  // Emptying a purgeable block is allowed.
  ClearRecords();
  EXPECT_EQ(q.SetSize(0), 0);
  EXPECT_EQ(Asserted(), "");
  ExpectCounters({&q});
  q.SetFlags(0, kTMemPurgeable);
}

// The model test copies bytes at random, itself included; this pins the
// priority and a copy that cannot size its target.
TEST_F(TMemoryTest, CopiesTakePriorityAndBytes) {
  TMemory source(1);
  ASSERT_EQ(source.SetSize(3000), 0);
  TMemory target(0);
  target = source;
  EXPECT_EQ(target.GetPriority(), 1);

  TMemory big(1);
  ASSERT_EQ(big.SetSize(2 * kMiB), 0);
  TMemory small(1);
  ASSERT_EQ(small.SetSize(100), 0);
  Fill(small, 71);
  UFailCall(UCall::kVirtualCommit, 1, 8);
  small = big;
  EXPECT_EQ(small.CheckError(), kErrMemNotObtained);
  EXPECT_EQ(small.GetSize(), 100u);
  EXPECT_EQ(FirstMismatch(small, 71, 0, 100), -1);
  ExpectCounters({&source, &target, &big, &small});
}

// Random operations on a few blocks, checked against a model of their bytes
// (a resize within the 8-byte step keeps the bytes past the size; one into
// another step reads zero there), their purgeable order and the process-wide
// counters.
TEST_F(TMemoryTest, RandomOperationsMatchTheModel) {
  std::mt19937 rng(12345);
  constexpr int kBlocks = 6;
  struct Model {
    std::vector<unsigned char> bytes;
    std::vector<unsigned char> past;  // known bytes past the size, within its 8-byte step
    bool purgeable = false;
  };
  std::vector<std::unique_ptr<TMemory>> blocks;
  std::vector<const TMemory*> all;
  std::vector<Model> model(kBlocks);
  std::vector<int> order;  // purgeable blocks, oldest first
  for (int i = 0; i < kBlocks; ++i) {
    blocks.push_back(std::make_unique<TMemory>(static_cast<short>(i % 3)));
    all.push_back(blocks.back().get());
  }
  const unsigned limits[] = {1, 1025, kMiB, 3 * kMiB, 64};

  for (int step = 0; step < 1500; ++step) {
    SCOPED_TRACE(step);
    const int i = static_cast<int>(rng() % kBlocks);
    TMemory& m = *blocks[i];
    Model& mm = model[i];
    switch (rng() % 6) {
      case 0:
      case 1: {  // resize and write
        if (mm.purgeable) break;
        unsigned size = rng() % limits[rng() % 5];
        if (rng() % 2 == 0 && m.GetSize() != 0) {  // within its 8-byte step
          const unsigned back = static_cast<unsigned>(mm.past.size());
          size = back != 0 ? m.GetSize() + 1 + rng() % back : Align8(m.GetSize()) - 7 + rng() % 8;
        }
        const unsigned old = m.GetSize();
        ASSERT_EQ(m.SetSize(size), 0);
        const unsigned keep = std::min(old, size);
        ASSERT_TRUE(std::equal(mm.bytes.begin(), mm.bytes.begin() + keep, m.MemPtr()));
        if (Align8(size) != Align8(old)) {
          mm.past.clear();
          if (size > old) {
            ASSERT_EQ(FirstNonZero(m, old, size), -1);
          }
        } else if (size < old) {  // shrunk within its 8-byte step: the bytes stay
          mm.past.insert(mm.past.begin(), mm.bytes.begin() + size, mm.bytes.end());
        } else {  // grown within its step: the bytes it kept come back
          const std::size_t known = std::min<std::size_t>(size - old, mm.past.size());
          ASSERT_TRUE(std::equal(mm.past.begin(), mm.past.begin() + known, m.MemPtr() + old));
          mm.bytes.insert(mm.bytes.end(), m.MemPtr() + old, m.MemPtr() + size);
          mm.past.erase(mm.past.begin(), mm.past.begin() + known);
        }
        mm.bytes.resize(size);
        // Bytes here and there, and every one of the last eight.
        for (unsigned k = 0; k < size;
             k += k + 8 < size ? std::min<unsigned>(1 + rng() % 4096, size - 8 - k) : 1) {
          m.MemPtr()[k] = mm.bytes[k] = static_cast<unsigned char>(rng());
        }
        break;
      }
      case 2:  // purgeable on or off
        if (mm.purgeable) {
          m.SetFlags(0, kTMemPurgeable);
          order.erase(std::find(order.begin(), order.end(), i));
        } else {
          m.SetFlags(kTMemPurgeable, 0);
          order.push_back(i);
        }
        mm.purgeable = !mm.purgeable;
        break;
      case 3: {  // purge to a random target
        unsigned total = 0;
        for (int k : order) total += static_cast<unsigned>(model[k].bytes.size());
        const unsigned target = total == 0 ? 0 : static_cast<unsigned>(rng() % (total + 1));
        int count = 0;
        for (int k : order) {
          if (total <= target) break;
          if (model[k].bytes.empty()) continue;
          total -= static_cast<unsigned>(model[k].bytes.size());
          ++count;
          model[k].bytes.clear();
        }
        ClearRecords();
        tmemPurgeBlocks(target);
        const std::string tail = " K (" + std::to_string(count) + " blocks)\n";
        ASSERT_TRUE(Logged().starts_with("517 tmemPurgeBlocks: purged ")) << Logged();
        ASSERT_TRUE(Logged().ends_with(tail)) << Logged();
        break;
      }
      case 4: {  // copy from another block
        const int j = static_cast<int>(rng() % kBlocks);
        if (mm.purgeable || model[j].purgeable) break;
        m = *blocks[j];
        mm.bytes = model[j].bytes;
        mm.past.clear();
        break;
      }
      default:
        if (!mm.purgeable) {
          m.Zero();
          std::fill(mm.bytes.begin(), mm.bytes.end(), 0);
          mm.past.clear();
        }
        break;
    }
    for (int k = 0; k < kBlocks; ++k) {
      ASSERT_EQ(blocks[k]->GetSize(), model[k].bytes.size()) << "block " << k;
      if (!model[k].bytes.empty()) {
        ASSERT_EQ(std::memcmp(blocks[k]->MemPtr(), model[k].bytes.data(), model[k].bytes.size()), 0)
            << "block " << k;
      }
    }
    ExpectCounters(all);
    ASSERT_EQ(Asserted(), "");
  }
  for (auto& b : blocks) b->SetFlags(0, kTMemPurgeable);
}

// Blocks growing, shrinking and being purged on several threads at once;
// afterwards the counters equal what the live blocks account for.
TEST_F(TMemoryTest, ThreadGrowShrinkPurge) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5;
  std::vector<std::unique_ptr<TMemory>> blocks;
  std::vector<const TMemory*> all;
  for (int i = 0; i < kThreads * kPerThread; ++i) {
    blocks.push_back(std::make_unique<TMemory>(static_cast<short>(1 + i % 2)));
    all.push_back(blocks.back().get());
  }
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1);
      std::vector<unsigned> seeds(kPerThread, 0);
      std::vector<bool> purgeable(kPerThread, false);
      for (int step = 0; step < 300; ++step) {
        const int k = static_cast<int>(rng() % kPerThread);
        TMemory& m = *blocks[t * kPerThread + k];
        switch (rng() % 5) {
          case 0:
          case 1: {
            if (purgeable[k]) break;  // its owner leaves a purgeable block alone
            static const unsigned sizes[] = {0, 100, 900, 5000, 200 * kKiB, 1536 * kKiB, 3 * kMiB};
            const unsigned size = sizes[rng() % 7];
            if (m.SetSize(size) != 0) {
              failures.fetch_add(1);
              break;
            }
            seeds[k] = static_cast<unsigned>(rng());
            for (unsigned i = 0; i < size; i += 997) m.MemPtr()[i] = PatternByte(seeds[k], i);
            break;
          }
          case 2:
            m.SetFlags(kTMemPurgeable, 0);
            purgeable[k] = true;
            break;
          case 3:  // take it back: either purged (size 0) or intact
            if (!purgeable[k]) break;
            m.SetFlags(0, kTMemPurgeable);
            purgeable[k] = false;
            for (unsigned i = 0; i < m.GetSize(); i += 997) {
              if (m.MemPtr()[i] != PatternByte(seeds[k], i)) {
                failures.fetch_add(1);
                break;
              }
            }
            break;
          default:
            tmemPurgeBlocks(static_cast<unsigned>(rng() % (4 * kMiB)));
            tmemGetStats();
            break;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  ExpectCounters(all);
  EXPECT_EQ(Asserted(), "");
  for (auto& b : blocks) b->SetFlags(0, kTMemPurgeable);
}

}  // namespace
