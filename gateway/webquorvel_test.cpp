// webquorvel_test.cpp -- the program run as a web server runs it, in a temporary CGI
// tree against the sample agent: the page, the files and the exit status.
#include "gateway/test_support.h"

namespace quorvel::gateway {
using webagent::AgentMode;

// The query in the environment, or on standard input (where it always waits too).
const char ENV[] = "QUERY_STRING=\"$QV_QUERY\"", EMPTY[] = "QUERY_STRING=", UNSET[] = "";
struct Webquorvel : AgentFixture {
  CgiTree tree;
  // Runs webquorvel in the tree's cgi-bin/, expecting exitStatus; its standard output.
  std::string run(const std::string &query, const char *via = ENV, const char *args = "",
                  int exitStatus = 0) {
    setenv("QV_QUERY", query.c_str(), 1);
    int status = -1;
    std::string out = commandOutput("printf '%s\\n' \"$QV_QUERY\" | env -u QUERY_STRING " +
                                    std::string(via) + " '" WEBQUORVEL_PATH "' " + args, &status);
    EXPECT_EQ(status, exitStatus) << query;
    return out;
  }
};

TEST_F(Webquorvel, ServesTheDemoReplyWithTheQueryFromTheEnvironmentOrStdin) {
  start();
  mkdir(tree.htdocs("tmp/sub").c_str(), 0755);
  writeFile(tree.htdocs("tmp/sub/deep.txt"), "deep");
  writeFile(tree.htdocs("keep.html"), "keep");
  std::string query = hostField() + "&log=http://x/&name=a%20b";
  EXPECT_EQ(run(query), webagent::demoPage(query));  // nothing added to the agent's page
  EXPECT_EQ(readFile(tree.htdocs("tmp/demo-picture.svg")), webagent::demoPicture());
  EXPECT_FALSE(exists(tree.htdocs("tmp/sub")));  // tmp/ was emptied first, and only tmp/
  EXPECT_EQ(readFile(tree.htdocs("keep.html")), "keep");
  // An empty or missing QUERY_STRING: one line of standard input, its line end stripped.
  std::string viaStdin = "dn=127.0.0.1%3A" + std::to_string(offset());
  EXPECT_EQ(run(viaStdin, EMPTY), webagent::demoPage(viaStdin));
  EXPECT_EQ(run(viaStdin + "&y", UNSET), webagent::demoPage(viaStdin + "&y"));
  EXPECT_EQ(run(query, ENV, "-put"), webagent::demoPage(query));  // "-put" changes nothing
  EXPECT_EQ(webagent::agentRequests(&agent),
            (std::vector<std::string>{query, viaStdin, viaStdin + "&y", query}));
}
TEST_F(Webquorvel, WritesFilesInListOrderThePageLastAndLeavesTmpForAPageOnly) {
  std::string big(100000, 'b'), plain = "Content-type: text/plain\n\nonly the page";
  start({{AgentMode::Pairs, {{"", "PAGE"}, {"tmp/a.txt", "first"}, {"nodir/b.txt", "lost"},
                             {"top.html", big}, {"tmp/a.txt", "second"}}},
         {AgentMode::Pairs, {{"", plain}}}});
  // The report for the unwritable file comes before the page, the first pair.
  EXPECT_EQ(run(hostField()), "failed to open ../htdocs/nodir/b.txt successfullyPAGE");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");
  EXPECT_EQ(readFile(tree.htdocs("top.html")), big);
  EXPECT_EQ(run(hostField()), plain);
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");  // one pair: tmp/ left alone
}
TEST_F(Webquorvel, ShowsTheErrorPageAndExits255WhenNoAgentAnswersWell) {
  start({{AgentMode::BadMagic, {{"tmp/x.txt", "x"}, {"", "page"}}}, {}});
  std::string refused = "hn=127.0.0.1:" + std::to_string(freeLoopbackPort() - 3726) + "&rpt=/r";
  std::string noHost = "log=http://back&rpt=/ic&lan=de";
  struct Row { std::string query, page; } rows[] = {
      {noHost, errorPageText(ENGLISH_HEADING, "Cannot find host name in query " + noHost, "/ic",
                             "http://back")},
      {"dn=&lan=De",
       errorPageText(GERMAN_HEADING, "Hostname in Abfrage dn=&lan=De nicht gefunden")},
      {refused, errorPageText(ENGLISH_HEADING,
                              "Cannot connect to Quorvel web agent on host 127.0.0.1", "/r")},
      {hostField() + "&lan=De",  // a malformed reply: nothing written
       errorPageText(GERMAN_HEADING, "Fehler beim Lesen vom Quorvel-Webagent auf Host 127.0.0.1")},
  };
  for (const Row &r : rows) EXPECT_EQ(run(r.query, ENV, "", 255), r.page);
  EXPECT_FALSE(exists(tree.htdocs("tmp/x.txt")));
  EXPECT_EQ(run(hostField()), webagent::demoPage(hostField()));  // the agent is fine again
}
}  // namespace quorvel::gateway
