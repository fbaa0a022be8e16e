// quarnel_interop: the stored forms, written by one build and read by the
// other. The Windows build (under Wine) and the Linux build each write every
// row's file into a folder, and each reads every file the other wrote:
//
//   quarnel_interop write FOLDER    writes one file per row
//   quarnel_interop check FOLDER    reads them back: each file must hold
//                                   exactly the bytes this build writes for
//                                   the row, and read back to the row's content
//   quarnel_interop change FOLDER   changes the chunk file and the profile
//                                   the other build wrote, and saves them
//   quarnel_interop reopen FOLDER   reopens them: each holds exactly what the
//                                   change made of it
//
// tools/interop.sh runs both directions. A row is a stored form: how this
// build makes its bytes, and how it reads bytes back and checks what they
// hold. A new stored form is a new row.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/containers/elementspace.h"
#include "quarnel/datetime/tdate.h"
#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/profile.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Row {
  const char* file;
  std::function<Bytes()> make;
  // "" when the bytes read back to the row's content, else what differs.
  std::function<std::string(const Bytes&)> read;
};

bool Equal(const auto& a, const auto& b) { return a == b; }
bool SamePath(const auto& a, const auto& b) { return a.Path().Identical(b.Path()) != 0; }

// A value stored by its Export and read back by Import: `same` compares what
// Import gave with the value.
template <class T>
Row ValueRow(const char* file, const T& value, bool (*same)(const T&, const T&) = Equal) {
  return {file,
          [stored = value]() mutable {
            Bytes out(static_cast<std::size_t>(stored.StoreSize()));
            const int n = stored.Export(out.data(), static_cast<int>(out.size()));
            out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
            return out;
          },
          [value, same](const Bytes& bytes) -> std::string {
            T got;
            const int err = got.Import(bytes.data(), static_cast<int>(bytes.size()));
            if (err < 0) return "Import failed with " + std::to_string(err);
            return same(got, value) ? "" : "Import gave another value";
          }};
}

// ---- persistence header ----
constexpr unsigned kTestSignature = 0x5473742E;  // 'Tst.'

Bytes MakeHeader() {
  PersistHeader h;
  _initpersist(&h, kTestSignature, 2, 3);
  Bytes out(sizeof h);
  std::memcpy(out.data(), &h, sizeof h);
  return out;
}

std::string ReadHeader(const Bytes& bytes) {
  if (bytes.size() != sizeof(PersistHeader)) return "not 8 bytes";
  PersistHeader h;
  std::memcpy(&h, bytes.data(), sizeof h);
  const int err = _checkpersist(&h, kTestSignature, 3, 3);
  return err == 0 ? "" : "_checkpersist gave " + std::to_string(err);
}

// ---- locations and volumes (their paths as written, nothing resolved) ----
template <class T>
T At(const char16_t* path) {
  T value;
  const TString p(path);
  if constexpr (std::is_same_v<T, TVol>) {
    value.Set(&p, 0);
  } else {
    value.SetPath(&p);
  }
  return value;
}

// ---- element spaces ----
Bytes MakeSpace() {
  ElementSpace space(256, 0);
  const char* items[] = {"alpha", "", "gamma gamma", "delta", "epsilon: a longer element"};
  for (const char* item : items) space.LmAdd(item, static_cast<int>(std::strlen(item)));
  space.LmRemove(4);
  space.LmAdd("zeta", 4);
  space.LmCompress();
  return Bytes(space.MemPtr(), space.MemPtr() + space.GetSize());
}

std::string ReadSpace(const Bytes& bytes) {
  ElementSpace space(256, 0);
  if (space.SetSize(static_cast<unsigned>(bytes.size())) != 0) return "SetSize failed";
  std::memcpy(space.MemPtr(), bytes.data(), bytes.size());
  if (const int bad = space.LmValid()) return "LmValid gave " + std::to_string(bad);
  std::string got;
  for (auto element : space) {
    got += std::to_string(element.refnum) + "=" + std::string(element.data, element.size) + ";";
  }
  const std::string want = "1=alpha;2=;3=gamma gamma;4=zeta;5=epsilon: a longer element;";
  return got == want ? "" : "elements " + got;
}

// ---- packed blocks ----
Bytes Text() {
  std::string s;
  for (int i = 0; i < 200; ++i)
    s += "The chunk store keeps its map at the end. " + std::to_string(i);
  return Bytes(s.begin(), s.end());
}

Bytes Zeros() { return Bytes(10000, 0); }

Bytes Noise() {
  std::mt19937 rng(1970);
  Bytes b(5000);
  for (unsigned char& c : b) c = static_cast<unsigned char>(rng());
  return b;
}

Bytes Packed(const Bytes& plain) {
  TMemory block;
  if (block.SetSize(static_cast<unsigned>(plain.size())) != 0) return {};
  if (!plain.empty()) std::memcpy(block.MemPtr(), plain.data(), plain.size());
  if (MemComp(&block) != 0) return {};
  return Bytes(block.MemPtr(), block.MemPtr() + block.GetSize());
}

std::string Unpacked(const Bytes& packed, const Bytes& plain) {
  TMemory block;
  if (block.SetSize(static_cast<unsigned>(packed.size())) != 0) return "SetSize failed";
  std::memcpy(block.MemPtr(), packed.data(), packed.size());
  const int err = MemUncomp(&block);
  if (err != 0) return "MemUncomp gave " + std::to_string(err);
  if (Bytes(block.MemPtr(), block.MemPtr() + block.GetSize()) != plain) return "other bytes";
  return "";
}

const Row kRows[] = {
    {"persist_header.bin", MakeHeader, ReadHeader},
    ValueRow("tstring_ascii.bin", TString(u"Vellomarch 4.2")),
    ValueRow("tstring_wide.bin", TString(u"Gr\u00FC\u00DFe \u65E5\u672C \U0001F600 \u20AC")),
    ValueRow("tdate.bin", TDate(2024, 3, 5, 14, 7, 9, 123)),
    ValueRow("tdate_earliest.bin", TDate(1601, 1, 1, 0, 0, 0, 0)),
    ValueRow("tdatestep.bin", TDateStep(1, 2, 3, 4, 5, 6, 7, 890)),
    ValueRow("tinterval.bin", TInterval(3, 4, 5, 6, 789)),
    ValueRow("folderloc.bin", At<TFolderLoc>(u"C:\\Vellomarch\\Dokumente f\u00FCr 2024"), SamePath),
    ValueRow("folderloc_share.bin", At<TFolderLoc>(u"\\\\srv\\share\\Projekte"), SamePath),
    ValueRow("fileloc.bin", At<TFileLoc>(u"D:\\Notes\\\u65E5\u672C.vmd"), SamePath),
    ValueRow("tvol.bin", At<TVol>(u"C:\\"), SamePath),
    ValueRow("tvol_share.bin", At<TVol>(u"\\\\srv\\share\\"), SamePath),
    {"elementspace.bin", MakeSpace, ReadSpace},
    {"memcomp_text.bin", [] { return Packed(Text()); },
     [](const Bytes& b) { return Unpacked(b, Text()); }},
    {"memcomp_zeros.bin", [] { return Packed(Zeros()); },
     [](const Bytes& b) { return Unpacked(b, Zeros()); }},
    {"memcomp_noise.bin", [] { return Packed(Noise()); },
     [](const Bytes& b) { return Unpacked(b, Noise()); }},
};

// ---- a chunk file and a profile that both builds change ----
using Chunks = std::map<std::pair<int, int>, std::string>;
constexpr int kText = 0x54657874;  // 'Text'
constexpr int kNums = 0x4E756D73;  // 'Nums'

std::string Pattern(std::size_t n, int seed) {
  std::mt19937 rng(static_cast<unsigned>(seed));
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>('a' + rng() % 7);
  return s;
}

const Chunks& Saved() {
  static const Chunks c = {{{kText, 1}, "Dear reader,"},
                           {{kText, 2}, Pattern(3000, 2)},
                           {{kNums, -5}, std::string("\x01\x00\x02\x00", 4)},
                           {{kNums, 9}, ""}};
  return c;
}

// Saved() as the other build's change leaves it: one chunk rewritten and
// grown, one removed, one added.
const Chunks& Changed() {
  static const Chunks c = {{{kText, 1}, "Dear reader, " + Pattern(5000, 1)},
                           {{kNums, -5}, std::string("\x01\x00\x02\x00", 4)},
                           {{kNums, 9}, ""},
                           {{kText, 3}, Pattern(20000, 3)}};
  return c;
}

TFileLoc LocOf(const std::string& host) {
  char16_t path[1024];
  TFileLoc loc;
  if (ULocFromHostPath(host.c_str(), path, 1024) == 0) return loc;
  const TString p(path);
  loc.SetPath(&p);
  return loc;
}

std::u16string ProfileOf(const std::string& host) {
  char16_t path[1024];
  return ULocFromHostPath(host.c_str(), path, 1024) ? std::u16string(path) : std::u16string();
}

TMemory* Block(const std::string& s) {
  auto* h = new TMemory;
  if (h->SetSize(static_cast<unsigned>(s.size())) != 0) return h;
  if (!s.empty()) std::memcpy(h->MemPtr(), s.data(), s.size());
  return h;
}

// Every chunk of the store, or "" with *why set.
Chunks ReadStore(ChunkManager* m, std::string* why) {
  Chunks c;
  for (int t = 1; t <= m->CHCountTypes(); ++t) {
    const int type = m->CHEnumType(t);
    for (int n = 1; n <= m->CHCountChunks(type); ++n) {
      const int id = m->CHEnumChunk(type, n);
      TMemory* h = nullptr;
      if (const int err = m->CHGetChunk(type, id, &h); err != 0 || h == nullptr) {
        *why = "CHGetChunk gave " + std::to_string(err);
        return c;
      }
      c[{type, id}] = std::string(reinterpret_cast<const char*>(h->MemPtr()), h->GetSize());
    }
  }
  return c;
}

std::string WriteStore(const std::string& host) {
  std::ofstream(host, std::ios::binary | std::ios::trunc);  // an empty file is a new store
  TFileLoc loc = LocOf(host);
  ChunkManager m;
  if (const int err = m.CHOpen(&loc, 3)) return "CHOpen gave " + std::to_string(err);
  for (const auto& [key, data] : Saved())
    if (const int err = m.CHAddChunk(Block(data), key.first, key.second))
      return "CHAddChunk gave " + std::to_string(err);
  const int err = m.CHSave();
  return err == 0 ? "" : "CHSave gave " + std::to_string(err);
}

std::string ChangeStore(const std::string& host) {
  TFileLoc loc = LocOf(host);
  ChunkManager m;
  if (const int err = m.CHOpen(&loc, 3)) return "CHOpen gave " + std::to_string(err);
  for (const auto& [key, data] : Saved()) {
    if (Changed().count(key) != 0) continue;
    TMemory* h = nullptr;
    if (m.CHGetChunk(key.first, key.second, &h) != 0 || m.CHRemoveChunk(h) != 0)
      return "cannot remove a chunk";
    delete h;  // given back to the caller
  }
  for (const auto& [key, data] : Changed()) {
    const auto old = Saved().find(key);
    if (old != Saved().end() && old->second == data) continue;
    if (old == Saved().end()) {
      if (m.CHAddChunk(Block(data), key.first, key.second) != 0) return "cannot add a chunk";
      continue;
    }
    TMemory* h = nullptr;
    if (m.CHGetChunk(key.first, key.second, &h) != 0 ||
        h->SetSize(static_cast<unsigned>(data.size())) != 0)
      return "cannot change a chunk";
    std::memcpy(h->MemPtr(), data.data(), data.size());
    if (m.CHChangedChunk(h) != 0) return "CHChangedChunk failed";
  }
  const int err = m.CHSave();
  return err == 0 ? "" : "CHSave gave " + std::to_string(err);
}

std::string CheckStore(const std::string& host, const Chunks& want) {
  TFileLoc loc = LocOf(host);
  ChunkManager m;
  if (const int err = m.CHOpen(&loc, 1)) return "CHOpen gave " + std::to_string(err);
  if (const int err = m.CHVerify()) return "CHVerify gave " + std::to_string(err);
  std::string why;
  const Chunks got = ReadStore(&m, &why);
  if (!why.empty()) return why;
  return got == want ? "" : "other chunks (" + std::to_string(got.size()) + ")";
}

// The profile's keys, in order, as "section/key=value;".
std::string ProfileText(const std::u16string& file) {
  std::string out;
  char16_t names[4096], keys[4096], value[512];
  UGetPrivateProfileString(nullptr, nullptr, u"", names, 4096, file.c_str());
  for (const char16_t* s = names; *s != 0; s += std::char_traits<char16_t>::length(s) + 1) {
    UGetPrivateProfileString(s, nullptr, u"", keys, 4096, file.c_str());
    for (const char16_t* k = keys; *k != 0; k += std::char_traits<char16_t>::length(k) + 1) {
      UGetPrivateProfileString(s, k, u"", value, 512, file.c_str());
      out += TString(s).ToUtf8() + "/" + TString(k).ToUtf8() + "=" + TString(value).ToUtf8() + ";";
    }
  }
  return out;
}

const char kSavedProfile[] =
    "Paths/Documents=C:\\Vellomarch\\Dokumente f\xC3\xBCr 2024;Window/Width=1024;"
    "Window/Height=768;";
const char kChangedProfile[] = "Window/Width=1280;Window/Height=768;Recent/File1=D:\\Notes\\x.vmd;";

std::string WriteProfile(const std::u16string& file) {
  std::remove(TString(file.c_str()).ToUtf8().c_str());
  const bool ok =
      UWritePrivateProfileString(u"Paths", u"Documents", u"C:\\Vellomarch\\Dokumente f\u00FCr 2024",
                                 file.c_str()) &&
      UWritePrivateProfileString(u"Window", u"Width", u"1024", file.c_str()) &&
      UWritePrivateProfileString(u"Window", u"Height", u"768", file.c_str());
  return ok ? "" : "UWritePrivateProfileString failed";
}

std::string ChangeProfile(const std::u16string& file) {
  const bool ok =
      UWritePrivateProfileString(u"Paths", nullptr, nullptr, file.c_str()) &&
      UWritePrivateProfileString(u"Window", u"Width", u"1280", file.c_str()) &&
      UWritePrivateProfileString(u"Recent", u"File1", u"D:\\Notes\\x.vmd", file.c_str());
  return ok ? "" : "UWritePrivateProfileString failed";
}

std::string CheckProfile(const std::u16string& file, const char* want) {
  const std::string got = ProfileText(file);
  return got == want ? "" : "holds " + got;
}

bool ReadFile(const std::string& path, Bytes* bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  if (mode != "write" && mode != "check" && mode != "change" && mode != "reopen") {
    std::fprintf(stderr, "usage: quarnel_interop write|check|change|reopen FOLDER\n");
    return 2;
  }
  const std::string folder = argv[2];
  // A profile without a byte-order mark is text in the environment record's
  // code page: the two builds share files when they share the page, as
  // Windows machines of one country do.
  QuarnelEnv()->acp = 1252;
  // The library's own texts, for its log lines: beside the program on
  // Windows, on the loader's path on Linux.
  TString texts(u"vellores.dll");
  if (DLLoadLib(&texts) != 0) std::fprintf(stderr, "quarnel_interop: vellores.dll not found\n");
  int passed = 0;
  int failed = 0;
  // The chunk file and the profile: written by one build, read, changed and
  // saved by the other, reopened by the first.
  const std::string store = folder + "/store.chk", profileHost = folder + "/settings.ini";
  const std::u16string profile = ProfileOf(profileHost);
  const std::pair<const char*, std::string> changing[] = {
      {"store.chk", mode == "write"    ? WriteStore(store)
                    : mode == "check"  ? CheckStore(store, Saved())
                    : mode == "change" ? ChangeStore(store)
                                       : CheckStore(store, Changed())},
      {"settings.ini", profile.empty()    ? "no path for " + profileHost
                       : mode == "write"  ? WriteProfile(profile)
                       : mode == "check"  ? CheckProfile(profile, kSavedProfile)
                       : mode == "change" ? ChangeProfile(profile)
                                          : CheckProfile(profile, kChangedProfile)}};
  for (const auto& [file, why] : changing) {
    (why.empty() ? passed : failed) += 1;
    std::printf("%s %s %s%s%s\n", why.empty() ? "ok  " : "FAIL", mode.c_str(), file,
                why.empty() ? "" : ": ", why.c_str());
  }
  if (mode == "change" || mode == "reopen") {
    std::printf("interop %s: %d passed, %d failed\n", mode.c_str(), passed, failed);
    return failed == 0 ? 0 : 1;
  }
  for (const Row& row : kRows) {
    const std::string path = folder + "/" + row.file;
    const Bytes mine = row.make();
    std::string why;
    if (mine.empty()) {
      why = "this build could not make the row";
    } else if (mode == "write") {
      if (!WriteFile(path, mine)) why = "cannot write " + path;
    } else {
      Bytes theirs;
      if (!ReadFile(path, &theirs)) {
        why = "cannot read " + path;
      } else if (theirs != mine) {
        why = "bytes differ (" + std::to_string(theirs.size()) + " read, " +
              std::to_string(mine.size()) + " written here)";
      } else {
        why = row.read(theirs);
      }
    }
    if (why.empty()) {
      ++passed;
      std::printf("ok   %s %s\n", mode.c_str(), row.file);
    } else {
      ++failed;
      std::printf("FAIL %s %s: %s\n", mode.c_str(), row.file, why.c_str());
    }
  }
  std::printf("interop %s: %d passed, %d failed\n", mode.c_str(), passed, failed);
  return failed == 0 ? 0 : 1;
}
