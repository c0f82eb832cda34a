// test_support.h -- helpers shared by the gateway's tests: pause hook, CGI tree, output
// capture, files, a free loopback port, a scripted sample agent, the error page.
#pragma once

#include "core/base/base.h"
#include "testing/agent.h"
#include <arpa/inet.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorvel::gateway {
// Counts the pauses and the seconds asked for, for the life of the object.
struct PauseRecorder {
  static inline unsigned pauses, seconds;
  PauseHook old = setPauseHook([](unsigned s) { pauses++, seconds += s; });
  PauseRecorder() { pauses = seconds = 0; }
  ~PauseRecorder() { setPauseHook(old); }
};
inline std::string readFile(const std::string &path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}
inline void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
inline bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }
// The standard output of a shell command; its exit status into *status when asked.
inline std::string commandOutput(const std::string &cmd, int *status = nullptr) {
  FILE *pipe = popen(cmd.c_str(), "r");
  std::string out;
  char chunk[65536];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
  int st = pclose(pipe);
  if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}
// Everything written to standard output (or error) while f runs.
template <typename F> std::string outputOf(F f, bool stderrToo = false) {
  fflush(stdout);
  stderrToo ? ::testing::internal::CaptureStderr() : ::testing::internal::CaptureStdout();
  f();
  return stderrToo ? ::testing::internal::GetCapturedStderr()
                   : ::testing::internal::GetCapturedStdout();
}

// A loopback port nobody listens on: bound once to learn a free one, then let go.
inline int freeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof sa;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&sa), len), 0);
  getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
  close(fd);
  return ntohs(sa.sin_port);
}
// A sample agent answering each connection by the next script (the last repeats).
struct AgentFixture : ::testing::Test {
  webagent::SampleAgent agent;
  void start(std::vector<webagent::AgentScript> scripts = {webagent::AgentScript()}) {
    for (const webagent::AgentScript &s : scripts) webagent::agentPush(&agent, s);
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override { webagent::agentStop(&agent); }
  int offset() const { return webagent::agentOffset(&agent); }
  std::string hostField(const char *key = "hn") const {
    return std::string(key) + "=127.0.0.1:" + std::to_string(offset());
  }
};

// A temporary root: cgi-bin/, the working directory from here on, beside htdocs/tmp/.
struct CgiTree {
  std::string root;
  CgiTree() {
    char pattern[] = "/tmp/qvgw-XXXXXX";
    EXPECT_NE(mkdtemp(pattern), nullptr);
    root = pattern;
    for (const char *d : {"/cgi-bin", "/htdocs", "/htdocs/tmp"}) mkdir((root + d).c_str(), 0755);
    EXPECT_EQ(chdir((root + "/cgi-bin").c_str()), 0);
  }
  ~CgiTree() { EXPECT_EQ(system(("rm -rf '" + root + "'").c_str()), 0); }
  std::string htdocs(const std::string &name) const { return root + "/htdocs/" + name; }
};

// The whole error page: heading, message, icon root and, when given, the login button.
inline std::string errorPageText(const std::string &heading, const std::string &message,
                                 std::string icons = "/icons", std::string login = "") {
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
}  // namespace quorvel::gateway
