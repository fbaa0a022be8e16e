#include "quarnel/chunk/chunkmanager.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "quarnel/chunk/internal/chimpl.h"
#include "quarnel/chunk/internal/chjournal.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/internal/fileat.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"

using namespace quarnel_internal;

namespace {

std::uint64_t Widen(int id) { return static_cast<std::uint64_t>(static_cast<std::int64_t>(id)); }

}  // namespace

// ---- Handles ----

int ChunkStore::SlotOf(const TMemory* h) const {
  const auto it = slotOf.find(h);
  return it == slotOf.end() ? 0 : it->second;
}

int ChunkStore::Register(TMemory* h, int index) {
  try {
    // Room for one more, growing geometrically: the insertions below cannot throw.
    if (handles.size() == handles.capacity()) handles.reserve(handles.size() * 2);
    if (static_cast<float>(slotOf.size() + 1) >
        static_cast<float>(slotOf.bucket_count()) * slotOf.max_load_factor())
      slotOf.reserve((slotOf.size() + 1) * 2);
  } catch (const std::bad_alloc&) {
    DebugLogf(kLogInternalData, "chAddHandle: not enough memory, %E", kErrMemNotObtained);
    return kErrMemNotObtained;
  }
  handles.push_back(Pair{h, index});
  const int slot = static_cast<int>(handles.size() - 1);
  slotOf[h] = slot;
  slots[static_cast<std::size_t>(index)] = slot;
  return 0;
}

int ChunkStore::Registered(const TMemory* h, const char* member, bool withCode) {
  const int slot = SlotOf(h);
  if (slot == 0) {
    DebugLogf(kLogMisuse,
              withCode ? "%s: handle doesn't refer to a chunk, %E"
                       : "%s: handle doesn't refer to a chunk",
              member, kErrChunkNotFound);
  }
  return slot;
}

void ChunkStore::Unregister(int slot) {
  const Pair gone = handles[static_cast<std::size_t>(slot)];
  slots[static_cast<std::size_t>(gone.index)] = 0;
  slotOf.erase(gone.handle);
  const Pair last = handles.back();
  handles.pop_back();
  if (static_cast<std::size_t>(slot) < handles.size()) {
    handles[static_cast<std::size_t>(slot)] = last;
    slotOf[last.handle] = slot;
    slots[static_cast<std::size_t>(last.index)] = slot;
  }
}

void ChunkStore::DeleteHandles() {
  for (std::size_t s = 1; s < handles.size(); ++s) delete handles[s].handle;
  handles.resize(1);
  slotOf.clear();
  for (int& s : slots) s = 0;
}

// ---- File access ----

int ChunkStore::ReadChunk(std::int64_t address, std::int64_t bytes, TMemory* block,
                          CHChunkHeader* out) {
  if (block == nullptr) {
    Debug("chunk", kLineReadBlock);
    return kErrBadParameter;
  }
  if (const int err = CheckExtent(address, bytes)) return err;
  if (const int err = block->SetSize(static_cast<unsigned>(bytes - hdrSize))) return err;
  return ReadChunkInto(address, bytes, block->MemPtr(), out);
}

int ChunkStore::CheckExtent(std::int64_t address, std::int64_t bytes) const {
  if (bytes >= kMaxChunkBytes) {
    Debug("chunk", kLineReadSize);
    return kErrBadParameter;
  }
  if (bytes < hdrSize || address < kChunkHeaderSector || address + bytes > currentEOF) {
    DebugLogf(kLogInternalData, "chReadChunk: extent outside the file, %E", kErrInvalidData);
    return kErrInvalidData;
  }
  return 0;
}

int ChunkStore::ReadChunkInto(std::int64_t address, std::int64_t bytes, unsigned char* data,
                              CHChunkHeader* out) {
  // One read puts the header aside and the data straight where it goes.
  const auto size = static_cast<unsigned>(bytes - hdrSize);
  unsigned char head[kChunkHeaderSize];
  const UFileSpan spans[] = {{head, static_cast<unsigned>(hdrSize)}, {data, size}};
  if (const int err = FileReadAt(file, address, spans, 2)) return err;
  CHChunkHeader h;
  chGetChunkHeader(head, oldFormat, &h);
  if (out) *out = h;
  if (h.hash != 0 && h.hash != chHashBlock(data, static_cast<int>(size))) return kErrChunkHash;
  return 0;
}

int ChunkStore::WriteChunk(int index, std::int64_t address, std::int64_t extent,
                           const TMemory* data) {
  ChunkWrites one(this);
  if (const int err = one.Add(index, address, extent, data)) return err;
  return one.Flush();
}

int ChunkStore::WriteAt(std::int64_t offset, const UFileSpan* spans, int count) {
  std::int64_t end = offset;
  for (int i = 0; i < count; ++i) end += spans[i].count;
  zeroFrom = std::max(zeroFrom, end);
  if (const int err = FileWriteAt(file, offset, spans, count)) return err;
  // A long save hands what it wrote to the disk as it goes, so that its
  // closing flush waits for the last stretch only.
  constexpr std::int64_t kWriteBehind = std::int64_t{1} << 20;
  behindFrom = behindBytes == 0 ? offset : std::min(behindFrom, offset);
  behindTo = behindBytes == 0 ? end : std::max(behindTo, end);
  behindBytes += end - offset;
  if (behindBytes >= kWriteBehind) {
    FileStartWrite(file, behindFrom, behindTo - behindFrom);
    behindBytes = 0;
  }
  return 0;
}

int ChunkStore::WriteHeader(const CHFileHeader& h) {
  unsigned char sector[kChunkHeaderSector] = {};
  std::memcpy(sector, &h, sizeof h);
  const UFileSpan span{sector, sizeof sector};
  return WriteAt(0, &span, 1);
}

namespace {

// Slack written between gathered chunks; longer slack ends the gathering.
const unsigned char kZeros[512] = {};

}  // namespace

int ChunkWrites::Add(int index, std::int64_t address, std::int64_t extent, const TMemory* data) {
  const CHMapEntry& e = store_.At(index);
  const int hdrSize = store_.hdrSize;
  if (data == nullptr || extent - e.slack - hdrSize != data->GetSize()) {
    Debug("chunk", kLineWriteBlock);
    return kErrBadParameter;
  }
  if (data->GetSize() >= kMaxChunkBytes) {
    Debug("chunk", kLineWriteSize);
    return kErrBadParameter;
  }
  const std::int64_t gap = address - end_;
  const std::int64_t end = address + hdrSize + data->GetSize();
  const bool joins =
      chunks_ > 0 && chunks_ < kChunks && gap >= 0 &&
      (gap == 0 || (gap <= std::int64_t{sizeof kZeros} && end_ >= store_.zeroFrom)) &&
      end - start_ <= kBytes;
  if (!joins) {
    if (const int err = Flush()) return err;
    start_ = address;
  } else if (gap > 0) {
    span_[spans_++] = UFileSpan{const_cast<unsigned char*>(kZeros), static_cast<unsigned>(gap)};
  }
  const CHChunkHeader h{
      e.type, e.reserved,  e.id,
      extent, e.slack,     0,
      e.word, e.reserved2, chHashBlock(data->MemPtr(), static_cast<int>(data->GetSize()))};
  unsigned char* bytes = headers_[chunks_++];
  chPutChunkHeader(&h, store_.oldFormat, bytes);
  span_[spans_++] = UFileSpan{bytes, static_cast<unsigned>(hdrSize)};
  span_[spans_++] = UFileSpan{const_cast<unsigned char*>(data->MemPtr()), data->GetSize()};
  end_ = end;
  return 0;
}

int ChunkWrites::Flush() {
  if (chunks_ == 0) return 0;
  const int err = store_.WriteAt(start_, span_, spans_);
  spans_ = chunks_ = 0;
  return err;
}

int ChunkStore::ReadMap() {
  ClearMap();
  if (header.mapSize == 0) {
    mapLoaded = true;
    return 0;
  }
  if (header.mapSize < 0 || header.mapSize > 0x7FFFFFFE) Debug("chunk", kLineMapSize);
  if (header.mapSize < hdrSize || header.mapSize > 0x7FFFFFFE ||
      header.mapAddress < kChunkHeaderSector || header.mapAddress > currentEOF - header.mapSize) {
    DebugLogf(kLogInternalData, "chReadMap: bad map");
    return kErrChunkBadMap;
  }
  const std::int64_t bytes = header.mapSize - hdrSize;
  const int count = static_cast<int>(bytes / EntrySize());
  CHChunkHeader h;
  int err = 0;
  if (!oldFormat) {
    // The entries are read straight into the map block (a partial entry at
    // the end, which the count leaves out, too).
    if ((err = CheckExtent(header.mapAddress, header.mapSize)) != 0) return err;
    if ((err = Reserve(static_cast<int>((bytes + kMapEntrySize - 1) / kMapEntrySize))) != 0) {
      DebugLogf(kLogInternalData, "chReadMap: not enough memory");
      return err;
    }
    if ((err = ReadChunkInto(header.mapAddress, header.mapSize, mapBlock.MemPtr(), &h)) != 0)
      return err;
  } else {
    TMemory raw(1);
    err = ReadChunk(header.mapAddress, header.mapSize, &raw, &h);
    if (err == kErrMemNotObtained)
      DebugLogf(kLogInternalData, "chReadMap: not enough memory for 0100 map");
    if (err != 0) return err;
    if ((err = Reserve(count)) != 0) {
      DebugLogf(kLogInternalData, "chReadMap: not enough memory for converted map");
      return err;
    }
    chGetMapEntries(raw.MemPtr(), count, oldFormat, Map());
  }
  if (h.type != kChunkMapType) {
    DebugLogf(kLogInternalData, "chReadMap: bad map");
    ClearMap();
    return kErrChunkBadMap;
  }
  SetMap(Map(), count);
  // A map is checked before anything uses it: its hash only proves it is the
  // map that was written, not that it is sound.
  if (chMapCheck(Map(), mapCount, &header, hdrSize, nullptr) != 0) {
    ClearMap();
    return kErrChunkMapCheck;
  }
  // The check tells group heads by their place; everything after it tells
  // them by their all-ones address, so a head must carry it.
  std::int64_t inGroup = 0;
  for (int i = 0; i < mapCount; ++i) {
    const CHMapEntry& e = At(i);
    const bool head = inGroup == 0;
    inGroup = head ? static_cast<std::int64_t>(e.id) : inGroup - 1;
    if ((head && e.address == kMapHeadAddress) || (!head && e.type == kChunkFreeType)) continue;
    if (head || e.slack < 0 || e.slack > Extent(i) - hdrSize) {
      DebugLogf(kLogInternalData, "chReadMap: bad map");
      ClearMap();
      return kErrChunkBadMap;
    }
  }
  mapLoaded = true;
  return 0;
}

int ChunkStore::MapLoad() { return mapLoaded ? 0 : ReadMap(); }

int ChunkStore::Open(TFile* f) {
  ClearMap();
  DeleteHandles();
  file = f;
  load = 1;
  dirty = 0;
  readOnly = 0;
  std::uint64_t length = 0;
  int err = f->GetEOF(&length);
  if (err == 0) err = f->SetPosFromBegin(0);
  if (err != 0) {
    DebugLogf(kLogInternalData, "chDoOpen: memory allocation or file access failed, %E", err);
    return err;
  }
  committedEOF = currentEOF = static_cast<std::int64_t>(length);
  TFileLoc loc;
  f->GetFileLoc(&loc);
  unsigned attributes = 0;
  if (loc.GetAttributes(&attributes) == 0) readOnly = attributes & 1;

  if ((err = OpenJournal(f, loc)) != 0) return err;
  if ((err = f->GetEOF(&length)) != 0 || (err = f->SetPosFromBegin(0)) != 0) return err;
  committedEOF = currentEOF = zeroFrom = static_cast<std::int64_t>(length);

  unsigned char bytes[kChunkFileHeaderSize];
  unsigned count = sizeof bytes;
  err = f->Read(&count, bytes);
  if (err == 0 && count < sizeof bytes) err = kErrEndOfFile;
  if (err != 0) {
    if (err == kErrEndOfFile && !readOnly && length == 0) {
      header = CHFileHeader{};
      _initpersist(&header.persist, kChunkFileSignature, kChunkVersion0100, kChunkVersion);
      header.granule = 4;
      header.firstChunk = header.endOfData = kChunkHeaderSector;
      oldFormat = 0;
      hdrSize = kChunkHeaderSize;
      dirty = 1;
      mapLoaded = true;
      return 0;
    }
    DebugLogf(kLogInternalData,
              err == kErrEndOfFile && !readOnly ? "chDoOpen: invalid file, %E"
                                                : "chDoOpen: can't read from file, %E",
              err);
    return err == kErrEndOfFile ? kErrChunkInvalidFile : err;
  }
  std::memcpy(&header, bytes, sizeof header);
  if (_checkpersist(&header.persist, kChunkFileSignature, kChunkVersion0100, kChunkVersion) != 0) {
    DebugLogf(kLogInternalData, "chDoOpen: invalid file, %E", kErrEndOfFile);
    return kErrChunkInvalidFile;
  }
  // A granule must divide the sector (so it also fits every move buffer),
  // and the addresses must lie in the file, before anything divides or
  // seeks by them.
  const std::int64_t g = header.granule;
  if (g <= 0 || kChunkHeaderSector % g != 0 || header.firstChunk < kChunkHeaderSector ||
      header.endOfData < header.firstChunk || header.endOfData > currentEOF) {
    DebugLogf(kLogInternalData, "chDoOpen: invalid file, %E", kErrInvalidData);
    return kErrChunkInvalidFile;
  }
  oldFormat = header.persist.version == kChunkVersion0100;
  hdrSize = oldFormat ? kChunkHeaderSize0100 : kChunkHeaderSize;
  if (header.saveMarker != 0) {
    DebugLogf(kLogInternalData, "chDoOpen: file was not fully saved");
    return kErrChunkNotSaved;
  }
  return ReadMap();
}

void ChunkStore::Close() {
  if (file != nullptr && !readOnly) {
    std::uint64_t length = 0;
    if (file->GetEOF(&length) == 0 && static_cast<std::int64_t>(length) != committedEOF)
      file->SetEOF(static_cast<std::uint64_t>(committedEOF));
  }
  DeleteHandles();
  ClearMap();
  delete owned;
  owned = nullptr;
  file = nullptr;
}

int ChunkStore::Lookup(int type, int id, const char* member, bool logMissing, int* index) {
  if (type == 0 || type == -1) {
    DebugLogf(kLogMisuse, "%s: invalid type %Y", member, static_cast<std::uint32_t>(type));
    return kErrChunkDuplicate;
  }
  if (file == nullptr) return kErrChunkInvalidFile;
  if (const int err = MapLoad()) return err;
  *index = Find(static_cast<std::uint32_t>(type), Widen(id), nullptr);
  if (*index >= 0) return 0;
  if (logMissing) DebugLogf(kLogMisuse, "%s: can't find type/id", member);
  return kErrChunkNotFound;
}

// ---- Members ----

ChunkManager::ChunkManager() : impl_(new ChunkStore) {}

ChunkManager::ChunkManager(TFile* file) : impl_(new ChunkStore) { CHOpenRef(file); }

ChunkManager::ChunkManager(TFileLoc* loc, int mode) : impl_(new ChunkStore) { CHOpen(loc, mode); }

ChunkManager::~ChunkManager() {
  CHClose();
  delete impl_;
}

int ChunkManager::CHOpen(TFileLoc* loc, int mode) {
  CHClose();
  auto* f = new (std::nothrow) TFile;
  if (f == nullptr) return kErrMemNotObtained;
  int err = f->Open(loc, mode);
  if (err == 0 && !f->IsValid()) err = kErrChunkInvalidFile;
  if (err == 0) err = CHOpenRef(f);
  if (err != 0) {
    delete f;
    return err;
  }
  impl_->owned = f;
  return 0;
}

int ChunkManager::CHOpenRef(TFile* f) {
  if (f == nullptr) return kErrBadParameter;
  if (impl_->file != nullptr && impl_->file != f) CHClose();
  const int err = impl_->Open(f);
  if (err != 0) impl_->Close();
  return err;
}

int ChunkManager::CHClose() {
  impl_->Close();
  return 0;
}

int ChunkManager::CHSave() { return impl_->Save(false, "CHSave"); }

int ChunkManager::CHQuickSave() { return impl_->Save(true, "CHQuickSave"); }

int ChunkManager::CHRevert() {
  ChunkStore& m = *impl_;
  if (m.file == nullptr) return kErrChunkInvalidFile;
  if (!m.readOnly && m.currentEOF != m.committedEOF)
    m.file->SetEOF(static_cast<std::uint64_t>(m.committedEOF));
  m.DeleteHandles();
  m.ClearMap();
  const int err = m.Open(m.file);
  if (err != 0) m.Close();
  return err;
}

int ChunkManager::CHVerify() {
  ChunkStore& m = *impl_;
  if (m.file == nullptr) return kErrChunkInvalidFile;
  if (const int err = m.MapLoad()) return err;
  std::vector<const TMemory*> held(static_cast<std::size_t>(m.mapCount), nullptr);
  for (int i = 0; i < m.mapCount; ++i)
    if (const int s = m.slots[static_cast<std::size_t>(i)]) held[i] = m.handles[s].handle;
  return chMapCheck(m.Map(), m.mapCount, &m.header, m.hdrSize, held.data()) ? kErrChunkMapCheck : 0;
}

TFile* ChunkManager::CHRefnum() { return impl_->file; }

int ChunkManager::CHSetLoad(int on) {
  const int old = impl_->load;
  impl_->load = on;
  return old;
}

int ChunkManager::CHGetChunkHdrSize() { return impl_->hdrSize; }

int ChunkManager::CHCountTypes() {
  ChunkStore& m = *impl_;
  if (m.file == nullptr || m.MapLoad() != 0) return 0;
  int n = 0;
  for (int i = 0; i < m.mapCount; i += 1 + static_cast<int>(m.At(i).id))
    if (m.At(i).type != kChunkFreeType) ++n;
  return n;
}

int ChunkManager::CHEnumType(int n) {
  ChunkStore& m = *impl_;
  if (n < 1 || m.file == nullptr || m.MapLoad() != 0) return 0;
  for (int i = 0; i < m.mapCount; i += 1 + static_cast<int>(m.At(i).id))
    if (m.At(i).type != kChunkFreeType && --n == 0) return static_cast<int>(m.At(i).type);
  return 0;
}

int ChunkManager::CHCountChunks(int type) {
  ChunkStore& m = *impl_;
  if (type == 0 || type == -1 || m.file == nullptr || m.MapLoad() != 0) return 0;
  const int head = m.FindGroup(static_cast<std::uint32_t>(type));
  return head < 0 ? 0 : static_cast<int>(m.At(head).id);
}

int ChunkManager::CHEnumChunk(int type, int n) {
  ChunkStore& m = *impl_;
  if (n < 0 || type == 0 || type == -1 || m.file == nullptr || m.MapLoad() != 0) return 0;
  const int head = m.FindGroup(static_cast<std::uint32_t>(type));
  if (head < 0) return 0;
  const auto count = static_cast<int>(m.At(head).id);
  if (n == 0) return count;
  return n > count ? 0 : static_cast<int>(m.At(head + n).id);
}

int ChunkManager::CHUniqueID(int type, int id) {
  ChunkStore& m = *impl_;
  if (type == 0 || type == -1 || m.file == nullptr || m.MapLoad() != 0) return 0;
  int at = 0;
  const int head = m.FindGroup(static_cast<std::uint32_t>(type));
  if (head < 0) return id;
  m.Find(static_cast<std::uint32_t>(type), Widen(id), &at);
  const int end = head + 1 + static_cast<int>(m.At(head).id);
  int candidate = id;
  for (; at < end && m.At(at).id == Widen(candidate); ++at) {
    // Stepping past INT_MAX (or past -1) would name an id below the one asked for.
    if (candidate == INT_MAX || candidate == -1) {
      DebugLogf(kLogMisuse, "CHUniqueID: no free id at or above %d", id);
      return 0;
    }
    ++candidate;
  }
  return candidate;
}

std::int64_t ChunkManager::CHChunkSize(int type, int id) {
  ChunkStore& m = *impl_;
  int i = 0;
  if (const int err = m.Lookup(type, id, "CHChunkSize", true, &i)) return err;
  return m.Extent(i) - m.At(i).slack - m.hdrSize;
}

int ChunkManager::CHPhysInfo(int type, int id, std::int64_t* offset, std::int64_t* size) {
  ChunkStore& m = *impl_;
  int i = 0;
  if (const int err = m.Lookup(type, id, "CHPhysInfo", true, &i)) return err;
  if (m.At(i).flags & kMapEntryDirty) {
    DebugLogf(kLogMisuse, "CHPhysInfo: chunk is dirty");
    return kErrChunkDirty;
  }
  if (offset) *offset = m.At(i).address + m.hdrSize;
  if (size) *size = m.Extent(i) - m.At(i).slack - m.hdrSize;
  return 0;
}

int ChunkManager::CHGetChunk(int type, int id, TMemory** h) {
  ChunkStore& m = *impl_;
  if (h == nullptr) return kErrBadParameter;
  *h = nullptr;
  int i = 0;
  if (const int err = m.Lookup(type, id, "CHGetChunk", false, &i)) return err;
  if (const int slot = m.slots[static_cast<std::size_t>(i)]) {
    TMemory* held = m.handles[static_cast<std::size_t>(slot)].handle;
    const int err = m.load ? CHLoadChunk(held) : 0;
    *h = held;
    return err;
  }
  auto* block = new (std::nothrow) TMemory(1);
  if (block == nullptr) {
    DebugLogf(kLogInternalData, "chDoGetChunk: not enough memory, %E", kErrMemNotObtained);
    return kErrMemNotObtained;
  }
  int err = 0;
  if (m.load) {
    err = m.ReadChunk(m.At(i).address, m.Extent(i) - m.At(i).slack, block, nullptr);
    if (err == kErrMemNotObtained)
      DebugLogf(kLogInternalData, "chDoGetChunk: not enough memory, %E", err);
  }
  if (err == 0) err = m.Register(block, i);
  if (err == 0) {
    err = MemUncomp(block);
    if (err != 0) m.Unregister(m.SlotOf(block));
  }
  if (err != 0) {
    delete block;
    return err;
  }
  *h = block;
  return 0;
}

int ChunkManager::CHLoadChunk(TMemory* h) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHLoadChunk", true);
  if (slot == 0) return kErrChunkNotFound;
  if (h->GetSize() > 0) return 0;
  const int i = m.handles[static_cast<std::size_t>(slot)].index;
  if (m.At(i).flags & kMapEntryDirty) {
    // The contents of a dirty chunk are its handle's; its extent was never written.
    DebugLogf(kLogDetail, "CHLoadChunk: chunk is dirty, its handle holds its contents");
    return 0;
  }
  if (const int err = m.ReadChunk(m.At(i).address, m.Extent(i) - m.At(i).slack, h, nullptr))
    return err;
  return MemUncomp(h);
}

int ChunkStore::StoreNow(int index, TMemory* h) {
  dirty = 1;
  At(index).flags |= kMapEntryAllocating;
  const std::int64_t bytes = static_cast<std::int64_t>(h->GetSize()) + hdrSize;
  if (const int err = Allocate(index, bytes, true)) return err;
  if (const int err = WriteChunk(index, At(index).address, Extent(index), h)) return err;
  At(index).flags &= ~kMapEntryDirty;
  return 0;
}

int ChunkManager::CHDetachChunk(TMemory* h) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHDetachChunk", true);
  if (slot == 0) return kErrChunkNotFound;
  const int i = m.handles[static_cast<std::size_t>(slot)].index;
  if (m.At(i).flags & kMapEntryDirty) {
    // Without its handle a dirty chunk's contents would be lost: they go into
    // the file first.
    if (const int err = m.StoreNow(i, h)) {
      DebugLogf(kLogInternalData, "CHDetachChunk: can't store dirty chunk, %E", err);
      return err;
    }
    DebugLogf(kLogDetail, "CHDetachChunk: stored dirty chunk before detaching");
  }
  m.Unregister(slot);
  return 0;
}

int ChunkManager::CHGetInfo(TMemory* h, int* type, int* id) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHGetInfo", true);
  if (slot == 0) return kErrChunkNotFound;
  const CHMapEntry& e = m.At(m.handles[static_cast<std::size_t>(slot)].index);
  if (type) *type = static_cast<int>(e.type);
  if (id) *id = static_cast<int>(e.id);
  return 0;
}

int ChunkManager::CHSetInfo(TMemory* h, int type, int id) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHSetInfo", false);
  if (slot == 0) return kErrChunkNotFound;
  const CHMapEntry old = m.At(m.handles[static_cast<std::size_t>(slot)].index);
  if (old.type == static_cast<std::uint32_t>(type) && old.id == Widen(id)) return 0;
  if (type <= 0) {
    DebugLogf(kLogMisuse, "CHSetInfo: can't set negative type, %Y",
              static_cast<std::uint32_t>(type));
    return kErrChunkDuplicate;
  }
  int added = 0;
  if (const int err = m.MapInsert(static_cast<std::uint32_t>(type), Widen(id), &added)) return err;
  m.SetAddress(added, old.address);
  CHMapEntry& e = m.At(added);
  e.slack = old.slack;
  e.flags = old.flags;
  e.word = old.word;
  const int was = m.handles[static_cast<std::size_t>(slot)].index;
  m.slots[static_cast<std::size_t>(was)] = 0;
  m.slots[static_cast<std::size_t>(added)] = slot;
  m.handles[static_cast<std::size_t>(slot)].index = added;
  m.SetAddress(was, 0);
  m.MapDelete(was);
  m.dirty = 1;
  return 0;
}

int ChunkManager::CHAddChunk(TMemory* h, int type, int id) {
  ChunkStore& m = *impl_;
  const int size = h ? static_cast<int>(h->GetSize()) : 0;
  if (size < 0) {
    DebugLogf(kLogMisuse, "CHAddChunk: invalid handle size, %~d", size);
    return size;
  }
  if (h == nullptr || type <= 0 || m.SlotOf(h) != 0) {
    DebugLogf(kLogMisuse, "CHAddChunk: invalid type %Y or handle already refers to a chunk",
              static_cast<std::uint32_t>(type));
    return kErrChunkDuplicate;
  }
  if (m.file == nullptr) return kErrChunkInvalidFile;
  if (const int err = m.MapLoad()) return err;
  int i = 0;
  if (const int err = m.MapInsert(static_cast<std::uint32_t>(type), Widen(id), &i)) return err;
  int err = m.Register(h, i);
  if (err == 0 && (err = m.Allocate(i, static_cast<std::int64_t>(size) + m.hdrSize, false)) != 0)
    m.Unregister(m.SlotOf(h));
  if (err != 0) {
    m.SetAddress(i, 0);
    m.MapDelete(i);
    return err;
  }
  m.dirty = 1;
  return 0;
}

int ChunkManager::CHRemoveChunk(TMemory* h) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHRemoveChunk", false);
  if (slot == 0) return kErrChunkNotRegistered;
  if (const int err = m.Reserve(m.mapCount + 2)) return err;
  const int i = m.handles[static_cast<std::size_t>(slot)].index;
  m.Deallocate(i);
  m.Unregister(slot);
  m.MapDelete(i);
  m.dirty = 1;
  return 0;
}

int ChunkManager::CHChangedChunk(TMemory* h) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHChangedChunk", false);
  if (slot == 0) return kErrChunkNotFound;
  m.dirty = 1;
  const int i = m.handles[static_cast<std::size_t>(slot)].index;
  const std::int64_t bytes = static_cast<std::int64_t>(h->GetSize()) + m.hdrSize;
  CHMapEntry& e = m.At(i);
  if (e.address != 0 && bytes == m.Extent(i) - e.slack) {
    e.flags |= kMapEntryDirty;
    return 0;
  }
  e.flags |= kMapEntryAllocating;
  return m.Allocate(i, bytes, false);
}

int ChunkManager::CHStoreChunk(TMemory* h) {
  ChunkStore& m = *impl_;
  const int slot = m.Registered(h, "CHStoreChunk", false);
  if (slot == 0) return kErrChunkNotFound;
  return m.StoreNow(m.handles[static_cast<std::size_t>(slot)].index, h);
}

int ChunkManager::CHDuplicate(int type, int id, int newId) {
  ChunkStore& m = *impl_;
  int source = 0;
  if (const int err = m.Lookup(type, id, "CHDuplicateChunk", true, &source)) return err;
  const auto t = static_cast<std::uint32_t>(type);
  const std::int64_t used = m.Extent(source) - m.At(source).slack;
  int copy = 0;
  if (const int err = m.MapInsert(t, Widen(newId), &copy)) return err;
  source = m.Find(t, Widen(id), nullptr);
  const CHMapEntry from = m.At(source);
  const TMemory* held =
      m.slots[static_cast<std::size_t>(source)]
          ? m.handles[static_cast<std::size_t>(m.slots[static_cast<std::size_t>(source)])].handle
          : nullptr;
  CHMapEntry& e = m.At(copy);
  e.reserved = from.reserved;
  e.word = from.word;
  e.reserved2 = from.reserved2;
  int err = m.Allocate(copy, used, true);
  if (err == 0 && (from.flags & kMapEntryDirty) && held != nullptr) {
    // The source's contents are only in its handle.
    DebugLogf(kLogDetail, "CHDuplicateChunk: source is dirty, copying its handle");
    err = m.WriteChunk(copy, m.At(copy).address, m.Extent(copy), held);
  } else if (err == 0) {
    TMemory buffer(1);
    const unsigned piece = m.MoveBuffer(&buffer);
    err = piece == 0 ? buffer.CheckError()
                     : m.MoveBytes(from.address, m.At(copy).address, used, &buffer, piece);
  }
  if (err != 0) {
    m.Deallocate(copy);
    m.MapDelete(copy);
    return err;
  }
  m.At(copy).flags &= ~kMapEntryDirty;
  m.dirty = 1;
  return 0;
}

int ChunkManager::CHTruncate(TFile* dest) { return impl_->Copy(dest, false, "CHTruncate"); }

int ChunkManager::CHAppend(TFile* dest) { return impl_->Copy(dest, true, "CHAppend"); }

int ChunkManager::CHCountEntries() {
  ChunkStore& m = *impl_;
  if (m.file == nullptr || m.MapLoad() != 0) return 0;
  return m.mapCount;
}

int ChunkManager::CHGetEntry(int n, CHEntryInfo* info) {
  ChunkStore& m = *impl_;
  if (m.file == nullptr) return kErrChunkInvalidFile;
  if (const int err = m.MapLoad()) return err;
  if (info == nullptr || n < 0 || n >= m.mapCount) return kErrChunkNotFound;
  info->entry = m.At(n);
  info->head = m.At(n).address == kMapHeadAddress;
  info->extent = m.Extent(n);
  const int slot = m.slots[static_cast<std::size_t>(n)];
  info->handle = slot ? m.handles[static_cast<std::size_t>(slot)].handle : nullptr;
  return 0;
}

int ChunkManager::CHGetFileHeader(CHFileHeader* header) {
  if (impl_->file == nullptr) return kErrChunkInvalidFile;
  if (header) *header = impl_->header;
  return 0;
}
