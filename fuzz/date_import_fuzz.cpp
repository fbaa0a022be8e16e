// Import of TDate, TDateStep and TInterval records from arbitrary bytes, and
// everything a host may then do with the imported value: calendar queries,
// arithmetic, comparisons, printing with %D, %T and %I and reading the text
// back. No crash, no read outside the input, refused records leave the value
// unchanged, accepted ones export the same bytes again.
//
// The first byte chooses how the rest is used: as a whole record (header
// included), or as a payload behind a well-formed header of each type, so
// that the fuzzer reaches the fields without first finding the tags.
//
// Area: quarnel/datetime/tdate.cpp quarnel/datetime/datestep.cpp quarnel/text/datefmt.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/platform/wintime.h"
#include "quarnel/text/tstring.h"

namespace {

std::vector<std::uint8_t> WithHeader(unsigned signature, const std::uint8_t* data,
                                     std::size_t size) {
  std::vector<std::uint8_t> b(sizeof(PersistHeader) + size);
  PersistHeader h;
  _initpersist(&h, signature, 256, 256);
  std::memcpy(b.data(), &h, sizeof h);
  if (size > 0) std::memcpy(b.data() + sizeof h, data, size);
  return b;
}

void Exercise(const TDate& d) {
  TDate c = d;
  volatile int sink = c.GetDOW() + c.GetMaxDays() + c.GetMonthWeek() + c.GetMaxWeeks() +
                      c.GetMonthWeekDay(c.GetDay() % 7, c.GetMonth() % 6) + c.getTotalDays() +
                      c.getTotalMilliseconds();
  (void)sink;
  sink = (c < d) + (c == d) + (c > d) + c.IsDefault();
  c.AbsToFloating();
  c.MakeEven();
  const TDate later = d + TDateStep(1, 13, 2, 3, 25, 61, 61, 1001);
  const TDate earlier = d - TDateStep(1, 13, 2, 3, 25, 61, 61, 1001);
  TInterval gap = later - earlier;
  sink = gap.GetSeconds();
  USYSTEMTIME st;
  d.ToSystemTime(&st);
  std::uint64_t ticks = 0;
  d.ToFileTime(&ticks);
  unsigned short dosDate = 0, dosTime = 0;
  d.ToDosDateTime(&dosDate, &dosTime);
  unsigned mac = 0;
  d.ToMacDateTime(&mac);

  const char16_t* forms[] = {u"%D", u"%0.1D", u"%.2D", u"%.3~D", u"%.4D", u"%T", u"%.1T", u"%.2T"};
  for (const char16_t* form : forms) {
    TString text;
    text.SPrintf(form, &d);
    TDate back = d;
    text.SScanf(form, &back);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t mode = data[0];
  ++data, --size;
  std::vector<std::uint8_t> bytes(data, data + size);
  switch (mode % 4) {
    case 1:
      bytes = WithHeader(0x4474652E, data, size);  // 'Dte.'
      break;
    case 2:
      bytes = WithHeader(0x4474532E, data, size);  // 'DtS.'
      break;
    case 3:
      bytes = WithHeader(0x4974762E, data, size);  // 'Itv.'
      break;
    default:
      break;
  }
  bytes.shrink_to_fit();  // an exact-size copy, so that a read past the end is caught
  const int n = bytes.size() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(bytes.size());

  TDate date(2024, 3, 5, 14, 7, 9, 42);
  const TDate before = date;
  const int dr = date.Import(bytes.data(), n);
  if (dr > 0) {
    if (dr != 24 || n < 24) std::abort();
    std::uint8_t again[24];
    if (date.Export(again, 24) != 24 || std::memcmp(again, bytes.data(), 24) != 0) std::abort();
    Exercise(date);
  } else if (std::memcmp(&date, &before, sizeof date) != 0) {
    std::abort();
  }

  TDateStep step(1, 2, 3, 4, 5, 6, 7, 8);
  const int sr = step.Import(bytes.data(), n);
  if (sr > 0) {
    std::uint8_t again[24];
    if (sr != 24 || step.Export(again, 24) != 24 || std::memcmp(again, bytes.data(), 24) != 0) {
      std::abort();
    }
    TDate d(2024, 3, 5, 14, 7, 9, 42);
    d += step;
    d -= step;
    volatile bool order = step < TDateStep(0, 1, 0, 0, 0, 0, 0, 0);
    (void)order;
  } else if (!(step == TDateStep(1, 2, 3, 4, 5, 6, 7, 8))) {
    std::abort();
  }

  TInterval iv(1, 2, 3, 4, 5);
  const int ir = iv.Import(bytes.data(), n);
  if (ir > 0) {
    if (ir != 16) std::abort();
    TDate d(2024, 3, 5, 14, 7, 9, 42);
    d += iv;
    // Every printed interval of fewer than ten million days reads back.
    const bool readable = iv.RawDays() > -10000000 && iv.RawDays() < 10000000;
    for (const char16_t* form : {u"%I", u"%.1I", u"%.2I", u"%.3I"}) {
      TString text;
      text.SPrintf(form, &iv);
      TInterval back;
      if (text.SScanf(form, &back) != 1 && readable) std::abort();
    }
  }

  // The bytes as text for the readers.
  if (size >= 2) {
    std::u16string units(size / 2 > 200 ? 200 : size / 2, u'\0');
    std::memcpy(units.data(), data, units.size() * 2);
    TString text(units.data(), static_cast<short>(units.size()));
    TDate d;
    TInterval i;
    text.SScanf(u"%.4D", &d);
    text.SScanf(u"%~D", &d);
    text.SScanf(u"%.1I", &i);
  }
  return 0;
}
