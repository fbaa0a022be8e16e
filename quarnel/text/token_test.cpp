#include "quarnel/text/token.h"

#include <gtest/gtest.h>

#include <string>

#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "tests/support/helpers.h"

namespace {

constexpr int kTokenList = 16005;

const ListEntries kListEntries = {
    {"Elps", "..."},       {"Tmrw", "tomorrow"},   {"Tody", "today"},
    {"PCPa", "PC path"},   {"McPa", "Mac path"},   {"UxPa", "Unix path"},
    {"PCcd", "PC folder"}, {"Mccd", "Mac folder"}, {"Uxcd", "Unix folder"},
    {"PCpp", "PC parent"}, {"Mcpp", "Mac parent"}, {"Uxpp", "Unix parent"}};

class TokenTest : public RecordingTest {
 protected:
  ScopedEnv env_;
  HostList list_{kTokenList, kListEntries};
};

// Every defined token in en-US and de-DE, and a few in other locales.
TEST_F(TokenTest, EveryTokenOfTheTable) {
  for (const auto& f : ReadTsv("tokens.tsv")) {
    SCOPED_TRACE("token " + f[0] + " locale " + f[1]);
    EXPECT_EQ(Utf8(TokenToString(static_cast<unsigned short>(std::stoi(f[0])),
                                 static_cast<unsigned>(std::stoul(f[1], nullptr, 16)))),
              f[2]);
  }
  EXPECT_EQ(Logged() + Asserted(), "");

  // Locale 0 is the default locale, read at each call.
  env_->lcid = kLcidDeDe;
  EXPECT_EQ(Utf8(TokenToString(1)), ",");
  EXPECT_EQ(Utf8(TokenToString(8, 0)), "Sonntag");
  env_->lcid = kLcidEnGb;
  EXPECT_EQ(Utf8(TokenToString(1, 0)), ".");
  // A locale without a table gives empty locale items, not an assertion
  // (Windows knows every locale: it-IT's separator).
  EXPECT_EQ(Utf8(TokenToString(1, 0x0410)), kOnWindows ? "," : "");
  EXPECT_EQ(Utf8(TokenToString(4, 0x0410)), "+");
  EXPECT_EQ(Asserted(), "");

  // Undefined tokens assert and give nothing.
  for (unsigned short token : {3, 63, 64, 65, 66, 67, 68, 69, 73, 74, 200, 0xFFFF}) {
    SCOPED_TRACE(token);
    ClearRecords();
    EXPECT_EQ(TokenToString(token, kLcidEnUs).Length(), 0);
    EXPECT_EQ(Asserted(), "token-352");
  }
}

TEST_F(TokenTest, MissingListEntriesGiveNothing) {
  // A list without "Tody" and "Uxpp": those tokens are empty, the rest found.
  ListEntries partial;
  for (const auto& e : kListEntries) {
    if (e.first != "Tody" && e.first != "Uxpp") partial.push_back(e);
  }
  list_.Set(partial);
  EXPECT_EQ(Utf8(TokenToString(16, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(72, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(15, kLcidEnUs)), "tomorrow");
  EXPECT_EQ(Utf8(TokenToString(70, kLcidEnUs)), "Unix path");

  // No list at all.
  RMAddHostKList(kTokenList, nullptr, 0);
  EXPECT_EQ(Utf8(TokenToString(0, kLcidEnUs)), "");
  EXPECT_EQ(Utf8(TokenToString(1, kLcidEnUs)), ".");
  EXPECT_EQ(Asserted(), "");
}

}  // namespace
