// itemcodec_test.cpp -- items through the wire codec: every field back as it went out,
// the fields each peer version receives, the reader's refusals, and item messages.
#include "core/net/itemcodec.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>

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

using ItemPtr = std::unique_ptr<Item, decltype(&evfree)>;
using BufPtr = std::unique_ptr<Buf, decltype(&freeBuf)>;
ItemPtr newItem() { return ItemPtr(evnew(), evfree); }

// A buffer set up as talking to a peer of version major.minor.
BufPtr peerBuf(int major, int minor, bool extended = false) {
  BufPtr buf(NewBuf(), freeBuf);
  buf->peerMajor = uint8_t(major);
  buf->peerMinor = uint8_t(minor);
  buf->extended = extended;
  return buf;
}

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
ItemPtr fullItem() {
  ItemPtr it = newItem();
  evsetDbName(it.get(), "projects");
  it->dbFlag = 1;
  it->dWord = KIND_TODO;
  it->uWord = 0x1234;
  evsetTitle(it.get(), "Quarterly review");
  it->owner = 2;
  it->calendars = makeSet({0, 2, 3});
  it->timeValue = {{1700000000, 7, 9}, {1700003600, 8, 10}};
  CalSet *sets[] = {&it->setY, &it->setN, &it->setS, &it->setR, &it->setC, &it->setX, &it->setM};
  for (int i = 0; i < 7; i++) *sets[i] = makeSet({i % 4, 17 + i});
  for (int i = 0; i < 2; i++) {
    *addPopup(it.get()) = {dup(i ? "second" : "first note"), 0x40 + i, -5 - i, makeSet({i}),
                           makeSet({3, 30 + i})};
    *addAlarmEntry(it.get()) = {i ? -1 : 1, 15u + i, 5u * i, i ? nullptr : dup("bring slides")};
    *addUserTime(it.get()) = {3 - i, {1699990000 + i, uint16_t(i), 0xffff}};
    *addLabelSet(it.get()) = {dup(i ? "catering" : "room"), makeSet({1 + i})};
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

std::string setText(const uint16_t *set) {
  std::string text = "{";
  for (int i = 0; i < setBitCount(set); i++) {
    if (testbit(set, i)) text += std::to_string(i) + ",";
  }
  return text + "}";
}

std::ostream &operator<<(std::ostream &o, const DateTime &d) {
  return o << d.time << "@" << d.q1 << "%" << d.q2;
}

// Every wire-borne field of an item as text, so that a comparison names the field
// that differs.
std::string describe(const Item *it) {
  std::ostringstream o;
  o << "J=" << (it->dbName ? it->dbName : "(null)") << "/" << int(it->dbFlag)
    << " D=" << it->dWord << " U=" << it->uWord << " T=" << it->title << " O=" << it->owner
    << " W=" << setText(it->calendars) << " time=" << it->timeValue.start << "-"
    << it->timeValue.end;
  const uint16_t *sets[] = {it->setY, it->setN, it->setS, it->setR, it->setC, it->setX, it->setM};
  for (int i = 0; i < 7; i++) o << " " << "YNSRCXM"[i] << "=" << setText(sets[i]);
  for (int i = 0; i < it->popupCount; i++) {
    const Popup &p = it->popups[i];
    o << " p=" << p.title << "," << p.mask << "," << p.number << setText(p.setS)
      << setText(p.setR);
  }
  for (int i = 0; i < it->listBCount; i++) {
    const Alarm &a = it->listB[i];
    o << " a=" << a.user << "," << a.start << "," << a.freq << ","
      << (a.string ? a.string : "(null)");
  }
  o << " v8=" << it->value8;
  for (int i = 0; i < it->listCCount; i++) {
    o << " q=" << it->listC[i].user << "," << it->listC[i].when;
  }
  for (int i = 0; i < it->listDCount; i++) {
    o << " c=" << it->listD[i].label << setText(it->listD[i].set);
  }
  o << " I=" << it->randomId << " H=" << it->hNumber << " A=" << it->aNumber
    << " G=" << it->gNumber << " F=" << it->fNumber << " E=" << it->eNumber
    << " g=" << int(it->gFlag) << " k=" << int(it->kFlag) << " L=" << int(it->linkByte);
  return o.str();
}

// Writes item, rewinds, reads it back into a new item; the reader must stop exactly
// where the writer did.
ItemPtr roundTrip(Buf *buf, const Item *item) {
  writeEvent(buf, item);
  size_t written = bufUsed(buf);
  rewindBuf(buf);
  ItemPtr back = newItem();
  EXPECT_EQ(readEvent(buf, back.get()), 0);
  EXPECT_EQ(bufUsed(buf), written);
  return back;
}

uint32_t wordAt(const Buf *buf, size_t offset) {
  uint32_t w;
  memcpy(&w, buf->data + offset, 4);
  return ntohl(w);
}

// The tag letters of the fields in [from, to), in order; the untagged groups (the
// time value behind "W", value8 behind the popups and alarms) show as "#".
std::string tagsOf(const Buf *buf, size_t from, size_t to) {
  std::string tags;
  bool v8 = false;
  for (size_t at = from; at < to;) {
    uint32_t w = wordAt(buf, at);
    char tag = char(w >> 24);
    if (!v8 && tags.find('M') != std::string::npos && strchr("pmbae", tag) == nullptr) {
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

// Reads the buffer from its start into a fresh item; returns the result and what was
// printed on standard error.
int readCapturing(Buf *buf, std::string *err) {
  rewindBuf(buf);
  ItemPtr item = newItem();
  ::testing::internal::CaptureStderr();
  int r = readEvent(buf, item.get());
  *err = ::testing::internal::GetCapturedStderr();
  return r;
}

class CodecTest : public ::testing::Test {
 protected:
  void SetUp() override { setNameLookup(&kLookup); }
  void TearDown() override { resetNameLookup(); }
};

/* ---- Round trips ---------------------------------------------------------------- */

TEST_F(CodecTest, EveryFieldRoundTrips) {
  ItemPtr item = fullItem();
  for (bool extended : {false, true}) {  // owner as number "O", then as name "f"
    BufPtr buf = peerBuf(1, 6, extended);
    EXPECT_EQ(describe(roundTrip(buf.get(), item.get()).get()), describe(item.get()));
  }
  // A new item: empty title, no sets, arrays or database name.
  ItemPtr fresh = newItem();
  BufPtr buf = peerBuf(1, 6);
  ItemPtr back = roundTrip(buf.get(), fresh.get());
  EXPECT_EQ(describe(back.get()), describe(fresh.get()));
  EXPECT_EQ(back->dbName, nullptr);

  // An owner without a calendar name travels as a single NUL and comes back as -1.
  fresh->owner = 9;
  buf = peerBuf(1, 6, true);
  EXPECT_EQ(roundTrip(buf.get(), fresh.get())->owner, -1);
}

TEST_F(CodecTest, UntaggedDateTimesThatLookLikeTagsStillReadBack) {
  ItemPtr item = fullItem();
  freeMem(item->listD[0].label);
  item->listD[0].label = dup("roomette");  // its fifth byte, an "e", 16 bytes behind value8
  const uint32_t lookalikes[] = {bufTag('p') | 4, bufTag('a') | 12, bufTag('Y') | 6,
                                 bufTag('e') | 2, bufTag('b') | 4};
  for (uint32_t t : lookalikes) {
    for (int16_t entries : {0, 2}) {
      item->value8.time = item->timeValue.start.time = item->listC[0].when.time = int32_t(t);
      item->popupCount = item->listBCount = item->listCCount = entries;
      BufPtr buf = peerBuf(1, 6);
      EXPECT_EQ(describe(roundTrip(buf.get(), item.get()).get()), describe(item.get()));
    }
  }
  item->popupCount = item->listBCount = item->listCCount = 2;  // (so that all are freed)
}

/* ---- Order and version gates ---------------------------------------------------- */

TEST_F(CodecTest, WritesEveryFieldInOrderWithItsTag) {
  ItemPtr item = fullItem();
  BufPtr buf = peerBuf(1, 6, true);
  EXPECT_EQ(writtenTags(buf.get(), item.get()), "jDUTfW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFEgkLz");
  EXPECT_EQ(wordAt(buf.get(), 0), bufTag('j') | 9);  // "projects" and its NUL
  EXPECT_EQ(memcmp(buf->data + 4, "projects", 9), 0);
  size_t end = bufUsed(buf.get());
  EXPECT_EQ(wordAt(buf.get(), end - 4), 6u);   // "z" carries the link byte
  EXPECT_EQ(wordAt(buf.get(), end - 12), 6u);  // and so does "L"

  ItemPtr fresh = newItem();  // no name: no "J"; no link byte: no "L", "z" carries 0
  buf = peerBuf(1, 6);
  EXPECT_EQ(writtenTags(buf.get(), fresh.get()), "DUTOW#YNSRCXM#IHAGFEgkz");
  EXPECT_EQ(wordAt(buf.get(), bufUsed(buf.get()) - 4), 0u);
  evsetDbName(fresh.get(), "");  // an empty name is not sent either
  buf = peerBuf(1, 6);
  EXPECT_EQ(writtenTags(buf.get(), fresh.get()).substr(0, 2), "DU");
}

TEST_F(CodecTest, OlderPeersReceiveOnlyTheFieldsTheirVersionKnows) {
  ItemPtr item = fullItem();
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
    BufPtr buf = peerBuf(c.major, c.minor, c.extended);
    EXPECT_EQ(writtenTags(buf.get(), item.get()), c.tags) << c.major << "." << c.minor;
    // Read back under the same version: the gated fields keep a new item's values.
    rewindBuf(buf.get());
    ItemPtr back = newItem();
    ASSERT_EQ(readEvent(buf.get(), back.get()), 0);
    bool two = c.major != 0 && c.minor >= 2, four = c.major != 0 && c.minor >= 4;
    EXPECT_EQ(back->aNumber, two ? 11 : NO_TIME);
    EXPECT_EQ(back->gNumber, two ? 14 : 0);
    EXPECT_EQ(back->listDCount, two ? 2 : 0);
    EXPECT_EQ(back->popups[1].setR == nullptr, !two);
    EXPECT_EQ(back->gFlag, four ? 3 : 255);
    EXPECT_EQ(back->owner, 2);
  }
}

/* ---- The reader's refusals ------------------------------------------------------ */

TEST_F(CodecTest, TextsOfUpTo255CharactersPassAndLongerAreRefused) {
  std::string ok(255, 'x'), tooLong(256, 'y');
  struct Case {
    const char *message;
    void (*set)(Item *, const char *);
  } cases[] = {
      {"readEvent: title len too long: 257\n", [](Item *it, const char *t) { evsetTitle(it, t); }},
      {"readEvent: dbname len too long: 257\n",
       [](Item *it, const char *t) { evsetDbName(it, t); }},
      {"readEvent: popup title len too long: 257\n",
       [](Item *it, const char *t) { addPopup(it)->title = dup(t); }},
  };
  std::string err;
  for (const Case &c : cases) {
    for (const std::string *text : {&ok, &tooLong}) {
      ItemPtr item = newItem();
      c.set(item.get(), text->c_str());
      BufPtr buf = peerBuf(1, 6);
      writeEvent(buf.get(), item.get());
      EXPECT_EQ(readCapturing(buf.get(), &err), text == &ok ? 0 : -1) << c.message;
      EXPECT_EQ(err, text == &ok ? "" : c.message);
    }
  }
  // We send the owner's name only from a calendar name, so build an overlong one here.
  BufPtr buf = peerBuf(1, 6);
  StuffBuf(buf.get(), tooLong.c_str(), tooLong.size() + 1, 1, bufTag('f'));
  EXPECT_EQ(readCapturing(buf.get(), &err), -1);
  EXPECT_EQ(err, "readEvent: orig len too long: 257\n");
}

TEST_F(CodecTest, RefusesUnknownTagsMisplacedFieldsAndBadSizes) {
  std::string err;
  BufPtr buf = peerBuf(1, 6);
  StuffBuf(buf.get(), "x", 2, 1, bufTag('Q'));  // no such field
  EXPECT_EQ(readCapturing(buf.get(), &err), -1);
  EXPECT_EQ(err, "readEvent: bad tag 0x51\n");

  // After "W" the seven sets must follow in their order.
  ItemPtr item = newItem();
  buf = peerBuf(1, 6);
  writeEvent(buf.get(), item.get());
  size_t y = 0;
  while (wordAt(buf.get(), y) >> 24 != 'Y') y += 4;
  buf->data[y] = 'N';
  EXPECT_EQ(readCapturing(buf.get(), &err), -1);
  EXPECT_EQ(err, "readEvent: bad tag 0x4e where 'Y' belongs\n");

  // Fields of the wrong size (an empty one would never advance); sizes that break the
  // granularity, and fields running past the storage, get the buffer's own reports.
  struct Size {
    char tag;
    uint32_t len;
    const char *message;
  } sizes[] = {{'O', 8, "readEvent: bad size 8 for field 'O'\n"},
               {'O', 0, "readEvent: bad size 0 for field 'O'\n"},
               {'D', 4, "readEvent: bad size 4 for field 'D'\n"},
               {'O', 2, "ReadBuf: bad size: 2, granularity: 4\n"},
               {'D', 3, "ReadBuf: bad size: 3, granularity: 2\n"},
               {'T', 9, "ReadBuf: overflowed buffer\n"}};
  for (const Size &c : sizes) {
    buf = peerBuf(1, 6);
    uint8_t zeros[8] = {};
    StuffBuf(buf.get(), zeros, 8, 1, bufTag(c.tag));
    buf->size = 12;  // the storage ends behind the field
    uint32_t word = htonl(bufTag(c.tag) | c.len);
    memcpy(buf->data, &word, 4);
    EXPECT_EQ(readCapturing(buf.get(), &err), -1);
    EXPECT_EQ(err, c.message);
  }
}

TEST_F(CodecTest, TruncatedItemsFailAtEveryCut) {
  ItemPtr item = fullItem();
  BufPtr whole = peerBuf(1, 6, true);
  writeEvent(whole.get(), item.get());
  for (size_t cut = 0; cut < bufUsed(whole.get()); cut += 4) {
    BufPtr buf = peerBuf(1, 6, true);
    StuffBuf(buf.get(), whole->data, cut, 1, BUF_UNTAGGED);
    buf->size = uint32_t(cut);  // the storage ends where the cut is
    std::string err;
    EXPECT_EQ(readCapturing(buf.get(), &err), -1) << "cut at " << cut;
    EXPECT_FALSE(err.empty()) << "cut at " << cut;
  }
}

TEST_F(CodecTest, AcceptsTheOlderPeersFieldsAndSkipsThem) {
  ItemPtr item = fullItem();
  BufPtr plain = peerBuf(1, 6);
  writeEvent(plain.get(), item.get());
  // "i" and "d" in front, "r" and "l" just before the end field.
  BufPtr buf = peerBuf(1, 6);
  int32_t v = 99;
  StuffBuf(buf.get(), &v, 4, 4, bufTag('i'));
  StuffBuf(buf.get(), "old", 4, 1, bufTag('d'));
  size_t tail = bufUsed(plain.get()) - 8;  // "z" and its number
  StuffBuf(buf.get(), plain->data, tail, 1, BUF_UNTAGGED);
  StuffBuf(buf.get(), "abcdef", 7, 1, bufTag('r'));
  StuffBuf(buf.get(), &v, 4, 4, bufTag('l'));
  StuffBuf(buf.get(), plain->data + tail, 8, 1, BUF_UNTAGGED);
  size_t end = bufUsed(buf.get());
  rewindBuf(buf.get());
  ItemPtr back = newItem();
  ASSERT_EQ(readEvent(buf.get(), back.get()), 0);
  EXPECT_EQ(bufUsed(buf.get()), end);
  EXPECT_EQ(describe(back.get()), describe(item.get()));
}

/* ---- Item messages -------------------------------------------------------------- */

struct Header {
  int code, version;
  uint32_t length, magic;
};

Header headerOf(const Buf *buf) {
  return {(buf->data[0] << 8) | buf->data[1], buf->data[2] * 10 + buf->data[3], wordAt(buf, 4),
          wordAt(buf, 8)};
}

struct ItemList {  // a list head that frees its items
  Item head;
  ItemList() { evlistInit(&head); }
  ~ItemList() { evlistFree(&head); }
};

TEST_F(CodecTest, SingleItemMessagesAndTheirExtendedRule) {
  BufPtr buf = peerBuf(1, 6);
  buildItemMessage(buf.get(), 103, nullptr);
  Header h = headerOf(buf.get());
  EXPECT_EQ(h.code, 55);  // no item: the header alone, code 55
  EXPECT_EQ(h.length, 12u);
  EXPECT_EQ(bufUsed(buf.get()), 12u);
  EXPECT_EQ(h.magic, 0xDEADBEEFu);
  uint32_t storage = buf->size;
  buf->size = 12;  // received with nothing behind the header
  ItemList none;
  int code = 0;
  EXPECT_EQ(readItemMessage(buf.get(), &none.head, &code), 0);
  EXPECT_EQ(code, 55);
  buf->size = storage;

  ItemPtr item = fullItem();
  buildItemMessage(buf.get(), 103, item.get());
  h = headerOf(buf.get());
  EXPECT_EQ(h.code, 103);
  EXPECT_EQ(h.version, 16);
  EXPECT_EQ(h.length, bufUsed(buf.get()));
  EXPECT_EQ(h.magic, 0xDEADBEEFu);

  item->typeLetter = 'd';  // a "d" item is sent extended, owner by name
  buildItemMessage(buf.get(), 103, item.get());
  EXPECT_EQ(headerOf(buf.get()).magic, 0xBABEFACEu);
  EXPECT_NE(tagsOf(buf.get(), 12, bufUsed(buf.get())).find("Tf"), std::string::npos);

  item->typeLetter = 0;  // so is an item with a chained copy, and the copy follows
  Item *copy = evcopy(item.get());
  evsetDbName(copy, "other");
  chainAppend(item.get(), copy);
  buildItemMessage(buf.get(), 103, item.get());
  EXPECT_EQ(headerOf(buf.get()).magic, 0xBABEFACEu);
  ItemList back;
  EXPECT_EQ(readItemMessage(buf.get(), &back.head, &code), 1);
  EXPECT_EQ(code, 103);
  ASSERT_EQ(evlistCount(&back.head), 1);
  ASSERT_NE(back.head.next->chain, nullptr);
  EXPECT_STREQ(back.head.next->chain->dbName, "other");
  EXPECT_EQ(describe(back.head.next), describe(item.get()));
}

TEST_F(CodecTest, ListMessagesExtendOnlyForPeersThatTakeThem) {
  ItemList list;
  for (int i = 0; i < 3; i++) evlistAppend(&list.head, fullItem().release());
  Item *middle = list.head.next->next;
  struct Case {
    int major, minor;
    bool chain;
    uint32_t magic;
  } cases[] = {{1, 3, true, 0xDEADBEEF}, {0, 6, true, 0xDEADBEEF}, {1, 4, false, 0xDEADBEEF},
               {1, 4, true, 0xBABEFACE}, {1, 6, true, 0xBABEFACE}};
  for (const Case &c : cases) {
    evfree(middle->chain);
    middle->chain = nullptr;
    if (c.chain) middle->chain = evcopy(middle);
    BufPtr buf = peerBuf(c.major, c.minor);
    buildItemListMessage(buf.get(), 101, &list.head);
    EXPECT_EQ(headerOf(buf.get()).magic, c.magic) << c.major << "." << c.minor;
  }
}

TEST_F(CodecTest, ListMessagesRoundTripWithTheirChains) {
  ItemList list;
  const char *titles[] = {"standup", "standup", "lunch"};  // same title, other id
  for (int i = 0; i < 3; i++) {
    ItemPtr it = fullItem();
    evsetTitle(it.get(), titles[i]);
    it->randomId = 500 + i;
    evlistAppend(&list.head, it.release());
  }
  for (const char *db : {"east", "west"}) {  // two copies of the middle item
    Item *copy = evcopy(list.head.next->next);
    evsetDbName(copy, db);
    chainAppend(list.head.next->next, copy);
  }
  BufPtr buf = peerBuf(1, 6);
  buildItemListMessage(buf.get(), 122, &list.head);

  auto back = std::make_unique<ItemList>();
  int code = 0;
  ASSERT_EQ(readItemMessage(buf.get(), &back->head, &code), 3);
  EXPECT_EQ(code, 122);
  const Item *a = list.head.next, *b = back->head.next;
  for (int i = 0; i < 3; i++, a = a->next, b = b->next) {
    EXPECT_EQ(describe(b), describe(a));
    ASSERT_EQ(chainLength(b), chainLength(a)) << i;
    for (const Item *ca = a->chain, *cb = b->chain; ca; ca = ca->chain, cb = cb->chain) {
      EXPECT_EQ(describe(cb), describe(ca));
    }
  }
  EXPECT_EQ(b, &back->head);

  // A message announcing less than its items fills fails; what was read stays listed.
  uint32_t cut = htonl(uint32_t(bufUsed(buf.get()) - 4));
  memcpy(buf->data + 4, &cut, 4);
  back = std::make_unique<ItemList>();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(readItemMessage(buf.get(), &back->head, &code), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "readEvent: item runs past the end of the message\n");
  EXPECT_EQ(evlistCount(&back->head), 2);
}

}  // namespace
}  // namespace quorvel
