#include "quarnel/platform/debugger.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "quarnel/platform/debugout.h"

namespace {
std::atomic<int> g_breaks{0};
}

int UIsDebuggerPresent() {
  const int fd = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[4096];
  std::size_t used = 0;
  for (;;) {
    const ssize_t n = ::read(fd, buf + used, sizeof buf - 1 - used);
    if (n <= 0) break;
    used += static_cast<std::size_t>(n);
    if (used == sizeof buf - 1) break;
  }
  ::close(fd);
  buf[used] = '\0';
  const char* tracer = std::strstr(buf, "TracerPid:");
  if (tracer == nullptr) return 0;
  return std::strtol(tracer + std::strlen("TracerPid:"), nullptr, 10) != 0 ? 1 : 0;
}

void UDebugBreak() {
  g_breaks.fetch_add(1, std::memory_order_relaxed);
  if (UIsDebuggerPresent()) {
    ::raise(SIGTRAP);
  } else {
    UOutputDebugStringA("DebugBreak: no debugger attached\n");
  }
}

int UDebugBreakCount() { return g_breaks.load(std::memory_order_relaxed); }
