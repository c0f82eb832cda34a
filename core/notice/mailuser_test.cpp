// The effective-user switch around the mailer: `system` is interposed at link time and
// records the effective user it was called under (a shell started with differing real
// and effective users drops to the real one by itself, so the shell cannot tell).
#include "core/notice/mail_test_util.h"

#include "core/net/link.h"

static int systemCalls;
static uid_t systemEuid;

extern "C" int __wrap_system(const char *) {
  systemCalls++, systemEuid = geteuid();
  return 0;
}

using namespace quorvel;

TEST_F(MailTest, TheMailerRunsAsTheRealUserUnlessTheDatabaseIsReachedThroughAServer) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to set the real user apart";
  setMailSettings(mailer("sendmail", false));
  CalSet to = nullptr;
  setbit(&to, 0, 1);
  struct Row {
    bool server;
    uid_t during;
  } rows[] = {{false, 65534}, {true, 0}};
  for (const Row &r : rows) {
    if (r.server) main->server = newServerLink("127.0.0.1:1");  // never connected here
    ASSERT_EQ(setresuid(65534, 0, 0), 0);  // a set-user program: real 65534, effective 0
    int rc = deliverMail(item, "anna", 0, to, 1, "x", 0);
    uid_t after = geteuid();
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    EXPECT_TRUE(rc == 0 && systemCalls == 1 && systemEuid == r.during && after == 0)
        << r.server << " " << systemEuid;
    systemCalls = 0;
    if (r.server) freeServerLink(main->server), main->server = nullptr;
  }
  freebits(&to);
  for (const std::string &n : filesIn("/tmp", "T"))  // nothing ran to remove the messages
    if (n.size() > 4 && n.substr(n.size() - 4) == ".qvl" &&
        readFile("/tmp/" + n).find("1970:\n\n\tx\n") != std::string::npos)
      unlink(("/tmp/" + n).c_str());
}
