// cycle.cpp -- one webquorvel request from query to page: read the query, find the
// agent, exchange one message each way, place the reply files, copy the page.
#include "gateway/agentlink.h"
#include "gateway/gateway.h"
#include "gateway/hardening.h"

#include "core/base/base.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace quorvel::gateway {

void resetQuery();  // query.cpp
void resetPage();   // page.cpp

static constexpr int SEND_TIMEOUT = 10;  // seconds per select wait while sending
static constexpr int READ_TIMEOUT = 60;  // seconds per select wait while receiving
static constexpr int FAILED = 255;       // the exit status -1 of a failed request

// The query: QUERY_STRING when set and not empty, else one line of standard input.
static char *takeQuery() {
  const char *env = getenv("QUERY_STRING");
  if (!env || !*env) return readQueryFromStdin();
  size_t n = strlen(env);
  char *query = static_cast<char *>(allocMem(nullptr, n + 1));
  if (!query) outOfMem("main");
  memcpy(query, env, n + 1);
  return query;
}

// Sends the query as the one unnamed pair; the query is released with the request
// list either way, before the possibly long wait for the reply. Returns false after the
// error page.
static bool sendQuery(int sock, char *query, const char *host) {
  NamePair *request = newPairList(2);
  request[0].name = static_cast<char *>(allocMem(nullptr, 1));
  if (!request[0].name) outOfMem("main");
  request[0].name[0] = '\0';
  request[0].contents = query;
  // A positive result (an errno from the socket layer) is not a failure here: the
  // reply read that follows decides.
  bool sent = WebSockWrite(sock, SEND_TIMEOUT, request) >= 0;
  freePairList(request);
  if (!sent) errorPage(localMsg(3, "Write failed to Quorvel web agent on host %s"), host);
  return sent;
}

// Connects, sends the query (released here) and reads the reply. Returns the reply's
// pairs with *sock open, or null after the error page.
static NamePair *exchangeWithAgent(const char *host, int port, char *query, int *count,
                                   int *sock) {
  // Hardened mode: an agent off the allowlist is refused before any connection attempt.
  *sock = agentAllowed(host, port) ? makeConnection(host, port) : -1;
  if (*sock < 0) {
    errorPage(localMsg(2, "Cannot connect to Quorvel web agent on host %s"), host);
    freeMem(query);
    return nullptr;
  }
  if (!sendQuery(*sock, query, host)) return nullptr;
  char *buffer = nullptr;
  NamePair *pairs = nullptr;
  // A positive result is an errno from the socket layer: the count and list are not
  // set then, so it fails the request like a negative one.
  if (readAgentReply(*sock, READ_TIMEOUT, &buffer, count, &pairs, 1) != 0) {
    errorPage(localMsg(4, "Read failed from Quorvel web agent on host %s"), host);
    freePairList(pairs);
    return nullptr;
  }
  return pairs;
}

// Files first (after emptying tmp/ when the reply holds more than the page), the page
// last, so the web server sees the page only once every file is in place.
static void placeReply(const NamePair *pairs, int count) {
  if (count > 1) clearTmpDir();
  for (const NamePair *p = pairs; p->name; p++)
    if (p->name[0] != '\0') writeHtdocsFile(p->name, p->contents);
  for (const NamePair *p = pairs; p->name; p++)
    if (p->name[0] == '\0') writeStdout(p->contents);
}

// Copies "log", "rpt" and "lan" into the page values; each stays null when missing.
// Each value is copied at once: the static value area is reused by the next lookup.
static void takePageValues(const char *query) {
  std::string login, icons, lang;
  const char *v;
  bool hasLogin = (v = getQueryValue(query, "log")) != nullptr;
  if (hasLogin) login = v;
  bool hasIcons = (v = getQueryValue(query, "rpt")) != nullptr;
  if (hasIcons) icons = v;
  bool hasLang = (v = getQueryValue(query, "lan")) != nullptr;
  if (hasLang) lang = v;
  setPageValues(hasLogin ? login.c_str() : nullptr, hasIcons ? icons.c_str() : nullptr,
                hasLang ? lang.c_str() : nullptr);
}

int runRequest(int argc, char **argv) {
  loadHardening();
  scanPutOption(argc, argv);
  char *query = takeQuery();
  takePageValues(query);
  int port = 0;
  char *host = getAgentHost(query, &port);
  if (!host) {
    errorPage(localMsg(1, "Cannot find host name in query %s"), query);
    freeMem(query);
    return FAILED;
  }
  int count = 0, sock = -1;
  armDeadline(host);
  NamePair *pairs = exchangeWithAgent(host, port, query, &count, &sock);
  disarmDeadline();  // the reply is in hand (or the error page out): no second page
  bool replied = pairs != nullptr;
  if (replied) placeReply(pairs, count);
  freePairList(pairs);
  freeMem(host);
  closeSocket(sock);
  return replied ? 0 : FAILED;
}

void resetGateway() {
  resetHardening();
  resetQuery();
  resetPage();
}

}  // namespace quorvel::gateway
