// recordfile.h -- record files on disk: reading one into memory, writing it back under
// a scratch name and putting that in place, and the per-database cache of loaded files.
//
// A record file holds one item list (record.h gives the lines). It is rewritten whole:
// writedbfile writes path + "TMP" (flushed and synced), checks that the write did not
// lose data, and tmprelink moves the old file to path + "sav", renames "TMP" into place,
// syncs the directory and removes "sav". A write that shrank both in bytes and in
// records below 90% of the last known file is refused and kept as path + "BAD"; the
// sizes it is judged against change only with a read that got through or a write. A
// crash between tmprelink's two renames leaves only "sav"; the reader, the cache's write
// and tmprelink itself put it back under the file's name first (a hard link, so that a
// writer in mid-rewrite is not disturbed), so the old contents are never removed.
//
// A database's loaded files live in its cache (DbHandle::records); a file is read on
// first use and again when its modification time or the database's change stamp shows
// that another process wrote it. Dropping the cache frees every RecordFile in it.
// Results: 0 success; positive errno passed up; negative codes of our own, kept because
// callers and logs tell the failures apart by them: -ESRCH (open failed without errno),
// -EINTR (scratch file missing after a good close), -EIO (refused shrunken write),
// -E2BIG (rename of "TMP" failed without errno), -EAGAIN (unlinking "sav" failed without
// errno), -ECHILD (new file missing after the rename), -1 (no user state, or the old
// file could not be moved aside).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/items/item.h"

namespace quorvel {

struct DbHandle;

struct RecordFile {
  std::string path;      // the file
  std::string dirPath;   // its directory
  int32_t dirTime;       // the directory's modification time as last seen, NO_TIME
  DbHandle *db;          // dumb pointer: the database the file belongs to (may be null)
  Item list;             // head: the header (owner, name, range, sets) and the items
  std::vector<Item *> index;  // every kept item, chained copies included, in file order
  int32_t mtime;         // modification time as last seen, NO_TIME when unknown
  long size;             // byte size as last read or written: expected at next write
  int count;             // record count as last read or written: expected likewise
  bool dirty;            // changed in memory, not yet written
  bool shrinkOnce;       // the next write may shrink without the check
  bool loaded;           // the contents in memory are those of the file
};

/* ---- Record file state ---------------------------------------------------------- */

// A new, not yet loaded record file for path (db may be null). Free with
// freeRecordFile, which also frees its items.
RecordFile *newRecordFile(const char *path, DbHandle *db);
void freeRecordFile(RecordFile *rf);
// Frees the items and forgets the file's times: it is read again on next use.
void discardRecordFile(RecordFile *rf);
// Appends a new item to the file's list and index and marks the file dirty.
void addRecordItem(RecordFile *rf, Item *item);
// The kept items (chained copies included) whose I value is id, in file order.
std::vector<Item *> recordItemsWithId(const RecordFile *rf, int32_t id);

/* ---- Reading -------------------------------------------------------------------- */

// When path is missing and path + "sav" exists (a rewrite died between its renames),
// links "sav" back under path. Reads, writes and tmprelink all call it first.
void restoreSavedCopy(const std::string &path);

// Replaces rf's items by the file's contents. A missing file with a "sav" copy is put
// back first; a file that cannot be opened counts as empty, but keeps the size and
// count last read or written (the shrink check's expectations) unless it is missing. Copies of the previous
// item from other databases are chained to it, duplicates dropped, items without
// calendars dropped, and missing or unsafe I values replaced by fresh random ones.
// Without user state in the current database, drops db's cache (rf with it) instead.
void readRecordFile(DbHandle *db, RecordFile *rf);

/* ---- Writing -------------------------------------------------------------------- */

// Writes header and items to path + "TMP" and checks it; 0 or an error above. On -1
// for missing user state the current database's cache is dropped (rf may be gone).
int writedbfile(RecordFile *rf);
// Puts path + "TMP" in place of the file, keeping the old one as "sav" until the new
// one is known good; 0 or an error above.
int tmprelink(RecordFile *rf);

/* ---- The cache of a database ---------------------------------------------------- */

// The loaded record file for path in db's cache, read (again) when it is new, not
// loaded, or written by another process since it was read. Never null.
RecordFile *openRecordFile(DbHandle *db, const char *path);
// The cached file for path, or null ("no cached file:%s" is logged in debug mode).
RecordFile *findRecordFile(DbHandle *db, const char *path);
// The cached file whose list holds item (or a copy chained to it), or null.
RecordFile *recordFileOf(DbHandle *db, const Item *item);
// Writes every dirty file of db (writedbfile + tmprelink), then touches the change
// stamp; returns 0 or the first error.
int writeDirtyFiles(DbHandle *db);
// Frees db's cache (installed as db->dropRecords).
void dropRecordCache(DbHandle *db);
// For a calendar-name table about to give names other indexes: writes the dirty files
// of every open database (the old names still in force, the main database current as
// when the files were read), then drops every cache, so that files are read again with
// the new indexes. Returns 0 or the first error; the caches go in either case.
int writeAndDropEveryCache();
int cachedFileCount(const DbHandle *db);

/* ---- Reports and the debug switch ------------------------------------------------ */

// 0 off; 1 logs opens and writes; above 1 also logs and prints invalid items.
void setRecordDebug(int level);
int recordDebug();
// The current time as the reports show it ("Sat Nov 21 21:08:15 2026").
const char *recordTimeText();
// True when there is a current database and it has no user state (no calendars).
bool noUserState();

}  // namespace quorvel
