// Tests of the database context: fresh handles, slots, lookup, freeing, server questions.
#include "core/db/context.h"
#include "core/db/db_test_util.h"

using namespace quorvel;

namespace {
struct DbContext : ::testing::Test {
  void SetUp() override { resetDbTestState(); }
  void TearDown() override { resetDbContexts(); }
};
int drops;
}  // namespace

TEST_F(DbContext, HandlesStartUnsetAndAreFoundByNameUntilFreedWithTheirCache) {
  DbHandle *a = newDbHandle("a", "north", DB_KIND_NONE), *b = newDbHandle("b", "south", DB_KIND_PROXY);
  // Every time starts at NO_TIME: a first stamp read must not look like a change.
  for (int32_t t : {b->lastSeenStamp, b->ownWriteStamp, b->outsideChange, b->usersFileTime,
                    b->firstUnsaved, b->lastUnsaved})
    EXPECT_EQ(t, NO_TIME);
  EXPECT_TRUE(findDbByName("south") == b && findDbByName("") == nullptr);
  setCurrentDb(b), setViewingDb(b), drops = 0;
  b->dropRecords = [](DbHandle *) { drops++; };
  freeDbHandle(b);
  EXPECT_TRUE(drops == 1 && findDbByName("south") == nullptr);  // freeing drops the record cache
  EXPECT_TRUE(currentDb() == nullptr && viewingDb() == nullptr);  // no slot names it
  EXPECT_EQ(findDbByName("north"), a);
  setMainDb(a);  // the default database is made once and fills only the empty slots
  DbHandle *def = openDefaultDb();
  EXPECT_TRUE(def->dir == "db/database" && def->isDefault && openDefaultDb() == def);
  EXPECT_TRUE(mainDb() == a && currentDb() == def && restoreCurrentDb() == a);
}

TEST_F(DbContext, OnlyAServerLinkOfANonLocalKindMakesAContextServerAttached) {
  struct Row { bool link; uint8_t kind; bool attached; };
  for (const Row &row : {Row{false, DB_KIND_NONE, false}, Row{true, DB_KIND_NONE, true},
                         Row{true, DB_KIND_PROXY, true}, Row{true, DB_KIND_LOCAL, false}}) {
    DbHandle *db = newDbHandle("a", nullptr, row.kind);
    db->server = row.link ? reinterpret_cast<ServerLink *>(db) : nullptr;  // any non-null
    EXPECT_TRUE(isServerAttached(db) == row.attached && usesLocalLocks(db) == !row.attached)
        << row.link << int(row.kind);
  }
  EXPECT_FALSE(usesLocalLocks(openDefaultDb()));
}
