// calendar_agent.cpp -- the calendar benchmark's peers: the sample web agent in calendar
// mode over a database (live: every request builds its view), or answering every
// request with the reply that view gave once at start (static: the floor's reply, of
// the same size and the same pairs). Listens on a free loopback port, written to
// PORT_FILE; prints the reply message's size in bytes; serves until killed.
//
//   calendar_agent live|static ROOT QUERY PORT_FILE
#include <cstdio>
#include <cstring>

#include "testing/agent.h"
#include "testing/calendar_view.h"

int main(int argc, char **argv) {
  using namespace quorvel::webagent;
  bool live = argc == 5 && strcmp(argv[1], "live") == 0;
  if (argc != 5 || (!live && strcmp(argv[1], "static") != 0)) {
    fprintf(stderr, "usage: calendar_agent live|static ROOT QUERY PORT_FILE\n");
    return 2;
  }
  AgentScript script(live ? AgentMode::Calendar : AgentMode::Pairs);
  script.database = argv[2];
  std::vector<AgentPair> reply = calendarReply(argv[2], argv[3]);
  if (!live) script.pairs = reply;
  printf("%zu\n", encodeAgentMessage(reply).size());
  fflush(stdout);
  SampleAgent agent;
  if (agentListen(&agent, 0) != 0) return perror("calendar_agent: listen"), 1;
  agentPush(&agent, script);
  FILE *f = fopen(argv[4], "w");
  if (!f || fprintf(f, "%d\n", agent.port) < 0 || fclose(f) != 0) return perror(argv[4]), 1;
  agentServe(&agent, 0);
  return 0;
}
