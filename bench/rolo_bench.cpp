// rolo_bench.cpp -- an address book of 10,000 cards: read from its file, sorted, and
// written back through the locked rewrite.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/people/rolo.h"
#include "core/people/users.h"

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kCards = 10000;

void noPause(unsigned) {}

// A database with one calendar, "anna", whose book holds kCards cards in random order.
quorvel::DbHandle *benchDb() {
  static quorvel::DbHandle *db;
  if (db) return db;
  char tmpl[] = "/tmp/qvrolobenchXXXXXX";
  if (!mkdtemp(tmpl)) abort();
  std::string root = tmpl;
  for (const char *d : {"/db", "/db/database", "/db/database/locks"})
    mkdir((root + d).c_str(), 0755);
  setenv("QUORVELPATH", root.c_str(), 1);
  quorvel::resetBase();
  quorvel::setPauseHook(noPause);
  db = quorvel::openDefaultDb();
  quorvel::addCalendarName(nullptr, "anna", "a", "", "");
  quorvel::addCalendarName(nullptr, "bob", "b", "", "");
  return db;
}

// kCards cards with a name, a mail address, a two-line address and a note, shuffled.
void writeBook(const std::string &path) {
  FILE *f = fopen(path.c_str(), "w");
  if (!f) abort();
  srand48(7);
  for (int i = 0; i < kCards; i++) {
    long k = lrand48() % 1000000;
    fprintf(f, "%s#B\t0x%lx @0x0 %%0x0\n#1:\tPerson %06ld\n#2:\tp%ld@example.org\n"
               "#3:\t%ld Main Street\n\tSpringfield\n#4:\tmet at a conference\n\n",
            i % 3 == 0 ? "#O\tbob\n" : "", 1700000000L + i, k, k, k % 100);
  }
  fclose(f);
}

void BM_ReadBook(benchmark::State &state) {
  quorvel::DbHandle *db = benchDb();
  std::string path = quorvel::roloPath(0);
  writeBook(path);
  quorvel::BookState *book = quorvel::findBookState(db, 0);
  quorvel::RoloEntry *list = nullptr;
  for (auto _ : state) {
    int32_t stamp = quorvel::NO_TIME;  // never the file's time: read every time
    book->changed = false;
    list = quorvel::readrololist(db, book, 0, list, &stamp);
  }
  if (quorvel::roloCount(list) != kCards) state.SkipWithError("short read");
  quorvel::freeRoloList(list);
  book->list = nullptr;
  state.counters["cards/s"] = benchmark::Counter(kCards, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ReadBook)->Unit(benchmark::kMillisecond);

void BM_SortBook(benchmark::State &state) {
  quorvel::DbHandle *db = benchDb();
  std::string path = quorvel::roloPath(0);
  writeBook(path);
  FILE *in = fopen(path.c_str(), "r");
  quorvel::RoloEntry *shuffled = quorvel::newRoloList();
  quorvel::readRoloStream(in, 0, shuffled);
  fclose(in);
  std::string text = quorvel::formatRoloList(shuffled, 0);
  quorvel::freeRoloList(shuffled);
  for (auto _ : state) {
    state.PauseTiming();
    quorvel::RoloEntry *list = quorvel::parseRoloList(text.data(), text.size(), 0);
    state.ResumeTiming();
    quorvel::sortrololist(list);
    state.PauseTiming();
    if (quorvel::roloOutOfOrder(list)) state.SkipWithError("not sorted");
    quorvel::freeRoloList(list);
    state.ResumeTiming();
  }
  (void)db;
}
BENCHMARK(BM_SortBook)->Unit(benchmark::kMillisecond);

void BM_WriteBook(benchmark::State &state) {
  quorvel::DbHandle *db = benchDb();
  std::string path = quorvel::roloPath(0);
  writeBook(path);
  quorvel::BookState *book = quorvel::findBookState(db, 0);
  int32_t stamp = quorvel::NO_TIME;
  book->changed = false;
  quorvel::RoloEntry *list = quorvel::readrololist(db, book, 0, nullptr, &stamp);
  for (auto _ : state)
    if (quorvel::writerololist(db, book, 0, 1, nullptr) != 0) state.SkipWithError("write failed");
  quorvel::freeRoloList(list);
  book->list = nullptr;
  state.counters["cards/s"] = benchmark::Counter(kCards, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_WriteBook)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
