// hardening.cpp -- the hardened mode's settings (file and environment), the agent
// allowlist, the confined opening of reply files, HTML escaping and the whole-request
// deadline. Divisions: settings; checks; reply files; deadline.
#include "gateway/hardening.h"

#include "gateway/gateway.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace quorvel::gateway {

/* ---- Process-wide state ------------------------------------------------------------ */

static Hardening settings;          // set by loadHardening (or setHardening in tests)
static bool loaded;                 // loadHardening has run
static std::string deadlinePage;    // the page the deadline writes; set by armDeadline
static const char *deadlineBytes;   // deadlinePage's bytes for the handler, null when off
static size_t deadlineLength;       // and their count

/* ---- Settings ----------------------------------------------------------------------- */

static std::string trim(std::string s) {
  size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// "on"/"off" (also yes/no, 1/0) into *on; false for anything else.
static bool parseSwitch(const std::string &v, bool *on) {
  for (const char *yes : {"on", "yes", "1"})
    if (strcasecmp(v.c_str(), yes) == 0) return *on = true;
  for (const char *no : {"off", "no", "0"})
    if (strcasecmp(v.c_str(), no) == 0) return !(*on = false);
  return false;
}

// HOST or HOST:N with N decimal, 0..65535.
static bool parseAgent(const std::string &v, AllowedAgent *out) {
  size_t colon = v.rfind(':');
  std::string host = colon == std::string::npos ? v : v.substr(0, colon);
  std::string num = colon == std::string::npos ? "0" : v.substr(colon + 1);
  if (host.empty() || num.empty() || num.size() > 5 ||
      num.find_first_not_of("0123456789") != std::string::npos ||
      host.find_first_of(" \t/") != std::string::npos)
    return false;
  int offset = atoi(num.c_str());
  if (offset > 65535) return false;
  *out = AllowedAgent{host, offset};
  return true;
}

// One path component that names a folder: no separators, not "." or "..".
static bool isPlainComponent(const std::string &v) {
  return !v.empty() && v != "." && v != ".." && v.find('/') == std::string::npos;
}

static bool parseDeadline(const std::string &v, int *out) {
  if (v.empty() || v.size() > 4 || v.find_first_not_of("0123456789") != std::string::npos)
    return false;
  int n = atoi(v.c_str());
  if (n < 1 || n > HARDENED_DEADLINE_MAX) return false;
  *out = n;
  return true;
}

// One "key = value" setting; false with *problem when it is not understood.
static bool applySetting(const std::string &key, const std::string &value, Hardening *out,
                         bool *folderSeen, std::string *problem) {
  AllowedAgent agent;
  if (key == "hardened" && parseSwitch(value, &out->on)) return true;
  if (key == "agent" && parseAgent(value, &agent)) return out->agents.push_back(agent), true;
  if (key == "folder" && isPlainComponent(value)) {
    if (!*folderSeen) out->folders.clear(), *folderSeen = true;
    out->folders.push_back(value);
    return true;
  }
  if (key == "deadline" && parseDeadline(value, &out->deadlineSeconds)) return true;
  *problem = "cannot use \"" + key + " = " + value + "\"";
  return false;
}

int parseHardening(const char *text, size_t len, Hardening *out, std::string *problem) {
  bool folderSeen = false;
  int lineNo = 0;
  for (size_t at = 0; at < len;) {
    size_t end = at;
    while (end < len && text[end] != '\n') end++;
    std::string line = trim(std::string(text + at, end - at));
    at = end + 1;
    lineNo++;
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos || line.find('\0') != std::string::npos) {
      *problem = "not a \"key = value\" line";
      return lineNo;
    }
    if (!applySetting(trim(line.substr(0, eq)), trim(line.substr(eq + 1)), out, &folderSeen,
                      problem))
      return lineNo;
  }
  return 0;
}

// The blank- or comma-separated words of a list variable.
static std::vector<std::string> words(const char *v) {
  std::vector<std::string> out;
  std::string cur;
  for (const char *p = v;; p++) {
    if (*p == '\0' || *p == ' ' || *p == ',' || *p == '\t') {
      if (!cur.empty()) out.push_back(cur), cur.clear();
      if (*p == '\0') return out;
    } else {
      cur += *p;
    }
  }
}

int applyHardeningEnv(Hardening *out, std::string *problem) {
  const char *v;
  if ((v = getenv("QUORVEL_HARDENED")) && !parseSwitch(trim(v), &out->on))
    return *problem = std::string("QUORVEL_HARDENED=") + v, -1;
  if ((v = getenv("QUORVEL_AGENTS"))) {
    out->agents.clear();
    for (const std::string &w : words(v)) {
      AllowedAgent a;
      if (!parseAgent(w, &a)) return *problem = "QUORVEL_AGENTS entry " + w, -1;
      out->agents.push_back(a);
    }
  }
  if ((v = getenv("QUORVEL_FOLDERS"))) {
    out->folders.clear();
    for (const std::string &w : words(v)) {
      if (!isPlainComponent(w)) return *problem = "QUORVEL_FOLDERS entry " + w, -1;
      out->folders.push_back(w);
    }
  }
  if ((v = getenv("QUORVEL_DEADLINE")) && !parseDeadline(trim(v), &out->deadlineSeconds))
    return *problem = std::string("QUORVEL_DEADLINE=") + v, -1;
  return 0;
}

// The settings file's path: "webquorvel.conf" in the program's own directory.
static std::string settingsPath() {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "webquorvel.conf";
  std::string path(exe, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/') + 1) + "webquorvel.conf";
}

// A settings file that exists but cannot be read whole fails closed.
static void failClosed(const std::string &where, const std::string &problem) {
  fprintf(stderr, "webquorvel: %s: %s; hardened mode with no agent allowed\n", where.c_str(),
          problem.c_str());
  settings = Hardening{};
  settings.on = true;
}

static bool readSettingsFile(const std::string &path, std::string *text) {
  FILE *f = fopen(path.c_str(), "r");
  if (!f) return errno == ENOENT;  // no file: the defaults (any other failure: closed)
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, f)) > 0 && text->size() < (1u << 20);)
    text->append(chunk, n);
  bool ok = !ferror(f) && text->size() < (1u << 20);
  fclose(f);
  return ok;
}

void loadHardening() {
  if (loaded) return;
  loaded = true;
  settings = Hardening{};
  std::string path = settingsPath(), text, problem;
  if (!readSettingsFile(path, &text)) return failClosed(path, "cannot be read");
  if (int line = parseHardening(text.data(), text.size(), &settings, &problem))
    return failClosed(path + " line " + std::to_string(line), problem);
  if (applyHardeningEnv(&settings, &problem) != 0) return failClosed("environment", problem);
}

const Hardening &hardening() { return settings; }

void setHardening(const Hardening &s) {
  settings = s;
  loaded = true;
}

/* ---- Checks ---------------------------------------------------------------------------- */

bool agentAllowed(const char *host, int offset) {
  if (!settings.on) return true;
  for (const AllowedAgent &a : settings.agents)
    if (a.offset == offset && strcasecmp(a.host.c_str(), host) == 0) return true;
  return false;
}

std::string htmlEscape(const char *text) {
  std::string out;
  for (const char *p = text; *p; p++) {
    switch (*p) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += *p;
    }
  }
  return out;
}

/* ---- Reply files ------------------------------------------------------------------------- */

// Opens dir/name below an open directory without following a link, as a directory or
// (O_WRONLY) as a regular file; -1 otherwise. O_NONBLOCK keeps a planted FIFO from
// blocking the open; it is of no effect on a regular file.
static int openBelow(int dirFd, const char *name, bool directory) {
  int flags = O_CLOEXEC | O_NOFOLLOW |
              (directory ? O_RDONLY | O_DIRECTORY : O_WRONLY | O_CREAT | O_NONBLOCK);
  int fd = openat(dirFd, name, flags, 0666);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || (directory ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode))) {
    close(fd);
    return -1;
  }
  return fd;
}

int openReplyFileHardened(const char *name) {
  std::string n(name), folder, file = n;
  size_t slash = n.find('/');
  if (slash != std::string::npos) folder = n.substr(0, slash), file = n.substr(slash + 1);
  if (!isPlainComponent(file)) return -1;
  if (slash != std::string::npos) {
    bool listed = false;
    for (const std::string &f : settings.folders) listed = listed || f == folder;
    if (!listed) return -1;
  }
  int htdocs = open("../htdocs", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (htdocs < 0) return -1;
  int dir = folder.empty() ? htdocs : openBelow(htdocs, folder.c_str(), true);
  int fd = dir < 0 ? -1 : openBelow(dir, file.c_str(), false);
  if (dir >= 0 && dir != htdocs) close(dir);
  close(htdocs);
  return fd;
}

/* ---- Deadline ------------------------------------------------------------------------------ */

// Runs in a signal handler: write and _exit only.
static void onDeadline(int) {
  const char *p = deadlineBytes;
  size_t left = p ? deadlineLength : 0;
  while (left > 0) {
    ssize_t n = write(1, p, left);
    if (n <= 0) break;
    p += n, left -= static_cast<size_t>(n);
  }
  _exit(255);
}

void armDeadline(const char *host) {
  if (!settings.on) return;
  std::string format = localMsg(4, "Read failed from Quorvel web agent on host %s");
  size_t at = format.find("%s");
  if (at != std::string::npos) format.replace(at, 2, host);
  deadlinePage = errorPageText(format.c_str());
  deadlineBytes = deadlinePage.data();
  deadlineLength = deadlinePage.size();
  signal(SIGALRM, onDeadline);
  alarm(static_cast<unsigned>(settings.deadlineSeconds));
}

void disarmDeadline() {
  if (deadlineBytes == nullptr) return;
  alarm(0);
  deadlineBytes = nullptr;
}

void resetHardening() {
  disarmDeadline();
  settings = Hardening{};
  loaded = false;
}

}  // namespace quorvel::gateway
