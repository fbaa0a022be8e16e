#include "quarnel/containers/tdict.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tests/support/dict_model.h"
#include "tests/support/helpers.h"

namespace {

class DictTest : public RecordingTest {};

std::vector<std::pair<int, int>> Walk(TDict& d) { return WalkDict<TDictIter>(d); }

// Slot index -> key for every occupied slot (tombstones included).
std::map<int, int> Layout(const TDict& d) {
  std::map<int, int> out;
  for (int i = 0; i < d.Shape().size; ++i) {
    if (d.Slots()[i].key != 0) out[i] = d.Slots()[i].key;
  }
  return out;
}

TEST_F(DictTest, SizingFollowsThePrimeTable) {
  struct Row {
    int n;
    int size, mask, shift, low, high, tomb;
  };
  const Row rows[] = {{0, 127, 63, 16, 25, 101, 63},
                      {100, 127, 63, 16, 25, 101, 63},  // 125 slots wanted
                      {101, 127, 63, 16, 25, 101, 63},  // (101 * 100 + 79) / 80 = 127
                      {102, 251, 127, 16, 50, 200, 125},
                      {-251, 251, 127, 16, 50, 200, 125},
                      {-131071, 131071, 65535, 16, 26214, 104856, 65535},    // exponent 16
                      {-262139, 262139, 131071, 15, 52427, 209711, 131069},  // exponent 17: 32 - 17
                      {-1048573, 1048573, 524287, 13, 209714, 838858, 524286}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.n);
    const TDictShape s = TDict(r.n, 0).Shape();
    EXPECT_EQ(std::vector<long long>(
                  {s.size, s.mask, s.shift, s.lowWater, s.highWater, s.tombstoneLimit, s.used}),
              std::vector<long long>({r.size, r.mask, r.shift, r.low, r.high, r.tomb, 0}));
  }
  EXPECT_EQ(Asserted(), "");
  // A slot count that is not prime asserts and takes the next prime.
  TDict d(-128, 0);
  EXPECT_EQ(d.Shape().size, 251);
  EXPECT_EQ(Asserted(), "dicthash-121");
  // Reset empties everything and forgets the parent.
  d.SetParent(&d);
  d.Define(0, 3);
  for (int k = 1; k <= 300; ++k) d.Define(k * 7919, k);
  d.Reset(10);
  EXPECT_EQ(d.GetCount() + d.Lookup(0) + d.Lookup(7919) + d.Shape().deleted, 0);
  EXPECT_EQ(d.GetParent(), nullptr);
  EXPECT_EQ(d.Shape().size, 127);
}

// Homes in a 127-slot table: ((k * k) >> 16) & 63. 256 and 300 square to
// 1.x * 65536 (home 1), 512 to 4 * 65536 (home 4), 400 to 2.44 * 65536
// (home 2), and 1, 2, 3 to less than 65536 (home 0). Home h probes h, 2h, 3h,
// ...; home 0 probes 0, 126, 125, ...
TEST_F(DictTest, UnorderedLayoutMatchesTheProbeSequence) {
  TDict d(0, 0);
  for (int k : {256, 300, 1, 2, 3, 512, 400}) d.Define(k, k * 2);
  const std::map<int, int> expected = {{0, 1},   {1, 256}, {2, 300}, {4, 512},
                                       {6, 400}, {125, 3}, {126, 2}};
  EXPECT_EQ(Layout(d), expected);
  // Indexed access numbers the live slots from slot 0 upward, key 0 last;
  // iteration gives key 0 first.
  EXPECT_EQ(d.GetIndKey(3), 512);
  EXPECT_EQ(d.LookupKeydex(3), 5);
  EXPECT_EQ(d.GetIndData(4), 800);
  EXPECT_EQ(d.GetIndKey(7) + d.GetIndKey(-1) + d.GetIndData(-1), 0);
  EXPECT_EQ(d.LookupKeydex(0), 7);
  EXPECT_EQ(d.LookupKeydex(999), -1);
  d.Define(0, 9);
  EXPECT_EQ(Walk(d).front(), std::make_pair(0, 9));

  // A tombstone keeps its key in place, so the chain through it still leads
  // to 300; defining 256 again reuses the tombstone.
  d.Undefine(256);
  EXPECT_EQ(d.Shape().deleted * 100 + d.Shape().used, 107);
  EXPECT_EQ(d.Lookup(300), 600);
  EXPECT_EQ(d.LookupKeydex(300), 1);
  EXPECT_EQ(d.LookupKeydex(256), -1);
  d.Define(256, 11);
  EXPECT_EQ(d.Shape().deleted * 100 + d.Shape().used, 7);
  EXPECT_EQ(Layout(d), expected);

  // Find answers the key of the lowest slot holding a value, and key 0 when
  // the value is the null key's.
  EXPECT_EQ(d.Find(9), 0);
  d.Define(300, 4);
  d.Define(2, 4);
  EXPECT_EQ(d.Find(4), 300);
  d.Define(1, 4);
  EXPECT_EQ(d.Find(4), 1);
  EXPECT_EQ(d.Find(5), 0);
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DictTest, OrderedLayoutKeepsChainsDescending) {
  TDict d(0, 1);
  for (int k : {256, 300, 1, 2, 3, 512, 400}) d.Define(k, k + 1);
  // 300 displaces 256 from slot 1; 2 displaces 1 and 3 displaces 2, each
  // moving the smaller key down its chain; 400 displaces 256 again at slot 2.
  const std::map<int, int> expected = {{0, 3},   {1, 300}, {2, 400}, {3, 256},
                                       {4, 512}, {125, 1}, {126, 2}};
  EXPECT_EQ(Layout(d), expected);
  for (int k : {256, 300, 1, 2, 3, 512, 400}) EXPECT_EQ(d.Lookup(k), k + 1);
  EXPECT_EQ(d.Lookup(299), 0);  // stops at 256, below 299
  // Keys compare as unsigned numbers: -1 is the largest key and takes home
  // slot 0 ((0xFFFFFFFF squared) >> 16 is 0), pushing 3 down the chain.
  d.Define(-1, 9);
  EXPECT_EQ(d.Slots()[0].key, -1);
  EXPECT_EQ(d.Lookup(3), 4);
  EXPECT_EQ(d.Lookup(-1), 9);
}

// The rebuilt table of a rehash is unordered while the flag stays. In 251
// slots 2908 and 256 share home 1 (2908 first, being larger) and 2064 has
// home 65; in 127 slots all three have home 1 and are placed in the old slot
// order, so 256 stands between 2908 and the larger 2064 on the chain.
TEST_F(DictTest, RehashLeavesAnOrderedDictionaryUnordered) {
  TDict d(-251, 1);
  d.Define(256, 1);
  d.Define(2908, 2);
  d.Define(2064, 3);
  EXPECT_EQ((Layout(d)), (std::map<int, int>{{1, 2908}, {2, 256}, {65, 2064}}));
  d.Define(999, 4);
  d.Undefine(999);  // used 4 < low water 50: rehash to 127 slots
  EXPECT_EQ(d.Shape().size, 127);
  EXPECT_EQ(d.IsOrdered(), 1);
  EXPECT_EQ((Layout(d)), (std::map<int, int>{{1, 2908}, {2, 256}, {3, 2064}}));
  EXPECT_EQ(d.Lookup(2908) * 10 + d.Lookup(256), 21);
  EXPECT_EQ(d.Lookup(2064), 0);  // the search stops at the smaller 256
  EXPECT_EQ(d.LookupKeydex(2064), 2);
}

TEST_F(DictTest, WaterMarksRehash) {
  // Redefining an existing key at used + 1 = high water rehashes to about
  // twice the live count: 100 * 2 + 1 = 201 -> 251 slots.
  TDict d(0, 0);
  for (int k = 1; k <= 100; ++k) d.Define(k * 1000003, k);
  EXPECT_EQ(d.Shape().size, 127);
  d.Define(1000003, 5);
  EXPECT_EQ(d.Shape().size, 251);
  EXPECT_EQ(d.Shape().used, 100);

  // Below the low water mark (101 of 509) a deletion shrinks the table: 59
  // live, 2 * 59 + 1 = 119 -> 127 slots.
  TDict s(-509, 0);
  for (int k = 1; k <= 60; ++k) s.Define(k * 65537, k);
  s.Undefine(65537);
  EXPECT_EQ(s.Shape().size, 127);
  EXPECT_EQ(s.Shape().deleted * 1000 + s.Shape().used, 59);

  // Tombstones do not lower used; at the tombstone limit (63 of 127) the
  // table is rebuilt at the same size without them.
  TDict t(0, 0);
  for (int k = 1; k <= 80; ++k) t.Define(k * 65537, k);
  for (int k = 1; k <= 62; ++k) t.Undefine(k * 65537);
  EXPECT_EQ(t.Shape().deleted * 1000 + t.Shape().used, 62080);
  t.Undefine(63 * 65537);
  EXPECT_EQ(t.Shape().size, 127);
  EXPECT_EQ(t.Shape().deleted * 1000 + t.Shape().used, 17);
  // Undefining what is absent or already a tombstone changes nothing.
  t.Undefine(63 * 65537);
  t.Undefine(6);
  EXPECT_EQ(t.Shape().deleted * 1000 + t.Shape().used, 17);
}

TEST_F(DictTest, CopiesAreIndependent) {
  TDict parent(0, 0);
  TDict d(0, 0);
  d.SetParent(&parent);
  d.Define(0, 4);
  for (int k = 1; k <= 150; ++k) d.Define(k * 31, k);
  d.Undefine(31);
  TDict c(d);
  EXPECT_EQ(c.GetParent(), &parent);
  EXPECT_EQ(TDict(TDict(0, 1)).IsOrdered(), 1);
  EXPECT_EQ(Walk(c), Walk(d));
  EXPECT_EQ(Layout(c), Layout(d));
  EXPECT_EQ(c.Shape().deleted, d.Shape().deleted);
  c.Define(62, 0);
  EXPECT_EQ(c.Lookup(62) * 10 + d.Lookup(62), 2);

  TDict a(5000, 0);
  a = d;
  EXPECT_EQ(a.Shape().size, d.Shape().size);
  TDict& same = a;
  a = same;
  EXPECT_EQ(Walk(a), Walk(d));

  // An iterator over an empty dictionary, and one reset to the start.
  TDict empty(0, 0);
  TDictIter none(empty);
  EXPECT_FALSE(none);
  EXPECT_EQ(none.Key() + none.Data(), 0);
  TDictIter it(d);
  ++it;
  ++it;
  it.Reset();
  EXPECT_EQ(it.Key() * 10 + it.Data(), 4);
  EXPECT_EQ(Asserted(), "");
}

// Keys 1..small, then `large` distinct random 32-bit keys, then `permanent`
// more: the pool and the permanent keys of a model run.
std::pair<std::vector<int>, std::vector<int>> Keys(int small, int large, int permanent,
                                                   unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<int> pool;
  for (int k = 1; k <= small; ++k) pool.push_back(k);
  std::unordered_set<int> taken(pool.begin(), pool.end());
  while (static_cast<int>(pool.size()) < small + large + permanent) {
    const int k = static_cast<int>(rng());
    if (k != 0 && taken.insert(k).second) pool.push_back(k);
  }
  std::vector<int> kept(pool.end() - permanent, pool.end());
  pool.resize(pool.size() - permanent);
  return {pool, kept};
}

void RunModel(const DictModelRun& run, int small, int large, int permanent, unsigned seed) {
  const auto [pool, kept] = Keys(small, large, permanent, seed);
  RunDictModel<TDict, TDictIter>(run, pool, kept, seed);
}

constexpr int kScale = kSanitizerScale;

TEST_F(DictTest, ModelUnorderedAgainstUnorderedMap) {
  RunModel({"unordered small and large keys", 400000 / kScale, 0, 0, false, false}, 3000, 3000, 0,
           1);
}

TEST_F(DictTest, ModelUnorderedWithParents) {
  RunModel({"unordered with parents", 300000 / kScale, 0, 0, true, false}, 1500, 1500, 0, 2);
}

// Ordered dictionaries are exact while their table keeps its order, that is
// until the first rehash: these stay within the water marks.
TEST_F(DictTest, ModelOrderedWithoutRehash) {
  RunModel({"ordered, 2039 slots", 200000 / kScale, 1, -2039, false, true}, 300, 600, 500, 3);
  RunModel({"ordered, 127 slots, parents", 100000 / kScale, 1, 0, true, true}, 20, 40, 0, 4);
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
