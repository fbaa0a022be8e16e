#include "quarnel/text/token.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "tests/support/recording_hooks.h"

namespace {

constexpr int kTokenList = 16005;

// Builds a string list: per entry a native 16-bit length L (tag and text), the
// tag most significant byte first, the text, a pad byte when L is odd; 0xFFFF
// ends the list.
std::vector<unsigned char> MakeList(
    const std::vector<std::pair<std::string, std::string>>& entries) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const uint16_t len = static_cast<uint16_t>(4 + text.size());
    const auto* l = reinterpret_cast<const unsigned char*>(&len);
    bytes.insert(bytes.end(), l, l + 2);
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  bytes.push_back(0xFF);
  bytes.push_back(0xFF);
  return bytes;
}

const std::vector<std::pair<std::string, std::string>> kListEntries = {
    {"Elps", "..."},         {"Tmrw", "tomorrow"},  {"Tody", "today"},      {"PCPa", "PC path"},
    {"McPa", "Mac path"},    {"UxPa", "Unix path"}, {"PCcd", "PC folder"},  {"Mccd", "Mac folder"},
    {"Uxcd", "Unix folder"}, {"PCpp", "PC parent"}, {"Mcpp", "Mac parent"}, {"Uxpp", "Unix parent"},
};

class TokenTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    list_ = MakeList(kListEntries);
    RMAddHostKList(kTokenList, list_.data(), static_cast<int>(list_.size()));
    savedLcid_ = QuarnelEnv()->lcid;
  }
  void TearDown() override {
    RMAddHostKList(kTokenList, nullptr, 0);
    QuarnelEnv()->lcid = savedLcid_;
    RecordingTest::TearDown();
  }
  std::vector<unsigned char> list_;
  unsigned savedLcid_ = 0;
};

struct TokenRow {
  unsigned short token;
  const char* enUs;  // UTF-8
  const char* deDe;
};

// Every defined token in en-US and de-DE.
const TokenRow kTokens[] = {
    {0, "...", "..."},
    {1, ".", ","},
    {2, ",", "."},
    {4, "+", "+"},
    {5, "-", "-"},
    {6, "AM", "AM"},
    {7, "PM", "PM"},
    {8, "Sunday", "Sonntag"},
    {9, "Monday", "Montag"},
    {10, "Tuesday", "Dienstag"},
    {11, "Wednesday", "Mittwoch"},
    {12, "Thursday", "Donnerstag"},
    {13, "Friday", "Freitag"},
    {14, "Saturday", "Samstag"},
    {15, "tomorrow", "tomorrow"},
    {16, "today", "today"},
    {17, "PC path", "PC path"},
    {18, "Mac path", "Mac path"},
    {19, "PC folder", "PC folder"},
    {20, "Mac folder", "Mac folder"},
    {21, "PC parent", "PC parent"},
    {22, "Mac parent", "Mac parent"},
    {23, "/", "."},
    {24, ":", ":"},
    {25, "0", "1"},
    {26, "0", "1"},
    {27, "0", "0"},
    {28, "0", "0"},
    {29, "Sun", "So."},
    {30, "Mon", "Mo."},
    {31, "Tue", "Di."},
    {32, "Wed", "Mi."},
    {33, "Thu", "Do."},
    {34, "Fri", "Fr."},
    {35, "Sat", "Sa."},
    {36, "January", "Januar"},
    {37, "February", "Februar"},
    {38, "March", "M\xC3\xA4rz"},
    {39, "April", "April"},
    {40, "May", "Mai"},
    {41, "June", "Juni"},
    {42, "July", "Juli"},
    {43, "August", "August"},
    {44, "September", "September"},
    {45, "October", "Oktober"},
    {46, "November", "November"},
    {47, "December", "Dezember"},
    {48, "Jan", "Jan"},
    {49, "Feb", "Feb"},
    {50, "Mar", "M\xC3\xA4r"},
    {51, "Apr", "Apr"},
    {52, "May", "Mai"},
    {53, "Jun", "Jun"},
    {54, "Jul", "Jul"},
    {55, "Aug", "Aug"},
    {56, "Sep", "Sep"},
    {57, "Oct", "Okt"},
    {58, "Nov", "Nov"},
    {59, "Dec", "Dez"},
    {60, "0", "1"},
    {61, "0", "1"},
    {62, "0", "0"},
    {70, "Unix path", "Unix path"},
    {71, "Unix folder", "Unix folder"},
    {72, "Unix parent", "Unix parent"},
};

TEST_F(TokenTest, EveryDefinedTokenInEnglishAndGerman) {
  ASSERT_EQ(std::size(kTokens), 73u - 8u);  // 3 and 63..69 are undefined
  for (const TokenRow& r : kTokens) {
    SCOPED_TRACE(testing::Message() << "token " << r.token);
    EXPECT_EQ(Utf8(TokenToString(r.token, kLcidEnUs)), r.enUs);
    EXPECT_EQ(Utf8(TokenToString(r.token, kLcidDeDe)), r.deDe);
  }
  EXPECT_TRUE(Assertions().empty());
  EXPECT_TRUE(Lines().empty());
}

TEST_F(TokenTest, OtherLocalesAndTheDefault) {
  struct Row {
    unsigned short token;
    unsigned locale;
    const char* text;
  } const rows[] = {
      {2, kLcidFrFr, "\xC2\xA0"},  // no-break space
      {37, kLcidFrFr, "f\xC3\xA9vrier"},
      {25, kLcidEnGb, "1"},
      {23, kLcidEnGb, "/"},
      {1, kLcidJaJp, "."},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "token " << r.token << " locale " << std::hex << r.locale);
    EXPECT_EQ(Utf8(TokenToString(r.token, r.locale)), r.text);
  }
  // Locale 0 is the default locale, read at each call.
  QuarnelEnv()->lcid = kLcidDeDe;
  EXPECT_EQ(Utf8(TokenToString(1)), ",");
  EXPECT_EQ(Utf8(TokenToString(8, 0)), "Sonntag");
  QuarnelEnv()->lcid = kLcidEnGb;
  EXPECT_EQ(Utf8(TokenToString(1, 0)), ".");
  // A locale without a table gives empty locale items, not an assertion
  // (Windows knows every locale: it-IT's separator).
  EXPECT_EQ(Utf8(TokenToString(1, 0x0410)), kOnWindows ? "," : "");
  EXPECT_EQ(Utf8(TokenToString(4, 0x0410)), "+");
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(TokenTest, UndefinedTokensAssertAndGiveNothing) {
  const unsigned short undefined[] = {3, 63, 64, 65, 66, 67, 68, 69, 73, 74, 200, 0xFFFF};
  for (unsigned short token : undefined) {
    SCOPED_TRACE(testing::Message() << "token " << token);
    ClearRecords();
    EXPECT_EQ(TokenToString(token, kLcidEnUs).Length(), 0);
    ASSERT_EQ(Assertions().size(), 1u);
    EXPECT_EQ(Assertions()[0], (AssertionSeen{"token", 352, ""}));
  }
}

TEST_F(TokenTest, MissingListEntriesGiveNothing) {
  // A list without "Tody" and "Uxpp": those tokens are empty, the rest found.
  std::vector<std::pair<std::string, std::string>> partial;
  for (const auto& e : kListEntries) {
    if (e.first != "Tody" && e.first != "Uxpp") partial.push_back(e);
  }
  const auto bytes = MakeList(partial);
  RMAddHostKList(kTokenList, bytes.data(), static_cast<int>(bytes.size()));
  EXPECT_EQ(Utf8(TokenToString(16, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(72, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(15, kLcidEnUs)), "tomorrow");
  EXPECT_EQ(Utf8(TokenToString(70, kLcidEnUs)), "Unix path");

  // No list at all.
  RMAddHostKList(kTokenList, nullptr, 0);
  EXPECT_EQ(Utf8(TokenToString(0, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(1, kLcidEnUs)), ".");
  EXPECT_TRUE(Assertions().empty());
}

}  // namespace
