// Whether a standard stream is a terminal, with the meaning of Win32's
// GetFileType(GetStdHandle(n)) == FILE_TYPE_CHAR. Tools show progress lines
// only on a terminal, never into a pipe or a file. Any thread may call.
#ifndef QUARNEL_PLATFORM_CONSOLE_H_
#define QUARNEL_PLATFORM_CONSOLE_H_

#include "quarnel/foundation/export.h"

enum : int {
  kStdInput = 0,
  kStdOutput = 1,
  kStdError = 2,
};

// 1 when the stream (kStdInput, kStdOutput or kStdError) is a terminal, else
// 0 (also for any other number).
QUARNEL_API int UStdIsConsole(int stream);

#endif  // QUARNEL_PLATFORM_CONSOLE_H_
