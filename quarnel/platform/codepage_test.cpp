#include "quarnel/platform/codepage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "tests/support/helpers.h"
#include "tests/support/tsv_kind.h"

namespace {

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
  ScopedEnv env_;
};

// Several threads meet the 932 tables for the first time together.
TEST_F(CodePageTest, Cp932FirstUseFromThreads) {
  std::vector<std::thread> threads;
  std::vector<std::u16string> results(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&results, t] { results[t] = ToWide(kCp932, "\x82\xA0\x88\xEA"); });
  for (auto& th : threads) th.join();
  for (const auto& r : results) EXPECT_EQ(Hex16(r), "3042 4E00");
}

// Every recorded MultiByteToWideChar answer: each single byte of 1252, 10000,
// 2 and 932, and every 932 lead byte with every trail byte.
TEST_F(CodePageTest, EveryRecordedByteAndPairConvertsAsWindowsDoes) {
  const auto rows = ReadTsv("codepage_mb2wc.tsv");
  for (const auto& row : rows) {
    const unsigned cp = static_cast<unsigned>(std::stoul(row[0]));
    const std::string bytes = Unhex(row[1]);
    const int len = static_cast<int>(bytes.size());
    char16_t out[16] = {};
    ASSERT_EQ(UMultiByteToWideChar(cp, kMbPrecomposed, bytes.data(), len, nullptr, 0), 1)
        << row[0] << " " << row[1];
    ASSERT_EQ(UMultiByteToWideChar(cp, kMbPrecomposed, bytes.data(), len, out, 16), 1)
        << row[0] << " " << row[1];
    ASSERT_EQ(Hex16(std::u16string(out, 1)), row[2]) << row[0] << " " << row[1];
  }
}

// Every UTF-16 unit but the surrogates, through 1252, 10000 and 932: the
// bytes and the usedDefault flag Windows gives (best-fit mappings included).
TEST_F(CodePageTest, EveryUnitConvertsToRecordedBytes) {
  std::map<unsigned, std::map<unsigned, std::pair<std::string, int>>> listed;
  for (const auto& row : ReadTsv("codepage_wc2mb.tsv"))
    listed[std::stoul(row[0])][std::stoul(row[1], nullptr, 16)] = {row[2], std::stoi(row[3])};
  ASSERT_EQ(listed[1252].size(), 697u);
  ASSERT_EQ(listed[10000].size(), 256u);
  ASSERT_EQ(listed[932].size(), 9485u);
  for (unsigned cp : {1252u, 10000u, 932u}) {
    SCOPED_TRACE("code page " + std::to_string(cp));
    for (unsigned u = 0; u < 0x10000; ++u) {
      if (u >= 0xD800 && u <= 0xDFFF) continue;
      auto it = listed[cp].find(u);
      const bool mapped = it != listed[cp].end();
      const char16_t unit = static_cast<char16_t>(u);
      char out[8] = {};
      int used = -1;
      const int n = UWideCharToMultiByte(cp, 0, &unit, 1, out, 8, nullptr, &used);
      ASSERT_EQ(Hex(std::string(out, n > 0 ? n : 0)), mapped ? it->second.first : "3F")
          << std::hex << u;
      ASSERT_EQ(used, mapped ? it->second.second : 1) << std::hex << u;
      ASSERT_EQ(UWideCharToMultiByte(cp, 0, &unit, 1, nullptr, 0, nullptr, nullptr), n)
          << std::hex << u;
    }
  }
}

TEST_F(CodePageTest, LeadBytesOf932AreTheRecordedOnes) {
  const auto rows = ReadTsv("codepage_lead.tsv");
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
    if (r.cp == kCpUtf8 &&
        WineDiffers("MultiByteToWideChar(65001) fills a short buffer, half a pair too")) {
      continue;
    }
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

// Null or empty sources, negative rooms, null destinations, unknown pages
// and flags the page does not take: each refused with 0 and its error.
TEST_F(CodePageTest, BadParametersAndFlags) {
  struct Row {
    bool toBytes = false;  // WideCharToMultiByte, else MultiByteToWideChar
    unsigned cp = kCp1252, flags = 0;
    int len = 2;
    bool nullSource = false, nullTarget = false;
    int room = 8;
    const char* defaultChar = nullptr;
    bool usedFlag = false;
    unsigned error = 87;
    bool wineTakes = false;  // Wine converts where Windows refuses
  };
  const Row rows[] = {
      {.nullSource = true},
      {.len = 0},
      {.len = -2, .wineTakes = true},
      {.room = -1},
      {.nullTarget = true},
      {.cp = 12345},
      {.cp = 42, .wineTakes = true},
      {.flags = 0x100, .error = 1004},
      {.flags = kMbPrecomposed | kMbComposite, .error = 1004, .wineTakes = true},
      {.cp = kCpUtf8, .flags = kMbComposite, .error = 1004, .wineTakes = true},
      {.toBytes = true, .nullSource = true},
      {.toBytes = true, .len = 0},
      {.toBytes = true, .len = -2, .wineTakes = true},
      {.toBytes = true, .nullTarget = true},
      {.toBytes = true, .cp = 12345},
      {.toBytes = true, .cp = kCpUtf8, .defaultChar = "?", .wineTakes = true},
      {.toBytes = true, .cp = kCpUtf8, .usedFlag = true, .wineTakes = true},
      {.toBytes = true,
       .cp = kCpUtf8,
       .flags = kWcNoBestFitChars,
       .error = 1004,
       .wineTakes = true},
      {.toBytes = true, .flags = kWcErrInvalidChars, .error = 1004, .wineTakes = true},
      {.toBytes = true, .flags = 0x1, .error = 1004},
  };
  char16_t wide[8];
  char narrow[8];
  int used = 0;
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    const Row& r = rows[i];
    if (r.wineTakes &&
        WineDiffers("MultiByteToWideChar and WideCharToMultiByte take lengths below -1, flags "
                    "the page does not have, and a default character for UTF-8")) {
      continue;
    }
    USetLastError(0);
    const int n = r.toBytes ? UWideCharToMultiByte(r.cp, r.flags, r.nullSource ? nullptr : u"ab",
                                                   r.len, r.nullTarget ? nullptr : narrow, r.room,
                                                   r.defaultChar, r.usedFlag ? &used : nullptr)
                            : UMultiByteToWideChar(r.cp, r.flags, r.nullSource ? nullptr : "ab",
                                                   r.len, r.nullTarget ? nullptr : wide, r.room);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(UGetLastError(), r.error);
  }
  // Success leaves the last error alone.
  USetLastError(4242);
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "ab", 2, wide, 8), 2);
  EXPECT_EQ(UGetLastError(), 4242u);
}

// Invalid UTF-8 and lone surrogates, as Windows converts them.
TEST_F(CodePageTest, Utf8OfTheCaseFile) {
  const auto rows = ReadTsv("utf8.tsv");
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0] + " " + r[1]);
    if ((r[1] == "E08080" || r[1] == "EDA080" || r[1] == "F4908080") &&
        WineDiffers("MultiByteToWideChar(65001) gives one U+FFFD per byte of an overlong form, "
                    "an encoded surrogate or a value above U+10FFFF")) {
      continue;
    }
    const bool valid = r[3] == "1";
    USetLastError(0);
    if (r[0] == "M") {
      const std::string bytes = Unhex(r[1]);
      const int len = static_cast<int>(bytes.size());
      const std::u16string units = ToWide(kCpUtf8, bytes, 0);
      EXPECT_EQ(Hex16(units), r[2]);
      EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, 0, bytes.data(), len, nullptr, 0),
                static_cast<int>(units.size()));
      EXPECT_EQ(UMultiByteToWideChar(kCpUtf8, kMbErrInvalidChars, bytes.data(), len, nullptr, 0),
                valid ? static_cast<int>(units.size()) : 0);
    } else {
      const std::u16string units = Unhex16(r[1]);
      EXPECT_EQ(Hex(ToBytes(kCpUtf8, units)), r[2]);
      EXPECT_EQ(UWideCharToMultiByte(kCpUtf8, kWcErrInvalidChars, units.data(),
                                     static_cast<int>(units.size()), nullptr, 0, nullptr, nullptr),
                valid ? static_cast<int>(r[2].size() / 2) : 0);
    }
    EXPECT_EQ(UGetLastError(), valid ? 0u : 1113u);
  }
}

TEST_F(CodePageTest, Cp932InvalidInput) {
  for (const auto& r : ReadTsvKind("codepage_cases.tsv", "932")) {
    SCOPED_TRACE(r[0]);
    if (r[0] == "lead before a non-trail byte" &&
        WineDiffers("MultiByteToWideChar(932) takes a lead byte and the next byte together")) {
      continue;
    }
    const std::string bytes = Unhex(r[1]);
    const bool valid = r[3] == "1";
    EXPECT_EQ(Hex16(ToWide(kCp932, bytes)), r[2]);
    USetLastError(0);
    const int n = UMultiByteToWideChar(kCp932, kMbErrInvalidChars, bytes.data(),
                                       static_cast<int>(bytes.size()), nullptr, 0);
    EXPECT_EQ(n, valid ? static_cast<int>(Unhex16(r[2]).size()) : 0);
    EXPECT_EQ(UGetLastError(), valid ? 0u : 1113u);
  }
}

// Default characters, usedDefault and WC_NO_BEST_FIT_CHARS.
TEST_F(CodePageTest, DefaultCharacterAndBestFit) {
  for (const auto& r : ReadTsvKind("codepage_cases.tsv", "DEF")) {
    SCOPED_TRACE(r[0]);
    const unsigned cp = std::stoul(r[1]), flags = std::stoul(r[2]);
    const std::string defaultChar = Unhex(r[3]);
    const char* def = r[3] == "-" ? nullptr : defaultChar.c_str();
    const std::u16string units = Unhex16(r[4]);
    int used = -1;
    EXPECT_EQ(Hex(ToBytes(cp, units, &used, flags, def)), r[5]);
    EXPECT_EQ(used, std::stoi(r[6]));
    // The size query reports the same flag.
    used = -1;
    EXPECT_EQ(UWideCharToMultiByte(cp, flags, units.data(), static_cast<int>(units.size()), nullptr,
                                   0, def, &used),
              static_cast<int>(r[5].size() / 2));
    EXPECT_EQ(used, std::stoi(r[6]));
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
  for (const auto& r : ReadTsvKind("codepage_cases.tsv", "INFO")) {
    SCOPED_TRACE(r[0]);
    const int ret = std::stoi(r[1]);
    const std::string leads = r[3] == "-" ? "" : Unhex(r[3]);
    UCPINFO info;
    std::memset(&info, 0xEE, sizeof info);
    USetLastError(0);
    ASSERT_EQ(UGetCPInfo(std::stoul(r[0]), &info), ret);
    if (ret == 0) {
      EXPECT_EQ(UGetLastError(), 87u);
      EXPECT_EQ(info.MaxCharSize, 0xEEEEEEEEu);
      continue;
    }
    EXPECT_EQ(info.MaxCharSize, std::stoul(r[2]));
    EXPECT_EQ(info.DefaultChar[0], '?');
    EXPECT_EQ(info.DefaultChar[1], 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(info.LeadByte), leads.size() + 2),
              leads + std::string(2, '\0'));
  }
  EXPECT_EQ(UGetCPInfo(kCp1252, nullptr), 0);
  EXPECT_EQ(ToWide(65000, "Hi+AN8-", 0), u"Hi\u00DF");  // UTF-7 takes no flags
}

}  // namespace
