// item.cpp -- the calendar item record: creation with its initial values, release,
// deep copies (evcopy, evassign) and the owned arrays with their copiers.
#include "core/items/item.h"

#include <cstdlib>
#include <cstring>

#include "core/base/base.h"

namespace quorvel {

namespace {

char *copyText(const char *text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text) + 1;
  char *copy = static_cast<char *>(allocMem(nullptr, n));
  if (copy == nullptr) outOfMem("evnew");
  memcpy(copy, text, n);
  return copy;
}

// Allocates count zeroed entries of size each (null for none); failures report "evnew".
void *newArray(int count, size_t size) {
  if (count <= 0) return nullptr;
  void *array = allocMem(nullptr, size_t(count) * size);
  if (array == nullptr) outOfMem("evnew");
  memset(array, 0, size_t(count) * size);
  return array;
}

// Grows an owned array by one zeroed entry at the end; returns the new entry.
void *growArray(void **array, int16_t *count, size_t size) {
  if (*count >= ITEM_LIST_MAX) outOfMem("evnew");  // the count is 16-bit: no room left
  void *grown = allocMem(*array, size_t(*count + 1) * size);
  if (grown == nullptr) outOfMem("evnew");
  *array = grown;
  void *entry = static_cast<char *>(grown) + size_t(*count) * size;
  memset(entry, 0, size);
  (*count)++;
  return entry;
}

// The item's eight calendar sets, for the loops that free and copy them.
constexpr CalSet Item::*ITEM_SETS[] = {&Item::calendars, &Item::setY, &Item::setN, &Item::setS,
                                       &Item::setR,      &Item::setC, &Item::setX, &Item::setM};

// Releases what an item owns apart from its chain and leaves the fields empty.
void releaseContents(Item *item) {
  freeMem(item->title);
  item->title = nullptr;
  freeMem(item->dbName);
  item->dbName = nullptr;
  for (CalSet Item::*set : ITEM_SETS) freebits(&(item->*set));
  freePopups(item->popups, item->popupCount);
  freeAlarms(item->listB, item->listBCount);
  freeMem(item->listC);
  freeLabelSets(item->listD, item->listDCount);
  item->popups = nullptr;
  item->listB = nullptr;
  item->listC = nullptr;
  item->listD = nullptr;
  item->popupCount = item->listBCount = item->listCCount = item->listDCount = 0;
}

// Copies every copied field of source into target, whose owned parts are released.
void copyContents(Item *target, const Item *source) {
  target->dWord = source->dWord;
  target->uWord = source->uWord;
  target->title = copyText(source->title != nullptr ? source->title : "");
  target->owner = source->owner;
  target->randomId = source->randomId;
  for (CalSet Item::*set : ITEM_SETS) copybits(&(target->*set), source->*set);
  target->timeValue = source->timeValue;
  target->popups = copyPopups(source->popups, source->popupCount);
  target->popupCount = target->popups ? source->popupCount : 0;
  target->listB = copyAlarms(source->listB, source->listBCount);
  target->listBCount = target->listB ? source->listBCount : 0;
  target->value8 = source->value8;
  target->listC = copyUserTimes(source->listC, source->listCCount);
  target->listCCount = target->listC ? source->listCCount : 0;
  target->listD = copyLabelSets(source->listD, source->listDCount);
  target->listDCount = target->listD ? source->listDCount : 0;
  target->aNumber = source->aNumber;
  target->fNumber = source->fNumber;
  target->eNumber = source->eNumber;
  target->gNumber = source->gNumber;
  target->dbName = copyText(source->dbName);
  target->hNumber = source->hNumber;
  target->dbFlag = source->dbFlag;
  target->linkByte = source->linkByte;
  target->gFlag = source->gFlag;
  target->kFlag = source->kFlag;
}

// Deep copy of a chain; every copied link keeps the chainKey of owner (the new item).
Item *copyChain(const Item *chain, uint32_t chainKey) {
  if (chain == nullptr) return nullptr;
  Item *copy = evcopy(chain);
  for (Item *c = copy; c != nullptr; c = c->chain) c->chainKey = chainKey;
  return copy;
}

// The shared assignment; withChain replaces target's chain by a copy of source's.
void assignItem(Item *target, const Item *source, bool withChain) {
  if (target == source || target == nullptr || source == nullptr) return;
  releaseContents(target);
  copyContents(target, source);
  if (withChain) {
    Item *chain = copyChain(source->chain, target->chainKey);
    evfree(target->chain);
    target->chain = chain;
  }
}

}  // namespace

/* ---- Items -------------------------------------------------------------------- */

Item *evnew() {
  Item *item = static_cast<Item *>(allocMem(nullptr, sizeof(Item)));
  if (item == nullptr) outOfMem("evnew");
  memset(item, 0, sizeof(Item));
  item->next = item->prev = item;
  item->sub.subNext = item->sub.subPrev = &item->sub;
  item->dWord = KIND_EVENT;
  item->title = copyText("");
  item->owner = -1;
  item->timeValue = initTimeRange();
  item->value8 = initDateTime();
  item->randomId = int32_t(lrand48());
  item->aNumber = item->fNumber = item->eNumber = NO_TIME;
  item->gFlag = item->kFlag = 255;
  return item;
}

void evfree(Item *item) {
  while (item != nullptr) {
    Item *chain = item->chain;
    releaseContents(item);
    freeMem(item);
    item = chain;
  }
}

Item *evcopy(const Item *item) {
  if (item == nullptr) return nullptr;
  Item *copy = evnew();
  freeMem(copy->title);  // replaced by the source's
  copy->title = nullptr;
  copyContents(copy, item);
  // typeLetter and chainKey keep a new item's values, in the copied chain too.
  copy->chain = copyChain(item->chain, copy->chainKey);
  return copy;
}

void evassign(Item *target, const Item *source) { assignItem(target, source, false); }
void evassignAll(Item *target, const Item *source) { assignItem(target, source, true); }

void evsetTitle(Item *item, const char *title) {
  char *copy = copyText(title != nullptr ? title : "");
  freeMem(item->title);
  item->title = copy;
}

void evsetDbName(Item *item, const char *name) {
  char *copy = copyText(name);
  freeMem(item->dbName);
  item->dbName = copy;
}

/* ---- Owned arrays ------------------------------------------------------------- */

Popup *copyPopups(const Popup *from, int count) {
  if (from == nullptr) return nullptr;
  auto *to = static_cast<Popup *>(newArray(count, sizeof(Popup)));
  for (int i = 0; i < count; i++) {
    to[i] = Popup{copyText(from[i].title), from[i].mask, from[i].number, nullptr, nullptr};
    copybits(&to[i].setS, from[i].setS);
    copybits(&to[i].setR, from[i].setR);
  }
  return to;
}

void freePopups(Popup *list, int count) {
  for (int i = 0; list != nullptr && i < count; i++) {
    freeMem(list[i].title);
    freebits(&list[i].setS);
    freebits(&list[i].setR);
  }
  freeMem(list);
}

Alarm *copyAlarms(const Alarm *from, int count) {
  if (from == nullptr) return nullptr;
  auto *to = static_cast<Alarm *>(newArray(count, sizeof(Alarm)));
  for (int i = 0; i < count; i++)
    to[i] = Alarm{from[i].user, from[i].start, from[i].freq, copyText(from[i].string)};
  return to;
}

void freeAlarms(Alarm *list, int count) {
  for (int i = 0; list != nullptr && i < count; i++) freeMem(list[i].string);
  freeMem(list);
}

UserTime *copyUserTimes(const UserTime *from, int count) {
  if (from == nullptr) return nullptr;
  auto *to = static_cast<UserTime *>(newArray(count, sizeof(UserTime)));
  if (to != nullptr) memcpy(to, from, size_t(count) * sizeof(UserTime));
  return to;
}

LabelSet *copyLabelSets(const LabelSet *from, int count) {
  if (from == nullptr) return nullptr;
  auto *to = static_cast<LabelSet *>(newArray(count, sizeof(LabelSet)));
  for (int i = 0; i < count; i++) {
    to[i] = LabelSet{copyText(from[i].label), nullptr};
    copybits(&to[i].set, from[i].set);
  }
  return to;
}

void freeLabelSets(LabelSet *list, int count) {
  for (int i = 0; list != nullptr && i < count; i++) {
    freeMem(list[i].label);
    freebits(&list[i].set);
  }
  freeMem(list);
}

Popup *addPopup(Item *item) {
  return static_cast<Popup *>(
      growArray(reinterpret_cast<void **>(&item->popups), &item->popupCount, sizeof(Popup)));
}
Alarm *addAlarmEntry(Item *item) {
  return static_cast<Alarm *>(
      growArray(reinterpret_cast<void **>(&item->listB), &item->listBCount, sizeof(Alarm)));
}
UserTime *addUserTime(Item *item) {
  return static_cast<UserTime *>(growArray(reinterpret_cast<void **>(&item->listC),
                                           &item->listCCount, sizeof(UserTime)));
}
LabelSet *addLabelSet(Item *item) {
  return static_cast<LabelSet *>(growArray(reinterpret_cast<void **>(&item->listD),
                                           &item->listDCount, sizeof(LabelSet)));
}

}  // namespace quorvel
