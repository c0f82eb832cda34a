// listing.cpp -- day, week and month listings of a calendar as text: headings, year
// lines, item sections, times and popup notes; and ListCalendar, which picks the road.
//
// Divisions: state and helpers; dates and titles; the items of a day; item sections;
// periods.
#include "core/print/listing.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <utility>

#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/date/names.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/recordfile.h"
#include "core/items/item.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"
#include "core/print/listing_internal.h"

namespace quorvel {

/* ==== State and helpers ============================================================ */

// The client's switches and date (set by the client, read by every listing), and the
// seams (installed by the client or tests).
static ListingSwitches switches;
static bool dateSet = false;
static ListDate heldDate;
static DayItemsLoader dayLoader = nullptr;
static PopupBodyHook popupBody = nullptr;

void setListingSwitches(const ListingSwitches &s) { switches = s; }
const ListingSwitches &listingSwitches() { return switches; }
void setClientDate(int year, int month, int day) { heldDate = {year, month, day}, dateSet = true; }

void clientDate(int *year, int *month, int *day) {
  ListDate d = heldDate;
  if (!dateSet) {
    time_t now = currentTime();
    struct tm tm;
    localtime_r(&now, &tm);
    d = {tm.tm_year, tm.tm_mon, tm.tm_mday - 1};
  }
  *year = d.year, *month = d.month, *day = d.day;
}

DayItemsLoader setDayItemsLoader(DayItemsLoader loader) { return std::exchange(dayLoader, loader); }
PopupBodyHook setPopupBodyHook(PopupBodyHook hook) { return std::exchange(popupBody, hook); }

void resetListing() {
  switches = ListingSwitches{};
  dateSet = false;
  dayLoader = nullptr;
  popupBody = nullptr;
}

std::string catFormat(const char *fmt, std::initializer_list<FormatArg> args) {
  std::string out;
  auto next = args.begin();
  for (const char *p = fmt; *p != '\0'; p++) {
    if (p[0] != '%' || (p[1] != 's' && p[1] != 'd' && p[1] != '%')) {
      out += *p;
      continue;
    }
    p++;
    if (*p == '%') out += '%';
    else if (next != args.end()) out += next++->text;
  }
  return out;
}

static void put(FILE *out, const std::string &text) { fwrite(text.data(), 1, text.size(), out); }

/* ==== Dates and titles ============================================================= */

// Carries a day or month past its end into the next month and year; fills the bounds.
ListDate normaliseDate(ListDate d) {
  struct tm tm{};
  tm.tm_year = d.year, tm.tm_mon = d.month, tm.tm_mday = d.day + 1, tm.tm_isdst = -1;
  time_t start = mktime(&tm);
  d.year = tm.tm_year, d.month = tm.tm_mon, d.day = tm.tm_mday - 1, d.weekday = tm.tm_wday;
  d.start = int32_t(start);
  tm.tm_mday++, tm.tm_hour = 0, tm.tm_min = 0, tm.tm_sec = 0, tm.tm_isdst = -1;
  d.next = int32_t(mktime(&tm));
  return d;
}

std::string dateTitle(int year, int month, int day) {
  if (switches.dayFirst)
    return catFormat(catText(33, 3, "%d %s, %d"), {day + 1, MonthName(month), year + 1900});
  return catFormat(catText(33, 1, "%s %d, %d"), {MonthName(month), day + 1, year + 1900});
}

std::string stampTitle(int32_t when) {
  time_t t = when;
  struct tm tm;
  localtime_r(&t, &tm);
  char clock[32];
  if (switches.hours24)
    snprintf(clock, sizeof clock, "%02d:%02d", tm.tm_hour, tm.tm_min);
  else
    snprintf(clock, sizeof clock, "%02d:%02d %s", tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12, tm.tm_min,
             tm.tm_hour < 12 ? "am" : "pm");
  return dateTitle(tm.tm_year, tm.tm_mon, tm.tm_mday - 1) + " - " + clock;
}

/* ==== The items of a day =========================================================== */

bool itemOnDay(const Item *item, int32_t dayStart, int32_t dayEnd) {
  int32_t start = item->timeValue.start.time, end = item->timeValue.end.time;
  if (start == NO_TIME || start >= dayEnd) return false;
  if (item->dWord == KIND_TODO) return true;  // still due until done: todoDueOn decides
  if (end == NO_TIME || end < start) end = start;
  return end > dayStart || start >= dayStart;
}

int loadDayFromRecordFile(int calendar, int32_t dayStart, int32_t dayEnd, Item *list) {
  const char *name = tableName(nullptr, calendar);
  DbHandle *db = currentDb() != nullptr ? currentDb() : openDefaultDb();
  if (name == nullptr || *name == '\0' || strchr(name, '/') != nullptr) return -1;
  char events[DB_PATH_MAX], path[DB_PATH_MAX];
  resolveDbPath(path, eventsPath(events, db->dir.c_str()));
  std::string file = std::string(path) + "/" + name;
  if (fileModTime(file.c_str(), nullptr) == NO_TIME) return -1;
  RecordFile *rf = openRecordFile(db, file.c_str());
  if (rf == nullptr) return -1;  // no user state: the database dropped its files
  for (Item *item = rf->list.next; item != &rf->list; item = item->next)
    if (itemOnDay(item, dayStart, dayEnd)) evlistAppend(list, evcopy(item));
  return 0;
}

// The day's items of calendar, or of the own calendar when calendar has no list; sets
// *user to the calendar whose items they are.
static std::vector<Item *> loadDay(Item *list, int calendar, const ListDate &d, int *user) {
  DayItemsLoader load = dayLoader != nullptr ? dayLoader : loadDayFromRecordFile;
  *user = calendar;
  if (load(calendar, d.start, d.next, list) != 0 && ownCalendar() >= 0 && ownCalendar() != calendar) {
    evlistFree(list);
    *user = ownCalendar();
    if (load(*user, d.start, d.next, list) != 0) evlistFree(list);
  }
  std::vector<Item *> items;
  for (Item *item = list->next; item != list; item = item->next) items.push_back(item);
  std::stable_sort(items.begin(), items.end(), listingBefore);
  return items;
}

bool listingBefore(const Item *a, const Item *b) {
  if (a->timeValue.start.time != b->timeValue.start.time) return a->timeValue.start.time < b->timeValue.start.time;
  if (a->dWord != b->dWord) return a->dWord < b->dWord;
  int byText = strcmp(a->title != nullptr ? a->title : "", b->title != nullptr ? b->title : "");
  if (byText != 0) return byText < 0;
  return a->randomId < b->randomId;
}

// The time user marked the to-do done, or NO_TIME.
static int32_t doneTime(const Item *item, int user) {
  for (int i = 0; i < item->listCCount; i++)
    if (item->listC[i].user == user && item->listC[i].when.time != NO_TIME) return item->listC[i].when.time;
  return NO_TIME;
}

bool todoDoneOn(const Item *item, int user, int32_t dayStart, int32_t dayEnd) {
  int32_t done = doneTime(item, user);
  return done != NO_TIME && done >= dayStart && done < dayEnd;
}

bool todoDueOn(const Item *item, int user, int32_t dayStart, int32_t dayEnd) {
  int32_t start = item->timeValue.start.time, done = doneTime(item, user);
  if (start == NO_TIME || start >= dayEnd) return false;
  return start >= dayStart || done == NO_TIME || done >= dayStart;
}

/* ==== Item sections ================================================================ */

// One day being written: where, whose, which day, and the two first-line flags.
struct DayWriter {
  FILE *out;
  int user;          // the calendar whose items these are
  int viewer;        // who reads them: the own calendar
  ListDate date;
  bool withYear;
  bool detail;
  bool dayFirstLine;
  bool sectionFirstLine;
};

static std::string dayLabel(const DayWriter &w, bool withName) {
  char label[64];
  if (withName)
    snprintf(label, sizeof label, "%02d/%02d (%s):", w.date.month + 1, w.date.day + 1, DayName(w.date.weekday));
  else
    snprintf(label, sizeof label, "%02d/%02d\t", w.date.month + 1, w.date.day + 1);
  return label;
}

// "09:30" in the listing's form: a start ends in "-", hours 0 and 24 show as 12.
static std::string clockText(int hour, int minute, bool isStart) {
  char text[32];
  if (switches.hours24) {
    snprintf(text, sizeof text, isStart ? "\t %02d:%02d -" : " %02d:%02d ", hour, minute);
  } else if (hour <= 11 || hour == 24) {
    snprintf(text, sizeof text, isStart ? "\t%02d:%02dam-" : "%02d:%02dam", hour % 12 == 0 ? 12 : hour, minute);
  } else {
    snprintf(text, sizeof text, isStart ? "\t%02d:%02dpm-" : "%02d:%02dpm", hour > 12 ? hour - 12 : hour, minute);
  }
  return text;
}

static void localClock(int32_t when, int *hour, int *minute) {
  time_t t = when;
  struct tm tm;
  localtime_r(&t, &tm);
  *hour = tm.tm_hour, *minute = tm.tm_min;
}

static void writeEventTimes(DayWriter &w, const Item *item) {
  if (w.withYear || w.dayFirstLine) put(w.out, dayLabel(w, true)), w.dayFirstLine = false;
  else put(w.out, "\t");
  int hour = 24, minute = 0;
  if (item->timeValue.start.time >= w.date.start) localClock(item->timeValue.start.time, &hour, &minute);
  put(w.out, clockText(hour, minute, true));
  int32_t end = item->timeValue.end.time == NO_TIME ? item->timeValue.start.time : item->timeValue.end.time;
  hour = 0, minute = 0;
  if (end < w.date.next) localClock(end, &hour, &minute);
  put(w.out, clockText(hour, minute, false));
}

static void writeListHead(DayWriter &w, const char *word) {
  if (w.withYear) put(w.out, dayLabel(w, false));
  else if (w.dayFirstLine) put(w.out, dayLabel(w, true) + "\n"), w.dayFirstLine = false;
  if (w.withYear || w.sectionFirstLine) put(w.out, word), w.sectionFirstLine = false;
  else put(w.out, "\t");
}

static void writePopups(DayWriter &w, const Item *item) {
  for (const Item *one = item; one != nullptr; one = one->chain)
    for (int i = 0; i < one->popupCount; i++) {
      const Popup &note = one->popups[i];
      if (!setIsEmpty(note.setR) && !testbit(note.setR, w.viewer)) continue;
      const char *body = popupBody != nullptr ? popupBody(one, i) : nullptr;
      put(w.out, std::string("\n    Popup title: ") + (note.title ? note.title : "") + "\n");
      put(w.out, std::string("    Popup body: ") + (body ? body : "") + "\n:End of Body:\n");
    }
}

// Kinds: 1 events, 2 to-dos, 3 reminders, 4 to-dos done that day.
static void writeSection(DayWriter &w, const std::vector<Item *> &items, int kind) {
  w.sectionFirstLine = true;
  for (const Item *item : items) {
    bool readable = mayReadItem(nullptr, w.viewer, item) == 1;
    if (item->dWord != (kind == 4 ? KIND_TODO : kind) || (!readable && kind != 1) || testbit(item->setX, w.user))
      continue;
    bool done = item->dWord == KIND_TODO && todoDoneOn(item, w.user, w.date.start, w.date.next);
    if (kind == 2 || kind == 4) {
      if (!todoDueOn(item, w.user, w.date.start, w.date.next) || (kind == 4 && !done)) continue;
      writeListHead(w, "ToDos:\t");
    } else if (kind == 3) {
      writeListHead(w, "Reminders:");
    } else {
      writeEventTimes(w, item);
    }
    const char *text = item->title != nullptr ? item->title : "";
    put(w.out, std::string("\t") + (readable ? text : catText(3, 1, "(private)")));
    if (done) put(w.out, catText(3, 2, " (done)"));
    put(w.out, "\n");
    if (w.detail) writePopups(w, item);
  }
}

// The sections of one day, in the order events, to-dos (or done to-dos), reminders.
static void writeDaySections(FILE *out, int calendar, const ListDate &d, bool withYear, unsigned flags) {
  Item list;
  evlistInit(&list);
  DayWriter w{out, calendar, ownCalendar(), d, withYear, (flags & LIST_DETAIL) != 0, true, true};
  std::vector<Item *> items = loadDay(&list, calendar, d, &w.user);
  if (flags & LIST_EVENTS) writeSection(w, items, 1);
  if (flags & LIST_TODOS) writeSection(w, items, 2);
  else if (flags & LIST_DONE_TODOS) writeSection(w, items, 4);
  if (flags & LIST_REMINDERS) writeSection(w, items, 3);
  evlistFree(&list);
}

/* ==== Periods ====================================================================== */

static void writeHeading(FILE *out, const std::string &heading, const ListDate &d, bool withYear) {
  put(out, "\n\t\t" + heading + "\n\n");
  if (withYear) fprintf(out, "year %d\n\n", d.year + 1900);
}

static void writeDays(FILE *out, int calendar, ListDate d, int days, bool withYear, unsigned flags) {
  int lastYear = d.year;
  for (int i = 0; i < days; i++) {
    ListDate day = normaliseDate({d.year, d.month, d.day + i});
    if (withYear && day.year != lastYear) fprintf(out, "year %d\n\n", day.year + 1900);
    lastYear = day.year;
    writeDaySections(out, calendar, day, withYear, flags);
  }
}

static int daysInMonth(const ListDate &first) {
  int days = 28;
  while (normaliseDate({first.year, first.month, days}).month == first.month) days++;
  return days;
}

// One period from d (normalised).
static void writePeriod(FILE *out, int calendar, const ListDate &d, bool withYear, unsigned period,
                        unsigned flags) {
  if (period == LIST_DAY) {
    writeHeading(out, catFormat(catText(3, 3, "#For %s"), {dateTitle(d.year, d.month, d.day)}), d, withYear);
    writeDays(out, calendar, d, 1, withYear, flags);
  } else if (period == LIST_WEEK) {
    writeHeading(out, catFormat(catText(3, 4, "#For the week of %s"), {dateTitle(d.year, d.month, d.day)}), d,
                 withYear);
    writeDays(out, calendar, d, 7, withYear, flags);
  } else if (period == LIST_MONTH) {
    writeHeading(out, catFormat(catText(3, 5, "#For %s %d"), {MonthName(d.month), d.year + 1900}), d, withYear);
    ListDate first = normaliseDate({d.year, d.month, 0});
    writeDays(out, calendar, first, daysInMonth(first), withYear, flags);
  }
}

ListDate advanceDate(ListDate d, unsigned period) {
  if (period == LIST_MONTH) d.month++;
  else d.day += period == LIST_WEEK ? 7 : 1;
  return normaliseDate(d);
}

void WriteListing(FILE *out, int calendar, int year, int month, int day, int withYear, unsigned period,
                  unsigned flags, int count) {
  if (flags == 0) flags = period == LIST_DAY ? LIST_EVENTS | LIST_TODOS | LIST_REMINDERS : LIST_EVENTS;
  ListDate d = normaliseDate({year, month, day});
  for (int i = 0; i < count; i++, d = advanceDate(d, period))
    writePeriod(out, calendar, d, withYear != 0, period, flags);
  fflush(out);
}

void ListCalendar(int calendar, unsigned request, int count) {
  int year, month, day;
  clientDate(&year, &month, &day);
  if (count < 1) count = 1;
  if (request & LIST_PRINT) PrintCalendar(calendar, year, month, day, request & 0xff00, request & 0xff, count);
  else WriteListing(stdout, calendar, year, month, day, 0, request & 0xff00, request & 0xff, count);
}

}  // namespace quorvel
