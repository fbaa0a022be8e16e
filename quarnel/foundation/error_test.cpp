#include "quarnel/foundation/error.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/text/tstring.h"
#include "tests/support/helpers.h"

namespace {

std::string Mapped(const std::string& kind, unsigned number, int code) {
  return "519 MapError: mapped " + kind + " error " + Grouped(static_cast<int>(number)) + " to " +
         ErrorText(code) + "\n";
}

std::string Level(int logClass) { return logClass == 0 ? "514 " : "518 "; }

class ErrorTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    USetLastError(0);
  }
  void TearDown() override {
    USetLastError(0);
    RecordingTest::TearDown();
  }
};

// Every number of the recorded table: its code and class, the line MapError
// logs, and the line MapAndLogErr adds at the level of the class.
TEST_F(ErrorTest, EveryNumberOfTheTable) {
  const auto rows = ReadTsv("error_map.tsv");
  for (const auto& f : rows) {
    SCOPED_TRACE(f[0] + " " + f[1]);
    const std::string kind = f[0] == "W" ? "Windows" : "CDL";
    const auto number = static_cast<unsigned>(std::stoll(f[1]));
    const int code = std::stoi(f[2]);
    const int logClass = std::stoi(f[3]);
    const std::string line = code != kErrUnknown
                                 ? Mapped(kind, number, code)
                                 : Level(logClass) + "MapError: unknown " + kind + " error " +
                                       Grouped(static_cast<int>(number)) + "\n";
    ClearRecords();
    int seen = 99;
    EXPECT_EQ(MapError(number, f[0] == "W" ? kMapWindowsError : kMapCdlError, &seen), code);
    EXPECT_EQ(seen, logClass);
    EXPECT_EQ(Logged(), line);
    if (f[0] == "C") continue;
    ClearRecords();
    EXPECT_EQ(MapWindowsError(number), code);
    const TString detail(u"C:\\Data\\big \u00e9t\u00e9.cfh");
    EXPECT_EQ(MapAndLogErr(&detail, "ChunkManager::Save: SetEndOfFile failed", number), code);
    EXPECT_EQ(Logged(), line + line +
                            (logClass == kLogClassQuiet
                                 ? ""
                                 : Level(logClass) +
                                       "ChunkManager::Save: SetEndOfFile failed, C:\\Data\\big "
                                       "\u00e9t\u00e9.cfh, winerr " +
                                       std::to_string(static_cast<int>(number)) + ", error " +
                                       std::to_string(code) + "\n"));
  }
  EXPECT_EQ(Asserted(), "");

  // The table maps no number beyond the recorded ones.
  int count = 0;
  const quarnel_internal::ErrorRow* table = quarnel_internal::WindowsErrorRows(&count);
  std::multiset<unsigned> mapped, recorded;
  for (int i = 0; i < count; ++i) {
    if (table[i].code != 0) mapped.insert(table[i].number);
  }
  for (const auto& f : rows) {
    if (f[0] == "W" && std::stoi(f[2]) != kErrUnknown) recorded.insert(std::stoll(f[1]));
  }
  EXPECT_EQ(mapped, recorded);
}

TEST_F(ErrorTest, ExactLinesOfTheEdgeCases) {
  // 0 with a last error of 0.
  EXPECT_EQ(MapWindowsError(0), -1001);
  EXPECT_EQ(Logged(), "514 MapError: unknown Windows error 0\n");
  // 18 and 259 are quiet: no second line from MapAndLogErr.
  ClearRecords();
  EXPECT_EQ(MapAndLogErr(nullptr, "TFolderLoc::Next: FindNextFile failed", 18), -1024);
  EXPECT_EQ(Logged(), Mapped("Windows", 18, -1024));
  // 1017 is known but unmapped, worth attention.
  ClearRecords();
  EXPECT_EQ(MapAndLogErr(nullptr, "TReg::Open: RegOpenKeyEx failed", 1017), -1001);
  EXPECT_EQ(Logged(),
            "518 MapError: unknown Windows error 1,017\n"
            "518 TReg::Open: RegOpenKeyEx failed, winerr 1017, error -1001\n");
  // The HRESULT form of access denied prints as a negative number.
  ClearRecords();
  EXPECT_EQ(MapAndLogErr(nullptr, "TFile::Open: CreateFile failed", 0x80070005u), -1017);
  EXPECT_EQ(Logged(),
            "519 MapError: mapped Windows error -2,147,024,891 to " + ErrorText(-1017) +
                "\n518 TFile::Open: CreateFile failed, winerr -2147024891, error -1017\n");
  ClearRecords();
  EXPECT_EQ(MapError(65535, kMapCdlError, nullptr), kErrUnknown);
  EXPECT_EQ(Logged(), "514 MapError: unknown CDL error 65,535\n");
  EXPECT_EQ(Asserted(), "");
}

TEST_F(ErrorTest, ZeroMeansTheLastError) {
  USetLastError(112);
  int logClass = 0;
  EXPECT_EQ(MapError(0, kMapWindowsError, &logClass), kErrDiskFull);
  EXPECT_EQ(logClass, 1);
  ClearRecords();
  const TString detail(u"C:\\Data\\x.cfh");
  EXPECT_EQ(MapAndLogErr(&detail, "TFile::Write: WriteFile failed", 0), kErrDiskFull);
  EXPECT_EQ(Logged(),
            Mapped("Windows", 112, kErrDiskFull) +
                "518 TFile::Write: WriteFile failed, C:\\Data\\x.cfh, winerr 112, error -1115\n");
  // Mapping does not change the last error; each thread maps its own.
  EXPECT_EQ(UGetLastError(), 112u);
  int codes[2] = {0, 0};
  std::thread a([&] {
    USetLastError(2);
    codes[0] = MapWindowsError(0);
  });
  std::thread b([&] {
    USetLastError(5);
    codes[1] = MapWindowsError(0);
  });
  a.join();
  b.join();
  EXPECT_EQ(codes[0], kErrFileNotFound);
  EXPECT_EQ(codes[1], kErrAccessDenied);
  // A CDL 0 is a number of its own: the last error is not consulted.
  EXPECT_EQ(MapError(0, kMapCdlError, nullptr), -1201);
}

TEST_F(ErrorTest, OtherKindsAssertAndReturnZero) {
  for (unsigned kind : {2u, 7u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(kind);
    ClearRecords();
    int logClass = 99;
    EXPECT_EQ(MapError(5, kind, &logClass), 0);
    EXPECT_EQ(logClass, 0);
    EXPECT_EQ(MapError(5, kind, nullptr), 0);
    EXPECT_EQ(Asserted(), "error-712 error-712");
    EXPECT_EQ(Logged(), "");
  }
}

}  // namespace
