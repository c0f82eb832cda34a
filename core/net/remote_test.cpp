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

std::vector<unsigned> pauses;    // seconds the product asked to sleep
std::vector<std::string> shown;  // texts of the client's message display
int refreshes;                   // runs of the refresh routine after 218

void recordPause(unsigned s) { pauses.push_back(s); }
void recordMessage(const char *text) { shown.push_back(text); }
void countRefresh(ServerLink *) { refreshes++; }

// One request field as a short text: numbers in decimal, texts quoted, others by kind.
std::string render(const CalField &f) {
  if (f.kind == FIELD_NUMBER) return std::to_string(calFieldNumber(f));
  if (f.kind == FIELD_TEXT) return "'" + calFieldText(f) + "'";
  return "<" + std::to_string(f.kind) + ">";
}

std::vector<std::string> renderAll(const CalRequest &r) {
  std::vector<std::string> out;
  for (const CalField &f : r.fields) out.push_back(render(f));
  return out;
}

// Reads the items of an item or item-list field back with the item codec.
std::vector<std::string> titlesIn(const CalField &f) {
  Buf *b = NewBuf();
  StuffBuf(b, f.payload.data(), f.payload.size(), 1, BUF_UNTAGGED);
  size_t end = bufUsed(b);
  rewindBuf(b);
  Item head;
  evlistInit(&head);
  std::vector<std::string> titles;
  if (readEventList(b, &head, static_cast<uint32_t>(end)) >= 0) {
    for (Item *i = head.next; i != &head; i = i->next) {
      titles.push_back(i->title);
      for (Item *c = i->chain; c; c = c->chain) titles.push_back(std::string("+") + c->title);
    }
  }
  evlistFree(&head);
  freeBuf(b);
  return titles;
}

class RemoteTest : public ::testing::Test {
 protected:
  CalServer server;
  ServerLink *link = nullptr;
  Item *alpha = nullptr, *beta = nullptr;
  Item list;  // head of a list holding copies of alpha and beta

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
    alpha = evnew();
    evsetTitle(alpha, "alpha");
    beta = evnew();
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
  CalRequest lastRequest() {
    std::vector<CalRequest> got = calRequests(&server);
    return got.empty() ? CalRequest{} : got.back();
  }
};

/* ---- Each call's code and elements -------------------------------------------------- */

struct CallCase {
  const char *name;
  int code;
  std::function<int(ServerLink *)> call;
  std::vector<std::string> elements;
};

TEST_F(RemoteTest, EveryCallSendsItsCodeAndElementsInOrder) {
  ItemQuery q{nullptr, 100, 200, 3, "find"};
  const char rec[] = "alarm-record";
  const char book[] = "book-entries";
  RemBytes recBytes{rec, sizeof rec - 1}, bookBytes{book, sizeof book - 1}, none{nullptr, 0};
  link->serverValue = 77;
  std::vector<CallCase> cases = {
      {"RemGetEventsWith", 101, [&](ServerLink *l) { return RemGetEventsWith(l, &q, 1, 2, 3, nullptr); },
       {"<52>", "1", "2", "3"}},
      {"RemDbChange", 102, [&](ServerLink *l) { return RemDbChange(l, &list, nullptr, 4, 5, nullptr); },
       {"<53>", "<53>", "4", "5"}},
      {"RemDbChevent", 103, [&](ServerLink *l) { return RemDbChevent(l, alpha, beta, 6, 7, nullptr); },
       {"<54>", "<54>", "6", "7"}},
      {"RemGetUsers", 104, [&](ServerLink *l) {
         return RemGetUsers(l, "anna", nullptr, nullptr) == -1 ? 0 : 1;  // reply lacks its fields
       },
       {"77", "'anna'"}},
      {"RemLoadUserGroups", 105, [&](ServerLink *l) { return RemLoadUserGroups(l, nullptr); }, {}},
      {"RemReadDatPerms", 106, [&](ServerLink *l) { return RemReadDatPerms(l, 8, "bob", nullptr, nullptr); },
       {"8", "'bob'"}},
      {"RemCheckNotifyDelete", 107, [&](ServerLink *l) { return RemCheckNotifyDelete(l, nullptr); }, {}},
      {"RemCheckNotifyByMail", 108, [&](ServerLink *l) { return RemCheckNotifyByMail(l, nullptr); }, {}},
      {"RemWriteDatPerms", 109, [&](ServerLink *l) { return RemWriteDatPerms(l, "c1", recBytes, nullptr); },
       {"'c1'", "<50>"}},
      {"RemSetNotifyDelete", 110, [&](ServerLink *l) { return RemSetNotifyDelete(l, "c2", recBytes, nullptr); },
       {"'c2'", "<50>"}},
      {"RemSetNotifyByMail", 111, [&](ServerLink *l) { return RemSetNotifyByMail(l, "c3", none, nullptr); },
       {"'c3'", "<50>"}},
      {"RemGetPopupNote", 112, [&](ServerLink *l) { return RemGetPopupNote(l, "note", 9, nullptr); },
       {"'note'", "9"}},
      {"RemPutPopupNote", 113, [&](ServerLink *l) { return RemPutPopupNote(l, "n", alpha, "t1", "t2", nullptr); },
       {"'n'", "<54>", "'t1'", "'t2'"}},
      {"RemGetDefaultAlarm", 114, [&](ServerLink *l) { return RemGetDefaultAlarm(l, 10, nullptr); }, {"10"}},
      {"RemPutDefaultAlarm", 115, [&](ServerLink *l) { return RemPutDefaultAlarm(l, recBytes, nullptr); }, {"<7>"}},
      {"RemCreatePopupNoteFile", 116, [&](ServerLink *l) { return RemCreatePopupNoteFile(l, beta, nullptr); },
       {"<54>"}},
      {"RemReadRoloFile", 119, [&](ServerLink *l) { return RemReadRoloFile(l, 11, 12, 13, nullptr); },
       {"11", "12", "13"}},
      {"RemChangeRoloList", 120, [&](ServerLink *l) { return RemChangeRoloList(l, 14, bookBytes, none, nullptr); },
       {"14", "<58>", "<59>"}},
      {"RemGetDomains", 121, [&](ServerLink *l) { return RemGetDomains(l, nullptr); }, {}},
      {"RemGetUnfinishedEvents", 122, [&](ServerLink *l) { return RemGetUnfinishedEvents(l, &q, "u", 15, nullptr); },
       {"<52>", "'u'", "15"}},
      {"RemAddNewUser", 123, [&](ServerLink *l) { return RemAddNewUser(l, "a", "b", "c", "d", nullptr); },
       {"'a'", "'b'", "'c'", "'d'"}},
      {"RemCheckRemoteDom", 124, [&](ServerLink *l) { return RemCheckRemoteDom(l, "dom", 16, nullptr); },
       {"'dom'", "16"}},
      {"RemGetHotDays", 125, [&](ServerLink *l) { return RemGetHotDays(l, &q, 17, 18, 19, nullptr); },
       {"<52>", "17", "18", "19"}},
      {"RemReadArray", 126, [&](ServerLink *l) { return RemReadArray(l, "arr", nullptr); }, {"'arr'"}},
      {"RemWriteArray", 127, [&](ServerLink *l) { return RemWriteArray(l, "arr", "data", nullptr); },
       {"'arr'", "'data'"}},
      {"RemPutPasswdEntry", 128, [&](ServerLink *l) { return RemPutPasswdEntry(l, 20, "lg", "ent", 21, 22, 23, nullptr); },
       {"20", "'lg'", "'ent'", "21", "22", "23"}},
      {"RemPutUnfinishedEvents", 129, [&](ServerLink *l) { return RemPutUnfinishedEvents(l, &q, "v", &list, 24, nullptr); },
       {"<52>", "'v'", "<53>", "24"}},
      {"RemCheckRemoteUsers", 130, [&](ServerLink *l) { return RemCheckRemoteUsers(l, "x,y", 25, nullptr); },
       {"'x,y'", "25"}},
      {"RemSendMail", 131, [&](ServerLink *l) { return RemSendMail(l, alpha, nullptr, 26, 27, 28, 29, nullptr); },
       {"<54>", "<54>", "26", "27", "28", "29"}},
      {"RemMvDir", 132, [&](ServerLink *l) { return RemMvDir(l, "from", "to", nullptr); }, {"'from'", "'to'"}},
      {"RemMkDir", 133, [&](ServerLink *l) { return RemMkDir(l, "dir", nullptr); }, {"'dir'"}},
      {"RemGetUserWorkdays", 134, [&](ServerLink *l) { return RemGetUserWorkdays(l, nullptr); }, {}},
      {"RemGetFoundEvents", 135, [&](ServerLink *l) { return RemGetFoundEvents(l, &q, 30, 31, "txt", 32, 33, nullptr); },
       {"<52>", "30", "31", "'txt'", "32", "33"}},
  };
  size_t seen = 0;
  testing::internal::CaptureStderr();
  for (const CallCase &c : cases) {
    EXPECT_EQ(c.call(link), 0) << c.name;
    std::vector<CalRequest> got = calRequests(&server);
    ASSERT_EQ(got.size(), ++seen) << c.name;
    EXPECT_EQ(got.back().code, c.code) << c.name;
    EXPECT_TRUE(got.back().wellFormed) << c.name;
    EXPECT_EQ(renderAll(got.back()), c.elements) << c.name;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemGetUsers: bad reply\n");
}

/* ---- Element encodings --------------------------------------------------------------- */

TEST_F(RemoteTest, ItemElementsCarryTheCodecFieldsAndChains) {
  Item *copy = evcopy(alpha);  // the same item in another database
  evsetDbName(copy, "elsewhere");
  chainAppend(alpha, copy);
  ASSERT_EQ(RemDbChevent(link, alpha, nullptr, 0, 0, nullptr), 0);
  CalRequest r = lastRequest();
  ASSERT_EQ(r.fields.size(), 4u);
  EXPECT_EQ(titlesIn(r.fields[0]), (std::vector<std::string>{"alpha", "+alpha"}));
  EXPECT_TRUE(r.fields[1].payload.empty());  // no item: an empty field
  EXPECT_EQ(r.magic, MSG_MAGIC_EXTENDED);    // a chained item needs the extended header

  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(lastRequest().magic, MSG_MAGIC);
  beta->typeLetter = 'd';
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(lastRequest().magic, MSG_MAGIC_EXTENDED);
}

TEST_F(RemoteTest, OldPeerNeverGetsExtendedMessages) {
  CalStep old = calReply({}, 216);
  old.minor = 1;
  calScript(&server, {old});
  beta->typeLetter = 'd';
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_TRUE(link->noExtended);
  ASSERT_EQ(RemCreatePopupNoteFile(link, beta, nullptr), 0);
  EXPECT_EQ(lastRequest().magic, MSG_MAGIC);
  EXPECT_EQ(lastRequest().minor, 6);
}

TEST_F(RemoteTest, ItemListElementsCarryEveryItem) {
  Item empty;
  evlistInit(&empty);
  ASSERT_EQ(RemDbChange(link, &list, &empty, 0, 0, nullptr), 0);
  CalRequest r = lastRequest();
  ASSERT_EQ(r.fields.size(), 4u);
  EXPECT_EQ(titlesIn(r.fields[0]), (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_TRUE(titlesIn(r.fields[1]).empty());
  EXPECT_EQ(r.magic, MSG_MAGIC);
}

TEST_F(RemoteTest, QueryBlockCarriesSetRangeKindsAndText) {
  CalSet set = nullptr;
  setbit(&set, 3, 1);
  ItemQuery q{set, -50, 900, 5, "needle"};
  ASSERT_EQ(RemGetHotDays(link, &q, 0, 0, 0, nullptr), 0);
  ItemQuery open{nullptr, NO_TIME, NO_TIME, 0, nullptr};
  ASSERT_EQ(RemGetHotDays(link, &open, 0, 0, 0, nullptr), 0);
  ASSERT_EQ(RemGetHotDays(link, nullptr, 0, 0, 0, nullptr), 0);
  freebits(&set);
  std::vector<CalRequest> got = calRequests(&server);
  ASSERT_EQ(got.size(), 3u);

  std::vector<CalField> inner;
  const CalField &block = got[0].fields[0];
  ASSERT_TRUE(calParseFields(block.payload.data(), block.payload.size(), &inner));
  ASSERT_EQ(inner.size(), 5u);
  EXPECT_EQ(inner[0].kind, 'W');
  EXPECT_EQ(inner[0].payload, (std::vector<uint8_t>{0, 4, 0, 8}));  // 4 bits, bit 3
  EXPECT_EQ(inner[1].kind, 's');
  EXPECT_EQ(calFieldNumber(inner[1]), -50);
  EXPECT_EQ(inner[2].kind, 'e');
  EXPECT_EQ(calFieldNumber(inner[2]), 900);
  EXPECT_EQ(inner[3].kind, 'k');
  EXPECT_EQ(calFieldNumber(inner[3]), 5);
  EXPECT_EQ(inner[4].kind, 't');
  EXPECT_EQ(calFieldText(inner[4]), "needle");

  inner.clear();
  const CalField &openBlock = got[1].fields[0];
  ASSERT_TRUE(calParseFields(openBlock.payload.data(), openBlock.payload.size(), &inner));
  ASSERT_EQ(inner.size(), 4u);  // no text field
  EXPECT_EQ(inner[0].payload, (std::vector<uint8_t>{0, 0, 0, 0}));  // empty set
  EXPECT_EQ(calFieldNumber(inner[1]), NO_TIME);
  EXPECT_EQ(got[2].fields[0].kind, FIELD_QUERY);
  EXPECT_TRUE(got[2].fields[0].payload.empty());
}

TEST_F(RemoteTest, OversizeElementIsRefusedBeforeSending) {
  static const char byte = 'x';
  RemBytes huge{&byte, BUF_MAX_FIELD + 1};  // refused on its length, never read
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemPutDefaultAlarm(link, huge, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemPutDefaultAlarm: request too large\n");
  EXPECT_EQ(calConnections(&server), 0);
}

/* ---- The common shape ---------------------------------------------------------------- */

TEST_F(RemoteTest, LostRepliesAreResentTwiceThenFail) {
  calScript(&server, {calAction(CAL_CLOSE), calAction(CAL_CLOSE), calReply()});
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);
  EXPECT_EQ(calRequests(&server).size(), 3u);
  EXPECT_TRUE(pauses.empty());

  calScript(&server, {calAction(CAL_CLOSE), calAction(CAL_CLOSE), calAction(CAL_CLOSE),
                      calReply()});
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(calRequests(&server).size(), 6u);
  EXPECT_TRUE(shown.empty());  // a lost reply is not a lost server
}

TEST_F(RemoteTest, BusyRepliesAreWaitedOutFiveSecondsAtATime) {
  calScript(&server, {calBusy(), calBusy(), calBusy(), calReply({calText("done")})});
  RemReply reply;
  EXPECT_EQ(RemReadArray(link, "a", &reply), 0);
  EXPECT_EQ(pauses, (std::vector<unsigned>{5, 5, 5}));
  ASSERT_EQ(reply.fields.size(), 2u);
  EXPECT_EQ(reply.fields[0].number, 226);
  EXPECT_EQ(reply.fields[1].bytes, std::string("done", 5));
  EXPECT_EQ(calRequests(&server).size(), 4u);
}

TEST_F(RemoteTest, NoWaitModeFailsOnBusyAndSendsMinusOneAsServerValue) {
  setNoWaitMode(true);
  link->serverValue = 12;
  calScript(&server, {calBusy()});
  EXPECT_EQ(RemReadArray(link, "a", nullptr), -1);
  EXPECT_TRUE(pauses.empty());
  calScript(&server, {calReply({calBytes(8, "list"), calNumber(3)})});
  EXPECT_EQ(RemGetUsers(link, nullptr, nullptr, nullptr), 0);
  CalRequest r = lastRequest();
  EXPECT_EQ(renderAll(r), (std::vector<std::string>{"-1", "''"}));
  EXPECT_TRUE(r.fields[1].payload.empty());  // no name: an empty field
}

TEST_F(RemoteTest, ServerValueReplyEndsOnlyTheCallsThatHandleIt) {
  calScript(&server, {calServerValue(4711)});
  EXPECT_EQ(RemGetEventsWith(link, nullptr, 0, 0, 0, nullptr), 0);
  EXPECT_EQ(link->serverValue, 4711);
  EXPECT_EQ(refreshes, 1);

  calScript(&server, {calServerValue(5)});
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemMkDir: unexpected reply 218\n");
  EXPECT_EQ(link->serverValue, 4711);
  EXPECT_EQ(refreshes, 1);

  calScript(&server, {calServerValue(6)});
  EXPECT_EQ(RemGetUsers(link, "x", nullptr, nullptr), 0);  // no reply check after 218
  EXPECT_EQ(link->serverValue, 6);
}

TEST_F(RemoteTest, WrongReplyCodeOrMalformedReplyFails) {
  calScript(&server, {calReply({}, 205)});
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemMkDir: unexpected reply 205\n");
  CalStep bad = calReply({calText("abc")});
  bad.raw = {FIELD_TEXT, 0, 0, 9};  // a field that claims more than the reply holds
  calScript(&server, {bad});
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemMkDir(link, "d", nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemMkDir: malformed reply\n");
}

TEST_F(RemoteTest, GetUsersComparesTheNumberWithTheNamedServerValue) {
  ServerLink *named = newServerLink("other");
  named->serverValue = 40;
  named->changed = true;
  calScript(&server, {calReply({calBytes(2, "users"), calNumber(40)})});
  RemReply reply;
  EXPECT_EQ(RemGetUsers(link, "other", named, &reply), 0);
  EXPECT_FALSE(named->changed);  // equal: the change mark is cleared
  EXPECT_EQ(reply.fields[1].bytes, "users");

  calScript(&server, {calReply({calBytes(2, "users"), calNumber(41)})});
  EXPECT_EQ(RemGetUsers(link, "other", named, nullptr), 0);
  EXPECT_TRUE(named->changed);
  EXPECT_EQ(named->serverValue, 41);

  named->changed = false;
  calScript(&server, {calReply({calBytes(8, "users"), calNumber(99)})});
  EXPECT_EQ(RemGetUsers(link, "other", named, nullptr), 0);  // kind 8: no comparison
  EXPECT_FALSE(named->changed);
  EXPECT_EQ(named->serverValue, 41);

  calScript(&server, {calReply({calBytes(2, "u"), calNumber(5)})});
  EXPECT_EQ(RemGetUsers(link, nullptr, nullptr, nullptr), 0);  // no context: the link's own
  EXPECT_EQ(link->serverValue, 5);
  EXPECT_TRUE(link->changed);
  freeServerLink(named);
}

TEST_F(RemoteTest, GetUsersRefusesRepliesOfTheWrongShape) {
  std::vector<std::vector<CalField>> shapes = {
      {},
      {calBytes(2, "u")},
      {calBytes(3, "u"), calNumber(1)},
      {calBytes(2, "u"), calText("1")},
      {calNumber(1), calBytes(2, "u")},
  };
  for (const auto &fields : shapes) {
    calScript(&server, {calReply(fields)});
    testing::internal::CaptureStderr();
    EXPECT_EQ(RemGetUsers(link, "n", nullptr, nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemGetUsers: bad reply\n");
  }
  EXPECT_EQ(link->serverValue, 0);
}

TEST_F(RemoteTest, LostServerIsReportedOnceAndCallsFail) {
  std::string address = calAddress(&server);
  stopCalServer(&server);
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(RemGetUserWorkdays(link, nullptr), -1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "cannot connect to server " + address + "\n");
  EXPECT_TRUE(pauses.empty());
}

TEST_F(RemoteTest, BadVersionReplyFailsTheCall) {
  CalStep v4 = calReply();
  v4.major = 4;
  calScript(&server, {v4});
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemGetDomains(link, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Incompatible client version\n");
  EXPECT_EQ(calRequests(&server).size(), 1u);  // not resent
  EXPECT_EQ(RemGetDomains(link, nullptr), 0);  // a fresh connection works again
}

}  // namespace
}  // namespace quorvel
