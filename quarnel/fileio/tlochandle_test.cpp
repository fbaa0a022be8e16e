#include "quarnel/fileio/tlochandle.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <tuple>
#include <vector>

#include "quarnel/fileio/tfile.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/netapi.h"
#include "tests/support/drive_fixture.h"

namespace {

class LocHandleTest : public DriveTest {
 protected:
  void SetUp() override {
    DriveTest::SetUp();
    savedEnv_ = *QuarnelEnv();
  }
  void TearDown() override {
    QuarnelSetEnv(savedEnv_);
    QuarnelSetDrive(u'E', nullptr);
    QuarnelSetDrive(u'N', nullptr);
    QuarnelSetUncRoot(savedUnc_.c_str());
    DriveTest::TearDown();
  }
  TLocHandle HandleOf(const char16_t* path) {
    TLocHandle h;
    const TFileLoc file = FileAt(path);
    EXPECT_EQ(h.From(&file), 0);
    return h;
  }
  std::u16string Resolve(const TLocHandle& h, int mustExist) {
    TString path;
    const int rc = h.GetFilePath(&path, mustExist);
    return rc == 0 ? path.ToU16String() : u"error " + Utf16(std::to_string(rc));
  }
  std::vector<unsigned char> Bytes(const TLocHandle& h) {
    std::vector<unsigned char> b(h.StoreSize());
    EXPECT_EQ(h.Export(b.data(), static_cast<int>(b.size())), static_cast<int>(b.size()));
    return b;
  }

 private:
  QuarnelEnvType savedEnv_;
  std::string savedUnc_ = QuarnelGetUncRoot();
};

template <class T>
void Append(std::vector<unsigned char>* out, const T& part) {
  std::vector<unsigned char> b(part.StoreSize());
  ASSERT_EQ(part.Export(b.data(), static_cast<int>(b.size())), static_cast<int>(b.size()));
  out->insert(out->end(), b.begin(), b.end());
}

TEST_F(LocHandleTest, StoredFormIsTheDocumentedLayoutWithTheSecretScrambled) {
  std::vector<unsigned char> want(40);
  const unsigned char header[8] = {0x2E, 0x6E, 0x48, 0x4C, 0x00, 0x01, 0x00, 0x01};
  const unsigned words[5] = {0x2, 0x1234ABCD, 7, 8, 9};
  std::memcpy(want.data(), header, 8);
  std::memcpy(want.data() + 8, words, 20);
  Append(&want, VolAt(u"D:\\"));
  Append(&want, TString(u"TRAVEL"));
  Append(&want, TString(u"?Wdata\\x.txt"));
  Append(&want, TString(u"bob"));
  Append(&want, TString(u"\x0007\x0077\x1234"));  // "pw\x2143", each byte's halves exchanged
  TLocHandle h;
  ASSERT_EQ(h.Import(want.data(), static_cast<int>(want.size())), static_cast<int>(want.size()));
  EXPECT_EQ(Bytes(h), want);
  TString name, secret, label, path;
  h.GetMountInfo(&name, &secret, &label, nullptr);
  EXPECT_EQ(Utf8(name) + "/" + Utf8(label), "bob/TRAVEL");
  EXPECT_EQ(secret.ToU16String(), u"pw\x2143");
  TLocHandle again = h;
  again.SetMountInfo(&name, &secret);
  EXPECT_EQ(Bytes(again), want) << "SetMountInfo scrambles as stored";

  // Refusals leave the handle as it was: too short, a part cut, another tag
  // (the header's own checks answer for the rest).
  std::vector<unsigned char> other = want;
  other[0] = 'X';
  for (const auto& [bytes, size, code] :
       {std::tuple(&want, 39, -696), {&want, 60, -696}, {&other, 200, -692}}) {
    TLocHandle copy = h;
    EXPECT_EQ(copy.Import(bytes->data(), size), code);
    EXPECT_EQ(Bytes(copy), want);
  }
  EXPECT_EQ(h.Export(want.data(), static_cast<int>(want.size()) - 1), -695);
}

TEST_F(LocHandleTest, TokensStandForTheEnvironmentFoldersInTheirOrder) {
  QuarnelEnv()->userFolder = Host(u"C:\\home");
  QuarnelEnv()->workFolder = Host(u"C:\\home\\work");
  QuarnelEnv()->appFolder = Host(u"C:\\App");
  QuarnelEnv()->logFolder = "";
  TLocHandle h = HandleOf(u"C:\\HOME\\work\\quarnel-moved\\x.txt");
  EXPECT_EQ(h.TokenizeLocation(), 0);
  TString path;
  h.GetPath(&path);
  EXPECT_EQ(Utf8(path), "C:\\home\\work\\quarnel-moved\\x.txt")
      << "the folder's own spelling comes back";
  const TLocHandle sibling = HandleOf(u"C:\\home\\work\\quarnel-moved\\y.txt");
  EXPECT_FALSE(sibling == h);
  EXPECT_TRUE(sibling.Equal(&h, 0)) << "same folder, once the tokens are expanded";
  // "?O" went first: the path follows the user's folder, not the work folder.
  QuarnelEnv()->workFolder = Host(u"C:\\elsewhere");
  QuarnelEnv()->userFolder = Host(u"C:\\moved");
  h.GetPath(&path);
  EXPECT_EQ(Utf8(path), "C:\\moved\\work\\quarnel-moved\\x.txt");
}

// Removable media that moved from D: to E:, found by name and identity, by
// identity alone, by name alone; gone everywhere.
TEST_F(LocHandleTest, FindsMovedMediaInThreePasses) {
  QUARNEL_LINUX_ONLY("a mapped drive's label and serial are kept in its folder");
  SetVolumeIdentity('D', "TRAVEL", 0x1234ABCD);
  MakeHostFolder(Host(u"D:\\quarnel-moved"));
  WriteHost(Host(u"D:\\quarnel-moved\\x.txt"), "x");
  const TLocHandle h = HandleOf(u"D:\\quarnel-moved\\x.txt");
  QuarnelSetDrive(u'E', HostOf('D').c_str());
  QuarnelSetDrive(u'D', nullptr);
  MakeHostFolder(Host(u"C:\\quarnel-moved"));  // C: agrees in word 0 only, and comes first
  EXPECT_EQ(Resolve(h, 1), u"E:\\quarnel-moved\\x.txt") << "pass 0";
  std::filesystem::remove(Host(u"C:\\quarnel-moved"));
  SetVolumeIdentity('D', "RENAMED", 0x1234ABCD);
  EXPECT_EQ(Resolve(h, 1), u"E:\\quarnel-moved\\x.txt") << "pass 1";

  // A handle whose words agree with no drive (say, made on another system).
  std::vector<unsigned char> b = Bytes(h);
  const unsigned foreign[5] = {0x1, 0xDEAD, 1, 2, 3};
  std::memcpy(b.data() + 8, foreign, sizeof foreign);
  TLocHandle byName;
  ASSERT_GT(byName.Import(b.data(), static_cast<int>(b.size())), 0);
  EXPECT_EQ(Resolve(byName, 1), u"error -1");
  SetVolumeIdentity('D', "TRAVEL", 0x5555);
  EXPECT_EQ(Resolve(byName, 1), u"E:\\quarnel-moved\\x.txt") << "pass 2";

  // With the file gone, its folder still answers; with the volume gone, nothing.
  std::filesystem::remove(Host(u"D:\\quarnel-moved\\x.txt"));
  EXPECT_EQ(Resolve(h, 0), u"E:\\quarnel-moved\\x.txt");
  QuarnelSetDrive(u'E', nullptr);
  ClearRecords();
  TFileLoc loc;
  EXPECT_EQ(h.GetFileLoc(&loc, 1), -1);
  EXPECT_TRUE(Logged(519, "TLocHandle::GetFileLoc: can't find file, \"D:\\quarnel-moved\\x.txt\""));
  TString path;
  loc.GetPath(&path);
  EXPECT_EQ(Utf8(path), "D:\\quarnel-moved\\x.txt");
}

struct Connection {
  std::string remote, user, password;
  bool mount = false;
} seen;

unsigned Connect(const char* remote, const char* hostFolder, const char* user,
                 const char* password) {
  seen = {remote, user ? user : "-", password ? password : "-", seen.mount};
  if (seen.mount) std::filesystem::rename(std::string(hostFolder) + ".off", hostFolder);
  return seen.mount ? 0 : 1326;
}

TEST_F(LocHandleTest, NetworkHandleKeepsTheRemotePathAndReconnects) {
  const std::string unc = HostOf('C') + "/net";
  QuarnelSetUncRoot(unc.c_str());
  MakeHostFolder(unc + "/srv/share/dir");
  QuarnelSetDrive(u'N', (unc + "/srv/share").c_str());
  TLocHandle h = HandleOf(u"N:\\dir\\f.txt");
  const TString user(u"bob"), secret(u"s3cret");
  h.SetMountInfo(&user, &secret);
  EXPECT_EQ(Resolve(h, 0), u"\\\\srv\\share\\dir\\f.txt");

  std::filesystem::rename(unc + "/srv/share", unc + "/srv/share.off");  // disconnected
  ClearRecords();
  EXPECT_EQ(Resolve(h, 0), u"error -1116");
  EXPECT_TRUE(Logged(518,
                     "TLocHandle::GetFileLoc: UNetAddConnection failed, "
                     "\\\\srv\\share\\dir\\f.txt, winerr 67, error -1116"));
  QuarnelEnv()->netConnect = Connect;
  EXPECT_EQ(Resolve(h, 0), u"error -1017");
  EXPECT_EQ(seen.remote + " " + seen.user + " " + seen.password, "\\\\srv\\share bob s3cret");
  seen.mount = true;
  TFile file;
  EXPECT_NE(file.Open(&h, 0x1), 0) << "the share is back, the file not yet";
  EXPECT_EQ(file.Create(&h, 0x3), 0);
  TLocHandle again;
  EXPECT_EQ(file.GetLocHandle(&again), 0);
  TString path;
  again.GetPath(&path);
  EXPECT_EQ(Utf8(path), "\\\\srv\\share\\dir\\f.txt") << "a share's own path is its remote form";
  file.Close();
  EXPECT_EQ(file.Open(&h, 0x1), 0);

  char16_t remote[64];
  for (auto [local, length, err] : {std::tuple(u"N", 64u, 1200u),
                                    {u"C:", 64u, 2250u},
                                    {u"Q:", 64u, 2250u},
                                    {u"n:", 5u, 234u},
                                    {u"N:", 64u, 0u}})
    EXPECT_EQ(UNetGetConnection(local, remote, &length), err) << Utf8(local);
  EXPECT_EQ(Utf8(remote), "\\\\srv\\share");
  QuarnelEnv()->netConnect = nullptr;
  EXPECT_EQ(UNetAddConnection(u"\\\\nobody\\share", nullptr, nullptr), 53u);
  EXPECT_EQ(UNetAddConnection(u"\\\\srv", nullptr, nullptr), 67u);
}

}  // namespace
