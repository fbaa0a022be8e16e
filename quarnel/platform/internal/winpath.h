// Windows paths as text: parsing into a root and components, the long-path
// form, case folding of names, wildcard matching and 8.3 alternate names.
// Pure functions: nothing here touches the disk.
#ifndef QUARNEL_PLATFORM_INTERNAL_WINPATH_H_
#define QUARNEL_PLATFORM_INTERNAL_WINPATH_H_

#include <string>
#include <vector>

namespace quarnel_internal {

// A parsed absolute path: a drive (C:), a network share (\\server\share) or
// a device (\\.\C:), and the components below its root. "." and ".." are
// gone ("..": one component up, never above the root), trailing dots and
// blanks of each component are dropped, as Windows does.
struct WinPath {
  enum Kind { kDrive, kUnc, kDevice };
  Kind kind = kDrive;
  char16_t drive = 0;  // 'A'..'Z' for kDrive and kDevice
  std::u16string server;
  std::u16string share;
  std::vector<std::u16string> parts;
  bool trailingSeparator = false;  // the text ended in a backslash
};

// The long form of a path that a file call receives: "\\..." becomes
// "\\?\UNC" + the path less its first character, "X:..." becomes "\\?\" +
// the path; a path already in the \\?\ or \\.\ namespace and any other path
// stay as they are.
std::u16string LongPathForm(const std::u16string& path);

// Parses `path` into `out`. A relative path ("name", "\name", "X:name") is
// taken against `current`, a full path (may be empty when the path is
// absolute). "/" separates like "\" except after a \\?\ prefix, which is
// accepted and stripped ("\\?\UNC\srv\share" is "\\srv\share"). With
// `wildLast` the last component may hold the wildcards * ? < > ".
// Returns 0 or the Windows error: 87 null path, 3 empty path or bad
// relative base, 161 malformed root (\\, \\server alone), 123 a component
// with a character Windows forbids (< > " | ? * and 1..31), 206 a component
// longer than 255 units.
unsigned ParseWinPath(const char16_t* path, const std::u16string& current, bool wildLast,
                      WinPath* out);

// "C:\a\b", "\\srv\share\a", "\\.\C:"; the root alone is "C:\" or
// "\\srv\share\". `trailing` adds a backslash after a last component.
std::u16string FormatWinPath(const WinPath& p, bool trailing = false);

// Upper case of one unit for name comparison, the way Windows' file systems
// compare names: ASCII, Latin-1, Latin Extended-A, Greek, Cyrillic and the
// full-width forms; other units are their own upper case.
char16_t FoldUnit(char16_t c);
std::u16string FoldName(const std::u16string& name);
bool SameNameFolded(const std::u16string& a, const std::u16string& b);

// True when `pattern` (the last component of a find) holds a wildcard.
bool HasWildcard(const std::u16string& pattern);

// Windows find matching, case-insensitive: "*" any run, "?" and ">" one unit;
// "*" and "*.*" match every name; a pattern ending in "." matches only names
// without an extension (".", ".." and names without a dot) that match the
// rest; a pattern ending in ".*" also matches the name without the ".*" part.
// "<" and '"' match only themselves (no name holds them).
bool WildcardMatch(const std::u16string& pattern, const std::u16string& name);

// True when `name` is already a valid 8.3 name (1-8 characters, optionally a
// dot and 1-3 more, only characters 8.3 names allow; case is not looked at).
bool IsShortName(const std::u16string& name);

// The 8.3 alternate name Windows makes for `name`, with number `n` (>= 1):
// leading dots and blanks dropped, the extension is the first three usable
// characters after the last dot, the base the usable characters before it
// (dots dropped) upper-cased and cut so that base + "~n" is at most eight
// characters ("Long File.text", 1 -> "LONGFI~1.TEX"). Usable: ASCII letters
// and digits and ! # $ % & ' ( ) - @ ^ _ ` { } ~; + , ; = [ ] and every other
// unit become "_".
std::u16string ShortNameFor(const std::u16string& name, int n);
// The same in two steps: the usable base (uncut) and extension of a name,
// then the name with number n.
struct ShortNameStem {
  std::u16string base;
  std::u16string ext;
};
ShortNameStem ShortStemOf(const std::u16string& name);
std::u16string ShortNameFrom(const ShortNameStem& stem, int n);

// UTF-16 to the host's UTF-8 and back. Bytes that are not valid UTF-8 come
// back as the lone units U+DC80..U+DCFF and go out again as the same bytes,
// so every host name round-trips.
std::string HostFromWide(const std::u16string& wide);
std::u16string WideFromHost(const std::string& host);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_WINPATH_H_
