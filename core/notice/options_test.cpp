// Option tables: the line reader's rules, the file-time gate, and the client options
// loaded from a database file or from the fake calendar server.
#include "core/notice/notice_test_util.h"
#include "core/net/link.h"
#include "testing/calserver.h"
using namespace quorvel;

namespace {
// A table of the test's own (its defaults are the test's), read from a string.
struct Table {
  ClientOption rows[3] = {{"checkTime", const_cast<char *>(""), nullptr, 1, 0, 0},
                          {"limitRecurring", const_cast<char *>("False"), nullptr, 3, 0, 0},
                          {"requirePassword", nullptr, nullptr, 3, 0, 0}};
  Table() { initOptionTable(rows, 3); }
  ~Table() { releaseOptionTable(rows, 3); }
  int read(const std::string &text, int wholeFile) {
    FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    int n = readOptionStream(f, rows, 3, wholeFile);
    fclose(f);
    return n;
  }
  // "value|value|value" and the changed flags as digits.
  std::string state() const {
    std::string s;
    for (const auto &r : rows) s += std::string(r.value ? r.value : "-") + "|";
    for (const auto &r : rows) s += std::to_string(r.changed);
    return s;
  }
};
}  // namespace

TEST(OptionReader, LinesSetKnownKeysAndKeepTheValueUpToAnUnescapedHash) {
  const char *rows[][2] = {
      {"REQUIREPASSWORD: TRUE\n", "|False|TRUE|001"},
      {"checkTime: 30 # every half hour\n", "30 |False|-|100"},
      {"  \tcheckTime:\t \t45", "45|False|-|100"},
      {"checkTime: a\\#b # c\n", "a\\#b |False|-|100"},
      {"limitRecurring:#all comment\n", "||-|010"},
      {"checkTime:\n", "|False|-|000"},  // stored, but the same text: no change
      {"limitRecurring : true\n# checkTime: 1\n! checkTime: 1\ncheckTime 1\nother: 1\n",
       "|False|-|000"},  // a blank before ":", comments, no ":", an unknown key
  };
  for (auto &r : rows) {
    Table t;
    t.read(r[0], 1);
    EXPECT_EQ(t.state(), r[1]) << r[0];
  }
  Table block, whole;  // a blank line ends a block once it has set something
  const std::string text = "\ncheckTime: 5\n\nlimitRecurring: true\n";
  EXPECT_EQ(block.read(text, 0) * 10 + whole.read(text, 1), 12);
  EXPECT_EQ(block.state() + " " + whole.state(), "5|False|-|100 5|true|-|110");
  initOptionTable(whole.rows, 3);  // clears the flags, keeps the values
  whole.read("checkTime: 5\nlimitRecurring: True\n", 1);
  EXPECT_EQ(whole.state(), "5|True|-|010");  // compared with case
  EXPECT_EQ(findOption(whole.rows, "LIMITrecurring", 3), &whole.rows[1]);
  EXPECT_EQ(findOption(whole.rows, "limit", 3), nullptr);
  Table wide;  // a line longer than one read is taken in pieces
  EXPECT_EQ(wide.read("checkTime: " + std::string(OPTION_LINE_MAX, 'x') + "\n", 1), 1);
  EXPECT_EQ(strlen(wide.rows[0].value), size_t(OPTION_LINE_MAX - 1 - 11));
}

TEST_F(NoticeTest, OptionFilesAreReadWhenNewerClientOptionsFromAScratchCopyOrTheServer) {
  Table t;
  int32_t last = NO_TIME;
  int changed = -1;
  std::string path = root + "/opts";
  writeFile("opts", "checkTime: 7\n");
  EXPECT_EQ(readOptionFileIfNewer(path.c_str(), t.rows, 3, &last, &changed), 1);
  EXPECT_TRUE(changed == 1 && last != NO_TIME && t.state() == "7|False|-|100");
  last = INT32_MAX;  // not newer: not read
  EXPECT_EQ(readOptionFileIfNewer(path.c_str(), t.rows, 3, &last, &changed) + changed, 0);
  last = NO_TIME;  // a missing file is never newer
  EXPECT_EQ(readOptionFileIfNewer("/nonexistent", t.rows, 3, &last, &changed) + changed, 0);

  EXPECT_EQ(clientOptionNumber("checkTime") * 10000 + clientOptionNumber("noSuchKey"),
            OPTION_MISSING);  // the empty default reads as 0
  EXPECT_EQ(loadClientOptions(), -1);  // no file: the table keeps its defaults
  writeFile("db/database/client.opts",
            "# site\ncheckTime: 30 # minutes\n\nREQUIREPASSWORD: TRUE\nlimitRecurring: yes\n");
  EXPECT_EQ(loadClientOptions(), 3);
  EXPECT_EQ(clientOptionTable()[0].value, std::string("30 "));
  EXPECT_EQ(clientOptionNumber("CHECKTIME") * 100 + clientOptionFlag("requirePassword") * 10 +
                clientOptionFlag("limitRecurring") + clientOptionFlag("noSuchKey"),
            3010);  // only "true" is true
  EXPECT_TRUE(clientOptionsChanged() == 1 && clientOptionsTime() != NO_TIME);
  EXPECT_TRUE(scratchesHolding("qvopts", "30 # minutes").empty()) << "the scratch copy is gone";
  writeFile("db/database/client.opts", "checkTime: 12\n");  // leaves the others alone
  EXPECT_EQ(loadClientOptions(), 1);
  EXPECT_EQ(clientOptionNumber("checkTime") * 10 + clientOptionFlag("requirePassword"), 121);

  // A main context attached to a server fetches them from the server.
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  setLinkMessageHook([](const char *) {});
  main->server = newServerLink(calAddress(&server).c_str());
  main->server->waitMs = 3000;
  writeFile("db/database/client.opts", "checkTime: 99\n");
  calScript(&server, {calReply({calText("limitRecurring: TRUE\ncheckTime: 15\n")}),
                      calReply({calNumber(3)}), calReply()});
  EXPECT_EQ(loadClientOptions(), 2);
  EXPECT_EQ(clientOptionNumber("checkTime") * 10 + clientOptionFlag("limitRecurring"), 151);
  std::vector<CalRequest> asked = calRequests(&server);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].code, 126);
  EXPECT_EQ(calFieldText(asked[0].fields.back()), CLIENT_OPTIONS_FILE);
  // Answers without a text (a number, nothing) leave the table as it was.
  EXPECT_EQ(loadClientOptions() + loadClientOptions(), -2);
  EXPECT_EQ(clientOptionNumber("checkTime"), 15);
  main->kind = DB_KIND_LOCAL;  // kind 1 is local even with a connection: the file is read
  EXPECT_EQ(loadClientOptions(), 1);
  EXPECT_EQ(clientOptionNumber("checkTime"), 99);
  freeServerLink(main->server), main->server = nullptr;
  stopCalServer(&server), resetLink();
}
