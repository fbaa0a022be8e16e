// The simulated disk's recording side (faults.h describes the record): the
// platform's file calls tell it what they change. Each call costs one relaxed
// atomic load while nothing is recorded. Host paths here are the system's
// full paths with "/" between components (the Windows build turns its "\"
// into "/"); below the recorded folder they name files by their relative path.
#ifndef QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_
#define QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quarnel_internal {

// True while a folder is recorded.
bool DiskRecording();
// Before a call changes `host`: keeps the file's contents as its starting
// state when the record has not met it yet. Files outside the folder are
// ignored by every call here.
void DiskTouch(const std::string& host);
// After the change.
void DiskNoteWrite(const std::string& host, std::uint64_t offset, const void* data,
                   std::size_t count);
void DiskNoteLength(const std::string& host, std::uint64_t length);
void DiskNoteFlush(const std::string& host);
void DiskNoteDelete(const std::string& host);
// The file now holds what is on disk (read from it), or is empty.
void DiskNoteWhole(const std::string& host);

// What each platform supplies to the record.
//
// The host path of a caller's folder, without a trailing "/"; 0, or the
// error (3 when it is not a folder).
unsigned HostFolderOf(const char16_t* folder, std::string* host);
// The bytes of the regular file at `host`; false when there is none.
bool ReadHostFile(const std::string& host, std::string* bytes);
// Removes the file at `host`, then, unless `bytes` is null, writes a new one
// holding them, making missing folders on the way (never truncating a file
// in place, which some file systems answer with a flush); 0 or the error.
unsigned ReplaceHostFile(const std::string& host, const std::string* bytes);
// Whether two host paths (or relative names) name the same entry: byte for
// byte on Linux, without case on Windows.
bool SameHostName(std::string_view a, std::string_view b);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_
