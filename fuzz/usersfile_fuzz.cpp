// usersfile_fuzz.cpp -- feeds arbitrary bytes to the users-file reader as "db/users",
// then walks the list and the calendar-name table it built and asks for titles.
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/users.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace quorvel;

static void noPause(unsigned) {}

// The users file of every run, under one temporary installation root.
static std::string usersFile() {
  static std::string path;
  if (path.empty()) {
    char tmpl[] = "/tmp/qvusersfuzzXXXXXX";
    if (!mkdtemp(tmpl)) abort();
    std::string root = tmpl;
    mkdir((root + "/db").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    resetBase();
    path = root + "/db/users";
  }
  return path;
}

static void checkList(DbHandle *db) {
  if (!db->users) return;
  for (int i = 0; i < db->users->count; i++) {
    const UserEntry &e = db->users->entries[i];
    if (!e.name || !e.login || !e.mailAddress || !e.displayName) abort();
    if (e.name[0] == '\0') abort();  // empty names add nothing
    if (strlen(e.login) > 127 || strlen(e.mailAddress) > 127) abort();
    if (lookupCalendar(db, e.name) < 0) abort();  // every name is in the table
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string path = usersFile();
  FILE *f = fopen(path.c_str(), "wb");
  if (!f) abort();
  fwrite(data, 1, size, f);
  fclose(f);
  setPauseHook(noPause);
  DbHandle *db = openDefaultDb();
  installNameLookup();
  int changed = 0;
  readUsersFile(db, &changed);
  checkList(db);
  for (int i = -1; i <= calendarCount(); i++) {
    (void)strlen(userDisplayName(i));
    (void)strlen(userMailAddress(i));
    setViewedCalendar(i);
    (void)calendarTitle(i);
    const char *n = calendarName(i);
    if (n && calendarIndex(n) < 0) abort();
  }
  releaseUsers(db);
  resetDbContexts();
  resetIdentity();
  resetUsers();
  resetNameLookup();
  return 0;
}
