#include "quarnel/fileio/tvol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "quarnel/fileio/location.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/volapi.h"
#include "tests/support/drive_fixture.h"
#include "tests/support/helpers.h"
#include "tests/support/platform_cases.h"
#include "tests/support/tsv_kind.h"

namespace {

// A volume holding exactly `path` (Set would add a backslash): its
// persisted form, assembled by hand and imported.
std::vector<unsigned char> Record(const char16_t* path) {
  TString p(path);
  std::vector<unsigned char> r(24 + p.StoreSize(), 0);
  _initpersist(reinterpret_cast<PersistHeader*>(r.data()), 0x566F6C2E, 256, 256);
  p.Export(r.data() + 24, static_cast<int>(r.size() - 24));
  return r;
}

TVol Exact(const char16_t* path) {
  TVol v;
  const std::vector<unsigned char> r = Record(path);
  v.Import(r.data(), static_cast<int>(r.size()));
  return v;
}

using Volumes = DriveTest;

}  // namespace

TEST_F(Volumes, SetFollowsTheNameRulesQuirksIncluded) {
  for (const auto& row : ReadTsvKind("volume_names.tsv", "SET")) {
    SCOPED_TRACE(row[0]);
    ClearRecords();
    TVol v;
    TString p(Utf16(row[0]).c_str());
    EXPECT_EQ(v.Set(&p, 1), row[1] == "nodev" ? kErrDeviceNotPresent : 0);
    EXPECT_EQ(Utf8(v.Path()), row[2]);
    EXPECT_EQ(RecordingTest::Logged(), row[3].empty() ? "" : row[3] + "\n");
  }
  EXPECT_EQ(Utf8(VolAt(u"data", 0).Path()), "data\\");
  EXPECT_EQ(Utf8(VolAt(u"", 0).Path()), "\\");
  // Locations: the volume path the platform gives, through Set(path, 1);
  // without one (a share that is not there) the location's own path.
  TFolderLoc folder = FolderAt(u"c:\\Data\\x");
  TVol v;
  EXPECT_EQ(v.Set(&folder), 0);
  EXPECT_EQ(Utf8(v.Path()), "C:\\");
  EXPECT_TRUE(v == folder);
  folder = FolderAt(u"\\\\srv\\share\\x");
  EXPECT_EQ(v.Set(&folder), 0);
  EXPECT_EQ(Utf8(v.Path()), "\\\\srv\\share\\");
}

TEST_F(Volumes, IsValidAcceptsVolumeForms) {
  for (const auto& row : ReadTsvKind("volume_names.tsv", "VALID")) {
    SCOPED_TRACE(row[0]);
    const std::u16string path = Utf16(row[0]);
    const TVol v = Exact(path.c_str());
    ASSERT_EQ(Utf8(v.Path()), row[0]);
    EXPECT_EQ(v.IsValid(0, 0), std::stoi(row[1]));
    EXPECT_EQ(v.IsValid(0, 1), std::stoi(row[2]));
  }
  EXPECT_EQ(VolAt(u"C:\\").IsValid(1), 1);  // a readable serial
  EXPECT_EQ(VolAt(u"Q:\\").IsValid(1), 0);  // an unmapped drive has none
  EXPECT_EQ(VolAt(u"Q:\\").IsValid(0), 1);
}

TEST_F(Volumes, InformationComesFromTheDriveFolder) {
  QUARNEL_LINUX_ONLY("a mapped drive's label and serial are kept in its folder");
  SetVolumeIdentity('C', "Vello Data", 0x1234ABCD);
  const TVol c = VolAt(u"C:\\"), d = VolAt(u"D:\\");
  TString label, fs;
  unsigned serial = 0;
  EXPECT_EQ(c.GetName(&label), 0);
  EXPECT_EQ(Utf8(label), "Vello Data");
  EXPECT_EQ(c.GetSerialNo(&serial), 0);
  EXPECT_EQ(serial, 0x1234ABCDu);
  EXPECT_EQ(c.GetFSName(&fs), 0);
  EXPECT_FALSE(fs.IsEmpty());
  TString renamed(u"Renamed");
  EXPECT_EQ(d.SetLabel(&renamed), 0);
  EXPECT_EQ(d.GetName(&label), 0);
  EXPECT_EQ(Utf8(label), "Renamed");
  TString tooLong(u"a label of more than thirty-two characters");
  EXPECT_EQ(d.SetLabel(&tooLong), kErrInvalidName);
  EXPECT_EQ(d.GetName(&label), 0);
  EXPECT_EQ(Utf8(label), "Renamed");
  // The identity words: flags, serial, file-system id, label hash.
  NativVolInfo ci, di;
  ASSERT_EQ(c.GetInfo(&ci), 0);
  ASSERT_EQ(d.GetInfo(&di), 0);
  unsigned words[5];
  ci.GetIdentity(words);
  unsigned flags = 0;
  EXPECT_EQ(c.GetFlags(&flags, 0), 0);
  EXPECT_EQ(words[0], flags);
  EXPECT_EQ(__builtin_popcount(flags), 1);  // exactly one drive type
  EXPECT_EQ(words[1], 0x1234ABCDu);
  EXPECT_EQ(words[4], static_cast<unsigned>(TString(u"Vello Data").Hash()));
  EXPECT_EQ(ci.fsIdLow, di.fsIdLow);  // both drives live on one file system
  EXPECT_NE(ci.serial, di.serial);
  EXPECT_EQ(Utf8(ci.path), "C:\\");
  EXPECT_EQ(ci.maxComponentLength, 255u);
  // A folder refreshes the record of its volume only when asked or when it
  // describes another one.
  TFolderLoc onD = FolderAt(u"D:\\x");
  NativVolInfo cached = ci;
  EXPECT_EQ(onD.SubInfoUpdate(&cached, 0), 0);
  EXPECT_EQ(Utf8(cached.name), "Renamed");
  cached.name = u"stale";
  EXPECT_EQ(onD.SubInfoUpdate(&cached, 0), 0);
  EXPECT_EQ(Utf8(cached.name), "stale");
  EXPECT_EQ(onD.SubInfoUpdate(&cached, 1), 0);
  EXPECT_EQ(Utf8(cached.name), "Renamed");
  // Space and block size.
  std::uint64_t total = 0, used = 0, free = 0;
  unsigned unit = 0, block = 0;
  EXPECT_EQ(c.GetStats(&total, &used, &free, &unit), 0);
  EXPECT_EQ(used + free, total);
  EXPECT_GT(total, 0u);
  EXPECT_EQ(c.GetStats(nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(c.GetBlockSize(&block), 0);
  EXPECT_EQ(block, unit);
  EXPECT_EQ(unit % 512, 0u);
  EXPECT_EQ(c.GetFlags(&flags, 1), 0);
  EXPECT_EQ(flags & 0x6u, 0x6u);  // case-preserved names, Unicode
}

TEST_F(Volumes, FailuresAreMappedAndLogged) {
  const TVol q = VolAt(u"Q:\\");
  unsigned flags = 99;
  EXPECT_EQ(q.GetFlags(&flags, 1), kErrDeviceNotPresent);
  EXPECT_EQ(flags, 0u);
  NativVolInfo info;
  EXPECT_EQ(q.GetInfo(&info), kErrFileNotFound);
  UFailCall(UCall::kGetVolumeInformation, 1, 21);
  const TVol c = VolAt(u"C:\\");
  EXPECT_EQ(c.GetFlags(&flags, 1), kErrDeviceNotReady);
  EXPECT_EQ(flags & kVolNoFileSystemFlags, kVolNoFileSystemFlags);
  EXPECT_NE(flags & 0x1Fu, 0u);  // the drive type is still there
  UFailCall(UCall::kGetDiskFreeSpace, 1, 21);
  EXPECT_EQ(c.GetStats(nullptr, nullptr, nullptr, nullptr), kErrDeviceNotReady);
  EXPECT_EQ(
      LoggedLines(),
      (std::vector<LogLine>{
          {514, "", "TVol::GetFlags: UGetDriveType failed, Q:\\, winerr 15, error -1102"},
          {518, "", "TVol::GetInfo: UGetVolumeInformation failed, Q:\\, winerr 3, error -1101"},
          {518, "", "TVol::GetFlags: UGetVolumeInformation failed, C:\\, winerr 21, error -1104"},
          {518, "", "TVol::GetStats: UGetDiskFreeSpaceEx failed, C:\\, winerr 21, error -1104"}}));
  // A drive whose folder has gone has no medium (on Linux; an aliased letter
  // on Windows answers for the volume holding its folder).
  if (kOnWindows) return;
  QuarnelSetDrive(u'E', (HostOf('C') + "/gone").c_str());
  int empty = 0;
  EXPECT_EQ(VolAt(u"E:\\").IsEmpty(&empty), 0);
  EXPECT_EQ(empty, 1);
  EXPECT_EQ(c.IsEmpty(&empty), 0);
  EXPECT_EQ(empty, 0);
  QuarnelSetDrive(u'E', nullptr);
}

// No drive of the map is ejected, locked or formatted: each request answers
// "not supported" with its own line; flushing works.
TEST_F(Volumes, MediaControlIsNotSupported) {
  const TVol c = VolAt(u"C:\\");
  void* lock = nullptr;
  unsigned port = 9, path = 9, target = 9, lun = 9;
  EXPECT_EQ(c.Eject(), kErrNotSupported);
  EXPECT_EQ(c.MakeEjectable(1), kErrNotSupported);
  EXPECT_EQ(c.GetScsiInfo(&port, &path, &target, &lun), kErrNotSupported);
  EXPECT_EQ(port | path | target | lun, 0u);
  EXPECT_EQ(c.Lock(&lock, 0, 0), kErrNotSupported);
  EXPECT_EQ(lock, nullptr);
  EXPECT_EQ(c.Unlock(nullptr), 0);
  TString label(u"X");
  EXPECT_EQ(c.Format(nullptr, &label), kErrNotSupported);
  const bool flushes = !WineDiffers("Wine cannot flush a volume");
  if (flushes) {
    EXPECT_EQ(c.Flush(), 0);
  }
  int state = 9;
  EXPECT_EQ(c.IsEjectable(&state, 0), 0);
  EXPECT_EQ(c.IsFloppy(&state), 0);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(c.IsLocked(&state), 0);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(c.IsBusy(), 0);
  EXPECT_EQ(VolAt(u"Q:\\").Eject(), kErrDeviceNotPresent);
  if (!flushes) return;
  EXPECT_EQ(
      LoggedLines(),
      (std::vector<LogLine>{
          {518, "",
           "TVol::Eject: DeviceIoControl can't change media removal, C:\\, winerr 50, error -1012"},
          {518, "",
           "TVol::MakeEjectable: DeviceIoControl can't change media removal, C:\\, winerr 50, "
           "error -1012"},
          {518, "",
           "TVol::GetScsiInfo: DeviceIoControl can't get scsi info, C:\\, winerr 50, error -1012"},
          {514, "", "TVol::Format: SHFormatDrive C:\\ failed, winerr = 50, err = -1012"},
          {514, "", "TVol::openAsNtDevice: UGetDriveType failed, Q:\\, winerr 15, error -1102"}}));
}

TEST_F(Volumes, PersistedFormAndEquality) {
  const TVol c = VolAt(u"C:\\");
  std::vector<unsigned char> golden = {'.', 'l', 'o', 'V', 0, 1, 0, 1};
  golden.resize(24, 0);
  const std::vector<unsigned char> str = {'.', 'r', 't', 'S', 0,   1, 0,    1, 3, 0, 0,
                                          0,   0,   0,   0,   0,   0, 0,    0, 0, 0, 0,
                                          0,   0,   'C', 0,   ':', 0, '\\', 0, 0, 0};
  golden.insert(golden.end(), str.begin(), str.end());
  ASSERT_EQ(c.StoreSize(), 56u);
  std::vector<unsigned char> out(56, 0xEE);
  EXPECT_EQ(c.Export(out.data(), 56), 56);
  EXPECT_EQ(out, golden);
  EXPECT_EQ(Record(u"C:\\"), golden);
  TVol back;
  EXPECT_EQ(back.Import(out.data(), 56), 56);
  EXPECT_TRUE(back == c);
  EXPECT_EQ(c.Export(out.data(), 55), kErrExportBufferTooSmall);
  EXPECT_EQ(back.Import(out.data(), 23), kErrImportDataTooShort);
  out[0] = 'X';
  EXPECT_EQ(back.Import(out.data(), 56), kErrPersistWrongSignature);
  EXPECT_TRUE(VolAt(u"c:\\") == c);  // volumes compare ignoring case
  EXPECT_TRUE(VolAt(u"D:\\") != c);
}

TEST_F(Volumes, LocalVolumesAndSharesOnTheMap) {
  QUARNEL_LINUX_ONLY("the drive map's letters, its Z: root and its shares");
  TLocalVolEnum walk;
  ASSERT_EQ(walk.StartEnum(), 0);
  std::vector<std::string> seen;
  TVol v;
  int r;
  while ((r = walk.NextEnum(&v)) == 0) {
    seen.push_back(Utf8(v.Path()));
    EXPECT_TRUE(walk.AlreadyEnumed(&v.Path()));
  }
  EXPECT_EQ(r, kErrNoMoreEntries);
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size());
  for (int i = 0; i < 26; ++i) {
    const std::string root = std::string(1, static_cast<char>('A' + i)) + ":\\";
    EXPECT_EQ(std::count(seen.begin(), seen.end(), root), (UGetLogicalDrives() >> i) & 1) << root;
  }
  EXPECT_EQ(std::vector<std::string>(seen.begin(), seen.begin() + 2),
            (std::vector<std::string>{"C:\\", "D:\\"}));
  // C: and D: live inside Z: ("/"): they are mount points of Z: too.
  std::string cInZ = "Z:";
  for (char ch : HostOf('C')) cInZ += ch == '/' ? '\\' : ch;
  cInZ += "\\";
  EXPECT_NE(std::find(seen.begin(), seen.end(), cInZ), seen.end());
  walk.Reset();
  EXPECT_FALSE(walk.AlreadyEnumed(&v.Path()));
  // A network share under the UNC root is a remote volume.
  const std::string savedUnc = QuarnelGetUncRoot();
  QuarnelSetUncRoot(HostOf('D').c_str());
  MakeHostFolder(HostOf('D') + "/Srv/Share/dir");
  const TVol share = VolAt(u"\\\\srv\\SHARE\\dir");
  EXPECT_EQ(Utf8(share.Path()), "\\\\srv\\SHARE\\");
  unsigned flags = 0;
  EXPECT_EQ(share.GetFlags(&flags, 0), 0);
  EXPECT_EQ(flags, kVolRemote);
  TFolderLoc dir = FolderAt(u"\\\\SRV\\share\\DIR");
  EXPECT_TRUE(dir.Exists());
  // The platform names the share's root "\\srv\share\", which Set(path, 1)
  // does not take: the location's volume stays as it was.
  TVol fromLoc;
  EXPECT_EQ(fromLoc.Set(&dir), 0);
  EXPECT_EQ(Utf8(fromLoc.Path()), "\\");
  EXPECT_EQ(VolAt(u"\\\\srv\\nope").GetFlags(&flags, 0), kErrDeviceNotPresent);
  QuarnelSetUncRoot(savedUnc.c_str());
  // Drives remapped at run time: E: now shows D:'s folder.
  WriteHost(HostOf('D') + "/seen.txt", "");
  QuarnelSetDrive(u'E', HostOf('D').c_str());
  EXPECT_NE(UGetFileAttributes(u"E:\\SEEN.TXT"), kInvalidFileAttributes);
  unsigned se = 0, sd = 0;
  EXPECT_EQ(VolAt(u"E:\\").GetSerialNo(&se), 0);
  EXPECT_EQ(VolAt(u"D:\\").GetSerialNo(&sd), 0);
  EXPECT_EQ(se, sd);
  QuarnelSetDrive(u'E', nullptr);
  EXPECT_EQ(UGetFileAttributes(u"E:\\SEEN.TXT"), kInvalidFileAttributes);
}
