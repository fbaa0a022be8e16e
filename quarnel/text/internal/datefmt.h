// The date-picture formatter behind the engine's %D, %T and %I conversions
// (the forms each precision selects are listed in sprintf.h), and the reader
// that takes the same text back for SScanf.
#ifndef QUARNEL_TEXT_INTERNAL_DATEFMT_H_
#define QUARNEL_TEXT_INTERNAL_DATEFMT_H_

class TDate;
class TInterval;
class TString;

namespace quarnel_internal {

struct DateForm {
  char16_t conversion;  // u'D' or u'T'
  int precision;        // -1: none given
  bool zero;            // "0": two-digit day, month, hour, minute and second fields
  bool withTime;        // "~" on D: the date, a blank and the time of day
};

// Appends the text of `date` (null: missing) in `form` to `out`; a missing or
// default date appends the word 'Nevr' of list 16000.
void AppendDate(TString* out, const TDate* date, const DateForm& form, unsigned lcid);

// Appends the text of `iv` (null: a zero interval) for the precision.
void AppendInterval(TString* out, const TInterval* iv, int precision, unsigned lcid);

// The locale's words and pictures of the date forms in 8-bit text (the
// system code page), prepared ahead so that a date can be written without
// allocating. words[t] is the text of token t (the decimal separator, signs,
// AM/PM, day and month names, the time separator).
struct NarrowDateWords {
  static constexpr int kTokens = 60;
  static constexpr int kWord = 48;
  static constexpr int kPicture = 96;
  char words[kTokens][kWord];
  char shortDate[kPicture];
  char longDate[kPicture];
  char time[kPicture];
  char timeNoSeconds[kPicture];
  char time1[kPicture];  // the picture of %.1T, with the locale's separator
};

// Fills `words` for locale `lcid`. Allocates: call it ahead, not where the
// date is written.
void PrepareNarrowDateWords(unsigned lcid, NarrowDateWords* words);

// Writes `date` in `form` (as AppendDate would, in 8-bit text) to out[0..cap),
// cut to cap - 1 bytes and zero-terminated; returns the length. A default
// date writes nothing. Allocates nothing and takes no lock.
int FormatDateNarrow(char* out, int cap, const TDate& date, const DateForm& form,
                     const NarrowDateWords& words);

// Reads a date written by AppendDate in `form` from s[0..n). `stop` is the
// format unit that follows the conversion (0: none or another conversion):
// when the word 'Nevr' is empty, an empty field (the end of the text, or
// `stop` next) reads as the default date. Returns the units consumed, or -1
// when the text does not hold the form; *out is changed only on success (a
// time form keeps the date of *out and replaces its time of day).
int ScanDate(const char16_t* s, int n, const DateForm& form, unsigned lcid, char16_t stop,
             TDate* out);

// Reads an interval written by AppendInterval; returns the units consumed or -1.
int ScanInterval(const char16_t* s, int n, int precision, unsigned lcid, TInterval* out);

}  // namespace quarnel_internal

#endif  // QUARNEL_TEXT_INTERNAL_DATEFMT_H_
