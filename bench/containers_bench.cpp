// RNList and TList beside the standard containers a user would pick instead,
// and TMonitor beside std::recursive_mutex. Each container holds 10,000
// items.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "quarnel/containers/rnlist.h"
#include "quarnel/containers/tlist.h"
#include "quarnel/containers/tmonitor.h"

namespace {

constexpr int kItems = 10000;
constexpr int kProbes = 100;  // Find looks for this many items spread over the container

int Probe(int i) { return (i * kItems) / kProbes + 37; }

// ---- RNList::Add (a set: appends only what is absent) ----

void BM_RNListAdd(benchmark::State& state) {
  for (auto _ : state) {
    RNList l;
    for (int i = 0; i < kItems; ++i) l.Add(i);
    benchmark::DoNotOptimize(l.Count());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_RNListAdd);

void BM_VectorAddUnique(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<int> v;
    for (int i = 0; i < kItems; ++i) {
      if (std::find(v.begin(), v.end(), i) == v.end()) v.push_back(i);
    }
    benchmark::DoNotOptimize(v.size());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_VectorAddUnique);

void BM_ListAddUnique(benchmark::State& state) {
  for (auto _ : state) {
    std::list<int> l;
    for (int i = 0; i < kItems; ++i) {
      if (std::find(l.begin(), l.end(), i) == l.end()) l.push_back(i);
    }
    benchmark::DoNotOptimize(l.size());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_ListAddUnique);

// ---- RNList::Find ----

void BM_RNListFind(benchmark::State& state) {
  RNList l;
  l.Alloc(kItems);
  for (int i = 0; i < kItems; ++i) l[i] = i;
  for (auto _ : state) {
    int sum = 0;
    for (int p = 0; p < kProbes; ++p) sum += l.Find(Probe(p));
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_RNListFind);

void BM_VectorFind(benchmark::State& state) {
  std::vector<int> v(kItems);
  for (int i = 0; i < kItems; ++i) v[i] = i;
  for (auto _ : state) {
    std::ptrdiff_t sum = 0;
    for (int p = 0; p < kProbes; ++p) sum += std::find(v.begin(), v.end(), Probe(p)) - v.begin();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_VectorFind);

void BM_ListFind(benchmark::State& state) {
  std::list<int> l;
  for (int i = 0; i < kItems; ++i) l.push_back(i);
  for (auto _ : state) {
    std::ptrdiff_t sum = 0;
    for (int p = 0; p < kProbes; ++p) {
      sum += std::distance(l.begin(), std::find(l.begin(), l.end(), Probe(p)));
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_ListFind);

// ---- TList: append, find, remove-first ----

void BM_TListAppend(benchmark::State& state) {
  for (auto _ : state) {
    TList l;
    for (int i = 0; i < kItems; ++i) l.AddLast(i);
    benchmark::DoNotOptimize(l.Count());
    state.PauseTiming();
    l.Clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_TListAppend);

void BM_VectorAppend(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::intptr_t> v;
    for (int i = 0; i < kItems; ++i) v.push_back(i);
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_VectorAppend);

void BM_ListAppend(benchmark::State& state) {
  for (auto _ : state) {
    std::list<std::intptr_t> l;
    for (int i = 0; i < kItems; ++i) l.push_back(i);
    benchmark::DoNotOptimize(l.size());
    state.PauseTiming();
    l.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_ListAppend);

void BM_TListFind(benchmark::State& state) {
  TList l;
  for (int i = 0; i < kItems; ++i) l.AddLast(i);
  for (auto _ : state) {
    int sum = 0;
    for (int p = 0; p < kProbes; ++p) sum += l.Find(Probe(p));
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_TListFind);

void BM_VectorFindIntptr(benchmark::State& state) {
  std::vector<std::intptr_t> v(kItems);
  for (int i = 0; i < kItems; ++i) v[i] = i;
  for (auto _ : state) {
    std::ptrdiff_t sum = 0;
    for (int p = 0; p < kProbes; ++p) {
      sum += std::find(v.begin(), v.end(), std::intptr_t{Probe(p)}) - v.begin();
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_VectorFindIntptr);

void BM_ListFindIntptr(benchmark::State& state) {
  std::list<std::intptr_t> l;
  for (int i = 0; i < kItems; ++i) l.push_back(i);
  for (auto _ : state) {
    std::ptrdiff_t sum = 0;
    for (int p = 0; p < kProbes; ++p) {
      sum += std::distance(l.begin(), std::find(l.begin(), l.end(), std::intptr_t{Probe(p)}));
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}
BENCHMARK(BM_ListFindIntptr);

void BM_TListRemoveFirst(benchmark::State& state) {
  TList l;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kItems; ++i) l.AddLast(i);
    state.ResumeTiming();
    std::intptr_t sum = 0;
    while (!l.IsEmpty()) sum += l.RemoveFirst();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_TListRemoveFirst);

void BM_VectorRemoveFirst(benchmark::State& state) {
  std::vector<std::intptr_t> v;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kItems; ++i) v.push_back(i);
    state.ResumeTiming();
    std::intptr_t sum = 0;
    while (!v.empty()) {
      sum += v.front();
      v.erase(v.begin());
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_VectorRemoveFirst);

void BM_ListRemoveFirst(benchmark::State& state) {
  std::list<std::intptr_t> l;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kItems; ++i) l.push_back(i);
    state.ResumeTiming();
    std::intptr_t sum = 0;
    while (!l.empty()) {
      sum += l.front();
      l.pop_front();
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_ListRemoveFirst);

// ---- TMonitor, uncontended ----

void BM_TMonitorEnterExit(benchmark::State& state) {
  TMonitor m;
  for (auto _ : state) {
    m.Enter();
    m.Exit();
  }
}
BENCHMARK(BM_TMonitorEnterExit);

void BM_RecursiveMutexLockUnlock(benchmark::State& state) {
  std::recursive_mutex m;
  for (auto _ : state) {
    m.lock();
    m.unlock();
  }
}
BENCHMARK(BM_RecursiveMutexLockUnlock);

}  // namespace
