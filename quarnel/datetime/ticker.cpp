#include "quarnel/datetime/ticker.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <mutex>

#include "quarnel/containers/tlist.h"
#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/tick.h"

namespace {

constexpr unsigned kHourMs = 3600000;
constexpr unsigned kOverflowHours = 1194;      // this many hours is past the 32-bit wrap
constexpr unsigned kWrapCheckHours = 1192;     // from here a small span means the count wrapped
constexpr unsigned kWrapCheckMs = 4287600000;  // 0xFF8F9580: 1,191 hours
constexpr unsigned kWarnDays = 21;
constexpr unsigned kWarnMs = kWarnDays * 86400000u;  // 1,814,400,000
constexpr unsigned kNoteMs = kHourMs;

enum : unsigned { kWarnedNone = 0, kWarnedHour = 1, kWarnedDays = 2, kWarnedOverflow = 3 };

// Assertion lines of module "timer".
constexpr int kLineStopUnderflow = 303;  // Stop without a matching Start

constexpr const char kReportFormat[] = "%s: %.3F of %.1F secs (%.2F%%) for %d ops (%.1F uSec/op)";

// A registry made by its first user and kept for the life of the process (it
// is never destroyed, so that tickers and profilers with static storage may
// outlive every other static object). existing() tells whether it was made.
template <class R>
class ProcessRegistry {
 public:
  R& get() {
    R* r = ptr_.load(std::memory_order_acquire);
    if (r != nullptr) return *r;
    std::call_once(once_, [this] { ptr_.store(new R, std::memory_order_release); });
    return *ptr_.load(std::memory_order_acquire);
  }
  R* existing() const { return ptr_.load(std::memory_order_acquire); }

 private:
  std::atomic<R*> ptr_{nullptr};
  std::once_flag once_;
};

}  // namespace

// The live tickers and the hourly timer. Everything here is changed under
// `monitor`.
struct TTickerRegistry {
  TMonitor monitor;
  TList tickers;
  unsigned timerId = 0;      // the running timer, 0 when none
  unsigned lastTimerId = 0;  // the id given to the newest timer
  std::uint64_t nextFiring = 0;

  // SetTimer: a new timer whose first firing is an hour from `now`.
  void startTimer(std::uint64_t now) {
    timerId = ++lastTimerId;
    if (timerId == 0) timerId = ++lastTimerId;
    nextFiring = now + kHourMs;
  }

  // KillTimer: the timer is forgotten; the next ticker starts another.
  void killTimer() { timerId = 0; }

  // Delivers every firing due by `now` to every live ticker.
  void deliverFirings(std::uint64_t now) {
    if (timerId == 0 || now < nextFiring) return;
    const std::uint64_t due = (now - nextFiring) / kHourMs + 1;
    nextFiring += due * kHourMs;
    const unsigned n = due > UINT_MAX ? UINT_MAX : static_cast<unsigned>(due);
    for (void* pos = tickers.First(); pos != nullptr; pos = tickers.Next(pos)) {
      TTicker* ticker = reinterpret_cast<TTicker*>(TList::Item(pos));
      if (n == 1) {
        ticker->incHourBase();
      } else {
        ticker->incHourBase(n);
      }
    }
  }
};

namespace {

ProcessRegistry<TTickerRegistry> g_tickers;

struct TProfilerRegistry {
  TMonitor monitor;
  TList profilers;
};

ProcessRegistry<TProfilerRegistry> g_profilers;

// total × s / n with s from 10,000 and n from `n`, both divided by 10 while n
// is above 999 and s above 9. The arithmetic is 32-bit unsigned, wrapping as
// the original figures do, so that the line matches on every platform.
unsigned scaledRatio(unsigned total, unsigned n) {
  unsigned s = 10000;
  while (n > 999 && s > 9) {
    n /= 10;
    s /= 10;
  }
  return total * s / n;
}

}  // namespace

// ---------------------------------------------------------------- TTicker

TTicker::TTicker(unsigned id) : base_(0), hours_(0), warned_(kWarnedNone), id_(id), spare_(0) {
  TTickerRegistry& reg = g_tickers.get();
  TMonitorHold hold(reg.monitor);
  const std::uint64_t now = UGetTickCount64();
  if (reg.timerId == 0) {
    reg.startTimer(now);
  } else {
    reg.deliverFirings(now);
  }
  Reset();
  reg.tickers.AddFirst(reinterpret_cast<std::intptr_t>(this));
}

TTicker::~TTicker() {
  TTickerRegistry& reg = g_tickers.get();
  TMonitorHold hold(reg.monitor);
  reg.tickers.Remove(reinterpret_cast<std::intptr_t>(this));
  if (reg.tickers.IsEmpty()) reg.killTimer();
}

void TTicker::SetMS(unsigned ms) {
  TTickerRegistry& reg = g_tickers.get();
  std::uint64_t now;
  {
    TMonitorHold hold(reg.monitor);
    now = UGetTickCount64();
    reg.deliverFirings(now);
    hours_ = ms / kHourMs;
  }
  base_ = static_cast<unsigned>(now) - ms;
  warned_ = kWarnedNone;
}

unsigned TTicker::GetMS() {
  TTickerRegistry& reg = g_tickers.get();
  std::uint64_t now;
  unsigned hours;
  {
    TMonitorHold hold(reg.monitor);
    now = UGetTickCount64();
    reg.deliverFirings(now);
    hours = hours_;
  }
  const unsigned elapsed = static_cast<unsigned>(now) - base_;

  if (hours >= kOverflowHours || (hours >= kWrapCheckHours && elapsed < kWrapCheckMs)) {
    if (warned_ < kWarnedOverflow) {
      warned_ = kWarnedOverflow;
      DebugLogf(kLogMisuse, "TTicker::GetMS: TTicker('%Y') overflowed", id_);
    }
    return 0xFFFFFFFFu;
  }
  if (elapsed > kWarnMs && warned_ < kWarnedDays) {
    warned_ = kWarnedDays;
    DebugLogf(kLogMisuse, "TTicker::GetMS: TTicker('%Y') has reached %d days of 49 max", id_,
              static_cast<int>(kWarnDays));
  }
  if (elapsed > kNoteMs && warned_ < kWarnedHour) {
    warned_ = kWarnedHour;
    DebugLogf(kLogInternalData, "TTicker::GetMS: note that TTicker('%Y') has exceeded 1 hour", id_);
  }
  return elapsed;
}

unsigned TTickerTimerActive() {
  TTickerRegistry* reg = g_tickers.existing();
  if (reg == nullptr) return 0;
  TMonitorHold hold(reg->monitor);
  return reg->timerId;
}

// -------------------------------------------------------------- TProfiler

TProfiler::TProfiler(const char* name, unsigned level)
    : reported_(0),
      accumulator_(0),
      startTick_(0),
      total_(0),
      operations_(0),
      depth_(0),
      level_(level != 0 ? level : static_cast<unsigned>(kLogStats)) {
  name_.AssignAnsi(name);
  TProfilerRegistry& reg = g_profilers.get();
  startTick_ = UGetTickCount();
  TMonitorHold hold(reg.monitor);
  reg.profilers.AddFirst(reinterpret_cast<std::intptr_t>(this));
}

TProfiler::~TProfiler() {
  TProfilerRegistry& reg = g_profilers.get();
  {
    TMonitorHold hold(reg.monitor);
    reg.profilers.Remove(reinterpret_cast<std::intptr_t>(this));
  }
  Report(1);
}

void TProfiler::Start() {
  ++operations_;
  if (depth_ == 0) accumulator_ -= UGetTickCount();
  ++depth_;
}

void TProfiler::Stop() {
  --depth_;
  if (depth_ == 0) {
    accumulator_ += UGetTickCount();
    total_ = accumulator_;
  } else if (depth_ < 0) {
    Debug("timer", kLineStopUnderflow);
  }
}

void TProfiler::Reset() {
  accumulator_ = 0;
  total_ = 0;
  operations_ = 0;
  depth_ = 0;
  startTick_ = UGetTickCount();
}

void TProfiler::Report(int once) {
  TProfilerRegistry& reg = g_profilers.get();
  TMonitorHold hold(reg.monitor);
  if (once != 0) {
    if (reported_ != 0) return;
    reported_ = 1;
  }
  const unsigned elapsed = UGetTickCount() - startTick_;
  unsigned total = 0;
  unsigned tenths = 0;
  unsigned percent = 0;
  unsigned operations = 0;
  unsigned usPerOp = 0;
  if (operations_ != 0 && elapsed != 0 && total_ != 0) {
    total = total_;
    tenths = elapsed / 100;
    percent = scaledRatio(total_, elapsed);
    operations = operations_;
    usPerOp = scaledRatio(total_, operations_);
  }
  DebugLogf(level_, kReportFormat, name_, total, tenths, percent, static_cast<int>(operations),
            usPerOp);
}

void TProfileReportAll() {
  TProfilerRegistry* reg = g_profilers.existing();
  if (reg == nullptr) return;
  reg->monitor.Enter();
  while (!reg->profilers.IsEmpty()) {
    TProfiler* profiler = reinterpret_cast<TProfiler*>(reg->profilers.RemoveFirst());
    reg->monitor.Exit();
    profiler->Report(1);
    reg->monitor.Enter();
  }
  reg->monitor.Exit();
}
