// perms.h -- who may read, change, act for and schedule into whose calendar: the
// permission records of a database context, their file "db/database/dat.perm", the
// one-line set file "db/database/notify.del", and the encoder of calendar sets shared by
// every database file that stores one.
//
// A permission record (DatEntry) is about one owner calendar (or every calendar, owner
// PERM_OWNER_ALL) and holds six calendar sets: readers (tag R), writers (C), agents (Y),
// schedulers (N), the calendars the owner watches (W) and the calendars refused outright
// (X), plus an optional validity window (B, F) and the name of a linked database (J)
// whose calendar-name table resolves the names of this and the following records.
// The file holds one record per run of lines, each run opened by an empty line:
//   (empty line)
//   #O<tab>owner name, or "__ALL__"
//   #J<tab>linked database name        (only when a context of that name is open)
//   #B<tab>begin   #F<tab>final        (both or neither; the record-file date-time form)
//   #W #R #C #Y #N #X <tab>set         (each only when the set has members)
// A set is written as its member names in index order joined by ",", wrapped after
// column 60 with a backslash, a newline and a tab, or as "__ALL__" when it holds as many
// members as there are known calendars. The known calendars are the users of the current
// context and, for the main context, the process-wide guest calendars as well (calendars
// the client was given by name beyond its users file, for instance those of other
// databases it shows). The reader is the writer's inverse; unknown names in a set are
// dropped, an unknown owner name is kept with the record so that a rewrite keeps it.
//
// Access: the owner may always use its own calendar. Otherwise the owner's record and
// the "__ALL__" record both grant (a member of either one's set has the right), unless
// the asker is a member of X in either of them. A record with both B and F set grants
// only while the current time lies between them. Without any record only the owner has
// access. Writers and agents may also read. Only the records before the first one that
// names a linked database are consulted: from there on the sets use another table.
//
// Mode 1 (PERM_MODE_ADMIN) marks the context of the permission administrator: its
// rewrite goes ahead over a write-protected file, an unset first owner becomes the own
// calendar, and an empty notify file is not reported.
//
// A server-attached context keeps its records on the server: they travel as data fields
// holding the same text as the file (RemReadDatPerms, RemWriteDatPerms).
//
// Results: 0 success; -1 failure (the one-line report names the routine); the access
// predicates answer 1 (yes) or 0 (no).
#pragma once

#include <cstdint>
#include <string>

#include "core/date/datetime.h"
#include "core/db/record.h"
#include "core/net/calset.h"

namespace quorvel {

struct DbHandle;
struct Item;

inline constexpr int32_t PERM_OWNER_ALL = 99999;  // a record about every calendar
inline constexpr uint8_t PERM_MODE_ADMIN = 1;     // DbHandle::permMode: relaxed checks

/* ---- The permission record --------------------------------------------------------- */

struct DatEntry {
  DatEntry *next;              // the following record (file order), null for the last
  int32_t owner;               // calendar index; PERM_OWNER_ALL; negative: not known
  CalSet W;                    // calendars the owner watches (owned)
  DateTime begin;              // validity window start, NO_TIME when unset
  DateTime final;              // validity window end, NO_TIME when unset
  CalSet agents;               // Y: may act for the owner (owned)
  CalSet schedulers;           // N: may schedule into the owner's calendar (owned)
  CalSet readers;              // R: may read (owned)
  CalSet writers;              // C: may change (owned)
  CalSet X;                    // calendars refused any access (owned)
  std::string linkedDatabase;  // J: database whose name table resolves the names
  std::string ownerName;       // owner name read but unknown to the table ("" if none)
};

/* ---- Known calendars ----------------------------------------------------------------- */

// Replaces *out by the set of known calendars of ctx (null: the current context).
void knownCalendars(DbHandle *ctx, CalSet *out);
int knownCalendarCount(DbHandle *ctx);
// The process-wide guest calendars, joined into the main context's known calendars.
void addGuestCalendar(int index);
void setGuestCalendars(const uint16_t *set);  // copied; null empties it
const uint16_t *guestCalendars();

/* ---- The set encoder and its reader ------------------------------------------------ */

// Writes tagFormat (given tag) and the set through print to stream: nothing at all for
// an empty set; "__ALL__" for a set with as many members as the current context knows;
// else the names, wrapped as above, then a newline. -1 when a write fails or a member
// has no (or an empty) name.
int writeCalendarSet(void *stream, const char *tagFormat, char tag, const uint16_t *set,
                     LineWriter print);
// Adds the members named in value ("__ALL__" or names joined by ",") to *set, resolved
// in the current context; unknown names add nothing. Returns the number added.
int readCalendarSet(const char *value, CalSet *set);

/* ---- Records of a context ------------------------------------------------------------ */

// Appends a record for owner (all sets empty, no window) and returns it. Earlier record
// pointers stay valid only until the next append. Out of memory reports "AddToDat".
DatEntry *AddToDat(DbHandle *ctx, int32_t owner);
DatEntry *findDatEntry(DbHandle *ctx, int32_t owner);  // null when none
// Adds (on != 0) or removes member in the set with the given tag (R C Y N W X) of
// owner's record. -1 with "SetDatPerm: could not find dat entry" when owner has no
// record, -1 without a report for a bad tag.
int SetDatPerm(DbHandle *ctx, int32_t owner, char tag, int member, int on);
// The set with the given tag in rec, or null for a bad tag.
CalSet *datPermSet(DatEntry *rec, char tag);
void freeDatEntries(DbHandle *ctx);  // drops every record (and ctx's notify set)

// Readers of ctx's records hold the guard for reading; the rewrite takes it for writing.
void lockPermsForReading();
void unlockPermsForReading();

/* ---- Writing ------------------------------------------------------------------------- */

// The records of ctx as file text through print (the J switch lasts to the end; the
// main context is current again afterwards). -1 when any write failed.
int writeDatRecords(DbHandle *ctx, void *stream, LineWriter print);
// Rewrites the file at path from ctx's records: refused over a write-protected file
// (unless in mode 1), written to path + "TMP", checked against shrinking below 80% of
// the remembered size (then the records are dropped), the old file unlinked, the new
// one renamed into place; the path ends with mode 0600. 0 or -1.
int putDats(DbHandle *ctx, const char *path);
// Server-attached: sends the records of calendarInView() to the server; else putDats
// to "db/database/dat.perm" under the root, then remembers the file's change time.
int storeDatPerms(DbHandle *ctx);
// Rewrites the one-line set file at path (tag R). 0 or -1.
int putExtBitInfo(const char *path, const uint16_t *set);
// Keeps ctx's notify set with rec's readers: when their member counts differ by less
// than 2 the readers are copied over and, when writeOut is set, written to
// "db/database/notify.del". Returns 1 when copied, else 0.
int syncNotifySet(DbHandle *ctx, const DatEntry *rec, int writeOut);
// The plain-text dump of every record through the log routine.
void dumpDatPerms(DbHandle *ctx);

/* ---- Reading ------------------------------------------------------------------------- */

// Replaces ctx's records by those in text (len bytes, writable, with one byte of room
// past the end). Returns the number of records.
int parseDatRecords(DbHandle *ctx, char *text, size_t len);
// Replaces ctx's records: from the server (RemReadDatPerms for calendarInView()) for a
// server-attached context, else from "db/database/dat.perm" under the root (a missing
// file gives no records). Returns the number of records, or -1.
int readDatPerms(DbHandle *ctx);
int readDatPermFile(DbHandle *ctx, const char *path);

/* ---- Access questions (ctx null: the main context) ------------------------------------ */

int mayReadCalendar(DbHandle *ctx, int who, int owner);
int mayWriteCalendar(DbHandle *ctx, int who, int owner);
int mayActFor(DbHandle *ctx, int who, int owner);
int mayScheduleInto(DbHandle *ctx, int who, int owner);
// 1 when who may read the item: one of its calendars (or, without calendars, its
// owner) is readable to who.
int mayReadItem(DbHandle *ctx, int who, const Item *item);

/* ---- Process-wide state -------------------------------------------------------------- */

// Change time of "db/database/dat.perm" after the last store; -1 after a refused write.
int32_t datPermChangeTime();
// Size of the permission file as last installed; -1 after a failed shrink check.
long datPermFileSize();
void setDatPermFileSize(long size);
void resetPerms();  // tests: forgets both, the guest calendars and the known-set cache

/* ---- Shared by the permission files ---------------------------------------------------- */

void dropDatRecords(DbHandle *ctx);  // the records only; the notify set stays
void lockPermsForWriting();
void unlockPermsForWriting();
void resetPermSets();                // the guest calendars and the known-set cache

}  // namespace quorvel
