// MemAlloc/MemFree beside malloc/free, for blocks of 16 to 4096 bytes. Each
// iteration allocates a batch of blocks and frees them, so that both sides
// pay for the same mix of allocation and release.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "quarnel/foundation/memutil.h"

namespace {

constexpr int kBatch = 64;

void BM_MemAllocFree(benchmark::State& state) {
  const unsigned size = static_cast<unsigned>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (void*& p : blocks) p = MemAlloc(size);
    benchmark::DoNotOptimize(blocks);
    for (void* p : blocks) MemFree(p);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// The peer: calloc, since MemAlloc hands out zero-filled blocks.
void BM_CallocFree(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (void*& p : blocks) p = std::calloc(1, size);
    benchmark::DoNotOptimize(blocks);
    for (void* p : blocks) std::free(p);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_MallocFree(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (void*& p : blocks) p = std::malloc(size);
    benchmark::DoNotOptimize(blocks);
    for (void* p : blocks) std::free(p);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (int size = 16; size <= 4096; size *= 4) b->Arg(size);
}

}  // namespace

BENCHMARK(BM_MemAllocFree)->Apply(Sizes);
BENCHMARK(BM_CallocFree)->Apply(Sizes);
BENCHMARK(BM_MallocFree)->Apply(Sizes);
