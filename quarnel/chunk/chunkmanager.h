// ChunkManager: a store of typed, numbered records ("chunks") in one chunk
// file (chunkfile.h), reached only through a TFile.
//
// The host works with chunks as TMemory blocks ("handles"). A handle is
// registered with the manager when a chunk is fetched or added; a registered
// handle belongs to the manager (CHClose, CHRevert and the destructor delete
// every one still registered) until CHDetachChunk or CHRemoveChunk hands it
// back to the caller. Types and ids are int at the interface; ids widen to 64
// bits with sign extension. Types 0 and -1 name no chunk (-1 is the map's
// free space): members given one refuse it with -646.
//
// Changes live in memory and in extents reserved in the file until a save.
// CHSave compacts the file and writes a new map; CHQuickSave writes only what
// changed. Both keep the file exactly as the old library's saves leave it and
// guard it with a rollback journal beside it (chJournalName): before a save
// overwrites or cuts off a byte that the last saved state (or a chunk the
// store still holds) needs, the original bytes and the file's length are in
// the journal and the journal is flushed; the save flushes the file and
// deletes the journal last. A save that fails puts the file back from the
// journal, keeps the store's changes and returns its first failure. Opening a
// file beside a complete journal rolls the file back first; a journal that
// is incomplete (its checksum or length is wrong) was never acted on and is
// deleted.
//
// Results are 0 or a library error code: -641 a chunk's data does not match
// its hash, -642 a bad map, -643 an invalid file, -644 the map check failed,
// -645 the file was not fully saved, -646 a duplicate key or an invalid type,
// -647 no such chunk or handle, -648 the chunk is dirty, -649 removing an
// unregistered handle, -1017 saving a read-only file. Misuse is logged at 515,
// internal failures (memory, file, damaged data) at 517, journal recoveries at
// 518, details of the safe paths at 519.
//
// Assertions of module "chunk": 946 and 995 a chunk block missing or of the
// wrong size for reading or writing, 949, 997 and 1270 a chunk of 0x7FFFFFFF
// bytes or more read, written or reserved, 1087 a map size outside
// 0 .. 0x7FFFFFFE.
//
// A manager is used by one thread at a time.
#ifndef QUARNEL_CHUNK_CHUNKMANAGER_H_
#define QUARNEL_CHUNK_CHUNKMANAGER_H_

#include <cstdint>

#include "quarnel/chunk/chunkfile.h"
#include "quarnel/foundation/export.h"

class TFile;
class TFileLoc;
class TMemory;
namespace quarnel_internal {
struct ChunkStore;
}

// One map entry as CHGetEntry describes it.
struct CHEntryInfo {
  CHMapEntry entry;     // as held in memory (group heads included)
  std::int64_t extent;  // bytes from its address to the next extent; 0 for a head or no address
  int head;             // 1 for a group head
  TMemory* handle;      // the registered handle, or null
};

class QUARNEL_API ChunkManager {
 public:
  ChunkManager();
  explicit ChunkManager(TFile* file);     // as CHOpenRef
  ChunkManager(TFileLoc* loc, int mode);  // as CHOpen
  ~ChunkManager();                        // CHClose
  ChunkManager(const ChunkManager&) = delete;
  ChunkManager& operator=(const ChunkManager&) = delete;

  // Opens the file at `loc` with TFile::Open(loc, mode) and the store on it;
  // the manager owns that TFile. On failure the TFile is deleted.
  int CHOpen(TFileLoc* loc, int mode);
  // Opens the store on the host's open file (not owned). A writable file of
  // length 0 becomes a new store (written at the first save). A complete
  // journal beside it is rolled back first (518 "chDoOpen: rolled back an
  // interrupted save"); that needs a writable file. Refused: -643 a short or
  // foreign header, or a granule that does not divide 512 ("chDoOpen: invalid
  // file, %E"); -645 the save marker set; -642 a map chunk that is not 'ChMp'
  // or a map size or address the file cannot hold ("chReadMap: bad map");
  // -644 a map that fails the map check (its line names the rule); -641 a
  // map whose hash is wrong.
  int CHOpenRef(TFile* f);
  // Sets the file back to its committed length if it differs, deletes every
  // registered handle and an owned TFile. Always 0.
  int CHClose();
  // Saves by compaction: 0 at once when nothing changed; -1017 read-only;
  // -644 when the map check fails. Writes the header with the save marker,
  // moves every chunk down over free space (writing dirty chunks from their
  // handles), writes the map at the end of data, cuts the file after it,
  // writes the header without the marker and flushes.
  int CHSave();
  // Saves only what changed: each dirty chunk is written into its reserved
  // extent, free extents stay in the map as its free group (one that ends at
  // the end of data is dropped), and the map goes at the end of data; then as
  // CHSave (marker, cut, header, flush), with the same journal and results.
  // The file is a valid chunk file that the old library opens.
  int CHQuickSave();
  // Throws every unsaved change away: the file back to its committed length,
  // handles deleted, the store reopened on the same file.
  int CHRevert();
  // -644 when the map check fails, else 0.
  int CHVerify();
  TFile* CHRefnum();
  int CHSetLoad(int on);  // returns the old value
  int CHGetChunkHdrSize();

  int CHCountTypes();
  int CHEnumType(int n);  // from 1; 0 when there is none
  int CHCountChunks(int type);
  // The id of the n-th chunk of the type (from 1); 0 for n < 0 or beyond the
  // count; n = 0 returns the group head's count.
  int CHEnumChunk(int type, int n);
  // The smallest id at or above `id` that no chunk of the type uses; 0 when
  // the map cannot be loaded or no such id remains up to 0x7FFFFFFF (or up
  // to -1 for a negative `id`), logged at 515 as "CHUniqueID: no free id at
  // or above %d".
  int CHUniqueID(int type, int id);
  // Data bytes of the chunk, or -647.
  std::int64_t CHChunkSize(int type, int id);
  // File offset of the chunk's data and its size in bytes; -648 for a dirty
  // chunk, -647 when absent.
  int CHPhysInfo(int type, int id, std::int64_t* offset, std::int64_t* size);

  // Fetches a chunk: its registered handle, or a new handle holding its data
  // (expanded when stored packed) when the load flag is set, else empty.
  // A dirty chunk's handle holds its contents: the file is not read for it.
  int CHGetChunk(int type, int id, TMemory** h);
  // Reads the data into a registered, empty handle of a clean chunk.
  int CHLoadChunk(TMemory* h);
  // Unregisters the handle and gives it back to the caller. A dirty chunk is
  // first written into the file (as CHStoreChunk); when that fails the
  // handle stays registered and the failure is returned.
  int CHDetachChunk(TMemory* h);
  int CHGetInfo(TMemory* h, int* type, int* id);
  int CHSetInfo(TMemory* h, int type, int id);
  // A new dirty chunk whose contents are the handle's; the handle becomes
  // registered.
  int CHAddChunk(TMemory* h, int type, int id);
  // Frees the chunk's extent, deletes its entry, unregisters the handle and
  // gives it back to the caller.
  int CHRemoveChunk(TMemory* h);
  int CHChangedChunk(TMemory* h);
  // Writes the handle's contents now, above the committed length.
  int CHStoreChunk(TMemory* h);
  // Copies chunk (type, id) to (type, newId): from the file for a clean
  // source, from the source's handle for a dirty one.
  int CHDuplicate(int type, int id, int newId);
  // Saves (CHSave), then writes the store into `dest` from offset 0 and sets
  // its end of file after the map: the header sector, every chunk in address
  // order back to back from the first-chunk address with its extent (slack
  // included) and a fresh header and hash from its map entry, free space left
  // out, then the map; same format generation. The result is what a
  // compacting save of the store leaves, with every chunk header rewritten.
  int CHTruncate(TFile* dest);
  // The same image appended to `dest`: it starts at dest's end of file
  // rounded up to 512 (the gap zero), and every address in it (header and
  // map) is an offset in `dest`. On an empty file the bytes equal CHTruncate's.
  int CHAppend(TFile* dest);

  // For tools. The number of map entries (heads and free entries included),
  // 0 when the map cannot be loaded; entry n (from 0), -647 beyond the count.
  int CHCountEntries();
  int CHGetEntry(int n, CHEntryInfo* info);
  // The file header as held in memory; -643 when no file is open.
  int CHGetFileHeader(CHFileHeader* header);

 private:
  quarnel_internal::ChunkStore* impl_;
};

// The rollback journal of the chunk file at `chunkFile`.
//
// Name: the chunk file's path with "-journal" appended. Layout (little-endian):
//   0   4  signature 'Cjn.' (0x436A6E2E)
//   4   4  version 1
//   8   8  the chunk file's length before the save
//   16  8  number of records
//   24  8  the journal's whole length in bytes
//   then each record: offset (8), length (8), the file's bytes there
//   last 8 bytes: HashBlock's CRC of everything before (4; the plain CRC,
//   0 kept as 0), then the signature again (4).
// A journal is complete when its length field equals its size, the records
// fill it exactly and the CRC matches; rolling back writes every record's
// bytes at its offset, sets the length, flushes, and deletes the journal.
struct CHJournalInfo {
  int state;  // 0 no journal, 1 complete, 2 incomplete
  std::int64_t originalLength;
  std::int64_t records;
  std::int64_t length;  // the journal file's size
};
QUARNEL_API int chJournalName(const TFileLoc* chunkFile, TFileLoc* journal);
// 0 and info->state; a file error when the journal cannot be read.
QUARNEL_API int chJournalQuery(const TFileLoc* chunkFile, CHJournalInfo* info);
// Rolls a complete journal back into the chunk file (opened for writing
// here) and deletes it; deletes an incomplete one. 0 also when there is none.
QUARNEL_API int chJournalRollBack(const TFileLoc* chunkFile);

#endif  // QUARNEL_CHUNK_CHUNKMANAGER_H_
