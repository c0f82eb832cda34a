// Tests of the database context: fresh handles, the slots, lookup by name, freeing.
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
void countDrop(DbHandle *db) {
  drops++;
  db->records = nullptr;
  db->dropRecords = nullptr;
}

}  // namespace

TEST_F(DbContext, NewHandleStartsWithNoTimesAndUnsetNumbers) {
  DbHandle *db = newDbHandle("some/dir", "alpha", DB_KIND_PROXY);
  EXPECT_EQ(db->dir, "some/dir");
  EXPECT_EQ(db->name, "alpha");
  EXPECT_EQ(db->kind, DB_KIND_PROXY);
  EXPECT_EQ(db->lastSeenStamp, NO_TIME);
  EXPECT_EQ(db->ownWriteStamp, NO_TIME);
  EXPECT_EQ(db->outsideChange, NO_TIME);
  EXPECT_EQ(db->usersFileTime, NO_TIME);
  EXPECT_EQ(db->firstUnsaved, NO_TIME);
  EXPECT_EQ(db->remoteNodeNumber, -1);
  EXPECT_FALSE(db->standalone || db->isDefault || db->inMemoryOnly);
  EXPECT_EQ(db->server, nullptr);
  EXPECT_EQ(db->records, nullptr);
}

TEST_F(DbContext, DefaultDatabaseIsMadeOnceAndFillsEmptySlots) {
  DbHandle *other = newDbHandle("x", nullptr, DB_KIND_NONE);
  setMainDb(other);
  DbHandle *def = openDefaultDb();
  EXPECT_EQ(def->dir, "db/database");
  EXPECT_TRUE(def->isDefault);
  EXPECT_EQ(openDefaultDb(), def);
  EXPECT_EQ(mainDb(), other);  // a main database already set is kept
  EXPECT_EQ(currentDb(), def);
  EXPECT_EQ(restoreCurrentDb(), other);
  EXPECT_EQ(currentDb(), other);
  EXPECT_EQ(setCurrentDb(def), other);  // setters hand back the previous value
}

TEST_F(DbContext, FindsOpenDatabasesByNameUntilFreed) {
  DbHandle *a = newDbHandle("a", "north", DB_KIND_NONE);
  DbHandle *b = newDbHandle("b", "south", DB_KIND_NONE);
  EXPECT_EQ(findDbByName("north"), a);
  EXPECT_EQ(findDbByName("south"), b);
  EXPECT_EQ(findDbByName("west"), nullptr);
  EXPECT_EQ(findDbByName(""), nullptr);
  EXPECT_EQ(findDbByName(nullptr), nullptr);
  setCurrentDb(b);
  setViewingDb(b);
  freeDbHandle(b);
  EXPECT_EQ(findDbByName("south"), nullptr);
  EXPECT_EQ(currentDb(), nullptr);  // no slot is left naming a freed handle
  EXPECT_EQ(viewingDb(), nullptr);
  EXPECT_EQ(findDbByName("north"), a);
}

TEST_F(DbContext, ServerAttachedNeedsAConnectionAndAKindOtherThanLocal) {
  DbHandle *db = newDbHandle("a", nullptr, DB_KIND_NONE);
  EXPECT_FALSE(isServerAttached(db));
  EXPECT_TRUE(usesLocalLocks(db));
  db->server = reinterpret_cast<ServerLink *>(db);  // any non-null link will do
  EXPECT_TRUE(isServerAttached(db));
  EXPECT_FALSE(usesLocalLocks(db));
  db->kind = DB_KIND_LOCAL;
  EXPECT_FALSE(isServerAttached(db));
  EXPECT_TRUE(usesLocalLocks(db));
  EXPECT_FALSE(usesLocalLocks(openDefaultDb()));
  EXPECT_FALSE(isServerAttached(nullptr));
}

TEST_F(DbContext, DropFileCacheCallsTheRecordCodesDropperWhenOneIsSet) {
  drops = 0;
  DbHandle *db = newDbHandle("a", nullptr, DB_KIND_NONE);
  dropFileCache(db);  // no cache: nothing to call
  EXPECT_EQ(drops, 0);
  db->records = reinterpret_cast<RecordCache *>(db);
  db->dropRecords = countDrop;
  dropFileCache(db);
  EXPECT_EQ(drops, 1);
  db->records = reinterpret_cast<RecordCache *>(db);
  db->dropRecords = countDrop;
  freeDbHandle(db);  // freeing drops the cache as well
  EXPECT_EQ(drops, 2);
}
