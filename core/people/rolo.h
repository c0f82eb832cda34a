// rolo.h -- address books: every calendar's private book and the database's shared one.
//
// A book is a text file in the "rolo" directory of the default database directory,
// named after its calendar ("__SHARED__" for the shared book, index ROLO_SHARED). It
// holds entries (cards), each a run of lines ended by an empty line:
//   "#P:\t<kind>"          only for a kind other than 0 (kind 1 is never written)
//   "#O\t<calendar name>"  only when the owner is another calendar than the book's
//   "#B\t<date-time>"      the entry's stamp, in the record-file form
//   "#<number>:"           per field, then each line of its text as "\t<line>"
// A field without a text writes only its number, so the next number follows on the same
// line; when it is the last field, its "#<n>:" and the entry's empty line make one line
// "#<n>:\n". The reader knows that shape and ends the entry there, so no card is merged
// into the next one.
//
// In memory a book is a circular doubly linked list of RoloEntry behind a head entry.
// A context keeps one BookState per book it has read (the list in force, a changed flag
// and the time of the last read, write or change) and the times of its first and last
// unsaved change. Writers exclude one another with the lock file "locks/rololock" of
// the context's database directory; readers take no lock and rely on the rewrite putting
// the new file in place with link(). A server-attached context reads and changes its
// books through the server (RemReadRoloFile, RemChangeRoloList); the lists travel in the
// same text form as the files.
//
// Results: 0 success, -1 failure; lists are never null (an empty list is a bare head).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/date/datetime.h"

namespace quorvel {

struct DbHandle;

inline constexpr int ROLO_SHARED = 16383;   // calendar index of the shared book
inline constexpr int ROLO_LINE_MAX = 4096;  // the reader's line buffer
inline constexpr int ROLO_FIELDS_MAX = 255; // the field count is a byte
inline constexpr int ROLO_LOCK_TRIES = 10;  // one-second waits for a busy book lock

/* ---- Entries and lists --------------------------------------------------------- */

struct RoloEntry {
  uint8_t kind;           // 0 ordinary, 2 kept too, 1 never written; others dropped on read
  uint8_t fieldCount;     // fields in use
  int16_t owner;          // calendar index of the owner; negative: the book's own calendar
  DateTime stamp;         // date-time of the entry
  int32_t *fieldNumbers;  // fieldCount numbers (owned)
  char **fieldTexts;      // fieldCount texts (owned; null allowed; may hold newlines)
  RoloEntry *next;        // circular links; the list head is an entry without fields
  RoloEntry *prev;
};

// A new empty list (a head linked to itself). Out of memory: "newRoloList".
RoloEntry *newRoloList();
// A new unlinked entry of kind 0, owner -1, stamp NO_TIME, no fields.
RoloEntry *newRoloEntry();
// Appends a field (text copied; null stays null). -1 when the entry holds 255 fields.
int addRoloField(RoloEntry *e, int32_t number, const char *text);
void appendRoloEntry(RoloEntry *head, RoloEntry *e);
void freeRoloEntry(RoloEntry *e);            // unlinks it first when linked
void freeRoloList(RoloEntry *head);          // the entries and the head; null is fine
int roloCount(const RoloEntry *head);

/* ---- Paths --------------------------------------------------------------------- */

// The book file of a calendar: the rolo directory (made with mode 0700 when missing),
// "/", and "__SHARED__" for ROLO_SHARED, else the calendar's name cut to 14 characters,
// cut at a newline, every character but letters and digits made "_". Empty for a
// calendar without a name (there is then no book).
std::string roloPath(int calendar);
// The rolo directory itself (not made).
std::string roloDirPath();

/* ---- Writing and reading entries ----------------------------------------------- */

// Writes one entry of the book of `bookCalendar`; 0, or -1 when a line failed (the
// text lines are not checked). An entry of kind 1 writes nothing and gives 0.
int writeRoloEntry(FILE *out, const RoloEntry *e, int bookCalendar);

// Reads entries from a stream into head (appended): kinds 0 and 2 with at least one
// field are kept, a negative owner becomes bookCalendar, a NO_TIME stamp the current
// time. Returns the number of entries kept.
int readRoloStream(FILE *in, int bookCalendar, RoloEntry *head);

// The book's text of a whole list (the wire form), and the list read back from it.
std::string formatRoloList(const RoloEntry *head, int bookCalendar);
RoloEntry *parseRoloList(const char *text, size_t len, int bookCalendar);

/* ---- Sorting -------------------------------------------------------------------- */

// Orders two entries. The key is the text of the entry's first field (the name the card
// is filed under; no field or a null text counts as ""): compared ignoring case when
// foldCase is 1, byte by byte otherwise. Ties go to the byte-wise text, then to the
// later fields' texts in order, then the owner, the stamp's time, the field count and
// the kind, so that only identical cards compare equal. <0, 0 or >0.
int roloCompare(const RoloEntry *a, const RoloEntry *b, int foldCase);
// 1 when some neighbour pair compares greater (foldCase 1).
int roloOutOfOrder(const RoloEntry *head);
// Sorts the list in place with qsort and roloCompare (foldCase 1).
void sortrololist(RoloEntry *head);

/* ---- Book states and the context's unsaved changes ------------------------------- */

struct BookState {
  int16_t calendar;  // the book's calendar index
  bool changed;      // changes not yet written
  int32_t lastTime;  // last read, write or change; NO_TIME before the first
  RoloEntry *list;   // dumb pointer: the list last read for this book (the caller's)
  BookState *next;   // the context's next book state
};

// The state of ctx's book for calendar, made on first use.
BookState *findBookState(DbHandle *ctx, int calendar);
// Frees ctx's book states and forgets its write settings (not the lists).
void releaseBooks(DbHandle *ctx);

// How a context writes its books. Changes are written at once unless deferWrites is
// set; deferred changes are written by flushRoloBooks once the first unsaved change is
// writeInterval seconds old, or while the context's last flush (lastFlush) lies less
// than quietInterval seconds back: a client that has just written its books writes the
// follow-on changes at once too.
struct RoloTimes {
  bool deferWrites;       // keep changes in memory until a flush
  int32_t writeInterval;  // seconds an unsaved change may wait
  int32_t quietInterval;  // seconds after a flush in which changes are written at once
  int32_t lastFlush;      // time of the last flush, NO_TIME before the first
};
RoloTimes roloTimes(const DbHandle *ctx);  // defaults: no deferral, 300 s, 60 s, NO_TIME
void setRoloTimes(const DbHandle *ctx, const RoloTimes &times);

// The book has changed: its flag is set, the context's first unsaved change becomes now
// when there was none, its last change and the book's time become now.
void markRoloChange(DbHandle *ctx, BookState *book);
// Writes every changed book of ctx (force set) unless the changes may still wait (see
// RoloTimes); then clears the flags and both context times. Returns the number of books
// written, 0 when the changes were kept or there were none.
int flushRoloBooks(DbHandle *ctx);

/* ---- Reading and writing books ------------------------------------------------------ */

// The book's entries. A server-attached context asks the server. Otherwise, when cached
// is given and stamp equals the later of the file's time and the book's time, cached
// comes back unchanged; so does a cached list with unsaved changes, which a re-read
// would lose. Else the file is read (an unreadable file reads as empty), sorted when
// out of order (the book is then marked changed), and *stamp and the book's time become
// the file's time. A cached list that is not returned is freed: call it as
// list = readrololist(ctx, book, cal, list, &stamp). book->list is the list returned.
RoloEntry *readrololist(DbHandle *ctx, BookState *book, int calendar, RoloEntry *cached,
                        int32_t *stamp);

// Writes book->list as the book of calendar, under the book lock. Without force, a
// context that defers writing only marks the change. With a stream, the entries are
// written into it alone. Otherwise the book is replaced: a "TMP" file is written, the
// old book moved to "sav", "TMP" linked into place, "TMP" and "sav" removed; every
// failure is reported once and leaves the previous book in place. A server-attached
// context sends the list to the server instead of the file. 0, or -1.
int writerololist(DbHandle *ctx, BookState *book, int calendar, int force, FILE *stream);

/* ---- Through the server -------------------------------------------------------------- */

// Sends RemChangeRoloList: the calendar, the entries to add (or the new contents), the
// entries to remove (null or empty for none), both in the book's text form. 0 or -1.
int sendRoloChange(DbHandle *ctx, int calendar, const RoloEntry *added,
                   const RoloEntry *removed);

/* ---- Switches and tests ------------------------------------------------------------ */

void setRoloTrace(bool on);   // logs "reading <path>" and "writing <path>"
// The path of the book lock while this process holds it, else null.
const char *heldRoloLock();
// Forgets the trace switch, every context's write settings and a held lock (tests).
void resetRolo();

}  // namespace quorvel
