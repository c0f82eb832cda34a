// itemcodec_test.cpp -- items through the wire codec: every field back as it went out,
// the fields each peer version receives, the reader's refusals, and item messages.
#include "core/net/itemcodec.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/calset.h"
#include "core/net/namelookup.h"

namespace quorvel {
namespace {

/* ---- Helpers -------------------------------------------------------------------- */

const char *const kNames[] = {"alice", "bob", "carol", "dave"};

int countNames(void *) { return 4; }
const char *nameAt(void *, int i) { return i >= 0 && i < 4 ? kNames[i] : nullptr; }
int indexOfName(void *, const char *name) {
  for (int i = 0; i < 4; i++) {
    if (strcmp(kNames[i], name) == 0) return i;
  }
  return -1;
}
const NameLookup kLookup = {nullptr, countNames, nameAt, indexOfName};

CalSet makeSet(std::initializer_list<int> members) {
  CalSet set = nullptr;
  for (int i : members) setbit(&set, i, 1);
  return set;
}

char *dup(const char *text) {
  char *copy = static_cast<char *>(allocMem(nullptr, strlen(text) + 1));
  strcpy(copy, text);
  return copy;
}

// An item with every field away from its initial value, two entries in each array.
Item *fullItem() {
  Item *it = evnew();
  evsetDbName(it, "projects");
  it->dbFlag = 1;
  it->dWord = KIND_TODO;
  it->uWord = 0x1234;
  evsetTitle(it, "Quarterly review");
  it->owner = 2;
  it->calendars = makeSet({0, 2, 3});
  it->timeValue = {{1700000000, 7, 9}, {1700003600, 8, 10}};
  CalSet *sets[] = {&it->setY, &it->setN, &it->setS, &it->setR, &it->setC, &it->setX, &it->setM};
  for (int i = 0; i < 7; i++) *sets[i] = makeSet({i % 4, 17 + i});
  for (int i = 0; i < 2; i++) {
    Popup *p = addPopup(it);
    p->title = dup(i == 0 ? "first note" : "second");
    p->mask = 0x40 + i;
    p->number = -5 - i;
    p->setS = makeSet({i});
    p->setR = makeSet({3, 30 + i});
    Alarm *a = addAlarmEntry(it);
    a->user = i == 0 ? 1 : -1;
    a->start = 15u + i;
    a->freq = 5u * i;
    a->string = i == 0 ? dup("bring slides") : nullptr;
    UserTime *u = addUserTime(it);
    u->user = 3 - i;
    u->when = {1699990000 + i, uint16_t(i), 0xffff};
    LabelSet *l = addLabelSet(it);
    l->label = dup(i == 0 ? "room" : "catering");
    l->set = makeSet({1 + i});
  }
  it->value8 = {-42, 3, 4};
  it->randomId = 0x2468ace;
  it->hNumber = 77;
  it->aNumber = 11;
  it->fNumber = 12;
  it->eNumber = 13;
  it->gNumber = 14;
  it->gFlag = 3;
  it->kFlag = 4;
  it->linkByte = 6;
  return it;
}

bool sameTime(const DateTime &a, const DateTime &b) {
  return a.time == b.time && a.q1 == b.q1 && a.q2 == b.q2;
}

void expectSameSet(const uint16_t *a, const uint16_t *b, const char *what) {
  EXPECT_TRUE(setsEqual(a, b)) << what;
  EXPECT_EQ(setMembers(a), setMembers(b)) << what;
}

// Field by field, the chain and list links aside.
void expectSameItem(const Item *a, const Item *b) {
  EXPECT_STREQ(a->dbName, b->dbName);
  EXPECT_EQ(a->dbFlag, b->dbFlag);
  EXPECT_EQ(a->dWord, b->dWord);
  EXPECT_EQ(a->uWord, b->uWord);
  EXPECT_STREQ(a->title, b->title);
  EXPECT_EQ(a->owner, b->owner);
  expectSameSet(a->calendars, b->calendars, "W");
  EXPECT_TRUE(sameTime(a->timeValue.start, b->timeValue.start));
  EXPECT_TRUE(sameTime(a->timeValue.end, b->timeValue.end));
  const uint16_t *sa[] = {a->setY, a->setN, a->setS, a->setR, a->setC, a->setX, a->setM};
  const uint16_t *sb[] = {b->setY, b->setN, b->setS, b->setR, b->setC, b->setX, b->setM};
  for (int i = 0; i < 7; i++) expectSameSet(sa[i], sb[i], std::string(1, "YNSRCXM"[i]).c_str());
  ASSERT_EQ(a->popupCount, b->popupCount);
  for (int i = 0; i < a->popupCount; i++) {
    EXPECT_STREQ(a->popups[i].title, b->popups[i].title);
    EXPECT_EQ(a->popups[i].mask, b->popups[i].mask);
    EXPECT_EQ(a->popups[i].number, b->popups[i].number);
    expectSameSet(a->popups[i].setS, b->popups[i].setS, "popup b");
    expectSameSet(a->popups[i].setR, b->popups[i].setR, "popup second b");
  }
  ASSERT_EQ(a->listBCount, b->listBCount);
  for (int i = 0; i < a->listBCount; i++) {
    EXPECT_EQ(a->listB[i].user, b->listB[i].user);
    EXPECT_EQ(a->listB[i].start, b->listB[i].start);
    EXPECT_EQ(a->listB[i].freq, b->listB[i].freq);
    EXPECT_STREQ(a->listB[i].string, b->listB[i].string);
  }
  EXPECT_TRUE(sameTime(a->value8, b->value8));
  ASSERT_EQ(a->listCCount, b->listCCount);
  for (int i = 0; i < a->listCCount; i++) {
    EXPECT_EQ(a->listC[i].user, b->listC[i].user);
    EXPECT_TRUE(sameTime(a->listC[i].when, b->listC[i].when));
  }
  ASSERT_EQ(a->listDCount, b->listDCount);
  for (int i = 0; i < a->listDCount; i++) {
    EXPECT_STREQ(a->listD[i].label, b->listD[i].label);
    expectSameSet(a->listD[i].set, b->listD[i].set, "c b");
  }
  EXPECT_EQ(a->randomId, b->randomId);
  EXPECT_EQ(a->hNumber, b->hNumber);
  EXPECT_EQ(a->aNumber, b->aNumber);
  EXPECT_EQ(a->fNumber, b->fNumber);
  EXPECT_EQ(a->eNumber, b->eNumber);
  EXPECT_EQ(a->gNumber, b->gNumber);
  EXPECT_EQ(a->gFlag, b->gFlag);
  EXPECT_EQ(a->kFlag, b->kFlag);
  EXPECT_EQ(a->linkByte, b->linkByte);
}

// A buffer set up as talking to a peer of version major.minor.
Buf *peerBuf(int major, int minor, bool extended = false) {
  Buf *buf = NewBuf();
  buf->peerMajor = uint8_t(major);
  buf->peerMinor = uint8_t(minor);
  buf->extended = extended;
  return buf;
}

// Writes item, rewinds, reads it back into a new item; the reader must stop exactly
// where the writer did.
Item *roundTrip(Buf *buf, const Item *item) {
  writeEvent(buf, item);
  size_t written = bufUsed(buf);
  rewindBuf(buf);
  Item *back = evnew();
  EXPECT_EQ(readEvent(buf, back), 0);
  EXPECT_EQ(bufUsed(buf), written);
  return back;
}

uint32_t wordAt(const Buf *buf, size_t offset) {
  uint32_t w;
  memcpy(&w, buf->data + offset, 4);
  return ntohl(w);
}

// The tag letters of one written item, in order; the untagged groups (time value after
// "W", value8 in front of the first of "q", "c", "I") show as "#".
std::string tagsOf(const Buf *buf, size_t from, size_t to) {
  std::string tags;
  size_t at = from;
  bool v8 = false;
  while (at < to) {
    uint32_t w = wordAt(buf, at);
    char tag = char(w >> 24);
    if (!v8 && tags.find('M') != std::string::npos && tag != 'p' && tag != 'm' &&
        tag != 'b' && tag != 'a' && tag != 'e') {
      tags += '#';
      at += 8;
      v8 = true;
      continue;
    }
    tags += tag;
    at += 4 + size_t(roundUp(long(w & 0xffffff), 4));
    if (tag == 'W') {
      tags += '#';
      at += 16;
    }
  }
  return tags;
}

std::string writtenTags(Buf *buf, const Item *item) {
  writeEvent(buf, item);
  return tagsOf(buf, 0, bufUsed(buf));
}

class CodecTest : public ::testing::Test {
 protected:
  void SetUp() override { setNameLookup(&kLookup); }
  void TearDown() override { resetNameLookup(); }
};

/* ---- Round trips ---------------------------------------------------------------- */

TEST_F(CodecTest, EveryFieldRoundTripsForTheNewestPeer) {
  Item *item = fullItem();
  for (bool extended : {false, true}) {  // owner as number "O", then as name "f"
    Buf *buf = peerBuf(1, 6, extended);
    Item *back = roundTrip(buf, item);
    expectSameItem(item, back);
    evfree(back);
    freeBuf(buf);
  }
  evfree(item);
}

TEST_F(CodecTest, NewItemAndEmptyValuesRoundTrip) {
  Item *item = evnew();  // empty title, no sets, no arrays, no database name
  Buf *buf = peerBuf(1, 6);
  Item *back = roundTrip(buf, item);
  expectSameItem(item, back);
  EXPECT_EQ(back->dbName, nullptr);
  EXPECT_EQ(back->popupCount + back->listBCount + back->listCCount + back->listDCount, 0);
  evfree(back);
  freeBuf(buf);

  // An owner without a calendar name travels as a single NUL and comes back as -1.
  item->owner = 9;
  buf = peerBuf(1, 6, true);
  back = roundTrip(buf, item);
  EXPECT_EQ(back->owner, -1);
  evfree(back);
  freeBuf(buf);
  evfree(item);
}

TEST_F(CodecTest, UntaggedDateTimesThatLookLikeTagsStillReadBack) {
  // value8 and times whose top byte is a letter of the groups around them.
  Item *item = fullItem();
  const int32_t lookalikes[] = {int32_t(bufTag('p') | 4), int32_t(bufTag('a') | 12),
                                int32_t(bufTag('Y') | 6), int32_t(bufTag('e') | 2)};
  for (int32_t t : lookalikes) {
    for (int entries : {0, 2}) {
      item->value8.time = t;
      item->timeValue.start.time = t;
      item->popupCount = item->listBCount = int16_t(entries);
      Buf *buf = peerBuf(1, 6);
      Item *back = roundTrip(buf, item);
      EXPECT_EQ(back->value8.time, t);
      EXPECT_EQ(back->popupCount, entries);
      EXPECT_EQ(back->randomId, item->randomId);
      evfree(back);
      freeBuf(buf);
    }
  }
  item->popupCount = item->listBCount = 2;
  evfree(item);
}

/* ---- Order and version gates ---------------------------------------------------- */

TEST_F(CodecTest, WritesEveryFieldInOrderWithItsTag) {
  Item *item = fullItem();
  Buf *buf = peerBuf(1, 6, true);
  EXPECT_EQ(writtenTags(buf, item),
            "jDUTfW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFEgkLz");
  // Payloads of a few fields, as the peer sees them.
  EXPECT_EQ(wordAt(buf, 0), bufTag('j') | 9);  // "projects" and its NUL
  EXPECT_EQ(memcmp(buf->data + 4, "projects", 9), 0);
  freeBuf(buf);
  evfree(item);
}

TEST_F(CodecTest, OlderPeersReceiveOnlyTheFieldsTheirVersionKnows) {
  Item *item = fullItem();
  struct Case {
    int major, minor;
    bool extended;
    const char *tags;
  } cases[] = {
      {1, 1, true, "jDUTOW#YNSRCXMpmmbpmmbaeae#qqIHLz"},
      {0, 6, true, "jDUTOW#YNSRCXMpmmbpmmbaeae#qqIHLz"},  // version unknown
      {1, 2, true, "jDUTOW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFELz"},
      {1, 3, false, "jDUTOW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFELz"},
      {1, 3, true, "jDUTfW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFELz"},
      {2, 4, false, "jDUTOW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFEgkLz"},
  };
  for (const Case &c : cases) {
    Buf *buf = peerBuf(c.major, c.minor, c.extended);
    EXPECT_EQ(writtenTags(buf, item), c.tags) << c.major << "." << c.minor;
    // Read back under the same version: the gated fields keep a new item's values.
    rewindBuf(buf);
    Item *back = evnew();
    ASSERT_EQ(readEvent(buf, back), 0);
    bool two = c.major != 0 && c.minor >= 2, four = c.major != 0 && c.minor >= 4;
    EXPECT_EQ(back->aNumber, two ? 11 : NO_TIME);
    EXPECT_EQ(back->gNumber, two ? 14 : 0);
    EXPECT_EQ(back->listDCount, two ? 2 : 0);
    EXPECT_EQ(back->popups[1].setR == nullptr, !two);
    EXPECT_EQ(back->gFlag, four ? 3 : 255);
    EXPECT_EQ(back->owner, 2);
    evfree(back);
    freeBuf(buf);
  }
  evfree(item);
}

TEST_F(CodecTest, DatabaseNameAndLinkByteFields) {
  Item *item = evnew();
  Buf *buf = peerBuf(1, 6);
  EXPECT_EQ(writtenTags(buf, item), "DUTOW#YNSRCXM#IHAGFEgkz");  // no name: no "J"
  EXPECT_EQ(wordAt(buf, bufUsed(buf) - 4), 0u);                  // "z" carries 0
  freeBuf(buf);

  evsetDbName(item, "");
  buf = peerBuf(1, 6);
  EXPECT_EQ(writtenTags(buf, item).substr(0, 2), "DU");  // empty name: no "J" either
  freeBuf(buf);

  evsetDbName(item, "home");
  item->linkByte = 200;
  buf = peerBuf(1, 6);
  EXPECT_EQ(writtenTags(buf, item), "JDUTOW#YNSRCXM#IHAGFEgkLz");
  EXPECT_EQ(wordAt(buf, bufUsed(buf) - 4), 200u);   // "z" carries the link byte
  EXPECT_EQ(wordAt(buf, bufUsed(buf) - 12), 200u);  // and so does "L"
  rewindBuf(buf);
  Item *back = evnew();
  ASSERT_EQ(readEvent(buf, back), 0);
  EXPECT_EQ(back->linkByte, 200);
  EXPECT_EQ(back->dbFlag, 0);
  EXPECT_STREQ(back->dbName, "home");
  evfree(back);
  freeBuf(buf);
  evfree(item);
}

/* ---- The reader's refusals ------------------------------------------------------ */

// Reads the buffer from its start into a fresh item; returns the result and what was
// printed on standard error.
int readCapturing(Buf *buf, std::string *err) {
  rewindBuf(buf);
  Item *item = evnew();
  ::testing::internal::CaptureStderr();
  int r = readEvent(buf, item);
  *err = ::testing::internal::GetCapturedStderr();
  evfree(item);
  return r;
}

TEST_F(CodecTest, TextsOfUpTo255CharactersPassAndLongerAreRefused) {
  std::string ok(255, 'x'), tooLong(256, 'y');
  struct Case {
    const char *message;
    void (*set)(Item *, const char *);
  } cases[] = {
      {"readEvent: title len too long: 257\n", [](Item *it, const char *t) { evsetTitle(it, t); }},
      {"readEvent: dbname len too long: 257\n", [](Item *it, const char *t) { evsetDbName(it, t); }},
      {"readEvent: popup title len too long: 257\n",
       [](Item *it, const char *t) { addPopup(it)->title = dup(t); }},
  };
  for (const Case &c : cases) {
    for (const std::string *text : {&ok, &tooLong}) {
      Item *item = evnew();
      c.set(item, text->c_str());
      Buf *buf = peerBuf(1, 6);
      writeEvent(buf, item);
      std::string err;
      int r = readCapturing(buf, &err);
      EXPECT_EQ(r, text == &ok ? 0 : -1) << c.message;
      EXPECT_EQ(err, text == &ok ? "" : c.message);
      freeBuf(buf);
      evfree(item);
    }
  }
  // The owner's name is sent as a name by us, so build an overlong one by hand.
  Buf *buf = peerBuf(1, 6);
  StuffBuf(buf, tooLong.c_str(), tooLong.size() + 1, 1, bufTag('f'));
  std::string err;
  EXPECT_EQ(readCapturing(buf, &err), -1);
  EXPECT_EQ(err, "readEvent: orig len too long: 257\n");
  freeBuf(buf);
}

TEST_F(CodecTest, RefusesUnknownTagsMisplacedFieldsAndBadSizes) {
  std::string err;
  Buf *buf = peerBuf(1, 6);
  StuffBuf(buf, "x", 2, 1, bufTag('Q'));  // no such field
  EXPECT_EQ(readCapturing(buf, &err), -1);
  EXPECT_EQ(err, "readEvent: bad tag 0x51\n");
  freeBuf(buf);

  // After "W" the seven sets must follow in their order.
  Item *item = evnew();
  buf = peerBuf(1, 6);
  writeEvent(buf, item);
  size_t y = 0;
  while (wordAt(buf, y) >> 24 != 'Y') y += 4;
  buf->data[y] = 'N';
  EXPECT_EQ(readCapturing(buf, &err), -1);
  EXPECT_EQ(err, "readEvent: bad tag 0x4e where 'Y' belongs\n");
  freeBuf(buf);

  // A number field of the wrong size, and an empty one (which would never advance).
  for (uint32_t len : {2u, 8u, 0u}) {
    buf = peerBuf(1, 6);
    uint8_t zeros[8] = {};
    StuffBuf(buf, zeros, 8, 1, bufTag('O'));
    uint32_t word = htonl(bufTag('O') | len);
    memcpy(buf->data, &word, 4);
    EXPECT_EQ(readCapturing(buf, &err), -1);
    EXPECT_EQ(err, "readEvent: bad size " + std::to_string(len) + " for field 'O'\n");
    freeBuf(buf);
  }
  evfree(item);
}

TEST_F(CodecTest, TruncatedItemsFailAtEveryCut) {
  Item *item = fullItem();
  Buf *whole = peerBuf(1, 6, true);
  writeEvent(whole, item);
  size_t n = bufUsed(whole);
  for (size_t cut = 0; cut < n; cut += 4) {
    Buf *buf = peerBuf(1, 6, true);
    StuffBuf(buf, whole->data, cut, 1, BUF_UNTAGGED);
    buf->size = uint32_t(cut);  // the storage ends where the cut is
    std::string err;
    EXPECT_EQ(readCapturing(buf, &err), -1) << "cut at " << cut;
    EXPECT_FALSE(err.empty()) << "cut at " << cut;
    freeBuf(buf);
  }
  freeBuf(whole);
  evfree(item);
}

TEST_F(CodecTest, AcceptsTheOlderPeersFieldsAndSkipsThem) {
  Item *item = fullItem();
  Buf *plain = peerBuf(1, 6);
  writeEvent(plain, item);
  // Put "i" and "d" in front, "r" and "l" just before the end field.
  Buf *buf = peerBuf(1, 6);
  int32_t v = 99;
  StuffBuf(buf, &v, 4, 4, bufTag('i'));
  StuffBuf(buf, "old", 4, 1, bufTag('d'));
  size_t tail = bufUsed(plain) - 8;  // "z" and its number
  StuffBuf(buf, plain->data, tail, 1, BUF_UNTAGGED);
  StuffBuf(buf, "abcdef", 7, 1, bufTag('r'));
  StuffBuf(buf, &v, 4, 4, bufTag('l'));
  StuffBuf(buf, plain->data + tail, 8, 1, BUF_UNTAGGED);
  size_t end = bufUsed(buf);
  rewindBuf(buf);
  Item *back = evnew();
  ASSERT_EQ(readEvent(buf, back), 0);
  EXPECT_EQ(bufUsed(buf), end);
  expectSameItem(item, back);
  evfree(back);
  freeBuf(buf);
  freeBuf(plain);
  evfree(item);
}

/* ---- Item messages -------------------------------------------------------------- */

struct Header {
  int code, major, minor;
  uint32_t length, magic;
};

Header headerOf(const Buf *buf) {
  return {(buf->data[0] << 8) | buf->data[1], buf->data[2], buf->data[3], wordAt(buf, 4),
          wordAt(buf, 8)};
}

TEST_F(CodecTest, SingleItemMessagesAndTheirExtendedRule) {
  Buf *buf = peerBuf(1, 6);
  buildItemMessage(buf, 103, nullptr);
  Header h = headerOf(buf);
  EXPECT_EQ(h.code, 55);  // no item: the header alone, code 55
  EXPECT_EQ(h.length, 12u);
  EXPECT_EQ(bufUsed(buf), 12u);
  EXPECT_EQ(h.magic, 0xDEADBEEFu);
  Item head;
  evlistInit(&head);
  int code = 0;
  uint32_t storage = buf->size;
  buf->size = 12;  // received with nothing behind the header
  EXPECT_EQ(readItemMessage(buf, &head, &code), 0);
  EXPECT_EQ(code, 55);
  EXPECT_TRUE(evlistEmpty(&head));
  buf->size = storage;

  Item *item = fullItem();
  buildItemMessage(buf, 103, item);
  h = headerOf(buf);
  EXPECT_EQ(h.code, 103);
  EXPECT_EQ(h.major * 10 + h.minor, 16);
  EXPECT_EQ(h.length, bufUsed(buf));
  EXPECT_EQ(h.magic, 0xDEADBEEFu);
  EXPECT_EQ(wordAt(buf, 12) >> 24, unsigned('j'));

  item->typeLetter = 'd';  // a "d" item is sent extended, owner by name
  buildItemMessage(buf, 103, item);
  EXPECT_EQ(headerOf(buf).magic, 0xBABEFACEu);
  EXPECT_NE(tagsOf(buf, 12, bufUsed(buf)).find("Tf"), std::string::npos);

  item->typeLetter = 0;  // so is an item with a chained copy, and the copy follows
  Item *copy = evcopy(item);
  evsetDbName(copy, "other");
  chainAppend(item, copy);
  buildItemMessage(buf, 103, item);
  EXPECT_EQ(headerOf(buf).magic, 0xBABEFACEu);
  EXPECT_EQ(readItemMessage(buf, &head, &code), 1);
  EXPECT_EQ(code, 103);
  ASSERT_EQ(evlistCount(&head), 1);
  ASSERT_NE(head.next->chain, nullptr);
  EXPECT_STREQ(head.next->chain->dbName, "other");
  expectSameItem(item, head.next);
  evlistFree(&head);
  evfree(item);
  freeBuf(buf);
}

TEST_F(CodecTest, ListMessagesExtendOnlyForPeersThatTakeThem) {
  Item head;
  evlistInit(&head);
  for (int i = 0; i < 3; i++) {
    Item *it = fullItem();
    it->randomId = 1000 + i;
    evlistAppend(&head, it);
  }
  struct Case {
    int major, minor;
    bool chain;
    uint32_t magic;
  } cases[] = {{1, 3, true, 0xDEADBEEF}, {0, 6, true, 0xDEADBEEF}, {1, 4, false, 0xDEADBEEF},
               {1, 4, true, 0xBABEFACE}, {1, 6, true, 0xBABEFACE}};
  for (const Case &c : cases) {
    if (c.chain && head.next->next->chain == nullptr) {
      Item *copy = evcopy(head.next->next);
      evsetDbName(copy, "elsewhere");
      chainAppend(head.next->next, copy);
    }
    if (!c.chain && head.next->next->chain != nullptr) {
      evfree(head.next->next->chain);
      head.next->next->chain = nullptr;
    }
    Buf *buf = peerBuf(c.major, c.minor);
    buildItemListMessage(buf, 101, &head);
    EXPECT_EQ(headerOf(buf).magic, c.magic) << c.major << "." << c.minor;
    freeBuf(buf);
  }
  evlistFree(&head);
}

TEST_F(CodecTest, ListMessagesRoundTripWithTheirChains) {
  Item head;
  evlistInit(&head);
  const char *titles[] = {"standup", "standup", "lunch"};  // same title, other id
  for (int i = 0; i < 3; i++) {
    Item *it = fullItem();
    evsetTitle(it, titles[i]);
    it->randomId = 500 + i;
    evlistAppend(&head, it);
  }
  for (const char *db : {"east", "west"}) {  // two copies of the middle item
    Item *copy = evcopy(head.next->next);
    evsetDbName(copy, db);
    chainAppend(head.next->next, copy);
  }
  Buf *buf = peerBuf(1, 6);
  buildItemListMessage(buf, 122, &head);

  Item back;
  evlistInit(&back);
  int code = 0;
  ASSERT_EQ(readItemMessage(buf, &back, &code), 3);
  EXPECT_EQ(code, 122);
  ASSERT_EQ(evlistCount(&back), 3);
  const Item *a = head.next, *b = back.next;
  for (int i = 0; i < 3; i++, a = a->next, b = b->next) {
    expectSameItem(a, b);
    ASSERT_EQ(chainLength(b), chainLength(a)) << i;
    for (const Item *ca = a->chain, *cb = b->chain; ca != nullptr; ca = ca->chain, cb = cb->chain) {
      EXPECT_STREQ(ca->dbName, cb->dbName);
    }
  }
  evlistFree(&back);

  // A message cut short fails, the items read so far stay in the list for the caller.
  uint32_t cut = htonl(uint32_t(bufUsed(buf) - 4));
  memcpy(buf->data + 4, &cut, 4);
  evlistInit(&back);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(readItemMessage(buf, &back, &code), -1);
  EXPECT_FALSE(::testing::internal::GetCapturedStderr().empty());
  evlistFree(&back);
  freeBuf(buf);
  evlistFree(&head);
}

}  // namespace
}  // namespace quorvel
