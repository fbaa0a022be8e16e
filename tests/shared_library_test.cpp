// Links libquarnel.so as a host does: everything used here must be exported,
// and the umbrella header must compile on its own.
#include <gtest/gtest.h>

#include <cstring>

#include "quarnel/quarnel.h"

namespace {

int g_lines = 0;
int CountLines(unsigned, const char*, const Args*) { return ++g_lines; }

}  // namespace

TEST(SharedLibrary, ExportsTheInterface) {
  TString s(u"abc");
  s.Append(u"def");
  EXPECT_EQ(s.Length(), 6);
  void* p = MemAlloc(10);
  EXPECT_EQ(MemSize(p), 10u);
  MemFree(p);

  HookDebugLogfChar(CountLines);
  EXPECT_EQ(MapWindowsError(2), kErrFileNotFound);
  EXPECT_GT(g_lines, 0);
  HookDebugLogfChar(nullptr);

  TString line;
  line.SPrintf(u"%~d %s %S", 1234, "x", &s);
  EXPECT_TRUE(line.Identical(u"1234 x abcdef"));

  PersistHeader header;
  _initpersist(&header, 0x5374722E, 256, 256);
  EXPECT_EQ(_checkpersist(&header, 0x5374722E, 256, 256), 0);

  char16_t wide[4];
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "\x80", 1, wide, 4), 1);
  EXPECT_EQ(wide[0], u'\u20ac');
  EXPECT_EQ(UCompareString(u"a", -1, u"B", -1, 0), -1);
}
