// Item lists: circular, doubly linked, headed by a bare item.
#include <gtest/gtest.h>

#include <vector>

#include "core/items/item.h"

namespace quorvel {
namespace {

using Walk = std::vector<int32_t>;

Walk walk(const Item *head) {  // the members' hNumbers forwards, then negated backwards
  Walk out;
  for (const Item *e = head->next; e != head; e = e->next) out.push_back(e->hNumber);
  for (const Item *e = head->prev; e != head; e = e->prev) out.push_back(-e->hNumber);
  return out;
}

TEST(ItemList, InsertsAndRemovesKeepingBothDirectionsCircular) {
  Item head, *it[5];
  evlistInit(&head);
  EXPECT_TRUE(evlistEmpty(&head) && head.prev == &head && evlistCount(&head) == 0);
  for (int i = 0; i < 5; i++) it[i] = evnew(), it[i]->hNumber = i;
  chainAppend(it[1], it[0]);  // chained items are not list members
  evlistAppend(&head, it[1]), evlistAppend(&head, it[3]);
  evlistInsertAfter(it[1], it[2]), evlistInsertAfter(&head, it[4]);  // middle, front
  EXPECT_EQ(walk(&head), (Walk{4, 1, 2, 3, -3, -2, -1, -4}));
  EXPECT_EQ(evlistCount(&head), 4);
  evlistRemove(it[2]);  // middle
  EXPECT_TRUE(it[2]->next == it[2] && it[2]->prev == it[2]);
  evlistRemove(it[4]), evlistRemove(it[3]);  // first, last
  EXPECT_EQ(walk(&head), (Walk{1, -1}));
  evlistRemove(it[1]);
  EXPECT_TRUE(evlistEmpty(&head) && head.prev == &head);
  evlistAppend(&head, it[3]), evlistAppend(&head, it[2]);  // removed items join again
  EXPECT_EQ(walk(&head), (Walk{3, 2, -2, -3}));
  evlistFree(&head);  // frees the members
  EXPECT_TRUE(evlistEmpty(&head));
  evfree(it[1]), evfree(it[4]);
}

}  // namespace
}  // namespace quorvel
