// alarmlist.cpp -- the alarm list of an item: adding, setting, switching off, finding,
// copying, sorting, comparing and freeing alarms, and the per-index accessors.
#include <cstdlib>
#include <cstring>

#include "core/alarm/alarm.h"
#include "core/alarm/alarm_int.h"
#include "core/base/base.h"

namespace quorvel {


/* ==== Adding and setting ================================================================== */

void AddAlarm(Item *item, int32_t user, uint32_t start, uint32_t freq, const char *string) {
  // The count is 16-bit: a full list has no room for one more, as memory would not.
  if (item->listBCount >= INT16_MAX || item->listBCount < 0) outOfMem("AddAlarm");
  size_t size = size_t(item->listBCount + 1) * sizeof(Alarm);
  auto *grown = static_cast<Alarm *>(allocMem(item->listB, size));
  if (grown == nullptr) outOfMem("AddAlarm");
  item->listB = grown;
  grown[item->listBCount] = Alarm{user, start, freq, alarmCopyText(string, "AddAlarm")};
  item->listBCount++;
}

void SetAlarm(Item *item, int32_t user, uint32_t start, uint32_t freq, const char *string) {
  if (user < 0) return;
  Alarm *a = FindAlarm(item, user);
  if (a == nullptr) {
    AddAlarm(item, user, start, freq, string);
    return;
  }
  char *copy = alarmCopyText(string, "AddAlarm");  // before the free: string may be a->string
  freeMem(a->string);
  *a = Alarm{user, start, freq, copy};
}

int ClearAlarm(Item *item, int32_t user) {
  Alarm *a = FindAlarm(item, user);
  if (a == nullptr) return -1;
  a->freq = 0;
  freeMem(a->string);
  a->string = nullptr;
  return 0;
}

/* ==== Finding ============================================================================= */

Alarm *FindAlarm(const Item *item, int32_t user) {
  for (int i = 0; i < item->listBCount; i++)
    if (item->listB[i].user == user) return &item->listB[i];
  return nullptr;
}

Alarm *FindActiveAlarm(const Item *item, int32_t user) {
  for (int i = 0; i < item->listBCount; i++)
    if (item->listB[i].user == user && item->listB[i].freq != 0) return &item->listB[i];
  return nullptr;
}

int HasNoAlarm(const Item *item, int32_t user) { return FindAlarm(item, user) == nullptr; }

int CopyAlarm(int32_t user, const Item *from, Item *to) {
  const Alarm *a = FindActiveAlarm(from, user);
  if (a == nullptr) a = FindAlarm(from, user);
  if (a == nullptr) return -1;
  SetAlarm(to, user, a->start, a->freq, a->string);
  SortAlarmlist(to->listB, to->listBCount);
  return 0;
}

/* ==== Sorting, copying, comparing ========================================================= */

static int compareAlarms(const void *pa, const void *pb) {
  const Alarm *a = static_cast<const Alarm *>(pa), *b = static_cast<const Alarm *>(pb);
  if (a->user != b->user) return a->user < b->user ? -1 : 1;
  return (a->freq == 0) - (b->freq == 0);  // alarms that are on come first
}

void SortAlarmlist(Alarm *array, int count) {
  if (array == nullptr || count <= 0) return;
  qsort(array, size_t(count), sizeof(Alarm), compareAlarms);
}

Alarm *NewAlarmlist(int count) {
  if (count < 1) return nullptr;
  auto *list = static_cast<Alarm *>(allocMem(nullptr, size_t(count) * sizeof(Alarm)));
  if (list == nullptr) outOfMem("dupAlarmlist");
  memset(list, 0, size_t(count) * sizeof(Alarm));
  return list;
}

Alarm *dupAlarmlist(const Alarm *array, int count) {
  if (array == nullptr || count < 1) return nullptr;
  Alarm *list = NewAlarmlist(count);
  for (int i = 0; i < count; i++)
    list[i] = Alarm{array[i].user, array[i].start, array[i].freq,
                    alarmCopyText(array[i].string, "dupAlarmlist")};
  return list;
}

void FreeAlarmlist(Alarm *array, int count) {
  for (int i = 0; array != nullptr && i < count; i++) freeMem(array[i].string);
  freeMem(array);
}

int EqualAlarm(const Alarm *a, const Alarm *b) {
  if (a->user != b->user || a->start != b->start || a->freq != b->freq) return -1;
  if (a->string == nullptr || b->string == nullptr) return a->string == b->string ? 0 : -1;
  return strcmp(a->string, b->string) == 0 ? 0 : -1;
}

int EqualAlarmlist(const Item *a, const Item *b) {
  if (a->listBCount != b->listBCount) return -1;
  for (int i = 0; i < a->listBCount; i++)
    if (EqualAlarm(&a->listB[i], &b->listB[i]) != 0) return -1;
  return 0;
}

/* ==== Accessors =========================================================================== */

static const Alarm *alarmAt(const Item *item, int i) {
  return i >= 0 && i < item->listBCount ? &item->listB[i] : nullptr;
}

uint32_t alarmFreqAt(const Item *item, int i) {
  const Alarm *a = alarmAt(item, i);
  return a != nullptr ? a->freq : 0;
}

const char *alarmStringAt(const Item *item, int i) {
  const Alarm *a = alarmAt(item, i);
  return a != nullptr ? a->string : nullptr;
}

CalSet alarmUserSetAt(const Item *item, int i) {
  const Alarm *a = alarmAt(item, i);
  CalSet set = nullptr;
  if (a != nullptr && a->user >= 0) setbit(&set, a->user, 1);
  return set;
}

}  // namespace quorvel
