#include "quarnel/containers/databuffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/platform/faults.h"
#include "quarnel/text/tstring.h"
#include "tests/support/helpers.h"

namespace {

// Assertion lines of the module.
const std::string kZeroElement = "databuffer-30", kTooLarge = "databuffer-45",
                  kInsertAt = "databuffer-90", kDateIndex = "databuffer-120",
                  kIndex = "databuffer-150", kSetAt = "databuffer-160", kLoad = "databuffer-180",
                  kMove = "databuffer-200", kMoveRange = "databuffer-205";

class DataBufferTest : public RecordingTest {
 protected:
  // The module's own assertions, separated by blanks.
  std::string OwnAssertions() const {
    std::string own;
    for (const AssertionSeen& a : Assertions()) {
      if (a.module == "databuffer")
        own += (own.empty() ? "" : " ") + a.module + "-" + std::to_string(a.line);
    }
    return own;
  }
  // Blocks above 1 MiB live in virtual memory: growth past that is refused.
  static constexpr unsigned kHeapLimit = 0x100000;
  static void RefuseVirtualMemory() {
    UFailCall(UCall::kVirtualReserve, 1, 8, -1);
    UFailCall(UCall::kVirtualCommit, 1, 8, -1);
  }
};

Bytes Contents(const TMemory& m) { return Bytes(m.MemPtr(), m.MemPtr() + m.GetSize()); }

// The model test below checks the addresses of what it adds; these pin the
// count around partial records and the unchecked PointAt.
TEST_F(DataBufferTest, CountAndAddressesFollowTheSize) {
  TDataBuffer b(12);
  ASSERT_EQ(b.SetSize(40), 0);  // a partial record does not count
  EXPECT_EQ(b.Count(), 3u);
  EXPECT_EQ(b.Enum(2), b.MemPtr() + 24);
  EXPECT_EQ(b.GetAt(3), nullptr);
  EXPECT_EQ(b.Enum(3), nullptr);
  EXPECT_EQ(b.PointAt(5), b.MemPtr() + 60);  // unchecked
  ASSERT_EQ(b.SetCount(5), 0);
  EXPECT_EQ(b.GetSize(), 60u);
  EXPECT_EQ(Asserted(), "");
}

// Random appends and inserts of records of 7 bytes, some from inside the
// buffer itself and some without data, checked byte for byte against a
// vector.
TEST_F(DataBufferTest, AppendAndInsertMatchAModel) {
  constexpr unsigned kSize = 7;
  std::mt19937 rng(99);
  TDataBuffer b(kSize);
  Bytes model;
  for (int step = 0; step < 600; ++step) {
    SCOPED_TRACE(step);
    const unsigned count = b.Count();
    const unsigned n = rng() % 5;
    Bytes data(n * kSize);
    for (auto& byte : data) byte = static_cast<unsigned char>(rng());
    const void* source = data.data();
    switch (rng() % 4) {
      case 0:  // from inside the buffer
        if (count >= n && n != 0) {
          const unsigned from = rng() % (count - n + 1);
          std::memcpy(data.data(), b.PointAt(from), n * kSize);
          source = b.PointAt(from);
        }
        break;
      case 1:
        std::fill(data.begin(), data.end(), 0);
        source = nullptr;
        break;
      default:
        break;
    }
    const unsigned char* got;
    if (rng() % 2 == 0) {
      got = static_cast<unsigned char*>(b.Append(source, n));
      ASSERT_NE(got, nullptr);
      EXPECT_EQ(got, b.PointAt(count));
      model.insert(model.end(), data.begin(), data.end());
    } else {
      const unsigned at = rng() % (count + 1);
      got = static_cast<unsigned char*>(b.Insert(source, n, at));
      ASSERT_NE(got, nullptr);
      EXPECT_EQ(got, b.PointAt(at));
      model.insert(model.begin() + at * kSize, data.begin(), data.end());
    }
    ASSERT_EQ(b.Count(), count + n);
    ASSERT_EQ(Contents(b), model);
    if (model.size() > 3000) {
      ASSERT_EQ(b.SetCount(10), 0);
      model.resize(10 * kSize);
    }
  }
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DataBufferTest, MisuseAndRefusedGrowthChangeNothing) {
  const unsigned char rec[4] = {1, 2, 3, 4};
  TDataBuffer b(4);
  ASSERT_NE(b.Append(rec, 1), nullptr);
  EXPECT_EQ(b.Insert(rec, 1, 1), b.PointAt(1));  // at the count: appends
  EXPECT_EQ(b.Count(), 2u);
  const Bytes before = Contents(b);

  EXPECT_EQ(b.Insert(rec, 1, 3), nullptr);
  EXPECT_EQ(b.SetCount(0x40000000), kErrMemNotObtained);  // 2^32 bytes
  EXPECT_EQ(b.Append(rec, 0xFFFFFFFFu), nullptr);
  EXPECT_EQ(Contents(b), before);
  EXPECT_EQ(OwnAssertions(), kInsertAt + " " + kTooLarge + " " + kTooLarge);

  ClearRecords();
  TDataBuffer none(0);
  EXPECT_EQ(none.Count(), 0u);
  EXPECT_EQ(none.Append(rec, 3), nullptr);
  EXPECT_EQ(none.Insert(rec, 3, 0), nullptr);
  EXPECT_EQ(none.GetSize(), 0u);
  EXPECT_EQ(OwnAssertions(), kZeroElement);

  // Growth into virtual memory, refused.
  ClearRecords();
  TDataBuffer big(kHeapLimit);
  ASSERT_NE(big.Append(nullptr, 1), nullptr);
  RefuseVirtualMemory();
  EXPECT_EQ(big.Append(rec, 2), nullptr);
  EXPECT_EQ(big.Insert(big.PointAt(0), 1, 0), nullptr);
  UClearFaults();
  EXPECT_EQ(big.Count(), 1u);
  EXPECT_EQ(OwnAssertions(), "");
}

TEST_F(DataBufferTest, DateBufferIndexesLoosely) {
  TDateBuffer d;
  EXPECT_EQ(d.ElementSize(), 16u);
  const TDate dates[2] = {TDate(2024, 2, 29, 23, 59, 58, 7), TDate(1999, 12, 31, 0, 0, 1, 0)};
  ASSERT_NE(d.Append(dates, 2), nullptr);
  ASSERT_NE(d.Insert(dates + 1, 1, 0), nullptr);
  ASSERT_EQ(d.Count(), 3u);
  EXPECT_EQ(static_cast<void*>(d[1]), d.MemPtr() + 16);
  EXPECT_EQ(std::memcmp(d[1], &dates[0], 16), 0);
  EXPECT_EQ(d[0]->GetYear(), 1999);
  EXPECT_EQ(d[1]->GetDay(), 29);
  EXPECT_EQ(d[2]->GetSecond(), 1);
  EXPECT_EQ(d[3], nullptr);  // beyond the count: null, but below 48 bytes: no assertion
  EXPECT_EQ(d[47], nullptr);
  EXPECT_EQ(Asserted(), "");
  EXPECT_EQ(d[48], nullptr);  // at the size in bytes: asserts
  EXPECT_EQ(OwnAssertions(), kDateIndex);
}

template <class B>
class IntegerBufferTest : public DataBufferTest {};

using IntegerBuffers = ::testing::Types<TUint8Buffer, TSint32Buffer, TUint32Buffer, TUint64Buffer>;
TYPED_TEST_SUITE(IntegerBufferTest, IntegerBuffers);

TYPED_TEST(IntegerBufferTest, AddIndexSetAtAndOutOfRange) {
  using T = typename TypeParam::Element;
  TypeParam b;
  std::vector<T> model;
  for (unsigned i = 0; i < 300; ++i) {
    const T v = static_cast<T>(0x9E3779B97F4A7C15ull * (i + 1));
    b.Add(v);
    model.push_back(v);
  }
  ASSERT_EQ(b.Count(), model.size());
  ASSERT_EQ(b.GetSize(), model.size() * sizeof(T));
  EXPECT_EQ(std::memcmp(b.MemPtr(), model.data(), b.GetSize()), 0);
  b.SetAt(7, T(42));
  b[8] = T(43);
  EXPECT_EQ(b[7], T(42));
  EXPECT_EQ(b[8], T(43));
  EXPECT_EQ(this->Asserted(), "");

  const auto before = Contents(b);
  EXPECT_EQ(b[300], T(0));
  b[300] = T(5);                    // lost
  EXPECT_EQ(b[0xFFFFFFFFu], T(0));  // and reads 0 again
  b.SetAt(300, T(6));
  EXPECT_EQ(Contents(b), before);
  EXPECT_EQ(this->Asserted(), kIndex + " " + kIndex + " " + kIndex + " " + kSetAt);
}

TEST_F(DataBufferTest, Uint8AddressesAndRefusedAdd) {
  TUint8Buffer b;
  for (int i = 0; i < 1100; ++i) b.Add(static_cast<std::uint8_t>(i));  // past the inline area
  EXPECT_EQ(b.GetAt(1099), b.MemPtr() + 1099);
  EXPECT_EQ(*b.GetAt(1099), static_cast<std::uint8_t>(1099));
  EXPECT_EQ(b.GetAt(1100), nullptr);
  EXPECT_EQ(b.PointAt(1100), b.MemPtr() + 1100);
  RefuseVirtualMemory();
  TUint8Buffer full;
  full.SetSize(kHeapLimit);
  full.Add(1);
  UClearFaults();
  EXPECT_EQ(full.Count(), kHeapLimit);
  EXPECT_EQ(OwnAssertions(), "");
}

TEST_F(DataBufferTest, Sint16AppendsBytesStringsAndLoads) {
  TSint16Buffer b;
  const unsigned char three[3] = {0x34, 0x12, 0x7F};
  b.Append(three, 3);  // a byte count: one whole unit and a half
  EXPECT_EQ(b.GetSize(), 3u);
  b.Append(nullptr, 1);
  TString text(u"h\u00e9!");
  b.Append(&text);
  b.Append(static_cast<const TString*>(nullptr));
  EXPECT_EQ(Contents(b), (Bytes{0x34, 0x12, 0x7F, 0, 'h', 0, 0xE9, 0, '!', 0}));
  const std::int16_t units[2] = {-1, -2};
  b.Load(units, 2, 3);
  EXPECT_EQ(std::vector<int>({b[0], b[3], b[4]}), std::vector<int>({0x1234, -1, -2}));
  EXPECT_EQ(Asserted(), "");
  const auto before = Contents(b);
  b.Load(units, 2, 4);  // one unit beyond the end
  EXPECT_EQ(Contents(b), before);
  EXPECT_EQ(b[5], 0);
  EXPECT_EQ(Asserted(), kLoad + " " + kIndex);
}

struct MoveRow {
  unsigned from, to, n;
  std::vector<std::uint64_t> expected;
  std::string assertions;
};

TEST_F(DataBufferTest, Uint64MoveByRow) {
  const std::vector<std::uint64_t> start = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  const std::vector<MoveRow> rows = {
      {0, 3, 4, {0, 1, 2, 0, 1, 2, 3, 7, 8, 9}, ""},     // overlapping, upwards
      {4, 2, 5, {0, 1, 4, 5, 6, 7, 8, 7, 8, 9}, ""},     // overlapping, downwards
      {5, 0, 2, {5, 6, 2, 3, 4, 5, 6, 7, 8, 9}, kMove},  // from >= n: asserts, moves
      {0, 0, 10, start, kMove},                          // n >= count: asserts
      {8, 0, 3, start, kMove + " " + kMoveRange},        // source beyond the end
      {1, 8, 3, start, kMoveRange},                      // target beyond the end
      {0, 9, 1, {0, 1, 2, 3, 4, 5, 6, 7, 8, 0}, ""},     // to the last place
  };
  for (const MoveRow& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.from << "->" << row.to << " n " << row.n);
    ClearRecords();
    TUint64Buffer b;
    for (std::uint64_t v : start) b.Add(v);
    b.Move(row.from, row.to, row.n);
    std::vector<std::uint64_t> got(b.Count());
    std::memcpy(got.data(), b.MemPtr(), b.GetSize());
    EXPECT_EQ(got, row.expected);
    EXPECT_EQ(Asserted(), row.assertions);
  }
}

}  // namespace
