#include "quarnel/platform/fileapi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/testchild.h"
#include "tests/support/drive_fixture.h"
#include "tests/support/helpers.h"
#include "tests/support/path_text.h"
#include "tests/support/platform_cases.h"

namespace {

using FileApi = DriveTest;

// The Windows error a call leaves (0 when it succeeded).
template <class F>
unsigned ErrorOf(F call) {
  USetLastError(0);
  return call() ? 0u : UGetLastError();
}

UHANDLE Open(const std::u16string& path, unsigned access, unsigned share, unsigned disposition,
             unsigned flags = 0) {
  return UCreateFile(path.c_str(), access, share, disposition, flags);
}

unsigned OpenError(const std::u16string& path, unsigned access, unsigned disposition,
                   unsigned flags = 0, unsigned share = kFileShareRead) {
  USetLastError(0);
  const UHANDLE h = Open(path, access, share, disposition, flags);
  if (h == kInvalidHandleValue) return UGetLastError();
  UCloseHandle(h);
  return 0;
}

// The error a row of file_errors.tsv leaves.
unsigned ErrorOfRow(const std::vector<std::string>& r) {
  const std::u16string p = ExpandPath(r[3]), q = r.size() > 4 ? ExpandPath(r[4]) : u"";
  const std::string& call = r[2];
  if (call == "open") {
    std::istringstream words(r[4]);
    std::string access, disposition, flags;
    words >> access >> disposition >> flags;
    const std::map<std::string, unsigned> dispositions = {
        {"existing", kOpenExisting}, {"always", kCreateAlways}, {"new", kCreateNew}, {"9", 9}};
    return OpenError(p, access == "r" ? kGenericRead : kGenericWrite, dispositions.at(disposition),
                     flags == "backup" ? unsigned{kFileFlagBackupSemantics} : 0u);
  }
  UWIN32_FIND_DATAW found;
  return ErrorOf([&] {
    if (call == "mkdir") return UCreateDirectory(p.c_str()) != 0;
    if (call == "rmdir") return URemoveDirectory(p.c_str()) != 0;
    if (call == "delete") return UDeleteFile(p.c_str()) != 0;
    if (call == "move") return UMoveFile(p.c_str(), q.c_str()) != 0;
    if (call == "copy" || call == "copy-new")
      return UCopyFile(p.c_str(), q.c_str(), call == "copy-new") != 0;
    if (call == "find") return UFindFirstFile(p.c_str(), &found) != kInvalidHandleValue;
    return UGetFileAttributes(p.c_str()) != kInvalidFileAttributes;
  });
}

}  // namespace

// The error numbers Windows gives for failing file calls, one row per
// recorded case.
TEST_F(FileApi, FailingCallsGiveWindowsErrorNumbers) {
  WriteHost(Host(u"C:\\src.txt"), "source");
  WriteHost(Host(u"C:\\dst.txt"), "dest");
  WriteHost(Host(u"C:\\ro.txt"), "read-only");
  ASSERT_TRUE(USetFileAttributes(u"C:\\ro.txt", kFileAttributeReadOnly));
  MakeHostFolder(Host(u"C:\\exists"));
  MakeHostFolder(Host(u"C:\\full\\inner"));
  MakeHostFolder(Host(ExpandPath("C:\\{d*50}\\{d*100}\\{d*150}")));
  // The rows where Wine does not answer as Windows does.
  const std::map<std::string, const char*> wineDiffers = {
      {": in name (create)",
       "Wine makes a file named a:b where Windows makes the stream b of a file a"},
      {"component over 255", "Wine answers 2 for a component over 255"},
      {"read-only for writing", kWineRootWritesReadOnly},
      {"CopyFile onto read-only", kWineRootWritesReadOnly},
      {"unmapped drive", "Wine answers 2 for a drive it does not have"},
  };
  const auto rows = ReadTsv("file_errors.tsv");
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const auto wine = wineDiffers.find(row[0]);
    if (wine != wineDiffers.end() && WineDiffers(wine->second)) continue;
    EXPECT_EQ(ErrorOfRow(row), std::stoul(row[1]));
  }
  EXPECT_EQ(UGetFileAttributes(u"C:\\ro.txt"), 0x21u);  // the copy left it as it was
  EXPECT_EQ(ReadHost(Host(u"C:\\ro.txt")), "read-only");
  EXPECT_EQ(ErrorOf([] {
              return UCreateFile(nullptr, kGenericRead, 0, kOpenExisting, 0) != kInvalidHandleValue;
            }),
            87u);
}

// Sharing follows Windows' rule across handles: an open succeeds only when
// no earlier handle denies the access it asks for, and it denies no access
// an earlier handle holds. Random opens and closes against that model.
TEST_F(FileApi, SharingFollowsTheWindowsRuleAcrossHandles) {
  WriteHost(Host(u"C:\\shared.bin"), "x");
  struct Held {
    UHANDLE h;
    unsigned access, share;
  };
  std::vector<Held> held;
  std::mt19937 rng(11);
  const unsigned accessOf[] = {kGenericRead, kGenericWrite, kGenericRead | kGenericWrite,
                               kDeleteAccess, 0};
  const unsigned bitsOf[] = {1, 2, 3, 4, 0};
  int refused = 0, granted = 0;
  for (int step = 0; step < 400; ++step) {
    if (!held.empty() && rng() % 3 == 0) {
      const std::size_t i = rng() % held.size();
      ASSERT_TRUE(UCloseHandle(held[i].h));
      held.erase(held.begin() + static_cast<long>(i));
      continue;
    }
    const int a = static_cast<int>(rng() % 5);
    const unsigned share = rng() % 8;
    bool allowed = true;
    for (const Held& o : held) {
      if (bitsOf[a] == 0 || o.access == 0) continue;
      if ((bitsOf[a] & ~o.share) || (o.access & ~share)) allowed = false;
    }
    SCOPED_TRACE(testing::Message()
                 << "step " << step << " access " << bitsOf[a] << " share " << share);
    const UHANDLE h = Open(u"C:\\SHARED.bin", accessOf[a], share, kOpenExisting);
    EXPECT_EQ(h != kInvalidHandleValue, allowed);
    if (h != kInvalidHandleValue) {
      held.push_back({h, bitsOf[a], share});
      ++granted;
    } else {
      EXPECT_EQ(UGetLastError(), 32u);
      ++refused;
    }
  }
  for (const Held& o : held) UCloseHandle(o.h);
  EXPECT_GT(refused, 20);
  EXPECT_GT(granted, 20);
  // Delete and move need delete access: refused while a handle denies it.
  const UHANDLE h = Open(u"C:\\shared.bin", kGenericRead, kFileShareRead, kOpenExisting);
  EXPECT_EQ(ErrorOf([] { return UDeleteFile(u"C:\\shared.bin"); }), 32u);
  EXPECT_EQ(ErrorOf([] { return UMoveFile(u"C:\\shared.bin", u"C:\\moved.bin"); }), 32u);
  UCloseHandle(h);
  EXPECT_EQ(ErrorOf([] { return UDeleteFile(u"C:\\shared.bin"); }), 0u);
}

// A second process holding the file for writing: a reader that denies
// writing is refused, one that shares writing gets in; a second writer is
// refused.
TEST_F(FileApi, SharingHoldsAgainstAnotherProcess) {
  WriteHost(Host(u"C:\\log.txt"), "line\n");
  UTestChild child;
  ASSERT_EQ(child.Start(
                [](void*) {
                  const UHANDLE h =
                      UCreateFile(u"C:\\log.txt", kGenericWrite, kFileShareRead, kOpenExisting, 0);
                  return h != kInvalidHandleValue ? 1 : 0;  // held until released
                },
                nullptr),
            1);
  EXPECT_EQ(OpenError(u"C:\\log.txt", kGenericRead, kOpenExisting, 0, kFileShareRead), 32u);
  EXPECT_EQ(
      OpenError(u"C:\\log.txt", kGenericRead, kOpenExisting, 0, kFileShareRead | kFileShareWrite),
      0u);
  EXPECT_EQ(
      OpenError(u"C:\\log.txt", kGenericWrite, kOpenExisting, 0, kFileShareRead | kFileShareWrite),
      32u);
  child.Release();
  EXPECT_EQ(OpenError(u"C:\\log.txt", kGenericWrite, kOpenExisting), 0u);
}

TEST_F(FileApi, NamesMatchIgnoringCaseAndKeepTheCaseGiven) {
  MakeHostFolder(Host(u"C:\\Data\\Sub"));
  WriteHost(Host(u"C:\\Data\\Sub\\Data.TXT"), "payload");
  const UHANDLE h = Open(u"C:\\data\\SUB\\data.txt", kGenericRead, kFileShareRead, kOpenExisting);
  ASSERT_NE(h, kInvalidHandleValue);  // the one file there, spelt otherwise
  UCloseHandle(h);
  // A new name keeps the case given, in the folder as the disk spells it.
  const UHANDLE c = Open(u"C:\\DATA\\sub\\New.Txt", kGenericWrite, 0, kCreateNew);
  ASSERT_NE(c, kInvalidHandleValue);
  UCloseHandle(c);
  EXPECT_TRUE(HostExists(Host(u"C:\\Data\\Sub\\New.Txt")));
  // CREATE_ALWAYS reaches the file already there, in any case.
  const UHANDLE t = Open(u"C:\\data\\sub\\DATA.txt", kGenericWrite, 0, kCreateAlways);
  ASSERT_NE(t, kInvalidHandleValue);
  EXPECT_EQ(UGetLastError(), 183u);
  UCloseHandle(t);
  EXPECT_EQ(ReadHost(Host(u"C:\\Data\\Sub\\Data.TXT")), "");
  // A rename to a new spelling of the same name renames in place.
  EXPECT_TRUE(UMoveFile(u"C:\\data\\sub\\data.txt", u"C:\\Data\\Sub\\DATA.txt"));
  if (!WineDiffers("Wine keeps the old spelling of a name renamed to another case")) {
    EXPECT_TRUE(HostExists(Host(u"C:\\Data\\Sub\\DATA.txt")));
    EXPECT_FALSE(HostExists(Host(u"C:\\Data\\Sub\\Data.TXT")));
  }
  // Names created behind the library's back are found too.
  WriteHost(Host(u"C:\\Data\\Sub\\Late.Bin"), "");
  EXPECT_NE(UGetFileAttributes(u"C:\\DATA\\SUB\\LATE.BIN"), kInvalidFileAttributes);
}

TEST_F(FileApi, FindMatchesWildcardsAndGivesShortNames) {
  MakeHostFolder(Host(u"C:\\find"));
  for (const char* n : {"a.txt", "ab.txt", "abc", "b.TXT", ".hidden", "x.tar.gz"})
    WriteHost(Host(u"C:\\find\\") + "/" + n, "");
  const bool wine =
      WineDiffers("Wine makes short names from a hash and takes a trailing dot as any extension");
  const auto rows = ReadTsv("find_patterns.tsv");
  for (const auto& f : rows) {
    SCOPED_TRACE(f[0] + " " + f[1]);
    if (f[0] == "ATTR") {
      EXPECT_EQ(UGetFileAttributes((u"C:\\find\\" + Utf16(f[1])).c_str()),
                std::stoul(f[2], nullptr, 16));
      continue;
    }
    if (wine && f[1].back() == '.') continue;
    UWIN32_FIND_DATAW d;
    const UHANDLE h = UFindFirstFile((u"C:\\find\\" + Utf16(f[1])).c_str(), &d);
    std::vector<std::pair<std::string, std::string>> found;
    if (h == kInvalidHandleValue) {
      EXPECT_EQ(std::to_string(UGetLastError()), f[5]);
    } else {
      do found.emplace_back(Utf8(d.cFileName), Utf8(d.cAlternateFileName));
      while (UFindNextFile(h, &d));
      EXPECT_EQ(UGetLastError(), 18u);
      UFindClose(h);
    }
    std::sort(found.begin(), found.end());
    std::string names, alts;
    for (std::size_t i = 0; i < found.size(); ++i) {
      names += (i ? " | " : "") + found[i].first;
      alts += (i ? " | " : "") + found[i].second;
    }
    EXPECT_EQ(std::to_string(found.size()), f[2]);
    EXPECT_EQ(names, f.size() > 3 ? f[3] : "");
    if (!wine) {
      EXPECT_EQ(alts, f.size() > 4 ? f[4] : "");
    }
  }
  // 8.3 names that clash in the folder take the next number.
  for (const char* n : {"LongFileName1.txt", "LongFileName2.txt", "LongFileName3.txt"})
    WriteHost(Host(u"C:\\find\\") + "/" + n, "");
  UWIN32_FIND_DATAW d;
  if (!wine) {
    const UHANDLE h = UFindFirstFile(u"C:\\find\\LONGFI~3.TXT", &d);
    ASSERT_NE(h, kInvalidHandleValue);
    EXPECT_EQ(Utf8(d.cFileName), "LongFileName3.txt");
    UFindClose(h);
    const UHANDLE one = UFindFirstFile(u"C:\\find\\longfilename2.TXT", &d);
    ASSERT_NE(one, kInvalidHandleValue);
    EXPECT_EQ(Utf8(d.cAlternateFileName), "LONGFI~2.TXT");
    UFindClose(one);
  }
  // In a crowded folder every 8.3 name is unique and reaches its file.
  MakeHostFolder(Host(u"C:\\crowd"));
  for (int i = 0; i < 1200; ++i)
    WriteHost(HostOf('C') + "/crowd/longname" + std::to_string(i) + ".txt", "");
  std::set<std::string> alts;
  const UHANDLE all = UFindFirstFile(u"C:\\crowd\\*", &d);
  ASSERT_NE(all, kInvalidHandleValue);
  do {
    const std::u16string alt = d.cAlternateFileName;
    if (alt.empty()) continue;  // "." and ".."
    ASSERT_LE(alt.size(), 12u);
    EXPECT_TRUE(alts.insert(Utf8(alt)).second) << Utf8(alt);
    UWIN32_FIND_DATAW byShort;
    const UHANDLE one = UFindFirstFile((u"C:\\crowd\\" + alt).c_str(), &byShort);
    ASSERT_NE(one, kInvalidHandleValue);
    EXPECT_EQ(Utf8(byShort.cFileName), Utf8(d.cFileName));
    UFindClose(one);
  } while (UFindNextFile(all, &d));
  UFindClose(all);
  EXPECT_EQ(alts.size(), 1200u);
  if (!wine) {
    EXPECT_EQ(alts.count("LONGNA~1.TXT"), 1u);
  }
  // A root lists no "." or ".." (on Windows a letter aliased to a folder lists
  // the folder's).
  if (kOnWindows) return;
  const UHANDLE root = UFindFirstFile(u"D:\\*.*", &d);
  EXPECT_EQ(root, kInvalidHandleValue);
  EXPECT_EQ(UGetLastError(), 2u);
}

TEST_F(FileApi, PositionsAreSixtyFourBitsWide) {
  const UHANDLE h = Open(u"C:\\big.bin", kGenericRead | kGenericWrite, 0, kCreateAlways);
  ASSERT_NE(h, kInvalidHandleValue);
  std::int32_t high = 1;  // 4 GiB + 0xFFFFFFFF: a low half of all ones
  USetLastError(99);
  EXPECT_EQ(USetFilePointer(h, -1, &high, kFileBegin), 0xFFFFFFFFu);
  EXPECT_EQ(UGetLastError(), 0u);
  EXPECT_EQ(high, 1);
  unsigned n = 0;
  EXPECT_TRUE(UWriteFile(h, "z", 1, &n));
  high = 0;
  EXPECT_EQ(USetFilePointer(h, 0, &high, kFileEnd), 0u);
  EXPECT_EQ(high, 2);
  high = -1;  // two's complement: 4 GiB + 1 back from the end... before the start
  EXPECT_EQ(USetFilePointer(h, 0, &high, kFileCurrent), 0u);
  EXPECT_EQ(high, 1);
  high = -2;
  EXPECT_EQ(USetFilePointer(h, 0, &high, kFileCurrent), kInvalidSetFilePointer);
  EXPECT_EQ(UGetLastError(), 131u);
  high = 0;
  EXPECT_EQ(USetFilePointer(h, 10, &high, kFileBegin), 10u);
  EXPECT_TRUE(USetEndOfFile(h));
  UBY_HANDLE_FILE_INFORMATION info;
  ASSERT_TRUE(UGetFileInformationByHandle(h, &info));
  EXPECT_EQ(info.nFileSizeLow, 10u);
  EXPECT_EQ(info.nFileSizeHigh, 0u);
  EXPECT_EQ(info.dwFileAttributes, 0x20u);
  EXPECT_EQ(info.nNumberOfLinks, 1u);
  EXPECT_TRUE(UCloseHandle(h));
  EXPECT_EQ(ErrorOf([&] { return UCloseHandle(h); }), 6u);  // a closed handle is refused
  EXPECT_EQ(ErrorOf([] { return UCloseHandle(reinterpret_cast<UHANDLE>(0x12345)); }), 6u);
}

// Positioned reads and writes of scattered pieces against a model of the
// file's bytes; a read past the end comes back short.
TEST_F(FileApi, PositionedCallsScatterAndGatherPieces) {
  const UHANDLE h = Open(u"C:\\at.bin", kGenericRead | kGenericWrite, 0, kCreateAlways);
  ASSERT_NE(h, kInvalidHandleValue);
  std::mt19937 rng(7);
  std::string model;
  for (int step = 0; step < 300; ++step) {
    const std::uint64_t at = rng() % (model.size() + 40);
    std::vector<std::string> pieces(1 + rng() % 4);
    std::vector<UFileSpan> spans;
    for (std::string& p : pieces) {
      p.assign(rng() % 30, '\0');
      for (char& c : p) c = static_cast<char>('a' + rng() % 26);
      spans.push_back(UFileSpan{p.data(), static_cast<unsigned>(p.size())});
    }
    const auto count = static_cast<int>(spans.size());
    unsigned done = 0;
    if (rng() % 2) {
      const std::string all = std::accumulate(pieces.begin(), pieces.end(), std::string());
      ASSERT_TRUE(UWriteFileAt(h, spans.data(), count, at, &done));
      ASSERT_EQ(done, all.size());
      if (all.empty()) continue;
      if (model.size() < at + all.size()) model.resize(at + all.size(), '\0');
      model.replace(at, all.size(), all);
    } else {
      ASSERT_TRUE(UReadFileAt(h, spans.data(), count, at, &done));
      std::string got;
      for (const std::string& p : pieces) got += p;
      ASSERT_EQ(done, at < model.size() ? std::min(got.size(), model.size() - at) : 0u);
      if (done > 0) {
        ASSERT_EQ(got.substr(0, done), model.substr(at, done));
      }
    }
  }
  UFileSpan many[kUFileSpansMax + 1] = {};
  unsigned done = 0;
  EXPECT_EQ(ErrorOf([&] { return UReadFileAt(h, many, kUFileSpansMax + 1, 0, &done); }), 87u);
  many[0].count = 1;
  EXPECT_EQ(ErrorOf([&] { return UWriteFileAt(h, many, 1, 0, &done); }), 998u);
  EXPECT_EQ(UStartWriteBack(h, 0, model.size()), 1);
  EXPECT_EQ(ErrorOf([&] { return UStartWriteBack(kInvalidHandleValue, 0, 1); }), 6u);
  UCloseHandle(h);
  EXPECT_EQ(ReadHost(Host(u"C:\\at.bin")), model);
}

TEST_F(FileApi, AccessOfAHandleLimitsWhatItDoes) {
  WriteHost(Host(u"C:\\r.txt"), "abc");
  const UHANDLE r = Open(u"C:\\r.txt", kModeRead, kFileShareRead, kOpenExisting);
  unsigned n = 0;
  EXPECT_EQ(ErrorOf([&] { return UWriteFile(r, "x", 1, &n); }), 5u);
  if (!WineDiffers("Wine answers 87 for SetEndOfFile on a handle without write access")) {
    EXPECT_EQ(ErrorOf([&] { return USetEndOfFile(r); }), 5u);
  }
  EXPECT_EQ(ErrorOf([&] { return UFlushFileBuffers(r); }), 5u);
  UCloseHandle(r);
  // Mode 0x4 falls back to read-only on a read-only file.
  if (WineDiffers(kWineRootWritesReadOnly)) return;
  ASSERT_TRUE(USetFileAttributes(u"C:\\r.txt", kFileAttributeReadOnly));
  const UHANDLE w = Open(u"C:\\r.txt", kModeWriteOrRead | kModeRead, kFileShareRead, kOpenExisting);
  ASSERT_NE(w, kInvalidHandleValue);
  EXPECT_EQ(ErrorOf([&] { return UWriteFile(w, "x", 1, &n); }), 5u);
  UCloseHandle(w);
  EXPECT_EQ(OpenError(u"C:\\r.txt", kModeWrite | kModeRead, kOpenExisting), 5u);
  ASSERT_TRUE(USetFileAttributes(u"C:\\r.txt", 0));
  EXPECT_EQ(UGetFileAttributes(u"C:\\r.txt"), 0x20u);
}

TEST_F(FileApi, DeleteOnCloseRemovesFilesAndEmptyFolders) {
  WriteHost(Host(u"C:\\gone.txt"), "");
  MakeHostFolder(Host(u"C:\\gonedir"));
  MakeHostFolder(Host(u"C:\\fulldir\\x"));
  const unsigned flags = kFileFlagDeleteOnClose | kFileFlagBackupSemantics | kFileAttributeNormal;
  for (const char16_t* p : {u"C:\\gone.txt", u"C:\\gonedir"}) {
    const UHANDLE h = Open(p, kDeleteAccess, kFileShareDelete, kOpenExisting, flags);
    ASSERT_NE(h, kInvalidHandleValue);
    EXPECT_NE(UGetFileAttributes(p), kInvalidFileAttributes);
    EXPECT_TRUE(UCloseHandle(h));
    EXPECT_EQ(UGetFileAttributes(p), kInvalidFileAttributes);
  }
  if (!WineDiffers("Wine opens a folder that is not empty for deleting on close")) {
    EXPECT_EQ(OpenError(u"C:\\fulldir", kDeleteAccess, kOpenExisting, flags, kFileShareDelete),
              145u);
  }
}

TEST_F(FileApi, CopyAndMoveKeepContentAndAttributes) {
  WriteHost(Host(u"C:\\a.bin"), std::string(100000, 'q'));
  ASSERT_TRUE(USetFileAttributes(u"C:\\a.bin", kFileAttributeReadOnly));
  ASSERT_TRUE(UCopyFile(u"C:\\A.BIN", u"D:\\copy.bin", 1));
  EXPECT_EQ(ReadHost(Host(u"D:\\copy.bin")), std::string(100000, 'q'));
  EXPECT_EQ(UGetFileAttributes(u"D:\\copy.bin"), 0x21u);
  UWIN32_FIND_DATAW a, b;
  UFindClose(UFindFirstFile(u"C:\\a.bin", &a));
  UFindClose(UFindFirstFile(u"D:\\copy.bin", &b));
  EXPECT_EQ(UFileTimeTicks(a.ftLastWriteTime), UFileTimeTicks(b.ftLastWriteTime));
  // Moves: a file to another drive, a folder within one.
  ASSERT_TRUE(UMoveFile(u"C:\\a.bin", u"D:\\moved.bin"));
  EXPECT_FALSE(HostExists(Host(u"C:\\a.bin")));
  MakeHostFolder(Host(u"C:\\tree\\leaf"));
  ASSERT_TRUE(UMoveFile(u"C:\\tree", u"C:\\renamed"));
  EXPECT_TRUE(HostExists(Host(u"C:\\renamed\\leaf")));
}

TEST_F(FileApi, TemporaryNamesAreMadeAsWindowsMakesThem) {
  // Under Wine the names compare ignoring case.
  const bool lower = WineDiffers("Wine writes temporary names in lower case");
  auto named = [lower](std::string name) {
    if (lower) {
      for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return name;
  };
  char16_t out[kMaxPath];
  for (const auto& row : ReadTsv("temp_names.tsv")) {
    SCOPED_TRACE(row[3]);
    const std::u16string prefix = Utf16(row[0]);
    EXPECT_EQ(UGetTempFileName(u"C:\\Temp", prefix.c_str(), std::stoul(row[1], nullptr, 16), out),
              std::stoul(row[2], nullptr, 16));
    EXPECT_EQ(named(Utf8(out)), named("C:\\Temp\\" + row[3]));
    EXPECT_EQ(UGetFileAttributes(out), kInvalidFileAttributes);  // not created
  }
  // Unique 0 creates the file, each time a new one.
  const unsigned first = UGetTempFileName(u"C:\\Temp\\", u"qnl", 0, out);
  ASSERT_NE(first, 0u);
  const std::string firstName = Utf8(out);
  EXPECT_NE(UGetFileAttributes(out), kInvalidFileAttributes);
  ASSERT_NE(UGetTempFileName(u"C:\\Temp", u"qnl", 0, out), 0u);
  EXPECT_NE(Utf8(out), firstName);
  char expect[32];
  std::snprintf(expect, sizeof expect, "C:\\Temp\\qnl%X.TMP", first);
  EXPECT_EQ(named(firstName), named(expect));
  EXPECT_EQ(ErrorOf([&] { return UGetTempFileName(u"C:\\Missing", u"abc", 0, out) != 0; }), 267u);
  EXPECT_EQ(ErrorOf([&] { return UGetTempFileName(u"C:\\Missing", u"abc", 0x1234, out) != 0; }),
            267u);
  // The temporary folder is TMP's in Windows form.
  char16_t temp[kMaxPath];
  ASSERT_GT(UGetTempPath(kMaxPath, temp), 0u);
  EXPECT_EQ(Utf8(temp), "C:\\Temp\\");
}

TEST_F(FileApi, CurrentFolderAndFullPaths) {
  MakeHostFolder(Host(u"C:\\Work\\Deep"));
  EXPECT_TRUE(USetCurrentDirectory(u"c:\\work"));
  char16_t buf[kMaxPath];
  EXPECT_EQ(UGetCurrentDirectory(kMaxPath, buf), 7u);
  EXPECT_EQ(Utf8(buf), "C:\\work");
  EXPECT_EQ(UGetCurrentDirectory(3, buf), 8u);  // the size needed
  char16_t* part = nullptr;
  EXPECT_EQ(UGetFullPathName(u"deep\\..\\x.txt", kMaxPath, buf, &part), 13u);
  EXPECT_EQ(Utf8(buf), "C:\\work\\x.txt");
  EXPECT_EQ(Utf8(part), "x.txt");
  EXPECT_NE(UGetFileAttributes(u"Deep"), kInvalidFileAttributes);  // relative to the current folder
  EXPECT_EQ(ErrorOf([] { return USetCurrentDirectory(u"C:\\nowhere"); }), 2u);
  if (kOnWindows) return;  // host paths are the Linux build's
  // Host paths and Windows paths both ways; the longest drive folder wins.
  char host[4096];
  ASSERT_GT(UHostPathFromLoc(u"c:\\WORK\\deep\\new.txt", host, sizeof host), 0);
  EXPECT_EQ(std::string(host), HostOf('C') + "/Work/Deep/new.txt");
  ASSERT_GT(ULocFromHostPath((HostOf('D') + "/x/../y").c_str(), buf, kMaxPath), 0);
  EXPECT_EQ(Utf8(buf), "D:\\y");
  ASSERT_GT(ULocFromHostPath("/usr/lib", buf, kMaxPath), 0);
  EXPECT_EQ(Utf8(buf), "Z:\\usr\\lib");
  EXPECT_EQ(UGetLogicalDrives() & 0x0200000Cu, 0x0200000Cu);  // C:, D: and Z:
}

// Each call that the fault seam can fail fails with the chosen error and
// does nothing.
TEST_F(FileApi, FaultSeamFailsEachCall) {
  WriteHost(Host(u"C:\\f.txt"), "data");
  const UHANDLE h = Open(u"C:\\f.txt", kGenericRead | kGenericWrite, 7, kOpenExisting);
  ASSERT_NE(h, kInvalidHandleValue);
  unsigned n = 0;
  char buf[4];
  UWIN32_FIND_DATAW d;
  UBY_HANDLE_FILE_INFORMATION info;
  struct Row {
    UCall call;
    std::function<bool()> run;
  } rows[] = {
      {UCall::kCreateFile,
       [&] {
         UHANDLE x = Open(u"C:\\f.txt", kGenericRead, 3, kOpenExisting);
         return x != kInvalidHandleValue && UCloseHandle(x);
       }},
      {UCall::kReadFile, [&] { return UReadFile(h, buf, 4, &n) != 0; }},
      {UCall::kWriteFile, [&] { return UWriteFile(h, "abcd", 4, &n) != 0; }},
      {UCall::kReadFile,
       [&] {
         const UFileSpan span{buf, 4};
         return UReadFileAt(h, &span, 1, 0, &n) != 0;
       }},
      {UCall::kWriteFile,
       [&] {
         const UFileSpan span{const_cast<char*>("abcd"), 4};
         return UWriteFileAt(h, &span, 1, 4, &n) != 0;
       }},
      {UCall::kSetFilePointer, [&] { return USetFilePointer(h, 0, nullptr, kFileEnd) == 8; }},
      {UCall::kSetEndOfFile, [&] { return USetEndOfFile(h) != 0; }},
      {UCall::kFlushFileBuffers, [&] { return UFlushFileBuffers(h) != 0; }},
      {UCall::kGetFileInformationByHandle,
       [&] { return UGetFileInformationByHandle(h, &info) != 0; }},
      {UCall::kGetFileAttributes,
       [&] { return UGetFileAttributes(u"C:\\f.txt") != kInvalidFileAttributes; }},
      {UCall::kSetFileAttributes, [&] { return USetFileAttributes(u"C:\\f.txt", 0) != 0; }},
      {UCall::kCreateDirectory, [&] { return UCreateDirectory(u"C:\\dir") != 0; }},
      {UCall::kRemoveDirectory, [&] { return URemoveDirectory(u"C:\\dir") != 0; }},
      {UCall::kCopyFile, [&] { return UCopyFile(u"C:\\f.txt", u"C:\\g.txt", 1) != 0; }},
      {UCall::kMoveFile, [&] { return UMoveFile(u"C:\\g.txt", u"C:\\h.txt") != 0; }},
      {UCall::kDeleteFile, [&] { return UDeleteFile(u"C:\\h.txt") != 0; }},
      {UCall::kFindFirstFile,
       [&] {
         UHANDLE x = UFindFirstFile(u"C:\\*", &d);
         return x != kInvalidHandleValue && UFindClose(x);
       }},
      {UCall::kGetTempFileName,
       [&] {
         char16_t t[kMaxPath];
         return UGetTempFileName(u"C:\\", u"q", 7, t) != 0;
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.call));
    UFailCall(row.call, 1, 112);
    USetLastError(0);
    EXPECT_FALSE(row.run());
    EXPECT_EQ(UGetLastError(), 112u);
    EXPECT_TRUE(row.run());  // one failure only
  }
  UFailCall(UCall::kCloseHandle, 1, 6);
  EXPECT_FALSE(UCloseHandle(h));
  EXPECT_TRUE(UCloseHandle(h));  // the handle stayed open
  EXPECT_EQ(ReadHost(Host(u"C:\\f.txt")), "dataabcd");
}

// Threads share the drive map, the folder index and the handle table: each
// writes, finds, renames and deletes its own files in one folder, by names in
// other case, while the map is changed under them.
TEST_F(FileApi, FilesFromManyThreadsShareTheIndex) {
  MakeHostFolder(Host(u"C:\\Shared"));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 50; ++i) {
        const std::u16string name =
            u"C:\\shared\\T" + Utf16(std::to_string(t * 1000 + i)) + u".txt";
        const UHANDLE h = Open(name, kGenericWrite, 0, kCreateNew);
        unsigned n = 0;
        const bool wrote =
            h != kInvalidHandleValue && UWriteFile(h, "abc", 3, &n) && UCloseHandle(h);
        UWIN32_FIND_DATAW d;
        const UHANDLE f = UFindFirstFile(
            (u"C:\\SHARED\\t" + Utf16(std::to_string(t * 1000 + i)) + u".*").c_str(), &d);
        const bool found = f != kInvalidHandleValue && d.nFileSizeLow == 3 && UFindClose(f);
        const std::u16string renamed = name + u".old";
        const bool gone = UMoveFile(name.c_str(), renamed.c_str()) && UDeleteFile(renamed.c_str());
        if (!wrote || !found || !gone) ++failures;
      }
    });
  }
  threads.emplace_back([this] {
    for (int i = 0; i < 200; ++i)
      QuarnelSetDrive(u'E', (i % 2 ? HostOf('C') : HostOf('D')).c_str());
    QuarnelSetDrive(u'E', nullptr);
  });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  UWIN32_FIND_DATAW d;
  EXPECT_EQ(UFindFirstFile(u"C:\\Shared\\*.txt", &d), kInvalidHandleValue);
}
