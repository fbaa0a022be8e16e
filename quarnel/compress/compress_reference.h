// Plain implementations of the segment coder and of the block checksum, for
// the tests and the benchmarks only: they follow the documented procedures
// step by step, and the library's faster versions must agree with them on
// every input.
#ifndef QUARNEL_COMPRESS_COMPRESS_REFERENCE_H_
#define QUARNEL_COMPRESS_COMPRESS_REFERENCE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace quarnel_reference {

// Codes one segment (1..4096 bytes) with the byte-indexed chain walk.
// Returns the token bytes, or false when they would pass 4,086 bytes.
inline bool CodeSegment(const std::uint8_t* s, int n, std::vector<std::uint8_t>* out) {
  std::int16_t head[256];
  std::int16_t last[256];
  std::int16_t chain[4096];
  for (auto& h : head) h = -1;
  for (auto& c : chain) c = -1;
  // Each byte value's chain runs from its earliest position forwards.
  for (int i = 0; i < n; ++i) {
    const std::uint8_t b = s[i];
    if (head[b] == -1) {
      head[b] = static_cast<std::int16_t>(i);
    } else {
      chain[last[b]] = static_cast<std::int16_t>(i);
    }
    last[b] = static_cast<std::int16_t>(i);
  }
  auto match = [&](int i, int* pos) {
    if (n - i < 4) return 0;
    int best = 0;
    for (int j = head[s[i]]; j != -1 && j < i; j = chain[j]) {
      if (s[j + 1] != s[i + 1] || s[j + 2] != s[i + 2] || s[j + 3] != s[i + 3]) continue;
      int len = 4;
      while (len < n - i && s[j + len] == s[i + len]) ++len;
      if (len > best) {
        best = len;
        *pos = j;
      }
    }
    return best < 4 ? 0 : best;
  };

  out->clear();
  auto fits = [&](std::size_t more) { return out->size() + more <= 4086; };
  int pos = 0;
  while (pos < n) {
    const int start = pos;
    int p = 0;
    int m = 0;
    while (pos < n && (m = match(pos, &p)) == 0) ++pos;
    if (pos > start) {
      const int count = pos - start;
      if (count <= 32) {
        if (!fits(1 + static_cast<std::size_t>(count))) return false;
        out->push_back(static_cast<std::uint8_t>(0xA0 | (count - 1)));
      } else {
        if (!fits(2 + static_cast<std::size_t>(count))) return false;
        out->push_back(static_cast<std::uint8_t>(0x90 | ((count - 1) >> 8)));
        out->push_back(static_cast<std::uint8_t>((count - 1) & 0xFF));
      }
      out->insert(out->end(), s + start, s + pos);
    }
    if (pos == n) break;
    if (m <= 11) {
      if (!fits(2)) return false;
      out->push_back(static_cast<std::uint8_t>(((m - 4) << 4) | (p >> 8)));
      out->push_back(static_cast<std::uint8_t>(p & 0xFF));
    } else if (m <= 27 && p <= 1023) {
      if (!fits(2)) return false;
      out->push_back(static_cast<std::uint8_t>(0xC0 | ((p >> 8) << 4) | (m - 12)));
      out->push_back(static_cast<std::uint8_t>(p & 0xFF));
    } else {
      if (m > 267) m = 267;
      if (!fits(3)) return false;
      out->push_back(static_cast<std::uint8_t>(0x80 | (p >> 8)));
      out->push_back(static_cast<std::uint8_t>(p & 0xFF));
      out->push_back(static_cast<std::uint8_t>(m - 12));
    }
    pos += m;
  }
  return true;
}

// Decodes a token stream byte by byte into a segment of `n` bytes. Returns
// false for a stream that does not yield exactly n bytes from positions
// already written.
inline bool DecodeSegment(const std::uint8_t* code, int len, int n,
                          std::vector<std::uint8_t>* out) {
  out->clear();
  int t = 0;
  while (t < len) {
    const unsigned b0 = code[t];
    if (b0 >= 0xA0 && b0 < 0xC0) {
      const int count = static_cast<int>(b0 & 0x1F) + 1;
      if (t + 1 + count > len) return false;
      out->insert(out->end(), code + t + 1, code + t + 1 + count);
      t += 1 + count;
    } else if ((b0 & 0xF0) == 0x90) {
      if (t + 2 > len) return false;
      const int count = static_cast<int>(((b0 & 0x0F) << 8) | code[t + 1]) + 1;
      if (t + 2 + count > len) return false;
      out->insert(out->end(), code + t + 2, code + t + 2 + count);
      t += 2 + count;
    } else {
      const int size = (b0 & 0xF0) == 0x80 ? 3 : 2;
      if (t + size > len) return false;
      int p;
      int m;
      if (b0 < 0x80) {
        p = static_cast<int>(((b0 & 0x0F) << 8) | code[t + 1]);
        m = static_cast<int>((b0 >> 4) & 7) + 4;
      } else if (size == 3) {
        p = static_cast<int>(((b0 & 0x0F) << 8) | code[t + 1]);
        m = code[t + 2] + 12;
      } else {
        p = static_cast<int>((((b0 >> 4) & 3) << 8) | code[t + 1]);
        m = static_cast<int>(b0 & 0x0F) + 12;
      }
      if (p >= static_cast<int>(out->size())) return false;
      for (int k = 0; k < m; ++k) out->push_back((*out)[static_cast<std::size_t>(p + k)]);
      t += size;
    }
    if (static_cast<int>(out->size()) > n) return false;
  }
  return static_cast<int>(out->size()) == n;
}

// Packs a block of data as the documented procedure does, into a separate
// buffer. Returns false for a block of at most 4,096 bytes whose one segment
// does not pay ("can't compress small buffer"); the data then stays as it is.
// `code` codes one segment as CodeSegment does.
template <class Coder>
bool PackBlock(const std::vector<std::uint8_t>& data, std::vector<std::uint8_t>* out, Coder code) {
  const std::size_t n = data.size();
  out->assign({0x51, 0x6E, 0x51, 0x79, static_cast<std::uint8_t>(n >> 24),
               static_cast<std::uint8_t>(n >> 16), static_cast<std::uint8_t>(n >> 8),
               static_cast<std::uint8_t>(n)});
  bool anyRaw = false;
  std::vector<std::uint8_t> coded;
  for (std::size_t at = 0; at < n; at += 4096) {
    const int len = static_cast<int>(n - at < 4096 ? n - at : 4096);
    const bool whole = static_cast<std::size_t>(len) == n;
    const bool ok = code(data.data() + at, len, &coded);
    const int c = static_cast<int>(coded.size());
    std::size_t stored;
    if (ok && c < len && (!whole || c < len - 10)) {
      out->insert(out->end(), coded.begin(), coded.end());
      stored = coded.size();
    } else if (whole) {
      return false;
    } else {
      out->insert(out->end(), data.begin() + static_cast<std::ptrdiff_t>(at),
                  data.begin() + static_cast<std::ptrdiff_t>(at) + len);
      stored = static_cast<std::size_t>(len);
      anyRaw = true;
    }
    out->push_back(static_cast<std::uint8_t>(stored >> 8));
    out->push_back(static_cast<std::uint8_t>(stored & 0xFF));
  }
  if (anyRaw) {
    const std::uint32_t neg = 0u - static_cast<std::uint32_t>(n);
    (*out)[4] = static_cast<std::uint8_t>(neg >> 24);
    (*out)[5] = static_cast<std::uint8_t>(neg >> 16);
    (*out)[6] = static_cast<std::uint8_t>(neg >> 8);
    (*out)[7] = static_cast<std::uint8_t>(neg);
  }
  return true;
}

inline bool PackBlock(const std::vector<std::uint8_t>& data, std::vector<std::uint8_t>* out) {
  return PackBlock(data, out, [](const std::uint8_t* s, int n, std::vector<std::uint8_t>* coded) {
    return CodeSegment(s, n, coded);
  });
}

// Unpacks a packed block into a separate buffer, walking the records from
// the end. Returns false when the records do not fit the block exactly or a
// coded body does not decode to its slice.
inline bool UnpackBlock(const std::uint8_t* block, std::size_t b, std::vector<std::uint8_t>* out) {
  if (b < 8) return false;
  const std::int32_t s =
      static_cast<std::int32_t>((std::uint32_t{block[4]} << 24) | (std::uint32_t{block[5]} << 16) |
                                (std::uint32_t{block[6]} << 8) | block[7]);
  if (s == INT32_MIN) return false;
  const std::size_t n = static_cast<std::size_t>(s < 0 ? -static_cast<std::int64_t>(s) : s);
  out->assign(n, 0);
  std::size_t in = b;
  std::size_t outEnd = n;
  std::vector<std::uint8_t> seg;
  while (outEnd > 0) {
    const std::size_t len = outEnd == n && n % 4096 != 0 ? n % 4096 : 4096;
    if (in < 10) return false;
    const std::size_t stored = (std::size_t{block[in - 2]} << 8) | block[in - 1];
    if (stored > len || stored > in - 10) return false;
    const std::uint8_t* body = block + in - 2 - stored;
    if (stored == len) {
      std::memcpy(out->data() + outEnd - len, body, len);
    } else {
      if (!DecodeSegment(body, static_cast<int>(stored), static_cast<int>(len), &seg)) return false;
      std::memcpy(out->data() + outEnd - len, seg.data(), len);
    }
    in -= 2 + stored;
    outEnd -= len;
  }
  return in == 8;
}

// The block checksum, one table lookup per byte: CRC-32 with the polynomial
// 0x04C11DB7, most significant bit first, initial value 0, no final
// inversion; 0 is answered as 1.
inline std::uint32_t HashBlock(const std::uint8_t* data, std::size_t length) {
  static const auto table = [] {
    std::vector<std::uint32_t> t(256);
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i << 24;
      for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t crc = 0;
  for (std::size_t i = 0; i < length; ++i) crc = (crc << 8) ^ table[(crc >> 24) ^ data[i]];
  return crc == 0 ? 1 : crc;
}

}  // namespace quarnel_reference

#endif  // QUARNEL_COMPRESS_COMPRESS_REFERENCE_H_
