#include "quarnel/text/tstring.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/codepage.h"
#include "quarnel/platform/faults.h"
#include "quarnel/resources/resmgr.h"
#include "tests/support/helpers.h"

namespace {

using quarnel_internal::TStringResetCodePages;
using quarnel_internal::TStringResolveCodePage;
using quarnel_internal::TStringSetCodePages;

// Reaches the protected members the tests need.
class Probe : public TString {
 public:
  using TString::setBufferSize;
  using TString::setByteOrder;
  using TString::TString;
};

class TStringTest : public RecordingTest {
 protected:
  void TearDown() override {
    TStringResetCodePages();
    RecordingTest::TearDown();
  }
};

std::u16string Repeat(char16_t ch, int n) {
  return std::u16string(static_cast<std::size_t>(n), ch);
}

std::u16string Str(const TString& s) {
  return std::u16string(s.Text(), static_cast<std::size_t>(s.Length()));
}

bool IsInline(const TString& s) {
  const auto* p = reinterpret_cast<const char*>(s.Text());
  const auto* o = reinterpret_cast<const char*>(&s);
  return p >= o && p < o + sizeof(TString);
}

// ---- storage ---------------------------------------------------------------

TEST_F(TStringTest, StorageGrowsInThirtyTwoByteStepsAndStaysOnTheHeap) {
  struct Row {
    int length;
    unsigned block;  // bytes of the heap block; 0: inside the object
  };
  const Row rows[] = {{0, 0},         {1, 0},         {261, 0},      {262, 544},
                      {270, 544},     {271, 576},     {300, 608},    {1000, 2016},
                      {16382, 32768}, {16383, 32768}, {20000, 32768}};  // too long: asserts and is
                                                                        // cut
  for (const Row& r : rows) {
    SCOPED_TRACE("length " + std::to_string(r.length));
    ClearRecords();
    const int blocksBefore = MemBlockCount();
    {
      const std::u16string text = Repeat(u'x', r.length);
      TString s(text.data(), static_cast<short>(r.length));
      const int length = std::min(r.length, static_cast<int>(TString::kMaxLength));
      EXPECT_EQ(s.Length(), length);
      EXPECT_EQ(s.Text()[length], 0);
      EXPECT_EQ(IsInline(s), r.block == 0);
      EXPECT_EQ(MemBlockCount() - blocksBefore, r.block == 0 ? 0 : 1);
      if (r.block != 0) {
        EXPECT_EQ(MemSize(s.Text()), r.block);
      }
    }
    EXPECT_EQ(MemBlockCount(), blocksBefore);
    EXPECT_EQ(Asserted(), r.length > TString::kMaxLength ? "tstring-1899" : "");
  }

  // Once grown, a string keeps its heap block even when it gets short again,
  // and a copy of a short string is inline.
  TString s(Repeat(u'y', 400).data(), 400);
  s.Assign(u"short");
  EXPECT_FALSE(IsInline(s));
  EXPECT_TRUE(IsInline(TString(s)));
  s.Append(Repeat(u'z', 300).data(), 300);
  EXPECT_EQ(MemSize(s.Text()), 640u);  // 305 units: 612 bytes, rounded to 640
  EXPECT_EQ(Str(s), u"short" + Repeat(u'z', 300));

  // Appending past the longest string, and an odd buffer size, assert.
  ClearRecords();
  s.Append(Repeat(u'q', 16100).data(), 16100);
  EXPECT_EQ(s.Length(), TString::kMaxLength);
  Probe odd;
  odd.setBufferSize(601);  // then makes room for 300 units
  EXPECT_EQ(MemSize(odd.Text()), 608u);
  EXPECT_EQ(Asserted(), "tstring-1899 tstring-1895");
}

// ---- single units, substrings, comparing -------------------------------------

TEST_F(TStringTest, PositionsOutsideTheTextAssert) {
  const TString s(u"abc");
  std::u16string forward, backward;
  for (short pos = s.GetHeadPosition(); pos != 0;) forward += s.GetCharacter(&pos, 1);
  for (short pos = s.GetTailPosition(); pos != 0;) backward += s.GetCharacter(&pos, -1);
  EXPECT_EQ(forward + backward, u"abccba");
  short pos = 4;  // length + 1: the terminator
  EXPECT_EQ(s.GetCharacter(&pos, 0), 0);
  EXPECT_EQ(TString().GetHeadPosition(), 0);
  EXPECT_EQ(Asserted(), "");

  pos = 5;
  EXPECT_EQ(s.GetCharacter(&pos, 1), 0);
  EXPECT_EQ(pos, 5);
  pos = 1;
  EXPECT_EQ(s.GetCharacter(&pos, 2), u'a');  // asserts, taken as step 0
  EXPECT_EQ(pos, 1);
  EXPECT_EQ(s.GetCharacter(nullptr, 1), 0);
  EXPECT_EQ(Asserted(), "tstring-130 tstring-130 tstring-140");

  ClearRecords();
  TString t(u"xyz");
  EXPECT_EQ(t[3], 0);
  EXPECT_EQ(Asserted(), "");
  EXPECT_EQ(t.GetAt(4) + t.GetAt(-1), 0);
  t.SetAt(3, u'!');
  t.SetAt(0, u'X');
  EXPECT_EQ(Str(t), u"Xyz");
  EXPECT_EQ(Asserted(), "tstring-130 tstring-130 tstring-130");
  // Left and Mid are covered by the model test.
  EXPECT_EQ(Str(t.Right(2)) + Str(t.Right(-3)) + Str(t.Mid(9, 2)), u"yz");
  t.Fill(u'-', 5);
  EXPECT_EQ(Str(t), u"-----");
}

TEST_F(TStringTest, ComparisonOperatorsUseCollationAndIdenticalIsExact) {
  const TString abc(u"abc");
  EXPECT_EQ(abc.Compare(TString(u"abd")), -1);
  EXPECT_EQ(abc.Compare(TString(u"abc")), 0);
  EXPECT_EQ(abc.Compare(u"abb", -1, 1), 1);
  EXPECT_EQ(abc.Compare(u"ABC", 3, 0), 0);
  EXPECT_TRUE(abc == TString(u"abc") && abc == u"abc" && u"abc" == abc && abc != u"abd");
  EXPECT_TRUE(abc < u"abd" && u"abd" > abc && abc <= TString(u"abc") && abc >= u"abb");
  EXPECT_FALSE(abc == TString(u"ABC"));
  EXPECT_FALSE(abc.Identical(TString(u"ABC")));
}

// ---- searching and editing -----------------------------------------------------

// Case-sensitive forward substring search and backward character search are
// covered by the model test.
TEST_F(TStringTest, FindFunctions) {
  const TString s(u"one two one");
  EXPECT_EQ(s.FindChar(u'o', 1), 6);
  EXPECT_EQ(s.FindChar(u'z'), -1);
  EXPECT_EQ(TString().FindChar(u'a'), -1);
  const TString one(u"ONE");
  EXPECT_EQ(s.FindSubstring(&one, 0, 0), 0);
  EXPECT_EQ(s.FindSubstring(&one, 1, 0), 8);
  EXPECT_EQ(s.FindSubstring(&one, 0, 1), -1);
  EXPECT_EQ(s.FindSubstring(u"one two one!", -1, 0, 1), -1);
  EXPECT_EQ(s.FindSet(u"wt", 2), 4);
  EXPECT_EQ(s.FindSet(u"xyz", -1), -1);
  TString r(s);
  EXPECT_EQ(r.ReplaceSet(u'_', u" e", -1), 4);
  EXPECT_EQ(Str(r), u"on__two_on_");
}

// Texts with \r and \n as the case file writes them.
std::u16string Unescaped(std::string t) {
  for (const auto& [from, to] : {std::pair{"\\r", "\r"}, {"\\n", "\n"}}) {
    for (std::size_t at; (at = t.find(from)) != std::string::npos;) t.replace(at, 2, to);
  }
  return Utf16(t);
}

TEST_F(TStringTest, RowsOfTheCaseFile) {
  for (const auto& r : ReadTsv("tstring.tsv")) {
    SCOPED_TRACE(r[0] + " " + r[1] + " " + r[2]);
    ClearRecords();
    TString s(Unescaped(r[1]).c_str());
    if (r[0] == "R") {
      const TString from(Unescaped(r[2]).c_str()), to(Unescaped(r[3]).c_str());
      EXPECT_EQ(s.ReplaceSubstring(&from, &to, std::stoi(r[4]), static_cast<short>(std::stoi(r[5])),
                                   static_cast<short>(std::stoi(r[6]))),
                std::stoi(r[7]));
      EXPECT_EQ(Str(s), Unescaped(r[8]));
    } else if (r[0] == "N") {
      TString out(u"old");
      EXPECT_EQ(s.GetNthToken(&out, u',', static_cast<short>(std::stoi(r[2])),
                              static_cast<short>(std::stoi(r[3]))),
                std::stoi(r[4]));
      EXPECT_EQ(Str(out), Unescaped(r[5]));
    } else if (r[0] == "P") {
      const TString text(Unescaped(r[2]).c_str());
      EXPECT_EQ(text.MatchPattern(&s, std::stoi(r[3])), std::stoi(r[4]));
    } else if (r[0] == "H") {
      EXPECT_EQ(s.StripHotkey(), std::stoi(r[2]));
      EXPECT_EQ(Str(s), Unescaped(r[3]));
    } else if (r[0] == "C") {
      s.Assign(u"a\rb\nc\r\nd");
      s.ConvertNewlines(std::stoi(r[1]), std::stoi(r[2]));
      EXPECT_EQ(Str(s), Unescaped(r[3]));
      EXPECT_EQ(Asserted(), r[1] == "3" ? "tstring-130" : "");
    } else {
      const std::u16string b = Unescaped(r[2]);
      const int first = std::stoi(r[3]);
      EXPECT_EQ(s.FirstDiscrepancy(TString(b.c_str())), first);
      EXPECT_EQ(s.FirstDiscrepancy(b.c_str(), -1), first);
      EXPECT_EQ(s.Identical(b.c_str(), static_cast<short>(b.size())), first == -1 ? 1 : 0);
    }
  }
}

// Stripping one character from both ends is covered by the model test.
TEST_F(TStringTest, StripEndsAndStripHotkey) {
  for (auto [which, result] : {std::pair{1, u"ab  "}, {-1, u"  ab"}}) {
    TString s(u"  ab  ");
    EXPECT_EQ(s.StripEnds(u' ', which), 2);
    EXPECT_EQ(Str(s), result);
  }
  TString s(u"-+x+-");
  const TString set(u"+-");
  EXPECT_EQ(s.StripEnds(&set, 0), 4);
  EXPECT_EQ(Str(s), u"x");

  TString c(u"abc XYZ \u00e9\u00c9 1");  // case folding is ASCII only
  c.MakeUpper();
  EXPECT_EQ(Str(c), u"ABC XYZ \u00e9\u00c9 1");
  c.MakeLower();
  EXPECT_EQ(Str(c), u"abc xyz \u00e9\u00c9 1");
}

// ---- locks -------------------------------------------------------------------

TEST_F(TStringTest, ChangingALockedStringAssertsAndProceeds) {
  TString s(u"abc");
  char16_t* p = s.GetBuffer(10);
  s.Assign(u"xyz");  // asserts, goes on
  EXPECT_EQ(Asserted(), "tstring-120");
  std::memcpy(p, u"hello", 12);
  s.ReleaseBuffer(0);
  EXPECT_EQ(Str(s), u"hello");

  p = s.GetBuffer(-1);
  p[0] = u'J';
  s.ReleaseBuffer(-1);
  p = s.GetBuffer(300);  // moves to the heap, the text comes along
  EXPECT_EQ(std::u16string(p, 5), u"Jello");
  for (int i = 0; i < 300; ++i) p[i] = u'k';
  s.ReleaseBuffer(300);
  EXPECT_EQ(Str(s), Repeat(u'k', 300));

  ClearRecords();
  const char* read = s.ReadBufferAnsi(0);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(std::string(read), std::string(300, 'k'));
  s.Append(u'!');
  s.CloseBufferAnsi();
  s.Append(u'!');
  EXPECT_EQ(s.Length(), 302);
  EXPECT_EQ(Asserted(), "tstring-120");

  ClearRecords();
  s.ReleaseBuffer(-1);
  s.CloseBufferAnsi();
  s.ReleaseBufferAnsi();
  EXPECT_EQ(Asserted(), "tstring-170 tstring-170 tstring-170");

  ClearRecords();
  TString(u"x").GetBuffer(-1);
  EXPECT_EQ(Asserted(), "tstring-150");
}

TEST_F(TStringTest, OnlyOneEightBitCopyAtATime) {
  TStringSetCodePages(1252, 2);
  TString s(u"caf\u00e9");
  char* w = s.GetBufferAnsi(8, 0);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(std::string(w), "caf\xe9");
  EXPECT_EQ(s.ReadBufferAnsi(0), w);  // the copy already out
  EXPECT_EQ(Asserted(), "tstring-160");
  std::strcpy(w, "na\xefve");
  s.ReleaseBufferAnsi();
  EXPECT_EQ(Str(s), u"na\u00efve");
  EXPECT_EQ(s.CodePage(), 1252);

  // The writable copy is cut to the size asked for.
  w = s.GetBufferAnsi(2, 0);
  EXPECT_EQ(std::string(w), "na");
  s.ReleaseBufferAnsi();
  EXPECT_EQ(Str(s), u"na");
}

// ---- 8-bit text ------------------------------------------------------------------

TEST_F(TStringTest, CodePageSelectors) {
  TStringSetCodePages(1252, 10000);
  EXPECT_EQ(TStringResolveCodePage(0), 1252);
  EXPECT_EQ(TStringResolveCodePage(2), 10000);
  EXPECT_EQ(Asserted(), "");
  EXPECT_EQ(TStringResolveCodePage(1), 1252);  // only 0 and 2 are selectors
  TString s(u"x");
  EXPECT_EQ(s.AssignAnsi("\xe9", -1, 7), 1);
  EXPECT_EQ(Str(s), u"\u00e9");
  EXPECT_EQ(Asserted(), "tstring-232 tstring-232");
  s.AppendAnsi("\x80\xe9", -1, 0);
  s.AppendAnsi("\xdb", 1, 2);
  s.AppendAnsi(nullptr, -1, 0);
  EXPECT_EQ(Str(s), u"\u00e9\u20ac\u00e9\u20ac");
  EXPECT_EQ(s.CodePage(), 10000);

  // The Mac choice probes the platform (page 2, then page 10000) and falls
  // back to the internal table, once.
  TStringResetCodePages();
  EXPECT_EQ(TStringResolveCodePage(2), 2);
  EXPECT_EQ(Logged(), "");
  TStringResetCodePages();
  UFailCall(UCall::kMultiByteToWideChar, 1, 87, 2);
  EXPECT_EQ(TStringResolveCodePage(2), -1);
  EXPECT_EQ(TStringResolveCodePage(2), -1);
  EXPECT_EQ(Logged(), "517 Mac code pages failed: using internal translation instead\n");
}

TEST_F(TStringTest, InternalMacRomanTableRoundTripsEveryByte) {
  TStringSetCodePages(1252, -1);
  char bytes[256];
  for (int i = 0; i < 256; ++i) bytes[i] = static_cast<char>(i);
  TString s;
  EXPECT_EQ(s.AssignAnsi(bytes, 256, 2), 256);
  ASSERT_EQ(s.Length(), 256);
  EXPECT_EQ(s.CodePage(), -1);
  // The table agrees with the platform's own Mac Roman page but for 0xBD:
  // Windows' page 10000 reads it as the Ohm sign U+2126, the published Mac OS
  // Roman mapping that the internal table follows as Greek capital omega.
  char16_t platform[128];
  ASSERT_EQ(UMultiByteToWideChar(kCpMacRoman, 0, bytes + 128, 128, platform, 128), 128);
  EXPECT_EQ(platform[0xBD - 0x80], u'\u2126');
  platform[0xBD - 0x80] = u'\u03A9';
  std::u16string ascii;
  for (int i = 0; i < 128; ++i) ascii += static_cast<char16_t>(i);
  EXPECT_EQ(Str(s), ascii + std::u16string(platform, 128));
  for (auto [byte, unit] : {std::pair{0x80, 0x00C4}, {0xDB, 0x20AC}, {0xF0, 0xF8FF}}) {
    EXPECT_EQ(s[static_cast<short>(byte)], unit);  // a few, independently of the platform
  }
  char back[257];
  EXPECT_EQ(s.FillBufferAnsi(back, 257, 2), 256);
  EXPECT_EQ(std::memcmp(back, bytes, 256), 0);

  // Units the table lacks become byte 7.
  TString odd(u"\u20ac\u0416\u00a4x");
  char out[8];
  EXPECT_EQ(odd.FillBufferAnsi(out, 8, 2), 4);
  EXPECT_EQ(std::string(out), "\xdb\x07\x07x");

  // On a Japanese system the internal translation uses page 932.
  TStringSetCodePages(932, -1);
  s.AssignAnsi("a\x82\xa0z", -1, 2);
  EXPECT_EQ(Str(s), u"a\u3042z");
  EXPECT_EQ(s.FillBufferAnsi(out, 8, 2), 4);
  EXPECT_EQ(std::string(out), "a\x82\xa0z");
  EXPECT_EQ(Asserted(), "");
}

TEST_F(TStringTest, LeftAnsiNeverSplitsADoubleByteCharacter) {
  TStringSetCodePages(932, 2);
  // a, HIRAGANA A (82 A0), b, KATAKANA KA (83 4A)
  const TString s(u"a\u3042b\u30ab");
  struct Row {
    int bytes;
    std::u16string prefix;
  };
  const Row rows[] = {{0, u""},
                      {1, u"a"},
                      {2, u"a"},  // the lead byte would sit in the last allowed position
                      {3, u"a\u3042"},
                      {4, u"a\u3042b"},
                      {5, u"a\u3042b"},
                      {6, u"a\u3042b\u30ab"},
                      {60, u"a\u3042b\u30ab"}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.bytes);
    EXPECT_EQ(Str(s.LeftAnsi(r.bytes, 0)), r.prefix);
    char buf[64];
    const short n = s.FillBufferAnsi(buf, static_cast<short>(r.bytes + 1), 0);
    EXPECT_EQ(n, static_cast<short>(std::string(buf).size()));
    TString back;
    back.AssignAnsi(buf, n, 0);
    EXPECT_EQ(Str(back), r.prefix);
  }
}

// ---- string lists ------------------------------------------------------------

// The resource manager's tests check LoadKString against a walk of random
// lists; here the text comes through the system code page, and the
// constructor loads too.
TEST_F(TStringTest, LoadKStringTextComesThroughTheSystemCodePage) {
  TStringSetCodePages(1252, 2);
  HostList list{31000, {{"Name", "Vellomarch"}, {"Euro", "\x80 5"}}};
  EXPECT_EQ(Str(TString(31000, Key("Euro"))), u"\u20ac 5");
  TString s(u"previous");
  EXPECT_EQ(s.LoadKString(31000, Key("Name")), 1);
  EXPECT_EQ(Str(s), u"Vellomarch");
  EXPECT_EQ(s.LoadKString(31000, Key("None")), 0);
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_EQ(Logged(), "");
}

// ---- the stored record -----------------------------------------------------------

std::vector<unsigned char> Record(const TString& s, int swap = 0) {
  std::vector<unsigned char> out(s.StoreSize() + 8, 0xEE);
  const int n = s.Export(out.data(), static_cast<int>(out.size()), swap);
  EXPECT_EQ(n, static_cast<int>(s.StoreSize()));
  out.resize(static_cast<std::size_t>(n > 0 ? n : 0));
  return out;
}

TEST_F(TStringTest, ExportWritesTheDocumentedBytes) {
  Probe one(u"A");
  one.SetStyle(0x1234);
  one.SetExtra(0xA1B2C3D4);
  one.setByteOrder(7);
  const std::vector<unsigned char> oneBytes = {
      0x2E, 0x72, 0x74, 0x53, 0x00, 0x01, 0x00, 0x01,  // 'Str.', 256, 256
      0x01, 0x00, 0x34, 0x12, 0xD4, 0xC3, 0xB2, 0xA1,  // length, style, extra
      0x07, 0,    0,    0,    0,    0,    0,    0,     // byte order, zeros
      0x41, 0x00, 0x00, 0x00,                          // "A", terminator
  };
  EXPECT_EQ(Record(one), oneBytes);
  std::vector<unsigned char> empty(oneBytes.begin(), oneBytes.begin() + 8);
  empty.resize(28, 0);
  EXPECT_EQ(Record(TString()), empty);

  // The other byte order: everything but the extra word is reversed.
  const std::vector<unsigned char> swapped = {
      0x53, 0x74, 0x72, 0x2E, 0x01, 0x00, 0x01, 0x00, 0x00, 0x01, 0x12, 0x34, 0xD4, 0xC3,
      0xB2, 0xA1, 0x07, 0,    0,    0,    0,    0,    0,    0,    0x00, 0x41, 0x00, 0x00,
  };
  EXPECT_EQ(Record(one, 1), swapped);

  // Longer texts: units after the 24-byte header, zeros to a 4-byte boundary
  // with room for the terminator.
  for (auto [length, size] : {std::pair{261, 548u}, {262, 552u}, {16383, 32792u}}) {
    SCOPED_TRACE(length);
    std::u16string text;
    std::vector<unsigned char> expected(oneBytes.begin(), oneBytes.begin() + 8);
    expected.insert(expected.end(),
                    {static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8)});
    expected.resize(24, 0);
    for (int i = 0; i < length; ++i) {
      text += static_cast<char16_t>(0x3000 + i);
      expected.insert(expected.end(), {static_cast<unsigned char>(i),
                                       static_cast<unsigned char>((0x3000 + i) >> 8)});
    }
    expected.resize(size, 0);
    const TString s(text.data(), static_cast<short>(length));
    EXPECT_EQ(s.StoreSize(), size);
    EXPECT_EQ(Record(s), expected);
    std::vector<unsigned char> raw(s.StorBufferSize());
    ASSERT_EQ(raw.size(), 2u * length + 2);
    s.StorBuffer(raw.data(), static_cast<unsigned>(raw.size()));
    EXPECT_TRUE(std::equal(raw.begin(), raw.end(), expected.begin() + 24));
    std::vector<unsigned char> small(size - 1);
    EXPECT_EQ(s.Export(small.data(), static_cast<int>(small.size())), kErrExportBufferTooSmall);
  }
}

TEST_F(TStringTest, ImportReadsRecordsAndRefusesBadOnes) {
  Probe source(u"persisted text");
  source.SetStyle(9);
  source.SetExtra(0x01020304);
  source.setByteOrder(1);
  const std::vector<unsigned char> good = Record(source);
  const std::vector<unsigned char> foreign = Record(source, 1);

  const int full = static_cast<int>(good.size());
  const auto number = [&](const std::string& f) {
    return f == "full" ? full : f == "full-1" ? full - 1 : std::stoi(f);
  };
  for (const auto& r : ReadTsv("tstring_import.tsv")) {
    SCOPED_TRACE(r[0]);
    std::vector<unsigned char> bytes = r[1] == "good" ? good : foreign;
    const std::string patch = Unhex(r[3]);
    std::copy(patch.begin(), patch.end(), bytes.begin() + std::stoi(r[2]));
    const int size = number(r[4]);
    if (size > full) bytes.resize(static_cast<std::size_t>(size), 0);
    Probe s(u"unchanged");
    s.SetStyle(5);
    s.SetExtra(6);
    const int result = s.Import(bytes.data(), size, std::stoi(r[5]));
    EXPECT_EQ(result, number(r[6]));
    const bool read = result > 0;
    EXPECT_EQ(Str(s), read ? u"persisted text" : u"unchanged");
    EXPECT_EQ(s.Style(), read ? 9 : 5);
    EXPECT_EQ(s.Extra(), read ? 0x01020304u : 6u);
    if (read) {
      EXPECT_EQ(s.ByteOrder(), 1);
    }
  }
  EXPECT_EQ(Asserted(), "");
}

TEST_F(TStringTest, OldImportReadsTheEarlierLayout) {
  const unsigned char native[] = {'x',  'x',  'x', 'x', 2,    0,   0x22, 0x11, 0x44, 0x33,
                                  0x22, 0x11, 9,   'h', 0x00, 'i', 0x00, 0x00, 0x00};
  const unsigned char foreign[] = {'x',  'x',  'x', 'x',  0,   2,    0x11, 0x22, 0x44, 0x33,
                                   0x22, 0x11, 9,   0x00, 'h', 0x00, 'i',  0x00, 0x00};
  for (int swap = 0; swap < 2; ++swap) {
    TString s;
    EXPECT_EQ(s.OldImport(swap ? foreign : native, swap), 19);
    EXPECT_EQ(Str(s), u"hi");
    EXPECT_EQ(s.Style(), 0x1122);
    EXPECT_EQ(s.Extra(), 0x11223344u);
    EXPECT_EQ(s.ByteOrder(), 9);
  }

  // A length no string can have is refused and the string is kept.
  const unsigned char tooLong[] = {'x', 'x', 'x', 'x', 0xFF, 0x7F, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  TString bad(u"kept");
  EXPECT_EQ(bad.OldImport(tooLong, 0), kErrInvalidData);
  EXPECT_EQ(Str(bad), u"kept");
  EXPECT_EQ(Logged(), "517 TString::OldImport: bad length 32767\n");

  // Marshall swaps the style and the units but not the extra word.
  TString m(u"AB");
  m.SetStyle(0x0102);
  m.SetExtra(0x01020304);
  m.Marshall();
  EXPECT_EQ(m.Style(), 0x0201);
  EXPECT_EQ(m.Extra(), 0x01020304u);
  EXPECT_EQ(Str(m), (std::u16string{0x4100, 0x4200}));
}

// ---- model -----------------------------------------------------------------------

// Random edits checked against std::u16string: the text, its terminator, its
// hash (h = 31 h + unit over the units), its stored record read back and,
// until it first grows past 261 units, that it stays inside the object.
TEST_F(TStringTest, RandomOperationsMatchAStdU16StringModel) {
  std::mt19937 rng(20240611);
  const auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  const auto randomText = [&](int maxLen) {
    std::u16string t;
    const int n = pick(maxLen + 1);
    for (int i = 0; i < n; ++i) t += static_cast<char16_t>(u'a' + pick(4));
    return t;
  };
  TString s;
  std::u16string m;
  bool grown = false;
  for (int step = 0; step < 6000; ++step) {
    const int op = pick(13);
    SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op) + " length " +
                 std::to_string(m.size()));
    switch (op) {
      case 0: {
        const std::u16string t = randomText(pick(2) ? 20 : 600);
        s.Assign(t.data(), static_cast<short>(t.size()));
        m = t;
        break;
      }
      case 1: {
        const std::u16string t = randomText(pick(2) ? 10 : 150);
        s.Append(t.data(), static_cast<short>(t.size()));
        m += t;
        break;
      }
      case 2: {
        const char16_t ch = static_cast<char16_t>(u'a' + pick(26));
        s += ch;
        m += ch;
        break;
      }
      case 3: {  // its own text, also across the move to the heap
        const short from = static_cast<short>(pick(static_cast<int>(m.size()) + 1));
        if (pick(2)) {
          s.Assign(s.Text() + from);
          m = m.substr(static_cast<std::size_t>(from));
        } else if (m.size() < 3000) {
          if (from == 0) {
            s += s;
          } else {
            s.Append(s.Text() + from, -1);
          }
          m += m.substr(static_cast<std::size_t>(from));
        }
        break;
      }
      case 4: {
        const short n = static_cast<short>(pick(static_cast<int>(m.size()) + 5));
        s = s.Left(n);
        m = m.substr(0, std::min<std::size_t>(n, m.size()));
        break;
      }
      case 5: {
        const short start = static_cast<short>(pick(static_cast<int>(m.size()) + 1));
        const short n = static_cast<short>(pick(40) - 1);
        s = s.Mid(start, n);
        m = n < 0 ? m.substr(start) : m.substr(start, static_cast<std::size_t>(n));
        break;
      }
      case 6: {
        const TString from(u"ab");
        const TString to(pick(2) ? u"X" : u"YYY");
        const short count = s.ReplaceSubstring(&from, &to);
        short expected = 0;
        for (std::size_t at = m.find(u"ab"); at != std::u16string::npos;
             at = m.find(u"ab", at + to.Length())) {
          m.replace(at, 2, Str(to));
          ++expected;
        }
        EXPECT_EQ(count, expected);
        break;
      }
      case 7: {
        const short removed = s.StripEnds(u'a', 0);
        const std::size_t first = m.find_first_not_of(u'a');
        const std::size_t before = m.size();
        m = first == std::u16string::npos ? u""
                                          : m.substr(first, m.find_last_not_of(u'a') - first + 1);
        EXPECT_EQ(removed, static_cast<short>(before - m.size()));
        break;
      }
      case 8: {
        const std::u16string needle = randomText(3);
        const short from = static_cast<short>(pick(static_cast<int>(m.size()) + 1));
        const std::size_t want =
            needle.empty() ? std::u16string::npos : m.find(needle, static_cast<std::size_t>(from));
        EXPECT_EQ(s.FindSubstring(needle.data(), static_cast<short>(needle.size()), from, 1),
                  want == std::u16string::npos ? -1 : static_cast<short>(want));
        break;
      }
      case 9:
        if (!m.empty()) {
          const short pos = static_cast<short>(pick(static_cast<int>(m.size())));
          s.SetAt(pos, u'Z');
          m[static_cast<std::size_t>(pos)] = u'Z';
        }
        break;
      case 10:
        if (pick(8) == 0) {
          s.Clear();
          m.clear();
        }
        break;
      case 11: {
        TString copy(s);
        EXPECT_TRUE(copy.Identical(s));
        if (pick(2)) {
          s = u"<" + copy + u">";
          m = u"<" + m + u">";
        } else {
          s = copy + TString(u"!");
          m += u"!";
        }
        break;
      }
      case 12: {
        const char16_t ch = static_cast<char16_t>(u'a' + pick(4));
        const std::size_t want = m.rfind(ch);
        EXPECT_EQ(s.FindChar(ch, static_cast<short>(m.size()) - 1, -1),
                  want == std::u16string::npos ? -1 : static_cast<short>(want));
        break;
      }
    }
    if (m.size() > static_cast<std::size_t>(TString::kMaxLength)) {
      m.resize(TString::kMaxLength);
      ClearRecords();
    }
    ASSERT_EQ(Str(s), m);
    ASSERT_EQ(s.Text()[s.Length()], 0);
    std::uint32_t hash = m.empty() ? 0 : m[0];
    for (std::size_t i = 1; i < m.size(); ++i) hash = hash * 31u + m[i];
    ASSERT_EQ(s.Hash(), static_cast<int>(hash));
    if (m.size() > 261) grown = true;
    if (!grown) {
      ASSERT_TRUE(IsInline(s));
    }
    if (step % 250 == 0) {  // the stored record reads back, in either byte order
      const std::vector<unsigned char> rec = Record(s, step / 250 % 2);
      TString back;
      ASSERT_EQ(back.Import(rec.data(), static_cast<int>(rec.size()), 1),
                static_cast<int>(rec.size()));
      ASSERT_TRUE(back.Identical(s));
    }
  }
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
