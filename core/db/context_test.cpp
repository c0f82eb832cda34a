// Tests of the database context: fresh handles, the process slots, lookup by name and
// freeing, and the server / lock questions.
#include "core/db/context.h"

#include <gtest/gtest.h>

#include "core/base/base.h"
#include "core/db/db_test_util.h"

using namespace quorvel;

namespace {

class DbContext : public ::testing::Test {
 protected:
  void SetUp() override { resetDbTestState(); }
  void TearDown() override { resetDbContexts(); }
};

int drops;
void countDrop(DbHandle *) { drops++; }

}  // namespace

TEST_F(DbContext, HandlesStartUnsetAndAreFoundByNameUntilFreedWithTheirCache) {
  DbHandle *a = newDbHandle("a", "north", DB_KIND_NONE);
  DbHandle *b = newDbHandle("b", "south", DB_KIND_PROXY);
  // Every time starts at NO_TIME: a first stamp read must not look like a change.
  for (int32_t t : {b->lastSeenStamp, b->ownWriteStamp, b->outsideChange, b->usersFileTime,
                    b->firstUnsaved, b->lastUnsaved})
    EXPECT_EQ(t, NO_TIME);
  EXPECT_EQ(findDbByName("south"), b);
  EXPECT_EQ(findDbByName(""), nullptr);
  setCurrentDb(b);
  setViewingDb(b);
  drops = 0;
  b->dropRecords = countDrop;
  freeDbHandle(b);
  EXPECT_EQ(drops, 1);  // freeing drops the record cache
  EXPECT_EQ(findDbByName("south"), nullptr);
  EXPECT_TRUE(currentDb() == nullptr && viewingDb() == nullptr);  // no slot names it
  EXPECT_EQ(findDbByName("north"), a);
  // The default database is made once and fills only the slots still empty.
  setMainDb(a);
  DbHandle *def = openDefaultDb();
  EXPECT_TRUE(def->dir == "db/database" && def->isDefault);
  EXPECT_EQ(openDefaultDb(), def);
  EXPECT_TRUE(mainDb() == a && currentDb() == def);
  EXPECT_EQ(restoreCurrentDb(), a);
}

TEST_F(DbContext, OnlyAServerLinkOfANonLocalKindMakesAContextServerAttached) {
  struct Row { bool link; uint8_t kind; bool attached; };
  const Row rows[] = {{false, DB_KIND_NONE, false}, {true, DB_KIND_NONE, true},
                      {true, DB_KIND_PROXY, true}, {true, DB_KIND_LOCAL, false}};
  for (const Row &row : rows) {
    DbHandle *db = newDbHandle("a", nullptr, row.kind);
    db->server = row.link ? reinterpret_cast<ServerLink *>(db) : nullptr;  // any non-null
    EXPECT_EQ(isServerAttached(db), row.attached) << row.link << int(row.kind);
    EXPECT_EQ(usesLocalLocks(db), !row.attached) << row.link << int(row.kind);
  }
  EXPECT_FALSE(usesLocalLocks(openDefaultDb()));
}
