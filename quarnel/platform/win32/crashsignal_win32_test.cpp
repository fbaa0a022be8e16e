// The crash report's view of the system on Windows: threads and their
// registers, the modules, their sections and symbols, and what memory may be
// read, each against the system's own answer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/internal/crashsignal.h"
#include "quarnel/platform/internal/pefile.h"
#include "quarnel/platform/threadid.h"
#include "quarnel/platform/win32/winapi.h"
#include "quarnel/platform/wine.h"

namespace {

// Threads that count until told to stop; one has a name, one has ended.
TEST(CrashSignalThread, CapturesOtherThreadsAndLetsThemGoOn) {
  ASSERT_EQ(UInstallFatalSignalHandlers(nullptr), 1);
  std::atomic<bool> stop{false};
  std::atomic<int> started{0};
  std::atomic<long> counts[2] = {};
  std::atomic<unsigned> ids[2] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&, i] {
      if (i == 0) {
        using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
        const auto set = reinterpret_cast<SetDescription>(reinterpret_cast<void*>(
            ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription")));
        ASSERT_NE(set, nullptr);
        set(::GetCurrentThread(), L"counter");
      }
      ids[i] = UGetCurrentThreadId();
      ++started;
      while (!stop) {
        ++counts[i];
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    });
  }
  unsigned ended = 0;
  std::thread([&] { ended = UGetCurrentThreadId(); }).join();
  while (started < 2) std::this_thread::yield();

  unsigned listed[256];
  const int n = UListThreads(listed, 256);
  for (const auto& id : ids) EXPECT_NE(std::find(listed, listed + n, id.load()), listed + n);
  EXPECT_NE(std::find(listed, listed + n, UGetCurrentThreadId()), listed + n);
  EXPECT_EQ(std::find(listed, listed + n, ended), listed + n);
  char name[64];
  EXPECT_EQ(UThreadName(ids[0], name, sizeof name), 7);
  EXPECT_STREQ(name, "counter");
  EXPECT_EQ(UThreadName(ids[1], name, sizeof name), 0);

  const unsigned asked[3] = {ids[0], ids[1], ended};
  UThreadContext contexts[3] = {};
  unsigned errors[3] = {};
  UCaptureThreads(asked, 3, contexts, errors, 2000);
  EXPECT_EQ(errors[0], 0u);
  EXPECT_EQ(errors[1], 0u);
  EXPECT_NE(errors[2], 0u);  // no such thread any more
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(contexts[i].rip, 0u);
    EXPECT_NE(contexts[i].rsp, 0u);
    EXPECT_NE(contexts[i].cs, 0u);
  }
  const long held = counts[0];
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(counts[0], held);
  UReleaseThreads();
  while (counts[0] == held) std::this_thread::yield();
  stop = true;
  for (std::thread& t : threads) t.join();
}

std::vector<unsigned char> FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
}

// Modules, sections and symbols agree with the loader and with the
// program's own file.
TEST(CrashModule, SymbolsAndModulesAgreeWithTheLoader) {
  ASSERT_GT(USnapshotModules(), 1);
  const void* addresses[] = {
      reinterpret_cast<const void*>(&UCaptureThreads),
      reinterpret_cast<const char*>(&UModuleOf) + 3,
      reinterpret_cast<const void*>(&::GetTickCount64),
  };
  for (const void* a : addresses) {
    HMODULE loaded = nullptr;
    ASSERT_TRUE(::GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        static_cast<LPCWSTR>(a), &loaded));
    const auto address = reinterpret_cast<std::uintptr_t>(a);
    const UModuleInfo* m = UModuleOf(address);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->base, reinterpret_cast<std::uintptr_t>(loaded));
    wchar_t path[MAX_PATH];
    const std::wstring file(path, ::GetModuleFileNameW(loaded, path, MAX_PATH));
    const std::wstring base = file.substr(file.find_last_of(L"\\/") + 1);
    EXPECT_EQ(quarnel_internal::WideOf(UModuleBaseName(m)), base);
    unsigned section = 0;
    std::uint32_t offset = 0;
    ASSERT_TRUE(UModuleSectionOf(*m, address, &section, &offset));
    EXPECT_EQ(section, 1u);  // .text
  }
  // The program's own functions are named by its symbol table.
  const auto capture = reinterpret_cast<std::uintptr_t>(&UCaptureThreads);
  const UModuleInfo* self = UModuleOf(capture);
  char name[256];
  std::uintptr_t start = 0;
  ASSERT_TRUE(UModuleDynamicSymbol(*self, capture + 5, name, sizeof name, &start));
  EXPECT_STREQ(name, "_Z15UCaptureThreadsPKjiP14UThreadContextPji");
  EXPECT_EQ(start, capture);
  std::vector<quarnel_internal::ElfFunction> functions;
  const std::vector<unsigned char> bytes = FileBytes(self->path);
  const quarnel_internal::ElfMemorySource source(bytes.data(), bytes.size());
  ASSERT_EQ(quarnel_internal::PeFunctionSymbols(source, &functions), quarnel_internal::kPeFound);
  const auto it = std::find_if(functions.begin(), functions.end(), [](const auto& f) {
    return f.name == "_Z15UCaptureThreadsPKjiP14UThreadContextPji";
  });
  ASSERT_NE(it, functions.end());
  EXPECT_EQ(it->value, capture - self->base);
  EXPECT_TRUE(it->global);
  EXPECT_EQ(UModuleOf(0), nullptr);
}

TEST(CrashModule, MemoryMapTellsWhatMayBeRead) {
  SYSTEM_INFO si;
  ::GetSystemInfo(&si);
  const std::size_t page = si.dwPageSize;
  auto* region = static_cast<char*>(::VirtualAlloc(nullptr, 2 * page, MEM_RESERVE, PAGE_NOACCESS));
  ASSERT_NE(region, nullptr);
  ASSERT_NE(::VirtualAlloc(region, page, MEM_COMMIT, PAGE_READONLY), nullptr);  // a hole after it
  int local = 0;
  const auto stack = reinterpret_cast<std::uintptr_t>(&local);
  const auto ro = reinterpret_cast<std::uintptr_t>(region);
  ASSERT_TRUE(USnapshotMemoryMap());
  EXPECT_TRUE(UMemoryAccessible(stack, sizeof local, true));
  EXPECT_TRUE(UMemoryAccessible(ro, page, false));
  EXPECT_FALSE(UMemoryAccessible(ro, page, true));
  EXPECT_FALSE(UMemoryAccessible(ro, page + 1, false));
  EXPECT_FALSE(UMemoryAccessible(0, 8, false));

  // A thread's guard page lies below the committed part of its stack (Windows)
  // or at the bottom of a stack committed whole (Wine): found by walking the
  // stack's allocation from its base.
  std::thread([&] {
    int mine = 0;
    MEMORY_BASIC_INFORMATION info;
    ASSERT_NE(::VirtualQuery(&mine, &info, sizeof info), 0u);
    auto at = reinterpret_cast<std::uintptr_t>(info.AllocationBase);
    std::uintptr_t guard = 0;
    while (guard == 0 && at < reinterpret_cast<std::uintptr_t>(&mine)) {
      MEMORY_BASIC_INFORMATION r;
      ASSERT_NE(::VirtualQuery(reinterpret_cast<void*>(at), &r, sizeof r), 0u);
      if (r.State == MEM_COMMIT && (r.Protect & PAGE_GUARD)) guard = at;
      at = reinterpret_cast<std::uintptr_t>(r.BaseAddress) + r.RegionSize;
    }
    ASSERT_NE(guard, 0u);
    EXPECT_TRUE(UInStackGuard(guard + 16));
    EXPECT_FALSE(UInStackGuard(reinterpret_cast<std::uintptr_t>(&mine)));
  }).join();
  EXPECT_FALSE(UInStackGuard(stack));
  EXPECT_FALSE(UInStackGuard(ro + page + 16));
  ::VirtualFree(region, 0, MEM_RELEASE);
}

// Faults in a child process: the handler hears each with its code, on behalf
// of the faulting thread and with its registers; the process then ends with
// the exception's code, as without a handler (under Wine, its debugger ends
// it).
std::atomic<unsigned> g_faulting{0};

void OnFatal(const UFatalEvent& event) {
  std::fprintf(stderr, "fatal %08X %s %s\n", event.code,
               event.threadId == g_faulting ? "faulting-thread" : "other-thread",
               event.context != nullptr && event.context->rip != 0 ? "registers" : "none");
  std::fflush(stderr);
}

TEST(CrashSignalDeath, FaultsReachTheHandlerThenEndTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  struct Case {
    const char* name;
    unsigned code;
    void (*fault)();
  } cases[] = {
      // An address no process maps (Wine run by root may map page zero).
      {"write to an unmapped address", 0xC0000005u,
       [] {
         int* volatile p = reinterpret_cast<int*>(0x100000000000ull);
         *p = 1;
       }},
      {"divide by zero", 0xC0000094u,
       [] {
         volatile int zero = 0;
         volatile int n = 7 / zero;
         (void)n;
       }},
  };
  const bool wine = URunsUnderWine() != 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    char expect[64];
    std::snprintf(expect, sizeof expect, "fatal %08X faulting-thread registers", c.code);
    const int code = static_cast<int>(c.code);
    const auto ended = [wine, code](int status) { return wine || status == code; };
    EXPECT_EXIT(
        {
          UInstallFatalSignalHandlers(OnFatal);
          g_faulting = UGetCurrentThreadId();
          c.fault();
        },
        ended, expect);
  }
}

}  // namespace
