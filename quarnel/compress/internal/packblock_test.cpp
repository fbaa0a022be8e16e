// The segment coder and the in-place block packer over plain byte buffers:
// exact bytes of the documented cases, agreement with the plain reference
// coder on generated data, round trips, and the checks that keep a damaged
// packed block from being unpacked.
#include "quarnel/compress/internal/packblock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "quarnel/compress/compress_reference.h"
#include "quarnel/compress/internal/segcode.h"
#include "quarnel/compress/testdata.h"
#include "tests/support/helpers.h"

namespace quarnel_internal {
namespace {

using Bytes = std::vector<std::uint8_t>;
using quarnel_testdata::DataKind;
using quarnel_testdata::Generate;

// A coder with tables of its own.
class OwnedCoder {
 public:
  OwnedCoder()
      : index_(std::make_unique<SegmentIndex>()),
        next_(new std::uint16_t[SegmentCoder::kChainBytes / 2]),
        coder_(index_.get(), next_.get()) {}
  const SegmentCoder& get() const { return coder_; }

  // The coded bytes, or false when the budget is passed.
  bool Code(const Bytes& seg, Bytes* out) const {
    std::uint8_t area[kCodeAreaSize];
    const int c = coder_.Code(seg.data(), static_cast<int>(seg.size()), area);
    if (c < 0) return false;
    out->assign(area, area + c);
    return true;
  }

 private:
  std::unique_ptr<SegmentIndex> index_;
  std::unique_ptr<std::uint16_t[]> next_;
  SegmentCoder coder_;
};

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Random bytes in which no four consecutive bytes occur twice, so that the
// only matches are those a test puts in.
Bytes Unrepeated(int n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes out;
  std::set<std::uint32_t> seen;
  while (static_cast<int>(out.size()) < n) {
    const auto b = static_cast<std::uint8_t>(rng());
    const std::size_t k = out.size();
    const std::uint32_t gram = k < 3 ? 0
                                     : std::uint32_t{out[k - 3]} << 24 |
                                           std::uint32_t{out[k - 2]} << 16 |
                                           std::uint32_t{out[k - 1]} << 8 | b;
    if (k < 3 || seen.insert(gram).second) out.push_back(b);
  }
  return out;
}

// Packs `data` in a buffer of exactly the room the packer needs. Returns the
// outcome; `*block` gets the buffer cut to the outcome's size.
PackOutcome Pack(const Bytes& data, Bytes* block, PackPollProc poll = nullptr,
                 void* arg = nullptr) {
  static const OwnedCoder coder;
  const auto n = static_cast<unsigned>(data.size());
  Bytes buf(n + PackSlack(n));
  std::copy(data.begin(), data.end(), buf.begin());
  const PackOutcome r = PackInPlace(buf.data(), n, kPackMagicCode, coder.get(), poll, arg);
  if (r.kind != PackOutcome::kAborted) buf.resize(r.size);
  *block = std::move(buf);
  return r;
}

// Unpacks in a buffer of exactly the room the plan asks for, so that the
// address checker sees any access past it.
bool Unpack(const Bytes& block, Bytes* data, UnpackPlan* plan = nullptr) {
  UnpackPlan local;
  UnpackPlan* p = plan ? plan : &local;
  if (block.size() < kPackHeaderSize ||
      !StartsWithMagic(block.data(), static_cast<unsigned>(block.size()), kPackMagicCode)) {
    return false;
  }
  if (!PlanUnpack(block.data(), static_cast<unsigned>(block.size()), p)) return false;
  auto buf = std::make_unique<std::uint8_t[]>(p->room);
  std::memcpy(buf.get(), block.data(), block.size());
  if (!UnpackInPlace(buf.get(), static_cast<unsigned>(block.size()), p)) {
    // Only bytes above the packed ones may have been written.
    EXPECT_TRUE(std::equal(block.begin(), block.end(), buf.get()));
    return false;
  }
  data->assign(buf.get(), buf.get() + p->n);
  return true;
}

Bytes BigEndian32(std::uint32_t v) {
  return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
          static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

Bytes Header(std::int32_t size) {
  return Concat({{0x51, 0x6E, 0x51, 0x79}, BigEndian32(static_cast<std::uint32_t>(size))});
}

Bytes Trailer(unsigned len) {
  return {static_cast<std::uint8_t>(len >> 8), static_cast<std::uint8_t>(len)};
}

// The first `len` bytes of `code` in a buffer of exactly len + 2 bytes: the
// checker and the decoder may read two bytes past a stream (a record's
// trailer in a block), and nothing more. The two bytes are 0xA5, which would
// read as more tokens.
std::unique_ptr<std::uint8_t[]> WithTail(const Bytes& code, std::size_t len) {
  auto buf = std::make_unique<std::uint8_t[]>(len + 2);
  if (len != 0) std::memcpy(buf.get(), code.data(), len);
  buf[len] = 0xA5;
  buf[len + 1] = 0xA5;
  return buf;
}

bool Check(const Bytes& code, int n, std::size_t len) {
  return CheckSegmentCode(WithTail(code, len).get(), static_cast<int>(len), n);
}
bool Check(const Bytes& code, int n) { return Check(code, n, code.size()); }

// ---------------------------------------------------------------------------
// The coder

TEST(SegmentCoder, TokenKindsAtTheirLimits) {
  const OwnedCoder coder;
  const Bytes pool = Unrepeated(5000, 7);
  for (const auto& r : ReadTsv("segment_tokens.tsv")) {
    const int at = std::stoi(r[0]), p = std::stoi(r[1]), m = std::stoi(r[2]);
    const std::string first = Unhex(r[3]);  // the run's header bytes, then the match token
    SCOPED_TRACE(testing::Message() << "copy of " << m << " from " << p << " at " << at);
    // The copy's source lies inside the literal prefix; the byte after the
    // copy differs from the byte after its source.
    Bytes seg(pool.begin(), pool.begin() + at);
    seg.insert(seg.end(), seg.begin() + p, seg.begin() + p + m);
    seg.push_back(static_cast<std::uint8_t>(pool[static_cast<std::size_t>(p + m)] ^ 0x80));
    Bytes coded;
    ASSERT_TRUE(coder.Code(seg, &coded));
    Bytes expected;
    const std::size_t runHeader = at > 32 ? 2 : 1;
    expected.insert(expected.end(), first.begin(), first.begin() + runHeader);
    expected.insert(expected.end(), seg.begin(), seg.begin() + at);
    expected.insert(expected.end(), first.begin() + runHeader, first.end());
    const int consumed = at + std::min(m, kLongMatchMax);
    const int tailCount = static_cast<int>(seg.size()) - consumed;
    ASSERT_EQ(tailCount, std::stoi(r[4]));
    expected.push_back(static_cast<std::uint8_t>(kTokShortRun | (tailCount - 1)));
    expected.insert(expected.end(), seg.begin() + consumed, seg.end());
    EXPECT_EQ(coded, expected);
    Bytes ref;
    ASSERT_TRUE(quarnel_reference::CodeSegment(seg.data(), static_cast<int>(seg.size()), &ref));
    EXPECT_EQ(ref, coded);
  }
}

// The plain reference is slow; builds without optimisation (the sanitizer
// builds) go through a sample of the generated cases.
#if defined(__OPTIMIZE__)
constexpr int kSample = 1;
#else
constexpr int kSample = 10;
#endif

// True for the kinds whose long segments make the plain chain walk slow.
bool SlowForReference(DataKind kind) {
  return kind == DataKind::kAllEqual || kind == DataKind::kLowEntropy ||
         kind == DataKind::kSparse || kind == DataKind::kRuns;
}

// The library's coder and the plain chain walk agree byte for byte, budget
// failures included, on 100,000 generated segments of every kind and of all
// lengths, most of them short (the reference's cost grows with the square of
// the length); every coded segment passes the checker and decodes to itself.
TEST(SegmentCoder, MatchesReferenceOnGeneratedSegments) {
  const OwnedCoder coder;
  std::mt19937 rng(20240607);
  int coded = 0;
  int overBudget = 0;
  int full = 0;
  Bytes mine;
  Bytes ref;
  std::uint8_t decoded[kDecodeAreaSize];
  for (int round = 0; round < 100000 / kSample; ++round) {
    auto kind = static_cast<DataKind>(rng() % quarnel_testdata::kDataKinds);
    const unsigned pick = rng() % 100;
    int n;
    if (pick < 75) {
      n = 1 + static_cast<int>(rng() % 256);
    } else if (pick < 92) {
      n = 257 + static_cast<int>(rng() % 768);
    } else if (pick < 97) {
      n = 1025 + static_cast<int>(rng() % 3072);
    } else {
      n = 4070 + static_cast<int>(rng() % 27);  // around the budget
      kind = rng() % 2 ? DataKind::kNearBudget : DataKind::kText;
    }
    if (SlowForReference(kind) && n > 512 && round % 200 != 0) n = 1 + n % 512;
    if (kind == DataKind::kAllEqual && n > 1500) n = 1 + n % 1500;
    if (n == 4096) ++full;
    const Bytes seg = Generate(kind, static_cast<std::size_t>(n), rng);
    const bool ok = coder.Code(seg, &mine);
    const bool refOk = quarnel_reference::CodeSegment(seg.data(), n, &ref);
    ASSERT_EQ(ok, refOk) << "round " << round << " kind " << static_cast<int>(kind) << " n " << n;
    if (!ok) {
      ++overBudget;
      continue;
    }
    ++coded;
    ASSERT_EQ(mine, ref) << "round " << round << " kind " << static_cast<int>(kind) << " n " << n;
    ASSERT_TRUE(Check(mine, n));
    const auto padded = WithTail(mine, mine.size());
    DecodeSegment(padded.get(), static_cast<int>(mine.size()), padded.get() + mine.size() + 2,
                  decoded, n, decoded + kDecodeAreaSize);
    ASSERT_TRUE(std::equal(seg.begin(), seg.end(), decoded)) << "round " << round;
  }
  // The generator reaches both sides of the budget and whole segments.
  EXPECT_GT(overBudget, 200 / kSample);
  EXPECT_GT(coded, 50000 / kSample);
  EXPECT_GT(full, 30 / kSample);
}

// ---------------------------------------------------------------------------
// The decoder and its checker against random token streams

// A random well-formed token stream for a segment of up to `n` bytes, every
// kind used at every size; `*out` gets the segment the reference decodes.
Bytes RandomTokens(std::mt19937& rng, int n) {
  Bytes code;
  int o = 0;
  while (o < n) {
    const int left = n - o;
    const unsigned kind = o == 0 ? 3 : rng() % 5;
    if (kind >= 3) {
      int count = 1 + static_cast<int>(rng() % std::min(left, rng() % 2 ? 32 : 300));
      if (kind == 3 && count <= 32) {
        code.push_back(static_cast<std::uint8_t>(kTokShortRun | (count - 1)));
      } else {
        code.push_back(static_cast<std::uint8_t>(kTokLongRun | ((count - 1) >> 8)));
        code.push_back(static_cast<std::uint8_t>(count - 1));
      }
      for (int k = 0; k < count; ++k) code.push_back(static_cast<std::uint8_t>(rng() % 4));
      o += count;
      continue;
    }
    // A copy from near (overlapping) or far.
    const int p = rng() % 2 ? std::max(0, o - 1 - static_cast<int>(rng() % 20))
                            : static_cast<int>(rng() % static_cast<unsigned>(o));
    if (kind == 0 && left >= 4) {
      const int m = 4 + static_cast<int>(rng() % std::min(8, left - 3));
      code.push_back(static_cast<std::uint8_t>(((m - 4) << 4) | (p >> 8)));
      code.push_back(static_cast<std::uint8_t>(p));
      o += m;
    } else if (kind == 1 && left >= 12 && p <= 1023) {
      const int m = 12 + static_cast<int>(rng() % std::min(16, left - 11));
      code.push_back(static_cast<std::uint8_t>(kTokMediumMatch | ((p >> 8) << 4) | (m - 12)));
      code.push_back(static_cast<std::uint8_t>(p));
      o += m;
    } else if (left >= 12) {
      const int m = 12 + static_cast<int>(rng() % std::min(256, left - 11));
      code.push_back(static_cast<std::uint8_t>(kTokLongMatch | (p >> 8)));
      code.push_back(static_cast<std::uint8_t>(p));
      code.push_back(static_cast<std::uint8_t>(m - 12));
      o += m;
    }
  }
  return code;
}

TEST(SegmentDecoder, AgreesWithByteByByteCopyOnRandomTokens) {
  std::mt19937 rng(99);
  std::uint8_t out[kDecodeAreaSize];
  Bytes ref;
  for (int round = 0; round < 20000 / kSample; ++round) {
    const int n = 1 + static_cast<int>(rng() % (round % 4 == 0 ? 4096 : 300));
    const Bytes code = RandomTokens(rng, n);
    ASSERT_TRUE(
        quarnel_reference::DecodeSegment(code.data(), static_cast<int>(code.size()), n, &ref));
    ASSERT_TRUE(Check(code, n));
    // Exactly the code and two bytes are readable, and exactly the segment
    // writable: no wide copy reaches past them. Both decoders, in a roomy
    // work area and in an exact one.
    const auto exact = WithTail(code, code.size());
    const std::uint8_t* readEnd = exact.get() + code.size() + 2;
    const int len = static_cast<int>(code.size());
    DecodeSegment(exact.get(), len, readEnd, out, n, out + kDecodeAreaSize);
    ASSERT_TRUE(std::equal(ref.begin(), ref.end(), out)) << "round " << round;
    auto tight = std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(n));
    DecodeSegment(exact.get(), len, readEnd, tight.get(), n, tight.get() + n);
    ASSERT_TRUE(std::equal(ref.begin(), ref.end(), tight.get())) << "round " << round;
    std::memset(tight.get(), 0, static_cast<std::size_t>(n));
    ASSERT_TRUE(DecodeSegmentChecked(exact.get(), len, readEnd, tight.get(), n, tight.get() + n));
    ASSERT_TRUE(std::equal(ref.begin(), ref.end(), tight.get())) << "round " << round;
    // One byte more or less than the stream yields is refused.
    EXPECT_FALSE(Check(code, n + 1));
    if (n > 1) {
      EXPECT_FALSE(Check(code, n - 1));
    }
    // So is every stream cut short inside or after a token.
    const int cut = static_cast<int>(rng() % code.size());
    EXPECT_FALSE(Check(code, n, static_cast<std::size_t>(cut)));
  }
}

TEST(SegmentDecoder, CheckerRefusesMalformedStreams) {
  for (const auto& f : ReadTsv("segment_malformed.tsv")) {
    SCOPED_TRACE(f[0]);
    const std::string hex = Unhex(f[1]);
    const Bytes bytes(hex.begin(), hex.end());
    const int n = std::stoi(f[2]);
    EXPECT_FALSE(Check(bytes, n));
    // The decoder that checks as it goes refuses them too, writing only
    // inside the segment.
    const auto code = WithTail(bytes, bytes.size());
    auto out = std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(n));
    EXPECT_FALSE(DecodeSegmentChecked(code.get(), static_cast<int>(bytes.size()),
                                      code.get() + bytes.size() + 2, out.get(), n, out.get() + n));
    // With room around them the wide pieces go without checks of their own:
    // refused all the same, nothing written past the room.
    Bytes roomyCode = bytes;
    roomyCode.resize(bytes.size() + 64, 0xA5);
    Bytes roomyOut(static_cast<std::size_t>(n) + 64);
    EXPECT_FALSE(DecodeSegmentChecked(roomyCode.data(), static_cast<int>(bytes.size()),
                                      roomyCode.data() + roomyCode.size(), roomyOut.data(), n,
                                      roomyOut.data() + roomyOut.size()));
  }
  // The same shapes made right are accepted.
  EXPECT_TRUE(Check({0xA0, 0x41, 0x00, 0x00}, 5));
  EXPECT_TRUE(Check({0xA0, 0x41, 0x80, 0x00, 0x00}, 13));
  EXPECT_TRUE(Check({0x90, 0x01, 1, 2}, 2));
}

// ---------------------------------------------------------------------------
// Whole blocks

TEST(PackBlock, RepeatedByteBlockExactBytes) {
  Bytes block;
  const PackOutcome r = Pack(Bytes(4096, 0x00), &block);
  ASSERT_EQ(r.kind, PackOutcome::kPacked);
  EXPECT_FALSE(r.anyRaw);
  Bytes body = {0xA0, 0x00};
  for (int k = 0; k < 15; ++k) body.insert(body.end(), {0x80, 0x00, 0xFF});
  body.insert(body.end(), {0x80, 0x00, 78});
  EXPECT_EQ(block, Concat({Header(4096), body, Trailer(50)}));
  Bytes back;
  ASSERT_TRUE(Unpack(block, &back));
  EXPECT_EQ(back, Bytes(4096, 0x00));
}

TEST(PackBlock, SmallBufferThatDoesNotPayStaysAsItWas) {
  std::mt19937 rng(5);
  for (unsigned n : {1u, 3u, 4u, 20u, 4095u, 4096u}) {
    SCOPED_TRACE(n);
    const Bytes data = Generate(DataKind::kRandom, n, rng);
    Bytes block;
    const PackOutcome r = Pack(data, &block);
    EXPECT_EQ(r.kind, PackOutcome::kSmallBuffer);
    EXPECT_EQ(r.size, n + PackSlack(n));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), block.begin()));
  }
  EXPECT_EQ(PackSlack(4096), 34u);
  // Coding must save more than 10 bytes for a block of one segment: a run of
  // 40 equal bytes codes to 5 bytes (saves 35), 11 bytes to 4 (saves 7), 14
  // bytes to 4 (saves 10), 15 bytes to 4 (saves 11).
  Bytes block;
  EXPECT_EQ(Pack(Bytes(40, 7), &block).kind, PackOutcome::kPacked);
  EXPECT_EQ(block, Concat({Header(40), {0xA0, 0x07, 0x80, 0x00, 39 - 12}, Trailer(5)}));
  EXPECT_EQ(Pack(Bytes(11, 7), &block).kind, PackOutcome::kSmallBuffer);
  EXPECT_EQ(Pack(Bytes(14, 7), &block).kind, PackOutcome::kSmallBuffer);  // 4 bytes: saves 10
  EXPECT_EQ(Pack(Bytes(15, 7), &block).kind, PackOutcome::kPacked);       // 4 bytes: saves 11
}

TEST(PackBlock, IncompressibleSegmentsAreRawAndTheSizeWordNegative) {
  std::mt19937 rng(6);
  const Bytes data = Generate(DataKind::kRandom, 10000, rng);
  Bytes block;
  const PackOutcome r = Pack(data, &block);
  ASSERT_EQ(r.kind, PackOutcome::kPacked);
  EXPECT_TRUE(r.anyRaw);
  const auto slice = [&](std::size_t from, std::size_t len) {
    return Bytes(data.begin() + static_cast<std::ptrdiff_t>(from),
                 data.begin() + static_cast<std::ptrdiff_t>(from + len));
  };
  EXPECT_EQ(block, Concat({Header(-10000), slice(0, 4096), Trailer(4096), slice(4096, 4096),
                           Trailer(4096), slice(8192, 1808), Trailer(1808)}));
  Bytes back;
  UnpackPlan plan;
  ASSERT_TRUE(Unpack(block, &back, &plan));
  EXPECT_EQ(back, data);
  // Every slice raw: moved down in order inside the block's own bytes.
  EXPECT_TRUE(plan.allRaw);
  EXPECT_EQ(plan.margin, 0u);
  EXPECT_EQ(plan.room, 10014u);
  // With a coded slice too, it is built above its size by the slack.
  const Bytes text = Generate(DataKind::kText, 4096, rng);
  const Bytes mixed = Concat({text, data});
  ASSERT_EQ(Pack(mixed, &block).kind, PackOutcome::kPacked);
  ASSERT_TRUE(Unpack(block, &back, &plan));
  EXPECT_EQ(back, mixed);
  EXPECT_FALSE(plan.allRaw);
  EXPECT_EQ(plan.margin, PackSlack(14096));
  EXPECT_EQ(plan.room, 14096 + plan.margin);
}

// The in-place packer writes exactly what the reference writes into a
// separate buffer (each segment coded alone, positions inside the segment),
// for blocks of every kind and many sizes; each unpacks to its original in a
// buffer of exactly the room it asks for.
TEST(PackBlock, MatchesReferenceAndRoundTrips) {
  std::mt19937 rng(31);
  Bytes block;
  Bytes ref;
  Bytes back;
  for (int round = 0; round < 200 / kSample; ++round) {
    std::size_t n;
    switch (round % 5) {
      case 0:
        n = rng() % 64;
        break;
      case 1:
        n = 4096 * (1 + rng() % 4) + (rng() % 3) - 1;  // around slice boundaries
        break;
      default:
        n = rng() % 14000;
        break;
    }
    const Bytes data = quarnel_testdata::GenerateMixed(n, rng);
    const PackOutcome r = Pack(data, &block);
    const bool refPacked = quarnel_reference::PackBlock(data, &ref);
    ASSERT_EQ(r.kind == PackOutcome::kPacked, refPacked) << "round " << round;
    if (!refPacked) {
      ASSERT_EQ(r.kind, PackOutcome::kSmallBuffer);
      ASSERT_TRUE(std::equal(data.begin(), data.end(), block.begin()));
      continue;
    }
    ASSERT_EQ(block, ref) << "round " << round << " n " << n;
    ASSERT_TRUE(Unpack(block, &back)) << "round " << round;
    ASSERT_EQ(back, data) << "round " << round;
  }
}

// A 64 MiB block (8 MiB without optimisation) made of a hundred different
// slices in random order, its last slice cut short: raw and coded records
// alternate. Slices are coded alone, so the reference codes each different
// slice once.
TEST(PackBlock, LargeBlockMatchesReference) {
  std::mt19937 rng(64);
  std::vector<Bytes> tiles;
  for (int t = 0; t < 100; ++t) {
    const auto kind =
        t % 2 ? DataKind::kRandom : static_cast<DataKind>(rng() % quarnel_testdata::kDataKinds);
    tiles.push_back(Generate(kind == DataKind::kAllEqual ? DataKind::kPattern : kind, 4096, rng));
  }
  const std::size_t n = (std::size_t{64} << 20) / (kSample > 1 ? 8 : 1) - 1000;
  Bytes data(n);
  for (std::size_t at = 0; at < n; at += 4096) {
    const Bytes& tile = tiles[rng() % tiles.size()];
    std::copy(tile.begin(),
              tile.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(4096, n - at)),
              data.begin() + static_cast<std::ptrdiff_t>(at));
  }
  Bytes block;
  ASSERT_EQ(Pack(data, &block).kind, PackOutcome::kPacked);
  std::map<Bytes, std::pair<bool, Bytes>> memo;
  Bytes ref;
  ASSERT_TRUE(
      quarnel_reference::PackBlock(data, &ref, [&memo](const std::uint8_t* s, int len, Bytes* out) {
        const Bytes key(s, s + len);
        auto it = memo.find(key);
        if (it == memo.end()) {
          Bytes coded;
          const bool ok = quarnel_reference::CodeSegment(s, len, &coded);
          it = memo.emplace(key, std::make_pair(ok, coded)).first;
        }
        *out = it->second.second;
        return it->second.first;
      }));
  ASSERT_EQ(block.size(), ref.size());
  EXPECT_TRUE(block == ref);
  EXPECT_GE(block[4], 0x80);  // some slices are raw: the size word is negative
  Bytes back;
  ASSERT_TRUE(Unpack(block, &back));
  EXPECT_TRUE(back == data);
}

// ---------------------------------------------------------------------------
// Damaged blocks

struct DefectRow {
  const char* what;
  Bytes block;
  PackDefect defect;
  unsigned offset;
};

TEST(UnpackPlan, FindsEachDefect) {
  const Bytes fiveA = {0xA0, 0x41, 0x00, 0x00};  // "A" then 4 copies: 5 bytes
  const Bytes raw4096(4096, 0x11);
  const Bytes sixA = {0xA0, 0x41, 0x10, 0x00};  // "A" then 5 copies: 6 bytes
  // 4,080 literals and two copies of 8 bytes: a whole slice in the largest
  // coded form kept (4,086 bytes); `bad` copies from a byte not yet written.
  auto full = [](bool bad) {
    Bytes code = {0x9F, 0xEF};
    for (int k = 0; k < 4080; ++k) code.push_back(static_cast<std::uint8_t>(k * 7));
    code.insert(code.end(), {0x40, 0x00});
    code.insert(code.end(), {static_cast<std::uint8_t>(bad ? 0x4F : 0x40),
                             static_cast<std::uint8_t>(bad ? 0xFF : 0x00)});
    return code;
  };
  Bytes manyA = {0xA0, 0x41};  // "A" then 3,999 copies: 4,000 bytes in 47
  for (int k = 0; k < 14; ++k) manyA.insert(manyA.end(), {0x80, 0x00, 0xFF});
  manyA.insert(manyA.end(), {0x80, 0x00, 261 - 12});
  const std::vector<DefectRow> rows = {
      {"size word of -2^31", Header(INT32_MIN), PackDefect::kSizeWord, 4},
      {"no room for a trailer", Header(5), PackDefect::kTrailer, 6},
      {"trailer longer than the slice", Concat({Header(5), fiveA, Trailer(6)}),
       PackDefect::kTrailer, 12},
      {"trailer reaching into the header", Concat({Header(5), {0xA0}, Trailer(4)}),
       PackDefect::kTrailer, 9},
      {"token stream yields too little", Concat({Header(6), fiveA, Trailer(4)}), PackDefect::kCode,
       8},
      {"copy from a byte not yet written",
       Concat({Header(5), {0xA0, 0x41, 0x00, 0x01}, Trailer(4)}), PackDefect::kCode, 8},
      {"bytes between header and records", Concat({Header(5), {0x00}, fiveA, Trailer(4)}),
       PackDefect::kStrayBytes, 8},
      // Unpacked at offset 0 (N is above B), the second slice starts at 4,096,
      // below its record.
      {"second slice would overwrite the first record",
       Concat({Header(8096), raw4096, Trailer(4096), manyA, Trailer(47)}), PackDefect::kOverlap,
       8 + 4098},
      {"empty block with a record", Concat({Header(0), fiveA, Trailer(4)}), PackDefect::kStrayBytes,
       8},
      // Two slices unpacked over the block's own 4,102 bytes: the second
      // (decoded first, aside) is checked on the way, the first beforehand.
      {"bad copy in the first slice",
       Concat({Header(4102), full(true), Trailer(4086), sixA, Trailer(4)}), PackDefect::kCode, 8},
      {"bad copy in the last slice",
       Concat({Header(4102), full(false), Trailer(4086), {0xA0, 0x41, 0x10, 0x01}, Trailer(4)}),
       PackDefect::kCode, 8 + 4088},
  };
  for (const DefectRow& r : rows) {
    SCOPED_TRACE(r.what);
    // Found by the plan, or on the way with the packed bytes left as they
    // were.
    UnpackPlan plan;
    Bytes back;
    EXPECT_FALSE(Unpack(r.block, &back, &plan));
    EXPECT_EQ(plan.defect, r.defect);
    EXPECT_EQ(plan.offset, r.offset);
  }
  // The same blocks made right unpack.
  Bytes back;
  ASSERT_TRUE(Unpack(Concat({Header(4102), full(false), Trailer(4086), sixA, Trailer(4)}), &back));
  EXPECT_EQ(back.size(), 4102u);
  ASSERT_TRUE(Unpack(Concat({Header(5), fiveA, Trailer(4)}), &back));
  EXPECT_EQ(back, Bytes(5, 0x41));
  // With the size word negative the slack makes room, and a raw first
  // record is fine.
  ASSERT_TRUE(Unpack(Concat({Header(-8096), raw4096, Trailer(4096), manyA, Trailer(47)}), &back));
  EXPECT_EQ(back, Concat({raw4096, Bytes(4000, 0x41)}));
  EXPECT_STREQ(PackDefectText(PackDefect::kOverlap), "segment would overwrite unread data");
}

// Cutting a valid packed block short or flipping any bit either is refused
// or unpacks inside its room (the address checker watches the exact-size
// buffers).
TEST(UnpackPlan, TruncationsAndBitFlipsStayInsideTheBlock) {
  std::mt19937 rng(77);
  std::vector<Bytes> blocks;
  for (std::size_t n : {200u, 5000u, 9000u, 13000u}) {
    Bytes block;
    const Bytes data = quarnel_testdata::GenerateMixed(n, rng);
    if (Pack(data, &block).kind == PackOutcome::kPacked) blocks.push_back(block);
  }
  Bytes raw10000;
  Pack(Generate(DataKind::kRandom, 10000, rng), &raw10000);
  blocks.push_back(raw10000);
  ASSERT_GE(blocks.size(), 4u);
  int refused = 0;
  int tried = 0;
  Bytes back;
  for (const Bytes& block : blocks) {
    // Every length of a short block; of a long one, every 13th and the last
    // few hundred.
    const std::size_t every = block.size() > 2000 ? 13 : 1;
    for (std::size_t len = 8; len < block.size(); len += len + 300 < block.size() ? every : 1) {
      const Bytes cut(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(len));
      ++tried;
      if (!Unpack(cut, &back)) ++refused;
    }
    for (std::size_t bit = 32; bit<block.size() * 8; bit += block.size()> 2000 ? 29 : 1) {
      Bytes flipped = block;
      flipped[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      ++tried;
      if (!Unpack(flipped, &back)) ++refused;
    }
  }
  // Most damage shows; what does not still stays inside the block.
  EXPECT_GT(refused, tried / 4);
}

}  // namespace
}  // namespace quarnel_internal
