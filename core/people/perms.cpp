// perms.cpp -- permission records in memory: the known calendars, the set encoder and
// its reader, the records of a context and the access questions asked of them.
//
// Divisions: process-wide state, known calendars, the set encoder, records, access.
#include "core/people/perms.h"

#include <bit>
#include <cstring>
#include <shared_mutex>
#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/items/item.h"
#include "core/people/users.h"

namespace quorvel {

/* ==== Process-wide state ============================================================ */

// The guest calendars: set by the client (addGuestCalendar, setGuestCalendars), read
// whenever the main context's known calendars are counted.
static CalSet guests;
static unsigned guestGeneration;  // bumped with every change of guests (cache key)

// The known calendars of one context as last counted: recounted when the context, its
// user list (address, length, file time), the table's size or the guests differ.
struct KnownCache {
  DbHandle *ctx = nullptr;
  const UserList *users = nullptr;
  int userCount = -1, tableSize = -1;
  int32_t usersTime = 0;
  unsigned guestGeneration = 0;
  CalSet set = nullptr;
  int members = 0;
};
static KnownCache known;

// The records' guard: readers share it, putDats holds it alone.
static std::shared_mutex permGuard;

/* ==== Known calendars =============================================================== */

// The users of ctx as calendar indexes; a context without a list (its users live on a
// server) knows every calendar of its table.
static void usersOf(DbHandle *ctx, CalSet *out) {
  freebits(out);
  if (ctx == nullptr) return;
  if (ctx->users == nullptr) {
    for (int i = calendarTableSize(ctx) - 1; i >= 0; i--) setbit(out, i, 1);
    return;
  }
  for (int i = 0; i < ctx->users->count; i++) {
    int index = lookupCalendar(ctx, ctx->users->entries[i].name);
    if (index >= 0) setbit(out, index, 1);
  }
}

static const KnownCache &knownOf(DbHandle *ctx) {
  if (ctx == nullptr) ctx = currentDb();
  const UserList *users = ctx ? ctx->users : nullptr;
  int userCount = users ? users->count : -1, tableSize = calendarTableSize(ctx);
  int32_t usersTime = ctx ? ctx->usersFileTime : 0;
  if (known.set != nullptr && known.ctx == ctx && known.users == users &&
      known.userCount == userCount && known.tableSize == tableSize &&
      known.usersTime == usersTime && known.guestGeneration == guestGeneration)
    return known;
  usersOf(ctx, &known.set);
  if (ctx != nullptr && ctx == mainDb()) {
    int n = setBitCount(guests);
    for (int i = 0; i < n; i++)
      if (testbit(guests, i)) setbit(&known.set, i, 1);
  }
  if (known.set == nullptr) allocbits(&known.set, 1);  // cached even when empty
  known.ctx = ctx, known.users = users, known.userCount = userCount, known.usersTime = usersTime;
  known.tableSize = tableSize, known.guestGeneration = guestGeneration;
  known.members = setMembers(known.set);
  return known;
}

void knownCalendars(DbHandle *ctx, CalSet *out) { copybits(out, knownOf(ctx).set); }

int knownCalendarCount(DbHandle *ctx) { return knownOf(ctx).members; }

void addGuestCalendar(int index) {
  if (index < 0) return;
  setbit(&guests, index, 1);
  guestGeneration++;
}

void setGuestCalendars(const uint16_t *set) {
  copybits(&guests, set);
  guestGeneration++;
}

const uint16_t *guestCalendars() { return guests; }

/* ==== The set encoder and its reader ================================================ */

// The names of set's members joined by ",", a backslash, newline and tab once the
// column passes 60. False at a member without a name (the text so far stays in out).
static bool appendNames(std::string &out, DbHandle *ctx, const uint16_t *set) {
  int column = 8, words = (setBitCount(set) + 15) / 16;  // the tab is 8 columns wide
  bool first = true;
  for (int w = 0; w < words; w++) {
    // Whole words at a time: most of a large set's words are empty.
    for (unsigned bits = set[1 + w]; bits != 0; bits &= bits - 1) {
      int i = w * 16 + std::countr_zero(bits);
      if (!first) {
        out.push_back(',');
        if (++column > 60) out.append("\\\n\t"), column = 8;
      }
      first = false;
      const char *name = tableName(ctx, i);
      if (name == nullptr || *name == '\0') return false;
      size_t len = strlen(name);
      out.append(name, len);
      column += static_cast<int>(len);
    }
  }
  return true;
}

int writeCalendarSet(void *stream, const char *tagFormat, char tag, const uint16_t *set,
                     LineWriter print) {
  int members = setMembers(set);
  if (setBitCount(set) == 0 || members == 0) return 0;
  if (print(stream, tagFormat, tag) < 0) return -1;
  DbHandle *ctx = currentDb();
  if (members == knownCalendarCount(ctx)) return print(stream, "%s\n", ALL_NAMES) < 0 ? -1 : 0;
  // The names are gathered and handed over in one call: a long set is many short names.
  std::string names;
  bool ok = appendNames(names, ctx, set);
  if (ok) names.push_back('\n');
  if (print(stream, "%s", names.c_str()) < 0) return -1;
  return ok ? 0 : -1;
}

int readCalendarSet(const char *value, CalSet *set) {
  int before = setMembers(*set);
  DbHandle *ctx = currentDb();
  if (strcmp(value, ALL_NAMES) == 0) {
    const KnownCache &all = knownOf(ctx);
    for (int i = setBitCount(all.set) - 1; i >= 0; i--)
      if (testbit(all.set, i)) setbit(set, i, 1);
    return setMembers(*set) - before;
  }
  // The indexes are gathered first so that the set grows once, not once per name.
  std::vector<int> found;
  std::string name;
  for (const char *p = value;; p++) {
    if (*p != ',' && *p != '\0') {
      name.push_back(*p);
      continue;
    }
    int index = name.empty() ? -1 : lookupCalendar(ctx, name.c_str());
    if (index >= 0) found.push_back(index);  // a name no longer known is dropped
    name.clear();
    if (*p == '\0') break;
  }
  int top = -1;
  for (int i : found) top = i > top ? i : top;
  if (top >= setBitCount(*set)) allocbits(set, top + 1);
  for (int i : found) setbit(set, i, 1);
  return setMembers(*set) - before;
}

/* ==== Records =========================================================================== */

// The array holds bit_ceil(count) slots, so that appending one record at a time costs
// a copy only when the count reaches a power of two. The chain follows the array.
static void relink(DbHandle *ctx) {
  for (int i = 0; i < ctx->permCount; i++)
    ctx->perms[i].next = i + 1 < ctx->permCount ? &ctx->perms[i + 1] : nullptr;
}

static void freeRecordSets(DatEntry &rec) {
  freebits(&rec.W), freebits(&rec.agents), freebits(&rec.schedulers);
  freebits(&rec.readers), freebits(&rec.writers), freebits(&rec.X);
}

static DatEntry blankRecord(int32_t owner) {
  DatEntry rec{};
  rec.owner = owner;
  rec.begin = initDateTime(), rec.final = initDateTime();
  return rec;
}

DatEntry *AddToDat(DbHandle *ctx, int32_t owner) {
  unsigned count = static_cast<unsigned>(ctx->permCount);
  bool moved = count == 0 || std::has_single_bit(count);
  if (moved) {
    DatEntry *grown = new (std::nothrow) DatEntry[count == 0 ? 1 : count * 2];
    if (grown == nullptr) outOfMem("AddToDat");
    for (unsigned i = 0; i < count; i++) grown[i] = std::move(ctx->perms[i]);
    delete[] ctx->perms;
    ctx->perms = grown;
  }
  ctx->perms[count] = blankRecord(owner);
  ctx->permCount++;
  if (moved) relink(ctx);  // otherwise only the last link is new
  else ctx->perms[count - 1].next = &ctx->perms[count];
  return &ctx->perms[count];
}

DatEntry *findDatEntry(DbHandle *ctx, int32_t owner) {
  for (DatEntry *rec = ctx->permCount ? ctx->perms : nullptr; rec; rec = rec->next)
    if (rec->owner == owner) return rec;
  return nullptr;
}

CalSet *datPermSet(DatEntry *rec, char tag) {
  switch (tag) {
    case 'W': return &rec->W;
    case 'R': return &rec->readers;
    case 'C': return &rec->writers;
    case 'Y': return &rec->agents;
    case 'N': return &rec->schedulers;
    case 'X': return &rec->X;
    default: return nullptr;
  }
}

int SetDatPerm(DbHandle *ctx, int32_t owner, char tag, int member, int on) {
  DatEntry *rec = findDatEntry(ctx, owner);
  if (rec == nullptr) {
    logMsg("SetDatPerm: could not find dat entry");
    return -1;
  }
  CalSet *set = datPermSet(rec, tag);
  if (set == nullptr || member < 0) return -1;
  if (on || testbit(*set, member)) setbit(set, member, on);  // clearing never grows
  return 0;
}

// Drops the records only; the notify set stays (the shrink check drops records alone).
void dropDatRecords(DbHandle *ctx) {
  for (int i = 0; i < ctx->permCount; i++) freeRecordSets(ctx->perms[i]);
  delete[] ctx->perms;
  ctx->perms = nullptr;
  ctx->permCount = 0;
}

void freeDatEntries(DbHandle *ctx) {
  dropDatRecords(ctx);
  freebits(&ctx->notifySet);
}

void lockPermsForReading() { permGuard.lock_shared(); }
void unlockPermsForReading() { permGuard.unlock_shared(); }
void lockPermsForWriting() { permGuard.lock(); }
void unlockPermsForWriting() { permGuard.unlock(); }

/* ==== Access ============================================================================ */

// A record with both ends of its window set grants only inside the window.
static bool inWindow(const DatEntry *rec) {
  if (rec->begin.time == NO_TIME || rec->final.time == NO_TIME) return true;
  int64_t now = static_cast<int64_t>(currentTime());
  return now >= rec->begin.time && now <= rec->final.time;
}

// The records whose sets use ctx's own indexes: those before the first linked
// database (a J line switches the names of its own and every later record's sets).
static void ownRecords(DbHandle *ctx, int32_t owner, DatEntry **mine, DatEntry **all) {
  *mine = *all = nullptr;
  for (DatEntry *rec = ctx->permCount ? ctx->perms : nullptr; rec; rec = rec->next) {
    if (!rec->linkedDatabase.empty()) break;
    if (rec->owner == owner && *mine == nullptr) *mine = rec;
    if (rec->owner == PERM_OWNER_ALL && *all == nullptr) *all = rec;
  }
}

static bool grantsIn(const DatEntry *rec, int who, const char *tags) {
  if (rec == nullptr || !inWindow(rec)) return false;
  for (const char *t = tags; *t; t++)
    if (testbit(*datPermSet(const_cast<DatEntry *>(rec), *t), who)) return true;
  return false;
}

static int mayDo(DbHandle *ctx, int who, int owner, const char *tags) {
  if (ctx == nullptr) ctx = mainDb();
  if (who < 0 || owner < 0) return 0;
  if (who == owner) return 1;
  if (ctx == nullptr) return 0;
  DatEntry *mine, *all;
  ownRecords(ctx, owner, &mine, &all);
  if ((mine && testbit(mine->X, who)) || (all && testbit(all->X, who))) return 0;
  return grantsIn(mine, who, tags) || grantsIn(all, who, tags) ? 1 : 0;
}

int mayReadCalendar(DbHandle *ctx, int who, int owner) { return mayDo(ctx, who, owner, "RCY"); }
int mayWriteCalendar(DbHandle *ctx, int who, int owner) { return mayDo(ctx, who, owner, "C"); }
int mayActFor(DbHandle *ctx, int who, int owner) { return mayDo(ctx, who, owner, "Y"); }
int mayScheduleInto(DbHandle *ctx, int who, int owner) { return mayDo(ctx, who, owner, "N"); }

int mayReadItem(DbHandle *ctx, int who, const Item *item) {
  if (item == nullptr) return 0;
  int n = setBitCount(item->calendars);
  if (setMembers(item->calendars) == 0) {
    if (item->owner == OWNER_ALL) return who >= 0 ? 1 : 0;  // an item for everyone
    return mayReadCalendar(ctx, who, item->owner);
  }
  for (int c = 0; c < n; c++)
    if (testbit(item->calendars, c) && mayReadCalendar(ctx, who, c)) return 1;
  return 0;
}

/* ==== Tests ============================================================================= */

// (The file-side state is reset by resetPermFiles in permfile.cpp.)
void resetPermSets() {
  freebits(&guests);
  guestGeneration++;
  freebits(&known.set);
  known = KnownCache{};
}

}  // namespace quorvel
