// calendar_view_test.cpp -- the calendar mode in-process: queries and their refusals,
// the listing text cut into days, and whole replies from a small database on disk
// (escaping, private items per viewer, holidays, the picture, the size budget).
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "testing/calendar_page.h"
#include "testing/calendar_view.h"

namespace quorvel::webagent {
namespace {

TEST(CalendarQuery, ReadsKeysDatesAndDefaultsAndRefusesBadQueriesWithASentence) {
  // A query read shows as "period user as viewer date" (today is 2026-11-20); a refused
  // one by a part of its sentence.
  struct Row { const char *query; int rc; const char *says; };
  const int BAD = CALVIEW_MALFORMED, RANGE = CALVIEW_RANGE;
  for (const Row &r : {
           Row{"user=ann", 0, "month ann as ann 2026-11-20"},  // today, the user's own rights
           Row{"view=day&user=ann&date=2024-02-29&as=bob", 0, "day ann as bob 2024-02-29"},
           Row{"view=week&date=2026-01&user=ann", 0, "week ann as ann 2026-01-01"},
           Row{"user=an%6E+x&as=b%6Fb", 0, "month ann x as bob 2026-11-20"},
           Row{"user=ann&date=1970-01-01", 0, "month ann as ann 1970-01-01"},
           Row{"user=ann&date=2037-12-31", 0, "month ann as ann 2037-12-31"},
           Row{"", BAD, "names no calendar"}, Row{"view=month&date=2026-11", BAD, "user=NAME"},
           Row{"user=", BAD, "names no calendar"},
           Row{"user=ann&view=year", BAD, "\"year\" is not one of day, week or month"},
           Row{"user=ann&date=2026-13", BAD, "names no day"},
           Row{"user=ann&date=2026-02-29", BAD, "names no day"},
           Row{"user=ann&date=2026-11-00", BAD, "names no day"},
           Row{"user=ann&date=2026-1-05", BAD, "not of the form"},
           Row{"user=ann&date=26-11", BAD, "not of the form"},
           Row{"user=ann&date=2026-11-05x", BAD, "not of the form"},
           Row{"user=ann&date=", BAD, "not of the form"},
           Row{"user=ann&date=1969-12-31", RANGE, "outside the calendar's years 1970 to 2037"},
           Row{"user=ann&date=2038-01", RANGE, "outside"},
           Row{"user=ann&date=9999-12-31", RANGE, "outside"},
           Row{"user=a%0Ab", BAD, "not a calendar name"},
           Row{"user=ann&as=..%2Fusers", BAD, "given as as"}}) {  // "/" would leave events/
    CalendarQuery q;
    std::string problem;
    EXPECT_EQ(parseCalendarQuery(r.query, 2026, 11, 20, &q, &problem), r.rc) << r.query;
    if (r.rc != 0) {
      EXPECT_NE(problem.find(r.says), std::string::npos) << r.query << " said: " << problem;
      continue;
    }
    const char *period[] = {"day", "week", "month"};
    char date[16];
    snprintf(date, sizeof date, "%04d-%02d-%02d", q.year, q.month, q.day);
    EXPECT_EQ(std::string(period[int(q.period)]) + " " + q.user + " as " + q.viewer + " " + date,
              r.says) << problem;
  }
  CalendarQuery q;
  std::string problem;
  EXPECT_EQ(parseCalendarQuery("user=ann", 2040, 1, 1, &q, &problem), CALVIEW_RANGE)
      << "a clock past the range";
  ASSERT_EQ(parseCalendarQuery("dn=127.0.0.1:3&user=ann&lan=De&&x", 2026, 1, 1, &q, &problem), 0);
  EXPECT_EQ(q.kept, (std::vector<std::string>{"dn=127.0.0.1:3", "lan=De", "x"}))
      << "other fields kept as they came";
}

TEST(CalendarQuery, PercentCodingAndEscaping) {
  EXPECT_EQ(percentDecode("a%41%4a%zz%4%+b%"), "aAJ%zz%4% b%");  // bad escapes stay as they came
  EXPECT_EQ(percentDecode("%00x"), std::string("\0x", 2));
  EXPECT_EQ(percentEncode("ann o'b/é"), "ann%20o%27b%2F%C3%A9");
  EXPECT_EQ(percentDecode(percentEncode("x&y=z%")), "x&y=z%");
  EXPECT_EQ(htmlEscape("<a href=\"x\">Tom & Jerry's</a>"),
            "&lt;a href=&quot;x&quot;&gt;Tom &amp; Jerry&#39;s&lt;/a&gt;");
  EXPECT_EQ(fileNamePart("ann") + fileNamePart("../x y"), "ann___x_y");
  EXPECT_EQ(fileNamePart(std::string(60, 'a')).size(), 40u);
}

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
  std::vector<std::string> items;  // month and day, then each item as kind|times|text|flags
  for (const ListedDay &d : p.days) {
    items.push_back(std::to_string(d.month * 100 + d.day));
    for (const ListedItem &i : d.items)
      items.push_back(std::string(1, i.kind) + "|" + i.times + "|" + i.text +
                      (i.hidden ? "|hidden" : "") + (i.done ? "|done" : ""));
  }
  EXPECT_EQ(items, (std::vector<std::string>{
                       "1102", "e|09:30am-10:30am|Team meeting", "e|02:00pm-03:00pm|With\ta tab",
                       "t||Send report|done", "t||(private)|hidden", "r||Renew passport",
                       "1103", "t||Only a to-do", "1104", "r||Only a reminder",
                       "r||Second reminder", "1105",
                       "e|09:00 - 10:00|(private)|hidden",  // the 24-hour form
                       "1201", "e|12:00am-12:00am|All night"}));  // a second period follows
  EXPECT_EQ(parseListing("").days.size(), 0u);
  EXPECT_EQ(parseListing("\t\t#For May 1, 2026\n\n").days.size(), 0u);
}

// Seconds of 2026-11-<day> hh:mm UTC.
int32_t nov(int day, int hour, int minute) {
  struct tm tm{};
  tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = day, tm.tm_hour = hour, tm.tm_min = minute;
  return int32_t(timegm(&tm));
}
std::string record(char kind, const std::string &title, int32_t start, int32_t end,
                   const char *calendars) {
  char times[80];
  snprintf(times, sizeof times, "#B\t0x%x @0x0 %%0x0\n#F\t0x%x @0x0 %%0x0\n", unsigned(start),
           unsigned(end));
  return std::string("#") + kind + "\t" + title + "\n" + times + "#W\t" + calendars + "\n\n";
}
void writeText(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}
bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}
// Every part of yes is in text, none of no.
void expectParts(const std::string &text, std::vector<std::string> yes,
                 std::vector<std::string> no = {}) {
  for (const std::string &part : yes) EXPECT_TRUE(has(text, part)) << part << "\n" << text;
  for (const std::string &part : no) EXPECT_FALSE(has(text, part)) << part << "\n" << text;
}
size_t countOf(const std::string &text, const std::string &part, size_t from = 0) {
  size_t n = 0;
  for (size_t at = from; (at = text.find(part, at)) != std::string::npos; at++) n++;
  return n;
}

struct CalendarReply : ::testing::Test {
  std::string root, perm;
  void SetUp() override {
    char pattern[] = "/tmp/qvcal-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root = pattern, perm = root + "/db/database/dat.perm";
    std::filesystem::create_directories(root + "/db/database/events");
    std::filesystem::create_directories(root + "/db/database/locks");
    setenv("TZ", "UTC", 1);
    tzset();
    writeText(root + "/db/users",
              "ann,ann,,Ann Archer\nbob,bob,,Bob Baker\ncarol,carol,,Carol Chen\noffice,office\n");
    writeText(perm, "\n#O\tann\n#R\tcarol\n\n#O\toffice\n#R\t__ALL__\n");
    writeText(root + "/db/database/holidays", "Founders' Day*nonworkday:\t11/11/2026 - 11/11/2026\n");
    writeText(root + "/db/database/refclassdef",
              "\nevent*color:\t#1f4e8c;}body{x\nevent*purpose:\t<Appointments>\n");
    writeText(root + "/db/database/events/ann",
              "\n" + record('T', "Team meeting", nov(2, 9, 30), nov(2, 10, 30), "ann,office") +
                  record('T', "Doctor's visit", nov(5, 11, 0), nov(5, 12, 0), "ann") +
                  record('T', "<script>alert(1)</script> & co", nov(12, 12, 0), nov(12, 13, 0),
                         "ann,office") +
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
};

TEST_F(CalendarReply, MonthViewShowsItemsHolidaysAndThePictureAllEscaped) {
  std::vector<AgentPair> pairs = reply("dn=127.0.0.1:2&view=month&user=ann&date=2026-11");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].name, "tmp/overview-ann-2026-11.svg");
  EXPECT_EQ(pairs[1].name, "");
  const std::string &html = pairs[1].contents, &svg = pairs[0].contents;
  EXPECT_TRUE(html.starts_with("Content-type: text/html\n\n<!DOCTYPE html>"));
  expectParts(html, {"<img src=\"/tmp/overview-ann-2026-11.svg\"", "For November 2026",
                     "<li class=\"event\"><i>09:30am-10:30am</i> Team meeting</li>",
                     "<i>to do</i> Send report", "<i>reminder</i> Renew passport",
                     "Doctor&#39;s visit",  // ann reads her own items
                     "<td class=\"holiday\"><div class=\"num\"><a href=\"?dn=127.0.0.1:2&amp;"
                     "view=day&amp;user=ann&amp;date=2026-11-11\">11</a></div>\n"
                     "<div class=\"holname\">Founders&#39; Day</div>",
                     // Titles and class looks escaped: a colour cannot close the rule.
                     "&lt;script&gt;alert(1)&lt;/script&gt; &amp; co",
                     ".event{color:#1f4e8cbodyx;",
                     "<li class=\"event\">&lt;Appointments&gt;</li>"},  // the legend's text
              {"<script>", "}body{"});
  expectParts(page("user=%3Cb%3E"), {"No calendar is called &quot;&lt;b&gt;&quot;."});
  // The picture: a cell per day, the holiday shaded, a valid document.
  EXPECT_TRUE(svg.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg "));
  EXPECT_TRUE(svg.ends_with("</svg>\n"));
  // (the to-do of the 10th, still due, counts on the 11th)
  expectParts(svg, {"<title>11: Founders&#39; Day, 1 item</title>", "November 2026"});
  EXPECT_EQ(countOf(svg, "<g><title>"), 30u);
}

TEST_F(CalendarReply, PrivateItemsFollowTheViewersRights) {
  // bob may read office (everyone may) but not ann: her own items are withheld, an
  // unreadable to-do or reminder left out; links keep the viewer.
  expectParts(page("view=month&user=ann&date=2026-11&as=bob"),
              {"Team meeting", "<li class=\"event private\"><i>11:00am-12:00pm</i> (private)</li>",
               "read as Bob Baker", "&amp;as=bob&amp;"},
              {"Doctor", "Send report", "Renew passport"});
  // carol is on ann's readers.
  expectParts(page("view=month&user=ann&date=2026-11&as=carol"),
              {"Doctor&#39;s visit", "Send report"}, {"(private)"});
  // Rights change on disk: the next request reads them again.
  writeText(perm, "\n#O\tann\n#R\tbob\n\n#O\toffice\n#R\t__ALL__\n");
  expectParts(page("user=ann&date=2026-11&as=bob"), {"Doctor&#39;s visit"});
  expectParts(page("user=ann&date=2026-11&as=carol"), {"(private)"});
}

TEST_F(CalendarReply, DayAndWeekViews) {
  std::string week = page("view=week&user=ann&date=2026-11-05");  // a Thursday
  expectParts(week, {"For the week of November 1, 2026",  // weeks start on the Sunday
                     "Team meeting", "Doctor", "date=2026-10-29\">&larr; earlier",
                     "date=2026-11-12\">later &rarr;"},
              {"Send report"});  // the 10th is in the next week
  EXPECT_EQ(countOf(week, "<td>"), 7u);
  expectParts(page("view=day&user=ann&date=2026-11-11"),
              {"For November 11, 2026", "<td class=\"holiday\">", "<th>Wednesday</th></tr>"},
              {"Team meeting"});
  // A calendar without a record file is empty (not the viewer's calendar under its name).
  std::string office = page("view=week&user=office&date=2026-11-01&as=ann");
  expectParts(office.substr(office.find("<table")), {}, {"<li"});
  // The picture of a day view outlines that day.
  expectParts(reply("view=day&user=ann&date=2026-11-11")[0].contents,
              {"<title>11: Founders&#39; Day, 1 item</title><rect x=\"104\" y=\"68\" "
               "width=\"30\" height=\"26\" fill=\"#f8caca\" stroke=\"#d07a00\""});
}

TEST_F(CalendarReply, BadRequestsGetAnErrorPageAlone) {
  struct Row { const char *query, *status, *says; };
  const char *const NOT_FOUND = "404 Not Found", *const BAD = "400 Bad Request";
  for (const Row &r : {Row{"view=month&user=zed&date=2026-11", NOT_FOUND,
                           "No calendar is called &quot;zed&quot;."},
                       Row{"user=ann&as=zed", NOT_FOUND, "No calendar is called &quot;zed&quot;."},
                       Row{"user=ann&date=2040-01", BAD, "outside the calendar&#39;s years"},
                       Row{"user=ann&date=11/2026", BAD, "not of the form YYYY-MM-DD"},
                       Row{"view=list&user=ann", BAD, "is not one of day, week or month"},
                       Row{"dn=127.0.0.1", BAD, "names no calendar"}}) {
    std::vector<AgentPair> pairs = reply(r.query);
    ASSERT_EQ(pairs.size(), 1u) << r.query;
    EXPECT_EQ(pairs[0].name, "");
    EXPECT_TRUE(pairs[0].contents.starts_with(std::string("Status: ") + r.status +
                                              "\nContent-type: text/html\n\n")) << r.query;
    expectParts(pairs[0].contents, {r.says});
  }
  expectParts(page("user=zed"), {"Calendars of this database: ann, bob, carol, office"});
  // A database without its users file, then one that is no directory at all.
  std::filesystem::remove(root + "/db/users");
  EXPECT_TRUE(page("user=ann&date=2026-11").starts_with("Status: 503 Service Unavailable\n"));
  std::vector<AgentPair> none = calendarReply("/nonexistent/quorvel", "user=ann&date=2026-11");
  ASSERT_EQ(none.size(), 1u);
  expectParts(none[0].contents, {"has no users file"});
}

TEST_F(CalendarReply, AHugeMonthIsCutToTheGatewaysReplySize) {
  // 30 days of 700 events with long titles: about 4 MB of page if listed whole.
  std::string items = "\n";
  for (int i = 0; i < 21000; i++) {
    int32_t start = nov(1 + i % 30, 8, 0) + i / 30;
    items += record('T', "Booking " + std::to_string(i) + " " + std::string(100, 'x'), start,
                    start + 60, "ann,office");
  }
  writeText(root + "/db/database/events/ann", items);
  std::vector<AgentPair> pairs = reply("user=ann&date=2026-11");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_LE(encodeAgentMessage(pairs).size(), CALVIEW_REPLY_MAX);
  EXPECT_GT(encodeAgentMessage(pairs).size(), CALVIEW_REPLY_MAX * 9 / 10) << "the room is used";
  const std::string &html = pairs[1].contents;
  size_t shown = countOf(html, "<li class=\"event\">", html.find("<table"));
  EXPECT_EQ(countOf(html, " more</a></li>"), 30u) << "every day says how many more it holds";
  EXPECT_EQ(shown % 30, 0u) << "each day lists the same number";
  EXPECT_TRUE(has(html, ">" + std::to_string(700 - shown / 30) + " more</a>"));
  EXPECT_TRUE(html.ends_with("</table>\n</body>\n</html>\n"));
  EXPECT_TRUE(has(pairs[0].contents, "<title>30, 700 items</title>")) << "the picture counts all";
}

}  // namespace
}  // namespace quorvel::webagent
