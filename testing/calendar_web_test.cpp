// calendar_web_test.cpp -- the calendar mode as deployed: lighttpd runs webquorvel through
// mod_cgi (scripts/webserver.sh) against the sample agent in calendar mode, over the
// database sample_calendar writes (the demo's). The month view is fetched with curl and,
// with Debian's chromium, shot into the build tree's artefacts/.
#include <csignal>
#include <regex>

#include "gateway/test_support.h"
#include "testing/calendar_view.h"

namespace quorvel::gateway {
namespace {

struct CalendarUnderLighttpd : AgentFixture {
  CgiTree tree;
  std::string site = tree.root + "/site", database = tree.root + "/calendar";
  int port = -1;
  bool started = false;

  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    if (std::system("command -v lighttpd >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "lighttpd is not installed here (scripts/setup.sh installs it)";
    setenv("TZ", "UTC", 1);  // the generator and the agent read times alike
    tzset();
    ASSERT_EQ(std::system(("'" QV_SAMPLE_CALENDAR "' '" + database + "' 2026 11").c_str()), 0);
    for (int attempt = 0; attempt < 5 && !started; attempt++) {
      port = freeLoopbackPort();
      started = std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' start lighttpd '" + site + "' '"
                             QV_WEBQUORVEL "' " + std::to_string(port) + " >>'" + tree.root +
                             "/start.log' 2>&1").c_str()) == 0;
    }
    ASSERT_TRUE(started) << readFile(tree.root + "/start.log");
    webagent::AgentScript script(webagent::AgentMode::Calendar);
    script.database = database;
    start({script});
  }
  void TearDown() override {
    if (started) (void)std::system(("bash '" QV_SOURCE_DIR "/scripts/webserver.sh' stop '" + site + "'").c_str());
    AgentFixture::TearDown();
    webagent::resetCalendarView();
  }
  std::string url(const std::string &query) const {
    return "http://127.0.0.1:" + std::to_string(port) + "/cgi-bin/webquorvel?" + hostField("dn") + "&" + query;
  }
  // The status code, a line end, then the body of one GET.
  std::string get(const std::string &whole) {
    return commandOutput("curl -s --max-time 20 -w '\\n%{http_code}' '" + whole + "'");
  }
  static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
};

TEST_F(CalendarUnderLighttpd, MonthViewThroughTheGatewayWithHolidaysAndPrivateItems) {
  std::string ann = get(url("view=month&user=ann&date=2026-11"));
  ASSERT_TRUE(ann.ends_with("</html>\n\n200")) << ann;
  EXPECT_TRUE(has(ann, "<h1>Calendar of Ann Archer</h1>"));
  EXPECT_TRUE(has(ann, "<i>09:30am-10:30am</i> Team meeting</li>"));
  EXPECT_TRUE(has(ann, "<i>02:00pm-03:00pm</i> Planning review</li>"));
  EXPECT_TRUE(has(ann, "Lunch with &lt;Bob&gt; &amp; &quot;Carol&quot;"));
  EXPECT_TRUE(has(ann, "<div class=\"holname\">Founders&#39; Day</div>"));
  EXPECT_TRUE(has(ann, "<div class=\"holname\">Lantern Festival (workday)</div>"));
  EXPECT_TRUE(has(ann, "Doctor&#39;s appointment"));
  // The picture the gateway wrote from the reply, served by lighttpd.
  std::string svg = get("http://127.0.0.1:" + std::to_string(port) + "/tmp/overview-ann-2026-11.svg");
  EXPECT_TRUE(svg.starts_with("<?xml") && svg.ends_with("</svg>\n\n200")) << svg;
  EXPECT_EQ(readFile(site + "/htdocs/tmp/overview-ann-2026-11.svg"), svg.substr(0, svg.size() - 4));
  // bob may not read ann's own items; carol may.
  std::string bob = get(url("view=month&user=ann&date=2026-11&as=bob"));
  EXPECT_TRUE(has(bob, "Team meeting"));
  EXPECT_FALSE(has(bob, "Doctor")) << bob;
  EXPECT_TRUE(has(bob, "<li class=\"event private\"><i>11:00am-12:00pm</i> (private)</li>"));
  EXPECT_FALSE(has(bob, "Renew passport"));
  std::string carol = get(url("view=month&user=ann&date=2026-11&as=carol"));
  EXPECT_TRUE(has(carol, "Doctor&#39;s appointment") && has(carol, "Renew passport"));
  EXPECT_FALSE(has(carol, "(private)"));
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 3u);
}

TEST_F(CalendarUnderLighttpd, BadQueriesGetAClearPageWithTheirStatus) {
  std::string unknown = get(url("view=month&user=zed&date=2026-11"));
  EXPECT_TRUE(unknown.ends_with("\n404")) << unknown;
  EXPECT_TRUE(has(unknown, "No calendar is called &quot;zed&quot;."));
  std::string range = get(url("view=day&user=ann&date=2099-01-01"));
  EXPECT_TRUE(range.ends_with("\n400")) << range;
  EXPECT_TRUE(has(range, "outside the calendar&#39;s years"));
  // The agent is still there after them.
  EXPECT_TRUE(get(url("view=day&user=bob&date=2026-11-03")).ends_with("\n200"));
}

TEST_F(CalendarUnderLighttpd, ChromiumShotOfTheMonthView) {
  if (std::system("command -v chromium >/dev/null 2>&1") != 0) GTEST_SKIP() << "no chromium here";
  std::string dir = QV_ARTEFACTS;
  (void)std::system(("mkdir -p '" + dir + "'").c_str());
  for (const char *viewer : {"ann", "bob"}) {
    std::string shot = dir + "/calendar-month-as-" + viewer + ".png";
    unlink(shot.c_str());
    int status = -1;
    commandOutput("timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                  "--disable-background-networking --disable-component-update --disable-sync "
                  "--user-data-dir='" + tree.root + "/chromium-" + viewer + "' --window-size=1100,900 "
                  "--screenshot='" + shot + "' '" + url(std::string("view=month&user=ann&date=2026-11&as=") + viewer) +
                  "' 2>/dev/null", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(shot).substr(1, 3), "PNG") << shot;
  }
  usleep(200000);  // lighttpd writes its access log behind the response
  std::string log = readFile(site + "/log/access.log");
  EXPECT_TRUE(has(log, "GET /tmp/overview-ann-2026-11.svg")) << "the browser loaded the picture\n" << log;
  std::regex failed("\" (4|5)[0-9][0-9] ");
  for (size_t at = 0, end; at < log.size(); at = end + 1) {
    end = log.find('\n', at);
    std::string line = log.substr(at, (end == std::string::npos ? log.size() : end) - at);
    if (end == std::string::npos) end = log.size();
    EXPECT_FALSE(std::regex_search(line, failed) && !has(line, "/favicon.ico")) << line;
  }
}

}  // namespace
}  // namespace quorvel::gateway
