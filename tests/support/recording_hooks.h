// Test support: a log hook that records every line (level, format and the
// text the library's engine makes of it), and an assertion recorder that sees
// module, line and message of every Debug assertion.
#ifndef QUARNEL_TESTS_SUPPORT_RECORDING_HOOKS_H_
#define QUARNEL_TESTS_SUPPORT_RECORDING_HOOKS_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/platform_cases.h"

class TString;

struct LogLine {
  unsigned level;
  std::string format;
  std::string text;  // UTF-8
  bool operator==(const LogLine& o) const { return level == o.level && text == o.text; }
};

struct AssertionSeen {
  std::string module;
  int line;
  std::string message;
  bool operator==(const AssertionSeen& o) const { return module == o.module && line == o.line; }
};

std::ostream& operator<<(std::ostream& os, const LogLine& l);
std::ostream& operator<<(std::ostream& os, const AssertionSeen& a);

// UTF-16 to UTF-8, for messages and comparisons in tests.
std::string Utf8(const TString& s);
std::string Utf8(const std::u16string& s);
std::string Utf8(const char16_t* s);  // up to the terminator
std::u16string Utf16(const std::string& utf8);

// Installs the recording hooks for the lifetime of the test and quietens the
// debugger output; at tear-down removes them and puts every platform test seam
// back: no armed faults, no reserve limit, the real memory status, heap frees
// at once, the real clock and time zone, a running tick count without offset.
class RecordingTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  const std::vector<LogLine>& Lines() const;
  const std::vector<AssertionSeen>& Assertions() const;
  const std::string& DebuggerOutput() const;
  void ClearRecords();

  // The same records as text, for compact expectations and table rows:
  // Logged() gives one "level text" per line, each ended by a newline;
  // Asserted() gives "module-line" per assertion, separated by blanks.
  std::string Logged() const;
  std::string Asserted() const;
};

#endif  // QUARNEL_TESTS_SUPPORT_RECORDING_HOOKS_H_
