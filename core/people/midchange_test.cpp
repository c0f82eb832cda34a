// A users file that grows while it is read: fclose is interposed in this binary only.
#include "core/people/people_test_util.h"
using namespace quorvel;

extern "C" int __real_fclose(FILE *f);
static std::string growOnClose;  // appended to as the next stream is closed; "" for none

extern "C" int __wrap_fclose(FILE *f) {
  int r = __real_fclose(f);
  std::string path = std::exchange(growOnClose, "");
  if (FILE *g = path.empty() ? nullptr : fopen(path.c_str(), "a"))
    fputs("late,comer\n", g), __real_fclose(g);
  return r;
}

TEST_F(PeopleTest, AFileThatGrowsDuringTheReadIsReadAgainLater) {
  readMain("a,x\n", 100);
  writeAt("db/users", "a,x\nb,y\n", 200);
  growOnClose = root + "/db/users";
  testing::internal::CaptureStderr();
  readUsersFile(main, &changed);  // the old list and the stored time stay in force
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Users file in mid-change, will re-read later\n");
  EXPECT_TRUE(changed == 0 && main->users->count == 1 && main->usersFileTime == 100);
  EXPECT_EQ(mainUsersFileSize(), 4);
  readUsersFile(main, &changed);  // the next call reads the whole file
  ASSERT_TRUE(changed == 1 && main->users->count == 3);
  EXPECT_STREQ(main->users->entries[2].name, "late");
  // Another context's file is not checked for a change of size.
  DbHandle *other = makeContext("n1", DB_KIND_NONE);
  writeAt("db/remoteUsers/n1", "r,s\n", 300);
  growOnClose = root + "/db/remoteUsers/n1";
  readUsersFile(other, &changed);
  EXPECT_TRUE(other->users && other->users->count == 1);
}
