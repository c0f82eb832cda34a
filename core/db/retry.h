// retry.h -- the file-system calls of the database layer, retried the way a busy network
// file system needs.
//
// Two retry rules. The transient rule (unlink, stat, rename, link): while the call fails with
// EINTR, EAGAIN, EBUSY, ETXTBSY or ETIMEDOUT, nap one second and try again, at most 3
// retries. The ETIMEDOUT rule (creat, close, fstat, chmod, utime): while the call fails
// with ETIMEDOUT, ask timedOut, which naps one second for the first four retries, goes
// on at once for the next six and gives up with a warning after ten. Any other error
// ends the loop at once. This file is the only place in the layer that makes the raw
// system calls; each wrapper returns what the call returned on its last attempt, with
// errno as that attempt left it.
//
// The buffered-stream helpers (Fopen, Fclose, readLineCrlf, copyFile) live here too.
#pragma once

#include <cstddef>
#include <cstdio>
#include <sys/stat.h>

namespace quorvel {

/* ---- Retry policy ------------------------------------------------------------------ */

// EINTR, EAGAIN, EBUSY, ETXTBSY and ETIMEDOUT.
bool isTransientErrno(int e);

// Asked before ETIMEDOUT retry n (counted from 0). n > 9: warns "quorvel: timedOut: %s
// ETIMEDOUT %d times!" and answers -1 (stop); n < 4: naps one second; answers 0.
int timedOut(const char *name, int n);

// Sleeps n seconds through pauseSeconds, except for a standalone current database,
// for which it returns at once.
void napSeconds(unsigned n);

/* ---- Wrappers, ETIMEDOUT rule -------------------------------------------------------- */

int retryCreat(const char *path, unsigned mode);
int retryClose(int fd);
int retryFstat(int fd, struct stat *buf);
// chmod; on a file server whose chmod leaves the change time alone (found out on the
// first call of the process) it also sets the file times to now with retryUtime, since
// the change stamp depends on that time moving. Returns the chmod's result.
int retryChmod(const char *path, unsigned mode);
int retryUtime(const char *path);   // access and modification time to now

/* ---- Wrappers, transient rule -------------------------------------------------------- */

int retryUnlink(const char *path);
int retryStat(const char *path, struct stat *buf);
int retryRename(const char *from, const char *to);
// A second name for a file; unlike rename it fails (EEXIST) when `to` exists.
int retryLink(const char *from, const char *to);

/* ---- Plain calls the layer needs once each ------------------------------------------- */

int makeDir(const char *path, unsigned mode);       // mkdir
// Reads at most max bytes from the start of path; the count, or -1 when it cannot be
// opened.
long readFileHead(const char *path, char *buf, size_t max);

/* ---- Buffered streams ---------------------------------------------------------------- */

FILE *Fopen(const char *path, const char *mode);    // fopen; null on failure
// Flushes, retrying a failed flush up to 3 times one second apart while errno is set
// and not EBADF, then closes. Reports "Fclose() fflush failed errno = %d" when the flush
// still fails (and returns at once, unclosed, when that errno is EBADF) and "Fclose()
// failed with errno = %d" when the close fails. The close is made once, never retried:
// fclose frees the stream even when it fails, so a retry would touch freed memory.
// A null stream is reported and gives -1. Otherwise returns fclose's result.
int Fclose(FILE *stream);
// fgets; a line ending in CR LF comes back ending in LF. Null at end of file.
char *readLineCrlf(char *buf, int size, FILE *stream);
// Copies from into to byte by byte; 0, or -1 when a stream fails to open or reports an
// error.
int copyFile(const char *to, const char *from);

// The critical section around opens and closes. Entering and leaving are empty, so a
// signal always ends the process; criticalDepth is therefore always 0.
void enterCritical();
void leaveCritical();
int criticalDepth();

/* ---- Tests ----------------------------------------------------------------------------- */

// The chmod change-time state: -1 not yet known, 0 chmod moves it, 1 it does not.
int chmodTimeState();
void resetRetryState();

}  // namespace quorvel
