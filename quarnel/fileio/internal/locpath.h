// Path text and the persisted form shared by locations and volumes.
#ifndef QUARNEL_FILEIO_INTERNAL_LOCPATH_H_
#define QUARNEL_FILEIO_INTERNAL_LOCPATH_H_

#include "quarnel/text/tstring.h"

namespace quarnel_internal {

// Logs "<member>: null argument" at 515 and gives -1010.
int NullArgument(const char* member);

// out = folder + "\" (unless folder ends in one) + name.
void JoinPath(TString* out, const TString& folder, const TString& name);
// Drops one trailing backslash.
void DropTrailing(TString* path);
// The part after the last backslash; -1 (out unchanged) when there is none.
int LastComponent(const TString& path, TString* out);
// `path` with its leading volume part `oldVol` ("C:\", compared ignoring
// case, with or without its trailing backslash) replaced by `newVol`; a path
// outside `oldVol` gets `newVol` in front of it.
void ReplaceVolume(TString* out, const TString& path, const TString& oldVol, const TString& newVol);

// The persisted form of a path behind a 24-byte header (the persistence
// header and 16 zero bytes).
unsigned LocationStoreSize(const TString& path);
int ExportLocation(const TString& path, unsigned signature, void* buffer, int size);
// Leaves `path` unchanged unless the record is accepted.
int ImportLocation(TString* path, unsigned signature, const void* buffer, int size);

}  // namespace quarnel_internal

#endif  // QUARNEL_FILEIO_INTERNAL_LOCPATH_H_
