// TString: the library's one string class.
//
// A TString holds UTF-16 code units (char16_t), always terminated by a 0 unit
// at index Length(). Up to 261 units live inside the object; a longer text
// moves to a heap block from MemAlloc, rounded to 32-byte steps, and stays
// there. The longest string is 16383 units; a longer request asserts and is
// cut. Positions and lengths are 16-bit unit counts; a length of -1 means "up
// to the terminator".
//
// Misuse (changing a locked string, a position out of range, a null
// destination) raises Debug("tstring", line) and the operation goes on as
// documented at each member. A TString has no lock of its own: one object is
// used by one thread at a time.
//
// 8-bit operations take a code-page selector: 0 = the system ANSI code page
// (GetACP), 2 = Mac Roman (the platform's page 2 or 10000 when it converts
// "xyzzy" both ways unchanged, else the library's own table, -1). Any other
// selector asserts and is taken as 0.
#ifndef QUARNEL_TEXT_TSTRING_H_
#define QUARNEL_TEXT_TSTRING_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "quarnel/foundation/export.h"
#include "quarnel/text/args.h"
#include "quarnel/text/sprintf.h"

class QUARNEL_API TString {
 public:
  static constexpr short kMaxLength = 16383;  // longest string, in code units
  static constexpr int kInlineUnits = 262;    // inline area, terminator included
  static constexpr int kMaxBufferBytes = 32768;

  TString();
  TString(const TString& other);
  // Takes the text of `other` (its heap block, when it has one) with its
  // style, extra value and byte order; `other` is left empty. A source with
  // a buffer out (GetBuffer, GetBufferAnsi, ReadBufferAnsi) is copied
  // instead, and keeps its text and buffers.
  TString(TString&& other) noexcept;
  TString(const char16_t* text, short len = -1);
  explicit TString(char16_t ch);
  // Loads the entry `key` of string list `listId` (LoadKString).
  TString(unsigned short listId, unsigned key);
  ~TString();

  TString& operator=(const TString& other);
  // As the move constructor, for the text only (style, extra value and byte
  // order stay, as with copy assignment). Either string with a buffer out:
  // a copy (Assign), with its assertion when this one is locked.
  TString& operator=(TString&& other) noexcept;
  TString& operator=(const char16_t* text);
  TString& operator=(char16_t ch);

  void Assign(const char16_t* text, short len = -1);
  // Replaces the content by the 8-bit text converted from `codePage`; returns
  // the number of bytes consumed.
  short AssignAnsi(const char* text, short len = -1, int codePage = 0);
  void Append(const char16_t* text, short len = -1);
  void Append(const TString& other);
  void Append(char16_t ch);
  TString& operator+=(const TString& other);
  TString& operator+=(const char16_t* text);
  TString& operator+=(char16_t ch);
  void AppendAnsi(const char* text, short len = -1, int codePage = 0);
  void Clear();

  // ---- Standard strings and UTF-8 ----
  // The units of `text`, as Assign(text, length): more than kMaxLength
  // units assert (tstring 1899) and are cut.
  explicit TString(std::u16string_view text);
  void Assign(std::u16string_view text);
  // The text as a view (valid until the string next changes) or a copy.
  std::u16string_view View() const { return {text_, static_cast<std::size_t>(length_)}; }
  std::u16string ToU16String() const { return std::u16string(View()); }
  // Replaces the content by UTF-8 text (Utf8ToUtf16: bad input becomes
  // U+FFFD, surrogate pairs for characters above U+FFFF) and returns how
  // many U+FFFD replaced bad input. The length rule of Assign applies.
  int AssignUtf8(std::string_view utf8);
  static TString FromUtf8(std::string_view utf8, int* replaced = nullptr);
  // The text as UTF-8 (Utf16ToUtf8: a lone surrogate becomes U+FFFD,
  // counted in *replaced when given).
  std::string ToUtf8(int* replaced = nullptr) const;

  short Length() const { return length_; }
  int IsEmpty() const { return length_ == 0; }
  // The terminated text; valid until the string next changes.
  const char16_t* Text() const { return text_; }

  char16_t GetAt(short pos) const;
  char16_t operator[](short pos) const { return GetAt(pos); }
  void SetAt(short pos, char16_t ch);
  void Fill(char16_t ch, short count);
  short GetHeadPosition() const;
  short GetTailPosition() const;
  char16_t GetCharacter(short* pos, int step) const;

  TString Left(short n) const;
  TString Right(short n) const;
  TString Mid(short start, short n) const;
  TString LeftAnsi(int bytes, int codePage = 0) const;

  // Locale collation (UCompareString): -1, 0 or 1.
  int Compare(const TString& other, int caseSensitive = 1) const;
  int Compare(const char16_t* text, short len, int caseSensitive = 1) const;
  int Identical(const TString& other) const;
  int Identical(const char16_t* text, short len = -1) const;
  int FirstDiscrepancy(const TString& other) const;
  int FirstDiscrepancy(const char16_t* text, short len = -1) const;
  int Hash() const;

  short FindChar(char16_t ch, short from = 0, short step = 1) const;
  short FindSubstring(const TString* needle, short from = 0, int caseSensitive = 1) const;
  short FindSubstring(const char16_t* needle, short len, short from, int caseSensitive) const;
  short FindSet(const TString* set) const;
  short FindSet(const char16_t* set, short len) const;
  short ReplaceSet(char16_t with, const TString* set);
  short ReplaceSet(char16_t with, const char16_t* set, short len);
  short ReplaceSubstring(const TString* from, const TString* to, int caseSensitive = 1,
                         short start = 0, short max = -1);
  short ReplaceSubstring(const char16_t* from, short fromLen, const char16_t* to, short toLen,
                         int caseSensitive = 1, short start = 0, short max = -1);
  short StripEnds(char16_t ch, int which = 0);
  short StripEnds(const TString* set, int which = 0);
  int StripHotkey();
  void MakeUpper();
  void MakeLower();
  // Newline kinds: 0 = CR, 1 = LF, 2 = CR LF.
  void ConvertNewlines(int from, int to);
  short GetNthToken(TString* out, char16_t delim, short n, short dir = 1) const;
  int MatchPattern(const TString* pattern, int caseSensitive) const;
  void FormatOrdinal(int n);
  int LoadKString(unsigned short listId, unsigned key);

  // Direct access; TStringBuffer and TStringAnsiText below hold a buffer for
  // a scope.
  char16_t* GetBuffer(short len);
  void ReleaseBuffer(short len = -1);
  char* GetBufferAnsi(short bytes, int codePage = 0);
  void ReleaseBufferAnsi();
  const char* ReadBufferAnsi(int codePage = 0);
  void CloseBufferAnsi();
  short FillBufferAnsi(char* dst, short size, int codePage = 0) const;

  unsigned StorBufferSize() const;
  void StorBuffer(unsigned char* dst, unsigned size) const;
  unsigned StoreSize() const;
  int Export(void* dst, int size, int swap = 0) const;
  int Import(const void* src, int size, int swap = 0);
  int OldImport(const void* src, int swap);
  void Marshall();

  unsigned short Style() const { return style_; }
  void SetStyle(unsigned short style) { style_ = style; }
  unsigned Extra() const { return extra_; }
  void SetExtra(unsigned extra) { extra_ = extra; }
  unsigned char ByteOrder() const { return byteOrder_; }
  int CodePage() const { return codePage_; }

  // ---- Formatting (sprintf.cpp); the engine's contract is in sprintf.h ----
  void SPrintf(const TString* format, const Args* args);
  void SPrintf(const TString* format, Args* args) {
    SPrintf(format, static_cast<const Args*>(args));
  }
  void SPrintf(const char16_t* format, const Args* args);
  void SPrintf(const char16_t* format, Args* args) {
    SPrintf(format, static_cast<const Args*>(args));
  }
  void SPrintf(unsigned short listId, int key, const Args* args);
  void SPrintf(unsigned short listId, int key, Args* args) {
    SPrintf(listId, key, static_cast<const Args*>(args));
  }
  template <class... A>
  void SPrintf(const TString* format, const A&... values) {
    quarnel_args::WithArgs([&](const Args* args) { SPrintf(format, args); }, values...);
  }
  template <class... A>
  void SPrintf(const char16_t* format, const A&... values) {
    quarnel_args::WithArgs([&](const Args* args) { SPrintf(format, args); }, values...);
  }
  template <class... A>
  void SPrintf(unsigned short listId, int key, const A&... values) {
    quarnel_args::WithArgs([&](const Args* args) { SPrintf(listId, key, args); }, values...);
  }
  int ParseTemplate(const TString* tmpl, unsigned short argCount, const Args* args);
  int ParseTemplate(unsigned short listId, int key, const Args* args);
  template <class... A>
  int ParseTemplate(const TString* tmpl, unsigned short argCount, const A&... values) {
    return quarnel_args::WithArgs(
        [&](const Args* args) { return ParseTemplate(tmpl, argCount, args); }, values...);
  }
  template <class... A>
  int ParseTemplate(unsigned short listId, int key, const A&... values) {
    return quarnel_args::WithArgs(
        [&](const Args* args) { return ParseTemplate(listId, key, args); }, values...);
  }
  int SScanf(const TString* format, const ScanArgs* outs) const;
  int SScanf(const char16_t* format, const ScanArgs* outs) const;
  int SScanf(unsigned short listId, int key, const ScanArgs* outs) const;
  int SScanf(const TString* format, ScanArgs* outs) const {
    return SScanf(format, static_cast<const ScanArgs*>(outs));
  }
  int SScanf(const char16_t* format, ScanArgs* outs) const {
    return SScanf(format, static_cast<const ScanArgs*>(outs));
  }
  template <class... P>
  int SScanf(const TString* format, P*... outs) const {
    return quarnel_args::WithScanArgs([&](const ScanArgs* l) { return SScanf(format, l); },
                                      outs...);
  }
  template <class... P>
  int SScanf(const char16_t* format, P*... outs) const {
    return quarnel_args::WithScanArgs([&](const ScanArgs* l) { return SScanf(format, l); },
                                      outs...);
  }
  template <class... P>
  int SScanf(unsigned short listId, int key, P*... outs) const {
    return quarnel_args::WithScanArgs([&](const ScanArgs* l) { return SScanf(listId, key, l); },
                                      outs...);
  }

 protected:
  void init();
  void setBufferSize(int bytes);
  void setByteOrder(unsigned char order) { byteOrder_ = order; }
  void concatAssign(const char16_t* a, short lenA, const char16_t* b, short lenB);
  short findSubstringFrom(const char16_t* p, short len, short from, int caseSensitive) const;

 private:
  friend class TStringAnsiText;

  // Assertion lines of the module "tstring".
  enum AssertLine : int {
    kLineLocked = 120,        // the text changed while a buffer is out
    kLineRange = 130,         // a position, count, step or newline kind out of range
    kLineNull = 140,          // a null argument where one is needed
    kLineLockedAtDtor = 150,  // destroyed with a buffer still out
    kLineAnsiOut = 160,       // a second 8-bit copy while one is out
    kLineNotOut = 170,        // a release or close without its buffer
    kLineBadCodePage = 232,   // a code-page selector other than 0 or 2
    kLineOddSize = 1895,      // setBufferSize with an odd byte count
    kLineTooLong = 1899,      // setBufferSize above 32768 bytes
  };

  bool onHeap() const { return text_ != inline_; }
  // Units the current storage holds, terminator included.
  int capacityUnits() const;
  void checkUnlocked(int line) const;
  // 8-bit helpers over a resolved code page (the system page, 2, 10000 or
  // -1 for the library's own Mac Roman table).
  void assignAnsiResolved(int codePage, const char* text, int len);
  short fillAnsiResolved(int codePage, char* dst, int size) const;
  int ansiPrefixUnits(int codePage, int bytes) const;
  void swapUnits();
  short stripEndsOf(const char16_t* set, short len, int which);

  short length_;
  unsigned short style_;
  unsigned extra_;
  unsigned char byteOrder_;
  unsigned char bufferLocks_;
  unsigned char ansiLocks_;
  unsigned char ansiReadLocks_;
  int codePage_;
  char* ansi_;
  char16_t* text_;
  char16_t inline_[kInlineUnits];
};

// GetBuffer(len) for the life of a scope. Data() is the writable text (room
// for len units and a terminator); the destructor calls ReleaseBuffer with
// the length given to SetLength, else 0 (the text runs to the first 0
// unit). Not copyable; one object per buffer.
class TStringBuffer {
 public:
  TStringBuffer(TString& text, short len) : text_(text), data_(text.GetBuffer(len)) {}
  ~TStringBuffer() { text_.ReleaseBuffer(length_); }
  TStringBuffer(const TStringBuffer&) = delete;
  TStringBuffer& operator=(const TStringBuffer&) = delete;

  char16_t* Data() const { return data_; }
  void SetLength(short len) { length_ = len; }

 private:
  TString& text_;
  char16_t* data_;
  short length_ = 0;
};

// ReadBufferAnsi(codePage) for the life of a scope: Text() is the 8-bit copy
// of the string, terminated; the destructor calls CloseBufferAnsi. When a
// copy is out already, ReadBufferAnsi asserts (tstring 160) and hands out
// that copy; this object then leaves it to whoever opened it.
class TStringAnsiText {
 public:
  explicit TStringAnsiText(TString& text, int codePage = 0)
      : text_(text), owner_(text.ansi_ == nullptr), ansi_(text.ReadBufferAnsi(codePage)) {}
  ~TStringAnsiText() {
    if (owner_) text_.CloseBufferAnsi();
  }
  TStringAnsiText(const TStringAnsiText&) = delete;
  TStringAnsiText& operator=(const TStringAnsiText&) = delete;

  const char* Text() const { return ansi_; }
  std::string_view View() const { return ansi_ != nullptr ? ansi_ : ""; }

 private:
  TString& text_;
  bool owner_;
  const char* ansi_;
};

QUARNEL_API TString operator+(const TString& a, const TString& b);
QUARNEL_API TString operator+(const TString& a, const char16_t* b);
QUARNEL_API TString operator+(const char16_t* a, const TString& b);

QUARNEL_API int operator==(const TString& a, const TString& b);
QUARNEL_API int operator==(const TString& a, const char16_t* b);
QUARNEL_API int operator==(const char16_t* a, const TString& b);
QUARNEL_API int operator!=(const TString& a, const TString& b);
QUARNEL_API int operator!=(const TString& a, const char16_t* b);
QUARNEL_API int operator!=(const char16_t* a, const TString& b);
QUARNEL_API int operator<(const TString& a, const TString& b);
QUARNEL_API int operator<(const TString& a, const char16_t* b);
QUARNEL_API int operator<(const char16_t* a, const TString& b);
QUARNEL_API int operator<=(const TString& a, const TString& b);
QUARNEL_API int operator<=(const TString& a, const char16_t* b);
QUARNEL_API int operator<=(const char16_t* a, const TString& b);
QUARNEL_API int operator>(const TString& a, const TString& b);
QUARNEL_API int operator>(const TString& a, const char16_t* b);
QUARNEL_API int operator>(const char16_t* a, const TString& b);
QUARNEL_API int operator>=(const TString& a, const TString& b);
QUARNEL_API int operator>=(const TString& a, const char16_t* b);
QUARNEL_API int operator>=(const char16_t* a, const TString& b);

// ASCII-only folding of one unit.
QUARNEL_API char16_t ToUpper(char16_t ch);
QUARNEL_API char16_t ToLower(char16_t ch);
// Units up to the terminator (0 for null), capped at 32767.
QUARNEL_API short WideCharCount(const char16_t* text);
// Bytes up to the terminator (0 for null), capped at 32767.
QUARNEL_API short AnsiByteCount(const char* text);

// Collation of the default locale with string sort, case-insensitive unless
// caseSensitive: -1, 0 or 1. A length of -1 counts to the terminator.
QUARNEL_API int UCompareString(const char16_t* a, int lenA, const char16_t* b, int lenB,
                               int caseSensitive);

namespace quarnel_internal {

// The code page an 8-bit operation uses for `selector` (0 = the system ANSI
// page, 2 = the Mac choice); any other selector asserts (tstring 232) and is
// taken as 0. The Mac choice is 2, 10000 or -1 (the library's own table).
int TStringResolveCodePage(int selector);

// 8-bit to UTF-16 and back over a resolved code page, with Win32 meaning: a
// destination length of 0 asks for the size; returns the units or bytes
// written, 0 on failure. `srcLen` is a count (no -1).
int TStringToWide(int codePage, const char* src, int srcLen, char16_t* dst, int dstLen);
int TStringToAnsi(int codePage, const char16_t* src, int srcLen, char* dst, int dstLen);

// Test seam: sets the process-wide cached choices as if they had been
// computed (the system ANSI page; the Mac choice 2, 10000 or -1). Reset makes
// the next 8-bit operation compute both again.
void TStringSetCodePages(int acp, int mac);
void TStringResetCodePages();

}  // namespace quarnel_internal

#endif  // QUARNEL_TEXT_TSTRING_H_
