// connretry_test.cpp -- connection set-up under failures loopback cannot produce on
// demand (EAGAIN and ETIMEDOUT from connect, a failing socket option). This binary is
// linked with -Wl,--wrap=connect,--wrap=setsockopt: the wrappers below fail as scripted
// and otherwise hand the call to the real function.
#include "gateway/agentlink.h"
#include "gateway/gateway.h"
#include "gateway/test_support.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <sys/socket.h>

// The script of the interposed calls (set by the tests, read by the wrappers).
static int connectFailures;      // connect calls still to fail
static int connectErrno;         // the errno they fail with
static int connectCalls;         // connect calls seen
static int setsockoptFailures;   // SO_REUSEADDR settings still to fail

extern "C" int __real_connect(int fd, const sockaddr *addr, socklen_t len);
extern "C" int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t len);

extern "C" int __wrap_connect(int fd, const sockaddr *addr, socklen_t len) {
  connectCalls++;
  if (connectFailures > 0) {
    connectFailures--;
    errno = connectErrno;
    return -1;
  }
  return __real_connect(fd, addr, len);
}

extern "C" int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t len) {
  if (level == SOL_SOCKET && name == SO_REUSEADDR && setsockoptFailures > 0) {
    setsockoptFailures--;
    errno = EINVAL;
    return -1;
  }
  return __real_setsockopt(fd, level, name, value, len);
}

namespace quorvel::gateway {
namespace {

using test::PauseRecorder;
using test::StdoutCapture;

struct ConnRetry : ::testing::Test {
  webagent::SampleAgent agent;
  void SetUp() override {
    connectFailures = connectCalls = setsockoptFailures = 0;
    resetGateway();
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override {
    connectFailures = setsockoptFailures = 0;
    webagent::agentStop(&agent);
    resetGateway();
    unsetenv("QUERY_STRING");
  }
  int offset() { return webagent::agentOffset(&agent); }
};

TEST_F(ConnRetry, GivesUpAfter21AttemptsOneSecondApart) {
  connectFailures = 1000;
  connectErrno = EAGAIN;
  PauseRecorder pauses;
  EXPECT_EQ(makeConnection("127.0.0.1", offset()), -1);
  EXPECT_EQ(connectCalls, 21);
  EXPECT_EQ(pauses.count(), 21u);
  EXPECT_EQ(pauses.total(), 21u);
}

TEST_F(ConnRetry, RetriesTimeOutsUntilTheAgentAnswers) {
  connectFailures = 5;
  connectErrno = ETIMEDOUT;
  PauseRecorder pauses;
  int sock = makeConnection("127.0.0.1", offset());
  ASSERT_GE(sock, 0);
  EXPECT_EQ(connectCalls, 6);
  EXPECT_EQ(pauses.count(), 5u);
  closeSocket(sock);
  // The twentieth retry is the last that may still succeed.
  connectCalls = 0;
  connectFailures = 20;
  connectErrno = EAGAIN;
  sock = makeConnection("127.0.0.1", offset());
  EXPECT_GE(sock, 0);
  EXPECT_EQ(connectCalls, 21);
  closeSocket(sock);
}

TEST_F(ConnRetry, OtherConnectErrorsEndAtOnce) {
  connectFailures = 1000;
  connectErrno = ENETUNREACH;
  PauseRecorder pauses;
  EXPECT_EQ(makeConnection("127.0.0.1", offset()), -1);
  EXPECT_EQ(errno, ENETUNREACH);
  EXPECT_EQ(connectCalls, 1);
  EXPECT_EQ(pauses.count(), 0u);
}

TEST_F(ConnRetry, AFailedSocketOptionShowsMessageZeroAndGoesOn) {
  setsockoptFailures = 1;
  setPageValues(nullptr, nullptr, "De");
  StdoutCapture out;
  int sock = makeConnection("127.0.0.1", offset());
  std::string page = out.take();
  EXPECT_GE(sock, 0);
  closeSocket(sock);
  EXPECT_EQ(page.rfind("Content-type: text/html\n\n\n", 0), 0u);
  EXPECT_NE(page.find("<h3>Fehler bei der Verarbeitung Ihrer Anforderung:</h3>\n"
                      "<h4>makeConnection: setsockopt: 22</h4>\n"),
            std::string::npos)
      << page;
}

TEST_F(ConnRetry, TheCycleShowsMessageTwoAfterTheLastAttempt) {
  connectFailures = 1000;
  connectErrno = ETIMEDOUT;
  std::string query = "hn=127.0.0.1:" + std::to_string(offset()) + "&lan=De";
  setenv("QUERY_STRING", query.c_str(), 1);
  PauseRecorder pauses;
  StdoutCapture out;
  char prog[] = "webquorvel";
  char *argv[] = {prog, nullptr};
  EXPECT_EQ(runRequest(1, argv), 255);
  std::string page = out.take();
  EXPECT_EQ(pauses.count(), 21u);
  EXPECT_NE(page.find("<h4>Verbindung mit Quorvel-Webagent auf Host 127.0.0.1 nicht m\xF6glich</h4>"),
            std::string::npos)
      << page;
  EXPECT_TRUE(webagent::agentRequests(&agent).empty());
}

}  // namespace
}  // namespace quorvel::gateway
