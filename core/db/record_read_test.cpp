// Tests of reading record files: the byte-identical round trip, continued lines,
// defaults, copies chained and duplicates dropped, invalid items, fresh ids, the
// saved copy put back after an interrupted rewrite, and the missing user state.
#include <climits>
#include <cstdio>
#include <gtest/gtest.h>

#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/record.h"
#include "core/db/record_test_util.h"
#include "core/db/recordfile.h"

namespace quorvel {
namespace {

class RecordRead : public ::testing::Test {
 protected:
  TestNames names{{"ann", "bob", "carl", "dora", "calendar05", "calendar06", "calendar07",
                   "calendar08", "calendar09", "calendar10"}};
  TempDir dir;
  void SetUp() override {
    resetDbTestState();
    names.install();
  }
  void TearDown() override {
    resetNameLookup();
    resetDbContexts();
    setRecordDebug(0);
  }
  RecordFile *readBack(const std::string &path) {
    RecordFile *rf = newRecordFile(path.c_str(), nullptr);
    readRecordFile(nullptr, rf);
    return rf;
  }
};

// Writes rf to its path the way the database does: an empty file first, then the
// rewrite.
int writeOut(RecordFile *rf) {
  if (!exists(rf->path)) writeFile(rf->path, "");
  int rc = writedbfile(rf);
  return rc != 0 ? rc : tmprelink(rf);
}

Item *plainItem(int32_t id, const char *title, std::initializer_list<int> members) {
  Item *it = evnew();
  evsetTitle(it, title);
  it->randomId = id;
  it->calendars = makeSet(members);
  it->timeValue = {{100, 2, 3}, {200, 7, 3}};
  return it;
}

TEST_F(RecordRead, WriteReadWriteIsByteIdentical) {
  RecordFile *rf = newRecordFile(dir.at("cal").c_str(), nullptr);
  rf->list.owner = 2;
  rf->list.timeValue = {{50, 2, 3}, {90, 2, 4}};
  rf->list.calendars = makeSet({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  rf->list.setN = makeSet({1, 2, 3, 4, 5, 6, 7, 8, 9});
  Item *full = makeFullItem(100);
  Item *copy = evcopy(full);
  copy->owner = -1;
  evsetDbName(copy, "other");
  copy->dbFlag = 0;
  chainAppend(full, copy);
  addRecordItem(rf, full);
  addRecordItem(rf, plainItem(101, "wide", {0, 1, 2, 3, 4, 5, 6, 7, 8}));
  addRecordItem(rf, plainItem(102, "everyone", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  ASSERT_EQ(writeOut(rf), 0);
  std::string first = readFile(rf->path);
  EXPECT_NE(first.find("calendar08,\\\n\tcalendar09"), std::string::npos);
  EXPECT_NE(first.find("#W\t__ALL__\n"), std::string::npos);
  EXPECT_NE(first.find("#B\t0x64\n#F\t0xc8 @0x7\n"), std::string::npos);  // defaults at work

  RecordFile *back = readBack(rf->path);
  EXPECT_EQ(back->count, 3);
  EXPECT_EQ(chainLength(back->list.next), 1);
  back->path = dir.at("again");
  back->dirty = true;
  ASSERT_EQ(writeOut(back), 0);
  EXPECT_EQ(readFile(back->path), first);
  std::string inMemory;
  EXPECT_EQ(writeList(&inMemory, &back->list), 0);
  EXPECT_EQ(inMemory, first);
  freeRecordFile(rf);
  freeRecordFile(back);
}

TEST_F(RecordRead, ParsesContinuationsDefaultsAndEveryField) {
  writeFile(dir.at("cal"),
            "\r\n#O\t__ALL__\n#B\t0x10 @0x2 %0x3\n#F\t0x20 @0x2 %0x3\n#W\tann\n"
            "#T\tStand-up\r\n#B\t0x30\n#F\t0x40 @0x5\n#W\tann,\\\n\tbob,\\\n\tcarl\n"
            "#G\tignored\n#x\tunknown tag\nnot a record line\n#O\tcarl\n"
            "#Z\tdora\n#Q\t0x50 @0x6 %0x7\n#Z\tnobody\n#Q\t0x60\n"
            "#K\tteam:bob,dora\n#A\t5,10\n#V\tbob\n#P\tA b c 0x10\n#r\t__ALL__\n"
            "#I\t77\n#d\t-5\n#L\t2\n\n");
  RecordFile *rf = readBack(dir.at("cal"));
  ASSERT_EQ(rf->count, 1);
  EXPECT_EQ(rf->list.owner, OWNER_ALL);
  Item *it = rf->list.next;
  EXPECT_STREQ(it->title, "Stand-up");
  EXPECT_EQ(it->dWord, KIND_EVENT);
  EXPECT_TRUE(sameDateTime(it->timeValue.start, {0x30, 2, 3}));
  EXPECT_TRUE(sameDateTime(it->timeValue.end, {0x40, 5, 3}));
  EXPECT_EQ(setMembers(it->calendars), 3);
  EXPECT_TRUE(testbit(it->calendars, 2));
  EXPECT_EQ(it->owner, 2);
  ASSERT_EQ(it->listCCount, 2);
  EXPECT_EQ(it->listC[0].user, 3);
  EXPECT_TRUE(sameDateTime(it->listC[0].when, {0x50, 6, 7}));
  EXPECT_EQ(it->listC[1].user, -1);  // unknown name: kept, not written again
  ASSERT_EQ(it->listDCount, 1);
  EXPECT_STREQ(it->listD[0].label, "team");
  EXPECT_TRUE(testbit(it->listD[0].set, 3));
  ASSERT_EQ(it->listBCount, 1);
  EXPECT_EQ(it->listB[0].user, 1);
  EXPECT_EQ(it->listB[0].start, 5u);
  EXPECT_EQ(it->listB[0].freq, 10u);
  EXPECT_EQ(it->listB[0].string, nullptr);
  ASSERT_EQ(it->popupCount, 1);
  EXPECT_STREQ(it->popups[0].title, "A b c");
  EXPECT_EQ(it->popups[0].mask, 16);
  EXPECT_EQ(setMembers(it->popups[0].setR), 10);
  EXPECT_EQ(it->randomId, 77);
  EXPECT_EQ(it->aNumber, -5);
  EXPECT_EQ(it->hNumber, NO_TIME);  // absent number lines stay unset
  EXPECT_EQ(it->gNumber, NO_TIME);
  EXPECT_EQ(it->fNumber, NO_TIME);
  EXPECT_EQ(it->linkByte, 2);
  EXPECT_EQ(rf->size, long(readFile(dir.at("cal")).size()));
  EXPECT_NE(rf->mtime, NO_TIME);
  EXPECT_TRUE(rf->loaded);
  freeRecordFile(rf);
}

TEST_F(RecordRead, CopiesChainDuplicatesAndInvalidItemsDrop) {
  writeFile(dir.at("cal"),
            "\n#T\tMeet\n#B\t0x1 @0x0 %0x0\n#F\t0x2 @0x0 %0x0\n#J\tone\n#W\tann\n#O\tann\n#I\t7\n\n"
            "#T\tMeet\n#J\ttwo\n#W\tbob\n#I\t7\n\n"       // copy for database two
            "#T\tMeet\n#J\ttwo\n#W\tcarl\n#I\t7\n\n"      // duplicate of that copy
            "#T\tMeet\n#J\tone\n#W\tcarl\n#I\t7\n\n"      // duplicate of the item itself
            "#T\tMeet\n#J\tthree\n#I\t7\n\n"              // copy without calendars: invalid
            "#T\tMeet\n#J\tfour\n#W\tann\n#O\tbob\n#I\t7\n\n"  // both owned: a new item
            "#T\tLone\n#I\t8\n\n"                         // no calendars: invalid
            "#T\tLone\n#J\tfive\n#W\tann\n#I\t8\n\n");    // no previous item: new
  setRecordDebug(2);
  testing::internal::CaptureStderr();
  RecordFile *rf = readBack(dir.at("cal"));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("LOG: invalid cross db event 'Meet' at "), std::string::npos) << log;
  EXPECT_NE(log.find("LOG: invalid single db event 'Lone' at "), std::string::npos) << log;
  EXPECT_NE(log.find("#J\tthree\n"), std::string::npos);  // the invalid item is shown
  ASSERT_EQ(rf->count, 3);
  Item *first = rf->list.next;
  EXPECT_EQ(chainLength(first), 1);
  EXPECT_STREQ(first->chain->dbName, "two");
  EXPECT_TRUE(testbit(first->chain->calendars, 1));
  EXPECT_STREQ(first->next->dbName, "four");
  EXPECT_EQ(chainLength(first->next), 0);
  EXPECT_STREQ(first->next->next->dbName, "five");
  EXPECT_EQ(recordItemsWithId(rf, 7).size(), 3u);
  freeRecordFile(rf);
}

TEST_F(RecordRead, MissingAndUnsafeIdsAreDrawnAfresh) {
  writeFile(dir.at("cal"),
            "\n#T\tno id\n#W\tann\n\n#T\tnegative\n#W\tann\n#I\t-4\n\n"
            "#T\thigh\n#W\tann\n#I\t2147482648\n\n#T\tjust safe\n#W\tann\n#I\t2147478647\n\n");
  RecordFile *rf = readBack(dir.at("cal"));
  ASSERT_EQ(rf->count, 4);
  Item *it = rf->list.next;
  for (int i = 0; i < 3; i++, it = it->next) {
    EXPECT_GE(it->randomId, 0) << it->title;
    EXPECT_LE(it->randomId, INT32_MAX - 5000) << it->title;
    EXPECT_EQ(recordItemsWithId(rf, it->randomId).size(), 1u);
  }
  EXPECT_EQ(it->randomId, INT32_MAX - 5000);
  freeRecordFile(rf);
}

TEST_F(RecordRead, SavedCopyIsLinkedBackWhenTheFileIsMissing) {
  std::string path = dir.at("cal");
  writeFile(path + "sav", "\n#T\tKept\n#W\tann\n#I\t3\n\n");
  RecordFile *rf = readBack(path);
  ASSERT_EQ(rf->count, 1);
  EXPECT_STREQ(rf->list.next->title, "Kept");
  EXPECT_EQ(readFile(path), readFile(path + "sav"));
  EXPECT_TRUE(exists(path + "sav"));  // a writer between its renames still has its copy
  rf->dirty = true;
  ASSERT_EQ(writedbfile(rf), 0);
  EXPECT_EQ(tmprelink(rf), 0);  // and the next rewrite works again
  EXPECT_FALSE(exists(path + "sav"));
  freeRecordFile(rf);

  RecordFile *none = readBack(dir.at("absent"));  // neither file: empty, quietly
  EXPECT_TRUE(none->loaded);
  EXPECT_TRUE(evlistEmpty(&none->list));
  EXPECT_FALSE(exists(dir.at("absent")));
  freeRecordFile(none);
}

TEST_F(RecordRead, WithoutUserStateTheCacheIsDropped) {
  DbHandle *db = newDbHandle(dir.path.c_str(), "home", DB_KIND_LOCAL);
  db->inMemoryOnly = true;
  setCurrentDb(db);
  writeFile(dir.at("cal"), "\n#T\tx\n#W\tann\n\n");
  RecordFile *rf = openRecordFile(db, dir.at("cal").c_str());
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->count, 1);
  resetNameLookup();
  rf->loaded = false;
  testing::internal::CaptureStderr();
  EXPECT_EQ(openRecordFile(db, dir.at("cal").c_str()), nullptr);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("No user state at "), std::string::npos);
  EXPECT_NE(log.find(", aborting read of " + dir.at("cal") + "\n"), std::string::npos) << log;
  EXPECT_EQ(db->records, nullptr);
  EXPECT_EQ(db->dropRecords, nullptr);
}

}  // namespace
}  // namespace quorvel

namespace quorvel {
namespace {

// The reader reads its own date-time form directly; every text must still come out
// as parseDateTime reads it (a malformed one as the initial value).
TEST(RecordDateTimeValues, ReadAsParseDateTimeReadsThem) {
  const char *texts[] = {"0x10", "0x10 @0x2", "0x10 @0x2 %0x3", "0xffffffff @0xffff %0xffff",
                         "0x80000000 @0x0 %0x0", "0X10 @0x2", "0x10  @0x2", "0x10 @0x2 %0x3 ",
                         "0x1234567890", "0xffffffff80000000", "0x10 @0x10000", "0x10 %0x3",
                         "0x", "10", "0x10 @", "0x10 @0x2 %", "0xAbC @0xD %0xe", "\t0x5 @0x1",
                         "0x10 @0x2 %0x3 junk", "0x00000000010 @0x00001"};
  const DateTime defaults{7, 9, 11};
  for (const char *t : texts)
    for (const DateTime *def : {static_cast<const DateTime *>(nullptr), &defaults}) {
      DateTime want = initDateTime();
      if (parseDateTime(t, &want, def) != 0) want = initDateTime();
      std::string text = std::string("#T\tx\n#B\t") + t + "\n\n";
      LineScan scan;
      startLineScan(&scan, text.data(), text.size() - 1);
      Item *item = parseItem(&scan, def);
      ASSERT_NE(item, nullptr);
      EXPECT_TRUE(sameDateTime(item->timeValue.start, want))
          << "'" << t << "' read as " << item->timeValue.start.time << "/" << item->timeValue.start.q1
          << "/" << item->timeValue.start.q2;
      evfree(item);
    }
}

}  // namespace
}  // namespace quorvel
