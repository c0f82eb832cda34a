// agentlink.cpp -- the gateway's side of the web agent link: connection set-up with its
// retries, building and sending the request message, receiving the reply message and
// decoding it into a pair list.
//
// Divisions: pair lists and buffers / connection / sending / receiving / decoding.
#include "gateway/agentlink.h"

#include "core/base/base.h"
#include "gateway/gateway.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quorvel::gateway {

static constexpr long IO_CHUNK = 8192;      // at most this much per read or write
static constexpr int CONNECT_RETRIES = 20;  // after the first attempt
static constexpr int WRITE_STALLS = 10;     // consecutive stalls that end a send
static constexpr int EAGAIN_ROUNDS = 20;    // idle count at which EAGAIN gives up
static constexpr int EMPTY_READS = 100;     // idle count past which empty reads give up
static constexpr long FIRST_READ = 256;     // size of the first read and first buffer
static constexpr long HEADER_BYTES = 12;
static constexpr long ADOPT_MIN = 16384;    // contents at least this long take the buffer

/* ==== Pair lists and buffers ======================================================== */

NamePair *newPairList(int n) {
  if (n < 1) n = 1;
  size_t bytes = sizeof(NamePair) * static_cast<size_t>(n);
  auto *pairs = static_cast<NamePair *>(allocMem(nullptr, bytes));
  if (!pairs) outOfMem("newPairList");
  for (int i = 0; i < n; i++) pairs[i] = NamePair{nullptr, nullptr};
  return pairs;
}

void freePairList(NamePair *pairs) {
  if (!pairs) return;
  for (NamePair *p = pairs; p->name; p++) {
    freeMem(p->name);
    freeMem(p->contents);
  }
  freeMem(pairs);
}

int countPairs(const NamePair *pairs) {
  int n = 0;
  while (pairs && pairs[n].name) n++;
  return n;
}

void growMsg(AgentMsg *msg, long extra) {
  void *bigger;
  while (!(bigger = allocMem(msg->bytes, static_cast<size_t>(msg->size + extra))))
    perror("growMsg");
  msg->bytes = static_cast<char *>(bigger);
  msg->size += extra;
}

/* ==== Connection ====================================================================== */

bool isDottedAddress(const char *text) { return text && text[0] >= '0' && text[0] <= '9'; }

int setNonBlocking(int fd, bool on) {
  int flags = fcntl(fd, F_GETFL, 0);
  if (flags >= 0) flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (flags < 0 || fcntl(fd, F_SETFL, flags) < 0) {
    perror("fcntl");
    return -1;
  }
  return 0;
}

void closeSocket(int fd) {
  if (fd == -1) return;
  errno = 0;
  int tries = 0;
  while (close(fd) != 0 && errno != 0 && tries < 3) {
    pauseSeconds(1);
    tries++;
  }
}

// The agent's IPv4 address: a dotted address as inet_addr reads it (its error value, all
// ones, is used as it is; only 0 falls through), else the first address of the name.
static bool agentAddress(const char *host, in_addr *out) {
  if (isDottedAddress(host)) {
    out->s_addr = inet_addr(host);
    if (out->s_addr != 0) return true;
  }
  errno = 0;
  hostent *entry = host ? gethostbyname(host) : nullptr;
  if (!entry || entry->h_addrtype != AF_INET || !entry->h_addr_list[0]) {
    if (errno == 0) errno = ENOENT;
    return false;
  }
  memcpy(&out->s_addr, entry->h_addr_list[0], sizeof out->s_addr);
  return true;
}

int makeConnection(const char *host, int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (!agentAddress(host, &addr.sin_addr)) return -1;
  // The query gives an offset from 3726; the sum is a 16-bit port number.
  addr.sin_port = htons(static_cast<uint16_t>(static_cast<unsigned>(port) + AGENT_PORT_BASE));

  int sock = -1;
  for (int retries = CONNECT_RETRIES;; retries--) {
    sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) return -1;
    int one = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0)
      errorPage(localMsg(0, "makeConnection: setsockopt: %d"), errno);
    if (connect(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) break;
    int saved = errno;
    close(sock);
    if (saved != EAGAIN && saved != ETIMEDOUT) {
      errno = saved;
      return -1;
    }
    pauseSeconds(1);
    if (retries == 0) {
      errno = saved;
      return -1;
    }
  }
  setNonBlocking(sock, true);
  return sock;
}

/* ==== Sending ============================================================================ */

// Appends one NUL-padded text at msg[at]; returns the bytes written.
static long putPadded(char *at, const char *text) {
  long len = static_cast<long>(strlen(text));
  long padded = roundUp(len + 1, 4);
  memcpy(at, text, static_cast<size_t>(len));
  memset(at + len, 0, static_cast<size_t>(padded - len));
  return padded;
}

int WebSockWrite(int sock, int timeoutSeconds, const NamePair *pairs) {
  int n = countPairs(pairs);
  if (n == 0) return -3;
  long total = HEADER_BYTES;
  for (int i = 0; i < n; i++) {
    if (!pairs[i].contents) return -3;
    total += 8 + roundUp(static_cast<long>(strlen(pairs[i].name)) + 1, 4) +
             roundUp(static_cast<long>(strlen(pairs[i].contents)) + 1, 4);
  }
  AgentMsg msg{nullptr, 0};
  growMsg(&msg, total);
  putWord32(msg.bytes, AGENT_MAGIC);
  putWord32(msg.bytes + 4, static_cast<uint32_t>(n));
  putWord32(msg.bytes + 8, static_cast<uint32_t>(total));
  long at = HEADER_BYTES;
  for (int i = 0; i < n; i++) {
    long start = at;
    at += 8;
    at += putPadded(msg.bytes + at, pairs[i].name);
    at += putPadded(msg.bytes + at, pairs[i].contents);
    putWord32(msg.bytes + start, AGENT_MAGIC);
    putWord32(msg.bytes + start + 4, static_cast<uint32_t>(at - start));
  }
  if (at != total) {
    fputs("doWebSockWrite: lengths do not match\n", stderr);
    freeMem(msg.bytes);
    return -3;
  }
  int result = doWebSockWrite(sock, timeoutSeconds, msg.bytes, total);
  freeMem(msg.bytes);
  return result;
}

int doWebSockWrite(int sock, int timeoutSeconds, const char *bytes, long length) {
  if (sock < 0 || sock >= FD_SETSIZE) return EBADF;  // select cannot watch it
  int stalls = 0, saved = 0;
  // Set once: select may count it down in place, so later waits can be shorter.
  timeval wait{timeoutSeconds, 0};
  for (;;) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(sock, &writable);
    int ready = select(sock + 1, nullptr, &writable, nullptr, &wait);
    if (ready < 0) {
      saved = errno;
      break;
    }
    if (ready > 0 && FD_ISSET(sock, &writable)) {
      ssize_t n = write(sock, bytes, static_cast<size_t>(length < IO_CHUNK ? length : IO_CHUNK));
      if (n < 0 && errno != EAGAIN) {
        int err = errno;
        perror("socket write");
        return err;
      }
      if (n <= 0) {
        stalls++;
        pauseSeconds(1);
      } else {
        stalls = 0;
        length -= n;
        if (length == 0) return 0;
        if (length < 0) {
          fputs("doWebSockWrite: bad length\n", stderr);
          return -1;
        }
        bytes += n;
      }
      if (stalls == WRITE_STALLS) break;
    } else {
      stalls++;
      pauseSeconds(1);
      if (stalls > WRITE_STALLS) return 110;
      if (stalls == WRITE_STALLS) break;
    }
  }
  // Ten stalls without an error end the send with 0, like a success: callers test only
  // for negative results, and the agent will notice the short message.
  if (stalls == WRITE_STALLS) fputs("doWebSockWrite: EWOULDBLOCK\n", stderr);
  return saved;
}

/* ==== Receiving ============================================================================ */

// Receive state of one WebSockRead call.
struct ReadState {
  AgentMsg msg;        // the buffer, 256 bytes until the header announces the total
  long pos;            // write position
  long remaining;      // bytes still expected
  long readSize;       // size of the next recv
  bool headerPending;  // the 12-byte header has not been taken yet
  int count;           // entry count from the header
  int idle;            // shared idle counter: empty reads and EAGAIN rounds
  timeval wait;        // the select time-out of the next round
};

// Takes the header once 12 bytes are in hand (a header split over several reads is
// gathered first). Returns 0 or -3.
static int takeHeader(ReadState *st) {
  if (getWord32(st->msg.bytes) != AGENT_MAGIC) return -3;
  st->count = static_cast<int>(getWord32(st->msg.bytes + 4));
  auto total = static_cast<int32_t>(getWord32(st->msg.bytes + 8));
  if (total < 0 || total > AGENT_MAX_TOTAL) return -3;
  st->headerPending = false;
  st->remaining = total;
  if (total > st->msg.size) growMsg(&st->msg, total - st->msg.size);
  return 0;
}

// Accounts for n bytes received. Returns 0, or -3 for a bad header or more bytes than
// the header announced.
static int takeBytes(ReadState *st, long n, int timeoutSeconds) {
  st->wait = timeval{timeoutSeconds, 0};
  st->pos += n;
  if (st->headerPending) {
    if (st->pos < HEADER_BYTES) {
      st->readSize = FIRST_READ - st->pos;
      return 0;
    }
    if (takeHeader(st) != 0) return -3;
    st->remaining -= st->pos;
  } else {
    st->remaining -= n;
  }
  if (st->remaining < 0) return -3;
  st->readSize = st->remaining < IO_CHUNK ? st->remaining : IO_CHUNK;
  return 0;
}

// One failed or empty recv. Returns 1 to go on, or the call's result.
static int takeIdle(ReadState *st, long n, int wait) {
  if (n == 0) {
    st->wait = timeval{0, 200};
    st->idle++;
    if (st->idle % 10 == 0) {
      pauseSeconds(1);
      return 1;
    }
    return st->idle > EMPTY_READS ? -1 : 1;
  }
  int err = errno;
  if (err == EAGAIN) {
    if (st->headerPending && wait == 0) return -1;
    pauseSeconds(1);
    if (st->idle == EAGAIN_ROUNDS) return -1;
    st->idle++;
    return 1;
  }
  if (err == ECONNRESET) return -1;
  perror("socket read");
  return err;
}

int WebSockRead(int sock, int timeoutSeconds, char **buffer, int *count, int wait) {
  *buffer = nullptr;
  if (sock < 0 || sock >= FD_SETSIZE) return -1;  // select cannot watch it
  ReadState st{{nullptr, 0}, 0, FIRST_READ, FIRST_READ, true, 0, 0, {timeoutSeconds, 0}};
  growMsg(&st.msg, FIRST_READ);
  int result = 0;
  while (st.remaining != 0) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sock, &readable);
    if (select(sock + 1, &readable, nullptr, nullptr, &st.wait) < 0) {
      perror("WebSockRead: select");
      result = -1;
      break;
    }
    // The select result is not examined: the read is tried in any case.
    ssize_t n = recv(sock, st.msg.bytes + st.pos, static_cast<size_t>(st.readSize), 0);
    if (n > 0) {
      result = takeBytes(&st, n, timeoutSeconds);
      if (result != 0) break;
    } else if ((result = takeIdle(&st, n, wait)) != 1) {
      break;
    } else {
      result = 0;
    }
  }
  if (result != 0) {
    freeMem(st.msg.bytes);
    return result;
  }
  *buffer = st.msg.bytes;
  *count = st.count;
  return 0;
}

/* ==== Decoding ============================================================================== */

// Copies n bytes into a new NUL-terminated text.
static char *copyBytes(const char *from, long n) {
  char *text = static_cast<char *>(allocMem(nullptr, static_cast<size_t>(n) + 1));
  if (!text) outOfMem("readAgentReply");
  memcpy(text, from, static_cast<size_t>(n));
  text[n] = '\0';
  return text;
}

// Where the contents of the one pair that takes over the received buffer lie.
struct Adoption {
  int index;    // the pair, or -1 for none
  long offset;  // its contents in the message
  long length;
};

// Decodes entry i at msg[at]; returns the entry length or -3. When `adopt` is given and
// has no pair yet, large contents are not copied but noted there for the caller.
static long decodeEntry(const char *msg, long length, long at, NamePair *pair,
                        Adoption *adopt, int index) {
  if (length - at < 8) return -3;  // the entry's words must lie inside the message
  long entryLen = getWord32(msg + at + 4);  // the entry's own magic is not checked
  if (entryLen > AGENT_MAX_TOTAL || entryLen > length - at) return -3;
  // The name's length is searched only inside the entry, so a missing NUL makes the
  // padded length exceed the entry and is refused like an overlong name.
  long room = entryLen - 8 > 0 ? entryLen - 8 : 0;
  long nameLen = static_cast<long>(strnlen(msg + at + 8, static_cast<size_t>(room)));
  long padded = roundUp(nameLen + 1, 4);
  if (padded > AGENT_MAX_NAME || padded > entryLen - 8) return -3;
  pair->name = copyBytes(msg + at + 8, padded);
  long contentsLen = entryLen - 8 - padded;
  if (adopt && adopt->index < 0 && contentsLen >= ADOPT_MIN)
    *adopt = Adoption{index, at + 8 + padded, contentsLen};
  else
    pair->contents = copyBytes(msg + at + 8 + padded, contentsLen);
  return entryLen;
}

// Decodes every entry into a new list. With `adopt`, the first large contents are
// left for the caller (see readAgentReply). Returns 0 or -3.
static int decodeEntries(const char *msg, long length, int count, NamePair **pairs,
                         Adoption *adopt) {
  *pairs = nullptr;
  // Every entry takes at least 12 bytes: a count the message cannot hold is malformed,
  // and is refused before the list is allocated.
  if (count < 0 || length < HEADER_BYTES || count > (length - HEADER_BYTES) / 12) return -3;
  NamePair *list = newPairList(count + 1);
  long at = HEADER_BYTES;
  for (int i = 0; i < count; i++) {
    long step = decodeEntry(msg, length, at, &list[i], adopt, i);
    if (step < 0) {
      freePairList(list);
      return -3;
    }
    at += step;
  }
  *pairs = list;
  return 0;
}

int decodeAgentMessage(const char *msg, long length, int count, NamePair **pairs) {
  return decodeEntries(msg, length, count, pairs, nullptr);
}

int readAgentReply(int sock, int timeoutSeconds, char **buffer, int *count, NamePair **pairs,
                   int wait) {
  *pairs = nullptr;
  int result = WebSockRead(sock, timeoutSeconds, buffer, count, wait);
  if (result != 0) return result;
  long length = static_cast<long>(getWord32(*buffer + 8));
  Adoption adopt{-1, 0, 0};
  result = decodeEntries(*buffer, length, *count, pairs, &adopt);
  if (result == 0 && adopt.index >= 0) {
    // The received buffer is released here anyway. Rather than copy the page (up to
    // 1 MiB) into fresh memory, whose first touch costs a page fault every 4 KiB, its
    // bytes move to the front of the buffer and the buffer becomes that pair's
    // contents: the same bytes, NUL-terminated, owned by the pair as any other.
    char *text = *buffer;
    memmove(text, text + adopt.offset, static_cast<size_t>(adopt.length));
    text[adopt.length] = '\0';
    char *fitted = static_cast<char *>(allocMem(text, static_cast<size_t>(adopt.length) + 1));
    (*pairs)[adopt.index].contents = fitted ? fitted : text;
  } else {
    freeMem(*buffer);
  }
  *buffer = nullptr;
  return result;
}

}  // namespace quorvel::gateway
