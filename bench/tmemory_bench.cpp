// TMemory and TQueue beside the standard containers a user would pick instead.
//
// Growth: a block grown from 0 to 256 MiB in 4 KiB steps, each new byte
// written, beside a std::vector<unsigned char> grown the same way.
//
// Transfer: one producer and one consumer thread move 4 KiB items through a
// 1 MiB TQueue, beside a std::deque<unsigned char> of the same capacity
// guarded by a std::mutex. The volume per iteration is the benchmark's
// argument in MiB. The round trips do the same calls on one thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "quarnel/containers/tqueue.h"
#include "quarnel/foundation/tmemory.h"

namespace {

constexpr unsigned kStep = 4096;
constexpr unsigned kGrowTo = 256u << 20;
constexpr unsigned kQueueCapacity = 1u << 20;
constexpr unsigned kItem = 4096;

void BM_TMemoryGrow(benchmark::State& state) {
  for (auto _ : state) {
    TMemory m;
    for (unsigned size = kStep; size <= kGrowTo; size += kStep) {
      if (m.SetSize(size) != 0) {
        state.SkipWithError("SetSize failed");
        return;
      }
      std::memset(m.MemPtr() + size - kStep, static_cast<int>(size >> 12), kStep);
    }
    benchmark::DoNotOptimize(m.MemPtr());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kGrowTo);
}

void BM_VectorGrow(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<unsigned char> v;
    for (unsigned size = kStep; size <= kGrowTo; size += kStep) {
      v.resize(size);
      std::memset(v.data() + size - kStep, static_cast<int>(size >> 12), kStep);
    }
    benchmark::DoNotOptimize(v.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kGrowTo);
}

// Each side answers whether the item could be added or taken.
template <class Queue>
void Transfer(benchmark::State& state, Queue& queue) {
  const std::uint64_t items = (static_cast<std::uint64_t>(state.range(0)) << 20) / kItem;
  std::vector<unsigned char> in(kItem), out(kItem);
  for (unsigned i = 0; i < kItem; ++i) in[i] = static_cast<unsigned char>(i * 13);
  for (auto _ : state) {
    std::thread producer([&] {
      for (std::uint64_t n = 0; n < items;) {
        if (queue.Add(in.data())) {
          ++n;
        } else {
          std::this_thread::yield();
        }
      }
    });
    std::uint64_t sum = 0;
    for (std::uint64_t n = 0; n < items;) {
      if (queue.Take(out.data())) {
        sum += out[n % kItem];
        ++n;
      } else {
        std::this_thread::yield();
      }
    }
    producer.join();
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * items * kItem));
}

struct LibraryQueue {
  TQueue queue{static_cast<int>(kQueueCapacity)};
  bool Add(const unsigned char* p) { return queue.AddToEnd(p, kItem) == 0; }
  bool Take(unsigned char* p) { return queue.GetFromFront(p, kItem) == 0; }
};

struct DequeQueue {
  std::mutex lock;
  std::deque<unsigned char> bytes;
  bool Add(const unsigned char* p) {
    std::lock_guard<std::mutex> hold(lock);
    if (bytes.size() + kItem > kQueueCapacity) return false;
    bytes.insert(bytes.end(), p, p + kItem);
    return true;
  }
  bool Take(unsigned char* p) {
    std::lock_guard<std::mutex> hold(lock);
    if (bytes.size() < kItem) return false;
    std::copy(bytes.begin(), bytes.begin() + kItem, p);
    bytes.erase(bytes.begin(), bytes.begin() + kItem);
    return true;
  }
};

// One thread fills the queue with 64 items and empties it again: the cost of
// the calls themselves, without the scheduling of two threads.
template <class Queue>
void RoundTrip(benchmark::State& state, Queue& queue) {
  std::vector<unsigned char> in(kItem, 0x5A), out(kItem);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (int i = 0; i < 64; ++i) queue.Add(in.data());
    for (int i = 0; i < 64; ++i) {
      queue.Take(out.data());
      sum += out[static_cast<unsigned>(i) * 61];
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * kItem);
}

void BM_TQueueRoundTrip(benchmark::State& state) {
  LibraryQueue queue;
  RoundTrip(state, queue);
}

void BM_MutexDequeRoundTrip(benchmark::State& state) {
  DequeQueue queue;
  RoundTrip(state, queue);
}

void BM_TQueueTransfer(benchmark::State& state) {
  LibraryQueue queue;
  Transfer(state, queue);
}

void BM_MutexDequeTransfer(benchmark::State& state) {
  DequeQueue queue;
  Transfer(state, queue);
}

}  // namespace

BENCHMARK(BM_TMemoryGrow)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorGrow)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TQueueRoundTrip);
BENCHMARK(BM_MutexDequeRoundTrip);
BENCHMARK(BM_TQueueTransfer)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MutexDequeTransfer)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();
