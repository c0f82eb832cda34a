// main.cpp -- webquorvel, the CGI program: one request per process.
#include "gateway/gateway.h"

#include "core/base/base.h"

int main(int argc, char **argv) {
  quorvel::exitProcess(quorvel::gateway::runRequest(argc, argv));
}
