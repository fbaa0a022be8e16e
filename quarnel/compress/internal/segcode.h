// The coded form of one segment: the token coder, its checker and decoder.
// No host includes this header.
//
// A segment is at most 4,096 bytes, coded by itself. Tokens (the top bits of
// the first byte select the kind; a position is an absolute offset inside the
// segment, never a distance):
//
//   0LLL PPPP  PPPP PPPP             short match: L + 4 bytes (4..11) from P
//   1000 PPPP  PPPP PPPP  LLLL LLLL  long match: L + 12 bytes (12..267) from P
//   1001 CCCC  CCCC CCCC  bytes...   long literal run: C + 1 bytes
//   101C CCCC  bytes...              short literal run: C + 1 bytes (1..32)
//   11PP LLLL  PPPP PPPP             medium match: L + 12 bytes (12..27) from
//                                    P (0..1023)
//
// A copy runs byte by byte from the start of the segment's output, so its
// source may overlap the bytes it writes.
#ifndef QUARNEL_COMPRESS_INTERNAL_SEGCODE_H_
#define QUARNEL_COMPRESS_INTERNAL_SEGCODE_H_

#include <cstddef>
#include <cstdint>

namespace quarnel_internal {

constexpr int kSegmentSize = 4096;
// The longest coded form kept: a segment whose tokens need more stays raw.
constexpr int kCodeBudget = 4086;
// The work area a segment is coded into.
constexpr int kCodeAreaSize = 4160;

constexpr int kMinMatch = 4;
constexpr int kShortMatchMax = 11;
constexpr int kMediumMatchMax = 27;
constexpr int kMediumPositionMax = 1023;
constexpr int kLongMatchMax = 267;
constexpr int kShortRunMax = 32;

// Token first bytes (the kind's bits; the rest carries position, length or
// count).
constexpr std::uint8_t kTokLongMatch = 0x80;
constexpr std::uint8_t kTokLongRun = 0x90;
constexpr std::uint8_t kTokShortRun = 0xA0;
constexpr std::uint8_t kTokMediumMatch = 0xC0;

// The coder's index of one segment, kept in a table the caller owns (see
// SegmentCoder). Positions are 16-bit; 0xFFFF is "none".
//
// Positions are chained by key in increasing order, all chains starting in
// `head`. A position whose first four bytes differ is keyed by those four
// bytes. A position inside a run of one byte value with at least four bytes
// of the run ahead of it is keyed by the byte, the bytes of the run left
// (its run length R) and the byte after the run: a position can only share
// more than R bytes with another of the same key. The runs of at least four
// bytes are listed in order, and for each byte value the runs longer than
// every earlier run of that value ("records").
struct SegmentIndex {
  static constexpr int kHashBits = 13;
  static constexpr int kMaxRuns = kSegmentSize / 4;

  std::uint16_t head[1 << kHashBits];
  std::uint16_t runStart[kMaxRuns];
  std::uint16_t runEnd[kMaxRuns];
  std::uint16_t recordNext[kMaxRuns];
  std::uint16_t recordHead[256];
};

// Codes segments. Its index lives in two tables the caller owns (kIndexBytes
// and kChainBytes long, 2-byte aligned), so that the block packer can take
// them from the small-block allocator; the coder holds no other state and may
// be reused for any number of segments.
//
// The matches are those of the plain search: at each position with at least
// four bytes left, among the earlier positions of the segment whose first
// four bytes agree, the one with the longest common run (limited by the bytes
// left), the earliest on equal length. Emission is greedy: literals up to the
// next position that has a match, then the match (short up to 11 bytes,
// medium up to 27 bytes from a position below 1024, else long with at most
// 267 bytes taken).
class SegmentCoder {
 public:
  static constexpr std::size_t kIndexBytes = sizeof(SegmentIndex);
  static constexpr std::size_t kChainBytes = kSegmentSize * 2;  // one link per position

  SegmentCoder(void* index, void* chain)
      : index_(static_cast<SegmentIndex*>(index)), next_(static_cast<std::uint16_t*>(chain)) {}

  // Codes the `n` bytes at `seg` (0 < n <= 4096) into `out` (kCodeAreaSize
  // bytes). Returns the coded length, or -1 when it would pass the budget of
  // 4,086 bytes.
  int Code(const std::uint8_t* seg, int n, std::uint8_t* out) const;

 private:
  SegmentIndex* index_;
  std::uint16_t* next_;
};

// True when the `len` coded bytes at `code` are a well-formed token stream
// that yields exactly `n` bytes (1..4096): every token whole, every literal
// run and copy inside the segment, every copy from a position already
// written. Two bytes after the code must be readable (in a packed block the
// record's trailer follows); their values do not matter.
bool CheckSegmentCode(const std::uint8_t* code, int len, int n);

// One coded slice to check: `len` bytes of code (followed by two readable
// bytes) for a slice of `n` bytes.
struct CodedSlice {
  const std::uint8_t* code;
  int len;
  int n;
};

// Checks `count` slices as CheckSegmentCode does, several at a time. Returns
// the index of the first slice that fails, or -1 when all pass.
int CheckSegmentCodes(const CodedSlice* slices, int count);

// Decodes the `len` coded bytes at `code` into the `n` bytes at `out`. The
// decoder may read up to `readEnd` (at least code + len + 2) and write up to
// `writeEnd` (at least out + n); given room it writes whole 16-byte pieces
// past a token's end, which later tokens overwrite. DecodeSegment takes a
// stream that CheckSegmentCode accepted; DecodeSegmentChecked checks each
// token itself and returns false for a stream that is not well formed,
// having written nothing outside [out, writeEnd).
constexpr int kDecodeAreaSize = kSegmentSize + 64;  // a work area with room to spare
void DecodeSegment(const std::uint8_t* code, int len, const std::uint8_t* readEnd,
                   std::uint8_t* out, int n, const std::uint8_t* writeEnd);
bool DecodeSegmentChecked(const std::uint8_t* code, int len, const std::uint8_t* readEnd,
                          std::uint8_t* out, int n, const std::uint8_t* writeEnd);

}  // namespace quarnel_internal

#endif  // QUARNEL_COMPRESS_INTERNAL_SEGCODE_H_
