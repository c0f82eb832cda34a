// record_parse.cpp -- reads record lines back: the logical-line scanner (continued
// lines joined in place), the list header and one item at a time. It accepts every
// line the writer produces; lines it does not know are skipped.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/record.h"
#include "core/net/namelookup.h"

namespace quorvel {

/* ==== Logical lines ================================================================ */

void startLineScan(LineScan *scan, char *text, size_t len) {
  scan->pos = text;
  scan->end = text + len;
  scan->held = false;
}

// Joins the physical lines of one logical line into start..(returned end), moving the
// bytes down over each removed backslash, line end and leading tab.
static char *joinLine(LineScan *scan) {
  char *start = scan->pos, *w = start, *r = start;
  for (;;) {
    char *nl = static_cast<char *>(memchr(r, '\n', size_t(scan->end - r)));
    char *stop = nl != nullptr ? nl : scan->end;
    size_t n = size_t(stop - r);
    if (w != r) memmove(w, r, n);
    w += n;
    r = nl != nullptr ? nl + 1 : scan->end;
    if (w > start && w[-1] == '\r') w--;
    if (nl == nullptr || w == start || w[-1] != '\\') break;
    w--;  // a continued line: drop the backslash and the next line's tab
    if (r < scan->end && *r == '\t') r++;
  }
  scan->pos = r;
  return w;
}

int nextRecordLine(LineScan *scan, RecordLine *line) {
  if (scan->held) {
    scan->held = false;
    *line = scan->heldLine;
    return 1;
  }
  while (scan->pos < scan->end) {
    char *start = scan->pos;
    char *stop = joinLine(scan);
    *stop = '\0';  // the text has room for one byte past its end
    if (stop == start) {
      line->tag = 0;
      line->value = stop;
      return 1;
    }
    if (start[0] != '#' || stop - start < 2 || start[1] == '\0') continue;
    line->tag = start[1];
    line->value = stop - start >= 3 && start[2] == '\t' ? start + 3 : start + 2;
    return 1;
  }
  return 0;
}

static void holdLine(LineScan *scan, const RecordLine &line) {
  scan->held = true;
  scan->heldLine = line;
}

/* ==== Values ======================================================================= */

static char *copyValue(const char *text) {
  size_t n = strlen(text) + 1;
  char *copy = static_cast<char *>(allocMem(nullptr, n));
  if (copy == nullptr) outOfMem("parseItem");
  memcpy(copy, text, n);
  return copy;
}

// A decimal number (the writer's form) read directly; other forms through strtol.
static long numberValue(const char *text) {
  const char *p = text;
  bool negative = *p == '-';
  if (negative) p++;
  long v = 0;
  if (*p >= '0' && *p <= '9' && (*p != '0' || p[1] == '\0')) {  // no octal or hex
    while (*p >= '0' && *p <= '9' && v < 100000000000L) v = v * 10 + (*p++ - '0');
    if (*p != '\0') v = strtol(text, nullptr, 0);
    else if (negative) v = -v;
  } else {
    v = strtol(text, nullptr, 0);
  }
  return v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v;
}

// The members are gathered first so that the set is sized once, not grown bit by bit.
static bool isAllNames(const char *value) { return value[0] == '_' && strcmp(value, ALL_NAMES) == 0; }

void parseNameSet(char *value, CalSet *set) {
  if (isAllNames(value)) {
    addEveryCalendar(set);
    return;
  }
  int found[64], n = 0, top = -1;
  for (char *name = value; name != nullptr;) {
    char *comma = strchr(name, ',');
    if (comma != nullptr) *comma = '\0';
    int i = *name != '\0' ? calendarIndex(name) : -1;
    if (i >= 0 && n < 64) found[n++] = i;
    else if (i >= 0) setbit(set, i, 1);
    if (i > top) top = i;
    if (comma != nullptr) *comma = ',';
    name = comma != nullptr ? comma + 1 : nullptr;
  }
  if (top >= setBitCount(*set) && top < 0xFFFF) allocbits(set, top + 1);
  for (int k = 0; k < n; k++) setbit(set, found[k], 1);
}

// The title replaces the item's own (a new item's empty text is grown in place).
static void setTitle(Item *item, const char *value) {
  size_t n = strlen(value) + 1;
  char *title = static_cast<char *>(allocMem(item->title, n));
  if (title == nullptr) outOfMem("parseItem");
  memcpy(title, value, n);
  item->title = title;
}

static int32_t ownerValue(const char *value) {
  return isAllNames(value) ? OWNER_ALL : calendarIndex(value);
}

static bool isKindTag(char tag) { return tag == 'T' || tag == 'D' || tag == 'M' || tag == '?'; }

static uint16_t kindOf(char tag) {
  switch (tag) {
    case 'T': return KIND_EVENT;
    case 'D': return KIND_TODO;
    case 'M': return KIND_REMINDER;
    default: return 0;
  }
}

/* ==== The list header ============================================================== */

static CalSet *headerSet(Item *head, char tag) {
  switch (tag) {
    case 'W': return &head->calendars;
    case 'R': return &head->setR;
    case 'C': return &head->setC;
    case 'Y': return &head->setY;
    case 'N': return &head->setN;
    case 'X': return &head->setX;
    default: return nullptr;
  }
}

DbHandle *enterItemDb(const char *dbName) {
  DbHandle *own = dbName != nullptr && *dbName != '\0' ? findDbByName(dbName) : nullptr;
  return own != nullptr ? setCurrentDb(own) : nullptr;
}

// The header's names (the O line and the sets) are resolved once the whole header is
// read: the writer writes them all with the list's database current, the O line
// included, although it comes before the J line that names that database.
int parseListHeader(LineScan *scan, Item *head) {
  RecordLine line;
  std::vector<RecordLine> named;
  head->owner = -1;
  head->timeValue = initTimeRange();
  while (nextRecordLine(scan, &line)) {
    if (isKindTag(line.tag)) {
      holdLine(scan, line);
      break;
    }
    if (line.tag == 'O' || headerSet(head, line.tag) != nullptr) {
      named.push_back(line);
    } else if (line.tag == 'J') {
      freeMem(head->dbName);
      head->dbName = copyValue(line.value);
    } else if (line.tag == 'B' || line.tag == 'F') {
      DateTime *dt = line.tag == 'B' ? &head->timeValue.start : &head->timeValue.end;
      if (parseDateTime(line.value, dt, nullptr) != 0) return -1;
    }
  }
  DbHandle *previous = enterItemDb(head->dbName);
  for (const RecordLine &l : named) {
    if (l.tag == 'O') head->owner = ownerValue(l.value);
    else parseNameSet(l.value, headerSet(head, l.tag));
  }
  if (previous != nullptr) setCurrentDb(previous);
  return 0;
}

void freeListHead(Item *head) {
  evlistFree(head);
  freeMem(head->dbName);
  head->dbName = nullptr;
  CalSet *sets[] = {&head->calendars, &head->setR, &head->setC,
                    &head->setY,      &head->setN, &head->setX};
  for (CalSet *s : sets) freebits(s);
}

/* ==== Items ======================================================================== */

// The entries that later lines (S r after P, E V after A, Q after Z) belong to.
struct ParseState {
  const DateTime *defaults;
  DbHandle *previous = nullptr;  // current database before a J line switched it, or null
  Popup *popup = nullptr;
  Alarm *alarm = nullptr;
  UserTime *userTime = nullptr;
  bool overfull = false;  // an entry past ITEM_LIST_MAX was dropped (reported once)
};

// Whether a list whose 16-bit count is `count` can take one more entry. The writer
// never writes more than the count holds, so a longer list comes from a damaged or
// hostile file: its extra entries are dropped (with one report per item) instead of
// ending the process through the allocation report.
static bool roomForEntry(int16_t count, ParseState *st) {
  if (count < ITEM_LIST_MAX) return true;
  if (!st->overfull) warning("parseItem: more than %d entries in one list; the rest dropped", ITEM_LIST_MAX);
  st->overfull = true;
  st->popup = nullptr, st->alarm = nullptr, st->userTime = nullptr;
  return false;
}

static CalSet *itemSet(Item *item, char tag) {
  switch (tag) {
    case 'W': return &item->calendars;
    case 'Y': return &item->setY;
    case 'N': return &item->setN;
    case 'X': return &item->setX;
    case 'R': return &item->setR;
    case 'C': return &item->setC;
    default: return nullptr;
  }
}

static int32_t *itemNumber(Item *item, char tag) {
  switch (tag) {
    case 'I': return &item->randomId;
    case 'H': return &item->hNumber;
    case 'd': return &item->aNumber;
    case 'f': return &item->fNumber;
    case 's': return &item->gNumber;
    case 'e': return &item->eNumber;
    default: return nullptr;
  }
}

static void parsePopupLine(Item *item, char *value, ParseState *st) {
  st->popup = addPopup(item);
  char *blank = strrchr(value, ' ');
  if (blank != nullptr) {
    *blank = '\0';
    st->popup->mask = int32_t(strtoul(blank + 1, nullptr, 16));
  }
  st->popup->title = copyValue(value);
}

static void parseAlarmLine(Item *item, char *value, ParseState *st) {
  st->alarm = addAlarmEntry(item);
  st->alarm->user = -1;
  char *comma = strchr(value, ',');
  if (comma != nullptr) *comma = '\0';
  st->alarm->start = uint32_t(numberValue(value));
  if (comma != nullptr) st->alarm->freq = uint32_t(numberValue(comma + 1));
}

// The alarm's user: the first member of the V set (a single name needs no set).
static void parseAlarmUser(char *value, ParseState *st) {
  if (st->alarm == nullptr) return;
  if (strchr(value, ',') == nullptr && !isAllNames(value)) {
    st->alarm->user = calendarIndex(value);
    return;
  }
  CalSet user = nullptr;
  parseNameSet(value, &user);
  for (int i = 0; i < setBitCount(user); i++)
    if (testbit(user, i)) {
      st->alarm->user = i;
      break;
    }
  freebits(&user);
}

static void parseLabelLine(Item *item, char *value) {
  LabelSet *k = addLabelSet(item);
  char *colon = strchr(value, ':');
  if (colon != nullptr) {
    *colon = '\0';
    parseNameSet(colon + 1, &k->set);
  }
  k->label = copyValue(value);
}

// The lines that belong to an item's lists and entries.
static void parseEntryLine(Item *item, const RecordLine &line, ParseState *st) {
  int16_t count = line.tag == 'P' ? item->popupCount : line.tag == 'A' ? item->listBCount
                : line.tag == 'Z' ? item->listCCount : line.tag == 'K' ? item->listDCount : 0;
  if (!roomForEntry(count, st)) return;
  switch (line.tag) {
    case 'P': parsePopupLine(item, line.value, st); break;
    case 'S': if (st->popup) parseNameSet(line.value, &st->popup->setS); break;
    case 'r': if (st->popup) parseNameSet(line.value, &st->popup->setR); break;
    case 'A': parseAlarmLine(item, line.value, st); break;
    case 'E':
      if (st->alarm != nullptr) {
        freeMem(st->alarm->string);
        st->alarm->string = copyValue(line.value);
      }
      break;
    case 'V': parseAlarmUser(line.value, st); break;
    case 'Z':
      st->userTime = addUserTime(item);
      st->userTime->user = calendarIndex(line.value);
      st->userTime->when = initDateTime();
      break;
    case 'Q':
      if (st->userTime != nullptr) parseDateTime(line.value, &st->userTime->when, st->defaults);
      break;
    case 'K': parseLabelLine(item, line.value); break;
    default: break;  // unknown tags and the G line are skipped
  }
}

static void parseItemLine(Item *item, const RecordLine &line, ParseState *st) {
  if (isKindTag(line.tag)) {
    item->dWord = kindOf(line.tag);
    setTitle(item, line.value);
  } else if (line.tag == 'B' || line.tag == 'F') {
    DateTime *dt = line.tag == 'B' ? &item->timeValue.start : &item->timeValue.end;
    if (parseDateTime(line.value, dt, st->defaults) != 0) *dt = initDateTime();
  } else if (line.tag == 'J' || line.tag == 'j') {
    // The writer makes the named database current for the rest of the item, so the
    // names on the following lines are looked up in that database's table.
    evsetDbName(item, line.value);
    item->dbFlag = line.tag == 'j';
    DbHandle *was = enterItemDb(item->dbName);
    if (st->previous == nullptr) st->previous = was;
  } else if (CalSet *set = itemSet(item, line.tag)) {
    parseNameSet(line.value, set);
  } else if (int32_t *number = itemNumber(item, line.tag)) {
    *number = int32_t(numberValue(line.value));
  } else if (line.tag == 'O') {
    item->owner = ownerValue(line.value);
  } else if (line.tag == 'U') {
    item->uWord = uint16_t(numberValue(line.value));
  } else if (line.tag == 'L') {
    item->linkByte = uint8_t(numberValue(line.value));
  } else {
    parseEntryLine(item, line, st);
  }
}

Item *parseItem(LineScan *scan, const DateTime *defaults) {
  RecordLine line;
  do {
    if (!nextRecordLine(scan, &line)) return nullptr;
  } while (line.tag == 0);
  Item *item = evnew();
  // A number line is written only when its field is set, so a missing one means unset.
  item->randomId = -1;
  item->hNumber = item->gNumber = NO_TIME;
  ParseState st;
  st.defaults = defaults;
  bool sawKind = false;
  do {
    if (isKindTag(line.tag)) {
      if (sawKind) {  // the next item began without an empty line before it
        holdLine(scan, line);
        break;
      }
      sawKind = true;
    }
    parseItemLine(item, line, &st);
  } while (nextRecordLine(scan, &line) && line.tag != 0);
  if (st.previous != nullptr) setCurrentDb(st.previous);
  return item;
}

}  // namespace quorvel
