#include "quarnel/platform/debugout.h"

#include <atomic>

#include "quarnel/platform/win32/winapi.h"

namespace {
std::atomic<DebugOutputSink> g_sink{nullptr};
}

void UOutputDebugStringA(const char* text) {
  if (text == nullptr) return;
  if (DebugOutputSink sink = g_sink.load(std::memory_order_acquire)) {
    sink(text);
    return;
  }
  ::OutputDebugStringA(text);
}

DebugOutputSink USetDebugOutputSink(DebugOutputSink sink) {
  return g_sink.exchange(sink, std::memory_order_acq_rel);
}
