// perms_bench.cpp -- putDats writing 1,000 and 10,000 permission records to a real
// file (write, size check, unlink, rename, directory sync), and the writer alone into
// memory, for a database of 500 calendars.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/record.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

namespace {

constexpr int kCalendars = 500;

std::string &benchRoot() {
  static std::string root;
  if (root.empty()) {
    char tmpl[] = "/tmp/qvpermbenchXXXXXX";
    if (!mkdtemp(tmpl)) abort();
    root = tmpl;
    mkdir((root + "/db").c_str(), 0755);
    mkdir((root + "/db/database").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    quorvel::resetBase();
  }
  return root;
}

// The main context with kCalendars users and n records: each owner has a few readers,
// one writer and one agent; every tenth record is for every calendar.
quorvel::DbHandle *contextWith(long n) {
  benchRoot();
  quorvel::resetDbContexts();
  quorvel::resetPerms();
  quorvel::DbHandle *db = quorvel::openDefaultDb();
  quorvel::UserList *list = quorvel::newUserList();
  for (int i = 0; i < kCalendars; i++) {
    std::string name = "calendar" + std::to_string(i);
    quorvel::addUserEntry(list, name.c_str(), "login", "", "", 0);
  }
  quorvel::installUserList(db, list);
  for (long i = 0; i < n; i++) {
    int owner = static_cast<int>(i % kCalendars);
    quorvel::DatEntry *rec = quorvel::AddToDat(db, i % 10 == 9 ? quorvel::PERM_OWNER_ALL : owner);
    for (int k = 1; k <= 6; k++) quorvel::setbit(&rec->readers, (owner + k * 37) % kCalendars, 1);
    quorvel::setbit(&rec->writers, (owner + 1) % kCalendars, 1);
    quorvel::setbit(&rec->agents, (owner + 2) % kCalendars, 1);
  }
  return db;
}

void BM_PutDats(benchmark::State &state) {
  quorvel::DbHandle *db = contextWith(state.range(0));
  std::string path = benchRoot() + "/db/database/dat.perm";
  for (auto _ : state)
    if (quorvel::putDats(db, path.c_str()) != 0) state.SkipWithError("putDats failed");
  state.SetComplexityN(state.range(0));
  state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.range(0)),
                                                   benchmark::Counter::kIsIterationInvariantRate);
  state.counters["bytes"] = static_cast<double>(quorvel::datPermFileSize());
}
BENCHMARK(BM_PutDats)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity();

void BM_WriteDatRecordsToMemory(benchmark::State &state) {
  quorvel::DbHandle *db = contextWith(state.range(0));
  for (auto _ : state) {
    quorvel::TextSink sink;
    benchmark::DoNotOptimize(quorvel::writeDatRecords(db, &sink, quorvel::textLineWriter));
  }
}
BENCHMARK(BM_WriteDatRecordsToMemory)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ReadDatPermFile(benchmark::State &state) {
  quorvel::DbHandle *db = contextWith(state.range(0));
  std::string path = benchRoot() + "/db/database/dat.perm";
  if (quorvel::putDats(db, path.c_str()) != 0) state.SkipWithError("putDats failed");
  for (auto _ : state)
    if (quorvel::readDatPermFile(db, path.c_str()) != state.range(0))
      state.SkipWithError("short read");
}
BENCHMARK(BM_ReadDatPermFile)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
