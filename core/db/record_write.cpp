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

// Appends the decimal or hexadecimal digits of v. The two bases are spelled out so that
// the divisions become shifts and multiplications: numbers are most of a record file.
static void appendNumber(std::string &out, unsigned long v, bool negative, int base) {
  char digits[24];
  char *p = digits + sizeof digits;
  if (base == 16) {
    do {
      *--p = "0123456789abcdef"[v & 15];
      v >>= 4;
    } while (v != 0);
  } else {
    do {
      *--p = char('0' + v % 10);
      v /= 10;
    } while (v != 0);
  }
  if (negative) *--p = '-';
  out.append(p, size_t(digits + sizeof digits - p));
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

/* ==== Gathering lines ============================================================= */

// The lines of one item (or header, or group) are gathered into a text and handed to
// the line writer in one call: a record file is mostly a long run of short lines, and
// a call per line cost more than the lines themselves. Each add* helper appends whole
// lines; those that can fail return false, having appended what they wrote so far.

// Cuts a text in place at its first line feed or carriage return, or before a
// backslash that is its last character: such a text could not be read back.
static void cutText(char *text) {
  if (text == nullptr) return;
  size_t n = strcspn(text, "\n\r");
  while (n > 0 && text[n - 1] == '\\') n--;
  text[n] = '\0';
}

static void addPrefix(std::string &t, char tag) {
  t.push_back('#');
  t.push_back(tag);
  t.push_back('\t');
}

static void addText(std::string &t, char tag, const char *value) {
  addPrefix(t, tag);
  t.append(value != nullptr ? value : "");
  t.push_back('\n');
}

static void addNumber(std::string &t, char tag, long v) {
  addPrefix(t, tag);
  appendNumber(t, v < 0 ? 0UL - (unsigned long)v : (unsigned long)v, v < 0, 10);
  t.push_back('\n');
}

static void addHex(std::string &t, unsigned long v) {
  t.append("0x");
  appendNumber(t, v, false, 16);
}

static void addDateTime(std::string &t, char tag, const DateTime &dt, const DateTime *defaults) {
  char text[DATETIME_TEXT];
  addPrefix(t, tag);
  t.append(text, size_t(formatDateTime(text, sizeof text, dt, defaults)));
  t.push_back('\n');
}

// One member's name with the separators of the line. False, with nothing appended,
// for a member without a name: the line ends there.
static bool addMember(std::string &t, int index, int *column) {
  const char *name = calendarName(index);
  if (name == nullptr || *name == '\0') return false;
  if (*column >= 0) {  // not the first member
    t.push_back(',');
    if (++*column > 60) {
      t.append("\\\n\t");
      *column = 8;
    }
  } else {
    *column = 8;
  }
  size_t n = strlen(name);
  t.append(name, n);
  *column += int(n);
  return true;
}

// The members of a non-empty set and the line end. Members are found word by word
// (the set's layout is fixed by calset.h). False at a nameless member.
static bool addMembers(std::string &t, const uint16_t *set) {
  if (setMembers(set) == calendarCount()) {
    t.append(ALL_NAMES).push_back('\n');
    return true;
  }
  int column = -1, bits = setBitCount(set);
  for (int w = 0; w * 16 < bits; w++) {
    for (unsigned word = set[1 + w]; word != 0; word &= word - 1) {
      int i = w * 16 + std::countr_zero(word);
      if (i >= bits) break;
      if (!addMember(t, i, &column)) return false;
    }
  }
  t.push_back('\n');
  return true;
}

// A name set line; nothing at all for an empty set.
static bool addSet(std::string &t, char tag, const uint16_t *set) {
  if (setIsEmpty(set)) return true;
  addPrefix(t, tag);
  return addMembers(t, set);
}

// The set holding only user, without building it: "__ALL__" when there is just one
// calendar, else the user's name.
static bool addUserSet(std::string &t, char tag, int user) {
  if (user >= 0xFFFF) return true;  // beyond any set: the set would be empty
  addPrefix(t, tag);
  int column = -1;
  if (calendarCount() == 1) t.append(ALL_NAMES);
  else if (!addMember(t, user, &column)) return false;
  t.push_back('\n');
  return true;
}

static void addOwner(std::string &t, int32_t owner) {
  if (owner == OWNER_ALL) addText(t, 'O', ALL_NAMES);
  else if (owner >= 0) addText(t, 'O', calendarName(owner));
}

// Hands the gathered text to the line writer; -1 when that fails or ok is false.
static int handOver(void *sink, const std::string &t, bool ok, LineWriter out) {
  int rc = t.empty() || out(sink, "%s", t.c_str()) >= 0 ? 0 : -1;
  return ok ? rc : -1;
}

int writeNameSet(void *sink, char tag, const uint16_t *set, LineWriter out) {
  std::string t;
  bool ok = addSet(t, tag, set);
  return handOver(sink, t, ok, out);
}

/* ==== Item parts =================================================================== */

static bool addPopups(std::string &t, Item *item) {
  bool ok = true;
  for (int i = 0; i < item->popupCount; i++) {
    Popup &p = item->popups[i];
    cutText(p.title);
    addPrefix(t, 'P');
    t.append(p.title != nullptr ? p.title : "").push_back(' ');
    addHex(t, (unsigned long)uint32_t(p.mask));
    t.push_back('\n');
    ok = addSet(t, 'S', p.setS) && ok;
    ok = addSet(t, 'r', p.setR) && ok;
  }
  return ok;
}

static bool addAlarms(std::string &t, Item *item) {
  bool ok = true;
  for (int i = 0; i < item->listBCount; i++) {
    Alarm &a = item->listB[i];
    addPrefix(t, 'A');
    long start = int(a.start), freq = int(a.freq);  // written as signed, "%d,%d"
    appendNumber(t, start < 0 ? 0UL - (unsigned long)start : (unsigned long)start, start < 0, 10);
    t.push_back(',');
    appendNumber(t, freq < 0 ? 0UL - (unsigned long)freq : (unsigned long)freq, freq < 0, 10);
    t.push_back('\n');
    cutText(a.string);
    if (a.string != nullptr && *a.string != '\0') addText(t, 'E', a.string);
    if (a.user >= 0) ok = addUserSet(t, 'V', a.user) && ok;
  }
  return ok;
}

static bool addUserTimes(std::string &t, Item *item, const DateTime *defaults) {
  bool ok = true;
  for (int i = 0; i < item->listCCount; i++) {
    const UserTime &u = item->listC[i];
    if (u.user < 0) continue;
    const char *name = calendarName(u.user);
    if (name != nullptr) addText(t, 'Z', name);
    else ok = false;
    addDateTime(t, 'Q', u.when, defaults);
  }
  return ok;
}

static bool addLabelSets(std::string &t, Item *item) {
  bool ok = true;
  for (int i = 0; i < item->listDCount; i++) {
    LabelSet &k = item->listD[i];
    if (setIsEmpty(k.set)) continue;
    cutText(k.label);
    addPrefix(t, 'K');
    t.append(k.label != nullptr ? k.label : "").push_back(':');
    ok = addMembers(t, k.set) && ok;
  }
  return ok;
}

static void addNumbers(std::string &t, const Item *item) {
  if (item->randomId >= 0) addNumber(t, 'I', item->randomId);
  const struct {
    char tag;
    int32_t value;
  } timed[] = {{'H', item->hNumber}, {'d', item->aNumber}, {'f', item->fNumber},
               {'s', item->gNumber}, {'e', item->eNumber}};
  for (const auto &n : timed)
    if (n.value != NO_TIME) addNumber(t, n.tag, n.value);
  if (item->linkByte != 0) addNumber(t, 'L', item->linkByte);
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
static bool addItemSets(std::string &t, const Item *item) {
  bool ok = addSet(t, 'W', item->calendars);
  ok = addSet(t, 'Y', item->setY) && ok;
  ok = addSet(t, 'N', item->setN) && ok;
  ok = addSet(t, 'X', item->setX) && ok;
  addOwner(t, item->owner);
  ok = addSet(t, 'R', item->setR) && ok;
  return addSet(t, 'C', item->setC) && ok;
}

// Everything after the database line, with the item's database current.
static bool addItemBody(std::string &t, Item *item, const DateTime *defaults) {
  bool ok = addItemSets(t, item);
  if (item->uWord != 0) addNumber(t, 'U', item->uWord);
  ok = addPopups(t, item) && ok;
  ok = addAlarms(t, item) && ok;
  ok = addUserTimes(t, item, defaults) && ok;
  ok = addLabelSets(t, item) && ok;
  addNumbers(t, item);
  t.push_back('\n');
  return ok;
}

int writeItem(void *sink, Item *item, const DateTime *defaults, LineWriter out) {
  static std::string t;  // reused: items are written one after another
  t.clear();
  cutText(item->title);
  addText(t, kindLetter(item->dWord), item->title);
  addDateTime(t, 'B', item->timeValue.start, defaults);
  addDateTime(t, 'F', item->timeValue.end, defaults);
  DbHandle *previous = currentDb();
  DbHandle *own = nullptr;
  cutText(item->dbName);
  if (item->dbName != nullptr && *item->dbName != '\0') {
    addText(t, item->dbFlag ? 'j' : 'J', item->dbName);
    if ((own = findDbByName(item->dbName)) != nullptr) setCurrentDb(own);
  }
  bool ok = addItemBody(t, item, defaults);
  if (own != nullptr) setCurrentDb(previous);
  return handOver(sink, t, ok, out);
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

// The header's lines: empty line, O, J, the range, and the sets in the order W R C Y N X.
int writeListHeader(void *sink, Item *head, LineWriter out) {
  std::string t = "\n";
  addOwner(t, head->owner);
  cutText(head->dbName);
  if (head->dbName != nullptr && *head->dbName != '\0' && findDbByName(head->dbName) != nullptr) {
    addText(t, 'J', head->dbName);
  }
  if (listDefaults(head) != nullptr) {
    addDateTime(t, 'B', head->timeValue.start, nullptr);
    addDateTime(t, 'F', head->timeValue.end, nullptr);
  }
  bool ok = addSet(t, 'W', head->calendars);
  ok = addSet(t, 'R', head->setR) && ok;
  ok = addSet(t, 'C', head->setC) && ok;
  ok = addSet(t, 'Y', head->setY) && ok;
  ok = addSet(t, 'N', head->setN) && ok;
  ok = addSet(t, 'X', head->setX) && ok;
  return handOver(sink, t, ok, out);
}

int writeRangeGroup(void *sink, const TimeRange &range, LineWriter out) {
  std::string t;
  addDateTime(t, 'B', range.start, nullptr);
  addDateTime(t, 'F', range.end, nullptr);
  t.push_back('\n');
  return handOver(sink, t, true, out);
}

int writeNumberGroup(void *sink, int number, LineWriter out) {
  std::string t;
  addNumber(t, 'n', number);
  t.push_back('\n');
  return handOver(sink, t, true, out);
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
