// TDate arithmetic beside std::chrono, the calendar a user would pick instead:
//   - date to day number and back: getTotalDays and TDate::FromDays beside
//     year_month_day -> sys_days -> year_month_day;
//   - a date plus one calendar month: TDate + TDateStep beside
//     year_month_day + months(1) with the day clamped to the month's end;
//   - the difference of two dates with times: TDate - TDate beside the
//     difference of two sys_time<milliseconds> built from the fields.
// Each iteration works through the same 1024 random dates (years 1601..4000)
// on both sides; items are dates.
#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <vector>

#include "quarnel/datetime/tdate.h"

namespace {

using namespace std::chrono;

constexpr int kDates = 1024;

struct Fields {
  int y;
  unsigned m, d, h, mi, s, ms;
};

const std::vector<Fields>& Sample() {
  static const std::vector<Fields> sample = [] {
    std::mt19937 rng(42);
    auto below = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
    std::vector<Fields> v;
    for (int i = 0; i < kDates; ++i) {
      const int y = 1601 + static_cast<int>(below(2400));
      const unsigned m = 1 + below(12);
      const unsigned last =
          static_cast<unsigned>(year_month_day_last(year(y) / month(m) / std::chrono::last).day());
      v.push_back(Fields{y, m, 1 + below(last), below(24), below(60), below(60), below(256)});
    }
    return v;
  }();
  return sample;
}

std::vector<TDate> Dates() {
  std::vector<TDate> v;
  for (const Fields& f : Sample()) {
    v.emplace_back(static_cast<unsigned short>(f.y), static_cast<unsigned short>(f.m),
                   static_cast<unsigned short>(f.d), static_cast<unsigned short>(f.h),
                   static_cast<unsigned short>(f.mi), static_cast<unsigned short>(f.s),
                   static_cast<unsigned short>(f.ms));
  }
  return v;
}

std::vector<year_month_day> Ymds() {
  std::vector<year_month_day> v;
  for (const Fields& f : Sample()) v.push_back(year(f.y) / month(f.m) / day(f.d));
  return v;
}

std::vector<sys_time<milliseconds>> Instants() {
  std::vector<sys_time<milliseconds>> v;
  for (const Fields& f : Sample()) {
    v.push_back(sys_days(year(f.y) / month(f.m) / day(f.d)) + hours(f.h) + minutes(f.mi) +
                seconds(f.s) + milliseconds(f.ms));
  }
  return v;
}

void BM_TDateDayNumberRoundTrip(benchmark::State& state) {
  const std::vector<TDate> dates = Dates();
  for (auto _ : state) {
    for (const TDate& d : dates) {
      TDate back = TDate::FromDays(d.getTotalDays());
      benchmark::DoNotOptimize(back);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

void BM_ChronoDayNumberRoundTrip(benchmark::State& state) {
  const std::vector<year_month_day> ymds = Ymds();
  for (auto _ : state) {
    for (const year_month_day& d : ymds) {
      year_month_day back{sys_days(d)};
      benchmark::DoNotOptimize(back);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

void BM_TDatePlusMonth(benchmark::State& state) {
  const std::vector<TDate> dates = Dates();
  const TDateStep month(0, 1, 0, 0, 0, 0, 0, 0);
  for (auto _ : state) {
    for (const TDate& d : dates) {
      TDate next = d + month;
      benchmark::DoNotOptimize(next);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

// The chrono peer keeps the time of day aside, as a user would, and clamps
// the day like the calendar step does.
void BM_ChronoPlusMonth(benchmark::State& state) {
  const std::vector<year_month_day> ymds = Ymds();
  for (auto _ : state) {
    for (const year_month_day& d : ymds) {
      year_month_day next = d + months(1);
      if (!next.ok()) next = year_month_day_last(next.year() / next.month() / std::chrono::last);
      benchmark::DoNotOptimize(next);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

void BM_TDateDifference(benchmark::State& state) {
  const std::vector<TDate> dates = Dates();
  for (auto _ : state) {
    for (int i = 0; i < kDates; ++i) {
      TInterval gap = dates[i] - dates[(i + 1) % kDates];
      benchmark::DoNotOptimize(gap);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

// From the fields, as a TDate holds them, to a difference in milliseconds.
void BM_ChronoDifference(benchmark::State& state) {
  const std::vector<Fields>& f = Sample();
  auto instant = [](const Fields& x) {
    return sys_days(year(x.y) / month(x.m) / day(x.d)) + hours(x.h) + minutes(x.mi) + seconds(x.s) +
           milliseconds(x.ms);
  };
  for (auto _ : state) {
    for (int i = 0; i < kDates; ++i) {
      milliseconds gap = instant(f[i]) - instant(f[(i + 1) % kDates]);
      benchmark::DoNotOptimize(gap);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

// The same with the instants already computed: the floor for any calendar.
void BM_ChronoDifferenceOfInstants(benchmark::State& state) {
  const std::vector<sys_time<milliseconds>> t = Instants();
  for (auto _ : state) {
    for (int i = 0; i < kDates; ++i) {
      milliseconds gap = t[i] - t[(i + 1) % kDates];
      benchmark::DoNotOptimize(gap);
    }
  }
  state.SetItemsProcessed(state.iterations() * kDates);
}

}  // namespace

BENCHMARK(BM_TDateDayNumberRoundTrip);
BENCHMARK(BM_ChronoDayNumberRoundTrip);
BENCHMARK(BM_TDatePlusMonth);
BENCHMARK(BM_ChronoPlusMonth);
BENCHMARK(BM_TDateDifference);
BENCHMARK(BM_ChronoDifference);
BENCHMARK(BM_ChronoDifferenceOfInstants);
