// hardening_test.cpp -- hardened mode against a hostile agent and a hostile query: no
// file written outside htdocs, no connection off the allowlist, escaped error pages, a
// request cut at its deadline; and the default mode still doing what it always did.
#include "gateway/gateway.h"
#include "gateway/hardening.h"
#include "gateway/test_support.h"

#include <csignal>
#include <filesystem>

namespace quorvel::gateway {
using webagent::AgentMode;
using webagent::AgentScript;

TEST(HardeningSettings, ReadsTheFileThenTheEnvironmentAndNamesTheFirstBadLine) {
  struct Row { const char *text; int badLine; } rows[] = {  // badLine 0: read whole
      {"# c\n\nhardened = on\nagent = 127.0.0.1:4\nagent=web.example\n"
       "folder = pics\nfolder=tmp\ndeadline = 30\n", 0},
      {"hardened = maybe\n", 1}, {"agent = a:70000\n", 1}, {"ok\n", 1}, {"folder = ..\n", 1},
      {"folder = a/b\n", 1}, {"deadline = 0\n", 1}, {"deadline = 3601\n", 1},
      {"hardened = on\ncolour = blue\n", 2}, {"agent = :3\n", 1}};
  for (const Row &r : rows) {
    Hardening h;
    std::string problem;
    EXPECT_EQ(parseHardening(r.text, strlen(r.text), &h, &problem), r.badLine) << r.text;
    EXPECT_EQ(problem.empty(), r.badLine == 0) << r.text;
  }
  Hardening h;
  std::string problem;
  ASSERT_EQ(parseHardening(rows[0].text, strlen(rows[0].text), &h, &problem), 0);
  EXPECT_TRUE(h.on);
  ASSERT_EQ(h.agents.size(), 2u);
  EXPECT_TRUE(h.agents[0].host == "127.0.0.1" && h.agents[0].offset == 4);
  EXPECT_TRUE(h.agents[1].host == "web.example" && h.agents[1].offset == 0);
  EXPECT_EQ(h.folders, (std::vector<std::string>{"pics", "tmp"}));  // replaces "tmp"
  EXPECT_EQ(h.deadlineSeconds, 30);
  // The environment wins, its lists replace the file's; a bad value is refused.
  setenv("QUORVEL_HARDENED", "yes", 1), setenv("QUORVEL_AGENTS", "a:1, b", 1);
  setenv("QUORVEL_FOLDERS", "x y", 1), setenv("QUORVEL_DEADLINE", "7", 1);
  EXPECT_EQ(applyHardeningEnv(&h, &problem), 0);
  EXPECT_TRUE(h.on && h.agents.size() == 2 && h.agents[1].host == "b" && h.deadlineSeconds == 7);
  EXPECT_EQ(h.folders, (std::vector<std::string>{"x", "y"}));
  setenv("QUORVEL_FOLDERS", "../up", 1);
  EXPECT_EQ(applyHardeningEnv(&h, &problem), -1);
  for (const char *v : {"QUORVEL_HARDENED", "QUORVEL_AGENTS", "QUORVEL_FOLDERS", "QUORVEL_DEADLINE"})
    unsetenv(v);
}

// Reply files written in-process into a tree with links and a FIFO planted in htdocs.
struct HostileNames : ::testing::Test {
  CgiTree tree;
  std::string outside = tree.root + "/outside";
  void SetUp() override {
    mkdir(outside.c_str(), 0755);
    symlink("../outside", tree.htdocs("link").c_str());
    symlink("../../outside/evil.txt", tree.htdocs("tmp/evil").c_str());
    mkfifo(tree.htdocs("fifo").c_str(), 0644);
  }
  void TearDown() override { resetGateway(); }
  std::vector<std::string> outsideFiles() {
    std::vector<std::string> names;
    for (auto &e : std::filesystem::directory_iterator(outside)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string write(const std::string &name) {  // what the gateway printed
    return outputOf([&] { writeHtdocsFile(name.c_str(), "x"); });
  }
};

TEST_F(HostileNames, DefaultModeTakesTheNamesAsGivenHardenedModeWritesOnlyBelowHtdocs) {
  EXPECT_EQ(write("../outside/a.txt") + write("link/c.txt"), "");
  EXPECT_EQ(outsideFiles(), (std::vector<std::string>{"a.txt", "c.txt"}));
  std::filesystem::remove_all(outside), mkdir(outside.c_str(), 0755);
  Hardening h;
  h.on = true, h.folders = {"tmp", "link"};
  setHardening(h);
  for (const std::string &name : std::vector<std::string>{
           "../outside/a.txt", outside + "/abs.txt", "tmp/../../outside/b.txt", "link/c.txt",
           "tmp/evil", "fifo", "sub/d.txt", "", "tmp/", "a/b/c"})
    EXPECT_EQ(write(name), "failed to open ../htdocs/" + name + " successfully") << name;
  EXPECT_TRUE(outsideFiles().empty());
  // Good names still land (after a refusal), in htdocs and in an allowed folder.
  EXPECT_EQ(write("week.html") + write("tmp/day.html"), "");
  EXPECT_EQ(readFile(tree.htdocs("week.html")) + readFile(tree.htdocs("tmp/day.html")), "xx");
  // The name shown in the refusal is escaped like every value on the page.
  EXPECT_EQ(write("a/<b>"), "failed to open ../htdocs/a/&lt;b&gt; successfully");
  // A planted tmp/ link is not emptied through.
  std::filesystem::remove_all(tree.htdocs("tmp"));
  writeFile(outside + "/keep", "k");
  symlink("../outside", tree.htdocs("tmp").c_str());
  clearTmpDir();
  EXPECT_EQ(readFile(outside + "/keep"), "k");
}

TEST(HardenedPage, AllowlistIsExactAndPageValuesAreEscapedOnlyWhenHardened) {
  EXPECT_TRUE(agentAllowed("evil.example", 9));  // off: anything goes
  Hardening h;
  h.on = true, h.agents = {{"127.0.0.1", 2}, {"Agent.Example", 0}};
  setHardening(h);
  EXPECT_TRUE(agentAllowed("127.0.0.1", 2) && agentAllowed("agent.example", 0));
  EXPECT_FALSE(agentAllowed("127.0.0.1", 0) || agentAllowed("127.0.0.2", 2) ||
               agentAllowed("agent.example.evil", 0));
  setPageValues("\"><script>x()</script>", "/i'c", nullptr);
  EXPECT_EQ(errorPageText("host <b>&"),
            errorPageText(ENGLISH_HEADING, "host &lt;b&gt;&amp;", "/i&#39;c",
                          "&quot;&gt;&lt;script&gt;x()&lt;/script&gt;"));
  resetGateway();
  setPageValues("\"><script>", "/i", nullptr);
  EXPECT_EQ(errorPageText("<b>"), errorPageText(ENGLISH_HEADING, "<b>", "/i", "\"><script>"));
  resetGateway();  // default mode: as given
}

// The program itself, copied into cgi-bin/ as deployed, settings beside it or in its
// environment, against hostile agents.
struct HardenedProgram : AgentFixture {
  CgiTree tree;
  std::string program = tree.root + "/cgi-bin/webquorvel", conf = program + ".conf";
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    std::filesystem::copy_file(WEBQUORVEL_PATH, program);
  }
  // The page printed for query with env added; status (and standard error) as given.
  void expectRun(const std::string &query, const std::string &env, const std::string &page,
                 int status = -1, const std::string &err = "/dev/null") {
    int got = -2;
    setenv("QV_QUERY", query.c_str(), 1);
    EXPECT_EQ(commandOutput("env QUERY_STRING=\"$QV_QUERY\" " + env + " '" + program + "' 2>" +
                            err, &got), page) << query << " " << env;
    if (status >= 0) {
      EXPECT_EQ(got, status) << query << " " << env;
    }
  }
  std::string agents(int add = 0) const { return "127.0.0.1:" + std::to_string(offset() + add); }
  const std::string cannotConnect =
      errorPageText("Cannot connect to Quorvel web agent on host 127.0.0.1");
};

TEST_F(HardenedProgram, RefusesAgentsOffTheListWithoutConnecting) {
  const std::string ok = "Content-type: text/html\n\nok\n";
  start({AgentScript(AgentMode::Pairs, {{"", ok}})});
  std::string allowed = "QUORVEL_HARDENED=on QUORVEL_AGENTS=" + agents();
  std::string elsewhere = "QUORVEL_HARDENED=on QUORVEL_AGENTS=127.0.0.2:" + std::to_string(offset());
  expectRun(hostField(), elsewhere, cannotConnect, 255);
  expectRun("hn=" + agents(1), allowed, cannotConnect);
  EXPECT_TRUE(webagent::agentRequests(&agent).empty());  // not one connection
  expectRun(hostField(), allowed, ok);
  expectRun(hostField(), "", ok);  // default mode: as ever
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 2u);
  // A settings file beside the program that cannot be read whole fails closed.
  writeFile(conf, "hardened = off\nagents = everyone\n");
  expectRun(hostField(), "", cannotConnect, -1, tree.root + "/err");
  EXPECT_EQ(readFile(tree.root + "/err"),
            "webquorvel: " + conf + " line 2: cannot use \"agents = everyone\"; hardened mode "
            "with no agent allowed\n");
  writeFile(conf, "hardened = on\nagent = " + agents() + "\n");
  expectRun(hostField(), "", ok);
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 3u);
}

TEST_F(HardenedProgram, ConfinesTheAgentsFilesAndCutsADrippingAgentAtTheDeadline) {
  std::string page = "Content-type: text/html\n\n" + std::string(400, 'p') + "\n";
  AgentScript drip(AgentMode::Drip, {{"tmp/slow.html", "s"}, {"", page}});
  drip.dripBytes = 1, drip.dripPauseMicros = 100000;  // about 45 s for the whole reply
  start({AgentScript(AgentMode::Pairs, {{"../escape.txt", "e"}, {"/tmp/qv-abs-escape", "a"},
                                        {"tmp/ok.txt", "ok"}, {"", page}}),
         drip});
  std::string env = "QUORVEL_HARDENED=on QUORVEL_DEADLINE=2 QUORVEL_AGENTS=" + agents();
  unlink("/tmp/qv-abs-escape");
  expectRun(hostField(), env,
            "failed to open ../htdocs/../escape.txt successfully"
            "failed to open ../htdocs//tmp/qv-abs-escape successfully" + page, 0);
  EXPECT_FALSE(exists(tree.root + "/escape.txt") || exists("/tmp/qv-abs-escape"));
  EXPECT_EQ(readFile(tree.htdocs("tmp/ok.txt")), "ok");
  // The dripping agent: the deadline's page, status 255, nothing written.
  expectRun(hostField(), env,
            errorPageText("Read failed from Quorvel web agent on host 127.0.0.1"), 255);
  EXPECT_FALSE(exists(tree.htdocs("tmp/slow.html")));
}

}  // namespace quorvel::gateway
