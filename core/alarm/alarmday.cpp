// alarmday.cpp -- building the queue from today's items: the re-parse test, loading the
// day's items of a local or a server calendar, and expanding each alarm into its
// announcement times.
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "core/alarm/alarm.h"
#include "core/alarm/alarm_int.h"
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/recordfile.h"
#include "core/net/buf.h"
#include "core/net/itemcodec.h"
#include "core/net/remote.h"
#include "core/people/identity.h"
#include "core/people/users.h"

namespace quorvel {

/* ==== State: the re-parse test ============================================================= */

static int32_t lastChangeCount = NO_TIME;  // server calendar's count as last seen
static int32_t lastParseTime = NO_TIME;    // exact time the local calendar was last parsed

// Tries of the current user's list after the asked user's failed. The list is retried
// "until obtained"; a bound keeps a client whose server stays away from hanging here.
static constexpr int CURRENT_USER_TRIES = 3;

void forgetAlarmParse() { lastChangeCount = lastParseTime = NO_TIME; }
void resetAlarmDay() { forgetAlarmParse(); }

/* ==== Today ================================================================================ */

// Local midnight of today and of tomorrow.
static void todayRange(int32_t *from, int32_t *to) {
  time_t t = currentTime();
  struct tm day;
  localtime_r(&t, &day);
  day.tm_hour = day.tm_min = day.tm_sec = 0;
  day.tm_isdst = -1;
  *from = int32_t(mktime(&day));
  day.tm_mday++;
  day.tm_isdst = -1;
  *to = int32_t(mktime(&day));
}

// The record file of a local calendar: "<database>/events/<name>" under the root.
static std::string calendarFile(DbHandle *cal, int32_t user) {
  const char *name = tableName(cal, user);
  if (name == nullptr || name[0] == '\0' || strchr(name, '/') != nullptr) return std::string();
  char events[DB_PATH_MAX], path[DB_PATH_MAX];
  eventsPath(events, cal->dir.c_str());
  return std::string(resolveDbPath(path, events)) + "/" + name;
}

/* ==== The re-parse test ==================================================================== */

static int32_t serverChangeCount(DbHandle *cal, int32_t user) {
  RemGetUsers(cal->server, tableName(cal, user), nullptr, nullptr);
  return cal->server->serverValue;
}

static bool calendarChanged(DbHandle *cal, int32_t user) {
  if (isServerAttached(cal)) {
    int32_t count = serverChangeCount(cal, user);
    if (lastChangeCount != NO_TIME && count <= lastChangeCount) return false;
    lastChangeCount = count;
    return true;
  }
  int32_t from, to;
  todayRange(&from, &to);
  int32_t changed = fileModTime(calendarFile(cal, user).c_str(), nullptr);
  if (changed <= lastParseTime && from <= lastParseTime) return false;
  lastParseTime = int32_t(currentTime());
  return true;
}

/* ==== Loading the day ====================================================================== */

struct Day {
  std::vector<const Item *> items;  // today's items (dumb pointers into the list below
                                    // or into the calendar's record cache)
  Item owned;                       // head of the list fetched from the server
  bool owns = false;                // the list is ours to free
};

static bool inRange(const Item *item, int32_t from, int32_t to) {
  int32_t start = item->timeValue.start.time;
  return start != NO_TIME && start >= from && start < to;
}

static bool loadLocalDay(DbHandle *cal, int32_t user, int32_t from, int32_t to, Day *day) {
  std::string path = calendarFile(cal, user);
  if (path.empty()) return false;
  DbHandle *previous = setCurrentDb(cal);  // names in the file are the calendar's
  RecordFile *rf = openRecordFile(cal, path.c_str());
  setCurrentDb(previous);
  if (rf == nullptr) return false;
  for (const Item *i = rf->list.next; i != &rf->list; i = i->next)
    if (inRange(i, from, to)) day->items.push_back(i);
  return true;
}

// The list field of a RemGetEventsWith reply, read with the server's version gates.
static bool readServerList(DbHandle *cal, const std::string &bytes, Item *head) {
  Buf *in = NewBuf();
  in->peerMajor = cal->server->peerMajor;
  in->peerMinor = cal->server->peerMinor;
  StuffBuf(in, bytes.data(), bytes.size(), 1, BUF_UNTAGGED);
  rewindBuf(in);
  int n = readEventList(in, head, uint32_t(bytes.size()));
  freeBuf(in);
  return n >= 0;
}

static bool loadServerDay(DbHandle *cal, int32_t user, int32_t from, int32_t to, Day *day) {
  CalSet who = nullptr;
  setbit(&who, user, 1);
  ItemQuery query{who, from, to, 0, nullptr};
  RemReply reply;
  int r = RemGetEventsWith(cal->server, &query, user, 0, 0, &reply);
  freebits(&who);
  if (r != 0) return false;
  for (const RemField &f : reply.fields) {
    if (f.kind != FIELD_ITEM_LIST) continue;
    evlistInit(&day->owned);
    day->owns = true;
    if (!readServerList(cal, f.bytes, &day->owned)) return false;
    for (const Item *i = day->owned.next; i != &day->owned; i = i->next)
      if (inRange(i, from, to)) day->items.push_back(i);
    return true;
  }
  return false;
}

static bool loadDayOf(DbHandle *cal, int32_t user, Day *day) {
  int32_t from, to;
  todayRange(&from, &to);
  if (day->owns) evlistFree(&day->owned);
  day->owns = false;
  day->items.clear();
  return isServerAttached(cal) ? loadServerDay(cal, user, from, to, day)
                               : loadLocalDay(cal, user, from, to, day);
}

// Loads the user's day, else the current user's; returns the user served (-1: none).
static int32_t loadDay(DbHandle *cal, int32_t user, Day *day) {
  if (loadDayOf(cal, user, day)) return user;
  for (int i = 0; i < CURRENT_USER_TRIES; i++)
    if (loadDayOf(cal, ownCalendar(), day)) return ownCalendar();
  return -1;
}

/* ==== Expansion ============================================================================ */

// Queues the alarm's times from `start` minutes before the item's start, every `freq`
// minutes, up to the start; times before now are skipped (stepped over at once, so an
// alarm set days ahead costs nothing).
static void expandAlarm(const Item *item, const Alarm *a, int32_t now) {
  int64_t start = item->timeValue.start.time;
  int64_t step = 60 * int64_t(a->freq);
  int64_t t = start - 60 * int64_t(a->start);
  if (t < now) t += (now - t + step - 1) / step * step;
  for (; t <= start; t += step)
    addEntryToQ(item->title, int32_t(start), int32_t(t), a->string, item->randomId);
}

static void expandItem(const Item *item, int32_t user, const Alarm *def, int32_t now) {
  bool excluded = testbit(item->setX, user);
  bool unanswered = testbit(item->setY, user) && !testbit(item->setN, user);
  if (excluded || unanswered) return;
  for (int i = 0; i < item->listBCount; i++) {
    const Alarm *a = &item->listB[i];
    if (a->user == user && a->freq != 0) expandAlarm(item, a, now);
  }
  if (def != nullptr && def->freq != 0 && HasNoAlarm(item, user)) expandAlarm(item, def, now);
}

/* ==== The rebuild ========================================================================== */

static void traceQueue(int32_t now) {
  int count;
  const AlarmQEntry *q = alarmQueue(&count, nullptr);
  for (int i = 0; i < count; i++)
    logMsg("event %s in %d seconds\n", q[i].event != nullptr ? q[i].event : "",
           int(int64_t(q[i].alarmTime) - now));
}

static void rebuildQueue(DbHandle *cal, int32_t user) {
  if (alarmTracing()) logMsg("CheckAlarmlists: reparsing alarmlists\n");
  ClearAlarmQueue();
  Day day;
  user = loadDay(cal, user, &day);
  Alarm def{};
  bool hasDefault = user >= 0 && alarmDefaultFor(cal, user, &def);
  int32_t now = alarmNow();
  for (const Item *item : day.items) expandItem(item, user, hasDefault ? &def : nullptr, now);
  freeMem(def.string);
  if (day.owns) evlistFree(&day.owned);
  sortAlarmQueue();
  if (alarmTracing()) traceQueue(now);
  scheduleAlarm(0);
}

int CheckAlarmlists(DbHandle *calendar, int32_t user) {
  if (calendar == nullptr) return 0;
  if (user < 0) user = ownCalendar();
  if (!calendarChanged(calendar, user)) return 0;
  rebuildQueue(calendar, user);
  return 1;
}

}  // namespace quorvel
