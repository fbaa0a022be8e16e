// The chunk store beside SQLite, on a key-value workload: 10,000 blobs of
// 8 to 12 KiB (odd keys compressible text, even keys random bytes) under the
// keys 1..10,000; SQLite holds them in one table (key INTEGER PRIMARY KEY,
// value BLOB) with journal_mode=DELETE. Every phase runs as one transaction
// on each side, and each iteration runs the chunk store and SQLite one after
// the other, so that both meet the same load on the machine:
// - Build: a new store, every blob added, CHSave; against INSERT and COMMIT
//   with synchronous=FULL (which flushes, as our save does) and OFF.
// - Fetch: a freshly opened manager (empty handle table; the open reads the map)
//   fetches every blob in random order; against sqlite3_blob_reopen and
//   sqlite3_blob_read into one reused buffer. The files are in the page
//   cache.
// - Change: 100 random blobs (1%) get new contents of the same size or of a
//   new size, through an open, CHSetLoad(0) (a handle is filled, not read),
//   CHChangedChunk, a save (CHSave or CHQuickSave) and a close; against
//   UPDATE and COMMIT (FULL and OFF). The stores live on from iteration to
//   iteration, as a document does.
// The benchmark's time is the chunk store's (manual, wall clock). Counters:
// sqlite_full_s and sqlite_off_s (SQLite's seconds per iteration, with
// synchronous=FULL and OFF; the fetch reads one database), ratio_full and
// ratio_off (chunk store time / SQLite time over all iterations, wall
// clock), cpu_ratio_full and cpu_ratio_off (the same of process CPU time,
// user and system: steadier than the wall clock on a busy machine, blind to
// waiting for the disk), and the file sizes after the phase (chunk_bytes,
// sqlite_bytes; SQLite's of the FULL database).
// The files live on drive X:, mapped to a fresh folder under the temporary
// folder for the run and removed at its end.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/tmemory.h"
#include "tests/support/scratch_drive.h"

namespace fs = std::filesystem;

namespace {

constexpr int kBlobs = 10000;
constexpr int kChanged = kBlobs / 100;
constexpr int kType = 0x426C6F62;  // 'Blob'
using Clock = std::chrono::steady_clock;

// Contents for a key: words of a small vocabulary for odd keys, random
// bytes for even ones.
std::string Contents(std::mt19937_64& rng, int key, std::size_t size) {
  static const char* const kWords[] = {
      "chunk", "store", "map",   "extent", "granule", "header", "save", "the",   "of",
      "and",   "a",     "file",  "blob",   "record",  "key",    "type", "value", "page",
      "write", "read",  "order", "free",   "space",   "entry",  "id",   "data",  "marker"};
  std::string s;
  s.reserve(size + 16);
  if (key % 2 == 1) {
    while (s.size() < size) {
      s += kWords[rng() % std::size(kWords)];
      s += rng() % 12 == 0 ? '\n' : ' ';
    }
    s.resize(size);
  } else {
    s.resize(size);
    for (char& c : s) c = static_cast<char>(rng());
  }
  return s;
}

std::size_t BlobSize(std::mt19937_64& rng) { return 8192 + rng() % 4097; }

struct Blobs {
  std::vector<std::string> value;  // value[key], key 1..kBlobs
  std::vector<int> order;          // the keys in random order
  Blobs() : value(kBlobs + 1), order(kBlobs) {
    std::mt19937_64 rng(20261124);
    for (int k = 1; k <= kBlobs; ++k) value[k] = Contents(rng, k, BlobSize(rng));
    std::iota(order.begin(), order.end(), 1);
    std::shuffle(order.begin(), order.end(), rng);
  }
};

const Blobs& TheBlobs() {
  static const Blobs blobs;
  return blobs;
}

const ScratchDrive& TheDisk() {
  static const ScratchDrive disk(u'X', "quarnel-chunkbench-");
  return disk;
}

// A file on drive X: by name, as a host path and as a location.
struct Place {
  std::string name;
  fs::path Host() const { return TheDisk().Root() / name; }
  TFileLoc Loc() const {
    TFileLoc loc;
    const std::string path = "X:\\" + name;
    const TString p(std::u16string(path.begin(), path.end()).c_str());
    loc.SetPath(&p);
    return loc;
  }
  std::int64_t Bytes() const {
    std::error_code ec;
    const auto n = fs::file_size(Host(), ec);
    return ec ? -1 : static_cast<std::int64_t>(n);
  }
  void Remove() const {
    std::error_code ec;
    fs::remove(Host(), ec);
    fs::remove(Host().string() + "-journal", ec);
  }
};

// Wall-clock and process CPU seconds (user and system) of one side's work.
struct Time {
  double wall = -1, cpu = 0;
};

struct Stopwatch {
  Clock::time_point wall = Clock::now();
  std::clock_t cpu = std::clock();
  Time Stop() const {
    return Time{std::chrono::duration<double>(Clock::now() - wall).count(),
                static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC};
  }
};

constexpr Time kFailed{};

TMemory* Block(const std::string& s) {
  auto* h = new TMemory;
  h->SetSize(static_cast<unsigned>(s.size()));
  std::memcpy(h->MemPtr(), s.data(), s.size());
  return h;
}

// ---- The chunk store ----

// A new store holding every blob, saved. Seconds, or -1 on a failure.
Time ChunkBuild(const Place& at) {
  at.Remove();
  std::ofstream(at.Host()).flush();
  const Blobs& blobs = TheBlobs();
  TFileLoc loc = at.Loc();
  const Stopwatch start;
  ChunkManager m;
  if (m.CHOpen(&loc, 3) != 0) return kFailed;
  for (int k = 1; k <= kBlobs; ++k) {
    TMemory* h = Block(blobs.value[k]);
    if (m.CHAddChunk(h, kType, k) != 0) {
      delete h;
      return kFailed;
    }
  }
  if (m.CHSave() != 0) return kFailed;
  m.CHClose();
  return start.Stop();
}

Time ChunkFetch(const Place& at) {
  const Blobs& blobs = TheBlobs();
  TFileLoc loc = at.Loc();
  const Stopwatch start;
  ChunkManager m;
  if (m.CHOpen(&loc, 1) != 0) return kFailed;
  unsigned sum = 0;
  for (const int k : blobs.order) {
    TMemory* h = nullptr;
    if (m.CHGetChunk(kType, k, &h) != 0 || h->GetSize() == 0) return kFailed;
    sum += h->MemPtr()[h->GetSize() - 1];
    m.CHDetachChunk(h);
    delete h;
  }
  benchmark::DoNotOptimize(sum);
  m.CHClose();
  return start.Stop();
}

using Changes = std::vector<std::pair<int, std::string>>;

Time ChunkChange(const Place& at, const Changes& changes, bool quick) {
  TFileLoc loc = at.Loc();
  const Stopwatch start;
  ChunkManager m;
  if (m.CHOpen(&loc, 3) != 0) return kFailed;
  m.CHSetLoad(0);
  for (const auto& [key, value] : changes) {
    TMemory* h = nullptr;
    if (m.CHGetChunk(kType, key, &h) != 0) return kFailed;
    h->SetSize(static_cast<unsigned>(value.size()));
    std::memcpy(h->MemPtr(), value.data(), value.size());
    if (m.CHChangedChunk(h) != 0) return kFailed;
  }
  if ((quick ? m.CHQuickSave() : m.CHSave()) != 0) return kFailed;
  m.CHClose();
  return start.Stop();
}

// ---- SQLite ----

struct Db {
  sqlite3* db = nullptr;
  Db(const Place& at, bool readOnly, bool syncFull) {
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(at.Host().c_str(), &db, flags, nullptr) != SQLITE_OK) Close();
    if (!Exec("PRAGMA journal_mode=DELETE") ||
        !Exec(syncFull ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF"))
      Close();
  }
  ~Db() { Close(); }
  void Close() {
    sqlite3_close(db);
    db = nullptr;
  }
  bool Exec(const char* sql) {
    return db != nullptr && sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  // Runs `sql` once per change with ?1 the key and ?2 the value.
  bool Each(const char* sql, const Changes& rows) {
    sqlite3_stmt* st = nullptr;
    if (db == nullptr || sqlite3_prepare_v2(db, sql, -1, &st, nullptr) != SQLITE_OK) return false;
    bool ok = true;
    for (const auto& [key, value] : rows) {
      sqlite3_bind_int(st, 1, key);
      sqlite3_bind_blob(st, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
      ok = ok && sqlite3_step(st) == SQLITE_DONE;
      sqlite3_reset(st);
    }
    sqlite3_finalize(st);
    return ok;
  }
};

Changes AllRows() {
  Changes rows;
  for (int k = 1; k <= kBlobs; ++k) rows.emplace_back(k, TheBlobs().value[k]);
  return rows;
}

Time SqliteBuild(const Place& at, bool syncFull) {
  static const Changes rows = AllRows();
  at.Remove();
  const Stopwatch start;
  Db d(at, false, syncFull);
  if (!d.Exec("CREATE TABLE kv(key INTEGER PRIMARY KEY, value BLOB)") || !d.Exec("BEGIN") ||
      !d.Each("INSERT INTO kv VALUES(?1, ?2)", rows) || !d.Exec("COMMIT"))
    return kFailed;
  d.Close();
  return start.Stop();
}

Time SqliteFetch(const Place& at) {
  const Blobs& blobs = TheBlobs();
  const Stopwatch start;
  Db d(at, true, true);
  if (!d.Exec("BEGIN")) return kFailed;
  sqlite3_blob* blob = nullptr;
  std::vector<unsigned char> buffer;
  unsigned sum = 0;
  for (const int k : blobs.order) {
    const int rc = blob ? sqlite3_blob_reopen(blob, k)
                        : sqlite3_blob_open(d.db, "main", "kv", "value", k, 0, &blob);
    if (rc != SQLITE_OK) return kFailed;
    const int n = sqlite3_blob_bytes(blob);
    buffer.resize(static_cast<std::size_t>(n));
    if (n == 0 || sqlite3_blob_read(blob, buffer.data(), n, 0) != SQLITE_OK) return kFailed;
    sum += buffer[static_cast<std::size_t>(n) - 1];
  }
  benchmark::DoNotOptimize(sum);
  sqlite3_blob_close(blob);
  if (!d.Exec("COMMIT")) return kFailed;
  d.Close();
  return start.Stop();
}

Time SqliteChange(const Place& at, const Changes& changes, bool syncFull) {
  const Stopwatch start;
  Db d(at, false, syncFull);
  if (!d.Exec("BEGIN") || !d.Each("UPDATE kv SET value = ?2 WHERE key = ?1", changes) ||
      !d.Exec("COMMIT"))
    return kFailed;
  d.Close();
  return start.Stop();
}

// ---- Phases ----

// Sums of the seconds of each side over a benchmark's iterations.
struct Totals {
  Time chunk{0, 0}, full{0, 0}, off{0, 0};
  int n = 0;
  // `off` may be absent (a phase where SQLite's flushing does not matter).
  bool Add(benchmark::State& state, Time c, Time f, Time o = Time{0, 0}) {
    if (c.wall < 0 || f.wall < 0 || o.wall < 0) {
      state.SkipWithError("a store operation failed");
      return false;
    }
    state.SetIterationTime(c.wall);
    for (auto [sum, t] : {std::pair{&chunk, c}, std::pair{&full, f}, std::pair{&off, o}})
      sum->wall += t.wall, sum->cpu += t.cpu;
    ++n;
    return true;
  }
  void Report(benchmark::State& state, const Place& chunkFile, const Place& db) const {
    if (n == 0) return;
    state.counters["sqlite_full_s"] = full.wall / n;
    state.counters["ratio_full"] = chunk.wall / full.wall;
    state.counters["cpu_ratio_full"] = chunk.cpu / full.cpu;
    if (off.wall > 0) {
      state.counters["sqlite_off_s"] = off.wall / n;
      state.counters["ratio_off"] = chunk.wall / off.wall;
      state.counters["cpu_ratio_off"] = chunk.cpu / off.cpu;
    }
    state.counters["chunk_bytes"] = static_cast<double>(chunkFile.Bytes());
    state.counters["sqlite_bytes"] = static_cast<double>(db.Bytes());
  }
};

const Place kBuildChunk{"build.chk"}, kBuildFull{"build-full.db"}, kBuildOff{"build-off.db"};

void BM_Build(benchmark::State& state) {
  Totals t;
  for (auto _ : state) {
    const Time c = ChunkBuild(kBuildChunk);
    const Time f = SqliteBuild(kBuildFull, true);
    const Time o = SqliteBuild(kBuildOff, false);
    if (!t.Add(state, c, f, o)) return;
  }
  t.Report(state, kBuildChunk, kBuildFull);
  state.SetItemsProcessed(state.iterations() * kBlobs);
}

// The stores the later phases read and change, built once (untimed).
struct Stores {
  Place saved{"saved.chk"}, quick{"quick.chk"}, full{"full.db"}, off{"off.db"};
  // Each store's current blob sizes, by key.
  std::vector<std::size_t> sizes[4];
  bool ok = true;
  Stores() {
    ok = ChunkBuild(saved).wall >= 0 && ChunkBuild(quick).wall >= 0 &&
         SqliteBuild(full, true).wall >= 0 && SqliteBuild(off, false).wall >= 0;
    for (auto& s : sizes) {
      s.resize(kBlobs + 1);
      for (int k = 1; k <= kBlobs; ++k) s[k] = TheBlobs().value[k].size();
    }
  }
};

Stores& TheStores() {
  static Stores stores;
  return stores;
}

void BM_Fetch(benchmark::State& state) {
  Stores& s = TheStores();
  if (!s.ok || ChunkFetch(s.saved).wall < 0 ||
      SqliteFetch(s.full).wall < 0) {  // warms the page cache
    state.SkipWithError("building or reading the stores failed");
    return;
  }
  Totals t;
  for (auto _ : state) {
    const Time c = ChunkFetch(s.saved);
    const Time f = SqliteFetch(s.full);
    if (!t.Add(state, c, f)) return;
  }
  t.Report(state, s.saved, s.full);
  state.SetItemsProcessed(state.iterations() * kBlobs);
}

// 1% of the keys with new contents, for the store whose sizes are `sizes`.
Changes Draw(std::mt19937_64& rng, std::vector<std::size_t>* sizes, bool newSize) {
  std::vector<int> keys(kBlobs);
  std::iota(keys.begin(), keys.end(), 1);
  std::shuffle(keys.begin(), keys.end(), rng);
  keys.resize(kChanged);
  Changes out;
  for (const int k : keys) {
    std::size_t size = (*sizes)[k];
    if (newSize) {
      while (size == (*sizes)[k]) size = BlobSize(rng);
      (*sizes)[k] = size;
    }
    out.emplace_back(k, Contents(rng, k, size));
  }
  return out;
}

// range(0): 1 changes sizes; range(1): 1 saves with CHQuickSave.
void BM_Change(benchmark::State& state) {
  Stores& s = TheStores();
  if (!s.ok) {
    state.SkipWithError("building the stores failed");
    return;
  }
  const bool newSize = state.range(0) != 0, quick = state.range(1) != 0;
  const Place& mine = quick ? s.quick : s.saved;
  std::mt19937_64 rng(static_cast<std::uint64_t>(1 + 2 * newSize + quick));
  Totals t;
  for (auto _ : state) {
    const Changes a = Draw(rng, &s.sizes[quick], newSize);
    const Changes b = Draw(rng, &s.sizes[2], newSize);
    const Changes c = Draw(rng, &s.sizes[3], newSize);
    const Time tc = ChunkChange(mine, a, quick);
    const Time tf = SqliteChange(s.full, b, true);
    const Time to = SqliteChange(s.off, c, false);
    if (!t.Add(state, tc, tf, to)) return;
  }
  t.Report(state, mine, s.full);
  state.SetItemsProcessed(state.iterations() * kChanged);
}

}  // namespace

BENCHMARK(BM_Build)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fetch)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Change)
    ->ArgNames({"newsize", "quick"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);
