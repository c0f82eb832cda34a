// lock.cpp -- change stamps ("locks/active1"), touching files until their change time
// moves, the held lock file and its removal on exit, the lock-owner check, and the
// signal handlers. Divisions: touching; change stamps; locks; signals.
#include "core/db/lock.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/retry.h"

namespace quorvel {

/* ---- Process-wide state ------------------------------------------------------------ */

static char *heldName;                  // set by setLock, freed by clearLock
static int heldSignalSlot = -1;         // heldName's slot on the signal road, or -1
static bool cleanupRegistered;          // removeHeldLock is on the exit path
static char ownerId[100];               // lock-owner identity; set only by setLockOwner
static size_t ownerLen;                 // its length
static volatile sig_atomic_t signalCount;  // counted by the signal handler

/* ---- Touching ------------------------------------------------------------------------ */

int32_t touchfile(const char *path) {
  int32_t before = fileChangeTime(path);
  for (;;) {
    if (retryChmod(path, 0660) < 0) {
      int err = errno;
      DbHandle *db = currentDb();
      if (db == nullptr || !db->standalone)
        fatal("touchfile: cannot chmod %s (errno=%d)", path, err);
      warning("touchfile: cannot chmod %s (errno=%d)", path, err);
    }
    int32_t after = fileChangeTime(path);
    // (a file that cannot be examined would never show a new time)
    if (after != before || after == NO_TIME) return after;
    napSeconds(1);
  }
}

int32_t touchChangeStamp(const char *path) {
  if (retryChmod(path, 0660) < 0) return NO_TIME;
  return fileChangeTime(path);
}

/* ---- Change stamps --------------------------------------------------------------------- */

int32_t stampDbWrite(DbHandle *db) {
  if (!db->standalone) setCurrentDb(db);
  char path[DB_PATH_MAX];
  int32_t stamp = touchChangeStamp(stampPath(path, db->dir.c_str()));
  db->lastSeenStamp = stamp;
  db->ownWriteStamp = stamp;
  return stamp;
}

int refreshChangeStamp(DbHandle *db) {
  char path[DB_PATH_MAX];
  stampPath(path, db->dir.c_str());
  int32_t stamp = fileChangeTime(path);
  if (stamp == NO_TIME) {
    Fclose(Fopen(path, "w"));
    stamp = static_cast<int32_t>(currentTime());
  }
  if (db->lastSeenStamp != NO_TIME && db->lastSeenStamp != stamp) {
    // Another process wrote the database: the record-file code's cache goes.
    dropFileCache(db);
    db->outsideChange = stamp;
  }
  db->lastSeenStamp = stamp;
  return 1;
}

int stampChanged(const DbHandle *db) {
  if (db->inMemoryOnly) return 0;
  char path[DB_PATH_MAX];
  return fileChangeTime(stampPath(path, db->dir.c_str())) != db->lastSeenStamp ? 1 : 0;
}

int checkStampFile(const char *root) {
  std::string path = std::string(root) + "db/database/locks";
  if (!isDir(path.c_str())) return 0;
  path += "/active1";
  if (fileChangeTime(path.c_str()) == NO_TIME)
    retryCreat(path.c_str(), 0644);  // (kept open for the life of the process, on purpose)
  return 1;
}

int checkOwnDbStamp() {
  char root[DB_PATH_MAX];
  if (userDbRoot(root) == nullptr) return 0;
  return checkStampFile(root);
}

/* ---- Locks ------------------------------------------------------------------------------ */

int lockDatabase(const char *lockPath) {
  (void)lockPath;
  return 0;
}

int unlockDatabase(const char *lockPath) {
  (void)lockPath;
  return 0;
}

void setLock(const char *name) {
  if (heldName != nullptr && strcmp(heldName, name) == 0)
    fatal("setLock(\"%s\"): \"%s\" already locked", name, heldName);
  clearLock();
  size_t len = strlen(name) + 1;
  heldName = static_cast<char *>(allocMem(nullptr, len));
  if (heldName == nullptr) outOfMem("setLock");
  memcpy(heldName, name, len);
  heldSignalSlot = holdNameForSignal(heldName);
  if (!cleanupRegistered) {
    registerCleanup(removeHeldLock);
    cleanupRegistered = true;
  }
}

void clearLock() {
  releaseNameForSignal(heldSignalSlot);
  heldSignalSlot = -1;
  freeMem(heldName);
  heldName = nullptr;
}

const char *heldLock() { return heldName; }

void removeHeldLock() {
  if (heldName == nullptr) return;
  retryUnlink(heldName);
  clearLock();
}

int checkLockOwner(const char *path) {
  char buf[sizeof ownerId];
  long n = readFileHead(path, buf, sizeof buf);
  if (n <= 0) return 0;
  if (static_cast<size_t>(n) == ownerLen && memcmp(buf, ownerId, ownerLen) == 0) return 0;
  warning(dbText(19, 5, "Not MY lockfile! %s\n"), path);
  return -1;
}

void setLockOwner(const char *id, size_t len) {
  ownerLen = len < sizeof ownerId ? len : sizeof ownerId;
  memcpy(ownerId, id, ownerLen);
}

void stuckLock(const char *path, int err) {
  if (err == 0)
    fatal(dbText(12, 10, "Stuck lock file--try again in 5 minutes\n  (\"%s\")"), path);
  fatal(dbText(12, 9, "Stuck lock file--notify administrator\n  (\"%s\")  errno=%d"), path,
      err);
}

/* ---- Signals ---------------------------------------------------------------------------- */

// The handler may have interrupted malloc or stdio, so it leaves by the signal road:
// the held lock's name was recorded when it was taken; nothing is freed or flushed.
static void onSignal(int sig) {
  signal(sig, onSignal);
  signalCount = signalCount + 1;
  if (criticalDepth() < 1) exitOnSignal(128 + sig);
}

void installSignalHandlers() {
  signal(SIGINT, onSignal);
  signal(SIGHUP, onSignal);
  signal(SIGTERM, onSignal);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGCHLD, SIG_IGN);
}

int signalsReceived() { return signalCount; }

void resetLockState() {
  clearLock();
  cleanupRegistered = false;
  ownerLen = 0;
  signalCount = 0;
}

}  // namespace quorvel
