// %D, %T and %I through TString::SPrintf, and reading them back with SScanf.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quarnel/datetime/tdate.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tests/support/recording_hooks.h"

namespace {

// A string list: per entry a 16-bit length (tag and text), the tag most
// significant byte first, the text, a pad byte when the length is odd;
// 0xFFFF ends the list.
std::vector<unsigned char> MakeList(
    const std::vector<std::pair<std::string, std::string>>& entries) {
  std::vector<unsigned char> bytes;
  for (const auto& [tag, text] : entries) {
    const std::uint16_t len = static_cast<std::uint16_t>(4 + text.size());
    const auto* l = reinterpret_cast<const unsigned char*>(&len);
    bytes.insert(bytes.end(), l, l + 2);
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  bytes.push_back(0xFF);
  bytes.push_back(0xFF);
  return bytes;
}

template <class... A>
std::string Fmt(const char16_t* format, const A&... args) {
  TString out;
  out.SPrintf(format, args...);
  return Utf8(out);
}

struct F {
  int y, mo, d, h, mi, s, ms;
  bool operator==(const F&) const = default;
};
std::ostream& operator<<(std::ostream& os, const F& f) {
  return os << f.y << "-" << f.mo << "-" << f.d << " " << f.h << ":" << f.mi << ":" << f.s << "."
            << f.ms;
}
F Of(const TDate& t) {
  return F{t.GetYear(),   t.GetMonth(),  t.GetDay(),        t.GetHour(),
           t.GetMinute(), t.GetSecond(), t.GetMillisecond()};
}

class DateFormatTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    saved_ = *QuarnelEnv();
    QuarnelEnv()->lcid = kLcidEnUs;
    QuarnelEnv()->acp = 65001;
    UseList({{"Nevr", "never"}});
  }
  void TearDown() override {
    RMAddHostKList(16000, nullptr, 0);
    QuarnelSetEnv(saved_);
    RecordingTest::TearDown();
  }
  void UseList(const std::vector<std::pair<std::string, std::string>>& entries) {
    list_ = MakeList(entries);
    RMAddHostKList(16000, list_.data(), static_cast<int>(list_.size()));
  }
  static void UseLocale(unsigned lcid) { QuarnelEnv()->lcid = lcid; }

  QuarnelEnvType saved_;
  std::vector<unsigned char> list_;
};

// ---- output -------------------------------------------------------------------------------------

TEST_F(DateFormatTest, EveryFormInEveryLocale) {
  const TDate d(2024, 3, 5, 14, 7, 9, 42);
  TDate abs = d;
  abs.SetGMTOffset(60);
  abs.SetFlags(kDateFlagAbsolute, 0);
  TDate west = d;
  west.SetGMTOffset(-330);
  west.SetFlags(kDateFlagAbsolute, 0);
  const TDate morning(2024, 11, 23, 0, 5, 0, 0);
  struct Row {
    unsigned lcid;
    const char16_t* format;
    const TDate* date;
    const char* want;
  };
  const Row rows[] = {
      {kLcidEnUs, u"%D", &d, "3/5/2024"},
      {kLcidEnUs, u"%.0D", &d, "3/5/2024"},
      {kLcidEnUs, u"%0D", &d, "03/05/2024"},
      {kLcidEnUs, u"%.1D", &d, "Tuesday, March 5, 2024"},
      {kLcidEnUs, u"%0.1D", &d, "Tuesday, March 05, 2024"},
      {kLcidEnUs, u"%.2D", &d, "Tue, 05 Mar 24"},
      {kLcidEnUs, u"%.3D", &d, "2024-03-05"},
      {kLcidEnUs, u"%.4D", &d, "2024-03-05T14:07:09.042"},
      {kLcidEnUs, u"%.4D", &abs, "2024-03-05T14:07:09.042+0100"},
      {kLcidEnUs, u"%.4D", &west, "2024-03-05T14:07:09.042-0530"},
      {kLcidEnUs, u"%.4~D", &d, "2024-03-05T14:07:09.042"},
      {kLcidEnUs, u"%.9D", &d, "3/5/2024"},
      {kLcidEnUs, u"%~D", &d, "3/5/2024 2:07:09 PM"},
      {kLcidEnUs, u"%0~D", &d, "03/05/2024 02:07:09 PM"},
      {kLcidEnUs, u"%.1~D", &d, "Tuesday, March 5, 2024 2:07:09 PM"},
      {kLcidEnUs, u"%.3~D", &morning, "2024-11-23 12:05:00 AM"},
      {kLcidEnUs, u"%T", &d, "2:07:09 PM"},
      {kLcidEnUs, u"%0T", &d, "02:07:09 PM"},
      {kLcidEnUs, u"%.1T", &d, "14:07:09.042"},
      {kLcidEnUs, u"%.2T", &d, "2:07 PM"},
      {kLcidEnUs, u"%T", &morning, "12:05:00 AM"},
      {kLcidEnUs, u"Exception occurred on %D at %.1T", &d,
       "Exception occurred on 3/5/2024 at 14:07:09.042"},
      {kLcidEnUs, u"[%12D][%-12D]", &d, "[    3/5/2024][3/5/2024    ]"},
      {kLcidEnUs, u"[%012D]", &d, "[  03/05/2024]"},
      {kLcidDeDe, u"%D", &d, "5.3.2024"},
      {kLcidDeDe, u"%0D", &d, "05.03.2024"},
      {kLcidDeDe, u"%.1D", &d, "Dienstag, 5. März 2024"},
      {kLcidDeDe, u"%.2D", &d, "Di., 05 Mär 24"},
      {kLcidDeDe, u"%T", &morning, "00:05:00"},
      {kLcidDeDe, u"%.1T", &d, "14:07:09,042"},
      {kLcidDeDe, u"%.2T", &d, "14:07"},
      {kLcidFrFr, u"%D", &d, "05/03/2024"},
      {kLcidFrFr, u"%.1D", &d, "mardi 5 mars 2024"},
      {kLcidFrFr, u"%~D", &d, "05/03/2024 14:07:09"},
      {kLcidJaJp, u"%D", &d, "2024/3/5"},
      {kLcidJaJp, u"%.1D", &d, "2024年3月5日火曜日"},
      {kLcidJaJp, u"%.2D", &d, "火, 05 3月 24"},
      {kLcidJaJp, u"%T", &morning, "0:05:00"},
      {kLcidEnGb, u"%D", &d, "05/03/2024"},
      {kLcidEnGb, u"%.1D", &d, "Tuesday, 5 March 2024"},
      {kLcidEnGb, u"%T", &d, "14:07:09"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(Utf8(std::u16string(r.format)) + " in " + std::to_string(r.lcid));
    UseLocale(r.lcid);
    EXPECT_EQ(Fmt(r.format, r.date, r.date), r.want);  // a second conversion takes the same date
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(DateFormatTest, MissingAndDefaultDatesPrintTheWordNever) {
  const TDate def;
  TDate reset(2024, 1, 1, 0, 0, 0, 0);
  reset.Reset();
  EXPECT_EQ(Fmt(u"%D|%~D|%.4D|%T|%.1T", &def, &def, &def, &def, &def),
            "never|never|never|never|never");
  EXPECT_EQ(Fmt(u"%D", &reset), "never");
  EXPECT_EQ(Fmt(u"%D|%T", static_cast<const TDate*>(nullptr), static_cast<const TDate*>(nullptr)),
            "never|never");
  // An argument of another kind counts as missing.
  EXPECT_EQ(Fmt(u"%D", 5), "never");
  EXPECT_EQ(Fmt(u"[%7D]", &def), "[  never]");
  // The first moment of a later day is a date like any other.
  const TDate second(1, 1, 1, 0, 0, 1, 0);
  EXPECT_EQ(Fmt(u"%.4D", &second), "0001-01-01T00:00:01.000");
  // Without the word in the list: nothing.
  UseList({});
  EXPECT_EQ(Fmt(u"[%D]", &def), "[]");
}

TEST_F(DateFormatTest, MillisecondsShowWhatTheDateHolds) {
  const TDate d(2024, 3, 5, 14, 7, 9, 999);  // kept modulo 256
  EXPECT_EQ(Fmt(u"%.1T", &d), "14:07:09.231");
  TDate imported;
  const unsigned char rec[24] = {0x2E, 0x65, 0x74, 0x44, 0, 1, 0,  1, 1, 0, 0xE8, 0x07,
                                 3,    5,    0xE7, 0x03, 9, 7, 14, 0, 0, 0, 0,    0};
  ASSERT_EQ(imported.Import(rec, 24), 24);
  EXPECT_EQ(Fmt(u"%.4D", &imported), "2024-03-05T14:07:09.999");
}

TEST_F(DateFormatTest, IntervalForms) {
  const TInterval longer(1, 2, 3, 4, 500), shorter(0, 2, 3, 4, 999), negative(-1, -2, -3, -4, 0);
  struct Row {
    const char16_t* format;
    const TInterval* iv;
    const char* want;
  };
  const Row rows[] = {
      {u"%I", &longer, "1 02:03:04"},    {u"%I", &shorter, "02:03:04"},
      {u"%.1I", &longer, "26:03:04"},    {u"%.2I", &longer, "1563:04"},
      {u"%.3I", &shorter, "0 02:03:04"}, {u"%I", &negative, "-1 02:03:04"},
      {u"%.1I", &negative, "-26:03:04"}, {u"[%12I]", &shorter, "[    02:03:04]"},
      {u"%I", nullptr, "00:00:00"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(Utf8(std::u16string(r.format)));
    EXPECT_EQ(Fmt(r.format, r.iv), r.want);
  }
  // Days are not grouped; the interval is normalised before printing.
  TInterval many(12345, 0, 0, 0, 0), loose;
  loose.SetRaw(0, 90000000);
  EXPECT_EQ(Fmt(u"%I|%I", &many, &loose), "12345 00:00:00|1 01:00:00");
}

// ---- input
// -----------------------------------------------------------------------------------------

struct Form {
  const char16_t* format;
  bool date, time, seconds, ms, offset;
};

// Every form SPrintf writes for %D and %T.
const Form kForms[] = {
    {u"%D", true, false, false, false, false},   {u"%0D", true, false, false, false, false},
    {u"%.1D", true, false, false, false, false}, {u"%0.1D", true, false, false, false, false},
    {u"%.2D", true, false, false, false, false}, {u"%.3D", true, false, false, false, false},
    {u"%.4D", true, true, true, true, true},     {u"%~D", true, true, true, false, false},
    {u"%0~D", true, true, true, false, false},   {u"%.1~D", true, true, true, false, false},
    {u"%.2~D", true, true, true, false, false},  {u"%.3~D", true, true, true, false, false},
    {u"%T", false, true, true, false, false},    {u"%0T", false, true, true, false, false},
    {u"%.1T", false, true, true, true, false},   {u"%.2T", false, true, false, false, false},
};

TEST_F(DateFormatTest, EveryFormReadsBackInEveryLocale) {
  std::mt19937 rng(31);
  const unsigned locales[] = {kLcidEnUs, kLcidDeDe, kLcidFrFr, kLcidJaJp, kLcidEnGb};
  const TDate keep(1999, 12, 31, 23, 59, 58, 7);
  for (const unsigned lcid : locales) {
    UseLocale(lcid);
    for (const Form& form : kForms) {
      for (int i = 0; i < 400; ++i) {
        TDate d =
            TDate::FromDays(1 + rng() % 1460970, rng() % 24, rng() % 60, rng() % 60, rng() % 256);
        if (i % 50 == 0)
          d = TDate(static_cast<unsigned short>(1 + rng() % 4000), 12, 31, 12, 0, 0, 0);
        if (form.offset && i % 2 == 0) {
          d.SetGMTOffset(static_cast<int>(rng() % 1681) - 840);
          d.SetFlags(kDateFlagAbsolute, 0);
        }
        TString text;
        text.SPrintf(form.format, &d);
        TDate back = keep;
        ASSERT_EQ(text.SScanf(form.format, &back), 1)
            << Utf8(text) << " for " << Utf8(std::u16string(form.format));
        const F got = Of(back), src = Of(d), kept = Of(keep);
        // The abbreviated form keeps two digits: they read back in 1930..2029.
        const bool yy =
            form.date && std::u16string_view(form.format).find(u".2") != std::u16string_view::npos;
        const int y = yy ? src.y % 100 + (src.y % 100 < 30 ? 2000 : 1900) : src.y;
        const F want{form.date ? y : kept.y,     form.date ? src.mo : kept.mo,
                     form.date ? src.d : kept.d, form.time ? src.h : 0,
                     form.time ? src.mi : 0,     form.seconds ? src.s : 0,
                     form.ms ? src.ms : 0};
        ASSERT_EQ(got, want) << Utf8(text) << " for " << Utf8(std::u16string(form.format));
        if (form.date) {
          ASSERT_EQ(back.GetFlags(), kDateFlagFields | (d.GetFlags() & kDateFlagAbsolute));
          ASSERT_EQ(back.GetGMTOffset(), (d.GetFlags() & kDateFlagAbsolute) ? d.GetGMTOffset() : 0);
        }
      }
    }
  }
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(DateFormatTest, NeverReadsBackAsTheDefaultDate) {
  const TDate def;
  TDate back(2024, 3, 5, 1, 2, 3, 4);
  TString text;
  text.SPrintf(u"%D;%u", &def, 7u);
  EXPECT_EQ(Utf8(text), "never;7");
  unsigned n = 0;
  EXPECT_EQ(text.SScanf(u"%D;%u", &back, &n), 2);
  EXPECT_TRUE(back.IsDefault());
  EXPECT_EQ(n, 7u);
  // Without the word, an empty field reads as the default date.
  UseList({});
  text.SPrintf(u"%D;%u", &def, 8u);
  EXPECT_EQ(Utf8(text), ";8");
  back = TDate(2024, 3, 5, 1, 2, 3, 4);
  EXPECT_EQ(text.SScanf(u"%D;%u", &back, &n), 2);
  EXPECT_TRUE(back.IsDefault());
  EXPECT_EQ(n, 8u);
  back = TDate(2024, 3, 5, 1, 2, 3, 4);
  EXPECT_EQ(TString(u"").SScanf(u"%D", &back), 1);
  EXPECT_TRUE(back.IsDefault());
}

TEST_F(DateFormatTest, ScanningRefusesWhatNoDateCanHold) {
  struct Row {
    const char16_t* text;
    const char16_t* format;
    int stored;
  };
  const Row rows[] = {
      {u"3/5/2024", u"%D", 1},
      {u"  3/5/2024", u"%D", 1},  // leading blanks are skipped
      {u"13/5/2024", u"%D", 0},
      {u"3/32/2024", u"%D", 0},
      {u"4/31/2024", u"%D", 1},  // day not checked against the month, as the setters do
      {u"3/5/0", u"%D", 0},
      {u"3/5/4001", u"%D", 0},
      {u"3-5-2024", u"%D", 0},
      {u"tuesday, MARCH 5, 2024", u"%.1D", 1},
      {u"Tuesday, Marchy 5, 2024", u"%.1D", 0},
      {u"Tue, 05 Xyz 2024", u"%.2D", 0},
      {u"13:00:00 PM", u"%T", 0},
      {u"0:00:00 AM", u"%T", 0},
      {u"24:00:00.000", u"%.1T", 0},
      {u"12:60:00.000", u"%.1T", 0},
      {u"12:00:00", u"%.1T", 0},
      {u"2024-03-05T14:07:09.042+2400", u"%.4D", 1},
      {u"2024-03-05T14:07:09.042+0160", u"%.4D",
       1},  // the offset is optional; "+0160" is left over
      {u"2024-03-05T14:07:09", u"%.4D", 0},
      {u"3/5/2024 2:07:09", u"%~D", 0},
      {u"3/5/20242:07:09 PM", u"%~D", 0},
      {u"x", u"%.1T", 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(Utf8(std::u16string(r.text)) + " with " + Utf8(std::u16string(r.format)));
    UseList({});
    TDate back(1999, 1, 1, 0, 0, 0, 0);
    EXPECT_EQ(TString(r.text).SScanf(r.format, &back), r.stored);
    if (r.stored == 0) {
      EXPECT_EQ(Of(back), (F{1999, 1, 1, 0, 0, 0, 0}));
    }
  }
  // A time of day keeps the date it is read into; 12 AM is midnight.
  TDate t(2024, 3, 5, 1, 2, 3, 4);
  EXPECT_EQ(TString(u"12:30:15 AM").SScanf(u"%T", &t), 1);
  EXPECT_EQ(Of(t), (F{2024, 3, 5, 0, 30, 15, 0}));
  EXPECT_EQ(TString(u"12:30:15 PM").SScanf(u"%T", &t), 1);
  EXPECT_EQ(Of(t), (F{2024, 3, 5, 12, 30, 15, 0}));
  // The offset reads into the flag and the offset word.
  TDate o;
  EXPECT_EQ(TString(u"2024-03-05T14:07:09.042+2400").SScanf(u"%.4D", &o), 1);
  EXPECT_EQ(o.GetGMTOffset(), 1440);
  EXPECT_EQ(o.GetFlags(), kDateFlagFields | kDateFlagAbsolute);
  // Suppressed and unfitting targets read without storing.
  int i = 0;
  unsigned n = 0;
  EXPECT_EQ(TString(u"3/5/2024 9").SScanf(u"%*D %u", &n), 1);
  EXPECT_EQ(n, 9u);
  EXPECT_EQ(TString(u"3/5/2024 9").SScanf(u"%D %u", &i, &n), 1);
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(DateFormatTest, IntervalsReadBack) {
  std::mt19937 rng(12);
  const char16_t* forms[] = {u"%I", u"%.1I", u"%.2I", u"%.3I"};
  for (const unsigned lcid : {kLcidEnUs, kLcidDeDe, kLcidJaJp}) {
    UseLocale(lcid);
    for (const char16_t* form : forms) {
      for (int i = 0; i < 2000; ++i) {
        // Beyond the calendar's days too: set without the range assertion.
        TInterval iv;
        iv.SetRaw(static_cast<int>(rng() % 4000000) - 2000000,
                  static_cast<int>(rng() % 86400) * 1000);
        if (i % 3 == 0) iv.SetRaw(0, (static_cast<int>(rng() % 172800) - 86400) * 1000);
        iv.normalize();
        TString text;
        text.SPrintf(form, &iv);
        TInterval back(5, 0, 0, 0, 5);
        ASSERT_EQ(text.SScanf(form, &back), 1) << Utf8(text);
        ASSERT_TRUE(back == iv) << Utf8(text) << " read " << back.RawDays() << " "
                                << back.RawMilliseconds();
      }
    }
  }
  TInterval back;
  EXPECT_EQ(TString(u"1 24:00:00").SScanf(u"%I", &back), 0);
  EXPECT_EQ(TString(u"1:60:00").SScanf(u"%.1I", &back), 0);
  EXPECT_EQ(TString(u"02:03:04").SScanf(u"%.3I", &back), 0);
  EXPECT_EQ(TString(u"-0 00:00:01").SScanf(u"%I", &back), 1);
  EXPECT_EQ(back.RawMilliseconds(), -1000);
  EXPECT_TRUE(Assertions().empty());  // long intervals read without the range assertion
}

}  // namespace
