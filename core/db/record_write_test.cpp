// Tests of the record-line writers: name sets, item lines in order, texts cut, the item's
// database made current, list headers and line groups, and the in-memory formatter.
#include <climits>
#include <cstring>

#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {
namespace {

using RecordWrite = RecordTest;

std::string itemText(Item *item, const DateTime *defaults) {
  TextSink sink; EXPECT_EQ(writeItem(&sink, item, defaults, textLineWriter), 0);
  return sink.text;
}

TEST_F(RecordWrite, NameSetsSkipEmptyWriteAllWrapAtColumnSixtyAndStopAtNameless) {
  std::vector<std::string> four = {"ann", "bob", "carl", "dora"}, wide = {"calendar01", "calendar02", "calendar03",
      "calendar04", "calendar05", "calendar06", "calendar07", "calendar08", "calendar09", ""};
  // clear: a member taken out again (-1 none), leaving an empty set with capacity
  struct Row { std::vector<std::string> *table; std::initializer_list<int> members; int clear; std::string text; int rc; } rows[] = {
      {&four, {5}, 5, "", 0},
      {&four, {0, 1, 2, 3}, -1, "#W\t__ALL__\n", 0},
      {&four, {1, 3}, -1, "#W\tbob,dora\n", 0},
      {&wide, {0, 1, 2, 3, 4, 5}, -1, "#W\tcalendar01,calendar02,calendar03,calendar04,calendar05,\\\n\tcalendar06\n", 0},
      {&wide, {1, 9, 20}, -1, "#W\tcalendar02", -1},  // member 9 has an empty name
  };
  for (const Row &r : rows) {
    CalSet set = makeSet(r.members);
    if (r.clear >= 0) setbit(&set, r.clear, 0);
    TextSink sink; installNames(*r.table);
    EXPECT_EQ(writeNameSet(&sink, 'W', set, textLineWriter), r.rc) << r.text; EXPECT_EQ(sink.text, r.text);
    freebits(&set);
  }
}

TEST_F(RecordWrite, ItemWritesEveryLineInItsOrder) {
  Item *item = makeFullItem(4242);
  DateTime defaults{1699990000, 2, 3};
  EXPECT_EQ(itemText(item, &defaults),
            "#T\tPlanning, all day\n#B\t0x6553f100\n#F\t0x6553ff10\n#j\tremote\n"
            "#W\tann,bob\n#Y\tbob\n#N\tcarl\n#X\tdora\n#O\tbob\n#R\t__ALL__\n#C\tcarl,dora\n"
            "#U\t7\n#P\tCheck in 0xdeadbeef\n#S\tann\n#r\tbob,dora\n"
            "#A\t15,5\n#E\tLeave now\n#V\tcarl\n#A\t60,0\n#Z\tdora\n#Q\t0x65540d20\n"
            "#K\troom:ann,carl\n#I\t4242\n#H\t12\n#d\t34\n#f\t56\n#s\t-78\n#e\t90\n#L\t3\n\n");
  evfree(item);
}

// Kind letters, owner lines, texts cut in place and the lines a new item leaves out.
TEST_F(RecordWrite, ItemLinesFollowKindOwnerAndTextRules) {
  const std::string noTimes = "#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n";
  struct Row { uint16_t kind; const char *title, *dbName; int32_t owner, id; std::string text; const char *cut; } rows[] = {
      {KIND_EVENT, "", nullptr, -1, 5, "#T\t\n" + noTimes + "#I\t5\n#H\t0\n#s\t0\n\n", ""},
      {KIND_TODO, "Lunch\nwith Ann", "", OWNER_ALL, -1, "#D\tLunch\n" + noTimes + "#O\t__ALL__\n#H\t0\n#s\t0\n\n", "Lunch"},
      {KIND_REMINDER, "Carriage\rreturn", "\nx", 2, -1, "#M\tCarriage\n" + noTimes + "#O\tcarl\n#H\t0\n#s\t0\n\n", "Carriage"},
      {9, "ends in \\\\", nullptr, -1, -1, "#?\tends in \n" + noTimes + "#H\t0\n#s\t0\n\n", "ends in "},
  };
  for (const Row &r : rows) {
    Item *item = evnew();
    item->dWord = r.kind, item->owner = r.owner, item->randomId = r.id, evsetTitle(item, r.title);
    if (r.dbName != nullptr) evsetDbName(item, r.dbName);
    EXPECT_EQ(itemText(item, nullptr), r.text); EXPECT_STREQ(item->title, r.cut); evfree(item);
  }
}

DbHandle *seenCurrent = nullptr;  // the current database when the writer asked for a name

TEST_F(RecordWrite, ItemsDatabaseIsCurrentWhileItIsWritten) {
  DbHandle *home = newDbHandle("db/database", "home", DB_KIND_LOCAL), *remote = newDbHandle("db/remote", "remote", DB_KIND_LOCAL);
  setCurrentDb(home);
  NameLookup spy{nullptr, [](void *) { return 3; },
                 [](void *, int i) { return seenCurrent = currentDb(), i == 0 ? "ann" : nullptr; }, nullptr};
  setNameLookup(&spy); Item *item = evnew();
  item->calendars = makeSet({0}), evsetDbName(item, "remote");
  EXPECT_NE(itemText(item, nullptr).find("#J\tremote\n#W\tann\n"), std::string::npos); EXPECT_EQ(seenCurrent, remote);
  EXPECT_EQ(currentDb(), home);
  itemText((evsetDbName(item, "elsewhere"), item), nullptr);  // not open: the current database stays
  EXPECT_EQ(seenCurrent, home); evfree(item);
}

TEST_F(RecordWrite, ListHeaderAndLineGroups) {
  Item head; evlistInit(&head), head.owner = OWNER_ALL, head.timeValue = {{1, 2, 3}, {4, 5, 6}};
  head.calendars = makeSet({0}), head.setX = makeSet({3}), head.setR = makeSet({1}), head.setY = makeSet({2});
  evsetDbName(&head, "missing");  // no such database open: no J line
  TextSink sink; EXPECT_EQ(writeListHeader(&sink, &head, textLineWriter), 0);
  EXPECT_EQ(sink.text, "\n#O\t__ALL__\n#B\t0x1 @0x2 %0x3\n#F\t0x4 @0x5 %0x6\n#W\tann\n#R\tbob\n#Y\tcarl\n#X\tdora\n");
  newDbHandle("db/missing", "missing", DB_KIND_LOCAL);
  head.timeValue.end.time = NO_TIME, head.owner = -1, sink.text.clear();  // half a range: none written
  writeListHeader(&sink, &head, textLineWriter);
  writeRangeGroup(&sink, {{16, 1, 0}, {32, 0, 1}}, textLineWriter);
  writeNumberGroup(&sink, -12, textLineWriter);
  EXPECT_EQ(sink.text, "\n#J\tmissing\n#W\tann\n#R\tbob\n#Y\tcarl\n#X\tdora\n"
                       "#B\t0x10 @0x1 %0x0\n#F\t0x20 @0x0 %0x1\n\n#n\t-12\n\n");
  freeListHead(&head);
}

// Handing on to a file, and a failing file, are shown by the rewrite and crash tests.
TEST(TextLineWriter, FormatsLikePrintf) {
  const char *fmt = "#%c\t%ld 0x%lx %d 0x%x %s %%\n";
  for (long v : {0L, -1L, LONG_MIN, LONG_MAX, long(INT_MIN), long(INT_MAX)}) {
    char want[128]; snprintf(want, sizeof want, fmt, 'q', v, (unsigned long)v, int(v), unsigned(v), "txt");
    TextSink sink;
    EXPECT_EQ(textLineWriter(&sink, fmt, 'q', v, (unsigned long)v, int(v), unsigned(v), "txt"), int(strlen(want)));
    EXPECT_EQ(sink.text, want);
  }
  TextSink sink;
  EXPECT_EQ(textLineWriter(&sink, "%5d|%-3s|", 42, "a"), 10);  // other formats via vsnprintf
  EXPECT_EQ(sink.text, "   42|a  |");
}

}  // namespace
}  // namespace quorvel
