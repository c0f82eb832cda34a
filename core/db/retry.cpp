// retry.cpp -- the database layer's file-system calls with their retry rules, and the
// buffered-stream helpers. Divisions: retry policy; ETIMEDOUT-rule wrappers;
// transient-rule wrappers; plain calls; buffered streams.
// This is the only file of core/db that makes raw file-system calls.
#include "core/db/retry.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"

namespace quorvel {

/* ---- Process-wide state ------------------------------------------------------------ */

// Whether chmod moves a file's change time: -1 unknown, 0 yes, 1 no (then retryChmod
// also sets the times). Settled by the first retryChmod of the process.
static int chmodState = -1;
// The change time seen before the first chmod; 0 until recorded.
static int32_t ctimeBeforeChmod = 0;

static constexpr int TRANSIENT_RETRIES = 3;     // transient rule: at most 4 attempts
static constexpr int STREAM_RETRIES = 3;        // Fclose flush retries

/* ---- Retry policy ---------------------------------------------------------------- */

bool isTransientErrno(int e) {
  return e == EINTR || e == EAGAIN || e == EBUSY || e == ETXTBSY || e == ETIMEDOUT;
}

void napSeconds(unsigned n) {
  DbHandle *db = currentDb();
  if (db != nullptr && db->standalone) return;
  pauseSeconds(n);
}

int timedOut(const char *name, int n) {
  if (n > 9) {
    warning(dbText(19, 6, "quorvel: timedOut: %s ETIMEDOUT %d times!\n"), name, n);
    return -1;
  }
  if (n < 4) napSeconds(1);
  return 0;
}

// Runs call under the ETIMEDOUT rule; errno is kept across timedOut's nap and report.
template <typename Call>
static int onTimeout(const char *name, Call call) {
  int r = call();
  for (int n = 0; r < 0 && errno == ETIMEDOUT; n++) {
    int saved = errno;
    int stop = timedOut(name, n);
    errno = saved;
    if (stop != 0) break;
    r = call();
  }
  return r;
}

// Runs call under the transient rule.
template <typename Call>
static int onTransient(Call call) {
  int r = call();
  for (int tries = 0; r < 0 && isTransientErrno(errno) && tries < TRANSIENT_RETRIES;
     tries++) {
    int saved = errno;
    napSeconds(1);
    errno = saved;
    r = call();
  }
  return r;
}

/* ---- ETIMEDOUT-rule wrappers --------------------------------------------------------- */

int retryCreat(const char *path, unsigned mode) {
  return onTimeout("creat", [&] { return creat(path, static_cast<mode_t>(mode)); });
}

int retryClose(int fd) {
  return onTimeout("close", [&] { return close(fd); });
}

int retryFstat(int fd, struct stat *buf) {
  return onTimeout("fstat", [&] { return fstat(fd, buf); });
}

int retryUtime(const char *path) {
  int first = errno;
  // Each retry starts from the errno the caller had, so that the caller's error is
  // what remains when utime finally succeeds.
  return onTimeout("utime", [&] {
    errno = first;
    return utime(path, nullptr);
  });
}

int retryChmod(const char *path, unsigned mode) {
  if (chmodState != 0 && ctimeBeforeChmod == 0) ctimeBeforeChmod = fileChangeTime(path);
  int r = onTimeout("chmod", [&] { return chmod(path, static_cast<mode_t>(mode)); });
  if (chmodState == 0) return r;
  int saved = errno;
  if (chmodState == -1) chmodState = fileChangeTime(path) == ctimeBeforeChmod ? 1 : 0;
  if (chmodState == 1) retryUtime(path);
  errno = saved;
  return r;
}

/* ---- Transient-rule wrappers ------------------------------------------------------- */

int retryUnlink(const char *path) {
  return onTransient([&] { return unlink(path); });
}

int retryStat(const char *path, struct stat *buf) {
  return onTransient([&] { return stat(path, buf); });
}

int retryRename(const char *from, const char *to) {
  return onTransient([&] { return rename(from, to); });
}

int retryLink(const char *from, const char *to) {
  return onTransient([&] { return link(from, to); });
}

/* ---- Plain calls ------------------------------------------------------------------ */

int makeDir(const char *path, unsigned mode) {
  return mkdir(path, static_cast<mode_t>(mode));
}

long readFileHead(const char *path, char *buf, size_t max) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  ssize_t n;
  do {
    n = read(fd, buf, max);
  } while (n < 0 && errno == EINTR);
  close(fd);
  return n < 0 ? 0 : static_cast<long>(n);
}

/* ---- Buffered streams --------------------------------------------------------------- */

void enterCritical() {}
void leaveCritical() {}
int criticalDepth() { return 0; }

FILE *Fopen(const char *path, const char *mode) {
  enterCritical();
  FILE *f = fopen(path, mode);
  if (f == nullptr) leaveCritical();
  return f;
}

// fflush, retried while it fails with errno set (EBADF excepted). errno is not cleared
// between attempts: a retry that fails without setting it keeps the earlier error.
static int flushWithRetries(FILE *stream) {
  int r = fflush(stream);
  for (int tries = 0; r != 0 && errno != 0 && errno != EBADF && tries < STREAM_RETRIES;
     tries++) {
    int saved = errno;
    napSeconds(1);
    errno = saved;
    r = fflush(stream);
  }
  return r;
}

int Fclose(FILE *stream) {
  if (stream == nullptr) {
    warning("Fclose() passed a NULL stream\n");
    return -1;
  }
  errno = 0;
  int r = flushWithRetries(stream);
  if (r != 0 && errno != 0) {
    int err = errno;
    warning("Fclose() fflush failed errno = %d\n", err);
    if (err == EBADF) return r;
  }
  // (fclose releases the stream whatever it returns, so the close itself is made
  // once, unlike the flush: a retried fclose would touch a freed stream.)
  errno = 0;
  r = fclose(stream);
  if (r != 0 && errno != 0) warning("Fclose() failed with errno = %d\n", errno);
  leaveCritical();
  return r;
}

char *readLineCrlf(char *buf, int size, FILE *stream) {
  if (fgets(buf, size, stream) == nullptr) return nullptr;
  size_t len = strlen(buf);
  if (len >= 2 && buf[len - 2] == '\r') {
    buf[len - 2] = buf[len - 1];
    buf[len - 1] = '\0';
  }
  return buf;
}

int copyFile(const char *to, const char *from) {
  FILE *in = Fopen(from, "r");
  FILE *out = in != nullptr ? Fopen(to, "w") : nullptr;
  if (in == nullptr || out == nullptr) {
    if (in != nullptr) Fclose(in);
    return -1;
  }
  int c;
  while ((c = getc(in)) != EOF)
    if (putc(c, out) == EOF) break;
  bool failed = ferror(in) != 0 || ferror(out) != 0;
  if (Fclose(in) != 0) failed = true;
  if (Fclose(out) != 0) failed = true;
  return failed ? -1 : 0;
}

/* ---- Tests ------------------------------------------------------------------------- */

int chmodTimeState() { return chmodState; }

void resetRetryState() {
  chmodState = -1;
  ctimeBeforeChmod = 0;
}

}  // namespace quorvel
