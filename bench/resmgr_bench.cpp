// Error messages and string lists. SPrintf of a log line with %E (the
// message found through the module ranges in the default resource module)
// and a grouped %d, beside snprintf of the same line with strerror; and
// LoadKString of the last entry of a 200-entry list, beside a std::map
// lookup that copies the text out.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "quarnel/foundation/errors.h"
#include "quarnel/platform/env.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace {

// The default resource module sits beside the library, one folder above
// this program (build/bench/bench/resmgr_bench, build/bench/libvellores.so).
bool LoadVellores() {
  static const bool loaded = [] {
    QuarnelEnv()->lcid = 0x0409;
    const std::string app = QuarnelEnv()->appFolder;
    QuarnelEnv()->appFolder = app + "/..";
    TString name(u"vellores.dll");
    const int err = DLLoadLib(&name);
    QuarnelEnv()->appFolder = app;
    return err == kErrNone;
  }();
  return loaded;
}

void BM_SPrintfErrorLine(benchmark::State& state) {
  if (!LoadVellores()) {
    state.SkipWithError("vellores.dll not found");
    return;
  }
  TString out;
  int n = 0;
  for (auto _ : state) {
    out.SPrintf(u"SaveChunk: WriteFile failed, %E, %d bytes written", kErrDiskFull,
                1234567 + (n & 7));
    benchmark::DoNotOptimize(out.Text());
    ++n;
  }
}
BENCHMARK(BM_SPrintfErrorLine);

void BM_SnprintfStrerrorLine(benchmark::State& state) {
  char buf[256];
  int n = 0;
  for (auto _ : state) {
    std::snprintf(buf, sizeof buf, "SaveChunk: WriteFile failed, %s, %'d bytes written",
                  std::strerror(ENOSPC), 1234567 + (n & 7));
    benchmark::DoNotOptimize(buf);
    ++n;
  }
}
BENCHMARK(BM_SnprintfStrerrorLine);

std::string Tag(int i) {
  return std::string("K") + static_cast<char>('0' + i / 100) +
         static_cast<char>('0' + i / 10 % 10) + static_cast<char>('0' + i % 10);
}

std::vector<unsigned char> List200() {
  std::vector<unsigned char> list;
  for (int i = 0; i < 200; ++i) {
    const std::string text = "entry number " + std::to_string(i);
    const unsigned len = static_cast<unsigned>(4 + text.size());
    list.push_back(static_cast<unsigned char>(len));
    list.push_back(static_cast<unsigned char>(len >> 8));
    const std::string tag = Tag(i);
    list.insert(list.end(), tag.begin(), tag.end());
    list.insert(list.end(), text.begin(), text.end());
    if (len & 1) list.push_back(0);
  }
  list.push_back(0xFF);
  list.push_back(0xFF);
  return list;
}

constexpr unsigned kLastKey = ('K' << 24) | ('1' << 16) | ('9' << 8) | '9';

void BM_LoadKStringLastOf200(benchmark::State& state) {
  static const std::vector<unsigned char> list = List200();
  RMAddHostKList(31000, list.data(), static_cast<int>(list.size()));
  TString out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(out.LoadKString(31000, kLastKey));
    benchmark::DoNotOptimize(out.Text());
  }
  RMAddHostKList(31000, nullptr, 0);
}
BENCHMARK(BM_LoadKStringLastOf200);

void BM_MapLookupOf200(benchmark::State& state) {
  std::map<unsigned, std::string> map;
  for (int i = 0; i < 200; ++i) {
    const std::string tag = Tag(i);
    const unsigned key = (unsigned(tag[0]) << 24) | (unsigned(tag[1]) << 16) |
                         (unsigned(tag[2]) << 8) | unsigned(tag[3]);
    map[key] = "entry number " + std::to_string(i);
  }
  std::string out;
  for (auto _ : state) {
    out = map.find(kLastKey)->second;
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_MapLookupOf200);

}  // namespace
