#include "quarnel/containers/elementspace.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "quarnel/datetime/ticker.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/text/tstring.h"

namespace {

// Header words.
constexpr int kOffSignature = 0;
constexpr int kOffVersion = 4;     // 16 bits
constexpr int kOffCompatible = 6;  // 16 bits
constexpr int kOffFloor = 8;
constexpr int kOffFreed = 12;
constexpr int kOffStart = 16;
constexpr int kOffEnd = 20;
constexpr int kOffBaseUnit = 24;
constexpr int kOffFlags = 28;
constexpr int kOffLock = 32;
constexpr int kOffEmpty = 36;
constexpr int kOffUnit = 44;
constexpr int kOffCount = 72;
constexpr int kOffSlot0 = 76;
constexpr int kEmptyAreaExtra = 84;  // header, slot 0 and one future slot

constexpr short kLmVersion = 256;
constexpr int kFlagRequired = 1;
constexpr int kOffsetMask = 0x3FFFFFFF;                    // slot bits 0-29
constexpr int kSlotFlags = static_cast<int>(0xC0000000u);  // bit 30 and the mark
constexpr int kMark = static_cast<int>(0x80000000u);
constexpr long long kAreaLimit = 0x3FFFFFFF;  // end stays below 0x40000000
constexpr int kSizeLimit = 0x3FFFFFFF;        // an element is smaller
constexpr int kMaxUnitKiB = 16384;
constexpr int kReserveLimit = 0x100000;  // LmReserve grows the area up to 1 MiB
constexpr unsigned kCompressLevel = 518;

// Assertion lines of module "elementspace".
constexpr const char* kModule = "elementspace";
constexpr int kLineAddLocked = 212;
constexpr int kLineSetLocked = 305;
constexpr int kLineDupeLocked = 420;
constexpr int kLineRemoveLocked = 461;
constexpr int kLineGet = 503;
constexpr int kLineUnlock = 541;
constexpr int kLineCollectLocked = 566;
constexpr int kLineCompressLocked = 602;
constexpr int kLineReserveLocked = 644;
constexpr int kLineAddAssert = 701;
constexpr int kLineSetAssert = 712;
constexpr int kLineDupeAssert = 723;

// The physical size of a record of n bytes: 4 + n rounded up to 4.
constexpr long long Phys(long long n) { return (n + 7) & ~3LL; }

std::uint32_t LoadLE(const unsigned char* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  if constexpr (std::endian::native == std::endian::big) {
    v = (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
  }
  return v;
}

void StoreLE(unsigned char* p, std::uint32_t v) {
  if constexpr (std::endian::native == std::endian::big) {
    v = (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
  }
  std::memcpy(p, &v, 4);
}

short Load16(const unsigned char* p) {
  return static_cast<short>(static_cast<unsigned short>(p[0] | (p[1] << 8)));
}

void Store16(unsigned char* p, short v) {
  const auto u = static_cast<unsigned short>(v);
  p[0] = static_cast<unsigned char>(u & 0xFF);
  p[1] = static_cast<unsigned char>(u >> 8);
}

}  // namespace

ElementSpace::ElementSpace(int size, int required) : TMemory(2) { LmNew(size, required); }

ElementSpace::~ElementSpace() = default;

int ElementSpace::LmNew(int size, int required) {
  const int unit = size < 1024 ? 1 : size / 1024;
  const long long total = static_cast<long long>(unit) * 1024 + kEmptyAreaExtra;
  int err = total > kAreaLimit ? kErrLmFull : SetSize(static_cast<unsigned>(total), 1);
  if (err != 0) {
    DebugLogf(kLogInternalData, "LmNew: not enough memory, %E", err);
    return err;
  }
  Zero();
  unsigned char* p = MemPtr();
  StoreLE(p + kOffSignature, kLmSignature);
  Store16(p + kOffVersion, kLmVersion);
  Store16(p + kOffCompatible, kLmVersion);
  wr(kOffBaseUnit, unit);
  wr(kOffUnit, unit);
  wr(kOffFlags, required != 0 ? kFlagRequired : 0);
  wr(kOffStart, static_cast<int>(total));
  wr(kOffEnd, static_cast<int>(total));
  return 0;
}

int ElementSpace::LmCount() const { return isArea() ? rd(kOffCount) : 0; }

int ElementSpace::LmAvail() const {
  if (!isArea()) return 0;
  const long long gap =
      static_cast<long long>(rd(kOffStart)) - kEmptyAreaExtra - 4LL * rd(kOffCount);
  return static_cast<int>(gap & ~3LL);
}

int ElementSpace::LmPhys(int size) const {
  return size >= 0 && size < 0x40000000 ? static_cast<int>(Phys(size)) : 0;
}

int ElementSpace::LmOverhead(int n) const {
  const int count = LmCount();
  if (n < 0 || static_cast<long long>(n) + count >= 0x40000001LL) return 0;
  // Computed exactly so, in 32 bits.
  const unsigned un = static_cast<unsigned>(n);
  const unsigned empty = isArea() ? static_cast<unsigned>(rd(kOffEmpty)) : 0;
  return static_cast<int>((un + (un - empty)) * 4u);
}

int ElementSpace::LmFull() const {
  if (!isArea()) return 0;
  return static_cast<long long>(rd(kOffEnd)) - rd(kOffFreed) > 0x3FFF7FFF ? 1 : 0;
}

int ElementSpace::LmTest(int refnum) const {
  if (!isArea() || refnum < 1 || refnum > rd(kOffCount)) return -1;
  return slot(refnum) != 0 ? 0 : -1;
}

int ElementSpace::LmSize(int refnum) const {
  if (!isArea() || refnum < 1 || refnum > rd(kOffCount) || slot(refnum) == 0) {
    DebugLogf(kLogMisuse, "LmSize: ndex = %~d, not in range", refnum);
    return kErrLmBadArgument;
  }
  return rd(slot(refnum) & kOffsetMask);
}

char* ElementSpace::LmGet(int refnum) {
  if (!isArea()) {
    DebugLogf(kLogMisuse, "LmGet: ndex = %~d > nsp->count = %~d", refnum, 0);
    Debug(kModule, kLineGet);
    return nullptr;
  }
  const int count = rd(kOffCount);
  if (refnum < 1) {
    DebugLogf(kLogMisuse, "LmGet: ndex = %~d < 1", refnum);
  } else if (refnum > count) {
    DebugLogf(kLogMisuse, "LmGet: ndex = %~d > nsp->count = %~d", refnum, count);
  } else {
    const int word = slot(refnum);
    if (word != 0) return reinterpret_cast<char*>(MemPtr() + (word & kOffsetMask) + 4);
    DebugLogf(kLogMisuse, "LmGet: ndex = %~d, zero offset", refnum);
  }
  Debug(kModule, kLineGet);
  return nullptr;
}

// Trailing empty slots leave the table, each lowering the count and the
// empty-slot count.
void ElementSpace::dropTrailingEmpty() {
  int count = rd(kOffCount);
  int empty = rd(kOffEmpty);
  while (count >= 1 && empty >= 1 && slot(count) == 0) {
    --count;
    --empty;
  }
  wr(kOffCount, count);
  wr(kOffEmpty, empty);
}

// ---------------------------------------------------------------------------
// Growth and compression.

int ElementSpace::lmSizer(int want) {
  if (rd(kOffLock) != 0) return kErrLmLocked;
  want &= ~3;
  const int avail = lmCompress(want);
  long long end = rd(kOffEnd);
  long long change = static_cast<long long>(avail) - want;
  const long long floor = rd(kOffFloor);
  if (floor != 0) {
    const long long floor4 = (floor + 3) & ~3LL;  // an unaligned floor keeps the end aligned
    if (end - change < floor4) change = end - floor4;
  }
  if (change < 0) {
    const long long newEnd = end - change;
    if (newEnd > kAreaLimit) {
      DebugLogf(kLogMisuse, "lmSizer: element space full, size = %d", newEnd);
      return kErrLmFull;
    }
    const short priority = (rd(kOffFlags) & kFlagRequired) != 0 ? 2 : 1;
    const int err = SetSize(static_cast<unsigned>(newEnd), priority);
    if (err != 0) return err;
  }
  if (change == 0) return 0;
  // Moves the elements by -by (up when growing, down when shrinking): data
  // start, end and every slot's offset follow, flag bits kept.
  auto move = [this](long long by) {
    const long long start = rd(kOffStart);
    const long long end = rd(kOffEnd);
    BlockMove(MemPtr() + start, MemPtr() + start - by, static_cast<unsigned>(end - start));
    wr(kOffStart, static_cast<int>(start - by));
    wr(kOffEnd, static_cast<int>(end - by));
    const int count = rd(kOffCount);
    for (int r = 1; r <= count; ++r) {
      const int word = slot(r);
      if (word != 0) {
        setSlot(r, (word & kSlotFlags) | static_cast<int>((word & kOffsetMask) - by));
      }
    }
  };
  move(change);
  if (change > 0 && SetSize(static_cast<unsigned>(end - change), -1) != 0) {
    move(-change);  // the buffer would not shrink: back against its end
  }
  return 0;
}

int ElementSpace::lmNeeded(int bytes) {
  for (;;) {
    if (LmAvail() >= bytes) return 0;
    const long long unit = static_cast<long long>(rd(kOffUnit)) * 1024;
    if (lmCompress(bytes) >= bytes + unit / 2) return 0;
    const long long ask = bytes + unit;
    const int r = ask > kAreaLimit ? kErrLmFull : lmSizer(static_cast<int>(ask));
    if (r == 0) {
      const int current = rd(kOffUnit);
      if (current < kMaxUnitKiB) wr(kOffUnit, std::min(current * 2, kMaxUnitKiB));
      return 0;
    }
    if ((rd(kOffFlags) & kFlagRequired) != 0) {
      if (LmAvail() >= bytes) return 0;
      return lmSizer(bytes);
    }
    if (rd(kOffFreed) > unit) {
      // Returns without testing the room again: kept as the library has it.
      // The callers check the room before they write.
      lmCompress(0);
      return 0;
    }
    // Halving stops at the base unit: a unit capped at 16,384 KiB is not a
    // power-of-two multiple of every base.
    const int current = rd(kOffUnit);
    const int base = rd(kOffBaseUnit);
    if (current > base) {
      wr(kOffUnit, std::max(current / 2, base));
      continue;
    }
    return r;
  }
}

// lmNeeded, then the room test that keeps every write inside the gap.
int ElementSpace::makeRoom(int bytes) {
  const int err = lmNeeded(bytes);
  if (err != 0) return err;
  return LmAvail() >= bytes ? 0 : kErrLmFull;
}

int ElementSpace::lmCompress(int want) {
  if (rd(kOffLock) == 0 && rd(kOffCount) > 0) dropTrailingEmpty();
  const int end = rd(kOffEnd);
  const int freed = rd(kOffFreed);
  if (want != 0 && freed <= end / 5) return LmAvail();
  {
    TString label;
    label.SPrintf(u"lmCompress: compressing, size = %K, freed = %K, count = %K",
                  static_cast<unsigned>(end) / 1024, static_cast<unsigned>(freed) / 1024,
                  static_cast<unsigned>(rd(kOffCount)) / 1024);
    TProfiler profiler(label.ReadBufferAnsi(), kCompressLevel);  // copies the name
    label.CloseBufferAnsi();
    profiler.Start();
    lmXtoSize();
    lmPacker();
    lmXtoOffset();
    profiler.Stop();
  }
  wr(kOffFreed, 0);
  return LmAvail();
}

// Pass 1: each live record's size moves into its slot, and the record's
// first word becomes -refnum. Live records then carry a negative first word,
// dead ones their non-negative size. Recounts the empty slots.
void ElementSpace::lmXtoSize() {
  const int count = rd(kOffCount);
  int empty = 0;
  for (int r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word == 0) {
      ++empty;
      continue;
    }
    const int offset = word & kOffsetMask;
    setSlot(r, (word & kSlotFlags) | rd(offset));
    wr(offset, -r);
  }
  wr(kOffEmpty, empty);
}

// Pass 2: moves the runs of live records down over the dead ones, then the
// packed live block up against the end, raising data start by what was
// reclaimed.
void ElementSpace::lmPacker() {
  const long long start = rd(kOffStart);
  const long long end = rd(kOffEnd);
  const int count = rd(kOffCount);
  // The record at pos: its length, and whether it is live.
  auto record = [&](long long pos, bool* live) -> long long {
    const int first = rd(pos);
    if (first < 0) {
      *live = true;
      const long long r = -static_cast<long long>(first);
      return r <= count ? Phys(slot(r) & kOffsetMask) : 4;
    }
    *live = false;
    return Phys(first);
  };
  long long pos = start;
  bool live = false;
  while (pos < end) {
    const long long len = record(pos, &live);
    if (!live || pos + len > end) break;
    pos += len;
  }
  long long write = pos;
  while (pos < end) {
    // Skip dead records.
    while (pos < end) {
      const long long len = record(pos, &live);
      if (live) break;
      pos += len;
    }
    if (pos >= end) break;
    const long long runStart = pos;
    while (pos < end) {
      const long long len = record(pos, &live);
      if (!live || pos + len > end) break;
      pos += len;
    }
    if (pos == runStart) break;  // a live record that overruns the end
    const long long runLength = pos - runStart;
    BlockMove(MemPtr() + runStart, MemPtr() + write, static_cast<unsigned>(runLength));
    write += runLength;
    // The gap the run left behind becomes dead records.
    for (long long gap = pos - write, at = write; gap > 0;) {
      const long long piece = std::min(gap, static_cast<long long>(kSizeLimit) & ~3LL);
      wr(at, static_cast<int>(piece - 4));
      at += piece;
      gap -= piece;
    }
  }
  const long long reclaimed = end - write;
  if (reclaimed > 0) {
    BlockMove(MemPtr() + start, MemPtr() + start + reclaimed, static_cast<unsigned>(write - start));
    wr(kOffStart, static_cast<int>(start + reclaimed));
  }
}

// Pass 3: each record takes its size back from its slot, and the slot the
// record's offset.
void ElementSpace::lmXtoOffset() {
  const long long end = rd(kOffEnd);
  const int count = rd(kOffCount);
  for (long long pos = rd(kOffStart); pos < end;) {
    const int first = rd(pos);
    if (first < 0 && -static_cast<long long>(first) <= count) {
      const int r = -first;
      const int word = slot(r);
      const int size = word & kOffsetMask;
      wr(pos, size);
      setSlot(r, (word & kSlotFlags) | static_cast<int>(pos));
      pos += Phys(size);
    } else {
      pos += Phys(first < 0 ? 0 : first);
    }
  }
}

// ---------------------------------------------------------------------------
// Elements.

// Writes a new record of `size` bytes below data start, for a refnum chosen
// here; the room has been made.
int ElementSpace::addRecord(const char* data, int size) {
  int count = rd(kOffCount);
  int empty = rd(kOffEmpty);
  int refnum = 0;
  if (empty > 0) {
    for (int r = 1; r <= count; ++r) {
      if (slot(r) == 0) {
        refnum = r;
        wr(kOffEmpty, empty - 1);
        break;
      }
    }
  }
  if (refnum == 0) {
    if (count >= 0x40000000) {
      DebugLogf(kLogMisuse, "LmAdd: element space full, count = %d", count);
      return kErrLmFull;
    }
    refnum = ++count;
    wr(kOffCount, count);
  }
  const int phys = static_cast<int>(Phys(size));
  const int start = rd(kOffStart) - phys;
  wr(kOffStart, start);
  setSlot(refnum, start);
  wr(start, size);
  unsigned char* bytes = MemPtr() + start + 4;
  if (data != nullptr) {
    BlockMove(data, bytes, static_cast<unsigned>(size));
  } else {
    ZeroFill(bytes, static_cast<unsigned>(size));
  }
  ZeroFill(bytes + size, static_cast<unsigned>(phys - 4 - size));
  return refnum;
}

int ElementSpace::LmAdd(const char* data, int size) {
  if (!isArea()) return kErrLmBadArgument;
  if (rd(kOffLock) != 0) Debug(kModule, kLineAddLocked);
  if (size < 0 || size >= kSizeLimit) {
    DebugLogf(kLogMisuse, "LmAdd: invalid size, %~d", size);
    return kErrLmBadArgument;
  }
  const int err = makeRoom(static_cast<int>(Phys(size)));
  if (err != 0) {
    DebugLogf(kLogInternalData, "LmAdd: lmNeeded failed, %E", err);
    return err;
  }
  return addRecord(data, size);
}

int ElementSpace::LmSet(int refnum, int size) {
  if (!isArea() || refnum < 1 || refnum >= 0x40000000 || size < 0 || size >= kSizeLimit) {
    DebugLogf(kLogMisuse, "LmSet: bad argument %~d, %~d", refnum, size);
    return kErrLmBadArgument;
  }
  if (rd(kOffLock) != 0) Debug(kModule, kLineSetLocked);
  const int newPhys = static_cast<int>(Phys(size));
  if (refnum <= rd(kOffCount) && slot(refnum) != 0) {
    int offset = slot(refnum) & kOffsetMask;
    const int oldSize = rd(offset);
    const int oldPhys = static_cast<int>(Phys(oldSize));
    if (oldPhys < newPhys && offset == rd(kOffStart)) {
      // The lowest record grows in place, downward.
      const int grow = newPhys - oldPhys;
      const int err = makeRoom(grow);
      if (err != 0) {
        DebugLogf(kLogInternalData, "LmSet: lmNeeded failed (2), %E", err);
        return err;
      }
      offset = slot(refnum) & kOffsetMask;
      if (offset == rd(kOffStart)) {
        unsigned char* p = MemPtr();
        BlockMove(p + offset, p + offset - grow, static_cast<unsigned>(oldPhys));
        ZeroFill(p + offset - grow + oldPhys, static_cast<unsigned>(grow));
        wr(offset - grow, size);
        wr(kOffStart, offset - grow);
        setSlot(refnum, (slot(refnum) & kSlotFlags) | (offset - grow));
        return 0;
      }
      // Compression put dead storage below it after all: fall through.
    }
    if (oldPhys < newPhys) {
      // A new record takes the bytes; the old one is removed.
      const int temp = LmAdd(nullptr, size);
      if (temp < 1) return temp;
      const int from = slot(refnum) & kOffsetMask;
      const int to = slot(temp) & kOffsetMask;
      BlockMove(MemPtr() + from + 4, MemPtr() + to + 4,
                static_cast<unsigned>(std::min(size, rd(from))));
      // The offsets change places; each refnum keeps its flags.
      const int mine = slot(refnum);
      const int theirs = slot(temp);
      setSlot(refnum, (mine & kSlotFlags) | (theirs & kOffsetMask));
      setSlot(temp, (theirs & kSlotFlags) | (mine & kOffsetMask));
      LmRemove(temp);
      return 0;
    }
    // Not growing: storage never moves; a cut-off tail becomes a dead record.
    if (newPhys != oldPhys) {
      wr(offset + newPhys, oldPhys - newPhys - 4);
      wr(kOffFreed, rd(kOffFreed) + (oldPhys - newPhys));
    }
    wr(offset, size);
    ZeroFill(MemPtr() + offset + 4 + size, static_cast<unsigned>(newPhys - 4 - size));
    return 0;
  }
  // A new element, in a new slot beyond the table or in an empty one.
  long long growth = 0;
  for (int attempt = 0;; ++attempt) {
    const int count = rd(kOffCount);
    growth = refnum > count ? 4LL * (refnum - count) : 0;
    const long long need = newPhys + growth;
    const int err = need > kAreaLimit ? kErrLmFull : makeRoom(static_cast<int>(need));
    if (err != 0) {
      DebugLogf(kLogInternalData, "LmSet: lmNeeded failed (1), %E", err);
      return err;
    }
    // Making room may have dropped trailing empty slots: then ask again.
    if (rd(kOffCount) == count || attempt == 2) break;
  }
  const int count = rd(kOffCount);
  if (LmAvail() < newPhys + (refnum > count ? 4LL * (refnum - count) : 0)) {
    DebugLogf(kLogInternalData, "LmSet: lmNeeded failed (1), %E", kErrLmFull);
    return kErrLmFull;
  }
  if (refnum > count) {
    for (int r = count + 1; r <= refnum; ++r) setSlot(r, 0);
    wr(kOffEmpty, rd(kOffEmpty) + (refnum - count - 1));
  }
  // On an empty inner slot the count drops to refnum and the empty-slot count
  // stays: kept as the library has it.
  wr(kOffCount, refnum);
  const int start = rd(kOffStart) - newPhys;
  wr(kOffStart, start);
  setSlot(refnum, start);
  wr(start, size);
  ZeroFill(MemPtr() + start + 4, static_cast<unsigned>(newPhys - 4));
  return 0;
}

int ElementSpace::LmDupe(int refnum) {
  if (!isArea() || refnum < 1 || refnum > rd(kOffCount) || slot(refnum) == 0) {
    DebugLogf(kLogMisuse, "LmDupe: ndex = %~d, not in range", refnum);
    return kErrLmBadArgument;
  }
  if (rd(kOffLock) != 0) Debug(kModule, kLineDupeLocked);
  const int size = rd(slot(refnum) & kOffsetMask);
  const int copy = LmAdd(nullptr, size);
  if (copy < 1) return copy;
  // Both addresses are taken after LmAdd, which may have moved the data.
  BlockMove(MemPtr() + (slot(refnum) & kOffsetMask) + 4, MemPtr() + (slot(copy) & kOffsetMask) + 4,
            static_cast<unsigned>(size));
  return copy;
}

int ElementSpace::LmRemove(int refnum) {
  if (!isArea()) return kErrLmBadArgument;
  if (rd(kOffLock) != 0) Debug(kModule, kLineRemoveLocked);
  if (refnum < 1 || refnum > rd(kOffCount) || slot(refnum) == 0) {
    DebugLogf(kLogMisuse, "LmRemove: ndex = %~d not in range", refnum);
    return kErrLmBadArgument;
  }
  const int offset = slot(refnum) & kOffsetMask;
  setSlot(refnum, 0);
  wr(kOffEmpty, rd(kOffEmpty) + 1);
  const int freed = rd(kOffFreed) + static_cast<int>(Phys(rd(offset)));
  wr(kOffFreed, freed);
  dropTrailingEmpty();
  if (freed > rd(kOffEnd) / 5) {
    const int err = lmSizer(rd(kOffBaseUnit) * 1024);
    if (err != 0) DebugLogf(kLogMisuse, "LmRemove: lmSizer failed, %E", err);
  }
  return 0;
}

int ElementSpace::LmSwap(int a, int b) {
  const int count = LmCount();
  if (a < 1 || a > count || b < 1 || b > count) {
    DebugLogf(kLogMisuse, "LmSwap: mdex = %~d, ndex = %~d, not in range", a, b);
    return kErrLmBadArgument;
  }
  const int wa = slot(a);
  const int wb = slot(b);
  if (wa == 0 || wb == 0) {
    DebugLogf(kLogMisuse, "LmSwap: temp = %~d, *jp = %~d, invalid refnum", wa, wb);
    return kErrLmBadArgument;
  }
  setSlot(a, wb);
  setSlot(b, wa);
  return 0;
}

// ---------------------------------------------------------------------------
// Mark and sweep, lock.

int ElementSpace::LmMark(int refnum) {
  const int count = LmCount();
  if (refnum < 1 || refnum > count) {
    DebugLogf(kLogMisuse, "LmMark: ndex = %~d, not in range", refnum);
    return kErrLmBadArgument;
  }
  const int word = slot(refnum);
  if (word == 0) return kErrLmBadArgument;
  if ((word & kMark) != 0) return 0;
  setSlot(refnum, word | kMark);
  return 1;
}

int ElementSpace::LmUnmark() {
  const int count = LmCount();
  for (int r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word != 0) setSlot(r, word & ~kMark);
  }
  return 0;
}

int ElementSpace::LmCollect() {
  if (!isArea()) return kErrLmBadArgument;
  if (rd(kOffLock) != 0) Debug(kModule, kLineCollectLocked);
  const int count = rd(kOffCount);
  long long freed = rd(kOffFreed);
  int empty = rd(kOffEmpty);
  for (int r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word != 0 && (word & kMark) == 0) {
      freed += Phys(rd(word & kOffsetMask));
      setSlot(r, 0);
      ++empty;
    }
  }
  wr(kOffFreed, static_cast<int>(std::min(freed, kAreaLimit)));
  wr(kOffEmpty, empty);
  dropTrailingEmpty();
  return 0;
}

int ElementSpace::LmLock() {
  if (!isArea()) return kErrLmBadArgument;
  wr(kOffLock, rd(kOffLock) + 1);
  return 0;
}

int ElementSpace::LmUnlock() {
  if (!isArea()) return kErrLmBadArgument;
  const int lock = rd(kOffLock);
  if (lock < 1) {
    Debug(kModule, kLineUnlock);
    return 0;
  }
  wr(kOffLock, lock - 1);
  return 0;
}

// ---------------------------------------------------------------------------
// Whole-area operations.

int ElementSpace::LmCompress() {
  if (!isArea()) return kErrLmBadArgument;
  if (rd(kOffLock) != 0) Debug(kModule, kLineCompressLocked);
  wr(kOffFloor, 0);
  const int err = lmSizer(0);
  if (err != 0) DebugLogf(kLogMisuse, "LmCompress: lmSizer failed, %E", err);
  return err;
}

int ElementSpace::LmReserve(int size) {
  if (!isArea()) return kErrLmBadArgument;
  if (rd(kOffLock) != 0) Debug(kModule, kLineReserveLocked);
  if (size < 0) {
    DebugLogf(kLogMisuse, "LmReserve: invalid size = %~d", size);
    return kErrLmBadArgument;
  }
  if (size == 0) {
    wr(kOffFloor, 0);
    return 0;
  }
  const int end = rd(kOffEnd);
  if (end < kReserveLimit) {
    if (static_cast<long long>(end) + size > kReserveLimit) size = kReserveLimit - end;
    const int err = lmSizer(size);
    if (err == 0) {
      wr(kOffFloor, rd(kOffEnd));
    } else {
      DebugLogf(kLogInternal, "LmReserve: lmSizer failed, %E", err);
    }
    return err;
  }
  // A large area is left as it is: kept as the library has it.
  wr(kOffFloor, std::min(size, end));
  return 0;
}

int ElementSpace::LmPreflight(int size) {
  if (!isArea()) return kErrLmBadArgument;
  if (size < 0) {
    DebugLogf(kLogMisuse, "LmPreflight: size = %~d, invalid size", size);
    return kErrLmBadArgument;
  }
  if (size < LmAvail()) return 0;
  const int err = lmSizer(std::max(size, rd(kOffBaseUnit) * 1024));
  if (err != 0) DebugLogf(kLogMisuse, "LmPreflight: size = %~d, lmSizer failed, %E", size, err);
  return err;
}

int ElementSpace::LmValid() const {
  const unsigned char* p = MemPtr();
  const long long bufferSize = GetSize();
  const unsigned signature = bufferSize >= 4 ? LoadLE(p) : 0;
  const short version = bufferSize >= 6 ? Load16(p + kOffVersion) : 0;
  auto fail = [&](int code, const char* format, auto... values) {
    DebugLogf(kLogInternalData, format, values...);
    return code;
  };
  // 14: the header. Besides signature and versions, the growth units and
  // the reserve floor must be ones the library could have written.
  bool headerOk = bufferSize >= kEmptyAreaExtra && signature == kLmSignature;
  if (headerOk) {
    const short compatible = Load16(p + kOffCompatible);
    const int base = rd(kOffBaseUnit);
    const int unit = rd(kOffUnit);
    const int floor = rd(kOffFloor);
    headerOk = version >= 1 && compatible >= 1 && compatible >= kLmVersion &&
               version <= kLmVersion && base >= 1 && base <= 0x1FFFFF && unit >= base &&
               unit <= std::max(base, kMaxUnitKiB) && floor >= 0 && floor <= rd(kOffEnd);
  }
  if (!headerOk) {
    return fail(14, "LmValid: typesig = %Y, version = %~d", signature, static_cast<int>(version));
  }
  if (rd(kOffSlot0) != 0) return fail(1, "LmValid: non-zero offset = %~d", rd(kOffSlot0));
  const long long count = rd(kOffCount);
  const long long start = rd(kOffStart);
  const long long end = rd(kOffEnd);
  const long long empty = rd(kOffEmpty);
  if (count < 0 || 4 * count + kLmHeaderSize > start) {
    return fail(2, "LmValid: data/offsets overlap, count = %~d, start = %~d",
                static_cast<int>(count), static_cast<int>(start));
  }
  if (end < start) {
    return fail(3, "LmValid: end = %~d must be >= start = %~d", static_cast<int>(end),
                static_cast<int>(start));
  }
  // The area may not claim more than the buffer holds.
  if (end > bufferSize) return fail(12, "LmValid: too big, end = %~d", static_cast<int>(end));
  for (long long r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word != 0 && (word & 3) != 0) {
      return fail(4, "LmValid: non 4 byte aligned offset = %~d", word & kOffsetMask);
    }
  }
  long long zeros = 0;
  for (long long r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word == 0) {
      ++zeros;
      continue;
    }
    const long long offset = word & kOffsetMask;
    // A record needs its size word: an offset at the end points to nowhere.
    if (offset < start || offset >= end) return fail(5, "LmValid: offsets to nowhere");
  }
  if (zeros != empty) return fail(6, "LmValid: wrong zero count");
  // Walk the records, noting where each begins.
  std::vector<bool> begins(static_cast<std::size_t>((end - start) / 4 + 1), false);
  long long records = 0;
  long long pos = start;
  while (pos < end) {
    if (pos + 4 > end) return fail(8, "LmValid: size is out of range");
    const int n = rd(pos);
    if (n < 0) return fail(7, "LmValid: size is negative");
    const long long next = pos + Phys(n);
    if (next > end) return fail(8, "LmValid: size is out of range");
    if ((pos - start) % 4 == 0) begins[static_cast<std::size_t>((pos - start) / 4)] = true;
    ++records;
    pos = next;
  }
  if (count - empty > records) return fail(9, "LmValid: too many offsets for datums");
  // Every slot names the beginning of a record of its own.
  for (long long r = 1; r <= count; ++r) {
    const int word = slot(r);
    if (word == 0) continue;
    const long long offset = word & kOffsetMask;
    if ((offset - start) % 4 != 0) return fail(5, "LmValid: offsets to nowhere");
    const auto at = static_cast<std::size_t>((offset - start) / 4);
    // Either no record begins here or another slot took it already.
    if (!begins[at]) return fail(9, "LmValid: too many offsets for datums");
    begins[at] = false;
  }
  if (pos != end || end != bufferSize) return fail(10, "LmValid: ended up wrong");
  if (end % 4 != 0)
    return fail(11, "LmValid: non 4 byte aligned size = %~d", static_cast<int>(end));
  if (end >= 0x40000000) return fail(12, "LmValid: too big, end = %~d", static_cast<int>(end));
  return 0;
}

int ElementSpace::LmRepair() {
  if (GetSize() >= static_cast<unsigned>(kEmptyAreaExtra)) {
    wr(kOffLock, 0);
    wr(kOffFlags, rd(kOffFlags) & ~kFlagRequired);
  }
  return LmValid();
}

int ElementSpace::LmSetParms(int unit, int required) {
  if (!isArea()) return kErrLmBadArgument;
  const int kib = unit < 1024 ? 1 : unit / 1024;
  wr(kOffBaseUnit, kib);
  wr(kOffUnit, kib);
  const int flags = rd(kOffFlags);
  wr(kOffFlags, required != 0 ? flags | kFlagRequired : flags & ~kFlagRequired);
  return 0;
}

int ElementSpace::LmGetParms(int* unit, int* required) const {
  const bool area = isArea();
  if (unit != nullptr) *unit = area ? rd(kOffBaseUnit) * 1024 : 0;
  if (required != nullptr) *required = area ? rd(kOffFlags) & kFlagRequired : 0;
  return 0;
}

int ElementSpace::LmAddAssert(const char* data, int size) {
  if (!isArea()) return kErrLmBadArgument;
  const int flags = rd(kOffFlags);
  wr(kOffFlags, flags | kFlagRequired);
  const int result = LmAdd(data, size);
  if (result < 1) Debug(kModule, kLineAddAssert);
  wr(kOffFlags, flags);
  return result;
}

int ElementSpace::LmSetAssert(int refnum, int size) {
  if (!isArea()) return kErrLmBadArgument;
  const int flags = rd(kOffFlags);
  wr(kOffFlags, flags | kFlagRequired);
  const int result = LmSet(refnum, size);
  if (result != 0) Debug(kModule, kLineSetAssert);
  wr(kOffFlags, flags);
  return result;
}

int ElementSpace::LmDupeAssert(int refnum) {
  if (!isArea()) return kErrLmBadArgument;
  const int flags = rd(kOffFlags);
  wr(kOffFlags, flags | kFlagRequired);
  const int result = LmDupe(refnum);
  if (result < 1) Debug(kModule, kLineDupeAssert);
  wr(kOffFlags, flags);
  return result;
}
