// The crash report: its line formatter, the names it prints, the stack walk,
// and every kind of fault, each in a child process whose log is then read.
#include "quarnel/foundation/crashreport.h"

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/alert.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/internal/demangle.h"
#include "quarnel/foundation/internal/reportfmt.h"
#include "quarnel/foundation/internal/symmap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/internal/crashsignal.h"
#include "quarnel/platform/locale.h"
#include "quarnel/platform/module.h"
#include "quarnel/platform/threadid.h"
#include "quarnel/platform/wintime.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/internal/datefmt.h"
#include "quarnel/text/tstring.h"
#include "tests/support/helpers.h"
#include "tests/support/platform_cases.h"

namespace fs = std::filesystem;

#if defined(_WIN32)
constexpr const char* kCrashModule = "qnt_crashcode.dll";
// abort's report is made where the C runtime calls the SIGABRT handler.
constexpr const char* kAbortModule = "crashreport_test.exe";
// Holds the C library's heap lock most of the time.
void TrimHeap() { std::free(std::malloc(1 << 20)); }
#else
constexpr const char* kCrashModule = "libqnt_crashcode.so";
constexpr const char* kAbortModule = "libc.so.6";
// The C library's heap trimmer (declared here: the test includes no system
// header).
extern "C" int malloc_trim(std::size_t pad);
void TrimHeap() { malloc_trim(0); }
#endif

// The test program's own frames, named by its dynamic symbols.
namespace crashtest {
using CrashProc = int (*)(int);
CrashProc g_crash = nullptr;

__attribute__((visibility("default"), noinline)) void AssertHere(int line) {
  Debug("crashtest", line);
  asm volatile("" ::: "memory");
}

__attribute__((visibility("default"), noinline)) void CallModule(int kind) {
  g_crash(kind);
  asm volatile("" ::: "memory");
}
}  // namespace crashtest

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer's own handler comes after ours and ends the process its way.
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string Narrow(const TString& s) {
  char buf[512];
  const short n = s.FillBufferAnsi(buf, sizeof buf);
  return std::string(buf, static_cast<std::size_t>(n > 0 ? n : 0));
}

// The lines of a file; a CR before the line feed is not part of the line (an
// error info may hold a line feed of its own).
std::vector<std::string> LinesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// A golden line is a pattern: <HEX> <HEX4> <HEX8> <HEX16> and <ANY> stand for
// what varies; "..." skips lines until the next pattern matches.
std::regex Pattern(const std::string& golden) {
  std::string re;
  for (std::size_t i = 0; i < golden.size();) {
    static const std::pair<const char*, const char*> kTokens[] = {{"<HEX16>", "[0-9A-F]{16}"},
                                                                  {"<HEX8>", "[0-9A-F]{8}"},
                                                                  {"<HEX4>", "[0-9A-F]{4}"},
                                                                  {"<HEX>", "[0-9A-F]+"},
                                                                  {"<ANY>", ".*"}};
    bool token = false;
    for (const auto& [name, expr] : kTokens) {
      if (golden.compare(i, std::strlen(name), name) == 0) {
        re += expr;
        i += std::strlen(name);
        token = true;
        break;
      }
    }
    if (token) continue;
    if (std::strchr(".^$|()[]{}*+?\\", golden[i]) != nullptr) re += '\\';
    re += golden[i++];
  }
  return std::regex(re);
}

// Empty when `lines` follow `golden` from the first line to the last.
std::string Mismatch(const std::vector<std::string>& lines,
                     const std::vector<std::string>& golden) {
  std::size_t at = 0;
  for (std::size_t g = 0; g < golden.size(); ++g) {
    if (golden[g] == "...") {
      if (g + 1 == golden.size()) return "";
      const std::regex next = Pattern(golden[g + 1]);
      while (at < lines.size() && !std::regex_match(lines[at], next)) ++at;
      continue;
    }
    if (at >= lines.size()) return "missing line for: " + golden[g];
    if (!std::regex_match(lines[at], Pattern(golden[g]))) {
      return "line " + std::to_string(at + 1) + ": \"" + lines[at] + "\" vs \"" + golden[g] + "\"";
    }
    ++at;
  }
  return at == lines.size() ? "" : "extra line: " + lines[at];
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& l : lines) all += l + "\n";
  return all;
}

// A report line as Windows writes it: the program's module keeps its
// extension, and a thread without a description is "Unknown".
std::string OnWindows(std::string line) {
  for (const auto& [from, to] :
       {std::pair<std::string, std::string>{"crashreport_test", "crashreport_test.exe"},
        {"Name: crashreport_tes", "Name: Unknown"}}) {
    for (std::size_t at = 0; (at = line.find(from, at)) != std::string::npos; at += to.size())
      line.replace(at, from.size(), to);
  }
  return line;
}

int Count(const std::vector<std::string>& lines, const std::string& golden) {
  const std::regex re = Pattern(golden);
  int n = 0;
  for (const std::string& l : lines) n += std::regex_match(l, re) ? 1 : 0;
  return n;
}

constexpr char kRootVariable[] = "QUARNEL_CRASH_TEST_ROOT";

class CrashReportTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    saved_ = *QuarnelEnv();
    // A death test's child on Windows is the program started again: it
    // takes its parent's folder.
    if (const char* parent = std::getenv(kRootVariable)) {
      root_ = parent;
    } else {
      root_ = fs::temp_directory_path() /
              ("quarnel_crash_" + std::to_string(UGetCurrentThreadId()) + "_" +
               std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
      setenv(kRootVariable, root_.string().c_str(), 1);
    }
    fs::create_directories(root_ / "log");
    fs::create_directories(root_ / "app");
    QuarnelEnv()->logFolder = (root_ / "log").string();
    QuarnelEnv()->appFolder = (root_ / "app").string();
    QuarnelEnv()->appName = "crashtest";
    QuarnelEnv()->appVersion = "2.5";
    QuarnelEnv()->lcid = kLcidEnUs;
    // The helper program writes its argument next to itself.
#if defined(_WIN32)
    fs::copy_file(fs::path(QUARNEL_TEST_MODULE_DIR) / "qnt_assert.exe",
                  root_ / "app" / "assert.exe", fs::copy_options::overwrite_existing);
#else
    std::ofstream(root_ / "app" / "assert") << "#!/bin/sh\nprintf '%s' \"$1\" > helper.out\n";
    fs::permissions(root_ / "app" / "assert", fs::perms::owner_all);
#endif
    USetTimeZone("UTC0");
    const std::uint64_t ticks = 133541212290420000ull;  // 2024-03-05 14:07:09.042 UTC
    const UFILETIME now{static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};
    USetClockOverride(&now);
    list_ = StringList({{"LgFl", "crash.log"}, {"LogH", "Crash log of the tests\nSecond line\n"}});
    RMAddHostKList(16040, list_.data(), static_cast<int>(list_.size()));
    const std::string module = std::string(QUARNEL_TEST_MODULE_DIR) + "/" + kCrashModule;
    module_ = ULoadLibrary(Utf16(module).c_str());
    ASSERT_NE(module_, nullptr);
    crashtest::g_crash =
        reinterpret_cast<crashtest::CrashProc>(UGetProcAddress(module_, "QntCrash"));
    ASSERT_NE(crashtest::g_crash, nullptr);
  }

  void TearDown() override {
    RMAddHostKList(16040, nullptr, 0);
    USetClockOverride(nullptr);
    USetTimeZone(nullptr);
    *QuarnelEnv() = saved_;
    PrepareCrashReport();
    if (module_ != nullptr) UFreeLibrary(module_);
    if (getenv("KEEP_CRASH_LOG") == nullptr) fs::remove_all(root_);
    unsetenv(kRootVariable);
    RecordingTest::TearDown();
  }

  std::string LogPath() const { return (root_ / "log" / "crash.log").string(); }

  QuarnelEnvType saved_;
  fs::path root_;
  Bytes list_;  // list 16040: the log's name and heading
  HMODULE module_ = nullptr;
};

// ---- the line formatter ---------------------------------------------------------------------

TEST(CrashReportFormat, ConversionsFollowCAndTheEngine) {
  auto f = [](auto... a) {
    char out[256];
    quarnel_internal::ReportPrintf(out, sizeof out, nullptr, a...);
    return std::string(out);
  };
  const std::string longName(70, 'n');
  EXPECT_EQ(f("%08X %08X", 0x1F, -1), "0000001F FFFFFFFF");
  EXPECT_EQ(f("%016lX|%lX", std::uint64_t{0xABCDEF}, ~std::uint64_t{0}),
            "0000000000ABCDEF|FFFFFFFFFFFFFFFF");
  EXPECT_EQ(f("%04X:%08X", 3u, 0x12u), "0003:00000012");
  EXPECT_EQ(f("%-15s|%5s|", "libc.so.6", "ab"), "libc.so.6      |   ab|");
  EXPECT_EQ(f("%-27.64s+%-5X|", longName.c_str(), 0x1F), std::string(64, 'n') + "+1F   |");
  EXPECT_EQ(f("%8d|%d|%ld", -7, INT32_MIN, INT64_MAX), "      -7|-2147483648|9223372036854775807");
  EXPECT_EQ(f("%u %x %05d", 4294967295u, 255, -42), "4294967295 ff -0042");
  EXPECT_EQ(f("  '%y' %y", 0x4C67466Cu, 0x41004243u), "  'LgFl' A7BC");
  EXPECT_EQ(f("%s|%d|%%|%q|%s", static_cast<const char*>(nullptr)), "|0|%||");
  char small[8];
  EXPECT_EQ(quarnel_internal::ReportPrintf(small, sizeof small, nullptr, "%s", "123456789"), 7);
  EXPECT_STREQ(small, "1234567");
}

// %D and %T print what the engine prints, in each locale, without allocating.
TEST(CrashReportFormat, DatesAreTheEnginesDates) {
  ScopedEnv env;
  const TDate dates[] = {TDate(2024, 3, 5, 14, 7, 9, 42), TDate(1999, 12, 31, 23, 59, 59, 999),
                         TDate(2000, 1, 1, 0, 0, 0, 0)};
  const char* const forms[] = {"%D", "%0D", "%.1D", "%.2D", "%.3D", "%T", "%.1T", "%.2T", "%0T"};
  for (const unsigned lcid : {kLcidEnUs, kLcidDeDe, kLcidFrFr, kLcidJaJp, kLcidEnGb}) {
    env->lcid = lcid;
    quarnel_internal::NarrowDateWords words;
    quarnel_internal::PrepareNarrowDateWords(lcid, &words);
    for (const TDate& d : dates) {
      for (const char* form : forms) {
        SCOPED_TRACE(testing::Message() << std::hex << lcid << " " << form);
        TString engine;
        engine.SPrintf(Utf16(form).c_str(), &d);
        char out[160];
        quarnel_internal::ReportPrintf(out, sizeof out, &words, form, &d);
        EXPECT_EQ(std::string(out), Narrow(engine));
      }
    }
  }
}

TEST(CrashReportNames, EveryCodeHasItsName) {
  for (const auto& r : ReadTsv("crash_codes.tsv")) {
    EXPECT_STREQ(CrashExceptionName(static_cast<unsigned>(std::stoul(r[0], nullptr, 16))),
                 r[1].c_str())
        << r[0];
  }
}

// ---- names of frames ------------------------------------------------------------------------

// Every name is either demangled as the C++ runtime does it or declined.
TEST(CrashReportNames, DemanglingAgreesWithTheRuntime) {
  for (const auto& r : ReadTsv("demangle.tsv")) {
    const char* mangled = r[0].c_str();
    SCOPED_TRACE(mangled);
    char out[512];
    const int n = quarnel_internal::Demangle(mangled, out, sizeof out);
    if (r.size() > 1) {
      EXPECT_EQ(n, -1);
      continue;
    }
    int status = 0;
    char* expected = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(std::string(out, static_cast<std::size_t>(n)), expected);
    std::free(expected);
    // A buffer too small for the text declines instead of cutting it.
    EXPECT_EQ(quarnel_internal::Demangle(mangled, out, n), -1);
  }
}

TEST(CrashReportNames, SymbolMapGivesTheLastFunctionAtOrBelow) {
  // A symbol map is laid out as a string list whose tags are the offsets.
  auto map = [](std::initializer_list<std::pair<std::uint32_t, std::string>> records) {
    ListEntries entries;
    for (const auto& [offset, name] : records)
      entries.push_back({std::string(reinterpret_cast<const char*>(&offset), 4), name});
    return StringList(entries);
  };
  auto find = [](const std::vector<unsigned char>& m, std::uint32_t offset, std::size_t size) {
    quarnel_internal::SymbolMapHit hit{};
    if (!quarnel_internal::FindInSymbolMap(m.data(), size, offset, &hit)) return std::string("-");
    return std::string(hit.name, static_cast<std::size_t>(hit.length)) + "@" +
           std::to_string(hit.offset);
  };
  const auto good = map({{0x100, "first"}, {0x180, "odd"}, {0x200, "third"}});
  EXPECT_EQ(find(good, 0xFF, good.size()), "-");
  EXPECT_EQ(find(good, 0x100, good.size()), "first@256");
  EXPECT_EQ(find(good, 0x1FF, good.size()), "odd@384");
  EXPECT_EQ(find(good, 0xFFFFFFFF, good.size()), "third@512");
  EXPECT_EQ(find(good, 0x300, good.size() - 8), "odd@384");  // a cut record ends the walk
  const auto descending = map({{0x100, "a"}, {0x80, "b"}, {0x200, "c"}});
  EXPECT_EQ(find(descending, 0x300, descending.size()), "a@256");
}

// A hand-built stack: frames are [saved frame pointer, return address, 8 words].
TEST(CrashReportWalk, EndsWhereTheChainStopsClimbing) {
  alignas(16) static std::uintptr_t stack[64];
  auto at = [](int i) { return reinterpret_cast<std::uintptr_t>(&stack[i]); };
  struct Row {
    const char* what;
    std::uintptr_t third;  // the saved frame pointer of the second frame
    int frames;
  };
  const Row rows[] = {
      {"climbing to the end of the stack", at(40), 4},
      {"pointing downwards", at(4), 2},
      {"pointing at itself", at(20), 2},
      {"not a multiple of 8", at(40) + 4, 2},
      {"pointing at unmapped memory", 8, 2},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::memset(stack, 0, sizeof stack);
    stack[10] = at(20);  // frame 1 -> frame 2
    stack[11] = 0x1111;
    stack[20] = r.third;  // frame 2 -> ?
    stack[21] = 0x2222;
    stack[40] = at(60);  // frame 3 -> frame 4, whose 48 bytes run past the array
    stack[41] = 0x3333;
    stack[60] = 0;
    stack[61] = 0x4444;
    ASSERT_TRUE(USnapshotMemoryMap());
    quarnel_internal::WalkFrame frames[16];
    const int n = quarnel_internal::WalkStack(0x1000, at(10), frames, 16);
    ASSERT_EQ(n, r.frames);
    EXPECT_EQ(frames[0].ip, 0x1000u);
    EXPECT_EQ(frames[1].ip, 0x1111u);
    EXPECT_EQ(frames[1].fp, at(20));
    EXPECT_TRUE(frames[1].args);
  }
  quarnel_internal::WalkFrame one[1];
  EXPECT_EQ(quarnel_internal::WalkStack(0x1000, 8, one, 1), 1);
  EXPECT_FALSE(one[0].args);
}

// ---- reports --------------------------------------------------------------------------------

// An assertion's report, line by line; the process goes on, a second report
// follows the first below the same heading, and the helper program gets the
// error info.
TEST_F(CrashReportTest, AssertionReportFollowsTheGolden) {
  crashtest::AssertHere(995);
  std::vector<std::string> golden;
  for (std::string l : LinesOf(std::string(QUARNEL_TEST_DATA_DIR) + "/crash_assert.golden")) {
    if (!l.empty() && l[0] == '#') continue;
    if (kOnWindows) l = OnWindows(l);
    golden.push_back(l);
  }
  // The golden ends with the test's own thread. On Windows googletest's
  // thread-local watcher thread may follow it, once an earlier test started it.
  if (kOnWindows) golden.pop_back();

  std::vector<std::string> lines = LinesOf(LogPath());
  EXPECT_EQ(Mismatch(lines, golden), "") << Joined(lines);
  std::ifstream helper(root_ / "app" / "helper.out");
  std::string info((std::istreambuf_iterator<char>(helper)), std::istreambuf_iterator<char>());
  EXPECT_EQ(info, "Assertion failure at \"crashtest-995\"\n");

  crashtest::AssertHere(996);
  lines = LinesOf(LogPath());
  EXPECT_EQ(Count(lines, "Crash log of the tests"), 1);
  EXPECT_EQ(Count(lines, "Exception code: E0000000 ASSERTION"), 2);
  EXPECT_EQ(Count(lines, "Error info: Assertion failure at \"crashtest-996\""), 1);
  EXPECT_TRUE(Lines().empty());
}

// A null write with the crash handler installed in front of a handler that
// ends the process with 42, and the log in `logFolder`.
[[maybe_unused]] void NullWriteBehindExitHandler(const char* logFolder) {
  QuarnelEnv()->logFolder = logFolder;
  URemoveFatalSignalHandlers();
  std::signal(SIGSEGV, [](int) { std::_Exit(42); });
  InstallCrashHandler();
  crashtest::CallModule(1);
}

void Overflow() { crashtest::CallModule(3); }

void AssertThenExit() {
  crashtest::AssertHere(7);
  std::_Exit(3);
}

// Trimming a fragmented heap holds the main arena's lock nearly all the time:
// a report that allocated would wait for it for ever.
void NullWriteWhileTrimming() {
  static std::atomic<bool> allocating{false};
  static std::vector<void*> blocks(40000);
  for (void*& b : blocks) b = std::malloc(2000);
  for (std::size_t i = 0; i < blocks.size(); i += 2) std::free(blocks[i]);
  std::thread([] {
    allocating = true;
    for (;;) TrimHeap();
  }).detach();
  while (!allocating) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  crashtest::CallModule(1);
}

void NullWriteBesideEightThreads() {
  static std::atomic<int> running{0};
  for (int i = 0; i < 8; ++i) {
    std::thread([] {
      ++running;
      for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }).detach();
  }
  while (running < 8) std::this_thread::yield();
  crashtest::CallModule(1);
}

void FaultWhileReporting() {
  HookEnumThreads([](int, TThdDescriptor*) {
    crashtest::CallModule(1);
    return 1;
  });
  crashtest::AssertHere(8);
}

// Each fault in a child process: how the child ends, and what its log says.
// Not run under ThreadSanitizer (the name avoids the word that selects those
// tests): it delivers the capture signal only when a thread next enters one
// of its interceptors, so a thread busy in the C library would not answer;
// CrashSignalThread covers the capture there.
TEST_F(CrashReportTest, EveryFaultIsReportedInFull) {
  struct Case {
    const char* name;
    void (*run)();
    int signal;          // the signal that ends the child, or 0 when it exits
    int exitCode;        // when it exits
    int threads;         // threads reported with their registers (-1: no log)
    std::string expect;  // lines the log holds, in order, each ending in a line feed
  };
  const std::string module = kCrashModule;
  const std::string program = kOnWindows ? "crashreport_test.exe  " : "crashreport_test  ";
  // The fault lies in the section that holds the module's code.
  ASSERT_GT(USnapshotModules(), 0);
  const auto entry = reinterpret_cast<std::uintptr_t>(crashtest::g_crash);
  unsigned code = 0;
  std::uint32_t offset = 0;
  ASSERT_TRUE(UModuleSectionOf(*UModuleOf(entry), entry, &code, &offset));
  char section[8];
  std::snprintf(section, sizeof section, "%04X", code);
  const std::string access = "Exception code: C0000005 ACCESS_VIOLATION\n";
  const std::string caller = program + "crashtest::CallModule(int)<ANY>\n";
  const Case cases[] = {
      {"null write", [] { crashtest::CallModule(1); }, SIGSEGV, 0, 1,
       access + "Fault address: <HEX16> " + section + ":<HEX8> " + module + "\n" + module +
           "  (anonymous namespace)::WriteThroughNull(int volatile*)<ANY>\n" + caller},
      {"divide by zero", [] { crashtest::CallModule(2); }, SIGFPE, 0, 1,
       "Exception code: C0000094 INT_DIVIDE_BY_ZERO\n" + module +
           "  (anonymous namespace)::DivideBy(int)<ANY>\n" + caller},
      {"stack overflow", Overflow, SIGSEGV, 0, 1,
       "Exception code: C00000FD STACK_OVERFLOW\n" + module +
           "  (anonymous namespace)::Recurse(int, int)<ANY>\n"},
      {"abort", [] { crashtest::CallModule(4); }, SIGABRT, 0, 1,
       "Exception code: 40000015 FATAL_APP_EXIT\nFault address: <ANY> " +
           std::string(kAbortModule) + "\n"},
      {"assertion, after which the process goes on", AssertThenExit, 0, 3, 1,
       "Error info: Assertion failure at \"crashtest-7\"\nException code: E0000000 ASSERTION\n" +
           program + "crashtest::AssertHere(int)<ANY>\n"},
      {"while another thread holds the allocator's lock", NullWriteWhileTrimming, SIGSEGV, 0, 2,
       access},
      {"with eight other threads", NullWriteBesideEightThreads, SIGSEGV, 0, 9, access},
      {"a fault while a report is written", FaultWhileReporting, SIGSEGV, 0, 0,
       "Exception code: E0000000 ASSERTION\n"},
      {"no log file can be opened: the previous handler still runs",
       [] { NullWriteBehindExitHandler("/nonexistent/quarnel/log"); }, 0, 42, -1, ""},
  };
  testing::FLAGS_gtest_death_test_style = "fast";
  for (const Case& c : cases) {
    if (c.run == Overflow &&
        WineDiffers("a stack overflow is dispatched on the overflowing stack, which runs out "
                    "before the unhandled-exception filter (virtual_setup_exception: stack "
                    "overflow) and the process hangs"))
      continue;
    SCOPED_TRACE(c.name);
    fs::remove(LogPath());
    // A report that waited for a lock a held thread has would take the 20
    // seconds after which held threads go on by themselves.
    const auto start = std::chrono::steady_clock::now();
    auto ended = [&c](int status) {
      if (c.signal == 0) return testing::ExitedWithCode(c.exitCode)(status);
#if defined(_WIN32)
      // The exception's code, or under Wine one of its own.
      return !testing::ExitedWithCode(0)(status);
#else
      return kSanitized ? !testing::ExitedWithCode(0)(status)
                        : testing::KilledBySignal(c.signal)(status);
#endif
    };
    // The child notes how many threads it had before the case (on Windows
    // googletest's thread-local watcher thread runs beside the test's).
    const fs::path before = root_ / "threads-before";
    EXPECT_EXIT(
        {
          unsigned ids[64];
          std::ofstream(before) << UListThreads(ids, 64);
          c.run();
        },
        ended, "");
    int others = 0;
    std::ifstream(before) >> others;
    --others;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    if (c.threads < 0) {
      EXPECT_FALSE(fs::exists(LogPath()));
      continue;
    }
    const std::vector<std::string> lines = LinesOf(LogPath());
    EXPECT_EQ(Count(lines, "Crash log of the tests"), 1);
    EXPECT_EQ(Count(lines, std::string(68, 'X')), 1);
    std::vector<std::string> order = {"..."};
    std::istringstream expect(c.expect);
    for (std::string line; std::getline(expect, line);) order.insert(order.end(), {line, "..."});
    if (c.threads > 0) {
      EXPECT_EQ(Mismatch(lines, order), "") << Joined(lines);
      EXPECT_EQ(Count(lines, "Thread ID: <HEX8>, Name: <ANY>"), c.threads + others);
      EXPECT_EQ(Count(lines, "RAX:<ANY>"), c.threads + others);
      EXPECT_EQ(Count(lines, "R8: <ANY>"), c.threads + others);
      EXPECT_EQ(Count(lines, "** GetThreadContext failed<ANY>"), 0);
    } else {
      // Cut short by the second fault: one report head, no second report.
      EXPECT_EQ(Count(lines, order[1]), 1);
      EXPECT_EQ(Count(lines, "Exception code:<ANY>"), 1);
    }
  }
}

}  // namespace
