// Tests of the users-file read from real files into a context's list and name table.
#include "core/people/people_test_util.h"
#include "core/db/recordfile.h"
#include "core/items/item.h"
#include <pwd.h>
#include <unistd.h>
#include <span>
using namespace quorvel;

static std::string me() { return getpwuid(getuid()) ? getpwuid(getuid())->pw_name : ""; }

TEST_F(PeopleTest, ReadsTrimmedQuotedAndPlusFieldsAndCutsAllButPlainNames) {
  std::string n200(200, 'n'), l200(200, 'l'), cut(127, 'l');
  readMain("# users of the test database\n\n  anna ,\tak , anna@x.org\t, Anna Karl \n"
           "\"Smith, J\",js\n+  plus , pl\nbare\n,nobody-without-a-name\nfive,a,b,c,d,e\n+" +
               n200 + "," + l200 + "," + l200 + "," + l200 + "\n" + n200 + "x,b\n" +
               std::string(1030, 'a') + ",y\nlast,lost",
           1000000);
  EXPECT_TRUE(changed == 1 && main->usersFileTime == 1000000);
  std::vector<std::string> got;  // name|login|mail|display|plusFlag id
  for (const UserEntry &e : std::span(main->users->entries, main->users->count))
    got.push_back(std::string(e.name) + "|" + e.login + "|" + e.mailAddress + "|" +
                  e.displayName + "|" + std::to_string(e.plusFlag) + std::to_string(e.id));
  // Past 1023 bytes a line goes on as the next; a login without a newline behind is lost.
  EXPECT_EQ(got, (std::vector<std::string>{"anna|ak|anna@x.org|Anna Karl|0-1",
      "Smith, J|js|||0-1", "plus|pl|||1-1", "bare||||0-1", "five|a|b|c|0-1",
      std::string(127, 'n') + "|" + cut + "|" + cut + "|" + cut + "|1-1", n200 + "x|b|||0-1",
      "aaaaaaa|y|||0-1", "last||||0-1"}));
}

TEST_F(PeopleTest, SettlesTheOwnCalendarOnceFromTheFirstLineWithTheRealLoginElseNobody) {
  ASSERT_FALSE(me().empty());
  auto mine = [](std::string name) { return name + "," + me() + "\n"; };
  // A "-" name is never one's own, nor a line with another login.
  readMain(mine("-dash") + mine("other,x") + mine("mine") + mine("second"), 1000);
  EXPECT_EQ(held(), "2:mine -1:- -1:-");
  // Later files move only the index of the settled name.
  EXPECT_EQ(readMain(mine("first") + "mine,x\n", 2000), 1);
  EXPECT_EQ(held(), "1:mine -1:- -1:-");
  EXPECT_EQ(readMain("a,b\n", 3000), -1);
  resetIdentity(), setOwnCalendar(0);  // a new process: no line has the real login
  EXPECT_EQ(readMain("a,not-me-1\nb,not-me-2\n", 4000), -1);
  EXPECT_EQ(held(), "-1:- -1:- -1:-");
  readMain(mine("mine"), 5000);  // settled: never again
  EXPECT_STREQ(settledOwnName(), "Nobody");
  resetIdentity(), setOwnCalendar(0);  // a new process reads another context's file first
  writeAt("db/remoteUsers/n", "a,not-me\n", 100);
  EXPECT_EQ(readUsersFile(makeContext("n", DB_KIND_NONE), &changed), 0);
  EXPECT_STREQ(settledOwnName(), "Nobody");
}

TEST_F(PeopleTest, RereadsOnlyANewerNonEmptyFileAndCarriesOnlyRealChanges) {
  static int carried;  // changes carried
  carried = 0;
  setUserChangeHook([](DbHandle *, DbHandle *) { carried++; });
  auto state = [&] {  // changed, entries in force, stored time, changes carried
    return std::to_string(changed) + " " + std::to_string(main->users->count) + " " +
           std::to_string(main->usersFileTime) + " " + std::to_string(carried);
  };
  const struct { const char *text; time_t mtime; const char *want; } rows[] = {
      {"a,x\nb,y\n", 5000, "1 2 5000 1"},
      {"c,z\n", 5000, "0 2 5000 1"},                 // not newer: not read
      {"c,z\n", 4000, "0 2 5000 1"},                 // older: never read
      {"a,x\nb,y\n", 6000, "0 2 6000 1"},            // read: the same entries
      {"# only a comment\n\n", 7000, "0 2 6000 1"},  // empty: the old list and time
      {"a,x\nb,y\nc,z\n", 7000, "1 3 7000 2"},
  };
  for (const auto &r : rows) {
    readMain(r.text, r.mtime);
    EXPECT_EQ(state(), r.want) << r.text << r.mtime;
  }
  EXPECT_TRUE(mainUsersFileSize() == 12 && userListsEqual(main->users, main->appliedUsers) == 1);
  main->kind = DB_KIND_LOCAL;  // a main context of kind 1 notes changes, carries none
  readMain("a,x\n", 8000);
  EXPECT_EQ(state(), "1 1 8000 2");
  EXPECT_EQ(userListsEqual(main->users, main->appliedUsers), 0);
}

TEST_F(PeopleTest, ReportsOnlyForTheMainFileAndReadsOthersIntoTheirOwnTables) {
  DbHandle *remote = makeContext("nodeA", DB_KIND_NONE);
  testing::internal::CaptureStderr();
  EXPECT_EQ(readUsersFile(main, &changed), -1);
  readMain("a,b\nc,d\nmine," + me() + "\n", 100);
  EXPECT_EQ(readUsersFile(remote, &changed), 2);  // missing: the own calendar
  EXPECT_EQ(readMain("a,b\n", 100), 2);  // present but not newer: no report
  readMain("#\n", 200);
  writeAt("db/remoteUsers/nodeA", "#\n", 50);
  readUsersFile(remote, &changed);  // empty
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "no users file (" + root + "/db/users) to access\nread no entries in users file\n");
  EXPECT_EQ(remote->remoteNodeNumber, 0);
  writeAt("db/remoteUsers/nodeA", "r1,l1\nmine,l2\n", 100);
  // The own name is looked up in the table of the context being read.
  EXPECT_EQ(readUsersFile(remote, &changed), 1);
  EXPECT_TRUE(changed == 1 && remote->users->count == 2);
  EXPECT_TRUE(lookupCalendar(remote, "r1") == 0 && lookupCalendar(main, "r1") == -1);
  EXPECT_EQ(currentDb(), main);
}

TEST_F(PeopleTest, NameTableKeepsFirstIndexesAndFeedsTheNameLookup) {
  readMain("anna,ak,anna@x.org,Anna K\nbob,bk\n-carl,ck,c@x,Carl\n-bob,zz\n", 1000);
  // List order, then "-" names without the dash unless present: carl 4, bob stays 1.
  EXPECT_TRUE(calendarCount() == 5 && calendarIndex("-bob") == 3);
  EXPECT_TRUE(!calendarName(5) && !calendarName(-1));
  EXPECT_EQ(std::string(calendarName(4)) + ":" + tableLogin(main, 4) + tableMail(main, 4) +
                tableDisplay(main, 4) + " " + tableLogin(main, 1),  // not "-bob"'s login
            "carl:ckc@xCarl bk");
  EXPECT_EQ(addCalendarName(main, "anna", "other", "", ""), 0);
  for (int i = 0; i < 100; i++)  // the table grows past its first slots
    EXPECT_EQ(addCalendarName(main, ("n" + std::to_string(i)).c_str(), "", "", ""), 5 + i);
  EXPECT_EQ(calendarIndex("n99"), 104);
  DbHandle *other = makeContext("nodeB", DB_KIND_NONE);
  addCalendarName(other, "zed", "", "", "");
  setCurrentDb(other);  // the lookup reads the current context's table
  EXPECT_TRUE(calendarCount() == 1 && calendarIndex("zed") == 0);
  restoreCurrentDb();
  EXPECT_EQ(calendarIndex("zed"), -1);
}

// Cached record files hold calendar indexes. A re-read that moves names to other indexes
// first writes what is unsaved (under the old names) and drops the caches, so nothing is
// written under the wrong name; a re-read that only adds names at the end keeps them.
TEST_F(PeopleTest, ReReadThatMovesIndexesWritesAndDropsCachedRecordFilesFirst) {
  main->dir = root + "/db/database", main->standalone = true;
  ASSERT_EQ(mkdir(main->dir.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((main->dir + "/locks").c_str(), 0755), 0);
  std::string path = root + "/cal";
  readMain("ann,x\nbob,y\n", 1000);
  RecordFile *rf = openRecordFile(main, path.c_str());
  ASSERT_NE(rf, nullptr);
  Item *item = evnew();
  item->randomId = 4, setbit(&item->calendars, calendarIndex("bob"), 1), addRecordItem(rf, item);
  readMain("ann,x\nbob,y\ncarl,z\n", 2000);  // appended: the cache stays as it is
  EXPECT_TRUE(cachedFileCount(main) == 1 && rf->dirty && findRecordFile(main, path.c_str()) == rf);
  readMain("aaron,w\nann,x\nbob,y\ncarl,z\n", 3000);
  EXPECT_EQ(cachedFileCount(main), 0);
  EXPECT_NE(slurp(path).find("\n#W\tbob\n"), std::string::npos) << slurp(path);
  EXPECT_EQ(writeDirtyFiles(main), 0);
  rf = openRecordFile(main, path.c_str());
  ASSERT_EQ(rf->count, 1);
  EXPECT_TRUE(setMembers(rf->list.next->calendars) == 1 && testbit(rf->list.next->calendars, 2));
}
