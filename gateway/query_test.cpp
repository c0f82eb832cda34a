// query_test.cpp -- reading the query, values by key, decoding, the agent's host and port.
#include "gateway/gateway.h"
#include "core/base/base.h"
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace quorvel::gateway {
const char *const NONE = "<none>";

TEST(QueryValue, MatchesKeysLooselyTakesTheFirstMatchAndDecodes) {
  struct Row { const char *query, *key, *value; } rows[] = {
      // No '&' needed before the key, even inside another value; '=' must follow it.
      {"xlog=first&log=second", "log", "first"}, {"log=ahn=zz&hn=real", "hn", "zz"},
      {"log=http%3A%2F%2Fh%2Fx&a=1", "log", "http://h/x"}, {"log&x=1", "log", NONE},
      {"hn=", "hn", ""}, {"", "log", NONE}, {"h=1&hn=2", "h", NONE},  // 1-letter keys: nothing
  };
  for (const Row &r : rows) {
    const char *got = strlen(r.key) == 3 ? getQueryValue(r.query, r.key)
                                         : getShortQueryValue(r.query, r.key);
    EXPECT_STREQ(got ? got : NONE, r.value) << r.query << " / " << r.key;
  }
  // One area per key length: a two-letter lookup leaves the three-letter value alone.
  const char *login = getQueryValue("log=L&dn=D", "log"), *host = getShortQueryValue("dn=D", "dn");
  EXPECT_STREQ(login, "L");
  EXPECT_STREQ(host, "D");
  // Values longer than an area are cut to 1023 bytes, in both areas.
  std::string v(3000, 'v'), query = "log=" + v + "&hn=" + v;
  EXPECT_EQ(std::string(getQueryValue(query.c_str(), "log")), std::string(1023, 'v'));
  EXPECT_EQ(std::string(getShortQueryValue(query.c_str(), "hn")), std::string(1023, 'v'));
}
TEST(UrlDecode, DecodesEscapesUncheckedDropsNulAndLeavesPlus) {
  struct Row { const char *in, *out; } rows[] = {
      {"%41%00B", "AB"}, {"a+b", "a+b"},  {"%4a%4A", "JJ"},     {"%2541", "%41"},
      {"%G1", "\x01"},   {"x%g0y", "xy"}, {"%zz", "S"},  // (122-87)*16+(122-87) = 595 = 0x253
      {"50%", "50%"},    {"%4", "%4"},
  };
  for (const Row &r : rows) {
    std::string text = r.in;
    EXPECT_STREQ((urlDecode(text.data()), text.c_str()), r.out) << r.in;
  }
}
TEST(AgentHost, TakesDnBeforeHnDecodesTwiceAndSplitsADigitPort) {
  struct Row { const char *query, *host; int port; } rows[] = {
      {"hn=web1%3A5&log=x", "web1", 5}, {"hn=other&dn=first:7", "first", 7},
      {"dn=h:-1", "h:-1", 0},    // ':' without a digit stays in the host
      {"dn=h:12x:3", "h", 12},   // the first ':' splits; the number stops at 'x'
      {"dn=h:70000", "h", 70000},  // cut to 16 bits only when connecting
      {"hn=%2541gent%253A9", "Agent", 9}, {"hn=%253A5", NONE, 5}, {"log=x&rpt=y", NONE, 0},
      {"dn=&hn=web1", NONE, 0},  // an empty "dn" is taken; "hn" is not consulted
  };
  for (const Row &r : rows) {
    int port = -1;
    char *host = getAgentHost(r.query, &port);
    EXPECT_STREQ(host ? host : NONE, r.host) << r.query;
    EXPECT_EQ(port, r.port) << r.query;
    freeMem(host);
  }
  char small[6];  // the host is cut to the room given
  int port = -1;
  splitHostPort("abcdefghij:4", small, sizeof small, &port);
  EXPECT_STREQ(small, "abcde");
  EXPECT_EQ(port, 0);
}
TEST(QueryFromStdin, StopsAtALineEndClosingAReadAndGrowsByChunks) {
  std::string big(40000, 'q'), chunk(16384, 'x'), full(16383, 'f');
  struct Row { std::string in, out; } rows[] = {
      {"hn=a&log=b\n", "hn=a&log=b"}, {"hn=a\r", "hn=a"}, {"hn=a", "hn=a"}, {"", ""},
      {"a=1\nb=2", "a=1\nb=2"},  // a line end inside a read is kept
      {big + "\n", big}, {chunk, chunk}, {full + "\n", full},  // the last read fills its chunk
  };
  for (const Row &r : rows) {  // through a pipe closed behind the text
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], r.in.data(), r.in.size()), static_cast<ssize_t>(r.in.size()));
    close(fds[1]);
    char *query = readQueryFromFd(fds[0]);
    close(fds[0]);
    EXPECT_EQ(query, r.out) << r.in.size();
    freeMem(query);
  }
}
}  // namespace quorvel::gateway
