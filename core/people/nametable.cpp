// nametable.cpp -- the calendar-name table of a context (rows by index, an open-addressing
// hash map by name), the name lookup it offers core/net, and the per-calendar texts read from it.
#include "core/db/context.h"
#include "core/db/recordfile.h"
#include "core/net/namelookup.h"
#include "core/people/users.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace quorvel {

// The texts of the rows live in blocks that never move, so a row is four pointers and
// a rebuild of a large table makes a few block allocations rather than one per text.
struct NameRow {
  const char *name;     // calendar name (in the table's text blocks)
  const char *login;    // owner's login
  const char *mail;     // mail address
  const char *display;  // display name
};

struct TextBlocks {
  std::vector<std::unique_ptr<char[]>> blocks;  // filled front to back
  size_t used = 0;                              // bytes used in the last block
  size_t size = 0;                              // bytes of the last block
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
  TextBlocks texts;             // the rows' texts
};

namespace {

constexpr size_t kTextBlock = 64 * 1024;

const char *keepText(TextBlocks &tb, const char *s) {
  size_t n = strlen(s) + 1;
  if (tb.blocks.empty() || tb.size - tb.used < n) {
    size_t size = n > kTextBlock ? n : kTextBlock;
    tb.blocks.emplace_back(new char[size]);
    tb.size = size;
    tb.used = 0;
  }
  char *at = tb.blocks.back().get() + tb.used;
  memcpy(at, s, n);
  tb.used += n;
  return at;
}

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
    if (s.hash == h && strcmp(t->rows[s.row].name, name) == 0) return s;
  }
}

void growSlots(NameTable *t, size_t want) {
  size_t n = 16;
  while (n < want * 2) n *= 2;
  if (n <= t->slots.size()) return;
  t->slots.assign(n, NameSlot{0, -1});
  for (size_t r = 0; r < t->rows.size(); r++) {
    const char *name = t->rows[r].name;
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

/* ---- The table ------------------------------------------------------------------- */

// Adds a row for name (hash h) unless it is present; the slots must have room.
int addRow(NameTable *t, const UserEntry &e, const char *name, uint32_t h) {
  NameSlot &slot = probe(t, name, h);
  if (slot.row >= 0) return slot.row;
  int i = static_cast<int>(t->rows.size());
  TextBlocks &tb = t->texts;
  t->rows.push_back({keepText(tb, name), keepText(tb, orEmpty(e.login)),
                     keepText(tb, orEmpty(e.mailAddress)), keepText(tb, orEmpty(e.displayName))});
  slot = NameSlot{h, i};
  return i;
}

}  // namespace

int addCalendarName(DbHandle *ctx, const char *name, const char *login, const char *mail,
                    const char *display) {
  NameTable *t = tableOf(ctx, true);
  if (!t || !name) return -1;
  growSlots(t, t->rows.size() + 1);
  UserEntry e{nullptr, const_cast<char *>(login), const_cast<char *>(mail),
              const_cast<char *>(display), 0, -1};
  return addRow(t, e, name, nameHash(name));
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
  return r ? r->name : nullptr;
}

const char *tableLogin(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->login : nullptr;
}

const char *tableMail(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->mail : nullptr;
}

const char *tableDisplay(DbHandle *ctx, int index) {
  const NameRow *r = rowOf(ctx, index);
  return r ? r->display : nullptr;
}

namespace {

// For each entry named "-x": adds "x" with the entry's details unless "x" is present.
void addFileOnlyNames(NameTable *t, const UserList *list) {
  for (int i = 0; i < list->count; i++) {
    const UserEntry &e = list->entries[i];
    if (!e.name || e.name[0] != '-') continue;
    growSlots(t, t->rows.size() + 1);
    addRow(t, e, e.name + 1, nameHash(e.name + 1));
  }
}

// Every entry in list order (hashes first, so that each slot can be asked for a few
// names ahead of its use: slots are reached at random), then the file-only names.
void fillTable(NameTable *t, const UserList *list) {
  size_t n = static_cast<size_t>(list->count);
  std::vector<uint32_t> hashes(n);
  for (size_t i = 0; i < n; i++)
    hashes[i] = list->entries[i].name ? nameHash(list->entries[i].name) : 0;
  growSlots(t, n);
  t->rows.reserve(n);
  constexpr size_t kAhead = 8;
  size_t mask = t->slots.size() - 1;
  for (size_t i = 0; i < n; i++) {
    if (i + kAhead < n) __builtin_prefetch(&t->slots[hashes[i + kAhead] & mask]);
    const UserEntry &e = list->entries[i];
    if (e.name) addRow(t, e, e.name, hashes[i]);
  }
  addFileOnlyNames(t, list);
}

// True when some index of the old table names another calendar (or none) in the new.
bool indexesMoved(const NameTable &old, const NameTable &fresh) {
  if (fresh.rows.size() < old.rows.size()) return true;
  for (size_t i = 0; i < old.rows.size(); i++)
    if (strcmp(old.rows[i].name, fresh.rows[i].name) != 0) return true;
  return false;
}

}  // namespace

void registerFileOnlyNames(DbHandle *ctx, const UserList *list) {
  NameTable *t = tableOf(ctx, true);
  if (t && list) addFileOnlyNames(t, list);
}

// The table follows the list's order (a server's sets are indexes into its list), so
// a new list can move names to other indexes. Sets held by cached record files are
// indexes too: before the move they are written out under the old names and the
// caches dropped, else the next write would put each member under another name.
void rebuildNameTable(DbHandle *ctx, const UserList *list) {
  NameTable *t = tableOf(ctx, true);
  if (!t) return;
  NameTable fresh;
  if (list) fillTable(&fresh, list);
  if (indexesMoved(*t, fresh)) writeAndDropEveryCache();
  *t = std::move(fresh);
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
  return r->mail[0] ? r->mail : r->login;
}

const char *userDisplayName(int index) {
  const NameRow *r = rowOf(nullptr, index);
  if (!r) return "(null)";  // printf's rendering of the missing name, kept
  return r->display[0] ? r->display : r->name;
}

}  // namespace quorvel
