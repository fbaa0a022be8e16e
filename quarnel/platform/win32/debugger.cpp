#include "quarnel/platform/debugger.h"

#include <atomic>

#include "quarnel/platform/debugout.h"
#include "quarnel/platform/win32/winapi.h"
#include "quarnel/platform/wine.h"

namespace {
std::atomic<int> g_breaks{0};
}

int UIsDebuggerPresent() { return ::IsDebuggerPresent() ? 1 : 0; }

// Without a debugger the breakpoint exception would end the process, so the
// call only says that it found none.
void UDebugBreak() {
  g_breaks.fetch_add(1, std::memory_order_relaxed);
  if (::IsDebuggerPresent()) {
    ::DebugBreak();
    return;
  }
  UOutputDebugStringA("DebugBreak: no debugger attached\n");
}

int UDebugBreakCount() { return g_breaks.load(std::memory_order_relaxed); }

int URunsUnderWine() {
  static const int wine =
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr ? 1 : 0;
  return wine;
}
