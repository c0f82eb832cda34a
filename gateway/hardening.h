// hardening.h -- the gateway's hardened mode, off by default.
//
// By default the gateway trusts its query and its agent: the query names the agent's
// host, and the agent names the files written below "../htdocs/". Hardened mode, for a
// gateway open to the internet, narrows both:
//   - it connects only to the agents of an allowlist (host text as the query gives it,
//     and port offset); any other host gets the "Cannot connect" page with no
//     connection attempt;
//   - a reply file name is one path component, or one allowed folder and one component
//     ("tmp/week.html"); no ".", "..", empty or absolute parts; the folder and the file
//     are opened without following a symbolic link, and only regular files are written.
//     A refused name gets message 8 ("failed to open ... successfully") and the request
//     goes on;
//   - the values shown on the error page (the message with its host or query, the login
//     address and icon root) are HTML-escaped;
//   - the whole request has a deadline; an agent still sending when it passes gets the
//     "Read failed" page and the process ends, however slowly it drips its bytes.
//
// Settings come from the file "webquorvel.conf" next to the program, then from the
// environment, which the web server passes to the CGI and which wins:
//
//   file line               environment              meaning
//   hardened = on|off       QUORVEL_HARDENED=on|off  the mode
//   agent = HOST[:N]        QUORVEL_AGENTS="H:N ..." an allowed agent (N defaults to 0)
//   folder = NAME           QUORVEL_FOLDERS="a b"    a folder reply files may use
//   deadline = SECONDS      QUORVEL_DEADLINE=S       whole-request deadline (1..3600)
//
// Lines starting with "#" and blank lines are skipped; list values in the environment
// are separated by blanks or commas and replace the file's. Without "folder" lines the
// one folder is "tmp" (the folder the gateway empties itself); without "deadline", 120.
// A settings text that cannot be read whole fails closed: hardened mode with no agent
// allowed, and one line on standard error naming the problem.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace quorvel::gateway {

inline constexpr int HARDENED_DEADLINE = 120;      // seconds, when none is set
inline constexpr int HARDENED_DEADLINE_MAX = 3600;

struct AllowedAgent {
  std::string host;  // as the query names it: a dotted address or a host name
  int offset;        // the port offset behind ':' (0 when none)
};

struct Hardening {
  bool on = false;
  std::vector<AllowedAgent> agents;          // the only agents connected to
  std::vector<std::string> folders{"tmp"};   // folders below htdocs reply files may use
  int deadlineSeconds = HARDENED_DEADLINE;   // for the whole request
};

/* ---- Settings ------------------------------------------------------------------ */

// Reads settings text into *out (which keeps what the text does not set). Returns 0, or
// the number of the first line that is not understood, with *problem telling why; the
// caller then fails closed.
int parseHardening(const char *text, size_t len, Hardening *out, std::string *problem);
// Applies the QUORVEL_* variables over *out; 0, or -1 with *problem for a bad value.
int applyHardeningEnv(Hardening *out, std::string *problem);
// Loads the settings once per process: the file next to the program, then the
// environment. Later calls change nothing.
void loadHardening();
const Hardening &hardening();
void setHardening(const Hardening &settings);  // tests

/* ---- The checks ------------------------------------------------------------------ */

// True when hardened mode is off, or host and offset are on the allowlist (host names
// compared without regard to case).
bool agentAllowed(const char *host, int offset);
// Opens "../htdocs/<name>" for writing under the rules above; an fd, or -1 when the name
// is refused or the file cannot be opened safely.
int openReplyFileHardened(const char *name);
// text with & < > " ' replaced by their character references.
std::string htmlEscape(const char *text);

/* ---- The deadline ----------------------------------------------------------------- */

// Hardened mode: arms the whole-request deadline; when it passes, the error page for
// `host` (message 4) is written and the process ends with status 255, by signal-safe
// steps only. disarmDeadline stops it (before the reply is placed, and by every error
// page, so that no second page follows the first).
void armDeadline(const char *host);
void disarmDeadline();

void resetHardening();  // tests: default settings, not loaded, deadline off

}  // namespace quorvel::gateway
