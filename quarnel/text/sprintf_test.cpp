#include "quarnel/text/sprintf.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

constexpr unsigned Key(const char (&k)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(k[3]));
}

// A string list as a resource module carries it.
std::vector<unsigned char> MakeList(
    const std::vector<std::pair<const char*, std::string>>& entries) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const unsigned short len = static_cast<unsigned short>(4 + text.size());
    bytes.push_back(static_cast<unsigned char>(len & 0xFF));
    bytes.push_back(static_cast<unsigned char>(len >> 8));
    bytes.insert(bytes.end(), tag, tag + 4);
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  bytes.push_back(0xFF);
  bytes.push_back(0xFF);
  return bytes;
}

template <class... A>
std::vector<TArg> ArgList(const A&... values) {
  return {quarnel_args::MakeArg(values)...};
}

std::string Format(const char16_t* format, const std::vector<TArg>& args) {
  const Args list{args.data(), static_cast<int>(args.size())};
  TString out;
  out.SPrintf(format, &list);
  return Utf8(out);
}

const char kOrdinals[] = "{%d{#3%10:1=th|{#2:1=st|2=nd|3=rd|th}}}";

class SprintfTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    saved_ = *QuarnelEnv();
    QuarnelEnv()->lcid = kLcidEnUs;
    QuarnelEnv()->acp = 65001;
    quarnel_internal::TStringResetCodePages();  // the page is read once, and the system's may
                                                // differ
    list_ = MakeList({{"KMkm", "KMGkmg"}, {"Zero", "Zero"}, {"Ords", kOrdinals}});
    RMAddHostKList(16000, list_.data(), static_cast<int>(list_.size()));
  }
  void TearDown() override {
    RMAddHostKList(16000, nullptr, 0);
    QuarnelSetEnv(saved_);
    quarnel_internal::TStringResetCodePages();
    RecordingTest::TearDown();
  }
  void UseList(const std::vector<std::pair<const char*, std::string>>& entries) {
    list_ = MakeList(entries);
    RMAddHostKList(16000, list_.data(), static_cast<int>(list_.size()));
  }

  QuarnelEnvType saved_;
  std::vector<unsigned char> list_;
};

struct Row {
  const char16_t* format;
  std::vector<TArg> args;
  const char* expected;
};

void CheckRows(const std::vector<Row>& rows) {
  for (const Row& r : rows) {
    SCOPED_TRACE(Utf8(std::u16string(r.format)));
    EXPECT_EQ(Format(r.format, r.args), r.expected);
  }
}

const TString kNamed(u"named");
const TString kEmpty;

TEST_F(SprintfTest, ConversionsAndFlags) {
  const std::uint64_t kU64Max = UINT64_MAX;
  CheckRows({
      {u"", {}, ""},
      {u"plain text", {}, "plain text"},
      {u"100%% %^ %{ %} %|", {}, "100% ^ { } |"},
      // d: grouping, sign, width, padding, flags.
      {u"%d", ArgList(0), "0"},
      {u"%d", ArgList(1814), "1,814"},
      {u"%d", ArgList(-1234567), "-1,234,567"},
      {u"%d", ArgList(INT_MIN), "-2,147,483,648"},
      {u"%d", ArgList(999), "999"},
      {u"%~d", ArgList(1814), "1814"},
      {u"[%7d]", ArgList(1814), "[  1,814]"},
      {u"[%-7d]", ArgList(1814), "[1,814  ]"},
      {u"[%05d]", ArgList(-42), "[-0042]"},
      {u"[%06d]", ArgList(12345), "[012345]"},
      {u"[%-05d]", ArgList(12345), "[12345]"},
      {u"[%-06d]", ArgList(42), "[42    ]"},
      {u"%;d %;d %;d", ArgList(5, -5, 0), "+5 -5 +0"},
      {u"[%*d]", ArgList(6, 42), "[    42]"},
      {u"[%*d]", ArgList(0x10003, 7), "[  7]"},
      {u"%d", ArgList(0xFFFFFFFFu), "-1"},
      {u"%d", ArgList(std::int64_t{0x100000005}), "5"},
      {u"%Ld", ArgList(std::int64_t{-5000000000}), "-5,000,000,000"},
      {u"%.3d", ArgList(7), "7"},
      // u, H, h.
      {u"%u", ArgList(4294967295u), "4,294,967,295"},
      {u"%u", ArgList(-1), "4,294,967,295"},
      {u"%~u", ArgList(1000000), "1000000"},
      {u"%Lu", ArgList(kU64Max), "18,446,744,073,709,551,615"},
      {u"%H", ArgList(kU64Max), "18,446,744,073,709,551,615"},
      {u"%0*H", ArgList(8, std::uint64_t{42}), "00000042"},
      {u"%h", ArgList(std::int64_t{-9000000000}), "-9,000,000,000"},
      {u"%0*h", ArgList(6, std::int64_t{-42}), "-00042"},
      {u"%;h", ArgList(std::int64_t{1000}), "+1,000"},
      // x, X.
      {u"%x %X", ArgList(255, 255), "ff FF"},
      {u"0x%x", ArgList(255u), "0xff"},
      {u"%08X", ArgList(0xBEEF), "0000BEEF"},
      {u"%x", ArgList(-1), "ffffffff"},
      {u"%x", ArgList(0), "0"},
      {u"%Lx", ArgList(std::uint64_t{0x123456789a}), "123456789a"},
      {u"%x", ArgList(std::uint64_t{0x123456789a}), "3456789a"},
      // c, C.
      {u"%c%C", ArgList('A', u'\u00e9'), "A\u00e9"},
      {u"[%3c]", ArgList('A'), "[  A]"},
      {u"[%c]", ArgList(0), "[]"},
      // s, S: every kind of text.
      {u"%s", ArgList("abc"), "abc"},
      {u"[%5s][%-5s]", ArgList("abc", "abc"), "[  abc][abc  ]"},
      {u"%.2s", ArgList("abc"), "ab"},
      {u"%s|%S", ArgList(u"wide", u"w2"), "wide|w2"},
      {u"%S|%s", ArgList(&kNamed, kNamed), "named|named"},
      {u"[%S]", ArgList(&kEmpty), "[]"},
      {u"[%s]", ArgList(static_cast<const char*>(nullptr)), "[]"},
      {u"%s", ArgList("h\xc3\xa9llo"), "h\u00e9llo"},
      {u"[%.3S]", ArgList(&kNamed), "[nam]"},
      // F.
      {u"%.3F", ArgList(1234), "1.234"},
      {u"%.3F", ArgList(5), "0.005"},
      {u"%.2F", ArgList(123456789), "1,234,567.89"},
      {u"%.2~F", ArgList(123456789), "1234567.89"},
      {u"%F", ArgList(42), "42"},
      {u"[%8.1F]", ArgList(5), "[     0.5]"},
      {u"%.1LF", ArgList(std::uint64_t{10485760}), "1,048,576.0"},
      {u"%.12F", ArgList(5), "0.000000000005"},
      // Y, y.
      {u"%Y", ArgList(Key("Cfh.")), "Cfh."},
      {u"%y", ArgList(0x41004200u), "A7B7"},
      {u"[%6Y]", ArgList(Key("DYL.")), "[  DYL.]"},
      // D, T, I take their argument; without a date D and T print the word
      // 'Nevr' (not in this list: nothing), without an interval I prints zero.
      {u"a%Db%Tc%Id%d", ArgList(nullptr, nullptr, nullptr, 5), "abc00:00:00d5"},
      // Reserved and unknown conversions take no argument.
      {u"%#%$%q%d", ArgList(5), "5"},
  });
}

TEST_F(SprintfTest, ArgumentSkipping) {
  CheckRows({
      {u"%i%d", ArgList(1, 2), "2"},
      {u"%2i%d", ArgList(1, 2, 3), "3"},
      {u"%d%-i%d", ArgList(7), "77"},
      {u"%d %d %-2i%d", ArgList(1, 2), "1 2 1"},
      {u"%d %d %-2i%i%d", ArgList(1, 2), "1 2 2"},
      // Out of order: the second argument first.
      {u"%i%s %-2i%s", ArgList("world", "hello"), "hello world"},
      // The position stays inside the list.
      {u"%-5i%d", ArgList(9), "9"},
      {u"%9i%d%-i%d", ArgList(1, 2), "02"},
      {u"[%5i]", ArgList(1), "[]"},
  });
}

TEST_F(SprintfTest, MissingUnfittingArgumentsAndTruncatedFormats) {
  CheckRows({
      {u"%d %u %x %s %S %c %.1F %Y|", {}, "0 0 0    0.0 7777|"},
      {u"%d %d", ArgList(3), "3 0"},
      {u"%d|%s|%c", ArgList("text", 42, "x"), "0||"},
      {u"%*d|", {}, "0|"},
      {u"abc%", {}, "abc"},
      {u"abc%-0", {}, "abc"},
      {u"x%5.2~;L", ArgList(1), "x"},
      {u"%d%", ArgList(5), "5"},
      {u"%d%5", ArgList(5), "5"},
      {u"%.", {}, ""},
  });
  // Output beyond the longest string is cut there (here: inside the padding).
  EXPECT_EQ(Format(u"%*d", ArgList(20000, 1)), std::string(TString::kMaxLength, ' '));
  EXPECT_EQ(Format(u"%*d|%d", ArgList(TString::kMaxLength - 2, 1, 2)),
            std::string(TString::kMaxLength - 3, ' ') + "1|2");
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(SprintfTest, ErrorCodeText) {
  // No module holds the code and list 16000 has no '0000': empty.
  EXPECT_EQ(Format(u"[%E]", ArgList(kErrFileNotFound)), "[]");
  UseList({{"0000", "no message"}, {"KMkm", "KMGkmg"}});
  EXPECT_EQ(Format(u"[%E] [%.2E] [%12E]", ArgList(kErrFileNotFound, -1, 0)),
            "[no message] [no] [  no message]");
  EXPECT_EQ(Format(u"%E", {}), "no message");
}

TEST_F(SprintfTest, ScaledSizes) {
  const std::uint64_t kBig = std::uint64_t{1} << 40;
  CheckRows({
      // 32 bits: a byte count, rounded up to kilobytes.
      {u"%K", ArgList(0), "Zero K"},
      {u"%K", ArgList(1), "1 K"},
      {u"%K", ArgList(1024), "1 K"},
      {u"%K", ArgList(1025), "2 K"},
      {u"%K", ArgList(9999u * 1024), "9,999 K"},
      {u"%~K", ArgList(9999u * 1024), "9999 K"},
      {u"%K", ArgList(10000u * 1024), "9.8 M"},
      {u"%K", ArgList(0xFFFFFFFFu), "4.0 G"},
      {u"%k", ArgList(5000), "5 k"},
      {u"%k", ArgList(10000u * 1024), "9.8 m"},
      // 64 bits count kilobytes.
      {u"%LK", ArgList(std::uint64_t{0}), "Zero K"},
      {u"%LK", ArgList(std::uint64_t{9999}), "9,999 K"},
      {u"%LK", ArgList(std::uint64_t{10000}), "9.8 M"},
      {u"%LK", ArgList(std::uint64_t{1023897}), "999.9 M"},
      {u"%LK", ArgList(std::uint64_t{1023898}), "1.0 G"},
      {u"%LK", ArgList(std::uint64_t{0xFFFFFFFF}), "4,096.0 G"},
      {u"%LK", ArgList(std::uint64_t{0x100000000}), "4,096.0 G"},
      {u"%LK", ArgList(kBig), "1,048,576.0 G"},
      {u"%~LK", ArgList(kBig), "1048576.0 G"},
      {u"%Lk", ArgList(std::uint64_t{1023898}), "1.0 g"},
      {u"[%9K]", ArgList(1), "[      1 K]"},
      {u"[%-9LK]", ArgList(std::uint64_t{10000}), "[9.8 M    ]"},
  });
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(SprintfTest, MissingUnitLettersAssertAndGoOn) {
  UseList({{"Zero", "Zero"}});
  EXPECT_EQ(Format(u"%K|%d", ArgList(9999u * 1024, 7)), "9,999 |7");
  ASSERT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(Assertions()[0], (AssertionSeen{"sprintf", 591, ""}));
}

TEST_F(SprintfTest, GroupingFollowsTheLocale) {
  QuarnelEnv()->lcid = kLcidDeDe;
  CheckRows({
      {u"%d", ArgList(1234567), "1.234.567"},
      {u"%~d", ArgList(1234567), "1234567"},
      {u"%.2F", ArgList(123456), "1.234,56"},
      {u"%LK", ArgList(std::uint64_t{10000}), "9,8 M"},
  });
  QuarnelEnv()->lcid = kLcidEnUs;
  EXPECT_EQ(Format(u"%d", ArgList(1234567)), "1,234,567");
}

TEST_F(SprintfTest, FormatSourcesAgree) {
  const char* formats[] = {"%s: %d of %d (%x) %s", "%5.1F%%|%-4c|", "{%d{#1:1=one|many}}"};
  for (const char* f : formats) {
    SCOPED_TRACE(f);
    const auto args = ArgList(1, 22, 333, "four");
    const Args list{args.data(), static_cast<int>(args.size())};
    const std::u16string wide = Utf16(f);
    TString fromWide, fromString, fromNarrow;
    fromWide.SPrintf(wide.c_str(), &list);
    const TString fmt(wide.c_str());
    fromString.SPrintf(&fmt, &list);
    quarnel_internal::FormatNarrow(&fromNarrow, f, &list);
    EXPECT_EQ(Utf8(fromWide), Utf8(fromString));
    EXPECT_EQ(Utf8(fromWide), Utf8(fromNarrow));
  }
  // The format may be the destination itself.
  TString s(u"<%d>");
  s.SPrintf(&s, 5);
  EXPECT_EQ(Utf8(s), "<5>");
  // A format from a string list.
  UseList({{"Fmt1", "%d items"}});
  TString fromList;
  fromList.SPrintf(16000, static_cast<int>(Key("Fmt1")), 1500);
  EXPECT_EQ(Utf8(fromList), "1,500 items");
}

// Integer conversions without grouping print as the C library does.
TEST_F(SprintfTest, IntegersMatchTheCLibrary) {
  std::mt19937 rng(20240611);
  const char convs[] = {'d', 'u', 'x', 'X'};
  for (int iter = 0; iter < 3000; ++iter) {
    const char conv = convs[rng() % 4];
    std::string spec = "%";
    if (rng() % 2) spec += '-';
    if (rng() % 2) spec += '0';
    if (rng() % 2) spec += std::to_string(rng() % 16);
    std::int32_t v = static_cast<std::int32_t>(rng());
    if (rng() % 3 == 0) v %= 1000;
    char expected[64];
    std::snprintf(expected, sizeof expected, (spec + conv).c_str(), v);
    const std::u16string ours = Utf16(spec + ((conv == 'd' || conv == 'u') ? "~" : "") + conv);
    SCOPED_TRACE(spec + conv + " of " + std::to_string(v));
    ASSERT_EQ(Format(ours.c_str(), ArgList(v)), expected);
  }
}

TEST_F(SprintfTest, TemplatesChooseByArgument) {
  struct TRow {
    const char16_t* tmpl;
    int argCount;
    std::vector<TArg> args;
    const char* expected;
    int result;
  };
  const std::vector<TRow> rows = {
      {u"plain %d", 1, ArgList(5), "plain 5", kErrNone},
      {u"{#1:0=none|1=one|many}", 1, ArgList(0), "none", kErrNone},
      {u"{#1:0=none|1=one|many}", 1, ArgList(1), "one", kErrNone},
      {u"{#1:0=none|1=one|many}", 1, ArgList(7), "many", kErrNone},
      {u"{#1:2-4,7=few|-3--1=neg|other}", 1, ArgList(3), "few", kErrNone},
      {u"{#1:2-4,7=few|-3--1=neg|other}", 1, ArgList(7), "few", kErrNone},
      {u"{#1:2-4,7=few|-3--1=neg|other}", 1, ArgList(-2), "neg", kErrNone},
      {u"{#1:2-4,7=few|-3--1=neg|other}", 1, ArgList(5), "other", kErrNone},
      {u"{#1%10:3=ends in three|no}", 1, ArgList(1233), "ends in three", kErrNone},
      {u"{#1%10:7=seven|no}", 1, ArgList(-3), "seven", kErrNone},
      {u"{#1:1=a}", 1, ArgList(2), "", kErrNone},
      // The choice reads its argument without moving the position.
      {u"%d {#1:1=file|files} in %d", 2, ArgList(1, 9), "1 file in 9", kErrNone},
      {u"{#2:1=x|y}", 1, ArgList(1, 1), "y", kErrNone},
      {u"a{b{c}d}e", 0, {}, "abcde", kErrNone},
      {u"%{%|%}", 0, {}, "{|}", kErrNone},
      {u"{#1:1=a%|b|c}", 1, ArgList(1), "a|b", kErrNone},
      {u"{#1:1={#2:1=x|y}|z}", 2, ArgList(1, 0), "y", kErrNone},
      // Malformed choices print nothing; unclosed braces run to the end.
      {u"a{#x:1=b}c", 1, ArgList(1), "ac", kErrInvalidData},
      {u"a{#0:b}c", 1, ArgList(1), "ac", kErrInvalidData},
      {u"a{#1%0:b}c", 1, ArgList(1), "ac", kErrInvalidData},
      {u"a{b", 0, {}, "ab", kErrInvalidData},
  };
  for (const TRow& r : rows) {
    SCOPED_TRACE(Utf8(std::u16string(r.tmpl)));
    const Args list{r.args.data(), static_cast<int>(r.args.size())};
    const TString tmpl(r.tmpl);
    TString out(u"old");
    EXPECT_EQ(out.ParseTemplate(&tmpl, static_cast<unsigned short>(r.argCount), &list), r.result);
    EXPECT_EQ(Utf8(out), r.expected);
  }
  // SPrintf treats a format beginning with "{" as a template.
  EXPECT_EQ(Format(u"{#1:1=one|many} %d", ArgList(1)), "one 1");
  EXPECT_EQ(Format(u"x{#1:1=one|many}", ArgList(1)), "x{#1:1=one|many}");
  // Deep nesting is cut, never overflows.
  std::u16string deep(200, u'{');
  deep += u"x";
  deep += std::u16string(200, u'}');
  EXPECT_EQ(Format(deep.c_str(), {}), "");
}

TEST_F(SprintfTest, OrdinalsFromTheStringList) {
  const std::vector<std::pair<int, const char*>> rows = {
      {0, "0th"},     {1, "1st"},     {2, "2nd"},     {3, "3rd"},       {4, "4th"},
      {11, "11th"},   {12, "12th"},   {13, "13th"},   {21, "21st"},     {22, "22nd"},
      {101, "101st"}, {111, "111th"}, {112, "112th"}, {1003, "1,003rd"}};
  for (const auto& [n, expected] : rows) {
    SCOPED_TRACE(n);
    TString s;
    s.FormatOrdinal(n);
    EXPECT_EQ(Utf8(s), expected);
  }
  TString fromList;
  EXPECT_EQ(fromList.ParseTemplate(16000, static_cast<int>(Key("Ords")), 42, 2, 4), kErrNone);
  EXPECT_EQ(Utf8(fromList), "42nd");
  // Without the entry the string is empty.
  RMAddHostKList(16000, nullptr, 0);
  TString none(u"x");
  none.FormatOrdinal(2);
  EXPECT_EQ(Utf8(none), "");
  EXPECT_EQ(none.ParseTemplate(16000, static_cast<int>(Key("Ords")), 1, 1, 0),
            kErrResourceNameNotFound);
}

TEST_F(SprintfTest, ScanReadsBackWhatIsWritten) {
  {
    int a = 0, b = 0;
    EXPECT_EQ(TString(u"1,234,567 and -42").SScanf(u"%d and %d", &a, &b), 2);
    EXPECT_EQ(a, 1234567);
    EXPECT_EQ(b, -42);
  }
  {
    // Keyed files write "0x%x" and read with "%u".
    unsigned v = 0, w = 0;
    EXPECT_EQ(TString(u"0xff").SScanf(u"%u", &v), 1);
    EXPECT_EQ(v, 255u);
    EXPECT_EQ(TString(u"0xff").SScanf(u"0x%x", &w), 1);
    EXPECT_EQ(w, 255u);
    EXPECT_EQ(TString(u"0X1F").SScanf(u"%x", &w), 1);
    EXPECT_EQ(w, 31u);
    unsigned untouched = 77;
    EXPECT_EQ(TString(u"").SScanf(u"%u", &untouched), 0);
    EXPECT_EQ(untouched, 77u);
  }
  {
    int a = 0, b = 0;
    EXPECT_EQ(TString(u"1,2").SScanf(u"%d,%d", &a, &b), 2);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(TString(u"1,234").SScanf(u"%~d", &a), 1);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(TString(u"12,3456").SScanf(u"%d", &a), 1);
    EXPECT_EQ(a, 12);
  }
  {
    TString name, rest;
    int n = 0;
    EXPECT_EQ(TString(u"my file: 12 left over").SScanf(u"%s: %d%s", &name, &n, &rest), 3);
    EXPECT_EQ(Utf8(name), "my file");
    EXPECT_EQ(n, 12);
    EXPECT_EQ(Utf8(rest), " left over");
    EXPECT_EQ(TString(u"abcdef").SScanf(u"%3s%S", &name, &rest), 2);
    EXPECT_EQ(Utf8(name), "abc");
    EXPECT_EQ(Utf8(rest), "def");
    EXPECT_EQ(TString(u"50%off").SScanf(u"%s%%%s", &name, &rest), 2);
    EXPECT_EQ(Utf8(name), "50");
    EXPECT_EQ(Utf8(rest), "off");
  }
  {
    char16_t c = 0;
    unsigned code = 0;
    std::int64_t big = 0;
    std::uint64_t ubig = 0;
    unsigned fixed = 0;
    EXPECT_EQ(TString(u" Cfh.|-9,000,000,000|18,446,744,073,709,551,615|1,234.5")
                  .SScanf(u"%c%Y|%Ld|%H|%.2F", &c, &code, &big, &ubig, &fixed),
              5);
    EXPECT_EQ(c, u' ');
    EXPECT_EQ(code, Key("Cfh."));
    EXPECT_EQ(big, -9000000000);
    EXPECT_EQ(ubig, UINT64_MAX);
    EXPECT_EQ(fixed, 123450u);
  }
  {
    // "*" reads without storing; "%i" moves over out-pointers; a mismatch stops.
    int a = 0, b = 0, c = 0;
    EXPECT_EQ(TString(u"1 2 3").SScanf(u"%*d %d %-i%i%d", &a, &b), 2);
    EXPECT_EQ(a, 2);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(TString(u"7 x 8").SScanf(u"%d y %d", &a, &c), 1);
    EXPECT_EQ(TString(u"5").SScanf(u"%K%d", &a), 0);
    // Unfitting and missing out-pointers are not counted.
    TString s;
    EXPECT_EQ(TString(u"5 6").SScanf(u"%d %d", &s), 0);
    EXPECT_EQ(TString(u"5 6 7").SScanf(u"%d %d %d", &a), 1);
    short sh = 0;
    EXPECT_EQ(TString(u"70000").SScanf(u"%d", &sh), 1);
    EXPECT_EQ(sh, static_cast<short>(70000));
  }
  {
    QuarnelEnv()->lcid = kLcidDeDe;
    int a = 0;
    unsigned f = 0;
    EXPECT_EQ(TString(u"1.234.567 3,25").SScanf(u"%d %.2F", &a, &f), 2);
    EXPECT_EQ(a, 1234567);
    EXPECT_EQ(f, 325u);
  }
}

// Random values through SPrintf and back through SScanf.
TEST_F(SprintfTest, RoundTripProperty) {
  std::mt19937_64 rng(77);
  for (unsigned lcid : {kLcidEnUs, kLcidDeDe}) {
    QuarnelEnv()->lcid = lcid;
    for (int iter = 0; iter < 2000; ++iter) {
      const std::int32_t d = static_cast<std::int32_t>(rng() >> (rng() % 40));
      const std::uint32_t u = static_cast<std::uint32_t>(rng() >> (rng() % 40));
      const std::uint32_t x = static_cast<std::uint32_t>(rng());
      const std::int64_t h = static_cast<std::int64_t>(rng()) >> (rng() % 64);
      const char16_t c = static_cast<char16_t>(0x20 + rng() % 0xD000);
      std::u16string text;
      for (int k = static_cast<int>(rng() % 12); k > 0; --k)
        text += static_cast<char16_t>(0x20 + rng() % 0x300);
      const TString tstr(text.c_str());
      TString written;
      written.SPrintf(u"%d|%u|0x%x|%X|%h|%~d|%c%s", d, u, x, x, h, d, c, &tstr);
      SCOPED_TRACE(Utf8(written));
      std::int32_t d2 = 0, d3 = 0;
      std::uint32_t u2 = 0, x2 = 0, x3 = 0;
      std::int64_t h2 = 0;
      char16_t c2 = 0;
      TString text2;
      ASSERT_EQ(
          written.SScanf(u"%d|%u|0x%x|%X|%h|%~d|%c%s", &d2, &u2, &x2, &x3, &h2, &d3, &c2, &text2),
          8);
      EXPECT_EQ(d2, d);
      EXPECT_EQ(u2, u);
      EXPECT_EQ(x2, x);
      EXPECT_EQ(x3, x);
      EXPECT_EQ(h2, h);
      EXPECT_EQ(d3, d);
      EXPECT_EQ(c2, c);
      EXPECT_EQ(Utf8(text2), Utf8(tstr));
      // The keyed-file form.
      std::uint32_t k = 0;
      TString key;
      key.SPrintf(u"0x%x", u);
      ASSERT_EQ(key.SScanf(u"%u", &k), 1);
      EXPECT_EQ(k, u);
    }
  }
}

}  // namespace
