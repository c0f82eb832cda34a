// namelookup.cpp -- the one installed calendar-name lookup and the calls through it.
#include "core/net/namelookup.h"

namespace quorvel {

namespace {
// Installed by the users file for the current database context (or by a test); read by
// the calendar-set encodings.
const NameLookup *installed = nullptr;
}  // namespace

const NameLookup *setNameLookup(const NameLookup *lookup) {
  const NameLookup *previous = installed;
  installed = lookup;
  return previous;
}

const NameLookup *nameLookup() { return installed; }
void resetNameLookup() { installed = nullptr; }

int calendarCount() {
  if (installed == nullptr || installed->count == nullptr) return 0;
  int n = installed->count(installed->ctx);
  return n > 0 ? n : 0;
}

const char *calendarName(int index) {
  if (installed == nullptr || installed->nameOf == nullptr) return nullptr;
  if (index < 0 || index >= calendarCount()) return nullptr;
  return installed->nameOf(installed->ctx, index);
}

int calendarIndex(const char *name) {
  if (installed == nullptr || installed->indexOf == nullptr || name == nullptr) return -1;
  return installed->indexOf(installed->ctx, name);
}

}  // namespace quorvel
