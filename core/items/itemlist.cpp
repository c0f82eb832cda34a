// itemlist.cpp -- item lists (circular, doubly linked, headed by a bare Item) and the
// chains of copies that hang from an item.
#include <cstring>

#include "core/items/item.h"

namespace quorvel {

/* ---- Item lists --------------------------------------------------------------- */

void evlistInit(Item *head) {
  memset(head, 0, sizeof(Item));
  head->next = head->prev = head;
  head->sub.subNext = head->sub.subPrev = &head->sub;
}

bool evlistEmpty(const Item *head) { return head->next == head; }

int evlistCount(const Item *head) {
  int n = 0;
  for (const Item *e = head->next; e != head; e = e->next) n++;
  return n;
}

void evlistInsertAfter(Item *pos, Item *item) {
  item->prev = pos;
  item->next = pos->next;
  pos->next->prev = item;
  pos->next = item;
}

void evlistAppend(Item *head, Item *item) { evlistInsertAfter(head->prev, item); }

void evlistRemove(Item *item) {
  item->prev->next = item->next;
  item->next->prev = item->prev;
  item->next = item->prev = item;
}

void evlistFree(Item *head) {
  while (!evlistEmpty(head)) {
    Item *item = head->next;
    evlistRemove(item);
    evfree(item);
  }
}

/* ---- Chains ------------------------------------------------------------------- */

void chainAppend(Item *item, Item *copy) {
  Item *last = item;
  while (last->chain != nullptr) last = last->chain;
  last->chain = copy;
  for (Item *c = copy; c != nullptr; c = c->chain) c->chainKey = item->chainKey;
}

int chainLength(const Item *item) {
  int n = 0;
  for (const Item *c = item->chain; c != nullptr; c = c->chain) n++;
  return n;
}

Item *chainFind(Item *item, const char *name) {
  if (name == nullptr || *name == '\0') return nullptr;
  for (Item *c = item; c != nullptr; c = c->chain)
    if (c->dbName != nullptr && strcmp(c->dbName, name) == 0) return c;
  return nullptr;
}

}  // namespace quorvel
