#include "tests/support/recording_hooks.h"

#include <mutex>
#include <ostream>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/platform/debugout.h"
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

std::string Utf8(const std::u16string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    char32_t c = s[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string Utf8(const TString& s) {
  return Utf8(std::u16string(s.Text(), static_cast<std::size_t>(s.Length())));
}

std::u16string Utf16(const std::string& utf8) {
  std::u16string out;
  for (std::size_t i = 0; i < utf8.size();) {
    const unsigned char b = static_cast<unsigned char>(utf8[i]);
    char32_t c;
    int extra;
    if (b < 0x80) {
      c = b;
      extra = 0;
    } else if (b < 0xE0) {
      c = b & 0x1F;
      extra = 1;
    } else if (b < 0xF0) {
      c = b & 0x0F;
      extra = 2;
    } else {
      c = b & 0x07;
      extra = 3;
    }
    ++i;
    for (int k = 0; k < extra && i < utf8.size(); ++k, ++i)
      c = (c << 6) | (static_cast<unsigned char>(utf8[i]) & 0x3F);
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

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
