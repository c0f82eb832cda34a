// notice.h -- client options and mail notices.
//
// Client options. A table of named options (`ClientOption` rows) is filled from text
// lines "key: value". Keys match without regard to case; blanks before the ":" stay part
// of the key (so such a line matches nothing); the value starts after the ":" and its
// leading blanks and tabs, and ends at the line end or at the first "#" that is not
// directly preceded by a backslash (blanks before that end are kept, an escaped hash keeps
// its backslash). Lines whose first non-blank character is a newline, "!" or "#" are
// comments; lines without ":" and unknown keys are skipped. Lines are read 2048 bytes at a
// time. The site's client options live in "./db/database/client.opts": fetched whole from
// the calendar server (the remote array read) when the main context is server-attached,
// else from the file below the installation root, copied to a /tmp scratch file and read
// from there. A later load starts from the values in force (rows are copied in place, not
// reset to their defaults), so an option that a newer file leaves out keeps its value.
//
// Mail notices. `deliverMail` tells the recipients of a scheduled (1), changed (2) or
// deleted (3) item by mail: one message with the recipients, a subject and a body, handed
// to the local mailer through the shell in the background, or, when the mailer command is
// "RFC821", sent to each address through the direct SMTP delivery below.
//   * Settings: every mailer setting (command string, extra argument, separator, trace and
//     24-hour switches, the SMTP relay) comes from `MailSettings`, which the client program
//     installs with setMailSettings from its own settings; nothing in the core reads them
//     from files or the environment. The default has no mailer, so no mail is sent.
//   * Kind: the item's dWord chooses the templates: 2 to-do, 3 memo (a reminder), any other
//     value an event.
//   * Templates: the file named by the path table's "mailmsg" setting, resolved against the
//     installation root, read afresh for each notice. Its format is header-like:
//         # a comment ("#" or "!" in the first column); blank lines are ignored
//         NewEventSubject: New meeting: ${title}
//         NewEventBody: ${sender} scheduled a meeting at ${time} on ${date}:
//         <tab>
//         <tab>${description}
//     "Name: text" starts a template (name without regard to case, text after the blanks
//     behind the ":"); each following line that begins with a blank or tab continues it
//     on a new line, that first blank or tab removed. Names are the eighteen of
//     mailTemplateName; others are ignored, a repeated name replaces the earlier text, and
//     an empty template counts as missing. Placeholders, expanded in subjects and bodies:
//     ${title} the item's title, ${time} the start time ("09:30 am", "21:30" with the
//     24-hour switch), ${date} the start date ("June 05, 2026"), ${description} the
//     caller's description, ${sender} the sender's name. Any other "${...}" stays as written.
//     A template body is otherwise used as it stands: the default body alone gets the
//     time, date and description appended.
//   * Direct delivery ("RFC821"): deliverRfc821 speaks SMTP to the relay of the settings
//     (a numeric address, 127.0.0.1 port 25 by default): HELO, MAIL FROM:<sender> (<> when
//     there is none), RCPT TO:<address>, DATA with "From:", "To:" and "Subject:" lines, the
//     body (lines ending in CR LF, a leading "." doubled), QUIT. Each reply is awaited for
//     relayTimeoutMs.
//
// Results: 0 success; the named negatives below for our own failures; positive errno
// passed up from the system. Option reads return counts; lookups return null for none.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace quorvel {

struct Item;

/* ---- Option tables ------------------------------------------------------------------- */

struct ClientOption {
  const char *name;     // the option's key, matched without regard to case
  char *value;          // current value; an owned copy once the table is initialised
  const char *altName;  // second key for sibling lookups (null in the client table)
  int32_t type;         // 1 read as a number, 3 read as a truth value (reader ignores it)
  int32_t spare;        // reserved, 0
  int32_t changed;      // 1 once the reader stored a value differing from the one before
};

inline constexpr int OPTION_LINE_MAX = 2048;     // longest option line read at once
inline constexpr int CLIENT_OPTION_COUNT = 3;    // checkTime, limitRecurring, requirePassword
inline constexpr int OPTION_MISSING = -9999;     // clientOptionNumber of an unknown key
inline constexpr const char *CLIENT_OPTIONS_FILE = "./db/database/client.opts";

// Each row's value becomes an owned copy of what it holds (absent stays absent); each
// changed flag is cleared. Values this module copied before are released, not leaked.
void initOptionTable(ClientOption *table, int count);
// Frees the values this module copied into the table; every row's value becomes null.
void releaseOptionTable(ClientOption *table, int count);

// Reads option lines from stream into the table; returns how many lines set an option.
// Outside whole-file mode a line beginning with a newline ends the reading once an
// option was set (a blank line closes a block); in whole-file mode blank lines are skipped.
int readOptionStream(FILE *stream, ClientOption *table, int count, int wholeFile);

// When path's change time is greater than *lastTime: *changed = 1, *lastTime = that time,
// and the file is read whole; returns the count read (0 when it cannot be opened).
// Otherwise *changed = 0 and returns 0.
int readOptionFileIfNewer(const char *path, ClientOption *table, int count,
                          int32_t *lastTime, int *changed);

// The row whose name equals key when both are lower-cased, or null.
ClientOption *findOption(ClientOption *table, const char *key, int count);

/* ---- The client options ----------------------------------------------------------------- */

// Fetches "./db/database/client.opts" (server or local, as above) and reads it into the
// client table. Returns the count of option lines read, or -1 when there was no text (the
// table then keeps what it held). Never reports.
int loadClientOptions();

// The value, lower-cased, as a decimal integer (atoi); OPTION_MISSING for an unknown key.
int clientOptionNumber(const char *key);
// 1 when the value, lower-cased, is exactly "true"; else 0 (also for an unknown key).
int clientOptionFlag(const char *key);

// The client table itself, its remembered change time and its changed mark (tests).
ClientOption *clientOptionTable();
int32_t clientOptionsTime();
int clientOptionsChanged();

/* ---- Mail settings ------------------------------------------------------------------- */

struct MailSettings {
  std::string mailer;        // mailer command string; "" sends nothing; "RFC821" = direct
  std::string mailerArg;     // extra argument placed after the options (shell delivery)
  std::string separator;     // recipient separator override; "" keeps " " (shell delivery)
  bool trace = false;        // log the shell command instead of running it
  bool clock24 = false;      // time text in 24-hour form
  std::string relayHost = "127.0.0.1";  // direct delivery: the relay's numeric address
  int relayPort = 25;                   // direct delivery: the relay's TCP port
  int relayTimeoutMs = 60000;           // direct delivery: wait for each reply
};

void setMailSettings(const MailSettings &settings);
const MailSettings &mailSettings();

/* ---- Mail notices ----------------------------------------------------------------------- */

// deliverMail results (besides 0 and a positive errno from the direct delivery).
inline constexpr int MAIL_NOTHING = -1;     // operation not 1-3, or no address gathered
inline constexpr int MAIL_NO_MAILER = -2;   // no mailer command string (warned)
inline constexpr int MAIL_NO_SCRATCH = -3;  // the scratch message could not be opened
inline constexpr int MAIL_REFUSED = -4;     // the relay refused or broke the dialogue
inline constexpr int MAIL_BAD_ADDRESS = -5; // an address or sender unfit for SMTP
inline constexpr int MAIL_TIMEOUT = -6;     // the relay did not answer in time

inline constexpr int MAIL_TO_LINE_MAX = 1900;  // longer lists are cut into "To:" lines

// Composes and sends one notice. senderIndex -1 means no sender; recipients is a calendar
// set whose members are addressed by userMailAddress (the gathering stops at the first
// member without an address); description is the item's text as the caller formats it.
// Returns 0 once the message is handed over (or traced), else a result above.
int deliverMail(const Item *item, const char *senderName, int senderIndex,
                const uint16_t *recipients, int operation, const char *description,
                int32_t startTime);

// The entry points: the item's own start time, with a sender or without one (index -1).
int mailItemNotice(const Item *item, const char *senderName, int senderIndex,
                   const uint16_t *recipients, int operation, const char *description);
int mailItemNoticeNoSender(const Item *item, const uint16_t *recipients, int operation,
                           const char *description);

/* ---- Pieces of a notice ----------------------------------------------------------------- */

// The time text of a notice ("09:05 am, ", "12:05 pm, ", "21:05, ").
std::string mailTimeText(int32_t startTime, bool clock24);
// Template names by kind (0 event, 1 to-do, 2 memo), operation (1-3) and body (0/1).
const char *mailTemplateName(int kind, int operation, int body);
// Reads a "mailmsg" file: the named template's text with placeholders not yet expanded;
// false when the file or the template is missing or empty.
bool readMailTemplate(const char *path, const char *name, std::string *text);

// Direct delivery of one message to one address through the settings' relay.
int deliverRfc821(const char *address, const char *sender, const char *subject,
                  const char *body);

/* ---- Tests ------------------------------------------------------------------------------- */

// The client table back at its defaults, no change time, default mail settings.
void resetNotice();

}  // namespace quorvel
