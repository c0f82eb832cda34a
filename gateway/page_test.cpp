// page_test.cpp -- the message choice, the error page byte for byte, and the reply
// files below ../htdocs/.
#include "gateway/gateway.h"
#include "gateway/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace quorvel::gateway {
namespace {

using test::CgiTree;
using test::readFile;
using test::StdoutCapture;
using test::writeFile;

struct PageTest : ::testing::Test {
  void SetUp() override { resetGateway(); }
  void TearDown() override { resetGateway(); }
};

const char PAGE_HEAD[] =
    "Content-type: text/html\n\n\n"
    "<html>\n<head>\n<title>Web Quorvel</title>\n</head>\n";
const char BODY_OPEN[] =
    "<br><br><br><br><br><br><br><br><center><table border=1 bgcolor=white><tr><td><h3>";
const char PAGE_END[] = "</td></tr></table></center>\n</body>\n</html>\n";

TEST_F(PageTest, ChoosesGermanOnlyForExactlyDe) {
  const char *english = "Cannot connect to Quorvel web agent on host %s";
  EXPECT_STREQ(localMsg(2, english), english);  // no language given
  for (const char *lang : {"de", "DE", "En_US", "Fr", "De_DE", ""}) {
    setPageValues(nullptr, nullptr, lang);
    EXPECT_STREQ(localMsg(2, english), english) << lang;
  }
  setPageValues(nullptr, nullptr, "De");
  EXPECT_STREQ(localMsg(2, english), "Verbindung mit Quorvel-Webagent auf Host %s nicht m\xF6glich");
  EXPECT_STREQ(localMsg(1, "x"), "Hostname in Abfrage %s nicht gefunden");
  EXPECT_STREQ(localMsg(3, "x"), "Fehler beim Schreiben zum Quorvel-Webagent auf Host %s");
  EXPECT_STREQ(localMsg(4, "x"), "Fehler beim Lesen vom Quorvel-Webagent auf Host %s");
  EXPECT_STREQ(localMsg(5, "x"), "Fehler bei der Verarbeitung Ihrer Anforderung:");
  EXPECT_STREQ(localMsg(6, "x"), "webQuorvel: ung\xFCltiges Argument");
  EXPECT_STREQ(localMsg(7, "x"), "%s erfolgreich ge\xF6" "ffnet");
  EXPECT_STREQ(localMsg(8, "x"), "%s konnte nicht ge\xF6" "ffnet werden");
  EXPECT_STREQ(localMsg(0, "x"), "makeConnection: setsockopt: %d");
}

TEST_F(PageTest, ErrorPageWithoutLoginButtonUsesTheDefaultIcons) {
  setPageValues("http://back/login", nullptr, nullptr);  // "log" alone: no button
  StdoutCapture out;
  errorPage("Cannot find host name in query %s", "log=x&a=<b>");
  std::string expected = std::string(PAGE_HEAD) + "<body background=\"/icons/bg4.gif\">\n" +
                         BODY_OPEN + "An error occurred processing your request:</h3>\n<h4>" +
                         "Cannot find host name in query log=x&a=<b></h4>\n" + PAGE_END;
  EXPECT_EQ(out.take(), expected);
}

TEST_F(PageTest, ErrorPageWithLoginAndIconsCarriesTheButton) {
  setPageValues("http://back/login", "/qv/icons", nullptr);
  StdoutCapture out;
  errorPage("Read failed from Quorvel web agent on host %s", "agent1");
  std::string expected = std::string(PAGE_HEAD) + "<body background=\"/qv/icons/bg4.gif\">\n" +
                         BODY_OPEN + "An error occurred processing your request:</h3>\n<h4>" +
                         "Read failed from Quorvel web agent on host agent1</h4>\n" +
                         "<center>\n<a href=\"http://back/login\">\n" +
                         "<IMG src=\"/qv/icons/blogin.gif\" border=0></a>\n</center>\n" + PAGE_END;
  EXPECT_EQ(out.take(), expected);
}

TEST_F(PageTest, ErrorPageInGermanWithIconsButNoLogin) {
  setPageValues(nullptr, "/bilder", "De");
  StdoutCapture out;
  errorPage(localMsg(2, "Cannot connect to Quorvel web agent on host %s"), "h");
  std::string expected = std::string(PAGE_HEAD) + "<body background=\"/bilder/bg4.gif\">\n" +
                         BODY_OPEN + "Fehler bei der Verarbeitung Ihrer Anforderung:</h3>\n<h4>" +
                         "Verbindung mit Quorvel-Webagent auf Host h nicht m\xF6glich</h4>\n" +
                         PAGE_END;
  EXPECT_EQ(out.take(), expected);
}

TEST_F(PageTest, ErrorPageKeepsAVeryLongMessageWhole) {
  std::string query(200000, 'q');
  StdoutCapture out;
  errorPage("Cannot find host name in query %s", query.c_str());
  std::string page = out.take();
  EXPECT_NE(page.find("<h4>Cannot find host name in query " + query + "</h4>\n"), std::string::npos);
  EXPECT_EQ(page.substr(page.size() - strlen(PAGE_END)), PAGE_END);
}

TEST_F(PageTest, InvalidArgumentPrintsMessageSixAndExitsZero) {
  CgiTree tree;
  std::string path = tree.htdocs("page.out");
  fflush(stdout);
  int saved = dup(1);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, 1);
  setPageValues(nullptr, nullptr, "De");
  EXPECT_EXIT(invalidArgument(), ::testing::ExitedWithCode(0), "");
  dup2(saved, 1);
  close(saved);
  close(fd);
  std::string page = readFile(path);
  EXPECT_NE(page.find("<h4>webQuorvel: ung\xFCltiges Argument</h4>\n"), std::string::npos) << page;
  EXPECT_EQ(page.rfind("Content-type: text/html\n\n\n", 0), 0u);
}

TEST_F(PageTest, ReplyFilesAreCreatedWithTheTextUpToTheFirstNul) {
  CgiTree tree;
  const char contents[] = "first part\0second part";
  writeHtdocsFile("tmp/a.txt", contents);
  EXPECT_EQ(readFile(tree.htdocs("tmp/a.txt")), "first part");
  writeHtdocsFile("empty.txt", "");
  EXPECT_TRUE(test::exists(tree.htdocs("empty.txt")));
  EXPECT_EQ(readFile(tree.htdocs("empty.txt")), "");
  // The name is used as it comes: ".." leads out of the document tree.
  writeHtdocsFile("../cgi-bin/beside.txt", "x");
  EXPECT_EQ(readFile(tree.cgiBin() + "/beside.txt"), "x");
}

TEST_F(PageTest, ExistingReplyFilesAreRewrittenInPlace) {
  CgiTree tree;
  std::string path = tree.htdocs("page.html");
  writeFile(path, std::string(5000, 'o'));
  struct stat before, after;
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  writeHtdocsFile("page.html", "short");
  EXPECT_EQ(readFile(path), "short");  // nothing of the longer old text is left
  ASSERT_EQ(stat(path.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  writeHtdocsFile("page.html", std::string(9000, 'n').c_str());
  EXPECT_EQ(readFile(path), std::string(9000, 'n'));
  writeHtdocsFile("page.html", "");
  EXPECT_EQ(readFile(path), "");
}

TEST_F(PageTest, UnopenableReplyFilesReportMessageEightAndCarryOn) {
  CgiTree tree;
  mkdir(tree.htdocs("adir").c_str(), 0755);
  StdoutCapture out;
  writeHtdocsFile("missing/x.txt", "x");  // sub-directories are not created
  writeHtdocsFile("adir", "x");           // a directory cannot be written
  writeHtdocsFile("ok.txt", "fine");
  setPageValues(nullptr, nullptr, "De");
  writeHtdocsFile("adir", "x");
  EXPECT_EQ(out.take(),
            "failed to open ../htdocs/missing/x.txt successfully"
            "failed to open ../htdocs/adir successfully"
            "../htdocs/adir konnte nicht ge\xF6" "ffnet werden");
  EXPECT_EQ(readFile(tree.htdocs("ok.txt")), "fine");
  EXPECT_FALSE(test::exists(tree.htdocs("missing")));
}

TEST_F(PageTest, ClearTmpDirEmptiesOnlyTheTmpDirectory) {
  CgiTree tree;
  writeFile(tree.htdocs("tmp/old.gif"), "old");
  mkdir(tree.htdocs("tmp/sub").c_str(), 0755);
  writeFile(tree.htdocs("tmp/sub/deep.txt"), "deep");
  writeFile(tree.htdocs("keep.html"), "keep");
  clearTmpDir();
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/old.gif")));
  EXPECT_FALSE(test::exists(tree.htdocs("tmp/sub")));
  EXPECT_TRUE(test::exists(tree.htdocs("tmp")));
  EXPECT_EQ(readFile(tree.htdocs("keep.html")), "keep");
}

}  // namespace
}  // namespace quorvel::gateway
