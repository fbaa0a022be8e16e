// The integer dictionaries beside std::unordered_map and absl::flat_hash_map,
// and ElementSpace beside std::vector<std::string>.
//
// Dictionaries: lookups that hit, lookups that miss, and Define/Undefine
// pairs at a steady size, with 200, 2,000 and 500,000 random keys (the usual
// case: the table's home slot comes from the middle bits of the key's square,
// so small sequential keys crowd into few homes; BM_*_Sequential shows that
// case too). ElementSpace: add, read and remove 100,000 elements of 8 to 512
// bytes.
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "quarnel/containers/elementspace.h"
#include "quarnel/containers/tdict.h"
#include "quarnel/containers/tdict64.h"
#include "quarnel/resources/resmgr.h"

namespace {

template <class K>
struct Keys {
  std::vector<K> present;  // in the dictionary
  std::vector<K> absent;   // never in it
};

template <class K>
Keys<K> MakeKeys(int n, bool sequential) {
  std::mt19937_64 rng(42);
  Keys<K> k;
  std::unordered_set<K> seen;
  while (static_cast<int>(k.present.size()) < n) {
    const K key = sequential ? static_cast<K>(k.present.size() + 1) : static_cast<K>(rng());
    if (key != 0 && seen.insert(key).second) k.present.push_back(key);
  }
  while (static_cast<int>(k.absent.size()) < 4096) {
    const K key = sequential ? static_cast<K>(n + 1 + k.absent.size()) : static_cast<K>(rng());
    if (key != 0 && seen.insert(key).second) k.absent.push_back(key);
  }
  std::shuffle(k.present.begin(), k.present.end(), rng);
  return k;
}

// One interface over the three maps.
template <class K>
struct QuarnelMap;
template <>
struct QuarnelMap<int> {
  TDict d{0, 0};
  void Put(int k, int v) { d.Define(k, v); }
  void Erase(int k) { d.Undefine(k); }
  int Get(int k) { return d.Lookup(k); }
};
template <>
struct QuarnelMap<std::uint64_t> {
  TDict64 d{0, 0};
  void Put(std::uint64_t k, std::uint64_t v) { d.Define(k, v); }
  void Erase(std::uint64_t k) { d.Undefine(k); }
  std::uint64_t Get(std::uint64_t k) { return d.Lookup(k); }
};

template <class K>
struct StdMap {
  std::unordered_map<K, K> m;
  void Put(K k, K v) { m[k] = v; }
  void Erase(K k) { m.erase(k); }
  K Get(K k) {
    auto it = m.find(k);
    return it == m.end() ? 0 : it->second;
  }
};

template <class K>
struct AbslMap {
  absl::flat_hash_map<K, K> m;
  void Put(K k, K v) { m[k] = v; }
  void Erase(K k) { m.erase(k); }
  K Get(K k) {
    auto it = m.find(k);
    return it == m.end() ? 0 : it->second;
  }
};

template <class M, class K, bool kSequential = false>
void BM_LookupHit(benchmark::State& state) {
  const Keys<K> keys = MakeKeys<K>(static_cast<int>(state.range(0)), kSequential);
  M map;
  for (K k : keys.present) map.Put(k, k | 1);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.Get(keys.present[i]));
    if (++i == keys.present.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

template <class M, class K, bool kSequential = false>
void BM_LookupMiss(benchmark::State& state) {
  const Keys<K> keys = MakeKeys<K>(static_cast<int>(state.range(0)), kSequential);
  M map;
  for (K k : keys.present) map.Put(k, k | 1);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.Get(keys.absent[i]));
    if (++i == keys.absent.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

// A Define and an Undefine of a key not held, at a steady size.
template <class M, class K>
void BM_DefineUndefine(benchmark::State& state) {
  const Keys<K> keys = MakeKeys<K>(static_cast<int>(state.range(0)), false);
  M map;
  for (K k : keys.present) map.Put(k, k | 1);
  std::size_t i = 0;
  for (auto _ : state) {
    const K k = keys.absent[i];
    map.Put(k, 7);
    map.Erase(k);
    if (++i == keys.absent.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (int n : {200, 2000, 500000}) b->Arg(n);
}

using I = int;
using L = std::uint64_t;

BENCHMARK(BM_LookupHit<QuarnelMap<I>, I>)->Apply(Sizes)->Name("TDict_LookupHit");
BENCHMARK(BM_LookupHit<StdMap<I>, I>)->Apply(Sizes)->Name("unordered_map_LookupHit");
BENCHMARK(BM_LookupHit<AbslMap<I>, I>)->Apply(Sizes)->Name("flat_hash_map_LookupHit");
BENCHMARK(BM_LookupMiss<QuarnelMap<I>, I>)->Apply(Sizes)->Name("TDict_LookupMiss");
BENCHMARK(BM_LookupMiss<StdMap<I>, I>)->Apply(Sizes)->Name("unordered_map_LookupMiss");
BENCHMARK(BM_LookupMiss<AbslMap<I>, I>)->Apply(Sizes)->Name("flat_hash_map_LookupMiss");
BENCHMARK(BM_DefineUndefine<QuarnelMap<I>, I>)->Apply(Sizes)->Name("TDict_DefineUndefine");
BENCHMARK(BM_DefineUndefine<StdMap<I>, I>)->Apply(Sizes)->Name("unordered_map_InsertErase");
BENCHMARK(BM_DefineUndefine<AbslMap<I>, I>)->Apply(Sizes)->Name("flat_hash_map_InsertErase");
BENCHMARK(BM_LookupHit<QuarnelMap<I>, I, true>)->Arg(2000)->Name("TDict_LookupHit_Sequential");
BENCHMARK(BM_LookupHit<StdMap<I>, I, true>)->Arg(2000)->Name("unordered_map_LookupHit_Sequential");
BENCHMARK(BM_LookupHit<AbslMap<I>, I, true>)->Arg(2000)->Name("flat_hash_map_LookupHit_Sequential");

BENCHMARK(BM_LookupHit<QuarnelMap<L>, L>)->Apply(Sizes)->Name("TDict64_LookupHit");
BENCHMARK(BM_LookupHit<StdMap<L>, L>)->Apply(Sizes)->Name("unordered_map64_LookupHit");
BENCHMARK(BM_LookupHit<AbslMap<L>, L>)->Apply(Sizes)->Name("flat_hash_map64_LookupHit");
BENCHMARK(BM_LookupMiss<QuarnelMap<L>, L>)->Apply(Sizes)->Name("TDict64_LookupMiss");
BENCHMARK(BM_LookupMiss<StdMap<L>, L>)->Apply(Sizes)->Name("unordered_map64_LookupMiss");
BENCHMARK(BM_LookupMiss<AbslMap<L>, L>)->Apply(Sizes)->Name("flat_hash_map64_LookupMiss");
BENCHMARK(BM_DefineUndefine<QuarnelMap<L>, L>)->Apply(Sizes)->Name("TDict64_DefineUndefine");
BENCHMARK(BM_DefineUndefine<StdMap<L>, L>)->Apply(Sizes)->Name("unordered_map64_InsertErase");
BENCHMARK(BM_DefineUndefine<AbslMap<L>, L>)->Apply(Sizes)->Name("flat_hash_map64_InsertErase");

// ---------------------------------------------------------------------------
// ElementSpace: 100,000 elements of 8 to 512 bytes added, each read once,
// then all removed (in a shuffled order).

constexpr int kElements = 100000;

// The unit letters that the compression report's %K reads from list 16000,
// which a host normally has from its resource module.
const unsigned char kUnitList[] = {10,  0,   'K', 'M', 'k', 'm',  'K',
                                   'M', 'G', 'k', 'm', 'g', 0xFF, 0xFF};
[[maybe_unused]] const int kListInstalled = RMAddHostKList(16000, kUnitList, sizeof kUnitList);

struct Payloads {
  std::vector<std::string> data;
  std::vector<int> order;  // removal order, 0-based
  Payloads() {
    std::mt19937 rng(7);
    for (int i = 0; i < kElements; ++i) {
      data.emplace_back(8 + rng() % 505, static_cast<char>('a' + i % 26));
      order.push_back(i);
    }
    std::shuffle(order.begin(), order.end(), rng);
  }
};

const Payloads& TheData() {
  static const Payloads p;
  return p;
}

void BM_ElementSpace(benchmark::State& state) {
  const Payloads& p = TheData();
  for (auto _ : state) {
    ElementSpace es(0, 0);
    for (const std::string& s : p.data) es.LmAdd(s.data(), static_cast<int>(s.size()));
    unsigned sum = 0;
    for (int r = 1; r <= kElements; ++r)
      sum += static_cast<unsigned char>(es.LmGet(r)[es.LmSize(r) - 1]);
    benchmark::DoNotOptimize(sum);
    for (int i : p.order) es.LmRemove(i + 1);
  }
  state.SetItemsProcessed(state.iterations() * kElements * 3);
}

void BM_VectorOfStrings(benchmark::State& state) {
  const Payloads& p = TheData();
  for (auto _ : state) {
    std::vector<std::string> v;
    for (const std::string& s : p.data) v.emplace_back(s.data(), s.size());
    unsigned sum = 0;
    for (int r = 0; r < kElements; ++r) sum += static_cast<unsigned char>(v[r][v[r].size() - 1]);
    benchmark::DoNotOptimize(sum);
    // Removal keeps the indexes of the others, as refnums do.
    for (int i : p.order) std::string().swap(v[i]);
  }
  state.SetItemsProcessed(state.iterations() * kElements * 3);
}

BENCHMARK(BM_ElementSpace)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorOfStrings)->Unit(benchmark::kMillisecond);

}  // namespace
