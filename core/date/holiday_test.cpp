// Holidays: the text form both ways (byte for byte), malformed lines, the list
// operations, the two files in a temporary tree, and the lookup of a date. Local time
// is Berlin's, so that periods cross a daylight-saving change.
#include "core/date/holiday.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/db/layout.h"

using namespace quorvel;
namespace fs = std::filesystem;

namespace {
std::string readAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
std::string names(Holiday **list, int count) {  // "name/flag " per record
  std::string out;
  for (int i = 0; i < count; i++)
    out += std::string(list[i]->name) + "/" + std::to_string(list[i]->workday) + " ";
  return out;
}
// A list parsed from text, the text it writes, and the list freed.
std::string roundTrip(const char *text, std::string *kept = nullptr) {
  int n = -1;
  Holiday **list = ParseHolidays(text, &n);
  if (kept) *kept = names(list, n);
  char *out = FormatHolidays(list, n);
  std::string s = out;
  freeMem(out), FreeHolidays(list, n);
  return s;
}
Holiday *make(const char *name, int m1, int d1, int m2, int d2, int work = 0) {  // in 2025
  TimeRange r;
  EXPECT_EQ(HolidayPeriod(2025, m1 - 1, d1, 2025, m2 - 1, d2, &r), 0);
  return NewHoliday(name, r, work);
}

// An installation root and a HOME, each a temporary tree, for the two holiday files.
struct Holidays : ::testing::Test {
  std::string root = "/tmp/qvholXXXXXX", home, systemFile, userFile;
  void SetUp() override {
    setenv("TZ", "Europe/Berlin", 1), tzset();
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    home = root + "/home", systemFile = root + "/db/database/holidays";
    userFile = home + "/.quorvel/holidays";
    fs::create_directories(root + "/db/database"), fs::create_directories(home + "/.quorvel");
    setenv("QUORVELPATH", root.c_str(), 1), setenv("HOME", home.c_str(), 1);
    resetBase(), resetLayout(), resetHolidays();
  }
  void TearDown() override { resetHolidays(), resetBase(), fs::remove_all(root); }
};
}  // namespace

TEST_F(Holidays, TextFormRoundTripsForAnyLengthAndAMalformedLineEndsTheList) {
  const char *text = "New Year*nonworkday:\t1/1/2025 - 1/1/2025\n"
                     "Clocks forward*workday:\t3/29/2025 - 3/31/2025\n"  // 3/30 has 23 hours
                     "Turn of the year*nonworkday:\t12/31/2024 - 1/2/2025\n"
                     "Leap*workday:\t2/29/2024 - 2/29/2024\n";
  int n = 0;
  Holiday **list = ParseHolidays(text, &n);
  ASSERT_EQ(names(list, n), "New Year/0 Clocks forward/1 Turn of the year/0 Leap/1 ");
  // Whole local days: the first day's midnight to the last day's last second.
  struct tm midnight = {};
  midnight.tm_mday = 29, midnight.tm_mon = 2, midnight.tm_year = 125, midnight.tm_isdst = -1;
  EXPECT_EQ(list[1]->period.start.time, int32_t(mktime(&midnight)));
  EXPECT_EQ(list[1]->period.end.time - list[1]->period.start.time, 3 * 86400 - 3600 - 1);
  FreeHolidays(list, n);
  EXPECT_EQ(roundTrip(text), text);
  struct { const char *text, *kept; } rows[] = {
      {"\n\n  \tA*workday:\t1/1/2025 - 1/1/2025", "A/1 "},  // last line without newline
      {"A*Workday:\t1/1/2025 - 1/1/2025\n", "A/0 "},       // capital W is a day off
      {"A*holiday:1/1/2025-1/1/2025\r\nB*workday: \t 1/2/2025 - 1/2/2025\r\n", "A/0 B/1 "},
      {"A*workday:\t1/1/2025 - 1/1/2025\nB*workday\t1/2/2025 - 1/2/2025\n"
       "C*workday:\t1/3/2025 - 1/3/2025\n", "A/1 "},
      {"A workday:\t1/1/2025 - 1/1/2025\nB*workday:\t1/2/2025 - 1/2/2025\n", ""},  // no "*"
      {"*workday:\t1/1/2025 - 1/1/2025\nB:x*workday:\t1/1/2025 - 1/1/2025\n", "/1 B:x/1 "},
      {"A*workday:\n", ""}, {"A*workday:\t2/30/2025 - 3/1/2025\n", ""},
      {"A*workday:\t13/1/2025 - 1/1/2026\n", ""}, {"A*workday:\t1/1/2025\n", ""},
      {"A*workday:\t1/1/2025 - 1/1/2025 more\n", ""}, {"A*workday:\t1/1/1800 - 1/1/2025\n", ""},
      {"A*workday:\t1/1/2025 - 1/1/9999999\n", ""}, {" \n\t\n", ""}, {nullptr, ""}};
  for (auto &r : rows) {
    std::string kept;
    roundTrip(r.text, &kept);
    EXPECT_EQ(kept, r.kept) << (r.text ? r.text : "(null)");
  }
  // About 12 kB of text (many growth steps), a name longer than two steps; a record
  // without a name is skipped, and a name is cut at a line end.
  std::string line = "Day*workday:\t5/1/2025 - 5/1/2025\n", expected, longName(1500, 'x');
  Holiday *day = make("Day", 5, 1, 5, 1, 1);
  std::vector<Holiday *> many(300, day);
  for (int i = 0; i < 300; i++) expected += line;
  for (const char *name : {longName.c_str(), (const char *)nullptr, "", "Two\nlines"})
    many.push_back(make(name, 5, 1, 5, 1, 1));
  expected += longName + line.substr(3) + "Two" + line.substr(3);
  char *out = FormatHolidays(many.data(), int(many.size()));
  EXPECT_EQ(out, expected);
  Holiday **back = ParseHolidays(out, &n);
  EXPECT_EQ(n, 302);
  EXPECT_EQ(CompareHolidays(back, 300, many.data(), 300), 0);
  FreeHolidays(back, n), freeMem(out);
  FreeHoliday(day);
  for (size_t i = 300; i < many.size(); i++) FreeHoliday(many[i]);
}

TEST_F(Holidays, ListOperationsCopyAppendRemoveCompareAndSort) {
  Holiday **list = nullptr;
  int n = 0;
  Holiday *c = make("C", 3, 1, 3, 1), *a = make("A", 1, 1, 1, 1, 1);
  Holiday *b1 = make("B1", 2, 1, 2, 3), *b2 = make("B2", 2, 1, 2, 1);
  for (Holiday *h : {c, b1, a, b2}) list = AppendHoliday(list, &n, h);
  EXPECT_TRUE(n == 4 && list[0] != c && CompareHoliday(list[0], c) == 0);  // copies
  Holiday **copy = CopyHolidays(list, n);
  EXPECT_EQ(CompareHolidays(copy, n, list, n), 0);
  SortHolidays(list, n);  // by start; B1 and B2 start together and keep their order
  EXPECT_EQ(names(list, n), "A/1 B1/0 B2/0 C/0 ");
  EXPECT_EQ(CompareHolidays(copy, n, list, n), -1);  // same records, other order
  EXPECT_EQ(CompareHolidays(copy, n, copy, n - 1), -1);
  Holiday *d = CopyHoliday(a);  // each field on its own makes a difference
  d->workday = 0;
  EXPECT_EQ(CompareHoliday(d, a), -1);
  d->workday = 1, d->period.end.time++;
  EXPECT_EQ(CompareHoliday(d, a), -1);
  d->period.end = a->period.end, d->name[0] = 'Z';
  EXPECT_EQ(CompareHoliday(d, a), -1);
  EXPECT_TRUE(RemoveHoliday(&list, &n, 4) == -1 && RemoveHoliday(&list, &n, -1) == -1);
  EXPECT_EQ(RemoveHoliday(&list, &n, 1), 0);
  EXPECT_EQ(names(list, n), "A/1 B2/0 C/0 ");
  while (n > 0) EXPECT_EQ(RemoveHoliday(&list, &n, n - 1), 0);
  EXPECT_TRUE(list == nullptr && CopyHolidays(nullptr, 0) == nullptr);
  FreeHolidays(copy, 4);
  for (Holiday *h : {a, b1, b2, c, d}) FreeHoliday(h);
}

TEST_F(Holidays, FilesAreRewrittenInPlaceAndTheUserListComesFirst) {
  Holiday **list = nullptr;
  int n = -1;
  EXPECT_EQ(ReadHolidayFile(userFile.c_str(), &list, &n), 0);  // missing: empty
  EXPECT_TRUE(list == nullptr && n == 0);
  EXPECT_EQ(ReadHolidayFile(home.c_str(), &list, &n), EISDIR);  // there, but unreadable
  const std::string mine = "Mine*workday:\t12/25/2025 - 12/25/2025\n";
  const std::string two = "Two*workday:\t7/1/2025 - 7/1/2025\n";
  for (Holiday *h : {make("Mine", 12, 25, 12, 25, 1), make("Two", 7, 1, 7, 1, 1)}) {
    list = AppendHoliday(list, &n, h), FreeHoliday(h);
    EXPECT_EQ(WriteHolidayFile(userFile.c_str(), list, n), 0);  // a new file, then a rewrite
  }
  EXPECT_EQ(readAll(userFile), mine + two);
  EXPECT_FALSE(fs::exists(userFile + "TMP") || fs::exists(userFile + "sav"));
  Holiday **back = nullptr;
  int nb = 0;
  EXPECT_EQ(ReadHolidayFile(userFile.c_str(), &back, &nb), 0);
  EXPECT_EQ(CompareHolidays(back, nb, list, n), 0);
  FreeHolidays(back, nb);
  EXPECT_EQ(WriteHolidayFile(userFile.c_str(), nullptr, 0), 0);  // emptied: removed
  EXPECT_FALSE(fs::exists(userFile));
  EXPECT_EQ(WriteHolidayFile((root + "/none/holidays").c_str(), list, n), ENOENT);
  // Saving the user list writes the user's file and keeps the list in force, where a
  // lookup searches it before the shared file.
  std::ofstream(systemFile) << "Shared*nonworkday:\t12/24/2025 - 12/26/2025\n"
                               "Only shared*workday:\t5/1/2025 - 5/1/2025\n";
  EXPECT_EQ(SaveUserHolidays(list, n), 0);
  int nu = 0;
  EXPECT_TRUE(UserHolidays(&nu) == list && nu == 2);
  EXPECT_EQ(readAll(userFile), mine + two);
  struct { int y, m, d; const char *name; int work; } rows[] = {
      {2025, 12, 23, nullptr, -1}, {2025, 12, 24, "Shared", 0}, {2025, 12, 25, "Mine", 1},
      {2025, 12, 26, "Shared", 0}, {2025, 12, 27, nullptr, -1}, {2025, 5, 1, "Only shared", 1},
      {2025, 2, 30, nullptr, -1}, {2025, 13, 1, nullptr, -1}, {1800, 1, 1, nullptr, -1}};
  for (auto &r : rows) {
    int work = -1;
    EXPECT_STREQ(HolidayFor(r.y, r.m - 1, r.d, &work), r.name) << r.m << "/" << r.d;
    EXPECT_EQ(work, r.work) << r.m << "/" << r.d;
  }
  // A language other than En_US reads the shared file with its suffix.
  char path[DB_PATH_MAX];
  for (const char *lang : {(const char *)nullptr, "En_US", "De"}) {
    SetHolidayLanguage(lang);
    std::string suffix = lang && *lang == 'D' ? ".De" : "";
    EXPECT_EQ(std::string(SystemHolidayPath(path)), systemFile + suffix);
  }
  std::ofstream(systemFile + ".De") << "Heiligabend*nonworkday:\t12/24/2025 - 12/24/2025\n";
  EXPECT_STREQ(HolidayFor(2025, 11, 24, nullptr), "Heiligabend");
  EXPECT_EQ(HolidayFor(2025, 4, 1, nullptr), nullptr);
  // Without HOME there is no user list, and nothing to save to; the files are read again
  // on demand.
  unsetenv("HOME");
  EXPECT_EQ(UserHolidayPath(path), nullptr);
  EXPECT_EQ(SaveUserHolidays(CopyHolidays(list, n), n), -1);
  SetHolidayLanguage(nullptr), LoadHolidays();
  EXPECT_STREQ(HolidayFor(2025, 11, 25, nullptr), "Shared");
}
