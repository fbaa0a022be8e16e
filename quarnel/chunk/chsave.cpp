// Saving: the compacting save, the quick save, and copies of the store into
// another file.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "quarnel/chunk/internal/chimpl.h"
#include "quarnel/chunk/internal/chjournal.h"
#include "quarnel/compress/hashblock.h"
#include "quarnel/fileio/internal/fileat.h"
#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"

using namespace quarnel_internal;

namespace {

// Sorted, with overlapping and touching ranges joined and empty ones dropped.
std::vector<FileRange> Merged(std::vector<FileRange> r) {
  std::sort(r.begin(), r.end(),
            [](const FileRange& a, const FileRange& b) { return a.offset < b.offset; });
  std::vector<FileRange> out;
  for (const FileRange& x : r) {
    if (x.length <= 0) continue;
    if (!out.empty() && x.offset <= out.back().offset + out.back().length) {
      out.back().length =
          std::max(out.back().offset + out.back().length, x.offset + x.length) - out.back().offset;
    } else {
      out.push_back(x);
    }
  }
  return out;
}

// The bytes in both merged lists.
std::vector<FileRange> Common(const std::vector<FileRange>& a, const std::vector<FileRange>& b) {
  std::vector<FileRange> out;
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const std::int64_t lo = std::max(a[i].offset, b[j].offset);
    const std::int64_t hi = std::min(a[i].offset + a[i].length, b[j].offset + b[j].length);
    if (lo < hi) out.push_back(FileRange{lo, hi - lo});
    if (a[i].offset + a[i].length < b[j].offset + b[j].length) {
      ++i;
    } else {
      ++j;
    }
  }
  return out;
}

// The map chunk holding `count` entries: its header and the entries, in the
// file's generation; empty for no entries (the file then has no map).
int MapImage(const CHMapEntry* entries, int count, int oldFormat, TMemory* image) {
  const int header = oldFormat ? kChunkHeaderSize0100 : kChunkHeaderSize;
  const int bytes = count * (oldFormat ? kMapEntrySize0100 : kMapEntrySize);
  if (count == 0) return image->SetSize(0);
  if (const int err = image->SetSize(static_cast<unsigned>(header + bytes))) return err;
  chPutMapEntries(entries, count, oldFormat, image->MemPtr() + header);
  const CHChunkHeader h{
      kChunkMapType, 0, 0, bytes, 0, 0, 0, 0, chHashBlock(image->MemPtr() + header, bytes)};
  chPutChunkHeader(&h, oldFormat, image->MemPtr());
  return 0;
}

// Blocks of the map compared with what the file holds at their place.
constexpr std::int64_t kMapCompareBlock = 4096;

}  // namespace

// The ranges of the map image, to be written at `at`, whose bytes differ
// from those the file holds there (read below `compareEnd`; beyond it every
// byte counts as changed), in blocks of kMapCompareBlock, merged. A map that
// changed in a few entries rewrites, and journals, only those blocks.
int ChunkStore::MapChanges(const TMemory& image, std::int64_t at, std::int64_t compareEnd,
                           TMemory* buffer, unsigned piece, std::vector<FileRange>* out) {
  const std::int64_t end = at + image.GetSize();
  const std::int64_t window = piece / kMapCompareBlock * kMapCompareBlock;
  std::vector<FileRange> changed;
  std::int64_t pos = at;
  for (; pos < std::min(end, compareEnd) && window > 0;) {
    const auto n = static_cast<unsigned>(std::min(window, std::min(end, compareEnd) - pos));
    const UFileSpan span{buffer->MemPtr(), n};
    if (const int err = FileReadAt(file, pos, &span, 1)) return err;
    for (std::int64_t b = 0; b < n; b += kMapCompareBlock) {
      const std::int64_t length = std::min<std::int64_t>(kMapCompareBlock, n - b);
      if (std::memcmp(buffer->MemPtr() + b, image.MemPtr() + (pos + b - at),
                      static_cast<std::size_t>(length)) != 0)
        changed.push_back(FileRange{pos + b, length});
    }
    pos += n;
  }
  if (pos < end) changed.push_back(FileRange{pos, end - pos});
  *out = Merged(std::move(changed));
  return 0;
}

int ChunkStore::Save(bool quick, const char* member) {
  if (file == nullptr) return kErrChunkInvalidFile;
  if (!dirty) return 0;
  if (readOnly) return kErrAccessDenied;
  if (const int err = MapLoad()) return err;
  std::vector<const TMemory*> held(static_cast<std::size_t>(mapCount), nullptr);
  for (int i = 0; i < mapCount; ++i)
    if (const int s = slots[static_cast<std::size_t>(i)]) held[i] = handles[s].handle;
  if (chMapCheck(Map(), mapCount, &header, hdrSize, held.data()) != 0) return kErrChunkMapCheck;

  // The plan: every write, and the map the file will hold, before a byte is written.
  std::vector<CHMapEntry> next(Map(), Map() + mapCount);
  std::vector<SaveStep> steps;
  std::int64_t end = header.endOfData;
  int kept = mapCount;
  const int freeHead = FreeHead();
  const auto isChunk = [&](int i) {
    return At(i).address != kMapHeadAddress && At(i).type != kChunkFreeType;
  };
  const auto used = [&](int i) { return static_cast<std::int64_t>(held[i]->GetSize()) + hdrSize; };
  if (!quick) {
    // Compaction: every chunk in address order moves down to the write position.
    std::vector<std::pair<std::int64_t, int>> order;
    for (int i = 0; i < mapCount; ++i)
      if (isChunk(i)) order.emplace_back(At(i).address, i);
    std::sort(order.begin(), order.end());
    std::int64_t at = header.firstChunk;
    for (const auto& [address, i] : order) {
      const std::int64_t extent = Extent(i);
      if (At(i).flags & kMapEntryDirty) {
        steps.push_back(SaveStep{SaveStep::kWriteDirty, i, address, at, used(i)});
      } else if (address != at) {
        steps.push_back(SaveStep{SaveStep::kMove, i, address, at, extent});
      }
      next[static_cast<std::size_t>(i)].address = at;
      next[static_cast<std::size_t>(i)].flags &= ~kMapEntryDirty;
      at += extent;
    }
    end = at;
    if (freeHead >= 0) kept = freeHead;
  } else {
    for (int i = 0; i < mapCount; ++i) {
      if (!isChunk(i) || !(At(i).flags & kMapEntryDirty)) continue;
      steps.push_back(SaveStep{SaveStep::kWriteDirty, i, At(i).address, At(i).address, used(i)});
      next[static_cast<std::size_t>(i)].flags &= ~kMapEntryDirty;
    }
    // In address order, chunks that lie back to back go out in one write.
    std::sort(steps.begin(), steps.end(),
              [](const SaveStep& a, const SaveStep& b) { return a.to < b.to; });
    if (freeHead >= 0) {
      // Free space at the end of data gives way to the map.
      const CHMapEntry& last = At(mapCount - 1);
      if (last.address + static_cast<std::int64_t>(last.id) == end) {
        end = last.address;
        kept = mapCount - 1;
        if (--next[static_cast<std::size_t>(freeHead)].id == 0) kept = freeHead;
      }
    }
  }
  TMemory image(1);
  if (const int err = MapImage(next.data(), kept, oldFormat, &image)) {
    DebugLogf(kLogInternalData, oldFormat ? "chWriteMH: not enough memory to convert to 0100"
                                          : "chWriteMH: not enough memory");
    return err;
  }
  CHFileHeader done = header;
  done.mapAddress = end;
  done.mapSize = image.GetSize();
  done.endOfData = end;
  done.saveMarker = 0;
  const std::int64_t newLength = end + done.mapSize;

  // The journal: the present bytes of every range the save writes or cuts off
  // that the last saved state, or a chunk written since, still needs.
  std::uint64_t length = 0;
  if (const int err = file->GetEOF(&length)) return err;
  const auto fileLength = static_cast<std::int64_t>(length);
  TMemory buffer(1);
  const unsigned piece = MoveBuffer(&buffer);
  if (piece == 0) return buffer.CheckError();
  std::vector<FileRange> mapWrites;
  // Only a map written over the last saved one is worth comparing.
  const std::int64_t compareEnd =
      end == header.mapAddress ? std::min(committedEOF, fileLength) : end;
  if (const int err = MapChanges(image, end, compareEnd, &buffer, piece, &mapWrites)) {
    DebugLogf(kLogInternalData, "%s: can't write journal, %E", member, err);
    return err;
  }
  std::vector<FileRange> written(mapWrites);
  written.push_back(FileRange{0, kChunkHeaderSector});
  for (const SaveStep& s : steps) written.push_back(FileRange{s.to, s.length});
  if (newLength < fileLength) written.push_back(FileRange{newLength, fileLength - newLength});
  std::vector<FileRange> needed{{0, std::min(committedEOF, fileLength)}};
  for (int i = 0; i < mapCount; ++i) {
    if (!isChunk(i) || (At(i).flags & kMapEntryDirty)) continue;
    const std::int64_t from = std::max(At(i).address, committedEOF);
    const std::int64_t to = std::min(At(i).address + Extent(i), fileLength);
    if (from < to) needed.push_back(FileRange{from, to - from});
  }
  const std::vector<FileRange> ranges = Common(Merged(written), Merged(needed));
  TFileLoc chunkLoc, journalLoc;
  file->GetFileLoc(&chunkLoc);
  JournalLocation(chunkLoc, &journalLoc);
  TFile journal;
  if (const int err =
          WriteJournal(file, fileLength, ranges, journalLoc, &journal, &buffer, piece)) {
    DebugLogf(kLogInternalData, "%s: can't write journal, %E", member, err);
    journal.Close();
    if (JournalExists(journalLoc)) journalLoc.Delete(0);
    return err;
  }

  // The save itself.
  CHFileHeader marked = header;
  marked.saveMarker = kChunkSaveMarker;
  int err = WriteHeader(marked);
  ChunkWrites writes(this);
  for (std::size_t k = 0; err == 0 && k < steps.size(); ++k) {
    const SaveStep& s = steps[k];
    if (s.kind == SaveStep::kWriteDirty) {
      err = writes.Add(s.entry, s.to, Extent(s.entry), held[s.entry]);
    } else if ((err = writes.Flush()) == 0) {
      err = MoveBytes(s.from, s.to, s.length, &buffer, piece);
    }
  }
  if (err == 0) err = writes.Flush();
  for (std::size_t k = 0; err == 0 && k < mapWrites.size(); ++k) {
    const FileRange& r = mapWrites[k];
    const UFileSpan span{image.MemPtr() + (r.offset - end), static_cast<unsigned>(r.length)};
    err = WriteAt(r.offset, &span, 1);
  }
  if (err == 0) err = file->SetEOF(static_cast<std::uint64_t>(newLength));
  if (err == 0) err = WriteHeader(done);
  if (err == 0) err = file->Flush();
  journal.Close();
  if (err == 0) err = journalLoc.Delete(0);
  if (err != 0) {
    // The file goes back to what it was; the store keeps its changes.
    bool rolled = false;
    int state = 0;
    if (const int again = RollBack(file, journalLoc, &rolled, &state)) {
      DebugLogf(kLogInternalData, "%s: can't roll back, journal kept, %E", member, again);
    } else {
      DebugLogf(kLogInternalData, "%s: save failed, file rolled back, %E", member, err);
    }
    if (file->GetEOF(&length) == 0) currentEOF = static_cast<std::int64_t>(length);
    return err;
  }
  SetMap(next.data(), kept);
  header = done;
  committedEOF = currentEOF = zeroFrom = newLength;
  dirty = 0;
  return 0;
}

int ChunkStore::Copy(TFile* dest, bool append, const char* member) {
  if (dest == nullptr) return kErrBadParameter;
  if (file == nullptr) return kErrChunkInvalidFile;
  if (const int err = Save(false, "CHSave")) return err;
  if (const int err = MapLoad()) return err;
  TMemory buffer(1);
  const unsigned piece = MoveBuffer(&buffer);
  if (piece == 0) {
    DebugLogf(kLogInternalData, "%s: can't allocate move buffer", member);
    return buffer.CheckError();
  }
  std::int64_t base = 0;
  if (append) {
    std::uint64_t length = 0;
    if (const int err = dest->GetEOF(&length)) return err;
    base = (static_cast<std::int64_t>(length) + kChunkHeaderSector - 1) / kChunkHeaderSector *
           kChunkHeaderSector;
    if (const int err = dest->SetEOF(static_cast<std::uint64_t>(base))) return err;
  } else if (const int err = dest->SetEOF(0)) {
    return err;
  }
  std::vector<std::pair<std::int64_t, int>> order;
  for (int i = 0; i < mapCount; ++i)
    if (At(i).address != kMapHeadAddress) order.emplace_back(At(i).address, i);
  std::sort(order.begin(), order.end());
  if (!order.empty() && order.front().first != header.firstChunk) {
    DebugLogf(kLogInternalData, append ? "CHAppend: can't find map index for first chunk"
                                       : "CHTruncate: can't find first chunk map index");
    return kErrChunkBadMap;
  }
  // Chunks go back to back from the first-chunk address; free space (kept by
  // a quick save) is left out, as a save would.
  const int freeHead = FreeHead();
  const int kept = freeHead >= 0 ? freeHead : mapCount;
  std::vector<CHMapEntry> moved(Map(), Map() + kept);
  std::int64_t position = header.firstChunk;
  unsigned char bytes[kChunkHeaderSize];
  for (const auto& [address, i] : order) {
    const CHMapEntry& e = At(i);
    if (e.type == kChunkFreeType) continue;
    const std::int64_t extent = Extent(i);
    const std::int64_t data = extent - e.slack - hdrSize;
    CHChunkHeader stored;
    unsigned count = static_cast<unsigned>(hdrSize);
    if (const int err = file->SetPosFromBegin(static_cast<std::uint64_t>(address))) return err;
    if (const int err = file->Read(&count, bytes)) return err;
    chGetChunkHeader(bytes, oldFormat, &stored);
    std::uint32_t crc = 0;
    for (std::int64_t done = 0; done < data;) {
      const auto n = static_cast<unsigned>(std::min<std::int64_t>(piece, data - done));
      count = n;
      if (const int err =
              file->SetPosFromBegin(static_cast<std::uint64_t>(address + hdrSize + done)))
        return err;
      if (const int err = file->Read(&count, buffer.MemPtr())) return err;
      if (count != n) return kErrEndOfFile;
      crc = BlockCrc(crc, buffer.MemPtr(), n);
      if (const int err =
              dest->SetPosFromBegin(static_cast<std::uint64_t>(base + position + hdrSize + done)))
        return err;
      if (const int err = dest->Write(&count, buffer.MemPtr())) return err;
      done += n;
    }
    const std::uint32_t hash = crc == 0 ? 1 : crc;
    if (stored.hash != 0 && stored.hash != hash) return kErrChunkHash;
    const CHChunkHeader h{e.type, e.reserved, e.id, extent, e.slack, 0, e.word, e.reserved2, hash};
    chPutChunkHeader(&h, oldFormat, bytes);
    count = static_cast<unsigned>(hdrSize);
    if (const int err = dest->SetPosFromBegin(static_cast<std::uint64_t>(base + position)))
      return err;
    if (const int err = dest->Write(&count, bytes)) return err;
    moved[static_cast<std::size_t>(i)].address = base + position;
    position += extent;
  }
  TMemory image(1);
  if (const int err = MapImage(moved.data(), kept, oldFormat, &image)) {
    if (oldFormat) DebugLogf(kLogInternalData, "%s: can't convert to 0100 map, %E", member, err);
    return err;
  }
  CHFileHeader h = header;
  h.mapAddress = h.endOfData = base + position;
  h.mapSize = image.GetSize();
  h.firstChunk = base + header.firstChunk;
  h.saveMarker = 0;
  unsigned char sector[kChunkHeaderSector] = {};
  std::memcpy(sector, &h, sizeof h);
  unsigned count = sizeof sector;
  if (const int err = dest->SetPosFromBegin(static_cast<std::uint64_t>(base))) return err;
  if (const int err = dest->Write(&count, sector)) return err;
  if (image.GetSize() > 0) {
    count = image.GetSize();
    if (const int err = dest->SetPosFromBegin(static_cast<std::uint64_t>(h.mapAddress))) return err;
    if (const int err = dest->Write(&count, image.MemPtr())) return err;
  }
  if (const int err = dest->SetEOF(static_cast<std::uint64_t>(h.mapAddress + h.mapSize)))
    return err;
  return dest->Flush();
}
