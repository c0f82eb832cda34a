// webquorvel_test.cpp -- the webquorvel program run as a process, as a web server runs
// it: working directory cgi-bin/ of a temporary tree, the query in QUERY_STRING or on
// standard input, the sample agent on loopback; checks the page, the files and the exit
// status.
#include "gateway/test_support.h"
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <netinet/in.h>
#include <arpa/inet.h>
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
  std::string errPath = tree.root + "/stderr.txt";

  int in[2], out[2];
  EXPECT_EQ(pipe(in), 0);
  EXPECT_EQ(pipe(out), 0);
  pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    dup2(in[0], 0);
    dup2(out[1], 1);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (err >= 0) dup2(err, 2);
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
  void start(const AgentScript &script = AgentScript{}) {
    webagent::agentPush(&agent, script);
    ASSERT_EQ(webagent::agentStart(&agent, 0), 0);
  }
  void TearDown() override { webagent::agentStop(&agent); }
  std::string hostField() { return "hn=127.0.0.1:" + std::to_string(webagent::agentOffset(&agent)); }
};

const char PAGE_HEAD[] =
    "Content-type: text/html\n\n\n<html>\n<head>\n<title>Web Quorvel</title>\n</head>\n";
const char BODY_OPEN[] =
    "<br><br><br><br><br><br><br><br><center><table border=1 bgcolor=white><tr><td><h3>";
const char PAGE_END[] = "</td></tr></table></center>\n</body>\n</html>\n";

TEST_F(Webquorvel, ServesTheDemoReplyFromQueryString) {
  start();
  writeFile(tree.htdocs("tmp/stale.gif"), "stale");
  std::string query = hostField() + "&log=http://x/&name=a%20b";
  GatewayRun run = runGateway(tree, query, Via::Env);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, webagent::demoPage(query));  // nothing added to the agent's page
  EXPECT_EQ(readFile(tree.htdocs("tmp/demo-picture.svg")), webagent::demoPicture());
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/stale.gif")));  // tmp/ emptied first
  EXPECT_EQ(webagent::agentRequests(&agent), std::vector<std::string>{query});
}

TEST_F(Webquorvel, ReadsTheQueryFromStdinWhenQueryStringIsEmptyOrUnset) {
  start();
  std::string query = "dn=127.0.0.1%3A" + std::to_string(webagent::agentOffset(&agent)) + "&x=1";
  GatewayRun empty = runGateway(tree, query, Via::EmptyEnvAndStdin);
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, webagent::demoPage(query));
  GatewayRun unset = runGateway(tree, query + "&y=2", Via::NoEnvAndStdin);
  EXPECT_EQ(unset.status, 0);
  EXPECT_EQ(webagent::agentRequests(&agent),
            (std::vector<std::string>{query, query + "&y=2"}));  // line end stripped
}

TEST_F(Webquorvel, APageOnlyReplyLeavesTmpAlone) {
  AgentScript script;
  script.mode = AgentMode::Pairs;
  script.pairs = {{"", "Content-type: text/plain\n\nonly the page"}};
  start(script);
  writeFile(tree.htdocs("tmp/other-request.gif"), "keep");
  GatewayRun run = runGateway(tree, hostField(), Via::Env);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "Content-type: text/plain\n\nonly the page");
  EXPECT_EQ(readFile(tree.htdocs("tmp/other-request.gif")), "keep");
}

TEST_F(Webquorvel, WritesFilesInListOrderAndThePageLast) {
  AgentScript script;
  script.mode = AgentMode::Pairs;
  script.pairs = {{"", "PAGE"},
                  {"tmp/a.txt", "first"},
                  {"nodir/b.txt", "lost"},
                  {"top.html", "top"},
                  {"tmp/a.txt", "second"}};
  start(script);
  writeFile(tree.htdocs("tmp/stale"), "x");
  GatewayRun run = runGateway(tree, hostField(), Via::Env);
  EXPECT_EQ(run.status, 0);
  // The report for the unwritable file comes out before the page, though the page
  // was the first pair.
  EXPECT_EQ(run.out, "failed to open ../htdocs/nodir/b.txt successfullyPAGE");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "second");
  EXPECT_EQ(readFile(tree.htdocs("top.html")), "top");
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/stale")));
}

TEST_F(Webquorvel, WritesManyLargeFiles) {
  AgentScript script;
  script.mode = AgentMode::Files;
  script.fileCount = 8;
  script.fileSize = 100000;
  start(script);
  GatewayRun run = runGateway(tree, hostField(), Via::Env);
  EXPECT_EQ(run.status, 0);
  for (int i = 0; i < 8; i++) {
    std::string body = readFile(tree.htdocs("tmp/file-" + std::to_string(i) + ".txt"));
    EXPECT_EQ(body.size(), 100000u);
    EXPECT_EQ(body[0], static_cast<char>('a' + i));
  }
}

TEST_F(Webquorvel, ThePutOptionChangesNothing) {
  start();
  std::string query = hostField();
  GatewayRun plain = runGateway(tree, query, Via::Env);
  GatewayRun put = runGateway(tree, query, Via::Env, {"-put"});
  EXPECT_EQ(put.status, 0);
  EXPECT_EQ(put.out, plain.out);
}

TEST_F(Webquorvel, MissingHostGivesMessageOneInEnglishOrGerman) {
  GatewayRun en = runGateway(tree, "log=http://back&rpt=/ic&lan=de", Via::Env);
  EXPECT_EQ(en.status, 255);
  EXPECT_EQ(en.out, std::string(PAGE_HEAD) + "<body background=\"/ic/bg4.gif\">\n" + BODY_OPEN +
                        "An error occurred processing your request:</h3>\n<h4>" +
                        "Cannot find host name in query log=http://back&rpt=/ic&lan=de</h4>\n" +
                        "<center>\n<a href=\"http://back\">\n" +
                        "<IMG src=\"/ic/blogin.gif\" border=0></a>\n</center>\n" + PAGE_END);
  GatewayRun de = runGateway(tree, "lan=De&dn=", Via::Env);
  EXPECT_EQ(de.status, 255);
  EXPECT_EQ(de.out, std::string(PAGE_HEAD) + "<body background=\"/icons/bg4.gif\">\n" +
                        BODY_OPEN + "Fehler bei der Verarbeitung Ihrer Anforderung:</h3>\n<h4>" +
                        "Hostname in Abfrage lan=De&dn= nicht gefunden</h4>\n" + PAGE_END);
}

// An offset from 3726 at which nobody listens.
int deadOffset() {
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(probe, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(probe, reinterpret_cast<sockaddr *>(&addr), &len);
  close(probe);
  return ntohs(addr.sin_port) - 3726;
}

TEST_F(Webquorvel, RefusedConnectionGivesMessageTwo) {
  std::string query = "hn=127.0.0.1:" + std::to_string(deadOffset());
  GatewayRun en = runGateway(tree, query, Via::Env);
  EXPECT_EQ(en.status, 255);
  EXPECT_EQ(en.out, std::string(PAGE_HEAD) + "<body background=\"/icons/bg4.gif\">\n" +
                        BODY_OPEN + "An error occurred processing your request:</h3>\n<h4>" +
                        "Cannot connect to Quorvel web agent on host 127.0.0.1</h4>\n" + PAGE_END);
  GatewayRun de = runGateway(tree, query + "&lan=De", Via::Env);
  EXPECT_EQ(de.status, 255);
  EXPECT_NE(de.out.find("<h4>Verbindung mit Quorvel-Webagent auf Host 127.0.0.1 nicht m\xF6glich"
                        "</h4>\n"),
            std::string::npos);
}

TEST_F(Webquorvel, MalformedRepliesGiveMessageFourAndWriteNothing) {
  for (AgentMode mode : {AgentMode::BadMagic, AgentMode::Oversize, AgentMode::LongName,
                         AgentMode::ExtraBytes, AgentMode::Raw}) {
    AgentScript script;
    script.mode = mode;
    script.pairs = {{"tmp/x.txt", "x"}, {"", "page"}};
    script.raw = std::string("\xDE\xAD\xBE\xEF\0\0\0\x01\0\0\0\x18", 12) +
                 std::string(12, '\0');  // one entry whose length word is 0
    webagent::agentPush(&agent, script);
  }
  start(AgentScript{});  // after the five scripted replies, demo replies
  for (const char *lang : {"En_US", "De", "", "De", "x"}) {
    std::string query = hostField() + "&lan=" + lang;
    GatewayRun run = runGateway(tree, query, Via::Env);
    EXPECT_EQ(run.status, 255) << lang;
    std::string want = strcmp(lang, "De") == 0
                           ? "<h4>Fehler beim Lesen vom Quorvel-Webagent auf Host 127.0.0.1</h4>\n"
                           : "<h4>Read failed from Quorvel web agent on host 127.0.0.1</h4>\n";
    EXPECT_NE(run.out.find(want), std::string::npos) << run.out;
  }
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/x.txt")));
  EXPECT_EQ(runGateway(tree, hostField(), Via::Env).status, 0);  // the agent is fine again
}

}  // namespace
}  // namespace quorvel::gateway
