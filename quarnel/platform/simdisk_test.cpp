#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "tests/support/drive_fixture.h"

namespace {

using SimDisk = DriveTest;

}  // namespace

// A file created, written, flushed and written twice more: before each I/O,
// every state a crash can leave (absent: nullopt), in image order: none of
// the changes after the last flush, all of them, the last write torn in half,
// the first half of them.
TEST_F(SimDisk, CrashImagesKeepFlushedChangesAndSomeOfTheRest) {
  ASSERT_EQ(UDiskRecord(u"C:\\"), 1);
  const UHANDLE h = UCreateFile(u"C:\\f", kGenericRead | kGenericWrite, 0, kCreateAlways, 0);
  ASSERT_NE(h, kInvalidHandleValue);
  unsigned done = 0;
  ASSERT_EQ(UWriteFile(h, "abcd", 4, &done), 1);
  ASSERT_EQ(UFlushFileBuffers(h), 1);
  ASSERT_NE(USetFilePointer(h, 2, nullptr, kFileBegin), kInvalidSetFilePointer);
  ASSERT_EQ(UWriteFile(h, "XYZW", 4, &done), 1);
  ASSERT_EQ(UWriteFile(h, "12", 2, &done), 1);
  UCloseHandle(h);
  ASSERT_EQ(UDiskRecord(nullptr), 1);
  using S = std::optional<std::string>;
  const std::vector<std::vector<S>> expected = {
      {std::nullopt}, {std::nullopt, ""},         {std::nullopt, "abcd", "ab", ""},
      {"abcd"},       {"abcd", "abXYZW", "abXY"}, {"abcd", "abXYZW12", "abXYZW1", "abXYZW"},
  };
  ASSERT_EQ(UDiskIoCount(), 5);
  for (int io = 0; io <= 5; ++io) {
    const auto& images = expected[static_cast<std::size_t>(io)];
    ASSERT_EQ(UDiskCrashImages(io), static_cast<int>(images.size())) << io;
    for (std::size_t k = 0; k < images.size(); ++k) {
      ASSERT_EQ(UDiskBuildCrash(io, static_cast<int>(k), u"D:\\"), 1);
      const std::string host = Host(u"D:\\f");
      EXPECT_EQ(HostExists(host) ? S(ReadHost(host)) : std::nullopt, images[k]) << io << " " << k;
    }
  }
  EXPECT_EQ(UDiskCrashImages(6), 0);
  EXPECT_EQ(UDiskBuildCrash(5, 4, u"D:\\"), 0);
  UDiskReset();
}

// A file written beside another and moved over it with replace: a crash
// after the move leaves the old or the new bytes under the old name, and the
// new ones once every change is kept.
TEST_F(SimDisk, ReplacingMoveIsRecorded) {
  WriteHost(Host(u"C:\\p"), "old");
  ASSERT_EQ(UDiskRecord(u"C:\\"), 1);
  const UHANDLE h = UCreateFile(u"C:\\t", kGenericWrite, 0, kCreateAlways, 0);
  unsigned done = 0;
  ASSERT_EQ(UWriteFile(h, "new", 3, &done), 1);
  ASSERT_EQ(UFlushFileBuffers(h), 1);
  UCloseHandle(h);
  ASSERT_EQ(UMoveFileEx(u"C:\\t", u"C:\\p", kMoveFileReplaceExisting), 1);
  ASSERT_EQ(UDiskRecord(nullptr), 1);
  const int io = UDiskIoCount(), images = UDiskCrashImages(io);
  for (int image = 0; image < images; ++image) {
    ASSERT_EQ(UDiskBuildCrash(io, image, u"D:\\"), 1);
    const std::string p = ReadHost(Host(u"D:\\p"));
    EXPECT_TRUE(p == "old" || p == "new") << image;
    if (image == images - 1) {
      EXPECT_EQ(p, "new");  // every change kept
    }
  }
  UDiskReset();
}
