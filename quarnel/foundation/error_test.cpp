#include "quarnel/foundation/error.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

// A number as "%d" prints it in en-US: thousands grouped with commas.
std::string Grouped(int n) {
  const long long v = n;
  std::string digits = std::to_string(v < 0 ? -v : v);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return v < 0 ? "-" + out : out;
}

// What "%E" prints for a code.
std::string ErrorText(int code) {
  TString t;
  t.SPrintf(u"%E", code);
  return Utf8(t);
}

std::string Mapped(const char* kind, unsigned number, int code) {
  return std::string("MapError: mapped ") + kind + " error " + Grouped(static_cast<int>(number)) +
         " to " + ErrorText(code);
}

std::string Unknown(const char* kind, unsigned number) {
  return std::string("MapError: unknown ") + kind + " error " + Grouped(static_cast<int>(number));
}

unsigned LevelOf(int logClass) { return logClass == 0 ? kLogPlatform : kLogAttention; }

struct MapRow {
  unsigned number;
  int code;
  int logClass;
};

// Every Windows number the table maps, grouped by library code, with its
// class (numbers in the same group keep the table's order).
const MapRow kMappedWindows[] = {
    {24, -1010, 0},   {87, -1010, 1},   {160, -1010, 0},         {17, -1011, 0},   {144, -1011, 0},
    {1056, -1011, 1}, {1062, -1011, 1}, {1, -1012, 1},           {50, -1012, 1},   {120, -1012, 1},
    {174, -1012, 0},  {123, -1013, 1},  {154, -1013, 1},         {206, -1013, 1},  {267, -1013, 0},
    {1214, -1013, 0}, {1215, -1013, 0}, {1216, -1013, 0},        {1217, -1013, 0}, {1218, -1013, 0},
    {1315, -1013, 0}, {52, -1014, 0},   {995, -1015, 0},         {1235, -1015, 0}, {1236, -1015, 0},
    {1001, -1016, 0}, {5, -1017, 1},    {12, -1017, 0},          {65, -1017, 0},   {86, -1017, 1},
    {121, -1017, 1},  {288, -1017, 0},  {317, -1017, 1},         {997, -1017, 1},  {1052, -1017, 1},
    {1053, -1017, 1}, {1058, -1017, 1}, {1061, -1017, 1},        {1219, -1017, 1}, {1224, -1017, 1},
    {1244, -1017, 1}, {1245, -1017, 0}, {1307, -1017, 0},        {1312, -1017, 1}, {1323, -1017, 0},
    {1324, -1017, 0}, {1325, -1017, 0}, {1326, -1017, 1},        {1327, -1017, 0}, {1328, -1017, 0},
    {1329, -1017, 0}, {1330, -1017, 0}, {1331, -1017, 0},        {1793, -1017, 0}, {1909, -1017, 0},
    {2310, -1017, 1}, {1917, -1017, 1}, {0x80070005u, -1017, 1}, {1727, -1017, 1}, {240, -1017, 1},
    {8, -1018, 0},    {14, -1018, 0},   {1130, -1018, 0},        {1450, -1019, 1}, {16, -1020, 0},
    {32, -1020, 1},   {108, -1020, 0},  {142, -1020, 0},         {170, -1020, 0},  {2404, -1020, 0},
    {1230, -1020, 0}, {111, -1021, 0},  {122, -1021, 1},         {232, -1022, 0},  {80, -1023, 1},
    {183, -1023, 1},  {1316, -1023, 0}, {18, -1024, -1},         {259, -1024, -1}, {234, -1025, 1},
    {1814, -1026, 1}, {28, -1050, 0},   {61, -1051, 0},          {62, -1051, 0},   {1797, -1052, 0},
    {1798, -1052, 0}, {1801, -1052, 0}, {1905, -1052, 0},        {6, -1100, 1},    {2, -1101, 1},
    {3, -1101, 1},    {161, -1101, 1},  {1060, -1101, 1},        {15, -1102, 0},   {20, -1102, 0},
    {55, -1102, 0},   {107, -1102, 0},  {1200, -1102, 1},        {1167, -1102, 1}, {19, -1103, 1},
    {21, -1104, 1},   {25, -1105, 0},   {131, -1105, 0},         {132, -1105, 0},  {27, -1106, 0},
    {30, -1107, 0},   {1012, -1107, 0}, {29, -1108, 0},          {1013, -1108, 0}, {110, -1109, 0},
    {1011, -1109, 0}, {31, -1110, 1},   {1106, -1110, 1},        {1110, -1110, 1}, {1122, -1110, 0},
    {1123, -1110, 0}, {1124, -1110, 0}, {1125, -1110, 0},        {1126, -1110, 0}, {1127, -1110, 0},
    {1128, -1110, 0}, {33, -1111, 1},   {167, -1111, 0},         {4, -1112, 0},    {36, -1112, 0},
    {34, -1113, 1},   {38, -1114, 0},   {39, -1115, 0},          {112, -1115, 1},  {53, -1116, 1},
    {58, -1116, 0},   {59, -1116, 1},   {64, -1116, 1},          {67, -1116, 1},   {70, -1116, 0},
    {71, -1116, 0},   {72, -1116, 0},   {2250, -1116, 0},        {1201, -1116, 0}, {1203, -1116, 1},
    {1222, -1116, 1}, {1229, -1116, 0}, {1231, -1116, 0},        {1232, -1116, 0}, {1233, -1116, 0},
    {1234, -1116, 0}, {82, -1118, 0},   {145, -1119, 1},         {266, -1120, 0},  {1005, -1121, 1},
    {1392, -1123, 1}, {1393, -1123, 0}, {13, -1124, 1},          {1155, -1126, 0},
};

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

TEST_F(ErrorTest, EveryMappedWindowsNumber) {
  ASSERT_EQ(std::size(kMappedWindows), 154u);
  for (const MapRow& r : kMappedWindows) {
    SCOPED_TRACE("Windows error " + std::to_string(r.number));
    ClearRecords();
    int logClass = 99;
    EXPECT_EQ(MapError(r.number, kMapWindowsError, &logClass), r.code);
    EXPECT_EQ(logClass, r.logClass);
    EXPECT_EQ(MapWindowsError(r.number), r.code);
    EXPECT_EQ(MapError(r.number, kMapWindowsError, nullptr), r.code);
    const LogLine mapped{kLogDetail, "", Mapped("Windows", r.number, r.code)};
    EXPECT_EQ(Lines(), (std::vector<LogLine>{mapped, mapped, mapped}));

    ClearRecords();
    EXPECT_EQ(MapAndLogErr(nullptr, "TFile::Write: WriteFile failed", r.number), r.code);
    std::vector<LogLine> want{mapped};
    if (r.logClass != kLogClassQuiet) {
      want.push_back({LevelOf(r.logClass), "",
                      "TFile::Write: WriteFile failed, winerr " +
                          std::to_string(static_cast<int>(r.number)) + ", error " +
                          std::to_string(r.code)});
    }
    EXPECT_EQ(Lines(), want);
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(ErrorTest, UnknownWindowsNumbers) {
  // Known-but-unmapped numbers and absent ones map to -1001; the class of
  // the last row listing the number chooses the level of the unknown line.
  const MapRow rows[] = {
      {0, kErrUnknown, 0},           {7, kErrUnknown, 0},           {9, kErrUnknown, 0},
      {10, kErrUnknown, 0},          {11, kErrUnknown, 0},          {22, kErrUnknown, 0},
      {23, kErrUnknown, 0},          {26, kErrUnknown, 0},          {51, kErrUnknown, 0},
      {54, kErrUnknown, 0},          {40, kErrUnknown, 1},          {1017, kErrUnknown, 1},
      {1117, kErrUnknown, 1},        {1208, kErrUnknown, 1},        {2114, kErrUnknown, 1},
      {2392, kErrUnknown, 1},        {99999, kErrUnknown, 0},       {35, kErrUnknown, 0},
      {0x80070006u, kErrUnknown, 0}, {0xFFFFFFFFu, kErrUnknown, 0},
  };
  for (const MapRow& r : rows) {
    SCOPED_TRACE("Windows error " + std::to_string(r.number));
    ClearRecords();
    int logClass = 99;
    EXPECT_EQ(MapError(r.number, kMapWindowsError, &logClass), kErrUnknown);
    EXPECT_EQ(logClass, r.logClass);
    const LogLine unknown{LevelOf(r.logClass), "", Unknown("Windows", r.number)};
    EXPECT_EQ(Lines(), std::vector<LogLine>{unknown});

    ClearRecords();
    const TString detail(u"C:\\Data\\big \u00e9t\u00e9.cfh");
    EXPECT_EQ(MapAndLogErr(&detail, "ChunkManager::Save: SetEndOfFile failed", r.number),
              kErrUnknown);
    const LogLine line{
        LevelOf(r.logClass), "",
        "ChunkManager::Save: SetEndOfFile failed, C:\\Data\\big \u00e9t\u00e9.cfh, winerr " +
            std::to_string(static_cast<int>(r.number)) + ", error -1001"};
    EXPECT_EQ(Lines(), (std::vector<LogLine>{unknown, line}));
  }
}

TEST_F(ErrorTest, ExactLinesOfTheEdgeCases) {
  // 0 with a last error of 0.
  EXPECT_EQ(MapWindowsError(0), -1001);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{514, "", "MapError: unknown Windows error 0"}}));

  // 18 and 259: mapped line at 519, no second line from MapAndLogErr.
  for (unsigned n : {18u, 259u}) {
    SCOPED_TRACE(n);
    ClearRecords();
    int logClass = 0;
    EXPECT_EQ(MapError(n, 0, &logClass), -1024);
    EXPECT_EQ(logClass, -1);
    EXPECT_EQ(MapAndLogErr(nullptr, "TFolderLoc::Next: FindNextFile failed", n), -1024);
    const LogLine mapped{
        519, "", "MapError: mapped Windows error " + std::to_string(n) + " to " + ErrorText(-1024)};
    EXPECT_EQ(Lines(), (std::vector<LogLine>{mapped, mapped}));
  }

  // 1814 maps to -1026 although a code-0 row for it comes first.
  ClearRecords();
  int logClass = 0;
  EXPECT_EQ(MapError(1814, 0, &logClass), -1026);
  EXPECT_EQ(logClass, 1);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {519, "", "MapError: mapped Windows error 1,814 to " + ErrorText(-1026)}}));

  // 1017 is known but unmapped, worth attention; 99999 is absent.
  ClearRecords();
  EXPECT_EQ(MapAndLogErr(nullptr, "TReg::Open: RegOpenKeyEx failed", 1017), -1001);
  EXPECT_EQ(MapWindowsError(99999), -1001);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{
                         {518, "", "MapError: unknown Windows error 1,017"},
                         {518, "", "TReg::Open: RegOpenKeyEx failed, winerr 1017, error -1001"},
                         {514, "", "MapError: unknown Windows error 99,999"}}));

  // The HRESULT form of access denied prints as a negative number.
  ClearRecords();
  EXPECT_EQ(MapError(0x80070005u, 0, &logClass), -1017);
  EXPECT_EQ(logClass, 1);
  EXPECT_EQ(MapAndLogErr(nullptr, "TFile::Open: CreateFile failed", 0x80070005u), -1017);
  const std::string mapped = "MapError: mapped Windows error -2,147,024,891 to " + ErrorText(-1017);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {519, "", mapped},
                {519, "", mapped},
                {518, "", "TFile::Open: CreateFile failed, winerr -2147024891, error -1017"}}));
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(ErrorTest, ZeroMeansTheLastError) {
  USetLastError(112);
  int logClass = 0;
  EXPECT_EQ(MapError(0, kMapWindowsError, &logClass), kErrDiskFull);
  EXPECT_EQ(logClass, 1);
  const TString detail(u"C:\\Data\\x.cfh");
  EXPECT_EQ(MapAndLogErr(&detail, "TFile::Write: WriteFile failed", 0), kErrDiskFull);
  const std::string mapped = "MapError: mapped Windows error 112 to " + ErrorText(kErrDiskFull);
  EXPECT_EQ(
      Lines(),
      (std::vector<LogLine>{
          {519, "", mapped},
          {519, "", mapped},
          {518, "", "TFile::Write: WriteFile failed, C:\\Data\\x.cfh, winerr 112, error -1115"}}));
  // Mapping does not change the last error.
  EXPECT_EQ(UGetLastError(), 112u);

  // Each thread maps its own last error.
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
}

TEST_F(ErrorTest, CdlNumbers) {
  // CDL 0 is a number of its own: the last error is not consulted.
  USetLastError(5);
  const MapRow rows[] = {
      {0, -1201, 0},
      {65535, kErrUnknown, 0},
      {2, kErrUnknown, 0},
      {4102, kErrUnknown, 0},
      {4104, -1052, 1},
      {4106, kErrUnknown, 0},
      {20480, kErrUnknown, 0},
      {12291, -1017, 1},
      {12290, kErrUnknown, 0},
      {7, kErrUnknown, 0},
      {0xFFFFFFFFu, kErrUnknown, 0},
  };
  for (const MapRow& r : rows) {
    SCOPED_TRACE("CDL error " + std::to_string(r.number));
    ClearRecords();
    int logClass = 99;
    EXPECT_EQ(MapError(r.number, kMapCdlError, &logClass), r.code);
    EXPECT_EQ(logClass, r.logClass);
    const LogLine want = r.code != kErrUnknown
                             ? LogLine{kLogDetail, "", Mapped("CDL", r.number, r.code)}
                             : LogLine{LevelOf(r.logClass), "", Unknown("CDL", r.number)};
    EXPECT_EQ(Lines(), std::vector<LogLine>{want});
  }
  ClearRecords();
  EXPECT_EQ(MapError(65535, kMapCdlError, nullptr), kErrUnknown);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{514, "", "MapError: unknown CDL error 65,535"}}));
}

TEST_F(ErrorTest, OtherKindsAssertAndReturnZero) {
  for (unsigned kind : {2u, 7u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(kind);
    ClearRecords();
    int logClass = 99;
    EXPECT_EQ(MapError(5, kind, &logClass), 0);
    EXPECT_EQ(logClass, 0);
    EXPECT_EQ(MapError(5, kind, nullptr), 0);
    EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"error", 712, ""}, {"error", 712, ""}}));
    EXPECT_TRUE(Lines().empty());
  }
}

TEST_F(ErrorTest, TablesHoldTheirRowsInScanOrder) {
  int count = 0;
  const quarnel_internal::ErrorRow* rows = quarnel_internal::WindowsErrorRows(&count);
  std::multiset<unsigned> mapped;
  int zeroRows = 0;
  int first1814 = -1;
  int mapped1814 = -1;
  for (int i = 0; i < count; ++i) {
    if (rows[i].code != 0) {
      mapped.insert(rows[i].number);
    } else if (rows[i].number == 0) {
      ++zeroRows;
    }
    if (rows[i].number == 1814 && first1814 < 0) first1814 = i;
    if (rows[i].number == 1814 && rows[i].code == -1026) mapped1814 = i;
  }
  // Each mapped number has one deciding row.
  EXPECT_EQ(mapped.size(), std::size(kMappedWindows));
  for (const MapRow& r : kMappedWindows) EXPECT_EQ(mapped.count(r.number), 1u) << r.number;
  EXPECT_EQ(zeroRows, 2);
  EXPECT_GE(first1814, 0);
  EXPECT_LT(first1814, mapped1814);
  EXPECT_EQ(rows[first1814].code, 0);

  quarnel_internal::CdlErrorRows(&count);
  EXPECT_EQ(count, 23);
}

}  // namespace
