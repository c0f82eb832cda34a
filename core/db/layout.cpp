// layout.cpp -- the installation tree: the path table, path builders, the stat family,
// the database write probe and scratch names. Divisions: path table and roots; path
// builders; stat family; directories and the probe; scratch names.
#include "core/db/layout.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/db/retry.h"

namespace quorvel {

/* ---- Process-wide state ------------------------------------------------------------ */

static const char *const pathDefaults[DBP_COUNT] = {
  "db/database",          "db/users",
  "db/remoteUsers",       "db/domains",
  "db/database/dat.perm", "db/database/alarm.def",
  "db/database/notify.del", "db/database/notify.mail",
  "db/database/refclassdef", "db/database/refclassdef",
  "db/database/holidays", "db/database/userinfo",
  "db/database/attributes", "db/database/server/server.opts",
  "db/database/server/server.log", "db/database/server/router.opts",
  "db/database/server/router.log", "db/database/server/webquorveld.log",
  "db/database",          "/db",
  "helpinput",            "db/database",
  "mailmsg",
};
// Settings changed by setDbPathSetting; an empty string means "the default".
static std::string pathSettings[DBP_COUNT];
// Modification time of the last probe file; set by checkDbDirWritable.
static int32_t lastProbeTime = NO_TIME;
// Scratch names in the 8.3 form ("XXXXX.XXX"); off in this system.
static const bool shortNames = false;

/* ---- Catalogue texts ------------------------------------------------------------------ */

const char *dbText(int set, int number, const char *def) {
  return catText(set, number, def);
}

/* ---- Path table and roots ------------------------------------------------------------- */

const char *dbPathSetting(int entry) {
  if (entry < 0 || entry >= DBP_COUNT) return nullptr;
  const std::string &s = pathSettings[entry];
  return s.empty() ? pathDefaults[entry] : s.c_str();
}

int setDbPathSetting(int entry, const char *value) {
  if (entry < 0 || entry >= DBP_COUNT || value == nullptr || *value == '\0') return -1;
  pathSettings[entry] = value;
  return 0;
}

char *resolveDbPath(char *dest, const char *rel) {
  const char *root = installRoot();
  if (root != nullptr && rel[0] != '/')
    snprintf(dest, DB_PATH_MAX, "%s/%s", root, rel);
  else
    snprintf(dest, DB_PATH_MAX, "%s", rel);
  return dest;
}

char *userDbRoot(char *dest) {
  const char *home = getenv("HOME");
  if (home == nullptr) return nullptr;
  snprintf(dest, DB_PATH_MAX, "%s/.quorvel/", home);
  return dest;
}

/* ---- Path builders ---------------------------------------------------------------------- */

static char *joinPath(char *dest, const char *dir, const char *suffix) {
  snprintf(dest, DB_PATH_MAX, "%s%s", dir, suffix);
  return dest;
}

char *lockDirPath(char *d, const char *dir) { return joinPath(d, dir, "/locks"); }
char *writeLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/lock"); }
char *stampPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/active1"); }
char *serverLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/server1"); }
char *userNameLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/usrname"); }
char *remoteHostLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/remhost"); }
char *localUserLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/localusr"); }
char *roloLockPath(char *d, const char *dir) { return joinPath(d, dir, "/locks/rololock"); }
char *eventsPath(char *d, const char *dir) { return joinPath(d, dir, "/events"); }

/* ---- Stat family ------------------------------------------------------------------------ */

int32_t fileModTime(const char *path, long *outSize) {
  struct stat st;
  if (retryStat(path, &st) < 0) {
    if (outSize != nullptr) *outSize = 0;
    return NO_TIME;
  }
  if (outSize != nullptr) *outSize = static_cast<long>(st.st_size);
  return static_cast<int32_t>(st.st_mtime);
}

int32_t fileChangeTime(const char *path) {
  struct stat st;
  if (retryStat(path, &st) < 0) return NO_TIME;
  return static_cast<int32_t>(st.st_ctime);
}

int32_t nonEmptyModTime(const char *path) {
  struct stat st;
  if (retryStat(path, &st) < 0 || st.st_size < 1) return NO_TIME;
  return static_cast<int32_t>(st.st_mtime);
}

long fileSize(const char *path) {
  struct stat st;
  if (retryStat(path, &st) < 0 || st.st_size <= 0) return 0;
  return static_cast<long>(st.st_size);
}

// st_mode of path, or 0 when it cannot be examined.
static unsigned modeOf(const char *path) {
  struct stat st;
  if (retryStat(path, &st) < 0) return 0;
  return static_cast<unsigned>(st.st_mode);
}

bool isDir(const char *path) { return (modeOf(path) & 0xF000) == 0x4000; }
bool isOwnerReadable(const char *path) { return (modeOf(path) & 0400) != 0; }
bool isOwnerWritable(const char *path) { return (modeOf(path) & 0200) != 0; }

bool wordIsSet(const char *path, const int *word) {
  (void)path;
  return word != nullptr && *word != 0;
}

/* ---- Directories and the probe -------------------------------------------------------- */

int ensureDir(const char *path, unsigned mode) {
  if (fileModTime(path, nullptr) != NO_TIME) return 0;
  if (makeDir(path, mode) == 0 || errno == EEXIST) return 0;
  return errno > 0 ? -errno : -1;
}

char *makeProbeName(char *dest, const char *dir) {
  char host[32];
  // (a longer host name comes back cut to the buffer, with ENAMETOOLONG: keep it)
  if (gethostname(host, sizeof host) != 0 && errno != ENAMETOOLONG)
    snprintf(host, sizeof host, "tmpqvl");
  host[sizeof host - 1] = '\0';
  snprintf(dest, DB_PATH_MAX, "%s/T%ld%s", dir, static_cast<long>(getpid()), host);
  return dest;
}

// Ends the process with the text that fits the probe's errno, naming the directory.
[[noreturn]] static void probeFailed(const char *dir, int err) {
  char shown[DB_PATH_MAX];
  resolveDbPath(shown, dir);
  if (err == ENOENT)
    fatal(dbText(19, 3,
           "Database problem: directory \"%s\"\n    is missing.  Check remote mounts "
           "and/or symbolic links.\n    (access() errno=ENOENT)"),
        shown);
  if (err == EACCES)
    fatal(dbText(19, 2,
           "Permission problem: directory \"%s\"\n    is not writeable.  Check "
           "owner/group/mode of database subdirectories\n    and of quorvel "
           "executeable binary.  (access() errno=EACCES)"),
        shown);
  fatal(dbText(19, 4,
         "Permission problem: directory \"%s\"\n    is not writeable.  (access() "
         "errno=%d)"),
      shown, err);
}

int checkDbDirWritable(const char *dir) {
  char probe[DB_PATH_MAX];
  makeProbeName(probe, dir);
  int fd = retryCreat(probe, 0770);
  int err = fd < 0 ? errno : 0;
  retryUnlink(probe);
  if (fd < 0) probeFailed(dir, err);
  struct stat st;
  if (retryFstat(fd, &st) == 0) lastProbeTime = static_cast<int32_t>(st.st_mtime);
  return retryClose(fd);
}

int32_t observedFileTime() { return lastProbeTime; }

/* ---- Scratch names -------------------------------------------------------------------- */

char *normalisePath(char *path) {
  for (char *p = path; *p != '\0'; p++)
    if (*p == '\\' || *p == ':') *p = '/';
  return path;
}

// Writes a fresh random name with the given lead letter over the placeholder at slot.
static void fillPlaceholder(char *slot, char lead) {
  char name[16];
  if (shortNames)
    snprintf(name, sizeof name, "%c%04ld.%03ld", lead, lrand48() % 9999, lrand48() % 999);
  else
    snprintf(name, sizeof name, "%c%.5ld", lead, lrand48() & 0x7fff);
  memcpy(slot, name, strlen(name));
}

// Step 1: create a read-only "T" name nobody else can have; fills firstName.
static int createFirstName(char *tmpl, char *slot, std::string &firstName) {
  int fd = -1;
  for (int tries = 0; tries < 50; tries++) {
    fillPlaceholder(slot, 'T');
    normalisePath(tmpl);
    fd = retryCreat(tmpl, 0400);
    if (fd >= 0 || errno != EACCES) break;
  }
  if (fd < 0) return errno > 0 ? -errno : -1;
  retryClose(fd);
  firstName = tmpl;
  return 0;
}

// Step 2: give the "T" file a fresh "a" name, trying again while the name is taken.
// rename would replace a file that already has the name (it never reports EEXIST), so
// the new name is made as a hard link, which refuses a taken name, and the "T" name is
// removed once the link holds.
static int linkToFinalName(char *tmpl, char *slot, const std::string &firstName) {
  int r = -1;
  for (int tries = 0; tries < 50; tries++) {
    fillPlaceholder(slot, 'a');
    normalisePath(tmpl);
    r = retryLink(firstName.c_str(), tmpl);
    if (r == 0 || errno != EEXIST) break;
  }
  if (r != 0) return errno > 0 ? -errno : -1;
  retryUnlink(firstName.c_str());
  return 0;
}

int makeScratchFile(char *tmpl) {
  const char *placeholder = shortNames ? "XXXXX.XXX" : "XXXXXX";
  size_t plen = strlen(placeholder), len = strlen(tmpl);
  if (len < plen || strcmp(tmpl + len - plen, placeholder) != 0) return -1;
  char *slot = tmpl + len - plen;
  std::string firstName;
  enterCritical();
  int r = createFirstName(tmpl, slot, firstName);
  if (r == 0) r = linkToFinalName(tmpl, slot, firstName);
  if (r == 0) retryChmod(tmpl, 0600);
  return r;
}

/* ---- Tests ------------------------------------------------------------------------------ */

void resetLayout() {
  for (std::string &s : pathSettings) s.clear();
  lastProbeTime = NO_TIME;
}

}  // namespace quorvel
