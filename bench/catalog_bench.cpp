// catalog_bench.cpp -- catalogue lookups: the first and the 5,000th message of a set,
// against the C library's own catalogue (a .cat built by gencat from an equivalent .msg
// at start-up, in a temporary directory) looked up the same way.
#include "core/base/base.h"
#include "core/catalog/catalog.h"

#include <benchmark/benchmark.h>
#include <nl_types.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kMessages = 5000;

struct Catalogues {
  std::string root;          // temporary installation root
  nl_catd glibc = (nl_catd)-1;  // the C library's handle
  bool ready = false;
};

void writeText(const std::string &path, const std::string &text) {
  FILE *f = fopen(path.c_str(), "w");
  if (!f) abort();
  fputs(text.c_str(), f);
  fclose(f);
}

// One set of kMessages messages (and a second set), in both products' .msg syntax.
std::string messageFile() {
  std::string text = "$set 1\n";
  for (int i = 1; i <= kMessages; i++)
    text += std::to_string(i) + " Message number " + std::to_string(i) + " of set one\n";
  text += "$set 2\n1 Second set\n";
  return text;
}

Catalogues &catalogues() {
  static Catalogues c;
  if (c.ready) return c;
  char tmpl[] = "/tmp/qvcatbenchXXXXXX";
  if (!mkdtemp(tmpl)) abort();
  c.root = tmpl;
  mkdir((c.root + "/resources").c_str(), 0755);
  mkdir((c.root + "/resources/En_US").c_str(), 0755);
  std::string text = messageFile();
  writeText(c.root + "/resources/En_US/bench.msg", text);
  writeText(c.root + "/glibc.msg", text);
  std::string cmd = "gencat '" + c.root + "/glibc.cat' '" + c.root + "/glibc.msg'";
  if (system(cmd.c_str()) != 0) abort();
  setenv("QUORVELPATH", c.root.c_str(), 1);
  unsetenv("NOQUORVELCATGETS");
  quorvel::resetBase();
  quorvel::resetCatalog();
  quorvel::catopen("bench");
  c.glibc = ::catopen((c.root + "/glibc.cat").c_str(), NL_CAT_LOCALE);
  if (c.glibc == (nl_catd)-1) abort();
  c.ready = true;
  return c;
}

void lookupOurs(benchmark::State &state, int number) {
  catalogues();
  const char *def = "default";
  if (quorvel::catgets("bench", 1, number, def) == def) state.SkipWithError("not loaded");
  for (auto _ : state) benchmark::DoNotOptimize(quorvel::catgets("bench", 1, number, def));
}

void lookupGlibc(benchmark::State &state, int number) {
  nl_catd cat = catalogues().glibc;
  const char *def = "default";
  if (::catgets(cat, 1, number, def) == def) state.SkipWithError("not loaded");
  for (auto _ : state) benchmark::DoNotOptimize(::catgets(cat, 1, number, def));
}

void BM_CatgetsFirstMessage(benchmark::State &s) { lookupOurs(s, 1); }
void BM_CatgetsMessage5000(benchmark::State &s) { lookupOurs(s, kMessages); }
void BM_GlibcCatgetsFirstMessage(benchmark::State &s) { lookupGlibc(s, 1); }
void BM_GlibcCatgetsMessage5000(benchmark::State &s) { lookupGlibc(s, kMessages); }

BENCHMARK(BM_CatgetsFirstMessage);
BENCHMARK(BM_CatgetsMessage5000);
BENCHMARK(BM_GlibcCatgetsFirstMessage);
BENCHMARK(BM_GlibcCatgetsMessage5000);

// Loading the whole 5,000-message file (one language slot).
void BM_CatopenLoad5000(benchmark::State &state) {
  catalogues();
  for (auto _ : state) {
    quorvel::resetCatalog();
    benchmark::DoNotOptimize(quorvel::catopen("bench"));
  }
}
BENCHMARK(BM_CatopenLoad5000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
