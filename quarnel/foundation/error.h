// Error mapping: Windows error numbers (the last error of a failed platform
// call) and the error numbers of the optical-disc (CDL) layer become the
// library's error codes (errors.h). Platform numbers never leave the library
// as they are.
//
// Every mapping is logged through the debug-log hook (debuglog.h): a mapped
// number at level 519, an unknown one at 514 or, for numbers marked worth
// attention, at 518; the expected end-of-enumeration conditions (18 no more
// files, 259 no more items) are not logged at all. All of it is silent when
// the host installed no log hook. The functions may be called from any
// thread; they read only constant tables and the calling thread's last error.
#ifndef QUARNEL_FOUNDATION_ERROR_H_
#define QUARNEL_FOUNDATION_ERROR_H_

#include "quarnel/foundation/export.h"

class TString;

// Kinds of number MapError understands.
enum : unsigned {
  kMapWindowsError = 0,  // a Windows error number (GetLastError)
  kMapCdlError = 1,      // an error number of the CDL layer
};

// Log classes MapError hands back through `logClass`.
enum : int {
  kLogClassQuiet = -1,     // an expected condition: not logged
  kLogClassOrdinary = 0,   // an ordinary failure: level 514
  kLogClassAttention = 1,  // a failure worth attention: level 518
};

// Maps `error` of the given kind to a library code by scanning that kind's
// table in order: the first row with the number and a non-zero code wins.
// Returns the code, or kErrUnknown (-1001) when no row with a non-zero code
// lists the number. For kind 0, an `error` of 0 is first replaced by the
// calling thread's last error (UGetLastError); for the CDL kind 0 is a number
// of its own. `logClass` may be null; when given it is set to 0 first and
// then to the class of every row of the number met by the scan, so it ends as
// the class of the deciding row (or of the last row listing an unknown
// number). Logs "MapError: mapped Windows error %d to %E" at 519 or
// "MapError: unknown Windows error %d" at 514/518 (nothing for class -1), and
// the CDL variants. Any other kind raises Debug("error", 712) and returns 0.
QUARNEL_API int MapError(unsigned error, unsigned kind, int* logClass);

// MapError(error, kMapWindowsError, nullptr).
QUARNEL_API int MapWindowsError(unsigned error);

// Maps a Windows error number (0: the calling thread's last error) and logs,
// besides MapError's own line, one line naming the failed operation:
// "<what>, <detail>, winerr <n>, error <code>" when `detail` is given, else
// "<what>, winerr <n>, error <code>", at level 514 (class 0) or 518 (class 1);
// nothing for class -1. `what` is "Function: platform call failed"; `detail`
// (may be null) is typically the path concerned. Returns the library code.
QUARNEL_API int MapAndLogErr(const TString* detail, const char* what, unsigned winerr);

namespace quarnel_internal {

// One row of a mapping table: library code (0: known but unmapped), platform
// number, log class.
struct ErrorRow {
  int code;
  unsigned number;
  int logClass;
};

// The tables in scan order, for the tests and tools; not exported.
const ErrorRow* WindowsErrorRows(int* count);
const ErrorRow* CdlErrorRows(int* count);

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_ERROR_H_
