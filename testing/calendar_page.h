// calendar_page.h -- the calendar mode's layout (internal to the sample agent): the page
// of a day, week or month from the days worked out by calendar_view.cpp, and the SVG
// overview of a month. Everything taken from the database is HTML-escaped here.
#pragma once

#include <string>
#include <vector>

#include "testing/calendar_view.h"

namespace quorvel::webagent {

// A day of the proleptic calendar: a day or month past its end carries into the next
// (civilDate(2026, 13, 0) is 2026-12-31); weekday 0 is Sunday.
struct CivilDate {
  int year, month, day, weekday;
};
CivilDate civilDate(int year, int month, int day);
int daysInMonth(int year, int month);

// One day of a view, with what the listing and the holiday file say about it.
struct ViewDay {
  int year;                       // in full
  int month;                      // 1..12
  int day;                        // 1..31
  int weekday;                    // 0 Sunday
  std::string holiday;            // the holiday's name, "" for none
  bool workday;                   // the holiday is a working day
  std::vector<ListedItem> items;  // in listing order
};

// The look of one class of the page, from the class definitions (values made safe for
// a style sheet; "" where the class sets nothing usable).
struct ClassLook {
  std::string name;       // event, todo, reminder, holiday or private
  std::string color;
  std::string family;
  std::string pointSize;
  std::string purpose;    // shown in the legend
};

struct ViewPage {
  const CalendarQuery *query;    // dumb pointer: the request
  std::string ownerTitle;        // display name of the calendar shown
  std::string viewerTitle;       // display name of whose rights apply
  std::string heading;           // the listing's heading
  std::vector<ViewDay> days;     // the period's days in order
  std::vector<ClassLook> looks;
  std::string picture;           // reply file name of the overview, "tmp/....svg"
  std::string monthName;         // of the overview's month (for its alternative text)
};

// The whole page with its response header, at most budget bytes: when the items do not
// fit, every day lists the same, largest number that does, and says how many more.
std::string calendarPage(const ViewPage &page, size_t budget);
// The month overview: a grid of the month's days (given in order), holidays shaded, a
// bar per day for its items, the shown period outlined.
std::string monthOverview(const std::string &title, const std::vector<ViewDay> &monthDays,
                          const CalendarQuery &shown);
// A calendar-name text safe inside a file name: [A-Za-z0-9_-] kept, others "_", at
// most 40 bytes.
std::string fileNamePart(const std::string &name);

}  // namespace quorvel::webagent
