// Tests of holidays: the text form both ways (byte for byte), malformed lines, the list
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

namespace {
std::string readAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
int32_t localTime(int y, int m, int d, int hh, int mm, int ss) {  // month 1..12
  struct tm tm = {};
  tm.tm_year = y - 1900, tm.tm_mon = m - 1, tm.tm_mday = d, tm.tm_hour = hh, tm.tm_min = mm, tm.tm_sec = ss;
  tm.tm_isdst = -1;
  return int32_t(mktime(&tm));
}
std::string names(Holiday **list, int count) {  // "name/flag " per record
  std::string out;
  for (int i = 0; i < count; i++) out += std::string(list[i]->name) + "/" + std::to_string(list[i]->workday) + " ";
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
    home = root + "/home", systemFile = root + "/db/database/holidays", userFile = home + "/.quorvel/holidays";
    std::filesystem::create_directories(root + "/db/database"), std::filesystem::create_directories(home + "/.quorvel");
    setenv("QUORVELPATH", root.c_str(), 1), setenv("HOME", home.c_str(), 1);
    resetBase(), resetLayout(), resetHolidays();
  }
  void TearDown() override { resetHolidays(), resetBase(), std::filesystem::remove_all(root); }
  static void put(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
};
}  // namespace

TEST_F(Holidays, TextFormRoundTripsAndMalformedLinesEndTheList) {
  const char *text = "New Year*nonworkday:\t1/1/2025 - 1/1/2025\n"
                     "Clocks forward*workday:\t3/29/2025 - 3/31/2025\n"  // 3/30 has 23 hours
                     "Turn of the year*nonworkday:\t12/31/2024 - 1/2/2025\nLeap*workday:\t2/29/2024 - 2/29/2024\n";
  int n = 0;
  Holiday **list = ParseHolidays(text, &n);
  ASSERT_EQ(names(list, n), "New Year/0 Clocks forward/1 Turn of the year/0 Leap/1 ");
  // Whole local days: the first day's midnight to the last day's last second.
  EXPECT_EQ(list[1]->period.start.time, localTime(2025, 3, 29, 0, 0, 0));
  EXPECT_EQ(list[1]->period.end.time, localTime(2025, 3, 31, 23, 59, 59));
  EXPECT_EQ(list[1]->period.end.time - list[1]->period.start.time, 3 * 86400 - 3600 - 1);
  FreeHolidays(list, n);
  EXPECT_EQ(roundTrip(text), text);
  struct { const char *text, *kept; } rows[] = {
      {"\n\n  \tA*workday:\t1/1/2025 - 1/1/2025", "A/1 "},  // last line without newline
      {"A*Workday:\t1/1/2025 - 1/1/2025\n", "A/0 "},       // capital W is a day off
      {"A*holiday:1/1/2025-1/1/2025\r\nB*workday: \t 1/2/2025 - 1/2/2025\r\n", "A/0 B/1 "},
      {"A*workday:\t1/1/2025 - 1/1/2025\nB*workday\t1/2/2025 - 1/2/2025\nC*workday:\t1/3/2025 - 1/3/2025\n", "A/1 "},
      {"A workday:\t1/1/2025 - 1/1/2025\nB*workday:\t1/2/2025 - 1/2/2025\n", ""},  // no "*"
      {"*workday:\t1/1/2025 - 1/1/2025\nB:x*workday:\t1/1/2025 - 1/1/2025\n", "/1 B:x/1 "},
      {"A*workday:\n", ""}, {"A*workday:\t2/30/2025 - 3/1/2025\n", ""}, {"A*workday:\t13/1/2025 - 1/1/2026\n", ""},
      {"A*workday:\t1/1/2025\n", ""}, {"A*workday:\t1/1/2025 - 1/1/2025 more\n", ""},
      {"A*workday:\t1/1/1800 - 1/1/2025\n", ""}, {"A*workday:\t1/1/2025 - 1/1/9999999\n", ""},
      {" \n\t\n", ""}, {nullptr, ""}};
  for (auto &r : rows) {
    std::string kept;
    roundTrip(r.text, &kept);
    EXPECT_EQ(kept, r.kept) << (r.text ? r.text : "(null)");
  }
}

TEST_F(Holidays, FormattingSkipsNamelessRecordsAndGrowsForAnyLength) {
  std::vector<Holiday *> list;
  std::string expected, longName(1500, 'x');  // longer than two growth steps
  for (int i = 0; i < 300; i++) {  // about 12 kB: many 512-byte steps
    std::string name = "Day " + std::to_string(i), day = std::to_string(1 + i % 12) + "/" + std::to_string(1 + i % 28) + "/2025";
    list.push_back(make(name.c_str(), 1 + i % 12, 1 + i % 28, 1 + i % 12, 1 + i % 28, i % 2));
    expected += name + (i % 2 ? "*workday:\t" : "*nonworkday:\t") + day + " - " + day + "\n";
  }
  for (const char *name : {longName.c_str(), (const char *)nullptr, "", "Two\nlines"})
    list.push_back(make(name, 5, 1, 5, 1, 1));
  expected += longName + "*workday:\t5/1/2025 - 5/1/2025\nTwo*workday:\t5/1/2025 - 5/1/2025\n";  // cut at the line end
  char *out = FormatHolidays(list.data(), int(list.size()));
  EXPECT_EQ(out, expected);
  int n = 0;
  Holiday **back = ParseHolidays(out, &n);
  EXPECT_EQ(n, 302);
  EXPECT_EQ(CompareHolidays(back, 300, list.data(), 300), 0);
  FreeHolidays(back, n), freeMem(out);
  for (Holiday *h : list) FreeHoliday(h);
}

TEST_F(Holidays, ListOperationsCopyAppendRemoveCompareAndSort) {
  Holiday **list = nullptr;
  int n = 0;
  Holiday *c = make("C", 3, 1, 3, 1), *a = make("A", 1, 1, 1, 1, 1), *b1 = make("B1", 2, 1, 2, 3), *b2 = make("B2", 2, 1, 2, 1);
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

TEST_F(Holidays, FilesAreReadAndRewrittenInPlace) {
  Holiday **list = nullptr;
  int n = -1;
  EXPECT_EQ(ReadHolidayFile(userFile.c_str(), &list, &n), 0);  // missing: empty
  EXPECT_TRUE(list == nullptr && n == 0);
  EXPECT_EQ(ReadHolidayFile(home.c_str(), &list, &n), EISDIR);  // there, but unreadable
  const std::string one = "One*nonworkday:\t6/1/2025 - 6/2/2025\n", two = "Two*workday:\t7/1/2025 - 7/1/2025\n";
  for (Holiday *h : {make("One", 6, 1, 6, 2), make("Two", 7, 1, 7, 1, 1)}) {
    list = AppendHoliday(list, &n, h), FreeHoliday(h);
    EXPECT_EQ(WriteHolidayFile(userFile.c_str(), list, n), 0);  // a new file, then a rewrite
  }
  EXPECT_EQ(readAll(userFile), one + two);
  EXPECT_FALSE(std::filesystem::exists(userFile + "TMP") || std::filesystem::exists(userFile + "sav"));
  Holiday **back = nullptr;
  int nb = 0;
  EXPECT_EQ(ReadHolidayFile(userFile.c_str(), &back, &nb), 0);
  EXPECT_EQ(CompareHolidays(back, nb, list, n), 0);
  FreeHolidays(back, nb);
  EXPECT_EQ(WriteHolidayFile(userFile.c_str(), nullptr, 0), 0);  // emptied: removed
  EXPECT_FALSE(std::filesystem::exists(userFile));
  EXPECT_EQ(WriteHolidayFile((root + "/none/holidays").c_str(), list, n), ENOENT);
  // Saving the user list writes the user's file and keeps the list in force.
  EXPECT_EQ(SaveUserHolidays(list, n), 0);
  int nu = 0;
  EXPECT_TRUE(UserHolidays(&nu) == list && nu == 2);
  EXPECT_EQ(readAll(userFile), one + two);
  unsetenv("HOME");
  EXPECT_EQ(SaveUserHolidays(CopyHolidays(list, n), n), -1);
  char path[DB_PATH_MAX];
  EXPECT_EQ(UserHolidayPath(path), nullptr);
}

TEST_F(Holidays, LookupPrefersTheUserListAndNamesTheLanguageFile) {
  put(systemFile, "Shared*nonworkday:\t12/24/2025 - 12/26/2025\nOnly shared*workday:\t5/1/2025 - 5/1/2025\n");
  put(userFile, "Mine*workday:\t12/25/2025 - 12/25/2025\n");
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
    EXPECT_EQ(std::string(SystemHolidayPath(path)), systemFile + (lang && lang[0] == 'D' ? ".De" : ""));
  }
  put(systemFile + ".De", "Heiligabend*nonworkday:\t12/24/2025 - 12/24/2025\n");
  EXPECT_STREQ(HolidayFor(2025, 11, 24, nullptr), "Heiligabend");
  EXPECT_EQ(HolidayFor(2025, 4, 1, nullptr), nullptr);
  // Without HOME there is no user list; the files are read again on demand.
  unsetenv("HOME"), SetHolidayLanguage(nullptr), LoadHolidays();
  EXPECT_STREQ(HolidayFor(2025, 11, 25, nullptr), "Shared");
}
