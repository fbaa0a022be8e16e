// TFile: an open file, a platform file handle (fileapi.h) with the
// location it was opened from. It creates or opens by location, reads and
// writes raw bytes, TMemory blocks and TString text, positions with 64-bit
// offsets, sets the end of file, flushes, and reports find and handle
// information. Every write, truncation and flush goes through UWriteFile,
// USetEndOfFile and UFlushFileBuffers.
//
// Results: 0 or a negative library error; a failed platform call is mapped
// and logged once by MapAndLogErr with the file's path and the member's
// message ("TFile::Read: ReadFile failed"). -1114 (end of file) is returned
// without a log line; -1103 marks a read-only file.
//
// Open modes: 0x1 read, 0x2 write, 0x4 write falling back to read-only when
// the file cannot be written (access denied), 0x8 write-through.
//
// Opening by location handle (TLocHandle) comes with the location handles.
// A TFile is used by one thread at a time; the destructor closes the file.
#ifndef QUARNEL_FILEIO_TFILE_H_
#define QUARNEL_FILEIO_TFILE_H_

#include <cstdint>

#include "quarnel/fileio/location.h"
#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/text/tstring.h"

class TVol;

class QUARNEL_API TFile {
 public:
  // The longest text Read(count, TString*) takes.
  static constexpr unsigned kMaxTextRead = 16383;

  TFile();
  ~TFile();
  TFile(const TFile&) = delete;
  TFile& operator=(const TFile&) = delete;

  int IsValid() const;  // a file is open
  UHANDLE Handle() const { return handle_; }

  int Set(const TFileLoc* loc);  // stores the location only
  // Closes an open file first (a failing close raises Debug("fileio", 2708)),
  // then creates with share mode read and create-always.
  int Create(const TFileLoc* loc, int mode);
  // Closes first (Debug("fileio", 2787) when that fails), then opens with
  // share mode read and open-existing; a read-only open (mode 0x1) refused by
  // sharing (32) is tried once more sharing read and write.
  int Open(const TFileLoc* loc, int mode);
  // Closes and forgets the handle; 0 when none is open. A failing close
  // keeps the handle.
  int Close();

  // Reads up to *count bytes; *count becomes the number read. Nothing read
  // gives -1114.
  int Read(unsigned* count, unsigned char* buffer);
  // The same into the block, at most its size.
  int Read(unsigned* count, TMemory* block);
  // *count 0 means the file's size; at most 16,383 single-byte characters
  // (system code page) become the string.
  int Read(unsigned* count, TString* text);
  int Write(unsigned* count, const unsigned char* buffer);
  int Write(unsigned* count, const TMemory* block);  // at most the block's size
  // The string's single-byte text, without a terminator.
  int Write(const TString* text);
  // The 16-bit text without byte-order mark or terminator; *count 0 means
  // twice the length (at most that many bytes are written).
  int WriteUnicode(unsigned* count, const TString* text);

  int GetPosition(std::uint64_t* position);
  int SetPosFromBegin(std::uint64_t offset);
  int SetPosFromCurrent(std::uint64_t offset);  // two's complement moves back
  int SetPosFromEnd(std::uint64_t offset);
  // The size; the position is left where it was.
  int GetEOF(std::uint64_t* size);
  // The file ends at `size`, and the position is there.
  int SetEOF(std::uint64_t size);
  int SetFileSize(std::uint64_t size) { return SetEOF(size); }
  int Flush();

  // Reads the attributes and writes them back unchanged (it does not set
  // the read-only bit); Unlock clears read-only; IsLocked gives -1103 for a
  // read-only file, else 0 (also when the attributes cannot be read).
  int Lock();
  int Unlock();
  int IsLocked();

  // Find information of the location, completed from the open handle.
  int GetInfo(VNativNodeInfo* info);
  // Copies the file named by the location to `dest`, overwriting.
  int Copy(const TFileLoc* dest);
  // True when `loc` names this file: equal paths, or equal full paths.
  int RSame(const TFileLoc* loc) const;

  int GetFileLoc(TFileLoc* loc) const;
  int GetParent(TFolderLoc* parent) const;
  int GetName(TString* name) const;
  int GetVol(TVol* vol) const;

 private:
  UHANDLE handle_;
  TFileLoc location_;
};

#endif  // QUARNEL_FILEIO_TFILE_H_
