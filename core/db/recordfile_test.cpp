// Tests of the rewrite of a record file on the real file system: the shrink check and
// its "BAD" file, writedbfile's failures, tmprelink's results and the cache that reads,
// re-reads, writes back and is dropped with the change stamp.
#include <cerrno>
#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/record.h"
#include "core/db/record_test_util.h"
#include "core/db/recordfile.h"

namespace quorvel {
namespace {

class RecordRewrite : public ::testing::Test {
 protected:
  TestNames names{{"ann", "bob", "carl", "dora"}};
  TempDir dir;
  std::string path;
  RecordFile *rf = nullptr;
  void SetUp() override {
    resetDbTestState();
    names.install();
    path = dir.at("cal");
    rf = newRecordFile(path.c_str(), nullptr);
  }
  void TearDown() override {
    freeRecordFile(rf);
    resetNameLookup();
    resetDbContexts();
  }
  // Items numbered from..to-1 with titles of the given length.
  void fill(int from, int to, size_t titleLength) {
    for (int i = from; i < to; i++) {
      Item *it = evnew();
      it->randomId = i;
      it->calendars = makeSet({0});
      evsetTitle(it, std::string(titleLength, 'a' + char(i % 26)).c_str());
      addRecordItem(rf, it);
    }
  }
  void dropItems(int keep) {
    while (evlistCount(&rf->list) > keep) {
      Item *last = rf->list.prev;
      evlistRemove(last);
      evfree(last);
    }
    rf->index.clear();
    rf->dirty = true;
  }
  int rewrite() {
    int rc = writedbfile(rf);
    return rc != 0 ? rc : tmprelink(rf);
  }
  std::string captured(int *rc, int (*step)(RecordFile *)) {
    testing::internal::CaptureStderr();
    *rc = step(rf);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(RecordRewrite, ShrinkCheckRefusesOnlyWhenBothMeasuresFell) {
  writeFile(path, "");
  fill(0, 20, 40);  // about 120 bytes an item
  ASSERT_EQ(rewrite(), 0);
  long fullSize = rf->size;
  EXPECT_EQ(long(readFile(path).size()), fullSize);
  EXPECT_EQ(rf->count, 20);

  for (Item *e = rf->list.next; e != &rf->list; e = e->next)  // bytes near 85%, count kept
    evsetTitle(e, std::string(22, 'b').c_str());
  ASSERT_EQ(rewrite(), 0);
  EXPECT_LT(rf->size * 100 / fullSize, 90);
  std::string kept = readFile(path);

  dropItems(15);  // records at 75%, bytes at 75%: refused
  int rc = 0;
  std::string log = captured(&rc, writedbfile);
  EXPECT_EQ(rc, -EIO);
  char want[160];
  snprintf(want, sizeof want, "writedbfile fail: incomplete write - %d/%d (observed) != %d/%d (expected)\n",
           int(fileSize((path + "BAD").c_str())), 15, int(rf->size), 20);
  EXPECT_EQ(log, want);
  EXPECT_EQ(readFile(path), kept);
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_FALSE(rf->loaded);
  EXPECT_EQ(rf->mtime, NO_TIME);
  std::string bad = readFile(path + "BAD");
  EXPECT_EQ(std::count(bad.begin(), bad.end(), '\n'), 1 + 15 * 8);

  dropItems(14);  // an existing "BAD" file is kept as it is
  EXPECT_EQ(captured(&rc, writedbfile).substr(0, 17), "writedbfile fail:");
  EXPECT_EQ(rc, -EIO);
  EXPECT_EQ(readFile(path + "BAD"), bad);
  EXPECT_TRUE(exists(path + "TMP"));

  rf->shrinkOnce = true;  // allowed once
  EXPECT_EQ(rewrite(), 0);
  EXPECT_FALSE(rf->shrinkOnce);
  EXPECT_EQ(rf->count, 14);
  dropItems(3);
  EXPECT_EQ(writedbfile(rf), -EIO);
}

TEST_F(RecordRewrite, ShrinkCheckPassesWhenOneMeasureHolds) {
  writeFile(path, "");
  fill(0, 10, 10);
  ASSERT_EQ(rewrite(), 0);
  dropItems(5);  // count halves but the bytes grow: written
  for (Item *e = rf->list.next; e != &rf->list; e = e->next)
    evsetTitle(e, std::string(200, 'c').c_str());
  EXPECT_EQ(rewrite(), 0);
  EXPECT_EQ(rf->count, 5);
  fill(5, 7, 1);  // bytes fall, records grow: written
  for (Item *e = rf->list.next; e != &rf->list; e = e->next) evsetTitle(e, "d");
  long before = rf->size;
  EXPECT_EQ(rewrite(), 0);
  EXPECT_LT(rf->size, before);
}

TEST_F(RecordRewrite, WriteFailuresReportDiscardAndRemoveTheScratchFile) {
  fill(0, 3, 5);
  ASSERT_EQ(mkdir((path + "TMP").c_str(), 0700), 0);
  int rc = 0;
  EXPECT_EQ(captured(&rc, writedbfile), "quorvel: database write open failed:errno=21\n");
  EXPECT_EQ(rc, EISDIR);
  EXPECT_TRUE(evlistEmpty(&rf->list));
  EXPECT_FALSE(rf->loaded);
  rmdir((path + "TMP").c_str());

  fill(0, 3, 5);
  ASSERT_EQ(symlink("/dev/full", (path + "TMP").c_str()), 0);
  EXPECT_EQ(captured(&rc, writedbfile), "quorvel: database write failed--errno=28\n");
  EXPECT_EQ(rc, ENOSPC);
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_TRUE(evlistEmpty(&rf->list));

  RecordFile *nowhere = newRecordFile(dir.at("no/such/cal").c_str(), nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(writedbfile(nowhere), ENOENT);
  testing::internal::GetCapturedStderr();
  freeRecordFile(nowhere);
}

TEST_F(RecordRewrite, WriteWithoutUserStateDropsTheCache) {
  DbHandle *db = newDbHandle(dir.path.c_str(), "home", DB_KIND_LOCAL);
  db->inMemoryOnly = true;
  setCurrentDb(db);
  RecordFile *cached = openRecordFile(db, path.c_str());
  ASSERT_EQ(cachedFileCount(db), 1);
  resetNameLookup();
  testing::internal::CaptureStderr();
  EXPECT_EQ(writedbfile(cached), -1);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(log.substr(0, 17), "No user state at ");
  EXPECT_NE(log.find(", aborting write of " + path + "\n"), std::string::npos);
  EXPECT_EQ(db->records, nullptr);
  EXPECT_FALSE(exists(path + "TMP"));
}

TEST_F(RecordRewrite, RelinkPutsTheNewFileInPlaceAndKeepsItsFigures) {
  writeFile(path, "old");
  writeFile(path + "sav", "stale copy");
  fill(0, 2, 4);
  ASSERT_EQ(writedbfile(rf), 0);
  std::string fresh = readFile(path + "TMP");
  rf->shrinkOnce = true;
  ASSERT_EQ(tmprelink(rf), 0);
  EXPECT_EQ(readFile(path), fresh);
  EXPECT_FALSE(exists(path + "sav"));
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_EQ(rf->size, long(fresh.size()));
  EXPECT_EQ(rf->mtime, fileModTime(path.c_str(), nullptr));
  EXPECT_EQ(rf->dirTime, fileModTime(dir.path.c_str(), nullptr));
  EXPECT_NE(rf->mtime, NO_TIME);
  EXPECT_FALSE(rf->shrinkOnce);
  EXPECT_FALSE(rf->dirty);
}

TEST_F(RecordRewrite, RelinkFailuresLeaveTheOldFileInPlace) {
  int rc = 0;
  writeFile(path + "TMP", "new");  // no file to move aside: the odd -1 is kept
  rf->loaded = true;
  rf->mtime = 5;
  EXPECT_EQ(captured(&rc, tmprelink), "tmprelink: unable to rename " + path + " (errno=-1)!\n");
  EXPECT_EQ(rc, -1);
  EXPECT_FALSE(rf->loaded);
  EXPECT_EQ(rf->mtime, NO_TIME);
  EXPECT_EQ(readFile(path + "TMP"), "new");

  writeFile(path, "old");
  writeFile(path + "TMP", "");  // an empty new file is not put in place
  EXPECT_EQ(captured(&rc, tmprelink), "tmprelink: target file " + path + " does not exist\n");
  EXPECT_EQ(rc, -ECHILD);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_FALSE(exists(path + "sav"));

  EXPECT_EQ(captured(&rc, tmprelink),  // no "TMP" at all: errno passed up
            "tmprelink: unable to rename " + path + "TMP to " + path + " (errno=2)!\n");
  EXPECT_EQ(rc, ENOENT);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_FALSE(exists(path + "sav"));
}

/* ---- The cache -------------------------------------------------------------------- */

class RecordCacheTest : public ::testing::Test {
 protected:
  TestNames names{{"ann", "bob"}};
  TempDir dir;
  DbHandle *db = nullptr;
  void SetUp() override {
    resetDbTestState();
    names.install();
    ASSERT_EQ(mkdir(dir.at("locks").c_str(), 0700), 0);
    db = newDbHandle(dir.path.c_str(), "home", DB_KIND_LOCAL);
    db->standalone = true;
    setMainDb(db);
    setCurrentDb(db);
  }
  void TearDown() override {
    resetNameLookup();
    resetDbContexts();
  }
};

TEST_F(RecordCacheTest, ReadsOnceAndAgainWhenTheFileMoves) {
  std::string path = dir.at("cal");
  writeFile(path, "\n#T\tone\n#W\tann\n#I\t1\n\n");
  RecordFile *rf = openRecordFile(db, path.c_str());
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->count, 1);
  EXPECT_EQ(db->dropRecords, dropRecordCache);
  EXPECT_NE(db->outsideChange, NO_TIME);
  Item *first = rf->list.next;
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(rf->list.next, first);  // not read again
  EXPECT_EQ(recordFileOf(db, first), rf);

  writeFile(path, "\n#T\tone\n#W\tann\n#I\t1\n\n#T\ttwo\n#W\tbob\n#I\t2\n\n");
  struct timespec times[2] = {{0, UTIME_OMIT}, {rf->mtime + 10, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(rf->count, 2);
  EXPECT_STREQ(rf->list.prev->title, "two");

  Item *extra = evnew();
  extra->calendars = makeSet({0});
  addRecordItem(rf, extra);
  times[1].tv_sec += 10;  // a dirty file keeps its unsaved item
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(evlistCount(&rf->list), 3);
  EXPECT_EQ(recordFileOf(db, extra), rf);
}

TEST_F(RecordCacheTest, ChangedStampDropsTheCache) {
  std::string path = dir.at("cal");
  writeFile(path, "\n#T\tone\n#W\tann\n\n");
  RecordFile *rf = openRecordFile(db, path.c_str());
  ASSERT_NE(rf, nullptr);
  EXPECT_NE(db->lastSeenStamp, NO_TIME);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  db->lastSeenStamp -= 5;  // as if another process had touched the stamp
  RecordFile *again = openRecordFile(db, path.c_str());
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(cachedFileCount(db), 1);
  EXPECT_EQ(again->count, 1);
  EXPECT_EQ(db->outsideChange, db->lastSeenStamp);
  dropFileCache(db);
  EXPECT_EQ(cachedFileCount(db), 0);
  setRecordDebug(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(findRecordFile(db, path.c_str()), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "no cached file:" + path + "\n");
  setRecordDebug(0);
}

TEST_F(RecordCacheTest, DirtyFilesAreWrittenAndTheStampMoves) {
  std::string path = dir.at("new");
  RecordFile *rf = openRecordFile(db, path.c_str());
  ASSERT_NE(rf, nullptr);
  Item *it = evnew();
  it->randomId = 9;
  it->calendars = makeSet({1});
  addRecordItem(rf, it);
  RecordFile *clean = openRecordFile(db, dir.at("clean").c_str());
  ASSERT_EQ(writeDirtyFiles(db), 0);
  EXPECT_EQ(readFile(path), "\n#T\t\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n"
                            "#W\tbob\n#I\t9\n#H\t0\n#s\t0\n\n");
  EXPECT_FALSE(exists(dir.at("clean")));
  EXPECT_FALSE(rf->dirty);
  EXPECT_NE(db->ownWriteStamp, NO_TIME);
  EXPECT_EQ(db->lastSeenStamp, db->ownWriteStamp);
  EXPECT_EQ(currentDb(), db);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);  // our own write drops nothing
  EXPECT_EQ(openRecordFile(db, dir.at("clean").c_str()), clean);
  EXPECT_EQ(writeDirtyFiles(db), 0);  // nothing dirty: nothing touched
}

}  // namespace
}  // namespace quorvel
