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
#include "tests/support/helpers.h"

namespace {

using quarnel_testdata::DataKind;
using quarnel_testdata::Generate;

std::string PackedLine(long long n, long long p, const char* seconds = "0.000") {
  return "517 TCompStat::pack: compressed buffer from " + Grouped(n) + " to " + Grouped(p) + " (" +
         Grouped((n - p) * 100 / n) + "%) in " + seconds + " seconds\n";
}

std::string UnpackedLine(long long b, long long n) {
  return "517 TCompStat::unpack: decompressed buffer from " + Grouped(b) + " to " + Grouped(n) +
         " in 0.000 seconds\n";
}

class MemCompTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    env_->lcid = 0x0409;
    UFreezeTickCount(1);  // every span measures 0 ms unless a test moves the clock
  }

  static void Fill(TMemory* m, const Bytes& data) {
    ASSERT_EQ(m->SetSize(static_cast<unsigned>(data.size())), 0);
    if (!data.empty()) std::memcpy(m->MemPtr(), data.data(), data.size());
  }
  static Bytes Content(const TMemory& m) { return Bytes(m.MemPtr(), m.MemPtr() + m.GetSize()); }

  ScopedEnv env_;
};

// The packed bytes are the reference packer's (whose layouts the packed-block
// tests pin); each pass logs its statistics line.
TEST_F(MemCompTest, RoundTripsWithTheirStatisticsLines) {
  std::mt19937 rng(1);
  const std::vector<Bytes> rows = {
      Generate(DataKind::kText, 4 * 4096 + 77, rng), Generate(DataKind::kRandom, 10000, rng),
      quarnel_testdata::GenerateMixed(50000, rng),   Generate(DataKind::kRuns, 9000, rng),
      Generate(DataKind::kText, 3000, rng),          Bytes(4096, 0xEE)};
  for (const Bytes& data : rows) {
    SCOPED_TRACE(data.size());
    ClearRecords();
    TMemory m(1);
    Fill(&m, data);
    Bytes expected;
    ASSERT_TRUE(quarnel_reference::PackBlock(data, &expected));
    ASSERT_EQ(MemComp(&m), 0);
    EXPECT_TRUE(Content(m) == expected);
    ASSERT_EQ(MemUncomp(&m), 0);
    EXPECT_TRUE(Content(m) == data);
    const long long n = static_cast<long long>(data.size());
    const long long p = static_cast<long long>(expected.size());
    EXPECT_EQ(Logged(), PackedLine(n, p) + UnpackedLine(p, n));
  }
  EXPECT_EQ(Asserted(), "");

  // A virtual block.
  const Bytes big = quarnel_testdata::GenerateMixed(std::size_t{2} << 20, rng);
  TMemory m(1);
  Fill(&m, big);
  ASSERT_EQ(MemComp(&m), 0);
  EXPECT_LT(m.GetSize(), big.size());
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_TRUE(Content(m) == big);

  // The poll procedure runs once a slice; here each call moves the clock
  // 1,234 ms, which the line shows.
  ClearRecords();
  auto tick = [](void*) {
    USetTickOffset(UGetTickOffset() + 1234);
    return 0;
  };
  Fill(&m, Generate(DataKind::kText, 3 * 4096, rng));
  ASSERT_EQ(MemComp(&m, nullptr, tick), 0);
  EXPECT_EQ(Logged(), PackedLine(3 * 4096, m.GetSize(), "3.702"));
}

TEST_F(MemCompTest, WhatNeedsNoWorkIsLeftAlone) {
  // An empty block packs to the bare header, without a line.
  TMemory m(1);
  ASSERT_EQ(MemComp(&m), 0);
  EXPECT_EQ(Content(m), (Bytes{0x51, 0x6E, 0x51, 0x79, 0, 0, 0, 0}));
  EXPECT_EQ(Logged(), "");
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(m.GetSize(), 0u);
  EXPECT_EQ(Logged(), UnpackedLine(8, 0));

  // Packing a packed block, unpacking a plain one, and blocks too short to
  // hold a header: nothing changes, nothing is logged.
  ClearRecords();
  std::mt19937 rng(4);
  const Bytes packed = {0x51, 0x6E, 0x51, 0x79, 0x12, 0x34};
  Fill(&m, packed);
  EXPECT_EQ(MemComp(&m), 0);
  EXPECT_EQ(Content(m), packed);
  for (const Bytes& b : {Bytes{}, Bytes{0x51, 0x6E, 0x51}, Bytes{0x51, 0x6E, 0x51, 0x79, 0, 0, 0},
                         Generate(DataKind::kText, 5000, rng)}) {
    Fill(&m, b);
    EXPECT_EQ(MemUncomp(&m), 0);
    EXPECT_EQ(Content(m), b);
  }
  EXPECT_EQ(Logged(), "");

  // A buffer that does not pay keeps the size it was grown to, and is not
  // unpacked afterwards, also when what the header left behind would
  // complete a prefix of the magic.
  const std::pair<Bytes, unsigned> small[] = {{Generate(DataKind::kRandom, 4096, rng), 4096 + 34},
                                              {{'Q'}, 1 + 32},
                                              {{'Q', 'n', 'Q'}, 3 + 32},
                                              {{'Q', 'y'}, 2 + 32}};
  for (const auto& [data, grown] : small) {
    SCOPED_TRACE(data.size());
    ClearRecords();
    Fill(&m, data);
    ASSERT_EQ(MemComp(&m), 0);
    EXPECT_EQ(m.GetSize(), grown);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), m.MemPtr()));
    EXPECT_EQ(MemUncomp(&m), 0);
    EXPECT_EQ(m.GetSize(), grown);
    EXPECT_EQ(Logged(), "517 TCompStat::pack: can't compress small buffer of size " +
                            Grouped(static_cast<long long>(data.size())) + "\n");
  }

  // TCompStat packs with the magic it is given; only the library's magic is
  // unpacked.
  Fill(&m, Generate(DataKind::kText, 6000, rng));
  TCompStat stat(&m);
  ASSERT_EQ(stat.pack(0x41424344), 0);
  EXPECT_EQ(Bytes(m.MemPtr(), m.MemPtr() + 4), (Bytes{'A', 'B', 'C', 'D'}));
  const Bytes own = Content(m);
  EXPECT_EQ(stat.pack(0x41424344), 0);  // already marked
  EXPECT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(Content(m), own);

  // No block asserts.
  TCompStat none(nullptr);
  EXPECT_EQ(none.pack(kMemCompMagic), kErrBadParameter);
  EXPECT_EQ(none.unpack(), kErrBadParameter);
  const std::string line = "memcomp-" + std::to_string(quarnel_internal::kMemCompNoBlockLine);
  EXPECT_EQ(Asserted(), line + " " + line);
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
  for (int k = 1; k <= 6; ++k) {  // the procedure is called once a slice
    SCOPED_TRACE(k);
    ClearRecords();
    TMemory m(1);
    Fill(&m, data);
    PollState state{k, kErrAborted};
    EXPECT_EQ(MemComp(&m, &state, StopAt), k <= 5 ? kErrAborted : 0);
    EXPECT_EQ(state.calls, std::min(k, 5));
    if (k <= 5) {
      EXPECT_EQ(m.GetSize(), 0u);
      char pointer[16];
      std::snprintf(pointer, sizeof pointer, "%08x",
                    static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&state)));
      EXPECT_EQ(Logged(), std::string("517 TCompStat::pack: pollproc(0x") + pointer +
                              ") terminates with error " + ErrorText(kErrAborted) + "\n");
    }
  }
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
  EXPECT_EQ(Logged(),
            "517 TCompStat::unpack: corrupt packed block: bad segment trailer at offset " +
                Grouped(static_cast<long long>(bad.size()) - 2) + "\n");

  // 4,096 'A's, then a 5-byte slice whose copy reads a byte not yet written;
  // that slice is checked as it is decoded, above the block's own bytes.
  Bytes block = {0x51, 0x6E, 0x51, 0x79, 0x00, 0x00, 0x10, 0x05, 0xA0, 0x41};
  for (int k = 0; k < 15; ++k) block.insert(block.end(), {0x80, 0x00, 0xFF});
  block.insert(block.end(), {0x80, 0x00, 78, 0x00, 50, 0xA0, 0x41, 0x00, 0x01, 0x00, 0x04});
  ClearRecords();
  Fill(&m, block);
  EXPECT_EQ(MemUncomp(&m), kErrInvalidData);
  EXPECT_EQ(Content(m), block);
  EXPECT_EQ(Logged(),
            "517 TCompStat::unpack: corrupt packed block: bad segment code at offset 60\n");
  block[63] = 0x00;  // the copy from position 0
  Fill(&m, block);
  ASSERT_EQ(MemUncomp(&m), 0);
  EXPECT_EQ(Content(m), Bytes(4101, 'A'));

  EXPECT_EQ(Asserted(), "");
}

// A heap block whose resize fails: the heap refuses twice, and no virtual
// reservation is large enough for TMemory's fallback.
void FailNextResize(int nthHeapCall) {
  UFailCall(UCall::kHeapReAlloc, nthHeapCall, 8, 2);
  USetVirtualReserveLimit(65536);
}

void ClearFaults() {
  UClearFaults();
  USetVirtualReserveLimit(0);
}

TEST_F(MemCompTest, FailedResizesLoseNothing) {
  std::mt19937 rng(9);
  const Bytes text = Generate(DataKind::kText, 20000, rng);
  const Bytes random = Generate(DataKind::kRandom, 20000, rng);
  // The growth to the working room fails: the data stay as they were.
  TMemory m(1);
  Fill(&m, text);
  FailNextResize(1);
  EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
  EXPECT_EQ(Content(m), text);
  EXPECT_EQ(Logged().find("TCompStat"), std::string::npos);
  EXPECT_NE(Logged().find("TMemory::SetSize"), std::string::npos);
  // Unpacking a block with coded slices grows it first.
  ClearFaults();
  Bytes mixed(text.begin(), text.begin() + 10000);
  mixed.insert(mixed.end(), random.begin(), random.begin() + 10000);
  Fill(&m, mixed);
  ASSERT_EQ(MemComp(&m), 0);
  const Bytes packedMixed = Content(m);
  ClearRecords();
  FailNextResize(1);
  EXPECT_EQ(MemUncomp(&m), kErrMemNotObtained);
  EXPECT_EQ(Content(m), packedMixed);
  EXPECT_EQ(Logged().find("TCompStat"), std::string::npos);

  // The shrink to the packed size fails: the data come back.
  for (const Bytes* data : {&text, &random}) {
    ClearFaults();
    Fill(&m, *data);
    ClearRecords();
    FailNextResize(2);
    EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
    ClearFaults();
    EXPECT_EQ(m.GetSize(), 20000u + quarnel_internal::PackSlack(20000));
    EXPECT_TRUE(std::equal(data->begin(), data->end(), m.MemPtr()));
    EXPECT_EQ(Logged().find("TCompStat::pack: compressed"), std::string::npos);
    EXPECT_NE(
        Logged().find("TCompStat::pack: can't shrink buffer from " + Grouped(20000 + 41) + " to "),
        std::string::npos);
  }

  // The shrink after unpacking fails: reported, with the data in place. All
  // raw slices need no growth, so the shrink is the first resize.
  Fill(&m, random);
  ASSERT_EQ(MemComp(&m), 0);
  const Bytes packed = Content(m);
  ClearRecords();
  FailNextResize(1);
  EXPECT_EQ(MemUncomp(&m), kErrMemNotObtained);
  EXPECT_TRUE(std::equal(random.begin(), random.end(), m.MemPtr()));
  EXPECT_EQ(Lines().back(), (LogLine{515, "",
                                     "TCompStat::unpack: can't shrink buffer from " +
                                         Grouped(static_cast<long long>(packed.size())) + " to " +
                                         Grouped(20000)}));

  // Without its index tables nothing changes.
  ClearFaults();
  Fill(&m, text);
  ClearRecords();
  UFailCall(UCall::kHeapAlloc, 1, 8, 2);  // the small-block allocator gives up
  EXPECT_EQ(MemComp(&m), kErrMemNotObtained);
  EXPECT_EQ(Content(m), text);
  EXPECT_EQ(Asserted().substr(0, 8), "memutil-");
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

}  // namespace
