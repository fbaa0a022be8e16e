// The crash report's line formatter: formats into a fixed buffer, allocating
// nothing and taking no lock, so that it can run inside a signal handler.
//
//   %  [-] [0] [width] [. precision] [h | l | L | ll] conversion
//
//   -  0 width   as in C: left-justify, pad numbers with zeros, least width.
//   h          ignored ("%hs" is 8-bit text, as in the system's wsprintf).
//   l L ll     the integer is 64 bits wide; without them d, u, x and X take
//              the low 32 bits of their argument, as C's int would.
//   %          prints itself.
//   s          8-bit text (null prints nothing); the precision caps its bytes.
//   d u        signed and unsigned decimal, without digit grouping.
//   x X        lower and upper case hexadecimal.
//   y Y        a four-character code as the library's engine prints it: its
//              four bytes, most significant first; a zero byte prints "7".
//   D T        a TDate as the engine's %D and %T (precision and "0" as there),
//              with the locale's words prepared ahead (NarrowDateWords).
//
// Arguments come as the engine's Args list; a missing or unfitting one prints
// as 0 or as an empty text. Any other conversion character prints nothing.
#ifndef QUARNEL_FOUNDATION_INTERNAL_REPORTFMT_H_
#define QUARNEL_FOUNDATION_INTERNAL_REPORTFMT_H_

#include "quarnel/text/args.h"

namespace quarnel_internal {

struct NarrowDateWords;

// Formats into out[0..cap) (cap > 0), cut to cap - 1 bytes and zero-terminated.
// Returns the length written. `words` may be null when no date is printed.
int ReportFormat(char* out, int cap, const char* format, const Args* args,
                 const NarrowDateWords* words);

template <class... A>
int ReportPrintf(char* out, int cap, const NarrowDateWords* words, const char* format,
                 const A&... values) {
  return quarnel_args::WithArgs(
      [&](const Args* args) { return ReportFormat(out, cap, format, args, words); }, values...);
}

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_INTERNAL_REPORTFMT_H_
