// users_bench.cpp -- reading the users file of 10,000 and 100,000 lines into the main
// context's list and calendar-name table, and name lookups in the table.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/people/identity.h"
#include "core/people/users.h"

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void noPause(unsigned) {}

std::string &benchRoot() {
  static std::string root;
  if (root.empty()) {
    char tmpl[] = "/tmp/qvusersbenchXXXXXX";
    if (!mkdtemp(tmpl)) abort();
    root = tmpl;
    mkdir((root + "/db").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    quorvel::resetBase();
    quorvel::setPauseHook(noPause);
  }
  return root;
}

void writeUsersFile(long lines) {
  FILE *f = fopen((benchRoot() + "/db/users").c_str(), "w");
  if (!f) abort();
  fputs("# generated users file\n", f);
  for (long i = 0; i < lines; i++)
    fprintf(f, "user%ld,login%ld,user%ld@example.org,User Number %ld\n", i, i, i, i);
  fclose(f);
}

quorvel::DbHandle *freshMain() {
  quorvel::resetDbContexts();
  quorvel::resetIdentity();
  quorvel::resetUsers();
  return quorvel::openDefaultDb();
}

void BM_ReadUsersFile(benchmark::State &state) {
  writeUsersFile(state.range(0));
  quorvel::DbHandle *db = freshMain();
  int changed = 0;
  for (auto _ : state) {
    db->usersFileTime = quorvel::NO_TIME;  // the file counts as newer every time
    benchmark::DoNotOptimize(quorvel::readUsersFile(db, &changed));
  }
  if (!db->users || db->users->count != state.range(0)) state.SkipWithError("short read");
  state.SetComplexityN(state.range(0));
  state.counters["lines/s"] =
      benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate);
  quorvel::releaseUsers(db);
}
BENCHMARK(BM_ReadUsersFile)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

void BM_LookupCalendar(benchmark::State &state) {
  writeUsersFile(state.range(0));
  quorvel::DbHandle *db = freshMain();
  int changed = 0;
  quorvel::readUsersFile(db, &changed);
  std::string name = "user" + std::to_string(state.range(0) - 1);
  for (auto _ : state) benchmark::DoNotOptimize(quorvel::lookupCalendar(db, name.c_str()));
  quorvel::releaseUsers(db);
}
BENCHMARK(BM_LookupCalendar)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
