// qn: the commands on chunk files (info, ls, verify, cat, put, rm, compact).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quarnel/chunk/chunkfile.h"
#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tools/qn/qn.h"

namespace qn {
namespace {

// One chunk file opened through ChunkManager.
struct Store {
  TFileLoc loc;
  TFile file;
  ChunkManager m;
  ~Store() { m.CHClose(); }
  // Opens for reading, or for writing (`create`: a missing file becomes a new
  // store). A journal left by an interrupted save is refused when reading:
  // opening would roll it back, which needs writing.
  int Open(const std::string& path, bool write, bool create) {
    int err = LocOf(path, &loc);
    if (err != 0) return err;
    if (!write) {
      CHJournalInfo info{};
      if (chJournalQuery(&loc, &info) == 0 && info.state != 0) return kErrChunkNotSaved;
    }
    err = file.Open(&loc, write ? kModeRead | kModeWrite : kModeRead);
    if (err == kErrFileNotFound && create) err = file.Create(&loc, kModeRead | kModeWrite);
    // An empty file becomes a new store only where one is being made.
    std::uint64_t length = 0;
    if (err == 0 && !create && file.GetEOF(&length) == 0 && length == 0) err = kErrChunkInvalidFile;
    // A map size no chunk can have is refused here: the store treats it as
    // its caller's mistake (an assertion), not as a damaged file.
    CHFileHeader h{};
    unsigned count = sizeof h;
    if (err == 0 && file.Read(&count, reinterpret_cast<unsigned char*>(&h)) == 0 &&
        count == sizeof h && h.persist.signature == kChunkFileSignature &&
        (h.mapSize < 0 || h.mapSize > 0x7FFFFFFE)) {
      Note("the header claims a map of " + std::to_string(h.mapSize) + " bytes");
      err = kErrChunkBadMap;
    }
    if (err == 0) err = file.SetPosFromBegin(0);
    if (err == 0) err = m.CHOpenRef(&file);
    return err;
  }
};

struct Chunk {
  unsigned type;
  std::int64_t id;
  std::int64_t address;
  std::int64_t size;  // data bytes
  std::int64_t used;  // header + data
};

// The chunks in map order, and the free space.
std::vector<Chunk> Chunks(ChunkManager* m, std::int64_t* freeBytes, int* freeExtents) {
  std::vector<Chunk> out;
  *freeBytes = 0;
  *freeExtents = 0;
  const int hdr = m->CHGetChunkHdrSize();
  for (int n = 0; n < m->CHCountEntries(); ++n) {
    CHEntryInfo e{};
    if (m->CHGetEntry(n, &e) != 0 || e.head) continue;
    if (e.entry.type == kChunkFreeType) {
      *freeBytes += e.extent;
      ++*freeExtents;
      continue;
    }
    out.push_back({e.entry.type, static_cast<std::int64_t>(e.entry.id), e.entry.address,
                   e.extent - e.entry.slack - hdr, e.extent - e.entry.slack});
  }
  return out;
}

bool IsPacked(TFile* file, const Chunk& c, int hdr) {
  unsigned char magic[4];
  unsigned count = 4;
  return c.size >= 4 && file->SetPosFromBegin(c.address + hdr) == 0 &&
         file->Read(&count, magic) == 0 && count == 4 && std::memcmp(magic, "QnQy", 4) == 0;
}

// A chunk file that refuses to open is damaged (1); any other failure is 2.
int OpenFailure(const std::string& path, int err) {
  if (err < kErrChunkFirst && err >= kErrChunkLast) {
    Fail(path, err);
    if (err == kErrChunkNotSaved)
      Say("an interrupted save: qn verify --recover rolls a journal back, qn salvage rebuilds", 0);
    return kExitDamaged;
  }
  return Fail(path, err);
}

bool ParseKey(const Command& cmd, unsigned* type, int* id, int* status) {
  long long v = 0;
  if (!ParseType(cmd.words[1], type)) {
    *status =
        Say("not a chunk type: " + cmd.words[1] + " (four characters or a number)", kExitUsage);
    return false;
  }
  if (!ParseInt(cmd.words[2], &v) || v < -0x80000000LL || v > 0x7FFFFFFF) {
    *status = Say("not a chunk id: " + cmd.words[2], kExitUsage);
    return false;
  }
  *id = static_cast<int>(v);
  return true;
}

std::string Key(unsigned type, long long id) { return TypeText(type) + " " + std::to_string(id); }

std::string Json(const std::string& s) {
  std::string out = "\"";
  for (const unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char u[8];
      std::snprintf(u, sizeof u, "\\u%04x", c);
      out += u;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

int InfoChunkFile(const std::string& path, const CHFileHeader& h, std::uint64_t length) {
  std::printf("%s: chunk file, format 0x%04X\n", path.c_str(),
              static_cast<unsigned short>(h.persist.version));
  std::printf("  map %lld bytes at %lld, end of data %lld, granule %d, file %llu bytes\n",
              static_cast<long long>(h.mapSize), static_cast<long long>(h.mapAddress),
              static_cast<long long>(h.endOfData), h.granule,
              static_cast<unsigned long long>(length));
  TFileLoc loc;
  CHJournalInfo journal{};
  if (LocOf(path, &loc) == 0 && chJournalQuery(&loc, &journal) == 0 && journal.state != 0)
    std::printf("  journal: %s, %lld records: a save was interrupted (qn verify --recover)\n",
                journal.state == 1 ? "complete" : "incomplete",
                static_cast<long long>(journal.records));
  if (h.saveMarker != 0) {
    std::printf("  save marker 'Bad!': the file was not fully saved\n");
    return kExitDamaged;
  }
  if (journal.state != 0) return kExitDamaged;
  Store s;
  if (const int err = s.Open(path, false, false)) return OpenFailure(path, err);
  std::int64_t freeBytes = 0;
  int freeExtents = 0;
  const std::vector<Chunk> chunks = Chunks(&s.m, &freeBytes, &freeExtents);
  std::printf("  %zu chunks in %d types, free %lld bytes in %d extents\n", chunks.size(),
              s.m.CHCountTypes(), static_cast<long long>(freeBytes), freeExtents);
  return kExitOk;
}

}  // namespace

int Info(const Words& args) {
  static const char usage[] =
      "usage: qn info FILE    what the file is (chunk file, packed block, persisted record,\n"
      "                       resource module, profile file) and its headline facts\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 1, 1, &cmd, &status)) return status;
  const std::string& path = cmd.words[0];
  TFileLoc loc;
  TFile file;
  std::uint64_t length = 0;
  int err = LocOf(path, &loc);
  if (err == 0) err = file.Open(&loc, kModeRead);
  if (err == 0) err = file.GetEOF(&length);
  if (err != 0) return Fail(path, err);
  unsigned char head[512] = {};
  unsigned count = sizeof head;
  if (length == 0) {
    std::printf("%s: empty file\n", path.c_str());
    return kExitDamaged;
  }
  if ((err = file.Read(&count, head)) != 0) return Fail(path, err);
  file.Close();
  PersistHeader persist;
  std::memcpy(&persist, head, sizeof persist);
  if (count >= kChunkFileHeaderSize && persist.signature == kChunkFileSignature) {
    CHFileHeader h;
    std::memcpy(&h, head, sizeof h);
    return InfoChunkFile(path, h, length);
  }
  if (count >= 8 && std::memcmp(head, "QnQy", 4) == 0) {
    const int n =
        static_cast<int>((unsigned{head[4]} << 24) | (head[5] << 16) | (head[6] << 8) | head[7]);
    std::printf("%s: packed block, %lld bytes unpacked, %llu packed\n", path.c_str(),
                n < 0 ? -static_cast<long long>(n) : n, static_cast<unsigned long long>(length));
    return kExitOk;
  }
  if (count >= 4 && std::memcmp(head,
                                "\x7F"
                                "ELF",
                                4) == 0) {
    TString name = TString::FromUtf8(path.find('/') == std::string::npos ? "./" + path : path);
    const bool resources = DLCheckLib(&name) == 0;
    std::printf(
        "%s: %s\n", path.c_str(),
        resources ? "resource module (qn res lists it)" : "shared object without resources");
    return resources ? kExitOk : kExitDamaged;
  }
  // A profile file: text (no control characters but tab and line ends) whose
  // first non-blank character opens a section.
  std::size_t i = count >= 3 && std::memcmp(head, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
  while (i < count && (head[i] == ' ' || head[i] == '\t' || head[i] == '\r' || head[i] == '\n'))
    ++i;
  bool text = true;
  for (unsigned k = 0; k < count; ++k)
    text = text && (head[k] >= 0x20 || head[k] == '\t' || head[k] == '\r' || head[k] == '\n');
  if (text && i < count && head[i] == '[') {
    TMemory text;
    if ((err = ReadWhole(path, &text)) != 0) return Fail(path, err);
    int sections = 0, keys = 0;
    bool lineStart = true;
    for (unsigned k = 0; k < text.GetSize(); ++k) {
      const unsigned char c = text.MemPtr()[k];
      if (lineStart && c == '[') ++sections;
      if (c == '=') ++keys;
      lineStart = c == '\n';
    }
    std::printf("%s: profile file, %d sections, %d keys\n", path.c_str(), sections, keys);
    return kExitOk;
  }
  if (count >= 8 && IsPersistSignature(persist.signature) && persist.version >= 1 &&
      persist.compatibleVersion >= 1 && persist.compatibleVersion <= persist.version) {
    std::printf("%s: persisted record %s, version 0x%04X, oldest reader 0x%04X, %llu bytes\n",
                path.c_str(), TypeText(persist.signature).c_str(),
                static_cast<unsigned short>(persist.version),
                static_cast<unsigned short>(persist.compatibleVersion),
                static_cast<unsigned long long>(length));
    return kExitOk;
  }
  std::printf("%s: not a stored form qn knows (%llu bytes)\n", path.c_str(),
              static_cast<unsigned long long>(length));
  return kExitDamaged;
}

int Ls(const Words& args) {
  static const char usage[] =
      "usage: qn ls FILE [--json]    the chunks (type, id, data size, data offset, packed or\n"
      "                              plain) in map order, then the free space\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {"--json"}, 1, 1, &cmd, &status)) return status;
  const std::string& path = cmd.words[0];
  Store s;
  if (const int err = s.Open(path, false, false)) return OpenFailure(path, err);
  CHFileHeader h{};
  s.m.CHGetFileHeader(&h);
  std::int64_t freeBytes = 0;
  int freeExtents = 0;
  const std::vector<Chunk> chunks = Chunks(&s.m, &freeBytes, &freeExtents);
  const int hdr = s.m.CHGetChunkHdrSize();
  const bool json = cmd.Has("--json");
  if (json)
    std::printf("{\"file\": %s, \"format\": %d, \"chunks\": [", Json(path).c_str(),
                static_cast<unsigned short>(h.persist.version));
  else
    std::printf("%-10s %11s %10s %10s %s\n", "type", "id", "size", "offset", "form");
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    const Chunk& c = chunks[i];
    const bool packed = IsPacked(&s.file, c, hdr);
    if (json)
      std::printf(
          "%s\n  {\"type\": %s, \"id\": %lld, \"size\": %lld, \"offset\": %lld, "
          "\"packed\": %s}",
          i ? "," : "", Json(TypeText(c.type)).c_str(), static_cast<long long>(c.id),
          static_cast<long long>(c.size), static_cast<long long>(c.address + hdr),
          packed ? "true" : "false");
    else
      std::printf("%-10s %11lld %10lld %10lld %s\n", TypeText(c.type).c_str(),
                  static_cast<long long>(c.id), static_cast<long long>(c.size),
                  static_cast<long long>(c.address + hdr), packed ? "packed" : "plain");
  }
  if (json)
    std::printf("%s], \"free\": {\"bytes\": %lld, \"extents\": %d}}\n", chunks.empty() ? "" : "\n",
                static_cast<long long>(freeBytes), freeExtents);
  else
    std::printf("free %lld bytes in %d extents\n", static_cast<long long>(freeBytes), freeExtents);
  return kExitOk;
}

int Verify(const Words& args) {
  static const char usage[] =
      "usage: qn verify FILE [--recover]   checks the map and every chunk's data hash;\n"
      "  exit 0 when the file is sound, 1 when it is damaged. A journal left by an\n"
      "  interrupted save is reported; --recover rolls it back first.\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {"--recover"}, 1, 1, &cmd, &status)) return status;
  const std::string& path = cmd.words[0];
  TFileLoc loc;
  CHJournalInfo journal{};
  int err = LocOf(path, &loc);
  if (err == 0) err = chJournalQuery(&loc, &journal);
  if (err != 0) return Fail(path, err);
  if (journal.state != 0) {
    std::printf("journal: %s, %lld records, left by an interrupted save\n",
                journal.state == 1 ? "complete" : "incomplete",
                static_cast<long long>(journal.records));
    if (!cmd.Has("--recover")) {
      std::printf("damaged: qn verify --recover rolls the journal back\n");
      return kExitDamaged;
    }
    if ((err = chJournalRollBack(&loc)) != 0) return Fail(path + ": rolling back", err);
    std::printf("journal: %s\n", journal.state == 1 ? "rolled back" : "deleted (never acted on)");
  }
  Store s;
  if ((err = s.Open(path, false, false)) != 0) {
    if (err > kErrChunkFirst || err < kErrChunkLast) return Fail(path, err);
    std::printf("file: %s (%d)\n", ErrText(err).c_str(), err);
    if (!LastLogLine().empty()) std::printf("file: %s\n", LastLogLine().c_str());
    std::printf("damaged\n");
    return kExitDamaged;
  }
  if ((err = s.m.CHVerify()) != 0) {
    std::printf("map: %s\ndamaged\n", LastLogLine().c_str());
    return kExitDamaged;
  }
  std::int64_t freeBytes = 0;
  int freeExtents = 0;
  std::vector<Chunk> chunks = Chunks(&s.m, &freeBytes, &freeExtents);
  std::printf("map: sound, %zu chunks, %d free extents\n", chunks.size(), freeExtents);
  // Every chunk in address order: the file is read once, front to back.
  std::sort(chunks.begin(), chunks.end(),
            [](const Chunk& a, const Chunk& b) { return a.address < b.address; });
  const int hdr = s.m.CHGetChunkHdrSize();
  std::uint64_t total = 0;
  for (const Chunk& c : chunks) total += static_cast<std::uint64_t>(c.used);
  Progress progress("verify", total);
  std::uint64_t done = 0;
  int damaged = 0;
  TMemory buffer;
  for (const Chunk& c : chunks) {
    progress.Step(done);
    done += static_cast<std::uint64_t>(c.used);
    unsigned count = static_cast<unsigned>(c.used);
    err = buffer.SetSize(count);
    if (err == 0) err = s.file.SetPosFromBegin(static_cast<std::uint64_t>(c.address));
    if (err == 0) err = s.file.Read(&count, buffer.MemPtr());
    if (err == 0 && count != c.used) err = kErrEndOfFile;
    const char* problem = nullptr;
    CHChunkHeader ch{};
    if (err != 0) {
      problem = "cannot be read";
    } else {
      chGetChunkHeader(buffer.MemPtr(), hdr == kChunkHeaderSize0100, &ch);
      if (ch.type != c.type || static_cast<std::int64_t>(ch.id) != c.id)
        problem = "its header names another chunk";
      else if (ch.hash != 0 &&
               ch.hash != chHashBlock(buffer.MemPtr() + hdr, static_cast<int>(c.size)))
        problem = "its data does not match its hash";
    }
    if (problem) {
      progress.Clear();
      ++damaged;
      std::printf("chunk %s at %lld: %s\n", Key(c.type, c.id).c_str(),
                  static_cast<long long>(c.address), problem);
    }
  }
  progress.Clear();
  std::printf("chunks: %zu checked, %d damaged\n%s\n", chunks.size(), damaged,
              damaged ? "damaged" : "sound");
  return damaged ? kExitDamaged : kExitOk;
}

int Cat(const Words& args) {
  static const char usage[] =
      "usage: qn cat FILE TYPE ID [--raw]   writes the chunk's data to standard output,\n"
      "  expanded when it is stored packed; --raw: the stored bytes as they are\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {"--raw"}, 3, 3, &cmd, &status)) return status;
  unsigned type = 0;
  int id = 0;
  if (!ParseKey(cmd, &type, &id, &status)) return status;
  Store s;
  if (const int err = s.Open(cmd.words[0], false, false)) return OpenFailure(cmd.words[0], err);
  TMemory raw;
  const TMemory* data = nullptr;
  if (cmd.Has("--raw")) {
    std::int64_t offset = 0, size = 0;
    int err = s.m.CHPhysInfo(static_cast<int>(type), id, &offset, &size);
    unsigned count = static_cast<unsigned>(size);
    if (err == 0) err = raw.SetSize(count);
    if (err == 0) err = s.file.SetPosFromBegin(static_cast<std::uint64_t>(offset));
    if (err == 0 && count > 0) err = s.file.Read(&count, raw.MemPtr());
    if (err != 0) return Fail(cmd.words[0] + ": " + Key(type, id), err);
    data = &raw;
  } else {
    TMemory* h = nullptr;
    if (const int err = s.m.CHGetChunk(static_cast<int>(type), id, &h))
      return Fail(cmd.words[0] + ": " + Key(type, id), err);
    data = h;
  }
  if (data->GetSize() > 0) std::fwrite(data->MemPtr(), 1, data->GetSize(), stdout);
  return kExitOk;
}

int Put(const Words& args) {
  static const char usage[] =
      "usage: qn put FILE TYPE ID [IN] [--pack]   stores IN (or standard input) as the chunk,\n"
      "  replacing one with the same type and id; a missing FILE becomes a new chunk file;\n"
      "  --pack stores the data packed (MemComp)\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {"--pack"}, 3, 4, &cmd, &status)) return status;
  unsigned type = 0;
  int id = 0;
  if (!ParseKey(cmd, &type, &id, &status)) return status;
  auto* data = new TMemory;
  if (cmd.words.size() == 4) {
    if (const int err = ReadWhole(cmd.words[3], data)) {
      delete data;
      return Fail(cmd.words[3], err);
    }
  } else {
    std::vector<unsigned char> in;
    unsigned char piece[65536];
    std::size_t n = 0;
    while ((n = std::fread(piece, 1, sizeof piece, stdin)) > 0)
      in.insert(in.end(), piece, piece + n);
    if (data->SetSize(static_cast<unsigned>(in.size())) == 0 && !in.empty())
      std::memcpy(data->MemPtr(), in.data(), in.size());
  }
  const unsigned plain = data->GetSize();
  if (cmd.Has("--pack")) MemComp(data);
  Store s;
  int err = s.Open(cmd.words[0], true, true);
  if (err != 0) {
    delete data;
    return OpenFailure(cmd.words[0], err);
  }
  s.m.CHSetLoad(0);
  TMemory* h = nullptr;
  if (s.m.CHGetChunk(static_cast<int>(type), id, &h) == 0) {
    *h = std::move(*data);
    delete data;
    err = s.m.CHChangedChunk(h);
  } else if ((err = s.m.CHAddChunk(data, static_cast<int>(type), id)) != 0) {
    delete data;
  } else {
    h = data;
  }
  const unsigned stored = h ? h->GetSize() : 0;
  if (err == 0) err = s.m.CHSave();
  if (err != 0) return Fail(cmd.words[0] + ": " + Key(type, id), err);
  std::printf("stored %s: %u bytes", Key(type, id).c_str(), plain);
  if (stored != plain) std::printf(", packed into %u", stored);
  std::printf("\n");
  return kExitOk;
}

int Rm(const Words& args) {
  static const char usage[] = "usage: qn rm FILE TYPE ID    removes the chunk and saves\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 3, 3, &cmd, &status)) return status;
  unsigned type = 0;
  int id = 0;
  if (!ParseKey(cmd, &type, &id, &status)) return status;
  Store s;
  int err = s.Open(cmd.words[0], true, false);
  if (err != 0) return OpenFailure(cmd.words[0], err);
  s.m.CHSetLoad(0);
  TMemory* h = nullptr;
  err = s.m.CHGetChunk(static_cast<int>(type), id, &h);
  if (err == 0 && (err = s.m.CHRemoveChunk(h)) == 0) delete h;
  if (err == 0) err = s.m.CHSave();
  if (err != 0) return Fail(cmd.words[0] + ": " + Key(type, id), err);
  std::printf("removed %s\n", Key(type, id).c_str());
  return kExitOk;
}

int Compact(const Words& args) {
  static const char usage[] =
      "usage: qn compact FILE    moves every chunk down over the free space, writes the map\n"
      "  after the last one and cuts the file there\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 1, 1, &cmd, &status)) return status;
  Store s;
  int err = s.Open(cmd.words[0], true, false);
  if (err != 0) return OpenFailure(cmd.words[0], err);
  std::uint64_t before = 0, after = 0;
  s.file.GetEOF(&before);
  CHFileHeader h{};
  s.m.CHGetFileHeader(&h);
  std::int64_t freeBytes = 0;
  int freeExtents = 0;
  Chunks(&s.m, &freeBytes, &freeExtents);
  if (freeExtents == 0 && static_cast<std::int64_t>(before) == h.mapAddress + h.mapSize) {
    std::printf("nothing to compact: %llu bytes\n", static_cast<unsigned long long>(before));
    return kExitOk;
  }
  // A save compacts only a changed store: an empty chunk added and removed
  // again changes it without changing what it holds.
  const int type = s.m.CHCountTypes() > 0 ? s.m.CHEnumType(1) : 1;
  auto* probe = new TMemory;
  err = s.m.CHAddChunk(probe, type, s.m.CHUniqueID(type, 1));
  if (err != 0) delete probe;
  if (err == 0 && (err = s.m.CHRemoveChunk(probe)) == 0) delete probe;
  if (err == 0) err = s.m.CHSave();
  if (err == 0) err = s.file.GetEOF(&after);
  if (err != 0) return Fail(cmd.words[0], err);
  std::printf("compacted: %llu bytes before, %llu after, %d free extents dropped\n",
              static_cast<unsigned long long>(before), static_cast<unsigned long long>(after),
              freeExtents);
  return kExitOk;
}

}  // namespace qn
