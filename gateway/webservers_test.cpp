// webservers_test.cpp -- the README's deployment recipes, each run for real: lighttpd with
// mod_cgi, Apache with mod_cgid, nginx with fcgiwrap (scripts/webserver.sh), the gateway
// in cgi-bin/ against the sample agent. Each fetches the page, a file the gateway wrote
// and the error page's images; the server's own log must show no failed request. With
// Debian's chromium, screenshots of the page and of an error page land in the build
// tree's artefacts/ and every image on them must have loaded.
#include "gateway/test_support.h"

#include <csignal>
#include <regex>

namespace quorvel::gateway {

const char PAGE[] =
    "Content-type: text/html\n\n<html><body background=\"/icons/bg4.gif\"><h1>Week 48</h1>"
    "<p>Monday: planning</p><img src=\"/tmp/week.svg\"></body></html>\n";
const char PICTURE[] =
    "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"80\" height=\"20\"><rect width=\"80\" "
    "height=\"20\" fill=\"#2f5d8a\"/></svg>\n";

struct Deployed : AgentFixture, ::testing::WithParamInterface<const char *> {
  CgiTree tree;
  std::string root = tree.root + "/site";
  int port = -1;
  bool started = false;

  static bool have(const char *program) {
    return std::system(("command -v " + std::string(program) + " >/dev/null 2>&1").c_str()) == 0;
  }
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    std::string kind = GetParam();
    const char *needs = kind == "apache" ? "apache2" : kind == "nginx" ? "nginx" : "lighttpd";
    if (!have(needs) || (kind == "nginx" && !have("fcgiwrap")))
      GTEST_SKIP() << needs << " is not installed here (scripts/setup.sh installs it)";
    chmod(tree.root.c_str(), 0755);  // Apache's www-data must reach the site below it
    for (int attempt = 0; attempt < 5 && !started; attempt++) {
      port = freeLoopbackPort();
      started = std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' start " + kind + " '" +
                             root + "' '" QV_WEBQUORVEL "' " + std::to_string(port) +
                             " >>'" + tree.root + "/start.log' 2>&1").c_str()) == 0;
    }
    ASSERT_TRUE(started) << readFile(tree.root + "/start.log");
    // The first request gets these pairs; the screenshots get the demo page (with its
    // picture file) from then on.
    start({{webagent::AgentMode::Pairs, {{"tmp/week.svg", PICTURE}, {"", PAGE}}},
           {webagent::AgentMode::Demo}});
  }
  void TearDown() override {
    if (started) (void)std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' stop '" + root + "'").c_str());
    AgentFixture::TearDown();
  }
  std::string url(const std::string &target) const {
    return "http://127.0.0.1:" + std::to_string(port) + target;
  }
  // Status and body of one GET.
  std::string get(const std::string &target) {
    return commandOutput("curl -s --max-time 20 -w '\\n%{http_code}' '" + url(target) + "'");
  }
  // The request lines of the access log with a status of 400 or more.
  std::string failedRequests() {
    std::string failed, log = readFile(root + "/log/access.log");
    std::regex status("\" (4|5)[0-9][0-9] ");
    for (size_t at = 0, end; at < log.size(); at = end + 1) {
      end = log.find('\n', at);
      if (end == std::string::npos) end = log.size();
      std::string line = log.substr(at, end - at);
      // (the browser asks for /favicon.ico on its own; no page refers to it)
      if (std::regex_search(line, status) && line.find("/favicon.ico") == std::string::npos)
        failed += line + "\n";
    }
    return failed;
  }
  // A headless chromium screenshot of target into artefacts/<name>.png; false without
  // chromium.
  bool screenshot(const std::string &target, const std::string &name) {
    if (!have("chromium")) return false;
    std::string dir = QV_ARTEFACTS;
    (void)std::system(("mkdir -p '" + dir + "'").c_str());
    std::string profile = tree.root + "/chromium-" + name;
    int status = -1;
    commandOutput("timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic "
                  "--no-first-run --disable-background-networking --disable-component-update "
                  "--disable-sync --user-data-dir='" + profile + "' --window-size=800,600 "
                  "--screenshot='" + dir + "/" + name + ".png' '" + url(target) + "' 2>/dev/null",
                  &status);
    EXPECT_EQ(status, 0) << name;
    return true;
  }
};

TEST_P(Deployed, ServesThePageTheFilesItWroteAndTheErrorPageImages) {
  std::string query = "/cgi-bin/webquorvel?" + hostField("dn") + "&rpt=/icons";
  EXPECT_EQ(get(query), std::string(PAGE).substr(25) + "\n200");
  EXPECT_EQ(get("/tmp/week.svg"), std::string(PICTURE) + "\n200");
  // An error page (no agent named) and the images it refers to.
  std::string error = get("/cgi-bin/webquorvel?rpt=/icons&log=/login.html");
  EXPECT_NE(error.find("Cannot find host name in query rpt=/icons&log=/login.html"), std::string::npos);
  for (const char *icon : {"/icons/bg4.gif", "/icons/blogin.gif"})
    EXPECT_EQ(get(icon).substr(0, 6), "GIF89a") << icon;
  if (screenshot(query, std::string("page-") + GetParam()))
    screenshot("/cgi-bin/webquorvel?rpt=/icons&log=/login.html", std::string("error-") + GetParam());
  usleep(200000);  // lighttpd writes its access log behind the response
  EXPECT_EQ(failedRequests(), "");  // the demo page's picture and the icons all loaded
  EXPECT_NE(readFile(root + "/log/access.log").find("GET /icons/blogin.gif"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(WebServers, Deployed, ::testing::Values("lighttpd", "apache", "nginx"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace quorvel::gateway
