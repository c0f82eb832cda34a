// Tests of item lists (circular, doubly linked, headed by a bare item).
#include <gtest/gtest.h>

#include <vector>

#include "core/items/item.h"

namespace quorvel {
namespace {

// The members' hNumbers walking forwards, then backwards.
std::vector<int32_t> walk(const Item *head) {
  std::vector<int32_t> out;
  for (const Item *e = head->next; e != head; e = e->next) out.push_back(e->hNumber);
  for (const Item *e = head->prev; e != head; e = e->prev) out.push_back(-e->hNumber);
  return out;
}

Item *numbered(int32_t n) {
  Item *it = evnew();
  it->hNumber = n;
  return it;
}

TEST(ItemList, InsertsAndRemovesKeepingBothDirectionsCircular) {
  Item head;
  evlistInit(&head);
  EXPECT_TRUE(evlistEmpty(&head) && head.prev == &head && evlistCount(&head) == 0);
  Item *a = numbered(1), *b = numbered(2), *c = numbered(3), *d = numbered(4);
  chainAppend(a, numbered(10));  // chained items are not list members
  evlistAppend(&head, a);
  evlistAppend(&head, c);
  evlistInsertAfter(a, b);      // in the middle
  evlistInsertAfter(&head, d);  // at the front
  EXPECT_EQ(walk(&head), (std::vector<int32_t>{4, 1, 2, 3, -3, -2, -1, -4}));
  EXPECT_EQ(evlistCount(&head), 4);

  evlistRemove(b);  // middle
  EXPECT_TRUE(b->next == b && b->prev == b);
  evlistRemove(d);  // first
  evlistRemove(c);  // last
  EXPECT_EQ(walk(&head), (std::vector<int32_t>{1, -1}));
  evlistRemove(a);
  EXPECT_TRUE(evlistEmpty(&head) && head.prev == &head);

  // Removed items can join again; freeing the list frees the members.
  evlistAppend(&head, c);
  evlistAppend(&head, b);
  EXPECT_EQ(walk(&head), (std::vector<int32_t>{3, 2, -2, -3}));
  evlistFree(&head);
  EXPECT_TRUE(evlistEmpty(&head));
  evfree(a);
  evfree(d);
}
}  // namespace
}  // namespace quorvel
