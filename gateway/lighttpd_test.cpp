// lighttpd_test.cpp -- webquorvel run the way it is deployed: a real lighttpd on a free
// loopback port runs it through mod_cgi from ROOT/cgi-bin/ (laid out by
// scripts/webroot.sh), beside ROOT/htdocs/ with tmp/, against the sample web agent on
// 127.0.0.1. Requests go over HTTP through a small socket client.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "testing/agent.h"

namespace quorvel {
namespace {

namespace fs = std::filesystem;
using webagent::AgentMode;
using webagent::AgentPair;
using webagent::AgentScript;
using webagent::SampleAgent;

/* ---- Helpers: files, ports, HTTP ------------------------------------------------ */

std::string readFile(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const fs::path &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A loopback port nothing listens on right now (the kernel's choice of a free one).
int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  close(fd);
  return ntohs(sa.sin_port);
}

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

struct HttpReply {
  int status = 0;       // from the status line; 0 when no reply came
  std::string headers;  // the header lines, status line excluded
  std::string body;
};

// One HTTP/1.0 request; the server closes the connection after the reply.
HttpReply httpRequest(int port, const std::string &method, const std::string &target,
                      const std::string &body = "") {
  HttpReply reply;
  int fd = connectLoopback(port);
  if (fd < 0) return reply;
  std::string req = method + " " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n";
  if (method == "POST") req += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  req += "\r\n" + body;
  if (write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size())) {
    close(fd);
    return reply;
  }
  std::string raw;
  char chunk[8192];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof chunk)) > 0) raw.append(chunk, static_cast<size_t>(n));
  close(fd);
  size_t end = raw.find("\r\n\r\n");
  if (raw.compare(0, 9, "HTTP/1.0 ") != 0 && raw.compare(0, 9, "HTTP/1.1 ") != 0) return reply;
  if (end == std::string::npos) return reply;
  reply.status = atoi(raw.c_str() + 9);
  size_t lineEnd = raw.find("\r\n");
  reply.headers = raw.substr(lineEnd + 2, end - lineEnd - 2);
  reply.body = raw.substr(end + 4);
  return reply;
}

bool haveLighttpd() { return std::system("command -v lighttpd >/dev/null 2>&1") == 0; }

/* ---- The web root and its server ---------------------------------------------- */

// A temporary web root served by lighttpd, and a sample agent beside it.
class GatewayUnderLighttpd : public ::testing::Test {
 protected:
  fs::path root;
  fs::path htdocs;
  int httpPort = -1;
  pid_t server = -1;
  SampleAgent agent;

  void SetUp() override {
    if (!haveLighttpd()) GTEST_SKIP() << "lighttpd is not installed";
    std::string tmpl = (fs::temp_directory_path() / "qv-web-XXXXXX").string();
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    root = tmpl;
    htdocs = root / "htdocs";
    ASSERT_TRUE(startServer()) << readFile(root / "log" / "error.log");
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }

  void TearDown() override {
    if (server > 0) {
      kill(server, SIGTERM);
      waitpid(server, nullptr, 0);
    }
    webagent::agentStop(&agent);
    if (!root.empty()) fs::remove_all(root);
  }

  // Lays out the root for a free port and starts lighttpd; a port taken meanwhile by
  // someone else makes the server exit, and another port is tried.
  bool startServer() {
    for (int attempt = 0; attempt < 5; attempt++) {
      httpPort = freePort();
      std::string cmd = "bash '" QV_SOURCE_DIR "/scripts/webroot.sh' '" + root.string() +
                        "' '" QV_WEBQUORVEL "' " + std::to_string(httpPort);
      if (std::system(cmd.c_str()) != 0) return false;
      server = fork();
      if (server == 0) execServer();
      if (server < 0) return false;
      if (awaitServer()) return true;
      kill(server, SIGTERM);
      waitpid(server, nullptr, 0);
      server = -1;
    }
    return false;
  }

  [[noreturn]] void execServer() {
    std::string conf = (root / "lighttpd.conf").string();
    std::string out = (root / "log" / "lighttpd.out").string();
    if (!freopen(out.c_str(), "a", stdout) || !freopen(out.c_str(), "a", stderr)) _exit(126);
    close_range(3, ~0U, 0);  // the test's sockets must not outlive it in the server
    execlp("lighttpd", "lighttpd", "-D", "-f", conf.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }

  bool awaitServer() {
    for (int i = 0; i < 250; i++) {
      int fd = connectLoopback(httpPort);
      if (fd >= 0) {
        close(fd);
        return true;
      }
      if (waitpid(server, nullptr, WNOHANG) == server) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  std::string agentAddress() const {
    return "127.0.0.1:" + std::to_string(webagent::agentOffset(&agent));
  }

  HttpReply get(const std::string &query) {
    return httpRequest(httpPort, "GET", "/cgi-bin/webquorvel?" + query);
  }
};

const char kPage[] = "Content-type: text/html\n\n<html><body>Week 47</body></html>\n";
const char kPageBody[] = "<html><body>Week 47</body></html>\n";

AgentScript scripted(AgentMode mode, std::vector<AgentPair> pairs) {
  AgentScript script;
  script.mode = mode;
  script.pairs = std::move(pairs);
  return script;
}

/* ---- Replies from the agent --------------------------------------------------- */

TEST_F(GatewayUnderLighttpd, DeliversThePageAndPlacesTheFilesOfAMultiPairReply) {
  writeFile(htdocs / "tmp" / "stale.html", "old request\n");
  writeFile(htdocs / "kept.html", "not below tmp\n");
  agentPush(&agent, scripted(AgentMode::Pairs, {{"tmp/week.html", "<p>week</p>\n"},
                                                {"day.txt", "Monday\n"},
                                                {"", kPage}}));
  const std::string query = "dn=" + agentAddress() + "&lan=En_US&log=x";

  HttpReply reply = get(query);

  EXPECT_EQ(reply.status, 200);
  EXPECT_NE(reply.headers.find("Content-type: text/html"), std::string::npos) << reply.headers;
  EXPECT_EQ(reply.body, kPageBody);
  ASSERT_EQ(webagent::agentRequests(&agent), std::vector<std::string>{query});
  // The CGI ran in cgi-bin/: its ../htdocs/ is the server's document root.
  EXPECT_EQ(readFile(htdocs / "tmp" / "week.html"), "<p>week</p>\n");
  EXPECT_EQ(readFile(htdocs / "day.txt"), "Monday\n");
  EXPECT_FALSE(fs::exists(htdocs / "tmp" / "stale.html"));
  EXPECT_EQ(readFile(htdocs / "kept.html"), "not below tmp\n");
  // The files are served by the web server as they were written.
  HttpReply week = httpRequest(httpPort, "GET", "/tmp/week.html");
  EXPECT_EQ(week.status, 200);
  EXPECT_EQ(week.body, "<p>week</p>\n");
}

TEST_F(GatewayUnderLighttpd, LeavesTmpAloneWhenTheReplyIsOnlyThePage) {
  writeFile(htdocs / "tmp" / "earlier.gif", "GIF89a");
  agentPush(&agent, scripted(AgentMode::Pairs, {{"", kPage}}));

  HttpReply reply = get("hn=" + agentAddress());

  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, kPageBody);
  EXPECT_EQ(readFile(htdocs / "tmp" / "earlier.gif"), "GIF89a");
}

TEST_F(GatewayUnderLighttpd, ServesTheDemoPictureItWroteUnderTmp) {
  agentPush(&agent, scripted(AgentMode::Demo, {}));

  HttpReply reply = get("dn=" + agentAddress() + "&lan=En_US");
  HttpReply picture = httpRequest(httpPort, "GET", "/tmp/demo-picture.svg");

  EXPECT_EQ(reply.status, 200);
  EXPECT_NE(reply.body.find("/tmp/demo-picture.svg"), std::string::npos) << reply.body;
  EXPECT_EQ(picture.status, 200);
  EXPECT_EQ(picture.body, webagent::demoPicture());
  EXPECT_NE(picture.headers.find("image/svg+xml"), std::string::npos) << picture.headers;
}

TEST_F(GatewayUnderLighttpd, ReadsTheQueryFromTheRequestBodyWhenTheUrlHasNone) {
  agentPush(&agent, scripted(AgentMode::Pairs, {{"", kPage}}));
  const std::string query = "dn=" + agentAddress() + "&lan=En_US";

  HttpReply reply = httpRequest(httpPort, "POST", "/cgi-bin/webquorvel", query + "\n");

  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, kPageBody);
  // The line end that closed the body is not part of the query handed on.
  EXPECT_EQ(webagent::agentRequests(&agent), std::vector<std::string>{query});
}

/* ---- The error page ------------------------------------------------------------ */

TEST_F(GatewayUnderLighttpd, ShowsTheErrorPageInEnglishOrGermanWhenTheAgentIsAbsent) {
  int nobody = freePort();  // no agent listens here
  ASSERT_GT(nobody, webagent::AGENT_BASE_PORT);
  const std::string where = "dn=127.0.0.1:" + std::to_string(nobody - webagent::AGENT_BASE_PORT);
  writeFile(htdocs / "tmp" / "earlier.gif", "GIF89a");

  HttpReply english = get(where + "&lan=En_US");
  HttpReply german = get(where + "&lan=De");

  EXPECT_EQ(english.status, 200);
  EXPECT_NE(english.headers.find("Content-type: text/html"), std::string::npos);
  EXPECT_NE(english.body.find("<h3>An error occurred processing your request:</h3>\n"
                              "<h4>Cannot connect to Quorvel web agent on host 127.0.0.1</h4>"),
            std::string::npos)
      << english.body;
  EXPECT_NE(english.body.find("<body background=\"/icons/bg4.gif\">"), std::string::npos);
  EXPECT_EQ(german.status, 200);
  EXPECT_NE(german.body.find("<h3>Fehler bei der Verarbeitung Ihrer Anforderung:</h3>\n"
                             "<h4>Verbindung mit Quorvel-Webagent auf Host 127.0.0.1 nicht "
                             "m\xF6glich</h4>"),
            std::string::npos)
      << german.body;
  EXPECT_EQ(readFile(htdocs / "tmp" / "earlier.gif"), "GIF89a");
}

TEST_F(GatewayUnderLighttpd, ShowsTheErrorPageWithTheQueryWhenItNamesNoAgent) {
  const std::string query = "lan=En_US&log=http://cal/login&rpt=/img";

  HttpReply english = get(query);
  HttpReply german = get("lan=De&rpt=/img");

  EXPECT_EQ(english.status, 200);
  EXPECT_NE(english.body.find("<h4>Cannot find host name in query " + query + "</h4>"),
            std::string::npos)
      << english.body;
  // With both the login address and the icon root the page offers the way back.
  EXPECT_NE(english.body.find("<a href=\"http://cal/login\">\n<IMG src=\"/img/blogin.gif\""),
            std::string::npos);
  EXPECT_NE(english.body.find("<body background=\"/img/bg4.gif\">"), std::string::npos);
  EXPECT_NE(german.body.find("<h4>Hostname in Abfrage lan=De&rpt=/img nicht gefunden</h4>"),
            std::string::npos)
      << german.body;
  EXPECT_EQ(german.body.find("blogin.gif"), std::string::npos);
  EXPECT_TRUE(webagent::agentRequests(&agent).empty());
}

TEST_F(GatewayUnderLighttpd, ShowsTheReadFailurePageForABadReplyAndWritesNothing) {
  writeFile(htdocs / "tmp" / "earlier.gif", "GIF89a");
  agentPush(&agent, scripted(AgentMode::BadMagic, {{"tmp/x.html", "x"}, {"", kPage}}));

  HttpReply reply = get("dn=" + agentAddress());

  EXPECT_NE(reply.body.find("<h4>Read failed from Quorvel web agent on host 127.0.0.1</h4>"),
            std::string::npos)
      << reply.body;
  EXPECT_EQ(reply.body.find("Week 47"), std::string::npos);
  EXPECT_FALSE(fs::exists(htdocs / "tmp" / "x.html"));
  EXPECT_EQ(readFile(htdocs / "tmp" / "earlier.gif"), "GIF89a");
}

}  // namespace
}  // namespace quorvel
