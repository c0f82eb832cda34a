// agentlink_test.cpp -- the agent link against the sample agent on loopback: the bytes
// sent, every receipt limit, decoding, and the slow paths (empty reads, EAGAIN rounds,
// write stalls) through the recording pause hook with small select time-outs.
#include "gateway/agentlink.h"
#include "gateway/test_support.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace quorvel::gateway {
namespace {

using test::PauseRecorder;
using webagent::AgentMode;
using webagent::AgentPair;
using webagent::AgentScript;

constexpr int QUICK = 5;  // select time-out where the peer answers at once

std::string word(uint32_t v) {
  uint32_t net = htonl(v);
  return std::string(reinterpret_cast<const char *>(&net), 4);
}

// A message by hand: header words then the body, with count and total given.
std::string rawMessage(uint32_t magic, uint32_t count, uint32_t total, const std::string &body) {
  return word(magic) + word(count) + word(total) + body;
}

std::string entry(const std::string &name, const std::string &contents, uint32_t len = 0) {
  auto pad = [](const std::string &s) { return s + std::string(4 - s.size() % 4, '\0'); };
  std::string bytes = pad(name) + pad(contents);
  return word(AGENT_MAGIC) + word(len ? len : static_cast<uint32_t>(8 + bytes.size())) + bytes;
}

// A started sample agent, stopped at the end of the test.
struct LinkTest : ::testing::Test {
  webagent::SampleAgent agent;
  void start(const AgentScript &script, int receiveBuffer = 0) {
    agent.receiveBuffer = receiveBuffer;
    webagent::agentPush(&agent, script);
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override { webagent::agentStop(&agent); }

  // Connects, sends query, and reads the reply with the given time-out and wait flag.
  int exchange(const std::string &query, NamePair **pairs, int *count, int timeout = QUICK,
               int wait = 1) {
    int sock = makeConnection("127.0.0.1", webagent::agentOffset(&agent));
    EXPECT_GE(sock, 0);
    NamePair *request = newPairList(2);
    request[0].name = strdup("");
    request[0].contents = strdup(query.c_str());
    EXPECT_EQ(WebSockWrite(sock, QUICK, request), 0);
    freePairList(request);
    char *buffer = reinterpret_cast<char *>(1);
    int result = readAgentReply(sock, timeout, &buffer, count, pairs, wait);
    EXPECT_EQ(buffer, nullptr);  // released by readAgentReply in every case
    closeSocket(sock);
    return result;
  }

  int replyWith(const std::string &raw) {
    AgentScript script;
    script.mode = AgentMode::Raw;
    script.raw = raw;
    start(script);
    NamePair *pairs = nullptr;
    int count = 0;
    int result = exchange("q=1", &pairs, &count);
    freePairList(pairs);
    return result;
  }
};

TEST(PairList, CountsUpToTheFirstNullNameAndFreesEverything) {
  NamePair *pairs = newPairList(4);
  EXPECT_EQ(countPairs(pairs), 0);
  pairs[0].name = strdup("a");
  pairs[0].contents = strdup("1");
  pairs[1].name = strdup("");
  pairs[1].contents = nullptr;
  EXPECT_EQ(countPairs(pairs), 2);
  EXPECT_EQ(pairs[2].name, nullptr);
  EXPECT_EQ(pairs[3].contents, nullptr);
  freePairList(pairs);  // under ASan a leak or double free shows here
  freePairList(nullptr);
}

TEST(GrowMsg, EnlargesAndKeepsTheBytes) {
  AgentMsg msg{nullptr, 0};
  growMsg(&msg, 4);
  memcpy(msg.bytes, "abcd", 4);
  growMsg(&msg, 1 << 20);
  EXPECT_EQ(msg.size, 4 + (1 << 20));
  EXPECT_EQ(std::string(msg.bytes, 4), "abcd");
  msg.bytes[msg.size - 1] = 'z';
  freeMem(msg.bytes);
}

TEST(WebSockWrite, SendsTheHeaderAndPaddedEntries) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  NamePair *pairs = newPairList(3);
  pairs[0].name = strdup("");
  pairs[0].contents = strdup("hn=a");  // 4 bytes + NUL: padded to 8
  pairs[1].name = strdup("abc");       // 3 bytes + NUL: exactly 4
  pairs[2].name = nullptr;
  pairs[1].contents = strdup("");
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), 0);
  std::string expected = word(0xDEADBEEF) + word(2) + word(12 + 20 + 16) +
                         word(0xDEADBEEF) + word(20) + std::string(4, '\0') +
                         std::string("hn=a\0\0\0\0", 8) + word(0xDEADBEEF) + word(16) +
                         std::string("abc\0", 4) + std::string(4, '\0');
  std::string got(expected.size() + 16, '?');
  ssize_t n = recv(sv[1], got.data(), got.size(), MSG_DONTWAIT);
  ASSERT_EQ(n, static_cast<ssize_t>(expected.size()));
  got.resize(static_cast<size_t>(n));
  EXPECT_EQ(got, expected);
  freePairList(pairs);
  close(sv[0]);
  close(sv[1]);
}

TEST(WebSockWrite, RefusesEmptyListsAndPairsWithoutContents) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  NamePair *pairs = newPairList(2);
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), -3);
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, nullptr), -3);
  pairs[0].name = strdup("x");
  EXPECT_EQ(WebSockWrite(sv[0], QUICK, pairs), -3);
  char probe;
  EXPECT_EQ(recv(sv[1], &probe, 1, MSG_DONTWAIT), -1);  // nothing was sent
  freePairList(pairs);
  close(sv[0]);
  close(sv[1]);
}

TEST(WebSockWrite, ReturnsTheErrnoWhenThePeerIsGone) {
  signal(SIGPIPE, SIG_IGN);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  close(sv[1]);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(doWebSockWrite(sv[0], QUICK, "abcd", 4), EPIPE);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "socket write: Broken pipe\n");
  close(sv[0]);
}

TEST_F(LinkTest, ExchangesAQueryForTheDemoReply) {
  start(AgentScript{});
  NamePair *pairs = nullptr;
  int count = 0;
  ASSERT_EQ(exchange("hn=127.0.0.1&log=x", &pairs, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(countPairs(pairs), 2);
  EXPECT_STREQ(pairs[0].name, "tmp/demo-picture.svg");
  EXPECT_EQ(std::string(pairs[0].contents), webagent::demoPicture());
  EXPECT_STREQ(pairs[1].name, "");
  EXPECT_EQ(std::string(pairs[1].contents), webagent::demoPage("hn=127.0.0.1&log=x"));
  freePairList(pairs);
  EXPECT_EQ(webagent::agentRequests(&agent), std::vector<std::string>{"hn=127.0.0.1&log=x"});
}

TEST_F(LinkTest, AcceptsATotalOfExactlyOneMebibyte) {
  AgentScript script;
  script.mode = AgentMode::Pairs;
  // 12 header + 8 entry words + 4 for the empty name + contents padded to 1048552.
  script.pairs = {{"", std::string(1048551, 'p')}};
  ASSERT_EQ(webagent::encodeAgentMessage(script.pairs).size(), 0x100000u);
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  ASSERT_EQ(exchange("q", &pairs, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(strlen(pairs[0].contents), 1048551u);
  freePairList(pairs);
}

TEST_F(LinkTest, RefusesATotalAboveOneMebibyte) {
  AgentScript script;
  script.mode = AgentMode::Oversize;
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count), -3);
  EXPECT_EQ(pairs, nullptr);
}

TEST_F(LinkTest, RefusesABadMagicWord) {
  AgentScript script;
  script.mode = AgentMode::BadMagic;
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count), -3);
}

TEST_F(LinkTest, RefusesMoreBytesThanAnnounced) {
  AgentScript script;
  script.mode = AgentMode::ExtraBytes;
  script.pairs = {{"", "page"}};
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count), -3);
}

TEST_F(LinkTest, RefusesANameNeedingMoreThan256PaddedBytes) {
  AgentScript script;
  script.mode = AgentMode::LongName;  // 257 bytes: 260 padded
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count), -3);
}

TEST_F(LinkTest, RefusesANegativeTotal) {
  EXPECT_EQ(replyWith(rawMessage(AGENT_MAGIC, 1, 0x80000000u, entry("", "x"))), -3);
}

TEST_F(LinkTest, GathersAReplyDrippedInSmallPieces) {
  AgentScript script;
  script.mode = AgentMode::Drip;
  script.dripBytes = 5;  // the 12-byte header arrives split too
  script.pairs = {{"tmp/one.txt", "one"}, {"", std::string(3000, 'd')}, {"two", "2"}};
  start(script);
  NamePair *pairs = nullptr;
  int count = 0;
  ASSERT_EQ(exchange("q", &pairs, &count), 0);
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(pairs[0].name, "tmp/one.txt");
  EXPECT_STREQ(pairs[0].contents, "one");
  EXPECT_EQ(std::string(pairs[1].contents), std::string(3000, 'd'));
  EXPECT_STREQ(pairs[2].name, "two");
  EXPECT_STREQ(pairs[2].contents, "2");
  EXPECT_EQ(pairs[3].name, nullptr);
  freePairList(pairs);
}

// ---- Decoding a message in memory ----

int decode(const std::string &msg, int count, NamePair **pairs) {
  return decodeAgentMessage(msg.data(), static_cast<long>(msg.size()), count, pairs);
}

TEST(DecodeAgentMessage, AcceptsNamesPaddedTo256AndRefuses260) {
  NamePair *pairs = nullptr;
  std::string name255(255, 'n');
  std::string ok = entry(name255, "c");
  std::string msg = rawMessage(AGENT_MAGIC, 1, static_cast<uint32_t>(12 + ok.size()), ok);
  ASSERT_EQ(decode(msg, 1, &pairs), 0);
  EXPECT_EQ(std::string(pairs[0].name), name255);
  EXPECT_STREQ(pairs[0].contents, "c");
  freePairList(pairs);
  std::string bad = entry(std::string(256, 'n'), "c");  // 257 with NUL: 260 padded
  msg = rawMessage(AGENT_MAGIC, 1, static_cast<uint32_t>(12 + bad.size()), bad);
  EXPECT_EQ(decode(msg, 1, &pairs), -3);
  EXPECT_EQ(pairs, nullptr);
}

TEST(DecodeAgentMessage, RefusesEntriesThatDoNotFit) {
  NamePair *pairs = nullptr;
  std::string e = entry("name", "contents");
  auto msgOf = [](const std::string &body, uint32_t count) {
    return rawMessage(AGENT_MAGIC, count, static_cast<uint32_t>(12 + body.size()), body);
  };
  // An entry length above 0x100000.
  EXPECT_EQ(decode(msgOf(entry("a", "b", 0x100001), 1), 1, &pairs), -3);
  // An entry length running past the message.
  EXPECT_EQ(decode(msgOf(entry("a", "b", 64), 1), 1, &pairs), -3);
  // A name longer than its entry (no NUL inside the entry).
  EXPECT_EQ(decode(msgOf(word(AGENT_MAGIC) + word(12) + "abcdefgh", 1), 1, &pairs), -3);
  // More entries counted than the message holds, and a count no message could hold.
  EXPECT_EQ(decode(msgOf(e + e, 3), 3, &pairs), -3);
  EXPECT_EQ(decode(msgOf(e, 0x7FFFFFFF), 0x7FFFFFFF, &pairs), -3);
  EXPECT_EQ(decode(msgOf(e, 1), -1, &pairs), -3);
  // A later entry failing loses the whole list.
  EXPECT_EQ(decode(msgOf(e + entry("a", "b", 4), 2), 2, &pairs), -3);
  EXPECT_EQ(pairs, nullptr);
}

TEST(DecodeAgentMessage, TakesContentsAsTheRestOfTheEntryWithoutCheckingMagic) {
  NamePair *pairs = nullptr;
  // Entry magic 0 is not checked; contents "xyz!" have no NUL inside the entry.
  std::string body = word(0) + word(16) + std::string("nm\0\0", 4) + "xyz!";
  std::string msg = rawMessage(AGENT_MAGIC, 1, 12 + 16, body);
  ASSERT_EQ(decode(msg, 1, &pairs), 0);
  EXPECT_STREQ(pairs[0].name, "nm");
  EXPECT_STREQ(pairs[0].contents, "xyz!");
  EXPECT_EQ(pairs[1].name, nullptr);
  freePairList(pairs);
  // No entries at all: an empty list.
  ASSERT_EQ(decode(rawMessage(AGENT_MAGIC, 0, 12, ""), 0, &pairs), 0);
  EXPECT_EQ(countPairs(pairs), 0);
  freePairList(pairs);
}

// ---- Slow paths, through the recording pause hook ----

TEST_F(LinkTest, GivesUpOnAnAgentThatNeverAnswersAfter21EagainRounds) {
  AgentScript script;
  script.mode = AgentMode::Silent;
  start(script);
  PauseRecorder pauses;
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count, 0), -1);
  // Each round is a select wait and a one-second pause; the 21st round ends it.
  EXPECT_EQ(pauses.count(), 21u);
  EXPECT_EQ(pauses.total(), 21u);
}

TEST_F(LinkTest, WithoutWaitingRefusesAnAgentThatHasNotBegunAnswering) {
  AgentScript script;
  script.mode = AgentMode::Silent;
  start(script);
  PauseRecorder pauses;
  NamePair *pairs = nullptr;
  int count = 0;
  EXPECT_EQ(exchange("q", &pairs, &count, 0, 0), -1);
  EXPECT_EQ(pauses.count(), 0u);
}

TEST_F(LinkTest, GivesUpAfterThe101stEmptyReadPausingAtEveryTenth) {
  AgentScript script;
  script.mode = AgentMode::CloseEarly;
  start(script);
  PauseRecorder pauses;
  NamePair *pairs = nullptr;
  int count = 0;
  // The first wait lasts until the agent has closed; empty reads follow at once.
  EXPECT_EQ(exchange("q", &pairs, &count, QUICK), -1);
  EXPECT_EQ(pauses.count(), 10u);  // at reads 10, 20, ... 100
}

TEST_F(LinkTest, EndsASendAfterTenStallsWithoutAnError) {
  AgentScript script;
  script.mode = AgentMode::NoRead;
  start(script, 4096);
  int sock = makeConnection("127.0.0.1", webagent::agentOffset(&agent));
  ASSERT_GE(sock, 0);
  int small = 4096;
  setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  // Fill both socket buffers first, so every round of the send loop below stalls.
  std::string big(16 << 20, 'b');
  while (send(sock, big.data(), 65536, MSG_DONTWAIT) > 0) {
  }
  PauseRecorder pauses;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(doWebSockWrite(sock, 0, big.data(), static_cast<long>(big.size())), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "doWebSockWrite: EWOULDBLOCK\n");
  EXPECT_EQ(pauses.count(), 10u);
  closeSocket(sock);
}

// ---- Connection set-up and closing ----

TEST_F(LinkTest, ConnectsToTheOffsetFrom3726TakenIn16Bits) {
  start(AgentScript{});
  int offset = webagent::agentOffset(&agent);
  for (int port : {offset, offset + 65536, offset - 65536}) {
    int sock = makeConnection("127.0.0.1", port);
    ASSERT_GE(sock, 0) << port;
    EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    ASSERT_EQ(getpeername(sock, reinterpret_cast<sockaddr *>(&peer), &len), 0);
    EXPECT_EQ(ntohs(peer.sin_port), agent.port);
    closeSocket(sock);
  }
  int sock = makeConnection("localhost", offset);  // a name goes through the lookup
  EXPECT_GE(sock, 0);
  closeSocket(sock);
}

TEST(MakeConnection, FailsAtOnceWhenRefusedOrUnknown) {
  // A port nobody listens on: bind one, learn it, let it go.
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  socklen_t len = sizeof addr;
  getsockname(probe, reinterpret_cast<sockaddr *>(&addr), &len);
  close(probe);
  PauseRecorder pauses;
  EXPECT_EQ(makeConnection("127.0.0.1", ntohs(addr.sin_port) - AGENT_PORT_BASE), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(makeConnection("no-such-agent.invalid", 0), -1);
  EXPECT_EQ(makeConnection(nullptr, 0), -1);
  EXPECT_EQ(pauses.count(), 0u);
}

TEST(Sockets, CloseRetriesThreeTimesAndNonBlockingToggles) {
  PauseRecorder pauses;
  closeSocket(-1);
  EXPECT_EQ(pauses.count(), 0u);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_EQ(setNonBlocking(sv[0], true), 0);
  EXPECT_TRUE(fcntl(sv[0], F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(setNonBlocking(sv[0], false), 0);
  EXPECT_FALSE(fcntl(sv[0], F_GETFL) & O_NONBLOCK);
  closeSocket(sv[0]);
  EXPECT_EQ(fcntl(sv[0], F_GETFD), -1);
  EXPECT_EQ(pauses.count(), 0u);
  closeSocket(sv[0]);  // already closed: three retries a second apart, then it gives up
  EXPECT_EQ(pauses.count(), 3u);
  close(sv[1]);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(setNonBlocking(sv[1], true), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fcntl: Bad file descriptor\n");
  EXPECT_TRUE(isDottedAddress("10.1.2.3"));
  EXPECT_TRUE(isDottedAddress("1host"));
  EXPECT_FALSE(isDottedAddress("host1"));
  EXPECT_FALSE(isDottedAddress(nullptr));
}

}  // namespace
}  // namespace quorvel::gateway
