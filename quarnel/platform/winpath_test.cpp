#include "quarnel/platform/internal/winpath.h"

#include <gtest/gtest.h>

#include "tests/support/recording_hooks.h"

using namespace quarnel_internal;

TEST(WinPath, ParsesAndNormalisesAsWindowsDoes) {
  const std::u16string cur = u"C:\\Cur\\Dir";
  const std::u16string longPath = u"C:\\" + std::u16string(256, u'n');
  struct Row {
    const char16_t* in;
    const char16_t* out;  // null: fails with `err`
    unsigned err;
  } rows[] = {
      {u"C:\\a\\..\\..\\..\\b", u"C:\\b", 0},  // ".." at the root stays there
      {u"C:\\a\\.\\b\\", u"C:\\a\\b\\", 0},
      {u"c:/x//y", u"C:\\x\\y", 0},
      {u"C:\\abc. .", u"C:\\abc", 0},  // trailing dots and blanks go
      {u"C:", u"C:\\Cur\\Dir", 0},     // drive-relative: the current folder on C:
      {u"C:x", u"C:\\Cur\\Dir\\x", 0},
      {u"D:x", u"D:\\x", 0},
      {u"x\\y", u"C:\\Cur\\Dir\\x\\y", 0},
      {u"..\\..\\..\\z", u"C:\\z", 0},
      {u"\\x", u"C:\\x", 0},
      {u"\\\\srv\\share\\..\\x", u"\\\\srv\\share\\x", 0},
      {u"\\\\?\\C:\\a\\b", u"C:\\a\\b", 0},
      {u"\\\\?\\UNC\\srv\\share\\a", u"\\\\srv\\share\\a", 0},
      {u"\\\\?\\C:", u"C:\\", 0},
      {u"\\\\.\\C:", u"\\\\.\\C:", 0},
      {u"C:\\a:b", u"C:\\a:b", 0},  // a stream name on Windows; a plain name here
      {u"", nullptr, 3},
      {nullptr, nullptr, 87},
      {u"\\\\srv", nullptr, 161},
      {u"\\\\srv\\", nullptr, 161},
      {u"\\\\?\\relative", nullptr, 161},
      {u"C:\\a<b", nullptr, 123},
      {u"C:\\a>b\\c", nullptr, 123},
      {u"C:\\a\"b", nullptr, 123},
      {u"C:\\a|b", nullptr, 123},
      {u"C:\\a?b", nullptr, 123},
      {u"C:\\a*b", nullptr, 123},
      {u"C:\\a\x01"
       u"b",
       nullptr, 123},
      {longPath.c_str(), nullptr, 206},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.in ? Utf8(row.in) : "(null)");
    WinPath p;
    const unsigned err = ParseWinPath(row.in, cur, false, &p);
    if (row.out == nullptr) {
      EXPECT_EQ(err, row.err);
    } else {
      ASSERT_EQ(err, 0u);
      EXPECT_EQ(Utf8(FormatWinPath(p, p.trailingSeparator)), Utf8(row.out));
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
  struct Row {
    const char16_t* name;
    bool isShort;
    const char16_t* alt1;
  } rows[] = {
      {u"a.txt", true, nullptr},
      {u"README.TXT", true, nullptr},
      {u"abcdefgh.ijk", true, nullptr},
      {u"abcdefghi", false, u"ABCDEF~1"},
      {u"Long File.text", false, u"LONGFI~1.TEX"},
      {u"x.tar.gz", false, u"XTAR~1.GZ"},
      {u".hidden", false, u"HIDDEN~1"},
      {u"a+b=c.txt", false, u"A_B_C~1.TXT"},
      {u"\u00e9t\u00e9 2024.doc", false, u"_T_202~1.DOC"},
      {u"a.b.c", false, u"AB~1.C"},
      {u"...", false, u"_~1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(Utf8(row.name));
    EXPECT_EQ(IsShortName(row.name), row.isShort);
    if (row.alt1) {
      EXPECT_EQ(Utf8(ShortNameFor(row.name, 1)), Utf8(row.alt1));
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
