// hash.h -- the small chained hash table the core keeps for keyed lookups.
//
// A table is one block: a header of four words (bucket count, the value returned for
// an absent key, the hash function, the compare function) followed by the buckets.
// Each bucket is the head of a circular doubly linked list of nodes; a node holds its
// two links, a key and a value (both untyped words the caller owns). The bucket of a
// key is hash(key, bucket count) when that is below the bucket count, otherwise its
// remainder by the bucket count. New nodes go to the head of their bucket and keys may
// repeat, so a lookup finds the most recently added of equal keys. compare returns 0
// for equal keys.
//
// Running out of memory ends the process with the out-of-memory report naming "hinit"
// (making a table) or "hadd" (adding a node, also through hset).
// Results: lookups give the value or the table's default; hremove gives 0, or -1 when
// no node has the key.
#pragma once

#include <cstddef>

namespace quorvel {

using HashFn = size_t (*)(const void *key, size_t buckets);
using HashCompare = int (*)(const void *a, const void *b);
// Called with each node's key and value; arg is handed through.
using HashVisit = void (*)(const void *key, void *value, void *arg);

struct HashNode {
  HashNode *next;   // circular: the last node links back to the bucket head
  HashNode *prev;
  const void *key;  // dumb pointer: the caller's key
  void *value;      // dumb pointer: the caller's value
};

struct HashTable {
  size_t buckets;       // number of buckets behind the header
  void *absent;         // value returned by hlookup for a key that is not there
  HashFn hash;
  HashCompare compare;
  // the bucket heads follow in the same block (hashBucket)
};

/* ---- Making and destroying ---------------------------------------------------------- */

// A table of `buckets` empty buckets (0 is taken as 1, so that the remainder rule
// never divides by zero).
HashTable *hinit(size_t buckets, void *absent, HashFn hash, HashCompare compare);
// Calls visit (when not null) for each node, frees the nodes and the table. Null is fine.
void hdestroy(HashTable *table, HashVisit visit, void *arg);

/* ---- Adding and removing ------------------------------------------------------------- */

// Inserts a node at the head of the key's bucket, even when the key is already there.
void hadd(HashTable *table, const void *key, void *value);
// Sets the value of the first node whose key compares equal, or inserts like hadd.
void hset(HashTable *table, const void *key, void *value);
// Unlinks and frees the first node whose key compares equal: 0, or -1 when none.
int hremove(HashTable *table, const void *key);

/* ---- Looking up and walking ----------------------------------------------------------- */

// The value of the first node whose key compares equal, or the table's absent value.
void *hlookup(const HashTable *table, const void *key);
// Whether a node with an equal key is there (an absent-valued node counts).
bool hpresent(const HashTable *table, const void *key);
// Calls visit for every node, bucket by bucket, each bucket from its head. The visitor
// must not add or remove nodes.
void hwalk(const HashTable *table, HashVisit visit, void *arg);

// The bucket a key falls in, by the rule above; and the head node of bucket i.
size_t hashBucketOf(const HashTable *table, const void *key);
HashNode *hashBucket(const HashTable *table, size_t i);

/* ---- Stock functions ----------------------------------------------------------------- */

// Keys that are NUL-terminated texts: a multiplicative hash over the bytes, strcmp.
size_t hashText(const void *key, size_t buckets);
int compareText(const void *a, const void *b);

}  // namespace quorvel
