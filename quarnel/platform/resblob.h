// The resource container: one relocation-free blob of typed, numbered (or
// named) resources, as a resource module or the host executable carries it.
// docs/resource-format.md gives the layout byte by byte; in short:
//
//   header     16 bytes: "QNRS", format version 1, directory entry size,
//              entry count, blob size
//   directory  one entry per resource: type, id, name offset, data offset,
//              data size
//   names and data, each data block on a 4-byte boundary
//
// Every number is little-endian. The reader never trusts the blob: UResBlobOpen
// checks the header and every directory entry against the blob's size, so that
// a later lookup can hand out resource bytes without further checks. Nothing
// here keeps state; any thread may call.
#ifndef QUARNEL_PLATFORM_RESBLOB_H_
#define QUARNEL_PLATFORM_RESBLOB_H_

#include <cstddef>
#include <cstdint>

#include "quarnel/foundation/export.h"

// Resource types, with their Win32 numbers.
enum : unsigned {
  kResTypeCursor = 1,        // one cursor image: 16-bit hot spot x and y, then the image
  kResTypeBitmap = 2,        // a device-independent bitmap without its file header
  kResTypeIcon = 3,          // one icon image
  kResTypeStringTable = 6,   // a block of 16 UTF-16 strings, id = string id / 16 + 1
  kResTypeRawData = 10,      // raw bytes (the module id resource among them)
  kResTypeGroupCursor = 12,  // a cursor directory
  kResTypeGroupIcon = 14,    // an icon directory
  kResTypeStringList = 256,  // a string list (tagged 8-bit strings)
};

constexpr std::uint32_t kResBlobMagic =
    0x53524E51;  // the bytes "QNRS" read as a little-endian word
constexpr unsigned kResBlobVersion = 1;
constexpr unsigned kResBlobHeaderSize = 16;
constexpr unsigned kResBlobEntrySize = 20;
constexpr unsigned kResBlobMaxName = 255;  // UTF-16 units of a resource name

// A checked blob. `data` stays owned by whoever owns the bytes.
struct UResBlob {
  const unsigned char* data = nullptr;
  unsigned size = 0;       // the blob's own size, from its header
  unsigned count = 0;      // directory entries
  unsigned entrySize = 0;  // stride of the directory
};

// One resource of a blob.
struct UResEntry {
  unsigned type;
  int id;                      // 0 for a named resource
  const unsigned char* name;   // null for a numbered resource, else nameLength UTF-16LE units
  unsigned nameLength;         // UTF-16 units
  const unsigned char* bytes;  // the resource's data
  unsigned size;
};

// Checks the blob at `data` (at most `available` bytes) and fills `*blob`.
// Returns 0, or 13 (ERROR_INVALID_DATA) when the blob is not a container of
// this format or any part of it lies outside its bytes; `*blob` is then
// empty. Accepts a directory entry size of 20 or more (later fields are
// skipped), so that a newer writer's blobs stay readable.
unsigned UResBlobOpen(const void* data, std::size_t available, UResBlob* blob);

// The `index`-th entry of a checked blob (index below blob.count).
UResEntry UResBlobEntry(const UResBlob& blob, unsigned index);

// The first resource of `type` with the number `id`, or with the name
// `name` (`length` UTF-16 units, compared without regard to the case of
// ASCII letters). Returns the address of its directory entry (a stable
// identity for the resource) and fills `*found` (may be null); null when there
// is none.
const unsigned char* UResBlobFind(const UResBlob& blob, unsigned type, int id, UResEntry* found);
const unsigned char* UResBlobFindNamed(const UResBlob& blob, unsigned type, const char16_t* name,
                                       unsigned length, UResEntry* found);

#endif  // QUARNEL_PLATFORM_RESBLOB_H_
