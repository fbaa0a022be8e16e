// CreateFile and the calls on file handles, on the system's own calls; the
// table of the handles the library gave out.
#include "quarnel/platform/fileapi.h"

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/files.h"

namespace quarnel_internal {

namespace {

struct HandleEntry {
  HandleKind kind;
  std::string disk;  // a file's path as the simulated disk names it
  bool deleteOnClose;
};

struct HandleTable {
  std::mutex lock;
  std::unordered_map<UHANDLE, HandleEntry> kinds;
};

HandleTable& Table() {
  static auto* table = new HandleTable;
  return *table;
}

bool EntryOf(UHANDLE h, HandleEntry* entry) {
  HandleTable& t = Table();
  std::lock_guard<std::mutex> hold(t.lock);
  const auto it = t.kinds.find(h);
  if (it == t.kinds.end()) return false;
  *entry = it->second;
  return true;
}

bool KindOf(UHANDLE h, HandleKind* kind) {
  HandleEntry e;
  if (!EntryOf(h, &e)) return false;
  *kind = e.kind;
  return true;
}

// The simulated disk's name of a file handle's file; "" for other handles.
std::string DiskFileOf(UHANDLE h) {
  HandleEntry e;
  return EntryOf(h, &e) && e.kind == HandleKind::kFile ? e.disk : std::string();
}

// The file pointer of `h`, -1 when it cannot be read.
std::int64_t PointerOf(HANDLE h) {
  LARGE_INTEGER at{};
  return ::SetFilePointerEx(h, LARGE_INTEGER{}, &at, FILE_CURRENT) ? at.QuadPart : -1;
}

bool IsFolderPath(const std::wstring& system) {
  const DWORD a = ::GetFileAttributesW(system.c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// The access mask of the library's access word: the open-mode bits become
// the generic rights, the Win32 bits stay.
DWORD AccessMask(unsigned access) {
  DWORD mask = access & (kGenericRead | kGenericWrite | kDeleteAccess);
  if (access & kModeRead) mask |= GENERIC_READ;
  if (access & (kModeWrite | kModeWriteOrRead)) mask |= GENERIC_WRITE;
  return mask;
}

UHANDLE OpenOnce(const std::wstring& path, unsigned access, unsigned share, unsigned disposition,
                 unsigned flags, bool volume, unsigned* err) {
  DWORD attributes = flags;
  if (access & kModeWriteThrough) attributes |= FILE_FLAG_WRITE_THROUGH;
  const HANDLE h = ::CreateFileW(path.c_str(), AccessMask(access), share, nullptr, disposition,
                                 attributes, nullptr);
  *err = ::GetLastError();
  if (h == INVALID_HANDLE_VALUE) return kInvalidHandleValue;
  if (volume) return AddHandle(h, HandleKind::kVolume);
  return AddHandle(h, HandleKind::kFile, DiskHost(path), (flags & kFileFlagDeleteOnClose) != 0);
}

}  // namespace

UHANDLE AddHandle(HANDLE h, HandleKind kind, std::string disk, bool deleteOnClose) {
  HandleTable& t = Table();
  std::lock_guard<std::mutex> hold(t.lock);
  t.kinds[h] = HandleEntry{kind, std::move(disk), deleteOnClose};
  return h;
}

bool IsHandle(UHANDLE h, HandleKind kind) {
  HandleKind k;
  return KindOf(h, &k) && k == kind;
}

bool IsFileHandle(UHANDLE h) {
  HandleKind k;
  return KindOf(h, &k) && (k == HandleKind::kFile || k == HandleKind::kVolume);
}

int CloseTableHandle(UHANDLE h, bool (*kindOk)(HandleKind)) {
  HandleEntry entry;
  if (!EntryOf(h, &entry) || !kindOk(entry.kind)) return Refuse(ERROR_INVALID_HANDLE);
  const HandleKind kind = entry.kind;
  if (Faulted(UCall::kCloseHandle)) return 0;
  // A file that goes at its close reaches the simulated disk as deleted.
  const bool noteDelete = kind == HandleKind::kFile && entry.deleteOnClose && DiskRecording() &&
                          !IsFolderPath(DiskSystem(entry.disk));
  if (noteDelete) DiskTouch(entry.disk);
  {
    HandleTable& t = Table();
    std::lock_guard<std::mutex> hold(t.lock);
    t.kinds.erase(h);
  }
  BOOL ok = FALSE;
  switch (kind) {
    case HandleKind::kFind:
      ok = ::FindClose(h);
      break;
    case HandleKind::kVolumeFind:
      ok = ::FindVolumeClose(h);
      break;
    case HandleKind::kMountFind:
      ok = ::FindVolumeMountPointClose(h);
      break;
    default:
      ok = ::CloseHandle(h);
      break;
  }
  if (noteDelete && ::GetFileAttributesW(DiskSystem(entry.disk).c_str()) == INVALID_FILE_ATTRIBUTES)
    DiskNoteDelete(entry.disk);
  return ok ? 1 : 0;
}

bool Faulted(UCall call) {
  unsigned err = 0;
  if (!UShouldFail(call, &err)) return false;
  USetLastError(err);
  return true;
}

int Refuse(unsigned err) {
  USetLastError(err);
  return 0;
}

int UOpenHandleCount() {
  HandleTable& t = Table();
  std::lock_guard<std::mutex> hold(t.lock);
  return static_cast<int>(t.kinds.size());
}

}  // namespace quarnel_internal

using namespace quarnel_internal;

UHANDLE UCreateFile(const char16_t* path, unsigned access, unsigned share, unsigned disposition,
                    unsigned flags) {
  if (Faulted(UCall::kCreateFile)) return kInvalidHandleValue;
  unsigned err = 0;
  const std::wstring system = SystemPath(path, &err);
  if (system.empty()) {
    USetLastError(err);
    return kInvalidHandleValue;
  }
  const bool volume = system.rfind(L"\\\\.\\", 0) == 0;
  // The simulated disk sees the file before and after an open that may
  // create or truncate it.
  const bool recording = !volume && DiskRecording();
  const std::string disk = recording ? DiskHost(system) : std::string();
  const bool existed =
      !recording || ::GetFileAttributesW(system.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (recording) DiskTouch(disk);
  UHANDLE h = OpenOnce(system, access, share, disposition, flags, volume, &err);
  if (h == kInvalidHandleValue && err == ERROR_ACCESS_DENIED && (access & kModeWriteOrRead)) {
    access &= ~(kModeWrite | kModeWriteOrRead | kGenericWrite);
    h = OpenOnce(system, access, share, disposition, flags, volume, &err);
  }
  const bool made = disposition == kCreateAlways || disposition == kTruncateExisting || !existed;
  if (recording && h != kInvalidHandleValue && made && !IsFolderPath(system)) DiskNoteWhole(disk);
  USetLastError(err);
  return h;
}

namespace {

// A handle of the table for a call on its data; null (last error set) when
// the fault seam fails `call` or the library did not give the handle out.
HANDLE DataHandle(UHANDLE handle, UCall call) {
  if (Faulted(call)) return nullptr;
  if (!IsFileHandle(handle)) {
    USetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return handle;
}

}  // namespace

int UReadFile(UHANDLE file, void* buffer, unsigned count, unsigned* read) {
  if (read) *read = 0;
  const HANDLE h = DataHandle(file, UCall::kReadFile);
  if (h == nullptr) return 0;
  if (buffer == nullptr && count > 0) return Refuse(ERROR_NOACCESS);
  DWORD n = 0;
  const BOOL ok = ::ReadFile(h, buffer, count, &n, nullptr);
  if (read) *read = n;
  return ok ? 1 : 0;
}

int UWriteFile(UHANDLE file, const void* buffer, unsigned count, unsigned* written) {
  if (written) *written = 0;
  const HANDLE h = DataHandle(file, UCall::kWriteFile);
  if (h == nullptr) return 0;
  if (buffer == nullptr && count > 0) return Refuse(ERROR_NOACCESS);
  DWORD n = 0;
  const std::string disk = DiskRecording() ? DiskFileOf(h) : std::string();
  if (disk.empty()) {
    const BOOL ok = ::WriteFile(h, buffer, count, &n, nullptr);
    if (written) *written = n;
    return ok ? 1 : 0;
  }
  DiskTouch(disk);
  const std::int64_t at = PointerOf(h);
  const BOOL ok = ::WriteFile(h, buffer, count, &n, nullptr);
  const DWORD err = ::GetLastError();
  if (at >= 0) DiskNoteWrite(disk, static_cast<std::uint64_t>(at), buffer, n);
  if (written) *written = n;
  ::SetLastError(err);
  return ok ? 1 : 0;
}

namespace {

// Reads or writes the spans one by one at their places, each through an
// OVERLAPPED position on the synchronous handle; a read stops at the end of
// the file.
int TransferAt(HANDLE h, const UFileSpan* spans, int count, std::uint64_t offset, unsigned* done,
               bool write) {
  if (count < 0 || count > kUFileSpansMax || (spans == nullptr && count > 0))
    return Refuse(ERROR_INVALID_PARAMETER);
  std::uint64_t total = 0;
  for (int i = 0; i < count; ++i) {
    if (spans[i].data == nullptr && spans[i].count > 0) return Refuse(ERROR_NOACCESS);
    total += spans[i].count;
  }
  if (total > 0xFFFFFFFFu) return Refuse(ERROR_INVALID_PARAMETER);
  std::uint64_t at = offset;
  for (int i = 0; i < count; ++i) {
    if (spans[i].count == 0) continue;
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(at & 0xFFFFFFFFu);
    position.OffsetHigh = static_cast<DWORD>(at >> 32);
    DWORD n = 0;
    const BOOL ok = write ? ::WriteFile(h, spans[i].data, spans[i].count, &n, &position)
                          : ::ReadFile(h, spans[i].data, spans[i].count, &n, &position);
    if (done) *done += n;
    at += n;
    if (!ok) {
      if (!write && ::GetLastError() == ERROR_HANDLE_EOF) return 1;
      return 0;
    }
    if (n < spans[i].count) return 1;
  }
  return 1;
}

}  // namespace

int UReadFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                unsigned* read) {
  if (read) *read = 0;
  const HANDLE h = DataHandle(file, UCall::kReadFile);
  return h != nullptr && TransferAt(h, spans, count, offset, read, false);
}

int UWriteFileAt(UHANDLE file, const UFileSpan* spans, int count, std::uint64_t offset,
                 unsigned* written) {
  if (written) *written = 0;
  const HANDLE h = DataHandle(file, UCall::kWriteFile);
  if (h == nullptr) return 0;
  const std::string disk = DiskRecording() ? DiskFileOf(h) : std::string();
  if (disk.empty() || count < 0 || count > kUFileSpansMax || spans == nullptr)
    return TransferAt(h, spans, count, offset, written, true);
  // While the disk is simulated the pieces go out as one write, recorded as one.
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    if (spans[i].data == nullptr && spans[i].count > 0) return Refuse(ERROR_NOACCESS);
    bytes.append(static_cast<const char*>(spans[i].data), spans[i].count);
  }
  DiskTouch(disk);
  const UFileSpan whole{bytes.data(), static_cast<unsigned>(bytes.size())};
  unsigned moved = 0;
  const int ok = TransferAt(h, &whole, bytes.empty() ? 0 : 1, offset, &moved, true);
  const DWORD err = ::GetLastError();
  DiskNoteWrite(disk, offset, bytes.data(), moved);
  if (written) *written = moved;
  ::SetLastError(err);
  return ok;
}

unsigned USetFilePointer(UHANDLE file, std::int32_t low, std::int32_t* high, unsigned method) {
  const HANDLE h = DataHandle(file, UCall::kSetFilePointer);
  if (h == nullptr) return kInvalidSetFilePointer;
  LONG hi = high ? *high : 0;
  const DWORD r = ::SetFilePointer(h, low, high ? &hi : nullptr, method);
  if (high && !(r == INVALID_SET_FILE_POINTER && ::GetLastError() != NO_ERROR)) *high = hi;
  return r;
}

int USetEndOfFile(UHANDLE file) {
  const HANDLE h = DataHandle(file, UCall::kSetEndOfFile);
  if (h == nullptr) return 0;
  const std::string disk = DiskRecording() ? DiskFileOf(h) : std::string();
  if (!disk.empty()) DiskTouch(disk);
  const std::int64_t at = disk.empty() ? -1 : PointerOf(h);
  if (!::SetEndOfFile(h)) return 0;
  if (at >= 0) DiskNoteLength(disk, static_cast<std::uint64_t>(at));
  return 1;
}

int UFlushFileBuffers(UHANDLE file) {
  const HANDLE h = DataHandle(file, UCall::kFlushFileBuffers);
  if (h == nullptr || !::FlushFileBuffers(h)) return 0;
  if (DiskRecording()) {
    const std::string disk = DiskFileOf(h);
    if (!disk.empty()) DiskNoteFlush(disk);
  }
  return 1;
}

// Windows has no call that starts writing a range without waiting for it.
int UStartWriteBack(UHANDLE file, std::uint64_t, std::uint64_t) {
  if (!IsFileHandle(file)) return Refuse(ERROR_INVALID_HANDLE);
  return 1;
}

int UCloseHandle(UHANDLE handle) {
  return CloseTableHandle(handle, [](HandleKind) { return true; });
}

int UGetFileInformationByHandle(UHANDLE file, UBY_HANDLE_FILE_INFORMATION* info) {
  const HANDLE h = DataHandle(file, UCall::kGetFileInformationByHandle);
  if (h == nullptr) return 0;
  if (info == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
  BY_HANDLE_FILE_INFORMATION i;
  if (!::GetFileInformationByHandle(h, &i)) return 0;
  static_assert(sizeof i == sizeof *info, "the record is the system's own");
  std::memcpy(info, &i, sizeof i);
  return 1;
}
