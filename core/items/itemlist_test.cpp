// Tests of item lists (circular, doubly linked, headed by a bare item) and chains.
#include <gtest/gtest.h>

#include <vector>

#include "core/items/item.h"

namespace quorvel {
namespace {

std::vector<int32_t> ids(const Item *head) {
  std::vector<int32_t> out;
  for (const Item *e = head->next; e != head; e = e->next) out.push_back(e->hNumber);
  return out;
}

std::vector<int32_t> idsBackwards(const Item *head) {
  std::vector<int32_t> out;
  for (const Item *e = head->prev; e != head; e = e->prev) out.push_back(e->hNumber);
  return out;
}

Item *numbered(int32_t n) {
  Item *it = evnew();
  it->hNumber = n;
  return it;
}

TEST(ItemList, EmptyHeadPointsAtItself) {
  Item head;
  evlistInit(&head);
  EXPECT_TRUE(evlistEmpty(&head));
  EXPECT_EQ(head.next, &head);
  EXPECT_EQ(head.prev, &head);
  EXPECT_EQ(evlistCount(&head), 0);
  evlistFree(&head);  // nothing to free
  EXPECT_TRUE(evlistEmpty(&head));
}

TEST(ItemList, InsertsAndRemovesKeepingBothDirectionsCircular) {
  Item head;
  evlistInit(&head);
  Item *a = numbered(1), *b = numbered(2), *c = numbered(3), *d = numbered(4);
  evlistAppend(&head, a);
  evlistAppend(&head, c);
  evlistInsertAfter(a, b);     // in the middle
  evlistInsertAfter(&head, d);  // at the front
  EXPECT_EQ(ids(&head), (std::vector<int32_t>{4, 1, 2, 3}));
  EXPECT_EQ(idsBackwards(&head), (std::vector<int32_t>{3, 2, 1, 4}));
  EXPECT_EQ(evlistCount(&head), 4);
  EXPECT_EQ(head.prev->next, &head);
  EXPECT_EQ(head.next->prev, &head);

  evlistRemove(b);  // middle
  EXPECT_EQ(b->next, b);
  EXPECT_EQ(b->prev, b);
  evlistRemove(d);  // first
  evlistRemove(c);  // last
  EXPECT_EQ(ids(&head), (std::vector<int32_t>{1}));
  EXPECT_EQ(idsBackwards(&head), (std::vector<int32_t>{1}));
  EXPECT_EQ(a->next, &head);
  EXPECT_EQ(a->prev, &head);
  evlistRemove(a);
  EXPECT_TRUE(evlistEmpty(&head));

  // Removed items can join again, and freeing the list frees the members.
  evlistAppend(&head, c);
  evlistAppend(&head, b);
  EXPECT_EQ(ids(&head), (std::vector<int32_t>{3, 2}));
  evlistFree(&head);
  EXPECT_TRUE(evlistEmpty(&head));
  evfree(a);
  evfree(d);
}

TEST(ItemChain, ChainedItemsAreNotListMembers) {
  Item head;
  evlistInit(&head);
  Item *a = numbered(1);
  Item *copy = numbered(10);
  a->chainKey = 77;
  chainAppend(a, copy);
  evlistAppend(&head, a);
  EXPECT_EQ(evlistCount(&head), 1);
  EXPECT_EQ(copy->next, copy);
  EXPECT_EQ(a->chain, copy);
  EXPECT_EQ(copy->chainKey, 77u);
  Item *more = numbered(11);
  chainAppend(a, more);
  EXPECT_EQ(copy->chain, more);
  EXPECT_EQ(chainLength(a), 2);
  EXPECT_EQ(chainLength(more), 0);
  evlistFree(&head);  // releases a, copy and more
}

}  // namespace
}  // namespace quorvel
