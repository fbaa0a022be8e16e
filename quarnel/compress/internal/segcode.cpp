#include "quarnel/compress/internal/segcode.h"

#include <array>
#include <bit>
#include <cstring>

namespace quarnel_internal {
namespace {

inline std::uint32_t Load32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

inline std::uint64_t Load64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// The number of equal bytes at the start of `a` and `b`, at most `limit`.
inline int CommonLength(const std::uint8_t* a, const std::uint8_t* b, int limit) {
  int k = 0;
  while (k + 8 <= limit) {
    const std::uint64_t x = Load64(a + k) ^ Load64(b + k);
    if (x != 0) {
      if constexpr (std::endian::native == std::endian::little) {
        return k + (std::countr_zero(x) >> 3);
      } else {
        return k + (std::countl_zero(x) >> 3);
      }
    }
    k += 8;
  }
  while (k < limit && a[k] == b[k]) ++k;
  return k;
}

constexpr std::uint16_t kNone = 0xFFFF;  // above every position: ends every chain walk

// Table bits for a segment of n bytes: about two buckets per position, so
// that few chains mix different keys, and little to clear for a short
// segment.
inline int HashBits(int n) {
  const int bits = std::bit_width(static_cast<unsigned>(n)) + 1;
  return bits < 6 ? 6 : (bits > SegmentIndex::kHashBits ? SegmentIndex::kHashBits : bits);
}

inline std::uint32_t Hash4(std::uint32_t key, int bits) {
  return (key * 2654435761u) >> (32 - bits);
}

// The key of a run position: byte, run length left and the byte after.
inline std::uint32_t RunHash(unsigned byte, int run, unsigned after, int bits) {
  return Hash4((static_cast<std::uint32_t>(run) << 16) ^ (byte << 8) ^ after ^ 0x5BD1E995u, bits);
}

}  // namespace

int SegmentCoder::Code(const std::uint8_t* s, int n, std::uint8_t* out) const {
  SegmentIndex& x = *index_;
  std::uint16_t* const next = next_;
  const int last = n - kMinMatch;  // the last position that can start a match
  const int bits = HashBits(n);
  int runs = 0;
  if (last >= 0) {
    // The runs of at least four bytes. A run found at i is maximal on the
    // left, since the scan jumps over every run it finds.
    for (int i = 0; i <= last;) {
      const std::uint8_t b = s[i];
      if (Load32(s + i) != 0x01010101u * b) {
        ++i;
        continue;
      }
      int e = i + kMinMatch;
      const std::uint64_t word = 0x0101010101010101u * b;
      while (e + 8 <= n && Load64(s + e) == word) e += 8;
      while (e < n && s[e] == b) ++e;
      x.runStart[runs] = static_cast<std::uint16_t>(i);
      x.runEnd[runs] = static_cast<std::uint16_t>(e);
      ++runs;
      i = e;
    }
    // The records of each byte value, in position order.
    std::memset(x.recordHead, 0xFF, sizeof x.recordHead);
    std::uint16_t recordTail[256];
    int recordMax[256];
    for (int r = 0; r < runs; ++r) {
      const std::uint8_t b = s[x.runStart[r]];
      const int len = x.runEnd[r] - x.runStart[r];
      if (x.recordHead[b] == kNone) {
        x.recordHead[b] = static_cast<std::uint16_t>(r);
      } else if (len > recordMax[b]) {
        x.recordNext[recordTail[b]] = static_cast<std::uint16_t>(r);
      } else {
        continue;
      }
      recordTail[b] = static_cast<std::uint16_t>(r);
      recordMax[b] = len;
      x.recordNext[r] = kNone;
    }
    // Chains in increasing position order: built from the end, each position
    // goes in front of its bucket. A run position whose run reaches the end
    // of the segment has no byte after the run and is never a candidate that
    // outruns a run; it stays out of the chains.
    std::memset(x.head, 0xFF, std::size_t{2} << bits);
    int r = runs - 1;
    for (int i = last; i >= 0; --i) {
      while (r >= 0 && x.runStart[r] > i) --r;
      std::uint32_t h;
      if (r >= 0 && i + kMinMatch <= x.runEnd[r]) {
        const int e = x.runEnd[r];
        if (e == n) {
          i = x.runStart[r];  // the whole run stays out; go on before it
          continue;
        }
        h = RunHash(s[i], e - i, s[e], bits);
      } else {
        h = Hash4(Load32(s + i), bits);
      }
      next[i] = x.head[h];
      x.head[h] = static_cast<std::uint16_t>(i);
    }
  }

  // The longest match at `i` (0 when none) and its position. Candidates come
  // earliest first, so a candidate only replaces the best when it is
  // strictly longer, and one that reaches the end of the segment ends the
  // walk.
  int matchPos = 0;
  int cur = 0;  // the first run that ends after the position searched
  auto findPlain = [&](int i) -> int {
    const std::uint32_t key = Load32(s + i);
    const int limit = n - i;
    int best = 0;
    for (unsigned j = x.head[Hash4(key, bits)]; j < static_cast<unsigned>(i); j = next[j]) {
      if (Load32(s + j) != key) continue;
      if (best != 0 && Load32(s + j + best - 3) != Load32(s + i + best - 3)) continue;
      const int len =
          kMinMatch + CommonLength(s + j + kMinMatch, s + i + kMinMatch, limit - kMinMatch);
      if (len > best) {
        best = len;
        matchPos = static_cast<int>(j);
        if (best == limit) break;
      }
    }
    return best;
  };
  // At a position i inside the run [q, e) of byte b with R = e - i >= 4
  // bytes of it ahead, the candidates are the positions of earlier runs of b
  // and of the run itself before i. One with R' bytes of run ahead shares
  // min(R, R') bytes when R' != R; only one with R' = R and the same byte
  // after the run shares more. So: the first run of at least R bytes (a
  // record), or q itself, gives R; the chain of i's own key may give more;
  // with neither, the longest earlier run, at its first occurrence.
  auto findInRun = [&](int i, int q, int e) -> int {
    const std::uint8_t b = s[i];
    const int run = e - i;
    const int limit = n - i;
    int base = -1;
    int shorter = 0;
    int shorterPos = 0;
    for (unsigned r = x.recordHead[b]; r != kNone && x.runStart[r] < q; r = x.recordNext[r]) {
      const int len = x.runEnd[r] - x.runStart[r];
      if (len >= run) {
        base = x.runStart[r];
        break;
      }
      shorter = len;
      shorterPos = x.runStart[r];
    }
    if (base < 0 && q < i) base = q;
    if (base < 0) {
      matchPos = shorterPos;
      return shorter;  // 0 when b had no earlier run
    }
    int best = run;
    matchPos = base;
    if (run == limit) return best;
    const std::uint8_t after = s[e];
    for (unsigned j = x.head[RunHash(b, run, after, bits)]; j < static_cast<unsigned>(i);
         j = next[j]) {
      if (s[j + best] != s[i + best]) continue;
      const int len = CommonLength(s + j, s + i, limit);
      if (len > best) {
        best = len;
        matchPos = static_cast<int>(j);
        if (best == limit) break;
      }
    }
    return best;
  };
  auto find = [&](int i) -> int {
    while (cur < runs && x.runEnd[cur] <= i) ++cur;
    if (cur < runs && x.runStart[cur] <= i && i + kMinMatch <= x.runEnd[cur]) {
      return findInRun(i, x.runStart[cur], x.runEnd[cur]);
    }
    return findPlain(i);
  };

  int o = 0;
  int pos = 0;
  while (pos < n) {
    const int start = pos;
    int len = 0;
    while (pos <= last && (len = find(pos)) == 0) ++pos;
    if (pos > last) pos = n;
    if (pos > start) {
      const int count = pos - start;
      const int header = count > kShortRunMax ? 2 : 1;
      if (o + header + count > kCodeBudget) return -1;
      if (header == 1) {
        out[o++] = static_cast<std::uint8_t>(kTokShortRun | (count - 1));
      } else {
        out[o++] = static_cast<std::uint8_t>(kTokLongRun | ((count - 1) >> 8));
        out[o++] = static_cast<std::uint8_t>(count - 1);
      }
      std::memcpy(out + o, s + start, static_cast<std::size_t>(count));
      o += count;
    }
    if (pos >= n) break;
    const int p = matchPos;
    if (len <= kShortMatchMax) {
      if (o + 2 > kCodeBudget) return -1;
      out[o++] = static_cast<std::uint8_t>(((len - kMinMatch) << 4) | (p >> 8));
      out[o++] = static_cast<std::uint8_t>(p);
    } else if (len <= kMediumMatchMax && p <= kMediumPositionMax) {
      if (o + 2 > kCodeBudget) return -1;
      out[o++] = static_cast<std::uint8_t>(kTokMediumMatch | ((p >> 8) << 4) | (len - 12));
      out[o++] = static_cast<std::uint8_t>(p);
    } else {
      if (len > kLongMatchMax) len = kLongMatchMax;
      if (o + 3 > kCodeBudget) return -1;
      out[o++] = static_cast<std::uint8_t>(kTokLongMatch | (p >> 8));
      out[o++] = static_cast<std::uint8_t>(p);
      out[o++] = static_cast<std::uint8_t>(len - 12);
    }
    pos += len;
  }
  return o;
}

namespace {

// What the first byte of a token says, so that the checker and the decoder
// need no branch on the kind: the token's value (a run's count, a copy's
// length) is base + (second byte & mask1) + (third byte & mask2), a copy's
// position is high | second byte, and the token takes header bytes of code
// plus, for a literal run, its count.
struct TokenInfo {
  std::uint16_t base;
  std::uint16_t high;
  std::uint8_t mask1;
  std::uint8_t mask2;
  std::uint8_t header;
  std::uint8_t run;  // 1 for a literal run
};

constexpr std::array<TokenInfo, 256> MakeTokenTable() {
  std::array<TokenInfo, 256> t{};
  for (unsigned b = 0; b < 256; ++b) {
    TokenInfo& i = t[b];
    if (b < 0x80) {  // short match
      i = {static_cast<std::uint16_t>(((b >> 4) & 7) + 4),
           static_cast<std::uint16_t>((b & 0x0F) << 8),
           0,
           0,
           2,
           0};
    } else if (b < 0x90) {  // long match
      i = {12, static_cast<std::uint16_t>((b & 0x0F) << 8), 0, 0xFF, 3, 0};
    } else if (b < 0xA0) {  // long literal run
      i = {static_cast<std::uint16_t>(((b & 0x0F) << 8) + 1), 0, 0xFF, 0, 2, 1};
    } else if (b < 0xC0) {  // short literal run
      i = {static_cast<std::uint16_t>((b & 0x1F) + 1), 0, 0, 0, 1, 1};
    } else {  // medium match
      i = {static_cast<std::uint16_t>((b & 0x0F) + 12),
           static_cast<std::uint16_t>(((b >> 4) & 3) << 8),
           0,
           0,
           2,
           0};
    }
  }
  return t;
}

constexpr std::array<TokenInfo, 256> kTokens = MakeTokenTable();

}  // namespace

namespace {

// The walk over one token stream: every token is read whole (its second and
// third bytes may lie in the two bytes after the code) and the checks are
// gathered into `bad`, so that the walk has no branch but its loop. A wrong
// token only shows at the end; every token moves `t` on, so the walk stays
// within the code and the two bytes after it.
struct Lane {
  const std::uint8_t* code;
  int len;
  int n;
  int t;
  int o;
  unsigned bad;
  int slice;

  void Step() {
    const TokenInfo& i = kTokens[code[t]];
    const unsigned b1 = code[t + 1];
    const int value = i.base + static_cast<int>((b1 & i.mask1) + (code[t + 2] & i.mask2));
    const int p = static_cast<int>(i.high | b1);
    bad |= static_cast<unsigned>(i.run == 0) & static_cast<unsigned>(p >= o);
    t += i.header + (i.run != 0 ? value : 0);
    o += value;
  }
  bool Running() const { return t < len; }
  bool Passed() const { return bad == 0 && t == len && o == n; }
};

Lane MakeLane(const CodedSlice& s, int slice) { return {s.code, s.len, s.n, 0, 0, 0, slice}; }

}  // namespace

bool CheckSegmentCode(const std::uint8_t* code, int len, int n) {
  Lane lane = MakeLane({code, len, n}, 0);
  while (lane.Running()) lane.Step();
  return lane.Passed();
}

int CheckSegmentCodes(const CodedSlice* slices, int count) {
  // Four streams walked side by side: each walk is one long chain of
  // dependent loads, and four of them keep the processor busy. A lane whose
  // stream ends takes the next slice.
  constexpr int kLanes = 4;
  Lane lanes[kLanes];
  int next = 0;
  int live = 0;
  int firstBad = count;
  while (live < kLanes && next < count) {
    lanes[live] = MakeLane(slices[next], next);
    ++live;
    ++next;
  }
  while (live == kLanes) {
    while (lanes[0].Running() && lanes[1].Running() && lanes[2].Running() && lanes[3].Running()) {
      lanes[0].Step();
      lanes[1].Step();
      lanes[2].Step();
      lanes[3].Step();
    }
    int keep = 0;
    for (int k = 0; k < kLanes; ++k) {
      Lane lane = lanes[k];
      if (!lane.Running()) {
        if (!lane.Passed() && lane.slice < firstBad) firstBad = lane.slice;
        if (next == count) continue;
        lane = MakeLane(slices[next], next);
        ++next;
      }
      lanes[keep++] = lane;
    }
    live = keep;
  }
  for (int k = 0; k < live; ++k) {
    while (lanes[k].Running()) lanes[k].Step();
    if (!lanes[k].Passed() && lanes[k].slice < firstBad) firstBad = lanes[k].slice;
  }
  return firstBad == count ? -1 : firstBad;
}

namespace {

// 16 bytes through a register: the source may overlap the destination (a
// wide read past a literal run can reach output being written; the bytes
// past the run are overwritten later).
inline void Copy16(std::uint8_t* dst, const std::uint8_t* src) {
  std::uint8_t tmp[16];
  std::memcpy(tmp, src, 16);
  std::memcpy(dst, tmp, 16);
}

// Copies `m` bytes from `src` to `dst` = src + d (d > 0) as a byte-by-byte
// forward copy would. Writes whole pieces past dst + m (at most 15 bytes)
// only when `writeEnd` leaves room for them.
inline void CopyMatch(std::uint8_t* dst, const std::uint8_t* src, int m,
                      const std::uint8_t* writeEnd) {
  const std::ptrdiff_t d = dst - src;
  if (writeEnd - dst >= m + 16) {
    if (d >= 16) {
      for (int k = 0; k < m; k += 16) std::memcpy(dst + k, src + k, 16);
      return;
    }
    if (d >= 8) {
      for (int k = 0; k < m; k += 8) std::memcpy(dst + k, src + k, 8);
      return;
    }
  }
  if (d == 1) {
    std::memset(dst, *src, static_cast<std::size_t>(m));
  } else if (d >= m) {
    std::memcpy(dst, src, static_cast<std::size_t>(m));
  } else {
    for (int k = 0; k < m; ++k) dst[k] = src[k];
  }
}

// The decoder, with or without its own checks of each token. Tokens are
// tested by how often they come: short matches, short runs, medium matches,
// long matches, long runs. Literals and copies of up to 32 bytes go in whole
// 16-byte pieces when the source has the bytes to read and `writeEnd` the
// room to write. Such a piece needs no check of its own: it stays inside
// [code, readEnd) and [out, writeEnd), a copy's source is behind the output,
// and a token that runs past the end of the code or of the segment leaves
// `t` or `o` where the final test finds it.
template <bool kChecked>
bool Decode(const std::uint8_t* code, int len, const std::uint8_t* readEnd, std::uint8_t* out,
            int n, const std::uint8_t* writeEnd) {
  const std::uint8_t* t = code;
  const std::uint8_t* const end = code + len;
  std::uint8_t* o = out;
  std::uint8_t* const oEnd = out + n;
  while (t < end) {
    const unsigned b0 = t[0];
    if (b0 < kTokLongMatch) {
      const std::uint8_t* src = out + (((b0 & 0x0F) << 8) | t[1]);
      const int m = static_cast<int>((b0 >> 4) & 7) + kMinMatch;
      t += 2;
      if (o - src >= 16 && writeEnd - o >= 16) [[likely]] {
        Copy16(o, src);
      } else {
        if constexpr (kChecked) {
          if (t > end || src >= o || m > oEnd - o) return false;
        }
        CopyMatch(o, src, m, writeEnd);
      }
      o += m;
    } else if ((b0 & 0xE0) == kTokShortRun) {
      const int count = static_cast<int>(b0 & 0x1F) + 1;
      const std::uint8_t* src = t + 1;
      t = src + count;
      if (readEnd - src >= 32 && writeEnd - o >= 32) [[likely]] {
        Copy16(o, src);
        Copy16(o + 16, src + 16);
      } else {
        if constexpr (kChecked) {
          if (t > end || count > oEnd - o) return false;
        }
        std::memmove(o, src, static_cast<std::size_t>(count));
      }
      o += count;
    } else if (b0 >= kTokMediumMatch) {
      const std::uint8_t* src = out + ((((b0 >> 4) & 3) << 8) | t[1]);
      const int m = static_cast<int>(b0 & 0x0F) + 12;
      t += 2;
      if (o - src >= 16 && writeEnd - o >= 32) {
        Copy16(o, src);
        Copy16(o + 16, src + 16);
      } else {
        if constexpr (kChecked) {
          if (t > end || src >= o || m > oEnd - o) return false;
        }
        CopyMatch(o, src, m, writeEnd);
      }
      o += m;
    } else if (b0 < kTokLongRun) {
      const std::uint8_t* src = out + (((b0 & 0x0F) << 8) | t[1]);
      const int m = t[2] + 12;
      t += 3;
      if constexpr (kChecked) {
        if (t > end || src >= o || m > oEnd - o) return false;
      }
      CopyMatch(o, src, m, writeEnd);
      o += m;
    } else {
      const int count = static_cast<int>(((b0 & 0x0F) << 8) | t[1]) + 1;
      const std::uint8_t* src = t + 2;
      t = src + count;
      if constexpr (kChecked) {
        if (t > end || count > oEnd - o) return false;
      }
      std::memmove(o, src, static_cast<std::size_t>(count));
      o += count;
    }
  }
  return !kChecked || (t == end && o == oEnd);
}

}  // namespace

void DecodeSegment(const std::uint8_t* code, int len, const std::uint8_t* readEnd,
                   std::uint8_t* out, int n, const std::uint8_t* writeEnd) {
  Decode<false>(code, len, readEnd, out, n, writeEnd);
}

bool DecodeSegmentChecked(const std::uint8_t* code, int len, const std::uint8_t* readEnd,
                          std::uint8_t* out, int n, const std::uint8_t* writeEnd) {
  return Decode<true>(code, len, readEnd, out, n, writeEnd);
}

}  // namespace quarnel_internal
