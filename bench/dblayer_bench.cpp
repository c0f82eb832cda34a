// dblayer_bench.cpp -- the cost of the database layer's per-access work: reading a file
// time, the change-stamp check every record-file read makes, touching the stamp after a
// write, making a scratch file, and building a lock path. Runs in a temporary directory
// on the real file system.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/retry.h"

using namespace quorvel;

namespace {

// A database directory with "locks/active1" under a fresh temporary directory.
std::string benchDb() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/qvdbbenchXXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    dir = tmpl;
    mkdir((dir + "/locks").c_str(), 0700);
    FILE *f = fopen((dir + "/locks/active1").c_str(), "w");
    if (f == nullptr) abort();
    fclose(f);
  }
  return dir;
}

void BM_FileChangeTime(benchmark::State &state) {
  std::string stamp = benchDb() + "/locks/active1";
  for (auto _ : state) benchmark::DoNotOptimize(fileChangeTime(stamp.c_str()));
}
BENCHMARK(BM_FileChangeTime);

void BM_StampCheckUnchanged(benchmark::State &state) {
  DbHandle *db = newDbHandle(benchDb().c_str(), nullptr, DB_KIND_NONE);
  refreshChangeStamp(db);
  for (auto _ : state) {
    if (stampChanged(db)) refreshChangeStamp(db);
    benchmark::DoNotOptimize(db->lastSeenStamp);
  }
  freeDbHandle(db);
}
BENCHMARK(BM_StampCheckUnchanged);

void BM_TouchChangeStamp(benchmark::State &state) {
  std::string stamp = benchDb() + "/locks/active1";
  for (auto _ : state) benchmark::DoNotOptimize(touchChangeStamp(stamp.c_str()));
}
BENCHMARK(BM_TouchChangeStamp);

void BM_MakeScratchFile(benchmark::State &state) {
  std::string tmpl = benchDb() + "/scrXXXXXX";
  char name[DB_PATH_MAX];
  for (auto _ : state) {
    memcpy(name, tmpl.c_str(), tmpl.size() + 1);
    if (makeScratchFile(name) != 0) state.SkipWithError("makeScratchFile failed");
    retryUnlink(name);
  }
}
BENCHMARK(BM_MakeScratchFile);

void BM_StampPath(benchmark::State &state) {
  char out[DB_PATH_MAX];
  for (auto _ : state) benchmark::DoNotOptimize(stampPath(out, "/srv/quorvel/db/database"));
}
BENCHMARK(BM_StampPath);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!benchDb().empty()) std::filesystem::remove_all(benchDb());
  return 0;
}
