// Private-profile files of 1,000 keys (ten sections of 100), beside what a
// program would use instead:
// - reading one key with UGetPrivateProfileString (the file read and scanned
//   on every call, the key in the middle and at the end) against inih's
//   ini_parse of the whole file, and against the library's own reader
//   walking every line of the file read into memory: a read costs no more
//   than parsing the file once;
// - writing one key with UWritePrivateProfileString (lock, read, one line
//   changed, temporary file written and flushed, renamed over the file, the
//   folder flushed) against writing the same bytes with std::ofstream and
//   renaming them over the file without flushing anything.
// The file lives on drive Y:, mapped to a fresh folder under the temporary
// folder (TMPDIR) for the run and removed at its end.
#include <benchmark/benchmark.h>
#include <ini.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/profiletext.h"
#include "quarnel/platform/profile.h"
#include "quarnel/platform/tick.h"

namespace fs = std::filesystem;

namespace {

constexpr const char16_t* kFile = u"Y:\\bench.ini";

struct Disk {
  fs::path root;
  std::string host;
  Disk() {
    root = fs::temp_directory_path() / ("quarnel-profile-bench-" + std::to_string(UGetTickCount()));
    fs::create_directories(root);
    QuarnelSetDrive(u'Y', root.c_str());
    QuarnelEnv()->acp = 1252;
    host = (root / "bench.ini").string();
    std::ofstream out(host, std::ios::binary);
    for (int s = 0; s < 10; ++s) {
      out << "[Section" << s << "]\r\n";
      for (int k = 0; k < 100; ++k)
        out << "key" << s * 100 + k << "=value " << s * 100 + k << "\r\n";
    }
  }
  ~Disk() {
    QuarnelSetDrive(u'Y', nullptr);
    std::error_code ec;
    fs::remove_all(root, ec);
  }
};

Disk& TheDisk() {
  static Disk disk;
  return disk;
}

void ReadKey(benchmark::State& state, const char16_t* section, const char16_t* key) {
  TheDisk();
  char16_t buf[256];
  for (auto _ : state) {
    const unsigned n = UGetPrivateProfileString(section, key, u"", buf, 256, kFile);
    benchmark::DoNotOptimize(n);
    if (n == 0) state.SkipWithError("key not found");
  }
}
void BM_ProfileReadMiddleKey(benchmark::State& state) { ReadKey(state, u"Section5", u"key550"); }
void BM_ProfileReadLastKey(benchmark::State& state) { ReadKey(state, u"Section9", u"key999"); }

struct Wanted {
  const char* section;
  const char* key;
  std::string value;
};

bool SameIgnoringCase(const char* a, const char* b) {
  for (; *a != 0 && *b != 0; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) !=
        std::tolower(static_cast<unsigned char>(*b)))
      return false;
  return *a == *b;
}

int Handler(void* user, const char* section, const char* name, const char* value) {
  auto* w = static_cast<Wanted*>(user);
  if (SameIgnoringCase(section, w->section) && SameIgnoringCase(name, w->key)) w->value = value;
  return 1;
}

void BM_InihParseFile(benchmark::State& state) {
  const std::string& host = TheDisk().host;
  for (auto _ : state) {
    Wanted w{"Section9", "key999", {}};
    if (ini_parse(host.c_str(), Handler, &w) != 0 || w.value.empty()) state.SkipWithError("parse");
    benchmark::DoNotOptimize(w.value);
  }
}

void BM_ProfileReaderWholeFile(benchmark::State& state) {
  const std::string& host = TheDisk().host;
  for (auto _ : state) {
    std::ifstream in(host, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    const std::string text = bytes.str();
    quarnel_internal::ProfileReader reader(text, 1252);
    quarnel_internal::ProfileLine line;
    std::size_t lines = 0;
    while (reader.Next(&line)) lines += line.kind != quarnel_internal::ProfileLine::kBlank;
    benchmark::DoNotOptimize(lines);
  }
}

void BM_ProfileWriteKey(benchmark::State& state) {
  TheDisk();
  int i = 0;
  for (auto _ : state) {
    const char16_t* value = ++i % 2 ? u"changed" : u"value 550";
    if (!UWritePrivateProfileString(u"Section5", u"key550", value, kFile))
      state.SkipWithError("write failed");
  }
}

void BM_OfstreamRewriteAndRename(benchmark::State& state) {
  const std::string& host = TheDisk().host;
  std::ifstream in(host, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  const std::string text = bytes.str(), temp = host + ".tmp";
  for (auto _ : state) {
    {
      std::ofstream out(temp, std::ios::binary);
      out << text;
    }
    fs::rename(temp, host);
  }
}

}  // namespace

BENCHMARK(BM_ProfileReadMiddleKey);
BENCHMARK(BM_ProfileReadLastKey);
BENCHMARK(BM_InihParseFile);
BENCHMARK(BM_ProfileReaderWholeFile);
BENCHMARK(BM_ProfileWriteKey)->UseRealTime();
BENCHMARK(BM_OfstreamRewriteAndRename)->UseRealTime();
