// link_test.cpp -- the server link against the fake calendar server: addresses, the
// header and its check, the receive and send loops' failures, connecting, loss
// messages, the hand-shake and the no-wait alarms.
#include "core/net/link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/base/base.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Pauses = std::vector<unsigned>;

Pauses pauses;                   // seconds the product asked to sleep
std::vector<std::string> shown;  // texts of the client's message display
int refreshes;                   // runs of the refresh routine

// A fake server and a link to it; hooks installed, everything reset afterwards.
class LinkTest : public ::testing::Test {
 protected:
  CalServer server;
  ServerLink *link = nullptr;

  void SetUp() override {
    pauses.clear(), shown.clear(), refreshes = 0;
    resetLink();
    setPauseHook([](unsigned s) { pauses.push_back(s); });
    setLinkMessageHook([](const char *text) { shown.push_back(text); });
    setLinkRefreshHook([](ServerLink *) { refreshes++; });
    ASSERT_EQ(startCalServer(&server), 0);
    link = newServerLink(calAddress(&server).c_str());
    link->waitMs = 3000;
  }
  void TearDown() override {
    freeServerLink(link);
    stopCalServer(&server);
    resetLink();
    setPauseHook(nullptr);
  }
  // Builds a request with the code and one number, or one text of `big` bytes.
  void build(ServerLink *l, int code, size_t big = 0) {
    startRequest(l, code);
    if (big) putText(l->req, std::string(big, 'b').c_str());
    else putNumber(l->req, 7);
    finishMessage(l->req);
  }
  int ask(int code, size_t big = 0) {
    build(link, code, big);
    return exchangeWithServer(link);
  }
};

// The used bytes of a buffer in hex, a space after every fourth byte.
std::string hexOf(const Buf *b) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < bufUsed(b); i++) {
    snprintf(two, sizeof two, "%02x", bufData(b)[i]);
    out += std::string(i && i % 4 == 0 ? " " : "") + two;
  }
  return out;
}

/* ---- Addresses, header, texts ---------------------------------------------------- */

TEST(ServerAddress, PortNumberFollowsOnlyAColonAndADigit) {
  struct {
    const char *address, *host;
    int number, port;
  } cases[] = {{"cal:7", "cal", 7, 3758},     {"cal", "cal", 0, 3751},
               {"cal:x7", "cal:x7", 0, 3751}, {"a:b:12", "a:b", 12, 3763},
               {"cal:61785", "cal", 61785, 0}};  // the port is taken in 16 bits
  for (const auto &c : cases) {
    std::string host;
    int n = -1;
    splitServerAddress(c.address, &host, &n);
    EXPECT_EQ(host, c.host) << c.address;
    EXPECT_EQ(n, c.number) << c.address;
    EXPECT_EQ(serverTcpPort(c.address), c.port) << c.address;
  }
}

TEST(IsLocalServer, MatchesLocalhostThisMachineAndThePort) {
  EXPECT_FALSE(isLocalServer(nullptr, 0));
  EXPECT_TRUE(isLocalServer("localhost", 9));
  EXPECT_TRUE(isLocalServer("localhost:5", 5));
  EXPECT_FALSE(isLocalServer("localhost:5", 6));
  char self[128] = {};
  ASSERT_EQ(gethostname(self, sizeof self - 1), 0);
  EXPECT_TRUE(isLocalServer(self, 0));
  EXPECT_FALSE(isLocalServer((std::string(self) + ":3").c_str(), 0));
  EXPECT_FALSE(isLocalServer("no-such-host.invalid", 0));
}

TEST(MessageHeader, CarriesCodeVersionLengthMagicAndPaddedFields) {
  Buf *b = NewBuf();
  startMessage(b, 104);
  EXPECT_EQ(hexOf(b), "00680106 0000000c deadbeef");
  putText(b, "abcde");  // tag word, 6 bytes, 2 pad bytes
  putText(b, "");       // tag word and its NUL, padded
  putText(b, nullptr);  // a bare tag word
  putNumber(b, -2);
  finishMessage(b);
  EXPECT_EQ(hexOf(b), "00680106 0000002c deadbeef 38000006 61626364 65000000 38000001 "
                      "00000000 38000000 33000004 fffffffe");
  b->extended = 1;
  finishMessage(b);
  EXPECT_EQ(hexOf(b).substr(0, 26), "00680106 0000002c babeface");
  freeBuf(b);
}

TEST(ReplyHeader, TooShortABufferIsUnreadable) {
  Buf *empty = NewBuf();
  CaptureStderr();
  EXPECT_EQ(checkReplyHeader(empty, nullptr, nullptr), LINK_NO_HEADER);
  EXPECT_EQ(GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  freeBuf(empty);
}

TEST(LinkErrorText, NamesTheLinkResultsInOneArea) {
  EXPECT_STREQ(linkErrorText(-1), "General error");
  EXPECT_STREQ(linkErrorText(-2), "Incompatible client version");
  EXPECT_STREQ(linkErrorText(-4), "Unknown error");
  EXPECT_STREQ(linkErrorText(0), "Unknown error");
  const char *a = linkErrorText(-1);
  linkErrorText(-3);
  EXPECT_STREQ(a, "Bad magic number");  // the next call overwrites the area
}

/* ---- Receiving replies ----------------------------------------------------------- */

TEST_F(LinkTest, ReadsAWholeReplyInManyReadsAndSplitsItsFields) {
  std::string big(100000, 'q');
  calScript(&server, {calReply({calNumber(-5), calText("hi"), calBytes(2, "xyz"), calText(big)})});
  ASSERT_EQ(ask(101), 0);
  EXPECT_EQ(bufUsed(link->req), 12u);  // the cursor waits behind the header
  RemReply reply;
  ASSERT_EQ(readReplyFields(link->req, &reply), 0);
  std::string seen;
  for (const RemField &f : reply.fields)
    seen += std::to_string(f.kind) + ":" + std::to_string(f.number) + ":" +
            std::to_string(f.bytes.size()) + " ";
  EXPECT_EQ(seen, "51:201:0 51:-5:4 56:0:3 2:0:3 56:" +
                      std::to_string(0x71717171) + ":100001 ");
  EXPECT_EQ(reply.fields[2].bytes, std::string("hi", 3));
  EXPECT_EQ(reply.fields[3].bytes, "xyz");
  EXPECT_EQ(reply.fields[4].bytes, big + '\0');
}

// A normal reply whose header carries the given version and magic.
CalStep headed(int major, int minor, uint32_t magic = MSG_MAGIC) {
  CalStep step = calReply();
  step.major = major, step.minor = minor, step.magic = magic;
  return step;
}

TEST_F(LinkTest, BadRepliesGiveTheirResultsAndTextsAndDropTheConnection) {
  const char *far = "Incompatible client version\n", *magic = "Bad magic number\n";
  CalStep zero = calReply();
  zero.zeroLength = true;
  struct {
    CalStep step;
    int want;
    const char *text;
  } cases[] = {
      {headed(1, 0), 0, ""},  // the second number does not matter; the first may be 2 off
      {headed(0, 1), 0, ""},
      {headed(3, 9), 0, ""},
      {headed(3, 1, MSG_MAGIC_EXTENDED), 0, ""},
      {headed(4, 0), LINK_BAD_VERSION, far},
      {headed(9, 6), LINK_BAD_VERSION, far},
      {headed(4, 9, 0x12345678), LINK_BAD_VERSION, far},  // the version is judged first
      {headed(1, 6, 0xDEADBEEE), LINK_BAD_MAGIC, magic},
      {headed(2, 2, 0), LINK_BAD_MAGIC, magic},
      {zero, LINK_NO_HEADER, "Zero buf size\n"},
      {calAction(CAL_OVERLONG), LINK_TRUNCATED, "net input truncated\n"},
      {calAction(CAL_TRUNCATE), LINK_GENERAL, ""},
      {calAction(CAL_CLOSE), LINK_LOST_REPLY, ""},
      {calAction(CAL_RESET), LINK_GENERAL, ""},
      {calAction(CAL_SILENT), LINK_TIMEOUT, ""},
  };
  link->waitMs = 500;
  for (const auto &c : cases) {
    calScript(&server, {c.step});
    CaptureStderr();
    EXPECT_EQ(ask(105), c.want) << c.step.major << "." << c.step.minor << " " << c.step.action;
    EXPECT_EQ(GetCapturedStderr(), c.text);
    if (c.want != 0) {
      EXPECT_EQ(link->sock, -1) << c.want;  // a spoilt stream is not reused
    }
  }
  EXPECT_EQ(ask(105), 0);  // a new connection serves the next request
}

TEST_F(LinkTest, LearnsThePeerVersionOnceFromTheFirstReply) {
  struct {
    int minor;
    bool noExtended;
  } cases[] = {{2, true}, {3, false}};  // extended messages need a peer beyond x.2
  for (const auto &c : cases) {
    CalStep first = calReply(), later = calReply();
    first.minor = c.minor;
    later.minor = 9;
    calScript(&server, {first, later});
    link->peerMajor = link->peerMinor = 0, link->noExtended = false;
    ASSERT_EQ(ask(105), 0);
    ASSERT_EQ(ask(105), 0);  // a later reply does not change what was learnt
    EXPECT_EQ(link->peerMajor, 1);
    EXPECT_EQ(link->peerMinor, c.minor);
    EXPECT_EQ(link->noExtended, c.noExtended);
    startRequest(link, 105);
    EXPECT_EQ(link->req->peerMinor, c.minor);  // requests carry it for the item codec
  }
}

/* ---- Sending and connecting ------------------------------------------------------ */

TEST_F(LinkTest, SendRefusesMissingAddressEmptyBufferAndBadLengths) {
  ServerLink *none = newServerLink(nullptr);
  build(none, 104);
  CaptureStderr();
  EXPECT_EQ(SendMsgToServer(none), LINK_GENERAL);
  EXPECT_EQ(SendMsgToServer(link), LINK_GENERAL);  // nothing built yet
  startRequest(link, 104);
  EXPECT_EQ(doWrite(0, link->req, 0, 10), LINK_GENERAL);
  EXPECT_EQ(doWrite(0, link->req, 13, 10), LINK_GENERAL);  // beyond what was built
  EXPECT_EQ(GetCapturedStderr(),
            "SendMsgToServer: invalid remote host information\nInvalid buf size 0\n"
            "doWrite: bad length\ndoWrite: bad length\n");
  EXPECT_EQ(calConnections(&server), 0);
  freeServerLink(none);
}

TEST_F(LinkTest, LossIsReportedOnceAsLostOrCannotConnect) {
  const char *nowhere = "no-such-host.invalid:1";  // a name that never resolves
  ServerLink *gone = newServerLink(nowhere), *fresh = newServerLink(nowhere);
  gone->connectedBefore = true;
  for (ServerLink *l : {gone, fresh}) {
    build(l, 105);
    EXPECT_EQ(SendMsgToServer(l), LINK_NO_SERVER);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_TRUE(gone->lost);
  EXPECT_FALSE(gone->connectedBefore);
  EXPECT_FALSE(fresh->lost);
  reportLinkLoss(gone, LINK_GENERAL);  // only a failed connection is reported
  EXPECT_TRUE(shown.empty());
  reportLinkLoss(gone, LINK_NO_SERVER);
  reportLinkLoss(gone, LINK_NO_SERVER);
  reportLinkLoss(fresh, LINK_NO_SERVER);
  fresh->reportLoss = false, fresh->lossShown = false;
  reportLinkLoss(fresh, LINK_NO_SERVER);
  EXPECT_EQ(shown, (std::vector<std::string>{"lost connection to server no-such-host.invalid:1\n",
                                             "cannot connect to server no-such-host.invalid:1\n"}));
  EXPECT_TRUE(pauses.empty());  // a failed look-up is not retried
  freeServerLink(gone);
  freeServerLink(fresh);

  // A refused connect counts as made once the socket turns writable; the refusal ends
  // the first send, which drops the socket.
  stopCalServer(&server);
  build(link, 105);
  CaptureStderr();
  EXPECT_EQ(SendMsgToServer(link), ECONNREFUSED);
  EXPECT_EQ(GetCapturedStderr(), "socket write: Connection refused\n");
  EXPECT_EQ(link->sock, -1);
}

TEST_F(LinkTest, PendingConnectIsRetriedWithPausesOfTheTimeOut) {
  // A listener whose accept queue is already full keeps further connects pending.
  int fd = socket(AF_INET, SOCK_STREAM, 0), filler = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), len), 0);
  ASSERT_EQ(listen(fd, 0), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len), 0);
  ASSERT_EQ(connect(filler, reinterpret_cast<sockaddr *>(&a), len), 0);
  ServerLink *slow = newServerLink(("127.0.0.1:" + std::to_string(ntohs(a.sin_port) - 3751)).c_str());
  slow->timeout = 0;  // each wait gives up at once; the pauses still go through the seam
  EXPECT_EQ(makeConnection(slow), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(pauses, (Pauses{0, 0, 0}));  // the first attempt and two retries
  EXPECT_FALSE(slow->connectedBefore);
  pauses.clear();
  EXPECT_EQ(GetConnection(slow), LINK_NO_SERVER);
  EXPECT_EQ(pauses.size(), 9u);  // the hand-shake tries the whole connect three times
  setNoWaitMode(true);
  EXPECT_EQ(GetConnection(slow), LINK_NO_SERVER);
  EXPECT_EQ(pauses.size(), 9u);  // no-wait: one attempt, no pause
  freeServerLink(slow);
  close(filler);
  close(fd);
}

TEST_F(LinkTest, SendGivesUpAfterTenStallsAndKeepsTheSocket) {
  link->waitMs = 20;
  CalStep deaf = calReply();
  deaf.stallReadMs = 60000;  // the server does not read while the client sends
  calScript(&server, {deaf});
  build(link, 127, 12 * 1000 * 1000);
  CaptureStderr();
  EXPECT_EQ(SendMsgToServer(link), LINK_TIMEOUT);
  EXPECT_EQ(GetCapturedStderr(), "doWrite: EWOULDBLOCK\n");
  // A second between stalls; progress between earlier stalls starts the count again.
  EXPECT_GE(pauses.size(), 9u);
  EXPECT_EQ(pauses, Pauses(pauses.size(), 1));
  EXPECT_EQ(bufStatusRepeats(link->req), 10);
  EXPECT_GE(link->sock, 0);  // a time-out leaves the connection to the caller
}

/* ---- The hand-shake ------------------------------------------------------------- */

TEST_F(LinkTest, HandshakeSendsServerValueCopiesTextAndTakes218) {
  link->serverValue = 42;
  CalStep notNumber = calServerValue(5);
  notNumber.fields[5] = calText("five");
  calScript(&server, {calReply({calText("welcome"), calNumber(0)}, 200), calServerValue(991),
                      notNumber});
  char message[64] = "untouched";
  EXPECT_EQ(GetConnection(link, message, sizeof message), 0);
  EXPECT_STREQ(message, "welcome");
  EXPECT_TRUE(link->connectedBefore);
  EXPECT_FALSE(link->lost);
  CalRequest got = calRequests(&server).at(0);
  EXPECT_EQ(got.code, 100);
  EXPECT_EQ(got.magic, MSG_MAGIC);
  ASSERT_EQ(got.fields.size(), 1u);
  EXPECT_EQ(got.fields[0].kind, FIELD_NUMBER);
  EXPECT_EQ(calFieldNumber(got.fields[0]), 42);
  EXPECT_EQ(refreshes, 0);
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(link->serverValue, 991);
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(link->serverValue, 991);  // kept: the seventh field is not a number
  EXPECT_EQ(refreshes, 2);
}

TEST_F(LinkTest, HandshakeSharesTwoRetriesBetweenBusyAndLostReplies) {
  CalStep lost = calAction(CAL_CLOSE), busy = calBusy(), ok = calReply({}, 200);
  struct {
    std::vector<CalStep> script;
    int want;
    Pauses waits;
    size_t requests;
  } cases[] = {
      {{busy, busy, ok}, 0, {10, 10}, 3},
      {{busy, busy, busy}, LINK_GENERAL, {10, 10}, 3},
      {{lost, lost, ok}, 0, {}, 3},
      {{lost, busy, lost}, LINK_LOST_REPLY, {10}, 3},
      {{calReply({}, 204)}, LINK_GENERAL, {}, 1},
  };
  size_t before = 0;
  for (const auto &c : cases) {
    pauses.clear();
    calScript(&server, c.script);
    char message[64] = "";
    EXPECT_EQ(GetConnection(link, message, sizeof message), c.want) << before;
    EXPECT_EQ(pauses, c.waits) << before;
    EXPECT_STREQ(message, c.want ? "failed connection\n" : "") << before;
    EXPECT_EQ(calRequests(&server).size() - before, c.requests) << before;
    before = calRequests(&server).size();
  }
}

TEST_F(LinkTest, HandshakeRefusalNoWaitAndNoServerFail) {
  calScript(&server, {calReply({calText("go away"), calNumber(3)}, 200)});
  char message[64] = "";
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_REFUSED);
  EXPECT_STREQ(message, "failed connection\n");
  EXPECT_TRUE(link->lost);
  EXPECT_FALSE(link->connectedBefore);
  EXPECT_EQ(link->sock, -1);
  EXPECT_EQ(shown, std::vector<std::string>{"lost connection to server " + calAddress(&server) + "\n"});

  setNoWaitMode(true);
  link->serverValue = 42;
  calScript(&server, {calBusy(), calAction(CAL_CLOSE)});
  EXPECT_EQ(GetConnection(link), LINK_GENERAL);
  EXPECT_EQ(GetConnection(link), LINK_LOST_REPLY);
  EXPECT_TRUE(pauses.empty());
  ASSERT_EQ(calRequests(&server).size(), 3u);
  EXPECT_EQ(calFieldNumber(calRequests(&server)[1].fields.at(0)), -1);  // no-wait sends -1

  setNoWaitMode(false);
  ServerLink *nowhere = newServerLink("no-such-host.invalid");
  EXPECT_EQ(GetConnection(nowhere, message, sizeof message), LINK_NO_SERVER);
  EXPECT_STREQ(message, "failed connection\n");
  EXPECT_EQ(shown.back(), "cannot connect to server no-such-host.invalid\n");
  EXPECT_TRUE(pauses.empty());  // failed look-ups are not waited for
  freeServerLink(nowhere);
}

/* ---- Waits: no-wait alarms and the busy indication -------------------------------- */

long alarmLeft() {
  itimerval t;
  getitimer(ITIMER_REAL, &t);
  return t.it_value.tv_sec;
}

// Samples the seconds left on the process's alarm while fn runs: the largest value
// seen and the last value above 0 (a request is written before its reply is read).
template <class Fn>
std::pair<long, long> alarmsDuring(Fn fn) {
  std::atomic<bool> done{false};
  std::atomic<long> largest{0}, last{0};
  std::thread watcher([&] {
    for (; !done; usleep(2000)) {
      long left = alarmLeft();
      largest = std::max(largest.load(), left);
      if (left > 0) last = left;
    }
  });
  fn();
  done = true;
  watcher.join();
  return {largest, last};
}

int busyOn, busyOff;

TEST_F(LinkTest, WaitsAreBracketedByBusyIndicationOrNoWaitAlarms) {
  setLinkBusyHook([](int on) { (on ? busyOn : busyOff)++; });
  CalStep slow = calReply(), stalled = calReply();
  slow.delayMs = 400;         // long enough for the watcher on a busy machine
  stalled.stallReadMs = 400;  // the server reads late, so the send loop must wait
  calScript(&server, {slow, slow, stalled});
  busyOn = busyOff = 0;
  EXPECT_EQ(alarmsDuring([&] { EXPECT_EQ(ask(105), 0); }).first, 0);
  EXPECT_GE(busyOn, 2);  // at least the write and one read
  EXPECT_EQ(busyOn, busyOff);
  setNoWaitMode(true);
  busyOn = busyOff = 0;
  long reads = alarmsDuring([&] { EXPECT_EQ(ask(105), 0); }).second;
  EXPECT_GT(reads, 140);
  EXPECT_LE(reads, 150);
  long writes = alarmsDuring([&] { EXPECT_EQ(ask(127, 12 * 1000 * 1000), 0); }).first;
  EXPECT_GT(writes, 440);
  EXPECT_LE(writes, 450);
  EXPECT_EQ(busyOn + busyOff, 0);  // no-wait mode uses alarms instead
  EXPECT_EQ(alarmLeft(), 0);
  alarm(1000);  // an earlier alarm is put back afterwards
  EXPECT_EQ(ask(105), 0);
  long left = alarmLeft();
  alarm(0);
  EXPECT_GT(left, 990);
}

TEST(ReplySlots, CreateGivesEmptySlotsAndZeroFreesThem) {
  ServerLink *link = newServerLink("cal");
  CreateWithCache(link, 4);
  ASSERT_EQ(link->slotCount, 4);
  EXPECT_EQ(std::count(link->slots, link->slots + 4, nullptr), 4);
  link->slots[2] = NewWithReq();
  EXPECT_EQ(std::count(link->slots[2]->words, link->slots[2]->words + 5, 0), 5);
  CreateWithCache(link, 2);  // the old table and what it held are released
  EXPECT_EQ(link->slotCount, 2);
  CreateWithCache(link, 0);
  EXPECT_EQ(link->slots, nullptr);
  EXPECT_EQ(link->slotCount, 0);
  freeServerLink(link);
}

}  // namespace
}  // namespace quorvel
