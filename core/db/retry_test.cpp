// Tests of the retrying file calls, the write probe, scratch names, touching and the
// stream helpers against injected errno sequences. The file-system calls are interposed
// at link time (-Wl,--wrap=...): a call in scope (a path below the test's directory,
// one descriptor, one stream) pops the next entry of its script, an errno to fail with
// or 0 to succeed without acting, and otherwise runs for real.
#include "core/db/retry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <unistd.h>
#include <utime.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/layout.h"
#include "core/db/lock.h"

using namespace quorvel;
using ::testing::ExitedWithCode;

namespace {

enum Call { CHMOD, UNLINK, STAT, RENAME, CREAT, CLOSE, FSTAT, UTIME, FFLUSH, FCLOSE, NCALLS };
struct Script {
  std::deque<int> errs;  // next results: errno to fail with, 0 = succeed without acting
  int calls = 0;         // calls made in scope
};
Script scripts[NCALLS];
std::string pathScope;        // paths starting with this are in scope
int fdScope = -1;             // the descriptor in scope
FILE *streamScope = nullptr;  // the stream in scope
int ctimeShift = 0;           // the simulated file clock: added to st_ctime by stat
int chmodMovesCtime = 0;      // added to ctimeShift by each real chmod in scope

bool inPath(const char *p) {
  return !pathScope.empty() && p && strncmp(p, pathScope.c_str(), pathScope.size()) == 0;
}

// Counts the call; true with *result set when the script decides the outcome.
bool scripted(Call c, bool inScope, int *result) {
  if (!inScope) return false;
  Script &s = scripts[c];
  s.calls++;
  if (s.errs.empty()) return false;
  int e = s.errs.front();
  s.errs.pop_front();
  if (e != 0) errno = e;
  *result = e == 0 ? 0 : -1;
  return true;
}

void script(Call c, std::deque<int> errs) { scripts[c] = Script{std::move(errs), 0}; }

}  // namespace

#define WRAP(fn, c, scope, params, args)                                                \
  int __real_##fn params;                                                               \
  int __wrap_##fn params {                                                              \
    int r;                                                                              \
    return scripted(c, scope, &r) ? r : __real_##fn args;                               \
  }

extern "C" {
WRAP(unlink, UNLINK, inPath(p), (const char *p), (p))
WRAP(rename, RENAME, inPath(a), (const char *a, const char *b), (a, b))
WRAP(creat, CREAT, inPath(p), (const char *p, mode_t m), (p, m))
WRAP(close, CLOSE, fd == fdScope, (int fd), (fd))
WRAP(fstat, FSTAT, fd == fdScope, (int fd, struct stat *b), (fd, b))
WRAP(utime, UTIME, inPath(p), (const char *p, const struct utimbuf *t), (p, t))
WRAP(fflush, FFLUSH, s && s == streamScope, (FILE *s), (s))
int __real_chmod(const char *, mode_t);
int __real_stat(const char *, struct stat *);
int __real_fclose(FILE *);

int __wrap_chmod(const char *p, mode_t m) {
  int r;
  if (scripted(CHMOD, inPath(p), &r)) return r;
  r = __real_chmod(p, m);
  if (r == 0 && inPath(p)) ctimeShift += chmodMovesCtime;
  return r;
}
int __wrap_stat(const char *p, struct stat *b) {
  int r;
  if (scripted(STAT, inPath(p), &r)) return r;
  r = __real_stat(p, b);
  if (r == 0 && inPath(p)) b->st_ctime += ctimeShift;
  return r;
}
// A scripted fclose failure still closes the stream, as the C library's fclose does.
int __wrap_fclose(FILE *f) {
  int r;
  bool inScope = f && f == streamScope;
  if (inScope) streamScope = nullptr;  // (a later stream may get the same address)
  if (!scripted(FCLOSE, inScope, &r)) return __real_fclose(f);
  int saved = errno;
  __real_fclose(f);
  errno = saved;
  return r == 0 ? 0 : EOF;
}
}  // extern "C"

namespace {

class DbRetry : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDbTestState();
    for (Script &s : scripts) s = Script{};
    fdScope = -1;
    ctimeShift = chmodMovesCtime = 0;
    pathScope = tmp.path;
    writeFile(file, "data");
  }
  void TearDown() override { pathScope.clear(); }
  // Runs fn under script errs for call c; checks its result, the errno it leaves (unless
  // err is -1), the number of calls and the one-second naps.
  void expectRun(Call c, std::deque<int> errs, const std::function<int()> &fn, int result,
                 int err, int calls, size_t naps) {
    script(c, std::move(errs));
    recordedPauses().clear();
    errno = 0;
    int r = fn(), e = errno;
    EXPECT_EQ(r, result) << c;
    EXPECT_EQ(err == -1 ? -1 : e, err) << c;
    EXPECT_EQ(scripts[c].calls, calls) << c;
    EXPECT_EQ(recordedPauses(), std::vector<unsigned>(naps, 1)) << c;
  }
  TempDir tmp;
  std::string file = tmp.at("f");
  const char *f = file.c_str();
};

}  // namespace

TEST_F(DbRetry, TransientRuleRetriesBusyErrorsThreeTimesOneSecondApart) {
  struct stat st;
  auto unlinkF = [&] { return retryUnlink(f); };
  auto statF = [&] { return retryStat(f, &st); };
  expectRun(UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY}, unlinkF, -1, EBUSY, 4, 3);
  expectRun(RENAME, {EINTR, EAGAIN, ETXTBSY}, [&] { return retryRename(f, f); }, 0, ETXTBSY, 4, 3);
  expectRun(STAT, {ETIMEDOUT}, statF, 0, ETIMEDOUT, 2, 1);
  expectRun(STAT, {EACCES}, statF, -1, EACCES, 1, 0);
  expectRun(UNLINK, {ENOENT}, unlinkF, -1, ENOENT, 1, 0);
  DbHandle *db = newDbHandle(tmp.path.c_str(), nullptr, DB_KIND_NONE);
  db->standalone = true;  // a standalone current database retries without napping
  setCurrentDb(db);
  expectRun(UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY}, unlinkF, -1, EBUSY, 4, 0);
  EXPECT_TRUE(exists(file));
  script(STAT, {ENOENT});  // a directory made by another process after ensureDir looked
  EXPECT_EQ(ensureDir(tmp.path.c_str(), 0700), 0);
}

TEST_F(DbRetry, TimeoutRuleNapsFourTimesAndGivesUpAfterTenRetriesNamingTheCall) {
  int fd = open(f, O_RDONLY);
  fdScope = fd;
  struct stat st;
  std::string made = tmp.at("made");
  const std::tuple<Call, const char *, std::function<int()>> wrappers[] = {
      {CREAT, "creat", [&] { return retryCreat(made.c_str(), 0600); }},
      {FSTAT, "fstat", [&] { return retryFstat(fd, &st); }},
      {UTIME, "utime", [&] { return retryUtime(f); }},
      {CHMOD, "chmod", [&] { return retryChmod(f, 0640); }},
      {CLOSE, "close", [&] { return retryClose(fd); }}};
  for (const auto &[call, name, run] : wrappers) {
    std::string out = stderrOf(
        [&] { expectRun(call, std::deque<int>(11, ETIMEDOUT), run, -1, ETIMEDOUT, 11, 4); });
    EXPECT_EQ(out, std::string("quorvel: timedOut: ") + name + " ETIMEDOUT 10 times!\n");
    expectRun(call, {EIO}, run, -1, EIO, 1, 0);  // any other error ends the loop at once
  }
  EXPECT_EQ(retryClose(fd), 0);
  EXPECT_EQ(stderrOf([&] {
              expectRun(CHMOD, std::deque<int>(4, ETIMEDOUT),
                        [&] { return retryChmod(f, 0604); }, 0, -1, 5, 4);
            }), "");
  // utime's retries start from the caller's errno, which a final success leaves.
  expectRun(UTIME, {ETIMEDOUT}, [&] { errno = ENOSPC; return retryUtime(f); }, 0, ENOSPC, 2, 1);
}

TEST_F(DbRetry, ChmodAddsUtimeOnlyWhereChmodLeavesTheChangeTime) {
  script(CHMOD, {0});  // "succeeds" without touching the file: the change time stays
  EXPECT_EQ(retryChmod(f, 0600), 0);
  EXPECT_EQ(retryChmod(f, 0600), 0);  // settled: every chmod adds a utime
  EXPECT_EQ(scripts[UTIME].calls, 2);
  resetRetryState();
  script(UTIME, {});
  chmodMovesCtime = 5;  // the file server shows the chmod as a later change time
  EXPECT_EQ(retryChmod(f, 0640), 0);
  int stats = scripts[STAT].calls;
  EXPECT_EQ(retryChmod(f, 0600), 0);
  EXPECT_EQ(scripts[STAT].calls, stats);  // settled: no more change-time reads
  EXPECT_EQ(scripts[UTIME].calls, 0);
}

TEST_F(DbRetry, TouchingWaitsUntilTheChangeTimeHasMovedAndAFailedChmodGivesNoTime) {
  setPauseHook([](unsigned s) { ctimeShift += static_cast<int>(s); });  // a real second
  int32_t first = touchfile(f), second = touchfile(f);
  EXPECT_NE(first, NO_TIME);
  EXPECT_GE(second, first + 1);
  EXPECT_EQ(fileChangeTime(f), second);
  script(CHMOD, {EPERM});
  EXPECT_EQ(touchChangeStamp(f), NO_TIME);
  EXPECT_EQ(touchChangeStamp(f), second);
}

TEST_F(DbRetry, ProbeFailureIsFatalWithTheTextOfItsErrnoAfterRemovingTheProbe) {
  setenv("QUORVELPATH", tmp.path.c_str(), 1);
  resetBase();
  registerCleanup([] { fprintf(stderr, "unlinks=%d\n", scripts[UNLINK].calls); });
  const std::string lead = "Permission problem: directory \"" + tmp.path + "/db/database\"\n"
                           "    is not writeable.  ";
  const std::pair<int, std::string> rows[] = {
      {EACCES, lead + "Check owner/group/mode of database subdirectories\n    and of "
                      "quorvel executeable binary.  (access() errno=EACCES)\nunlinks=1\n"},
      {EROFS, lead + "(access() errno=30)\nunlinks=1\n"}};
  pathScope = "db/";  // the relative probe path is the one in scope
  for (const auto &[err, text] : rows) {
    script(CREAT, {err});
    EXPECT_EXIT(checkDbDirWritable("db/database"), ExitedWithCode(1), ::testing::Eq(text));
  }
  unsetenv("QUORVELPATH");
  resetBase();
}

TEST_F(DbRetry, ScratchNamesRetryCreationOnAccessAndRenameOnTakenNames) {
  std::string tmpl = tmp.at("abcXXXXXX"), name;
  auto make = [&] { return makeScratchFile((name = tmpl).data()); };
  auto files = [&] { return std::distance(std::filesystem::directory_iterator(tmp.path), {}); };
  script(RENAME, {EEXIST, EEXIST});
  expectRun(CREAT, std::deque<int>(49, EACCES), make, 0, -1, 50, 0);
  EXPECT_EQ(scripts[RENAME].calls, 3);
  EXPECT_TRUE(std::regex_match(name.c_str(), std::regex(tmp.path + "/abca[0-9]{5}")));
  struct stat st;
  ASSERT_EQ(stat(name.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(files(), 2);  // the data file and the scratch file, no "T" name
  expectRun(CREAT, std::deque<int>(50, EACCES), make, -EACCES, EACCES, 50, 0);
  expectRun(RENAME, {EXDEV}, make, -EXDEV, EXDEV, 1, 0);
  EXPECT_EQ(files(), 3);  // the read-only "T" file stays
  for (std::string bad : {"/tmp/abc", "XXXX", "/tmp/XXXXXXabc"})
    EXPECT_EQ(makeScratchFile(bad.data()), -1) << bad;
  std::string inMissingDir = tmp.at("none/abcXXXXXX");
  EXPECT_EQ(makeScratchFile(inMissingDir.data()), -ENOENT);
}

TEST_F(DbRetry, FcloseRetriesTheFlushClosesOnceAndReportsFailures) {
  struct Row {
    std::deque<int> flush, close;
    int result, flushes, closes;
    size_t naps;
    const char *report;
  };
  const Row rows[] = {{{EAGAIN, EIO}, {}, 0, 3, 1, 2, ""},
                      {{EIO, EIO, EIO, EIO}, {}, 0, 4, 1, 3, "Fclose() fflush failed errno = 5\n"},
                      {{EBADF}, {}, EOF, 1, 0, 0, "Fclose() fflush failed errno = 9\n"},
                      {{}, {ENOSPC}, EOF, 1, 1, 0, "Fclose() failed with errno = 28\n"}};
  for (const Row &row : rows) {
    FILE *s = Fopen(tmp.at("out").c_str(), "w");
    fputs("kept", s);
    streamScope = s;
    script(FFLUSH, row.flush);
    script(FCLOSE, row.close);
    recordedPauses().clear();
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(Fclose(s), row.result); }), row.report);
    EXPECT_EQ(scripts[FFLUSH].calls, row.flushes);
    EXPECT_EQ(scripts[FCLOSE].calls, row.closes);
    EXPECT_EQ(recordedPauses().size(), row.naps);
    if (row.closes == 0) fclose(s);  // left open by Fclose
    EXPECT_TRUE(row.result != 0 || readFile(tmp.at("out")) == "kept");
  }
  EXPECT_EQ(stderrOf([] { EXPECT_EQ(Fclose(nullptr), -1); }), "Fclose() passed a NULL stream\n");
}

TEST_F(DbRetry, ReadLineCrlfFoldsOnlyTheCrBeforeTheLineEndAndCopyFileKeepsEveryByte) {
  writeFile(file, "abc\r\n\r\nabc\nx\r\r\ntail");
  FILE *s = Fopen(f, "r");
  char line[64];
  std::string all;
  while (readLineCrlf(line, sizeof line, s)) all += std::string(line) + "|";
  EXPECT_EQ(all, "abc\n|\n|abc\n|x\r\n|tail|");
  EXPECT_EQ(Fclose(s), 0);
  std::string to = tmp.at("to"), data("bin\0ary\r\n\xff", 10);
  writeFile(file, data);
  EXPECT_EQ(copyFile(to.c_str(), f), 0);
  EXPECT_EQ(readFile(to), data);
  EXPECT_EQ(copyFile(to.c_str(), tmp.at("missing").c_str()), -1);
  EXPECT_EQ(readFile(to), data);  // a missing source does not truncate the target
  EXPECT_EQ(copyFile(tmp.at("no/dir/to").c_str(), f), -1);
}
