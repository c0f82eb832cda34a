// memlimit.h -- for death tests of out-of-memory reports: caps the process's address
// space just above what it uses and eats what is left, so the next allocation fails.
// Only for a forked death-test child; sanitizer builds cannot run under the cap.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define QV_NO_MEMLIMIT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QV_NO_MEMLIMIT 1
#endif
#endif

namespace quorvel {

inline bool memLimitWorks() {
#ifdef QV_NO_MEMLIMIT
  return false;
#else
  return true;
#endif
}

inline void exhaustMemory() {
  long pages = 0;
  if (FILE *f = fopen("/proc/self/statm", "r")) {
    if (fscanf(f, "%ld", &pages) != 1) pages = 0;
    fclose(f);
  }
  rlim_t cap = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (8u << 20);
  struct rlimit lim = {cap, cap};
  setrlimit(RLIMIT_AS, &lim);
  // (the blocks go through a volatile so that the compiler keeps every call)
  static void *volatile sink;
  // Large blocks first, then every small size class, so that freed chunks kept in the
  // allocator's bins are used up as well.
  for (size_t size = size_t(1) << 16; size > 1024; size /= 2) {
    do {
      sink = malloc(size);
    } while (sink != nullptr);
  }
  for (size_t size = 1024; size >= 8; size -= 8) {
    do {
      sink = malloc(size);
    } while (sink != nullptr);
  }
}

}  // namespace quorvel
