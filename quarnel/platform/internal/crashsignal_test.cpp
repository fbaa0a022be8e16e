// The crash report's view of the system: which exception a signal is, the
// threads and their registers, the modules, symbols and memory map, each
// against the system's own answer.
#include "quarnel/platform/internal/crashsignal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/threadid.h"
#include "tests/support/helpers.h"
#include "tests/support/platform_cases.h"

#if defined(_WIN32)
#include "quarnel/platform/internal/pefile.h"
#include "quarnel/platform/win32/winapi.h"
#else
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace {

#if defined(_WIN32)
void NameThisThread() {
  using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  const auto set = reinterpret_cast<SetDescription>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription")));
  if (set != nullptr) set(::GetCurrentThread(), L"counter");
}

// A read-only page with a hole after it.
char* ReadOnlyPageBeforeAHole(std::size_t page) {
  auto* region = static_cast<char*>(::VirtualAlloc(nullptr, 2 * page, MEM_RESERVE, PAGE_NOACCESS));
  if (region == nullptr || ::VirtualAlloc(region, page, MEM_COMMIT, PAGE_READONLY) == nullptr)
    return nullptr;
  return region;
}
void FreePage(char* region, std::size_t) { ::VirtualFree(region, 0, MEM_RELEASE); }
std::size_t PageSize() {
  SYSTEM_INFO si;
  ::GetSystemInfo(&si);
  return si.dwPageSize;
}

// An address in the calling thread's guard page: below the committed part of
// its stack (Windows) or at the bottom of a stack committed whole (Wine),
// found by walking the stack's allocation from its base. 0 if none is found.
std::uintptr_t InThisStacksGuard() {
  int mine = 0;
  MEMORY_BASIC_INFORMATION info;
  if (::VirtualQuery(&mine, &info, sizeof info) == 0) return 0;
  for (auto at = reinterpret_cast<std::uintptr_t>(info.AllocationBase);
       at < reinterpret_cast<std::uintptr_t>(&mine);) {
    MEMORY_BASIC_INFORMATION r;
    if (::VirtualQuery(reinterpret_cast<void*>(at), &r, sizeof r) == 0) return 0;
    if (r.State == MEM_COMMIT && (r.Protect & PAGE_GUARD)) return at + 16;
    at = reinterpret_cast<std::uintptr_t>(r.BaseAddress) + r.RegionSize;
  }
  return 0;
}
#else
void NameThisThread() { pthread_setname_np(pthread_self(), "counter"); }

char* ReadOnlyPageBeforeAHole(std::size_t page) {
  void* region = mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (region == MAP_FAILED) return nullptr;
  munmap(static_cast<char*>(region) + page, page);
  return static_cast<char*>(region);
}
void FreePage(char* region, std::size_t page) { munmap(region, page); }
std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

// An address in the guard page below the calling thread's stack.
std::uintptr_t InThisStacksGuard() {
  pthread_attr_t attr;
  pthread_getattr_np(pthread_self(), &attr);
  void* low = nullptr;
  std::size_t size = 0;
  pthread_attr_getstack(&attr, &low, &size);
  pthread_attr_destroy(&attr);
  return reinterpret_cast<std::uintptr_t>(low) - 16;
}

TEST(CrashSignal, EachSignalNamesItsException) {
  struct Row {
    int signal;
    int code;
    bool guard;
    unsigned expected;
  };
  const Row rows[] = {
      {SIGSEGV, SEGV_MAPERR, false, 0xC0000005}, {SIGSEGV, SEGV_ACCERR, true, 0xC00000FD},
      {SIGBUS, BUS_ADRALN, false, 0x80000002},   {SIGBUS, BUS_ADRERR, false, 0xC0000006},
      {SIGBUS, BUS_OBJERR, false, 0xC0000006},   {SIGILL, ILL_ILLOPC, false, 0xC000001D},
      {SIGILL, ILL_PRVOPC, false, 0xC0000096},   {SIGILL, ILL_PRVREG, false, 0xC0000096},
      {SIGFPE, FPE_INTDIV, false, 0xC0000094},   {SIGFPE, FPE_INTOVF, false, 0xC0000095},
      {SIGFPE, FPE_FLTDIV, false, 0xC000008E},   {SIGFPE, FPE_FLTOVF, false, 0xC0000091},
      {SIGFPE, FPE_FLTUND, false, 0xC0000093},   {SIGFPE, FPE_FLTRES, false, 0xC000008F},
      {SIGFPE, FPE_FLTINV, false, 0xC0000090},   {SIGFPE, FPE_FLTSUB, false, 0xC000008C},
      {SIGTRAP, TRAP_BRKPT, false, 0x80000003},  {SIGTRAP, SI_KERNEL, false, 0x80000003},
      {SIGTRAP, TRAP_TRACE, false, 0x80000004},  {SIGTRAP, TRAP_HWBKPT, false, 0x80000004},
      {SIGABRT, SI_TKILL, false, 0x40000015},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "signal " << r.signal << " code " << r.code);
    EXPECT_EQ(UExceptionCodeOfSignal(r.signal, r.code, r.guard), r.expected);
  }
}
#endif

// Threads that count until told to stop: the first has a name; on Linux the
// second blocks every signal, the capture's too; a third has ended.
TEST(CrashSignalThread, CapturesOtherThreadsAndLetsThemGoOn) {
  ASSERT_EQ(UInstallFatalSignalHandlers(nullptr), 1);
  std::atomic<bool> stop{false};
  std::atomic<int> started{0};
  std::atomic<long> counts[2] = {};
  std::atomic<unsigned> ids[2] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&, i] {
      if (i == 0) NameThisThread();
#if !defined(_WIN32)
      sigset_t all;
      sigfillset(&all);
      if (i == 1) pthread_sigmask(SIG_BLOCK, &all, nullptr);
#endif
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
  // Unnamed: no name on Windows, the program's on Linux.
  EXPECT_EQ(UThreadName(ids[1], name, sizeof name) > 0, !kOnWindows);

  const unsigned asked[3] = {ids[0], ids[1], ended};
  UThreadContext contexts[3] = {};
  unsigned errors[3] = {};
  UCaptureThreads(asked, 3, contexts, errors, 2000);
  EXPECT_EQ(errors[0], 0u);
  EXPECT_EQ(errors[1], kOnWindows ? 0u : 5u);
  EXPECT_NE(errors[2], 0u);  // no such thread any more
  EXPECT_NE(contexts[0].rip, 0u);
  EXPECT_NE(contexts[0].rsp, 0u);
  // Held: the counter stands still until the threads are let go.
  const long held = counts[0];
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(counts[0], held);
  UReleaseThreads();
  while (counts[0] == held) std::this_thread::yield();
  stop = true;
  for (std::thread& t : threads) t.join();
}

TEST(CrashModule, MemoryMapTellsWhatMayBeRead) {
  const std::size_t page = PageSize();
  char* region = ReadOnlyPageBeforeAHole(page);
  ASSERT_NE(region, nullptr);
  int local = 0;
  const auto stack = reinterpret_cast<std::uintptr_t>(&local);
  const auto ro = reinterpret_cast<std::uintptr_t>(region);
  ASSERT_TRUE(USnapshotMemoryMap());
  EXPECT_TRUE(UMemoryAccessible(stack, sizeof local, true));
  EXPECT_TRUE(UMemoryAccessible(ro, page, false));
  EXPECT_FALSE(UMemoryAccessible(ro, page, true));
  EXPECT_FALSE(UMemoryAccessible(ro, page + 1, false));
  EXPECT_FALSE(UMemoryAccessible(0, 8, false));
  std::thread([] {
    const std::uintptr_t guard = InThisStacksGuard();
    ASSERT_NE(guard, 0u);
    EXPECT_TRUE(UInStackGuard(guard));
    int mine = 0;
    EXPECT_FALSE(UInStackGuard(reinterpret_cast<std::uintptr_t>(&mine)));
  }).join();
  EXPECT_FALSE(UInStackGuard(stack));
  EXPECT_FALSE(UInStackGuard(ro + page + 16));
  FreePage(region, page);
}

#if defined(_WIN32)
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
  const Bytes bytes = ReadBytes(self->path);
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
#else
// The symbol and module of an address agree with the loader's own answer.
TEST(CrashModule, SymbolsAndModulesAgreeWithTheLoader) {
  ASSERT_GT(USnapshotModules(), 1);
  const void* addresses[] = {
      reinterpret_cast<const void*>(&std::malloc),
      reinterpret_cast<const char*>(&std::strlen) + 3,
      reinterpret_cast<const void*>(&dladdr),
      reinterpret_cast<const char*>(&UCaptureThreads) + 1,
      reinterpret_cast<const void*>(&testing::internal::GetTestTypeId),
  };
  for (const void* a : addresses) {
    Dl_info info{};
    ASSERT_NE(dladdr(a, &info), 0);
    const auto address = reinterpret_cast<std::uintptr_t>(a);
    const UModuleInfo* m = UModuleOf(address);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->base, reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    const std::string expectedName = info.dli_fname;
    EXPECT_EQ(std::string(UModuleBaseName(m)), expectedName.substr(expectedName.rfind('/') + 1));
    char name[512];
    std::uintptr_t symbol = 0;
    const bool found = UModuleDynamicSymbol(*m, address, name, sizeof name, &symbol);
    EXPECT_EQ(found, info.dli_sname != nullptr);
    if (found && info.dli_sname != nullptr) {
      EXPECT_EQ(std::string(name), info.dli_sname);
      EXPECT_EQ(symbol, reinterpret_cast<std::uintptr_t>(info.dli_saddr));
    }
    unsigned section = 0;
    std::uint32_t offset = 0;
    EXPECT_TRUE(UModuleSectionOf(*m, address, &section, &offset));
    EXPECT_GT(section, 0u);
  }
  EXPECT_EQ(UModuleOf(0), nullptr);
}
#endif

}  // namespace
