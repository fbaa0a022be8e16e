#include "quarnel/compress/hashblock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include "quarnel/compress/compress_reference.h"
#include "tests/support/recording_hooks.h"

namespace {

class HashBlockTest : public RecordingTest {};

// Known values, and bad arguments: those assert and answer 1.
TEST_F(HashBlockTest, KnownValuesAndBadArguments) {
  const unsigned char digits[] = "123456789", a[] = {'a'};
  const struct {
    const unsigned char* data;
    int length;
    unsigned hash;
    bool asserts;
  } rows[] = {{digits, 9, 0x89A1897Fu, false}, {a, 1, 0xA864DB20u, false}, {digits, 0, 1u, false},
              {nullptr, 0, 1u, false},         {digits, -1, 1u, true},     {nullptr, 5, 1u, true}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.length);
    ClearRecords();
    EXPECT_EQ(HashBlock(r.data, r.length), r.hash);
    const std::vector<AssertionSeen> bad = {
        {"hashblock", quarnel_internal::kHashBlockBadArgsLine, ""}};
    EXPECT_EQ(Assertions(), r.asserts ? bad : std::vector<AssertionSeen>{});
  }
  EXPECT_TRUE(Lines().empty());
}

TEST_F(HashBlockTest, ZeroIsNeverAnswered) {
  // With initial value 0 and no inversion, zero bytes give CRC 0, and so does
  // any data followed by its own CRC (most significant byte first).
  std::vector<unsigned char> zeros(100, 0);
  for (int n : {1, 7, 8, 9, 64, 100}) EXPECT_EQ(HashBlock(zeros.data(), n), 1u) << n;
  std::mt19937 rng(3);
  for (int n : {1, 5, 16, 1000}) {
    std::vector<unsigned char> data(static_cast<std::size_t>(n) + 4);
    for (int i = 0; i < n; ++i)
      data[static_cast<std::size_t>(i)] = static_cast<unsigned char>(rng());
    const std::uint32_t crc =
        quarnel_internal::BlockCrc(0, data.data(), static_cast<std::size_t>(n));
    ASSERT_NE(crc, 0u);
    for (int k = 0; k < 4; ++k)
      data[static_cast<std::size_t>(n + k)] = static_cast<unsigned char>(crc >> (24 - 8 * k));
    EXPECT_EQ(quarnel_internal::BlockCrc(0, data.data(), data.size()), 0u);
    EXPECT_EQ(HashBlock(data.data(), n + 4), 1u);
  }
}

// Every length up to 4,096 at every alignment within eight bytes, against
// the one-lookup-per-byte table, with the data in a buffer of exactly its
// length so that no read past it goes unseen; both forms of the CRC, also
// continued from a CRC already begun.
TEST_F(HashBlockTest, AgreesWithByteTableAtEveryLengthAndAlignment) {
  std::mt19937 rng(4096);
  std::vector<unsigned char> pool(4096 + 8);
  for (auto& b : pool) b = static_cast<unsigned char>(rng());
  if (!quarnel_internal::FoldedCrcAvailable()) {
    std::cout << "no carry-less multiplication here: the folded form is the sliced one\n";
  }
  for (int n = 0; n <= 4096; ++n) {
    const std::size_t shift = rng() % 8;
    const auto len = static_cast<std::size_t>(n);
    auto exact = std::make_unique<unsigned char[]>(shift + len);
    if (n != 0) std::memcpy(exact.get() + shift, pool.data() + shift, len);
    const unsigned char* p = exact.get() + shift;
    ASSERT_EQ(HashBlock(p, n), quarnel_reference::HashBlock(p, len)) << "length " << n;
    const std::uint32_t plain = quarnel_internal::SlicedCrc(0, p, len);
    ASSERT_EQ(quarnel_internal::FoldedCrc(0, p, len), plain) << "length " << n;
    // Continuing from a CRC: both forms agree, and the same comes of
    // folding the CRC into the first four bytes.
    const auto start = static_cast<std::uint32_t>(rng());
    const std::uint32_t continued = quarnel_internal::SlicedCrc(start, p, len);
    ASSERT_EQ(quarnel_internal::FoldedCrc(start, p, len), continued) << "length " << n;
    if (n >= 4) {
      std::vector<unsigned char> mixed(p, p + len);
      for (int k = 0; k < 4; ++k)
        mixed[static_cast<std::size_t>(k)] ^= static_cast<unsigned char>(start >> (24 - 8 * k));
      ASSERT_EQ(quarnel_internal::SlicedCrc(0, mixed.data(), len), continued) << "length " << n;
    }
  }
  // Pieces continue each other.
  for (int round = 0; round < 200; ++round) {
    const std::size_t n = rng() % 4096;
    const std::size_t cut = n == 0 ? 0 : rng() % n;
    const std::uint32_t whole = quarnel_internal::BlockCrc(0, pool.data(), n);
    const std::uint32_t first = quarnel_internal::BlockCrc(0, pool.data(), cut);
    EXPECT_EQ(quarnel_internal::BlockCrc(first, pool.data() + cut, n - cut), whole);
  }
  std::vector<unsigned char> large(std::size_t{3} << 20);
  for (auto& b : large) b = static_cast<unsigned char>(rng());
  EXPECT_EQ(HashBlock(large.data(), static_cast<int>(large.size())),
            quarnel_reference::HashBlock(large.data(), large.size()));
}

}  // namespace
