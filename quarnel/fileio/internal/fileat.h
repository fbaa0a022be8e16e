// Positioned reads and writes on an open TFile for the library's own stores:
// one platform call each, without moving the file's position first. They
// fail and log as TFile::Read and TFile::Write do ("TFile::Read: ReadFile
// failed" with the file's path).
#ifndef QUARNEL_FILEIO_INTERNAL_FILEAT_H_
#define QUARNEL_FILEIO_INTERNAL_FILEAT_H_

#include <cstdint>

#include "quarnel/platform/fileapi.h"

class TFile;

namespace quarnel_internal {

// Reads exactly the spans' bytes from `offset`; fewer is the end of file
// (-1114, no log line). The file's position afterwards is unspecified.
int FileReadAt(TFile* file, std::int64_t offset, const UFileSpan* spans, int count);
// Writes the spans' bytes from `offset`. The file's position afterwards is
// unspecified.
int FileWriteAt(TFile* file, std::int64_t offset, const UFileSpan* spans, int count);
// Starts writing [offset, offset + length) of the file to the disk without
// waiting for it (UStartWriteBack): a hint, whose failure is not an error.
void FileStartWrite(TFile* file, std::int64_t offset, std::int64_t length);

}  // namespace quarnel_internal

#endif  // QUARNEL_FILEIO_INTERNAL_FILEAT_H_
