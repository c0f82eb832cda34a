// test_support.h -- helpers shared by the gateway's tests: a recording pause hook, a
// temporary CGI tree (cgi-bin/ beside htdocs/tmp/), standard-output capture, files, a
// free loopback port, a scripted sample agent, and the error page as the gateway prints
// it. Test code only.
#pragma once

#include "core/base/base.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quorvel::gateway::test {

// Installs a pause hook that counts the pauses and the seconds asked for, for the life
// of the object.
struct PauseRecorder {
  static inline size_t pauses;
  static inline unsigned seconds;
  PauseHook old = setPauseHook([](unsigned s) { pauses++, seconds += s; });
  PauseRecorder() { pauses = seconds = 0; }
  ~PauseRecorder() { setPauseHook(old); }
  size_t count() const { return pauses; }
  unsigned total() const { return seconds; }
};

inline std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}

inline void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// A loopback port nobody listens on: bound once to learn a free one, then let go.
inline int freeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
  getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
  close(fd);
  return ntohs(sa.sin_port);
}

// A sample agent on loopback answering each connection by the next queued script (the
// last one repeats); stopped with the test.
struct AgentFixture : ::testing::Test {
  webagent::SampleAgent agent;
  void start(std::vector<webagent::AgentScript> scripts = {webagent::AgentScript{}}) {
    for (const webagent::AgentScript &s : scripts) webagent::agentPush(&agent, s);
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override { webagent::agentStop(&agent); }
  int offset() const { return webagent::agentOffset(&agent); }
  std::string hostField(const char *key = "hn") const {
    return std::string(key) + "=127.0.0.1:" + std::to_string(offset());
  }
};

inline webagent::AgentScript scripted(webagent::AgentMode mode,
                                      std::vector<webagent::AgentPair> pairs = {}) {
  webagent::AgentScript script;
  script.mode = mode;
  script.pairs = std::move(pairs);
  return script;
}

// A temporary root holding cgi-bin/ and htdocs/tmp/. With enter = true the working
// directory is cgi-bin/ until the tree goes away, so "../htdocs/" is the tree's.
struct CgiTree {
  std::string root, oldCwd;
  explicit CgiTree(bool enter = true) {
    char pattern[] = "/tmp/qvgw-XXXXXX";
    EXPECT_NE(mkdtemp(pattern), nullptr);
    root = pattern;
    for (const char *dir : {"/cgi-bin", "/htdocs", "/htdocs/tmp"})
      mkdir((root + dir).c_str(), 0755);
    if (enter) {
      char cwd[4096];
      oldCwd = getcwd(cwd, sizeof cwd) ? cwd : "/";
      EXPECT_EQ(chdir((root + "/cgi-bin").c_str()), 0);
    }
  }
  ~CgiTree() {
    if (!oldCwd.empty() && chdir(oldCwd.c_str()) != 0) perror("chdir");
    if (system(("rm -rf '" + root + "'").c_str()) != 0) perror("rm");
  }
  std::string htdocs(const std::string &name) const { return root + "/htdocs/" + name; }
  std::string cgiBin() const { return root + "/cgi-bin"; }
};

// Everything written to file descriptor 1 while f runs.
template <typename F> std::string stdoutOf(F f) {
  fflush(stdout);
  ::testing::internal::CaptureStdout();
  f();
  return ::testing::internal::GetCapturedStdout();
}

// The whole error page: heading and message as shown, the icon root ("/icons" when the
// query gave none) and, when both are given, the login button.
inline std::string errorPageText(const std::string &heading, const std::string &message,
                                 const std::string &icons = "/icons",
                                 const std::string &login = "") {
  std::string page = "Content-type: text/html\n\n\n<html>\n<head>\n<title>Web Quorvel</title>\n"
                     "</head>\n<body background=\"" + icons + "/bg4.gif\">\n" +
                     "<br><br><br><br><br><br><br><br><center><table border=1 bgcolor=white>"
                     "<tr><td><h3>" + heading + "</h3>\n<h4>" + message + "</h4>\n";
  if (!login.empty())
    page += "<center>\n<a href=\"" + login + "\">\n<IMG src=\"" + icons +
            "/blogin.gif\" border=0></a>\n</center>\n";
  return page + "</td></tr></table></center>\n</body>\n</html>\n";
}

inline const char ENGLISH_HEADING[] = "An error occurred processing your request:";
inline const char GERMAN_HEADING[] = "Fehler bei der Verarbeitung Ihrer Anforderung:";

}  // namespace quorvel::gateway::test
