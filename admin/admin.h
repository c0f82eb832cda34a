// admin.h -- quorvel-admin, the command-line tool of the people who run a calendar
// database: its sub-commands, their shared argument reader and the opened database.
//
// The command line is "quorvel-admin [--root DIR] [--lang CODE] <command> [args]". The
// database root is --root, else QUORVELPATH; the catalogue "quorvel" is opened under
// it in the language of --lang, else of LANG ("de_DE.UTF-8" reads slot "De").
// Sub-commands:
//   list USER      a day, week or month of USER's calendar on standard output
//   print USER     the same periods through the formatter <root>/linux/bin/pcal
//   perms show     the permission records; perms set OWNER RIGHT NAME on|off
//   check-domains  every problem of db/domains, each with its line
//   check-holidays every problem of a holiday file, each with its line
//   message        one catalogue message by set and number
//   users          the calendars of the users file
//   verify         the lines of a record file that do not parse; --rewrite rewrites it
// Every command takes --help (its usage on standard output, status 0). Reports of a
// check go to standard output as "<file>:<line>: <problem>"; errors of the tool itself
// go to standard error, one line each, prefixed by the command's name.
// Results (the process status): ADMIN_OK, ADMIN_FAILED (a check found problems or an
// operation failed), ADMIN_USAGE (the command line is wrong).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace quorvel {

struct DbHandle;

inline constexpr int ADMIN_OK = 0;
inline constexpr int ADMIN_FAILED = 1;
inline constexpr int ADMIN_USAGE = 2;

/* ---- Arguments ------------------------------------------------------------------ */

// A command's options and operands. An option form is "--name" for a switch or
// "--name=" for one that takes a value (given as "--name=v" or "--name v").
struct AdminArgs {
  std::string command;                       // the sub-command's name
  std::vector<std::string> operands;         // the words that are not options
  std::map<std::string, std::string> opts;   // "--name" -> value ("" for a switch)
  bool has(const char *name) const { return opts.count(name) != 0; }
  std::string get(const char *name, const char *def = "") const;
};

// Reads argv[first..argc) against the forms; a word "--help" sets the "--help" switch.
// ADMIN_OK, or ADMIN_USAGE after reporting the unknown or incomplete option.
int parseAdminArgs(int argc, char **argv, int first, const std::vector<std::string> &forms,
                   AdminArgs *args);

// "<command>: <text>" on standard error; returns status (so a failure is one return).
int adminError(const AdminArgs &args, int status, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- The database ------------------------------------------------------------------ */

// The options given before the command word.
struct AdminGlobal {
  std::string root;  // --root: the installation root ("" to take QUORVELPATH)
  std::string lang;  // --lang: catalogue language code ("" to take it from LANG)
};

// Sets QUORVELPATH from g.root when given, checks that a root is known and is a
// directory, and opens the catalogue in g.lang. 0, or an error reported for the command.
int adminRoot(const AdminArgs &args, const AdminGlobal &g);
// Opens the default database of the root and reads its users file; null (reported)
// when the users file cannot be read or names nobody.
DbHandle *adminOpenDb(const AdminArgs &args);
// The index of the calendar called name, or -1 (reported).
int adminCalendar(const AdminArgs &args, DbHandle *db, const std::string &name);
// Reads a file whole: its text and 0, or errno (-1 when it changed while being read).
int readWhole(const std::string &path, std::string *text);

/* ---- Sub-commands (each: args without the command word; returns the status) ------- */

using AdminCommand = int (*)(int argc, char **argv, const AdminGlobal &g);
struct AdminCommandEntry {
  const char *name;
  AdminCommand run;
  const char *summary;  // one line for the tool's own help
};
// The commands in the order the tool's help lists them.
const std::vector<AdminCommandEntry> &adminCommands();

int cmdList(int argc, char **argv, const AdminGlobal &g);
int cmdPrint(int argc, char **argv, const AdminGlobal &g);
int cmdPerms(int argc, char **argv, const AdminGlobal &g);
int cmdCheckDomains(int argc, char **argv, const AdminGlobal &g);
int cmdCheckHolidays(int argc, char **argv, const AdminGlobal &g);
int cmdMessage(int argc, char **argv, const AdminGlobal &g);
int cmdUsers(int argc, char **argv, const AdminGlobal &g);
int cmdVerify(int argc, char **argv, const AdminGlobal &g);

}  // namespace quorvel
