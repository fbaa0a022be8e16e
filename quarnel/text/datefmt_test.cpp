// %D, %T and %I through TString::SPrintf, and reading them back with SScanf.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <string_view>

#include "quarnel/datetime/tdate.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/locale.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"
#include "tests/support/datefields.h"
#include "tests/support/helpers.h"

namespace {

class DateFormatTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    env_->lcid = kLcidEnUs;
    env_->acp = 65001;
    quarnel_internal::TStringResetCodePages();  // the host list read the system's page
  }
  ScopedEnv env_;
  HostList list_{16000, {{"Nevr", "never"}}};
};

// ---- output -------------------------------------------------------------------------------------

TEST_F(DateFormatTest, RowsOfTheCaseFile) {
  TDate d(2024, 3, 5, 14, 7, 9, 42);
  TDate abs = d, west = d;
  abs.SetGMTOffset(60);
  abs.SetFlags(kDateFlagAbsolute, 0);
  west.SetGMTOffset(-330);
  west.SetFlags(kDateFlagAbsolute, 0);
  TDate morning(2024, 11, 23, 0, 5, 0, 0);
  const std::map<std::string, const TDate*> dates = {
      {"d", &d}, {"abs", &abs}, {"west", &west}, {"morning", &morning}};
  const TInterval longer(1, 2, 3, 4, 500), shorter(0, 2, 3, 4, 999), negative(-1, -2, -3, -4, 0);
  const std::map<std::string, const TInterval*> intervals = {
      {"longer", &longer}, {"shorter", &shorter}, {"negative", &negative}, {"none", nullptr}};
  for (const auto& r : ReadTsv("datefmt.tsv")) {
    SCOPED_TRACE(r[0] + " " + r[1] + " " + r[2]);
    env_->lcid = r[0] == "O" ? static_cast<unsigned>(std::stoul(r[1], nullptr, 16)) : kLcidEnUs;
    if (r[0] == "O") {
      const TDate* date = dates.at(r[3]);
      // A second conversion takes the same date.
      EXPECT_EQ(Fmt(Utf16(r[2]).c_str(), date, date), r[4]);
    } else if (r[0] == "I") {
      EXPECT_EQ(Fmt(Utf16(r[1]).c_str(), intervals.at(r[2])), r[3]);
    } else {
      list_.Set({});
      TDate back(1999, 1, 1, 0, 0, 0, 0);
      EXPECT_EQ(TString(Utf16(r[1]).c_str()).SScanf(Utf16(r[2]).c_str(), &back), std::stoi(r[3]));
      if (r[3] == "0") {
        EXPECT_EQ(Of(back), (F{1999, 1, 1, 0, 0, 0, 0}));
      }
    }
  }
  EXPECT_EQ(Asserted(), "");
  // Days are not grouped; the interval is normalised before printing.
  TInterval many(12345, 0, 0, 0, 0), loose;
  loose.SetRaw(0, 90000000);
  EXPECT_EQ(Fmt(u"%I|%I", &many, &loose), "12345 00:00:00|1 01:00:00");
}

TEST_F(DateFormatTest, MissingAndDefaultDatesPrintTheWordNever) {
  const TDate def;
  EXPECT_EQ(Fmt(u"%D|%~D|%.4D|%T|%.1T", &def, &def, &def, &def, &def),
            "never|never|never|never|never");
  EXPECT_EQ(Fmt(u"%D|%T", static_cast<const TDate*>(nullptr), static_cast<const TDate*>(nullptr)),
            "never|never");
  // An argument of another kind counts as missing.
  EXPECT_EQ(Fmt(u"%D", 5), "never");
  EXPECT_EQ(Fmt(u"[%7D]", &def), "[  never]");
  // The first moment of a later day is a date like any other.
  const TDate second(1, 1, 1, 0, 0, 1, 0);
  EXPECT_EQ(Fmt(u"%.4D", &second), "0001-01-01T00:00:01.000");
  // Milliseconds show what the date holds: 999 set is kept modulo 256, 999
  // imported is kept whole.
  const TDate d(2024, 3, 5, 14, 7, 9, 999);
  EXPECT_EQ(Fmt(u"%.1T", &d), "14:07:09.231");
  TDate imported;
  const unsigned char rec[24] = {0x2E, 0x65, 0x74, 0x44, 0, 1, 0,  1, 1, 0, 0xE8, 0x07,
                                 3,    5,    0xE7, 0x03, 9, 7, 14, 0, 0, 0, 0,    0};
  ASSERT_EQ(imported.Import(rec, 24), 24);
  EXPECT_EQ(Fmt(u"%.4D", &imported), "2024-03-05T14:07:09.999");

  // "never" reads back as the default date; without the word, so does an
  // empty field.
  TDate back(2024, 3, 5, 1, 2, 3, 4);
  unsigned n = 0;
  EXPECT_EQ(TString(u"never;7").SScanf(u"%D;%u", &back, &n), 2);
  EXPECT_TRUE(back.IsDefault());
  EXPECT_EQ(n, 7u);
  list_.Set({});
  EXPECT_EQ(Fmt(u"[%D]", &def), "[]");
  back = TDate(2024, 3, 5, 1, 2, 3, 4);
  EXPECT_EQ(TString(u";8").SScanf(u"%D;%u", &back, &n), 2);
  EXPECT_TRUE(back.IsDefault());
  back = TDate(2024, 3, 5, 1, 2, 3, 4);
  EXPECT_EQ(TString(u"").SScanf(u"%D", &back), 1);
  EXPECT_TRUE(back.IsDefault());
}

// ---- input --------------------------------------------------------------------------------------

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
    env_->lcid = lcid;
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
  EXPECT_EQ(Asserted(), "");
}

// What the case file's S rows do not show.
TEST_F(DateFormatTest, ScanningFillsWhatTheFormHolds) {
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
  EXPECT_EQ(Asserted(), "");
}

TEST_F(DateFormatTest, IntervalsReadBack) {
  std::mt19937 rng(12);
  const char16_t* forms[] = {u"%I", u"%.1I", u"%.2I", u"%.3I"};
  for (const unsigned lcid : {kLcidEnUs, kLcidDeDe, kLcidJaJp}) {
    env_->lcid = lcid;
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
  EXPECT_EQ(Asserted(), "");  // long intervals read without the range assertion
}

}  // namespace
