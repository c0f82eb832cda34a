// rolo.cpp -- address-book entries: the list, the book file's name, writing and reading
// the entry lines, the text form that travels to the server, and sorting.
//
// Divisions: entries and lists; paths; the entry writer; the reader; sorting.
#include "core/people/rolo.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/base/base.h"
#include "core/db/layout.h"
#include "core/people/users.h"

namespace quorvel {

/* ==== Entries and lists ============================================================== */

static void *mustAlloc(void *old, size_t size, const char *caller) {
  void *p = allocMem(old, size);
  if (p == nullptr) outOfMem(caller);
  return p;
}

static char *copyText(const char *text, size_t len, const char *caller) {
  char *p = static_cast<char *>(mustAlloc(nullptr, len + 1, caller));
  memcpy(p, text, len);
  p[len] = '\0';
  return p;
}

RoloEntry *newRoloEntry() {
  RoloEntry *e = static_cast<RoloEntry *>(mustAlloc(nullptr, sizeof *e, "newRoloEntry"));
  *e = RoloEntry{0, 0, -1, DateTime{NO_TIME, 0, 0}, nullptr, nullptr, nullptr, nullptr};
  return e;
}

RoloEntry *newRoloList() {
  RoloEntry *head = static_cast<RoloEntry *>(mustAlloc(nullptr, sizeof *head, "newRoloList"));
  *head = RoloEntry{0, 0, -1, DateTime{NO_TIME, 0, 0}, nullptr, nullptr, head, head};
  return head;
}

int addRoloField(RoloEntry *e, int32_t number, const char *text) {
  if (e->fieldCount >= ROLO_FIELDS_MAX) return -1;
  size_t n = size_t(e->fieldCount) + 1;
  e->fieldNumbers = static_cast<int32_t *>(
      mustAlloc(e->fieldNumbers, n * sizeof(int32_t), "addRoloField"));
  e->fieldTexts =
      static_cast<char **>(mustAlloc(e->fieldTexts, n * sizeof(char *), "addRoloField"));
  e->fieldNumbers[n - 1] = number;
  e->fieldTexts[n - 1] = text ? copyText(text, strlen(text), "addRoloField") : nullptr;
  e->fieldCount = uint8_t(n);
  return 0;
}

void appendRoloEntry(RoloEntry *head, RoloEntry *e) {
  e->prev = head->prev;
  e->next = head;
  head->prev->next = e;
  head->prev = e;
}

void freeRoloEntry(RoloEntry *e) {
  if (e == nullptr) return;
  if (e->next != nullptr) {
    e->prev->next = e->next;
    e->next->prev = e->prev;
  }
  for (int i = 0; i < e->fieldCount; i++) freeMem(e->fieldTexts[i]);
  freeMem(e->fieldTexts);
  freeMem(e->fieldNumbers);
  freeMem(e);
}

void freeRoloList(RoloEntry *head) {
  if (head == nullptr) return;
  while (head->next != head) freeRoloEntry(head->next);
  freeMem(head);
}

int roloCount(const RoloEntry *head) {
  int n = 0;
  for (const RoloEntry *e = head->next; e != head; e = e->next) n++;
  return n;
}

/* ==== Paths ============================================================================ */

std::string roloDirPath() {
  char dir[DB_PATH_MAX];
  resolveDbPath(dir, dbPathSetting(DBP_DATABASE));
  return std::string(dir) + "/rolo";
}

// The file name of a calendar's book: at most 14 characters, letters and digits kept.
static std::string bookFileName(int calendar) {
  if (calendar == ROLO_SHARED) return "__SHARED__";
  const char *name = tableName(nullptr, calendar);
  if (name == nullptr) return "";
  std::string file(name, strnlen(name, 14));
  file.resize(strcspn(file.c_str(), "\n"));
  for (char &c : file)
    if (!isalnum(static_cast<unsigned char>(c))) c = '_';
  return file;
}

std::string roloPath(int calendar) {
  std::string file = bookFileName(calendar);
  // An unnamed calendar has no book; an empty name would make the path the directory.
  if (file.empty()) return "";
  std::string dir = roloDirPath();
  if (fileModTime(dir.c_str(), nullptr) == NO_TIME) ensureDir(dir.c_str(), 0700);
  return dir + "/" + file;
}

/* ==== The entry writer =================================================================== */

// A field's text: every piece before a newline on its own line, then a last piece that
// is not empty. Only the field number's write is checked, as the callers expect.
static void writeFieldText(FILE *out, const char *text) {
  for (const char *nl; (nl = strchr(text, '\n')) != nullptr; text = nl + 1)
    fprintf(out, "\t%.*s\n", int(nl - text), text);
  if (*text != '\0') fprintf(out, "\t%s\n", text);
}

int writeRoloEntry(FILE *out, const RoloEntry *e, int bookCalendar) {
  if (e->kind == 1) return 0;
  if (e->kind != 0 && fprintf(out, "#%c:\t%d\n", 'P', e->kind) < 0) return -1;
  if (e->owner >= 0 && e->owner != bookCalendar) {
    // A calendar missing from the table prints as "(null)", the way the C library
    // prints a null name; it reads back as the book's own calendar.
    const char *name = tableName(nullptr, e->owner);
    if (fprintf(out, "#%c\t%s\n", 'O', name ? name : "(null)") < 0) return -1;
  }
  char when[DATETIME_TEXT];
  formatDateTime(when, sizeof when, e->stamp, nullptr);
  if (fprintf(out, "#%c\t%s\n", 'B', when) < 0) return -1;
  for (int i = 0; i < e->fieldCount; i++) {
    if (fprintf(out, "#%d:", e->fieldNumbers[i]) < 0) return -1;
    if (e->fieldTexts[i] != nullptr) writeFieldText(out, e->fieldTexts[i]);
  }
  return fputs("\n", out) < 0 ? -1 : 0;
}

std::string formatRoloList(const RoloEntry *head, int bookCalendar) {
  char *text = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&text, &len);
  if (out == nullptr) outOfMem("formatRoloList");
  for (const RoloEntry *e = head->next; e != head; e = e->next)
    writeRoloEntry(out, e, bookCalendar);
  fclose(out);
  std::string s(text, len);
  free(text);
  return s;
}

/* ==== The reader ============================================================================ */

namespace {

// The entry being read and its field still waiting for more text lines.
struct RoloReader {
  int book;             // the book's calendar index
  RoloEntry *head;      // where completed entries go
  RoloEntry *entry;     // the entry being built, or null before its first line
  int32_t number;       // the pending field's number; none while negative
  bool pending;         // a field number was read and not yet stored
  std::string text;     // the pending field's text so far
  bool hasText;         // a text line belongs to the pending field
  bool midLine;         // the last chunk read did not end its line
  bool inText;          // ... and that chunk was part of a text line
  int kept;             // entries appended
};

RoloEntry *current(RoloReader &r) {
  if (r.entry == nullptr) r.entry = newRoloEntry();
  return r.entry;
}

// Stores the pending field into the entry (fields past the 255th are dropped: the
// count is a byte).
void storePending(RoloReader &r) {
  if (r.pending && r.number >= 0)
    addRoloField(current(r), r.number, r.hasText ? r.text.c_str() : nullptr);
  r.pending = r.hasText = false;
  r.text.clear();
}

void completeEntry(RoloReader &r) {
  storePending(r);
  RoloEntry *e = r.entry;
  r.entry = nullptr;
  if (e == nullptr) return;
  if (e->fieldCount == 0 || (e->kind != 0 && e->kind != 2)) {
    freeRoloEntry(e);
    return;
  }
  if (e->owner < 0) e->owner = int16_t(r.book);
  if (e->stamp.time == NO_TIME) e->stamp = DateTime{int32_t(currentTime()), 0, 0};
  appendRoloEntry(r.head, e);
  r.kept++;
}

void addTextLine(RoloReader &r, const char *piece, size_t len) {
  if (!r.pending) return;
  if (r.hasText) r.text += '\n';
  r.text.append(piece, len);
  r.hasText = true;
}

// "#<n>:" numbers, one or more on a line, the first piece of text after a tab. A
// number alone at the line's end is a last field without text whose entry ends here.
void fieldLine(RoloReader &r, char *p, size_t len, bool endsLine) {
  char *end = p + len;
  while (p < end && *p == '#') {
    char *after;
    errno = 0;
    long n = strtol(p + 1, &after, 10);
    if (after == p + 1 || *after != ':') return;
    storePending(r);
    current(r);
    r.pending = true;
    r.number = (errno != 0 || n < INT32_MIN || n > INT32_MAX) ? -1 : int32_t(n);
    p = after + 1;
  }
  if (p < end && *p == '\t') {
    addTextLine(r, p + 1, size_t(end - p - 1));
    r.inText = true;
  } else if (p == end && endsLine) {
    completeEntry(r);
  }
}

void tagLine(RoloReader &r, char *line) {
  if (strncmp(line, "#P:\t", 4) == 0) {
    // A kind that does not fit the byte must not wrap to a kept one: 255 is dropped.
    long kind = strtol(line + 4, nullptr, 10);
    current(r)->kind = kind >= 0 && kind <= 255 ? uint8_t(kind) : uint8_t(255);
  } else if (strncmp(line, "#O\t", 3) == 0) {
    // An unknown name (or an index past the 16-bit owner) reads as the book's own.
    int owner = lookupCalendar(nullptr, line + 3);
    current(r)->owner = int16_t(owner <= INT16_MAX ? owner : -1);
  } else if (strncmp(line, "#B\t", 3) == 0) {
    DateTime dt;
    if (parseDateTime(line + 3, &dt, nullptr) == 0) current(r)->stamp = dt;
  }
}

// One chunk from fgets: a whole line, or a part of one longer than the buffer.
void readChunk(RoloReader &r, char *chunk) {
  size_t len = strlen(chunk);
  bool endsLine = len > 0 && chunk[len - 1] == '\n';
  size_t body = endsLine ? len - 1 : len;
  chunk[body] = '\0';
  bool continued = r.midLine;
  r.midLine = !endsLine;
  if (continued) {
    // The rest of a long line: text joins the pending text, anything else is skipped.
    if (r.inText) r.text.append(chunk, body);
    return;
  }
  r.inText = false;
  if (body == 0) {
    if (endsLine) completeEntry(r);
  } else if (chunk[0] == '\t') {
    addTextLine(r, chunk + 1, body - 1);
    r.inText = true;
  } else if (chunk[0] == '#' &&
             (chunk[1] == '-' || isdigit(static_cast<unsigned char>(chunk[1])))) {
    fieldLine(r, chunk, body, endsLine);
  } else if (chunk[0] == '#') {
    tagLine(r, chunk);
  }
}

}  // namespace

int readRoloStream(FILE *in, int bookCalendar, RoloEntry *head) {
  RoloReader r{bookCalendar, head, nullptr, -1, false, std::string(), false, false, false, 0};
  char line[ROLO_LINE_MAX];
  while (fgets(line, sizeof line, in) != nullptr) readChunk(r, line);
  // A book whose last card lacks its empty line still keeps that card.
  completeEntry(r);
  return r.kept;
}

RoloEntry *parseRoloList(const char *text, size_t len, int bookCalendar) {
  RoloEntry *head = newRoloList();
  if (len == 0) return head;
  FILE *in = fmemopen(const_cast<char *>(text), len, "r");
  if (in == nullptr) outOfMem("parseRoloList");
  readRoloStream(in, bookCalendar, head);
  fclose(in);
  return head;
}

/* ==== Sorting ================================================================================ */

static const char *textOf(const RoloEntry *e, int i) {
  return i < e->fieldCount && e->fieldTexts[i] != nullptr ? e->fieldTexts[i] : "";
}

template <class T>
static int order(T a, T b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

int roloCompare(const RoloEntry *a, const RoloEntry *b, int foldCase) {
  int c = foldCase == 1 ? strcasecmp(textOf(a, 0), textOf(b, 0)) : 0;
  if (c != 0) return c;
  int fields = a->fieldCount > b->fieldCount ? a->fieldCount : b->fieldCount;
  for (int i = 0; i < fields && c == 0; i++) c = strcmp(textOf(a, i), textOf(b, i));
  if (c == 0) c = order(a->owner, b->owner);
  if (c == 0) c = order(a->stamp.time, b->stamp.time);
  if (c == 0) c = order(a->fieldCount, b->fieldCount);
  if (c == 0) c = order(a->kind, b->kind);
  return c;
}

int roloOutOfOrder(const RoloEntry *head) {
  for (const RoloEntry *e = head->next; e != head && e->next != head; e = e->next)
    if (roloCompare(e, e->next, 1) > 0) return 1;
  return 0;
}

static int qsortEntries(const void *a, const void *b) {
  return roloCompare(*static_cast<RoloEntry *const *>(a), *static_cast<RoloEntry *const *>(b), 1);
}

void sortrololist(RoloEntry *head) {
  size_t n = size_t(roloCount(head));
  if (n < 2) return;
  std::vector<RoloEntry *> all(n);
  size_t i = 0;
  for (RoloEntry *e = head->next; e != head; e = e->next) {
    if (i == n) {  // the list grew under us: leave it as it was
      warning("sortrololist: will overrun array\n");
      return;
    }
    all[i++] = e;
  }
  qsort(all.data(), n, sizeof all[0], qsortEntries);
  head->next = head->prev = head;
  for (RoloEntry *e : all) appendRoloEntry(head, e);
}

}  // namespace quorvel
