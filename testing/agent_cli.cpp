// agent_cli.cpp -- sample_agent's command line: options into a script, listen, announce
// the port on standard output, serve.
#include "testing/agent.h"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <signal.h>

namespace quorvel::webagent {

static const char USAGE[] =
    "usage: sample_agent [--port P | --offset N] [--mode MODE] [--files N] [--size BYTES]\n"
    "                    [--pair NAME=CONTENTS]... [--drip BYTES] [--count K] [--port-file F]\n"
    "                    [--database ROOT]\n"
    "  A sample Quorvel web agent on 127.0.0.1 for tests and demos.\n"
    "  --port P       listen on port P (0: a free port); default --offset 0 (port 3726)\n"
    "  --offset N     listen on 3726 + N (the gateway's query says dn=host:N)\n"
    "  --mode MODE    demo (default) | files | pairs | bad-magic | oversize | long-name |\n"
    "                 extra-bytes | close | silent | drip | no-read | calendar\n"
    "  --files N      files mode: N files tmp/file-<i>.txt, plus a page\n"
    "  --size BYTES   files mode: bytes per file (default 1024)\n"
    "  --pair N=C     pairs mode: one reply pair (N empty: the page); repeatable\n"
    "  --drip BYTES   drip mode: bytes per write (default 7)\n"
    "  --count K      serve K connections, then exit (default: until killed)\n"
    "  --port-file F  write the port number to F once listening\n"
    "  --database R   calendar mode: the database root (R/db/users, R/db/database/);\n"
    "                 query view=day|week|month&user=NAME&date=YYYY-MM[-DD][&as=NAME]\n"
    "  Once listening it prints: sample_agent: listening on 127.0.0.1 port P offset N\n";

static const struct { const char *name; AgentMode mode; } MODES[] = {
    {"demo", AgentMode::Demo}, {"files", AgentMode::Files}, {"pairs", AgentMode::Pairs},
    {"bad-magic", AgentMode::BadMagic}, {"oversize", AgentMode::Oversize},
    {"long-name", AgentMode::LongName}, {"extra-bytes", AgentMode::ExtraBytes},
    {"close", AgentMode::CloseEarly}, {"silent", AgentMode::Silent}, {"drip", AgentMode::Drip},
    {"no-read", AgentMode::NoRead}, {"calendar", AgentMode::Calendar},
};

struct CliOptions {
  int port = AGENT_BASE_PORT, count = 0;
  const char *portFile = nullptr;
  AgentScript script;
};

// Applies one option with its value; false for an unknown option or a bad value.
static bool applyOption(CliOptions *o, const char *opt, const char *value) {
  char *end = nullptr;
  long n = strtol(value, &end, 10);
  bool number = *value && *end == '\0' && n >= 0;
  if (strcmp(opt, "--mode") == 0) {
    for (const auto &m : MODES)
      if (strcmp(m.name, value) == 0) return (o->script.mode = m.mode), true;
    return false;
  }
  if (strcmp(opt, "--port-file") == 0) return (o->portFile = value), true;
  if (strcmp(opt, "--database") == 0) {  // by full path: the core resolves from it
    char *full = realpath(value, nullptr);
    o->script.database = full != nullptr ? full : value;
    free(full);
    return true;
  }
  if (strcmp(opt, "--pair") == 0) {
    const char *eq = strchr(value, '=');
    if (!eq) return false;
    o->script.pairs.push_back({std::string(value, eq), std::string(eq + 1)});
    return true;
  }
  if (!number) return false;
  if (strcmp(opt, "--port") == 0 && n <= 65535) return (o->port = static_cast<int>(n)), true;
  if (strcmp(opt, "--offset") == 0 && n + AGENT_BASE_PORT <= 65535)
    return (o->port = AGENT_BASE_PORT + static_cast<int>(n)), true;
  if (strcmp(opt, "--files") == 0) return (o->script.fileCount = static_cast<int>(n)), true;
  if (strcmp(opt, "--size") == 0) return (o->script.fileSize = static_cast<size_t>(n)), true;
  if (strcmp(opt, "--drip") == 0) return (o->script.dripBytes = static_cast<size_t>(n)), true;
  if (strcmp(opt, "--count") == 0) return (o->count = static_cast<int>(n)), true;
  return false;
}

int sampleAgentMain(int argc, char **argv) {
  CliOptions o;
  o.script.fileSize = 1024;
  for (int i = 1; i < argc; i += 2) {
    if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) return fputs(USAGE, stdout), 0;
    if (i + 1 >= argc || !applyOption(&o, argv[i], argv[i + 1]))
      return fprintf(stderr, "sample_agent: bad option %s\n%s", argv[i], USAGE), 2;
  }
  if (o.script.mode == AgentMode::Calendar && o.script.database.empty())
    return fprintf(stderr, "sample_agent: calendar mode needs --database ROOT\n%s", USAGE), 2;
  signal(SIGPIPE, SIG_IGN);
  SampleAgent agent;
  agent.announce = true;
  agentPush(&agent, o.script);
  if (int err = agentListen(&agent, o.port); err != 0)
    return fprintf(stderr, "sample_agent: cannot listen on 127.0.0.1 port %d: %s\n", o.port,
                   strerror(err)), 1;
  FILE *f = o.portFile ? fopen(o.portFile, "w") : nullptr;
  if (o.portFile && (!f || fprintf(f, "%d\n", agent.port) < 0 || fclose(f) != 0))
    return perror(o.portFile), 1;
  printf("sample_agent: listening on 127.0.0.1 port %d offset %d\n", agent.port,
         agentOffset(&agent));
  fflush(stdout);
  agentServe(&agent, o.count);
  agentStop(&agent);
  return 0;
}

}  // namespace quorvel::webagent
