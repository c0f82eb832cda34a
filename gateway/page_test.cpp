// page_test.cpp -- the message choice, the error page byte for byte, and the reply
// files below ../htdocs/.
#include "gateway/gateway.h"
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>

namespace quorvel::gateway {
namespace {

using namespace test;

struct PageTest : ::testing::Test {
  void SetUp() override { resetGateway(); }
  void TearDown() override { resetGateway(); }
};

TEST_F(PageTest, ChoosesTheGermanTextOnlyForExactlyDe) {
  for (const char *lang : {"de", "DE", "En_US", "De_DE", ""}) {
    setPageValues(nullptr, nullptr, lang);
    EXPECT_STREQ(localMsg(2, "english"), "english") << lang;
  }
  setPageValues(nullptr, nullptr, "De");
  const char *german[] = {
      "makeConnection: setsockopt: %d",
      "Hostname in Abfrage %s nicht gefunden",
      "Verbindung mit Quorvel-Webagent auf Host %s nicht m\xF6glich",
      "Fehler beim Schreiben zum Quorvel-Webagent auf Host %s",
      "Fehler beim Lesen vom Quorvel-Webagent auf Host %s",
      GERMAN_HEADING,
      "webQuorvel: ung\xFCltiges Argument",
      "%s erfolgreich ge\xF6" "ffnet",
      "%s konnte nicht ge\xF6" "ffnet werden",
  };
  for (int i = 0; i < 9; i++) EXPECT_STREQ(localMsg(i, "english"), german[i]) << i;
  resetGateway();
  EXPECT_STREQ(localMsg(2, "english"), "english");  // no language given
}

TEST_F(PageTest, PrintsTheErrorPageWithTheButtonOnlyWhenLoginAndIconsAreSet) {
  struct Row { const char *login, *icons, *lang, *expectIcons, *expectLogin; } rows[] = {
      {"http://back/login", nullptr, nullptr, "/icons", ""},  // "log" alone: no button
      {"http://back/login", "/qv/icons", nullptr, "/qv/icons", "http://back/login"},
      {nullptr, "/bilder", "De", "/bilder", ""},
  };
  for (const Row &r : rows) {
    setPageValues(r.login, r.icons, r.lang);
    bool de = r.lang != nullptr;
    EXPECT_EQ(stdoutOf([] {
                errorPage(localMsg(4, "Read failed from Quorvel web agent on host %s"), "<a&b>");
              }),
              errorPageText(de ? GERMAN_HEADING : ENGLISH_HEADING,
                            de ? "Fehler beim Lesen vom Quorvel-Webagent auf Host <a&b>"
                               : "Read failed from Quorvel web agent on host <a&b>",
                            r.expectIcons, r.expectLogin));
  }
  std::string query(200000, 'q');  // no fixed area limits the message
  EXPECT_EQ(stdoutOf([&] { errorPage("Cannot find host name in query %s", query.c_str()); }),
            errorPageText(GERMAN_HEADING, "Cannot find host name in query " + query, "/bilder"));
}

TEST_F(PageTest, InvalidArgumentPrintsMessageSixAndExitsZero) {
  CgiTree tree;
  std::string path = tree.htdocs("page.out");
  setPageValues(nullptr, nullptr, "De");
  EXPECT_EXIT(
      {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        invalidArgument();
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(readFile(path), errorPageText(GERMAN_HEADING, "webQuorvel: ung\xFCltiges Argument"));
}

TEST_F(PageTest, ReplyFilesHoldTheTextUpToItsFirstNulAndAreRewrittenWhole) {
  CgiTree tree;
  writeHtdocsFile("tmp/a.txt", "first part\0second part");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "first part");
  writeHtdocsFile("../cgi-bin/beside.txt", "x");  // the name is used as it comes
  EXPECT_EQ(readFile(tree.cgiBin() + "/beside.txt"), "x");
  for (const std::string &text : {std::string(5000, 'o'), std::string("short"), std::string()}) {
    writeHtdocsFile("page.html", text.c_str());
    EXPECT_EQ(readFile(tree.htdocs("page.html")), text);  // nothing of a longer old text left
  }
}

TEST_F(PageTest, UnopenableReplyFilesReportMessageEightAndCarryOn) {
  CgiTree tree;
  mkdir(tree.htdocs("adir").c_str(), 0755);
  EXPECT_EQ(stdoutOf([] {
              writeHtdocsFile("missing/x.txt", "x");  // sub-directories are not created
              writeHtdocsFile("adir", "x");
              writeHtdocsFile("ok.txt", "fine");
              setPageValues(nullptr, nullptr, "De");
              writeHtdocsFile("adir", "x");
            }),
            "failed to open ../htdocs/missing/x.txt successfully"
            "failed to open ../htdocs/adir successfully"
            "../htdocs/adir konnte nicht ge\xF6" "ffnet werden");
  EXPECT_EQ(readFile(tree.htdocs("ok.txt")), "fine");
  EXPECT_FALSE(exists(tree.htdocs("missing")));
}

}  // namespace
}  // namespace quorvel::gateway
