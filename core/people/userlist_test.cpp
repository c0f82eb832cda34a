// Tests of user lists and the users-file field splitter.
#include "core/people/users.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quorvel;
using Fields = std::vector<std::string>;

// All fields nextUserField yields for a line, in order.
static Fields fieldsOf(const std::string &line) {
  std::vector<char> buf(line.begin(), line.end());
  buf.push_back('\0');
  char *rest = buf.data();
  Fields out;
  while (char *f = nextUserField(&rest)) out.push_back(f);
  return out;
}

TEST(NextUserField, SplitsAtCommasOutsideQuotesAndNeedsACommaOrNewlineBehind) {
  const struct { const char *line; Fields want; } rows[] = {
      {"anna,ak,anna@x.org,Anna K\n", {"anna", "ak", "anna@x.org", "Anna K"}},
      {"\"Smith, J\",js\n", {" Smith, J ", "js"}},  // quotes around a comma: blanks
      {"a\"b,c\n", {"a\"b", "c"}},                  // no closing quote
      {"\"a\" b,c\n", {"\"a\" b", "c"}},            // both quotes before the comma
      {"x,\"y\"\n", {"x", "\"y\""}},                // both quotes after the comma
      {"\"a,b\" \"c,d\",e\n", {" a,b   c,d ", "e"}},
      {"name,login", {"name"}},  // no newline behind the last field: it is lost
      {"lonely", {}},
      {",,\n", {"", "", ""}},
  };
  for (const auto &r : rows) EXPECT_EQ(fieldsOf(r.line), r.want) << r.line;
  char *none = nullptr;
  EXPECT_EQ(nextUserField(&none), nullptr);
}

TEST(UserList, GrowsBy64ZeroedSlotsAndCopiesDeeply) {
  UserList *l = newUserList();
  for (int i = 0; i < 65; i++)
    EXPECT_EQ(addUserEntry(l, ("u" + std::to_string(i)).c_str(), "l", "", "", i % 2), i);
  EXPECT_TRUE(l->count == 65 && l->capacity == 128 && l->entries[64].id == -1);
  EXPECT_TRUE(l->entries[65].name == nullptr && l->entries[127].id == -1);  // fresh slots
  l->entries[3].id = 9;
  UserList *c = copyUserList(l);
  EXPECT_EQ(c->count, 65);
  EXPECT_NE(c->entries[64].name, l->entries[64].name);  // copies, not shared
  EXPECT_STREQ(c->entries[64].name, "u64");
  EXPECT_TRUE(c->entries[3].id == 9 && c->entries[63].plusFlag == 1);
  EXPECT_EQ(userListsEqual(l, c), 1);
  freeUserList(c);
  freeUserList(l);
  EXPECT_EQ(copyUserList(nullptr), nullptr);
}

TEST(UserListsEqual, ComparesTheFourTextsEntryByEntryOnly) {
  EXPECT_EQ(userListsEqual(nullptr, nullptr), 1);
  UserList *a = newUserList(), *b = newUserList();
  EXPECT_EQ(userListsEqual(a, nullptr), 0);
  EXPECT_EQ(userListsEqual(nullptr, b), 0);
  EXPECT_EQ(userListsEqual(a, b), 1);
  addUserEntry(a, "x", "x", "x", "x", 0);
  EXPECT_EQ(userListsEqual(a, b), 0);  // counts differ
  addUserEntry(b, "x", "x", "x", "x", 1);
  b->entries[0].id = 7;
  EXPECT_EQ(userListsEqual(a, b), 1);  // plusFlag and id take no part
  for (char **field : {&b->entries[0].name, &b->entries[0].login,
                       &b->entries[0].mailAddress, &b->entries[0].displayName}) {
    char *keep = *field;
    *field = const_cast<char *>("X");
    EXPECT_EQ(userListsEqual(a, b), 0);
    *field = nullptr;  // an absent field counts as equal
    EXPECT_EQ(userListsEqual(a, b), 1);
    *field = keep;
  }
  freeUserList(a);
  freeUserList(b);
}
