#include "tests/support/drive_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/testchild.h"

namespace fs = std::filesystem;

namespace {
constexpr char kRootVariable[] = "QUARNEL_TEST_DRIVE_ROOT";
}  // namespace

// A test child started again (Windows) runs the same test, with the parent's
// folders as its drives.
void DriveTest::SetUp() {
  RecordingTest::SetUp();
  const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
  UTestChild::SetRerunArguments(
      ("--gtest_filter=" + std::string(test->test_suite_name()) + "." + test->name()).c_str());
  const char* parentRoot = std::getenv(kRootVariable);
  std::random_device rd;
  if (UTestChild::InChild() && parentRoot != nullptr) root_ = parentRoot;
  while (root_.empty()) {
    char name[40];
    std::snprintf(name, sizeof name, "quarnel-%08x", static_cast<unsigned>(rd()));
    const fs::path candidate = fs::temp_directory_path() / name;
    if (fs::create_directory(candidate)) {
      root_ = candidate.string();
      break;
    }
  }
  setenv(kRootVariable, root_.c_str(), 1);
  fs::create_directory(root_ + "/c");
  fs::create_directory(root_ + "/d");
  fs::create_directory(root_ + "/c/Temp");
  savedC_ = QuarnelGetDrive(u'C');
  savedD_ = QuarnelGetDrive(u'D');
  QuarnelSetDrive(u'C', (root_ + "/c").c_str());
  QuarnelSetDrive(u'D', (root_ + "/d").c_str());
  if (const char* tmp = std::getenv("TMP")) {
    hadTmp_ = true;
    savedTmp_ = tmp;
  }
  setenv("TMP", (root_ + "/c/Temp").c_str(), 1);
  char16_t cur[4096];
  const unsigned n = UGetCurrentDirectory(4096, cur);
  savedCurrent_.assign(cur, n < 4096 ? n : 0);
  USetCurrentDirectory(u"C:\\");
  handlesAtStart_ = quarnel_internal::UOpenHandleCount();
}

void DriveTest::TearDown() {
  EXPECT_EQ(quarnel_internal::UOpenHandleCount(), handlesAtStart_)
      << "platform handles left open by the test";
  UClearFaults();
  if (!savedCurrent_.empty()) USetCurrentDirectory(savedCurrent_.c_str());
  if (hadTmp_) {
    setenv("TMP", savedTmp_.c_str(), 1);
  } else {
    unsetenv("TMP");
  }
  QuarnelSetDrive(u'C', savedC_.c_str());
  QuarnelSetDrive(u'D', savedD_.c_str());
  unsetenv(kRootVariable);
  std::error_code ec;
  // Read-only folders are made writable so that the whole tree goes.
  for (auto it = fs::recursive_directory_iterator(root_, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
#if defined(_WIN32)
  // In the long form: some tests make paths longer than the classic limit.
  fs::remove_all(fs::path("\\\\?\\" + fs::absolute(root_).make_preferred().string()), ec);
#else
  fs::remove_all(root_, ec);
#endif
  RecordingTest::TearDown();
}

std::string DriveTest::HostOf(char drive) const {
  return root_ + (drive == 'C' || drive == 'c' ? "/c" : "/d");
}

std::string DriveTest::Host(const std::u16string& winPath) const {
  std::string out = HostOf(static_cast<char>(winPath[0]));
  const std::string rest = Utf8(winPath.substr(2));
  for (char c : rest) out += c == '\\' ? '/' : c;
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

void DriveTest::WriteHost(const std::string& host, const std::string& bytes) {
  std::ofstream out(host, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::string DriveTest::ReadHost(const std::string& host) {
  std::ifstream in(host, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool DriveTest::HostExists(const std::string& host) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(host, ec));
}

void DriveTest::MakeHostFolder(const std::string& host) { fs::create_directories(host); }

void DriveTest::SetVolumeIdentity(char drive, const std::string& label, unsigned serial) {
  WriteHost(HostOf(drive) + "/.windows-label", label + "\n");
  char text[16];
  std::snprintf(text, sizeof text, "%08X\n", serial);
  WriteHost(HostOf(drive) + "/.windows-serial", text);
}

std::vector<LogLine> DriveTest::LoggedLines() const {
  std::vector<LogLine> out;
  for (const LogLine& l : Lines())
    if (l.level != 519) out.push_back(l);
  return out;
}

bool DriveTest::Logged(unsigned level, const std::string& text) const {
  for (const LogLine& l : Lines())
    if (l.level == level && l.text == text) return true;
  return false;
}

TFolderLoc FolderAt(const char16_t* path) {
  TFolderLoc f;
  TString p(path);
  f.SetPath(&p);
  return f;
}

TFileLoc FileAt(const char16_t* path) {
  TFileLoc f;
  TString p(path);
  f.SetPath(&p);
  return f;
}

TVol VolAt(const char16_t* path, int parse) {
  TVol v;
  TString p(path);
  v.Set(&p, parse);
  return v;
}
