// alloc.cpp -- the core's allocation routine and its out-of-memory report.
#include "core/base/base.h"

#include <cstdio>
#include <cstdlib>

namespace quorvel {

void *allocMem(void *old, size_t size) {
  if (size == 0) size = 1;  // keep "null means failure" true for empty requests
  return old ? realloc(old, size) : malloc(size);
}

void freeMem(void *block) { free(block); }

void outOfMem(const char *caller) {
  fprintf(stderr, "OutOfMem: called from %s()\n", caller);
  exitProcess(1);
}

}  // namespace quorvel
