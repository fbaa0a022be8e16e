#include "quarnel/fileio/tfile.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/testchild.h"
#include "tests/support/drive_fixture.h"
#include "tests/support/platform_cases.h"

namespace {

class Files : public DriveTest {
 protected:
  const unsigned char* Bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }
};

}  // namespace

// Random writes, reads, moves and truncations checked against a byte vector.
TEST_F(Files, ReadsWritesAndPositionsAgreeWithAModel) {
  TFileLoc loc = FileAt(u"C:\\model.bin");
  TFile f;
  ASSERT_EQ(f.Create(&loc, 0x3), 0);
  std::vector<unsigned char> model;
  std::uint64_t pos = 0;
  std::mt19937 rng(7);
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(step);
    switch (rng() % 6) {
      case 0: {  // write at the position
        std::vector<unsigned char> data(rng() % 5000);
        for (auto& b : data) b = static_cast<unsigned char>(rng());
        unsigned n = static_cast<unsigned>(data.size());
        ASSERT_EQ(f.Write(&n, data.data()), 0);
        ASSERT_EQ(n, data.size());
        if (model.size() < pos + data.size()) model.resize(pos + data.size(), 0);
        std::copy(data.begin(), data.end(), model.begin() + static_cast<long>(pos));
        pos += data.size();
        break;
      }
      case 1: {  // read at the position
        unsigned n = rng() % 6000;
        std::vector<unsigned char> got(n);
        const unsigned want =
            pos >= model.size()
                ? 0
                : static_cast<unsigned>(std::min<std::uint64_t>(n, model.size() - pos));
        const int r = f.Read(&n, got.data());
        ASSERT_EQ(n, want);
        ASSERT_EQ(r, want == 0 ? kErrEndOfFile : 0);
        ASSERT_TRUE(
            std::equal(got.begin(), got.begin() + want, model.begin() + static_cast<long>(pos)));
        pos += want;
        break;
      }
      case 2:
        pos = rng() % (model.size() + 100);
        ASSERT_EQ(f.SetPosFromBegin(pos), 0);
        break;
      case 3: {  // a move back from the current position, as two's complement
        const std::uint64_t back = rng() % (pos + 1);
        ASSERT_EQ(f.SetPosFromCurrent(~back + 1), 0);
        pos -= back;
        break;
      }
      case 4: {
        const std::uint64_t back = rng() % (model.size() + 1);
        ASSERT_EQ(f.SetPosFromEnd(~back + 1), 0);
        pos = model.size() - back;
        break;
      }
      case 5: {
        if (rng() % 4 == 0) {
          const std::uint64_t size = rng() % (model.size() + 1000);
          ASSERT_EQ(f.SetEOF(size), 0);
          model.resize(size, 0);
          pos = size;
        }
        std::uint64_t size = 0, at = 0;
        ASSERT_EQ(f.GetEOF(&size), 0);
        ASSERT_EQ(size, model.size());
        ASSERT_EQ(f.GetPosition(&at), 0);
        ASSERT_EQ(at, pos);  // GetEOF leaves the position where it was
        break;
      }
    }
  }
  ASSERT_EQ(f.Close(), 0);
  const std::string disk = ReadHost(Host(u"C:\\model.bin"));
  EXPECT_EQ(std::vector<unsigned char>(disk.begin(), disk.end()), model);
  EXPECT_TRUE(LoggedLines().empty());
}

TEST_F(Files, TextAndBlockReadsAndWrites) {
  WriteHost(Host(u"C:\\big.txt"), std::string(20000, 'a'));
  TFileLoc big = FileAt(u"C:\\big.txt");
  TFile f;
  ASSERT_EQ(f.Open(&big, 0x1), 0);
  TString text;
  unsigned n = 0;
  EXPECT_EQ(f.Read(&n, &text), 0);
  EXPECT_EQ(n, 16383u);
  EXPECT_EQ(text.Length(), 16383);
  TMemory block(1);
  ASSERT_EQ(block.SetSize(100), 0);
  n = 5000;  // at most the block's size
  EXPECT_EQ(f.Read(&n, &block), 0);
  EXPECT_EQ(n, 100u);
  EXPECT_EQ(f.SetPosFromEnd(0), 0);
  n = 10;
  EXPECT_EQ(f.Read(&n, block.MemPtr()), kErrEndOfFile);
  EXPECT_EQ(n, 0u);
  EXPECT_TRUE(LoggedLines().empty());  // the end of the file is not logged
  // Text out: the narrow text, and the 16-bit text without mark or terminator.
  TFileLoc out = FileAt(u"C:\\out.txt");
  ASSERT_EQ(f.Create(&out, 0x2), 0);
  TString hello(u"Hello");
  EXPECT_EQ(f.Write(&hello), 0);
  n = 0;
  EXPECT_EQ(f.WriteUnicode(&n, &hello), 0);
  EXPECT_EQ(n, 10u);
  n = 4;
  EXPECT_EQ(f.Write(&n, &block), 0);
  EXPECT_EQ(f.Close(), 0);
  EXPECT_EQ(ReadHost(Host(u"C:\\out.txt")), std::string("HelloH\0e\0l\0l\0o\0aaaa", 19));
  ASSERT_EQ(f.Open(&out, 0x1), 0);
  n = 0;
  EXPECT_EQ(f.Read(&n, &text), 0);
  EXPECT_EQ(n, 19u);
  EXPECT_EQ(Utf8(text), "HelloH");  // the text ends at the first zero byte
}

// A second process holds the file open for writing: a read-only open gets in
// through its retry sharing writing; a second writer is refused.
TEST_F(Files, OpenRetriesPastAnotherProcessesWriter) {
  WriteHost(Host(u"C:\\log.txt"), "line\n");
  TFileLoc loc = FileAt(u"C:\\log.txt");
  UTestChild child;
  ASSERT_EQ(child.Start(
                [](void* at) {
                  static TFile writer;  // stays open in the child until it is released
                  return writer.Open(static_cast<TFileLoc*>(at), 0x3);
                },
                &loc),
            0);
  TFile reader, writer;
  EXPECT_EQ(reader.Open(&loc, 0x1), 0);
  unsigned n = 4;
  unsigned char buf[4];
  EXPECT_EQ(reader.Read(&n, buf), 0);
  ClearRecords();
  EXPECT_EQ(writer.Open(&loc, 0x3), kErrBusy);
  EXPECT_EQ(
      LoggedLines(),
      (std::vector<LogLine>{
          {518, "", "TFile::Open: UCreateFile failed, C:\\log.txt, winerr 32, error -1020"}}));
  EXPECT_FALSE(writer.IsValid());
  child.Release();
  EXPECT_EQ(writer.Open(&loc, 0x3), 0);  // the reader got in sharing writing
}

// Faults at the n-th write, a failing flush, truncation and close: the
// mapped code, the exact line, and the file as the calls before left it.
TEST_F(Files, PlatformFaultsReachTheCaller) {
  TFileLoc loc = FileAt(u"C:\\f.bin");
  TFile f;
  ASSERT_EQ(f.Create(&loc, 0x3), 0);
  UFailCall(UCall::kWriteFile, 3, 112);
  int results[4];
  for (int& r : results) {
    unsigned n = 4;
    r = f.Write(&n, Bytes("abcd"));
  }
  EXPECT_EQ(results[2], kErrDiskFull);
  EXPECT_EQ(results[0] | results[1] | results[3], 0);
  UFailCall(UCall::kFlushFileBuffers, 1, 29);
  EXPECT_EQ(f.Flush(), kErrWriteFault);
  EXPECT_EQ(f.Flush(), 0);
  UFailCall(UCall::kSetEndOfFile, 1, 5);
  EXPECT_EQ(f.SetEOF(2), kErrAccessDenied);
  UFailCall(UCall::kSetFilePointer, 1, 87);
  std::uint64_t size = 0;
  EXPECT_EQ(f.GetEOF(&size), kErrBadParameter);
  UFailCall(UCall::kCloseHandle, 1, 6);
  EXPECT_EQ(f.Close(), kErrInvalidHandle);
  EXPECT_TRUE(f.IsValid());  // the handle is kept
  EXPECT_EQ(f.GetEOF(&size), 0);
  EXPECT_EQ(size, 12u);
  EXPECT_EQ(f.Close(), 0);
  EXPECT_EQ(ReadHost(Host(u"C:\\f.bin")), "abcdabcdabcd");
  EXPECT_EQ(
      LoggedLines(),
      (std::vector<LogLine>{
          {518, "", "TFile::Write: WriteFile failed, C:\\f.bin, winerr 112, error -1115"},
          {514, "", "TFile::Flush: FlushFileBuffers failed, C:\\f.bin, winerr 29, error -1108"},
          {518, "", "TFile::SetEOF: SetEndOfFile failed, C:\\f.bin, winerr 5, error -1017"},
          {518, "", "TFile::GetPosition: SetFilePointer failed, C:\\f.bin, winerr 87, error -1010"},
          {518, "", "TFile::Close: CloseHandle failed, C:\\f.bin, winerr 6, error -1100"}}));
  // Create on an open file closes it first; a close that fails asserts.
  ASSERT_EQ(f.Create(&loc, 0x3), 0);
  const UHANDLE first = f.Handle();
  UFailCall(UCall::kCloseHandle, 1, 6);
  EXPECT_EQ(f.Create(&loc, 0x2), kErrBusy);  // the old handle still denies sharing
  EXPECT_EQ(Assertions(), (std::vector<AssertionSeen>{{"fileio", 2708, ""}}));
  EXPECT_TRUE(UCloseHandle(first));
  EXPECT_EQ(f.Create(&loc, 0x2), 0);
  EXPECT_EQ(f.Close(), 0);
}

TEST_F(Files, LockAttributesInfoAndSameness) {
  WriteHost(Host(u"C:\\doc.txt"), "12345");
  TFileLoc loc = FileAt(u"C:\\doc.txt");
  TFile f;
  f.Set(&loc);
  EXPECT_EQ(f.Lock(), 0);
  EXPECT_EQ(UGetFileAttributes(u"C:\\doc.txt"), 0x20u);  // Lock leaves the attributes as they were
  EXPECT_EQ(f.IsLocked(), 0);
  ASSERT_TRUE(USetFileAttributes(u"C:\\doc.txt", kFileAttributeReadOnly));
  EXPECT_EQ(f.IsLocked(), kErrWriteProtected);
  // Mode 0x4 opens a read-only file read-only; writing is then refused.
  unsigned n = 1;
  if (!WineDiffers(kWineRootWritesReadOnly)) {
    EXPECT_EQ(f.Open(&loc, 0x4 | 0x1), 0);
    EXPECT_EQ(f.Write(&n, Bytes("x")), kErrAccessDenied);
    EXPECT_EQ(f.Close(), 0);
    EXPECT_EQ(f.Open(&loc, 0x2), kErrAccessDenied);
  }
  EXPECT_EQ(f.Unlock(), 0);
  EXPECT_EQ(f.IsLocked(), 0);
  // Find information completed from the handle: the size as written so far.
  ASSERT_EQ(f.Open(&loc, 0x3), 0);
  ASSERT_EQ(f.SetPosFromEnd(0), 0);
  n = 3;
  ASSERT_EQ(f.Write(&n, Bytes("678")), 0);
  VNativNodeInfo info;
  EXPECT_EQ(f.GetInfo(&info), 0);
  EXPECT_EQ(info.GetSize(), 8u);
  EXPECT_EQ(info.linkCount, 1u);
  unsigned serial = 0;
  ASSERT_EQ(VolAt(u"C:\\").GetSerialNo(&serial), 0);
  EXPECT_EQ(info.volumeSerial, serial);
  TString name;
  EXPECT_EQ(f.GetName(&name), 0);
  EXPECT_EQ(Utf8(name), "doc.txt");
  EXPECT_EQ(f.Close(), 0);
  TFileLoc copy = FileAt(u"D:\\copy.txt");
  EXPECT_EQ(f.Copy(&copy), 0);
  EXPECT_EQ(ReadHost(Host(u"D:\\copy.txt")), "12345678");
  // Sameness: equal paths, or equal full paths; the case counts.
  TFileLoc roundabout = FileAt(u"C:\\x\\..\\doc.txt");
  TFileLoc upper = FileAt(u"C:\\DOC.TXT");
  EXPECT_TRUE(f.RSame(&loc));
  EXPECT_TRUE(f.RSame(&roundabout));
  EXPECT_FALSE(f.RSame(&upper));
  EXPECT_FALSE(f.RSame(&copy));
  TFileLoc bad = FileAt(u"C:\\a|b");
  EXPECT_FALSE(f.RSame(&bad));
}

TEST_F(Files, BadInputGivesCodesNotCrashes) {
  TFile f;
  unsigned n = 4;
  unsigned char buf[4];
  EXPECT_EQ(f.Read(&n, buf), kErrInvalidHandle);  // nothing open
  EXPECT_EQ(f.Read(nullptr, buf), kErrBadParameter);
  EXPECT_EQ(f.Create(static_cast<const TFileLoc*>(nullptr), 0x3), kErrBadParameter);
  struct Row {
    const char16_t* path;
    int code;
  } rows[] = {
      {u"", kErrFileNotFound},
      {u"C:\\a<b.txt", kErrInvalidName},
      {u"C:\\a\x07.txt", kErrInvalidName},
      {u"Q:\\x.txt", kErrFileNotFound},
      {u"\\\\srv", kErrFileNotFound},
      {u"C:\\Temp", kErrAccessDenied},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(Utf8(std::u16string(row.path)));
    TFileLoc loc = FileAt(row.path);
    EXPECT_EQ(f.Create(&loc, 0x3), row.code);
    EXPECT_FALSE(f.IsValid());
  }
  // ".." at a root stays at the root: the file lands inside the drive.
  TFileLoc up = FileAt(u"C:\\..\\..\\..\\escape.txt");
  ASSERT_EQ(f.Create(&up, 0x2), 0);
  EXPECT_EQ(f.Close(), 0);
  EXPECT_TRUE(HostExists(HostOf('C') + "/escape.txt"));
}
