// The default resource module: every library error code prints its own
// English message with %E once "vellores.dll" is loaded, the library's words
// and token names come from it, and without it %E falls back to entry '0000'.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/module.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/token.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

constexpr unsigned Key(const char (&k)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(k[3]));
}

std::string ErrorText(int err) {
  TString s;
  s.SPrintf(u"%E", err);
  return Utf8(s);
}

std::string Words(int listId, const char (&key)[5]) {
  return Utf8(TString(static_cast<unsigned short>(listId), Key(key)));
}

// Every code the library defines: the mapping tables' codes, and the low
// codes of its own modules.
const std::vector<int> kLibraryCodes = {
    -1001, -1010, -1011, -1012, -1013, -1014, -1015, -1016, -1017, -1018, -1019, -1020,
    -1021, -1022, -1023, -1024, -1025, -1026, -1050, -1051, -1052, -1100, -1101, -1102,
    -1103, -1104, -1105, -1106, -1107, -1108, -1109, -1110, -1111, -1112, -1113, -1114,
    -1115, -1116, -1118, -1119, -1120, -1121, -1123, -1124, -1126, -1201,
};
const std::vector<int> kLowCodes = {
    -610, -611, -612, -625, -626, -630, -631, -632, -635, -636, -637, -641, -642, -643,
    -644, -645, -646, -647, -648, -649, -690, -691, -692, -693, -694, -695, -696,
};

class VelloresTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    saved_ = QuarnelEnv()->appFolder;
    QuarnelEnv()->appFolder = QUARNEL_VELLORES_DIR;
  }
  void TearDown() override {
    TString name(u"vellores.dll");
    while (UGetModuleHandle(name.Text()) != nullptr) DLUnloadLib(&name);
    QuarnelEnv()->appFolder = saved_;
    RecordingTest::TearDown();
  }
  int LoadVellores() {
    TString name(u"vellores.dll");
    return DLLoadLib(&name);
  }
  std::string saved_;
};

TEST_F(VelloresTest, EveryLibraryCodePrintsItsOwnMessage) {
  // Without the module: the '0000' entry of whatever list 16000 there is.
  EXPECT_EQ(ErrorText(-1115), "");
  const std::vector<unsigned char> fallback = {11,  0,   '0', '0', '0', '0', 'n',  'o',
                                               ' ', 't', 'e', 'x', 't', 0,   0xFF, 0xFF};
  RMAddHostKList(16000, fallback.data(), static_cast<int>(fallback.size()));
  for (int code : kLibraryCodes) EXPECT_EQ(ErrorText(code), "no text") << code;

  ASSERT_EQ(LoadVellores(), kErrNone);
  // The default module's list 16000 comes before the host's.
  const std::string unidentified = ErrorText(-1000);
  EXPECT_EQ(unidentified, "Unidentified error");
  std::set<std::string> seen;
  for (const std::vector<int>* codes : {&kLibraryCodes, &kLowCodes}) {
    for (int code : *codes) {
      SCOPED_TRACE(code);
      const std::string text = ErrorText(code);
      EXPECT_FALSE(text.empty());
      EXPECT_NE(text, unidentified);
      EXPECT_TRUE(seen.insert(text).second) << text;
    }
  }
  EXPECT_EQ(ErrorText(kErrDiskFull), "Disk full");
  EXPECT_EQ(ErrorText(kErrMemNotObtained), "Memory could not be obtained");
  EXPECT_EQ(ErrorText(kErrPersistTooNew), "Record needs a newer version of the program");
  // Codes nobody defines fall back to '0000'.
  EXPECT_EQ(ErrorText(-1117), unidentified);
  EXPECT_EQ(ErrorText(-650), unidentified);
  EXPECT_EQ(ErrorText(-5), unidentified);
  TString cut;
  cut.SPrintf(u"[%.4E]", kErrDiskFull);
  EXPECT_EQ(Utf8(cut), "[Disk]");

  unsigned short list = 0;
  unsigned key = 0;
  EXPECT_EQ(RMGetErrID(-625, &list, &key), 1);
  EXPECT_EQ(list, 16049);
  EXPECT_EQ(key, Key("0025"));

  TString name(u"vellores.dll");
  DLUnloadLib(&name);
  EXPECT_EQ(ErrorText(-1115), "no text");
  EXPECT_EQ(ErrorText(-625), "no text");
  RMAddHostKList(16000, nullptr, 0);
}

TEST_F(VelloresTest, LoadsWithItsRangesAndPassesTheCheck) {
  ASSERT_EQ(LoadVellores(), kErrNone);
  // It carries its symbol map, so loading it logs nothing.
  EXPECT_TRUE(Lines().empty()) << Lines().front();
  std::vector<RMRangeRecord> ranges(static_cast<std::size_t>(RMGetRanges(nullptr, 0)));
  RMGetRanges(ranges.data(), static_cast<int>(ranges.size()));
  ASSERT_EQ(ranges.size(), 2u);
  EXPECT_EQ(ranges[1].firstRes, 16000);
  EXPECT_EQ(ranges[1].lastRes, 16050);
  EXPECT_EQ(ranges[1].firstErr, -600);
  EXPECT_EQ(ranges[1].lastErr, -700);
  TString name(u"vellores.dll");
  EXPECT_EQ(DLCheckLib(&name), kErrNone);
}

TEST_F(VelloresTest, WordsTokensAndOrdinals) {
  ASSERT_EQ(LoadVellores(), kErrNone);
  EXPECT_EQ(Words(16000, "Nevr"), "Never");
  EXPECT_EQ(Words(16000, "Zero"), "Zero");
  EXPECT_EQ(Words(16010, "Rcyl"), "$Recycle.Bin");
  EXPECT_EQ(Words(16020, "Name"), "Vellomarch");
  EXPECT_EQ(Words(16040, "LgFl"), "assert_log.utx");
  EXPECT_EQ(Words(16040, "LogH").substr(0, 39), "Vellomarch assertion and exception log\n");
  EXPECT_EQ(Words(16001, "BtOK"), "OK");

  TString sizes;
  sizes.SPrintf(u"%K|%k|%LK|%LK|%LK", 3u * 1024 * 1024, 2048u, std::uint64_t{0},
                std::uint64_t{10000}, std::uint64_t{1} << 40);
  EXPECT_EQ(Utf8(sizes), "3,072 K|2 k|Zero K|9.8 M|1,048,576.0 G");

  const struct {
    int n;
    const char* text;
  } ordinals[] = {{1, "1st"},     {2, "2nd"},     {3, "3rd"},   {4, "4th"},       {11, "11th"},
                  {12, "12th"},   {13, "13th"},   {21, "21st"}, {22, "22nd"},     {101, "101st"},
                  {111, "111th"}, {112, "112th"}, {0, "0th"},   {1000, "1,000th"}};
  for (const auto& o : ordinals) {
    TString s;
    s.FormatOrdinal(o.n);
    EXPECT_EQ(Utf8(s), o.text);
  }

  const struct {
    unsigned short token;
    const char* text;
  } tokens[] = {{0, "..."}, {15, "Tomorrow"}, {16, "Today"}, {17, "\\"}, {18, ":"}, {19, "."},
                {20, ":"},  {21, ".."},       {22, "::"},    {70, "/"},  {71, "."}, {72, ".."}};
  for (const auto& t : tokens) EXPECT_EQ(Utf8(TokenToString(t.token, 0x0409)), t.text) << t.token;
  EXPECT_TRUE(Assertions().empty());
}

}  // namespace
