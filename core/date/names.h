// names.h -- the localised day and month names.
//
// Four tables, each text fetched from the message catalogue (set 26) with its English
// default. Every call fetches the text again and keeps an allocated copy per table
// entry, freeing that entry's previous copy, so a returned text stays valid until the
// next call for the same entry (or resetDateNames). An index outside a table's range
// reads the table's extra last entry, under that entry's own message number:
//   DayName        0..6 Sunday..Saturday     message index + 1   other: entry 7 "Whatday?"
//   ShortDayName   0..6 Sun..Sat             message index + 8   other: entry 7 "???"
//   MonthName      0..11 January..December   message index + 15  other: entry 12 "Whatmon?"
//   ShortMonthName 0..11 Jan..Dec            message index + 27  other: entry 12 "???"
// (The extra entry's number is the next table's first one, as the numbering falls;
// a catalogue that holds that message therefore shows its text there.)
#pragma once

namespace quorvel {

inline constexpr int DATE_NAMES_SET = 26;

/* ---- Names (never null) ----------------------------------------------------------- */

const char *DayName(int day);          // full day name; day 0 is Sunday
const char *ShortDayName(int day);     // three-letter day name
const char *MonthName(int month);      // full month name; month 0 is January
const char *ShortMonthName(int month); // three-letter month name

/* ---- Tests ------------------------------------------------------------------------- */

// Frees every kept copy.
void resetDateNames();

}  // namespace quorvel
