// qn salvage: rebuilds a readable chunk file from a damaged one.
//
// The file is read once, front to back, through a window of at most 16 MB
// (a chunk larger than the window is read by itself). At every granule from
// the first chunk on, a chunk header is looked for: a type that is neither 0
// nor free space, flags 0, a data hash, its zero bytes zero and a size that
// fits the file. A header whose data matches its hash is a chunk found; the
// scan goes on after its extent. The file's own map, when its header and map
// chunk are intact, decides which chunks belong to the file (copies of
// chunks it does not list are stale and skipped) and which copy of a chunk is
// current (the one at the address it gives); without it the copy found last
// (highest address) is kept. Each kept chunk is written into OUT, a new chunk
// file, as soon as it is found, so that memory grows with the number of
// chunks, not with their bytes. Lost: chunks the map lists, and chunks whose
// header was found with damaged data, of which no intact copy was found.
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "quarnel/chunk/chunkfile.h"
#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/fileapi.h"
#include "tools/qn/qn.h"

namespace qn {
namespace {

using Key = std::pair<unsigned, std::uint64_t>;

constexpr std::int64_t kWindow = 16 << 20;

bool Zero(const unsigned char* p, int n) {
  for (int i = 0; i < n; ++i)
    if (p[i] != 0) return false;
  return true;
}

// The file, read front to back through a window.
class Reader {
 public:
  Reader(TFile* file, std::int64_t length) : file_(file), length_(length) {}
  int Init() { return buffer_.SetSize(static_cast<unsigned>(kWindow)); }
  // The bytes [from, from + n) (n at most kWindow, from at or above every
  // earlier `from`), or null when they lie beyond the file or cannot be read.
  const unsigned char* At(std::int64_t from, std::int64_t n) {
    if (from + n > length_) return nullptr;
    if (from < base_ || from + n > base_ + have_) {
      if (from >= base_ && from < base_ + have_) {
        const std::int64_t keep = base_ + have_ - from;
        std::memmove(buffer_.MemPtr(), buffer_.MemPtr() + (from - base_),
                     static_cast<std::size_t>(keep));
        have_ = keep;
      } else {
        have_ = 0;
      }
      base_ = from;
      unsigned count = static_cast<unsigned>(std::min(kWindow - have_, length_ - base_ - have_));
      if (file_->SetPosFromBegin(static_cast<std::uint64_t>(base_ + have_)) != 0 ||
          file_->Read(&count, buffer_.MemPtr() + have_) != 0)
        return nullptr;
      have_ += count;
      if (from + n > base_ + have_) return nullptr;
    }
    return buffer_.MemPtr() + (from - base_);
  }

 private:
  TFile* file_;
  std::int64_t length_;
  TMemory buffer_;
  std::int64_t base_ = 0;
  std::int64_t have_ = 0;
};

struct Found {
  std::int64_t address;
  bool mapped;  // at the address the map gives
};

// The output store: each chunk written as it comes, its handle given back.
class Output {
 public:
  int Open(const std::string& path) {
    int err = LocOf(path, &loc_);
    if (err == 0) err = file_.Create(&loc_, kModeRead | kModeWrite);
    if (err == 0) err = m_.CHOpenRef(&file_);
    m_.CHSetLoad(0);
    return err;
  }
  int Put(unsigned type, std::uint64_t id, const unsigned char* data, std::int64_t size,
          bool replace) {
    TMemory* h = nullptr;
    int err = 0;
    if (replace) {
      err = m_.CHGetChunk(static_cast<int>(type), static_cast<int>(id), &h);
    } else {
      h = new TMemory;
    }
    if (err == 0) err = h->SetSize(static_cast<unsigned>(size));
    if (err == 0 && size > 0) std::memcpy(h->MemPtr(), data, static_cast<std::size_t>(size));
    if (err == 0 && !replace &&
        (err = m_.CHAddChunk(h, static_cast<int>(type), static_cast<int>(id))) != 0) {
      delete h;
      return err;
    }
    if (err == 0) err = m_.CHStoreChunk(h);
    if (err == 0 && (err = m_.CHDetachChunk(h)) == 0) delete h;
    return err;
  }
  int Save() { return m_.CHSave(); }

 private:
  TFileLoc loc_;
  TFile file_;
  ChunkManager m_;
};

}  // namespace

int Salvage(const Words& args) {
  static const char usage[] =
      "usage: qn salvage FILE OUT   rebuilds a chunk file from a damaged FILE into the new\n"
      "  file OUT (replaced when it exists): every chunk whose data still matches its hash,\n"
      "  the current copy of each; reports what was recovered and what was lost (exit 1\n"
      "  when something was lost or the map was unreadable, so that what was lost cannot\n"
      "  be told)\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 2, 2, &cmd, &status)) return status;
  const std::string& path = cmd.words[0];
  TFileLoc loc;
  TFile file;
  std::uint64_t fileLength = 0;
  int err = LocOf(path, &loc);
  if (err == 0) err = file.Open(&loc, kModeRead);
  if (err == 0) err = file.GetEOF(&fileLength);
  if (err != 0) return Fail(path, err);
  const auto length = static_cast<std::int64_t>(fileLength);

  // What the header and the map still tell.
  CHFileHeader h{};
  unsigned count = sizeof h;
  const bool headerOk =
      file.Read(&count, reinterpret_cast<unsigned char*>(&h)) == 0 && count == sizeof h &&
      h.persist.signature == kChunkFileSignature &&
      (h.persist.version == kChunkVersion || h.persist.version == kChunkVersion0100) &&
      h.granule > 0 && kChunkHeaderSector % h.granule == 0;
  std::vector<int> layouts = {0, 1};  // the 0x0100 layout (1) too when the header is gone
  if (headerOk) layouts = {h.persist.version == kChunkVersion0100 ? 1 : 0};
  const int granule = headerOk ? h.granule : 4;
  const std::int64_t start =
      headerOk && h.firstChunk >= kChunkHeaderSector && h.firstChunk % granule == 0
          ? h.firstChunk
          : kChunkHeaderSector;
  std::map<Key, std::int64_t> mapped;
  bool mapOk = false;
  if (headerOk && h.mapSize > 0 && h.mapAddress >= kChunkHeaderSector && h.mapSize <= 0x7FFFFFFE &&
      h.mapAddress + h.mapSize <= length) {
    TMemory m;
    count = static_cast<unsigned>(h.mapSize);
    const int old = layouts[0];
    const int hdr = old ? kChunkHeaderSize0100 : kChunkHeaderSize;
    const int entrySize = old ? kMapEntrySize0100 : kMapEntrySize;
    CHChunkHeader mh{};
    if (count >= static_cast<unsigned>(hdr) && m.SetSize(count) == 0 &&
        file.SetPosFromBegin(static_cast<std::uint64_t>(h.mapAddress)) == 0 &&
        file.Read(&count, m.MemPtr()) == 0 && count == h.mapSize) {
      chGetChunkHeader(m.MemPtr(), old, &mh);
      const int bytes = static_cast<int>(h.mapSize) - hdr;
      if (mh.type == kChunkMapType &&
          (mh.hash == 0 || mh.hash == chHashBlock(m.MemPtr() + hdr, bytes))) {
        std::vector<CHMapEntry> entries(static_cast<std::size_t>(bytes / entrySize));
        chGetMapEntries(m.MemPtr() + hdr, static_cast<int>(entries.size()), old, entries.data());
        for (const CHMapEntry& e : entries)
          if (e.address != kMapHeadAddress && e.type != kChunkFreeType)
            mapped[{e.type, e.id}] = e.address;
        mapOk = true;
      }
    }
  }

  TFileLoc outLoc;
  if (LocOf(cmd.words[1], &outLoc) == 0 && outLoc == loc)
    return Say("salvage: OUT must be another file than FILE", kExitUsage);
  Output out;
  if ((err = out.Open(cmd.words[1])) != 0) return Fail(cmd.words[1], err);
  Reader reader(&file, length);
  if ((err = reader.Init()) != 0) return Fail(path, err);
  std::map<Key, Found> kept;
  std::set<Key> damaged;
  std::int64_t copies = 0, stale = 0, unnamed = 0;
  TMemory big;
  Progress progress("salvage", static_cast<std::uint64_t>(length));
  for (std::int64_t p = start; p + kChunkHeaderSize0100 <= length;) {
    progress.Step(static_cast<std::uint64_t>(p));
    std::int64_t next = p + granule;
    for (const int old : layouts) {
      const int hdr = old ? kChunkHeaderSize0100 : kChunkHeaderSize;
      const unsigned char* at = reader.At(p, hdr);
      if (!at) continue;
      CHChunkHeader ch{};
      chGetChunkHeader(at, old, &ch);
      const bool zeros = old ? Zero(at + 36, 8) && Zero(at + 48, 8) : Zero(at + 52, 12);
      if (ch.type == 0 || ch.type == kChunkFreeType || ch.flags != 0 || ch.hash == 0 || !zeros ||
          ch.size < 0 || ch.slack < 0)
        continue;
      const bool isMap = ch.type == kChunkMapType;
      const std::int64_t dataSize = isMap ? ch.size : ch.size - ch.slack - hdr;
      if (dataSize < 0 || dataSize > 0x7FFFFFFE - hdr || p + hdr + dataSize > length) continue;
      const unsigned char* data = nullptr;
      if (hdr + dataSize <= kWindow) {
        const unsigned char* whole = reader.At(p, hdr + dataSize);
        if (whole) data = whole + hdr;
      } else if (big.SetSize(static_cast<unsigned>(dataSize)) == 0) {
        // Larger than the window: read by itself.
        unsigned n = static_cast<unsigned>(dataSize);
        if (file.SetPosFromBegin(static_cast<std::uint64_t>(p + hdr)) == 0 &&
            file.Read(&n, big.MemPtr()) == 0 && n == dataSize)
          data = big.MemPtr();
      }
      if (!data) continue;
      const Key key{ch.type, ch.id};
      if (chHashBlock(data, static_cast<int>(dataSize)) != ch.hash) {
        if (!isMap) damaged.insert(key);
        continue;
      }
      const std::int64_t extent = isMap ? hdr + ch.size : ch.size;
      next = p + std::max<std::int64_t>(granule, (extent + granule - 1) / granule * granule);
      if (isMap) break;
      ++copies;
      const auto inMap = mapped.find(key);
      if (mapOk && inMap == mapped.end()) {
        ++stale;
        break;
      }
      if (static_cast<std::int64_t>(ch.id) != static_cast<int>(ch.id) ||
          static_cast<int>(ch.type) <= 0) {
        ++unnamed;  // ids and types the interface cannot name
        break;
      }
      const bool atMapped = mapOk && inMap->second == p;
      const auto have = kept.find(key);
      if (have != kept.end() && have->second.mapped) break;
      if ((err = out.Put(ch.type, ch.id, data, dataSize, have != kept.end())) != 0)
        return Fail(cmd.words[1], err);
      kept[key] = {p, atMapped};
      break;
    }
    p = next;
  }
  progress.Clear();
  if ((err = out.Save()) != 0) return Fail(cmd.words[1], err);

  std::vector<Key> lost;
  for (const auto& [key, address] : mapped)
    if (!kept.count(key)) lost.push_back(key);
  for (const Key& key : damaged)
    if (!mapOk && !kept.count(key)) lost.push_back(key);
  std::printf(
      "header: %s; map: %s\n", headerOk ? "intact" : "damaged",
      mapOk ? ("intact, " + std::to_string(mapped.size()) + " chunks").c_str() : "unreadable");
  std::printf("found %lld intact chunk copies", static_cast<long long>(copies));
  if (stale) std::printf(", %lld not in the map (stale, skipped)", static_cast<long long>(stale));
  if (unnamed)
    std::printf(", %lld with a type or id out of range", static_cast<long long>(unnamed));
  std::printf("\nrecovered %zu chunks into %s\n", kept.size(), cmd.words[1].c_str());
  for (const Key& key : lost)
    std::printf("lost %s %lld\n", TypeText(key.first).c_str(), static_cast<long long>(key.second));
  if (!lost.empty()) std::printf("chunks lost: %zu\n", lost.size());
  return lost.empty() && mapOk ? kExitOk : kExitDamaged;
}

}  // namespace qn
