// options.cpp -- option tables, the option-line reader, and the client options fetched
// from the server or the local database.
#include "core/notice/mailtext.h"
#include "core/notice/notice.h"

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/retry.h"
#include "core/net/link.h"
#include "core/net/remote.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>

namespace quorvel {

/* ---- Module state --------------------------------------------------------------------- */

// The client-option table; its values start as the defaults (not owned) and become owned
// copies once loadClientOptions initialises it. resetNotice puts the defaults back.
static ClientOption clientTable[CLIENT_OPTION_COUNT] = {
    {"checkTime", const_cast<char *>(""), nullptr, 1, 0, 0},
    {"limitRecurring", const_cast<char *>("False"), nullptr, 3, 0, 0},
    {"requirePassword", const_cast<char *>("False"), nullptr, 3, 0, 0},
};
static const char *const clientDefaults[CLIENT_OPTION_COUNT] = {"", "False", "False"};

static int32_t optionsTime = NO_TIME;  // change time of the options file last read
static int optionsChanged;             // set by loadClientOptions' read

// Every value this module copied into a table. A table handed in may still hold its
// defaults (text the caller owns), so only these are ever freed.
static std::unordered_set<char *> &ownedValues() {
  static std::unordered_set<char *> owned;
  return owned;
}

static char *ownCopy(const char *text) {
  size_t n = strlen(text) + 1;
  char *copy = static_cast<char *>(allocMem(nullptr, n));
  if (!copy) outOfMem("initOptionTable");
  memcpy(copy, text, n);
  ownedValues().insert(copy);
  return copy;
}

static void releaseValue(char *value) {
  if (value && ownedValues().erase(value)) freeMem(value);
}

/* ---- Tables --------------------------------------------------------------------------- */

void initOptionTable(ClientOption *table, int count) {
  for (int i = 0; i < count; i++) {
    char *old = table[i].value;
    table[i].value = old ? ownCopy(old) : nullptr;
    releaseValue(old);
    table[i].changed = 0;
  }
}

void releaseOptionTable(ClientOption *table, int count) {
  for (int i = 0; i < count; i++) {
    releaseValue(table[i].value);
    table[i].value = nullptr;
  }
}

static std::string lowered(const char *text) {
  std::string s(text ? text : "");
  for (char &c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

ClientOption *findOption(ClientOption *table, const char *key, int count) {
  std::string want = lowered(key);
  for (int i = 0; i < count; i++)
    if (table[i].name && lowered(table[i].name) == want) return &table[i];
  return nullptr;
}

/* ---- The reader ------------------------------------------------------------------------ */

// The value of a line whose ":" is at colon: after the blanks and tabs behind it, up to
// the line end or the first "#" not directly preceded by a backslash.
static std::string optionValue(const char *colon) {
  const char *start = colon + 1;
  while (*start == ' ' || *start == '\t') start++;
  const char *end = start;
  while (*end && *end != '\n' && !(*end == '#' && end[-1] != '\\')) end++;
  return std::string(start, end);
}

// One line: 1 when it set an option, else 0.
static int readOptionLine(const char *line, ClientOption *table, int count) {
  const char *p = line;
  while (*p == ' ' || *p == '\t') p++;
  if (*p == '\n' || *p == '!' || *p == '#') return 0;
  const char *colon = strchr(p, ':');
  if (!colon) return 0;
  std::string key(p, colon);
  ClientOption *row = findOption(table, key.c_str(), count);
  if (!row) return 0;
  std::string value = optionValue(colon);
  if (!row->value || value != row->value) row->changed = 1;
  char *old = row->value;
  row->value = ownCopy(value.c_str());
  releaseValue(old);
  return 1;
}

int readOptionStream(FILE *stream, ClientOption *table, int count, int wholeFile) {
  char line[OPTION_LINE_MAX];
  int set = 0;
  while (fgets(line, sizeof line, stream)) {
    // A blank line closes a block of options, once the block has set one.
    if (!wholeFile && line[0] == '\n' && set > 0) break;
    set += readOptionLine(line, table, count);
  }
  return set;
}

int readOptionFileIfNewer(const char *path, ClientOption *table, int count,
                          int32_t *lastTime, int *changed) {
  int32_t when = fileChangeTime(path);
  if (!(when > *lastTime)) {
    *changed = 0;
    return 0;
  }
  *changed = 1;
  *lastTime = when;
  FILE *f = Fopen(path, "r");
  if (!f) return 0;
  int n = readOptionStream(f, table, count, 1);
  Fclose(f);
  return n;
}

/* ---- Fetching the client options ------------------------------------------------------- */

// The whole text from the calendar server: the reply's first field behind the code, when
// it is a text. Empty when the call fails or carries none.
static std::string fetchRemote(DbHandle *main) {
  RemReply reply;
  if (RemReadArray(main->server, CLIENT_OPTIONS_FILE, &reply) != 0) return "";
  if (reply.fields.size() < 2 || reply.fields[1].kind != 56) return "";
  const std::string &bytes = reply.fields[1].bytes;
  return bytes.substr(0, bytes.find('\0'));
}

// The whole local file below the installation root, read in lines of up to 256 bytes.
static std::string fetchLocal() {
  char path[DB_PATH_MAX];
  resolveDbPath(path, CLIENT_OPTIONS_FILE);
  FILE *f = Fopen(path, "r");
  if (!f) return "";
  std::string text;
  text.reserve(8192);
  char line[256];
  while (fgets(line, sizeof line, f)) text += line;
  Fclose(f);
  return text;
}

static bool writeScratch(const char *path, const std::string &text) {
  FILE *f = Fopen(path, "w");
  if (!f) return false;
  bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
  return Fclose(f) == 0 && ok;
}

int loadClientOptions() {
  optionsTime = NO_TIME;
  DbHandle *main = mainDb();
  std::string text = main && isServerAttached(main) ? fetchRemote(main) : fetchLocal();
  if (text.empty()) return -1;
  initOptionTable(clientTable, CLIENT_OPTION_COUNT);
  // The reader works on files: the fetched text goes through a scratch copy, so a server
  // copy and a local one are read the same way.
  char scratch[] = "/tmp/qvoptsXXXXXX";
  if (makeScratchFile(scratch) != 0) return 0;
  int n = 0;
  if (writeScratch(scratch, text))
    n = readOptionFileIfNewer(scratch, clientTable, CLIENT_OPTION_COUNT, &optionsTime,
                              &optionsChanged);
  retryUnlink(scratch);
  return n;
}

/* ---- Accessors --------------------------------------------------------------------------- */

int clientOptionNumber(const char *key) {
  ClientOption *row = findOption(clientTable, key, CLIENT_OPTION_COUNT);
  if (!row) return OPTION_MISSING;
  return atoi(lowered(row->value).c_str());
}

int clientOptionFlag(const char *key) {
  ClientOption *row = findOption(clientTable, key, CLIENT_OPTION_COUNT);
  return row && row->value && lowered(row->value) == "true" ? 1 : 0;
}

ClientOption *clientOptionTable() { return clientTable; }
int32_t clientOptionsTime() { return optionsTime; }
int clientOptionsChanged() { return optionsChanged; }

void resetClientOptions() {
  for (int i = 0; i < CLIENT_OPTION_COUNT; i++) {
    releaseValue(clientTable[i].value);
    clientTable[i].value = const_cast<char *>(clientDefaults[i]);
    clientTable[i].changed = 0;
  }
  optionsTime = NO_TIME;
  optionsChanged = 0;
}

}  // namespace quorvel
