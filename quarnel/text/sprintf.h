// The formatting engine: TString::SPrintf, TString::ParseTemplate and
// TString::SScanf.
//
// ---------------------------------------------------------------------------
// OUTPUT (SPrintf)
//
// An empty format gives an empty string. The locale (UGetDefaultLCID) is read
// once per call; the locale's words come from TokenToString: token 1 decimal
// separator, 2 thousands separator, 4 "+", 5 "-", 24 time separator. The
// result is cut at TString::kMaxLength units without an assertion.
//
// Text is copied through until "%". A conversion is read in this fixed order:
//
//   %  [-] [0] [width | *] [. precision | .*] [~] [;] [L] conversion
//
//   -      left-justify in the width (for `i`: move back, see below)
//   0      pad on the left with "0" instead of blanks (after the sign of a
//          number); also turns digit grouping off. "-" wins over "0" for the
//          side of the padding.
//   width  decimal digits: the least number of units of the field. "*" takes
//          the low 16 bits of the next argument (as an unsigned number).
//   .prec  decimal digits or "*" as for the width; no digits means 0. Used by
//          s, S, E (at most so many units of the text) and F (the number of
//          implied decimals); ignored by the other conversions.
//   ~      no digit grouping.
//   ;      show the sign: a non-negative d or h (or Ld) gets token 4 ("+").
//   L      the argument is 64 bits wide (d, u, x, X, F, K, k).
//
// A format that ends inside a conversion ends formatting: what was made so
// far is the result.
//
// Conversions (an argument is one slot of the Args list, whatever its width):
//
//   %  ^  {  }  |   print themselves; no argument.
//   d   signed 32-bit (64 with L). Negative values get token 5. Digits are
//       grouped in threes with token 2 unless "~" or "0" is given.
//   u   unsigned 32-bit (64 with L), grouped as d.
//   H   unsigned 64-bit, grouped as d.       h   signed 64-bit, as d.
//   x X unsigned 32-bit (64 with L) in lower / upper case hexadecimal.
//   c C one UTF-16 unit: the low 16 bits of the argument; 0 prints nothing.
//   s S a text: 8-bit text (system ANSI code page), UTF-16 text or a TString;
//       both letters take any of the three; null prints nothing.
//   F   unsigned 32-bit (64 with L) scaled integer with `precision` implied
//       decimals: the integer part grouped as d (or not, with "~"), token 1,
//       the remainder zero-padded to `precision` digits. "%.3F" of 1234 gives
//       "1.234" in en-US. With no precision (or 0) only the integer part.
//   E   error code: the message found by RMGetErrID and LoadKString; when no
//       module holds the code or the entry is missing, entry '0000' of list
//       16000 (the default resource module, vellores.dll, carries one).
//   Y y 32-bit four-character code: its four bytes, most significant first,
//       each printed as the unit of the same value; a zero byte prints "7".
//   K k byte count, scaled (below). K starts at the first unit letter, k at
//       the fourth.
//   D   a TDate: the date in the form the precision selects (table below).
//       "0" makes the day, month, hour, minute and second fields two digits
//       wide; "~" adds a blank and the time of day (%T), as "%.*D %T" would.
//       A missing (null) or default date prints the word 'Nevr' of list
//       16000 (empty while no resource module carries it), alone.
//   T   a TDate: its time of day in the form the precision selects; "0" as
//       for D; a missing or default date prints 'Nevr'.
//   I   a TInterval: normalised, a negative one gets token 5 and prints its
//       absolute value; milliseconds are not shown. A missing one prints as
//       zero. Precision below.
//   i   prints nothing and moves over arguments: forward by the width (1 when
//       no width is given), or back by as many with "-". The position stays
//       within the list (0 .. count). "%2i" skips two, "%-3i" goes back three.
//   #  $  and any other character: reserved; print nothing, take no argument.
//
// The field (the whole text of a conversion, sign included) is padded to the
// width (D, T and I pad with blanks; "0" keeps its meaning for them); i and
// the self-printing characters ignore the width.
//
// Date and time forms. Pictures are the locale's (GetLocaleInfo items
// through UGetLocaleInfoW) or fixed ones in the same picture syntax: d dd day,
// ddd dddd day names (tokens 29.. and 8..), M MM month, MMM MMMM month names
// (tokens 48.. and 36..), yy year in two digits (SScanf reads it back as a
// year from 1930 to 2029, the Windows default window), yyyy year (at least
// four digits), h hh 12-hour,
// H HH 24-hour, mm minute, ss second, tt AM/PM (tokens 6 and 7), 'text'
// literal. Examples: 2024-03-05 14:07:09.042 in en-US, GMT offset +60 with
// flag 0x0100 where shown.
//
//   conversion  picture                                   example
//   %D   %.0D   locale short date (LOCALE_SSHORTDATE)     3/5/2024
//   %0D         the same, fields two digits wide           03/05/2024
//   %.1D        locale long date (LOCALE_SLONGDATE)       Tuesday, March 5, 2024
//   %.2D        "ddd, dd MMM yy"                           Tue, 05 Mar 24
//   %.3D        "yyyy-MM-dd"                               2024-03-05
//   %.4D        "yyyy-MM-dd'T'HH:mm:ss", "." and the       2024-03-05T14:07:09.042+0100
//               milliseconds ("%03d"), then with flag
//               0x0100 the offset ("%s%02d%02d": token 4
//               or 5, hours, minutes)
//   %~D %.n~D   the date form n, a blank, then %T          3/5/2024 2:07:09 PM
//               (ignored with .4, which holds the time)
//   %T   %.0T   locale time (LOCALE_STIMEFORMAT)           2:07:09 PM
//   %.1T        "HH", token 24, "mm", token 24, "ss",      14:07:09.042
//               token 1 and the milliseconds ("%03d")
//   %.2T        the locale time without its seconds       2:07 PM
//   other precisions: as 0.
//
//   %I   %.0I   "%~d %02d:%02d:%02d" (days, hh:mm:ss);     1 02:03:04
//               without days "%02d:%02d:%02d"             02:03:04
//   %.1I        total hours "%d:%02d:%02d"                 26:03:04
//   %.2I        total minutes "%d:%02d"                    1563:04
//   %.3I        always with days                           0 02:03:04
//   (":" is token 24, the locale's time separator; other precisions: as 0)
//
// Missing and unfitting arguments: the engine never reads past the Args list.
// A conversion whose argument is missing (more conversions than arguments),
// or is of a kind it cannot print (a text for d, a number for s), prints as
// if it had been given 0 (numbers, F, K, Y, E) or an empty text (s, S, c).
// Integer conversions take signed and unsigned integers and also pointers
// (the address).
//
// Sizes (%K, %k). The unit letters are the text of entry 'KMkm' of list
// 16000; when that entry is missing the engine asserts (sprintf, 591) and
// goes on with no letter. A 32-bit argument is a byte count: it is first
// rounded up to a whole multiple of 1024 and divided by 1024. From there (and
// directly for a 64-bit argument, which counts units of the first letter):
//   - 0 prints the word 'Zero' of list 16000, a blank and the letter;
//   - up to 9999 prints the number grouped as d (or not, with "~"), a blank and
//     the letter;
//   - from 1023898 on, or beyond 32 bits, the value is rounded up to a
//     multiple of 1024 and divided by 1024, one letter further on;
//   - then it is multiplied by 10, rounded up and divided by 1024 again, one
//     letter further on, and printed with one decimal ("9.8 M").
//
// ---------------------------------------------------------------------------
// TEMPLATES (a format beginning with "{", and ParseTemplate)
//
// A template is a format in which braces have meaning; conversions work as
// above and use the arguments in order. Template syntax:
//
//   {text}                       a group: its text is formatted in place.
//   {#n:alt|alt|...}             a choice on argument n (1 = the first of the
//   {#n%m:alt|alt|...}           list), taken as an integer (0 when missing
//                                or not a number), or its remainder by m
//                                (0 .. m-1). Each alternative is
//                                `values=text` or just `text` (the default);
//                                the first alternative whose values hold the
//                                argument, or the first default, is formatted.
//                                values: items separated by ",", each a whole
//                                number (optionally negative) or a range
//                                "a-b" (both ends included).
//
// Alternatives and groups nest. "%{", "%}" and "%|" print the characters
// themselves. Groups nested deeper than 32 print nothing. Braces that do not
// close run to the end of the text. Example, English ordinals of n given n,
// n mod 10 and n / 10:
//   {%d{#3%10:1=th|{#2:1=st|2=nd|3=rd|th}}}
//
// ParseTemplate(const TString* tmpl, unsigned short argCount, args): formats
// tmpl as a template (whether or not it is wrapped in braces) with at most the
// first argCount arguments. ParseTemplate(listId, key, args) loads the
// template with LoadKString and formats it with all the arguments. Both
// return 0, kErrInvalidData when a brace or a choice was malformed (the
// string holds what could be made), kErrResourceNameNotFound when the list
// entry is missing (the string is empty).
//
// ---------------------------------------------------------------------------
// INPUT (SScanf)
//
// SScanf reads values out of the string by a format with the same conversion
// syntax and stores them through typed out-pointers (ScanArgs). It returns
// the number of values stored and stops at the first mismatch.
//
//   - A blank in the format matches any run of blanks and tabs, even none.
//     Other literal text must match unit for unit.
//   - d u H h: leading blanks skipped, an optional sign (token 5 or token 4),
//     then either "0x" or "0X" and hexadecimal digits (so "0x%x" text reads
//     back with "%u"), or decimal digits in which token 2 may separate groups
//     of exactly three digits (not with "~"). Values wrap to the target's
//     width; a negative value is stored as its two's complement.
//   - x X: leading blanks skipped, an optional "0x"/"0X", hexadecimal digits.
//   - c C: one unit, blanks included.
//   - s S: a text; no blanks are skipped. It ends before the next literal unit
//     of the format (the unit following the conversion) or, when the
//     conversion is last or followed by another conversion, at the end of the
//     string. A width caps the number of units.
//   - F: a number with token 1 and decimals, stored scaled by 10^precision
//     (extra decimals are dropped, missing ones count as 0).
//   - Y y: four units of at most 0xFF, most significant first.
//   - i: moves over out-pointers as in SPrintf. "*" after "%" reads a value
//     without storing it (no out-pointer is used); "-", "0", ";" are ignored.
//   - D T: a date in the form of the same conversion (precision and "~"
//     as in SPrintf; the fields may have one or two digits, names match
//     without regard to ASCII case) into a TDate out-pointer. Every form
//     SPrintf writes reads back to the fields it shows (and, for %.4D, the
//     offset and flag 0x0100); a date form without a time gives 00:00:00.000,
//     a time form without seconds or milliseconds gives 0 for them.
//     Dates are built through the setters (flags 0x0001), so the
//     milliseconds are kept modulo 256. D reads a whole new date; T keeps
//     the date of the target and replaces its time of day. The word 'Nevr'
//     reads as the default date; while that word is empty, an empty field
//     (the end of the string, or the format's next unit next) does. A field
//     out of range (month 13, 25 o'clock, year 0 or above 4000) is a
//     mismatch.
//   - I: an interval in the form of the same precision into a TInterval.
//   - %, ^, {, }, | match themselves. K, k and E cannot be read:
//     scanning stops there. Unknown conversions match nothing.
//
// An out-pointer that is missing or null, or of a kind that cannot hold the
// value (a number into a TString), leaves the value unstored and uncounted;
// scanning goes on.
// ---------------------------------------------------------------------------
#ifndef QUARNEL_TEXT_SPRINTF_H_
#define QUARNEL_TEXT_SPRINTF_H_

#include <cstdint>
#include <type_traits>

#include "quarnel/foundation/export.h"
#include "quarnel/text/args.h"

class TString;

// One out-pointer of SScanf.
struct ScanArg {
  enum Kind : std::uint8_t {
    kSigned,    // a signed integer of `size` bytes
    kUnsigned,  // an unsigned integer (or char16_t) of `size` bytes
    kString,    // a TString
    kDate,      // a TDate
    kInterval,  // a TInterval
  };
  Kind kind;
  std::uint8_t size;
  void* p;
};

struct ScanArgs {
  const ScanArg* items = nullptr;
  int count = 0;
};

namespace quarnel_args {

template <class T>
ScanArg MakeScanArg(T* p) {
  using D = std::remove_cv_t<T>;
  static_assert(!std::is_const_v<T>, "SScanf stores through its out-pointers");
  if constexpr (std::is_same_v<D, TString>) {
    return ScanArg{ScanArg::kString, 0, p};
  } else if constexpr (std::is_same_v<D, TDate>) {
    return ScanArg{ScanArg::kDate, 0, p};
  } else if constexpr (std::is_same_v<D, TInterval>) {
    return ScanArg{ScanArg::kInterval, 0, p};
  } else if constexpr (std::is_integral_v<D> && !std::is_same_v<D, bool>) {
    return ScanArg{std::is_signed_v<D> ? ScanArg::kSigned : ScanArg::kUnsigned,
                   static_cast<std::uint8_t>(sizeof(D)), p};
  } else {
    static_assert(std::is_integral_v<D>,
                  "SScanf stores into integers, TStrings, TDates and TIntervals");
    return ScanArg{};
  }
}

// Calls fn(const ScanArgs*) with the out-pointers packed into a list.
template <class Fn, class... P>
decltype(auto) WithScanArgs(Fn&& fn, P*... outs) {
  if constexpr (sizeof...(P) == 0) {
    const ScanArgs list{};
    return fn(&list);
  } else {
    const ScanArg items[] = {MakeScanArg(outs)...};
    const ScanArgs list{items, static_cast<int>(sizeof...(P))};
    return fn(&list);
  }
}

}  // namespace quarnel_args

namespace quarnel_internal {

// Formats a narrow format (each byte one unit, as log formats are) into out.
// The same engine as TString::SPrintf, without widening the format first.
void FormatNarrow(TString* out, const char* format, const Args* args);

}  // namespace quarnel_internal

#endif  // QUARNEL_TEXT_SPRINTF_H_
