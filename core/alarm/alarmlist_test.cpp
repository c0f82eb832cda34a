// alarmlist_test.cpp -- the alarm list of an item: set, switch off, find, copy, sort,
// duplicate, compare, and the per-index accessors.
#include <gtest/gtest.h>

#include <string>

#include "core/alarm/alarm.h"
#include "core/base/base.h"

namespace quorvel {
namespace {

std::string listText(const Item *item) {  // "user:start/freq:string" per alarm
  std::string out;
  for (int i = 0; i < item->listBCount; i++) {
    const Alarm &a = item->listB[i];
    out += (i ? " " : "") + std::to_string(a.user) + ":" + std::to_string(a.start) + "/" +
           std::to_string(a.freq) + ":" + (a.string ? a.string : "-");
  }
  return out;
}

TEST(AlarmList, SetReplacesTheUsersAlarmAndClearSwitchesItOff) {
  Item *item = evnew();
  SetAlarm(item, -1, 1, 1, "x");  // no user: nothing
  SetAlarm(item, 4, 15, 5, "tea");
  SetAlarm(item, 2, 10, 0, nullptr);
  SetAlarm(item, 4, 30, 10, item->listB[0].string);  // its own string handed back in
  EXPECT_EQ(listText(item), "4:30/10:tea 2:10/0:-");
  EXPECT_EQ(ClearAlarm(item, 7), -1); EXPECT_EQ(ClearAlarm(item, 4), 0);
  EXPECT_EQ(listText(item), "4:30/0:- 2:10/0:-");
  AddAlarm(item, 4, 1, 2, "on");  // a second alarm of user 4, switched on
  EXPECT_EQ(FindAlarm(item, 4), &item->listB[0]);
  EXPECT_EQ(FindActiveAlarm(item, 4), &item->listB[2]);
  EXPECT_EQ(FindActiveAlarm(item, 2), nullptr);
  EXPECT_EQ(HasNoAlarm(item, 2) * 10 + HasNoAlarm(item, 3), 1);
  EXPECT_EQ(alarmFreqAt(item, 2), 2u); EXPECT_STREQ(alarmStringAt(item, 2), "on");
  EXPECT_EQ(alarmFreqAt(item, 3), 0u); EXPECT_EQ(alarmStringAt(item, -1), nullptr);
  CalSet user = alarmUserSetAt(item, 1);
  EXPECT_EQ(setMembers(user), 1); EXPECT_TRUE(testbit(user, 2));
  freebits(&user);
  item->listB[1].user = -3;
  EXPECT_EQ(alarmUserSetAt(item, 1), nullptr);
  evfree(item);
}

TEST(AlarmList, CopyTakesTheActiveAlarmAndSortsTheTarget) {
  Item *from = evnew(), *to = evnew();
  AddAlarm(from, 3, 5, 0, "off"), AddAlarm(from, 3, 20, 10, "on"), AddAlarm(from, 8, 1, 0, nullptr);
  AddAlarm(to, 9, 1, 1, nullptr), AddAlarm(to, 3, 2, 0, nullptr), AddAlarm(to, 1, 1, 0, nullptr);
  EXPECT_EQ(CopyAlarm(5, from, to), -1);
  EXPECT_EQ(CopyAlarm(3, from, to), 0);
  EXPECT_EQ(CopyAlarm(8, from, to), 0);  // no active one: any alarm of the user
  EXPECT_EQ(listText(to), "1:1/0:- 3:20/10:on 8:1/0:- 9:1/1:-");
  // Sorting puts a user's alarms that are on before those that are off.
  AddAlarm(to, 3, 7, 0, nullptr), AddAlarm(to, 1, 4, 6, nullptr);
  SortAlarmlist(to->listB, to->listBCount);
  EXPECT_EQ(listText(to).substr(0, 31), "1:4/6:- 1:1/0:- 3:20/10:on 3:7/");
  SortAlarmlist(nullptr, 3), SortAlarmlist(to->listB, 0);
  evfree(from), evfree(to);
}

TEST(AlarmList, CopiesCompareEqualUntilAFieldOrStringDiffers) {
  Item *a = evnew(), *b = evnew();
  AddAlarm(a, 1, 10, 5, "x"), AddAlarm(a, 2, 0, 1, nullptr);
  EXPECT_EQ(dupAlarmlist(a->listB, 0), nullptr); EXPECT_EQ(dupAlarmlist(nullptr, 2), nullptr);
  b->listB = dupAlarmlist(a->listB, 2), b->listBCount = 2;
  EXPECT_NE(b->listB[0].string, a->listB[0].string);  // a copy, not the same text
  EXPECT_EQ(EqualAlarmlist(a, b), 0);
  for (auto change : {+[](Alarm *x) { x->user++; }, +[](Alarm *x) { x->start++; },
                      +[](Alarm *x) { x->freq++; }, +[](Alarm *x) { x->string[0] = 'y'; },
                      +[](Alarm *x) { freeMem(x->string), x->string = nullptr; }}) {
    Item *c = evcopy(a);
    change(&c->listB[0]);
    EXPECT_EQ(EqualAlarm(&a->listB[0], &c->listB[0]), -1); EXPECT_EQ(EqualAlarmlist(a, c), -1);
    evfree(c);
  }
  b->listBCount = 1;  // counts differ
  EXPECT_EQ(EqualAlarmlist(a, b), -1);
  b->listBCount = 2;
  Alarm *zeroed = NewAlarmlist(3);
  EXPECT_EQ(zeroed[2].user, 0); EXPECT_EQ(zeroed[2].string, nullptr);
  FreeAlarmlist(zeroed, 3);
  evfree(a), evfree(b);
}

}  // namespace
}  // namespace quorvel
