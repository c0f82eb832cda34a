// alarm_test_util.h -- the alarm tests' fixture: a temporary installation root holding
// "db/database/events", the main database with the calendars alice (0) and bob (1),
// alice as the own calendar, local time UTC, a settable clock, and what the announce
// and timer hooks received.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/alarm/alarm.h"
#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/db/context.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/users.h"

namespace quorvel {
namespace {

using Lines = std::vector<std::string>;
time_t clockNow;                      // what currentTime() answers
Lines announced;                      // "event|minutes|string" per announcement
std::vector<long> armed;              // delays handed to the timer-start hook
std::vector<AlarmQEntry *> armedFor;  // and their entries
int cancels;                          // calls of the cancel hook

// 2030-05-14 (a Tuesday) at h:m:s, UTC.
inline time_t at(int h, int m, int s = 0) { return 1904947200 + h * 3600 + m * 60 + s; }

inline std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// An item's alarm list as "user:start/freq:string " per alarm.
inline std::string alarmsText(const Item *item) {
  std::string out;
  for (int i = 0; i < item->listBCount; i++) {
    const Alarm &a = item->listB[i];
    out += std::to_string(a.user) + ":" + std::to_string(a.start) + "/" +
           std::to_string(a.freq) + ":" + (a.string ? a.string : "-") + " ";
  }
  return out;
}

// Gives a database the calendars alice and bob.
inline void installAliceAndBob(DbHandle *db) {
  UserList *users = newUserList();
  addUserEntry(users, "alice", "alice", "", "", 0), addUserEntry(users, "bob", "bob", "", "", 0);
  installUserList(db, users);
}

class AlarmTest : public ::testing::Test {
 protected:
  std::string root;
  DbHandle *db = nullptr;

  void SetUp() override {
    char tmpl[] = "/tmp/qvalarmXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    std::filesystem::create_directories(root + "/db/database/events");
    std::filesystem::create_directories(root + "/db/database/locks");
    setenv("QUORVELPATH", root.c_str(), 1), setenv("TZ", "UTC0", 1), tzset();
    unsetenv("NOQUORVELCATGETS");
    resetAll();
    clockNow = at(9, 0, 30), announced.clear(), armed.clear(), armedFor.clear(), cancels = 0;
    setClockHook([] { return clockNow; });
    setPauseHook([](unsigned) {});
    db = newDbHandle((root + "/db/database").c_str(), nullptr, 0);
    setMainDb(db), setCurrentDb(db);
    installAliceAndBob(db);
    setOwnCalendar(0);
    SetAlarmNotify([](const char *e, int m, const char *s) {
      announced.push_back(std::string(e) + "|" + std::to_string(m) + "|" + (s ? s : "(null)"));
    });
  }
  void TearDown() override { resetAll(), std::filesystem::remove_all(root); }
  void resetAll() {
    resetAlarms(), releaseUsers(db), resetDbContexts(), resetIdentity(), resetUsers();
    resetNameLookup(), resetCatalog(), resetBase();
    db = nullptr;
  }
  // The client timer: records the delay and the entry, returns a fresh id.
  void recordTimer() {
    SetAlarmTimerStart([](long ms, AlarmHandler, AlarmQEntry *e) {
      armed.push_back(ms), armedFor.push_back(e);
      return long(armed.size());
    });
    SetAlarmTimerCancel([](long) { cancels++; });
  }
  // The queue as "hh:mm event" lines, from the first entry.
  static Lines queueText() {
    int count;
    const AlarmQEntry *q = alarmQueue(&count, nullptr);
    Lines out;
    char line[300];
    for (int i = 0, t; i < count && (t = q[i].alarmTime - int32_t(at(0, 0))) >= 0; i++) {
      snprintf(line, sizeof line, "%02d:%02d %s", t / 3600, t / 60 % 60, q[i].event);
      out.push_back(line);
    }
    return out;
  }
};

}  // namespace
}  // namespace quorvel
