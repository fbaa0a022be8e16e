#include "quarnel/chunk/chunkfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "tests/support/chunk_store.h"
#include "tests/support/drive_fixture.h"

namespace {

constexpr unsigned kText = 0x54455854;  // 'TEXT'
constexpr unsigned kData = 0x44415441;  // 'DATA'
constexpr unsigned kOld = 0x4F4C442E;   // 'OLD.'

using Image = ChunkImage;

class ChunkFormat : public DriveTest {
 protected:
  TFileLoc loc_ = FileAt(u"C:\\golden.chk");
  std::string OnDisk() { return ReadHost(Host(u"C:\\golden.chk")); }
  void Add(ChunkManager* m, unsigned type, int id, const std::string& bytes) {
    ASSERT_EQ(m->CHAddChunk(BlockOf(bytes), static_cast<int>(type), id), 0);
  }
  std::string Fetch(ChunkManager* m, unsigned type, int id) {
    TMemory* h = nullptr;
    EXPECT_EQ(m->CHGetChunk(static_cast<int>(type), id, &h), 0);
    return h ? Plain(h) : "";
  }
};

}  // namespace

// A new store saved empty, then three chunks of two types: the bytes are
// the header sector, the chunks in the order they were added (extents
// rounded to the granule of 4, the rest slack), the map at the end of data.
TEST_F(ChunkFormat, NewFilesAreWrittenByteForByte) {
  WriteHost(Host(u"C:\\golden.chk"), "");
  ChunkManager m;
  ASSERT_EQ(m.CHOpen(&loc_, 3), 0);
  ASSERT_EQ(m.CHSave(), 0);
  Image empty(512);
  empty.Header(0x0110, 512, 0, 512);
  EXPECT_EQ(OnDisk(), empty.b);
  EXPECT_EQ(m.CHCountTypes(), 0);

  Add(&m, kText, 1, "hello");
  Add(&m, kText, 2, "0123456789");
  Add(&m, kData, 7, "xyz");
  std::int64_t offset = 0, size = 0;
  ASSERT_EQ(m.CHSave(), 0);
  Image two(512 + 72 + 76 + 68 + 64 + 5 * 48);
  two.Header(0x0110, 728, 64 + 5 * 48, 728);
  two.Chunk(512, false, kText, 1, 72, 3, "hello");
  two.Chunk(584, false, kText, 2, 76, 2, "0123456789");
  two.Chunk(660, false, kData, 7, 68, 1, "xyz");
  Image map(5 * 48);
  map.Entry(0, false, kData, 1, -1);
  map.Entry(48, false, kData, 7, 660, 1);
  map.Entry(96, false, kText, 2, -1);
  map.Entry(144, false, kText, 1, 512, 3);
  map.Entry(192, false, kText, 2, 584, 2);
  two.Chunk(728, false, 0x43684D70, 0, 5 * 48, 0, map.b);
  EXPECT_EQ(OnDisk(), two.b);
  EXPECT_EQ(m.CHPhysInfo(static_cast<int>(kText), 2, &offset, &size), 0);
  EXPECT_EQ(offset, 584 + 64);
  EXPECT_EQ(size, 10);

  ASSERT_EQ(m.CHRevert(), 0);  // read back from the file alone
  EXPECT_EQ(Fetch(&m, kText, 2), "0123456789");
  EXPECT_EQ(Fetch(&m, kData, 7), "xyz");
  EXPECT_EQ(m.CHEnumChunk(static_cast<int>(kText), 0), 2);
  EXPECT_EQ(m.CHEnumType(1), static_cast<int>(kData));

  // The quick save: 'TEXT' 2 and 'DATA' 7 rewritten in place, the slack
  // between them (bytes the file holds, here made 0xEE) left alone, the
  // removed 'TEXT' 1 left where it was as free space in the map, the map at
  // the same end of data.
  m.CHClose();
  WriteHost(Host(u"C:\\golden.chk"), OnDisk().replace(658, 2, "\xEE\xEE"));
  ASSERT_EQ(m.CHOpen(&loc_, 3), 0);
  TMemory* h = nullptr;
  ASSERT_EQ(m.CHGetChunk(static_cast<int>(kText), 2, &h), 0);
  std::memcpy(h->MemPtr(), "9876543210", 10);
  ASSERT_EQ(m.CHChangedChunk(h), 0);
  ASSERT_EQ(m.CHGetChunk(static_cast<int>(kData), 7, &h), 0);
  std::memcpy(h->MemPtr(), "XYZ", 3);
  ASSERT_EQ(m.CHChangedChunk(h), 0);
  ASSERT_EQ(m.CHGetChunk(static_cast<int>(kText), 1, &h), 0);
  ASSERT_EQ(m.CHRemoveChunk(h), 0);
  delete h;
  ASSERT_EQ(m.CHQuickSave(), 0);
  Image quick(728 + 64 + 6 * 48);
  quick.Bytes(0, two.b.substr(0, 728));
  quick.Header(0x0110, 728, 64 + 6 * 48, 728);
  quick.Chunk(584, false, kText, 2, 76, 2, "9876543210");
  quick.Bytes(658, "\xEE\xEE");
  quick.Chunk(660, false, kData, 7, 68, 1, "XYZ");
  Image map3(6 * 48);
  map3.Bytes(0, map.b.substr(0, 96));
  map3.Entry(96, false, kText, 1, -1);
  map3.Bytes(144, map.b.substr(192, 48));
  map3.Entry(192, false, 0xFFFFFFFF, 1, -1);
  map3.Entry(240, false, 0xFFFFFFFF, 72, 512);
  quick.Chunk(728, false, 0x43684D70, 0, 6 * 48, 0, map3.b);
  EXPECT_EQ(OnDisk(), quick.b);
  ASSERT_EQ(m.CHVerify(), 0);
}

// A hand-made 0x0100 file is read with 56-byte chunk headers and 44-byte
// entries, and a chunk added to it is saved in the same layout.
TEST_F(ChunkFormat, Version0100FilesKeepTheirLayout) {
  Image old(512 + 60 + 56 + 2 * 44);
  old.Header(0x0100, 572, 56 + 2 * 44, 572);
  old.Chunk(512, true, kOld, 5, 60, 1, "abc");
  Image map(2 * 44);
  map.Entry(0, true, kOld, 1, -1);
  map.Entry(44, true, kOld, 5, 512, 1);
  old.Chunk(572, true, 0x43684D70, 0, 2 * 44, 0, map.b);
  WriteHost(Host(u"C:\\golden.chk"), old.b);

  ChunkManager m;
  ASSERT_EQ(m.CHOpen(&loc_, 3), 0);
  EXPECT_EQ(m.CHGetChunkHdrSize(), 56);
  EXPECT_EQ(Fetch(&m, kOld, 5), "abc");
  Add(&m, kOld, 6, "wxyz");
  ASSERT_EQ(m.CHSave(), 0);

  Image now(512 + 60 + 60 + 56 + 3 * 44);
  now.Header(0x0100, 632, 56 + 3 * 44, 632);
  now.Chunk(512, true, kOld, 5, 60, 1, "abc");
  now.Chunk(572, true, kOld, 6, 60, 0, "wxyz");
  Image map2(3 * 44);
  map2.Entry(0, true, kOld, 2, -1);
  map2.Entry(44, true, kOld, 5, 512, 1);
  map2.Entry(88, true, kOld, 6, 572);
  now.Chunk(632, true, 0x43684D70, 0, 3 * 44, 0, map2.b);
  EXPECT_EQ(OnDisk(), now.b);
}

namespace {

constexpr unsigned A = 0x41414141, B = 0x42424242, F = 0xFFFFFFFF;

CHMapEntry H(unsigned type, long long count) {
  return CHMapEntry{type, 0, static_cast<std::uint64_t>(count), -1, 0, 0, 0, 0};
}
CHMapEntry C(unsigned type, long long id, long long address, unsigned flags = 0,
             long long slack = 0) {
  return CHMapEntry{type, 0, static_cast<std::uint64_t>(id), address, slack, flags, 0, 0};
}
CHMapEntry Free(long long address, long long length) { return C(F, length, address); }

struct MapCase {
  int code;
  std::vector<CHMapEntry> map;
  long long first = 512;
  long long end = 2048;
  int handle = 0;  // 1: the entry at index 2 has a purged handle; 2: one of 100 bytes
};

class MapCheck : public RecordingTest {};

}  // namespace

// One hand-made map per code the check can reach, each failing with exactly
// that code and line. (10031, 10045 and 10050 guard states that the earlier
// rules already exclude: every entry lies at or above the first chunk and
// was marked, and extents that end where the next one starts cannot carry
// the running position past the end of data.)
TEST_F(MapCheck, EachRuleHasItsCode) {
  const std::vector<MapCase> cases = {
      {0, {}},
      {0, {H(A, 2), C(A, 1, 512), C(A, 2, 1024), H(B, 1), C(B, 9, 1536), H(F, 1), Free(1600, 448)}},
      {10000, {H(A, 1), C(A, 1, 512)}, 511},
      {10000, {H(A, 1), C(A, 1, 512)}, 4096},
      {10010, {H(A, 2), C(A, 1, 512), H(B, 1), C(B, 1, 1024)}},
      {10011, {H(A, 0), C(A, 1, 512)}},
      {10012, {H(B, 1), C(B, 1, 512), H(A, 1), C(A, 1, 1024)}},
      {10012, {H(F, 1), Free(512, 512), H(A, 1), C(A, 1, 1024)}},  // free space first
      {10012, {H(0, 1), C(0, 1, 512)}},                            // type 0
      {10020, {H(A, 1), C(B, 1, 512)}},
      {10021, {H(A, 1), C(A, 1, 508)}},
      {10021, {H(A, 1), C(A, 1, 2048)}},
      {10022, {H(A, 1), C(A, 1, 512), H(F, 2), Free(1536, 512), Free(1024, 512)}},
      {10023, {H(A, 2), C(A, 2, 512), C(A, 1, 1024)}},
      {10024, {H(A, 1), C(A, 1, 512, kMapEntryAllocating)}},
      {10030, {H(A, 2), C(A, 1, 512)}},
      {10040, {H(A, 2), C(A, 1, 512), C(A, 2, 1026)}},
      {10041, {H(A, 2), C(A, 1, 512), C(A, 2, 540)}},
      {10041, {H(A, 1), C(A, 1, 512)}, 512, 0x100000204LL},
      {10042, {H(A, 2), C(A, 1, 512), C(A, 2, 1024, kMapEntryDirty)}},
      {10043, {H(A, 2), C(A, 1, 512), C(A, 2, 1024, kMapEntryDirty)}, 512, 2048, 1},
      {10044, {H(A, 2), C(A, 1, 512), C(A, 2, 1024, kMapEntryDirty)}, 512, 2048, 2},
      {10046, {H(A, 1), C(A, 1, 512), H(F, 1), Free(1024, 100)}},
      {10047, {H(A, 2), C(A, 1, 512), C(A, 2, 514)}},
      {10060, {H(A, 2), C(A, 1, 512), C(A, 2, 512)}},
  };
  const std::map<int, std::string> messages = {{10000, "invalid starting address"},
                                               {10010, "type count wrong"},
                                               {10011, "invalid number"},
                                               {10012, "invalid type sequence"},
                                               {10020, "invalid type"},
                                               {10021, "invalid address"},
                                               {10022, "invalid address sequence"},
                                               {10023, "invalid id sequence"},
                                               {10024, "failed allocation not fixed"},
                                               {10030, "invalid map termination"},
                                               {10040, "invalid chunk size"},
                                               {10041, "impossible chunk size"},
                                               {10042, "non-existent handle"},
                                               {10043, "nil handle or purged"},
                                               {10044, "inconsistent handle size"},
                                               {10046, "wrong information"},
                                               {10047, "went backwards somehow"},
                                               {10060, "was never enumerated"}};
  TMemory purged(1), sized(1);
  purged.SetFlags(kTMemPurgeable, 0);
  sized.SetSize(100);
  for (std::size_t k = 0; k < cases.size(); ++k) {
    SCOPED_TRACE(k);
    MapCase c = cases[k];
    CHFileHeader h{};
    h.granule = 4;
    h.firstChunk = c.first;
    h.endOfData = c.end;
    std::vector<const TMemory*> handles(c.map.size(), nullptr);
    if (c.handle) handles[2] = c.handle == 1 ? &purged : &sized;
    ClearRecords();
    EXPECT_EQ(chMapCheck(c.map.data(), static_cast<int>(c.map.size()), &h, 64, handles.data()),
              c.code);
    for (const CHMapEntry& e : c.map) EXPECT_EQ(e.flags & kMapEntryScratch, 0u);
    if (c.code == 0) {
      EXPECT_TRUE(Lines().empty());
    } else {
      EXPECT_EQ(Lines(), (std::vector<LogLine>{{517, "", "chMapCheck: " + messages.at(c.code)}}));
    }
  }
}
