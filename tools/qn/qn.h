// qn, the command-line tool for the library's stored forms: the pieces its
// commands share. Built on the library's public interface only.
//
// Exit status of every command: 0 done (for verify: the file is sound), 1 the
// file is damaged or something was lost (verify, salvage), 2 a failure (the
// library's code and its message text are printed), 3 a usage error.
#ifndef QUARNEL_TOOLS_QN_QN_H_
#define QUARNEL_TOOLS_QN_QN_H_

#include <cstdint>
#include <string>
#include <vector>

class TFileLoc;
class TFile;
class TMemory;

namespace qn {

enum : int { kExitOk = 0, kExitDamaged = 1, kExitFailed = 2, kExitUsage = 3 };

using Words = std::vector<std::string>;

// The parsed command line of one command: its words and its "--name" options
// (those listed in `valued` take the next word as their value).
struct Command {
  std::vector<std::string> words;
  std::vector<std::pair<std::string, std::string>> options;
  bool Has(const std::string& name) const;
  std::string Value(const std::string& name) const;
};

// "qn: <what>: <message text> (<code>)" on standard error; returns kExitFailed.
// The last line the library logged at level 515 or above (519 excluded)
// since the previous failure, or the line given to Note, is printed under it.
int Fail(const std::string& what, int err);
// "qn: <what>" on standard error; returns `status`.
int Say(const std::string& what, int status);
// The library's message text of `err` (empty when no module holds one).
std::string ErrText(int err);
// Sets the line Fail prints under its message, as if the library had logged it.
void Note(const std::string& line);
// Forgets the log lines collected so far.
void ClearLog();
// The last log line collected at level 515 or above, or "".
std::string LastLogLine();

// The location of a host path (relative to the current folder or absolute).
int LocOf(const std::string& hostPath, TFileLoc* loc);
// Reads a whole file (at most 0x7FFFFFFF bytes) into `out`.
int ReadWhole(const std::string& hostPath, TMemory* out);
int WriteWhole(const std::string& hostPath, const unsigned char* data, std::size_t size);

// A four-character code as text: its four characters when they are printable
// ASCII, else "0x" and eight hex digits.
std::string TypeText(unsigned type);
// Parses "Abcd" (four characters), "0x41626364" or a decimal number; false
// for anything else or for 0.
bool ParseType(const std::string& text, unsigned* type);
bool ParseInt(const std::string& text, long long* value);

// A progress line on standard error while `total` units are worked through;
// shown only when standard error is a terminal.
class Progress {
 public:
  Progress(const char* what, std::uint64_t total);
  ~Progress();
  void Step(std::uint64_t done);
  // Takes the line away (before other output); the next step shows it again.
  void Clear();

 private:
  const char* what_;
  std::uint64_t total_;
  int shown_ = -1;
  bool on_;
};

// The commands; each gets its words after the command name.
int Info(const Words& args);
int Ls(const Words& args);
int Verify(const Words& args);
int Cat(const Words& args);
int Put(const Words& args);
int Rm(const Words& args);
int Compact(const Words& args);
int Salvage(const Words& args);
int Tour(const Words& args);

// Parses `args` into `cmd`: words, flags (`flags`: names without value) and
// valued options. Prints the usage error and returns false for an unknown
// option or a word count outside [minWords, maxWords].
bool Parse(const Words& args, const char* usage, const std::vector<std::string>& flags,
           std::size_t minWords, std::size_t maxWords, Command* cmd, int* status);

}  // namespace qn

#endif  // QUARNEL_TOOLS_QN_QN_H_
