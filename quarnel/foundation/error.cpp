#include "quarnel/foundation/error.h"

#include <iterator>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/text/tstring.h"

namespace quarnel_internal {

// The Windows table, scanned in this order. A row with code 0 marks a number
// as known but unmapped: it maps to -1001 like an absent number, and only its
// class matters (class 1 logs the "unknown" line at 518). The code-0 rows come
// first, so that 1814 meets its code-0 row before the -1026 row decides.
// clang-format off
constexpr ErrorRow kWindowsRows[] = {
    // Known but unmapped. 0 stands twice.
    {0, 0, 0}, {0, 0, 0}, {0, 7, 0}, {0, 9, 0}, {0, 10, 0}, {0, 11, 0}, {0, 22, 0}, {0, 23, 0},
    {0, 26, 0}, {0, 40, 1}, {0, 51, 0}, {0, 54, 0}, {0, 57, 0}, {0, 60, 0}, {0, 63, 0}, {0, 66, 0},
    {0, 68, 0}, {0, 69, 0}, {0, 100, 0}, {0, 101, 0}, {0, 102, 0}, {0, 103, 0}, {0, 104, 0},
    {0, 105, 0}, {0, 106, 0}, {0, 109, 0}, {0, 113, 0}, {0, 114, 0}, {0, 117, 0}, {0, 118, 0},
    {0, 119, 0}, {0, 124, 0}, {0, 126, 0}, {0, 127, 0}, {0, 193, 0}, {0, 223, 0}, {0, 230, 0},
    {0, 231, 0}, {0, 233, 0}, {0, 487, 0}, {0, 534, 0}, {0, 998, 0}, {0, 1017, 1}, {0, 1113, 0},
    {0, 1117, 1}, {0, 1131, 0}, {0, 1142, 0}, {0, 1208, 1}, {0, 1225, 0}, {0, 1295, 0},
    {0, 1460, 0}, {0, 1814, 0}, {0, 1921, 0}, {0, 2114, 1}, {0, 2392, 1}, {0, 6118, 0},
    // -1010: bad length or parameter
    {-1010, 24, 0}, {-1010, 87, 1}, {-1010, 160, 0},
    // -1011: not same device / not root / device mismatch
    {-1011, 17, 0}, {-1011, 144, 0}, {-1011, 1056, 1}, {-1011, 1062, 1},
    // -1012: function not supported
    {-1012, 1, 1}, {-1012, 50, 1}, {-1012, 120, 1}, {-1012, 174, 0},
    // -1013: invalid name
    {-1013, 123, 1}, {-1013, 154, 1}, {-1013, 206, 1}, {-1013, 267, 0}, {-1013, 1214, 0},
    {-1013, 1215, 0}, {-1013, 1216, 0}, {-1013, 1217, 0}, {-1013, 1218, 0}, {-1013, 1315, 0},
    // -1014: duplicate name
    {-1014, 52, 0},
    // -1015: operation aborted
    {-1015, 995, 0}, {-1015, 1235, 0}, {-1015, 1236, 0},
    // -1016: stack overflow
    {-1016, 1001, 0},
    // -1017: access denied
    {-1017, 5, 1}, {-1017, 12, 0}, {-1017, 65, 0}, {-1017, 86, 1}, {-1017, 121, 1}, {-1017, 288, 0},
    {-1017, 317, 1}, {-1017, 997, 1}, {-1017, 1052, 1}, {-1017, 1053, 1}, {-1017, 1058, 1},
    {-1017, 1061, 1}, {-1017, 1219, 1}, {-1017, 1224, 1}, {-1017, 1244, 1}, {-1017, 1245, 0},
    {-1017, 1307, 0}, {-1017, 1312, 1}, {-1017, 1323, 0}, {-1017, 1324, 0}, {-1017, 1325, 0},
    {-1017, 1326, 1}, {-1017, 1327, 0}, {-1017, 1328, 0}, {-1017, 1329, 0}, {-1017, 1330, 0},
    {-1017, 1331, 0}, {-1017, 1793, 0}, {-1017, 1909, 0}, {-1017, 2310, 1}, {-1017, 1917, 1},
    {-1017, 0x80070005u, 1}, {-1017, 1727, 1}, {-1017, 240, 1},
    // -1018: out of memory
    {-1018, 8, 0}, {-1018, 14, 0}, {-1018, 1130, 0},
    // -1019: no system resources
    {-1019, 1450, 1},
    // -1020: busy / sharing violation
    {-1020, 16, 0}, {-1020, 32, 1}, {-1020, 108, 0}, {-1020, 142, 0}, {-1020, 170, 0},
    {-1020, 2404, 0}, {-1020, 1230, 0},
    // -1021: buffer too small
    {-1021, 111, 0}, {-1021, 122, 1},
    // -1022: no data
    {-1022, 232, 0},
    // -1023: already exists
    {-1023, 80, 1}, {-1023, 183, 1}, {-1023, 1316, 0},
    // -1024: no more entries (class -1: not logged)
    {-1024, 18, -1}, {-1024, 259, -1},
    // -1025: more data
    {-1025, 234, 1},
    // -1026: resource name not found
    {-1026, 1814, 1},
    // -1050: out of paper
    {-1050, 28, 0},
    // -1051: print queue full / no spool space
    {-1051, 61, 0}, {-1051, 62, 0},
    // -1052: printer error
    {-1052, 1797, 0}, {-1052, 1798, 0}, {-1052, 1801, 0}, {-1052, 1905, 0},
    // -1100: invalid handle
    {-1100, 6, 1},
    // -1101: file or path not found
    {-1101, 2, 1}, {-1101, 3, 1}, {-1101, 161, 1}, {-1101, 1060, 1},
    // -1102: device not present / bad unit
    {-1102, 15, 0}, {-1102, 20, 0}, {-1102, 55, 0}, {-1102, 107, 0}, {-1102, 1200, 1},
    {-1102, 1167, 1},
    // -1103: write-protected
    {-1103, 19, 1},
    // -1104: device not ready
    {-1104, 21, 1},
    // -1105: seek error
    {-1105, 25, 0}, {-1105, 131, 0}, {-1105, 132, 0},
    // -1106: sector not found
    {-1106, 27, 0},
    // -1107: read fault
    {-1107, 30, 0}, {-1107, 1012, 0},
    // -1108: write fault
    {-1108, 29, 0}, {-1108, 1013, 0},
    // -1109: open failed
    {-1109, 110, 0}, {-1109, 1011, 0},
    // -1110: general device failure / media changed
    {-1110, 31, 1}, {-1110, 1106, 1}, {-1110, 1110, 1}, {-1110, 1122, 0}, {-1110, 1123, 0},
    {-1110, 1124, 0}, {-1110, 1125, 0}, {-1110, 1126, 0}, {-1110, 1127, 0}, {-1110, 1128, 0},
    // -1111: lock violation
    {-1111, 33, 1}, {-1111, 167, 0},
    // -1112: too many open files
    {-1112, 4, 0}, {-1112, 36, 0},
    // -1113: wrong disk
    {-1113, 34, 1},
    // -1114: end of file
    {-1114, 38, 0},
    // -1115: disk full
    {-1115, 39, 0}, {-1115, 112, 1},
    // -1116: network failure
    {-1116, 53, 1}, {-1116, 58, 0}, {-1116, 59, 1}, {-1116, 64, 1}, {-1116, 67, 1}, {-1116, 70, 0},
    {-1116, 71, 0}, {-1116, 72, 0}, {-1116, 2250, 0}, {-1116, 1201, 0}, {-1116, 1203, 1},
    {-1116, 1222, 1}, {-1116, 1229, 0}, {-1116, 1231, 0}, {-1116, 1232, 0}, {-1116, 1233, 0},
    {-1116, 1234, 0},
    // -1118: cannot make
    {-1118, 82, 0},
    // -1119: directory not empty
    {-1119, 145, 1},
    // -1120: cannot copy
    {-1120, 266, 0},
    // -1121: unrecognised volume
    {-1121, 1005, 1},
    // -1123: file or disk corrupt
    {-1123, 1392, 1}, {-1123, 1393, 0},
    // -1124: invalid data
    {-1124, 13, 1},
    // -1126: no association
    {-1126, 1155, 0},
};
// clang-format on

// The CDL table. Row 1 maps 0 to -1201 and is found first: the later code-0
// row for 0 is never reached, and is kept so.
// clang-format off
constexpr ErrorRow kCdlRows[] = {
    {-1201, 0, 0},
    {0, 65535, 0},
    {0, 0, 0}, {0, 2, 0}, {0, 4, 0}, {0, 6, 0}, {0, 8, 0}, {0, 10, 0}, {0, 12, 0}, {0, 4096, 0},
    {0, 4098, 0}, {0, 4100, 0}, {0, 4102, 0},
    {-1052, 4104, 1},
    {0, 4106, 0}, {0, 4108, 0}, {0, 8192, 0}, {0, 8194, 0}, {0, 12288, 0}, {0, 12290, 0},
    {0, 16384, 0}, {0, 20480, 0},
    {-1017, 12291, 1},
};
// clang-format on

const ErrorRow* WindowsErrorRows(int* count) {
  *count = static_cast<int>(std::size(kWindowsRows));
  return kWindowsRows;
}

const ErrorRow* CdlErrorRows(int* count) {
  *count = static_cast<int>(std::size(kCdlRows));
  return kCdlRows;
}

}  // namespace quarnel_internal

namespace {

using quarnel_internal::ErrorRow;

struct Kind {
  const ErrorRow* rows;
  int count;
  const char* mapped;
  const char* unknown;
};

}  // namespace

int MapError(unsigned error, unsigned kind, int* logClass) {
  if (logClass != nullptr) *logClass = kLogClassOrdinary;
  Kind k;
  switch (kind) {
    case kMapWindowsError:
      if (error == 0) error = UGetLastError();
      k = {quarnel_internal::kWindowsRows,
           static_cast<int>(std::size(quarnel_internal::kWindowsRows)),
           "MapError: mapped Windows error %d to %E", "MapError: unknown Windows error %d"};
      break;
    case kMapCdlError:
      k = {quarnel_internal::kCdlRows, static_cast<int>(std::size(quarnel_internal::kCdlRows)),
           "MapError: mapped CDL error %d to %E", "MapError: unknown CDL error %d"};
      break;
    default:
      Debug("error", 712);
      return 0;
  }

  int code = 0;
  int rowClass = kLogClassOrdinary;
  for (int i = 0; i < k.count; ++i) {
    const ErrorRow& row = k.rows[i];
    if (row.number != error) continue;
    code = row.code;
    rowClass = row.logClass;
    if (logClass != nullptr) *logClass = rowClass;
    if (code != 0) break;
  }

  // Numbers print as the signed values the tables were written with
  // (0x80070005 prints as -2,147,024,891).
  const int number = static_cast<int>(error);
  if (code != 0) {
    DebugLogf(kLogDetail, k.mapped, number, code);
    return code;
  }
  if (rowClass != kLogClassQuiet) {
    DebugLogf(rowClass != kLogClassOrdinary ? kLogAttention : kLogPlatform, k.unknown, number);
  }
  return kErrUnknown;
}

int MapWindowsError(unsigned error) { return MapError(error, kMapWindowsError, nullptr); }

int MapAndLogErr(const TString* detail, const char* what, unsigned winerr) {
  if (winerr == 0) winerr = UGetLastError();
  int rowClass = kLogClassOrdinary;
  const int code = MapError(winerr, kMapWindowsError, &rowClass);
  if (rowClass == kLogClassQuiet) return code;

  const unsigned level = rowClass == kLogClassOrdinary ? kLogPlatform : kLogAttention;
  TString whatText;
  if (what != nullptr) whatText.AssignAnsi(what);
  const int number = static_cast<int>(winerr);
  if (detail != nullptr) {
    DebugLogf(level, "%s, %s, winerr %~d, error %~d", &whatText, detail, number, code);
  } else {
    DebugLogf(level, "%s, winerr %~d, error %~d", &whatText, number, code);
  }
  return code;
}
