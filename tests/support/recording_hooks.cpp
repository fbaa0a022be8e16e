#include "tests/support/recording_hooks.h"

#include <mutex>
#include <ostream>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/debugout.h"
#include "quarnel/platform/utf8.h"
#include "quarnel/text/tstring.h"

namespace {

std::mutex g_lock;
std::vector<LogLine> g_lines;
std::vector<AssertionSeen> g_assertions;
std::string g_debugger;

int RecordChar(unsigned level, const char* format, const Args* args) {
  TString text;
  FormatLogLine(&text, format, args);
  std::lock_guard<std::mutex> hold(g_lock);
  g_lines.push_back({level, format ? format : "", Utf8(text)});
  return 0;
}

int RecordWide(unsigned level, const TString* format, const Args* args) {
  TString text;
  text.SPrintf(format, args);
  std::lock_guard<std::mutex> hold(g_lock);
  g_lines.push_back({level, format ? Utf8(*format) : "", Utf8(text)});
  return 0;
}

void RecordAssertion(const char* module, int line, const char* message) {
  std::lock_guard<std::mutex> hold(g_lock);
  g_assertions.push_back({module, line, message});
}

void RecordDebugger(const char* text) {
  std::lock_guard<std::mutex> hold(g_lock);
  g_debugger += text;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const LogLine& l) {
  return os << "{" << l.level << ", \"" << l.text << "\"}";
}

std::ostream& operator<<(std::ostream& os, const AssertionSeen& a) {
  return os << "{" << a.module << "-" << a.line << "}";
}

std::string Utf8(const std::u16string& s) { return Utf16ToUtf8(s); }

std::string Utf8(const char16_t* s) { return Utf8(std::u16string(s ? s : u"")); }

std::string Utf8(const TString& s) { return s.ToUtf8(); }

std::u16string Utf16(const std::string& utf8) { return Utf8ToUtf16(utf8); }

void RecordingTest::SetUp() {
  ClearRecords();
  HookDebugLogfChar(RecordChar);
  HookDebugLogf(RecordWide);
  SetAssertionObserver(RecordAssertion);
  USetDebugOutputSink(RecordDebugger);
}

void RecordingTest::TearDown() {
  HookDebugLogfChar(nullptr);
  HookDebugLogf(nullptr);
  SetAssertionObserver(nullptr);
  USetDebugOutputSink(nullptr);
}

const std::vector<LogLine>& RecordingTest::Lines() const { return g_lines; }
const std::vector<AssertionSeen>& RecordingTest::Assertions() const { return g_assertions; }
const std::string& RecordingTest::DebuggerOutput() const { return g_debugger; }

void RecordingTest::ClearRecords() {
  std::lock_guard<std::mutex> hold(g_lock);
  g_lines.clear();
  g_assertions.clear();
  g_debugger.clear();
}
