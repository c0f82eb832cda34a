// namelookup.h -- how the message and set code reaches the calendar names.
//
// Calendar number i of a calendar set is entry i of the current database's
// calendar-name table, which the users file module owns. This module only declares the
// interface and holds the one installed pointer: the users file installs a NameLookup
// for the current database context (and again when the context changes); tests install
// their own. With nothing installed there are no calendars: count 0, no names.
#pragma once

namespace quorvel {

struct NameLookup {
  void *ctx;                                        // handed back to every call
  int (*count)(void *ctx);                          // calendars in the table
  const char *(*nameOf)(void *ctx, int index);      // null when index has no name
  int (*indexOf)(void *ctx, const char *name);      // -1 for an unknown name
};

/* ---- The installed lookup ----------------------------------------------------- */

// Installs lookup (not copied: it must outlive its installation); null uninstalls.
// Returns the previous one.
const NameLookup *setNameLookup(const NameLookup *lookup);
const NameLookup *nameLookup();
void resetNameLookup();  // tests: nothing installed

/* ---- Calls through the installed lookup --------------------------------------- */

int calendarCount();                      // 0 with nothing installed
const char *calendarName(int index);      // null out of range or without a name
int calendarIndex(const char *name);      // -1 unknown

}  // namespace quorvel
