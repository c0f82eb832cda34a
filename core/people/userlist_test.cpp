// Tests of user lists and the users-file field splitter.
#include "core/people/people_test_util.h"
using namespace quorvel;
using Fields = std::vector<std::string>;

static Fields fieldsOf(std::string line) {  // every field nextUserField yields, in order
  Fields out;
  for (char *rest = line.data(), *f; (f = nextUserField(&rest));) out.push_back(f);
  return out;
}

TEST(NextUserField, SplitsAtCommasOutsideQuotesAndNeedsACommaOrNewlineBehind) {
  const struct { const char *line; Fields want; } rows[] = {
      {"\"Smith, J\",js\n", {" Smith, J ", "js"}},  // quotes around a comma: blanks
      {"a\"b,c\n", {"a\"b", "c"}},                  // no closing quote
      {"\"a\" b,c\n", {"\"a\" b", "c"}},            // both quotes before the comma
      {"x,\"y\"\n", {"x", "\"y\""}},                // both quotes after the comma
      {"\"a,b\" \"c,d\",e\n", {" a,b   c,d ", "e"}},
      {"name,login", {"name"}},  // no newline behind the last field: it is lost
      {",,\n", {"", "", ""}},
  };
  for (const auto &r : rows) EXPECT_EQ(fieldsOf(r.line), r.want) << r.line;
}

TEST(UserList, GrowsBy64ZeroedSlotsCopiesDeeplyAndComparesTheFourTextsOnly) {
  UserList *l = newUserList();
  for (int i = 0; i < 65; i++)
    EXPECT_EQ(addUserEntry(l, ("u" + std::to_string(i)).c_str(), "l", "", "", i % 2), i);
  EXPECT_TRUE(l->count == 65 && l->capacity == 128 && l->entries[64].id == -1);
  EXPECT_TRUE(l->entries[65].name == nullptr && l->entries[127].id == -1);  // fresh slots
  l->entries[3].id = 9;
  UserList *c = copyUserList(l);
  EXPECT_STREQ(c->entries[64].name, "u64");  // a copy: both lists are freed below
  EXPECT_TRUE(c->entries[3].id == 9 && c->entries[63].plusFlag == 1);
  EXPECT_EQ(userListsEqual(l, c), 1);
  freeUserList(c), freeUserList(l);
  EXPECT_EQ(copyUserList(nullptr), nullptr);
  // Equal lists: the same count of entries with the same four texts.
  UserList *a = newUserList(), *b = newUserList();
  EXPECT_TRUE(userListsEqual(nullptr, nullptr) == 1 && userListsEqual(a, b) == 1);
  EXPECT_EQ(userListsEqual(a, nullptr) + userListsEqual(nullptr, b), 0);
  addUserEntry(a, "x", "x", "x", "x", 0);
  EXPECT_EQ(userListsEqual(a, b), 0);  // counts differ
  addUserEntry(b, "x", "x", "x", "x", 1);
  UserEntry &e = b->entries[0];
  e.id = 7;
  EXPECT_EQ(userListsEqual(a, b), 1);  // plusFlag and id take no part
  for (char **field : {&e.name, &e.login, &e.mailAddress, &e.displayName}) {
    char *keep = std::exchange(*field, const_cast<char *>("X"));
    EXPECT_EQ(userListsEqual(a, b), 0);
    *field = nullptr;  // an absent field counts as equal
    EXPECT_EQ(userListsEqual(a, b), 1);
    *field = keep;
  }
  freeUserList(a), freeUserList(b);
}
