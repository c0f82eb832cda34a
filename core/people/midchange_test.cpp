// A users file that changes size while it is read, made by appending to it as the
// reader closes it (fclose is interposed at link time in this test binary only).
#include "core/people/people_test_util.h"

extern "C" int __real_fclose(FILE *f);

namespace {
std::string growOnClose;  // path appended to when the next stream is closed; "" for none
}

extern "C" int __wrap_fclose(FILE *f) {
  int r = __real_fclose(f);
  if (!growOnClose.empty()) {
    std::string path = growOnClose;
    growOnClose.clear();
    if (FILE *g = fopen(path.c_str(), "a")) {
      fputs("late,comer\n", g);
      __real_fclose(g);
    }
  }
  return r;
}

using namespace quorvel;

TEST_F(PeopleTest, AFileThatGrowsDuringTheReadIsReadAgainLater) {
  readMain("a,x\n", 100);
  writeAt("db/users", "a,x\nb,y\n", 200);
  growOnClose = root + "/db/users";
  testing::internal::CaptureStderr();
  readUsersFile(main, &changed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Users file in mid-change, will re-read later\n");
  EXPECT_EQ(changed, 0);
  EXPECT_EQ(main->users->count, 1);     // the old list stays in force
  EXPECT_EQ(main->usersFileTime, 100);  // and the stored time is not advanced
  EXPECT_EQ(mainUsersFileSize(), 4);
  readUsersFile(main, &changed);  // the next call reads the whole file
  EXPECT_EQ(changed, 1);
  ASSERT_EQ(main->users->count, 3);
  EXPECT_STREQ(main->users->entries[2].name, "late");
  // Another context's file is not checked for a change of size.
  DbHandle *other = makeContext("n1", DB_KIND_NONE);
  writeAt("db/remoteUsers/n1", "r,s\n", 300);
  growOnClose = root + "/db/remoteUsers/n1";
  readUsersFile(other, &changed);
  ASSERT_NE(other->users, nullptr);
  EXPECT_EQ(other->users->count, 1);
}
