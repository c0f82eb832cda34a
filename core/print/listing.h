// listing.h -- calendar listings as text (day, week and month) and printed calendars
// through the external formatter "pcal".
//
// The request word: the low byte holds the content flags (LIST_EVENTS, LIST_TODOS,
// LIST_DONE_TODOS used when LIST_TODOS is not set, LIST_REMINDERS, LIST_DETAIL,
// LIST_PRINT, LIST_METRIC), the next byte the period (LIST_DAY, LIST_WEEK, LIST_MONTH).
// Dates are held as the client holds them: year counted from 1900, month 0..11 and day
// of month 0..30 (0 is the first); a date past the end of its month is carried into the
// next month and year.
//
// A day is written as a frame and its item sections:
//   "\n\t\t#For <date title>\n\n" ["year <yyyy>\n\n"] <events> <to-dos> <reminders>
// (a week: "#For the week of <title>" and the sections of seven days, a month: "#For
// <month> <yyyy>" and the sections of each of its days from the first; with year lines a
// day in another year than the day before it gets "year <yyyy>\n\n" again). Event lines
// read "MM/DD (<day name>):" or "\t", then the start and end in 24-hour ("\t 09:30 -",
// " 10:00 ") or am/pm form ("\t09:30am-", "10:00am"); an event begun before the day
// starts at 24:00, one ending after it ends at 00:00, and hours 0 and 24 show as 12.
// To-do and reminder lines read "MM/DD\t" (year lines) or "MM/DD (<day name>):\n" once,
// then "ToDos:\t" / "Reminders:" or "\t". Every line ends in "\t<text>" or "\t(private)"
// for an item the viewer may not read, " (done)" for a to-do done that day, and "\n".
// With LIST_DETAIL the popup notes of the item and its chain follow, each as "\n",
// "    Popup title: <t>\n", "    Popup body: <b>\n", ":End of Body:\n".
//
// Settled here:
//  - Items of a day: those of the calendar's record file "<database>/events/<name>" in
//    the current database whose time overlaps the day (an item without an end counts
//    as ending at its start), and its to-dos begun before the day's end (the due test
//    below picks those still due). When the file does not exist the own calendar's is read
//    instead, once (a second miss leaves the day empty rather than retrying for ever).
//  - Order within a day: start time, then kind (event, to-do, reminder), then text
//    (byte order), then the item's random id; items equal in all four keep file order.
//  - A to-do is done by a calendar when its user-time list (listC) holds an entry for
//    that calendar with a set time; it is done on a day when that time lies in the day.
//    It is due on a day from its start day on, until the day it is done: due when it
//    starts within the day, or started earlier and was not done before the day began.
//  - The excluded set is the item's X set; due, done and excluded are judged for the
//    listed calendar (the one whose items were loaded), reading for the viewer (the own
//    calendar) through the permission records.
//  - Popup notes: an item's visible notes are its popup entries whose R set is empty or
//    holds the viewer; a note's title is the entry's title, its body is kept by the
//    popup-note store, which the client installs (setPopupBodyHook); none by default.
//  - Catalogue texts are used as formats only for "%s" and "%d" (in order, each taking
//    the next value); any other conversion is printed as it stands, so a translated
//    text can never read values that are not there.
//  - The formatter's command must fit its 500 bytes: a longer one is not run (and is
//    reported as a formatter failure). The calendar name and the title are put inside
//    double quotes with `"`, `\`, `$` and backquote escaped by a backslash, so that a
//    name never reaches the shell as a command; ordinary names are unchanged.
//  - The data file is removed after every attempt, a failed close included; a count of
//    0 or less prints nothing and makes no data file.
// Results: PrintCalendar and the writers return nothing; failures are the message
// "Unable to output the postscript file at this time." on standard error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quorvel {

struct Item;

/* ---- The request word ------------------------------------------------------------- */

inline constexpr unsigned LIST_EVENTS = 1;
inline constexpr unsigned LIST_TODOS = 2;
inline constexpr unsigned LIST_REMINDERS = 4;
inline constexpr unsigned LIST_DONE_TODOS = 8;   // to-dos done that day (without LIST_TODOS)
inline constexpr unsigned LIST_DETAIL = 16;      // popup notes after each item
inline constexpr unsigned LIST_PRINT = 32;       // through the formatter
inline constexpr unsigned LIST_METRIC = 64;      // page measures in centimetres
inline constexpr unsigned LIST_DAY = 0x100;
inline constexpr unsigned LIST_WEEK = 0x200;
inline constexpr unsigned LIST_MONTH = 0x400;

/* ---- Client state (off / today unless a client sets it) ------------------------------- */

struct ListingSwitches {
  bool dayFirst = false;   // date titles "<d> <month>, <yyyy>"
  bool hours24 = false;    // times in 24-hour form
  bool formatterZ = false; // hand " -XZ" to the formatter
};
void setListingSwitches(const ListingSwitches &switches);
const ListingSwitches &listingSwitches();
// The client's current date (year - 1900, month 0..11, day 0..30); until set, today.
void setClientDate(int year, int month, int day);
void clientDate(int *year, int *month, int *day);

/* ---- Listings ------------------------------------------------------------------------ */

// count periods (at least 1) from the client's date: with LIST_PRINT through the
// formatter, else to standard output without year lines.
void ListCalendar(int calendar, unsigned request, int count);
// count consecutive periods; flags 0 mean all three sections for a day, events only
// for a week or month.
void WriteListing(FILE *out, int calendar, int year, int month, int day, int withYear,
                  unsigned period, unsigned flags, int count);
// Writes the listings into a scratch file in /tmp and runs the formatter on it.
void PrintCalendar(int calendar, int year, int month, int day, unsigned period,
                   unsigned flags, int count);

/* ---- Titles ---------------------------------------------------------------------------- */

// "<month> <d>, <yyyy>" (or day first); with a time, " - 09:05 pm" / " - 21:05" added.
std::string dateTitle(int year, int month, int day);
std::string stampTitle(int32_t when);
// The formatter's command line for the periods from the given date; empty when it
// would not fit the command buffer. (PrintCalendar's step, open for tests.)
std::string formatterCommand(int calendar, int year, int month, int day, unsigned period,
                             unsigned flags, const char *dataPath, int32_t now);

/* ---- Seams the client fills ---------------------------------------------------------- */

// Loads into list (an evlistInit'ed head) copies of the items of calendar that overlap
// [dayStart, dayEnd); returns 0 when the calendar has a list, else -1.
using DayItemsLoader = int (*)(int calendar, int32_t dayStart, int32_t dayEnd, Item *list);
DayItemsLoader setDayItemsLoader(DayItemsLoader loader);  // null: the record file
int loadDayFromRecordFile(int calendar, int32_t dayStart, int32_t dayEnd, Item *list);
// The body of a popup note, or null when it has none.
using PopupBodyHook = const char *(*)(const Item *item, int popupIndex);
PopupBodyHook setPopupBodyHook(PopupBodyHook hook);

// Forgets switches, client date and seams (tests).
void resetListing();

}  // namespace quorvel
