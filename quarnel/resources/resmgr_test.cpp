#include "quarnel/resources/resmgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/module.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

namespace fs = std::filesystem;

const std::string kDir = QUARNEL_TEST_MODULE_DIR;
const std::string kHostFallback = "Host fallback message";  // list 16000 '0000' of this program

// A module's file: on Windows its full name as the loader reports it.
std::string Path(const std::string& module) {
  if (kOnWindows) return fs::absolute(fs::path(kDir + "/qnt_" + module + ".dll")).string();
  return kDir + "/libqnt_" + module + ".so";
}

TString T(const std::string& s) {
  const std::u16string u(s.begin(), s.end());
  return TString(u.c_str(), static_cast<short>(u.size()));
}

constexpr unsigned Key(const char (&k)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(k[3]));
}

std::string Load(int listId, unsigned key) {
  TString s;
  s.LoadKString(static_cast<unsigned short>(listId), key);
  return Utf8(s);
}

std::string ErrorText(int err) {
  TString s;
  s.SPrintf(u"%E", err);
  return Utf8(s);
}

// A string list as modules carry it.
std::vector<unsigned char> MakeList(const std::vector<std::pair<std::string, std::string>>& entries,
                                    bool terminate = true) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const unsigned len = static_cast<unsigned>(4 + text.size());
    bytes.push_back(static_cast<unsigned char>(len & 0xFF));
    bytes.push_back(static_cast<unsigned char>(len >> 8));
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  if (terminate) {
    bytes.push_back(0xFF);
    bytes.push_back(0xFF);
  }
  return bytes;
}

class ResmgrTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    savedApp_ = QuarnelEnv()->appFolder;
  }
  void TearDown() override {
    UClearFaults();
    for (auto it = names_.rbegin(); it != names_.rend(); ++it) {
      TString name = T(*it);
      while (UGetModuleHandle(name.Text()) != nullptr) DLUnloadLib(&name);
    }
    SetGlobalScaleFactor(1000);
    QuarnelEnv()->appFolder = savedApp_;
    RecordingTest::TearDown();
  }

  int DL(const std::string& name) {
    names_.push_back(name);
    TString n = T(name);
    return DLLoadLib(&n);
  }
  int DL(const std::string& name, int firstRes, int lastRes, int firstErr, int lastErr) {
    names_.push_back(name);
    TString n = T(name);
    return DLLoadLib(&n, firstRes, lastRes, firstErr, lastErr);
  }
  void Unload(const std::string& name) {
    TString n = T(name);
    DLUnloadLib(&n);
  }
  int Check(const std::string& name) {
    TString n = T(name);
    return DLCheckLib(&n);
  }
  static bool IsLoaded(const std::string& name) {
    return UGetModuleHandle(T(name).Text()) != nullptr;
  }
  static std::vector<RMRangeRecord> Ranges() {
    std::vector<RMRangeRecord> r(static_cast<std::size_t>(RMGetRanges(nullptr, 0)));
    RMGetRanges(r.data(), static_cast<int>(r.size()));
    return r;
  }

  std::vector<std::string> names_;
  std::string savedApp_;
};

void ExpectRange(const RMRangeRecord& r, HMODULE module, int a, int b, int c, int d) {
  EXPECT_EQ(r.module, module);
  EXPECT_EQ(r.firstRes, a);
  EXPECT_EQ(r.lastRes, b);
  EXPECT_EQ(r.firstErr, c);
  EXPECT_EQ(r.lastErr, d);
}

TEST_F(ResmgrTest, LoadsAModuleAndItsRanges) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_TRUE(Lines().empty());
  const auto ranges = Ranges();
  ASSERT_EQ(ranges.size(), 2u);
  ExpectRange(ranges[0], nullptr, 16000, 16001, -1000, -2000);  // the library's own entry
  ExpectRange(ranges[1], UGetModuleHandle(T(Path("full")).Text()), 20000, 20100, -3000, -3100);

  unsigned short list = 0;
  unsigned key = 0;
  EXPECT_EQ(RMGetErrID(-3007, &list, &key), 1);
  EXPECT_EQ(list, 20099);
  EXPECT_EQ(key, Key("0007"));
  EXPECT_EQ(ErrorText(-3007), "Full module error seven");
  EXPECT_EQ(ErrorText(-3000), "Full module error zero");
  // A code of the module's range without a message of its own: the fallback.
  EXPECT_EQ(ErrorText(-3001), kHostFallback);

  Unload(Path("full"));
  EXPECT_FALSE(IsLoaded(Path("full")));
  ASSERT_EQ(Ranges().size(), 1u);
  EXPECT_EQ(RMGetErrID(-3007, &list, &key), 0);
  EXPECT_EQ(ErrorText(-3007), kHostFallback);
}

TEST_F(ResmgrTest, ErrorIdsAndKeys) {
  ASSERT_EQ(DL(Path("noid"), 50000, 50100, -20000, -40000), kErrNone);
  const struct {
    int err;
    int found;
    int list;
    const char* key;
  } rows[] = {
      {-1000, 1, 16000, "0000"},  {-1005, 1, 16000, "0005"},  {-1999, 1, 16000, "0999"},
      {-2000, 0, 0, nullptr},     {-999, 0, 0, nullptr},      {0, 0, 0, nullptr},
      {-20000, 1, 50099, "0000"}, {-32345, 1, 50099, "2345"},  // only the lowest four digits
      {-39999, 1, 50099, "9999"}, {-40000, 0, 0, nullptr},    {-2001, 0, 0, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.err);
    unsigned short list = 1;
    unsigned key = 1;
    EXPECT_EQ(RMGetErrID(row.err, &list, &key), row.found);
    EXPECT_EQ(list, row.list);
    EXPECT_EQ(key, row.key ? Key(*reinterpret_cast<const char(*)[5]>(row.key)) : 0u);
  }
}

// The conflict rules, old entry first, with two modules that carry no id
// resource and are entered with the ranges given.
TEST_F(ResmgrTest, RangeConflictsAreHalfOpen) {
  struct Row {
    int oldRange[4];
    int newRange[4];
    const char* conflict;  // null, "resource" or "error"
  };
  const Row rows[] = {
      {{20000, 20100, 0, 0}, {20100, 20200, 0, 0}, nullptr},     // touching above
      {{20000, 20100, 0, 0}, {19900, 20000, 0, 0}, nullptr},     // touching below
      {{20000, 20100, 0, 0}, {20050, 20300, 0, 0}, "resource"},  // first inside
      {{20000, 20100, 0, 0}, {20000, 20100, 0, 0}, "resource"},  // the same range
      {{20000, 20100, 0, 0}, {20099, 20200, 0, 0}, "resource"},
      {{20000, 20100, 0, 0}, {19900, 20001, 0, 0}, "resource"},  // last inside
      {{20000, 20100, 0, 0}, {19000, 21000, 0, 0}, nullptr},     // around it: not seen, as required
      {{0, 0, 0, 0}, {20000, 20100, 0, 0}, nullptr},             // no range never conflicts
      {{20000, 20100, 0, 0}, {0, 0, 0, 0}, nullptr},
      {{0, 0, -3000, -3100}, {0, 0, -3100, -3200}, nullptr},  // touching below
      {{0, 0, -3000, -3100}, {0, 0, -2900, -3000}, nullptr},  // touching above
      {{0, 0, -3000, -3100}, {0, 0, -3050, -3300}, "error"},  // first inside
      {{0, 0, -3000, -3100}, {0, 0, -3000, -3100}, "error"},
      {{0, 0, -3000, -3100}, {0, 0, -2900, -3001}, "error"},  // last inside
      {{0, 0, -3000, -3100}, {0, 0, -2000, -4000}, nullptr},  // around it
      {{0, 0, 0, 0}, {0, 0, -3000, -3100}, nullptr},
      {{20000, 20100, -3000, -3100}, {20100, 20200, -3050, -3150}, "error"},
      {{20000, 20100, -3000, -3100}, {20050, 20200, -3050, -3150}, "resource"},  // checked first
  };
  const std::string a = Path("noid");
  const std::string b = Path("noid2");
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.newRange[0]) + ".." + std::to_string(row.newRange[1]) + " " +
                 std::to_string(row.newRange[2]) + ".." + std::to_string(row.newRange[3]));
    ASSERT_EQ(DL(a, row.oldRange[0], row.oldRange[1], row.oldRange[2], row.oldRange[3]), kErrNone);
    ClearRecords();
    const int err = DL(b, row.newRange[0], row.newRange[1], row.newRange[2], row.newRange[3]);
    std::vector<LogLine> expected = {{515, "", "DLLoadLib: no id resource in \"" + b + "\""}};
    if (row.conflict == nullptr) {
      EXPECT_EQ(err, kErrNone);
      EXPECT_TRUE(IsLoaded(b));
    } else {
      const bool res = std::string(row.conflict) == "resource";
      const int* n = row.newRange + (res ? 0 : 2);
      const int* o = row.oldRange + (res ? 0 : 2);
      char line[512];
      std::snprintf(line, sizeof line,
                    "ResErrAlloc::Add: new \"%s\" (%d..%d) has %s conflict with \"%s\" (%d..%d)",
                    b.c_str(), n[0], n[1], row.conflict, a.c_str(), o[0], o[1]);
      expected.push_back({517, "", line});
      EXPECT_EQ(err, kErrModuleConflict);
      EXPECT_FALSE(IsLoaded(b));
    }
    EXPECT_EQ(Lines(), expected);
    Unload(b);
    Unload(a);
  }
}

TEST_F(ResmgrTest, TouchingModulesLoadAndOverlappingOnesAreRefused) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_TRUE(Lines().empty());
  // -3100 is the touching module's, not the full one's: its list 20199.
  EXPECT_EQ(ErrorText(-3101), "Touch module error one");
  EXPECT_EQ(ErrorText(-3099), kHostFallback);

  EXPECT_EQ(DL(Path("overlap")), kErrModuleConflict);
  EXPECT_EQ(DL(Path("errclash")), kErrModuleConflict);
  EXPECT_EQ(
      Lines(),
      (std::vector<LogLine>{
          {517, "",
           "ResErrAlloc::Add: new \"" + Path("overlap") +
               "\" (20050..20300) has resource conflict with \"" + Path("full") +
               "\" (20000..20100)"},
          {517, "",
           "ResErrAlloc::Add: new \"" + Path("errclash") +
               "\" (-3050..-3150) has error conflict with \"" + Path("full") + "\" (-3000..-3100)"},
      }));
  EXPECT_FALSE(IsLoaded(Path("overlap")));
  EXPECT_FALSE(IsLoaded(Path("errclash")));
  EXPECT_EQ(Ranges().size(), 3u);
}

TEST_F(ResmgrTest, ModuleWithoutIdResourceIsEnteredWithZeros) {
  ASSERT_EQ(DL(Path("noid")), kErrNone);
  EXPECT_EQ(
      Lines(),
      (std::vector<LogLine>{{515, "", "DLLoadLib: no id resource in \"" + Path("noid") + "\""}}));
  const auto ranges = Ranges();
  ASSERT_EQ(ranges.size(), 2u);
  ExpectRange(ranges[1], UGetModuleHandle(T(Path("noid")).Text()), 0, 0, 0, 0);
  // It conflicts with nothing.
  EXPECT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_EQ(Load(22000, Key("Noid")), "from the module without id");
}

// Id resources that cannot be used: each load fails with its code and line,
// and the module does not stay loaded.
TEST_F(ResmgrTest, RefusesUnusableIdResources) {
  const struct {
    const char* module;
    int err;
    const char* line;  // after "DLLoadLib: "
    unsigned level;
  } rows[] = {
      {"small", kErrModuleUnusable, "id resource in \"%s\" too small", 515},
      {"badsig", kErrPersistWrongSignature, "CheckPersist(\"%s\") failed, Host fallback message",
       515},
      {"swapped", kErrPersistOtherByteOrder, "CheckPersist(\"%s\") failed, Host fallback message",
       515},
      {"oldver", kErrPersistTooOld, "CheckPersist(\"%s\") failed, Host fallback message", 515},
  };
  const int rangesBefore = RMGetRanges(nullptr, 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.module);
    ClearRecords();
    EXPECT_EQ(DL(Path(row.module)), row.err);
    char line[512];
    std::snprintf(line, sizeof line, row.line, Path(row.module).c_str());
    EXPECT_EQ(Lines(), (std::vector<LogLine>{{row.level, "", std::string("DLLoadLib: ") + line}}));
    EXPECT_FALSE(IsLoaded(Path(row.module)));
  }
  EXPECT_EQ(RMGetRanges(nullptr, 0), rangesBefore);
}

TEST_F(ResmgrTest, WarnsOfModulesWithoutSymbolsOrWithBadRanges) {
  ASSERT_EQ(DL(Path("nosyms")), kErrNone);
  ASSERT_EQ(DL(Path("badranges")), kErrNone);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {515, "", "DLLoadLib: \"" + Path("nosyms") + "\" was built without assert symbols"},
                {517, "",
                 "ResErrAlloc: warning: module \"" + Path("badranges") +
                     "\" has missing/invalid resource range"},
                {517, "",
                 "ResErrAlloc: warning: module \"" + Path("badranges") +
                     "\" has missing/invalid error range"},
            }));
  const auto ranges = Ranges();
  ASSERT_EQ(ranges.size(), 3u);
  ExpectRange(ranges[2], UGetModuleHandle(T(Path("badranges")).Text()), 500, 400, -5, -3);
}

TEST_F(ResmgrTest, LoadingAnEnteredModuleAgain) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  HMODULE full = UGetModuleHandle(T(Path("full")).Text());
  // The one-argument form refuses and releases its extra load.
  EXPECT_EQ(DL(Path("full")), kErrModuleEntered);
  EXPECT_EQ(Lines(),
            (std::vector<LogLine>{
                {517, "", "ResErrAlloc::Add: module \"" + Path("full") + "\" already loaded"}}));
  // The five-argument form replaces the range record instead: the new one
  // goes to the end of the list like any other.
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  ClearRecords();
  EXPECT_EQ(DL(Path("full"), 25000, 25100, -6000, -6100), kErrNone);
  EXPECT_TRUE(Lines().empty());
  auto ranges = Ranges();
  ASSERT_EQ(ranges.size(), 3u);
  ExpectRange(ranges[1], UGetModuleHandle(T(Path("touch")).Text()), 20100, 20200, -3100, -3200);
  ExpectRange(ranges[2], full, 25000, 25100, -6000, -6100);
  unsigned short list = 0;
  unsigned key = 0;
  EXPECT_EQ(RMGetErrID(-6001, &list, &key), 1);
  EXPECT_EQ(list, 25099);
  EXPECT_EQ(RMGetErrID(-3007, &list, &key), 0);
  // A replacement that conflicts leaves the old record where it was.
  ASSERT_EQ(DL(Path("noid")), kErrNone);
  EXPECT_EQ(DL(Path("full"), 20150, 20300, -7000, -7100), kErrModuleConflict);
  ranges = Ranges();
  ASSERT_EQ(ranges.size(), 4u);
  ExpectRange(ranges[2], full, 25000, 25100, -6000, -6100);
  // One unload frees it: the refused loads left no reference behind.
  Unload(Path("full"));
  EXPECT_FALSE(IsLoaded(Path("full")));
}

TEST_F(ResmgrTest, LoadFailuresAreLogged) {
  const std::string text = QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt";
  const struct {
    std::string name;
    int os;
  } rows[] = {
      {"qnt_no_such_module.dll", 126},
      {text, 193},
      {Path("corrupt"), 13},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (kOnWindows && row.os == 13) continue;  // the Linux build's own resource container
    ClearRecords();
    EXPECT_EQ(DL(row.name), kErrModuleUnusable);
    EXPECT_EQ(Lines(),
              (std::vector<LogLine>{{516, "",
                                     "DLLoadLib: ULoadLibrary(\"" + row.name +
                                         "\") failed, os error " + std::to_string(row.os) + " "}}));
  }
  ClearRecords();
  Unload("qnt_never_loaded.dll");
  EXPECT_EQ(
      Lines(),
      (std::vector<LogLine>{{515, "", "DLUnloadLib: \"qnt_never_loaded.dll\" wasn't loaded!"}}));
}

std::vector<unsigned char> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
}

// A module file cut short or with damaged headers gives -630 and a log line
// from both DLLoadLib and DLCheckLib, never a crash.
TEST_F(ResmgrTest, CutAndDamagedModuleFilesAreRefused) {
  QUARNEL_LINUX_ONLY("cuts and damages the ELF headers of the Linux build's modules");
  const auto whole = ReadBytes(Path("full"));
  ASSERT_GT(whole.size(), 4096u);
  const auto dir = std::filesystem::temp_directory_path() /
                   ("quarnel_resmgr_test_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(dir);
  int round = 0;
  const auto attempt = [&](const std::vector<unsigned char>& bytes) {
    // A fresh name each time: the loader would hand back a module it holds.
    const std::string path = (dir / ("cut" + std::to_string(round++) + ".so")).string();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    ClearRecords();
    const int loaded = DL(path);
    const int checked = Check(path);
    std::filesystem::remove(path);
    return std::make_pair(loaded, checked);
  };
  for (std::size_t cut : {std::size_t{0}, std::size_t{3}, std::size_t{63}, std::size_t{64},
                          std::size_t{1000}, whole.size() / 2, whole.size() - 1}) {
    SCOPED_TRACE(cut);
    const auto [loaded, checked] = attempt(std::vector<unsigned char>(
        whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)));
    EXPECT_EQ(loaded, kErrModuleUnusable);
    EXPECT_EQ(checked, kErrModuleUnusable);
    ASSERT_EQ(Lines().size(), 2u);
    EXPECT_EQ(Lines()[0].level, 516u);
    EXPECT_EQ(Lines()[1].level, 516u);
  }
  // Damaged headers: the file type, and the sizes and counts of the program
  // and section header tables.
  for (std::size_t at : {std::size_t{16}, std::size_t{54}, std::size_t{58}, std::size_t{60}}) {
    auto bytes = whole;
    bytes[at] ^= 0x7F;
    bytes[at + 1] ^= 0x40;
    SCOPED_TRACE(at);
    const auto [loaded, checked] = attempt(bytes);
    EXPECT_EQ(loaded, kErrModuleUnusable);
    EXPECT_EQ(checked, kErrModuleUnusable);
    EXPECT_FALSE(Lines().empty());
  }
  std::filesystem::remove_all(dir);
}

TEST_F(ResmgrTest, ChecksModuleFilesWithoutEnteringThem) {
  const std::string text = QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt";
  const int rangesBefore = RMGetRanges(nullptr, 0);
  const struct {
    std::string name;
    int err;
    std::vector<LogLine> lines;
  } rows[] = {
      {Path("full"), kErrNone, {}},
      {Path("noid"), kErrNone, {}},
      {Path("nosyms"), kErrNone, {}},
      {Path("noid2"),
       kErrModuleUnusable,
       {{515, "", "DLCheckLib: no resource 10002 in \"" + Path("noid2") + "\""}}},
      {Path("small"),
       kErrModuleUnusable,
       {{515, "", "DLCheckLib: id resource in \"" + Path("small") + "\" too small"}}},
      {Path("badsig"),
       kErrPersistWrongSignature,
       {{515, "",
         "DLCheckLib: CheckPersist(\"" + Path("badsig") + "\") failed, " + kHostFallback}}},
      {Path("swapped"),
       kErrPersistOtherByteOrder,
       {{515, "",
         "DLCheckLib: CheckPersist(\"" + Path("swapped") + "\") failed, " + kHostFallback}}},
      {text,
       kErrModuleUnusable,
       {{516, "", "DLCheckLib: ULoadLibraryEx(\"" + text + "\") failed, os error 193"}}},
      {Path("corrupt"),
       kErrModuleUnusable,
       {{516, "", "DLCheckLib: ULoadLibraryEx(\"" + Path("corrupt") + "\") failed, os error 13"}}},
      {"qnt_nowhere.dll",
       kErrModuleUnusable,
       {{516, "", "DLCheckLib: ULoadLibraryEx(\"qnt_nowhere.dll\") failed, os error 2"}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (kOnWindows && row.name == Path("corrupt")) continue;  // the Linux build's own container
    ClearRecords();
    EXPECT_EQ(Check(row.name), row.err);
    EXPECT_EQ(Lines(), row.lines);
    EXPECT_FALSE(IsLoaded(row.name));
  }
  EXPECT_EQ(RMGetRanges(nullptr, 0), rangesBefore);
  // The id resource that cannot be read.
  ClearRecords();
  UFailCall(UCall::kLoadResource, 1, 1812);
  EXPECT_EQ(Check(Path("full")), kErrModuleUnusable);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{514, "",
                                            "DLCheckLib: Load/Lock id resource failed for \"" +
                                                Path("full") + "\", os error 1,812"}}));
}

TEST_F(ResmgrTest, IdResourceThatCannotBeReadAndFailedUnload) {
  UFailCall(UCall::kLoadResource, 1, 1812);
  EXPECT_EQ(DL(Path("full")), kErrModuleUnusable);
  EXPECT_EQ(Lines(), (std::vector<LogLine>{{514, "",
                                            "DLLoadLib: Load/Lock id resource failed for \"" +
                                                Path("full") + "\", os error 1,812"}}));
  EXPECT_FALSE(IsLoaded(Path("full")));

  ASSERT_EQ(DL(Path("full")), kErrNone);
  UFailCall(UCall::kFreeLibrary, 1, 31);
  Unload(Path("full"));
  ASSERT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(Assertions()[0], (AssertionSeen{"resmgr", 897, ""}));
  // Its records are gone all the same; the module itself is still there.
  EXPECT_EQ(RMGetRanges(nullptr, 0), 1);
  HMODULE still = UGetModuleHandle(T(Path("full")).Text());
  ASSERT_NE(still, nullptr);
  EXPECT_EQ(UFreeLibrary(still), 1);
}

// RMGetKList: the default module, then the host (its registered lists, then
// its own resources), then the loaded modules, newest first.
TEST_F(ResmgrTest, StringListSearchOrder) {
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  EXPECT_EQ(Load(23000, Key("Who?")), "");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  EXPECT_EQ(Load(23000, Key("Who?")), "full");
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_EQ(Load(23000, Key("Who?")), "touch");
  EXPECT_EQ(Load(16000, Key("Host")), "from the host");
  EXPECT_EQ(Load(16000, Key("0000")), kHostFallback);
  // The first list found is the one read: 'Only' of the module's 16000 is hidden.
  EXPECT_EQ(Load(16000, Key("Only")), "");

  const auto registered = MakeList({{"Who?", "registered"}});
  RMAddHostKList(21000, registered.data(), static_cast<int>(registered.size()));
  EXPECT_EQ(Load(21000, Key("Who?")), "registered");
  RMAddHostKList(21000, nullptr, 0);
  EXPECT_EQ(Load(21000, Key("Who?")), "host");

  // The default resource module comes before the host.
  QuarnelEnv()->appFolder = QUARNEL_VELLORES_DIR;
  ASSERT_EQ(DL("vellores.dll"), kErrNone);
  EXPECT_EQ(Load(16000, Key("0000")), "Unidentified error");
  EXPECT_EQ(Load(16000, Key("Host")), "");
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  Unload("vellores.dll");
  EXPECT_EQ(Load(16000, Key("0000")), kHostFallback);

  int size = -1;
  EXPECT_EQ(RMGetKList(29999, &size), nullptr);
  EXPECT_EQ(size, 0);
  const auto* list = static_cast<const unsigned char*>(RMGetKList(21000, &size));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(size, 2 + 4 + 4 + 2);
  EXPECT_EQ(list[0], 8);
}

// LoadKString over hand-made lists: each outcome with its exact log line.
TEST_F(ResmgrTest, LoadKStringOverHandBuiltLists) {
  constexpr int kList = 24000;
  const struct {
    const char* what;
    std::vector<unsigned char> list;
    unsigned key;
    int result;
    const char* text;
    std::vector<LogLine> lines;
  } rows[] = {
      {"found", MakeList({{"Abcd", "hello"}, {"Efgh", "x"}}), Key("Efgh"), 1, "x", {}},
      {"absent", MakeList({{"Abcd", "hello"}, {"Efgh", "x"}}), Key("Zzzz"), 0, "", {}},
      {"dump",
       MakeList({{"Abcd", "hello"}, {"Efgh", "x"}}),
       0xFFFF,
       1,
       "",
       {{515, "", "Abcd"}, {515, "", "Efgh"}}},
      {"bad length",
       [] {
         auto l = MakeList({{"Abcd", "hello"}});
         l.insert(l.end() - 2, {2, 0});
         return l;
       }(),
       Key("Zzzz"),
       0,
       "",
       {{517, "", "LoadKString: Bad resource looking for Zzzz in ID 24000"}}},
      {"no end",
       MakeList({{"Abcd", "hello"}}, false),
       Key("Zzzz"),
       0,
       "",
       {{517, "", "LoadKString: Bad resource looking for Zzzz in ID 24000"}}},
      {"invalid signature",
       MakeList({{"Abcd", "hello"}, {"\xC9xyz", "bad"}}),
       Key("Zzzz"),
       0,
       "",
       {{517, "", "LoadKString: Invalid signature (\xC3\x89xyz) looking for Zzzz in ID 24000"}}},
      {"signature without letters",
       MakeList({{"Abcd", "hello"}, {"\x01\x02\x03\x04", "bad"}}),
       Key("Abcd"),
       1,
       "hello",
       {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    RMAddHostKList(kList, row.list.data(), static_cast<int>(row.list.size()));
    ClearRecords();
    TString s(u"stale");
    EXPECT_EQ(s.LoadKString(kList, row.key), row.result);
    EXPECT_EQ(Utf8(s), row.text);
    EXPECT_EQ(Lines(), row.lines);
  }
  RMAddHostKList(kList, nullptr, 0);
  ClearRecords();
  TString none;
  EXPECT_EQ(none.LoadKString(kList, Key("Abcd")), 0);
  EXPECT_EQ(none.LoadKString(kList, 0xFFFF), 1);
  EXPECT_TRUE(Lines().empty());
}

// The reference: the walk over a list as the library documents it.
struct Walked {
  int result;
  std::string text;
  std::string line;  // the problem reported, if any
};

Walked Walk(const std::vector<unsigned char>& l, unsigned key, int listId) {
  const int size = static_cast<int>(l.size());
  char buf[160];
  // %Y prints each byte as the character of the same value.
  const auto keyText = [](unsigned k) {
    std::u16string t;
    for (int i = 24; i >= 0; i -= 8) t += static_cast<char16_t>((k >> i) & 0xFF);
    return Utf8(t);
  };
  int pos = 0;
  for (;;) {
    if (pos + 2 > size) break;
    const int len = l[static_cast<std::size_t>(pos)] | (l[static_cast<std::size_t>(pos) + 1] << 8);
    if (len == 0xFFFF) return {0, "", ""};
    if (len < 4 || pos + 2 + len > size) break;
    const unsigned tag = Key(*reinterpret_cast<const char(*)[5]>(
        std::string(l.begin() + pos + 2, l.begin() + pos + 6).append(1, '\0').c_str()));
    if ((tag & 0x80808080u) != 0 || (tag & 0x60606060u) == 0) {
      std::snprintf(buf, sizeof buf, "LoadKString: Invalid signature (%s) looking for %s in ID %d",
                    keyText(tag).c_str(), keyText(key).c_str(), listId);
      return {0, "", buf};
    }
    if (tag == key) {
      return {1, std::string(l.begin() + pos + 6, l.begin() + pos + 2 + len), ""};
    }
    pos += 2 + len + (len & 1);
    if (pos >= size) break;
  }
  std::snprintf(buf, sizeof buf, "LoadKString: Bad resource looking for %s in ID %d",
                keyText(key).c_str(), listId);
  return {0, "", buf};
}

// Random lists, some of them faulty, and random keys: LoadKString (which
// looks well-formed lists up through an index) answers as the walk does.
TEST_F(ResmgrTest, LoadKStringAnswersAsTheWalkOverRandomLists) {
  std::mt19937 rng(1234);
  const char* tags[] = {"Abcd", "Efgh", "0000", "0001", "KMkm", "Zero", "Dupe"};
  for (int round = 0; round < 400; ++round) {
    std::vector<std::pair<std::string, std::string>> entries;
    const int n = static_cast<int>(rng() % 9);
    for (int i = 0; i < n; ++i) {
      entries.emplace_back(tags[rng() % 7], std::string(rng() % 6, static_cast<char>('a' + i)));
    }
    auto list = MakeList(entries, rng() % 8 != 0);
    switch (rng() % 6) {
      case 0:  // a length below 4 before the end
        if (list.size() >= 2) list.insert(list.end() - 2, {3, 0});
        break;
      case 1:  // a tag with the top bit set
        if (list.size() > 4) list[2] |= 0x80;
        break;
      default:
        break;
    }
    if (list.empty()) continue;  // registering no bytes removes the list
    RMAddHostKList(24002, list.data(), static_cast<int>(list.size()));
    for (int q = 0; q < 4; ++q) {
      const unsigned key = Key(*reinterpret_cast<const char(*)[5]>(tags[rng() % 7]));
      const Walked expected = Walk(list, key, 24002);
      ClearRecords();
      TString s(u"stale");
      ASSERT_EQ(s.LoadKString(24002, key), expected.result);
      ASSERT_EQ(Utf8(s), expected.text);
      if (expected.line.empty()) {
        ASSERT_TRUE(Lines().empty());
      } else {
        ASSERT_EQ(Lines(), (std::vector<LogLine>{{517, "", expected.line}}));
      }
    }
  }
  RMAddHostKList(24002, nullptr, 0);
}

TEST_F(ResmgrTest, KStringAnsiCopiesIntoAMemoryBlock) {
  const auto list = MakeList({{"Abcd", "hello"}, {"Empt", ""}, {"Efgh", "\xE9t\xE9"}});
  RMAddHostKList(24001, list.data(), static_cast<int>(list.size()));
  void* block = nullptr;
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Efgh"), &block), 3);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(MemSize(block), 3u);
  EXPECT_EQ(std::string(static_cast<char*>(block), 3), "\xE9t\xE9");
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Abcd"), &block), 5);
  EXPECT_EQ(MemSize(block), 5u);
  EXPECT_EQ(std::string(static_cast<char*>(block), 5), "hello");
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Empt"), &block), 0);
  EXPECT_EQ(MemSize(block), 0u);
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Zzzz"), &block), -1);
  EXPECT_EQ(RMGetKStringAnsi(24999, Key("Abcd"), &block), -1);
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Abcd"), nullptr), -1);
  MemFree(block);
  const auto bad = MakeList({{"Abcd", "hello"}}, false);
  RMAddHostKList(24001, bad.data(), static_cast<int>(bad.size()));
  block = nullptr;
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Zzzz"), &block), -1);
  EXPECT_EQ(block, nullptr);
  RMAddHostKList(24001, nullptr, 0);
}

TEST_F(ResmgrTest, StringTablesSearchTheHostFirst) {
  TString s(u"stale");
  EXPECT_EQ(RMGetString(20001, &s, 100), 0);
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_EQ(RMGetString(20002, &s, 100), 11);
  EXPECT_EQ(Utf8(s), "Host string");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(RMGetString(20002, &s, 100), 11);  // the host's, ahead of the module's "Zwei"
  EXPECT_EQ(RMGetString(20001, &s, 100), 31);
  EXPECT_EQ(Utf8(s), "First string of the full module");
  EXPECT_EQ(RMGetString(20001, &s, 6), 5);
  EXPECT_EQ(Utf8(s), "First");
  EXPECT_EQ(RMGetString(20001, &s, 1), 0);
  EXPECT_EQ(RMGetString(20001, nullptr, 100), 0);
  EXPECT_EQ(RMGetString(20003, &s, 100), 0);
  EXPECT_TRUE(s.IsEmpty());
}

std::string Bytes(TMemory& m) {
  return std::string(reinterpret_cast<const char*>(m.MemPtr()), m.GetSize());
}

TEST_F(ResmgrTest, RawResourcesAndTheirCache) {
  TMemory block;
  EXPECT_EQ(RMGetRawResource(&block, 20010, -1), kErrNone);
  EXPECT_EQ(Bytes(block), "host raw");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_EQ(RMGetRawResource(&block, 20011, 300), kErrNone);
  EXPECT_EQ(Bytes(block), "custom type");
  EXPECT_EQ(RMGetRawResource(&block, 20012, 10), kErrNone);
  EXPECT_EQ(Bytes(block), std::string("\x00\x01\x02\x03\xFE\xFFraw file bytes", 20));
  EXPECT_EQ(RMGetRawResource(&block, 20010, 10), kErrNone);  // still the host's
  EXPECT_EQ(Bytes(block), "host raw");

  // A repeated request comes from the cache: no resource is loaded for it.
  UFailCall(UCall::kLoadResource, 1, 1812, -1);
  TMemory again;
  EXPECT_EQ(RMGetRawResource(&again, 20010, -1), kErrNone);
  EXPECT_EQ(Bytes(again), "host raw");
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), MapWindowsError(1812));
  UClearFaults();
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), kErrNone);
  EXPECT_EQ(Bytes(again), "touch raw");

  // Unloading the module that holds the cached resource empties the cache.
  Unload(Path("touch"));
  ClearRecords();
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), kErrResourceNameNotFound);
  EXPECT_EQ(Bytes(again), "touch raw");  // a failed request leaves the block alone
  ASSERT_FALSE(Lines().empty());
  EXPECT_EQ(Lines()[0],
            (LogLine{519, "", "MapError: mapped Windows error 1,814 to " + kHostFallback}));
  EXPECT_EQ(RMGetRawResource(nullptr, 20010, -1), kErrBadParameter);
}

TEST_F(ResmgrTest, IconSizesFollowTheDisplayScale) {
  int w = 0;
  int h = 0;
  EXPECT_EQ(RMGetDefaultIconSize(20020, &w, &h), 0);
  EXPECT_EQ(w, 16);
  EXPECT_EQ(h, 16);
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(RMGetDefaultIconSize(20020, &w, &h), 1);
  EXPECT_EQ(w, 16);
  EXPECT_EQ(RMGetDefaultIconSize(20021, &w, &h), 0);
  // Group entries are 32, 16, 48 and 24 pixels, in that order.
  const struct {
    int scale;
    int best;
  } rows[] = {{1000, 16}, {1250, 16}, {1500, 24}, {2000, 32}, {3000, 48}, {500, 16}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.scale);
    SetGlobalScaleFactor(row.scale);
    EXPECT_EQ(RMGetBestScaledIconSize(20020, &w, &h), 1);
    EXPECT_EQ(w, row.best);
    EXPECT_EQ(h, row.best);
  }
  EXPECT_EQ(RMGetBestScaledIconSize(20021, &w, &h), 0);
  SetGlobalScaleFactor(1500);
  EXPECT_EQ(GlobalScale(16), 24);
  EXPECT_EQ(GlobalScale(-3), -5);
  SetGlobalScaleFactor(0);  // ignored
  EXPECT_EQ(GetGlobalScaleFactor(), 1500);
}

// The icon image of the size chosen: each test image is a 40-byte header and
// eight bytes holding its size.
TEST_F(ResmgrTest, IconsCursorsAndBitmaps) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  const struct {
    int scale;
    int scaled;
    int best;
    int size;   // reported
    int image;  // taken
  } rows[] = {
      {1000, 1, 1, 16, 16}, {1500, 1, 0, 24, 24}, {1500, 0, 1, 24, 24}, {1250, 1, 0, 20, 24},
      {1250, 0, 1, 16, 16}, {2000, 0, 0, 16, 16}, {4000, 1, 0, 64, 48},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.scale) + " " + std::to_string(row.scaled) +
                 std::to_string(row.best));
    SetGlobalScaleFactor(row.scale);
    TPoint size{0, 0};
    int shared = -1;
    const RMImage* icon = RMGetIcon(20020, 0, row.scaled, row.best, &size, &shared);
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(size.x, row.size);
    EXPECT_EQ(size.y, row.size);
    EXPECT_EQ(shared, 0);
    EXPECT_EQ(icon->kind, kRMImageIcon);
    EXPECT_EQ(icon->width, row.size);
    ASSERT_EQ(icon->size, 48u);
    EXPECT_EQ(icon->bytes[4], row.image);  // the header's width
    // The fill byte reads as the size written in hexadecimal digits (0x16 for 16).
    EXPECT_EQ(icon->bytes[40], std::stoi(std::to_string(row.image), nullptr, 16));
    RMDestroyImage(icon);
  }
  SetGlobalScaleFactor(1000);
  // Shared icons: one handle per resource and size.
  int shared = 0;
  const RMImage* a = RMGetIcon(20020, kRMLoadShared, 0, 0, nullptr, &shared);
  EXPECT_EQ(shared, 1);
  EXPECT_EQ(RMGetIcon(20020, kRMLoadShared, 0, 0, nullptr, nullptr), a);
  RMDestroyImage(a);  // ignored
  EXPECT_EQ(RMGetIcon(20021, 0, 0, 0, nullptr, nullptr), nullptr);
  // The system icons.
  for (int id : {16001, 16002, 16003}) {
    TPoint size{0, 0};
    shared = 0;
    const RMImage* s = RMGetIcon(id, 0, 0, 0, &size, &shared);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->id, id == 16001 ? 32513 : id == 16002 ? 32515 : 32516);
    EXPECT_EQ(shared, 1);
    EXPECT_EQ(size.x, 32);
    EXPECT_EQ(s->bytes, nullptr);
  }
  TString name(u"appicon");
  const RMImage* named = RMGetNamedIcon(&name, 0);
  ASSERT_NE(named, nullptr);
  EXPECT_EQ(named->width, 16);
  EXPECT_EQ(named->bytes[40], 0x16);
  RMDestroyImage(named);
  TString nobody(u"nobody");
  EXPECT_EQ(RMGetNamedIcon(&nobody, 0), nullptr);

  const RMImage* bitmap = RMGetBitmap(20030);
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(bitmap->kind, kRMImageBitmap);
  EXPECT_EQ(bitmap->width, 3);
  EXPECT_EQ(bitmap->height, 2);
  EXPECT_EQ(bitmap->size, 64u);
  EXPECT_EQ(bitmap->bytes[0], 40);
  EXPECT_EQ(RMGetBitmap(20030), bitmap);
  TString logo(u"LOGO");
  const RMImage* named2 = RMGetNamedBitmap(&logo);
  ASSERT_NE(named2, nullptr);
  EXPECT_EQ(named2->size, 64u);
  EXPECT_EQ(RMGetBitmap(20031), nullptr);

  const RMImage* cursor = RMGetCursor(20040);
  ASSERT_NE(cursor, nullptr);
  EXPECT_EQ(cursor->kind, kRMImageCursor);
  EXPECT_EQ(cursor->width, 32);
  EXPECT_EQ(cursor->height, 32);
  EXPECT_EQ(cursor->hotX, 5);
  EXPECT_EQ(cursor->hotY, 7);
  EXPECT_EQ(cursor->size, 48u);
  EXPECT_EQ(cursor->bytes[40], 0xC2);
  EXPECT_EQ(RMGetCursor(20041), nullptr);

  // Unloading the module takes its shared images with it.
  Unload(Path("full"));
  EXPECT_EQ(RMGetBitmap(20030), nullptr);
  EXPECT_EQ(RMGetCursor(20040), nullptr);
}

// Formatting and list lookups on several threads while a module is loaded
// and unloaded again and again: every answer is one of the two states'.
TEST_F(ResmgrTest, ThreadsFormatWhileModulesLoadAndUnload) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      TMemory block;
      while (!stop.load()) {
        const std::string e = ErrorText(-3101);
        if (e != "Touch module error one" && e != kHostFallback) ++wrong;
        const std::string who = Load(23000, Key("Who?"));
        if (who != "touch" && who != "full") ++wrong;
        if (ErrorText(-3007) != "Full module error seven") ++wrong;
        const int raw = RMGetRawResource(&block, 20110, -1);
        if (raw == kErrNone && Bytes(block) != "touch raw") ++wrong;
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(DL(Path("touch")), kErrNone);
    Unload(Path("touch"));
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
