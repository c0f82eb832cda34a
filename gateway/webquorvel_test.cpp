// webquorvel_test.cpp -- the webquorvel program run as a process, as a web server runs
// it: working directory cgi-bin/ of a temporary tree, the query in QUERY_STRING or on
// standard input, the sample agent on loopback; checks the page, the files and the exit
// status.
#include "gateway/test_support.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace quorvel::gateway {
namespace {

using test::CgiTree;
using test::readFile;
using test::writeFile;
using webagent::AgentMode;
using webagent::AgentScript;

struct GatewayRun {
  int status = -1;   // exit status
  std::string out;   // standard output
};

// How the query reaches the program.
enum class Via { Env, EmptyEnvAndStdin, NoEnvAndStdin };

// Starts webquorvel in tree's cgi-bin/ with query in the environment or on stdin.
GatewayRun runGateway(const CgiTree &tree, const std::string &query, Via via,
                      std::vector<std::string> args = {}) {
  std::vector<std::string> env = {"PATH=/usr/bin:/bin"};
  if (via == Via::Env) env.push_back("QUERY_STRING=" + query);
  if (via == Via::EmptyEnvAndStdin) env.push_back("QUERY_STRING=");
  std::vector<char *> envp, argv;
  for (std::string &e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string prog = WEBQUORVEL_PATH;
  argv.push_back(prog.data());
  for (std::string &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::string dir = tree.cgiBin();
  int in[2], out[2];
  EXPECT_EQ(pipe(in), 0);
  EXPECT_EQ(pipe(out), 0);
  pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    dup2(in[0], 0);
    dup2(out[1], 1);
    close(in[1]);
    close(out[0]);
    if (chdir(dir.c_str()) != 0) _exit(99);
    execve(argv[0], argv.data(), envp.data());
    _exit(98);
  }
  close(in[0]);
  close(out[1]);
  if (via != Via::Env) {
    std::string line = query + "\n";
    EXPECT_EQ(write(in[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  close(in[1]);
  GatewayRun run;
  char chunk[65536];
  ssize_t n;
  while ((n = read(out[0], chunk, sizeof chunk)) > 0) run.out.append(chunk, static_cast<size_t>(n));
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  return run;
}

struct Webquorvel : ::testing::Test {
  CgiTree tree{false};
  webagent::SampleAgent agent;
  void start(std::vector<AgentScript> scripts = {AgentScript{}}) {
    for (const AgentScript &s : scripts) webagent::agentPush(&agent, s);
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override { webagent::agentStop(&agent); }
  std::string hostField() { return "hn=127.0.0.1:" + std::to_string(webagent::agentOffset(&agent)); }
};

AgentScript pairsScript(std::vector<webagent::AgentPair> pairs, AgentMode mode = AgentMode::Pairs) {
  AgentScript script;
  script.mode = mode;
  script.pairs = std::move(pairs);
  return script;
}

TEST_F(Webquorvel, ServesTheDemoReplyWithTheQueryFromTheEnvironmentOrStdin) {
  start();
  writeFile(tree.htdocs("tmp/stale.gif"), "stale");
  mkdir(tree.htdocs("tmp/sub").c_str(), 0755);
  writeFile(tree.htdocs("tmp/sub/deep.txt"), "deep");
  writeFile(tree.htdocs("keep.html"), "keep");
  std::string query = hostField() + "&log=http://x/&name=a%20b";
  GatewayRun run = runGateway(tree, query, Via::Env);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, webagent::demoPage(query));  // nothing added to the agent's page
  EXPECT_EQ(readFile(tree.htdocs("tmp/demo-picture.svg")), webagent::demoPicture());
  // tmp/ was emptied first, and only tmp/.
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/stale.gif")));
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/sub")));
  EXPECT_EQ(readFile(tree.htdocs("keep.html")), "keep");
  // An empty or missing QUERY_STRING: one line of standard input, its line end stripped.
  std::string viaStdin = "dn=127.0.0.1%3A" + std::to_string(webagent::agentOffset(&agent));
  EXPECT_EQ(runGateway(tree, viaStdin, Via::EmptyEnvAndStdin).out, webagent::demoPage(viaStdin));
  EXPECT_EQ(runGateway(tree, viaStdin + "&y", Via::NoEnvAndStdin).status, 0);
  // "-put" changes nothing.
  GatewayRun put = runGateway(tree, query, Via::Env, {"-put"});
  EXPECT_EQ(put.status, 0);
  EXPECT_EQ(put.out, run.out);
  EXPECT_EQ(webagent::agentRequests(&agent),
            (std::vector<std::string>{query, viaStdin, viaStdin + "&y", query}));
}

TEST_F(Webquorvel, WritesFilesInListOrderThePageLastAndLeavesTmpForAPageOnly) {
  std::string big(100000, 'b');
  start({pairsScript({{"", "PAGE"}, {"tmp/a.txt", "first"}, {"nodir/b.txt", "lost"},
                      {"top.html", big}, {"tmp/a.txt", "second"}}),
         pairsScript({{"", "Content-type: text/plain\n\nonly the page"}})});
  GatewayRun run = runGateway(tree, hostField(), Via::Env);
  EXPECT_EQ(run.status, 0);
  // The report for the unwritable file comes before the page, the first pair.
  EXPECT_EQ(run.out, "failed to open ../htdocs/nodir/b.txt successfullyPAGE");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");
  EXPECT_EQ(readFile(tree.htdocs("top.html")), big);
  GatewayRun page = runGateway(tree, hostField(), Via::Env);
  EXPECT_EQ(page.status, 0);
  EXPECT_EQ(page.out, "Content-type: text/plain\n\nonly the page");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");  // one pair: tmp/ left alone
}

TEST_F(Webquorvel, ShowsMessagesOneAndTwoAndExits255) {
  GatewayRun en = runGateway(tree, "log=http://back&rpt=/ic&lan=de", Via::Env);
  EXPECT_EQ(en.status, 255);
  EXPECT_EQ(en.out, test::errorPageText(test::ENGLISH_HEADING,
                                        "Cannot find host name in query "
                                        "log=http://back&rpt=/ic&lan=de",
                                        "/ic", "http://back"));
  GatewayRun de = runGateway(tree, "lan=De&dn=", Via::Env);
  EXPECT_EQ(de.status, 255);
  EXPECT_EQ(de.out, test::errorPageText(test::GERMAN_HEADING,
                                        "Hostname in Abfrage lan=De&dn= nicht gefunden"));
  std::string query = "hn=127.0.0.1:" + std::to_string(test::freeLoopbackPort() - 3726);
  GatewayRun refused = runGateway(tree, query + "&rpt=/r", Via::Env);
  EXPECT_EQ(refused.status, 255);
  EXPECT_EQ(refused.out, test::errorPageText(test::ENGLISH_HEADING,
                                             "Cannot connect to Quorvel web agent on host "
                                             "127.0.0.1", "/r"));
}

TEST_F(Webquorvel, MalformedRepliesGiveMessageFourAndWriteNothing) {
  AgentScript raw = pairsScript({}, AgentMode::Raw);
  raw.raw = std::string("\xDE\xAD\xBE\xEF\0\0\0\x01\0\0\0\x18", 12) +
            std::string(12, '\0');  // one entry whose length word is 0
  std::vector<webagent::AgentPair> pairs = {{"tmp/x.txt", "x"}, {"", "page"}};
  start({pairsScript(pairs, AgentMode::BadMagic), pairsScript(pairs, AgentMode::Oversize),
         pairsScript(pairs, AgentMode::LongName), pairsScript(pairs, AgentMode::ExtraBytes), raw,
         AgentScript{}});
  for (const char *lang : {"En_US", "De", "", "De", "x"}) {
    GatewayRun run = runGateway(tree, hostField() + "&lan=" + lang, Via::Env);
    EXPECT_EQ(run.status, 255) << lang;
    bool de = strcmp(lang, "De") == 0;
    EXPECT_EQ(run.out, test::errorPageText(
                           de ? test::GERMAN_HEADING : test::ENGLISH_HEADING,
                           de ? "Fehler beim Lesen vom Quorvel-Webagent auf Host 127.0.0.1"
                              : "Read failed from Quorvel web agent on host 127.0.0.1"));
  }
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/x.txt")));
  EXPECT_EQ(runGateway(tree, hostField(), Via::Env).status, 0);  // the agent is fine again
}

}  // namespace
}  // namespace quorvel::gateway
