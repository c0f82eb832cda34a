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
  EXPECT_EQ(b->remoteNodeNumber, -1);
  EXPECT_EQ(findDbByName("south"), b);
  EXPECT_EQ(findDbByName("west"), nullptr);
  EXPECT_EQ(findDbByName(""), nullptr);
  setCurrentDb(b);
  setViewingDb(b);
  drops = 0;
  b->dropRecords = countDrop;
  freeDbHandle(b);
  EXPECT_EQ(drops, 1);  // freeing drops the record cache
  EXPECT_EQ(findDbByName("south"), nullptr);
  EXPECT_EQ(currentDb(), nullptr);  // no slot is left naming a freed handle
  EXPECT_EQ(viewingDb(), nullptr);
  EXPECT_EQ(findDbByName("north"), a);
}

TEST_F(DbContext, DefaultDatabaseIsMadeOnceAndFillsOnlyEmptySlots) {
  DbHandle *other = newDbHandle("x", nullptr, DB_KIND_NONE);
  setMainDb(other);
  DbHandle *def = openDefaultDb();
  EXPECT_EQ(def->dir, "db/database");
  EXPECT_TRUE(def->isDefault);
  EXPECT_EQ(openDefaultDb(), def);
  EXPECT_EQ(mainDb(), other);
  EXPECT_EQ(currentDb(), def);
  EXPECT_EQ(restoreCurrentDb(), other);
  EXPECT_EQ(setCurrentDb(def), other);  // setters hand back the previous value
}

TEST_F(DbContext, OnlyAServerLinkOfANonLocalKindMakesAContextServerAttached) {
  struct Row { bool link; uint8_t kind; bool attached, localLocks; };
  const Row rows[] = {{false, DB_KIND_NONE, false, true},
                      {true, DB_KIND_NONE, true, false},
                      {true, DB_KIND_PROXY, true, false},
                      {true, DB_KIND_LOCAL, false, true}};
  for (const Row &row : rows) {
    DbHandle *db = newDbHandle("a", nullptr, row.kind);
    db->server = row.link ? reinterpret_cast<ServerLink *>(db) : nullptr;  // any non-null
    EXPECT_EQ(isServerAttached(db), row.attached) << row.link << int(row.kind);
    EXPECT_EQ(usesLocalLocks(db), row.localLocks) << row.link << int(row.kind);
  }
  EXPECT_FALSE(usesLocalLocks(openDefaultDb()));
}
