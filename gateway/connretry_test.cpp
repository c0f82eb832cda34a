// connretry_test.cpp -- connection set-up under failures loopback cannot produce on
// demand (EAGAIN and ETIMEDOUT from connect, a failing socket option). This binary is
// linked with -Wl,--wrap=connect,--wrap=setsockopt: the wrappers below fail as scripted
// and otherwise hand the call to the real function.
#include "gateway/agentlink.h"
#include "gateway/gateway.h"
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
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

using namespace test;

struct ConnRetry : AgentFixture {
  void SetUp() override {
    connectFailures = setsockoptFailures = 0;
    resetGateway();
    start();
  }
  void TearDown() override {
    resetGateway();
    AgentFixture::TearDown();
  }
};

TEST_F(ConnRetry, RetriesEagainAndTimeOutsTwentyTimesOneSecondApart) {
  struct Row { int failures, err, calls; bool connected; } rows[] = {
      {5, ETIMEDOUT, 6, true},
      {20, EAGAIN, 21, true},  // the twentieth retry is the last that may still succeed
      {1000, EAGAIN, 21, false},
      {1000, ENETUNREACH, 1, false},  // any other error ends set-up at once
  };
  for (const Row &r : rows) {
    connectFailures = r.failures;
    connectErrno = r.err;
    connectCalls = 0;
    PauseRecorder pauses;
    int sock = makeConnection("127.0.0.1", offset());
    EXPECT_EQ(sock >= 0, r.connected) << r.failures << " " << r.err;
    EXPECT_EQ(r.connected ? r.err : errno, r.err);
    EXPECT_EQ(connectCalls, r.calls);
    EXPECT_EQ(pauses.total(), r.err == ENETUNREACH ? 0u : std::min(r.failures, 21) * 1u);
    closeSocket(sock);
  }
}

TEST_F(ConnRetry, AFailedSocketOptionShowsMessageZeroAndGoesOn) {
  setsockoptFailures = 1;
  setPageValues(nullptr, nullptr, "De");
  int sock = -1;
  std::string page = stdoutOf([&] { sock = makeConnection("127.0.0.1", offset()); });
  EXPECT_GE(sock, 0);
  closeSocket(sock);
  EXPECT_EQ(page, errorPageText(GERMAN_HEADING, "makeConnection: setsockopt: 22"));
}

}  // namespace
}  // namespace quorvel::gateway
