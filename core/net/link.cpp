// link.cpp -- the calendar-server connection: contexts, addresses and connecting, the
// message header and its check, the send and receive loops, replies as typed fields,
// the hand-shake, and the link's error texts and loss messages.
// Every raw socket call of this layer is in this file, each wrapped once.
#include "core/net/link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/base/base.h"

namespace quorvel {

// Process-wide settings: set by the client core (no-wait from its main context, the
// hooks from its user interface) or by tests; read by the loops below.
static bool noWait;                    // no retries; alarms around server reads/writes
static bool diagnostics;               // perror on read errors
static LinkMessageHook messageHook;    // the client's message display; null: stderr
static LinkBusyHook busyHook;          // the client's busy indication
static LinkRefreshHook refreshHook;    // runs on a context after a 218 reply

static constexpr unsigned READ_ALARM = 150;   // seconds, no-wait mode, per wait and read
static constexpr unsigned WRITE_ALARM = 450;  // seconds, no-wait mode, per write loop
static constexpr int WRITE_STALLS = 10;       // stalls in a row before a send gives up
static constexpr int READ_STALLS = 20;        // wake-ups without data in a row end a read
static constexpr size_t WRITE_CHUNK = 8192;

void setNoWaitMode(bool on) { noWait = on; }
bool noWaitMode() { return noWait; }
void setLinkDiagnostics(bool on) { diagnostics = on; }

LinkMessageHook setLinkMessageHook(LinkMessageHook hook) {
  LinkMessageHook old = messageHook;
  messageHook = hook;
  return old;
}

LinkBusyHook setLinkBusyHook(LinkBusyHook hook) {
  LinkBusyHook old = busyHook;
  busyHook = hook;
  return old;
}

LinkRefreshHook setLinkRefreshHook(LinkRefreshHook hook) {
  LinkRefreshHook old = refreshHook;
  refreshHook = hook;
  return old;
}

void resetLink() {
  noWait = false;
  diagnostics = false;
  messageHook = nullptr;
  busyHook = nullptr;
  refreshHook = nullptr;
}

// The own version, "1.6" split at its dot.
static int ownMajor() { return atoi(PROTOCOL_VERSION); }
static int ownMinor() { return atoi(strchr(PROTOCOL_VERSION, '.') + 1); }

// Prints one diagnostic line on standard error and gives the result that goes with it.
static int report(const char *text, int result) {
  fputs(text, stderr);
  return result;
}

// Milliseconds of a wait given in seconds, kept within what poll takes.
static int secondsToMs(int seconds) {
  if (seconds <= 0) return 0;
  return seconds > INT32_MAX / 1000 ? INT32_MAX : seconds * 1000;
}

static int waitOf(const ServerLink *link) {
  return link->waitMs > 0 ? link->waitMs : secondsToMs(link->timeout);
}

/* ==== Contexts ===================================================================== */

ServerLink *newServerLink(const char *address) {
  ServerLink *link = static_cast<ServerLink *>(allocMem(nullptr, sizeof(ServerLink)));
  if (!link) outOfMem("newServerLink");
  *link = ServerLink{};
  if (address) {
    link->server = static_cast<char *>(allocMem(nullptr, strlen(address) + 1));
    if (!link->server) outOfMem("newServerLink");
    strcpy(link->server, address);
  }
  link->sock = -1;
  link->req = NewBuf();
  link->timeout = 30;
  link->retries = 2;
  link->reportLoss = true;
  return link;
}

void freeServerLink(ServerLink *link) {
  if (!link) return;
  closeServerSocket(link);
  CreateWithCache(link, 0);
  freeBuf(link->req);
  freeMem(link->server);
  freeMem(link);
}

void closeServerSocket(ServerLink *link) {
  if (link->sock >= 0) close(link->sock);
  link->sock = -1;
}

WithReq *NewWithReq() {
  WithReq *r = static_cast<WithReq *>(allocMem(nullptr, sizeof(WithReq)));
  if (!r) outOfMem("NewWithReq");
  *r = WithReq{};
  return r;
}

void CreateWithCache(ServerLink *link, int n) {
  for (int i = 0; i < link->slotCount; i++) freeMem(link->slots[i]);
  freeMem(link->slots);
  link->slots = nullptr;
  link->slotCount = 0;
  if (n <= 0) return;
  link->slots = static_cast<WithReq **>(allocMem(nullptr, sizeof(WithReq *) * size_t(n)));
  if (!link->slots) outOfMem("CreateWithCache");
  for (int i = 0; i < n; i++) link->slots[i] = nullptr;
  link->slotCount = n;
}

/* ==== Addresses and connecting ======================================================== */

void splitServerAddress(const char *address, std::string *host, int *number) {
  *number = 0;
  *host = address ? address : "";
  // Only a colon followed by a digit starts the port number; any other stays in the host.
  for (size_t i = 0; i + 1 < host->size(); i++) {
    if ((*host)[i] == ':' && (*host)[i + 1] >= '0' && (*host)[i + 1] <= '9') {
      *number = atoi(host->c_str() + i + 1);
      host->resize(i);
      return;
    }
  }
}

int serverTcpPort(const char *address) {
  std::string host;
  int n;
  splitServerAddress(address, &host, &n);
  return static_cast<uint16_t>(n + SERVER_BASE_PORT);
}

// Waits until fd is readable (write false) or writable: 1 ready, 0 time-out, -1 error.
// (poll rather than select: an fd_set cannot hold descriptors past FD_SETSIZE)
static int waitSocket(int fd, bool write, int waitMs) {
  for (;;) {
    pollfd p{fd, static_cast<short>(write ? POLLOUT : POLLIN), 0};
    int r = poll(&p, 1, waitMs);
    if (r >= 0) return r > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

// The IPv4 address of a host text: dotted form when it starts with a digit, else a
// name lookup. False (errno ENOENT when it was 0) when there is none.
static bool resolveHost(const std::string &host, in_addr *out) {
  unsigned char first = host.empty() ? 0 : static_cast<unsigned char>(host[0]);
  if (first >= '0' && first <= '9') {
    out->s_addr = inet_addr(host.c_str());
    return true;
  }
  hostent *h = gethostbyname(host.c_str());
  if (!h || h->h_addrtype != AF_INET || !h->h_addr_list[0]) {
    if (errno == 0) errno = ENOENT;
    return false;
  }
  memcpy(&out->s_addr, h->h_addr_list[0], sizeof out->s_addr);
  return true;
}

// One connect on a fresh non-blocking socket: 0, or the errno that ended it. A pending
// connect counts as made as soon as the socket turns writable; a refusal that arrives
// that way shows up at the first send.
static int tryConnect(int fd, const sockaddr_in *sa, int timeoutSeconds) {
  if (connect(fd, reinterpret_cast<const sockaddr *>(sa), sizeof *sa) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  int r = waitSocket(fd, true, secondsToMs(timeoutSeconds));
  if (r > 0) return 0;
  return r == 0 ? ETIMEDOUT : errno;
}

int makeConnection(ServerLink *link) {
  std::string host;
  int n;
  splitServerAddress(link->server, &host, &n);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(n + SERVER_BASE_PORT));
  errno = 0;
  if (!resolveHost(host, &sa.sin_addr)) return -1;
  for (int left = link->retries;; left--) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
      fprintf(stderr, "makeConnection: setsockopt: %d\n", errno);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    int err = tryConnect(fd, &sa, link->timeout);
    if (err == 0) {
      link->lost = false;
      link->connectedBefore = true;
      link->lossShown = false;
      return fd;
    }
    close(fd);
    errno = err;
    if ((err != EAGAIN && err != ETIMEDOUT) || noWait) return -1;
    pauseSeconds(static_cast<unsigned>(link->timeout));
    if (left <= 0) return -1;
  }
}

// Whether `name` is this machine's name, its official name or one of its aliases.
static bool namesThisMachine(const char *name, std::string *official) {
  char self[128] = {};
  if (gethostname(self, sizeof self - 1) != 0) return false;
  bool match = strcmp(name, self) == 0;
  hostent *h = gethostbyname(self);
  if (!h) return match;
  if (h->h_name) *official = h->h_name;
  if (h->h_name && strcmp(name, h->h_name) == 0) match = true;
  for (char **a = h->h_aliases; a && *a; a++)
    if (strcmp(name, *a) == 0) match = true;
  return match;
}

bool isLocalServer(const char *address, int port) {
  if (!address) return false;
  if (strcmp(address, "localhost") == 0) return true;
  std::string host;
  int n;
  splitServerAddress(address, &host, &n);
  if (n != port) return false;
  if (host == "localhost") return true;
  std::string official;
  if (namesThisMachine(host.c_str(), &official)) return true;
  hostent *h = gethostbyname(host.c_str());
  return h && h->h_name && !official.empty() && official == h->h_name;
}

/* ==== Framing ========================================================================= */

static void putHeader(uint8_t *p, int code, uint32_t length, bool extended) {
  uint16_t c = htons(static_cast<uint16_t>(code));
  memcpy(p, &c, 2);
  p[2] = static_cast<uint8_t>(ownMajor());
  p[3] = static_cast<uint8_t>(ownMinor());
  uint32_t len = htonl(length);
  uint32_t magic = htonl(extended ? MSG_MAGIC_EXTENDED : MSG_MAGIC);
  memcpy(p + 4, &len, 4);
  memcpy(p + 8, &magic, 4);
}

void startMessage(Buf *buf, int code) {
  uint8_t head[MSG_HEADER_SIZE];
  putHeader(head, code, MSG_HEADER_SIZE, buf->extended != 0);
  rewindBuf(buf);
  StuffBuf(buf, head, sizeof head, 1, BUF_UNTAGGED);
}

void finishMessage(Buf *buf) {
  if (bufUsed(buf) < size_t(MSG_HEADER_SIZE)) return;
  uint8_t *p = bufData(buf);
  int code = (p[0] << 8) | p[1];
  putHeader(p, code, static_cast<uint32_t>(bufUsed(buf)), buf->extended != 0);
}

void startRequest(ServerLink *link, int code) {
  Buf *b = link->req;
  b->extended = 0;
  b->peerMajor = link->peerMajor;
  b->peerMinor = link->peerMinor;
  startMessage(b, code);
}

void putNumber(Buf *buf, int32_t value) {
  StuffBuf(buf, &value, 4, 4, static_cast<uint32_t>(FIELD_NUMBER) << 24);
}

void putText(Buf *buf, const char *text) {
  if (text) {
    StuffBuf(buf, text, strlen(text) + 1, 1, static_cast<uint32_t>(FIELD_TEXT) << 24);
    return;
  }
  uint32_t bare = htonl(static_cast<uint32_t>(FIELD_TEXT) << 24);  // an empty field
  StuffBuf(buf, &bare, 4, 1, BUF_UNTAGGED);
}

int checkReplyHeader(Buf *buf, int *code, uint32_t *length) {
  uint8_t head[MSG_HEADER_SIZE];
  rewindBuf(buf);
  if (ReadBuf(buf, head, sizeof head, 1, 0) < 0) return LINK_NO_HEADER;
  buf->peerMajor = head[2];
  buf->peerMinor = head[3];
  uint32_t len, magic;
  memcpy(&len, head + 4, 4);
  memcpy(&magic, head + 8, 4);
  if (code) *code = (head[0] << 8) | head[1];
  if (length) *length = ntohl(len);
  if (abs(int(head[2]) - ownMajor()) > 2) return LINK_BAD_VERSION;
  magic = ntohl(magic);
  if (magic != MSG_MAGIC && magic != MSG_MAGIC_EXTENDED) return LINK_BAD_MAGIC;
  return 0;
}

/* ==== Send and receive loops ============================================================ */

// In no-wait mode an alarm bounds each wait (the previous alarm is put back after);
// otherwise the client's busy indication brackets it.
static unsigned bracketOn(unsigned seconds) {
  if (noWait) return alarm(seconds);
  if (busyHook) busyHook(1);
  return 0;
}

static void bracketOff(unsigned previous) {
  if (noWait) {
    alarm(previous);
  } else if (busyHook) {
    busyHook(0);
  }
}

// A stall of the send loop: recorded in the buffer's status; the tenth in a row ends
// the send with a time-out.
static bool writeStalled(Buf *buf) {
  setBufStatus(buf, EAGAIN);
  if (bufStatusRepeats(buf) >= WRITE_STALLS) {
    fputs("doWrite: EWOULDBLOCK\n", stderr);
    return true;
  }
  pauseSeconds(1);
  return false;
}

int doWrite(int sock, Buf *buf, size_t len, int waitMs) {
  if (len < 1 || len > bufUsed(buf)) return report("doWrite: bad length\n", LINK_GENERAL);
  const uint8_t *p = bufData(buf);
  size_t left = len;
  setBufStatus(buf, 0);
  unsigned previous = bracketOn(WRITE_ALARM);
  int result = 0;
  while (left > 0) {
    int ready = waitSocket(sock, true, waitMs);
    if (ready < 0) {
      result = errno;
      break;
    }
    ssize_t n = ready ? send(sock, p, left < WRITE_CHUNK ? left : WRITE_CHUNK, MSG_NOSIGNAL) : 0;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) {
      result = errno;
      perror("socket write");
      break;
    }
    if (n <= 0) {
      if (writeStalled(buf)) {
        result = LINK_TIMEOUT;
        break;
      }
      continue;
    }
    setBufStatus(buf, 0);
    left -= static_cast<size_t>(n);
    p += n;
  }
  bracketOff(previous);
  return result;
}

static constexpr int SELECT_FAILED = -5;  // readSome: the wait itself failed

// One wait and one read of at most `ask` bytes into p. Returns 0 with *got set (0 at
// end of input), LINK_TIMEOUT, SELECT_FAILED, or -1 with errno set by recv.
static int readSome(int sock, uint8_t *p, size_t ask, int waitMs, ssize_t *got) {
  unsigned previous = bracketOn(READ_ALARM);
  int result = 0;
  int ready = waitSocket(sock, false, waitMs);
  if (ready < 0) {
    int saved = errno;
    perror("read select");
    errno = saved;
    result = SELECT_FAILED;
  } else if (ready == 0) {
    result = LINK_TIMEOUT;
  } else {
    *got = recv(sock, p, ask, 0);
    if (*got < 0) result = -1;
  }
  int saved = errno;
  bracketOff(previous);
  errno = saved;
  return result;
}

// The header has arrived (`got` bytes so far): check it and size the buffer for the
// whole reply. Returns 0 with *want set, or the read's result after its report.
static int takeHeader(Buf *buf, size_t got, size_t *want) {
  uint32_t length = 0;
  int r = checkReplyHeader(buf, nullptr, &length);
  if (r == LINK_BAD_VERSION) return report("Incompatible client version\n", r);
  if (r == LINK_BAD_MAGIC) return report("Bad magic number\n", r);
  if (r == 0 && length == 0) return report("Zero buf size\n", LINK_NO_HEADER);
  if (r != 0 || length < size_t(MSG_HEADER_SIZE) || length > BUF_MAX_GROWTH) {
    fprintf(stderr, "Unknown error%d\n", r != 0 ? r : int(length));
    return LINK_GENERAL;
  }
  *want = length;
  // Room for the whole reply and the 4 bytes ReadBuf wants behind a last field.
  if (bufSize(buf) < length + 4) growBuf(buf, roundUp(length + 4 - bufSize(buf), BUF_BLOCK));
  return got > length ? report("net input truncated\n", LINK_TRUNCATED) : 0;
}

// A failed recv: the error's result (ECONNRESET is a plain failure).
static int readFailure(int err) {
  if (err == ECONNRESET) return LINK_GENERAL;
  if (diagnostics) {
    errno = err;
    perror("socket read");
  }
  return err;
}

int ReadFromSocket(ServerLink *link, int waitMs) {
  Buf *buf = link->req;
  size_t ask = buf->limitB ? buf->limitB : 1024;
  size_t got = 0, want = 0;
  setBufStatus(buf, 0);
  rewindBuf(buf);
  for (;;) {
    size_t room = (want ? want : got) + ask + 4;
    if (bufSize(buf) < room) growBuf(buf, roundUp(room - bufSize(buf), BUF_BLOCK));
    if (bufSize(buf) < room) return LINK_GENERAL;
    ssize_t n = 0;
    int r = readSome(link->sock, bufAt(buf, got), ask, waitMs, &n);
    if (r == LINK_TIMEOUT) {
      setBufStatus(buf, LINK_TIMEOUT);
      return LINK_TIMEOUT;
    }
    if (r == SELECT_FAILED) return LINK_GENERAL;
    if (r < 0 && (errno == EAGAIN || errno == EINTR)) {
      setBufStatus(buf, EAGAIN);  // woken without data: try again, a bounded number of times
      if (bufStatusRepeats(buf) >= READ_STALLS) return LINK_GENERAL;
      continue;
    }
    if (r < 0) return readFailure(errno);
    if (n == 0) return got == 0 ? LINK_LOST_REPLY : LINK_GENERAL;
    setBufStatus(buf, 0);  // only wake-ups in a row count: a long reply may meet many
    got += static_cast<size_t>(n);
    if (want == 0 && got >= size_t(MSG_HEADER_SIZE)) {
      r = takeHeader(buf, got, &want);
      if (r != 0) return r;
    }
    if (want && got > want) return report("net input truncated\n", LINK_TRUNCATED);
    if (want && got == want) {
      seekBuf(buf, MSG_HEADER_SIZE);
      return 0;
    }
  }
}

int SendMsgToServer(ServerLink *link) {
  if (!link->server || !*link->server)
    return report("SendMsgToServer: invalid remote host information\n", LINK_GENERAL);
  Buf *buf = link->req;
  int32_t length = 0;
  if (bufUsed(buf) >= size_t(MSG_HEADER_SIZE)) {
    uint32_t n;
    memcpy(&n, bufData(buf) + 4, 4);
    length = static_cast<int32_t>(ntohl(n));
  }
  if (length < 1) {
    fprintf(stderr, "Invalid buf size %d\n", length);
    return LINK_GENERAL;
  }
  if (link->sock < 0) {
    link->sock = makeConnection(link);
    if (link->sock < 0) {
      if (link->connectedBefore) {
        link->lost = true;
        link->connectedBefore = false;
      }
      return LINK_NO_SERVER;
    }
  }
  int r = doWrite(link->sock, buf, static_cast<size_t>(length), waitOf(link));
  if (r != 0 && r != LINK_TIMEOUT) closeServerSocket(link);
  return r;
}

int exchangeWithServer(ServerLink *link) {
  int r = SendMsgToServer(link);
  if (r == 0) r = ReadFromSocket(link, waitOf(link));
  if (r != 0) {
    closeServerSocket(link);  // a half-sent request or half-read reply spoils the stream
    return r;
  }
  if (link->peerMajor == 0 && link->peerMinor == 0) {
    link->peerMajor = link->req->peerMajor;
    link->peerMinor = link->req->peerMinor;
    if (!(link->peerMajor > 0 && link->peerMinor > 2)) link->noExtended = true;
  }
  return 0;
}

/* ==== Replies as typed fields ============================================================ */

int readReplyFields(const Buf *buf, RemReply *reply) {
  reply->fields.clear();
  if (bufSize(buf) < size_t(MSG_HEADER_SIZE)) return -ESRCH;
  const uint8_t *p = bufData(buf);
  uint32_t length;
  memcpy(&length, p + 4, 4);
  length = ntohl(length);
  if (length < uint32_t(MSG_HEADER_SIZE) || length > bufSize(buf)) return -ESRCH;
  int code = (p[0] << 8) | p[1];
  reply->fields.push_back(RemField{FIELD_NUMBER, code, std::string()});
  for (size_t at = MSG_HEADER_SIZE; at < length;) {
    if (length - at < 4) return -ESRCH;
    uint32_t word;
    memcpy(&word, p + at, 4);
    word = ntohl(word);
    size_t n = word & BUF_MAX_FIELD;
    size_t space = 4 + static_cast<size_t>(roundUp(long(n), 4));
    if (space > length - at) return -ESRCH;
    RemField f{static_cast<int>(word >> 24), 0, std::string(reinterpret_cast<const char *>(p + at + 4), n)};
    if (n >= 4) {
      uint32_t v;
      memcpy(&v, p + at + 4, 4);
      f.number = static_cast<int32_t>(ntohl(v));
    }
    reply->fields.push_back(std::move(f));
    at += space;
  }
  return 0;
}

void takeServerValue(ServerLink *link, const RemReply *reply) {
  if (reply->fields.size() > 6 && reply->fields[6].kind == FIELD_NUMBER &&
      reply->fields[6].bytes.size() >= 4)
    link->serverValue = reply->fields[6].number;
  if (refreshHook) refreshHook(link);
}

/* ==== Errors and loss messages ============================================================ */

const char *linkErrorText(int code) {
  static char area[64];  // overwritten by the next call
  const char *text = code == LINK_GENERAL       ? "General error"
                     : code == LINK_BAD_VERSION ? "Incompatible client version"
                     : code == LINK_BAD_MAGIC   ? "Bad magic number"
                                                : "Unknown error";
  snprintf(area, sizeof area, "%s", text);
  return area;
}

static void showLoss(ServerLink *link) {
  if (!link->reportLoss || link->lossShown) return;
  char text[512];
  snprintf(text, sizeof text,
           link->lost || link->connectedBefore ? "lost connection to server %s\n"
                                               : "cannot connect to server %s\n",
           link->server ? link->server : "");
  if (messageHook) {
    messageHook(text);
  } else {
    fputs(text, stderr);
  }
  link->lossShown = true;
}

void reportLinkLoss(ServerLink *link, int code) {
  if (code == LINK_NO_SERVER) showLoss(link);
}

/* ==== The hand-shake ====================================================================== */

// Marks the context as having lost its server.
static void markLost(ServerLink *link) {
  closeServerSocket(link);
  link->lost = true;
  link->connectedBefore = false;
}

// One hand-shake exchange: 0 with the reply split into fields, or the failure.
static int handshakeOnce(ServerLink *link, RemReply *reply) {
  startRequest(link, REQ_HANDSHAKE);
  // Extended only towards a peer known to be x.4 or later.
  if (!(link->peerMajor > 0 && link->peerMinor >= 4)) link->req->extended = 0;
  putNumber(link->req, noWait ? -1 : link->serverValue);
  finishMessage(link->req);
  int r = exchangeWithServer(link);
  if (r == 0 && readReplyFields(link->req, reply) != 0) r = LINK_GENERAL;
  return r;
}

static int handshakeFailed(ServerLink *link, int result, char *message, size_t cap) {
  reportLinkLoss(link, result);
  if (message && cap) snprintf(message, cap, "%s", "failed connection\n");
  return result < 0 ? result : LINK_GENERAL;
}

int GetConnection(ServerLink *link, char *message, size_t cap) {
  int budget = noWait ? 0 : 2;  // shared by lost replies, failed connects and busy waits
  RemReply reply;
  for (;;) {
    int r = handshakeOnce(link, &reply);
    if ((r == LINK_LOST_REPLY || r == LINK_NO_SERVER) && budget > 0) {
      budget--;
      continue;
    }
    if (r != 0) return handshakeFailed(link, r, message, cap);
    int code = reply.fields[0].number;
    if (code == REPLY_BUSY) {
      if (budget == 0) return handshakeFailed(link, LINK_GENERAL, message, cap);  // no-wait: 0
      budget--;
      pauseSeconds(10);
      continue;
    }
    if (code != REPLY_HANDSHAKE && code != REPLY_SERVER_VALUE)
      return handshakeFailed(link, LINK_GENERAL, message, cap);
    if (code == REPLY_SERVER_VALUE) takeServerValue(link, &reply);
    const std::vector<RemField> &f = reply.fields;
    if (f.size() > 1 && f[1].kind == FIELD_TEXT && message && cap)
      snprintf(message, cap, "%s", f[1].bytes.c_str());
    if (f.size() > 2 && f[2].kind == FIELD_NUMBER && f[2].number != 0) {
      showLoss(link);
      markLost(link);
      if (message && cap) snprintf(message, cap, "%s", "failed connection\n");
      return LINK_REFUSED;
    }
    link->lost = false;
    link->connectedBefore = true;
    return 0;
  }
}

}  // namespace quorvel
