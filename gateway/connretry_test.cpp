// connretry_test.cpp -- connection set-up under failures loopback cannot produce: linked
// with --wrap=connect,--wrap=setsockopt, the wrappers below fail as scripted.
#include "gateway/agentlink.h"
#include "gateway/gateway.h"
#include "gateway/test_support.h"
#include <algorithm>

// Connect calls still to fail, with which errno, calls seen; SO_REUSEADDR sets to fail.
static int connectFailures, connectErrno, connectCalls, setsockoptFailures;
extern "C" int __real_connect(int fd, const sockaddr *addr, socklen_t len);
extern "C" int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t len);
extern "C" int __wrap_connect(int fd, const sockaddr *addr, socklen_t len) {
  connectCalls++;
  if (connectFailures > 0) return connectFailures--, errno = connectErrno, -1;
  return __real_connect(fd, addr, len);
}
extern "C" int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t len) {
  if (level == SOL_SOCKET && name == SO_REUSEADDR && setsockoptFailures > 0)
    return setsockoptFailures--, errno = EINVAL, -1;
  return __real_setsockopt(fd, level, name, value, len);
}

namespace quorvel::gateway {
struct ConnRetry : AgentFixture {
  void SetUp() override { connectFailures = setsockoptFailures = 0, resetGateway(), start(); }
  void TearDown() override { resetGateway(), AgentFixture::TearDown(); }
};

TEST_F(ConnRetry, RetriesEagainAndTimeOutsTwentyTimesOneSecondApart) {
  struct Row { int failures, err, calls; bool connected; } rows[] = {
      {20, ETIMEDOUT, 21, true},  // the twentieth retry is the last that may still succeed
      {1000, EAGAIN, 21, false},
      {1000, ENETUNREACH, 1, false},  // any other error ends set-up at once
  };
  for (const Row &r : rows) {
    connectFailures = r.failures, connectErrno = r.err, connectCalls = 0;
    PauseRecorder pauses;
    int sock = makeConnection("127.0.0.1", offset()), err = errno;
    EXPECT_EQ(sock >= 0 ? 0 : err, r.connected ? 0 : r.err) << r.failures << " " << r.err;
    EXPECT_EQ(connectCalls, r.calls);
    EXPECT_EQ(pauses.seconds, r.err == ENETUNREACH ? 0u : std::min(r.failures, 21) * 1u);
    closeSocket(sock);
  }
}
TEST_F(ConnRetry, AFailedSocketOptionShowsMessageZeroAndGoesOn) {
  setsockoptFailures = 1;
  setPageValues(nullptr, nullptr, "De");
  int sock = -1;
  EXPECT_EQ(outputOf([&] { sock = makeConnection("127.0.0.1", offset()); }),
            errorPageText(GERMAN_HEADING, "makeConnection: setsockopt: 22"));
  EXPECT_GE(sock, 0);
  closeSocket(sock);
}
}  // namespace quorvel::gateway
