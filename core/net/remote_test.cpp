// remote_test.cpp -- the remote calls against the fake calendar server: each call's
// request code and elements in order, the element encodings, and the common shape
// (lost replies resent, busy replies waited out, 218 replies, loss reports).
#include "core/net/remote.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/items/item.h"
#include "core/net/calset.h"
#include "core/net/itemcodec.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::vector<unsigned> pauses;    // seconds the product asked to sleep
std::vector<std::string> shown;  // texts of the client's message display
int refreshes;                   // runs of the refresh routine after 218

// A request's fields as one line: numbers in decimal, texts quoted, fields tagged with
// a letter by the letter, other kinds as <kind>.
std::string render(const CalRequest &r) {
  std::string out;
  for (const CalField &f : r.fields) {
    if (!out.empty()) out += ' ';
    if (f.kind == FIELD_NUMBER) out += std::to_string(calFieldNumber(f));
    else if (f.kind == FIELD_TEXT) out += "'" + calFieldText(f) + "'";
    else if (f.kind >= 'A') out += char(f.kind);
    else out += "<" + std::to_string(f.kind) + ">";
  }
  return out;
}

// The titles of the items in an item or item-list field, read back with the item codec;
// chained copies are marked "+".
std::vector<std::string> titlesIn(const CalField &f) {
  Buf *b = NewBuf();
  StuffBuf(b, f.payload.data(), f.payload.size(), 1, BUF_UNTAGGED);
  size_t end = bufUsed(b);
  rewindBuf(b);
  Item head;
  evlistInit(&head);
  std::vector<std::string> titles;
  if (readEventList(b, &head, static_cast<uint32_t>(end)) < 0) titles.push_back("(bad)");
  for (Item *i = head.next; i != &head; i = i->next) {
    titles.push_back(i->title);
    for (Item *c = i->chain; c; c = c->chain) titles.push_back(std::string("+") + c->title);
  }
  evlistFree(&head);
  freeBuf(b);
  return titles;
}

class RemoteTest : public ::testing::Test {
 protected:
  CalServer server;
  ServerLink *link = nullptr;
  Item *alpha = evnew(), *beta = evnew();
  Item list;  // head of a list holding copies of alpha and beta

  void SetUp() override {
    pauses.clear(), shown.clear(), refreshes = 0;
    resetLink();
    setPauseHook([](unsigned s) { pauses.push_back(s); });
    setLinkMessageHook([](const char *text) { shown.push_back(text); });
    setLinkRefreshHook([](ServerLink *) { refreshes++; });
    ASSERT_EQ(startCalServer(&server), 0);
    link = newServerLink(calAddress(&server).c_str());
    link->waitMs = 3000;
    evsetTitle(alpha, "alpha");
    evsetTitle(beta, "beta");
    evlistInit(&list);
    evlistAppend(&list, evcopy(alpha));
    evlistAppend(&list, evcopy(beta));
  }
  void TearDown() override {
    evlistFree(&list);
    evfree(alpha);
    evfree(beta);
    freeServerLink(link);
    stopCalServer(&server);
    resetLink();
    setPauseHook(nullptr);
  }
  CalRequest last() { return calRequests(&server).back(); }
};

/* ---- Each call's code and elements ----------------------------------------------- */

TEST_F(RemoteTest, EveryCallSendsItsCodeAndElementsInOrder) {
  ItemQuery q{nullptr, 100, 200, 3, "find"};
  const char rec[] = "alarm-record";
  RemBytes bytes{rec, sizeof rec - 1}, none{nullptr, 0};
  link->serverValue = 77;
  using Call = std::function<int(ServerLink *)>;
  struct {
    int code;
    Call call;
    const char *elements;
  } cases[] = {
      {101, [&](ServerLink *l) { return RemGetEventsWith(l, &q, 1, 2, 3, nullptr); }, "W s e k t 1 2 3"},
      {102, [&](ServerLink *l) { return RemDbChange(l, &list, nullptr, 4, 5, nullptr); }, "<53> <53> 4 5"},
      {103, [&](ServerLink *l) { return RemDbChevent(l, alpha, beta, 6, 7, nullptr); }, "<54> <54> 6 7"},
      // the reply lacks the fields RemGetUsers wants
      {104, [&](ServerLink *l) { return RemGetUsers(l, "anna", nullptr, nullptr) + 1; }, "77 'anna'"},
      {105, [&](ServerLink *l) { return RemLoadUserGroups(l, nullptr); }, ""},
      {106, [&](ServerLink *l) { return RemReadDatPerms(l, 8, "bob", nullptr, nullptr); }, "8 'bob'"},
      {107, [&](ServerLink *l) { return RemCheckNotifyDelete(l, nullptr); }, ""},
      {108, [&](ServerLink *l) { return RemCheckNotifyByMail(l, nullptr); }, ""},
      {109, [&](ServerLink *l) { return RemWriteDatPerms(l, "c1", bytes, nullptr); }, "'c1' <50>"},
      {110, [&](ServerLink *l) { return RemSetNotifyDelete(l, "c2", bytes, nullptr); }, "'c2' <50>"},
      {111, [&](ServerLink *l) { return RemSetNotifyByMail(l, "c3", none, nullptr); }, "'c3' <50>"},
      {112, [&](ServerLink *l) { return RemGetPopupNote(l, "note", 9, nullptr); }, "'note' 9"},
      {113, [&](ServerLink *l) { return RemPutPopupNote(l, "n", alpha, "t1", "t2", nullptr); }, "'n' <54> 't1' 't2'"},
      {114, [&](ServerLink *l) { return RemGetDefaultAlarm(l, 10, nullptr); }, "10"},
      {115, [&](ServerLink *l) { return RemPutDefaultAlarm(l, bytes, nullptr); }, "<7>"},
      {116, [&](ServerLink *l) { return RemCreatePopupNoteFile(l, beta, nullptr); }, "<54>"},
      {119, [&](ServerLink *l) { return RemReadRoloFile(l, 11, 12, 13, nullptr); }, "11 12 13"},
      {120, [&](ServerLink *l) { return RemChangeRoloList(l, 14, bytes, none, nullptr); }, "14 <58> <59>"},
      {121, [&](ServerLink *l) { return RemGetDomains(l, nullptr); }, ""},
      {122, [&](ServerLink *l) { return RemGetUnfinishedEvents(l, &q, "u", 15, nullptr); }, "W s e k t 'u' 15"},
      {123, [&](ServerLink *l) { return RemAddNewUser(l, "a", "b", "c", "d", nullptr); }, "'a' 'b' 'c' 'd'"},
      {124, [&](ServerLink *l) { return RemCheckRemoteDom(l, "dom", 16, nullptr); }, "'dom' 16"},
      {125, [&](ServerLink *l) { return RemGetHotDays(l, nullptr, 17, 18, 19, nullptr); }, "W s e k 17 18 19"},
      {126, [&](ServerLink *l) { return RemReadArray(l, "arr", nullptr); }, "'arr'"},
      {127, [&](ServerLink *l) { return RemWriteArray(l, "arr", "data", nullptr); }, "'arr' 'data'"},
      {128, [&](ServerLink *l) { return RemPutPasswdEntry(l, 20, "lg", "ent", 21, 22, 23, nullptr); },
       "20 'lg' 'ent' 21 22 23"},
      {129, [&](ServerLink *l) { return RemPutUnfinishedEvents(l, &q, "v", &list, 24, nullptr); },
       "W s e k t 'v' <53> 24"},
      {130, [&](ServerLink *l) { return RemCheckRemoteUsers(l, "x,y", 25, nullptr); }, "'x,y' 25"},
      {131, [&](ServerLink *l) { return RemSendMail(l, alpha, nullptr, 26, 27, 28, 29, nullptr); },
       "<54> <54> 26 27 28 29"},
      {132, [&](ServerLink *l) { return RemMvDir(l, "from", "to", nullptr); }, "'from' 'to'"},
      {133, [&](ServerLink *l) { return RemMkDir(l, "dir", nullptr); }, "'dir'"},
      {134, [&](ServerLink *l) { return RemGetUserWorkdays(l, nullptr); }, ""},
      {135, [&](ServerLink *l) { return RemGetFoundEvents(l, &q, 30, 31, "txt", 32, 33, nullptr); },
       "W s e k t 30 31 'txt' 32 33"},
  };
  size_t seen = 0;
  CaptureStderr();
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(link), 0) << c.code;
    std::vector<CalRequest> got = calRequests(&server);
    ASSERT_EQ(got.size(), ++seen) << c.code;
    EXPECT_EQ(got.back().code, c.code);
    EXPECT_TRUE(got.back().wellFormed) << c.code;
    EXPECT_EQ(render(got.back()), c.elements) << c.code;
  }
  EXPECT_EQ(GetCapturedStderr(), "RemGetUsers: bad reply\n");
}

/* ---- Element encodings ------------------------------------------------------------- */

TEST_F(RemoteTest, ItemElementsCarryTheCodecFieldsChainsAndExtendedHeader) {
  chainAppend(alpha, evcopy(alpha));  // the same item in another database
  evsetDbName(alpha->chain, "elsewhere");
  Item empty;
  evlistInit(&empty);
  ASSERT_EQ(RemDbChevent(link, alpha, nullptr, 0, 0, nullptr), 0);
  EXPECT_EQ(titlesIn(last().fields[0]), (std::vector<std::string>{"alpha", "+alpha"}));
  EXPECT_TRUE(last().fields[1].payload.empty());  // no item: an empty field
  EXPECT_EQ(last().magic, MSG_MAGIC_EXTENDED);    // a chained item needs the extended header
  ASSERT_EQ(RemDbChange(link, &list, &empty, 0, 0, nullptr), 0);
  EXPECT_EQ(titlesIn(last().fields[0]), (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_TRUE(titlesIn(last().fields[1]).empty());
  EXPECT_EQ(last().magic, MSG_MAGIC);
  // A type letter 'd' asks for the extended header too, unless the peer is too old.
  CalStep old = calReply({}, 216);
  old.minor = 1;
  calScript(&server, {calReply({}, 216), old});
  beta->typeLetter = 'd';
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(last().magic, MSG_MAGIC_EXTENDED);
  closeServerSocket(link);
  link->peerMajor = link->peerMinor = 0;  // learn the next peer's version afresh
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_TRUE(link->noExtended);
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(last().magic, MSG_MAGIC);
}

TEST_F(RemoteTest, QueryBlockCarriesSetRangeKindsAndText) {
  CalSet set = nullptr;
  setbit(&set, 3, 1);
  ItemQuery q{set, -50, 900, 5, "needle"};
  ASSERT_EQ(RemGetHotDays(link, &q, 0, 0, 0, nullptr), 0);
  freebits(&set);
  const std::vector<CalField> f = last().fields;
  ASSERT_EQ(render(last()), "W s e k t 0 0 0");
  EXPECT_EQ(f[0].payload, (std::vector<uint8_t>{0, 4, 0, 8}));  // 4 bits, bit 3
  EXPECT_EQ(calFieldNumber(f[1]), -50);
  EXPECT_EQ(calFieldNumber(f[2]), 900);
  EXPECT_EQ(calFieldNumber(f[3]), 5);
  EXPECT_EQ(calFieldText(f[4]), "needle");
  ASSERT_EQ(RemGetHotDays(link, nullptr, 0, 0, 0, nullptr), 0);
  const std::vector<CalField> open = last().fields;  // everything: empty set, open range
  ASSERT_EQ(render(last()), "W s e k 0 0 0");
  EXPECT_EQ(open[0].payload, (std::vector<uint8_t>{0, 0, 0, 0}));
  EXPECT_EQ(calFieldNumber(open[1]), NO_TIME);
  EXPECT_EQ(calFieldNumber(open[2]), NO_TIME);
  EXPECT_EQ(calFieldNumber(open[3]), 0);
}

TEST_F(RemoteTest, OversizeElementIsRefusedBeforeSending) {
  static const char byte = 'x';
  RemBytes huge{&byte, BUF_MAX_FIELD + 1};  // refused on its length, never read
  CaptureStderr();
  EXPECT_EQ(RemPutDefaultAlarm(link, huge, nullptr), -1);
  EXPECT_EQ(GetCapturedStderr(), "RemPutDefaultAlarm: request too large\n");
  EXPECT_EQ(calConnections(&server), 0);
}

/* ---- The common shape ------------------------------------------------------------- */

TEST_F(RemoteTest, LostRepliesAreResentTwiceAndBusyRepliesWaitedOut) {
  CalStep lost = calAction(CAL_CLOSE);
  calScript(&server, {lost, lost, calReply(), lost, lost, lost});
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);
  EXPECT_EQ(calRequests(&server).size(), 3u);
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(calRequests(&server).size(), 6u);
  EXPECT_TRUE(shown.empty());  // a lost reply is not a lost server
  EXPECT_TRUE(pauses.empty());

  calScript(&server, {calBusy(), calBusy(), calBusy(), calReply({calText("done")})});
  RemReply reply;
  EXPECT_EQ(RemReadArray(link, "a", &reply), 0);
  EXPECT_EQ(pauses, (std::vector<unsigned>{5, 5, 5}));
  ASSERT_EQ(reply.fields.size(), 2u);
  EXPECT_EQ(reply.fields[0].number, 226);
  EXPECT_EQ(reply.fields[1].bytes, std::string("done", 5));
  EXPECT_EQ(calRequests(&server).size(), 10u);
}

TEST_F(RemoteTest, NoWaitModeFailsOnBusyAndSendsMinusOneAsServerValue) {
  setNoWaitMode(true);
  link->serverValue = 12;
  calScript(&server, {calBusy(), calReply({calBytes(8, "list"), calNumber(3)})});
  EXPECT_EQ(RemReadArray(link, "a", nullptr), -1);
  EXPECT_TRUE(pauses.empty());
  EXPECT_EQ(RemGetUsers(link, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(render(last()), "-1 ''");
  EXPECT_TRUE(last().fields[1].payload.empty());  // no name: an empty field
}

TEST_F(RemoteTest, ServerValueReplyEndsOnlyTheCallsThatHandleIt) {
  calScript(&server, {calServerValue(4711), calServerValue(5), calServerValue(6)});
  EXPECT_EQ(RemGetEventsWith(link, nullptr, 0, 0, 0, nullptr), 0);
  EXPECT_EQ(link->serverValue, 4711);
  EXPECT_EQ(refreshes, 1);
  CaptureStderr();
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(GetCapturedStderr(), "RemMkDir: unexpected reply 218\n");
  EXPECT_EQ(link->serverValue, 4711);
  EXPECT_EQ(refreshes, 1);
  EXPECT_EQ(RemGetUsers(link, "x", nullptr, nullptr), 0);  // no reply check after 218
  EXPECT_EQ(link->serverValue, 6);
}

TEST_F(RemoteTest, WrongCodeMalformedOrIncompatibleReplyFailsWithoutResending) {
  CalStep bad = calReply({calText("abc")}), v4 = calReply();
  bad.raw = {FIELD_TEXT, 0, 0, 9};  // a field that claims more than the reply holds
  v4.major = 4;
  calScript(&server, {calReply({}, 205), bad, v4});
  CaptureStderr();
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(GetCapturedStderr(),
            "RemMkDir: unexpected reply 205\nRemMkDir: malformed reply\n"
            "Incompatible client version\n");
  EXPECT_EQ(calRequests(&server).size(), 3u);
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);  // a fresh connection works again
}

TEST_F(RemoteTest, GetUsersComparesTheNumberWithTheNamedServerValueAndChecksTheShape) {
  ServerLink *named = newServerLink("other");
  named->serverValue = 40;
  struct {
    ServerLink *target;
    int kind;
    int32_t number;
    bool before, changed;
    int32_t value;
  } cases[] = {
      {named, 2, 40, true, false, 40},    // equal: the change mark is cleared
      {named, 2, 41, false, true, 41},    // different: stored and marked
      {named, 8, 99, false, false, 41},   // kind 8: no comparison
      {nullptr, 2, 5, false, true, 5},    // no named context: the link's own
  };
  for (const auto &c : cases) {
    ServerLink *target = c.target ? c.target : link;
    target->changed = c.before;
    calScript(&server, {calReply({calBytes(c.kind, "users"), calNumber(c.number)})});
    RemReply reply;
    EXPECT_EQ(RemGetUsers(link, "other", c.target, &reply), 0);
    EXPECT_EQ(target->changed, c.changed) << c.number;
    EXPECT_EQ(target->serverValue, c.value) << c.number;
    EXPECT_EQ(reply.fields[1].bytes, "users");
  }
  freeServerLink(named);
  std::vector<CalField> shapes[] = {{},
                                    {calBytes(2, "u")},
                                    {calBytes(3, "u"), calNumber(1)},
                                    {calBytes(2, "u"), calText("1")},
                                    {calNumber(1), calBytes(2, "u")}};
  for (const auto &fields : shapes) {
    calScript(&server, {calReply(fields)});
    CaptureStderr();
    EXPECT_EQ(RemGetUsers(link, "n", nullptr, nullptr), -1);
    EXPECT_EQ(GetCapturedStderr(), "RemGetUsers: bad reply\n");
  }
  EXPECT_EQ(link->serverValue, 5);
}

TEST_F(RemoteTest, UnreachableServerIsReportedOnceAndCallsFail) {
  ServerLink *nowhere = newServerLink("no-such-host.invalid:2");
  EXPECT_EQ(RemGetDomains(nowhere, nullptr), -1);
  EXPECT_EQ(RemGetUserWorkdays(nowhere, nullptr), -1);
  EXPECT_EQ(shown, std::vector<std::string>{"cannot connect to server no-such-host.invalid:2\n"});
  EXPECT_TRUE(pauses.empty());
  freeServerLink(nowhere);
}

}  // namespace
}  // namespace quorvel
