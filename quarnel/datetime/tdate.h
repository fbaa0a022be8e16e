// TDate, TDateStep and TInterval: the library's calendar date-and-time
// value, the calendar step that moves it, and the exact duration between two
// dates.
//
// TDate holds broken-down fields of the proleptic Gregorian calendar from
// 0001-01-01 to 4000-12-31, to the millisecond, with a flags word, a free
// time-zone word and a GMT offset. It is a 16-byte record with a trivial
// copy, so that arrays of dates can be moved as bytes; its stored form is the
// 8-byte persistence header ('Dte.', versions 256) and those 16 bytes in the
// writer's byte order:
//
//   0 flags (16)   2 year (16)    4 month (8)   5 day (8)   6 millisecond (16)
//   8 second (8)   9 minute (8)  10 hour (8)   11 reserved (8)
//  12 time-zone word (signed 16)                14 GMT offset (signed 16)
//
// Flag kDateFlagAbsolute (0x0100) says that the fields are a local time at
// the GMT offset (minutes east of Greenwich); comparisons first move such
// dates to UTC (AbsToFloating). Flag 0x0001 is set by the default and field
// constructors; other bits are the host's.
//
// The setters check their range and, out of range, raise Debug("datetime",
// line) and store the value all the same (no clamping). The millisecond
// setter keeps only the low eight bits of its argument (999 is stored as
// 231), and every path that sets milliseconds goes through it: dates built
// from fields, from a SYSTEMTIME or by arithmetic carry milliseconds modulo
// 256. Only Import and assignment place a value above 255. Kept so on
// purpose: stored dates of the existing applications depend on it.
//
// Arithmetic (+, -, +=, -= with a TDateStep or a TInterval) builds a fresh
// date by carrying normalisation: the result always has flags 0x0001, time
// zone 0 and offset 0, whatever the operand carried.
//
// Conversions that cannot be done (null, zero or unconvertible input) give
// the Reset date silently. A TDate has no lock: one object, one thread at a
// time.
#ifndef QUARNEL_DATETIME_TDATE_H_
#define QUARNEL_DATETIME_TDATE_H_

#include <cstdint>
#include <type_traits>

#include "quarnel/foundation/export.h"

struct USYSTEMTIME;
struct UFILETIME;
class TDateStep;
class TInterval;

// Set by TDate() and the field constructor.
inline constexpr unsigned short kDateFlagFields = 0x0001;
// The fields are a local time at the GMT offset.
inline constexpr unsigned short kDateFlagAbsolute = 0x0100;

// Day numbers of the proleptic Gregorian calendar, 0001-01-01 being day 1,
// by Neri and Schneider's Euclidean affine functions on a year that starts
// in March: no tables, no loops, 32-bit arithmetic. Exact for years 1..4000
// with months 1..12 and for day numbers 1..1,460,970 (4000-12-31); TDate's
// inline members use them there and leave every other value to the checked,
// asserting paths.
namespace quarnel_daynumber {

struct Civil {
  unsigned year, month, day;
};

constexpr int FromCivil(unsigned y, unsigned m, unsigned d) {
  const unsigned j = m <= 2;
  const unsigned ym = y - j;  // the year of a March-based calendar
  const unsigned c = ym / 100;
  const unsigned yearDays = 1461 * ym / 4 - c + c / 4;
  const unsigned monthDays = (979 * (j ? m + 12 : m) - 2919) / 32;
  return static_cast<int>(yearDays + monthDays + d) - 306;
}

constexpr Civil ToCivil(unsigned dayNumber) {
  const std::uint32_t n1 = 4 * (dayNumber + 305) + 3;  // from days since 0000-03-01
  const std::uint32_t century = n1 / 146097;
  const std::uint32_t n2 = n1 % 146097 / 4 * 4 + 3;
  const std::uint64_t p2 = std::uint64_t{2939745} * n2;
  const std::uint32_t yearOfCentury = static_cast<std::uint32_t>(p2 >> 32);
  const std::uint32_t dayOfYear = static_cast<std::uint32_t>(p2) / 2939745 / 4;
  const std::uint32_t n3 = 2141 * dayOfYear + 197913;
  const bool january = dayOfYear >= 306;  // January and February end the March-based year
  return Civil{100 * century + yearOfCentury + january, (n3 >> 16) - (january ? 12 : 0),
               (n3 & 0xFFFF) / 2141 + 1};
}

static_assert(FromCivil(1, 1, 1) == 1 && FromCivil(4000, 12, 31) == 1460970);
static_assert(ToCivil(1).year == 1 && ToCivil(1460970).month == 12 && ToCivil(1460970).day == 31);

}  // namespace quarnel_daynumber

class QUARNEL_API TDate {
 public:
  // 0001-01-01 00:00:00.000, flags 0x0001, time zone 0, offset 0.
  TDate() {
    Reset();
    flags_ = kDateFlagFields;
  }
  TDate(const TDate&) = default;
  TDate& operator=(const TDate&) = default;
  // Reset, flags 0x0001, then the seven setters (each may assert).
  TDate(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
        unsigned short minute, unsigned short second, unsigned short millisecond);
  // Reset (flags 0), then FromSystemTime / FromFileTime / FromDosDateTime.
  explicit TDate(const USYSTEMTIME* st);
  explicit TDate(const UFILETIME* ft);
  explicit TDate(const std::uint64_t* ticks);
  TDate(unsigned short dosDate, unsigned short dosTime);

  unsigned short GetYear() const { return year_; }
  unsigned short GetMonth() const { return month_; }
  unsigned short GetDay() const { return day_; }
  unsigned short GetHour() const { return hour_; }
  unsigned short GetMinute() const { return minute_; }
  unsigned short GetSecond() const { return second_; }
  unsigned short GetMillisecond() const { return millisecond_; }
  unsigned short GetFlags() const { return flags_; }
  int GetTimezone() const { return timezone_; }
  int GetGMTOffset() const { return gmtOffset_; }
  // Store the low 16 bits.
  void SetTimezone(int tz) { timezone_ = static_cast<std::int16_t>(tz); }
  void SetGMTOffset(int minutesEast) { gmtOffset_ = static_cast<std::int16_t>(minutesEast); }
  // flags = (flags AND NOT clear) OR set.
  void SetFlags(unsigned short set, unsigned short clear) {
    flags_ = static_cast<std::uint16_t>((flags_ & ~clear) | set);
  }

  // Range-checked setters (assertion lines: year 668, month 658, day 650,
  // hour 640, minute 630, second 620, millisecond 610); the value is stored
  // regardless, the 8-bit fields keep its low 8 bits, and the millisecond
  // keeps its low 8 bits too (see above). The day is not checked against the
  // month's length.
  void SetYear(unsigned short year) {
    if (year < 1 || year > 4000) outOfRange(kLineSetYear);
    year_ = year;
  }
  void SetMonth(unsigned short month) {
    if (month < 1 || month > 12) outOfRange(kLineSetMonth);
    month_ = static_cast<std::uint8_t>(month);
  }
  void SetDay(unsigned short day) {
    if (day < 1 || day > 31) outOfRange(kLineSetDay);
    day_ = static_cast<std::uint8_t>(day);
  }
  void SetHour(unsigned short hour) {
    if (hour > 23) outOfRange(kLineSetHour);
    hour_ = static_cast<std::uint8_t>(hour);
  }
  void SetMinute(unsigned short minute) {
    if (minute > 59) outOfRange(kLineSetMinute);
    minute_ = static_cast<std::uint8_t>(minute);
  }
  void SetSecond(unsigned short second) {
    if (second > 59) outOfRange(kLineSetSecond);
    second_ = static_cast<std::uint8_t>(second);
  }
  void SetMillisecond(unsigned short millisecond) {
    if (millisecond > 999) outOfRange(kLineSetMillisecond);
    millisecond_ = static_cast<std::uint8_t>(millisecond);  // low 8 bits, on purpose
  }

  // A null SYSTEMTIME, or one whose seven fields (the day of the week aside)
  // are all zero, gives Reset. Otherwise each field is read as a signed
  // 16-bit number, clamped to its range (year 1..4000, ..., millisecond
  // 0..999) and set; flags, time zone and offset stay as they were.
  void FromSystemTime(const USYSTEMTIME* st);
  // A null pointer, a zero value or a refused FileTimeToSystemTime give
  // Reset; otherwise FromSystemTime of the result. The FILETIME's clock is
  // taken as it stands (no UTC/local conversion).
  void FromFileTime(const UFILETIME* ft);
  void FromFileTime(const std::uint64_t* ticks);
  // DosDateTimeToFileTime, then FromFileTime (a refused DOS date resets).
  void FromDosDateTime(unsigned short dosDate, unsigned short dosTime);
  // 1904-01-01 00:00:00 plus `seconds`.
  void FromMacDateTime(unsigned seconds);

  // Year, month, day of the week, day, hour, minute, second, millisecond.
  void ToSystemTime(USYSTEMTIME* st) const;
  // ToSystemTime, then SystemTimeToFileTime. The output is zeroed first, so
  // a date Windows cannot express (before 1601) gives 0, the "no date" of
  // FILETIMEs; returns the platform call's result (1 or 0).
  int ToFileTime(UFILETIME* ft) const;
  int ToFileTime(std::uint64_t* ticks) const;
  // ToFileTime, then FileTimeToDosDateTime; both outputs are zeroed first
  // (a date outside 1980..2107 gives 0, 0). Returns the platform result.
  int ToDosDateTime(unsigned short* dosDate, unsigned short* dosTime) const;
  // (FILETIME of this date - FILETIME of 1904-01-01) / 10,000,000 in
  // unsigned 64-bit arithmetic; the low 32 bits are stored.
  void ToMacDateTime(unsigned* seconds) const;

  // GetLocalTime, then FromSystemTime.
  void SetToCurrent();
  // ToSystemTime, then SetLocalTime: 1 when the clock was set, 0 when not
  // (the platform's last error says why: 1314 without the privilege).
  int AssignClock() const;

  // Day of the week of the day number: 0 = Sunday .. 6 = Saturday.
  int GetDOW() const;
  // Days in this date's month (29 for February of a leap year).
  int GetMaxDays() const;
  // Which occurrence of its weekday this date is in its month (1..5).
  int GetMonthWeek() const;
  // How often this date's weekday occurs in its month (4 or 5).
  int GetMaxWeeks() const;
  // Day of the month of the n-th weekday `dow` (0 = Sunday) of this month;
  // n = 5 means the last one. Other n are not checked.
  int GetMonthWeekDay(int dow, int n) const;
  // An odd second goes up by one, without carry: 59 becomes 60 and asserts,
  // which callers that feed two-second DOS times accept.
  void MakeEven();
  // 0001-01-01 00:00:00.000, flags 0, reserved 0, time zone 0, offset 0.
  void Reset() {
    flags_ = 0;
    year_ = 1;
    month_ = 1;
    day_ = 1;
    millisecond_ = 0;
    second_ = 0;
    minute_ = 0;
    hour_ = 0;
    reserved_ = 0;
    timezone_ = 0;
    gmtOffset_ = 0;
  }
  // True when *this == TDate().
  bool IsDefault() const;
  // With flag 0x0100 and a nonzero offset (and not exactly 0001-01-01
  // 00:00:00.000): moves the date to UTC by the offset and clears the flag.
  // The move is calendar arithmetic, so flags become 0x0001 and the time-zone
  // word and offset 0.
  void AbsToFloating();

  // The day number: 0001-01-01 is day 1, 4000-12-31 day 1,460,970. A year
  // outside 1..4000 asserts (105) and is counted all the same.
  int getTotalDays() const {
    if (static_cast<unsigned>(year_ - 1) < 4000u && static_cast<unsigned>(month_ - 1) < 12u) {
      return quarnel_daynumber::FromCivil(year_, month_, day_);
    }
    return totalDaysChecked();
  }
  // hour * 3,600,000 + minute * 60,000 + second * 1,000 + millisecond.
  int getTotalMilliseconds() const {
    return hour_ * 3600000 + minute_ * 60000 + second_ * 1000 + millisecond_;
  }
  // The date the arithmetic builds from a day number and signed hour,
  // minute, second and millisecond totals: the totals carry upwards with
  // floor division, the day number becomes year, month and day (outside
  // 0..1,460,970 it asserts, 130, and is converted all the same), and the
  // fields are set as the setters set them on a fresh TDate().
  static TDate FromDays(long long dayNumber, long long hours = 0, long long minutes = 0,
                        long long seconds = 0, long long milliseconds = 0) {
    if (static_cast<unsigned long long>(dayNumber - 1) < 1460970u &&
        static_cast<unsigned long long>(hours) < 24u &&
        static_cast<unsigned long long>(minutes) < 60u &&
        static_cast<unsigned long long>(seconds) < 60u &&
        static_cast<unsigned long long>(milliseconds) < 1000u) {
      const quarnel_daynumber::Civil c =
          quarnel_daynumber::ToCivil(static_cast<unsigned>(dayNumber));
      TDate d;
      d.year_ = static_cast<std::uint16_t>(c.year);
      d.month_ = static_cast<std::uint8_t>(c.month);
      d.day_ = static_cast<std::uint8_t>(c.day);
      d.hour_ = static_cast<std::uint8_t>(hours);
      d.minute_ = static_cast<std::uint8_t>(minutes);
      d.second_ = static_cast<std::uint8_t>(seconds);
      d.millisecond_ = static_cast<std::uint8_t>(milliseconds);  // modulo 256, as SetMillisecond
      return d;
    }
    return fromDaysCarried(dayNumber, hours, minutes, seconds, milliseconds);
  }

  // Persistence. StoreSize is 24. Export: -695 when size is below 24, else
  // the header and the 16 bytes; returns 24. Import: -696 when size is below
  // 24, the header check's code (-690 .. -694) when it refuses, -1124 with
  // the line "TDate::Import: bad date ..." (517) for a field outside year
  // 1..4000, month 1..12, day 1..31, hour 0..23, minute 0..59, second 0..60,
  // millisecond 0..999; else the 16 bytes are copied as they are; returns 24.
  // A refused record leaves the date as it was.
  int StoreSize() const { return 24; }
  int Export(void* buf, int size) const;
  int Import(const void* buf, int size);

  // == compares year, month, day, hour, minute, second and millisecond of
  // copies moved by AbsToFloating; flags, time zone and offset never take
  // part. < and > compare the day number, then the total milliseconds, of
  // such copies.
  bool operator==(const TDate& o) const;
  bool operator!=(const TDate& o) const { return !(*this == o); }
  bool operator<(const TDate& o) const;
  bool operator>(const TDate& o) const;
  bool operator<=(const TDate& o) const { return *this < o || *this == o; }
  bool operator>=(const TDate& o) const { return *this > o || *this == o; }

  // (day number of this - of o) days and (total milliseconds of this - of o)
  // milliseconds, normalised; no AbsToFloating.
  TInterval operator-(const TDate& o) const;

  TDate operator+(const TDateStep& st) const;
  TDate operator-(const TDateStep& st) const;
  TDate& operator+=(const TDateStep& st);
  TDate& operator-=(const TDateStep& st);
  TDate operator+(const TInterval& iv) const;
  TDate operator-(const TInterval& iv) const;
  TDate& operator+=(const TInterval& iv);
  TDate& operator-=(const TInterval& iv);

 private:
  // Move this date by the step or interval; sign must be +1 or -1
  // (otherwise Debug 935 / 1006, and the sign is used anyway).
  void sum(const TDateStep& st, short sign);
  void sum(const TInterval& iv, short sign);
  // The setters' assertion lines (module "datetime").
  enum : int {
    kLineSetYear = 668,
    kLineSetMonth = 658,
    kLineSetDay = 650,
    kLineSetHour = 640,
    kLineSetMinute = 630,
    kLineSetSecond = 620,
    kLineSetMillisecond = 610,
  };
  // Debug("datetime", line) for a setter's value out of range.
  static void outOfRange(int line);
  // The paths of getTotalDays and FromDays for what the inline arithmetic
  // does not cover: assertions, carrying and the table conversion.
  int totalDaysChecked() const;
  static TDate fromDaysCarried(long long dayNumber, long long hours, long long minutes,
                               long long seconds, long long milliseconds);

  std::uint16_t flags_;
  std::uint16_t year_;
  std::uint8_t month_;
  std::uint8_t day_;
  std::uint16_t millisecond_;
  std::uint8_t second_;
  std::uint8_t minute_;
  std::uint8_t hour_;
  std::uint8_t reserved_;
  std::int16_t timezone_;
  std::int16_t gmtOffset_;
};

static_assert(sizeof(TDate) == 16, "a TDate is the 16-byte record its stored form holds");
static_assert(std::is_trivially_copyable_v<TDate>, "dates are copied as bytes");

// A calendar step: so many years, months, weeks, days, hours, minutes,
// seconds and milliseconds, without a sign (the operator gives the
// direction). Months and years follow the calendar and clamp the day to the
// end of a shorter month; days, weeks and times are exact. Stored form: the
// persistence header ('DtS.', versions 256) and the eight 16-bit fields in
// the order milliseconds, seconds, minutes, hours, days, weeks, months,
// years.
class QUARNEL_API TDateStep {
 public:
  TDateStep() = default;
  TDateStep(unsigned short years, unsigned short months, unsigned short weeks, unsigned short days,
            unsigned short hours, unsigned short minutes, unsigned short seconds,
            unsigned short milliseconds);
  void Reset() { *this = TDateStep(); }

  unsigned short GetYears() const { return years_; }
  unsigned short GetMonths() const { return months_; }
  unsigned short GetWeeks() const { return weeks_; }
  unsigned short GetDays() const { return days_; }
  unsigned short GetHours() const { return hours_; }
  unsigned short GetMinutes() const { return minutes_; }
  unsigned short GetSeconds() const { return seconds_; }
  unsigned short GetMilliseconds() const { return milliseconds_; }
  // Hours, minutes and seconds are clamped to at most 99, milliseconds to
  // 999, silently; the others take any value.
  void SetYears(unsigned short v) { years_ = v; }
  void SetMonths(unsigned short v) { months_ = v; }
  void SetWeeks(unsigned short v) { weeks_ = v; }
  void SetDays(unsigned short v) { days_ = v; }
  void SetHours(unsigned short v) { hours_ = v > 99 ? 99 : v; }
  void SetMinutes(unsigned short v) { minutes_ = v > 99 ? 99 : v; }
  void SetSeconds(unsigned short v) { seconds_ = v > 99 ? 99 : v; }
  void SetMilliseconds(unsigned short v) { milliseconds_ = v > 999 ? 999 : v; }

  // StoreSize 24; Export -695 / Import -696 for a short buffer, Import the
  // header check's code; the fields are copied as they are.
  int StoreSize() const { return 24; }
  int Export(void* buf, int size) const;
  int Import(const void* buf, int size);

  // Lexicographic on years; months; weeks * 7 + days; hours; then minutes *
  // 60,000 + seconds * 1,000 + milliseconds. Hours are compared on their own,
  // so 1 hour is greater than 90 minutes. == compares the eight fields, so 1
  // week and 7 days are neither equal nor ordered: kept so on purpose.
  bool operator==(const TDateStep& o) const;
  bool operator!=(const TDateStep& o) const { return !(*this == o); }
  bool operator<(const TDateStep& o) const;
  bool operator>(const TDateStep& o) const { return o < *this; }
  bool operator<=(const TDateStep& o) const { return *this < o || *this == o; }
  bool operator>=(const TDateStep& o) const { return *this > o || *this == o; }

 private:
  friend class TDate;
  std::uint16_t milliseconds_ = 0;
  std::uint16_t seconds_ = 0;
  std::uint16_t minutes_ = 0;
  std::uint16_t hours_ = 0;
  std::uint16_t days_ = 0;
  std::uint16_t weeks_ = 0;
  std::uint16_t months_ = 0;
  std::uint16_t years_ = 0;
};

static_assert(sizeof(TDateStep) == 16, "a TDateStep is eight 16-bit fields");

// An exact signed duration: whole days and milliseconds. Normalised, the
// milliseconds stay below one day in magnitude and share the sign of the
// days whenever the days are nonzero. Stored form: the persistence header
// ('Itv.', versions 256), then days and milliseconds (signed 32-bit each).
// Arithmetic wraps at 32 bits like the stored fields.
class QUARNEL_API TInterval {
 public:
  TInterval() = default;
  // Set(days, hours, minutes, seconds, milliseconds).
  TInterval(int days, int hours, int minutes, int seconds, int milliseconds);
  void Reset() { days_ = 0, milliseconds_ = 0; }
  // days = d + h/24 + m/1,440 + s/86,400 + ms/86,400,000 (asserts 1405
  // above 1,460,970 and keeps it); the remainders make the milliseconds;
  // then normalise.
  void Set(int days, int hours, int minutes, int seconds, int milliseconds);

  // Each normalises first; the totals truncate toward zero.
  int GetDays();
  int GetMilliseconds();
  int GetSeconds();
  int GetMinutes();
  int GetHours();
  bool IsDefault() const { return days_ == 0 && milliseconds_ == 0; }

  TInterval operator+(const TInterval& o) const;
  TInterval operator-(const TInterval& o) const;
  TInterval& operator+=(const TInterval& o);
  TInterval& operator-=(const TInterval& o);

  // The stored fields as they stand (no normalising): days, then
  // milliseconds.
  bool operator==(const TInterval& o) const {
    return days_ == o.days_ && milliseconds_ == o.milliseconds_;
  }
  bool operator!=(const TInterval& o) const { return !(*this == o); }
  bool operator<(const TInterval& o) const {
    return days_ < o.days_ || (days_ == o.days_ && milliseconds_ < o.milliseconds_);
  }
  bool operator>(const TInterval& o) const { return o < *this; }
  bool operator<=(const TInterval& o) const { return *this < o || *this == o; }
  bool operator>=(const TInterval& o) const { return *this > o || *this == o; }

  // StoreSize 16. Export normalises, then writes; Import copies and
  // normalises; -695 / -696 for a short buffer, Import the header check's
  // code.
  int StoreSize() const { return 16; }
  int Export(void* buf, int size);
  int Import(const void* buf, int size);

  // days += milliseconds / 86,400,000 (the remainder stays), then the signs
  // are made to agree.
  void normalize();

  // The fields as they stand, read and written without normalising or
  // range checks (for formatters and readers of the fields).
  int RawDays() const { return days_; }
  int RawMilliseconds() const { return milliseconds_; }
  void SetRaw(int days, int milliseconds) { days_ = days, milliseconds_ = milliseconds; }

 private:
  friend class TDate;
  std::int32_t days_ = 0;
  std::int32_t milliseconds_ = 0;
};

static_assert(sizeof(TInterval) == 8, "a TInterval is two 32-bit fields");

#endif  // QUARNEL_DATETIME_TDATE_H_
