// query_test.cpp -- reading the query, finding values by key, decoding, and taking the
// agent's host and port offset out of it.
#include "gateway/gateway.h"

#include "core/base/base.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <unistd.h>

namespace quorvel::gateway {
namespace {

const char *const NONE = "<none>";

TEST(QueryValue, MatchesKeysLooselyTakesTheFirstMatchAndDecodes) {
  struct Row { const char *query, *key, *value; } rows[] = {
      {"xlog=first&log=second", "log", "first"},   // no '&' needed before the key
      {"log=ahn=zz&hn=real", "hn", "zz"},          // inside another value
      {"a=1&rpt=/icons&lan=De", "lan", "De"},
      {"log=http%3A%2F%2Fh%2Fx&a=1", "log", "http://h/x"},
      {"a=1&dn=", "dn", ""},
      {"hn=", "hn", ""},                           // the shortest query that matches
      {"log&x=1", "log", NONE},                    // '=' must follow the key
      {"a=1", "log", NONE},
      {"", "log", NONE},
      {"h=1&hn=2", "h", NONE},                     // keys of one character yield nothing
  };
  for (const Row &r : rows) {
    const char *got = strlen(r.key) == 3 ? getQueryValue(r.query, r.key)
                                         : getShortQueryValue(r.query, r.key);
    EXPECT_STREQ(got ? got : NONE, r.value) << r.query << " / " << r.key;
  }
  // One area per key length: a two-letter lookup leaves the three-letter value alone.
  const char *login = getQueryValue("log=L&dn=D", "log");
  EXPECT_STREQ(getShortQueryValue("log=L&dn=D", "dn"), "D");
  EXPECT_STREQ(login, "L");
  // Values longer than an area are cut to 1023 bytes, in both areas.
  std::string longValue(3000, 'v');
  std::string query = "log=" + longValue + "&hn=" + longValue;
  EXPECT_EQ(std::string(getQueryValue(query.c_str(), "log")), std::string(1023, 'v'));
  EXPECT_EQ(std::string(getShortQueryValue(query.c_str(), "hn")), std::string(1023, 'v'));
}

TEST(UrlDecode, DecodesEscapesUncheckedDropsNulAndLeavesPlus) {
  struct Row { const char *in, *out; } rows[] = {
      {"%41%00B", "AB"}, {"a+b", "a+b"},  {"%4a%4A", "JJ"},     {"%2541", "%41"},
      {"%G1", "\x01"},   {"x%g0y", "xy"}, {"%zz", "S"},  // (122-87)*16+(122-87) = 595 = 0x253
      {"50%", "50%"},    {"%4", "%4"},    {"", ""},
  };
  for (const Row &r : rows) {
    std::string text = r.in;
    urlDecode(text.data());
    EXPECT_STREQ(text.c_str(), r.out) << r.in;
  }
}

TEST(AgentHost, TakesDnBeforeHnDecodesTwiceAndSplitsADigitPort) {
  struct Row { const char *query, *host; int port; } rows[] = {
      {"hn=web1%3A5&log=x", "web1", 5},
      {"hn=web1:abc", "web1:abc", 0},  // ':' without a digit stays in the host
      {"hn=other&dn=first:7", "first", 7},
      {"dn=h:12x:3", "h", 12},         // the first ':' splits; the number stops at 'x'
      {"dn=h:-1", "h:-1", 0},
      {"dn=h:70000", "h", 70000},      // cut to 16 bits only when connecting
      {"hn=%2541gent%253A9", "Agent", 9},
      {"log=x&rpt=y", NONE, 0},
      {"dn=&hn=web1", NONE, 0},        // an empty "dn" is taken; "hn" is not consulted
      {"hn=%253A5", NONE, 5},
  };
  for (const Row &r : rows) {
    int port = -1;
    char *host = getAgentHost(r.query, &port);
    EXPECT_STREQ(host ? host : NONE, r.host) << r.query;
    EXPECT_EQ(port, r.port) << r.query;
    freeMem(host);
  }
  char small[6];
  int port = -1;
  splitHostPort("abcdefghij:4", small, sizeof small, &port);
  EXPECT_STREQ(small, "abcde");
  EXPECT_EQ(port, 0);
}

// Feeds text through a pipe, closed behind it, and reads the query from it.
std::string queryFromPipe(const std::string &text) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  EXPECT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fds[1]);
  char *query = readQueryFromFd(fds[0]);
  close(fds[0]);
  std::string out(query);
  freeMem(query);
  return out;
}

TEST(QueryFromStdin, StopsAtALineEndClosingAReadAndGrowsByChunks) {
  std::string big(40000, 'q'), chunk(16384, 'x'), full(16383, 'f');
  struct Row { std::string in, out; } rows[] = {
      {"hn=a&log=b\n", "hn=a&log=b"}, {"hn=a\r", "hn=a"}, {"hn=a", "hn=a"}, {"", ""},
      {"a=1\nb=2", "a=1\nb=2"},  // a line end inside a read is kept
      {big + "\n", big},         {chunk, chunk},
      {full + "\n", full},       // a read that fills its chunk, line end last
  };
  for (const Row &r : rows) EXPECT_EQ(queryFromPipe(r.in), r.out) << r.in.size();
}

}  // namespace
}  // namespace quorvel::gateway
