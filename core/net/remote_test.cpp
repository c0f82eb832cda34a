// remote_test.cpp -- the remote calls against the fake calendar server: each call's request,
// the element encodings, and the common shape (resends, busy waits, 218 replies, losses).
#include "core/net/remote.h"

#include "core/items/item.h"
#include "core/net/calset.h"
#include "core/net/itemcodec.h"
#include "core/net/link_test_util.h"

namespace quorvel {
namespace {

using Titles = std::vector<std::string>;

// The titles of the items in an item or item-list field, read back with the item codec;
// chained copies are marked "+".
Titles titlesIn(const CalField &f) {
  Buf *b = NewBuf();
  StuffBuf(b, f.payload.data(), f.payload.size(), 1, BUF_UNTAGGED);
  rewindBuf(b);
  Item head;
  evlistInit(&head);
  Titles titles;
  if (readEventList(b, &head, static_cast<uint32_t>(f.payload.size())) < 0) titles.push_back("(bad)");
  for (Item *i = head.next; i != &head; i = i->next)
    for (Item *c = i; c; c = c->chain) titles.push_back((c == i ? "" : "+") + std::string(c->title));
  evlistFree(&head), freeBuf(b);
  return titles;
}

class RemoteTest : public ServerFixture {
 protected:
  Item *alpha = evnew(), *beta = evnew();
  Item list;  // head of a list holding copies of alpha and beta
  void SetUp() override {
    ServerFixture::SetUp();
    evsetTitle(alpha, "alpha"), evsetTitle(beta, "beta"), evlistInit(&list);
    evlistAppend(&list, evcopy(alpha)), evlistAppend(&list, evcopy(beta));
  }
  void TearDown() override { evlistFree(&list), evfree(alpha), evfree(beta), ServerFixture::TearDown(); }
};

TEST_F(RemoteTest, EveryCallSendsItsCodeAndElementsInOrder) {
  ItemQuery q{nullptr, 100, 200, 3, "find"};
  RemBytes bytes{"alarm-record", 12}, none{nullptr, 0};
  link->serverValue = 77;
  // A call's request, followed by its result when that is not 0.
  auto sent = [&](int rc) { return render(last()) + (rc ? " -> " + std::to_string(rc) : ""); };
  CaptureStderr();
  EXPECT_EQ(sent(RemGetEventsWith(link, &q, 1, 2, 3, nullptr)), "101 W s e k t 1 2 3");
  EXPECT_EQ(sent(RemDbChange(link, &list, nullptr, 4, 5, nullptr)), "102 <53> <53> 4 5");
  EXPECT_EQ(sent(RemDbChevent(link, alpha, beta, 6, 7, nullptr)), "103 <54> <54> 6 7");
  EXPECT_EQ(sent(RemGetUsers(link, "anna", nullptr, nullptr)), "104 77 'anna' -> -1");  // reply too short
  EXPECT_EQ(sent(RemReadDatPerms(link, 8, "bob", nullptr, nullptr)), "106 8 'bob'");
  EXPECT_EQ(sent(RemWriteDatPerms(link, "c1", bytes, nullptr)), "109 'c1' <50>");
  EXPECT_EQ(sent(RemSetNotifyDelete(link, "c2", bytes, nullptr)), "110 'c2' <50>");
  EXPECT_EQ(sent(RemSetNotifyByMail(link, "c3", none, nullptr)), "111 'c3' <50>");
  EXPECT_EQ(sent(RemGetPopupNote(link, "note", 9, nullptr)), "112 'note' 9");
  EXPECT_EQ(sent(RemPutPopupNote(link, "n", alpha, "t1", "t2", nullptr)), "113 'n' <54> 't1' 't2'");
  EXPECT_EQ(sent(RemGetDefaultAlarm(link, 10, nullptr)), "114 10");
  EXPECT_EQ(sent(RemPutDefaultAlarm(link, bytes, nullptr)), "115 <7>");
  EXPECT_EQ(sent(RemCreatePopupNoteFile(link, beta, nullptr)), "116 <54>");
  EXPECT_EQ(sent(RemReadRoloFile(link, 11, 12, 13, nullptr)), "119 11 12 13");
  EXPECT_EQ(sent(RemChangeRoloList(link, 14, bytes, none, nullptr)), "120 14 <58> <59>");
  EXPECT_EQ(sent(RemGetUnfinishedEvents(link, &q, "u", 15, nullptr)), "122 W s e k t 'u' 15");
  EXPECT_EQ(sent(RemAddNewUser(link, "a", "b", "c", "d", nullptr)), "123 'a' 'b' 'c' 'd'");
  EXPECT_EQ(sent(RemCheckRemoteDom(link, "dom", 16, nullptr)), "124 'dom' 16");
  EXPECT_EQ(sent(RemGetHotDays(link, nullptr, 17, 18, 19, nullptr)), "125 W s e k 17 18 19");
  EXPECT_EQ(sent(RemReadArray(link, "arr", nullptr)), "126 'arr'");
  EXPECT_EQ(sent(RemWriteArray(link, "arr", "data", nullptr)), "127 'arr' 'data'");
  EXPECT_EQ(sent(RemPutPasswdEntry(link, 20, "lg", "ent", 21, 22, 23, nullptr)), "128 20 'lg' 'ent' 21 22 23");
  EXPECT_EQ(sent(RemPutUnfinishedEvents(link, &q, "v", &list, 24, nullptr)), "129 W s e k t 'v' <53> 24");
  EXPECT_EQ(sent(RemCheckRemoteUsers(link, "x,y", 25, nullptr)), "130 'x,y' 25");
  EXPECT_EQ(sent(RemSendMail(link, alpha, nullptr, 26, 27, 28, 29, nullptr)), "131 <54> <54> 26 27 28 29");
  EXPECT_EQ(sent(RemMvDir(link, "from", "to", nullptr)), "132 'from' 'to'");
  EXPECT_EQ(sent(RemMkDir(link, "dir", nullptr)), "133 'dir'");
  using Bare = int (*)(ServerLink *, RemReply *);  // the calls without elements
  for (auto [call, code] : {std::pair<Bare, int>{RemLoadUserGroups, 105}, {RemCheckNotifyDelete, 107},
                            {RemCheckNotifyByMail, 108}, {RemGetDomains, 121}, {RemGetUserWorkdays, 134}})
    EXPECT_EQ(sent(call(link, nullptr)), std::to_string(code));
  EXPECT_EQ(sent(RemGetFoundEvents(link, &q, 30, 31, "txt", 32, 33, nullptr)), "135 W s e k t 30 31 'txt' 32 33");
  EXPECT_EQ(calRequests(&server).size(), 33u);  // one request each
  EXPECT_EQ(GetCapturedStderr(), "RemGetUsers: bad reply\n");
}
TEST_F(RemoteTest, ItemElementsCarryTheCodecFieldsChainsAndExtendedHeader) {
  chainAppend(alpha, evcopy(alpha));  // the same item in another database
  evsetDbName(alpha->chain, "elsewhere");
  Item empty;
  evlistInit(&empty);
  ASSERT_EQ(RemDbChevent(link, alpha, nullptr, 0, 0, nullptr), 0);
  EXPECT_EQ(titlesIn(last().fields[0]), (Titles{"alpha", "+alpha"}));
  EXPECT_TRUE(last().fields[1].payload.empty() && last().magic == MSG_MAGIC_EXTENDED);  // none: empty; chain: extended
  ASSERT_EQ(RemDbChange(link, &list, &empty, 0, 0, nullptr), 0);
  EXPECT_EQ(titlesIn(last().fields[0]), (Titles{"alpha", "beta"}));
  EXPECT_TRUE(titlesIn(last().fields[1]).empty());
  EXPECT_EQ(last().magic, MSG_MAGIC);
  // A type letter 'd' asks for the extended header too, unless the peer is too old.
  calScript(&server, {calReply({}, 216), headed(1, 1, MSG_MAGIC, 216)});
  beta->typeLetter = 'd';
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(last().magic, MSG_MAGIC_EXTENDED);
  closeServerSocket(link);
  link->peerMajor = link->peerMinor = 0;  // learn the next peer's version afresh
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(last().magic, MSG_MAGIC);
}
TEST_F(RemoteTest, QueryBlockCarriesSetRangeKindsAndText) {
  CalSet set = nullptr;
  setbit(&set, 3, 1);
  ItemQuery q{set, -50, 900, 5, "needle"};
  ASSERT_EQ(RemGetHotDays(link, &q, 0, 0, 0, nullptr), 0);
  freebits(&set);
  std::vector<CalField> f = last().fields;
  ASSERT_EQ(render(last()), "125 W s e k t 0 0 0");
  EXPECT_EQ(f[0].payload, (std::vector<uint8_t>{0, 4, 0, 8}));  // 4 bits, bit 3
  EXPECT_EQ(std::to_string(calFieldNumber(f[1])) + " " + std::to_string(calFieldNumber(f[2])) + " " +
                std::to_string(calFieldNumber(f[3])) + " " + calFieldText(f[4]), "-50 900 5 needle");
  ASSERT_EQ(RemGetHotDays(link, nullptr, 0, 0, 0, nullptr), 0);
  f = last().fields;  // everything: empty set, open range
  ASSERT_EQ(render(last()), "125 W s e k 0 0 0");
  EXPECT_EQ(f[0].payload, (std::vector<uint8_t>{0, 0, 0, 0}));
  EXPECT_EQ(std::vector<int>({calFieldNumber(f[1]), calFieldNumber(f[2]), calFieldNumber(f[3])}),
            std::vector<int>({NO_TIME, NO_TIME, 0}));
}
TEST_F(RemoteTest, LostRepliesAreResentTwiceLostServersReportedAndBusyRepliesWaitedOut) {
  CalStep lost = calAction(CAL_CLOSE);
  calScript(&server, {lost, lost, calReply(), lost, lost, lost});
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);
  EXPECT_EQ(calRequests(&server).size(), 3u);
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(calRequests(&server).size(), 6u);
  ServerLink *nowhere = newServerLink("no-such-host.invalid:2");  // a lost server is reported once
  EXPECT_EQ(RemGetDomains(nowhere, nullptr) + RemGetUserWorkdays(nowhere, nullptr), -2);
  EXPECT_EQ(shown, std::vector<std::string>{"cannot connect to server no-such-host.invalid:2\n"});  // not lost replies
  freeServerLink(nowhere);
  calScript(&server, {calBusy(), calBusy(), calBusy(), calReply({calText("done")})});
  RemReply reply;
  EXPECT_EQ(RemReadArray(link, "a", &reply), 0);
  EXPECT_EQ(pauses, (Pauses{5, 5, 5}));  // none for lost replies or servers
  ASSERT_EQ(reply.fields.size(), 2u);
  EXPECT_EQ(std::to_string(reply.fields[0].number) + reply.fields[1].bytes, std::string("226done", 8));
  EXPECT_EQ(calRequests(&server).size(), 10u);
  // A server busy for good: 24 waits, then the call fails; one busy answer fewer passes.
  for (int busy : {REMOTE_BUSY_WAITS + 1, REMOTE_BUSY_WAITS}) {
    pauses.clear();
    calScript(&server, std::vector<CalStep>(size_t(busy), calBusy()));
    calScript(&server, {calReply()});
    CaptureStderr();
    EXPECT_EQ(RemMkDir(link, "d", nullptr), busy > REMOTE_BUSY_WAITS ? -1 : 0);
    EXPECT_EQ(GetCapturedStderr(), busy > REMOTE_BUSY_WAITS ? "RemMkDir: server still busy after 24 waits\n" : "");
    EXPECT_EQ(pauses, Pauses(REMOTE_BUSY_WAITS, 5));
    if (busy > REMOTE_BUSY_WAITS) {
      EXPECT_EQ(RemMkDir(link, "d", nullptr), 0);  // (the reply left over)
    }
  }
}
TEST_F(RemoteTest, NoWaitModeFailsOnBusyAndSendsMinusOneAsServerValue) {
  setNoWaitMode(true);
  link->serverValue = 12;
  calScript(&server, {calBusy(), calReply({calBytes(8, "list"), calNumber(3)})});
  EXPECT_EQ(RemReadArray(link, "a", nullptr), -1);
  EXPECT_TRUE(pauses.empty());
  EXPECT_EQ(RemGetUsers(link, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(render(last()), "104 -1 ''");
  EXPECT_TRUE(last().fields[1].payload.empty());  // no name: an empty field
}
TEST_F(RemoteTest, ServerValueReplyEndsOnlyTheCallsThatHandleItAndGetUsersChecksTheShape) {
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
  // Otherwise RemGetUsers wants a user field of kind 2 or 8 and a number; how the number
  // marks a change is checked through its users in the people tests.
  std::vector<CalField> shapes[] = {{}, {calBytes(2, "u")}, {calBytes(3, "u"), calNumber(1)},
                                    {calBytes(2, "u"), calText("1")}};
  for (const auto &fields : shapes) {
    calScript(&server, {calReply(fields)});
    CaptureStderr();
    EXPECT_EQ(RemGetUsers(link, "n", nullptr, nullptr), -1);
    EXPECT_EQ(GetCapturedStderr(), "RemGetUsers: bad reply\n");
  }
  EXPECT_EQ(link->serverValue, 6);
  calScript(&server, {calReply({calBytes(2, "u"), calNumber(7)})});
  EXPECT_EQ(RemGetUsers(link, "n", nullptr, nullptr), 0);
  EXPECT_EQ(link->serverValue, 7);
}
TEST_F(RemoteTest, OversizeRequestWrongCodeMalformedOrIncompatibleReplyFailWithoutResending) {
  static const char byte = 'x';
  RemBytes huge{&byte, BUF_MAX_FIELD + 1};  // refused on its length, never read
  CaptureStderr();
  EXPECT_EQ(RemPutDefaultAlarm(link, huge, nullptr), -1);
  EXPECT_EQ(calConnections(&server), 0);
  CalStep bad = calReply({calText("abc")});
  bad.raw = {FIELD_TEXT, 0, 0, 9};  // a field that claims more than the reply holds
  calScript(&server, {calReply({}, 205), bad, headed(4, 6)});
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(GetCapturedStderr(), "RemPutDefaultAlarm: request too large\nRemMkDir: unexpected reply 205\n"
                                 "RemMkDir: malformed reply\nIncompatible client version\n");
  EXPECT_EQ(calRequests(&server).size(), 3u);
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);  // a fresh connection works again
}

}  // namespace
}  // namespace quorvel
