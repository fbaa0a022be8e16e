// File and folder locations: a place in the file system named by its full
// Windows-form path (C:\Data\Sub, \\server\share\Sub), without opening it.
//
// TFolderLoc names a folder, TFileLoc a file; the whole state of either is
// one TString path. Their members act on the named object through the
// platform's file calls (fileapi.h) on the drive map (drivemap.h): create,
// rename, move, copy, delete, clear a folder tree, enumerate, read
// attributes and find information, find the parent and the real path, and
// persist the location.
//
// Results: 0 or a negative library error. A failed platform call is mapped
// and logged by MapAndLogErr with the location's path and the member's
// message ("TFolderLoc::Rename: UMoveFile failed"); logic failures (not a
// folder, no parent, no name) log at level 515 with the path and return -1
// or -1010. A failed operation leaves the location unchanged, except Create,
// which keeps the last name it tried. A null argument logs "<member>: null
// argument" at 515 and returns -1010.
//
// Equality (==) is TString's comparison of the paths (case-sensitive
// collation); Identical is unit-for-unit equality. A location is used by one
// thread at a time.
//
// Persisted form ('Fol.' for folders, 'Fil.' for files; version 256,
// compatible 256): the 8-byte persistence header, 16 zero bytes, then the
// path as TString::Export writes it; StoreSize() = 24 + the string's store
// size, a multiple of 4. Export into fewer than StoreSize() bytes gives -695,
// Import of fewer than 24 bytes -696, a refused header the header check's
// code (-690 for a record of the other byte order), and both return the size
// used. A refused Import leaves the location unchanged.
#ifndef QUARNEL_FILEIO_LOCATION_H_
#define QUARNEL_FILEIO_LOCATION_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/text/tstring.h"

class TVol;
class NativVolInfo;
class VNativNodeInfo;

// The find record of a file or folder: the platform's find data (attributes,
// times, size, name and 8.3 name), completed by TFile::GetInfo with the
// handle's information (volume serial, link count, file index).
class QUARNEL_API VNativNodeInfoBasic {
 public:
  VNativNodeInfoBasic();
  // Zeroes the numeric words and clears the names.
  void Reset();
  // Takes the platform's find record.
  void SetFromFind(const UWIN32_FIND_DATAW& data);
  int IsFolder() const { return (attributes & kFileAttributeDirectory) != 0; }
  std::uint64_t GetSize() const { return (std::uint64_t{sizeHigh} << 32) | sizeLow; }

  unsigned attributes;  // FILE_ATTRIBUTE bits; 0x10 marks a folder
  UFILETIME creationTime;
  UFILETIME lastAccessTime;
  UFILETIME lastWriteTime;
  unsigned sizeHigh;
  unsigned sizeLow;
  unsigned volumeSerial;
  unsigned linkCount;
  unsigned indexHigh;
  unsigned indexLow;
  TString name;       // the entry's name as the file system spells it
  TString shortName;  // its 8.3 name; empty when the name is one
};

class QUARNEL_API TFolderLoc {
 public:
  TFolderLoc();
  TFolderLoc(const TFolderLoc& other);
  TFolderLoc& operator=(const TFolderLoc& other);

  // parent's path + "\" (unless it ends in one) + name, then SetPath.
  int Set(const TFolderLoc* parent, const TString* name);
  // SetPath of the volume's path ("C:\" becomes "C:").
  int Set(const TVol* vol);
  // Assigns, then drops one trailing backslash.
  int SetPath(const TString* path);
  int GetPath(TString* path, int unused = 0) const;
  const TString& Path() const { return path_; }
  // Replaces the leading volume part (as GetVol finds it) by `vol`'s path.
  int SetVol(const TVol* vol);
  // The volume that holds the path (TVol::Set(TFolderLoc*)).
  int GetVol(TVol* vol) const;

  int SetToCurrent();
  int SetToTemp();
  int SetToWindows();
  int SetToSystem();
  // A drive's recycle folder: volume path + "\" + string 16010 'Rcyl' of the
  // resources ("$Recycle.Bin"); -1 for a volume that is not a drive letter.
  int SetToRecycled(const TVol* vol);
  int MakeCurrent() const;

  // Creates a new folder under a unique name: the path when it is free,
  // else name-1, name-2, ... (never an existing folder); a name that would
  // make the path longer than maxLen is shortened. The location holds the
  // path created (or the last one tried).
  int Create(int maxLen);
  // Creates every missing folder of the path, each with Create(maxLen).
  int CreateDirStructure(int maxLen);
  // Renames the folder in its parent; the location keeps its old path.
  int Rename(const TString* name) const;
  // Moves the folder into `dest`, keeping its name.
  int Move(const TFolderLoc* dest) const;
  // Deletes everything inside the folder, breadth first, clearing read-only
  // files. Kept: at a drive's root the folders "System Volume Information",
  // "_Restore" and "Recycled"; at any depth a folder "Vellomarch" holding a
  // plain file "Ormic". The folder itself stays. -1010 when the path is not
  // a folder; otherwise the first failing delete's error, or, after removing
  // every folder it can, the first failing Remove's.
  int DirClear() const;
  int Delete() const;  // DirClear, then Remove
  // Removes the empty folder (its attributes cleared first); a path over 259
  // characters is removed through a delete-on-close handle.
  int Remove() const;

  // Find-first on path + "\" + pattern ("*.*" when null); the info's parent
  // becomes this folder. EndFind: 0 for a null handle (nothing called), else
  // the handle is nulled and FindClose's failure gives 1.
  int StartFind(void** handle, VNativNodeInfo* info, const TString* pattern) const;
  int NextFind(void** handle, VNativNodeInfo* info) const;
  int EndFind(void** handle) const;

  int SetAttributes(unsigned attributes) const;
  int GetAttributes(unsigned* attributes) const;
  int Exists() const;   // the attributes show a folder
  int IsRoot() const;   // the path names a volume (TVol::IsValid(0, 1))
  int IsValid() const;  // the path is not empty
  // The part before the last backslash; -1 for a root, an empty path or a
  // path without a backslash.
  int GetParent(TFolderLoc* parent) const;
  // The name as the disk spells it (GetInfo), else the part after the last
  // backslash; -1 when there is none.
  int GetName(TString* name) const;
  // Find information of the folder; for a root a reset record named by the path.
  int GetInfo(VNativNodeInfo* info) const;
  // The path with every component as the disk spells it (its 8.3 name with
  // `shortNames`) and the root upper-cased; the stored path when a find fails
  // (its error is returned).
  int GetRealPath(TString* path, int shortNames) const;
  // True when `other` lies inside this folder (on the same volume); a folder
  // does not enclose itself.
  int IsEnclosing(const TFolderLoc* other) const;
  int IsEnclosedBy(const TFolderLoc* other) const;
  // True when a temporary file can be made, written and deleted in the folder.
  int IsWritable() const;
  // Refreshes `info` for the folder's volume: always with `force`, else only
  // when it describes another volume (or none).
  int SubInfoUpdate(NativVolInfo* info, int force) const;

  int operator==(const TFolderLoc& other) const;
  int operator!=(const TFolderLoc& other) const { return !(*this == other); }
  int operator==(const TVol& vol) const;
  int operator!=(const TVol& vol) const { return !(*this == vol); }
  int Identical(const TFolderLoc& other) const { return path_.Identical(other.path_); }

  unsigned StoreSize() const;
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);
  void Reset() { path_.Clear(); }

 private:
  TString path_;
};

// A find record with the folder the entry was found in.
class QUARNEL_API VNativNodeInfo : public VNativNodeInfoBasic {
 public:
  TFolderLoc parent;
};

class QUARNEL_API TFileLoc {
 public:
  TFileLoc();
  TFileLoc(const TFileLoc& other);
  TFileLoc& operator=(const TFileLoc& other);

  // folder's path + "\" (unless it ends in one) + name.
  int Set(const TFolderLoc* folder, const TString* name);
  // Assigns; with asFolder a trailing backslash is added, otherwise one is dropped.
  int SetPath(const TString* path, int asFolder = 0);
  int GetPath(TString* path, int unused = 0) const;
  const TString& Path() const { return path_; }
  int SetVol(const TVol* vol);
  int GetVol(TVol* vol) const;
  // A new, empty temporary file "qnlXXXX.TMP" in the temporary folder.
  int SetTempName();

  // Deletes the file (read-only cleared first with `clearAttributes`); a path
  // over 259 characters is deleted through a delete-on-close handle.
  int Delete(int clearAttributes) const;
  int Copy(const TFileLoc* dest, int failIfExists) const;
  // Copies into `dest` under the file's own name.
  int Copy(const TFolderLoc* dest, int failIfExists) const;
  int Move(const TFolderLoc* dest) const;
  int Rename(const TString* name) const;
  int SetAttributes(unsigned attributes) const;
  int GetAttributes(unsigned* attributes) const;
  int GetInfo(VNativNodeInfo* info) const;
  int Exists() const;  // the attributes can be read
  // As for folders; a path ending in a backslash names the component before it.
  int GetName(TString* name) const;
  // The part before the last backslash (a trailing one skipped); -1 for an
  // empty path, and -1 with "TFileLoc::GetParent: folder is root, "%S"" at
  // 515 when there is no backslash.
  int GetParent(TFolderLoc* parent) const;
  // TString::Compare of the extension (from the last "." on, "" without one)
  // with `ext`.
  int CompareExt(const TString* ext) const;
  int GetRealPath(TString* path, int shortNames) const;
  int IsValid() const { return !path_.IsEmpty(); }
  int Identical(const TFileLoc& other) const { return path_.Identical(other.path_); }
  void Reset() { path_.Clear(); }

  int operator==(const TFileLoc& other) const;
  int operator!=(const TFileLoc& other) const { return !(*this == other); }

  unsigned StoreSize() const;
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);

 private:
  TString path_;
};

// A growable list of owned folder locations (for tree walks). Capacity
// starts at 10 and grows by 10; the locations are deleted last to first.
class QUARNEL_API TFolderLocArray {
 public:
  TFolderLocArray();
  ~TFolderLocArray();
  TFolderLocArray(const TFolderLocArray&) = delete;
  TFolderLocArray& operator=(const TFolderLocArray&) = delete;

  // A new empty location at the end; null when memory runs out.
  TFolderLoc* Add();
  // The location at `index`; an index outside 0..count-1 raises
  // Debug("fileio", 109) and gives null.
  TFolderLoc* operator[](int index);
  int GetCount() const { return count_; }

 private:
  TMemory block_;
  int capacity_;
  int count_;
};

namespace quarnel_internal {

// The suffix rule of TFolderLoc::Create: base + SPrintf("%c%~d", sep, number)
// + extension, cut to `limit` characters. The name splits into base and
// extension at no dot (`wholeBase`), at the first dot (limit below 13: 8.3
// names, the extension cut to 4 characters) or at the last dot. When the
// result is k characters too long the base is cut by k, or, when k reaches
// the base's length, the whole name is cut by k and the suffix comes without
// the extension. Returns 0, or -1 when no name fits.
int AddSuffix(TString* out, const TString* name, char16_t separator, int number, int wholeBase,
              int limit);

}  // namespace quarnel_internal

#endif  // QUARNEL_FILEIO_LOCATION_H_
