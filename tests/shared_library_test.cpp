// Links libquarnel.so as a host does: everything used here must be exported,
// and the umbrella header must compile on its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "quarnel/quarnel.h"

namespace {

int g_lines = 0;
int CountLines(unsigned, const char*, const Args*) { return ++g_lines; }
int Keep(std::intptr_t v) { return v > 1; }

}  // namespace

// One call or more into each area of the library that the faces tests do not
// reach, through the shared object.
TEST(SharedLibrary, ExportsTheInterface) {
  void* p = MemAlloc(10);
  EXPECT_EQ(MemSize(p), 10u);
  MemFree(p);
  HookDebugLogfChar(CountLines);
  EXPECT_EQ(MapWindowsError(2), kErrFileNotFound);
  EXPECT_GT(g_lines, 0);
  HookDebugLogfChar(nullptr);
  const TString s(u"abcdef");
  TString line;
  line.SPrintf(u"%~d %s %S", 1234, "x", &s);
  EXPECT_TRUE(line.Identical(u"1234 x abcdef"));
  PersistHeader header;
  _initpersist(&header, 0x5374722E, 256, 256);
  EXPECT_EQ(_checkpersist(&header, 0x5374722E, 256, 256), 0);
  char16_t wide[4];
  EXPECT_EQ(UMultiByteToWideChar(kCp1252, 0, "\x80", 1, wide, 4), 1);
  EXPECT_EQ(wide[0], u'\u20ac');
  EXPECT_EQ(UCompareString(u"a", -1, u"B", -1, 0), -1);

  TMonitor monitor;
  EXPECT_EQ(monitor.Enter(), 1);
  EXPECT_EQ(*ThreadMonitorList(), &monitor);
  EXPECT_EQ(monitor.Exit(), 0);
  TList list;
  list.AddLast(1);
  list.AddLast(2);
  list.FilterIf(Keep);
  EXPECT_EQ(list.Count(), 1);
  RNList numbers;
  numbers.Add(7);
  EXPECT_EQ(numbers.Find(7), 0);
  EXPECT_EQ(TDate(2024, 2, 29, 12, 0, 0, 0).GetDOW(), 4);  // a Thursday, counted from Sunday = 0
  TTicker ticker(0x54657374);                              // 'Test'
  EXPECT_LT(ticker.GetMS(), 60000u);
  TString vellores(u"vellores.dll");
  EXPECT_EQ(DLLoadLib(&vellores), 0);
  TString message;
  message.SPrintf(u"%E", kErrFileNotFound);
  EXPECT_GT(message.Length(), 0);
  DLUnloadLib(&vellores);
}

// The library installs its crash handler when it is loaded; an assertion
// appends a report to the crash log the default resource module names, in the
// log folder, below the module's heading.
TEST(SharedLibrary, AssertionsWriteTheCrashReport) {
  const QuarnelEnvType saved = *QuarnelEnv();
  const std::filesystem::path folder = std::filesystem::temp_directory_path() /
                                       ("quarnel_shared_" + std::to_string(UGetCurrentThreadId()));
  std::filesystem::create_directories(folder);
  QuarnelEnv()->logFolder = folder.string();
  EXPECT_EQ(InstallCrashHandler(), 1);
  TString vellores(u"vellores.dll");
  ASSERT_EQ(DLLoadLib(&vellores), 0);
  Debug("shared", 12);
  DLUnloadLib(&vellores);
  std::ifstream in(folder / "assert_log.utx", std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  in.close();  // Windows removes no file a stream holds open
  EXPECT_EQ(text.str().rfind("Vellomarch assertion and exception log\r\nEach report", 0), 0u);
  EXPECT_NE(text.str().find("Error info: Assertion failure at \"shared-12\""), std::string::npos);
  EXPECT_NE(text.str().find("\r\nException code: E0000000 ASSERTION\r\n"), std::string::npos);
  *QuarnelEnv() = saved;
  std::filesystem::remove_all(folder);
}

// The file subsystem through the shared object: a drive mapped to a fresh
// folder, a file written and read back, the volume and the folder cleared.
TEST(SharedLibrary, ExportsFilesFoldersAndVolumes) {
  const std::filesystem::path root = std::filesystem::temp_directory_path() /
                                     ("quarnel-shared-" + std::to_string(UGetTickCount()));
  std::filesystem::create_directory(root);
  const std::string saved = QuarnelGetDrive(u'Y');
  ASSERT_EQ(QuarnelSetDrive(u'Y', root.string().c_str()), 1);
  TFolderLoc folder;
  TString path(u"Y:\\Data");
  folder.SetPath(&path);
  ASSERT_EQ(folder.Create(255), 0);
  TFileLoc loc;
  TString name(u"note.txt");
  loc.Set(&folder, &name);
  TFile file;
  ASSERT_EQ(file.Create(&loc, 0x3), 0);
  TString text(u"hello");
  EXPECT_EQ(file.Write(&text), 0);
  EXPECT_EQ(file.SetPosFromBegin(0), 0);
  unsigned count = 0;
  TString back;
  EXPECT_EQ(file.Read(&count, &back), 0);
  EXPECT_TRUE(back.Identical(u"hello"));
  EXPECT_EQ(file.Close(), 0);
  TVol vol;
  EXPECT_EQ(folder.GetVol(&vol), 0);
  NativVolInfo info;
  EXPECT_EQ(vol.GetInfo(&info), 0);
  EXPECT_EQ(folder.Delete(), 0);
  QuarnelSetDrive(u'Y', saved.c_str());
  EXPECT_TRUE(std::filesystem::is_empty(root));
  std::filesystem::remove(root);
}
