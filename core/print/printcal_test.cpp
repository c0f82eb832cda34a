// printcal_test.cpp -- printed calendars: a stand-in formatter placed where the real one
// lives records its command line token by token, its data file and the file's mode.
#include <csignal>
#include <regex>
#include <sstream>

#include "core/print/print_test_util.h"

namespace quorvel {
namespace {

constexpr int Y = 126, MAR = 2, D2 = 1;  // Monday 2 March 2026

struct Formatter : ListingTest {
  std::string log;
  void SetUp() override {
    ListingTest::SetUp();
    std::filesystem::create_directories(dir.at("root/linux/bin"));
    std::filesystem::create_symlink(FAKE_PCAL, dir.at("root/linux/bin/pcal"));
    log = dir.at("pcal.log");
    setenv("QV_PCAL_LOG", log.c_str(), 1);
    unsetenv("QV_PCAL_EXIT");
    setClockHook([] { return time_t(utc(3, 2, 14, 5)); });
    add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0), {ann});
    add(KIND_REMINDER, "Buy milk", utc(3, 4, 7, 0), utc(3, 4, 7, 0), {ann});
  }
  void TearDown() override {
    setClockHook(nullptr);
    unsetenv("QV_PCAL_LOG");
    ListingTest::TearDown();
  }
  // What the formatter was given: its arguments joined by "|" (the data file's path,
  // checked and gone, as "DATA"), the data file's mode and contents.
  std::vector<std::string> args;
  std::string joined, mode, data;
  bool ran() {
    if (!exists(log)) return false;
    std::string text = readFile(log);
    std::filesystem::remove(log);
    size_t mark = text.find("--mode ");
    std::istringstream in(text.substr(0, mark));
    args.clear(), joined.clear();
    for (std::string a; std::getline(in, a); args.push_back(a)) {
      if (!args.empty() && args.back() == "-f") {
        EXPECT_TRUE(std::regex_match(a, std::regex("/tmp/qvpcala[0-9]{5}")) && !exists(a)) << a;
        a = "DATA";
      }
      joined += a + "|";
    }
    mode = text.substr(mark + 7, text.find('\n', mark) - mark - 7);
    data = text.substr(text.find("--data\n") + 7);
    return true;
  }
};

TEST_F(Formatter, DayPrintCommandTokenByToken) {
  std::string err = stderrOf([&] { PrintCalendar(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS | LIST_TODOS, 2); });
  EXPECT_EQ(err, "");
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined,
            "-Xd|2|3|2026|-XE|-XT|-p|-C|March 2, 2026 - 02:05 pm|-f|DATA|-N|ann|"
            "-Xi|7.50|-Xh|10.00|-Xx|0.50|-Xy|0.50|-Xs|7|-Xc|1|-Xr|1|");
  EXPECT_EQ(mode, "666");
  EXPECT_EQ(data, listing(ann, Y, MAR, D2, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS) +
                      listing(ann, Y, MAR, D2 + 1, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS));
  EXPECT_NE(data.find("year 2026\n\n03/02 (Monday):\t09:30am-10:00am\tStandup\n"), std::string::npos) << data;
  // The command itself, byte for byte: the option string sits inside the period's part.
  std::string root = dir.at("root");
  EXPECT_EQ(formatterCommand(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS | LIST_TODOS, "/tmp/x", utc(3, 2, 14, 5)),
            root + "/./linux/bin/pcal -Xd 2 3 2026  -XE -XT -p -C \"March 2, 2026 - 02:05 pm\" -f /tmp/x -N \"ann\""
                   " -Xi 7.50 -Xh 10.00 -Xx 0.50 -Xy 0.50 -Xs 7 -Xc 1 -Xr 1");
}

TEST_F(Formatter, WeekPrintInCentimetresListsEverySection) {
  PrintCalendar(ann, Y, MAR, D2, LIST_WEEK, LIST_REMINDERS | LIST_METRIC, 1);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined,
            "-Xw|2|3|2026|-XE|-XR|-l|-C|March 2, 2026 - 02:05 pm|-f|DATA|-N|ann|"
            "-Xi|2.95|-Xh|3.94|-Xx|0.20|-Xy|0.20|-Xs|7|-Xc|1|-Xr|1|");
  EXPECT_EQ(data, listing(ann, Y, MAR, D2, 1, LIST_WEEK, 7)) << "a week's data holds all three sections";
  EXPECT_NE(data.find("Standup"), std::string::npos);
  EXPECT_NE(data.find("03/04\tReminders:\tBuy milk\n"), std::string::npos);
}

TEST_F(Formatter, MonthPrintWithTheClientSwitches) {
  setListingSwitches({.dayFirst = true, .hours24 = true, .formatterZ = true});
  PrintCalendar(ann, Y, MAR, D2, LIST_MONTH, LIST_DONE_TODOS, 1);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined,
            "-Xm|3|2026|-XT|-l|-C|2 March, 2026 - 14:05|-f|DATA|-N|ann|"
            "-Xi|7.50|-Xh|10.00|-Xx|0.50|-Xy|0.50|-Xs|7|-Xc|1|-Xr|1|-XZ|")
      << "no -XE without the events flag";
  setListingSwitches({});
  PrintCalendar(ann, Y, MAR, D2, LIST_MONTH, LIST_EVENTS | LIST_REMINDERS, 1);
  ASSERT_TRUE(ran());
  EXPECT_EQ(args[0] + args[3] + args[4] + args[5], "-Xm-XE-XR-l");
  EXPECT_EQ(data, listing(ann, Y, MAR, 0, 1, LIST_MONTH, LIST_EVENTS | LIST_REMINDERS));
}

TEST_F(Formatter, FailuresAndTheChildStatusRule) {
  const std::string failed = "Unable to output the postscript file at this time.\n";
  setenv("QV_PCAL_EXIT", "3", 1);
  EXPECT_EQ(stderrOf([&] { PrintCalendar(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 1); }), failed);
  ASSERT_TRUE(ran());
  // With SIGCHLD ignored the status cannot be collected: ECHILD is not a failure.
  signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(stderrOf([&] { PrintCalendar(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 1); }), "");
  signal(SIGCHLD, SIG_DFL);
  ASSERT_TRUE(ran());
  unsetenv("QV_PCAL_EXIT");
  // A command past its 500 bytes is not run.
  int longName = addCalendarName(nullptr, std::string(400, 'n').c_str(), "l", "", "");
  EXPECT_EQ(stderrOf([&] { PrintCalendar(longName, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 1); }), failed);
  EXPECT_FALSE(ran());
  // A missing formatter is a failure of the shell.
  std::filesystem::remove(dir.at("root/linux/bin/pcal"));
  EXPECT_NE(stderrOf([&] { PrintCalendar(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 1); }).find(failed),
            std::string::npos);
}

TEST_F(Formatter, CountsNamesAndTheListCalendarRoad) {
  PrintCalendar(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 0);
  EXPECT_FALSE(ran()) << "a count of 0 prints nothing";
  int odd = addCalendarName(nullptr, "a \"b\" $HOME `x` \\", "o", "", "");
  PrintCalendar(odd, Y, MAR, D2, LIST_DAY, LIST_EVENTS, 1);
  ASSERT_TRUE(ran());
  EXPECT_EQ(args[10], "-N");
  EXPECT_EQ(args[11], "a \"b\" $HOME `x` \\") << "the name reaches the formatter as it is";
  setClientDate(Y, 11, 30);
  ListCalendar(ann, LIST_PRINT | LIST_WEEK | LIST_EVENTS, -3);
  ASSERT_TRUE(ran());
  EXPECT_EQ(args[0] + " " + args[1] + " " + args[2] + " " + args[3], "-Xw 31 12 2026");
  EXPECT_EQ(std::count(data.begin(), data.end(), '#'), 1) << "one period for a count below 1";
}

}  // namespace
}  // namespace quorvel
