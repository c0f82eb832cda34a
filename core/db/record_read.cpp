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

// A crash between tmprelink's two renames leaves the file missing and its contents in
// "sav". Read as empty, the calendar would later be rewritten without its items, so the
// copy is linked back under the file's name. A link, not a rename: a writer between
// its own two renames keeps its "sav", and its rename of "TMP" replaces the link.
static void restoreSaved(const std::string &path) {
  struct stat st;
  if (retryStat(path.c_str(), &st) == 0 || errno != ENOENT) return;
  std::string sav = path + "sav";
  if (retryStat(sav.c_str(), &st) != 0) return;
  if (link(sav.c_str(), path.c_str()) != 0 && recordDebug() > 0)
    logMsg("cannot restore %s from its saved copy (errno=%d)", path.c_str(), errno);
}

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

static void readItems(RecordFile *rf, LineScan *scan) {
  const DateTime *defaults = listDefaults(&rf->list);
  Item *prev = nullptr;
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
    rf->count++;
  }
}

// Header and items from an open stream; the file's size and time are taken as read.
static void readStream(RecordFile *rf, FILE *fp) {
  FileText text;
  if (!readAll(fp, &text)) return;
  LineScan scan;
  startLineScan(&scan, text.data, text.len);
  if (parseListHeader(&scan, &rf->list) != 0) return;
  rf->index.reserve(text.len / 128);
  readItems(rf, &scan);
  struct stat st;
  rf->size = long(text.len);
  rf->mtime = retryFstat(fileno(fp), &st) == 0 ? int32_t(st.st_mtime) : NO_TIME;
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
  rf->size = 0;
  if (recordDebug() > 0) logMsg("opening %s at %s\n", rf->path.c_str(), recordTimeText());
  restoreSaved(rf->path);
  FILE *fp = Fopen(rf->path.c_str(), "r");
  if (fp == nullptr) return;
  rf->count = 0;
  readStream(rf, fp);
  Fclose(fp);
}

}  // namespace quorvel
