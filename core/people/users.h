// users.h -- the users file, the user lists read from it and the calendar-name table.
//
// The users file ("db/users" for the main context, "db/remoteUsers/<node>" for another)
// names one calendar per line, as up to four comma-separated fields:
//   name, login, mail address, display name
// A field may hold a comma inside double quotes (the quotes become blanks); fields are
// trimmed of blanks and tabs; a name starting with "+" sets the entry's plusFlag; lines
// starting with "#" and empty lines are skipped; a field is only taken when a comma or
// a newline follows it. A server-attached context takes its list from the server instead.
//
// Each context holds the list in force (swapped whole under its guard) and the
// calendar-name table built from it: index -> (name, login, mail address, display name),
// looked up by name through a hash map. The table is rebuilt from each list installed,
// in list order, followed by the file-only names (entries whose name starts with "-",
// registered once more without the "-"). When a rebuild would give an index another
// name, every cached record file (whose sets are indexes) is first written out under
// the old names and the caches dropped; a list that only adds names keeps them. The
// installed name lookup of core/net always reads the table of the current context.
// Results: indexes are -1 for "none"; readUsersFile as stated below.
#pragma once

#include <cstdint>
#include <string>

namespace quorvel {

struct DbHandle;

/* ---- User lists ------------------------------------------------------------------ */

struct UserEntry {
  char *name;         // calendar name (owned, never null in a list entry)
  char *login;        // owner's login name (owned; "" when the line had none)
  char *mailAddress;  // mail address (owned; "" when absent)
  char *displayName;  // display name (owned; "" when absent)
  int32_t plusFlag;   // 1 when the name field began with "+"
  int32_t id;         // -1 for entries made from the file
};

struct UserList {
  UserEntry *entries;  // capacity slots, grown 64 at a time (new slots zeroed, id -1)
  int32_t capacity;    // always a multiple of 64
  int32_t count;       // entries in use
  int32_t allocated;   // slots the block holds; it doubles, so long lists are not
                       // copied once per 64 entries
};

UserList *newUserList();
// Appends an entry with copies of the strings (null stays null); returns its index.
// Out of memory ends the program ("AddUser").
int addUserEntry(UserList *list, const char *name, const char *login, const char *mail,
                 const char *display, int32_t plusFlag);
UserList *copyUserList(const UserList *list);  // null for null
void freeUserList(UserList *list);             // null is fine

// 1 when both are null, or both hold the same count of entries whose name, login, mail
// address and display name are equal (a null field on either side counts as equal).
int userListsEqual(const UserList *a, const UserList *b);

/* ---- Reading the users file ------------------------------------------------------- */

// The next field of a users-file line: the text up to the first comma that is not
// between double quotes (which are blanked), or else up to the newline; null when
// neither follows. The field is cut in place and *rest moves behind it.
char *nextUserField(char **rest);

// Refreshes ctx's list (see the module comment); *changed becomes 1 when the list now in
// force differs from the applied one, else 0. Returns calendarInView() for a
// server-attached context, -1 when the file cannot be opened, else the own calendar.
int readUsersFile(DbHandle *ctx, int *changed);

// Server-attached contexts only (-1 otherwise): asks the server whether the users of
// `name` (null for none) changed; returns the call's result and sets *changed from its
// answer. The answer lands on the named calendar's own connection when its context has
// one; that context's changed mark follows an answer of kind 2, and a change is carried
// into the client (EffectUserChanges) unless the main context is of kind 1.
int refreshRemoteUsers(DbHandle *ctx, int *changed, const char *name);

// The path of ctx's users file (resolved against the installation root).
std::string usersFilePath(DbHandle *ctx);
// The size of the main users file when its list was last installed.
long mainUsersFileSize();

/* ---- The list in force --------------------------------------------------------------- */

// Installs list as ctx's list (taking ownership, freeing the old one under the guard)
// and rebuilds ctx's calendar-name table from it; installs the name lookup below when
// none is installed yet. For the main context the own, viewed and third calendars are
// looked up again in the new table.
void installUserList(DbHandle *ctx, UserList *list);

// Readers of ctx->users hold the guard for reading around their use.
void lockUsersForReading(DbHandle *ctx);
void unlockUsersForReading(DbHandle *ctx);

// Carries a change of ctx's users into the client: the applied list becomes a copy of
// the list in force and the hook (when set) runs, for instance to redo permissions.
// setUserChangeHook returns the previous hook.
using UserChangeHook = void (*)(DbHandle *main, DbHandle *ctx);
void EffectUserChanges(DbHandle *main, DbHandle *ctx);
UserChangeHook setUserChangeHook(UserChangeHook hook);

// Frees everything this module hung on ctx (lists, guard, name table).
void releaseUsers(DbHandle *ctx);

/* ---- The calendar-name table (of a context; null context = the current one) -------- */

// Adds a calendar; a name already present keeps its index and row. Returns the index.
int addCalendarName(DbHandle *ctx, const char *name, const char *login, const char *mail,
                    const char *display);
int lookupCalendar(DbHandle *ctx, const char *name);  // -1 unknown
int calendarTableSize(DbHandle *ctx);
// The fields of a row, or null when the index has none.
const char *tableName(DbHandle *ctx, int index);
const char *tableLogin(DbHandle *ctx, int index);
const char *tableMail(DbHandle *ctx, int index);
const char *tableDisplay(DbHandle *ctx, int index);

// Replaces ctx's table by one filled from list: every entry, then the file-only names.
// When that moves an index, writeAndDropEveryCache runs first (see above).
void rebuildNameTable(DbHandle *ctx, const UserList *list);
// For each entry named "-x": adds "x" with the entry's details unless "x" is present.
void registerFileOnlyNames(DbHandle *ctx, const UserList *list);
void freeNameTable(DbHandle *ctx);  // ctx's table goes; the next use makes a new one

// Installs the core/net name lookup that reads the current context's table.
void installNameLookup();

/* ---- Per-calendar texts (current context's table) ----------------------------------- */

// The mail address when non-empty, else the login ("" for an unknown index).
const char *userMailAddress(int index);
// The display name when non-empty, else the calendar name; "(null)" without a name.
const char *userDisplayName(int index);

/* ---- Tests ------------------------------------------------------------------------ */

// Forgets the hook, the login held during a read and the main file's size.
void resetUsers();

}  // namespace quorvel
