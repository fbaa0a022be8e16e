// TDate: fields, conversions, calendar queries, comparisons and the stored
// form. The stepping arithmetic (TDate::sum) is in datestep.cpp.
#include "quarnel/datetime/tdate.h"

#include <cstring>

#include "quarnel/datetime/internal/calendar.h"
#include "quarnel/datetime/internal/record.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/platform/wintime.h"

using namespace quarnel_calendar;

namespace {

constexpr unsigned kDateSignature = 0x4474652E;                  // 'Dte.'
constexpr std::uint64_t kMacEpochTicks = 0x0153B281E0FB4000ull;  // 1904-01-01 00:00:00

// Clamps a SYSTEMTIME member, read as a signed 16-bit number.
unsigned short Clamp(std::uint16_t v, int lo, int hi) {
  const int x = static_cast<std::int16_t>(v);
  return static_cast<unsigned short>(x < lo ? lo : (x > hi ? hi : x));
}

}  // namespace

// ---- construction and fields --------------------------------------------------------------

TDate::TDate(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
             unsigned short minute, unsigned short second, unsigned short millisecond) {
  Reset();
  flags_ = kDateFlagFields;
  SetYear(year);
  SetMonth(month);
  SetDay(day);
  SetHour(hour);
  SetMinute(minute);
  SetSecond(second);
  SetMillisecond(millisecond);
}

TDate::TDate(const USYSTEMTIME* st) {
  Reset();
  FromSystemTime(st);
}

TDate::TDate(const UFILETIME* ft) {
  Reset();
  FromFileTime(ft);
}

TDate::TDate(const std::uint64_t* ticks) {
  Reset();
  FromFileTime(ticks);
}

TDate::TDate(unsigned short dosDate, unsigned short dosTime) {
  Reset();
  FromDosDateTime(dosDate, dosTime);
}

void TDate::outOfRange(int line) { Debug(kModule, line); }

// ---- conversions ------------------------------------------------------------------------------

void TDate::FromSystemTime(const USYSTEMTIME* st) {
  if (st == nullptr || (st->wYear == 0 && st->wMonth == 0 && st->wDay == 0 && st->wHour == 0 &&
                        st->wMinute == 0 && st->wSecond == 0 && st->wMilliseconds == 0)) {
    Reset();
    return;
  }
  SetYear(Clamp(st->wYear, 1, kLastYear));
  SetMonth(Clamp(st->wMonth, 1, 12));
  SetDay(Clamp(st->wDay, 1, 31));
  SetHour(Clamp(st->wHour, 0, 23));
  SetMinute(Clamp(st->wMinute, 0, 59));
  SetSecond(Clamp(st->wSecond, 0, 59));
  SetMillisecond(Clamp(st->wMilliseconds, 0, 999));
}

void TDate::FromFileTime(const UFILETIME* ft) {
  USYSTEMTIME st{};
  if (ft == nullptr || UFileTimeTicks(*ft) == 0 || !UFileTimeToSystemTime(ft, &st)) {
    Reset();
    return;
  }
  FromSystemTime(&st);
}

void TDate::FromFileTime(const std::uint64_t* ticks) {
  if (ticks == nullptr) {
    Reset();
    return;
  }
  const UFILETIME ft = UMakeFileTime(*ticks);
  FromFileTime(&ft);
}

void TDate::FromDosDateTime(unsigned short dosDate, unsigned short dosTime) {
  UFILETIME ft{0, 0};
  UDosDateTimeToFileTime(dosDate, dosTime, &ft);  // a refused date leaves 0: Reset
  FromFileTime(&ft);
}

void TDate::FromMacDateTime(unsigned seconds) {
  const std::uint64_t ticks = kMacEpochTicks + seconds * kFileTimeTicksPerSecond;
  FromFileTime(&ticks);
}

void TDate::ToSystemTime(USYSTEMTIME* st) const {
  if (st == nullptr) return;
  st->wYear = year_;
  st->wMonth = month_;
  st->wDayOfWeek = static_cast<std::uint16_t>(GetDOW());
  st->wDay = day_;
  st->wHour = hour_;
  st->wMinute = minute_;
  st->wSecond = second_;
  st->wMilliseconds = millisecond_;
}

int TDate::ToFileTime(UFILETIME* ft) const {
  if (ft == nullptr) return 0;
  *ft = UFILETIME{0, 0};
  USYSTEMTIME st;
  ToSystemTime(&st);
  return USystemTimeToFileTime(&st, ft);
}

int TDate::ToFileTime(std::uint64_t* ticks) const {
  if (ticks == nullptr) return 0;
  UFILETIME ft;
  const int ok = ToFileTime(&ft);
  *ticks = UFileTimeTicks(ft);
  return ok;
}

int TDate::ToDosDateTime(unsigned short* dosDate, unsigned short* dosTime) const {
  if (dosDate == nullptr || dosTime == nullptr) return 0;
  *dosDate = 0;
  *dosTime = 0;
  UFILETIME ft;
  ToFileTime(&ft);
  return UFileTimeToDosDateTime(&ft, dosDate, dosTime);
}

void TDate::ToMacDateTime(unsigned* seconds) const {
  if (seconds == nullptr) return;
  std::uint64_t ticks = 0;
  ToFileTime(&ticks);
  *seconds = static_cast<unsigned>((ticks - kMacEpochTicks) / kFileTimeTicksPerSecond);
}

void TDate::SetToCurrent() {
  USYSTEMTIME st;
  UGetLocalTime(&st);
  FromSystemTime(&st);
}

int TDate::AssignClock() const {
  USYSTEMTIME st;
  ToSystemTime(&st);
  return USetLocalTime(&st);
}

// ---- calendar ------------------------------------------------------------------------------

int TDate::totalDaysChecked() const {
  if (year_ < 1 || year_ > kLastYear) Debug(kModule, kLineYearOutOfRange);
  return static_cast<int>(DayNumber(year_, month_, day_));
}

TDate TDate::fromDaysCarried(long long dayNumber, long long hours, long long minutes,
                             long long seconds, long long milliseconds) {
  const long long ms = FloorDiv(milliseconds, 1000, &milliseconds);
  seconds += ms;
  const long long s = FloorDiv(seconds, 60, &seconds);
  minutes += s;
  const long long m = FloorDiv(minutes, 60, &minutes);
  hours += m;
  dayNumber += FloorDiv(hours, 24, &hours);
  if (dayNumber >= 1 && dayNumber <= kLastDayNumber)
    return FromDays(dayNumber, hours, minutes, seconds, milliseconds);
  if (dayNumber < 0 || dayNumber > kLastDayNumber) Debug(kModule, kLineDayNumberOutOfRange);
  const CivilDate c = CivilFromDayNumber(dayNumber);
  TDate d;
  d.SetYear(static_cast<unsigned short>(c.year));
  d.SetMonth(static_cast<unsigned short>(c.month));
  d.SetDay(static_cast<unsigned short>(c.day));
  d.SetHour(static_cast<unsigned short>(hours));
  d.SetMinute(static_cast<unsigned short>(minutes));
  d.SetSecond(static_cast<unsigned short>(seconds));
  d.SetMillisecond(static_cast<unsigned short>(milliseconds));
  return d;
}

int TDate::GetDOW() const { return DayOfWeek(getTotalDays()); }

int TDate::GetMaxDays() const { return MonthLength(year_, month_); }

int TDate::GetMonthWeek() const {
  const long long today = getTotalDays();
  return MonthWeekOf(day_, DayOfWeek(today), DayOfWeek(today - day_ + 1));
}

int TDate::GetMaxWeeks() const {
  const long long today = getTotalDays();
  const long long first = today - day_ + 1;
  const int last = GetMaxDays();
  const int dow = DayOfWeek(today);
  const int dowLast = DayOfWeek(first + last - 1);
  int lastSame = last + dow - dowLast;
  if (dow > dowLast) lastSame -= 7;
  return MonthWeekOf(lastSame, dow, DayOfWeek(first));
}

int TDate::GetMonthWeekDay(int dow, int n) const {
  const int dowFirst = DayOfWeek(getTotalDays() - day_ + 1);
  int first = 1 + (dow - dowFirst);
  if (dow - dowFirst < 0) first += 7;
  if (n == 5 && first + 28 > GetMaxDays()) n = 4;  // the weekday occurs only four times
  return first + (n - 1) * 7;
}

void TDate::MakeEven() {
  if (second_ & 1) SetSecond(static_cast<unsigned short>(second_ + 1));
}

bool TDate::IsDefault() const { return *this == TDate(); }

void TDate::AbsToFloating() {
  if (!(flags_ & kDateFlagAbsolute) || gmtOffset_ == 0) return;
  if (year_ == 1 && month_ == 1 && day_ == 1 && hour_ == 0 && minute_ == 0 && second_ == 0 &&
      millisecond_ == 0) {
    return;
  }
  const int magnitude = gmtOffset_ < 0 ? -gmtOffset_ : gmtOffset_;
  TDateStep st;
  st.SetHours(static_cast<unsigned short>(magnitude / 60));
  st.SetMinutes(static_cast<unsigned short>(magnitude % 60));
  sum(st, static_cast<short>(gmtOffset_ > 0 ? -1 : 1));
  flags_ = static_cast<std::uint16_t>(flags_ & ~kDateFlagAbsolute);
}

// ---- comparison and difference --------------------------------------------------------------

bool TDate::operator==(const TDate& o) const {
  TDate a = *this;
  TDate b = o;
  a.AbsToFloating();
  b.AbsToFloating();
  return a.year_ == b.year_ && a.month_ == b.month_ && a.day_ == b.day_ && a.hour_ == b.hour_ &&
         a.minute_ == b.minute_ && a.second_ == b.second_ && a.millisecond_ == b.millisecond_;
}

bool TDate::operator<(const TDate& o) const {
  TDate a = *this;
  TDate b = o;
  a.AbsToFloating();
  b.AbsToFloating();
  const int da = a.getTotalDays();
  const int db = b.getTotalDays();
  return da < db || (da == db && a.getTotalMilliseconds() < b.getTotalMilliseconds());
}

bool TDate::operator>(const TDate& o) const { return o < *this; }

TInterval TDate::operator-(const TDate& o) const {
  TInterval r;
  r.days_ = static_cast<std::int32_t>(getTotalDays() - o.getTotalDays());
  r.milliseconds_ = getTotalMilliseconds() - o.getTotalMilliseconds();
  r.normalize();
  return r;
}

// ---- stored form ------------------------------------------------------------------------------

int TDate::Export(void* buf, int size) const {
  return quarnel_internal::ExportDateRecord(buf, size, kDateSignature, this, sizeof(TDate));
}

int TDate::Import(const void* buf, int size) {
  TDate f = *this;
  const int r = quarnel_internal::ImportDateRecord(buf, size, kDateSignature, &f, sizeof(TDate));
  if (r <= 0) return r;
  // Fields outside what the setters accept mark a damaged record. Second 60
  // passes: MakeEven writes it on purpose.
  if (f.year_ < 1 || f.year_ > 4000 || f.month_ < 1 || f.month_ > 12 || f.day_ < 1 || f.day_ > 31 ||
      f.hour_ > 23 || f.minute_ > 59 || f.second_ > 60 || f.millisecond_ > 999) {
    DebugLogf(kLogInternalData, "TDate::Import: bad date %~d-%~d-%~d %~d:%~d:%~d.%~d",
              static_cast<int>(f.year_), static_cast<int>(f.month_), static_cast<int>(f.day_),
              static_cast<int>(f.hour_), static_cast<int>(f.minute_), static_cast<int>(f.second_),
              static_cast<int>(f.millisecond_));
    return kErrInvalidData;
  }
  *this = f;
  return r;
}

int quarnel_internal::ExportDateRecord(void* buf, int size, unsigned signature, const void* payload,
                                       int n) {
  if (buf == nullptr || size < static_cast<int>(sizeof(PersistHeader)) + n) {
    return kErrExportBufferTooSmall;
  }
  PersistHeader header;
  _initpersist(&header, signature, 256, 256);
  auto* out = static_cast<unsigned char*>(buf);
  std::memcpy(out, &header, sizeof header);
  std::memcpy(out + sizeof header, payload, static_cast<std::size_t>(n));
  return static_cast<int>(sizeof header) + n;
}

int quarnel_internal::ImportDateRecord(const void* buf, int size, unsigned signature, void* payload,
                                       int n) {
  if (buf == nullptr || size < static_cast<int>(sizeof(PersistHeader)) + n) {
    return kErrImportDataTooShort;
  }
  const int check = _checkpersist(static_cast<const PersistHeader*>(buf), signature, 256, 256);
  if (check != 0) return check;
  std::memcpy(payload, static_cast<const unsigned char*>(buf) + sizeof(PersistHeader),
              static_cast<std::size_t>(n));
  return static_cast<int>(sizeof(PersistHeader)) + n;
}
