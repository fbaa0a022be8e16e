#include "quarnel/fileio/location.h"

#include <cstring>

#include "quarnel/fileio/internal/locpath.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/lasterror.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kFolderSignature = 0x466F6C2E;  // 'Fol.'
constexpr unsigned kFileSignature = 0x46696C2E;    // 'Fil.'
constexpr int kNameLimit = 255;
// Paths longer than this are deleted and removed through a delete-on-close handle.
constexpr int kLongPath = 259;

const char16_t kTempPrefix[] = u"qnl";

bool IsFolderName(const TString& name, const char16_t* wanted) {
  return name.Compare(wanted, -1, 0) == 0;
}

// Copies a find record's fields into `info`.
int FillFromFind(const TString& path, const char* message, VNativNodeInfoBasic* info) {
  UWIN32_FIND_DATAW data;
  const UHANDLE h = UFindFirstFile(path.Text(), &data);
  if (h == kInvalidHandleValue) return MapAndLogErr(&path, message, 0);
  UFindClose(h);
  info->SetFromFind(data);
  return 0;
}

}  // namespace

// ---- VNativNodeInfoBasic ------------------------------------------------------

VNativNodeInfoBasic::VNativNodeInfoBasic() { Reset(); }

void VNativNodeInfoBasic::Reset() {
  attributes = 0;
  creationTime = lastAccessTime = lastWriteTime = UFILETIME{0, 0};
  sizeHigh = sizeLow = 0;
  volumeSerial = linkCount = indexHigh = indexLow = 0;
  name.Clear();
  shortName.Clear();
}

void VNativNodeInfoBasic::SetFromFind(const UWIN32_FIND_DATAW& data) {
  Reset();
  attributes = data.dwFileAttributes;
  creationTime = data.ftCreationTime;
  lastAccessTime = data.ftLastAccessTime;
  lastWriteTime = data.ftLastWriteTime;
  sizeHigh = data.nFileSizeHigh;
  sizeLow = data.nFileSizeLow;
  name.Assign(data.cFileName);
  shortName.Assign(data.cAlternateFileName);
}

// ---- TFolderLoc ---------------------------------------------------------------

TFolderLoc::TFolderLoc() = default;
TFolderLoc::TFolderLoc(const TFolderLoc& other) : path_(other.path_) {}

TFolderLoc& TFolderLoc::operator=(const TFolderLoc& other) {
  if (this != &other) path_ = other.path_;
  return *this;
}

int TFolderLoc::Set(const TFolderLoc* parent, const TString* name) {
  if (parent == nullptr || name == nullptr) return NullArgument("TFolderLoc::Set");
  TString path;
  JoinPath(&path, parent->path_, *name);
  return SetPath(&path);
}

int TFolderLoc::Set(const TVol* vol) {
  if (vol == nullptr) return NullArgument("TFolderLoc::Set");
  return SetPath(&vol->Path());
}

int TFolderLoc::SetPath(const TString* path) {
  if (path == nullptr) return NullArgument("TFolderLoc::SetPath");
  path_ = *path;
  DropTrailing(&path_);
  return 0;
}

int TFolderLoc::GetPath(TString* path, int) const {
  if (path == nullptr) return NullArgument("TFolderLoc::GetPath");
  *path = path_;
  return 0;
}

int TFolderLoc::GetVol(TVol* vol) const {
  if (vol == nullptr) return NullArgument("TFolderLoc::GetVol");
  return vol->Set(this);
}

int TFolderLoc::SetVol(const TVol* vol) {
  if (vol == nullptr) return NullArgument("TFolderLoc::SetVol");
  TVol current;
  const int err = GetVol(&current);
  if (err != 0) return err;
  TString path;
  ReplaceVolume(&path, path_, current.Path(), vol->Path());
  return SetPath(&path);
}

namespace {

// Sets `loc` from a path that a platform query writes into a buffer.
template <class Query>
int SetFromQuery(TFolderLoc* loc, const char* message, Query query) {
  char16_t buf[kMaxPath + 1];
  const unsigned n = query(buf, kMaxPath + 1);
  if (n == 0 || n > kMaxPath) return MapAndLogErr(nullptr, message, n == 0 ? 0 : 122);
  TString path(buf);
  return loc->SetPath(&path);
}

}  // namespace

int TFolderLoc::SetToCurrent() {
  return SetFromQuery(this, "TFolderLoc::SetToCurrent: UGetCurrentDirectory failed",
                      [](char16_t* b, unsigned n) { return UGetCurrentDirectory(n, b); });
}

int TFolderLoc::SetToTemp() {
  return SetFromQuery(this, "TFolderLoc::SetToTemp: UGetTempPath failed",
                      [](char16_t* b, unsigned n) { return UGetTempPath(n, b); });
}

int TFolderLoc::SetToWindows() {
  return SetFromQuery(this, "TFolderLoc::SetToWindows: UGetWindowsDirectory failed",
                      [](char16_t* b, unsigned n) { return UGetWindowsDirectory(b, n); });
}

int TFolderLoc::SetToSystem() {
  return SetFromQuery(this, "TFolderLoc::SetToSystem: UGetSystemDirectory failed",
                      [](char16_t* b, unsigned n) { return UGetSystemDirectory(b, n); });
}

int TFolderLoc::SetToRecycled(const TVol* vol) {
  if (vol == nullptr) return NullArgument("TFolderLoc::SetToRecycled");
  const TString& root = vol->Path();
  if (root.Length() < 2 || root[1] != u':') return -1;
  TString name;
  name.LoadKString(16010, 0x5263796C);  // 'Rcyl'
  TString path;
  JoinPath(&path, root, name);
  return SetPath(&path);
}

int TFolderLoc::MakeCurrent() const {
  if (!USetCurrentDirectory(path_.Text()))
    return MapAndLogErr(&path_, "TFolderLoc::MakeCurrent: USetCurrentDirectory failed", 0);
  return 0;
}

int TFolderLoc::Create(int maxLen) {
  const int requestedLen = path_.Length();
  TString name;
  if (GetName(&name) != 0) name = path_;
  TFolderLoc parent;
  GetParent(&parent);
  for (int attempt = 1;; ++attempt) {
    if (UCreateDirectory(path_.Text())) return 0;
    const int err = MapAndLogErr(&path_, "TFolderLoc::Create: UCreateDirectory failed", 0);
    VNativNodeInfo info;
    if (err != kErrAlreadyExists && GetInfo(&info) != 0) return err;
    TString newName;
    if (AddSuffix(&newName, &name, u'-', attempt, 1, kNameLimit) != 0) {
      DebugLogf(kLogMisuse, "TFolderLoc::Create: intAddSuffix can't add suffix, \"%S\"", &path_);
      return -1;
    }
    TString path;
    JoinPath(&path, parent.path_, newName);
    SetPath(&path);
    // The wide platform takes long paths, so only a request already within
    // maxLen is kept within it.
    if (requestedLen >= maxLen || path_.Length() <= maxLen) continue;
    TString suffix;
    suffix.SPrintf(u"%c%~d", static_cast<int>(u'-'), attempt);
    const int baseLen = newName.Length() - suffix.Length() - (path_.Length() - maxLen);
    if (baseLen < 1) {
      DebugLogf(kLogMisuse, "TFolderLoc::Create: intFixPathLen can't fix path length, \"%S\"",
                &path_);
      return -1;
    }
    TString shortened = name.Left(static_cast<short>(baseLen));
    shortened.Append(suffix);
    JoinPath(&path, parent.path_, shortened);
    SetPath(&path);
  }
}

int TFolderLoc::CreateDirStructure(int maxLen) {
  if (Exists()) return 0;
  // Back from the end to the first prefix that is a root or exists.
  int stop = -1;
  for (int i = path_.Length() - 1; i > 0; --i) {
    if (path_[static_cast<short>(i)] != u'\\') continue;
    TFolderLoc prefix;
    TString text = path_.Left(static_cast<short>(i));
    prefix.SetPath(&text);
    if (prefix.IsRoot() || prefix.Exists()) {
      stop = i;
      break;
    }
  }
  if (stop < 0) {
    DebugLogf(kLogMisuse, "TFolderLoc::CreateDirStructure: Invalid path, \"%s\"", &path_);
    return -1;
  }
  for (int i = stop + 1; i < path_.Length(); ++i) {
    if (path_[static_cast<short>(i)] != u'\\') continue;
    TFolderLoc step;
    TString text = path_.Left(static_cast<short>(i));
    step.SetPath(&text);
    if (step.Exists()) continue;
    if (const int err = step.Create(maxLen)) return err;
  }
  return Create(maxLen);
}

int TFolderLoc::Rename(const TString* name) const {
  if (name == nullptr) return NullArgument("TFolderLoc::Rename");
  TFolderLoc parent;
  GetParent(&parent);
  TString to;
  JoinPath(&to, parent.path_, *name);
  if (!UMoveFile(path_.Text(), to.Text()))
    return MapAndLogErr(&path_, "TFolderLoc::Rename: UMoveFile failed", 0);
  return 0;
}

int TFolderLoc::Move(const TFolderLoc* dest) const {
  if (dest == nullptr) return NullArgument("TFolderLoc::Move");
  VNativNodeInfo info;
  if (const int err = GetInfo(&info)) return err;
  TString to;
  JoinPath(&to, dest->path_, info.name);
  if (!UMoveFile(path_.Text(), to.Text()))
    return MapAndLogErr(&path_, "TFolderLoc::Move: UMoveFile failed", 0);
  return 0;
}

int TFolderLoc::DirClear() const {
  const bool root = IsRoot() != 0;
  if (!root) {
    unsigned attributes = 0;
    if (GetAttributes(&attributes) != 0 || !(attributes & kFileAttributeDirectory)) {
      DebugLogf(kLogMisuse, "TFolderLoc::DirClear: not a dir, \"%S\"", &path_);
      return kErrBadParameter;
    }
  }
  TFolderLocArray folders;
  TFolderLoc* first = folders.Add();
  if (first == nullptr) return kErrMemNotObtained;
  *first = *this;
  for (int i = 0; i < folders.GetCount(); ++i) {
    const TFolderLoc folder = *folders[i];
    void* find = nullptr;
    VNativNodeInfo info;
    int err = folder.StartFind(&find, &info, nullptr);
    while (err == 0) {
      const TString& name = info.name;
      if (name.Identical(u".") || name.Identical(u"..")) {
        // the folder itself and its parent
      } else if (!info.IsFolder()) {
        // On a root, "drvspace.nnn" and "dblspace.nnn" are deleted like any file.
        TFileLoc file;
        file.Set(&folder, &name);
        if (const int del = file.Delete(1)) {
          folder.EndFind(&find);
          return del;
        }
      } else {
        TFolderLoc sub;
        sub.Set(&folder, &name);
        const bool keptAtRoot =
            root && i == 0 &&
            (IsFolderName(name, u"System Volume Information") || IsFolderName(name, u"_Restore") ||
             IsFolderName(name, u"Recycled"));
        bool kept = keptAtRoot;
        if (!kept && IsFolderName(name, u"Vellomarch")) {
          TFileLoc ormic;
          TString ormicName(u"Ormic");
          ormic.Set(&sub, &ormicName);
          const unsigned a = UGetFileAttributes(ormic.Path().Text());
          kept = a != kInvalidFileAttributes && !(a & kFileAttributeDirectory);
        }
        if (!kept) {
          TFolderLoc* added = folders.Add();
          if (added == nullptr) {
            folder.EndFind(&find);
            return kErrMemNotObtained;
          }
          *added = sub;
        }
      }
      err = folder.NextFind(&find, &info);
    }
    folder.EndFind(&find);
    if (err != kErrNoMoreEntries && err != kErrFileNotFound) return err;
  }
  int first_error = 0;
  for (int i = folders.GetCount() - 1; i >= 1; --i) {
    const int err = folders[i]->Remove();
    if (err != 0 && first_error == 0) first_error = err;
  }
  return first_error;
}

int TFolderLoc::Delete() const {
  if (const int err = DirClear()) return err;
  return Remove();
}

int TFolderLoc::Remove() const {
  if (path_.Length() > kLongPath) {
    const UHANDLE h =
        UCreateFile(path_.Text(), kDeleteAccess, kFileShareDelete, kOpenExisting,
                    kFileFlagDeleteOnClose | kFileFlagBackupSemantics | kFileAttributeNormal);
    if (h == kInvalidHandleValue)
      return MapAndLogErr(&path_, "TFolderLoc::Remove: UCreateFile failed", 0);
    if (!UCloseHandle(h)) return MapAndLogErr(&path_, "TFolderLoc::Remove: CloseHandle failed", 0);
    return 0;
  }
  SetAttributes(0);
  if (!URemoveDirectory(path_.Text()))
    return MapAndLogErr(&path_, "TFolderLoc::Remove: URemoveDirectory failed", 0);
  return 0;
}

int TFolderLoc::StartFind(void** handle, VNativNodeInfo* info, const TString* pattern) const {
  if (handle == nullptr || info == nullptr) return NullArgument("TFolderLoc::StartFind");
  TString spec;
  JoinPath(&spec, path_, pattern ? *pattern : TString(u"*.*"));
  UWIN32_FIND_DATAW data;
  *handle = nullptr;
  const UHANDLE h = UFindFirstFile(spec.Text(), &data);
  if (h == kInvalidHandleValue)
    return MapAndLogErr(&path_, "TFolderLoc::StartFind: UFindFirstFile failed", 0);
  *handle = h;
  info->SetFromFind(data);
  info->parent = *this;
  return 0;
}

int TFolderLoc::NextFind(void** handle, VNativNodeInfo* info) const {
  if (handle == nullptr || info == nullptr) return NullArgument("TFolderLoc::NextFind");
  info->Reset();
  UWIN32_FIND_DATAW data;
  if (!UFindNextFile(*handle, &data))
    return MapAndLogErr(&path_, "TFolderLoc::NextFind: UFindNextFile failed", 0);
  info->SetFromFind(data);
  info->parent = *this;
  return 0;
}

int TFolderLoc::EndFind(void** handle) const {
  if (handle == nullptr || *handle == nullptr) return 0;
  const UHANDLE h = *handle;
  *handle = nullptr;
  return UFindClose(h) ? 0 : 1;
}

int TFolderLoc::SetAttributes(unsigned attributes) const {
  if (!USetFileAttributes(path_.Text(), attributes))
    return MapAndLogErr(&path_, "TFolderLoc::SetAttributes: USetFileAttributes failed", 0);
  return 0;
}

int TFolderLoc::GetAttributes(unsigned* attributes) const {
  if (attributes == nullptr) return NullArgument("TFolderLoc::GetAttributes");
  const unsigned a = UGetFileAttributes(path_.Text());
  if (a == kInvalidFileAttributes) {
    *attributes = 0;
    return MapAndLogErr(&path_, "TFolderLoc::GetAttributes: UGetFileAttributes failed", 0);
  }
  *attributes = a;
  return 0;
}

int TFolderLoc::Exists() const {
  unsigned attributes = 0;
  GetAttributes(&attributes);
  return (attributes & kFileAttributeDirectory) != 0;
}

int TFolderLoc::IsRoot() const {
  TVol vol;
  vol.Set(&path_, 0);
  return vol.IsValid(0, 1);
}

int TFolderLoc::IsValid() const { return !path_.IsEmpty(); }

int TFolderLoc::GetParent(TFolderLoc* parent) const {
  if (parent == nullptr) return NullArgument("TFolderLoc::GetParent");
  if (!IsValid() || IsRoot()) return -1;
  const short slash = path_.FindChar(u'\\', path_.Length() - 1, -1);
  if (slash < 0) return -1;
  TString text = path_.Left(slash);
  return parent->SetPath(&text);
}

int TFolderLoc::GetName(TString* name) const {
  if (name == nullptr) return NullArgument("TFolderLoc::GetName");
  VNativNodeInfo info;
  if (GetInfo(&info) == 0) {
    *name = info.name;
    return 0;
  }
  return LastComponent(path_, name);
}

int TFolderLoc::GetInfo(VNativNodeInfo* info) const {
  if (info == nullptr) return NullArgument("TFolderLoc::GetInfo");
  if (IsRoot()) {
    info->Reset();
    info->name = path_;
    return 0;
  }
  if (const int err = FillFromFind(path_, "TFolderLoc::GetInfo: UFindFirstFile failed", info))
    return err;
  GetParent(&info->parent);
  return 0;
}

int TFolderLoc::GetRealPath(TString* path, int shortNames) const {
  if (path == nullptr) return NullArgument("TFolderLoc::GetRealPath");
  TString real;
  TFolderLoc at = *this;
  while (!at.IsRoot()) {
    TFolderLoc parent;
    if (at.GetParent(&parent) != 0) break;
    VNativNodeInfo info;
    if (const int err = at.GetInfo(&info)) {
      *path = path_;
      return err;
    }
    TString part(u'\\');
    part.Append(shortNames && !info.shortName.IsEmpty() ? info.shortName : info.name);
    part.Append(real);
    real = part;
    at = parent;
  }
  TString root = at.path_;
  if (root.Length() >= 2 && root[1] == u':') root.MakeUpper();
  root.Append(real);
  *path = root;
  return 0;
}

int TFolderLoc::IsEnclosing(const TFolderLoc* other) const {
  if (other == nullptr) return 0;
  TVol mine, theirs;
  GetVol(&mine);
  other->GetVol(&theirs);
  if (mine != theirs) return 0;
  TFolderLoc at = *other;
  TFolderLoc parent;
  while (at.GetParent(&parent) == 0) {
    if (parent == *this) return 1;
    at = parent;
  }
  return 0;
}

int TFolderLoc::IsEnclosedBy(const TFolderLoc* other) const {
  return other != nullptr && other->IsEnclosing(this);
}

int TFolderLoc::IsWritable() const {
  char16_t name[kMaxPath];
  if (UGetTempFileName(path_.Text(), kTempPrefix, 0, name) == 0) return 0;
  TFileLoc loc;
  TString text(name);
  loc.SetPath(&text);
  TFile file;
  const bool written = file.Create(&loc, 0x2) == 0 && file.Close() == 0;
  const bool deleted = loc.Delete(0) == 0;
  return written && deleted;
}

int TFolderLoc::SubInfoUpdate(NativVolInfo* info, int force) const {
  if (info == nullptr) return NullArgument("TFolderLoc::SubInfoUpdate");
  TVol vol;
  if (const int err = GetVol(&vol)) return err;
  if (!force && !info->path.IsEmpty() && info->path.Compare(vol.Path(), 0) == 0) return 0;
  return vol.GetInfo(info);
}

int TFolderLoc::operator==(const TFolderLoc& other) const {
  return path_.Compare(other.path_) == 0;
}

int TFolderLoc::operator==(const TVol& vol) const {
  TFolderLoc loc;
  loc.Set(&vol);
  return *this == loc;
}

unsigned TFolderLoc::StoreSize() const { return LocationStoreSize(path_); }

int TFolderLoc::Export(void* buffer, int size) const {
  return ExportLocation(path_, kFolderSignature, buffer, size);
}

int TFolderLoc::Import(const void* buffer, int size) {
  return ImportLocation(&path_, kFolderSignature, buffer, size);
}

// ---- TFileLoc -----------------------------------------------------------------

TFileLoc::TFileLoc() = default;
TFileLoc::TFileLoc(const TFileLoc& other) : path_(other.path_) {}

TFileLoc& TFileLoc::operator=(const TFileLoc& other) {
  if (this != &other) path_ = other.path_;
  return *this;
}

int TFileLoc::Set(const TFolderLoc* folder, const TString* name) {
  if (folder == nullptr || name == nullptr) return NullArgument("TFileLoc::Set");
  JoinPath(&path_, folder->Path(), *name);
  return 0;
}

int TFileLoc::SetPath(const TString* path, int asFolder) {
  if (path == nullptr) return NullArgument("TFileLoc::SetPath");
  path_ = *path;
  if (asFolder) {
    if (path_.IsEmpty() || path_[path_.Length() - 1] != u'\\') path_.Append(u'\\');
  } else {
    DropTrailing(&path_);
  }
  return 0;
}

int TFileLoc::GetPath(TString* path, int) const {
  if (path == nullptr) return NullArgument("TFileLoc::GetPath");
  *path = path_;
  return 0;
}

int TFileLoc::GetVol(TVol* vol) const {
  if (vol == nullptr) return NullArgument("TFileLoc::GetVol");
  return vol->Set(this);
}

int TFileLoc::SetVol(const TVol* vol) {
  if (vol == nullptr) return NullArgument("TFileLoc::SetVol");
  TVol current;
  if (const int err = GetVol(&current)) return err;
  TString path;
  ReplaceVolume(&path, path_, current.Path(), vol->Path());
  path_ = path;
  return 0;
}

int TFileLoc::SetTempName() {
  char16_t folder[kMaxPath + 1];
  const unsigned n = UGetTempPath(kMaxPath + 1, folder);
  if (n == 0 || n > kMaxPath)
    return MapAndLogErr(nullptr, "TFileLoc::SetTempName: UGetTempPath failed", n ? 122 : 0);
  char16_t name[kMaxPath];
  if (UGetTempFileName(folder, kTempPrefix, 0, name) == 0) {
    TString where(folder);
    return MapAndLogErr(&where, "TFileLoc::SetTempName: UGetTempFileName failed", 0);
  }
  path_.Assign(name);
  return 0;
}

int TFileLoc::Delete(int clearAttributes) const {
  if (clearAttributes) SetAttributes(kFileAttributeNormal);
  if (path_.Length() > kLongPath) {
    const UHANDLE h =
        UCreateFile(path_.Text(), kDeleteAccess, kFileShareDelete, kOpenExisting,
                    kFileFlagDeleteOnClose | kFileFlagBackupSemantics | kFileAttributeNormal);
    if (h == kInvalidHandleValue)
      return MapAndLogErr(&path_, "TFileLoc::Delete: UCreateFile failed", 0);
    if (!UCloseHandle(h)) return MapAndLogErr(&path_, "TFileLoc::Delete: CloseHandle failed", 0);
    return 0;
  }
  if (!UDeleteFile(path_.Text()))
    return MapAndLogErr(&path_, "TFileLoc::Delete: UDeleteFile failed", 0);
  return 0;
}

int TFileLoc::Copy(const TFileLoc* dest, int failIfExists) const {
  if (dest == nullptr) return NullArgument("TFileLoc::Copy");
  if (!UCopyFile(path_.Text(), dest->path_.Text(), failIfExists))
    return MapAndLogErr(&path_, "TFileLoc::Copy: UCopyFile failed", 0);
  return 0;
}

int TFileLoc::Copy(const TFolderLoc* dest, int failIfExists) const {
  if (dest == nullptr) return NullArgument("TFileLoc::Copy");
  VNativNodeInfo info;
  if (const int err = GetInfo(&info)) return err;
  TFileLoc to;
  to.Set(dest, &info.name);
  return Copy(&to, failIfExists);
}

int TFileLoc::Move(const TFolderLoc* dest) const {
  if (dest == nullptr) return NullArgument("TFileLoc::Move");
  TString name;
  if (const int err = GetName(&name)) return err;
  TString to;
  JoinPath(&to, dest->Path(), name);
  if (!UMoveFile(path_.Text(), to.Text()))
    return MapAndLogErr(&path_, "TFileLoc::Move: UMoveFile failed", 0);
  return 0;
}

int TFileLoc::Rename(const TString* name) const {
  if (name == nullptr) return NullArgument("TFileLoc::Rename");
  TFolderLoc parent;
  if (const int err = GetParent(&parent)) return err;
  TString to;
  JoinPath(&to, parent.Path(), *name);
  if (!UMoveFile(path_.Text(), to.Text()))
    return MapAndLogErr(&path_, "TFileLoc::Rename: UMoveFile failed", 0);
  return 0;
}

int TFileLoc::SetAttributes(unsigned attributes) const {
  if (!USetFileAttributes(path_.Text(), attributes))
    return MapAndLogErr(&path_, "TFileLoc::SetAttributes: USetFileAttributes failed", 0);
  return 0;
}

int TFileLoc::GetAttributes(unsigned* attributes) const {
  if (attributes == nullptr) return NullArgument("TFileLoc::GetAttributes");
  const unsigned a = UGetFileAttributes(path_.Text());
  if (a == kInvalidFileAttributes) {
    *attributes = 0;
    return MapAndLogErr(&path_, "TFileLoc::GetAttributes: UGetFileAttributes failed", 0);
  }
  *attributes = a;
  return 0;
}

int TFileLoc::GetInfo(VNativNodeInfo* info) const {
  if (info == nullptr) return NullArgument("TFileLoc::GetInfo");
  if (const int err = FillFromFind(path_, "TFileLoc::GetInfo: UFindFirstFile failed", info))
    return err;
  TFolderLoc parent;
  TString text;
  const short slash = path_.FindChar(u'\\', path_.Length() - 1, -1);
  if (slash >= 0) {
    text = path_.Left(slash);
    parent.SetPath(&text);
  }
  info->parent = parent;
  return 0;
}

int TFileLoc::Exists() const {
  unsigned attributes = 0;
  return GetAttributes(&attributes) == 0;
}

int TFileLoc::GetName(TString* name) const {
  if (name == nullptr) return NullArgument("TFileLoc::GetName");
  VNativNodeInfo info;
  if (GetInfo(&info) == 0) {
    *name = info.name;
    return 0;
  }
  TString path = path_;
  DropTrailing(&path);
  return LastComponent(path, name);
}

int TFileLoc::GetParent(TFolderLoc* parent) const {
  if (parent == nullptr) return NullArgument("TFileLoc::GetParent");
  if (!IsValid()) return -1;
  short end = path_.Length();
  if (path_[static_cast<short>(end - 1)] == u'\\') --end;
  const short slash = end > 0 ? path_.FindChar(u'\\', static_cast<short>(end - 1), -1) : -1;
  if (slash < 0) {
    DebugLogf(kLogMisuse, "TFileLoc::GetParent: folder is root, \"%S\"", &path_);
    return -1;
  }
  TString text = path_.Left(slash);
  return parent->SetPath(&text);
}

int TFileLoc::CompareExt(const TString* ext) const {
  const short dot = path_.FindChar(u'.', path_.Length() - 1, -1);
  const TString mine =
      dot < 0 ? TString() : path_.Mid(dot, static_cast<short>(path_.Length() - dot));
  return mine.Compare(ext ? *ext : TString());
}

int TFileLoc::GetRealPath(TString* path, int shortNames) const {
  if (path == nullptr) return NullArgument("TFileLoc::GetRealPath");
  VNativNodeInfo info;
  TFolderLoc parent;
  TString folder;
  if (const int err = GetInfo(&info)) {
    *path = path_;
    return err;
  }
  if (GetParent(&parent) != 0) {
    *path = info.name;
    return 0;
  }
  if (const int err = parent.GetRealPath(&folder, shortNames)) {
    *path = path_;
    return err;
  }
  JoinPath(path, folder, shortNames && !info.shortName.IsEmpty() ? info.shortName : info.name);
  return 0;
}

int TFileLoc::operator==(const TFileLoc& other) const { return path_.Compare(other.path_) == 0; }

unsigned TFileLoc::StoreSize() const { return LocationStoreSize(path_); }

int TFileLoc::Export(void* buffer, int size) const {
  return ExportLocation(path_, kFileSignature, buffer, size);
}

int TFileLoc::Import(const void* buffer, int size) {
  return ImportLocation(&path_, kFileSignature, buffer, size);
}

// ---- TFolderLocArray ------------------------------------------------------------

TFolderLocArray::TFolderLocArray() : block_(1), capacity_(0), count_(0) {}

TFolderLocArray::~TFolderLocArray() {
  auto** items = reinterpret_cast<TFolderLoc**>(block_.MemPtr());
  for (int i = count_ - 1; i >= 0; --i) delete items[i];
}

TFolderLoc* TFolderLocArray::Add() {
  if (count_ == capacity_) {
    const int grown = capacity_ + 10;
    if (block_.SetSize(static_cast<unsigned>(grown) * sizeof(TFolderLoc*)) != 0) return nullptr;
    capacity_ = grown;
  }
  auto* loc = new TFolderLoc;
  reinterpret_cast<TFolderLoc**>(block_.MemPtr())[count_++] = loc;
  return loc;
}

TFolderLoc* TFolderLocArray::operator[](int index) {
  if (index < 0 || index >= count_) {
    Debug("fileio", 109);
    return nullptr;
  }
  return reinterpret_cast<TFolderLoc**>(block_.MemPtr())[index];
}

// ---- the suffix rule ------------------------------------------------------------

int quarnel_internal::AddSuffix(TString* out, const TString* name, char16_t separator, int number,
                                int wholeBase, int limit) {
  if (out == nullptr || name == nullptr) return NullArgument("intAddSuffix");
  TString suffix;
  suffix.SPrintf(u"%c%~d", static_cast<int>(separator), number);
  TString base = *name;
  TString ext;
  const short len = name->Length();
  if (!wholeBase) {
    const short dot =
        limit < 13 ? name->FindChar(u'.') : name->FindChar(u'.', static_cast<short>(len - 1), -1);
    if (dot >= 0) {
      base = name->Left(dot);
      ext = name->Mid(dot, static_cast<short>(len - dot));
      if (limit < 13 && ext.Length() > 4) ext = ext.Left(4);
    }
  }
  TString result = base + suffix + ext;
  const int k = result.Length() - limit;
  if (k > 0) {
    if (k >= base.Length()) {
      if (len - k < 1) return -1;
      result = name->Left(static_cast<short>(len - k)) + suffix;
    } else {
      result = base.Left(static_cast<short>(base.Length() - k)) + suffix + ext;
    }
  }
  if (result.Length() > limit) return -1;
  *out = result;
  return 0;
}
