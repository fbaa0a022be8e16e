#include "quarnel/containers/tqueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "tests/support/helpers.h"

namespace {

class TQueueTest : public RecordingTest {};

Bytes Take(TQueue& q, unsigned n) {
  Bytes out(n);
  EXPECT_EQ(q.GetFromFront(out.data(), n), 0);
  return out;
}

// The model test checks where the bytes sit, across wraps and growth; these
// pin shrinking, Reset and a queue without storage.
TEST_F(TQueueTest, ShrinkResetAndNoStorage) {
  TQueue q(12);
  const Bytes four = {1, 2, 3, 4};
  ASSERT_EQ(q.AddToEnd(four.data(), 4), 0);
  EXPECT_EQ(q.ItemCount(2), 2u);
  // Shrinking a queue that holds data asserts and changes nothing.
  EXPECT_EQ(q.SetSize(2), 0);
  EXPECT_EQ(Asserted(), "queue-203");
  EXPECT_EQ(q.GetSize(), 12u);
  EXPECT_EQ(Take(q, 4), four);
  q.Reset();
  EXPECT_EQ(q.GetSize(), 0u);
  EXPECT_TRUE(q.IsEmpty() && q.IsInline());

  // A queue without storage has no room and nothing to give.
  TQueue none;
  unsigned char byte = 0;
  unsigned char* item = &byte;
  EXPECT_EQ(none.AddToEnd(four.data(), 1), kErrQueueNoRoom);
  EXPECT_EQ(none.AddToEnd(four.data(), 0), 0);
  EXPECT_EQ(none.GetFromFront(item, 1), kErrQueueEmpty);
  EXPECT_EQ(none.PeekAt(0, &item, 4), kErrQueueNoData);
  EXPECT_EQ(item, nullptr);
}

TEST_F(TQueueTest, MisuseAssertsAndGoesOn) {
  struct Case {
    const char* name;
    int line;
    int (*run)(TQueue&);
    int result;
  };
  static unsigned char buffer[8];
  const Case cases[] = {
      {"peek with item size 0", 160,
       [](TQueue& q) {
         unsigned char* item = buffer;
         const int r = q.PeekAt(0, &item, 0);
         return item == nullptr ? r : 1;
       },
       kErrQueueNoData},
      {"count of items of size 0", 160, [](TQueue& q) { return static_cast<int>(q.ItemCount(0)); },
       0},
      {"peek without a place for the pointer", 150,
       [](TQueue& q) { return q.PeekAt(0, nullptr, 1); }, kErrQueueNoData},
      {"peek with a size that is not whole items", 166,
       [](TQueue& q) {
         unsigned char* item = nullptr;
         const int r = q.PeekAt(1, &item, 2);  // 5 bytes stored: items 0 and 1 exist
         return item == q.MemPtr() + 2 ? r : 1;
       },
       0},
      {"add from a null pointer", 88, [](TQueue& q) { return q.AddToEnd(nullptr, 2); },
       kErrQueueNoRoom},
      {"take into a null pointer", 121, [](TQueue& q) { return q.GetFromFront(nullptr, 2); },
       kErrQueueNoData},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ClearRecords();
    TQueue q(8);
    const Bytes five = {1, 2, 3, 4, 5};
    ASSERT_EQ(q.AddToEnd(five.data(), 5), 0);
    EXPECT_EQ(c.run(q), c.result);
    EXPECT_EQ(Asserted(), "queue-" + std::to_string(c.line));
    EXPECT_EQ(q.DataSize(), 5u);
    EXPECT_EQ(Take(q, 5), five);
  }

  ClearRecords();
  TQueue negative(-5);
  EXPECT_EQ(Asserted(), "queue-40");
  EXPECT_EQ(negative.GetSize(), 0u);
}

// Random operations against a std::deque of bytes and the ring's head: the
// offset of the first byte, moved by reads, reset by a resize of an empty
// queue and moved to the new end when a wrapped queue grows. Copies and
// assignments keep bytes and head and leave each queue its own monitor.
TEST_F(TQueueTest, RandomOperationsMatchADeque) {
  std::mt19937 rng(777);
  TQueue q(7);
  std::deque<unsigned char> model;
  unsigned capacity = 7;
  unsigned head = 0;
  unsigned char counter = 0;
  for (int step = 0; step < 20000; ++step) {
    SCOPED_TRACE(step);
    switch (rng() % 8) {
      case 0:
      case 1:
      case 2: {
        const unsigned n = rng() % (capacity + 2);
        Bytes data(n);
        for (auto& b : data) b = ++counter;
        const int r = q.AddToEnd(data.data(), n);
        if (n > capacity - model.size()) {
          ASSERT_EQ(r, kErrQueueNoRoom);
          counter = static_cast<unsigned char>(counter - n);
        } else {
          ASSERT_EQ(r, 0);
          model.insert(model.end(), data.begin(), data.end());
        }
        break;
      }
      case 3:
      case 4: {
        const unsigned n = rng() % (capacity + 2);
        Bytes out(n, 0xEE);
        const int r = q.GetFromFront(out.data(), n);
        if (model.empty()) {
          ASSERT_EQ(r, kErrQueueEmpty);
        } else if (n > model.size()) {
          ASSERT_EQ(r, kErrQueueNoData);
        } else {
          ASSERT_EQ(r, 0);
          ASSERT_TRUE(std::equal(out.begin(), out.end(), model.begin()));
          model.erase(model.begin(), model.begin() + n);
          head = (head + n) % capacity;
        }
        break;
      }
      case 5: {  // grow, or shrink when empty
        unsigned next = capacity + 1 + rng() % 9;
        if (model.empty() && rng() % 2) next = 1 + rng() % 12;
        ASSERT_EQ(q.SetSize(next), 0);
        if (model.empty()) {
          head = 0;
        } else if (head + model.size() > capacity) {
          head += next - capacity;
        }
        capacity = next;
        ASSERT_EQ(q.GetSize(), capacity);
        break;
      }
      case 6: {  // the queue goes through a copy and back by assignment
        TQueue copy(q);
        ASSERT_NE(&copy.Monitor(), &q.Monitor());
        TMonitor* own = &q.Monitor();
        q.Reset();
        q = copy;
        q = q;
        ASSERT_EQ(&q.Monitor(), own);
        ASSERT_EQ(Take(copy, copy.DataSize()), Bytes(model.begin(), model.end()));
        break;
      }
      default: {
        unsigned char* item = nullptr;
        if (model.empty()) {
          ASSERT_EQ(q.PeekAt(0, &item, 1), kErrQueueNoData);
        } else {
          const unsigned index = static_cast<unsigned>(rng() % model.size());
          ASSERT_EQ(q.PeekAt(index, &item, 1), 0);
          ASSERT_EQ(*item, model[index]);
          ASSERT_EQ(item, q.MemPtr() + (head + index) % capacity);
        }
        break;
      }
    }
    ASSERT_EQ(q.DataSize(), model.size());
    ASSERT_EQ(q.SpaceAvail(), capacity - model.size());
    ASSERT_EQ(q.IsFull(), model.size() == capacity);
  }
  EXPECT_EQ(Asserted(), "");
}

// Four producers and four consumers on one queue: every record arrives once,
// and each producer's records arrive in the order it sent them.
TEST_F(TQueueTest, ThreadProducersAndConsumers) {
  constexpr int kProducers = 4;
  constexpr int kConsumers = 4;
  constexpr std::uint32_t kRecords = 20000;  // per producer, 8 bytes each
  TQueue q(8 * 64);
  std::atomic<int> producersLeft{kProducers};
  std::vector<std::vector<std::uint32_t>> seen(kConsumers * kProducers);
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (std::uint32_t n = 0; n < kRecords;) {
        std::uint32_t record[2] = {static_cast<std::uint32_t>(p), n};
        if (q.AddToEnd(reinterpret_cast<unsigned char*>(record), 8) == 0) {
          ++n;
        } else {
          std::this_thread::yield();
        }
      }
      producersLeft.fetch_sub(1);
    });
  }
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&, c] {
      for (;;) {
        std::uint32_t record[2];
        const int r = q.GetFromFront(reinterpret_cast<unsigned char*>(record), 8);
        if (r == 0) {
          seen[c * kProducers + record[0] % kProducers].push_back(record[1]);
        } else if (producersLeft.load() == 0 && q.IsEmpty()) {
          break;
        } else {
          std::this_thread::yield();
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_TRUE(q.IsEmpty());
  for (int p = 0; p < kProducers; ++p) {
    std::vector<int> count(kRecords, 0);
    for (int c = 0; c < kConsumers; ++c) {
      const auto& got = seen[c * kProducers + p];
      EXPECT_TRUE(std::is_sorted(got.begin(), got.end())) << "producer " << p;
      for (std::uint32_t n : got) {
        ASSERT_LT(n, kRecords);
        ++count[n];
      }
    }
    EXPECT_EQ(std::count(count.begin(), count.end(), 1), static_cast<long>(kRecords))
        << "producer " << p;
  }
}

}  // namespace
