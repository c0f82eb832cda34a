// context.cpp -- database contexts: making and freeing handles, the list of open
// databases looked up by name, and the process-wide current / main / viewing / acting
// slots.
#include "core/db/context.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "core/base/base.h"

namespace quorvel {

/* ---- Process-wide state ---------------------------------------------------------- */

static DbHandle *current;              // set by setCurrentDb; read by napSeconds and lookups
static DbHandle *mainCtx;              // set by setMainDb / openDefaultDb
static DbHandle *viewing;              // set by setViewingDb
static DbHandle *acting;               // set by setActingDb
static DbHandle *defaultDb;            // made once by openDefaultDb
static std::vector<DbHandle *> openDbs;  // every live handle, in order of making

/* ---- Making and freeing ---------------------------------------------------------- */

DbHandle *newDbHandle(const char *dir, const char *name, uint8_t kind) {
  DbHandle *db = new (std::nothrow) DbHandle{};
  if (db == nullptr) outOfMem("newDbHandle");
  db->dir = dir != nullptr ? dir : "";
  db->name = name != nullptr ? name : "";
  db->kind = kind;
  db->remoteNodeNumber = -1;
  db->usersFileTime = NO_TIME;
  db->lastSeenStamp = NO_TIME;
  db->ownWriteStamp = NO_TIME;
  db->outsideChange = NO_TIME;
  db->firstUnsaved = NO_TIME;
  db->lastUnsaved = NO_TIME;
  openDbs.push_back(db);
  return db;
}

DbHandle *openDefaultDb() {
  if (defaultDb == nullptr) {
    defaultDb = newDbHandle("db/database", nullptr, DB_KIND_NONE);
    defaultDb->isDefault = true;
  }
  if (mainCtx == nullptr) mainCtx = defaultDb;
  if (current == nullptr) current = defaultDb;
  return defaultDb;
}

void freeDbHandle(DbHandle *db) {
  if (db == nullptr) return;
  dropFileCache(db);
  openDbs.erase(std::remove(openDbs.begin(), openDbs.end(), db), openDbs.end());
  if (current == db) current = nullptr;
  if (mainCtx == db) mainCtx = nullptr;
  if (viewing == db) viewing = nullptr;
  if (acting == db) acting = nullptr;
  if (defaultDb == db) defaultDb = nullptr;
  delete db;
}

/* ---- Questions about a context ----------------------------------------------------- */

bool isServerAttached(const DbHandle *db) {
  return db != nullptr && db->server != nullptr && db->kind != DB_KIND_LOCAL;
}

bool usesLocalLocks(const DbHandle *db) {
  return db != nullptr && !isServerAttached(db) && !db->isDefault;
}

void dropFileCache(DbHandle *db) {
  if (db != nullptr && db->dropRecords != nullptr) db->dropRecords(db);
}

/* ---- Process-wide slots ------------------------------------------------------------ */

DbHandle *currentDb() { return current; }
DbHandle *mainDb() { return mainCtx; }
DbHandle *viewingDb() { return viewing; }
DbHandle *actingDb() { return acting; }

static DbHandle *swapSlot(DbHandle *&slot, DbHandle *db) {
  DbHandle *old = slot;
  slot = db;
  return old;
}

DbHandle *setCurrentDb(DbHandle *db) { return swapSlot(current, db); }
DbHandle *setMainDb(DbHandle *db) { return swapSlot(mainCtx, db); }
DbHandle *setViewingDb(DbHandle *db) { return swapSlot(viewing, db); }
DbHandle *setActingDb(DbHandle *db) { return swapSlot(acting, db); }

DbHandle *restoreCurrentDb() {
  current = mainCtx;
  return current;
}

DbHandle *findDbByName(const char *name) {
  if (name == nullptr || *name == '\0') return nullptr;
  for (DbHandle *db : openDbs)
    if (db->name == name) return db;
  return nullptr;
}

std::vector<DbHandle *> openDatabases() { return openDbs; }

void resetDbContexts() {
  std::vector<DbHandle *> all;
  all.swap(openDbs);
  current = mainCtx = viewing = acting = defaultDb = nullptr;
  for (DbHandle *db : all) {
    dropFileCache(db);
    delete db;
  }
}

}  // namespace quorvel
