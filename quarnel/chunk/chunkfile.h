// The chunk file ('Cfh.'): one file holding many typed, numbered chunks and a
// map of where each lies. ChunkManager (chunkmanager.h) reads and writes it;
// this header gives its records and rules to tools that inspect or salvage
// files on their own.
//
// Layout: a 512-byte header sector (the 112-byte CHFileHeader, then zeros);
// from the first-chunk address (512) to the end of data, chunk extents and
// free extents back to back, each on a multiple of the granule; at the end
// of data the map, written as one chunk of type 'ChMp' whose data is the
// array of map entries; after the map, slack that is never read. Integers
// are little-endian; a four-character code is a 32-bit integer whose most
// significant byte is the first character ('ChMp' is stored 70 4D 68 43).
//
// Two generations: format version 0x0110 (64-byte chunk headers, 48-byte map
// entries) and 0x0100 (56 and 44 bytes). A file keeps its generation.
//
// The map: groups of entries, each opened by a head (its type, the number of
// entries that follow in `id`, address all ones); groups in increasing type
// order (unsigned), so that the free-space group (type 0xFFFFFFFF, whose
// entries hold the free extent's length in `id`) comes last; chunk entries
// in increasing id order (unsigned 64-bit), free entries in increasing
// address order. An entry's extent runs from its address to the smallest
// address of any other entry at least one granule above it, or to the end
// of data.
//
// The free functions keep no state and may be called from any thread.
#ifndef QUARNEL_CHUNK_CHUNKFILE_H_
#define QUARNEL_CHUNK_CHUNKFILE_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/foundation/marshall.h"

class TMemory;

constexpr unsigned kChunkFileSignature = 0x4366682E;  // 'Cfh.'
constexpr unsigned kChunkMapType = 0x43684D70;        // 'ChMp'
constexpr unsigned kChunkSaveMarker = 0x42616421;     // 'Bad!': a save is under way
constexpr unsigned kChunkFreeType = 0xFFFFFFFF;       // the free-space group
constexpr short kChunkVersion = 0x0110;
constexpr short kChunkVersion0100 = 0x0100;
constexpr int kChunkHeaderSector = 512;
constexpr int kChunkFileHeaderSize = 112;
constexpr int kChunkHeaderSize = 64;
constexpr int kChunkHeaderSize0100 = 56;
constexpr int kMapEntrySize = 48;
constexpr int kMapEntrySize0100 = 44;
constexpr std::int64_t kMapHeadAddress = -1;  // the address of a group head: all ones

// Map entry flags.
enum : unsigned {
  kMapEntryDirty = 1,       // contents only in memory; the extent is reserved, not written
  kMapEntryAllocating = 2,  // an allocation is under way (never in a saved map)
  kMapEntryScratch = 4,     // used by chMapCheck while it runs
};

// The file header, as stored (little-endian) at offset 0.
struct CHFileHeader {
  PersistHeader persist;  // 'Cfh.', oldest reader 0x0100, format version
  std::int64_t mapAddress;
  std::int64_t mapSize;  // map chunk with its header; 0: no map yet
  std::int64_t endOfData;
  std::uint32_t saveMarker;  // 0, or kChunkSaveMarker while a save is under way
  std::int32_t granule;
  std::int64_t firstChunk;
  std::uint8_t reserved[64];
};
static_assert(sizeof(CHFileHeader) == kChunkFileHeaderSize, "the file header is 112 bytes");

// A chunk header in the current layout's fields (a 0x0100 header is read
// into the same fields; its missing reserved fields are zero).
struct CHChunkHeader {
  std::uint32_t type;
  std::uint32_t reserved;
  std::uint64_t id;
  std::int64_t size;  // data chunk: header + data + slack; map chunk: map bytes after the header
  std::int64_t slack;
  std::uint32_t flags;  // written as 0
  std::uint32_t word;
  std::uint64_t reserved2;
  std::uint32_t hash;  // chHashBlock of the data; 0: not checked
};

// A map entry in the current layout; the map is held as an array of them.
struct CHMapEntry {
  std::uint32_t type;
  std::uint32_t reserved;
  std::uint64_t id;  // chunk: its id; head: the group's count; free: the extent's length
  std::int64_t address;
  std::int64_t slack;
  std::uint32_t flags;
  std::uint32_t word;
  std::uint64_t reserved2;  // not carried by the 0x0100 layout
};
static_assert(sizeof(CHMapEntry) == kMapEntrySize, "a map entry is 48 bytes");

// The data hash: the library's CRC (HashBlock): 0x04C11DB7, most significant
// bit first, initial 0, no final inversion; 0 comes back as 1.
QUARNEL_API unsigned chHashBlock(const unsigned char* data, int length);

// Reads and writes a chunk header at `bytes` (64 bytes, or 56 for a 0x0100
// file). The reserved and padding bytes a layout has no field for are
// written as zero.
QUARNEL_API void chGetChunkHeader(const unsigned char* bytes, int oldFormat, CHChunkHeader* out);
QUARNEL_API void chPutChunkHeader(const CHChunkHeader* header, int oldFormat, unsigned char* bytes);
// Reads and writes `count` map entries (48 bytes each, or 44 for a 0x0100
// file). A 0x0100 entry carries type, id, address, slack, flags and word; its
// 8 bytes at offset 36 are read as nothing and written as zero, and the
// current layout's reserved words come back zero.
QUARNEL_API void chGetMapEntries(const unsigned char* bytes, int count, int oldFormat,
                                 CHMapEntry* out);
QUARNEL_API void chPutMapEntries(const CHMapEntry* entries, int count, int oldFormat,
                                 unsigned char* bytes);

// The map check. Returns 0 for a valid map (an empty one is), else the code
// of the first rule broken, logged at 517 as "chMapCheck: <message>":
//   10000 invalid starting address     first chunk < 512 or beyond the end of data
//   10010 type count wrong             a head inside a group
//   10011 invalid number               a head's count not positive
//   10012 invalid type sequence        a group's type not above the previous one's (nor above 0)
//   10020 invalid type                 an entry of another type than its group
//   10021 invalid address              below the first chunk or not below the end of data
//   10022 invalid address sequence     free entries not in increasing address order
//   10023 invalid id sequence          chunk entries not in increasing id order
//   10024 failed allocation not fixed  the allocation flag
//   10030 invalid map termination      the map ends inside a group
//   10031 can't find starting map entry  no entry at or after the first chunk
//   10040 invalid chunk size           an extent not a multiple of the granule
//   10041 impossible chunk size        an extent above 0xFFFFFFFF, or a chunk's below one header
//   10042 non-existent handle          a dirty entry without a handle
//   10043 nil handle or purged         a dirty entry whose handle was purged
//   10044 inconsistent handle size     a dirty entry's extent does not fit its handle's size
//   10045 already seen or not in list  the walk meets an entry unmarked
//   10046 wrong information            a free entry's length differs from its extent
//   10047 went backwards somehow       the walk's next entry lies below the running position
//   10050 came out beyond available space  the running position ends beyond the end of data
//   10060 was never enumerated         an entry the walk did not reach
// The first pass (10010 to 10030) walks the array and marks each entry it
// accepts with kMapEntryScratch; the second visits the entries in address
// order, each address once (the next is the smallest address above the
// current one), clearing the mark and advancing a running position from the
// first chunk by each chunk's extent (free extents do not advance it); the
// last check looks for marks left. Marks are cleared from every entry before
// returning. `handles` (may be null) gives each entry's registered handle,
// null for none; a purged handle is a purgeable block emptied (size 0). An
// empty handle that was not purged is a chunk of no bytes.
QUARNEL_API int chMapCheck(CHMapEntry* map, int count, const CHFileHeader* header,
                           int chunkHeaderSize, const TMemory* const* handles);

#endif  // QUARNEL_CHUNK_CHUNKFILE_H_
