// link_test.cpp -- the server link against the fake calendar server: addresses, the header
// and its check, receive and send failures, connecting, loss messages, the hand-shake, waits.
#include "core/net/link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "core/net/link_test_util.h"

namespace quorvel {
namespace {

// Builds a request with the code and one number, or one text of `big` bytes.
void build(ServerLink *l, int code, size_t big = 0) {
  startRequest(l, code);
  big ? putText(l->req, std::string(big, 'b').c_str()) : putNumber(l->req, 7);
  finishMessage(l->req);
}
std::string state(const ServerLink *l) {
  return std::string(l->sock >= 0 ? "open" : "closed") + " lost " + std::to_string(l->lost) +
         " before " + std::to_string(l->connectedBefore) + " value " + std::to_string(l->serverValue);
}
struct LinkTest : ServerFixture {
  int ask(int code, size_t big = 0) { return build(link, code, big), exchangeWithServer(link); }
};

TEST(ServerAddress, PortNumberFollowsOnlyAColonAndADigitAndLocalServersAreKnown) {
  struct { const char *address, *host; int number, port; } cases[] = {
      {"cal:7", "cal", 7, 3758}, {"cal", "cal", 0, 3751}, {"cal:x7", "cal:x7", 0, 3751},
      {"a:b:12", "a:b", 12, 3763}, {"cal:61785", "cal", 61785, 0}};  // port taken in 16 bits
  for (const auto &c : cases) {
    std::string host;
    int n = -1;
    splitServerAddress(c.address, &host, &n);
    EXPECT_EQ(host + " " + std::to_string(n) + " " + std::to_string(serverTcpPort(c.address)),
              std::string(c.host) + " " + std::to_string(c.number) + " " + std::to_string(c.port));
  }
  // A local server is localhost or this machine, with a port number only when it matches.
  char self[128] = {};
  ASSERT_EQ(gethostname(self, sizeof self - 1), 0);
  EXPECT_TRUE(isLocalServer("localhost", 9) && isLocalServer("localhost:5", 5) && isLocalServer(self, 0));
  EXPECT_FALSE(isLocalServer(nullptr, 0) || isLocalServer("localhost:5", 6) ||
               isLocalServer((std::string(self) + ":3").c_str(), 0) || isLocalServer("no-such-host.invalid", 0));
}
TEST(MessageHeader, CarriesCodeVersionLengthMagicAndPaddedFieldsAndResultsHaveTexts) {
  Buf *b = NewBuf();
  auto hex = [b] {  // the used bytes, a space after every fourth
    std::string out;
    char two[4];
    for (size_t i = 0; i < bufUsed(b); i++)
      snprintf(two, sizeof two, i && i % 4 == 0 ? " %02x" : "%02x", bufData(b)[i]), out += two;
    return out;
  };
  startMessage(b, 104);
  EXPECT_EQ(hex(), "00680106 0000000c deadbeef");
  putText(b, "abcde"), putText(b, ""), putText(b, nullptr), putNumber(b, -2);
  finishMessage(b);  // texts: tag word, text, NUL, padding; no text: a bare tag word
  EXPECT_EQ(hex(), "00680106 0000002c deadbeef 38000006 61626364 65000000 38000001 "
                   "00000000 38000000 33000004 fffffffe");
  b->extended = 1;
  finishMessage(b);
  EXPECT_EQ(hex().substr(0, 26), "00680106 0000002c babeface");
  freeBuf(b);
  Buf *empty = NewBuf();  // too short a reply is unreadable
  CaptureStderr();
  EXPECT_EQ(checkReplyHeader(empty, nullptr, nullptr), LINK_NO_HEADER);
  EXPECT_EQ(GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  freeBuf(empty);
  std::string all;
  for (int code : {-1, -2, -3, -4, 0}) all += std::string(linkErrorText(code)) + "|";
  EXPECT_EQ(all, "General error|Incompatible client version|Bad magic number|Unknown error|Unknown error|");
}
TEST_F(LinkTest, ReadsAWholeReplyInManyReadsAndSplitsItsFields) {
  std::string big(100000, 'q');
  calScript(&server, {calReply({calNumber(-5), calText("hi"), calBytes(2, "xyz"), calText(big)})});
  ASSERT_EQ(ask(101), 0);
  EXPECT_EQ(bufUsed(link->req), 12u);  // the cursor waits behind the header
  RemReply reply;
  ASSERT_EQ(readReplyFields(link->req, &reply), 0);
  std::string seen;
  for (const RemField &f : reply.fields)
    seen += std::to_string(f.kind) + ":" + std::to_string(f.number) + ":" + std::to_string(f.bytes.size()) + " ";
  EXPECT_EQ(seen, "51:201:0 51:-5:4 56:0:3 2:0:3 56:" + std::to_string(0x71717171) + ":100001 ");
  EXPECT_EQ(reply.fields[2].bytes + reply.fields[3].bytes, std::string("hi\0xyz", 6));
  EXPECT_EQ(reply.fields[4].bytes, big + '\0');
}
TEST_F(LinkTest, BadRepliesGiveTheirResultsAndTextsAndDropTheConnection) {
  CalStep zero = calReply();
  zero.zeroLength = true;
  auto announcing = [](int64_t length) {  // a reply whose header gives `length`
    CalStep step = calReply({calText("0123456789abcdef")});
    step.announce = length;
    return step;
  };
  struct { CalStep step; int want; const char *text; } cases[] = {
      {headed(0, 1), 0, ""},  // the first version number may be 2 off, the second any
      {headed(3, 9), 0, ""},
      {headed(3, 1, MSG_MAGIC_EXTENDED), 0, ""},
      {headed(4, 0), LINK_BAD_VERSION, "Incompatible client version\n"},
      {headed(4, 9, 0x12345678), LINK_BAD_VERSION, "Incompatible client version\n"},  // the version is judged first
      {headed(1, 6, 0xDEADBEEE), LINK_BAD_MAGIC, "Bad magic number\n"},
      {zero, LINK_NO_HEADER, "Zero buf size\n"},
      {announcing(1), LINK_GENERAL, "Unknown error1\n"},  // shorter than a header
      {announcing(11), LINK_GENERAL, "Unknown error11\n"},
      {announcing(16000001), LINK_GENERAL, "Unknown error16000001\n"},  // past the largest growth
      {announcing(16000000), LINK_TIMEOUT, ""},  // taken: the rest never comes
      {calAction(CAL_OVERLONG), LINK_TRUNCATED, "net input truncated\n"},
      {calAction(CAL_TRUNCATE), LINK_GENERAL, ""},
      {calAction(CAL_CLOSE), LINK_LOST_REPLY, ""},
      {calAction(CAL_RESET), LINK_GENERAL, ""},
      {calAction(CAL_SILENT), LINK_TIMEOUT, ""}};
  link->waitMs = 500;
  for (const auto &c : cases) {
    calScript(&server, {c.step});
    CaptureStderr();
    EXPECT_EQ(ask(105), c.want) << c.step.major << "." << c.step.minor << " " << c.step.action;
    EXPECT_EQ(GetCapturedStderr(), c.text);
    EXPECT_EQ(link->sock >= 0, c.want == 0) << c.want;  // a spoilt stream is not reused
  }
  EXPECT_EQ(ask(105), 0);  // a new connection serves the next request
}
TEST_F(LinkTest, LearnsThePeerVersionOnceFromTheFirstReply) {
  for (int minor : {2, 3}) {  // extended messages need a peer beyond x.2
    calScript(&server, {headed(1, minor), headed(1, 9)});
    link->peerMajor = link->peerMinor = 0, link->noExtended = false;
    ASSERT_EQ(ask(105), 0);
    ASSERT_EQ(ask(105), 0);   // a later reply does not change what was learnt
    startRequest(link, 105);  // requests carry the minor number for the item codec
    EXPECT_EQ(std::vector<int>({link->peerMajor, link->peerMinor, link->noExtended, link->req->peerMinor}),
              std::vector<int>({1, minor, minor == 2, minor}));
  }
}
TEST_F(LinkTest, SendRefusesBadRequestsAndReportsALostServerOnce) {
  ServerLink *none = newServerLink(nullptr);
  build(none, 104);
  CaptureStderr();
  EXPECT_EQ(SendMsgToServer(none), LINK_GENERAL);
  EXPECT_EQ(SendMsgToServer(link), LINK_GENERAL);  // nothing built yet
  startRequest(link, 104);
  EXPECT_EQ(doWrite(0, link->req, 0, 10), LINK_GENERAL);
  EXPECT_EQ(doWrite(0, link->req, 13, 10), LINK_GENERAL);  // beyond what was built
  EXPECT_EQ(GetCapturedStderr(), "SendMsgToServer: invalid remote host information\n"
                                 "Invalid buf size 0\ndoWrite: bad length\ndoWrite: bad length\n");
  EXPECT_EQ(calConnections(&server), 0);
  freeServerLink(none);
  // A link that was connected loses its server (a name that never resolves); one that never
  // was cannot connect (see the pending connect).
  ServerLink *gone = newServerLink("no-such-host.invalid:1");
  gone->connectedBefore = true;
  build(gone, 105);
  EXPECT_EQ(SendMsgToServer(gone), LINK_NO_SERVER);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(state(gone), "closed lost 1 before 0 value 0");
  reportLinkLoss(gone, LINK_GENERAL);  // only a failed connection is reported, once
  reportLinkLoss(gone, LINK_NO_SERVER), reportLinkLoss(gone, LINK_NO_SERVER);
  gone->reportLoss = false, gone->lossShown = false;
  reportLinkLoss(gone, LINK_NO_SERVER);
  EXPECT_EQ(shown, std::vector<std::string>{"lost connection to server no-such-host.invalid:1\n"});
  EXPECT_TRUE(pauses.empty());  // a failed look-up is not retried
  freeServerLink(gone);
  // A refused connect counts as made once writable; the refusal ends the send and the socket.
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
  auto *sa = reinterpret_cast<sockaddr *>(&a);
  ASSERT_TRUE(!bind(fd, sa, len) && !listen(fd, 0) && !getsockname(fd, sa, &len) && !connect(filler, sa, len));
  std::string address = "127.0.0.1:" + std::to_string(ntohs(a.sin_port) - 3751);
  ServerLink *slow = newServerLink(address.c_str());
  slow->timeout = 0;  // each wait gives up at once; the pauses still go through the seam
  EXPECT_EQ(makeConnection(slow), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(pauses, (Pauses{0, 0, 0}));  // the first attempt and two retries
  EXPECT_EQ(GetConnection(slow), LINK_NO_SERVER);
  EXPECT_EQ(pauses.size(), 12u);  // the hand-shake tries the whole connect three times
  EXPECT_EQ(shown, std::vector<std::string>{"cannot connect to server " + address + "\n"});
  setNoWaitMode(true);
  EXPECT_EQ(GetConnection(slow), LINK_NO_SERVER);
  EXPECT_EQ(pauses.size(), 12u);  // no-wait: one attempt, no pause
  freeServerLink(slow), close(filler), close(fd);
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
  EXPECT_TRUE(pauses.size() >= 9u && pauses == Pauses(pauses.size(), 1)) << pauses.size();
  EXPECT_EQ(bufStatusRepeats(link->req), 10);
  EXPECT_GE(link->sock, 0);  // a time-out leaves the connection to the caller
}
TEST_F(LinkTest, HandshakeSendsServerValueCopiesTextTakes218AndFailsOnRefusalOrNoWaitBusy) {
  link->serverValue = 42;
  CalStep notNumber = calServerValue(5);
  notNumber.fields[5] = calText("five");
  calScript(&server, {calReply({calText("welcome"), calNumber(0)}, 200), calServerValue(991), notNumber});
  char message[64] = "untouched";
  EXPECT_EQ(GetConnection(link, message, sizeof message), 0);
  EXPECT_EQ(state(link) + ", " + render(last()) + ", " + message + ", " + std::to_string(refreshes),
            "open lost 0 before 1 value 42, 100 42, welcome, 0");
  EXPECT_EQ(last().magic, MSG_MAGIC);
  EXPECT_EQ(GetConnection(link), 0);
  EXPECT_EQ(GetConnection(link), 0);  // 991 is kept: the second 218's seventh field is not a number
  EXPECT_EQ(state(link) + ", refreshes " + std::to_string(refreshes), "open lost 0 before 1 value 991, refreshes 2");
  calScript(&server, {calReply({calText("go away"), calNumber(3)}, 200)});  // a refusal
  EXPECT_EQ(GetConnection(link, message, sizeof message), LINK_REFUSED);
  EXPECT_EQ(state(link) + ", " + message, "closed lost 1 before 0 value 991, failed connection\n");
  EXPECT_EQ(shown, std::vector<std::string>{"lost connection to server " + calAddress(&server) + "\n"});
  setNoWaitMode(true);  // no retries (as with pending connects), and -1 for the server value
  calScript(&server, {calBusy()});
  EXPECT_EQ(GetConnection(link), LINK_GENERAL);
  EXPECT_EQ(render(last()) + ", pauses " + std::to_string(pauses.size()), "100 -1, pauses 0");
}
TEST_F(LinkTest, HandshakeSharesTwoRetriesBetweenBusyAndLostReplies) {
  CalStep lost = calAction(CAL_CLOSE), busy = calBusy(), ok = calReply({}, 200);
  struct { std::vector<CalStep> script; int want; Pauses waits; size_t requests; } cases[] = {
      {{busy, busy, ok}, 0, {10, 10}, 3},
      {{busy, busy, busy}, LINK_GENERAL, {10, 10}, 3},
      {{lost, lost, ok}, 0, {}, 3},
      {{lost, busy, lost}, LINK_LOST_REPLY, {10}, 3},
      {{calReply({}, 204)}, LINK_GENERAL, {}, 1}};
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
// Samples the seconds left on the process's alarm while fn runs: the largest value
// seen and the last value above 0 (a request is written before its reply is read).
template <class Fn>
std::pair<long, long> alarmsDuring(Fn fn) {
  std::atomic<bool> done{false};
  std::atomic<long> largest{0}, last{0};
  std::thread watcher([&] {
    for (itimerval t; !done; usleep(2000)) {
      getitimer(ITIMER_REAL, &t);
      if (long left = t.it_value.tv_sec) largest = std::max(largest.load(), left), last = left;
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
  EXPECT_TRUE(busyOn >= 2 && busyOn == busyOff) << busyOn << " " << busyOff;  // the write and reads
  setNoWaitMode(true);
  busyOn = busyOff = 0;
  long reads = alarmsDuring([&] { EXPECT_EQ(ask(105), 0); }).second;
  EXPECT_TRUE(reads > 140 && reads <= 150) << reads;
  long writes = alarmsDuring([&] { EXPECT_EQ(ask(127, 12 * 1000 * 1000), 0); }).first;
  EXPECT_TRUE(writes > 440 && writes <= 450) << writes;
  EXPECT_EQ(busyOn + busyOff, 0);  // no-wait mode uses alarms instead
  EXPECT_EQ(alarm(0), 0u);  // none is left behind
  alarm(1000);  // an earlier alarm is put back afterwards
  EXPECT_EQ(ask(105), 0);
  EXPECT_GT(alarm(0), 990u);
}
TEST(ReplySlots, CreateGivesEmptySlotsAndZeroFreesThem) {
  ServerLink *l = newServerLink("cal");
  CreateWithCache(l, 4);
  ASSERT_EQ(l->slotCount, 4);
  l->slots[3] = NewWithReq();
  EXPECT_EQ(std::count(l->slots, l->slots + 3, nullptr) + std::count(l->slots[3]->words, l->slots[3]->words + 5, 0), 8);
  CreateWithCache(l, 2);  // the old table and what it held are released
  EXPECT_EQ(l->slotCount, 2);
  CreateWithCache(l, 0);
  EXPECT_TRUE(l->slots == nullptr && l->slotCount == 0);
  freeServerLink(l);
}

}  // namespace
}  // namespace quorvel
