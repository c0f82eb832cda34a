// listing_internal.h -- pieces the listing and the formatter command share (and their
// tests reach): held dates, the safe catalogue formatter, the day order, the to-do tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace quorvel {

struct Item;

// A date as the client holds it, with what normaliseDate works out.
struct ListDate {
  int year;             // counted from 1900
  int month;            // 0..11
  int day;              // day of month, 0 for the first
  int weekday = 0;      // 0 Sunday (after normaliseDate)
  int32_t start = 0;    // local midnight that begins the day (after normaliseDate)
  int32_t next = 0;     // local midnight that ends it
};
ListDate normaliseDate(ListDate d);
// The first day of the next period: a day, 7 days or a month on.
ListDate advanceDate(ListDate d, unsigned period);

// One value for catFormat: numbers are written in decimal.
struct FormatArg {
  std::string text;
  FormatArg(const char *s) : text(s != nullptr ? s : "") {}
  FormatArg(const std::string &s) : text(s) {}
  FormatArg(int n) : text(std::to_string(n)) {}
};
// fmt with each "%s" or "%d" replaced by the next value ("" when none is left) and "%%"
// by "%"; any other "%" stays as it is.
std::string catFormat(const char *fmt, std::initializer_list<FormatArg> args);

// Whether a loader hands item out for the day: its time overlaps the day, or it is a
// to-do begun before the day's end.
bool itemOnDay(const Item *item, int32_t dayStart, int32_t dayEnd);
// The order of a day's items (see listing.h).
bool listingBefore(const Item *a, const Item *b);
bool todoDueOn(const Item *item, int user, int32_t dayStart, int32_t dayEnd);
bool todoDoneOn(const Item *item, int user, int32_t dayStart, int32_t dayEnd);

}  // namespace quorvel
