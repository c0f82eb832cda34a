// domains.cpp -- the domains file: splitting its lines, building and judging a new
// table, the table in force with its file time, and the server-attached path.
#include "core/date/domains.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <unistd.h>
#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/retry.h"
#include "core/net/link.h"
#include "core/net/remote.h"

namespace quorvel {

namespace {

// Three parallel columns and the number of entries whose host is this machine.
struct DomainTable {
  std::vector<std::string> names;   // first field
  std::vector<std::string> hosts;   // second field, "localhost" for this machine
  std::vector<std::string> labels;  // third field, may be empty
  int locals = 0;
};

// The table in force (null until a valid file was read or a server answered) and the
// file's modification time when last read: set by ReadDomains, cleared by resetDomains.
DomainTable *installed = nullptr;
int32_t keptTime = NO_TIME;

constexpr int DOMAIN_LINE_MAX = 1024;

void trim(std::string &s) {
  size_t b = s.find_first_not_of(" \t\r\n\f\v");
  size_t e = s.find_last_not_of(" \t\r\n\f\v");
  s = b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

void addEntry(DomainTable *t, const std::string &name, const std::string &host,
              const std::string &label, bool local) {
  t->names.push_back(name);
  t->hosts.push_back(local ? "localhost" : host);
  t->labels.push_back(label);
  if (local) t->locals++;
}

// The file's lines into a new table. Host lookups happen here.
DomainTable *readTable(FILE *fp, uint32_t address) {
  DomainTable *t = new DomainTable;
  char line[DOMAIN_LINE_MAX + 1];
  std::string f[3];
  while (fgets(line, sizeof line, fp) != nullptr) {
    if (line[0] == '#' || line[0] == '\n') continue;
    int n = SplitDomainLine(line, f);
    if (n < 2 || f[0].empty() || f[1].empty()) continue;
    addEntry(t, f[0], f[1], n > 2 ? f[2] : std::string(), IsThisHost(f[1].c_str(), address));
  }
  return t;
}

// The reason a table with `entries` entries of which `locals` are local is refused,
// or null when it is accepted (or has no reason of its own to give).
const char *refusal(size_t entries, int locals) {
  if (entries >= 2 && locals == 1) return nullptr;
  if (entries >= 2 && locals == 0) return "%s file has no entry for localhost";
  if (entries == 1 && locals == 1) return "%s file has only entry of localhost";
  if (locals > 1) return "%s file has multiple entries for localhost";
  return nullptr;
}

// Installs t when it is valid (1); otherwise reports why, frees it and returns 0.
int judge(DomainTable *t, const char *path) {
  size_t entries = t->names.size();
  if (entries >= 2 && t->locals == 1) {
    delete installed;
    installed = t;
    return 1;
  }
  if (const char *why = refusal(entries, t->locals)) warning(why, path);
  if (installed != nullptr) {
    warning("%s file is no longer valid", path);
    warning("%s file changes are not effected", path);
  } else if (entries > 0) {
    warning("%s file is not valid", path);
  }
  delete t;
  return 0;
}

// The server's answer: text fields behind the reply code, three per entry. The server
// has judged its own file, so the table is taken as it comes.
void takeServerTable(const RemReply &reply) {
  std::vector<std::string> texts;
  for (size_t i = 1; i < reply.fields.size(); i++)
    if (reply.fields[i].kind == FIELD_TEXT) texts.push_back(reply.fields[i].bytes.c_str());
  if (texts.size() < 3) return;
  DomainTable *t = new DomainTable;
  for (size_t i = 0; i + 2 < texts.size(); i += 3)
    addEntry(t, texts[i], texts[i + 1], texts[i + 2], texts[i + 1] == "localhost");
  delete installed;
  installed = t;
  keptTime = NO_TIME;  // a later local read judges the file afresh
}

const DomainTable *entryTable(int index) {
  if (installed == nullptr || index < 0 || size_t(index) >= installed->names.size()) return nullptr;
  return installed;
}

}  // namespace

/* ==== The line form ================================================================== */

int SplitDomainLine(const char *line, std::string fields[3]) {
  for (int i = 0; i < 3; i++) fields[i].clear();
  int n = 0;
  bool quoted = false;
  for (const char *p = line; *p != 0 && *p != '\n'; p++) {
    if (*p == '"') {
      quoted = !quoted;
      fields[n] += ' ';  // the quotes themselves become blanks
    } else if (*p == ',' && !quoted && n < 2) {
      n++;  // the label, the last field, runs to the line end, commas and all
    } else {
      fields[n] += *p;
    }
  }
  for (int i = 0; i <= n; i++) trim(fields[i]);
  return n + 1;
}

bool IsThisHost(const char *host, uint32_t address) {
  if (strcmp(host, "localhost") == 0) return true;
  if (host[0] >= '0' && host[0] <= '9') return inet_addr(host) == address;
  hostent *h = gethostbyname(host);
  if (h == nullptr || h->h_addrtype != AF_INET || h->h_length != 4) return false;
  for (char **a = h->h_addr_list; *a != nullptr; a++) {
    uint32_t v;
    memcpy(&v, *a, sizeof v);
    if (v == address) return true;
  }
  return false;
}

/* ==== Reading ======================================================================== */

int ReadDomains(DbHandle *calendar, int *ok, uint32_t address) {
  if (calendar != nullptr && isServerAttached(calendar)) {
    *ok = 1;
    RemReply reply;
    if (RemGetDomains(calendar->server, &reply) == 0) takeServerTable(reply);
    return *ok;
  }
  char path[DB_PATH_MAX];
  resolveDbPath(path, dbPathSetting(DBP_DOMAINS));
  *ok = 0;
  if (installed != nullptr && access(path, R_OK) != 0) {
    warning("%s file is no longer accessable", path);
    return *ok;
  }
  int32_t mtime = fileModTime(path, nullptr);
  if (mtime == NO_TIME || (keptTime != NO_TIME && mtime <= keptTime)) return *ok;
  keptTime = mtime;
  FILE *fp = Fopen(path, "r");
  if (fp == nullptr) return *ok;
  DomainTable *t = readTable(fp, address);
  Fclose(fp);
  *ok = judge(t, path);
  return *ok;
}

/* ==== The table in force ============================================================== */

const char *DomainLabel(int index) {
  const DomainTable *t = entryTable(index);
  if (t == nullptr) return nullptr;
  if (!t->labels[size_t(index)].empty()) return t->labels[size_t(index)].c_str();
  if (!t->names[size_t(index)].empty()) return t->names[size_t(index)].c_str();
  return nullptr;
}

const char *DomainByLabel(const char *label) {
  if (installed == nullptr || label == nullptr) return nullptr;
  for (size_t i = 0; i < installed->labels.size(); i++)
    if (installed->labels[i] == label) return installed->names[i].c_str();
  return nullptr;
}

int DomainCount() { return installed != nullptr ? int(installed->names.size()) : 0; }

const char *DomainName(int index) {
  const DomainTable *t = entryTable(index);
  return t != nullptr ? t->names[size_t(index)].c_str() : nullptr;
}

const char *DomainHost(int index) {
  const DomainTable *t = entryTable(index);
  return t != nullptr ? t->hosts[size_t(index)].c_str() : nullptr;
}

void resetDomains() {
  delete installed;
  installed = nullptr;
  keptTime = NO_TIME;
}

}  // namespace quorvel
