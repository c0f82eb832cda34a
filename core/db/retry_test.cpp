// Tests of the retrying file calls, the write probe's fatal texts, scratch-name retries
// and the stream helpers. The file-system calls are interposed at link time
// (-Wl,--wrap=...): each __wrap_ function pops the next entry of its call's script
// (an errno to fail with, or 0 to succeed without acting) and otherwise calls the real
// function. Scripts only apply to paths below the test's directory, to one descriptor
// or to one stream, so the test framework's own calls pass through untouched.
#include "core/db/retry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/layout.h"

using namespace quorvel;
using ::testing::Eq;
using ::testing::ExitedWithCode;

/* ---- The interposed calls ------------------------------------------------------------ */

namespace {

enum Call { CHMOD, UNLINK, STAT, RENAME, CREAT, CLOSE, FSTAT, UTIME, FFLUSH, FCLOSE, NCALLS };

struct Script {
  std::deque<int> errs;  // next results: errno to fail with, 0 = succeed without acting
  int calls = 0;         // calls made in scope
};

Script scripts[NCALLS];
std::string pathScope;       // paths starting with this are scripted
int fdScope = -1;            // the scripted descriptor
FILE *streamScope = nullptr;  // the scripted stream
int ctimeShift = 0;           // added to st_ctime of scripted paths by stat
int chmodMovesCtime = 0;      // added to ctimeShift by each real scripted chmod

void clearScripts() {
  for (Script &s : scripts) s = Script{};
  pathScope.clear();
  fdScope = -1;
  streamScope = nullptr;
  ctimeShift = 0;
  chmodMovesCtime = 0;
}

bool inPath(const char *p) {
  return !pathScope.empty() && p != nullptr && strncmp(p, pathScope.c_str(), pathScope.size()) == 0;
}

// Counts the call; true with *result set when the script decides the outcome.
bool scripted(Call c, bool inScope, int *result) {
  if (!inScope) return false;
  Script &s = scripts[c];
  s.calls++;
  if (s.errs.empty()) return false;
  int e = s.errs.front();
  s.errs.pop_front();
  if (e == 0) {
    *result = 0;
  } else {
    errno = e;
    *result = -1;
  }
  return true;
}

void script(Call c, std::initializer_list<int> errs) { scripts[c].errs = errs; }
std::deque<int> repeat(int e, int n) { return std::deque<int>(n, e); }

}  // namespace

extern "C" {
int __real_chmod(const char *, mode_t);
int __real_unlink(const char *);
int __real_stat(const char *, struct stat *);
int __real_rename(const char *, const char *);
int __real_creat(const char *, mode_t);
int __real_close(int);
int __real_fstat(int, struct stat *);
int __real_utime(const char *, const struct utimbuf *);
int __real_fflush(FILE *);
int __real_fclose(FILE *);

int __wrap_chmod(const char *p, mode_t m) {
  int r;
  if (scripted(CHMOD, inPath(p), &r)) return r;
  r = __real_chmod(p, m);
  if (r == 0 && inPath(p)) ctimeShift += chmodMovesCtime;
  return r;
}
int __wrap_unlink(const char *p) {
  int r;
  return scripted(UNLINK, inPath(p), &r) ? r : __real_unlink(p);
}
int __wrap_stat(const char *p, struct stat *b) {
  int r;
  if (scripted(STAT, inPath(p), &r)) return r;
  r = __real_stat(p, b);
  if (r == 0 && inPath(p)) b->st_ctime += ctimeShift;
  return r;
}
int __wrap_rename(const char *f, const char *t) {
  int r;
  return scripted(RENAME, inPath(f), &r) ? r : __real_rename(f, t);
}
int __wrap_creat(const char *p, mode_t m) {
  int r;
  return scripted(CREAT, inPath(p), &r) ? r : __real_creat(p, m);
}
int __wrap_close(int fd) {
  int r;
  return scripted(CLOSE, fd == fdScope, &r) ? r : __real_close(fd);
}
int __wrap_fstat(int fd, struct stat *b) {
  int r;
  return scripted(FSTAT, fd == fdScope, &r) ? r : __real_fstat(fd, b);
}
int __wrap_utime(const char *p, const struct utimbuf *t) {
  int r;
  return scripted(UTIME, inPath(p), &r) ? r : __real_utime(p, t);
}
int __wrap_fflush(FILE *f) {
  int r;
  return scripted(FFLUSH, f != nullptr && f == streamScope, &r) ? r : __real_fflush(f);
}
// A scripted fclose failure still closes the stream, as the C library's fclose does.
// Closing the scripted stream ends its scope: a later stream may get the same address.
int __wrap_fclose(FILE *f) {
  int r;
  bool inScope = f != nullptr && f == streamScope;
  if (inScope) streamScope = nullptr;
  if (!scripted(FCLOSE, inScope, &r)) return __real_fclose(f);
  int saved = errno;
  __real_fclose(f);
  errno = saved;
  return r == 0 ? 0 : EOF;
}
}  // extern "C"

/* ---- Fixture --------------------------------------------------------------------------- */

namespace {

class DbRetry : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDbTestState();
    clearScripts();
    pathScope = tmp.path;
    file = tmp.at("f");
    writeFile(file, "data");
  }
  void TearDown() override {
    clearScripts();
    resetDbTestState();
  }
  std::vector<unsigned> &pauses() { return recordedPauses(); }
  TempDir tmp;
  std::string file;
};

}  // namespace

/* ---- Transient rule -------------------------------------------------------------------- */

TEST_F(DbRetry, TransientErrorsAreRetriedThreeTimesOneSecondApart) {
  scripts[UNLINK].errs = repeat(EBUSY, 4);
  EXPECT_EQ(retryUnlink(file.c_str()), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(scripts[UNLINK].calls, 4);
  EXPECT_EQ(pauses(), (std::vector<unsigned>{1, 1, 1}));
  EXPECT_TRUE(exists(file));

  // Three failures and then the real call: it succeeds.
  pauses().clear();
  script(RENAME, {EINTR, EAGAIN, ETXTBSY});
  std::string to = tmp.at("g");
  EXPECT_EQ(retryRename(file.c_str(), to.c_str()), 0);
  EXPECT_EQ(pauses().size(), 3u);
  EXPECT_TRUE(exists(to));

  pauses().clear();
  script(STAT, {ETIMEDOUT});
  struct stat st;
  EXPECT_EQ(retryStat(to.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4);
  EXPECT_EQ(pauses().size(), 1u);
}

TEST_F(DbRetry, OtherErrorsEndTheTransientLoopAtOnce) {
  std::string missing = tmp.at("missing");
  EXPECT_EQ(retryUnlink(missing.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(scripts[UNLINK].calls, 1);
  script(STAT, {EACCES});
  struct stat st;
  EXPECT_EQ(retryStat(file.c_str(), &st), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(pauses().empty());
  for (int e : {EINTR, EAGAIN, EBUSY, ETXTBSY, ETIMEDOUT}) EXPECT_TRUE(isTransientErrno(e));
  for (int e : {0, ENOENT, EACCES, EIO, EEXIST}) EXPECT_FALSE(isTransientErrno(e));
}

TEST_F(DbRetry, StandaloneCurrentDatabaseNeverNaps) {
  DbHandle *db = newDbHandle(tmp.path.c_str(), nullptr, DB_KIND_NONE);
  db->standalone = true;
  setCurrentDb(db);
  scripts[UNLINK].errs = repeat(EBUSY, 4);
  EXPECT_EQ(retryUnlink(file.c_str()), -1);
  EXPECT_EQ(scripts[UNLINK].calls, 4);
  EXPECT_TRUE(pauses().empty());
  db->standalone = false;
  napSeconds(3);
  EXPECT_EQ(pauses(), (std::vector<unsigned>{3}));
}

/* ---- ETIMEDOUT rule ----------------------------------------------------------------------- */

TEST_F(DbRetry, ChmodTimingOutFourTimesSucceedsAfterFourSeconds) {
  script(CHMOD, {ETIMEDOUT, ETIMEDOUT, ETIMEDOUT, ETIMEDOUT});
  EXPECT_EQ(retryChmod(file.c_str(), 0640), 0);
  EXPECT_EQ(scripts[CHMOD].calls, 5);
  EXPECT_EQ(pauses(), (std::vector<unsigned>{1, 1, 1, 1}));
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(reportCount(), 0);
}

TEST_F(DbRetry, ElevenTimeoutsInARowGiveUpWithTheWarning) {
  scripts[CHMOD].errs = repeat(ETIMEDOUT, 11);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(retryChmod(file.c_str(), 0640), -1);
  int err = errno;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "quorvel: timedOut: chmod ETIMEDOUT 10 times!\n");
  EXPECT_EQ(err, ETIMEDOUT);  // errno as the last attempt left it
  EXPECT_EQ(scripts[CHMOD].calls, 11);
  EXPECT_EQ(pauses().size(), 4u);  // the next six retries follow at once
}

TEST_F(DbRetry, EveryTimeoutWrapperNamesItsCallAndStopsOnOtherErrors) {
  struct Case {
    Call call;
    const char *name;
    std::function<int()> run;
  };
  int fd = open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  fdScope = fd;
  struct stat st;
  std::string made = tmp.at("made");
  std::vector<Case> cases = {
      {CREAT, "creat", [&] { return retryCreat(made.c_str(), 0600); }},
      {FSTAT, "fstat", [&] { return retryFstat(fd, &st); }},
      {UTIME, "utime", [&] { return retryUtime(file.c_str()); }},
      {CLOSE, "close", [&] { return retryClose(fd); }},
  };
  for (Case &c : cases) {
    scripts[c.call].errs = repeat(ETIMEDOUT, 11);
    ::testing::internal::CaptureStderr();
    EXPECT_LT(c.run(), 0) << c.name;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              std::string("quorvel: timedOut: ") + c.name + " ETIMEDOUT 10 times!\n");
    EXPECT_EQ(scripts[c.call].calls, 11) << c.name;
    // A different error is not retried.
    script(c.call, {EIO});
    EXPECT_LT(c.run(), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(scripts[c.call].calls, 12) << c.name;
  }
  EXPECT_EQ(retryClose(fd), 0);  // the real close at last
}

TEST_F(DbRetry, UtimeRetriesStartFromTheCallersErrno) {
  script(UTIME, {ETIMEDOUT});
  errno = ENOSPC;
  EXPECT_EQ(retryUtime(file.c_str()), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(scripts[UTIME].calls, 2);
}

/* ---- chmod and the change time ---------------------------------------------------------- */

TEST_F(DbRetry, ChmodThatLeavesTheChangeTimeIsFollowedByUtime) {
  EXPECT_EQ(chmodTimeState(), -1);
  script(CHMOD, {0});  // "succeeds" without touching the file: the change time stays
  EXPECT_EQ(retryChmod(file.c_str(), 0600), 0);
  EXPECT_EQ(chmodTimeState(), 1);
  EXPECT_EQ(scripts[UTIME].calls, 1);
  EXPECT_EQ(retryChmod(file.c_str(), 0600), 0);  // settled: every chmod adds a utime
  EXPECT_EQ(scripts[UTIME].calls, 2);
}

TEST_F(DbRetry, ChmodThatMovesTheChangeTimeNeedsNoUtime) {
  chmodMovesCtime = 5;  // the file server shows the chmod as a later change time
  EXPECT_EQ(retryChmod(file.c_str(), 0640), 0);
  EXPECT_EQ(chmodTimeState(), 0);
  EXPECT_EQ(scripts[UTIME].calls, 0);
  int statsBefore = scripts[STAT].calls;
  EXPECT_EQ(retryChmod(file.c_str(), 0600), 0);
  EXPECT_EQ(scripts[STAT].calls, statsBefore);  // settled: no more change-time reads
}

/* ---- The write probe ---------------------------------------------------------------------- */

TEST_F(DbRetry, ProbeDeniedByTheFileSystemIsFatalWithTheAccessText) {
  setenv("QUORVELPATH", tmp.path.c_str(), 1);
  resetBase();
  std::filesystem::create_directories(tmp.at("db/database"));
  script(CREAT, {EACCES});
  std::string text = "Permission problem: directory \"" + tmp.path +
                     "/db/database\"\n    is not writeable.  Check owner/group/mode of "
                     "database subdirectories\n    and of quorvel executeable binary.  "
                     "(access() errno=EACCES)\n";
  // The probe's path is below the root, so the relative name is scripted too.
  pathScope = "db/";
  EXPECT_EXIT(checkDbDirWritable("db/database"), ExitedWithCode(1), Eq(text));
  script(CREAT, {EROFS});
  std::string dir = tmp.at("db/database");
  text = "Permission problem: directory \"" + dir + "\"\n    is not writeable.  (access() errno=30)\n";
  pathScope = tmp.path;
  EXPECT_EXIT(checkDbDirWritable(dir.c_str()), ExitedWithCode(1), Eq(text));
  unsetenv("QUORVELPATH");
}

TEST_F(DbRetry, ProbeRemovesItsFileEvenWhenCreationFailed) {
  script(CREAT, {EACCES});
  EXPECT_EXIT(checkDbDirWritable(tmp.path.c_str()), ExitedWithCode(1), ::testing::_);
  scripts[CREAT] = Script{};  // the failure was used up in the child only
  // In this process: a probe that works is unlinked once and closed through retryClose.
  EXPECT_EQ(checkDbDirWritable(tmp.path.c_str()), 0);
  EXPECT_EQ(scripts[UNLINK].calls, 1);
  EXPECT_NE(observedFileTime(), NO_TIME);
}

/* ---- Scratch names -------------------------------------------------------------------------- */

TEST_F(DbRetry, ScratchCreationTriesFiftyNamesOnAccessDenied) {
  std::string tmpl = tmp.at("abcXXXXXX");
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  scripts[CREAT].errs = repeat(EACCES, 49);
  ASSERT_EQ(makeScratchFile(buf.data()), 0);
  EXPECT_EQ(scripts[CREAT].calls, 50);
  EXPECT_TRUE(std::regex_match(std::string(buf.data()), std::regex(".*/abca[0-9]{5}")));

  std::copy(tmpl.begin(), tmpl.end(), buf.begin());
  scripts[CREAT] = Script{};
  scripts[CREAT].errs = repeat(EACCES, 50);
  EXPECT_EQ(makeScratchFile(buf.data()), -EACCES);
  EXPECT_EQ(scripts[CREAT].calls, 50);
}

TEST_F(DbRetry, ScratchRenameRetriesOnlyWhileTheNameIsTaken) {
  std::string tmpl = tmp.at("abcXXXXXX");
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  script(RENAME, {EEXIST, EEXIST});
  ASSERT_EQ(makeScratchFile(buf.data()), 0);
  EXPECT_EQ(scripts[RENAME].calls, 3);
  EXPECT_TRUE(exists(buf.data()));

  std::copy(tmpl.begin(), tmpl.end(), buf.begin());
  scripts[RENAME] = Script{};
  script(RENAME, {EXDEV});
  EXPECT_EQ(makeScratchFile(buf.data()), -EXDEV);
  EXPECT_EQ(scripts[RENAME].calls, 1);
  // The read-only "T" file does not stay behind.
  int tFiles = 0;
  for (auto &e : std::filesystem::directory_iterator(tmp.path))
    if (e.path().filename().string().rfind("abcT", 0) == 0) tFiles++;
  EXPECT_EQ(tFiles, 0);
}

/* ---- Streams --------------------------------------------------------------------------------- */

TEST_F(DbRetry, FcloseRetriesAFailingFlushAndThenCloses) {
  FILE *f = Fopen(tmp.at("out").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("kept", f);
  streamScope = f;
  script(FFLUSH, {EAGAIN, EIO});
  EXPECT_EQ(Fclose(f), 0);
  EXPECT_EQ(scripts[FFLUSH].calls, 3);
  EXPECT_EQ(pauses().size(), 2u);
  EXPECT_EQ(readFile(tmp.at("out")), "kept");
}

TEST_F(DbRetry, FcloseGivesUpFlushingAfterThreeRetriesAndReports) {
  FILE *f = Fopen(tmp.at("out").c_str(), "w");
  ASSERT_NE(f, nullptr);
  streamScope = f;
  script(FFLUSH, {EIO, EIO, EIO, EIO});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(Fclose(f), 0);  // the close itself still works
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Fclose() fflush failed errno = 5\n");
  EXPECT_EQ(scripts[FFLUSH].calls, 4);
  EXPECT_EQ(scripts[FCLOSE].calls, 1);
}

TEST_F(DbRetry, FcloseLeavesTheStreamOpenWhenTheFlushSaysBadDescriptor) {
  FILE *f = Fopen(tmp.at("out").c_str(), "w");
  ASSERT_NE(f, nullptr);
  streamScope = f;
  script(FFLUSH, {EBADF});
  ::testing::internal::CaptureStderr();
  EXPECT_NE(Fclose(f), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Fclose() fflush failed errno = 9\n");
  EXPECT_EQ(scripts[FFLUSH].calls, 1);
  EXPECT_EQ(scripts[FCLOSE].calls, 0);
  EXPECT_TRUE(pauses().empty());
  streamScope = nullptr;
  fclose(f);  // still open: this test closes it
}

TEST_F(DbRetry, FcloseReportsAFailedCloseAndANullStream) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(Fclose(nullptr), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Fclose() passed a NULL stream\n");
  FILE *f = Fopen(tmp.at("out").c_str(), "w");
  ASSERT_NE(f, nullptr);
  streamScope = f;
  script(FCLOSE, {ENOSPC});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(Fclose(f), EOF);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Fclose() failed with errno = 28\n");
}

TEST_F(DbRetry, ReadLineCrlfTurnsCrLfIntoLf) {
  writeFile(file, "abc\r\n\r\nabc\nx\r\r\ntail");
  FILE *f = Fopen(file.c_str(), "r");
  ASSERT_NE(f, nullptr);
  char line[64];
  ASSERT_NE(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "abc\n");
  ASSERT_NE(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "\n");
  ASSERT_NE(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "abc\n");
  ASSERT_NE(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "x\r\n");  // only the CR right before the LF is folded
  ASSERT_NE(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "tail");
  EXPECT_EQ(readLineCrlf(line, sizeof line, f), nullptr);
  EXPECT_EQ(Fclose(f), 0);
}

TEST_F(DbRetry, CopyFileCopiesEveryByteOrFails) {
  std::string from = tmp.at("from"), to = tmp.at("to");
  std::string data("bin\0ary\r\n\xff", 10);
  writeFile(from, data);
  EXPECT_EQ(copyFile(to.c_str(), from.c_str()), 0);
  EXPECT_EQ(readFile(to), data);
  EXPECT_EQ(copyFile(to.c_str(), tmp.at("missing").c_str()), -1);
  EXPECT_EQ(readFile(to), data);  // a missing source does not truncate the target
  EXPECT_EQ(copyFile(tmp.at("no/dir/to").c_str(), from.c_str()), -1);
}
