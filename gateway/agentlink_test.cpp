// agentlink_test.cpp -- the agent link: the bytes sent, every receipt limit, decoding,
// and the slow paths through the pause hook, against the sample agent on loopback.
#include "gateway/agentlink.h"
#include "gateway/test_support.h"
#include <csignal>
#include <cstring>
#include <fcntl.h>

namespace quorvel::gateway {
using webagent::AgentMode;
using webagent::AgentPair;
using webagent::AgentScript;
constexpr int QUICK = 5;  // select time-out where the peer answers at once
std::string word(uint32_t v) { return v = htonl(v), std::string(reinterpret_cast<char *>(&v), 4); }
// A message and an entry by hand: name and contents each padded with 1 to 4 NULs.
std::string message(uint32_t count, const std::string &body) {
  return word(AGENT_MAGIC) + word(count) + word(static_cast<uint32_t>(12 + body.size())) + body;
}
std::string entry(const std::string &name, const std::string &contents, uint32_t len = 0) {
  auto pad = [](const std::string &s) { return s + std::string(4 - s.size() % 4, '\0'); };
  std::string bytes = pad(name) + pad(contents);
  return word(AGENT_MAGIC) + word(len ? len : static_cast<uint32_t>(8 + bytes.size())) + bytes;
}
std::vector<AgentPair> listOf(const NamePair *pairs) {
  std::vector<AgentPair> list;
  for (int i = 0; i < countPairs(pairs); i++) list.push_back({pairs[i].name, pairs[i].contents});
  return list;
}
struct LinkTest : AgentFixture {
  std::vector<AgentPair> reply;  // the pairs of the last exchange
  // Connects, sends query, and reads the reply; a failed one leaves no pair list.
  int exchange(const std::string &query, int timeout = QUICK) {
    int sock = makeConnection("127.0.0.1", offset());
    EXPECT_GE(sock, 0);
    NamePair *request = newPairList(2), *pairs = nullptr;
    request[0] = {strdup(""), strdup(query.c_str())};
    EXPECT_EQ(WebSockWrite(sock, QUICK, request), 0);
    char *buffer = reinterpret_cast<char *>(1);
    int count = -1, result = readAgentReply(sock, timeout, &buffer, &count, &pairs, 1);
    EXPECT_EQ(buffer, nullptr);  // released by readAgentReply in every case
    EXPECT_EQ(result == 0 ? count : -1, pairs ? countPairs(pairs) : -1);
    reply = listOf(pairs);
    freePairList(request), freePairList(pairs), closeSocket(sock);
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
  freePairList(pairs);
  std::string expected = message(2, entry("", "hn=a") + entry("abc", "")), got(64, '?');
  ASSERT_EQ(recv(sv[1], got.data(), got.size(), MSG_DONTWAIT), 48);  // nothing else before
  EXPECT_EQ(got.substr(0, 48), expected);
  // A peer that is gone: the errno comes back positive, after perror.
  signal(SIGPIPE, SIG_IGN);
  close(sv[1]);
  EXPECT_EQ(outputOf([&] { EXPECT_EQ(doWebSockWrite(sv[0], QUICK, "abcd", 4), EPIPE); }, true),
            "socket write: Broken pipe\n");
  close(sv[0]);
}
TEST_F(LinkTest, GathersRepliesUpToTheReceiptLimitsAndRefusesTheRest) {
  // 0x100000 in all (12 + 70020 + 978524 + 20); the first large contents take the buffer over.
  std::vector<AgentPair> dripped = {{"tmp/1.txt", "one"}, {"", std::string(3000, 'd')}, {"2", ""}},
      full = {{"tmp/a", std::string(70001, 'a')}, {"", std::string(978511, 'b')}, {"c", "small"}};
  AgentScript drip(AgentMode::Drip, dripped), negative(AgentMode::Raw);
  drip.dripBytes = 5;  // the 12-byte header arrives split too
  negative.raw = word(AGENT_MAGIC) + word(1) + word(0x80000000u) + entry("", "x");
  ASSERT_EQ(webagent::encodeAgentMessage(full).size(), 0x100000u);
  start({drip, {AgentMode::Pairs, full}, {AgentMode::Oversize}, {AgentMode::BadMagic},
         {AgentMode::ExtraBytes, {{"", "page"}}}, {AgentMode::LongName}, negative});
  ASSERT_EQ(exchange("hn=127.0.0.1&log=x"), 0);
  EXPECT_EQ(reply, dripped);
  ASSERT_EQ(exchange("q"), 0);
  EXPECT_EQ(reply, full);
  for (const char *what : {"0x100001 total", "bad magic", "extra bytes", "long name", "negative"})
    EXPECT_EQ(exchange("q"), -3) << what;
}
TEST(DecodeAgentMessage, RefusesEntriesThatBreakTheLimitsOrDoNotFit) {
  std::string e = entry("name", "contents");
  struct Row { std::string msg; int count, result; } rows[] = {
      // Names of 256 and 260 padded bytes, entry lengths too long or past the message.
      {message(1, entry(std::string(255, 'n'), "c")), 1, 0},
      {message(1, entry(std::string(256, 'n'), "c")), 1, -3},
      {message(1, entry("a", "b", 0x100001)), 1, -3}, {message(1, entry("a", "b", 64)), 1, -3},
      {message(1, word(AGENT_MAGIC) + word(12) + "abcdefgh"), 1, -3},  // no NUL in the entry
      {message(3, e + e), 3, -3}, {message(0x7FFFFFFF, e), 0x7FFFFFFF, -3}, {message(1, e), -1, -3},
      {message(2, e + entry("a", "b", 4)), 2, -3},  // a later entry loses the whole list
      {message(0, ""), 0, 0},
      // The entry's magic is not checked; contents run to the entry's end, NUL or not.
      {message(1, word(0) + word(16) + std::string("nm\0\0", 4) + "xyz!"), 1, 0},
  };
  for (const Row &r : rows) {
    NamePair *pairs = reinterpret_cast<NamePair *>(1);
    EXPECT_EQ(decodeAgentMessage(r.msg.data(), static_cast<long>(r.msg.size()), r.count, &pairs),
              r.result) << r.msg.size();
    EXPECT_EQ(countPairs(pairs), r.result == 0 ? r.count : 0);
    if (r.msg.ends_with("xyz!")) { EXPECT_EQ(listOf(pairs)[0], (AgentPair{"nm", "xyz!"})); }
    freePairList(pairs);
  }
}
TEST_F(LinkTest, GivesUpOnSilenceAfter21EagainRoundsAndOnAClosedPeerAfter101EmptyReads) {
  start({{AgentMode::Silent}, {AgentMode::CloseEarly}});
  PauseRecorder pauses;
  EXPECT_EQ(exchange("q", 0), -1);
  EXPECT_EQ(pauses.pauses, 21u);  // a select wait and a one-second pause per round
  EXPECT_EQ(pauses.seconds, 21u);
  EXPECT_EQ(exchange("q"), -1);   // waits until the agent has closed; empty reads follow
  EXPECT_EQ(pauses.pauses, 31u);  // a pause at reads 10, 20, ... 100
}
TEST(WebSockRead, WithoutWaitingGivesUpAtOnceOnlyWhileTheHeaderIsPending) {
  for (size_t sent : {5, 12}) {
    int sv[2], count = 0;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    setNonBlocking(sv[0], true);
    ASSERT_EQ(write(sv[1], message(1, entry("", "x")).data(), sent), static_cast<ssize_t>(sent));
    PauseRecorder pauses;
    char *buffer = nullptr;
    EXPECT_EQ(WebSockRead(sv[0], 0, &buffer, &count, 0), -1);
    EXPECT_EQ(pauses.pauses, sent < 12 ? 0u : 21u) << sent;  // else the EAGAIN rounds
    close(sv[0]), close(sv[1]);
  }
}
TEST_F(LinkTest, EndsASendAfterTenStallsWithoutAnError) {
  agent.receiveBuffer = 4096;
  start({{AgentMode::NoRead}});
  int sock = makeConnection("127.0.0.1", offset()), small = 4096;
  ASSERT_GE(sock, 0);
  setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string big(16 << 20, 'b');
  while (send(sock, big.data(), 65536, MSG_DONTWAIT) > 0) continue;  // until both buffers fill
  PauseRecorder pauses;
  EXPECT_EQ(outputOf([&] { EXPECT_EQ(doWebSockWrite(sock, 0, big.data(), 16 << 20), 0); }, true),
            "doWebSockWrite: EWOULDBLOCK\n");
  EXPECT_EQ(pauses.pauses, 10u);
  closeSocket(sock);
}
TEST_F(LinkTest, ConnectsNonBlockingToTheOffsetFrom3726OrFailsAtOnceButRetriesAClose) {
  start();  // ports as a 16-bit sum; a name goes through the lookup
  for (int port : {offset(), offset() + 65536, offset() - 65536, -1}) {
    int sock = port < 0 ? makeConnection("localhost", offset()) : makeConnection("127.0.0.1", port);
    ASSERT_GE(sock, 0) << port;
    EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    ASSERT_EQ(getpeername(sock, reinterpret_cast<sockaddr *>(&peer), &len), 0);
    EXPECT_EQ(ntohs(peer.sin_port), agent.port);
    closeSocket(sock);
  }
  PauseRecorder pauses;
  EXPECT_EQ(makeConnection("127.0.0.1", freeLoopbackPort() - AGENT_PORT_BASE), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(makeConnection("no-such-agent.invalid", 0), -1);
  EXPECT_EQ(makeConnection(nullptr, 0), -1);
  int fd = dup(2);
  closeSocket(-1), closeSocket(fd);
  EXPECT_EQ(pauses.pauses, 0u);
  closeSocket(fd);  // already closed: three retries a second apart, then it gives up
  EXPECT_EQ(pauses.pauses, 3u);
  EXPECT_EQ(outputOf([] { EXPECT_EQ(setNonBlocking(-1, true), -1); }, true),
            "fcntl: Bad file descriptor\n");
}
}  // namespace quorvel::gateway
