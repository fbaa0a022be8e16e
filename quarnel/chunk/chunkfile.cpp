#include "quarnel/chunk/chunkfile.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>
#include <vector>

#include "quarnel/chunk/internal/chimpl.h"
#include "quarnel/compress/hashblock.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/tmemory.h"

static_assert(std::endian::native == std::endian::little,
              "chunk files are stored in the byte order of the machine: little-endian");

using quarnel_internal::Get;
using quarnel_internal::Put;

unsigned chHashBlock(const unsigned char* data, int length) { return HashBlock(data, length); }

void chGetChunkHeader(const unsigned char* b, int oldFormat, CHChunkHeader* h) {
  *h = CHChunkHeader{};
  h->type = Get<std::uint32_t>(b);
  if (oldFormat) {
    h->id = Get<std::uint64_t>(b + 4);
    h->size = Get<std::int64_t>(b + 12);
    h->slack = Get<std::int64_t>(b + 20);
    h->flags = Get<std::uint32_t>(b + 28);
    h->word = Get<std::uint32_t>(b + 32);
    h->hash = Get<std::uint32_t>(b + 44);
    return;
  }
  h->reserved = Get<std::uint32_t>(b + 4);
  h->id = Get<std::uint64_t>(b + 8);
  h->size = Get<std::int64_t>(b + 16);
  h->slack = Get<std::int64_t>(b + 24);
  h->flags = Get<std::uint32_t>(b + 32);
  h->word = Get<std::uint32_t>(b + 36);
  h->reserved2 = Get<std::uint64_t>(b + 40);
  h->hash = Get<std::uint32_t>(b + 48);
}

void chPutChunkHeader(const CHChunkHeader* h, int oldFormat, unsigned char* b) {
  std::memset(b, 0, oldFormat ? kChunkHeaderSize0100 : kChunkHeaderSize);
  Put(b, h->type);
  if (oldFormat) {
    Put(b + 4, h->id);
    Put(b + 12, h->size);
    Put(b + 20, h->slack);
    Put(b + 28, h->flags);
    Put(b + 32, h->word);
    Put(b + 44, h->hash);
    return;
  }
  Put(b + 4, h->reserved);
  Put(b + 8, h->id);
  Put(b + 16, h->size);
  Put(b + 24, h->slack);
  Put(b + 32, h->flags);
  Put(b + 36, h->word);
  Put(b + 40, h->reserved2);
  Put(b + 48, h->hash);
}

void chGetMapEntries(const unsigned char* b, int count, int oldFormat, CHMapEntry* out) {
  if (!oldFormat) {
    if (count > 0) std::memcpy(out, b, static_cast<std::size_t>(count) * kMapEntrySize);
    return;
  }
  for (int i = 0; i < count; ++i, b += kMapEntrySize0100) {
    CHMapEntry& e = out[i];
    e = CHMapEntry{};
    e.type = Get<std::uint32_t>(b);
    e.id = Get<std::uint64_t>(b + 4);
    e.address = Get<std::int64_t>(b + 12);
    e.slack = Get<std::int64_t>(b + 20);
    e.flags = Get<std::uint32_t>(b + 28);
    e.word = Get<std::uint32_t>(b + 32);
  }
}

void chPutMapEntries(const CHMapEntry* entries, int count, int oldFormat, unsigned char* b) {
  if (!oldFormat) {
    if (count > 0) std::memcpy(b, entries, static_cast<std::size_t>(count) * kMapEntrySize);
    return;
  }
  for (int i = 0; i < count; ++i, b += kMapEntrySize0100) {
    const CHMapEntry& e = entries[i];
    std::memset(b, 0, kMapEntrySize0100);
    Put(b, e.type);
    Put(b + 4, e.id);
    Put(b + 12, e.address);
    Put(b + 20, e.slack);
    Put(b + 28, e.flags);
    Put(b + 32, e.word);
  }
}

namespace {

struct MapCheckCode {
  int code;
  const char* message;
};

constexpr MapCheckCode kMapCheckCodes[] = {
    {10000, "chMapCheck: invalid starting address"},
    {10010, "chMapCheck: type count wrong"},
    {10011, "chMapCheck: invalid number"},
    {10012, "chMapCheck: invalid type sequence"},
    {10020, "chMapCheck: invalid type"},
    {10021, "chMapCheck: invalid address"},
    {10022, "chMapCheck: invalid address sequence"},
    {10023, "chMapCheck: invalid id sequence"},
    {10024, "chMapCheck: failed allocation not fixed"},
    {10030, "chMapCheck: invalid map termination"},
    {10031, "chMapCheck: can't find starting map entry"},
    {10040, "chMapCheck: invalid chunk size"},
    {10041, "chMapCheck: impossible chunk size"},
    {10042, "chMapCheck: non-existent handle"},
    {10043, "chMapCheck: nil handle or purged"},
    {10044, "chMapCheck: inconsistent handle size"},
    {10045, "chMapCheck: already seen or not in list"},
    {10046, "chMapCheck: wrong information"},
    {10047, "chMapCheck: went backwards somehow"},
    {10050, "chMapCheck: came out beyond available space"},
    {10060, "chMapCheck: was never enumerated"},
};

bool Purged(const TMemory* h) { return h->GetSize() == 0 && (h->GetFlags() & kTMemPurgeable); }

// First pass: the array in order. Marks what it accepts; heads[i] tells the
// group heads apart.
int CheckArray(CHMapEntry* map, int count, const CHFileHeader& h, std::vector<char>* heads) {
  std::int64_t remaining = 0;
  std::uint32_t groupType = 0;
  bool seen = false;
  std::int64_t lastAddress = 0;
  std::uint64_t lastId = 0;
  for (int i = 0; i < count; ++i) {
    CHMapEntry& e = map[i];
    if (remaining == 0) {
      const auto n = static_cast<std::int64_t>(e.id);
      if (n <= 0) return 10011;
      if (e.type <= groupType) return 10012;
      groupType = e.type;
      remaining = n;
      seen = false;
      (*heads)[static_cast<std::size_t>(i)] = 1;
    } else {
      if (e.address == kMapHeadAddress) return 10010;
      if (e.type != groupType) return 10020;
      if (e.address < h.firstChunk || e.address >= h.endOfData) return 10021;
      if (groupType == kChunkFreeType) {
        if (seen && e.address <= lastAddress) return 10022;
      } else if (seen && e.id <= lastId) {
        return 10023;
      }
      if (e.flags & kMapEntryAllocating) return 10024;
      seen = true;
      lastAddress = e.address;
      lastId = e.id;
      --remaining;
    }
    e.flags |= kMapEntryScratch;
  }
  return remaining > 0 ? 10030 : 0;
}

// Second pass and the last check: the entries by address.
int CheckWalk(CHMapEntry* map, int count, const CHFileHeader& h, int chunkHeaderSize,
              const TMemory* const* handles, const std::vector<char>& heads) {
  std::vector<std::pair<std::int64_t, int>> byAddress;
  byAddress.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    if (!heads[static_cast<std::size_t>(i)]) byAddress.emplace_back(map[i].address, i);
  // A map is mostly in address order already.
  if (!std::is_sorted(byAddress.begin(), byAddress.end()))
    std::sort(byAddress.begin(), byAddress.end());
  using Pos = std::vector<std::pair<std::int64_t, int>>::iterator;
  // The first element from `first` on that is not below `key`: the walk's
  // answers mostly lie a step or two ahead, else they are searched for.
  const auto seek = [&](Pos first, std::pair<std::int64_t, int> key) {
    for (int step = 0; step < 4; ++step, ++first)
      if (first == byAddress.end() || !(*first < key)) return first;
    return std::lower_bound(first, byAddress.end(), key);
  };
  const auto firstAtOrAbove = [&](std::int64_t a) {
    return std::lower_bound(byAddress.begin(), byAddress.end(), std::make_pair(a, -1));
  };
  const std::int64_t granule = h.granule;
  auto at = firstAtOrAbove(h.firstChunk);
  if (at == byAddress.end()) return 10031;
  std::int64_t position = h.firstChunk;
  for (;;) {
    CHMapEntry& e = map[at->second];
    if (!(e.flags & kMapEntryScratch)) return 10045;
    e.flags &= ~kMapEntryScratch;
    const auto next = seek(at, std::make_pair(e.address + granule, -1));
    const std::int64_t extent = (next == byAddress.end() ? h.endOfData : next->first) - e.address;
    const bool chunk = e.type != kChunkFreeType;
    if (granule <= 0 || extent % granule != 0) return 10040;
    if (extent > 0xFFFFFFFFLL || (chunk && extent < chunkHeaderSize)) return 10041;
    if (chunk && (e.flags & kMapEntryDirty)) {
      const TMemory* handle = handles ? handles[at->second] : nullptr;
      if (handle == nullptr) return 10042;
      if (Purged(handle)) return 10043;
      const std::int64_t size = handle->GetSize();
      const std::int64_t fitted = (size + chunkHeaderSize + granule - 1) / granule * granule;
      if (extent != fitted || extent - e.slack - chunkHeaderSize != size) return 10044;
    }
    if (!chunk && static_cast<std::int64_t>(e.id) != extent) return 10046;
    if (chunk) position += extent;
    const auto following = seek(at, std::make_pair(e.address, count));
    if (following == byAddress.end()) break;
    if (following->first < position) return 10047;
    at = following;
  }
  if (position > h.endOfData) return 10050;
  for (const auto& [address, i] : byAddress)
    if (map[i].flags & kMapEntryScratch) return 10060;
  return 0;
}

}  // namespace

int chMapCheck(CHMapEntry* map, int count, const CHFileHeader* header, int chunkHeaderSize,
               const TMemory* const* handles) {
  if (map == nullptr || count <= 0 || header == nullptr) return 0;
  int code = 0;
  if (header->firstChunk < kChunkHeaderSector || header->firstChunk > header->endOfData) {
    code = 10000;
  } else {
    std::vector<char> heads(static_cast<std::size_t>(count), 0);
    code = CheckArray(map, count, *header, &heads);
    if (code == 0) code = CheckWalk(map, count, *header, chunkHeaderSize, handles, heads);
  }
  for (int i = 0; i < count; ++i) map[i].flags &= ~kMapEntryScratch;
  if (code != 0) {
    for (const MapCheckCode& c : kMapCheckCodes)
      if (c.code == code) DebugLogf(kLogInternalData, c.message);
  }
  return code;
}
