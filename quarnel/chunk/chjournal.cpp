#include "quarnel/chunk/internal/chjournal.h"

#include <algorithm>
#include <cstring>

#include "quarnel/compress/hashblock.h"
#include "quarnel/fileio/internal/fileat.h"
#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/fileapi.h"

namespace quarnel_internal {
namespace {

// Reads exactly `count` bytes at `offset`; a short read is the end of file.
int ReadAt(TFile* f, std::int64_t offset, unsigned char* into, unsigned count) {
  const UFileSpan span{into, count};
  return FileReadAt(f, offset, &span, 1);
}

int WriteAt(TFile* f, std::int64_t offset, const unsigned char* from, unsigned count) {
  const UFileSpan span{const_cast<unsigned char*>(from), count};
  return FileWriteAt(f, offset, &span, 1);
}

unsigned Buffer(TMemory* block, std::int64_t granule = 512) {
  return block->AllocBuffer(16384, 0x80000, static_cast<unsigned>(granule));
}

struct JournalHead {
  std::int64_t originalLength;
  std::int64_t records;
  std::int64_t total;
};

int ReadHead(TFile* journal, JournalHead* h, std::uint32_t* crc) {
  unsigned char head[kJournalHeaderSize];
  if (const int err = ReadAt(journal, 0, head, sizeof head)) return err;
  if (Get<std::uint32_t>(head) != kJournalSignature ||
      Get<std::uint32_t>(head + 4) != kJournalVersion)
    return kErrInvalidData;
  h->originalLength = Get<std::int64_t>(head + 8);
  h->records = Get<std::int64_t>(head + 16);
  h->total = Get<std::int64_t>(head + 24);
  *crc = BlockCrc(0, head, sizeof head);
  return 0;
}

}  // namespace

void JournalLocation(const TFileLoc& chunkFile, TFileLoc* journal) {
  TString path = chunkFile.Path();
  path.Append(u"-journal");
  journal->SetPath(&path);
}

bool JournalExists(const TFileLoc& journal) {
  const unsigned a = UGetFileAttributes(journal.Path().Text());
  return a != kInvalidFileAttributes && !(a & kFileAttributeDirectory);
}

int WriteJournal(TFile* file, std::int64_t length, const std::vector<FileRange>& ranges,
                 const TFileLoc& loc, TFile* journal, TMemory* buffer, unsigned piece) {
  std::int64_t total = kJournalHeaderSize + kJournalTrailerSize;
  for (const FileRange& r : ranges) total += kJournalRecordSize + r.length;
  if (const int err = journal->Create(&loc, kModeRead | kModeWrite)) return err;
  // Records are gathered in the buffer and written a buffer at a time.
  unsigned char* stage = buffer->MemPtr();
  unsigned fill = 0;
  std::uint32_t crc = 0;
  std::int64_t written = 0;
  const auto flush = [&]() {
    crc = BlockCrc(crc, stage, fill);
    unsigned count = fill;
    fill = 0;
    if (const int err = journal->Write(&count, stage)) return err;
    // A full buffer goes on to the disk while the next one fills.
    if (count == piece) FileStartWrite(journal, written, count);
    written += count;
    return 0;
  };
  const auto put = [&](const unsigned char* bytes, unsigned count) {
    if (piece - fill < count)
      if (const int err = flush()) return err;
    std::memcpy(stage + fill, bytes, count);
    fill += count;
    return 0;
  };
  unsigned char head[kJournalHeaderSize] = {};
  Put(head, kJournalSignature);
  Put(head + 4, static_cast<std::uint32_t>(kJournalVersion));
  Put(head + 8, length);
  Put(head + 16, static_cast<std::int64_t>(ranges.size()));
  Put(head + 24, total);
  if (const int err = put(head, sizeof head)) return err;
  for (const FileRange& r : ranges) {
    unsigned char record[kJournalRecordSize];
    Put(record, r.offset);
    Put(record + 8, r.length);
    if (const int err = put(record, sizeof record)) return err;
    for (std::int64_t done = 0; done < r.length;) {
      if (fill == piece)
        if (const int err = flush()) return err;
      const auto n = static_cast<unsigned>(std::min<std::int64_t>(piece - fill, r.length - done));
      if (const int err = ReadAt(file, r.offset + done, stage + fill, n)) return err;
      fill += n;
      done += n;
    }
  }
  if (const int err = flush()) return err;
  unsigned char trailer[kJournalTrailerSize];
  Put(trailer, crc);
  Put(trailer + 4, kJournalSignature);
  unsigned count = sizeof trailer;
  if (const int err = journal->Write(&count, trailer)) return err;
  return journal->Flush();
}

int CheckJournal(TFile* journal, CHJournalInfo* info) {
  *info = CHJournalInfo{2, 0, 0, 0};
  std::uint64_t size = 0;
  if (const int err = journal->GetEOF(&size)) return err;
  info->length = static_cast<std::int64_t>(size);
  const auto end = static_cast<std::int64_t>(size) - kJournalTrailerSize;
  JournalHead h;
  std::uint32_t crc = 0;
  if (end < kJournalHeaderSize || ReadHead(journal, &h, &crc) != 0 ||
      h.total != static_cast<std::int64_t>(size) || h.records < 0)
    return 0;
  info->originalLength = h.originalLength;
  info->records = h.records;
  TMemory block(1);
  const unsigned piece = Buffer(&block);
  if (piece == 0) return block.CheckError();
  std::int64_t pos = kJournalHeaderSize;
  for (std::int64_t k = 0; k < h.records; ++k) {
    unsigned char record[kJournalRecordSize];
    if (pos + kJournalRecordSize > end || ReadAt(journal, pos, record, sizeof record) != 0)
      return 0;
    crc = BlockCrc(crc, record, sizeof record);
    const auto offset = Get<std::int64_t>(record);
    const auto length = Get<std::int64_t>(record + 8);
    pos += kJournalRecordSize;
    if (offset < 0 || length < 0 || length > end - pos) return 0;
    for (std::int64_t done = 0; done < length;) {
      const auto n = static_cast<unsigned>(std::min<std::int64_t>(piece, length - done));
      if (ReadAt(journal, pos + done, block.MemPtr(), n) != 0) return 0;
      crc = BlockCrc(crc, block.MemPtr(), n);
      done += n;
    }
    pos += length;
  }
  unsigned char trailer[kJournalTrailerSize];
  if (pos != end || ReadAt(journal, pos, trailer, sizeof trailer) != 0) return 0;
  if (Get<std::uint32_t>(trailer) == crc && Get<std::uint32_t>(trailer + 4) == kJournalSignature)
    info->state = 1;
  return 0;
}

int ReplayJournal(TFile* journal, TFile* file, bool apply, bool* same) {
  if (same) *same = true;
  JournalHead h;
  std::uint32_t crc = 0;
  if (const int err = ReadHead(journal, &h, &crc)) return err;
  TMemory block(1), theirs(1);
  const unsigned piece = Buffer(&block);
  if (piece == 0) return block.CheckError();
  if (!apply && theirs.SetSize(piece) != 0) return theirs.CheckError();
  std::int64_t pos = kJournalHeaderSize;
  for (std::int64_t k = 0; k < h.records; ++k) {
    unsigned char record[kJournalRecordSize];
    if (const int err = ReadAt(journal, pos, record, sizeof record)) return err;
    const auto offset = Get<std::int64_t>(record);
    const auto length = Get<std::int64_t>(record + 8);
    pos += kJournalRecordSize;
    for (std::int64_t done = 0; done < length;) {
      const auto n = static_cast<unsigned>(std::min<std::int64_t>(piece, length - done));
      if (const int err = ReadAt(journal, pos + done, block.MemPtr(), n)) return err;
      if (apply) {
        if (const int err = WriteAt(file, offset + done, block.MemPtr(), n)) return err;
      } else if (ReadAt(file, offset + done, theirs.MemPtr(), n) != 0 ||
                 std::memcmp(block.MemPtr(), theirs.MemPtr(), n) != 0) {
        *same = false;
        return 0;
      }
      done += n;
    }
    pos += length;
  }
  if (apply) {
    if (const int err = file->SetEOF(static_cast<std::uint64_t>(h.originalLength))) return err;
    return file->Flush();
  }
  std::uint64_t length = 0;
  if (const int err = file->GetEOF(&length)) return err;
  if (static_cast<std::int64_t>(length) != h.originalLength) *same = false;
  return 0;
}

int RollBack(TFile* file, const TFileLoc& loc, bool* rolled, int* state) {
  *rolled = false;
  *state = 0;
  TFile journal;
  TFileLoc where = loc;
  if (const int err = journal.Open(&where, kModeRead)) return err;
  CHJournalInfo info;
  if (const int err = CheckJournal(&journal, &info)) return err;
  *state = info.state;
  if (info.state == 1) {
    bool same = false;
    if (const int err = ReplayJournal(&journal, file, false, &same)) return err;
    if (!same) {
      if (const int err = ReplayJournal(&journal, file, true, nullptr)) return err;
      *rolled = true;
    }
  }
  journal.Close();
  return where.Delete(0);
}

}  // namespace quarnel_internal

using namespace quarnel_internal;

unsigned ChunkStore::MoveBuffer(TMemory* buffer) {
  return buffer->AllocBuffer(16384, 0x80000, static_cast<unsigned>(Granule()));
}

int ChunkStore::MoveBytes(std::int64_t from, std::int64_t to, std::int64_t length, TMemory* buffer,
                          unsigned piece) {
  for (std::int64_t done = 0; done < length;) {
    const auto n = static_cast<unsigned>(std::min<std::int64_t>(piece, length - done));
    if (const int err = ReadAt(file, from + done, buffer->MemPtr(), n)) return err;
    const UFileSpan span{buffer->MemPtr(), n};
    if (const int err = WriteAt(to + done, &span, 1)) return err;
    done += n;
  }
  return 0;
}

int ChunkStore::OpenJournal(TFile* f, const TFileLoc& loc) {
  TFileLoc journalLoc;
  JournalLocation(loc, &journalLoc);
  if (!JournalExists(journalLoc)) return 0;
  if (readOnly) {
    // Nothing can be written: the file opens only if it already is what
    // rolling back would make of it.
    TFile journal;
    CHJournalInfo info;
    bool same = true;
    int err = journal.Open(&journalLoc, kModeRead);
    if (err == 0) err = CheckJournal(&journal, &info);
    if (err == 0 && info.state == 1) err = ReplayJournal(&journal, f, false, &same);
    if (err != 0 || !same) {
      DebugLogf(kLogInternalData, "chDoOpen: file was not fully saved");
      return kErrChunkNotSaved;
    }
    return 0;
  }
  bool rolled = false;
  int state = 0;
  if (const int err = RollBack(f, journalLoc, &rolled, &state)) {
    DebugLogf(kLogInternalData, "chDoOpen: can't roll back journal, %E", err);
    return err;
  }
  if (rolled) DebugLogf(kLogAttention, "chDoOpen: rolled back an interrupted save");
  if (state == 2) DebugLogf(kLogAttention, "chDoOpen: incomplete journal deleted");
  return 0;
}

int chJournalName(const TFileLoc* chunkFile, TFileLoc* journal) {
  if (chunkFile == nullptr || journal == nullptr) return kErrBadParameter;
  JournalLocation(*chunkFile, journal);
  return 0;
}

int chJournalQuery(const TFileLoc* chunkFile, CHJournalInfo* info) {
  if (chunkFile == nullptr || info == nullptr) return kErrBadParameter;
  *info = CHJournalInfo{0, 0, 0, 0};
  TFileLoc loc;
  JournalLocation(*chunkFile, &loc);
  if (!JournalExists(loc)) return 0;
  TFile journal;
  if (const int err = journal.Open(&loc, kModeRead)) return err;
  return CheckJournal(&journal, info);
}

int chJournalRollBack(const TFileLoc* chunkFile) {
  if (chunkFile == nullptr) return kErrBadParameter;
  TFileLoc loc;
  JournalLocation(*chunkFile, &loc);
  if (!JournalExists(loc)) return 0;
  TFile file;
  TFileLoc where = *chunkFile;
  if (const int err = file.Open(&where, kModeRead | kModeWrite)) return err;
  bool rolled = false;
  int state = 0;
  return RollBack(&file, loc, &rolled, &state);
}
