// agentreply_fuzz.cpp -- feeds arbitrary bytes to the gateway's reader of the web
// agent's reply: the bytes are written into one end of a socketpair, the writer end is
// closed, and readAgentReply decodes from the other end with a zero-second time-out and
// a pause hook that returns at once, so every run ends quickly at the end of the data.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/base/base.h"
#include "gateway/agentlink.h"

namespace {

void noPause(unsigned) {}

// Everything is written before the reader starts, so the input must fit in the socket
// buffer; larger inputs add nothing the decoder has not seen at this size.
constexpr size_t kMaxInput = 128 * 1024;

// A decoded reply must hold exactly the announced number of pairs, each name a
// terminated string within the padded-name limit.
void checkPairs(const quorvel::gateway::NamePair *pairs, int count) {
  if (pairs == nullptr || quorvel::gateway::countPairs(pairs) != count) abort();
  for (int i = 0; i < count; i++) {
    if (strnlen(pairs[i].name, quorvel::gateway::AGENT_MAX_NAME) >=
        static_cast<size_t>(quorvel::gateway::AGENT_MAX_NAME))
      abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxInput) return 0;
  quorvel::setPauseHook(noPause);
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
  int sndbuf = 2 * static_cast<int>(kMaxInput);
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(fds[1], data + done, size - done);
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  close(fds[1]);
  fcntl(fds[0], F_SETFL, O_NONBLOCK);

  char *buffer = nullptr;
  int count = 0;
  quorvel::gateway::NamePair *pairs = nullptr;
  int rc = quorvel::gateway::readAgentReply(fds[0], 0, &buffer, &count, &pairs, 1);
  if (rc == 0) {
    checkPairs(pairs, count);
  } else if (pairs != nullptr) {
    abort();  // a failed read hands out no list
  }
  quorvel::gateway::freePairList(pairs);
  close(fds[0]);
  return 0;
}
