// The library's argument list: what a formatted call (TString::SPrintf,
// DebugLogf, Alertf, Queryf) hands to the formatting engine and to the host's
// hooks. The variadic forms pack their arguments into an Args on the stack, so
// the engine knows the kind and the count of every argument: a conversion
// never reads past the list, and a conversion whose argument is missing or of
// an unfitting kind prints as if it had been given 0 or an empty text.
//
// One argument is one slot whatever its width: "%i" and "%-i" move over
// slots, and a 64-bit value ("%H", "%LK") takes one slot.
#ifndef QUARNEL_TEXT_ARGS_H_
#define QUARNEL_TEXT_ARGS_H_

#include <cstdint>
#include <type_traits>

#include "quarnel/foundation/export.h"

class TString;
class TDate;
class TInterval;
struct Args;

struct TArg {
  enum Kind : std::uint8_t {
    kSigned,    // i: any signed integer, sign-extended
    kUnsigned,  // u: any unsigned integer, a char, a bool
    kNarrow,    // s: zero-terminated 8-bit text (may be null)
    kWide,      // w: zero-terminated UTF-16 text (may be null)
    kString,    // str: a TString (may be null)
    kDate,      // date: a TDate (may be null)
    kInterval,  // interval: a TInterval (may be null)
    kPointer,   // p: any other pointer
  };
  Kind kind;
  union {
    std::int64_t i;
    std::uint64_t u;
    const char* s;
    const char16_t* w;
    const TString* str;
    const TDate* date;
    const TInterval* interval;
    const void* p;
  };
};

struct Args {
  const TArg* items = nullptr;
  int count = 0;
};

namespace quarnel_args {

template <class T>
TArg MakeArg(const T& value) {
  using D = std::decay_t<T>;
  TArg a{};
  if constexpr (std::is_enum_v<D>) {
    return MakeArg(static_cast<std::underlying_type_t<D>>(value));
  } else if constexpr (std::is_same_v<D, bool> || std::is_same_v<D, char>) {
    a.kind = TArg::kUnsigned;
    a.u = static_cast<unsigned char>(value);
  } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
    a.kind = TArg::kSigned;
    a.i = value;
  } else if constexpr (std::is_integral_v<D>) {
    a.kind = TArg::kUnsigned;
    a.u = value;
  } else if constexpr (std::is_same_v<D, TString>) {
    a.kind = TArg::kString;
    a.str = &value;
  } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
    a.kind = TArg::kPointer;
    a.p = nullptr;
  } else if constexpr (std::is_pointer_v<D>) {
    using P = std::remove_cv_t<std::remove_pointer_t<D>>;
    static_assert(!std::is_same_v<P, Args>, "pass an Args list to the Args form of the call");
    const std::remove_pointer_t<D>* const d =
        value;  // an array argument decays to a pointer to const
    if constexpr (std::is_same_v<P, char> || std::is_same_v<P, signed char> ||
                  std::is_same_v<P, unsigned char>) {
      a.kind = TArg::kNarrow;
      a.s = reinterpret_cast<const char*>(d);
    } else if constexpr (std::is_same_v<P, char16_t>) {
      a.kind = TArg::kWide;
      a.w = d;
    } else if constexpr (std::is_same_v<P, TString>) {
      a.kind = TArg::kString;
      a.str = d;
    } else if constexpr (std::is_same_v<P, TDate>) {
      a.kind = TArg::kDate;
      a.date = d;
    } else if constexpr (std::is_same_v<P, TInterval>) {
      a.kind = TArg::kInterval;
      a.interval = d;
    } else {
      a.kind = TArg::kPointer;
      a.p = d;
    }
  } else {
    static_assert(std::is_integral_v<D>,
                  "the formatting engine takes integers, texts and pointers");
  }
  return a;
}

// Calls fn(const Args*) with the arguments packed into a list on the stack.
template <class Fn, class... A>
decltype(auto) WithArgs(Fn&& fn, const A&... values) {
  if constexpr (sizeof...(A) == 0) {
    const Args args{};
    return fn(&args);
  } else {
    const TArg items[] = {MakeArg(values)...};
    const Args args{items, static_cast<int>(sizeof...(A))};
    return fn(&args);
  }
}

}  // namespace quarnel_args

#endif  // QUARNEL_TEXT_ARGS_H_
