// Tests of change stamps, touching, the held lock, the owner check and the signals.
#include "core/db/lock.h"

#include <csignal>

#include "core/db/db_test_util.h"

using namespace quorvel;
using ::testing::Eq;
using ::testing::ExitedWithCode;

namespace {
struct DbLock : ::testing::Test {
  void SetUp() override {
    resetDbTestState(), std::filesystem::create_directories(tmp.at("db/locks"));
    db = newDbHandle(tmp.at("db").c_str(), "test", DB_KIND_NONE);
  }
  void TearDown() override { resetDbTestState(); }
  TempDir tmp;
  std::string stamp = tmp.at("db/locks/active1"), f = tmp.at("lock");
  DbHandle *db;
};
int drops;
}  // namespace

TEST_F(DbLock, TouchingAFileItCannotChmodIsFatalUnlessStandalone) {
  std::string text = "touchfile: cannot chmod " + f + " (errno=2)\n";
  EXPECT_EXIT(touchfile(f.c_str()), ExitedWithCode(1), Eq(text));
  setCurrentDb(db), db->standalone = true;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(touchfile(f.c_str()), NO_TIME); }), text);
}

TEST_F(DbLock, StampingAWriteRecordsBothStampsAndMakesOnlyAShareableDatabaseCurrent) {
  writeFile(stamp, "");
  int32_t t = stampDbWrite(db);
  EXPECT_TRUE(t != NO_TIME && t == fileChangeTime(stamp.c_str()) && currentDb() == db);
  EXPECT_TRUE(t == db->lastSeenStamp && t == db->ownWriteStamp);
  DbHandle *alone = newDbHandle(db->dir.c_str(), nullptr, DB_KIND_NONE);
  alone->standalone = true, setCurrentDb(nullptr);
  EXPECT_TRUE(stampDbWrite(alone) != NO_TIME && currentDb() == nullptr);
}

TEST_F(DbLock, RefreshCreatesAMissingStampAndDropsTheCacheOnlyWhenTheStampMoved) {
  db->dropRecords = [](DbHandle *) { drops++; };
  drops = 0, setClockHook([]() -> time_t { return 1700000000; });
  EXPECT_TRUE(refreshChangeStamp(db) == 1 && exists(stamp));
  EXPECT_TRUE(db->lastSeenStamp == 1700000000 && drops == 0);  // the clock's time; nothing seen
  int32_t real = db->lastSeenStamp = fileChangeTime(stamp.c_str());
  EXPECT_TRUE(refreshChangeStamp(db) == 1 && stampChanged(db) == 0);
  EXPECT_TRUE(drops == 0 && db->outsideChange == NO_TIME);  // the same stamp: nothing dropped
  db->lastSeenStamp = real - 5;  // another process moved the stamp
  EXPECT_EQ(stampChanged(db), 1);
  db->inMemoryOnly = true;
  EXPECT_EQ(stampChanged(db), 0);  // an in-memory database does not look
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_TRUE(drops == 1 && db->outsideChange == real && db->lastSeenStamp == real);
}

TEST_F(DbLock, OwnStampFileIsCreatedOnlyBelowAnExistingLocksDirectory) {
  std::string own = tmp.at("home/.quorvel/");
  setenv("HOME", tmp.at("home").c_str(), 1);
  EXPECT_EQ(checkOwnDbStamp(), 0);
  std::filesystem::create_directories(own + "db/database/locks");
  struct stat st {};
  EXPECT_TRUE(checkOwnDbStamp() == 1 && stat((own + "db/database/locks/active1").c_str(), &st) == 0);
  EXPECT_EQ(st.st_mode & 0744, 0644u);
  unsetenv("HOME");
  EXPECT_EQ(checkOwnDbStamp(), 0);
}

TEST_F(DbLock, HeldLockIsReplacedRefusedTwiceAndRemovedOnFatalExit) {
  writeFile(f, "me"), setLock("/a/lock"), setLock(f.c_str());  // a new name replaces the held one
  EXPECT_STREQ(heldLock(), f.c_str());
  EXPECT_EXIT(setLock(f.c_str()), ExitedWithCode(1),
              Eq("setLock(\"" + f + "\"): \"" + f + "\" already locked\n"));
  EXPECT_EXIT(stuckLock("/x", 0), ExitedWithCode(1),
              Eq("Stuck lock file--try again in 5 minutes\n  (\"/x\")\n"));
  EXPECT_FALSE(exists(f));  // the fatal exit above removed it
  writeFile(f, "me"), clearLock();
  EXPECT_EXIT(stuckLock("/x", 13), ExitedWithCode(1),
              Eq("Stuck lock file--notify administrator\n  (\"/x\")  errno=13\n"));
  EXPECT_TRUE(exists(f));  // no longer held: left alone
  setLock(f.c_str()), removeHeldLock();
  EXPECT_TRUE(!exists(f) && heldLock() == nullptr);
}

TEST_F(DbLock, LockOwnerCheckObjectsOnlyToAForeignNonEmptyFile) {
  std::string id100(100, 'q'), longFile = id100 + "tail";
  struct Row { const char *file; std::string id; int result; };  // null file: none
  for (const Row &row : {Row{nullptr, "", 0}, Row{"", "pat@host", 0}, Row{"pat@host", "pat@host", 0},
                         Row{"pat@hostX", "pat@host", -1}, Row{"kim@host", "pat@host", -1},
                         Row{"x", "", -1}, Row{longFile.c_str(), longFile, 0}}) {  // 100 bytes count
    row.file ? writeFile(f, row.file) : (void)std::filesystem::remove(f);
    setLockOwner(row.id.data(), row.id.size());
    int r = 0;
    EXPECT_EQ(stderrOf([&] { r = checkLockOwner(f.c_str()); }),
              row.result == 0 ? "" : "Not MY lockfile! " + f + "\n");
    EXPECT_EQ(r, row.result) << (row.file ? row.file : "");
  }
}

static void noisyCleanup() { fputs("cleanup ran", stderr); }

// The handler removes the held lock by the signal-safe road: no clean-up (they may
// allocate or print) runs inside it.
TEST_F(DbLock, TerminatingSignalsRemoveTheHeldLockAndPipeIsIgnored) {
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    writeFile(f, "x");
    EXPECT_EXIT((registerCleanup(noisyCleanup), installSignalHandlers(), setLock("other"),
                 setLock(f.c_str()), raise(SIGPIPE), raise(sig)),
                ExitedWithCode(128 + sig), Eq(""));  // SIGPIPE is ignored: on to sig
    EXPECT_FALSE(exists(f)) << sig;  // the held lock is gone
  }
}
