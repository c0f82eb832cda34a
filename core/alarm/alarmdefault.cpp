// alarmdefault.cpp -- default alarms: the per-database file of each user's alarm for
// items without one (read again when it changes, rewritten under a scratch name), and
// the same defaults kept on the server for a server calendar.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "core/alarm/alarm.h"
#include "core/alarm/alarm_int.h"
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/record.h"
#include "core/db/retry.h"
#include "core/net/remote.h"
#include "core/people/perms.h"

namespace quorvel {

/* ==== State ================================================================================ */

static Item *defaults;                   // the list (its listB), read by GetDefaultAlarmlist
static int32_t defaultsTime = NO_TIME;   // modification time of the file it was read from
static std::string defaultsFile;         // that file's path
static Alarm spare{-1, 0, 0, nullptr};   // the current default before any was chosen
static int32_t currentUser = -1;         // the current default is this user's entry of the
                                         // list (an index, not a pointer: the list is
                                         // re-read and grown); -1 means the spare

void resetAlarmDefaults() {
  evfree(defaults);
  defaults = nullptr;
  defaultsTime = NO_TIME;
  defaultsFile.clear();
  freeMem(spare.string);
  spare = Alarm{-1, 0, 0, nullptr};
  currentUser = -1;
}

static Alarm *currentEntry() {
  Alarm *a = currentUser >= 0 && defaults != nullptr ? FindAlarm(defaults, currentUser) : nullptr;
  return a != nullptr ? a : &spare;
}

const Alarm *currentDefaultAlarm() { return currentEntry(); }

/* ==== Paths ================================================================================ */

// A per-user database: one whose directory lies under HOME + "/.quorvel/".
static bool isPerUserDb(const DbHandle *db) {
  char root[DB_PATH_MAX];
  return db != nullptr && userDbRoot(root) != nullptr && db->dir.rfind(root, 0) == 0;
}

std::string alarmDefaultsPath(const DbHandle *db) {
  const char *rel = dbPathSetting(DBP_ALARM_DEFS);
  char path[DB_PATH_MAX];
  if (isPerUserDb(db) && userDbRoot(path) != nullptr) return std::string(path) + rel;
  return resolveDbPath(path, rel);
}

/* ==== Reading ============================================================================== */

static std::string readWhole(FILE *f) {
  std::string text;
  char block[8192];
  size_t n;
  while ((n = fread(block, 1, sizeof block, f)) > 0) text.append(block, n);
  return text;
}

// Every record's first alarm, unless the list has one for that user already.
static void takeRecords(std::string text) {
  size_t len = text.size();
  text.push_back('\0');  // the scanner writes one byte past the end
  LineScan scan;
  startLineScan(&scan, text.data(), len);
  while (Item *record = parseItem(&scan, nullptr)) {
    const Alarm *a = record->listBCount > 0 ? &record->listB[0] : nullptr;
    if (a != nullptr && FindAlarm(defaults, a->user) == nullptr)
      AddAlarm(defaults, a->user, a->start, a->freq, a->string);
    evfree(record);
  }
}

static void readDefaults(DbHandle *calendar, const char *path) {
  evfree(defaults);
  defaults = evnew();
  char lockPath[DB_PATH_MAX];
  bool bracket = calendar != nullptr && usesLocalLocks(calendar);
  if (bracket) lockDatabase(writeLockPath(lockPath, calendar->dir.c_str()));
  DbHandle *previous = calendar != nullptr ? setCurrentDb(calendar) : currentDb();
  if (FILE *f = Fopen(path, "r")) {
    std::string text = readWhole(f);
    Fclose(f);
    takeRecords(std::move(text));
  }
  setCurrentDb(previous);
  if (bracket) unlockDatabase(lockPath);
}

Item *GetDefaultAlarmlist(DbHandle *calendar, const char *path) {
  int32_t changed = fileModTime(path, nullptr);
  if (defaults != nullptr && changed == defaultsTime && defaultsFile == path) return defaults;
  defaultsTime = changed;
  defaultsFile = path;
  readDefaults(calendar, path);
  return defaults;
}

/* ==== The server's record ================================================================== */

static std::string encodeDefault(int32_t user, uint32_t start, uint32_t freq, const char *string) {
  std::string rec(12, '\0');
  putWord32(&rec[0], uint32_t(user));
  putWord32(&rec[4], start);
  putWord32(&rec[8], freq);
  if (string != nullptr) rec.append(string, strlen(string) + 1);
  return rec;
}

static bool decodeDefault(const std::string &rec, Alarm *out) {
  if (rec.size() < 12) return false;
  *out = Alarm{int32_t(getWord32(&rec[0])), getWord32(&rec[4]), getWord32(&rec[8]), nullptr};
  if (rec.size() > 12) out->string = alarmCopyText(std::string(rec, 12).c_str(), "AddAlarm");
  return true;
}

static bool serverDefault(DbHandle *calendar, int32_t user, Alarm *out) {
  RemReply reply;
  if (RemGetDefaultAlarm(calendar->server, user, &reply) != 0) return false;
  for (const RemField &f : reply.fields)
    if (f.kind == FIELD_ALARM_DEFAULT) return decodeDefault(f.bytes, out);
  return false;
}

bool alarmDefaultFor(DbHandle *calendar, int32_t user, Alarm *out) {
  if (isServerAttached(calendar)) return serverDefault(calendar, user, out);
  const Alarm *a = FindAlarm(GetDefaultAlarmlist(calendar, alarmDefaultsPath(calendar).c_str()), user);
  if (a == nullptr) return false;
  *out = Alarm{a->user, a->start, a->freq, alarmCopyText(a->string, "AddAlarm")};
  return true;
}

/* ==== Writing ============================================================================== */

// The string is written up to its first line end: a line end inside it would start a
// record line of its own (another user's alarm) in the file.
static int writeEntry(FILE *f, const Alarm *a) {
  if (fprintf(f, "\n") < 0 || fprintf(f, "#%c\t%d,%d\n", 'A', int(a->start), int(a->freq)) < 0)
    return -1;
  if (a->string != nullptr &&
      fprintf(f, "#%c\t%.*s\n", 'E', int(strcspn(a->string, "\r\n")), a->string) < 0)
    return -1;
  CalSet user = nullptr;
  setbit(&user, a->user, 1);
  int r = writeCalendarSet(f, "#%c\t", 'V', user, fileLineWriter);
  freebits(&user);
  return r;
}

// The whole list into the scratch file, flushed to the disk; 0 or -1.
static int writeDefaults(const char *tmp, const Item *list) {
  FILE *f = Fopen(tmp, "w");
  if (f == nullptr) return -1;
  int r = 0;
  for (int i = 0; i < list->listBCount && r == 0; i++) r = writeEntry(f, &list->listB[i]);
  if (r == 0 && (fflush(f) != 0 || fsync(fileno(f)) != 0)) r = -1;
  if (Fclose(f) != 0) r = -1;
  return r;
}

static void syncDirOf(const std::string &path) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// Puts the scratch file in place: the old file is removed first, then the scratch
// renamed over its name (no saved copy is kept).
static int replaceDefaults(const std::string &tmp, const std::string &path, int written) {
  if (written != 0) {
    warning("PutDefaultAlarm: cannot write out tmp file");
    retryUnlink(tmp.c_str());
    return -1;
  }
  if (retryUnlink(path.c_str()) != 0 && errno != ENOENT) {
    warning("PutDefaultAlarm: cannot unlink old alarm defaults file");
    return -1;
  }
  if (retryRename(tmp.c_str(), path.c_str()) != 0) {
    warning("PutDefaultAlarm: cannot rename tmp to alarm defaults file");
    return -1;
  }
  syncDirOf(path);
  return 0;
}

// The current entry takes the values only when it is the spare or this user's own
// entry: stored over another user's entry of the list, they would overwrite that
// user's default, which the next write-out would then lose.
static void storeCurrent(int32_t user, uint32_t start, uint32_t freq, const char *string) {
  Alarm *c = currentEntry();
  if (c != &spare && c->user != user) c = &spare, currentUser = -1;
  char *copy = alarmCopyText(string, "AddAlarm");
  freeMem(c->string);
  *c = Alarm{user, start, freq, copy};
  if (c != &spare) currentUser = user;
}

int PutDefaultAlarm(int32_t user, uint32_t start, uint32_t freq, const char *string) {
  DbHandle *db = currentDb();
  if (!isPerUserDb(db)) {
    storeCurrent(user, start, freq, string);
    if (db != nullptr && isServerAttached(db)) {
      std::string rec = encodeDefault(user, start, freq, string);
      return RemPutDefaultAlarm(db->server, RemBytes{rec.data(), rec.size()}, nullptr);
    }
  }
  if (defaults == nullptr) defaults = evnew();
  SetAlarm(defaults, user, start, freq, string);
  std::string path = alarmDefaultsPath(db), tmp = path + "TMP";
  Item *list = GetDefaultAlarmlist(db, path.c_str());
  SetAlarm(list, user, start, freq, string);
  currentUser = user;
  DbHandle *previous = db != nullptr ? setCurrentDb(db) : currentDb();  // names of db
  int written = writeDefaults(tmp.c_str(), list);
  setCurrentDb(previous);
  int r = replaceDefaults(tmp, path, written);
  retryChmod(path.c_str(), 0600);
  return r;
}

}  // namespace quorvel
