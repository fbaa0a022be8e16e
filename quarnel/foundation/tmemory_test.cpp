#include "quarnel/foundation/tmemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/locale.h"
#include "quarnel/platform/vmem.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

constexpr unsigned kKiB = 1024;
constexpr unsigned kMiB = 1024 * 1024;
constexpr std::size_t kBigMiB = std::size_t{1} << 20;

unsigned Align8(unsigned v) { return (v + 7u) & ~7u; }

// A string list as a resource module carries it: the unit letters of %K and
// the word for zero, so that the log lines read the same on every machine.
std::vector<unsigned char> MakeList(
    const std::vector<std::pair<const char*, std::string>>& entries) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const auto len = static_cast<unsigned short>(4 + text.size());
    bytes.push_back(static_cast<unsigned char>(len & 0xFF));
    bytes.push_back(static_cast<unsigned char>(len >> 8));
    bytes.insert(bytes.end(), tag, tag + 4);
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  bytes.push_back(0xFF);
  bytes.push_back(0xFF);
  return bytes;
}

UMEMORYSTATUS Status(std::size_t total, std::size_t avail) {
  UMEMORYSTATUS s{};
  s.dwTotalPhys = total;
  s.dwAvailPhys = avail;
  s.dwTotalVirtual = std::size_t{1} << 47;
  s.dwAvailVirtual = std::size_t{1} << 46;
  return s;
}

unsigned char PatternByte(unsigned seed, unsigned i) {
  return static_cast<unsigned char>((seed * 131u) ^ (i * 7u) ^ (i >> 9));
}

void Fill(TMemory& m, unsigned seed, unsigned from = 0, unsigned to = ~0u) {
  to = std::min(to, m.GetSize());
  for (unsigned i = from; i < to; ++i) m.MemPtr()[i] = PatternByte(seed, i);
}

// Index of the first byte in [from, to) that differs from the pattern, or -1.
long FirstMismatch(const TMemory& m, unsigned seed, unsigned from, unsigned to) {
  for (unsigned i = from; i < to; ++i) {
    if (m.MemPtr()[i] != PatternByte(seed, i)) return static_cast<long>(i);
  }
  return -1;
}

long FirstNonZero(const TMemory& m, unsigned from, unsigned to) {
  for (unsigned i = from; i < to; ++i) {
    if (m.MemPtr()[i] != 0) return static_cast<long>(i);
  }
  return -1;
}

// The counters a set of live blocks accounts for, read off the blocks.
TMemoryStats Sum(const std::vector<const TMemory*>& blocks) {
  TMemoryStats s{};
  for (const TMemory* b : blocks) {
    if (!b->IsInline()) {
      if (b->ReservedBytes() != 0) {
        s.virtualBlocks += 1;
        s.reservedBytes += b->ReservedBytes();
        s.committedBytes += b->CommittedBytes();
      } else {
        s.heapBlocks += 1;
        s.heapBytes += Align8(b->GetSize());
      }
      s.requestedBlocks += 1;
      s.requestedBytes += b->GetSize();
    }
    if (b->GetFlags() & kTMemPurgeable) {
      s.purgeableBlocks += 1;
      s.purgeableBytes += b->GetSize();
    }
  }
  return s;
}

std::string Describe(const TMemoryStats& s) {
  return "heap " + std::to_string(s.heapBlocks) + "/" + std::to_string(s.heapBytes) + " virtual " +
         std::to_string(s.virtualBlocks) + "/" + std::to_string(s.reservedBytes) + " commit " +
         std::to_string(s.committedBytes) + " purgeable " + std::to_string(s.purgeableBlocks) +
         "/" + std::to_string(s.purgeableBytes) + " requested " +
         std::to_string(s.requestedBlocks) + "/" + std::to_string(s.requestedBytes);
}

TMemoryStats Minus(const TMemoryStats& a, const TMemoryStats& b) {
  return {a.heapBlocks - b.heapBlocks,         a.heapBytes - b.heapBytes,
          a.virtualBlocks - b.virtualBlocks,   a.reservedBytes - b.reservedBytes,
          a.committedBytes - b.committedBytes, a.purgeableBlocks - b.purgeableBlocks,
          a.purgeableBytes - b.purgeableBytes, a.requestedBlocks - b.requestedBlocks,
          a.requestedBytes - b.requestedBytes};
}

class TMemoryTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    saved_ = *QuarnelEnv();
    QuarnelEnv()->lcid = kLcidEnUs;
    QuarnelEnv()->acp = 65001;
    list_ = MakeList({{"KMkm", "KMGkmg"}, {"Zero", "Zero"}});
    RMAddHostKList(16000, list_.data(), static_cast<int>(list_.size()));
    SetMachine(8192 * kBigMiB, 4096 * kBigMiB);
    base_ = tmemGetStats();
    ASSERT_EQ(base_.purgeableBytes, 0u);
    ClearRecords();
  }
  void TearDown() override {
    UClearFaults();
    USetVirtualReserveLimit(0);
    EXPECT_EQ(Describe(tmemGetStats()), Describe(base_)) << "blocks left behind";
    USetGlobalMemoryStatusOverride(nullptr);
    RMAddHostKList(16000, nullptr, 0);
    QuarnelSetEnv(saved_);
    RecordingTest::TearDown();
  }

  // The machine as GlobalMemoryStatus reports it: MemAvail's budget and the
  // available-memory figure of the denial rule follow it.
  void SetMachine(std::size_t total, std::size_t avail) {
    status_ = Status(total, avail);
    USetGlobalMemoryStatusOverride(&status_);
  }

  // The counters since SetUp equal what `blocks` account for.
  void ExpectCounters(const std::vector<const TMemory*>& blocks) {
    EXPECT_EQ(Describe(Minus(tmemGetStats(), base_)), Describe(Sum(blocks)));
  }

  TMemoryStats base_{};
  UMEMORYSTATUS status_{};
  QuarnelEnvType saved_;
  std::vector<unsigned char> list_;
};

TEST_F(TMemoryTest, StorageMovesInlineHeapVirtualAndBack) {
  TMemory m(1);
  EXPECT_TRUE(m.IsInline());
  EXPECT_EQ(m.GetSize(), 0u);
  EXPECT_EQ(m.GetPriority(), 1);

  ASSERT_EQ(m.SetSize(1000), 0);
  EXPECT_TRUE(m.IsInline());
  EXPECT_EQ(FirstNonZero(m, 0, 1000), -1);
  ExpectCounters({&m});
  Fill(m, 1);

  ASSERT_EQ(m.SetSize(1100), 0);
  EXPECT_FALSE(m.IsInline());
  EXPECT_EQ(m.ReservedBytes(), 0u);
  EXPECT_EQ(FirstMismatch(m, 1, 0, 1000), -1);
  EXPECT_EQ(FirstNonZero(m, 1000, 1100), -1);
  TMemoryStats d = Minus(tmemGetStats(), base_);
  EXPECT_EQ(d.heapBlocks, 1);
  EXPECT_EQ(d.heapBytes, 1104u);
  EXPECT_EQ(d.requestedBlocks, 1);
  EXPECT_EQ(d.requestedBytes, 1100u);
  Fill(m, 2);

  ASSERT_EQ(m.SetSize(2 * kMiB), 0);
  EXPECT_EQ(m.ReservedBytes(), 8 * kMiB);
  EXPECT_EQ(m.CommittedBytes(), 2 * kMiB);
  EXPECT_EQ(FirstMismatch(m, 2, 0, 1100), -1);
  EXPECT_EQ(FirstNonZero(m, 1100, 2 * kMiB), -1);
  d = Minus(tmemGetStats(), base_);
  EXPECT_EQ(d.heapBlocks, 0);
  EXPECT_EQ(d.heapBytes, 0u);
  EXPECT_EQ(d.virtualBlocks, 1);
  EXPECT_EQ(d.reservedBytes, 8 * kMiB);
  EXPECT_EQ(d.committedBytes, 2 * kMiB);
  EXPECT_EQ(d.requestedBytes, 2 * kMiB);

  // Shrinking stays in the reservation and keeps the pages committed.
  const unsigned char* where = m.MemPtr();
  Fill(m, 3, 0, 1024);
  ASSERT_EQ(m.SetSize(1024), 0);
  EXPECT_EQ(m.MemPtr(), where);
  EXPECT_EQ(m.ReservedBytes(), 8 * kMiB);
  EXPECT_EQ(m.CommittedBytes(), 2 * kMiB);
  EXPECT_EQ(FirstMismatch(m, 3, 0, 1024), -1);
  ExpectCounters({&m});

  ASSERT_EQ(m.SetSize(0), 0);
  EXPECT_TRUE(m.IsInline());
  EXPECT_EQ(m.ReservedBytes(), 0u);
  ExpectCounters({&m});
  EXPECT_TRUE(Lines().empty());
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(TMemoryTest, ReservesTwiceTheCommitmentInEightMegabyteSteps) {
  struct Row {
    short priority;
    unsigned size;
    unsigned reserved;
    unsigned committed;
  };
  const Row rows[] = {
      {1, kMiB, 0, 0},                       // the largest heap block
      {1, kMiB + 1, 8 * kMiB, 1536 * kKiB},  // just past it
      {1, 2 * kMiB, 8 * kMiB, 2 * kMiB},
      {2, 4 * kMiB + 1, 16 * kMiB, 4608 * kKiB},
      {1, 12 * kMiB, 24 * kMiB, 12 * kMiB},
      {0, 10, 8 * kMiB, 512 * kKiB},  // priority 0: virtual whatever the size
      {0, 1024, 8 * kMiB, 512 * kKiB},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.size);
    TMemory m(r.priority);
    ASSERT_EQ(m.SetSize(r.size), 0);
    EXPECT_FALSE(m.IsInline());
    EXPECT_EQ(m.ReservedBytes(), r.reserved);
    EXPECT_EQ(m.CommittedBytes(), r.committed);
    ExpectCounters({&m});
  }

  // Growth inside the reservation commits more in place; past it the block
  // moves to a new reservation with its bytes.
  TMemory m(1);
  ASSERT_EQ(m.SetSize(2 * kMiB), 0);
  Fill(m, 7);
  const unsigned char* where = m.MemPtr();
  ASSERT_EQ(m.SetSize(3 * kMiB), 0);
  EXPECT_EQ(m.MemPtr(), where);
  EXPECT_EQ(m.CommittedBytes(), 3 * kMiB);
  ASSERT_EQ(m.SetSize(8 * kMiB), 0);
  EXPECT_EQ(m.MemPtr(), where);
  EXPECT_EQ(m.CommittedBytes(), 8 * kMiB);
  EXPECT_EQ(m.ReservedBytes(), 8 * kMiB);
  ASSERT_EQ(m.SetSize(8 * kMiB + 1), 0);
  EXPECT_EQ(m.ReservedBytes(), 24 * kMiB);
  EXPECT_EQ(m.CommittedBytes(), 8704 * kKiB);
  EXPECT_EQ(FirstMismatch(m, 7, 0, 2 * kMiB), -1);
  EXPECT_EQ(FirstNonZero(m, 2 * kMiB, 8 * kMiB + 1), -1);
  ExpectCounters({&m});
  EXPECT_TRUE(Lines().empty());
}

TEST_F(TMemoryTest, SameAlignedSizeKeepsBytesAndGrowthReadsZero) {
  // Inline: a size in the same 8-byte step only records the size.
  TMemory a(1);
  ASSERT_EQ(a.SetSize(7), 0);
  std::memset(a.MemPtr(), 0xAA, 7);
  ASSERT_EQ(a.SetSize(5), 0);
  ASSERT_EQ(a.SetSize(7), 0);
  EXPECT_EQ(a.MemPtr()[5], 0xAA);
  EXPECT_EQ(a.MemPtr()[6], 0xAA);
  ASSERT_EQ(a.SetSize(3), 0);
  ASSERT_EQ(a.SetSize(9), 0);  // another step: the bytes past the size are cleared
  EXPECT_EQ(a.MemPtr()[2], 0xAA);
  EXPECT_EQ(FirstNonZero(a, 3, 9), -1);

  // Heap and virtual storage: bytes given up by a shrink come back as zero.
  struct Row {
    short priority;
    unsigned big;
    unsigned small;
  };
  const Row rows[] = {
      {1, 5000, 2000}, {2, 900 * kKiB, 1100}, {1, 2 * kMiB, 1024}, {0, 600 * kKiB, 100}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.big);
    TMemory m(r.priority);
    ASSERT_EQ(m.SetSize(r.big), 0);
    Fill(m, 9);
    ASSERT_EQ(m.SetSize(r.small), 0);
    ASSERT_EQ(m.SetSize(r.big), 0);
    EXPECT_EQ(FirstMismatch(m, 9, 0, r.small), -1);
    EXPECT_EQ(FirstNonZero(m, r.small, r.big), -1);
    // Same step on the heap or in a reservation: bytes kept.
    const unsigned kept = r.big - 1;
    Fill(m, 10);
    ASSERT_EQ(m.SetSize(kept), 0);
    ASSERT_EQ(m.SetSize(r.big), 0);
    EXPECT_EQ(FirstMismatch(m, 10, 0, r.big), -1);
    ExpectCounters({&m});
    m.Zero();
    EXPECT_EQ(FirstNonZero(m, 0, r.big), -1);
  }

  // A virtual block shrunk, then grown past its reservation: what it held
  // past the small size does not come back, whether its pages are copied
  // (small) or moved whole (from 64 KiB on).
  for (unsigned small : {1000u, 102401u}) {
    SCOPED_TRACE(small);
    TMemory m(1);
    ASSERT_EQ(m.SetSize(6 * kMiB), 0);
    EXPECT_EQ(m.ReservedBytes(), 16 * kMiB);
    Fill(m, 11);
    ASSERT_EQ(m.SetSize(small), 0);
    ASSERT_EQ(m.SetSize(17 * kMiB), 0);
    EXPECT_EQ(m.ReservedBytes(), 40 * kMiB);
    EXPECT_EQ(FirstMismatch(m, 11, 0, small), -1);
    EXPECT_EQ(FirstNonZero(m, small, 17 * kMiB), -1);
    ExpectCounters({&m});
  }
  EXPECT_TRUE(Lines().empty());
}

TEST_F(TMemoryTest, GrowthPastTheAllowancePurgesOldestFirst) {
  // MemAvail(1, 100) is then 100 MiB: a margin of 4 MiB over the 96 MiB kept
  // free.
  SetMachine(100 * kBigMiB, 1024 * kBigMiB);
  TMemory p1(1), p2(1), p3(1), x(1);
  TMemory* purgeable[] = {&p1, &p2, &p3};
  for (unsigned i = 0; i < 3; ++i) {
    ASSERT_EQ(purgeable[i]->SetSize(512 * kKiB), 0);
    Fill(*purgeable[i], 20 + i);
  }
  for (TMemory* p : purgeable) EXPECT_EQ(p->SetFlags(kTMemPurgeable, 0), kTMemPurgeable);
  ExpectCounters({&p1, &p2, &p3, &x});
  EXPECT_TRUE(Lines().empty());

  // need = requested + growth - purgeable; allowance = 60% of (margin -
  // need), here 786,420 bytes: the two oldest blocks go, the third stays.
  const unsigned requestedBefore = base_.requestedBytes;
  const unsigned grow = (2883584u - requestedBefore) & ~7u;
  ASSERT_EQ(x.SetSize(grow), 0);
  ASSERT_EQ(Lines().size(), 1u);
  EXPECT_EQ(Lines()[0], (LogLine{517, "", "tmemPurgeBlocks: purged 1 K (2 blocks)"}));
  EXPECT_EQ(p1.GetSize(), 0u);
  EXPECT_EQ(p2.GetSize(), 0u);
  EXPECT_TRUE(p1.IsInline());
  EXPECT_EQ(p1.GetFlags(), kTMemPurgeable);  // purged blocks keep the flag
  EXPECT_EQ(p3.GetSize(), 512 * kKiB);
  EXPECT_EQ(FirstMismatch(p3, 22, 0, 512 * kKiB), -1);
  ExpectCounters({&p1, &p2, &p3, &x});
  const TMemoryStats d = Minus(tmemGetStats(), base_);
  EXPECT_EQ(d.purgeableBlocks, 3);
  EXPECT_EQ(d.purgeableBytes, 512 * kKiB);

  for (TMemory* p : purgeable) EXPECT_EQ(p->SetFlags(0, kTMemPurgeable), 0u);
  ExpectCounters({&p1, &p2, &p3, &x});
}

TEST_F(TMemoryTest, PurgeEmptiesOldestFirstUntilTheTarget) {
  std::vector<std::unique_ptr<TMemory>> blocks;
  const unsigned sizes[] = {3000, 0, 200, 700 * kKiB, 2 * kMiB, 5000};
  for (unsigned i = 0; i < 6; ++i) {
    blocks.push_back(std::make_unique<TMemory>(static_cast<short>(1)));
    ASSERT_EQ(blocks.back()->SetSize(sizes[i]), 0);
    Fill(*blocks.back(), i);
  }
  // Purgeable in the order 4, 0, 1, 2, 5 (block 3 is not purgeable).
  for (int i : {4, 0, 1, 2, 5}) blocks[i]->SetFlags(kTMemPurgeable | 0x40, 0);
  EXPECT_EQ(blocks[4]->GetFlags(), kTMemPurgeable | 0x40);
  std::vector<const TMemory*> all;
  for (auto& b : blocks) all.push_back(b.get());
  ExpectCounters(all);

  // 2 MiB + 8,200 purgeable; a target of 8,200 takes only the oldest.
  tmemPurgeBlocks(8200);
  EXPECT_EQ(Lines().back(), (LogLine{517, "", "tmemPurgeBlocks: purged 2 K (1 blocks)"}));
  EXPECT_EQ(blocks[4]->GetSize(), 0u);
  EXPECT_EQ(blocks[0]->GetSize(), 3000u);
  ExpectCounters(all);

  // A target already met purges nothing, and says so.
  ClearRecords();
  tmemPurgeBlocks(8200);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"}}));

  // Down to 5,000: blocks 0 and 2 go (the empty block 1 is passed over),
  // block 5 stays.
  tmemPurgeBlocks(5000);
  EXPECT_EQ(blocks[0]->GetSize(), 0u);
  EXPECT_EQ(blocks[2]->GetSize(), 0u);
  EXPECT_EQ(blocks[5]->GetSize(), 5000u);
  EXPECT_EQ(FirstMismatch(*blocks[5], 5, 0, 5000), -1);
  EXPECT_EQ(blocks[3]->GetSize(), 700 * kKiB);
  ExpectCounters(all);
  EXPECT_TRUE(Assertions().empty());

  // A block taken off the list and made purgeable again goes to its end.
  blocks[0]->SetFlags(0, kTMemPurgeable);
  ASSERT_EQ(blocks[0]->SetSize(4000), 0);
  blocks[0]->SetFlags(kTMemPurgeable, 0);
  ClearRecords();
  tmemPurgeBlocks(4000);  // 9,000 purgeable: block 5 is now older than block 0
  EXPECT_EQ(blocks[5]->GetSize(), 0u);
  EXPECT_EQ(blocks[0]->GetSize(), 4000u);
  tmemPurgeBlocks(0);
  EXPECT_EQ(blocks[0]->GetSize(), 0u);
  ExpectCounters(all);
  for (auto& b : blocks) b->SetFlags(0, ~0u);
  ExpectCounters(all);
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
    const TMemoryStats before = tmemGetStats();

    EXPECT_EQ(m.SetSize(100 * kMiB), kErrMemNotObtained);
    EXPECT_EQ(m.CheckError(), kErrMemNotObtained);
    EXPECT_EQ(m.GetSize(), 2 * kMiB);
    EXPECT_EQ(m.MemPtr(), where);
    EXPECT_EQ(m.ReservedBytes(), 8 * kMiB);
    EXPECT_EQ(m.CommittedBytes(), 2 * kMiB);
    EXPECT_EQ(FirstMismatch(m, 30, 0, 2 * kMiB), -1);
    EXPECT_EQ(Describe(tmemGetStats()), Describe(before));
    const std::string priorityText = priority == 0 ? "0" : "1";
    EXPECT_EQ(
        Lines(),
        (std::vector<LogLine>{
            {516, "",
             "TMemory::mhalloc: denied (requested: 104857600, current: 2097152, physical "
             "memory available: 67108864)"},
            {517, "", "TMemory::SetSize: priority " + priorityText + " failed from 2 K to 100 K"},
        }));
    EXPECT_TRUE(Assertions().empty());

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
  struct Row {
    short priority;
    unsigned a, b, granularity;
    unsigned result;
    unsigned size;  // after the call (the block held 100 bytes before)
    int error;
    int assertionLine;  // 0: none
  };
  const Row rows[] = {
      {1, 64 * kKiB, 16 * kKiB, 4 * kKiB, 64 * kKiB, 64 * kKiB, 0, 0},
      {1, 16 * kKiB, 64 * kKiB, 4 * kKiB, 64 * kKiB, 64 * kKiB, 0, 0},
      {2, 16 * kKiB, 64 * kKiB, 4 * kKiB, 64 * kKiB, 64 * kKiB, 0, 0},
      {0, 16 * kKiB, 64 * kKiB, 4 * kKiB, 64 * kKiB, 64 * kKiB, 0, 0},
      {1, 10000, 70000, 4096, 73728, 73728, 0, 0},  // both ends rounded up
      {1, 8 * kMiB, 8 * kMiB, 8 * kMiB, 8 * kMiB, 8 * kMiB, 0, 0},
      // Bad arguments: nothing is released.
      {1, 16 * kKiB, 64 * kKiB, 0, 0, 100, kErrMemBadArguments, 0},
      {1, 16 * kKiB, 64 * kKiB, 8 * kMiB + 1, 0, 100, kErrMemBadArguments, 0},
      {1, 0, 64 * kKiB, 4 * kKiB, 0, 100, kErrMemBadArguments, 0},  // granularity above lo
      {2, 0, 64 * kKiB, 4 * kKiB, 0, 100, kErrMemBadArguments, 610},
      {2, 16 * kKiB, 64 * kKiB, 0, 0, 100, kErrMemBadArguments, 610},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(::testing::Message()
                 << r.priority << " " << r.a << " " << r.b << " " << r.granularity);
    ClearRecords();
    TMemory m(r.priority);
    ASSERT_EQ(m.SetSize(100), 0);
    EXPECT_EQ(m.AllocBuffer(r.a, r.b, r.granularity), r.result);
    EXPECT_EQ(m.GetSize(), r.size);
    EXPECT_EQ(m.CheckError(), r.error);
    if (r.assertionLine != 0) {
      EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", r.assertionLine, ""}}));
    } else {
      EXPECT_TRUE(Assertions().empty());
    }
    EXPECT_TRUE(Lines().empty());
    ExpectCounters({&m});
  }
}

TEST_F(TMemoryTest, AllocBufferTakesWhatMemoryAllows) {
  // Priorities 1 and 2 measure 100 MiB here (the total), priority 0 half of
  // the larger of the available memory and the total less 16 MB.
  SetMachine(100 * kBigMiB, 1024 * kBigMiB);
  struct Row {
    short priority;
    unsigned result;
  };
  for (const Row& r : {Row{2, 100 * kMiB}, Row{1, 100 * kMiB}, Row{0, 511 * kMiB}}) {
    SCOPED_TRACE(r.priority);
    TMemory m(r.priority);
    EXPECT_EQ(m.AllocBuffer(kMiB, 1024 * kMiB, kMiB), r.result);
    EXPECT_EQ(m.GetSize(), r.result);
    EXPECT_EQ(m.CheckError(), 0);
    ExpectCounters({&m});
  }

  // Sizes above the physical-memory figure are denied: after the first
  // denial the search goes straight to the largest size below the figure.
  SetMachine(8192 * kBigMiB, 32 * kBigMiB);
  ClearRecords();
  TMemory m(1);
  EXPECT_EQ(m.AllocBuffer(kMiB, 256 * kMiB, kMiB), 32 * kMiB);
  EXPECT_EQ(m.GetSize(), 32 * kMiB);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{516, "",
                                            "TMemory::mhalloc: denied (requested: 268435456, "
                                            "current: 0, physical memory available: 33554432)"}}));
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
  EXPECT_FALSE(zero.IsInline());
  EXPECT_EQ(zero.ReservedBytes(), 0u);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"},
                {514, "", "TMemory::mhalloc: VirtualAlloc(1 K, MEM_RESERVE) failed, error 8"},
            }));
  ExpectCounters({&zero});

  // A required block that gets nothing asserts.
  ClearRecords();
  TMemory two(2);
  EXPECT_EQ(two.AllocBuffer(2 * kMiB, 4 * kMiB, kMiB), 0u);
  EXPECT_EQ(two.CheckError(), kErrMemNotObtained);
  EXPECT_EQ(two.GetSize(), 0u);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"},
                {514, "", "TMemory::mhalloc: VirtualAlloc(2 K, MEM_RESERVE) failed, error 8"},
                {514, "", "TMemory::AllocBuffer(2 K, 4 K, 0x100000) failed"},
            }));
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 662, ""}}));
  ExpectCounters({&zero, &two});
}

// A failing platform call leaves size, storage and bytes as they were.
TEST_F(TMemoryTest, FailedCallsLeaveTheBlockAsItWas) {
  struct Row {
    const char* name;
    short priority;
    unsigned from;
    unsigned to;
    UCall call;
    int nth;
    int repeat;
    std::vector<LogLine> lines;
  };
  const Row rows[] = {
      {"commit of a new reservation",
       1,
       500,
       2 * kMiB,
       UCall::kVirtualCommit,
       1,
       1,
       {{516, "", "TMemory::mhalloc: VirtualAlloc(2 K, MEM_COMMIT) failed, error 8"},
        {517, "", "TMemory::SetSize: priority 1 failed from Zero K to 2 K"}}},
      {"commit inside the reservation",
       1,
       2 * kMiB,
       6 * kMiB,
       UCall::kVirtualCommit,
       1,
       1,
       {{516, "", "TMemory::mhalloc: VirtualAlloc(6 K, MEM_COMMIT) failed, error 8"},
        {517, "", "TMemory::SetSize: priority 1 failed from 2 K to 6 K"}}},
      {"both reservations",
       1,
       5000,
       2 * kMiB,
       UCall::kVirtualReserve,
       1,
       -1,
       {{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"},
        {514, "", "TMemory::mhalloc: VirtualAlloc(2 K, MEM_RESERVE) failed, error 8"},
        {517, "", "TMemory::SetSize: priority 1 failed from 1 K to 2 K"}}},
      {"a move to a larger reservation",
       0,
       2 * kMiB,
       20 * kMiB,
       UCall::kVirtualReserve,
       1,
       -1,
       {{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"},
        {514, "", "TMemory::mhalloc: VirtualAlloc(20 K, MEM_RESERVE) failed, error 8"},
        {517, "", "TMemory::SetSize: priority 0 failed from 2 K to 20 K"}}},
      {"a required block",
       2,
       0,
       3 * kMiB,
       UCall::kVirtualCommit,
       1,
       1,
       {{516, "", "TMemory::mhalloc: VirtualAlloc(3 K, MEM_COMMIT) failed, error 8"},
        {514, "", "TMemory::SetSize: priority 2 failed from Zero K to 3 K"}}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    TMemory m(r.priority);
    ASSERT_EQ(m.SetSize(r.from), 0);
    Fill(m, 40);
    const unsigned char* where = m.MemPtr();
    const bool wasInline = m.IsInline();
    const unsigned reserved = m.ReservedBytes();
    const unsigned committed = m.CommittedBytes();
    const TMemoryStats before = tmemGetStats();
    ClearRecords();

    UFailCall(r.call, r.nth, 8, r.repeat);
    EXPECT_EQ(m.SetSize(r.to), kErrMemNotObtained);
    UClearFaults();
    EXPECT_EQ(m.CheckError(), kErrMemNotObtained);
    EXPECT_EQ(m.GetSize(), r.from);
    EXPECT_EQ(m.MemPtr(), where);
    EXPECT_EQ(m.IsInline(), wasInline);
    EXPECT_EQ(m.ReservedBytes(), reserved);
    EXPECT_EQ(m.CommittedBytes(), committed);
    EXPECT_EQ(FirstMismatch(m, 40, 0, r.from), -1);
    EXPECT_EQ(Describe(tmemGetStats()), Describe(before));
    EXPECT_EQ(Lines(), r.lines);
    if (r.priority == 2) {
      EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 574, ""}}));
    } else {
      EXPECT_TRUE(Assertions().empty());
    }
    // The same resize succeeds once the platform gives memory again.
    EXPECT_EQ(m.SetSize(r.to), 0);
    EXPECT_EQ(FirstMismatch(m, 40, 0, r.from), -1);
    ExpectCounters({&m});
  }
}

TEST_F(TMemoryTest, FallbacksWhenThePlatformRefusesOnce) {
  // The heap refuses twice: the block goes to virtual memory with its bytes.
  TMemory m(1);
  ASSERT_EQ(m.SetSize(500), 0);
  Fill(m, 50);
  UFailCall(UCall::kHeapAlloc, 1, 8, 2);
  ASSERT_EQ(m.SetSize(5000), 0);
  EXPECT_EQ(m.ReservedBytes(), 8 * kMiB);
  EXPECT_EQ(m.CommittedBytes(), 512 * kKiB);
  EXPECT_EQ(FirstMismatch(m, 50, 0, 500), -1);
  EXPECT_EQ(FirstNonZero(m, 500, 5000), -1);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{
                         {517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"},
                         {516, "", "TMemory::mhalloc: MemHeap[Re]Alloc(5,000) failed"},
                     }));
  ExpectCounters({&m});

  // Once: the retry gets it.
  ClearRecords();
  TMemory h(1);
  ASSERT_EQ(h.SetSize(900), 0);
  Fill(h, 51);
  UFailCall(UCall::kHeapAlloc, 1, 8, 1);
  ASSERT_EQ(h.SetSize(3000), 0);
  EXPECT_FALSE(h.IsInline());
  EXPECT_EQ(h.ReservedBytes(), 0u);
  EXPECT_EQ(FirstMismatch(h, 51, 0, 900), -1);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"}}));

  // A heap block whose reallocation fails moves to virtual memory.
  ClearRecords();
  Fill(h, 52);
  UFailCall(UCall::kHeapReAlloc, 1, 8, 2);
  ASSERT_EQ(h.SetSize(9000), 0);
  EXPECT_EQ(h.ReservedBytes(), 8 * kMiB);
  EXPECT_EQ(FirstMismatch(h, 52, 0, 3000), -1);
  EXPECT_EQ(FirstNonZero(h, 3000, 9000), -1);
  ExpectCounters({&m, &h});

  // The doubled reservation is refused, the bare commitment is not. (With
  // the machine's ample address space MemAvail reserves nothing.)
  ClearRecords();
  TMemory v(1);
  UFailCall(UCall::kVirtualReserve, 1, 8, 1);
  ASSERT_EQ(v.SetSize(2 * kMiB), 0);
  EXPECT_EQ(v.ReservedBytes(), 2 * kMiB);
  EXPECT_EQ(v.CommittedBytes(), 2 * kMiB);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"}}));
  ExpectCounters({&m, &h, &v});
}

TEST_F(TMemoryTest, MisuseAssertsAndGoesOn) {
  {
    TMemory m(5);
    EXPECT_EQ(m.GetPriority(), 5);
    EXPECT_EQ(m.SetSize(5000), 0);  // anything but 0 may use the heap
    EXPECT_EQ(m.ReservedBytes(), 0u);
    EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 62, ""}}));
  }
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 62, ""}, {"tmemory", 95, ""}}));
  ClearRecords();
  TMemory q;
  EXPECT_EQ(q.GetPriority(), 2);
  EXPECT_EQ(q.SetPriority(-3), 0);
  EXPECT_EQ(q.GetPriority(), -3);
  EXPECT_EQ(q.SetPriority(1), 0);
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 62, ""}}));

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
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"tmemory", 180, ""}, {"tmemory", 537, ""}}));
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{{517, "", "tmemPurgeBlocks: purged Zero K (0 blocks)"}}));
  ExpectCounters({&q});
  EXPECT_EQ(Minus(tmemGetStats(), base_).purgeableBytes, 700 * kKiB);

  // Emptying a purgeable block is allowed.
  ClearRecords();
  EXPECT_EQ(q.SetSize(0), 0);
  EXPECT_TRUE(Assertions().empty());
  ExpectCounters({&q});
  q.SetFlags(0, kTMemPurgeable);
}

TEST_F(TMemoryTest, CopiesTakePriorityAndBytes) {
  TMemory source(1);
  ASSERT_EQ(source.SetSize(3000), 0);
  Fill(source, 70);
  TMemory copy(source);
  EXPECT_EQ(copy.GetPriority(), 1);
  EXPECT_EQ(copy.GetSize(), 3000u);
  EXPECT_NE(copy.MemPtr(), source.MemPtr());
  EXPECT_EQ(FirstMismatch(copy, 70, 0, 3000), -1);

  TMemory target(0);
  target = source;
  EXPECT_EQ(target.GetPriority(), 1);
  EXPECT_EQ(FirstMismatch(target, 70, 0, 3000), -1);
  target = target;  // self-assignment keeps everything
  EXPECT_EQ(FirstMismatch(target, 70, 0, 3000), -1);

  TMemory empty(2);
  target = empty;
  EXPECT_EQ(target.GetSize(), 0u);
  EXPECT_EQ(target.GetPriority(), 2);

  // A sizing failure copies nothing and keeps the error.
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
  ExpectCounters({&source, &copy, &target, &empty, &big, &small});
}

// Random operations on a few blocks, checked against a model of their bytes,
// their purgeable order and the process-wide counters.
TEST_F(TMemoryTest, RandomOperationsMatchTheModel) {
  std::mt19937 rng(12345);
  constexpr int kBlocks = 6;
  struct Model {
    std::vector<unsigned char> bytes;
    bool purgeable = false;
  };
  std::vector<std::unique_ptr<TMemory>> blocks;
  std::vector<Model> model(kBlocks);
  std::vector<int> order;  // purgeable blocks, oldest first
  for (int i = 0; i < kBlocks; ++i)
    blocks.push_back(std::make_unique<TMemory>(static_cast<short>(i % 3)));
  std::vector<const TMemory*> all;
  for (auto& b : blocks) all.push_back(b.get());

  auto randomSize = [&]() -> unsigned {
    switch (rng() % 5) {
      case 0:
        return 0;
      case 1:
        return rng() % 1025;
      case 2:
        return 1025 + rng() % (kMiB - 1024);
      case 3:
        return kMiB + rng() % (2 * kMiB);
      default: {
        // A neighbour of the current size: same 8-byte step or close by.
        return rng() % 64;
      }
    }
  };

  for (int step = 0; step < 400; ++step) {
    SCOPED_TRACE(step);
    const int i = static_cast<int>(rng() % kBlocks);
    TMemory& m = *blocks[i];
    Model& mm = model[i];
    switch (rng() % 6) {
      case 0:
      case 1: {  // resize and write
        if (mm.purgeable) break;
        unsigned size = randomSize();
        if (rng() % 4 == 0) size = m.GetSize() + (rng() % 16) - std::min(m.GetSize(), 8u);
        const unsigned old = m.GetSize();
        ASSERT_EQ(m.SetSize(size), 0);
        ASSERT_EQ(m.GetSize(), size);
        const unsigned keep = std::min(old, size);
        if (keep != 0) {
          ASSERT_EQ(std::memcmp(m.MemPtr(), mm.bytes.data(), keep), 0);
        }
        mm.bytes.resize(size);
        if (size > old) {
          if (Align8(size) != Align8(old)) {
            ASSERT_EQ(FirstNonZero(m, old, size), -1);
          } else {  // the same 8-byte step: the bytes past the old size are kept as they were
            std::memcpy(mm.bytes.data() + old, m.MemPtr() + old, size - old);
          }
        }
        for (unsigned k = 0; k < size; k += 1 + rng() % 4096) {
          const auto b = static_cast<unsigned char>(rng());
          m.MemPtr()[k] = b;
          mm.bytes[k] = b;
        }
        break;
      }
      case 2: {  // purgeable on or off
        if (mm.purgeable) {
          m.SetFlags(0, kTMemPurgeable);
          order.erase(std::find(order.begin(), order.end(), i));
        } else {
          m.SetFlags(kTMemPurgeable, 0);
          order.push_back(i);
        }
        mm.purgeable = !mm.purgeable;
        break;
      }
      case 3: {  // purge to a random target
        unsigned total = 0;
        for (int k : order) total += static_cast<unsigned>(model[k].bytes.size());
        const unsigned target = total == 0 ? 0 : static_cast<unsigned>(rng() % (total + 1));
        unsigned purged = 0;
        int count = 0;
        for (int k : order) {
          if (total <= target) break;
          if (model[k].bytes.empty()) continue;
          total -= static_cast<unsigned>(model[k].bytes.size());
          purged += static_cast<unsigned>(model[k].bytes.size());
          ++count;
          model[k].bytes.clear();
        }
        ClearRecords();
        tmemPurgeBlocks(target);
        ASSERT_EQ(Lines().size(), 1u);
        TString expected;
        quarnel_args::WithArgs(
            [&](const Args* args) {
              FormatLogLine(&expected, "tmemPurgeBlocks: purged %K (%~d blocks)", args);
            },
            purged >> 10, count);
        EXPECT_EQ(Lines()[0], (LogLine{517, "", Utf8(expected)}));
        break;
      }
      case 4: {  // copy from another block
        const int j = static_cast<int>(rng() % kBlocks);
        if (mm.purgeable || model[j].purgeable) break;
        m = *blocks[j];
        mm.bytes = model[j].bytes;
        break;
      }
      default:
        if (!mm.purgeable) {
          m.Zero();
          std::fill(mm.bytes.begin(), mm.bytes.end(), 0);
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
    ASSERT_TRUE(Assertions().empty());
  }
  for (auto& b : blocks) b->SetFlags(0, kTMemPurgeable);
}

TEST_F(TMemoryTest, StatisticsLines) {
  TMemory h(1), v(1), p(1);
  ASSERT_EQ(h.SetSize(5000), 0);
  ASSERT_EQ(v.SetSize(3 * kMiB), 0);
  ASSERT_EQ(p.SetSize(700), 0);
  p.SetFlags(kTMemPurgeable, 0);
  const TMemoryStats s = tmemGetStats();
  ClearRecords();
  tmemLogStats();
  auto line = [](const char* format, auto... values) {
    TString t;
    quarnel_args::WithArgs([&](const Args* args) { FormatLogLine(&t, format, args); }, values...);
    return LogLine{513, format, Utf8(t)};
  };
  const std::vector<LogLine> expected = {
      line("TMemory:     heap %6~d %9K", s.heapBlocks, s.heapBytes >> 10),
      line("          virtual %6~d %9K", s.virtualBlocks, s.reservedBytes >> 10),
      line("           commit        %9K", s.committedBytes >> 10),
      line("        purgeable %6~d %9K", s.purgeableBlocks, s.purgeableBytes >> 10),
      line("        requested %6~d %9K", s.requestedBlocks, s.requestedBytes >> 10),
  };
  ASSERT_EQ(Lines(), expected);
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_EQ(Lines()[i].format, expected[i].format);
  const TMemoryStats d = Minus(s, base_);
  EXPECT_EQ(d.heapBlocks, 1);
  EXPECT_EQ(d.heapBytes, 5000u);
  EXPECT_EQ(d.virtualBlocks, 1);
  EXPECT_EQ(d.reservedBytes, 8 * kMiB);
  EXPECT_EQ(d.committedBytes, 3 * kMiB);
  EXPECT_EQ(d.purgeableBlocks, 1);
  EXPECT_EQ(d.purgeableBytes, 700u);
  EXPECT_EQ(d.requestedBlocks, 2);
  EXPECT_EQ(d.requestedBytes, 5000u + 3 * kMiB);
  p.SetFlags(0, kTMemPurgeable);
}

// Blocks growing, shrinking and being purged on several threads at once;
// afterwards the counters equal what the live blocks account for.
TEST_F(TMemoryTest, ThreadGrowShrinkPurge) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5;
  std::vector<std::unique_ptr<TMemory>> blocks;
  for (int i = 0; i < kThreads * kPerThread; ++i)
    blocks.push_back(std::make_unique<TMemory>(static_cast<short>(1 + i % 2)));
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
          case 3: {
            // Take it back: either purged (size 0) or intact.
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
          }
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
  std::vector<const TMemory*> all;
  for (auto& b : blocks) all.push_back(b.get());
  ExpectCounters(all);
  EXPECT_TRUE(Assertions().empty());
  for (auto& b : blocks) b->SetFlags(0, kTMemPurgeable);
  blocks.clear();
}

}  // namespace
