// The test seam: makes chosen U-calls fail, as a switch rather than a mock.
//
//   UFailCall(UCall::kWriteFile, 3, 112);   // the 3rd WriteFile from now fails
//                                          // with 112 (disk full)
//
// A failing call does what the real call does when it fails: it returns its
// failure value and sets the last error. When no fault is armed the check is
// one relaxed atomic load.
//
// The arming calls are exported: they are the library's testing interface for
// a host's own tests. The umbrella header leaves this header out; UShouldFail
// is the library's own check and is not exported.
#ifndef QUARNEL_PLATFORM_FAULTS_H_
#define QUARNEL_PLATFORM_FAULTS_H_

#include "quarnel/foundation/export.h"

enum class UCall : int {
  kHeapAlloc,
  kHeapReAlloc,
  kHeapValidate,    // HeapValidate reports a damaged heap
  kVirtualReserve,  // VirtualAlloc with MEM_RESERVE
  kVirtualCommit,   // VirtualAlloc with MEM_COMMIT
  kMultiByteToWideChar,
  kWideCharToMultiByte,
  kCreateFile,
  kReadFile,
  kWriteFile,
  kFlushFileBuffers,
  kSetFilePointer,
  kSetEndOfFile,
  kSetLocalTime,  // SetLocalTime (1314: the privilege to set the clock is not held)
  kLoadLibrary,   // ULoadLibrary and ULoadLibraryEx
  kFreeLibrary,   // UFreeLibrary
  kLoadResource,  // ULoadResource
  kCloseHandle,   // UCloseHandle, UFindClose (the handle stays open)
  kGetFileInformationByHandle,
  kDeleteFile,
  kCopyFile,
  kMoveFile,
  kCreateDirectory,
  kRemoveDirectory,
  kGetFileAttributes,
  kSetFileAttributes,
  kFindFirstFile,
  kFindNextFile,
  kGetTempFileName,
  kGetVolumeInformation,  // UGetVolumeInformation, USetVolumeLabel
  kGetDiskFreeSpace,      // UGetDiskFreeSpace and UGetDiskFreeSpaceEx
  kCount
};

// The `nth` call of `call` from now (1 = the next one) fails with `winerr`,
// and so do the `repeat` - 1 calls after it (repeat -1: every later call).
QUARNEL_API void UFailCall(UCall call, int nth, unsigned winerr, int repeat = 1);
// Disarms every fault.
QUARNEL_API void UClearFaults();
// For U-functions: true when this call must fail; *winerr gets the error.
bool UShouldFail(UCall call, unsigned* winerr);

#endif  // QUARNEL_PLATFORM_FAULTS_H_
