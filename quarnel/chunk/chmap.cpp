// The map held in memory, its address index, and extent allocation.
#include <algorithm>
#include <cstring>

#include "quarnel/chunk/internal/chimpl.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"

using namespace quarnel_internal;

namespace {

bool Indexed(const CHMapEntry& e) { return e.address != 0 && e.address != kMapHeadAddress; }

std::int64_t RoundUp(std::int64_t n, std::int64_t granule) {
  return (n + granule - 1) / granule * granule;
}

}  // namespace

int ChunkStore::Reserve(int count) {
  if (count <= mapCapacity) return 0;
  int capacity = mapCapacity < 16 ? 16 : mapCapacity;
  while (capacity < count) capacity = capacity > 0x10000000 ? count : capacity * 2;
  const long long bytes = static_cast<long long>(capacity) * kMapEntrySize;
  if (bytes > 0x7FFFFFFF) return kErrMemNotObtained;
  if (const int err = mapBlock.SetSize(static_cast<unsigned>(bytes))) return err;
  mapCapacity = capacity;
  return 0;
}

int ChunkStore::InsertAt(int at, const CHMapEntry& e) {
  if (const int err = Reserve(mapCount + 1)) return err;
  CHMapEntry* m = Map();
  std::memmove(m + at + 1, m + at, static_cast<std::size_t>(mapCount - at) * sizeof(CHMapEntry));
  m[at] = e;
  ++mapCount;
  slots.insert(slots.begin() + at, 0);
  for (int j = at + 1; j < mapCount; ++j)
    if (slots[static_cast<std::size_t>(j)]) handles[static_cast<std::size_t>(slots[j])].index = j;
  if (Indexed(e)) AddAddress(e.address);
  return 0;
}

void ChunkStore::EraseAt(int at) {
  CHMapEntry* m = Map();
  if (Indexed(m[at])) DropAddress(m[at].address);
  std::memmove(m + at, m + at + 1,
               static_cast<std::size_t>(mapCount - at - 1) * sizeof(CHMapEntry));
  --mapCount;
  slots.erase(slots.begin() + at);
  for (int j = at; j < mapCount; ++j)
    if (slots[static_cast<std::size_t>(j)]) handles[static_cast<std::size_t>(slots[j])].index = j;
}

void ChunkStore::SetAddress(int i, std::int64_t address) {
  CHMapEntry& e = At(i);
  if (Indexed(e)) DropAddress(e.address);
  e.address = address;
  if (Indexed(e)) AddAddress(address);
}

void ChunkStore::AddAddress(std::int64_t address) {
  // New extents mostly lie at the end of data: the append is the common case.
  if (addresses.empty() || addresses.back() <= address) {
    addresses.push_back(address);
  } else {
    addresses.insert(std::upper_bound(addresses.begin(), addresses.end(), address), address);
  }
}

void ChunkStore::DropAddress(std::int64_t address) {
  const auto it = std::lower_bound(addresses.begin(), addresses.end(), address);
  if (it != addresses.end() && *it == address) addresses.erase(it);
}

void ChunkStore::IndexAddresses() {
  addresses.clear();
  for (int i = 0; i < mapCount; ++i)
    if (Indexed(At(i))) addresses.push_back(At(i).address);
  if (!std::is_sorted(addresses.begin(), addresses.end()))
    std::sort(addresses.begin(), addresses.end());
}

int ChunkStore::SetMap(const CHMapEntry* entries, int count) {
  if (const int err = Reserve(count)) return err;
  if (count > 0 && entries != Map())
    std::memmove(Map(), entries, static_cast<std::size_t>(count) * sizeof(CHMapEntry));
  mapCount = count;
  slots.resize(static_cast<std::size_t>(count), 0);
  IndexAddresses();
  return 0;
}

void ChunkStore::ClearMap() {
  mapCount = 0;
  mapCapacity = 0;
  mapBlock.SetSize(0);
  slots.clear();
  addresses.clear();
  mapLoaded = false;
}

std::int64_t ChunkStore::ExtentAt(std::int64_t address) const {
  // Extents are mostly asked for in address order: the answer usually lies
  // a step or two after the last one; else it is searched for.
  const std::int64_t limit = address + header.granule;
  const std::size_t n = addresses.size();
  std::size_t at = extentHint;
  bool found = false;
  if (at >= 1 && at <= n && addresses[at - 1] < limit) {
    for (int step = 0; step < 4 && !found; ++step) {
      if (at == n || addresses[at] >= limit) {
        found = true;
      } else {
        ++at;
      }
    }
  }
  if (!found)
    at = static_cast<std::size_t>(std::lower_bound(addresses.begin(), addresses.end(), limit) -
                                  addresses.begin());
  extentHint = at;
  return (at == n ? header.endOfData : addresses[at]) - address;
}

std::int64_t ChunkStore::Extent(int i) const {
  const CHMapEntry& e = reinterpret_cast<const CHMapEntry*>(mapBlock.MemPtr())[i];
  if (!Indexed(e)) return 0;
  // In a map of one type in address order, entry i (after its group's head)
  // is the (i - 1)th address: the search steps on from there.
  const auto p = static_cast<std::size_t>(i - 1);
  if (i >= 1 && p < addresses.size() && addresses[p] == e.address) extentHint = p + 1;
  return ExtentAt(e.address);
}

int ChunkStore::FindGroup(std::uint32_t type) const {
  const auto* m = reinterpret_cast<const CHMapEntry*>(mapBlock.MemPtr());
  for (std::int64_t i = 0; i < mapCount; i += 1 + static_cast<std::int64_t>(m[i].id)) {
    if (m[i].type == type) return static_cast<int>(i);
    if (m[i].type > type) break;
  }
  return -1;
}

int ChunkStore::Find(std::uint32_t type, std::uint64_t id, int* insertAt) const {
  const auto* m = reinterpret_cast<const CHMapEntry*>(mapBlock.MemPtr());
  std::int64_t i = 0;
  while (i < mapCount && m[i].type < type) i += 1 + static_cast<std::int64_t>(m[i].id);
  if (i >= mapCount || m[i].type != type) {
    if (insertAt) *insertAt = static_cast<int>(i < mapCount ? i : mapCount);
    return -1;
  }
  // Binary search among the group's entries, by id or (free space) by address.
  int lo = static_cast<int>(i) + 1, hi = lo + static_cast<int>(m[i].id);
  const bool free = type == kChunkFreeType;
  if (!free && lo < hi && id >= m[lo].id && id - m[lo].id < static_cast<std::uint64_t>(hi - lo)) {
    // Ids are mostly numbered on from the first: try where that puts this one
    // (ids rise strictly, so a match is also the insertion place).
    const int guess = lo + static_cast<int>(id - m[lo].id);
    if (m[guess].id == id) {
      if (insertAt) *insertAt = guess;
      return guess;
    }
  }
  while (lo < hi) {
    const int mid = lo + (hi - lo) / 2;
    const std::uint64_t key = free ? static_cast<std::uint64_t>(m[mid].address) : m[mid].id;
    if (key < id) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  if (insertAt) *insertAt = lo;
  const int end = static_cast<int>(i) + 1 + static_cast<int>(m[i].id);
  if (lo < end && (free ? static_cast<std::uint64_t>(m[lo].address) : m[lo].id) == id) return lo;
  return -1;
}

int ChunkStore::FreeHead() const {
  int last = -1;
  const auto* m = reinterpret_cast<const CHMapEntry*>(mapBlock.MemPtr());
  for (std::int64_t i = 0; i < mapCount; i += 1 + static_cast<std::int64_t>(m[i].id))
    last = static_cast<int>(i);
  return last >= 0 && m[last].type == kChunkFreeType ? last : -1;
}

int ChunkStore::MapInsert(std::uint32_t type, std::uint64_t id, int* index) {
  int at = 0;
  if (Find(type, id, &at) >= 0) {
    DebugLogf(kLogMisuse, "chMapInsert: duplicate ID, type %Y, id = %Y", type,
              static_cast<std::uint32_t>(id));
    return kErrChunkDuplicate;
  }
  if (const int err = Reserve(mapCount + 2)) return err;
  int head = FindGroup(type);
  if (head < 0) {
    head = at;
    InsertAt(head, CHMapEntry{type, 0, 0, kMapHeadAddress, 0, 0, 0, 0});
    at = head + 1;
  }
  InsertAt(at, CHMapEntry{type, 0, id, 0, 0, 0, 0, 0});
  ++At(head).id;
  *index = at;
  return 0;
}

void ChunkStore::MapDelete(int index) {
  const auto* m = Map();
  std::int64_t head = 0;
  while (head + 1 + static_cast<std::int64_t>(m[head].id) <= index)
    head += 1 + static_cast<std::int64_t>(m[head].id);
  EraseAt(index);
  if (--At(static_cast<int>(head)).id == 0) EraseAt(static_cast<int>(head));
}

void ChunkStore::InsertFree(std::int64_t address, std::int64_t length) {
  int head = FreeHead();
  if (head < 0) {
    head = mapCount;
    InsertAt(head, CHMapEntry{kChunkFreeType, 0, 0, kMapHeadAddress, 0, 0, 0, 0});
  }
  int at = 0;
  Find(kChunkFreeType, static_cast<std::uint64_t>(address), &at);
  InsertAt(at,
           CHMapEntry{kChunkFreeType, 0, static_cast<std::uint64_t>(length), address, 0, 0, 0, 0});
  ++At(head).id;
}

void ChunkStore::DeleteFree(int index) { MapDelete(index); }

void ChunkStore::Deallocate(int index) {
  const std::int64_t address = At(index).address;
  if (address == 0) return;
  const std::int64_t extent = Extent(index);
  SetAddress(index, 0);
  InsertFree(address, extent);
}

bool ChunkStore::FindFree(bool committed, std::int64_t bytes, std::int64_t* address,
                          std::int64_t* taken, int* tail) {
  const std::int64_t g = Granule();
  *tail = -1;
  std::int64_t limit = 0;
  if (committed) {
    // Nothing at or below the committed length is offered: the last saved
    // map may still refer to any byte there.
    limit = RoundUp(committedEOF, g);
    if (header.endOfData < limit) {
      InsertFree(header.endOfData, limit - header.endOfData);
      header.endOfData = limit;
    }
    const int head = FreeHead();
    for (int i = head + 1; head >= 0 && i <= head + static_cast<int>(At(head).id); ++i) {
      const CHMapEntry e = At(i);
      const std::int64_t end = e.address + static_cast<std::int64_t>(e.id);
      if (e.address < limit && end > limit) {
        At(i).id = static_cast<std::uint64_t>(limit - e.address);
        InsertFree(limit, end - limit);
      }
    }
  }
  const int head = FreeHead();
  if (head < 0) return false;
  int best = -1;
  std::int64_t bestLeft = 0;
  for (int i = head + 1; i <= head + static_cast<int>(At(head).id); ++i) {
    // An extent that starts where this one ends joins it (never across the limit).
    while (i < head + static_cast<int>(At(head).id)) {
      const CHMapEntry& e = At(i);
      const CHMapEntry& next = At(i + 1);
      const std::int64_t end = e.address + static_cast<std::int64_t>(e.id);
      if (next.address != end || (committed && e.address < limit && next.address >= limit)) break;
      At(i).id += next.id;
      DeleteFree(i + 1);
    }
    const CHMapEntry& e = At(i);
    const auto length = static_cast<std::int64_t>(e.id);
    if ((committed && e.address < limit) || length < bytes) continue;
    if (best < 0 || length - bytes < bestLeft) {
      best = i;
      bestLeft = length - bytes;
      if (bestLeft < g) break;
    }
  }
  if (best < 0) {
    const int last = head + static_cast<int>(At(head).id);
    const CHMapEntry& e = At(last);
    if (e.address + static_cast<std::int64_t>(e.id) == header.endOfData &&
        !(committed && e.address < limit))
      *tail = last;
    return false;
  }
  CHMapEntry& e = At(best);
  *address = e.address;
  if (bestLeft >= g) {
    *taken = RoundUp(bytes, g);
    e.id -= static_cast<std::uint64_t>(*taken);
    SetAddress(best, e.address + *taken);
  } else {
    *taken = static_cast<std::int64_t>(e.id);
    DeleteFree(best);
  }
  return true;
}

int ChunkStore::SetEOF(std::int64_t end) {
  std::int64_t wanted =
      RoundUp(end + static_cast<std::int64_t>(mapCount) * kMapEntrySize + 4096, Granule());
  if (wanted < committedEOF) wanted = committedEOF;
  if (wanted == currentEOF) return 0;
  if (const int err = file->SetEOF(static_cast<std::uint64_t>(wanted))) return err;
  currentEOF = wanted;
  return 0;
}

int ChunkStore::Allocate(int index, std::int64_t bytes, bool committed) {
  if (bytes >= kMaxChunkBytes) {
    Debug("chunk", kLineAllocSize);
    return kErrBadParameter;
  }
  if (const int err = Reserve(mapCount + 5)) return err;
  if (At(index).address != 0) Deallocate(index);
  std::int64_t address = 0, taken = 0;
  int tail = -1;
  if (!FindFree(committed, bytes, &address, &taken, &tail)) {
    const std::int64_t tailLength = tail >= 0 ? static_cast<std::int64_t>(At(tail).id) : 0;
    const std::int64_t growth = RoundUp(bytes, Granule()) - tailLength;
    if (const int err = SetEOF(header.endOfData + growth)) return err;
    address = tail >= 0 ? At(tail).address : header.endOfData;
    if (tail >= 0) DeleteFree(tail);
    taken = tailLength + growth;
    header.endOfData += growth;
  }
  SetAddress(index, address);
  CHMapEntry& e = At(index);
  e.slack = taken - bytes;
  e.flags = (e.flags | kMapEntryDirty) & ~kMapEntryAllocating;
  return 0;
}
