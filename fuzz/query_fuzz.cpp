// query_fuzz.cpp -- feeds arbitrary bytes to the gateway's query handling: as the query
// text for the key lookups (the gateway's own keys and keys taken from the input itself),
// the URL decoder, the agent host and port split (also into a small host area, to prove
// it truncates), and as standard input through a pipe to the one-line query reader.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/base/base.h"
#include "gateway/gateway.h"

namespace gw = quorvel::gateway;

namespace {

// A value found by key lies in a 1024-byte static area and is never longer than the query.
void checkValue(const char *value, size_t queryLen) {
  if (value == nullptr) return;
  size_t n = strnlen(value, gw::QUERY_VALUE_AREA);
  if (n >= gw::QUERY_VALUE_AREA || n > queryLen) abort();
}

void lookUpKeys(const std::string &query) {
  const char *q = query.c_str();
  size_t len = strlen(q);
  for (const char *key : {"log", "rpt", "lan", "xlo", ""}) checkValue(gw::getQueryValue(q, key), len);
  for (const char *key : {"dn", "hn", "h", ""}) checkValue(gw::getShortQueryValue(q, key), len);
  // Keys made of the query's own first bytes always find themselves when followed by '='.
  std::string key3 = query.substr(0, 3), key2 = query.substr(0, 2);
  checkValue(gw::getQueryValue(q, key3.c_str()), len);
  checkValue(gw::getShortQueryValue(q, key2.c_str()), len);
}

void decodeAndSplit(const std::string &query) {
  std::string copy = query;
  size_t before = strlen(copy.c_str());
  gw::urlDecode(copy.data());
  if (strlen(copy.c_str()) > before) abort();  // decoding never lengthens

  int port = -1;
  char *host = gw::getAgentHost(query.c_str(), &port);
  if (host != nullptr && host[0] == '\0') abort();  // an empty host is reported as none
  quorvel::freeMem(host);

  char small[16];
  gw::splitHostPort(query.c_str(), small, sizeof small, &port);
  if (strnlen(small, sizeof small) >= sizeof small) abort();
}

// The query reader stops at the first line end closing a chunk, or at the end of input.
void readThroughPipe(const uint8_t *data, size_t size) {
  if (size > 60000) return;  // must fit in the pipe before the reader starts
  int fds[2];
  if (pipe(fds) != 0) abort();
  if (size > 0 && write(fds[1], data, size) != static_cast<ssize_t>(size)) abort();
  close(fds[1]);
  char *text = gw::readQueryFromFd(fds[0]);
  close(fds[0]);
  if (text == nullptr || strlen(text) > size) abort();
  quorvel::freeMem(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string query(reinterpret_cast<const char *>(data), size);
  lookUpKeys(query);
  decodeAndSplit(query);
  readThroughPipe(data, size);
  return 0;
}
