// The rollback journal beside a chunk file (its name and layout are in
// chunkmanager.h): writing it before a save touches the file, checking it,
// and putting its bytes back.
#ifndef QUARNEL_CHUNK_INTERNAL_CHJOURNAL_H_
#define QUARNEL_CHUNK_INTERNAL_CHJOURNAL_H_

#include <cstdint>
#include <vector>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/chunk/internal/chimpl.h"

class TFile;
class TFileLoc;
class TMemory;

namespace quarnel_internal {

constexpr unsigned kJournalSignature = 0x436A6E2E;  // 'Cjn.'
constexpr int kJournalVersion = 1;
constexpr int kJournalHeaderSize = 32;
constexpr int kJournalRecordSize = 16;
constexpr int kJournalTrailerSize = 8;

// The journal's location: the chunk file's path with "-journal" appended.
void JournalLocation(const TFileLoc& chunkFile, TFileLoc* journal);
// Whether a journal file exists there (asked quietly: no log line).
bool JournalExists(const TFileLoc& journal);
// Creates the journal at `loc` holding `ranges` of `file` (sorted, inside
// its `length` bytes) and flushes it; `journal` is left open on it.
int WriteJournal(TFile* file, std::int64_t length, const std::vector<FileRange>& ranges,
                 const TFileLoc& loc, TFile* journal, TMemory* buffer, unsigned piece);
// Reads the whole journal and fills `info` (state 1 complete, 2 incomplete).
int CheckJournal(TFile* journal, CHJournalInfo* info);
// For a complete journal: with `apply` writes every record into `file`, sets
// its length and flushes it; without, sets *same when `file` already holds
// every record and the length.
int ReplayJournal(TFile* journal, TFile* file, bool apply, bool* same);
// Rolls the journal at `loc` back into `file` and deletes it (an incomplete
// one is only deleted). *rolled tells whether `file` was written, *state is
// the journal's state (CHJournalInfo).
int RollBack(TFile* file, const TFileLoc& loc, bool* rolled, int* state);

}  // namespace quarnel_internal

#endif  // QUARNEL_CHUNK_INTERNAL_CHJOURNAL_H_
