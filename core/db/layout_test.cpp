// Tests of the installation tree: the path table and roots, path builders, the stat
// family, the write probe and scratch names.
#include "core/db/layout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/base.h"
#include "core/db/db_test_util.h"
#include "core/db/retry.h"

using namespace quorvel;
using ::testing::Eq;
using ::testing::ExitedWithCode;

namespace {

class DbLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QUORVELPATH");
    resetDbTestState();
  }
  void TearDown() override {
    unsetenv("QUORVELPATH");
    resetDbTestState();
  }
  TempDir tmp;
};

std::string hostPart() {
  char host[32];
  if (gethostname(host, sizeof host) != 0) return "tmpqvl";
  host[31] = '\0';
  return host;
}

}  // namespace

TEST_F(DbLayout, PathTableKeepsItsOrderAndAcceptsNewSettings) {
  EXPECT_STREQ(dbPathSetting(DBP_DATABASE), "db/database");
  EXPECT_STREQ(dbPathSetting(DBP_CLASS_DEFS2), "db/database/refclassdef");
  EXPECT_STREQ(dbPathSetting(DBP_MAIL_TEMPLATE), "mailmsg");
  EXPECT_EQ(dbPathSetting(DBP_COUNT), nullptr);
  EXPECT_EQ(dbPathSetting(-1), nullptr);
  EXPECT_EQ(setDbPathSetting(DBP_USERS, "elsewhere/users"), 0);
  EXPECT_STREQ(dbPathSetting(DBP_USERS), "elsewhere/users");
  EXPECT_EQ(setDbPathSetting(DBP_COUNT, "x"), -1);
  EXPECT_EQ(setDbPathSetting(DBP_USERS, ""), -1);
  resetLayout();
  EXPECT_STREQ(dbPathSetting(DBP_USERS), "db/users");
}

TEST_F(DbLayout, ResolvesRelativePathsAgainstTheInstallationRoot) {
  char out[DB_PATH_MAX];
  EXPECT_STREQ(resolveDbPath(out, "db/users"), "db/users");  // no root known
  setenv("QUORVELPATH", "/opt/qv", 1);
  resetBase();
  EXPECT_STREQ(resolveDbPath(out, "db/users"), "/opt/qv/db/users");
  EXPECT_STREQ(resolveDbPath(out, "/abs/file"), "/abs/file");
  setenv("HOME", "/home/pat", 1);
  EXPECT_STREQ(userDbRoot(out), "/home/pat/.quorvel/");
}

TEST_F(DbLayout, BuildsEveryLockAndTreePathFromTheDatabaseDirectory) {
  char out[DB_PATH_MAX];
  EXPECT_STREQ(lockDirPath(out, "db/database"), "db/database/locks");
  EXPECT_STREQ(writeLockPath(out, "d"), "d/locks/lock");
  EXPECT_STREQ(stampPath(out, "d"), "d/locks/active1");
  EXPECT_STREQ(serverLockPath(out, "d"), "d/locks/server1");
  EXPECT_STREQ(userNameLockPath(out, "d"), "d/locks/usrname");
  EXPECT_STREQ(remoteHostLockPath(out, "d"), "d/locks/remhost");
  EXPECT_STREQ(localUserLockPath(out, "d"), "d/locks/localusr");
  EXPECT_STREQ(roloLockPath(out, "d"), "d/locks/rololock");
  EXPECT_STREQ(eventsPath(out, "/q/db/database"), "/q/db/database/events");
  // A directory longer than the buffer is cut, never written past the end.
  std::string longDir(DB_PATH_MAX + 50, 'x');
  EXPECT_EQ(strlen(stampPath(out, longDir.c_str())), DB_PATH_MAX - 1);
}

TEST_F(DbLayout, StatFamilyGivesNoTimeZeroOrFalseForAMissingFile) {
  std::string missing = tmp.at("nothing");
  long size = 99;
  EXPECT_EQ(fileModTime(missing.c_str(), &size), NO_TIME);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(fileChangeTime(missing.c_str()), NO_TIME);
  EXPECT_EQ(nonEmptyModTime(missing.c_str()), NO_TIME);
  EXPECT_EQ(fileSize(missing.c_str()), 0);
  EXPECT_FALSE(isDir(missing.c_str()));
  EXPECT_FALSE(isOwnerReadable(missing.c_str()));
  EXPECT_FALSE(isOwnerWritable(missing.c_str()));
  EXPECT_EQ(reportCount(), 0);  // stat failures are never reported
}

TEST_F(DbLayout, StatFamilyReadsTimesSizesAndModeBits) {
  std::string full = tmp.at("full"), empty = tmp.at("empty");
  writeFile(full, "12345");
  writeFile(empty, "");
  struct stat st;
  ASSERT_EQ(stat(full.c_str(), &st), 0);
  long size = 0;
  EXPECT_EQ(fileModTime(full.c_str(), &size), static_cast<int32_t>(st.st_mtime));
  EXPECT_EQ(size, 5);
  EXPECT_EQ(fileChangeTime(full.c_str()), static_cast<int32_t>(st.st_ctime));
  EXPECT_EQ(nonEmptyModTime(full.c_str()), static_cast<int32_t>(st.st_mtime));
  EXPECT_EQ(nonEmptyModTime(empty.c_str()), NO_TIME);
  EXPECT_EQ(fileSize(full.c_str()), 5);
  EXPECT_EQ(fileSize(empty.c_str()), 0);
  EXPECT_TRUE(isDir(tmp.path.c_str()));
  EXPECT_FALSE(isDir(full.c_str()));
  chmod(full.c_str(), 0400);
  EXPECT_TRUE(isOwnerReadable(full.c_str()));
  EXPECT_FALSE(isOwnerWritable(full.c_str()));
  chmod(full.c_str(), 0200);
  EXPECT_FALSE(isOwnerReadable(full.c_str()));
  EXPECT_TRUE(isOwnerWritable(full.c_str()));
  int zero = 0, one = 1;
  EXPECT_FALSE(wordIsSet(full.c_str(), &zero));
  EXPECT_TRUE(wordIsSet(full.c_str(), &one));
  EXPECT_FALSE(wordIsSet(full.c_str(), nullptr));
}

TEST_F(DbLayout, EnsureDirMakesMissingDirectoriesAndReportsTheRest) {
  std::string fresh = tmp.at("fresh");
  EXPECT_EQ(ensureDir(fresh.c_str(), 0700), 0);
  EXPECT_TRUE(isDir(fresh.c_str()));
  EXPECT_EQ(ensureDir(fresh.c_str(), 0700), 0);  // already there
  std::string deep = tmp.at("no/such/parent");
  EXPECT_EQ(ensureDir(deep.c_str(), 0700), -ENOENT);
}

TEST_F(DbLayout, ProbeNameIsDirectoryTPidAndHost) {
  char out[DB_PATH_MAX];
  std::string expect = "/x/T" + std::to_string(getpid()) + hostPart();
  EXPECT_STREQ(makeProbeName(out, "/x"), expect.c_str());
}

TEST_F(DbLayout, WritableDirectoryProbeLeavesNothingAndRecordsTheFileTime) {
  EXPECT_EQ(observedFileTime(), NO_TIME);
  time_t before = time(nullptr);
  EXPECT_EQ(checkDbDirWritable(tmp.path.c_str()), 0);
  EXPECT_GE(observedFileTime(), static_cast<int32_t>(before));
  EXPECT_LE(observedFileTime(), static_cast<int32_t>(time(nullptr)));
  char probe[DB_PATH_MAX];
  EXPECT_FALSE(exists(makeProbeName(probe, tmp.path.c_str())));
}

TEST_F(DbLayout, MissingDatabaseDirectoryIsFatalAndNamedWithTheRoot) {
  std::string expect = "Database problem: directory \"" + tmp.path +
                       "/db/gone\"\n    is missing.  Check remote mounts and/or symbolic "
                       "links.\n    (access() errno=ENOENT)\n";
  setenv("QUORVELPATH", tmp.path.c_str(), 1);
  resetBase();
  EXPECT_EXIT(checkDbDirWritable("db/gone"), ExitedWithCode(1), Eq(expect));
  // An absolute directory is named as given.
  std::string abs = tmp.at("gone");
  std::string expectAbs = "Database problem: directory \"" + abs +
                          "\"\n    is missing.  Check remote mounts and/or symbolic "
                          "links.\n    (access() errno=ENOENT)\n";
  EXPECT_EXIT(checkDbDirWritable(abs.c_str()), ExitedWithCode(1), Eq(expectAbs));
}

TEST_F(DbLayout, NormalisePathTurnsBackslashesAndColonsIntoSlashes) {
  char path[] = "c:\\db\\x:y/z";
  EXPECT_STREQ(normalisePath(path), "c//db/x/y/z");
  char plain[] = "/already/plain";
  EXPECT_STREQ(normalisePath(plain), "/already/plain");
}

TEST_F(DbLayout, ScratchFileGetsAnANameAndOwnerOnlyMode) {
  srand48(7);
  std::string tmpl = tmp.at("abcXXXXXX");
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  ASSERT_EQ(makeScratchFile(buf.data()), 0);
  std::string made = buf.data();
  EXPECT_TRUE(std::regex_match(made, std::regex(tmp.path + "/abca[0-9]{5}"))) << made;
  struct stat st;
  ASSERT_EQ(stat(made.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_size, 0);
  // Only the final name is left behind: no "T" file.
  int entries = 0;
  for (auto &e : std::filesystem::directory_iterator(tmp.path)) {
    (void)e;
    entries++;
  }
  EXPECT_EQ(entries, 1);
}

TEST_F(DbLayout, ScratchTemplateWithoutPlaceholderIsRefusedUntouched) {
  char literal[] = "/tmp/abc";
  EXPECT_EQ(makeScratchFile(literal), -1);
  EXPECT_STREQ(literal, "/tmp/abc");
  char shortOne[] = "XXXX";
  EXPECT_EQ(makeScratchFile(shortOne), -1);
  char middle[] = "/tmp/XXXXXXabc";
  EXPECT_EQ(makeScratchFile(middle), -1);
  std::string inMissingDir = tmp.at("none/abcXXXXXX");
  std::vector<char> buf(inMissingDir.begin(), inMissingDir.end());
  buf.push_back('\0');
  EXPECT_EQ(makeScratchFile(buf.data()), -ENOENT);
}
