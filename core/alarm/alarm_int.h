// alarm_int.h -- what the alarm module's files share among themselves (not for clients).
#pragma once

#include <cstdint>

#include "core/items/item.h"

namespace quorvel {

struct DbHandle;

// The current time with its seconds dropped in local time: the start of this minute.
int32_t alarmNow();
// The trace switch (setAlarmTrace).
bool alarmTracing();
// A heap copy of text (null stays null); out of memory reports `caller`.
char *alarmCopyText(const char *text, const char *caller);

// The default alarm of `user` in the calendar (from the server for a server calendar,
// else from the default alarm file) copied into *out, whose string the caller frees;
// false when the user has none.
bool alarmDefaultFor(DbHandle *calendar, int32_t user, Alarm *out);

// Each file's part of resetAlarms.
void resetAlarmQueue();
void resetAlarmDefaults();
void resetAlarmDay();

}  // namespace quorvel
