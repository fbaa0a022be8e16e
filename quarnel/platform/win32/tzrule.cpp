#include "quarnel/platform/win32/tzrule.h"

namespace quarnel_internal {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A zone name: three or more letters, or anything between < and >.
bool Name(const char*& p) {
  if (*p == '<') {
    while (*p != 0 && *p != '>') ++p;
    if (*p != '>') return false;
    ++p;
    return true;
  }
  const char* begin = p;
  while ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z')) ++p;
  return p - begin >= 3;
}

bool Number(const char*& p, int* n) {
  if (!IsDigit(*p)) return false;
  *n = 0;
  while (IsDigit(*p)) *n = *n * 10 + (*p++ - '0');
  return true;
}

// [+-]hh[:mm[:ss]] in seconds.
bool Clock(const char*& p, int* seconds) {
  int sign = 1;
  if (*p == '+' || *p == '-') sign = *p++ == '-' ? -1 : 1;
  int h = 0, m = 0, s = 0;
  if (!Number(p, &h)) return false;
  if (*p == ':') {
    ++p;
    if (!Number(p, &m)) return false;
    if (*p == ':') {
      ++p;
      if (!Number(p, &s)) return false;
    }
  }
  *seconds = sign * (h * 3600 + m * 60 + s);
  return true;
}

bool ChangeOf(const char*& p, TzRule::Change* c) {
  if (*p == 'M') {
    ++p;
    c->kind = TzRule::Change::kMonthWeekDay;
    if (!Number(p, &c->month) || *p++ != '.' || !Number(p, &c->week) || *p++ != '.' ||
        !Number(p, &c->weekday) || c->month < 1 || c->month > 12 || c->week < 1 || c->week > 5 ||
        c->weekday > 6) {
      return false;
    }
  } else if (*p == 'J') {
    ++p;
    c->kind = TzRule::Change::kJulian1;
    if (!Number(p, &c->day) || c->day < 1 || c->day > 365) return false;
  } else {
    c->kind = TzRule::Change::kJulian0;
    if (!Number(p, &c->day) || c->day > 365) return false;
  }
  c->seconds = 7200;
  if (*p == '/') {
    ++p;
    return Clock(p, &c->seconds);
  }
  return true;
}

bool IsLeap(std::int64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

// Days since 1970-01-01 of a proleptic Gregorian date (month 1..12).
std::int64_t DaysFromCivil(std::int64_t y, int m, int d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

std::int64_t YearOf(std::int64_t days) {
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  return yoe + era * 400 + (mp >= 10 ? 1 : 0);
}

int MonthLength(std::int64_t y, int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

// Local seconds since 1970 (in the zone's time before the change) of a change in `year`.
std::int64_t LocalSecondsOf(const TzRule::Change& c, std::int64_t year) {
  std::int64_t day = 0;
  switch (c.kind) {
    case TzRule::Change::kJulian1:
      day = DaysFromCivil(year, 1, 1) + c.day - 1 + (IsLeap(year) && c.day >= 60 ? 1 : 0);
      break;
    case TzRule::Change::kJulian0:
      day = DaysFromCivil(year, 1, 1) + c.day;
      break;
    case TzRule::Change::kMonthWeekDay: {
      const std::int64_t first = DaysFromCivil(year, c.month, 1);
      const int firstWeekday = static_cast<int>(((first % 7) + 11) % 7);  // 1970-01-01: Thursday
      int mday = 1 + (c.weekday - firstWeekday + 7) % 7 + (c.week - 1) * 7;
      while (mday > MonthLength(year, c.month)) mday -= 7;
      day = first + mday - 1;
      break;
    }
  }
  return day * 86400 + c.seconds;
}

}  // namespace

bool ParseTzRule(const char* tz, TzRule* rule) {
  *rule = TzRule{};
  if (tz == nullptr) return false;
  const char* p = tz;
  if (*p == ':') return false;  // a zoneinfo file name
  int west = 0;
  if (!Name(p) || !Clock(p, &west)) return false;
  TzRule r;
  r.stdEast = -west;
  r.dstEast = r.stdEast;
  if (*p != 0) {
    if (!Name(p)) return false;
    r.hasDst = true;
    r.dstEast = r.stdEast + 3600;
    if (*p != 0 && *p != ',') {
      if (!Clock(p, &west)) return false;
      r.dstEast = -west;
    }
    if (*p == 0) {  // no rule: the United States' rule
      r.start.month = 3, r.start.week = 2;
      r.end.month = 11, r.end.week = 1;
    } else {
      ++p;
      if (!ChangeOf(p, &r.start) || *p++ != ',' || !ChangeOf(p, &r.end) || *p != 0) return false;
    }
  }
  *rule = r;
  return true;
}

int TzOffsetAt(const TzRule& rule, std::int64_t t) {
  if (!rule.hasDst) return rule.stdEast;
  const std::int64_t days = (t + rule.stdEast) / 86400 - ((t + rule.stdEast) % 86400 < 0 ? 1 : 0);
  const std::int64_t year = YearOf(days);
  // The start is given in standard time, the end in daylight saving time.
  const std::int64_t start = LocalSecondsOf(rule.start, year) - rule.stdEast;
  const std::int64_t end = LocalSecondsOf(rule.end, year) - rule.dstEast;
  const bool inDst = start < end ? (t >= start && t < end) : !(t >= end && t < start);
  return inDst ? rule.dstEast : rule.stdEast;
}

}  // namespace quarnel_internal
