#include "quarnel/platform/lasterror.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

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
  USetLastError(0xFFFFFFFFu);
  EXPECT_EQ(UGetLastError(), 0xFFFFFFFFu);
  USetLastError(0);
  EXPECT_EQ(UGetLastError(), 0u);
}

TEST(LastError, ManyThreadsKeepTheirOwn) {
  std::vector<std::thread> threads;
  std::vector<int> wrong(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &wrong] {
      for (unsigned i = 0; i < 10000; ++i) {
        const unsigned mine = static_cast<unsigned>(t) * 100000 + i;
        USetLastError(mine);
        std::this_thread::yield();
        if (UGetLastError() != mine) ++wrong[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(wrong[t], 0) << "thread " << t;
}

// errno -> the Windows number a Windows program sees for the same failure.
TEST(LastError, ErrnoTable) {
#if defined(_WIN32)
  GTEST_SKIP()
      << "Linux only: the C library's errno values; Windows calls report the system's own errors";
#else
  struct Row {
    const char* name;
    int err;
    unsigned file;  // without a path context
    unsigned path;  // with a path context
  } rows[] = {
      {"0", 0, 0, 0},
      {"ENOENT", ENOENT, 2, 3},
      {"EEXIST", EEXIST, 80, 183},
      {"ENOTDIR", ENOTDIR, 3, 3},
      {"EACCES", EACCES, 5, 5},
      {"EPERM", EPERM, 5, 5},
      {"EISDIR", EISDIR, 5, 5},
      {"EBADF", EBADF, 6, 6},
      {"ENOMEM", ENOMEM, 8, 8},
      {"EFAULT", EFAULT, 998, 998},
      {"EBUSY", EBUSY, 32, 32},
      {"ETXTBSY", ETXTBSY, 32, 32},
      {"EAGAIN", EAGAIN, 33, 33},
      {"EWOULDBLOCK", EWOULDBLOCK, 33, 33},
      {"EDEADLK", EDEADLK, 33, 33},
      {"ENOLCK", ENOLCK, 36, 36},
      {"EMFILE", EMFILE, 4, 4},
      {"ENFILE", ENFILE, 4, 4},
      {"EINVAL", EINVAL, 87, 87},
      {"EDOM", EDOM, 87, 87},
      {"E2BIG", E2BIG, 122, 122},
      {"ERANGE", ERANGE, 122, 122},
      {"EILSEQ", EILSEQ, 1113, 1113},
      {"ENOSPC", ENOSPC, 112, 112},
      {"EDQUOT", EDQUOT, 112, 112},
      {"EFBIG", EFBIG, 112, 112},
      {"EROFS", EROFS, 19, 19},
      {"ENOTEMPTY", ENOTEMPTY, 145, 145},
      {"EXDEV", EXDEV, 17, 17},
      {"ENAMETOOLONG", ENAMETOOLONG, 206, 206},
      {"ELOOP", ELOOP, 1921, 1921},
      {"EMLINK", EMLINK, 1142, 1142},
      {"ESPIPE", ESPIPE, 132, 132},
      {"EPIPE", EPIPE, 109, 109},
      {"EOVERFLOW", EOVERFLOW, 534, 534},
      {"EIO", EIO, 1117, 1117},
      {"ENXIO", ENXIO, 21, 21},
      {"ENOMEDIUM", ENOMEDIUM, 21, 21},
      {"ENODEV", ENODEV, 55, 55},
      {"EMEDIUMTYPE", EMEDIUMTYPE, 1005, 1005},
      {"EUCLEAN", EUCLEAN, 1392, 1392},
      {"EBADMSG", EBADMSG, 1392, 1392},
      {"ENOEXEC", ENOEXEC, 193, 193},
      {"ENOTTY", ENOTTY, 1, 1},
      {"ENOSYS", ENOSYS, 50, 50},
      {"EOPNOTSUPP", EOPNOTSUPP, 50, 50},
      {"ENOTSUP", ENOTSUP, 50, 50},
      {"EINTR", EINTR, 995, 995},
      {"ECANCELED", ECANCELED, 995, 995},
      {"ENOBUFS", ENOBUFS, 1450, 1450},
      {"ESTALE", ESTALE, 64, 64},
      {"ECONNRESET", ECONNRESET, 64, 64},
      {"ETIMEDOUT", ETIMEDOUT, 121, 121},
      {"ECONNREFUSED", ECONNREFUSED, 1225, 1225},
      {"ECONNABORTED", ECONNABORTED, 1236, 1236},
      {"ENETDOWN", ENETDOWN, 1222, 1222},
      {"ENETUNREACH", ENETUNREACH, 1231, 1231},
      {"EHOSTUNREACH", EHOSTUNREACH, 1232, 1232},
      {"EHOSTDOWN", EHOSTDOWN, 1232, 1232},
      {"ENOTCONN", ENOTCONN, 2250, 2250},
      {"EREMOTEIO", EREMOTEIO, 59, 59},
      {"ENOLINK", ENOLINK, 53, 53},
      // Unknown errno values become ERROR_GEN_FAILURE.
      {"ESRCH", ESRCH, 31, 31},
      {"ECHILD", ECHILD, 31, 31},
      {"-1", -1, 31, 31},
      {"100000", 100000, 31, 31},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(UWinErrorFromErrno(r.err), r.file);
    EXPECT_EQ(UWinErrorFromErrno(r.err, false), r.file);
    EXPECT_EQ(UWinErrorFromErrno(r.err, true), r.path);
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
