// webquorvel_test.cpp -- the webquorvel program run as a process, as a web server runs
// it: working directory cgi-bin/ of a temporary tree, the query in QUERY_STRING or on
// standard input, the sample agent on loopback; checks the page, the files and the exit
// status.
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/wait.h>

namespace quorvel::gateway {
namespace {

using namespace test;
using webagent::AgentMode;

struct GatewayRun {
  int status = -1;  // exit status
  std::string out;  // standard output
};

// How the query reaches the program: the environment, or standard input behind an
// empty or a missing QUERY_STRING. The query always waits on standard input too.
const char ENV[] = "QUERY_STRING=\"$QV_QUERY\"", EMPTY[] = "QUERY_STRING=", UNSET[] = "";

// Runs webquorvel in tree's cgi-bin/, as a web server would.
GatewayRun runGateway(const CgiTree &tree, const std::string &query, const char *via,
                      const char *args = "") {
  setenv("QV_QUERY", query.c_str(), 1);
  std::string cmd = "cd '" + tree.cgiBin() + "' && printf '%s\\n' \"$QV_QUERY\" | " +
                    "env -u QUERY_STRING " + via + " '" WEBQUORVEL_PATH "' " + args;
  FILE *pipe = popen(cmd.c_str(), "r");
  GatewayRun run;
  char chunk[65536];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) run.out.append(chunk, n);
  int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

struct Webquorvel : AgentFixture {
  CgiTree tree{false};
};

TEST_F(Webquorvel, ServesTheDemoReplyWithTheQueryFromTheEnvironmentOrStdin) {
  start();
  writeFile(tree.htdocs("tmp/stale.gif"), "stale");
  mkdir(tree.htdocs("tmp/sub").c_str(), 0755);
  writeFile(tree.htdocs("tmp/sub/deep.txt"), "deep");
  writeFile(tree.htdocs("keep.html"), "keep");
  std::string query = hostField() + "&log=http://x/&name=a%20b";
  GatewayRun run = runGateway(tree, query, ENV);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, webagent::demoPage(query));  // nothing added to the agent's page
  EXPECT_EQ(readFile(tree.htdocs("tmp/demo-picture.svg")), webagent::demoPicture());
  // tmp/ was emptied first, and only tmp/.
  EXPECT_FALSE(exists(tree.htdocs("tmp/stale.gif")));
  EXPECT_FALSE(exists(tree.htdocs("tmp/sub")));
  EXPECT_EQ(readFile(tree.htdocs("keep.html")), "keep");
  // An empty or missing QUERY_STRING: one line of standard input, its line end stripped.
  std::string viaStdin = "dn=127.0.0.1%3A" + std::to_string(offset());
  EXPECT_EQ(runGateway(tree, viaStdin, EMPTY).out, webagent::demoPage(viaStdin));
  EXPECT_EQ(runGateway(tree, viaStdin + "&y", UNSET).status, 0);
  // "-put" changes nothing.
  GatewayRun put = runGateway(tree, query, ENV, "-put");
  EXPECT_EQ(put.status, 0);
  EXPECT_EQ(put.out, run.out);
  EXPECT_EQ(webagent::agentRequests(&agent),
            (std::vector<std::string>{query, viaStdin, viaStdin + "&y", query}));
}

TEST_F(Webquorvel, WritesFilesInListOrderThePageLastAndLeavesTmpForAPageOnly) {
  std::string big(100000, 'b');
  start({scripted(AgentMode::Pairs, {{"", "PAGE"}, {"tmp/a.txt", "first"},
                                     {"nodir/b.txt", "lost"}, {"top.html", big},
                                     {"tmp/a.txt", "second"}}),
         scripted(AgentMode::Pairs, {{"", "Content-type: text/plain\n\nonly the page"}})});
  GatewayRun run = runGateway(tree, hostField(), ENV);
  EXPECT_EQ(run.status, 0);
  // The report for the unwritable file comes before the page, the first pair.
  EXPECT_EQ(run.out, "failed to open ../htdocs/nodir/b.txt successfullyPAGE");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");
  EXPECT_EQ(readFile(tree.htdocs("top.html")), big);
  GatewayRun page = runGateway(tree, hostField(), ENV);
  EXPECT_EQ(page.status, 0);
  EXPECT_EQ(page.out, "Content-type: text/plain\n\nonly the page");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");  // one pair: tmp/ left alone
}

TEST_F(Webquorvel, ShowsMessagesOneAndTwoAndExits255) {
  std::string refused = "hn=127.0.0.1:" + std::to_string(freeLoopbackPort() - 3726) + "&rpt=/r";
  struct Row { std::string query, page; } rows[] = {
      {"log=http://back&rpt=/ic&lan=de",
       errorPageText(ENGLISH_HEADING,
                     "Cannot find host name in query log=http://back&rpt=/ic&lan=de", "/ic",
                     "http://back")},
      {"lan=De&dn=",
       errorPageText(GERMAN_HEADING, "Hostname in Abfrage lan=De&dn= nicht gefunden")},
      {refused, errorPageText(ENGLISH_HEADING,
                              "Cannot connect to Quorvel web agent on host 127.0.0.1", "/r")},
  };
  for (const Row &r : rows) {
    GatewayRun run = runGateway(tree, r.query, ENV);
    EXPECT_EQ(run.status, 255) << r.query;
    EXPECT_EQ(run.out, r.page);
  }
}

TEST_F(Webquorvel, AMalformedReplyGivesMessageFourAndWritesNothing) {
  start({scripted(AgentMode::BadMagic, {{"tmp/x.txt", "x"}, {"", "page"}}),
         webagent::AgentScript{}});
  GatewayRun run = runGateway(tree, hostField() + "&lan=De", ENV);
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.out, errorPageText(GERMAN_HEADING,
                                   "Fehler beim Lesen vom Quorvel-Webagent auf Host 127.0.0.1"));
  EXPECT_FALSE(exists(tree.htdocs("tmp/x.txt")));
  EXPECT_EQ(runGateway(tree, hostField(), ENV).status, 0);  // the agent is fine again
}

}  // namespace
}  // namespace quorvel::gateway
