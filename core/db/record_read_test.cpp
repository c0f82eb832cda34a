// Tests of reading record files: the byte-identical round trip, the lines a reader must
// accept, copies chained and duplicates dropped, invalid items, fresh ids, and the saved
// copy put back after an interrupted rewrite.
#include <algorithm>
#include <climits>
#include <map>

#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {
namespace {

struct RecordRead : RecordTest {  // ten names
  void SetUp() override { RecordTest::SetUp(), installNames({"ann", "bob", "carl", "dora", "calendar05", "calendar06", "calendar07", "calendar08", "calendar09", "calendar10"}); }
};

// Written as the database does: into an empty file first, then rewritten and read back.
TEST_F(RecordRead, WriteReadWriteIsByteIdentical) {
  auto writeOut = [](RecordFile *f) { return writeFile(f->path, ""), writedbfile(f) != 0 ? -1 : tmprelink(f); };
  rf->list.owner = 2, rf->list.timeValue = {{50, 2, 3}, {90, 2, 4}};
  rf->list.calendars = makeSet({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), rf->list.setN = makeSet({1, 2, 3, 4, 5, 6, 7, 8, 9});
  Item *full = makeFullItem(100), *copy = evcopy(full);
  copy->owner = -1, copy->dbFlag = 0, evsetDbName(copy, "other");
  chainAppend(full, copy), addRecordItem(rf, full);
  for (int n : {9, 10}) {  // the second names every calendar
    Item *it = evnew();
    it->randomId = 100 + n, it->timeValue = {{100, 2, 3}, {200, 7, 3}}, evsetTitle(it, "wide"), addRecordItem(rf, it);
    for (int i = 0; i < n; i++) setbit(&it->calendars, i, 1);
  }
  ASSERT_EQ(writeOut(rf), 0); const std::string first = readFile(path);
  EXPECT_NE(first.find("calendar08,\\\n\tcalendar09"), std::string::npos);
  EXPECT_NE(first.find("#B\t0x64\n#F\t0xc8 @0x7\n"), std::string::npos);  // defaults at work
  EXPECT_EQ(reread(path)->count, 3); EXPECT_EQ(chainLength(rf->list.next), 1);
  EXPECT_EQ(rf->size, long(first.size())); EXPECT_NE(rf->mtime, NO_TIME);
  rf->path = dir.at("again"), rf->dirty = true;
  ASSERT_EQ(writeOut(rf), 0); EXPECT_EQ(readFile(dir.at("again")), first);
}

// Each input is read and written again; what comes out shows what was read.
TEST_F(RecordRead, AcceptsEveryFormOfLineAWriterOrEditorLeaves) {
  const std::string head = "\n#O\t__ALL__\n#B\t0x10 @0x2 %0x3\n#F\t0x20 @0x2 %0x3\n";
  const std::string noTimes = "#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n";
  struct Row { std::string in, out; } rows[] = {
      // CR LF, continued name sets, omitted qualifiers from the header's defaults.
      {"\r\n#O\t__ALL__\r\n#B\t0x10 @0x2 %0x3\n#F\t0x20 @0x2 %0x3\n#T\tStand-up\r\n#B\t0x30\n#F\t0x40 @0x5\n"
       "#W\tann,\\\n\tbob,\\\n\tcarl\n#I\t1\n\n",
       head + "#T\tStand-up\n#B\t0x30\n#F\t0x40 @0x5\n#W\tann,bob,carl\n#I\t1\n\n"},
      // Unknown tags, the G line and lines without "#" are skipped; a Z line of an
      // unknown name is kept but not written; absent numbers stay unset; hexadecimal
      // digits in either case.
      {head + "#T\tx\n#B\t0X1F @0xA\n#G\tignored\n#x\tunknown\nnot a record line\n#W\tann\n#Z\tnobody\n#Q\t0x60\n"
              "#Z\tdora\n#Q\t0x50 @0x6 %0x7\n#I\t2\n#d\t-5\n\n",
       head + "#T\tx\n#B\t0x1f @0xa\n#F\t0x80000000 @0x0 %0x0\n#W\tann\n#Z\tdora\n#Q\t0x50 @0x6 %0x7\n#I\t2\n#d\t-5\n\n"},
      // A kind line without an empty line before it starts the next item; a
      // malformed item time is the initial value; decimal numbers in other forms.
      {head + "#T\ta\n#W\tann\n#B\tjunk\n#I\t3\n#H\t0x1f\n#D\tb\n#W\tbob\n#I\t4\n#f\t99999999999\n\n",
       head + "#T\ta\n" + noTimes + "#W\tann\n#I\t3\n#H\t31\n\n#D\tb\n" + noTimes + "#W\tbob\n#I\t4\n#f\t2147483647\n\n"},
      // A G line at its place between the popup and the alarm lines is dropped; the
      // popup's sets before it and the alarm lines after it stay with the item.
      {head + "#T\tg\n" + noTimes + "#W\tann\n#P\tnote 0x1\n#S\tbob\n#r\tcarl\n#G\tolder text, kept by no one\n"
              "#A\t15,5\n#E\tsoon\n#V\tdora\n#I\t5\n\n",
       head + "#T\tg\n" + noTimes + "#W\tann\n#P\tnote 0x1\n#S\tbob\n#r\tcarl\n#A\t15,5\n#E\tsoon\n#V\tdora\n#I\t5\n\n"},
  };
  for (const Row &r : rows) {
    writeFile(dir.at("in"), r.in); std::string out;
    EXPECT_EQ(writeList(&out, &reread(dir.at("in"))->list), 0); EXPECT_EQ(out, r.out) << r.in;
  }
}

// A list longer than its 16-bit count can hold comes only from a damaged file: the
// extra entries go, with one report, and the process and the rest of the item stay.
TEST_F(RecordRead, ListsPastTheirCountKeepTheFirstEntriesAndTheItem) {
  for (const char *entry : {"#A\t15,5\n#V\tann\n", "#P\tnote 0x1\n", "#Z\tbob\n", "#K\tl:ann\n"}) {
    std::string text = "\n#T\tbig\n#W\tann\n";
    for (int i = 0; i <= ITEM_LIST_MAX; i++) text += entry;
    writeFile(path, text + "#I\t9\n\n");
    testing::internal::CaptureStderr();
    const Item *it = reread(path)->list.next;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "parseItem: more than 32767 entries in one list; the rest dropped\n") << entry;
    ASSERT_NE(it, &rf->list);
    EXPECT_EQ(it->randomId, 9);
    EXPECT_EQ(it->listBCount + it->popupCount + it->listCCount + it->listDCount, ITEM_LIST_MAX);
  }
}

TEST_F(RecordRead, CopiesChainDuplicatesAndInvalidItemsDrop) {
  writeFile(path,
            "\n#T\tMeet\n#B\t0x1 @0x0 %0x0\n#F\t0x2 @0x0 %0x0\n#J\tone\n#W\tann\n#O\tann\n#I\t7\n\n"
            "#T\tMeet\n#J\ttwo\n#W\tbob\n#I\t7\n\n"       // copy for database two
            "#T\tMeet\n#J\ttwo\n#W\tcarl\n#I\t7\n\n"      // duplicate of that copy
            "#T\tMeet\n#J\tone\n#W\tcarl\n#I\t7\n\n"      // duplicate of the item itself
            "#T\tMeet\n#J\tthree\n#I\t7\n\n"              // copy without calendars: invalid
            "#T\tMeet\n#J\tfour\n#W\tann\n#O\tbob\n#I\t7\n\n"  // both owned: a new item
            "#T\tMeet\n#J\tsix\n#W\tann\n#f\t3\n#I\t7\n\n"  // another f value: a new item
            "#T\tLone\n#I\t8\n\n"                         // no calendars: invalid
            "#T\tLone\n#J\tfive\n#W\tann\n#I\t8\n\n");    // no previous item: new
  setRecordDebug(2);
  std::string log = stderrOf([&] { reread(path); });
  EXPECT_NE(log.find("LOG: invalid cross db event 'Meet' at "), std::string::npos) << log;
  EXPECT_NE(log.find("LOG: invalid single db event 'Lone' at "), std::string::npos) << log;
  EXPECT_NE(log.find("#J\tthree\n"), std::string::npos);  // the invalid item is shown
  ASSERT_EQ(rf->count, 4); Item *first = rf->list.next;
  EXPECT_EQ(chainLength(first), 1); EXPECT_STREQ(first->chain->dbName, "two");
  EXPECT_TRUE(testbit(first->chain->calendars, 1)); EXPECT_EQ(chainLength(first->next), 0);
  EXPECT_EQ(std::string(first->next->dbName) + first->next->next->dbName + first->next->next->next->dbName, "foursixfive");
  EXPECT_EQ(recordItemsWithId(rf, 7).size(), 4u);
}

// Names on the lines after a J line (of an item, or of the list header, whose O line
// comes before it) are those of the named database, as the writer wrote them; the
// current database is the same again after the read. Each file is also written back.
TEST_F(RecordRead, NamesAfterAJLineAreThoseOfTheNamedDatabase) {
  static std::map<std::string, std::vector<std::string>> tables;
  tables = {{"main", {"ann", "bea"}}, {"other", {"xena", "yves", "zoe"}}};
  static auto names = [] { return &tables[currentDb() != nullptr ? currentDb()->name : ""]; };
  static const NameLookup perDb{nullptr, [](void *) { return int(names()->size()); },
      [](void *, int i) { return i >= 0 && size_t(i) < names()->size() ? (*names())[size_t(i)].c_str() : nullptr; },
      [](void *, const char *n) { auto &t = *names(); long at = std::find(t.begin(), t.end(), n) - t.begin();
                                  return at < long(t.size()) ? int(at) : -1; }};
  DbHandle *home = newDbHandle(dir.path.c_str(), "main", DB_KIND_LOCAL);
  newDbHandle(dir.at("o").c_str(), "other", DB_KIND_LOCAL), setMainDb(home), setCurrentDb(home), setNameLookup(&perDb);
  const std::string noTimes = "#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n";
  const std::string items = "#T\tMeet\n" + noTimes + "#W\tann\n#I\t7\n\n#T\tMeet\n" + noTimes +
      "#J\tother\n#W\tyves\n#I\t7\n\n#T\tOwn\n" + noTimes + "#j\tother\n#W\txena,yves\n#O\tyves\n#I\t8\n\n";
  writeFile(path, "\n" + items);
  ASSERT_EQ(reread(path)->count, 2); Item *meet = rf->list.next, *own = meet->next;
  ASSERT_EQ(chainLength(meet), 1); EXPECT_TRUE(testbit(meet->calendars, 0));
  EXPECT_EQ(setMembers(meet->chain->calendars), 1); EXPECT_TRUE(testbit(meet->chain->calendars, 1));
  EXPECT_EQ(setMembers(own->calendars), 2); EXPECT_EQ(own->owner, 1); EXPECT_EQ(currentDb(), home);
  std::string out;
  EXPECT_EQ(writeList(&out, &rf->list), 0); EXPECT_EQ(out, "\n" + items);
  const std::string listed = "\n#O\txena\n#J\tother\n#W\tyves\n#T\tz\n" + noTimes + "#W\txena\n#O\tyves\n#I\t3\n\n";
  writeFile(path, listed), reread(path);
  EXPECT_EQ(rf->list.owner, 0); EXPECT_TRUE(testbit(rf->list.calendars, 1)); EXPECT_EQ(rf->count, 1);
  EXPECT_EQ(currentDb(), home); out.clear();
  EXPECT_EQ(writeList(&out, &rf->list), 0); EXPECT_EQ(out, listed);
}

TEST_F(RecordRead, MissingAndUnsafeIdsAreDrawnAfresh) {
  writeFile(path, "\n#T\tno id\n#W\tann\n\n#T\tnegative\n#W\tann\n#I\t-4\n\n"
                           "#T\thigh\n#W\tann\n#I\t2147482648\n\n#T\tjust safe\n#W\tann\n#I\t2147478647\n\n");
  ASSERT_EQ(reread(path)->count, 4); Item *it = rf->list.next;
  for (int i = 0; i < 3; i++, it = it->next) EXPECT_TRUE(it->randomId >= 0 && it->randomId <= INT32_MAX - 5000) << it->title;
  EXPECT_EQ(it->randomId, INT32_MAX - 5000);
}

TEST_F(RecordRead, SavedCopyIsLinkedBackWhenTheFileIsMissing) {
  writeFile(path + "sav", "\n#T\tKept\n#W\tann\n#I\t3\n\n");
  ASSERT_EQ(reread(path)->count, 1); EXPECT_EQ(readFile(path), readFile(path + "sav"));
  EXPECT_TRUE(exists(path + "sav"));  // a writer between its renames still has its copy
  rf->dirty = true;
  ASSERT_EQ(writedbfile(rf), 0); EXPECT_EQ(tmprelink(rf), 0);  // and the next rewrite works again
  EXPECT_FALSE(exists(path + "sav"));
  reread(dir.at("absent"));  // neither file: empty
  EXPECT_TRUE(rf->loaded && evlistEmpty(&rf->list)); EXPECT_FALSE(exists(dir.at("absent")));
}

}  // namespace
}  // namespace quorvel
