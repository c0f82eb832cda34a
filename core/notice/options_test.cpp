// Option tables: the line reader's rules, the file-time gate, and the client options
// loaded from a database file or from the fake calendar server.
#include "core/notice/notice_test_util.h"
#include "core/db/layout.h"
#include "core/net/link.h"
#include "testing/calserver.h"

#include <sys/time.h>
using namespace quorvel;

namespace {

// A table of its own (defaults owned by the test), so the reader is seen apart from the
// client table.
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
  std::string value(int i) const { return rows[i].value ? rows[i].value : "(none)"; }
};

}  // namespace

class OptionsTest : public NoticeTest {};

TEST_F(OptionsTest, LinesSetKnownKeysAndKeepTheValueUpToAnUnescapedHash) {
  struct Row {
    const char *line;
    int row;            // the row expected to change, -1 none
    const char *value;  // its value afterwards
  } rows[] = {
      {"REQUIREPASSWORD: TRUE\n", 2, "TRUE"},
      {"checkTime: 30 # every half hour\n", 0, "30 "},
      {"  \tcheckTime:\t \t45\n", 0, "45"},
      {"checkTime: a\\#b # c\n", 0, "a\\#b "},
      {"limitRecurring:#all comment\n", 1, ""},
      {"checkTime: last line", 0, "last line"},
      {"limitRecurring : true\n", -1, nullptr},  // the blank stays in the key
      {"# checkTime: 1\n", -1, nullptr},
      {"! checkTime: 1\n", -1, nullptr},
      {"checkTime 1\n", -1, nullptr},
      {"otherOption: 1\n", -1, nullptr},
  };
  for (const Row &r : rows) {
    Table t;
    EXPECT_EQ(t.read(r.line, 1), r.row >= 0 ? 1 : 0) << r.line;
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(t.rows[i].changed, i == r.row ? 1 : 0) << r.line;
      if (i == r.row) {
        EXPECT_EQ(t.value(i), r.value) << r.line;
      }
    }
    EXPECT_EQ(t.value(1), r.row == 1 ? r.value : "False");  // untouched rows keep theirs
  }
}

TEST_F(OptionsTest, BlankLinesCloseABlockOnlyOutsideWholeFileModeAndAfterASetting) {
  const std::string text = "\ncheckTime: 5\n\nlimitRecurring: true\n";
  Table block, whole;
  EXPECT_EQ(block.read(text, 0), 1);  // the leading blank line does not end the block
  EXPECT_EQ(block.value(0) + "|" + block.value(1), "5|False");
  EXPECT_EQ(whole.read(text, 1), 2);
  EXPECT_EQ(whole.value(0) + "|" + whole.value(1), "5|true");
  // Storing the same text again (case counts) marks no change; a differing one does.
  initOptionTable(whole.rows, 3);
  EXPECT_EQ(whole.rows[0].changed + whole.rows[1].changed, 0);
  whole.read("checkTime: 5\nlimitRecurring: True\nrequirePassword: x\n", 1);
  EXPECT_EQ(whole.rows[0].changed * 100 + whole.rows[1].changed * 10 + whole.rows[2].changed,
            11);  // an absent value always counts as changed
  // Keys match without regard to case; a line longer than a read is taken in pieces.
  EXPECT_EQ(findOption(whole.rows, "LIMITrecurring", 3), &whole.rows[1]);
  EXPECT_EQ(findOption(whole.rows, "limit", 3), nullptr);
  std::string longLine = "checkTime: " + std::string(OPTION_LINE_MAX, 'x') + "\n";
  Table wide;
  EXPECT_EQ(wide.read(longLine, 1), 1);
  EXPECT_EQ(wide.value(0).size(), size_t(OPTION_LINE_MAX - 1 - 11));
}

TEST_F(OptionsTest, AFileIsReadOnlyWhenItsChangeTimeIsNewer) {
  std::string path = root + "/opts";
  writeFile("opts", "checkTime: 7\n");
  Table t;
  int32_t last = NO_TIME;
  int changed = -1;
  EXPECT_EQ(readOptionFileIfNewer(path.c_str(), t.rows, 3, &last, &changed), 1);
  EXPECT_TRUE(changed == 1 && last != NO_TIME && t.value(0) == "7");
  writeFile("opts", "checkTime: 8\n");  // same second or not: the time is not newer
  last = INT32_MAX;
  EXPECT_EQ(readOptionFileIfNewer(path.c_str(), t.rows, 3, &last, &changed), 0);
  EXPECT_TRUE(changed == 0 && last == INT32_MAX && t.value(0) == "7");
  last = NO_TIME;  // a missing file is never newer
  EXPECT_EQ(readOptionFileIfNewer((path + "x").c_str(), t.rows, 3, &last, &changed), 0);
  EXPECT_TRUE(changed == 0 && last == NO_TIME);
}

TEST_F(OptionsTest, ClientOptionsLoadFromTheDatabaseThroughAScratchFile) {
  EXPECT_EQ(clientOptionNumber("checkTime"), 0);  // the empty default
  EXPECT_EQ(clientOptionNumber("noSuchKey"), OPTION_MISSING);
  EXPECT_EQ(clientOptionFlag("noSuchKey") + clientOptionFlag("limitRecurring"), 0);
  EXPECT_EQ(loadClientOptions(), -1);  // no file: the table stays as it is
  EXPECT_EQ(clientOptionTable()[1].value, std::string("False"));

  size_t before = filesIn("/tmp", "qvopts").size();
  writeFile("db/database/client.opts",
            "# site options\ncheckTime: 30 # minutes\n\nREQUIREPASSWORD: TRUE\n"
            "limitRecurring: yes\n");
  EXPECT_EQ(loadClientOptions(), 3);
  EXPECT_EQ(clientOptionNumber("CHECKTIME"), 30);
  EXPECT_EQ(clientOptionTable()[0].value, std::string("30 "));
  EXPECT_EQ(clientOptionFlag("requirePassword"), 1);
  EXPECT_EQ(clientOptionFlag("limitRecurring"), 0);  // only "true" is true
  EXPECT_TRUE(clientOptionsChanged() == 1 && clientOptionsTime() != NO_TIME);
  EXPECT_EQ(filesIn("/tmp", "qvopts").size(), before);  // the scratch copy is gone
  // A later file that leaves an option out: that option keeps the value in force.
  writeFile("db/database/client.opts", "checkTime: 12\n");
  EXPECT_EQ(loadClientOptions(), 1);
  EXPECT_EQ(clientOptionNumber("checkTime") * 10 + clientOptionFlag("requirePassword"), 121);
  EXPECT_EQ(clientOptionTable()[0].changed + clientOptionTable()[2].changed, 1);
}

TEST_F(OptionsTest, AServerAttachedMainContextFetchesTheFileFromTheServer) {
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  setLinkMessageHook([](const char *) {});
  main->server = newServerLink(calAddress(&server).c_str());
  main->server->waitMs = 3000;
  writeFile("db/database/client.opts", "checkTime: 99\n");  // never read: the server is
  calScript(&server, {calReply({calText("limitRecurring: TRUE\ncheckTime: 15\n")}),
                      calReply({calNumber(3)}), calReply()});
  EXPECT_EQ(loadClientOptions(), 2);
  EXPECT_EQ(clientOptionNumber("checkTime"), 15);
  EXPECT_EQ(clientOptionFlag("limitRecurring"), 1);
  std::vector<CalRequest> asked = calRequests(&server);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].code, 126);
  EXPECT_EQ(calFieldText(asked[0].fields.back()), CLIENT_OPTIONS_FILE);
  // Answers without a text (a number, nothing at all) leave the table as it was.
  EXPECT_EQ(loadClientOptions(), -1);
  EXPECT_EQ(loadClientOptions(), -1);
  EXPECT_EQ(clientOptionNumber("checkTime"), 15);
  // A context of kind 1 is local even with a connection: the file is read.
  main->kind = DB_KIND_LOCAL;
  EXPECT_EQ(loadClientOptions(), 1);
  EXPECT_EQ(clientOptionNumber("checkTime"), 99);
  freeServerLink(main->server), main->server = nullptr;
  stopCalServer(&server), resetLink();
}
