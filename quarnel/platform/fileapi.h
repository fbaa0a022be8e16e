// Files and folders with Win32 meaning: CreateFile and the calls on its
// handles, delete, copy, move, folders, attributes, find-first/next, the
// current folder, full paths and temporary names.
//
// Paths are Windows-form UTF-16 paths on the drive map (drivemap.h). Each
// call turns its path into the long form first (LongPathForm: "\\?\C:\..."
// and "\\?\UNC\srv\share\..."), so paths of any length work. Components
// lose trailing dots and blanks; "." and ".." are resolved, ".." never going
// above the root.
//
// Failures return the call's failure value (0, kInvalidHandleValue,
// kInvalidFileAttributes, 0xFFFFFFFF) and set the last error to the Windows
// number (lasterror.h). The numbers Windows gives: 2 no such file, 3 no such
// folder on the way (or an unmapped drive), 5 access denied (a folder opened
// as a file, a read-only file opened for writing, deleted or overwritten, a
// folder given to DeleteFile), 32 sharing violation, 80 file exists
// (CREATE_NEW, CopyFile with failIfExists), 87 bad parameter, 112 disk full,
// 123 a name with a character Windows forbids (< > " | ? * and 1..31), 145
// folder not empty, 183 already exists (CreateDirectory, MoveFile), 206 a
// name longer than 255, 267 not a folder (RemoveDirectory of a file, a
// temporary name in a missing folder).
//
// Sharing: every open names the access it wants (read, write, delete) and
// the access it lets other opens have (share mode). An open that an existing
// handle's access or sharing forbids fails with 32, whether that handle
// belongs to this process or another: each handle announces its access and
// its denials as open-file-description read locks on reserved bytes far
// past any data, so the rule holds across processes on one host. DeleteFile
// and MoveFile need delete access to the file and fail with 32 while a
// handle denies it.
//
// Attributes: folder 0x10; read-only 0x1 when the owner's write bit is clear
// (setting it clears every write bit, clearing it sets the owner's); hidden
// 0x2 for names beginning with "."; every file carries archive 0x20, as a
// file changed since its last backup does on Windows. Other bits given to
// SetFileAttributes are accepted and not kept.
//
// The fault seam (faults.h) can make each of these calls fail with a chosen
// error before it does anything: kCreateFile, kReadFile, kWriteFile,
// kSetFilePointer, kSetEndOfFile, kFlushFileBuffers, kCloseHandle (the handle
// stays open), kGetFileInformationByHandle, kDeleteFile, kCopyFile,
// kMoveFile, kCreateDirectory, kRemoveDirectory, kGetFileAttributes,
// kSetFileAttributes, kFindFirstFile, kFindNextFile, kGetTempFileName.
//
// Threads: every call may come from any thread. One handle is used by one
// thread at a time; closing a handle that another thread is using is misuse.
#ifndef QUARNEL_PLATFORM_FILEAPI_H_
#define QUARNEL_PLATFORM_FILEAPI_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/platform/wintime.h"

using UHANDLE = void*;
// INVALID_HANDLE_VALUE: all bits set.
inline UHANDLE const kInvalidHandleValue = reinterpret_cast<UHANDLE>(~std::uintptr_t{0});

enum : unsigned {
  // Access: the library's open-mode bits and the Win32 access bits, in one word.
  kModeRead = 0x1,          // read access
  kModeWrite = 0x2,         // write access
  kModeWriteOrRead = 0x4,   // write access; on access denied (5) opens read-only
  kModeWriteThrough = 0x8,  // writes reach the disk before WriteFile returns
  kDeleteAccess = 0x00010000,
  kGenericWrite = 0x40000000,
  kGenericRead = 0x80000000,
  // Share mode.
  kFileShareRead = 1,
  kFileShareWrite = 2,
  kFileShareDelete = 4,
  // Dispositions.
  kCreateNew = 1,
  kCreateAlways = 2,
  kOpenExisting = 3,
  kOpenAlways = 4,
  kTruncateExisting = 5,
  // Flags and attributes.
  kFileAttributeReadOnly = 0x1,
  kFileAttributeHidden = 0x2,
  kFileAttributeSystem = 0x4,
  kFileAttributeDirectory = 0x10,
  kFileAttributeArchive = 0x20,
  kFileAttributeNormal = 0x80,
  kFileFlagBackupSemantics = 0x02000000,  // a folder may be opened
  kFileFlagDeleteOnClose = 0x04000000,    // the file or folder goes at its handle's close
  kFileFlagWriteThrough = 0x80000000,
  kInvalidFileAttributes = 0xFFFFFFFF,
  // SetFilePointer methods.
  kFileBegin = 0,
  kFileCurrent = 1,
  kFileEnd = 2,
  kInvalidSetFilePointer = 0xFFFFFFFF,
  kMaxPath = 260,
};

struct UWIN32_FIND_DATAW {
  std::uint32_t dwFileAttributes;
  UFILETIME ftCreationTime;
  UFILETIME ftLastAccessTime;
  UFILETIME ftLastWriteTime;
  std::uint32_t nFileSizeHigh;
  std::uint32_t nFileSizeLow;
  std::uint32_t dwReserved0;
  std::uint32_t dwReserved1;
  char16_t cFileName[kMaxPath];
  char16_t cAlternateFileName[14];  // the 8.3 name; empty when the name is one
};

struct UBY_HANDLE_FILE_INFORMATION {
  std::uint32_t dwFileAttributes;
  UFILETIME ftCreationTime;
  UFILETIME ftLastAccessTime;
  UFILETIME ftLastWriteTime;
  std::uint32_t dwVolumeSerialNumber;
  std::uint32_t nFileSizeHigh;
  std::uint32_t nFileSizeLow;
  std::uint32_t nNumberOfLinks;
  std::uint32_t nFileIndexHigh;
  std::uint32_t nFileIndexLow;
};

// CreateFile. `access` takes the open-mode bits (kModeRead..kModeWriteThrough)
// and the Win32 bits (kGenericRead, kGenericWrite, kDeleteAccess) alike; with
// kModeWriteOrRead an open refused with 5 is tried once more without write
// access. `flags` takes the attributes of a new file (only read-only is kept)
// and kFileFlagWriteThrough, kFileFlagBackupSemantics (needed to open a
// folder), kFileFlagDeleteOnClose. \\.\X: opens drive X as a volume (its
// FlushFileBuffers flushes the drive's file system). On success the last
// error is 183 when kCreateAlways or kOpenAlways found the file, else 0.
QUARNEL_API UHANDLE UCreateFile(const char16_t* path, unsigned access, unsigned share,
                                unsigned disposition, unsigned flags);
// Reads up to `count` bytes (fewer only at the end of the file); 1 or 0.
QUARNEL_API int UReadFile(UHANDLE file, void* buffer, unsigned count, unsigned* read);
// Writes `count` bytes at the position; *written is what reached the file.
QUARNEL_API int UWriteFile(UHANDLE file, const void* buffer, unsigned count, unsigned* written);
// A piece of memory for the positioned calls: `count` bytes at `data`.
struct UFileSpan {
  void* data;
  unsigned count;
};
// The most spans one positioned call takes.
constexpr int kUFileSpansMax = 64;
// ReadFile at a position: reads into the `spans` (at most kUFileSpansMax) in order from
// `offset`, fewer bytes only at the end of the file; *read is the total
// (which must fit in 32 bits). The handle's position afterwards is
// unspecified. The fault seam's kReadFile applies.
QUARNEL_API int UReadFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                            unsigned* read);
// WriteFile at a position: writes the `spans` (at most kUFileSpansMax) in order from
// `offset`; *written is what reached the file. The handle's position
// afterwards is unspecified. The fault seam's kWriteFile applies; the
// simulated disk records it as one write.
QUARNEL_API int UWriteFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                             unsigned* written);
// Moves by the 64-bit distance (`high` null: the sign-extended low half) from
// the method's origin; returns the new position's low half and puts the high
// half in *high. Failure: kInvalidSetFilePointer with the last error set (131
// for a position before the start); a position whose low half is all ones
// returns it with the last error 0.
QUARNEL_API unsigned USetFilePointer(UHANDLE file, std::int32_t low, std::int32_t* high,
                                     unsigned method);
// The file ends at the current position.
QUARNEL_API int USetEndOfFile(UHANDLE file);
QUARNEL_API int UFlushFileBuffers(UHANDLE file);
// A hint, not a flush: starts writing the file's changed bytes in
// [offset, offset + length) to the disk and returns without waiting, so that
// a later UFlushFileBuffers finds less left to write. It promises nothing
// about durability, the fault seam and the simulated disk pass it by, and a
// system without such a call does nothing. 1, or 0 with the last error.
QUARNEL_API int UStartWriteBack(UHANDLE file, std::uint64_t offset, std::uint64_t length);
// Closes any handle of the platform (files, folders, volumes, finds). A
// delete-on-close handle removes its file or folder; when that fails the
// handle is closed all the same and 0 is returned with the error.
QUARNEL_API int UCloseHandle(UHANDLE handle);
QUARNEL_API int UGetFileInformationByHandle(UHANDLE file, UBY_HANDLE_FILE_INFORMATION* info);

QUARNEL_API int UDeleteFile(const char16_t* path);
// Copies contents, read-only attribute and last-write time.
QUARNEL_API int UCopyFile(const char16_t* from, const char16_t* to, int failIfExists);
// Renames or moves a file or folder (a file also to another volume; a folder
// there fails with 17). A new spelling of the same name renames in place.
QUARNEL_API int UMoveFile(const char16_t* from, const char16_t* to);
// MoveFileEx flags.
enum : unsigned {
  kMoveFileReplaceExisting = 0x1,  // an existing file at `to` is replaced
  kMoveFileCopyAllowed = 0x2,      // a file may move to another volume as a copy and a delete
  kMoveFileWriteThrough = 0x8,     // returns when the move has reached the disk
};
// MoveFileEx. Without kMoveFileReplaceExisting it is UMoveFile (which always
// lets a file move to another volume). With it, an existing file at `to` is
// replaced in one step (rename(2): any reader sees the old file or the new
// one), except a folder, a read-only file (5) or a file whose handles deny
// delete access (32); another volume then needs kMoveFileCopyAllowed (else
// 17). kMoveFileWriteThrough flushes the folder that received the entry.
// Other flags give 87. The fault seam's kMoveFile applies.
QUARNEL_API int UMoveFileEx(const char16_t* from, const char16_t* to, unsigned flags);
QUARNEL_API int UCreateDirectory(const char16_t* path);
QUARNEL_API int URemoveDirectory(const char16_t* path);
QUARNEL_API unsigned UGetFileAttributes(const char16_t* path);
QUARNEL_API int USetFileAttributes(const char16_t* path, unsigned attributes);

// Find-first/next over the entries of a folder that match the last component
// of `pattern` (see WildcardMatch in internal/winpath.h: "*.*" every name,
// "*." names without an extension, "?" one character; wildcards match the
// long names only, while a pattern without wildcards also finds an entry by
// its 8.3 name, as every path does). "." and ".." come first except at a drive's or
// share's root; the rest in the order of their upper-cased names. 2 when
// nothing matches, 3 when the folder is missing; UFindNextFile gives 18 at
// the end.
QUARNEL_API UHANDLE UFindFirstFile(const char16_t* pattern, UWIN32_FIND_DATAW* data);
QUARNEL_API int UFindNextFile(UHANDLE find, UWIN32_FIND_DATAW* data);
QUARNEL_API int UFindClose(UHANDLE find);

// GetCurrentDirectory: the length written (terminator excluded), or the size
// needed (terminator included) when `size` is too small.
QUARNEL_API unsigned UGetCurrentDirectory(unsigned size, char16_t* buffer);
QUARNEL_API int USetCurrentDirectory(const char16_t* path);
// GetFullPathName: the full path of `path` against the current folder,
// without touching the disk. Returns as UGetCurrentDirectory; *filePart (may
// be null) points at the last component in `buffer`, null when the path ends
// in a backslash.
QUARNEL_API unsigned UGetFullPathName(const char16_t* path, unsigned size, char16_t* buffer,
                                      char16_t** filePart);
// GetTempPath: TMP, else TEMP, else /tmp (a host path, or already a Windows
// path), in Windows form with a trailing backslash. Returns as
// UGetCurrentDirectory.
QUARNEL_API unsigned UGetTempPath(unsigned size, char16_t* buffer);
// GetTempFileName: `folder` + "\" + at most three units of `prefix` + the
// unique number in upper-case hexadecimal + ".TMP" into `out` (kMaxPath
// units). `unique` 0: numbers are tried from a process-wide counter until a
// new file can be created (it is left, empty); otherwise its low 16 bits
// name a file that is not created. Returns the number used, 0 on failure
// (267 when the folder is missing, 80 when all 65535 names exist).
QUARNEL_API unsigned UGetTempFileName(const char16_t* folder, const char16_t* prefix,
                                      unsigned unique, char16_t* out);
// The Windows folder "C:\Windows" and the system folder
// "C:\Windows\System32", as Wine names them (whether or not they exist).
QUARNEL_API unsigned UGetWindowsDirectory(char16_t* buffer, unsigned size);
QUARNEL_API unsigned UGetSystemDirectory(char16_t* buffer, unsigned size);

// IsCharAlpha: true for letters (ASCII, Latin-1 and Latin Extended-A,
// Greek, Cyrillic, and any unit with an upper- or lower-case partner).
QUARNEL_API int UIsCharAlpha(char16_t ch);

namespace quarnel_internal {
// Handles open in this process (files, folders, volumes, finds), for tests
// that check nothing was left open.
int UOpenHandleCount();
}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_FILEAPI_H_
