// webservers_test.cpp -- the README's deployment recipes, each run for real: lighttpd with
// mod_cgi, Apache with mod_cgid, nginx with fcgiwrap (scripts/webserver.sh), the gateway
// in cgi-bin/ against the sample agent. Each fetches the page, a file the gateway wrote
// and the error page's images; the server's own log must show no failed request. With
// Debian's chromium, screenshots of the page and of an error page land in the build
// tree's artefacts/ and every image on them must have loaded.
#include "gateway/test_support.h"

#include <csignal>

namespace quorvel::gateway {

const char PAGE[] =
    "Content-type: text/html\n\n<html><body background=\"/icons/bg4.gif\"><h1>Week 48</h1>"
    "<p>Monday: planning</p><img src=\"/tmp/week.svg\"></body></html>\n";
const char PICTURE[] =
    "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"80\" height=\"20\"><rect width=\"80\" "
    "height=\"20\" fill=\"#2f5d8a\"/></svg>\n";

struct Deployed : AgentFixture, ::testing::WithParamInterface<const char *> {
  CgiTree tree;
  WebServer site;
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    std::string kind = GetParam();
    const char *needs = kind == "apache" ? "apache2" : kind == "nginx" ? "nginx" : "lighttpd";
    if (!installed(needs) || (kind == "nginx" && !installed("fcgiwrap")))
      GTEST_SKIP() << needs << " is not installed here (scripts/setup.sh installs it)";
    chmod(tree.root.c_str(), 0755);  // Apache's www-data must reach the site below it
    ASSERT_TRUE(site.start(kind, tree.root + "/site", tree.root + "/start.log"))
        << readFile(tree.root + "/start.log");
    // The first request gets these pairs; the screenshots get the demo page (with its
    // picture file) from then on.
    start({{webagent::AgentMode::Pairs, {{"tmp/week.svg", PICTURE}, {"", PAGE}}},
           {webagent::AgentMode::Demo}});
  }
};

TEST_P(Deployed, ServesThePageTheFilesItWroteAndTheErrorPageImages) {
  std::string query = "/cgi-bin/webquorvel?" + hostField("dn") + "&rpt=/icons";
  std::string error = "/cgi-bin/webquorvel?rpt=/icons&log=/login.html";  // no agent named
  EXPECT_EQ(site.get(query), std::string(PAGE).substr(25) + "\n200");
  EXPECT_EQ(site.get("/tmp/week.svg"), std::string(PICTURE) + "\n200");
  EXPECT_NE(site.get(error).find("Cannot find host name in query rpt=/icons&log=/login.html"),
            std::string::npos);
  for (const char *icon : {"/icons/bg4.gif", "/icons/blogin.gif"})
    EXPECT_EQ(site.get(icon).substr(0, 6), "GIF89a") << icon;
  std::string kind = GetParam();
  if (site.screenshot(query, "page-" + kind)) site.screenshot(error, "error-" + kind);
  EXPECT_EQ(site.failedRequests(), "");  // the demo page's picture and the icons all loaded
  EXPECT_NE(readFile(site.root + "/log/access.log").find("GET /icons/blogin.gif"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(WebServers, Deployed, ::testing::Values("lighttpd", "apache", "nginx"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace quorvel::gateway
