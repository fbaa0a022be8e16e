#include "quarnel/platform/env.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/codepage.h"
#include "quarnel/platform/lasterror.h"
#include "tests/support/env_vars.h"
#include "tests/support/helpers.h"

namespace {

namespace fs = std::filesystem;

class EnvTest : public RecordingTest {
 protected:
  ScopedEnv saved_;
};

// LC_ALL wins over LC_CTYPE, which wins over LANG; an empty one is skipped.
// The codeset of the name chooses UTF-8 (65001) or 1252.
TEST_F(EnvTest, FirstNonEmptyLocaleVariableSetsThePage) {
  QUARNEL_LINUX_ONLY("the page follows the locale variables; Windows names its own");
  struct Row {
    const char* lcAll;
    const char* lcCtype;
    const char* lang;
    unsigned acp;
  };
  const Row rows[] = {
      {"en_US.UTF-8", "C", "C", 65001},        {"C", "en_US.UTF-8", "en_US.UTF-8", 1252},
      {"", "en_US.UTF-8", "C", 65001},         {nullptr, nullptr, "de_DE.UTF-8", 65001},
      {nullptr, "POSIX", "de_DE.UTF-8", 1252}, {nullptr, nullptr, nullptr, 1252},
      {nullptr, nullptr, "C.utf8", 65001},     {nullptr, nullptr, "de_DE.utf-8@euro", 65001},
      {nullptr, nullptr, "ja_JP.UTF8", 65001}, {nullptr, nullptr, "en_US.ISO-8859-1", 1252},
      {nullptr, nullptr, "de_DE@euro", 1252},  {nullptr, nullptr, "en_US.UTF-16", 1252},
      {nullptr, nullptr, "fr_FR.utf8x", 1252},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.lcAll ? r.lcAll : "-") + " / " + (r.lcCtype ? r.lcCtype : "-") +
                 " / " + (r.lang ? r.lang : "-"));
    ScopedEnvVars vars;
    vars.Set("LC_ALL", r.lcAll);
    vars.Set("LC_CTYPE", r.lcCtype);
    vars.Set("LANG", r.lang);
    const QuarnelEnvType env = QuarnelDefaultEnv();
    EXPECT_EQ(env.acp, r.acp);
    EXPECT_EQ(env.lcid, 0u);
  }
}

TEST_F(EnvTest, FoldersFollowHomeAndXdgStateHome) {
  QUARNEL_LINUX_ONLY("HOME and XDG_STATE_HOME");
  ScopedEnvVars vars;
  vars.Set("HOME", "/home/vello/");
  vars.Set("XDG_STATE_HOME", nullptr);
  QuarnelEnvType env = QuarnelDefaultEnv();
  EXPECT_EQ(env.userFolder, "/home/vello");
  EXPECT_EQ(env.logFolder, "/home/vello/.local/state/" + env.appName);

  vars.Set("XDG_STATE_HOME", "/var/state/");
  env = QuarnelDefaultEnv();
  EXPECT_EQ(env.logFolder, "/var/state/" + env.appName);

  // A relative XDG_STATE_HOME is ignored, as the XDG rules ask.
  vars.Set("XDG_STATE_HOME", "state");
  env = QuarnelDefaultEnv();
  EXPECT_EQ(env.logFolder, "/home/vello/.local/state/" + env.appName);
}

TEST_F(EnvTest, FoldersFollowUserProfileAndLocalAppData) {
  QUARNEL_WINDOWS_ONLY("USERPROFILE and LOCALAPPDATA");
  ScopedEnvVars vars;
  vars.Set("USERPROFILE", "C:\\Users\\vello\\");
  vars.Set("LOCALAPPDATA", "C:\\Users\\vello\\AppData\\Local");
  const QuarnelEnvType env = QuarnelDefaultEnv();
  EXPECT_EQ(env.userFolder, "C:\\Users\\vello");
  EXPECT_EQ(env.logFolder, "C:\\Users\\vello\\AppData\\Local\\" + env.appName);
}

TEST_F(EnvTest, DefaultsDescribeThisProcess) {
  const QuarnelEnvType env = QuarnelDefaultEnv();
  EXPECT_EQ(env.appName, "env_test");  // the program's own name
  EXPECT_TRUE(fs::exists(fs::path(env.appFolder) / (kOnWindows ? "env_test.exe" : "env_test")))
      << env.appFolder;
  EXPECT_EQ(fs::path(env.workFolder), fs::current_path());
  EXPECT_EQ(env.systemVersion.rfind(kOnWindows ? "Windows " : "Linux ", 0), 0u)
      << env.systemVersion;
  EXPECT_GE(env.osMajor, 3);
  if (!kOnWindows) {
    EXPECT_FALSE(env.systemExtra.empty());  // Windows: the service pack, often none
  }
  EXPECT_TRUE(env.appVersion.empty());
  EXPECT_GT(env.availPhysMemory, 0u);
  EXPECT_GT(env.totalPhysMemory, 0u);
  EXPECT_LE(env.availPhysMemory, env.totalPhysMemory);
}

// The host's record gives the code page; setting the record from itself
// changes nothing.
TEST_F(EnvTest, HostSetsTheRecord) {
  QuarnelEnvType env = *QuarnelEnv();
  env.appName = "Vellomarch";
  env.acp = 932;
  QuarnelSetEnv(env);
  EXPECT_EQ(UGetACP(), 932u);
  QuarnelSetEnv(*QuarnelEnv());
  EXPECT_EQ(QuarnelEnv()->appName, "Vellomarch");
}

TEST_F(EnvTest, RefreshFromThreadsWhileOthersRead) {
  QuarnelEnv()->availPhysMemory = 1;
  const std::uint64_t now = QuarnelRefreshAvailMemory();
  EXPECT_GT(now, 1u);
  EXPECT_EQ(QuarnelEnv()->availPhysMemory, now);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) {
        if (t % 2)
          QuarnelRefreshAvailMemory();
        else
          EXPECT_GT(QuarnelAvailPhysMemory(), 0u);
      }
    });
  }
  for (auto& th : threads) th.join();
}

TEST_F(EnvTest, MakeLogFolderCreatesMissingParents) {
  const fs::path root = fs::temp_directory_path() / ("quarnel_env_" + std::to_string(getpid()));
  fs::remove_all(root);
  QuarnelEnv()->logFolder = (root / "state" / "app").string();
  EXPECT_EQ(QuarnelMakeLogFolder(), 1);
  EXPECT_TRUE(fs::is_directory(root / "state" / "app"));
  EXPECT_EQ(QuarnelMakeLogFolder(), 1);  // already there

  // A file where a folder should be.
  std::ofstream(root / "file") << "x";
  QuarnelEnv()->logFolder = (root / "file" / "app").string();
  USetLastError(0);
  EXPECT_EQ(QuarnelMakeLogFolder(), 0);
  EXPECT_NE(UGetLastError(), 0u);
  QuarnelEnv()->logFolder = (root / "file").string();
  USetLastError(0);
  EXPECT_EQ(QuarnelMakeLogFolder(), 0);
  EXPECT_EQ(UGetLastError(), 267u);

  QuarnelEnv()->logFolder.clear();
  EXPECT_EQ(QuarnelMakeLogFolder(), 0);
  EXPECT_EQ(UGetLastError(), 3u);
  fs::remove_all(root);
}

}  // namespace
