// The millisecond tick count, with Win32 meaning (GetTickCount,
// GetTickCount64).
//
// The tick count is the monotonic clock in milliseconds. UGetTickCount64
// never wraps; UGetTickCount is its low 32 bits, so it wraps to 0 after
// 2^32 ms (about 49.7 days) exactly as on Windows.
//
// Test seam: an offset added to the clock, and a switch that stops it. With
// them a test reaches the hour, 21-day, 49-day wrap and overflow rules of the
// tickers at once and measures exact spans:
//
//   UFreezeTickCount(1);                       // the clock stands still
//   USetTickOffset(UGetTickOffset() + 3600000); // an hour passes at once
//
// Both are atomics read on every call; unused, they cost one relaxed load each.
#ifndef QUARNEL_PLATFORM_TICK_H_
#define QUARNEL_PLATFORM_TICK_H_

#include <cstdint>

#include "quarnel/foundation/export.h"

// Milliseconds of the monotonic clock plus the test offset.
QUARNEL_API std::uint64_t UGetTickCount64();
// The low 32 bits of UGetTickCount64: wraps at 2^32.
QUARNEL_API unsigned UGetTickCount();

// Test seam. The offset is added to every reading from now on (it may be
// negative; readings are taken modulo 2^64). Setting it back to 0 returns to
// the real clock.
void USetTickOffset(std::int64_t ms);
std::int64_t UGetTickOffset();
// Non-zero: the clock stops at its current reading (offset changes still
// move it); 0: it runs again from the real clock. Returns the previous state.
int UFreezeTickCount(int frozen);

#endif  // QUARNEL_PLATFORM_TICK_H_
