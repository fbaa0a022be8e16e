#include "quarnel/platform/debugout.h"

#include <unistd.h>

#include <atomic>
#include <cstring>

namespace {
std::atomic<DebugOutputSink> g_sink{nullptr};
}

void UOutputDebugStringA(const char* text) {
  if (text == nullptr) return;
  if (DebugOutputSink sink = g_sink.load(std::memory_order_acquire)) {
    sink(text);
    return;
  }
  // One write call, so that lines from several threads do not interleave.
  std::size_t left = std::strlen(text);
  while (left > 0) {
    const ssize_t n = ::write(STDERR_FILENO, text, left);
    if (n <= 0) break;
    text += n;
    left -= static_cast<std::size_t>(n);
  }
}

DebugOutputSink USetDebugOutputSink(DebugOutputSink sink) {
  return g_sink.exchange(sink, std::memory_order_acq_rel);
}
