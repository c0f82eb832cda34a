// gateway_agent.cpp -- the sample web agent as the gateway benchmark's peer: it listens
// on a free loopback port (written to PORT_FILE) and answers every connection with the
// reply of one scenario, until killed.
//
//   gateway_agent page BYTES PORT_FILE   one pair, the page; the whole message BYTES long
//   gateway_agent tmp N PORT_FILE        N files tmp/file-<i>.html of 1 KiB, and a page
//   gateway_agent out N PORT_FILE        N files day-<i>.html of 1 KiB (outside tmp/)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "testing/agent.h"

namespace quorvel {
namespace {

using webagent::AgentPair;

constexpr size_t kFileBytes = 1024;
const char kHead[] = "Content-type: text/html\n\n";

// A page whose message (12-byte header, 8-byte entry head, 4-byte empty name, contents
// with their NUL padded to 4) is exactly total bytes long; total a multiple of 4.
std::string pageOfMessageSize(size_t total) {
  size_t contents = total - 12 - 8 - 4 - 1;
  std::string page = kHead;
  page += "<html><body><pre>\n";
  while (page.size() < contents) page += "week 47 | Mon | 09:00 meeting with the group |\n";
  page.resize(contents - 1);
  page += '\n';
  return page;
}

std::vector<AgentPair> filesReply(const char *prefix, const char *suffix, int count) {
  std::vector<AgentPair> pairs;
  for (int i = 0; i < count; i++) {
    std::string body(kFileBytes - 1, static_cast<char>('a' + i % 26));
    pairs.push_back({prefix + std::to_string(i) + suffix, body + "\n"});
  }
  pairs.push_back({"", std::string(kHead) + "<html><body>files</body></html>\n"});
  return pairs;
}

int usage() {
  fprintf(stderr, "usage: gateway_agent page BYTES|tmp N|out N PORT_FILE\n");
  return 2;
}

}  // namespace
}  // namespace quorvel

int main(int argc, char **argv) {
  using namespace quorvel;
  if (argc != 4) return usage();
  long n = atol(argv[2]);
  webagent::AgentScript script;
  script.mode = webagent::AgentMode::Pairs;
  if (strcmp(argv[1], "page") == 0 && n >= 64 && n % 4 == 0 && n <= 0x100000)
    script.pairs = {{"", pageOfMessageSize(static_cast<size_t>(n))}};
  else if (strcmp(argv[1], "tmp") == 0 && n > 0)
    script.pairs = filesReply("tmp/file-", ".html", static_cast<int>(n));
  else if (strcmp(argv[1], "out") == 0 && n > 0)
    script.pairs = filesReply("day-", ".html", static_cast<int>(n));
  else
    return usage();
  if (script.pairs.size() == 1 &&
      webagent::encodeAgentMessage(script.pairs).size() != static_cast<size_t>(n)) {
    fprintf(stderr, "gateway_agent: page message is not %ld bytes\n", n);
    return 1;
  }

  webagent::SampleAgent agent;
  if (webagent::agentListen(&agent, 0) != 0) {
    perror("gateway_agent: listen");
    return 1;
  }
  webagent::agentPush(&agent, script);
  FILE *f = fopen(argv[3], "w");
  if (!f || fprintf(f, "%d\n", agent.port) < 0 || fclose(f) != 0) {
    perror(argv[3]);
    return 1;
  }
  webagent::agentServe(&agent, 0);
  return 0;
}
