// Items through the wire codec: fields back as sent, per-peer fields, refusals, messages.
#include "core/net/itemcodec.h"
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/namelookup.h"

namespace quorvel {
namespace {
const char *const kNames[] = {"alice", "bob", "carol", "dave"};
int indexOf(void *, const char *name) {
  for (int i = 0; i < 4; i++)
    if (strcmp(kNames[i], name) == 0) return i;
  return -1;
}
const NameLookup kLookup = {
    nullptr, [](void *) { return 4; },
    [](void *, int i) { return i >= 0 && i < 4 ? kNames[i] : nullptr; }, indexOf};
[[maybe_unused]] const bool kLookupSet = (setNameLookup(&kLookup), true);  // for all tests
using ItemPtr = std::unique_ptr<Item, decltype(&evfree)>;
using BufPtr = std::unique_ptr<Buf, decltype(&freeBuf)>;
ItemPtr newItem() { return ItemPtr(evnew(), evfree); }
BufPtr peerBuf(int major, int minor, bool extended = false) {
  BufPtr buf(NewBuf(), freeBuf);
  buf->peerMajor = uint8_t(major), buf->peerMinor = uint8_t(minor), buf->extended = extended;
  return buf;
}
CalSet makeSet(std::initializer_list<int> members) {
  CalSet set = nullptr;
  for (int i : members) setbit(&set, i, 1);
  return set;
}
std::string bytesOf(const Buf *buf) { return std::string((const char *)buf->data, bufUsed(buf)); }
// All fields set, two of each entry; without two / four, fields of such peers stay initial.
ItemPtr fullItem(bool two = true, bool four = true) {
  ItemPtr it = newItem();
  evsetDbName(it.get(), "projects"), evsetTitle(it.get(), "Quarterly review");
  it->dbFlag = 1, it->dWord = KIND_TODO, it->uWord = 0x1234, it->owner = 2;
  it->calendars = makeSet({0, 2, 3}), it->timeValue = {{1700000000, 7, 9}, {1700003600, 8, 10}};
  CalSet *sets[] = {&it->setY, &it->setN, &it->setS, &it->setR, &it->setC, &it->setX, &it->setM};
  for (int i = 0; i < 7; i++) *sets[i] = makeSet({i % 4, 17 + i});
  for (int i = 0; i < 2; i++) {
    *addPopup(it.get()) = {strdup(i ? "second" : "first note"), 0x40 + i, -5 - i, makeSet({i}),
                           two ? makeSet({3, 30 + i}) : nullptr};
    *addAlarmEntry(it.get()) = {i ? -1 : 1, 15u + i, 5u * i, i ? nullptr : strdup("bring slides")};
    *addUserTime(it.get()) = {3 - i, {1699990000 + i, uint16_t(i), 0xffff}};
    if (two) *addLabelSet(it.get()) = {strdup(i ? "catering" : "room"), makeSet({1 + i})};
  }
  it->value8 = {-42, 3, 4}, it->randomId = 0x2468ace, it->hNumber = 77, it->linkByte = 6;
  if (two) it->aNumber = 11, it->fNumber = 12, it->eNumber = 13, it->gNumber = 14;
  if (four) it->gFlag = 3, it->kFlag = 4;
  return it;
}
// An item as a full-version peer receives it: every wire-borne field, in order.
std::string wire(const Item *it) {
  BufPtr buf = peerBuf(1, 6);
  return writeEvent(buf.get(), it), bytesOf(buf.get());
}
uint32_t wordAt(const Buf *buf, size_t at) {
  uint32_t w;
  return memcpy(&w, buf->data + at, 4), ntohl(w);
}
// The tags written for item; "#" for untagged groups (time value after W, value8 after alarms).
std::string writtenTags(Buf *buf, const Item *item) {
  writeEvent(buf, item);
  std::string tags;
  for (size_t at = 0, v8 = 0; at < bufUsed(buf);) {
    char tag = char(wordAt(buf, at) >> 24);
    if (!v8 && tags.find('M') != std::string::npos && !strchr("pmbae", tag)) {
      tags += '#', at += 8, v8 = 1;
      continue;
    }
    tags += tag + std::string(tag == 'W' ? "#" : "");
    at += 4 + size_t(roundUp(long(wordAt(buf, at) & 0xffffff), 4)) + (tag == 'W' ? 16 : 0);
  }
  return tags;
}
// Reads from the start: result, stderr in *err, on success *seen if stopped where writing did.
int readCapturing(Buf *buf, std::string *err, std::string *seen = nullptr) {
  size_t written = bufUsed(buf);
  rewindBuf(buf);
  ItemPtr item = newItem();
  ::testing::internal::CaptureStderr();
  int r = readEvent(buf, item.get());
  *err = ::testing::internal::GetCapturedStderr();
  if (seen != nullptr && r == 0) *seen = bufUsed(buf) == written ? wire(item.get()) : "early";
  return r;
}
std::string readBack(Buf *buf, const Item *item = nullptr) {  // (written from item if given)
  std::string err, seen;
  if (item != nullptr) writeEvent(buf, item);
  EXPECT_EQ(readCapturing(buf, &err, &seen), 0) << err;
  return seen;
}

TEST(Codec, EachPeerVersionGetsItsFieldsInOrderAndReadsThemBackSkippingOldOnes) {
  struct Case { int major, minor; bool extended; const char *tags; } cases[] = {
      {1, 6, true, "jDUTfW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFEgkLz"},
      {1, 1, true, "jDUTOW#YNSRCXMpmmbpmmbaeae#qqIHLz"},
      {1, 2, true, "jDUTOW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFELz"},
      {1, 3, true, "jDUTfW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFELz"},
      {2, 4, false, "jDUTOW#YNSRCXMpmmbbpmmbbaeae#qqcbcbIHAGFEgkLz"}};
  ItemPtr item = fullItem();
  for (const Case &c : cases) {
    BufPtr buf = peerBuf(c.major, c.minor, c.extended);
    EXPECT_EQ(writtenTags(buf.get(), item.get()), c.tags);
    size_t end = bufUsed(buf.get());  // "z" carries the link byte, and so does "L"
    EXPECT_TRUE(wordAt(buf.get(), end - 4) == 6u && wordAt(buf.get(), end - 12) == 6u);
    ItemPtr seen = fullItem(c.major && c.minor >= 2, c.major && c.minor >= 4);
    EXPECT_EQ(readBack(buf.get()), wire(seen.get())) << c.major << "." << c.minor;
  }
  // A new item: no name, so no "J" (nor for an empty name); no "L", and "z" carries 0.
  ItemPtr fresh = newItem();
  BufPtr buf = peerBuf(1, 6, true);
  evsetDbName(fresh.get(), ""), fresh->owner = 9;  // no calendar name: "f" carries a NUL
  EXPECT_EQ(writtenTags(buf.get(), fresh.get()), "DUTfW#YNSRCXM#IHAGFEgkz");
  EXPECT_EQ(wordAt(buf.get(), bufUsed(buf.get()) - 4), 0u);
  fresh->owner = -1, evsetDbName(fresh.get(), nullptr);  // as read back
  EXPECT_EQ(readBack(buf.get()), wire(fresh.get()));
  // Untagged date-times that look like tags still read back.
  freeMem(item->listD[0].label);
  item->listD[0].label = strdup("roomette");  // its fifth byte, an "e", 16 bytes behind value8
  for (uint32_t t : {bufTag('p') | 4, bufTag('a') | 12, bufTag('Y') | 6, bufTag('e') | 2}) {
    for (int16_t entries : {0, 2}) {
      item->value8.time = item->timeValue.start.time = item->listC[0].when.time = int32_t(t);
      item->popupCount = item->listBCount = item->listCCount = entries;
      EXPECT_EQ(readBack(peerBuf(1, 6).get(), item.get()), wire(item.get()));
    }
  }
  // Fields of older peers are skipped: "i" and "d" in front, "r" and "l" before "z".
  const std::string w = wire(item.get());
  BufPtr old = peerBuf(1, 6);
  Buf *b = old.get();
  int32_t v = 99, tail = int32_t(w.size()) - 8;
  StuffBuf(b, &v, 4, 4, bufTag('i')), StuffBuf(b, "old", 4, 1, bufTag('d'));
  StuffBuf(b, w.data(), tail, 1, BUF_UNTAGGED), StuffBuf(b, "abcdef", 7, 1, bufTag('r'));
  StuffBuf(b, &v, 4, 4, bufTag('l')), StuffBuf(b, w.data() + tail, 8, 1, BUF_UNTAGGED);
  EXPECT_EQ(readBack(b), w);
  // ... and between the seven sets and inside the popup and alarm groups, in turn.
  const std::string full = wire(fullItem().get());
  for (char old : std::string("idrl")) {
    BufPtr mixed = peerBuf(1, 6);
    for (size_t at = 0, phase = 0; at < full.size();) {  // phase 1: the groups, 2: value8 on
      uint32_t word = getWord32(full.data() + at);
      char tag = char(word >> 24);
      phase += phase == 1 && !strchr("pmbae", tag);
      size_t len = phase == 2 ? 8 : 4 + size_t(roundUp(word & 0xffffff, 4)) + (tag == 'W' ? 16 : 0);
      if (phase < 2 && strchr("YNSRCXMmbe", tag)) StuffBuf(mixed.get(), "old", 4, 1, bufTag(old));
      StuffBuf(mixed.get(), full.data() + at, len, 1, BUF_UNTAGGED);
      phase += phase == 0 && tag == 'M', phase += phase == 2, at += len;
    }
    EXPECT_EQ(readBack(mixed.get()), full) << old;
  }
}

// Writes `item` for the peer, reads it back and writes that again: the same bytes, and
// the reader stopped where the writer did.
bool roundTrips(const Item *item, int major, int minor) {
  BufPtr first = peerBuf(major, minor), second = peerBuf(major, minor);
  writeEvent(first.get(), item);
  size_t written = bufUsed(first.get());
  rewindBuf(first.get());
  ItemPtr back = newItem();
  if (readEvent(first.get(), back.get()) != 0 || bufUsed(first.get()) != written) return false;
  writeEvent(second.get(), back.get());
  return bytesOf(second.get()) == std::string((const char *)first->data, written);
}

TEST(Codec, EveryItemTheWriterMakesReadsBackWhateverItsNumbersLookLike) {
  // Alarm starts (and other untagged or payload words) that read as tag words.
  const uint32_t tricky[] = {0x63000010, 0x63FFFFFF, 0x7100000C, 0x49000004, 0x6100000C,
                             0x65000004, 0x6500000C, 0x7A000004, 0x70000008, 0x6D000004,
                             0x69000004, 0x62000004, 0x48000004, 0};
  for (uint32_t t : tricky) {
    for (int16_t entries : {0, 1, 2}) {
      ItemPtr item = fullItem();
      for (int i = 0; i < 2; i++) item->listB[i].start = item->listB[i].freq = t;
      item->value8.time = item->listC[0].when.time = item->listC[1].user = int32_t(t);
      item->hNumber = item->aNumber = int32_t(t);
      item->popupCount = item->listCCount = entries;
      EXPECT_TRUE(roundTrips(item.get(), 1, 6)) << std::hex << t << " " << entries;
      item->listBCount = entries;
      EXPECT_TRUE(roundTrips(item.get(), 1, 1)) << std::hex << t << " " << entries;
      item->popupCount = item->listBCount = item->listCCount = 2;  // (all freed)
    }
  }
  // Random items whose words come mostly from tag words of every letter the reader knows.
  std::mt19937 rng(20240607);
  std::vector<uint32_t> pool;
  for (char c : std::string("pmabeqcbIHAGFEgkLzidrlYW"))
    for (uint32_t len : {1u, 2u, 4u, 8u, 12u, 16u, 20u, 24u}) pool.push_back(bufTag(c) | len);
  auto word = [&] { return rng() % 4 == 0 ? uint32_t(rng()) : pool[rng() % pool.size()]; };
  auto text = [&] {
    static const char *const texts[] = {"", "e", "abc", "abcdefgh", "q\x01\x02", "zzzzzzzzzzzz"};
    return strdup(texts[rng() % 6]);
  };
  const int peers[][2] = {{1, 6}, {1, 1}, {1, 2}, {1, 4}, {0, 6}};
  for (int n = 0; n < 3000; n++) {
    ItemPtr it = newItem();
    for (int i = int(rng() % 3); i > 0; i--)
      *addPopup(it.get()) = {text(), int32_t(word()), int32_t(word()), makeSet({int(rng() % 40)}), nullptr};
    for (int i = int(rng() % 4); i > 0; i--)
      *addAlarmEntry(it.get()) = {int32_t(word()), word(), word(), rng() % 3 ? text() : nullptr};
    for (int i = int(rng() % 4); i > 0; i--)
      *addUserTime(it.get()) = {int32_t(word()), {int32_t(word()), uint16_t(word()), uint16_t(word())}};
    for (int i = int(rng() % 3); i > 0; i--) *addLabelSet(it.get()) = {text(), makeSet({int(rng() % 9)})};
    it->value8 = {int32_t(word()), uint16_t(word() >> 16), uint16_t(word())};
    it->timeValue.end.time = int32_t(word());
    it->randomId = int32_t(word()), it->hNumber = int32_t(word()), it->gNumber = int32_t(word());
    it->linkByte = uint8_t(rng() % 2 ? 0 : word());
    const int *peer = peers[n % 5];
    ASSERT_TRUE(roundTrips(it.get(), peer[0], peer[1])) << "item " << n;
  }
}

TEST(Codec, RefusesLongTitlesUnknownTagsMisplacedFieldsBadSizesAndCuts) {
  std::string err;
  for (size_t n : {255, 256}) {  // popup titles
    ItemPtr item = newItem();
    addPopup(item.get())->title = strdup(std::string(n, 'x').c_str());
    BufPtr buf = peerBuf(1, 6);
    writeEvent(buf.get(), item.get());
    EXPECT_EQ(readCapturing(buf.get(), &err), n == 255 ? 0 : -1);
    EXPECT_EQ(err, n == 255 ? "" : "readEvent: popup title len too long: 257\n");
  }
  ItemPtr item = fullItem();
  BufPtr whole = peerBuf(1, 6, true);
  writeEvent(whole.get(), item.get());
  for (size_t cut = 0; cut < bufUsed(whole.get()); cut += 4) {
    BufPtr buf = peerBuf(1, 6, true);
    StuffBuf(buf.get(), whole->data, cut, 1, BUF_UNTAGGED);
    buf->size = uint32_t(cut);  // the storage ends where the cut is
    EXPECT_EQ(readCapturing(buf.get(), &err), -1) << "cut at " << cut;
    EXPECT_FALSE(err.empty()) << "cut at " << cut;
  }
  size_t y = 0;
  while (wordAt(whole.get(), y) >> 24 != 'Y') y += 4;
  whole->data[y] = 'N';  // after "W" the seven sets must follow in their order
  EXPECT_EQ(readCapturing(whole.get(), &err), -1);
  EXPECT_EQ(err, "readEvent: bad tag 0x4e where 'Y' belongs\n");
  // A field alone in `stored` bytes announcing `len` (after the longest text, none follows).
  const std::string over = "ReadBuf: overflowed buffer\n", size = "readEvent: bad size ";
  struct Size { char tag; uint32_t len, stored; std::string message; } sizes[] = {
      {'Q', 8, 8, "readEvent: bad tag 0x51\n"}, {'O', 8, 8, size + "8 for field 'O'\n"},
      {'T', 0, 8, size + "0 for field 'T'\n"},  {'W', 0, 8, size + "0 for field 'W'\n"},
      {'D', 4, 4, size + "4 for field 'D'\n"},  {'W', 300, 300, size + "300 for field 'W'\n"},
      {'O', 2, 8, "ReadBuf: bad size: 2, granularity: 4\n"},
      {'D', 3, 4, "ReadBuf: bad size: 3, granularity: 2\n"},
      {'T', 9, 8, over}, {'W', 300, 8, over}, {'T', 256, 256, over}, {'j', 256, 256, over},
      {'f', 256, 256, over}, {'T', 257, 257, "readEvent: title len too long: 257\n"},
      {'J', 257, 257, "readEvent: dbname len too long: 257\n"},
      {'f', 257, 257, "readEvent: orig len too long: 257\n"}};
  for (const Size &c : sizes) {
    BufPtr buf = peerBuf(1, 6);
    StuffBuf(buf.get(), std::string(c.stored, 'x').c_str(), c.stored, 1, bufTag(c.tag));
    buf->size = uint32_t(bufUsed(buf.get()));
    putWord32(buf->data, bufTag(c.tag) | c.len);
    EXPECT_EQ(readCapturing(buf.get(), &err), -1);
    EXPECT_EQ(err, c.message) << c.tag << c.len;
  }
}
// The wire of `item` with the run of fields that starts at the first `first` field (and
// goes on while the tags are in `more`) standing `times` times.
std::string repeatRun(const Item *item, char first, const char *more, int times) {
  const std::string w = wire(item);
  size_t at = 0, from = 0;
  for (bool in = false; at < w.size();) {
    uint32_t word = getWord32(w.data() + at);
    char tag = char(word >> 24);
    if (in && (tag == first || !strchr(more, tag))) break;
    if (!in && tag == first) in = true, from = at;
    at += 4 + size_t(roundUp(word & 0xffffff, 4)) + (tag == 'W' ? 16 : 0);
  }
  std::string out = w.substr(0, from);
  for (int i = 0; i < times; i++) out += w.substr(from, at - from);
  return out + w.substr(at);
}

TEST(Codec, ListsPastTheirSixteenBitCountRefuseTheItemInsteadOfEndingTheProcess) {
  ItemPtr item = fullItem();
  item->popupCount = item->listBCount = item->listCCount = item->listDCount = 1;
  item->value8.time = int32_t(bufTag(' ') | 4);  // (walked over as a field of 4 bytes)
  struct Row { char first; const char *more; const char *what; } rows[] = {
      {'p', "mb", "popup notes"}, {'a', "e", "alarms"}, {'q', "", "user times"}, {'c', "b", "labels"}};
  for (const Row &r : rows) {
    for (int times : {int(ITEM_LIST_MAX), ITEM_LIST_MAX + 1}) {
      std::string bytes = repeatRun(item.get(), r.first, r.more, times);
      BufPtr buf = peerBuf(1, 6);
      StuffBuf(buf.get(), bytes.data(), bytes.size(), 1, BUF_UNTAGGED);
      std::string err;
      EXPECT_EQ(readCapturing(buf.get(), &err), times == ITEM_LIST_MAX ? 0 : -1) << r.what;
      EXPECT_EQ(err, times == ITEM_LIST_MAX ? ""
                     : "readEvent: too many " + std::string(r.what) + ": more than 32767\n");
    }
  }
  item->popupCount = item->listBCount = item->listCCount = item->listDCount = 2;
}

struct ItemList {  // a list head that frees its items
  Item head;
  ItemList() { evlistInit(&head); }
  ~ItemList() { evlistFree(&head); }
};

TEST(Codec, ItemAndListMessagesTheirExtendedRuleAndChainsRebuiltFromCopies) {
  BufPtr buf = peerBuf(1, 6), none = peerBuf(1, 6);
  buildItemMessage(none.get(), 103, nullptr);  // no item: the header alone, code 55
  EXPECT_EQ(bytesOf(none.get()), std::string("\0\x37\1\6\0\0\0\x0c\xDE\xAD\xBE\xEF", 12));
  none->size = 12;  // received with nothing behind the header
  ItemList back;
  int code = 0;
  EXPECT_TRUE(readItemMessage(none.get(), &back.head, &code) == 0 && code == 55);
  ItemPtr item = fullItem();
  buildItemMessage(buf.get(), 103, item.get());  // code, version, length, magic
  EXPECT_EQ(wordAt(buf.get(), 0), (103u << 16) | 0x106);
  EXPECT_EQ(wordAt(buf.get(), 4), bufUsed(buf.get()));
  EXPECT_EQ(wordAt(buf.get(), 8), 0xDEADBEEFu);
  item->typeLetter = 'd';  // a "d" item is sent extended, owner by name
  buildItemMessage(buf.get(), 103, item.get());
  EXPECT_EQ(wordAt(buf.get(), 8), 0xBABEFACEu);
  EXPECT_EQ(wordAt(buf.get(), 12 + 16 + 8 + 8 + 24) >> 24, uint32_t('f'));  // behind J D U T
  EXPECT_TRUE(readItemMessage(buf.get(), &back.head, &code) == 1 && code == 103);
  EXPECT_EQ(wire(back.head.next), wire(item.get()));
  // Lists: each row an item of its own by one change (I, F, owner, title); copies chain.
  struct Row { const char *title, *db; int32_t id, f, owner; } rows[] = {
      {"standup", "a", 500, 1, -1}, {"standup", "b", 501, 1, -1}, {"standup", "c", 501, 2, 3},
      {"standup", "d", 501, 2, 3},  {"lunch", "e", 501, 2, -1}};
  ItemList list;
  for (const Row &r : rows) {
    ItemPtr it = fullItem();
    evsetTitle(it.get(), r.title), evsetDbName(it.get(), r.db);
    it->randomId = r.id, it->fNumber = r.f, it->owner = r.owner;
    evlistAppend(&list.head, it.release());
  }
  // Extended only for peers from x.4 on, and only with a "d" item or a chained item.
  struct Peer { int major, minor; char letter; uint32_t magic; } peers[] = {
      {1, 3, 'd', 0xDEADBEEF}, {0, 6, 'd', 0xDEADBEEF}, {1, 4, 0, 0xDEADBEEF},
      {1, 4, 'd', 0xBABEFACE}};
  for (const Peer &p : peers) {
    list.head.next->typeLetter = p.letter;
    BufPtr buf = peerBuf(p.major, p.minor);
    buildItemListMessage(buf.get(), 122, &list.head);
    EXPECT_EQ(wordAt(buf.get(), 8), p.magic) << p.major << "." << p.minor;
  }
  list.head.next->typeLetter = 0;
  Item *last = list.head.prev, *east = evcopy(last), *west = evcopy(last);
  evsetDbName(east, "east"), evsetDbName(west, "west");
  chainAppend(last, east), chainAppend(last, west);
  buf = peerBuf(1, 6);
  buildItemListMessage(buf.get(), 122, &list.head);
  EXPECT_EQ(wordAt(buf.get(), 8), 0xBABEFACEu);
  auto more = std::make_unique<ItemList>();
  ASSERT_TRUE(readItemMessage(buf.get(), &more->head, &code) == 5 && code == 122);
  BufPtr again = peerBuf(1, 6);  // the same items, chains and copies: the same message
  buildItemListMessage(again.get(), 122, &more->head);
  EXPECT_EQ(bytesOf(again.get()), bytesOf(buf.get()));
  // A message announcing less than its items fill fails; what was read stays listed.
  putWord32(buf->data + 4, uint32_t(bufUsed(buf.get()) - 4));
  more = std::make_unique<ItemList>();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(readItemMessage(buf.get(), &more->head, &code), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "readEvent: item runs past the end of the message\n");
  EXPECT_EQ(evlistCount(&more->head), 5);
}
}  // namespace
}  // namespace quorvel
