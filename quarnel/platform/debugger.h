// The debugger, with Win32 meaning (IsDebuggerPresent, DebugBreak).
#ifndef QUARNEL_PLATFORM_DEBUGGER_H_
#define QUARNEL_PLATFORM_DEBUGGER_H_

#include "quarnel/foundation/export.h"

// 1 when a debugger traces the process (TracerPid in /proc/self/status).
QUARNEL_API int UIsDebuggerPresent();

// Breaks into the debugger (SIGTRAP) when one is attached; without one it
// writes "DebugBreak: no debugger attached" and a line feed to the debugger
// output and returns, since an untraced SIGTRAP would end the process.
QUARNEL_API void UDebugBreak();

// Test seam: the number of UDebugBreak calls so far.
int UDebugBreakCount();

#endif  // QUARNEL_PLATFORM_DEBUGGER_H_
