// lighttpd_test.cpp -- webquorvel run the way it is deployed: a real lighttpd on a free
// loopback port runs it through mod_cgi from ROOT/cgi-bin/ (laid out by
// scripts/webroot.sh), beside ROOT/htdocs/ with tmp/, against the sample web agent on
// 127.0.0.1. Requests go over HTTP through curl.
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

namespace quorvel::gateway {
namespace {

const char PAGE[] = "Content-type: text/html\n\n<html><body>Week 47</body></html>\n";

using namespace test;
using webagent::AgentMode;

// One HTTP request through curl: the status line, the headers and the body as received.
// With a body it is a POST of that body.
std::string http(int port, const std::string &target, const char *body = nullptr) {
  std::string cmd = "curl -s -i --max-time 20 'http://127.0.0.1:" + std::to_string(port) +
                    target + "'";
  if (body) setenv("QV_BODY", body, 1), cmd += " --data-binary \"$QV_BODY\"";
  FILE *pipe = popen(cmd.c_str(), "r");
  std::string raw;
  char chunk[8192];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) raw.append(chunk, n);
  pclose(pipe);
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
    pid_t pid = atoi(readFile(root + "/log/lighttpd.pid").c_str());
    if (pid > 0) kill(pid, SIGTERM);
  }

  // Lays out the root for a free port and starts lighttpd, which is listening once it
  // has gone into the background. A port taken meanwhile makes it fail; another is tried.
  bool startServer() {
    for (int attempt = 0; attempt < 5; attempt++) {
      httpPort = freeLoopbackPort();
      std::string cmd = "bash '" QV_SOURCE_DIR "/scripts/webroot.sh' '" + root + "' '" QV_WEBQUORVEL
                        "' " + std::to_string(httpPort);
      if (std::system(cmd.c_str()) != 0) return false;
      cmd = "lighttpd -f '" + root + "/lighttpd.conf' >>'" + root + "/log/lighttpd.out' 2>&1";
      if (std::system(cmd.c_str()) == 0) return true;
    }
    return false;
  }

  std::string get(const std::string &query) {
    return http(httpPort, "/cgi-bin/webquorvel?" + query);
  }
};

TEST_F(GatewayUnderLighttpd, DeliversThePageAndServesTheFilesItPlaced) {
  writeFile(root + "/htdocs/tmp/stale.html", "old request\n");
  std::string query = hostField("dn") + "&lan=En_US&log=x";
  std::string reply = get(query);
  EXPECT_EQ(reply.rfind("HTTP/1.1 200", 0), 0u) << reply;
  EXPECT_NE(reply.find("Content-type: text/html"), std::string::npos) << reply;
  EXPECT_EQ(bodyOf(reply), "<html><body>Week 47</body></html>\n");
  // The CGI ran in cgi-bin/: its ../htdocs/ is the server's document root.
  EXPECT_EQ(bodyOf(http(httpPort, "/tmp/week.html")), "<p>week</p>\n");
  EXPECT_EQ(readFile(root + "/htdocs/day.txt"), "Monday\n");
  EXPECT_FALSE(exists(root + "/htdocs/tmp/stale.html"));
  // A POST without a query in the URL: the body's line is the query, its line end cut.
  EXPECT_EQ(bodyOf(http(httpPort, "/cgi-bin/webquorvel", (hostField("dn") + "\n").c_str())),
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
