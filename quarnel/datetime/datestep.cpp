// TDateStep, TInterval and the arithmetic that moves a TDate by them.
#include <cstdint>

#include "quarnel/datetime/internal/calendar.h"
#include "quarnel/datetime/internal/record.h"
#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/debuglog.h"

using namespace quarnel_calendar;

namespace {

constexpr unsigned kStepSignature = 0x4474532E;      // 'DtS.'
constexpr unsigned kIntervalSignature = 0x4974762E;  // 'Itv.'
constexpr long long kMsPerDay = 86400000;

}  // namespace

// ---- TDateStep --------------------------------------------------------------------------------

TDateStep::TDateStep(unsigned short years, unsigned short months, unsigned short weeks,
                     unsigned short days, unsigned short hours, unsigned short minutes,
                     unsigned short seconds, unsigned short milliseconds) {
  SetYears(years);
  SetMonths(months);
  SetWeeks(weeks);
  SetDays(days);
  SetHours(hours);
  SetMinutes(minutes);
  SetSeconds(seconds);
  SetMilliseconds(milliseconds);
}

int TDateStep::Export(void* buf, int size) const {
  return quarnel_internal::ExportDateRecord(buf, size, kStepSignature, this, sizeof(TDateStep));
}

int TDateStep::Import(const void* buf, int size) {
  TDateStep fields = *this;
  const int r =
      quarnel_internal::ImportDateRecord(buf, size, kStepSignature, &fields, sizeof(TDateStep));
  if (r > 0) *this = fields;
  return r;
}

bool TDateStep::operator==(const TDateStep& o) const {
  return years_ == o.years_ && months_ == o.months_ && weeks_ == o.weeks_ && days_ == o.days_ &&
         hours_ == o.hours_ && minutes_ == o.minutes_ && seconds_ == o.seconds_ &&
         milliseconds_ == o.milliseconds_;
}

bool TDateStep::operator<(const TDateStep& o) const {
  if (years_ != o.years_) return years_ < o.years_;
  if (months_ != o.months_) return months_ < o.months_;
  const unsigned d = weeks_ * 7u + days_;
  const unsigned od = o.weeks_ * 7u + o.days_;
  if (d != od) return d < od;
  if (hours_ != o.hours_) return hours_ < o.hours_;
  return minutes_ * 60000u + seconds_ * 1000u + milliseconds_ <
         o.minutes_ * 60000u + o.seconds_ * 1000u + o.milliseconds_;
}

// ---- TInterval --------------------------------------------------------------------------------

TInterval::TInterval(int days, int hours, int minutes, int seconds, int milliseconds) {
  Set(days, hours, minutes, seconds, milliseconds);
}

void TInterval::Set(int days, int hours, int minutes, int seconds, int milliseconds) {
  const long long d = static_cast<long long>(days) + hours / 24 + minutes / 1440 + seconds / 86400 +
                      milliseconds / kMsPerDay;
  if (d > kLastDayNumber) Debug(kModule, kLineIntervalTooLong);
  const long long ms = milliseconds % kMsPerDay + (static_cast<long long>(hours % 24) * 3600 +
                                                   (minutes % 1440) * 60LL + seconds % 86400) *
                                                      1000;
  days_ = static_cast<std::int32_t>(d);
  milliseconds_ = static_cast<std::int32_t>(ms);
  normalize();
}

void TInterval::normalize() {
  // In the fields' own 32-bit arithmetic: a carry past the day limit wraps, and
  // the sign fix then works on the wrapped days, so the result always keeps
  // the invariant and a second normalisation changes nothing.
  constexpr std::int32_t kDay = kMsPerDay;
  std::int32_t d = static_cast<std::int32_t>(static_cast<std::uint32_t>(days_) +
                                             static_cast<std::uint32_t>(milliseconds_ / kDay));
  std::int32_t ms = milliseconds_ % kDay;
  if (d > 0 && ms < 0) {
    d -= 1;
    ms += kDay;
  } else if (d < 0 && ms > 0) {
    d += 1;
    ms -= kDay;
  }
  days_ = d;
  milliseconds_ = ms;
}

int TInterval::GetDays() {
  normalize();
  return days_;
}

int TInterval::GetMilliseconds() {
  normalize();
  return milliseconds_;
}

int TInterval::GetSeconds() {
  normalize();
  return static_cast<int>(static_cast<long long>(days_) * 86400 + milliseconds_ / 1000);
}

int TInterval::GetMinutes() {
  normalize();
  return static_cast<int>(static_cast<long long>(days_) * 1440 + milliseconds_ / 60000);
}

int TInterval::GetHours() {
  normalize();
  return static_cast<int>(static_cast<long long>(days_) * 24 + milliseconds_ / 3600000);
}

TInterval TInterval::operator+(const TInterval& o) const {
  TInterval r = *this;
  r += o;
  return r;
}

TInterval TInterval::operator-(const TInterval& o) const {
  TInterval r = *this;
  r -= o;
  return r;
}

TInterval& TInterval::operator+=(const TInterval& o) {
  days_ = static_cast<std::int32_t>(static_cast<long long>(days_) + o.days_);
  milliseconds_ =
      static_cast<std::int32_t>(static_cast<long long>(milliseconds_) + o.milliseconds_);
  normalize();
  return *this;
}

TInterval& TInterval::operator-=(const TInterval& o) {
  days_ = static_cast<std::int32_t>(static_cast<long long>(days_) - o.days_);
  milliseconds_ =
      static_cast<std::int32_t>(static_cast<long long>(milliseconds_) - o.milliseconds_);
  normalize();
  return *this;
}

int TInterval::Export(void* buf, int size) {
  normalize();
  return quarnel_internal::ExportDateRecord(buf, size, kIntervalSignature, this, sizeof(TInterval));
}

int TInterval::Import(const void* buf, int size) {
  TInterval fields = *this;
  const int r =
      quarnel_internal::ImportDateRecord(buf, size, kIntervalSignature, &fields, sizeof(TInterval));
  if (r > 0) {
    *this = fields;
    normalize();
  }
  return r;
}

// ---- moving a date ----------------------------------------------------------------------------

void TDate::sum(const TInterval& iv, short sign) {
  if (sign != 1 && sign != -1) Debug(kModule, kLineIntervalSign);
  const long long days =
      static_cast<long long>(getTotalDays()) + sign * static_cast<long long>(iv.days_);
  const long long ms = millisecond_ + sign * static_cast<long long>(iv.milliseconds_);
  *this = FromDays(days, hour_, minute_, second_, ms);
}

void TDate::sum(const TDateStep& st, short sign) {
  if (sign != 1 && sign != -1) Debug(kModule, kLineStepSign);
  // 1. Months, with floor division for the carry into years.
  const int m = month_ + sign * static_cast<int>(st.months_);
  int carry = 0;
  int month = 0;
  if (m >= 1) {
    carry = (m - 1) / 12;
    month = (m - 1) % 12 + 1;
  } else {
    carry = m / 12 - 1;
    month = m % 12 + 12;
  }
  SetMonth(static_cast<unsigned short>(month));
  // 2. Years, in signed 16 bits, with the bounds of the calendar.
  const std::int16_t y =
      static_cast<std::int16_t>(year_ + sign * static_cast<int>(st.years_) + carry);
  if (y >= kLastYear + 1) {
    SetYear(kLastYear);
    SetMonth(12);
    SetDay(31);
    SetHour(23);
    SetMinute(59);
    SetSecond(59);
    SetMillisecond(999);
  } else if (y < 1) {
    // The month of step 1 is deliberately kept.
    SetYear(1);
    SetDay(1);
    SetHour(0);
    SetMinute(0);
    SetSecond(0);
    SetMillisecond(0);
  } else {
    SetYear(static_cast<unsigned short>(y));
    const int length = MonthLength(year_, month_);
    if (day_ > length) SetDay(static_cast<unsigned short>(length));
  }
  // 3. Days and weeks; 4. times, each total held in 16 bits.
  const long long days = static_cast<long long>(getTotalDays()) +
                         sign * (static_cast<long long>(st.weeks_) * 7 + st.days_);
  const std::int16_t hours = static_cast<std::int16_t>(hour_ + sign * static_cast<int>(st.hours_));
  const std::int16_t minutes =
      static_cast<std::int16_t>(minute_ + sign * static_cast<int>(st.minutes_));
  const std::int16_t seconds =
      static_cast<std::int16_t>(second_ + sign * static_cast<int>(st.seconds_));
  const std::int16_t ms =
      static_cast<std::int16_t>(millisecond_ + sign * static_cast<int>(st.milliseconds_));
  // 5. A fresh date from the carried totals.
  *this = FromDays(days, hours, minutes, seconds, ms);
}

TDate TDate::operator+(const TDateStep& st) const {
  TDate r = *this;
  r.sum(st, 1);
  return r;
}

TDate TDate::operator-(const TDateStep& st) const {
  TDate r = *this;
  r.sum(st, -1);
  return r;
}

TDate& TDate::operator+=(const TDateStep& st) {
  sum(st, 1);
  return *this;
}

TDate& TDate::operator-=(const TDateStep& st) {
  sum(st, -1);
  return *this;
}

TDate TDate::operator+(const TInterval& iv) const {
  TDate r = *this;
  r.sum(iv, 1);
  return r;
}

TDate TDate::operator-(const TInterval& iv) const {
  TDate r = *this;
  r.sum(iv, -1);
  return r;
}

TDate& TDate::operator+=(const TInterval& iv) {
  sum(iv, 1);
  return *this;
}

TDate& TDate::operator-=(const TInterval& iv) {
  sum(iv, -1);
  return *this;
}
