// TResCache lives in quarnel/resources; its test sits here for now, beside
// the dictionary it is built on.
#include "quarnel/resources/rescache.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "tests/support/helpers.h"

namespace {

class ResCacheTest : public RecordingTest {};

void* H(int n) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(n * 16)); }

// The model test below covers refusal when every slot is in use, eviction
// in round-robin order and the slots in use; these pin the answers around it.
TEST_F(ResCacheTest, IdZeroNullHandlesAndTheSlots) {
  TResCache cache(2);
  void* evicted = H(99);
  void* handle = H(99);
  EXPECT_EQ(cache.Cache(0, H(1), &evicted), 1);  // id 0 is an id like any other
  EXPECT_EQ(evicted, nullptr);
  EXPECT_EQ(cache.Get(300, &handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(cache.Get(0, &handle), 1);
  EXPECT_EQ(handle, H(1));
  EXPECT_EQ(cache.Slots()[0].usage, 2);
  EXPECT_EQ(cache.GetCount(), 1);  // the dictionary holds exactly the cached ids
  EXPECT_EQ(cache.NextSlot(), 2);
  evicted = H(99);
  EXPECT_EQ(cache.Cache(5, nullptr, &evicted), 0);
  EXPECT_EQ(evicted, nullptr);
  EXPECT_EQ(Asserted(), "");
}

TEST_F(ResCacheTest, TheThreeReturnsDifferDeliberately) {
  TResCache cache(2);
  void* evicted = nullptr;
  cache.Cache(10, H(1), &evicted);
  cache.Return(1);
  EXPECT_EQ(Asserted(), "");
  cache.Return(1);  // already 0: asserts, the decrement stands
  EXPECT_EQ(cache.Slots()[0].usage, -1);
  cache.Return(0);
  cache.Return(3);
  EXPECT_EQ(Asserted(), "trescache-129 trescache-128 trescache-128");
  ClearRecords();

  cache.ReturnByID(10);  // -1 -> -2, asserting
  cache.ReturnByID(11);  // not cached
  EXPECT_EQ(cache.Slots()[0].usage, -2);
  EXPECT_EQ(Asserted(), "trescache-148 trescache-147");
  ClearRecords();

  cache.Cache(20, H(2), &evicted);
  cache.ReturnByHandle(H(2));
  EXPECT_EQ(cache.Slots()[1].usage, 0);
  cache.ReturnByHandle(H(2));  // clamped at 0, no assertion
  EXPECT_EQ(cache.Slots()[1].usage, 0);
  cache.ReturnByHandle(H(7));  // unknown: nothing
  EXPECT_EQ(Asserted() + Logged(), "");
}

TEST_F(ResCacheTest, BadUsageCountsAreLoggedAndCountedOn) {
  TResCache cache(1);
  void* evicted = nullptr;
  void* handle = nullptr;
  cache.Cache(5, H(0x1234), &evicted);
  for (int i = 0; i < 99; ++i) cache.Get(5, &handle);
  EXPECT_EQ(cache.Slots()[0].usage, 100);
  EXPECT_EQ(Logged(), "");
  cache.Get(5, &handle);  // 100 was valid
  EXPECT_EQ(Logged(), "");
  cache.Get(5, &handle);  // 101 is not
  EXPECT_EQ(Logged(), "519 TResCache::Get: bad usage count (101) for handle 12340\n");
  EXPECT_EQ(cache.Slots()[0].usage, 102);
}

TEST_F(ResCacheTest, MisuseOfConstructionAsserts) {
  TResCache zero(0);
  EXPECT_EQ(zero.SlotCount(), 1);
  TResCache source(4);
  void* evicted = nullptr;
  source.Cache(1, H(1), &evicted);
  TResCache copy(source);
  EXPECT_EQ(copy.SlotCount(), 0);
  EXPECT_EQ(copy.GetCount(), 0);
  EXPECT_EQ(copy.Cache(2, H(2), &evicted), 0);
  copy = source;
  EXPECT_EQ(copy.GetCount(), 0);
  EXPECT_EQ(Asserted(), "trescache-38 trescache-66 trescache-66");
}

// Random use against a model of slots, checking the rules: never evict a
// handle in use, evict in round-robin order, and keep id -> slot exact.
TEST_F(ResCacheTest, ModelOfSlots) {
  std::mt19937 rng(9);
  const int n = 5;
  TResCache cache(n);
  struct S {
    int id = -1;
    int handle = 0;
    int usage = 0;
  };
  std::vector<S> slots(n);
  int next = 1;
  int handles = 1;
  for (int op = 0; op < 20000; ++op) {
    const int id = static_cast<int>(rng() % 12);
    int cached = 0;
    for (int i = 0; i < n; ++i) {
      if (slots[i].id == id) cached = i + 1;
    }
    const unsigned what = rng() % 3;
    if (what == 0) {
      void* handle = nullptr;
      ASSERT_EQ(cache.Get(id, &handle), cached);
      if (cached != 0) {
        ASSERT_EQ(handle, H(slots[cached - 1].handle));
        ++slots[cached - 1].usage;
      }
    } else if (what == 1 && cached == 0) {
      int expect = 0;
      for (int i = 0; i < n && expect == 0; ++i) {
        const int s = (next + i - 1) % n + 1;
        if (slots[s - 1].usage == 0) expect = s;
      }
      void* evicted = H(-1);
      ASSERT_EQ(cache.Cache(id, H(handles), &evicted), expect);
      if (expect != 0) {
        S& s = slots[expect - 1];
        ASSERT_EQ(evicted, s.handle != 0 ? H(s.handle) : nullptr);
        s = S{id, handles, 1};
        next = expect % n + 1;
      } else {
        ASSERT_EQ(evicted, nullptr);
      }
      ++handles;
    } else if (cached != 0 && slots[cached - 1].usage > 0) {
      if (rng() % 2 == 0) {
        cache.ReturnByID(id);
      } else {
        cache.ReturnByHandle(H(slots[cached - 1].handle));
      }
      --slots[cached - 1].usage;
    }
  }
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
