// alarmqueue.cpp -- the process-wide queue of announcements: its entries, the hooks,
// scheduling with its one-minute grace, the timer handler with repeat suppression,
// wake-ups, polling and the built-in SIGALRM timer.
//
// Divisions: state, entries, scheduling and the handler, wake-ups, polling, the
// built-in timer, reset.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <utility>
#include <unistd.h>

#include "core/alarm/alarm.h"
#include "core/alarm/alarm_int.h"
#include "core/base/base.h"

namespace quorvel {

/* ==== State ================================================================================ */

static AlarmQEntry *queue;  // the entries, grown 5 at a time by addEntryToQ
static int queueCount;      // entries in use
static int queueCap;        // entries allocated
static int queueNext;       // next entry to schedule; those before it are passed

static char *textChunk;      // the entries' texts: chunks of TEXT_CHUNK bytes, each
static size_t textUsed;      // starting with a pointer to the one before, bump-filled
static size_t textSize;      // (used and size of the newest); freed with the queue
static constexpr size_t TEXT_CHUNK = 65536;

static AlarmNotifyHook notifyHook;       // set by the client: shows an announcement
static AlarmTimerStartHook startHook;    // set by the client: arms its timer
static AlarmTimerCancelHook cancelHook;  // set by the client: stops its timer
static long timerId;                     // id of the armed timer, 0 when none

static AlarmQEntry lastAnnounced;  // private copy of the last entry announced (handler)
static int32_t wakeStart = -1;     // remembered wake-up (RememberWakeup), -1 when none
static int32_t wakeAlarm = -1;
static bool tracing;               // setAlarmTrace

static AlarmQEntry timerCopy;        // the built-in timer's copy of its entry
static AlarmHandler timerHandler;    // the handler it calls on SIGALRM

int32_t alarmNow() {
  time_t t = currentTime();
  struct tm local;
  if (localtime_r(&t, &local) == nullptr) return int32_t(t - t % 60);
  return int32_t(t - local.tm_sec);
}

bool alarmTracing() { return tracing; }
void setAlarmTrace(bool on) { tracing = on; }

char *alarmCopyText(const char *text, const char *caller) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text) + 1;
  char *copy = static_cast<char *>(allocMem(nullptr, n));
  if (copy == nullptr) outOfMem(caller);
  memcpy(copy, text, n);
  return copy;
}

void SetAlarmNotify(AlarmNotifyHook hook) { notifyHook = hook; }
void SetAlarmTimerStart(AlarmTimerStartHook hook) { startHook = hook; }
void SetAlarmTimerCancel(AlarmTimerCancelHook hook) { cancelHook = hook; }

/* ==== Entries ============================================================================== */

static void freeEntryTexts(AlarmQEntry *e) {
  freeMem(e->event);
  freeMem(e->string);
  e->event = e->string = nullptr;
}

static void copyEntry(AlarmQEntry *to, const AlarmQEntry *from, const char *caller) {
  freeEntryTexts(to);
  *to = AlarmQEntry{alarmCopyText(from->event, caller), from->startTime, from->alarmTime,
                    alarmCopyText(from->string, caller), from->cookie};
}

// The queue's texts live in chunks freed together with the queue: one allocation per
// 64 KiB of texts instead of two per entry, which keeps a rebuild's cost in step with
// the number of entries.
static char *queueText(const char *text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text) + 1;
  if (n > textSize - textUsed) {
    size_t size = std::max(TEXT_CHUNK, n + sizeof(char *));
    char *chunk = static_cast<char *>(allocMem(nullptr, size));
    if (chunk == nullptr) outOfMem("addEntryToQ");
    memcpy(chunk, &textChunk, sizeof(char *));
    textChunk = chunk, textUsed = sizeof(char *), textSize = size;
  }
  char *copy = textChunk + textUsed;
  memcpy(copy, text, n);
  textUsed += n;
  return copy;
}

static void freeQueueTexts() {
  while (textChunk != nullptr) {
    char *previous;
    memcpy(&previous, textChunk, sizeof(char *));
    freeMem(textChunk);
    textChunk = previous;
  }
  textUsed = textSize = 0;
}

void addEntryToQ(const char *event, int32_t startTime, int32_t alarmTime, const char *string,
                 int32_t cookie) {
  if (queueCount == queueCap) {
    if (queueCap > INT32_MAX / 2) outOfMem("addEntryToQ");
    size_t size = size_t(queueCap + 5) * sizeof(AlarmQEntry);
    auto *grown = static_cast<AlarmQEntry *>(allocMem(queue, size));
    if (grown == nullptr) outOfMem("addEntryToQ");
    queue = grown;
    queueCap += 5;
  }
  queue[queueCount++] =
      AlarmQEntry{queueText(event), startTime, alarmTime, queueText(string), cookie};
}

static int compareEntries(const void *pa, const void *pb) {
  int32_t a = static_cast<const AlarmQEntry *>(pa)->alarmTime;
  int32_t b = static_cast<const AlarmQEntry *>(pb)->alarmTime;
  return a < b ? -1 : a > b;
}

// Least significant digit first, 8 bits a pass, on each time's distance from the
// earliest, for as many passes as the spread of times needs (three for a day): the
// cost grows with the number of entries alone, where a comparison sort's does not.
// Returns false when the scratch area cannot be had.
static bool radixSort(AlarmQEntry *entries, size_t n) {
  int32_t earliest = entries[0].alarmTime;
  for (size_t i = 1; i < n; i++) earliest = std::min(earliest, entries[i].alarmTime);
  uint32_t low = uint32_t(earliest), spread = 0;
  for (size_t i = 0; i < n; i++) spread |= uint32_t(entries[i].alarmTime) - low;
  auto *scratch = static_cast<AlarmQEntry *>(allocMem(nullptr, n * sizeof(AlarmQEntry)));
  if (scratch == nullptr) return false;
  AlarmQEntry *from = entries, *to = scratch;
  for (int shift = 0; shift < 32 && (spread >> shift) != 0; shift += 8) {
    size_t start[257] = {0};
    for (size_t i = 0; i < n; i++) start[((uint32_t(from[i].alarmTime) - low) >> shift & 0xFF) + 1]++;
    for (int d = 1; d <= 256; d++) start[d] += start[d - 1];
    for (size_t i = 0; i < n; i++) to[start[(uint32_t(from[i].alarmTime) - low) >> shift & 0xFF]++] = from[i];
    std::swap(from, to);
  }
  if (from != entries) memcpy(entries, from, n * sizeof(AlarmQEntry));
  freeMem(scratch);
  return true;
}

// Only the entries not yet passed move: the armed timer's entry and those before it
// keep their places.
void sortAlarmQueue() {
  size_t n = size_t(queueCount - queueNext);
  if (n < 2) return;
  if (n < 64 || !radixSort(queue + queueNext, n))
    qsort(queue + queueNext, n, sizeof(AlarmQEntry), compareEntries);
}

void ClearAlarmQueue() {
  if (timerId > 0 && cancelHook != nullptr) cancelHook(timerId);
  timerId = 0;
  // Every entry's texts go, not only those already passed: the rest would be lost.
  freeQueueTexts();
  freeMem(queue);
  queue = nullptr;
  queueCount = queueCap = queueNext = 0;
}

const AlarmQEntry *alarmQueue(int *count, int *next) {
  if (count != nullptr) *count = queueCount;
  if (next != nullptr) *next = queueNext;
  return queue;
}

/* ==== Scheduling and the handler =========================================================== */

long scheduleAlarm(int32_t from) {
  int32_t now = from != 0 ? from : alarmNow();
  for (; queueNext < queueCount; queueNext++) {
    int32_t at = queue[queueNext].alarmTime;
    if (at >= now) break;
    if (int64_t(now) < int64_t(at) + 60) {  // late by under a minute: fires at once
      now = at;
      break;
    }
  }
  if (queueNext >= queueCount) return -1;
  AlarmQEntry *entry = &queue[queueNext];
  long delay = (long(entry->alarmTime) - long(now)) * 1000;
  if (startHook == nullptr) return delay;
  timerId = startHook(delay == 0 ? 1000 : delay, alarmFired, entry);
  queueNext++;
  return delay;
}

static bool repeatsLast(const AlarmQEntry *e) {
  bool sameText = e->event == nullptr || lastAnnounced.event == nullptr
                      ? e->event == lastAnnounced.event
                      : strcmp(e->event, lastAnnounced.event) == 0;
  return sameText && e->startTime == lastAnnounced.startTime &&
         e->alarmTime == lastAnnounced.alarmTime && e->cookie == lastAnnounced.cookie;
}

static void announceNothing() {
  if (notifyHook != nullptr) notifyHook("", 0, "");
}

void alarmFired(AlarmQEntry *entry) {
  timerId = 0;
  int32_t now = alarmNow();
  if (entry == nullptr) {
    announceNothing();
  } else if (repeatsLast(entry) && entry->event != nullptr && entry->event[0] != '\0') {
    announceNothing();  // a repeat is never announced twice
  } else {
    int minutes = int((int64_t(entry->startTime) - now) / 60);
    const char *event = entry->event != nullptr ? entry->event : "";
    if (tracing) logMsg("alarm for event %s starting in %d minutes\n", event, minutes);
    copyEntry(&lastAnnounced, entry, "addEntryToQ");
    if (notifyHook != nullptr) notifyHook(event, minutes, entry->string);
  }
  scheduleAlarm(now);
}

/* ==== Wake-ups ============================================================================= */

// Stops the armed timer before the queue grows or is re-sorted, since the timer holds a
// pointer into the queue; its entry (the one just passed) is scheduled again.
static void disarm() {
  if (timerId <= 0) return;
  if (cancelHook != nullptr) cancelHook(timerId);
  timerId = 0;
  if (queueNext > 0) queueNext--;
}

static void queueWakeup(int32_t start, int32_t at) {
  disarm();
  addEntryToQ("", start, at, nullptr, 0);
  sortAlarmQueue();
  scheduleAlarm(0);
}

void AddWakeup(int seconds) {
  int32_t at = int32_t(int64_t(alarmNow()) + seconds);
  queueWakeup(at, at);
}

void RememberWakeup() {
  wakeStart = wakeAlarm = -1;
  for (int i = 0; i < queueNext; i++)
    if (queue[i].event != nullptr && queue[i].event[0] == '\0') {
      wakeStart = queue[i].startTime;
      wakeAlarm = queue[i].alarmTime;
      return;
    }
}

// The remembered wake-up goes through the same path as AddWakeup (timer stopped,
// queue re-sorted, rescheduled), so that the timer never holds a moved entry.
void RestoreWakeup() {
  if (wakeStart >= 0 && wakeAlarm >= 0) queueWakeup(wakeStart, wakeAlarm);
  wakeStart = wakeAlarm = -1;
}

/* ==== Polling ============================================================================== */

int PollAlarm(const char **event, int *minutes, const char **string, int32_t *cookie) {
  if (queueNext >= queueCount) return 0;
  AlarmQEntry *e = &queue[queueNext];
  if (e->alarmTime == NO_TIME || e->event == nullptr || e->event[0] == '\0') {
    queueNext++;
    return 0;
  }
  int32_t now = alarmNow();
  if (e->alarmTime < now) {  // missed
    queueNext++;
    return 0;
  }
  if (e->alarmTime > now) return 0;
  if (event != nullptr) *event = e->event;
  if (minutes != nullptr) *minutes = int((int64_t(e->startTime) - now) / 60);
  if (string != nullptr) *string = e->string;
  if (cookie != nullptr) *cookie = e->cookie;
  e->alarmTime = NO_TIME;
  queueNext++;
  return 1;
}

/* ==== The built-in timer =================================================================== */

static void onAlarmSignal(int) {
  signal(SIGALRM, onAlarmSignal);
  if (timerHandler != nullptr) timerHandler(&timerCopy);
}

long builtinTimerStart(long delayMs, AlarmHandler handler, AlarmQEntry *entry) {
  if (entry != &timerCopy) copyEntry(&timerCopy, entry, "addEntryToQ");
  timerHandler = handler;
  signal(SIGALRM, onAlarmSignal);
  alarm(unsigned(delayMs / 1000));
  return 1;
}

void builtinTimerCancel(long) { alarm(0); }

void UseBuiltinAlarmTimer() {
  SetAlarmTimerStart(builtinTimerStart);
  SetAlarmTimerCancel(builtinTimerCancel);
}

/* ==== Reset ================================================================================ */

void resetAlarmQueue() {
  if (startHook == builtinTimerStart) alarm(0);
  cancelHook = nullptr;  // the queue goes without calling the client back
  ClearAlarmQueue();
  notifyHook = nullptr;
  startHook = nullptr;
  freeEntryTexts(&lastAnnounced);
  lastAnnounced = AlarmQEntry{};
  freeEntryTexts(&timerCopy);
  timerHandler = nullptr;
  wakeStart = wakeAlarm = -1;
  tracing = false;
}

void resetAlarms() {
  resetAlarmQueue();
  resetAlarmDefaults();
  resetAlarmDay();
}

}  // namespace quorvel
