// itemcodec.cpp -- calendar items as tagged fields: the writer (one item, its chain,
// item lists, whole messages with their header) and the reader (one item, a run of
// items with their chains, a whole message).
//
// Divisions: field writers, the item writer, messages; field readers, where value8
// stands (the structure walk over the groups), the item reader in its four stretches,
// lists and messages.
#include "core/net/itemcodec.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "core/base/base.h"
#include "core/date/datetime.h"
#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/calset.h"
#include "core/net/link.h"
#include "core/net/namelookup.h"
#include "core/net/netdate.h"

namespace quorvel {

namespace {

constexpr size_t HEADER_SIZE = MSG_HEADER_SIZE;

constexpr size_t ENTRY_WIRE = 12;  // an alarm ("a") or a listC entry ("q")

// Version gates: the peer's second number, and a first number that is known.
bool peerAtLeast(const Buf *buf, int minor) {
  return buf->peerMajor != 0 && buf->peerMinor >= minor;
}

/* ---- Field writers -------------------------------------------------------------- */

void stuffNumber(Buf *out, char tag, int32_t value) { StuffBuf(out, &value, 4, 4, bufTag(tag)); }
void stuffShort(Buf *out, char tag, uint16_t value) { StuffBuf(out, &value, 2, 2, bufTag(tag)); }
void stuffByte(Buf *out, char tag, uint8_t value) { StuffBuf(out, &value, 1, 1, bufTag(tag)); }

// A text with its NUL; a missing text travels as a single NUL.
void stuffText(Buf *out, char tag, const char *text) {
  if (text == nullptr) text = "";
  StuffBuf(out, text, strlen(text) + 1, 1, bufTag(tag));
}

// A set in the bit encoding, carried as bytes (the words are in network order already).
void stuffSet(Buf *out, char tag, const uint16_t *set) {
  char area[NETBITS_MAX];
  int n = writenetbits(area, sizeof area, set);
  if (n < 4) {  // (cannot happen with a full-size area; keep the field well-formed)
    memset(area, 0, 4);
    n = 4;
  }
  StuffBuf(out, area, size_t(n), 1, bufTag(tag));
}

/* ---- The item writer ------------------------------------------------------------ */

void writeOwner(Buf *out, const Item *item) {
  if (peerAtLeast(out, 3) && out->extended) {
    stuffText(out, 'f', calendarName(item->owner));
  } else {
    stuffNumber(out, 'O', item->owner);
  }
}

void writePopups(Buf *out, const Item *item) {
  for (int i = 0; i < item->popupCount; i++) {
    const Popup &p = item->popups[i];
    stuffText(out, 'p', p.title);
    stuffNumber(out, 'm', p.mask);
    stuffNumber(out, 'm', p.number);
    stuffSet(out, 'b', p.setS);
    if (peerAtLeast(out, 2)) stuffSet(out, 'b', p.setR);
  }
}

void writeAlarms(Buf *out, const Item *item) {
  for (int i = 0; i < item->listBCount; i++) {
    const Alarm &a = item->listB[i];
    int32_t words[3] = {a.user, int32_t(a.start), int32_t(a.freq)};
    StuffBuf(out, words, sizeof words, 4, bufTag('a'));
    stuffText(out, 'e', a.string);
  }
}

void writeUserTimes(Buf *out, const Item *item) {
  for (int i = 0; i < item->listCCount; i++) {
    uint8_t bytes[ENTRY_WIRE];
    putWord32(bytes, uint32_t(item->listC[i].user));
    putDateTime(bytes + 4, item->listC[i].when);
    StuffBuf(out, bytes, sizeof bytes, 1, bufTag('q'));
  }
}

void writeLabels(Buf *out, const Item *item) {
  for (int i = 0; i < item->listDCount; i++) {
    stuffText(out, 'c', item->listD[i].label);
    stuffSet(out, 'b', item->listD[i].set);
  }
}

void writeTail(Buf *out, const Item *item) {
  stuffNumber(out, 'I', item->randomId);
  stuffNumber(out, 'H', item->hNumber);
  if (peerAtLeast(out, 2)) {
    stuffNumber(out, 'A', item->aNumber);
    stuffNumber(out, 'G', item->gNumber);
    stuffNumber(out, 'F', item->fNumber);
    stuffNumber(out, 'E', item->eNumber);
  }
  if (peerAtLeast(out, 4)) {
    stuffByte(out, 'g', item->gFlag);
    stuffByte(out, 'k', item->kFlag);
  }
  if (item->linkByte != 0) stuffNumber(out, 'L', item->linkByte);
  stuffNumber(out, 'z', item->linkByte);
}

/* ---- Messages ------------------------------------------------------------------- */

// An item that asks for the extended message: it has a chained copy or the letter 'd'.
bool wantsExtended(const Item *item) { return item->chain != nullptr || item->typeLetter == 'd'; }

}  // namespace

void writeEvent(Buf *out, const Item *item) {
  if (item->dbName != nullptr && item->dbName[0] != '\0') {
    stuffText(out, item->dbFlag ? 'j' : 'J', item->dbName);
  }
  stuffShort(out, 'D', item->dWord);
  stuffShort(out, 'U', item->uWord);
  stuffText(out, 'T', item->title);
  writeOwner(out, item);
  stuffSet(out, 'W', item->calendars);
  stuffTimeRange(out, item->timeValue);
  const uint16_t *sets[] = {item->setY, item->setN, item->setS, item->setR,
                            item->setC, item->setX, item->setM};
  const char tags[] = "YNSRCXM";
  for (int i = 0; i < 7; i++) stuffSet(out, tags[i], sets[i]);
  writePopups(out, item);
  writeAlarms(out, item);
  stuffDateTime(out, item->value8);
  writeUserTimes(out, item);
  if (peerAtLeast(out, 2)) writeLabels(out, item);
  writeTail(out, item);
}

void writeEventChain(Buf *out, const Item *item) {
  for (const Item *it = item; it != nullptr; it = it->chain) writeEvent(out, it);
}

void writeEventList(Buf *out, const Item *head) {
  for (const Item *it = head->next; it != head; it = it->next) writeEventChain(out, it);
}

bool itemNeedsExtended(const Item *item) { return item != nullptr && wantsExtended(item); }

bool listNeedsExtended(const Buf *out, const Item *head) {
  if (!peerAtLeast(out, 4)) return false;
  for (const Item *it = head->next; it != head; it = it->next) {
    if (wantsExtended(it)) return true;
  }
  return false;
}

void buildItemMessage(Buf *out, int code, const Item *item) {
  out->extended = itemNeedsExtended(item);
  startMessage(out, item != nullptr ? code : NO_ITEM_CODE);
  if (item != nullptr) writeEventChain(out, item);
  finishMessage(out);
}

void buildItemListMessage(Buf *out, int code, const Item *head) {
  out->extended = listNeedsExtended(out, head);
  startMessage(out, code);
  writeEventList(out, head);
  finishMessage(out);
}

/* ==== Reading ==================================================================== */

namespace {

// The reader's one-line report; every refusal is one `return refuse(...)`.
__attribute__((format(printf, 1, 2))) int refuse(const char *fmt, ...) {
  fputs("readEvent: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fputc('\n', stderr);
  return -1;
}

// The field at the cursor: its tag letter and payload length.
struct Field {
  char tag;      // top byte of the tag word
  uint32_t len;  // payload bytes
};

// Peeks the field at the cursor. When no tag word is left, lets ReadBuf make its
// overflow report and fails.
int peekField(Buf *in, Field *f) {
  int32_t tag = peekTag(in, &f->len);
  if (tag == -1) {
    uint8_t none[4];
    ReadBuf(in, none, sizeof none, 1, 1);
    return -1;
  }
  f->tag = char(uint32_t(tag) >> 24);
  return 0;
}

// Whether the field at the cursor passes ReadBuf's fit test (4 bytes beyond it).
bool fieldFits(const Buf *in, const Field &f) { return in->size >= bufUsed(in) + f.len + 4; }

// A field that does not fit the buffer or breaks its granularity gets ReadBuf's own
// report: ReadBuf fails on it before copying anything, so no area is needed.
int bufferRefuses(Buf *in, const Field &f, int granularity) {
  if (fieldFits(in, f) && f.len % unsigned(granularity) == 0) return 0;
  ReadBuf(in, nullptr, f.len, granularity, 1);
  return -1;
}

// Reads a field whose payload must be exactly n bytes.
int readExact(Buf *in, const Field &f, void *dst, size_t n, int granularity) {
  if (bufferRefuses(in, f, granularity) < 0) return -1;
  if (f.len != n) return refuse("bad size %u for field '%c'", unsigned(f.len), f.tag);
  return ReadBuf(in, dst, n, granularity, 1) == -1 ? -1 : 0;
}

int readNumber(Buf *in, const Field &f, int32_t *value) { return readExact(in, f, value, 4, 4); }

// Reads a text into a new allocation. `what` names a limited text ("title", ...):
// such a text may hold at most WIRE_TEXT_MAX bytes with its NUL.
int readText(Buf *in, const Field &f, const char *what, char **out) {
  if (what != nullptr && f.len > uint32_t(WIRE_TEXT_MAX)) {
    return refuse("%s len too long: %d", what, int(f.len));
  }
  // (an empty field cannot come from StuffBuf, and ReadBuf would not move past it)
  if (f.len == 0) return refuse("bad size 0 for field '%c'", f.tag);
  if (bufferRefuses(in, f, 1) < 0) return -1;  // before allocating what it announces
  char *text = static_cast<char *>(allocMem(nullptr, f.len + 1));
  if (text == nullptr) outOfMem("readEvent");
  if (ReadBuf(in, text, f.len, 1, 1) == -1) {
    freeMem(text);
    return -1;
  }
  text[f.len] = '\0';  // the sender's NUL is not trusted
  freeMem(*out);
  *out = text;
  return 0;
}

int readSet(Buf *in, const Field &f, CalSet *set) {
  char area[NETBITS_MAX];
  if (bufferRefuses(in, f, 1) < 0) return -1;
  if (f.len == 0 || f.len > sizeof area) {
    return refuse("bad size %u for field '%c'", unsigned(f.len), f.tag);
  }
  if (ReadBuf(in, area, f.len, 1, 1) == -1) return -1;
  freebits(set);
  readnetbits(area, f.len, set);
  return 0;
}

// "i", "d", "r", "l": fields of older peers, stepped over whole.
bool isOldTag(char tag) { return tag == 'i' || tag == 'd' || tag == 'r' || tag == 'l'; }
int skipOld(Buf *in, const Field &f) { return skipField(in, size_t(f.len) + 4); }

// Peeks and requires the given tag (the fields of a group, the fixed sets), stepping
// over older peers' fields in front of it: where a tagged field must stand, theirs can
// be told from it.
int expectField(Buf *in, char tag, Field *f) {
  for (;;) {
    if (peekField(in, f) < 0) return -1;
    if (!isOldTag(f->tag) || f->tag == tag) break;
    if (skipOld(in, *f) < 0) return -1;
  }
  if (f->tag != tag) return refuse("bad tag 0x%02x where '%c' belongs", uint8_t(f->tag), tag);
  return 0;
}

int readTaggedSet(Buf *in, char tag, CalSet *set) {
  Field f;
  if (expectField(in, tag, &f) < 0) return -1;
  return readSet(in, f, set);
}

int readTaggedNumber(Buf *in, char tag, int32_t *value) {
  Field f;
  if (expectField(in, tag, &f) < 0) return -1;
  return readNumber(in, f, value);
}

// A list entry is refused, not added, once its 16-bit count is full: a server must not
// be able to end the process through the out-of-memory report.
int roomFor(int16_t count, const char *what) {
  if (count < ITEM_LIST_MAX) return 0;
  return refuse("too many %s: more than %d", what, ITEM_LIST_MAX);
}

/* ---- Where value8 stands -------------------------------------------------------- */

// A read-only walk over the fields behind the cursor (positions are offsets in data).
// Strict: only what this writer makes (no older peers' fields, texts whose one NUL ends
// them, sets of exactly their size, the tail in the writer's order with the peer's
// gates). Loose: what the reader accepts.
struct Scan {
  const uint8_t *data;
  size_t size;
  bool strict;
  bool two, four;  // the peer's gates
};

struct Span {
  char tag;
  uint32_t len;  // payload bytes
  size_t at;     // payload offset
  size_t next;   // offset of the field behind it
};

// The field at pos, when it passes ReadBuf's fit test.
bool fieldAt(const Scan &s, size_t pos, Span *f) {
  if (s.data == nullptr || pos + 4 > s.size) return false;
  uint32_t word = getWord32(s.data + pos);
  f->tag = char(word >> 24);
  f->len = word & BUF_MAX_FIELD;
  if (pos + f->len + 4 > s.size) return false;
  f->at = pos + 4;
  f->next = pos + 4 + size_t(roundUp(long(f->len), 4));
  return true;
}

// Takes the field at *pos (older peers' fields before it stepped over when loose) when
// it carries `tag` and, if given, `len` bytes.
bool take(const Scan &s, size_t *pos, char tag, Span *f, uint32_t len = 0) {
  for (;; *pos = f->next) {
    if (!fieldAt(s, *pos, f)) return false;
    if (s.strict || f->tag == tag || !isOldTag(f->tag)) break;
  }
  if (f->tag != tag || (len != 0 && f->len != len)) return false;
  *pos = f->next;
  return true;
}

bool textOk(const Scan &s, const Span &f) {
  if (!s.strict) return true;  // (the reader gives its own refusal)
  const uint8_t *p = s.data + f.at;
  return f.len > 0 && memchr(p, 0, f.len) == p + f.len - 1;
}

bool setOk(const Scan &s, const Span &f) {
  if (!s.strict) return true;
  if (f.len < 4) return false;
  uint32_t n = uint32_t(s.data[f.at] << 8 | s.data[f.at + 1]);
  return f.len == (n == 0 ? 4 : ((n + 15) / 16) * 2 + 2);
}

// The end of a popup group ("p" text, "m", "m", "b", and a second "b" for x.2+) at pos;
// 0 when none stands there.
size_t popupAt(const Scan &s, size_t pos) {
  Span f;
  if (!fieldAt(s, pos, &f) || f.tag != 'p' || !textOk(s, f)) return 0;
  pos = f.next;
  if (!take(s, &pos, 'm', &f, 4) || !take(s, &pos, 'm', &f, 4)) return 0;
  if (!take(s, &pos, 'b', &f) || !setOk(s, f)) return 0;
  if (s.two && (!take(s, &pos, 'b', &f) || !setOk(s, f))) return 0;
  return pos;
}

// The end of an alarm group ("a" of 12 bytes, "e" text) at pos; 0 when none.
size_t alarmAt(const Scan &s, size_t pos) {
  Span f;
  if (!fieldAt(s, pos, &f) || f.tag != 'a' || f.len != ENTRY_WIRE) return 0;
  pos = f.next;
  return take(s, &pos, 'e', &f) && textOk(s, f) ? pos : 0;
}

// Whether the writer's tail starts at pos: q entries, c/b entries (x.2+), I, H,
// A G F E (x.2+), g k (x.4+), L when the link byte is set, z carrying it (or 0).
bool writerTail(const Scan &s, size_t pos) {
  Span f;
  while (take(s, &pos, 'q', &f, ENTRY_WIRE)) {
  }
  while (s.two && take(s, &pos, 'c', &f)) {
    if (!textOk(s, f) || !take(s, &pos, 'b', &f) || !setOk(s, f)) return false;
  }
  for (const char *t = s.four ? "IHAGFEgk" : s.two ? "IHAGFE" : "IH"; *t != '\0'; t++) {
    if (!take(s, &pos, *t, &f, *t == 'g' || *t == 'k' ? 1 : 4)) return false;
  }
  uint32_t link = 0;
  if (take(s, &pos, 'L', &f, 4)) {
    link = getWord32(s.data + f.at);
    if (link == 0 || link > 0xFF) return false;
  }
  return take(s, &pos, 'z', &f, 4) && getWord32(s.data + f.at) == link;
}

// Whether tagged fields the reader takes behind value8 run from pos to a "z". `dead`
// holds positions known to lead nowhere, so that trying many places stays linear.
bool looseTail(const Scan &s, size_t pos, std::unordered_set<size_t> *dead) {
  std::vector<size_t> seen;
  Span f;
  bool ok = false;
  while (dead->count(pos) == 0 && fieldAt(s, pos, &f)) {
    seen.push_back(pos);
    pos = f.next;
    uint32_t want = f.tag == 'q' ? ENTRY_WIRE : f.tag == 'g' || f.tag == 'k' ? 1 : 4;
    if (strchr("qgkIHAGFELz", f.tag) != nullptr && f.tag != '\0') {
      if (f.len != want) break;
      ok = f.tag == 'z';
      if (ok) break;
    } else if (f.tag == 'c') {
      if (f.len == 0 || !take(s, &pos, 'b', &f) || f.len == 0 || f.len > NETBITS_MAX) break;
    } else if (!isOldTag(f.tag)) {
      break;
    }
  }
  if (!ok) dead->insert(seen.begin(), seen.end());
  return ok;
}

// The group shapes in a row from `from`: *np popup groups, then *na alarm groups, the
// place of each after the first going to *stops when given. Returns the end of the last.
size_t walkGroups(const Scan &s, size_t from, int *np, int *na, std::vector<size_t> *stops) {
  size_t at = from, end;
  *np = *na = 0;
  for (int *count : {np, na}) {
    for (; (end = count == np ? popupAt(s, at) : alarmAt(s, at)) != 0; at = end, ++*count) {
      if (stops != nullptr) stops->push_back(end);
    }
  }
  return at;
}

// How many popup and alarm groups stand before value8. No count travels for them and
// value8 is 8 bytes of any value, so the groups are found by structure: the group
// shapes in a row from the cursor give the places where value8 may stand, and the
// last place behind which a whole tail follows is taken. The writer's own form is
// tried first; only when it fits nowhere are older peers' fields and any tail order
// allowed. When nothing fits, every group found is read and the read fails where the
// item breaks.
void countGroups(const Buf *in, int *popups, int *alarms) {
  Scan s{in->data, in->size, true, peerAtLeast(in, 2), peerAtLeast(in, 4)};
  std::unordered_set<size_t> dead;
  auto fits = [&](size_t at) { return s.strict ? writerTail(s, at + 8) : looseTail(s, at + 8, &dead); };
  for (int pass = 0; pass < 2; pass++, s.strict = false) {
    // Every group found is the common answer: tried before a list of places is kept.
    if (fits(walkGroups(s, bufUsed(in), popups, alarms, nullptr))) return;
    std::vector<size_t> stops{bufUsed(in)};
    walkGroups(s, bufUsed(in), popups, alarms, &stops);
    for (int t = int(stops.size()) - 2; t >= 0; t--) {
      if (fits(stops[size_t(t)])) {
        *alarms = t > *popups ? t - *popups : 0;
        *popups = t - *alarms;
        return;
      }
    }
  }
}

/* ---- The item reader, in its four stretches ------------------------------------- */

// Before "W": any order. Returns 1 when "W" and the time value were read.
int readHeadField(Buf *in, Item *item) {
  Field f;
  if (peekField(in, &f) < 0) return -1;
  switch (f.tag) {
    case 'J':
    case 'j':
      if (readText(in, f, "dbname", &item->dbName) < 0) return -1;
      if (f.tag == 'j') item->dbFlag = 1;
      return 0;
    case 'D': return readExact(in, f, &item->dWord, 2, 2);
    case 'U': return readExact(in, f, &item->uWord, 2, 2);
    case 'T': return readText(in, f, "title", &item->title);
    case 'O': return readNumber(in, f, &item->owner);
    case 'f': {
      char *name = nullptr;
      if (readText(in, f, "orig", &name) < 0) return -1;
      item->owner = name[0] == '\0' ? -1 : calendarIndex(name);
      freeMem(name);
      return 0;
    }
    case 'W':
      if (readSet(in, f, &item->calendars) < 0) return -1;
      return readTimeRange(in, &item->timeValue) < 0 ? -1 : 1;
    default:
      if (isOldTag(f.tag)) return skipOld(in, f);
      return refuse("bad tag 0x%02x", uint8_t(f.tag));
  }
}

int readSevenSets(Buf *in, Item *item) {
  CalSet *sets[] = {&item->setY, &item->setN, &item->setS, &item->setR,
                    &item->setC, &item->setX, &item->setM};
  const char tags[] = "YNSRCXM";
  for (int i = 0; i < 7; i++) {
    if (readTaggedSet(in, tags[i], sets[i]) < 0) return -1;
  }
  return 0;
}

int readPopup(Buf *in, Item *item) {
  if (roomFor(item->popupCount, "popup notes") < 0) return -1;
  Popup *p = addPopup(item);
  Field f;
  if (expectField(in, 'p', &f) < 0 || readText(in, f, "popup title", &p->title) < 0) return -1;
  if (readTaggedNumber(in, 'm', &p->mask) < 0 || readTaggedNumber(in, 'm', &p->number) < 0) {
    return -1;
  }
  if (readTaggedSet(in, 'b', &p->setS) < 0) return -1;
  return peerAtLeast(in, 2) ? readTaggedSet(in, 'b', &p->setR) : 0;
}

int readAlarm(Buf *in, Item *item) {
  if (roomFor(item->listBCount, "alarms") < 0) return -1;
  Alarm *a = addAlarmEntry(item);
  Field f;
  int32_t words[3];
  if (expectField(in, 'a', &f) < 0 || readExact(in, f, words, sizeof words, 4) < 0) return -1;
  a->user = words[0];
  a->start = uint32_t(words[1]);
  a->freq = uint32_t(words[2]);
  if (expectField(in, 'e', &f) < 0 || readText(in, f, nullptr, &a->string) < 0) return -1;
  if (a->string[0] == '\0') {  // a single NUL: no string
    freeMem(a->string);
    a->string = nullptr;
  }
  return 0;
}

// After the time value: the seven sets, the popup groups, the alarm groups, value8.
int readMiddle(Buf *in, Item *item) {
  if (readSevenSets(in, item) < 0) return -1;
  int popups = 0, alarms = 0;
  countGroups(in, &popups, &alarms);
  for (int i = 0; i < popups; i++) {
    if (readPopup(in, item) < 0) return -1;
  }
  for (int i = 0; i < alarms; i++) {
    if (readAlarm(in, item) < 0) return -1;
  }
  return readDateTime(in, &item->value8);
}

int readUserTime(Buf *in, const Field &f, Item *item) {
  uint8_t bytes[ENTRY_WIRE];
  if (roomFor(item->listCCount, "user times") < 0) return -1;
  if (readExact(in, f, bytes, sizeof bytes, 1) < 0) return -1;
  UserTime *u = addUserTime(item);
  u->user = int32_t(getWord32(bytes));
  u->when = getDateTime(bytes + 4);
  return 0;
}

int readLabel(Buf *in, const Field &f, Item *item) {
  if (roomFor(item->listDCount, "labels") < 0) return -1;
  LabelSet *l = addLabelSet(item);
  if (readText(in, f, nullptr, &l->label) < 0) return -1;
  return readTaggedSet(in, 'b', &l->set);
}

// Behind value8: tagged fields in any order. Returns 1 after "z".
int readTailField(Buf *in, Item *item) {
  Field f;
  int32_t n = 0;
  if (peekField(in, &f) < 0) return -1;
  switch (f.tag) {
    case 'q': return readUserTime(in, f, item);
    case 'c': return readLabel(in, f, item);
    case 'I': return readNumber(in, f, &item->randomId);
    case 'H': return readNumber(in, f, &item->hNumber);
    case 'A': return readNumber(in, f, &item->aNumber);
    case 'G': return readNumber(in, f, &item->gNumber);
    case 'F': return readNumber(in, f, &item->fNumber);
    case 'E': return readNumber(in, f, &item->eNumber);
    case 'g': return readExact(in, f, &item->gFlag, 1, 1);
    case 'k': return readExact(in, f, &item->kFlag, 1, 1);
    case 'L':
      if (readNumber(in, f, &n) < 0) return -1;
      item->linkByte = uint8_t(n);
      return 0;
    case 'z':
      if (readNumber(in, f, &n) < 0) return -1;
      if (n != 0) item->linkByte = uint8_t(n);
      return 1;
    default:
      if (isOldTag(f.tag)) return skipOld(in, f);
      return refuse("bad tag 0x%02x", uint8_t(f.tag));
  }
}

// Whether `item` is another database's copy of the list item `top`, told the way the
// record files tell it: the same I and F numbers (I not negative), the same title, and
// not both with an owner.
bool isCopyOf(const Item *top, const Item *item) {
  return item->randomId >= 0 && top->randomId == item->randomId &&
         top->fNumber == item->fNumber && strcmp(top->title, item->title) == 0 &&
         !(top->owner >= 0 && item->owner >= 0);
}

}  // namespace

int readEvent(Buf *in, Item *item) {
  int r;
  while ((r = readHeadField(in, item)) == 0) {
  }
  if (r < 0 || readMiddle(in, item) < 0) return -1;
  while ((r = readTailField(in, item)) == 0) {
  }
  return r < 0 ? -1 : 0;
}

int readEventList(Buf *in, Item *head, uint32_t end) {
  int count = 0;
  Item *top = nullptr;  // the last list member read; copies of it join its chain
  while (bufUsed(in) < end) {
    Item *item = evnew();
    int r = readEvent(in, item);
    if (r == 0 && bufUsed(in) > end) r = refuse("item runs past the end of the message");
    if (r < 0) {
      evfree(item);
      return -1;
    }
    if (top != nullptr && isCopyOf(top, item)) {
      chainAppend(top, item);
    } else {
      evlistAppend(head, item);
      top = item;
      count++;
    }
  }
  return count;
}

int readItemMessage(Buf *in, Item *head, int *code) {
  // (taken straight from the storage: ReadBuf's fit test wants 4 bytes more than a
  // header, which a message of code 55 alone does not have)
  if (in->data == nullptr || in->size < HEADER_SIZE) return refuse("no message header");
  const uint8_t *header = in->data;
  if (code != nullptr) *code = (header[0] << 8) | header[1];
  in->peerMajor = header[2];
  in->peerMinor = header[3];
  uint32_t length = getWord32(header + 4);
  if (length < HEADER_SIZE || length > in->size) {
    return refuse("bad message length %u", unsigned(length));
  }
  in->cursor = in->data + HEADER_SIZE;
  return readEventList(in, head, length);
}

}  // namespace quorvel
