// Tests of change stamps, touching, the held lock, the owner check and the signals.
#include "core/db/lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/layout.h"

using namespace quorvel;
using ::testing::Eq;
using ::testing::ExitedWithCode;

namespace {

class DbLock : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDbTestState();
    std::filesystem::create_directories(tmp.at("db/locks"));
    db = newDbHandle(tmp.at("db").c_str(), "test", DB_KIND_NONE);
    stamp = db->dir + "/locks/active1";
  }
  void TearDown() override { resetDbTestState(); }
  TempDir tmp;
  DbHandle *db;
  std::string stamp;
};

int drops;
void countDrop(DbHandle *) { drops++; }

}  // namespace

TEST_F(DbLock, TouchingAFileItCannotChmodIsFatalUnlessStandalone) {
  std::string gone = tmp.at("gone");
  std::string text = "touchfile: cannot chmod " + gone + " (errno=2)\n";
  EXPECT_EXIT(touchfile(gone.c_str()), ExitedWithCode(1), Eq(text));
  db->standalone = true;
  setCurrentDb(db);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(touchfile(gone.c_str()), NO_TIME); }), text);
}

TEST_F(DbLock, StampingAWriteRecordsBothStampsAndMakesOnlyAShareableDatabaseCurrent) {
  writeFile(stamp, "");
  int32_t t = stampDbWrite(db);
  EXPECT_NE(t, NO_TIME);
  EXPECT_TRUE(t == fileChangeTime(stamp.c_str()) && t == db->lastSeenStamp &&
              t == db->ownWriteStamp);
  EXPECT_EQ(currentDb(), db);
  DbHandle *alone = newDbHandle(db->dir.c_str(), nullptr, DB_KIND_NONE);
  alone->standalone = true;
  setCurrentDb(nullptr);
  EXPECT_NE(stampDbWrite(alone), NO_TIME);
  EXPECT_EQ(currentDb(), nullptr);
}

TEST_F(DbLock, RefreshCreatesAMissingStampAndDropsTheCacheOnlyWhenTheStampMoved) {
  drops = 0;
  db->dropRecords = countDrop;
  setClockHook([]() -> time_t { return 1700000000; });
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_TRUE(exists(stamp));
  EXPECT_EQ(db->lastSeenStamp, 1700000000);  // the clock's time, not the new file's
  EXPECT_EQ(drops, 0);                       // nothing was seen before
  int32_t real = fileChangeTime(stamp.c_str());
  db->lastSeenStamp = real;
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_EQ(stampChanged(db), 0);
  EXPECT_EQ(drops, 0);  // the same stamp again: nothing dropped
  EXPECT_EQ(db->outsideChange, NO_TIME);
  db->lastSeenStamp = real - 5;  // another process moved the stamp
  EXPECT_EQ(stampChanged(db), 1);
  db->inMemoryOnly = true;
  EXPECT_EQ(stampChanged(db), 0);  // an in-memory database does not look
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_EQ(drops, 1);
  EXPECT_TRUE(db->outsideChange == real && db->lastSeenStamp == real);
}

TEST_F(DbLock, OwnStampFileIsCreatedOnlyBelowAnExistingLocksDirectory) {
  std::string home = tmp.at("home");
  setenv("HOME", home.c_str(), 1);
  EXPECT_EQ(checkOwnDbStamp(), 0);
  std::filesystem::create_directories(home + "/.quorvel/db/database/locks");
  EXPECT_EQ(checkOwnDbStamp(), 1);
  struct stat st;
  ASSERT_EQ(stat((home + "/.quorvel/db/database/locks/active1").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0744, 0644u);
  EXPECT_EQ(checkStampFile((home + "/.quorvel/").c_str()), 1);  // already there
  unsetenv("HOME");
  EXPECT_EQ(checkOwnDbStamp(), 0);
}

TEST_F(DbLock, HeldLockIsReplacedRefusedTwiceAndRemovedOnFatalExit) {
  std::string f = tmp.at("lock");
  writeFile(f, "me");
  setLock("/a/lock");
  setLock(f.c_str());  // a different name replaces the held one
  EXPECT_STREQ(heldLock(), f.c_str());
  EXPECT_EXIT(setLock(f.c_str()), ExitedWithCode(1),
              Eq("setLock(\"" + f + "\"): \"" + f + "\" already locked\n"));
  EXPECT_EXIT(stuckLock("/x", 0), ExitedWithCode(1),
              Eq("Stuck lock file--try again in 5 minutes\n  (\"/x\")\n"));
  EXPECT_FALSE(exists(f));  // the fatal exit above removed it
  writeFile(f, "me");
  clearLock();
  EXPECT_EXIT(stuckLock("/x", 13), ExitedWithCode(1),
              Eq("Stuck lock file--notify administrator\n  (\"/x\")  errno=13\n"));
  EXPECT_TRUE(exists(f));  // no longer held: left alone
  setLock(f.c_str());
  removeHeldLock();
  EXPECT_FALSE(exists(f));
  EXPECT_EQ(heldLock(), nullptr);
}

TEST_F(DbLock, LockOwnerCheckObjectsOnlyToAForeignNonEmptyFile) {
  std::string f = tmp.at("lock"), id100(100, 'q'), longFile = id100 + "tail";
  struct Row { const char *file; std::string id; int result; };  // null file: none
  const Row rows[] = {{nullptr, "", 0},  {"", "pat@host", 0},
                      {"pat@host", "pat@host", 0}, {"pat@hostX", "pat@host", -1},
                      {"kim@host", "pat@host", -1}, {"x", "", -1},
                      {longFile.c_str(), id100, 0}};  // only the first 100 bytes count
  for (const Row &row : rows) {
    if (row.file == nullptr) std::filesystem::remove(f);
    else writeFile(f, row.file);
    setLockOwner(row.id.data(), row.id.size());
    int r = 0;
    std::string out = stderrOf([&] { r = checkLockOwner(f.c_str()); });
    EXPECT_EQ(r, row.result) << (row.file ? row.file : "");
    EXPECT_EQ(out, r == 0 ? "" : "Not MY lockfile! " + f + "\n");
  }
}

TEST_F(DbLock, TerminatingSignalsLeaveThroughTheExitPathAndPipeIsIgnored) {
  std::string f = tmp.at("held");
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    writeFile(f, "x");
    EXPECT_EXIT(
        {
          installSignalHandlers();
          setLock(f.c_str());
          raise(SIGPIPE);  // ignored: the process goes on to the next signal
          raise(sig);
        },
        ExitedWithCode(128 + sig), Eq(""));
    EXPECT_FALSE(exists(f)) << sig;  // the exit path removed the held lock
  }
}
