// Arbitrary bytes opened as a chunk file (and, when asked, a rollback
// journal beside it): opening, the map check, listing, fetching every
// chunk, a change and a save never crash, hang or read outside a buffer,
// and never lose what the file held:
// - after a successful save, the file reopens, passes the map check and
//   gives every chunk back as the store held it (a chunk that could not be
//   fetched before fails again with the same code);
// - after a failed save, the file reopens to exactly what it held before.
//
// Input: a mode byte, then (mode bit 4) a 16-bit little-endian journal
// length and the journal's bytes, then the file's bytes. Before the save,
// mode bit 0 changes the first chunk that could be fetched, bit 1 removes the
// last one, bit 2 adds a chunk; bit 3 saves with CHQuickSave instead of
// CHSave. The seeds are small files of both format generations that the
// library wrote, each behind a mode byte.
//
// Area: quarnel/chunk/chjournal.cpp quarnel/chunk/chmap.cpp quarnel/chunk/chsave.cpp
// Area: quarnel/chunk/chunkfile.cpp quarnel/chunk/chunkmanager.cpp
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/fileio/location.h"
#include "quarnel/foundation/tmemory.h"
#include "tests/support/scratch_drive.h"

namespace fs = std::filesystem;

namespace {

constexpr int kAddedType = 0x467A7A2E;  // 'Fzz.'
constexpr int kMaxListed = 20000;       // more chunks than any input of a few KiB lists

// Every save flushes: the files live in memory where the system allows.
const ScratchDrive& TheDisk() {
  std::error_code ec;
  static const ScratchDrive disk(
      u'X', "quarnel-chunkfuzz-",
      fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path());
  return disk;
}

TFileLoc Loc() {
  TFileLoc loc;
  const TString p(u"X:\\f.chk");
  loc.SetPath(&p);
  return loc;
}

void WriteHost(const fs::path& path, const std::uint8_t* data, std::size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// What fetching each listed chunk gave: its code and, on success, its bytes.
using Key = std::pair<int, int>;
using Listing = std::map<Key, std::pair<int, std::string>>;

// Lists and fetches every chunk. The fetched handles stay registered.
Listing List(ChunkManager* m) {
  Listing out;
  const int types = m->CHCountTypes();
  for (int t = 1; t <= types && out.size() < kMaxListed; ++t) {
    const int type = m->CHEnumType(t);
    const int count = m->CHCountChunks(type);
    volatile std::int64_t sink = m->CHUniqueID(type, 1) + m->CHEnumChunk(type, 0);
    for (int n = 1; n <= count && out.size() < kMaxListed; ++n) {
      const int id = m->CHEnumChunk(type, n);
      std::int64_t offset = 0, size = 0;
      sink = sink + m->CHChunkSize(type, id) + m->CHPhysInfo(type, id, &offset, &size);
      TMemory* h = nullptr;
      const int rc = m->CHGetChunk(type, id, &h);
      if ((rc == 0) != (h != nullptr)) std::abort();
      std::string bytes;
      if (h != nullptr && h->GetSize() > 0)
        bytes.assign(reinterpret_cast<const char*>(h->MemPtr()), h->GetSize());
      out[{type, id}] = {rc, bytes};
    }
    (void)sink;
  }
  return out;
}

TMemory* Block(const std::string& s) {
  auto* h = new TMemory(1);
  h->SetSize(static_cast<unsigned>(s.size()));
  if (!s.empty()) std::memcpy(h->MemPtr(), s.data(), s.size());
  return h;
}

// Changes the store as the mode says and `*expect` with it; false when a
// change was refused (the store then promises nothing about the others).
bool Change(ChunkManager* m, unsigned mode, Listing* expect) {
  Key first{0, 0}, last{0, 0};
  for (const auto& [key, got] : *expect) {
    if (got.first != 0) continue;
    if (first.first == 0) first = key;
    last = key;
  }
  if ((mode & 1) && first.first != 0) {
    TMemory* h = nullptr;
    if (m->CHGetChunk(first.first, first.second, &h) != 0) return false;
    // '#' first: never the packed-block magic, so it is fetched as written.
    std::string now =
        "#" + std::string((*expect)[first].second.rbegin(), (*expect)[first].second.rend());
    h->SetSize(static_cast<unsigned>(now.size()));
    std::memcpy(h->MemPtr(), now.data(), now.size());
    if (m->CHChangedChunk(h) != 0) return false;
    (*expect)[first].second = now;
  }
  if ((mode & 2) && last.first != 0 && last != first) {
    TMemory* h = nullptr;
    if (m->CHGetChunk(last.first, last.second, &h) != 0 || m->CHRemoveChunk(h) != 0) return false;
    delete h;
    expect->erase(last);
  }
  if (mode & 4) {
    const int id = m->CHUniqueID(kAddedType, 1);
    if (id == 0) return false;
    TMemory* h = Block("added by the fuzzer");
    if (m->CHAddChunk(h, kAddedType, id) != 0) {
      delete h;
      return false;
    }
    (*expect)[{kAddedType, id}] = {0, "added by the fuzzer"};
  }
  return true;
}

// The file's content as a fresh manager reads it; aborts when it does not
// open or fails the map check.
Listing Reopened() {
  TFileLoc loc = Loc();
  ChunkManager r;
  if (r.CHOpen(&loc, 3) != 0 || r.CHVerify() != 0) std::abort();
  return List(&r);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const fs::path file = TheDisk().Root() / "f.chk";
  const unsigned mode = data[0];
  ++data, --size;
  const fs::path journal = file.string() + "-journal";
  std::error_code ec;
  fs::remove(journal, ec);
  if (mode & 16) {
    if (size < 2) return 0;
    const std::size_t n = std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
    WriteHost(journal, data + 2, n);
    data += 2 + n, size -= 2 + n;
  }
  WriteHost(file, data, size);

  TFileLoc loc = Loc();
  auto* m = new ChunkManager;
  if (m->CHOpen(&loc, 3) != 0) {
    delete m;
    return 0;
  }
  volatile int sink = m->CHVerify() + m->CHGetChunkHdrSize() + m->CHCountEntries();
  (void)sink;
  const Listing before = List(m);
  Listing after = before;
  const bool exact = Change(m, mode, &after);
  const int saved = mode & 8 ? m->CHQuickSave() : m->CHSave();
  delete m;  // closes the store, deleting its handles
  if (!exact) return 0;
  if (Reopened() != (saved == 0 ? after : before)) std::abort();
  return 0;
}
