// qn as a user runs it: command lines on files the test builds with the
// library, their exit status and output; salvage of damaged files checked
// chunk by chunk against what the store held.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "quarnel/chunk/chunkfile.h"
#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/faults.h"
#include "tests/support/chunk_store.h"
#include "tests/support/drive_fixture.h"

namespace {

using Key = ChunkKey;
using Content = ChunkContent;
constexpr int kText = 0x54657874, kNums = 0x4E756D73, kPict = 0x50696374;

struct Result {
  int status;
  std::string out, err;
};

class Qn : public DriveTest {
 protected:
  // Runs "qn <line>" (a shell line: it may redirect or pipe) in C:\.
  Result Run(const std::string& line) {
    const std::string dir = HostOf('C');
    const std::string shell = "cd '" + dir + "' && qn() { " + QN_PROGRAM + " \"$@\"; } && { " +
                              QN_PROGRAM + " " + line + "; } >.out 2>.err; echo $? >.rc";
    std::system(shell.c_str());
    return {std::stoi("0" + ReadHost(dir + "/.rc")), ReadHost(dir + "/.out"),
            ReadHost(dir + "/.err")};
  }

  static void Store(ChunkManager* m, const Content& c, bool packLarge) {
    for (const auto& [key, bytes] : c) {
      TMemory* h = BlockOf(bytes);
      if (packLarge && bytes.size() > 4096) MemComp(h);
      ASSERT_EQ(m->CHAddChunk(h, key.first, key.second), 0);
    }
  }

  // A new chunk file at `path` holding `c` (larger chunks packed), saved;
  // `m` stays open on it.
  void Saved(const char16_t* path, const Content& c, ChunkManager* m) {
    TFileLoc loc = FileAt(path);
    WriteHost(Host(path), "");
    ASSERT_EQ(m->CHOpen(&loc, 3), 0);
    Store(m, c, true);
    ASSERT_EQ(m->CHSave(), 0);
  }

  // Every chunk of the chunk file, expanded; empty when it does not open.
  static Content Read(const char16_t* path) {
    TFileLoc loc = FileAt(path);
    ChunkManager m;
    return m.CHOpen(&loc, 1) == 0 ? ReadChunks(&m) : Content{};
  }
};

TEST_F(Qn, CommandLinesGiveTheirOutputAndStatus) {
  QUARNEL_LINUX_ONLY("qn runs through the POSIX shell");
  WriteHost(Host(u"C:\\nine.txt"), "123456789");
  WriteHost(Host(u"C:\\empty.bin"), "");
  std::string random(5000, '\0');
  std::mt19937 rng(7);
  for (char& c : random) c = static_cast<char>(rng());
  WriteHost(Host(u"C:\\random.bin"), random);
  Content c = {{{kText, 1}, "Dear reader,"},
               {{kText, 2}, "a second text"},
               {{kNums, -5}, ""},
               {{kPict, 1}, std::string(20000, '#')}};
  for (int i = 0; i < 64; ++i) c[{kNums, -5}] += static_cast<char>(i * i % 251);
  {
    ChunkManager m;
    Saved(u"C:\\store.chk", c, &m);
  }
  const std::string store = ReadHost(Host(u"C:\\store.chk"));
  WriteHost(Host(u"C:\\work.chk"), store);
  std::string huge = store;  // the header claims a map far beyond the file
  huge[16 + 5] = 0x7F;
  WriteHost(Host(u"C:\\huge.chk"), huge);
  std::string flipped = store;
  flipped[store.find("a second text")] ^= 1;
  WriteHost(Host(u"C:\\flipped.chk"), flipped);
  std::string marked = store;  // the old library's half-saved file: marker set, map intact
  std::memcpy(&marked[32], "!daB", 4);
  WriteHost(Host(u"C:\\marked.chk"), marked);
  {
    // A map whose Text ids are out of order, with its hash made right.
    std::string unordered = store;
    CHFileHeader h;
    std::memcpy(&h, store.data(), sizeof h);
    unsigned char* map = reinterpret_cast<unsigned char*>(&unordered[h.mapAddress]);
    map[kChunkHeaderSize + 5 * kMapEntrySize + 8] = 3;  // Text 1 becomes Text 3, before Text 2
    const unsigned hash =
        chHashBlock(map + kChunkHeaderSize, static_cast<int>(h.mapSize) - kChunkHeaderSize);
    std::memcpy(map + 48, &hash, 4);
    WriteHost(Host(u"C:\\unordered.chk"), unordered);
  }
  {
    // A file of the older generation: 56-byte chunk headers, 44-byte entries.
    ChunkImage old(720), map(2 * kMapEntrySize0100);
    old.Header(kChunkVersion0100, 576, kChunkHeaderSize0100 + 2 * kMapEntrySize0100, 576);
    old.Chunk(512, true, kText, 1, 64, 0, "old data");
    map.Entry(0, true, kText, 1, -1);
    map.Entry(kMapEntrySize0100, true, kText, 1, 512);
    old.Chunk(576, true, kChunkMapType, 0, 2 * kMapEntrySize0100, 0, map.b);
    WriteHost(Host(u"C:\\old.chk"), old.b);
    std::memset(&old.b[0], 0xEE, 112);
    WriteHost(Host(u"C:\\oldhead.chk"), old.b);
  }
  {
    // Free space in the map: a chunk removed, then a quick save.
    WriteHost(Host(u"C:\\quick.chk"), store);
    TFileLoc loc = FileAt(u"C:\\quick.chk");
    ChunkManager m;
    TMemory* h = nullptr;
    ASSERT_EQ(m.CHOpen(&loc, 3), 0);
    ASSERT_EQ(m.CHGetChunk(kText, 1, &h), 0);
    ASSERT_EQ(m.CHRemoveChunk(h), 0);
    delete h;
    ASSERT_EQ(m.CHQuickSave(), 0);
  }

  WriteHost(Host(u"C:\\rdi.ini"), "[Device]\nname=scanner\nport=2\n");
  {
    unsigned char record[12] = {};
    _initpersist(reinterpret_cast<PersistHeader*>(record), 0x44656D6F, 1, 2);  // 'Demo'
    WriteHost(Host(u"C:\\rec.bin"), std::string(reinterpret_cast<char*>(record), sizeof record));
  }
  {
    // A save crashed halfway: the file and its journal as a crash leaves them.
    TFileLoc loc = FileAt(u"C:\\work.chk");
    ChunkManager m;
    TMemory* h = nullptr;
    ASSERT_EQ(m.CHOpen(&loc, 3), 0);
    ASSERT_EQ(m.CHGetChunk(kText, 1, &h), 0);
    h->SetSize(3000);
    ASSERT_EQ(m.CHChangedChunk(h), 0);
    ASSERT_EQ(UDiskRecord(u"C:\\"), 1);
    ASSERT_EQ(m.CHSave(), 0);
    ASSERT_EQ(UDiskRecord(nullptr), 1);
    m.CHRevert();
    int io = UDiskIoCount() / 2;
    while (io < UDiskIoCount() && !(UDiskBuildCrash(io, UDiskCrashImages(io) - 1, u"D:\\") &&
                                    HostExists(Host(u"D:\\work.chk-journal"))))
      ++io;
    UDiskReset();
    MakeHostFolder(Host(u"C:\\crash"));
    for (const char* name : {"/work.chk", "/work.chk-journal"})
      WriteHost(Host(u"C:\\crash") + name, ReadHost(HostOf('D') + name));
    WriteHost(Host(u"C:\\work.chk"), store);
  }
  const char* const kList =
      "type                id       size     offset form\n"
      "Nums                -5         64        576 plain\n"
      "Pict                 1        262        704 packed\n"
      "Text                 1         12       1032 plain\n"
      "Text                 2         13       1108 plain\n"
      "free 0 bytes in 0 extents\n";
  struct Row {
    const char* line;
    int status;
    const char* out;  // exact, or a part of it after "~"
    const char* err;  // a part of standard error; "" for none at all
  };
  const Row rows[] = {
      {"err -641", 0, "-641: Chunk data damaged (hash mismatch)\n", ""},
      {"err --win 112", 0, "Windows error 112: -1115: Disk full\n", ""},
      {"err 77777", 0, "77777: Unidentified error\n", ""},
      {"err x", 3, "", "qn: not a number: x"},
      {"", 3, "", "usage: qn COMMAND"},
      {"frob", 3, "", "qn: unknown command frob"},
      {"ls", 3, "", "wrong number of arguments"},
      {"ls --all store.chk", 3, "", "unknown option --all"},
      {"verify --help", 0, "~usage: qn verify FILE [--recover]", ""},
      {"crc nine.txt", 0, "89A1897F 9 nine.txt\n", ""},
      {"pack nine.txt p", 0, "kept 9 bytes unpacked: packing does not make them smaller\n", ""},
      {"unpack nine.txt p", 2, "", "qn: nine.txt: not a packed block: "},
      {"cat store.chk Pict 1 >pict && qn pack pict pict.pk && qn unpack pict.pk pict.un && cmp "
       "pict pict.un && qn info pict.pk",
       0, "~pict.pk: packed block, 20000 bytes unpacked", ""},
      {"info store.chk", 0,
       "store.chk: chunk file, format 0x0110\n"
       "  map 400 bytes at 1124, end of data 1124, granule 4, file 1524 bytes\n"
       "  4 chunks in 3 types, free 0 bytes in 0 extents\n",
       ""},
      {"info rdi.ini", 0, "rdi.ini: profile file, 1 sections, 2 keys\n", ""},
      {"info rec.bin", 0,
       "rec.bin: persisted record Demo, version 0x0002, oldest reader 0x0001, 12 bytes\n", ""},
      {"res vellores.dll", 0, "~string list 16000: ", ""},
      {"info crash/work.chk | grep journal", 0, "~  journal: complete, ", ""},
      {"verify crash/work.chk", 1, "~damaged: qn verify --recover rolls the journal back\n", ""},
      {"ls crash/work.chk", 1, "", "not fully saved (-645)"},
      {"verify --recover crash/work.chk", 0, "~journal: rolled back\nmap: sound, 4 chunks", ""},
      {"cat crash/work.chk Text 1 && ls crash", 0, "Dear reader,work.chk\n", ""},
      {"info empty.bin", 1, "empty.bin: empty file\n", ""},
      {"info random.bin", 1, "random.bin: not a stored form qn knows (5000 bytes)\n", ""},
      {"ls store.chk", 0, kList, ""},
      {"ls --json store.chk", 0,
       "{\"file\": \"store.chk\", \"format\": 272, \"chunks\": [\n"
       "  {\"type\": \"Nums\", \"id\": -5, \"size\": 64, \"offset\": 576, \"packed\": false},\n"
       "  {\"type\": \"Pict\", \"id\": 1, \"size\": 262, \"offset\": 704, \"packed\": true},\n"
       "  {\"type\": \"Text\", \"id\": 1, \"size\": 12, \"offset\": 1032, \"packed\": false},\n"
       "  {\"type\": \"Text\", \"id\": 2, \"size\": 13, \"offset\": 1108, \"packed\": false}\n"
       "], \"free\": {\"bytes\": 0, \"extents\": 0}}\n",
       ""},
      {"verify store.chk", 0,
       "map: sound, 4 chunks, 0 free extents\nchunks: 4 checked, 0 damaged\nsound\n", ""},
      {"cat store.chk Text 1", 0, "Dear reader,", ""},
      {"cat store.chk 0x50696374 1 --raw | wc -c", 0, "262\n", ""},
      {"cat store.chk Text 7", 2, "", "qn: store.chk: Text 7: No such chunk (-647)"},
      {"cat store.chk Tx 1", 3, "", "not a chunk type: Tx"},
      {"put work.chk Text 9 nine.txt && qn cat work.chk Text 9", 0,
       "stored Text 9: 9 bytes\n123456789", ""},
      {"rm work.chk Text 1", 0, "removed Text 1\n", ""},
      {"ls work.chk | grep Text", 0,
       "Text                 2         13       1032 plain\n"
       "Text                 9          9       1112 plain\n",
       ""},
      {"ls quick.chk | tail -1", 0, "free 76 bytes in 1 extents\n", ""},
      {"salvage quick.chk out.chk", 0,
       "header: intact; map: intact, 3 chunks\nfound 4 intact chunk copies, 1 not in the map "
       "(stale, skipped)\nrecovered 3 chunks into out.chk\n",
       ""},
      {"compact quick.chk", 0, "compacted: 1572 bytes before, 1400 after, 1 free extents dropped\n",
       ""},
      {"compact quick.chk", 0, "nothing to compact: 1400 bytes\n", ""},
      {"verify flipped.chk", 1,
       "map: sound, 4 chunks, 0 free extents\nchunk Text 2 at 1044: its data does not match its "
       "hash\nchunks: 4 checked, 1 damaged\ndamaged\n",
       ""},
      {"verify empty.bin", 1, "file: Invalid or short chunk file (-643)\ndamaged\n", ""},
      {"verify huge.chk", 1, "~file: the header claims a map of 139637976727952 bytes\ndamaged\n",
       ""},
      {"verify missing.chk", 2, "", "qn: missing.chk: "},
      {"verify marked.chk", 1, "~file: Chunk file was not fully saved (-645)\n", ""},
      {"salvage marked.chk out.chk && qn verify out.chk | tail -1", 0,
       "header: intact; map: intact, 4 chunks\nfound 4 intact chunk copies\nrecovered 4 chunks "
       "into out.chk\nsound\n",
       ""},
      {"verify unordered.chk", 1, "~chMapCheck: invalid id sequence\ndamaged\n", ""},
      {"ls old.chk && qn cat old.chk Text 1", 0,
       "type                id       size     offset form\n"
       "Text                 1          8        568 plain\n"
       "free 0 bytes in 0 extents\nold data",
       ""},
      {"verify old.chk | tail -1", 0, "sound\n", ""},
      {"salvage oldhead.chk out.chk; qn cat out.chk Text 1", 0,
       "~recovered 1 chunks into out.chk\nold data", ""},
      {"salvage store.chk ./store.chk", 3, "", "OUT must be another file than FILE"},
      {"salvage empty.bin out.chk", 1, "~recovered 0 chunks", ""},
      {"salvage huge.chk out.chk", 1, "~recovered 4 chunks", ""},
      {"salvage flipped.chk out.chk", 1, "~lost Text 2\n", ""},
      {"tour tour >/dev/null && ls tour", 0, "crash\ndamaged.chk\nsalvaged.chk\nstore\n", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    const Result r = Run(row.line);
    EXPECT_EQ(r.status, row.status);
    if (row.out[0] == '~')
      EXPECT_NE(r.out.find(row.out + 1), std::string::npos) << r.out;
    else
      EXPECT_EQ(r.out, row.out);
    if (row.err[0] == '\0')
      EXPECT_EQ(r.err, "");
    else
      EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
  }
}

// Salvage rebuilds every chunk whose bytes survived (compared with what the
// store held) and invents none.
TEST_F(Qn, SalvageRecoversWhatSurvived) {
  QUARNEL_LINUX_ONLY("qn runs through the POSIX shell");
  std::mt19937 rng(11);
  Content before;
  const int types[] = {kText, kNums, kPict};
  for (int i = 0; i < 40; ++i) {
    std::string s(rng() % 6000, '\0');
    for (char& ch : s) ch = static_cast<char>(rng() % (s.size() > 3000 ? 3 : 256));
    before[{types[rng() % 3], static_cast<int>(rng() % 101) - 50}] = s;
  }
  ChunkManager m;
  Saved(u"C:\\s.chk", before, &m);
  const std::string saved = ReadHost(Host(u"C:\\s.chk"));
  // Offsets and stored sizes, for the truncated files.
  std::map<Key, std::int64_t> ends;
  for (const auto& [key, bytes] : before) {
    std::int64_t offset = 0, size = 0;
    ASSERT_EQ(m.CHPhysInfo(key.first, key.second, &offset, &size), 0);
    ends[key] = offset + size;
  }
  // A second state: chunks changed, added and removed, then a save that
  // crashes at every point on the simulated disk.
  Content after = before;
  for (int n = 0; n < 10; ++n) {
    TMemory* h = nullptr;
    const Key key = std::next(after.begin(), rng() % after.size())->first;
    ASSERT_EQ(m.CHGetChunk(key.first, key.second, &h), 0);
    if (n % 3 == 0) {
      ASSERT_EQ(m.CHRemoveChunk(h), 0);
      delete h;
      after.erase(key);
    } else {
      h->SetSize(static_cast<unsigned>(rng() % 2000));
      std::memset(h->MemPtr(), 'a' + n, h->GetSize());
      ASSERT_EQ(m.CHChangedChunk(h), 0);
      after[key] = std::string(h->GetSize(), static_cast<char>('a' + n));
    }
  }
  Store(&m, {{{kText, 77}, "new"}}, false);
  after[{kText, 77}] = "new";
  ASSERT_EQ(UDiskRecord(u"C:\\"), 1);
  ASSERT_EQ(m.CHSave(), 0);
  ASSERT_EQ(UDiskRecord(nullptr), 1);
  m.CHClose();

  auto check = [&](const std::string& name, const Content& want, int status) {
    SCOPED_TRACE(name);
    const Result r = Run("salvage " + name + " out.chk");
    EXPECT_EQ(r.status, status) << r.out << r.err;
    EXPECT_EQ(Read(u"C:\\out.chk"), want) << r.out;
  };
  std::string damaged = saved;
  std::memset(&damaged[damaged.size() - 600], 0, 600);  // the map and what precedes it
  WriteHost(Host(u"C:\\map.chk"), damaged);
  Content survived;
  for (const auto& [key, end] : ends)
    if (end <= static_cast<std::int64_t>(saved.size() - 600)) survived[key] = before.at(key);
  check("map.chk", survived, 1);
  damaged = saved;
  std::memset(&damaged[0], 0xEE, 512);
  WriteHost(Host(u"C:\\header.chk"), damaged);
  check("header.chk", before, 1);
  for (const std::size_t cut : {saved.size() / 3, saved.size() / 2, saved.size() - 1}) {
    WriteHost(Host(u"C:\\cut.chk"), saved.substr(0, cut));
    survived.clear();
    for (const auto& [key, end] : ends)
      if (end <= static_cast<std::int64_t>(cut)) survived[key] = before.at(key);
    check("cut.chk", survived, 1);
  }

  // Crash images: each recovered chunk is one the store held before or after
  // the save, with those bytes.
  const int ios = UDiskIoCount();
  for (int io = 0; io <= ios; ++io) {
    SCOPED_TRACE(testing::Message() << "crash before io " << io);
    ASSERT_EQ(UDiskBuildCrash(io, UDiskCrashImages(io) - 1, u"D:\\"), 1);
    const Result r = Run("salvage '" + HostOf('D') + "/s.chk' out.chk");
    EXPECT_LE(r.status, 1) << r.err;
    const Content got = Read(u"C:\\out.chk");
    EXPECT_FALSE(got.empty());
    for (const auto& [key, bytes] : got) {
      SCOPED_TRACE(testing::Message() << key.first << " " << key.second);
      EXPECT_TRUE((before.count(key) && before.at(key) == bytes) ||
                  (after.count(key) && after.at(key) == bytes));
    }
  }
  UDiskReset();
}

}  // namespace
