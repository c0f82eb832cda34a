// lock.h -- change stamps, lock files and the process's signal handling.
//
// A database's change stamp is the change time (st_ctime) of its "locks/active1": every
// writer moves it, every reader compares it with the value it saw last, and a difference
// means another process wrote the database. Processes sharing a database coordinate
// only through that stamp and the atomic rewrite of record files: lockDatabase and
// unlockDatabase are kept, called around a database write whenever usesLocalLocks (the
// database is neither reached through a server nor the default one), and do nothing.
// The process holds at most one named lock file, removed on every exit path. SIGINT,
// SIGHUP and SIGTERM end the process after removing it; SIGPIPE and SIGCHLD are
// ignored.
// Results: times are int32 seconds or NO_TIME; ints 0 success, -1 refusal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

struct DbHandle;

/* ---- Touching files ------------------------------------------------------------------ */

// Moves path's change time (chmod 0660), waiting a second and trying again until it has
// moved, so that every touch yields a new value; returns the new change time. A failed
// chmod is fatal unless the current database is standalone (then a warning). A file
// that cannot be examined after the chmod gives NO_TIME at once: its time could never
// move, and waiting for it would loop forever.
int32_t touchfile(const char *path);
// One retryChmod (path, 0660): NO_TIME when it fails, else the new change time.
int32_t touchChangeStamp(const char *path);

/* ---- The change stamp ---------------------------------------------------------------- */

// After db was written: touches its "locks/active1" and stores the time as both the
// last-seen stamp and the own-write stamp. A database that is not standalone becomes
// the current database for the touch (napSeconds judges by it); the caller restores the
// current database it wants afterwards. Returns the stamp.
int32_t stampDbWrite(DbHandle *db);

// Reads db's stamp, creating "locks/active1" (and taking the current time) when it is
// missing. When a stamp was seen before and this one differs, drops db's record-file
// cache and records the time as the last outside change. Always returns 1.
int refreshChangeStamp(DbHandle *db);

// 1 when db must re-read its files because of the stamp: not in-memory-only and the
// stamp differs from the last one seen; else 0.
int stampChanged(const DbHandle *db);

// The own database's stamp: root + "db/database/locks" must be a directory (else 0);
// its "/active1" is created (mode 0644, the descriptor deliberately kept open for the
// life of the process) when missing; answers 1. checkOwnDbStamp uses HOME + "/.quorvel/"
// as root (0 when HOME is unset).
int checkStampFile(const char *root);
int checkOwnDbStamp();

/* ---- Locks ----------------------------------------------------------------------------- */

int lockDatabase(const char *lockPath);     // empty: returns 0
int unlockDatabase(const char *lockPath);   // empty: returns 0

// Holds a copy of name as the process's lock; fatal when the same name is already held.
// The first call registers removeHeldLock with the exit path.
void setLock(const char *name);
void clearLock();
const char *heldLock();                     // null when none is held
void removeHeldLock();                      // unlinks the held lock file and clears it

// 0 when path cannot be opened, is empty, or holds exactly the lock-owner identity;
// otherwise warns "Not MY lockfile! <path>" and returns -1.
int checkLockOwner(const char *path);
// Sets the lock-owner identity (at most 100 bytes are kept). Nothing in the product
// writes it; it exists for the comparison above.
void setLockOwner(const char *id, size_t len);

// Fatal: "Stuck lock file--try again in 5 minutes" when err is 0, else
// "Stuck lock file--notify administrator" with err.
[[noreturn]] void stuckLock(const char *path, int err);

/* ---- Signals ----------------------------------------------------------------------------- */

// SIGINT, SIGHUP, SIGTERM: count, remove the held lock and end the process with status
// 128 + the signal, by async-signal-safe steps only (exitOnSignal).
// SIGPIPE, SIGCHLD: ignored.
void installSignalHandlers();
int signalsReceived();

// Forgets the held lock, the identity and the signal count (tests).
void resetLockState();

}  // namespace quorvel
