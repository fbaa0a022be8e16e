// Test support for the file subsystem: a test whose drives C: and D: are
// fresh temporary folders, mapped through the environment record's drive map.
//
// SetUp makes <temp>/quarnel-<random>/c and .../d, maps C: and D: to them,
// creates C:\Temp and points TMP at it, and makes C:\ the current folder.
// TearDown checks that every platform handle opened during the test was
// closed (a failure names the count), disarms the fault seam, restores the
// drive map, TMP and the current folder, and removes both folders. Nothing a
// test does through the library touches files outside them.
#ifndef QUARNEL_TESTS_SUPPORT_DRIVE_FIXTURE_H_
#define QUARNEL_TESTS_SUPPORT_DRIVE_FIXTURE_H_

#include <string>

#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tvol.h"
#include "tests/support/recording_hooks.h"

// Locations and volumes from a path, for tests.
TFolderLoc FolderAt(const char16_t* path);
TFileLoc FileAt(const char16_t* path);
TVol VolAt(const char16_t* path, int parse = 1);

class DriveTest : public RecordingTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Host folder of a mapped test drive ('C' or 'D').
  std::string HostOf(char drive) const;
  // Host path of a Windows path on a test drive ("C:\a\b" -> <c>/a/b), the
  // names as given.
  std::string Host(const std::u16string& winPath) const;

  // Host-side helpers that bypass the library, to prepare and inspect disks.
  static void WriteHost(const std::string& host, const std::string& bytes);
  static std::string ReadHost(const std::string& host);
  static bool HostExists(const std::string& host);
  static void MakeHostFolder(const std::string& host);
  // The lines logged, without MapError's detail lines (level 519).
  std::vector<LogLine> LoggedLines() const;
  // True when a line of that level and text was logged.
  bool Logged(unsigned level, const std::string& text) const;

  // Gives drive `drive` a volume label and serial (the files the volume calls read).
  void SetVolumeIdentity(char drive, const std::string& label, unsigned serial);

 private:
  std::string root_;
  std::string savedC_, savedD_;
  std::string savedTmp_;
  bool hadTmp_ = false;
  std::u16string savedCurrent_;
  int handlesAtStart_ = 0;
};

#endif  // QUARNEL_TESTS_SUPPORT_DRIVE_FIXTURE_H_
