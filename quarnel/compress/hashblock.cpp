#include "quarnel/compress/hashblock.h"

#include <array>
#include <cstring>

#include "quarnel/foundation/debuglog.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QUARNEL_CRC_CLMUL 1
#endif

namespace quarnel_internal {
namespace {

constexpr std::uint32_t kPolynomial = 0x04C11DB7;

// table[0][b] is the CRC of the byte b; table[k][b] is that of b followed by
// k zero bytes, so that eight bytes are folded in by eight independent
// lookups (slicing by eight).
using SliceTables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr SliceTables MakeTables() {
  SliceTables t{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t c = i << 24;
    for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) != 0 ? (c << 1) ^ kPolynomial : c << 1;
    t[0][i] = c;
  }
  for (int k = 1; k < 8; ++k) {
    for (std::uint32_t i = 0; i < 256; ++i) {
      const std::uint32_t c = t[k - 1][i];
      t[k][i] = (c << 8) ^ t[0][c >> 24];
    }
  }
  return t;
}

constexpr SliceTables kTables = MakeTables();

inline std::uint32_t LoadBE32(const unsigned char* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         p[3];
}

#if defined(QUARNEL_CRC_CLMUL)

// x^e mod P, the polynomial with the 33rd bit implied.
constexpr std::uint64_t PowerMod(int e) {
  std::uint64_t v = 1;
  for (int k = 0; k < e; ++k) {
    v <<= 1;
    if ((v & 0x100000000u) != 0) v ^= 0x100000000u | kPolynomial;
  }
  return v;
}

constexpr std::uint64_t kX128 = PowerMod(128);
constexpr std::uint64_t kX192 = PowerMod(192);
constexpr std::uint64_t kX512 = PowerMod(512);
constexpr std::uint64_t kX576 = PowerMod(576);

// Folding by carry-less multiplication. A 16-byte piece is read as one
// 128-bit polynomial, its first byte's top bit the highest term. An
// accumulator A stands for the message so far modulo P; moving it on by
// 128 bits is A * x^128 = hi * x^192 + lo * x^128, reduced by multiplying the
// two 64-bit halves by x^192 mod P and x^128 mod P (products below 96 bits).
// Four accumulators run side by side over 64-byte steps (x^576, x^512) and
// are joined at the end. The CRC of the message is then the CRC of the
// accumulator's 16 bytes, since both are the same modulo P. The functions
// are compiled for processors with the instructions and called only on them.
#define QUARNEL_CLMUL_TARGET __attribute__((target("pclmul,ssse3")))

// A 16-byte piece, its first byte the most significant.
QUARNEL_CLMUL_TARGET inline __m128i LoadPiece(const unsigned char* q) {
  const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(q)), reverse);
}

// a * x^(distance) + next, reduced by the constants for that distance.
QUARNEL_CLMUL_TARGET inline __m128i Fold(__m128i a, __m128i k, __m128i next) {
  return _mm_xor_si128(
      _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x11), _mm_clmulepi64_si128(a, k, 0x00)), next);
}

QUARNEL_CLMUL_TARGET std::uint32_t ClmulCrc(std::uint32_t crc, const unsigned char* p,
                                            std::size_t n) {
  const __m128i k128 = _mm_set_epi64x(static_cast<long long>(kX192), static_cast<long long>(kX128));
  const __m128i k512 = _mm_set_epi64x(static_cast<long long>(kX576), static_cast<long long>(kX512));
  // A CRC to continue goes into the message's first four bytes.
  const __m128i start = _mm_set_epi32(static_cast<int>(crc), 0, 0, 0);
  __m128i a0 = _mm_xor_si128(LoadPiece(p), start);
  __m128i a1 = LoadPiece(p + 16);
  __m128i a2 = LoadPiece(p + 32);
  __m128i a3 = LoadPiece(p + 48);
  p += 64;
  n -= 64;
  while (n >= 64) {
    a0 = Fold(a0, k512, LoadPiece(p));
    a1 = Fold(a1, k512, LoadPiece(p + 16));
    a2 = Fold(a2, k512, LoadPiece(p + 32));
    a3 = Fold(a3, k512, LoadPiece(p + 48));
    p += 64;
    n -= 64;
  }
  __m128i a = Fold(Fold(Fold(a0, k128, a1), k128, a2), k128, a3);
  while (n >= 16) {
    a = Fold(a, k128, LoadPiece(p));
    p += 16;
    n -= 16;
  }
  unsigned char bytes[16];
  const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), _mm_shuffle_epi8(a, reverse));
  return SlicedCrc(SlicedCrc(0, bytes, 16), p, n);
}

bool HasClmul() {
  static const bool has = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
  return has;
}

#endif  // QUARNEL_CRC_CLMUL

}  // namespace

std::uint32_t SlicedCrc(std::uint32_t crc, const unsigned char* p, std::size_t n) {
  const auto& t = kTables;
  while (n >= 8) {
    const std::uint32_t one = crc ^ LoadBE32(p);
    const std::uint32_t two = LoadBE32(p + 4);
    crc = t[7][one >> 24] ^ t[6][(one >> 16) & 0xFF] ^ t[5][(one >> 8) & 0xFF] ^ t[4][one & 0xFF] ^
          t[3][two >> 24] ^ t[2][(two >> 16) & 0xFF] ^ t[1][(two >> 8) & 0xFF] ^ t[0][two & 0xFF];
    p += 8;
    n -= 8;
  }
  while (n-- > 0) crc = (crc << 8) ^ t[0][(crc >> 24) ^ *p++];
  return crc;
}

bool FoldedCrcAvailable() {
#if defined(QUARNEL_CRC_CLMUL)
  return HasClmul();
#else
  return false;
#endif
}

std::uint32_t FoldedCrc(std::uint32_t crc, const unsigned char* p, std::size_t n) {
#if defined(QUARNEL_CRC_CLMUL)
  if (n >= kFoldedCrcMinLength && HasClmul()) return ClmulCrc(crc, p, n);
#endif
  return SlicedCrc(crc, p, n);
}

std::uint32_t BlockCrc(std::uint32_t crc, const unsigned char* p, std::size_t n) {
  return FoldedCrc(crc, p, n);
}

}  // namespace quarnel_internal

unsigned HashBlock(const unsigned char* data, int length) {
  if (length < 0 || (data == nullptr && length > 0)) {
    Debug("hashblock", quarnel_internal::kHashBlockBadArgsLine);
    return 1;
  }
  const std::uint32_t crc = quarnel_internal::BlockCrc(0, data, static_cast<std::size_t>(length));
  return crc == 0 ? 1 : crc;
}
