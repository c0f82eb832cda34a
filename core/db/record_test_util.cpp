// record_test_util.cpp -- the test calendar-name table, the every-field item and the
// crash test's generations of contents.
#include "core/db/record_test_util.h"

#include <cstdio>
#include <cstring>

#include "core/db/record.h"

namespace quorvel {

static TestNames *table(void *ctx) { return static_cast<TestNames *>(ctx); }
static int countNames(void *ctx) { return int(table(ctx)->names.size()); }
static const char *nameAt(void *ctx, int i) {
  return i >= 0 && size_t(i) < table(ctx)->names.size() ? table(ctx)->names[size_t(i)].c_str() : nullptr;
}
static int indexOfName(void *ctx, const char *name) {
  for (size_t i = 0; i < table(ctx)->names.size(); i++)
    if (table(ctx)->names[i] == name) return int(i);
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

static char *dup(const char *s) { return strcpy(static_cast<char *>(malloc(strlen(s) + 1)), s); }

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
  *addPopup(it) = Popup{dup("Check in"), int32_t(0xdeadbeef), 0, makeSet({0}), makeSet({1, 3})};
  *addAlarmEntry(it) = Alarm{2, 15, 5, dup("Leave now")};
  *addAlarmEntry(it) = Alarm{-1, 60, 0, nullptr};
  *addUserTime(it) = UserTime{3, {1700007200, 2, 9}};
  *addLabelSet(it) = LabelSet{dup("room"), makeSet({0, 2})};
  it->randomId = id;
  it->hNumber = 12;
  it->aNumber = 34;
  it->fNumber = 56;
  it->gNumber = -78;
  it->eNumber = 90;
  it->linkByte = 3;
  return it;
}

std::vector<std::string> crashNames() { return {"ann", "bob", "carl"}; }

void setCrashGeneration(RecordFile *rf, int generation, int n) {
  if (evlistCount(&rf->list) != n) {
    evlistFree(&rf->list);
    rf->index.clear();
    for (int i = 0; i < n; i++) {
      Item *item = evnew();
      item->randomId = i + 1;
      item->calendars = makeSet({i % 3});
      item->timeValue = {{1700000000 + i * 60, 1, 0}, {1700000000 + i * 60 + 30, 1, 0}};
      addRecordItem(rf, item);
    }
  }
  int i = 0;
  char text[64];
  for (Item *e = rf->list.next; e != &rf->list; e = e->next) {
    snprintf(text, sizeof text, "entry %06d of generation %d", i++, generation % 10);
    evsetTitle(e, text);
  }
  rf->dirty = true;
}

std::string crashGenerationText(int generation, int n) {
  RecordFile *rf = newRecordFile("unused", nullptr);
  setCrashGeneration(rf, generation, n);
  std::string text;
  writeList(&text, &rf->list);
  freeRecordFile(rf);
  return text;
}

}  // namespace quorvel
