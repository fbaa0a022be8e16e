// TLocHandle: a persistent reference to a file or folder that resolves
// again after drive letters changed, removable media moved to another
// drive, or a network share was disconnected.
//
// A handle holds the five identity words of the volume that held the object
// (NativVolInfo: 0 the drive-type flags, kVolRemote marking a network
// volume; 1 the serial; 2 and 3 the file-system id; 4 the label's hash), the
// volume, the volume's name (label), the path (in remote form,
// \\server\share\..., for a network volume), and the account that
// reconnects a share: a name and a secret, the secret held scrambled (the
// two 4-bit halves of every byte of its 16-bit units exchanged).
//
// Path tokens stand for folders of the environment record (env.h), each in
// its Windows form on the drive map (ULocFromHostPath):
//   "?A"  appFolder   the application's folder
//   "?O"  userFolder  the user's own folder
//   "?S"  logFolder   the application's state folder
//   "?W"  workFolder  the work folder
// A folder that is empty or that no drive holds has no token. Folders and
// tokens are looked up at each call, so a handle follows a moved folder.
//
// Resolving (GetFilePath): the path with its tokens expanded answers when its
// parent folder exists (or, with mustExist, the file itself). Otherwise a
// network handle reconnects its share (UNetAddConnection) and answers the
// path; a local handle searches the drives (UGetLogicalDrives, from A:,
// floppies and unreadable drives skipped) in three passes: a drive whose
// identity words agree in one of word 1, word 0, words 2 and 3, or word 4 and
// whose volume name is the handle's; then identity alone; then the name
// alone. The first drive on which the path's parent (or, with mustExist, the
// file) exists answers. Nothing found: -1 and "TLocHandle::GetFileLoc:
// can't find file, \"%S\"" at 519. Existence is asked of the platform
// without log lines; each drive's information is read once per call.
// Resolution never changes the handle.
//
// Persisted form ('LHn.', version 256, compatible 256): the 8-byte
// persistence header, the five words, 12 zero bytes, the volume as
// TVol::Export writes it, then volume name, path, mount name and mount secret
// (scrambled) as TString::Export writes them; StoreSize() = 40 + the parts'
// store sizes. Export into fewer bytes gives -695; Import of fewer than 40
// -696, a refused header the header check's code (-690 for the other byte
// order), a part's first error; a failed Import leaves the handle unchanged.
//
// A handle is a value: one thread at a time.
#ifndef QUARNEL_FILEIO_TLOCHANDLE_H_
#define QUARNEL_FILEIO_TLOCHANDLE_H_

#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/export.h"
#include "quarnel/text/tstring.h"

class QUARNEL_API TLocHandle {
 public:
  static constexpr unsigned kSignature = 0x4C486E2E;  // 'LHn.'

  TLocHandle();
  TLocHandle(const TLocHandle& other) = default;
  TLocHandle& operator=(const TLocHandle& other) = default;

  // Zero words, no volume, four empty strings.
  void Reset();
  // Makes the handle for `file`: its volume's words, volume and name, and
  // its path; on a network drive the path in remote form. A failure of the
  // volume's information is returned with the path set; a failed
  // UNetGetConnection is logged "TLocHandle::From: UNetGetConnection failed"
  // and returned, the path being the file's own.
  int From(const TFileLoc* file);
  // Replaces each token folder's path followed by a backslash, compared
  // ignoring case, by its token, for "?A", "?O", "?S", "?W" in turn. 0.
  int TokenizeLocation();
  // The path with the tokens expanded; no disk access. 0.
  int GetPath(TString* path, int unused = 0) const;
  // GetPath, then TFileLoc::GetRealPath of it.
  int GetRealPath(TString* path, int shortNames) const;
  // Resolves the handle to a path that exists now (see above).
  int GetFilePath(TString* path, int mustExist) const;
  // GetFilePath, then the location is set from its answer, also on failure.
  int GetFileLoc(TFileLoc* loc, int mustExist) const;
  int GetFolderLoc(TFolderLoc* loc, int mustExist) const;

  // Stores the account that reconnects the share (the secret scrambled). 0.
  int SetMountInfo(const TString* name, const TString* secret);
  // The account name, the secret unscrambled, the volume name and the path
  // with its tokens expanded; any pointer may be null. 0.
  int GetMountInfo(TString* name, TString* secret, TString* volumeName, TString* path) const;

  // Equal words and volumes, and equal expanded paths (exact nonzero) or
  // equal parent folders of them (exact zero).
  int Equal(const TLocHandle* other, int exact) const;
  int operator==(const TLocHandle& other) const { return Equal(&other, 1); }
  int operator!=(const TLocHandle& other) const { return !Equal(&other, 1); }

  unsigned StoreSize() const;
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);

 private:
  unsigned words_[5];
  TVol vol_;
  TString volName_;
  TString path_;
  TString mountName_;
  TString mountSecret_;  // scrambled
};

#endif  // QUARNEL_FILEIO_TLOCHANDLE_H_
