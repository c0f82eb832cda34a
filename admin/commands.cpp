// commands.cpp -- the sub-commands of quorvel-admin that show a calendar database:
// listings, printed calendars, permissions, catalogue messages and the users.
//
// Divisions: the command table; periods and dates; list and print; perms; message and
// users.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "admin/admin.h"
#include "core/catalog/catalog.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"
#include "core/print/listing.h"

namespace quorvel {

/* ==== The command table ================================================================== */

const std::vector<AdminCommandEntry> &adminCommands() {
  static const std::vector<AdminCommandEntry> table = {
      {"list", cmdList, "list a user's calendar for a day, week or month"},
      {"print", cmdPrint, "print a user's calendar through the formatter"},
      {"perms", cmdPerms, "show or set access permissions"},
      {"check-domains", cmdCheckDomains, "check the domains file, line by line"},
      {"check-holidays", cmdCheckHolidays, "check a holiday file, line by line"},
      {"message", cmdMessage, "look up a catalogue message by set and number"},
      {"users", cmdUsers, "list the calendars of the users file"},
      {"verify", cmdVerify, "verify a record file; rewrite it when asked"},
  };
  return table;
}

// Reads the command's options; *status is the status to leave with when it returns
// false (the usage printed for --help, or the error reported).
static bool startCommand(int argc, char **argv, const std::vector<std::string> &forms,
                         const char *usage, AdminArgs *args, int *status) {
  args->command = argv[0];
  *status = parseAdminArgs(argc, argv, 1, forms, args);
  if (*status != ADMIN_OK) {
    fprintf(stderr, "%s", usage);
    return false;
  }
  if (args->has("--help")) {
    fputs(usage, stdout);
    *status = ADMIN_OK;
    return false;
  }
  return true;
}

/* ==== Periods and dates =================================================================== */

// What list and print were asked for: the period word, the content flags and the run.
struct PeriodRequest {
  unsigned period = LIST_DAY;
  unsigned flags = 0;   // 0: the listing's own default for the period
  int year, month, day; // the first day, as the client holds dates (1900-, 0-, 0-based)
  int count = 1;
};

static const char *const PERIOD_OPTIONS =
    "  --day | --week | --month   the period (default: --day)\n"
    "  --date=YYYY-MM-DD          the first day (default: today); a month starts on the 1st\n"
    "  --count=N                  N periods one after another (1 to 1000, default 1)\n"
    "  --show=LIST                comma-separated: events, todos, done, reminders, detail\n"
    "                             (default: all three kinds for a day, events otherwise)\n";

static const std::vector<std::string> PERIOD_FORMS = {"--day", "--week", "--month", "--date=",
                                                     "--count=", "--show="};

// "YYYY-MM-DD" as a real date (1970 to 2037, the range of the calendar's times).
static bool parseDate(const std::string &text, int *year, int *month, int *day) {
  int y, m, d;
  char extra;
  if (sscanf(text.c_str(), "%4d-%2d-%2d%c", &y, &m, &d, &extra) != 3) return false;
  if (y < 1970 || y > 2037 || m < 1 || m > 12 || d < 1 || d > 31) return false;
  struct tm tm{};
  tm.tm_year = y - 1900, tm.tm_mon = m - 1, tm.tm_mday = d, tm.tm_hour = 12, tm.tm_isdst = -1;
  if (mktime(&tm) == -1 || tm.tm_mday != d) return false;  // 31 April, 29 February 2027
  *year = y - 1900, *month = m - 1, *day = d - 1;
  return true;
}

static bool parseShow(const std::string &text, unsigned *flags) {
  static const struct { const char *word; unsigned flag; } words[] = {
      {"events", LIST_EVENTS}, {"todos", LIST_TODOS}, {"done", LIST_DONE_TODOS},
      {"reminders", LIST_REMINDERS}, {"detail", LIST_DETAIL}};
  *flags = 0;
  size_t at = 0;
  while (at <= text.size()) {
    size_t comma = text.find(',', at);
    std::string word = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    bool known = false;
    for (const auto &w : words)
      if (word == w.word) *flags |= w.flag, known = true;
    if (!known) return false;
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  return true;
}

static int readPeriod(const AdminArgs &args, PeriodRequest *r) {
  int periods = args.has("--day") + args.has("--week") + args.has("--month");
  if (periods > 1) return adminError(args, ADMIN_USAGE, "give only one of --day, --week, --month");
  r->period = args.has("--week") ? LIST_WEEK : args.has("--month") ? LIST_MONTH : LIST_DAY;
  clientDate(&r->year, &r->month, &r->day);
  if (args.has("--date") && !parseDate(args.get("--date"), &r->year, &r->month, &r->day))
    return adminError(args, ADMIN_USAGE, "bad date \"%s\" (want YYYY-MM-DD)", args.get("--date").c_str());
  if (r->period == LIST_MONTH) r->day = 0;
  if (args.has("--count")) {
    char *end = nullptr;
    std::string c = args.get("--count");
    long n = strtol(c.c_str(), &end, 10);
    if (c.empty() || *end != '\0' || n < 1 || n > 1000)
      return adminError(args, ADMIN_USAGE, "bad count \"%s\" (want 1 to 1000)", c.c_str());
    r->count = int(n);
  }
  if (args.has("--show") && (!parseShow(args.get("--show"), &r->flags) || r->flags == 0))
    return adminError(args, ADMIN_USAGE, "bad --show \"%s\"", args.get("--show").c_str());
  return ADMIN_OK;
}

// The record-file loader, except that a calendar without a file has an empty day: the
// listing's own fallback (the own calendar's items instead) would show an
// administrator someone else's items under the name asked for.
static int ownFileOnly(int calendar, int32_t dayStart, int32_t dayEnd, Item *list) {
  if (loadDayFromRecordFile(calendar, dayStart, dayEnd, list) == 0) return 0;
  return tableName(nullptr, calendar) != nullptr ? 0 : -1;
}

// Opens the database and settles whose calendar is listed and as whom: the viewer
// (--as, default the listed calendar itself) decides what reads as "(private)".
static int openListing(const AdminArgs &args, const AdminGlobal &g, int *calendar) {
  if (int rc = adminRoot(args, g)) return rc;
  if (args.operands.size() != 1) return adminError(args, ADMIN_USAGE, "give one user name");
  DbHandle *db = adminOpenDb(args);
  if (db == nullptr) return ADMIN_FAILED;
  *calendar = adminCalendar(args, db, args.operands[0]);
  int viewer = args.has("--as") ? adminCalendar(args, db, args.get("--as")) : *calendar;
  if (*calendar < 0 || viewer < 0) return ADMIN_FAILED;
  setOwnCalendar(viewer);
  if (readDatPerms(db) < 0) return adminError(args, ADMIN_FAILED, "cannot read the permissions");
  setDayItemsLoader(ownFileOnly);
  ListingSwitches s;
  s.hours24 = args.has("--24h");
  s.dayFirst = args.has("--day-first");
  setListingSwitches(s);
  return ADMIN_OK;
}

/* ==== list and print ========================================================================= */

static const std::string LIST_USAGE = std::string(
    "usage: quorvel-admin list USER [options]\n"
    "Lists USER's calendar on standard output.\n") + PERIOD_OPTIONS +
    "  --as=VIEWER                read as VIEWER: items VIEWER may not read show as\n"
    "                             (private) (default: USER)\n"
    "  --24h                      times in 24-hour form\n"
    "  --day-first                dates as 5 March, 2026\n";

int cmdList(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  std::vector<std::string> forms = PERIOD_FORMS;
  forms.insert(forms.end(), {"--as=", "--24h", "--day-first"});
  if (!startCommand(argc, argv, forms, LIST_USAGE.c_str(), &args, &status)) return status;
  int calendar;
  PeriodRequest r;
  if (int rc = openListing(args, g, &calendar)) return rc;
  if (int rc = readPeriod(args, &r)) return rc;
  setClientDate(r.year, r.month, r.day);
  ListCalendar(calendar, r.period | r.flags, r.count);
  return fflush(stdout) == 0 ? ADMIN_OK : adminError(args, ADMIN_FAILED, "cannot write: %s", strerror(errno));
}

static const std::string PRINT_USAGE = std::string(
    "usage: quorvel-admin print USER [options]\n"
    "Prints USER's calendar through the formatter <root>/linux/bin/pcal.\n") + PERIOD_OPTIONS +
    "  --metric                   page measures in centimetres\n"
    "  --as=VIEWER                print as VIEWER would see it (default: USER)\n";

// Runs fn with standard error caught in a scratch file; returns what it wrote there
// (and passes it on to the real standard error). The formatter path reports its
// failure only as a line on standard error, so that line is how the tool learns of it.
template <typename Fn> static std::string catchStderr(Fn fn) {
  FILE *scratch = tmpfile();
  int saved = scratch != nullptr ? dup(2) : -1;
  if (saved < 0) {
    if (scratch != nullptr) fclose(scratch);
    fn();
    return "";
  }
  fflush(stderr);
  dup2(fileno(scratch), 2);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::string text;
  rewind(scratch);
  char block[4096];
  for (size_t n; (n = fread(block, 1, sizeof block, scratch)) > 0;) text.append(block, n);
  fclose(scratch);
  fputs(text.c_str(), stderr);
  return text;
}

int cmdPrint(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  std::vector<std::string> forms = PERIOD_FORMS;
  forms.insert(forms.end(), {"--metric", "--as="});
  if (!startCommand(argc, argv, forms, PRINT_USAGE.c_str(), &args, &status)) return status;
  int calendar;
  PeriodRequest r;
  if (int rc = openListing(args, g, &calendar)) return rc;
  if (int rc = readPeriod(args, &r)) return rc;
  char pcal[DB_PATH_MAX];
  resolveDbPath(pcal, "linux/bin/pcal");
  if (access(pcal, X_OK) != 0) return adminError(args, ADMIN_FAILED, "no formatter at %s", pcal);
  // The flags the listing would choose for itself, so the formatter is told what it gets.
  unsigned flags = r.flags != 0 ? r.flags : r.period == LIST_MONTH ? LIST_EVENTS : 7u;
  if (args.has("--metric")) flags |= LIST_METRIC;
  std::string errors = catchStderr([&] {
    PrintCalendar(calendar, r.year, r.month, r.day, r.period, flags, r.count);
  });
  return errors.empty() ? ADMIN_OK : adminError(args, ADMIN_FAILED, "the formatter failed");
}

/* ==== perms ================================================================================== */

static const char *const PERMS_USAGE =
    "usage: quorvel-admin perms show\n"
    "       quorvel-admin perms set OWNER RIGHT NAME on|off [--force]\n"
    "show prints the readers, writers, agents and schedulers of every record of\n"
    "db/database/dat.perm. set gives (on) or takes (off) NAME's RIGHT over OWNER's\n"
    "calendar (OWNER may be __ALL__, every calendar); RIGHT is one of reader, writer,\n"
    "agent, scheduler, watch, refuse. A record for OWNER is added when needed.\n"
    "set refuses a file that names calendars the users file does not know (they would\n"
    "be dropped by the rewrite) unless --force is given.\n";

// The tag letter of a right's name, or 0.
static char rightTag(const std::string &right) {
  static const struct { const char *name; char tag; } rights[] = {
      {"reader", 'R'}, {"writer", 'C'}, {"agent", 'Y'}, {"scheduler", 'N'}, {"watch", 'W'}, {"refuse", 'X'}};
  for (const auto &r : rights)
    if (right == r.name) return r.tag;
  return 0;
}

// The names in the file's set lines that the current table does not know, up to the
// first J line (from there the names belong to another database's table).
static std::vector<std::string> unknownSetNames(std::string text) {
  std::vector<std::string> unknown;
  text.push_back('\0');
  LineScan scan;
  startLineScan(&scan, text.data(), text.size() - 1);
  RecordLine line;
  while (nextRecordLine(&scan, &line) && line.tag != 'J') {
    if (strchr("WRCYNX", line.tag) == nullptr || line.tag == 0 || strcmp(line.value, "__ALL__") == 0) continue;
    std::string value = line.value;
    for (size_t at = 0; at <= value.size();) {
      size_t comma = value.find(',', at);
      std::string name = value.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
      if (!name.empty() && lookupCalendar(nullptr, name.c_str()) < 0) unknown.push_back(name);
      if (comma == std::string::npos) break;
      at = comma + 1;
    }
  }
  return unknown;
}

// dumpDatPerms writes through the log routine (standard error); the tool shows the
// dump as its output, so standard error points at standard output for the call.
static void dumpToStdout(DbHandle *db) {
  fflush(stdout);
  fflush(stderr);
  int saved = dup(2);
  if (saved >= 0) dup2(1, 2);
  dumpDatPerms(db);
  fflush(stderr);
  if (saved >= 0) dup2(saved, 2), close(saved);
}

static int permsShow(const AdminArgs &args, DbHandle *db) {
  if (readDatPerms(db) < 0) return adminError(args, ADMIN_FAILED, "cannot read the permissions");
  if (db->permCount == 0) {
    printf("no permission records\n");
    return ADMIN_OK;
  }
  dumpToStdout(db);
  return ADMIN_OK;
}

static int permsSet(const AdminArgs &args, DbHandle *db) {
  const std::vector<std::string> &op = args.operands;
  if (op.size() != 5 || (op[4] != "on" && op[4] != "off"))
    return adminError(args, ADMIN_USAGE, "usage: perms set OWNER RIGHT NAME on|off");
  char tag = rightTag(op[2]);
  if (tag == 0) return adminError(args, ADMIN_USAGE, "unknown right \"%s\"", op[2].c_str());
  int owner = op[1] == "__ALL__" ? PERM_OWNER_ALL : adminCalendar(args, db, op[1]);
  int member = adminCalendar(args, db, op[3]);
  if (owner < 0 || member < 0) return ADMIN_FAILED;
  char path[DB_PATH_MAX];
  resolveDbPath(path, dbPathSetting(DBP_PERMISSIONS));
  // The rewrite starts from a text read whole: a file read in part would be written
  // back without the records that were not read.
  std::string text;
  int rc = readWhole(path, &text);
  if (rc != 0 && rc != ENOENT)
    return adminError(args, ADMIN_FAILED, "cannot read %s whole: %s", path, rc > 0 ? strerror(rc) : "it changed while read");
  std::vector<std::string> unknown = unknownSetNames(text);
  if (!unknown.empty() && !args.has("--force"))
    return adminError(args, ADMIN_FAILED, "%s names \"%s\", unknown to the users file (and %zu more); "
                      "give --force to drop such names", path, unknown[0].c_str(), unknown.size() - 1);
  size_t len = text.size();
  text.push_back('\0');  // the parser writes one byte past the end
  parseDatRecords(db, text.data(), len);
  setDatPermFileSize(long(len));
  bool on = op[4] == "on";
  if (findDatEntry(db, owner) == nullptr && on) AddToDat(db, owner);
  CalSet *set = findDatEntry(db, owner) != nullptr ? datPermSet(findDatEntry(db, owner), tag) : nullptr;
  if (set != nullptr && (testbit(*set, member) != 0) == on) {
    printf("unchanged: %s is %salready %s of %s\n", op[3].c_str(), on ? "" : "not ", op[2].c_str(), op[1].c_str());
    return ADMIN_OK;
  }
  if (SetDatPerm(db, owner, tag, member, on ? 1 : 0) != 0 || storeDatPerms(db) != 0)
    return adminError(args, ADMIN_FAILED, "permissions not changed");
  printf("%s %s %s of %s\n", op[3].c_str(), on ? "is now" : "is no longer", op[2].c_str(), op[1].c_str());
  return ADMIN_OK;
}

int cmdPerms(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  if (!startCommand(argc, argv, {"--force"}, PERMS_USAGE, &args, &status)) return status;
  if (args.operands.empty() || (args.operands[0] != "show" && args.operands[0] != "set"))
    return fputs(PERMS_USAGE, stderr), ADMIN_USAGE;
  if (args.operands[0] == "show" && args.operands.size() != 1)
    return adminError(args, ADMIN_USAGE, "show takes no operands");
  if (int rc = adminRoot(args, g)) return rc;
  DbHandle *db = adminOpenDb(args);
  if (db == nullptr) return ADMIN_FAILED;
  return args.operands[0] == "show" ? permsShow(args, db) : permsSet(args, db);
}

/* ==== message and users ======================================================================== */

static const char *const MESSAGE_USAGE =
    "usage: quorvel-admin message SET NUMBER [--default=TEXT]\n"
    "Prints message NUMBER of set SET of the catalogue <root>/resources/<lang>/quorvel.msg\n"
    "in the language of --lang (before the command) or LANG. A message the catalogue\n"
    "lacks is an error, unless --default gives the text to print instead.\n";

static bool positiveNumber(const std::string &text, int *out) {
  char *end = nullptr;
  long n = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || n < 1 || n > 100000) return false;
  *out = int(n);
  return true;
}

int cmdMessage(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  if (!startCommand(argc, argv, {"--default="}, MESSAGE_USAGE, &args, &status)) return status;
  int set, number;
  if (args.operands.size() != 2 || !positiveNumber(args.operands[0], &set) ||
      !positiveNumber(args.operands[1], &number))
    return adminError(args, ADMIN_USAGE, "give SET and NUMBER, each 1 or more");
  if (int rc = adminRoot(args, g)) return rc;
  static const char missing[] = "";  // told apart from a catalogue text by its address
  std::string def = args.get("--default");
  const char *text = catgets(catHandle(), set, number, args.has("--default") ? def.c_str() : missing);
  if (text == missing) {
    const char *lang = catgetlang();
    return adminError(args, ADMIN_FAILED, "no message %d of set %d in the catalogue (language %s)", number,
                      set, lang != nullptr ? lang : "En_US");
  }
  printf("%s\n", text);
  return ADMIN_OK;
}

static const char *const USERS_USAGE =
    "usage: quorvel-admin users\n"
    "Lists the calendars of db/users, one a line: index, name, login, mail address and\n"
    "display name, separated by tabs; a name the file gives with \"+\" is marked \"+\".\n";

int cmdUsers(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  if (!startCommand(argc, argv, {}, USERS_USAGE, &args, &status)) return status;
  if (!args.operands.empty()) return adminError(args, ADMIN_USAGE, "users takes no operands");
  if (int rc = adminRoot(args, g)) return rc;
  DbHandle *db = adminOpenDb(args);
  if (db == nullptr) return ADMIN_FAILED;
  lockUsersForReading(db);
  for (int i = 0; i < db->users->count; i++) {
    const UserEntry &u = db->users->entries[i];
    printf("%d\t%s%s\t%s\t%s\t%s\n", lookupCalendar(db, u.name), u.plusFlag ? "+" : "", u.name, u.login,
           u.mailAddress, u.displayName);
  }
  unlockUsersForReading(db);
  return ADMIN_OK;
}

}  // namespace quorvel
