#include "quarnel/datetime/pcfsdate.h"

#include <cstring>

#include "quarnel/datetime/tdate.h"
#include "quarnel/platform/wintime.h"

namespace {

constexpr std::uint16_t kDosEpochDate = 33;  // 1980-01-01
constexpr std::uint16_t kDosEpochTime = 0;

}  // namespace

TPcFsDate& TPcFsDate::operator=(const TDate& date) {
  FromTDate(&date);
  return *this;
}

void TPcFsDate::FromTDate(const TDate* date) {
  if (date == nullptr) return;
  std::uint64_t ticks = 0;
  date->ToFileTime(&ticks);
  SetTicks(ticks);
}

void TPcFsDate::ToTDate(TDate* date) const {
  if (date == nullptr) return;
  const std::uint64_t ticks = Ticks();
  date->FromFileTime(&ticks);
}

int TPcFsDate::Compare(const TDate* date) const {
  if (date == nullptr) return 0;
  TDate mine;
  ToTDate(&mine);
  if (mine > *date) return 1;
  if (mine < *date) return -1;
  return 0;
}

void TPcFsDate::Store(void* dst) const {
  if (dst == nullptr) return;
  auto* out = static_cast<unsigned char*>(dst);
  std::memcpy(out, &low_, 4);
  std::memcpy(out + 4, &high_, 4);
}

void TPcFsDate::Normalize() {
  const std::uint64_t ticks = Ticks();
  if (ticks != 0) {
    SetTicks(ticks / kFileTimeTicksPerSecond * kFileTimeTicksPerSecond);
    return;
  }
  UFILETIME local{0, 0};
  UFILETIME utc{0, 0};
  UDosDateTimeToFileTime(kDosEpochDate, kDosEpochTime, &local);
  ULocalFileTimeToFileTime(&local, &utc);
  SetTicks(UFileTimeTicks(utc));
}

void TPcFsDate::MakeEven() {
  std::uint64_t seconds = Ticks() / kFileTimeTicksPerSecond;
  if (seconds & 1) ++seconds;
  SetTicks(seconds * kFileTimeTicksPerSecond);
}
