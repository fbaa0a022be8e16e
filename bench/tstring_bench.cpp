// TString beside std::u16string: assign, append, find, compare and copy for
// 16-, 200- and 2,000-unit strings. Up to 261 units a TString stays inside
// the object, so it never touches the heap.
#include <benchmark/benchmark.h>

#include <string>

#include "quarnel/text/tstring.h"

namespace {

std::u16string Text(int n, char16_t last = u'z') {
  std::u16string t;
  for (int i = 0; i < n - 1; ++i) t += static_cast<char16_t>(u'a' + i % 23);
  t += last;
  return t;
}

void BM_TStringAssign(benchmark::State& state) {
  const std::u16string src = Text(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    TString s;
    s.Assign(src.data(), static_cast<short>(src.size()));
    benchmark::DoNotOptimize(s.Text());
  }
}

void BM_U16Assign(benchmark::State& state) {
  const std::u16string src = Text(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::u16string s;
    s.assign(src.data(), src.size());
    benchmark::DoNotOptimize(s.data());
  }
}

// Builds the string in eight appends.
void BM_TStringAppend(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::u16string piece = Text(n / 8);
  for (auto _ : state) {
    TString s;
    for (int i = 0; i < 8; ++i) s.Append(piece.data(), static_cast<short>(piece.size()));
    benchmark::DoNotOptimize(s.Text());
  }
}

void BM_U16Append(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::u16string piece = Text(n / 8);
  for (auto _ : state) {
    std::u16string s;
    for (int i = 0; i < 8; ++i) s.append(piece.data(), piece.size());
    benchmark::DoNotOptimize(s.data());
  }
}

// The needle sits at the very end.
void BM_TStringFind(benchmark::State& state) {
  const TString hay(Text(static_cast<int>(state.range(0)), u'!').c_str());
  const TString needle(u"xyz!");
  for (auto _ : state) benchmark::DoNotOptimize(hay.FindSubstring(&needle, 0, 1));
}

void BM_U16Find(benchmark::State& state) {
  const std::u16string hay = Text(static_cast<int>(state.range(0)), u'!');
  const std::u16string needle = u"xyz!";
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
}

// Equal strings: every unit is compared.
void BM_TStringIdentical(benchmark::State& state) {
  const TString a(Text(static_cast<int>(state.range(0))).c_str());
  const TString b(a);
  for (auto _ : state) benchmark::DoNotOptimize(a.Identical(b));
}

void BM_TStringEqualOperator(benchmark::State& state) {
  const TString a(Text(static_cast<int>(state.range(0))).c_str());
  const TString b(a);
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
}

void BM_TStringCompareExact(benchmark::State& state) {
  const TString a(Text(static_cast<int>(state.range(0))).c_str());
  const TString b(a);
  for (auto _ : state) benchmark::DoNotOptimize(a.Compare(b, 1));
}

void BM_U16Equal(benchmark::State& state) {
  const std::u16string a = Text(static_cast<int>(state.range(0)));
  const std::u16string b = a;
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
}

void BM_U16Compare(benchmark::State& state) {
  const std::u16string a = Text(static_cast<int>(state.range(0)));
  const std::u16string b = a;
  for (auto _ : state) benchmark::DoNotOptimize(a.compare(b));
}

void BM_TStringCopy(benchmark::State& state) {
  const TString src(Text(static_cast<int>(state.range(0))).c_str());
  for (auto _ : state) {
    TString copy(src);
    benchmark::DoNotOptimize(copy.Text());
  }
}

void BM_U16Copy(benchmark::State& state) {
  const std::u16string src = Text(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::u16string copy(src);
    benchmark::DoNotOptimize(copy.data());
  }
}

}  // namespace

#define QN_SIZES Arg(16)->Arg(200)->Arg(2000)
BENCHMARK(BM_TStringAssign)->QN_SIZES;
BENCHMARK(BM_U16Assign)->QN_SIZES;
BENCHMARK(BM_TStringAppend)->QN_SIZES;
BENCHMARK(BM_U16Append)->QN_SIZES;
BENCHMARK(BM_TStringFind)->QN_SIZES;
BENCHMARK(BM_U16Find)->QN_SIZES;
BENCHMARK(BM_TStringIdentical)->QN_SIZES;
BENCHMARK(BM_TStringEqualOperator)->QN_SIZES;
BENCHMARK(BM_TStringCompareExact)->QN_SIZES;
BENCHMARK(BM_U16Equal)->QN_SIZES;
BENCHMARK(BM_U16Compare)->QN_SIZES;
BENCHMARK(BM_TStringCopy)->QN_SIZES;
BENCHMARK(BM_U16Copy)->QN_SIZES;
