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
  void SetUp() override { resetDbTestState(); }
  void TearDown() override { resetDbTestState(); }
  // A database directory with its "locks" subdirectory.
  DbHandle *makeDb() {
    std::string dir = tmp.at("db");
    mkdir(dir.c_str(), 0700);
    mkdir((dir + "/locks").c_str(), 0700);
    return newDbHandle(dir.c_str(), "test", DB_KIND_NONE);
  }
  TempDir tmp;
};

int drops;
void countDrop(DbHandle *) { drops++; }

}  // namespace

TEST_F(DbLock, TouchfileTwiceInOneSecondGivesTwoDifferentTimes) {
  setPauseHook(nullptr);  // the wait for the clock to move is the behaviour under test
  std::string f = tmp.at("stamp");
  writeFile(f, "");
  int32_t first = touchfile(f.c_str());
  int32_t second = touchfile(f.c_str());
  EXPECT_NE(first, NO_TIME);
  EXPECT_GE(second, first + 1);
  EXPECT_EQ(fileChangeTime(f.c_str()), second);
  struct stat st;
  ASSERT_EQ(stat(f.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST_F(DbLock, TouchfileOnAFileItCannotChmodIsFatalUnlessStandalone) {
  std::string f = tmp.at("missing");
  std::string text = "touchfile: cannot chmod " + f + " (errno=2)\n";
  EXPECT_EXIT(touchfile(f.c_str()), ExitedWithCode(1), Eq(text));
  DbHandle *db = newDbHandle(tmp.path.c_str(), nullptr, DB_KIND_NONE);
  db->standalone = true;
  setCurrentDb(db);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(touchfile(f.c_str()), NO_TIME);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), text);
}

TEST_F(DbLock, TouchChangeStampReportsTheNewChangeTimeOrNoTime) {
  std::string f = tmp.at("active1");
  EXPECT_EQ(touchChangeStamp(f.c_str()), NO_TIME);
  writeFile(f, "");
  int32_t t = touchChangeStamp(f.c_str());
  EXPECT_NE(t, NO_TIME);
  EXPECT_EQ(t, fileChangeTime(f.c_str()));
}

TEST_F(DbLock, StampingAWriteRecordsBothStampsAndMakesTheDatabaseCurrent) {
  DbHandle *db = makeDb();
  writeFile(db->dir + "/locks/active1", "");
  int32_t t = stampDbWrite(db);
  EXPECT_NE(t, NO_TIME);
  EXPECT_EQ(db->lastSeenStamp, t);
  EXPECT_EQ(db->ownWriteStamp, t);
  EXPECT_EQ(currentDb(), db);
  // A standalone database is stamped without becoming current.
  DbHandle *alone = newDbHandle(db->dir.c_str(), nullptr, DB_KIND_NONE);
  alone->standalone = true;
  setCurrentDb(nullptr);
  EXPECT_NE(stampDbWrite(alone), NO_TIME);
  EXPECT_EQ(currentDb(), nullptr);
}

TEST_F(DbLock, RefreshCreatesAMissingStampWithoutDroppingTheCache) {
  drops = 0;
  DbHandle *db = makeDb();
  db->dropRecords = countDrop;
  setClockHook([]() -> time_t { return 1700000000; });
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_TRUE(exists(db->dir + "/locks/active1"));
  EXPECT_EQ(db->lastSeenStamp, 1700000000);  // the clock's time, not the new file's
  EXPECT_EQ(drops, 0);
  EXPECT_EQ(db->outsideChange, NO_TIME);
  // The same stamp again: nothing dropped.
  int32_t real = fileChangeTime((db->dir + "/locks/active1").c_str());
  db->lastSeenStamp = real;
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_EQ(drops, 0);
  EXPECT_EQ(stampChanged(db), 0);
  // Another process moved the stamp: the cache goes and the change is recorded.
  db->lastSeenStamp = real - 5;
  EXPECT_EQ(stampChanged(db), 1);
  db->inMemoryOnly = true;
  EXPECT_EQ(stampChanged(db), 0);  // an in-memory database does not look
  EXPECT_EQ(refreshChangeStamp(db), 1);
  EXPECT_EQ(drops, 1);
  EXPECT_EQ(db->outsideChange, real);
  EXPECT_EQ(db->lastSeenStamp, real);
}

TEST_F(DbLock, OwnStampFileIsCreatedOnlyWhenTheLocksDirectoryExists) {
  std::string root = tmp.path + "/";
  EXPECT_EQ(checkStampFile(root.c_str()), 0);
  std::filesystem::create_directories(root + "db/database/locks");
  EXPECT_EQ(checkStampFile(root.c_str()), 1);
  struct stat st;
  ASSERT_EQ(stat((root + "db/database/locks/active1").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u & ~static_cast<unsigned>(umask(022)));
  EXPECT_EQ(checkStampFile(root.c_str()), 1);  // already there
  const char *home = getenv("HOME");
  std::string savedHome = home != nullptr ? home : "";
  setenv("HOME", tmp.path.c_str(), 1);
  EXPECT_EQ(checkOwnDbStamp(), 0);  // no ".quorvel" below this HOME
  std::filesystem::create_directories(tmp.path + "/.quorvel/db/database/locks");
  EXPECT_EQ(checkOwnDbStamp(), 1);
  EXPECT_TRUE(exists(tmp.path + "/.quorvel/db/database/locks/active1"));
  unsetenv("HOME");
  EXPECT_EQ(checkOwnDbStamp(), 0);
  if (home != nullptr) setenv("HOME", savedHome.c_str(), 1);
}

TEST_F(DbLock, SetLockHoldsOneNameAndRefusesTheSameNameTwice) {
  EXPECT_EQ(heldLock(), nullptr);
  setLock("/a/lock");
  EXPECT_STREQ(heldLock(), "/a/lock");
  setLock("/b/lock");  // a different name replaces the held one
  EXPECT_STREQ(heldLock(), "/b/lock");
  EXPECT_EXIT(setLock("/b/lock"), ExitedWithCode(1),
              Eq("setLock(\"/b/lock\"): \"/b/lock\" already locked\n"));
  clearLock();
  EXPECT_EQ(heldLock(), nullptr);
  EXPECT_EQ(lockDatabase("/b/lock"), 0);
  EXPECT_EQ(unlockDatabase("/b/lock"), 0);
}

TEST_F(DbLock, FatalExitRemovesTheHeldLockFile) {
  std::string f = tmp.at("lock");
  writeFile(f, "me");
  EXPECT_EXIT(
      {
        setLock(f.c_str());
        stuckLock(f.c_str(), 0);
      },
      ExitedWithCode(1), Eq("Stuck lock file--try again in 5 minutes\n  (\"" + f + "\")\n"));
  EXPECT_FALSE(exists(f));
  writeFile(f, "me");
  EXPECT_EXIT(stuckLock(f.c_str(), 13), ExitedWithCode(1),
              Eq("Stuck lock file--notify administrator\n  (\"" + f + "\")  errno=13\n"));
  EXPECT_TRUE(exists(f));  // not held: left alone
  setLock(f.c_str());
  removeHeldLock();
  EXPECT_FALSE(exists(f));
  EXPECT_EQ(heldLock(), nullptr);
}

TEST_F(DbLock, LockOwnerCheckObjectsOnlyToAForeignNonEmptyFile) {
  std::string f = tmp.at("lock");
  EXPECT_EQ(checkLockOwner(f.c_str()), 0);  // cannot be opened
  writeFile(f, "");
  EXPECT_EQ(checkLockOwner(f.c_str()), 0);  // empty
  setLockOwner("pat@host", 8);
  writeFile(f, "pat@host");
  EXPECT_EQ(checkLockOwner(f.c_str()), 0);
  writeFile(f, "pat@hostX");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(checkLockOwner(f.c_str()), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Not MY lockfile! " + f + "\n");
  writeFile(f, "kim@host");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(checkLockOwner(f.c_str()), -1);
  ::testing::internal::GetCapturedStderr();
  // Only the first 100 bytes count: an identity of 100 bytes matches a longer file.
  std::string id(100, 'q');
  setLockOwner(id.c_str(), id.size());
  writeFile(f, id + "tail");
  EXPECT_EQ(checkLockOwner(f.c_str()), 0);
}

TEST_F(DbLock, TerminateSignalLeavesThroughTheExitPathAndPipeIsIgnored) {
  std::string f = tmp.at("held");
  writeFile(f, "x");
  EXPECT_EXIT(
      {
        installSignalHandlers();
        setLock(f.c_str());
        raise(SIGPIPE);  // ignored
        fprintf(stderr, "survived %d\n", signalsReceived());
        raise(SIGTERM);
      },
      ExitedWithCode(128 + SIGTERM), Eq("survived 0\n"));
  EXPECT_FALSE(exists(f));
  EXPECT_EXIT(
      {
        installSignalHandlers();
        raise(SIGHUP);
      },
      ExitedWithCode(128 + SIGHUP), Eq(""));
}
