// The day and month names: English defaults, the extra entry for indexes out of range,
// and the texts of a catalogue (set 26) under a temporary root.
#include "core/date/names.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/base/base.h"
#include "core/catalog/catalog.h"

using namespace quorvel;

namespace {
struct Row { const char *(*fn)(int); int index; const char *text; };

void check(std::initializer_list<Row> rows) {
  for (const Row &r : rows) EXPECT_STREQ(r.fn(r.index), r.text) << r.index;
}

struct DateNames : ::testing::Test {
  std::string root = "/tmp/qvnamesXXXXXX";
  void SetUp() override {
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    setenv("QUORVELPATH", root.c_str(), 1), unsetenv("NOQUORVELCATGETS");
    resetBase(), resetCatalog(), resetDateNames();
  }
  void TearDown() override {
    std::filesystem::remove_all(root), resetBase(), resetCatalog(), resetDateNames();
  }
};
}  // namespace

TEST_F(DateNames, EnglishDefaultsOrCatalogueTextsWithAnExtraEntryOutOfRange) {
  check({{DayName, 0, "Sunday"}, {DayName, 6, "Saturday"}, {DayName, 7, "Whatday?"},
         {DayName, -1, "Whatday?"}, {ShortDayName, 0, "Sun"}, {ShortDayName, 6, "Sat"},
         {ShortDayName, 7, "???"}, {ShortDayName, -3, "???"}, {MonthName, 0, "January"},
         {MonthName, 11, "December"}, {MonthName, 12, "Whatmon?"}, {MonthName, -1, "Whatmon?"},
         {ShortMonthName, 0, "Jan"}, {ShortMonthName, 11, "Dec"}, {ShortMonthName, 12, "???"},
         {ShortMonthName, INT32_MIN, "???"}});
  // A text handed out stays readable while other entries are fetched.
  const char *sunday = DayName(0);
  for (int i = 1; i < 14; i++) DayName(i), MonthName(i);
  EXPECT_STREQ(sunday, "Sunday");
  // A German catalogue whose set 26 numbers every name "n<number>", except the days.
  std::filesystem::create_directories(root + "/resources/De");
  std::ofstream f(root + "/resources/De/qv.msg");
  for (int s = 1; s <= 25; s++) f << "$set " << s << "\n";
  f << "$set 26\n1 Sonntag\n2 Montag\n3 Dienstag\n4 Mittwoch\n5 Donnerstag\n6 Freitag\n7 Samstag\n";
  for (int n = 8; n <= 40; n++) f << n << " n" << n << "\n";
  f.close();
  catopen("qv");
  catsetlang("De");
  check({{DayName, 0, "Sonntag"}, {DayName, 6, "Samstag"}, {ShortDayName, 0, "n8"},
         {ShortDayName, 6, "n14"}, {MonthName, 0, "n15"}, {MonthName, 11, "n26"},
         {ShortMonthName, 0, "n27"}, {ShortMonthName, 11, "n38"},
         // The extra entries read their own numbers: 8, 15, 27 and 39.
         {DayName, 9, "n8"}, {ShortDayName, 9, "n15"}, {MonthName, 12, "n27"},
         {ShortMonthName, -1, "n39"}});
  // Each call fetches again: the language in force at the call decides.
  catsetlang("En_US");
  check({{DayName, 0, "Sunday"}, {MonthName, 12, "Whatmon?"}});
  catsetlang("De");
  setenv("NOQUORVELCATGETS", "TRUE", 1);
  check({{DayName, 0, "Sunday"}, {ShortMonthName, 11, "Dec"}});
}
