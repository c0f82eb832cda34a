// record_crash_child.cpp -- test helper, not part of the product: rewrites a record
// file once, as the database does, so that the crash test can kill it part-way.
//
// Usage: record_crash_child <path> <generation> <items>. The file is read (putting a
// saved copy back when a crash left one), its items are retitled for the generation
// (or made afresh when the file does not hold them) and it is written and put in
// place. With QV_CRASH_STEP=k in the environment the process kills itself with SIGKILL
// just before its k-th file-system step (fwrite, fsync, fclose, rename, unlink, link);
// it prints the number of steps it took when it finishes.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/db/record_test_util.h"
#include "core/db/recordfile.h"

namespace {

long crashStep = 0;  // from QV_CRASH_STEP; 0 never
long steps = 0;      // file-system steps taken so far

void step() {
  if (++steps == crashStep) raise(SIGKILL);
}

}  // namespace

extern "C" {
size_t __real_fwrite(const void *p, size_t size, size_t n, FILE *fp);
int __real_fsync(int fd);
int __real_fclose(FILE *fp);
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __real_link(const char *from, const char *to);

size_t __wrap_fwrite(const void *p, size_t size, size_t n, FILE *fp) { return step(), __real_fwrite(p, size, n, fp); }
int __wrap_fsync(int fd) { return step(), __real_fsync(fd); }
int __wrap_fclose(FILE *fp) { return step(), __real_fclose(fp); }
int __wrap_rename(const char *from, const char *to) { return step(), __real_rename(from, to); }
int __wrap_unlink(const char *path) { return step(), __real_unlink(path); }
int __wrap_link(const char *from, const char *to) { return step(), __real_link(from, to); }
}

int main(int argc, char **argv) {
  using namespace quorvel;
  if (argc != 4) {
    fprintf(stderr, "usage: record_crash_child <path> <generation> <items>\n");
    return 2;
  }
  const char *env = getenv("QV_CRASH_STEP");
  crashStep = env != nullptr ? strtol(env, nullptr, 10) : 0;
  TestNames names{crashNames()};
  names.install();
  RecordFile *rf = newRecordFile(argv[1], nullptr);
  readRecordFile(nullptr, rf);
  setCrashGeneration(rf, atoi(argv[2]), atoi(argv[3]));
  int rc = writedbfile(rf);
  if (rc == 0) rc = tmprelink(rf);
  freeRecordFile(rf);
  printf("%ld\n", steps);
  return rc == 0 ? 0 : 1;
}
