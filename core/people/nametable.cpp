// nametable.cpp -- the calendar-name table of a context (rows by index, an open-addressing
// hash map by name), the name lookup it offers core/net, and the per-calendar texts read from it.
#include "core/db/context.h"
#include "core/net/namelookup.h"
#include "core/people/users.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quorvel {

struct NameRow {
  std::string name;     // calendar name
  std::string login;    // owner's login
  std::string mail;     // mail address
  std::string display;  // display name
};

// The hash map is open addressing over a power-of-two array of (hash, row) pairs, so a
// lookup touches one small contiguous area and at most one row per full-hash match.
struct NameSlot {
  uint32_t hash;  // hash of the row's name
  int32_t row;    // index into rows, -1 for an empty slot
};

struct NameTable {
  std::vector<NameRow> rows;    // calendar index -> row
  std::vector<NameSlot> slots;  // name -> index; size a power of two, at most half full
};

namespace {

uint32_t nameHash(const char *s) {  // FNV-1a
  uint32_t h = 2166136261u;
  for (; *s; s++) h = (h ^ static_cast<unsigned char>(*s)) * 16777619u;
  return h;
}

// The slot holding name, or the empty slot where it would go.
NameSlot &probe(NameTable *t, const char *name, uint32_t h) {
  size_t mask = t->slots.size() - 1;
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    NameSlot &s = t->slots[i];
    if (s.row < 0) return s;
    if (s.hash == h && t->rows[s.row].name == name) return s;
  }
}

void growSlots(NameTable *t, size_t want) {
  size_t n = 16;
  while (n < want * 2) n *= 2;
  if (n <= t->slots.size()) return;
  t->slots.assign(n, NameSlot{0, -1});
  for (size_t r = 0; r < t->rows.size(); r++) {
    const char *name = t->rows[r].name.c_str();
    uint32_t h = nameHash(name);
    probe(t, name, h) = NameSlot{h, static_cast<int32_t>(r)};
  }
}

DbHandle *pick(DbHandle *ctx) { return ctx ? ctx : currentDb(); }

// The table of ctx, made on first use when `make` is set; null without a context.
NameTable *tableOf(DbHandle *ctx, bool make) {
  ctx = pick(ctx);
  if (!ctx) return nullptr;
  if (!ctx->names && make) ctx->names = new NameTable();
  return ctx->names;
}

const NameRow *rowOf(DbHandle *ctx, int index) {
  NameTable *t = tableOf(ctx, false);
  if (!t || index < 0 || index >= static_cast<int>(t->rows.size())) return nullptr;
  return &t->rows[index];
}

const char *orEmpty(const char *s) { return s ? s : ""; }

/* ---- The lookup handed to core/net: always the current context's table ------------ */

int lookupCount(void *) { return calendarTableSize(nullptr); }
const char *lookupName(void *, int index) { return tableName(nullptr, index); }
int lookupIndex(void *, const char *name) { return lookupCalendar(nullptr, name); }

const NameLookup currentTableLookup = {nullptr, lookupCount, lookupName, lookupIndex};

}  // namespace

/* ---- The table ------------------------------------------------------------------- */

int addCalendarName(DbHandle *ctx, const char *name, const char *login, const char *mail,
                    const char *display) {
  NameTable *t = tableOf(ctx, true);
  if (!t || !name) return -1;
  growSlots(t, t->rows.size() + 1);
  uint32_t h = nameHash(name);
  NameSlot &slot = probe(t, name, h);
  if (slot.row >= 0) return slot.row;
  int i = static_cast<int>(t->rows.size());
  t->rows.push_back({name, orEmpty(login), orEmpty(mail), orEmpty(display)});
  slot = NameSlot{h, i};
  return i;
}

int lookupCalendar(DbHandle *ctx, const char *name) {
  NameTable *t = tableOf(ctx, false);
  if (!t || !name || t->slots.empty()) return -1;
  return probe(t, name, nameHash(name)).row;
}

int calendarTableSize(DbHandle *ctx) {
  NameTable *t = tableOf(ctx, false);
  return t ? static_cast<int>(t->rows.size()) : 0;
}

const char *tableName(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->name.c_str() : nullptr;
}

const char *tableLogin(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->login.c_str() : nullptr;
}

const char *tableMail(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->mail.c_str() : nullptr;
}

const char *tableDisplay(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->display.c_str() : nullptr;
}

void registerFileOnlyNames(DbHandle *ctx, const UserList *list) {
  if (!list) return;
  for (int i = 0; i < list->count; i++) {
    const UserEntry &e = list->entries[i];
    if (e.name && e.name[0] == '-')
      addCalendarName(ctx, e.name + 1, e.login, e.mailAddress, e.displayName);
  }
}

void rebuildNameTable(DbHandle *ctx, const UserList *list) {
  NameTable *t = tableOf(ctx, true);
  if (!t) return;
  t->rows.clear();
  t->slots.clear();
  if (!list) return;
  t->rows.reserve(list->count);
  growSlots(t, list->count);
  for (int i = 0; i < list->count; i++) {
    const UserEntry &e = list->entries[i];
    addCalendarName(ctx, e.name, e.login, e.mailAddress, e.displayName);
  }
  registerFileOnlyNames(ctx, list);
}

void freeNameTable(DbHandle *ctx) {
  if (!ctx) return;
  delete ctx->names;
  ctx->names = nullptr;
}

void installNameLookup() { setNameLookup(&currentTableLookup); }

/* ---- Per-calendar texts ------------------------------------------------------------ */

const char *userMailAddress(int index) {
  const NameRow *r = rowOf(nullptr, index);
  if (!r) return "";
  return r->mail.empty() ? r->login.c_str() : r->mail.c_str();
}

const char *userDisplayName(int index) {
  const NameRow *r = rowOf(nullptr, index);
  if (!r) return "(null)";  // printf's rendering of the missing name, kept
  return r->display.empty() ? r->name.c_str() : r->display.c_str();
}

}  // namespace quorvel
