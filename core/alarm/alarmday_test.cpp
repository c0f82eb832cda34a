// alarmday_test.cpp -- the queue built from today's items: a local calendar's record
// file against a hand-computed schedule, the re-parse test, and a server calendar
// through the fake calendar server; and the default alarms it falls back on: the file
// written and read back, its refused writes, a per-user database's own file, and a
// server calendar's defaults.
#include <sys/time.h>

#include <algorithm>

#include "core/alarm/alarm_test_util.h"
#include "core/db/record.h"
#include "core/net/buf.h"
#include "core/net/itemcodec.h"
#include "core/net/link.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

struct A { int user, start, freq; const char *string = nullptr; };

Item *makeItem(Item *list, const char *title, time_t start, std::vector<A> alarms,
               std::vector<int> x = {}, std::vector<int> y = {}, std::vector<int> n = {}) {
  Item *it = evnew();
  evsetTitle(it, title);
  it->timeValue.start.time = int32_t(start), it->timeValue.end.time = int32_t(start + 1800);
  it->randomId = 100 + evlistCount(list);
  setbit(&it->calendars, 0, 1), setbit(&it->calendars, 1, 1);
  for (int u : x) setbit(&it->setX, u, 1);
  for (int u : y) setbit(&it->setY, u, 1);
  for (int u : n) setbit(&it->setN, u, 1);
  for (const A &a : alarms) AddAlarm(it, a.user, uint32_t(a.start), uint32_t(a.freq), a.string);
  evlistAppend(list, it);
  return it;
}

// A day of alice's items, and around it one of the day before and one of the next.
void dayOfItems(Item *list) {
  evlistInit(list);
  makeItem(list, "Yesterday", at(0, 0) - 60, {{0, 0, 1}});
  makeItem(list, "Standup", at(10, 0), {{0, 15, 5}, {1, 60, 1}});
  makeItem(list, "Lunch", at(12, 0), {{1, 10, 5}});           // alice: her default
  makeItem(list, "Review", at(9, 30), {{0, 60, 20, "room 4"}});  // 8:30 and 8:50 are past
  makeItem(list, "Off", at(11, 0), {{0, 10, 0}});               // switched off: no default
  makeItem(list, "Skipped", at(14, 0), {{0, 10, 10}}, {0});     // alice excluded
  makeItem(list, "Pending", at(15, 0), {{0, 10, 10}}, {}, {0});  // in Y, not in N
  makeItem(list, "Answered", at(16, 0), {{0, 0, 1}}, {}, {0}, {0});
  makeItem(list, "Early", at(9, 0), {{0, 0, 1}});               // due this very minute
  makeItem(list, "Tomorrow", at(24 + 8, 0), {{0, 0, 1}});
}

const Lines aliceDay = {"09:00 Early",    "09:10 Review",   "09:30 Review",  "09:45 Standup",
                        "09:50 Standup",  "09:55 Standup",  "10:00 Standup", "11:30 Lunch",
                        "12:00 Lunch",    "16:00 Answered"};

class AlarmDayTest : public AlarmTest {
 protected:
  std::string events() { return root + "/db/database/events/alice"; }
  void SetUp() override {
    AlarmTest::SetUp();
    Item list;
    dayOfItems(&list);
    std::string text;
    ASSERT_EQ(writeList(&text, &list), 0);
    freeListHead(&list);
    std::ofstream(events()) << text;
    // Two records for alice: the first one counts.
    std::ofstream(root + "/db/database/alarm.def")
        << "\n#A\t30,30\n#V\talice\n\n#A\t5,5\n#V\talice\n\n#A\t1,1\n#V\tbob\n";
    recordTimer();
  }
  void touch(const std::string &path, time_t when) {
    struct timeval tv[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(path.c_str(), tv), 0);
  }
};

TEST_F(AlarmDayTest, ALocalDayMatchesTheHandComputedScheduleOfEachUser) {
  setAlarmTrace(true);
  testing::internal::CaptureStderr();
  EXPECT_EQ(CheckAlarmlists(db, -1), 1);
  std::string trace = testing::internal::GetCapturedStderr();
  EXPECT_EQ(trace.rfind("CheckAlarmlists: reparsing alarmlists\nevent Early in 0 seconds\n"
                        "event Review in 600 seconds\n", 0), 0u);
  EXPECT_EQ(queueText(), aliceDay);
  EXPECT_EQ(armed, (std::vector<long>{1000}));  // Early is due now
  EXPECT_EQ(armedFor[0]->cookie, 100 + 8);
  EXPECT_STREQ(alarmQueue(nullptr, nullptr)[1].string, "room 4");
  setAlarmTrace(false);
  // Nothing changed: no rebuild. A newer file rebuilds from the new now.
  EXPECT_EQ(CheckAlarmlists(db, 0), 0);
  clockNow = at(9, 6);
  touch(events(), at(9, 5));
  EXPECT_EQ(CheckAlarmlists(db, 0), 1);
  EXPECT_EQ(queueText(), Lines(aliceDay.begin() + 1, aliceDay.end()));
  EXPECT_EQ(armed.back(), 4 * 60000);
  EXPECT_EQ(cancels, 1);  // the rebuild stopped the armed timer
  // A new day rebuilds although the file did not change.
  clockNow = at(24 + 7, 0);
  EXPECT_EQ(CheckAlarmlists(db, 0), 1);
  EXPECT_EQ(queueText(), (Lines{"32:00 Tomorrow"}));
  // A user without a calendar file falls back to the own calendar.
  clockNow = at(9, 0, 30);
  forgetAlarmParse();
  EXPECT_EQ(CheckAlarmlists(db, 7), 1);
  EXPECT_EQ(queueText(), aliceDay);
  // Bob's day: Standup 60/1 from 9:00 to 10:00; Lunch 10/5; his default 1/1 where he
  // has none.
  std::filesystem::copy_file(events(), root + "/db/database/events/bob");
  forgetAlarmParse();
  EXPECT_EQ(CheckAlarmlists(db, 1), 1);
  Lines q = queueText();
  EXPECT_EQ(q.size(), 61u + 3 + 2 + 2 + 2 + 2 + 2 + 1);  // Early: only 9:00 is not past
  auto isStandup = [](const std::string &l) { return l.find("Standup") != l.npos; };
  EXPECT_EQ(std::count_if(q.begin(), q.end(), isStandup), 61);
  EXPECT_EQ(Lines(q.end() - 4, q.end()),
            (Lines{"14:59 Pending", "15:00 Pending", "15:59 Answered", "16:00 Answered"}));
}

TEST_F(AlarmDayTest, AServerCalendarsDayComesFromTheServer) {
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  DbHandle *remote = newDbHandle((root + "/db/database").c_str(), "srv", 0);
  remote->server = newServerLink(calAddress(&server).c_str());
  remote->server->waitMs = 3000;
  installAliceAndBob(remote);
  Item list;
  dayOfItems(&list);
  Buf *b = NewBuf();
  b->peerMajor = 1, b->peerMinor = 6;
  writeEventList(b, &list);
  std::string items(reinterpret_cast<char *>(bufData(b)), bufUsed(b));
  freeBuf(b), evlistFree(&list);
  std::string def = std::string("\0\0\0\0\0\0\0\x1e\0\0\0\x1e", 12);  // alice 30,30
  calScript(&server, {calReply({calBytes(2, ""), calNumber(7)}), calReply({calBytes(53, items)}),
                      calReply({calBytes(7, def)}), calReply({calBytes(2, ""), calNumber(7)}),
                      calReply({calBytes(2, ""), calNumber(8)})});
  EXPECT_EQ(CheckAlarmlists(remote, 0), 1);
  EXPECT_EQ(queueText(), aliceDay);
  EXPECT_EQ(CheckAlarmlists(remote, 0), 0);  // the same change count
  EXPECT_EQ(CheckAlarmlists(remote, 0), 1);  // a new count; the day cannot be loaded
  EXPECT_TRUE(queueText().empty());
  std::vector<CalRequest> requests = calRequests(&server);
  std::string codes;
  for (const CalRequest &r : requests) codes += std::to_string(r.code) + " ";
  EXPECT_EQ(codes, "104 101 114 104 104 101 101 101 101 ");
  const CalRequest &query = requests[1];  // W s e k, then the user and two zeros
  ASSERT_EQ(query.fields.size(), 7u);
  EXPECT_EQ(calFieldNumber(query.fields[1]), int32_t(at(0, 0)));
  EXPECT_EQ(calFieldNumber(query.fields[2]), int32_t(at(24, 0)));
  EXPECT_EQ(calFieldText(requests[0].fields[1]), "alice");
  releaseUsers(remote), freeServerLink(remote->server), remote->server = nullptr;
  stopCalServer(&server);
}

class AlarmDefaultTest : public AlarmTest {
 protected:
  std::string file() { return root + "/db/database/alarm.def"; }
};

TEST_F(AlarmDefaultTest, WrittenDefaultsReadBackTheFirstRecordOfAUserWinsARefusedWriteKeepsThem) {
  EXPECT_EQ(GetDefaultAlarmlist(db, file().c_str())->listBCount, 0);  // no file: no defaults
  // A line end in the string would start a record line of its own: it is cut there.
  EXPECT_EQ(PutDefaultAlarm(0, 10, 5, "tea\n#V\tbob"), 0);
  EXPECT_EQ(PutDefaultAlarm(1, 0, 0, nullptr), 0);
  EXPECT_EQ(PutDefaultAlarm(0, 20, 5, "tea"), 0);
  EXPECT_EQ(slurp(file()), "\n#A\t20,5\n#E\ttea\n#V\talice\n\n#A\t0,0\n#V\tbob\n");
  struct stat st;
  ASSERT_EQ(stat(file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_FALSE(std::filesystem::exists(file() + "TMP"));
  EXPECT_EQ(currentDefaultAlarm()->start, 20u);
  // Another writer's file, with bob twice and a record without a user.
  std::ofstream(file()) << "\n#A\t7,7\n#V\tbob\n\n#A\t8,8\n#E\tno\n#V\tbob\n"
                           "\n#A\t3,3\n\n#A\t1,2\n#E\tx\n#V\talice\n";
  struct timeval tv[2] = {{1000000, 0}, {1000000, 0}};
  utimes(file().c_str(), tv);
  Item *list = GetDefaultAlarmlist(db, file().c_str());
  EXPECT_EQ(alarmsText(list), "1:7/7:- -1:3/3:- 0:1/2:x ");
  EXPECT_EQ(currentDefaultAlarm()->start, 1u);  // alice's entry of the list read anew
  EXPECT_EQ(GetDefaultAlarmlist(db, file().c_str()), list);  // unchanged: kept
  // A refused write leaves the old file.
  std::string old = slurp(file());
  std::filesystem::create_directory(file() + "TMP");  // the scratch cannot be opened
  testing::internal::CaptureStderr();
  EXPECT_EQ(PutDefaultAlarm(1, 1, 1, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "PutDefaultAlarm: cannot write out tmp file\n");
  EXPECT_EQ(slurp(file()), old);
  std::filesystem::remove(file() + "TMP");
  std::filesystem::remove(file());
  std::filesystem::create_directories(file() + "/inside");  // the old "file" cannot go
  tv[0].tv_sec = tv[1].tv_sec = 2000000;
  utimes(file().c_str(), tv);  // and it reads as a changed, empty file
  testing::internal::CaptureStderr();
  EXPECT_EQ(PutDefaultAlarm(1, 1, 1, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "PutDefaultAlarm: cannot unlink old alarm defaults file\n");
  EXPECT_EQ(slurp(file() + "TMP"), "\n#A\t1,1\n#V\tbob\n");  // the directory read as empty
  // A per-user database keeps its own file under HOME.
  std::string home = root + "/home", oldHome = getenv("HOME") ? getenv("HOME") : "";
  std::filesystem::create_directories(home + "/.quorvel/db/database");
  setenv("HOME", home.c_str(), 1);
  DbHandle *own = newDbHandle((home + "/.quorvel/db/database").c_str(), "own", 0);
  setCurrentDb(own);
  installAliceAndBob(own);
  EXPECT_EQ(alarmDefaultsPath(own), home + "/.quorvel/db/database/alarm.def");
  EXPECT_EQ(PutDefaultAlarm(0, 4, 4, nullptr), 0);
  EXPECT_EQ(slurp(alarmDefaultsPath(own)), "\n#A\t4,4\n#V\talice\n");
  setCurrentDb(db), releaseUsers(own);
  setenv("HOME", oldHome.c_str(), 1);
}

TEST_F(AlarmDefaultTest, AServerCalendarSendsItsDefaultToTheServer) {
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  db->server = newServerLink(calAddress(&server).c_str());
  db->server->waitMs = 3000;
  EXPECT_EQ(PutDefaultAlarm(1, 15, 5, "ring"), 0);
  EXPECT_EQ(PutDefaultAlarm(0, 258, 0, nullptr), 0);
  std::vector<CalRequest> sent = calRequests(&server);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].code, 115);
  ASSERT_EQ(sent[0].fields.size(), 1u);
  EXPECT_EQ(sent[0].fields[0].kind, 7);
  EXPECT_EQ(std::string(sent[0].fields[0].payload.begin(), sent[0].fields[0].payload.end()),
            std::string("\0\0\0\1\0\0\0\x0f\0\0\0\5ring\0", 17));
  EXPECT_EQ(sent[1].fields[0].payload, (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0}));
  EXPECT_EQ(currentDefaultAlarm()->start, 258u);
  EXPECT_FALSE(std::filesystem::exists(file()));
  freeServerLink(db->server), db->server = nullptr;
  stopCalServer(&server);
}

}  // namespace
}  // namespace quorvel
