// The last error: a thread-local Windows error number, set by every failing
// U-call (GetLastError / SetLastError).
#ifndef QUARNEL_PLATFORM_LASTERROR_H_
#define QUARNEL_PLATFORM_LASTERROR_H_

#include "quarnel/foundation/export.h"

QUARNEL_API unsigned UGetLastError();
QUARNEL_API void USetLastError(unsigned winerr);

// The Windows error number for a C library errno value (the platform's one
// errno table). `pathContext` chooses between the pairs Windows tells apart:
// ENOENT is 2 (file not found) or, with a path context, 3 (path not found: a
// folder of the path is missing); EEXIST is 80 (ERROR_FILE_EXISTS: CreateFile
// with CREATE_NEW, CopyFile with fail-if-exists) or, with a path context, 183
// (ERROR_ALREADY_EXISTS: CreateDirectory, MoveFile). An errno the table does
// not know becomes 31 (ERROR_GEN_FAILURE).
QUARNEL_API unsigned UWinErrorFromErrno(int err, bool pathContext = false);

#endif  // QUARNEL_PLATFORM_LASTERROR_H_
