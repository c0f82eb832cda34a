// Tests of the item record: initial values, deep and independent copies (with the
// fields a copy must not take), assignment, the owned arrays and the report on
// allocation failure.
#include "core/items/item.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "core/base/base.h"
#include "core/net/memlimit.h"

namespace quorvel {
namespace {

// An item with every field set away from its initial value.
Item *fullItem() {
  Item *it = evnew();
  it->dWord = KIND_TODO;
  it->uWord = 9;
  evsetTitle(it, "Lunch with Ann");
  it->owner = 4;
  int bit = 1;
  for (CalSet Item::*set : {&Item::calendars, &Item::setY, &Item::setN, &Item::setS, &Item::setR,
                            &Item::setC, &Item::setX, &Item::setM})
    setbit(&(it->*set), bit++, 1);
  it->timeValue = TimeRange{{1000, 1, 2}, {2000, 3, 4}};
  Popup *p = addPopup(it);
  p->title = strdup("note");
  p->mask = 0x30;
  p->number = -7;
  setbit(&p->setS, 2, 1);
  setbit(&p->setR, 3, 1);
  Alarm *a = addAlarmEntry(it);
  *a = Alarm{2, 15, 5, strdup("ring")};
  Alarm *b = addAlarmEntry(it);
  *b = Alarm{3, 10, 0, nullptr};
  it->value8 = DateTime{3000, 5, 6};
  *addUserTime(it) = UserTime{1, {4000, 7, 8}};
  LabelSet *l = addLabelSet(it);
  l->label = strdup("room");
  setbit(&l->set, 6, 1);
  evsetDbName(it, "sales");
  it->randomId = 777;
  it->chainKey = 0x1234;
  it->hNumber = 11;
  it->aNumber = 12;
  it->fNumber = 13;
  it->eNumber = 14;
  it->gNumber = 15;
  it->dbFlag = 1;
  it->typeLetter = 'd';
  it->linkByte = 3;
  it->gFlag = 0;
  it->kFlag = 1;
  return it;
}

// Field by field equality of what a copy carries (not links, chain, typeLetter, chainKey).
void expectSameContents(const Item *a, const Item *b) {
  EXPECT_EQ(a->dWord, b->dWord);
  EXPECT_EQ(a->uWord, b->uWord);
  EXPECT_STREQ(a->title, b->title);
  for (CalSet Item::*set : {&Item::calendars, &Item::setY, &Item::setN, &Item::setS, &Item::setR,
                            &Item::setC, &Item::setX, &Item::setM})
    EXPECT_TRUE(setsEqual(a->*set, b->*set));
  EXPECT_TRUE(sameDateTime(a->timeValue.start, b->timeValue.start));
  EXPECT_TRUE(sameDateTime(a->timeValue.end, b->timeValue.end));
  ASSERT_EQ(a->popupCount, b->popupCount);
  for (int i = 0; i < a->popupCount; i++) {
    EXPECT_STREQ(a->popups[i].title, b->popups[i].title);
    EXPECT_EQ(a->popups[i].mask, b->popups[i].mask);
    EXPECT_EQ(a->popups[i].number, b->popups[i].number);
    EXPECT_TRUE(setsEqual(a->popups[i].setS, b->popups[i].setS));
    EXPECT_TRUE(setsEqual(a->popups[i].setR, b->popups[i].setR));
  }
  ASSERT_EQ(a->listBCount, b->listBCount);
  for (int i = 0; i < a->listBCount; i++) {
    EXPECT_EQ(a->listB[i].user, b->listB[i].user);
    EXPECT_EQ(a->listB[i].start, b->listB[i].start);
    EXPECT_EQ(a->listB[i].freq, b->listB[i].freq);
    EXPECT_EQ(a->listB[i].string == nullptr, b->listB[i].string == nullptr);
    if (a->listB[i].string) {
      EXPECT_STREQ(a->listB[i].string, b->listB[i].string);
    }
  }
  EXPECT_TRUE(sameDateTime(a->value8, b->value8));
  ASSERT_EQ(a->listCCount, b->listCCount);
  for (int i = 0; i < a->listCCount; i++) {
    EXPECT_EQ(a->listC[i].user, b->listC[i].user);
    EXPECT_TRUE(sameDateTime(a->listC[i].when, b->listC[i].when));
  }
  ASSERT_EQ(a->listDCount, b->listDCount);
  for (int i = 0; i < a->listDCount; i++) {
    EXPECT_STREQ(a->listD[i].label, b->listD[i].label);
    EXPECT_TRUE(setsEqual(a->listD[i].set, b->listD[i].set));
  }
  EXPECT_EQ(a->dbName == nullptr, b->dbName == nullptr);
  if (a->dbName) {
    EXPECT_STREQ(a->dbName, b->dbName);
  }
  for (int32_t Item::*n : {&Item::randomId, &Item::hNumber, &Item::aNumber, &Item::fNumber,
                           &Item::eNumber, &Item::gNumber, &Item::owner})
    EXPECT_EQ(a->*n, b->*n);
  for (uint8_t Item::*f : {&Item::dbFlag, &Item::linkByte, &Item::gFlag, &Item::kFlag})
    EXPECT_EQ(a->*f, b->*f);
}

TEST(Evnew, SetsTheInitialValues) {
  srand48(1);
  Item *it = evnew();
  EXPECT_EQ(it->next, it);
  EXPECT_EQ(it->prev, it);
  EXPECT_EQ(it->sub.subNext, &it->sub);
  EXPECT_EQ(it->sub.subPrev, &it->sub);
  EXPECT_EQ(it->chain, nullptr);
  EXPECT_EQ(it->dWord, 1);
  EXPECT_EQ(it->uWord, 0);
  ASSERT_NE(it->title, nullptr);
  EXPECT_STREQ(it->title, "");
  EXPECT_EQ(it->owner, -1);
  EXPECT_EQ(it->calendars, nullptr);
  EXPECT_EQ(it->setM, nullptr);
  EXPECT_EQ(it->timeValue.start.time, NO_TIME);
  EXPECT_EQ(it->timeValue.end.time, NO_TIME);
  EXPECT_EQ(it->value8.time, NO_TIME);
  EXPECT_EQ(it->popups, nullptr);
  EXPECT_EQ(it->listB, nullptr);
  EXPECT_EQ(it->listC, nullptr);
  EXPECT_EQ(it->listD, nullptr);
  EXPECT_EQ(it->popupCount + it->listBCount + it->listCCount + it->listDCount, 0);
  EXPECT_EQ(it->dbName, nullptr);
  EXPECT_EQ(it->hNumber, 0);
  EXPECT_EQ(it->aNumber, NO_TIME);
  EXPECT_EQ(it->fNumber, NO_TIME);
  EXPECT_EQ(it->eNumber, NO_TIME);
  EXPECT_EQ(it->gNumber, 0);
  EXPECT_EQ(it->chainKey, 0u);
  EXPECT_EQ(it->dbFlag + it->typeLetter + it->linkByte, 0);
  EXPECT_EQ(it->gFlag, 255);
  EXPECT_EQ(it->kFlag, 255);

  // The random id comes from lrand48: the same seed gives the same id.
  srand48(1);
  long expected = lrand48();
  EXPECT_EQ(it->randomId, int32_t(expected));
  std::set<int32_t> ids;
  for (int i = 0; i < 20; i++) {
    Item *other = evnew();
    ids.insert(other->randomId);
    evfree(other);
  }
  EXPECT_GT(ids.size(), 15u);
  evfree(it);
}

TEST(Evcopy, CopiesEveryFieldDeeplyButNotTypeLetterOrChainKey) {
  Item *src = fullItem();
  Item *copy = evcopy(src);
  expectSameContents(src, copy);
  EXPECT_EQ(copy->typeLetter, 0);
  EXPECT_EQ(copy->chainKey, 0u);
  EXPECT_EQ(copy->next, copy);  // not in any list

  // Nothing is shared: changing the source leaves the copy as it was.
  EXPECT_NE(copy->title, src->title);
  EXPECT_NE(copy->calendars, src->calendars);
  EXPECT_NE(copy->popups, src->popups);
  EXPECT_NE(copy->popups[0].title, src->popups[0].title);
  EXPECT_NE(copy->listB[0].string, src->listB[0].string);
  EXPECT_NE(copy->listD[0].label, src->listD[0].label);
  src->title[0] = 'M';
  setbit(&src->calendars, 40, 1);
  src->popups[0].title[0] = 'N';
  setbit(&src->popups[0].setS, 9, 1);
  src->listB[0].string[0] = 'w';
  src->listC[0].user = 99;
  src->listD[0].label[0] = 'b';
  setbit(&src->listD[0].set, 1, 1);
  src->dbName[0] = 'S';
  EXPECT_STREQ(copy->title, "Lunch with Ann");
  EXPECT_FALSE(testbit(copy->calendars, 40));
  EXPECT_STREQ(copy->popups[0].title, "note");
  EXPECT_FALSE(testbit(copy->popups[0].setS, 9));
  EXPECT_STREQ(copy->listB[0].string, "ring");
  EXPECT_EQ(copy->listB[1].string, nullptr);
  EXPECT_EQ(copy->listC[0].user, 1);
  EXPECT_STREQ(copy->listD[0].label, "room");
  EXPECT_FALSE(testbit(copy->listD[0].set, 1));
  EXPECT_STREQ(copy->dbName, "sales");
  evfree(src);
  evfree(copy);  // (the sanitizer build checks both release everything exactly once)
}

TEST(Evcopy, CopiesTheChainWithNewChainKeys) {
  Item *src = fullItem();
  Item *second = fullItem();
  evsetDbName(second, "east");
  Item *third = evnew();
  evsetDbName(third, "west");
  third->typeLetter = 'd';
  chainAppend(src, second);
  chainAppend(src, third);
  EXPECT_EQ(second->chainKey, 0x1234u);
  EXPECT_EQ(third->chainKey, 0x1234u);
  EXPECT_EQ(chainLength(src), 2);

  Item *copy = evcopy(src);
  ASSERT_EQ(chainLength(copy), 2);
  EXPECT_NE(copy->chain, second);
  expectSameContents(second, copy->chain);
  expectSameContents(third, copy->chain->chain);
  for (Item *c = copy; c != nullptr; c = c->chain) {
    EXPECT_EQ(c->chainKey, 0u);
    EXPECT_EQ(c->typeLetter, 0);
  }
  EXPECT_EQ(chainFind(copy, "west"), copy->chain->chain);
  EXPECT_EQ(chainFind(copy, "sales"), copy);
  EXPECT_EQ(chainFind(copy, "north"), nullptr);
  EXPECT_EQ(chainFind(copy, ""), nullptr);
  evfree(src);  // frees the chain with it
  evfree(copy);
}

TEST(Evcopy, KeepsAbsentPartsAbsent) {
  EXPECT_EQ(evcopy(nullptr), nullptr);
  Item *src = evnew();
  Item *copy = evcopy(src);
  EXPECT_EQ(copy->dbName, nullptr);
  EXPECT_STREQ(copy->title, "");
  EXPECT_EQ(copy->calendars, nullptr);
  EXPECT_EQ(copy->popups, nullptr);
  EXPECT_EQ(copy->chain, nullptr);
  EXPECT_EQ(copy->randomId, src->randomId);
  evfree(src);
  evfree(copy);
}

TEST(Evassign, ReplacesContentsAndKeepsPlaceAndChain) {
  Item *src = fullItem();
  Item *srcChain = evnew();
  evsetDbName(srcChain, "east");
  chainAppend(src, srcChain);

  Item *target = evnew();
  evsetTitle(target, "old title");
  setbit(&target->setN, 50, 1);
  *addAlarmEntry(target) = Alarm{9, 1, 1, strdup("old")};
  target->typeLetter = 'x';
  target->chainKey = 55;
  Item *ownChain = evnew();
  evsetDbName(ownChain, "mine");
  chainAppend(target, ownChain);
  Item head;
  evlistInit(&head);
  evlistAppend(&head, target);

  evassign(target, src);
  expectSameContents(src, target);
  EXPECT_EQ(target->typeLetter, 'x');
  EXPECT_EQ(target->chainKey, 55u);
  EXPECT_EQ(target->chain, ownChain);  // evassign leaves the chain alone
  EXPECT_EQ(head.next, target);
  EXPECT_EQ(target->next, &head);

  evassignAll(target, src);
  ASSERT_NE(target->chain, nullptr);
  EXPECT_NE(target->chain, srcChain);
  EXPECT_STREQ(target->chain->dbName, "east");
  EXPECT_EQ(target->chain->chainKey, 55u);
  EXPECT_EQ(chainLength(target), 1);

  evassign(target, target);  // assigning an item to itself changes nothing
  expectSameContents(src, target);
  evlistFree(&head);
  evfree(src);
}

TEST(ItemArrays, GrowByOneZeroedEntryAndCopyWithTheirCounts) {
  Item *it = evnew();
  for (int i = 0; i < 5; i++) {
    Alarm *a = addAlarmEntry(it);
    EXPECT_EQ(a->user, 0);
    EXPECT_EQ(a->string, nullptr);
    a->user = i;
  }
  EXPECT_EQ(it->listBCount, 5);
  for (int i = 0; i < 5; i++) EXPECT_EQ(it->listB[i].user, i);

  EXPECT_EQ(copyAlarms(nullptr, 3), nullptr);
  EXPECT_EQ(copyPopups(it->popups, 0), nullptr);
  UserTime times[2] = {{1, {5, 6, 7}}, {-1, {8, 9, 10}}};
  UserTime *copied = copyUserTimes(times, 2);
  EXPECT_EQ(copied[1].user, -1);
  EXPECT_EQ(copied[1].when.q2, 10);
  freeMem(copied);

  evsetTitle(it, nullptr);
  EXPECT_STREQ(it->title, "");
  evsetDbName(it, "x");
  evsetDbName(it, nullptr);
  EXPECT_EQ(it->dbName, nullptr);
  evfree(it);
}

TEST(ItemDeath, EvnewReportsOutOfMemory) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT(
      {
        exhaustMemory();
        evnew();
        exitProcess(0);
      },
      testing::ExitedWithCode(1), "^OutOfMem: called from evnew\\(\\)\n$");
}

}  // namespace
}  // namespace quorvel
