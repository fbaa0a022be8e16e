// TTicker and TProfiler: elapsed milliseconds and profiling lines.
//
// TTicker measures elapsed milliseconds from the platform's 32-bit
// millisecond tick count, which wraps after about 49.7 days; whole hours are
// counted separately for every live ticker so that spans past the wrap are
// recognised. It notes once when a span passes 1 hour, warns once at 21 days
// and reports overflow (GetMS answers 0xFFFFFFFF).
//
// TProfiler accumulates the busy time between nested Start/Stop calls and
// counts operations; it prints a one-line summary through the debug log when
// reported, destroyed, or when TProfileReportAll runs.
//
// A ticker or profiler is used by one thread at a time; the registries of
// live tickers and profilers are shared and locked.
//
// The hourly count needs no thread and no message loop. The first live
// ticker starts a process-wide hourly timer: its start is a reading of the
// 64-bit tick count, and it "fires" every 3,600,000 ms after that. Whenever a
// ticker is made, read (GetMS) or restarted (SetMS, Reset), every hour
// boundary passed since the last delivery is delivered first, under the
// registry monitor, to every live ticker (incHourBase: an hour per boundary),
// exactly as the firings of a real timer would have been. When the last
// ticker is destroyed the timer is killed; the next ticker starts a new one
// with a new id and a new phase. TTickerTimerActive tells which timer runs.
#ifndef QUARNEL_DATETIME_TICKER_H_
#define QUARNEL_DATETIME_TICKER_H_

#include "quarnel/foundation/export.h"
#include "quarnel/text/tstring.h"

class QUARNEL_API TTicker {
 public:
  explicit TTicker(unsigned id);
  ~TTicker();
  TTicker(const TTicker&) = delete;
  TTicker& operator=(const TTicker&) = delete;

  unsigned GetID() const { return id_; }
  void SetID(unsigned id) { id_ = id; }
  // Starts the span so that it already measures `ms`.
  void SetMS(unsigned ms);
  void Reset() { SetMS(0); }
  // Elapsed milliseconds of the span; 0xFFFFFFFF once it has overflowed.
  unsigned GetMS();

 private:
  friend struct TTickerRegistry;
  void incHourBase() { ++hours_; }
  // `n` firings of the hourly timer at once; the count stops at its largest
  // value instead of wrapping.
  void incHourBase(unsigned n) { hours_ = hours_ > ~n ? ~0u : hours_ + n; }

  unsigned base_;
  unsigned hours_;
  unsigned warned_;
  unsigned id_;
  unsigned spare_;
};

class QUARNEL_API TProfiler {
 public:
  // `level` 0 means 513.
  TProfiler(const char* name, unsigned level);
  ~TProfiler();  // Report(1)
  TProfiler(const TProfiler&) = delete;
  TProfiler& operator=(const TProfiler&) = delete;

  void Start();
  void Stop();
  void Reset();
  // Writes the summary line; with `once` non-zero only the first such call
  // writes.
  void Report(int once);

 private:
  TString name_;
  int reported_;
  unsigned accumulator_;
  unsigned startTick_;
  unsigned total_;
  unsigned operations_;
  int depth_;
  unsigned level_;
};

// Reports every live profiler once and empties the registry.
QUARNEL_API void TProfileReportAll();

// Diagnostic: the id of the running hourly ticker timer, 0 when none runs
// (no live ticker). Each timer started gets a new id, counting from 1.
QUARNEL_API unsigned TTickerTimerActive();

#endif  // QUARNEL_DATETIME_TICKER_H_
