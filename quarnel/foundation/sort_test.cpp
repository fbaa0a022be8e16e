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
  // Sorts records of the given keys with `proc` and checks the result
  // against a stable sort of the original positions.
  static void CheckAgainstModel(SortProc proc, unsigned size,
                                const std::vector<unsigned char>& keys) {
    const auto count = static_cast<unsigned>(keys.size());
    SCOPED_TRACE(::testing::Message() << "size " << size << ", count " << count);
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

// Random keys (few values, so ties are common), and keys already sorted,
// reversed and all equal.
TEST_F(SortTest, StableForEveryRecordSizeAndCount) {
  std::mt19937 rng(20240611);
  const unsigned sizes[] = {1, 3, 4, 12, 40, 300};
  const unsigned counts[] = {0, 1, 2, 3, 7, 8, 9, 16, 17, 100, 1000, 4099};
  for (SortProc proc : {Sort, quarnel_internal::SortInPlace}) {
    for (unsigned size : sizes) {
      for (unsigned count : counts) {
        if (size >= 40 && count > 1000) continue;  // keeps the in-place runs short
        std::vector<unsigned char> keys(count);
        std::uniform_int_distribution<int> key(0, count < 20 ? 3 : 40);
        for (auto& k : keys) k = static_cast<unsigned char>(key(rng));
        CheckAgainstModel(proc, size, keys);
      }
    }
    for (int shape = 0; shape < 3; ++shape) {
      std::vector<unsigned char> keys(3000);
      for (int i = 0; i < 3000; ++i)
        keys[i] = static_cast<unsigned char>(shape == 0 ? i / 12 : shape == 1 ? 250 - i / 12 : 7);
      CheckAgainstModel(proc, 4, keys);
    }
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(SortTest, RefusedBufferFallsBackToMergingInPlace) {
  // A buffer above 1 MiB lives in virtual memory, which is refused here.
  std::mt19937 rng(7);
  std::vector<unsigned char> keys(90000);
  for (auto& k : keys) k = static_cast<unsigned char>(rng() % 41);
  UFailCall(UCall::kVirtualReserve, 1, 8, -1);
  UFailCall(UCall::kVirtualCommit, 1, 8, -1);
  CheckAgainstModel(Sort, 12, keys);
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
