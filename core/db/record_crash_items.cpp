// record_crash_items.cpp -- the generations of record file contents of the crash test.
#include "core/db/record_crash_items.h"

#include <cstdio>

#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {

std::vector<std::string> crashNames() { return {"ann", "bob", "carl"}; }

static void title(Item *item, int index, int generation) {
  char text[64];
  snprintf(text, sizeof text, "entry %06d of generation %d", index, generation % 10);
  evsetTitle(item, text);
}

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
  for (Item *e = rf->list.next; e != &rf->list; e = e->next) title(e, i++, generation);
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
