// calendar_web_test.cpp -- the calendar mode as deployed: lighttpd runs webquorvel through
// mod_cgi (scripts/webserver.sh) against the sample agent in calendar mode, over the
// database sample_calendar writes (the demo's). The month view is fetched with curl and,
// with Debian's chromium, shot into the build tree's artefacts/.
#include <csignal>

#include "gateway/test_support.h"
#include "testing/calendar_view.h"

namespace quorvel::gateway {
namespace {

struct CalendarUnderLighttpd : AgentFixture {
  CgiTree tree;
  WebServer site;
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    if (!installed("lighttpd"))
      GTEST_SKIP() << "lighttpd is not installed here (scripts/setup.sh installs it)";
    setenv("TZ", "UTC", 1);  // the generator and the agent read times alike
    tzset();
    std::string database = tree.root + "/calendar";
    ASSERT_EQ(std::system(("'" QV_SAMPLE_CALENDAR "' '" + database + "' 2026 11").c_str()), 0);
    ASSERT_TRUE(site.start("lighttpd", tree.root + "/site", tree.root + "/start.log"))
        << readFile(tree.root + "/start.log");
    webagent::AgentScript script(webagent::AgentMode::Calendar);
    script.database = database;
    start({script});
  }
  void TearDown() override {
    AgentFixture::TearDown();
    webagent::resetCalendarView();
  }
  std::string view(const std::string &query) const {
    return "/cgi-bin/webquorvel?" + hostField("dn") + "&" + query;
  }
};
bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST_F(CalendarUnderLighttpd, ServesViewsWithHolidaysPrivateItemsAndClearErrorPages) {
  std::string ann = site.get(view("view=month&user=ann&date=2026-11"));
  ASSERT_TRUE(ann.ends_with("</html>\n\n200")) << ann;
  for (const char *part : {"<h1>Calendar of Ann Archer</h1>",
                           "<i>09:30am-10:30am</i> Team meeting</li>",
                           "<i>02:00pm-03:00pm</i> Planning review</li>",
                           "Lunch with &lt;Bob&gt; &amp; &quot;Carol&quot;",
                           "<div class=\"holname\">Founders&#39; Day</div>",
                           "<div class=\"holname\">Lantern Festival (workday)</div>",
                           "Doctor&#39;s appointment"})
    EXPECT_TRUE(has(ann, part)) << part;
  // With chromium: the month view as ann and as bob; the browser loaded the picture (not
  // fetched otherwise yet) and no request failed.
  size_t shots = 0;
  for (std::string viewer : {"ann", "bob"})
    shots += site.screenshot(view("view=month&user=ann&date=2026-11&as=" + viewer),
                             "calendar-month-as-" + viewer, "1100,900");
  if (shots > 0) {
    EXPECT_EQ(site.failedRequests(), "");
    EXPECT_TRUE(has(readFile(site.root + "/log/access.log"), "GET /tmp/overview-ann-2026-11.svg"));
  }
  // The picture the gateway wrote from the reply, served by lighttpd.
  std::string svg = site.get("/tmp/overview-ann-2026-11.svg");
  EXPECT_TRUE(svg.starts_with("<?xml") && svg.ends_with("</svg>\n\n200")) << svg;
  EXPECT_EQ(readFile(site.root + "/htdocs/tmp/overview-ann-2026-11.svg"),
            svg.substr(0, svg.size() - 4));
  // bob may not read ann's own items; carol may.
  std::string bob = site.get(view("view=month&user=ann&date=2026-11&as=bob"));
  EXPECT_TRUE(has(bob, "Team meeting"));
  EXPECT_FALSE(has(bob, "Doctor") || has(bob, "Renew passport")) << bob;
  EXPECT_TRUE(has(bob, "<li class=\"event private\"><i>11:00am-12:00pm</i> (private)</li>"));
  std::string carol = site.get(view("view=month&user=ann&date=2026-11&as=carol"));
  EXPECT_TRUE(has(carol, "Doctor&#39;s appointment") && has(carol, "Renew passport"));
  EXPECT_FALSE(has(carol, "(private)"));
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 3 + shots);
  // Bad queries: a clear page with their status, and the agent still there after them.
  std::string unknown = site.get(view("view=month&user=zed&date=2026-11"));
  EXPECT_TRUE(unknown.ends_with("\n404") && has(unknown, "No calendar is called &quot;zed&quot;."))
      << unknown;
  std::string range = site.get(view("view=day&user=ann&date=2099-01-01"));
  EXPECT_TRUE(range.ends_with("\n400") && has(range, "outside the calendar&#39;s years")) << range;
  EXPECT_TRUE(site.get(view("view=day&user=bob&date=2026-11-03")).ends_with("\n200"));
}

}  // namespace
}  // namespace quorvel::gateway
