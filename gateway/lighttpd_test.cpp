// lighttpd_test.cpp -- webquorvel as deployed: a real lighttpd runs it through mod_cgi
// (root laid out by scripts/webroot.sh) against the sample agent; requests through curl.
#include "gateway/test_support.h"
#include <csignal>

namespace quorvel::gateway {
const char BODY[] = "<html><body>Week 47</body></html>\n";
// A temporary web root served by lighttpd, and a sample agent beside it.
struct GatewayUnderLighttpd : AgentFixture {
  CgiTree tree;
  std::string root = tree.root;
  int httpPort = -1;
  // Starts lighttpd on a free port (listening once in the background); retries a taken one.
  void SetUp() override {
    bool up = false;
    for (int attempt = 0; attempt < 5 && !up; attempt++) {
      httpPort = freeLoopbackPort();
      ASSERT_EQ(std::system(("bash '" QV_SOURCE_DIR "/scripts/webroot.sh' '" + root +
                             "' '" QV_WEBQUORVEL "' " + std::to_string(httpPort)).c_str()), 0);
      up = std::system(("lighttpd -f '" + root + "/lighttpd.conf' >>'" + root +
                        "/log/lighttpd.out' 2>&1").c_str()) == 0;
    }
    ASSERT_TRUE(up) << readFile(root + "/log/error.log");
    std::string page = std::string("Content-type: text/html\n\n") + BODY;
    start({{webagent::AgentMode::Pairs,
            {{"tmp/week.html", "<p>week</p>\n"}, {"day.txt", "Monday\n"}, {"", page}}}});
  }
  void TearDown() override {
    pid_t pid = atoi(readFile(root + "/log/lighttpd.pid").c_str());
    if (pid > 0) kill(pid, SIGTERM);
    AgentFixture::TearDown();
  }
  // One request through curl: status line, headers and body. With a body, a POST of it.
  std::string http(const std::string &target, const char *body = nullptr) {
    if (body) setenv("QV_BODY", body, 1);
    return commandOutput("curl -s -i --max-time 20 'http://127.0.0.1:" + std::to_string(httpPort) +
                         target + "'" + (body ? " --data-binary \"$QV_BODY\"" : ""));
  }
};

TEST_F(GatewayUnderLighttpd, DeliversThePageAndServesTheFilesItPlaced) {
  std::string query = hostField("dn") + "&lan=En_US&log=x";
  std::string reply = http("/cgi-bin/webquorvel?" + query), body = std::string("\r\n\r\n") + BODY;
  EXPECT_EQ(reply.rfind("HTTP/1.1 200", 0), 0u) << reply;
  EXPECT_NE(reply.find("Content-type: text/html\r\n"), std::string::npos) << reply;
  EXPECT_TRUE(reply.ends_with(body)) << reply;
  // The CGI ran in cgi-bin/: its ../htdocs/ is the server's document root.
  EXPECT_TRUE(http("/tmp/week.html").ends_with("\r\n\r\n<p>week</p>\n"));
  EXPECT_EQ(readFile(root + "/htdocs/day.txt"), "Monday\n");
  // A POST without a query in the URL: the body's line is the query, its line end cut.
  EXPECT_TRUE(http("/cgi-bin/webquorvel", (hostField("dn") + "\n").c_str()).ends_with(body));
  EXPECT_EQ(webagent::agentRequests(&agent), (std::vector<std::string>{query, hostField("dn")}));
}
}  // namespace quorvel::gateway
