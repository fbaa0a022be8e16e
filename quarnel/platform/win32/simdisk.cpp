#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

// The simulated disk records the Linux build's file layer only: on Windows
// nothing is recorded, UDiskRecord refuses with 50 (not supported) and the
// record is always empty.

int UDiskRecord(const char16_t*) {
  USetLastError(ERROR_NOT_SUPPORTED);
  return 0;
}

int UDiskIoCount() { return 0; }

int UDiskCrashImages(int) {
  USetLastError(ERROR_INVALID_PARAMETER);
  return 0;
}

int UDiskBuildCrash(int, int, const char16_t*) {
  USetLastError(ERROR_INVALID_PARAMETER);
  return 0;
}

void UDiskReset() {}
