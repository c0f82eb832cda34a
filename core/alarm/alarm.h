// alarm.h -- alarms: the alarm lists of items, the queue of today's announcements and
// its timer, default alarms, and the announcement text.
//
// An item's alarm list (Item::listB, listBCount) holds one alarm per user: the first
// announcement `start` minutes before the item's start, then one every `freq` minutes
// up to the start; `freq` 0 switches the alarm off. The default alarm file
// ("db/database/alarm.def") gives each user's alarm for items that carry none; it is a
// run of records in the record-file line style, one per user:
//   (empty line)  #A<tab><start>,<freq>  [#E<tab><string>]  #V<tab><user's name>
// A server calendar keeps its defaults on the server; the record that travels
// (kind 7) is user, start and freq as three 32-bit network-order words, then the
// string with its NUL (nothing when the alarm has no string).
//
// The queue is process-wide: today's announcements of one user, sorted by time, with
// the index of the next one due. A timer is armed for one entry at a time through the
// client's hooks; a client without a timer installs the built-in SIGALRM timer
// (UseBuiltinAlarmTimer) or polls (PollAlarm). "Now" is the current time with its
// seconds dropped (local time), so queue times are compared at whole-minute grain; an
// entry less than a minute late still fires, one a minute late or more is skipped.
//
// Today's items for a user (what the queue is built from):
//  - local calendar: the items of the user's record file, "<database>/events/<name>"
//    resolved against the installation root, whose start lies in today (from local
//    midnight to the next); the file stays in the database's record cache, so the
//    calendar keeps the list and nothing is copied.
//  - server calendar: the items RemGetEventsWith answers for the query "the user's
//    one-member calendar set, today's range, every kind" (numbers: the user, 0, 0),
//    carried in a list field (kind 53) of the reply; a reply without one loads
//    nothing. The list is the queue builder's and is freed after the rebuild.
// A server calendar's change count is its connection's server value after asking the
// server about the user's calendar (RemGetUsers): the server hands out a new value
// whenever the calendar changes.
// Membership: a user in the item's X set is excluded; a user in its Y set but not in
// its N set gets no announcement either (Y and N are the item's second and third
// calendar sets, counting W first). The cookie handed back with an entry is the item's
// randomId, which finds the item again in its calendar.
//
// Results: 0 success; -1 "not found" in list operations and for failures; counts and
// delays as stated. Out of memory ends the process with the report naming the routine
// ("AddAlarm", "dupAlarmlist", "addEntryToQ").
#pragma once

#include <cstdint>
#include <string>

#include "core/items/item.h"

namespace quorvel {

struct DbHandle;

/* ---- Alarm lists (Item::listB) ------------------------------------------------------- */

// Appends one alarm (string copied).
void AddAlarm(Item *item, int32_t user, uint32_t start, uint32_t freq, const char *string);
// Replaces the user's alarm (start, freq, string) or adds one; a negative user: nothing.
void SetAlarm(Item *item, int32_t user, uint32_t start, uint32_t freq, const char *string);
// Switches the user's alarm off (freq 0, string freed); -1 when the user has none.
int ClearAlarm(Item *item, int32_t user);
// The user's first alarm / first alarm with freq not 0, or null.
Alarm *FindAlarm(const Item *item, int32_t user);
Alarm *FindActiveAlarm(const Item *item, int32_t user);
// 1 when no alarm of the item is the user's, else 0.
int HasNoAlarm(const Item *item, int32_t user);
// SetAlarm the user's active (else any) alarm of `from` into `to`, then sort `to`'s
// list; -1 when `from` has none for the user.
int CopyAlarm(int32_t user, const Item *from, Item *to);
// By user ascending; for one user, alarms that are on before those that are off.
void SortAlarmlist(Alarm *array, int count);
// A copy of count alarms (strings copied); null for none or a count below 1.
Alarm *dupAlarmlist(const Alarm *array, int count);
Alarm *NewAlarmlist(int count);  // count zeroed alarms
void FreeAlarmlist(Alarm *array, int count);
// 0 when equal (user, start, freq, and both strings absent or equal), else -1; lists
// are equal with equal counts and equal alarms pairwise in order.
int EqualAlarm(const Alarm *a, const Alarm *b);
int EqualAlarmlist(const Item *a, const Item *b);
// The freq / string / user (as a one-member set, empty for a negative user; the caller
// frees it) of alarm i; 0, null, an empty set for an index out of range.
uint32_t alarmFreqAt(const Item *item, int i);
const char *alarmStringAt(const Item *item, int i);
CalSet alarmUserSetAt(const Item *item, int i);

/* ---- The queue ------------------------------------------------------------------------ */

struct AlarmQEntry {
  char *event;        // the item's text (owned; null when absent; "" a wake-up)
  int32_t startTime;  // the item's start, seconds of the system clock
  int32_t alarmTime;  // when to announce; NO_TIME once announced by PollAlarm
  char *string;       // the alarm's string (owned; may be null)
  int32_t cookie;     // the item's randomId
};

// The hooks: the announcement (event text, minutes to its start, string: "", 0, "" for
// nothing to announce), and the client's timer. The timer-start hook arms a timer that
// calls handler(entry) after delayMs and returns its id (above 0); cancel stops it.
using AlarmNotifyHook = void (*)(const char *event, int minutes, const char *string);
using AlarmHandler = void (*)(AlarmQEntry *entry);
using AlarmTimerStartHook = long (*)(long delayMs, AlarmHandler handler, AlarmQEntry *entry);
using AlarmTimerCancelHook = void (*)(long id);
void SetAlarmNotify(AlarmNotifyHook hook);
void SetAlarmTimerStart(AlarmTimerStartHook hook);
void SetAlarmTimerCancel(AlarmTimerCancelHook hook);

// Rebuilds the queue from today's items of `user` (the own calendar when negative) in
// calendar when the calendar changed since the last build (or a new day began), and
// schedules. 1 when rebuilt, 0 when nothing changed.
int CheckAlarmlists(DbHandle *calendar, int32_t user);

// Appends one entry (texts copied); the queue is not re-sorted.
void addEntryToQ(const char *event, int32_t startTime, int32_t alarmTime,
                 const char *string, int32_t cookie);
// Sorts the entries not yet passed by alarm time.
void sortAlarmQueue();
// Schedules the next entry due from `from` (now when 0): arms the timer hook and
// returns the delay in ms; without a timer-start hook returns the delay only. -1 when
// nothing is left to schedule.
long scheduleAlarm(int32_t from);
// The handler the timer calls: announces the entry unless it repeats the last one
// announced, then schedules the next. A null entry announces nothing.
void alarmFired(AlarmQEntry *entry);

// A wake-up (empty text) `seconds` after now, queued and scheduled.
void AddWakeup(int seconds);
// Keeps the first wake-up already passed / queues it again and forgets it.
void RememberWakeup();
void RestoreWakeup();

// For clients without a timer: 1 with the entry due now (marked announced), else 0.
int PollAlarm(const char **event, int *minutes, const char **string, int32_t *cookie);

// Cancels the armed timer and frees every entry.
void ClearAlarmQueue();

// The queue as it stands (tests and the client's display): entries, count, next index.
const AlarmQEntry *alarmQueue(int *count, int *next);

/* ---- The built-in timer ------------------------------------------------------------- */

// arms alarm(delayMs / 1000) with a private copy of the entry; SIGALRM calls handler.
long builtinTimerStart(long delayMs, AlarmHandler handler, AlarmQEntry *entry);
void builtinTimerCancel(long id);  // alarm(0)
void UseBuiltinAlarmTimer();       // installs the two as the timer hooks

/* ---- Announcements ---------------------------------------------------------------------- */

// "The event '<event>' is starting now." / " in 5 minutes." / " in 2 hours and 15
// minutes." from catalogue set 2, messages 16 to 24. One static text, overwritten at
// each call.
const char *AlarmMessage(const char *event, int minutes);

/* ---- Default alarms --------------------------------------------------------------------- */

// The default alarm file of a database: "db/database/alarm.def" under the installation
// root, or under HOME + "/.quorvel/" for a per-user database.
std::string alarmDefaultsPath(const DbHandle *db);
// The default alarm list (as an item's alarm list, first record of a user wins), read
// again when the file at path has changed. Never null; empty when the file is missing.
Item *GetDefaultAlarmlist(DbHandle *calendar, const char *path);
// Sets a user's default alarm for the current database: sent to the server for a
// server calendar, else written into the file. 0, or -1 with its one-line report.
int PutDefaultAlarm(int32_t user, uint32_t start, uint32_t freq, const char *string);
// The current default alarm entry (the last one set or written).
const Alarm *currentDefaultAlarm();

/* ---- Tracing and tests ------------------------------------------------------------------ */

void setAlarmTrace(bool on);  // the trace lines on standard error; off by default
// Forgets the re-parse state only, so that the next CheckAlarmlists rebuilds.
void forgetAlarmParse();
// Clears the queue and every hook, the last announcement, the defaults, the re-parse
// state and the wake-up; tracing off; built-in timer disarmed.
void resetAlarms();

}  // namespace quorvel
