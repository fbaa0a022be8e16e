// Cases that only make sense on one of the library's platforms, and Windows
// behaviours that Wine does not reproduce. A case says so with a skip and
// its reason, so that the same test programs run on both builds:
//
//   QUARNEL_LINUX_ONLY("the Linux errno values");
//   if (WineDiffers("Wine accepts February 29 of a common year")) continue;
#ifndef QUARNEL_TESTS_SUPPORT_PLATFORM_CASES_H_
#define QUARNEL_TESTS_SUPPORT_PLATFORM_CASES_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "quarnel/platform/wine.h"

#if defined(_WIN32)
inline constexpr bool kOnWindows = true;
#else
inline constexpr bool kOnWindows = false;
#endif

#define QUARNEL_LINUX_ONLY(why) \
  if (kOnWindows) GTEST_SKIP() << "Linux only: " why
#define QUARNEL_WINDOWS_ONLY(why) \
  if (!kOnWindows) GTEST_SKIP() << "Windows only: " why
#define QUARNEL_SKIP_UNDER_WINE(why) \
  if (URunsUnderWine()) GTEST_SKIP() << "Wine differs from Windows: " why

// Under Wine: names the difference in the test's output and answers true,
// so that the caller leaves out the rows that show it; false elsewhere.
inline bool WineDiffers(const char* why) {
  if (URunsUnderWine() == 0) return false;
  std::printf("[ WINE     ] Wine differs from Windows: %s\n", why);
  return true;
}

// Wine keeps the read-only attribute as the file's permission bits, which do
// not stop the superuser that runs the tests in CI.
inline constexpr const char* kWineRootWritesReadOnly = "Wine run by root writes a read-only file";

#if defined(_WIN32)
// The C runtime's environment, under the POSIX names the tests use.
inline int setenv(const char* name, const char* value, int overwrite) {
  if (!overwrite && std::getenv(name) != nullptr) return 0;
  return _putenv_s(name, value);
}
inline int unsetenv(const char* name) { return _putenv_s(name, ""); }
#endif

#endif  // QUARNEL_TESTS_SUPPORT_PLATFORM_CASES_H_
