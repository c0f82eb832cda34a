// link_test.cpp -- the server link against the fake calendar server: addresses, the
// header and its check, the receive loop's failures, the hand-shake and no-wait alarms.
#include "core/net/link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/base/base.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

std::vector<unsigned> pauses;      // seconds the product asked to sleep
std::vector<std::string> shown;    // texts of the client's message display
int refreshes;                     // runs of the refresh routine

void recordPause(unsigned s) { pauses.push_back(s); }
void recordMessage(const char *text) { shown.push_back(text); }
void countRefresh(ServerLink *) { refreshes++; }

// A fake server and a link to it; hooks installed, everything reset afterwards.
class LinkTest : public ::testing::Test {
 protected:
  CalServer server;
  ServerLink *link = nullptr;

  void SetUp() override {
    pauses.clear();
    shown.clear();
    refreshes = 0;
    resetLink();
    setPauseHook(recordPause);
    setLinkMessageHook(recordMessage);
    setLinkRefreshHook(countRefresh);
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
  // Builds and exchanges a request with code and one number element.
  int ask(int code, int32_t value = 7) {
    startRequest(link, code);
    putNumber(link->req, value);
    finishMessage(link->req);
    return exchangeWithServer(link);
  }
};

// A buffer holding exactly the given bytes, with the cursor at the start.
Buf *bufWith(const std::vector<uint8_t> &bytes) {
  Buf *b = NewBuf();
  StuffBuf(b, bytes.data(), bytes.size(), 1, BUF_UNTAGGED);
  rewindBuf(b);
  return b;
}

std::vector<uint8_t> header(int code, int major, int minor, uint32_t len, uint32_t magic) {
  std::vector<uint8_t> h(12);
  h[0] = uint8_t(code >> 8);
  h[1] = uint8_t(code);
  h[2] = uint8_t(major);
  h[3] = uint8_t(minor);
  uint32_t l = htonl(len), m = htonl(magic);
  memcpy(&h[4], &l, 4);
  memcpy(&h[8], &m, 4);
  h.resize(16, 0);  // the reader wants 4 bytes behind the header in the storage
  return h;
}

/* ---- Addresses -------------------------------------------------------------------- */

TEST(ServerAddress, PortNumberFollowsOnlyAColonAndADigit) {
  EXPECT_EQ(serverTcpPort("cal:7"), 3758);
  EXPECT_EQ(serverTcpPort("cal"), 3751);
  EXPECT_EQ(serverTcpPort("cal:x7"), 3751);
  EXPECT_EQ(serverTcpPort("cal:61785"), 0);  // taken in 16 bits
  std::string host;
  int n;
  splitServerAddress("cal:x7", &host, &n);
  EXPECT_EQ(host, "cal:x7");
  EXPECT_EQ(n, 0);
  splitServerAddress("a:b:12", &host, &n);
  EXPECT_EQ(host, "a:b");
  EXPECT_EQ(n, 12);
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

/* ---- Header ----------------------------------------------------------------------- */

TEST(MessageHeader, CarriesCodeVersionLengthAndMagic) {
  Buf *b = NewBuf();
  startMessage(b, 104);
  ASSERT_EQ(bufUsed(b), 12u);
  const uint8_t *p = bufData(b);
  EXPECT_EQ((p[0] << 8) | p[1], 104);
  EXPECT_EQ(p[2], 1);
  EXPECT_EQ(p[3], 6);
  putText(b, "abcde");  // 4 + 6 padded to 8
  finishMessage(b);
  p = bufData(b);
  uint32_t len, magic;
  memcpy(&len, p + 4, 4);
  memcpy(&magic, p + 8, 4);
  EXPECT_EQ(ntohl(len), 24u);
  EXPECT_EQ(ntohl(magic), MSG_MAGIC);
  b->extended = 1;
  finishMessage(b);
  memcpy(&magic, bufData(b) + 8, 4);
  EXPECT_EQ(ntohl(magic), MSG_MAGIC_EXTENDED);
  freeBuf(b);
}

TEST(MessageHeader, EmptyTextIsABareTagWord) {
  Buf *b = NewBuf();
  putText(b, "");
  putText(b, nullptr);
  ASSERT_EQ(bufUsed(b), 8u);
  EXPECT_EQ(bufData(b)[0], FIELD_TEXT);
  EXPECT_EQ(bufData(b)[3], 0);
  EXPECT_EQ(bufData(b)[4], FIELD_TEXT);
  freeBuf(b);
}

TEST(ReplyHeader, RefusesFarVersionsThenBadMagic) {
  struct Case {
    int major, minor;
    uint32_t magic;
    int want;
  } cases[] = {
      {1, 6, MSG_MAGIC, 0},           {1, 0, MSG_MAGIC, 0},
      {3, 9, MSG_MAGIC, 0},           {0, 1, MSG_MAGIC, 0},
      {4, 0, MSG_MAGIC, LINK_BAD_VERSION}, {4, 9, 0x12345678, LINK_BAD_VERSION},
      {9, 6, MSG_MAGIC, LINK_BAD_VERSION}, {3, 1, MSG_MAGIC_EXTENDED, 0},
      {1, 6, 0xDEADBEEE, LINK_BAD_MAGIC},  {2, 2, 0, LINK_BAD_MAGIC},
  };
  for (const Case &c : cases) {
    Buf *b = bufWith(header(204, c.major, c.minor, 40, c.magic));
    int code = 0;
    uint32_t len = 0;
    EXPECT_EQ(checkReplyHeader(b, &code, &len), c.want) << c.major << "." << c.minor;
    EXPECT_EQ(code, 204);
    EXPECT_EQ(len, 40u);
    EXPECT_EQ(b->peerMajor, c.major);
    EXPECT_EQ(b->peerMinor, c.minor);
    freeBuf(b);
  }
}

TEST(ReplyHeader, ShortBufferIsUnreadable) {
  testing::internal::CaptureStderr();
  Buf *empty = NewBuf();
  EXPECT_EQ(checkReplyHeader(empty, nullptr, nullptr), LINK_NO_HEADER);
  freeBuf(empty);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("ReadBuf: overflowed buffer"),
            std::string::npos);
}

TEST(LinkErrorText, NamesTheLinkResults) {
  EXPECT_STREQ(linkErrorText(-1), "General error");
  EXPECT_STREQ(linkErrorText(-2), "Incompatible client version");
  EXPECT_STREQ(linkErrorText(-3), "Bad magic number");
  EXPECT_STREQ(linkErrorText(-4), "Unknown error");
  EXPECT_STREQ(linkErrorText(0), "Unknown error");
  const char *a = linkErrorText(-1);
  linkErrorText(-3);
  EXPECT_STREQ(a, "Bad magic number");  // one static area, overwritten
}

/* ---- Receiving replies ------------------------------------------------------------ */

TEST_F(LinkTest, ReadsAWholeReplyAndItsFields) {
  calScript(&server, {calReply({calNumber(-5), calText("hello"), calBytes(2, "xyz")})});
  ASSERT_EQ(ask(101), 0);
  RemReply reply;
  ASSERT_EQ(readReplyFields(link->req, &reply), 0);
  ASSERT_EQ(reply.fields.size(), 4u);
  EXPECT_EQ(reply.fields[0].number, 201);
  EXPECT_EQ(reply.fields[1].kind, FIELD_NUMBER);
  EXPECT_EQ(reply.fields[1].number, -5);
  EXPECT_EQ(reply.fields[2].kind, FIELD_TEXT);
  EXPECT_EQ(reply.fields[2].bytes, std::string("hello", 6));
  EXPECT_EQ(reply.fields[3].kind, 2);
  EXPECT_EQ(reply.fields[3].bytes, "xyz");
  EXPECT_EQ(bufUsed(link->req), 12u);  // the cursor waits behind the header
  std::vector<CalRequest> got = calRequests(&server);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].code, 101);
  EXPECT_EQ(got[0].major, 1);
  EXPECT_EQ(got[0].minor, 6);
  EXPECT_EQ(got[0].magic, MSG_MAGIC);
  ASSERT_EQ(got[0].fields.size(), 1u);
  EXPECT_EQ(calFieldNumber(got[0].fields[0]), 7);
}

TEST_F(LinkTest, LargeReplyArrivesInManyReads) {
  std::string big(100000, 'q');
  calScript(&server, {calReply({calText(big)})});
  ASSERT_EQ(ask(126), 0);
  RemReply reply;
  ASSERT_EQ(readReplyFields(link->req, &reply), 0);
  ASSERT_EQ(reply.fields.size(), 2u);
  EXPECT_EQ(reply.fields[1].bytes.size(), big.size() + 1);
}

TEST_F(LinkTest, BadRepliesGiveTheirResultsAndTexts) {
  struct Case {
    CalStep step;
    int want;
    const char *text;
  };
  CalStep v4 = calReply();
  v4.major = 4;
  CalStep v39 = calReply();
  v39.major = 3;
  v39.minor = 9;
  CalStep magic = calReply();
  magic.magic = 0xCAFEBABE;
  CalStep zero = calReply();
  zero.zeroLength = true;
  std::vector<Case> cases = {
      {v4, LINK_BAD_VERSION, "Incompatible client version\n"},
      {v39, 0, ""},
      {magic, LINK_BAD_MAGIC, "Bad magic number\n"},
      {zero, LINK_NO_HEADER, "Zero buf size\n"},
      {calAction(CAL_OVERLONG), LINK_TRUNCATED, "net input truncated\n"},
      {calAction(CAL_TRUNCATE), LINK_GENERAL, ""},
      {calAction(CAL_CLOSE), LINK_LOST_REPLY, ""},
      {calAction(CAL_RESET), LINK_GENERAL, ""},
  };
  for (const Case &c : cases) {
    calScript(&server, {c.step});
    testing::internal::CaptureStderr();
    EXPECT_EQ(ask(105), c.want) << c.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.text);
    if (c.want != 0) {
      EXPECT_EQ(link->sock, -1);  // a spoilt stream is not reused
    }
  }
}

TEST_F(LinkTest, SilentServerTimesOut) {
  link->waitMs = 100;
  calScript(&server, {calAction(CAL_SILENT)});
  EXPECT_EQ(ask(105), LINK_TIMEOUT);
  EXPECT_EQ(link->sock, -1);
  EXPECT_EQ(ask(105), 0);  // a new connection serves the next request
  EXPECT_EQ(calConnections(&server), 2);
}

TEST_F(LinkTest, LearnsThePeerVersionFromTheFirstReply) {
  CalStep old = calReply();
  old.minor = 2;
  calScript(&server, {old});
  ASSERT_EQ(ask(105), 0);
  EXPECT_EQ(link->peerMajor, 1);
  EXPECT_EQ(link->peerMinor, 2);
  EXPECT_TRUE(link->noExtended);

  closeServerSocket(link);  // the fake server serves one connection at a time
  ServerLink *other = newServerLink(calAddress(&server).c_str());
  CalStep recent = calReply();
  recent.minor = 4;
  calScript(&server, {recent, calReply()});
  startRequest(other, 105);
  finishMessage(other->req);
  ASSERT_EQ(exchangeWithServer(other), 0);
  EXPECT_EQ(other->peerMinor, 4);
  EXPECT_FALSE(other->noExtended);
  other->req->peerMinor = 0;  // a later reply does not change what was learnt
  startRequest(other, 105);
  EXPECT_EQ(other->req->peerMinor, 4);
  freeServerLink(other);
}

/* ---- Sending ----------------------------------------------------------------------- */

TEST_F(LinkTest, SendRefusesMissingAddressAndEmptyBuffer) {
  ServerLink *none = newServerLink(nullptr);
  startRequest(none, 104);
  finishMessage(none->req);
  testing::internal::CaptureStderr();
  EXPECT_EQ(SendMsgToServer(none), LINK_GENERAL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SendMsgToServer: invalid remote host information\n");
  freeServerLink(none);

  testing::internal::CaptureStderr();
  EXPECT_EQ(SendMsgToServer(link), LINK_GENERAL);  // nothing built yet
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid buf size 0\n");
  EXPECT_EQ(calConnections(&server), 0);
}

TEST_F(LinkTest, DoWriteRefusesABadLength) {
  startRequest(link, 104);
  testing::internal::CaptureStderr();
  EXPECT_EQ(doWrite(0, link->req, 0, 10), LINK_GENERAL);
  EXPECT_EQ(doWrite(0, link->req, 13, 10), LINK_GENERAL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "doWrite: bad length\ndoWrite: bad length\n");
}

TEST_F(LinkTest, UnreachableServerIsLostAndReportedOnce) {
  ASSERT_EQ(ask(105), 0);
  EXPECT_TRUE(link->connectedBefore);
  stopCalServer(&server);
  closeServerSocket(link);
  EXPECT_EQ(ask(105), LINK_NO_SERVER);
  EXPECT_TRUE(link->lost);
  EXPECT_FALSE(link->connectedBefore);
  reportLinkLoss(link, LINK_GENERAL);  // only a failed connection is reported
  EXPECT_TRUE(shown.empty());
  reportLinkLoss(link, LINK_NO_SERVER);
  reportLinkLoss(link, LINK_NO_SERVER);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "lost connection to server " + calAddress(&server) + "\n");
}

TEST_F(LinkTest, NeverConnectedServerCannotBeConnected) {
  std::string address = calAddress(&server);
  stopCalServer(&server);
  EXPECT_EQ(ask(105), LINK_NO_SERVER);
  EXPECT_TRUE(pauses.empty());  // a refused connection is not retried
  reportLinkLoss(link, LINK_NO_SERVER);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "cannot connect to server " + address + "\n");
  link->reportLoss = false;
  link->lossShown = false;
  reportLinkLoss(link, LINK_NO_SERVER);
  EXPECT_EQ(shown.size(), 1u);
}

// A loopback listener whose accept queue is already full, so that further connection
// attempts stay pending; returns its socket and the address to reach it.
int fullListener(std::string *address, int *filler) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 0) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0)
    return -1;
  *filler = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(*filler, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return -1;
  *address = "127.0.0.1:" + std::to_string(ntohs(a.sin_port) - 3751);
  return fd;
}

TEST_F(LinkTest, PendingConnectIsRetriedWithPausesOfTheTimeOut) {
  std::string address;
  int filler = -1;
  int fd = fullListener(&address, &filler);
  ASSERT_GE(fd, 0);
  ServerLink *slow = newServerLink(address.c_str());
  slow->timeout = 0;  // each select gives up at once; the pauses still come through the seam
  slow->retries = 2;
  EXPECT_EQ(makeConnection(slow), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(pauses, (std::vector<unsigned>{0, 0, 0}));
  EXPECT_FALSE(slow->connectedBefore);

  pauses.clear();
  setNoWaitMode(true);
  EXPECT_EQ(makeConnection(slow), -1);
  EXPECT_TRUE(pauses.empty());  // no-wait: one attempt
  freeServerLink(slow);
  close(filler);
  close(fd);
}

TEST_F(LinkTest, UnknownHostFailsWithENOENT) {
  ServerLink *nowhere = newServerLink("no-such-host.invalid:3");
  EXPECT_EQ(makeConnection(nowhere), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(SendMsgToServer(nowhere), LINK_GENERAL);  // nothing built: refused first
  startRequest(nowhere, 105);
  finishMessage(nowhere->req);
  EXPECT_EQ(SendMsgToServer(nowhere), LINK_NO_SERVER);
  freeServerLink(nowhere);
}

TEST_F(LinkTest, SendGivesUpAfterTenStalls) {
  link->waitMs = 20;
  CalStep deaf = calReply();
  deaf.stallReadMs = 60000;  // the server does not read while the client sends
  calScript(&server, {deaf});
  std::string big(12 * 1000 * 1000, 's');
  startRequest(link, 127);
  putText(link->req, big.c_str());
  finishMessage(link->req);
  testing::internal::CaptureStderr();
  EXPECT_EQ(SendMsgToServer(link), LINK_TIMEOUT);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "doWrite: EWOULDBLOCK\n");
  // A second between stalls; ten in a row end it (earlier stalls may have been followed
  // by progress, which starts the count again).
  EXPECT_GE(pauses.size(), 9u);
  EXPECT_EQ(pauses, std::vector<unsigned>(pauses.size(), 1));
  EXPECT_GE(link->sock, 0);  // a time-out leaves the connection to the caller
  EXPECT_EQ(bufStatusRepeats(link->req), 10);
}

int busyOn, busyOff;
void countBusy(int on) { (on ? busyOn : busyOff)++; }

TEST_F(LinkTest, BusyIndicationBracketsEachWaitOutsideNoWait) {
  busyOn = busyOff = 0;
  setLinkBusyHook(countBusy);
  ASSERT_EQ(ask(105), 0);
  EXPECT_GE(busyOn, 2);  // at least the write and one read
  EXPECT_EQ(busyOn, busyOff);
  setNoWaitMode(true);
  busyOn = busyOff = 0;
  ASSERT_EQ(ask(105), 0);
  EXPECT_EQ(busyOn, 0);  // no-wait mode uses alarms instead
}

/* ---- The hand-shake --------------------------------------------------------------- */

TEST_F(LinkTest, HandshakeSendsServerValueAndCopiesTheText) {
  link->serverValue = 42;
  calScript(&server, {calReply({calText("welcome"), calNumber(0)}, 200)});
  char message[64] = "untouched";
  EXPECT_EQ(GetConnection(link, message, sizeof message), 0);
  EXPECT_STREQ(message, "welcome");
  EXPECT_TRUE(link->connectedBefore);
  EXPECT_FALSE(link->lost);
  std::vector<CalRequest> got = calRequests(&server);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].code, 100);
  EXPECT_EQ(got[0].magic, MSG_MAGIC);
  ASSERT_EQ(got[0].fields.size(), 1u);
  EXPECT_EQ(got[0].fields[0].kind, FIELD_NUMBER);
  EXPECT_EQ(calFieldNumber(got[0].fields[0]), 42);
}

TEST_F(LinkTest, HandshakeWaitsOutBusyRepliesTwice) {
  calScript(&server, {calBusy(), calBusy(), calReply({}, 200)});
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(pauses, (std::vector<unsigned>{10, 10}));

  pauses.clear();
  calScript(&server, {calBusy(), calBusy(), calBusy(), calReply({}, 200)});
  char message[64] = "";
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_GENERAL);
  EXPECT_EQ(pauses, (std::vector<unsigned>{10, 10}));
  EXPECT_STREQ(message, "failed connection\n");
}

TEST_F(LinkTest, HandshakeTakesTheServerValueFrom218) {
  calScript(&server, {calServerValue(991)});
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(link->serverValue, 991);
  EXPECT_EQ(refreshes, 1);

  CalStep notNumber = calServerValue(5);
  notNumber.fields[5] = calText("five");
  calScript(&server, {notNumber});
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(link->serverValue, 991);  // kept: the seventh field is not a number
  EXPECT_EQ(refreshes, 2);
}

TEST_F(LinkTest, HandshakeRefusalLosesTheConnection) {
  calScript(&server, {calReply({calText("go away"), calNumber(3)}, 200)});
  char message[64] = "";
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_REFUSED);
  EXPECT_STREQ(message, "failed connection\n");
  EXPECT_TRUE(link->lost);
  EXPECT_FALSE(link->connectedBefore);
  EXPECT_EQ(link->sock, -1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "lost connection to server " + calAddress(&server) + "\n");
}

TEST_F(LinkTest, HandshakeRejectsOtherReplyCodes) {
  calScript(&server, {calReply({}, 204)});
  char message[64] = "";
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_GENERAL);
  EXPECT_STREQ(message, "failed connection\n");
  EXPECT_TRUE(pauses.empty());
}

TEST_F(LinkTest, HandshakeRetriesLostRepliesWithinItsBudget) {
  calScript(&server, {calAction(CAL_CLOSE), calAction(CAL_CLOSE), calReply({}, 200)});
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(calRequests(&server).size(), 3u);

  calScript(&server, {calAction(CAL_CLOSE), calBusy(), calAction(CAL_CLOSE),
                      calReply({}, 200)});
  EXPECT_EQ(GetConnection(link), LINK_LOST_REPLY);  // busy and lost share the budget
  EXPECT_EQ(pauses, (std::vector<unsigned>{10}));
}

TEST_F(LinkTest, HandshakeInNoWaitModeTriesOnce) {
  setNoWaitMode(true);
  link->serverValue = 42;
  calScript(&server, {calBusy()});
  EXPECT_EQ(GetConnection(link), LINK_GENERAL);
  EXPECT_TRUE(pauses.empty());
  std::vector<CalRequest> got = calRequests(&server);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(calFieldNumber(got[0].fields[0]), -1);  // no-wait sends -1 for the value
  calScript(&server, {calAction(CAL_CLOSE)});
  EXPECT_EQ(GetConnection(link), LINK_LOST_REPLY);
}

TEST_F(LinkTest, HandshakeToNoServerReportsIt) {
  std::string address = calAddress(&server);
  stopCalServer(&server);
  char message[64] = "";
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_NO_SERVER);
  EXPECT_STREQ(message, "failed connection\n");
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "cannot connect to server " + address + "\n");
}

/* ---- No-wait alarms ----------------------------------------------------------------- */

// Samples the process's real-time timer while fn runs; returns the largest value seen.
template <class Fn>
long largestAlarmDuring(Fn fn) {
  std::atomic<bool> done{false}, running{false};
  std::atomic<long> largest{0};
  std::thread watcher([&] {
    running = true;
    while (!done) {
      itimerval t;
      getitimer(ITIMER_REAL, &t);
      if (t.it_value.tv_sec > largest) largest = t.it_value.tv_sec;
      usleep(2000);
    }
  });
  while (!running) std::this_thread::yield();
  fn();
  done = true;
  watcher.join();
  return largest;
}

long alarmLeft() {
  itimerval t;
  getitimer(ITIMER_REAL, &t);
  return t.it_value.tv_sec;
}

TEST_F(LinkTest, NoWaitArmsAlarmAroundReadsAndClearsIt) {
  setNoWaitMode(true);
  CalStep slow = calReply();
  slow.delayMs = 400;  // long enough for the watcher on a busy machine
  calScript(&server, {slow});
  long seen = largestAlarmDuring([&] { EXPECT_EQ(ask(105), 0); });
  EXPECT_GT(seen, 140);
  EXPECT_LE(seen, 150);
  EXPECT_EQ(alarmLeft(), 0);

  setNoWaitMode(false);
  calScript(&server, {slow});
  EXPECT_EQ(largestAlarmDuring([&] { EXPECT_EQ(ask(105), 0); }), 0);
}

TEST_F(LinkTest, NoWaitArmsLongerAlarmAroundWrites) {
  setNoWaitMode(true);
  CalStep stalled = calReply();
  stalled.stallReadMs = 400;  // the server reads late, so the send loop must wait
  calScript(&server, {stalled});
  std::string big(12 * 1000 * 1000, 'w');
  long seen = largestAlarmDuring([&] {
    startRequest(link, 127);
    putText(link->req, big.c_str());
    finishMessage(link->req);
    EXPECT_EQ(exchangeWithServer(link), 0);
  });
  EXPECT_GT(seen, 440);
  EXPECT_LE(seen, 450);
  EXPECT_EQ(alarmLeft(), 0);
}

TEST_F(LinkTest, NoWaitPutsBackAnEarlierAlarm) {
  setNoWaitMode(true);
  alarm(1000);
  EXPECT_EQ(ask(105), 0);
  long left = alarmLeft();
  alarm(0);
  EXPECT_GT(left, 990);
  EXPECT_LE(left, 1000);
}

/* ---- Reply slots ---------------------------------------------------------------------- */

TEST(ReplySlots, CreateGivesEmptySlotsAndZeroFrees) {
  ServerLink *link = newServerLink("cal");
  CreateWithCache(link, 4);
  ASSERT_EQ(link->slotCount, 4);
  for (int i = 0; i < 4; i++) EXPECT_EQ(link->slots[i], nullptr);
  link->slots[2] = NewWithReq();
  for (int w : link->slots[2]->words) EXPECT_EQ(w, 0);
  CreateWithCache(link, 2);  // the old table and what it held are released
  EXPECT_EQ(link->slotCount, 2);
  CreateWithCache(link, 0);
  EXPECT_EQ(link->slots, nullptr);
  EXPECT_EQ(link->slotCount, 0);
  EXPECT_EQ(link->sock, -1);
  EXPECT_EQ(link->timeout, 30);
  EXPECT_STREQ(link->server, "cal");
  freeServerLink(link);
}

}  // namespace
}  // namespace quorvel
