// identity.h -- whose calendar is whose: the own, viewed and third calendars, and the
// window title that says whose calendar is shown.
//
// Each of the three is an index into the current context's calendar-name table (-1 for
// none) with a copy of its name, so that the index can be found again after the table
// is rebuilt. The own calendar's name is settled once per process by the first read of
// the users file (the first line whose login is the real user's, or "Nobody").
// All of it is process-wide and unguarded; resetIdentity forgets it (tests).
#pragma once

#include <string>

namespace quorvel {

/* ---- Accessors ------------------------------------------------------------------- */

int ownCalendar();
int viewedCalendar();
int thirdCalendar();
const char *ownCalendarName();     // null when none
const char *viewedCalendarName();
const char *thirdCalendarName();
bool isOwnCalendar(int index);
// The viewed calendar when there is one (0 or more), else the own calendar.
int calendarInView();

/* ---- Setters ----------------------------------------------------------------------- */

// A negative index is ignored; otherwise the index is stored with a fresh copy of its
// name from the table.
void setOwnCalendar(int index);
void setViewedCalendar(int index);
// Stores index and its name when it is 0 or more and neither the own nor the viewed
// calendar; otherwise the third calendar becomes none.
void setThirdCalendar(int index);

// After the table has been rebuilt: looks the third, viewed and own names up again and
// keeps each new index that is 0 or more.
void reresolveCalendars();

/* ---- The own calendar as settled from the users file ---------------------------------- */

const char *settledOwnName();      // null until settled
void settleOwnName(const char *name);  // only the first call has an effect
// Stores index and the name copy as they are (used by the users-file read; -1 and null
// clear them).
void putOwnCalendar(int index, const char *name);

/* ---- Titles ------------------------------------------------------------------------ */

// 1 when index is the viewed calendar and either not the own one, or the own one while
// the main context is the viewing one and the acting context is another; else 0.
int isActingFor(int index);

// "Calendar for ", "Agent for " or "Proxy for " followed by the display name, or the
// display name alone for one's own calendar seen as oneself.
std::string calendarTitle(int index);
std::string plainCalendarTitle(int index);

/* ---- Tests ------------------------------------------------------------------------- */

void resetIdentity();

}  // namespace quorvel
