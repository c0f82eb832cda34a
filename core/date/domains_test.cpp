// The domains file: the line form, every judgement with its messages, the kept
// modification time, and the server-attached path against the fake server.
#include "core/date/domains.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/net/link.h"
#include "testing/calserver.h"

using namespace quorvel;

namespace {
const uint32_t kSelf = inet_addr("10.9.8.7");  // this machine's address in the tests

// Every entry as "name|host|label;".
std::string table() {
  std::string out;
  for (int i = 0; i < DomainCount(); i++) {
    const char *label = DomainLabel(i);
    out += std::string(DomainName(i)) + "|" + DomainHost(i) + "|" + (label ? label : "-") + ";";
  }
  return out;
}

struct Domains : ::testing::Test {
  std::string root = "/tmp/qvdomXXXXXX", file;
  time_t stamp = 1700000000;  // each write moves the file's time on by a minute
  void SetUp() override {
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    std::filesystem::create_directories(root + "/db");
    file = root + "/db/domains";
    setenv("QUORVELPATH", root.c_str(), 1);
    resetBase(), resetLayout(), resetDomains();
  }
  void TearDown() override { resetDomains(), resetBase(), std::filesystem::remove_all(root); }
  void put(const std::string &text, bool newTime = true) {
    std::ofstream(file) << text;
    if (newTime) stamp += 60;
    struct utimbuf t = {stamp, stamp};
    utime(file.c_str(), &t);
  }
  // ReadDomains' ok, a blank, then everything it reported.
  std::string read() {
    int ok = -1;
    testing::internal::CaptureStderr();
    ReadDomains(nullptr, &ok, kSelf);
    return std::to_string(ok) + " " + testing::internal::GetCapturedStderr();
  }
};
}  // namespace

TEST(DomainLine, SplitsAtCommasOutsideQuotesAndTrims) {
  struct { const char *line; int n; const char *f0, *f1, *f2; } rows[] = {
      {"east, hostA ,East Office\n", 3, "east", "hostA", "East Office"},
      {"\"a,b\",host\n", 2, "a,b", "host", ""},  // the quotes become blanks, then trimmed
      {"x\"y\"z,h\n", 2, "x y z", "h", ""},
      {"d,h,label, with, commas\n", 3, "d", "h", "label, with, commas"},
      {"only\n", 1, "only", "", ""},
      {"d,h,\"q\" \n", 3, "d", "h", "q"},
      {"\"open, never closed,h\n", 1, "open, never closed,h", "", ""},
      {"d,h\nafter,the,newline", 2, "d", "h", ""},
      {"\t , ,\n", 3, "", "", ""},
  };
  for (auto &r : rows) {
    std::string f[3] = {"stale", "stale", "stale"};
    EXPECT_EQ(SplitDomainLine(r.line, f), r.n) << r.line;
    EXPECT_EQ(f[0] + "|" + f[1] + "|" + f[2], std::string(r.f0) + "|" + r.f1 + "|" + r.f2);
  }
  EXPECT_TRUE(IsThisHost("localhost", 0));
  EXPECT_TRUE(IsThisHost("10.9.8.7", kSelf));
  EXPECT_FALSE(IsThisHost("10.9.8.6", kSelf) || IsThisHost("no-such-host.invalid", kSelf));
  char self[256] = {};
  ASSERT_EQ(gethostname(self, sizeof self - 1), 0);
  if (hostent *h = gethostbyname(self); h != nullptr && h->h_addrtype == AF_INET) {
    uint32_t a;
    memcpy(&a, h->h_addr_list[0], 4);
    EXPECT_TRUE(IsThisHost(self, a));  // a name is compared by what it resolves to
    EXPECT_FALSE(IsThisHost(self, a + 1));
  }
}

TEST_F(Domains, AValidFileReplacesTheTableAnInvalidOneIsReportedAndChangesNothing) {
  EXPECT_EQ(read(), "0 ");  // no file, no table: quietly nothing
  put("# domains of this site\n\nmain, 10.9.8.7, Head office\n\"west, annex\",w.example,  \n"
      "east,e.example,East\nnohost,\n,nodomain\n");
  EXPECT_EQ(read(), "1 ");
  EXPECT_EQ(table(),
            "main|localhost|Head office;west, annex|w.example|west, annex;east|e.example|East;");
  EXPECT_EQ(DomainLabel(3), nullptr);
  EXPECT_EQ(DomainLabel(-1), nullptr);
  EXPECT_STREQ(DomainByLabel("East"), "east");
  EXPECT_STREQ(DomainByLabel("Head office"), "main");
  EXPECT_EQ(DomainByLabel("west, annex"), nullptr);  // an empty label matches no text
  EXPECT_EQ(DomainByLabel(nullptr), nullptr);
  // Unchanged time: not read again, even though the contents differ.
  const std::string abc = "a|localhost|a;b|b.example|b;c|c.example|c;";
  put("a,localhost\nb,b.example\nc,c.example\n", false);
  EXPECT_EQ(read(), "0 ");
  EXPECT_STREQ(DomainLabel(1), "west, annex");
  put("a,localhost\nb,b.example\nc,c.example\n");  // now changed
  EXPECT_EQ(read(), "1 ");
  EXPECT_EQ(table(), abc);
  // Gone while a table is in force: reported, the table stays.
  std::filesystem::remove(file);
  EXPECT_EQ(read(), "0 " + file + " file is no longer accessable\n");
  EXPECT_EQ(table(), abc);
  // Invalid files, first while that table is in force, then with none.
  struct { const char *text; const char *why; } rows[] = {
      {"a,a.example\nb,b.example\n", " file has no entry for localhost\n"},
      {"a,localhost\n", " file has only entry of localhost\n"},
      {"a,localhost\nb,10.9.8.7\nc,c.example\n", " file has multiple entries for localhost\n"},
      // Only the address given counts as this machine, the loopback address included.
      {"a,127.0.0.1\nb,b.example\n", " file has no entry for localhost\n"},
      {"a,a.example\n", ""},
  };
  for (bool before : {true, false}) {
    std::string verdict = before ? " file is no longer valid\n" + file +
                                       " file changes are not effected\n"
                                 : std::string(" file is not valid\n");
    for (auto &r : rows) {
      put(r.text);
      EXPECT_EQ(read(), "0 " + (r.why[0] ? file + r.why : "") + file + verdict) << r.text;
      EXPECT_EQ(table(), before ? abc : "");
    }
    resetDomains();
  }
  // An empty or comment-only file has nothing to judge and says nothing.
  put("# nothing yet\n\n");
  EXPECT_EQ(read(), "0 ");
}

TEST_F(Domains, ServerAttachedCalendarAsksTheServer) {
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  DbHandle *db = newDbHandle("db/database", "remote", DB_KIND_NONE);
  db->server = newServerLink(calAddress(&server).c_str());
  db->server->waitMs = 3000;
  put("home,localhost\naway,away.example\n");  // the file is not read for such a calendar
  calScript(&server, {calReply({calText("north"), calText("localhost"), calText("North"),
                                calNumber(7), calText("south"), calText("s.example"),
                                calText("")})});
  int ok = -1;
  EXPECT_EQ(ReadDomains(db, &ok, kSelf), 1);
  EXPECT_EQ(ok, 1);
  ASSERT_EQ(calRequests(&server).size(), 1u);
  EXPECT_EQ(calRequests(&server)[0].code, 121);
  EXPECT_TRUE(calRequests(&server)[0].fields.empty());
  EXPECT_EQ(table(), "north|localhost|North;south|s.example|south;");
  // A reply without entries leaves the table; the server still answers.
  EXPECT_EQ(ReadDomains(db, &ok, kSelf), 1);
  EXPECT_EQ(DomainCount(), 2);
  // The local path then reads the file afresh.
  EXPECT_EQ(read(), "1 ");
  EXPECT_EQ(table(), "home|localhost|home;away|away.example|away;");
  freeServerLink(db->server);
  db->server = nullptr;
  freeDbHandle(db);
  stopCalServer(&server);
}
