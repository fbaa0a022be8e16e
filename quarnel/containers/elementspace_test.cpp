#include "quarnel/containers/elementspace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <sstream>
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

// The area's size, floor, start and end of the records, growth unit and free
// room.
std::vector<int> Room(ElementSpace& es) {
  return {static_cast<int>(es.GetSize()),
          Word(es, kFloor),
          Word(es, kStart),
          Word(es, kEnd),
          Word(es, kUnit),
          es.LmAvail()};
}

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

// The model test covers contents, marks and padding; a record that must move
// to grow also keeps the caller's flag bit 30 in its slot.
TEST_F(SpaceTest, AMovedRecordKeepsItsMarkAndTheCallersFlag) {
  ElementSpace s(0, 0);
  s.LmAdd("0123", 4);
  s.LmAdd("zz", 2);
  EXPECT_EQ(s.LmMark(1), 1);
  SetWord(s, 76 + 4, Slot(s, 1) | 0x40000000);
  EXPECT_EQ(s.LmSet(1, 12), 0);
  EXPECT_EQ(std::string(s.LmGet(1), 12), std::string("0123") + std::string(8, '\0'));
  EXPECT_EQ(static_cast<unsigned>(Slot(s, 1)) & 0xC0000000u, 0xC0000000u);
  EXPECT_EQ(Slot(s, 1) & 0x3FFFFFFF, Word(s, kStart));
  EXPECT_EQ(s.LmCount() * 10 + s.LmValid(), 20);
  EXPECT_EQ(Reported(), "");
}

TEST_F(SpaceTest, GrowthMakesRoomForTheRequestAndOneUnit) {
  ElementSpace es(0, 0);
  // 2,004 physical bytes do not fit the 1,024 free: the area grows so that
  // 2,004 + 1 KiB are free, and the growth unit doubles.
  std::string data(2000, 'g');
  EXPECT_EQ(es.LmAdd(data.data(), 2000), 1);
  EXPECT_EQ(Room(es), (std::vector<int>{3112, 0, 1108, 3112, 2, 1108 - 84 - 4}));
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
  EXPECT_EQ(es.LmValid(), 0);
}

// Bad refnums and sizes: refused with their own error and log line (or
// assertion) on a sound area, which stays sound.
TEST_F(SpaceTest, BadArgumentsAreRefusedAndLogged) {
  for (const auto& r : ReadTsv("elementspace_args.tsv")) {
    SCOPED_TRACE(r[0] + " " + r[1]);
    ElementSpace es(0, 0);
    MakeSound(es);
    ClearRecords();
    std::istringstream args(r[1]);
    int a = 0, b = 0;
    args >> a >> b;
    const std::map<std::string, std::function<long()>> calls = {
        {"LmAdd", [&] { return es.LmAdd("x", a); }},
        {"LmAddAssert", [&] { return es.LmAddAssert("x", a); }},
        {"LmRemove", [&] { return es.LmRemove(a); }},
        {"LmSize", [&] { return es.LmSize(a); }},
        {"LmTest", [&] { return es.LmTest(a); }},
        {"LmSet", [&] { return es.LmSet(a, b); }},
        {"LmSetAssert", [&] { return es.LmSetAssert(a, b); }},
        {"LmMark", [&] { return es.LmMark(a); }},
        {"LmSwap", [&] { return es.LmSwap(a, b); }},
        {"LmDupe", [&] { return es.LmDupe(a); }},
        {"LmDupeAssert", [&] { return es.LmDupeAssert(a); }},
        {"LmReserve", [&] { return es.LmReserve(a); }},
        {"LmPreflight", [&] { return es.LmPreflight(a); }},
        {"LmGet", [&] { return static_cast<long>(es.LmGet(a) != nullptr); }}};
    EXPECT_EQ(calls.at(r[0])(), r[2] == "bad" ? long{kErrLmBadArgument} : std::stol(r[2]));
    EXPECT_EQ(Reported(), r[3].empty() ? "" : "515 " + r[3] + "\n");
    EXPECT_EQ(Asserted(), r.size() > 4 ? r[4] : "");
    EXPECT_EQ(Word(es, kFlags), 0);  // the asserting variants restore the flags
    EXPECT_EQ(es.LmValid(), 0);
  }
}

TEST_F(SpaceTest, ReserveKeepsRoomUntilCompressed) {
  ElementSpace es(0, 0);
  EXPECT_EQ(es.LmReserve(10000), 0);
  EXPECT_EQ(Room(es), (std::vector<int>{10084, 10084, 10084, 10084, 1, 10000}));
  // Removals compress but never shrink the area below the floor.
  for (int i = 0; i < 30; ++i) es.LmAdd(nullptr, 200);
  for (int r = 1; r <= 30; ++r) es.LmRemove(r);
  EXPECT_GE(Compressions(), 1);
  EXPECT_EQ(es.GetSize(), 10084u);
  // LmCompress clears the floor and shrinks to the content.
  EXPECT_EQ(es.LmCompress(), 0);
  EXPECT_EQ(Room(es), (std::vector<int>{84, 0, 84, 84, 1, 0}));

  // Up to 1 MiB the request is cut so that the area stays within it.
  EXPECT_EQ(es.LmReserve(2 << 20), 0);
  EXPECT_EQ(Room(es), (std::vector<int>{1048576, 1048576, 1048576, 1048576, 1, 1048576 - 84}));
  // From 1 MiB on the area is left as it is and the floor is the smaller.
  EXPECT_EQ(es.LmReserve(5000), 0);
  EXPECT_EQ(Room(es), (std::vector<int>{1048576, 5000, 1048576, 1048576, 1, 1048576 - 84}));
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
  for (const auto& r : ReadTsv("elementspace_valid.tsv")) {
    SCOPED_TRACE(r[1]);
    ElementSpace es(0, 0);
    MakeSound(es);
    ASSERT_EQ(es.LmValid(), 0);
    ClearRecords();
    std::istringstream spoils(r[1]);
    for (std::string spoil; std::getline(spoils, spoil, ';');) {
      std::istringstream words(spoil);
      std::string op, at = "0", value = "0";
      words >> op >> at >> value;
      const long a = std::stol(at, nullptr, 0), v = std::stol(value, nullptr, 0);
      if (op == "word") SetWord(es, static_cast<int>(a), static_cast<int>(v));
      if (op == "byte") es.MemPtr()[a] = static_cast<unsigned char>(v);
      if (op == "size") es.SetSize(static_cast<unsigned>(a));
      if (op == "collect") es.LmCollect();
    }
    EXPECT_EQ(es.LmValid(), std::stoi(r[0]));
    EXPECT_EQ(Logged(), "517 " + r[2] + "\n");
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

  // Puts `bytes` where an addition goes, the lowest empty refnum, and
  // returns that refnum.
  int PlaceAtLowestEmpty(const std::string& bytes) {
    std::size_t i = 0;
    while (i < model.size() && model[i]) ++i;
    if (i == model.size()) model.emplace_back();
    model[i] = Element{bytes, false};
    return static_cast<int>(i) + 1;
  }
  void DropTrailing() {
    while (!model.empty() && !model.back()) model.pop_back();
  }
  std::vector<int> Live() const {
    std::vector<int> live;
    for (std::size_t i = 0; i < model.size(); ++i) {
      if (model[i]) live.push_back(static_cast<int>(i) + 1);
    }
    return live;
  }
  int RandomLive() {
    const std::vector<int> live = Live();
    return live.empty() ? 0 : live[rng_() % live.size()];
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
    const bool crowded = Live().size() > 120;
    const int r = RandomLive();  // a live refnum; with none, the step adds one
    const unsigned what = r == 0 ? 0 : rng_() % 1000;
    if (what < (crowded ? 150u : 300u)) {
      const int n = RandomSize();
      const bool null = rng_() % 4 == 0;
      const std::string bytes = null ? std::string(n, '\0') : RandomBytes(n);
      EXPECT_EQ(es_->LmAdd(null ? nullptr : bytes.data(), n), PlaceAtLowestEmpty(bytes));
      return "add";
    }
    if (what < 420) {
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
      EXPECT_EQ(es_->LmDupe(r), PlaceAtLowestEmpty(std::string(model[r - 1]->bytes)));
      return "dupe";
    }
    if (what < (crowded ? 850u : 700u)) {
      EXPECT_EQ(es_->LmRemove(r), 0);
      model[r - 1].reset();
      DropTrailing();
      return "remove";
    }
    if (what < 880) {
      const int other = RandomLive();
      EXPECT_EQ(es_->LmSwap(r, other), 0);
      std::swap(model[r - 1], model[other - 1]);
      return "swap";
    }
    if (what < 930) {
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
      es_->LmLock();
      const char* p = es_->LmGet(r);
      es_->LmMark(r);
      model[r - 1]->marked = true;
      EXPECT_EQ(es_->LmSize(r), static_cast<int>(model[r - 1]->bytes.size()));
      EXPECT_EQ(es_->LmGet(r), p);
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

// The stored area read back by another space (its bytes copied) answers the
// same and goes on working.
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

  ElementSpace copy(0, 0);
  ASSERT_EQ(copy.SetSize(es.GetSize()), 0);
  std::memcpy(copy.MemPtr(), es.MemPtr(), es.GetSize());
  Driver reader(&copy, 100);
  reader.model = driver.model;
  for (int i = 0; i < 5000 / kScale; ++i) {
    ASSERT_NO_FATAL_FAILURE(reader.Check()) << i;
    reader.Step();
  }
  EXPECT_EQ(Reported(), "");
  EXPECT_EQ(Asserted(), "");
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
