// permfile.cpp -- the permission records on disk and on the server: the writer of
// "db/database/dat.perm" and its installation (putDats), the store through the server,
// the one-line set file "notify.del", the plain-text dump, and the reader.
//
// Divisions: process-wide state, writing the records, putDats, storing, the set file,
// the dump, reading.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/retry.h"
#include "core/net/remote.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"

namespace quorvel {

/* ==== Process-wide state ============================================================ */

static int32_t changeTime = NO_TIME;  // set by storeDatPerms, readDatPermFile; -1 by a
                                      // refused putDats; read by datPermChangeTime
static long rememberedSize = 0;       // set by putDats and the main context's reads;
                                      // read by the shrink check
static bool lastWriteRefused;         // set by putDats, read by storeDatPerms

// The one-line report of a failure; returns -1 so that a failure path is one return.
__attribute__((format(printf, 1, 2))) static int failWith(const char *fmt, ...) {
  char line[DB_PATH_MAX + 64];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  logMsg("%s", line);
  return -1;
}

int32_t datPermChangeTime() { return changeTime; }
long datPermFileSize() { return rememberedSize; }
void setDatPermFileSize(long size) { rememberedSize = size; }

/* ==== Writing the records =========================================================== */

// One pass over records: once a write has failed the later ones are skipped, but the
// pass goes on (so that the current-context switches still happen as they would).
struct WritePass {
  void *stream;
  LineWriter print;
  bool ok = true;
  void put(const char *text) {
    if (ok && print(stream, "%s", text) < 0) ok = false;
  }
  void line(char tag, const char *value) {
    if (ok && print(stream, "#%c\t%s\n", tag, value) < 0) ok = false;
  }
  void set(char tag, const uint16_t *set) {
    if (ok && writeCalendarSet(stream, "#%c\t", tag, set, print) != 0) ok = false;
  }
};

// The owner's name in the current table, "__ALL__", or the name read for an owner the
// table does not know; null when the record has no owner at all.
static const char *ownerText(const DatEntry *rec, bool *ok) {
  if (rec->owner == PERM_OWNER_ALL) return ALL_NAMES;
  if (rec->owner < 0) return rec->ownerName.empty() ? nullptr : rec->ownerName.c_str();
  const char *name = tableName(currentDb(), rec->owner);
  if (name == nullptr) *ok = false;  // an owner without a name cannot be written
  return name;
}

static void writeDateLine(WritePass &p, char tag, const DateTime &dt) {
  char text[DATETIME_TEXT];
  if (formatDateTime(text, sizeof text, dt, nullptr) < 0) p.ok = false;
  else p.line(tag, text);
}

static void writeRecord(WritePass &p, const DatEntry *rec) {
  p.put("\n");  // an empty line opens every record
  if (const char *owner = ownerText(rec, &p.ok)) p.line('O', owner);
  if (!rec->linkedDatabase.empty()) {
    if (DbHandle *db = findDbByName(rec->linkedDatabase.c_str())) {
      p.line('J', rec->linkedDatabase.c_str());
      setCurrentDb(db);  // its table names this record's sets and the following ones
    }
  }
  if (rec->begin.time != NO_TIME && rec->final.time != NO_TIME) {
    writeDateLine(p, 'B', rec->begin);
    writeDateLine(p, 'F', rec->final);
  }
  if (setMembers(rec->W) > 0) p.set('W', rec->W);
  p.set('R', rec->readers), p.set('C', rec->writers), p.set('Y', rec->agents);
  p.set('N', rec->schedulers), p.set('X', rec->X);
}

int writeDatRecords(DbHandle *ctx, void *stream, LineWriter print) {
  if (ctx->permCount == 0) return 0;
  DatEntry *first = &ctx->perms[0];
  // A first record whose owner is not known at all (neither index nor name read from a
  // file) ends the pass, except for the administrator, whose own calendar it becomes.
  if (first->owner < 0 && first->ownerName.empty()) {
    if (ctx->permMode != PERM_MODE_ADMIN) return 0;
    first->owner = ownCalendar();
  }
  WritePass p{stream, print};
  setCurrentDb(ctx);
  for (const DatEntry *rec = first; rec; rec = rec->next) writeRecord(p, rec);
  restoreCurrentDb();
  return p.ok ? 0 : -1;
}

/* ==== putDats ======================================================================= */

// A file of 1 byte or more whose owner-write bit is clear must not be replaced.
static bool writeProtected(const char *path) {
  struct stat st;
  return retryStat(path, &st) == 0 && st.st_size >= 1 && (st.st_mode & 0200) == 0;
}

// Writes the records to tmp, flushed and synced so that a crash after the rename leaves
// the whole new file. 0 or -1.
static int writeScratch(DbHandle *ctx, const std::string &tmp) {
  int fd = retryCreat(tmp.c_str(), 0600);
  FILE *f = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (f == nullptr) {
    if (fd >= 0) retryClose(fd);
    return -1;
  }
  TextSink sink;
  sink.file = f;
  int r = writeDatRecords(ctx, &sink, textLineWriter);
  if (flushTextSink(&sink) != 0 || fflush(f) != 0 || fsync(fileno(f)) != 0) r = -1;
  if (Fclose(f) != 0) r = -1;
  return r;
}

// The shrink check on the written scratch file (see putDats). A failing file is left
// where it is: it holds the only copy of the records being dropped from memory.
static bool passesShrinkCheck(DbHandle *ctx, const std::string &tmp) {
  struct stat st;
  bool ok = retryStat(tmp.c_str(), &st) == 0;
  long long now = ok ? st.st_size : 0, before = rememberedSize;
  if (ok && before >= 1 && now >= 1 && now < before && now * 100 / before < 80) ok = false;
  if (ok) {  // an empty new file passes: an empty permission file is accepted
    rememberedSize = static_cast<long>(now);
    return true;
  }
  logMsg("putDats: bad size for dat.perm file");
  dropDatRecords(ctx);  // read again from the file in force
  if (ctx == mainDb()) rememberedSize = -1;
  return false;
}

// Makes the rename durable: the directory entry is synced too.
static void syncParentDir(const char *path) {
  std::string dir(path);
  size_t slash = dir.rfind('/');
  dir = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  retryClose(fd);
}

// Writes, checks and installs the scratch file. The old file is unlinked before the
// rename, with no saved copy: a failed rename leaves the records in the scratch file.
static int installRecords(DbHandle *ctx, const char *path, const std::string &tmp) {
  if (writeScratch(ctx, tmp) != 0) {
    retryUnlink(tmp.c_str());  // a partial file is of no use
    return failWith("putDats: cannot write out tmp file");
  }
  if (!passesShrinkCheck(ctx, tmp)) return -1;
  if (retryUnlink(path) != 0 && errno != ENOENT)
    return failWith("putDats: cannot unlink old dat perm file");
  if (retryRename(tmp.c_str(), path) != 0)
    return failWith("putDats: cannot rename tmp to dat perm file");
  syncParentDir(path);
  return 0;
}

int putDats(DbHandle *ctx, const char *path) {
  lastWriteRefused = false;
  if (ctx->permCount == 0) return 0;
  if (ctx->permMode != PERM_MODE_ADMIN && writeProtected(path)) {
    changeTime = -1;
    lastWriteRefused = true;
    return failWith("putDats: dat.perm not writeable");
  }
  lockPermsForWriting();
  int r = installRecords(ctx, path, std::string(path) + "TMP");
  retryChmod(path, 0600);  // in every case, whichever step ended the rewrite
  unlockPermsForWriting();
  return r;
}

/* ==== Storing ======================================================================= */

// The records of the calendar in view, as file text, to the server.
static int sendDatPerms(DbHandle *ctx) {
  int view = calendarInView();
  const char *name = tableName(ctx, view);
  if (view < 0 || name == nullptr) return -1;
  TextSink sink;
  WritePass p{&sink, textLineWriter};
  setCurrentDb(ctx);
  for (DatEntry *rec = ctx->permCount ? ctx->perms : nullptr; rec; rec = rec->next)
    if (rec->owner == view) writeRecord(p, rec);
  restoreCurrentDb();
  if (!p.ok) return -1;
  RemReply reply;
  RemBytes data{sink.text.data(), sink.text.size()};
  return RemWriteDatPerms(ctx->server, name, data, &reply) == 0 ? 0 : -1;
}

int storeDatPerms(DbHandle *ctx) {
  if (isServerAttached(ctx)) return sendDatPerms(ctx);
  char path[DB_PATH_MAX];
  resolveDbPath(path, dbPathSetting(DBP_PERMISSIONS));
  int r = putDats(ctx, path);
  // A refused write keeps its mark (-1): the file in force was not written by us.
  if (!lastWriteRefused) changeTime = fileChangeTime(path);
  return r;
}

/* ==== The set file ================================================================== */

// Moves the written scratch file over path (mode 0600). Both messages spell the
// routine "putExtBitinfo", as the program always has.
static int installSetFile(const char *path, const std::string &tmp) {
  if (retryUnlink(path) != 0 && errno != ENOENT) {
    retryChmod(path, 0600);
    return failWith("putExtBitinfo: cannot unlink %s", path);
  }
  int r = 0;
  if (retryRename(tmp.c_str(), path) != 0)
    r = failWith("putExtBitinfo: cannot rename tmp to %s", path);
  retryChmod(path, 0600);
  return r;
}

int putExtBitInfo(const char *path, const uint16_t *set) {
  if (setBitCount(set) == 0) return 0;
  std::string tmp = std::string(path) + "TMP";
  FILE *f = Fopen(tmp.c_str(), "w");
  if (f == nullptr) return failWith("putExtBitInfo: cannot open tmp file");
  bool written = writeCalendarSet(f, "#%c\t", 'R', set, fileLineWriter) == 0 &&
                 fflush(f) == 0 && fsync(fileno(f)) == 0;
  if (!written) logMsg("putExtBitInfo: cannot write to tmp file");
  Fclose(f);
  // A short write would replace the set in force by part of it: keep the old file.
  if (!written) return retryUnlink(tmp.c_str()), -1;
  if (fileSize(tmp.c_str()) >= 1) return installSetFile(path, tmp);
  DbHandle *main = mainDb();
  if (main == nullptr || main->permMode != PERM_MODE_ADMIN)
    logMsg("putExtBitInfo: tmp file is of zero length");
  retryUnlink(tmp.c_str());
  return -1;
}

int syncNotifySet(DbHandle *ctx, const DatEntry *rec, int writeOut) {
  int diff = setMembers(ctx->notifySet) - setMembers(rec->readers);
  if (diff <= -2 || diff >= 2) return 0;
  copybits(&ctx->notifySet, rec->readers);
  if (writeOut) {
    char path[DB_PATH_MAX];
    resolveDbPath(path, dbPathSetting(DBP_NOTIFY_DELETE));
    putExtBitInfo(path, ctx->notifySet);
  }
  return 1;
}

/* ==== The dump ====================================================================== */

static void dumpSet(const char *head, const uint16_t *set) {
  TextSink sink;
  sink.text = head;
  writeCalendarSet(&sink, "", 0, set, textLineWriter);
  logMsg("%s", sink.text.c_str());
}

void dumpDatPerms(DbHandle *ctx) {
  setCurrentDb(ctx);
  for (DatEntry *rec = ctx->permCount ? ctx->perms : nullptr; rec; rec = rec->next) {
    bool ok = true;
    const char *owner = ownerText(rec, &ok);  // named before the switch, as written
    logMsg("For %s\n", owner ? owner : "(null)");
    if (!rec->linkedDatabase.empty())
      if (DbHandle *db = findDbByName(rec->linkedDatabase.c_str())) setCurrentDb(db);
    dumpSet("Readers are ", rec->readers);
    dumpSet("Writers are ", rec->writers);
    dumpSet("Agents are ", rec->agents);
    dumpSet("Schedulers are ", rec->schedulers);
  }
  restoreCurrentDb();
}

/* ==== Reading ======================================================================= */

// A value that ends in a backslash would continue onto the next line when written
// again, and a carriage return at its end would be taken for part of the line end:
// both are cut, as the record files cut their texts.
static std::string cleanValue(const char *value) {
  std::string v(value);
  while (!v.empty() && (v.back() == '\\' || v.back() == '\r')) v.pop_back();
  return v;
}

static void readLine(DatEntry *rec, const RecordLine &line) {
  if (line.tag == 'O') {
    std::string name = cleanValue(line.value);
    int index = name == ALL_NAMES ? PERM_OWNER_ALL : lookupCalendar(currentDb(), name.c_str());
    rec->owner = index, rec->ownerName = index < 0 ? name : std::string();
  } else if (line.tag == 'J') {
    rec->linkedDatabase = cleanValue(line.value);
    if (DbHandle *db = findDbByName(rec->linkedDatabase.c_str())) setCurrentDb(db);
  } else if (line.tag == 'B' || line.tag == 'F') {
    DateTime dt;
    if (parseDateTime(line.value, &dt, nullptr) == 0)
      (line.tag == 'B' ? rec->begin : rec->final) = dt;
  } else if (CalSet *set = datPermSet(rec, line.tag)) {
    readCalendarSet(cleanValue(line.value).c_str(), set);
  }
}

// Reads a record's lines in the writer's order whatever their order in the text: the
// owner is named in the table current before the record's J line, the sets in the
// table that J line makes current. A record without an owner grants nothing and is
// dropped (as a first record it would stop every later one from being written again).
static void readRecord(DbHandle *ctx, const std::vector<RecordLine> &lines) {
  DatEntry rec{};
  rec.owner = -1, rec.begin = rec.final = initDateTime();
  for (const char *pass : {"O", "J", "BFWRCYNX"})
    for (const RecordLine &line : lines)
      if (strchr(pass, line.tag) != nullptr) readLine(&rec, line);
  if (rec.owner < 0 && rec.ownerName.empty()) {
    freebits(&rec.W), freebits(&rec.agents), freebits(&rec.schedulers);
    freebits(&rec.readers), freebits(&rec.writers), freebits(&rec.X);
    return;
  }
  DatEntry *slot = AddToDat(ctx, rec.owner);
  DatEntry *next = slot->next;
  *slot = std::move(rec);  // the sets change hands
  slot->next = next;
}

int parseDatRecords(DbHandle *ctx, char *text, size_t len) {
  dropDatRecords(ctx);
  setCurrentDb(ctx);
  LineScan scan;
  startLineScan(&scan, text, len);
  RecordLine line;
  std::vector<RecordLine> lines;  // values stay in place inside text
  while (nextRecordLine(&scan, &line)) {
    if (line.tag != 0) {
      lines.push_back(line);
    } else if (!lines.empty()) {
      readRecord(ctx, lines);
      lines.clear();
    }
  }
  if (!lines.empty()) readRecord(ctx, lines);
  restoreCurrentDb();
  return ctx->permCount;
}

int readDatPermFile(DbHandle *ctx, const char *path) {
  FILE *f = Fopen(path, "r");
  if (f == nullptr) {
    if (errno != ENOENT) return failWith("readDatPerms: cannot open %s", path);
    dropDatRecords(ctx);  // no file: no permissions
    return 0;
  }
  std::string text;
  char block[65536];
  for (size_t n; (n = fread(block, 1, sizeof block, f)) > 0;) text.append(block, n);
  Fclose(f);
  size_t len = text.size();
  text.push_back('\0');  // the scanner writes one byte past the end
  int n = parseDatRecords(ctx, text.data(), len);
  if (ctx == mainDb()) rememberedSize = static_cast<long>(len);
  changeTime = fileChangeTime(path);
  return n;
}

// The server answers RemReadDatPerms (first number 0: the records of the named
// calendar) with a data field holding the records as file text.
static int fetchDatPerms(DbHandle *ctx) {
  const char *name = tableName(ctx, calendarInView());
  RemReply reply;
  if (RemReadDatPerms(ctx->server, 0, name, nullptr, &reply) != 0) return -1;
  std::string text;
  for (size_t i = 1; i < reply.fields.size(); i++)
    if (reply.fields[i].kind == FIELD_DATA || reply.fields[i].kind == 56) {
      text = reply.fields[i].bytes;
      break;
    }
  size_t len = strnlen(text.data(), text.size());  // a text field carries its NUL
  text.push_back('\0');
  return parseDatRecords(ctx, text.data(), len);
}

int readDatPerms(DbHandle *ctx) {
  if (isServerAttached(ctx)) return fetchDatPerms(ctx);
  char path[DB_PATH_MAX];
  resolveDbPath(path, dbPathSetting(DBP_PERMISSIONS));
  return readDatPermFile(ctx, path);
}

/* ==== Tests ========================================================================= */

void resetPerms() {
  changeTime = NO_TIME;
  rememberedSize = 0;
  lastWriteRefused = false;
  resetPermSets();
}

}  // namespace quorvel
