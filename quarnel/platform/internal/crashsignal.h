// Fatal signals, thread contexts, the process's threads and the crash helper
// program: what the crash report needs from the system, with the meaning of
// the Win32 calls it was written against (SetUnhandledExceptionFilter,
// GetThreadContext, CreateProcessA).
//
// Calls marked "handler-safe" may run inside a signal handler on a broken
// process: they allocate nothing, take no lock and make only
// async-signal-safe system calls (open, read, write, close, lseek, kill,
// tgkill, nanosleep, clone, execve, waitpid, sigaction, getdents64, uname,
// clock_gettime).
//
// Signals and exception codes. The handlers catch SIGSEGV, SIGBUS, SIGILL,
// SIGFPE, SIGTRAP and SIGABRT and name each by the Windows exception code of
// the same fault (UExceptionCodeOfSignal):
//
//   SIGSEGV  fault address in a thread's stack guard   C00000FD STACK_OVERFLOW
//            any other                                 C0000005 ACCESS_VIOLATION
//   SIGBUS   BUS_ADRALN                                80000002 DATATYPE_MISALIGNMENT
//            any other (BUS_ADRERR, BUS_OBJERR, ...)   C0000006 IN_PAGE_ERROR
//   SIGILL   ILL_PRVOPC, ILL_PRVREG                    C0000096 PRIV_INSTRUCTION
//            any other                                 C000001D ILLEGAL_INSTRUCTION
//   SIGFPE   FPE_INTDIV                                C0000094 INT_DIVIDE_BY_ZERO
//            FPE_INTOVF                                C0000095 INT_OVERFLOW
//            FPE_FLTDIV                                C000008E FLT_DIVIDE_BY_ZERO
//            FPE_FLTOVF                                C0000091 FLT_OVERFLOW
//            FPE_FLTUND                                C0000093 FLT_UNDERFLOW
//            FPE_FLTRES                                C000008F FLT_INEXACT_RESULT
//            FPE_FLTSUB                                C000008C ARRAY_BOUNDS_EXCEEDED
//            FPE_FLTINV and any other                  C0000090 FLT_INVALID_OPERATION
//   SIGTRAP  TRAP_TRACE, TRAP_HWBKPT                   80000004 SINGLE_STEP
//            any other (TRAP_BRKPT, int3)              80000003 BREAKPOINT
//   SIGABRT  any                                       40000015 (fatal application exit,
//                                                      what abort() raised on Windows)
//
// A thread's stack guard is the inaccessible mapping directly below a
// readable and writable one (the guard page of a thread's stack), or the
// unmapped megabyte below the main thread's "[stack]" mapping, into which it
// could not grow.
//
// Chaining. After the report the handler lets the disposition it replaced
// decide: a previous handler function is called with the same arguments; a
// default or ignoring disposition is put back and the signal acts as it would
// have without the library: a fault (SIGSEGV, SIGBUS, SIGILL, SIGFPE raised by
// an instruction) meets it again when the instruction runs again; SIGTRAP,
// SIGABRT and any signal sent by a process are raised again. So a core dump
// or a debugger sees the original fault.
//
// Contexts of other threads. UCaptureThreads sends each thread the capture
// signal (SIGRTMAX - 3); its handler stores the thread's registers and holds
// the thread until UReleaseThreads, or for at most 20 seconds (a report that
// cannot finish does not stop the whole process). A thread that blocks the
// signal, has ended or does not answer in time is reported with a Windows
// error number.
#ifndef QUARNEL_PLATFORM_INTERNAL_CRASHSIGNAL_H_
#define QUARNEL_PLATFORM_INTERNAL_CRASHSIGNAL_H_

#include <cstdint>

// A thread's integer, control and segment registers (x86-64 names). Segment
// registers the kernel does not save for a signal (DS, ES) read 0.
struct UThreadContext {
  std::uint64_t rax, rbx, rcx, rdx, rsi, rdi, rbp, rsp;
  std::uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
  std::uint64_t rip, rflags;
  std::uint16_t cs, ss, ds, es, fs, gs;
};

// A fatal signal as the report sees it.
struct UFatalEvent {
  unsigned code;      // the Windows exception code (table above)
  int signal;         // the signal number
  unsigned threadId;  // the faulting thread (kernel thread id)
  const UThreadContext* context;
};

// Called on the faulting thread, on its alternate stack when it has one.
using UFatalProc = void (*)(const UFatalEvent& event);

// Installs the fatal-signal handlers (SA_SIGINFO, SA_ONSTACK), keeping the
// dispositions they replace, and the capture signal's handler; gives the
// calling thread an alternate stack. Once installed, a further call only gives
// the calling thread its stack. 1 on success, 0 when sigaction failed.
int UInstallFatalSignalHandlers(UFatalProc proc);

// Puts back the dispositions the handlers replaced. For tests, and for the
// fuzz targets, whose crashing inputs libFuzzer's own handlers write.
void URemoveFatalSignalHandlers();

// Gives the calling thread an alternate signal stack when it has none (a
// stack set up by someone else is kept). It is unmapped when the thread ends.
void UEnsureAltStack();

// The Windows exception code of a signal (table above). handler-safe.
unsigned UExceptionCodeOfSignal(int signal, int siCode, bool inStackGuard);

// The calling thread's registers now; caller-saved registers hold what they
// held at the call. handler-safe.
void UCaptureCurrentContext(UThreadContext* context);

// The ids of the process's threads (/proc/self/task), at most `max`, in the
// order the system lists them. Returns the number stored. handler-safe.
int UListThreads(unsigned* ids, int max);

// The name of thread `id` (its "comm") in `buf`, zero-terminated. Returns the
// length, or -1 when it cannot be read. handler-safe.
int UThreadName(unsigned id, char* buf, int size);

// Captures the registers of the `count` threads in `ids` (none of them the
// calling thread) and holds them until UReleaseThreads. For each thread
// errors[i] is 0 and contexts[i] filled, or a Windows error number: 5 the
// thread blocks the capture signal, 6 the thread has ended, 1460 no answer
// within `timeoutMs`. At most 256 threads. handler-safe.
void UCaptureThreads(const unsigned* ids, int count, UThreadContext* contexts, unsigned* errors,
                     int timeoutMs);

// Lets the held threads go on and waits (briefly) until each has left its
// handler. handler-safe.
void UReleaseThreads();

// The stack of a thread whose registers are `context`, walked by the
// system's unwind tables: each frame's instruction address in ips[i] and in
// fps[i] the address 16 bytes below where its return address is kept (so
// that fps[i] + 16 is the stack its caller passed arguments on, as above a
// frame pointer). Returns the number of frames stored (at most `max`), or -1
// where frames are chained by frame pointers instead (Linux). handler-safe.
int UUnwindStack(const UThreadContext& context, std::uintptr_t* ips, std::uintptr_t* fps, int max);

// Sleeps about `ms` milliseconds. handler-safe.
void UHandlerSleep(int ms);

// Starts `folder`/`program` with `arg` (null: none) as its only argument, in
// `folder` as its current folder, with the process's environment, and waits
// for it to end. The caller's own current folder is left alone. Returns 1 when
// the program ran, 0 when it is missing or could not be started.
// handler-safe.
int UStartCrashHelper(const char* folder, const char* program, const char* arg);

// The kernel's name (uname's sysname) in `buf`, zero-terminated. handler-safe.
void USystemName(char* buf, int size);

// The crash log: opened for writing, created when missing, positioned at its
// end. Returns the descriptor, or -1. handler-safe (as are the others).
int UCrashLogOpen(const char* path, std::uint64_t* sizeBefore);
void UCrashLogWrite(int fd, const void* data, std::uint64_t size);
void UCrashLogFlush(int fd);
void UCrashLogClose(int fd);

#endif  // QUARNEL_PLATFORM_INTERNAL_CRASHSIGNAL_H_
