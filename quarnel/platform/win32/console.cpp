#include "quarnel/platform/console.h"

#include "quarnel/platform/win32/winapi.h"

int UStdIsConsole(int stream) {
  static const DWORD kHandles[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
  if (stream != kStdInput && stream != kStdOutput && stream != kStdError) return 0;
  const HANDLE h = ::GetStdHandle(kHandles[stream]);
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return 0;
  return ::GetFileType(h) == FILE_TYPE_CHAR ? 1 : 0;
}
