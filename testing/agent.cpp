// agent.cpp -- the sample web agent: its own message encoder and decoder, the demo
// reply, and the loopback server that answers each connection by its script.
#include "testing/agent.h"
#include "testing/calendar_view.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace quorvel::webagent {

static void putWord(std::string *out, uint32_t value) {
  uint32_t net = htonl(value);
  out->append(reinterpret_cast<const char *>(&net), 4);
}
static uint32_t wordAt(const std::string &msg, size_t at) {
  uint32_t net;
  memcpy(&net, msg.data() + at, 4);
  return ntohl(net);
}
static size_t padded(size_t len) { return (len + 1 + 3) / 4 * 4; }

std::string encodeAgentMessage(const std::vector<AgentPair> &pairs, uint32_t magic) {
  std::string body;
  for (const AgentPair &p : pairs) {
    size_t n = padded(p.name.size()), c = padded(p.contents.size());
    putWord(&body, AGENT_MAGIC_WORD);
    putWord(&body, static_cast<uint32_t>(8 + n + c));
    body += p.name + std::string(n - p.name.size(), '\0') + p.contents +
            std::string(c - p.contents.size(), '\0');
  }
  std::string msg;
  putWord(&msg, magic);
  putWord(&msg, static_cast<uint32_t>(pairs.size()));
  putWord(&msg, static_cast<uint32_t>(12 + body.size()));
  return msg + body;
}

// Decodes a whole message into pairs; 0, or -1 when it is malformed.
static int decodeAgentMessage(const std::string &msg, std::vector<AgentPair> *pairs) {
  pairs->clear();
  if (msg.size() < 12 || wordAt(msg, 0) != AGENT_MAGIC_WORD) return -1;
  uint32_t count = wordAt(msg, 4);
  if (wordAt(msg, 8) != msg.size()) return -1;
  size_t at = 12;
  for (uint32_t i = 0; i < count; i++) {
    if (msg.size() - at < 8) return -1;
    size_t len = wordAt(msg, at + 4);
    if (len < 12 || len > msg.size() - at) return -1;
    std::string entry = msg.substr(at + 8, len - 8);
    size_t nameEnd = entry.find('\0');
    if (nameEnd == std::string::npos || padded(nameEnd) > entry.size()) return -1;
    AgentPair pair{entry.substr(0, nameEnd), entry.substr(padded(nameEnd))};
    pair.contents.resize(strnlen(pair.contents.c_str(), pair.contents.size()));
    pairs->push_back(pair);
    at += len;
  }
  return at == msg.size() ? 0 : -1;
}

// One table row per key=value field of the query.
static std::string queryRows(const std::string &query) {
  std::string rows, field;
  for (std::istringstream in(query); std::getline(in, field, '&');) {
    size_t eq = field.find('=');
    std::string key = field.substr(0, eq), value = eq == std::string::npos ? "" : field.substr(eq + 1);
    if (!field.empty())
      rows += "<tr><td>" + htmlEscape(key) + "</td><td>" + htmlEscape(value) + "</td></tr>\n";
  }
  return rows;
}

std::string demoPage(const std::string &query) {
  return "Content-type: text/html\n\n"
         "<html>\n<head>\n<meta charset=\"utf-8\">\n<title>Quorvel sample agent</title>\n</head>\n<body>\n"
         "<h1>Quorvel sample web agent</h1>\n"
         "<p><img src=\"/tmp/demo-picture.svg\" width=\"120\" height=\"120\" "
         "alt=\"Quorvel calendar\"></p>\n"
         "<p>The agent received this request:</p>\n<pre>" + htmlEscape(query) + "</pre>\n"
         "<table border=1>\n<tr><th>key</th><th>value</th></tr>\n" + queryRows(query) +
         "</table>\n</body>\n</html>\n";
}
std::string demoPicture() {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"120\" height=\"120\" "
         "viewBox=\"0 0 120 120\">\n"
         "<rect x=\"10\" y=\"20\" width=\"100\" height=\"90\" rx=\"8\" fill=\"#fff\" "
         "stroke=\"#2a5d9f\" stroke-width=\"4\"/>\n"
         "<rect x=\"10\" y=\"20\" width=\"100\" height=\"24\" rx=\"8\" fill=\"#2a5d9f\"/>\n"
         "<text x=\"60\" y=\"92\" font-family=\"sans-serif\" font-size=\"40\" "
         "text-anchor=\"middle\" fill=\"#2a5d9f\">Q</text>\n"
         "</svg>\n";
}
static std::vector<AgentPair> demoPairs(const std::string &query) {
  return {{"tmp/demo-picture.svg", demoPicture()}, {"", demoPage(query)}};
}
static std::vector<AgentPair> filePairs(const AgentScript &script, const std::string &query) {
  std::vector<AgentPair> pairs;
  for (int i = 0; i < script.fileCount; i++) {
    std::string contents(script.fileSize, 'a' + static_cast<char>(i % 26));
    if (!contents.empty()) contents.back() = '\n';
    pairs.push_back({"tmp/file-" + std::to_string(i) + ".txt", contents});
  }
  pairs.push_back({"", demoPage(query)});
  return pairs;
}

// The reply a script answers query with (modes that send a message at all).
static std::string agentReplyBytes(const AgentScript &script, const std::string &query) {
  const std::vector<AgentPair> pairs = script.pairs.empty() ? demoPairs(query) : script.pairs;
  switch (script.mode) {
    case AgentMode::Demo: return encodeAgentMessage(demoPairs(query));
    case AgentMode::Files: return encodeAgentMessage(filePairs(script, query));
    case AgentMode::BadMagic: return encodeAgentMessage(pairs, 0xDEADBEEE);
    case AgentMode::LongName:
      return encodeAgentMessage({{std::string(257, 'n'), "x"}, {"", demoPage(query)}});
    case AgentMode::ExtraBytes: return encodeAgentMessage(pairs) + std::string("more", 4);
    case AgentMode::Raw: return script.raw;
    case AgentMode::Calendar: return encodeAgentMessage(calendarReply(script.database, query));
    case AgentMode::Oversize: {  // the header of one pair, announcing 0x100001 bytes
      std::string header = encodeAgentMessage({AgentPair{}}).substr(0, 8);
      return putWord(&header, 0x100001), header;
    }
    default: return encodeAgentMessage(pairs);
  }
}

// Waits until fd is readable or the stop pipe is written. Returns true for fd.
static bool waitReadable(SampleAgent *agent, int fd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {agent->stopPipe[0], POLLIN, 0}};
  for (;;) {
    int n = poll(fds, 2, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || (fds[1].revents & POLLIN)) return false;
    if (fds[0].revents) return true;
  }
}
// Reads exactly n bytes into out; false on end of stream, error or stop.
static bool readExactly(SampleAgent *agent, int fd, size_t n, std::string *out) {
  char chunk[8192];
  while (n > 0) {
    if (!waitReadable(agent, fd)) return false;
    ssize_t got = recv(fd, chunk, n < sizeof chunk ? n : sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out->append(chunk, static_cast<size_t>(got));
    n -= static_cast<size_t>(got);
  }
  return true;
}
static bool sendAll(int fd, const char *bytes, size_t n) {
  while (n > 0) {
    ssize_t sent = send(fd, bytes, n, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    n -= static_cast<size_t>(sent);
  }
  return true;
}
// Reads one request message and returns its query (the unnamed pair); false when the
// peer sent no well-formed message.
static bool readRequest(SampleAgent *agent, int fd, std::string *query) {
  std::string msg;
  if (!readExactly(agent, fd, 12, &msg)) return false;
  uint32_t total = wordAt(msg, 8);
  if (wordAt(msg, 0) != AGENT_MAGIC_WORD || total < 12 || total > (64u << 20)) return false;
  if (!readExactly(agent, fd, total - 12, &msg)) return false;
  std::vector<AgentPair> pairs;
  if (decodeAgentMessage(msg, &pairs) != 0) return false;
  for (const AgentPair &p : pairs)
    if (p.name.empty()) return (*query = p.contents), true;
  return false;
}
// Holds the connection until the peer closes it or the agent is stopped.
static void holdUntilClosed(SampleAgent *agent, int fd) {
  char sink[4096];
  while (waitReadable(agent, fd))
    if (recv(fd, sink, sizeof sink, 0) <= 0) return;
}

static AgentScript takeScript(SampleAgent *agent) {
  std::lock_guard<std::mutex> hold(agent->lock);
  if (agent->scripts.empty()) return AgentScript{};
  size_t i = agent->nextScript < agent->scripts.size() ? agent->nextScript++ : agent->scripts.size() - 1;
  return agent->scripts[i];
}
static void dripBytes(int fd, const std::string &bytes, size_t step, unsigned pauseMicros) {
  if (step == 0) step = 1;
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  for (size_t at = 0; at < bytes.size(); at += step) {
    if (!sendAll(fd, bytes.data() + at, std::min(step, bytes.size() - at))) return;
    usleep(pauseMicros);  // lets each piece travel on its own (the peer's reads see it split)
  }
}
static void serveConnection(SampleAgent *agent, int fd) {
  AgentScript script = takeScript(agent);
  std::string query;
  if (script.mode == AgentMode::NoRead) {  // holds without reading until stopped
    waitReadable(agent, agent->stopPipe[0]);
    return;
  }
  if (!readRequest(agent, fd, &query)) return;
  {
    std::lock_guard<std::mutex> hold(agent->lock);
    agent->requests.push_back(query);
  }
  if (agent->announce) fprintf(stderr, "sample_agent: request %s\n", query.c_str());
  if (script.mode == AgentMode::CloseEarly) return;
  if (script.mode == AgentMode::Silent) return holdUntilClosed(agent, fd);
  std::string reply = agentReplyBytes(script, query);
  if (script.mode == AgentMode::Drip) dripBytes(fd, reply, script.dripBytes, script.dripPauseMicros);
  else sendAll(fd, reply.data(), reply.size());
  shutdown(fd, SHUT_WR);
  holdUntilClosed(agent, fd);  // the peer reads everything, then closes
}
int agentListen(SampleAgent *agent, int port) {
  if (pipe(agent->stopPipe) != 0) return errno;
  agent->listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (agent->listenFd < 0) return errno;
  int one = 1;
  setsockopt(agent->listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  // Set on the listening socket so accepted connections start with a small window.
  if (agent->receiveBuffer > 0)
    setsockopt(agent->listenFd, SOL_SOCKET, SO_RCVBUF, &agent->receiveBuffer,
               sizeof agent->receiveBuffer);
  sockaddr_in addr{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof addr;
  if (bind(agent->listenFd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
      listen(agent->listenFd, 16) != 0 ||
      getsockname(agent->listenFd, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
    return errno;
  agent->port = ntohs(addr.sin_port);
  return 0;
}

void agentServe(SampleAgent *agent, int maxConnections) {
  for (int served = 0; maxConnections <= 0 || served < maxConnections; served++) {
    if (!waitReadable(agent, agent->listenFd)) return;
    int fd = accept4(agent->listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) served--;
    else serveConnection(agent, fd), close(fd);
  }
}
int agentStart(SampleAgent *agent, int port) {
  if (int err = agentListen(agent, port); err != 0) return err;
  agent->thread = std::thread(agentServe, agent, 0);
  return 0;
}
void agentStop(SampleAgent *agent) {
  if (agent->stopPipe[1] >= 0 && write(agent->stopPipe[1], "x", 1) != 1) perror("sample_agent: stop");
  if (agent->thread.joinable()) agent->thread.join();
  for (int *fd : {&agent->listenFd, &agent->stopPipe[0], &agent->stopPipe[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}
void agentPush(SampleAgent *agent, const AgentScript &script) {
  std::lock_guard<std::mutex> hold(agent->lock);
  agent->scripts.push_back(script);
}
std::vector<std::string> agentRequests(SampleAgent *agent) {
  std::lock_guard<std::mutex> hold(agent->lock);
  return agent->requests;
}
int agentOffset(const SampleAgent *agent) { return (agent->port - AGENT_BASE_PORT) & 0xFFFF; }

}  // namespace quorvel::webagent
