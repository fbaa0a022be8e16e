// The text of a private-profile file: bracketed sections and key=value
// lines, read and edited in memory. The profile calls (profile.h) read a
// file's bytes, ask these functions, and write the edited bytes back.
//
// Encodings, told by the first bytes: FF FE is UTF-16 little-endian, FE FF
// UTF-16 big-endian, EF BB BF UTF-8; anything else is 8-bit text in the
// code page given (the system ANSI code page). The mark stays; edits are
// written in the file's own encoding.
//
// Lines end at CR, LF or CR LF. A line's text ends at its first NUL. Blanks
// (space, tab, vertical tab, form feed) around names and values do not
// count. A line whose first non-blank character is "[" and which holds a
// later "]" starts a section named by the text between the "[" and the
// last "]"; a "[" line without a closing bracket is ordinary text. Every
// other non-blank line is text of the current section: a key and a value
// split at the first "=", or a key alone when it holds no "=" (such a line
// is listed by the section form but has no value). Lines before the first
// section belong to none. A line whose key starts with ";" is a comment: it
// still answers a lookup of that exact key, but no list shows it.
//
// Names compare ignoring case (FoldUnit). Only the first section of a name
// counts, and in it the first line of a key; a section with an empty name
// is never found or listed.
#ifndef QUARNEL_PLATFORM_INTERNAL_PROFILETEXT_H_
#define QUARNEL_PLATFORM_INTERNAL_PROFILETEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace quarnel_internal {

enum class ProfileEncoding { kAnsi, kUtf8, kUtf16Le, kUtf16Be };

// One line as the reader sees it.
struct ProfileLine {
  enum Kind { kBlank, kSection, kText };
  Kind kind = kBlank;
  std::size_t start = 0;       // byte offset of the line
  std::size_t contentEnd = 0;  // byte offset of its line end (or of the file's end)
  std::size_t end = 0;         // byte offset after its line end
  std::u16string_view name;    // section name, or key (trimmed)
  std::u16string_view value;   // value (trimmed), when hasValue
  bool hasValue = false;       // a text line with "="
};

// Walks the lines of a file's bytes in order.
class ProfileReader {
 public:
  ProfileReader(std::string_view bytes, unsigned codePage);

  ProfileEncoding Encoding() const { return encoding_; }
  std::size_t BodyStart() const { return bodyStart_; }
  // The next line; false after the last. The views in `line` stay valid
  // until the next call. Without `text`, a line that is no section header
  // is not decoded: its kind is kText (or kBlank when it holds only
  // blanks), without name or value.
  bool Next(ProfileLine* line, bool text = true);
  // The line end the file uses first, encoded ("\r\n" when there is none).
  std::string LineEnd() const;
  // `text` in the file's encoding.
  std::string Encode(std::u16string_view text) const;

 private:
  std::size_t unitAt(std::size_t pos) const;
  void decode(std::size_t from, std::size_t to);

  std::string_view bytes_;
  unsigned codePage_;
  ProfileEncoding encoding_ = ProfileEncoding::kAnsi;
  std::size_t bodyStart_ = 0;
  std::size_t pos_ = 0;
  std::size_t unit_ = 1;  // bytes per unit
  std::u16string text_;
};

// GetPrivateProfileString over a file's bytes: the value of `key` in
// `section` (outer quotes of a quoted value removed), else `dflt` (trailing
// blanks removed; null is ""); a null `section` lists the section names and
// a null `key` the keys of the section (the default when it is missing).
// Writes at most `size` units; returns the units written before the
// terminator (size - 2 for a list that did not fit).
unsigned ProfileGetString(std::string_view bytes, unsigned codePage, const char16_t* section,
                          const char16_t* key, const char16_t* dflt, char16_t* buffer,
                          unsigned size);
// GetPrivateProfileSection: the section's lines as "key=value" (a key alone
// for a line without "="), each terminated, and a final terminator.
unsigned ProfileGetSection(std::string_view bytes, unsigned codePage, const char16_t* section,
                           char16_t* buffer, unsigned size);
// GetPrivateProfileInt: decimal, or hexadecimal after "0x", with an optional
// sign, up to the first other character, in 32 bits; `dflt` when the key is
// missing or its value empty.
unsigned ProfileGetInt(std::string_view bytes, unsigned codePage, const char16_t* section,
                       const char16_t* key, int dflt);

// The change a WritePrivateProfileString makes: bytes [from, to) of the
// file become `bytes`. A null `value` deletes the key's line, a null `key`
// the whole section (header to the next header). A changed value replaces
// its line's text (the key keeps its spelling, its line end stays); a new
// key goes after the last non-blank line of the section; a new section,
// with its key, at the end of the file. New lines take the file's line end.
// Nothing else of the file changes.
struct ProfileEdit {
  bool changed = false;
  std::size_t from = 0;
  std::size_t to = 0;
  std::string bytes;
};
ProfileEdit ProfileWrite(std::string_view bytes, unsigned codePage, const char16_t* section,
                         const char16_t* key, const char16_t* value);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_PROFILETEXT_H_
