// The platform's handle table: every handle the file, find and volume calls
// give out is a small number ((slot + 1) * 4, never 0 or all ones) naming an
// object in this table, so a stale or made-up handle is refused with 6
// instead of being followed.
#ifndef QUARNEL_PLATFORM_INTERNAL_HANDLES_H_
#define QUARNEL_PLATFORM_INTERNAL_HANDLES_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/resolve.h"

namespace quarnel_internal {

struct UObject {
  enum Kind { kFile, kFind, kVolumeFind, kMountFind };
  explicit UObject(Kind k) : kind(k) {}
  virtual ~UObject() = default;
  const Kind kind;
};

// An open file, folder or volume.
struct UFileObject : UObject {
  UFileObject() : UObject(kFile) {}
  ~UFileObject() override;
  int fd = -1;
  unsigned access = 0;  // kShareRead/Write/Delete bits of what the handle may do
  bool isFolder = false;
  bool isVolume = false;
  bool deleteOnClose = false;
  std::string host;        // host path at open
  std::u16string volRoot;  // the volume's root in Windows form ("C:\", "\\srv\share\")
};

// A find: the entries it hands out are first `own` ("." and "..", or the
// one entry a name without wildcards found), then the entries of `listing`
// whose indexes are in `picks`.
struct UFindObject : UObject {
  UFindObject() : UObject(kFind) {}
  ~UFindObject() override;
  int folderFd = -1;  // the folder, for the status of its entries
  std::vector<FolderEntry> own;
  std::shared_ptr<const std::vector<FolderEntry>> listing;
  std::vector<std::uint32_t> picks;
  std::size_t next = 0;  // position in own, then in picks
};

// A walk over names (volume names or mount points).
struct UNameWalk : UObject {
  explicit UNameWalk(Kind k) : UObject(k) {}
  std::vector<std::u16string> names;
  std::size_t next = 0;
};

// Puts `object` in the table (the table owns it) and returns its handle;
// kInvalidHandleValue (4, too many open handles) when the table is full.
UHANDLE AddHandle(UObject* object);
// The object of `handle` when it is of `kind`, else null.
UObject* FindHandle(UHANDLE handle, UObject::Kind kind);
// Takes `handle` out of the table and hands its object back to the caller.
UObject* RemoveHandle(UHANDLE handle);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_HANDLES_H_
