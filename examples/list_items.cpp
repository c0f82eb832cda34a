// list_items -- reads a calendar database's users file and one record file through the
// calendar core and prints each item: kind, start (seconds of the clock), calendars, title.
//
//   list_items <installation root> <record file>
//
// The installation root holds db/users and the database directory db/database (with
// its locks/ folder); the program works from the root, as the core's clients do, and
// the record file is named relative to it or absolutely.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "core/db/context.h"
#include "core/db/recordfile.h"
#include "core/net/calset.h"
#include "core/people/users.h"

using namespace quorvel;

static const char *kindName(int dWord) {
  switch (dWord) {
    case 1: return "event";
    case 2: return "to-do";
    case 3: return "reminder";
    default: return "other";
  }
}

// The names of a set's members, joined by ",".
static std::string memberNames(DbHandle *db, const CalSet &set) {
  std::string names;
  for (int i = 0; i < calendarTableSize(db); i++) {
    if (!testbit(set, i)) continue;
    if (!names.empty()) names += ",";
    names += tableName(db, i);
  }
  return names;
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: list_items <installation root> <record file>\n");
    return 2;
  }
  setenv("QUORVELPATH", argv[1], 1);
  if (chdir(argv[1]) != 0) {
    perror("list_items: chdir");
    return 1;
  }
  DbHandle *db = openDefaultDb();
  int changed = 0;
  readUsersFile(db, &changed);  // (its result is the own calendar, -1 when not listed)
  if (calendarTableSize(db) == 0) {
    fprintf(stderr, "list_items: cannot read the users file below %s\n", argv[1]);
    return 1;
  }
  RecordFile *rf = openRecordFile(db, argv[2]);
  printf("%zu items\n", rf->index.size());
  for (const Item *item : rf->index)
    printf("%s\t%d\t%s\t%s\n", kindName(item->dWord), item->timeValue.start.time,
           memberNames(db, item->calendars).c_str(), item->title);
  return 0;
}
