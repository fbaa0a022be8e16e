#include "quarnel/fileio/location.h"

#include <gtest/gtest.h>

#include <vector>

#include "quarnel/fileio/tfile.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/module.h"
#include "quarnel/resources/resmgr.h"
#include "tests/support/drive_fixture.h"
#include "tests/support/helpers.h"
#include "tests/support/platform_cases.h"
#include "tests/support/tsv_kind.h"

namespace {

std::string PathOf(const TFolderLoc& f) { return Utf8(f.Path()); }

using Locations = DriveTest;

}  // namespace

TEST_F(Locations, PathRulesOfFoldersAndFiles) {
  EXPECT_EQ(PathOf(FolderAt(u"C:\\Data\\")), "C:\\Data");
  TFolderLoc x;
  TString name(u"x");
  TFolderLoc data = FolderAt(u"C:\\Data");
  x.Set(&data, &name);
  EXPECT_EQ(PathOf(x), "C:\\Data\\x");
  TFolderLoc root = FolderAt(u"C:\\");
  x.Set(&root, &name);
  EXPECT_EQ(PathOf(x), "C:\\x");
  for (const auto& row : ReadTsvKind("location_rules.tsv", "PARENT")) {
    SCOPED_TRACE(row[0]);
    TFolderLoc f = FolderAt(Utf16(row[0]).c_str());
    EXPECT_EQ(f.IsRoot(), std::stoi(row[1]));
    TFolderLoc parent;
    EXPECT_EQ(f.GetParent(&parent), std::stoi(row[2]));
    EXPECT_EQ(PathOf(parent), row[3]);
  }
  // Files: a trailing backslash on request, the parent of a bare name.
  TFileLoc f;
  TString p(u"C:\\Data");
  f.SetPath(&p, 1);
  EXPECT_EQ(Utf8(f.Path()), "C:\\Data\\");
  TFolderLoc parent;
  EXPECT_EQ(f.GetParent(&parent), 0);
  EXPECT_EQ(PathOf(parent), "C:");
  EXPECT_EQ(FileAt(u"readme.txt").GetParent(&parent), -1);
  EXPECT_TRUE(Logged(515, "TFileLoc::GetParent: folder is root, \"readme.txt\""));
  TString ext(u".TXT");
  EXPECT_NE(FileAt(u"C:\\a.txt").CompareExt(&ext), 0);
  ext = u".txt";
  EXPECT_EQ(FileAt(u"C:\\a.txt").CompareExt(&ext), 0);
  ext = u"";
  EXPECT_EQ(FileAt(u"C:\\noext").CompareExt(&ext), 0);
  TString out;
  EXPECT_EQ(FileAt(u"C:\\none\\").GetName(&out), 0);  // the component before the backslash
  EXPECT_EQ(Utf8(out), "none");
  EXPECT_EQ(FolderAt(u"C:\\a").operator==(FolderAt(u"C:\\A")), 0);  // case-sensitive collation
  EXPECT_TRUE(FolderAt(u"C:") == VolAt(u"C:\\"));
  EXPECT_EQ(TFolderLoc().Set(static_cast<const TVol*>(nullptr)), kErrBadParameter);
  EXPECT_TRUE(Logged(515, "TFolderLoc::Set: null argument"));
}

TEST_F(Locations, SuffixRuleWithLongAndShortNameLimits) {
  for (const auto& row : ReadTsvKind("location_rules.tsv", "SUFFIX")) {
    SCOPED_TRACE(row[0]);
    TString in(Utf16(row[0]).c_str()), out(u"unchanged");
    const int r = quarnel_internal::AddSuffix(&out, &in, u'-', std::stoi(row[1]), std::stoi(row[2]),
                                              std::stoi(row[3]));
    EXPECT_EQ(r, row[4] == "-" ? -1 : 0);
    EXPECT_EQ(Utf8(out), row[4] == "-" ? "unchanged" : row[4]);
  }
}

TEST_F(Locations, CreateNeverReusesAFolder) {
  for (const char* expected : {"C:\\Data", "C:\\Data-1", "C:\\Data-2"}) {
    TFolderLoc f = FolderAt(u"C:\\Data");
    EXPECT_EQ(f.Create(255), 0);
    EXPECT_EQ(PathOf(f), expected);
    EXPECT_TRUE(HostExists(Host(Utf16(expected))));
  }
  // The path-length fix keeps a short request within maxLen.
  TFolderLoc longer = FolderAt(u"C:\\Data");
  EXPECT_EQ(longer.Create(8), 0);
  EXPECT_EQ(PathOf(longer), "C:\\Dat-1");
  // A folder in a missing parent: the platform's error, nothing made.
  TFolderLoc orphan = FolderAt(u"C:\\missing\\Data");
  EXPECT_EQ(orphan.Create(255), kErrFileNotFound);
  EXPECT_TRUE(Logged(
      518,
      "TFolderLoc::Create: UCreateDirectory failed, C:\\missing\\Data, winerr 3, error -1101"));
  // The structure: every missing folder, each made once.
  TFolderLoc deep = FolderAt(u"C:\\Data\\a\\b\\c");
  EXPECT_EQ(deep.CreateDirStructure(255), 0);
  EXPECT_TRUE(HostExists(Host(u"C:\\Data\\a\\b\\c")));
  EXPECT_EQ(deep.CreateDirStructure(255), 0);  // it exists: nothing to do
  EXPECT_FALSE(HostExists(Host(u"C:\\Data\\a\\b\\c-1")));
  TFolderLoc rootless = FolderAt(u"nowhere\\x");
  EXPECT_EQ(rootless.CreateDirStructure(255), -1);
  EXPECT_TRUE(Logged(515, "TFolderLoc::CreateDirStructure: Invalid path, \"nowhere\\x\""));
}

TEST_F(Locations, DirClearKeepsWhatARootMustKeep) {
  for (const char* f : {"System Volume Information", "_Restore", "Recycled", "Vellomarch",
                        "Other/Vellomarch", "Other/Deeper", "Plain", "Decoy/Vellomarch/Ormic"})
    MakeHostFolder(HostOf('D') + "/" + f);
  WriteHost(HostOf('D') + "/Vellomarch/Ormic", "kept");
  WriteHost(HostOf('D') + "/Other/Vellomarch/Ormic", "kept too");
  WriteHost(HostOf('D') + "/Other/Deeper/file.bin", "x");
  WriteHost(HostOf('D') + "/dblspace.001", "x");
  WriteHost(HostOf('D') + "/top.txt", "x");
  ASSERT_TRUE(USetFileAttributes(u"D:\\top.txt", kFileAttributeReadOnly));
  EXPECT_EQ(FolderAt(u"D:").DirClear(),
            kErrDirectoryNotEmpty);  // "Other" still holds its Vellomarch
  for (const char* kept : {"/System Volume Information", "/_Restore", "/Recycled",
                           "/Vellomarch/Ormic", "/Other/Vellomarch/Ormic"})
    EXPECT_TRUE(HostExists(HostOf('D') + kept)) << kept;
  for (const char* gone : {"/Plain", "/Decoy", "/Other/Deeper", "/top.txt", "/dblspace.001"})
    EXPECT_FALSE(HostExists(HostOf('D') + gone)) << gone;
  // Below the root the root's three folders are cleared like any other.
  MakeHostFolder(Host(u"C:\\Tree\\Recycled\\x"));
  WriteHost(Host(u"C:\\Tree\\Recycled\\x\\f"), "");
  TFolderLoc tree = FolderAt(u"C:\\Tree");
  EXPECT_EQ(tree.DirClear(), 0);
  EXPECT_TRUE(HostExists(Host(u"C:\\Tree")));
  EXPECT_FALSE(HostExists(Host(u"C:\\Tree\\Recycled")));
  WriteHost(Host(u"C:\\file"), "");
  EXPECT_EQ(FolderAt(u"C:\\file").DirClear(), kErrBadParameter);
  EXPECT_TRUE(Logged(515, "TFolderLoc::DirClear: not a dir, \"C:\\file\""));
  EXPECT_EQ(tree.Delete(), 0);
  EXPECT_FALSE(HostExists(Host(u"C:\\Tree")));
}

// Paths over 259 characters work through the long form, and deleting and
// removing them takes the delete-on-close handle.
TEST_F(Locations, LongPathsWork) {
  std::u16string path = u"C:";
  while (path.size() < 300) path += u"\\" + std::u16string(40, u'L');
  TFolderLoc folder = FolderAt(path.c_str());
  ASSERT_EQ(folder.CreateDirStructure(1000), 0);
  TString name(u"file.bin");
  TFileLoc file;
  file.Set(&folder, &name);
  ASSERT_GT(file.Path().Length(), 300);
  TFile f;
  ASSERT_EQ(f.Create(&file, 0x3), 0);
  unsigned n = 5;
  EXPECT_EQ(f.Write(&n, reinterpret_cast<const unsigned char*>("hello")), 0);
  EXPECT_EQ(f.Close(), 0);
  TString real;
  EXPECT_EQ(file.GetRealPath(&real, 0), 0);
  EXPECT_EQ(real.Length(), file.Path().Length());
  EXPECT_EQ(file.Delete(0), 0);
  EXPECT_FALSE(file.Exists());
  EXPECT_EQ(folder.Remove(), 0);
  EXPECT_FALSE(folder.Exists());
  EXPECT_EQ(folder.Remove(), kErrFileNotFound);
  EXPECT_TRUE(Logged(518, "TFolderLoc::Remove: UCreateFile failed, " + PathOf(folder) +
                              ", winerr 2, error -1101"));
}

TEST_F(Locations, RenameMoveCopyAndTheirFailures) {
  MakeHostFolder(Host(u"C:\\A"));
  MakeHostFolder(Host(u"C:\\B"));
  WriteHost(Host(u"C:\\A\\f.txt"), "content");
  TFolderLoc a = FolderAt(u"C:\\A");
  TString name(u"B");
  EXPECT_EQ(a.Rename(&name), kErrAlreadyExists);
  EXPECT_TRUE(Logged(518, "TFolderLoc::Rename: UMoveFile failed, C:\\A, winerr 183, error -1023"));
  UFailCall(UCall::kMoveFile, 1, 5);
  name = u"C";
  EXPECT_EQ(a.Rename(&name), kErrAccessDenied);
  EXPECT_EQ(PathOf(a), "C:\\A");
  EXPECT_EQ(a.Rename(&name), 0);
  EXPECT_EQ(PathOf(a), "C:\\A");  // the location keeps its old path
  TFileLoc f = FileAt(u"c:\\c\\F.TXT");
  TFolderLoc b = FolderAt(u"C:\\B");
  EXPECT_EQ(f.Copy(&b, 1), 0);
  EXPECT_EQ(ReadHost(Host(u"C:\\B\\f.txt")), "content");  // named as the disk names it
  EXPECT_EQ(f.Copy(&b, 1), kErrAlreadyExists);
  EXPECT_TRUE(
      Logged(518, "TFileLoc::Copy: UCopyFile failed, c:\\c\\F.TXT, winerr 80, error -1023"));
  TFolderLoc d = FolderAt(u"D:");
  EXPECT_EQ(f.Move(&d), 0);
  EXPECT_TRUE(HostExists(Host(u"D:\\f.txt")));
  TFileLoc moved = FileAt(u"D:\\f.txt");
  name = u"g.txt";
  EXPECT_EQ(moved.Rename(&name), 0);
  TFolderLoc c = FolderAt(u"C:\\C");
  EXPECT_EQ(c.Move(&d), 0);
  EXPECT_TRUE(HostExists(Host(u"D:\\C")));
  UFailCall(UCall::kDeleteFile, 1, 32);
  TFileLoc g = FileAt(u"D:\\g.txt");
  EXPECT_EQ(g.Delete(1), kErrBusy);
  EXPECT_TRUE(g.Exists());
  EXPECT_EQ(g.Delete(1), 0);
}

TEST_F(Locations, FindRealPathAndEnclosure) {
  MakeHostFolder(Host(u"C:\\Data\\Sub"));
  WriteHost(Host(u"C:\\Data\\Sub\\LongFileName.txt"), "12345");
  TFileLoc f = FileAt(u"c:\\data\\SUB\\longfilename.TXT");
  TString real;
  EXPECT_EQ(f.GetRealPath(&real, 0), 0);
  EXPECT_EQ(Utf8(real), "C:\\Data\\Sub\\LongFileName.txt");
  EXPECT_EQ(f.GetRealPath(&real, 1), 0);
  if (!WineDiffers("Wine makes short names from a hash")) {
    EXPECT_EQ(Utf8(real), "C:\\Data\\Sub\\LONGFI~1.TXT");
  }
  TFileLoc missing = FileAt(u"c:\\data\\nothing");
  EXPECT_EQ(missing.GetRealPath(&real, 0), kErrFileNotFound);
  EXPECT_EQ(Utf8(real), "c:\\data\\nothing");
  VNativNodeInfo info;
  EXPECT_EQ(f.GetInfo(&info), 0);
  EXPECT_EQ(info.GetSize(), 5u);
  EXPECT_EQ(info.attributes, 0x20u);
  // A walk over the folder.
  TFolderLoc sub = FolderAt(u"C:\\Data\\Sub");
  void* handle = nullptr;
  std::vector<std::string> names;
  for (int r = sub.StartFind(&handle, &info, nullptr); r == 0; r = sub.NextFind(&handle, &info)) {
    names.push_back(Utf8(info.name));
    EXPECT_EQ(PathOf(info.parent), "C:\\Data\\Sub");
  }
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "LongFileName.txt"}));
  EXPECT_EQ(sub.EndFind(&handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(sub.EndFind(&handle), 0);  // a null handle: nothing called
  TString pattern(u"*.bin");
  EXPECT_EQ(sub.StartFind(&handle, &info, &pattern), kErrFileNotFound);
  ASSERT_EQ(sub.StartFind(&handle, &info, nullptr), 0);
  void* kept = handle;
  UFailCall(UCall::kCloseHandle, 1, 6);
  EXPECT_EQ(sub.EndFind(&handle), 1);
  EXPECT_EQ(handle, nullptr);
  UFindClose(kept);
  // Enclosure: by the walk up, never itself, never across volumes.
  TFolderLoc data = FolderAt(u"C:\\Data");
  EXPECT_TRUE(data.IsEnclosing(&sub));
  EXPECT_TRUE(sub.IsEnclosedBy(&data));
  EXPECT_FALSE(sub.IsEnclosing(&data));
  EXPECT_FALSE(data.IsEnclosing(&data));
  TFolderLoc other = FolderAt(u"D:\\Data\\Sub");
  EXPECT_FALSE(data.IsEnclosing(&other));
  EXPECT_TRUE(FolderAt(u"C:").IsEnclosing(&sub));
  EXPECT_EQ(FolderAt(u"C:\\Data").Exists(), 1);
  EXPECT_TRUE(data.IsWritable());
  EXPECT_FALSE(FolderAt(u"C:\\Nope").IsWritable());
}

TEST_F(Locations, WellKnownFolders) {
  TFolderLoc f;
  EXPECT_EQ(f.SetToTemp(), 0);
  EXPECT_EQ(PathOf(f), "C:\\Temp");
  MakeHostFolder(Host(u"C:\\Work"));
  TFolderLoc work = FolderAt(u"C:\\Work");
  EXPECT_EQ(work.MakeCurrent(), 0);
  EXPECT_EQ(f.SetToCurrent(), 0);
  EXPECT_EQ(PathOf(f), "C:\\Work");
  EXPECT_EQ(FolderAt(u"C:\\Nope").MakeCurrent(), kErrFileNotFound);
  EXPECT_EQ(f.SetToWindows(), 0);
  if (!WineDiffers("Wine's Windows folder is C:\\windows")) {
    EXPECT_EQ(PathOf(f), "C:\\Windows");
  }
  EXPECT_EQ(f.SetToSystem(), 0);
  if (!WineDiffers("Wine's Windows folder is C:\\windows")) {
    EXPECT_EQ(PathOf(f), "C:\\Windows\\System32");
  }
  const TVol share = VolAt(u"\\\\srv\\share\\", 0);
  EXPECT_EQ(f.SetToRecycled(&share), -1);
  const std::string saved = QuarnelEnv()->appFolder;
  QuarnelEnv()->appFolder = QUARNEL_VELLORES_DIR;
  TString module(u"vellores.dll");
  ASSERT_EQ(DLLoadLib(&module), 0);
  const TVol d = VolAt(u"D:\\");
  EXPECT_EQ(f.SetToRecycled(&d), 0);
  EXPECT_EQ(PathOf(f), "D:\\$Recycle.Bin");
  DLUnloadLib(&module);
  QuarnelEnv()->appFolder = saved;
  EXPECT_EQ(work.SetVol(&d), 0);
  EXPECT_EQ(PathOf(work), "D:\\Work");
  TFileLoc temp;
  EXPECT_EQ(temp.SetTempName(), 0);
  const std::string name = Utf8(temp.Path());
  EXPECT_EQ(name.rfind("C:\\Temp\\qnl", 0), 0u) << name;
  if (!WineDiffers("Wine's temporary names end in .tmp")) {
    EXPECT_EQ(name.substr(name.size() - 4), ".TMP");
  }
  EXPECT_TRUE(temp.Exists());
  EXPECT_EQ(temp.SetVol(&d), 0);
  EXPECT_EQ(Utf8(temp.Path()), "D:" + name.substr(2));
}

// The persisted form, byte for byte: the header ('Fol.' / 'Fil.', versions
// 256), 16 zero bytes, then the path as a string record.
TEST_F(Locations, PersistedFormGoldenBytes) {
  const std::vector<unsigned char> string7 = {
      '.', 'r', 't', 'S', 0,    1, 0,   1,  // 'Str.' header
      7,   0,   0,   0,   0,    0, 0,   0,  // length 7, style, extra
      0,   0,   0,   0,   0,    0, 0,   0,  // byte order 0, reserved
      'C', 0,   ':', 0,   '\\', 0, 'D', 0, 'a', 0, 't', 0, 'a', 0, 0, 0};
  std::vector<unsigned char> folder = {'.', 'l', 'o', 'F', 0, 1, 0, 1};
  folder.resize(24, 0);
  folder.insert(folder.end(), string7.begin(), string7.end());
  TFolderLoc data = FolderAt(u"C:\\Data");
  ASSERT_EQ(data.StoreSize(), 64u);
  std::vector<unsigned char> out(64, 0xEE);
  EXPECT_EQ(data.Export(out.data(), 64), 64);
  EXPECT_EQ(out, folder);
  TFolderLoc back;
  EXPECT_EQ(back.Import(folder.data(), 64), 64);
  EXPECT_TRUE(back.Identical(data));
  // Files differ only in the tag.
  std::vector<unsigned char> file = folder;
  file[1] = 'l', file[2] = 'i';
  TFileLoc f = FileAt(u"C:\\Data");
  EXPECT_EQ(f.Export(out.data(), 64), 64);
  EXPECT_EQ(out, file);
  EXPECT_EQ(back.Import(file.data(), 64), kErrPersistWrongSignature);
  // Short and damaged records leave the location as it was (the record
  // header's own checks answer for foreign ones).
  EXPECT_EQ(data.Export(out.data(), 63), kErrExportBufferTooSmall);
  EXPECT_EQ(back.Import(folder.data(), 23), kErrImportDataTooShort);
  EXPECT_EQ(back.Import(folder.data(), 63), kErrImportDataTooShort);
  std::vector<unsigned char> bad = folder;
  bad[32] = 0xFF, bad[33] = 0x7F;  // string length 32767
  EXPECT_EQ(back.Import(bad.data(), 64), kErrInvalidData);
  EXPECT_TRUE(back.Identical(data));
}

TEST_F(Locations, ArrayGrowsAndAssertsOutOfRange) {
  TFolderLocArray array;
  for (int i = 0; i < 25; ++i) {
    TString p(u"C:\\");
    p.Append(static_cast<char16_t>(u'a' + i));
    ASSERT_NE(array.Add(), nullptr);
    array[i]->SetPath(&p);
  }
  EXPECT_EQ(array.GetCount(), 25);
  EXPECT_EQ(Utf8(array[24]->Path()), "C:\\y");
  EXPECT_EQ(array[25], nullptr);
  EXPECT_EQ(array[-1], nullptr);
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"fileio", 109, ""}, {"fileio", 109, ""}}));
}
