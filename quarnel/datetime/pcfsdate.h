// TPcFsDate: a file time as PC file systems keep it, the 64-bit count of
// 100-nanosecond ticks since 1601-01-01 (a FILETIME), held as its low and
// high halves. Zero means "no date". It converts to and from TDate without
// any time-zone conversion, and normalises to the whole-second or two-second
// precision that file systems store, so that times read back from a FAT
// volume compare equal to the times written. Plain value; no lock.
#ifndef QUARNEL_DATETIME_PCFSDATE_H_
#define QUARNEL_DATETIME_PCFSDATE_H_

#include <cstdint>

#include "quarnel/foundation/export.h"

class TDate;

class QUARNEL_API TPcFsDate {
 public:
  TPcFsDate() = default;
  TPcFsDate(const TPcFsDate&) = default;
  TPcFsDate& operator=(const TPcFsDate&) = default;
  // TDate::ToFileTime of the date (no time-zone conversion; a date before
  // 1601 gives 0).
  TPcFsDate& operator=(const TDate& date);
  void FromTDate(const TDate* date);
  // TDate::FromFileTime of this value: zero gives the default TDate.
  void ToTDate(TDate* date) const;
  // This value as a TDate compared with `date` by TDate's > and <: 1 when
  // this is later, -1 when earlier, else 0.
  int Compare(const TDate* date) const;

  void Reset() { low_ = 0, high_ = 0; }
  bool IsDefault() const { return low_ == 0 && high_ == 0; }

  bool operator==(const TPcFsDate& o) const { return low_ == o.low_ && high_ == o.high_; }
  bool operator!=(const TPcFsDate& o) const { return !(*this == o); }
  // Unsigned comparison of the high halves, then of the low halves.
  bool operator<(const TPcFsDate& o) const {
    return high_ < o.high_ || (high_ == o.high_ && low_ < o.low_);
  }
  bool operator>(const TPcFsDate& o) const { return o < *this; }
  bool operator<=(const TPcFsDate& o) const { return !(o < *this); }
  bool operator>=(const TPcFsDate& o) const { return !(*this < o); }

  // Writes the low then the high half (the 8-byte FILETIME) to `dst`.
  void Store(void* dst) const;

  // A nonzero value is cut to whole seconds. Zero becomes the DOS epoch,
  // 1980-01-01 00:00:00 local time expressed in UTC (LocalFileTimeToFileTime:
  // the only place this class applies the time zone).
  void Normalize();
  // Cut to whole seconds, an odd second rounded up to the next even one: the
  // two-second resolution of DOS times.
  void MakeEven();

  // The 64-bit tick count and back.
  std::uint64_t Ticks() const { return (static_cast<std::uint64_t>(high_) << 32) | low_; }
  void SetTicks(std::uint64_t ticks) {
    low_ = static_cast<std::uint32_t>(ticks);
    high_ = static_cast<std::uint32_t>(ticks >> 32);
  }

 private:
  std::uint32_t low_ = 0;
  std::uint32_t high_ = 0;
};

static_assert(sizeof(TPcFsDate) == 8, "a TPcFsDate is a FILETIME");

#endif  // QUARNEL_DATETIME_PCFSDATE_H_
