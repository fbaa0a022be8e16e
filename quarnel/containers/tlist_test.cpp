#include "quarnel/containers/tlist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "quarnel/foundation/memutil.h"
#include "tests/support/helpers.h"

namespace {

using Items = std::vector<std::intptr_t>;

Items Contents(const TList& list) {
  Items items;
  for (void* p = list.First(); p != nullptr; p = list.Next(p)) items.push_back(TList::Item(p));
  return items;
}

TList& Fill(TList& list, const Items& items) {
  list.Clear();
  for (auto i : items) list.AddLast(i);
  return list;
}

int IsEven(std::intptr_t v) { return v % 2 == 0; }
int IsBig(std::intptr_t v) { return v > 100; }

class ListTest : public RecordingTest {};

// Positions, Find and Remove are covered by the model test below.
TEST_F(ListTest, EndsAndPointerItems) {
  TList list;
  EXPECT_EQ(list.First(), nullptr);
  Fill(list, {1, 2}).AddFirst(0);
  EXPECT_EQ(list.GetFirst() * 10 + list.GetLast(), 2);
  EXPECT_EQ(list.RemoveFirst(), 0);
  // Items are pointer-sized: a pointer survives the round trip.
  int local = 0;
  list.AddLast(reinterpret_cast<std::intptr_t>(&local));
  EXPECT_EQ(reinterpret_cast<int*>(list.GetLast()), &local);
  EXPECT_EQ(Asserted(), "");
}

TEST_F(ListTest, SearchesFindTheFirstOccurrence) {
  TList list;
  void* pos = nullptr;
  Fill(list, {1, 2, 3, 4});
  EXPECT_EQ(list.FindIf(IsEven, &pos), 2);
  EXPECT_EQ(TList::Item(pos), 2);
  EXPECT_EQ(list.FindIf(IsEven, &pos), 4);
  EXPECT_EQ(list.FindIf(IsEven, &pos), 0);
  EXPECT_EQ(pos, nullptr);
  EXPECT_EQ(list.FindIf(IsEven, nullptr), 2);
  EXPECT_EQ(list.RemoveIf(IsEven), 2);
  EXPECT_EQ(list.RemoveIf(IsBig), 0);
  EXPECT_EQ(Contents(list), (Items{1, 3, 4}));
}

TEST_F(ListTest, SetOperationsKeepTheirDeliberateOrder) {
  struct Case {
    Items a, b;
    Items plus, minus;
  };
  const Case cases[] = {
      {{2}, {1, 2, 3}, {3, 1, 2}, {}},
      {{}, {1, 1, 2}, {2, 1}, {}},
      {{5, 6, 5}, {6, 7}, {7, 5, 6, 5}, {5, 5}},
      {{1, 2}, {}, {1, 2}, {1, 2}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.a) + " with " + ::testing::PrintToString(c.b));
    TList a, b;
    Fill(b, c.b);
    Fill(a, c.a) += b;
    EXPECT_EQ(Contents(a), c.plus);
    Fill(a, c.a) -= b;
    EXPECT_EQ(Contents(a), c.minus);
  }
  TList self;
  Fill(self, {1, 2}) += self;
  EXPECT_EQ(Contents(self), (Items{1, 2}));
  self -= self;
  EXPECT_EQ(self.Count(), 0);

  TList f;
  Fill(f, {1, 2, 3, 4}).FilterIf(IsEven);
  EXPECT_EQ(Contents(f), (Items{2, 4}));
  f.FilterIf(IsBig);
  EXPECT_EQ(f.Count(), 0);
}

TEST_F(ListTest, OutOfRangeIndexesAssertAndChangeNothing) {
  TList list;
  Fill(list, {1, 2});
  list.AddAt(7, 3);
  list.AddAt(7, -1);
  EXPECT_EQ(list.RemoveAt(2), 0);
  EXPECT_EQ(list.GetAtRaw(-1), nullptr);
  EXPECT_EQ(list.GetAt(5), 0);
  EXPECT_EQ(list.Next(nullptr), nullptr);
  TList empty;
  EXPECT_EQ(empty.RemoveFirst(), 0);
  EXPECT_EQ(empty.GetLast(), 0);
  EXPECT_EQ(Asserted(), "list-140 list-140 list-171 list-214 list-214 list-268 list-171 list-214");
  EXPECT_EQ(Contents(list), (Items{1, 2}));
}

// Random operations against a vector; every node comes from MemAlloc and all
// are returned when the list goes.
TEST_F(ListTest, RandomOperationsAgreeWithAVector) {
  const int blocks0 = MemBlockCount();
  {
    std::mt19937 rng(42);
    TList list;
    Items model;
    for (int step = 0; step < 20000; ++step) {
      const auto value = static_cast<std::intptr_t>(rng() % 50);
      const int n = static_cast<int>(model.size());
      switch (rng() % 8) {
        case 0:
        case 1: {
          const int at = static_cast<int>(rng() % (n + 1));
          list.AddAt(value, at);
          model.insert(model.begin() + at, value);
          break;
        }
        case 2:
          if (n > 0) {
            const int at = static_cast<int>(rng() % n);
            ASSERT_EQ(list.RemoveAt(at), model[at]);
            model.erase(model.begin() + at);
          }
          break;
        case 3: {
          auto it = std::find(model.begin(), model.end(), value);
          ASSERT_EQ(list.Find(value), it == model.end() ? -1 : it - model.begin());
          break;
        }
        case 4: {
          list.Remove(value);
          auto it = std::find(model.begin(), model.end(), value);
          if (it != model.end()) model.erase(it);
          break;
        }
        case 5:
          if (n > 0) {
            const int at = static_cast<int>(rng() % n);
            ASSERT_EQ(list.GetAt(at), model[at]);
          }
          break;
        case 6:
          list.AddLast(value);
          model.push_back(value);
          break;
        case 7:
          if (n > 0) {
            ASSERT_EQ(list.RemoveLast(), model.back());
            model.pop_back();
          }
          break;
      }
      ASSERT_EQ(list.Count(), static_cast<int>(model.size()));
      if (step % 500 == 0) {
        ASSERT_EQ(Contents(list), model);
      }
    }
  }
  EXPECT_EQ(MemBlockCount(), blocks0);
  EXPECT_EQ(Asserted(), "");
}

// Eight threads add and remove their own items on one list; at the end each
// thread's survivors are all there, once each.
TEST(ListThreadTest, SharedListKeepsEveryThreadsItems) {
  constexpr int kThreads = 8;
  constexpr int kItems = 600;
  TList list;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&list, t] {
      for (int i = 0; i < kItems; ++i) {
        const std::intptr_t item = t * 100000 + i;
        if (i % 2 == 0) {
          list.AddFirst(item);
        } else {
          list.AddLast(item);
        }
        if (i % 3 == 2) list.Remove(item - 1);  // one of its own, added before
      }
    });
  }
  for (auto& th : threads) th.join();
  Items items = Contents(list);
  std::sort(items.begin(), items.end());
  Items expected;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kItems; ++i) {
      if (i % 3 != 1) expected.push_back(t * 100000 + i);
    }
  }
  EXPECT_EQ(items, expected);
}

}  // namespace
