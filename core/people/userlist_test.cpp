// Tests of user lists and the users-file field splitter.
#include "core/people/users.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace quorvel;

// All fields nextUserField yields for a line, in order.
static std::vector<std::string> fieldsOf(const std::string &line) {
  std::vector<char> buf(line.begin(), line.end());
  buf.push_back('\0');
  char *rest = buf.data();
  std::vector<std::string> out;
  while (char *f = nextUserField(&rest)) out.push_back(f);
  return out;
}

TEST(NextUserField, SplitsAtCommasOutsideQuotesAndNeedsAFollowingCommaOrNewline) {
  EXPECT_EQ(fieldsOf("anna,ak,anna@x.org,Anna K\n"),
            (std::vector<std::string>{"anna", "ak", "anna@x.org", "Anna K"}));
  // The quotes of a quoted comma become blanks.
  EXPECT_EQ(fieldsOf("\"Smith, J\",js\n"), (std::vector<std::string>{" Smith, J ", "js"}));
  // Quotes that do not enclose the comma stay as they are.
  EXPECT_EQ(fieldsOf("a\"b,c\n"), (std::vector<std::string>{"a\"b", "c"}));
  EXPECT_EQ(fieldsOf("x,\"y\"\n"), (std::vector<std::string>{"x", "\"y\""}));
  // Two quoted commas in one field, then an unquoted one.
  EXPECT_EQ(fieldsOf("\"a,b\" \"c,d\",e\n"),
            (std::vector<std::string>{" a,b   c,d ", "e"}));
  // No newline at the end: the last field is lost.
  EXPECT_EQ(fieldsOf("name,login"), (std::vector<std::string>{"name"}));
  EXPECT_EQ(fieldsOf("lonely"), (std::vector<std::string>{}));
  EXPECT_EQ(fieldsOf(",,\n"), (std::vector<std::string>{"", "", ""}));
  char *none = nullptr;
  EXPECT_EQ(nextUserField(&none), nullptr);
}

TEST(UserList, GrowsInStepsOf64WithFreshSlotsMarkedUnused) {
  UserList *l = newUserList();
  EXPECT_EQ(l->count, 0);
  EXPECT_EQ(l->capacity, 0);
  for (int i = 0; i < 65; i++) {
    std::string n = "u" + std::to_string(i);
    EXPECT_EQ(addUserEntry(l, n.c_str(), "l", "", "", i % 2), i);
  }
  EXPECT_EQ(l->count, 65);
  EXPECT_EQ(l->capacity, 128);
  EXPECT_STREQ(l->entries[64].name, "u64");
  EXPECT_EQ(l->entries[63].plusFlag, 1);
  EXPECT_EQ(l->entries[64].id, -1);
  EXPECT_EQ(l->entries[65].name, nullptr);  // the unused slots are zeroed
  EXPECT_EQ(l->entries[127].id, -1);
  UserList *c = copyUserList(l);
  EXPECT_EQ(c->count, 65);
  EXPECT_NE(c->entries[3].name, l->entries[3].name);  // copies, not shared
  EXPECT_STREQ(c->entries[3].name, "u3");
  EXPECT_EQ(userListsEqual(l, c), 1);
  freeUserList(c);
  freeUserList(l);
  EXPECT_EQ(copyUserList(nullptr), nullptr);
  freeUserList(nullptr);
}

TEST(UserListsEqual, ComparesTheFourTextsEntryByEntryOnly) {
  EXPECT_EQ(userListsEqual(nullptr, nullptr), 1);
  UserList *a = newUserList(), *b = newUserList();
  EXPECT_EQ(userListsEqual(a, nullptr), 0);
  EXPECT_EQ(userListsEqual(nullptr, b), 0);
  EXPECT_EQ(userListsEqual(a, b), 1);  // both empty
  addUserEntry(a, "anna", "ak", "a@x", "Anna", 0);
  EXPECT_EQ(userListsEqual(a, b), 0);  // counts differ
  addUserEntry(b, "anna", "ak", "a@x", "Anna", 1);
  b->entries[0].id = 7;
  EXPECT_EQ(userListsEqual(a, b), 1);  // plusFlag and id take no part
  for (char **field : {&b->entries[0].login, &b->entries[0].mailAddress,
                       &b->entries[0].displayName, &b->entries[0].name}) {
    char *keep = *field;
    *field = const_cast<char *>("other");
    EXPECT_EQ(userListsEqual(a, b), 0);
    *field = nullptr;  // an absent field counts as equal
    EXPECT_EQ(userListsEqual(a, b), 1);
    *field = keep;
  }
  addUserEntry(a, "bob", "", "", "", 0);
  addUserEntry(b, "bob", nullptr, "", "", 0);
  EXPECT_EQ(userListsEqual(a, b), 1);
  EXPECT_EQ(b->entries[1].login, nullptr);
  freeUserList(a);
  freeUserList(b);
}
