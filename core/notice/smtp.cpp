// smtp.cpp -- the direct ("RFC821") delivery: one message to one address, spoken as
// SMTP to the relay named in the mail settings. Every wait is bounded by the settings'
// reply time-out; the socket is non-blocking and waited on with poll.
#include "core/notice/notice.h"

#include "core/base/base.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quorvel {

inline constexpr size_t SMTP_LINE_MAX = 65536;  // a reply line longer than this is refused

struct SmtpSession {
  int fd = -1;
  int waitMs = 0;      // per wait
  std::string input;   // received bytes not yet taken as reply lines
  std::string reply;   // the last reply's final line, for diagnostics
};

static int smtpFail(int code, const char *fmt, const char *a, const char *b = "") {
  std::string line = std::string("deliverRfc821: ") + fmt;
  warning(line.c_str(), a, b);
  return code;
}

// Waits for the socket to become ready for `events`: 0, MAIL_TIMEOUT or an errno.
static int waitFor(SmtpSession *s, short events) {
  struct pollfd p = {s->fd, events, 0};
  for (;;) {
    int n = poll(&p, 1, s->waitMs);
    if (n > 0) return 0;
    if (n == 0) return MAIL_TIMEOUT;
    if (errno != EINTR) return errno;
  }
}

static int connectRelay(SmtpSession *s, const MailSettings &cfg) {
  struct sockaddr_in sa {};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(cfg.relayPort));
  if (cfg.relayPort <= 0 || cfg.relayPort > 65535 ||
      inet_pton(AF_INET, cfg.relayHost.c_str(), &sa.sin_addr) != 1)
    return smtpFail(MAIL_BAD_ADDRESS, "bad relay address %s", cfg.relayHost.c_str());
  s->fd = socket(AF_INET, SOCK_STREAM, 0);
  if (s->fd < 0) return errno;
  fcntl(s->fd, F_SETFL, fcntl(s->fd, F_GETFL) | O_NONBLOCK);
  if (connect(s->fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0) return 0;
  if (errno != EINPROGRESS) return smtpFail(errno, "cannot connect to %s: %s",
                                            cfg.relayHost.c_str(), strerror(errno));
  int rc = waitFor(s, POLLOUT);
  int err = 0;
  socklen_t len = sizeof err;
  if (rc == 0 && getsockopt(s->fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  if (rc == 0 && err == 0) return 0;
  return smtpFail(rc ? rc : err, "cannot connect to %s: %s", cfg.relayHost.c_str(),
                  rc == MAIL_TIMEOUT ? "timed out" : strerror(rc ? rc : err));
}

static int sendAll(SmtpSession *s, const std::string &data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = send(s->fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      if (int rc = waitFor(s, POLLOUT)) return rc;
    } else {
      return n < 0 ? errno : MAIL_REFUSED;
    }
  }
  return 0;
}

// One line of input without its line end: 0, or MAIL_TIMEOUT, MAIL_REFUSED (closed or
// overlong) or an errno.
static int readLine(SmtpSession *s, std::string *line) {
  for (;;) {
    size_t nl = s->input.find('\n');
    if (nl != std::string::npos) {
      *line = s->input.substr(0, nl);
      s->input.erase(0, nl + 1);
      if (!line->empty() && line->back() == '\r') line->pop_back();
      return 0;
    }
    if (s->input.size() > SMTP_LINE_MAX) return MAIL_REFUSED;
    char chunk[4096];
    ssize_t n = recv(s->fd, chunk, sizeof chunk, 0);
    if (n > 0) {
      s->input.append(chunk, static_cast<size_t>(n));
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      if (int rc = waitFor(s, POLLIN)) return rc;
    } else {
      return n < 0 ? errno : MAIL_REFUSED;
    }
  }
}

// Reads a whole reply (continuation lines "250-..." up to the final "250 ...") and checks
// that its class (first digit) is `want`. 0, or a failure already reported.
static int expectReply(SmtpSession *s, int want, const char *step) {
  std::string line;
  do {
    if (int rc = readLine(s, &line))
      return smtpFail(rc, "no answer to %s: %s", step,
                      rc == MAIL_TIMEOUT ? "timed out" : rc > 0 ? strerror(rc) : "closed");
  } while (line.size() >= 4 && line[3] == '-');
  s->reply = line;
  if (line.size() < 3 || line[0] - '0' != want)
    return smtpFail(MAIL_REFUSED, "%s answered \"%s\"", step, line.c_str());
  return 0;
}

static int command(SmtpSession *s, const std::string &line, int want) {
  if (int rc = sendAll(s, line + "\r\n"))
    return smtpFail(rc, "cannot send %s: %s", line.c_str(), rc > 0 ? strerror(rc) : "closed");
  return expectReply(s, want, line.c_str());
}

// Printable text without blanks or angle brackets: fit for a path in angle brackets.
static bool fitForPath(const char *text) {
  for (const char *p = text; *p; p++)
    if (static_cast<unsigned char>(*p) <= ' ' || *p == 127 || *p == '<' || *p == '>')
      return false;
  return true;
}

// The DATA block: header lines, a blank line, the body; lines end in CR LF, a line that
// starts with "." gets a second one, and the block ends with a lone ".".
static std::string dataBlock(const char *address, const char *sender, const char *subject,
                             const char *body) {
  std::string text;
  if (sender && *sender) text += std::string("From: ") + sender + "\n";
  text += std::string("To: ") + address + "\nSubject: " + subject + "\n\n" + body + "\n";
  std::string out;
  bool lineStart = true;
  for (char c : text) {
    if (c == '\r') continue;  // line ends are ours to write; a stray CR would break them
    if (lineStart && c == '.') out += '.';
    if (c == '\n') {
      out += "\r\n", lineStart = true;
    } else {
      out += c, lineStart = false;
    }
  }
  return out + ".\r\n";
}

static std::string heloName() {
  char host[256] = "localhost";
  if (gethostname(host, sizeof host - 1) != 0 || !host[0]) strcpy(host, "localhost");
  host[sizeof host - 1] = 0;
  return host;
}

static int smtpDialogue(SmtpSession *s, const char *address, const char *from,
                        const std::string &data) {
  if (int rc = expectReply(s, 2, "greeting")) return rc;
  if (int rc = command(s, "HELO " + heloName(), 2)) return rc;
  if (int rc = command(s, std::string("MAIL FROM:<") + from + ">", 2)) return rc;
  if (int rc = command(s, std::string("RCPT TO:<") + address + ">", 2)) return rc;
  if (int rc = command(s, "DATA", 3)) return rc;
  if (int rc = sendAll(s, data)) return smtpFail(rc, "cannot send %s%s", "the message", "");
  if (int rc = expectReply(s, 2, "the message")) return rc;
  command(s, "QUIT", 2);  // the message is accepted; a lost goodbye changes nothing
  return 0;
}

int deliverRfc821(const char *address, const char *sender, const char *subject,
                  const char *body) {
  if (!address || !*address || !fitForPath(address))
    return smtpFail(MAIL_BAD_ADDRESS, "unfit address \"%s\"", address ? address : "");
  // A sender that is no address (a display name with blanks) still signs the "From:"
  // line; the envelope then carries the null sender.
  const char *from = sender && fitForPath(sender) ? sender : "";
  std::string headerSender;
  for (const char *p = sender ? sender : ""; *p; p++)
    if (*p != '\r' && *p != '\n') headerSender += *p;
  std::string subjectLine;
  for (const char *p = subject ? subject : ""; *p; p++)
    subjectLine += (*p == '\r' || *p == '\n') ? ' ' : *p;
  const MailSettings &cfg = mailSettings();
  SmtpSession s;
  s.waitMs = cfg.relayTimeoutMs;
  int rc = connectRelay(&s, cfg);
  if (rc == 0) {
    rc = smtpDialogue(&s, address, from,
                      dataBlock(address, headerSender.c_str(), subjectLine.c_str(),
                                body ? body : ""));
    if (rc == MAIL_REFUSED) sendAll(&s, "QUIT\r\n");  // a refusal still ends politely
  }
  if (s.fd >= 0) close(s.fd);
  return rc;
}

}  // namespace quorvel
