// record_crash_child.cpp -- test helper, not part of the product: record_crash_child
// <path> <generation> <items> reads the file (a saved copy put back), retitles its items
// for the generation and rewrites it, as the database does. With QV_CRASH_STEP=k it
// kills itself with SIGKILL just before its k-th file-system step; with
// QV_CRASH_BEFORE=<suffix> just before renaming a file whose name ends in the suffix
// ("TMP": between the two renames of the rewrite). It prints the number of steps taken.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/db/record_test_util.h"

namespace {
long crashStep = 0;  // from QV_CRASH_STEP; 0 never
long steps = 0;      // file-system steps taken so far
const char *crashBefore = nullptr;  // from QV_CRASH_BEFORE; null never
void step() { if (++steps == crashStep) raise(SIGKILL); }
void renaming(const char *from) {
  size_t n = crashBefore != nullptr ? strlen(crashBefore) : 0, len = strlen(from);
  if (n > 0 && len >= n && strcmp(from + len - n, crashBefore) == 0) raise(SIGKILL);
}
}  // namespace

#define WRAP(type, name, params, args) \
  type __real_##name params;             \
  type __wrap_##name params { return step(), __real_##name args; }
extern "C" {
WRAP(size_t, fwrite, (const void *p, size_t size, size_t n, FILE *fp), (p, size, n, fp))
WRAP(int, fsync, (int fd), (fd))
WRAP(int, fclose, (FILE *fp), (fp))
int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) { return step(), renaming(from), __real_rename(from, to); }
WRAP(int, unlink, (const char *path), (path))
WRAP(int, link, (const char *from, const char *to), (from, to))
}

int main(int argc, char **argv) {
  using namespace quorvel;
  if (argc != 4) return fprintf(stderr, "usage: record_crash_child <path> <generation> <items>\n"), 2;
  crashStep = getenv("QV_CRASH_STEP") != nullptr ? atol(getenv("QV_CRASH_STEP")) : 0;
  crashBefore = getenv("QV_CRASH_BEFORE");
  installNames({"ann", "bob", "carl"}); RecordFile *rf = newRecordFile(argv[1], nullptr);
  readRecordFile(nullptr, rf), setCrashGeneration(rf, atoi(argv[2]), atoi(argv[3]));
  int rc = writedbfile(rf) != 0 || tmprelink(rf) != 0; freeRecordFile(rf), printf("%ld\n", steps);
  return rc;
}
