// Tests of the retrying file calls, probe, scratch names, touching and stream helpers. File calls
// are interposed at link time: a call in scope (a path below the test's directory, one descriptor,
// one stream) pops its script's next entry (an errno to fail with, 0 to succeed idle), else runs.
#include "core/db/retry.h"

#include <fcntl.h>
#include <utime.h>

#include <deque>
#include <regex>

#include "core/db/db_test_util.h"

using namespace quorvel;
using ::testing::ExitedWithCode;

namespace {
enum Call { CHMOD, UNLINK, STAT, RENAME, CREAT, CLOSE, FSTAT, UTIME, FFLUSH, FCLOSE, LINK, NCALLS };
std::deque<int> errs[NCALLS];  // next results: errno to fail with, 0 = succeed without acting
int calls[NCALLS];             // calls made in scope
std::string pathScope;         // paths starting with this are in scope, and so are
int fdScope = -1;              // one descriptor
FILE *streamScope = nullptr;   // and one stream
int ctimeShift, chmodMovesCtime;  // the file clock stat adds to st_ctime; each chmod's step

bool inPath(const char *p) {
  return !pathScope.empty() && p && strncmp(p, pathScope.c_str(), pathScope.size()) == 0;
}
// Counts the call; true with *result set when the script decides the outcome.
bool scripted(Call c, bool inScope, int *result) {
  if (!inScope || (calls[c]++, errs[c].empty())) return false;
  int e = errs[c].front();
  errs[c].pop_front();
  *result = e == 0 ? 0 : (errno = e, -1);
  return true;
}
void script(Call c, std::deque<int> e) { errs[c] = std::move(e), calls[c] = 0; }

struct DbRetry : ::testing::Test {
  void SetUp() override {
    resetDbTestState();
    for (int c = 0; c < NCALLS; c++) script(Call(c), {});
    fdScope = -1, ctimeShift = chmodMovesCtime = 0, pathScope = tmp.path;
    writeFile(file, "data");
  }
  void TearDown() override { pathScope.clear(); }
  // Runs fn under script e for call c; checks its result, the errno it leaves (unless
  // err is -1), the number of calls and the one-second naps.
  void expectRun(Call c, std::deque<int> e, const std::function<int()> &fn, int result,
                 int err, int n, size_t naps) {
    script(c, std::move(e));
    recordedPauses().clear(), errno = 0;
    int r = fn(), got = err == -1 ? -1 : errno;
    EXPECT_EQ(std::make_tuple(r, got, calls[c], recordedPauses()),
              std::make_tuple(result, err, n, std::vector<unsigned>(naps, 1))) << c;
  }
  TempDir tmp;
  struct stat st;
  std::string file = tmp.at("f");
  const char *f = file.c_str();
};
}  // namespace

// `after` runs on a real success in scope.
#define WRAP(fn, c, scope, params, args, after)                                    \
  int __real_##fn params;                                                         \
  int __wrap_##fn params {                                                        \
    int r;                                                                        \
    if (scripted(c, scope, &r)) return r;                                         \
    return (r = __real_##fn args) == 0 && (scope) ? (after, 0) : r;               \
  }

extern "C" {
WRAP(unlink, UNLINK, inPath(p), (const char *p), (p), (void)0)
WRAP(rename, RENAME, inPath(a), (const char *a, const char *b), (a, b), (void)0)
WRAP(link, LINK, inPath(a), (const char *a, const char *b), (a, b), (void)0)
WRAP(creat, CREAT, inPath(p), (const char *p, mode_t m), (p, m), (void)0)
WRAP(close, CLOSE, fd == fdScope, (int fd), (fd), (void)0)
WRAP(fstat, FSTAT, fd == fdScope, (int fd, struct stat *b), (fd, b), (void)0)
WRAP(utime, UTIME, inPath(p), (const char *p, const struct utimbuf *t), (p, t), (void)0)
WRAP(fflush, FFLUSH, s && s == streamScope, (FILE *s), (s), (void)0)
WRAP(chmod, CHMOD, inPath(p), (const char *p, mode_t m), (p, m), ctimeShift += chmodMovesCtime)
WRAP(stat, STAT, inPath(p), (const char *p, struct stat *b), (p, b), b->st_ctime += ctimeShift)
// A scripted fclose failure still closes the stream, as the C library's fclose does.
int __real_fclose(FILE *);
int __wrap_fclose(FILE *f) {
  int r, inScope = f && f == streamScope, saved;
  if (inScope) streamScope = nullptr;  // (a later stream may get the same address)
  if (!scripted(FCLOSE, inScope, &r)) return __real_fclose(f);
  saved = errno, __real_fclose(f), errno = saved;
  return r == 0 ? 0 : EOF;
}
}  // extern "C"

TEST_F(DbRetry, TransientRuleRetriesBusyErrorsThreeTimesOneSecondApart) {
  auto unlinkF = [&] { return retryUnlink(f); };
  expectRun(UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY}, unlinkF, -1, EBUSY, 4, 3);
  expectRun(RENAME, {EINTR, EAGAIN, ETXTBSY}, [&] { return retryRename(f, f); }, 0, ETXTBSY, 4, 3);
  expectRun(STAT, {ETIMEDOUT}, [&] { return retryStat(f, &st); }, 0, ETIMEDOUT, 2, 1);
  expectRun(UNLINK, {ENOENT}, unlinkF, -1, ENOENT, 1, 0);
  setCurrentDb(newDbHandle(tmp.path.c_str(), nullptr, DB_KIND_NONE));
  currentDb()->standalone = true;  // a standalone current database retries without napping
  expectRun(UNLINK, {EBUSY, EBUSY, EBUSY, EBUSY}, unlinkF, -1, EBUSY, 4, 0);
  script(STAT, {ENOENT});  // a directory made by another process after ensureDir looked
  EXPECT_EQ(ensureDir(tmp.path.c_str(), 0700), 0);
}

TEST_F(DbRetry, TimeoutRuleNapsFourTimesAndGivesUpAfterTenRetriesNamingTheCall) {
  int fd = fdScope = open(f, O_RDONLY);
  const std::tuple<Call, const char *, std::function<int()>> wrappers[] = {
      {CREAT, "creat", [&] { return retryCreat(tmp.at("made").c_str(), 0600); }},
      {FSTAT, "fstat", [&] { return retryFstat(fd, &st); }},
      {UTIME, "utime", [&] { return retryUtime(f); }},
      {CHMOD, "chmod", [&] { return retryChmod(f, 0640); }},
      {CLOSE, "close", [&] { return retryClose(fd); }}};
  for (const auto &[call, name, run] : wrappers) {
    EXPECT_EQ(stderrOf([&] {
                expectRun(call, std::deque<int>(11, ETIMEDOUT), run, -1, ETIMEDOUT, 11, 4);
              }), std::string("quorvel: timedOut: ") + name + " ETIMEDOUT 10 times!\n");
    expectRun(call, {EIO}, run, -1, EIO, 1, 0);  // any other error ends the loop at once
  }
  EXPECT_EQ(retryClose(fd), 0);
  auto chmodF = [&] { return retryChmod(f, 0604); };  // four timeouts: still no report
  EXPECT_EQ(stderrOf([&] { expectRun(CHMOD, std::deque<int>(4, ETIMEDOUT), chmodF, 0, -1, 5, 4); }), "");
  // utime's retries start from the caller's errno, which a final success leaves.
  expectRun(UTIME, {ETIMEDOUT}, [&] { errno = ENOSPC; return retryUtime(f); }, 0, ENOSPC, 2, 1);
}

TEST_F(DbRetry, ChmodAddsUtimeOnlyWhereTheChangeTimeStaysAndTouchingWaitsForItToMove) {
  script(CHMOD, {0});  // "succeeds" idle: the change time stays, so each chmod adds a utime
  EXPECT_TRUE(retryChmod(f, 0600) == 0 && retryChmod(f, 0600) == 0 && calls[UTIME] == 2);
  resetRetryState(), script(UTIME, {});
  chmodMovesCtime = 5;  // the file server shows the chmod as a later change time
  EXPECT_EQ(retryChmod(f, 0640), 0);
  int stats = calls[STAT];
  EXPECT_EQ(retryChmod(f, 0600), 0);
  EXPECT_TRUE(calls[STAT] == stats && calls[UTIME] == 0);  // settled: no change-time reads
  resetRetryState(), chmodMovesCtime = 0;  // touching waits for the change time to move
  setPauseHook([](unsigned s) { ctimeShift += static_cast<int>(s); });  // a real second
  int32_t first = touchfile(f), second = touchfile(f);
  EXPECT_TRUE(first != NO_TIME && second >= first + 1 && fileChangeTime(f) == second);
  script(CHMOD, {EPERM});
  EXPECT_TRUE(touchChangeStamp(f) == NO_TIME && touchChangeStamp(f) == second);
}

TEST_F(DbRetry, ProbeFailureIsFatalWithTheTextOfItsErrnoAfterRemovingTheProbe) {
  setenv("QUORVELPATH", tmp.path.c_str(), 1), resetBase();
  registerCleanup([] { fprintf(stderr, "unlinks=%d\n", calls[UNLINK]); });
  std::string lead = "Permission problem: directory \"" + tmp.path + "/db/database\"\n"
                     "    is not writeable.  ";
  pathScope = "db/";  // the relative probe path is the one in scope
  for (const auto &[err, text] : {std::pair<int, std::string>{EACCES,
           "Check owner/group/mode of database subdirectories\n    and of quorvel executeable "
           "binary.  (access() errno=EACCES)"}, {EROFS, "(access() errno=30)"}}) {
    script(CREAT, {err});
    EXPECT_EXIT(checkDbDirWritable("db/database"), ExitedWithCode(1),
                ::testing::Eq(lead + text + "\nunlinks=1\n"));
  }
  unsetenv("QUORVELPATH"), resetBase();
}

TEST_F(DbRetry, ScratchNamesRetryCreationOnAccessAndNeverReplaceATakenName) {
  std::string tmpl = tmp.at("abcXXXXXX"), name;
  auto make = [&] { return makeScratchFile((name = tmpl).data()); };
  auto files = [&] { return std::distance(std::filesystem::directory_iterator(tmp.path), {}); };
  script(LINK, {EEXIST, EEXIST});
  expectRun(CREAT, std::deque<int>(49, EACCES), make, 0, -1, 50, 0);
  EXPECT_TRUE(calls[LINK] == 3 && std::regex_match(name, std::regex(tmp.path + "/abca[0-9]{5}")));
  EXPECT_TRUE(stat(name.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600);
  EXPECT_EQ(files(), 2);  // the data file and the scratch file, no "T" name
  // The final name the random stream gives first belongs to another file: it is kept
  // as it is, and the scratch file takes the next name.
  char taken[16];
  srand48(7), lrand48(), snprintf(taken, sizeof taken, "abca%.5ld", lrand48() & 0x7fff);
  writeFile(tmp.at(taken), "precious"), srand48(7);
  ASSERT_EQ(make(), 0);
  EXPECT_NE(name, tmp.at(taken)); EXPECT_EQ(readFile(tmp.at(taken)), "precious");
  EXPECT_EQ(files(), 4);
  expectRun(CREAT, std::deque<int>(50, EACCES), make, -EACCES, EACCES, 50, 0);
  expectRun(LINK, {EXDEV}, make, -EXDEV, EXDEV, 1, 0);
  EXPECT_EQ(files(), 5);  // the read-only "T" file stays
  for (std::string bad : {"/tmp/abc", "XXXX", "/tmp/XXXXXXabc"})
    EXPECT_EQ(makeScratchFile(bad.data()), -1) << bad;
  EXPECT_EQ(makeScratchFile(tmp.at("none/abcXXXXXX").data()), -ENOENT);
}

TEST_F(DbRetry, FcloseRetriesTheFlushClosesOnceAndReportsFailures) {
  struct Row { std::deque<int> flush, close; int result, flushes, closes, naps; const char *report; };
  for (const Row &row : {Row{{EAGAIN, EIO}, {}, 0, 3, 1, 2, ""},
                         Row{{EIO, EIO, EIO, EIO}, {}, 0, 4, 1, 3, "Fclose() fflush failed errno = 5\n"},
                         Row{{EBADF}, {}, EOF, 1, 0, 0, "Fclose() fflush failed errno = 9\n"},
                         Row{{}, {ENOSPC}, EOF, 1, 1, 0, "Fclose() failed with errno = 28\n"}}) {
    FILE *s = streamScope = Fopen(tmp.at("out").c_str(), "w");
    fputs("kept", s), script(FFLUSH, row.flush), script(FCLOSE, row.close), recordedPauses().clear();
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(Fclose(s), row.result); }), row.report);
    EXPECT_EQ(std::make_tuple(calls[FFLUSH], calls[FCLOSE], int(recordedPauses().size())),
              std::make_tuple(row.flushes, row.closes, row.naps));
    if (row.closes == 0) fclose(s);  // left open by Fclose
    EXPECT_TRUE(row.result != 0 || readFile(tmp.at("out")) == "kept");
  }
  EXPECT_EQ(stderrOf([] { EXPECT_EQ(Fclose(nullptr), -1); }), "Fclose() passed a NULL stream\n");
}

TEST_F(DbRetry, ReadLineCrlfFoldsOnlyTheCrBeforeTheLineEndAndCopyFileKeepsEveryByte) {
  writeFile(file, "abc\r\n\r\nabc\nx\r\r\ntail");
  FILE *s = Fopen(f, "r");
  char line[64];
  std::string all, to = tmp.at("to"), data("bin\0ary\r\n\xff", 10);
  while (readLineCrlf(line, sizeof line, s)) all += std::string(line) + "|";
  EXPECT_EQ(all, "abc\n|\n|abc\n|x\r\n|tail|");
  EXPECT_EQ(Fclose(s), 0);
  writeFile(file, data);
  EXPECT_TRUE(copyFile(to.c_str(), f) == 0 && readFile(to) == data);
  // A missing source does not truncate the target.
  EXPECT_TRUE(copyFile(to.c_str(), tmp.at("missing").c_str()) == -1 && readFile(to) == data);
}
