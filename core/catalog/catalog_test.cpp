// Tests of the message catalogue: real catalogue files under a temporary installation
// root, loaded by catopen and read back by catgets; locale splitting and path templates.
#include "core/catalog/catalog.h"

#include "core/base/base.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using namespace quorvel;

namespace {

const char kDef[] = "DEF";

struct Lookup {
  int set, number;
  const char *text;  // null: the default pointer itself comes back
};

// A temporary installation root with a resources tree; QUORVELPATH points at it.
class Catalog : public ::testing::Test {
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
    std::filesystem::remove_all(root);
    unsetenv("QUORVELPATH");
    resetBase();
  }
  void write(const char *lang, const std::string &text) {
    std::filesystem::create_directories(root + "/resources/" + lang);
    std::ofstream(root + "/resources/" + lang + "/qv.msg") << text;
  }
  // Loads text as the only (English) catalogue, afresh.
  void load(const std::string &text) {
    resetCatalog();
    write("En_US", text);
    EXPECT_STREQ(catopen("qv"), "qv");
  }
  static void check(std::initializer_list<Lookup> rows) {
    for (const Lookup &row : rows) {
      const char *got = catgets("qv", row.set, row.number, kDef);
      if (row.text == nullptr) EXPECT_EQ(got, kDef) << row.set << "," << row.number;
      else EXPECT_STREQ(got, row.text) << row.set << "," << row.number;
    }
  }
};

}  // namespace

TEST_F(Catalog, NumbersMessagesBySetChainAndOrderIgnoringOtherLines) {
  load("$ a comment\n1 before any set is ignored\n"
       "$set 1\n1 one-one\nx not a message line\n\n0 number zero is ignored\n2 one-two\n"
       "$set 2\n1 a\n3 b\n"                            // 3 does not choose the position
       "$set   3\n1\n2 takes the empty line's place\n"  // a bare number makes no message
       "$set 2\n1 reopened\n"                           // reopening appends to set 2
       "$set 5\n1 s5\n"      // skips 4: one node appended, set 5 lands on node 4
       "$set 5\n1 lost\n"    // walks past the chain's end: nowhere to keep it
       "$set 6\n1 s6\n");    // the next node again (node 5)
  check({{1, 1, "one-one"}, {1, 2, "one-two"}, {1, 3, nullptr}, {2, 1, "a"}, {2, 2, "b"},
         {2, 3, "reopened"}, {3, 1, "takes the empty line's place"}, {3, 2, nullptr},
         {4, 1, "s5"}, {5, 1, "s6"}, {6, 1, nullptr},
         // Zero and negative numbers walk no steps: the first set and message.
         {0, 0, "one-one"}, {-5, 2, "one-two"}, {2, -1, "a"}, {INT32_MIN, INT32_MIN, "one-one"},
         {INT32_MAX, 1, nullptr}, {1, INT32_MAX, nullptr}});
  // A file starting above set one, and a set number past any int, stay bounded.
  load("$set 3\n1 three\n$set 99999999999999\n1 huge\n2 huge2\n");
  check({{1, 1, nullptr}, {2, 1, "three"}, {3, 1, nullptr},
         {INT32_MAX - 2, 1, "huge"}, {INT32_MAX - 2, 2, "huge2"}, {INT32_MAX - 1, 1, nullptr}});
}

TEST_F(Catalog, JoinsContinuedMessagesAtTheirFirstEscapeAndKeepsOtherEscapes) {
  load("$set 1\n"
       "1 first\\n\\\nsecond\n"
       "2 a\\n\\\nb\\n\\\nc\\nd\n"
       "3 single \\n line\n"
       "4 x\\ny\\n\\\nlast\n"
       "5 no escape\\\ntail\n"
       "6 head\\n\\\n$set 7\\n\\\n2 still the first message\n"
       "7 second\n"
       "8 open at the end of the file\\n\\\n");
  check({{1, 1, "first\nsecond"}, {1, 2, "a\nb\nc\\nd"}, {1, 3, "single \\n line"},
         {1, 4, "x\nlast"}, {1, 5, "no escape\\\ntail"},
         {1, 6, "head\n$set 7\n2 still the first message"}, {1, 7, "second"},
         {1, 8, "open at the end of the file\n"}, {2, 1, nullptr}});
  load("$set 1\n1 lost its last character");
  check({{1, 1, "lost its last characte"}});
}

TEST_F(Catalog, ReadsTheCurrentLanguagesSlotUnlessSwitchedOffByExactlyTrue) {
  EXPECT_EQ(catgets("qv", 1, 1, kDef), kDef);  // nothing loaded
  write("En_US", "$set 1\n1 hello\n");
  write("De", "$set 1\n1 hallo\n");
  write("It", "$set 1\n1 ciao\n");
  catopen("qv");
  EXPECT_EQ(catgets(nullptr, 1, 1, kDef), kDef);  // no handle
  const std::pair<const char *, const char *> rows[] = {
      {nullptr, "hello"}, {"De", "hallo"}, {"It", "ciao"},
      {"Fr", nullptr},    // known but not installed: the default, not English
      {"de", "hello"},    // codes compare exactly; unknown ones read slot 0
      {"En_US", "hello"}};
  for (const auto &[lang, text] : rows) {
    catsetlang(lang);
    EXPECT_EQ(catgetlang() ? std::string(catgetlang()) : "-", lang ? lang : "-");
    check({{1, 1, text}});
  }
  for (const char *other : {"true", "1", "TRUE ", ""}) {
    setenv("NOQUORVELCATGETS", other, 1);
    check({{1, 1, "hello"}});
  }
  setenv("NOQUORVELCATGETS", "TRUE", 1);
  check({{1, 1, nullptr}});
  EXPECT_EQ(catText(1, 1, kDef), kDef);
  EXPECT_EQ(catclose("qv"), 0);
}

TEST_F(Catalog, OpensEachSlotOnceAndStopsAtTheFirstLoadedOne) {
  write("De", "$set 1\n1 de-old\n");
  EXPECT_EQ(catText(1, 1, kDef), kDef);  // no handle before the first open
  catopen("qv");
  EXPECT_STREQ(catHandle(), "qv");
  // English was missing, so a second open reads it, then stops at the loaded De slot.
  write("En_US", "$set 1\n1 en\n");
  write("De", "$set 1\n1 de-new\n");
  write("Es", "$set 1\n1 es\n");
  catopen("qv");
  const std::pair<const char *, const char *> rows[] = {
      {"De", "de-old"}, {"Es", nullptr}, {"En_US", "en"}};
  for (const auto &[lang, text] : rows) {
    catsetlang(lang);
    check({{1, 1, text}});
  }
  write("En_US", "$set 1\n1 en-new\n");  // with slot 0 loaded nothing is read again
  catopen("qv");
  EXPECT_STREQ(catText(1, 1, kDef), "en");
}

TEST(CatalogPaths, SplitsLocalesAndFillsPathTemplates) {
  const std::pair<const char *, const char *> locales[] = {
      {"fr_FR.UTF-8", "fr|FR|UTF-8"}, {"de", "de||"}, {"a_b_c.x.y", "a_b|c.x|y"},
      {"_x", "_x||"}, {"no.UTF_8", "no|8|UTF"}, {nullptr, "||"}};
  for (const auto &[locale, parts] : locales) {
    std::string lang, terr, code;
    splitLocale(locale, &lang, &terr, &code);
    EXPECT_EQ(lang + "|" + terr + "|" + code, parts) << (locale ? locale : "null");
  }
  setenv("QUORVELPATH", "/opt/qv", 1);
  resetBase();
  struct Row { const char *tmpl, *locale, *path; };
  const Row rows[] = {
      {"/usr/share/%L/%l/x", "de_DE.UTF-8", "/usr/share/de_DE.UTF-8/de/x//opt/qv/cal.msg"},
      {"/a/%l/%N/ignored", "fr_FR", "/a/fr//opt/qv/cal.msg"},
      {"/base%", "it", "/base%/it//opt/qv/cal.msg"},
      {"/b/%L", nullptr, "/b///opt/qv/cal.msg"},
      {"/c", nullptr, "/c/(null)//opt/qv/cal.msg"},
      {"/d/%L", "%L", "/d/%L//opt/qv/cal.msg"}};  // a substituted value is not rescanned
  for (const Row &row : rows) {
    std::string out = row.tmpl;
    catpath(out, row.locale, "cal");
    EXPECT_EQ(out, row.path) << row.tmpl;
  }
  unsetenv("QUORVELPATH");
  resetBase();
  std::string out = "%N";
  catpath(out, "en", "cal");
  EXPECT_EQ(out, "cal.msg");
}
