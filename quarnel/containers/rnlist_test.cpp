#include "quarnel/containers/rnlist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/sort.h"
#include "tests/support/helpers.h"

namespace {

using Model = std::vector<int>;

class RNListTest : public RecordingTest {};

Model Entries(const RNList& l) {
  Model m;
  for (int i = 0; i < l.Count(); ++i) m.push_back(l.Enum(i));
  return m;
}

void Load(RNList& l, const Model& m) {
  ASSERT_EQ(l.Alloc(static_cast<int>(m.size())), 0);
  for (std::size_t i = 0; i < m.size(); ++i) l[static_cast<int>(i)] = m[i];
}

bool Holds(const Model& m, int v) { return std::find(m.begin(), m.end(), v) != m.end(); }

// The model's set operations, written from their descriptions.
void ModelAppend(const Model& from, Model& to) {
  for (int v : from) {
    if (!Holds(to, v)) to.push_back(v);
  }
}
void ModelRemove(const Model& from, Model& to) {
  for (int v : from) to.erase(std::remove(to.begin(), to.end(), v), to.end());
}
void ModelInsert(const Model& from, Model& to, int at) {
  at = std::clamp(at, 0, static_cast<int>(to.size()));
  Model result(to.begin(), to.begin() + at);
  ModelAppend(from, result);
  ModelAppend(Model(to.begin() + at, to.end()), result);
  to = result;
}

int Ascending(void*, const void* a, const void* b) {
  const int x = *static_cast<const int*>(a);
  const int y = *static_cast<const int*>(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

// The context says which way: a positive int sorts down.
int ByContext(void* context, const void* a, const void* b) {
  return *static_cast<int*>(context) > 0 ? Ascending(nullptr, b, a) : Ascending(nullptr, a, b);
}

// The model test below covers the members and the set operations; these pin
// the edges it does not reach.
TEST_F(RNListTest, OutOfRangeNeverTouchesTheList) {
  RNList l;
  Load(l, {4, 5});
  l[-1] = 77;  // lost, and operator[] does not assert
  l[2] = 78;
  EXPECT_EQ(l[2], 0);
  EXPECT_EQ(Asserted(), "");
  EXPECT_EQ(l.Set(2, 9) + l.Set(-5, 9), 0);
  EXPECT_EQ(l.Ins(9, 3), kErrBadParameter);
  EXPECT_EQ(l.Ins(9, -1), kErrBadParameter);
  EXPECT_EQ(l.Alloc(-1), kErrBadParameter);
  EXPECT_EQ(Entries(l), (Model{4, 5}));
  EXPECT_EQ(Asserted(), "rnlist-95 rnlist-95 rnlist-130 rnlist-130 rnlist-40");
  ClearRecords();
  EXPECT_EQ(l.Alloc(0x40000000), kErrMemNotObtained);  // 2^32 bytes
  EXPECT_EQ(Entries(l), (Model{4, 5}));
}

TEST_F(RNListTest, TheListAsItsOwnDestinationAndSortContext) {
  RNList l;
  Load(l, {3, 1, 3});
  EXPECT_EQ(l.Copy(&l) + l.Append(&l), 0);
  EXPECT_EQ(Entries(l), (Model{3, 1, 3}));
  EXPECT_EQ(l.Insert(&l, 1), 0);  // [3] + (3,1,3 not among [3]) + (1,3 not present)
  EXPECT_EQ(Entries(l), (Model{3, 1}));
  EXPECT_EQ(l.Remove(&l), 0);
  EXPECT_EQ(l.Count(), 0);
  EXPECT_EQ(l.Copy(nullptr), 0);

  // Sort hands the caller's context to the compare procedure.
  Load(l, {5, -3, 9, 0, 5, 2});
  int down = 1;
  l.Sort(&down, reinterpret_cast<void*>(&ByContext));
  EXPECT_EQ(Entries(l), (Model{9, 5, 5, 2, 0, -3}));
}

// Random operations on two lists, checked after each one against vectors.
TEST_F(RNListTest, RandomOperationsMatchAModel) {
  std::mt19937 rng(4711);
  RNList lists[2];
  Model models[2];
  auto value = [&] { return static_cast<int>(rng() % 12) - 2; };
  for (int step = 0; step < 4000; ++step) {
    const int which = static_cast<int>(rng() % 2);
    RNList& l = lists[which];
    Model& m = models[which];
    RNList& o = lists[1 - which];
    Model& om = models[1 - which];
    const int count = static_cast<int>(m.size());
    const int op = static_cast<int>(rng() % 14);
    SCOPED_TRACE(::testing::Message() << "step " << step << " op " << op);
    switch (op) {
      case 0:
      case 1: {
        const int v = value();
        ASSERT_EQ(l.Add(v), 0);
        if (!Holds(m, v)) m.push_back(v);
        break;
      }
      case 2:
      case 3: {
        const int v = value();
        const int at = static_cast<int>(rng() % (count + 1));
        ASSERT_EQ(l.Ins(v, at), 0);
        m.insert(m.begin() + at, v);
        break;
      }
      case 4: {
        const int v = value();
        const int removed = static_cast<int>(std::count(m.begin(), m.end(), v));
        ASSERT_EQ(l.Del(v), removed);
        m.erase(std::remove(m.begin(), m.end(), v), m.end());
        break;
      }
      case 5: {
        const int v = value();
        const auto it = std::find(m.begin(), m.end(), v);
        ASSERT_EQ(l.Find(v), it == m.end() ? -1 : static_cast<int>(it - m.begin()));
        break;
      }
      case 6:
        if (count > 0) {
          const int i = static_cast<int>(rng() % count);
          const int v = value();
          ASSERT_EQ(l.Set(i, v), m[i]);
          m[i] = v;
        }
        break;
      case 7: {
        const int i = static_cast<int>(rng() % (count + 3)) - 1;
        ASSERT_EQ(l.Enum(i), i >= 0 && i < count ? m[i] : 0);
        break;
      }
      case 8:
        ASSERT_EQ(l.Append(&o), 0);
        ModelAppend(m, om);
        break;
      case 9:
        ASSERT_EQ(l.Remove(&o), 0);
        ModelRemove(m, om);
        break;
      case 10: {
        const int at = static_cast<int>(rng() % (om.size() + 3)) - 1;
        ASSERT_EQ(l.Insert(&o, at), 0);
        ModelInsert(m, om, at);
        break;
      }
      case 11:
        if (rng() % 4 == 0) {
          ASSERT_EQ(l.Copy(&o), 0);
          om = m;
        }
        break;
      case 12:
        l.Sort(nullptr, reinterpret_cast<void*>(&Ascending));
        std::sort(m.begin(), m.end());
        break;
      case 13:
        if (count > 40) {
          const int n = static_cast<int>(rng() % 10);
          ASSERT_EQ(l.Alloc(n), 0);
          m.resize(n);
        } else if (rng() % 8 == 0) {
          const int v = value();
          ASSERT_EQ(l.One(v), 0);
          m = Model{v};
        }
        break;
    }
    ASSERT_EQ(Entries(lists[0]), models[0]);
    ASSERT_EQ(Entries(lists[1]), models[1]);
  }
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
