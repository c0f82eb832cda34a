// record_test_util.cpp -- the test name table, the every-field item, crash contents.
#include "core/db/record_test_util.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/db/record.h"

namespace quorvel {

static std::vector<std::string> table;

void installNames(std::vector<std::string> names) {
  static NameLookup lookup{nullptr, [](void *) { return int(table.size()); },
                           [](void *, int i) { return i >= 0 && size_t(i) < table.size() ? table[size_t(i)].c_str() : nullptr; },
                           [](void *, const char *name) {
                             long at = std::find(table.begin(), table.end(), name) - table.begin();
                             return at < long(table.size()) ? int(at) : -1; }};
  table = std::move(names), setNameLookup(&lookup);
}

CalSet makeSet(std::initializer_list<int> members) {
  CalSet set = nullptr;
  for (int i : members) setbit(&set, i, 1);
  return set;
}

Item *makeFullItem(int32_t id) {
  Item *it = evnew(); evsetTitle(it, "Planning, all day");
  it->timeValue = {{1700000000, 2, 3}, {1700003600, 2, 5}}; evsetDbName(it, "remote");
  it->dbFlag = 1, it->owner = 1, it->uWord = 7, it->linkByte = 3;
  it->calendars = makeSet({0, 1}), it->setY = makeSet({1}), it->setN = makeSet({2}), it->setX = makeSet({3});
  it->setR = makeSet({0, 1, 2, 3}), it->setC = makeSet({2, 3});
  *addPopup(it) = Popup{strdup("Check in"), int32_t(0xdeadbeef), 0, makeSet({0}), makeSet({1, 3})};
  *addAlarmEntry(it) = Alarm{2, 15, 5, strdup("Leave now")}, *addAlarmEntry(it) = Alarm{-1, 60, 0, nullptr};
  *addUserTime(it) = UserTime{3, {1700007200, 2, 9}};
  *addLabelSet(it) = LabelSet{strdup("room"), makeSet({0, 2})};
  it->randomId = id, it->hNumber = 12, it->aNumber = 34, it->fNumber = 56, it->gNumber = -78, it->eNumber = 90;
  return it;
}

void setCrashGeneration(RecordFile *rf, int generation, int n) {
  if (evlistCount(&rf->list) != n) {
    evlistFree(&rf->list); rf->index.clear();
    for (int i = 0; i < n; i++) {
      Item *item = evnew(); item->randomId = i + 1, item->calendars = makeSet({i % 3});
      item->timeValue = {{1700000000 + i * 60, 1, 0}, {1700000000 + i * 60 + 30, 1, 0}};
      addRecordItem(rf, item);
    }
  }
  char text[64]; int i = 0;
  for (Item *e = rf->list.next; e != &rf->list; e = e->next, i++)
    snprintf(text, sizeof text, "entry %06d of generation %d", i, generation % 10), evsetTitle(e, text);
  rf->dirty = true;
}

std::string crashGenerationText(int generation, int n) {
  RecordFile *rf = newRecordFile("unused", nullptr); setCrashGeneration(rf, generation, n);
  std::string text; writeList(&text, &rf->list), freeRecordFile(rf);
  return text;
}

}  // namespace quorvel
