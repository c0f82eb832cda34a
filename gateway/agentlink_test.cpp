// agentlink_test.cpp -- the agent link against the sample agent on loopback: the bytes
// sent, every receipt limit, decoding, and the slow paths (empty reads, EAGAIN rounds,
// write stalls, close retries) through the recording pause hook with small time-outs.
#include "gateway/agentlink.h"
#include "gateway/test_support.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace quorvel::gateway {
namespace {

using namespace test;
using webagent::AgentMode;

constexpr int QUICK = 5;  // select time-out where the peer answers at once

std::string word(uint32_t v) {
  uint32_t net = htonl(v);
  return std::string(reinterpret_cast<const char *>(&net), 4);
}

// A message by hand: the header words with the count given, then the body.
std::string message(uint32_t count, const std::string &body) {
  return word(AGENT_MAGIC) + word(count) + word(static_cast<uint32_t>(12 + body.size())) + body;
}

std::string entry(const std::string &name, const std::string &contents, uint32_t len = 0) {
  auto pad = [](const std::string &s) { return s + std::string(4 - s.size() % 4, '\0'); };
  std::string bytes = pad(name) + pad(contents);
  return word(AGENT_MAGIC) + word(len ? len : static_cast<uint32_t>(8 + bytes.size())) + bytes;
}

struct LinkTest : AgentFixture {
  NamePair *pairs = nullptr;
  int count = -1;
  void TearDown() override {
    freePairList(pairs);
    AgentFixture::TearDown();
  }
  // Connects, sends query, and reads the reply into pairs and count.
  int exchange(const std::string &query, int timeout = QUICK, int wait = 1) {
    freePairList(pairs);
    int sock = makeConnection("127.0.0.1", offset());
    EXPECT_GE(sock, 0);
    NamePair *request = newPairList(2);
    request[0] = {strdup(""), strdup(query.c_str())};
    EXPECT_EQ(WebSockWrite(sock, QUICK, request), 0);
    freePairList(request);
    char *buffer = reinterpret_cast<char *>(1);
    int result = readAgentReply(sock, timeout, &buffer, &count, &pairs, wait);
    EXPECT_EQ(buffer, nullptr);  // released by readAgentReply in every case
    closeSocket(sock);
    return result;
  }
};

TEST(WebSockWrite, SendsTheHeaderAndPaddedEntriesAndRefusesBadLists) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  NamePair *pairs = newPairList(3);
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), -3);  // no pairs
  pairs[0] = {strdup(""), nullptr};
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), -3);  // a pair without contents
  pairs[0].contents = strdup("hn=a");                // 4 bytes + NUL: padded to 8
  pairs[1] = {strdup("abc"), strdup("")};            // 3 bytes + NUL: exactly 4
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), 0);
  std::string expected = word(0xDEADBEEF) + word(2) + word(12 + 20 + 16) + word(0xDEADBEEF) +
                         word(20) + std::string(4, '\0') + std::string("hn=a\0\0\0\0", 8) +
                         word(0xDEADBEEF) + word(16) + std::string("abc\0\0\0\0\0", 8);
  std::string got(expected.size() + 16, '?');
  ssize_t n = recv(sv[1], got.data(), got.size(), MSG_DONTWAIT);
  ASSERT_GT(n, 0);
  got.resize(static_cast<size_t>(n));
  EXPECT_EQ(got, expected);  // and nothing from the refused lists before it
  freePairList(pairs);
  // A peer that is gone: the errno comes back positive, after perror.
  signal(SIGPIPE, SIG_IGN);
  close(sv[1]);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(doWebSockWrite(sv[0], QUICK, "abcd", 4), EPIPE);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "socket write: Broken pipe\n");
  close(sv[0]);
}

TEST_F(LinkTest, GathersAReplyDrippedInPiecesIntoItsPairs) {
  webagent::AgentScript drip = scripted(AgentMode::Drip, {{"tmp/one.txt", "one"},
                                                 {"", std::string(3000, 'd')}, {"two", "2"}});
  drip.dripBytes = 5;  // the 12-byte header arrives split too
  start({drip});
  ASSERT_EQ(exchange("hn=127.0.0.1&log=x"), 0);
  EXPECT_EQ(webagent::agentRequests(&agent), std::vector<std::string>{"hn=127.0.0.1&log=x"});
  ASSERT_EQ(count, 3);
  EXPECT_EQ(countPairs(pairs), 3);
  EXPECT_STREQ(pairs[0].name, "tmp/one.txt");
  EXPECT_STREQ(pairs[0].contents, "one");
  EXPECT_STREQ(pairs[1].name, "");
  EXPECT_EQ(std::string(pairs[1].contents), std::string(3000, 'd'));
  EXPECT_STREQ(pairs[2].name, "two");
  EXPECT_STREQ(pairs[2].contents, "2");
}

TEST_F(LinkTest, EnforcesTheReceiptLimits) {
  // 12 header + 8 entry words + 4 for the empty name + contents padded: 0x100000 in all.
  std::string mebibyte(1048551, 'p');
  webagent::AgentScript negative = scripted(AgentMode::Raw);
  negative.raw = word(AGENT_MAGIC) + word(1) + word(0x80000000u) + entry("", "x");
  start({scripted(AgentMode::Pairs, {{"", mebibyte}}), scripted(AgentMode::Oversize),
         scripted(AgentMode::BadMagic), scripted(AgentMode::ExtraBytes, {{"", "page"}}),
         scripted(AgentMode::LongName), negative});
  ASSERT_EQ(exchange("q"), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(std::string(pairs[0].contents), mebibyte);
  for (const char *what : {"0x100001 total", "bad magic", "extra bytes", "257-byte name",
                           "negative total"}) {
    EXPECT_EQ(exchange("q"), -3) << what;
    EXPECT_EQ(pairs, nullptr) << what;
  }
}

TEST_F(LinkTest, LargeContentsArriveWholeBesideTheOtherPairs) {
  // The first large contents take over the received buffer; the others are copied.
  std::string first(70001, 'a'), second(65536, 'b');
  start({scripted(AgentMode::Pairs, {{"tmp/a", first}, {"", second}, {"c", "small"}})});
  ASSERT_EQ(exchange("q"), 0);
  ASSERT_EQ(countPairs(pairs), 3);
  EXPECT_STREQ(pairs[0].name, "tmp/a");
  EXPECT_EQ(std::string(pairs[0].contents), first);
  EXPECT_EQ(std::string(pairs[1].contents), second);
  EXPECT_STREQ(pairs[2].contents, "small");
}

TEST(DecodeAgentMessage, RefusesEntriesThatBreakTheLimitsOrDoNotFit) {
  std::string e = entry("name", "contents");
  struct Row { std::string msg; int count, result; } rows[] = {
      {message(1, entry(std::string(255, 'n'), "c")), 1, 0},  // 256 padded
      {message(1, entry(std::string(256, 'n'), "c")), 1, -3},  // 260 padded
      {message(1, entry("a", "b", 0x100001)), 1, -3},
      {message(1, entry("a", "b", 64)), 1, -3},                    // past the message
      {message(1, word(AGENT_MAGIC) + word(12) + "abcdefgh"), 1, -3},  // no NUL in the entry
      {message(3, e + e), 3, -3},
      {message(0x7FFFFFFF, e), 0x7FFFFFFF, -3},
      {message(1, e), -1, -3},
      {message(2, e + entry("a", "b", 4)), 2, -3},  // a later entry loses the whole list
      {message(0, ""), 0, 0},
  };
  for (const Row &r : rows) {
    NamePair *pairs = reinterpret_cast<NamePair *>(1);
    EXPECT_EQ(decodeAgentMessage(r.msg.data(), static_cast<long>(r.msg.size()), r.count, &pairs),
              r.result) << r.msg.size();
    EXPECT_EQ(countPairs(pairs), r.result == 0 ? r.count : 0);
    freePairList(pairs);
  }
  // The entry's magic is not checked; contents run to the entry's end, NUL or not.
  std::string msg = message(1, word(0) + word(16) + std::string("nm\0\0", 4) + "xyz!");
  NamePair *pairs = nullptr;
  ASSERT_EQ(decodeAgentMessage(msg.data(), static_cast<long>(msg.size()), 1, &pairs), 0);
  EXPECT_STREQ(pairs[0].name, "nm");
  EXPECT_STREQ(pairs[0].contents, "xyz!");
  EXPECT_EQ(pairs[1].name, nullptr);
  freePairList(pairs);
}

TEST_F(LinkTest, GivesUpOnSilenceAfter21EagainRoundsAndOnAClosedPeerAfter101EmptyReads) {
  start({scripted(AgentMode::Silent), scripted(AgentMode::CloseEarly)});
  PauseRecorder pauses;
  EXPECT_EQ(exchange("q", 0), -1);
  // Each round is a select wait and a one-second pause; the 21st round ends it.
  EXPECT_EQ(pauses.count(), 21u);
  EXPECT_EQ(pauses.total(), 21u);
  EXPECT_EQ(exchange("q"), -1);  // waits until the agent has closed; empty reads follow
  EXPECT_EQ(pauses.count(), 31u);  // a pause at reads 10, 20, ... 100
}

TEST(WebSockRead, WithoutWaitingGivesUpAtOnceOnlyWhileTheHeaderIsPending) {
  std::string header = message(1, entry("", "x")).substr(0, 12);
  for (size_t sent : {5, 12}) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    setNonBlocking(sv[0], true);
    ASSERT_EQ(write(sv[1], header.data(), sent), static_cast<ssize_t>(sent));
    PauseRecorder pauses;
    char *buffer = nullptr;
    int count = 0;
    EXPECT_EQ(WebSockRead(sv[0], 0, &buffer, &count, 0), -1);
    EXPECT_EQ(pauses.count(), sent < 12 ? 0u : 21u) << sent;  // else the EAGAIN rounds
    close(sv[0]);
    close(sv[1]);
  }
}

TEST_F(LinkTest, EndsASendAfterTenStallsWithoutAnError) {
  agent.receiveBuffer = 4096;
  start({scripted(AgentMode::NoRead)});
  int sock = makeConnection("127.0.0.1", offset());
  ASSERT_GE(sock, 0);
  int small = 4096;
  setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string big(16 << 20, 'b');
  while (send(sock, big.data(), 65536, MSG_DONTWAIT) > 0) {
  }  // both socket buffers full: every round of the loop below stalls
  PauseRecorder pauses;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(doWebSockWrite(sock, 0, big.data(), static_cast<long>(big.size())), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "doWebSockWrite: EWOULDBLOCK\n");
  EXPECT_EQ(pauses.count(), 10u);
  closeSocket(sock);
}

TEST_F(LinkTest, ConnectsNonBlockingToTheOffsetFrom3726OrFailsAtOnce) {
  start();
  for (int port : {offset(), offset() + 65536, offset() - 65536}) {  // a 16-bit sum
    int sock = makeConnection("127.0.0.1", port);
    ASSERT_GE(sock, 0) << port;
    EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    ASSERT_EQ(getpeername(sock, reinterpret_cast<sockaddr *>(&peer), &len), 0);
    EXPECT_EQ(ntohs(peer.sin_port), agent.port);
    closeSocket(sock);
  }
  int sock = makeConnection("localhost", offset());  // a name goes through the lookup
  EXPECT_GE(sock, 0);
  closeSocket(sock);
  PauseRecorder pauses;
  EXPECT_EQ(makeConnection("127.0.0.1", freeLoopbackPort() - AGENT_PORT_BASE), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(makeConnection("no-such-agent.invalid", 0), -1);
  EXPECT_EQ(makeConnection(nullptr, 0), -1);
  EXPECT_EQ(pauses.count(), 0u);
}

TEST(CloseSocket, RetriesAFailingCloseThreeTimesASecondApart) {
  PauseRecorder pauses;
  closeSocket(-1);
  int fd = dup(2);
  closeSocket(fd);
  EXPECT_EQ(pauses.count(), 0u);
  closeSocket(fd);  // already closed: three retries, then it gives up
  EXPECT_EQ(pauses.count(), 3u);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(setNonBlocking(-1, true), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fcntl: Bad file descriptor\n");
}

}  // namespace
}  // namespace quorvel::gateway
