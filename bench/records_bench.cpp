// records_bench.cpp -- a record file of 100,000 items written (writedbfile + tmprelink)
// and read back (readRecordFile), against the raw cost of moving the same bytes the
// same way: write a scratch file, fsync, rename it over the file, fsync the directory,
// and read the file back with fread.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/db/record.h"
#include "core/db/recordfile.h"
#include "core/net/namelookup.h"

using namespace quorvel;

namespace {

constexpr int ITEMS = 100000;

std::vector<std::string> names;
int countNames(void *) { return int(names.size()); }
const char *nameAt(void *, int i) { return i >= 0 && size_t(i) < names.size() ? names[size_t(i)].c_str() : nullptr; }
int indexOfName(void *, const char *name) {
  // Names are "user<n>": found by their number and checked, about the cost of the
  // calendar-name table's hashed lookup.
  if (name[0] != 'u' || name[1] != 's' || name[2] != 'e' || name[3] != 'r') return -1;
  int i = 0;
  for (const char *p = name + 4; *p >= '0' && *p <= '9' && i < 100000; p++) i = i * 10 + (*p - '0');
  return size_t(i) < names.size() && strcmp(names[size_t(i)].c_str(), name) == 0 ? i : -1;
}
const NameLookup lookup = {nullptr, countNames, nameAt, indexOfName};

// A temporary directory holding the record file; removed at exit.
struct Scratch {
  std::string dir;
  Scratch() {
    char tmpl[] = "/tmp/qvrecbenchXXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    dir = tmpl;
  }
  ~Scratch() { std::filesystem::remove_all(dir); }
};

Scratch &scratch() {
  static Scratch s;
  return s;
}

// A typical calendar entry: title, times, two calendars, owner, an alarm, numbers.
Item *sampleItem(int i) {
  Item *it = evnew();
  char title[64];
  snprintf(title, sizeof title, "Weekly review %d with the planning group", i);
  evsetTitle(it, title);
  it->timeValue = {{1700000000 + i * 900, 1, 0}, {1700000000 + i * 900 + 3600, 1, 0}};
  setbit(&it->calendars, i % 50, 1);
  setbit(&it->calendars, (i + 7) % 50, 1);
  it->owner = i % 50;
  Alarm *a = addAlarmEntry(it);
  a->user = i % 50;
  a->start = 15;
  a->freq = 5;
  it->randomId = i + 1;
  it->fNumber = 1700000000;
  return it;
}

RecordFile *sampleFile(const std::string &path) {
  setNameLookup(&lookup);
  RecordFile *rf = newRecordFile(path.c_str(), nullptr);
  rf->list.timeValue = {{1700000000, 1, 0}, {1800000000, 1, 0}};
  for (int i = 0; i < ITEMS; i++) addRecordItem(rf, sampleItem(i));
  return rf;
}

void setUpNames() {
  if (names.empty())
    for (int i = 0; i < 50; i++) names.push_back("user" + std::to_string(i));
  setNameLookup(&lookup);
}

// The record file's bytes, written once for the raw benchmarks.
const std::string &sampleText() {
  static std::string text;
  if (text.empty()) {
    setUpNames();
    RecordFile *rf = sampleFile(scratch().dir + "/text");
    writeList(&text, &rf->list);
    freeRecordFile(rf);
  }
  return text;
}

void syncDir(const std::string &dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  fsync(fd);
  close(fd);
}

void rawWrite(const std::string &path, const std::string &text) {
  std::string tmp = path + "TMP";
  FILE *fp = fopen(tmp.c_str(), "w");
  fwrite(text.data(), 1, text.size(), fp);
  fflush(fp);
  fsync(fileno(fp));
  fclose(fp);
  rename(tmp.c_str(), path.c_str());
  syncDir(scratch().dir);
}

size_t rawRead(const std::string &path) {
  FILE *fp = fopen(path.c_str(), "r");
  std::vector<char> buf;
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, fp)) > 0) buf.insert(buf.end(), chunk, chunk + n);
  fclose(fp);
  return buf.size();
}

void setBytes(benchmark::State &state, size_t bytes) {
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
  state.counters["file_bytes"] = double(bytes);
}

void BM_RecordWriteRead(benchmark::State &state) {
  setUpNames();
  std::string path = scratch().dir + "/cal";
  RecordFile *rf = sampleFile(path);
  rawWrite(path, "");
  for (auto _ : state) {
    rf->dirty = true;
    if (writedbfile(rf) != 0 || tmprelink(rf) != 0) state.SkipWithError("write failed");
    readRecordFile(nullptr, rf);
    if (rf->count != ITEMS) state.SkipWithError("read lost items");
  }
  setBytes(state, size_t(rf->size));
  freeRecordFile(rf);
}

void BM_RawWriteRead(benchmark::State &state) {
  const std::string &text = sampleText();
  std::string path = scratch().dir + "/raw";
  for (auto _ : state) {
    rawWrite(path, text);
    benchmark::DoNotOptimize(rawRead(path));
  }
  setBytes(state, text.size());
}

void BM_RecordWrite(benchmark::State &state) {
  setUpNames();
  std::string path = scratch().dir + "/calw";
  RecordFile *rf = sampleFile(path);
  rawWrite(path, "");
  for (auto _ : state) {
    rf->dirty = true;
    if (writedbfile(rf) != 0 || tmprelink(rf) != 0) state.SkipWithError("write failed");
  }
  setBytes(state, size_t(rf->size));
  freeRecordFile(rf);
}

void BM_RawWrite(benchmark::State &state) {
  const std::string &text = sampleText();
  std::string path = scratch().dir + "/raww";
  for (auto _ : state) rawWrite(path, text);
  setBytes(state, text.size());
}

void BM_RecordRead(benchmark::State &state) {
  setUpNames();
  std::string path = scratch().dir + "/calr";
  rawWrite(path, sampleText());
  RecordFile *rf = newRecordFile(path.c_str(), nullptr);
  for (auto _ : state) {
    readRecordFile(nullptr, rf);
    if (rf->count != ITEMS) state.SkipWithError("read lost items");
  }
  setBytes(state, size_t(rf->size));
  freeRecordFile(rf);
}

void BM_RawRead(benchmark::State &state) {
  std::string path = scratch().dir + "/rawr";
  rawWrite(path, sampleText());
  size_t bytes = 0;
  for (auto _ : state) bytes = rawRead(path);
  setBytes(state, bytes);
}

// The formatting alone, into memory: what the writer adds to the raw write.
void BM_FormatList(benchmark::State &state) {
  setUpNames();
  RecordFile *rf = sampleFile(scratch().dir + "/unused");
  std::string text;
  for (auto _ : state) {
    text.clear();
    writeList(&text, &rf->list);
  }
  setBytes(state, text.size());
  freeRecordFile(rf);
}

}  // namespace

BENCHMARK(BM_RecordWriteRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWriteRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RecordWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RecordRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FormatList)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
