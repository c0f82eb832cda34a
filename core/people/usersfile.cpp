// usersfile.cpp -- reading the users file into a context's user list, settling the own
// calendar, and swapping the list in force under its guard.
//
// Divisions: parsing one line; the read itself (readUsersFile drives it); the list in
// force and carrying changes into the client.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/users.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace quorvel {

struct UserGuard {
  std::shared_mutex lock;  // readers share it; the swap of the list takes it alone
};

namespace {

constexpr int kLineMax = 1024;   // bytes of one users-file line, its NUL included
constexpr size_t kFieldMax = 127;  // longest name (after "+"), login, mail or display

// Process-wide state of the read; set and cleared by readUsersFile.
std::string heldLogin;       // the real user's login, held only while a file is read
bool haveLogin;              // whether heldLogin is set
long mainFileSize;           // size of the main users file when last applied
UserChangeHook changeHook;   // set by setUserChangeHook, run by EffectUserChanges

UserGuard *guardOf(DbHandle *ctx) {
  if (!ctx->usersGuard) ctx->usersGuard = new UserGuard();
  return ctx->usersGuard;
}

/* ---- Parsing one line ------------------------------------------------------------ */

char *trimBlanks(char *s) {
  while (*s == ' ' || *s == '\t') s++;
  size_t n = strlen(s);
  while (n > 0 && (s[n - 1] == ' ' || s[n - 1] == '\t')) s[--n] = '\0';
  return s;
}

void cutField(char *s) {
  if (strlen(s) > kFieldMax) s[kFieldMax] = '\0';
}

// Splits one line into the four fields ("" for missing ones) and the plus flag.
void splitUserLine(char *line, char *fields[4], int32_t *plusFlag) {
  static char none[] = "";
  char *rest = line;
  for (int i = 0; i < 4; i++) {
    char *f = nextUserField(&rest);
    fields[i] = f ? trimBlanks(f) : none;
    if (!f) rest = nullptr;
  }
  *plusFlag = 0;
  if (fields[0][0] == '+') {  // only a "+" name is cut: the asymmetry is kept
    *plusFlag = 1;
    fields[0] = trimBlanks(fields[0] + 1);
    cutField(fields[0]);
  }
  for (int i = 1; i < 4; i++) cutField(fields[i]);
}

void addUserLine(UserList *list, char *line) {
  char *f[4];
  int32_t plus;
  splitUserLine(line, f, &plus);
  if (f[0][0] == '\0') return;
  if (!settledOwnName() && f[0][0] != '-' && f[1][0] != '\0' && haveLogin &&
      heldLogin == f[1])
    settleOwnName(f[0]);
  addUserEntry(list, f[0], f[1], f[2], f[3], plus);
}

/* ---- The read ----------------------------------------------------------------------- */

void reportAccess(bool isMain, int err, const std::string &path) {
  if (!isMain) return;
  if (err == ENOENT)
    logMsg("no users file (%s) to access\n", path.c_str());
  else if (err == EACCES)
    logMsg("access to users file (%s) denied\n", path.c_str());
}

void holdRealLogin() {
  haveLogin = false;
  heldLogin.clear();
  struct passwd *pw = getpwuid(getuid());
  if (pw && pw->pw_name) {
    heldLogin = pw->pw_name;
    haveLogin = true;
  }
}

UserList *readUserLines(FILE *f) {
  UserList *list = newUserList();
  char line[kLineMax];
  while (fgets(line, sizeof line, f)) {
    if (line[0] == '#' || line[0] == '\n') continue;
    addUserLine(list, line);
  }
  return list;
}

// Keeps or drops the list just read (a main file that changed size meanwhile, or an
// empty list, leaves the old list and time in force); installs it and notes a change.
void applyNewList(DbHandle *ctx, UserList *list, const std::string &path, int32_t mtime,
                  long size, int *changed) {
  bool isMain = ctx == mainDb();
  long sizeNow = 0;
  fileModTime(path.c_str(), &sizeNow);
  if (isMain && sizeNow != size) {
    logMsg("Users file in mid-change, will re-read later\n");
    freeUserList(list);
    return;
  }
  if (list->count == 0) {
    if (isMain) logMsg("read no entries in users file\n");
    freeUserList(list);
    return;
  }
  if (isMain) mainFileSize = sizeNow;
  ctx->usersFileTime = mtime;
  installUserList(ctx, list);
  if (!userListsEqual(ctx->users, ctx->appliedUsers)) {
    *changed = 1;
    DbHandle *main = mainDb();
    if (!main || main->kind != DB_KIND_LOCAL) EffectUserChanges(main, ctx);
  }
}

// The own calendar from the settled name; "Nobody" when no line named the real user.
void resolveOwnCalendar(DbHandle *ctx) {
  if (settledOwnName()) {
    const char *own = settledOwnName();
    int index = lookupCalendar(nullptr, own);
    putOwnCalendar(index, own);
    return;
  }
  settleOwnName("Nobody");
  if (ctx == mainDb()) putOwnCalendar(-1, nullptr);
}

}  // namespace

std::string usersFilePath(DbHandle *ctx) {
  char path[DB_PATH_MAX];
  if (ctx == mainDb()) return resolveDbPath(path, dbPathSetting(DBP_USERS));
  if (ctx->remoteNodeNumber == -1) ctx->remoteNodeNumber = 0;
  std::string rel = std::string(dbPathSetting(DBP_REMOTE_USERS)) + "/" + ctx->remoteNode;
  return resolveDbPath(path, rel.c_str());
}

int readUsersFile(DbHandle *ctx, int *changed) {
  *changed = 0;
  if (!ctx) return -1;
  if (isServerAttached(ctx)) {  // its users come from the server, not a file
    ctx->changed = false;
    refreshRemoteUsers(ctx, changed, nullptr);
    return calendarInView();
  }
  bool isMain = ctx == mainDb();
  std::string path = usersFilePath(ctx);
  long size = 0;
  int32_t mtime = fileModTime(path.c_str(), &size);
  int statErr = errno;
  if (mtime <= ctx->usersFileTime) {  // not newer: a time going back is never re-read
    if (mtime == NO_TIME) reportAccess(isMain, statErr, path);
    return ownCalendar();
  }
  holdRealLogin();
  FILE *f = fopen(path.c_str(), "r");
  if (!f) {
    int err = errno;
    if (isMain && err != ENOENT && err != EACCES) logMsg("cannot open users file\n");
    reportAccess(isMain, err, path);
    haveLogin = false;
    return -1;
  }
  setCurrentDb(ctx);  // name lookups during the read go to this context's table
  UserList *list = readUserLines(f);
  fclose(f);
  applyNewList(ctx, list, path, mtime, size, changed);
  haveLogin = false;
  heldLogin.clear();
  resolveOwnCalendar(ctx);
  restoreCurrentDb();
  return ownCalendar();
}

/* ---- The list in force and carrying changes ----------------------------------------- */

void installUserList(DbHandle *ctx, UserList *list) {
  UserGuard *g = guardOf(ctx);
  {
    std::unique_lock<std::shared_mutex> writing(g->lock);
    freeUserList(ctx->users);
    ctx->users = list;
  }
  rebuildNameTable(ctx, list);
  if (!nameLookup()) installNameLookup();  // a test's own lookup is left in place
  if (ctx == mainDb()) {  // the held calendars are indexes into the main table
    DbHandle *was = setCurrentDb(ctx);
    reresolveCalendars();
    setCurrentDb(was);
  }
}

void lockUsersForReading(DbHandle *ctx) { guardOf(ctx)->lock.lock_shared(); }
void unlockUsersForReading(DbHandle *ctx) { guardOf(ctx)->lock.unlock_shared(); }

void EffectUserChanges(DbHandle *main, DbHandle *ctx) {
  if (!ctx) return;
  freeUserList(ctx->appliedUsers);
  ctx->appliedUsers = copyUserList(ctx->users);
  if (changeHook) changeHook(main, ctx);
}

UserChangeHook setUserChangeHook(UserChangeHook hook) {
  UserChangeHook old = changeHook;
  changeHook = hook;
  return old;
}

void releaseUsers(DbHandle *ctx) {
  if (!ctx) return;
  freeUserList(ctx->users);
  freeUserList(ctx->appliedUsers);
  ctx->users = ctx->appliedUsers = nullptr;
  delete ctx->usersGuard;
  ctx->usersGuard = nullptr;
  freeNameTable(ctx);
}

long mainUsersFileSize() { return mainFileSize; }

void resetUsers() {
  heldLogin.clear();
  haveLogin = false;
  mainFileSize = 0;
  changeHook = nullptr;
}

}  // namespace quorvel
