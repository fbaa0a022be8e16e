// MemComp, MemUncomp and HashBlock beside the calls a user would pick
// instead: zlib (levels 1 and 6) and LZ4 for the packer, LZ4 and zlib for
// unpacking, the one-lookup-per-byte table and zlib's crc32 (another
// polynomial, the same work) for the checksum.
//
// Corpus: text (this repository's README, docs and library sources, in path
// order), a binary (the C++ runtime, libstdc++), random bytes and zeros,
// each as 4 KiB blocks (1 MiB of them per iteration, every block
// packed by itself) and as one 16 MiB block (the file repeated). Throughput
// is of the unpacked bytes; "ratio" is packed size / unpacked size. The
// packer works in place, so each iteration first copies the data into the
// block; the peers write to a second buffer.
#include <benchmark/benchmark.h>
#include <lz4.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "quarnel/compress/compress_reference.h"
#include "quarnel/compress/hashblock.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/foundation/tmemory.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kSmall = 4096;
constexpr std::size_t kSmallTotal = std::size_t{1} << 20;  // 256 blocks of 4 KiB
constexpr std::size_t kLarge = std::size_t{16} << 20;

Bytes ReadFile(const char* path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The repository's own text: README.md, docs/ and the library's sources.
Bytes RepositoryText() {
  namespace fs = std::filesystem;
  const fs::path root = QUARNEL_SOURCE_DIR;
  std::vector<fs::path> files = {root / "README.md"};
  for (const char* folder : {"docs", "quarnel"}) {
    for (const auto& e : fs::recursive_directory_iterator(root / folder)) {
      const auto ext = e.path().extension();
      if (e.is_regular_file() && (ext == ".md" || ext == ".h" || ext == ".cpp"))
        files.push_back(e.path());
    }
  }
  std::sort(files.begin() + 1, files.end());
  Bytes text;
  for (const fs::path& f : files) {
    const Bytes b = ReadFile(f.c_str());
    text.insert(text.end(), b.begin(), b.end());
  }
  return text;
}

// `n` bytes of `source` repeated from its start.
Bytes Tile(const Bytes& source, std::size_t n) {
  Bytes out(n);
  for (std::size_t at = 0; at < n && !source.empty(); at += source.size()) {
    std::memcpy(out.data() + at, source.data(), std::min(source.size(), n - at));
  }
  return out;
}

struct Corpus {
  const char* name;
  Bytes data;  // at least kLarge bytes
};

const std::vector<Corpus>& Corpora() {
  static const std::vector<Corpus> corpora = [] {
    std::vector<Corpus> c;
    const Bytes text = RepositoryText();
    const Bytes binary = ReadFile("/usr/lib/x86_64-linux-gnu/libstdc++.so.6");
    if (!text.empty()) c.push_back({"text", Tile(text, kLarge)});
    if (!binary.empty()) c.push_back({"binary", Tile(binary, kLarge)});
    Bytes random(kLarge);
    std::mt19937 rng(1);
    for (auto& b : random) b = static_cast<std::uint8_t>(rng());
    c.push_back({"random", std::move(random)});
    c.push_back({"zeros", Bytes(kLarge, 0)});
    return c;
  }();
  return corpora;
}

// The blocks of one run: 256 of 4 KiB, or one of 16 MiB.
std::vector<std::pair<const std::uint8_t*, std::size_t>> Blocks(const Corpus& c, bool small) {
  std::vector<std::pair<const std::uint8_t*, std::size_t>> blocks;
  if (small) {
    for (std::size_t at = 0; at < kSmallTotal; at += kSmall)
      blocks.push_back({c.data.data() + at, kSmall});
  } else {
    blocks.push_back({c.data.data(), kLarge});
  }
  return blocks;
}

void Finish(benchmark::State& state, std::size_t in, std::size_t out) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * in));
  state.counters["ratio"] = in == 0 ? 0 : static_cast<double>(out) / static_cast<double>(in);
}

// --- packing --------------------------------------------------------------

void MemCompRun(benchmark::State& state, const Corpus& c, bool small) {
  const auto blocks = Blocks(c, small);
  TMemory m;  // priority 2, the default
  std::size_t in = 0;
  std::size_t out = 0;
  for (auto _ : state) {
    in = out = 0;
    for (const auto& [p, n] : blocks) {
      m.SetSize(static_cast<unsigned>(n));
      std::memcpy(m.MemPtr(), p, n);
      MemComp(&m);
      in += n;
      out += m.GetSize();
    }
    benchmark::DoNotOptimize(m.MemPtr());
  }
  Finish(state, in, out);
}

void ZlibCompressRun(benchmark::State& state, const Corpus& c, bool small, int level) {
  const auto blocks = Blocks(c, small);
  Bytes dest(compressBound(static_cast<uLong>(small ? kSmall : kLarge)));
  std::size_t in = 0;
  std::size_t out = 0;
  for (auto _ : state) {
    in = out = 0;
    for (const auto& [p, n] : blocks) {
      uLongf len = static_cast<uLongf>(dest.size());
      compress2(dest.data(), &len, p, static_cast<uLong>(n), level);
      in += n;
      out += len;
    }
    benchmark::DoNotOptimize(dest.data());
  }
  Finish(state, in, out);
}

void Lz4CompressRun(benchmark::State& state, const Corpus& c, bool small) {
  const auto blocks = Blocks(c, small);
  Bytes dest(
      static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(small ? kSmall : kLarge))));
  std::size_t in = 0;
  std::size_t out = 0;
  for (auto _ : state) {
    in = out = 0;
    for (const auto& [p, n] : blocks) {
      const int len = LZ4_compress_default(reinterpret_cast<const char*>(p),
                                           reinterpret_cast<char*>(dest.data()),
                                           static_cast<int>(n), static_cast<int>(dest.size()));
      in += n;
      out += static_cast<std::size_t>(len);
    }
    benchmark::DoNotOptimize(dest.data());
  }
  Finish(state, in, out);
}

// --- unpacking ------------------------------------------------------------

void MemUncompRun(benchmark::State& state, const Corpus& c, bool small) {
  const auto blocks = Blocks(c, small);
  std::vector<Bytes> packed;
  TMemory m;  // priority 2, the default
  for (const auto& [p, n] : blocks) {
    m.SetSize(static_cast<unsigned>(n));
    std::memcpy(m.MemPtr(), p, n);
    MemComp(&m);
    packed.emplace_back(m.MemPtr(), m.MemPtr() + m.GetSize());
  }
  std::size_t in = 0;
  std::size_t out = 0;
  for (auto _ : state) {
    in = out = 0;
    for (const Bytes& b : packed) {
      m.SetSize(static_cast<unsigned>(b.size()));
      std::memcpy(m.MemPtr(), b.data(), b.size());
      MemUncomp(&m);
      out += b.size();
      in += m.GetSize();
    }
    benchmark::DoNotOptimize(m.MemPtr());
  }
  Finish(state, in, out);
}

void Lz4DecompressRun(benchmark::State& state, const Corpus& c, bool small) {
  const auto blocks = Blocks(c, small);
  std::vector<Bytes> packed;
  std::vector<int> sizes;
  for (const auto& [p, n] : blocks) {
    Bytes dest(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(n))));
    const int len =
        LZ4_compress_default(reinterpret_cast<const char*>(p), reinterpret_cast<char*>(dest.data()),
                             static_cast<int>(n), static_cast<int>(dest.size()));
    dest.resize(static_cast<std::size_t>(len));
    packed.push_back(std::move(dest));
    sizes.push_back(static_cast<int>(n));
  }
  Bytes out(small ? kSmall : kLarge);
  std::size_t in = 0;
  std::size_t total = 0;
  for (auto _ : state) {
    in = total = 0;
    for (std::size_t k = 0; k < packed.size(); ++k) {
      LZ4_decompress_safe(reinterpret_cast<const char*>(packed[k].data()),
                          reinterpret_cast<char*>(out.data()), static_cast<int>(packed[k].size()),
                          sizes[k]);
      in += static_cast<std::size_t>(sizes[k]);
      total += packed[k].size();
    }
    benchmark::DoNotOptimize(out.data());
  }
  Finish(state, in, total);
}

void ZlibUncompressRun(benchmark::State& state, const Corpus& c, bool small) {
  const auto blocks = Blocks(c, small);
  std::vector<Bytes> packed;
  for (const auto& [p, n] : blocks) {
    Bytes dest(compressBound(static_cast<uLong>(n)));
    uLongf len = static_cast<uLongf>(dest.size());
    compress2(dest.data(), &len, p, static_cast<uLong>(n), 6);
    dest.resize(len);
    packed.push_back(std::move(dest));
  }
  Bytes out(small ? kSmall : kLarge);
  std::size_t in = 0;
  std::size_t total = 0;
  for (auto _ : state) {
    in = total = 0;
    for (const Bytes& b : packed) {
      uLongf len = static_cast<uLongf>(out.size());
      uncompress(out.data(), &len, b.data(), static_cast<uLong>(b.size()));
      in += len;
      total += b.size();
    }
    benchmark::DoNotOptimize(out.data());
  }
  Finish(state, in, total);
}

// --- checksum -------------------------------------------------------------

const Bytes& HashData() {
  static const Bytes data = Tile(Corpora()[0].data, std::size_t{1} << 20);
  return data;
}

void BM_HashBlock(benchmark::State& state) {
  const auto n = static_cast<int>(state.range(0));
  const Bytes& d = HashData();
  for (auto _ : state) benchmark::DoNotOptimize(HashBlock(d.data(), n));
  state.SetBytesProcessed(state.iterations() * n);
}

// The eight-table form alone (what HashBlock does without carry-less
// multiplication).
void BM_HashBlockSliced(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const Bytes& d = HashData();
  for (auto _ : state) benchmark::DoNotOptimize(quarnel_internal::SlicedCrc(0, d.data(), n));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

void BM_HashBlockByteTable(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const Bytes& d = HashData();
  for (auto _ : state) benchmark::DoNotOptimize(quarnel_reference::HashBlock(d.data(), n));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

void BM_ZlibCrc32(benchmark::State& state) {
  const auto n = static_cast<uInt>(state.range(0));
  const Bytes& d = HashData();
  for (auto _ : state) benchmark::DoNotOptimize(crc32(0, d.data(), n));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

BENCHMARK(BM_HashBlock)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_HashBlockSliced)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_HashBlockByteTable)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_ZlibCrc32)->Arg(4096)->Arg(1 << 20);

// One benchmark per call, corpus and block size: "MemComp/text/4K" and so on.
const bool kRegistered = [] {
  for (std::size_t k = 0; k < Corpora().size(); ++k) {
    for (bool small : {true, false}) {
      const Corpus* c = &Corpora()[k];
      const std::string suffix = std::string("/") + c->name + (small ? "/4K" : "/16M");
      benchmark::RegisterBenchmark(("MemComp" + suffix).c_str(),
                                   [c, small](benchmark::State& s) { MemCompRun(s, *c, small); });
      benchmark::RegisterBenchmark(
          ("ZlibLevel1" + suffix).c_str(),
          [c, small](benchmark::State& s) { ZlibCompressRun(s, *c, small, 1); });
      benchmark::RegisterBenchmark(
          ("ZlibLevel6" + suffix).c_str(),
          [c, small](benchmark::State& s) { ZlibCompressRun(s, *c, small, 6); });
      benchmark::RegisterBenchmark(
          ("Lz4Compress" + suffix).c_str(),
          [c, small](benchmark::State& s) { Lz4CompressRun(s, *c, small); });
      benchmark::RegisterBenchmark(("MemUncomp" + suffix).c_str(),
                                   [c, small](benchmark::State& s) { MemUncompRun(s, *c, small); });
      benchmark::RegisterBenchmark(
          ("Lz4Decompress" + suffix).c_str(),
          [c, small](benchmark::State& s) { Lz4DecompressRun(s, *c, small); });
      benchmark::RegisterBenchmark(
          ("ZlibUncompress" + suffix).c_str(),
          [c, small](benchmark::State& s) { ZlibUncompressRun(s, *c, small); });
    }
  }
  return true;
}();

}  // namespace
