// replyheader_fuzz.cpp -- a calendar-server reply from an untrusted peer: the header
// check on a buffer, then the whole receive path (over a socket pair) and the split of
// an accepted reply into typed fields.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "core/net/buf.h"
#include "core/net/link.h"

using namespace quorvel;

// The header check alone, on a buffer holding exactly the input.
static void checkHeader(const uint8_t *data, size_t size) {
  Buf *b = NewBuf();
  StuffBuf(b, data, size, 1, BUF_UNTAGGED);
  int code = 0;
  uint32_t length = 0;
  checkReplyHeader(b, &code, &length);
  freeBuf(b);
}

// The input as the byte stream of a connection that then closes.
static void receive(const uint8_t *data, size_t size) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return;
  ServerLink *link = newServerLink("fuzz");
  link->sock = fds[0];
  size_t sent = 0;
  while (sent < size) {
    ssize_t n = write(fds[1], data + sent, size - sent);
    if (n <= 0) break;
    sent += size_t(n);
  }
  close(fds[1]);
  if (ReadFromSocket(link, 50) == 0) {
    RemReply reply;
    readReplyFields(link->req, &reply);
  }
  freeServerLink(link);  // closes fds[0]
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 65536) return 0;  // more than a socket pair holds without a reader
  checkHeader(data, size);
  receive(data, size);
  return 0;
}
