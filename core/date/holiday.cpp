// holiday.cpp -- holiday records, their lists and text form, the two holiday files and
// the date lookup. Divisions: local days, the text form, records and lists, files, the
// process-wide lists.
#include "core/date/holiday.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/layout.h"
#include "core/db/recordfile.h"
#include "core/db/retry.h"

namespace quorvel {

// The process-wide lists and the holiday-file language. Filled on first use by
// HolidayFor / SystemHolidays / UserHolidays (LoadHolidays again on demand), replaced by
// SaveUserHolidays, freed by resetHolidays.
static Holiday **systemList = nullptr;
static int systemCount = 0;
static bool systemLoaded = false;
static Holiday **userList = nullptr;
static int userCount = 0;
static bool userLoaded = false;
static char *holidayLanguage = nullptr;  // set by SetHolidayLanguage; null: no suffix

/* ==== Local days ===================================================================== */

// Local midnight of a day (month 0..11), refusing dates that do not exist (31 April)
// and times a 32-bit time cannot hold. 0 or -1.
static int dayStart(int year, int month, int day, int32_t *out) {
  if (year < 1902 || year > 2037 || month < 0 || month > 11 || day < 1 || day > 31) return -1;
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month;
  tm.tm_mday = day;
  tm.tm_isdst = -1;
  time_t t = mktime(&tm);
  if (t == time_t(-1) || tm.tm_mday != day || tm.tm_mon != month) return -1;
  if (t <= time_t(INT32_MIN) || t >= time_t(INT32_MAX)) return -1;
  *out = int32_t(t);
  return 0;
}

// The last second of a day: the next day's midnight less one second.
static int dayEnd(int year, int month, int day, int32_t *out) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month;
  tm.tm_mday = day + 1;  // mktime carries into the next month or year
  tm.tm_isdst = -1;
  int32_t start;
  if (dayStart(year, month, day, &start) != 0) return -1;
  time_t t = mktime(&tm);
  if (t == time_t(-1) || t - 1 <= time_t(start) || t - 1 > time_t(INT32_MAX)) return -1;
  *out = int32_t(t - 1);
  return 0;
}

int HolidayPeriod(int year1, int month1, int day1, int year2, int month2, int day2,
                  TimeRange *out) {
  TimeRange r = initTimeRange();
  r.start.q1 = r.start.q2 = r.end.q1 = r.end.q2 = 0;
  if (dayStart(year1, month1, day1, &r.start.time) != 0) return -1;
  if (dayEnd(year2, month2, day2, &r.end.time) != 0) return -1;
  *out = r;
  return 0;
}

/* ==== The text form ================================================================== */

// "m/d/yyyy" of the local date of t; false when the time has no local date.
static bool dateText(int32_t t, char *out, size_t cap) {
  time_t tt = t;
  struct tm tm;
  if (localtime_r(&tt, &tm) == nullptr) return false;
  snprintf(out, cap, "%d/%d/%d", tm.tm_mon + 1, tm.tm_mday, tm.tm_year + 1900);
  return true;
}

// A decimal number of at most 6 digits at *p; advances *p. -1 when there is none.
static int readNumber(const char **p, const char *end) {
  int v = 0, digits = 0;
  while (*p < end && **p >= '0' && **p <= '9' && digits < 6) v = v * 10 + (*(*p)++ - '0'), digits++;
  return digits == 0 ? -1 : v;
}

// "m/d/yyyy" into its three numbers (month 0..11); false when malformed.
static bool readDate(const char **p, const char *end, int *y, int *m, int *d) {
  *m = readNumber(p, end) - 1;
  if (*m < 0 || *p >= end || *(*p)++ != '/') return false;
  *d = readNumber(p, end);
  if (*d < 0 || *p >= end || *(*p)++ != '/') return false;
  *y = readNumber(p, end);
  return *y >= 0;
}

static void skipBlanks(const char **p, const char *end) {
  while (*p < end && (**p == ' ' || **p == '\t' || **p == '\r')) ++*p;
}

// The period text "m/d/yyyy - m/d/yyyy" between p and end, as the writer writes it
// (blanks around the dash and at the end are allowed). 0 or -1.
static int parsePeriod(const char *p, const char *end, TimeRange *out) {
  int y1, m1, d1, y2, m2, d2;
  if (!readDate(&p, end, &y1, &m1, &d1)) return -1;
  skipBlanks(&p, end);
  if (p >= end || *p++ != '-') return -1;
  skipBlanks(&p, end);
  if (!readDate(&p, end, &y2, &m2, &d2)) return -1;
  skipBlanks(&p, end);
  if (p != end) return -1;
  return HolidayPeriod(y1, m1, d1, y2, m2, d2, out);
}

static char *copyBytes(const char *from, size_t len) {
  char *s = static_cast<char *>(allocMem(nullptr, len + 1));
  if (s == nullptr) outOfMem("copyHolidayText");
  memcpy(s, from, len);
  s[len] = 0;
  return s;
}

// One line from p (up to its newline or the end) as a record; null when the "*", the
// ":" or a readable period is missing. *next receives where the following line starts.
static Holiday *parseLine(const char *p, const char **next) {
  const char *eol = strchr(p, '\n');
  const char *end = eol != nullptr ? eol : p + strlen(p);
  *next = eol != nullptr ? eol + 1 : end;
  // The fields are searched within the line, so that a line without its ":" ends the
  // list there instead of borrowing the next line's fields.
  const char *star = static_cast<const char *>(memchr(p, '*', size_t(end - p)));
  if (star == nullptr) return nullptr;
  const char *colon = static_cast<const char *>(memchr(star + 1, ':', size_t(end - star - 1)));
  if (colon == nullptr) return nullptr;
  const char *period = colon + 1;
  while (period < end && (*period == ' ' || *period == '\t')) period++;
  TimeRange r;
  if (period == end || parsePeriod(period, end, &r) != 0) return nullptr;
  bool work = size_t(colon - star - 1) == 7 && memcmp(star + 1, "workday", 7) == 0;
  Holiday *h = static_cast<Holiday *>(allocMem(nullptr, sizeof(Holiday)));
  if (h == nullptr) outOfMem("ParseHolidays");
  *h = Holiday{copyBytes(p, size_t(star - p)), r, work ? 1 : 0};
  return h;
}

Holiday **ParseHolidays(const char *text, int *count) {
  Holiday **list = nullptr;
  *count = 0;
  if (text == nullptr) return nullptr;
  const char *p = text;
  for (;;) {
    while (*p == ' ' || *p == '\t' || *p == '\n') p++;
    if (*p == 0) break;
    Holiday *h = parseLine(p, &p);
    if (h == nullptr) break;  // a malformed line ends the list; earlier records stay
    list = static_cast<Holiday **>(allocMem(list, sizeof(Holiday *) * size_t(*count + 1)));
    if (list == nullptr) outOfMem("ParseHolidays");
    list[(*count)++] = h;
  }
  return list;
}

// The line of one record. The name is cut at its first line end: the text form has
// one holiday a line, and a name running on would end the list at the next read.
static bool holidayLine(const Holiday *h, std::string *line) {
  if (h == nullptr || h->name == nullptr || h->name[0] == 0) return false;
  char from[40], to[40];
  if (!dateText(h->period.start.time, from, sizeof from) ||
      !dateText(h->period.end.time, to, sizeof to))
    return false;
  line->assign(h->name, strcspn(h->name, "\n"));
  *line += h->workday ? "*workday:\t" : "*nonworkday:\t";
  *line += std::string(from) + " - " + to + "\n";
  return true;
}

char *FormatHolidays(Holiday *const *list, int count) {
  size_t cap = 512, len = 0;
  char *text = static_cast<char *>(allocMem(nullptr, cap));
  if (text == nullptr) outOfMem("FormatHolidays");
  text[0] = 0;
  std::string line;
  for (int i = 0; i < count; i++) {
    if (!holidayLine(list[i], &line)) continue;
    // 512 more bytes whenever fewer than 512 remain; a line longer than that (a long
    // name) gets as many more steps as it needs, so the copy below always fits.
    while (cap - len < 512 || cap - len <= line.size()) cap += 512;
    text = static_cast<char *>(allocMem(text, cap));
    if (text == nullptr) outOfMem("FormatHolidays");
    memcpy(text + len, line.c_str(), line.size() + 1);
    len += line.size();
  }
  return text;
}

/* ==== Records and lists ============================================================== */

Holiday *NewHoliday(const char *name, const TimeRange &period, int workday) {
  Holiday *h = static_cast<Holiday *>(allocMem(nullptr, sizeof(Holiday)));
  if (h == nullptr) outOfMem("NewHoliday");
  *h = Holiday{name != nullptr ? copyBytes(name, strlen(name)) : nullptr, period, workday};
  return h;
}

Holiday *CopyHoliday(const Holiday *h) { return NewHoliday(h->name, h->period, h->workday); }

Holiday **CopyHolidays(Holiday *const *list, int count) {
  if (count <= 0) return nullptr;
  Holiday **copy = static_cast<Holiday **>(allocMem(nullptr, sizeof(Holiday *) * size_t(count)));
  if (copy == nullptr) outOfMem("CopyHolidays");
  for (int i = 0; i < count; i++) copy[i] = CopyHoliday(list[i]);
  return copy;
}

Holiday **AppendHoliday(Holiday **list, int *count, const Holiday *h) {
  list = static_cast<Holiday **>(allocMem(list, sizeof(Holiday *) * size_t(*count + 1)));
  if (list == nullptr) outOfMem("AppendHoliday");
  list[(*count)++] = CopyHoliday(h);
  return list;
}

int RemoveHoliday(Holiday ***list, int *count, int index) {
  if (index < 0 || index >= *count) return -1;
  FreeHoliday((*list)[index]);
  memmove(*list + index, *list + index + 1, sizeof(Holiday *) * size_t(*count - index - 1));
  if (--*count == 0) {
    freeMem(*list);
    *list = nullptr;
    return 0;
  }
  Holiday **shrunk = static_cast<Holiday **>(allocMem(*list, sizeof(Holiday *) * size_t(*count)));
  if (shrunk != nullptr) *list = shrunk;  // a failed shrink keeps the larger array
  return 0;
}

void FreeHoliday(Holiday *h) {
  if (h == nullptr) return;
  freeMem(h->name);
  freeMem(h);
}

void FreeHolidays(Holiday **list, int count) {
  for (int i = 0; i < count; i++) FreeHoliday(list[i]);
  freeMem(list);
}

int CompareHoliday(const Holiday *a, const Holiday *b) {
  const char *na = a->name != nullptr ? a->name : "", *nb = b->name != nullptr ? b->name : "";
  bool same = strcmp(na, nb) == 0 && a->workday == b->workday &&
              sameDateTime(a->period.start, b->period.start) &&
              sameDateTime(a->period.end, b->period.end);
  return same ? 0 : -1;
}

int CompareHolidays(Holiday *const *a, int na, Holiday *const *b, int nb) {
  if (na != nb) return -1;
  for (int i = 0; i < na; i++)
    if (CompareHoliday(a[i], b[i]) != 0) return -1;
  return 0;
}

void SortHolidays(Holiday **list, int count) {
  if (count <= 1) return;
  std::stable_sort(list, list + count, [](const Holiday *a, const Holiday *b) {
    return a->period.start.time < b->period.start.time;
  });
}

/* ==== Files ========================================================================== */

char *SystemHolidayPath(char *dest) {
  resolveDbPath(dest, dbPathSetting(DBP_HOLIDAYS));
  if (holidayLanguage != nullptr && strcmp(holidayLanguage, "En_US") != 0) {
    std::string base = dest;
    snprintf(dest, DB_PATH_MAX, "%s.%s", base.c_str(), holidayLanguage);
  }
  return dest;
}

char *UserHolidayPath(char *dest) {
  const char *home = getenv("HOME");
  if (home == nullptr) return nullptr;
  snprintf(dest, DB_PATH_MAX, "%s/.quorvel/holidays", home);
  return dest;
}

void SetHolidayLanguage(const char *code) {
  freeMem(holidayLanguage);
  holidayLanguage = code != nullptr ? copyBytes(code, strlen(code)) : nullptr;
  systemLoaded = false;
}

const char *HolidayLanguage() { return holidayLanguage; }

int ReadHolidayFile(const char *path, Holiday ***list, int *count) {
  *list = nullptr;
  *count = 0;
  errno = 0;
  FILE *fp = Fopen(path, "r");
  if (fp == nullptr) return errno == ENOENT || errno == 0 ? 0 : errno;
  std::string text;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, fp)) > 0) text.append(chunk, n);
  int rc = ferror(fp) ? (errno != 0 ? errno : EIO) : 0;
  Fclose(fp);
  if (rc != 0) return rc;
  *list = ParseHolidays(text.c_str(), count);
  return 0;
}

// Writes text to path + "TMP", flushed and synced: 0 or errno (the scratch removed).
static int writeScratch(const std::string &tmp, const char *text) {
  errno = 0;
  FILE *fp = Fopen(tmp.c_str(), "w");
  if (fp == nullptr) return errno != 0 ? errno : -ESRCH;
  size_t len = strlen(text);
  int rc = fwrite(text, 1, len, fp) != len || fflush(fp) != 0 || fsync(fileno(fp)) != 0;
  rc = rc != 0 ? (errno != 0 ? errno : EIO) : 0;
  if (Fclose(fp) != 0 && rc == 0) rc = errno != 0 ? errno : EIO;
  if (rc != 0) retryUnlink(tmp.c_str());
  return rc;
}

int WriteHolidayFile(const char *path, Holiday *const *list, int count) {
  char *text = FormatHolidays(list, count);
  struct stat st;
  bool exists = retryStat(path, &st) == 0;
  if (text[0] == 0) {
    // The rewrite refuses to put an empty file in place, so an emptied list removes
    // the file instead: reading a missing file gives the same empty list.
    freeMem(text);
    return exists && retryUnlink(path) != 0 ? errno : 0;
  }
  std::string tmp = std::string(path) + "TMP";
  int rc = writeScratch(tmp, text);
  freeMem(text);
  if (rc != 0) return rc;
  if (!exists) {
    // The rewrite moves the old file aside first and fails when there is none; a new
    // file simply takes its place by the rename.
    errno = 0;
    if (retryRename(tmp.c_str(), path) == 0) return 0;
    rc = errno != 0 ? errno : -E2BIG;
    retryUnlink(tmp.c_str());
    return rc;
  }
  RecordFile *rf = newRecordFile(path, nullptr);
  rc = tmprelink(rf);
  freeRecordFile(rf);
  return rc;
}

/* ==== The process-wide lists ========================================================== */

static void loadSystem() {
  FreeHolidays(systemList, systemCount);
  char path[DB_PATH_MAX];
  ReadHolidayFile(SystemHolidayPath(path), &systemList, &systemCount);
  systemLoaded = true;
}

static void loadUser() {
  FreeHolidays(userList, userCount);
  userList = nullptr;
  userCount = 0;
  char path[DB_PATH_MAX];
  if (UserHolidayPath(path) != nullptr) ReadHolidayFile(path, &userList, &userCount);
  userLoaded = true;
}

void LoadHolidays() {
  loadSystem();
  loadUser();
}

Holiday **SystemHolidays(int *count) {
  if (!systemLoaded) loadSystem();
  *count = systemCount;
  return systemList;
}

Holiday **UserHolidays(int *count) {
  if (!userLoaded) loadUser();
  *count = userCount;
  return userList;
}

int SaveUserHolidays(Holiday **list, int count) {
  if (list != userList) FreeHolidays(userList, userCount);
  userList = list;
  userCount = count;
  userLoaded = true;
  char path[DB_PATH_MAX];
  if (UserHolidayPath(path) == nullptr) return -1;
  return WriteHolidayFile(path, list, count);
}

// The first record whose period starts before the day ends and ends after it starts.
static const Holiday *covering(Holiday *const *list, int count, const TimeRange &day) {
  for (int i = 0; i < count; i++)
    if (list[i]->period.start.time < day.end.time && list[i]->period.end.time > day.start.time)
      return list[i];
  return nullptr;
}

const char *HolidayFor(int year, int month, int day, int *workday) {
  TimeRange d;
  if (HolidayPeriod(year, month, day, year, month, day, &d) != 0) return nullptr;
  int nu, ns;
  Holiday **u = UserHolidays(&nu), **s = SystemHolidays(&ns);
  const Holiday *h = covering(u, nu, d);
  if (h == nullptr) h = covering(s, ns, d);
  if (h == nullptr) return nullptr;
  if (workday != nullptr) *workday = h->workday;
  return h->name;
}

void resetHolidays() {
  FreeHolidays(systemList, systemCount);
  FreeHolidays(userList, userCount);
  systemList = userList = nullptr;
  systemCount = userCount = 0;
  systemLoaded = userLoaded = false;
  freeMem(holidayLanguage);
  holidayLanguage = nullptr;
}

}  // namespace quorvel
