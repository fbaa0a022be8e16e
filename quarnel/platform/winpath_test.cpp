#include "quarnel/platform/internal/winpath.h"

#include <gtest/gtest.h>

#include "tests/support/path_text.h"
#include "tests/support/recording_hooks.h"
#include "tests/support/tsv_kind.h"

using namespace quarnel_internal;

TEST(WinPath, ParsesAndNormalisesAsWindowsDoes) {
  const std::u16string cur = u"C:\\Cur\\Dir";
  for (const auto& row : ReadTsvKind("winpath.tsv", "PARSE")) {
    SCOPED_TRACE(row[0]);
    const std::u16string in = ExpandPath(row[0]);
    WinPath p;
    const unsigned err = ParseWinPath(row[0] == "(null)" ? nullptr : in.c_str(), cur, false, &p);
    if (row[1] == "-") {
      EXPECT_EQ(err, std::stoul(row[2]));
    } else {
      ASSERT_EQ(err, 0u);
      EXPECT_EQ(Utf8(FormatWinPath(p, p.trailingSeparator)), row[1]);
    }
  }
  WinPath p;
  EXPECT_EQ(ParseWinPath(u"C:\\dir\\*.t?t", cur, true, &p), 0u);  // wildcards in a find
  EXPECT_EQ(ParseWinPath(u"C:\\d*r\\x", cur, true, &p), 123u);    // only in the last part
  EXPECT_EQ(ParseWinPath(u"rel", u"", false, &p), 3u);
}

TEST(WinPath, LongFormOfFileCallPaths) {
  EXPECT_EQ(Utf8(LongPathForm(u"C:\\x")), "\\\\?\\C:\\x");
  EXPECT_EQ(Utf8(LongPathForm(u"\\\\srv\\share\\x")), "\\\\?\\UNC\\srv\\share\\x");
  EXPECT_EQ(Utf8(LongPathForm(u"\\\\?\\C:\\x")), "\\\\?\\C:\\x");
  EXPECT_EQ(Utf8(LongPathForm(u"\\\\.\\C:")), "\\\\.\\C:");
  EXPECT_EQ(Utf8(LongPathForm(u"rel\\x")), "rel\\x");
}

TEST(WinPath, ShortNamesAreMadeTheWindowsWay) {
  for (const auto& row : ReadTsvKind("winpath.tsv", "SHORT")) {
    SCOPED_TRACE(row[0]);
    const std::u16string name = Utf16(row[0]);
    EXPECT_EQ(IsShortName(name), row[1] == "1");
    if (row[1] != "1") {
      EXPECT_EQ(Utf8(ShortNameFor(name, 1)), row[1]);
    }
  }
  EXPECT_EQ(Utf8(ShortNameFor(u"abcdefghi", 9)), "ABCDEF~9");
  EXPECT_EQ(Utf8(ShortNameFor(u"abcdefghi", 10)), "ABCDE~10");
  EXPECT_EQ(Utf8(ShortNameFor(u"abcdefghi", 123456)), "A~123456");
}

TEST(WinPath, FoldsNamesAndHostBytesRoundTrip) {
  EXPECT_TRUE(SameNameFolded(u"Data.TXT", u"data.txt"));
  EXPECT_TRUE(SameNameFolded(u"\u00c9t\u00e9", u"\u00e9T\u00c9"));
  EXPECT_TRUE(SameNameFolded(u"\u0416\u0451", u"\u0436\u0401"));
  EXPECT_FALSE(SameNameFolded(u"a", u"b"));
  EXPECT_EQ(HostFromWide(u"\u00e9\U0001F600"), "\xC3\xA9\xF0\x9F\x98\x80");
  for (const std::string& host : {std::string("plain"), std::string("\xff\xfe bad"),
                                  std::string("\xC3"), std::string("\xED\xA0\x80")}) {
    EXPECT_EQ(HostFromWide(WideFromHost(host)), host);
  }
  EXPECT_EQ(WideFromHost("\xff"), std::u16string(1, 0xDCFF));
}
