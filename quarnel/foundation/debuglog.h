// The debug log and the assertion.
//
// The library has no log file of its own: every log line goes to the hook
// the host installed (HookDebugLogfChar for narrow formats, which every log
// line of the library uses; HookDebugLogf for TString formats). A hook
// receives the level, the format and the argument list; it turns them into
// text with FormatLogLine (or TString::SPrintf), so that the host prints
// exactly the library's line. Without a hook nothing is logged.
//
// Debug(module, line) is the assertion: it writes "Assertion failure at
// "module-line"" to the debugger output, records the assertion, and returns;
// the caller goes on with its next statement.
#ifndef QUARNEL_FOUNDATION_DEBUGLOG_H_
#define QUARNEL_FOUNDATION_DEBUGLOG_H_

#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/text/args.h"

class TString;

// Debug-log levels. The library attaches no other meaning to them; filtering
// is the host's business.
enum : unsigned {
  kLogStats = 513,         // statistics and reports
  kLogPlatform = 514,      // ordinary platform failure
  kLogMisuse = 515,        // misuse by the caller
  kLogInternal = 516,      // internal failure
  kLogInternalData = 517,  // internal failure: memory, file access, corrupt data
  kLogAttention = 518,     // failure worth attention, profiler lines
  kLogDetail = 519,        // diagnostic detail
};

using DebugLogfCharProc = int (*)(unsigned level, const char* format, const Args* args);
using DebugLogfProc = int (*)(unsigned level, const TString* format, const Args* args);

// Installing null restores the default (nothing is logged). Hooks are
// installed once at start-up, before other threads call into the library.
QUARNEL_API void HookDebugLogfChar(DebugLogfCharProc proc);
QUARNEL_API void HookDebugLogf(DebugLogfProc proc);

// The log calls. They return what the hook returns, 0 without a hook.
QUARNEL_API int DebugLogfArgs(unsigned level, const char* format, const Args* args);
QUARNEL_API int DebugLogfArgs(unsigned level, const TString* format, const Args* args);

template <class... A>
int DebugLogf(unsigned level, const char* format, const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) { return DebugLogfArgs(level, format, args); }, values...);
}

template <class... A>
int DebugLogf(unsigned level, const TString* format, const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) { return DebugLogfArgs(level, format, args); }, values...);
}

// The log-setting hooks: each receives one argument that the library passes
// through unchanged; its meaning is the host's. Without a hook DebugLogGet
// and DebugLogTest return 0 and DebugLogSet does nothing.
using DebugLogSettingProc = int (*)(std::intptr_t value);
QUARNEL_API void HookDebugLogGet(DebugLogSettingProc proc);
QUARNEL_API void HookDebugLogSet(DebugLogSettingProc proc);
QUARNEL_API void HookDebugLogTest(DebugLogSettingProc proc);
QUARNEL_API int DebugLogGet(std::intptr_t value);
QUARNEL_API void DebugLogSet(std::intptr_t value);
QUARNEL_API int DebugLogTest(std::intptr_t value);

// Formats a log hook's arguments into `out` with the library's engine.
QUARNEL_API void FormatLogLine(TString* out, const char* format, const Args* args);

// The assertion. `file` is the module name, or a Windows-form path of which
// only the part after the last backslash is kept. The two-argument form
// writes "Assertion failure at "module-line"" and a line feed to the debugger
// output; the three-argument form writes the same without the line feed, and
// its full message (", " and the text in 8-bit characters appended) is cut to
// 2048 bytes. Both close the splash screen, hand the message to the observer,
// write the crash report (code E0000000, "ASSERTION", the message as error
// info; see crashreport.h) and return: the caller goes on with its next
// statement.
QUARNEL_API void Debug(const char* file, int line);
QUARNEL_API void Debug(const char* file, int line, const TString* text);

// Sees every assertion after it was written to the debugger output: the
// module (base name), the line and the full message. The tests use it; null
// removes the observer. Returns the previous one.
using AssertionObserverProc = void (*)(const char* module, int line, const char* message);
AssertionObserverProc SetAssertionObserver(AssertionObserverProc proc);

namespace quarnel_internal {
// Whether a narrow log hook is installed: work done only for a log line (a
// timing, say) can be skipped without one.
bool DebugLogCharHooked();
}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_DEBUGLOG_H_
