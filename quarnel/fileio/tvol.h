// Volumes: TVol names a volume by the path of its root, a drive (C:\) or a
// network share (\\server\share\), and answers questions about it through
// the platform's volume calls (volapi.h): label, file-system name, serial,
// space, drive-type flags, block size. NativVolInfo is the record GetInfo
// fills; TLocalVolEnum walks the local volumes.
//
// The path always ends in a backslash after any Set; the empty TVol names no
// volume. Equality is TString::Compare of the paths ignoring case.
//
// Media control: no drive of the drive map is ejected, locked or formatted.
// The device opens (openAsNtDevice: "\\.\X:") and every device request
// answers "not supported" (50, mapped to -1012) with the member's log line;
// Flush flushes the drive's file system; the state queries answer for a
// fixed medium (not empty unless the drive's folder is missing, never
// locked or busy; ejectable for removable and CD-ROM drives; a floppy only
// as a removable A: or B:).
//
// Persisted form ('Vol.', version 256, compatible 256): the 8-byte
// persistence header, 16 zero bytes, the path as TString::Export writes it;
// StoreSize() = 24 + the string's store size. Export into fewer than
// StoreSize() bytes gives -695; Import of fewer than 24 bytes -696, a refused
// header the header check's code; both return the size used.
#ifndef QUARNEL_FILEIO_TVOL_H_
#define QUARNEL_FILEIO_TVOL_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/text/tstring.h"

class TFileLoc;
class TFolderLoc;

// Drive-type flags of GetFlags (word 0 of a volume's identity).
enum : unsigned {
  kVolRemovable = 0x1,
  kVolFixed = 0x2,
  kVolRemote = 0x4,
  kVolCdrom = 0x8,
  kVolRamdisk = 0x10,
  kVolNoFileSystemFlags = 0x10000000,  // the file-system flags could not be read
};

// The volume information record (TVol::GetInfo). Its five identity words,
// which location handles store and compare, are:
//   0 flags     the drive-type flags (kVolRemote marks a network volume)
//   1 serial    the volume serial number
//   2, 3        the file-system id, low and high halves
//   4           TString::Hash of the label (0 for an empty label)
class QUARNEL_API NativVolInfo {
 public:
  NativVolInfo();
  void Reset();
  // The five identity words, in order.
  void GetIdentity(unsigned words[5]) const;

  unsigned flags;
  unsigned serial;
  unsigned fsIdLow;
  unsigned fsIdHigh;
  unsigned labelHash;
  unsigned maxComponentLength;
  unsigned fileSystemFlags;
  TString path;    // the volume's root
  TString name;    // the label
  TString fsName;  // the file system's name
};

class QUARNEL_API TVol {
 public:
  TVol() = default;
  TVol(const TVol& other) = default;
  TVol& operator=(const TVol& other);

  // Sets the volume from a path. With parse 0 the path is taken whole (a
  // trailing backslash ensured). Otherwise: "C:" and "C:\..." give "C:\";
  // \\srv\share and \\srv\share\dir... give "\\srv\share\"; other drive forms
  // and "\\srv\" or "\\srv\share\" exactly return 0 keeping the old path
  // (trailing backslash ensured) - kept so on purpose; "\\srv" gives -1102
  // with "TVol::Set: no volume name" (515), a path that is neither a drive nor
  // UNC -1102 with "TVol::Set: not a drive letter nor UNC name" (517), a path
  // with a single leading backslash -1102 alone.
  int Set(const TString* path, int parse);
  // The volume of a location: the platform's volume path of the location's
  // path (the path itself when the platform has none), then Set(that, 1).
  int Set(const TFileLoc* loc);
  int Set(const TFolderLoc* loc);
  int GetPath(TString* path) const;
  const TString& Path() const { return path_; }
  void Reset() { path_.Clear(); }

  // 1 for a valid volume form ("X:" alone, or a first backslash at position
  // 2; with `strict` only "X:\"; \\srv\share or \\srv\share\) and, with
  // `checkSerial`, a readable serial; else 0.
  int IsValid(int checkSerial, int strict) const;
  int IsValid(int checkSerial = 0) const { return IsValid(checkSerial, 0); }

  int SetLabel(const TString* label) const;
  int GetName(TString* label) const;
  int GetFSName(TString* name) const;
  int GetSerialNo(unsigned* serial) const;
  // Space in bytes (used = total - free, free being what the caller may
  // use) and the allocation unit (a cluster, in bytes); any pointer may be null.
  int GetStats(std::uint64_t* total, std::uint64_t* used, std::uint64_t* free,
               unsigned* unit) const;
  // Drive-type flags, and with `withFileSystemFlags` the file-system flags
  // too (kVolNoFileSystemFlags when they cannot be read).
  int GetFlags(unsigned* flags, int withFileSystemFlags) const;
  int GetDeviceNumber(unsigned* number) const;  // always 0
  // The allocation unit (cluster size in bytes).
  int GetBlockSize(unsigned* size) const;
  int GetInfo(NativVolInfo* info) const;

  int IsEmpty(int* empty) const;
  int IsEjectable(int* ejectable, unsigned flags) const;
  int IsFloppy(int* floppy) const;
  int IsLocked(int* locked) const;
  int IsBusy() const;
  int Lock(void** handle, unsigned timeout, unsigned flags) const;
  int Unlock(void* handle) const;
  int Eject() const;
  int MakeEjectable(int ejectable) const;
  int Format(void* window, TString* label) const;
  int GetScsiInfo(unsigned* port, unsigned* path, unsigned* target, unsigned* lun) const;
  int Flush() const;

  unsigned StoreSize() const;
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);

  int operator==(const TVol& other) const;
  int operator!=(const TVol& other) const { return !(*this == other); }
  int operator==(const TFolderLoc& folder) const;
  int operator!=(const TFolderLoc& folder) const { return !(*this == folder); }

 private:
  // Opens the drive as a device ("\\.\X:"); 0 and the handle, or the error.
  int openAsNtDevice(void** handle) const;

  TString path_;
};

// Walks the local volumes: each drive root, then the mount points on it,
// never the same path twice. NextEnum gives -1024 at the end.
class QUARNEL_API TLocalVolEnum {
 public:
  TLocalVolEnum();
  ~TLocalVolEnum();
  TLocalVolEnum(const TLocalVolEnum&) = delete;
  TLocalVolEnum& operator=(const TLocalVolEnum&) = delete;

  int StartEnum();
  int NextEnum(TVol* vol);
  int AlreadyEnumed(const TString* path) const;
  int AddEnumed(const TString* path);
  void Reset();

 private:
  struct State;
  State* state_;
};

#endif  // QUARNEL_FILEIO_TVOL_H_
