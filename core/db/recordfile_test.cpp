// Tests of the rewrite on the real file system: the shrink check and its "BAD" file, write
// failures, the missing user state, and the cache with its change stamp.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/db/layout.h"
#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {
namespace {

using RecordRewrite = RecordTest;

TEST_F(RecordRewrite, ShrinkCheckRefusesOnlyWhenBothMeasuresFellBelowNinetyPercent) {
  writeFile(path, "");
  struct Row { int count; size_t titleLength; bool shrinkOnce; int rc; } rows[] = {
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
    fill(r.count, r.titleLength); long size = rf->size;
    int count = rf->count, rc = 0; rf->shrinkOnce |= r.shrinkOnce;
    std::string log = stderrOf([&] { rc = writedbfile(rf); });
    EXPECT_EQ(rc, r.rc);
    if (rc == 0) {
      EXPECT_FALSE(rf->shrinkOnce);  // used up by the write itself
      ASSERT_EQ(tmprelink(rf), 0);
      EXPECT_EQ(rf->size, long((kept = readFile(path)).size())); EXPECT_EQ(rf->count, r.count);
      if (r.count == count && r.titleLength == 22) { EXPECT_LT(rf->size * 100 / size, 90); }
      continue;
    }
    if (bad.empty()) bad = readFile(path + "BAD");
    EXPECT_EQ(log, "writedbfile fail: incomplete write - " + std::to_string(fileSize((path + (r.count == 15 ? "BAD" : "TMP")).c_str())) +
                       "/" + std::to_string(r.count) + " (observed) != " + std::to_string(size) + "/" + std::to_string(count) + " (expected)\n");
    EXPECT_EQ(readFile(path), kept);  // the old file stays
    EXPECT_EQ(readFile(path + "BAD"), bad); EXPECT_EQ(std::count(bad.begin(), bad.end(), '\n'), 1 + 15 * 8);
    EXPECT_FALSE(rf->loaded || rf->mtime != NO_TIME);
  }
}

// The sizes the check expects are those of the last good read or write: a re-read that
// cannot open the file (a loop of symbolic links stands in for EMFILE, EACCES or
// ESTALE) keeps them, and only a file that is really gone reads as empty.
TEST_F(RecordRewrite, ReReadThatCannotOpenTheFileKeepsTheExpectedSizes) {
  writeFile(path, ""), fill(20, 40); ASSERT_EQ(writedbfile(rf), 0); ASSERT_EQ(tmprelink(rf), 0);
  const std::string twenty = readFile(path), aside = dir.at("aside");
  ASSERT_EQ(reread(path)->count, 20);
  ASSERT_EQ(rename(path.c_str(), aside.c_str()), 0); ASSERT_EQ(symlink(path.c_str(), path.c_str()), 0);
  readRecordFile(nullptr, rf);
  unlink(path.c_str()), rename(aside.c_str(), path.c_str());
  EXPECT_TRUE(evlistEmpty(&rf->list)); EXPECT_EQ(rf->size, long(twenty.size())); EXPECT_EQ(rf->count, 20);
  fill(1, 40);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(writedbfile(rf), -EIO); }).substr(0, 37), "writedbfile fail: incomplete write - ");
  EXPECT_EQ(readFile(path), twenty);
  unlink(path.c_str()), readRecordFile(nullptr, rf);
  EXPECT_EQ(rf->size, 0); EXPECT_EQ(rf->count, 0); fill(1, 40); EXPECT_EQ(writedbfile(rf), 0);
}

TEST_F(RecordRewrite, WriteFailuresReportDiscardAndRemoveTheScratchFile) {
  struct Row { int (*make)(const char *); const char *log; int rc; } rows[] = {
      {[](const char *p) { return mkdir(p, 0700); }, "quorvel: database write open failed:errno=21\n", EISDIR},
      {[](const char *p) { return symlink("/dev/full", p); }, "quorvel: database write failed--errno=28\n", ENOSPC},
  };
  for (const Row &r : rows) {
    int rc = 0; fill(3, 5);
    ASSERT_EQ(r.make((path + "TMP").c_str()), 0);
    EXPECT_EQ(stderrOf([&] { rc = writedbfile(rf); }), r.log);
    EXPECT_EQ(rc, r.rc); EXPECT_TRUE(evlistEmpty(&rf->list));
    EXPECT_FALSE(rf->loaded); EXPECT_EQ(exists(path + "TMP"), r.rc == EISDIR); rmdir((path + "TMP").c_str());
  }
}

struct RecordCache : RecordTest {
  DbHandle *db = nullptr;
  void SetUp() override {
    RecordTest::SetUp(); ASSERT_EQ(mkdir(dir.at("locks").c_str(), 0700), 0);
    db = newDbHandle(dir.path.c_str(), "home", DB_KIND_LOCAL);
    db->standalone = true, setMainDb(db), setCurrentDb(db);
  }
};

TEST_F(RecordCache, ReadsAgainWhenFileOrStampMovedButKeepsDirtyFiles) {
  std::string one = "\n#T\tone\n#W\tann\n#I\t1\n\n";
  writeFile(path, one); RecordFile *f = openRecordFile(db, path.c_str());
  ASSERT_NE(f, nullptr); EXPECT_EQ(f->count, 1); EXPECT_EQ(db->dropRecords, dropRecordCache);
  EXPECT_TRUE(db->outsideChange != NO_TIME && db->lastSeenStamp != NO_TIME); Item *first = f->list.next;
  EXPECT_EQ(openRecordFile(db, path.c_str()), f); EXPECT_EQ(recordFileOf(db, first), f);
  EXPECT_EQ(f->list.next, first);  // not read again
  writeFile(path, one + "#T\ttwo\n#W\tbob\n#I\t2\n\n");
  struct timespec times[2] = {{0, UTIME_OMIT}, {f->mtime + 10, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), f); EXPECT_EQ(f->count, 2); Item *extra = evnew();
  extra->calendars = makeSet({0}), addRecordItem(f, extra);
  times[1].tv_sec += 10;  // a dirty file keeps its unsaved item
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_EQ(openRecordFile(db, path.c_str()), f); EXPECT_EQ(evlistCount(&f->list), 3);
  EXPECT_EQ(recordFileOf(db, extra), f);
  db->lastSeenStamp -= 5;  // as if another process had touched the stamp: all dropped
  RecordFile *again = openRecordFile(db, path.c_str());
  ASSERT_NE(again, nullptr); EXPECT_EQ(cachedFileCount(db), 1);
  EXPECT_EQ(again->count, 2); EXPECT_EQ(db->outsideChange, db->lastSeenStamp);
  dropFileCache(db), setRecordDebug(1); EXPECT_EQ(cachedFileCount(db), 0);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(findRecordFile(db, path.c_str()), nullptr); }), "no cached file:" + path + "\n");
}

TEST_F(RecordCache, DirtyFilesAreWrittenAndTheStampMoves) {
  RecordFile *f = openRecordFile(db, path.c_str()), *clean = openRecordFile(db, dir.at("clean").c_str());
  ASSERT_TRUE(f != nullptr && clean != nullptr); Item *it = evnew();
  it->randomId = 9, it->calendars = makeSet({1}), addRecordItem(f, it); ASSERT_EQ(writeDirtyFiles(db), 0);
  EXPECT_EQ(readFile(path), "\n#T\t\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n#W\tbob\n#I\t9\n#H\t0\n#s\t0\n\n");
  EXPECT_FALSE(exists(dir.at("clean")) || f->dirty); EXPECT_NE(db->ownWriteStamp, NO_TIME);
  EXPECT_EQ(db->lastSeenStamp, db->ownWriteStamp); EXPECT_EQ(currentDb(), db);
  EXPECT_EQ(openRecordFile(db, path.c_str()), f);  // our own write drops nothing
  EXPECT_EQ(openRecordFile(db, dir.at("clean").c_str()), clean);
}

// A writer that died between its two renames left the file only as "sav" (and its new
// contents in "TMP"): the next write of the cached file puts "sav" back first and keeps
// every item; tmprelink called on its own does the same.
TEST_F(RecordCache, WriteAfterAWriterDiedBetweenItsRenamesKeepsTheSavedItems) {
  const std::string one = "\n#T\tone\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n#W\tann\n#I\t1\n\n", sav = path + "sav", tmp = path + "TMP";
  writeFile(path, one); RecordFile *f = openRecordFile(db, path.c_str()); ASSERT_NE(f, nullptr);
  for (int round = 0; round < 2; round++) {
    ASSERT_EQ(rename(path.c_str(), sav.c_str()), 0); writeFile(tmp, "half of another writer's file");
    f->dirty = true;
    ASSERT_EQ(round == 0 ? writeDirtyFiles(db) : writedbfile(f) != 0 ? -1 : tmprelink(f), 0) << round;
    EXPECT_EQ(readFile(path), one); EXPECT_FALSE(exists(sav) || exists(tmp));
  }
}

// Without user state (no calendars) in the current database, reads and writes give
// up and drop the database's cache.
TEST_F(RecordCache, WithoutUserStateReadAndWriteDropTheCache) {
  db->inMemoryOnly = true; writeFile(path, "\n#T\tx\n#W\tann\n\n");
  for (bool reading : {true, false}) {
    RecordFile *f = openRecordFile(db, path.c_str()); ASSERT_NE(f, nullptr); EXPECT_EQ(f->count, 1);
    resetNameLookup(), f->loaded = false; int rc = 0;
    std::string log = stderrOf([&] { rc = reading ? openRecordFile(db, path.c_str()) != nullptr : writedbfile(f); });
    EXPECT_EQ(rc, reading ? 0 : -1); EXPECT_EQ(log.substr(0, 17), "No user state at ");
    EXPECT_NE(log.find(std::string(", aborting ") + (reading ? "read" : "write") + " of " + path + "\n"), std::string::npos) << log;
    EXPECT_TRUE(db->records == nullptr && db->dropRecords == nullptr); EXPECT_FALSE(exists(path + "TMP"));
    installNames();
  }
}

}  // namespace
}  // namespace quorvel
