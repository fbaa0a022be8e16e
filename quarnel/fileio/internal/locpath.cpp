#include "quarnel/fileio/internal/locpath.h"

#include <cstring>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"

namespace quarnel_internal {

namespace {
constexpr int kHeaderBytes = 24;  // persistence header + 16 zero bytes
constexpr short kVersion = 256;
}  // namespace

int NullArgument(const char* member) {
  DebugLogf(kLogMisuse, "%s: null argument", member);
  return kErrBadParameter;
}

void JoinPath(TString* out, const TString& folder, const TString& name) {
  TString path = folder;
  if (path.IsEmpty() || path[static_cast<short>(path.Length() - 1)] != u'\\') path.Append(u'\\');
  path.Append(name);
  *out = path;
}

void DropTrailing(TString* path) {
  const short n = path->Length();
  if (n > 0 && (*path)[static_cast<short>(n - 1)] == u'\\')
    *path = path->Left(static_cast<short>(n - 1));
}

int LastComponent(const TString& path, TString* out) {
  const short slash = path.FindChar(u'\\', static_cast<short>(path.Length() - 1), -1);
  if (slash < 0) return -1;
  *out = path.Mid(static_cast<short>(slash + 1), static_cast<short>(path.Length() - slash - 1));
  return 0;
}

void ReplaceVolume(TString* out, const TString& path, const TString& oldVol,
                   const TString& newVol) {
  TString oldRoot = oldVol;
  DropTrailing(&oldRoot);
  TString rest = path;
  const short n = oldRoot.Length();
  if (n > 0 && path.Length() >= n && path.Left(n).Compare(oldRoot, 0) == 0) {
    rest = path.Mid(n, static_cast<short>(path.Length() - n));
  }
  TString result = newVol;
  DropTrailing(&result);
  result.Append(rest);
  *out = result;
}

unsigned LocationStoreSize(const TString& path) { return (path.StoreSize() + 27) & ~3u; }

int ExportLocation(const TString& path, unsigned signature, void* buffer, int size) {
  const unsigned need = LocationStoreSize(path);
  if (buffer == nullptr || size < 0 || static_cast<unsigned>(size) < need)
    return kErrExportBufferTooSmall;
  auto* out = static_cast<unsigned char*>(buffer);
  std::memset(out, 0, need);
  _initpersist(reinterpret_cast<PersistHeader*>(out), signature, kVersion, kVersion);
  const int n = path.Export(out + kHeaderBytes, size - kHeaderBytes);
  if (n < 0) return n;
  return static_cast<int>(need);
}

int ImportLocation(TString* path, unsigned signature, const void* buffer, int size) {
  if (buffer == nullptr || size < kHeaderBytes) return kErrImportDataTooShort;
  const auto* in = static_cast<const unsigned char*>(buffer);
  PersistHeader header;
  std::memcpy(&header, in, sizeof header);
  const int check = _checkpersist(&header, signature, kVersion, kVersion);
  if (check != 0) return check;
  TString text;
  const int n = text.Import(in + kHeaderBytes, size - kHeaderBytes);
  if (n < 0) return n;
  *path = text;
  return (kHeaderBytes + n + 3) & ~3;
}

}  // namespace quarnel_internal
