// The model test of the hashed dictionaries (TDict, TDict64): random
// Define/Undefine/Lookup checked against std::unordered_map.
//
// Each dictionary's model is its live map and the set of its tombstones
// (keys undefined since the last rehash; a rehash leaves deleted at 0). A
// lookup walks the chain of models: a live entry answers; a tombstone in the
// key's home slot asks the parent; a tombstone elsewhere answers 0.
#ifndef QUARNEL_TESTS_SUPPORT_DICT_MODEL_H_
#define QUARNEL_TESTS_SUPPORT_DICT_MODEL_H_

#include <gtest/gtest.h>

#include <random>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

// Every live (key, value) of a dictionary in iteration order.
template <class Iter, class Dict>
auto WalkDict(Dict& d) {
  std::vector<std::pair<decltype(Iter(d).Key()), decltype(Iter(d).Data())>> out;
  for (Iter it(d); it; ++it) {
    out.emplace_back(it.Key(), it.Data());
    if (out.size() > 20'000'000) break;
  }
  return out;
}

template <class Dict, class Iter>
struct DictModel {
  using K = decltype(std::declval<Iter&>().Key());
  using V = decltype(std::declval<Iter&>().Data());

  explicit DictModel(Dict* d) : dict(d), lastSize(d->Shape().size) {}

  // The home slot: the middle bits of the key's square.
  unsigned Home(K key) const {
    const auto k = static_cast<std::make_unsigned_t<K>>(key);
    const TDictShape s = dict->Shape();
    return static_cast<unsigned>(static_cast<decltype(k)>(k * k) >> s.shift) & s.mask;
  }

  V Expected(K key) const {
    for (const DictModel* m = this; m != nullptr; m = m->parent) {
      if (key == 0) {
        if (m->nullValue != 0) return m->nullValue;
        continue;
      }
      auto it = m->live.find(key);
      if (it != m->live.end()) return it->second;
      if (m->tombs.count(key) != 0 && m->dict->Slots()[m->Home(key)].key != key) return 0;
    }
    return 0;
  }

  void Define(K key, V value) {
    dict->Define(key, value);
    if (key == 0) {
      nullValue = value;
    } else if (value == 0) {
      if (live.erase(key) != 0) tombs.insert(key);
    } else {
      tombs.erase(key);
      live[key] = value;
    }
  }

  void Undefine(K key) {
    dict->Undefine(key);
    if (key == 0) {
      nullValue = 0;
    } else if (live.erase(key) != 0) {
      tombs.insert(key);
    }
  }

  void Settle() {
    const TDictShape s = dict->Shape();
    if (s.deleted == 0) tombs.clear();
    ASSERT_EQ(static_cast<int>(tombs.size()), s.deleted);
    ASSERT_EQ(s.used - s.deleted, static_cast<int>(live.size()));
    if (s.size != lastSize) ++rehashes;
    lastSize = s.size;
  }

  void FullCheck() const {
    ASSERT_EQ(dict->GetCount(), static_cast<int>(live.size()) + (nullValue != 0 ? 1 : 0));
    const auto walk = WalkDict<Iter>(*dict);
    std::size_t first = 0;
    if (nullValue != 0) {
      ASSERT_FALSE(walk.empty());
      ASSERT_EQ(walk[0], std::make_pair(K{0}, nullValue));
      first = 1;
    }
    ASSERT_EQ(walk.size() - first, live.size());
    for (std::size_t i = first; i < walk.size(); ++i) {
      auto it = live.find(walk[i].first);
      ASSERT_TRUE(it != live.end()) << walk[i].first;
      ASSERT_EQ(it->second, walk[i].second);
      // Iteration and indexed access agree on the order.
      const int index = static_cast<int>(i - first);
      if (index % 97 == 0) {
        ASSERT_EQ(dict->GetIndKey(index), walk[i].first);
        ASSERT_EQ(dict->LookupKeydex(walk[i].first), index);
      }
    }
    ASSERT_EQ(dict->GetIndData(static_cast<int>(live.size())), nullValue);
  }

  Dict* dict;
  std::unordered_map<K, V> live;
  std::unordered_set<K> tombs;
  V nullValue = 0;
  DictModel* parent = nullptr;
  int rehashes = 0;
  int lastSize;
};

struct DictModelRun {
  const char* name;
  int ops;
  int ordered;       // of the dictionary under test
  int initial;       // constructor size
  bool withParents;  // a grandparent and a parent behind the dictionary
  bool checkSize;    // the capacity must never change (ordered exactness)
};

// Random operations on keys of `pool` (and key 0) against the models, after
// the `permanent` keys are defined once and never changed. Unless the size
// is checked, the capacity must go up and down: the define share swings
// between growing and shrinking every 20,000 operations.
template <class Dict, class Iter, class K>
void RunDictModel(const DictModelRun& c, const std::vector<K>& pool,
                  const std::vector<K>& permanent, unsigned seed) {
  using Model = DictModel<Dict, Iter>;
  using V = typename Model::V;
  std::mt19937_64 rng(seed);
  Dict grand(0, 0), parent(300, 0), dict(c.initial, c.ordered);
  Model mg(&grand), mp(&parent), md(&dict);
  if (c.withParents) {
    parent.SetParent(&grand);
    dict.SetParent(&parent);
    mp.parent = &mg;
    md.parent = &mp;
  }
  for (K k : permanent) md.Define(k, static_cast<V>(k ^ 0x5A5A));
  Model* models[] = {&md, &mp, &mg};
  const int targets = c.withParents ? 3 : 1;

  int defineBias = 70;
  for (int op = 0; op < c.ops; ++op) {
    if (op % 20000 == 0) defineBias = defineBias == 70 ? 35 : 70;
    Model& m = *models[rng() % targets];
    const K key = rng() % 200 == 0 ? 0 : pool[rng() % pool.size()];
    const unsigned what = rng() % 100;
    if (what < 40) {
      // Lookup: from the dictionary under test or from a parent; also the
      // permanent keys and keys never defined.
      const Model& from = *models[rng() % targets];
      K k = key;
      if (rng() % 8 == 0 && !permanent.empty()) k = permanent[rng() % permanent.size()];
      if (rng() % 16 == 0) k = static_cast<K>(rng()) | 1;
      ASSERT_EQ(from.dict->Lookup(k), from.Expected(k)) << c.name << " op " << op << " key " << k;
      continue;
    }
    if (static_cast<int>(what) < 40 + defineBias * 60 / 100) {
      m.Define(key, rng() % 7 == 0 ? V{0} : static_cast<V>(rng()));
    } else {
      m.Undefine(key);
    }
    ASSERT_NO_FATAL_FAILURE(m.Settle()) << c.name << " op " << op;
    if (c.checkSize && m.dict == &dict) {
      ASSERT_EQ(dict.Shape().size, c.initial < 0 ? -c.initial : 127);
    }
    if (op % 1000 == 0) {
      for (int t = 0; t < targets; ++t) ASSERT_NO_FATAL_FAILURE(models[t]->FullCheck()) << c.name;
    }
  }
  for (int t = 0; t < targets; ++t) ASSERT_NO_FATAL_FAILURE(models[t]->FullCheck()) << c.name;
  if (!c.checkSize) {
    EXPECT_GT(md.rehashes, 4) << c.name;  // the capacity went up and down
  }
}

#endif  // QUARNEL_TESTS_SUPPORT_DICT_MODEL_H_
