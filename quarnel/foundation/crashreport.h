// The crash report: for every crash and every assertion, a plain-text report
// appended to the crash log, then the helper program, then whatever would
// have happened without the library.
//
// The log is the file named by entry 'LgFl' of string list 16040 ("assert_log.utx"
// when no loaded module has one) in the environment record's log folder. A new
// (empty) file first gets the heading, entry 'LogH' of the same list, with its
// line ends made CR LF. Every line of the report ends in CR LF:
//
//   (blank line), 68 "X", two blank lines
//   OS: <kernel name> version <major>.<minor> (build <build>)[, <extra>]
//   Application: <name>, version <version>
//   Exception occurred on <%D> at <%.1T>
//   Error info: <text>                              (assertions only)
//   Exception code: %08X <name>
//   Fault address: %016lX %04X:%08X <module file>   (then a blank line)
//   then for each thread, the faulting one first:
//     (line break) Thread ID: %08X, Name: <name or "Unknown">
//     ** GetThreadContext failed LastError is :%d   (instead of what follows)
//     (blank line)
//     RAX:%016lX  CS:%04X RIP:%016lX  RFlags:%016lX
//     RBX:%016lX  SS:%04X RSP:%016lX  RBP:   %016lX
//     RCX:%016lX  DS:%04X RSI:%016lX  FS:    %04X
//     RDX:%016lX  ES:%04X RDI:%016lX  GS:    %04X
//     R8: %016lX  R9: %016lX  R10:%016lX  R11:%016lX  R12:%016lX  R13:%016lX  R14:%016lX R15:%016lX
//     (blank line) the frame header and its rule, one line per frame:
//       %-15s  module file
//       %-27.64s+%-5X   function (symbol map, else dynamic symbol) and distance,
//                       or %04X:%08X section and offset padded to 33
//       arguments: 8 32-bit words after the saved frame pointer and return
//       address, "  '%y' " (a four-character code), "%8d " (-7..7) or "%08X "
//     (line break)
//
// The report allocates nothing and takes no lock the crashed thread may
// hold: it writes from fixed buffers through the platform's handler-safe
// calls, with texts prepared ahead (PrepareCrashReport). Memory is read only
// where the memory map shows it readable; module files are read with pread.
#ifndef QUARNEL_FOUNDATION_CRASHREPORT_H_
#define QUARNEL_FOUNDATION_CRASHREPORT_H_

#include <cstddef>
#include <cstdint>

#include "quarnel/foundation/export.h"

// Installs the crash handler for the process (fatal signals on an alternate
// stack, chaining to the dispositions they replace) and gives the calling
// thread an alternate signal stack. The library calls it when it is loaded:
// a static initializer of the object that also holds the report, so every
// program that can assert has it, whether it links the shared library or the
// static archive. A host calls it again at the start of each thread it
// creates, so that a stack overflow on that thread is reported too. Returns 1
// when the handlers are in place.
QUARNEL_API int InstallCrashHandler();

// Prepares what the report reads: the log file's name and heading from the
// loaded resource modules, the locale's date words and the offset from UTC.
// The library calls it when the library is loaded, when a module is loaded or
// unloaded, when a host string list is added or removed, and before an
// assertion's report when the locale has changed (an assertion always takes
// the offset from UTC afresh). A crash's report shows the time with the offset
// last prepared: a host calls this after changing the time zone or the locale.
// Any thread.
QUARNEL_API void PrepareCrashReport();

// The name of an exception code: the names of the fatal exceptions,
// "ASSERTION" for E0000000, "Unidentified Exception" for E0000001 to
// E00000FF, "FATAL_APP_EXIT" for 40000015; "" for any other code.
QUARNEL_API const char* CrashExceptionName(unsigned code);

namespace quarnel_internal {

constexpr unsigned kAssertionCode = 0xE0000000;

// Writes the report of an assertion whose message is `message` (the error
// info) on the calling thread; returns when it is written and the helper
// program has ended. Debug calls it.
void ReportAssertion(const char* message);

// One frame of a stack walk.
struct WalkFrame {
  std::uintptr_t ip;
  std::uintptr_t fp;
  bool args;  // the 48 bytes at fp are writable: the argument words can be read
};

// Walks the frame-pointer chain from `ip` and `fp` by the memory map of the
// last snapshot (USnapshotMemoryMap): the next frame is the saved frame
// pointer, which must be a multiple of 8, above the current frame and have 16
// writable bytes; the next instruction address is the saved return address.
// Returns the number of frames stored (at most `max`). Allocates nothing.
int WalkStack(std::uintptr_t ip, std::uintptr_t fp, WalkFrame* frames, int max);

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_CRASHREPORT_H_
