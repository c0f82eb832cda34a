// checks.cpp -- the file checks of quorvel-admin: the domains file and a holiday file,
// each reported line by line as "<file>:<line>: <problem>", then a summary line.
//
// The calendar's own readers are forgiving in ways that lose data quietly (a domains
// line without a host is skipped, a holiday line that does not parse ends the list),
// so the checks read each line the way those readers do and say what they would do.
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "admin/admin.h"
#include "core/base/base.h"
#include "core/date/domains.h"
#include "core/date/holiday.h"
#include "core/db/layout.h"

namespace quorvel {

// The lines of a text, without their line ends (a last line without one included).
static std::vector<std::string> splitLines(const std::string &text) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(at, nl - at));
    at = nl + 1;
  }
  return lines;
}

// Counts and prints the problems of one file.
struct Findings {
  std::string path;
  int problems = 0;
  void at(size_t line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
  void whole(const std::string &text) {
    printf("%s\n", text.c_str());
    problems++;
  }
};

void Findings::at(size_t line, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  printf("%s:%zu: ", path.c_str(), line);
  vprintf(fmt, ap);
  putchar('\n');
  va_end(ap);
  problems++;
}

// Reads the file named by the operand, or by the default path, whole. 0 or a status.
static int readChecked(const AdminArgs &args, const std::string &def, std::string *path,
                       std::string *text) {
  if (args.operands.size() > 1) return adminError(args, ADMIN_USAGE, "give at most one file");
  *path = args.operands.empty() ? def : args.operands[0];
  int rc = readWhole(*path, text);
  if (rc != 0)
    return adminError(args, ADMIN_FAILED, "cannot read %s: %s", path->c_str(),
                      rc > 0 ? strerror(rc) : "it changed while being read");
  return ADMIN_OK;
}

static bool startCheck(int argc, char **argv, const std::vector<std::string> &forms,
                       const char *usage, AdminArgs *args, int *status) {
  args->command = argv[0];
  *status = parseAdminArgs(argc, argv, 1, forms, args);
  if (*status != ADMIN_OK || args->has("--help")) {
    fputs(usage, *status != ADMIN_OK ? stderr : stdout);
    return false;
  }
  return true;
}

/* ==== The domains file ========================================================================== */

static const char *const DOMAINS_USAGE =
    "usage: quorvel-admin check-domains [FILE] [--address=A.B.C.D]\n"
    "Checks the domains file (default: <root>/db/domains): every line must name a domain\n"
    "and its host, no domain twice, at least two domains and exactly one served by this\n"
    "machine (\"localhost\", or a host that resolves to --address, by default the address\n"
    "of this machine's name). Problems are printed as FILE:LINE: text; status 1 if any.\n";

// This machine's IPv4 address in network order: its name's first address, else
// 127.0.0.1.
static uint32_t thisMachine() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  if (hostent *h = gethostbyname(name); h != nullptr && h->h_addrtype == AF_INET && h->h_length == 4) {
    uint32_t v;
    memcpy(&v, h->h_addr_list[0], sizeof v);
    return v;
  }
  return inet_addr("127.0.0.1");
}

// The table the calendar would build, judged line by line; returns the entries made.
static size_t domainLines(Findings &f, const std::string &text, uint32_t address, std::vector<size_t> *locals) {
  std::map<std::string, size_t> seen;  // domain -> line of its first entry
  std::vector<std::string> lines = splitLines(text);
  size_t entries = 0;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string &line = lines[i];
    if (line.empty() || line[0] == '#') continue;
    if (line.size() > 1023) f.at(i + 1, "line longer than 1023 characters: the calendar reads it as two lines");
    std::string fields[3];
    int n = SplitDomainLine(line.c_str(), fields);
    if (fields[0].empty()) {
      f.at(i + 1, "no domain name: the line is ignored");
      continue;
    }
    if (n < 2 || fields[1].empty()) {
      f.at(i + 1, "domain \"%s\" has no host: the line is ignored", fields[0].c_str());
      continue;
    }
    entries++;
    auto first = seen.emplace(fields[0], i + 1);
    if (!first.second) f.at(i + 1, "domain \"%s\" is also on line %zu", fields[0].c_str(), first.first->second);
    if (IsThisHost(fields[1].c_str(), address)) locals->push_back(i + 1);
  }
  return entries;
}

int cmdCheckDomains(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  if (!startCheck(argc, argv, {"--address="}, DOMAINS_USAGE, &args, &status)) return status;
  if (args.operands.empty())
    if (int rc = adminRoot(args, g)) return rc;
  uint32_t address = thisMachine();
  if (args.has("--address") && inet_pton(AF_INET, args.get("--address").c_str(), &address) != 1)
    return adminError(args, ADMIN_USAGE, "bad address \"%s\"", args.get("--address").c_str());
  char def[DB_PATH_MAX];
  resolveDbPath(def, dbPathSetting(DBP_DOMAINS));
  Findings f;
  std::string text;
  if (int rc = readChecked(args, def, &f.path, &text)) return rc;
  std::vector<size_t> locals;
  size_t entries = domainLines(f, text, address, &locals);
  // The whole-file verdicts in the calendar's own words.
  const char *file = f.path.c_str();
  if (entries >= 2 && locals.empty()) f.whole(std::string(file) + " file has no entry for localhost");
  if (entries == 1 && locals.size() == 1) f.whole(std::string(file) + " file has only entry of localhost");
  for (size_t k = 1; k < locals.size(); k++)
    f.at(locals[k], "another entry for this machine (the first is on line %zu)", locals[0]);
  if (locals.size() > 1) f.whole(std::string(file) + " file has multiple entries for localhost");
  if (entries < 2 && !(entries == 1 && locals.size() == 1))
    f.whole(std::string(file) + " file is not valid: it names " + std::to_string(entries) +
            " domain(s), at least two are needed");
  if (f.problems == 0) printf("%s: %zu domains, no problems\n", file, entries);
  else printf("%s: %d problem(s)\n", file, f.problems);
  return f.problems == 0 ? ADMIN_OK : ADMIN_FAILED;
}

/* ==== Holiday files ================================================================================ */

static const char *const HOLIDAYS_USAGE =
    "usage: quorvel-admin check-holidays [FILE]\n"
    "Checks a holiday file (default: <root>/db/database/holidays), one holiday a line:\n"
    "  NAME*workday:<tab>M/D/YYYY - M/D/YYYY   or   NAME*nonworkday:<tab>...\n"
    "Problems are printed as FILE:LINE: text; status 1 if any.\n";

// Why a line that does not parse is refused.
static const char *holidayRefusal(const std::string &line) {
  size_t star = line.find('*');
  if (star == std::string::npos) return "no \"*\" after the holiday's name";
  if (line.find(':', star + 1) == std::string::npos) return "no \":\" after the kind";
  return "the period is not M/D/YYYY - M/D/YYYY of real days";
}

// A line the parser took: the checks of its fields.
static void holidayFields(Findings &f, size_t lineNo, const std::string &line, const Holiday *h) {
  size_t star = line.find('*');
  std::string kind = line.substr(star + 1, line.find(':', star + 1) - star - 1);
  size_t lead = line.find_first_not_of(" \t");
  if (lead == star) f.at(lineNo, "the holiday has no name: it is not written back");
  if (kind != "workday" && kind != "nonworkday")
    f.at(lineNo, "kind \"%s\" is neither workday nor nonworkday: it is read as a day off", kind.c_str());
  if (h->period.end.time < h->period.start.time) f.at(lineNo, "the period ends before it starts");
}

static int holidayLines(Findings &f, const std::string &text) {
  std::vector<std::string> lines = splitLines(text);
  int read = 0;
  bool stopped = false;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string &line = lines[i];
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    int count = 0;
    Holiday **one = ParseHolidays((line + "\n").c_str(), &count);
    if (count != 1) {
      f.at(i + 1, "%s", holidayRefusal(line));
      if (!stopped) f.at(i + 1, "the calendar reads no holiday from this line on");
      stopped = true;
    } else {
      holidayFields(f, i + 1, line, one[0]);
      read += stopped ? 0 : 1;
    }
    FreeHolidays(one, count);
  }
  return read;
}

int cmdCheckHolidays(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  int status;
  if (!startCheck(argc, argv, {}, HOLIDAYS_USAGE, &args, &status)) return status;
  if (args.operands.empty())
    if (int rc = adminRoot(args, g)) return rc;
  char def[DB_PATH_MAX];
  SystemHolidayPath(def);
  Findings f;
  std::string text;
  if (int rc = readChecked(args, def, &f.path, &text)) return rc;
  int read = holidayLines(f, text);
  if (f.problems == 0) printf("%s: %d holidays, no problems\n", f.path.c_str(), read);
  else printf("%s: %d problem(s); the calendar reads %d holiday(s)\n", f.path.c_str(), f.problems, read);
  return f.problems == 0 ? ADMIN_OK : ADMIN_FAILED;
}

}  // namespace quorvel
