// The state of a ChunkManager and the steps its members share: the map with
// its address index, the handle table, reading and writing chunks, extent
// allocation, saving and the journal.
#ifndef QUARNEL_CHUNK_INTERNAL_CHIMPL_H_
#define QUARNEL_CHUNK_INTERNAL_CHIMPL_H_

#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/fileapi.h"

class TFile;
class TFileLoc;

namespace quarnel_internal {

// Little-endian fields at any address of a byte buffer.
template <class T>
T Get(const unsigned char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <class T>
void Put(unsigned char* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// Assertion lines of module "chunk".
constexpr int kLineReadBlock = 946;   // chReadChunk: missing block
constexpr int kLineReadSize = 949;    // chReadChunk: 0x7FFFFFFF bytes or more
constexpr int kLineWriteBlock = 995;  // chWriteChunk: missing block or wrong size
constexpr int kLineWriteSize = 997;   // chWriteChunk: 0x7FFFFFFF bytes or more
constexpr int kLineMapSize = 1087;    // map size outside 0 .. 0x7FFFFFFE
constexpr int kLineAllocSize = 1270;  // chAllocate: 0x7FFFFFFF bytes or more
constexpr std::int64_t kMaxChunkBytes = 0x7FFFFFFF;

// One write a save makes, planned before any byte is written.
struct SaveStep {
  enum Kind { kWriteDirty, kMove } kind;
  int entry;            // map index of the chunk
  std::int64_t from;    // kMove: the extent's present address
  std::int64_t to;      // where it goes
  std::int64_t length;  // kMove: the extent; kWriteDirty: header + data
};

// A byte range of the chunk file.
struct FileRange {
  std::int64_t offset;
  std::int64_t length;
};

// A journal being written for one save (chjournal.cpp).
struct Journal;

// The state behind a ChunkManager.
struct ChunkStore {
  struct Pair {
    TMemory* handle;
    int index;
  };

  // State.
  TFile* file = nullptr;
  TFile* owned = nullptr;
  int load = 1;
  int dirty = 0;
  int readOnly = 0;
  std::int64_t committedEOF = 0;
  std::int64_t currentEOF = 0;
  int mapCount = 0;
  TMemory mapBlock{1};  // mapCapacity entries; the first mapCount used
  int mapCapacity = 0;
  std::vector<int> slots;                       // per map entry: its handle slot, 0 for none
  std::vector<std::int64_t> addresses;          // of every non-head entry with space, sorted
  mutable std::size_t extentHint = 0;           // where the last extent search ended
  std::vector<Pair> handles{Pair{nullptr, 0}};  // slot 0 unused
  std::unordered_map<const TMemory*, int> slotOf;
  CHFileHeader header{};
  int oldFormat = 0;
  int hdrSize = kChunkHeaderSize;
  bool mapLoaded = false;
  // Every byte at or above this offset that the store has not written since
  // the file was opened or last saved reads as zero: the file was only
  // lengthened there. Raised before every write (WriteAt).
  std::int64_t zeroFrom = 0;
  // What was written since the disk was last told to start writing (WriteAt).
  std::int64_t behindFrom = 0, behindTo = 0, behindBytes = 0;

  // The map (chmap.cpp).
  CHMapEntry* Map() { return reinterpret_cast<CHMapEntry*>(mapBlock.MemPtr()); }
  CHMapEntry& At(int i) { return Map()[i]; }
  int EntrySize() const { return oldFormat ? kMapEntrySize0100 : kMapEntrySize; }
  std::int64_t Granule() const { return header.granule; }
  int Reserve(int count);  // room for `count` entries; 0 or -625
  int InsertAt(int at, const CHMapEntry& e);
  void EraseAt(int at);
  void SetAddress(int i, std::int64_t address);
  int SetMap(const CHMapEntry* entries, int count);  // replaces the map; rebuilds the indexes
  void ClearMap();
  void IndexAddresses();
  void AddAddress(std::int64_t address);
  void DropAddress(std::int64_t address);
  std::int64_t Extent(int i) const;  // 0 for a head or an entry without space
  std::int64_t ExtentAt(std::int64_t address) const;
  int FindGroup(std::uint32_t type) const;  // head index, -1 when absent
  int Find(std::uint32_t type, std::uint64_t id, int* insertAt) const;  // -1 when absent
  int FreeHead() const;
  int MapInsert(std::uint32_t type, std::uint64_t id, int* index);  // -646 on a duplicate
  void MapDelete(int index);
  void InsertFree(std::int64_t address, std::int64_t length);
  void DeleteFree(int index);
  // Extents (chmap.cpp).
  int Allocate(int index, std::int64_t bytes, bool committed);
  void Deallocate(int index);
  bool FindFree(bool committed, std::int64_t bytes, std::int64_t* address, std::int64_t* taken,
                int* tail);
  int SetEOF(std::int64_t end);
  // Writes the handle's contents now, above the committed length.
  int StoreNow(int index, TMemory* h);

  // Handles (chunkmanager.cpp).
  int SlotOf(const TMemory* h) const;
  // The handle's slot; 0 with "<member>: handle doesn't refer to a chunk"
  // (and ", %E" of -647 with `withCode`) at 515 when it is not registered.
  int Registered(const TMemory* h, const char* member, bool withCode);
  int Register(TMemory* h, int index);  // 0 or -625
  void Unregister(int slot);
  void DeleteHandles();

  // File access (chunkmanager.cpp).
  int MapLoad();
  int ReadMap();
  int ReadChunk(std::int64_t address, std::int64_t bytes, TMemory* block, CHChunkHeader* header);
  // The checks of an extent to read: -650 with assertion 949 at 0x7FFFFFFF
  // bytes or more, -1124 with a log line when it lies outside the file.
  int CheckExtent(std::int64_t address, std::int64_t bytes) const;
  // Reads the chunk's data into `data` (room for bytes - header) and checks its hash.
  int ReadChunkInto(std::int64_t address, std::int64_t bytes, unsigned char* data,
                    CHChunkHeader* header);
  int WriteChunk(int index, std::int64_t address, std::int64_t extent, const TMemory* data);
  int WriteHeader(const CHFileHeader& h);
  // Every write of the chunk file goes through here (zeroFrom follows it).
  int WriteAt(std::int64_t offset, const UFileSpan* spans, int count);
  int Open(TFile* f);
  int OpenJournal(TFile* f, const TFileLoc& loc);
  // The move buffer: between 16384 and 0x80000 bytes in granules; returns
  // its size, 0 with the error in the block's CheckError.
  unsigned MoveBuffer(TMemory* buffer);
  int MoveBytes(std::int64_t from, std::int64_t to, std::int64_t length, TMemory* buffer,
                unsigned piece);
  void Close();
  // The map index of chunk (type, id) in *index, loading the map first. Types
  // 0 and -1 are refused (-646, "<member>: invalid type %Y" at 515); a missing
  // chunk is -647, with "<member>: can't find type/id" at 515 if `logMissing`.
  int Lookup(int type, int id, const char* member, bool logMissing, int* index);

  // Saving (chsave.cpp).
  int Save(bool quick, const char* member);
  int MapChanges(const TMemory& image, std::int64_t at, std::int64_t compareEnd, TMemory* buffer,
                 unsigned piece, std::vector<FileRange>* out);
  int Copy(TFile* dest, bool append, const char* member);
};

// Chunk writes gathered into one positioned write while the chunks lie back
// to back: one long write costs the system less than many short ones, which
// also leave it partial pages to clear. Slack between two chunks joins them
// only where the file holds zeros (ChunkStore::zeroFrom), written as zeros:
// the file's bytes are those of writing each chunk alone.
class ChunkWrites {
 public:
  explicit ChunkWrites(ChunkStore* store) : store_(*store) {}
  // Queues chunk `index` (header from its entry, data from `data`) at
  // `address`, writing what is queued first when it does not join on; the
  // data must stay as it is until it is written. The checks of chWriteChunk:
  // -650 with assertion 995 or 997.
  int Add(int index, std::int64_t address, std::int64_t extent, const TMemory* data);
  int Flush();

 private:
  static constexpr int kChunks = (kUFileSpansMax - 1) / 3;  // slack, header, data
  static constexpr std::int64_t kBytes = std::int64_t{1} << 20;
  ChunkStore& store_;
  std::int64_t start_ = 0, end_ = 0;
  int spans_ = 0, chunks_ = 0;
  // Only the first spans_ and chunks_ are set.
  UFileSpan span_[kUFileSpansMax];
  unsigned char headers_[kChunks][kChunkHeaderSize];
};

}  // namespace quarnel_internal

#endif  // QUARNEL_CHUNK_INTERNAL_CHIMPL_H_
