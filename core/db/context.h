// context.h -- the database context: one open calendar database and the process-wide
// slots that name the current, main, viewing and acting databases.
//
// A `DbHandle` is both "the open database" and "the database context". It owns its
// directory and name strings; every other pointer slot belongs to the module named in
// its comment (this layer only forward-declares those types, so it never reaches up to
// them). An owner that fills a slot empties it again before the handle is freed; the
// record-file cache is the exception: the record-file code stores, beside its cache, the
// routine that drops it, and this module calls that routine (dropFileCache).
//
// Every handle made by newDbHandle is entered in a process-wide list, so that a database
// named on a "J" line of a file can be found by name (findDbByName). The slots and the
// list are file-static in context.cpp; resetDbContexts forgets them (tests).
// Results: pointers are null for "none"; ints follow the core's rule (0 success).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quorvel {

struct ServerLink;    // core/net: one server connection (socket, buffers, server value)
struct UserList;      // core/people: the users-file list
struct UserGuard;     // core/people: reader/writer guard around a context's user list
struct NameTable;     // core/people: the calendar-name table
struct DatEntry;      // core/people: permission records
struct RecordCache;   // core/db record files: the cached record files of this database
struct BookState;     // core/people: address-book states

/* ---- Context kinds ------------------------------------------------------------- */

// The kind byte: 0 while unset. A context of kind 1 is treated as local even when it
// holds a server connection (it is never "server-attached"), and a main context of kind
// 1 does not carry user-list changes into the rest of the client. An acting context of
// kind 2 is a proxy (its title reads "Proxy for ").
inline constexpr uint8_t DB_KIND_NONE = 0;
inline constexpr uint8_t DB_KIND_LOCAL = 1;
inline constexpr uint8_t DB_KIND_PROXY = 2;

// Drops a handle's record-file cache; set by the record-file code with the cache.
using DropCacheFn = void (*)(struct DbHandle *db);

/* ---- The database context ------------------------------------------------------ */

struct DbHandle {
  // Identity
  std::string dir;           // database directory, e.g. "db/database" (owned)
  std::string name;          // database name looked up by "J" lines; may be empty
  uint8_t kind;              // DB_KIND_*
  bool standalone;           // standalone database: napSeconds does not sleep for it
  bool isDefault;            // opened by openDefaultDb for "db/database"
  bool noWait;               // main context only: no retries, alarms around server I/O
  bool changed;              // changed mark, set and cleared from the server's answers
  bool inMemoryOnly;         // holds the database in memory only: stamp not re-read

  // Server link (core/net)
  ServerLink *server;        // connection, null for a local database (dumb pointer)
  std::string remoteNode;    // remote node name, for a context that is not the main one
  int32_t remoteNodeNumber;  // -1 while unset

  // Users (core/people)
  int32_t usersFileTime;     // modification time of the users file applied (NO_TIME)
  UserList *users;           // the list in force (owned by core/people)
  UserList *appliedUsers;    // the list last carried into the client (core/people)
  UserGuard *usersGuard;     // taken for writing while `users` is swapped
  NameTable *names;          // calendar-name table, made on first use

  // Permissions (core/people)
  DatEntry *perms;           // permission records, array of permCount
  int32_t permCount;         // number of records in perms
  uint8_t permMode;          // mode 1 relaxes the permission checks
  uint16_t *notifySet;       // calendar set of "notify.del" (word 0 = bit count)

  // Record files (core/db record-file code). Set both together; see dropFileCache.
  RecordCache *records;      // the record-file cache, null while empty
  DropCacheFn dropRecords;   // drops `records`; null when there is nothing to drop

  // Change stamps ("locks/active1" change times)
  int32_t lastSeenStamp;     // stamp as last read, NO_TIME before the first read
  int32_t ownWriteStamp;     // stamp of this process's own last write, NO_TIME
  int32_t outsideChange;     // time of the last change made by another process

  // Address book (core/people)
  BookState *books;          // book states, owned by the address-book code
  int32_t firstUnsaved;      // time of the first unsaved book change, NO_TIME
  int32_t lastUnsaved;       // time of the last unsaved book change, NO_TIME
};

/* ---- Making and freeing -------------------------------------------------------- */

// A fresh handle for `dir` (name may be null), entered in the list of open databases.
// Times start at NO_TIME, numbers at -1 where -1 means unset. Leaves through outOfMem
// ("newDbHandle") when memory runs out.
DbHandle *newDbHandle(const char *dir, const char *name, uint8_t kind);

// The default database: "db/database", marked isDefault. Made on the first call and
// returned again afterwards; it becomes the main and the current database when those
// slots are still empty.
DbHandle *openDefaultDb();

// Drops the record cache, leaves the list of open databases, clears any process slot
// that names it, and frees the handle. The other slots must be emptied by their owners.
void freeDbHandle(DbHandle *db);

/* ---- Questions about a context ------------------------------------------------- */

// Server-attached: it holds a server connection and is not of kind 1.
bool isServerAttached(const DbHandle *db);
// The lock protocol's test: neither reached through a server nor the default database.
bool usesLocalLocks(const DbHandle *db);
// Calls db->dropRecords when set (the record-file code empties and frees its cache).
void dropFileCache(DbHandle *db);

/* ---- Process-wide slots ---------------------------------------------------------- */

// current: the database that operations judge by (napSeconds, calendar-name lookups);
// main: the client's own context; viewing: the context whose calendar is shown;
// acting: the context the user acts through. Each may be null.
DbHandle *currentDb();
DbHandle *mainDb();
DbHandle *viewingDb();
DbHandle *actingDb();
DbHandle *setCurrentDb(DbHandle *db);   // each setter returns the previous value
DbHandle *setMainDb(DbHandle *db);
DbHandle *setViewingDb(DbHandle *db);
DbHandle *setActingDb(DbHandle *db);

// Makes the main database current again (null when there is none); returns it.
DbHandle *restoreCurrentDb();

// The open database whose name equals `name`, or null.
DbHandle *findDbByName(const char *name);
// Every open database, in order of making (a copy: the caller may free handles).
std::vector<DbHandle *> openDatabases();

// Forgets every slot and frees every handle still open (tests).
void resetDbContexts();

}  // namespace quorvel
