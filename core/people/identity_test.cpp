// Tests of the identity state, the acting-for test, window titles and the per-calendar
// texts, over a calendar-name table read from a real users file.
#include "core/people/people_test_util.h"

using namespace quorvel;

namespace {

// Calendars: 0 anna (display "Anna K"), 1 bob (no display, no mail), 2 carl.
class IdentityTest : public PeopleTest {
 protected:
  void SetUp() override {
    PeopleTest::SetUp();
    writeUsers("anna,ak,anna@x.org,Anna K\nbob,bk\ncarl,ck,carl@x.org\n");
    int changed;
    readUsersFile(main, &changed);
    ASSERT_EQ(calendarTableSize(main), 3);
  }
};

}  // namespace

TEST_F(IdentityTest, SettersIgnoreNegativesAndKeepTheThirdApart) {
  EXPECT_EQ(calendarInView(), -1);
  setOwnCalendar(1);
  setViewedCalendar(-3);
  EXPECT_EQ(viewedCalendar(), -1);
  EXPECT_EQ(calendarInView(), 1);
  EXPECT_TRUE(isOwnCalendar(1));
  EXPECT_STREQ(ownCalendarName(), "bob");
  setViewedCalendar(2);
  EXPECT_EQ(calendarInView(), 2);
  EXPECT_STREQ(viewedCalendarName(), "carl");
  setThirdCalendar(0);
  EXPECT_EQ(thirdCalendar(), 0);
  EXPECT_STREQ(thirdCalendarName(), "anna");
  setThirdCalendar(2);  // the viewed one cannot be the third
  EXPECT_EQ(thirdCalendar(), -1);
  EXPECT_EQ(thirdCalendarName(), nullptr);
  setThirdCalendar(0);
  setThirdCalendar(1);  // nor the own one
  EXPECT_EQ(thirdCalendar(), -1);
  setThirdCalendar(0);
  setThirdCalendar(-1);
  EXPECT_EQ(thirdCalendar(), -1);
}

TEST_F(IdentityTest, ReresolvesHeldNamesAfterTheTableIsRebuilt) {
  setOwnCalendar(0);
  setViewedCalendar(1);
  setThirdCalendar(2);
  writeUsers("carl,ck\nzed,zz\nanna,ak\n", 2000000);
  int changed;
  readUsersFile(main, &changed);  // carries the change: the names are looked up again
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(thirdCalendar(), 0);
  EXPECT_EQ(viewedCalendar(), 1);  // bob is gone: the old index stays
  EXPECT_EQ(ownCalendar(), -1);    // the own name was settled as "Nobody" by the read
  setOwnCalendar(2);
  EXPECT_STREQ(ownCalendarName(), "anna");
  UserList *l = newUserList();
  addUserEntry(l, "anna", "", "", "", 0);
  addUserEntry(l, "carl", "", "", "", 0);
  rebuildNameTable(main, l);
  reresolveCalendars();
  EXPECT_EQ(ownCalendar(), 0);
  EXPECT_EQ(thirdCalendar(), 1);
  freeUserList(l);
}

TEST_F(IdentityTest, MailAndDisplayNamesFallBackToLoginAndName) {
  EXPECT_STREQ(userMailAddress(0), "anna@x.org");
  EXPECT_STREQ(userMailAddress(1), "bk");
  EXPECT_STREQ(userMailAddress(7), "");
  EXPECT_STREQ(userDisplayName(0), "Anna K");
  EXPECT_STREQ(userDisplayName(1), "bob");
  EXPECT_STREQ(userDisplayName(-1), "(null)");
  EXPECT_EQ(plainCalendarTitle(2), "carl");
}

TEST_F(IdentityTest, ActingForDependsOnViewedOwnAndTheContextSlots) {
  DbHandle *other = makeContext("proxy", DB_KIND_NONE);
  setOwnCalendar(0);
  setViewedCalendar(1);
  EXPECT_EQ(isActingFor(2), 0);  // not the viewed calendar
  EXPECT_EQ(isActingFor(1), 1);  // viewed and not own
  setViewedCalendar(0);
  setViewingDb(main);
  setActingDb(main);
  EXPECT_EQ(isActingFor(0), 0);  // own, viewed through main acting as itself
  setActingDb(other);
  EXPECT_EQ(isActingFor(0), 1);  // own, but acting through another context
  setViewingDb(other);
  EXPECT_EQ(isActingFor(0), 0);  // main is not the viewing context
}

TEST_F(IdentityTest, TitlesNameWhoseCalendarIsShown) {
  DbHandle *acting = makeContext("agent", DB_KIND_NONE);
  setViewingDb(main);
  setActingDb(main);
  setOwnCalendar(0);
  EXPECT_EQ(calendarTitle(0), "Anna K");            // one's own calendar
  EXPECT_EQ(calendarTitle(2), "Calendar for carl");  // someone else's, not viewed
  setViewedCalendar(1);
  EXPECT_EQ(calendarTitle(0), "Calendar for Anna K");  // own, while another is viewed
  EXPECT_EQ(calendarTitle(1), "Agent for bob");
  setActingDb(acting);
  acting->kind = DB_KIND_PROXY;
  EXPECT_EQ(calendarTitle(1), "Proxy for bob");
  setViewedCalendar(0);
  EXPECT_EQ(calendarTitle(0), "Proxy for Anna K");  // own, acting through a proxy
  EXPECT_EQ(calendarTitle(9), "Calendar for (null)");
}

TEST_F(IdentityTest, TitlePrefixesComeFromTheCatalogue) {
  mkdir((root + "/resources").c_str(), 0755);
  mkdir((root + "/resources/De").c_str(), 0755);
  writeAt("resources/De/qv.msg",
          "$set 1\n1 x\n"
          "$set 2\n$set 3\n$set 4\n$set 5\n$set 6\n$set 7\n$set 8\n$set 9\n"
              "$set 10\n$set 11\n$set 12\n$set 13\n$set 14\n$set 15\n$set 16\n$set 17\n"
              "$set 18\n1 Agent f\xc3\xbcr \n2 -\n3 Kalender f\xc3\xbcr \n4 Vertreter f\xc3\xbcr \n",
          100);
  catopen("qv");
  catsetlang("De");
  setViewingDb(main);
  setActingDb(main);
  setOwnCalendar(0);
  EXPECT_EQ(calendarTitle(2), "Kalender f\xc3\xbcr carl");
  setViewedCalendar(1);
  EXPECT_EQ(calendarTitle(1), "Agent f\xc3\xbcr bob");
  makeContext("p", DB_KIND_PROXY);
  setActingDb(others.back());
  EXPECT_EQ(calendarTitle(1), "Vertreter f\xc3\xbcr bob");
}
