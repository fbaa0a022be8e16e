// Host hooks: alerts, queries, scripts, threads; debugger calls.
//
// The library has no user interface of its own. Everything it wants to show
// or ask goes through a hook the host installs at start-up; each entry point
// calls its slot when one is installed and otherwise a fixed default. The
// slots are plain pointers: install them before other threads call into the
// library. Installing a hook replaces the previous one; installing null
// restores the default.
//
// Message prefix: a message text may begin with markers that choose the icon
// of the default box and are removed before display: "!" or "+" exclamation
// (0x30), "#" stop (0x10), "*" information (0x40), "?" question (0x20) (icons
// of several markers are or-ed), "<" and ">" nothing, "/" a tag of five more
// "/"-terminated fields. Any other character ends the prefix.
//
// Style word of Alertf and Queryf: bits 8-11 choose the buttons (1 retry and
// cancel, or abort, retry and ignore with variant 3; 2 and 3 yes, no and
// cancel, or yes and no with variant 2; else OK, or OK and cancel with
// variant 2), bits 0-3 the variant, bits 4-7 the default button (0x20 the
// second, 0x30 the third, 0x40 the fourth).
//
// Answers: OK -1203, retry -1206, ignore -1205, no -1202, any other button
// (yes, cancel, abort) -1201 (kAnswer* in errors.h).
#ifndef QUARNEL_FOUNDATION_ALERT_H_
#define QUARNEL_FOUNDATION_ALERT_H_

#include <cstddef>
#include <cstdint>

#include "quarnel/foundation/export.h"
#include "quarnel/text/args.h"
#include "quarnel/text/tstring.h"

class TDate;

// ---- Alerts ----

// Slot 0 serves Alertf(format, ...); slot 1 Alertf(style, format, ...).
using AlertfProc = int (*)(const TString* format, const Args* args);
using AlertfStyleProc = int (*)(int style, const TString* format, const Args* args);

// Installs `proc` at `index` (0 or 1). Another index asserts (alert 45) and
// the pointer is stored anyway; the slot table has room for 16, and an index
// beyond it is dropped after the assertion (nothing is written out of
// bounds). A hook of the other kind is adapted: an AlertfProc in slot 1 is
// called without the style, an AlertfStyleProc in slot 0 with style 0.
QUARNEL_API void HookAlertf(int index, AlertfProc proc);
QUARNEL_API void HookAlertf(int index, AlertfStyleProc proc);
QUARNEL_API void HookAlertf(int index, std::nullptr_t);

// The default handlers, which a host may call too: the default box with
// style 0 (DefaultAlertf) or the given style; they return the answer code.
// A slot found empty when an alert is made is first filled with its default.
QUARNEL_API int DefaultAlertf(const TString* format, const Args* args);
QUARNEL_API int DefaultAlertfStyle(int style, const TString* format, const Args* args);

// Shows an alert; the answer is discarded.
QUARNEL_API void Alertf(const TString* format, const Args* args);
inline void Alertf(const TString* format, Args* args) {
  Alertf(format, static_cast<const Args*>(args));
}
template <class... A>
void Alertf(const TString* format, const A&... values) {
  quarnel_args::WithArgs([&](const Args* args) { Alertf(format, args); }, values...);
}
QUARNEL_API void Alertf(int style, const TString* format, const Args* args);
inline void Alertf(int style, const TString* format, Args* args) {
  Alertf(style, format, static_cast<const Args*>(args));
}
template <class... A>
void Alertf(int style, const TString* format, const A&... values) {
  quarnel_args::WithArgs([&](const Args* args) { Alertf(style, format, args); }, values...);
}

// AlertParse: without a hook, strips the message prefix from `text` and
// returns the icon bits of its markers (0 when none).
using AlertParseProc = int (*)(TString* text);
QUARNEL_API void HookAlertParse(AlertParseProc proc);
QUARNEL_API int AlertParse(TString* text);

// ---- Queries ----

// Slot 0: choose one of several; slot 1: enter a text of at most `maxLength`
// units; slot 2: enter a date; slot 3: a question answered with a button.
using QueryfChooseProc = int (*)(int style, unsigned* choice, TString* choices,
                                 const TString* format, const Args* args);
using QueryfTextProc = int (*)(int style, unsigned maxLength, TString* text, const TString* format,
                               const Args* args);
using QueryfDateProc = int (*)(int style, TDate* date, const TString* format, const Args* args);
using QueryfProc = int (*)(int style, const TString* format, const Args* args);

// Installs `proc` at `index` (0 to 3; another index asserts, alert 58, and
// is stored as HookAlertf stores it). A hook is called only by the queries
// of its own kind; a query whose slot holds a hook of another kind takes
// its default.
QUARNEL_API void HookQueryf(int index, QueryfChooseProc proc);
QUARNEL_API void HookQueryf(int index, QueryfTextProc proc);
QUARNEL_API void HookQueryf(int index, QueryfDateProc proc);
QUARNEL_API void HookQueryf(int index, QueryfProc proc);
QUARNEL_API void HookQueryf(int index, std::nullptr_t);

// The default question box (slot 3's default): returns the answer code.
QUARNEL_API int DefaultQueryf(int style, const TString* format, const Args* args);

namespace quarnel_internal {
// The query entry points; `variadic` chooses the wording of the "no UI
// available" line of the input queries.
int QueryfChoose(int style, unsigned* choice, TString* choices, const TString* format,
                 const Args* args, bool variadic);
int QueryfText(int style, unsigned maxLength, TString* text, const TString* format,
               const Args* args, bool variadic);
int QueryfDate(int style, TDate* date, const TString* format, const Args* args, bool variadic);
// The message-box style (buttons and default button) of an alert style word.
unsigned AlertButtonStyle(int style);
}  // namespace quarnel_internal

// Without a hook the input queries log "Queryf(choose...): no UI available"
// (variadic form) or "Queryf(choose): no UI available" (Args form), and the
// same with "text" and "date", at level 515 and return -1203.
inline int Queryf(int style, unsigned* choice, TString* choices, const TString* format,
                  const Args* args) {
  return quarnel_internal::QueryfChoose(style, choice, choices, format, args, false);
}
inline int Queryf(int style, unsigned* choice, TString* choices, const TString* format,
                  Args* args) {
  return quarnel_internal::QueryfChoose(style, choice, choices, format, args, false);
}
template <class... A>
int Queryf(int style, unsigned* choice, TString* choices, const TString* format,
           const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) {
        return quarnel_internal::QueryfChoose(style, choice, choices, format, args, true);
      },
      values...);
}
inline int Queryf(int style, unsigned maxLength, TString* text, const TString* format,
                  const Args* args) {
  return quarnel_internal::QueryfText(style, maxLength, text, format, args, false);
}
inline int Queryf(int style, unsigned maxLength, TString* text, const TString* format, Args* args) {
  return quarnel_internal::QueryfText(style, maxLength, text, format, args, false);
}
template <class... A>
int Queryf(int style, unsigned maxLength, TString* text, const TString* format,
           const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) {
        return quarnel_internal::QueryfText(style, maxLength, text, format, args, true);
      },
      values...);
}
inline int Queryf(int style, TDate* date, const TString* format, const Args* args) {
  return quarnel_internal::QueryfDate(style, date, format, args, false);
}
inline int Queryf(int style, TDate* date, const TString* format, Args* args) {
  return quarnel_internal::QueryfDate(style, date, format, args, false);
}
template <class... A>
int Queryf(int style, TDate* date, const TString* format, const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) {
        return quarnel_internal::QueryfDate(style, date, format, args, true);
      },
      values...);
}
// The question with buttons: the hook's answer, or the default box's.
QUARNEL_API int Queryf(int style, const TString* format, const Args* args);
inline int Queryf(int style, const TString* format, Args* args) {
  return Queryf(style, format, static_cast<const Args*>(args));
}
template <class... A>
int Queryf(int style, const TString* format, const A&... values) {
  return quarnel_args::WithArgs([&](const Args* args) { return Queryf(style, format, args); },
                                values...);
}

// ---- Threads and scripts ----

// A thread as EnumThreads describes it.
struct QUARNEL_API TThdDescriptor {
  TString name;
  unsigned threadId = 0;
  void* handle = nullptr;
  // Empty name, id 0, null handle.
  void Reset();
};

using SuspendOtherThreadsProc = int (*)();
using TriggerScriptProc = int (*)(TString* a, TString* b, TString* c, TString* d,
                                  const Args* words);
using AssembleScriptArgsProc = int (*)(TString* a, TString* b, TString* c, TString* d,
                                       const Args* words);
using ProcessScriptErrProc = int (*)(int a, int b, TString* c, TString* d, TString* e, int f,
                                     TString* g, TString* h);
using GetThreadCountProc = int (*)();
using EnumThreadsProc = int (*)(int index, TThdDescriptor* thread);

QUARNEL_API void HookSuspendOtherThreads(SuspendOtherThreadsProc proc);
QUARNEL_API void HookTriggerScript(TriggerScriptProc proc);
QUARNEL_API void HookAssembleScriptArgs(AssembleScriptArgsProc proc);
QUARNEL_API void HookProcessScriptErr(ProcessScriptErrProc proc);
QUARNEL_API void HookGetThreadCount(GetThreadCountProc proc);
QUARNEL_API void HookEnumThreads(EnumThreadsProc proc);

// Without a hook: nothing happens.
QUARNEL_API void SuspendOtherThreads();
// The four strings and the argument words (at most ten are passed on) go to
// the hook; without one the answer is 0.
QUARNEL_API int TriggerScriptArgs(TString* a, TString* b, TString* c, TString* d,
                                  const Args* words);
template <class... A>
int TriggerScript(TString* a, TString* b, TString* c, TString* d, const A&... words) {
  return quarnel_args::WithArgs(
      [&](const Args* args) { return TriggerScriptArgs(a, b, c, d, args); }, words...);
}
QUARNEL_API int AssembleScriptArgsArgs(TString* a, TString* b, TString* c, TString* d,
                                       const Args* words);
template <class... A>
int AssembleScriptArgs(TString* a, TString* b, TString* c, TString* d, const A&... words) {
  return quarnel_args::WithArgs(
      [&](const Args* args) { return AssembleScriptArgsArgs(a, b, c, d, args); }, words...);
}
// All eight arguments go to the hook; without one the answer is 0.
QUARNEL_API int ProcessScriptErr(int a, int b, TString* c, TString* d, TString* e, int f,
                                 TString* g, TString* h);
// Without a hook: 1.
QUARNEL_API int GetThreadCount();
namespace quarnel_internal {
// True when the host installed an EnumThreads hook (the crash report then
// lists the host's threads instead of the system's).
bool HasEnumThreadsHook();
}  // namespace quarnel_internal
// Without a hook: resets `thread`, stores the calling thread's id and handle
// in it and returns 1.
QUARNEL_API int EnumThreads(int index, TThdDescriptor* thread);

// The text-drawing layer's output hook. The slot is kept per thread: a hook
// installed on one thread is seen by that thread only.
using UserTextOutWProc = int (*)(void* port, int x, int y, const char16_t* text, int count);
QUARNEL_API void HookUserTextOutW(UserTextOutWProc proc);
// The calling thread's hook, null when none.
QUARNEL_API UserTextOutWProc UserTextOutW();

// ---- Debugger and fatal messages ----

// Breaks into the debugger when one is attached; else writes a line to the
// debugger output and returns.
QUARNEL_API void DebuggerBreak();
// The text in 8-bit characters (the system code page) to the debugger output.
QUARNEL_API void DebuggerString(const TString* text);
// Closes the splash screen and shows `text` in a message box with the
// library's title and the warning icon (style 0x10030); returns once the box
// is dismissed.
QUARNEL_API void FatalAlert(const TString* text);
// Always 0: the port has no stack probe.
QUARNEL_API int StackOverflow();
// 0 for null; a size of -1 counts as 4; 1 only when the whole range is both
// readable and writable, else 0.
QUARNEL_API int IsPtrValid(void* p, int size);

// Closes the splash screen. There is no splash screen yet: nothing happens.
QUARNEL_API void SplashScreenClose(int how);

#endif  // QUARNEL_FOUNDATION_ALERT_H_
