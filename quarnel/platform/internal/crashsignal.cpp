#include "quarnel/platform/internal/crashsignal.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "quarnel/platform/internal/crashmodule.h"

extern char** environ;

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGABRT};
constexpr int kSignalSlots = 65;

// Windows exception codes.
enum : unsigned {
  kExcAccessViolation = 0xC0000005,
  kExcInPageError = 0xC0000006,
  kExcIllegalInstruction = 0xC000001D,
  kExcArrayBoundsExceeded = 0xC000008C,
  kExcFltDivideByZero = 0xC000008E,
  kExcFltInexactResult = 0xC000008F,
  kExcFltInvalidOperation = 0xC0000090,
  kExcFltOverflow = 0xC0000091,
  kExcFltUnderflow = 0xC0000093,
  kExcIntDivideByZero = 0xC0000094,
  kExcIntOverflow = 0xC0000095,
  kExcPrivInstruction = 0xC0000096,
  kExcStackOverflow = 0xC00000FD,
  kExcDatatypeMisalignment = 0x80000002,
  kExcBreakpoint = 0x80000003,
  kExcSingleStep = 0x80000004,
  kExcFatalAppExit = 0x40000015,
};

// Windows error numbers of a failed capture.
enum : unsigned {
  kWinAccessDenied = 5,
  kWinInvalidHandle = 6,
  kWinTimeout = 1460,
};

std::atomic<UFatalProc> g_proc{nullptr};
std::atomic<bool> g_installed{false};
struct sigaction g_previous[kSignalSlots];
struct sigaction g_previousCapture;
int g_captureSignal = 0;

unsigned CurrentThreadId() { return static_cast<unsigned>(::syscall(SYS_gettid)); }

// ---- contexts --------------------------------------------------------------------------------

void FromUcontext(const void* ucv, UThreadContext* c) {
  std::memset(c, 0, sizeof *c);
  const auto* uc = static_cast<const ucontext_t*>(ucv);
#if defined(__x86_64__)
  const greg_t* g = uc->uc_mcontext.gregs;
  auto r = [g](int i) { return static_cast<std::uint64_t>(g[i]); };
  c->rax = r(REG_RAX);
  c->rbx = r(REG_RBX);
  c->rcx = r(REG_RCX);
  c->rdx = r(REG_RDX);
  c->rsi = r(REG_RSI);
  c->rdi = r(REG_RDI);
  c->rbp = r(REG_RBP);
  c->rsp = r(REG_RSP);
  c->r8 = r(REG_R8);
  c->r9 = r(REG_R9);
  c->r10 = r(REG_R10);
  c->r11 = r(REG_R11);
  c->r12 = r(REG_R12);
  c->r13 = r(REG_R13);
  c->r14 = r(REG_R14);
  c->r15 = r(REG_R15);
  c->rip = r(REG_RIP);
  c->rflags = r(REG_EFL);
  // CS, GS, FS and (since Linux 4.6) SS share one word, 16 bits each.
  const std::uint64_t csgsfs = r(REG_CSGSFS);
  c->cs = static_cast<std::uint16_t>(csgsfs);
  c->gs = static_cast<std::uint16_t>(csgsfs >> 16);
  c->fs = static_cast<std::uint16_t>(csgsfs >> 32);
  c->ss = static_cast<std::uint16_t>(csgsfs >> 48);
#elif defined(__aarch64__)
  // The program counter, stack and frame pointers in the x86-64 places.
  c->rip = uc->uc_mcontext.pc;
  c->rsp = uc->uc_mcontext.sp;
  c->rbp = uc->uc_mcontext.regs[29];
#else
  (void)uc;
#endif
}

bool IsFunction(const struct sigaction& sa) {
  if (sa.sa_flags & SA_SIGINFO) return sa.sa_sigaction != nullptr;
  return sa.sa_handler != SIG_DFL && sa.sa_handler != SIG_IGN;
}

// ---- capture of other threads ------------------------------------------------------------------

constexpr int kMaxCapture = 256;
// A held thread goes on by itself after this long, so that a report that
// cannot finish does not stop the whole process.
constexpr int kHoldLimitMs = 20000;
enum : int { kSlotIdle, kSlotAsked, kSlotWriting, kSlotHeld, kSlotLeft };

struct CaptureSlot {
  std::atomic<unsigned> tid{0};
  std::atomic<int> state{kSlotIdle};
  UThreadContext context;
};

CaptureSlot g_slots[kMaxCapture];
std::atomic<bool> g_hold{false};

void OnCapture(int sig, siginfo_t* info, void* ucv) {
  const int savedErrno = errno;
  const unsigned self = CurrentThreadId();
  bool asked = false;
  for (CaptureSlot& slot : g_slots) {
    if (slot.tid.load(std::memory_order_acquire) != self) continue;
    int expected = kSlotAsked;
    if (!slot.state.compare_exchange_strong(expected, kSlotWriting, std::memory_order_acq_rel)) {
      continue;
    }
    asked = true;
    FromUcontext(ucv, &slot.context);
    slot.state.store(kSlotHeld, std::memory_order_release);
    for (int waited = 0; g_hold.load(std::memory_order_acquire) && waited < kHoldLimitMs;
         ++waited) {
      UHandlerSleep(1);
    }
    slot.state.store(kSlotLeft, std::memory_order_release);
    break;
  }
  // Not sent by a report: the process's own use of the signal goes on.
  if (!asked && IsFunction(g_previousCapture)) {
    if (g_previousCapture.sa_flags & SA_SIGINFO) {
      g_previousCapture.sa_sigaction(sig, info, ucv);
    } else {
      g_previousCapture.sa_handler(sig);
    }
  }
  errno = savedErrno;
}

void AppendNumber(char*& p, unsigned v) {
  char digits[12];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (n > 0) *p++ = digits[--n];
}

// "/proc/self/task/<id>/<leaf>" in `path`.
void TaskPath(char* path, unsigned id, const char* leaf) {
  char* p = path;
  static const char kTask[] = "/proc/self/task/";
  std::memcpy(p, kTask, sizeof kTask - 1);
  p += sizeof kTask - 1;
  AppendNumber(p, id);
  *p++ = '/';
  const std::size_t n = std::strlen(leaf);
  std::memcpy(p, leaf, n + 1);
}

// True when thread `id` blocks `sig` (its status file's SigBlk mask).
bool BlocksSignal(unsigned id, int sig) {
  char path[64];
  TaskPath(path, id, "status");
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[2048];
  const ssize_t n = ::read(fd, buf, sizeof buf - 1);
  ::close(fd);
  if (n <= 0) return false;
  buf[n] = '\0';
  const char* at = std::strstr(buf, "SigBlk:");
  if (at == nullptr) return false;
  at += 7;
  while (*at == '\t' || *at == ' ') ++at;
  std::uint64_t mask = 0;
  for (; *at != '\0' && *at != '\n'; ++at) {
    const char c = *at;
    const int d = c >= '0' && c <= '9' ? c - '0' : (c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1);
    if (d < 0) break;
    mask = mask << 4 | static_cast<unsigned>(d);
  }
  return sig >= 1 && sig <= 64 && (mask >> (sig - 1) & 1) != 0;
}

// ---- chaining ----------------------------------------------------------------------------------

void Chain(int sig, siginfo_t* info, void* ucv) {
  const struct sigaction& prev = g_previous[sig];
  if (IsFunction(prev)) {
    if (prev.sa_flags & SA_SIGINFO) {
      prev.sa_sigaction(sig, info, ucv);
    } else {
      prev.sa_handler(sig);
    }
    return;
  }
  // The disposition the process had; the handler is taken off for good.
  ::sigaction(sig, &prev, nullptr);
  const bool refaults = sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE;
  if (!refaults || info == nullptr || info->si_code <= 0) {
    // Raised again: pending while this handler runs, delivered as it returns.
    ::syscall(SYS_tgkill, ::getpid(), CurrentThreadId(), sig);
  }
}

void OnFatal(int sig, siginfo_t* info, void* ucv) {
  const int savedErrno = errno;
  UThreadContext context;
  FromUcontext(ucv, &context);
  bool guard = false;
  if (sig == SIGSEGV && info != nullptr) {
    guard = UInStackGuard(reinterpret_cast<std::uintptr_t>(info->si_addr));
  }
  const UFatalEvent event{UExceptionCodeOfSignal(sig, info ? info->si_code : 0, guard), sig,
                          CurrentThreadId(), &context};
  if (UFatalProc proc = g_proc.load(std::memory_order_acquire)) proc(event);
  Chain(sig, info, ucv);
  errno = savedErrno;
}

// ---- alternate stacks --------------------------------------------------------------------------

constexpr std::size_t kAltStackSize = 256 * 1024;

// Owns the stack it gave its thread; takes it back when the thread ends.
struct AltStack {
  void* base = nullptr;
  std::size_t size = 0;
  ~AltStack() {
    if (base == nullptr) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
    ::munmap(base, size);
  }
};

thread_local AltStack t_altStack;

}  // namespace

unsigned UExceptionCodeOfSignal(int signal, int siCode, bool inStackGuard) {
  switch (signal) {
    case SIGSEGV:
      return inStackGuard ? kExcStackOverflow : kExcAccessViolation;
    case SIGBUS:
      return siCode == BUS_ADRALN ? kExcDatatypeMisalignment : kExcInPageError;
    case SIGILL:
      return siCode == ILL_PRVOPC || siCode == ILL_PRVREG ? kExcPrivInstruction
                                                          : kExcIllegalInstruction;
    case SIGFPE:
      switch (siCode) {
        case FPE_INTDIV:
          return kExcIntDivideByZero;
        case FPE_INTOVF:
          return kExcIntOverflow;
        case FPE_FLTDIV:
          return kExcFltDivideByZero;
        case FPE_FLTOVF:
          return kExcFltOverflow;
        case FPE_FLTUND:
          return kExcFltUnderflow;
        case FPE_FLTRES:
          return kExcFltInexactResult;
        case FPE_FLTSUB:
          return kExcArrayBoundsExceeded;
        default:
          return kExcFltInvalidOperation;
      }
    case SIGTRAP:
      return siCode == TRAP_TRACE || siCode == TRAP_HWBKPT ? kExcSingleStep : kExcBreakpoint;
    case SIGABRT:
      return kExcFatalAppExit;
    default:
      return kExcAccessViolation;
  }
}

void UEnsureAltStack() {
  if (t_altStack.base != nullptr) return;
  stack_t current{};
  if (::sigaltstack(nullptr, &current) != 0 || !(current.ss_flags & SS_DISABLE)) return;
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t size = kAltStackSize + page;
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return;
  ::mprotect(base, page, PROT_NONE);  // a guard below the stack
  stack_t ss{};
  ss.ss_sp = static_cast<char*>(base) + page;
  ss.ss_size = kAltStackSize;
  if (::sigaltstack(&ss, nullptr) != 0) {
    ::munmap(base, size);
    return;
  }
  t_altStack.base = base;
  t_altStack.size = size;
}

int UInstallFatalSignalHandlers(UFatalProc proc) {
  g_proc.store(proc, std::memory_order_release);
  UEnsureAltStack();
  bool expected = false;
  if (!g_installed.compare_exchange_strong(expected, true)) return 1;
  g_captureSignal = SIGRTMAX - 3;
  struct sigaction sa {};
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  sa.sa_sigaction = OnCapture;
  int ok = ::sigaction(g_captureSignal, &sa, &g_previousCapture) == 0;
  sa.sa_sigaction = OnFatal;
  for (const int sig : kFatalSignals) {
    if (::sigaction(sig, &sa, &g_previous[sig]) != 0) ok = 0;
  }
  return ok;
}

void URemoveFatalSignalHandlers() {
  bool expected = true;
  if (!g_installed.compare_exchange_strong(expected, false)) return;
  for (const int sig : kFatalSignals) ::sigaction(sig, &g_previous[sig], nullptr);
  ::sigaction(g_captureSignal, &g_previousCapture, nullptr);
}

void UCaptureCurrentContext(UThreadContext* context) {
  ucontext_t uc;
  std::memset(&uc, 0, sizeof uc);
  ::getcontext(&uc);
  FromUcontext(&uc, context);
#if defined(__x86_64__)
  std::uint64_t flags;
  std::uint16_t cs, ss, ds, es, fs, gs;
  asm volatile("pushfq\n\tpopq %0" : "=r"(flags));
  asm volatile("movw %%cs, %0" : "=r"(cs));
  asm volatile("movw %%ss, %0" : "=r"(ss));
  asm volatile("movw %%ds, %0" : "=r"(ds));
  asm volatile("movw %%es, %0" : "=r"(es));
  asm volatile("movw %%fs, %0" : "=r"(fs));
  asm volatile("movw %%gs, %0" : "=r"(gs));
  context->rflags = flags;
  context->cs = cs;
  context->ss = ss;
  context->ds = ds;
  context->es = es;
  context->fs = fs;
  context->gs = gs;
#endif
}

int UListThreads(unsigned* ids, int max) {
  const int fd = ::open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  int count = 0;
  alignas(8) char buf[4096];
  for (;;) {
    const long n = ::syscall(SYS_getdents64, fd, buf, sizeof buf);
    if (n <= 0) break;
    for (long at = 0; at < n;) {
      // linux_dirent64: inode (8), offset (8), record length (2), type (1), name.
      std::uint16_t reclen;
      std::memcpy(&reclen, buf + at + 16, sizeof reclen);
      const char* name = buf + at + 19;
      unsigned id = 0;
      bool digits = name[0] != '\0';
      for (const char* c = name; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') digits = false;
        id = id * 10 + static_cast<unsigned>(*c - '0');
      }
      if (digits && count < max) ids[count++] = id;
      at += reclen;
    }
  }
  ::close(fd);
  return count;
}

int UThreadName(unsigned id, char* buf, int size) {
  if (size <= 0) return -1;
  char path[64];
  TaskPath(path, id, "comm");
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const ssize_t n = ::read(fd, buf, static_cast<std::size_t>(size - 1));
  ::close(fd);
  if (n < 0) return -1;
  int len = static_cast<int>(n);
  while (len > 0 && (buf[len - 1] == '\n' || buf[len - 1] == '\0')) --len;
  buf[len] = '\0';
  return len;
}

void UCaptureThreads(const unsigned* ids, int count, UThreadContext* contexts, unsigned* errors,
                     int timeoutMs) {
  if (count > kMaxCapture) count = kMaxCapture;
  g_hold.store(true, std::memory_order_release);
  const pid_t pid = ::getpid();
  for (int i = 0; i < count; ++i) {
    CaptureSlot& slot = g_slots[i];
    errors[i] = 0;
    slot.tid.store(ids[i], std::memory_order_relaxed);
    if (g_captureSignal == 0 || BlocksSignal(ids[i], g_captureSignal)) {
      errors[i] = kWinAccessDenied;
      continue;
    }
    slot.state.store(kSlotAsked, std::memory_order_release);
    if (::syscall(SYS_tgkill, pid, ids[i], g_captureSignal) != 0) {
      slot.state.store(kSlotIdle, std::memory_order_relaxed);
      errors[i] = kWinInvalidHandle;
    }
  }
  for (int waited = 0;; ++waited) {
    bool pending = false;
    for (int i = 0; i < count; ++i) {
      const int s = g_slots[i].state.load(std::memory_order_acquire);
      if (s == kSlotAsked || s == kSlotWriting) pending = true;
    }
    if (!pending || waited >= timeoutMs) break;
    UHandlerSleep(1);
  }
  for (int i = 0; i < count; ++i) {
    if (errors[i] != 0) continue;
    CaptureSlot& slot = g_slots[i];
    int expected = kSlotAsked;
    if (slot.state.compare_exchange_strong(expected, kSlotIdle, std::memory_order_acq_rel)) {
      errors[i] = kWinTimeout;  // a late answer finds its slot taken back
      continue;
    }
    while (slot.state.load(std::memory_order_acquire) == kSlotWriting) UHandlerSleep(1);
    contexts[i] = slot.context;
  }
}

void UReleaseThreads() {
  g_hold.store(false, std::memory_order_release);
  for (CaptureSlot& slot : g_slots) {
    for (int waited = 0; waited < 1000; ++waited) {
      const int s = slot.state.load(std::memory_order_acquire);
      if (s != kSlotHeld && s != kSlotWriting) break;
      UHandlerSleep(1);
    }
    slot.state.store(kSlotIdle, std::memory_order_relaxed);
    slot.tid.store(0, std::memory_order_release);
  }
}

void UHandlerSleep(int ms) {
  timespec ts{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
  while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int UStartCrashHelper(const char* folder, const char* program, const char* arg) {
  char path[4096];
  const std::size_t f = folder ? std::strlen(folder) : 0;
  const std::size_t n = std::strlen(program);
  if (f + n + 2 > sizeof path) return 0;
  std::size_t at = 0;
  if (f > 0) {
    std::memcpy(path, folder, f);
    path[f] = '/';
    at = f + 1;
  }
  std::memcpy(path + at, program, n + 1);
  if (::access(path, X_OK) != 0) return 0;
  char* argv[3] = {path, const_cast<char*>(arg), nullptr};
  // A bare clone rather than fork(): no fork handlers run, so no lock the
  // crashed thread may hold (the allocator's among them) is needed.
  const long pid = ::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
  if (pid < 0) return 0;
  if (pid == 0) {
    if (f > 0 && ::chdir(folder) != 0) ::_exit(127);
    ::execve(path, argv, environ);
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(static_cast<pid_t>(pid), &status, 0) < 0 && errno == EINTR) {
  }
  return 1;
}

int UUnwindStack(const UThreadContext&, std::uintptr_t*, std::uintptr_t*, int) { return -1; }

void USystemName(char* buf, int size) {
  if (size <= 0) return;
  utsname un;
  const char* name = ::uname(&un) == 0 ? un.sysname : "";
  int n = 0;
  while (name[n] != '\0' && n + 1 < size) {
    buf[n] = name[n];
    ++n;
  }
  buf[n] = '\0';
}

int UCrashLogOpen(const char* path, std::uint64_t* sizeBefore) {
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  const off_t end = ::lseek(fd, 0, SEEK_END);
  if (end < 0) {
    ::close(fd);
    return -1;
  }
  if (sizeBefore != nullptr) *sizeBefore = static_cast<std::uint64_t>(end);
  return fd;
}

void UCrashLogWrite(int fd, const void* data, std::uint64_t size) {
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    p += n;
    size -= static_cast<std::uint64_t>(n);
  }
}

void UCrashLogFlush(int fd) { ::fdatasync(fd); }

void UCrashLogClose(int fd) { ::close(fd); }
