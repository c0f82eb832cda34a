// notice_test_util.h -- a fresh process state for the notice tests: a temporary
// installation root (QUORVELPATH) holding "db/database", the default database as the main
// and current context, default notice settings, UTC clock texts, and file helpers.
#pragma once

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/notice/notice.h"
#include "core/people/users.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace quorvel {

class NoticeTest : public ::testing::Test {
 protected:
  std::string root;          // the temporary installation root
  DbHandle *main = nullptr;  // the default database, main and current

  void SetUp() override {
    char tmpl[] = "/tmp/qvnoticeXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    mkdir((root + "/db").c_str(), 0755);
    mkdir((root + "/db/database").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    setenv("TZ", "UTC", 1);
    tzset();
    resetState();
    setPauseHook([](unsigned) {});
    main = openDefaultDb();
  }
  void TearDown() override {
    releaseUsers(main);
    resetState();
    EXPECT_EQ(system(("rm -rf '" + root + "'").c_str()), 0);
    unsetenv("QUORVELPATH");
  }
  static void resetState() {
    resetDbContexts();
    resetUsers();
    resetNotice();
    resetBase();
  }
  void writeFile(const std::string &rel, const std::string &text) {
    std::ofstream(root + "/" + rel, std::ios::binary) << text;
  }
  static std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // Names in dir starting with prefix (for scratch files left in /tmp).
  static std::vector<std::string> filesIn(const std::string &dir, const std::string &prefix) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
      while (dirent *e = readdir(d))
        if (std::string(e->d_name).rfind(prefix, 0) == 0) names.push_back(e->d_name);
      closedir(d);
    }
    return names;
  }
};

}  // namespace quorvel
