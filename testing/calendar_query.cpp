// calendar_query.cpp -- the calendar mode's query: fields, percent coding, dates and
// their range; and HTML escaping of everything the pages show.
#include <cctype>
#include <cstdio>
#include <ctime>

#include "testing/calendar_page.h"
#include "testing/calendar_view.h"

namespace quorvel::webagent {

static int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string percentDecode(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    int hi = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    int lo = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
    if (text[i] == '%' && hi >= 0 && lo >= 0) {
      out += static_cast<char>(hi * 16 + lo);
      i += 2;
    } else {
      out += text[i] == '+' ? ' ' : text[i];  // a "%" without two hex digits stays
    }
  }
  return out;
}

std::string percentEncode(const std::string &text) {
  std::string out;
  for (unsigned char c : text) {
    if (isalnum(c) || c == '.' || c == '_' || c == '-') {
      out += static_cast<char>(c);
    } else {
      char hex[4];
      snprintf(hex, sizeof hex, "%%%02X", c);
      out += hex;
    }
  }
  return out;
}

std::string htmlEscape(const std::string &text) {
  // Runs without a special character are copied whole: most titles have none.
  std::string out;
  out.reserve(text.size() + 16);
  size_t from = 0;
  for (size_t at = text.find_first_of("&<>\"'"); at != std::string::npos;
       from = at + 1, at = text.find_first_of("&<>\"'", from)) {
    out.append(text, from, at - from);
    switch (text[at]) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += "&#39;";
    }
  }
  return out.append(text, from, std::string::npos);
}

// Reads exactly `digits` decimal digits at text[*at]; -1 when they are not there.
static int readNumber(const std::string &text, size_t *at, size_t digits) {
  if (text.size() < *at + digits) return -1;
  int value = 0;
  for (size_t i = 0; i < digits; i++) {
    char c = text[*at + i];
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  *at += digits;
  return value;
}

// "YYYY-MM" or "YYYY-MM-DD" into q.
static int parseDate(const std::string &text, CalendarQuery *q, std::string *problem) {
  size_t at = 0;
  int year = readNumber(text, &at, 4), month = -1, day = 1;
  if (year >= 0 && at < text.size() && text[at] == '-') at++, month = readNumber(text, &at, 2);
  if (month >= 0 && at < text.size() && text[at] == '-') at++, day = readNumber(text, &at, 2);
  if (year < 0 || month < 0 || day < 0 || at != text.size())
    return *problem = "The date \"" + text + "\" is not of the form YYYY-MM-DD or YYYY-MM.",
           CALVIEW_MALFORMED;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month))
    return *problem = "The date \"" + text + "\" names no day of the calendar.", CALVIEW_MALFORMED;
  if (year < CALVIEW_FIRST_YEAR || year > CALVIEW_LAST_YEAR)
    return *problem = "The date \"" + text + "\" is outside the calendar's years " +
                      std::to_string(CALVIEW_FIRST_YEAR) + " to " + std::to_string(CALVIEW_LAST_YEAR) + ".",
           CALVIEW_RANGE;
  q->year = year, q->month = month, q->day = day;
  return 0;
}

// Applies one key with its decoded value; other keys are kept for the links.
static int applyField(const std::string &key, const std::string &value, const std::string &field,
                      CalendarQuery *q, std::string *problem) {
  if (key == "view") {
    if (value == "day") q->period = CalendarPeriod::Day;
    else if (value == "week") q->period = CalendarPeriod::Week;
    else if (value == "month") q->period = CalendarPeriod::Month;
    else return *problem = "The view \"" + value + "\" is not one of day, week or month.", CALVIEW_MALFORMED;
    return 0;
  }
  if (key == "date") return parseDate(value, q, problem);
  if (key == "user" || key == "as") {
    // A calendar name is one line of printable text; the record file is named by it.
    for (unsigned char c : value)
      if (c < 0x20 || c == 0x7f || c == '/')
        return *problem = "The calendar name given as " + key + " is not a calendar name.", CALVIEW_MALFORMED;
    (key == "user" ? q->user : q->viewer) = value;
    return 0;
  }
  if (!field.empty()) q->kept.push_back(field);
  return 0;
}

int parseCalendarQuery(const std::string &query, int todayYear, int todayMonth, int todayDay,
                       CalendarQuery *out, std::string *problem) {
  CalendarQuery q;
  q.year = todayYear, q.month = todayMonth, q.day = todayDay;
  for (size_t at = 0; at <= query.size();) {
    size_t end = query.find('&', at);
    if (end == std::string::npos) end = query.size();
    std::string field = query.substr(at, end - at);
    size_t eq = field.find('=');
    std::string key = field.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : percentDecode(field.substr(eq + 1));
    if (int rc = applyField(key, value, field, &q, problem); rc != 0) return rc;
    at = end + 1;
  }
  if (q.user.empty()) return *problem = "The query names no calendar: add user=NAME.", CALVIEW_MALFORMED;
  if (q.viewer.empty()) q.viewer = q.user;
  if (q.year < CALVIEW_FIRST_YEAR || q.year > CALVIEW_LAST_YEAR)
    return *problem = "Today lies outside the calendar's years: give a date.", CALVIEW_RANGE;
  *out = q;
  return 0;
}

}  // namespace quorvel::webagent
