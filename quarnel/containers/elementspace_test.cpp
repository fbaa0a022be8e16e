#include "quarnel/containers/elementspace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

// Header offsets.
enum : int {
  kFloor = 8,
  kFreed = 12,
  kStart = 16,
  kEnd = 20,
  kBase = 24,
  kFlags = 28,
  kLock = 32,
  kEmpty = 36,
  kUnit = 44,
  kCount = 72,
};

int Word(ElementSpace& es, int offset) {
  const unsigned char* p = es.MemPtr() + offset;
  return static_cast<int>(p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<unsigned>(p[3]) << 24));
}

void SetWord(ElementSpace& es, int offset, int value) {
  unsigned char* p = es.MemPtr() + offset;
  for (int i = 0; i < 4; ++i)
    p[i] = static_cast<unsigned char>(static_cast<unsigned>(value) >> (8 * i));
}

int Slot(ElementSpace& es, int r) { return Word(es, 76 + 4 * r); }

std::vector<unsigned char> Bytes(ElementSpace& es, int from, int n) {
  return std::vector<unsigned char>(es.MemPtr() + from, es.MemPtr() + from + n);
}

std::vector<unsigned char> Le(std::initializer_list<int> words) {
  std::vector<unsigned char> out;
  for (int w : words) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<unsigned char>(static_cast<unsigned>(w) >> (8 * i)));
  }
  return out;
}

// A log line's text as the library's engine makes it.
template <class... A>
std::string Fmt(const char16_t* format, const A&... values) {
  TString s;
  s.SPrintf(format, values...);
  return Utf8(s);
}

std::vector<unsigned char> MakeList(
    const std::vector<std::pair<const char*, std::string>>& entries) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const unsigned short len = static_cast<unsigned short>(4 + text.size());
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

class SpaceTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    // The unit letters of the compression report's %K.
    list_ = MakeList({{"KMkm", "KMGkmg"}, {"Zero", "Zero"}});
    RMAddHostKList(16000, list_.data(), static_cast<int>(list_.size()));
  }
  void TearDown() override {
    RMAddHostKList(16000, nullptr, 0);
    RecordingTest::TearDown();
  }
  // Log lines other than the compression reports (518).
  std::vector<LogLine> Reported() const {
    std::vector<LogLine> out;
    for (const LogLine& l : Lines()) {
      if (l.level != 518) out.push_back(l);
    }
    return out;
  }
  int Compressions() const {
    int n = 0;
    for (const LogLine& l : Lines()) {
      if (l.level == 518 && l.text.rfind("lmCompress: compressing, size = ", 0) == 0) ++n;
    }
    return n;
  }

  std::vector<unsigned char> list_;
};

TEST_F(SpaceTest, NewSpaceIsOneKilobyteAndAHeader) {
  ElementSpace es(0, 0);
  ASSERT_EQ(es.GetSize(), 1108u);
  std::vector<unsigned char> expected(1108, 0);
  const std::vector<unsigned char> header = {
      0x2E, 0x73, 0x6D, 0x4C,  // 'Lms.' as a little-endian word
      0x00, 0x01, 0x00, 0x01,  // versions 256
  };
  std::copy(header.begin(), header.end(), expected.begin());
  const auto words = Le({0, 0, 1108, 1108, 1, 0, 0, 0, 0, 1});  // offsets 8 .. 44
  std::copy(words.begin(), words.end(), expected.begin() + 8);
  EXPECT_EQ(Bytes(es, 0, 1108), expected);
  EXPECT_EQ(es.LmCount(), 0);
  EXPECT_EQ(es.LmAvail(), 1024);
  EXPECT_EQ(es.LmValid(), 0);
  EXPECT_EQ(es.GetPriority(), 2);

  ElementSpace big(5000, 1);  // 4 KiB units, required
  EXPECT_EQ(big.GetSize(), 4 * 1024u + 84);
  EXPECT_EQ(Word(big, kBase), 4);
  EXPECT_EQ(Word(big, kUnit), 4);
  EXPECT_EQ(Word(big, kFlags), 1);
  int unit = 0, required = 0;
  big.LmGetParms(&unit, &required);
  EXPECT_EQ(unit, 4096);
  EXPECT_EQ(required, 1);

  EXPECT_EQ(es.LmNew(0x7FFFFFFF, 0), kErrLmFull);
  EXPECT_EQ(Reported(),
            (std::vector<LogLine>{{517, "", Fmt(u"LmNew: not enough memory, %E", kErrLmFull)}}));
  EXPECT_EQ(es.GetSize(), 1108u);  // left as it was
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(SpaceTest, AddWritesSizeDataAndPadding) {
  ElementSpace es(0, 0);
  EXPECT_EQ(es.LmAdd("hello", 5), 1);
  EXPECT_EQ(Word(es, kStart), 1096);
  EXPECT_EQ(Slot(es, 1), 1096);
  EXPECT_EQ(Word(es, kCount), 1);
  EXPECT_EQ(Bytes(es, 1096, 12),
            (std::vector<unsigned char>{5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0}));
  EXPECT_EQ(es.LmSize(1), 5);
  EXPECT_EQ(std::string(es.LmGet(1), 5), "hello");
  EXPECT_EQ(es.LmAvail(), 1096 - 84 - 4);
  EXPECT_EQ(es.LmAdd(nullptr, 0), 2);
  EXPECT_EQ(Word(es, kStart), 1092);
  EXPECT_EQ(Word(es, 1092), 0);
  EXPECT_EQ(es.LmAdd(nullptr, 6), 3);
  EXPECT_EQ(Bytes(es, 1080, 12), (std::vector<unsigned char>{6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(es.LmValid(), 0);
  EXPECT_TRUE(Lines().empty());

  EXPECT_EQ(es.LmAdd("x", -1), kErrLmBadArgument);
  EXPECT_EQ(es.LmAdd("x", 0x3FFFFFFF), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmAdd: invalid size, -1"},
                                              {515, "", "LmAdd: invalid size, 1073741823"}}));
}

TEST_F(SpaceTest, GrowthMakesRoomForTheRequestAndOneUnit) {
  ElementSpace es(0, 0);
  // 2,004 physical bytes do not fit the 1,024 free: the area grows so that
  // 2,004 + 1 KiB are free, and the growth unit doubles.
  std::string data(2000, 'g');
  EXPECT_EQ(es.LmAdd(data.data(), 2000), 1);
  EXPECT_EQ(es.GetSize(), 3112u);
  EXPECT_EQ(Word(es, kEnd), 3112);
  EXPECT_EQ(Word(es, kStart), 1108);
  EXPECT_EQ(es.LmAvail(), 1108 - 84 - 4);
  EXPECT_EQ(Word(es, kUnit), 2);
  EXPECT_EQ(std::string(es.LmGet(1), 2000), data);
  // The next growth adds 2 KiB beyond the request, then 4 KiB, ...
  EXPECT_EQ(es.LmAdd(nullptr, 1500), 2);
  EXPECT_EQ(es.LmAvail(), 2048 - 4);
  EXPECT_EQ(Word(es, kUnit), 4);
  // Doubling stops at 16,384 KiB.
  SetWord(es, kUnit, 12000);
  EXPECT_EQ(es.LmAdd(nullptr, 100000), 3);
  EXPECT_EQ(Word(es, kUnit), 16384);
  EXPECT_EQ(es.LmAvail(), 12000 * 1024 - 4);
  EXPECT_EQ(es.LmAdd(nullptr, 13000000), 4);
  EXPECT_EQ(Word(es, kUnit), 16384);
  EXPECT_EQ(es.LmValid(), 0);
  EXPECT_TRUE(Reported().empty());
}

TEST_F(SpaceTest, RemovalDropsTrailingSlotsAndReusesInnerOnes) {
  ElementSpace es(0, 0);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(es.LmAdd("abc", 3), i);
  EXPECT_EQ(es.LmRemove(3), 0);
  EXPECT_EQ(es.LmCount(), 2);
  EXPECT_EQ(Word(es, kFreed), 8);
  EXPECT_EQ(es.LmAdd("abc", 3), 3);
  EXPECT_EQ(es.LmRemove(2), 0);
  EXPECT_EQ(es.LmCount(), 3);
  EXPECT_EQ(Word(es, kEmpty), 1);
  EXPECT_EQ(es.LmTest(2), -1);
  EXPECT_EQ(es.LmTest(3), 0);
  EXPECT_EQ(es.LmAdd("xy", 2), 2);
  EXPECT_EQ(Word(es, kEmpty), 0);
  EXPECT_EQ(es.LmRemove(2), 0);
  EXPECT_EQ(es.LmRemove(3), 0);  // slot 2 is empty too: both go
  EXPECT_EQ(es.LmCount(), 1);
  EXPECT_EQ(Word(es, kEmpty), 0);
  EXPECT_EQ(es.LmValid(), 0);
  EXPECT_TRUE(Lines().empty());

  EXPECT_EQ(es.LmRemove(2), kErrLmBadArgument);
  EXPECT_EQ(es.LmRemove(0), kErrLmBadArgument);
  EXPECT_EQ(es.LmSize(7), kErrLmBadArgument);
  EXPECT_EQ(es.LmTest(0), -1);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmRemove: ndex = 2 not in range"},
                                              {515, "", "LmRemove: ndex = 0 not in range"},
                                              {515, "", "LmSize: ndex = 7, not in range"}}));
}

TEST_F(SpaceTest, SetBeyondTheCountLeavesEmptySlots) {
  ElementSpace es(0, 0);
  es.LmAdd("a", 1);
  es.LmAdd("b", 1);
  EXPECT_EQ(es.LmSet(5, 10), 0);
  EXPECT_EQ(es.LmCount(), 5);
  EXPECT_EQ(Word(es, kEmpty), 2);
  EXPECT_EQ(es.LmTest(3), -1);
  EXPECT_EQ(es.LmTest(4), -1);
  EXPECT_EQ(es.LmSize(5), 10);
  EXPECT_EQ(std::string(es.LmGet(5), 10), std::string(10, '\0'));
  EXPECT_EQ(es.LmAdd("c", 1), 3);  // inner slots are filled by LmAdd
  EXPECT_EQ(es.LmValid(), 0);

  EXPECT_EQ(es.LmSet(0, 1), kErrLmBadArgument);
  EXPECT_EQ(es.LmSet(1, -1), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmSet: bad argument 0, 1"},
                                              {515, "", "LmSet: bad argument 1, -1"}}));
}

TEST_F(SpaceTest, ShrinkingLeavesADeadTailInPlace) {
  ElementSpace es(0, 0);
  es.LmAdd("0123456789abcdefghij", 20);  // 24 bytes at 1084
  es.LmAdd("zz", 2);
  char* before = es.LmGet(1);
  EXPECT_EQ(es.LmSet(1, 2), 0);
  EXPECT_EQ(es.LmGet(1), before);
  // Size 2 in 8 bytes, then a dead record of 24 - 8 - 4 = 12 bytes.
  EXPECT_EQ(Bytes(es, 1084, 12),
            (std::vector<unsigned char>{2, 0, 0, 0, '0', '1', 0, 0, 12, 0, 0, 0}));
  EXPECT_EQ(Word(es, kFreed), 16);
  // Within the same physical size nothing is freed; the padding is zeroed.
  EXPECT_EQ(es.LmSet(1, 1), 0);
  EXPECT_EQ(Bytes(es, 1084, 8), (std::vector<unsigned char>{1, 0, 0, 0, '0', 0, 0, 0}));
  EXPECT_EQ(es.LmSet(1, 3), 0);
  EXPECT_EQ(Bytes(es, 1084, 8), (std::vector<unsigned char>{3, 0, 0, 0, '0', 0, 0, 0}));
  EXPECT_EQ(Word(es, kFreed), 16);
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, GrowingTheLowestRecordMovesItDown) {
  ElementSpace es(0, 0);
  es.LmAdd("first", 5);
  es.LmAdd("low", 3);  // 8 bytes at 1088, the lowest
  ASSERT_EQ(Word(es, kStart), 1088);
  EXPECT_EQ(es.LmSet(2, 9), 0);
  EXPECT_EQ(Word(es, kStart), 1080);
  EXPECT_EQ(Slot(es, 2), 1080);
  EXPECT_EQ(Bytes(es, 1080, 16),
            (std::vector<unsigned char>{9, 0, 0, 0, 'l', 'o', 'w', 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Word(es, kFreed), 0);
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, GrowingAnotherRecordCopiesItAndKeepsItsFlags) {
  ElementSpace es(0, 0);
  es.LmAdd("grow", 4);  // 8 bytes at 1100
  es.LmAdd("other", 5);
  EXPECT_EQ(es.LmMark(1), 1);
  SetWord(es, 76 + 4, Slot(es, 1) | 0x40000000);  // the caller's flag bit 30
  EXPECT_EQ(es.LmSet(1, 12), 0);
  EXPECT_EQ(es.LmSize(1), 12);
  EXPECT_EQ(std::string(es.LmGet(1), 12), std::string("grow") + std::string(8, '\0'));
  EXPECT_EQ(static_cast<unsigned>(Slot(es, 1)) & 0xC0000000u, 0xC0000000u);
  EXPECT_EQ(Slot(es, 1) & 0x3FFFFFFF, Word(es, kStart));
  EXPECT_EQ(es.LmCount(), 2);  // the temporary refnum is gone
  EXPECT_EQ(Word(es, kFreed), 8);
  EXPECT_EQ(es.LmMark(1), 0);
  EXPECT_EQ(es.LmValid(), 0);
}

// Setting an empty slot inside the table lowers the count to it and leaves
// the empty-slot count: the library has always done so, and LmValid says so.
TEST_F(SpaceTest, SetOnAnInnerEmptySlotKeepsTheLibrarysOddity) {
  ElementSpace es(0, 0);
  for (int i = 0; i < 4; ++i) es.LmAdd("e", 1);
  es.LmRemove(2);
  EXPECT_EQ(es.LmSet(2, 4), 0);
  EXPECT_EQ(es.LmCount(), 2);
  EXPECT_EQ(Word(es, kEmpty), 1);
  EXPECT_EQ(es.LmValid(), 6);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{517, "", "LmValid: wrong zero count"}}));
  // A compression recounts the empty slots, and the space is sound again.
  EXPECT_EQ(es.LmCompress(), 0);
  EXPECT_EQ(Word(es, kEmpty), 0);
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, CompressPacksLiveRecordsAgainstTheEnd) {
  ElementSpace es(0, 0);
  es.LmAdd("A", 1);
  es.LmAdd("BB", 2);
  es.LmAdd("CCC", 3);
  es.LmRemove(2);
  EXPECT_EQ(es.LmCompress(), 0);
  EXPECT_EQ(Compressions(), 1);
  // Count 3 with slot 2 empty; 16 bytes of records; no free room left.
  ASSERT_EQ(es.GetSize(), 112u);
  std::vector<unsigned char> expected = {0x2E, 0x73, 0x6D, 0x4C, 0, 1, 0, 1};
  for (unsigned char b : Le({0, 0, 96, 112, 1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 3, 0, 104, 0, 96}))
    expected.push_back(b);
  for (int i = 0; i < 4; ++i) expected.push_back(0);  // the room of one future slot
  const unsigned char records[] = {3, 0, 0, 0, 'C', 'C', 'C', 0, 1, 0, 0, 0, 'A', 0, 0, 0};
  expected.insert(expected.end(), records, records + sizeof records);
  EXPECT_EQ(Bytes(es, 0, 112), expected);
  EXPECT_EQ(es.LmAvail(), 0);
  EXPECT_EQ(es.LmValid(), 0);
  // The next addition grows the area again.
  EXPECT_EQ(es.LmAdd("BB", 2), 2);
  EXPECT_EQ(std::string(es.LmGet(1), 1), "A");
  EXPECT_EQ(std::string(es.LmGet(2), 2), "BB");
  EXPECT_EQ(std::string(es.LmGet(3), 3), "CCC");
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, RemovalCompressesOnceAFifthIsDead) {
  ElementSpace es(0, 0);
  std::vector<std::string> data;
  for (int i = 0; i < 40; ++i) {
    data.push_back(std::string(20 + i, static_cast<char>('a' + i % 26)));
    ASSERT_EQ(es.LmAdd(data.back().data(), static_cast<int>(data.back().size())), i + 1);
  }
  const int end = Word(es, kEnd);
  int freed = 0;
  for (int r = 1; r <= 40 && Compressions() == 0; r += 2) {
    freed += es.LmPhys(static_cast<int>(data[r - 1].size()));
    es.LmRemove(r);
    data[r - 1].clear();
    if (freed <= end / 5) {
      ASSERT_EQ(Word(es, kFreed), freed);
    }
  }
  ASSERT_EQ(Compressions(), 1);
  EXPECT_EQ(Word(es, kFreed), 0);
  EXPECT_EQ(es.LmAvail(), 1024);  // one base unit left free
  for (int r = 1; r <= 40; ++r) {
    if (data[r - 1].empty()) {
      EXPECT_EQ(es.LmTest(r), -1);
    } else {
      EXPECT_EQ(std::string(es.LmGet(r), data[r - 1].size()), data[r - 1]);
    }
  }
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, MarkAndSweep) {
  ElementSpace es(0, 0);
  for (int i = 0; i < 5; ++i) es.LmAdd("m", 1);
  es.LmRemove(3);
  EXPECT_EQ(es.LmMark(2), 1);
  EXPECT_EQ(es.LmMark(2), 0);
  EXPECT_EQ(es.LmMark(3), kErrLmBadArgument);  // empty: no log line
  EXPECT_TRUE(Lines().empty());
  EXPECT_EQ(es.LmMark(6), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmMark: ndex = 6, not in range"}}));
  EXPECT_EQ(es.LmMark(4), 1);
  EXPECT_EQ(es.LmCollect(), 0);
  EXPECT_EQ(es.LmCount(), 4);
  EXPECT_EQ(es.LmTest(1), -1);
  EXPECT_EQ(es.LmTest(2), 0);
  EXPECT_EQ(es.LmTest(4), 0);
  EXPECT_EQ(Word(es, kEmpty), 2);
  EXPECT_EQ(es.LmValid(), 0);
  es.LmUnmark();
  EXPECT_EQ(Slot(es, 2) & static_cast<int>(0x80000000), 0);
  es.LmCollect();
  EXPECT_EQ(es.LmCount(), 0);
  EXPECT_EQ(Word(es, kEmpty), 0);
  EXPECT_EQ(Word(es, kFreed), 5 * 8);
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, SwapExchangesSlotWordsWithTheirFlags) {
  ElementSpace es(0, 0);
  es.LmAdd("one", 3);
  es.LmAdd("two", 3);
  es.LmAdd("three", 5);
  es.LmRemove(2);
  es.LmMark(1);
  EXPECT_EQ(es.LmSwap(1, 3), 0);
  EXPECT_EQ(std::string(es.LmGet(1), 5), "three");
  EXPECT_EQ(std::string(es.LmGet(3), 3), "one");
  EXPECT_EQ(es.LmMark(3), 0);
  EXPECT_EQ(es.LmMark(1), 1);
  EXPECT_EQ(es.LmSwap(1, 4), kErrLmBadArgument);
  EXPECT_EQ(es.LmSwap(1, 2), kErrLmBadArgument);
  EXPECT_EQ(Reported(),
            (std::vector<LogLine>{
                {515, "", "LmSwap: mdex = 1, ndex = 4, not in range"},
                {515, "", Fmt(u"LmSwap: temp = %~d, *jp = %~d, invalid refnum", Slot(es, 1), 0)}}));
}

TEST_F(SpaceTest, GetOfABadRefnumLogsAndAsserts) {
  ElementSpace es(0, 0);
  es.LmAdd("a", 1);
  es.LmAdd("b", 1);
  es.LmRemove(1);
  EXPECT_EQ(es.LmGet(0), nullptr);
  EXPECT_EQ(es.LmGet(3), nullptr);
  EXPECT_EQ(es.LmGet(1), nullptr);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmGet: ndex = 0 < 1"},
                                              {515, "", "LmGet: ndex = 3 > nsp->count = 2"},
                                              {515, "", "LmGet: ndex = 1, zero offset"}}));
  EXPECT_EQ(Assertions(),
            (std::vector<AssertionSeen>{
                {"elementspace", 503, ""}, {"elementspace", 503, ""}, {"elementspace", 503, ""}}));
}

TEST_F(SpaceTest, DupeCopiesTheBytes) {
  ElementSpace es(0, 0);
  std::string big(3000, 'q');
  es.LmAdd(big.data(), 3000);
  EXPECT_EQ(es.LmDupe(1), 2);  // needs growth: both addresses taken afterwards
  EXPECT_EQ(std::string(es.LmGet(2), 3000), big);
  EXPECT_EQ(es.LmDupe(5), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmDupe: ndex = 5, not in range"}}));
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, ReserveKeepsRoomUntilCompressed) {
  ElementSpace es(0, 0);
  EXPECT_EQ(es.LmReserve(10000), 0);
  EXPECT_EQ(es.GetSize(), 10084u);
  EXPECT_EQ(Word(es, kFloor), 10084);
  EXPECT_EQ(es.LmAvail(), 10000);
  // Removals compress but never shrink the area below the floor.
  for (int i = 0; i < 30; ++i) es.LmAdd(nullptr, 200);
  for (int r = 1; r <= 30; ++r) es.LmRemove(r);
  EXPECT_GE(Compressions(), 1);
  EXPECT_EQ(es.GetSize(), 10084u);
  EXPECT_EQ(es.LmValid(), 0);
  // LmCompress clears the floor and shrinks to the content.
  EXPECT_EQ(es.LmCompress(), 0);
  EXPECT_EQ(Word(es, kFloor), 0);
  EXPECT_EQ(es.GetSize(), 84u);
  EXPECT_EQ(es.LmAvail(), 0);
  EXPECT_EQ(es.LmValid(), 0);

  // Up to 1 MiB the request is cut so that the area stays within it.
  EXPECT_EQ(es.LmReserve(2 << 20), 0);
  EXPECT_EQ(es.GetSize(), 1048576u);
  EXPECT_EQ(es.LmAvail(), 1048576 - 84);
  // From 1 MiB on the area is left as it is and the floor is the smaller.
  EXPECT_EQ(es.LmReserve(5000), 0);
  EXPECT_EQ(Word(es, kFloor), 5000);
  EXPECT_EQ(es.GetSize(), 1048576u);
  EXPECT_EQ(es.LmReserve(0), 0);
  EXPECT_EQ(Word(es, kFloor), 0);
  EXPECT_EQ(es.LmReserve(-1), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmReserve: invalid size = -1"}}));
}

TEST_F(SpaceTest, PreflightMakesRoomAtLeastOneUnit) {
  ElementSpace es(0, 0);
  EXPECT_EQ(es.LmPreflight(100), 0);
  EXPECT_EQ(es.GetSize(), 1108u);
  EXPECT_EQ(es.LmPreflight(5000), 0);
  EXPECT_EQ(es.LmAvail(), 5000);
  EXPECT_EQ(es.GetSize(), 5084u);
  EXPECT_EQ(es.LmPreflight(5000), 0);  // equal to the room: sized again, to the same
  EXPECT_EQ(es.GetSize(), 5084u);
  EXPECT_EQ(es.LmPreflight(-1), kErrLmBadArgument);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{{515, "", "LmPreflight: size = -1, invalid size"}}));
}

TEST_F(SpaceTest, ALockedSpaceDoesNotMove) {
  ElementSpace es(0, 0);
  es.LmAdd("keep", 4);
  char* p = es.LmGet(1);
  es.LmLock();
  es.LmLock();
  EXPECT_EQ(es.LmAdd("x", 1), 2);  // fits the room: allowed, but asserted
  EXPECT_EQ(es.LmAdd(nullptr, 5000), kErrLmLocked);
  EXPECT_EQ(es.LmCompress(), kErrLmLocked);
  EXPECT_EQ(es.LmGet(1), p);
  EXPECT_EQ(Reported(), (std::vector<LogLine>{
                            {517, "", Fmt(u"LmAdd: lmNeeded failed, %E", kErrLmLocked)},
                            {515, "", Fmt(u"LmCompress: lmSizer failed, %E", kErrLmLocked)}}));
  EXPECT_EQ(Assertions(),
            (std::vector<AssertionSeen>{
                {"elementspace", 212, ""}, {"elementspace", 212, ""}, {"elementspace", 602, ""}}));
  ClearRecords();
  es.LmUnlock();
  es.LmUnlock();
  EXPECT_TRUE(Assertions().empty());
  es.LmUnlock();
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"elementspace", 541, ""}}));
  EXPECT_EQ(Word(es, kLock), 0);
  EXPECT_EQ(es.LmAdd(nullptr, 5000), 3);
  EXPECT_EQ(es.LmValid(), 0);
}

TEST_F(SpaceTest, RepairClearsLockAndRequired) {
  ElementSpace es(0, 1);
  es.LmLock();
  es.LmLock();
  EXPECT_EQ(es.LmRepair(), 0);
  EXPECT_EQ(Word(es, kLock), 0);
  EXPECT_EQ(Word(es, kFlags), 0);
  SetWord(es, 76, 4);
  EXPECT_EQ(es.LmRepair(), 1);
}

TEST_F(SpaceTest, ParametersAndTheAssertingVariants) {
  ElementSpace es(0, 0);
  es.LmSetParms(5000, 1);
  int unit = 0, required = 0;
  es.LmGetParms(&unit, &required);
  EXPECT_EQ(unit, 4096);
  EXPECT_EQ(required, 1);
  EXPECT_EQ(Word(es, kUnit), 4);
  es.LmSetParms(10, 0);
  es.LmGetParms(&unit, &required);
  EXPECT_EQ(unit, 1024);
  EXPECT_EQ(required, 0);

  EXPECT_EQ(es.LmAddAssert("ok", 2), 1);
  EXPECT_TRUE(Assertions().empty());
  EXPECT_EQ(es.LmAddAssert("x", -5), kErrLmBadArgument);
  EXPECT_EQ(es.LmSetAssert(0, 1), kErrLmBadArgument);
  EXPECT_EQ(es.LmDupeAssert(9), kErrLmBadArgument);
  EXPECT_EQ(es.LmSetAssert(1, 3), 0);
  EXPECT_EQ(Assertions(),
            (std::vector<AssertionSeen>{
                {"elementspace", 701, ""}, {"elementspace", 712, ""}, {"elementspace", 723, ""}}));
  EXPECT_EQ(Word(es, kFlags), 0);  // restored after each
}

TEST_F(SpaceTest, SmallQuestions) {
  ElementSpace es(0, 0);
  struct {
    int size, phys;
  } physRows[] = {
      {0, 4},         {1, 8}, {4, 8}, {5, 12}, {8, 12}, {-1, 0}, {0x3FFFFFFF, 0x40000004 & ~3},
      {0x40000000, 0}};
  for (auto r : physRows) EXPECT_EQ(es.LmPhys(r.size), r.phys) << r.size;
  es.LmAdd("a", 1);
  es.LmAdd("b", 1);
  es.LmAdd("c", 1);
  es.LmRemove(2);
  EXPECT_EQ(es.LmOverhead(0), -4);  // (0 + (0 - 1)) * 4: computed exactly so
  EXPECT_EQ(es.LmOverhead(5), 36);
  EXPECT_EQ(es.LmOverhead(-1), 0);
  EXPECT_EQ(es.LmOverhead(0x3FFFFFFF), 0);  // with 3 slots past 0x40000000
  EXPECT_EQ(es.LmFull(), 0);
  SetWord(es, kFreed, -0x3FFFF000);  // "size - freed" past 0x3FFF7FFF
  EXPECT_EQ(es.LmFull(), 1);
}

// ---------------------------------------------------------------------------
// LmValid: each check in turn, on a sound area spoiled in one place.

struct Spoil {
  int code;
  const char* what;
  void (*apply)(ElementSpace&);
  std::string (*message)(ElementSpace&);
};

void MakeSound(ElementSpace& es) {
  es.LmAdd("first", 5);    // refnum 1, 12 bytes at 1096
  es.LmAdd("second!", 7);  // refnum 2, 12 bytes at 1084
  es.LmAdd("x", 1);        // refnum 3, 8 bytes at 1076
  es.LmAdd("fourth", 6);   // refnum 4, 12 bytes at 1064
  es.LmRemove(3);          // a dead record and an empty slot
}

TEST_F(SpaceTest, ValidNamesTheFirstBrokenRule) {
  const Spoil spoils[] = {
      {14, "other signature", [](ElementSpace& es) { SetWord(es, 0, 0x4C6D732F); },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", 0x4C6D732Fu, 256);
       }},
      {14, "other byte order", [](ElementSpace& es) { SetWord(es, 0, 0x2E736D4C); },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", 0x2E736D4Cu, 256);
       }},
      {14, "version above 256", [](ElementSpace& es) { es.MemPtr()[5] = 2; },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", kLmSignature, 512);
       }},
      {14, "compatible version below 256",
       [](ElementSpace& es) {
         es.MemPtr()[7] = 0;
         es.MemPtr()[6] = 255;
       },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", kLmSignature, 256);
       }},
      {14, "no growth unit", [](ElementSpace& es) { SetWord(es, kBase, 0); },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", kLmSignature, 256);
       }},
      {14, "floor beyond the end", [](ElementSpace& es) { SetWord(es, kFloor, 5000); },
       [](ElementSpace&) {
         return Fmt(u"LmValid: typesig = %Y, version = %~d", kLmSignature, 256);
       }},
      {1, "slot 0 set", [](ElementSpace& es) { SetWord(es, 76, 1096); },
       [](ElementSpace&) { return std::string("LmValid: non-zero offset = 1096"); }},
      {2, "table into the data", [](ElementSpace& es) { SetWord(es, kCount, 300); },
       [](ElementSpace&) {
         return std::string("LmValid: data/offsets overlap, count = 300, start = 1064");
       }},
      {2, "negative count", [](ElementSpace& es) { SetWord(es, kCount, -1); },
       [](ElementSpace&) {
         return std::string("LmValid: data/offsets overlap, count = -1, start = 1064");
       }},
      {3, "end below start", [](ElementSpace& es) { SetWord(es, kEnd, 1060); },
       [](ElementSpace&) { return std::string("LmValid: end = 1060 must be >= start = 1064"); }},
      {12, "end beyond the buffer", [](ElementSpace& es) { SetWord(es, kEnd, 1112); },
       [](ElementSpace&) { return std::string("LmValid: too big, end = 1112"); }},
      {4, "unaligned offset", [](ElementSpace& es) { SetWord(es, 80, 1098); },
       [](ElementSpace&) { return std::string("LmValid: non 4 byte aligned offset = 1098"); }},
      {5, "offset below start", [](ElementSpace& es) { SetWord(es, 80, 1000); },
       [](ElementSpace&) { return std::string("LmValid: offsets to nowhere"); }},
      {5, "offset at the end", [](ElementSpace& es) { SetWord(es, 80, 1108); },
       [](ElementSpace&) { return std::string("LmValid: offsets to nowhere"); }},
      {6, "wrong zero count", [](ElementSpace& es) { SetWord(es, kEmpty, 0); },
       [](ElementSpace&) { return std::string("LmValid: wrong zero count"); }},
      {7, "negative size", [](ElementSpace& es) { SetWord(es, 1076, -8); },
       [](ElementSpace&) { return std::string("LmValid: size is negative"); }},
      {8, "record past the end", [](ElementSpace& es) { SetWord(es, 1096, 20); },
       [](ElementSpace&) { return std::string("LmValid: size is out of range"); }},
      {9, "two slots on one record", [](ElementSpace& es) { SetWord(es, 84, 1096); },
       [](ElementSpace&) { return std::string("LmValid: too many offsets for datums"); }},
      {9, "slot inside a record", [](ElementSpace& es) { SetWord(es, 80, 1100); },
       [](ElementSpace&) { return std::string("LmValid: too many offsets for datums"); }},
      {9, "more slots than records",
       [](ElementSpace& es) { SetWord(es, 1064, 28); },  // record 4 swallows the rest
       [](ElementSpace&) { return std::string("LmValid: too many offsets for datums"); }},
      {10, "buffer longer than the area", [](ElementSpace& es) { es.SetSize(1112); },
       [](ElementSpace&) { return std::string("LmValid: ended up wrong"); }},
  };
  for (const Spoil& s : spoils) {
    SCOPED_TRACE(s.what);
    ElementSpace es(0, 0);
    MakeSound(es);
    ASSERT_EQ(es.LmValid(), 0);
    ClearRecords();
    s.apply(es);
    EXPECT_EQ(es.LmValid(), s.code);
    EXPECT_EQ(Lines(), (std::vector<LogLine>{{517, "", s.message(es)}}));
  }
  // An unaligned end is the one left when everything else holds.
  ElementSpace odd(0, 0);
  odd.SetSize(1107);
  SetWord(odd, kStart, 1107);
  SetWord(odd, kEnd, 1107);
  ClearRecords();
  EXPECT_EQ(odd.LmValid(), 11);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{517, "", "LmValid: non 4 byte aligned size = 1107"}}));
  // A buffer too short for a header.
  ElementSpace tiny(0, 0);
  tiny.SetSize(40);
  EXPECT_EQ(tiny.LmValid(), 14);
}

// ---------------------------------------------------------------------------
// Model test: random operations against refnum -> bytes.

#if defined(__SANITIZE_ADDRESS__)
constexpr int kScale = 4;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int kScale = 4;
#else
constexpr int kScale = 1;
#endif
#else
constexpr int kScale = 1;
#endif

struct Element {
  std::string bytes;
  bool marked = false;
};

class Driver {
 public:
  Driver(ElementSpace* es, unsigned seed) : es_(es), rng_(seed) {}

  std::vector<std::optional<Element>> model;

  int LowestEmpty() const {
    for (std::size_t i = 0; i < model.size(); ++i) {
      if (!model[i]) return static_cast<int>(i) + 1;
    }
    return static_cast<int>(model.size()) + 1;
  }
  void DropTrailing() {
    while (!model.empty() && !model.back()) model.pop_back();
  }
  int RandomLive() {
    std::vector<int> live;
    for (std::size_t i = 0; i < model.size(); ++i) {
      if (model[i]) live.push_back(static_cast<int>(i) + 1);
    }
    return live.empty() ? 0 : live[rng_() % live.size()];
  }
  int LiveCount() const {
    int n = 0;
    for (auto& e : model) n += e ? 1 : 0;
    return n;
  }
  int RandomSize() {
    const unsigned r = rng_() % 100;
    if (r < 80) return static_cast<int>(rng_() % 65);
    if (r < 98) return static_cast<int>(rng_() % 600);
    return static_cast<int>(rng_() % 6000);
  }
  std::string RandomBytes(int n) {
    std::string s(static_cast<std::size_t>(n), '\0');
    for (char& c : s) c = static_cast<char>(rng_());
    return s;
  }

  // One random operation; returns its name for failure messages.
  const char* Step() {
    const unsigned what = rng_() % 1000;
    const bool crowded = LiveCount() > 120;
    if (what < (crowded ? 150u : 300u)) {
      const int n = RandomSize();
      const bool null = rng_() % 4 == 0;
      const std::string bytes = null ? std::string(n, '\0') : RandomBytes(n);
      const int expect = LowestEmpty();
      EXPECT_EQ(es_->LmAdd(null ? nullptr : bytes.data(), n), expect);
      if (expect > static_cast<int>(model.size())) model.resize(expect);
      model[expect - 1] = Element{bytes, false};
      return "add";
    }
    if (what < 420) {
      const int r = RandomLive();
      if (r == 0) return "set (none)";
      const int n = RandomSize();
      EXPECT_EQ(es_->LmSet(r, n), 0);
      model[r - 1]->bytes.resize(static_cast<std::size_t>(n), '\0');
      return "set";
    }
    if (what < 440) {
      const int r = static_cast<int>(model.size()) + 1 + static_cast<int>(rng_() % 3);
      const int n = RandomSize();
      EXPECT_EQ(es_->LmSet(r, n), 0);
      model.resize(r);
      model[r - 1] = Element{std::string(n, '\0'), false};
      return "set beyond";
    }
    if (what < 500) {
      const int r = RandomLive();
      if (r == 0) return "dupe (none)";
      const int expect = LowestEmpty();
      EXPECT_EQ(es_->LmDupe(r), expect);
      const std::string bytes = model[r - 1]->bytes;
      if (expect > static_cast<int>(model.size())) model.resize(expect);
      model[expect - 1] = Element{bytes, false};
      return "dupe";
    }
    if (what < (crowded ? 850u : 700u)) {
      const int r = RandomLive();
      if (r == 0) return "remove (none)";
      EXPECT_EQ(es_->LmRemove(r), 0);
      model[r - 1].reset();
      DropTrailing();
      return "remove";
    }
    if (what < 880) {
      const int a = RandomLive();
      const int b = RandomLive();
      if (a == 0) return "swap (none)";
      EXPECT_EQ(es_->LmSwap(a, b), 0);
      std::swap(model[a - 1], model[b - 1]);
      return "swap";
    }
    if (what < 930) {
      const int r = RandomLive();
      if (r == 0) return "mark (none)";
      EXPECT_EQ(es_->LmMark(r), model[r - 1]->marked ? 0 : 1);
      model[r - 1]->marked = true;
      return "mark";
    }
    if (what < 945) {
      es_->LmUnmark();
      for (auto& e : model) {
        if (e) e->marked = false;
      }
      return "unmark";
    }
    if (what < 955) {
      EXPECT_EQ(es_->LmCollect(), 0);
      for (auto& e : model) {
        if (e && !e->marked) e.reset();
      }
      DropTrailing();
      return "collect";
    }
    if (what < 965) {
      EXPECT_EQ(es_->LmCompress(), 0);
      EXPECT_EQ(es_->LmAvail(), 0);
      return "compress";
    }
    if (what < 975) {
      const int n = static_cast<int>(rng_() % 20000);
      EXPECT_EQ(es_->LmReserve(n), 0);
      return "reserve";
    }
    if (what < 985) {
      const int n = static_cast<int>(rng_() % 20000);
      EXPECT_EQ(es_->LmPreflight(n), 0);
      EXPECT_GE(es_->LmAvail(), n & ~3);  // the room asked for, rounded down to 4
      return "preflight";
    }
    if (what < 995) {
      // Locked: reading and marking leave every address where it was.
      const int r = RandomLive();
      es_->LmLock();
      if (r != 0) {
        const char* p = es_->LmGet(r);
        es_->LmMark(r);
        model[r - 1]->marked = true;
        EXPECT_EQ(es_->LmSize(r), static_cast<int>(model[r - 1]->bytes.size()));
        EXPECT_EQ(es_->LmGet(r), p);
      }
      es_->LmUnlock();
      return "lock";
    }
    es_->LmSetParms(static_cast<int>(rng_() % 9000), static_cast<int>(rng_() % 2));
    return "parms";
  }

  // The space agrees with the model, byte for byte.
  void Check() {
    ASSERT_EQ(es_->LmValid(), 0);
    ASSERT_EQ(es_->LmCount(), static_cast<int>(model.size()));
    int empty = 0;
    for (std::size_t i = 0; i < model.size(); ++i) {
      const int r = static_cast<int>(i) + 1;
      if (!model[i]) {
        ++empty;
        ASSERT_EQ(es_->LmTest(r), -1) << r;
        continue;
      }
      ASSERT_EQ(es_->LmTest(r), 0) << r;
      const std::string& bytes = model[i]->bytes;
      ASSERT_EQ(es_->LmSize(r), static_cast<int>(bytes.size())) << r;
      ASSERT_EQ(std::memcmp(es_->LmGet(r), bytes.data(), bytes.size()), 0) << r;
      const int word = Slot(*es_, r);
      ASSERT_EQ((word & static_cast<int>(0x80000000)) != 0, model[i]->marked) << r;
      // The padding after the bytes reads zero.
      const int offset = word & 0x3FFFFFFF;
      for (int k = 4 + static_cast<int>(bytes.size());
           k < es_->LmPhys(static_cast<int>(bytes.size())); ++k) {
        ASSERT_EQ(es_->MemPtr()[offset + k], 0);
      }
    }
    ASSERT_EQ(Word(*es_, kEmpty), empty);
    ASSERT_GE(es_->LmAvail(), -4);
  }

 private:
  ElementSpace* es_;
  std::mt19937 rng_;
};

TEST_F(SpaceTest, ModelOfRandomOperations) {
  ElementSpace es(0, 0);
  Driver driver(&es, 77);
  const int steps = 200000 / kScale;
  int compressions = 0;
  for (int i = 0; i < steps; ++i) {
    const char* what = driver.Step();
    ASSERT_NO_FATAL_FAILURE(driver.Check()) << "step " << i << ": " << what;
    if (i % 1000 == 0) {
      ASSERT_TRUE(Reported().empty()) << Reported()[0];
      ASSERT_TRUE(Assertions().empty()) << Assertions()[0];
      compressions += Compressions();
      ClearRecords();
    }
  }
  EXPECT_GT(compressions, steps / 1000);
}

TEST_F(SpaceTest, AnExportedAreaImportsAndReadsTheSame) {
  ElementSpace es(0, 0);
  Driver driver(&es, 99);
  for (int i = 0; i < 20000 / kScale; ++i) driver.Step();
  ASSERT_NO_FATAL_FAILURE(driver.Check());
  const std::vector<unsigned char> stored(es.MemPtr(), es.MemPtr() + es.GetSize());

  ElementSpace copy(0, 0);
  ASSERT_EQ(copy.SetSize(static_cast<unsigned>(stored.size())), 0);
  std::memcpy(copy.MemPtr(), stored.data(), stored.size());
  Driver reader(&copy, 100);
  reader.model = driver.model;
  ASSERT_NO_FATAL_FAILURE(reader.Check());
  // The imported space goes on working.
  for (int i = 0; i < 5000 / kScale; ++i) {
    reader.Step();
    ASSERT_NO_FATAL_FAILURE(reader.Check()) << i;
  }
  EXPECT_TRUE(Reported().empty());
  EXPECT_TRUE(Assertions().empty());
}

// A unit capped at 16,384 KiB and halved after a failed growth stays at or
// above the base unit, so the area stays valid.
TEST_F(SpaceTest, AFailedGrowthHalvesTheUnitNoLowerThanTheBase) {
  ElementSpace es(0, 0);
  es.LmSetParms(9000 * 1024, 0);
  ASSERT_EQ(es.LmAdd(nullptr, 2000), 1);
  EXPECT_EQ(Word(es, kUnit), 16384);
  es.LmLock();
  EXPECT_EQ(es.LmAdd(nullptr, es.LmAvail() + 1), kErrLmLocked);
  es.LmUnlock();
  EXPECT_EQ(Word(es, kUnit), 9000);
  EXPECT_EQ(es.LmValid(), 0);
}

}  // namespace
