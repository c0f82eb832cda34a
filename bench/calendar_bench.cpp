// calendar_bench.cpp -- the calendar mode in one process: the month view of a calendar
// with 10,000 items in the month (page and picture, as the agent answers), and the
// listing it is built from alone. The database is sample_calendar's, made by the
// benchmark in a temporary directory (the program must be built: see bench/README.md).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "testing/calendar_view.h"

namespace {

using namespace quorvel::webagent;

// The database, made once per process; its root.
const std::string &bulkDatabase() {
  static std::string root;
  if (root.empty()) {
    setenv("TZ", "UTC", 1);
    char pattern[] = "/tmp/qvcalbench-XXXXXX";
    root = mkdtemp(pattern);
    std::string maker = std::getenv("QV_SAMPLE_CALENDAR") ? std::getenv("QV_SAMPLE_CALENDAR")
                                                          : "build-bench-web/testing/sample_calendar";
    if (std::system((maker + " " + root + " 2026 11 10000").c_str()) != 0) {
      fprintf(stderr, "calendar_bench: cannot run %s (set QV_SAMPLE_CALENDAR)\n", maker.c_str());
      std::exit(1);
    }
    std::atexit([] { std::filesystem::remove_all(root); });
  }
  return root;
}

void BM_MonthView10k(benchmark::State &state) {
  const std::string &root = bulkDatabase();
  size_t bytes = 0;
  for (auto _ : state) {
    std::vector<AgentPair> reply = calendarReply(root, "view=month&user=big&date=2026-11");
    bytes = reply.back().contents.size();
    benchmark::DoNotOptimize(reply);
  }
  state.counters["page_bytes"] = double(bytes);
}
BENCHMARK(BM_MonthView10k)->Unit(benchmark::kMillisecond);

void BM_DayView10k(benchmark::State &state) {
  const std::string &root = bulkDatabase();
  for (auto _ : state) benchmark::DoNotOptimize(calendarReply(root, "view=day&user=big&date=2026-11-12"));
}
BENCHMARK(BM_DayView10k)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
