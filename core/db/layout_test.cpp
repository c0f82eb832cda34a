// Tests of the installation tree: the path table and roots, path builders, the stat
// family, directories, the write probe and path normalising.
#include "core/db/layout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/db_test_util.h"

using namespace quorvel;

namespace {

class DbLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QUORVELPATH");
    resetDbTestState();
  }
  void TearDown() override { SetUp(); }
  TempDir tmp;
  char out[DB_PATH_MAX];
};

}  // namespace

TEST_F(DbLayout, PathTableHoldsItsDefaultsInOrderAndTakesNewSettings) {
  std::string all;
  for (int i = 0; i < DBP_COUNT; i++) all += std::string(dbPathSetting(i)) + ",";
  EXPECT_EQ(all,
            "db/database,db/users,db/remoteUsers,db/domains,db/database/dat.perm,"
            "db/database/alarm.def,db/database/notify.del,db/database/notify.mail,"
            "db/database/refclassdef,db/database/refclassdef,db/database/holidays,"
            "db/database/userinfo,db/database/attributes,db/database/server/server.opts,"
            "db/database/server/server.log,db/database/server/router.opts,"
            "db/database/server/router.log,db/database/server/webquorveld.log,"
            "db/database,/db,helpinput,db/database,mailmsg,");
  EXPECT_EQ(dbPathSetting(DBP_COUNT), nullptr);
  EXPECT_EQ(setDbPathSetting(DBP_COUNT, "x"), -1);
  EXPECT_EQ(setDbPathSetting(DBP_USERS, "elsewhere/users"), 0);
  EXPECT_STREQ(dbPathSetting(DBP_USERS), "elsewhere/users");
}

TEST_F(DbLayout, BuildsAndNormalisesRootAndDatabasePathsWithinTheBuffer) {
  EXPECT_STREQ(resolveDbPath(out, "db/users"), "db/users");  // no root known
  setenv("QUORVELPATH", "/opt/qv", 1);
  resetBase();
  EXPECT_STREQ(resolveDbPath(out, "db/users"), "/opt/qv/db/users");
  EXPECT_STREQ(resolveDbPath(out, "/abs/file"), "/abs/file");
  setenv("HOME", "/home/pat", 1);
  EXPECT_STREQ(userDbRoot(out), "/home/pat/.quorvel/");
  const std::pair<char *(*)(char *, const char *), const char *> builders[] = {
      {lockDirPath, "/locks"},           {writeLockPath, "/locks/lock"},
      {stampPath, "/locks/active1"},     {serverLockPath, "/locks/server1"},
      {userNameLockPath, "/locks/usrname"}, {remoteHostLockPath, "/locks/remhost"},
      {localUserLockPath, "/locks/localusr"}, {roloLockPath, "/locks/rololock"},
      {eventsPath, "/events"}};
  for (const auto &[build, suffix] : builders)
    EXPECT_EQ(std::string(build(out, "db/database")), std::string("db/database") + suffix);
  std::string longDir(DB_PATH_MAX + 50, 'x');  // cut at the buffer's end, never past it
  EXPECT_EQ(strlen(stampPath(out, longDir.c_str())), DB_PATH_MAX - 1);
  char path[] = "c:\\db\\x:y/z";
  EXPECT_STREQ(normalisePath(path), "c//db/x/y/z");
}

TEST_F(DbLayout, StatFamilyNeverReportsAMissingFileAndEnsureDirMakesWhatIsMissing) {
  std::string full = tmp.at("full"), empty = tmp.at("empty"), gone = tmp.at("gone");
  writeFile(full, "12345");
  writeFile(empty, "");
  chmod(full.c_str(), 0400);
  struct stat st;
  ASSERT_EQ(stat(full.c_str(), &st), 0);
  long size = 99;
  EXPECT_EQ(fileModTime(full.c_str(), &size), static_cast<int32_t>(st.st_mtime));
  EXPECT_EQ(nonEmptyModTime(full.c_str()), static_cast<int32_t>(st.st_mtime));
  EXPECT_EQ(fileChangeTime(full.c_str()), static_cast<int32_t>(st.st_ctime));
  EXPECT_TRUE(size == 5 && fileSize(full.c_str()) == 5);
  EXPECT_TRUE(isOwnerReadable(full.c_str()) && !isOwnerWritable(full.c_str()));
  chmod(full.c_str(), 0200);
  EXPECT_TRUE(!isOwnerReadable(full.c_str()) && isOwnerWritable(full.c_str()));
  EXPECT_TRUE(isDir(tmp.path.c_str()) && !isDir(full.c_str()));
  EXPECT_TRUE(nonEmptyModTime(empty.c_str()) == NO_TIME && fileSize(empty.c_str()) == 0);
  EXPECT_EQ(fileModTime(gone.c_str(), &size), NO_TIME);
  EXPECT_EQ(size, 0);
  EXPECT_TRUE(fileChangeTime(gone.c_str()) == NO_TIME && nonEmptyModTime(gone.c_str()) == NO_TIME);
  EXPECT_FALSE(fileSize(gone.c_str()) || isDir(gone.c_str()) || isOwnerReadable(gone.c_str()) ||
               isOwnerWritable(gone.c_str()));
  EXPECT_EQ(reportCount(), 0);
  std::string fresh = tmp.at("fresh");
  EXPECT_EQ(ensureDir(fresh.c_str(), 0700), 0);
  EXPECT_TRUE(isDir(fresh.c_str()));
  EXPECT_EQ(ensureDir(fresh.c_str(), 0700), 0);
  EXPECT_EQ(ensureDir(tmp.at("no/such/parent").c_str(), 0700), -ENOENT);
}

TEST_F(DbLayout, WriteProbeIsRemovedAndAMissingDirectoryIsFatalNamedWithTheRoot) {
  char host[32] = "tmpqvl";
  if (gethostname(host, sizeof host) != 0) snprintf(host, sizeof host, "tmpqvl");
  host[31] = '\0';
  EXPECT_EQ(std::string(makeProbeName(out, "/x")), "/x/T" + std::to_string(getpid()) + host);
  EXPECT_EQ(observedFileTime(), NO_TIME);
  time_t before = time(nullptr);
  EXPECT_EQ(checkDbDirWritable(tmp.path.c_str()), 0);
  EXPECT_GE(observedFileTime(), static_cast<int32_t>(before));
  EXPECT_FALSE(exists(makeProbeName(out, tmp.path.c_str())));
  auto missing = [](const std::string &dir) {
    return "Database problem: directory \"" + dir + "\"\n    is missing.  Check remote "
           "mounts and/or symbolic links.\n    (access() errno=ENOENT)\n";
  };
  setenv("QUORVELPATH", tmp.path.c_str(), 1);
  resetBase();
  EXPECT_EXIT(checkDbDirWritable("db/gone"), ::testing::ExitedWithCode(1),
              ::testing::Eq(missing(tmp.path + "/db/gone")));
  EXPECT_EXIT(checkDbDirWritable(tmp.at("gone").c_str()), ::testing::ExitedWithCode(1),
              ::testing::Eq(missing(tmp.at("gone"))));
}
