#include "quarnel/containers/tmonitor.h"

#include <atomic>
#include <cstdint>

#include "quarnel/foundation/debuglog.h"

namespace {

// Initial-exec: the library is linked by its hosts, so the pointer can live in
// the static TLS block and be reached without a call on every Enter and Exit.
#if defined(__GNUC__)
__attribute__((tls_model("initial-exec")))
#endif
thread_local TMonitor* t_mostRecent = nullptr;

TMonitor* const kDestroyedLink = reinterpret_cast<TMonitor*>(~std::uintptr_t{0});

}  // namespace

TMonitor** ThreadMonitorList() { return &t_mostRecent; }

TMonitor::TMonitor() : count_(0), newer_(nullptr), older_(nullptr) {}

TMonitor::TMonitor(TMonitor&) : count_(0), newer_(nullptr), older_(nullptr) {
  Debug("tmonitor", 31);
}

TMonitor& TMonitor::operator=(TMonitor&) {
  Debug("tmonitor", 37);
  return *this;
}

TMonitor::~TMonitor() {
  if (count_ != 0 || newer_ != nullptr || older_ != nullptr) Debug("tmonitor", 44);
  count_ = 0;
  newer_ = kDestroyedLink;
  older_ = kDestroyedLink;
}

// The lock is taken at the first entry and released at the last exit; the
// entries between only count. Only the holder finds its own list's address
// in owner_, so the test needs no ordering.
int TMonitor::Enter() {
  if (owner_.load(std::memory_order_relaxed) == &t_mostRecent) return ++count_;
  lock_.lock();
  owner_.store(&t_mostRecent, std::memory_order_relaxed);
  count_ = 1;
  newer_ = nullptr;
  older_ = t_mostRecent;
  if (older_ != nullptr) older_->newer_ = this;
  t_mostRecent = this;
  return 1;
}

// Leaving a monitor the thread does not hold asserts and changes nothing:
// releasing a lock another thread owns would break that thread's hold.
int TMonitor::Exit() {
  if (owner_.load(std::memory_order_relaxed) != &t_mostRecent || count_ < 1) {
    Debug("tmonitor", 66);
    return 0;
  }
  const int count = --count_;
  if (count == 0) {
    unlink();
    owner_.store(nullptr, std::memory_order_relaxed);
    lock_.unlock();
  }
  return count;
}

// Leaving the last level: the neighbours in the thread's list are joined,
// so that monitors can be left in any order.
void TMonitor::unlink() {
  if (older_ != nullptr) older_->newer_ = newer_;
  if (newer_ == nullptr) {
    if (t_mostRecent != this) Debug("tmonitor", 80);
    t_mostRecent = older_;
  } else {
    newer_->older_ = older_;
  }
  newer_ = nullptr;
  older_ = nullptr;
}
