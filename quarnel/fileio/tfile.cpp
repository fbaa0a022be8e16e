#include "quarnel/fileio/tfile.h"

#include <cstring>

#include "quarnel/fileio/internal/fileat.h"
#include "quarnel/fileio/internal/locpath.h"
#include "quarnel/fileio/tlochandle.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"

using quarnel_internal::NullArgument;

namespace {

constexpr unsigned kWinSharingViolation = 32;

// Assertion lines of module "fileio".
constexpr int kLineCreateClose = 2708;  // Create could not close the open file
constexpr int kLineOpenClose = 2787;    // Open could not close the open file

// Moves the file pointer by a 64-bit offset (its two halves) from the
// method's origin; a failure is mapped and logged with `message`.
int SetPos(UHANDLE handle, const TString& path, std::uint64_t offset, unsigned method,
           const char* message) {
  auto high = static_cast<std::int32_t>(static_cast<std::uint32_t>(offset >> 32));
  const unsigned low = USetFilePointer(
      handle, static_cast<std::int32_t>(static_cast<std::uint32_t>(offset)), &high, method);
  if (low == kInvalidSetFilePointer && UGetLastError() != 0) return MapAndLogErr(&path, message, 0);
  return 0;
}

}  // namespace

TFile::TFile() : handle_(kInvalidHandleValue) {}

TFile::~TFile() {
  if (IsValid()) UCloseHandle(handle_);
}

int TFile::IsValid() const { return handle_ != kInvalidHandleValue && handle_ != nullptr; }

int TFile::Set(const TFileLoc* loc) {
  if (loc == nullptr) return NullArgument("TFile::Set");
  location_ = *loc;
  return 0;
}

int TFile::Create(const TFileLoc* loc, int mode) {
  if (loc == nullptr) return NullArgument("TFile::Create");
  if (IsValid() && Close() != 0) Debug("fileio", kLineCreateClose);
  location_ = *loc;
  handle_ = UCreateFile(location_.Path().Text(), static_cast<unsigned>(mode), kFileShareRead,
                        kCreateAlways, kFileAttributeNormal);
  if (handle_ == kInvalidHandleValue)
    return MapAndLogErr(&location_.Path(), "TFile::Create: UCreateFile failed", 0);
  return 0;
}

int TFile::Open(const TFileLoc* loc, int mode) {
  if (loc == nullptr) return NullArgument("TFile::Open");
  if (IsValid() && Close() != 0) Debug("fileio", kLineOpenClose);
  location_ = *loc;
  const char16_t* path = location_.Path().Text();
  const auto access = static_cast<unsigned>(mode);
  handle_ = UCreateFile(path, access, kFileShareRead, kOpenExisting, kFileAttributeNormal);
  if (handle_ == kInvalidHandleValue && UGetLastError() == kWinSharingViolation &&
      (access & ~kModeRead) == 0) {
    handle_ = UCreateFile(path, access, kFileShareRead | kFileShareWrite, kOpenExisting,
                          kFileAttributeNormal);
  }
  if (handle_ == kInvalidHandleValue)
    return MapAndLogErr(&location_.Path(), "TFile::Open: UCreateFile failed", 0);
  return 0;
}

int TFile::Close() {
  if (!IsValid()) return 0;
  if (!UCloseHandle(handle_))
    return MapAndLogErr(&location_.Path(), "TFile::Close: CloseHandle failed", 0);
  handle_ = kInvalidHandleValue;
  return 0;
}

int TFile::Read(unsigned* count, unsigned char* buffer) {
  if (count == nullptr) return NullArgument("TFile::Read");
  unsigned read = 0;
  if (!UReadFile(handle_, buffer, *count, &read)) {
    *count = read;
    return MapAndLogErr(&location_.Path(), "TFile::Read: ReadFile failed", 0);
  }
  *count = read;
  return read == 0 ? kErrEndOfFile : 0;
}

namespace quarnel_internal {

int FileReadAt(TFile* file, std::int64_t offset, const UFileSpan* spans, int count) {
  unsigned want = 0;
  for (int i = 0; i < count; ++i) want += spans[i].count;
  unsigned read = 0;
  if (!UReadFileAt(file->Handle(), spans, count, static_cast<std::uint64_t>(offset), &read)) {
    const unsigned winerr = UGetLastError();
    TFileLoc loc;
    file->GetFileLoc(&loc);
    return MapAndLogErr(&loc.Path(), "TFile::Read: ReadFile failed", winerr);
  }
  return read == want ? 0 : kErrEndOfFile;
}

int FileWriteAt(TFile* file, std::int64_t offset, const UFileSpan* spans, int count) {
  unsigned written = 0;
  if (!UWriteFileAt(file->Handle(), spans, count, static_cast<std::uint64_t>(offset), &written)) {
    const unsigned winerr = UGetLastError();
    TFileLoc loc;
    file->GetFileLoc(&loc);
    return MapAndLogErr(&loc.Path(), "TFile::Write: WriteFile failed", winerr);
  }
  return 0;
}

void FileStartWrite(TFile* file, std::int64_t offset, std::int64_t length) {
  if (offset >= 0 && length > 0)
    UStartWriteBack(file->Handle(), static_cast<std::uint64_t>(offset),
                    static_cast<std::uint64_t>(length));
}

}  // namespace quarnel_internal

int TFile::Read(unsigned* count, TMemory* block) {
  if (count == nullptr || block == nullptr) return NullArgument("TFile::Read");
  if (*count > block->GetSize()) *count = block->GetSize();
  return Read(count, block->MemPtr());
}

int TFile::Read(unsigned* count, TString* text) {
  if (count == nullptr || text == nullptr) return NullArgument("TFile::Read");
  if (*count == 0) {
    std::uint64_t size = 0;
    if (const int err = GetEOF(&size)) return err;
    *count = size > kMaxTextRead ? kMaxTextRead : static_cast<unsigned>(size);
  }
  if (*count > kMaxTextRead) *count = kMaxTextRead;
  char* buffer = text->GetBufferAnsi(static_cast<short>(*count));
  const int err = Read(count, reinterpret_cast<unsigned char*>(buffer));
  buffer[err == 0 ? *count : 0] = 0;
  text->ReleaseBufferAnsi();
  return err;
}

int TFile::Write(unsigned* count, const unsigned char* buffer) {
  if (count == nullptr) return NullArgument("TFile::Write");
  unsigned written = 0;
  if (!UWriteFile(handle_, buffer, *count, &written)) {
    *count = written;
    return MapAndLogErr(&location_.Path(), "TFile::Write: WriteFile failed", 0);
  }
  *count = written;
  return 0;
}

int TFile::Write(unsigned* count, const TMemory* block) {
  if (count == nullptr || block == nullptr) return NullArgument("TFile::Write");
  if (*count > block->GetSize()) *count = block->GetSize();
  return Write(count, block->MemPtr());
}

int TFile::Write(const TString* text) {
  if (text == nullptr) return NullArgument("TFile::Write");
  TString copy = *text;
  const char* bytes = copy.ReadBufferAnsi();
  unsigned count = static_cast<unsigned>(std::strlen(bytes));
  const int err = Write(&count, reinterpret_cast<const unsigned char*>(bytes));
  copy.CloseBufferAnsi();
  return err;
}

int TFile::WriteUnicode(unsigned* count, const TString* text) {
  if (count == nullptr || text == nullptr) return NullArgument("TFile::WriteUnicode");
  const unsigned most = 2u * static_cast<unsigned>(text->Length()) + 2;  // the terminator at most
  if (*count == 0) *count = 2u * static_cast<unsigned>(text->Length());
  if (*count > most) *count = most;
  return Write(count, reinterpret_cast<const unsigned char*>(text->Text()));
}

int TFile::GetPosition(std::uint64_t* position) {
  if (position == nullptr) return NullArgument("TFile::GetPosition");
  std::int32_t high = 0;
  const unsigned low = USetFilePointer(handle_, 0, &high, kFileCurrent);
  if (low == kInvalidSetFilePointer && UGetLastError() != 0)
    return MapAndLogErr(&location_.Path(), "TFile::GetPosition: SetFilePointer failed", 0);
  *position = (static_cast<std::uint64_t>(static_cast<std::uint32_t>(high)) << 32) | low;
  return 0;
}

int TFile::SetPosFromBegin(std::uint64_t offset) {
  return SetPos(handle_, location_.Path(), offset, kFileBegin,
                "TFile::SetPosFromBegin: SetFilePointer failed");
}

int TFile::SetPosFromCurrent(std::uint64_t offset) {
  return SetPos(handle_, location_.Path(), offset, kFileCurrent,
                "TFile::SetPosFromCurrent: SetFilePointer failed");
}

int TFile::SetPosFromEnd(std::uint64_t offset) {
  return SetPos(handle_, location_.Path(), offset, kFileEnd,
                "TFile::SetPosFromEnd: SetFilePointer failed");
}

int TFile::GetEOF(std::uint64_t* size) {
  if (size == nullptr) return NullArgument("TFile::GetEOF");
  std::uint64_t position = 0;
  if (const int err = GetPosition(&position)) return err;
  if (const int err = SetPosFromEnd(0)) return err;
  if (const int err = GetPosition(size)) return err;
  return SetPosFromBegin(position);
}

int TFile::SetEOF(std::uint64_t size) {
  if (const int err = SetPosFromBegin(size)) return err;
  if (!USetEndOfFile(handle_))
    return MapAndLogErr(&location_.Path(), "TFile::SetEOF: SetEndOfFile failed", 0);
  return 0;
}

int TFile::Flush() {
  if (!UFlushFileBuffers(handle_))
    return MapAndLogErr(&location_.Path(), "TFile::Flush: FlushFileBuffers failed", 0);
  return 0;
}

int TFile::Lock() {
  unsigned attributes = 0;
  if (const int err = location_.GetAttributes(&attributes)) return err;
  return location_.SetAttributes(attributes);
}

int TFile::Unlock() {
  unsigned attributes = 0;
  if (const int err = location_.GetAttributes(&attributes)) return err;
  return location_.SetAttributes(attributes & ~unsigned{kFileAttributeReadOnly});
}

int TFile::IsLocked() {
  unsigned attributes = 0;
  location_.GetAttributes(&attributes);
  return (attributes & kFileAttributeReadOnly) ? kErrWriteProtected : 0;
}

int TFile::GetInfo(VNativNodeInfo* info) {
  if (info == nullptr) return NullArgument("TFile::GetInfo");
  if (const int err = location_.GetInfo(info)) return err;
  if (!IsValid()) return 0;
  UBY_HANDLE_FILE_INFORMATION h;
  if (!UGetFileInformationByHandle(handle_, &h))
    return MapAndLogErr(&location_.Path(), "TFile::GetInfo: UGetFileInformationByHandle failed", 0);
  info->attributes = h.dwFileAttributes;
  info->creationTime = h.ftCreationTime;
  info->lastAccessTime = h.ftLastAccessTime;
  info->lastWriteTime = h.ftLastWriteTime;
  info->sizeHigh = h.nFileSizeHigh;
  info->sizeLow = h.nFileSizeLow;
  info->volumeSerial = h.dwVolumeSerialNumber;
  info->linkCount = h.nNumberOfLinks;
  info->indexHigh = h.nFileIndexHigh;
  info->indexLow = h.nFileIndexLow;
  return 0;
}

int TFile::Copy(const TFileLoc* dest) {
  if (dest == nullptr) return NullArgument("TFile::Copy");
  if (!UCopyFile(location_.Path().Text(), dest->Path().Text(), 0))
    return MapAndLogErr(&location_.Path(), "TFile::Copy: UCopyFile failed", 0);
  return 0;
}

int TFile::RSame(const TFileLoc* loc) const {
  if (loc == nullptr) return 0;
  if (location_ == *loc) return 1;
  char16_t a[4 * kMaxPath], b[4 * kMaxPath];
  const unsigned na = UGetFullPathName(location_.Path().Text(), 4 * kMaxPath, a, nullptr);
  const unsigned nb = UGetFullPathName(loc->Path().Text(), 4 * kMaxPath, b, nullptr);
  if (na == 0 || nb == 0 || na >= 4 * kMaxPath || nb >= 4 * kMaxPath) return 0;
  return TString(a).Compare(TString(b)) == 0;
}

int TFile::GetFileLoc(TFileLoc* loc) const {
  if (loc == nullptr) return NullArgument("TFile::GetFileLoc");
  *loc = location_;
  return 0;
}

int TFile::GetParent(TFolderLoc* parent) const { return location_.GetParent(parent); }
int TFile::GetName(TString* name) const { return location_.GetName(name); }
int TFile::GetVol(TVol* vol) const { return location_.GetVol(vol); }

int TFile::GetLocHandle(TLocHandle* handle) const {
  if (handle == nullptr) return NullArgument("TFile::GetLocHandle");
  return handle->From(&location_);
}

int TFile::Create(const TLocHandle* handle, int mode) {
  if (handle == nullptr) return NullArgument("TFile::Create");
  TFileLoc loc;
  const int rc = handle->GetFileLoc(&loc, 0);
  return rc != 0 ? rc : Create(&loc, mode);
}

int TFile::Open(const TLocHandle* handle, int mode) {
  if (handle == nullptr) return NullArgument("TFile::Open");
  TFileLoc loc;
  const int rc = handle->GetFileLoc(&loc, 1);
  return rc != 0 ? rc : Open(&loc, mode);
}
