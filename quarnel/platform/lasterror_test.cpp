#include "quarnel/platform/lasterror.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>

#include "tests/support/helpers.h"
#include "tests/support/platform_cases.h"

namespace {

TEST(LastError, IsPerThread) {
  // Starting and joining a thread are system calls that may set the last
  // error themselves (on Windows they do), so the values are compared while
  // both threads run, with nothing but atomics between.
  std::atomic<int> step{0};
  unsigned seenByOther = 1234;
  unsigned mineAfter = 0;
  std::thread other([&] {
    while (step.load() != 1) std::this_thread::yield();
    seenByOther = UGetLastError();  // a new thread starts at 0
    USetLastError(112);
    step.store(2);
    while (step.load() != 3) std::this_thread::yield();
  });
  USetLastError(5);
  EXPECT_EQ(UGetLastError(), 5u);
  step.store(1);
  while (step.load() != 2) {
  }
  mineAfter = UGetLastError();
  step.store(3);
  other.join();
  EXPECT_EQ(seenByOther, 0u);
  EXPECT_EQ(mineAfter, 5u);
}

// errno -> the Windows number a Windows program sees for the same failure.
TEST(LastError, ErrnoTable) {
#if defined(_WIN32)
  GTEST_SKIP()
      << "Linux only: the C library's errno values; Windows calls report the system's own errors";
#else
  std::map<std::string, int> byName = {{"EWOULDBLOCK", EWOULDBLOCK}, {"ENOTSUP", ENOTSUP}};
  for (int e = 1; e < 4096; ++e) {
    if (const char* name = strerrorname_np(e)) byName.emplace(name, e);
  }
  const auto rows = ReadTsv("errno.tsv");
  for (const auto& f : rows) {
    SCOPED_TRACE(f[0]);
    const int err = byName.count(f[0]) ? byName[f[0]] : std::stoi(f[0]);
    EXPECT_EQ(UWinErrorFromErrno(err), std::stoul(f[1]));
    EXPECT_EQ(UWinErrorFromErrno(err, false), std::stoul(f[1]));
    EXPECT_EQ(UWinErrorFromErrno(err, true), std::stoul(f[2]));
  }
#endif
}

TEST(LastError, TranslationLeavesTheLastErrorAlone) {
  USetLastError(77);
  errno = EIO;
  EXPECT_EQ(UWinErrorFromErrno(ENOSPC), 112u);
  EXPECT_EQ(UGetLastError(), 77u);
  EXPECT_EQ(errno, EIO);
  USetLastError(0);
}

}  // namespace
