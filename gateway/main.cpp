// main.cpp -- webquorvel, the CGI program: one request per process.
#include "gateway/gateway.h"

#include "core/base/base.h"

#include <csignal>

int main(int argc, char **argv) {
  // An agent that goes away while the query is being sent must end in the error page,
  // not in a silent death by SIGPIPE.
  signal(SIGPIPE, SIG_IGN);
  quorvel::exitProcess(quorvel::gateway::runRequest(argc, argv));
}
