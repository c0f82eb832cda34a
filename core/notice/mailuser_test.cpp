// The effective-user switch around the mailer: `system` is interposed at link time and
// records the effective user it was called under (a shell started with differing real
// and effective users drops to the real one by itself, so the shell cannot tell).
#include "core/notice/notice_test_util.h"

#include "core/net/link.h"

static int systemCalls;   // calls made
static uid_t systemEuid;  // the effective user of the last one

extern "C" int __wrap_system(const char *) {
  systemCalls++, systemEuid = geteuid();
  return 0;
}

using namespace quorvel;

TEST_F(NoticeTest, TheMailerRunsAsTheRealUserUnlessTheDatabaseIsReachedThroughAServer) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to set the real user apart";
  setMailSettings(mailer("sendmail", false));
  CalSet to = nullptr;
  setbit(&to, 0, 1);
  for (auto [server, during] : {std::pair{false, 65534u}, {true, 0u}}) {
    if (server) main->server = newServerLink("127.0.0.1:1");  // never connected here
    ASSERT_EQ(setresuid(65534, 0, 0), 0);  // a set-user program: real 65534, effective 0
    int rc = deliverMail(item, "anna", 0, to, 1, "x", 0);
    uid_t after = geteuid();
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    EXPECT_TRUE(rc == 0 && systemCalls == 1 && systemEuid == during && after == 0) << server;
    systemCalls = 0;
    if (server) freeServerLink(main->server), main->server = nullptr;
  }
  freebits(&to);
  for (const std::string &path : scratchesHolding("T", "1970:\n\n\tx\n"))
    unlink(path.c_str());  // nothing ran to remove the messages
}
