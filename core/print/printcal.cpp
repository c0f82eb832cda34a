// printcal.cpp -- printed calendars: the listings go into a scratch data file in /tmp,
// and the external formatter "pcal" is run on it with a command line built flag by flag.
#include <cerrno>
#include <cstring>

#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/db/layout.h"
#include "core/db/retry.h"
#include "core/people/users.h"
#include "core/print/listing.h"
#include "core/print/listing_internal.h"

namespace quorvel {

// The formatter's command buffer: the whole command and its NUL must fit.
static constexpr size_t COMMAND_MAX = 500;
static constexpr const char *PLATFORM_DIR = "linux";

// Text put inside double quotes for the shell: `"`, `\`, `$` and backquote escaped, so a
// calendar name or a title is always one argument and never a command.
static std::string quoted(const std::string &text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\' || c == '$' || c == '`') out += '\\';
    out += c;
  }
  return out + "\"";
}

// " -XE -XT -XR -p" and its kin: which sections, and the page orientation.
static std::string sectionOptions(unsigned period, unsigned flags) {
  std::string opts;
  if (period != LIST_MONTH || (flags & LIST_EVENTS)) opts += " -XE";
  if (flags & (LIST_TODOS | LIST_DONE_TODOS)) opts += " -XT";
  if (flags & LIST_REMINDERS) opts += " -XR";
  return opts + (period == LIST_DAY ? " -p" : " -l");
}

// The part naming the period and its first date, with the option string inside it.
static std::string periodPart(const ListDate &d, unsigned period, unsigned flags, int32_t now) {
  std::string opts = sectionOptions(period, flags), stamp = quoted(stampTitle(now));
  char head[64];
  if (period == LIST_MONTH)
    snprintf(head, sizeof head, " -Xm %d %d ", d.month + 1, d.year + 1900);
  else
    snprintf(head, sizeof head, " -X%c %d %d %d ", period == LIST_DAY ? 'd' : 'w', d.day + 1, d.month + 1,
             d.year + 1900);
  return head + opts + " -C " + stamp;
}

std::string formatterCommand(int calendar, int year, int month, int day, unsigned period, unsigned flags,
                             const char *dataPath, int32_t now) {
  if (period != LIST_DAY && period != LIST_WEEK && period != LIST_MONTH) return "";
  char rel[64], path[DB_PATH_MAX];
  snprintf(rel, sizeof rel, "./%s/bin/pcal", PLATFORM_DIR);
  std::string cmd = resolveDbPath(path, rel);
  cmd += periodPart(normaliseDate({year, month, day}), period, flags, now);
  const char *name = tableName(nullptr, calendar);
  cmd += std::string(" -f ") + dataPath + " -N " + quoted(name != nullptr ? name : "");
  double scale = (flags & LIST_METRIC) ? 2.54 : 1.0;
  char measures[128];
  snprintf(measures, sizeof measures, " -Xi %0.2f -Xh %0.2f -Xx %0.2f -Xy %0.2f", 7.5 / scale, 10 / scale,
           0.5 / scale, 0.5 / scale);
  cmd += measures;
  cmd += " -Xs 7 -Xc 1 -Xr 1";
  if (listingSwitches().formatterZ) cmd += " -XZ";
  return cmd.size() < COMMAND_MAX ? cmd : "";
}

// Writes count periods with year lines into out: a week always with all three sections.
static void writeData(FILE *out, int calendar, ListDate d, unsigned period, unsigned flags, int count) {
  unsigned sections = period == LIST_WEEK ? LIST_EVENTS | LIST_TODOS | LIST_REMINDERS : flags;
  for (int i = 0; i < count; i++, d = advanceDate(d, period))
    WriteListing(out, calendar, d.year, d.month, d.day, 1, period, sections, 1);
}

void PrintCalendar(int calendar, int year, int month, int day, unsigned period, unsigned flags, int count) {
  if (count <= 0) return;
  int32_t now = int32_t(currentTime());
  char data[DB_PATH_MAX] = "/tmp/qvpcalXXXXXX";
  if (makeScratchFile(data) != 0) return;
  FILE *out = Fopen(data, "w+");
  if (out == nullptr) {
    retryUnlink(data);
    return;
  }
  writeData(out, calendar, normaliseDate({year, month, day}), period, flags, count);
  if (Fclose(out) != 0) {
    retryUnlink(data);
    return;
  }
  std::string cmd = formatterCommand(calendar, year, month, day, period, flags, data, now);
  retryChmod(data, 0666);
  errno = 0;
  int rc = cmd.empty() ? -1 : system(cmd.c_str());
  // With SIGCHLD ignored the shell's status cannot be collected: ECHILD is no failure.
  if (rc != 0 && errno != ECHILD) warning("%s", catText(14, 37, "Unable to output the postscript file at this time."));
  retryUnlink(data);
}

}  // namespace quorvel
