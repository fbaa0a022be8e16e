// The simulated disk's recording side (faults.h describes the record): the
// platform's file calls tell it what they change. Each call costs one relaxed
// atomic load while nothing is recorded.
#ifndef QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_
#define QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_

#include <cstddef>
#include <cstdint>
#include <string>

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

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_SIMDISK_H_
