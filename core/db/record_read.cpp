// record_read.cpp -- reads a record file into its in-memory list: puts a "sav" copy
// left by an interrupted rewrite back in place, parses header and items, chains the
// copies of an item kept for other databases, drops duplicates and invalid items, and
// gives fresh random ids where the file has none.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/record.h"
#include "core/db/recordfile.h"
#include "core/db/retry.h"

namespace quorvel {

// The whole file in an area of its own, with one spare byte for the line scanner. The
// area is mapped directly rather than taken from the heap: a file of many megabytes
// would otherwise raise the allocator's mapping threshold and make every later large
// allocation sweep the heap.
struct FileText {
  char *data = nullptr;
  size_t len = 0;
  size_t cap = 0;
  ~FileText() {
    if (data != nullptr) munmap(data, cap);
  }
  bool reserve(size_t want) {
    size_t cap2 = roundUp(long(want), 65536);
    void *area = mmap(nullptr, cap2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (area == MAP_FAILED) return false;
    if (data != nullptr) {
      memcpy(area, data, len);
      munmap(data, cap);
    }
    data = static_cast<char *>(area);
    cap = cap2;
    return true;
  }
};

// False on a read error or when no memory is left for the text.
static bool readAll(FILE *fp, FileText *text) {
  struct stat st;
  size_t guess = retryFstat(fileno(fp), &st) == 0 && st.st_size > 0 ? size_t(st.st_size) : 0;
  if (!text->reserve(guess + 1)) return false;
  for (;;) {
    if (text->len + 1 == text->cap && !text->reserve(text->cap * 2)) return false;
    size_t n = fread(text->data + text->len, 1, text->cap - text->len - 1, fp);
    text->len += n;
    if (n == 0) break;
  }
  return !ferror(fp);
}

static void reportInvalid(Item *item, Item *previous) {
  if (recordDebug() <= 1) return;
  logMsg("LOG: invalid %s event '%s' at %s\n", previous ? "cross db" : "single db",
         item->title ? item->title : "", recordTimeText());
  writeItem(stderr, item, nullptr, fileLineWriter);
  if (previous != nullptr) writeItem(stderr, previous, nullptr, fileLineWriter);
}

// Another database's copy of the previous item: same I, f and text, and not both with
// an owner.
static bool isCopyOf(const Item *item, const Item *prev) {
  return item->randomId >= 0 && prev->randomId >= 0 && item->randomId == prev->randomId &&
         item->fNumber == prev->fNumber && strcmp(item->title, prev->title) == 0 &&
         !(item->owner >= 0 && prev->owner >= 0);
}

static void keepCopy(RecordFile *rf, Item *prev, Item *item) {
  if (setIsEmpty(item->calendars)) {
    reportInvalid(item, prev);
    evfree(item);
  } else if (chainFind(prev, item->dbName) != nullptr) {
    evfree(item);  // a duplicate of a copy already held
  } else {
    chainAppend(prev, item);
    rf->index.push_back(item);
  }
}

// Ids near the top of the range are replaced too: callers add up to 5000 to them.
static void freshId(Item *item) {
  while (item->randomId < 0 || item->randomId > INT32_MAX - 5000) item->randomId = int32_t(lrand48());
}

// The items after the header; returns the number of list members kept.
static int readItems(RecordFile *rf, LineScan *scan) {
  const DateTime *defaults = listDefaults(&rf->list);
  Item *prev = nullptr;
  int count = 0;
  while (Item *item = parseItem(scan, defaults)) {
    if (prev != nullptr && isCopyOf(item, prev)) {
      keepCopy(rf, prev, item);
      continue;
    }
    freshId(item);
    prev = item;
    if (setIsEmpty(item->calendars)) {
      reportInvalid(item, nullptr);
      evfree(item);
      prev = nullptr;
      continue;
    }
    evlistAppend(&rf->list, item);
    rf->index.push_back(item);
    count++;
  }
  return count;
}

// Header and items from an open stream. Only a read that got through takes the file's
// size, count and time: they are what the next write's shrink check expects.
static void readStream(RecordFile *rf, FILE *fp) {
  FileText text;
  if (!readAll(fp, &text)) return;
  LineScan scan;
  startLineScan(&scan, text.data, text.len);
  if (parseListHeader(&scan, &rf->list) != 0) return;
  rf->index.reserve(text.len / 128);
  DbHandle *previous = enterItemDb(rf->list.dbName);  // as the list was written
  rf->count = readItems(rf, &scan);
  if (previous != nullptr) setCurrentDb(previous);
  struct stat st;
  rf->size = long(text.len);
  rf->mtime = retryFstat(fileno(fp), &st) == 0 ? int32_t(st.st_mtime) : NO_TIME;
}

// A file that cannot be opened counts as empty. Its expected size and count are kept
// all the same unless it is really missing: after a passing failure (EMFILE, EACCES,
// ESTALE) the next write of the emptied list would otherwise pass the shrink check and
// replace the whole file. The results and messages of the read are unchanged.
static FILE *openForReading(RecordFile *rf) {
  errno = 0;
  FILE *fp = Fopen(rf->path.c_str(), "r");
  if (fp == nullptr && errno == ENOENT) rf->size = 0, rf->count = 0;
  return fp;
}

void readRecordFile(DbHandle *db, RecordFile *rf) {
  if (db != nullptr && db == currentDb() && noUserState()) {
    warning("No user state at %s, aborting read of %s\n", recordTimeText(), rf->path.c_str());
    dropFileCache(db);  // rf may be freed with it
    return;
  }
  if (db != nullptr && db->outsideChange == NO_TIME) db->outsideChange = int32_t(currentTime());
  freeListHead(&rf->list);
  evlistInit(&rf->list);
  rf->list.owner = -1;
  rf->list.timeValue = initTimeRange();
  rf->index.clear();
  rf->dirty = false;
  rf->loaded = true;  // a file that cannot be opened counts as empty
  rf->mtime = NO_TIME;
  if (recordDebug() > 0) logMsg("opening %s at %s\n", rf->path.c_str(), recordTimeText());
  restoreSavedCopy(rf->path);
  FILE *fp = openForReading(rf);
  if (fp == nullptr) return;
  readStream(rf, fp);
  Fclose(fp);
}

}  // namespace quorvel
