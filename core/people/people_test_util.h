// people_test_util.h -- a fresh process state for the users-file tests: a temporary
// installation root (QUORVELPATH) holding "db/", the default database as the main and
// current context, no name lookup, no catalogue, and a pause that returns at once.
#pragma once

#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/db/context.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/users.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace quorvel {

class PeopleTest : public ::testing::Test {
 protected:
  std::string root;                // the temporary installation root
  DbHandle *main = nullptr;        // the default database, main and current
  std::vector<DbHandle *> others;  // further contexts made by a test
  int changed = -1;                // the change flag handed to the reads

  static void noPause(unsigned) {}

  void SetUp() override {
    char tmpl[] = "/tmp/qvpeopleXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    mkdir((root + "/db").c_str(), 0755);
    mkdir((root + "/db/remoteUsers").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    unsetenv("NOQUORVELCATGETS");
    resetState();
    setPauseHook(noPause);
    main = openDefaultDb();
    ASSERT_EQ(mainDb(), main);
  }

  void TearDown() override {
    releaseUsers(main);
    for (DbHandle *db : others) releaseUsers(db);
    resetState();
    EXPECT_EQ(system(("rm -rf '" + root + "'").c_str()), 0);
    unsetenv("QUORVELPATH");
  }

  static void resetState() {
    resetDbContexts();
    resetIdentity();
    resetUsers();
    resetNameLookup();
    resetCatalog();
    resetBase();
  }

  DbHandle *makeContext(const char *node, uint8_t kind) {
    DbHandle *db = newDbHandle("db/database", node, kind);
    db->remoteNode = node;
    others.push_back(db);
    return db;
  }

  // Writes a file under the root with the modification time `mtime`, so that a test
  // decides whether the file counts as newer.
  void writeAt(const std::string &rel, const std::string &text, time_t mtime) {
    std::string path = root + "/" + rel;
    FILE *f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(text.c_str(), f);
    fclose(f);
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(path.c_str(), tv), 0);
  }
  // A file's text, or "-" when it is missing; put writes one.
  static std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return access(path.c_str(), F_OK) == 0 ? ss.str() : "-";
  }
  static void put(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
  }
  static mode_t modeOf(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
  }
  // The held calendars as "own viewed third", each index:name ("-" without a name).
  static std::string held() {
    auto one = [](int i, const char *n) { return std::to_string(i) + ":" + (n ? n : "-"); };
    return one(ownCalendar(), ownCalendarName()) + " " +
           one(viewedCalendar(), viewedCalendarName()) + " " +
           one(thirdCalendar(), thirdCalendarName());
  }
  // Writes "db/users" and reads it into the main context; returns the read's result.
  int readMain(const std::string &text, time_t mtime) {
    writeAt("db/users", text, mtime);
    return readUsersFile(main, &changed);
  }
};

}  // namespace quorvel
