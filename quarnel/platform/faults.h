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
//
// The simulated disk (below) records what the file calls do to the files of
// one folder and builds the files a crash at any point would leave.
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

// The simulated disk. While recording, every change the platform's file calls
// make to a file inside the recorded folder (and its subfolders) is kept in
// order, numbered from 0 (its I/O index): each WriteFile (offset and bytes
// that reached the file), SetEndOfFile (the new length), FlushFileBuffers,
// DeleteFile and delete-on-close, and every call that sets a whole file at
// once: CreateFile creating or truncating, the target of CopyFile and
// MoveFile (whose source counts as deleted), and the label file that
// SetVolumeLabel writes. A file's contents when first touched are its
// starting state. Calls that fail change nothing and are not recorded.
//
// A crash before I/O `io` (0 .. UDiskIoCount()) leaves each file with every
// change up to its last FlushFileBuffers before `io`, and of its changes
// after that flush (if any) one of: none; all; all up to its last write, of
// which only the first half (rounded down) reached the disk (when one is
// pending); the first half of them, rounded down (when two or more are
// pending: the disk kept earlier changes and lost later ones). Each file
// takes its choice independently: UDiskCrashImages(io) is the number of
// distinct combinations (the product of each file's choices, in that
// order, the first file met varying fastest), and UDiskBuildCrash writes
// combination `image` (0 .. count - 1) into `folder`, each file under its
// path relative to the recorded folder (missing subfolders are made; a file
// the crash leaves absent is deleted there). `folder` must lie outside the
// recorded folder.
//
// UDiskRecord starts a new record for `folder` (a Windows path), dropping
// any earlier one; null stops recording and keeps the record for building.
// Returns 1, or 0 with the last error (3 when the folder is not mapped).
// UDiskIoCount is the number of I/Os recorded. UDiskCrashImages returns 0
// and UDiskBuildCrash 0 with last error 87 for an io or image out of range.
// The record lives until the next UDiskRecord or UDiskReset. Any thread.
QUARNEL_API int UDiskRecord(const char16_t* folder);
QUARNEL_API int UDiskIoCount();
QUARNEL_API int UDiskCrashImages(int io);
QUARNEL_API int UDiskBuildCrash(int io, int image, const char16_t* folder);
// Stops recording and drops the record.
QUARNEL_API void UDiskReset();

#endif  // QUARNEL_PLATFORM_FAULTS_H_
