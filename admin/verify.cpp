// verify.cpp -- quorvel-admin verify: reads a record file whole, reports every line the
// calendar's reader would not take as written, and rewrites the file in the calendar's
// own form only when asked.
//
// The reader itself never complains: it skips lines that are not record lines, drops
// unknown tags and the G line, leaves a bad value unset, forgets calendar names it does
// not know and drops items without calendars and repeated copies. A rewrite writes what
// the reader kept, so each of those is a line the rewrite would lose; the tool names
// them and rewrites such a file only with --force, after keeping the original whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "admin/admin.h"
#include "core/date/datetime.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/recordfile.h"
#include "core/people/users.h"

namespace quorvel {

static const char *const VERIFY_USAGE =
    "usage: quorvel-admin verify USER|FILE [--rewrite [--force]]\n"
    "Reads USER's record file (<root>/db/database/events/USER), or FILE when the operand\n"
    "holds a \"/\", and prints every line the calendar would not keep as FILE:LINE: text;\n"
    "status 1 if any. --rewrite writes the file back in the calendar's own form; a file\n"
    "with problems is rewritten only with --force, which first keeps the original as\n"
    "FILE.orig. A file that cannot be read whole is never rewritten.\n";

/* ==== Line checks ====================================================================== */

// One logical line: continued lines (ending in a backslash) joined, their leading tab
// dropped, a CR before the line end ignored, as the calendar's reader joins them.
struct Logical {
  size_t number;      // line number of its first physical line
  std::string text;
};

static std::vector<Logical> logicalLines(const std::string &text) {
  std::vector<Logical> out;
  size_t at = 0, lineNo = 1;
  while (at < text.size()) {
    Logical l{lineNo, ""};
    for (;;) {
      size_t nl = text.find('\n', at);
      size_t stop = nl == std::string::npos ? text.size() : nl;
      l.text += text.substr(at, stop - at);
      at = stop + 1, lineNo++;
      if (!l.text.empty() && l.text.back() == '\r') l.text.pop_back();
      if (nl == std::string::npos || l.text.empty() || l.text.back() != '\\') break;
      l.text.pop_back();
      if (at < text.size() && text[at] == '\t') at++;
    }
    out.push_back(l);
  }
  return out;
}

struct VerifyState {
  std::string path;
  int problems = 0;
  int items = 0;            // items begun by a kind line (or by any line after an empty one)
  bool inItem = false;      // between an item's first line and its empty line
  bool sawKind = false;     // the item under way has its kind line
  bool hasCalendars = false;
  size_t itemLine = 0;      // where the item under way began
  std::string title;
  int withoutCalendars = 0;
  void report(size_t line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
};

void VerifyState::report(size_t line, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  if (line > 0) printf("%s:%zu: ", path.c_str(), line);
  else printf("%s: ", path.c_str());  // a problem of the whole file
  vprintf(fmt, ap);
  putchar('\n');
  va_end(ap);
  problems++;
}

static bool isNumber(const std::string &v) {
  if (v.empty()) return false;
  char *end = nullptr;
  errno = 0;
  long long n = strtoll(v.c_str(), &end, 0);
  return *end == '\0' && errno == 0 && n >= INT32_MIN && n <= UINT32_MAX;
}

// The names of a set value the users file does not know ("__ALL__" is every calendar).
static void checkNames(VerifyState &s, size_t line, const std::string &value, bool *any) {
  if (value == "__ALL__") {
    *any = true;
    return;
  }
  for (size_t at = 0; at <= value.size();) {
    size_t comma = value.find(',', at);
    std::string name = value.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    if (!name.empty() && lookupCalendar(nullptr, name.c_str()) < 0)
      s.report(line, "unknown calendar \"%s\": the calendar forgets it", name.c_str());
    else if (!name.empty()) *any = true;
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
}

// The value of one tagged line, judged by its tag.
static void checkValue(VerifyState &s, size_t line, char tag, const std::string &value) {
  bool any = false;
  if (tag == 'B' || tag == 'F' || tag == 'Q') {
    DateTime dt;
    if (parseDateTime(value.c_str(), &dt, nullptr) != 0) s.report(line, "bad date-time \"%s\"", value.c_str());
  } else if (strchr("IHdfseULn", tag) != nullptr) {
    if (!isNumber(value)) s.report(line, "bad number \"%s\" after #%c", value.c_str(), tag);
  } else if (strchr("WYNXRCSrV", tag) != nullptr) {
    checkNames(s, line, value, &any);
    if (tag == 'W' && s.inItem && any) s.hasCalendars = true;
  } else if (tag == 'O' || tag == 'Z') {
    if (value != "__ALL__" && lookupCalendar(nullptr, value.c_str()) < 0)
      s.report(line, "unknown calendar \"%s\": the calendar forgets it", value.c_str());
  } else if (tag == 'K') {
    size_t colon = value.find(':');
    if (colon == std::string::npos) s.report(line, "labelled set without \":\"");
    else checkNames(s, line, value.substr(colon + 1), &any);
  } else if (tag == 'A') {
    size_t comma = value.find(',');
    if (comma == std::string::npos || !isNumber(value.substr(0, comma)) || !isNumber(value.substr(comma + 1)))
      s.report(line, "bad alarm \"%s\" (want two numbers)", value.c_str());
  } else if (tag == 'G') {
    s.report(line, "the calendar does not keep #G lines");
  } else if (strchr("TDM?jJPE", tag) == nullptr) {
    s.report(line, "unknown tag \"%c\": the calendar does not keep it", tag);
  }
}

static void endItem(VerifyState &s) {
  if (s.inItem && !s.hasCalendars) {
    s.report(s.itemLine, "item \"%s\" names no calendar (#W): the calendar drops it", s.title.c_str());
    s.withoutCalendars++;
  }
  s.inItem = s.sawKind = s.hasCalendars = false;
}

// One logical line. Before the first item come the list header's lines.
static void checkLine(VerifyState &s, const Logical &l) {
  if (l.text.empty()) return endItem(s);
  if (l.text[0] != '#') return s.report(l.number, "not a record line (no \"#\"): the calendar skips it");
  if (l.text.size() < 2) return s.report(l.number, "a lone \"#\": the calendar skips it");
  char tag = l.text[1];
  if (l.text.size() > 2 && l.text[2] != '\t') s.report(l.number, "no tab after the tag #%c", tag);
  std::string value = l.text.substr(l.text.size() > 2 && l.text[2] == '\t' ? 3 : 2);
  bool kind = strchr("TDM?", tag) != nullptr;
  if (kind && s.sawKind) endItem(s);  // the next item began without an empty line
  if (kind || (!s.inItem && s.items > 0)) {
    if (!kind) s.report(l.number, "item without a kind line (#T, #D, #M or #?)");
    s.items++, s.inItem = true, s.sawKind = kind, s.itemLine = l.number, s.title = kind ? value : "";
  }
  checkValue(s, l.number, tag, value);
}

/* ==== Reading and rewriting ============================================================ */

static std::string recordPath(const AdminArgs &args, DbHandle *db) {
  const std::string &op = args.operands[0];
  if (op.find('/') != std::string::npos) return op;
  if (adminCalendar(args, db, op) < 0) return "";
  char events[DB_PATH_MAX], path[DB_PATH_MAX];
  resolveDbPath(path, eventsPath(events, db->dir.c_str()));
  return std::string(path) + "/" + op;
}

// Keeps text whole at path (never over an existing file): 0 or errno.
static int keepOriginal(const std::string &path, const std::string &text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (fd < 0) return errno;
  bool ok = write(fd, text.data(), text.size()) == ssize_t(text.size()) && fsync(fd) == 0;
  int e = ok ? 0 : errno != 0 ? errno : EIO;
  close(fd);
  if (!ok) unlink(path.c_str());
  return e;
}

static int rewrite(const AdminArgs &args, DbHandle *db, RecordFile *rf, const std::string &text, bool lossy) {
  if (lossy && !args.has("--force"))
    return adminError(args, ADMIN_FAILED, "%s not rewritten: it would lose the lines above (--force rewrites it)",
                      rf->path.c_str());
  if (lossy) {
    if (int rc = keepOriginal(rf->path + ".orig", text))
      return adminError(args, ADMIN_FAILED, "cannot keep the original as %s.orig: %s", rf->path.c_str(), strerror(rc));
    rf->shrinkOnce = true;  // the items dropped on purpose would trip the shrink check
  }
  rf->dirty = true;
  int rc = writedbfile(rf);
  if (rc == 0) rc = tmprelink(rf);
  if (rc != 0) return adminError(args, ADMIN_FAILED, "%s not rewritten (error %d)", rf->path.c_str(), rc);
  char stamp[DB_PATH_MAX], rel[DB_PATH_MAX];
  touchChangeStamp(resolveDbPath(stamp, stampPath(rel, db->dir.c_str())));  // others re-read it
  printf("%s: rewritten, %zu items\n", rf->path.c_str(), rf->index.size());
  return ADMIN_OK;
}

int cmdVerify(int argc, char **argv, const AdminGlobal &g) {
  AdminArgs args;
  args.command = argv[0];
  int status = parseAdminArgs(argc, argv, 1, {"--rewrite", "--force"}, &args);
  if (status != ADMIN_OK || args.has("--help")) return fputs(VERIFY_USAGE, status ? stderr : stdout), status;
  if (args.operands.size() != 1) return adminError(args, ADMIN_USAGE, "give one user name or file");
  if (args.has("--force") && !args.has("--rewrite")) return adminError(args, ADMIN_USAGE, "--force goes with --rewrite");
  if (int rc = adminRoot(args, g)) return rc;
  DbHandle *db = adminOpenDb(args);
  if (db == nullptr) return ADMIN_FAILED;
  VerifyState s;
  s.path = recordPath(args, db);
  if (s.path.empty()) return ADMIN_FAILED;
  std::string text;
  if (int rc = readWhole(s.path, &text))
    return adminError(args, ADMIN_FAILED, "cannot read %s whole: %s", s.path.c_str(),
                      rc > 0 ? strerror(rc) : "it changed while being read");
  for (const Logical &l : logicalLines(text)) checkLine(s, l);
  endItem(s);
  RecordFile *rf = newRecordFile(s.path.c_str(), db);
  readRecordFile(db, rf);
  int kept = int(rf->list.next == &rf->list ? 0 : rf->index.size());
  int repeats = s.items - s.withoutCalendars - kept;
  if (repeats > 0)
    s.report(0, "%d item(s) repeat the item before them for the same database: the calendar drops them", repeats);
  std::string again;
  if (readWhole(s.path, &again) != 0 || again != text) {
    freeRecordFile(rf);
    return adminError(args, ADMIN_FAILED, "%s changed while being verified: not rewritten", s.path.c_str());
  }
  printf("%s: %d items, %d problem(s)\n", s.path.c_str(), s.items, s.problems);
  int rc = s.problems == 0 ? ADMIN_OK : ADMIN_FAILED;
  if (args.has("--rewrite")) {
    int w = rewrite(args, db, rf, text, s.problems != 0);
    if (w != ADMIN_OK) rc = w;
    else if (args.has("--force")) rc = ADMIN_OK;  // the problems were settled by the rewrite
  }
  freeRecordFile(rf);
  return rc;
}

}  // namespace quorvel
