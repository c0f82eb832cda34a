// Tests of the retrying file calls, the write probe, scratch names, touching and the
// stream helpers, against injected errno sequences. The file-system calls are
// interposed at link time (-Wl,--wrap=...): each __wrap_ function pops the next entry
// of its call's script (an errno to fail with, or 0 to succeed without acting) and
// otherwise calls the real function. Scripts apply only to paths below the test's
// directory, to one descriptor or to one stream, so gtest's own calls pass untouched.
#include "core/db/retry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fcntl.h>
#include <functional>
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
std::string pathScope;        // paths starting with this are scripted
int fdScope = -1;             // the scripted descriptor
FILE *streamScope = nullptr;  // the scripted stream
int ctimeShift = 0;           // added to st_ctime of scripted paths by stat
int chmodMovesCtime = 0;      // added to ctimeShift by each real scripted chmod

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

// Declares __real_<fn> and a __wrap_<fn> that follows script c for calls in scope.
#define WRAP(fn, c, scope, params, args)                                              \
  int __real_##fn params;                                                             \
  int __wrap_##fn params {                                                            \
    int r;                                                                            \
    return scripted(c, scope, &r) ? r : __real_##fn args;                             \
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
    streamScope = nullptr;
    ctimeShift = chmodMovesCtime = 0;
    pathScope = tmp.path;
    writeFile(file, "data");
  }
  void TearDown() override {
    pathScope.clear();
    resetDbTestState();
  }
  std::vector<unsigned> &pauses() { return recordedPauses(); }
  TempDir tmp;
  std::string file = tmp.at("f");
  const char *f = file.c_str();
};

}  // namespace

TEST_F(DbRetry, TransientRuleRetriesBusyErrorsThreeTimesOneSecondApart) {
  struct Row { Call call; std::deque<int> errs; int result, err, calls; size_t naps; };
  const Row rows[] = {
      {UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY}, -1, EBUSY, 4, 3},
      {RENAME, {EINTR, EAGAIN, ETXTBSY}, 0, 0, 4, 3},
      {STAT, {ETIMEDOUT}, 0, 0, 2, 1},
      {STAT, {EACCES}, -1, EACCES, 1, 0},
      {UNLINK, {ENOENT}, -1, ENOENT, 1, 0},
  };
  for (const Row &row : rows) {
    script(row.call, row.errs);
    pauses().clear();
    struct stat st;
    int r = row.call == UNLINK ? retryUnlink(f)
            : row.call == STAT ? retryStat(f, &st) : retryRename(f, f);
    int err = errno;
    EXPECT_EQ(r, row.result) << row.call;
    EXPECT_EQ(r < 0 ? err : 0, row.err) << row.call;
    EXPECT_EQ(scripts[row.call].calls, row.calls) << row.call;
    EXPECT_EQ(pauses(), std::vector<unsigned>(row.naps, 1)) << row.call;
  }
  EXPECT_TRUE(exists(file));
  // A standalone current database retries without napping.
  DbHandle *db = newDbHandle(tmp.path.c_str(), nullptr, DB_KIND_NONE);
  db->standalone = true;
  setCurrentDb(db);
  pauses().clear();
  script(UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY});
  EXPECT_EQ(retryUnlink(f), -1);
  EXPECT_EQ(scripts[UNLINK].calls, 4);
  EXPECT_TRUE(pauses().empty());
}

TEST_F(DbRetry, TimeoutRuleNapsFourTimesThenGivesUpAfterTenRetriesNamingTheCall) {
  int fd = open(f, O_RDONLY);
  ASSERT_GE(fd, 0);
  fdScope = fd;
  struct stat st;
  std::string made = tmp.at("made");
  const std::pair<Call, std::function<int()>> wrappers[] = {
      {CREAT, [&] { return retryCreat(made.c_str(), 0600); }},
      {FSTAT, [&] { return retryFstat(fd, &st); }},
      {UTIME, [&] { return retryUtime(f); }},
      {CHMOD, [&] { return retryChmod(f, 0640); }},
      {CLOSE, [&] { return retryClose(fd); }},
  };
  const char *names[] = {"creat", "fstat", "utime", "chmod", "close"};
  int i = 0;
  for (const auto &[call, run] : wrappers) {
    const char *name = names[i++];
    script(call, std::deque<int>(11, ETIMEDOUT));
    pauses().clear();
    int r = 0, err = 0;
    std::string out = stderrOf([&] { r = run(); err = errno; });
    EXPECT_EQ(r, -1) << name;
    EXPECT_EQ(err, ETIMEDOUT) << name;
    EXPECT_EQ(out, std::string("quorvel: timedOut: ") + name + " ETIMEDOUT 10 times!\n");
    EXPECT_EQ(scripts[call].calls, 11) << name;
    EXPECT_EQ(pauses(), std::vector<unsigned>(4, 1)) << name;
    script(call, {EIO});  // any other error ends the loop at once
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(scripts[call].calls, 1) << name;
  }
  EXPECT_EQ(retryClose(fd), 0);
  // Four time-outs and then success: four one-second naps, no report.
  script(CHMOD, {ETIMEDOUT, ETIMEDOUT, ETIMEDOUT, ETIMEDOUT});
  pauses().clear();
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(retryChmod(f, 0604), 0); }), "");
  EXPECT_EQ(scripts[CHMOD].calls, 5);
  EXPECT_EQ(pauses(), std::vector<unsigned>(4, 1));
  ASSERT_EQ(stat(f, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0604u);
  // utime's retries start from the caller's errno, which a final success leaves.
  script(UTIME, {ETIMEDOUT});
  errno = ENOSPC;
  EXPECT_EQ(retryUtime(f), 0);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(DbRetry, ChmodAddsUtimeOnlyWhereChmodLeavesTheChangeTime) {
  script(CHMOD, {0});  // "succeeds" without touching the file: the change time stays
  EXPECT_EQ(retryChmod(f, 0600), 0);
  EXPECT_EQ(chmodTimeState(), 1);
  EXPECT_EQ(retryChmod(f, 0600), 0);  // settled: every chmod adds a utime
  EXPECT_EQ(scripts[UTIME].calls, 2);

  resetRetryState();
  script(UTIME, {});
  chmodMovesCtime = 5;  // the file server shows the chmod as a later change time
  EXPECT_EQ(retryChmod(f, 0640), 0);
  EXPECT_EQ(chmodTimeState(), 0);
  int stats = scripts[STAT].calls;
  EXPECT_EQ(retryChmod(f, 0600), 0);
  EXPECT_EQ(scripts[STAT].calls, stats);  // settled: no more change-time reads
  EXPECT_EQ(scripts[UTIME].calls, 0);
}

TEST_F(DbRetry, TouchfileWaitsUntilTheChangeTimeHasMoved) {
  // The pause moves the file server's clock, as a real second would.
  setPauseHook([](unsigned s) { ctimeShift += static_cast<int>(s); });
  int32_t first = touchfile(f);
  int32_t second = touchfile(f);
  EXPECT_NE(first, NO_TIME);
  EXPECT_GE(second, first + 1);
  EXPECT_EQ(fileChangeTime(f), second);
  struct stat st;
  ASSERT_EQ(stat(f, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST_F(DbRetry, ProbeFailureIsFatalWithTheTextOfItsErrnoAfterRemovingTheProbe) {
  setenv("QUORVELPATH", tmp.path.c_str(), 1);
  resetBase();
  // The clean-up shows that the probe was unlinked before the fatal report.
  registerCleanup([] { fprintf(stderr, "unlinks=%d\n", scripts[UNLINK].calls); });
  const std::string lead = "Permission problem: directory \"" + tmp.path + "/db/database\"\n"
                           "    is not writeable.  ";
  const std::pair<int, std::string> rows[] = {
      {EACCES, lead + "Check owner/group/mode of database subdirectories\n    and of "
                      "quorvel executeable binary.  (access() errno=EACCES)\nunlinks=1\n"},
      {EROFS, lead + "(access() errno=30)\nunlinks=1\n"},
  };
  pathScope = "db/";  // the relative probe path is the one scripted
  for (const auto &[err, text] : rows) {
    script(CREAT, {err});
    EXPECT_EXIT(checkDbDirWritable("db/database"), ExitedWithCode(1), ::testing::Eq(text));
  }
  unsetenv("QUORVELPATH");
  resetBase();
  pathScope = tmp.path;
  script(CREAT, {});
  EXPECT_EQ(checkDbDirWritable(tmp.path.c_str()), 0);
  EXPECT_EQ(scripts[UNLINK].calls, 1);
  EXPECT_NE(observedFileTime(), NO_TIME);
}

TEST_F(DbRetry, ScratchNamesRetryCreationOnAccessAndRenameOnTakenNames) {
  std::string tmpl = tmp.at("abcXXXXXX");
  std::vector<char> buf(tmpl.size() + 1);
  auto make = [&] {
    memcpy(buf.data(), tmpl.c_str(), tmpl.size() + 1);
    return makeScratchFile(buf.data());
  };
  script(CREAT, std::deque<int>(49, EACCES));
  script(RENAME, {EEXIST, EEXIST});
  ASSERT_EQ(make(), 0);
  EXPECT_EQ(scripts[CREAT].calls, 50);
  EXPECT_EQ(scripts[RENAME].calls, 3);
  EXPECT_TRUE(std::regex_match(std::string(buf.data()), std::regex(tmp.path + "/abca[0-9]{5}")));
  struct stat st;
  ASSERT_EQ(stat(buf.data(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp.path), {}), 2);  // f, a

  script(CREAT, std::deque<int>(50, EACCES));
  EXPECT_EQ(make(), -EACCES);
  EXPECT_EQ(scripts[CREAT].calls, 50);
  script(RENAME, {EXDEV});
  EXPECT_EQ(make(), -EXDEV);
  EXPECT_EQ(scripts[RENAME].calls, 1);
  EXPECT_TRUE(std::regex_match(std::string(buf.data()), std::regex(".*/abca[0-9]{5}")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp.path), {}), 3);  // + T
  // Templates without the placeholder are refused before anything is touched.
  int creats = scripts[CREAT].calls;
  std::string bads[] = {"/tmp/abc", "XXXX", tmp.at("XXXXXXabc")};
  for (std::string &bad : bads) EXPECT_EQ(makeScratchFile(bad.data()), -1) << bad;
  EXPECT_EQ(scripts[CREAT].calls, creats);
  std::string inMissingDir = tmp.at("none/abcXXXXXX");
  EXPECT_EQ(makeScratchFile(inMissingDir.data()), -ENOENT);
}

TEST_F(DbRetry, FcloseRetriesTheFlushClosesOnceAndReportsFailures) {
  struct Row {
    std::deque<int> flush, close;
    int result, flushes, closes;
    size_t naps;
    std::string report;
  };
  const Row rows[] = {
      {{EAGAIN, EIO}, {}, 0, 3, 1, 2, ""},
      {{EIO, EIO, EIO, EIO}, {}, 0, 4, 1, 3, "Fclose() fflush failed errno = 5\n"},
      {{EBADF}, {}, EOF, 1, 0, 0, "Fclose() fflush failed errno = 9\n"},
      {{}, {ENOSPC}, EOF, 1, 1, 0, "Fclose() failed with errno = 28\n"},
  };
  for (const Row &row : rows) {
    FILE *s = Fopen(tmp.at("out").c_str(), "w");
    ASSERT_NE(s, nullptr);
    fputs("kept", s);
    streamScope = s;
    script(FFLUSH, row.flush);
    script(FCLOSE, row.close);
    pauses().clear();
    int r = 0;
    EXPECT_EQ(stderrOf([&] { r = Fclose(s); }), row.report);
    EXPECT_EQ(r, row.result);
    EXPECT_EQ(scripts[FFLUSH].calls, row.flushes);
    EXPECT_EQ(scripts[FCLOSE].calls, row.closes);
    EXPECT_EQ(pauses().size(), row.naps);
    if (row.closes == 0) fclose(s);  // left open by Fclose
    EXPECT_TRUE(row.result != 0 || readFile(tmp.at("out")) == "kept");
  }
  EXPECT_EQ(stderrOf([] { EXPECT_EQ(Fclose(nullptr), -1); }), "Fclose() passed a NULL stream\n");
}

TEST_F(DbRetry, ReadLineCrlfFoldsOnlyTheCrBeforeTheLineEnd) {
  writeFile(file, "abc\r\n\r\nabc\nx\r\r\ntail");
  FILE *s = Fopen(f, "r");
  ASSERT_NE(s, nullptr);
  char line[64];
  std::string all;
  while (readLineCrlf(line, sizeof line, s)) all += std::string(line) + "|";
  EXPECT_EQ(all, "abc\n|\n|abc\n|x\r\n|tail|");
  EXPECT_EQ(Fclose(s), 0);
}

TEST_F(DbRetry, CopyFileCopiesEveryByteOrFailsWithoutHarm) {
  std::string from = tmp.at("from"), to = tmp.at("to");
  std::string data("bin\0ary\r\n\xff", 10);
  writeFile(from, data);
  EXPECT_EQ(copyFile(to.c_str(), from.c_str()), 0);
  EXPECT_EQ(readFile(to), data);
  EXPECT_EQ(copyFile(to.c_str(), tmp.at("missing").c_str()), -1);
  EXPECT_EQ(readFile(to), data);  // a missing source does not truncate the target
  EXPECT_EQ(copyFile(tmp.at("no/dir/to").c_str(), from.c_str()), -1);
}
