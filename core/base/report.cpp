// report.cpp -- warnings, fatal errors and the log routine: one line each on stderr.
#include "core/base/base.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace quorvel {

static int reportsMade;  // set by every report, read by tests through reportCount

static void emit(const char *fmt, va_list ap) {
  char line[4096];
  vsnprintf(line, sizeof line, fmt, ap);
  size_t n = strlen(line);
  fputs(line, stderr);
  if (n == 0 || line[n - 1] != '\n') fputc('\n', stderr);
  fflush(stderr);
}

void warning(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  emit(fmt, ap);
  va_end(ap);
  reportsMade++;
}

void fatal(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  emit(fmt, ap);
  va_end(ap);
  reportsMade++;
  exitProcess(1);
}

void logMsg(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  emit(fmt, ap);
  va_end(ap);
}

int reportCount() { return reportsMade; }

void resetReports() { reportsMade = 0; }

}  // namespace quorvel
