// Tests of the rewrite of a record file on the real file system: the shrink check and
// its "BAD" file, writedbfile's failures, the missing user state, and the cache that reads, re-reads, writes back and is dropped with the change stamp.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/layout.h"
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
  // The list made count items long, every title titleLength characters.
  void shape(int count, size_t titleLength) {
    while (evlistCount(&rf->list) > count) {
      Item *last = rf->list.prev;
      evlistRemove(last);
      evfree(last);
    }
    rf->index.clear();
    for (int i = evlistCount(&rf->list); i < count; i++) {
      Item *it = evnew();
      it->randomId = i;
      it->calendars = makeSet({0});
      addRecordItem(rf, it);
    }
    for (Item *e = rf->list.next; e != &rf->list; e = e->next) evsetTitle(e, std::string(titleLength, 'a').c_str());
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

TEST_F(RecordRewrite, ShrinkCheckRefusesOnlyWhenBothMeasuresFellBelowNinetyPercent) {
  writeFile(path, "");
  struct Row {
    int count;
    size_t titleLength;
    bool shrinkOnce;
    int rc;
  } rows[] = {
      {20, 40, false, 0},     // about 120 bytes an item
      {20, 22, false, 0},     // bytes near 85% (checked below), count kept
      {15, 22, false, -EIO},  // both at 75%
      {14, 22, false, -EIO},  // an existing "BAD" file is kept as it is
      {14, 22, true, 0},      // allowed once
      {3, 22, false, -EIO},   // and only once
      {3, 400, false, 0},     // count fell, bytes grew
      {4, 1, false, 0},       // bytes fell, count grew
  };
  std::string kept, bad;
  for (const Row &r : rows) {
    SCOPED_TRACE(testing::Message() << r.count << " items, titles of " << r.titleLength);
    shape(r.count, r.titleLength);
    long size = rf->size;
    int count = rf->count;
    if (r.shrinkOnce) rf->shrinkOnce = true;
    int rc = 0;
    std::string log = captured(&rc, writedbfile);
    EXPECT_EQ(rc, r.rc);
    if (rc == 0) {
      EXPECT_FALSE(rf->shrinkOnce);  // used up by the write itself
      ASSERT_EQ(tmprelink(rf), 0);
      kept = readFile(path);
      EXPECT_EQ(rf->size, long(kept.size()));
      if (r.count == count && r.titleLength == 22) {
        EXPECT_LT(rf->size * 100 / size, 90);
      }
      EXPECT_EQ(rf->count, r.count);
      continue;
    }
    if (bad.empty()) bad = readFile(path + "BAD");
    char want[160];
    snprintf(want, sizeof want, "writedbfile fail: incomplete write - %d/%d (observed) != %d/%d (expected)\n",
             int(fileSize((path + (r.count == 15 ? "BAD" : "TMP")).c_str())), r.count, int(size), count);
    EXPECT_EQ(log, want);
    EXPECT_EQ(readFile(path), kept);  // the old file stays
    EXPECT_EQ(readFile(path + "BAD"), bad);
    EXPECT_EQ(std::count(bad.begin(), bad.end(), '\n'), 1 + 15 * 8);
    EXPECT_FALSE(rf->loaded);
    EXPECT_EQ(rf->mtime, NO_TIME);
  }
}

TEST_F(RecordRewrite, WriteFailuresReportDiscardAndRemoveTheScratchFile) {
  shape(3, 5);
  ASSERT_EQ(mkdir((path + "TMP").c_str(), 0700), 0);
  int rc = 0;
  EXPECT_EQ(captured(&rc, writedbfile), "quorvel: database write open failed:errno=21\n");
  EXPECT_EQ(rc, EISDIR);
  EXPECT_TRUE(evlistEmpty(&rf->list));
  EXPECT_FALSE(rf->loaded);
  rmdir((path + "TMP").c_str());

  shape(3, 5);
  ASSERT_EQ(symlink("/dev/full", (path + "TMP").c_str()), 0);
  EXPECT_EQ(captured(&rc, writedbfile), "quorvel: database write failed--errno=28\n");
  EXPECT_EQ(rc, ENOSPC);
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_TRUE(evlistEmpty(&rf->list));
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
    setRecordDebug(0);
  }
};

TEST_F(RecordCacheTest, ReadsAgainWhenFileOrStampMovedButKeepsDirtyFiles) {
  std::string path = dir.at("cal");
  writeFile(path, "\n#T\tone\n#W\tann\n#I\t1\n\n");
  RecordFile *rf = openRecordFile(db, path.c_str());
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->count, 1);
  EXPECT_EQ(db->dropRecords, dropRecordCache);
  EXPECT_NE(db->outsideChange, NO_TIME);
  EXPECT_NE(db->lastSeenStamp, NO_TIME);
  Item *first = rf->list.next;
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(rf->list.next, first);  // not read again
  EXPECT_EQ(recordFileOf(db, first), rf);

  writeFile(path, "\n#T\tone\n#W\tann\n#I\t1\n\n#T\ttwo\n#W\tbob\n#I\t2\n\n");
  struct timespec times[2] = {{0, UTIME_OMIT}, {rf->mtime + 10, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(rf->count, 2);

  Item *extra = evnew();
  extra->calendars = makeSet({0});
  addRecordItem(rf, extra);
  times[1].tv_sec += 10;  // a dirty file keeps its unsaved item
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), rf);
  EXPECT_EQ(evlistCount(&rf->list), 3);
  EXPECT_EQ(recordFileOf(db, extra), rf);

  db->lastSeenStamp -= 5;  // as if another process had touched the stamp: all dropped
  RecordFile *again = openRecordFile(db, path.c_str());
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(cachedFileCount(db), 1);
  EXPECT_EQ(again->count, 2);
  EXPECT_EQ(db->outsideChange, db->lastSeenStamp);
  dropFileCache(db);
  EXPECT_EQ(cachedFileCount(db), 0);
  setRecordDebug(1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(findRecordFile(db, path.c_str()), nullptr); }), "no cached file:" + path + "\n");
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
}

// Without user state (no calendars) in the current database, reads and writes give
// up and drop the database's cache.
TEST_F(RecordCacheTest, WithoutUserStateReadAndWriteDropTheCache) {
  db->inMemoryOnly = true;
  std::string path = dir.at("cal");
  writeFile(path, "\n#T\tx\n#W\tann\n\n");
  for (bool reading : {true, false}) {
    RecordFile *rf = openRecordFile(db, path.c_str());
    ASSERT_NE(rf, nullptr);
    EXPECT_EQ(rf->count, 1);
    resetNameLookup();
    rf->loaded = false;
    std::string log = stderrOf([&] {
      if (reading) EXPECT_EQ(openRecordFile(db, path.c_str()), nullptr);
      else EXPECT_EQ(writedbfile(rf), -1);
    });
    EXPECT_EQ(log.substr(0, 17), "No user state at ");
    EXPECT_NE(log.find(std::string(", aborting ") + (reading ? "read" : "write") + " of " + path + "\n"),
              std::string::npos) << log;
    EXPECT_EQ(db->records, nullptr);
    EXPECT_EQ(db->dropRecords, nullptr);
    EXPECT_FALSE(exists(path + "TMP"));
    names.install();
  }
}

}  // namespace
}  // namespace quorvel
