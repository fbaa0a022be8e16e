#include "quarnel/platform/codepage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "tests/support/recording_hooks.h"

namespace {

std::string Hex(const std::string& bytes) {
  std::string out;
  char buf[4];
  for (unsigned char c : bytes) {
    std::snprintf(buf, sizeof buf, "%02X", c);
    out += buf;
  }
  return out;
}

std::string Unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

std::string UnitsHex(const std::u16string& s) {
  std::string out;
  char buf[8];
  for (char16_t u : s) {
    std::snprintf(buf, sizeof buf, "%s%04X", out.empty() ? "" : " ", static_cast<unsigned>(u));
    out += buf;
  }
  return out;
}

// Rows of a tab-separated data file, comment lines skipped.
std::vector<std::vector<std::string>> ReadRows(const char* name) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(std::string(QUARNEL_TEST_DATA_DIR) + "/" + name);
  EXPECT_TRUE(in.good()) << name;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::stringstream ss(line);
    std::string f;
    while (std::getline(ss, f, '\t')) fields.push_back(f);
    rows.push_back(fields);
  }
  return rows;
}

// Collects mismatches of a sweep so that a broken table reports a few rows
// instead of thousands of failures.
class Mismatches {
 public:
  void Add(const std::string& what) {
    if (count_++ < 20) text_ += what + "\n";
  }
  int count() const { return count_; }
  const std::string& text() const { return text_; }

 private:
  int count_ = 0;
  std::string text_;
};

std::u16string ToWide(unsigned cp, const std::string& bytes, unsigned flags = kMbPrecomposed) {
  char16_t buf[64] = {};
  const int n =
      UMultiByteToWideChar(cp, flags, bytes.data(), static_cast<int>(bytes.size()), buf, 64);
  return std::u16string(buf, static_cast<std::size_t>(n));
}

std::string ToBytes(unsigned cp, const std::u16string& units, int* used = nullptr,
                    unsigned flags = 0, const char* defaultChar = nullptr) {
  char buf[128] = {};
  const int n = UWideCharToMultiByte(cp, flags, units.data(), static_cast<int>(units.size()), buf,
                                     128, defaultChar, used);
  return std::string(buf, static_cast<std::size_t>(n));
}

class CodePageTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    savedAcp_ = QuarnelEnv()->acp;
    UClearFaults();
  }
  void TearDown() override {
    QuarnelEnv()->acp = savedAcp_;
    UClearFaults();
    RecordingTest::TearDown();
  }

 private:
  unsigned savedAcp_ = 0;
};

// Several threads meet the 932 tables for the first time together.
TEST_F(CodePageTest, Cp932FirstUseFromThreads) {
  std::vector<std::thread> threads;
  std::vector<std::u16string> results(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&results, t] { results[t] = ToWide(kCp932, "\x82\xA0\x88\xEA"); });
  for (auto& th : threads) th.join();
  for (const auto& r : results) EXPECT_EQ(UnitsHex(r), "3042 4E00");
}

// Every recorded MultiByteToWideChar answer: each single byte of 1252, 10000,
// 2 and 932, and every 932 lead byte with every trail byte.
TEST_F(CodePageTest, EveryRecordedByteAndPairConvertsAsWindowsDoes) {
  const auto rows = ReadRows("codepage_mb2wc.tsv");
  ASSERT_EQ(rows.size(), 12364u);
  Mismatches bad;
  for (const auto& row : rows) {
    const unsigned cp = static_cast<unsigned>(std::stoul(row[0]));
    const std::string bytes = Unhex(row[1]);
    const std::string want = row[2];
    const int len = static_cast<int>(bytes.size());
    const int size = UMultiByteToWideChar(cp, kMbPrecomposed, bytes.data(), len, nullptr, 0);
    char16_t out[16] = {};
    const int n = UMultiByteToWideChar(cp, kMbPrecomposed, bytes.data(), len, out, 16);
    const std::string got = UnitsHex(std::u16string(out, n > 0 ? n : 0));
    if (size != 1 || n != 1 || got != want)
      bad.Add(row[0] + " " + row[1] + ": want " + want + ", got " + got + " (size " +
              std::to_string(size) + ")");
  }
  EXPECT_EQ(bad.count(), 0) << bad.text();
}

// Every UTF-16 unit but the surrogates, through 1252, 10000 and 932: the
// bytes and the usedDefault flag Windows gives (best-fit mappings included).
TEST_F(CodePageTest, EveryUnitConvertsToRecordedBytes) {
  std::map<unsigned, std::map<unsigned, std::pair<std::string, int>>> listed;
  for (const auto& row : ReadRows("codepage_wc2mb.tsv"))
    listed[std::stoul(row[0])][std::stoul(row[1], nullptr, 16)] = {row[2], std::stoi(row[3])};
  ASSERT_EQ(listed[1252].size(), 697u);
  ASSERT_EQ(listed[10000].size(), 256u);
  ASSERT_EQ(listed[932].size(), 9485u);
  for (unsigned cp : {1252u, 10000u, 932u}) {
    SCOPED_TRACE("code page " + std::to_string(cp));
    Mismatches bad;
    for (unsigned u = 0; u < 0x10000; ++u) {
      if (u >= 0xD800 && u <= 0xDFFF) continue;
      auto it = listed[cp].find(u);
      const std::string wantBytes = it == listed[cp].end() ? "3F" : it->second.first;
      const int wantUsed = it == listed[cp].end() ? 1 : it->second.second;
      const char16_t unit = static_cast<char16_t>(u);
      char out[8] = {};
      int used = -1;
      const int n = UWideCharToMultiByte(cp, 0, &unit, 1, out, 8, nullptr, &used);
      const std::string got = Hex(std::string(out, n > 0 ? n : 0));
      const int size = UWideCharToMultiByte(cp, 0, &unit, 1, nullptr, 0, nullptr, nullptr);
      if (got != wantBytes || used != wantUsed || size != n) {
        char name[8];
        std::snprintf(name, sizeof name, "%04X", u);
        bad.Add(std::string(name) + ": want " + wantBytes + "/" + std::to_string(wantUsed) +
                ", got " + got + "/" + std::to_string(used) + " size " + std::to_string(size));
      }
    }
    EXPECT_EQ(bad.count(), 0) << bad.text();
  }
}

TEST_F(CodePageTest, LeadBytesOf932AreTheRecordedOnes) {
  const auto rows = ReadRows("codepage_lead.tsv");
  ASSERT_EQ(rows.size(), 256u);
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const auto b = static_cast<unsigned char>(std::stoul(row[0], nullptr, 16));
    EXPECT_EQ(UIsDBCSLeadByteEx(kCp932, b), std::stoi(row[1]));
    EXPECT_EQ(UIsDBCSLeadByteEx(kCp1252, b), 0);
    EXPECT_EQ(UIsDBCSLeadByteEx(kCpUtf8, b), 0);
  }
  QuarnelEnv()->acp = 932;
  EXPECT_EQ(UIsDBCSLeadByte(0x81), 1);
  EXPECT_EQ(UIsDBCSLeadByte(0x41), 0);
  QuarnelEnv()->acp = 1252;
  EXPECT_EQ(UIsDBCSLeadByte(0x81), 0);
}

// Lengths, size queries, terminators and short buffers, for every page the
// library converts itself and one through iconv.
TEST_F(CodePageTest, LengthsSizeQueriesAndShortBuffers) {
  struct Row {
    const char* name;
    unsigned cp;
    std::string bytes;     // without terminator
    std::u16string units;  // without terminator
    int fitsIn;            // units that fit a buffer one unit too small
  };
  const Row rows[] = {
      {"1252", kCp1252, "a\xE9\x80z", u"a\u00E9\u20ACz", 3},
      {"10000", kCpMacRoman, "a\x8E\xDB", u"a\u00E9\u20AC", 2},
      {"utf8", kCpUtf8, "a\xC3\xA9\xF0\x9F\x98\x80", u"a\u00E9\U0001F600", 2},
      {"932", kCp932, "a\x82\xA0\xB1", u"a\u3042\uFF71", 2},
      {"437", 437, "a\x82", u"a\u00E9", 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const int nb = static_cast<int>(r.bytes.size());
    const int nu = static_cast<int>(r.units.size());
    // Exact lengths: no terminator written or counted.
    EXPECT_EQ(UMultiByteToWideChar(r.cp, kMbPrecomposed, r.bytes.data(), nb, nullptr, 0), nu);
    EXPECT_EQ(ToWide(r.cp, r.bytes), r.units);
    EXPECT_EQ(UWideCharToMultiByte(r.cp, 0, r.units.data(), nu, nullptr, 0, nullptr, nullptr), nb);
    EXPECT_EQ(ToBytes(r.cp, r.units), r.bytes);
    // -1: up to and including the terminator.
    char16_t wide[32];
    std::fill(std::begin(wide), std::end(wide), u'#');
    EXPECT_EQ(UMultiByteToWideChar(r.cp, kMbPrecomposed, r.bytes.c_str(), -1, nullptr, 0), nu + 1);
    EXPECT_EQ(UMultiByteToWideChar(r.cp, kMbPrecomposed, r.bytes.c_str(), -1, wide, 32), nu + 1);
    EXPECT_EQ(std::u16string(wide, nu + 1), r.units + u'\0');
    char narrow[32];
    std::fill(std::begin(narrow), std::end(narrow), '#');
    EXPECT_EQ(UWideCharToMultiByte(r.cp, 0, r.units.c_str(), -1, narrow, 32, nullptr, nullptr),
              nb + 1);
    EXPECT_EQ(std::string(narrow, nb + 1), r.bytes + '\0');
    // One short: 0 and 122, and only whole characters written.
    std::fill(std::begin(wide), std::end(wide), u'#');
    USetLastError(0);
    EXPECT_EQ(UMultiByteToWideChar(r.cp, kMbPrecomposed, r.bytes.data(), nb, wide, nu - 1), 0);
    EXPECT_EQ(UGetLastError(), 122u);
    EXPECT_EQ(std::u16string(wide, r.fitsIn), r.units.substr(0, r.fitsIn));
    if (r.fitsIn < nu - 1) {
      EXPECT_EQ(wide[r.fitsIn], u'#');
    }
    USetLastError(0);
    EXPECT_EQ(UWideCharToMultiByte(r.cp, 0, r.units.data(), nu, narrow, nb - 1, nullptr, nullptr),
              0);
    EXPECT_EQ(UGetLastError(), 122u);
    // With -1 the terminator needs room too.
    USetLastError(0);
    EXPECT_EQ(UMultiByteToWideChar(r.cp, kMbPrecomposed, r.bytes.c_str(), -1, wide, nu), 0);
    EXPECT_EQ(UGetLastError(), 122u);
  }
}

TEST_F(CodePageTest, ShortBufferNeverSplitsACharacter) {
  char out[8];
  std::fill(std::begin(out), std::end(out), '#');
  // "a" + U+3042 (82 A0 in 932, E3 81 82 in UTF-8) into 2 bytes.
  EXPECT_EQ(UWideCharToMultiByte(kCp932, 0, u"a\u3042", 2, out, 2, nullptr, nullptr), 0);
  EXPECT_EQ(std::string(out, 2), "a#");
  std::fill(std::begin(out), std::end(out), '#');
  EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, 0, u"a\u3042", 2, out, 3, nullptr, nullptr), 0);
  EXPECT_EQ(std::string(out, 3), "a##");
  // Runs of ASCII stop exactly at the end of the room.
  std::fill(std::begin(out), std::end(out), '#');
  EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, 0, u"abcdef", 6, out, 3, nullptr, nullptr), 0);
  EXPECT_EQ(std::string(out, 4), "abc#");
  char16_t run[4] = {u'#', u'#', u'#', u'#'};
  EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, 0, "abcdef", 6, run, 3), 0);
  EXPECT_EQ(UGetLastError(), 122u);
  EXPECT_EQ(std::u16string(run, 4), u"abc#");
  EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, 0, "abc\xC3\xA9", 5, run, 4), 4);
  EXPECT_EQ(std::u16string(run, 4), u"abc\u00E9");
  char16_t wide[4] = {u'#', u'#', u'#', u'#'};
  EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, 0, "a\xF0\x9F\x98\x80", 5, wide, 2), 0);
  EXPECT_EQ(UGetLastError(), 122u);
  EXPECT_EQ(std::u16string(wide, 2), u"a#");
}

TEST_F(CodePageTest, BadParametersAndFlags) {
  char16_t wide[8];
  char narrow[8];
  const char16_t* w = u"ab";
  int usedSink = 0;
  struct Row {
    const char* name;
    int result;
    unsigned err;
  };
  const Row rows[] = {
      {"mb null source", UMultiByteToWideChar(kCp1252, 0, nullptr, 2, wide, 8), 87},
      {"mb length 0", UMultiByteToWideChar(kCp1252, 0, "ab", 0, wide, 8), 87},
      {"mb length -2", UMultiByteToWideChar(kCp1252, 0, "ab", -2, wide, 8), 87},
      {"mb negative room", UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, -1), 87},
      {"mb null destination", UMultiByteToWideChar(kCp1252, 0, "ab", 2, nullptr, 8), 87},
      {"mb unknown page", UMultiByteToWideChar(12345, 0, "ab", 2, wide, 8), 87},
      {"mb symbol page", UMultiByteToWideChar(42, 0, "ab", 2, wide, 8), 87},
      {"mb unknown flag", UMultiByteToWideChar(kCp1252, 0x100, "ab", 2, wide, 8), 1004},
      {"mb composite and precomposed",
       UMultiByteToWideChar(kCp1252, kMbPrecomposed | kMbComposite, "ab", 2, wide, 8), 1004},
      {"mb utf8 composite", UMultiByteToWideChar(kCpUtf8, kMbComposite, "ab", 2, wide, 8), 1004},
      {"wc null source", UWideCharToMultiByte(kCp1252, 0, nullptr, 2, narrow, 8, nullptr, nullptr),
       87},
      {"wc length 0", UWideCharToMultiByte(kCp1252, 0, w, 0, narrow, 8, nullptr, nullptr), 87},
      {"wc length -2", UWideCharToMultiByte(kCp1252, 0, w, -2, narrow, 8, nullptr, nullptr), 87},
      {"wc null destination", UWideCharToMultiByte(kCp1252, 0, w, 2, nullptr, 8, nullptr, nullptr),
       87},
      {"wc unknown page", UWideCharToMultiByte(12345, 0, w, 2, narrow, 8, nullptr, nullptr), 87},
      {"wc utf8 default char", UWideCharToMultiByte(kCpUtf8, 0, w, 2, narrow, 8, "?", nullptr), 87},
      {"wc utf8 used flag", UWideCharToMultiByte(kCpUtf8, 0, w, 2, narrow, 8, nullptr, &usedSink),
       87},
      {"wc utf8 best fit flag",
       UWideCharToMultiByte(kCpUtf8, kWcNoBestFitChars, w, 2, narrow, 8, nullptr, nullptr), 1004},
      {"wc invalid-chars flag on 1252",
       UWideCharToMultiByte(kCp1252, kWcErrInvalidChars, w, 2, narrow, 8, nullptr, nullptr), 1004},
      {"wc unknown flag", UWideCharToMultiByte(kCp1252, 0x1, w, 2, narrow, 8, nullptr, nullptr),
       1004},
  };
  // The rows ran while the table was built, so only their results can be
  // checked row by row; the last error is checked on a few calls run again.
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(r.result, 0);
  }
  USetLastError(0);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 0, wide, 8), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  USetLastError(0);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0x100, "ab", 2, wide, 8), 0);
  EXPECT_EQ(UGetLastError(), 1004u);
  USetLastError(0);
  int used = 0;
  EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, 0, w, 2, narrow, 8, nullptr, &used), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  USetLastError(0);
  EXPECT_EQ(UWideCharToMultiByte(12345, 0, w, 2, narrow, 8, nullptr, nullptr), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  // Success leaves the last error alone.
  USetLastError(4242);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, 8), 2);
  EXPECT_EQ(UGetLastError(), 4242u);
}

// Invalid UTF-8, as Windows reads it: one U+FFFD for each maximal ill-formed
// subsequence; with MB_ERR_INVALID_CHARS, failure 1113.
TEST_F(CodePageTest, InvalidUtf8BecomesReplacementCharacters) {
  struct Row {
    const char* name;
    std::string bytes;
    std::u16string units;
  };
  const Row rows[] = {
      {"lone continuation", "a\x80z", u"a\uFFFDz"},
      {"two continuations", "\x80\xBF", u"\uFFFD\uFFFD"},
      {"overlong two-byte", "\xC0\x80", u"\uFFFD\uFFFD"},
      {"C1 lead", "\xC1\xBF", u"\uFFFD\uFFFD"},
      {"overlong three-byte", "\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"above U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"F5 lead", "\xF5\x80", u"\uFFFD\uFFFD"},
      {"FE FF", "\xFE\xFF", u"\uFFFD\uFFFD"},
      {"truncated three-byte at end", "a\xE2\x82", u"a\uFFFD"},
      {"truncated three-byte before ASCII",
       "\xE2\x82"
       "A",
       u"\uFFFDA"},
      {"truncated four-byte",
       "\xF0\x9F\x98"
       "b",
       u"\uFFFDb"},
      {"lead then lead", "\xC3\xC3\xA9", u"\uFFFD\u00E9"},
      {"valid neighbours", "\xE2\x82\xAC\xFF\xF0\x9F\x98\x80", u"\u20AC\uFFFD\U0001F600"},
      {"largest", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
      {"U+FFFF", "\xEF\xBF\xBF", u"\uFFFF"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const int len = static_cast<int>(r.bytes.size());
    EXPECT_EQ(UnitsHex(ToWide(kCpUtf8, r.bytes, 0)), UnitsHex(r.units));
    EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, 0, r.bytes.data(), len, nullptr, 0),
              static_cast<int>(r.units.size()));
    const bool valid = r.units.find(u'\uFFFD') == std::u16string::npos;
    USetLastError(0);
    const int strict =
        UMultiByteToWideChar(kCpUtf8, kMbErrInvalidChars, r.bytes.data(), len, nullptr, 0);
    EXPECT_EQ(strict, valid ? static_cast<int>(r.units.size()) : 0);
    EXPECT_EQ(UGetLastError(), valid ? 0u : 1113u);
  }
}

TEST_F(CodePageTest, LoneSurrogatesToUtf8) {
  struct Row {
    const char* name;
    std::u16string units;
    std::string bytes;
  };
  const Row rows[] = {
      {"lone high", u"a\xD800z", "a\xEF\xBF\xBDz"},
      {"lone low", std::u16string(1, 0xDC00), "\xEF\xBF\xBD"},
      {"high at end", std::u16string(1, 0xDBFF), "\xEF\xBF\xBD"},
      {"reversed pair", std::u16string({0xDC00, 0xD800}), "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"pair", u"\U0001F600", "\xF0\x9F\x98\x80"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(Hex(ToBytes(kCpUtf8, r.units)), Hex(r.bytes));
    const bool valid = r.bytes.find("\xEF\xBF\xBD") == std::string::npos;
    USetLastError(0);
    const int n =
        UWideCharToMultiByte(kCpUtf8, kWcErrInvalidChars, r.units.data(),
                             static_cast<int>(r.units.size()), nullptr, 0, nullptr, nullptr);
    EXPECT_EQ(n, valid ? static_cast<int>(r.bytes.size()) : 0);
    EXPECT_EQ(UGetLastError(), valid ? 0u : 1113u);
  }
}

// Model test: random valid text (all planes, surrogate pairs included) goes
// to UTF-8 and back unchanged, and the UTF-8 matches an independent encoder.
TEST_F(CodePageTest, Utf8RoundTripsRandomText) {
  std::mt19937 rng(20240611);
  for (int trial = 0; trial < 2000; ++trial) {
    std::u16string text;
    const int len = 1 + static_cast<int>(rng() % 40);
    for (int i = 0; i < len; ++i) {
      char32_t c;
      switch (rng() % 4) {
        case 0:
          c = rng() % 0x80;
          break;
        case 1:
          c = 0x80 + rng() % 0x780;
          break;
        case 2:
          c = 0x800 + rng() % 0xF800;
          break;
        default:
          c = 0x10000 + rng() % 0x100000;
          break;
      }
      if (c >= 0xD800 && c <= 0xDFFF) c = 0xE000;
      if (c >= 0x10000) {
        text += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
        text += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
      } else {
        text += static_cast<char16_t>(c);
      }
    }
    SCOPED_TRACE("trial " + std::to_string(trial) + ": " + UnitsHex(text));
    const int n = static_cast<int>(text.size());
    const int bytes =
        UWideCharToMultiByte(kCpUtf8, 0, text.data(), n, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(bytes), '\0');
    ASSERT_EQ(
        UWideCharToMultiByte(kCpUtf8, 0, text.data(), n, utf8.data(), bytes, nullptr, nullptr),
        bytes);
    ASSERT_EQ(utf8, Utf8(text));
    const int units =
        UMultiByteToWideChar(kCpUtf8, kMbErrInvalidChars, utf8.data(), bytes, nullptr, 0);
    std::u16string back(static_cast<std::size_t>(units), u'\0');
    ASSERT_EQ(
        UMultiByteToWideChar(kCpUtf8, kMbErrInvalidChars, utf8.data(), bytes, back.data(), units),
        units);
    ASSERT_EQ(back, text);
  }
}

// Model test: random bytes through the single-byte pages convert to exactly
// one unit each and come back unchanged.
TEST_F(CodePageTest, SingleBytePagesRoundTripRandomBytes) {
  std::mt19937 rng(7);
  for (unsigned cp : {kCp1252, kCpMacRoman, kCpMacCp}) {
    for (int trial = 0; trial < 200; ++trial) {
      std::string bytes;
      const int len = 1 + static_cast<int>(rng() % 64);
      for (int i = 0; i < len; ++i) bytes += static_cast<char>(rng() % 256);
      SCOPED_TRACE(std::to_string(cp) + ": " + Hex(bytes));
      const std::u16string wide = ToWide(cp, bytes);
      ASSERT_EQ(wide.size(), bytes.size());
      int used = -1;
      ASSERT_EQ(ToBytes(cp, wide, &used), bytes);
      ASSERT_EQ(used, 0);
    }
  }
}

TEST_F(CodePageTest, Cp932InvalidInput) {
  struct Row {
    const char* name;
    std::string bytes;
    std::u16string units;
    bool valid;
  };
  const Row rows[] = {
      {"pair", "\x88\xEA", u"\u4E00", true},
      {"lead at end", "a\x81", u"a\u30FB", false},
      {"lead before a non-trail byte", "\x81 z", u"\u30FB z", false},
      {"lead before the terminator", std::string("\x81\0", 2), std::u16string({0x30FB, 0}), false},
      {"pair that is no character", "\x85\x40", u"\u30FB", false},
      {"trail 7F", "\x81\x7F", u"\u30FB", false},
      {"half-width katakana", "\xB1\xDF", u"\uFF71\uFF9F", true},
      {"byte 80", "\x80", u"\u0080", true},
      {"byte A0", "\xA0", u"\uF8F0", false},
      {"byte FF", "\xFF", u"\uF8F3", false},
      {"user-defined area", "\xF0\x40", u"\uE000", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(UnitsHex(ToWide(kCp932, r.bytes)), UnitsHex(r.units));
    USetLastError(0);
    const int n = UMultiByteToWideChar(kCp932, kMbErrInvalidChars, r.bytes.data(),
                                       static_cast<int>(r.bytes.size()), nullptr, 0);
    EXPECT_EQ(n, r.valid ? static_cast<int>(r.units.size()) : 0);
    EXPECT_EQ(UGetLastError(), r.valid ? 0u : 1113u);
  }
}

// Default characters, usedDefault and WC_NO_BEST_FIT_CHARS.
TEST_F(CodePageTest, DefaultCharacterAndBestFit) {
  struct Row {
    const char* name;
    unsigned cp;
    unsigned flags;
    const char* defaultChar;
    std::u16string units;
    std::string bytes;
    int used;
  };
  const Row rows[] = {
      {"1252 best fit", kCp1252, 0, nullptr, u"\u0100\u00E9", "A\xE9", 0},
      {"1252 no best fit", kCp1252, kWcNoBestFitChars, nullptr, u"\u0100\u00E9", "?\xE9", 1},
      {"1252 own default", kCp1252, 0, "*", u"x\u4E00", "x*", 1},
      {"1252 surrogate pair", kCp1252, 0, nullptr, u"\U0001F600", "??", 1},
      {"1252 undefined bytes' units", kCp1252, kWcNoBestFitChars, nullptr, u"\u0081\u009D",
       "\x81\x9D", 0},
      {"10000 euro", kCpMacRoman, 0, nullptr, u"\u20AC\uF8FF\u00A4", "\xDB\xF0?", 1},
      {"932 best fit", kCp932, 0, nullptr, u"\u00A5\u00E9",
       "\x5C"
       "e",
       0},
      {"932 no best fit", kCp932, kWcNoBestFitChars, nullptr, u"\u00E9\u3042", "?\x82\xA0", 1},
      {"932 two-byte default", kCp932, 0, "\x81\x45", u"a\u0100", "a\x81\x45", 1},
      {"932 unmapped", kCp932, 0, nullptr, u"\u2014", "?", 1},
      {"437 through iconv", 437, 0, nullptr, u"\u00E9\u4E00", "\x82?", 1},
      {"437 own default", 437, 0, "#", u"\u4E00", "#", 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    int used = -1;
    EXPECT_EQ(Hex(ToBytes(r.cp, r.units, &used, r.flags, r.defaultChar)), Hex(r.bytes));
    EXPECT_EQ(used, r.used);
    // The size query reports the same flag.
    used = -1;
    EXPECT_EQ(UWideCharToMultiByte(r.cp, r.flags, r.units.data(), static_cast<int>(r.units.size()),
                                   nullptr, 0, r.defaultChar, &used),
              static_cast<int>(r.bytes.size()));
    EXPECT_EQ(used, r.used);
  }
}

TEST_F(CodePageTest, SystemPageComesFromTheEnvironmentRecord) {
  const std::string e = "\xC3\xA9";  // one character in UTF-8, two in 1252
  QuarnelEnv()->acp = kCpUtf8;
  EXPECT_EQ(UGetACP(), 65001u);
  EXPECT_EQ(ToWide(kCpAcp, e), u"\u00E9");
  EXPECT_EQ(ToWide(kCpThreadAcp, e), u"\u00E9");
  QuarnelEnv()->acp = kCp1252;
  EXPECT_EQ(UGetACP(), 1252u);
  EXPECT_EQ(ToWide(kCpAcp, e), u"\u00C3\u00A9");
  // CP_OEMCP is 437; CP_MACCP is 10000.
  EXPECT_EQ(ToWide(kCpOemCp, "\x82"), u"\u00E9");
  EXPECT_EQ(ToWide(kCpMacCp, "\x8E"), u"\u00E9");
}

TEST_F(CodePageTest, FaultSeamFailsChosenCalls) {
  char16_t wide[8];
  char narrow[8];
  UFailCall(UCall::kMultiByteToWideChar, 2, 8);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, 8), 2);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, 8), 0);
  EXPECT_EQ(UGetLastError(), 8u);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, 8), 2);
  UFailCall(UCall::kWideCharToMultiByte, 1, 1113);
  EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, 0, u"ab", 2, narrow, 8, nullptr, nullptr), 0);
  EXPECT_EQ(UGetLastError(), 1113u);
  EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, 0, u"ab", 2, narrow, 8, nullptr, nullptr), 2);
}

TEST_F(CodePageTest, CodePageInfoAgreesWithWindows) {
  QuarnelEnv()->acp = kCp1252;
  struct Row {
    unsigned cp;
    int ret;
    unsigned size;
    std::string leads;  // the LeadByte array up to its two zeros
  } const rows[] = {
      // As Windows answers.
      {1252, 1, 1, ""},
      {10000, 1, 1, ""},
      {2, 1, 1, ""},
      {932, 1, 2, "\x81\x9F\xE0\xFC"},
      {437, 1, 1, ""},
      {850, 1, 1, ""},
      {65001, 1, 4, ""},
      {65000, 1, 5, ""},
      {42, 0, 0, ""},
      // The system pages, and the double-byte pages the lead-byte test knows.
      {kCpAcp, 1, 1, ""},
      {kCpOemCp, 1, 1, ""},
      {936, 1, 2, "\x81\xFE"},
      {950, 1, 2, "\x81\xFE"},
      {12345, 0, 0, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.cp);
    UCPINFO info;
    std::memset(&info, 0xEE, sizeof info);
    USetLastError(0);
    ASSERT_EQ(UGetCPInfo(r.cp, &info), r.ret);
    if (r.ret == 0) {
      EXPECT_EQ(UGetLastError(), 87u);
      EXPECT_EQ(info.MaxCharSize, 0xEEEEEEEEu);
      continue;
    }
    EXPECT_EQ(info.MaxCharSize, r.size);
    EXPECT_EQ(info.DefaultChar[0], '?');
    EXPECT_EQ(info.DefaultChar[1], 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(info.LeadByte), r.leads.size() + 2),
              r.leads + std::string(2, '\0'));
  }
  EXPECT_EQ(UGetCPInfo(kCp1252, nullptr), 0);
  EXPECT_EQ(ToWide(65000, "Hi+AN8-"), u"Hi\u00DF");
}

}  // namespace
