#include "quarnel/platform/wintime.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/tzrule.h"
#include "quarnel/platform/win32/winapi.h"

static_assert(sizeof(USYSTEMTIME) == sizeof(SYSTEMTIME), "SYSTEMTIME layout");
static_assert(sizeof(UFILETIME) == sizeof(FILETIME), "FILETIME layout");

namespace {

constexpr unsigned kWinInvalidParameter = 87;
constexpr std::uint64_t kMaxTicks = 0x7FFFFFFFFFFFFFFFull;  // the last valid FILETIME
constexpr std::int64_t kUnixEpochTicks = 116444736000000000;

SYSTEMTIME* Sys(USYSTEMTIME* st) { return reinterpret_cast<SYSTEMTIME*>(st); }
const SYSTEMTIME* Sys(const USYSTEMTIME* st) { return reinterpret_cast<const SYSTEMTIME*>(st); }
FILETIME* File(UFILETIME* ft) { return reinterpret_cast<FILETIME*>(ft); }
const FILETIME* File(const UFILETIME* ft) { return reinterpret_cast<const FILETIME*>(ft); }

int Refuse() {
  USetLastError(kWinInvalidParameter);
  return 0;
}

// The test seams: a clock that stands still, and a zone of the process's own.
constexpr std::uint64_t kNoOverride = ~0ull;
std::atomic<std::uint64_t> g_override{kNoOverride};
std::mutex g_zoneLock;
bool g_hasZone = false;
quarnel_internal::TzRule g_zone;

bool ZoneSet(quarnel_internal::TzRule* rule) {
  std::lock_guard<std::mutex> hold(g_zoneLock);
  if (g_hasZone) *rule = g_zone;
  return g_hasZone;
}

bool Overridden() { return g_override.load(std::memory_order_relaxed) != kNoOverride; }

std::uint64_t NowTicks() {
  const std::uint64_t fixed = g_override.load(std::memory_order_relaxed);
  if (fixed != kNoOverride) return fixed;
  FILETIME ft;
  ::GetSystemTimeAsFileTime(&ft);
  return (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// Seconds east of UTC at `ticks`: the seam's zone when one is set, else the
// system's zone with its rules for that instant.
std::int64_t OffsetAt(std::uint64_t ticks) {
  quarnel_internal::TzRule rule;
  if (ZoneSet(&rule)) {
    const std::int64_t t = static_cast<std::int64_t>(ticks) - kUnixEpochTicks;
    const std::int64_t s = t / 10000000 - (t % 10000000 < 0 ? 1 : 0);
    return quarnel_internal::TzOffsetAt(rule, s);
  }
  FILETIME utc{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  SYSTEMTIME u, l;
  FILETIME local;
  if (!::FileTimeToSystemTime(&utc, &u) || !::SystemTimeToTzSpecificLocalTime(nullptr, &u, &l) ||
      !::SystemTimeToFileTime(&l, &local)) {
    return 0;
  }
  const std::uint64_t lt =
      (static_cast<std::uint64_t>(local.dwHighDateTime) << 32) | local.dwLowDateTime;
  return (static_cast<std::int64_t>(lt) - static_cast<std::int64_t>(ticks)) / 10000000;
}

bool ShiftTicks(std::uint64_t from, std::int64_t bySeconds, std::uint64_t* to) {
  if (from > kMaxTicks) return false;
  const std::int64_t delta = bySeconds * 10000000;
  if (delta < 0 ? from < static_cast<std::uint64_t>(-delta)
                : kMaxTicks - from < static_cast<std::uint64_t>(delta)) {
    return false;
  }
  *to = from + static_cast<std::uint64_t>(delta);
  return true;
}

// Whether the system's own calls answer for local time: no seam is in use.
bool SystemLocalTime() {
  quarnel_internal::TzRule rule;
  return !Overridden() && !ZoneSet(&rule);
}

}  // namespace

int USystemTimeToFileTime(const USYSTEMTIME* st, UFILETIME* ft) {
  if (st == nullptr || ft == nullptr) return Refuse();
  return ::SystemTimeToFileTime(Sys(st), File(ft)) ? 1 : 0;
}

int UFileTimeToSystemTime(const UFILETIME* ft, USYSTEMTIME* st) {
  if (st == nullptr || ft == nullptr) return Refuse();
  return ::FileTimeToSystemTime(File(ft), Sys(st)) ? 1 : 0;
}

int UDosDateTimeToFileTime(std::uint16_t dosDate, std::uint16_t dosTime, UFILETIME* ft) {
  if (ft == nullptr) return Refuse();
  return ::DosDateTimeToFileTime(dosDate, dosTime, File(ft)) ? 1 : 0;
}

int UFileTimeToDosDateTime(const UFILETIME* ft, std::uint16_t* dosDate, std::uint16_t* dosTime) {
  if (ft == nullptr || dosDate == nullptr || dosTime == nullptr) return Refuse();
  WORD date = 0;
  WORD time = 0;
  if (!::FileTimeToDosDateTime(File(ft), &date, &time)) return 0;
  *dosDate = date;
  *dosTime = time;
  return 1;
}

int ULocalFileTimeToFileTime(const UFILETIME* local, UFILETIME* utc) {
  if (local == nullptr || utc == nullptr) return Refuse();
  if (SystemLocalTime()) return ::LocalFileTimeToFileTime(File(local), File(utc)) ? 1 : 0;
  std::uint64_t ticks = 0;
  if (!ShiftTicks(UFileTimeTicks(*local), -OffsetAt(NowTicks()), &ticks)) return Refuse();
  *utc = UMakeFileTime(ticks);
  return 1;
}

int UFileTimeToLocalFileTime(const UFILETIME* utc, UFILETIME* local) {
  if (local == nullptr || utc == nullptr) return Refuse();
  if (SystemLocalTime()) return ::FileTimeToLocalFileTime(File(utc), File(local)) ? 1 : 0;
  std::uint64_t ticks = 0;
  if (!ShiftTicks(UFileTimeTicks(*utc), OffsetAt(NowTicks()), &ticks)) return Refuse();
  *local = UMakeFileTime(ticks);
  return 1;
}

int UCurrentTimeZoneBias() {
  if (SystemLocalTime()) {
    TIME_ZONE_INFORMATION tz;
    const DWORD which = ::GetTimeZoneInformation(&tz);
    if (which == TIME_ZONE_ID_INVALID) return 0;
    return static_cast<int>(tz.Bias +
                            (which == TIME_ZONE_ID_DAYLIGHT ? tz.DaylightBias : tz.StandardBias));
  }
  return static_cast<int>(-OffsetAt(NowTicks()) / 60);
}

void UGetSystemTimeAsFileTime(UFILETIME* ft) {
  if (ft != nullptr) *ft = UMakeFileTime(NowTicks());
}

void UGetLocalTime(USYSTEMTIME* st) {
  if (st == nullptr) return;
  if (SystemLocalTime()) {
    ::GetLocalTime(Sys(st));
    return;
  }
  const std::uint64_t now = NowTicks();
  std::uint64_t local = now;
  ShiftTicks(now, OffsetAt(now), &local);
  const FILETIME ft{static_cast<DWORD>(local), static_cast<DWORD>(local >> 32)};
  ::FileTimeToSystemTime(&ft, Sys(st));
}

int USetLocalTime(const USYSTEMTIME* st) {
  UFILETIME local{};
  std::uint64_t utc = 0;
  if (st == nullptr || !USystemTimeToFileTime(st, &local)) return Refuse();
  if (!ShiftTicks(UFileTimeTicks(local), -OffsetAt(NowTicks()), &utc)) return Refuse();
  unsigned injected = 0;
  if (UShouldFail(UCall::kSetLocalTime, &injected)) {
    USetLastError(injected);
    return 0;
  }
  if (Overridden()) {
    g_override.store(utc, std::memory_order_relaxed);
    return 1;
  }
  return ::SetLocalTime(Sys(st)) ? 1 : 0;
}

void USetClockOverride(const UFILETIME* utcNow) {
  g_override.store(utcNow == nullptr ? kNoOverride : UFileTimeTicks(*utcNow),
                   std::memory_order_relaxed);
}

// Only POSIX rules are understood here; any other zone (a zoneinfo name) is
// UTC, as the C library takes a zone it cannot read.
void USetTimeZone(const char* tz) {
  std::lock_guard<std::mutex> hold(g_zoneLock);
  g_hasZone = tz != nullptr;
  quarnel_internal::ParseTzRule(tz, &g_zone);
}
