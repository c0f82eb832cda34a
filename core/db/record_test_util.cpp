// record_test_util.cpp -- the test calendar-name table and the every-field item.
#include "core/db/record_test_util.h"

#include <cstring>

namespace quorvel {

static int countNames(void *ctx) { return int(static_cast<TestNames *>(ctx)->names.size()); }

static const char *nameAt(void *ctx, int i) {
  auto *t = static_cast<TestNames *>(ctx);
  return i >= 0 && size_t(i) < t->names.size() ? t->names[size_t(i)].c_str() : nullptr;
}

static int indexOfName(void *ctx, const char *name) {
  auto *t = static_cast<TestNames *>(ctx);
  for (size_t i = 0; i < t->names.size(); i++)
    if (t->names[i] == name) return int(i);
  return -1;
}

TestNames::TestNames(std::vector<std::string> list)
    : names(std::move(list)), lookup{this, countNames, nameAt, indexOfName} {}

TestNames::~TestNames() {
  if (nameLookup() == &lookup) resetNameLookup();
}

void TestNames::install() { setNameLookup(&lookup); }

CalSet makeSet(std::initializer_list<int> members) {
  CalSet set = nullptr;
  for (int i : members) setbit(&set, i, 1);
  return set;
}

static char *dup(const char *s) {
  char *c = static_cast<char *>(malloc(strlen(s) + 1));
  strcpy(c, s);
  return c;
}

Item *makeFullItem(int32_t id) {
  Item *it = evnew();
  evsetTitle(it, "Planning, all day");
  it->timeValue = {{1700000000, 2, 3}, {1700003600, 2, 5}};
  evsetDbName(it, "remote");
  it->dbFlag = 1;
  it->calendars = makeSet({0, 1});
  it->setY = makeSet({1});
  it->setN = makeSet({2});
  it->setX = makeSet({3});
  it->owner = 1;
  it->setR = makeSet({0, 1, 2, 3});
  it->setC = makeSet({2, 3});
  it->uWord = 7;
  Popup *p = addPopup(it);
  p->title = dup("Check in");
  p->mask = int32_t(0xdeadbeef);
  p->setS = makeSet({0});
  p->setR = makeSet({1, 3});
  Alarm *a = addAlarmEntry(it);
  a->user = 2;
  a->start = 15;
  a->freq = 5;
  a->string = dup("Leave now");
  Alarm *b = addAlarmEntry(it);
  b->user = -1;
  b->start = 60;
  b->freq = 0;
  UserTime *u = addUserTime(it);
  u->user = 3;
  u->when = {1700007200, 2, 9};
  LabelSet *k = addLabelSet(it);
  k->label = dup("room");
  k->set = makeSet({0, 2});
  it->randomId = id;
  it->hNumber = 12;
  it->aNumber = 34;
  it->fNumber = 56;
  it->gNumber = -78;
  it->eNumber = 90;
  it->linkByte = 3;
  return it;
}

}  // namespace quorvel
