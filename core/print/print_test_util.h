// print_test_util.h -- a listing world for the print tests: a temporary installation
// root with its events tree, two calendars (ann, the own one, and bob), clock in UTC,
// and a day-items loader that serves items made in memory.
#pragma once

#include <sys/stat.h>

#include <ctime>

#include "core/db/db_test_util.h"
#include "core/items/item.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"
#include "core/print/listing.h"
#include "core/print/listing_internal.h"

namespace quorvel {

// The items the memory loader serves, and which calendars have a list at all.
inline Item memItems;
inline std::vector<int> memCalendars;

inline int memoryLoader(int calendar, int32_t dayStart, int32_t dayEnd, Item *list) {
  if (std::find(memCalendars.begin(), memCalendars.end(), calendar) == memCalendars.end()) return -1;
  for (Item *item = memItems.next; item != &memItems; item = item->next)
    if (itemOnDay(item, dayStart, dayEnd)) evlistAppend(list, evcopy(item));
  return 0;
}

// Seconds of 2026-<month>-<day> hh:mm UTC (month counted from 1).
inline int32_t utc(int month, int day, int hour, int minute, int year = 2026) {
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = hour, tm.tm_min = minute;
  return int32_t(timegm(&tm));
}

struct ListingTest : ::testing::Test {
  TempDir dir;
  DbHandle *db = nullptr;
  int ann = -1, bob = -1;

  void SetUp() override {
    std::filesystem::create_directories(dir.at("root/db/database/events"));
    std::filesystem::create_directories(dir.at("root/db/database/locks"));
    setenv("QUORVELPATH", dir.at("root").c_str(), 1);
    setenv("TZ", "UTC", 1);
    tzset();
    resetDbTestState();
    resetListing(), resetPerms(), resetIdentity();
    db = openDefaultDb();
    installNameLookup();
    ann = addCalendarName(nullptr, "ann", "ann", "", "");
    bob = addCalendarName(nullptr, "bob", "bob", "", "");
    setOwnCalendar(ann);
    evlistInit(&memItems);
    memCalendars = {ann};
    setDayItemsLoader(memoryLoader);
  }
  void TearDown() override {
    evlistFree(&memItems);
    resetListing(), resetPerms(), resetIdentity();
    freeNameTable(db);
    resetDbContexts();
    unsetenv("QUORVELPATH");
  }

  // A new item in the memory list.
  Item *add(uint16_t kind, const char *title, int32_t start, int32_t end, std::initializer_list<int> calendars) {
    Item *item = evnew();
    item->dWord = kind;
    evsetTitle(item, title);
    item->timeValue.start.time = start, item->timeValue.end.time = end;
    for (int c : calendars) setbit(&item->calendars, c, 1);
    evlistAppend(&memItems, item);
    return item;
  }
  static void markDone(Item *item, int user, int32_t when) {
    UserTime *entry = addUserTime(item);
    entry->user = user, entry->when = initDateTime(), entry->when.time = when;
  }
  // What WriteListing writes for these arguments.
  std::string listing(int calendar, int year, int month, int day, int withYear, unsigned period, unsigned flags,
                      int count = 1) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    WriteListing(out, calendar, year, month, day, withYear, period, flags, count);
    fclose(out);
    std::string result(text, len);
    free(text);
    return result;
  }
};

}  // namespace quorvel
