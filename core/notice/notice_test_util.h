// notice_test_util.h -- a fresh process state for the notice tests: a temporary
// installation root (QUORVELPATH) with "db/database", the default database as main and
// current context holding calendars 0 anna, 1 bob (no address at all), 2 carl, 3 dora
// (login only), an item "Lunch", default settings, UTC clock texts, and file helpers.
#pragma once

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/items/item.h"
#include "core/net/calset.h"
#include "core/notice/notice.h"
#include "core/people/users.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace quorvel {

// 2026-06-05 at hour:minute, UTC.
inline int32_t juneFifth(int hour, int minute) {
  struct tm tm {};
  tm.tm_year = 126, tm.tm_mon = 5, tm.tm_mday = 5, tm.tm_hour = hour, tm.tm_min = minute;
  return static_cast<int32_t>(timegm(&tm));
}

inline std::string readFile(const std::string &path) {
  std::stringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}
inline bool has(const std::string &text, const std::string &part) {
  return text.find(part) != text.npos;
}
// The scratch message named by a traced command line "(cat /tmp/T<n>.qvl | ...".
inline std::string scratchOf(const std::string &command) {
  return command.size() > 5 ? command.substr(5, command.find(' ', 5) - 5) : "";
}
// Names in dir that start with prefix.
inline std::vector<std::string> filesIn(const std::string &dir, const std::string &prefix) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::string(e->d_name).rfind(prefix, 0) == 0) names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}
// The scratch files /tmp/<prefix>... that hold text.
inline std::vector<std::string> scratchesHolding(const std::string &prefix, const std::string &text) {
  std::vector<std::string> paths;
  for (const std::string &n : filesIn("/tmp", prefix))
    if (has(readFile("/tmp/" + n), text)) paths.push_back("/tmp/" + n);
  return paths;
}

struct Sent {
  int rc;                // the delivery's result
  std::string err, msg;  // standard error (the traced command, warnings); the scratch
  int mode;              // message of a traced command and its mode
};

class NoticeTest : public ::testing::Test {
 protected:
  std::string root;
  DbHandle *main = nullptr;
  Item *item = nullptr;

  void SetUp() override {
    char tmpl[] = "/tmp/qvnoticeXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    mkdir((root + "/db").c_str(), 0755), mkdir((root + "/db/database").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1), setenv("TZ", "UTC", 1), tzset();
    resetDbContexts(), resetUsers(), resetNotice(), resetBase();
    main = openDefaultDb();
    addCalendarName(nullptr, "anna", "ak", "anna@quorvel.test", "Anna");
    addCalendarName(nullptr, "bob", "", "", "");
    addCalendarName(nullptr, "carl", "ck", "carl@quorvel.test", "");
    addCalendarName(nullptr, "dora", "dora@quorvel.test", "", "");
    item = evnew(), evsetTitle(item, "Lunch");
  }
  void TearDown() override {
    evfree(item), releaseUsers(main), resetDbContexts(), resetUsers(), resetNotice();
    EXPECT_EQ(system(("rm -rf '" + root + "'").c_str()), 0);
  }
  void writeFile(const std::string &rel, const std::string &text) {
    std::ofstream(root + "/" + rel, std::ios::binary) << text;
  }
  static MailSettings mailer(const std::string &command, bool trace = true) {
    return MailSettings{command, "", "", trace};
  }
  static CalSet setOf(const std::vector<int> &members) {
    CalSet set = nullptr;
    for (int i : members) setbit(&set, i, 1);
    return set;
  }
  // fn's result and standard error; a traced command's scratch message is read, then removed.
  static Sent traced(const std::function<int()> &fn) {
    testing::internal::CaptureStderr();
    int rc = fn();
    Sent s{rc, testing::internal::GetCapturedStderr(), "", 0};
    if (size_t at = s.err.find("(cat /tmp/T"); at != s.err.npos) {  // after any warnings
      std::string name = scratchOf(s.err.substr(at));
      struct stat st {};
      s.msg = readFile(name), stat(name.c_str(), &st), s.mode = st.st_mode & 07777;
      unlink(name.c_str());
    }
    return s;
  }
  Sent send(const std::vector<int> &to, int op, const char *sender = "anna", int index = 0,
            int32_t start = juneFifth(12, 5), const char *description = "Lunch at noon") {
    CalSet set = setOf(to);
    Sent s = traced([&] { return deliverMail(item, sender, index, set, op, description, start); });
    freebits(&set);
    return s;
  }
};

}  // namespace quorvel
