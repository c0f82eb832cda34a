// alarmqueue_test.cpp -- the queue: scheduling with its one-minute grace, the handler's
// repeat suppression, polling, wake-ups across a rebuild, the announcement text, and
// announcements fired by the real SIGALRM timer.
#include <chrono>
#include <thread>

#include "core/alarm/alarm_test_util.h"

namespace quorvel {
namespace {

TEST_F(AlarmTest, LateByUnderAMinuteFiresAtOnceARepeatAnnouncesNothingAndWakeupsSurvive) {
  recordTimer();
  addEntryToQ("late", at(9, 30), at(8, 58, 59), nullptr, 1);  // 61 s before now (9:00)
  addEntryToQ("later", at(9, 10), at(9, 5), nullptr, 3);
  addEntryToQ("grace", at(9, 30), at(8, 59, 1), "s", 2);      // 59 s before now
  sortAlarmQueue();
  EXPECT_EQ(scheduleAlarm(0), 0);
  ASSERT_EQ(armed, (std::vector<long>{1000}));  // a delay of 0 arms 1000 ms
  EXPECT_STREQ(armedFor[0]->event, "grace");
  int next;
  alarmQueue(nullptr, &next);
  EXPECT_EQ(next, 2);
  alarmFired(armedFor[0]);  // announces, then arms the next from now
  EXPECT_EQ(armed.back(), 300000);
  alarmFired(armedFor[0]);  // the same entry again
  alarmFired(nullptr);
  EXPECT_EQ(announced, (Lines{"grace|30|s", "|0|", "|0|"}));
  EXPECT_EQ(armed.size(), 2u);  // nothing left after "later"
  // A wake-up (empty text) is announced every time it fires.
  addEntryToQ("", at(9, 1), at(9, 1), nullptr, 0);
  auto *wake = const_cast<AlarmQEntry *>(&alarmQueue(nullptr, nullptr)[3]);
  alarmFired(wake), alarmFired(wake);
  EXPECT_EQ(announced.back(), "|1|(null)");
  EXPECT_EQ(announced.size(), 5u);
  ClearAlarmQueue();
  EXPECT_EQ(cancels, 0);  // no timer was armed any more
  // A wake-up earlier than the armed entry stops that timer first; remembered, it
  // survives a rebuild of the queue once.
  addEntryToQ("meeting", at(9, 20), at(9, 10), nullptr, 1);
  EXPECT_EQ(scheduleAlarm(0), 600000);
  AddWakeup(120);
  EXPECT_EQ(cancels, 1);
  EXPECT_EQ(queueText(), (Lines{"09:02 ", "09:10 meeting"}));
  EXPECT_EQ(armed.back(), 120000);
  EXPECT_STREQ(armedFor.back()->event, "");
  RememberWakeup();
  ClearAlarmQueue();
  EXPECT_EQ(cancels, 2);
  addEntryToQ("lunch", at(12, 0), at(11, 45), nullptr, 2);
  RestoreWakeup();
  EXPECT_EQ(queueText(), (Lines{"09:02 ", "11:45 lunch"}));
  EXPECT_EQ(armed.back(), 120000);
  RestoreWakeup();  // forgotten once restored
  EXPECT_EQ(queueText().size(), 2u);
}

TEST_F(AlarmTest, WithoutATimerPollingReturnsTheEntryDueThisMinuteOnce) {
  addEntryToQ("missed", at(9, 30), at(8, 59), nullptr, 1);
  addEntryToQ("", at(9, 0), at(9, 0), nullptr, 0);
  addEntryToQ("due", at(10, 15), at(9, 0), "note", 2);
  addEntryToQ("soon", at(9, 1), at(9, 1), nullptr, 3);
  const char *event = nullptr, *string = nullptr;
  int minutes = -1;
  int32_t cookie = -1;
  auto poll = [&] { return PollAlarm(&event, &minutes, &string, &cookie); };
  EXPECT_EQ(poll(), 0);  // missed
  EXPECT_EQ(poll(), 0);  // a wake-up
  ASSERT_EQ(poll(), 1);
  EXPECT_EQ(std::string(event) + "|" + std::to_string(minutes) + "|" + string + "|" +
                std::to_string(cookie), "due|75|note|2");
  EXPECT_EQ(alarmQueue(nullptr, nullptr)[2].alarmTime, NO_TIME);
  EXPECT_EQ(poll(), 0);  // not yet
  EXPECT_EQ(poll(), 0);
  clockNow = at(9, 1, 40);
  ASSERT_EQ(poll(), 1);
  EXPECT_STREQ(event, "soon");
  EXPECT_EQ(minutes, 0);
  EXPECT_EQ(poll(), 0);  // the end
  // Scheduling only returns the delay; the entry stays next.
  ClearAlarmQueue();
  clockNow = at(9, 0, 30);
  addEntryToQ("x", at(9, 30), at(9, 3), nullptr, 0);
  EXPECT_EQ(scheduleAlarm(0), 180000);
  EXPECT_EQ(scheduleAlarm(int32_t(at(9, 3, 50))), 0);
  int next;
  alarmQueue(nullptr, &next);
  EXPECT_EQ(next, 0);
  EXPECT_EQ(scheduleAlarm(int32_t(at(9, 4))), -1);  // a minute late: skipped
}

TEST_F(AlarmTest, TheAnnouncementSaysHowSoonInMinutesAndHours) {
  struct Row { int minutes; const char *text; } rows[] = {
      {-3, "now."}, {0, "now."}, {1, "in 1 minute."}, {59, "in 59 minutes."},
      {60, "in 1 hour."}, {61, "in 1 hour and 1 minute."}, {120, "in 2 hours."},
      {135, "in 2 hours and 15 minutes."}};
  for (const Row &r : rows)
    EXPECT_EQ(AlarmMessage("X", r.minutes), std::string("The event 'X' is starting ") + r.text);
  // A catalogue text is used when it prints one number; one asking for a text is not.
  std::filesystem::create_directories(root + "/resources/En_US");
  std::string msg = "$set 1\n1 a\n$set 2\n";
  for (int i = 1; i <= 15; i++) msg += std::to_string(i) + " -\n";
  msg += "16 Termin '\n17 ' beginnt\n18  jetzt\n19 -\n20  in %s Minuten\n21 -\n22  in %d Stunden\n";
  std::ofstream(root + "/resources/En_US/alarm.msg") << msg;
  catopen("alarm");
  EXPECT_STREQ(AlarmMessage("Y", 5), "Termin 'Y' beginnt in 5 minutes.");
  EXPECT_STREQ(AlarmMessage("Y", 0), "Termin 'Y' beginnt jetzt.");
  EXPECT_STREQ(AlarmMessage("Y", 125), "Termin 'Y' beginnt in 2 Stunden and 5 minutes.");
}

TEST_F(AlarmTest, TheBuiltInTimerAnnouncesOnSigalrm) {
  UseBuiltinAlarmTimer();
  clockNow = at(9, 0, 0);
  addEntryToQ("second", at(9, 0, 2), at(9, 0, 2), "b", 2);
  addEntryToQ("first", at(9, 0, 1), at(9, 0, 1), nullptr, 1);
  sortAlarmQueue();
  auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(scheduleAlarm(0), 1000);  // alarm(1); the second is armed for 2 s after it
  for (int i = 0; i < 100 && announced.size() < 2; i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  EXPECT_EQ(announced, (Lines{"first|0|(null)", "second|0|b"}));
  EXPECT_GE(took, 2.9);  // two real alarms of 1 and 2 seconds
}

}  // namespace
}  // namespace quorvel
