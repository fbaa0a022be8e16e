// MemComp and MemUncomp on TMemory blocks: the packed bytes, the log lines,
// the poll procedure, damaged blocks and failing resizes.
#include "quarnel/compress/memcomp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/compress/compress_reference.h"
#include "quarnel/compress/hashblock.h"
#include "quarnel/compress/internal/packblock.h"
#include "quarnel/compress/testdata.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/tick.h"
#include "quarnel/platform/vmem.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using quarnel_testdata::DataKind;
using quarnel_testdata::Generate;

constexpr unsigned kInternal = 517;

// en-US digit grouping, as the engine prints "%d".
std::string Grouped(long long v) {
  const std::string digits = std::to_string(v < 0 ? -v : v);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return v < 0 ? "-" + out : out;
}

std::string ErrorText(int code) {
  TString t;
  t.SPrintf(u"%E", code);
  return Utf8(t);
}

std::string PackedLine(long long n, long long p, const char* seconds = "0.000") {
  return "TCompStat::pack: compressed buffer from " + Grouped(n) + " to " + Grouped(p) + " (" +
         Grouped((n - p) * 100 / n) + "%) in " + seconds + " seconds";
}

std::string UnpackedLine(long long b, long long n, const char* seconds = "0.000") {
  return "TCompStat::unpack: decompressed buffer from " + Grouped(b) + " to " + Grouped(n) +
         " in " + seconds + " seconds";
}

class MemCompTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    lcid_ = QuarnelEnv()->lcid;
    QuarnelEnv()->lcid = 0x0409;
    UFreezeTickCount(1);  // every span measures 0 ms unless a test moves the clock
  }
  void TearDown() override {
    UClearFaults();
    USetVirtualReserveLimit(0);
    UFreezeTickCount(0);
    USetTickOffset(0);
    QuarnelEnv()->lcid = lcid_;
    RecordingTest::TearDown();
  }

  static void Fill(TMemory* m, const Bytes& data) {
    ASSERT_EQ(m->SetSize(static_cast<unsigned>(data.size())), 0);
    if (!data.empty()) std::memcpy(m->MemPtr(), data.data(), data.size());
  }
  static Bytes Content(const TMemory& m) { return Bytes(m.MemPtr(), m.MemPtr() + m.GetSize()); }

  unsigned lcid_ = 0;
};

TEST_F(MemCompTest, RoundTripsWithTheirStatisticsLines) {
  std::mt19937 rng(1);
  struct Row {
    const char* what;
    Bytes data;
  };
  const std::vector<Row> rows = {
      {"text of five slices", Generate(DataKind::kText, 4 * 4096 + 77, rng)},
      {"random: raw slices", Generate(DataKind::kRandom, 10000, rng)},
      {"mixed", quarnel_testdata::GenerateMixed(50000, rng)},
      {"runs", Generate(DataKind::kRuns, 9000, rng)},
      {"one slice of text", Generate(DataKind::kText, 3000, rng)},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    ClearRecords();
    TMemory m(1);
    Fill(&m, r.data);
    Bytes expected;
    ASSERT_TRUE(quarnel_reference::PackBlock(r.data, &expected));
    ASSERT_EQ(MemComp(&m), 0);
    EXPECT_EQ(Content(m), expected);
    ASSERT_EQ(MemUncomp(&m), 0);
    EXPECT_EQ(Content(m), r.data);
    const long long n = static_cast<long long>(r.data.size());
    const long long p = static_cast<long long>(expected.size());
    const std::vector<LogLine> lines = {{kInternal, "", PackedLine(n, p)},
                                        {kInternal, "", UnpackedLine(p, n)}};
    EXPECT_EQ(Lines(), lines);
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(MemCompTest, LargeVirtualBlockRoundTrips) {
  std::mt19937 rng(2);
  const Bytes data = quarnel_testdata::GenerateMixed(std::size_t{6} << 20, rng);
  TMemory m(1);
  Fill(&m, data);
  ASSERT_EQ(MemComp(&m), 0);
  EXPECT_LT(m.GetSize(), data.size());
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_TRUE(Content(m) == data);
}

TEST_F(MemCompTest, TheStatisticsLineShowsTheTimeTaken) {
  std::mt19937 rng(3);
  const Bytes data = Generate(DataKind::kText, 3 * 4096, rng);
  TMemory m(1);
  Fill(&m, data);
  // The poll procedure runs once a slice; each call moves the clock 1,234 ms.
  auto tick = [](void*) {
    USetTickOffset(UGetTickOffset() + 1234);
    return 0;
  };
  ASSERT_EQ(MemComp(&m, nullptr, tick), 0);
  const auto p = static_cast<long long>(m.GetSize());
  ASSERT_EQ(Lines().size(), 1u);
  EXPECT_EQ(Lines()[0].text, PackedLine(3 * 4096, p, "3.702"));
}

TEST_F(MemCompTest, EmptyBlockPacksToTheHeaderWithoutALine) {
  TMemory m(1);
  ASSERT_EQ(MemComp(&m), 0);
  EXPECT_EQ(Content(m), (Bytes{0x51, 0x6E, 0x51, 0x79, 0, 0, 0, 0}));
  EXPECT_TRUE(Lines().empty());
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(m.GetSize(), 0u);
  const std::vector<LogLine> lines = {{kInternal, "", UnpackedLine(8, 0)}};
  EXPECT_EQ(Lines(), lines);
}

TEST_F(MemCompTest, PackedAndPlainBlocksAreLeftAlone) {
  // Packing a packed block, unpacking a plain one, and blocks too short to
  // hold a header: nothing changes, nothing is logged.
  std::mt19937 rng(4);
  const Bytes packed = {0x51, 0x6E, 0x51, 0x79, 0x12, 0x34};
  const std::vector<Bytes> plain = {{},
                                    {0x51, 0x6E, 0x51},
                                    {0x51, 0x6E, 0x51, 0x79, 0, 0, 0},
                                    Generate(DataKind::kText, 5000, rng)};
  TMemory m(1);
  Fill(&m, packed);
  EXPECT_EQ(MemComp(&m), 0);
  EXPECT_EQ(Content(m), packed);
  for (const Bytes& b : plain) {
    Fill(&m, b);
    EXPECT_EQ(MemUncomp(&m), 0);
    EXPECT_EQ(Content(m), b);
  }
  EXPECT_TRUE(Lines().empty());
}

TEST_F(MemCompTest, OneRepeatedByteKeepsThePositiveSize) {
  TMemory m(1);
  Fill(&m, Bytes(4096, 0xEE));
  ASSERT_EQ(MemComp(&m), 0);
  Bytes expected = {0x51, 0x6E, 0x51, 0x79, 0x00, 0x00, 0x10, 0x00, 0xA0, 0xEE};
  for (int k = 0; k < 15; ++k) expected.insert(expected.end(), {0x80, 0x00, 0xFF});
  expected.insert(expected.end(), {0x80, 0x00, 78, 0x00, 50});
  EXPECT_EQ(Content(m), expected);
  const std::vector<LogLine> lines = {{kInternal, "", PackedLine(4096, 60)}};
  EXPECT_EQ(Lines(), lines);
}

TEST_F(MemCompTest, SmallBufferThatDoesNotPayKeepsItsGrownSize) {
  std::mt19937 rng(5);
  const Bytes data = Generate(DataKind::kRandom, 4096, rng);
  TMemory m(1);
  Fill(&m, data);
  ASSERT_EQ(MemComp(&m), 0);
  EXPECT_EQ(m.GetSize(), 4096u + 34u);
  EXPECT_TRUE(std::equal(data.begin(), data.end(), m.MemPtr()));
  const std::vector<LogLine> lines = {
      {kInternal, "", "TCompStat::pack: can't compress small buffer of size 4,096"}};
  EXPECT_EQ(Lines(), lines);
  // Not packed, so unpacking leaves it as it is.
  ClearRecords();
  EXPECT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(m.GetSize(), 4130u);
  EXPECT_TRUE(Lines().empty());
}

TEST_F(MemCompTest, RandomBlockBecomesThreeRawSlices) {
  std::mt19937 rng(6);
  const Bytes data = Generate(DataKind::kRandom, 10000, rng);
  TMemory m(1);
  Fill(&m, data);
  ASSERT_EQ(MemComp(&m), 0);
  ASSERT_EQ(m.GetSize(), 10014u);
  const std::uint8_t* p = m.MemPtr();
  EXPECT_EQ(Bytes(p + 4, p + 8), (Bytes{0xFF, 0xFF, 0xD8, 0xF0}));  // -10,000
  EXPECT_EQ(Bytes(p + 8 + 4096, p + 8 + 4098), (Bytes{0x10, 0x00}));
  EXPECT_EQ(Bytes(p + 8 + 2 * 4098 + 1808, p + 10014), (Bytes{0x07, 0x10}));
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + 4096, p + 8));
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(Content(m), data);
  EXPECT_EQ(Lines().back().text, UnpackedLine(10014, 10000));
}

struct PollState {
  int stopAt;
  int code;
  int calls = 0;
};

int StopAt(void* arg) {
  auto* s = static_cast<PollState*>(arg);
  return ++s->calls == s->stopAt ? s->code : 0;
}

TEST_F(MemCompTest, PollProcedureAbortEmptiesTheBlock) {
  std::mt19937 rng(7);
  const Bytes data = Generate(DataKind::kText, 5 * 4096, rng);
  for (int k = 1; k <= 5; ++k) {
    SCOPED_TRACE(k);
    ClearRecords();
    TMemory m(1);
    Fill(&m, data);
    PollState state{k, kErrAborted};
    EXPECT_EQ(MemComp(&m, &state, StopAt), kErrAborted);
    EXPECT_EQ(state.calls, k);
    EXPECT_EQ(m.GetSize(), 0u);
    char pointer[16];
    std::snprintf(pointer, sizeof pointer, "%08x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&state)));
    const std::vector<LogLine> lines = {{kInternal, "",
                                         std::string("TCompStat::pack: pollproc(0x") + pointer +
                                             ") terminates with error " + ErrorText(kErrAborted)}};
    EXPECT_EQ(Lines(), lines);
  }
  // A procedure that never objects is called once a slice.
  TMemory m(1);
  Fill(&m, data);
  PollState never{0, 0};
  EXPECT_EQ(MemComp(&m, &never, StopAt), 0);
  EXPECT_EQ(never.calls, 5);
}

TEST_F(MemCompTest, DamagedBlockIsRefusedAndLeftAsItWas) {
  std::mt19937 rng(8);
  const Bytes data = quarnel_testdata::GenerateMixed(9000, rng);
  TMemory m;  // priority 2: the growth check runs only now and then
  Fill(&m, data);
  ASSERT_EQ(MemComp(&m), 0);
  const Bytes packed = Content(m);
  // The last trailer claims one byte more than its slice holds.
  Bytes bad = packed;
  bad.back() = static_cast<std::uint8_t>(9000 - 8192 + 1);
  bad[bad.size() - 2] = static_cast<std::uint8_t>((9000 - 8192 + 1) >> 8);
  ClearRecords();
  Fill(&m, bad);
  EXPECT_EQ(MemUncomp(&m), kErrInvalidData);
  EXPECT_EQ(Content(m), bad);
  const std::vector<LogLine> lines = {
      {kInternal, "",
       "TCompStat::unpack: corrupt packed block: bad segment trailer at offset " +
           Grouped(static_cast<long long>(bad.size()) - 2)}};
  EXPECT_EQ(Lines(), lines);
  // Every truncation, and a bit flipped in every byte: refused and
  // unchanged, or unpacked to the original size.
  int refused = 0;
  for (std::size_t len = 8; len < packed.size(); len += 3) {
    const Bytes cut(packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(len));
    Fill(&m, cut);
    const int rc = MemUncomp(&m);
    if (rc == kErrInvalidData) {
      ++refused;
      ASSERT_EQ(Content(m), cut) << len;
    } else {
      ASSERT_EQ(rc, 0) << len;
    }
  }
  for (std::size_t at = 4; at < packed.size(); ++at) {
    Bytes flipped = packed;
    flipped[at] ^= static_cast<std::uint8_t>(1u << (at % 8));
    Fill(&m, flipped);
    const int rc = MemUncomp(&m);
    if (rc == kErrInvalidData) {
      ++refused;
      ASSERT_EQ(Content(m), flipped) << at;
    } else {
      ASSERT_EQ(rc, 0) << at;
    }
  }
  EXPECT_GT(refused, 0);
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(MemCompTest, DamageFoundWhileUnpackingLeavesTheBlockAsItWas) {
  // 4,096 'A's, then a 5-byte slice whose copy reads a byte not yet written;
  // that slice is checked as it is decoded, above the block's own bytes.
  Bytes block = {0x51, 0x6E, 0x51, 0x79, 0x00, 0x00, 0x10, 0x05, 0xA0, 0x41};
  for (int k = 0; k < 15; ++k) block.insert(block.end(), {0x80, 0x00, 0xFF});
  block.insert(block.end(), {0x80, 0x00, 78, 0x00, 50, 0xA0, 0x41, 0x00, 0x01, 0x00, 0x04});
  TMemory m(1);
  Fill(&m, block);
  EXPECT_EQ(MemUncomp(&m), kErrInvalidData);
  EXPECT_EQ(Content(m), block);
  const std::vector<LogLine> lines = {
      {kInternal, "", "TCompStat::unpack: corrupt packed block: bad segment code at offset 60"}};
  EXPECT_EQ(Lines(), lines);
  block[63] = 0x00;  // the copy from position 0
  Fill(&m, block);
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(Content(m), Bytes(4101, 'A'));
}

// A heap block whose resize fails: the heap refuses twice, and no virtual
// reservation is large enough for TMemory's fallback.
void FailNextResize(int nthHeapCall) {
  UFailCall(UCall::kHeapReAlloc, nthHeapCall, 8, 2);
  USetVirtualReserveLimit(65536);
}

bool HasLineStartingWith(const std::vector<LogLine>& lines, const std::string& start) {
  for (const LogLine& l : lines) {
    if (l.text.compare(0, start.size(), start) == 0) return true;
  }
  return false;
}

TEST_F(MemCompTest, FailedGrowthLeavesTheDataAsItWas) {
  std::mt19937 rng(9);
  const Bytes data = Generate(DataKind::kText, 20000, rng);
  TMemory m(1);
  Fill(&m, data);
  FailNextResize(1);
  EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
  EXPECT_EQ(Content(m), data);
  EXPECT_FALSE(HasLineStartingWith(Lines(), "TCompStat"));
  EXPECT_TRUE(HasLineStartingWith(Lines(), "TMemory::SetSize"));

  // Unpacking a block with raw and coded slices grows it first.
  UClearFaults();
  USetVirtualReserveLimit(0);
  Bytes random = Generate(DataKind::kText, 10000, rng);
  const Bytes tail = Generate(DataKind::kRandom, 10000, rng);
  random.insert(random.end(), tail.begin(), tail.end());
  Fill(&m, random);
  ASSERT_EQ(MemComp(&m), 0);
  const Bytes packed = Content(m);
  ClearRecords();
  FailNextResize(1);
  EXPECT_EQ(MemUncomp(&m), kErrMemNotObtained);
  EXPECT_EQ(Content(m), packed);
  EXPECT_FALSE(HasLineStartingWith(Lines(), "TCompStat"));
}

TEST_F(MemCompTest, FailedShrinkAfterPackingBringsTheDataBack) {
  std::mt19937 rng(10);
  for (DataKind kind : {DataKind::kText, DataKind::kRandom}) {
    SCOPED_TRACE(static_cast<int>(kind));
    const Bytes data = Generate(kind, 20000, rng);
    TMemory m(1);
    Fill(&m, data);
    ClearRecords();
    FailNextResize(2);  // the growth passes, the shrink to the packed size fails
    EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
    UClearFaults();
    USetVirtualReserveLimit(0);
    EXPECT_EQ(m.GetSize(), 20000u + quarnel_internal::PackSlack(20000));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), m.MemPtr()));
    EXPECT_FALSE(HasLineStartingWith(Lines(), "TCompStat::pack: compressed"));
    EXPECT_TRUE(HasLineStartingWith(
        Lines(), "TCompStat::pack: can't shrink buffer from " + Grouped(20000 + 41) + " to "));
  }
}

TEST_F(MemCompTest, FailedShrinkAfterUnpackingIsReported) {
  std::mt19937 rng(11);
  const Bytes data = Generate(DataKind::kRandom, 20000, rng);
  TMemory m(1);
  Fill(&m, data);
  ASSERT_EQ(MemComp(&m), 0);
  const unsigned b = m.GetSize();
  ClearRecords();
  FailNextResize(1);  // raw slices need no growth: the shrink to the data fails
  EXPECT_EQ(MemUncomp(&m), kErrMemNotObtained);
  EXPECT_TRUE(std::equal(data.begin(), data.end(), m.MemPtr()));
  const LogLine expected{
      515, "",
      "TCompStat::unpack: can't shrink buffer from " + Grouped(b) + " to " + Grouped(20000)};
  EXPECT_EQ(Lines().back(), expected);
}

TEST_F(MemCompTest, MissingIndexTablesChangeNothing) {
  std::mt19937 rng(12);
  const Bytes data = Generate(DataKind::kText, 9000, rng);
  TMemory m(1);
  Fill(&m, data);
  UFailCall(UCall::kHeapAlloc, 1, 8, 2);  // the small-block allocator gives up
  EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
  UClearFaults();
  EXPECT_EQ(Content(m), data);
  ASSERT_FALSE(Assertions().empty());
  EXPECT_EQ(Assertions()[0].module, "memutil");
}

// Blocks packed and unpacked by several threads at once, each its own:
// the shared parts (tickers, the allocator, the memory statistics, the
// checksum's set-up) stand it.
TEST_F(MemCompTest, ThreadsPackTheirOwnBlocksAtOnce) {
  constexpr int kThreads = 4;
  std::vector<Bytes> inputs;
  std::mt19937 rng(14);
  for (int k = 0; k < kThreads; ++k) inputs.push_back(quarnel_testdata::GenerateMixed(30000, rng));
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int k = 0; k < kThreads; ++k) {
    threads.emplace_back([&, k] {
      for (int round = 0; round < 20; ++round) {
        TMemory m;
        m.SetSize(static_cast<unsigned>(inputs[k].size()));
        std::memcpy(m.MemPtr(), inputs[k].data(), inputs[k].size());
        const unsigned hash = HashBlock(m.MemPtr(), static_cast<int>(m.GetSize()));
        if (MemComp(&m) != 0 || MemUncomp(&m) != 0 || Content(m) != inputs[k] ||
            HashBlock(m.MemPtr(), static_cast<int>(m.GetSize())) != hash) {
          ++failures[k];
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  EXPECT_EQ(Lines().size(), std::size_t{2 * 20 * kThreads});
}

TEST_F(MemCompTest, NoBlockAsserts) {
  TCompStat none(nullptr);
  EXPECT_EQ(none.pack(kMemCompMagic), kErrBadParameter);
  EXPECT_EQ(none.unpack(), kErrBadParameter);
  const std::vector<AssertionSeen> expected = {
      {"memcomp", quarnel_internal::kMemCompNoBlockLine, ""},
      {"memcomp", quarnel_internal::kMemCompNoBlockLine, ""}};
  EXPECT_EQ(Assertions(), expected);
}

TEST_F(MemCompTest, OwnMagicMarksTheBlock) {
  // TCompStat packs with the magic it is given; only the library's magic is
  // unpacked.
  std::mt19937 rng(13);
  const Bytes data = Generate(DataKind::kText, 6000, rng);
  TMemory m(1);
  Fill(&m, data);
  TCompStat stat(&m);
  ASSERT_EQ(stat.pack(0x41424344), 0);
  EXPECT_EQ(Bytes(m.MemPtr(), m.MemPtr() + 4), (Bytes{'A', 'B', 'C', 'D'}));
  const Bytes packed = Content(m);
  EXPECT_EQ(stat.pack(0x41424344), 0);  // already marked
  EXPECT_EQ(Content(m), packed);
  EXPECT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(Content(m), packed);
}

TEST_F(MemCompTest, BlocksShorterThanTheMagicStayUnpacked) {
  // What the header left behind must not complete a prefix of the magic.
  for (const Bytes& data : {Bytes{'Q'}, Bytes{'Q', 'n'}, Bytes{'Q', 'n', 'Q'}, Bytes{'Q', 'y'}}) {
    SCOPED_TRACE(data.size());
    TMemory m(1);
    Fill(&m, data);
    ASSERT_EQ(MemComp(&m), 0);
    ASSERT_EQ(m.GetSize(), data.size() + 32);
    EXPECT_EQ(MemUncomp(&m), 0);
    EXPECT_EQ(m.GetSize(), data.size() + 32);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), m.MemPtr()));
  }
  EXPECT_EQ(Lines().size(), 4u);  // the four "can't compress small buffer" lines
}

}  // namespace
