#include "quarnel/platform/console.h"

#include <unistd.h>

int UStdIsConsole(int stream) {
  if (stream != kStdInput && stream != kStdOutput && stream != kStdError) return 0;
  return isatty(stream) == 1 ? 1 : 0;
}
