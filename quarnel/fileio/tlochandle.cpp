#include "quarnel/fileio/tlochandle.h"

#include <cstring>
#include <string>
#include <vector>

#include "quarnel/fileio/internal/locpath.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/netapi.h"

using quarnel_internal::NullArgument;

namespace {

constexpr int kFixedBytes = 40;  // header, five words, 12 zero bytes
constexpr short kVersion = 256;

struct Token {
  const char16_t* name;
  TString folder;  // Windows form with a trailing backslash; empty: no token
};

// The token folders of the environment record, in their order.
std::vector<Token> TokenFolders() {
  const QuarnelEnvType* env = QuarnelEnv();
  const std::pair<const char16_t*, const std::string*> folders[] = {{u"?A", &env->appFolder},
                                                                    {u"?O", &env->userFolder},
                                                                    {u"?S", &env->logFolder},
                                                                    {u"?W", &env->workFolder}};
  std::vector<Token> tokens;
  for (const auto& [name, host] : folders) {
    Token t{name, {}};
    if (!host->empty()) {
      std::u16string win(1024, u'\0');
      int n = ULocFromHostPath(host->c_str(), win.data(), static_cast<int>(win.size()));
      if (n >= static_cast<int>(win.size())) {
        win.resize(n + 1);
        n = ULocFromHostPath(host->c_str(), win.data(), static_cast<int>(win.size()));
      }
      if (n > 0) {
        win.resize(n);
        if (win.back() != u'\\') win += u'\\';
        t.folder = TString(std::u16string_view(win));
      }
    }
    tokens.push_back(std::move(t));
  }
  return tokens;
}

// The two 4-bit halves of every byte of every unit exchanged.
TString Scrambled(const TString& text) {
  TString out = text;
  for (short i = 0; i < out.Length(); ++i) {
    const unsigned u = out[i];
    out.SetAt(i, static_cast<char16_t>((u & 0x0F0F) << 4 | (u >> 4 & 0x0F0F)));
  }
  return out;
}

// True when the path's parent folder exists, or with `mustExist` the path.
bool Reachable(const TString& path, int mustExist) {
  if (mustExist && UGetFileAttributes(path.Text()) != kInvalidFileAttributes) return true;
  const short slash = path.FindChar(u'\\', static_cast<short>(path.Length() - 1), -1);
  if (slash <= 0) return false;
  TString parent = path.Left(slash);
  if (parent.Length() == 2 && parent[1] == u':') parent.Append(u'\\');
  const unsigned a = UGetFileAttributes(parent.Text());
  return a != kInvalidFileAttributes && (a & kFileAttributeDirectory) != 0;
}

const char16_t* NullIfEmpty(const TString& s) { return s.IsEmpty() ? nullptr : s.Text(); }

}  // namespace

TLocHandle::TLocHandle() { Reset(); }

void TLocHandle::Reset() {
  std::memset(words_, 0, sizeof words_);
  vol_.Reset();
  volName_.Clear();
  path_.Clear();
  mountName_.Clear();
  mountSecret_.Clear();
}

int TLocHandle::From(const TFileLoc* file) {
  if (file == nullptr) return NullArgument("TLocHandle::From");
  TString filePath;
  file->GetPath(&filePath);
  TVol vol;
  NativVolInfo info;
  int rc = file->GetVol(&vol);
  if (rc == 0) rc = vol.GetInfo(&info);
  if (rc == 0) {
    info.GetIdentity(words_);
    vol_ = vol;
    volName_ = info.name;
  }
  // A path on a share is in remote form already; a network drive's becomes so.
  const bool unc = filePath.Length() >= 2 && filePath[0] == u'\\' && filePath[1] == u'\\';
  if (rc != 0 || (words_[0] & kVolRemote) == 0 || unc) {
    path_ = filePath;
    return rc;
  }
  const TString local = filePath.Left(2);
  std::u16string remote(260, u'\0');
  unsigned length = static_cast<unsigned>(remote.size());
  unsigned err = UNetGetConnection(local.Text(), remote.data(), &length);
  if (err == 234) {
    remote.resize(length);
    err = UNetGetConnection(local.Text(), remote.data(), &length);
  }
  if (err != 0) {
    path_ = filePath;
    return MapAndLogErr(&filePath, "TLocHandle::From: UNetGetConnection failed", err);
  }
  path_ = TString(remote.c_str()) + filePath.Mid(2, static_cast<short>(filePath.Length() - 2));
  return 0;
}

int TLocHandle::TokenizeLocation() {
  for (const Token& t : TokenFolders()) {
    if (t.folder.IsEmpty()) continue;
    const TString token(t.name);
    path_.ReplaceSubstring(&t.folder, &token, 0);
  }
  return 0;
}

int TLocHandle::GetPath(TString* path, int) const {
  if (path == nullptr) return NullArgument("TLocHandle::GetPath");
  TString out = path_;
  if (out.FindChar(u'?') >= 0) {
    for (const Token& t : TokenFolders()) {
      if (t.folder.IsEmpty()) continue;
      const TString token(t.name);
      out.ReplaceSubstring(&token, &t.folder, 1);
    }
  }
  *path = out;
  return 0;
}

int TLocHandle::GetRealPath(TString* path, int shortNames) const {
  if (path == nullptr) return NullArgument("TLocHandle::GetRealPath");
  TString expanded;
  GetPath(&expanded);
  TFileLoc file;
  file.SetPath(&expanded);
  return file.GetRealPath(path, shortNames);
}

int TLocHandle::GetFilePath(TString* path, int mustExist) const {
  if (path == nullptr) return NullArgument("TLocHandle::GetFilePath");
  TString expanded;
  GetPath(&expanded);
  *path = expanded;
  if (Reachable(expanded, mustExist)) return 0;

  if ((words_[0] & kVolRemote) != 0) {
    TVol share;
    share.Set(&expanded, 1);
    TString remote = share.Path();
    quarnel_internal::DropTrailing(&remote);
    const TString secret = Scrambled(mountSecret_);
    const unsigned err =
        UNetAddConnection(remote.Text(), NullIfEmpty(secret), NullIfEmpty(mountName_));
    if (err != 0)
      return MapAndLogErr(&expanded, "TLocHandle::GetFileLoc: UNetAddConnection failed", err);
    return 0;
  }

  struct Drive {
    TVol vol;
    unsigned words[5];
    TString name;
  };
  std::vector<Drive> drives;
  const unsigned mask = UGetLogicalDrives();
  for (int i = 0; i < 26; ++i) {
    if ((mask & 1u << i) == 0) continue;
    const char16_t root[] = {static_cast<char16_t>(u'A' + i), u':', u'\\', 0};
    const TString rootPath(root);
    Drive d;
    d.vol.Set(&rootPath, 1);
    int floppy = 0;
    NativVolInfo info;
    if (d.vol.IsFloppy(&floppy) != 0 || floppy || d.vol.GetInfo(&info) != 0) continue;
    info.GetIdentity(d.words);
    d.name = info.name;
    drives.push_back(std::move(d));
  }
  for (int pass = 0; pass < 3; ++pass) {
    for (const Drive& d : drives) {
      const bool identity = d.words[1] == words_[1] || d.words[0] == words_[0] ||
                            (d.words[2] == words_[2] && d.words[3] == words_[3]) ||
                            d.words[4] == words_[4];
      const bool name = volName_.Compare(d.name) == 0;
      if (!(pass == 0 ? identity && name : pass == 1 ? identity : name)) continue;
      TFileLoc moved;
      moved.SetPath(&expanded);
      moved.SetVol(&d.vol);
      TString candidate;
      moved.GetPath(&candidate);
      if (Reachable(candidate, mustExist)) {
        *path = candidate;
        return 0;
      }
    }
  }
  DebugLogf(kLogDetail, "TLocHandle::GetFileLoc: can't find file, \"%S\"", &expanded);
  return -1;
}

int TLocHandle::GetFileLoc(TFileLoc* loc, int mustExist) const {
  if (loc == nullptr) return NullArgument("TLocHandle::GetFileLoc");
  TString path;
  const int rc = GetFilePath(&path, mustExist);
  loc->SetPath(&path);
  return rc;
}

int TLocHandle::GetFolderLoc(TFolderLoc* loc, int mustExist) const {
  if (loc == nullptr) return NullArgument("TLocHandle::GetFolderLoc");
  TString path;
  const int rc = GetFilePath(&path, mustExist);
  loc->SetPath(&path);
  return rc;
}

int TLocHandle::SetMountInfo(const TString* name, const TString* secret) {
  mountName_ = name != nullptr ? *name : TString();
  mountSecret_ = Scrambled(secret != nullptr ? *secret : TString());
  return 0;
}

int TLocHandle::GetMountInfo(TString* name, TString* secret, TString* volumeName,
                             TString* path) const {
  if (name != nullptr) *name = mountName_;
  if (secret != nullptr) *secret = Scrambled(mountSecret_);
  if (volumeName != nullptr) *volumeName = volName_;
  if (path != nullptr) GetPath(path);
  return 0;
}

int TLocHandle::Equal(const TLocHandle* other, int exact) const {
  if (other == nullptr) return 0;
  if (std::memcmp(words_, other->words_, sizeof words_) != 0 || vol_ != other->vol_) return 0;
  TString a, b;
  GetPath(&a);
  other->GetPath(&b);
  TFileLoc fa, fb;
  fa.SetPath(&a);
  fb.SetPath(&b);
  if (exact) return fa == fb;
  TFolderLoc pa, pb;
  fa.GetParent(&pa);
  fb.GetParent(&pb);
  return pa == pb;
}

unsigned TLocHandle::StoreSize() const {
  const unsigned size = kFixedBytes + vol_.StoreSize() + volName_.StoreSize() + path_.StoreSize() +
                        mountName_.StoreSize() + mountSecret_.StoreSize();
  return (size + 3) & ~3u;
}

int TLocHandle::Export(void* buffer, int size) const {
  const unsigned need = StoreSize();
  if (buffer == nullptr || size < 0 || static_cast<unsigned>(size) < need)
    return kErrExportBufferTooSmall;
  auto* out = static_cast<unsigned char*>(buffer);
  std::memset(out, 0, need);
  _initpersist(reinterpret_cast<PersistHeader*>(out), kSignature, kVersion, kVersion);
  std::memcpy(out + 8, words_, sizeof words_);
  int at = kFixedBytes;
  int n = vol_.Export(out + at, size - at);
  for (const TString* s : {&volName_, &path_, &mountName_, &mountSecret_}) {
    if (n < 0) return n;
    at += n;
    n = s->Export(out + at, size - at);
  }
  return n < 0 ? n : static_cast<int>(need);
}

int TLocHandle::Import(const void* buffer, int size) {
  if (buffer == nullptr || size < kFixedBytes) return kErrImportDataTooShort;
  const auto* in = static_cast<const unsigned char*>(buffer);
  PersistHeader header;
  std::memcpy(&header, in, sizeof header);
  const int check = _checkpersist(&header, kSignature, kVersion, kVersion);
  if (check != 0) return check;
  TLocHandle h;
  std::memcpy(h.words_, in + 8, sizeof h.words_);
  int at = kFixedBytes;
  int n = h.vol_.Import(in + at, size - at);
  for (TString* s : {&h.volName_, &h.path_, &h.mountName_, &h.mountSecret_}) {
    if (n < 0) return n;
    at += n;
    n = s->Import(in + at, size - at);
  }
  if (n < 0) return n;
  *this = h;
  return (at + n + 3) & ~3;
}
