#include "quarnel/containers/elementspace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "tests/support/helpers.h"

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

Bytes At(ElementSpace& es, int from, int n) {
  return Bytes(es.MemPtr() + from, es.MemPtr() + from + n);
}

Bytes Le(std::initializer_list<int> words) {
  Bytes out;
  for (int w : words) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<unsigned char>(static_cast<unsigned>(w) >> (8 * i)));
  }
  return out;
}

// Refnums 1, 2 and 4 live (12 bytes at 1096, 1084 and 1064), refnum 3 an
// empty slot and its record of 8 bytes at 1076 dead.
void MakeSound(ElementSpace& es) {
  es.LmAdd("first", 5);
  es.LmAdd("second!", 7);
  es.LmAdd("x", 1);
  es.LmAdd("fourth", 6);
  es.LmRemove(3);
}

class SpaceTest : public RecordingTest {
 protected:
  // Log lines other than the compression reports (518).
  std::string Reported() const {
    std::string out;
    for (const LogLine& l : Lines()) {
      if (l.level != 518) out += std::to_string(l.level) + " " + l.text + "\n";
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

  UnitLetters units_;  // the compression report's %K
};

TEST_F(SpaceTest, NewSpaceIsOneKilobyteAndAHeader) {
  ElementSpace es(0, 0);
  Bytes expected = {0x2E, 0x73, 0x6D, 0x4C, 0x00, 0x01, 0x00, 0x01};  // 'Lms.', versions 256
  const Bytes words = Le({0, 0, 1108, 1108, 1, 0, 0, 0, 0, 1});       // offsets 8 .. 44
  expected.insert(expected.end(), words.begin(), words.end());
  expected.resize(1108, 0);
  EXPECT_EQ(At(es, 0, static_cast<int>(es.GetSize())), expected);
  EXPECT_EQ(es.LmCount(), 0);
  EXPECT_EQ(es.LmAvail(), 1024);
  EXPECT_EQ(es.GetPriority(), 2);

  ElementSpace big(5000, 1);  // 4 KiB units, required
  EXPECT_EQ(big.GetSize(), 4 * 1024u + 84);
  EXPECT_EQ(Word(big, kBase) + Word(big, kUnit) + Word(big, kFlags), 4 + 4 + 1);
  int unit = 0, required = 0;
  big.LmGetParms(&unit, &required);
  EXPECT_EQ(unit + required, 4096 + 1);
  big.LmSetParms(10, 0);
  big.LmGetParms(&unit, &required);
  EXPECT_EQ(unit + required, 1024);

  EXPECT_EQ(es.LmNew(0x7FFFFFFF, 0), kErrLmFull);
  EXPECT_EQ(Reported(), "517 LmNew: not enough memory, " + ErrorText(kErrLmFull) + "\n");
  EXPECT_EQ(es.GetSize(), 1108u);  // left as it was
  EXPECT_EQ(Asserted(), "");
}

// Where records go: added downwards from the end, with their size word and
// zero padding to a 4-byte boundary; the model test covers the contents.
TEST_F(SpaceTest, RecordsAreLaidOutDownwardsFromTheEnd) {
  ElementSpace es(0, 0);
  EXPECT_EQ(es.LmAdd("hello", 5), 1);
  EXPECT_EQ(Word(es, kStart) + Slot(es, 1) + Word(es, kCount), 1096 + 1096 + 1);
  EXPECT_EQ(At(es, 1096, 12), (Bytes{5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0}));
  EXPECT_EQ(es.LmAvail(), 1096 - 84 - 4);
  EXPECT_EQ(es.LmAdd(nullptr, 0), 2);
  EXPECT_EQ(es.LmAdd(nullptr, 6), 3);
  EXPECT_EQ(At(es, 1080, 16), (Bytes{6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  // Removal: the last slot goes, an inner one stays empty and is reused.
  EXPECT_EQ(es.LmRemove(3), 0);
  EXPECT_EQ(es.LmCount() * 100 + Word(es, kFreed), 2 * 100 + 12);
  EXPECT_EQ(es.LmAdd("abc", 3), 3);
  EXPECT_EQ(es.LmRemove(2), 0);
  EXPECT_EQ(es.LmCount() * 100 + Word(es, kEmpty), 3 * 100 + 1);
  EXPECT_EQ(es.LmRemove(3), 0);  // slot 2 is empty too: both go
  EXPECT_EQ(es.LmCount() * 100 + Word(es, kEmpty), 1 * 100 + 0);

  // Shrinking leaves a dead record in place; within the same physical size
  // nothing is freed and the padding is zeroed.
  ElementSpace s(0, 0);
  s.LmAdd("0123456789abcdefghij", 20);  // 24 bytes at 1084
  s.LmAdd("zz", 2);
  char* before = s.LmGet(1);
  EXPECT_EQ(s.LmSet(1, 2), 0);
  EXPECT_EQ(s.LmGet(1), before);
  EXPECT_EQ(At(s, 1084, 12), (Bytes{2, 0, 0, 0, '0', '1', 0, 0, 12, 0, 0, 0}));
  EXPECT_EQ(s.LmSet(1, 1), 0);
  EXPECT_EQ(s.LmSet(1, 3), 0);
  EXPECT_EQ(At(s, 1084, 8), (Bytes{3, 0, 0, 0, '0', 0, 0, 0}));
  EXPECT_EQ(Word(s, kFreed), 16);

  // Growing the lowest record moves it down in place.
  EXPECT_EQ(s.LmSet(2, 9), 0);
  EXPECT_EQ(Word(s, kStart) + Slot(s, 2), 1068 + 1068);
  EXPECT_EQ(At(s, 1068, 16), (Bytes{9, 0, 0, 0, 'z', 'z', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  // Growing another one copies it below and keeps its mark and the caller's
  // flag bit 30; the temporary refnum is gone.
  EXPECT_EQ(s.LmMark(1), 1);
  SetWord(s, 76 + 4, Slot(s, 1) | 0x40000000);
  EXPECT_EQ(s.LmSet(1, 12), 0);
  EXPECT_EQ(std::string(s.LmGet(1), 12), std::string("0") + std::string(11, '\0'));
  EXPECT_EQ(static_cast<unsigned>(Slot(s, 1)) & 0xC0000000u, 0xC0000000u);
  EXPECT_EQ(Slot(s, 1) & 0x3FFFFFFF, Word(s, kStart));
  EXPECT_EQ(s.LmCount(), 2);
  EXPECT_EQ(es.LmValid() + s.LmValid(), 0);
  EXPECT_EQ(Reported(), "");
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
  EXPECT_EQ(Reported(), "");
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
  EXPECT_EQ(Reported(), "517 LmValid: wrong zero count\n");
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
  Bytes expected = {0x2E, 0x73, 0x6D, 0x4C, 0, 1, 0, 1};
  for (unsigned char b : Le({0, 0, 96, 112, 1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 3, 0, 104, 0, 96}))
    expected.push_back(b);
  expected.resize(expected.size() + 4, 0);  // the room of one future slot
  expected.insert(expected.end(), {3, 0, 0, 0, 'C', 'C', 'C', 0, 1, 0, 0, 0, 'A', 0, 0, 0});
  EXPECT_EQ(At(es, 0, static_cast<int>(es.GetSize())), expected);
  EXPECT_EQ(es.LmAvail(), 0);
  // The next addition grows the area again.
  EXPECT_EQ(es.LmAdd("BB", 2), 2);
  EXPECT_EQ(std::string(es.LmGet(1), 1) + es.LmGet(2) + es.LmGet(3), "ABBCCC");
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

  // A collection frees the unmarked records.
  es.LmUnmark();
  es.LmCollect();
  EXPECT_EQ(es.LmCount() + Word(es, kEmpty), 0);
}

// Bad refnums and sizes: refused with their own error and log line (or
// assertion) on a sound area, which stays sound.
TEST_F(SpaceTest, BadArgumentsAreRefusedAndLogged) {
  struct Row {
    std::function<long(ElementSpace&)> call;
    long result;
    std::string lines;
    const char* assertions = "";
  };
  const long bad = kErrLmBadArgument;
  const Row rows[] = {
      {[](ElementSpace& es) { return es.LmAdd("x", -1); }, bad, "515 LmAdd: invalid size, -1\n"},
      {[](ElementSpace& es) { return es.LmAdd("x", 0x3FFFFFFF); }, bad,
       "515 LmAdd: invalid size, 1073741823\n"},
      {[](ElementSpace& es) { return es.LmRemove(5); }, bad,
       "515 LmRemove: ndex = 5 not in range\n"},
      {[](ElementSpace& es) { return es.LmRemove(0); }, bad,
       "515 LmRemove: ndex = 0 not in range\n"},
      {[](ElementSpace& es) { return es.LmSize(7); }, bad, "515 LmSize: ndex = 7, not in range\n"},
      {[](ElementSpace& es) { return es.LmTest(0); }, -1, ""},
      {[](ElementSpace& es) { return es.LmSet(0, 1); }, bad, "515 LmSet: bad argument 0, 1\n"},
      {[](ElementSpace& es) { return es.LmSet(1, -1); }, bad, "515 LmSet: bad argument 1, -1\n"},
      {[](ElementSpace& es) { return es.LmMark(3); }, bad, ""},  // empty: no log line
      {[](ElementSpace& es) { return es.LmMark(5); }, bad, "515 LmMark: ndex = 5, not in range\n"},
      {[](ElementSpace& es) { return es.LmSwap(1, 5); }, bad,
       "515 LmSwap: mdex = 1, ndex = 5, not in range\n"},
      {[](ElementSpace& es) { return es.LmSwap(1, 3); }, bad,
       "515 LmSwap: temp = 1096, *jp = 0, invalid refnum\n"},
      {[](ElementSpace& es) { return es.LmDupe(5); }, bad, "515 LmDupe: ndex = 5, not in range\n"},
      {[](ElementSpace& es) { return es.LmReserve(-1); }, bad,
       "515 LmReserve: invalid size = -1\n"},
      {[](ElementSpace& es) { return es.LmPreflight(-1); }, bad,
       "515 LmPreflight: size = -1, invalid size\n"},
      {[](ElementSpace& es) { return es.LmGet(0) != nullptr; }, 0, "515 LmGet: ndex = 0 < 1\n",
       "elementspace-503"},
      {[](ElementSpace& es) { return es.LmGet(5) != nullptr; }, 0,
       "515 LmGet: ndex = 5 > nsp->count = 4\n", "elementspace-503"},
      {[](ElementSpace& es) { return es.LmGet(3) != nullptr; }, 0,
       "515 LmGet: ndex = 3, zero offset\n", "elementspace-503"},
      // The asserting variants assert as well.
      {[](ElementSpace& es) { return es.LmAddAssert("x", -5); }, bad,
       "515 LmAdd: invalid size, -5\n", "elementspace-701"},
      {[](ElementSpace& es) { return es.LmSetAssert(0, 1); }, bad, "515 LmSet: bad argument 0, 1\n",
       "elementspace-712"},
      {[](ElementSpace& es) { return es.LmDupeAssert(9); }, bad,
       "515 LmDupe: ndex = 9, not in range\n", "elementspace-723"},
      {[](ElementSpace& es) { return es.LmAddAssert("ok", 2); }, 3, ""},
  };
  int i = 0;
  for (const Row& r : rows) {
    SCOPED_TRACE(i++);
    ElementSpace es(0, 0);
    MakeSound(es);
    ClearRecords();
    EXPECT_EQ(r.call(es), r.result);
    EXPECT_EQ(Reported(), r.lines);
    EXPECT_EQ(Asserted(), r.assertions);
    EXPECT_EQ(Word(es, kFlags), 0);  // the asserting variants restore the flags
    EXPECT_EQ(es.LmValid(), 0);
  }
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
  // LmCompress clears the floor and shrinks to the content.
  EXPECT_EQ(es.LmCompress(), 0);
  EXPECT_EQ(Word(es, kFloor), 0);
  EXPECT_EQ(es.GetSize(), 84u);
  EXPECT_EQ(es.LmAvail(), 0);

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

  // Preflight makes room for at least the request, sized again when equal.
  ElementSpace p(0, 0);
  EXPECT_EQ(p.LmPreflight(100), 0);
  EXPECT_EQ(p.GetSize(), 1108u);
  EXPECT_EQ(p.LmPreflight(5000), 0);
  EXPECT_EQ(p.LmAvail(), 5000);
  EXPECT_EQ(p.LmPreflight(5000), 0);
  EXPECT_EQ(p.GetSize(), 5084u);
  EXPECT_EQ(es.LmValid() + p.LmValid(), 0);
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
  EXPECT_EQ(Reported(), "517 LmAdd: lmNeeded failed, " + ErrorText(kErrLmLocked) +
                            "\n515 LmCompress: lmSizer failed, " + ErrorText(kErrLmLocked) + "\n");
  EXPECT_EQ(Asserted(), "elementspace-212 elementspace-212 elementspace-602");
  ClearRecords();
  es.LmUnlock();
  es.LmUnlock();
  EXPECT_EQ(Asserted(), "");
  es.LmUnlock();
  EXPECT_EQ(Asserted(), "elementspace-541");
  EXPECT_EQ(Word(es, kLock), 0);
  EXPECT_EQ(es.LmAdd(nullptr, 5000), 3);
  EXPECT_EQ(es.LmValid(), 0);

  // Repair clears the lock and the required flag.
  ElementSpace r(0, 1);
  r.LmLock();
  EXPECT_EQ(r.LmRepair(), 0);
  EXPECT_EQ(Word(r, kLock) + Word(r, kFlags), 0);
  SetWord(r, 76, 4);
  EXPECT_EQ(r.LmRepair(), 1);
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

// LmValid: each check in turn, on a sound area spoiled in one place.
TEST_F(SpaceTest, ValidNamesTheFirstBrokenRule) {
  struct Spoil {
    int code;
    void (*apply)(ElementSpace&);
    const char* message;
  };
  const Spoil spoils[] = {
      {14, [](ElementSpace& es) { SetWord(es, 0, 0x4C6D732F); },
       "LmValid: typesig = Lms/, version = 256"},  // other signature
      {14, [](ElementSpace& es) { SetWord(es, 0, 0x2E736D4C); },
       "LmValid: typesig = .smL, version = 256"},  // other byte order
      {14, [](ElementSpace& es) { es.MemPtr()[5] = 2; }, "LmValid: typesig = Lms., version = 512"},
      {14, [](ElementSpace& es) { es.MemPtr()[6] = 255, es.MemPtr()[7] = 0; },
       "LmValid: typesig = Lms., version = 256"},  // compatible version below 256
      {14, [](ElementSpace& es) { SetWord(es, kBase, 0); },
       "LmValid: typesig = Lms., version = 256"},  // no growth unit
      {14, [](ElementSpace& es) { SetWord(es, kFloor, 5000); },
       "LmValid: typesig = Lms., version = 256"},  // floor beyond the end
      {1, [](ElementSpace& es) { SetWord(es, 76, 1096); }, "LmValid: non-zero offset = 1096"},
      {2, [](ElementSpace& es) { SetWord(es, kCount, 300); },
       "LmValid: data/offsets overlap, count = 300, start = 1064"},
      {2, [](ElementSpace& es) { SetWord(es, kCount, -1); },
       "LmValid: data/offsets overlap, count = -1, start = 1064"},
      {3, [](ElementSpace& es) { SetWord(es, kEnd, 1060); },
       "LmValid: end = 1060 must be >= start = 1064"},
      {12, [](ElementSpace& es) { SetWord(es, kEnd, 1112); }, "LmValid: too big, end = 1112"},
      {4, [](ElementSpace& es) { SetWord(es, 80, 1098); },
       "LmValid: non 4 byte aligned offset = 1098"},
      {5, [](ElementSpace& es) { SetWord(es, 80, 1000); }, "LmValid: offsets to nowhere"},
      {5, [](ElementSpace& es) { SetWord(es, 80, 1108); }, "LmValid: offsets to nowhere"},
      {6, [](ElementSpace& es) { SetWord(es, kEmpty, 0); }, "LmValid: wrong zero count"},
      {7, [](ElementSpace& es) { SetWord(es, 1076, -8); }, "LmValid: size is negative"},
      {8, [](ElementSpace& es) { SetWord(es, 1096, 20); }, "LmValid: size is out of range"},
      // Two slots on one record, a slot inside a record, more slots than
      // records (record 4 swallows the rest).
      {9, [](ElementSpace& es) { SetWord(es, 84, 1096); }, "LmValid: too many offsets for datums"},
      {9, [](ElementSpace& es) { SetWord(es, 80, 1100); }, "LmValid: too many offsets for datums"},
      {9, [](ElementSpace& es) { SetWord(es, 1064, 28); }, "LmValid: too many offsets for datums"},
      {10, [](ElementSpace& es) { es.SetSize(1112); }, "LmValid: ended up wrong"},
      // An unaligned end is the one left when everything else holds.
      {11,
       [](ElementSpace& es) {
         es.LmCollect();
         es.SetSize(1107);
         SetWord(es, kStart, 1107);
         SetWord(es, kEnd, 1107);
       },
       "LmValid: non 4 byte aligned size = 1107"},
      {14, [](ElementSpace& es) { es.SetSize(40); }, nullptr},  // too short for a header
  };
  for (const Spoil& s : spoils) {
    SCOPED_TRACE(s.message ? s.message : "short");
    ElementSpace es(0, 0);
    MakeSound(es);
    ASSERT_EQ(es.LmValid(), 0);
    ClearRecords();
    s.apply(es);
    EXPECT_EQ(es.LmValid(), s.code);
    if (s.message) {
      EXPECT_EQ(Logged(), "517 " + std::string(s.message) + "\n");
    }
  }
}

// Model test: random operations against refnum -> bytes.

constexpr int kScale = kSanitizerScale;

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
      ASSERT_EQ(Reported(), "");
      ASSERT_EQ(Asserted(), "");
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
  const Bytes stored = At(es, 0, static_cast<int>(es.GetSize()));

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
  EXPECT_EQ(Reported(), "");
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
