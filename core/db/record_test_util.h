// record_test_util.h -- helpers for the record-file tests: a calendar-name table
// installed as the name lookup, and an item that uses every field a record file keeps.
#pragma once

#include <string>
#include <vector>

#include "core/items/item.h"
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

// Sets of the given members.
CalSet makeSet(std::initializer_list<int> members);

// An event using every field a record file stores, with names from a table of at
// least four calendars ("ann", "bob", "carl", "dora", ...).
Item *makeFullItem(int32_t id);

}  // namespace quorvel
