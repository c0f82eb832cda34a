// The item record: initial values, deep copies and assignment, chains, allocation failure.
#include "core/items/item.h"
#include <gtest/gtest.h>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sstream>
#include <string>
#include "core/net/memlimit.h"

namespace quorvel {
namespace {
constexpr CalSet Item::*kSets[] = {&Item::calendars, &Item::setY, &Item::setN, &Item::setS,
                                   &Item::setR,      &Item::setC, &Item::setX, &Item::setM};
std::string show(const uint16_t *set) {
  std::string out = "{";
  for (int i = 0; i < setBitCount(set); i++) out += testbit(set, i) ? std::to_string(i) + "," : "";
  return out + "}";
}
std::string show(const DateTime &d) {
  return std::to_string(d.time) + "/" + std::to_string(d.q1) + "/" + std::to_string(d.q2);
}
const char *show(const char *text) { return text != nullptr ? text : "(null)"; }
// Every field a copy carries, as text (not links, chain, typeLetter or chainKey).
std::string describe(const Item *it) {
  std::ostringstream o;
  o << it->dWord << ' ' << it->uWord << " [" << show(it->title) << "] " << it->owner << ' '
    << it->randomId << ' ' << show(it->timeValue.start) << ' ' << show(it->timeValue.end) << ' '
    << show(it->value8);
  for (CalSet Item::*set : kSets) o << ' ' << show(it->*set);
  for (const Popup &p : std::span(it->popups, size_t(it->popupCount)))
    o << " P " << show(p.title) << ' ' << p.mask << ' ' << p.number << show(p.setS) << show(p.setR);
  for (const Alarm &a : std::span(it->listB, size_t(it->listBCount)))
    o << " A " << a.user << ' ' << a.start << ' ' << a.freq << ' ' << show(a.string);
  for (const UserTime &u : std::span(it->listC, size_t(it->listCCount)))
    o << " C " << u.user << ' ' << show(u.when);
  for (const LabelSet &l : std::span(it->listD, size_t(it->listDCount)))
    o << " D " << show(l.label) << show(l.set);
  o << " db " << show(it->dbName) << ' ' << it->hNumber << ' ' << it->aNumber << ' ' << it->fNumber
    << ' ' << it->eNumber << ' ' << it->gNumber << ' ' << int(it->dbFlag) << ' '
    << int(it->linkByte) << ' ' << int(it->gFlag) << ' ' << int(it->kFlag);
  return o.str();
}
// An item with every field set away from its initial value.
Item *fullItem(const char *dbName) {
  Item *it = evnew();
  it->dWord = KIND_TODO, it->uWord = 9, it->owner = 4;
  evsetTitle(it, "Lunch with Ann"), evsetDbName(it, dbName);
  for (int bit = 1; CalSet Item::*set : kSets) setbit(&(it->*set), bit++, 1);
  it->timeValue = TimeRange{{1000, 1, 2}, {2000, 3, 4}}, it->value8 = DateTime{3000, 5, 6};
  *addPopup(it) = Popup{strdup("note"), 0x30, -7, nullptr, nullptr};
  setbit(&it->popups[0].setS, 2, 1), setbit(&it->popups[0].setR, 3, 1);
  *addAlarmEntry(it) = {2, 15, 5, strdup("ring")}, *addAlarmEntry(it) = {3, 10, 0, nullptr};
  *addUserTime(it) = {1, {4000, 7, 8}}, *addLabelSet(it) = {strdup("room"), nullptr};
  setbit(&it->listD[0].set, 6, 1);
  it->randomId = 11, it->hNumber = 12, it->aNumber = 13, it->fNumber = 14, it->eNumber = 15;
  it->gNumber = 16, it->dbFlag = 1, it->typeLetter = 2, it->linkByte = 3, it->kFlag = 4;
  it->chainKey = 0x1234;
  return it;
}

TEST(Evnew, SetsTheInitialValuesAndNullTexts) {
  const long expectedId = (srand48(1), lrand48());
  Item *it = (srand48(1), evnew());  // links and the list of further records to itself
  EXPECT_TRUE(it->next == it && it->prev == it && it->chain == nullptr);
  EXPECT_TRUE(it->sub.subNext == &it->sub && it->sub.subPrev == &it->sub);
  EXPECT_EQ(describe(it),
            "1 0 [] -1 " + std::to_string(int32_t(expectedId)) +
                " -2147483648/0/0 -2147483648/0/0 -2147483648/0/0 {} {} {} {} {} {} {}"
                " {} db (null) 0 -2147483648 -2147483648 -2147483648 0 0 0 255 255");
  EXPECT_TRUE(!it->popups && !it->listB && !it->listC && !it->listD);
  EXPECT_EQ(it->typeLetter + it->chainKey + uint32_t(it->unused), 0u);
  evsetTitle(it, "x"), evsetTitle(it, nullptr), evsetDbName(it, "x"), evsetDbName(it, nullptr);
  EXPECT_EQ(std::string(it->title) + show(it->dbName), "(null)");
  evfree(it);
}

TEST(Evcopy, CopiesEveryFieldAndTheChainDeeplyButNotTypeLetterOrChainKey) {
  Item *src = fullItem("sales"), *plain = evnew();  // no database name: nor has its copy
  plain->typeLetter = 'd', chainAppend(src, fullItem("east")), chainAppend(src, plain);
  EXPECT_EQ(plain->chainKey, 0x1234u);
  Item *copy = evcopy(src);
  EXPECT_EQ(describe(copy), describe(src));
  EXPECT_EQ(copy->next, copy);  // not in any list
  ASSERT_TRUE(chainLength(copy) == 2 && copy->chain != src->chain);
  EXPECT_EQ(describe(copy->chain) + describe(copy->chain->chain),
            describe(src->chain) + describe(plain));
  for (Item *c = copy; c != nullptr; c = c->chain) EXPECT_EQ(c->chainKey + c->typeLetter, 0u);
  EXPECT_TRUE(chainFind(copy, "east") == copy->chain && chainFind(copy, "sales") == copy);
  EXPECT_TRUE(chainFind(copy, "north") == nullptr && chainFind(copy, "") == nullptr);
  evfree(src), evfree(copy);  // nothing shared: the sanitizer build sees each part freed once
  EXPECT_EQ(evcopy(nullptr), nullptr);
}

TEST(Evassign, ReplacesContentsKeepingChainKeyTypeLetterAndPlace) {
  Item *src = fullItem("sales"), *target = evnew(), *ownChain = evnew();
  chainAppend(src, fullItem("east")), chainAppend(target, ownChain);
  target->typeLetter = 'x', target->chainKey = 55;
  EXPECT_EQ((evassign(target, src), describe(target)), describe(src));
  EXPECT_TRUE(target->typeLetter == 'x' && target->chainKey == 55u && target->chain == ownChain);
  evassignAll(target, src);  // with the chain, copied
  ASSERT_EQ(chainLength(target), 1);
  EXPECT_TRUE(target->chain != src->chain && target->chain->chainKey == 55u);
  EXPECT_EQ(describe(target->chain), describe(src->chain));
  EXPECT_EQ((evassign(target, target), describe(target)), describe(src));  // to itself: unchanged
  evfree(target), evfree(src);
}

TEST(ItemDeath, EvnewReportsOutOfMemory) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT((exhaustMemory(), evnew(), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from evnew\\(\\)\n$");
}
}  // namespace
}  // namespace quorvel
