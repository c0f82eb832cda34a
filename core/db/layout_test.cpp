// Tests of the installation tree: path table, roots and builders, stat family, probe.
#include "core/db/layout.h"

#include <unistd.h>

#include <cstring>

#include "core/db/db_test_util.h"

using namespace quorvel;

namespace {
struct DbLayout : ::testing::Test {
  void SetUp() override { unsetenv("QUORVELPATH"), resetDbTestState(); }
  void TearDown() override { SetUp(); }
  TempDir tmp;
  char out[DB_PATH_MAX];
};
}  // namespace

TEST_F(DbLayout, PathTableHoldsItsDefaultsInOrderAndTakesNewSettings) {
  std::string all;
  for (int i = 0; i < DBP_COUNT; i++) all += std::string(dbPathSetting(i)) + ",";
  EXPECT_EQ(all, "db/database,db/users,db/remoteUsers,db/domains,db/database/dat.perm,"
                 "db/database/alarm.def,db/database/notify.del,db/database/notify.mail,"
                 "db/database/refclassdef,db/database/refclassdef,db/database/holidays,"
                 "db/database/userinfo,db/database/attributes,db/database/server/server.opts,"
                 "db/database/server/server.log,db/database/server/router.opts,"
                 "db/database/server/router.log,db/database/server/webquorveld.log,db/database,"
                 "/db,helpinput,db/database,mailmsg,");
  EXPECT_TRUE(dbPathSetting(DBP_COUNT) == nullptr && setDbPathSetting(DBP_COUNT, "x") == -1);
  EXPECT_TRUE(setDbPathSetting(DBP_USERS, "elsewhere/users") == 0);
  EXPECT_STREQ(dbPathSetting(DBP_USERS), "elsewhere/users");
}

TEST_F(DbLayout, BuildsAndNormalisesRootAndDatabasePathsWithinTheBuffer) {
  std::string all = resolveDbPath(out, "db/users") + std::string(",");  // no root known
  setenv("QUORVELPATH", "/opt/qv", 1), setenv("HOME", "/home/pat", 1), resetBase();
  for (const char *p : {"db/users", "/abs/file"}) all += resolveDbPath(out, p) + std::string(",");
  all += userDbRoot(out) + std::string(",");
  for (auto build : {lockDirPath, writeLockPath, stampPath, serverLockPath, userNameLockPath,
                     remoteHostLockPath, localUserLockPath, roloLockPath, eventsPath})
    all += std::string(build(out, "d")) + ",";
  EXPECT_EQ(all, "db/users,/opt/qv/db/users,/abs/file,/home/pat/.quorvel/,d/locks,d/locks/lock,"
                 "d/locks/active1,d/locks/server1,d/locks/usrname,d/locks/remhost,"
                 "d/locks/localusr,d/locks/rololock,d/events,");
  EXPECT_EQ(strlen(stampPath(out, std::string(DB_PATH_MAX + 50, 'x').c_str())), DB_PATH_MAX - 1);
  char path[] = "c:\\db\\x:y/z";
  EXPECT_STREQ(normalisePath(path), "c//db/x/y/z");
}

TEST_F(DbLayout, StatFamilyNeverReportsAMissingFileAndEnsureDirMakesWhatIsMissing) {
  std::string full = tmp.at("full"), empty = tmp.at("empty"), fresh = tmp.at("fresh");
  const char *f = full.c_str(), *e = empty.c_str(), *gone = "/nonexistent/gone";
  writeFile(full, "12345"), writeFile(empty, ""), chmod(f, 0400), chmod(e, 0200);
  struct stat st;
  ASSERT_EQ(stat(f, &st), 0);
  long size = 99;
  EXPECT_TRUE(fileModTime(f, &size) == st.st_mtime && nonEmptyModTime(f) == st.st_mtime);
  EXPECT_TRUE(fileChangeTime(f) == st.st_ctime && size == 5 && fileSize(f) == 5);
  EXPECT_TRUE(isOwnerReadable(f) && !isOwnerWritable(f) && !isOwnerReadable(e) && isOwnerWritable(e));
  EXPECT_TRUE(!isDir(f) && nonEmptyModTime(e) == NO_TIME && fileSize(e) == 0);
  EXPECT_TRUE(fileModTime(gone, &size) == NO_TIME && size == 0);
  EXPECT_TRUE(fileChangeTime(gone) == NO_TIME && nonEmptyModTime(gone) == NO_TIME);
  EXPECT_FALSE(fileSize(gone) || isDir(gone) || isOwnerReadable(gone) || isOwnerWritable(gone));
  EXPECT_EQ(reportCount(), 0);
  EXPECT_TRUE(ensureDir(fresh.c_str(), 0700) == 0 && isDir(fresh.c_str()));
  EXPECT_EQ(ensureDir(tmp.at("no/such/parent").c_str(), 0700), -ENOENT);
}

TEST_F(DbLayout, WriteProbeIsRemovedAndAMissingDirectoryIsFatalNamedWithTheRoot) {
  char host[32] = "tmpqvl";
  if (gethostname(host, sizeof host) != 0) snprintf(host, sizeof host, "tmpqvl");
  host[31] = '\0';
  EXPECT_EQ(std::string(makeProbeName(out, "/x")), "/x/T" + std::to_string(getpid()) + host);
  int32_t before = observedFileTime(), now = time(nullptr);
  EXPECT_TRUE(before == NO_TIME && checkDbDirWritable(tmp.path.c_str()) == 0);
  EXPECT_GE(observedFileTime(), now);
  EXPECT_FALSE(exists(makeProbeName(out, tmp.path.c_str())));
  setenv("QUORVELPATH", tmp.path.c_str(), 1), resetBase();
  for (std::string dir : {std::string("db/gone"), tmp.at("gone")})
    EXPECT_EXIT(checkDbDirWritable(dir.c_str()), ::testing::ExitedWithCode(1),
                ::testing::Eq("Database problem: directory \"" +
                              (dir[0] == '/' ? dir : tmp.at(dir)) + "\"\n    is missing.  Check "
                              "remote mounts and/or symbolic links.\n    (access() errno=ENOENT)\n"));
}
