// page_test.cpp -- the message choice, the error page byte for byte, the reply files.
#include "gateway/gateway.h"
#include "gateway/test_support.h"
#include <fcntl.h>

namespace quorvel::gateway {
struct PageTest : ::testing::Test {
  CgiTree tree;
  void SetUp() override { resetGateway(); }
  void TearDown() override { resetGateway(); }
};

TEST_F(PageTest, ChoosesTheGermanTextOnlyForExactlyDeAndPrintsTheErrorPage) {
  for (const char *lang : {"de", "DE", "De_DE", ""}) {
    setPageValues(nullptr, nullptr, lang);
    EXPECT_STREQ(localMsg(2, "english"), "english") << lang;
  }
  setPageValues(nullptr, nullptr, "De");
  const char *german[] = {
      "makeConnection: setsockopt: %d", "Hostname in Abfrage %s nicht gefunden",
      "Verbindung mit Quorvel-Webagent auf Host %s nicht m\xF6glich",
      "Fehler beim Schreiben zum Quorvel-Webagent auf Host %s",
      "Fehler beim Lesen vom Quorvel-Webagent auf Host %s", GERMAN_HEADING,
      "webQuorvel: ung\xFCltiges Argument", "%s erfolgreich ge\xF6" "ffnet",
      "%s konnte nicht ge\xF6" "ffnet werden",
  };
  for (int i = 0; i < 9; i++) EXPECT_STREQ(localMsg(i, "english"), german[i]) << i;
  // The error page: the button only when login and icons are both set.
  setPageValues("http://back/login", nullptr, nullptr);  // "log" alone: no button
  EXPECT_EQ(outputOf([] { errorPage(localMsg(4, "Read failed on host %s"), "<a&b>"); }),
            errorPageText(ENGLISH_HEADING, "Read failed on host <a&b>"));
  setPageValues(nullptr, "/bilder", "De");
  std::string query(200000, 'q');  // no fixed area limits the message
  EXPECT_EQ(outputOf([&] { errorPage("Cannot find host name in query %s", query.c_str()); }),
            errorPageText(GERMAN_HEADING, "Cannot find host name in query " + query, "/bilder"));
  // An invalid argument: message six, and the process ends with status 0.
  std::string path = tree.htdocs("page.out");
  resetGateway();
  setPageValues(nullptr, nullptr, "De");
  EXPECT_EXIT((dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1), invalidArgument()),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(readFile(path), errorPageText(GERMAN_HEADING, "webQuorvel: ung\xFCltiges Argument"));
}
TEST_F(PageTest, ReplyFilesHoldTheTextUpToItsFirstNulOrReportMessageEight) {
  writeHtdocsFile("tmp/a.txt", "first part\0second part");
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "first part");
  writeHtdocsFile("../cgi-bin/beside.txt", "x");  // the name is used as it comes
  EXPECT_EQ(readFile(tree.root + "/cgi-bin/beside.txt"), "x");
  for (const std::string &text : {std::string(5000, 'o'), std::string("short"), std::string()}) {
    writeHtdocsFile("page.html", text.c_str());
    EXPECT_EQ(readFile(tree.htdocs("page.html")), text);  // nothing of a longer old text left
  }
  mkdir(tree.htdocs("adir").c_str(), 0755);
  EXPECT_EQ(outputOf([] {
              writeHtdocsFile("missing/x.txt", "x");  // sub-directories are not created
              writeHtdocsFile("ok.txt", "fine");
              setPageValues(nullptr, nullptr, "De");
              writeHtdocsFile("adir", "x");
            }),
            "failed to open ../htdocs/missing/x.txt successfully"
            "../htdocs/adir konnte nicht ge\xF6" "ffnet werden");
  EXPECT_EQ(readFile(tree.htdocs("ok.txt")), "fine");
  EXPECT_FALSE(exists(tree.htdocs("missing")));
}
}  // namespace quorvel::gateway
