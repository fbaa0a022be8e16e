// The fields of a TDate in declaration order, for compact comparisons in the
// date tests.
#ifndef QUARNEL_TESTS_SUPPORT_DATEFIELDS_H_
#define QUARNEL_TESTS_SUPPORT_DATEFIELDS_H_

#include <ostream>

#include "quarnel/datetime/tdate.h"

struct F {
  int y, mo, d, h, mi, s, ms;
  bool operator==(const F&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const F& f) {
  return os << f.y << "-" << f.mo << "-" << f.d << " " << f.h << ":" << f.mi << ":" << f.s << "."
            << f.ms;
}

inline F Of(const TDate& t) {
  return F{t.GetYear(),   t.GetMonth(),  t.GetDay(),        t.GetHour(),
           t.GetMinute(), t.GetSecond(), t.GetMillisecond()};
}

inline TDate Make(const F& f) {
  return TDate(static_cast<unsigned short>(f.y), static_cast<unsigned short>(f.mo),
               static_cast<unsigned short>(f.d), static_cast<unsigned short>(f.h),
               static_cast<unsigned short>(f.mi), static_cast<unsigned short>(f.s),
               static_cast<unsigned short>(f.ms));
}

#endif  // QUARNEL_TESTS_SUPPORT_DATEFIELDS_H_
