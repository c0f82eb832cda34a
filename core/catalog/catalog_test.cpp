// Tests of the message catalogue: real catalogue files under a temporary installation
// root, loaded by catopen and read back by catgets.
#include "core/catalog/catalog.h"

#include "core/base/base.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace quorvel;

namespace {

// A temporary installation root with a resources tree; QUORVELPATH points at it.
class CatalogTest : public ::testing::Test {
 protected:
  std::string root;

  void SetUp() override {
    char tmpl[] = "/tmp/qvcatXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    setenv("QUORVELPATH", root.c_str(), 1);
    unsetenv("NOQUORVELCATGETS");
    resetBase();
    resetCatalog();
  }
  void TearDown() override {
    resetCatalog();
    std::string cmd = "rm -rf '" + root + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
    unsetenv("QUORVELPATH");
    unsetenv("NOQUORVELCATGETS");
    resetBase();
  }
  void writeCatalog(const char *lang, const std::string &text, const char *name = "qv") {
    std::string dir = root + "/resources";
    mkdir(dir.c_str(), 0755);
    dir += std::string("/") + lang;
    mkdir(dir.c_str(), 0755);
    FILE *f = fopen((dir + "/" + name + ".msg").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(text.c_str(), f);
    fclose(f);
  }
  static std::string get(int set, int num) { return catgets("qv", set, num, "DEF"); }
};

}  // namespace

TEST_F(CatalogTest, NumbersMessagesByTheirOrderWithinASet) {
  writeCatalog("En_US",
               "$ a comment\n"
               "1 before any set is ignored\n"
               "$set 1\n"
               "1 one-one\n"
               "x not a message line\n"
               "\n"
               "0 number zero is ignored\n"
               "2 one-two\n"
               "$set 2\n"
               "1 a\n"
               "3 b\n"
               "$set   3\n"
               "1\n"
               "2 takes the empty line's place\n");
  EXPECT_STREQ(catopen("qv"), "qv");
  EXPECT_EQ(get(1, 1), "one-one");
  EXPECT_EQ(get(1, 2), "one-two");
  EXPECT_EQ(get(1, 3), "DEF");
  EXPECT_EQ(get(2, 1), "a");
  EXPECT_EQ(get(2, 2), "b");  // the number 3 does not choose the position
  EXPECT_EQ(get(2, 3), "DEF");
  EXPECT_EQ(get(3, 1), "takes the empty line's place");
  EXPECT_EQ(get(4, 1), "DEF");
  // Zero and negative numbers walk no steps: the first set and the first message.
  EXPECT_EQ(get(0, 0), "one-one");
  EXPECT_EQ(get(-5, 2), "one-two");
  EXPECT_EQ(get(2, -1), "a");
  EXPECT_EQ(get(INT32_MIN, INT32_MIN), "one-one");
  EXPECT_EQ(get(INT32_MAX, 1), "DEF");
  EXPECT_EQ(get(1, INT32_MAX), "DEF");
}

TEST_F(CatalogTest, ReturnsTheDefaultPointerItselfWhenNothingMatches) {
  const char *def = "built-in";
  EXPECT_EQ(catgets("qv", 1, 1, def), def);  // nothing loaded
  writeCatalog("En_US", "$set 1\n1 text\n");
  catopen("qv");
  EXPECT_EQ(catgets(nullptr, 1, 1, def), def);  // no handle
  EXPECT_EQ(catgets("qv", 1, 2, def), def);
  EXPECT_EQ(catgets("qv", 2, 1, def), def);
  EXPECT_STREQ(catgets("qv", 1, 1, def), "text");
  EXPECT_EQ(catclose("qv"), 0);
  EXPECT_STREQ(catgets("qv", 1, 1, def), "text");  // closing unloads nothing
}

TEST_F(CatalogTest, JoinsContinuedMessagesAndKeepsOtherEscapesLiteral) {
  writeCatalog("En_US",
               "$set 1\n"
               "1 first\\n\\\n"
               "second\n"
               "2 a\\n\\\n"
               "b\\n\\\n"
               "c\\nd\n"
               "3 single \\n line\n"
               "4 x\\ny\\n\\\n"
               "last\n"
               "5 no escape\\\n"
               "tail\n"
               "6 lost its last character");
  catopen("qv");
  EXPECT_EQ(get(1, 1), "first\nsecond");
  EXPECT_EQ(get(1, 2), "a\nb\nc\\nd");  // the last line keeps its escape
  EXPECT_EQ(get(1, 3), "single \\n line");
  EXPECT_EQ(get(1, 4), "x\nlast");  // the first escape ends the line
  EXPECT_EQ(get(1, 5), "no escape\\\ntail");
  EXPECT_EQ(get(1, 6), "lost its last characte");
}

TEST_F(CatalogTest, ContinuationLinesAreNotReadAsMessagesOrSets) {
  writeCatalog("En_US",
               "$set 1\n"
               "1 head\\n\\\n"
               "$set 7\\n\\\n"
               "2 still the first message\n"
               "2 second\n"
               "3 open at the end of the file\\n\\\n");
  catopen("qv");
  EXPECT_EQ(get(1, 1), "head\n$set 7\n2 still the first message");
  EXPECT_EQ(get(1, 2), "second");
  EXPECT_EQ(get(1, 3), "open at the end of the file\n");
  EXPECT_EQ(get(2, 1), "DEF");
}

TEST_F(CatalogTest, SkippedAndReopenedSetsGiveWhatTheChainWalkGives) {
  writeCatalog("En_US",
               "$set 1\n1 s1\n"
               "$set 3\n1 s3\n"    // skips 2: one node appended, set 3 lands on node 2
               "$set 1\n1 s1b\n"   // reopening appends to set 1
               "$set 3\n1 lost\n"  // walks past the chain's end: nowhere to keep it
               "$set 4\n1 s4\n");  // the next node again (node 3)
  catopen("qv");
  EXPECT_EQ(get(1, 1), "s1");
  EXPECT_EQ(get(1, 2), "s1b");
  EXPECT_EQ(get(2, 1), "s3");
  EXPECT_EQ(get(3, 1), "s4");
  EXPECT_EQ(get(4, 1), "DEF");
}

TEST_F(CatalogTest, AFileStartingAboveSetOneAndHugeSetNumbersStayBounded) {
  writeCatalog("En_US",
               "$set 3\n1 three\n"
               "$set 99999999999999\n1 huge\n2 huge2\n");
  catopen("qv");
  EXPECT_EQ(get(1, 1), "DEF");  // empty gap node
  EXPECT_EQ(get(2, 1), "three");
  EXPECT_EQ(get(3, 1), "DEF");
  // The number saturates; each skip leaves the chain one node shorter, so the huge
  // set lands two below its number.
  EXPECT_EQ(get(INT32_MAX - 2, 1), "huge");
  EXPECT_EQ(get(INT32_MAX - 2, 2), "huge2");
  EXPECT_EQ(get(INT32_MAX - 1, 1), "DEF");
  EXPECT_EQ(get(INT32_MAX, 1), "DEF");
}

TEST_F(CatalogTest, ChoosesTheSlotOfTheCurrentLanguageAtEachLookup) {
  writeCatalog("En_US", "$set 1\n1 hello\n");
  writeCatalog("De", "$set 1\n1 hallo\n");
  writeCatalog("It", "$set 1\n1 ciao\n");
  catopen("qv");
  EXPECT_EQ(catgetlang(), nullptr);
  EXPECT_EQ(get(1, 1), "hello");
  catsetlang("De");
  EXPECT_STREQ(catgetlang(), "De");
  EXPECT_EQ(get(1, 1), "hallo");
  catsetlang("It");
  EXPECT_EQ(get(1, 1), "ciao");
  catsetlang("Fr");  // known but not installed: defaults, not the English text
  EXPECT_EQ(get(1, 1), "DEF");
  catsetlang("de");  // codes compare exactly; unknown ones read slot 0
  EXPECT_EQ(get(1, 1), "hello");
  catsetlang(nullptr);
  EXPECT_EQ(get(1, 1), "hello");
  EXPECT_EQ(catLanguageIndex("En_US"), 0);
  EXPECT_EQ(catLanguageIndex("No"), 4);
  EXPECT_EQ(catLanguageIndex("Es"), 2);
  EXPECT_EQ(catLanguageIndex("En"), 0);
}

TEST_F(CatalogTest, IsSwitchedOffOnlyByTheExactValueTrue) {
  writeCatalog("En_US", "$set 1\n1 hello\n");
  catopen("qv");
  const char *def = "DEF";
  setenv("NOQUORVELCATGETS", "TRUE", 1);
  EXPECT_EQ(catgets("qv", 1, 1, def), def);
  EXPECT_EQ(catText(1, 1, def), def);
  for (const char *other : {"true", "1", "TRUE ", ""}) {
    setenv("NOQUORVELCATGETS", other, 1);
    EXPECT_STREQ(catgets("qv", 1, 1, def), "hello") << other;
  }
}

TEST_F(CatalogTest, OpensOnlyOnceWhileTheFirstSlotIsLoaded) {
  writeCatalog("De", "$set 1\n1 de-old\n");
  EXPECT_EQ(catHandle(), nullptr);
  EXPECT_EQ(catText(1, 1, "DEF"), std::string("DEF"));
  catopen("qv");
  EXPECT_STREQ(catHandle(), "qv");
  catsetlang("De");
  EXPECT_EQ(get(1, 1), "de-old");
  // English was missing, so a second open reads it, then stops at the loaded De slot.
  writeCatalog("En_US", "$set 1\n1 en\n");
  writeCatalog("De", "$set 1\n1 de-new\n");
  writeCatalog("Es", "$set 1\n1 es\n");
  catopen("qv");
  EXPECT_EQ(get(1, 1), "de-old");
  catsetlang("Es");
  EXPECT_EQ(get(1, 1), "DEF");
  catsetlang("En_US");
  EXPECT_EQ(get(1, 1), "en");
  // With slot 0 loaded nothing is read again.
  writeCatalog("En_US", "$set 1\n1 en-new\n");
  catopen("qv");
  EXPECT_EQ(catText(1, 1, "DEF"), std::string("en"));
}

TEST_F(CatalogTest, ReachesTheLastOfManyMessagesAndSets) {
  std::string text = "$set 1\n";
  for (int i = 1; i <= 5000; i++) text += std::to_string(i) + " m" + std::to_string(i) + "\n";
  for (int s = 2; s <= 300; s++) text += "$set " + std::to_string(s) + "\n1 s" + std::to_string(s) + "\n";
  writeCatalog("En_US", text);
  catopen("qv");
  EXPECT_EQ(get(1, 1), "m1");
  EXPECT_EQ(get(1, 2500), "m2500");
  EXPECT_EQ(get(1, 5000), "m5000");
  EXPECT_EQ(get(1, 5001), "DEF");
  EXPECT_EQ(get(300, 1), "s300");
  EXPECT_EQ(get(299, 1), "s299");
  EXPECT_EQ(get(301, 1), "DEF");
}

TEST(SplitLocale, CutsAtTheRightmostDotAndUnderscorePastTheFirstCharacter) {
  std::string lang, terr, code;
  splitLocale("fr_FR.UTF-8", &lang, &terr, &code);
  EXPECT_EQ(lang + "|" + terr + "|" + code, "fr|FR|UTF-8");
  splitLocale("de", &lang, &terr, &code);
  EXPECT_EQ(lang + "|" + terr + "|" + code, "de||");
  splitLocale("a_b_c.x.y", &lang, &terr, &code);
  EXPECT_EQ(lang + "|" + terr + "|" + code, "a_b|c.x|y");
  splitLocale("_x", &lang, &terr, &code);
  EXPECT_EQ(lang + "|" + terr + "|" + code, "_x||");
  splitLocale("no.UTF_8", &lang, nullptr, &code);
  EXPECT_EQ(lang + "|" + code, "no|UTF");
  splitLocale(nullptr, &lang, &terr, nullptr);
  EXPECT_EQ(lang + "|" + terr, "|");
}

TEST(CatPath, FillsTemplatesAndResolvesTheNameAgainstTheRoot) {
  setenv("QUORVELPATH", "/opt/qv", 1);
  resetBase();
  std::string out = "/usr/share/%L/%l/x";
  catpath(out, "de_DE.UTF-8", "cal");
  EXPECT_EQ(out, "/usr/share/de_DE.UTF-8/de/x//opt/qv/cal.msg");
  out = "/a/%l/%N/ignored";
  catpath(out, "fr_FR", "cal");
  EXPECT_EQ(out, "/a/fr//opt/qv/cal.msg");
  out = "/base%";
  catpath(out, "it", "cal");
  EXPECT_EQ(out, "/base%/it//opt/qv/cal.msg");
  out = "/b/%L";
  catpath(out, nullptr, "cal");
  EXPECT_EQ(out, "/b//" "/opt/qv/cal.msg");
  out = "/c";
  catpath(out, nullptr, "cal");
  EXPECT_EQ(out, "/c/(null)//opt/qv/cal.msg");
  out = "/d/%L";
  catpath(out, "%L", "cal");  // a substituted value is not scanned again
  EXPECT_EQ(out, "/d/%L//opt/qv/cal.msg");
  unsetenv("QUORVELPATH");
  resetBase();
  out = "%N";
  catpath(out, "en", "cal");
  EXPECT_EQ(out, "cal.msg");
  EXPECT_EQ(resolveRootPath("/abs/x"), "/abs/x");
}
