// link_wrap_test.cpp -- the receive loop's failures that a real peer cannot cause on
// demand: the wait itself failing, and wake-ups that find no data. poll and recv are
// interposed at link time (--wrap); the reply waits at the other end of a socket pair.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/net/buf.h"
#include "core/net/link.h"

extern "C" int __real_poll(pollfd *fds, nfds_t n, int timeoutMs);
extern "C" ssize_t __real_recv(int fd, void *p, size_t n, int flags);

namespace {
int pollFailures;   // polls still to fail with ENOMEM
int emptyWakeups;   // recv calls that find nothing (EAGAIN) before each one that reads
int wakeupsLeft;    // of those, still to come before the next read
}  // namespace

extern "C" int __wrap_poll(pollfd *fds, nfds_t n, int timeoutMs) {
  if (pollFailures > 0) {
    pollFailures--;
    errno = ENOMEM;
    return -1;
  }
  return __real_poll(fds, n, timeoutMs);
}

extern "C" ssize_t __wrap_recv(int fd, void *p, size_t n, int flags) {
  if (wakeupsLeft > 0) {
    wakeupsLeft--;
    errno = EAGAIN;
    return -1;
  }
  wakeupsLeft = emptyWakeups;
  return __real_recv(fd, p, n, flags);
}

namespace quorvel {
namespace {

// A link whose socket holds a reply of code 201 with a 100-byte text (116 bytes in all),
// to be read 16 bytes at a time.
struct WaitingReply {
  int peer = -1;
  ServerLink *link = newServerLink("127.0.0.1");
  WaitingReply() {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    link->sock = sv[0], peer = sv[1];
    Buf *reply = NewBuf();
    startMessage(reply, 201);
    putText(reply, std::string(99, 'r').c_str());
    finishMessage(reply);
    EXPECT_EQ(write(peer, bufData(reply), bufUsed(reply)), ssize_t(bufUsed(reply)));
    freeBuf(reply);
    link->req->limitB = 16;
  }
  ~WaitingReply() {
    freeServerLink(link);
    close(peer);
    pollFailures = emptyWakeups = wakeupsLeft = 0;
  }
};

TEST(ReceiveLoop, AFailedWaitIsReportedAsReadSelectAndEndsTheRead) {
  WaitingReply r;
  pollFailures = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadFromSocket(r.link, 1000), LINK_GENERAL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "read select: Cannot allocate memory\n");
}

TEST(ReceiveLoop, WakeupsWithoutDataCountOnlyInARowAGoodReadStartsTheCountAfresh) {
  // 8 reads, each after n empty wake-ups: 20 in a row end the read, fewer never do.
  for (int n : {3, 19, 20}) {
    WaitingReply r;
    emptyWakeups = wakeupsLeft = n;
    EXPECT_EQ(ReadFromSocket(r.link, 1000), n < 20 ? 0 : LINK_GENERAL) << n;
  }
}

}  // namespace
}  // namespace quorvel
