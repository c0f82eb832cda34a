// calendar_view_test.cpp -- the calendar mode in-process: queries and their refusals,
// the listing text cut into days, and whole replies from a small database on disk
// (escaping, private items per viewer, holidays, the picture, the size budget).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "testing/calendar_page.h"
#include "testing/calendar_view.h"

namespace quorvel::webagent {
namespace {

/* ---- Queries ------------------------------------------------------------------------ */

TEST(CalendarQuery, ReadsKeysDatesAndDefaults) {
  struct Row {
    const char *query;
    CalendarPeriod period;
    const char *user, *viewer;
    int year, month, day;
  } rows[] = {
      {"user=ann", CalendarPeriod::Month, "ann", "ann", 2026, 11, 20},  // today, the user's own rights
      {"view=day&user=ann&date=2024-02-29&as=bob", CalendarPeriod::Day, "ann", "bob", 2024, 2, 29},
      {"view=week&date=2026-01&user=ann", CalendarPeriod::Week, "ann", "ann", 2026, 1, 1},
      {"user=an%6E+x&as=b%6Fb", CalendarPeriod::Month, "ann x", "bob", 2026, 11, 20},
      {"user=ann&date=1970-01-01", CalendarPeriod::Month, "ann", "ann", 1970, 1, 1},
      {"user=ann&date=2037-12-31", CalendarPeriod::Month, "ann", "ann", 2037, 12, 31},
  };
  for (const Row &r : rows) {
    CalendarQuery q;
    std::string problem;
    int rc = parseCalendarQuery(r.query, 2026, 11, 20, &q, &problem);
    ASSERT_EQ(rc, 0) << r.query << ": " << problem;
    EXPECT_EQ(q.period, r.period) << r.query;
    EXPECT_EQ(q.user, r.user) << r.query;
    EXPECT_EQ(q.viewer, r.viewer) << r.query;
    EXPECT_EQ(q.year * 10000 + q.month * 100 + q.day, r.year * 10000 + r.month * 100 + r.day) << r.query;
  }
  CalendarQuery q;
  std::string problem;
  ASSERT_EQ(parseCalendarQuery("dn=127.0.0.1:3&user=ann&lan=De&&x", 2026, 1, 1, &q, &problem), 0);
  EXPECT_EQ(q.kept, (std::vector<std::string>{"dn=127.0.0.1:3", "lan=De", "x"})) << "other fields kept as they came";
}

TEST(CalendarQuery, RefusesMalformedAndOutOfRangeQueriesWithASentence) {
  struct Row {
    const char *query;
    int rc;
    const char *says;
  } rows[] = {
      {"", CALVIEW_MALFORMED, "names no calendar"},
      {"view=month&date=2026-11", CALVIEW_MALFORMED, "user=NAME"},
      {"user=", CALVIEW_MALFORMED, "names no calendar"},
      {"user=ann&view=year", CALVIEW_MALFORMED, "\"year\" is not one of day, week or month"},
      {"user=ann&date=2026-13", CALVIEW_MALFORMED, "names no day"},
      {"user=ann&date=2026-02-29", CALVIEW_MALFORMED, "names no day"},
      {"user=ann&date=2026-11-00", CALVIEW_MALFORMED, "names no day"},
      {"user=ann&date=2026-1-05", CALVIEW_MALFORMED, "not of the form"},
      {"user=ann&date=26-11", CALVIEW_MALFORMED, "not of the form"},
      {"user=ann&date=2026-11-05x", CALVIEW_MALFORMED, "not of the form"},
      {"user=ann&date=", CALVIEW_MALFORMED, "not of the form"},
      {"user=ann&date=1969-12-31", CALVIEW_RANGE, "outside the calendar's years 1970 to 2037"},
      {"user=ann&date=2038-01", CALVIEW_RANGE, "outside"},
      {"user=ann&date=9999-12-31", CALVIEW_RANGE, "outside"},
      {"user=a%0Ab", CALVIEW_MALFORMED, "not a calendar name"},
      {"user=ann&as=..%2Fusers", CALVIEW_MALFORMED, "given as as"},  // "/" would leave events/
  };
  for (const Row &r : rows) {
    CalendarQuery q;
    std::string problem;
    EXPECT_EQ(parseCalendarQuery(r.query, 2026, 11, 20, &q, &problem), r.rc) << r.query;
    EXPECT_NE(problem.find(r.says), std::string::npos) << r.query << " said: " << problem;
  }
  CalendarQuery q;
  std::string problem;
  EXPECT_EQ(parseCalendarQuery("user=ann", 2040, 1, 1, &q, &problem), CALVIEW_RANGE) << "a clock past the range";
}

TEST(CalendarQuery, PercentCodingAndEscaping) {
  EXPECT_EQ(percentDecode("a%41%4a%zz%4%+b%"), "aAJ%zz%4% b%");  // bad escapes stay as they came
  EXPECT_EQ(percentDecode("%00x"), std::string("\0x", 2));
  EXPECT_EQ(percentEncode("ann o'b/é"), "ann%20o%27b%2F%C3%A9");
  EXPECT_EQ(percentDecode(percentEncode("x&y=z%")), "x&y=z%");
  EXPECT_EQ(htmlEscape("<a href=\"x\">Tom & Jerry's</a>"),
            "&lt;a href=&quot;x&quot;&gt;Tom &amp; Jerry&#39;s&lt;/a&gt;");
  EXPECT_EQ(fileNamePart("ann"), "ann");
  EXPECT_EQ(fileNamePart("../x y"), "___x_y");
  EXPECT_EQ(fileNamePart(std::string(60, 'a')).size(), 40u);
}

/* ---- The listing text ------------------------------------------------------------------ */

TEST(CalendarListing, CutsEverySectionFormIntoDaysAndItems) {
  const std::string text =
      "\n\t\t#For November 2026\n\n"
      "11/02 (Monday):\t09:30am-10:30am\tTeam meeting\n"
      "\t\t02:00pm-03:00pm\tWith\ta tab\n"
      "ToDos:\t\tSend report (done)\n"
      "\t\t(private)\n"
      "Reminders:\tRenew passport\n"
      "11/03 (Tuesday):\n"
      "ToDos:\t\tOnly a to-do\n"
      "11/04 (Wednesday):\n"
      "Reminders:\tOnly a reminder\n"
      "\t\tSecond reminder\n"
      "11/05 (Thursday):\t 09:00 - 10:00 \t(private)\n"
      "\n\t\t#For December 2026\n\n"
      "12/01 (Tuesday):\t12:00am-12:00am\tAll night\n";
  ParsedListing p = parseListing(text);
  EXPECT_EQ(p.heading, "For November 2026");
  ASSERT_EQ(p.days.size(), 5u);
  auto row = [](const ListedItem &i) {
    return std::string(1, i.kind) + "|" + i.times + "|" + i.text + (i.hidden ? "|hidden" : "") + (i.done ? "|done" : "");
  };
  std::vector<std::string> monday;
  for (const ListedItem &i : p.days[0].items) monday.push_back(row(i));
  EXPECT_EQ(monday, (std::vector<std::string>{"e|09:30am-10:30am|Team meeting", "e|02:00pm-03:00pm|With\ta tab",
                                              "t||Send report|done", "t||(private)|hidden", "r||Renew passport"}));
  EXPECT_EQ(p.days[1].month * 100 + p.days[1].day, 1103);
  ASSERT_EQ(p.days[1].items.size(), 1u);
  EXPECT_EQ(row(p.days[1].items[0]), "t||Only a to-do");
  ASSERT_EQ(p.days[2].items.size(), 2u);
  EXPECT_EQ(row(p.days[2].items[1]), "r||Second reminder");
  ASSERT_EQ(p.days[3].items.size(), 1u);
  EXPECT_EQ(row(p.days[3].items[0]), "e|09:00 - 10:00|(private)|hidden") << "24-hour form";
  EXPECT_EQ(p.days[4].month * 100 + p.days[4].day, 1201) << "a second period's days follow";
  EXPECT_EQ(parseListing("").days.size(), 0u);
  EXPECT_EQ(parseListing("\t\t#For May 1, 2026\n\n").days.size(), 0u);
}

/* ---- Whole replies from a database on disk ---------------------------------------------- */

// Seconds of 2026-11-<day> hh:mm UTC.
int32_t nov(int day, int hour, int minute) {
  struct tm tm{};
  tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = day, tm.tm_hour = hour, tm.tm_min = minute;
  return int32_t(timegm(&tm));
}
std::string record(char kind, const std::string &title, int32_t start, int32_t end, const char *calendars) {
  char times[80];
  snprintf(times, sizeof times, "#B\t0x%x @0x0 %%0x0\n#F\t0x%x @0x0 %%0x0\n", unsigned(start), unsigned(end));
  return std::string("#") + kind + "\t" + title + "\n" + times + "#W\t" + calendars + "\n\n";
}
void writeText(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

struct CalendarReply : ::testing::Test {
  std::string root;
  void SetUp() override {
    char pattern[] = "/tmp/qvcal-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root = pattern;
    std::filesystem::create_directories(root + "/db/database/events");
    std::filesystem::create_directories(root + "/db/database/locks");
    setenv("TZ", "UTC", 1);
    tzset();
    writeText(root + "/db/users", "ann,ann,,Ann Archer\nbob,bob,,Bob Baker\ncarol,carol,,Carol Chen\noffice,office\n");
    writeText(root + "/db/database/dat.perm", "\n#O\tann\n#R\tcarol\n\n#O\toffice\n#R\t__ALL__\n");
    writeText(root + "/db/database/holidays", "Founders' Day*nonworkday:\t11/11/2026 - 11/11/2026\n");
    writeText(root + "/db/database/refclassdef", "\nevent*color:\t#1f4e8c;}body{x\nevent*purpose:\t<Appointments>\n");
    writeText(root + "/db/database/events/ann",
              "\n" + record('T', "Team meeting", nov(2, 9, 30), nov(2, 10, 30), "ann,office") +
                  record('T', "Doctor's visit", nov(5, 11, 0), nov(5, 12, 0), "ann") +
                  record('T', "<script>alert(1)</script> & co", nov(12, 12, 0), nov(12, 13, 0), "ann,office") +
                  record('D', "Send report", nov(10, 9, 0), nov(10, 9, 0), "ann") +
                  record('M', "Renew passport", nov(18, 8, 0), nov(18, 8, 0), "ann"));
  }
  void TearDown() override {
    resetCalendarView();
    std::filesystem::remove_all(root);
  }
  std::vector<AgentPair> reply(const std::string &query) { return calendarReply(root, query); }
  std::string page(const std::string &query) {
    std::vector<AgentPair> pairs = reply(query);
    return pairs.empty() ? "" : pairs.back().contents;
  }
  static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
};

TEST_F(CalendarReply, MonthViewShowsItemsHolidaysAndThePicture) {
  std::vector<AgentPair> pairs = reply("dn=127.0.0.1:2&view=month&user=ann&date=2026-11");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].name, "tmp/overview-ann-2026-11.svg");
  EXPECT_EQ(pairs[1].name, "");
  const std::string &html = pairs[1].contents, &svg = pairs[0].contents;
  EXPECT_TRUE(html.starts_with("Content-type: text/html\n\n<!DOCTYPE html>"));
  EXPECT_TRUE(has(html, "<img src=\"/tmp/overview-ann-2026-11.svg\""));
  EXPECT_TRUE(has(html, "For November 2026")) << "the listing's heading";
  EXPECT_TRUE(has(html, "<li class=\"event\"><i>09:30am-10:30am</i> Team meeting</li>"));
  EXPECT_TRUE(has(html, "<i>to do</i> Send report")) << "the own calendar's to-dos";
  EXPECT_TRUE(has(html, "<i>reminder</i> Renew passport"));
  EXPECT_TRUE(has(html, "Doctor&#39;s visit")) << "ann reads her own items";
  EXPECT_TRUE(has(html, "<td class=\"holiday\"><div class=\"num\"><a href=\"?dn=127.0.0.1:2&amp;view=day&amp;"
                        "user=ann&amp;date=2026-11-11\">11</a></div>\n<div class=\"holname\">Founders&#39; Day</div>"));
  // The picture: a cell per day, the holiday shaded, a valid document.
  EXPECT_TRUE(svg.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg "));
  EXPECT_TRUE(svg.ends_with("</svg>\n"));
  EXPECT_TRUE(has(svg, "<title>11: Founders&#39; Day, 1 item</title>")) << "the to-do of the 10th, still due";
  EXPECT_TRUE(has(svg, "November 2026"));
  size_t cells = 0;
  for (size_t at = 0; (at = svg.find("<g><title>", at)) != std::string::npos; at++) cells++;
  EXPECT_EQ(cells, 30u);
}

TEST_F(CalendarReply, TitlesAndClassLooksAreEscaped) {
  std::string html = page("user=ann&date=2026-11");
  EXPECT_FALSE(has(html, "<script>"));
  EXPECT_TRUE(has(html, "&lt;script&gt;alert(1)&lt;/script&gt; &amp; co"));
  EXPECT_FALSE(has(html, "}body{")) << "a class colour cannot close the rule";
  EXPECT_TRUE(has(html, ".event{color:#1f4e8cbodyx;"));
  EXPECT_TRUE(has(html, "<li class=\"event\">&lt;Appointments&gt;</li>")) << "the legend's purpose text";
  std::string err = page("user=%3Cb%3E");
  EXPECT_TRUE(has(err, "No calendar is called &quot;&lt;b&gt;&quot;.")) << err;
}

TEST_F(CalendarReply, PrivateItemsFollowTheViewersRights) {
  // bob may read office (everyone may) but not ann: her own items are withheld.
  std::string bob = page("view=month&user=ann&date=2026-11&as=bob");
  EXPECT_TRUE(has(bob, "Team meeting")) << "shared with office";
  EXPECT_FALSE(has(bob, "Doctor"));
  EXPECT_TRUE(has(bob, "<li class=\"event private\"><i>11:00am-12:00pm</i> (private)</li>"));
  EXPECT_FALSE(has(bob, "Send report")) << "an unreadable to-do is left out";
  EXPECT_FALSE(has(bob, "Renew passport"));
  EXPECT_TRUE(has(bob, "read as Bob Baker"));
  EXPECT_TRUE(has(bob, "&amp;as=bob&amp;")) << "links keep the viewer";
  // carol is on ann's readers.
  std::string carol = page("view=month&user=ann&date=2026-11&as=carol");
  EXPECT_TRUE(has(carol, "Doctor&#39;s visit"));
  EXPECT_TRUE(has(carol, "Send report"));
  EXPECT_FALSE(has(carol, "(private)"));
  // Rights change on disk: the next request reads them again.
  writeText(root + "/db/database/dat.perm", "\n#O\tann\n#R\tbob\n\n#O\toffice\n#R\t__ALL__\n");
  EXPECT_TRUE(has(page("user=ann&date=2026-11&as=bob"), "Doctor&#39;s visit"));
  EXPECT_TRUE(has(page("user=ann&date=2026-11&as=carol"), "(private)"));
}

TEST_F(CalendarReply, DayAndWeekViews) {
  std::string week = page("view=week&user=ann&date=2026-11-05");  // a Thursday
  EXPECT_TRUE(has(week, "For the week of November 1, 2026")) << "weeks start on the Sunday";
  EXPECT_TRUE(has(week, "Team meeting") && has(week, "Doctor"));
  EXPECT_FALSE(has(week, "Send report")) << "the 10th is in the next week";
  EXPECT_TRUE(has(week, "date=2026-10-29\">&larr; earlier")) << week;
  EXPECT_TRUE(has(week, "date=2026-11-12\">later &rarr;"));
  size_t cells = 0;
  for (size_t at = 0; (at = week.find("<td>", at)) != std::string::npos; at++) cells++;
  EXPECT_EQ(cells, 7u);
  std::string day = page("view=day&user=ann&date=2026-11-11");
  EXPECT_TRUE(has(day, "For November 11, 2026"));
  EXPECT_TRUE(has(day, "<td class=\"holiday\">"));
  EXPECT_FALSE(has(day, "Team meeting"));
  EXPECT_TRUE(has(day, "<th>Wednesday</th></tr>"));
  // A calendar without a record file is empty (not the viewer's calendar under its name).
  std::string office = page("view=week&user=office&date=2026-11-01&as=ann");
  EXPECT_FALSE(has(office.substr(office.find("<table")), "<li")) << office;
  // The picture of a day view outlines that day.
  std::vector<AgentPair> pairs = reply("view=day&user=ann&date=2026-11-11");
  EXPECT_TRUE(has(pairs[0].contents, "<title>11: Founders&#39; Day, 1 item</title><rect x=\"104\" y=\"68\" width=\"30\" "
                                     "height=\"26\" fill=\"#f8caca\" stroke=\"#d07a00\""));
}

TEST_F(CalendarReply, BadRequestsGetAnErrorPageAlone) {
  struct Row {
    const char *query;
    const char *status, *says;
  } rows[] = {
      {"view=month&user=zed&date=2026-11", "Status: 404 Not Found\n", "No calendar is called &quot;zed&quot;."},
      {"user=ann&as=zed", "Status: 404 Not Found\n", "No calendar is called &quot;zed&quot;."},
      {"user=ann&date=2040-01", "Status: 400 Bad Request\n", "outside the calendar&#39;s years"},
      {"user=ann&date=11/2026", "Status: 400 Bad Request\n", "not of the form YYYY-MM-DD"},
      {"view=list&user=ann", "Status: 400 Bad Request\n", "is not one of day, week or month"},
      {"dn=127.0.0.1", "Status: 400 Bad Request\n", "names no calendar"},
  };
  for (const Row &r : rows) {
    std::vector<AgentPair> pairs = reply(r.query);
    ASSERT_EQ(pairs.size(), 1u) << r.query;
    EXPECT_EQ(pairs[0].name, "");
    EXPECT_TRUE(pairs[0].contents.starts_with(std::string(r.status) + "Content-type: text/html\n\n")) << r.query;
    EXPECT_TRUE(has(pairs[0].contents, r.says)) << r.query << "\n" << pairs[0].contents;
  }
  EXPECT_TRUE(has(page("user=zed"), "Calendars of this database: ann, bob, carol, office"));
  // A database without its users file, then one that is no directory at all.
  std::filesystem::remove(root + "/db/users");
  EXPECT_TRUE(page("user=ann&date=2026-11").starts_with("Status: 503 Service Unavailable\n"));
  std::vector<AgentPair> none = calendarReply("/nonexistent/quorvel", "user=ann&date=2026-11");
  ASSERT_EQ(none.size(), 1u);
  EXPECT_TRUE(has(none[0].contents, "has no users file"));
}

TEST_F(CalendarReply, AHugeMonthIsCutToTheGatewaysReplySize) {
  // 31 days of 700 events with long titles: about 4 MB of page if listed whole.
  std::string items = "\n";
  for (int i = 0; i < 21000; i++) {
    int day = 1 + i % 30;
    items += record('T', "Booking " + std::to_string(i) + " " + std::string(100, 'x'), nov(day, 8, 0) + i / 30,
                    nov(day, 8, 0) + i / 30 + 60, "ann,office");
  }
  writeText(root + "/db/database/events/ann", items);
  std::vector<AgentPair> pairs = reply("user=ann&date=2026-11");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_LE(encodeAgentMessage(pairs).size(), CALVIEW_REPLY_MAX);
  EXPECT_GT(encodeAgentMessage(pairs).size(), CALVIEW_REPLY_MAX * 9 / 10) << "the room is used";
  const std::string &html = pairs[1].contents;
  size_t shown = 0, more = 0;
  for (size_t at = html.find("<table"); (at = html.find("<li class=\"event\">", at)) != std::string::npos; at++)
    shown++;
  for (size_t at = 0; (at = html.find(" more</a></li>", at)) != std::string::npos; at++) more++;
  EXPECT_EQ(more, 30u) << "every day says how many more it holds";
  EXPECT_EQ(shown % 30, 0u) << "each day lists the same number";
  EXPECT_TRUE(has(html, ">" + std::to_string(700 - shown / 30) + " more</a>"));
  EXPECT_TRUE(html.ends_with("</table>\n</body>\n</html>\n"));
  EXPECT_TRUE(has(pairs[0].contents, "<title>30, 700 items</title>")) << "the picture counts them all";
}

}  // namespace
}  // namespace quorvel::webagent
