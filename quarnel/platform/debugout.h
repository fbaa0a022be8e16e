// Debugger output (OutputDebugStringA): standard error, unless a sink is set.
#ifndef QUARNEL_PLATFORM_DEBUGOUT_H_
#define QUARNEL_PLATFORM_DEBUGOUT_H_

#include "quarnel/foundation/export.h"

QUARNEL_API void UOutputDebugStringA(const char* text);

// Sends debugger output to `sink` instead of standard error (null restores
// standard error). Returns the previous sink. A test seam: the library's tests
// use it to read and to quieten the output; it is not exported.
using DebugOutputSink = void (*)(const char* text);
DebugOutputSink USetDebugOutputSink(DebugOutputSink sink);

#endif  // QUARNEL_PLATFORM_DEBUGOUT_H_
