// TString::SPrintf beside snprintf: a typical log line with digit grouping,
// and a lone "%d". The snprintf runs produce 8-bit text, ours UTF-16.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "quarnel/platform/env.h"
#include "quarnel/text/tstring.h"

namespace {

void UseEnUs() { QuarnelEnv()->lcid = 0x0409; }

void BM_SPrintfLogLine(benchmark::State& state) {
  UseEnUs();
  TString out;
  int n = 0;
  for (auto _ : state) {
    out.SPrintf(u"%s: %d of %d (%x) %s", "TFile::Read", 1814 + (n & 7), 123456, 0xbeef,
                "ReadFile failed on volume");
    benchmark::DoNotOptimize(out.Text());
    ++n;
  }
}
BENCHMARK(BM_SPrintfLogLine);

void BM_SnprintfLogLine(benchmark::State& state) {
  char buf[512];
  int n = 0;
  for (auto _ : state) {
    std::snprintf(buf, sizeof buf, "%s: %'d of %'d (%x) %s", "TFile::Read", 1814 + (n & 7), 123456,
                  0xbeef, "ReadFile failed on volume");
    benchmark::DoNotOptimize(buf);
    ++n;
  }
}
BENCHMARK(BM_SnprintfLogLine);

void BM_SPrintfInt(benchmark::State& state) {
  UseEnUs();
  TString out;
  int n = 0;
  for (auto _ : state) {
    out.SPrintf(u"%d", 123 + (n & 7));
    benchmark::DoNotOptimize(out.Text());
    ++n;
  }
}
BENCHMARK(BM_SPrintfInt);

void BM_SnprintfInt(benchmark::State& state) {
  char buf[64];
  int n = 0;
  for (auto _ : state) {
    std::snprintf(buf, sizeof buf, "%d", 123 + (n & 7));
    benchmark::DoNotOptimize(buf);
    ++n;
  }
}
BENCHMARK(BM_SnprintfInt);

}  // namespace
