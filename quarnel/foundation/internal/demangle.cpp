#include "quarnel/foundation/internal/demangle.h"

#include <cstring>
#include <initializer_list>

namespace {

constexpr int kMaxSubstitutions = 256;
constexpr int kMaxTemplateArgs = 64;
constexpr int kMaxDepth = 48;

// A piece of the text written so far.
struct Range {
  int b;
  int e;
};

struct NameInfo {
  bool templated = false;       // the last component carries template arguments
  bool ctorDtorConv = false;    // a constructor, destructor or conversion operator
  const char* qualifiers = "";  // of a member function: " const", " volatile"
  const char* ref = "";         // " &" or " &&"
};

struct Builtin {
  char code;
  const char* name;
};

constexpr Builtin kBuiltins[] = {
    {'v', "void"},        {'w', "wchar_t"},
    {'b', "bool"},        {'c', "char"},
    {'a', "signed char"}, {'h', "unsigned char"},
    {'s', "short"},       {'t', "unsigned short"},
    {'i', "int"},         {'j', "unsigned int"},
    {'l', "long"},        {'m', "unsigned long"},
    {'x', "long long"},   {'y', "unsigned long long"},
    {'n', "__int128"},    {'o', "unsigned __int128"},
    {'f', "float"},       {'d', "double"},
    {'e', "long double"}, {'g', "__float128"},
    {'z', "..."},
};

constexpr Builtin kDBuiltins[] = {
    {'n', "decltype(nullptr)"},
    {'s', "char16_t"},
    {'i', "char32_t"},
    {'u', "char8_t"},
    {'a', "auto"},
    {'c', "decltype(auto)"},
    {'f', "decimal32"},
    {'d', "decimal64"},
    {'e', "decimal128"},
    {'h', "half"},
};

struct Operator {
  char code[3];
  const char* text;
};

constexpr Operator kOperators[] = {
    {"nw", "new"}, {"na", "new[]"}, {"dl", "delete"}, {"da", "delete[]"}, {"ps", "+"},
    {"ng", "-"},   {"ad", "&"},     {"de", "*"},      {"co", "~"},        {"pl", "+"},
    {"mi", "-"},   {"ml", "*"},     {"dv", "/"},      {"rm", "%"},        {"an", "&"},
    {"or", "|"},   {"eo", "^"},     {"aS", "="},      {"pL", "+="},       {"mI", "-="},
    {"mL", "*="},  {"dV", "/="},    {"rM", "%="},     {"aN", "&="},       {"oR", "|="},
    {"eO", "^="},  {"ls", "<<"},    {"rs", ">>"},     {"lS", "<<="},      {"rS", ">>="},
    {"eq", "=="},  {"ne", "!="},    {"lt", "<"},      {"gt", ">"},        {"le", "<="},
    {"ge", ">="},  {"ss", "<=>"},   {"nt", "!"},      {"aa", "&&"},       {"oo", "||"},
    {"pp", "++"},  {"mm", "--"},    {"cm", ","},      {"pm", "->*"},      {"pt", "->"},
    {"cl", "()"},  {"ix", "[]"},    {"qu", "?"},
};

// The std:: abbreviations: short text, and the full one used before a
// constructor or destructor.
struct StdAbbreviation {
  char code;
  const char* text;
  const char* full;
};

constexpr StdAbbreviation kStdAbbreviations[] = {
    {'a', "std::allocator", "std::allocator"},
    {'b', "std::basic_string", "std::basic_string"},
    {'s', "std::string", "std::basic_string<char, std::char_traits<char>, std::allocator<char> >"},
    {'i', "std::istream", "std::basic_istream<char, std::char_traits<char> >"},
    {'o', "std::ostream", "std::basic_ostream<char, std::char_traits<char> >"},
    {'d', "std::iostream", "std::basic_iostream<char, std::char_traits<char> >"},
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }

class Demangler {
 public:
  Demangler(const char* in, char* out, int cap) : p_(in), out_(out), cap_(cap) {}

  int Run() {
    if (p_[0] != '_' || p_[1] != 'Z') return -1;
    p_ += 2;
    if (!TopLevel() || !CloneSuffixes() || *p_ != '\0' || !ok_) return -1;
    out_[n_] = '\0';
    return n_;
  }

 private:
  // ---- input and output ----
  char Peek(int k = 0) const {
    for (int i = 0; i < k; ++i) {
      if (p_[i] == '\0') return '\0';
    }
    return p_[k];
  }
  bool Eat(char c) {
    if (*p_ != c) return false;
    ++p_;
    return true;
  }
  void Put(char c) {
    if (n_ + 1 < cap_) {
      out_[n_++] = c;
    } else {
      ok_ = false;
    }
  }
  void Put(const char* s) {
    while (*s != '\0') Put(*s++);
  }
  void PutRange(Range r) {
    for (int i = r.b; i < r.e; ++i) Put(out_[i]);
  }
  char Last() const { return n_ > 0 ? out_[n_ - 1] : '\0'; }
  bool Fail() { return ok_ = false; }

  void AddSubstitution(int b) {
    if (nsubs_ >= kMaxSubstitutions) {
      ok_ = false;
      return;
    }
    subs_[nsubs_++] = Range{b, n_};
  }

  // ---- special names and encodings ----
  bool TopLevel() {
    if (Peek() == 'T') {
      const char kind = Peek(1);
      const char* text = kind == 'V'   ? "vtable for "
                         : kind == 'I' ? "typeinfo for "
                         : kind == 'S' ? "typeinfo name for "
                         : kind == 'T' ? "VTT for "
                                       : nullptr;
      if (text != nullptr) {
        p_ += 2;
        Put(text);
        return Type();
      }
      if (kind == 'h') {  // non-virtual thunk: Th <offset> _ <encoding>
        p_ += 2;
        Eat('n');
        if (!IsDigit(*p_)) return Fail();
        while (IsDigit(*p_)) ++p_;
        if (!Eat('_')) return Fail();
        Put("non-virtual thunk to ");
        return Encoding();
      }
      return Fail();
    }
    if (Peek() == 'G' && Peek(1) == 'V') {
      p_ += 2;
      Put("guard variable for ");
      NameInfo info;
      return Name(&info, true);
    }
    return Encoding();
  }

  bool Encoding() {
    const int start = n_;
    NameInfo info;
    if (!Name(&info, true)) return false;
    if (*p_ == '\0' || *p_ == '.') return true;  // a variable
    if (info.templated && !info.ctorDtorConv) {
      // The return type comes first in the text: written after the name, then
      // moved in front of it.
      const int nameEnd = n_;
      if (!Type()) return false;
      Put(' ');
      if (!ok_) return false;
      MoveToFront(start, nameEnd, n_);
    }
    Put('(');
    if (Peek() == 'v' && (Peek(1) == '\0' || Peek(1) == '.')) {
      ++p_;
    } else {
      for (bool first = true; *p_ != '\0' && *p_ != '.' && *p_ != 'E'; first = false) {
        if (!first) Put(", ");
        if (!Type()) return false;
      }
    }
    Put(')');
    Put(info.qualifiers);
    Put(info.ref);
    return ok_;
  }

  // Turns the text [start, mid) [mid, end) into [mid, end) [start, mid),
  // moving the recorded pieces with it.
  void MoveToFront(int start, int mid, int end) {
    Reverse(start, mid);
    Reverse(mid, end);
    Reverse(start, end);
    auto move = [&](Range& r) {
      if (r.b < start || r.b >= end) return;
      const int shift = r.b < mid ? end - mid : start - mid;
      r.b += shift;
      r.e += shift;
    };
    for (int i = 0; i < nsubs_; ++i) move(subs_[i]);
    for (int i = 0; i < ntargs_; ++i) move(targs_[i]);
  }

  void Reverse(int b, int e) {
    for (--e; b < e; ++b, --e) {
      const char t = out_[b];
      out_[b] = out_[e];
      out_[e] = t;
    }
  }

  bool CloneSuffixes() {
    while (Peek() == '.' && (IsLower(Peek(1)) || Peek(1) == '_' || IsDigit(Peek(1)))) {
      Put(" [clone ");
      Put(*p_++);
      if (IsDigit(*p_)) {
        while (IsDigit(*p_)) Put(*p_++);
      } else {
        while (IsLower(*p_) || *p_ == '_') Put(*p_++);
      }
      while (Peek() == '.' && IsDigit(Peek(1))) {
        Put(*p_++);
        while (IsDigit(*p_)) Put(*p_++);
      }
      Put(']');
    }
    return ok_;
  }

  // ---- names ----
  // `top`: the name of the entity being encoded, whose template arguments
  // the template parameters (T_) refer to.
  bool Name(NameInfo* info, bool top) {
    if (Peek() == 'N') return NestedName(info, top);
    if (Peek() == 'Z') return Fail();  // local names are declined
    const int start = n_;
    bool substituted = false;
    if (Peek() == 'S' && Peek(1) == 't') {
      p_ += 2;
      Put("std::");
      if (!UnqualifiedName(info, Range{start, start})) return false;
    } else if (Peek() == 'S') {
      if (!Substitution(false)) return false;
      substituted = true;
      if (Peek() != 'I') return Fail();
    } else if (!UnqualifiedName(info, Range{start, start})) {
      return false;
    }
    if (Peek() == 'I') {
      if (!substituted) AddSubstitution(start);
      if (!TemplateArgs(top)) return false;
      info->templated = true;
    }
    return ok_;
  }

  bool NestedName(NameInfo* info, bool top) {
    ++p_;  // N
    while (Peek() == 'K' || Peek() == 'V' || Peek() == 'r') {
      const char q = *p_++;
      if (q == 'r' || *info->qualifiers != '\0') return Fail();
      info->qualifiers = q == 'K' ? " const" : " volatile";
    }
    if (Eat('R')) {
      info->ref = " &";
    } else if (Eat('O')) {
      info->ref = " &&";
    }
    const int start = n_;
    bool any = false;              // a component has been written
    bool lastSubstituted = false;  // the last component was a substitution
    while (!Eat('E')) {
      if (*p_ == '\0') return Fail();
      info->templated = false;
      if (Peek() == 'I') {
        if (!any) return Fail();
        if (!lastSubstituted) AddSubstitution(start);
        if (!TemplateArgs(top)) return false;
        if (Peek() != 'E') AddSubstitution(start);
        info->templated = true;
        lastSubstituted = false;
        continue;
      }
      const Range prefix{start, n_};
      if (Peek() == 'S' && Peek(1) == 't' && !any) {
        p_ += 2;
        Put("std");
        any = true;
        lastSubstituted = true;  // "std" alone is no candidate
        continue;
      }
      if (any) Put("::");
      if (Peek() == 'S') {
        if (any || !Substitution(Peek(2) == 'C' || Peek(2) == 'D')) return Fail();
        lastSubstituted = true;
      } else {
        if (!UnqualifiedName(info, prefix)) return false;
        lastSubstituted = false;
        if (Peek() != 'E' && Peek() != 'I') AddSubstitution(start);
      }
      any = true;
    }
    return ok_ && any;
  }

  // The last component of the class named by `r`, without its template
  // arguments: the name of its constructors.
  Range ClassName(Range r) const {
    int e = r.e;
    // Template arguments, then ABI tags, come off the end.
    for (const char* pair : {"<>", "[]"}) {
      if (e <= r.b || out_[e - 1] != pair[1]) continue;
      int depth = 0;
      for (int i = e - 1; i >= r.b; --i) {
        if (out_[i] == pair[1]) ++depth;
        if (out_[i] == pair[0] && --depth == 0) {
          e = i;
          break;
        }
      }
    }
    int b = r.b;
    int depth = 0;
    for (int i = r.b; i + 1 < e; ++i) {
      if (out_[i] == '<') ++depth;
      if (out_[i] == '>') --depth;
      if (depth == 0 && out_[i] == ':' && out_[i + 1] == ':') b = i + 2;
    }
    return Range{b, e};
  }

  // `prefix` is the text of the enclosing class (for a constructor's name).
  bool UnqualifiedName(NameInfo* info, Range prefix) {
    if (Peek() == 'L' && IsDigit(Peek(1))) ++p_;  // internal linkage: not shown
    const char c = Peek();
    if (IsDigit(c)) {
      if (!SourceName()) return false;
    } else if (c == 'C' && (Peek(1) == '1' || Peek(1) == '2' || Peek(1) == '3')) {
      if (prefix.e == prefix.b) return Fail();
      p_ += 2;
      PutRange(ClassName(prefix));
      info->ctorDtorConv = true;
    } else if (c == 'D' && (Peek(1) == '0' || Peek(1) == '1' || Peek(1) == '2')) {
      if (prefix.e == prefix.b) return Fail();
      p_ += 2;
      Put('~');
      PutRange(ClassName(prefix));
      info->ctorDtorConv = true;
    } else if (c == 'c' && Peek(1) == 'v') {
      p_ += 2;
      Put("operator ");
      if (Peek() == 'T' || !Type()) return Fail();
      info->ctorDtorConv = true;
    } else if (IsLower(c)) {
      const Operator* op = nullptr;
      for (const Operator& o : kOperators) {
        if (o.code[0] == c && o.code[1] == Peek(1)) op = &o;
      }
      if (op == nullptr) return Fail();
      p_ += 2;
      Put("operator");
      if (IsLower(op->text[0])) Put(' ');
      Put(op->text);
    } else {
      return Fail();
    }
    while (Eat('B')) {
      Put("[abi:");
      if (!SourceName()) return false;
      Put(']');
    }
    return ok_;
  }

  bool SourceName() {
    int length = 0;
    if (!IsDigit(*p_)) return Fail();
    while (IsDigit(*p_)) {
      length = length * 10 + (*p_++ - '0');
      if (length > 4096) return Fail();
    }
    for (int i = 0; i < length; ++i) {
      if (p_[i] == '\0') return Fail();
    }
    static const char kAnonymous[] = "_GLOBAL__N";
    if (length >= 10 && std::memcmp(p_, kAnonymous, 8) == 0 &&
        (p_[8] == '.' || p_[8] == '_' || p_[8] == '$') && p_[9] == 'N') {
      Put("(anonymous namespace)");
    } else {
      for (int i = 0; i < length; ++i) Put(p_[i]);
    }
    p_ += length;
    return ok_;
  }

  // S_, S<seq-id>_ or a std:: abbreviation; `full` writes an abbreviation's
  // full text (before a constructor or destructor).
  bool Substitution(bool full) {
    ++p_;  // S
    for (const StdAbbreviation& a : kStdAbbreviations) {
      if (Eat(a.code)) {
        Put(full ? a.full : a.text);
        return ok_;
      }
    }
    int index = 0;
    if (!Eat('_')) {
      while (*p_ != '_') {
        const char c = *p_++;
        int d;
        if (IsDigit(c)) {
          d = c - '0';
        } else if (c >= 'A' && c <= 'Z') {
          d = c - 'A' + 10;
        } else {
          return Fail();
        }
        index = index * 36 + d;
        if (index >= kMaxSubstitutions) return Fail();
      }
      ++p_;
      ++index;
    }
    if (index >= nsubs_ || subs_[index].b < 0) return Fail();
    PutRange(subs_[index]);
    return ok_;
  }

  // ---- template arguments ----
  bool TemplateArgs(bool record) {
    ++p_;  // I
    if (Last() == '<') Put(' ');
    Put('<');
    Range args[kMaxTemplateArgs];
    int count = 0;
    for (bool first = true; !Eat('E'); first = false) {
      if (*p_ == '\0' || count == kMaxTemplateArgs) return Fail();
      if (!first) Put(", ");
      const int b = n_;
      if (!TemplateArg()) return false;
      args[count++] = Range{b, n_};
    }
    if (Last() == '>') Put(' ');
    Put('>');
    if (record) {
      for (int i = 0; i < count; ++i) targs_[i] = args[i];
      ntargs_ = count;
    }
    return ok_;
  }

  bool TemplateArg() {
    if (!Eat('L')) {
      if (Peek() == 'X' || Peek() == 'J') return Fail();
      return Type();
    }
    if (*p_ == '\0') return Fail();
    const char type = *p_++;
    const bool negative = Eat('n');
    const char* digits = p_;
    while (IsDigit(*p_)) ++p_;
    const int count = static_cast<int>(p_ - digits);
    if (count == 0 || !Eat('E')) return Fail();
    if (type == 'b' && count == 1 && !negative && (digits[0] == '0' || digits[0] == '1')) {
      Put(digits[0] == '1' ? "true" : "false");
      return ok_;
    }
    const char* suffix = type == 'j'   ? "u"
                         : type == 'l' ? "l"
                         : type == 'm' ? "ul"
                         : type == 'x' ? "ll"
                         : type == 'y' ? "ull"
                                       : "";
    if (type != 'i' && *suffix == '\0') {
      const char* name = nullptr;
      for (const Builtin& b : kBuiltins) {
        if (b.code == type && type != 'z' && type != 'v') name = b.name;
      }
      if (name == nullptr) return Fail();
      Put('(');
      Put(name);
      Put(')');
    }
    if (negative) Put('-');
    for (int i = 0; i < count; ++i) Put(digits[i]);
    Put(suffix);
    return ok_;
  }

  // ---- types ----
  bool Type() {
    if (++depth_ > kMaxDepth) return Fail();
    const bool done = TypeBody();
    --depth_;
    return done && ok_;
  }

  bool TypeBody() {
    const char c = Peek();
    for (const Builtin& b : kBuiltins) {
      if (b.code == c) {
        ++p_;
        Put(b.name);
        return true;
      }
    }
    const int start = n_;
    switch (c) {
      case 'D':
        for (const Builtin& b : kDBuiltins) {
          if (b.code == Peek(1)) {
            p_ += 2;
            Put(b.name);
            return true;
          }
        }
        return Fail();
      case 'P':
      case 'R':
      case 'O':
        ++p_;
        if (Peek() == 'F') return FunctionPointer(c, start);
        if (!Type()) return false;
        Put(c == 'P' ? "*" : c == 'R' ? "&" : "&&");
        AddSubstitution(start);
        return true;
      case 'K':
      case 'V': {
        const bool isVolatile = Eat('V');
        const bool isConst = Eat('K');
        if (Peek() == 'K' || Peek() == 'V' || Peek() == 'r') return Fail();
        if (!Type()) return false;
        if (isConst) Put(" const");
        if (isVolatile) Put(" volatile");
        AddSubstitution(start);
        return true;
      }
      case 'S':
        if (Peek(1) == 't') {
          p_ += 2;
          Put("std::");
          NameInfo info;
          if (!UnqualifiedName(&info, Range{start, start}) || info.ctorDtorConv) return Fail();
        } else {
          if (!Substitution(false)) return false;
          if (Peek() != 'I') return true;  // not added again
          return TemplateArgs(false) && (AddSubstitution(start), true);
        }
        break;
      case 'N': {
        NameInfo info;
        if (!NestedName(&info, false) || *info.qualifiers != '\0' || *info.ref != '\0') {
          return Fail();
        }
        AddSubstitution(start);
        return true;
      }
      case 'T': {
        ++p_;
        int index = 0;
        if (!Eat('_')) {
          if (!IsDigit(*p_)) return Fail();
          while (IsDigit(*p_)) {
            index = index * 10 + (*p_++ - '0');
            if (index >= kMaxTemplateArgs) return Fail();
          }
          if (!Eat('_')) return Fail();
          ++index;
        }
        if (index >= ntargs_ || Peek() == 'I') return Fail();
        PutRange(targs_[index]);
        AddSubstitution(start);
        return true;
      }
      default:
        if (!IsDigit(c)) return Fail();
        {
          NameInfo info;
          if (!UnqualifiedName(&info, Range{start, start})) return false;
        }
        break;
    }
    // A class or enum name, perhaps a template.
    if (Peek() == 'I') {
      AddSubstitution(start);
      if (!TemplateArgs(false)) return false;
    }
    AddSubstitution(start);
    return true;
  }

  // A pointer or reference to a function, "ret (*)(params)": `kind` is the
  // P, R or O before the F. The function type itself is recorded as a
  // substitution that cannot be used (its text is not in one piece).
  bool FunctionPointer(char kind, int start) {
    ++p_;  // F
    if (Peek() == 'Y') return Fail();
    if (!Type()) return false;
    Put(kind == 'P' ? " (*)(" : kind == 'R' ? " (&)(" : " (&&)(");
    if (Peek() == 'v' && Peek(1) == 'E') {
      ++p_;
    } else {
      for (bool first = true; Peek() != 'E'; first = false) {
        if (*p_ == '\0' || ((Peek() == 'R' || Peek() == 'O') && Peek(1) == 'E')) {
          return Fail();
        }
        if (!first) Put(", ");
        if (!Type()) return false;
      }
    }
    ++p_;  // E
    Put(')');
    if (nsubs_ >= kMaxSubstitutions) return Fail();
    subs_[nsubs_++] = Range{-1, -1};
    AddSubstitution(start);
    return ok_;
  }

  const char* p_;
  char* out_;
  int cap_;
  int n_ = 0;
  bool ok_ = true;
  int depth_ = 0;
  Range subs_[kMaxSubstitutions];
  int nsubs_ = 0;
  Range targs_[kMaxTemplateArgs];
  int ntargs_ = 0;
};

}  // namespace

int quarnel_internal::Demangle(const char* mangled, char* out, int cap) {
  if (mangled == nullptr || out == nullptr || cap <= 0) return -1;
  Demangler d(mangled, out, cap);
  return d.Run();
}
