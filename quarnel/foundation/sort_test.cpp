#include "quarnel/foundation/sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "quarnel/platform/faults.h"
#include "tests/support/recording_hooks.h"

namespace {

using SortProc = void (*)(void*, unsigned, unsigned, void*, SortCompareProc);

// Records of `size` bytes: byte 0 is the key (few values, so ties are
// common), then as much of the original position as fits, then filler.
struct Layout {
  unsigned size;
  std::vector<unsigned char> Make(const std::vector<unsigned char>& keys) const {
    std::vector<unsigned char> out(keys.size() * size);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      unsigned char* r = &out[i * size];
      r[0] = keys[i];
      for (unsigned b = 1; b < size; ++b) {
        r[b] = b <= 4 ? static_cast<unsigned char>(i >> (8 * (b - 1)))
                      : static_cast<unsigned char>(i * 31 + b);
      }
    }
    return out;
  }
};

struct Counter {
  int calls = 0;
};

int CompareKeys(void* context, const void* a, const void* b) {
  ++static_cast<Counter*>(context)->calls;
  return static_cast<int>(*static_cast<const unsigned char*>(a)) -
         static_cast<int>(*static_cast<const unsigned char*>(b));
}

class SortTest : public RecordingTest {
 protected:
  // Sorts random records with `proc` and checks the result against a stable
  // sort of the original positions.
  static void CheckAgainstModel(SortProc proc, unsigned size, unsigned count, std::mt19937& rng) {
    SCOPED_TRACE(::testing::Message() << "size " << size << ", count " << count);
    std::vector<unsigned char> keys(count);
    std::uniform_int_distribution<int> key(0, count < 20 ? 3 : 40);
    for (auto& k : keys) k = static_cast<unsigned char>(key(rng));
    const Layout layout{size};
    const std::vector<unsigned char> original = layout.Make(keys);
    std::vector<unsigned char> records = original;

    std::vector<std::size_t> order(count);
    for (std::size_t i = 0; i < count; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
    std::vector<unsigned char> expected(records.size());
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(&expected[i * size], &original[order[i] * size], size);
    }

    Counter counter;
    proc(records.data(), count, size, &counter, CompareKeys);
    ASSERT_EQ(records, expected);
    if (count < 2) {
      EXPECT_EQ(counter.calls, 0);
    }
  }
};

TEST_F(SortTest, StableForEveryRecordSizeAndCount) {
  std::mt19937 rng(20240611);
  const unsigned sizes[] = {1, 3, 4, 12, 40, 300};
  const unsigned counts[] = {0, 1, 2, 3, 7, 8, 9, 16, 17, 100, 1000, 4099};
  const SortProc procs[] = {Sort, quarnel_internal::SortInPlace};
  for (SortProc proc : procs) {
    for (unsigned size : sizes) {
      for (unsigned count : counts) {
        if (size >= 40 && count > 1000) continue;  // keeps the in-place runs short
        CheckAgainstModel(proc, size, count, rng);
      }
    }
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(SortTest, SortedReversedAndConstantInputs) {
  const SortProc procs[] = {Sort, quarnel_internal::SortInPlace};
  for (SortProc proc : procs) {
    for (int shape = 0; shape < 3; ++shape) {
      SCOPED_TRACE(shape);
      std::vector<int> v(3000);
      for (int i = 0; i < 3000; ++i) v[i] = shape == 0 ? i : shape == 1 ? 3000 - i : 7;
      std::vector<int> expected = v;
      std::sort(expected.begin(), expected.end());
      proc(v.data(), static_cast<unsigned>(v.size()), sizeof(int), nullptr,
           [](void*, const void* a, const void* b) {
             const int x = *static_cast<const int*>(a);
             const int y = *static_cast<const int*>(b);
             return x < y ? -1 : x > y ? 1 : 0;
           });
      EXPECT_EQ(v, expected);
    }
  }
}

TEST_F(SortTest, RefusedBufferFallsBackToMergingInPlace) {
  // A buffer above 1 MiB lives in virtual memory, which is refused here.
  std::mt19937 rng(7);
  UFailCall(UCall::kVirtualReserve, 1, 8, -1);
  UFailCall(UCall::kVirtualCommit, 1, 8, -1);
  CheckAgainstModel(Sort, 12, 90000, rng);
  UClearFaults();
  EXPECT_FALSE(Lines().empty());  // the memory said why it refused
}

TEST_F(SortTest, MisuseAssertsAndSortsNothing) {
  int v[3] = {3, 1, 2};
  Sort(v, 3, sizeof(int), nullptr, nullptr);
  Counter counter;
  Sort(nullptr, 5, sizeof(int), &counter, CompareKeys);
  Sort(nullptr, 1, sizeof(int), &counter, CompareKeys);  // nothing to sort: no assertion
  Sort(v, 3, 0, &counter, CompareKeys);
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"sort", 40, ""}, {"sort", 41, ""}}));
  EXPECT_EQ(counter.calls, 0);
  EXPECT_EQ(v[0], 3);
}

}  // namespace
