// test_support.h -- helpers shared by the gateway's tests: pause hook, CGI tree, output
// capture, files, a free loopback port, a scripted sample agent, the error page, and a
// real web server with chromium screenshots.
#pragma once

#include "core/base/base.h"
#include "testing/agent.h"
#include <arpa/inet.h>
#include <fstream>
#include <regex>
#include <sstream>
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

#if defined(QV_WEBQUORVEL) && defined(QV_ARTEFACTS)
inline bool installed(const std::string &program) {
  return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}
// A real web server (scripts/webserver.sh KIND) serving webquorvel from root on a free
// loopback port; stopped when the object goes.
struct WebServer {
  std::string root;
  int port = -1;
  bool started = false;
  // Tries a few free ports; the script's output goes to log.
  bool start(const std::string &kind, const std::string &siteRoot, const std::string &log) {
    root = siteRoot;
    for (int attempt = 0; attempt < 5 && !started; attempt++) {
      port = freeLoopbackPort();
      started = std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' start " + kind +
                             " '" + root + "' '" QV_WEBQUORVEL "' " + std::to_string(port) +
                             " >>'" + log + "' 2>&1").c_str()) == 0;
    }
    return started;
  }
  ~WebServer() {
    if (started)
      (void)std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' stop '" + root + "'")
                            .c_str());
  }
  std::string url(const std::string &target) const {
    return "http://127.0.0.1:" + std::to_string(port) + target;
  }
  // The body, a line end, then the status code of one GET.
  std::string get(const std::string &target) const {
    return commandOutput("curl -s --max-time 20 -w '\\n%{http_code}' '" + url(target) + "'");
  }
  // The access log's lines with a status of 400 or more (but for the /favicon.ico the
  // browser asks for on its own), after a pause: servers log behind the response.
  std::string failedRequests() const {
    usleep(200000);
    std::string failed, line;
    std::istringstream log(readFile(root + "/log/access.log"));
    while (std::getline(log, line))
      if (std::regex_search(line, std::regex("\" [45][0-9][0-9] ")) &&
          line.find("/favicon.ico") == std::string::npos)
        failed += line + "\n";
    return failed;
  }
  // A headless chromium shot of target into artefacts/NAME.png, which must be a PNG;
  // false without chromium.
  bool screenshot(const std::string &target, const std::string &name,
                  const char *size = "800,600") const {
    if (!installed("chromium")) return false;
    std::string shot = QV_ARTEFACTS "/" + name + ".png";
    (void)std::system("mkdir -p '" QV_ARTEFACTS "'");
    unlink(shot.c_str());
    int status = -1;
    commandOutput("timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic "
                  "--no-first-run --disable-background-networking --disable-component-update "
                  "--disable-sync --user-data-dir='" + root + "-chromium-" + name +
                  "' --window-size=" + size + " --screenshot='" + shot + "' '" + url(target) +
                  "' 2>/dev/null", &status);
    EXPECT_EQ(status, 0) << name;
    EXPECT_TRUE(readFile(shot).starts_with("\x89PNG")) << shot;
    return true;
  }
};
#endif
}  // namespace quorvel::gateway
