// holiday.h -- holidays and workdays: the holiday record, its lists and their text
// form, the two holiday files and the lookup of a date.
//
// A holiday is a name, a period (a TimeRange: start at local midnight of its first
// day, end at the last second of its last day; qualifiers 0) and a workday flag (1: a
// working day, 0: a day off). A list is a count and an array of pointers to records,
// both owned by whoever holds the list. Two lists are kept process-wide: the system
// list, from the shared file "db/database/holidays" (resolved against the installation
// root; with a holiday language other than "En_US" set, the name gets ".<language>"
// appended), and the user list, from HOME + "/.quorvel/holidays" (none without HOME).
// Both are read on first use.
//
// Text form, one holiday a line:
//   <name>*<workday|nonworkday>:\t<m>/<d>/<yyyy> - <m>/<d>/<yyyy>\n
// months and days counted from 1, start day then last day. A kind other than exactly
// "workday" is a day off. A line that lacks the "*", the ":" or a readable period ends
// the list there (the lines before it are kept). A record without a name is not
// written.
//
// Results: 0 success, -1 "not found" or "different" (list operations and compares),
// positive errno passed up from the files, record-file codes from the rewrite.
#pragma once

#include "core/date/datetime.h"

namespace quorvel {

struct Holiday {
  char *name;        // the holiday's text (owned)
  TimeRange period;  // first day's midnight to the last day's last second
  int workday;       // 1 a working day ("workday"), 0 a day off ("nonworkday")
};

/* ---- Lookup of a date --------------------------------------------------------------- */

// The name of the holiday covering the local date (year in full, month 0..11, day
// 1..31), searching the user list first and the system list only when the user list
// has none; *workday (when not null) receives its flag. Null when no holiday covers the
// date or the date is not valid. The name belongs to the list (valid until reload).
const char *HolidayFor(int year, int month, int day, int *workday);

/* ---- Text form ------------------------------------------------------------------------- */

// The list the text describes (null and a count of 0 for a null or empty text). Free
// with FreeHolidays.
Holiday **ParseHolidays(const char *text, int *count);
// The text of the list, allocated (freeMem); never null.
char *FormatHolidays(Holiday *const *list, int count);

// A period of whole local days: from month/day/year through month/day/year (months
// 0..11 here). 0, or -1 when a date is out of range.
int HolidayPeriod(int year1, int month1, int day1, int year2, int month2, int day2,
                  TimeRange *out);

/* ---- Records and lists -------------------------------------------------------------- */

Holiday *NewHoliday(const char *name, const TimeRange &period, int workday);
Holiday *CopyHoliday(const Holiday *h);
Holiday **CopyHolidays(Holiday *const *list, int count);
// Appends a copy of h; the array grows by one. Returns the (moved) array.
Holiday **AppendHoliday(Holiday **list, int *count, const Holiday *h);
// Frees the record at index; the array shrinks by one. 0, or -1 for a bad index.
int RemoveHoliday(Holiday ***list, int *count, int index);
void FreeHoliday(Holiday *h);
void FreeHolidays(Holiday **list, int count);
// 0 when equal (name, period and flag; lists: same count, equal in order), else -1.
int CompareHoliday(const Holiday *a, const Holiday *b);
int CompareHolidays(Holiday *const *a, int na, Holiday *const *b, int nb);
// Orders by period start, ascending; records with equal starts keep their order.
void SortHolidays(Holiday **list, int count);

/* ---- Files ------------------------------------------------------------------------- */

// The shared file's path (with the language suffix) and the user's file's path into
// dest (DB_PATH_MAX bytes); the user path is null when HOME is not set.
char *SystemHolidayPath(char *dest);
char *UserHolidayPath(char *dest);
// The language of the holiday files (copied; null or "En_US" means no suffix). The
// system list is read again on next use.
void SetHolidayLanguage(const char *code);
const char *HolidayLanguage();

// Reads a holiday file into a new list: 0 (a missing file gives an empty list), or
// errno when it exists but cannot be read.
int ReadHolidayFile(const char *path, Holiday ***list, int *count);
// Replaces the file by the list's text through the record files' scratch-and-rename
// rewrite; 0 or the rewrite's error.
int WriteHolidayFile(const char *path, Holiday *const *list, int count);

/* ---- The process-wide lists ----------------------------------------------------------- */

// Reads both files again now.
void LoadHolidays();
// The lists (read on first use); dumb pointers valid until the next reload.
Holiday **SystemHolidays(int *count);
Holiday **UserHolidays(int *count);
// Replaces the user list (taking ownership) and writes it to the user's file: 0, -1
// without HOME, or the write's error (the list in memory is kept either way).
int SaveUserHolidays(Holiday **list, int count);

// Frees both lists and forgets the language (tests).
void resetHolidays();

}  // namespace quorvel
