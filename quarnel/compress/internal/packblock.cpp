#include "quarnel/compress/internal/packblock.h"

#include <cstring>

namespace quarnel_internal {
namespace {

inline void StoreBE32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}

inline std::uint32_t LoadBE32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         p[3];
}

inline unsigned LoadBE16(const std::uint8_t* p) { return (unsigned{p[0]} << 8) | p[1]; }

// The length of slice `idx` of a block of n bytes cut into `count` slices.
inline unsigned SliceLength(unsigned n, unsigned count, unsigned idx) {
  return idx + 1 < count ? kSegmentSize : n - (count - 1) * kSegmentSize;
}

}  // namespace

PackOutcome PackInPlace(std::uint8_t* buf, unsigned n, unsigned magic, const SegmentCoder& coder,
                        PackPollProc poll, void* pollArg) {
  const unsigned slack = PackSlack(n);
  std::memmove(buf + slack, buf, n);
  StoreBE32(buf, magic);
  StoreBE32(buf + 4, n);
  unsigned w = kPackHeaderSize;
  unsigned r = slack;
  unsigned left = n;
  bool anyRaw = false;
  alignas(16) std::uint8_t work[kCodeAreaSize];
  while (left > 0) {
    if (poll != nullptr) {
      const int rc = poll(pollArg);
      if (rc != 0) return {PackOutcome::kAborted, 0, anyRaw, rc};
    }
    const int len =
        left < static_cast<unsigned>(kSegmentSize) ? static_cast<int>(left) : kSegmentSize;
    const bool whole = static_cast<unsigned>(len) == n;
    const int c = coder.Code(buf + r, len, work);
    unsigned stored;
    if (c >= 0 && c < len && (!whole || c < len - 10)) {
      std::memcpy(buf + w, work, static_cast<std::size_t>(c));
      stored = static_cast<unsigned>(c);
    } else if (whole) {
      std::memmove(buf, buf + slack, n);
      // A block shorter than the magic keeps the rest of the magic after its
      // bytes; cleared, so that an unpacked block never reads as packed.
      if (n < 4) std::memset(buf + n, 0, 4 - n);
      return {PackOutcome::kSmallBuffer, n + slack, false, 0};
    } else {
      std::memmove(buf + w, buf + r, static_cast<std::size_t>(len));
      stored = static_cast<unsigned>(len);
      anyRaw = true;
    }
    buf[w + stored] = static_cast<std::uint8_t>(stored >> 8);
    buf[w + stored + 1] = static_cast<std::uint8_t>(stored);
    w += stored + 2;
    r += static_cast<unsigned>(len);
    left -= static_cast<unsigned>(len);
  }
  if (anyRaw) StoreBE32(buf + 4, 0u - n);
  return {PackOutcome::kPacked, w, anyRaw, 0};
}

const char* PackDefectText(PackDefect defect) {
  switch (defect) {
    case PackDefect::kNone:
      return "no defect";
    case PackDefect::kSizeWord:
      return "bad size word";
    case PackDefect::kTrailer:
      return "bad segment trailer";
    case PackDefect::kCode:
      return "bad segment code";
    case PackDefect::kOverlap:
      return "segment would overwrite unread data";
    case PackDefect::kStrayBytes:
      return "stray bytes before the first segment";
  }
  return "unknown defect";
}

namespace {

// Checks the records of a block of `b` bytes holding `n` unpacked bytes, to
// be built at `margin` and moved down: every trailer and token, and that no
// slice is written over records still to be read.
bool CheckRecords(const std::uint8_t* block, unsigned b, unsigned n, std::uint64_t margin,
                  UnpackPlan* plan) {
  auto fail = [plan](PackDefect defect, std::uint64_t offset) {
    plan->defect = defect;
    plan->offset = static_cast<unsigned>(offset);
    return false;
  };
  const std::uint64_t end = margin + n;
  if (end > 0xFFFFFFFFu) return fail(PackDefect::kSizeWord, 4);

  // Coded bodies are checked a window at a time, several streams at once;
  // a window is checked before any later defect is reported, so that the
  // defect reported is always the one nearest the end of the block.
  constexpr int kWindow = 64;
  CodedSlice window[kWindow];
  std::uint64_t windowBody[kWindow];
  int pending = 0;
  auto flush = [&]() {
    const int bad = CheckSegmentCodes(window, pending);
    pending = 0;
    return bad < 0 || fail(PackDefect::kCode, windowBody[bad]);
  };

  const unsigned count = (n + kSegmentSize - 1) / kSegmentSize;
  std::uint64_t in = b;  // end of the records not yet read
  bool firstOver = true;
  bool allRaw = true;
  for (unsigned idx = count; idx-- > 0;) {
    const unsigned len = SliceLength(n, count, idx);
    if (in < kPackHeaderSize + 2) return flush() && fail(PackDefect::kTrailer, in - 2);
    const unsigned stored = LoadBE16(block + in - 2);
    if (stored > len || stored > in - 2 - kPackHeaderSize) {
      return flush() && fail(PackDefect::kTrailer, in - 2);
    }
    const std::uint64_t body = in - 2 - stored;
    allRaw = allRaw && stored == len;
    // Every slice but the first is written while earlier records still wait
    // below it (the first only meets the header, read by then).
    if (idx > 0 && margin + std::uint64_t{idx} * kSegmentSize < body) {
      return flush() && fail(PackDefect::kOverlap, body);
    }
    // A slice written above the block's own bytes, and the first slice
    // written over them (decoded aside before it is moved in), are checked
    // as they are decoded: a fault found then leaves those bytes as they
    // were. The slices after it are checked here.
    bool checkNow = false;
    if (margin + std::uint64_t{idx} * kSegmentSize < b) {
      checkNow = !firstOver;
      firstOver = false;
    }
    if (stored < len && checkNow) {
      window[pending] = {block + body, static_cast<int>(stored), static_cast<int>(len)};
      windowBody[pending] = body;
      if (++pending == kWindow && !flush()) return false;
    }
    in = body;
  }
  if (!flush()) return false;
  if (in != kPackHeaderSize) return fail(PackDefect::kStrayBytes, kPackHeaderSize);
  plan->n = n;
  plan->margin = static_cast<unsigned>(margin);
  plan->room = end > b ? static_cast<unsigned>(end) : b;
  if (allRaw) {
    // Each raw body lies above its slice's final place and below the next
    // body: moved down in order, they need neither room nor margin.
    plan->allRaw = true;
    plan->margin = 0;
    plan->room = b;
  }
  return true;
}

}  // namespace

bool PlanUnpack(const std::uint8_t* block, unsigned b, UnpackPlan* plan) {
  *plan = UnpackPlan{};
  const auto s = static_cast<std::int32_t>(LoadBE32(block + 4));
  if (s == INT32_MIN) {
    plan->defect = PackDefect::kSizeWord;
    plan->offset = 4;
    return false;
  }
  const unsigned n = static_cast<unsigned>(s < 0 ? -s : s);
  std::uint64_t margin = n < b ? b - n : 0;
  if (s < 0) margin += PackSlack(n);
  return CheckRecords(block, b, n, margin, plan);
}

bool RestorePacked(std::uint8_t* buf, unsigned packed, unsigned n) {
  UnpackPlan plan;
  return CheckRecords(buf, packed, n, PackSlack(n), &plan) && UnpackInPlace(buf, packed, &plan);
}

bool UnpackInPlace(std::uint8_t* buf, unsigned b, UnpackPlan* plan) {
  const unsigned n = plan->n;
  const unsigned count = (n + kSegmentSize - 1) / kSegmentSize;
  if (plan->allRaw) {
    unsigned body = kPackHeaderSize;
    for (unsigned idx = 0; idx < count; ++idx) {
      const unsigned len = SliceLength(n, count, idx);
      std::memmove(buf + idx * std::size_t{kSegmentSize}, buf + body, len);
      body += len + 2;
    }
    return true;
  }
  const std::uint8_t* const readEnd = buf + plan->room;
  unsigned in = b;
  unsigned outEnd = plan->margin + n;
  alignas(16) std::uint8_t work[kDecodeAreaSize];
  bool touched = false;  // whether a slice has been written over the block's bytes
  for (unsigned idx = count; idx-- > 0;) {
    const unsigned len = SliceLength(n, count, idx);
    const unsigned stored = LoadBE16(buf + in - 2);
    const unsigned body = in - 2 - stored;
    const unsigned outStart = outEnd - len;
    const std::uint8_t* const code = buf + body;
    const int clen = static_cast<int>(stored);
    const int slen = static_cast<int>(len);
    bool ok = true;
    if (stored == len) {
      std::memmove(buf + outStart, code, len);
    } else if (outStart >= b) {
      // Above the block's own bytes (and so above this record): decoded in
      // place, and checked on the way.
      ok = DecodeSegmentChecked(code, clen, readEnd, buf + outStart, slen, buf + outEnd);
    } else if (!touched) {
      // The first slice over the block's bytes: decoded aside and checked.
      ok = DecodeSegmentChecked(code, clen, readEnd, work, slen, work + kDecodeAreaSize);
      if (ok) std::memcpy(buf + outStart, work, len);
    } else if (outStart >= in) {
      DecodeSegment(code, clen, readEnd, buf + outStart, slen, buf + outEnd);
    } else {
      DecodeSegment(code, clen, readEnd, work, slen, work + kDecodeAreaSize);
      std::memcpy(buf + outStart, work, len);
    }
    if (!ok) {
      plan->defect = PackDefect::kCode;
      plan->offset = body;
      return false;
    }
    if (outStart < b) touched = true;
    in = body;
    outEnd = outStart;
  }
  if (plan->margin != 0) std::memmove(buf, buf + plan->margin, n);
  return true;
}

}  // namespace quarnel_internal
