// alarmdefault_test.cpp -- default alarms: the file written and read back, its refused
// writes, a per-user database's own file, and a server calendar's defaults.
#include <sys/time.h>

#include "core/alarm/alarm_test_util.h"
#include "core/net/link.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

class AlarmDefaultTest : public AlarmTest {
 protected:
  std::string file() { return root + "/db/database/alarm.def"; }
};

TEST_F(AlarmDefaultTest, WrittenDefaultsReadBackAndTheFirstRecordOfAUserWins) {
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
}

TEST_F(AlarmDefaultTest, ARefusedWriteLeavesTheOldFile) {
  ASSERT_EQ(PutDefaultAlarm(0, 10, 5, nullptr), 0);
  std::string old = slurp(file());
  std::filesystem::create_directory(file() + "TMP");  // the scratch cannot be opened
  testing::internal::CaptureStderr();
  EXPECT_EQ(PutDefaultAlarm(1, 1, 1, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "PutDefaultAlarm: cannot write out tmp file\n");
  EXPECT_EQ(slurp(file()), old);
  std::filesystem::remove(file() + "TMP");
  std::filesystem::remove(file());
  std::filesystem::create_directories(file() + "/inside");  // the old "file" cannot go
  struct timeval tv[2] = {{1000000, 0}, {1000000, 0}};
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
