// alarmlist_test.cpp -- the alarm list of an item: set, switch off, find, copy, sort,
// duplicate, compare, and the per-index accessors.
#include "core/alarm/alarm_test_util.h"

namespace quorvel {
namespace {

TEST(AlarmList, SetReplacesTheUsersAlarmClearSwitchesItOffAndCopyTakesTheActiveOne) {
  Item *item = evnew(), *to = evnew();
  SetAlarm(item, -1, 1, 1, "x");  // no user: nothing
  SetAlarm(item, 4, 15, 5, "tea");
  SetAlarm(item, 2, 10, 0, nullptr);
  SetAlarm(item, 4, 30, 10, item->listB[0].string);  // its own string handed back in
  EXPECT_EQ(alarmsText(item), "4:30/10:tea 2:10/0:- ");
  EXPECT_EQ(ClearAlarm(item, 7), -1);
  EXPECT_EQ(ClearAlarm(item, 4), 0);
  EXPECT_EQ(alarmsText(item), "4:30/0:- 2:10/0:- ");
  AddAlarm(item, 4, 1, 2, "on");  // a second alarm of user 4, switched on
  EXPECT_EQ(FindAlarm(item, 4), &item->listB[0]);
  EXPECT_EQ(FindActiveAlarm(item, 4), &item->listB[2]);
  EXPECT_EQ(FindActiveAlarm(item, 2), nullptr);
  EXPECT_EQ(HasNoAlarm(item, 2), 0);
  EXPECT_EQ(HasNoAlarm(item, 3), 1);
  EXPECT_EQ(alarmFreqAt(item, 3), 0u);  // out of range
  EXPECT_EQ(alarmStringAt(item, -1), nullptr);
  CalSet user = alarmUserSetAt(item, 1);
  EXPECT_TRUE(setMembers(user) == 1 && testbit(user, 2));
  freebits(&user);
  // Copying takes the user's active alarm, else any, and sorts the target: by user, a
  // user's alarms that are on before those that are off.
  AddAlarm(to, 9, 1, 1, nullptr), AddAlarm(to, 4, 2, 0, nullptr), AddAlarm(to, 1, 1, 0, nullptr);
  EXPECT_EQ(CopyAlarm(5, item, to), -1);
  EXPECT_EQ(CopyAlarm(4, item, to), 0);
  EXPECT_EQ(CopyAlarm(2, item, to), 0);
  EXPECT_EQ(alarmsText(to), "1:1/0:- 2:10/0:- 4:1/2:on 9:1/1:- ");
  AddAlarm(to, 4, 7, 0, nullptr), AddAlarm(to, 1, 4, 6, nullptr);
  SortAlarmlist(to->listB, to->listBCount);
  EXPECT_EQ(alarmsText(to), "1:4/6:- 1:1/0:- 2:10/0:- 4:1/2:on 4:7/0:- 9:1/1:- ");
  SortAlarmlist(nullptr, 3), SortAlarmlist(to->listB, 0);
  item->listB[1].user = -3;
  EXPECT_EQ(alarmUserSetAt(item, 1), nullptr);
  evfree(item), evfree(to);
}

TEST(AlarmList, CopiesCompareEqualUntilAFieldOrStringDiffers) {
  Item *a = evnew(), *b = evnew();
  AddAlarm(a, 1, 10, 5, "x"), AddAlarm(a, 2, 0, 1, nullptr);
  EXPECT_EQ(dupAlarmlist(a->listB, 0), nullptr);
  EXPECT_EQ(dupAlarmlist(nullptr, 2), nullptr);
  b->listB = dupAlarmlist(a->listB, 2), b->listBCount = 2;
  EXPECT_NE(b->listB[0].string, a->listB[0].string);  // a copy, not the same text
  EXPECT_EQ(EqualAlarmlist(a, b), 0);
  for (auto change : {+[](Alarm *x) { x->user++; }, +[](Alarm *x) { x->start++; },
                      +[](Alarm *x) { x->freq++; }, +[](Alarm *x) { x->string[0] = 'y'; },
                      +[](Alarm *x) { freeMem(x->string), x->string = nullptr; }}) {
    Item *c = evcopy(a);
    change(&c->listB[0]);
    EXPECT_EQ(EqualAlarm(&a->listB[0], &c->listB[0]), -1);
    EXPECT_EQ(EqualAlarmlist(a, c), -1);
    evfree(c);
  }
  b->listBCount = 1;  // counts differ
  EXPECT_EQ(EqualAlarmlist(a, b), -1);
  b->listBCount = 2;
  Alarm *zeroed = NewAlarmlist(3);
  EXPECT_TRUE(zeroed[2].user == 0 && zeroed[2].string == nullptr);
  FreeAlarmlist(zeroed, 3);
  evfree(a), evfree(b);
}

}  // namespace
}  // namespace quorvel
