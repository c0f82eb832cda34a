// record.h -- the text form of calendar items in record files: writing items and list
// headers as tagged lines, and parsing those lines back.
//
// Every line is "#" + tag letter + tab + value + newline; an item is a run of such lines
// ended by an empty line. Lines are written through a caller-given printf-like line
// writer, so the same item writer fills a file, an in-memory buffer or standard error;
// the lines of one item (or header, or group) are handed to it in a single call.
// An item is written in this order (each line only when it carries something):
//   kind letter (T event, D to-do, M reminder, ? other) + title, B start, F end,
//   j/J database name, W Y N X name sets, O owner, R C name sets, U, P/S/r per popup,
//   A/E/V per alarm, Z/Q per user time, K per labelled set, I H d f s e numbers, L,
//   and the empty line.
// Date-times are "0x<time> @0x<q1> %0x<q2>"; inside a list the qualifiers equal to the
// list's defaults (the qualifiers of its range start) are left out. A name set is its
// members' names joined by ",", wrapped after column 60 with a backslash, a newline and
// a tab, or "__ALL__" when it holds as many members as there are calendars.
// A list (and so a record file) starts with a header: an empty line, then O, J, B, F
// and the W R C Y N X sets of the list; the header's fields live in the list's head Item.
// Texts are cut in place at their first line end, and before a trailing backslash.
// A "G" line (a free text some older writers put between the popup and the alarm lines)
// is read past and not written again: the item record has no field to hold it, the
// server wire carries no such text (its G is a number), so the text could not survive
// a trip through the server anyway, and nothing in this core reads it. Every other line
// of the item around it is kept.
// Results: 0 success, -1 when a write failed or a line cannot be parsed.
#pragma once

#include <cstddef>
#include <string>

#include "core/items/item.h"

namespace quorvel {

struct DbHandle;

// A printf-like line writer: writes the formatted text to sink, returns a negative
// number when the write failed (as fprintf does).
using LineWriter = int (*)(void *sink, const char *fmt, ...);

/* ---- Sinks -------------------------------------------------------------------- */

// Writes to a FILE * sink (vfprintf).
int fileLineWriter(void *sink, const char *fmt, ...);

// An in-memory sink: the text gathered so far. When `file` is set, the text is handed
// to it whenever more than `flushAt` bytes have gathered (and by flushTextSink).
struct TextSink {
  std::string text;        // gathered and not yet handed on
  FILE *file = nullptr;    // dumb pointer: the stream the text goes to, or none
  size_t flushAt = 65536;  // hand the text on past this many bytes
  int error = 0;           // errno of the first failed hand-on (-1 without errno)
};
// Writes to a TextSink; knows the conversions the record lines use (%c %s %d %ld %x
// %lx %%) and falls back to vsnprintf for anything else.
int textLineWriter(void *sink, const char *fmt, ...);
// Hands the gathered text to the sink's file; 0 or -1 (error set).
int flushTextSink(TextSink *sink);

/* ---- Writing ------------------------------------------------------------------ */

// The defaults a list's members are written with: its range start, or null when the
// list has no range.
const DateTime *listDefaults(const Item *head);

// One item and the empty line after it. The item's texts are cut in place first. When
// the item names an open database, that database is current while the item is written.
int writeItem(void *sink, Item *item, const DateTime *defaults, LineWriter out);
// An item and, after it, each copy on its chain (every one a full record).
int writeItemChain(void *sink, Item *item, const DateTime *defaults, LineWriter out);
// A name set line with tag; nothing at all for an empty set. -1 for a member without
// a name (the line is left unfinished).
int writeNameSet(void *sink, char tag, const uint16_t *set, LineWriter out);
// The list header lines of head (which carries the list's owner, name, range, sets).
int writeListHeader(void *sink, Item *head, LineWriter out);
// A B and an F line without defaults, then an empty line.
int writeRangeGroup(void *sink, const TimeRange &range, LineWriter out);
// "#n\t<number>" and an empty line.
int writeNumberGroup(void *sink, int number, LineWriter out);
// The header and every item (with its chain) of the list through a line writer, with
// the list's database current while it is written (when that database is open).
// *records, when given, receives the number of list members written.
int writeListLines(void *sink, Item *head, LineWriter out, int *records);
// The header and every item (with its chain) of the list appended to text. *records,
// when given, receives the number of list members written.
int writeList(std::string *text, Item *head, int *records = nullptr);

/* ---- Parsing ------------------------------------------------------------------ */

// Walks a writable text of record lines (with room for one byte past its end). Each call of nextRecordLine yields one logical
// line: continued lines (ending in a backslash) are joined in place, the next line's
// leading tab dropped, a CR before the line end ignored.
struct RecordLine {
  char tag;     // tag letter; 0 for an empty line
  char *value;  // NUL-terminated value inside the text ("" for an empty line)
};
struct LineScan {
  char *pos;             // next unread byte
  char *end;             // one past the text; the byte at end must be writable
  bool held;             // a line was read ahead and is handed out next
  RecordLine heldLine;   // that line
};
void startLineScan(LineScan *scan, char *text, size_t len);
// 1 with a line in *line, 0 at the end of the text. Lines not starting with "#" are
// skipped.
int nextRecordLine(LineScan *scan, RecordLine *line);

// Makes the open database named dbName current; returns the previous current database,
// or null (nothing changed) when dbName is empty or names no open database.
DbHandle *enterItemDb(const char *dbName);

// Reads the list header into head (evlistInit'ed): skips leading empty lines, takes
// O J B F W R C Y N X lines up to the first kind line (left unread). The O line and the
// sets are read with the list's database (its J line) current. 0 or -1.
int parseListHeader(LineScan *scan, Item *head);
// Reads the next item up to its empty line, filling omitted qualifiers from defaults.
// After a J or j line naming an open database, that database is current for the rest
// of the item (as it was while the item was written) and the previous one afterwards.
// Returns a new item, or null at the end of the text. Unknown tags and the G line are
// skipped; a malformed value leaves the field at its initial value.
Item *parseItem(LineScan *scan, const DateTime *defaults);
// Fills *set from a name set value ("__ALL__" or names joined by ","); unknown names
// add nothing.
void parseNameSet(char *value, CalSet *set);

// Releases what a list head owns (its name and sets) and the list's members.
void freeListHead(Item *head);

}  // namespace quorvel
