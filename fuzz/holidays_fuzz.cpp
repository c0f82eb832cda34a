// holidays_fuzz.cpp -- feeds arbitrary bytes to the holiday text parser, writes the list
// back and parses that again: the written text must read back to the same list and
// write out byte for byte the same; copies, sorting and comparisons run on the way.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/base/base.h"
#include "core/date/holiday.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool zoned = (setenv("TZ", "Europe/Berlin", 1), tzset(), true);
  (void)zoned;
  if (size > 8192) return 0;  // a few hundred lines show every path; keep runs fast
  std::string text(reinterpret_cast<const char *>(data), size);
  int n = 0;
  Holiday **list = ParseHolidays(text.c_str(), &n);
  char *once = FormatHolidays(list, n);
  int m = 0;
  Holiday **again = ParseHolidays(once, &m);
  char *twice = FormatHolidays(again, m);
  // Names never start with a blank or hold a "*" or a line end once parsed, so the
  // written form is a fixed point.
  if (strcmp(once, twice) != 0) abort();
  Holiday **copy = CopyHolidays(again, m);
  if (CompareHolidays(copy, m, again, m) != 0) abort();
  SortHolidays(copy, m);
  for (int i = 1; i < m; i++)
    if (copy[i - 1]->period.start.time > copy[i]->period.start.time) abort();
  int left = m;
  while (left > 0 && RemoveHoliday(&copy, &left, left / 2) == 0) {}
  if (copy != nullptr || left != 0) abort();
  FreeHolidays(list, n);
  FreeHolidays(again, m);
  freeMem(once);
  freeMem(twice);
  return 0;
}
