// Tests of the held calendars, the acting-for test, the titles and per-calendar texts.
#include "core/people/people_test_util.h"
#include <filesystem>
using namespace quorvel;

// Calendars: 0 anna (display "Anna K"), 1 bob (no display, no mail), 2 carl.
class IdentityTest : public PeopleTest {
 protected:
  void SetUp() override {
    PeopleTest::SetUp();
    readMain("anna,ak,anna@x.org,Anna K\nbob,bk\ncarl,ck,carl@x.org\n", 1000);
    setViewingDb(main), setActingDb(main);
  }
};

TEST_F(IdentityTest, HeldCalendarsIgnoreNegativesKeepTheThirdApartAndFollowTheirNames) {
  setOwnCalendar(1), setViewedCalendar(-3);
  EXPECT_EQ(std::to_string(calendarInView()) + " " + held(), "1 1:bob -1:- -1:-");  // own
  setViewedCalendar(2), setOwnCalendar(-1);
  EXPECT_TRUE(calendarInView() == 2 && isOwnCalendar(1) && !isOwnCalendar(2));
  for (int refused : {2, 1, -1}) {  // the third is never the viewed, the own or negative
    setThirdCalendar(0);
    EXPECT_EQ(held(), "1:bob 2:carl 0:anna");
    setThirdCalendar(refused);
    EXPECT_EQ(held(), "1:bob 2:carl -1:-");
  }
  // After a rebuilt table each is found again by its name.
  setOwnCalendar(0), setViewedCalendar(1), setThirdCalendar(2);
  main->kind = DB_KIND_LOCAL;  // even when the change is not carried further
  readMain("carl,ck\nzed,zz\nanna,ak\n", 2000);
  // bob is gone: his old index stays. The first read settled the own name as "Nobody".
  EXPECT_EQ(held(), "-1:Nobody 1:bob 0:carl");
  setOwnCalendar(2);
  UserList *l = newUserList();
  addUserEntry(l, "anna", "", "", "", 0), installUserList(main, l);  // names looked up again
  EXPECT_EQ(held(), "0:anna 1:bob 0:carl");
}

TEST_F(IdentityTest, TextsAndTitlesSayWhoseCalendarIsShown) {
  EXPECT_EQ(std::string(userMailAddress(0)) + "|" + userMailAddress(1) + "|" +
                userMailAddress(7) + "|" + userDisplayName(1) + "|" + userDisplayName(-1),
            "anna@x.org|bk||bob|(null)");  // mail, else login; display, else name
  EXPECT_EQ(plainCalendarTitle(0), "Anna K");
  DbHandle *acting = makeContext("agent", DB_KIND_NONE);
  setOwnCalendar(0);
  EXPECT_EQ(calendarTitle(0), "Anna K");  // one's own calendar
  EXPECT_EQ(calendarTitle(2), "Calendar for carl");
  setViewedCalendar(1);
  EXPECT_TRUE(isActingFor(2) == 0 && isActingFor(1) == 1);  // only for the viewed, not own
  EXPECT_EQ(calendarTitle(0), "Calendar for Anna K");  // own, while another is viewed
  EXPECT_EQ(calendarTitle(1), "Agent for bob");
  setViewedCalendar(0);
  EXPECT_EQ(isActingFor(0), 0);  // own and viewed, main acting as itself
  setActingDb(acting);
  EXPECT_EQ(calendarTitle(0), "Agent for Anna K");  // acting through another context
  acting->kind = DB_KIND_PROXY;
  EXPECT_EQ(calendarTitle(0), "Proxy for Anna K");
  setViewingDb(acting), setActingDb(main);
  EXPECT_EQ(isActingFor(0), 0);  // main is not the viewing context
  EXPECT_EQ(calendarTitle(0), "Calendar for Anna K");
  std::filesystem::create_directories(root + "/resources/De");
  std::string text;  // the prefixes are messages 1, 3 and 4 of the catalogue's set 18
  for (int s = 1; s < 18; s++) text += "$set " + std::to_string(s) + "\n";
  text += "$set 18\n1 Agent f\xc3\xbcr \n2 -\n3 Kalender f\xc3\xbcr \n4 Vertreter f\xc3\xbcr \n";
  writeAt("resources/De/qv.msg", text, 100);
  catopen("qv"), catsetlang("De");
  EXPECT_EQ(calendarTitle(0), "Kalender f\xc3\xbcr Anna K");
  setViewingDb(main), setActingDb(acting);
  EXPECT_EQ(calendarTitle(0), "Vertreter f\xc3\xbcr Anna K");
  acting->kind = DB_KIND_NONE;
  EXPECT_EQ(calendarTitle(0), "Agent f\xc3\xbcr Anna K");
}
