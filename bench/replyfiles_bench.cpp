// replyfiles_bench.cpp -- the cost of placing a reply's files below ../htdocs/: 50 fresh
// files, the same 50 files rewritten in place (what a repeated request does), and, for
// comparison, the rewrite done by truncating on open (fopen "w").
#include "gateway/gateway.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kFiles = 50;

// A temporary cgi-bin/ + htdocs/tmp/ tree, entered for the life of the object.
struct Tree {
  std::string root, oldCwd;
  Tree() {
    char pattern[] = "/tmp/qvbench-XXXXXX";
    root = mkdtemp(pattern);
    mkdir((root + "/cgi-bin").c_str(), 0755);
    mkdir((root + "/htdocs").c_str(), 0755);
    mkdir((root + "/htdocs/tmp").c_str(), 0755);
    char cwd[4096];
    oldCwd = getcwd(cwd, sizeof cwd) ? cwd : "/";
    if (chdir((root + "/cgi-bin").c_str()) != 0) abort();
  }
  ~Tree() {
    if (chdir(oldCwd.c_str()) != 0) perror("chdir");
    if (system(("rm -rf '" + root + "'").c_str()) != 0) perror("rm");
  }
};

std::vector<std::string> names() {
  std::vector<std::string> out;
  for (int i = 0; i < kFiles; i++) out.push_back("tmp/file-" + std::to_string(i) + ".html");
  return out;
}

std::string contents(int64_t size) { return std::string(static_cast<size_t>(size), 'c'); }

void BM_ReplyFilesFresh(benchmark::State &state) {
  Tree tree;
  auto files = names();
  std::string body = contents(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto &f : files) unlink(("../htdocs/" + f).c_str());
    state.ResumeTiming();
    for (const auto &f : files) quorvel::gateway::writeHtdocsFile(f.c_str(), body.c_str());
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}

void BM_ReplyFilesOverwrite(benchmark::State &state) {
  Tree tree;
  auto files = names();
  std::string body = contents(state.range(0));
  for (const auto &f : files) quorvel::gateway::writeHtdocsFile(f.c_str(), body.c_str());
  for (auto _ : state)
    for (const auto &f : files) quorvel::gateway::writeHtdocsFile(f.c_str(), body.c_str());
  state.SetItemsProcessed(state.iterations() * kFiles);
}

// The straightforward rewrite: fopen "w" truncates the just-written file to zero, and
// closing it then forces its data out.
void BM_ReplyFilesTruncateOnOpen(benchmark::State &state) {
  Tree tree;
  auto files = names();
  std::string body = contents(state.range(0));
  for (auto _ : state) {
    for (const auto &f : files) {
      FILE *out = fopen(("../htdocs/" + f).c_str(), "w");
      if (!out) abort();
      fprintf(out, "%s", body.c_str());
      fclose(out);
    }
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}

BENCHMARK(BM_ReplyFilesFresh)->Arg(1024)->Arg(16384)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReplyFilesOverwrite)->Arg(1024)->Arg(16384)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReplyFilesTruncateOnOpen)->Arg(1024)->Arg(16384)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
