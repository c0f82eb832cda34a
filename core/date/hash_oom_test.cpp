// The hash table's out-of-memory reports: allocMem is wrapped at link time and fails
// on demand, and the reports name the routine that asked.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "core/base/base.h"
#include "core/date/hash.h"

using namespace quorvel;

static bool failAlloc = false;  // set by the tests inside the dying child

extern "C" void *__real__ZN7quorvel8allocMemEPvm(void *old, size_t size);
extern "C" void *__wrap__ZN7quorvel8allocMemEPvm(void *old, size_t size) {
  return failAlloc ? nullptr : __real__ZN7quorvel8allocMemEPvm(old, size);
}

static size_t hashNone(const void *, size_t) { return 0; }
static int same(const void *a, const void *b) { return a == b ? 0 : 1; }

TEST(HashTableDeath, OutOfMemoryNamesHinitOrHadd) {
  EXPECT_EXIT({ failAlloc = true; hinit(8, nullptr, hashNone, same); },
              ::testing::ExitedWithCode(1), "^OutOfMem: called from hinit\\(\\)\n$");
  // A bucket count whose block size would wrap around is out of memory too.
  EXPECT_EXIT(hinit(SIZE_MAX / 2, nullptr, hashNone, same), ::testing::ExitedWithCode(1),
              "^OutOfMem: called from hinit\\(\\)\n$");
  HashTable *t = hinit(8, nullptr, hashNone, same);
  int key = 0;
  EXPECT_EXIT({ failAlloc = true; hadd(t, &key, nullptr); }, ::testing::ExitedWithCode(1),
              "^OutOfMem: called from hadd\\(\\)\n$");
  // Setting an absent key inserts, and so reports as hadd.
  EXPECT_EXIT({ failAlloc = true; hset(t, &key, nullptr); }, ::testing::ExitedWithCode(1),
              "^OutOfMem: called from hadd\\(\\)\n$");
  hset(t, &key, &key);  // in this process the allocation works
  EXPECT_EQ(hlookup(t, &key), &key);
  hdestroy(t, nullptr, nullptr);
}
