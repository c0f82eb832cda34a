// recordfile.cpp -- the state of one record file and its atomic rewrite: writedbfile
// (write "TMP", sync it, refuse a write that lost data) and tmprelink (old file to
// "sav", "TMP" into place, directory synced, "sav" removed; "sav" put back on failure).
#include "core/db/recordfile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/record.h"
#include "core/db/retry.h"
#include "core/net/namelookup.h"

namespace quorvel {

// The debug level: set by setRecordDebug (tests, client start-up), read by the reports.
static int debugLevel = 0;

void setRecordDebug(int level) { debugLevel = level; }
int recordDebug() { return debugLevel; }

const char *recordTimeText() {
  static char text[32];
  time_t now = currentTime();
  struct tm tm;
  if (localtime_r(&now, &tm) == nullptr || strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", &tm) == 0)
    snprintf(text, sizeof text, "%ld", long(now));
  return text;
}

bool noUserState() { return currentDb() != nullptr && calendarCount() == 0; }

/* ==== Record file state ============================================================ */

RecordFile *newRecordFile(const char *path, DbHandle *db) {
  RecordFile *rf = new RecordFile;
  rf->path = path;
  const char *slash = strrchr(path, '/');
  rf->dirPath = slash == nullptr ? "." : slash == path ? "/" : std::string(path, size_t(slash - path));
  rf->dirTime = NO_TIME;
  rf->db = db;
  evlistInit(&rf->list);
  rf->list.owner = -1;
  rf->list.timeValue = initTimeRange();
  rf->mtime = NO_TIME;
  rf->size = 0;
  rf->count = 0;
  rf->dirty = rf->shrinkOnce = rf->loaded = false;
  return rf;
}

void freeRecordFile(RecordFile *rf) {
  if (rf == nullptr) return;
  freeListHead(&rf->list);
  delete rf;
}

void discardRecordFile(RecordFile *rf) {
  evlistFree(&rf->list);
  rf->index.clear();
  rf->loaded = false;
  rf->dirty = false;
  rf->mtime = NO_TIME;
}

void addRecordItem(RecordFile *rf, Item *item) {
  evlistAppend(&rf->list, item);
  rf->index.push_back(item);
  rf->dirty = true;
}

std::vector<Item *> recordItemsWithId(const RecordFile *rf, int32_t id) {
  std::vector<Item *> found;
  for (Item *item : rf->index)
    if (item->randomId == id) found.push_back(item);
  return found;
}

/* ==== The saved copy ================================================================ */

// A crash between tmprelink's two renames leaves the file missing and its contents in
// "sav". Read as empty, the calendar would later be rewritten without its items, and a
// rewrite would remove "sav" and then fail to move the missing file aside; so the copy
// is linked back under the file's name. A link, not a rename: a writer between its own
// two renames keeps its "sav", and its rename of "TMP" replaces the link.
void restoreSavedCopy(const std::string &path) {
  struct stat st;
  if (retryStat(path.c_str(), &st) == 0 || errno != ENOENT) return;
  std::string sav = path + "sav";
  if (retryStat(sav.c_str(), &st) != 0) return;
  if (retryLink(sav.c_str(), path.c_str()) != 0 && recordDebug() > 0)
    logMsg("cannot restore %s from its saved copy (errno=%d)", path.c_str(), errno);
}

/* ==== Durability =================================================================== */

// Pushes the stream's data to the disk before the file is published by a rename.
static int syncStream(FILE *fp) {
  if (fflush(fp) != 0) return -1;
  return fsync(fileno(fp));
}

// Makes a rename inside dir durable. Failures are not reported: the rename itself
// succeeded and its result stands.
static void syncDir(const std::string &dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

/* ==== writedbfile ================================================================== */

// Writes the header and the items, synced; 0, errno, or the writer's own result.
static int writeContents(RecordFile *rf, FILE *fp, int *written) {
  TextSink sink;
  sink.file = fp;
  errno = 0;
  int rc = writeListLines(&sink, &rf->list, textLineWriter, written);
  if (flushTextSink(&sink) != 0 || rc != 0) {
    if (sink.error > 0) return sink.error;
    return errno != 0 ? errno : (rc != 0 ? rc : -1);
  }
  if (syncStream(fp) != 0) return errno != 0 ? errno : -1;
  return 0;
}

// 100 * observed / expected below 90, both known and observed the smaller.
static bool shrunk(long long expected, long long observed) {
  return expected != 0 && observed != 0 && expected > observed && 100 * observed / expected < 90;
}

// The written "TMP" file against the sizes last known: 0, or -EIO when both shrank.
static int checkWritten(RecordFile *rf, const std::string &tmp, int written) {
  long size = 0;
  errno = 0;
  if (fileModTime(tmp.c_str(), &size) == NO_TIME || size <= 0) return errno != 0 ? errno : -EINTR;
  if (rf->shrinkOnce) {
    rf->shrinkOnce = false;
    rf->count = written;
    return 0;
  }
  if (!shrunk(rf->size, size) || !shrunk(rf->count, written)) {
    rf->count = written;
    return 0;
  }
  warning("writedbfile fail: incomplete write - %d/%d (observed) != %d/%d (expected)", int(size),
          written, int(rf->size), rf->count);
  std::string bad = rf->path + "BAD";
  struct stat st;
  if (retryStat(bad.c_str(), &st) != 0) retryRename(tmp.c_str(), bad.c_str());
  rf->loaded = false;
  rf->mtime = NO_TIME;
  return -EIO;
}

int writedbfile(RecordFile *rf) {
  if (noUserState()) {
    warning("No user state at %s, aborting write of %s\n", recordTimeText(), rf->path.c_str());
    dropFileCache(currentDb());  // rf may be freed with it
    return -1;
  }
  if (debugLevel > 0) logMsg("writing %s at %s\n", rf->path.c_str(), recordTimeText());
  std::string tmp = rf->path + "TMP";
  errno = 0;
  FILE *fp = Fopen(tmp.c_str(), "w");
  if (fp == nullptr) {
    int rc = errno != 0 ? errno : -ESRCH;
    warning("quorvel: database write open failed:errno=%d", rc);
    discardRecordFile(rf);
    return rc;
  }
  int written = 0;
  int rc = writeContents(rf, fp, &written);
  int closed = Fclose(fp);
  if (rc == 0) rc = closed;
  if (rc != 0) {
    warning("quorvel: database write failed--errno=%d", rc);
    retryUnlink(tmp.c_str());
    discardRecordFile(rf);
    return rc;
  }
  rf->dirty = false;
  rf->dirTime = NO_TIME;
  rf->mtime = NO_TIME;
  return checkWritten(rf, tmp, written);
}

/* ==== tmprelink ==================================================================== */

// Step 2 failed: these results are passed up as they are; any other forgets the file.
static int movedAsideFailed(RecordFile *rf, int rc) {
  warning("tmprelink: unable to rename %s (errno=%d)!", rf->path.c_str(), rc);
  switch (rc) {
    case 1: case 4: case 9: case 23: case 24: case 28: case 30: return rc;
    default: break;
  }
  rf->mtime = NO_TIME;
  rf->loaded = false;
  return rc != 0 ? rc : -6;
}

// The new file is in place: remove "sav" and take the new times and size.
static int settleNewFile(RecordFile *rf, const std::string &sav, long size) {
  errno = 0;
  if (retryUnlink(sav.c_str()) != 0) {
    if (errno == 0) return -EAGAIN;
    int e = errno;
    warning("tmprelink: unable to unlink saved %s (errno=%d)!", sav.c_str(), e);
    return e;
  }
  rf->mtime = fileModTime(rf->path.c_str(), nullptr);
  rf->dirTime = fileModTime(rf->dirPath.c_str(), nullptr);
  rf->size = size;
  rf->shrinkOnce = false;
  return 0;
}

int tmprelink(RecordFile *rf) {
  errno = 0;
  const char *path = rf->path.c_str();
  std::string tmp = rf->path + "TMP", sav = rf->path + "sav";
  struct stat st;
  // A "sav" without the file is the only copy of the old contents (its writer died
  // between the renames): it goes back in place before the stale-copy removal below.
  restoreSavedCopy(rf->path);
  if (retryStat(sav.c_str(), &st) == 0) retryUnlink(sav.c_str());
  int rc = retryRename(path, sav.c_str());
  // The wrapper gives -1 for every failure, a missing file included: only 0 moves on,
  // so the old file is always in "sav" below and is put back on every failure.
  if (rc != 0) return movedAsideFailed(rf, rc);
  errno = 0;
  if (retryRename(tmp.c_str(), path) != 0) {
    int e = errno;
    warning("tmprelink: unable to rename %s to %s (errno=%d)!", tmp.c_str(), path, e);
    retryRename(sav.c_str(), path);
    return e != 0 ? e : -E2BIG;
  }
  syncDir(rf->dirPath);
  long size = 0;
  if (fileModTime(path, &size) != NO_TIME && size >= 1) return settleNewFile(rf, sav, size);
  retryUnlink(path);
  warning("tmprelink: target file %s does not exist", path);
  retryRename(sav.c_str(), path);
  return -ECHILD;
}

}  // namespace quorvel
