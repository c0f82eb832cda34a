// layout.h -- where the calendar databases live and what their files are called.
//
// The shared database lives under the installation root (QUORVELPATH, installRoot() in
// core/base); a user's own database uses the same relative names under HOME +
// "/.quorvel/". The path table holds the relative names of the well-known files, one
// setting each, in a fixed order. A database directory holds "locks/" (the write lock,
// the change stamp "active1", the server, user, host and address-book markers) and the
// "events" tree of record files. This module builds those paths, answers the stat
// questions (a file that cannot be examined gives NO_TIME, 0 or false, never a report),
// proves a database directory writable with a short-lived probe file, and makes unique
// scratch files by creating a read-only "T" name and renaming it to an "a" name.
//
// Paths are built into caller buffers of DB_PATH_MAX bytes; a longer result is cut at
// the buffer's end. Results: 0 success, -1 or -errno for our own failures.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

// Size of every path buffer of the database layer.
inline constexpr size_t DB_PATH_MAX = 512;

/* ---- The path table -------------------------------------------------------------- */

enum DbPathEntry {
  DBP_DATABASE,        // "db/database"
  DBP_USERS,           // "db/users"
  DBP_REMOTE_USERS,    // "db/remoteUsers"
  DBP_DOMAINS,         // "db/domains"
  DBP_PERMISSIONS,     // "db/database/dat.perm"
  DBP_ALARM_DEFS,      // "db/database/alarm.def"
  DBP_NOTIFY_DELETE,   // "db/database/notify.del"
  DBP_NOTIFY_MAIL,     // "db/database/notify.mail"
  DBP_CLASS_DEFS,      // "db/database/refclassdef"
  DBP_CLASS_DEFS2,     // "db/database/refclassdef" (second setting)
  DBP_HOLIDAYS,        // "db/database/holidays"
  DBP_USER_INFO,       // "db/database/userinfo"
  DBP_ATTRIBUTES,      // "db/database/attributes"
  DBP_SERVER_OPTS,     // "db/database/server/server.opts"
  DBP_SERVER_LOG,      // "db/database/server/server.log"
  DBP_ROUTER_OPTS,     // "db/database/server/router.opts"
  DBP_ROUTER_LOG,      // "db/database/server/router.log"
  DBP_AGENT_LOG,       // "db/database/server/webquorveld.log"
  DBP_DATABASE2,       // "db/database" (second setting)
  DBP_DB_BASE,         // "/db"
  DBP_HELP_INPUT,      // "helpinput"
  DBP_DATABASE3,       // "db/database" (third setting)
  DBP_MAIL_TEMPLATE,   // "mailmsg"
  DBP_COUNT
};

// The setting's current value (its default until changed); null for a bad entry.
const char *dbPathSetting(int entry);
// Replaces a setting with a copy of value; returns 0, or -1 for a bad entry or value.
int setDbPathSetting(int entry, const char *value);

// Suffixes appended to a root or to a database directory.
inline constexpr const char *ROOT_EVENTS_SUFFIX = "/db/database/events";
inline constexpr const char *ROOT_POPUPS_SUFFIX = "/db/database/popupnotes";
inline constexpr const char *DB_ATTRIBUTES_SUFFIX = "/attributes";
inline constexpr const char *DB_TZTAB_SUFFIX = "/tztab";
inline constexpr const char *DB_HOLIDAYS_SUFFIX = "/holidays";
inline constexpr const char *DB_CLASSDEF_SUFFIX = "/refclassdef";
inline constexpr const char *DB_ALARMDEF_SUFFIX = "/alarm.def";

/* ---- Roots ----------------------------------------------------------------------- */

// A relative path resolved against the installation root: root + "/" + rel when the
// root is known and rel does not begin with "/", else rel. Returns dest.
char *resolveDbPath(char *dest, const char *rel);
// The per-user directory HOME + "/.quorvel/" (ends in "/"); null when HOME is unset.
char *userDbRoot(char *dest);

/* ---- Paths inside a database directory (each returns dest) ------------------------- */

char *lockDirPath(char *dest, const char *dbDir);        // dir + "/locks"
char *writeLockPath(char *dest, const char *dbDir);      // dir + "/locks/lock"
char *stampPath(char *dest, const char *dbDir);          // dir + "/locks/active1"
char *serverLockPath(char *dest, const char *dbDir);     // dir + "/locks/server1"
char *userNameLockPath(char *dest, const char *dbDir);   // dir + "/locks/usrname"
char *remoteHostLockPath(char *dest, const char *dbDir); // dir + "/locks/remhost"
char *localUserLockPath(char *dest, const char *dbDir);  // dir + "/locks/localusr"
char *roloLockPath(char *dest, const char *dbDir);       // dir + "/locks/rololock"
char *eventsPath(char *dest, const char *dbDir);         // dir + "/events"

/* ---- The stat family (stat through retryStat; failure is never reported) ---------- */

// st_mtime; stores st_size in *outSize (when not null). Failure: *outSize = 0, NO_TIME.
int32_t fileModTime(const char *path, long *outSize);
int32_t fileChangeTime(const char *path);       // st_ctime or NO_TIME
int32_t nonEmptyModTime(const char *path);      // st_mtime when st_size >= 1, else NO_TIME
long fileSize(const char *path);                // st_size when positive, else 0
bool isDir(const char *path);
bool isOwnerReadable(const char *path);         // st_mode & 0400
bool isOwnerWritable(const char *path);         // st_mode & 0200
// Kept empty: answers only whether *word is non-zero (false for a null pointer).
bool wordIsSet(const char *path, const int *word);

/* ---- Directories and the write probe ----------------------------------------------- */

// 0 when path exists, or mkdir (mode) makes it, or mkdir says EEXIST; else -errno
// (-1 when errno is not positive).
int ensureDir(const char *path, unsigned mode);

// dir + "/T" + process id + host name (at most 31 characters; "tmpqvl" when the host
// name cannot be read). Returns dest.
char *makeProbeName(char *dest, const char *dir);

// Creates and removes a probe file in dir. A directory that is missing or not writable
// ends the process with a fatal error naming it (root-prefixed when dir is relative).
// Otherwise records the probe's modification time (observedFileTime) and returns the
// result of closing it.
int checkDbDirWritable(const char *dir);

// The file server's clock as last seen by checkDbDirWritable; NO_TIME before.
int32_t observedFileTime();

/* ---- Scratch names ----------------------------------------------------------------- */

// Every "\\" and ":" in path becomes "/". Returns path.
char *normalisePath(char *path);

// tmpl is a full path ending in "XXXXXX". Creates a unique file with mode 0400 under a
// "T" name, moves it to an "a" name (so "/d/abcXXXXXX" becomes "/d/abca" + 5 digits),
// makes it mode 0600 and leaves the final name in tmpl. The move is a hard link and the
// removal of the "T" name, so an "a" name some other file holds is never replaced.
// Creation tries 50 names while it meets EACCES, the move 50 names while it meets
// EEXIST. Returns 0, -1 for a template without the placeholder (nothing touched), or
// -errno of the failing step (a failed move leaves the read-only "T" file in place).
int makeScratchFile(char *tmpl);

/* ---- Catalogue texts and tests ------------------------------------------------------- */

// The database layer's user-visible texts by catalogue set and number, def the default.
const char *dbText(int set, int number, const char *def);

// Restores the path table and observedFileTime (tests).
void resetLayout();

}  // namespace quorvel
