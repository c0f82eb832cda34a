// The chained hash table: the bucket rule, repeated keys, set-or-insert, removal, walking
// and destroying, with the links of every bucket checked both ways; and its out-of-memory
// reports, with allocMem wrapped at link time to fail on demand.
#include "core/date/hash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/base/base.h"

using namespace quorvel;

static bool failAlloc = false;  // set by the death tests inside the dying child

extern "C" void *__real__ZN7quorvel8allocMemEPvm(void *old, size_t size);
extern "C" void *__wrap__ZN7quorvel8allocMemEPvm(void *old, size_t size) {
  return failAlloc ? nullptr : __real__ZN7quorvel8allocMemEPvm(old, size);
}

namespace {
// Integer keys carried in the pointer; the "hash" is the key itself, so that keys at and
// past the bucket count exercise the remainder rule.
const void *K(uintptr_t k) { return reinterpret_cast<const void *>(k); }
void *V(uintptr_t v) { return reinterpret_cast<void *>(v); }
uintptr_t num(const void *p) { return reinterpret_cast<uintptr_t>(p); }
size_t identity(const void *key, size_t) { return num(key); }
int sameNumber(const void *a, const void *b) { return num(a) == num(b) ? 0 : 1; }

// "key=value " of every node in walk order, once every bucket's ring is checked whole:
// forward and backward walks meet the same nodes, each of them in its own bucket.
std::string walked(const HashTable *t) {
  for (size_t i = 0; i < t->buckets; i++) {
    HashNode *head = hashBucket(t, i);
    std::vector<HashNode *> fwd, back;
    for (HashNode *n = head->next; n != head; n = n->next) fwd.push_back(n);
    for (HashNode *n = head->prev; n != head; n = n->prev) back.insert(back.begin(), n);
    EXPECT_EQ(fwd, back) << "bucket " << i;
    for (HashNode *n : fwd) EXPECT_EQ(hashBucketOf(t, n->key), i);
  }
  std::string out;
  hwalk(t, [](const void *k, void *v, void *arg) {
    *static_cast<std::string *>(arg) += std::to_string(num(k)) + "=" + std::to_string(num(v)) + " ";
  }, &out);
  return out;
}
}  // namespace

TEST(HashTable, BucketIsTheHashBelowTheCountElseItsRemainder) {
  HashTable *t = hinit(7, V(99), identity, sameNumber);
  struct { uintptr_t key; size_t bucket; } rows[] = {
      {0, 0}, {3, 3}, {6, 6}, {7, 0}, {10, 3}, {700, 0}, {SIZE_MAX, SIZE_MAX % 7}};
  for (auto &r : rows) {
    EXPECT_EQ(hashBucketOf(t, K(r.key)), r.bucket) << r.key;
    hadd(t, K(r.key), V(r.key + 1));
  }
  // Walk order: bucket by bucket, newest first inside a bucket.
  EXPECT_EQ(walked(t), "700=701 7=8 0=1 " + std::to_string(SIZE_MAX) + "=0 10=11 3=4 6=7 ");
  hdestroy(t, nullptr, nullptr);
  // No buckets asked for: one bucket, so the remainder never divides by zero.
  t = hinit(0, nullptr, identity, sameNumber);
  EXPECT_EQ(t->buckets, 1u);
  hadd(t, K(5), V(6));
  EXPECT_EQ(hlookup(t, K(5)), V(6));
  hdestroy(t, nullptr, nullptr);
  // Text keys: an equal text at another address finds the newest node.
  t = hinit(16, nullptr, hashText, compareText);
  std::string names[] = {"ann", "bob", "carl", "dora", "ann"}, probe = "ann";
  for (int i = 0; i < 5; i++) hadd(t, names[i].c_str(), V(uintptr_t(i + 1)));
  EXPECT_EQ(hlookup(t, probe.c_str()), V(5));
  EXPECT_EQ(hlookup(t, "dora"), V(4));
  EXPECT_EQ(hlookup(t, "eve"), nullptr);
  EXPECT_LT(hashText("zzzzzzzzzzzzzzzzzzzzzzzz", 16), 16u);
  walked(t);  // for its ring checks
  hdestroy(t, nullptr, nullptr);
}

TEST(HashTable, RepeatedKeysLookupSetAndRemoveTheNewestFirst) {
  HashTable *t = hinit(4, V(99), identity, sameNumber);
  EXPECT_EQ(hlookup(t, K(1)), V(99));  // the table's own absent value
  EXPECT_FALSE(hpresent(t, K(1)));
  EXPECT_EQ(hremove(t, K(1)), -1);
  hadd(t, K(1), V(10));
  hadd(t, K(5), V(50));  // same bucket as 1
  hadd(t, K(1), V(11));  // the key repeats
  EXPECT_EQ(hlookup(t, K(1)), V(11));
  hset(t, K(1), V(12));  // changes the newest of the two only
  EXPECT_EQ(walked(t), "1=12 5=50 1=10 ");
  hset(t, K(2), V(20));  // absent: inserted
  hset(t, K(9), nullptr);
  EXPECT_TRUE(hpresent(t, K(9)));  // a node whose value is null still counts
  EXPECT_EQ(hlookup(t, K(9)), nullptr);
  EXPECT_EQ(hremove(t, K(1)), 0);
  EXPECT_EQ(hlookup(t, K(1)), V(10));  // the older node shows again
  EXPECT_EQ(hremove(t, K(1)), 0);
  EXPECT_EQ(hremove(t, K(1)), -1);
  EXPECT_FALSE(hpresent(t, K(1)));
  EXPECT_EQ(walked(t), "9=0 5=50 2=20 ");  // 9 joined 5 at its bucket head
  // Destroy visits each remaining node once before freeing it.
  std::string seen;
  hdestroy(t, [](const void *k, void *, void *arg) {
    *static_cast<std::string *>(arg) += std::to_string(num(k));
  }, &seen);
  EXPECT_EQ(seen, "952");
  hdestroy(nullptr, nullptr, nullptr);
}

TEST(HashTableDeath, OutOfMemoryNamesHinitOrHadd) {
  const char *inHinit = "^OutOfMem: called from hinit\\(\\)\n$";
  const char *inHadd = "^OutOfMem: called from hadd\\(\\)\n$";
  EXPECT_EXIT({ failAlloc = true; hinit(8, nullptr, identity, sameNumber); },
              ::testing::ExitedWithCode(1), inHinit);
  // A bucket count whose block size would wrap around is out of memory too.
  EXPECT_EXIT(hinit(SIZE_MAX / 2, nullptr, identity, sameNumber), ::testing::ExitedWithCode(1),
              inHinit);
  HashTable *t = hinit(8, nullptr, identity, sameNumber);
  EXPECT_EXIT({ failAlloc = true; hadd(t, K(1), nullptr); }, ::testing::ExitedWithCode(1),
              inHadd);
  // Setting an absent key inserts, and so reports as hadd.
  EXPECT_EXIT({ failAlloc = true; hset(t, K(1), nullptr); }, ::testing::ExitedWithCode(1),
              inHadd);
  hset(t, K(1), V(2));  // in this process the allocation works
  EXPECT_EQ(hlookup(t, K(1)), V(2));
  hdestroy(t, nullptr, nullptr);
}
