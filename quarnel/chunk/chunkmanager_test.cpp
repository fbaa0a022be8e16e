#include "quarnel/chunk/chunkmanager.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/faults.h"
#include "tests/support/chunk_store.h"
#include "tests/support/drive_fixture.h"

namespace {

using Key = ChunkKey;
using Content = ChunkContent;
constexpr int kA = 0x41414141, kB = 0x42424242, kC = 0x43434343;

// Random chunk contents: empty, random bytes, or repetitive text (packed
// into the handle by Fill half of the time).
std::string Bytes(std::mt19937& rng) {
  const unsigned kind = rng() % 10;
  if (kind == 0) return "";
  std::string s(rng() % (kind < 8 ? 600 : 5000), '\0');
  for (char& c : s) c = static_cast<char>(kind < 6 ? rng() : 'a' + rng() % 3);
  return s;
}

void Fill(std::mt19937& rng, TMemory* h, const std::string& s) {
  SetBytes(h, s);
  if (s.size() > 1000 && rng() % 2) MemComp(h);
}

class Chunks : public DriveTest {
 protected:
  TFileLoc loc_ = FileAt(u"C:\\store.chk");
  void SetUp() override {
    DriveTest::SetUp();
    WriteHost(Host(u"C:\\store.chk"), "");
  }
  // The store as another manager reads it from the file.
  // Read-only beside an open manager; a crashed file opens writable, so
  // that its journal can be rolled back.
  Content Reopened(const char16_t* path = u"C:\\store.chk", int* rc = nullptr) {
    ChunkManager r;
    TFileLoc at = FileAt(path);
    const int err = r.CHOpen(&at, rc ? 3 : 1);
    if (rc) *rc = err;
    EXPECT_EQ(err, 0);
    EXPECT_EQ(r.CHVerify(), 0);
    return ReadChunks(&r);
  }
  // A new store holding `c`, saved; `m` stays open on it.
  void SaveNew(ChunkManager* m, const Content& c) {
    ASSERT_EQ(m->CHOpen(&loc_, 3), 0);
    for (const auto& [k, bytes] : c) ASSERT_EQ(m->CHAddChunk(BlockOf(bytes), k.first, k.second), 0);
    ASSERT_EQ(m->CHSave(), 0);
  }
  // `bytes` as a file: refused at open with `code` and `line` at 517 (no
  // line at all when empty), and left as they were.
  void Refused(const std::string& bytes, int code, const std::string& line) {
    WriteHost(Host(u"C:\\bad.chk"), bytes);
    ClearRecords();
    {
      ChunkManager bad;
      TFileLoc at = FileAt(u"C:\\bad.chk");
      EXPECT_EQ(bad.CHOpen(&at, 3), code) << line;
    }
    if (line.empty()) {
      EXPECT_TRUE(LoggedLines().empty());
    } else {
      EXPECT_TRUE(Logged(517, line)) << line;
    }
    EXPECT_EQ(ReadHost(Host(u"C:\\bad.chk")), bytes) << line;
  }
  // `s` with `n` bytes of `v` at `at`; with `fixHash`, the map's hash made
  // right again.
  static std::string Patched(std::string s, std::size_t at, long long v, int n,
                             bool fixHash = false) {
    std::memcpy(&s[at], &v, static_cast<std::size_t>(n));
    if (fixHash) {
      long long map = 0, size = 0;
      std::memcpy(&map, &s[8], 8);
      std::memcpy(&size, &s[16], 8);
      const unsigned h = chHashBlock(reinterpret_cast<const unsigned char*>(&s[map + 64]),
                                     static_cast<int>(size - 64));
      std::memcpy(&s[map + 48], &h, 4);
    }
    return s;
  }
  void Add(ChunkManager* m, Key k, const std::string& s, Content* model) {
    ASSERT_EQ(m->CHAddChunk(BlockOf(s), k.first, k.second), 0);
    (*model)[k] = s;
  }
  TMemory* Get(ChunkManager* m, Key k) {
    TMemory* h = nullptr;
    EXPECT_EQ(m->CHGetChunk(k.first, k.second, &h), 0);
    return h;
  }
  // A saved store A, then changes of every kind that make B.
  void Scripted(ChunkManager* m, Content* a, Content* b) {
    std::mt19937 rng(13);
    ASSERT_EQ(m->CHOpen(&loc_, 3), 0);
    for (int i = 0; i < 30; ++i) Add(m, {i % 3 ? kA : kB, i}, Bytes(rng), a);
    ASSERT_EQ(m->CHSave(), 0);
    *b = *a;
    for (int i = 0; i < 6; ++i) {  // changed, in place or elsewhere
      const Key k{i % 3 ? kA : kB, i};
      TMemory* h = Get(m, k);
      const std::string s = i % 2 ? std::string(h->GetSize(), 'c') : Bytes(rng);
      SetBytes(h, s);
      ASSERT_EQ(m->CHChangedChunk(h), 0);
      (*b)[k] = s;
    }
    for (int i = 10; i < 14; ++i) {
      TMemory* h = Get(m, {i % 3 ? kA : kB, i});
      ASSERT_EQ(m->CHRemoveChunk(h), 0);  // gives the handle back
      delete h;
      b->erase({i % 3 ? kA : kB, i});
    }
    for (int i = 0; i < 4; ++i) Add(m, {kC, i}, Bytes(rng), b);
    TMemory* now = Get(m, {kA, 16});
    SetBytes(now, "stored at once");
    ASSERT_EQ(m->CHStoreChunk(now), 0);
    (*b)[{kA, 16}] = "stored at once";
    ASSERT_EQ(m->CHDuplicate(kA, 17, 99), 0);
    ASSERT_EQ(m->CHDuplicate(kA, 1, 98), 0);  // a dirty source
    (*b)[{kA, 99}] = (*b)[{kA, 17}];
    (*b)[{kA, 98}] = (*b)[{kA, 1}];
    ASSERT_EQ(m->CHSetInfo(Get(m, {kA, 20}), kC, 20), 0);
    (*b)[{kC, 20}] = (*b)[{kA, 20}];
    b->erase({kA, 20});
  }
};

}  // namespace

// Random operations against a map of (type, id) to bytes: every answer, and
// after each save the map check and what another manager reads from the
// file. Dirty duplicates, empty chunks and detaching dirty chunks are drawn
// among the rest.
TEST_F(Chunks, RandomOperationsAgreeWithAModel) {
  std::mt19937 rng(20);
  ChunkManager m;
  ASSERT_EQ(m.CHOpen(&loc_, 3), 0);
  Content cur, saved;
  const int types[] = {kA, kB, kC};
  const auto pick = [&] {
    auto it = cur.begin();
    std::advance(it, static_cast<long>(rng() % cur.size()));
    return it->first;
  };
  const auto fresh = [&](int type) {
    Key k;
    do k = {type, static_cast<int>(rng() % 10000) - 5};
    while (cur.count(k));
    return k;
  };
  const auto change = [&](Key k) {
    TMemory* h = Get(&m, k);
    const std::string s = rng() % 4 ? Bytes(rng) : std::string(h->GetSize(), 'z');
    Fill(rng, h, s);
    EXPECT_EQ(m.CHChangedChunk(h), 0);
    cur[k] = s;
    return h;
  };
  std::size_t most = 0;
  int saves = 0;
  for (int step = 0; step < 6000; ++step) {
    SCOPED_TRACE(step);
    const unsigned op = rng() % 100;
    if (cur.empty() || op < 40) {
      const Key k = fresh(types[rng() % 3]);
      const std::string s = Bytes(rng);
      TMemory* h = new TMemory(1);
      Fill(rng, h, s);
      ASSERT_EQ(m.CHAddChunk(h, k.first, k.second), 0);
      cur[k] = s;
    } else if (op < 46) {
      change(pick());
    } else if (op < 50) {
      const Key k = pick();
      TMemory* h = Get(&m, k);
      SetBytes(h, Bytes(rng));
      cur[k] = Plain(h);
      ASSERT_EQ(m.CHStoreChunk(h), 0);
    } else if (op < 54) {
      const Key k = pick();
      TMemory* h = Get(&m, k);
      ASSERT_EQ(m.CHRemoveChunk(h), 0);
      delete h;
      cur.erase(k);
    } else if (op < 59) {
      const Key k = pick(), to = fresh(types[rng() % 3]);
      ASSERT_EQ(m.CHSetInfo(Get(&m, k), to.first, to.second), 0);
      cur[to] = cur[k];
      cur.erase(k);
    } else if (op < 64) {
      const Key k = pick(), to = fresh(k.first);
      if (rng() % 2) change(k);
      ASSERT_EQ(m.CHDuplicate(k.first, k.second, to.second), 0);
      cur[to] = cur[k];
    } else if (op < 69) {
      const Key k = pick();
      TMemory* h = rng() % 2 ? change(k) : Get(&m, k);
      ASSERT_EQ(m.CHDetachChunk(h), 0);
      delete h;
    } else if (op < 90) {
      const Key k = pick();
      const bool lazy = rng() % 4 == 0;  // fetched empty, then loaded
      m.CHSetLoad(!lazy);
      TMemory* h = Get(&m, k);
      m.CHSetLoad(1);
      ASSERT_NE(h, nullptr);
      ASSERT_EQ(lazy ? m.CHLoadChunk(h) : 0, 0);
      ASSERT_EQ(Plain(h), cur[k]);
    } else if (op < 96) {
      ASSERT_EQ(op < 93 ? m.CHSave() : m.CHQuickSave(), 0);
      ASSERT_EQ(m.CHVerify(), 0);
      saved = cur;
      ++saves;
      if (saves % 4 == 0) {
        ASSERT_EQ(Reopened(), saved);
      }
    } else if (op < 98) {
      ASSERT_EQ(m.CHRevert(), 0);
      cur = saved;
    } else {
      m.CHClose();
      ASSERT_EQ(m.CHOpen(&loc_, 3), 0);
      cur = saved;
      ASSERT_EQ(ReadChunks(&m), cur);
    }
    most = std::max(most, cur.size());
  }
  EXPECT_EQ(ReadChunks(&m), cur);
  EXPECT_GT(most, 1500u);
  EXPECT_GT(saves, 100);
}

// The paths where the documented algorithms lose a document, each a short
// sequence of calls: the safe result, its line, and every chunk's exact
// bytes after a save and a reopen.
TEST_F(Chunks, UnsafePathsKeepEveryDocumentWhole) {
  struct Row {
    const char* name;
    std::function<void(ChunkManager&, Content&)> run;
  };
  const auto patched = [&](std::size_t at, long long v, int n, bool fixHash) {
    return Patched(ReadHost(Host(u"C:\\store.chk")), at, v, n, fixHash);
  };
  // Map entry e's field at `field`, in the saved store whose map is at 1216
  // (chunks at 512, 580 and 1144).
  const auto entry = [&](int e, int field, long long v, int n) {
    return patched(1216 + 64 + 48 * e + field, v, n, true);
  };
  const std::string invalid = "chDoOpen: invalid file, ", badMap = "chReadMap: bad map";
  const std::vector<Row> rows = {
      {"duplicate of a dirty chunk",
       [&](ChunkManager& m, Content& c) {
         TMemory* h = Get(&m, {kA, 1});
         SetBytes(h, "changed in memory");
         ASSERT_EQ(m.CHChangedChunk(h), 0);
         EXPECT_EQ(m.CHDuplicate(kA, 1, 9), 0);
         EXPECT_TRUE(Logged(519, "CHDuplicateChunk: source is dirty, copying its handle"));
         c[{kA, 1}] = c[{kA, 9}] = "changed in memory";
       }},
      {"empty dirty chunk",
       [&](ChunkManager& m, Content& c) {
         TMemory* h = new TMemory(1);
         ASSERT_EQ(m.CHAddChunk(h, kA, 3), 0);
         EXPECT_EQ(Get(&m, {kA, 3}), h);
         EXPECT_EQ(h->GetSize(), 0u);
         EXPECT_TRUE(Logged(519, "CHLoadChunk: chunk is dirty, its handle holds its contents"));
         c[{kA, 3}] = "";
       }},
      {"detaching a dirty chunk",
       [&](ChunkManager& m, Content& c) {
         TMemory* h = Get(&m, {kA, 2});
         SetBytes(h, "TWO");
         ASSERT_EQ(m.CHChangedChunk(h), 0);
         EXPECT_EQ(m.CHDetachChunk(h), 0);
         delete h;
         EXPECT_TRUE(Logged(519, "CHDetachChunk: stored dirty chunk before detaching"));
         EXPECT_EQ(Plain(Get(&m, {kA, 2})), "TWO");
         c[{kA, 2}] = "TWO";
       }},
      {"a save that fails part-way",
       [&](ChunkManager& m, Content& c) {
         const Content before = c;
         TMemory* h = Get(&m, {kA, 1});
         h->SetSize(0);  // everything after it moves down
         ASSERT_EQ(m.CHChangedChunk(h), 0);
         Add(&m, {kA, 5}, std::string(3000, 'f'), &c);
         c[{kA, 1}] = "";
         UFailCall(UCall::kWriteFile, 6, 112);
         EXPECT_EQ(m.CHSave(), kErrDiskFull);
         EXPECT_TRUE(Logged(517, "CHSave: save failed, file rolled back, "));
         EXPECT_EQ(Reopened(), before);
       }},
      {"a granule that does not divide 512, of 0, or beyond the move buffer",
       [&](ChunkManager&, Content&) {
         for (const int g : {3, 0, 1024, -4}) Refused(patched(36, g, 4, false), -643, invalid);
       }},
      {"a map whose hash is right and whose entries are not",
       [&](ChunkManager&, Content&) {
         Refused(entry(1, 24, 1000, 8), -642, badMap);  // slack beyond the extent
         Refused(entry(0, 0, 0, 4), -644, "chMapCheck: invalid type sequence");  // type 0
         Refused(entry(3, 8, 2, 8), -644, "chMapCheck: invalid map termination");
         Refused(patched(16, 40, 8, false), -642, badMap);    // smaller than a chunk header
         Refused(patched(8, 1500, 8, false), -642, badMap);   // the map runs past the file
         Refused(patched(8, -1216, 8, false), -642, badMap);  // before the first chunk
       }},
      {"free space is not a chunk",
       [&](ChunkManager& m, Content& c) {
         TMemory* h = Get(&m, {kA, 2});
         ASSERT_EQ(m.CHRemoveChunk(h), 0);
         c.erase({kA, 2});
         for (const int type : {-1, 0}) {
           TMemory* got = nullptr;
           EXPECT_EQ(m.CHGetChunk(type, 564, &got), kErrChunkDuplicate);  // the freed extent
           EXPECT_EQ(got, nullptr);
           EXPECT_EQ(m.CHCountChunks(type), 0);
         }
         EXPECT_TRUE(Logged(515, "CHGetChunk: invalid type \xC3\xBF\xC3\xBF\xC3\xBF\xC3\xBF"));
         EXPECT_EQ(m.CHAddChunk(h, -1, 5), kErrChunkDuplicate);
         TMemory* one = Get(&m, {kA, 1});
         EXPECT_EQ(m.CHSetInfo(one, -1, 580), kErrChunkDuplicate);
         EXPECT_TRUE(
             Logged(515, "CHSetInfo: can't set negative type, \xC3\xBF\xC3\xBF\xC3\xBF\xC3\xBF"));
         delete h;
       }},
      {"the last id",
       [&](ChunkManager& m, Content& c) {
         Add(&m, {kA, INT_MAX}, "max", &c);
         EXPECT_EQ(m.CHUniqueID(kA, INT_MAX), 0);
         EXPECT_TRUE(Logged(515, "CHUniqueID: no free id at or above 2,147,483,647"));
         EXPECT_EQ(m.CHUniqueID(kA, 1), 3);
         Add(&m, {kA, -1}, "minus one", &c);
         EXPECT_EQ(m.CHUniqueID(kA, -1), 0);
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    WriteHost(Host(u"C:\\store.chk"), "");
    Content c = {{{kA, 1}, "one"}, {{kA, 2}, std::string(500, '2')}, {{kB, 7}, "seven"}};
    {
      ChunkManager m;
      SaveNew(&m, c);
      ClearRecords();
      row.run(m, c);
      EXPECT_EQ(m.CHSave(), 0);
      EXPECT_EQ(m.CHVerify(), 0);
    }
    EXPECT_EQ(Reopened(), c);
  }
}

// Headers that are not a saved chunk file's, and a map chunk that is not a
// map or not the map that was written: refused at open with their lines.
TEST_F(Chunks, DamagedHeadersAreRefusedAtOpen) {
  {
    ChunkManager m;
    SaveNew(&m, {{{kA, 1}, "one"}, {{kA, 2}, "two"}});  // chunks at 512 and 580, the map at 648
  }
  const std::string good = ReadHost(Host(u"C:\\store.chk"));
  const std::string invalid = "chDoOpen: invalid file, ";
  struct Case {
    std::string bytes;
    int code;
    std::string line;  // empty: none at all
  };
  const std::vector<Case> cases = {
      {Patched(good, 0, 0x2E666843, 4), kErrChunkInvalidFile, invalid},  // only byte-swapped
      {Patched(good, 4, 0x0111, 2), kErrChunkInvalidFile, invalid},      // needs a newer reader
      {Patched(good, 32, 0x42616421, 4), kErrChunkNotSaved, "chDoOpen: file was not fully saved"},
      {Patched(good, 16, 0x80000000LL, 8), kErrChunkBadMap, "chReadMap: bad map"},
      {Patched(good, 648, 0x43684D71, 4), kErrChunkBadMap, "chReadMap: bad map"},
      {Patched(good, 713, 0x55, 1), kErrChunkHash, ""},
      {good.substr(0, 100), kErrChunkInvalidFile, invalid},
      {Patched(good, 728, -2, 8, true), kErrChunkBadMap, "chReadMap: bad map"},  // a group head
  };
  for (std::size_t k = 0; k < cases.size(); ++k) {
    SCOPED_TRACE(k);
    Refused(cases[k].bytes, cases[k].code, cases[k].line);
    const std::vector<AssertionSeen> none, map = {{"chunk", 1087, ""}};
    EXPECT_EQ(Assertions(), k == 3 ? map : none);
  }
}

// Every bit of the header sector and of the map flipped (arbitrary bytes
// are the fuzz target's): open and verify answer with codes, fetching gives
// the data or a code, never a crash or a read outside the buffers.
TEST_F(Chunks, CorruptFilesGiveCodes) {
  const Content a = {{{kA, 1}, "one"}, {{kA, 2}, std::string(300, 't')}, {{kB, 3}, "three"}};
  {
    ChunkManager m;
    SaveNew(&m, a);
  }
  const std::string good = ReadHost(Host(u"C:\\store.chk"));
  // Bit flips are made in place: rewriting a whole file each time is slow.
  const std::string badHost = Host(u"C:\\bad.chk");
  WriteHost(badHost, good);
  const auto flip = [&](std::size_t bit) {
    std::FILE* f = std::fopen(badHost.c_str(), "r+b");
    std::fseek(f, static_cast<long>(bit / 8), SEEK_SET);
    const int c = std::fgetc(f);
    std::fseek(f, static_cast<long>(bit / 8), SEEK_SET);
    std::fputc(c ^ (1 << (bit % 8)), f);
    std::fclose(f);
  };
  const auto attempt = [&](std::size_t bit) {
    ChunkManager m;
    TFileLoc bad = FileAt(u"C:\\bad.chk");
    const int rc = m.CHOpen(&bad, 1);
    if (bit < 512 * 8) {
      const std::size_t at = bit / 8;
      if (at >= 48) {
        EXPECT_EQ(rc, 0) << bit;  // the reserved words and the sector's rest
      } else if (at >= 32 && at < 36) {
        EXPECT_EQ(rc, kErrChunkNotSaved) << bit;
      }
    } else if (bit >= (good.size() - 3 * 48 - 64 + 48) * 8 &&
               bit < (good.size() - 3 * 48 - 64 + 52) * 8) {
      EXPECT_EQ(rc, kErrChunkHash) << bit;  // the map's own hash
    }
    if (rc != 0) return;
    EXPECT_TRUE(m.CHVerify() == 0 || m.CHVerify() == kErrChunkMapCheck);
    for (int t = 1; t <= m.CHCountTypes(); ++t) {
      for (int n = 1; n <= m.CHCountChunks(m.CHEnumType(t)); ++n) {
        TMemory* h = nullptr;
        const int r = m.CHGetChunk(m.CHEnumType(t), m.CHEnumChunk(m.CHEnumType(t), n), &h);
        EXPECT_TRUE(r == 0 || r == kErrChunkHash || r == kErrInvalidData) << r;
      }
    }
  };
  const std::size_t mapAt = good.size() - 4 * 48 - 64;  // the map: 4 entries
  for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
    if (bit >= 512 * 8 && bit < mapAt * 8) continue;
    flip(bit);
    attempt(bit);
    flip(bit);
  }
  // A flipped data bit: that chunk alone gives -641, unless its stored hash
  // is 0 (not checked): then it reads the flipped bytes.
  for (const auto& [key, bytes] : a) {
    for (const bool unchecked : {false, true}) {
      SCOPED_TRACE(testing::Message() << key.second << " " << unchecked);
      std::int64_t offset = 0, size = 0;
      {
        ChunkManager m;
        ASSERT_EQ(m.CHOpen(&loc_, 1), 0);
        ASSERT_EQ(m.CHPhysInfo(key.first, key.second, &offset, &size), 0);
      }
      std::string s = good;
      s[static_cast<std::size_t>(offset + size / 2)] ^= 0x10;
      if (unchecked) std::memset(&s[static_cast<std::size_t>(offset - 64 + 48)], 0, 4);
      std::remove(badHost.c_str());
      WriteHost(badHost, s);
      Content expect = a;
      expect[key][static_cast<std::size_t>(size / 2)] ^= 0x10;
      ChunkManager m;
      TFileLoc bad = FileAt(u"C:\\bad.chk");
      ASSERT_EQ(m.CHOpen(&bad, 1), 0);
      for (const auto& [k, want] : expect) {
        TMemory* h = nullptr;
        const int r = m.CHGetChunk(k.first, k.second, &h);
        EXPECT_EQ(r, k == key && !unchecked ? kErrChunkHash : 0);
        EXPECT_EQ(h ? Plain(h) : "", r == 0 ? want : "");
      }
    }
  }
}

// A full disk or an I/O error at each call of a save: the code reaches the
// caller, the file still holds the last saved state, the store keeps its
// changes and a save without the fault then writes them.
TEST_F(Chunks, FaultsDuringASaveLeaveTheLastSavedState) {
  struct Fault {
    UCall call;
    unsigned winerr;
  };
  const Fault faults[] = {{UCall::kWriteFile, 112},         {UCall::kWriteFile, 1117},
                          {UCall::kReadFile, 23},           {UCall::kSetEndOfFile, 112},
                          {UCall::kFlushFileBuffers, 1117}, {UCall::kCreateFile, 5},
                          {UCall::kDeleteFile, 32}};
  for (const bool quick : {false, true}) {
    for (const Fault& f : faults) {
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << quick << " " << static_cast<int>(f.call) << " " << nth);
        WriteHost(Host(u"C:\\store.chk"), "");
        Content a, b;
        ChunkManager m;
        Scripted(&m, &a, &b);
        UFailCall(f.call, nth, f.winerr);
        const int rc = quick ? m.CHQuickSave() : m.CHSave();
        UClearFaults();
        if (rc == 0) {
          EXPECT_EQ(Reopened(), b);
          break;
        }
        EXPECT_EQ(rc, MapWindowsError(f.winerr));
        EXPECT_EQ(Reopened(), a);
        ASSERT_EQ(quick ? m.CHQuickSave() : m.CHSave(), 0);
        ASSERT_EQ(Reopened(), b);
      }
    }
  }
}

// A crash at every I/O of a save, of a quick save and of a save that fails
// part-way (and rolls back): every file a crash can leave there opens in
// exactly the old saved state or exactly the new one.
TEST_F(Chunks, CrashAtEveryIoLeavesTheOldOrTheNewState) {
  struct Mode {
    const char* name;
    bool quick;
    int failAt;  // the WriteFile that fails, 0 for none
  };
  int journals[3] = {};
  for (const Mode& mode : {Mode{"CHSave", false, 0}, Mode{"CHQuickSave", true, 0},
                           Mode{"a failing CHSave", false, 14}}) {
    SCOPED_TRACE(mode.name);
    WriteHost(Host(u"C:\\store.chk"), "");
    Content a, b;
    ChunkManager m;
    Scripted(&m, &a, &b);
    ASSERT_EQ(UDiskRecord(u"C:\\"), 1);
    if (mode.failAt) UFailCall(UCall::kWriteFile, mode.failAt, 112);
    const int rc = mode.quick ? m.CHQuickSave() : m.CHSave();
    UClearFaults();
    ASSERT_EQ(UDiskRecord(nullptr), 1);
    ASSERT_EQ(rc, mode.failAt ? kErrDiskFull : 0);
    const int count = UDiskIoCount();
    bool sawNew = false;
    for (int io = 0; io <= count; ++io) {
      for (int image = 0; image < UDiskCrashImages(io); ++image) {
        SCOPED_TRACE(testing::Message() << "io " << io << " image " << image);
        ASSERT_EQ(UDiskBuildCrash(io, image, u"D:\\"), 1);
        CHJournalInfo journal;
        const TFileLoc crashed = FileAt(u"D:\\store.chk");
        ASSERT_EQ(chJournalQuery(&crashed, &journal), 0);
        ++journals[journal.state];
        int opened = 0;
        const Content c = Reopened(u"D:\\store.chk", &opened);
        ASSERT_EQ(opened, 0);
        ASSERT_FALSE(HostExists(Host(u"D:\\store.chk-journal")));
        ASSERT_TRUE(c == a || (c == b && !mode.failAt));
        sawNew = sawNew || (c == b && io == count);
      }
    }
    EXPECT_EQ(sawNew, !mode.failAt);
    m.CHClose();
  }
  UDiskReset();
  EXPECT_GT(journals[1], 0);  // rolled back
  EXPECT_GT(journals[2], 0);  // torn, ignored
}

// CHTruncate writes the store compacted into another file, every chunk with
// a fresh header from its map entry; CHAppend writes the same image after
// the file's own bytes, from its end rounded up to 512, with every address
// an offset in that file.
TEST_F(Chunks, TruncateAndAppendCopyTheStore) {
  Content a, b;
  ChunkManager m;
  Scripted(&m, &a, &b);
  ASSERT_EQ(m.CHQuickSave(), 0);  // keeps free space, which the copies leave out
  WriteHost(Host(u"C:\\copy.chk"), "left over");
  WriteHost(Host(u"C:\\host.bin"), std::string(700, 'j'));
  TFileLoc copyAt = FileAt(u"C:\\copy.chk"), hostAt = FileAt(u"C:\\host.bin");
  TFile copy, host;
  ASSERT_EQ(copy.Open(&copyAt, 3), 0);
  ASSERT_EQ(host.Open(&hostAt, 3), 0);
  ASSERT_EQ(m.CHTruncate(&copy), 0);
  ASSERT_EQ(m.CHAppend(&host), 0);
  copy.Close();
  host.Close();
  EXPECT_EQ(Reopened(u"C:\\copy.chk"), b);
  const std::string image = ReadHost(Host(u"C:\\copy.chk"));
  {
    ChunkManager r;
    ASSERT_EQ(r.CHOpen(&copyAt, 1), 0);
    std::map<std::int64_t, std::int64_t> extents;
    for (int n = 0; n < r.CHCountEntries(); ++n) {
      CHEntryInfo info;
      ASSERT_EQ(r.CHGetEntry(n, &info), 0);
      ASSERT_NE(info.entry.type, kChunkFreeType);
      if (info.head) continue;
      extents[info.entry.address] = info.extent;
      CHChunkHeader h;
      chGetChunkHeader(reinterpret_cast<const unsigned char*>(&image[info.entry.address]), 0, &h);
      EXPECT_EQ(h.type, info.entry.type);
      EXPECT_EQ(h.id, info.entry.id);
      EXPECT_EQ(h.size, info.extent);
      EXPECT_EQ(h.slack, info.entry.slack);
    }
    std::int64_t at = 512;  // back to back
    for (const auto& [address, extent] : extents) {
      EXPECT_EQ(address, at);
      at += extent;
    }
  }
  // The appended image, its addresses taken back by 1024, is the copy.
  std::string appended = ReadHost(Host(u"C:\\host.bin"));
  EXPECT_EQ(appended.substr(0, 1024), std::string(700, 'j') + std::string(324, '\0'));
  appended.erase(0, 1024);
  ASSERT_EQ(appended.size(), image.size());
  CHFileHeader fh;
  std::memcpy(&fh, appended.data(), sizeof fh);
  fh.mapAddress -= 1024;
  fh.endOfData -= 1024;
  fh.firstChunk -= 1024;
  std::memcpy(&appended[0], &fh, sizeof fh);
  const auto count = static_cast<int>((fh.mapSize - 64) / 48);
  std::vector<CHMapEntry> map(static_cast<std::size_t>(count));
  auto* entries = reinterpret_cast<unsigned char*>(&appended[fh.mapAddress + 64]);
  chGetMapEntries(entries, count, 0, map.data());
  for (CHMapEntry& e : map)
    if (e.address != -1) e.address -= 1024;
  chPutMapEntries(map.data(), count, 0, entries);
  const unsigned hash = chHashBlock(entries, count * 48);
  std::memcpy(&appended[fh.mapAddress + 48], &hash, 4);
  EXPECT_EQ(appended, image);
}

// Misuse by the caller: each call refused with its code and its line at 515,
// the store unchanged.
TEST_F(Chunks, MisuseGetsItsCodeAndLine) {
  Content c = {{{kA, 0x31313131}, "one"}, {{kA, 0x32323232}, "two"}};
  ChunkManager m;
  SaveNew(&m, c);
  TMemory* dirty = BlockOf("new");
  ASSERT_EQ(m.CHAddChunk(dirty, kB, 0x33333333), 0);
  c[{kB, 0x33333333}] = "new";
  TMemory stray(1);
  std::int64_t offset = 0, size = 0;
  const std::string notAChunk = "handle doesn't refer to a chunk";
  struct Row {
    std::function<int()> call;
    int code;
    std::string line;
  };
  const std::vector<Row> rows = {
      {[&] { return m.CHLoadChunk(&stray); }, -647, "CHLoadChunk: " + notAChunk + ", "},
      {[&] { return m.CHDetachChunk(&stray); }, -647, "CHDetachChunk: " + notAChunk + ", "},
      {[&] { return m.CHGetInfo(&stray, nullptr, nullptr); }, -647,
       "CHGetInfo: " + notAChunk + ", "},
      {[&] { return m.CHSetInfo(&stray, kA, 5); }, -647, "CHSetInfo: " + notAChunk},
      {[&] { return m.CHRemoveChunk(&stray); }, -649, "CHRemoveChunk: " + notAChunk},
      {[&] { return m.CHChangedChunk(&stray); }, -647, "CHChangedChunk: " + notAChunk},
      {[&] { return m.CHStoreChunk(&stray); }, -647, "CHStoreChunk: " + notAChunk},
      {[&] { return static_cast<int>(m.CHChunkSize(kA, 5)); }, -647,
       "CHChunkSize: can't find type/id"},
      {[&] { return m.CHPhysInfo(kA, 5, &offset, &size); }, -647, "CHPhysInfo: can't find type/id"},
      {[&] { return m.CHPhysInfo(kB, 0x33333333, &offset, &size); }, -648,
       "CHPhysInfo: chunk is dirty"},
      {[&] { return m.CHDuplicate(kA, 5, 6); }, -647, "CHDuplicateChunk: can't find type/id"},
      {[&] { return m.CHDuplicate(kA, 0x31313131, 0x32323232); }, -646,
       "chMapInsert: duplicate ID, type AAAA, id = 2222"},
      {[&] { return m.CHSetInfo(dirty, kA, 0x31313131); }, -646,
       "chMapInsert: duplicate ID, type AAAA, id = 1111"},
      {[&] { return m.CHSetInfo(dirty, 0, 1); }, -646, "CHSetInfo: can't set negative type, 7777"},
      {[&] { return m.CHAddChunk(dirty, kC, 9); }, -646,
       "CHAddChunk: invalid type CCCC or handle already refers to a chunk"},
  };
  for (std::size_t k = 0; k < rows.size(); ++k) {
    SCOPED_TRACE(k);
    ClearRecords();
    EXPECT_EQ(rows[k].call(), rows[k].code);
    EXPECT_EQ(LoggedLines(), (std::vector<LogLine>{{515, "", rows[k].line}}));
  }
  ASSERT_EQ(m.CHSave(), 0);
  EXPECT_EQ(Reopened(), c);
}
