// calendar_page.cpp -- the calendar mode's layout: dates, links between views, the page
// (style sheet from the class looks, navigation, the grid of days) and the SVG overview.
//
// Divisions: dates and names; links; items and their budget; the page; the overview.
#include "testing/calendar_page.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "core/date/names.h"

namespace quorvel::webagent {

/* ==== Dates and names ============================================================== */

CivilDate civilDate(int year, int month, int day) {
  // timegm works in UTC, so no daylight-saving change can move the day.
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = 12;
  time_t t = timegm(&tm);
  gmtime_r(&t, &tm);
  return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_wday};
}

int daysInMonth(int year, int month) { return civilDate(year, month + 1, 0).day; }

// Days since 1970-01-01.
static long dayNumber(int year, int month, int day) {
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = 12;
  return long(timegm(&tm) / 86400);
}

std::string fileNamePart(const std::string &name) {
  std::string out;
  for (unsigned char c : name.substr(0, 40))
    out += isalnum(c) || c == '_' || c == '-' ? static_cast<char>(c) : '_';
  return out;
}

static std::string dateText(int year, int month, int day, bool withDay) {
  char text[16];
  if (withDay) snprintf(text, sizeof text, "%04d-%02d-%02d", year % 10000, month % 100, day % 100);
  else snprintf(text, sizeof text, "%04d-%02d", year % 10000, month % 100);
  return text;
}

/* ==== Links ======================================================================== */

// A link to another view of the same calendar, as an escaped href value: the query's
// other fields first (the gateway's dn and the rest), then ours.
static std::string viewHref(const CalendarQuery &q, const char *view, const CivilDate &d) {
  std::string href = "?";
  for (const std::string &field : q.kept) href += field + "&";
  href += std::string("view=") + view + "&user=" + percentEncode(q.user);
  if (q.viewer != q.user) href += "&as=" + percentEncode(q.viewer);
  href += "&date=" + dateText(d.year, d.month, d.day, std::string(view) != "month");
  return htmlEscape(href);
}

static bool inRange(const CivilDate &d) {
  return d.year >= CALVIEW_FIRST_YEAR && d.year <= CALVIEW_LAST_YEAR;
}

static const char *periodWord(CalendarPeriod p) {
  return p == CalendarPeriod::Day ? "day" : p == CalendarPeriod::Week ? "week" : "month";
}

// Earlier and later periods, and the three views of the shown date.
static std::string navigation(const CalendarQuery &q) {
  const char *view = periodWord(q.period);
  CivilDate back, ahead;
  if (q.period == CalendarPeriod::Month) {
    back = civilDate(q.year, q.month - 1, 1), ahead = civilDate(q.year, q.month + 1, 1);
  } else {
    int step = q.period == CalendarPeriod::Week ? 7 : 1;
    back = civilDate(q.year, q.month, q.day - step), ahead = civilDate(q.year, q.month, q.day + step);
  }
  std::string nav = "<nav>";
  if (inRange(back)) nav += "<a href=\"" + viewHref(q, view, back) + "\">&larr; earlier</a> ";
  CivilDate shown = civilDate(q.year, q.month, q.day);
  for (const char *other : {"day", "week", "month"})
    nav += std::string("<a href=\"") + viewHref(q, other, shown) + "\">" + other + "</a> ";
  if (inRange(ahead)) nav += "<a href=\"" + viewHref(q, view, ahead) + "\">later &rarr;</a>";
  return nav + "</nav>\n";
}

/* ==== Items and their budget ======================================================= */

static std::string itemHtml(const ListedItem &item) {
  const char *kind = item.kind == 't' ? "todo" : item.kind == 'r' ? "reminder" : "event";
  std::string html = std::string("<li class=\"") + kind + (item.hidden ? " private" : "") + "\">";
  if (item.kind == 'e') html += "<i>" + htmlEscape(item.times) + "</i> ";
  else if (item.kind == 't') html += item.done ? "<i>done</i> " : "<i>to do</i> ";
  else html += "<i>reminder</i> ";
  return html + htmlEscape(item.text) + "</li>\n";
}

// The "more" line of a day that lists only some of its items; its length is bounded
// by MORE_LINE_MAX whatever the link holds.
static const size_t MORE_LINE_MAX = 160;

// The largest number of items per day whose lines, with a "more" line where a day is
// cut, fit into room bytes.
static size_t itemsPerDay(const std::vector<std::vector<std::string>> &lines, size_t room) {
  auto cost = [&](size_t cap) {
    size_t bytes = 0;
    for (const auto &day : lines) {
      for (size_t i = 0; i < day.size() && i < cap; i++) bytes += day[i].size();
      if (day.size() > cap) bytes += MORE_LINE_MAX;
    }
    return bytes;
  };
  size_t most = 0;
  for (const auto &day : lines) most = std::max(most, day.size());
  if (cost(most) <= room) return most;
  size_t lo = 0, hi = most;  // cost(lo) is taken as fitting: the frame keeps room for it
  while (lo + 1 < hi) {
    size_t mid = (lo + hi) / 2;
    (cost(mid) <= room ? lo : hi) = mid;
  }
  return lo;
}

/* ==== The page ===================================================================== */

static const char BASE_STYLE[] =
    "body{font-family:sans-serif;margin:16px;background:#f6f7f9;color:#222}\n"
    "h1{font-size:20px;margin:0 0 4px}.sub{color:#555;margin:0 0 8px}nav a{margin-right:10px}\n"
    ".top{display:flex;gap:16px;align-items:flex-start;margin:8px 0}\n"
    "table.cal{border-collapse:collapse;width:100%;table-layout:fixed;background:#fff}\n"
    ".cal th{background:#2a5d9f;color:#fff;font-weight:normal;padding:4px}\n"
    ".cal td{border:1px solid #ccd;vertical-align:top;height:84px;padding:2px 4px;font-size:12px}\n"
    ".cal td.pad{background:#eceef2}.num{font-weight:bold}.num a{color:inherit}\n"
    "td.holiday{background:#fdecec}.holname{font-style:italic}\n"
    "ul{list-style:none;margin:0;padding:0}li{overflow:hidden;text-overflow:ellipsis}\n"
    "li i{font-style:normal;opacity:.7}.more{color:#666}.private{opacity:.6}\n"
    ".legend li{display:inline-block;margin-right:12px}\n";

static std::string styleSheet(const std::vector<ClassLook> &looks) {
  std::string css = BASE_STYLE;
  for (const ClassLook &look : looks) {
    std::string rule;
    if (!look.color.empty()) rule += "color:" + look.color + ";";
    if (!look.family.empty()) rule += "font-family:" + look.family + ",sans-serif;";
    if (!look.pointSize.empty()) rule += "font-size:" + look.pointSize + "pt;";
    // A holiday's look is its name's in the cells (the cell keeps its shading).
    std::string selector = look.name == "holiday" ? ".holname,.legend .holiday" : "." + look.name;
    if (!rule.empty()) css += selector + "{" + rule + "}\n";
  }
  return css;
}

static std::string legend(const std::vector<ClassLook> &looks) {
  std::string html = "<ul class=\"legend\">";
  for (const ClassLook &look : looks)
    html += "<li class=\"" + look.name + "\">" + htmlEscape(look.purpose.empty() ? look.name : look.purpose) + "</li>";
  return html + "</ul>\n";
}

static std::string dayCell(const CalendarQuery &q, const ViewDay &day, const std::vector<std::string> &lines,
                           size_t cap) {
  CivilDate d{day.year, day.month, day.day, day.weekday};
  std::string html = day.holiday.empty() ? "<td>" : "<td class=\"holiday\">";
  html += "<div class=\"num\"><a href=\"" + viewHref(q, "day", d) + "\">" + std::to_string(day.day) + "</a></div>\n";
  if (!day.holiday.empty())
    html += "<div class=\"holname\">" + htmlEscape(day.holiday) + (day.workday ? " (workday)" : "") + "</div>\n";
  html += "<ul>\n";
  for (size_t i = 0; i < lines.size() && i < cap; i++) html += lines[i];
  if (lines.size() > cap)
    html += "<li class=\"more\"><a href=\"" + viewHref(q, "day", d) + "\">" + std::to_string(lines.size() - cap) +
            " more</a></li>\n";
  return html + "</ul></td>\n";
}

// The grid: a week per row for a month (blank cells before the first day and after
// the last), one row of seven for a week, one cell for a day.
static std::string grid(const ViewPage &page, const std::vector<std::vector<std::string>> &lines, size_t cap) {
  const CalendarQuery &q = *page.query;
  std::string html = "<table class=\"cal " + std::string(periodWord(q.period)) + "\">\n<tr>";
  size_t columns = q.period == CalendarPeriod::Day ? 1 : 7;
  for (size_t c = 0; c < columns && c < page.days.size(); c++)
    html += "<th>" + htmlEscape(DayName(page.days[c].weekday)) + "</th>";
  html += "</tr>\n<tr>";
  size_t lead = q.period == CalendarPeriod::Month && !page.days.empty() ? size_t(page.days[0].weekday) : 0;
  for (size_t i = 0; i < lead; i++) html += "<td class=\"pad\"></td>";
  for (size_t i = 0; i < page.days.size(); i++) {
    if (i > 0 && (lead + i) % columns == 0) html += "</tr>\n<tr>";
    html += dayCell(q, page.days[i], lines[i], cap);
  }
  for (size_t i = (lead + page.days.size()) % columns; i != 0 && i < columns; i++) html += "<td class=\"pad\"></td>";
  return html + "</tr>\n</table>\n";
}

std::string calendarPage(const ViewPage &page, size_t budget) {
  const CalendarQuery &q = *page.query;
  std::string head = "Content-type: text/html\n\n<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n"
                     "<meta charset=\"utf-8\">\n<title>" + htmlEscape(page.ownerTitle + ": " + page.heading) +
                     "</title>\n<style>\n" + styleSheet(page.looks) + "</style>\n</head>\n<body>\n" +
                     "<h1>Calendar of " + htmlEscape(page.ownerTitle) + "</h1>\n<p class=\"sub\">" +
                     htmlEscape(page.heading) + " &middot; read as " + htmlEscape(page.viewerTitle) + "</p>\n" +
                     navigation(q) + "<div class=\"top\"><img src=\"/" + htmlEscape(page.picture) +
                     "\" width=\"238\" height=\"214\" alt=\"Overview of " + htmlEscape(page.monthName) + "\">" +
                     legend(page.looks) + "</div>\n";
  const std::string tail = "</body>\n</html>\n";
  std::vector<std::vector<std::string>> lines;
  for (const ViewDay &day : page.days) {
    lines.emplace_back();
    for (const ListedItem &item : day.items) lines.back().push_back(itemHtml(item));
  }
  std::string frame = grid(page, std::vector<std::vector<std::string>>(page.days.size()), 0);
  size_t fixed = head.size() + tail.size() + frame.size() + page.days.size() * MORE_LINE_MAX;
  size_t cap = itemsPerDay(lines, budget > fixed ? budget - fixed : 0);
  return head + grid(page, lines, cap) + tail;
}

/* ==== The overview ================================================================= */

std::string monthOverview(const std::string &title, const std::vector<ViewDay> &monthDays,
                          const CalendarQuery &shown) {
  size_t most = 1;
  for (const ViewDay &d : monthDays) most = std::max(most, d.items.size());
  std::string svg =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"238\" "
      "height=\"214\" viewBox=\"0 0 238 214\" font-family=\"sans-serif\">\n<rect x=\"1\" y=\"1\" width=\"236\" "
      "height=\"212\" rx=\"6\" fill=\"#fff\" stroke=\"#2a5d9f\" stroke-width=\"2\"/>\n<text x=\"119\" y=\"19\" "
      "font-size=\"13\" text-anchor=\"middle\" fill=\"#2a5d9f\">" + htmlEscape(title) + "</text>\n";
  for (int c = 0; c < 7; c++)
    svg += "<text x=\"" + std::to_string(23 + 32 * c) + "\" y=\"35\" font-size=\"9\" text-anchor=\"middle\" "
           "fill=\"#555\">" + htmlEscape(ShortDayName(c)) + "</text>\n";
  // The shown day or week is outlined (a week starts on the Sunday before the date).
  CivilDate from = civilDate(shown.year, shown.month, shown.day);
  int span = shown.period == CalendarPeriod::Week ? 7 : 1;
  long first = dayNumber(from.year, from.month, from.day) - (span == 7 ? from.weekday : 0);
  int lead = monthDays.empty() ? 0 : monthDays[0].weekday;
  for (size_t i = 0; i < monthDays.size(); i++) {
    const ViewDay &d = monthDays[i];
    int cell = lead + int(i), x = 8 + 32 * (cell % 7), y = 40 + 28 * (cell / 7);
    long n = dayNumber(d.year, d.month, d.day);
    bool marked = shown.period != CalendarPeriod::Month && n >= first && n < first + span;
    svg += "<g><title>" + htmlEscape(std::to_string(d.day) + (d.holiday.empty() ? "" : ": " + d.holiday) + ", " +
                                     std::to_string(d.items.size()) + (d.items.size() == 1 ? " item" : " items")) + "</title>";
    svg += "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" width=\"30\" height=\"26\" fill=\"" +
           (d.holiday.empty() ? "#f1f4f9" : "#f8caca") + "\"" + (marked ? " stroke=\"#d07a00\" stroke-width=\"2\"" : "") + "/>";
    svg += "<text x=\"" + std::to_string(x + 3) + "\" y=\"" + std::to_string(y + 11) + "\" font-size=\"9\" fill=\"#222\">" +
           std::to_string(d.day) + "</text>";
    size_t bar = d.items.empty() ? 0 : 2 + d.items.size() * 24 / most;
    if (bar > 0)
      svg += "<rect x=\"" + std::to_string(x + 3) + "\" y=\"" + std::to_string(y + 18) + "\" width=\"" +
             std::to_string(bar) + "\" height=\"4\" fill=\"#2a5d9f\"/>";
    svg += "</g>\n";
  }
  return svg + "</svg>\n";
}

}  // namespace quorvel::webagent
