// The crash report's view of the system: which exception a signal is, the
// threads and their registers, the modules, symbols and memory map.
#include "quarnel/platform/internal/crashsignal.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/threadid.h"

namespace {

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

// Threads that count until told to stop; one of them blocks the capture
// signal.
TEST(CrashSignalThread, CapturesOtherThreadsAndLetsThemGoOn) {
  ASSERT_EQ(UInstallFatalSignalHandlers(nullptr), 1);
  std::atomic<bool> stop{false};
  std::atomic<int> started{0};
  std::atomic<long> counts[3] = {};
  std::atomic<unsigned> ids[3] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      if (i == 2) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
      }
      ids[i] = UGetCurrentThreadId();
      ++started;
      while (!stop) {
        ++counts[i];
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    });
  }
  while (started < 3) std::this_thread::yield();

  unsigned listed[64];
  const int n = UListThreads(listed, 64);
  for (const auto& id : ids) EXPECT_NE(std::find(listed, listed + n, id.load()), listed + n);
  char name[64];
  EXPECT_GT(UThreadName(ids[0], name, sizeof name), 0);

  const unsigned asked[3] = {ids[0], ids[1], ids[2]};
  UThreadContext contexts[3] = {};
  unsigned errors[3] = {};
  UCaptureThreads(asked, 3, contexts, errors, 2000);
  EXPECT_EQ(errors[0], 0u);
  EXPECT_EQ(errors[1], 0u);
  EXPECT_EQ(errors[2], 5u);  // blocks the signal
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(contexts[i].rip, 0u);
    EXPECT_NE(contexts[i].rsp, 0u);
  }
  // Held: the counters stand still until the threads are let go.
  const long held = counts[0];
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(counts[0], held);
  UReleaseThreads();
  while (counts[0] == held) std::this_thread::yield();
  stop = true;
  for (std::thread& t : threads) t.join();
}

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

TEST(CrashModule, MemoryMapTellsWhatMayBeRead) {
  const long page = sysconf(_SC_PAGESIZE);
  auto* readOnly =
      static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(readOnly, MAP_FAILED);
  ASSERT_EQ(munmap(readOnly + page, page), 0);  // a hole after it
  int local = 0;
  const auto stack = reinterpret_cast<std::uintptr_t>(&local);
  const auto ro = reinterpret_cast<std::uintptr_t>(readOnly);
  ASSERT_TRUE(USnapshotMemoryMap());
  EXPECT_TRUE(UMemoryAccessible(stack, sizeof local, true));
  EXPECT_TRUE(UMemoryAccessible(ro, page, false));
  EXPECT_FALSE(UMemoryAccessible(ro, page, true));
  EXPECT_FALSE(UMemoryAccessible(ro, page + 1, false));
  EXPECT_FALSE(UMemoryAccessible(0, 8, false));

  // A thread's guard page lies below its stack.
  std::uintptr_t guarded = 0;
  std::thread([&] {
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    void* low = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attr, &low, &size);
    pthread_attr_destroy(&attr);
    guarded = reinterpret_cast<std::uintptr_t>(low) - 16;
    EXPECT_TRUE(UInStackGuard(guarded));
  }).join();
  EXPECT_FALSE(UInStackGuard(stack));
  EXPECT_FALSE(UInStackGuard(ro + page + 16));
  munmap(readOnly, page);
}

}  // namespace
