// rolo_book.cpp -- whole address books: the context's book states and unsaved changes,
// the book lock, reading a book (from its file or the server) and rewriting it.
//
// Divisions: settings and book states; marking and flushing; the book lock; reading;
// writing; the server.
#include "core/people/rolo.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/retry.h"
#include "core/net/remote.h"

namespace quorvel {

// Set by setRoloTrace (the client's trace switch), read by the reader and the writer.
static bool trace;
// Each context's write settings, set by setRoloTimes and by flushes; forgotten by
// releaseBooks and resetRolo. Contexts are few, so a short list does.
static std::vector<std::pair<const DbHandle *, RoloTimes>> settings;
// The book lock this process holds (empty when none): set and cleared around a write,
// removed by the exit path when the process leaves while holding it.
static std::string heldBookLock;
static bool lockCleanupRegistered;

static const RoloTimes kDefaultTimes{false, 300, 60, NO_TIME};

/* ==== Settings and book states ============================================================ */

RoloTimes roloTimes(const DbHandle *ctx) {
  for (const auto &s : settings)
    if (s.first == ctx) return s.second;
  return kDefaultTimes;
}

void setRoloTimes(const DbHandle *ctx, const RoloTimes &times) {
  for (auto &s : settings)
    if (s.first == ctx) {
      s.second = times;
      return;
    }
  settings.emplace_back(ctx, times);
}

BookState *findBookState(DbHandle *ctx, int calendar) {
  for (BookState *b = ctx->books; b != nullptr; b = b->next)
    if (b->calendar == calendar) return b;
  ctx->books = new BookState{int16_t(calendar), false, NO_TIME, nullptr, ctx->books};
  return ctx->books;
}

void releaseBooks(DbHandle *ctx) {
  while (BookState *b = ctx->books) {
    ctx->books = b->next;
    delete b;
  }
  for (size_t i = 0; i < settings.size(); i++)
    if (settings[i].first == ctx) settings.erase(settings.begin() + long(i));
}

/* ==== Marking and flushing ================================================================== */

void markRoloChange(DbHandle *ctx, BookState *book) {
  int32_t now = int32_t(currentTime());
  book->changed = true;
  if (ctx->firstUnsaved == NO_TIME) ctx->firstUnsaved = now;
  ctx->lastUnsaved = now;
  book->lastTime = now;
}

int flushRoloBooks(DbHandle *ctx) {
  if (ctx->firstUnsaved == NO_TIME) return 0;
  RoloTimes t = roloTimes(ctx);
  int64_t now = currentTime();  // 64-bit: NO_TIME less an interval must not wrap
  bool young = now - ctx->firstUnsaved < t.writeInterval;
  bool notJustFlushed = int64_t(t.lastFlush) <= now - t.quietInterval;
  if (young && notJustFlushed) return 0;
  int written = 0;
  bool failed = false;
  for (BookState *b = ctx->books; b != nullptr; b = b->next) {
    if (!b->changed) continue;
    // A book whose write failed stays changed, so that a later flush tries again
    // rather than forgetting changes that are only in memory.
    bool ok = writerololist(ctx, b, b->calendar, 1, nullptr) == 0;
    b->changed = !ok;
    failed = failed || !ok;
    written += ok;
  }
  ctx->firstUnsaved = ctx->lastUnsaved = failed ? int32_t(now) : NO_TIME;
  t.lastFlush = int32_t(now);
  setRoloTimes(ctx, t);
  return written;
}

/* ==== The book lock ========================================================================= */

static void removeRoloLock() {
  if (heldBookLock.empty()) return;
  retryUnlink(heldBookLock.c_str());
  heldBookLock.clear();
}

// The lock file names its holder as "<pid> <host>". A holder on this host that no longer
// runs left the lock behind when it crashed; such a lock is removed (1). Else 0.
static int removeStaleLock(const char *path) {
  char text[128], host[64] = "";
  long n = readFileHead(path, text, sizeof text - 1);
  if (n <= 0) return 0;
  text[n] = '\0';
  gethostname(host, sizeof host - 1);
  char *rest;
  long pid = strtol(text, &rest, 10);
  if (pid <= 0 || *rest != ' ') return 0;
  rest[1 + strcspn(rest + 1, "\n")] = '\0';
  if (strcmp(rest + 1, host) != 0) return 0;
  if (kill(pid_t(pid), 0) == 0 || errno != ESRCH) return 0;
  return retryUnlink(path) == 0 ? 1 : 0;
}

// Creates the lock file exclusively. A lock held by another process is waited for a
// second at a time; one still held after ROLO_LOCK_TRIES waits, or a lock file that
// cannot be made at all, is a stuck lock (fatal).
static void takeRoloLock(const char *path) {
  for (int waits = 0;;) {
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0444);
    if (fd >= 0) {
      char host[64] = "";
      gethostname(host, sizeof host - 1);
      dprintf(fd, "%d %s\n", int(getpid()), host);
      retryClose(fd);
      heldBookLock = path;
      if (!lockCleanupRegistered) registerCleanup(removeRoloLock);
      lockCleanupRegistered = true;
      return;
    }
    int err = errno;
    if (err == EINTR) continue;
    if (err != EEXIST) stuckLock(path, err);
    if (removeStaleLock(path)) continue;
    if (waits++ >= ROLO_LOCK_TRIES) stuckLock(path, 0);
    napSeconds(1);
  }
}

const char *heldRoloLock() { return heldBookLock.empty() ? nullptr : heldBookLock.c_str(); }

/* ==== Reading ================================================================================ */

static RoloEntry *readFromServer(DbHandle *ctx, int calendar, int32_t *stamp);

// Reads the book file into a new list: an unreadable file reads as empty, a list out
// of order is sorted and the book marked changed so that it is written back.
static RoloEntry *readBookFile(DbHandle *ctx, BookState *book, int calendar,
                               const std::string &path, int32_t *stamp) {
  RoloEntry *list = newRoloList();
  if (trace) logMsg("reading %s\n", path.c_str());
  FILE *in = path.empty() ? nullptr : Fopen(path.c_str(), "r");
  if (in == nullptr) return list;
  readRoloStream(in, calendar, list);
  if (roloOutOfOrder(list)) {
    sortrololist(list);
    markRoloChange(ctx, book);
  }
  Fclose(in);
  *stamp = book->lastTime = fileModTime(path.c_str(), nullptr);
  return list;
}

RoloEntry *readrololist(DbHandle *ctx, BookState *book, int calendar, RoloEntry *cached,
                        int32_t *stamp) {
  RoloEntry *list;
  if (isServerAttached(ctx)) {
    list = readFromServer(ctx, calendar, stamp);
  } else {
    std::string path = roloPath(calendar);
    int32_t fileTime = path.empty() ? NO_TIME : fileModTime(path.c_str(), nullptr);
    int32_t later = fileTime > book->lastTime ? fileTime : book->lastTime;
    // Unsaved changes live only in the cached list: a re-read would throw them away.
    if (cached != nullptr && (*stamp == later || book->changed)) {
      book->list = cached;
      return cached;
    }
    list = readBookFile(ctx, book, calendar, path, stamp);
  }
  if (cached != nullptr && cached != list) freeRoloList(cached);
  book->list = list;
  return list;
}

/* ==== Writing ================================================================================ */

// Makes the new book's directory entry durable before the old book goes.
static void syncDir(const std::string &path) {
  std::string dir = path.substr(0, path.rfind('/'));
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  retryClose(fd);
}

// Writes every entry into path + "TMP" (mode 0600), flushed and synced. 0, or -1 with
// the scratch file removed (or never made).
static int writeScratch(const std::string &tmp, const RoloEntry *list, int calendar) {
  FILE *out = Fopen(tmp.c_str(), "w+");
  if (out == nullptr) return -1;
  retryChmod(tmp.c_str(), 0600);
  bool bad = false;
  for (const RoloEntry *e = list->next; e != list && !bad; e = e->next)
    bad = writeRoloEntry(out, e, calendar) != 0;
  // A full disk may only show when the buffered lines reach the file.
  bad = bad || fflush(out) != 0 || fsync(fileno(out)) != 0;
  bad = Fclose(out) != 0 || bad;
  if (!bad) return 0;
  retryUnlink(tmp.c_str());
  return -1;
}

// Puts the scratch file in place of the book; the old book is "sav" meanwhile.
static int replaceBook(BookState *book, const std::string &path, int calendar) {
  std::string tmp = path + "TMP", sav = path + "sav";
  if (writeScratch(tmp, book->list, calendar) != 0) return -1;
  // retryRename gives 0 or -1; the results 17 and 2 that callers once told apart never
  // come, so every failure (a missing book included) is reported with -1 and leaves the
  // scratch file behind.
  int r = retryRename(path.c_str(), sav.c_str());
  if (r != 0) {
    warning("writerololist: unable to rename %s (errno=%d)!", path.c_str(), r);
    return -1;
  }
  errno = 0;
  if (link(tmp.c_str(), path.c_str()) != 0) {
    warning("writerololist: unable to link %s to %s (errno=%d)!", path.c_str(), tmp.c_str(),
            errno > 0 ? errno : -1);
    retryRename(sav.c_str(), path.c_str());
    return -1;
  }
  syncDir(path);
  errno = 0;
  if (retryUnlink(tmp.c_str()) != 0 && errno != 0) {
    warning("writerololist: unable to unlink temp %s (errno=%d)!", tmp.c_str(), errno);
    retryRename(sav.c_str(), path.c_str());
    return -1;
  }
  errno = 0;
  if (retryUnlink(sav.c_str()) != 0 && errno != 0) {
    warning("writerololist: unable to unlink saved %s (errno=%d)!", sav.c_str(), errno);
    return -1;
  }
  book->lastTime = fileModTime(path.c_str(), nullptr);
  return 0;
}

static int writeEntries(FILE *out, const RoloEntry *list, int calendar) {
  for (const RoloEntry *e = list->next; e != list; e = e->next)
    if (writeRoloEntry(out, e, calendar) != 0) return -1;
  return 0;
}

int writerololist(DbHandle *ctx, BookState *book, int calendar, int force, FILE *stream) {
  if (calendar < 0) return -1;
  if (!force && roloTimes(ctx).deferWrites) {
    markRoloChange(ctx, book);
    return 0;
  }
  // A book never read has no list; writing "nothing" would empty the file.
  if (book->list == nullptr) return -1;
  if (isServerAttached(ctx) && stream == nullptr) {
    int r = sendRoloChange(ctx, calendar, book->list, nullptr);
    if (r == 0) book->changed = false;
    return r;
  }
  std::string path = roloPath(calendar);
  if (path.empty()) return -1;
  if (trace) logMsg("writing %s\n", path.c_str());
  char dir[DB_PATH_MAX], lock[DB_PATH_MAX];
  takeRoloLock(roloLockPath(lock, resolveDbPath(dir, ctx->dir.c_str())));
  int r = stream ? writeEntries(stream, book->list, calendar) : replaceBook(book, path, calendar);
  if (r == 0 && stream == nullptr) book->changed = false;
  removeRoloLock();
  return r;
}

/* ==== The server ============================================================================== */

// RemReadRoloFile sends the calendar, the stamp the client holds and the form it reads
// (1: the book's text). The reply holds the list (kind 58, or 59 when it has no entries)
// and, when the server keeps one, the book's stamp as a number.
static constexpr int32_t ROLO_WIRE_TEXT = 1;

static RoloEntry *readFromServer(DbHandle *ctx, int calendar, int32_t *stamp) {
  RemReply reply;
  if (RemReadRoloFile(ctx->server, calendar, *stamp, ROLO_WIRE_TEXT, &reply) != 0)
    return newRoloList();
  const std::vector<RemField> &f = reply.fields;
  if (f.size() > 2 && f[2].kind == FIELD_NUMBER) *stamp = f[2].number;
  if (f.size() < 2 || f[1].kind != FIELD_BOOK) return newRoloList();
  return parseRoloList(f[1].bytes.data(), f[1].bytes.size(), calendar);
}

int sendRoloChange(DbHandle *ctx, int calendar, const RoloEntry *added,
                   const RoloEntry *removed) {
  if (!isServerAttached(ctx)) return -1;
  std::string a = added ? formatRoloList(added, calendar) : std::string();
  std::string r = removed ? formatRoloList(removed, calendar) : std::string();
  RemReply reply;
  return RemChangeRoloList(ctx->server, calendar, RemBytes{a.data(), a.size()},
                           RemBytes{r.data(), r.size()}, &reply);
}

/* ==== Switches and tests ===================================================================== */

void setRoloTrace(bool on) { trace = on; }

void resetRolo() {
  trace = false;
  settings.clear();
  removeRoloLock();
  lockCleanupRegistered = false;
}

}  // namespace quorvel
