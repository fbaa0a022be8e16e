// TString: storage, editing, searching and comparing. The 8-bit conversions
// and string lists are in tstring_ansi.cpp, the stored record in
// tstring_persist.cpp.
#include "quarnel/text/tstring.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/utf8.h"

namespace {

constexpr int kInlineBytes = TString::kInlineUnits * 2;

inline bool UnitsEqual(char16_t a, char16_t b, int caseSensitive) {
  return caseSensitive ? a == b : ToUpper(a) == ToUpper(b);
}

bool InSet(char16_t ch, const char16_t* set, int len) {
  for (int i = 0; i < len; ++i) {
    if (set[i] == ch) return true;
  }
  return false;
}

// The newline sequences by kind: 0 = CR, 1 = LF, 2 = CR LF.
const char16_t* const kNewlines[3] = {u"\r", u"\n", u"\r\n"};
const short kNewlineLengths[3] = {1, 1, 2};

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

int TString::capacityUnits() const {
  return onHeap() ? static_cast<int>(MemSize(text_) / 2) : kInlineUnits;
}

void TString::checkUnlocked(int line) const {
  if (bufferLocks_ | ansiLocks_ | ansiReadLocks_) Debug("tstring", line);
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
  if (need > kMaxBufferBytes) Debug("tstring", kLineTooLong);
  if (need <= kInlineBytes) return;  // inline, or a heap block that is large enough
  // Always adds 1 to 32 bytes, even to a need that is a multiple of 32.
  need = (need / 32 + 1) * 32;
  if (need > kMaxBufferBytes) need = kMaxBufferBytes;
  if (onHeap()) {
    if (MemSize(text_) != static_cast<unsigned>(need)) {
      text_ = static_cast<char16_t*>(
          quarnel_internal::MemReallocUnfilled(text_, static_cast<unsigned>(need)));
    }
  } else {
    auto* block =
        static_cast<char16_t*>(quarnel_internal::MemAllocUnfilled(static_cast<unsigned>(need)));
    const int keep = length_ * 2 + 2 < need ? length_ * 2 + 2 : need;
    std::memcpy(block, inline_, static_cast<std::size_t>(keep));
    text_ = block;
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

TString::TString(TString&& other) noexcept {
  init();
  style_ = other.style_;
  extra_ = other.extra_;
  byteOrder_ = other.byteOrder_;
  if (other.bufferLocks_ | other.ansiLocks_ | other.ansiReadLocks_ || !other.onHeap()) {
    Assign(other.text_, other.length_);
    return;
  }
  text_ = other.text_;
  length_ = other.length_;
  other.text_ = other.inline_;
  other.length_ = 0;
  other.inline_[0] = 0;
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
  if (bufferLocks_ | ansiLocks_ | ansiReadLocks_) Debug("tstring", kLineLockedAtDtor);
  if (ansi_ != nullptr) MemFree(ansi_);
  if (onHeap()) MemFree(text_);
}

TString& TString::operator=(const TString& other) {
  if (this != &other) Assign(other.text_, other.length_);
  return *this;
}

TString& TString::operator=(TString&& other) noexcept {
  if (this == &other) return *this;
  if (bufferLocks_ | ansiLocks_ | ansiReadLocks_ | other.bufferLocks_ | other.ansiLocks_ |
          other.ansiReadLocks_ ||
      !other.onHeap()) {
    Assign(other.text_, other.length_);
    return *this;
  }
  if (onHeap()) MemFree(text_);
  text_ = other.text_;
  length_ = other.length_;
  other.text_ = other.inline_;
  other.length_ = 0;
  other.inline_[0] = 0;
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
  if (text != nullptr && text >= text_ && text < text_ + length_ + 1) {
    const int avail = static_cast<int>(text_ + length_ - text);
    if (len > avail) len = static_cast<short>(avail);
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

// ---- standard strings and UTF-8 ---------------------------------------------

TString::TString(std::u16string_view text) {
  init();
  Assign(text);
}

void TString::Assign(std::u16string_view text) {
  // One unit over the limit is enough to raise the length assertion.
  const std::size_t len = std::min<std::size_t>(text.size(), kMaxLength + 1);
  Assign(text.data(), static_cast<short>(len));
}

int TString::AssignUtf8(std::string_view utf8) {
  int replaced = 0;
  Assign(std::u16string_view(Utf8ToUtf16(utf8, &replaced)));
  return replaced;
}

TString TString::FromUtf8(std::string_view utf8, int* replaced) {
  TString s;
  const int n = s.AssignUtf8(utf8);
  if (replaced != nullptr) *replaced = n;
  return s;
}

std::string TString::ToUtf8(int* replaced) const { return Utf16ToUtf8(View(), replaced); }

void TString::Append(const char16_t* text, short len) {
  if (text == nullptr) return;
  if (len < 0) len = WideCharCount(text);
  if (!onHeap() && length_ + len < kInlineUnits) {
    // Stays inline. The source may be this string's own text, which ends
    // where the appended part begins.
    checkUnlocked(kLineLocked);
    std::memmove(text_ + length_, text, static_cast<std::size_t>(len) * 2);
    length_ = static_cast<short>(length_ + len);
    text_[length_] = 0;
    return;
  }
  const int total = length_ + len;
  if (total <= kMaxLength && (text < text_ || text >= text_ + capacityUnits())) {
    // A source apart from this string: grow, then copy it once.
    checkUnlocked(kLineLocked);
    setBufferSize(total * 2);
    std::memcpy(text_ + length_, text, static_cast<std::size_t>(len) * 2);
    length_ = static_cast<short>(total);
    text_[total] = 0;
    return;
  }
  concatAssign(text_, length_, text, len);
}

void TString::Append(const TString& other) { Append(other.text_, other.length_); }

void TString::Append(char16_t ch) {
  if (length_ + 2 <= kInlineUnits && !onHeap()) {
    checkUnlocked(kLineLocked);
    // The common short case: no overlap is possible with a single unit.
    text_[length_++] = ch;
    text_[length_] = 0;
    return;
  }
  concatAssign(text_, length_, &ch, 1);
}

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
  if (a == nullptr || lenA < 0) lenA = 0;
  if (b == nullptr || lenB < 0) lenB = 0;
  int total = lenA + lenB;
  if (total > kMaxLength) {
    // The storage limit: the text is cut to what fits. (Asserted here, before
    // any storage moves, because a or b may be this string's own text.)
    Debug("tstring", kLineTooLong);
    total = kMaxLength;
  }
  const auto inMine = [this](const char16_t* p) {
    return p != nullptr && p >= text_ && p < text_ + capacityUnits();
  };
  if (a == text_ && !inMine(b)) {
    setBufferSize(total * 2);
    const int keepB = total - lenA;
    if (keepB > 0) std::memcpy(text_ + lenA, b, static_cast<std::size_t>(keepB) * 2);
  } else if (!inMine(a) && !inMine(b)) {
    setBufferSize(total * 2);
    const int keepA = lenA < total ? lenA : total;
    if (keepA > 0) std::memcpy(text_, a, static_cast<std::size_t>(keepA) * 2);
    if (total - keepA > 0)
      std::memcpy(text_ + keepA, b, static_cast<std::size_t>(total - keepA) * 2);
  } else {
    // Build the result apart, then take it over: either part may move.
    char16_t stack[kInlineUnits];
    char16_t* tmp = total < kInlineUnits
                        ? stack
                        : static_cast<char16_t*>(MemAlloc(static_cast<unsigned>(total) * 2 + 2));
    const int keepA = lenA < total ? lenA : total;
    if (keepA > 0) std::memcpy(tmp, a, static_cast<std::size_t>(keepA) * 2);
    if (total - keepA > 0) std::memcpy(tmp + keepA, b, static_cast<std::size_t>(total - keepA) * 2);
    setBufferSize(total * 2);
    if (total > 0) std::memcpy(text_, tmp, static_cast<std::size_t>(total) * 2);
    if (tmp != stack) MemFree(tmp);
  }
  length_ = static_cast<short>(total);
  text_[total] = 0;
}

// ---- single units ----------------------------------------------------------

char16_t TString::GetAt(short pos) const {
  if (pos < 0 || pos > length_) {
    Debug("tstring", kLineRange);
    return 0;
  }
  return text_[pos];
}

void TString::SetAt(short pos, char16_t ch) {
  checkUnlocked(kLineLocked);
  if (pos < 0 || pos >= length_) {
    Debug("tstring", kLineRange);
    return;
  }
  text_[pos] = ch;
}

void TString::Fill(char16_t ch, short count) {
  checkUnlocked(kLineLocked);
  if (count < 0) {
    Debug("tstring", kLineRange);
    count = 0;
  }
  setBufferSize(count * 2);
  if (count > kMaxLength) count = kMaxLength;
  for (int i = 0; i < count; ++i) text_[i] = ch;
  length_ = count;
  text_[count] = 0;
}

short TString::GetHeadPosition() const { return length_ > 0 ? 1 : 0; }

short TString::GetTailPosition() const { return length_; }

char16_t TString::GetCharacter(short* pos, int step) const {
  if (pos == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  if (*pos < 1 || *pos > length_ + 1) {
    Debug("tstring", kLineRange);
    return 0;
  }
  if (step < -1 || step > 1) {
    Debug("tstring", kLineRange);
    step = 0;
  }
  const char16_t ch = text_[*pos - 1];
  if (step == 1) {
    *pos = static_cast<short>(*pos + 1 > length_ ? 0 : *pos + 1);
  } else if (step == -1) {
    *pos = static_cast<short>(*pos - 1);
  }
  return ch;
}

// ---- substrings --------------------------------------------------------------

TString TString::Left(short n) const {
  if (n < 0) n = 0;
  if (n > length_) n = length_;
  return TString(text_, n);
}

TString TString::Right(short n) const {
  if (n < 0) n = 0;
  if (n > length_) n = length_;
  return TString(text_ + (length_ - n), n);
}

TString TString::Mid(short start, short n) const {
  if (start < 0) start = 0;
  if (start > length_) start = length_;
  const short avail = static_cast<short>(length_ - start);
  if (n < 0 || n > avail) n = avail;
  return TString(text_ + start, n);
}

// ---- comparing -----------------------------------------------------------

// Identical texts collate equal under any rule; only differing ones go to
// the collation.
int TString::Compare(const TString& other, int caseSensitive) const {
  if (Identical(other)) return 0;
  return UCompareString(text_, length_, other.text_, other.length_, caseSensitive);
}

int TString::Compare(const char16_t* text, short len, int caseSensitive) const {
  if (text == nullptr) {
    text = u"";
    len = 0;
  }
  if (len < 0) len = WideCharCount(text);
  if (Identical(text, len)) return 0;
  return UCompareString(text_, length_, text, len, caseSensitive);
}

int TString::Identical(const TString& other) const {
  return length_ == other.length_ &&
         std::memcmp(text_, other.text_, static_cast<std::size_t>(length_) * 2) == 0;
}

int TString::Identical(const char16_t* text, short len) const {
  if (text == nullptr) return length_ == 0;
  if (len < 0) len = WideCharCount(text);
  return length_ == len && std::memcmp(text_, text, static_cast<std::size_t>(len) * 2) == 0;
}

int TString::FirstDiscrepancy(const TString& other) const {
  return FirstDiscrepancy(other.text_, other.length_);
}

int TString::FirstDiscrepancy(const char16_t* text, short len) const {
  if (text == nullptr) len = 0;
  if (len < 0) len = WideCharCount(text);
  const int shorter = len < length_ ? len : length_;
  for (int i = 0; i < shorter; ++i) {
    if (text_[i] != text[i]) return i;
  }
  return len == length_ ? -1 : shorter;
}

int TString::Hash() const {
  std::uint32_t h = text_[0];
  for (int i = 1; i < length_; ++i) h = h * 31u + text_[i];
  return static_cast<int>(h);
}

// ---- searching -----------------------------------------------------------

short TString::FindChar(char16_t ch, short from, short step) const {
  if (length_ == 0) return -1;
  if (step != 1 && step != -1) {
    Debug("tstring", kLineRange);
    step = 1;
  }
  for (int i = from; i >= 0 && i < length_; i += step) {
    if (text_[i] == ch) return static_cast<short>(i);
  }
  return -1;
}

namespace {

// The first unit equal to `unit` in [at, end), or null. Four units are
// tested at a time: a 16-bit lane of (word ^ pattern) is zero exactly where
// the unit matches.
const char16_t* FindUnit(const char16_t* at, const char16_t* end, char16_t unit) {
  constexpr std::uint64_t kLow = 0x0001000100010001ull;
  constexpr std::uint64_t kHigh = 0x8000800080008000ull;
  const std::uint64_t pattern = kLow * unit;
  while (end - at >= 4) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    const std::uint64_t x = word ^ pattern;
    if (((x - kLow) & ~x & kHigh) != 0) break;
    at += 4;
  }
  for (; at < end; ++at) {
    if (*at == unit) return at;
  }
  return nullptr;
}

}  // namespace

short TString::findSubstringFrom(const char16_t* p, short len, short from,
                                 int caseSensitive) const {
  if (p == nullptr || len <= 0 || len > length_) return -1;
  if (from < 0) from = 0;
  const int last = length_ - len;
  if (caseSensitive) {
    // Find each candidate by its first unit, then compare the rest.
    const char16_t* at = text_ + from;
    const char16_t* const end = text_ + last + 1;
    while ((at = FindUnit(at, end, p[0])) != nullptr) {
      int k = 1;
      while (k < len && at[k] == p[k]) ++k;
      if (k == len) return static_cast<short>(at - text_);
      ++at;
    }
    return -1;
  }
  for (int i = from; i <= last; ++i) {
    int k = 0;
    while (k < len && ToUpper(text_[i + k]) == ToUpper(p[k])) ++k;
    if (k == len) return static_cast<short>(i);
  }
  return -1;
}

short TString::FindSubstring(const TString* needle, short from, int caseSensitive) const {
  if (needle == nullptr) {
    Debug("tstring", kLineNull);
    return -1;
  }
  return findSubstringFrom(needle->text_, needle->length_, from, caseSensitive);
}

short TString::FindSubstring(const char16_t* needle, short len, short from,
                             int caseSensitive) const {
  if (needle != nullptr && len < 0) len = WideCharCount(needle);
  return findSubstringFrom(needle, len, from, caseSensitive);
}

short TString::FindSet(const TString* set) const {
  if (set == nullptr) {
    Debug("tstring", kLineNull);
    return -1;
  }
  return FindSet(set->text_, set->length_);
}

short TString::FindSet(const char16_t* set, short len) const {
  if (set == nullptr) return -1;
  if (len < 0) len = WideCharCount(set);
  for (int i = 0; i < length_; ++i) {
    if (InSet(text_[i], set, len)) return static_cast<short>(i);
  }
  return -1;
}

short TString::ReplaceSet(char16_t with, const TString* set) {
  if (set == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  return ReplaceSet(with, set->text_, set->length_);
}

short TString::ReplaceSet(char16_t with, const char16_t* set, short len) {
  checkUnlocked(kLineLocked);
  if (set == nullptr) return 0;
  if (len < 0) len = WideCharCount(set);
  short count = 0;
  for (int i = 0; i < length_; ++i) {
    if (InSet(text_[i], set, len)) {
      text_[i] = with;
      ++count;
    }
  }
  return count;
}

short TString::ReplaceSubstring(const TString* from, const TString* to, int caseSensitive,
                                short start, short max) {
  if (from == nullptr || to == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  return ReplaceSubstring(from->text_, from->length_, to->text_, to->length_, caseSensitive, start,
                          max);
}

short TString::ReplaceSubstring(const char16_t* from, short fromLen, const char16_t* to,
                                short toLen, int caseSensitive, short start, short max) {
  checkUnlocked(kLineLocked);
  if (from == nullptr) return 0;
  if (fromLen < 0) fromLen = WideCharCount(from);
  if (to == nullptr) toLen = 0;
  if (toLen < 0) toLen = WideCharCount(to);
  if (fromLen == 0 || max == 0) return 0;
  if (start < 0) start = 0;
  // `from` and `to` may point into this string: the result is built apart.
  std::vector<char16_t> out;
  out.reserve(static_cast<std::size_t>(length_) + 16);
  out.insert(out.end(), text_, text_ + (start < length_ ? start : length_));
  short count = 0;
  int i = start;
  while (i < length_) {
    if ((max < 0 || count < max) && i + fromLen <= length_) {
      int k = 0;
      while (k < fromLen && UnitsEqual(text_[i + k], from[k], caseSensitive)) ++k;
      if (k == fromLen) {
        out.insert(out.end(), to, to + toLen);
        i += fromLen;
        ++count;
        continue;
      }
    }
    out.push_back(text_[i++]);
  }
  if (count > 0) {
    const int n = static_cast<int>(out.size());
    if (n > kMaxLength) setBufferSize(n * 2);  // asserts; the text is cut
    Assign(out.data(), static_cast<short>(n > kMaxLength ? kMaxLength : n));
  }
  return count;
}

// ---- trimming and case -----------------------------------------------------

short TString::StripEnds(char16_t ch, int which) { return stripEndsOf(&ch, 1, which); }

short TString::StripEnds(const TString* set, int which) {
  if (set == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  // The set may be this string itself: strip against a copy.
  if (set == this) {
    const TString copy(*this);
    return stripEndsOf(copy.text_, copy.length_, which);
  }
  return stripEndsOf(set->text_, set->length_, which);
}

short TString::stripEndsOf(const char16_t* set, short len, int which) {
  checkUnlocked(kLineLocked);
  int begin = 0;
  int end = length_;
  if (which >= 0) {
    while (begin < end && InSet(text_[begin], set, len)) ++begin;
  }
  if (which <= 0) {
    while (end > begin && InSet(text_[end - 1], set, len)) --end;
  }
  const short removed = static_cast<short>(length_ - (end - begin));
  if (removed == 0) return 0;
  if (begin > 0) std::memmove(text_, text_ + begin, static_cast<std::size_t>(end - begin) * 2);
  length_ = static_cast<short>(end - begin);
  text_[length_] = 0;
  return removed;
}

int TString::StripHotkey() {
  for (int i = 0; i < length_; ++i) {
    if (text_[i] != u'&') continue;
    if (i + 1 >= length_) return 0;  // a lone & at the end: no change
    const char16_t next = text_[i + 1];
    if (next == u'&' || next == u' ') {
      ++i;  // a literal && pair, or & before a blank: both stay
      continue;
    }
    checkUnlocked(kLineLocked);
    std::memmove(text_ + i, text_ + i + 1, static_cast<std::size_t>(length_ - i) * 2);
    --length_;
    return 1;
  }
  return 0;
}

void TString::MakeUpper() {
  checkUnlocked(kLineLocked);
  for (int i = 0; i < length_; ++i) text_[i] = ToUpper(text_[i]);
}

void TString::MakeLower() {
  checkUnlocked(kLineLocked);
  for (int i = 0; i < length_; ++i) text_[i] = ToLower(text_[i]);
}

void TString::ConvertNewlines(int from, int to) {
  if (from < 0 || from > 2 || to < 0 || to > 2) {
    Debug("tstring", kLineRange);
    return;
  }
  if (from == to) return;
  ReplaceSubstring(kNewlines[from], kNewlineLengths[from], kNewlines[to], kNewlineLengths[to], 1, 0,
                   -1);
}

// Fields are counted from 1: with dir 1 field 1 starts at 0, with dir -1
// field 1 is the last one.
short TString::GetNthToken(TString* out, char16_t delim, short n, short dir) const {
  if (dir != 1 && dir != -1) {
    Debug("tstring", kLineRange);
    dir = 1;
  }
  int begin = -1;
  int end = -1;
  if (n >= 1) {
    if (dir == 1) {
      int field = 1;
      int s = 0;
      for (int i = 0; i <= length_; ++i) {
        if (i == length_ || text_[i] == delim) {
          if (field == n) {
            begin = s;
            end = i;
            break;
          }
          ++field;
          s = i + 1;
        }
      }
    } else {
      int field = 1;
      int e = length_;
      for (int i = length_ - 1; i >= -1; --i) {
        if (i == -1 || text_[i] == delim) {
          if (field == n) {
            begin = i + 1;
            end = e;
            break;
          }
          ++field;
          e = i;
        }
      }
    }
  }
  if (out == nullptr) {
    Debug("tstring", kLineNull);
  } else if (out != this) {
    if (begin < 0) {
      out->Clear();
    } else {
      out->Assign(text_ + begin, static_cast<short>(end - begin));
    }
  }
  return static_cast<short>(begin);
}

namespace {

// Matches pattern p (np units) against s (ns units); `*` tries the shortest
// run first.
bool Match(const char16_t* p, int np, const char16_t* s, int ns, int caseSensitive) {
  int i = 0;
  int k = 0;
  while (i < np) {
    const char16_t pc = p[i];
    if (pc == u'*') {
      while (i < np && p[i] == u'*') ++i;  // a run of stars is one star
      if (i == np) return true;
      for (int skip = k; skip < ns; ++skip) {
        if (Match(p + i, np - i, s + skip, ns - skip, caseSensitive)) return true;
      }
      return false;
    }
    if (k >= ns) return false;
    if (caseSensitive) {
      if (pc != s[k]) return false;
    } else if (pc != u'?' && ToUpper(pc) != ToUpper(s[k])) {
      return false;
    }
    ++i;
    ++k;
  }
  return k == ns;
}

}  // namespace

int TString::MatchPattern(const TString* pattern, int caseSensitive) const {
  if (pattern == nullptr) {
    Debug("tstring", kLineNull);
    return 0;
  }
  return Match(pattern->text_, pattern->length_, text_, length_, caseSensitive) ? 1 : 0;
}

// ---- direct access ---------------------------------------------------------

char16_t* TString::GetBuffer(short len) {
  if (len >= 0) {
    const int room = len > length_ ? len : length_;
    setBufferSize(room * 2);
    const int cap = capacityUnits();
    // Units past the text read as terminators until the caller writes them.
    for (int i = length_ + 1; i < cap && i <= len; ++i) text_[i] = 0;
  }
  if (bufferLocks_ == 0xFF) Debug("tstring", kLineRange);
  ++bufferLocks_;
  return text_;
}

void TString::ReleaseBuffer(short len) {
  if (bufferLocks_ == 0) {
    Debug("tstring", kLineNotOut);
  } else {
    --bufferLocks_;
  }
  const int cap = capacityUnits();
  if (len == 0) {
    int n = 0;
    while (n < cap - 1 && text_[n] != 0) ++n;
    length_ = static_cast<short>(n);
  } else if (len > 0) {
    length_ = static_cast<short>(len < cap - 1 ? len : cap - 1);
  }
  text_[length_] = 0;
}

// ---- free functions --------------------------------------------------------

TString operator+(const TString& a, const TString& b) {
  TString r(a);
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

int operator==(const TString& a, const TString& b) {
  return a.Length() == b.Length() && a.Compare(b, 1) == 0;
}
int operator==(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) == 0; }
int operator==(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) == 0; }
int operator!=(const TString& a, const TString& b) { return a.Compare(b, 1) != 0; }
int operator!=(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) != 0; }
int operator!=(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) != 0; }
int operator<(const TString& a, const TString& b) { return a.Compare(b, 1) < 0; }
int operator<(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) < 0; }
int operator<(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) > 0; }
int operator<=(const TString& a, const TString& b) { return a.Compare(b, 1) <= 0; }
int operator<=(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) <= 0; }
int operator<=(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) >= 0; }
int operator>(const TString& a, const TString& b) { return a.Compare(b, 1) > 0; }
int operator>(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) > 0; }
int operator>(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) < 0; }
int operator>=(const TString& a, const TString& b) { return a.Compare(b, 1) >= 0; }
int operator>=(const TString& a, const char16_t* b) { return a.Compare(b, -1, 1) >= 0; }
int operator>=(const char16_t* a, const TString& b) { return b.Compare(a, -1, 1) <= 0; }

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

char16_t ToUpper(char16_t ch) {
  return (ch >= u'a' && ch <= u'z') ? static_cast<char16_t>(ch - 32) : ch;
}
char16_t ToLower(char16_t ch) {
  return (ch >= u'A' && ch <= u'Z') ? static_cast<char16_t>(ch + 32) : ch;
}
