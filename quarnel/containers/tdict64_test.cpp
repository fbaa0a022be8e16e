#include "quarnel/containers/tdict64.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <unordered_set>
#include <utility>
#include <vector>

#include "quarnel/containers/tdictlinear.h"
#include "quarnel/foundation/memutil.h"
#include "tests/support/dict_model.h"
#include "tests/support/helpers.h"

namespace {

using u64 = std::uint64_t;
constexpr u64 kHigh = 1ULL << 32;

class Dict64Test : public RecordingTest {};

std::map<int, u64> Layout(const TDict64& d) {
  std::map<int, u64> out;
  for (int i = 0; i < d.Shape().size; ++i) {
    if (d.Slots()[i].key != 0) out[i] = d.Slots()[i].key;
  }
  return out;
}

std::vector<std::pair<u64, u64>> Walk(TDict64& d) { return WalkDict<TDict64Iter>(d); }

// Sized as TDict; a slot count that is not prime asserts in this module.
TEST_F(Dict64Test, SizesAsTDict) {
  EXPECT_EQ(TDict64(102, 0).Shape().size, 251);
  EXPECT_EQ(TDict64(-262139, 0).Shape().shift, 15);
  EXPECT_EQ(TDict64(-100, 0).Shape().size, 127);
  EXPECT_EQ(Asserted(), "dicthash64-121");
}

// (2^32 + 256)^2 = 2^64 + 2^41 + 2^16: modulo 2^64, shifted right by 16,
// its low 32 bits are 2^25 + 1, so its home in 127 slots is 1, as for 256.
TEST_F(Dict64Test, HomeComesFromTheLowHalfOfTheSquare) {
  TDict64 d(0, 0);
  d.Define(256, 1);
  d.Define(kHigh + 256, 2);
  d.Define(kHigh * 5, 3);  // squares to 25 * 2^64: home 0
  EXPECT_EQ(Layout(d), (std::map<int, u64>{{0, kHigh * 5}, {1, 256}, {2, kHigh + 256}}));
  // Equality always compares all 64 bits.
  EXPECT_EQ(d.Lookup(256), 1u);
  EXPECT_EQ(d.Lookup(kHigh + 256), 2u);
  EXPECT_EQ(d.Lookup(kHigh * 2 + 256), 0u);
  EXPECT_EQ(d.Find(2), kHigh + 256);
  EXPECT_EQ(d.LookupKeydex(kHigh + 256), 2);
  EXPECT_EQ(d.GetIndKey(0), kHigh * 5);
  EXPECT_EQ(d.GetIndData(2), 2u);
}

TEST_F(Dict64Test, OrderedComparesLowHalvesOnly) {
  // 256 and 2^32 + 256 have equal low halves: neither is smaller, so the
  // later one goes after the earlier one whatever their 64-bit order.
  TDict64 a(0, 1);
  a.Define(256, 1);
  a.Define(kHigh + 256, 2);
  EXPECT_EQ(Layout(a), (std::map<int, u64>{{1, 256}, {2, kHigh + 256}}));
  TDict64 b(0, 1);
  b.Define(kHigh + 256, 2);
  b.Define(256, 1);
  EXPECT_EQ(Layout(b), (std::map<int, u64>{{1, kHigh + 256}, {2, 256}}));
  b.Define(300, 3);
  // 300 (home 1) has the larger low half: it takes slot 1, and the displaced
  // 2^32 + 256 passes 256 (not smaller) to the next empty slot.
  EXPECT_EQ(Layout(b), (std::map<int, u64>{{1, 300}, {2, 256}, {3, kHigh + 256}}));
  // A key with a large high half and a small low half is "smaller" than 300.
  b.Define(kHigh * 7 + 299, 4);  // home of its square's low half
  EXPECT_EQ(b.Lookup(kHigh * 7 + 299), 4u);
  for (u64 k : {u64{256}, kHigh + 256, u64{300}}) EXPECT_NE(b.Lookup(k), 0u);
}

// The model test covers full-width values, the null key and parents; a copy
// keeps all three.
TEST_F(Dict64Test, CopiesKeepEntriesAndParent) {
  TDict64 parent(0, 0);
  TDict64 child(0, 0);
  child.SetParent(&parent);
  child.Define(0, 5);
  child.Define(kHigh + 256, ~0ULL);
  TDict64 copy(child);
  EXPECT_EQ(Walk(copy), (std::vector<std::pair<u64, u64>>{{0, 5}, {kHigh + 256, ~0ULL}}));
  EXPECT_EQ(copy.GetParent(), &parent);
}

// The model test of the 32-bit dictionary, on keys of which a third share
// their low halves with another key and a fifth are small.
TEST_F(Dict64Test, ModelAgainstUnorderedMap) {
  std::mt19937_64 rng(11);
  std::vector<u64> pool;
  std::unordered_set<u64> taken;
  while (pool.size() < 3500) {
    u64 k = rng();
    if (pool.size() % 3 == 1) k = (rng() << 32) | (pool.back() & 0xFFFFFFFFu);  // twin low half
    if (pool.size() % 5 == 0) k = rng() % 5000 + 1;
    if (k != 0 && taken.insert(k).second) pool.push_back(k);
  }
  const std::vector<u64> permanent(pool.end() - 500, pool.end());
  pool.resize(3000);
  RunDictModel<TDict64, TDict64Iter>(
      {"unordered with parents", 200000 / kSanitizerScale, 0, 0, true, false}, pool, {}, 11);
  pool.resize(700);  // ordered: within the water marks, capacity kept
  RunDictModel<TDict64, TDict64Iter>(
      {"ordered, 2039 slots", 100000 / kSanitizerScale, 1, -2039, false, true}, pool, permanent,
      12);
  EXPECT_EQ(Asserted(), "");
}

// ---------------------------------------------------------------------------
// TDictLinear

class DictLinearTest : public RecordingTest {};

// The model test below covers the places of the entries and the room of the
// block (b = 8n + 8 bytes, allocated as b + b mod 80); these pin the rest.
TEST_F(DictLinearTest, FindTheSentinelAndReset) {
  TDictLinear d;
  EXPECT_EQ(d.Capacity(), 96u);  // room for 10: 88 + 88 mod 80
  d.Define(6, 2);
  d.Define(7, 2);
  d.Define(8, 3);
  EXPECT_EQ(d.Find(2), 7);  // the last entry holding 2
  EXPECT_EQ(d.Find(0) + d.Find(4), 0);
  // Index -1 reads the sentinel: what the last search sought.
  d.Lookup(42);
  EXPECT_EQ(d.GetIndKey(-1), 42);
  EXPECT_EQ(d.GetIndKey(-2) + d.GetIndKey(3), 0);
  d.Reset();
  EXPECT_EQ(d.GetCount(), 0);
  EXPECT_EQ(d.Capacity(), 96u);
}

TEST_F(DictLinearTest, ParentsAndTheirGuard) {
  TDictLinear grand, parent, child;
  grand.Define(1, 10);
  parent.Define(2, 20);
  parent.SetParent(&grand);
  child.SetParent(&parent);
  child.Define(1, 5);
  EXPECT_EQ(child.Lookup(1), 5);
  EXPECT_EQ(child.Lookup(2), 20);
  EXPECT_EQ(parent.Lookup(1), 10);
  EXPECT_EQ(child.Lookup(3), 0);
  child.SetParent(&child);
  EXPECT_EQ(Asserted(), "dictlinear-207");
  EXPECT_EQ(child.GetParent(), &parent);
}

TEST_F(DictLinearTest, CopiesTakeExactlyTheRoomOfTheEntries) {
  TDictLinear parent;
  TDictLinear d;
  d.SetParent(&parent);
  for (int k = 1; k <= 8; ++k) d.Define(k, k * k);
  TDictLinear c(d);
  EXPECT_EQ(c.GetCount(), 8);
  EXPECT_EQ(c.Capacity(), 144u);
  EXPECT_EQ(c.GetParent(), &parent);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(c.GetIndData(i), d.GetIndData(i));

  TDictLinear fresh;
  TDictLinear e(fresh);
  EXPECT_EQ(e.Capacity(), 16u);
  EXPECT_EQ(e.GetCount(), 0);

  // operator= forgets its own block without freeing it: the block stays
  // allocated, as the library has always done; the test frees it.
  TDictLinear a;
  a.Define(100, 1);
  const TDictLinear::Pair* old = a.Array();
  a = d;
  EXPECT_NE(a.Array(), old);
  EXPECT_EQ(MemSize(old), 32u);
  MemFree(const_cast<TDictLinear::Pair*>(old));
  EXPECT_EQ(a.GetCount(), 8);
  EXPECT_EQ(a.Lookup(3), 9);
  EXPECT_EQ(a.Lookup(100), 0);
  TDictLinear& same = a;
  a = same;
  EXPECT_EQ(a.GetCount(), 8);
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DictLinearTest, ModelOfEntriesInTheirPlaces) {
  std::mt19937 rng(5);
  TDictLinear d;
  std::vector<std::pair<int, int>> model;
  auto room = [](int n) {
    const unsigned b = static_cast<unsigned>(n) * 8 + 8;
    return b + b % 80;
  };
  for (int op = 0; op < 20000; ++op) {
    const int key = static_cast<int>(rng() % 40) - 5;  // key 0 is an ordinary key here
    const int value = rng() % 5 == 0 ? 0 : static_cast<int>(rng() % 9) + 1;
    auto it = std::find_if(model.begin(), model.end(), [&](auto& p) { return p.first == key; });
    if (rng() % 3 == 0 || value == 0) {
      d.Undefine(key);
      if (it != model.end()) {
        *it = model.back();
        model.pop_back();
        ASSERT_EQ(d.Capacity(), room(static_cast<int>(model.size())));
      }
    } else {
      d.Define(key, value);
      if (it != model.end()) {
        it->second = value;
      } else {
        model.emplace_back(key, value);
        ASSERT_EQ(d.Capacity(), room(static_cast<int>(model.size())));
      }
    }
    ASSERT_EQ(d.GetCount(), static_cast<int>(model.size()));
    for (std::size_t i = 0; i < model.size(); ++i) {
      ASSERT_EQ(d.GetIndKey(static_cast<int>(i)), model[i].first);
      ASSERT_EQ(d.GetIndData(static_cast<int>(i)), model[i].second);
    }
    const int probe = static_cast<int>(rng() % 40) - 5;
    auto found =
        std::find_if(model.begin(), model.end(), [&](auto& p) { return p.first == probe; });
    ASSERT_EQ(d.Lookup(probe), found == model.end() ? 0 : found->second);
    ASSERT_EQ(d.LookupKeydex(probe),
              found == model.end() ? -1 : static_cast<int>(found - model.begin()));
  }
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
