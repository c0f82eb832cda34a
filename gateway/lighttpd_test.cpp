// lighttpd_test.cpp -- webquorvel run the way it is deployed: a real lighttpd on a free
// loopback port runs it through mod_cgi from ROOT/cgi-bin/ (laid out by
// scripts/webroot.sh), beside ROOT/htdocs/ with tmp/, against the sample web agent on
// 127.0.0.1. Requests go over HTTP through a small socket client.
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <thread>

namespace quorvel::gateway {
namespace {

const char PAGE[] = "Content-type: text/html\n\n<html><body>Week 47</body></html>\n";

using namespace test;
using webagent::AgentMode;

int connectLoopback(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

// One HTTP/1.0 request; returns the whole raw reply (the server closes after it).
std::string http(int port, const std::string &method, const std::string &target,
                 const std::string &body = "") {
  int fd = connectLoopback(port);
  if (fd < 0) return "";
  std::string req = method + " " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n";
  if (method == "POST") req += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  req += "\r\n" + body;
  std::string raw;
  if (write(fd, req.data(), req.size()) == static_cast<ssize_t>(req.size())) {
    char chunk[8192];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) raw.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  return raw;
}

// The body of an HTTP reply, or of a CGI's output (whose header the server takes over).
std::string bodyOf(const std::string &raw, const char *blankLine = "\r\n\r\n") {
  size_t end = raw.find(blankLine);
  return end == std::string::npos ? "<no reply>" : raw.substr(end + strlen(blankLine));
}

// A temporary web root served by lighttpd, and a sample agent beside it.
struct GatewayUnderLighttpd : AgentFixture {
  std::string root;
  int httpPort = -1;
  pid_t server = -1;

  void SetUp() override {
    if (std::system("command -v lighttpd >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "lighttpd is not installed";
    char pattern[] = "/tmp/qv-web-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root = pattern;
    ASSERT_TRUE(startServer()) << readFile(root + "/log/error.log");
    start({scripted(AgentMode::Pairs, {{"tmp/week.html", "<p>week</p>\n"},
                                       {"day.txt", "Monday\n"}, {"", PAGE}})});
  }
  void TearDown() override {
    stopServer();
    AgentFixture::TearDown();
    if (!root.empty() && std::system(("rm -rf '" + root + "'").c_str()) != 0) perror("rm");
  }
  void stopServer() {
    if (server > 0) kill(server, SIGTERM), waitpid(server, nullptr, 0);
    server = -1;
  }

  // Lays out the root for a free port and starts lighttpd; a port taken meanwhile by
  // someone else makes the server exit, and another port is tried.
  bool startServer() {
    for (int attempt = 0; attempt < 5; attempt++) {
      httpPort = freeLoopbackPort();
      std::string cmd = "bash '" QV_SOURCE_DIR "/scripts/webroot.sh' '" + root + "' '" QV_WEBQUORVEL
                        "' " + std::to_string(httpPort);
      if (std::system(cmd.c_str()) != 0) return false;
      std::string conf = root + "/lighttpd.conf", out = root + "/log/lighttpd.out";
      if ((server = fork()) == 0) {
        if (!freopen(out.c_str(), "a", stdout) || !freopen(out.c_str(), "a", stderr)) _exit(126);
        close_range(3, ~0U, 0);  // the test's sockets must not outlive it in the server
        execlp("lighttpd", "lighttpd", "-D", "-f", conf.c_str(), static_cast<char *>(nullptr));
        _exit(127);
      }
      for (int i = 0; i < 250 && waitpid(server, nullptr, WNOHANG) == 0; i++) {
        int fd = connectLoopback(httpPort);
        if (fd >= 0) return close(fd), true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      stopServer();
    }
    return false;
  }

  std::string get(const std::string &query) {
    return http(httpPort, "GET", "/cgi-bin/webquorvel?" + query);
  }
};

TEST_F(GatewayUnderLighttpd, DeliversThePageAndServesTheFilesItPlaced) {
  writeFile(root + "/htdocs/tmp/stale.html", "old request\n");
  std::string query = hostField("dn") + "&lan=En_US&log=x";
  std::string reply = get(query);
  EXPECT_EQ(reply.rfind("HTTP/1.0 200", 0), 0u) << reply;
  EXPECT_NE(reply.find("Content-type: text/html"), std::string::npos) << reply;
  EXPECT_EQ(bodyOf(reply), "<html><body>Week 47</body></html>\n");
  // The CGI ran in cgi-bin/: its ../htdocs/ is the server's document root.
  EXPECT_EQ(bodyOf(http(httpPort, "GET", "/tmp/week.html")), "<p>week</p>\n");
  EXPECT_EQ(readFile(root + "/htdocs/day.txt"), "Monday\n");
  EXPECT_FALSE(exists(root + "/htdocs/tmp/stale.html"));
  // A POST without a query in the URL: the body's line is the query, its line end cut.
  EXPECT_EQ(bodyOf(http(httpPort, "POST", "/cgi-bin/webquorvel", hostField("dn") + "\n")),
            "<html><body>Week 47</body></html>\n");
  EXPECT_EQ(webagent::agentRequests(&agent), (std::vector<std::string>{query, hostField("dn")}));
}

TEST_F(GatewayUnderLighttpd, ShowsTheErrorPageInEnglishOrGerman) {
  std::string nobody = "dn=127.0.0.1:" + std::to_string(freeLoopbackPort() - 3726);
  EXPECT_EQ(bodyOf(get(nobody + "&lan=En_US")),
            bodyOf(errorPageText(ENGLISH_HEADING,
                                 "Cannot connect to Quorvel web agent on host 127.0.0.1"),
                   "\n\n"));
  EXPECT_EQ(bodyOf(get(nobody + "&lan=De&rpt=/img&log=http://cal/login")),
            bodyOf(errorPageText(GERMAN_HEADING,
                                 "Verbindung mit Quorvel-Webagent auf Host 127.0.0.1 nicht "
                                 "m\xF6glich", "/img", "http://cal/login"),
                   "\n\n"));
  EXPECT_TRUE(webagent::agentRequests(&agent).empty());
}

}  // namespace
}  // namespace quorvel::gateway
