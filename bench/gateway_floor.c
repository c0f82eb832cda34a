/* gateway_floor.c -- the least a CGI gateway can do for one request, as a floor to
 * measure webquorvel against: take the agent's address from QUERY_STRING ("dn" or
 * "hn", host[:n], port 3726 + n), send the query as one agent message, read the whole
 * reply with blocking reads, empty ../htdocs/tmp/ through the shell when the reply has
 * more than one pair, write each named pair with fopen "w", and copy the page to
 * standard output. Built -static; no checks beyond what keeps it from misbehaving. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define MAGIC 0xDEADBEEFu
#define MAX_TOTAL 0x100000u

static uint32_t getWord(const unsigned char *p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return ntohl(v);
}

static void putWord(unsigned char *p, uint32_t v) {
  v = htonl(v);
  memcpy(p, &v, 4);
}

/* The value of "dn=" (else "hn=") up to the next '&', copied into out. */
static int agentAddress(const char *query, char *out, size_t size, int *port) {
  const char *v = strstr(query, "dn=");
  if (!v) v = strstr(query, "hn=");
  if (!v) return -1;
  v += 3;
  size_t n = strcspn(v, "&");
  if (n == 0 || n >= size) return -1;
  memcpy(out, v, n);
  out[n] = 0;
  char *colon = strchr(out, ':');
  *port = 0;
  if (colon && colon[1] >= '0' && colon[1] <= '9') {
    *colon = 0;
    *port = atoi(colon + 1);
  }
  return 0;
}

static int connectAgent(const char *host, int port) {
  struct sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons((uint16_t)(port + 3726));
  sa.sin_addr.s_addr = inet_addr(host);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, (struct sockaddr *)&sa, sizeof sa) < 0) return -1;
  return fd;
}

static int sendQuery(int fd, const char *query) {
  size_t q = strlen(query), c = (q + 1 + 3) / 4 * 4, total = 12 + 8 + 4 + c;
  unsigned char *msg = calloc(1, total);
  if (!msg) return -1;
  putWord(msg, MAGIC);
  putWord(msg + 4, 1);
  putWord(msg + 8, (uint32_t)total);
  putWord(msg + 12, MAGIC);
  putWord(msg + 16, (uint32_t)(8 + 4 + c));
  memcpy(msg + 24, query, q);
  size_t done = 0;
  while (done < total) {
    ssize_t w = write(fd, msg + done, total - done);
    if (w <= 0) { free(msg); return -1; }
    done += (size_t)w;
  }
  free(msg);
  return 0;
}

static int readFull(int fd, unsigned char *p, size_t n) {
  while (n > 0) {
    ssize_t r = read(fd, p, n);
    if (r <= 0) return -1;
    p += r;
    n -= (size_t)r;
  }
  return 0;
}

/* Reads one whole reply; returns its buffer (caller frees) and entry count. */
static unsigned char *readReply(int fd, uint32_t *count, uint32_t *total) {
  unsigned char head[12];
  if (readFull(fd, head, 12) < 0 || getWord(head) != MAGIC) return NULL;
  *count = getWord(head + 4);
  *total = getWord(head + 8);
  if (*total < 12 || *total > MAX_TOTAL) return NULL;
  unsigned char *msg = malloc(*total + 1);
  if (!msg) return NULL;
  memcpy(msg, head, 12);
  if (readFull(fd, msg + 12, *total - 12) < 0) { free(msg); return NULL; }
  msg[*total] = 0;
  return msg;
}

/* Writes the named pairs as files, then the unnamed ones to standard output. */
static int placePairs(unsigned char *msg, uint32_t count, uint32_t total) {
  if (count > 1 && system("/bin/rm -rf ../htdocs/tmp/*") == -1) return -1;
  for (int pass = 0; pass < 2; pass++) {
    uint32_t off = 12;
    for (uint32_t i = 0; i < count; i++) {
      if (off + 8 > total) return -1;
      uint32_t len = getWord(msg + off + 4);
      if (len < 12 || len > total - off) return -1;
      const char *name = (const char *)msg + off + 8;
      size_t nameLen = strnlen(name, len - 8);
      size_t pad = (nameLen + 1 + 3) / 4 * 4;
      const char *body = name + pad;
      if (pad > len - 8) return -1;
      if (pass == 0 && nameLen > 0) {
        char path[512];
        snprintf(path, sizeof path, "../htdocs/%s", name);
        FILE *f = fopen(path, "w");
        if (f) fprintf(f, "%s", body);
      } else if (pass == 1 && nameLen == 0) {
        size_t bodyLen = strnlen(body, len - 8 - pad);
        if (write(1, body, bodyLen) < 0) return -1;
      }
      off += len;
    }
  }
  return 0;
}

int main(void) {
  const char *query = getenv("QUERY_STRING");
  char host[256];
  int port;
  if (!query || agentAddress(query, host, sizeof host, &port) < 0) return 1;
  int fd = connectAgent(host, port);
  if (fd < 0 || sendQuery(fd, query) < 0) return 1;
  uint32_t count, total;
  unsigned char *msg = readReply(fd, &count, &total);
  if (!msg || placePairs(msg, count, total) < 0) return 1;
  free(msg);
  close(fd);
  return 0;
}
