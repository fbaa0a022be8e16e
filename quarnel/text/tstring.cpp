#include "quarnel/text/tstring.h"

#include <cstring>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"

namespace {

// Assertion lines of this module.
enum : int {
  kLineLocked = 120,       // the text changed while a buffer is out
  kLineRange = 130,        // a position or count out of range
  kLineNull = 140,         // a null destination
  kLineUnlockedDtor = 150, // destroyed with a buffer still out
  kLineOddSize = 1895,     // setBufferSize with an odd byte count
  kLineTooLong = 1899,     // setBufferSize above 32768 bytes
};

constexpr int kInlineBytes = TString::kInlineUnits * 2;

}  // namespace

// ---- storage -------------------------------------------------------------

void TString::init() {
  length_ = 0;
  style_ = 0;
  extra_ = 0;
  byteOrder_ = 0;
  bufferLocks_ = 0;
  ansiLocks_ = 0;
  ansiReadLocks_ = 0;
  codePage_ = 0;
  ansi_ = nullptr;
  text_ = inline_;
  inline_[0] = 0;
}

void TString::checkUnlocked(int line) const {
  (void)line;
  if (bufferLocks_ | ansiLocks_ | ansiReadLocks_) Debug("tstring", kLineLocked);
}

// Makes room for `bytes` bytes of text (2 x length) and its terminator. The
// terminator is written by the caller, which knows the new length.
void TString::setBufferSize(int bytes) {
  if (bytes & 1) {
    Debug("tstring", kLineOddSize);
    bytes &= ~1;
  }
  if (bytes < 0) bytes = 0;
  int need = bytes + 2;
  if (need > kMaxBufferBytes) {
    Debug("tstring", kLineTooLong);
  }
  if (need > kInlineBytes) {
    // Always adds 1 to 32 bytes, even to a need that is a multiple of 32.
    need = (need / 32 + 1) * 32;
    if (need > kMaxBufferBytes) need = kMaxBufferBytes;
    if (onHeap()) {
      if (MemSize(text_) != static_cast<unsigned>(need)) {
        text_ = static_cast<char16_t*>(MemRealloc(text_, static_cast<unsigned>(need)));
      }
    } else {
      auto* block = static_cast<char16_t*>(MemAlloc(static_cast<unsigned>(need)));
      const int keep = length_ * 2 + 2 < need ? length_ * 2 + 2 : need;
      std::memcpy(block, inline_, static_cast<std::size_t>(keep));
      text_ = block;
    }
  }
}

TString::TString() { init(); }

TString::TString(const TString& other) {
  init();
  style_ = other.style_;
  extra_ = other.extra_;
  byteOrder_ = other.byteOrder_;
  Assign(other.text_, other.length_);
}

TString::TString(const char16_t* text, short len) {
  init();
  Assign(text, len);
}

TString::TString(char16_t ch) {
  init();
  Assign(&ch, 1);
}

TString::TString(unsigned short listId, unsigned key) {
  init();
  LoadKString(listId, key);
}

TString::~TString() {
  if (bufferLocks_ | ansiLocks_ | ansiReadLocks_) Debug("tstring", kLineUnlockedDtor);
  if (ansi_ != nullptr) MemFree(ansi_);
  if (onHeap()) MemFree(text_);
}

TString& TString::operator=(const TString& other) {
  if (this != &other) Assign(other.text_, other.length_);
  return *this;
}

TString& TString::operator=(const char16_t* text) {
  Assign(text, -1);
  return *this;
}

TString& TString::operator=(char16_t ch) {
  Assign(&ch, 1);
  return *this;
}

void TString::Assign(const char16_t* text, short len) {
  checkUnlocked(kLineLocked);
  if (text == nullptr) {
    len = 0;
  } else if (len < 0) {
    len = WideCharCount(text);
  }
  // The source may lie inside this string (s.Assign(s.Text() + 3)).
  if (text >= text_ && text < text_ + length_ + 1) {
    std::memmove(text_, text, static_cast<std::size_t>(len) * 2);
    length_ = len;
    text_[len] = 0;
    return;
  }
  setBufferSize(len * 2);
  if (len > kMaxLength) len = kMaxLength;
  if (len > 0) std::memcpy(text_, text, static_cast<std::size_t>(len) * 2);
  length_ = len;
  text_[len] = 0;
}

void TString::Append(const char16_t* text, short len) {
  if (text == nullptr) return;
  if (len < 0) len = WideCharCount(text);
  concatAssign(text_, length_, text, len);
}

void TString::Append(const TString& other) { concatAssign(text_, length_, other.text_, other.length_); }

void TString::Append(char16_t ch) { concatAssign(text_, length_, &ch, 1); }

TString& TString::operator+=(const TString& other) {
  Append(other);
  return *this;
}

TString& TString::operator+=(const char16_t* text) {
  Append(text, -1);
  return *this;
}

TString& TString::operator+=(char16_t ch) {
  Append(ch);
  return *this;
}

void TString::Clear() {
  checkUnlocked(kLineLocked);
  length_ = 0;
  text_[0] = 0;
}

// This string becomes a followed by b. Either may be this string's own text.
void TString::concatAssign(const char16_t* a, short lenA, const char16_t* b, short lenB) {
  checkUnlocked(kLineLocked);
  if (lenA < 0) lenA = 0;
  if (lenB < 0) lenB = 0;
  int total = lenA + lenB;
  if (total > kMaxLength) {
    // setBufferSize asserts and clamps; the text is cut to what fits.
    setBufferSize(total * 2);
    total = kMaxLength;
  }
  const bool aIsMine = a == text_;
  const bool bOverlaps = b >= text_ && b < text_ + length_ + 1;
  if (aIsMine && !bOverlaps) {
    setBufferSize(total * 2);
    const int keepB = total - lenA;
    if (keepB > 0) std::memcpy(text_ + lenA, b, static_cast<std::size_t>(keepB) * 2);
  } else {
    // Build the result apart, then take it over: either part may move.
    char16_t stack[kInlineUnits];
    char16_t* tmp = total < kInlineUnits ? stack : static_cast<char16_t*>(MemAlloc(static_cast<unsigned>(total) * 2 + 2));
    const int keepA = lenA < total ? lenA : total;
    if (keepA > 0) std::memcpy(tmp, a, static_cast<std::size_t>(keepA) * 2);
    if (total - keepA > 0) std::memcpy(tmp + keepA, b, static_cast<std::size_t>(total - keepA) * 2);
    setBufferSize(total * 2);
    std::memcpy(text_, tmp, static_cast<std::size_t>(total) * 2);
    if (tmp != stack) MemFree(tmp);
  }
  length_ = static_cast<short>(total);
  text_[total] = 0;
}

char16_t TString::GetAt(short pos) const {
  if (pos < 0 || pos > length_) {
    Debug("tstring", kLineRange);
    return 0;
  }
  return text_[pos];
}

// ---- free functions --------------------------------------------------------

TString operator+(const TString& a, const TString& b) {
  TString r;
  r.Append(a);
  r.Append(b);
  return r;
}

TString operator+(const TString& a, const char16_t* b) {
  TString r(a);
  r.Append(b, -1);
  return r;
}

TString operator+(const char16_t* a, const TString& b) {
  TString r(a, -1);
  r.Append(b);
  return r;
}

short WideCharCount(const char16_t* text) {
  if (text == nullptr) return 0;
  int n = 0;
  while (n < 32767 && text[n] != 0) ++n;
  return static_cast<short>(n);
}

short AnsiByteCount(const char* text) {
  if (text == nullptr) return 0;
  int n = 0;
  while (n < 32767 && text[n] != 0) ++n;
  return static_cast<short>(n);
}

char16_t ToUpper(char16_t ch) { return (ch >= u'a' && ch <= u'z') ? static_cast<char16_t>(ch - 32) : ch; }
char16_t ToLower(char16_t ch) { return (ch >= u'A' && ch <= u'Z') ? static_cast<char16_t>(ch + 32) : ch; }
