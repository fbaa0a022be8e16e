#include "quarnel/platform/internal/profiletext.h"

#include <algorithm>
#include <cstring>

#include "quarnel/platform/codepage.h"
#include "quarnel/platform/internal/winpath.h"

namespace quarnel_internal {

namespace {

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\v' || c == u'\f'; }

std::u16string_view TrimEnd(std::u16string_view s) {
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

std::u16string_view Trim(std::u16string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  return TrimEnd(s);
}

std::u16string_view ArgView(const char16_t* s) {
  return s != nullptr ? std::u16string_view(s) : std::u16string_view();
}

// A section or key given by the caller: trimmed and folded once.
class Name {
 public:
  Name(const char16_t* text, bool emptyMatches) : emptyMatches_(emptyMatches) {
    for (char16_t c : Trim(ArgView(text))) folded_ += FoldUnit(c);
  }
  bool Matches(std::u16string_view s) const {
    if (s.size() != folded_.size() || (s.empty() && !emptyMatches_)) return false;
    for (std::size_t i = 0; i < s.size(); ++i)
      if (FoldUnit(s[i]) != folded_[i]) return false;
    return true;
  }

 private:
  std::u16string folded_;
  bool emptyMatches_;
};

// A double-terminated list in a caller's buffer of `size` >= 1 units. A name
// that does not fit is cut so that two terminators end the buffer, and the
// result is then size - 2.
class ListWriter {
 public:
  ListWriter(char16_t* buffer, unsigned size) : buffer_(buffer), size_(size) {
    if (size_ == 1) {
      buffer_[0] = 0;
      full_ = true;
    }
  }
  void Add(std::u16string_view item) {
    if (full_) return;
    const std::size_t room = size_ - 1 - pos_;  // at least 1
    if (item.size() + 1 >= room) {
      std::copy_n(item.data(), room - 1, buffer_ + pos_);
      buffer_[pos_ + room - 1] = 0;
      buffer_[size_ - 1] = 0;
      full_ = true;
      result_ = size_ - 2;
      return;
    }
    std::copy_n(item.data(), item.size(), buffer_ + pos_);
    pos_ += item.size();
    buffer_[pos_++] = 0;
  }
  unsigned Finish() {
    if (full_) return result_;
    buffer_[pos_] = 0;
    return static_cast<unsigned>(pos_);
  }

 private:
  char16_t* buffer_;
  unsigned size_;
  std::size_t pos_ = 0;
  bool full_ = false;
  unsigned result_ = 0;
};

// Copies text and its terminator, cut to the buffer (size >= 1). With
// `unquote`, a value in matching single or double quotes loses them: the
// text after the opening quote is copied and the closing quote becomes a
// second terminator.
unsigned CopyText(std::u16string_view text, bool unquote, char16_t* buffer, unsigned size) {
  std::size_t inner = text.size();
  if (unquote && text.size() >= 2 && (text[0] == u'"' || text[0] == u'\'') &&
      text.back() == text[0]) {
    text.remove_prefix(1);
    inner = text.size() - 1;
  }
  const std::size_t n = std::min<std::size_t>(text.size(), size - 1);
  std::copy_n(text.data(), n, buffer);
  buffer[n] = 0;
  if (inner < n) buffer[inner] = 0;
  return static_cast<unsigned>(std::min(inner, n));
}

unsigned CopyDefault(const char16_t* dflt, char16_t* buffer, unsigned size) {
  return CopyText(TrimEnd(ArgView(dflt)), false, buffer, size);
}

// The value of `key` in the first section named `section`; false when there
// is none.
bool FindValue(ProfileReader* reader, const char16_t* section, const char16_t* key,
               std::u16string_view* value) {
  const Name sec(section, false);
  const Name k(key, true);
  ProfileLine line;
  bool in = false;
  while (reader->Next(&line, in)) {
    if (line.kind == ProfileLine::kSection) {
      if (in) return false;
      in = sec.Matches(line.name);
    } else if (in && line.kind == ProfileLine::kText && line.hasValue && k.Matches(line.name)) {
      *value = line.value;
      return true;
    }
  }
  return false;
}

bool IsComment(std::u16string_view key) { return !key.empty() && key[0] == u';'; }

}  // namespace

// ---- ProfileReader ------------------------------------------------------------------

ProfileReader::ProfileReader(std::string_view bytes, unsigned codePage)
    : bytes_(bytes), codePage_(codePage) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(bytes_[i]); };
  if (bytes_.size() >= 2 && b(0) == 0xFF && b(1) == 0xFE) {
    encoding_ = ProfileEncoding::kUtf16Le;
    bodyStart_ = 2;
    unit_ = 2;
  } else if (bytes_.size() >= 2 && b(0) == 0xFE && b(1) == 0xFF) {
    encoding_ = ProfileEncoding::kUtf16Be;
    bodyStart_ = 2;
    unit_ = 2;
  } else if (bytes_.size() >= 3 && b(0) == 0xEF && b(1) == 0xBB && b(2) == 0xBF) {
    encoding_ = ProfileEncoding::kUtf8;
    codePage_ = kCpUtf8;
    bodyStart_ = 3;
  }
  pos_ = bodyStart_;
}

std::size_t ProfileReader::unitAt(std::size_t pos) const {
  const auto lo = static_cast<unsigned char>(bytes_[pos]);
  if (unit_ == 1) return lo;
  const auto hi = static_cast<unsigned char>(bytes_[pos + 1]);
  return encoding_ == ProfileEncoding::kUtf16Le ? lo | hi << 8 : hi | lo << 8;
}

void ProfileReader::decode(std::size_t from, std::size_t to) {
  if (unit_ == 2) {
    text_.resize((to - from) / 2);
    for (std::size_t i = 0; i < text_.size(); ++i)
      text_[i] = static_cast<char16_t>(unitAt(from + 2 * i));
  } else if (to == from) {
    text_.clear();
  } else {
    const char* src = bytes_.data() + from;
    const int n = static_cast<int>(to - from);
    text_.resize(n);
    int got = UMultiByteToWideChar(codePage_, 0, src, n, text_.data(), n);
    if (got == 0) {  // a page that needs more units than bytes
      const int need = UMultiByteToWideChar(codePage_, 0, src, n, nullptr, 0);
      text_.resize(std::max(need, 0));
      got = need > 0 ? UMultiByteToWideChar(codePage_, 0, src, n, text_.data(), need) : 0;
    }
    text_.resize(got);
  }
  const std::size_t nul = text_.find(u'\0');
  if (nul != std::u16string::npos) text_.resize(nul);
}

bool ProfileReader::Next(ProfileLine* line, bool text) {
  const std::size_t size = bytes_.size();
  if (pos_ + unit_ > size) return false;
  std::size_t p = pos_;
  while (p + unit_ <= size) {
    const std::size_t u = unitAt(p);
    if (u == '\r' || u == '\n') break;
    p += unit_;
  }
  std::size_t contentEnd = p, end = p;
  if (p + unit_ <= size) {
    end = p + unit_;
    if (unitAt(p) == '\r' && end + unit_ <= size && unitAt(end) == '\n') end += unit_;
  } else {
    contentEnd = end = p;  // the last line; an odd byte of a 16-bit file stays outside
  }
  line->start = pos_;
  line->contentEnd = contentEnd;
  line->end = end;
  line->hasValue = false;
  line->value = {};
  line->name = {};
  if (!text) {
    // Only a header matters: its "[" is the first non-blank unit in every
    // encoding (no lead byte is blank, and a trail byte follows its lead).
    std::size_t q = pos_;
    while (q < p && IsBlank(static_cast<char16_t>(unitAt(q)))) q += unit_;
    if (q == p || unitAt(q) != '[') {
      line->kind = q == p ? ProfileLine::kBlank : ProfileLine::kText;
      pos_ = end;
      return true;
    }
  }
  decode(pos_, p);
  pos_ = end;

  std::u16string_view t(text_);
  while (!t.empty() && IsBlank(t.front())) t.remove_prefix(1);
  if (t.empty()) {
    line->kind = ProfileLine::kBlank;
    return true;
  }
  if (t[0] == u'[') {
    const std::size_t close = t.rfind(u']');
    if (close != std::u16string_view::npos && close > 0) {
      line->kind = ProfileLine::kSection;
      line->name = Trim(t.substr(1, close - 1));
      return true;
    }
  }
  line->kind = ProfileLine::kText;
  const std::size_t eq = t.find(u'=');
  if (eq == std::u16string_view::npos) {
    line->name = TrimEnd(t);
  } else {
    line->name = TrimEnd(t.substr(0, eq));
    line->value = Trim(t.substr(eq + 1));
    line->hasValue = true;
  }
  return true;
}

std::string ProfileReader::Encode(std::u16string_view text) const {
  std::string out;
  if (text.empty()) return out;
  if (unit_ == 2) {
    out.resize(text.size() * 2);
    const bool le = encoding_ == ProfileEncoding::kUtf16Le;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const char lo = static_cast<char>(text[i] & 0xFF), hi = static_cast<char>(text[i] >> 8);
      out[2 * i] = le ? lo : hi;
      out[2 * i + 1] = le ? hi : lo;
    }
    return out;
  }
  const int n = static_cast<int>(text.size());
  const int need = UWideCharToMultiByte(codePage_, 0, text.data(), n, nullptr, 0, nullptr, nullptr);
  if (need <= 0) return out;
  out.resize(need);
  const int got =
      UWideCharToMultiByte(codePage_, 0, text.data(), n, out.data(), need, nullptr, nullptr);
  out.resize(std::max(got, 0));
  return out;
}

std::string ProfileReader::LineEnd() const {
  for (std::size_t p = bodyStart_; p + unit_ <= bytes_.size(); p += unit_) {
    const std::size_t u = unitAt(p);
    if (u == '\n') return Encode(u"\n");
    if (u == '\r') {
      const bool crlf = p + 2 * unit_ <= bytes_.size() && unitAt(p + unit_) == '\n';
      return Encode(crlf ? u"\r\n" : u"\r");
    }
  }
  return Encode(u"\r\n");
}

// ---- Queries ------------------------------------------------------------------------

unsigned ProfileGetString(std::string_view bytes, unsigned codePage, const char16_t* section,
                          const char16_t* key, const char16_t* dflt, char16_t* buffer,
                          unsigned size) {
  if (buffer == nullptr || size == 0) return 0;
  ProfileReader reader(bytes, codePage);
  ProfileLine line;
  if (section == nullptr) {
    ListWriter list(buffer, size);
    while (reader.Next(&line, false))
      if (line.kind == ProfileLine::kSection && !line.name.empty()) list.Add(line.name);
    return list.Finish();
  }
  if (key == nullptr) {
    // The list writes nothing before its first name, except the terminator
    // of a one-unit buffer, which the default would write as well.
    const Name sec(section, false);
    ListWriter list(buffer, size);
    bool in = false, found = false;
    while (reader.Next(&line, in)) {
      if (line.kind == ProfileLine::kSection) {
        if (in) break;
        in = found = sec.Matches(line.name);
      } else if (in && line.kind == ProfileLine::kText && line.hasValue && !line.name.empty() &&
                 !IsComment(line.name)) {
        list.Add(line.name);
      }
    }
    return found ? list.Finish() : CopyDefault(dflt, buffer, size);
  }
  std::u16string_view value;
  if (FindValue(&reader, section, key, &value)) return CopyText(value, true, buffer, size);
  return CopyDefault(dflt, buffer, size);
}

unsigned ProfileGetSection(std::string_view bytes, unsigned codePage, const char16_t* section,
                           char16_t* buffer, unsigned size) {
  if (buffer == nullptr || size == 0) return 0;
  ProfileReader reader(bytes, codePage);
  ProfileLine line;
  const Name sec(section, false);
  ListWriter list(buffer, size);
  std::u16string item;
  bool in = false;
  while (reader.Next(&line, in)) {
    if (line.kind == ProfileLine::kSection) {
      if (in) break;
      in = sec.Matches(line.name);
    } else if (in && line.kind == ProfileLine::kText && !IsComment(line.name)) {
      item.assign(line.name);
      if (line.hasValue) (item += u'=') += line.value;
      list.Add(item);
    }
  }
  return list.Finish();
}

unsigned ProfileGetInt(std::string_view bytes, unsigned codePage, const char16_t* section,
                       const char16_t* key, int dflt) {
  ProfileReader reader(bytes, codePage);
  std::u16string_view v;
  if (section == nullptr || key == nullptr || !FindValue(&reader, section, key, &v))
    return static_cast<unsigned>(dflt);
  if (v.size() >= 2 && (v[0] == u'"' || v[0] == u'\'') && v.back() == v[0])
    v = v.substr(1, v.size() - 2);
  if (v.empty()) return static_cast<unsigned>(dflt);
  std::size_t i = 0;
  const bool negative = v[0] == u'-';
  if (v[0] == u'-' || v[0] == u'+') ++i;
  unsigned base = 10;
  if (i + 1 < v.size() && v[i] == u'0' && (v[i + 1] == u'x' || v[i + 1] == u'X')) {
    base = 16;
    i += 2;
  }
  unsigned n = 0;
  for (; i < v.size(); ++i) {
    const char16_t c = v[i];
    unsigned d;
    if (c >= u'0' && c <= u'9') {
      d = c - u'0';
    } else if (base == 16 && (c | 0x20) >= u'a' && (c | 0x20) <= u'f') {
      d = (c | 0x20) - u'a' + 10;
    } else {
      break;
    }
    if (d >= base) break;
    n = n * base + d;
  }
  return negative ? 0u - n : n;
}

ProfileEdit ProfileWrite(std::string_view bytes, unsigned codePage, const char16_t* section,
                         const char16_t* key, const char16_t* value) {
  ProfileEdit edit;
  ProfileReader reader(bytes, codePage);
  const Name sec(section, false);
  const Name k(key, true);
  bool in = false, sectionFound = false, keyFound = false;
  std::size_t headerStart = 0, sectionEnd = bytes.size(), lastContentEnd = 0;
  ProfileLine line, keyLine;
  std::u16string keyName, keyValue;
  while (reader.Next(&line, in)) {
    if (line.kind == ProfileLine::kSection) {
      if (in) {
        sectionEnd = line.start;
        break;
      }
      if (sec.Matches(line.name)) {
        in = sectionFound = true;
        headerStart = line.start;
        lastContentEnd = line.contentEnd;
      }
    } else if (in && line.kind == ProfileLine::kText) {
      lastContentEnd = line.contentEnd;
      if (key != nullptr && !keyFound && line.hasValue && k.Matches(line.name)) {
        keyFound = true;
        keyLine = line;
        keyName.assign(line.name);
        keyValue.assign(line.value);
      }
    }
  }
  if (key == nullptr) {  // the whole section goes
    if (!sectionFound) return edit;
    edit = {true, headerStart, sectionEnd, {}};
    return edit;
  }
  if (value == nullptr) {  // the key's line goes
    if (!keyFound) return edit;
    edit = {true, keyLine.start, keyLine.end, {}};
    return edit;
  }
  const std::u16string_view v = Trim(value);
  if (keyFound) {
    if (keyValue == v) return edit;
    edit = {true, keyLine.start, keyLine.contentEnd,
            reader.Encode(keyName + u'=' + std::u16string(v))};
    return edit;
  }
  const std::string eol = reader.LineEnd();
  const std::u16string entry = std::u16string(Trim(ArgView(key))) + u'=' + std::u16string(v);
  if (sectionFound) {
    edit = {true, lastContentEnd, lastContentEnd, eol + reader.Encode(entry)};
    return edit;
  }
  // A new section at the end, after any odd byte of a 16-bit file.
  const std::size_t unit = reader.Encoding() == ProfileEncoding::kUtf16Le ||
                                   reader.Encoding() == ProfileEncoding::kUtf16Be
                               ? 2
                               : 1;
  const std::size_t body = bytes.size() - reader.BodyStart();
  const std::size_t end = reader.BodyStart() + body / unit * unit;
  std::string text;
  if (end > reader.BodyStart()) {
    const std::string last(bytes.substr(end - unit, unit));
    if (last != reader.Encode(u"\n") && last != reader.Encode(u"\r")) text = eol;
  }
  text += reader.Encode(u"[" + std::u16string(Trim(ArgView(section))) + u"]");
  text += eol + reader.Encode(entry) + eol;
  edit = {true, end, end, std::move(text)};
  return edit;
}

}  // namespace quarnel_internal
