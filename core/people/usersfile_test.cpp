// Tests of the users-file read: real files under a temporary installation root, read
// into the default database's list and its calendar-name table.
#include "core/people/people_test_util.h"

#include "core/db/layout.h"

using namespace quorvel;

namespace {

int readMain(DbHandle *ctx, int *changed) { return readUsersFile(ctx, changed); }

std::string entryText(const UserEntry &e) {
  return std::string(e.name) + "|" + e.login + "|" + e.mailAddress + "|" + e.displayName +
         "|" + std::to_string(e.plusFlag);
}

int hookCalls;
DbHandle *hookCtx;
void countHook(DbHandle *, DbHandle *ctx) {
  hookCalls++;
  hookCtx = ctx;
}

}  // namespace

TEST_F(PeopleTest, ReadsQuotedPlusAndTrimmedFieldsAndSkipsComments) {
  writeUsers("# users of the test database\n"
             "\n"
             "  anna ,\tak , anna@x.org , Anna Karl \n"
             "\"Smith, J\",js\n"
             "+  plus , pl\n"
             "bare\n"
             ",nobody-without-a-name\n"
             "five,a,b,c,d,e\n"
             "last,lost");
  int changed = -1;
  readMain(main, &changed);
  EXPECT_EQ(changed, 1);
  ASSERT_NE(main->users, nullptr);
  ASSERT_EQ(main->users->count, 6);
  EXPECT_EQ(entryText(main->users->entries[0]), "anna|ak|anna@x.org|Anna Karl|0");
  EXPECT_EQ(entryText(main->users->entries[1]), "Smith, J|js|||0");
  EXPECT_EQ(entryText(main->users->entries[2]), "plus|pl|||1");
  EXPECT_EQ(entryText(main->users->entries[3]), "bare||||0");
  EXPECT_EQ(entryText(main->users->entries[4]), "five|a|b|c|0");
  // The final line has no newline: its name ends at the comma, its login is lost.
  EXPECT_EQ(entryText(main->users->entries[5]), "last||||0");
  EXPECT_EQ(main->users->entries[4].id, -1);
  // The table follows the list.
  EXPECT_EQ(lookupCalendar(main, "Smith, J"), 1);
  EXPECT_EQ(lookupCalendar(main, "last"), 5);
  EXPECT_EQ(lookupCalendar(main, "lost"), -1);
  EXPECT_EQ(calendarTableSize(main), 6);
  EXPECT_EQ(main->usersFileTime, 1000000);
}

TEST_F(PeopleTest, CutsPlusNamesAndOtherFieldsTo127ButNotPlainNames) {
  std::string longName(200, 'n'), longLogin(200, 'l');
  writeUsers("+" + longName + "," + longLogin + "\n" + longName + "x,b\n");
  int changed;
  readMain(main, &changed);
  ASSERT_EQ(main->users->count, 2);
  EXPECT_EQ(std::string(main->users->entries[0].name), longName.substr(0, 127));
  EXPECT_EQ(main->users->entries[0].plusFlag, 1);
  EXPECT_EQ(std::string(main->users->entries[0].login), longLogin.substr(0, 127));
  EXPECT_EQ(std::string(main->users->entries[1].name), longName + "x");
}

TEST_F(PeopleTest, SettlesTheOwnCalendarOnceFromTheFirstLineWithTheRealLogin) {
  std::string login = me();
  ASSERT_FALSE(login.empty());
  writeUsers("-dash," + login + "\n" +   // a "-" name is never one's own
             "other,someone-else\n" +
             "mine," + login + "\n" +
             "second," + login + "\n");
  int changed;
  EXPECT_EQ(readMain(main, &changed), 2);
  EXPECT_EQ(ownCalendar(), 2);
  EXPECT_STREQ(ownCalendarName(), "mine");
  EXPECT_STREQ(settledOwnName(), "mine");
  // A later file puts the own calendar elsewhere and names another line first: the
  // settled name stays, only its index moves.
  writeUsers("first," + login + "\nmine,x\n", 2000000);
  EXPECT_EQ(readMain(main, &changed), 1);
  EXPECT_EQ(changed, 1);
  EXPECT_STREQ(ownCalendarName(), "mine");
  // The "-" name was also registered without its dash, after the list's own names.
  writeUsers("-dash,z\nb,y\n", 3000000);
  readMain(main, &changed);
  EXPECT_EQ(lookupCalendar(main, "-dash"), 0);
  EXPECT_EQ(lookupCalendar(main, "dash"), 2);
  EXPECT_EQ(ownCalendar(), -1);  // "mine" is gone from the table
}

TEST_F(PeopleTest, NamesNobodyWhenNoLineHasTheRealLogin) {
  writeUsers("a,not-me-1\nb,not-me-2\n");
  setOwnCalendar(0);  // whatever was held before goes
  int changed;
  EXPECT_EQ(readMain(main, &changed), -1);
  EXPECT_EQ(ownCalendar(), -1);
  EXPECT_EQ(ownCalendarName(), nullptr);
  EXPECT_STREQ(settledOwnName(), "Nobody");
}

TEST_F(PeopleTest, RereadsOnlyWhenTheFileIsNewerAndReportsRealChanges) {
  hookCalls = 0;
  setUserChangeHook(countHook);
  writeUsers("a,x\nb,y\n", 5000);
  int changed;
  readMain(main, &changed);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(hookCalls, 1);
  EXPECT_EQ(hookCtx, main);
  EXPECT_EQ(userListsEqual(main->users, main->appliedUsers), 1);
  UserList *before = main->users;
  // Not newer (even older): nothing is read.
  writeUsers("c,z\n", 4000);
  readMain(main, &changed);
  EXPECT_EQ(changed, 0);
  EXPECT_EQ(main->users, before);
  // Newer with the same entries: read, but no change is carried out.
  writeUsers("a,x\nb,y\n", 6000);
  readMain(main, &changed);
  EXPECT_EQ(changed, 0);
  EXPECT_EQ(hookCalls, 1);
  EXPECT_NE(main->users, before);
  EXPECT_EQ(main->usersFileTime, 6000);
  EXPECT_EQ(mainUsersFileSize(), 8);
  // A main context of kind 1 notes the change without carrying it out.
  main->kind = DB_KIND_LOCAL;
  writeUsers("a,x\nb,changed\n", 7000);
  readMain(main, &changed);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(hookCalls, 1);
  EXPECT_EQ(userListsEqual(main->users, main->appliedUsers), 0);
}

TEST_F(PeopleTest, KeepsTheOldListWhenTheFileIsMissingOrEmpty) {
  int changed;
  testing::internal::CaptureStderr();
  EXPECT_EQ(readMain(main, &changed), -1);  // no own calendar yet
  std::string path = usersFilePath(main);
  EXPECT_EQ(path, root + "/db/users");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "no users file (" + path + ") to access\n");
  writeUsers("a,b\n", 100);
  readMain(main, &changed);
  ASSERT_EQ(main->users->count, 1);
  testing::internal::CaptureStderr();
  writeUsers("# only a comment\n\n", 200);
  readMain(main, &changed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "read no entries in users file\n");
  EXPECT_EQ(changed, 0);
  EXPECT_EQ(main->users->count, 1);
  EXPECT_EQ(main->usersFileTime, 100);  // not advanced: the next call reads again
  writeUsers("a,b\nc,d\n", 200);
  readMain(main, &changed);
  EXPECT_EQ(main->users->count, 2);
  EXPECT_EQ(currentDb(), main);
}

TEST_F(PeopleTest, ReadsAnotherContextsFileQuietlyAndRestoresTheMainContext) {
  DbHandle *remote = makeContext("nodeA", DB_KIND_NONE);
  EXPECT_EQ(remote->remoteNodeNumber, -1);
  int changed;
  testing::internal::CaptureStderr();
  readUsersFile(remote, &changed);  // missing: no report for another context
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  writeAt("db/remoteUsers/nodeA", "r1,l1\nr2,l2\n", 100);
  EXPECT_EQ(usersFilePath(remote), root + "/db/remoteUsers/nodeA");
  readUsersFile(remote, &changed);
  EXPECT_EQ(remote->remoteNodeNumber, 0);
  EXPECT_EQ(changed, 1);
  ASSERT_NE(remote->users, nullptr);
  EXPECT_EQ(remote->users->count, 2);
  EXPECT_EQ(lookupCalendar(remote, "r2"), 1);
  EXPECT_EQ(lookupCalendar(main, "r2"), -1);  // the main table is untouched
  EXPECT_EQ(currentDb(), main);
  writeAt("db/remoteUsers/nodeA", "#\n", 200);
  testing::internal::CaptureStderr();
  readUsersFile(remote, &changed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(remote->users->count, 2);
}

TEST_F(PeopleTest, NameTableKeepsFirstIndexesAndFeedsTheNameLookup) {
  writeUsers("anna,ak,anna@x.org,Anna K\nbob,bk\n-carl,ck,c@x,Carl\n-bob,zz\n");
  int changed;
  EXPECT_EQ(calendarCount(), 0);  // nothing installed yet
  readMain(main, &changed);
  // The first list installed the lookup: anna 0, bob 1, -carl 2, -bob 3, then carl 4 (bob was already there).
  EXPECT_EQ(calendarCount(), 5);
  EXPECT_STREQ(calendarName(4), "carl");
  EXPECT_EQ(calendarIndex("bob"), 1);
  EXPECT_EQ(calendarIndex("-bob"), 3);
  EXPECT_EQ(calendarIndex("nobody"), -1);
  EXPECT_EQ(calendarName(5), nullptr);
  EXPECT_EQ(calendarName(-1), nullptr);
  EXPECT_STREQ(tableLogin(main, 4), "ck");
  EXPECT_STREQ(tableMail(main, 4), "c@x");
  EXPECT_STREQ(tableDisplay(main, 4), "Carl");
  EXPECT_STREQ(tableLogin(main, 1), "bk");  // not replaced by "-bob"'s login
  EXPECT_EQ(addCalendarName(main, "anna", "other", "", ""), 0);
  EXPECT_STREQ(tableLogin(main, 0), "ak");
  // The lookup always reads the current context's table.
  DbHandle *other = makeContext("nodeB", DB_KIND_NONE);
  addCalendarName(other, "zed", "", "", "");
  setCurrentDb(other);
  EXPECT_EQ(calendarCount(), 1);
  EXPECT_EQ(calendarIndex("zed"), 0);
  restoreCurrentDb();
  EXPECT_EQ(calendarIndex("zed"), -1);
}
