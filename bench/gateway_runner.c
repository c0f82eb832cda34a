/* gateway_runner.c -- runs CGI programs one after another, round-robin, many times, and
 * reports for each the median, quartiles and peak resident set of a whole run. Taking
 * turns (A B A B ...) instead of all A then all B keeps a busy machine's drift out of
 * the comparison. Each run gets the caller's environment, its working directory, and
 * standard output on /dev/null.
 *
 *   gateway_runner RUNS WARMUP PROGRAM...
 * prints per program: "<program> median_us p25_us p75_us peak_kib" */
#define _POSIX_C_SOURCE 200809L
#define _DEFAULT_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define MAX_PROGRAMS 8

static double nowUs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

/* One run: microseconds from fork to reaped exit; *rssKib gets the child's peak. */
static double runOnce(const char *program, long *rssKib) {
  double start = nowUs();
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 1);
    execl(program, program, (char *)NULL);
    _exit(127);
  }
  int status = 0;
  struct rusage ru;
  if (pid < 0 || wait4(pid, &status, 0, &ru) != pid) {
    perror("gateway_runner");
    exit(1);
  }
  double took = nowUs() - start;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "gateway_runner: %s failed (status %d)\n", program, status);
    exit(1);
  }
  *rssKib = ru.ru_maxrss;
  return took;
}

static int byValue(const void *a, const void *b) {
  double x = *(const double *)a, y = *(const double *)b;
  return (x > y) - (x < y);
}

int main(int argc, char **argv) {
  if (argc < 4 || argc - 3 > MAX_PROGRAMS) {
    fprintf(stderr, "usage: gateway_runner RUNS WARMUP PROGRAM...\n");
    return 2;
  }
  int runs = atoi(argv[1]), warmup = atoi(argv[2]), n = argc - 3;
  if (runs < 1 || warmup < 0) return 2;
  double *times[MAX_PROGRAMS];
  long peak[MAX_PROGRAMS] = {0};
  for (int p = 0; p < n; p++) {
    times[p] = calloc((size_t)runs, sizeof(double));
    if (!times[p]) return 1;
  }
  for (int r = -warmup; r < runs; r++) {
    for (int p = 0; p < n; p++) {
      long rss = 0;
      double t = runOnce(argv[3 + p], &rss);
      if (r < 0) continue;
      times[p][r] = t;
      if (rss > peak[p]) peak[p] = rss;
    }
  }
  for (int p = 0; p < n; p++) {
    qsort(times[p], (size_t)runs, sizeof(double), byValue);
    printf("%s %.1f %.1f %.1f %ld\n", argv[3 + p], times[p][runs / 2], times[p][runs / 4],
           times[p][(3 * runs) / 4], peak[p]);
    free(times[p]);
  }
  return 0;
}
