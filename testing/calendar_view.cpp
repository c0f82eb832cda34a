// calendar_view.cpp -- the calendar mode's reading side: the database opened through the
// core, the listing text cut into days, holidays and class looks joined to them, and the
// reply of a request.
//
// Divisions: state; the listing text; the database; one request.
#include "testing/calendar_view.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/date/holiday.h"
#include "core/date/names.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"
#include "core/print/classdef.h"
#include "core/print/listing.h"
#include "testing/calendar_page.h"

namespace quorvel::webagent {

/* ==== State ======================================================================== */

// The open database (set by openDatabase, freed by resetCalendarView) and what was read
// from its holiday and class files, each with the file's time when read.
static std::string openRoot;                 // "" while none is open
static DbHandle *database = nullptr;         // the main and current context
static Holiday **holidays = nullptr;         // the database's holiday file
static int holidayCount = 0;
static int32_t holidayTime = NO_TIME;
static ClassList classes;                    // the database's reference classes
static int32_t classTime = NO_TIME;

/* ==== The listing text ============================================================= */

// "MM/DD (<day name>):" at the start of line: the month and day, and where the rest
// begins; false for any other line.
static bool dayLabel(const std::string &line, int *month, int *day, size_t *rest) {
  if (line.size() < 8 || line[2] != '/' || line[5] != ' ' || line[6] != '(') return false;
  for (int i : {0, 1, 3, 4})
    if (line[i] < '0' || line[i] > '9') return false;
  size_t close = line.find("):", 7);
  if (close == std::string::npos) return false;
  *month = (line[0] - '0') * 10 + (line[1] - '0');
  *day = (line[3] - '0') * 10 + (line[4] - '0');
  *rest = close + 2;
  return true;
}

// One item line after its label or leading tab: "\t<times>\t<text>" for an event,
// "\t<text>" for the others.
static ListedItem itemOf(char kind, const std::string &rest) {
  static const std::string privateText = catText(3, 1, "(private)"), doneText = catText(3, 2, " (done)");
  ListedItem item{kind, "", rest.substr(rest.empty() || rest[0] != '\t' ? 0 : 1), false, false};
  if (kind == 'e') {
    size_t tab = item.text.find('\t');
    std::string times = item.text.substr(0, tab);
    item.text = tab == std::string::npos ? "" : item.text.substr(tab + 1);
    size_t from = times.find_first_not_of(' '), to = times.find_last_not_of(' ');
    item.times = from == std::string::npos ? "" : times.substr(from, to - from + 1);
  }
  if (kind == 't' && item.text.size() > doneText.size() && item.text.ends_with(doneText))
    item.done = true, item.text.resize(item.text.size() - doneText.size());
  item.hidden = item.text == privateText;
  return item;
}

ParsedListing parseListing(const std::string &text) {
  ParsedListing parsed;
  char section = 'e';
  bool afterBlank = true;  // a period's heading follows an empty line; items never do
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at), rest;
    at = end + 1;
    bool headingPlace = std::exchange(afterBlank, line.empty());
    int month, day;
    size_t after;
    if (headingPlace && line.starts_with("\t\t#")) {
      if (parsed.heading.empty()) parsed.heading = line.substr(3);
      continue;
    }
    if (dayLabel(line, &month, &day, &after)) {
      parsed.days.push_back({month, day, {}});
      section = 'e';
      rest = line.substr(after);
      if (rest.empty()) continue;  // a day that opens with its to-dos or reminders
    } else if (parsed.days.empty()) {
      continue;  // nothing of a day before its label
    } else if (line.starts_with("ToDos:\t")) {
      section = 't', rest = line.substr(7);
    } else if (line.starts_with("Reminders:")) {
      section = 'r', rest = line.substr(10);
    } else if (line.starts_with("\t")) {
      rest = line.substr(1);
    } else {
      continue;  // an empty line between periods
    }
    parsed.days.back().items.push_back(itemOf(section, rest));
  }
  return parsed;
}

/* ==== The database ================================================================= */

// The record files of a calendar, read through the core. A calendar without a file has
// no items: the listing's own loader would list the viewer's calendar instead, which
// would show one user's items under another's name.
static int loadListedDay(int calendar, int32_t dayStart, int32_t dayEnd, Item *list) {
  loadDayFromRecordFile(calendar, dayStart, dayEnd, list);
  return 0;
}

static std::string rootPath(const char *rel) {
  char path[DB_PATH_MAX];
  return resolveDbPath(path, rel);
}

// Points the core at root and opens its database (the main and current context).
static void openDatabase(const std::string &root) {
  resetCalendarView();
  setenv("QUORVELPATH", root.c_str(), 1);
  resetBase();  // the installation root is read again from the environment
  database = openDefaultDb();
  database->dir = root + "/db/database";  // by full path, so that its stamp is found
  setDayItemsLoader(loadListedDay);
  openRoot = root;
}

// Reads the holiday and class files again when their times changed.
static void refreshSideFiles() {
  char path[DB_PATH_MAX];
  std::string holidayPath = SystemHolidayPath(path);
  if (int32_t t = fileModTime(holidayPath.c_str(), nullptr); t != holidayTime) {
    FreeHolidays(holidays, holidayCount);
    holidays = nullptr, holidayCount = 0;
    ReadHolidayFile(holidayPath.c_str(), &holidays, &holidayCount);
    holidayTime = t;
  }
  std::string classPath = rootPath(dbPathSetting(DBP_CLASS_DEFS));
  if (int32_t t = fileModTime(classPath.c_str(), nullptr); t != classTime) {
    freeClassList(&classes);
    readClassFile(classPath.c_str(), &classes);
    classTime = t;
  }
}

// The users file and the permission records, read again for every request (the users
// file only when its time changed).
static int refreshDatabase(const std::string &root, std::string *problem) {
  if (root != openRoot || database == nullptr) openDatabase(root);
  std::string users = usersFilePath(database);
  if (fileModTime(users.c_str(), nullptr) == NO_TIME)
    return *problem = "The calendar database has no users file.", CALVIEW_NO_DATABASE;
  int changed = 0;
  readUsersFile(database, &changed);
  if (calendarTableSize(database) == 0)
    return *problem = "The calendar database names no calendars.", CALVIEW_NO_DATABASE;
  readDatPerms(database);
  refreshSideFiles();
  return 0;
}

void resetCalendarView() {
  FreeHolidays(holidays, holidayCount);
  holidays = nullptr, holidayCount = 0, holidayTime = NO_TIME;
  freeClassList(&classes);
  classTime = NO_TIME;
  if (database != nullptr) {
    freeDatEntries(database);
    releaseUsers(database);
  }
  database = nullptr;
  openRoot.clear();
  resetDbContexts();
  resetListing(), resetPerms(), resetIdentity(), resetUsers();
}

/* ==== One request ================================================================== */

// The holiday covering a day (local noon lies in its period), or null.
static const Holiday *holidayOn(int year, int month, int day) {
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = 12, tm.tm_isdst = -1;
  int32_t noon = int32_t(mktime(&tm));
  for (int i = 0; i < holidayCount; i++)
    if (holidays[i]->period.start.time <= noon && noon <= holidays[i]->period.end.time) return holidays[i];
  return nullptr;
}

// The listing of count days from the given day, as days of the view; its heading into
// *heading when asked.
static std::vector<ViewDay> listedDays(int calendar, const CivilDate &from, unsigned period, int count,
                                       std::string *heading) {
  char *text = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&text, &len);
  if (out == nullptr) return {};
  WriteListing(out, calendar, from.year - 1900, from.month - 1, from.day - 1, 0, period,
               LIST_EVENTS | LIST_TODOS | LIST_REMINDERS, 1);
  fclose(out);
  ParsedListing parsed = parseListing(std::string(text, len));
  free(text);
  if (heading != nullptr) *heading = parsed.heading;
  std::vector<ViewDay> days;
  for (int i = 0; i < count; i++) {
    CivilDate d = civilDate(from.year, from.month, from.day + i);
    const Holiday *h = holidayOn(d.year, d.month, d.day);
    days.push_back({d.year, d.month, d.day, d.weekday, h ? h->name : "", h && h->workday, {}});
    for (ListedDay &listed : parsed.days)
      if (listed.month == d.month && listed.day == d.day) days.back().items = std::move(listed.items);
  }
  return days;
}

// The looks of the page's classes from the reference classes, made safe for a style
// sheet: a colour of letters, digits and "#"; a family of letters, digits, blanks and
// "-"; a size of digits.
static std::vector<ClassLook> classLooks() {
  auto keep = [](const char *value, const char *extra, size_t most) {
    std::string out;
    for (const char *p = value ? value : ""; *p != '\0' && out.size() < most; p++)
      if (isalnum(static_cast<unsigned char>(*p)) || strchr(extra, *p) != nullptr) out += *p;
    return out;
  };
  std::vector<ClassLook> looks;
  for (const char *name : {"event", "todo", "reminder", "holiday", "private"}) {
    int i = findClassDef(classes, name);
    if (i < 0) continue;
    const ClassDef *def = classes.defs[i];
    looks.push_back({name, keep(def->color, "#", 24), keep(def->family, " -", 40), keep(def->pointSize, "", 2),
                     def->purpose ? def->purpose : ""});
  }
  return looks;
}

static std::vector<std::string> calendarNames() {
  std::vector<std::string> names;
  for (int i = 0; database != nullptr && i < calendarTableSize(database); i++)
    if (const char *name = tableName(database, i); name != nullptr && *name != '\0') names.push_back(name);
  return names;
}

// Bytes one pair takes in a reply message: entry head, name and contents each with
// their NUL, padded to four.
static size_t pairBytes(size_t name, size_t contents) {
  return 8 + (name + 4) / 4 * 4 + (contents + 4) / 4 * 4;
}

// The picture and the page of a valid request for calendar user read as viewer.
static std::vector<AgentPair> viewReply(const CalendarQuery &q, int user, int viewer) {
  setOwnCalendar(viewer);  // the listing reads every item with the own calendar's rights
  CivilDate shown = civilDate(q.year, q.month, q.day), first = civilDate(q.year, q.month, 1);
  int monthDays = daysInMonth(q.year, q.month);
  ViewPage page{&q, userDisplayName(user), userDisplayName(viewer), "", {}, classLooks(), "", ""};
  page.monthName = std::string(MonthName(q.month - 1)) + " " + std::to_string(q.year);
  page.picture = "tmp/overview-" + fileNamePart(q.user) + "-" + std::to_string(q.year) + "-" +
                 (q.month < 10 ? "0" : "") + std::to_string(q.month) + ".svg";
  if (q.period == CalendarPeriod::Month) {
    page.days = listedDays(user, first, LIST_MONTH, monthDays, &page.heading);
  } else if (q.period == CalendarPeriod::Week) {
    CivilDate sunday = civilDate(shown.year, shown.month, shown.day - shown.weekday);
    page.days = listedDays(user, sunday, LIST_WEEK, 7, &page.heading);
  } else {
    page.days = listedDays(user, shown, LIST_DAY, 1, &page.heading);
  }
  std::vector<ViewDay> month = q.period == CalendarPeriod::Month ? page.days
                                                                 : listedDays(user, first, LIST_MONTH, monthDays, nullptr);
  std::string svg = monthOverview(page.monthName, month, q);
  size_t fixed = 12 + pairBytes(page.picture.size(), svg.size()) + pairBytes(0, 0);
  return {{page.picture, svg}, {"", calendarPage(page, CALVIEW_REPLY_MAX - fixed - 4)}};
}

std::string calendarErrorPage(int code, const std::string &problem, const std::vector<std::string> &calendars) {
  const char *status = code == CALVIEW_UNKNOWN_USER ? "404 Not Found"
                       : code == CALVIEW_NO_DATABASE ? "503 Service Unavailable"
                                                     : "400 Bad Request";
  std::string known;
  for (const std::string &name : calendars) known += (known.empty() ? "" : ", ") + htmlEscape(name);
  return std::string("Status: ") + status + "\nContent-type: text/html\n\n<!DOCTYPE html>\n<html lang=\"en\">\n"
         "<head>\n<meta charset=\"utf-8\">\n<title>Quorvel calendar: request refused</title>\n</head>\n"
         "<body style=\"font-family:sans-serif;margin:16px\">\n<h1>The calendar cannot be shown</h1>\n"
         "<p class=\"problem\"><b>" + htmlEscape(problem) + "</b></p>\n"
         "<p>Ask for a view with view=day, week or month, user=NAME and date=YYYY-MM-DD (or YYYY-MM "
         "for a month), and as=NAME to read it with another calendar's rights.</p>\n" +
         (known.empty() ? "" : "<p>Calendars of this database: " + known + "</p>\n") + "</body>\n</html>\n";
}

std::vector<AgentPair> calendarReply(const std::string &root, const std::string &query) {
  std::string problem;
  try {
    time_t now = currentTime();
    struct tm today;
    localtime_r(&now, &today);
    CalendarQuery q;
    int rc = parseCalendarQuery(query, today.tm_year + 1900, today.tm_mon + 1, today.tm_mday, &q, &problem);
    if (rc == 0) rc = refreshDatabase(root, &problem);
    int user = rc == 0 ? lookupCalendar(database, q.user.c_str()) : -1;
    int viewer = rc == 0 ? lookupCalendar(database, q.viewer.c_str()) : -1;
    if (rc == 0 && (user < 0 || viewer < 0)) {
      problem = "No calendar is called \"" + (user < 0 ? q.user : q.viewer) + "\".";
      rc = CALVIEW_UNKNOWN_USER;
    }
    if (rc != 0) return {{"", calendarErrorPage(rc, problem, calendarNames())}};
    return viewReply(q, user, viewer);
  } catch (const std::exception &e) {  // memory for a huge page: refuse this request only
    return {{"", calendarErrorPage(CALVIEW_NO_DATABASE, std::string("The view could not be made: ") + e.what(), {})}};
  }
}

}  // namespace quorvel::webagent
