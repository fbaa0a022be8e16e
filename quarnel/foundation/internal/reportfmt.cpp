#include "quarnel/foundation/internal/reportfmt.h"

#include <cstdint>

#include "quarnel/text/internal/datefmt.h"

namespace {

class Out {
 public:
  Out(char* p, int cap) : p_(p), cap_(cap) {}
  void Put(char c) {
    if (n_ + 1 < cap_) p_[n_++] = c;
  }
  void Pad(char c, int count) {
    for (int i = 0; i < count; ++i) Put(c);
  }
  int Finish() {
    p_[n_] = '\0';
    return n_;
  }

 private:
  char* p_;
  int cap_;
  int n_ = 0;
};

struct Spec {
  bool left = false;
  bool zero = false;
  int width = 0;
  int precision = -1;
  bool wide = false;  // l, L, ll
};

const TArg* ArgAt(const Args* args, int i) {
  return args != nullptr && i < args->count ? &args->items[i] : nullptr;
}

std::uint64_t IntegerOf(const TArg* a) {
  if (a == nullptr) return 0;
  switch (a->kind) {
    case TArg::kSigned:
      return static_cast<std::uint64_t>(a->i);
    case TArg::kUnsigned:
      return a->u;
    case TArg::kPointer:
      return reinterpret_cast<std::uintptr_t>(a->p);
    default:
      return 0;
  }
}

// The field `body` (n bytes, of which `sign` leads) padded to the width.
void Field(Out& out, const Spec& spec, const char* body, int n, bool numeric) {
  const int pad = spec.width > n ? spec.width - n : 0;
  if (spec.left) {
    for (int i = 0; i < n; ++i) out.Put(body[i]);
    out.Pad(' ', pad);
    return;
  }
  if (spec.zero && numeric) {
    int i = 0;
    if (n > 0 && body[0] == '-') out.Put(body[i++]);
    out.Pad('0', pad);
    for (; i < n; ++i) out.Put(body[i]);
    return;
  }
  out.Pad(' ', pad);
  for (int i = 0; i < n; ++i) out.Put(body[i]);
}

int Digits(char* buf, std::uint64_t v, unsigned base, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char rev[24];
  int n = 0;
  do {
    rev[n++] = digits[v % base];
    v /= base;
  } while (v != 0);
  for (int i = 0; i < n; ++i) buf[i] = rev[n - 1 - i];
  return n;
}

}  // namespace

int quarnel_internal::ReportFormat(char* outBuf, int cap, const char* format, const Args* args,
                                   const NarrowDateWords* words) {
  if (cap <= 0) return 0;
  Out out(outBuf, cap);
  int next = 0;
  for (const char* f = format; f != nullptr && *f != '\0';) {
    if (*f != '%') {
      out.Put(*f++);
      continue;
    }
    ++f;
    Spec spec;
    for (; *f == '-' || *f == '0'; ++f) (*f == '-' ? spec.left : spec.zero) = true;
    for (; *f >= '0' && *f <= '9'; ++f) spec.width = spec.width * 10 + (*f - '0');
    if (*f == '.') {
      spec.precision = 0;
      for (++f; *f >= '0' && *f <= '9'; ++f) spec.precision = spec.precision * 10 + (*f - '0');
    }
    for (; *f == 'h' || *f == 'l' || *f == 'L'; ++f) {
      if (*f != 'h') spec.wide = true;
    }
    const char conversion = *f;
    if (conversion == '\0') break;
    ++f;
    char body[32];
    switch (conversion) {
      case '%':
        out.Put('%');
        break;
      case 's': {
        const TArg* a = ArgAt(args, next++);
        const char* s = a != nullptr && a->kind == TArg::kNarrow && a->s != nullptr ? a->s : "";
        int n = 0;
        while (s[n] != '\0' && (spec.precision < 0 || n < spec.precision)) ++n;
        Field(out, spec, s, n, false);
        break;
      }
      case 'd':
      case 'u':
      case 'x':
      case 'X': {
        std::uint64_t v = IntegerOf(ArgAt(args, next++));
        int n = 0;
        if (conversion == 'd') {
          std::int64_t sv = spec.wide ? static_cast<std::int64_t>(v)
                                      : static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
          if (sv < 0) body[n++] = '-';
          const std::uint64_t mag =
              sv < 0 ? 0 - static_cast<std::uint64_t>(sv) : static_cast<std::uint64_t>(sv);
          n += Digits(body + n, mag, 10, false);
        } else {
          if (!spec.wide) v &= 0xFFFFFFFFu;
          n = Digits(body, v, conversion == 'u' ? 10 : 16, conversion == 'X');
        }
        Field(out, spec, body, n, true);
        break;
      }
      case 'y':
      case 'Y': {
        const auto v = static_cast<std::uint32_t>(IntegerOf(ArgAt(args, next++)));
        for (int i = 0; i < 4; ++i) {
          const auto c = static_cast<char>(v >> (24 - 8 * i));
          body[i] = c == 0 ? '7' : c;
        }
        Field(out, spec, body, 4, false);
        break;
      }
      case 'D':
      case 'T': {
        const TArg* a = ArgAt(args, next++);
        char text[160];
        int n = 0;
        if (a != nullptr && a->kind == TArg::kDate && a->date != nullptr && words != nullptr) {
          const DateForm form{static_cast<char16_t>(conversion), spec.precision, spec.zero, false};
          n = FormatDateNarrow(text, sizeof text, *a->date, form, *words);
        }
        Spec blank = spec;
        blank.zero = false;
        Field(out, blank, text, n, false);
        break;
      }
      default:
        break;
    }
  }
  return out.Finish();
}
