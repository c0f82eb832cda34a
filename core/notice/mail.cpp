// mail.cpp -- mail notices: composing one message for the recipients of an item and
// handing it to the local mailer through the shell, or to the direct SMTP delivery.
//
// Divisions: the settings; composing (subject and body); the address list; shell
// delivery (scratch message, "To:" lines, command line); deliverMail and its entry points.
#include "core/notice/mailtext.h"
#include "core/notice/notice.h"

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/retry.h"
#include "core/items/item.h"
#include "core/net/calset.h"
#include "core/people/users.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace quorvel {

/* ---- Settings ---------------------------------------------------------------------------- */

static MailSettings settings;  // installed by the client (setMailSettings), read per notice

void setMailSettings(const MailSettings &s) { settings = s; }
const MailSettings &mailSettings() { return settings; }

/* ---- Composing ------------------------------------------------------------------------- */

static const char *const defaultSubjects[3] = {"Meeting scheduled", "Meeting change",
                                               "Meeting deleted"};
static const char *const defaultOpenings[3] = {
    "The following event has been scheduled to begin at ",
    "The following event has been changed to begin at ",
    "The following event has been deleted (originally scheduled for\n"};

struct Notice {
  std::string subject;
  std::string body;
};

static Notice composeNotice(const Item *item, const char *sender, int operation,
                            const char *description, int32_t startTime) {
  int kind = mailKindOf(item ? item->dWord : KIND_EVENT);
  char path[DB_PATH_MAX];
  resolveDbPath(path, dbPathSetting(DBP_MAIL_TEMPLATE));
  Notice n;
  bool haveSubject = readMailTemplate(path, mailTemplateName(kind, operation, 0), &n.subject);
  bool haveBody = readMailTemplate(path, mailTemplateName(kind, operation, 1), &n.body);

  std::string timeText = mailTimeText(startTime, settings.clock24);
  MailFields fields{item && item->title ? item->title : "",
                    timeText.substr(0, timeText.size() - 2), mailDateText(startTime),
                    description ? description : "", sender ? sender : ""};
  n.subject = haveSubject ? expandPlaceholders(n.subject, fields) : defaultSubjects[operation - 1];
  if (haveBody) {
    n.body = expandPlaceholders(n.body, fields);  // a template body stands as written
  } else {
    n.body = std::string(defaultOpenings[operation - 1]) + timeText + fields.date +
             (operation == 3 ? ")" : "") + ":\n\n\t" + fields.description;
  }
  return n;
}

/* ---- The address list ------------------------------------------------------------------- */

// The addresses, each followed by the separator. capacity grows in steps of 500 bytes so
// that it always holds the text plus 2 bytes; the command line is sized from it.
struct AddressList {
  std::string text;
  size_t capacity = 0;
};

// The addresses and the sender go onto a shell command line unquoted, as the mailer has
// always been called. A users list can come from a server, so a text the shell would
// take as more than one plain word (blanks, ; & | $ ` quotes, redirections, globs) must
// never reach it: such an address is skipped with a report, such a sender not passed.
static bool shellSafe(const char *text) {
  return strpbrk(text, " \t\r\n;&|`$()<>\\'\"*?[]{}#") == nullptr;
}

static AddressList gatherAddresses(const uint16_t *recipients, const std::string &sep) {
  AddressList list;
  int bits = setBitCount(recipients);
  for (int i = 0; i < bits; i++) {
    if (!testbit(recipients, i)) continue;
    const char *address = userMailAddress(i);
    // A member without an address ends the whole gathering: later members get no notice.
    if (!address || !*address) break;
    if (!shellSafe(address)) {
      warning("deliverMail: the mail address of calendar %d is not a plain word; skipped", i);
      continue;
    }
    size_t need = list.text.size() + strlen(address) + sep.size() + 2;
    while (list.capacity < need) list.capacity += 500;
    list.text += address;
    list.text += sep;
  }
  return list;
}

/* ---- Shell delivery -------------------------------------------------------------------- */

// Opens a fresh "/tmp/T<n>.qvl" (n below 1000000) for writing, mode 0666. The name is
// taken only when it does not exist: creating it exclusively (rather than testing, then
// opening) keeps a link planted under that name from being followed.
static FILE *openScratchMessage(std::string *name) {
  for (int tries = 0; tries < 10000; tries++) {  // bounded, so a full /tmp cannot hang us
    char path[64];
    snprintf(path, sizeof path, "/tmp/T%ld.qvl", lrand48() % 1000000);
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) return nullptr;
    FILE *f = fdopen(fd, "w");
    if (!f) {
      close(fd), unlink(path);
      return nullptr;
    }
    retryChmod(path, 0666);  // the mailer may run under another user: let it read
    *name = path;
    return f;
  }
  return nullptr;
}

// The recipients as "To:" lines: a list shorter than 1901 characters on one line; a
// longer one cut, from each start, at the first separator 1899 or more places on.
static void writeToLines(FILE *f, const std::string &list, const std::string &sep) {
  if (list.size() <= MAIL_TO_LINE_MAX) {
    fprintf(f, "To: %s\n", list.c_str());
    return;
  }
  size_t start = 0;
  while (start < list.size()) {
    size_t look = start + MAIL_TO_LINE_MAX - 1;
    size_t cut = look >= list.size() ? std::string::npos : list.find(sep, look);
    if (cut == std::string::npos) cut = list.size();
    fprintf(f, "To: %s\n", list.substr(start, cut - start).c_str());
    start = cut + sep.size();
  }
}

// Runs the command; for a database not reached through a server the mailer runs as the
// real user, and the saved effective user comes back right after.
static void runMailCommand(const std::string &command) {
  DbHandle *db = currentDb();
  bool switchUser = !db || !db->server;
  uid_t saved = geteuid();
  if (switchUser && seteuid(getuid()) != 0) switchUser = false;
  int status = system(command.c_str());
  (void)status;  // the mailer runs in the background; its status is not looked at
  if (switchUser && seteuid(saved) != 0) perror("deliverMail: seteuid");
}

static int deliverByShell(AddressList &list, const std::string &sep, const std::string &extra,
                          const char *sender, int senderIndex, const Notice &n) {
  if (list.text.size() >= sep.size() &&
      list.text.compare(list.text.size() - sep.size(), sep.size(), sep) == 0)
    list.text.pop_back();
  std::string scratch;
  FILE *f = openScratchMessage(&scratch);
  if (!f) return MAIL_NO_SCRATCH;
  writeToLines(f, list.text, sep);
  fprintf(f, "Subject: %s\n\n", n.subject.c_str());
  fprintf(f, "%s\n\n", n.body.c_str());
  Fclose(f);

  DbHandle *db = currentDb();
  std::string options;
  if (db && db->standalone && senderIndex >= 0 && sender && *sender && shellSafe(sender))
    options = std::string(" -f") + sender;
  // The command's buffer held the mailer, the list's capacity and 200 bytes more; a long
  // extra argument or sender could pass that, so the line is sized to fit instead: a cut
  // command might lose its "rm" or its "&".
  std::string command = "(cat " + scratch + " | " + settings.mailer + " " + options + " " +
                        extra + " " + list.text + "; rm -f " + scratch + ") &";
  if (settings.trace)
    logMsg("%s\n", command.c_str());
  else
    runMailCommand(command);
  return 0;
}

/* ---- Direct delivery of every address ---------------------------------------------------- */

static int deliverDirect(const std::string &list, const char *sender, const Notice &n) {
  std::istringstream words(list);
  std::string address;
  int result = 0;
  while (words >> address) {
    int r = deliverRfc821(address.c_str(), sender, n.subject.c_str(), n.body.c_str());
    if (r != 0) result = r;  // the others are still tried
  }
  return result;
}

/* ---- deliverMail and its entry points -------------------------------------------------- */

int deliverMail(const Item *item, const char *senderName, int senderIndex,
                const uint16_t *recipients, int operation, const char *description,
                int32_t startTime) {
  if (operation < 1 || operation > 3) return MAIL_NOTHING;
  if (settings.mailer.empty()) {
    warning("deliverMail: cannot get mailer command string");
    return MAIL_NO_MAILER;
  }
  bool direct = settings.mailer == "RFC821";
  std::string sep = " ", extra;
  if (!direct) {
    extra = settings.mailerArg;
    if (!settings.separator.empty()) sep = settings.separator;
  }
  Notice n = composeNotice(item, senderName, operation, description, startTime);
  AddressList list = gatherAddresses(recipients, sep);
  if (list.text.empty()) return MAIL_NOTHING;
  if (direct) return deliverDirect(list.text, senderIndex >= 0 ? senderName : nullptr, n);
  return deliverByShell(list, sep, extra, senderName, senderIndex, n);
}

int mailItemNotice(const Item *item, const char *senderName, int senderIndex,
                   const uint16_t *recipients, int operation, const char *description) {
  int32_t start = item ? item->timeValue.start.time : NO_TIME;
  return deliverMail(item, senderName, senderIndex, recipients, operation, description, start);
}

int mailItemNoticeNoSender(const Item *item, const uint16_t *recipients, int operation,
                           const char *description) {
  return mailItemNotice(item, "", -1, recipients, operation, description);
}

void resetNotice() {
  resetClientOptions();
  settings = MailSettings{};
}

}  // namespace quorvel
