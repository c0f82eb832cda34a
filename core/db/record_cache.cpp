// record_cache.cpp -- the record files a database has loaded: found by path, read on
// first use and again when their time or the database's change stamp moved, written
// back together when dirty, and dropped whole when the stamp says another process
// wrote the database.
#include <cerrno>
#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/recordfile.h"
#include "core/db/retry.h"

namespace quorvel {

struct RecordCache {
  std::vector<RecordFile *> files;  // owned
};

void dropRecordCache(DbHandle *db) {
  RecordCache *cache = db->records;
  db->records = nullptr;
  db->dropRecords = nullptr;
  if (cache == nullptr) return;
  for (RecordFile *rf : cache->files) freeRecordFile(rf);
  delete cache;
}

static RecordCache *cacheOf(DbHandle *db) {
  if (db->records == nullptr) {
    db->records = new RecordCache;
    db->dropRecords = dropRecordCache;
  }
  return db->records;
}

int cachedFileCount(const DbHandle *db) {
  return db->records != nullptr ? int(db->records->files.size()) : 0;
}

RecordFile *findRecordFile(DbHandle *db, const char *path) {
  if (db->records != nullptr)
    for (RecordFile *rf : db->records->files)
      if (rf->path == path) return rf;
  if (recordDebug() > 0) logMsg("no cached file:%s\n", path);
  return nullptr;
}

RecordFile *recordFileOf(DbHandle *db, const Item *item) {
  if (db->records == nullptr || item == nullptr) return nullptr;
  for (RecordFile *rf : db->records->files) {
    for (const Item *kept : rf->index)
      if (kept == item) return rf;
  }
  return nullptr;
}

// Another process wrote the file since it was read: its time moved.
static bool fileMoved(const RecordFile *rf) {
  return fileModTime(rf->path.c_str(), nullptr) != rf->mtime;
}

RecordFile *openRecordFile(DbHandle *db, const char *path) {
  // The stamp is read on first use (creating it when missing) and whenever it moved;
  // a move made by another process drops the cache.
  if (!db->inMemoryOnly && (db->lastSeenStamp == NO_TIME || stampChanged(db))) refreshChangeStamp(db);
  RecordFile *rf = findRecordFile(db, path);
  if (rf == nullptr) {
    rf = newRecordFile(path, db);
    cacheOf(db)->files.push_back(rf);
  }
  // A dirty file keeps its unsaved changes until it is written.
  if (!rf->loaded || (!rf->dirty && fileMoved(rf))) {
    readRecordFile(db, rf);
    if (db->records == nullptr) return nullptr;  // no user state: the cache is gone
  }
  return rf;
}

// tmprelink moves the old file aside first and fails when there is none. A file left
// only as "sav" by a writer that died between its renames is linked back (the cached
// contents were read before that writer died, so "sav" is what they replace); a file
// that does not exist yet is created empty before its first write.
static void ensureTarget(const RecordFile *rf) {
  restoreSavedCopy(rf->path);
  struct stat st;
  if (retryStat(rf->path.c_str(), &st) == 0 || errno != ENOENT) return;
  if (FILE *fp = Fopen(rf->path.c_str(), "a")) Fclose(fp);
}

// Writes each dirty file; sets *wrote when one was put in place.
static int writeFiles(DbHandle *db, bool *wrote) {
  int rc = 0;
  for (size_t i = 0; db->records != nullptr && i < db->records->files.size(); i++) {
    RecordFile *rf = db->records->files[i];
    if (!rf->dirty) continue;
    ensureTarget(rf);
    int r = writedbfile(rf);
    if (r == 0) r = tmprelink(rf);
    if (r == 0) *wrote = true;
    if (r != 0 && rc == 0) rc = r;
  }
  return rc;
}

int writeDirtyFiles(DbHandle *db) {
  if (db->records == nullptr) return 0;
  char lockPath[DB_PATH_MAX];
  writeLockPath(lockPath, db->dir.c_str());
  bool locks = usesLocalLocks(db);
  if (locks) lockDatabase(lockPath);
  bool wrote = false;
  int rc = writeFiles(db, &wrote);
  if (locks) unlockDatabase(lockPath);
  if (wrote) {
    DbHandle *previous = currentDb();
    stampDbWrite(db);  // may make db current for the touch
    if (mainDb() != nullptr) restoreCurrentDb();
    else setCurrentDb(previous);
  }
  return rc;
}

int writeAndDropEveryCache() {
  std::vector<DbHandle *> all = openDatabases();
  DbHandle *previous = currentDb();
  int rc = 0;
  for (DbHandle *db : all) {
    if (db->records == nullptr) continue;
    if (mainDb() != nullptr) setCurrentDb(mainDb());
    int r = writeDirtyFiles(db);
    if (r != 0 && rc == 0) rc = r;
  }
  for (DbHandle *db : all) dropFileCache(db);
  setCurrentDb(previous);
  return rc;
}

}  // namespace quorvel
