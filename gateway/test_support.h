// test_support.h -- helpers shared by the gateway's tests: a recording pause hook, a
// temporary CGI tree (cgi-bin/ beside htdocs/tmp/), standard-output capture, and file
// reading. Test code only.
#pragma once

#include "core/base/base.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quorvel::gateway::test {

// Every pause the product asks for, in order; installed by PauseRecorder.
inline std::vector<unsigned> &pausesSeen() {
  static std::vector<unsigned> seen;
  return seen;
}

inline void recordPause(unsigned seconds) { pausesSeen().push_back(seconds); }

// Installs the recording pause hook for the life of the object.
struct PauseRecorder {
  PauseHook old;
  PauseRecorder() : old(setPauseHook(recordPause)) { pausesSeen().clear(); }
  ~PauseRecorder() { setPauseHook(old); }
  size_t count() const { return pausesSeen().size(); }
  unsigned total() const {
    unsigned sum = 0;
    for (unsigned s : pausesSeen()) sum += s;
    return sum;
  }
};

inline std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}

inline void writeFile(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// A temporary root holding cgi-bin/ and htdocs/tmp/. With enter = true the working
// directory is cgi-bin/ until the tree goes away, so "../htdocs/" is the tree's.
struct CgiTree {
  std::string root;
  std::string oldCwd;
  explicit CgiTree(bool enter = true) {
    char pattern[] = "/tmp/qvgw-XXXXXX";
    const char *made = mkdtemp(pattern);
    EXPECT_NE(made, nullptr);
    root = made ? made : "/tmp";
    mkdir((root + "/cgi-bin").c_str(), 0755);
    mkdir((root + "/htdocs").c_str(), 0755);
    mkdir((root + "/htdocs/tmp").c_str(), 0755);
    if (enter) {
      char cwd[4096];
      oldCwd = getcwd(cwd, sizeof cwd) ? cwd : "/";
      EXPECT_EQ(chdir((root + "/cgi-bin").c_str()), 0);
    }
  }
  ~CgiTree() {
    if (!oldCwd.empty() && chdir(oldCwd.c_str()) != 0) perror("chdir");
    std::string cmd = "rm -rf '" + root + "'";
    if (system(cmd.c_str()) != 0) perror("rm");
  }
  std::string htdocs(const std::string &name) const { return root + "/htdocs/" + name; }
  std::string cgiBin() const { return root + "/cgi-bin"; }
};

// Sends file descriptor 1 to a scratch file until take() returns what was written.
struct StdoutCapture {
  int saved = -1;
  FILE *scratch = nullptr;
  StdoutCapture() {
    fflush(stdout);
    scratch = tmpfile();
    saved = dup(1);
    dup2(fileno(scratch), 1);
  }
  std::string take() {
    if (saved < 0) return "";
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    saved = -1;
    std::string out;
    rewind(scratch);
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, scratch)) > 0) out.append(chunk, n);
    fclose(scratch);
    return out;
  }
  ~StdoutCapture() { take(); }
};

}  // namespace quorvel::gateway::test
