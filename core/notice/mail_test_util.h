// mail_test_util.h -- mail notices under test: calendars with and without addresses, an
// item, and deliverMail run with its diagnostics captured.
#pragma once

#include "core/items/item.h"
#include "core/net/calset.h"
#include "core/notice/notice_test_util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <initializer_list>

namespace quorvel {

// 2026-06-05 at hour:minute, UTC (the fixture's clock texts are in UTC).
inline int32_t juneFifth(int hour, int minute) {
  struct tm tm {};
  tm.tm_year = 126, tm.tm_mon = 5, tm.tm_mday = 5, tm.tm_hour = hour, tm.tm_min = minute;
  return static_cast<int32_t>(timegm(&tm));
}

struct Sent {
  int rc;               // deliverMail's result
  std::string err;      // standard error (the traced command, warnings)
  std::string message;  // the traced scratch message, removed after reading
  int mode = 0;         // its permission bits
};

class MailTest : public NoticeTest {
 protected:
  Item *item = nullptr;  // "Lunch", an event

  // Calendars 0 anna, 1 bob (no address at all), 2 carl, 3 dora (login only).
  void SetUp() override {
    NoticeTest::SetUp();
    addCalendarName(nullptr, "anna", "ak", "anna@quorvel.test", "Anna");
    addCalendarName(nullptr, "bob", "", "", "");
    addCalendarName(nullptr, "carl", "ck", "carl@quorvel.test", "");
    addCalendarName(nullptr, "dora", "dora@quorvel.test", "", "");
    item = evnew();
    evsetTitle(item, "Lunch");
  }
  void TearDown() override {
    evfree(item);
    NoticeTest::TearDown();
  }
  static MailSettings mailer(const std::string &command, bool trace = true) {
    MailSettings s;
    s.mailer = command, s.trace = trace;
    return s;
  }
  Sent send(std::initializer_list<int> to, int op, const char *sender = "anna", int index = 0,
            int32_t start = juneFifth(12, 5), const char *description = "Lunch at noon") {
    CalSet set = nullptr;
    for (int i : to) setbit(&set, i, 1);
    testing::internal::CaptureStderr();
    int rc = deliverMail(item, sender, index, set, op, description, start);
    Sent s{rc, testing::internal::GetCapturedStderr(), ""};
    freebits(&set);
    size_t at = s.err.find("(cat /tmp/T");
    if (at != std::string::npos) {
      std::string name = s.err.substr(at + 5, s.err.find(' ', at + 5) - at - 5);
      s.message = readFile(name);
      struct stat st {};
      if (stat(name.c_str(), &st) == 0) s.mode = st.st_mode & 07777;
      unlink(name.c_str());
    }
    return s;
  }
};

}  // namespace quorvel
