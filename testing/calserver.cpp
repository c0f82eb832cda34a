// calserver.cpp -- the fake calendar server: accepts loopback connections on its own
// thread, records each request and answers it by the next step of its script.
// Divisions: fields and steps, the serving loop, start and stop.
#include "testing/calserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace quorvel {

static void putWord(std::vector<uint8_t> *out, uint32_t v) {
  uint32_t n = htonl(v);
  const uint8_t *p = reinterpret_cast<const uint8_t *>(&n);
  out->insert(out->end(), p, p + 4);
}

static uint32_t getWord(const uint8_t *p) {
  uint32_t n;
  memcpy(&n, p, 4);
  return ntohl(n);
}

CalField calBytes(int kind, std::string bytes) { return CalField{kind, {bytes.begin(), bytes.end()}}; }

CalField calNumber(int32_t value) {
  CalField f{51, {}};
  putWord(&f.payload, static_cast<uint32_t>(value));
  return f;
}

CalField calText(const std::string &text) { return calBytes(56, text + '\0'); }

int32_t calFieldNumber(const CalField &f) {
  return f.payload.size() >= 4 ? static_cast<int32_t>(getWord(f.payload.data())) : 0;
}

std::string calFieldText(const CalField &f) {
  std::string s(f.payload.begin(), f.payload.end());
  return s.substr(0, s.find('\0'));
}

// Splits a message body into tagged fields; false when it does not parse exactly.
static bool parseFields(const uint8_t *body, size_t length, std::vector<CalField> *out) {
  for (size_t at = 0; at < length;) {
    if (length - at < 4) return false;
    uint32_t word = getWord(body + at);
    size_t n = word & 0xFFFFFF, space = 4 + (n + 3) / 4 * 4;
    if (space > length - at) return false;
    out->push_back(CalField{static_cast<int>(word >> 24), {body + at + 4, body + at + 4 + n}});
    at += space;
  }
  return true;
}

CalStep calReply(std::vector<CalField> fields, int code) {
  CalStep s;
  s.code = code, s.fields = std::move(fields);
  return s;
}

CalStep calBusy() { return calReply({}, 217); }

CalStep calServerValue(int32_t v) {
  // The reply code counts as the first field, so the value is the sixth of the body.
  return calReply({calText(""), calNumber(0), calNumber(0), calNumber(0), calNumber(0), calNumber(v)}, 218);
}

CalStep calAction(CalAction action) {
  CalStep s;
  s.action = action;
  return s;
}

static std::vector<uint8_t> buildReply(const CalStep &step, int requestCode) {
  std::vector<uint8_t> msg;
  putWord(&msg, static_cast<uint32_t>((step.code ? step.code : requestCode + 100) << 16 |
                                      step.major << 8 | step.minor));
  msg.resize(12);
  for (const CalField &f : step.fields) {
    putWord(&msg, (static_cast<uint32_t>(f.kind) << 24) | (f.payload.size() & 0xFFFFFF));
    msg.insert(msg.end(), f.payload.begin(), f.payload.end());
    msg.resize((msg.size() + 3) / 4 * 4);
  }
  msg.insert(msg.end(), step.raw.begin(), step.raw.end());
  uint32_t length = static_cast<uint32_t>(step.announce >= 0 ? step.announce : int64_t(msg.size()));
  uint32_t len = htonl(step.zeroLength ? 0 : length), magic = htonl(step.magic);
  memcpy(msg.data() + 4, &len, 4);
  memcpy(msg.data() + 8, &magic, 4);
  return msg;
}

// Sleeps in short slices so that a stop cuts the wait short.
static void sleepMs(CalServer *s, int ms) {
  for (int left = ms; left > 0 && !s->stopping; left -= 10)
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(left, 10)));
}

// Waits for input on fd, in short rounds so that a stop is noticed; false on stop.
static bool waitReadable(CalServer *s, int fd) {
  pollfd p{fd, POLLIN, 0};
  while (!s->stopping) {
    int r = poll(&p, 1, 20);
    if (r > 0) return true;
    if (r < 0 && errno != EINTR) return false;
  }
  return false;
}

// Reads (out: sends) exactly n bytes; false on end of input, error or stop.
static bool transfer(CalServer *s, int fd, uint8_t *p, size_t n, bool out = false) {
  while (n > 0) {
    if (!out && !waitReadable(s, fd)) return false;
    ssize_t r = out ? send(fd, p, n, MSG_NOSIGNAL) : recv(fd, p, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r, n -= static_cast<size_t>(r);
  }
  return true;
}

static bool readRequest(CalServer *s, int fd, CalRequest *req) {
  uint8_t head[12];
  if (!transfer(s, fd, head, 12)) return false;
  req->code = (head[0] << 8) | head[1];
  req->magic = getWord(head + 8);
  uint32_t length = getWord(head + 4);
  if (length < 12 || length > (64u << 20)) return false;
  std::vector<uint8_t> body(length - 12);
  if (!transfer(s, fd, body.data(), body.size())) return false;
  req->wellFormed = parseFields(body.data(), body.size(), &req->fields);
  return true;
}

// The next step of the script (a normal reply once it is used up), taken off or not.
static CalStep nextStep(CalServer *s, bool take) {
  std::lock_guard<std::mutex> g(s->lock);
  if (s->script.empty()) return CalStep{};
  CalStep step = s->script.front();
  if (take) s->script.erase(s->script.begin());
  return step;
}

// Answers one request by the step; false when the connection is to be dropped.
static bool answer(CalServer *s, int fd, const CalStep &step, int requestCode) {
  sleepMs(s, step.delayMs);
  std::vector<uint8_t> msg = buildReply(step, requestCode);
  switch (step.action) {
    case CAL_CLOSE:
      return false;
    case CAL_RESET: {
      linger hard{1, 0};  // closing with a zero linger time sends a reset
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      return false;
    }
    case CAL_SILENT:
      for (uint8_t junk[256]; waitReadable(s, fd) && recv(fd, junk, sizeof junk, 0) > 0;) {
      }
      return false;
    case CAL_TRUNCATE:
      transfer(s, fd, msg.data(), std::min<size_t>(msg.size(), 6), true);
      return false;
    case CAL_OVERLONG:
      msg.insert(msg.end(), 8, 0x5A);
      return transfer(s, fd, msg.data(), msg.size(), true);
    case CAL_REPLY:
      return transfer(s, fd, msg.data(), msg.size(), true);
  }
  return false;
}

static void serveLoop(CalServer *s) {
  while (!s->stopping && waitReadable(s, s->listenFd)) {
    int fd = accept(s->listenFd, nullptr, nullptr);
    if (fd < 0) continue;
    {
      std::lock_guard<std::mutex> g(s->lock);
      s->connections++;
    }
    for (;;) {
      sleepMs(s, nextStep(s, false).stallReadMs);
      CalRequest req;
      if (!readRequest(s, fd, &req)) break;
      {
        std::lock_guard<std::mutex> g(s->lock);
        s->requests.push_back(req);
      }
      if (!answer(s, fd, nextStep(s, true), req.code)) break;
    }
    close(fd);
  }
}

int startCalServer(CalServer *s) {
  s->listenFd = socket(AF_INET, SOCK_STREAM, 0);
  if (s->listenFd < 0) return -1;
  int on = 1;
  setsockopt(s->listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t alen = sizeof a;
  sockaddr *sa = reinterpret_cast<sockaddr *>(&a);
  if (bind(s->listenFd, sa, alen) < 0 || listen(s->listenFd, 8) < 0 || getsockname(s->listenFd, sa, &alen) < 0) {
    int saved = errno;
    close(s->listenFd);
    s->listenFd = -1;
    errno = saved;
    return -1;
  }
  s->port = ntohs(a.sin_port);
  s->stopping = false;
  s->thread = std::thread(serveLoop, s);
  return 0;
}

void stopCalServer(CalServer *s) {
  s->stopping = true;
  if (s->thread.joinable()) s->thread.join();
  if (s->listenFd >= 0) close(s->listenFd);
  s->listenFd = -1;
}

void calScript(CalServer *s, std::vector<CalStep> steps) {
  std::lock_guard<std::mutex> g(s->lock);
  for (CalStep &step : steps) s->script.push_back(std::move(step));
}

std::vector<CalRequest> calRequests(CalServer *s) {
  std::lock_guard<std::mutex> g(s->lock);
  return s->requests;
}

int calConnections(CalServer *s) {
  std::lock_guard<std::mutex> g(s->lock);
  return s->connections;
}

std::string calAddress(const CalServer *s) { return "127.0.0.1:" + std::to_string(s->port - 3751); }

}  // namespace quorvel
