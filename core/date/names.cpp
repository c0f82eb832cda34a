// names.cpp -- day and month names from the catalogue, one kept copy per table entry.
#include "core/date/names.h"

#include <cstring>

#include "core/base/base.h"
#include "core/catalog/catalog.h"

namespace quorvel {

namespace {

struct NameTable {
  int first;                // message number of entry 0
  int size;                 // entries in range; entry `size` answers any other index
  const char *defaults[13]; // English texts, the extra entry last
  char *kept[13];           // the copy handed out last, per entry (owned)
};

// The four tables and their kept copies: filled by the name routines below, freed by
// resetDateNames.
NameTable dayNames = {1, 7,
                      {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday",
                       "Saturday", "Whatday?"},
                      {}};
NameTable shortDayNames = {8, 7, {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "???"}, {}};
NameTable monthNames = {15, 12,
                        {"January", "February", "March", "April", "May", "June", "July",
                         "August", "September", "October", "November", "December",
                         "Whatmon?"},
                        {}};
NameTable shortMonthNames = {27, 12,
                             {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep",
                              "Oct", "Nov", "Dec", "???"},
                             {}};

char *copyText(const char *text) {
  size_t len = strlen(text) + 1;
  char *copy = static_cast<char *>(allocMem(nullptr, len));
  if (copy == nullptr) outOfMem("copyText");
  memcpy(copy, text, len);
  return copy;
}

// Fetches entry index (the extra entry for any index out of range) afresh, replacing
// the copy handed out before for that entry.
const char *fetchName(NameTable &t, int index) {
  int entry = index >= 0 && index < t.size ? index : t.size;
  const char *text = catText(DATE_NAMES_SET, entry + t.first, t.defaults[entry]);
  freeMem(t.kept[entry]);
  t.kept[entry] = copyText(text);
  return t.kept[entry];
}

void forget(NameTable &t) {
  for (char *&p : t.kept) {
    freeMem(p);
    p = nullptr;
  }
}

}  // namespace

const char *DayName(int day) { return fetchName(dayNames, day); }
const char *ShortDayName(int day) { return fetchName(shortDayNames, day); }
const char *MonthName(int month) { return fetchName(monthNames, month); }
const char *ShortMonthName(int month) { return fetchName(shortMonthNames, month); }

void resetDateNames() {
  forget(dayNames);
  forget(shortDayNames);
  forget(monthNames);
  forget(shortMonthNames);
}

}  // namespace quorvel
