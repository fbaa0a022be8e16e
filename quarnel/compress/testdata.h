// Generated data for the compression tests, benchmarks and fuzz seeds:
// deterministic for a given random engine.
#ifndef QUARNEL_COMPRESS_TESTDATA_H_
#define QUARNEL_COMPRESS_TESTDATA_H_

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace quarnel_testdata {

enum class DataKind {
  kRandom,      // uniform bytes
  kLowEntropy,  // a few symbols
  kPattern,     // a repeated pattern with rare changes
  kText,        // words, blanks and punctuation
  kAllEqual,    // one byte
  kNearBudget,  // random with a few runs: codes to about its own size
  kSparse,      // mostly zeros with scattered bytes, like a binary's tables
  kRuns,        // runs of a few byte values, of many lengths
};
constexpr int kDataKinds = 8;

inline std::vector<std::uint8_t> Generate(DataKind kind, std::size_t n, std::mt19937& rng) {
  std::vector<std::uint8_t> out;
  out.reserve(n);
  auto byte = [&] { return static_cast<std::uint8_t>(rng()); };
  switch (kind) {
    case DataKind::kRandom:
      while (out.size() < n) out.push_back(byte());
      break;
    case DataKind::kLowEntropy: {
      std::uint8_t symbols[6];
      for (auto& s : symbols) s = byte();
      const unsigned count = 2 + rng() % 5;
      while (out.size() < n) out.push_back(symbols[rng() % count]);
      break;
    }
    case DataKind::kPattern: {
      std::vector<std::uint8_t> pattern(1 + rng() % 300);
      for (auto& b : pattern) b = byte();
      for (std::size_t i = 0; out.size() < n; ++i) {
        out.push_back(rng() % 64 == 0 ? byte() : pattern[i % pattern.size()]);
      }
      break;
    }
    case DataKind::kText: {
      static const char* const kWords[] = {
          "the",     "block",    "segment", "of",    "and",       "packed", "a",     "to",
          "is",      "in",       "memory",  "data",  "position",  "match",  "bytes", "length",
          "literal", "run",      "library", "every", "compress",  "chunk",  "file",  "store",
          "when",    "which",    "trailer", "from",  "with",      "that",   "size",  "offset",
          "quarnel", "checksum", "table",   "value", "procedure", "poll",   "word",  "it"};
      static const char* const kGaps[] = {" ", " ", " ", " ", ", ", ". ", "\n", " (", ") "};
      while (out.size() < n) {
        std::string piece = kWords[rng() % (sizeof kWords / sizeof *kWords)];
        piece += kGaps[rng() % (sizeof kGaps / sizeof *kGaps)];
        for (char c : piece) {
          if (out.size() < n) out.push_back(static_cast<std::uint8_t>(c));
        }
      }
      break;
    }
    case DataKind::kAllEqual:
      out.assign(n, byte());
      break;
    case DataKind::kNearBudget: {
      while (out.size() < n) out.push_back(byte());
      const unsigned runs = rng() % 3;
      for (unsigned r = 0; r < runs && n > 40; ++r) {
        const std::size_t len = rng() % 24;
        const std::size_t at = rng() % (n - len);
        for (std::size_t k = 0; k < len; ++k) out[at + k] = 0;
      }
      break;
    }
    case DataKind::kSparse:
      while (out.size() < n) out.push_back(rng() % 8 == 0 ? byte() : 0);
      break;
    case DataKind::kRuns: {
      const std::uint8_t values[] = {0x00, 0x00, 0xFF, 0x20, byte()};
      while (out.size() < n) {
        const std::uint8_t b = values[rng() % 5];
        std::size_t len = rng() % 8 == 0 ? 1 + rng() % 300 : 1 + rng() % 12;
        while (len-- > 0 && out.size() < n) out.push_back(b);
        if (rng() % 4 == 0 && out.size() < n) out.push_back(byte());
      }
      break;
    }
  }
  return out;
}

// Pieces of every kind, of random lengths, one after the other (runs of one
// byte at most 700 bytes long).
inline std::vector<std::uint8_t> GenerateMixed(std::size_t n, std::mt19937& rng) {
  std::vector<std::uint8_t> out;
  out.reserve(n);
  while (out.size() < n) {
    const auto kind = static_cast<DataKind>(rng() % kDataKinds);
    std::size_t len = 1 + rng() % 6000;
    if (kind == DataKind::kAllEqual) len = 1 + len % 700;
    if (len > n - out.size()) len = n - out.size();
    const std::vector<std::uint8_t> piece = Generate(kind, len, rng);
    out.insert(out.end(), piece.begin(), piece.end());
  }
  return out;
}

}  // namespace quarnel_testdata

#endif  // QUARNEL_COMPRESS_TESTDATA_H_
