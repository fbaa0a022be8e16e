// TMonitor: the library's lock.
//
// A re-entrant mutual-exclusion lock that also keeps, for each thread, a list
// of the monitors the thread holds, most recently first entered first. Every
// shared structure of the library locks with one: each TList is a monitor,
// each TQueue owns one, and the TMemory statistics are guarded by one.
//
// Monitors may be left in any order, not only last-entered-first-left. Misuse
// asserts (module "tmonitor"): leaving a monitor the thread does not hold,
// destroying a held or linked monitor, copying a monitor.
#ifndef QUARNEL_CONTAINERS_TMONITOR_H_
#define QUARNEL_CONTAINERS_TMONITOR_H_

#include <atomic>
#include <mutex>

#include "quarnel/foundation/export.h"

class QUARNEL_API TMonitor {
 public:
  TMonitor();
  // Monitors are not copyable: both assert and change nothing.
  TMonitor(TMonitor& other);
  TMonitor& operator=(TMonitor& other);
  // Asserts that the monitor is neither held nor linked; afterwards both
  // links hold all bits set.
  ~TMonitor();

  // Waits for the lock, then counts one more entry. The first entry links
  // the monitor at the head of the calling thread's list. Returns the new
  // entry count.
  int Enter();
  // Counts one entry less; the last exit unlinks it from the thread's list and releases
  // the lock. Returns the new entry count. Leaving a monitor the calling
  // thread does not hold asserts (tmonitor 66), changes nothing and returns 0.
  int Exit();

  // Diagnostics: the entry count and the links of the thread's list.
  int EntryCount() const { return count_; }
  TMonitor* Newer() const { return newer_; }
  TMonitor* Older() const { return older_; }

 private:
  void unlink();

  // Mutable: the lock is no part of the value of what it guards, so that
  // const queries of a list may hold it.
  mutable std::mutex lock_;  // held from the first entry to the last exit
  mutable std::atomic<const void*> owner_{
      nullptr};  // the holding thread, by its list pointer's address
  mutable int count_;
  mutable TMonitor* newer_;
  mutable TMonitor* older_;
};

// The address of the calling thread's pointer to the monitor it entered most
// recently (null when it holds none); Older() walks the rest of its list.
QUARNEL_API TMonitor** ThreadMonitorList();

// Holds a monitor for the life of a scope.
class TMonitorHold {
 public:
  explicit TMonitorHold(TMonitor& monitor) : monitor_(monitor) { monitor_.Enter(); }
  ~TMonitorHold() { monitor_.Exit(); }
  TMonitorHold(const TMonitorHold&) = delete;
  TMonitorHold& operator=(const TMonitorHold&) = delete;

 private:
  TMonitor& monitor_;
};

#endif  // QUARNEL_CONTAINERS_TMONITOR_H_
