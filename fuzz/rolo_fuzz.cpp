// rolo_fuzz.cpp -- feeds arbitrary bytes to the address-book reader, then checks the
// cards it kept, sorts them, writes them and reads the written text back: every card
// and field must come back.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/people/rolo.h"
#include "core/people/users.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quorvel;

static void setUp() {
  static bool done;
  if (done) return;
  done = true;
  setClockHook([] { return time_t(1700000000); });
  setCurrentDb(openDefaultDb());
  addCalendarName(nullptr, "anna", "a", "", "");
  addCalendarName(nullptr, "bob", "b", "", "");
}

static long fields(const RoloEntry *head) {
  long n = 0;
  for (const RoloEntry *e = head->next; e != head; e = e->next) n += e->fieldCount;
  return n;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  setUp();
  RoloEntry *list = parseRoloList(reinterpret_cast<const char *>(data), size, 0);
  for (const RoloEntry *e = list->next; e != list; e = e->next) {
    if (e->fieldCount == 0 || (e->kind != 0 && e->kind != 2)) abort();
    if (e->owner < 0 || e->stamp.time == NO_TIME || e->next->prev != e) abort();
  }
  sortrololist(list);
  if (roloOutOfOrder(list)) abort();
  // Written and read again, every card and field comes back (a text may lose one
  // trailing newline per round, since a last empty line of text is not written).
  std::string once = formatRoloList(list, 0);
  RoloEntry *back = parseRoloList(once.data(), once.size(), 0);
  if (roloCount(back) != roloCount(list) || fields(back) != fields(list)) abort();
  freeRoloList(list), freeRoloList(back);
  return 0;
}
