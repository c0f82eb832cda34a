// Tests of the record-line writers: name sets, every item line in its order, the
// defaults rule, text cutting, list headers and the small line groups.
#include <climits>
#include <cstdio>
#include <gtest/gtest.h>

#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {
namespace {

class RecordWrite : public ::testing::Test {
 protected:
  TestNames names{{"ann", "bob", "carl", "dora"}};
  void SetUp() override {
    resetDbTestState();
    names.install();
  }
  void TearDown() override {
    resetNameLookup();
    resetDbContexts();
  }
};

std::string setLine(char tag, const uint16_t *set, int *rc = nullptr) {
  TextSink sink;
  int r = writeNameSet(&sink, tag, set, textLineWriter);
  if (rc != nullptr) *rc = r;
  return sink.text;
}

std::string itemText(Item *item, const DateTime *defaults, int *rc = nullptr) {
  TextSink sink;
  int r = writeItem(&sink, item, defaults, textLineWriter);
  if (rc != nullptr) *rc = r;
  return sink.text;
}

TEST_F(RecordWrite, NameSetsWriteNothingWhenEmptyAndAllWhenFull) {
  CalSet none = nullptr, cleared = makeSet({5}), all = makeSet({0, 1, 2, 3}), some = makeSet({1, 3});
  setbit(&cleared, 5, 0);
  EXPECT_EQ(setLine('W', none), "");
  EXPECT_EQ(setLine('W', cleared), "");  // capacity but no members
  EXPECT_EQ(setLine('R', all), "#R\t__ALL__\n");
  EXPECT_EQ(setLine('Y', some), "#Y\tbob,dora\n");
  for (CalSet *s : {&cleared, &all, &some}) freebits(s);
}

TEST_F(RecordWrite, NameSetsWrapAfterColumnSixtyAndFailOnNamelessMembers) {
  TestNames wide{{"calendar01", "calendar02", "calendar03", "calendar04", "calendar05",
                  "calendar06", "calendar07", "calendar08", "calendar09", ""}};
  wide.install();
  CalSet six = makeSet({0, 1, 2, 3, 4, 5});
  EXPECT_EQ(setLine('W', six),
            "#W\tcalendar01,calendar02,calendar03,calendar04,calendar05,\\\n\tcalendar06\n");
  CalSet nine = makeSet({0, 1, 2, 3, 4, 5, 6, 7, 8});  // 9 of 10: not every calendar
  EXPECT_EQ(setLine('W', nine),
            "#W\tcalendar01,calendar02,calendar03,calendar04,calendar05,\\\n"
            "\tcalendar06,calendar07,calendar08,calendar09\n");
  CalSet nameless = makeSet({1, 9, 20});
  int rc = 0;
  EXPECT_EQ(setLine('N', nameless, &rc), "#N\tcalendar02");
  EXPECT_EQ(rc, -1);
  for (CalSet *s : {&six, &nine, &nameless}) freebits(s);
  names.install();
}

TEST_F(RecordWrite, ItemWritesEveryLineInItsOrder) {
  Item *item = makeFullItem(4242);
  DateTime defaults{1699990000, 2, 3};
  int rc = 1;
  EXPECT_EQ(itemText(item, &defaults, &rc),
            "#T\tPlanning, all day\n#B\t0x6553f100\n#F\t0x6553ff10\n#j\tremote\n"
            "#W\tann,bob\n#Y\tbob\n#N\tcarl\n#X\tdora\n#O\tbob\n#R\t__ALL__\n#C\tcarl,dora\n"
            "#U\t7\n#P\tCheck in 0xdeadbeef\n#S\tann\n#r\tbob,dora\n"
            "#A\t15,5\n#E\tLeave now\n#V\tcarl\n#A\t60,0\n#Z\tdora\n#Q\t0x65540d20\n"
            "#K\troom:ann,carl\n#I\t4242\n#H\t12\n#d\t34\n#f\t56\n#s\t-78\n#e\t90\n#L\t3\n\n");
  EXPECT_EQ(rc, 0);
  evfree(item);
}

TEST_F(RecordWrite, NewItemWritesOnlyItsSetFields) {
  Item *item = evnew();
  item->randomId = 5;
  EXPECT_EQ(itemText(item, nullptr),
            "#T\t\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n#I\t5\n#H\t0\n#s\t0\n\n");
  item->randomId = -1;
  item->hNumber = item->gNumber = NO_TIME;
  item->dWord = 9;
  evsetDbName(item, "");
  EXPECT_EQ(itemText(item, nullptr), "#?\t\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n\n");
  evfree(item);
}

TEST_F(RecordWrite, QualifiersFollowTheDefaultsRule) {
  Item *item = evnew();
  item->dWord = KIND_REMINDER;
  DateTime defaults{0, 2, 3};
  item->timeValue = {{16, 4, 3}, {32, 4, 5}};
  std::string text = itemText(item, &defaults);
  EXPECT_NE(text.find("#B\t0x10 @0x4\n#F\t0x20 @0x4 %0x5\n"), std::string::npos) << text;
  item->timeValue = {{16, 2, 7}, {32, 4, 5}};  // q2 only considered when q1 was written
  text = itemText(item, &defaults);
  EXPECT_NE(text.find("#B\t0x10\n#F\t0x20 @0x4 %0x5\n"), std::string::npos) << text;
  text = itemText(item, nullptr);
  EXPECT_NE(text.find("#M\t\n#B\t0x10 @0x2 %0x7\n"), std::string::npos) << text;
  evfree(item);
}

TEST_F(RecordWrite, TextsAreCutInPlaceAtLineEndsAndTrailingBackslash) {
  Item *item = evnew();
  item->dWord = KIND_TODO;
  evsetTitle(item, "Lunch\nwith Ann");
  EXPECT_EQ(itemText(item, nullptr).substr(0, 9), "#D\tLunch\n");
  EXPECT_STREQ(item->title, "Lunch");
  evsetTitle(item, "Carriage\rreturn");
  itemText(item, nullptr);
  EXPECT_STREQ(item->title, "Carriage");
  evsetTitle(item, "ends in \\");
  EXPECT_EQ(itemText(item, nullptr).substr(0, 12), "#D\tends in \n");
  evfree(item);
}

TEST_F(RecordWrite, OwnerLineShowsAllNameOrNothing) {
  Item *item = evnew();
  item->owner = OWNER_ALL;
  EXPECT_NE(itemText(item, nullptr).find("#O\t__ALL__\n"), std::string::npos);
  item->owner = 2;
  EXPECT_NE(itemText(item, nullptr).find("#O\tcarl\n"), std::string::npos);
  item->owner = -1;
  EXPECT_EQ(itemText(item, nullptr).find("#O"), std::string::npos);
  evfree(item);
}

// The lookup reports which database was current when the writer asked for a name.
DbHandle *seenCurrent = nullptr;
const char *nameSeeingCurrent(void *, int i) {
  seenCurrent = currentDb();
  return i == 0 ? "ann" : nullptr;
}
int oneName(void *) { return 3; }

TEST_F(RecordWrite, ItemsDatabaseIsCurrentWhileItIsWritten) {
  DbHandle *home = newDbHandle("db/database", "home", DB_KIND_LOCAL);
  DbHandle *remote = newDbHandle("db/remote", "remote", DB_KIND_LOCAL);
  setCurrentDb(home);
  NameLookup spy{nullptr, oneName, nameSeeingCurrent, nullptr};
  setNameLookup(&spy);
  Item *item = evnew();
  item->calendars = makeSet({0});
  evsetDbName(item, "remote");
  std::string text = itemText(item, nullptr);
  EXPECT_NE(text.find("#J\tremote\n#W\tann\n"), std::string::npos) << text;
  EXPECT_EQ(seenCurrent, remote);
  EXPECT_EQ(currentDb(), home);
  evsetDbName(item, "elsewhere");  // not open: the current database stays
  itemText(item, nullptr);
  EXPECT_EQ(seenCurrent, home);
  evfree(item);
}

TEST_F(RecordWrite, ListHeaderAndLineGroups) {
  Item head;
  evlistInit(&head);
  head.owner = OWNER_ALL;
  head.timeValue = {{1, 2, 3}, {4, 5, 6}};
  head.calendars = makeSet({0});
  head.setX = makeSet({3});
  head.setR = makeSet({1});
  evsetDbName(&head, "missing");  // no such database open: no J line
  TextSink sink;
  EXPECT_EQ(writeListHeader(&sink, &head, textLineWriter), 0);
  EXPECT_EQ(sink.text,
            "\n#O\t__ALL__\n#B\t0x1 @0x2 %0x3\n#F\t0x4 @0x5 %0x6\n#W\tann\n#R\tbob\n#X\tdora\n");
  newDbHandle("db/missing", "missing", DB_KIND_LOCAL);
  head.timeValue.end.time = NO_TIME;  // half a range writes no range
  head.owner = -1;
  sink.text.clear();
  writeListHeader(&sink, &head, textLineWriter);
  EXPECT_EQ(sink.text, "\n#J\tmissing\n#W\tann\n#R\tbob\n#X\tdora\n");
  sink.text.clear();
  writeRangeGroup(&sink, {{16, 1, 0}, {32, 0, 1}}, textLineWriter);
  writeNumberGroup(&sink, -12, textLineWriter);
  EXPECT_EQ(sink.text, "#B\t0x10 @0x1 %0x0\n#F\t0x20 @0x0 %0x1\n\n#n\t-12\n\n");
  freeListHead(&head);
}

TEST(TextLineWriter, FormatsLikePrintf) {
  const long longs[] = {0, 1, -1, 42, LONG_MIN, LONG_MAX, INT_MIN, INT_MAX};
  for (long v : longs) {
    TextSink sink;
    char want[128];
    snprintf(want, sizeof want, "#%c\t%ld 0x%lx %d 0x%x %s %%\n", 'q', v, (unsigned long)v, int(v),
             unsigned(v), "txt");
    textLineWriter(&sink, "#%c\t%ld 0x%lx %d 0x%x %s %%\n", 'q', v, (unsigned long)v, int(v),
                   unsigned(v), "txt");
    EXPECT_EQ(sink.text, want);
  }
  TextSink sink;
  EXPECT_EQ(textLineWriter(&sink, "%5d|%-3s|", 42, "a"), 10);  // other formats via vsnprintf
  EXPECT_EQ(sink.text, "   42|a  |");
}

TEST(TextLineWriter, HandsTextToItsFileAndReportsFailure) {
  TempDir dir;
  FILE *fp = fopen(dir.at("out").c_str(), "w");
  TextSink sink;
  sink.file = fp;
  sink.flushAt = 8;
  textLineWriter(&sink, "%s", "0123456789");
  EXPECT_TRUE(sink.text.empty());
  textLineWriter(&sink, "%s", "ab");
  EXPECT_EQ(flushTextSink(&sink), 0);
  fclose(fp);
  EXPECT_EQ(readFile(dir.at("out")), "0123456789ab");
  FILE *full = fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  setvbuf(full, nullptr, _IONBF, 0);
  TextSink failing;
  failing.file = full;
  failing.flushAt = 0;
  EXPECT_EQ(textLineWriter(&failing, "%s", "x"), -1);
  EXPECT_EQ(failing.error, ENOSPC);
  fclose(full);
}

}  // namespace
}  // namespace quorvel

namespace quorvel {
namespace {

// The writer builds date-time lines itself; they must be formatDateTime's text.
TEST(RecordDateTimeLines, MatchFormatDateTimeWithAndWithoutDefaults) {
  const int32_t times[] = {0, 1, 0x7fffffff, NO_TIME, -1, 1700000000};
  const uint16_t quals[] = {0, 1, 0xabc, 0xffff};
  const DateTime defaults[] = {{0, 0, 0}, {5, 1, 0xffff}, {9, 0xabc, 1}};
  for (int32_t t : times)
    for (uint16_t q1 : quals)
      for (uint16_t q2 : quals) {
        DateTime dt{t, q1, q2};
        for (int d = -1; d < 3; d++) {
          const DateTime *def = d < 0 ? nullptr : &defaults[d];
          char want[DATETIME_TEXT];
          ASSERT_GT(formatDateTime(want, sizeof want, dt, def), 0);
          TextSink sink;
          writeRangeGroup(&sink, {dt, dt}, textLineWriter);  // range lines: no defaults
          if (def == nullptr) {
            EXPECT_EQ(sink.text.substr(0, sink.text.find('\n')), std::string("#B\t") + want);
          }
          Item *item = evnew();
          item->timeValue = {dt, dt};
          sink.text.clear();
          writeItem(&sink, item, def, textLineWriter);
          size_t b = sink.text.find("#B\t");
          EXPECT_EQ(sink.text.substr(b, sink.text.find('\n', b) - b), std::string("#B\t") + want);
          evfree(item);
        }
      }
}

}  // namespace
}  // namespace quorvel
