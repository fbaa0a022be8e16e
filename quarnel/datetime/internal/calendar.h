// Calendar arithmetic shared by the date classes and the date formatter:
// day numbers (0001-01-01 is day 1), leap years, month tables, the inverse
// day-number conversion and floor division. No assertions here; the classes
// raise them where their contracts say.
#ifndef QUARNEL_DATETIME_INTERNAL_CALENDAR_H_
#define QUARNEL_DATETIME_INTERNAL_CALENDAR_H_

namespace quarnel_calendar {

// The assertion module of the date classes and its lines (the setters'
// lines are with the inline setters in tdate.h).
inline constexpr const char* kModule = "datetime";
enum : int {
  kLineYearOutOfRange = 105,       // the day number of a year outside 1..4000
  kLineDayNumberOutOfRange = 130,  // a day number outside 0..1,460,970
  kLineStepSign = 935,             // TDate::sum(TDateStep) with a sign other than +1 or -1
  kLineIntervalSign = 1006,        // TDate::sum(TInterval) with a sign other than +1 or -1
  kLineIntervalTooLong = 1405,     // TInterval::Set beyond 1,460,970 days
};

inline constexpr int kLastYear = 4000;
inline constexpr long long kLastDayNumber = 1460970;  // 4000-12-31
inline constexpr long long kDaysPer400Years = 146097;

// Days before the month, index month - 1; the 13th entry is the year's
// length (the "beyond" entry of the month search).
inline constexpr int kDaysBefore[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

constexpr bool IsLeap(long long y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

// Months outside 1..12 (a field set out of range, or imported) are looked up
// as the nearest valid month, so that no table is read out of bounds.
constexpr int ClampMonth(int m) { return m < 1 ? 1 : (m > 12 ? 12 : m); }

constexpr int DaysBeforeMonth(long long y, int m) {
  return kDaysBefore[IsLeap(y)][ClampMonth(m) - 1];
}

constexpr int MonthLength(long long y, int m) {
  const int c = ClampMonth(m);
  return kDaysBefore[IsLeap(y)][c] - kDaysBefore[IsLeap(y)][c - 1];
}

// (y-1)*365 + (y-1)/4 - (y-1)/100 + (y-1)/400 + days before the month + day,
// with truncating division as the day number has always been computed.
constexpr long long DayNumber(long long y, int m, long long d) {
  const long long p = y - 1;
  return p * 365 + p / 4 - p / 100 + p / 400 + DaysBeforeMonth(y, m) + d;
}

// 0 = Sunday .. 6 = Saturday; day 1 was a Monday.
constexpr int DayOfWeek(long long dayNumber) {
  const long long r = dayNumber % 7;
  return static_cast<int>(r < 0 ? r + 7 : r);
}

// Floor division of v by n > 0: returns the carry, *rem gets 0 .. n-1.
// For negative v: carry = (v+1)/n - 1, remainder = (v+1) mod n + n - 1.
constexpr long long FloorDiv(long long v, long long n, long long* rem) {
  if (v >= 0) {
    *rem = v % n;
    return v / n;
  }
  *rem = (v + 1) % n + n - 1;
  return (v + 1) / n - 1;
}

struct CivilDate {
  long long year;
  int month;
  long long day;
};

// Whether day number d is the last day of a leap year (the test the inverse
// conversion uses).
constexpr bool IsLastDayOfLeapYear(long long d) {
  if (d % kDaysPer400Years == 0) return true;
  const long long a = d - d / kDaysPer400Years;
  if (a % 36524 == 0) return false;
  return (a + a / 36524) % 1461 == 0;
}

// The inverse of DayNumber for d in 0..1,460,970; other values convert by
// the same steps (the result is then out of the calendar's range).
constexpr CivilDate CivilFromDayNumber(long long d) {
  const long long a = d - d / kDaysPer400Years;
  const long long b = a + a / 36524;
  const long long c = b - b / 1461;
  long long year = c / 365 + 1;
  long long r = c % 365;
  if (r == 0) {
    r = 365;
    year -= 1;
    if (IsLeap(year) && IsLastDayOfLeapYear(d)) r = 366;
  } else if (r == 1 && IsLastDayOfLeapYear(d)) {
    year -= 1;
    r = 366;
  }
  const int* before = kDaysBefore[IsLeap(year)];
  int m = 1;
  while (m < 12 && before[m] < r) ++m;
  return CivilDate{year, m, r - before[m - 1]};
}

// Which occurrence (1..5) of its weekday `dow` day `day` of a month is, when
// the month's first day falls on `dowFirst`.
constexpr int MonthWeekOf(int day, int dow, int dowFirst) {
  int first = 1 + (dow - dowFirst);
  if (dow - dowFirst < 0) first += 7;
  return (day - first) / 7 + 1;
}

}  // namespace quarnel_calendar

#endif  // QUARNEL_DATETIME_INTERNAL_CALENDAR_H_
