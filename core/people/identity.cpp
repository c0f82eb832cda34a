// identity.cpp -- the own, viewed and third calendars, the acting-for test and the
// window titles. Names come from the current context's calendar-name table.
#include "core/people/identity.h"

#include "core/catalog/catalog.h"
#include "core/db/context.h"
#include "core/people/users.h"

namespace quorvel {

namespace {

// One held calendar: its index in the name table and a copy of its name.
struct Held {
  int index = -1;        // -1 for none
  std::string name;      // copy of the table's name
  bool hasName = false;  // whether name holds a copy
};

// Process-wide identity; set by the setters and the users-file read, read by everyone.
Held own, viewed, third;
std::string settledName;  // the own calendar's name as settled from the users file
bool settled;             // whether settledName is set

void hold(Held &h, int index) {
  h.index = index;
  const char *n = tableName(nullptr, index);
  h.hasName = n != nullptr;
  h.name = n ? n : "";
}

void drop(Held &h) {
  h.index = -1;
  h.name.clear();
  h.hasName = false;
}

void reresolve(Held &h) {
  if (!h.hasName) return;
  int i = lookupCalendar(nullptr, h.name.c_str());
  if (i >= 0) h.index = i;
}

}  // namespace

/* ---- Accessors ------------------------------------------------------------------- */

int ownCalendar() { return own.index; }
int viewedCalendar() { return viewed.index; }
int thirdCalendar() { return third.index; }
const char *ownCalendarName() { return own.hasName ? own.name.c_str() : nullptr; }
const char *viewedCalendarName() { return viewed.hasName ? viewed.name.c_str() : nullptr; }
const char *thirdCalendarName() { return third.hasName ? third.name.c_str() : nullptr; }
bool isOwnCalendar(int index) { return index == own.index; }
int calendarInView() { return viewed.index >= 0 ? viewed.index : own.index; }

/* ---- Setters ----------------------------------------------------------------------- */

void setOwnCalendar(int index) {
  if (index >= 0) hold(own, index);
}

void setViewedCalendar(int index) {
  if (index >= 0) hold(viewed, index);
}

void setThirdCalendar(int index) {
  if (index >= 0 && index != own.index && index != viewed.index)
    hold(third, index);
  else
    drop(third);
}

void reresolveCalendars() {
  reresolve(third);
  reresolve(viewed);
  reresolve(own);
}

const char *settledOwnName() { return settled ? settledName.c_str() : nullptr; }

void settleOwnName(const char *name) {
  if (settled || !name) return;
  settledName = name;
  settled = true;
}

void putOwnCalendar(int index, const char *name) {
  own.index = index;
  own.hasName = name != nullptr;
  own.name = name ? name : "";
}

/* ---- Titles ------------------------------------------------------------------------ */

int isActingFor(int index) {
  if (index != viewed.index) return 0;
  if (index != own.index) return 1;
  return mainDb() == viewingDb() && viewingDb() != actingDb() ? 1 : 0;
}

std::string calendarTitle(int index) {
  std::string name = userDisplayName(index);
  int acting = isActingFor(index);
  if (mainDb() == viewingDb() && acting == 0 && index == own.index) {
    bool otherInView = viewed.index >= 0 && own.index >= 0 && viewed.index != own.index;
    if (!otherInView) return name;
  }
  const char *prefix;
  if (acting == 1) {
    DbHandle *act = actingDb();
    prefix = act && act->kind == DB_KIND_PROXY ? catText(18, 4, "Proxy for ")
                                               : catText(18, 1, "Agent for ");
  } else {
    prefix = catText(18, 3, "Calendar for ");
  }
  return std::string(prefix) + name;
}

std::string plainCalendarTitle(int index) { return userDisplayName(index); }

/* ---- Tests ------------------------------------------------------------------------- */

void resetIdentity() {
  drop(own);
  drop(viewed);
  drop(third);
  settledName.clear();
  settled = false;
}

}  // namespace quorvel
