// The crash report's view of the system on Windows: the unhandled-exception
// filter, the abort signal of the C runtime, the threads of the process and
// their contexts (SuspendThread, GetThreadContext), the crash helper and the
// crash log.
//
// The report of an exception is written by the reporter thread, which the
// first installation starts: the faulting thread hands it the exception and
// waits (at most a minute), so that a stack overflow has a whole stack to
// report on. Files are opened with NtCreateFile from paths in fixed storage
// and used with ReadFile and WriteFile, which take no heap lock: a thread that
// faulted or is held while holding the process heap's lock stops nothing.
// The reporter thread is the platform's own and is not among the threads
// UListThreads gives.
#include "quarnel/platform/internal/crashsignal.h"

#include <atomic>
#include <csignal>
#include <cstring>

#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/win32/crashfiles.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

constexpr DWORD kReportTimeoutMs = 60000;
constexpr std::size_t kSystemInfoBytes = 1u << 20;
// SYSTEM_PROCESS_INFORMATION and SYSTEM_THREAD_INFORMATION on x86-64.
constexpr std::size_t kProcessIdAt = 0x50;
constexpr std::size_t kProcessRecordSize = 0x100;
constexpr std::size_t kThreadIdAt = 0x30;
constexpr std::size_t kThreadRecordSize = 0x50;
constexpr int kThreadNameInformation = 38;
constexpr int kMaxHeld = 256;

UFatalProc g_proc = nullptr;
LPTOP_LEVEL_EXCEPTION_FILTER g_previousFilter = nullptr;
void (*g_previousAbort)(int) = SIG_DFL;
std::atomic<bool> g_installed{false};

// The hand-over to the reporter thread.
HANDLE g_go = nullptr;
HANDLE g_done = nullptr;
DWORD g_reporterId = 0;
std::atomic<bool> g_posting{false};
UFatalEvent g_event;
UThreadContext g_context;

HANDLE g_held[kMaxHeld];
int g_heldCount = 0;

alignas(16) unsigned char g_systemInfo[kSystemInfoBytes];

void FromContext(const CONTEXT& c, UThreadContext* out) {
  *out = UThreadContext{c.Rax, c.Rbx,    c.Rcx,   c.Rdx,   c.Rsi,   c.Rdi,   c.Rbp,   c.Rsp,
                        c.R8,  c.R9,     c.R10,   c.R11,   c.R12,   c.R13,   c.R14,   c.R15,
                        c.Rip, c.EFlags, c.SegCs, c.SegSs, c.SegDs, c.SegEs, c.SegFs, c.SegGs};
}

DWORD WINAPI Reporter(void*) {
  for (;;) {
    ::WaitForSingleObject(g_go, INFINITE);
    if (g_proc != nullptr) g_proc(g_event);
    ::SetEvent(g_done);
  }
}

// Hands one exception to the reporter thread and waits for its report. The
// reporter's own exceptions are not reported (the report itself failed).
void Report(unsigned code, const CONTEXT& context) {
  if (g_proc == nullptr || ::GetCurrentThreadId() == g_reporterId) return;
  bool expected = false;
  while (!g_posting.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
    expected = false;
    ::Sleep(1);
  }
  FromContext(context, &g_context);
  g_event = UFatalEvent{code, 0, ::GetCurrentThreadId(), &g_context};
  ::ResetEvent(g_done);
  ::SetEvent(g_go);
  ::WaitForSingleObject(g_done, kReportTimeoutMs);
  g_posting.store(false, std::memory_order_release);
}

LONG WINAPI Filter(EXCEPTION_POINTERS* info) {
  Report(info->ExceptionRecord->ExceptionCode, *info->ContextRecord);
  return g_previousFilter != nullptr ? g_previousFilter(info) : EXCEPTION_CONTINUE_SEARCH;
}

// abort(): the runtime raises SIGABRT; after the report the disposition that
// was there decides.
void OnAbort(int sig) {
  CONTEXT context;
  ::RtlCaptureContext(&context);
  Report(0x40000015, context);
  std::signal(sig, g_previousAbort);
  std::raise(sig);
}

void AppendWide(wchar_t* dst, std::size_t size, std::size_t* at, const wchar_t* src) {
  while (*src != L'\0' && *at + 1 < size) dst[(*at)++] = *src++;
  dst[*at] = L'\0';
}

}  // namespace

int UInstallFatalSignalHandlers(UFatalProc proc) {
  UEnsureAltStack();
  if (g_installed.exchange(true)) return 1;
  g_proc = proc;
  g_go = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  g_done = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const HANDLE reporter = ::CreateThread(nullptr, 256 * 1024, Reporter, nullptr, 0, &g_reporterId);
  if (g_go == nullptr || g_done == nullptr || reporter == nullptr) {
    g_installed = false;
    return 0;
  }
  ::CloseHandle(reporter);
  g_previousFilter = ::SetUnhandledExceptionFilter(Filter);
  g_previousAbort = std::signal(SIGABRT, OnAbort);
  if (g_previousAbort == SIG_ERR) g_previousAbort = SIG_DFL;
  return 1;
}

void URemoveFatalSignalHandlers() {
  if (!g_installed.load()) return;
  ::SetUnhandledExceptionFilter(g_previousFilter);
  std::signal(SIGABRT, g_previousAbort);
  g_previousFilter = nullptr;
  g_previousAbort = SIG_DFL;
  // The reporter thread stays; a later installation uses it again.
  g_installed = false;
  g_proc = nullptr;
}

// A thread handles a stack overflow with the stack the system keeps back;
// the report itself runs on the reporter thread.
void UEnsureAltStack() {
  ULONG size = 16 * 1024;
  ::SetThreadStackGuarantee(&size);
}

void UCaptureCurrentContext(UThreadContext* context) {
  CONTEXT c;
  ::RtlCaptureContext(&c);
  FromContext(c, context);
}

int UListThreads(unsigned* ids, int max) {
  ULONG size = 0;
  if (::NtQuerySystemInformation(SystemProcessInformation, g_systemInfo, sizeof g_systemInfo,
                                 &size) != 0) {
    return 0;
  }
  const auto self = static_cast<std::uintptr_t>(::GetCurrentProcessId());
  std::size_t at = 0;
  for (;;) {
    const unsigned char* p = g_systemInfo + at;
    std::uintptr_t pid;
    std::memcpy(&pid, p + kProcessIdAt, sizeof pid);
    ULONG next, threads;
    std::memcpy(&next, p, sizeof next);
    std::memcpy(&threads, p + 4, sizeof threads);
    if (pid == self) {
      int n = 0;
      for (ULONG i = 0; i < threads && n < max; ++i) {
        const std::size_t t = at + kProcessRecordSize + i * kThreadRecordSize;
        if (t + kThreadRecordSize > sizeof g_systemInfo) break;
        std::uintptr_t tid;
        std::memcpy(&tid, g_systemInfo + t + kThreadIdAt, sizeof tid);
        if (tid != g_reporterId) ids[n++] = static_cast<unsigned>(tid);
      }
      return n;
    }
    if (next == 0 || at + next >= sizeof g_systemInfo) return 0;
    at += next;
  }
}

int UThreadName(unsigned id, char* buf, int size) {
  if (size <= 0) return -1;
  const HANDLE h = ::OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, id);
  if (h == nullptr) return -1;
  alignas(8) unsigned char info[sizeof(UNICODE_STRING) + 512];
  ULONG n = 0;
  const NTSTATUS status = ::NtQueryInformationThread(
      h, static_cast<THREADINFOCLASS>(kThreadNameInformation), info, sizeof info, &n);
  ::CloseHandle(h);
  if (status != 0) return -1;
  UNICODE_STRING name;
  std::memcpy(&name, info, sizeof name);
  const int chars = name.Buffer != nullptr ? name.Length / 2 : 0;
  const int written = chars == 0 ? 0
                                 : ::WideCharToMultiByte(CP_UTF8, 0, name.Buffer, chars, buf,
                                                         size - 1, nullptr, nullptr);
  buf[written] = '\0';
  return written;
}

void UCaptureThreads(const unsigned* ids, int count, UThreadContext* contexts, unsigned* errors,
                     int) {
  g_heldCount = 0;
  for (int i = 0; i < count && i < kMaxHeld; ++i) {
    errors[i] = 0;
    const HANDLE h = ::OpenThread(
        THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_INFORMATION, FALSE, ids[i]);
    if (h == nullptr) {
      errors[i] = ::GetLastError();
      continue;
    }
    if (::SuspendThread(h) == static_cast<DWORD>(-1)) {
      errors[i] = ::GetLastError();
      ::CloseHandle(h);
      continue;
    }
    g_held[g_heldCount++] = h;
    CONTEXT c;
    std::memset(&c, 0, sizeof c);
    c.ContextFlags = CONTEXT_FULL | CONTEXT_SEGMENTS;
    if (!::GetThreadContext(h, &c)) {
      errors[i] = ::GetLastError();
      continue;
    }
    FromContext(c, &contexts[i]);
  }
}

void UReleaseThreads() {
  for (int i = 0; i < g_heldCount; ++i) {
    ::ResumeThread(g_held[i]);
    ::CloseHandle(g_held[i]);
  }
  g_heldCount = 0;
}

// Each step is the system's own unwind of one frame (RtlVirtualUnwind), or
// for a function without unwind data (a leaf) the return address at the
// stack pointer. The walk ends where the stack pointer would not rise, its
// words cannot be read, or the return address is 0.
int UUnwindStack(const UThreadContext& context, std::uintptr_t* ips, std::uintptr_t* fps, int max) {
  CONTEXT c;
  std::memset(&c, 0, sizeof c);
  c.ContextFlags = CONTEXT_FULL;
  c.Rax = context.rax;
  c.Rbx = context.rbx;
  c.Rcx = context.rcx;
  c.Rdx = context.rdx;
  c.Rsi = context.rsi;
  c.Rdi = context.rdi;
  c.Rbp = context.rbp;
  c.Rsp = context.rsp;
  c.R8 = context.r8;
  c.R9 = context.r9;
  c.R10 = context.r10;
  c.R11 = context.r11;
  c.R12 = context.r12;
  c.R13 = context.r13;
  c.R14 = context.r14;
  c.R15 = context.r15;
  c.Rip = context.rip;
  int n = 0;
  while (n < max) {
    const DWORD64 sp = c.Rsp;
    ips[n] = c.Rip;
    fps[n] = sp - 16;
    ++n;
    if (sp % 8 != 0 || !UMemoryAccessible(sp, 8, false)) break;
    DWORD64 base = 0;
    PRUNTIME_FUNCTION function = ::RtlLookupFunctionEntry(c.Rip, &base, nullptr);
    if (function == nullptr) {
      std::memcpy(&c.Rip, reinterpret_cast<const void*>(sp), sizeof c.Rip);
      c.Rsp = sp + 8;
    } else {
      void* handlerData = nullptr;
      DWORD64 establisher = 0;
      ::RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, c.Rip, function, &c, &handlerData, &establisher,
                         nullptr);
    }
    if (c.Rsp <= sp || c.Rip == 0) break;
    fps[n - 1] = c.Rsp - 16;
  }
  return n;
}

void UHandlerSleep(int ms) { ::Sleep(static_cast<DWORD>(ms)); }

// `folder`\`program`.exe with `arg` quoted, in `folder`.
int UStartCrashHelper(const char* folder, const char* program, const char* arg) {
  wchar_t dir[MAX_PATH];
  wchar_t path[MAX_PATH + 8];
  static wchar_t command[32768];
  const int f =
      folder && *folder ? ::MultiByteToWideChar(CP_UTF8, 0, folder, -1, dir, MAX_PATH) : 0;
  if (folder && *folder && f == 0) return 0;
  std::size_t at = 0;
  path[0] = L'\0';
  if (f > 0) {
    AppendWide(path, MAX_PATH, &at, dir);
    AppendWide(path, MAX_PATH, &at, L"\\");
  }
  wchar_t name[MAX_PATH];
  if (::MultiByteToWideChar(CP_UTF8, 0, program, -1, name, MAX_PATH) == 0) return 0;
  AppendWide(path, MAX_PATH, &at, name);
  if (std::strchr(program, '.') == nullptr) AppendWide(path, MAX_PATH + 8, &at, L".exe");
  if (::GetFileAttributesW(path) == INVALID_FILE_ATTRIBUTES) return 0;
  std::size_t c = 0;
  AppendWide(command, 32768, &c, L"\"");
  AppendWide(command, 32768, &c, path);
  AppendWide(command, 32768, &c, L"\"");
  if (arg != nullptr) {
    // One argument, quoted the way the runtime splits a command line.
    AppendWide(command, 32768, &c, L" \"");
    wchar_t wide[8192];
    if (::MultiByteToWideChar(CP_UTF8, 0, arg, -1, wide, 8192) == 0) wide[0] = L'\0';
    int slashes = 0;
    for (const wchar_t* p = wide; *p != L'\0' && c + 4 < 32768; ++p) {
      if (*p == L'\\') {
        ++slashes;
      } else {
        if (*p == L'"') {
          for (int k = 0; k <= slashes; ++k) command[c++] = L'\\';
        }
        slashes = 0;
      }
      command[c++] = *p;
    }
    for (int k = 0; k < slashes && c + 2 < 32768; ++k) command[c++] = L'\\';
    command[c] = L'\0';
    AppendWide(command, 32768, &c, L"\"");
  }
  STARTUPINFOW si;
  std::memset(&si, 0, sizeof si);
  si.cb = sizeof si;
  PROCESS_INFORMATION pi;
  if (!::CreateProcessW(path, command, nullptr, nullptr, FALSE, 0, nullptr, f > 0 ? dir : nullptr,
                        &si, &pi)) {
    return 0;
  }
  ::WaitForSingleObject(pi.hProcess, INFINITE);
  ::CloseHandle(pi.hThread);
  ::CloseHandle(pi.hProcess);
  return 1;
}

void USystemName(char* buf, int size) {
  if (size <= 0) return;
  const char name[] = "Windows NT";
  int n = 0;
  while (name[n] != '\0' && n + 1 < size) {
    buf[n] = name[n];
    ++n;
  }
  buf[n] = '\0';
}

int UCrashLogOpen(const char* path, std::uint64_t* sizeBefore) {
  const HANDLE h = quarnel_internal::CrashOpenFile(path, true);
  if (h == INVALID_HANDLE_VALUE) return -1;
  LARGE_INTEGER size{};
  LARGE_INTEGER zero{};
  if (!::GetFileSizeEx(h, &size) || !::SetFilePointerEx(h, zero, nullptr, FILE_END)) {
    ::CloseHandle(h);
    return -1;
  }
  if (sizeBefore) *sizeBefore = static_cast<std::uint64_t>(size.QuadPart);
  const int fd = quarnel_internal::CrashKeepHandle(h);
  if (fd < 0) ::CloseHandle(h);
  return fd;
}

void UCrashLogWrite(int fd, const void* data, std::uint64_t size) {
  const HANDLE h = quarnel_internal::CrashHandleOf(fd);
  const auto* p = static_cast<const char*>(data);
  while (h != INVALID_HANDLE_VALUE && size > 0) {
    DWORD n = 0;
    const DWORD chunk = size > 0x10000000u ? 0x10000000u : static_cast<DWORD>(size);
    if (!::WriteFile(h, p, chunk, &n, nullptr) || n == 0) return;
    p += n;
    size -= n;
  }
}

void UCrashLogFlush(int fd) {
  const HANDLE h = quarnel_internal::CrashHandleOf(fd);
  if (h != INVALID_HANDLE_VALUE) ::FlushFileBuffers(h);
}

void UCrashLogClose(int fd) {
  const HANDLE h = quarnel_internal::CrashHandleOf(fd);
  if (h != INVALID_HANDLE_VALUE) ::CloseHandle(h);
  quarnel_internal::CrashForgetHandle(fd);
}
