// hash.cpp -- the chained hash table: one block holding the four-word header and the
// bucket heads, nodes on circular doubly linked lists hanging from each head.
#include "core/date/hash.h"

#include <cstdint>
#include <cstring>
#include <new>

#include "core/base/base.h"

namespace quorvel {

namespace {

// The largest bucket count whose block size still fits a size_t.
constexpr size_t MAX_BUCKETS = (SIZE_MAX - sizeof(HashTable)) / sizeof(HashNode);

HashNode *headsOf(const HashTable *table) {
  const char *after = reinterpret_cast<const char *>(table) + sizeof(HashTable);
  return std::launder(reinterpret_cast<HashNode *>(const_cast<char *>(after)));
}

HashNode *findNode(const HashTable *table, const void *key) {
  HashNode *head = hashBucket(table, hashBucketOf(table, key));
  for (HashNode *n = head->next; n != head; n = n->next)
    if (table->compare(n->key, key) == 0) return n;
  return nullptr;
}

}  // namespace

static_assert(sizeof(HashTable) % alignof(HashNode) == 0, "bucket heads follow the header");

/* ==== Making and destroying ========================================================== */

HashTable *hinit(size_t buckets, void *absent, HashFn hash, HashCompare compare) {
  if (buckets == 0) buckets = 1;
  if (buckets > MAX_BUCKETS) outOfMem("hinit");  // the block size would wrap around
  void *block = allocMem(nullptr, sizeof(HashTable) + buckets * sizeof(HashNode));
  if (block == nullptr) outOfMem("hinit");
  HashTable *table = new (block) HashTable{buckets, absent, hash, compare};
  char *heads = static_cast<char *>(block) + sizeof(HashTable);
  for (size_t i = 0; i < buckets; i++) {
    HashNode *head = new (heads + i * sizeof(HashNode)) HashNode{};
    head->next = head->prev = head;  // an empty bucket links to itself
  }
  return table;
}

void hdestroy(HashTable *table, HashVisit visit, void *arg) {
  if (table == nullptr) return;
  for (size_t i = 0; i < table->buckets; i++) {
    HashNode *head = hashBucket(table, i);
    for (HashNode *n = head->next, *next; n != head; n = next) {
      next = n->next;
      if (visit != nullptr) visit(n->key, n->value, arg);
      freeMem(n);
    }
  }
  freeMem(table);
}

/* ==== Adding and removing ============================================================ */

void hadd(HashTable *table, const void *key, void *value) {
  HashNode *n = static_cast<HashNode *>(allocMem(nullptr, sizeof(HashNode)));
  if (n == nullptr) outOfMem("hadd");
  HashNode *head = hashBucket(table, hashBucketOf(table, key));
  n->key = key;
  n->value = value;
  n->prev = head;
  n->next = head->next;
  head->next->prev = n;
  head->next = n;
}

void hset(HashTable *table, const void *key, void *value) {
  HashNode *n = findNode(table, key);
  if (n != nullptr)
    n->value = value;
  else
    hadd(table, key, value);
}

int hremove(HashTable *table, const void *key) {
  HashNode *n = findNode(table, key);
  if (n == nullptr) return -1;
  n->prev->next = n->next;
  n->next->prev = n->prev;
  freeMem(n);
  return 0;
}

/* ==== Looking up and walking ========================================================= */

void *hlookup(const HashTable *table, const void *key) {
  HashNode *n = findNode(table, key);
  return n != nullptr ? n->value : table->absent;
}

bool hpresent(const HashTable *table, const void *key) { return findNode(table, key) != nullptr; }

void hwalk(const HashTable *table, HashVisit visit, void *arg) {
  for (size_t i = 0; i < table->buckets; i++) {
    HashNode *head = hashBucket(table, i);
    for (HashNode *n = head->next; n != head; n = n->next) visit(n->key, n->value, arg);
  }
}

size_t hashBucketOf(const HashTable *table, const void *key) {
  size_t b = table->hash(key, table->buckets);
  return b < table->buckets ? b : b % table->buckets;
}

HashNode *hashBucket(const HashTable *table, size_t i) { return headsOf(table) + i; }

/* ==== Stock functions ================================================================ */

size_t hashText(const void *key, size_t buckets) {
  size_t h = 0;
  for (const unsigned char *p = static_cast<const unsigned char *>(key); *p != 0; p++)
    h = h * 31 + *p;
  return h % buckets;
}

int compareText(const void *a, const void *b) {
  return strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

}  // namespace quorvel
