// Links libquarnel.so as a host does: everything used here must be exported.
#include <gtest/gtest.h>

#include "quarnel/quarnel.h"

TEST(SharedLibrary, ExportsTheInterface) {
  TString s(u"abc");
  s.Append(u"def");
  EXPECT_EQ(s.Length(), 6);
  void* p = MemAlloc(10);
  EXPECT_EQ(MemSize(p), 10u);
  MemFree(p);
}
