#include "quarnel/foundation/debuglog.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "quarnel/foundation/alert.h"
#include "quarnel/foundation/crashreport.h"
#include "quarnel/platform/debugout.h"
#include "quarnel/text/sprintf.h"
#include "quarnel/text/tstring.h"

namespace {

std::atomic<DebugLogfCharProc> g_logChar{nullptr};
std::atomic<DebugLogfProc> g_log{nullptr};
std::atomic<AssertionObserverProc> g_observer{nullptr};
std::atomic<DebugLogSettingProc> g_logGet{nullptr};
std::atomic<DebugLogSettingProc> g_logSet{nullptr};
std::atomic<DebugLogSettingProc> g_logTest{nullptr};

constexpr std::size_t kAssertionMax = 2048;

const char* BaseName(const char* file) {
  if (file == nullptr) return "";
  const char* base = file;
  for (const char* p = file; *p; ++p) {
    // Only the backslash separates: the module names of assertions are
    // compared byte for byte with those written on Windows.
    if (*p == '\\') base = p + 1;
  }
  return base;
}

void Assertion(const char* file, int line, const TString* text) {
  const char* module = BaseName(file);
  char message[kAssertionMax + 1];
  int head;
  if (text == nullptr) {
    head = std::snprintf(message, sizeof message, "Assertion failure at \"%s-%d\"\n", module, line);
  } else {
    head = std::snprintf(message, sizeof message, "Assertion failure at \"%s-%d\"", module, line);
  }
  if (head < 0) head = 0;
  if (static_cast<std::size_t>(head) > kAssertionMax) head = kAssertionMax;
  // Only the part before the text goes to the debugger output.
  UOutputDebugStringA(message);
  if (text != nullptr) {
    std::size_t used = static_cast<std::size_t>(head);
    if (used + 2 <= kAssertionMax) {
      std::memcpy(message + used, ", ", 2);
      used += 2;
      const short n =
          text->FillBufferAnsi(message + used, static_cast<short>(kAssertionMax + 1 - used), 0);
      used += static_cast<std::size_t>(n > 0 ? n : 0);
      if (used > kAssertionMax) used = kAssertionMax;
    }
    message[used] = '\0';
  }
  SplashScreenClose(1);
  if (AssertionObserverProc observer = g_observer.load(std::memory_order_acquire)) {
    observer(module, line, message);
  }
  quarnel_internal::ReportAssertion(message);
}

}  // namespace

void HookDebugLogfChar(DebugLogfCharProc proc) { g_logChar.store(proc, std::memory_order_release); }
void HookDebugLogf(DebugLogfProc proc) { g_log.store(proc, std::memory_order_release); }

int DebugLogfArgs(unsigned level, const char* format, const Args* args) {
  DebugLogfCharProc proc = g_logChar.load(std::memory_order_acquire);
  return proc ? proc(level, format, args) : 0;
}

bool quarnel_internal::DebugLogCharHooked() {
  return g_logChar.load(std::memory_order_acquire) != nullptr;
}

int DebugLogfArgs(unsigned level, const TString* format, const Args* args) {
  DebugLogfProc proc = g_log.load(std::memory_order_acquire);
  return proc ? proc(level, format, args) : 0;
}

void HookDebugLogGet(DebugLogSettingProc proc) { g_logGet.store(proc, std::memory_order_release); }
void HookDebugLogSet(DebugLogSettingProc proc) { g_logSet.store(proc, std::memory_order_release); }
void HookDebugLogTest(DebugLogSettingProc proc) {
  g_logTest.store(proc, std::memory_order_release);
}

int DebugLogGet(std::intptr_t value) {
  DebugLogSettingProc proc = g_logGet.load(std::memory_order_acquire);
  return proc ? proc(value) : 0;
}

void DebugLogSet(std::intptr_t value) {
  if (DebugLogSettingProc proc = g_logSet.load(std::memory_order_acquire)) proc(value);
}

int DebugLogTest(std::intptr_t value) {
  DebugLogSettingProc proc = g_logTest.load(std::memory_order_acquire);
  return proc ? proc(value) : 0;
}

void FormatLogLine(TString* out, const char* format, const Args* args) {
  // Log formats are narrow text; each byte stands for one code unit.
  quarnel_internal::FormatNarrow(out, format, args);
}

void Debug(const char* file, int line) { Assertion(file, line, nullptr); }

void Debug(const char* file, int line, const TString* text) {
  static const TString empty;
  Assertion(file, line, text ? text : &empty);
}

AssertionObserverProc SetAssertionObserver(AssertionObserverProc proc) {
  return g_observer.exchange(proc, std::memory_order_acq_rel);
}
