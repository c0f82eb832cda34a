// query_test.cpp -- reading the query, finding values by key, decoding, and taking the
// agent's host and port offset out of it.
#include "gateway/gateway.h"

#include "core/base/base.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace quorvel::gateway {
namespace {

std::string valueOr(const char *value, const char *none = "<null>") {
  return value ? value : none;
}

std::string decoded(std::string text) {
  urlDecode(text.data());
  return text.c_str();
}

TEST(QueryValue, MatchesKeysLooselyAndTheFirstMatchWins) {
  // xlog= is found for "log": the key need not follow '&' or begin the query.
  EXPECT_EQ(valueOr(getQueryValue("xlog=first&log=second", "log")), "first");
  // A value holding hn= matches the two-letter key before the real field does.
  EXPECT_EQ(valueOr(getShortQueryValue("log=ahn=zz&hn=real", "hn")), "zz");
  EXPECT_EQ(valueOr(getQueryValue("a=1&rpt=/icons&lan=De", "rpt")), "/icons");
  EXPECT_EQ(valueOr(getQueryValue("a=1&rpt=/icons&lan=De", "lan")), "De");
  // The value ends at the next '&' or at the end; an empty value is a value.
  EXPECT_EQ(valueOr(getShortQueryValue("a=1&dn=", "dn")), "");
  EXPECT_EQ(valueOr(getQueryValue("log=&x=1", "log")), "");
  // A key without '=' behind it does not match, nor does a missing key.
  EXPECT_EQ(valueOr(getQueryValue("log&x=1", "log")), "<null>");
  EXPECT_EQ(valueOr(getQueryValue("a=1", "log")), "<null>");
  EXPECT_EQ(valueOr(getQueryValue("", "log")), "<null>");
  // Keys shorter than two characters yield nothing.
  EXPECT_EQ(valueOr(getShortQueryValue("h=1&hn=2", "h")), "<null>");
  EXPECT_EQ(valueOr(getQueryValue("l=1", "")), "<null>");
}

TEST(QueryValue, KeepsOneAreaPerKeyLengthAndDecodesTheValue) {
  const char *query = "log=http%3A%2F%2Fhost%2Flogin&dn=agent%3A2&lan=En_US";
  const char *login = getQueryValue(query, "log");
  const char *host = getShortQueryValue(query, "dn");
  EXPECT_STREQ(login, "http://host/login");
  EXPECT_STREQ(host, "agent:2");
  // The next lookup of the same kind reuses the area.
  const char *lang = getQueryValue(query, "lan");
  EXPECT_EQ(lang, login);
  EXPECT_STREQ(login, "En_US");
  EXPECT_STREQ(host, "agent:2");
}

TEST(QueryValue, TruncatesValuesLongerThanTheirAreaTo1023Bytes) {
  std::string longValue(3000, 'v');
  std::string query = "log=" + longValue + "&hn=" + longValue + "w";
  EXPECT_EQ(std::string(getQueryValue(query.c_str(), "log")), std::string(1023, 'v'));
  EXPECT_EQ(std::string(getShortQueryValue(query.c_str(), "hn")), std::string(1023, 'v'));
  // 1023 bytes fit exactly; escapes count before decoding.
  std::string exact = "rpt=" + std::string(1023, 'r');
  EXPECT_EQ(strlen(getQueryValue(exact.c_str(), "rpt")), 1023u);
  std::string escaped = "rpt=";
  for (int i = 0; i < 400; i++) escaped += "%41";
  EXPECT_EQ(std::string(getQueryValue(escaped.c_str(), "rpt")), std::string(341, 'A'));
}

TEST(UrlDecode, DecodesEscapesDropsNulAndLeavesPlus) {
  EXPECT_EQ(decoded("%41%00B"), "AB");
  EXPECT_EQ(decoded("a+b"), "a+b");
  EXPECT_EQ(decoded("%4a%4A"), "JJ");
  EXPECT_EQ(decoded("100%25"), "100%");
  EXPECT_EQ(decoded("%2541"), "%41");  // one pass only
  EXPECT_EQ(decoded("%C3%BC"), "\xC3\xBC");
  // No check of the digits: 'G' counts 16 as an upper-case letter, 'g' 16 as other;
  // the result is taken in 8 bits, and a result of 0 is dropped.
  EXPECT_EQ(decoded("%G1"), "\x01");
  EXPECT_EQ(decoded("x%g0y"), "xy");
  EXPECT_EQ(decoded("%zz"), "S");  // (122-87)*16 + (122-87) = 595, 595 mod 256 = 83
  // A '%' without two bytes behind it stays as it is.
  EXPECT_EQ(decoded("50%"), "50%");
  EXPECT_EQ(decoded("%4"), "%4");
  EXPECT_EQ(decoded(""), "");
}

TEST(AgentHost, TakesDnBeforeHnAndSplitsOffADigitPort) {
  int port = -1;
  char *host = getAgentHost("hn=web1%3A5&log=x", &port);
  EXPECT_STREQ(host, "web1");
  EXPECT_EQ(port, 5);
  freeMem(host);

  host = getAgentHost("hn=web1:abc", &port);
  EXPECT_STREQ(host, "web1:abc");  // ':' without a digit stays in the host
  EXPECT_EQ(port, 0);
  freeMem(host);

  host = getAgentHost("hn=other&dn=first:7", &port);
  EXPECT_STREQ(host, "first");
  EXPECT_EQ(port, 7);
  freeMem(host);

  host = getAgentHost("dn=h:12x:3", &port);  // the first ':' splits; atoi stops at 'x'
  EXPECT_STREQ(host, "h");
  EXPECT_EQ(port, 12);
  freeMem(host);

  host = getAgentHost("dn=h:-1", &port);
  EXPECT_STREQ(host, "h:-1");
  EXPECT_EQ(port, 0);
  freeMem(host);

  host = getAgentHost("dn=h:70000", &port);  // reduced to 16 bits only when connecting
  EXPECT_EQ(port, 70000);
  freeMem(host);
}

TEST(AgentHost, DecodesTheHostValueASecondTime) {
  int port = -1;
  char *host = getAgentHost("hn=%2541gent%253A9", &port);
  EXPECT_STREQ(host, "Agent");
  EXPECT_EQ(port, 9);
  freeMem(host);
}

TEST(AgentHost, IsMissingWithoutAKeyOrWithAnEmptyHost) {
  int port = -1;
  EXPECT_EQ(getAgentHost("log=x&rpt=y", &port), nullptr);
  EXPECT_EQ(port, 0);
  // An empty "dn" is taken; "hn" is not consulted then.
  EXPECT_EQ(getAgentHost("dn=&hn=web1", &port), nullptr);
  EXPECT_EQ(getAgentHost("hn=:5", &port), nullptr);
  EXPECT_EQ(getAgentHost("hn=%253A5", &port), nullptr);
}

TEST(SplitHostPort, BoundsTheCopyByTheAreaGiven) {
  char small[6];
  int port = -1;
  splitHostPort("abcdefghij:4", small, sizeof small, &port);
  EXPECT_STREQ(small, "abcde");
  EXPECT_EQ(port, 0);
  splitHostPort("ab:4", small, sizeof small, &port);
  EXPECT_STREQ(small, "ab");
  EXPECT_EQ(port, 4);
}

// Feeds text through a pipe (closed behind it) and reads the query from it.
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

TEST(QueryFromStdin, StopsAtALineEndClosingARead) {
  EXPECT_EQ(queryFromPipe("hn=a&log=b\n"), "hn=a&log=b");
  EXPECT_EQ(queryFromPipe("hn=a\r"), "hn=a");
  EXPECT_EQ(queryFromPipe("hn=a"), "hn=a");  // end of input without a line end
  EXPECT_EQ(queryFromPipe(""), "");
  // Only the last byte of a read counts: a line end inside the read is kept.
  EXPECT_EQ(queryFromPipe("a=1\nb=2"), "a=1\nb=2");
}

TEST(QueryFromStdin, ReadsQueriesLongerThanOneChunk) {
  std::string big(40000, 'q');
  EXPECT_EQ(queryFromPipe(big + "\n"), big);
  std::string exact(16384, 'x');
  EXPECT_EQ(queryFromPipe(exact), exact);
}

TEST(PutOption, IsSeenOnlyAsAnExactArgumentAfterTheProgramName) {
  resetGateway();
  char prog[] = "-put", other[] = "-putx", put[] = "-put";
  char *first[] = {prog, other, nullptr};
  scanPutOption(2, first);
  EXPECT_FALSE(putOptionSeen());
  char *second[] = {prog, other, put, nullptr};
  scanPutOption(3, second);
  EXPECT_TRUE(putOptionSeen());
  resetGateway();
  EXPECT_FALSE(putOptionSeen());
}

}  // namespace
}  // namespace quorvel::gateway
