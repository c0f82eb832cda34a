// recordfile_fuzz.cpp -- feeds arbitrary bytes to the record-file reader as a real
// file, then checks that the text written from what was read settles: a second read
// may still drop copies that an invalid item had kept apart in the input, but from
// then on reading back and writing again gives the same bytes. Traps otherwise.
#include "core/base/base.h"
#include "core/db/record.h"
#include "core/db/recordfile.h"
#include "core/net/namelookup.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

using namespace quorvel;

static const char *const kNames[] = {"ann", "bob", "carl", "dora", "calendar05", "calendar06",
                                     "calendar07", "calendar08", "calendar09", "calendar10"};
static const int kCount = int(sizeof kNames / sizeof kNames[0]);

static int count(void *) { return kCount; }
static const char *nameOf(void *, int i) { return i >= 0 && i < kCount ? kNames[i] : nullptr; }
static int indexOf(void *, const char *name) {
  for (int i = 0; i < kCount; i++)
    if (strcmp(kNames[i], name) == 0) return i;
  return -1;
}
static const NameLookup kLookup = {nullptr, count, nameOf, indexOf};

// The file of every run, in one temporary directory.
static const std::string &recordPath() {
  static std::string path;
  if (path.empty()) {
    char tmpl[] = "/tmp/qvrecfuzzXXXXXX";
    if (!mkdtemp(tmpl)) abort();
    path = std::string(tmpl) + "/cal";
  }
  return path;
}

static std::string readAndWrite(const std::string &path) {
  RecordFile *rf = newRecordFile(path.c_str(), nullptr);
  readRecordFile(nullptr, rf);
  if (rf->count != evlistCount(&rf->list)) __builtin_trap();
  std::string text;
  writeList(&text, &rf->list);
  freeRecordFile(rf);
  return text;
}

// A fresh file each time: truncating one in place makes some file systems write it
// out on close, which would slow every run down to the disk's pace.
static void writeBytes(const std::string &path, const void *data, size_t size) {
  unlink(path.c_str());
  FILE *f = fopen(path.c_str(), "w");
  if (f == nullptr) abort();
  fwrite(data, 1, size, f);
  fclose(f);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  setNameLookup(&kLookup);
  const std::string &path = recordPath();
  writeBytes(path, data, size);
  std::string once = readAndWrite(path);
  writeBytes(path, once.data(), once.size());
  std::string twice = readAndWrite(path);
  writeBytes(path, twice.data(), twice.size());
  if (readAndWrite(path) != twice) __builtin_trap();
  unlink(path.c_str());
  return 0;
}
