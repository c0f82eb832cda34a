// Item lists: circular, doubly linked, headed by a bare item.
#include <gtest/gtest.h>
#include <vector>
#include "core/items/item.h"

namespace quorvel {
namespace {

TEST(ItemList, InsertsAndRemovesKeepingBothDirectionsCircular) {
  Item head, *it[4];  // it[0] is chained to it[1], so not a list member
  auto walk = [&head] {  // the members' hNumbers forwards, then negated backwards
    std::vector<int32_t> out;
    for (const Item *e = head.next; e != &head; e = e->next) out.push_back(e->hNumber);
    for (const Item *e = head.prev; e != &head; e = e->prev) out.push_back(-e->hNumber);
    return out;
  };
  evlistInit(&head);
  for (int i = 0; i < 4; i++) it[i] = evnew(), it[i]->hNumber = i;
  chainAppend(it[1], it[0]);
  evlistAppend(&head, it[1]), evlistAppend(&head, it[3]);
  evlistInsertAfter(it[1], it[2]), evlistRemove(it[3]), evlistInsertAfter(&head, it[3]);
  EXPECT_EQ(walk(), (std::vector<int32_t>{3, 1, 2, -2, -1, -3}));
  EXPECT_EQ(evlistCount(&head), 3);
  evlistRemove(it[1]);
  EXPECT_TRUE(it[1]->next == it[1] && it[1]->prev == it[1]);
  evlistRemove(it[3]), evlistRemove(it[2]);
  EXPECT_TRUE(evlistEmpty(&head) && head.prev == &head && evlistCount(&head) == 0);
  evlistAppend(&head, it[2]), evlistFree(&head);  // frees the members
  EXPECT_TRUE(evlistEmpty(&head));
  evfree(it[1]), evfree(it[3]);
}
}  // namespace
}  // namespace quorvel
