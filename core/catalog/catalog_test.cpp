// Tests of the message catalogue (real files under a temporary root), locales and paths.
#include "core/catalog/catalog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/base/base.h"

using namespace quorvel;

namespace {
const char kDef[] = "DEF";
struct Lookup { int set, number; const char *text; };  // null text: kDef itself comes back

// A temporary installation root with a resources tree; QUORVELPATH points at it.
struct Catalog : ::testing::Test {
  std::string root = "/tmp/qvcatXXXXXX";
  void SetUp() override {
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    setenv("QUORVELPATH", root.c_str(), 1), unsetenv("NOQUORVELCATGETS");
    resetBase(), resetCatalog();
  }
  void TearDown() override { std::filesystem::remove_all(root), resetBase(); }
  void write(const char *lang, const std::string &text) {
    std::filesystem::create_directories(root + "/resources/" + lang);
    std::ofstream(root + "/resources/" + lang + "/qv.msg") << text;
  }
  void load(const std::string &text) {  // text as the only (English) catalogue, afresh
    resetCatalog(), write("En_US", text);
    EXPECT_STREQ(catopen("qv"), "qv");
  }
  static void check(std::initializer_list<Lookup> rows) {
    for (const Lookup &row : rows) {
      const char *got = catgets("qv", row.set, row.number, kDef);
      EXPECT_STREQ(got == kDef ? nullptr : got, row.text) << row.set << "," << row.number;
    }
  }
};
}  // namespace

TEST_F(Catalog, NumbersMessagesBySetChainAndOrderIgnoringOtherLines) {
  // 3 of set 2 takes place 2; a bare number makes no message; set 2 reopened appends; set 5
  // skips 4 (one node appended: set 5 is node 4), set 5 again is past the end (lost), set 6 is node 5.
  load("$ a comment\n1 before any set is ignored\n$set 1\n1 one-one\nx not a message line\n"
       "\n0 number zero is ignored\n2 one-two\n$set 2\n1 a\n3 b\n$set   3\n1\n"
       "2 takes the empty line's place\n$set 2\n1 reopened\n$set 5\n1 s5\n$set 5\n1 lost\n"
       "$set 6\n1 s6\n");
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
  load("$set 1\n1 first\\n\\\nsecond\n2 a\\n\\\nb\\n\\\nc\\nd\n3 single \\n line\n"
       "4 x\\ny\\n\\\nlast\n5 no escape\\\ntail\n6 head\\n\\\n$set 7\\n\\\n2 still the first "
       "message\n7 second\n8 open at the end of the file\\n\\\n");
  check({{1, 1, "first\nsecond"}, {1, 2, "a\nb\nc\\nd"}, {1, 3, "single \\n line"},
         {1, 4, "x\nlast"}, {1, 5, "no escape\\\ntail"},
         {1, 6, "head\n$set 7\n2 still the first message"}, {1, 7, "second"},
         {1, 8, "open at the end of the file\n"}, {2, 1, nullptr}});
  load("$set 1\n1 lost its last character");
  check({{1, 1, "lost its last characte"}});
}

TEST_F(Catalog, ReadsTheCurrentLanguagesSlotUnlessSwitchedOffByExactlyTrue) {
  EXPECT_TRUE(catText(1, 1, kDef) == kDef && catgets("qv", 1, 1, kDef) == kDef);  // nothing open
  for (const char *lang : {"En_US", "De", "It"}) write(lang, "$set 1\n1 " + std::string(lang) + "\n");
  catopen("qv");
  EXPECT_EQ(catgets(nullptr, 1, 1, kDef), kDef);  // no handle
  // Fr is known, not installed: the default; codes compare exactly, unknown ones read slot 0.
  const std::pair<const char *, const char *> rows[] = {{nullptr, "En_US"}, {"De", "De"},
      {"It", "It"}, {"Fr", nullptr}, {"de", "En_US"}, {"En_US", "En_US"}};
  for (const auto &[lang, text] : rows) {
    catsetlang(lang), check({{1, 1, text}});
    EXPECT_EQ(catgetlang() ? std::string(catgetlang()) : "-", lang ? lang : "-");
  }
  for (const char *other : {"true", "1", "TRUE ", ""})
    setenv("NOQUORVELCATGETS", other, 1), check({{1, 1, "En_US"}});
  setenv("NOQUORVELCATGETS", "TRUE", 1), check({{1, 1, nullptr}});
  EXPECT_TRUE(catText(1, 1, kDef) == kDef && catclose("qv") == 0);
}

TEST_F(Catalog, OpensEachSlotOnceAndStopsAtTheFirstLoadedOne) {
  write("De", "$set 1\n1 de-old\n");
  EXPECT_TRUE(catopen("qv") && catHandle() && std::string(catHandle()) == "qv");
  // English was missing, so a second open reads it, then stops at the loaded De slot.
  write("En_US", "$set 1\n1 en\n"), write("De", "$set 1\n1 de-new\n"), write("Es", "$set 1\n1 es\n");
  catopen("qv");
  for (auto [lang, text] :
       {std::pair<const char *, const char *>{"De", "de-old"}, {"Es", nullptr}, {"En_US", "en"}})
    catsetlang(lang), check({{1, 1, text}});
  write("En_US", "$set 1\n1 en-new\n"), catopen("qv");  // slot 0 loaded: nothing is read again
  EXPECT_STREQ(catText(1, 1, kDef), "en");
}

TEST(CatalogPaths, SplitsLocalesAndFillsPathTemplates) {
  std::string lang, terr, code, all, out;
  for (const char *locale : {"fr_FR.UTF-8", "de", "a_b_c.x.y", "_x", "no.UTF_8", (const char *)0})
    splitLocale(locale, &lang, &terr, &code), all += lang + "|" + terr + "|" + code + ",";
  EXPECT_EQ(all, "fr|FR|UTF-8,de||,a_b|c.x|y,_x||,no|8|UTF,||,");
  setenv("QUORVELPATH", "/opt/qv", 1), resetBase();
  struct Row { const char *tmpl, *locale, *path; };
  for (const Row &row : {Row{"/usr/share/%L/%l/x", "de_DE.UTF-8", "/usr/share/de_DE.UTF-8/de/x/"},
                         Row{"/a/%l/%N/ignored", "fr_FR", "/a/fr/"}, Row{"/base%", "it", "/base%/it/"},
                         Row{"/b/%L", nullptr, "/b//"}, Row{"/c", nullptr, "/c/(null)/"},
                         Row{"/d/%L", "%L", "/d/%L/"}}) {  // a substituted value is not rescanned
    catpath(out = row.tmpl, row.locale, "cal");
    EXPECT_EQ(out, std::string(row.path) + "/opt/qv/cal.msg") << row.tmpl;
  }
  unsetenv("QUORVELPATH"), resetBase();
  catpath(out = "%N", "en", "cal");
  EXPECT_EQ(out, "cal.msg");
}
