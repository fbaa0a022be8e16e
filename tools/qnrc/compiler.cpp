#include "tools/qnrc/compiler.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <set>

#include "quarnel/platform/utf8.h"

namespace qnrc {

namespace {

constexpr unsigned kTypeCursor = 1;
constexpr unsigned kTypeBitmap = 2;
constexpr unsigned kTypeIcon = 3;
constexpr unsigned kTypeStringTable = 6;
constexpr unsigned kTypeRawData = 10;
constexpr unsigned kTypeGroupCursor = 12;
constexpr unsigned kTypeGroupIcon = 14;
constexpr unsigned kTypeStringList = 256;
constexpr int kModuleIdResource = 10001;
constexpr std::uint32_t kModuleSignature = 0x44594C2E;  // 'DYL.'
constexpr int kModuleVersion = 769;
constexpr std::size_t kMaxListText = 0xFFFE - 4;  // a length of 0xFFFF ends a list
constexpr std::size_t kMaxName = 255;
constexpr std::uint64_t kMaxBlob = 0x7FFFFFFF;

struct Token {
  enum Kind { kEnd, kWord, kNumber, kText, kTag, kOpen, kClose } kind = kEnd;
  std::string text;  // word, text bytes or tag characters
  std::int64_t number = 0;
  int line = 1;
};

void Put16(std::vector<unsigned char>* out, unsigned v) {
  out->push_back(static_cast<unsigned char>(v & 0xFF));
  out->push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}

void Put32(std::vector<unsigned char>* out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xFF));
}

unsigned Get16(const std::vector<unsigned char>& b, std::size_t at) {
  return b[at] | (unsigned{b[at + 1]} << 8);
}

std::uint32_t Get32(const std::vector<unsigned char>& b, std::size_t at) {
  return b[at] | (std::uint32_t{b[at + 1]} << 8) | (std::uint32_t{b[at + 2]} << 16) |
         (std::uint32_t{b[at + 3]} << 24);
}

// UTF-8 to UTF-16; invalid sequences become U+FFFD.
std::u16string Utf16(const std::string& s) { return Utf8ToUtf16(s); }

char16_t Fold(char16_t c) { return (c >= u'a' && c <= u'z') ? c - 32 : c; }

bool NameLess(const std::u16string& a, const std::u16string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char16_t x, char16_t y) { return Fold(x) < Fold(y); });
}

bool NameEqual(const std::u16string& a, const std::u16string& b) {
  return !NameLess(a, b) && !NameLess(b, a);
}

std::string Printable(const std::string& s) {
  std::string out;
  for (const char ch : s) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c < 0x7F) {
      out += ch;
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02X", c);
      out += buf;
    }
  }
  return out;
}

std::string Describe(const Resource& r) {
  std::string out = "type " + std::to_string(r.type);
  if (r.name.empty()) return out + " id " + std::to_string(r.id);
  std::string name;
  for (const char16_t c : r.name) name += c < 0x80 ? static_cast<char>(c) : '?';
  return out + " name \"" + name + "\"";
}

// The container's order: numbered resources first, by type and id, then the
// named ones by type and name.
bool ResourceLess(const Resource& a, const Resource& b) {
  const bool an = !a.name.empty();
  const bool bn = !b.name.empty();
  if (an != bn) return !an;
  if (a.type != b.type) return a.type < b.type;
  return an ? NameLess(a.name, b.name) : a.id < b.id;
}

class Compiler {
 public:
  Compiler(const std::string& script, const std::string& folder, const FileReader& reader)
      : src_(script), folder_(folder), reader_(reader) {}

  bool Run(std::vector<Resource>* out, Error* error) {
    if (!Next() || !Statements() || !PlaceImages() || !FinishStringTables() || !Check()) {
      *error = error_;
      return false;
    }
    std::sort(resources_.begin(), resources_.end(), ResourceLess);
    *out = std::move(resources_);
    return true;
  }

 private:
  // An icon or cursor file whose images get their ids once the script is read.
  struct Group {
    Resource group;  // type 14 or 12; data = the header, entries filled later
    std::vector<std::vector<unsigned char>> images;
    std::vector<std::array<unsigned char, 12>> entries;  // each group entry without its id
  };

  bool Fail(int line, const std::string& message) {
    error_.line = line;
    error_.message = message;
    return false;
  }

  // ---- lexer -----------------------------------------------------------------

  bool Next() {
    for (;;) {
      while (pos_ < src_.size() && (src_[pos_] == ' ' || src_[pos_] == '\t' || src_[pos_] == '\r' ||
                                    src_[pos_] == '\n')) {
        if (src_[pos_] == '\n') ++line_;
        ++pos_;
      }
      if (pos_ < src_.size() && src_[pos_] == '#') {
        while (pos_ < src_.size() && src_[pos_] != '\n') ++pos_;
        continue;
      }
      break;
    }
    tok_ = Token{};
    tok_.line = line_;
    if (pos_ >= src_.size()) return true;
    const char c = src_[pos_];
    if (c == '{' || c == '}') {
      tok_.kind = c == '{' ? Token::kOpen : Token::kClose;
      ++pos_;
      return true;
    }
    if (c == '"' || c == '\'') return Quoted(c);
    if (c == '-' || (c >= '0' && c <= '9')) return Number();
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_') {
      const std::size_t start = pos_;
      while (pos_ < src_.size() &&
             ((src_[pos_] >= 'A' && src_[pos_] <= 'Z') ||
              (src_[pos_] >= 'a' && src_[pos_] <= 'z') ||
              (src_[pos_] >= '0' && src_[pos_] <= '9') || src_[pos_] == '_')) {
        ++pos_;
      }
      tok_.kind = Token::kWord;
      tok_.text = src_.substr(start, pos_ - start);
      return true;
    }
    return Fail(line_, "unexpected character '" + Printable(std::string(1, c)) + "'");
  }

  bool Number() {
    const std::size_t start = pos_;
    bool negative = false;
    if (src_[pos_] == '-') {
      negative = true;
      ++pos_;
    }
    int base = 10;
    if (pos_ + 1 < src_.size() && src_[pos_] == '0' &&
        (src_[pos_ + 1] == 'x' || src_[pos_ + 1] == 'X')) {
      base = 16;
      pos_ += 2;
    }
    std::uint64_t v = 0;
    int digits = 0;
    bool tooBig = false;
    while (pos_ < src_.size()) {
      const char d = src_[pos_];
      int k = -1;
      if (d >= '0' && d <= '9') k = d - '0';
      if (base == 16 && d >= 'a' && d <= 'f') k = d - 'a' + 10;
      if (base == 16 && d >= 'A' && d <= 'F') k = d - 'A' + 10;
      if (k < 0) break;
      v = v * static_cast<unsigned>(base) + static_cast<unsigned>(k);
      if (v > 0xFFFFFFFFull) tooBig = true;
      ++digits;
      ++pos_;
    }
    const bool glued =
        pos_ < src_.size() && ((src_[pos_] >= 'A' && src_[pos_] <= 'Z') ||
                               (src_[pos_] >= 'a' && src_[pos_] <= 'z') || src_[pos_] == '_');
    if (digits == 0 || glued) {
      while (pos_ < src_.size() && src_[pos_] != ' ' && src_[pos_] != '\n' && src_[pos_] != '\t' &&
             src_[pos_] != '}' && src_[pos_] != '{') {
        ++pos_;
      }
      return Fail(line_, "bad number '" + Printable(src_.substr(start, pos_ - start)) + "'");
    }
    if (tooBig) {
      return Fail(line_, "number '" + src_.substr(start, pos_ - start) + "' is out of range");
    }
    tok_.kind = Token::kNumber;
    tok_.number = negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
    return true;
  }

  bool Quoted(char quote) {
    ++pos_;
    std::string bytes;
    for (;;) {
      if (pos_ >= src_.size() || src_[pos_] == '\n') {
        return Fail(line_, quote == '"' ? "unterminated text" : "unterminated tag");
      }
      const char c = src_[pos_++];
      if (c == quote) break;
      if (c != '\\') {
        bytes += c;
        continue;
      }
      if (pos_ >= src_.size()) return Fail(line_, "unterminated text");
      const char e = src_[pos_++];
      switch (e) {
        case 'n':
          bytes += '\n';
          break;
        case 'r':
          bytes += '\r';
          break;
        case 't':
          bytes += '\t';
          break;
        case '0':
          bytes += '\0';
          break;
        case '\\':
          bytes += '\\';
          break;
        case '"':
          bytes += '"';
          break;
        case '\'':
          bytes += '\'';
          break;
        case 'x': {
          int v = 0;
          int n = 0;
          while (n < 2 && pos_ < src_.size()) {
            const char d = src_[pos_];
            int k = -1;
            if (d >= '0' && d <= '9') k = d - '0';
            if (d >= 'a' && d <= 'f') k = d - 'a' + 10;
            if (d >= 'A' && d <= 'F') k = d - 'A' + 10;
            if (k < 0) break;
            v = v * 16 + k;
            ++n;
            ++pos_;
          }
          if (n == 0) return Fail(line_, "\\x needs hexadecimal digits");
          bytes += static_cast<char>(v);
          break;
        }
        default:
          return Fail(line_, "unknown escape '\\" + Printable(std::string(1, e)) + "'");
      }
    }
    tok_.kind = quote == '"' ? Token::kText : Token::kTag;
    tok_.text = bytes;
    return true;
  }

  // ---- parser helpers --------------------------------------------------------

  bool Expect(Token::Kind kind, const char* what) {
    if (tok_.kind != kind) return Fail(tok_.line, std::string("expected ") + what);
    return true;
  }

  bool NumberIn(std::int64_t lo, std::int64_t hi, const char* what, std::int64_t* v) {
    if (!Expect(Token::kNumber, what)) return false;
    if (tok_.number < lo || tok_.number > hi) {
      return Fail(tok_.line, std::string(what) + " " + std::to_string(tok_.number) +
                                 " is out of range (" + std::to_string(lo) + ".." +
                                 std::to_string(hi) + ")");
    }
    *v = tok_.number;
    return Next();
  }

  bool Id(const char* what, int* v) {
    std::int64_t n = 0;
    if (!NumberIn(std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), what, &n)) {
      return false;
    }
    *v = static_cast<int>(n);
    return true;
  }

  // One or more adjacent texts, joined.
  bool Text(std::string* out) {
    if (!Expect(Token::kText, "a text in double quotes")) return false;
    out->clear();
    while (tok_.kind == Token::kText) {
      *out += tok_.text;
      if (!Next()) return false;
    }
    return true;
  }

  // A resource's id or "NAME".
  bool IdOrName(Resource* r) {
    if (tok_.kind == Token::kText) {
      // One text only: a path or a body may follow.
      const int line = tok_.line;
      const std::string name = tok_.text;
      if (!Next()) return false;
      r->name = Utf16(name);
      if (r->name.empty() || r->name.size() > kMaxName) {
        return Fail(line, "a resource name has 1 to 255 characters");
      }
      return true;
    }
    return Id("a resource id or \"NAME\"", &r->id);
  }

  bool ReadFile(int line, const std::string& path, std::vector<unsigned char>* bytes) {
    const std::string full =
        (path.empty() || path[0] == '/' || folder_.empty()) ? path : folder_ + "/" + path;
    if (!reader_ || !reader_(full, bytes)) {
      return Fail(line, "cannot read file \"" + Printable(full) + "\"");
    }
    if (bytes->size() > kMaxBlob)
      return Fail(line, "file \"" + Printable(full) + "\" is too large");
    return true;
  }

  // { ITEMS } or file "PATH"
  bool Body(std::vector<unsigned char>* data) {
    if (tok_.kind == Token::kWord && tok_.text == "file") {
      if (!Next()) return false;
      const int line = tok_.line;
      std::string path;
      return Text(&path) && ReadFile(line, path, data);
    }
    if (!Expect(Token::kOpen, "'{' or file \"PATH\"") || !Next()) return false;
    while (tok_.kind != Token::kClose) {
      if (tok_.kind == Token::kNumber) {
        std::int64_t v = 0;
        if (!NumberIn(-128, 255, "a byte", &v)) return false;
        data->push_back(static_cast<unsigned char>(v & 0xFF));
      } else if (tok_.kind == Token::kText) {
        data->insert(data->end(), tok_.text.begin(), tok_.text.end());
        if (!Next()) return false;
      } else if (tok_.kind == Token::kWord) {
        const std::string w = tok_.text;
        const int line = tok_.line;
        int bits = 0;
        bool big = false;
        if (w == "u16" || w == "u16be") bits = 16;
        if (w == "u32" || w == "u32be") bits = 32;
        big = w.size() > 3 && w.substr(3) == "be";
        if (bits == 0)
          return Fail(line, "unknown item '" + w + "' (a byte, a text, u16, u32, u16be or u32be)");
        if (!Next()) return false;
        std::int64_t v = 0;
        const std::int64_t lo = bits == 16 ? -32768 : std::numeric_limits<std::int32_t>::min();
        const std::int64_t hi = bits == 16 ? 0xFFFF : 0xFFFFFFFFll;
        if (!NumberIn(lo, hi, bits == 16 ? "a 16-bit word" : "a 32-bit word", &v)) return false;
        const auto u = static_cast<std::uint32_t>(v);
        const int n = bits / 8;
        for (int i = 0; i < n; ++i) {
          const int shift = big ? 8 * (n - 1 - i) : 8 * i;
          data->push_back(static_cast<unsigned char>((u >> shift) & 0xFF));
        }
      } else {
        return Fail(tok_.line, "expected a byte, a text or '}'");
      }
      if (data->size() > kMaxBlob) return Fail(tok_.line, "resource too large");
    }
    return Next();
  }

  void Add(Resource r) { resources_.push_back(std::move(r)); }

  // ---- statements ------------------------------------------------------------

  bool Statements() {
    while (tok_.kind != Token::kEnd) {
      if (tok_.kind != Token::kWord) return Fail(tok_.line, "expected a statement");
      const std::string w = tok_.text;
      const int line = tok_.line;
      if (!Next()) return false;
      bool ok = false;
      if (w == "moduleid") {
        ok = ModuleId(line);
      } else if (w == "stringlist") {
        ok = StringList(line);
      } else if (w == "stringtable") {
        ok = StringTable();
      } else if (w == "data") {
        Resource r;
        r.type = kTypeRawData;
        r.line = line;
        ok = IdOrName(&r) && Body(&r.data);
        if (ok) Add(std::move(r));
      } else if (w == "resource") {
        Resource r;
        r.line = line;
        std::int64_t type = 0;
        ok = NumberIn(1, 0x7FFFFFFF, "a resource type", &type) && IdOrName(&r) && Body(&r.data);
        r.type = static_cast<unsigned>(type);
        if (ok) Add(std::move(r));
      } else if (w == "icon" || w == "cursor") {
        ok = IconFile(line, w == "cursor");
      } else if (w == "bitmap") {
        ok = Bitmap(line);
      } else {
        return Fail(line, "unknown statement '" + w + "'");
      }
      if (!ok) return false;
    }
    return true;
  }

  bool ModuleId(int line) {
    int v[4];
    const char* what[4] = {"the first resource id", "the last resource id", "the first error code",
                           "the last error code"};
    for (int i = 0; i < 4; ++i) {
      if (!Id(what[i], &v[i])) return false;
    }
    Resource r;
    r.type = kTypeRawData;
    r.id = kModuleIdResource;
    r.line = line;
    Put32(&r.data, kModuleSignature);
    Put16(&r.data, kModuleVersion);
    Put16(&r.data, kModuleVersion);
    for (const int x : v) Put32(&r.data, static_cast<std::uint32_t>(x));
    Add(std::move(r));
    return true;
  }

  bool StringList(int line) {
    Resource r;
    r.type = kTypeStringList;
    r.line = line;
    if (!Id("a string list id", &r.id) || !Expect(Token::kOpen, "'{'") || !Next()) return false;
    std::set<std::string> tags;
    while (tok_.kind != Token::kClose) {
      if (!Expect(Token::kTag, "a tag such as 'Name' or '}'")) return false;
      const std::string tag = tok_.text;
      const int tagLine = tok_.line;
      if (tag.size() != 4) {
        return Fail(tagLine, "tag '" + Printable(tag) + "' must be four characters");
      }
      std::uint32_t code = 0;
      for (const char c : tag) code = (code << 8) | static_cast<unsigned char>(c);
      if ((code & 0x80808080u) != 0 || (code & 0x60606060u) == 0) {
        return Fail(tagLine, "tag '" + Printable(tag) +
                                 "' is not a four-character code (no byte above 0x7F, at least "
                                 "one letter, digit or punctuation character)");
      }
      if (!tags.insert(tag).second) {
        return Fail(tagLine,
                    "tag '" + tag + "' appears twice in string list " + std::to_string(r.id));
      }
      if (!Next()) return false;
      std::string text;
      if (!Text(&text)) return false;
      if (text.size() > kMaxListText) {
        return Fail(tagLine, "text of '" + tag + "' is too long (" + std::to_string(text.size()) +
                                 " bytes; at most " + std::to_string(kMaxListText) + ")");
      }
      const unsigned length = static_cast<unsigned>(4 + text.size());
      Put16(&r.data, length);
      r.data.insert(r.data.end(), tag.begin(), tag.end());
      r.data.insert(r.data.end(), text.begin(), text.end());
      if (length & 1) r.data.push_back(0);
    }
    Put16(&r.data, 0xFFFF);
    Add(std::move(r));
    return Next();
  }

  bool StringTable() {
    if (!Expect(Token::kOpen, "'{'") || !Next()) return false;
    while (tok_.kind != Token::kClose) {
      const int line = tok_.line;
      std::int64_t id = 0;
      if (!NumberIn(0, 0xFFFF, "a string id", &id)) return false;
      std::string text;
      if (!Text(&text)) return false;
      std::u16string units = Utf16(text);
      if (units.size() > 0xFFFF) return Fail(line, "string " + std::to_string(id) + " is too long");
      if (!strings_.emplace(static_cast<unsigned>(id), std::make_pair(units, line)).second) {
        return Fail(line, "string " + std::to_string(id) + " is defined twice (first on line " +
                              std::to_string(strings_[static_cast<unsigned>(id)].second) + ")");
      }
    }
    return Next();
  }

  bool FinishStringTables() {
    std::map<unsigned, Resource> blocks;
    for (const auto& [id, text] : strings_) {
      Resource& block = blocks[(id >> 4) + 1];
      if (block.line == 0) {
        block.type = kTypeStringTable;
        block.id = static_cast<int>((id >> 4) + 1);
        block.line = text.second;
      }
    }
    for (auto& [blockId, block] : blocks) {
      for (unsigned k = 0; k < 16; ++k) {
        const auto it = strings_.find(((blockId - 1) << 4) | k);
        const std::u16string empty;
        const std::u16string& s = it == strings_.end() ? empty : it->second.first;
        Put16(&block.data, static_cast<unsigned>(s.size()));
        for (const char16_t c : s) Put16(&block.data, c);
      }
      Add(std::move(block));
    }
    return true;
  }

  // An .ico or .cur file: a 6-byte directory header (0, kind 1 or 2, count)
  // and 16-byte entries (width, height, colours, reserved, planes or hot
  // spot x, bit count or hot spot y, bytes, offset).
  bool IconFile(int line, bool cursor) {
    Group g;
    g.group.type = cursor ? kTypeGroupCursor : kTypeGroupIcon;
    g.group.line = line;
    if (!IdOrName(&g.group)) return false;
    const int pathLine = tok_.line;
    std::string path;
    std::vector<unsigned char> file;
    if (!Text(&path) || !ReadFile(pathLine, path, &file)) return false;
    const std::string what =
        "\"" + Printable(path) + "\" is not " + (cursor ? "a cursor" : "an icon") + " file: ";
    if (file.size() < 6 || Get16(file, 0) != 0 || Get16(file, 2) != (cursor ? 2u : 1u)) {
      return Fail(pathLine, what + "bad header");
    }
    const unsigned count = Get16(file, 4);
    if (count == 0) return Fail(pathLine, what + "no images");
    if (file.size() < 6 + 16ull * count) return Fail(pathLine, what + "directory cut short");
    Put16(&g.group.data, 0);
    Put16(&g.group.data, cursor ? 2 : 1);
    Put16(&g.group.data, count);
    for (unsigned i = 0; i < count; ++i) {
      const std::size_t e = 6 + 16 * std::size_t{i};
      const std::uint32_t bytes = Get32(file, e + 8);
      const std::uint32_t offset = Get32(file, e + 12);
      if (offset > file.size() || bytes > file.size() - offset || bytes == 0) {
        return Fail(pathLine, what + "image " + std::to_string(i + 1) + " lies outside the file");
      }
      std::vector<unsigned char> image;
      std::array<unsigned char, 12> entry{};
      if (cursor) {
        // Cursor resources start with the hot spot; the group entry holds
        // 16-bit width and doubled height, planes and bit count.
        Put16(&image, Get16(file, e + 4));
        Put16(&image, Get16(file, e + 6));
        const unsigned w = file[e] == 0 ? 256 : file[e];
        const unsigned h = file[e + 1] == 0 ? 256 : file[e + 1];
        const unsigned bitCount = bytes >= 16 ? Get16(file, offset + 14) : 0;
        const std::uint32_t size = bytes + 4;
        const unsigned char fields[12] = {static_cast<unsigned char>(w & 0xFF),
                                          static_cast<unsigned char>(w >> 8),
                                          static_cast<unsigned char>((2 * h) & 0xFF),
                                          static_cast<unsigned char>((2 * h) >> 8),
                                          1,
                                          0,
                                          static_cast<unsigned char>(bitCount & 0xFF),
                                          static_cast<unsigned char>(bitCount >> 8),
                                          static_cast<unsigned char>(size & 0xFF),
                                          static_cast<unsigned char>((size >> 8) & 0xFF),
                                          static_cast<unsigned char>((size >> 16) & 0xFF),
                                          static_cast<unsigned char>(size >> 24)};
        std::copy(fields, fields + 12, entry.begin());
      } else {
        std::copy(file.begin() + static_cast<std::ptrdiff_t>(e),
                  file.begin() + static_cast<std::ptrdiff_t>(e + 12), entry.begin());
      }
      image.insert(image.end(), file.begin() + offset, file.begin() + offset + bytes);
      g.images.push_back(std::move(image));
      g.entries.push_back(entry);
    }
    groups_.push_back(std::move(g));
    return true;
  }

  bool Bitmap(int line) {
    Resource r;
    r.type = kTypeBitmap;
    r.line = line;
    if (!IdOrName(&r)) return false;
    const int pathLine = tok_.line;
    std::string path;
    std::vector<unsigned char> file;
    if (!Text(&path) || !ReadFile(pathLine, path, &file)) return false;
    if (file.size() < 14 + 12 || file[0] != 'B' || file[1] != 'M') {
      return Fail(pathLine, "\"" + Printable(path) + "\" is not a bitmap file");
    }
    r.data.assign(file.begin() + 14, file.end());
    Add(std::move(r));
    return true;
  }

  // Gives every icon and cursor image the lowest id of its type that the
  // script does not use, in the order the script names them.
  bool PlaceImages() {
    std::set<int> used[2];
    for (const Resource& r : resources_) {
      if (r.name.empty() && (r.type == kTypeIcon || r.type == kTypeCursor)) {
        used[r.type == kTypeIcon ? 0 : 1].insert(r.id);
      }
    }
    int next[2] = {1, 1};
    for (Group& g : groups_) {
      const bool cursor = g.group.type == kTypeGroupCursor;
      const int k = cursor ? 1 : 0;
      for (std::size_t i = 0; i < g.images.size(); ++i) {
        while (used[k].count(next[k]) != 0) ++next[k];
        if (next[k] > 0xFFFF) return Fail(g.group.line, "too many icon or cursor images");
        const int id = next[k]++;
        Resource image;
        image.type = cursor ? kTypeCursor : kTypeIcon;
        image.id = id;
        image.line = g.group.line;
        image.data = std::move(g.images[i]);
        Add(std::move(image));
        g.group.data.insert(g.group.data.end(), g.entries[i].begin(), g.entries[i].end());
        Put16(&g.group.data, static_cast<unsigned>(id));
      }
      Add(std::move(g.group));
    }
    return true;
  }

  bool Check() {
    std::map<std::pair<unsigned, int>, int> numbered;
    std::uint64_t total = 16;
    for (const Resource& r : resources_) {
      total += 20 + 8 + r.data.size() + 2 * r.name.size();
      if (total > kMaxBlob) return Fail(r.line, "the resources exceed 2 GB");
      if (!r.name.empty()) {
        for (const Resource& o : resources_) {
          if (&o == &r) break;
          if (o.type == r.type && NameEqual(o.name, r.name)) {
            return Fail(r.line, "resource " + Describe(r) + " is defined twice (first on line " +
                                    std::to_string(o.line) + ")");
          }
        }
        continue;
      }
      const auto [it, fresh] = numbered.emplace(std::make_pair(r.type, r.id), r.line);
      if (!fresh) {
        return Fail(std::max(r.line, it->second),
                    "resource " + Describe(r) + " is defined twice (first on line " +
                        std::to_string(std::min(r.line, it->second)) + ")");
      }
    }
    return true;
  }

  const std::string& src_;
  std::string folder_;
  const FileReader& reader_;
  std::size_t pos_ = 0;
  int line_ = 1;
  Token tok_;
  Error error_;
  std::vector<Resource> resources_;
  std::vector<Group> groups_;
  std::map<unsigned, std::pair<std::u16string, int>> strings_;
};

}  // namespace

bool Compile(const std::string& script, const std::string& folder, const FileReader& reader,
             std::vector<Resource>* resources, Error* error) {
  Compiler c(script, folder, reader);
  return c.Run(resources, error);
}

bool AddResource(std::vector<Resource>* resources, Resource resource) {
  const auto at = std::lower_bound(resources->begin(), resources->end(), resource, ResourceLess);
  if (at != resources->end() && !ResourceLess(resource, *at)) return false;
  resources->insert(at, std::move(resource));
  return true;
}

std::vector<unsigned char> BuildBlob(const std::vector<Resource>& resources) {
  const std::uint32_t count = static_cast<std::uint32_t>(resources.size());
  std::uint32_t at = 16 + 20 * count;
  std::vector<std::uint32_t> nameAt(resources.size(), 0);
  for (std::size_t i = 0; i < resources.size(); ++i) {
    if (resources[i].name.empty()) continue;
    nameAt[i] = at;
    at += 2 + 2 * static_cast<std::uint32_t>(resources[i].name.size());
  }
  std::vector<std::uint32_t> dataAt(resources.size(), 0);
  for (std::size_t i = 0; i < resources.size(); ++i) {
    at = (at + 3) & ~3u;
    dataAt[i] = at;
    at += static_cast<std::uint32_t>(resources[i].data.size());
  }
  const std::uint32_t total = (at + 3) & ~3u;

  std::vector<unsigned char> out;
  out.reserve(total);
  Put32(&out, 0x53524E51);  // the bytes "QNRS"
  Put16(&out, 1);
  Put16(&out, 20);
  Put32(&out, count);
  Put32(&out, total);
  for (std::size_t i = 0; i < resources.size(); ++i) {
    const Resource& r = resources[i];
    Put32(&out, r.type);
    Put32(&out, r.name.empty() ? static_cast<std::uint32_t>(r.id) : 0);
    Put32(&out, nameAt[i]);
    Put32(&out, dataAt[i]);
    Put32(&out, static_cast<std::uint32_t>(r.data.size()));
  }
  for (const Resource& r : resources) {
    if (r.name.empty()) continue;
    Put16(&out, static_cast<unsigned>(r.name.size()));
    for (const char16_t c : r.name) Put16(&out, c);
  }
  for (std::size_t i = 0; i < resources.size(); ++i) {
    out.resize(dataAt[i], 0);
    out.insert(out.end(), resources[i].data.begin(), resources[i].data.end());
  }
  out.resize(total, 0);
  return out;
}

std::string BlobToCpp(const std::vector<unsigned char>& blob, const std::string& symbol,
                      const std::string& scriptName) {
  std::string out;
  out += "// The resources of " + scriptName + ", made by qnrc. Regenerated by every build.\n";
  out += "// One relocation-free array in a section of its own, exported for the\n";
  out += "// resource manager; docs/resource-format.md gives its layout.\n";
  out +=
      "extern \"C\" __attribute__((visibility(\"default\"), used, section(\".qnres\"), "
      "aligned(16))) const unsigned char " +
      symbol + "[" + std::to_string(blob.size()) + "] = {";
  char buf[8];
  for (std::size_t i = 0; i < blob.size(); ++i) {
    if (i % 16 == 0) out += "\n   ";
    std::snprintf(buf, sizeof buf, " 0x%02X,", blob[i]);
    out += buf;
  }
  out += "\n};\n";
  return out;
}

bool ResourcesToRc(const std::vector<Resource>& resources, const std::string& scriptName,
                   const std::string& folder, std::string* rc, std::vector<SideFile>* sideFiles,
                   Error* error) {
  std::string out;
  out += "// The resources of " + scriptName + ", made by qnrc. Regenerated by every build.\n";
  out += "// Each resource is raw data of its own type: 16-bit words (little-endian)\n";
  out += "// and, for an odd size, the last byte as a one-byte text; cursors, icons\n";
  out += "// and their groups are files beside the script.\n";
  out += "LANGUAGE 0, 0\n";
  char buf[16];
  for (const Resource& r : resources) {
    if (r.type < 1 || r.type > 65535 || (r.name.empty() && (r.id < 1 || r.id > 65535))) {
      error->line = r.line;
      error->message = "a Windows resource needs a type and an id from 1 to 65535";
      return false;
    }
    if (r.name.empty()) {
      out += std::to_string(r.id);
    } else {
      out += '"';
      for (char16_t u : r.name) {
        if (u < 0x20 || u > 0x7E || u == '"' || u == '\\') {
          error->line = r.line;
          error->message = "a Windows resource name is kept to printable ASCII";
          return false;
        }
        out += static_cast<char>(u);
      }
      out += '"';
    }
    out += ' ' + std::to_string(r.type);
    if (r.type == 1 || r.type == 3 || r.type == 12 || r.type == 14) {
      SideFile file{folder + "/" + std::to_string(sideFiles->size()) + ".bin", r.data};
      for (char c : file.path) {
        if (c == '"' || c == '\\') {
          error->line = r.line;
          error->message = "the resource compiler cannot name the folder \"" + folder + "\"";
          return false;
        }
      }
      out += " \"" + file.path + "\"\n";
      // A statement of its own, so that a quoted name that follows is not
      // joined to this file name.
      out += "LANGUAGE 0, 0\n";
      sideFiles->push_back(std::move(file));
      continue;
    }
    out += " {";
    const std::size_t n = r.data.size();
    for (std::size_t i = 0; i + 1 < n; i += 2) {
      out += (i % 32 == 0) ? "\n  " : " ";
      std::snprintf(buf, sizeof buf, "0x%04X,", r.data[i] | (r.data[i + 1] << 8));
      out += buf;
    }
    if (n % 2 != 0) {
      std::snprintf(buf, sizeof buf, "\n  \"\\x%02X\"", r.data[n - 1]);
      out += buf;
    } else if (n > 0) {
      out.pop_back();  // the last word's comma
    }
    out += "\n}\n";
  }
  *rc = out;
  return true;
}

}  // namespace qnrc
