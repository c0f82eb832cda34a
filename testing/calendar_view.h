// calendar_view.h -- the sample agent's calendar mode: day, week and month views of a
// user's calendar as HTML pages, read from a calendar database on disk through the core
// (users file, record files, permission records, holidays, class definitions, listings).
//
// The database is an installation root: "<root>/db/users", "<root>/db/database/" with
// "dat.perm", "holidays", "refclassdef" and "events/<calendar>" record files. The
// process's installation root (QUORVELPATH) is pointed at it while views are served.
//
// The query (fields joined by "&", values percent-decoded, "+" a blank; other keys, such
// as the gateway's dn, lan and rpt, are ignored and kept in the page's links):
//   view=day|week|month    which view (default month)
//   user=NAME              the calendar shown (required)
//   date=YYYY-MM-DD        the day shown, the week (Sunday to Saturday) holding it, or
//   date=YYYY-MM           its month; a month alone means its first day (default: today)
//   as=NAME                whose rights the view is read with (default: the user): the
//                          titles of items that calendar may not read show as
//                          "(private)", its unreadable to-dos and reminders are left out
// Years run from 1970 to 2037 (the calendar's 32-bit times).
//
// The reply: the picture "tmp/overview-<user>-<yyyy>-<mm>.svg" (the month holding the
// date: a grid of its days, holidays shaded, a bar per day for the items listed) and the
// page, which shows the listing's heading, the days with their holidays and items, the
// class looks as its style sheet and links to the neighbouring periods. The items of each
// day are the lines of WriteListing for the period, HTML-escaped. A page that would not
// fit the gateway's 1 MiB reply lists fewer items per day (every day the same number)
// and says how many more each day holds. A bad query gets an error page alone, with a
// "Status:" header (400 for a malformed or out-of-range query, 404 for an unknown
// calendar, 503 for a database that cannot be read), never a crash.
// Results: 0 success, the CALVIEW_* codes below for refusals.
#pragma once

#include <string>
#include <vector>

#include "testing/agent.h"

namespace quorvel::webagent {

inline constexpr int CALVIEW_MALFORMED = -1;     // a key's value cannot be read
inline constexpr int CALVIEW_RANGE = -2;         // a date outside the calendar's years
inline constexpr int CALVIEW_UNKNOWN_USER = -3;  // user or as names no calendar
inline constexpr int CALVIEW_NO_DATABASE = -4;   // the users file cannot be read

inline constexpr int CALVIEW_FIRST_YEAR = 1970;
inline constexpr int CALVIEW_LAST_YEAR = 2037;
// The gateway refuses a reply message longer than this.
inline constexpr size_t CALVIEW_REPLY_MAX = 0x100000;

enum class CalendarPeriod { Day, Week, Month };

struct CalendarQuery {
  CalendarPeriod period = CalendarPeriod::Month;
  std::string user;            // calendar shown
  std::string viewer;          // whose rights ("" before defaulting: the user)
  int year = 0;                // in full
  int month = 0;               // 1..12
  int day = 1;                 // 1..31
  std::vector<std::string> kept;  // the query's other fields, as they came
};

// One listed item of a day, as the listing wrote it.
struct ListedItem {
  char kind;           // 'e' event, 't' to-do, 'r' reminder
  std::string times;   // events: "09:30am-10:00am" (blanks trimmed); else ""
  std::string text;    // the title, or the listing's "(private)"
  bool hidden;         // the title was withheld from the viewer
  bool done;           // a to-do done that day (" (done)" cut from text)
};
struct ListedDay {
  int month;           // 1..12, from the listing's day label
  int day;             // 1..31
  std::vector<ListedItem> items;
};
// The listing text cut into its heading and days.
struct ParsedListing {
  std::string heading;         // "For November 2026" (the "#" and tabs cut)
  std::vector<ListedDay> days;
};

/* ---- Queries ----------------------------------------------------------------------- */

// Fills *out from query; on a refusal *problem says why in a sentence. today (year in
// full, month 1..12, day 1..31) is used when the query has no date.
int parseCalendarQuery(const std::string &query, int todayYear, int todayMonth, int todayDay,
                       CalendarQuery *out, std::string *problem);
std::string percentDecode(const std::string &text);
std::string percentEncode(const std::string &text);  // every byte but [A-Za-z0-9._-]
std::string htmlEscape(const std::string &text);     // & < > " '

/* ---- Listings ---------------------------------------------------------------------- */

// Cuts the text WriteListing wrote (without year lines) into days and items.
ParsedListing parseListing(const std::string &text);

/* ---- Serving ----------------------------------------------------------------------- */

// The reply pairs for query against the database at root: the picture and the page, or
// the error page alone. Opens the database on first use and again when root changes;
// files changed on disk are read again by the core's own checks.
std::vector<AgentPair> calendarReply(const std::string &root, const std::string &query);
// The error page: a "Status:" header for code, the sentence, and the known calendars.
std::string calendarErrorPage(int code, const std::string &problem,
                              const std::vector<std::string> &calendars);
// Frees the open database and forgets the core state the views set (tests).
void resetCalendarView();

}  // namespace quorvel::webagent
