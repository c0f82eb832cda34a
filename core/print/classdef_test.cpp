// classdef_test.cpp -- class definitions: the text form both ways, defaults, the files
// and the class state built from real files in a temporary tree.
#include "core/print/classdef.h"

#include "core/db/db_test_util.h"

namespace quorvel {
namespace {

// "name:color/family/pointSize/density/purpose" per class, "-" for an absent attribute.
std::string describe(const ClassList &list) {
  std::string out;
  auto field = [](const char *v) { return v == nullptr ? std::string("-") : std::string(v); };
  for (int i = 0; i < list.count; i++) {
    const ClassDef *d = list.defs[i];
    out += field(d->name) + ":" + field(d->color) + "/" + field(d->family) + "/" + field(d->pointSize) +
           "/" + field(d->density) + "/" + field(d->purpose) + ";";
  }
  return out;
}

std::string joined(const ChoiceList &choices) {
  std::string out;
  for (const std::string &c : choices) out += c + ",";
  return out;
}

TEST(ParseClassdefs, ReadsLinesUpToTheFirstMalformedOne) {
  struct Row { const char *text, *want; } rows[] = {
      {nullptr, ""},
      {"", ""},
      {"\n \t\nWork*color:\tRed\nWork*family: \t times\n",
       "Work:Red/times/-/-/-;"},
      // the later value wins; classes keep the order they were first named in
      {"A*pointSize:\t10\nB*density:\t100\nA*pointSize:\t14\n", "A:-/-/14/-/-;B:-/-/-/100/-;"},
      // a misspelt attribute does not make its class, and is ignored for a known one
      {"Z*colour:\tRed\nA*colour:\tRed\nA*purpose:\tmeetings\n", "A:-/-/-/-/meetings;"},
      {"A*Color:\tRed\n", ""},
      // a line without "*" or ":" ends the reading; the classes before it stay
      {"A*color:\tRed\nB color: Blue\nC*color:\tGreen\n", "A:Red/-/-/-/-;"},
      {"A*color:\tRed\nB*color Blue\nC*color:\tGreen\n", "A:Red/-/-/-/-;"},
      // the parts are looked for within the line, never on the next one
      {"A\n*color:\tRed\n", ""},
      // a CR LF line end, a last line without a line end, an empty value, ":" in a value
      {"A*color:\tRed\r\nA*purpose:\tat 10:30\nB*density:", "A:Red/-/-/-/at 10:30;B:-/-/-//-;"},
      {"B*density:\n", "B:-/-/-//-;"},
  };
  for (const Row &r : rows) {
    ClassList list = ParseClassdefs(r.text);
    EXPECT_EQ(describe(list), r.want) << (r.text ? r.text : "(null)");
    freeClassList(&list);
  }
}

TEST(FormatClassdefs, WritesSetAttributesInFileOrderReadsBackAndFillsDefaults) {
  ClassList list = ParseClassdefs("Work*purpose:\tjob\nWork*pointSize:\t10\nWork*density:\t100\n"
                                  "Work*family:\ttimes\nWork*color:\tRed\nHome*color:\tBlue\n");
  appendClassDef(&list, newClassDef("Empty"));
  appendClassDef(&list, newClassDef(nullptr));  // a nameless class is left out
  std::string text = FormatClassdefs(list);
  EXPECT_EQ(text, "\nWork*color:\tRed\nWork*family:\ttimes\nWork*density:\t100\nWork*pointSize:\t10\n"
                  "Work*purpose:\tjob\n\nHome*color:\tBlue\n\n");
  ClassList again = ParseClassdefs(text.c_str()), copy = copyClassList(list);
  EXPECT_EQ(describe(again), "Work:Red/times/10/100/job;Home:Blue/-/-/-/-;");
  EXPECT_TRUE(findClassDef(again, "Home") == 1 && findClassDef(again, "Empty") == -1 &&
              findClassDef(again, nullptr) == -1);
  freeClassList(&list);  // the copy owns its own texts
  EXPECT_EQ(FormatClassdefs(copy), text);
  EXPECT_EQ(list.count, 0);
  freeClassList(&copy), freeClassList(&again);
  // Defaults fill only absent attributes.
  list = ParseClassdefs("P*purpose:\tonly this\nQ*color:\tRed\nQ*density:\t100\nR*purpose:\t\n");
  FillClassDefaults(&list);
  EXPECT_EQ(describe(list),
            "P:Black/helvetica/12/75/only this;Q:Red/helvetica/12/100/;R:Black/helvetica/12/75/;");
  freeClassList(&list);
}

TEST(ClassFiles, WriteReplacesWholeAndRefusesATextlessList) {
  TempDir dir;
  std::string path = dir.at("classdef");
  ClassList list = ParseClassdefs("A*color:\tRed\n"), back, nameless;
  ASSERT_EQ(writeClassFile(path.c_str(), list), 0);
  struct stat st;
  EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600 && !exists(path + "TMP"));
  ASSERT_EQ(readClassFile(path.c_str(), &back), 0);
  EXPECT_EQ(describe(back), "A:Red/-/-/-/-;");
  appendClassDef(&nameless, newClassDef(nullptr));
  EXPECT_EQ(writeClassFile(path.c_str(), nameless), -1);
  EXPECT_EQ(readFile(path), "\nA*color:\tRed\n") << "the old file stays";
  EXPECT_EQ(writeClassFile(path.c_str(), ClassList{}), 0);
  EXPECT_TRUE(exists(path) && readFile(path).empty());
  freeClassList(&back);
  EXPECT_EQ(readClassFile(dir.at("missing").c_str(), &back), ENOENT);
  EXPECT_EQ(back.count, 0);
  EXPECT_EQ(writeClassFile(dir.at("no/such/dir").c_str(), list), ENOENT);
  freeClassList(&nameless), freeClassList(&list);
}

// A database root and a HOME in one temporary tree, and a clean class state.
struct ClassTree : ::testing::Test {
  TempDir dir;
  std::string savedHome = getenv("HOME") ? getenv("HOME") : "";
  void SetUp() override {
    for (const char *sub : {"root/db/database", "home/.quorvel"})
      std::filesystem::create_directories(dir.at(sub));
    setenv("QUORVELPATH", dir.at("root").c_str(), 1);
    setenv("HOME", dir.at("home").c_str(), 1);
    resetDbTestState();
    resetClassdefs();
  }
  void TearDown() override {
    resetClassdefs();
    unsetenv("QUORVELPATH");
    setenv("HOME", savedHome.c_str(), 1);
    resetBase();
  }
  void put(const char *rel, const std::string &text) { writeFile(dir.at(rel), text); }
};

TEST_F(ClassTree, LoadMergesSystemOverReferenceGathersChoicesAndNeedsHomeForOwnLists) {
  put("root/db/database/refclassdef",
      "Work*color:\tRed\nWork*family:\tcourier\nHoliday*color:\tGreen\nHoliday*pointSize:\t9\n");
  put("home/.quorvel/sysclassdef",
      "Holiday*color:\tOrange\nTravel*density:\t150\nTravel*color:\tRed\n");
  put("home/.quorvel/classdef", "Mine*color:\tPurple\nMine*family:\ttimes\nOther*color:\tWhite\n");
  LoadClassdefs();
  EXPECT_EQ(describe(userClasses()), "Mine:Purple/times/12/75/;Other:White/helvetica/12/75/;");
  EXPECT_EQ(describe(referenceClasses()), "Work:Red/courier/-/-/-;Holiday:Green/-/9/-/-;")
      << "the reference list stays as read";
  EXPECT_EQ(describe(systemClasses()),
            "Work:Red/courier/12/75/;Holiday:Orange/helvetica/12/75/;Travel:Red/helvetica/12/150/;")
      << "a system class replaces the reference class of its name whole";
  EXPECT_EQ(joined(colorChoices()), "Black,White,Purple,Red,Orange,");
  EXPECT_EQ(joined(familyChoices()), "courier,helvetica,geneva,times,");
  EXPECT_EQ(joined(pointSizeChoices()), "8,10,12,14,18,24,");
  EXPECT_EQ(joined(densityChoices()), "75,100,150,");

  // Loading again starts from the built-in lists and the files as they are now.
  std::filesystem::remove(dir.at("home/.quorvel/classdef"));
  std::filesystem::remove(dir.at("home/.quorvel/sysclassdef"));
  LoadClassdefs();
  EXPECT_EQ(userClasses().count, 0);
  EXPECT_EQ(systemClasses().count, 0);
  EXPECT_EQ(referenceClasses().count, 2);
  EXPECT_EQ(joined(colorChoices()), "Black,White,")
      << "reference values join only through the system list";
  // Without HOME only the reference list and the built-in choices.
  put("home/.quorvel/classdef", "Mine*color:\tPurple\n");
  unsetenv("HOME");
  LoadClassdefs();
  EXPECT_EQ(userClasses().count, 0);
  EXPECT_EQ(referenceClasses().count, 2);
  EXPECT_EQ(joined(colorChoices()), "Black,White,");
  std::filesystem::remove(dir.at("root/db/database/refclassdef"));
  LoadClassdefs();
  EXPECT_EQ(referenceClasses().count, 0);
}

}  // namespace
}  // namespace quorvel
