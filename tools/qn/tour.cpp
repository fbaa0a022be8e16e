// qn tour DIR: builds a small document store in DIR, lists and verifies it,
// crashes a save halfway on the simulated disk of the fault seam and opens
// what the crash left, then damages a copy on purpose and salvages it. Each
// step prints what it did and what it found; the exit status is 0 when every
// step found what it should.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "quarnel/chunk/chunkfile.h"
#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/text/tstring.h"
#include "tools/qn/qn.h"

namespace qn {
namespace {

namespace fs = std::filesystem;
using Content = std::map<std::pair<unsigned, int>, std::string>;

constexpr unsigned kText = 0x54657874;  // 'Text'
constexpr unsigned kNums = 0x4E756D73;  // 'Nums'
constexpr unsigned kPict = 0x50696374;  // 'Pict'

TMemory* Block(const std::string& s) {
  auto* h = new TMemory;
  h->SetSize(static_cast<unsigned>(s.size()));
  if (!s.empty()) std::memcpy(h->MemPtr(), s.data(), s.size());
  return h;
}

// Runs a command as if typed, echoing it first.
int Run(int (*command)(const Words&), const std::string& line, const Words& args) {
  std::printf("\n$ qn %s\n", line.c_str());
  std::fflush(stdout);
  ClearLog();
  const int status = command(args);
  std::fflush(stdout);
  return status;
}

// Every chunk of the store at `path` (expanded), or an error.
int ReadAll(const std::string& path, Content* out) {
  TFileLoc loc;
  TFile file;
  ChunkManager m;
  int err = LocOf(path, &loc);
  if (err == 0) err = file.Open(&loc, kModeRead);
  if (err == 0) err = m.CHOpenRef(&file);
  for (int t = 1; err == 0 && t <= m.CHCountTypes(); ++t) {
    const int type = m.CHEnumType(t);
    for (int n = 1; err == 0 && n <= m.CHCountChunks(type); ++n) {
      const int id = m.CHEnumChunk(type, n);
      TMemory* h = nullptr;
      if ((err = m.CHGetChunk(type, id, &h)) == 0)
        (*out)[{static_cast<unsigned>(type), id}] =
            std::string(reinterpret_cast<const char*>(h->MemPtr()), h->GetSize());
    }
  }
  m.CHClose();
  return err;
}

int Step(const char* text) {
  std::printf("\n%s\n", text);
  return 0;
}

int Broken(const std::string& what) { return Say("tour: " + what, kExitFailed); }

// A host path as the library takes it: UTF-8 on every system.
std::string HostText(const fs::path& p) {
  const std::u8string u = p.u8string();
  return std::string(u.begin(), u.end());
}

std::u16string WinPath(const fs::path& p) {
  char16_t path[4096];
  return ULocFromHostPath(HostText(p).c_str(), path, 4096) ? std::u16string(path)
                                                           : std::u16string();
}

}  // namespace

int Tour(const Words& args) {
  static const char usage[] =
      "usage: qn tour DIR   builds a small document store in DIR (made when missing), lists\n"
      "  and verifies it, crashes a save halfway and opens what the crash left, damages a\n"
      "  copy and salvages it, printing each step\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 1, 1, &cmd, &status)) return status;
  std::error_code ec;
  fs::create_directories(cmd.words[0], ec);
  fs::current_path(cmd.words[0], ec);
  if (ec) return Say("tour: cannot use " + cmd.words[0] + ": " + ec.message(), kExitFailed);
  fs::remove_all("store", ec);
  fs::remove_all("crash", ec);
  fs::create_directories("store", ec);
  fs::create_directories("crash", ec);

  // 1. A store of five chunks in three types, one of them packed.
  Step(
      "1. A document store: store/tour.chk with three Text chunks, a Nums chunk and a\n"
      "   Pict chunk of 20000 bytes that the host packs (MemComp) before storing it.");
  const std::string path = "store/tour.chk";
  Content saved = {{{kText, 1}, "Dear reader,"},
                   {{kText, 2}, "a chunk file keeps typed, numbered chunks and a map of them."},
                   {{kText, 3}, "Saving compacts the file behind a rollback journal."},
                   {{kNums, 1}, std::string()},
                   {{kPict, 1}, std::string()}};
  for (int i = 0; i < 64; ++i) saved[{kNums, 1}] += static_cast<char>(i * i % 251);
  for (int i = 0; i < 20000; ++i) saved[{kPict, 1}] += "  ##  "[i % 6];
  {
    TFileLoc loc;
    TFile file;
    ChunkManager m;
    int err = LocOf(path, &loc);
    if (err == 0) err = file.Create(&loc, kModeRead | kModeWrite);
    if (err == 0) err = m.CHOpenRef(&file);
    for (const auto& [key, text] : saved) {
      if (err != 0) break;
      TMemory* h = Block(text);
      if (key.first == kPict) MemComp(h);
      if ((err = m.CHAddChunk(h, static_cast<int>(key.first), key.second)) != 0) delete h;
    }
    if (err == 0) err = m.CHSave();
    if (err != 0) return Fail(path, err);
    std::printf("   saved: CHSave returned 0\n");
  }
  if (Run(Ls, "ls " + path, {path}) != kExitOk) return Broken("ls failed");
  if (Run(Verify, "verify " + path, {path}) != kExitOk) return Broken("the new store is not sound");

  // 2. A save interrupted halfway, on the simulated disk.
  Step(
      "2. A save interrupted halfway: Text 2 is rewritten and Text 4 added, and the save\n"
      "   runs on the fault seam's simulated disk, which then builds the file a crash in\n"
      "   the middle of the save leaves (crash/tour.chk, with its journal if one was made).");
  {
    const std::u16string storeFolder = WinPath(fs::absolute("store"));
    const std::u16string crashFolder = WinPath(fs::absolute("crash"));
    TFileLoc loc;
    TFile file;
    ChunkManager m;
    int err = LocOf(path, &loc);
    if (err == 0) err = file.Open(&loc, kModeRead | kModeWrite);
    if (err == 0) err = m.CHOpenRef(&file);
    TMemory* h = nullptr;
    if (err == 0) err = m.CHGetChunk(static_cast<int>(kText), 2, &h);
    if (err == 0) {
      const std::string text = "this sentence never reaches the disk whole.";
      h->SetSize(static_cast<unsigned>(text.size()));
      std::memcpy(h->MemPtr(), text.data(), text.size());
      err = m.CHChangedChunk(h);
    }
    TMemory* added = Block("a fourth text");
    if (err == 0 && (err = m.CHAddChunk(added, static_cast<int>(kText), 4)) != 0) delete added;
    if (err == 0 && UDiskRecord(storeFolder.c_str()) != 1) return Broken("the simulated disk");
    if (err == 0) err = m.CHSave();
    UDiskRecord(nullptr);
    m.CHClose();
    if (err != 0) return Fail(path, err);
    const int ios = UDiskIoCount();
    const int io = ios / 2;
    const int image = UDiskCrashImages(io) - 1;
    if (image < 0 || UDiskBuildCrash(io, image, crashFolder.c_str()) != 1)
      return Broken("building the crash image");
    UDiskReset();
    std::printf("   the save made %d writes, flushes and cuts; the crash comes before number %d\n",
                ios, io);
  }
  const std::string crashed = "crash/tour.chk";
  Run(Info, "info " + crashed, {crashed});
  Run(Verify, "verify " + crashed, {crashed});
  if (Run(Verify, "verify --recover " + crashed, {crashed, "--recover"}) != kExitOk)
    return Broken("the crashed save did not roll back to a sound file");
  {
    Content c;
    if (const int err = ReadAll(crashed, &c)) return Fail(crashed, err);
    if (c != saved) return Broken("the crashed file does not hold the last saved state");
    std::printf(
        "   every chunk equals the last saved state: Text 2 reads \"%s\", Text 4 is absent\n",
        c[{kText, 2}].c_str());
  }

  // 3. Damage on purpose, and salvage.
  Step(
      "3. Damage on purpose: damaged.chk is a copy of store/tour.chk (six chunks, as the\n"
      "   finished save of step 2 left it) whose map is overwritten with zeros and one\n"
      "   byte of Text 3 changed; salvage rebuilds what survived into salvaged.chk.");
  // The store as the finished save of step 2 left it.
  saved.clear();
  if (const int err = ReadAll(path, &saved)) return Fail(path, err);
  const std::string damaged = "damaged.chk";
  fs::copy_file(path, damaged, fs::copy_options::overwrite_existing, ec);
  if (ec) return Broken("copying the store");
  {
    TMemory bytes;
    if (const int err = ReadWhole(damaged, &bytes)) return Fail(damaged, err);
    CHFileHeader h;
    std::memcpy(&h, bytes.MemPtr(), sizeof h);
    std::memset(bytes.MemPtr() + h.mapAddress, 0, static_cast<std::size_t>(h.mapSize));
    const std::string& text3 = saved[{kText, 3}];
    unsigned char* end = bytes.MemPtr() + bytes.GetSize();
    unsigned char* hit = std::search(bytes.MemPtr(), end, text3.begin(), text3.end());
    if (hit == end) return Broken("Text 3 not found in the file");
    hit[7] ^= 0x20;
    if (const int err = WriteWhole(damaged, bytes.MemPtr(), bytes.GetSize()))
      return Fail(damaged, err);
  }
  Run(Verify, "verify " + damaged, {damaged});
  Run(Salvage, "salvage " + damaged + " salvaged.chk", {damaged, "salvaged.chk"});
  Run(Ls, "ls salvaged.chk", {"salvaged.chk"});
  {
    Content c;
    if (const int err = ReadAll("salvaged.chk", &c)) return Fail("salvaged.chk", err);
    int same = 0, other = 0;
    for (const auto& [key, text] : c) (saved.count(key) && saved[key] == text ? same : other)++;
    std::printf("\n   compared with the saved store: %d chunks the same, %d different, %zu lost\n",
                same, other, saved.size() - c.size());
    if (other != 0 || same + 1 != static_cast<int>(saved.size()) || c.count({kText, 3}))
      return Broken("salvage recovered the wrong chunks");
  }
  std::printf("\nThe tour is done: the files are in %s\n", HostText(fs::current_path()).c_str());
  return kExitOk;
}

}  // namespace qn
