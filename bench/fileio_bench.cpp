// Files and folders beside what a program would use without the library:
// - TFile::Write and TFile::Read of 4 KiB and 1 MiB blocks against the C
//   library's unbuffered streams on the same file (one write or read system
//   call per block, as read and write would do);
// - find-first/next over a folder of 10,000 files (the platform's calls and
//   TFolderLoc's walk) against std::filesystem's directory iterator with a
//   status (readdir and stat) per entry, both also right after a change to
//   the folder (which makes the platform index the folder again);
// - opening a file by a name whose case differs from the disk's, in that
//   folder, against opening it by its exact name.
// The files live on drive X:, mapped to a fresh folder under the temporary
// folder for the run and removed at its end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/tick.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFolderFiles = 10000;

struct Disk {
  fs::path root;
  Disk() {
    root = fs::temp_directory_path() / ("quarnel-bench-" + std::to_string(UGetTickCount()));
    fs::create_directories(root / "big");
    QuarnelSetDrive(u'X', root.c_str());
    for (int i = 0; i < kFolderFiles; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "file%05d.dat", i);
      std::FILE* f = std::fopen((root / "big" / name).c_str(), "w");
      std::fputs("x", f);
      std::fclose(f);
    }
  }
  ~Disk() {
    QuarnelSetDrive(u'X', nullptr);
    std::error_code ec;
    fs::remove_all(root, ec);
  }
};

Disk& TheDisk() {
  static Disk disk;
  return disk;
}

TFileLoc Loc(const char16_t* path) {
  TFileLoc loc;
  TString p(path);
  loc.SetPath(&p);
  return loc;
}

// Writes or reads a block at the start of the file, again and again,
// through TFile or through an unbuffered C stream.
void Blocks(benchmark::State& state, bool write, bool peer) {
  const auto size = static_cast<unsigned>(state.range(0));
  std::vector<unsigned char> data(size, 0x5A);
  const fs::path host = TheDisk().root / "blocks.bin";
  std::FILE* f = std::fopen(host.c_str(), "w+b");
  std::fwrite(data.data(), 1, size, f);
  std::setvbuf(f, nullptr, _IONBF, 0);
  TFileLoc loc = Loc(u"X:\\blocks.bin");
  TFile file;
  file.Open(&loc, 0x3);
  for (auto _ : state) {
    if (peer) {
      std::fseek(f, 0, SEEK_SET);
      benchmark::DoNotOptimize(write ? std::fwrite(data.data(), 1, size, f)
                                     : std::fread(data.data(), 1, size, f));
    } else {
      file.SetPosFromBegin(0);
      unsigned n = size;
      benchmark::DoNotOptimize(write ? file.Write(&n, data.data()) : file.Read(&n, data.data()));
    }
  }
  file.Close();
  std::fclose(f);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * size);
}

void BM_TFileWrite(benchmark::State& state) { Blocks(state, true, false); }
void BM_PeerWrite(benchmark::State& state) { Blocks(state, true, true); }
void BM_TFileRead(benchmark::State& state) { Blocks(state, false, false); }
void BM_PeerRead(benchmark::State& state) { Blocks(state, false, true); }

// Changes the big folder (a file made and removed) with the clock stopped.
void ChangeFolder(benchmark::State& state) {
  const fs::path marker = TheDisk().root / "big" / "changed.tmp";
  state.PauseTiming();
  std::fclose(std::fopen(marker.c_str(), "w"));
  fs::remove(marker);
  state.ResumeTiming();
}

// Find-first/next over the big folder; with `changed` the folder changes
// before each find, so the folder's index and 8.3 names are made again.
void FindFirstNext(benchmark::State& state, bool changed) {
  TheDisk();
  for (auto _ : state) {
    if (changed) ChangeFolder(state);
    UWIN32_FIND_DATAW data;
    const UHANDLE h = UFindFirstFile(u"X:\\big\\*.*", &data);
    int n = 1;
    while (UFindNextFile(h, &data)) ++n;
    UFindClose(h);
    if (n != kFolderFiles + 2) state.SkipWithError("wrong count");
  }
}

void BM_FindFirstNext(benchmark::State& state) { FindFirstNext(state, false); }
void BM_FindFirstNextChanged(benchmark::State& state) { FindFirstNext(state, true); }

void BM_FolderLocWalk(benchmark::State& state) {
  TheDisk();
  TFolderLoc folder;
  TString p(u"X:\\big");
  folder.SetPath(&p);
  for (auto _ : state) {
    void* h = nullptr;
    VNativNodeInfo info;
    int n = 0;
    for (int r = folder.StartFind(&h, &info, nullptr); r == 0; r = folder.NextFind(&h, &info)) ++n;
    folder.EndFind(&h);
    if (n != kFolderFiles + 2) state.SkipWithError("wrong count");
  }
}

void PeerReaddirStat(benchmark::State& state, bool changed) {
  const fs::path big = TheDisk().root / "big";
  for (auto _ : state) {
    if (changed) ChangeFolder(state);
    int n = 0;
    for (const fs::directory_entry& e : fs::directory_iterator(big)) {
      benchmark::DoNotOptimize(fs::status(e.path()).type());
      ++n;
    }
    if (n != kFolderFiles) state.SkipWithError("wrong count");
  }
}

void BM_PeerReaddirStat(benchmark::State& state) { PeerReaddirStat(state, false); }
void BM_PeerReaddirStatChanged(benchmark::State& state) { PeerReaddirStat(state, true); }

// Opens and closes a file of the big folder, a different one each time;
// `upper` spells the name in upper case (the disk has lower case).
void OpenInBigFolder(benchmark::State& state, bool upper) {
  TheDisk();
  int i = 0;
  for (auto _ : state) {
    char16_t path[64];
    char name[32];
    std::snprintf(name, sizeof name, upper ? "X:\\BIG\\FILE%05d.DAT" : "X:\\big\\file%05d.dat",
                  i++ % kFolderFiles);
    for (int k = 0;; ++k) {
      path[k] = static_cast<unsigned char>(name[k]);
      if (!name[k]) break;
    }
    TFileLoc loc = Loc(path);
    TFile file;
    if (file.Open(&loc, 0x1) != 0) state.SkipWithError("open failed");
    file.Close();
  }
}

void BM_OpenExactCase(benchmark::State& state) { OpenInBigFolder(state, false); }
void BM_OpenOtherCase(benchmark::State& state) { OpenInBigFolder(state, true); }

}  // namespace

BENCHMARK(BM_TFileWrite)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_PeerWrite)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_TFileRead)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_PeerRead)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_FindFirstNext)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindFirstNextChanged)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FolderLocWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeerReaddirStat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeerReaddirStatChanged)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenExactCase);
BENCHMARK(BM_OpenOtherCase);
