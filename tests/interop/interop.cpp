// quarnel_interop: the stored forms, written by one build and read by the
// other. The Windows build (under Wine) and the Linux build each write every
// row's file into a folder, and each reads every file the other wrote:
//
//   quarnel_interop write FOLDER    writes one file per row
//   quarnel_interop check FOLDER    reads them back: each file must hold
//                                   exactly the bytes this build writes for
//                                   the row, and read back to the row's content
//
// tools/interop.sh runs both directions. A row is a stored form: how this
// build makes its bytes, and how it reads bytes back and checks what they
// hold. A new stored form is a new row.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "quarnel/compress/memcomp.h"
#include "quarnel/containers/elementspace.h"
#include "quarnel/datetime/tdate.h"
#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Row {
  const char* file;
  Bytes (*make)();
  // "" when the bytes read back to the row's content, else what differs.
  std::string (*read)(const Bytes& bytes);
};

template <class T>
Bytes Exported(const T& value, int size) {
  Bytes out(static_cast<std::size_t>(size));
  const int n = const_cast<T&>(value).Export(out.data(), size);
  if (n < 0) return {};
  out.resize(static_cast<std::size_t>(n));
  return out;
}

template <class T>
std::string ImportedEquals(const Bytes& bytes, const T& expected) {
  T got;
  const int err = got.Import(bytes.data(), static_cast<int>(bytes.size()));
  if (err < 0) return "Import failed with " + std::to_string(err);
  return got == expected ? "" : "Import gave another value";
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

// ---- strings ----
const char16_t kAsciiText[] = u"Vellomarch 4.2";
const char16_t kWideText[] = u"Gr\u00FC\u00DFe \u65E5\u672C \U0001F600 \u20AC";

Bytes MakeString(const char16_t* text) {
  const TString s(text);
  Bytes out(s.StoreSize());
  const int n = s.Export(out.data(), static_cast<int>(out.size()));
  if (n < 0) return {};
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string ReadString(const Bytes& bytes, const char16_t* text) {
  TString got;
  const int err = got.Import(bytes.data(), static_cast<int>(bytes.size()));
  if (err < 0) return "Import failed with " + std::to_string(err);
  return got.Identical(text) ? "" : "Import gave \"" + got.ToUtf8() + "\"";
}

// ---- dates, steps and intervals ----
const TDate kDate(2024, 3, 5, 14, 7, 9, 123);
const TDate kEarliestDate(1601, 1, 1, 0, 0, 0, 0);
const TDateStep kStep(1, 2, 3, 4, 5, 6, 7, 890);
const TInterval kInterval(3, 4, 5, 6, 789);

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

template <class T>
Bytes Stored(const char16_t* path) {
  const T value = At<T>(path);
  return Exported(value, static_cast<int>(value.StoreSize()));
}

template <class T>
std::string ReadStored(const Bytes& bytes, const char16_t* path) {
  T got;
  const int err = got.Import(bytes.data(), static_cast<int>(bytes.size()));
  if (err < 0) return "Import failed with " + std::to_string(err);
  return got.Path().Identical(path) ? "" : "Import gave another path";
}

const char16_t kFolderPath[] = u"C:\\Vellomarch\\Dokumente f\u00FCr 2024";
const char16_t kSharePath[] = u"\\\\srv\\share\\Projekte";
const char16_t kFilePath[] = u"D:\\Notes\\\u65E5\u672C.vmd";
const char16_t kVolPath[] = u"C:\\";
const char16_t kShareVolPath[] = u"\\\\srv\\share\\";

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
    {"tstring_ascii.bin", [] { return MakeString(kAsciiText); },
     [](const Bytes& b) { return ReadString(b, kAsciiText); }},
    {"tstring_wide.bin", [] { return MakeString(kWideText); },
     [](const Bytes& b) { return ReadString(b, kWideText); }},
    {"tdate.bin", [] { return Exported(kDate, kDate.StoreSize()); },
     [](const Bytes& b) { return ImportedEquals(b, kDate); }},
    {"tdate_earliest.bin", [] { return Exported(kEarliestDate, kEarliestDate.StoreSize()); },
     [](const Bytes& b) { return ImportedEquals(b, kEarliestDate); }},
    {"tdatestep.bin", [] { return Exported(kStep, kStep.StoreSize()); },
     [](const Bytes& b) { return ImportedEquals(b, kStep); }},
    {"tinterval.bin",
     [] { return Exported(kInterval, const_cast<TInterval&>(kInterval).StoreSize()); },
     [](const Bytes& b) { return ImportedEquals(b, kInterval); }},
    {"folderloc.bin", [] { return Stored<TFolderLoc>(kFolderPath); },
     [](const Bytes& b) { return ReadStored<TFolderLoc>(b, kFolderPath); }},
    {"folderloc_share.bin", [] { return Stored<TFolderLoc>(kSharePath); },
     [](const Bytes& b) { return ReadStored<TFolderLoc>(b, kSharePath); }},
    {"fileloc.bin", [] { return Stored<TFileLoc>(kFilePath); },
     [](const Bytes& b) { return ReadStored<TFileLoc>(b, kFilePath); }},
    {"tvol.bin", [] { return Stored<TVol>(kVolPath); },
     [](const Bytes& b) { return ReadStored<TVol>(b, kVolPath); }},
    {"tvol_share.bin", [] { return Stored<TVol>(kShareVolPath); },
     [](const Bytes& b) { return ReadStored<TVol>(b, kShareVolPath); }},
    {"elementspace.bin", MakeSpace, ReadSpace},
    {"memcomp_text.bin", [] { return Packed(Text()); },
     [](const Bytes& b) { return Unpacked(b, Text()); }},
    {"memcomp_zeros.bin", [] { return Packed(Zeros()); },
     [](const Bytes& b) { return Unpacked(b, Zeros()); }},
    {"memcomp_noise.bin", [] { return Packed(Noise()); },
     [](const Bytes& b) { return Unpacked(b, Noise()); }},
};

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
  if (mode != "write" && mode != "check") {
    std::fprintf(stderr, "usage: quarnel_interop write|check FOLDER\n");
    return 2;
  }
  const std::string folder = argv[2];
  // The library's own texts, for its log lines: beside the program on
  // Windows, on the loader's path on Linux.
  TString texts(u"vellores.dll");
  if (DLLoadLib(&texts) != 0) std::fprintf(stderr, "quarnel_interop: vellores.dll not found\n");
  int passed = 0;
  int failed = 0;
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
