// Test support shared by the test programs: string lists as resource modules
// carry them, four-letter keys, formatting shortcuts, the recorded data files
// under tests/data/, and scoped changes to the host environment.
#ifndef QUARNEL_TESTS_SUPPORT_HELPERS_H_
#define QUARNEL_TESTS_SUPPORT_HELPERS_H_

#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

using Bytes = std::vector<unsigned char>;

// A divisor for the work of the long model tests: 4 under AddressSanitizer,
// whose builds run several times slower, else 1.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr int kSanitizerScale = 4;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr int kSanitizerScale = 4;
#else
inline constexpr int kSanitizerScale = 1;
#endif
#else
inline constexpr int kSanitizerScale = 1;
#endif

// A four-letter key (list tag, resource type) as the library packs it: the
// first letter in the high byte.
constexpr unsigned Key(const char (&k)[5]) {
  return (static_cast<unsigned>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned>(static_cast<unsigned char>(k[3]));
}

// The bytes of a string list as a resource module carries it: per entry a
// little-endian 16-bit length (tag and text), the four tag bytes, the text and
// a pad byte to an even length; 0xFFFF ends the list unless `terminate` is
// false.
using ListEntries = std::vector<std::pair<std::string, std::string>>;
Bytes StringList(const ListEntries& entries, bool terminate = true);

// Registers a string list as the host's own list `id` for the object's
// lifetime (RMAddHostKList); Set replaces it.
class HostList {
 public:
  HostList(int id, const ListEntries& entries, bool terminate = true);
  ~HostList();
  HostList(const HostList&) = delete;
  HostList& operator=(const HostList&) = delete;
  void Set(const ListEntries& entries, bool terminate = true);

 private:
  int id_;
  Bytes bytes_;
};

// The unit letters and the word for zero that %K reads from list 16000, so
// that sizes in log lines read the same on every machine.
class UnitLetters : public HostList {
 public:
  UnitLetters();
};

// Saves the host environment record and puts it back at the end of the scope.
// The code pages TString reads once are read afresh from the record on both ends:
// the system's own page may differ from the one a test sets.
class ScopedEnv {
 public:
  ScopedEnv() : saved_(*QuarnelEnv()) { quarnel_internal::TStringResetCodePages(); }
  ~ScopedEnv() {
    QuarnelSetEnv(saved_);
    quarnel_internal::TStringResetCodePages();
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  QuarnelEnvType* operator->() const { return QuarnelEnv(); }

 private:
  QuarnelEnvType saved_;
};

// What TString::SPrintf makes of a format and its arguments, as UTF-8.
template <class... A>
std::string Fmt(const char16_t* format, const A&... args) {
  TString out;
  out.SPrintf(format, args...);
  return Utf8(out);
}

// The text of an error code as %E writes it.
std::string ErrorText(int code);
// A number with thousands separators, as %d-style log lines group it.
std::string Grouped(long long v);

// Rows of a tab-separated file under tests/data/, comment (#) and blank lines
// skipped. A trailing tab gives a trailing empty field.
std::vector<std::vector<std::string>> ReadTsv(const std::string& name);
// The bytes of a file (none when it cannot be read). Inline: a program that
// uses nothing else of this file links none of it.
inline Bytes ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
// Bytes written as hex pairs ("0A1B") and back; Hex16 writes UTF-16 units as
// space-separated groups of four digits.
std::string Hex(const std::string& bytes);
std::string Unhex(const std::string& hex);
std::string Hex16(const std::u16string& units);
// Units written as blank-separated groups of hex digits ("0061 30FB"), as Hex16
// writes them.
std::u16string Unhex16(const std::string& hex);

#endif  // QUARNEL_TESTS_SUPPORT_HELPERS_H_
