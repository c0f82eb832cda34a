// query.cpp -- the gateway's query: reading it from standard input, finding values by
// key, URL-decoding them, and taking the agent's host and port offset out of "dn"/"hn".
#include "gateway/gateway.h"

#include "core/base/base.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace quorvel::gateway {

// File-level state: set by scanPutOption and read by nobody: the option is accepted
// and has no effect.
static bool putFlag;

// The two static value areas: one for three-letter keys, one for two-letter keys.
// Values are copied into them by getQueryValue / getShortQueryValue and stay valid until
// the next call of the same kind. A value longer than the area is truncated to 1023 bytes
// (rather than rejected) so that a long "log" address still yields a usable page.
static char longKeyArea[QUERY_VALUE_AREA];
static char shortKeyArea[QUERY_VALUE_AREA];

static constexpr size_t STDIN_CHUNK = 16384;

void scanPutOption(int argc, char **argv) {
  for (int i = 1; i < argc; i++)
    if (argv[i] && strcmp(argv[i], "-put") == 0) putFlag = true;
}

/* ---- Reading the query ------------------------------------------------------------ */

char *readQueryFromFd(int fd) {
  char *text = nullptr;
  size_t used = 0, size = 0;
  for (;;) {
    // Grow before every chunk. The byte beyond the chunks is for the closing NUL: a
    // read that fills its chunk and ends in a line end still leaves room behind it.
    size += STDIN_CHUNK;
    text = static_cast<char *>(allocMem(text, size + 1));
    if (!text) outOfMem("readQueryFromStdin");
    ssize_t got = read(fd, text + used, STDIN_CHUNK);
    if (got <= 0) break;
    used += static_cast<size_t>(got);
    char last = text[used - 1];
    if (last == '\n' || last == '\r') {
      text[used - 1] = '\0';
      break;
    }
  }
  text[used] = '\0';
  return text;
}

char *readQueryFromStdin() { return readQueryFromFd(0); }

/* ---- Values by key ------------------------------------------------------------------- */

// Finds key (keyLen characters) followed by '=' anywhere in the query; the first match
// wins, with no regard for '&' before it. Copies the value into area and decodes it.
static const char *findValue(const char *query, const char *key, size_t keyLen, char *area) {
  if (!query || !key || strlen(key) < 2) return nullptr;
  size_t len = strlen(query);
  // A position qualifies while at least four bytes, the terminating NUL counted, remain.
  for (size_t i = 0; i + 3 <= len; i++) {
    const char *at = query + i;
    if (strncmp(at, key, keyLen) != 0 || at[keyLen] != '=') continue;
    const char *value = at + keyLen + 1;
    size_t n = strcspn(value, "&");
    if (n > QUERY_VALUE_AREA - 1) n = QUERY_VALUE_AREA - 1;
    memcpy(area, value, n);
    area[n] = '\0';
    urlDecode(area);
    return area;
  }
  return nullptr;
}

const char *getQueryValue(const char *query, const char *key3) {
  return findValue(query, key3, 3, longKeyArea);
}

const char *getShortQueryValue(const char *query, const char *key2) {
  return findValue(query, key2, 2, shortKeyArea);
}

/* ---- Decoding ------------------------------------------------------------------------- */

static int hexValue(unsigned char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'Z') return digit - 55;
  return digit - 87;  // no check: any other byte counts as a lower-case digit
}

void urlDecode(char *text) {
  size_t len = strlen(text);
  char *out = static_cast<char *>(allocMem(nullptr, len + 1));
  if (!out) outOfMem("urlDecode");
  size_t o = 0;
  for (size_t i = 0; i < len; i++) {
    // A '%' with fewer than two bytes behind it (a truncated value) is kept as it is.
    if (text[i] == '%' && text[i + 1] && text[i + 2]) {
      int value = hexValue(static_cast<unsigned char>(text[i + 1]));
      value = value * 16 + hexValue(static_cast<unsigned char>(text[i + 2]));
      char byte = static_cast<char>(static_cast<unsigned char>(value));
      if (byte != '\0') out[o++] = byte;  // a decoded NUL is dropped
      i += 2;
    } else {
      out[o++] = text[i];
    }
  }
  out[o] = '\0';
  memcpy(text, out, o + 1);
  freeMem(out);
}

/* ---- The agent's address ---------------------------------------------------------------- */

void splitHostPort(const char *text, char *hostOut, size_t hostSize, int *port) {
  *port = 0;
  if (hostSize == 0) return;
  size_t n = strnlen(text, hostSize - 1);
  memcpy(hostOut, text, n);
  hostOut[n] = '\0';
  // The value was decoded once already: a second decoding turns %2541 into 'A'.
  urlDecode(hostOut);
  char *colon = strchr(hostOut, ':');
  if (colon && colon[1] >= '0' && colon[1] <= '9') {
    *colon = '\0';
    // As atoi: only the low 16 bits matter once the offset is added to 3726.
    *port = static_cast<int>(strtol(colon + 1, nullptr, 10));
  }
}

char *getAgentHost(const char *query, int *port) {
  *port = 0;
  const char *value = getShortQueryValue(query, "dn");
  if (!value) value = getShortQueryValue(query, "hn");
  if (!value) return nullptr;
  char work[QUERY_VALUE_AREA];
  splitHostPort(value, work, sizeof work, port);
  if (work[0] == '\0') return nullptr;
  size_t n = strlen(work);
  char *host = static_cast<char *>(allocMem(nullptr, n + 1));
  if (!host) outOfMem("getAgentHost");
  memcpy(host, work, n + 1);
  return host;
}

void resetQuery() {
  putFlag = false;
  longKeyArea[0] = '\0';
  shortKeyArea[0] = '\0';
}

}  // namespace quorvel::gateway
