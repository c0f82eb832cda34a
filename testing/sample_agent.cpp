// sample_agent.cpp -- the sample web agent program; its command line is in agent.h.
#include "testing/agent.h"

int main(int argc, char **argv) { return quorvel::webagent::sampleAgentMain(argc, argv); }
