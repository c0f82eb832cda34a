// agent_test.cpp -- the sample web agent: its message codec against hand-made bytes,
// the replies of its modes, and the sample_agent program's command line as scripts use it.
#include "testing/agent.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorvel::webagent {
namespace {

std::string word(uint32_t v) {
  uint32_t net = htonl(v);
  return std::string(reinterpret_cast<const char *>(&net), 4);
}

TEST(AgentCodec, EncodesHeaderAndPaddedEntries) {
  std::string msg = encodeAgentMessage({{"ab", "xyz"}, {"", ""}});
  std::string expected = word(0xDEADBEEF) + word(2) + word(12 + 16 + 16) + word(0xDEADBEEF) +
                         word(16) + std::string("ab\0\0xyz\0", 8) + word(0xDEADBEEF) + word(16) +
                         std::string(8, '\0');
  EXPECT_EQ(msg, expected);
  EXPECT_EQ(encodeAgentMessage({}, 0xDEADBEEE), word(0xDEADBEEE) + word(0) + word(12));
}

TEST(AgentCodec, DecodesWhatItEncodesAndRefusesDamage) {
  std::vector<AgentPair> pairs;
  std::string msg = encodeAgentMessage({{"tmp/a", std::string(1000, 'c')}, {"", "page"}});
  ASSERT_EQ(decodeAgentMessage(msg, &pairs), 0);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].name, "tmp/a");
  EXPECT_EQ(pairs[0].contents, std::string(1000, 'c'));
  EXPECT_EQ(pairs[1].contents, "page");
  EXPECT_EQ(decodeAgentMessage(msg.substr(0, msg.size() - 4), &pairs), -1);  // short
  EXPECT_EQ(decodeAgentMessage(msg + "more", &pairs), -1);                   // long
  std::string bad = msg;
  bad[0] = 0;
  EXPECT_EQ(decodeAgentMessage(bad, &pairs), -1);
  bad = msg;
  bad.replace(16, 4, word(4000));  // an entry running past the end
  EXPECT_EQ(decodeAgentMessage(bad, &pairs), -1);
  EXPECT_EQ(decodeAgentMessage("", &pairs), -1);
}

TEST(AgentReplies, ScriptedModesBreakTheFormatAsAnnounced) {
  AgentScript script;
  std::vector<AgentPair> pairs;
  ASSERT_EQ(decodeAgentMessage(agentReplyBytes(script, "a=<b>"), &pairs), 0);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].name, "tmp/demo-picture.svg");
  EXPECT_EQ(pairs[0].contents.find('\0'), std::string::npos);  // survives a "%s" copy
  EXPECT_EQ(pairs[1].contents.rfind("Content-type: text/html\n\n", 0), 0u);
  EXPECT_NE(pairs[1].contents.find("a=&lt;b&gt;"), std::string::npos);  // shown escaped

  script.mode = AgentMode::Oversize;
  EXPECT_EQ(agentReplyBytes(script, "q"), word(0xDEADBEEF) + word(1) + word(0x100001));
  script.mode = AgentMode::BadMagic;
  EXPECT_EQ(agentReplyBytes(script, "q").substr(0, 4), word(0xDEADBEEE));
  script.mode = AgentMode::LongName;
  std::string longName = agentReplyBytes(script, "q");
  EXPECT_EQ(longName.substr(20, 257), std::string(257, 'n'));
  EXPECT_EQ(longName.substr(16, 4), word(8 + 260 + 4));
  script.mode = AgentMode::ExtraBytes;
  script.pairs = {{"", "p"}};
  std::string extra = agentReplyBytes(script, "q");
  EXPECT_EQ(extra.size(), 12 + 16 + 4u);
  EXPECT_EQ(extra.substr(8, 4), word(28));
  script.mode = AgentMode::Files;
  script.fileCount = 3;
  script.fileSize = 10;
  ASSERT_EQ(decodeAgentMessage(agentReplyBytes(script, "q"), &pairs), 0);
  ASSERT_EQ(pairs.size(), 4u);
  EXPECT_EQ(pairs[2].name, "tmp/file-2.txt");
  EXPECT_EQ(pairs[2].contents, "ccccccccc\n");
  EXPECT_EQ(pairs[3].name, "");
}

// Runs sample_agent with args; returns its stdout (first line) and leaves it running
// (its pid in *pid) when it announced a port.
std::string startProgram(std::vector<std::string> args, pid_t *pid, int *outFd) {
  int out[2];
  EXPECT_EQ(pipe(out), 0);
  std::string prog = SAMPLE_AGENT_PATH;
  std::vector<char *> argv = {prog.data()};
  for (std::string &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  *pid = fork();
  if (*pid == 0) {
    dup2(out[1], 1);
    int quiet = open("/dev/null", O_WRONLY);
    if (quiet >= 0) dup2(quiet, 2);
    close(out[0]);
    execv(argv[0], argv.data());
    _exit(98);
  }
  close(out[1]);
  *outFd = out[0];
  std::string line;
  char c;
  while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
  return line;
}

int exitStatus(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SampleAgentProgram, AnnouncesItsPortAndAnswersScriptedPairs) {
  char portFile[] = "/tmp/qvagent-XXXXXX";
  int fd = mkstemp(portFile);
  ASSERT_GE(fd, 0);
  close(fd);
  pid_t pid;
  int outFd;
  std::string line = startProgram({"--port", "0", "--count", "1", "--mode", "pairs", "--pair",
                                   "tmp/x.txt=a=b", "--pair", "=the page", "--port-file", portFile},
                                  &pid, &outFd);
  int port = 0, offset = 0;
  ASSERT_EQ(sscanf(line.c_str(), "sample_agent: listening on 127.0.0.1 port %d offset %d", &port,
                   &offset), 2) << line;
  EXPECT_EQ(offset, port - AGENT_BASE_PORT);
  FILE *f = fopen(portFile, "r");
  int written = -1;
  ASSERT_TRUE(f);
  EXPECT_EQ(fscanf(f, "%d", &written), 1);
  fclose(f);
  unlink(portFile);
  EXPECT_EQ(written, port);

  int sock = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  ASSERT_EQ(connect(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  std::string request = encodeAgentMessage({{"", "hn=127.0.0.1"}});
  ASSERT_EQ(write(sock, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string reply;
  char chunk[4096];
  ssize_t n;
  while ((n = read(sock, chunk, sizeof chunk)) > 0) reply.append(chunk, static_cast<size_t>(n));
  close(sock);
  std::vector<AgentPair> pairs;
  ASSERT_EQ(decodeAgentMessage(reply, &pairs), 0);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].name, "tmp/x.txt");
  EXPECT_EQ(pairs[0].contents, "a=b");  // split at the first '='
  EXPECT_EQ(pairs[1].name, "");
  EXPECT_EQ(pairs[1].contents, "the page");
  EXPECT_EQ(exitStatus(pid), 0);  // --count 1: done after one connection
  close(outFd);
}

TEST(SampleAgentProgram, PrintsHelpAndRefusesBadOptions) {
  pid_t pid;
  int outFd;
  std::string first = startProgram({"--help"}, &pid, &outFd);
  EXPECT_EQ(first.rfind("usage: sample_agent", 0), 0u) << first;
  EXPECT_EQ(exitStatus(pid), 0);
  close(outFd);
  for (std::vector<std::string> bad : {std::vector<std::string>{"--mode", "loud"},
                                       {"--port", "70000"}, {"--files", "-1"}, {"--count"},
                                       {"--pair", "noequals"}, {"--bogus", "1"}}) {
    startProgram(bad, &pid, &outFd);
    EXPECT_EQ(exitStatus(pid), 2) << bad[0];
    close(outFd);
  }
}

}  // namespace
}  // namespace quorvel::webagent
