#include "quarnel/foundation/marshall.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "tests/support/helpers.h"

namespace {

constexpr unsigned kStr = 0x5374722Eu;  // 'Str.'

// A header as raw bytes in this machine's order.
Bytes Header(unsigned signature, short compatible, short version) {
  Bytes b(8);
  std::memcpy(b.data(), &signature, 4);
  std::memcpy(b.data() + 4, &compatible, 2);
  std::memcpy(b.data() + 6, &version, 2);
  return b;
}

// The same header with the bytes of each field reversed.
Bytes Swapped(Bytes b) {
  std::swap(b[0], b[3]);
  std::swap(b[1], b[2]);
  std::swap(b[4], b[5]);
  std::swap(b[6], b[7]);
  return b;
}

int Check(const Bytes& b, unsigned signature, unsigned short oldest, unsigned short current) {
  return _checkpersist(reinterpret_cast<const PersistHeader*>(b.data()), signature, oldest,
                       current);
}

class MarshallTest : public RecordingTest {};

TEST_F(MarshallTest, InitPersistAssertsOnMalformedHeaderAndStoresAnyway) {
  struct Row {
    unsigned signature;
    short compatible;
    short version;
    bool asserts;
  } rows[] = {{kStr, 256, 256, false},       {kStr, 1, 1, false},
              {0x00000020u, 1, 1, false},     // one byte with bit 5
              {0, 256, 256, true},            // zero signature
              {0xD374722Eu, 256, 256, true},  // bit 7 set
              {0x01020304u, 256, 256, true},  // no bit 5 or 6
              {kStr, 0, 256, true},          {kStr, 256, 0, true},
              {kStr, 256, -1, true}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.signature);
    ClearRecords();
    unsigned char buf[9] = {};
    // An unaligned header inside a buffer.
    auto* h = reinterpret_cast<PersistHeader*>(buf + 1);
    EXPECT_EQ(_initpersist(h, r.signature, r.compatible, r.version), buf + 9);
    EXPECT_EQ(Bytes(buf + 1, buf + 9), Header(r.signature, r.compatible, r.version));
    EXPECT_EQ(Asserted(), r.asserts ? "marshall-159" : "");
  }
  // Native order on this machine: the signature's first character is the
  // most significant byte of the number.
  unsigned char buf[8];
  _initpersist(reinterpret_cast<PersistHeader*>(buf), 0x4366682Eu, 256, 272);
  unsigned sig;
  std::memcpy(&sig, buf, 4);
  EXPECT_EQ(sig >> 24, static_cast<unsigned>('C'));
}

// The model test below covers valid headers in either byte order against
// random limits; these pin the limits' edges and the malformed headers.
TEST_F(MarshallTest, CheckPersistFollowsItsStepsInOrder) {
  struct Row {
    const char* name;
    Bytes header;
    unsigned expected;
    unsigned short oldest;
    unsigned short current;
    int result;
  } rows[] = {
      {"version too old", Header(kStr, 255, 255), kStr, 256, 256, -693},
      {"version 255 compatible 1", Header(kStr, 1, 255), kStr, 256, 256, -693},
      {"needs newer reader", Header(kStr, 273, 273), kStr, 256, 272, -694},
      {"compatible equal to reader", Header(kStr, 272, 300), kStr, 256, 272, 0},
      {"zero signature expected zero", Header(0, 256, 256), 0, 256, 256, -691},
      {"bit 7 in signature", Header(0x80000061u, 256, 256), 0x80000061u, 1, 1, -691},
      {"compatible 0", Header(kStr, 0, 256), kStr, 1, 1000, -691},
      {"version negative", Header(kStr, 1, -5), kStr, 1, 1000, -691},
      {"other signature", Header(0x4466682Eu, 256, 256), kStr, 256, 256, -692},
      {"swapped 1 reads as 256", Swapped(Header(kStr, 1, 1)), kStr, 256, 256, -693},
      // Versions are checked as stored before the swap: 255 swapped is
      // 0xFF00, negative as a signed 16-bit field.
      {"stored field negative", Header(kStr, 256, static_cast<short>(0xFF00)), kStr, 1, 1, -691},
      {"swapped field negative", Swapped(Header(kStr, 256, static_cast<short>(0x8000))), kStr, 1, 1,
       -693},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const Bytes before = r.header;
    EXPECT_EQ(Check(r.header, r.expected, r.oldest, r.current), r.result);
    EXPECT_EQ(r.header, before);
  }
  EXPECT_EQ(_checkpersist(nullptr, kStr, 1, 1), -691);
  EXPECT_EQ(Asserted(), "");
}

TEST_F(MarshallTest, CheckPersistAcceptsWhatInitPersistWrites) {
  // Model: a random valid header checked with random limits.
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const unsigned sig = (rng() & 0x1F1F1F1Fu) | 0x40000000u;
    const short compatible = static_cast<short>(1 + rng() % 0x7FFF);
    const short version = static_cast<short>(1 + rng() % 0x7FFF);
    const auto oldest = static_cast<unsigned short>(rng() % 0x8000);
    const auto current = static_cast<unsigned short>(rng() % 0x8000);
    unsigned char buf[8];
    _initpersist(reinterpret_cast<PersistHeader*>(buf), sig, compatible, version);
    int want = 0;
    if (version < oldest) {
      want = -693;
    } else if (compatible > current) {
      want = -694;
    }
    ASSERT_EQ(Check(Bytes(buf, buf + 8), sig, oldest, current), want) << i;
    // Stored swapped, a field may read as negative before the swap.
    int swappedWant = want == 0 ? -690 : want;
    if (SwapSint16(compatible) < 1 || SwapSint16(version) < 1) swappedWant = -691;
    if (SwapUint32(sig) != sig) {
      ASSERT_EQ(Check(Swapped(Bytes(buf, buf + 8)), sig, oldest, current), swappedWant) << i;
    }
  }
}

TEST(Swap, ReversesBytes) {
  EXPECT_EQ(SwapUint16(0x1234), 0x3412);
  EXPECT_EQ(SwapSint16(static_cast<std::int16_t>(0x80FF)), static_cast<std::int16_t>(0xFF80));
  EXPECT_EQ(SwapUint32(0x12345678u), 0x78563412u);
  EXPECT_EQ(SwapSint32(static_cast<std::int32_t>(0x800000FFu)),
            static_cast<std::int32_t>(0xFF000080u));
  EXPECT_EQ(SwapUint64(0x0102030405060708ull), 0x0807060504030201ull);
  EXPECT_EQ(SwapSint64(static_cast<std::int64_t>(0x80000000000000FFull)),
            static_cast<std::int64_t>(0xFF00000000000080ull));
}

// The bytes 0, 1, 2, ... n-1.
Bytes Ramp(int n) {
  Bytes b(n);
  for (int i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i);
  return b;
}

// The case file holds one command string a row, and what it does to a record.
TEST(ChangeEndian, Commands) {
  if (SwapUint16(1) == 1) GTEST_SKIP() << "the rows hold little-endian counters";
  for (const auto& r : ReadTsv("changeendian.tsv")) {
    SCOPED_TRACE("format \"" + r[0] + "\"");
    const std::string in = Unhex(r[1]);
    Bytes b(in.begin(), in.end());
    auto* end = static_cast<unsigned char*>(ChangeEndian(b.data(), r[0].c_str()));
    EXPECT_EQ(end - b.data(), std::stoi(r[3]));
    EXPECT_EQ(Hex(std::string(b.begin(), b.end())), r[2]);
  }

  // % takes the counts given in order; beyond them it takes 0; in a loop
  // each pass takes the next until they run out.
  Bytes b = Ramp(12);
  EXPECT_EQ(ChangeEndian(b.data(), "%w%l%w", 1, 2u, static_cast<unsigned char>(0)), b.data() + 10);
  EXPECT_EQ(b, (Bytes{1, 0, 5, 4, 3, 2, 9, 8, 7, 6, 10, 11}));
  b = Ramp(4);
  EXPECT_EQ(ChangeEndian(b.data(), "%w%w", 1), b.data() + 2);
  EXPECT_EQ(ChangeEndian(b.data(), "%w"), b.data());
  EXPECT_EQ(b, (Bytes{1, 0, 2, 3}));
  b = Ramp(4);
  EXPECT_EQ(ChangeEndian(b.data(), "f%n2w", 5, 6, 7), b.data() + 4);
  EXPECT_EQ(b, (Bytes{1, 0, 3, 2}));
}

TEST(ChangeEndian, RandomRecordsRoundTrip) {
  // Model: a record of random fields described by a format; converting twice
  // gives the record back, and each field comes out reversed.
  std::mt19937 rng(11);
  for (int iter = 0; iter < 300; ++iter) {
    std::string format;
    Bytes record;
    Bytes want;
    const int fields = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < fields; ++i) {
      const int kind = static_cast<int>(rng() % 5);
      const int n = 1 + static_cast<int>(rng() % 4);
      static const char kCmd[] = {'w', 'l', 'v', 'b', 's'};
      static const int kSize[] = {2, 4, 8, 1, 0};
      format += std::to_string(n);
      format += kCmd[kind];
      if (kind == 4) {
        record.push_back(static_cast<unsigned char>(n));
        want.push_back(static_cast<unsigned char>(n));
        for (int j = 0; j < n; ++j) {
          const auto c = static_cast<unsigned char>(rng());
          record.push_back(c);
          want.push_back(c);
        }
        continue;
      }
      for (int j = 0; j < n; ++j) {
        Bytes item(kSize[kind]);
        for (auto& c : item) c = static_cast<unsigned char>(rng());
        record.insert(record.end(), item.begin(), item.end());
        if (kind != 3) std::reverse(item.begin(), item.end());
        want.insert(want.end(), item.begin(), item.end());
      }
    }
    SCOPED_TRACE(format);
    Bytes b = record;
    ASSERT_EQ(ChangeEndian(b.data(), format.c_str()), b.data() + b.size());
    ASSERT_EQ(b, want);
    ChangeEndian(b.data(), format.c_str());
    ASSERT_EQ(b, record);
  }
}

}  // namespace
