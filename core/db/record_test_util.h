// record_test_util.h -- helpers for the record-file tests: a calendar-name table
// installed as the name lookup, an item that uses every field a record file keeps, and
// the generations of file contents that the crash test and its child agree on.
#pragma once

#include <string>
#include <vector>

#include "core/db/recordfile.h"
#include "core/net/namelookup.h"

namespace quorvel {

// A calendar-name table for tests; install() makes it the process's name lookup.
struct TestNames {
  std::vector<std::string> names;
  NameLookup lookup;
  explicit TestNames(std::vector<std::string> list);
  ~TestNames();  // uninstalls itself when installed
  void install();
};

CalSet makeSet(std::initializer_list<int> members);

// An event using every field a record file stores, with names from a table of at
// least four calendars ("ann", "bob", "carl", "dora", ...).
Item *makeFullItem(int32_t id);

// Crash-test contents: generation g of n items differs from g - 1 only in one digit
// of every title, so that sizes and counts stay equal and every rewrite passes the
// shrink check. setCrashGeneration retitles rf's items (made afresh unless rf holds
// exactly n) and marks rf dirty; crashGenerationText is the text the writer makes.
std::vector<std::string> crashNames();
void setCrashGeneration(RecordFile *rf, int generation, int n);
std::string crashGenerationText(int generation, int n);

}  // namespace quorvel
