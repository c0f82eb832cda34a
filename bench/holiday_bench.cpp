// holiday_bench.cpp -- HolidayFor over a shared holiday file of 10,000 holidays (a date
// no holiday covers scans the whole list; a date only the last one covers), and parsing
// and writing the text of that list.
#include "core/base/base.h"
#include "core/date/holiday.h"

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

constexpr int kHolidays = 10000;

// 10,000 one-day holidays, one a day from 1/1/1990 on (about 27 years).
std::string holidayText() {
  std::string text;
  struct tm tm = {};
  tm.tm_year = 90, tm.tm_mday = 1, tm.tm_hour = 12, tm.tm_isdst = -1;
  char line[96];
  for (int i = 0; i < kHolidays; i++) {
    struct tm d = tm;
    d.tm_mday += i;
    mktime(&d);
    snprintf(line, sizeof line, "Day %d*%s:\t%d/%d/%d - %d/%d/%d\n", i, i % 7 ? "nonworkday" : "workday",
             d.tm_mon + 1, d.tm_mday, d.tm_year + 1900, d.tm_mon + 1, d.tm_mday, d.tm_year + 1900);
    text += line;
  }
  return text;
}

// The installation root and HOME, with the shared file written once.
void setUp() {
  static bool done = false;
  if (done) return;
  done = true;
  setenv("TZ", "Europe/Berlin", 1), tzset();
  char tmpl[] = "/tmp/qvholbenchXXXXXX";
  if (!mkdtemp(tmpl)) abort();
  std::string root = tmpl;
  mkdir((root + "/db").c_str(), 0755);
  mkdir((root + "/db/database").c_str(), 0755);
  setenv("QUORVELPATH", root.c_str(), 1);
  setenv("HOME", root.c_str(), 1);  // no .quorvel/holidays: an empty user list
  quorvel::resetBase();
  FILE *f = fopen((root + "/db/database/holidays").c_str(), "w");
  if (!f) abort();
  fputs(holidayText().c_str(), f);
  fclose(f);
  quorvel::LoadHolidays();
  int n = 0;
  quorvel::SystemHolidays(&n);
  if (n != kHolidays) abort();
}

void BM_HolidayForMiss(benchmark::State &state) {
  setUp();
  int work;
  for (auto _ : state) benchmark::DoNotOptimize(quorvel::HolidayFor(2030, 5, 1, &work));
  if (quorvel::HolidayFor(2030, 5, 1, &work) != nullptr) state.SkipWithError("unexpected holiday");
}
BENCHMARK(BM_HolidayForMiss);

void BM_HolidayForLast(benchmark::State &state) {
  setUp();
  int work;
  // Day 9999 after 1/1/1990 is 5/18/2017.
  for (auto _ : state) benchmark::DoNotOptimize(quorvel::HolidayFor(2017, 4, 18, &work));
  const char *name = quorvel::HolidayFor(2017, 4, 18, &work);
  if (name == nullptr || std::string(name) != "Day 9999") state.SkipWithError("wrong holiday");
}
BENCHMARK(BM_HolidayForLast);

void BM_ParseHolidays(benchmark::State &state) {
  setUp();
  std::string text = holidayText();
  for (auto _ : state) {
    int n = 0;
    quorvel::Holiday **list = quorvel::ParseHolidays(text.c_str(), &n);
    quorvel::FreeHolidays(list, n);
  }
}
BENCHMARK(BM_ParseHolidays)->Unit(benchmark::kMillisecond);

void BM_FormatHolidays(benchmark::State &state) {
  setUp();
  int n = 0;
  quorvel::Holiday **list = quorvel::SystemHolidays(&n);
  for (auto _ : state) quorvel::freeMem(quorvel::FormatHolidays(list, n));
}
BENCHMARK(BM_FormatHolidays)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
