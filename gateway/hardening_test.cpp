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
  struct Row {
    const char *text;
    int badLine;  // 0: read whole
  };
  for (Row r : {Row{"# c\n\nhardened = on\nagent = 127.0.0.1:4\nagent=web.example\n"
                    "folder = pics\nfolder=tmp\ndeadline = 30\n", 0},
                Row{"hardened = maybe\n", 1}, Row{"agent = a:70000\n", 1},
                Row{"ok\n", 1}, Row{"folder = ..\n", 1}, Row{"folder = a/b\n", 1},
                Row{"deadline = 0\n", 1}, Row{"deadline = 3601\n", 1},
                Row{"hardened = on\ncolour = blue\n", 2}, Row{"agent = :3\n", 1}}) {
    Hardening h;
    std::string problem;
    EXPECT_EQ(parseHardening(r.text, strlen(r.text), &h, &problem), r.badLine) << r.text;
    if (r.badLine == 0) {
      EXPECT_TRUE(h.on);
      ASSERT_EQ(h.agents.size(), 2u);
      EXPECT_TRUE(h.agents[0].host == "127.0.0.1" && h.agents[0].offset == 4);
      EXPECT_TRUE(h.agents[1].host == "web.example" && h.agents[1].offset == 0);
      EXPECT_EQ(h.folders, (std::vector<std::string>{"pics", "tmp"}));  // replaces "tmp"
      EXPECT_EQ(h.deadlineSeconds, 30);
    } else {
      EXPECT_FALSE(problem.empty());
    }
  }
  // The environment wins, its lists replace the file's; a bad value is refused.
  Hardening h;
  std::string problem;
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
    return names;
  }
  std::string write(const std::string &name) {  // what the gateway printed
    return outputOf([&] { writeHtdocsFile(name.c_str(), "x"); });
  }
};

TEST_F(HostileNames, HardenedModeWritesOnlyBelowHtdocsAndGoesOnAfterARefusal) {
  Hardening h;
  h.on = true, h.folders = {"tmp", "link"};
  setHardening(h);
  for (const std::string &name : std::vector<std::string>{
           "../outside/a.txt", outside + "/abs.txt", "tmp/../../outside/b.txt", "link/c.txt",
           "tmp/evil", "fifo", "sub/d.txt", "", "tmp/", "a/b/c"})
    EXPECT_EQ(write(name), "failed to open ../htdocs/" + name + " successfully") << name;
  EXPECT_TRUE(outsideFiles().empty());
  // Good names still land, in htdocs and in an allowed folder.
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

TEST_F(HostileNames, DefaultModeTakesTheAgentsNamesAsGiven) {
  EXPECT_EQ(write("../outside/a.txt") + write("link/c.txt"), "");
  std::vector<std::string> got = outsideFiles();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{"a.txt", "c.txt"}));
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
  EXPECT_EQ(errorPageText("host <b>&"), std::string("Content-type: text/html\n\n\n<html>\n<head>\n<title>Web Quorvel"
                              "</title>\n</head>\n<body background=\"/i&#39;c/bg4.gif\">\n"
                              "<br><br><br><br><br><br><br><br><center><table border=1 "
                              "bgcolor=white><tr><td><h3>") + ENGLISH_HEADING +
                      "</h3>\n<h4>host &lt;b&gt;&amp;</h4>\n<center>\n<a href=\"&quot;&gt;"
                      "&lt;script&gt;x()&lt;/script&gt;\">\n<IMG src=\"/i&#39;c/blogin.gif\" "
                      "border=0></a>\n</center>\n</td></tr></table></center>\n</body>\n</html>\n");
  resetGateway();
  setPageValues("\"><script>", "/i", nullptr);
  EXPECT_NE(errorPageText("<b>").find("<h4><b></h4>\n<center>\n<a href=\"\"><script>\">"),
            std::string::npos);  // default mode: as given
  resetGateway();
}

// The program itself, copied into cgi-bin/ as deployed, settings beside it or in its
// environment, against hostile agents.
struct HardenedProgram : AgentFixture {
  CgiTree tree;
  std::string program = tree.root + "/cgi-bin/webquorvel";
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    std::filesystem::copy_file(WEBQUORVEL_PATH, program);
  }
  std::string run(const std::string &query, const std::string &env, int *status,
                  const char *errTo = "/dev/null") {
    setenv("QV_QUERY", query.c_str(), 1);
    return commandOutput("env QUERY_STRING=\"$QV_QUERY\" " + env + " '" + program + "' 2>" +
                         errTo, status);
  }
  std::string cannotConnect(const std::string &host) {
    return errorPageText(("Cannot connect to Quorvel web agent on host " + host).c_str());
  }
};

TEST_F(HardenedProgram, RefusesAgentsOffTheListWithoutConnecting) {
  const std::string ok = "Content-type: text/html\n\nok\n";
  start({AgentScript(AgentMode::Pairs, {{"", ok}})});
  std::string allowed = "QUORVEL_HARDENED=on QUORVEL_AGENTS=127.0.0.1:" + std::to_string(offset());
  int status = -1;
  std::string other = "hn=127.0.0.1:" + std::to_string(offset() + 1);
  EXPECT_EQ(run(hostField(), "QUORVEL_HARDENED=on QUORVEL_AGENTS=127.0.0.2:" +
                std::to_string(offset()), &status), cannotConnect("127.0.0.1"));
  EXPECT_EQ(status, 255);
  EXPECT_EQ(run(other, allowed, &status), cannotConnect("127.0.0.1"));
  EXPECT_TRUE(webagent::agentRequests(&agent).empty());  // not one connection
  EXPECT_EQ(run(hostField(), allowed, &status), ok);
  EXPECT_EQ(run(hostField(), "", &status), ok);  // default mode: as ever
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 2u);
  // A settings file beside the program that cannot be read whole fails closed.
  writeFile(tree.root + "/cgi-bin/webquorvel.conf", "hardened = off\nagents = everyone\n");
  std::string err = tree.root + "/err";
  EXPECT_EQ(run(hostField(), "", &status, err.c_str()), cannotConnect("127.0.0.1"));
  EXPECT_EQ(readFile(err), "webquorvel: " + tree.root + "/cgi-bin/webquorvel.conf line 2: "
                           "cannot use \"agents = everyone\"; hardened mode with no agent allowed\n");
  writeFile(tree.root + "/cgi-bin/webquorvel.conf", "hardened = on\nagent = 127.0.0.1:" +
                                                        std::to_string(offset()) + "\n");
  EXPECT_EQ(run(hostField(), "", &status), ok);
  EXPECT_EQ(webagent::agentRequests(&agent).size(), 3u);
}

TEST_F(HardenedProgram, ConfinesTheAgentsFilesAndCutsADrippingAgentAtTheDeadline) {
  std::string page = "Content-type: text/html\n\n" + std::string(400, 'p') + "\n";
  AgentScript drip(AgentMode::Drip, {{"tmp/slow.html", "s"}, {"", page}});
  drip.dripBytes = 1, drip.dripPauseMicros = 100000;  // about 45 s for the whole reply
  start({AgentScript(AgentMode::Pairs, {{"../escape.txt", "e"}, {"/tmp/qv-abs-escape", "a"},
                                        {"tmp/ok.txt", "ok"}, {"", page}}),
         drip});
  std::string env = "QUORVEL_HARDENED=on QUORVEL_DEADLINE=2 QUORVEL_AGENTS=127.0.0.1:" +
                    std::to_string(offset());
  int status = -1;
  unlink("/tmp/qv-abs-escape");
  EXPECT_EQ(run(hostField(), env, &status),
            "failed to open ../htdocs/../escape.txt successfully"
            "failed to open ../htdocs//tmp/qv-abs-escape successfully" + page);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(exists(tree.root + "/escape.txt") || exists("/tmp/qv-abs-escape"));
  EXPECT_EQ(readFile(tree.htdocs("tmp/ok.txt")), "ok");
  // The dripping agent: the deadline's page, status 255, nothing written.
  EXPECT_EQ(run(hostField(), env, &status),
            errorPageText("Read failed from Quorvel web agent on host 127.0.0.1"));
  EXPECT_EQ(status, 255);
  EXPECT_FALSE(exists(tree.htdocs("tmp/slow.html")));
}

}  // namespace quorvel::gateway
