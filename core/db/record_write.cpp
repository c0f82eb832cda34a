// record_write.cpp -- writes calendar items, list headers and the small line groups of
// record files through a line writer, and the two sinks those writers fill (a stream
// and an in-memory text handed on to a stream in large pieces).
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/db/context.h"
#include "core/db/record.h"
#include "core/net/namelookup.h"

namespace quorvel {

/* ==== Sinks ====================================================================== */

int fileLineWriter(void *sink, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vfprintf(static_cast<FILE *>(sink), fmt, ap);
  va_end(ap);
  return n;
}

// Appends the decimal or hexadecimal digits of v.
static void appendNumber(std::string &out, unsigned long v, bool negative, int base) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[v % unsigned(base)];
    v /= unsigned(base);
  } while (v != 0);
  if (negative) out.push_back('-');
  while (n > 0) out.push_back(digits[--n]);
}

// Appends fmt formatted; false at the first conversion other than %c %s %d %ld %x %lx
// %% (the caller then formats the whole line with vsnprintf instead).
static bool formatSimple(std::string &out, const char *fmt, va_list ap) {
  for (const char *p = fmt; *p != '\0'; p++) {
    if (*p != '%') {
      const char *q = p;
      while (*q != '\0' && *q != '%') q++;
      out.append(p, size_t(q - p));
      p = q - 1;
      continue;
    }
    bool isLong = *++p == 'l';
    if (isLong) p++;
    if (*p == '%') {
      out.push_back('%');
    } else if (*p == 'c') {
      out.push_back(char(va_arg(ap, int)));
    } else if (*p == 's') {
      const char *s = va_arg(ap, const char *);
      out.append(s != nullptr ? s : "(null)");
    } else if (*p == 'd') {
      long v = isLong ? va_arg(ap, long) : va_arg(ap, int);
      appendNumber(out, v < 0 ? 0UL - (unsigned long)v : (unsigned long)v, v < 0, 10);
    } else if (*p == 'x') {
      unsigned long v = isLong ? va_arg(ap, unsigned long) : va_arg(ap, unsigned);
      appendNumber(out, v, false, 16);
    } else {
      return false;
    }
  }
  return true;
}

int flushTextSink(TextSink *sink) {
  if (sink->file == nullptr || sink->text.empty()) return 0;
  errno = 0;
  size_t n = fwrite(sink->text.data(), 1, sink->text.size(), sink->file);
  if (n != sink->text.size()) {
    if (sink->error == 0) sink->error = errno != 0 ? errno : -1;
    return -1;
  }
  sink->text.clear();
  return 0;
}

int textLineWriter(void *out, const char *fmt, ...) {
  TextSink *sink = static_cast<TextSink *>(out);
  size_t before = sink->text.size();
  va_list ap;
  va_start(ap, fmt);
  bool simple = formatSimple(sink->text, fmt, ap);
  va_end(ap);
  if (!simple) {  // start again from the first argument
    sink->text.resize(before);
    va_start(ap, fmt);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n > 0) {
      sink->text.resize(before + size_t(n) + 1);
      va_start(ap, fmt);
      vsnprintf(&sink->text[before], size_t(n) + 1, fmt, ap);
      va_end(ap);
      sink->text.resize(before + size_t(n));
    }
  }
  int written = int(sink->text.size() - before);
  if (sink->file != nullptr && sink->text.size() > sink->flushAt && flushTextSink(sink) != 0)
    return -1;
  return sink->error != 0 ? -1 : written;
}

/* ==== Values ====================================================================== */

// Cuts a text in place at its first line feed or carriage return, or before a
// backslash that is its last character: such a text could not be read back.
static void cutText(char *text) {
  if (text == nullptr) return;
  size_t n = strcspn(text, "\n\r");
  while (n > 0 && text[n - 1] == '\\') n--;
  text[n] = '\0';
}

// Appends "0x" and the hexadecimal digits of v.
static char *putHex(char *out, unsigned long v) {
  char digits[16];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[v & 15];
    v >>= 4;
  } while (v != 0);
  *out++ = '0';
  *out++ = 'x';
  while (n > 0) *out++ = digits[--n];
  return out;
}

// A date-time line. The text is the one formatDateTime gives (the tests hold the two
// together); it is built here by hand because a record file has two or three of these
// per item and snprintf was the writer's largest single cost.
static int writeDateTime(void *sink, char tag, const DateTime &dt, const DateTime *defaults,
                         LineWriter out) {
  bool withQ1 = defaults == nullptr || dt.q1 != defaults->q1;
  bool withQ2 = withQ1 && (defaults == nullptr || dt.q2 != defaults->q2);
  char line[DATETIME_TEXT + 8];
  char *p = line;
  *p++ = '#';
  *p++ = tag;
  *p++ = '\t';
  p = putHex(p, (unsigned long)uint32_t(dt.time));
  if (withQ1) {
    *p++ = ' ';
    *p++ = '@';
    p = putHex(p, dt.q1);
  }
  if (withQ2) {
    *p++ = ' ';
    *p++ = '%';
    p = putHex(p, dt.q2);
  }
  *p++ = '\n';
  *p = '\0';
  return out(sink, "%s", line) < 0 ? -1 : 0;
}

// Appends one member's name with the separators of the line. False, with nothing
// appended, for a member without a name: the line ends there.
static bool addMember(std::string &line, int index, int *column) {
  const char *name = calendarName(index);
  if (name == nullptr || *name == '\0') return false;
  if (*column >= 0) {  // not the first member
    line.push_back(',');
    if (++*column > 60) {
      line.append("\\\n\t");
      *column = 8;
    }
  } else {
    *column = 8;
  }
  size_t n = strlen(name);
  line.append(name, n);
  *column += int(n);
  return true;
}

// The members of a non-empty set and the line end, appended to line. Members are found
// word by word (the set's layout is fixed by calset.h). False at a nameless member.
static bool addMembers(std::string &line, const uint16_t *set) {
  if (setMembers(set) == calendarCount()) {
    line.append(ALL_NAMES).push_back('\n');
    return true;
  }
  int column = -1, bits = setBitCount(set);
  for (int w = 0; w * 16 < bits; w++) {
    for (unsigned word = set[1 + w]; word != 0; word &= word - 1) {
      int i = w * 16 + std::countr_zero(word);
      if (i >= bits) break;
      if (!addMember(line, i, &column)) return false;
    }
  }
  line.push_back('\n');
  return true;
}

// A set line is gathered whole and handed to the line writer at once; at a nameless
// member what was gathered is written and the line left unfinished.
static int writeSetLine(void *sink, std::string &line, const uint16_t *set, LineWriter out) {
  bool complete = addMembers(line, set);
  int rc = out(sink, "%s", line.c_str()) < 0 ? -1 : 0;
  return complete ? rc : -1;
}

int writeNameSet(void *sink, char tag, const uint16_t *set, LineWriter out) {
  if (setIsEmpty(set)) return 0;
  std::string line = {'#', tag, '\t'};
  return writeSetLine(sink, line, set, out);
}

// The set holding only user, written without building it: "__ALL__" when there is just
// one calendar, else the user's name.
static int writeUserSet(void *sink, char tag, int user, LineWriter out) {
  if (user >= 0xFFFF) return 0;  // beyond any set: the set would be empty
  std::string line = {'#', tag, '\t'};
  int column = -1;
  bool complete = calendarCount() == 1 ? (line.append(ALL_NAMES), true) : addMember(line, user, &column);
  if (complete) line.push_back('\n');
  int rc = out(sink, "%s", line.c_str()) < 0 ? -1 : 0;
  return complete ? rc : -1;
}

static int writeOwner(void *sink, int32_t owner, LineWriter out) {
  if (owner == OWNER_ALL) return out(sink, "#%c\t%s\n", 'O', ALL_NAMES) < 0 ? -1 : 0;
  if (owner < 0) return 0;
  const char *name = calendarName(owner);
  return out(sink, "#%c\t%s\n", 'O', name != nullptr ? name : "") < 0 ? -1 : 0;
}

/* ==== Item parts ================================================================== */

static int writePopups(void *sink, Item *item, LineWriter out) {
  int rc = 0;
  for (int i = 0; i < item->popupCount; i++) {
    Popup &p = item->popups[i];
    cutText(p.title);
    if (out(sink, "#%c\t%s ", 'P', p.title != nullptr ? p.title : "") < 0) rc = -1;
    if (out(sink, "0x%lx\n", (unsigned long)uint32_t(p.mask)) < 0) rc = -1;
    if (writeNameSet(sink, 'S', p.setS, out) != 0) rc = -1;
    if (writeNameSet(sink, 'r', p.setR, out) != 0) rc = -1;
  }
  return rc;
}

static int writeAlarms(void *sink, Item *item, LineWriter out) {
  int rc = 0;
  for (int i = 0; i < item->listBCount; i++) {
    Alarm &a = item->listB[i];
    if (out(sink, "#%c\t%d,%d\n", 'A', int(a.start), int(a.freq)) < 0) rc = -1;
    cutText(a.string);
    if (a.string != nullptr && *a.string != '\0' && out(sink, "#%c\t%s\n", 'E', a.string) < 0)
      rc = -1;
    if (a.user >= 0 && writeUserSet(sink, 'V', a.user, out) != 0) rc = -1;
  }
  return rc;
}

static int writeUserTimes(void *sink, Item *item, const DateTime *defaults, LineWriter out) {
  int rc = 0;
  for (int i = 0; i < item->listCCount; i++) {
    const UserTime &u = item->listC[i];
    if (u.user < 0) continue;
    const char *name = calendarName(u.user);
    if (name == nullptr || out(sink, "#%c\t%s\n", 'Z', name) < 0) rc = -1;
    if (writeDateTime(sink, 'Q', u.when, defaults, out) != 0) rc = -1;
  }
  return rc;
}

static int writeLabelSets(void *sink, Item *item, LineWriter out) {
  int rc = 0;
  for (int i = 0; i < item->listDCount; i++) {
    LabelSet &k = item->listD[i];
    if (setIsEmpty(k.set)) continue;
    cutText(k.label);
    std::string line = {'#', 'K', '\t'};
    line.append(k.label != nullptr ? k.label : "").push_back(':');
    if (writeSetLine(sink, line, k.set, out) != 0) rc = -1;
  }
  return rc;
}

static int writeNumbers(void *sink, const Item *item, LineWriter out) {
  int rc = 0;
  if (item->randomId >= 0 && out(sink, "#%c\t%ld\n", 'I', long(item->randomId)) < 0) rc = -1;
  const struct {
    char tag;
    int32_t value;
  } timed[] = {{'H', item->hNumber}, {'d', item->aNumber}, {'f', item->fNumber},
               {'s', item->gNumber}, {'e', item->eNumber}};
  for (const auto &t : timed)
    if (t.value != NO_TIME && out(sink, "#%c\t%ld\n", t.tag, long(t.value)) < 0) rc = -1;
  if (item->linkByte != 0 && out(sink, "#%c\t%ld\n", 'L', long(item->linkByte)) < 0) rc = -1;
  return rc;
}

static char kindLetter(uint16_t kind) {
  switch (kind) {
    case KIND_EVENT: return 'T';
    case KIND_TODO: return 'D';
    case KIND_REMINDER: return 'M';
    default: return '?';
  }
}

/* ==== Items and lists ============================================================== */

// The sets and the owner, in the item's own order W Y N X O R C.
static int writeItemSets(void *sink, const Item *item, LineWriter out) {
  int rc = 0;
  const struct {
    char tag;
    const uint16_t *set;
  } before[] = {{'W', item->calendars}, {'Y', item->setY}, {'N', item->setN}, {'X', item->setX}};
  for (const auto &s : before)
    if (writeNameSet(sink, s.tag, s.set, out) != 0) rc = -1;
  if (writeOwner(sink, item->owner, out) != 0) rc = -1;
  if (writeNameSet(sink, 'R', item->setR, out) != 0) rc = -1;
  if (writeNameSet(sink, 'C', item->setC, out) != 0) rc = -1;
  return rc;
}

int writeItem(void *sink, Item *item, const DateTime *defaults, LineWriter out) {
  int rc = 0;
  cutText(item->title);
  if (out(sink, "#%c\t%s\n", kindLetter(item->dWord), item->title ? item->title : "") < 0) rc = -1;
  if (writeDateTime(sink, 'B', item->timeValue.start, defaults, out) != 0) rc = -1;
  if (writeDateTime(sink, 'F', item->timeValue.end, defaults, out) != 0) rc = -1;
  DbHandle *previous = currentDb();
  bool switched = false;
  if (item->dbName != nullptr && *item->dbName != '\0') {
    cutText(item->dbName);
    if (out(sink, "#%c\t%s\n", item->dbFlag ? 'j' : 'J', item->dbName) < 0) rc = -1;
    if (DbHandle *db = findDbByName(item->dbName)) {
      setCurrentDb(db);
      switched = true;
    }
  }
  if (writeItemSets(sink, item, out) != 0) rc = -1;
  if (item->uWord != 0 && out(sink, "#%c\t%d\n", 'U', int(item->uWord)) < 0) rc = -1;
  if (writePopups(sink, item, out) != 0) rc = -1;
  if (writeAlarms(sink, item, out) != 0) rc = -1;
  if (writeUserTimes(sink, item, defaults, out) != 0) rc = -1;
  if (writeLabelSets(sink, item, out) != 0) rc = -1;
  if (writeNumbers(sink, item, out) != 0) rc = -1;
  if (out(sink, "\n") < 0) rc = -1;
  if (switched) setCurrentDb(previous);
  return rc;
}

int writeItemChain(void *sink, Item *item, const DateTime *defaults, LineWriter out) {
  int rc = 0;
  for (Item *c = item; c != nullptr; c = c->chain)
    if (writeItem(sink, c, defaults, out) != 0) rc = -1;
  return rc;
}

const DateTime *listDefaults(const Item *head) {
  const TimeRange &r = head->timeValue;
  return r.start.time != NO_TIME && r.end.time != NO_TIME ? &r.start : nullptr;
}

// The list's name sets in the header's order W R C Y N X.
static int writeHeaderSets(void *sink, const Item *head, LineWriter out) {
  const struct {
    char tag;
    const uint16_t *set;
  } sets[] = {{'W', head->calendars}, {'R', head->setR}, {'C', head->setC},
              {'Y', head->setY},      {'N', head->setN}, {'X', head->setX}};
  int rc = 0;
  for (const auto &s : sets)
    if (writeNameSet(sink, s.tag, s.set, out) != 0) rc = -1;
  return rc;
}

int writeListHeader(void *sink, Item *head, LineWriter out) {
  int rc = out(sink, "\n") < 0 ? -1 : 0;
  if (writeOwner(sink, head->owner, out) != 0) rc = -1;
  if (head->dbName != nullptr && *head->dbName != '\0' && findDbByName(head->dbName) != nullptr) {
    cutText(head->dbName);
    if (out(sink, "#%c\t%s\n", 'J', head->dbName) < 0) rc = -1;
  }
  if (listDefaults(head) != nullptr) {
    if (writeDateTime(sink, 'B', head->timeValue.start, nullptr, out) != 0) rc = -1;
    if (writeDateTime(sink, 'F', head->timeValue.end, nullptr, out) != 0) rc = -1;
  }
  if (writeHeaderSets(sink, head, out) != 0) rc = -1;
  return rc;
}

int writeRangeGroup(void *sink, const TimeRange &range, LineWriter out) {
  int rc = writeDateTime(sink, 'B', range.start, nullptr, out);
  if (writeDateTime(sink, 'F', range.end, nullptr, out) != 0) rc = -1;
  if (out(sink, "\n") < 0) rc = -1;
  return rc;
}

int writeNumberGroup(void *sink, int number, LineWriter out) {
  int rc = out(sink, "#%c\t%d\n", 'n', number) < 0 ? -1 : 0;
  if (out(sink, "\n") < 0) rc = -1;
  return rc;
}

// The list is written with its own database current, when that database is open.
int writeListLines(void *sink, Item *head, LineWriter out, int *records) {
  DbHandle *previous = currentDb();
  DbHandle *own = head->dbName != nullptr && *head->dbName ? findDbByName(head->dbName) : nullptr;
  if (own != nullptr) setCurrentDb(own);
  int rc = writeListHeader(sink, head, out);
  const DateTime *defaults = listDefaults(head);
  int count = 0;
  for (Item *e = head->next; e != head; e = e->next, count++)
    if (writeItemChain(sink, e, defaults, out) != 0) rc = -1;
  if (own != nullptr) setCurrentDb(previous);
  if (records != nullptr) *records = count;
  return rc;
}

int writeList(std::string *text, Item *head, int *records) {
  TextSink sink;
  sink.text.swap(*text);
  int rc = writeListLines(&sink, head, textLineWriter, records);
  text->swap(sink.text);
  return rc;
}

}  // namespace quorvel
