// listing_test.cpp -- day, week and month listings (every time form, private, done and
// popup items, the day order, the to-do tests, the record file as a day's source), and
// printed calendars through a stand-in formatter that records its command line and data.
#include <csignal>
#include <ctime>
#include <regex>
#include <sstream>

#include "core/db/db_test_util.h"
#include "core/items/item.h"
#include "core/net/namelookup.h"
#include "core/people/identity.h"
#include "core/people/perms.h"
#include "core/people/users.h"
#include "core/print/listing.h"
#include "core/print/listing_internal.h"

namespace quorvel {
namespace {

constexpr int Y = 126, MAR = 2, D2 = 1;  // Monday 2 March 2026 as the client holds it
const std::string MAR2 = "\n\t\t#For March 2, 2026\n\n";

bool has(const std::string &text, const std::string &part) { return text.find(part) != text.npos; }

// The items the memory loader serves.
Item memItems;

int memoryLoader(int, int32_t dayStart, int32_t dayEnd, Item *list) {
  for (Item *item = memItems.next; item != &memItems; item = item->next)
    if (itemOnDay(item, dayStart, dayEnd)) evlistAppend(list, evcopy(item));
  return 0;
}

// Seconds of <year>-<month>-<day> hh:mm UTC (month counted from 1).
int32_t utc(int month, int day, int hour, int minute, int year = 2026) {
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day;
  tm.tm_hour = hour, tm.tm_min = minute;
  return int32_t(timegm(&tm));
}

void markDone(Item *item, int user, int32_t when) {
  UserTime *entry = addUserTime(item);
  entry->user = user, entry->when = initDateTime(), entry->when.time = when;
}

// A temporary installation root with its events tree and the stand-in formatter where
// the real one lives, calendars ann (the own one) and bob, UTC, day items from memory.
struct ListingTest : ::testing::Test {
  TempDir dir;
  DbHandle *db = nullptr;
  int ann = -1, bob = -1;
  std::string log = dir.at("pcal.log");

  void SetUp() override {
    for (const char *sub : {"root/db/database/events", "root/db/database/locks", "root/linux/bin"})
      std::filesystem::create_directories(dir.at(sub));
    std::filesystem::create_symlink(FAKE_PCAL, dir.at("root/linux/bin/pcal"));
    setenv("QUORVELPATH", dir.at("root").c_str(), 1);
    setenv("QV_PCAL_LOG", log.c_str(), 1);
    setenv("TZ", "UTC", 1);
    tzset();
    resetDbTestState();
    resetListing(), resetPerms(), resetIdentity();
    db = openDefaultDb();
    installNameLookup();
    ann = addCalendarName(nullptr, "ann", "ann", "", "");
    bob = addCalendarName(nullptr, "bob", "bob", "", "");
    setOwnCalendar(ann);
    evlistInit(&memItems);
    setDayItemsLoader(memoryLoader);
    setClockHook([] { return time_t(utc(3, 2, 14, 5)); });
  }
  void TearDown() override {
    evlistFree(&memItems);
    resetListing(), resetPerms(), resetIdentity();
    setClockHook(nullptr);
    freeNameTable(db);
    resetDbContexts();
    unsetenv("QUORVELPATH"), unsetenv("QV_PCAL_LOG"), unsetenv("QV_PCAL_EXIT");
  }

  // A new item in the memory list; an end of 0 is the start, calendar -1 is ann.
  Item *add(uint16_t kind, const char *title, int32_t start, int32_t end = 0, int calendar = -1) {
    Item *item = evnew();
    item->dWord = kind;
    evsetTitle(item, title);
    item->timeValue.start.time = start, item->timeValue.end.time = end ? end : start;
    setbit(&item->calendars, calendar < 0 ? ann : calendar, 1);
    evlistAppend(&memItems, item);
    return item;
  }
  // What WriteListing writes for these arguments; day() for ann's Monday.
  std::string listing(int calendar, int year, int month, int day, int withYear, unsigned period,
                      unsigned flags, int count = 1) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    WriteListing(out, calendar, year, month, day, withYear, period, flags, count);
    fclose(out);
    std::string result(text, len);
    free(text);
    return result;
  }
  std::string day(unsigned flags) { return listing(ann, Y, MAR, D2, 0, LIST_DAY, flags); }

  // PrintCalendar from ann's Monday; what it wrote on standard error.
  std::string print(unsigned period, unsigned flags, int count = 1, int calendar = -1) {
    int who = calendar < 0 ? ann : calendar;
    return stderrOf([&] { PrintCalendar(who, Y, MAR, D2, period, flags, count); });
  }
  // What the formatter was given: its arguments joined by "|" (the data file's path,
  // checked and gone, as "DATA"), the data file's mode and contents.
  std::string joined, mode, data;
  bool ran() {
    if (!exists(log)) return false;
    std::istringstream in(readFile(log));
    std::filesystem::remove(log);
    std::string path;
    std::getline(in, path), std::getline(in, mode), std::getline(in, joined);
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/qvpcala[0-9]{5}")) && !exists(path))
        << path;
    data.assign(std::istreambuf_iterator<char>(in), {});
    return true;
  }
};

TEST_F(ListingTest, DayListingInEveryFormAndSection) {
  add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0));
  add(KIND_EVENT, "Night shift", utc(3, 1, 22, 0), utc(3, 3, 6, 0));  // round the whole day
  add(KIND_EVENT, "Lunch", utc(3, 2, 12, 0), utc(3, 2, 13, 15));
  add(KIND_EVENT, "Secret", utc(3, 2, 15, 0), utc(3, 2, 16, 0), bob);  // not ann's to read
  setbit(&add(KIND_EVENT, "Declined", utc(3, 2, 8, 0), utc(3, 2, 9, 0))->setX, ann, 1);
  add(KIND_EVENT, "Midnight", utc(3, 2, 0, 0), utc(3, 2, 0, 5));  // the clock's edges
  add(KIND_EVENT, "Noon", utc(3, 2, 12, 0), utc(3, 2, 12, 59));
  add(KIND_EVENT, "Evening", utc(3, 2, 23, 5), utc(3, 3, 0, 0));
  add(KIND_EVENT, "Same", utc(3, 2, 11, 59));
  add(KIND_TODO, "File taxes", utc(3, 2, 8, 0));
  markDone(add(KIND_TODO, "Call mum", utc(2, 27, 9, 0)), ann, utc(3, 2, 10, 0));
  markDone(add(KIND_TODO, "Old", utc(2, 20, 9, 0)), ann, utc(2, 25, 10, 0));
  add(KIND_TODO, "Bob's to-do", utc(3, 2, 9, 0), 0, bob);  // unreadable: left out
  add(KIND_REMINDER, "Buy milk", utc(3, 2, 7, 0));
  EXPECT_EQ(day(LIST_EVENTS | LIST_TODOS | LIST_REMINDERS),
            MAR2 + "03/02 (Monday):\t12:00am-12:00am\tNight shift\n\t\t12:00am-12:05am\tMidnight\n"
                   "\t\t09:30am-10:00am\tStandup\n\t\t11:59am-11:59am\tSame\n"
                   "\t\t12:00pm-01:15pm\tLunch\n\t\t12:00pm-12:59pm\tNoon\n"
                   "\t\t03:00pm-04:00pm\t(private)\n\t\t11:05pm-12:00am\tEvening\n"
                   "ToDos:\t\tCall mum (done)\n\t\tFile taxes\nReminders:\tBuy milk\n");
  EXPECT_EQ(day(0), day(7)) << "flags 0 list all three sections of a day";
  // The done form lists the to-dos done that day; the day's label opens the first line.
  EXPECT_EQ(day(LIST_DONE_TODOS | LIST_REMINDERS),
            MAR2 + "03/02 (Monday):\nToDos:\t\tCall mum (done)\nReminders:\tBuy milk\n");
  EXPECT_EQ(day(LIST_TODOS | LIST_DONE_TODOS),
            MAR2 + "03/02 (Monday):\nToDos:\t\tCall mum (done)\n\t\tFile taxes\n")
      << "the plain to-do section wins over the done form";
  setListingSwitches({.dayFirst = true, .hours24 = true});
  EXPECT_EQ(listing(ann, Y, MAR, D2, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS | LIST_REMINDERS),
            "\n\t\t#For 2 March, 2026\n\nyear 2026\n\n"
            "03/02 (Monday):\t 24:00 - 00:00 \tNight shift\n"
            "03/02 (Monday):\t 00:00 - 00:05 \tMidnight\n03/02 (Monday):\t 09:30 - 10:00 \tStandup\n"
            "03/02 (Monday):\t 11:59 - 11:59 \tSame\n03/02 (Monday):\t 12:00 - 13:15 \tLunch\n"
            "03/02 (Monday):\t 12:00 - 12:59 \tNoon\n03/02 (Monday):\t 15:00 - 16:00 \t(private)\n"
            "03/02 (Monday):\t 23:05 - 00:00 \tEvening\n03/02\tToDos:\t\tCall mum (done)\n"
            "03/02\tToDos:\t\tFile taxes\n03/02\tReminders:\tBuy milk\n");
  // A reader of bob's calendar sees his event and his to-do by their texts.
  AddToDat(db, bob);
  ASSERT_EQ(SetDatPerm(db, bob, 'R', ann, 1), 0);
  std::string seen = day(LIST_EVENTS | LIST_TODOS);
  EXPECT_TRUE(has(seen, "\t 15:00 - 16:00 \tSecret\n") && has(seen, "\t\tBob's to-do\n")) << seen;
}

TEST_F(ListingTest, WeeksAndMonthsAdvanceAcrossTheTurnOfTheYear) {
  add(KIND_REMINDER, "Old year", utc(12, 31, 9, 0));
  add(KIND_REMINDER, "New year", utc(1, 2, 9, 0, 2027));
  add(KIND_EVENT, "Party", utc(12, 31, 20, 0), utc(12, 31, 23, 0));
  add(KIND_EVENT, "Valentine", utc(2, 14, 19, 0), utc(2, 14, 22, 0));
  add(KIND_EVENT, "March in", utc(3, 1, 10, 0), utc(3, 1, 11, 0));
  add(KIND_EVENT, "Leap check", utc(2, 28, 10, 0), utc(2, 28, 11, 0));
  const std::string week = "\n\t\t#For the week of December 30, 2026\n\n";
  EXPECT_EQ(listing(ann, Y, 11, 29, 1, LIST_WEEK, LIST_REMINDERS),
            week + "year 2026\n\n12/31\tReminders:\tOld year\nyear 2027\n\n"
                   "01/02\tReminders:\tNew year\n");
  EXPECT_EQ(listing(ann, Y, 11, 29, 0, LIST_WEEK, 0),
            week + "12/31 (Thursday):\t08:00pm-11:00pm\tParty\n")
      << "flags 0 list events only for a week, and no year lines without them";
  // Two weeks: the second starts seven days on, carried into the next year.
  std::string two = listing(ann, Y, 11, 29, 0, LIST_WEEK, LIST_EVENTS, 2);
  EXPECT_TRUE(has(two, "\n\t\t#For the week of January 6, 2027\n\n")) << two;
  // A month lists every day from the first.
  EXPECT_EQ(listing(ann, Y, 1, 20, 0, LIST_MONTH, 0, 2),
            "\n\t\t#For February 2026\n\n"
            "02/14 (Saturday):\t07:00pm-10:00pm\tValentine\n"
            "02/28 (Saturday):\t10:00am-11:00am\tLeap check\n"
            "\n\t\t#For March 2026\n\n"
            "03/01 (Sunday):\t10:00am-11:00am\tMarch in\n");
  // Day 31 of November is carried into December, and December into January.
  EXPECT_EQ(listing(ann, Y, 10, 30, 1, LIST_MONTH, LIST_EVENTS, 2),
            "\n\t\t#For December 2026\n\nyear 2026\n\n"
            "12/31 (Thursday):\t08:00pm-11:00pm\tParty\n"
            "\n\t\t#For January 2027\n\nyear 2027\n\n");
  EXPECT_EQ(listing(ann, Y, 0, 0, 0, 0x800, LIST_EVENTS), "") << "an unknown period writes nothing";
}

const char *bodyOf(const Item *, int index) { return index == 0 ? "Body of the first" : nullptr; }

TEST_F(ListingTest, DetailFlagWritesTheVisibleNotesOfTheItemAndItsChain) {
  Item *item = add(KIND_EVENT, "Review", utc(3, 2, 14, 0), utc(3, 2, 15, 0));
  addPopup(item)->title = strdup("Agenda");
  setbit(&addPopup(item)->setR, bob, 1);  // for bob only
  setbit(&addPopup(item)->setR, ann, 1);  // ann's, no title
  Item *copy = evnew();
  addPopup(copy)->title = strdup("Chained");
  chainAppend(item, copy);
  setPopupBodyHook(bodyOf);
  const std::string review = MAR2 + "03/02 (Monday):\t02:00pm-03:00pm\tReview\n",
                    body = "\n    Popup body: Body of the first\n:End of Body:\n";
  EXPECT_EQ(day(LIST_EVENTS | LIST_DETAIL),
            review + "\n    Popup title: Agenda" + body +
                "\n    Popup title: \n    Popup body: \n:End of Body:\n\n    Popup title: Chained" + body);
  EXPECT_EQ(day(LIST_EVENTS), review);
}

TEST(ListingOrder, StartThenKindThenTextThenId) {
  auto make = [](int32_t start, uint16_t kind, const char *title, int32_t id) {
    Item *item = evnew();
    item->timeValue.start.time = start, item->dWord = kind, item->randomId = id;
    evsetTitle(item, title);
    return item;
  };
  Item *rows[] = {make(10, 2, "a", 1), make(10, 1, "z", 9), make(5, 3, "m", 0),
                  make(10, 1, "b", 2), make(10, 1, "b", 1)};
  std::vector<Item *> items(std::begin(rows), std::end(rows));
  std::stable_sort(items.begin(), items.end(), listingBefore);
  std::string order;
  for (Item *item : items) order += std::string(item->title) + std::to_string(item->randomId) + " ";
  EXPECT_EQ(order, "m0 b1 b2 z9 a1 ");
  for (Item *item : rows) evfree(item);
}

TEST(TodoTests, DueFromItsStartUntilTheDayItIsDone) {
  const int32_t day = 1000000, next = day + 86400;
  struct Row { int32_t start, done; bool due, doneToday; } rows[] = {
      {day + 10, NO_TIME, true, false},        // starts today
      {day - 86400, NO_TIME, true, false},     // overdue, not done
      {day - 86400, day + 50, true, true},     // overdue, done today
      {day - 86400, day - 1, false, false},    // done before today
      {day - 86400, next + 5, true, false},    // done on a later day: still due today
      {next, NO_TIME, false, false},           // starts tomorrow
      {NO_TIME, NO_TIME, false, false},        // no start
      {day + 10, day + 20, true, true},
  };
  for (const Row &r : rows) {
    Item *item = evnew();
    item->dWord = KIND_TODO, item->timeValue.start.time = r.start;
    markDone(item, 7, day + 1);  // another calendar's mark never counts
    if (r.done != NO_TIME) markDone(item, 3, r.done);
    EXPECT_EQ(todoDueOn(item, 3, day, next), r.due) << r.start << " " << r.done;
    EXPECT_EQ(todoDoneOn(item, 3, day, next), r.doneToday) << r.start << " " << r.done;
    evfree(item);
  }
}

TEST(CatFormat, TakesOnlyStringAndNumberConversions) {
  EXPECT_EQ(catFormat("#For %s", {"March 2"}), "#For March 2");
  EXPECT_EQ(catFormat("%d %s, %d", {2, "March", 2026}), "2 March, 2026");
  EXPECT_EQ(catFormat("%s %d%% %x %n", {"a", 5}), "a 5% %x %n");
  EXPECT_EQ(catFormat("%s %s %d", {"only"}), "only  ");
  EXPECT_EQ(catFormat("trailing %", {}), "trailing %");
}

TEST_F(ListingTest, RecordFileIsTheSourceAndTheOwnCalendarTheFallback) {
  setDayItemsLoader(nullptr);
  db->dir = dir.at("root/db/database");  // by its full path, so that its stamp is found
  writeFile(dir.at("root/db/database/events/ann"),
            "\n#T\tFrom the file\n#B\t0x69a55190 @0x0 %0x0\n#F\t0x69a55fa0 @0x0 %0x0\n#W\tann\n\n"
            "#T\tAnother day\n#B\t0x69a6a310 @0x0 %0x0\n#F\t0x69a6b120 @0x0 %0x0\n#W\tann\n\n");
  const std::string want = MAR2 + "03/02 (Monday):\t09:00am-10:00am\tFrom the file\n";
  EXPECT_EQ(day(LIST_EVENTS), want);
  EXPECT_EQ(listing(bob, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS), want)
      << "bob has no file: ann's is read";
  setOwnCalendar(bob);
  EXPECT_EQ(listing(bob, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS), MAR2);
}

TEST_F(ListingTest, PrintHandsTheFormatterItsOptionsAndThePeriodsListing) {
  add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0));
  add(KIND_REMINDER, "Buy milk", utc(3, 4, 7, 0));
  const std::string size = "-Xi|7.50|-Xh|10.00|-Xx|0.50|-Xy|0.50|-Xs|7|-Xc|1|-Xr|1|";
  EXPECT_EQ(print(LIST_DAY, LIST_EVENTS | LIST_TODOS, 2), "");
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined, "-Xd|2|3|2026|-XE|-XT|-p|-C|March 2, 2026 - 02:05 pm|-f|DATA|-N|ann|" + size);
  EXPECT_EQ(mode, "666");
  EXPECT_EQ(data, listing(ann, Y, MAR, D2, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS) +
                      listing(ann, Y, MAR, D2 + 1, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS));
  EXPECT_TRUE(has(data, "year 2026\n\n03/02 (Monday):\t09:30am-10:00am\tStandup\n")) << data;
  // A week in centimetres; its data holds all three sections.
  print(LIST_WEEK, LIST_REMINDERS | LIST_METRIC);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined, "-Xw|2|3|2026|-XE|-XR|-l|-C|March 2, 2026 - 02:05 pm|-f|DATA|-N|ann|"
                    "-Xi|2.95|-Xh|3.94|-Xx|0.20|-Xy|0.20|-Xs|7|-Xc|1|-Xr|1|");
  EXPECT_EQ(data, listing(ann, Y, MAR, D2, 1, LIST_WEEK, 7));
  EXPECT_TRUE(has(data, "Standup") && has(data, "03/04\tReminders:\tBuy milk\n")) << data;
  // A month with the client switches; no -XE without the events flag.
  setListingSwitches({.dayFirst = true, .hours24 = true, .formatterZ = true});
  print(LIST_MONTH, LIST_DONE_TODOS);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined, "-Xm|3|2026|-XT|-l|-C|2 March, 2026 - 14:05|-f|DATA|-N|ann|" + size + "-XZ|");
  setListingSwitches({});
  print(LIST_MONTH, LIST_EVENTS | LIST_REMINDERS);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined.substr(0, 22), "-Xm|3|2026|-XE|-XR|-l|");
  EXPECT_EQ(data, listing(ann, Y, MAR, 0, 1, LIST_MONTH, LIST_EVENTS | LIST_REMINDERS));
  // The command itself, byte for byte: the option string sits inside the period's part.
  EXPECT_EQ(formatterCommand(ann, Y, MAR, D2, LIST_DAY, LIST_EVENTS | LIST_TODOS, "/tmp/x",
                             utc(3, 2, 14, 5)),
            dir.at("root") + "/./linux/bin/pcal -Xd 2 3 2026  -XE -XT -p -C \"March 2, 2026 - "
                             "02:05 pm\" -f /tmp/x -N \"ann\" -Xi 7.50 -Xh 10.00 -Xx 0.50 "
                             "-Xy 0.50 -Xs 7 -Xc 1 -Xr 1");
}

TEST_F(ListingTest, PrintFailuresCountsNamesAndTheListCalendarRoads) {
  const std::string failed = "Unable to output the postscript file at this time.\n";
  setenv("QV_PCAL_EXIT", "3", 1);
  EXPECT_EQ(print(LIST_DAY, LIST_EVENTS), failed);
  ASSERT_TRUE(ran());
  // With SIGCHLD ignored the status cannot be collected: ECHILD is not a failure.
  signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(print(LIST_DAY, LIST_EVENTS), "");
  signal(SIGCHLD, SIG_DFL);
  ASSERT_TRUE(ran());
  unsetenv("QV_PCAL_EXIT");
  // A command past its 500 bytes is not run; a count of 0 prints nothing.
  int longName = addCalendarName(nullptr, std::string(400, 'n').c_str(), "l", "", "");
  EXPECT_EQ(print(LIST_DAY, LIST_EVENTS, 1, longName), failed);
  EXPECT_FALSE(ran());
  print(LIST_DAY, LIST_EVENTS, 0);
  EXPECT_FALSE(ran());
  int odd = addCalendarName(nullptr, "a \"b\" $HOME `x` \\", "o", "", "");
  print(LIST_DAY, LIST_EVENTS, 1, odd);
  ASSERT_TRUE(ran());
  EXPECT_TRUE(has(joined, "|DATA|-N|a \"b\" $HOME `x` \\|-Xi|")) << joined;
  // ListCalendar lists from the client date to standard output, or prints one period for
  // a count below 1; the client date is today until a client sets it.
  add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0));
  setClientDate(Y, MAR, D2);
  ::testing::internal::CaptureStdout();
  ListCalendar(ann, LIST_DAY | LIST_EVENTS, 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            MAR2 + "03/02 (Monday):\t09:30am-10:00am\tStandup\n");
  EXPECT_FALSE(ran());
  setClientDate(Y, 11, 30);
  ListCalendar(ann, LIST_PRINT | LIST_WEEK | LIST_EVENTS, -3);
  ASSERT_TRUE(ran());
  EXPECT_EQ(joined.substr(0, 15), "-Xw|31|12|2026|");
  EXPECT_EQ(std::count(data.begin(), data.end(), '#'), 1);
  resetListing();
  setClockHook([] { return time_t(utc(3, 2, 18, 0)); });
  int y, m, d;
  clientDate(&y, &m, &d);
  EXPECT_TRUE(y == Y && m == MAR && d == D2);
  // A missing formatter is a failure of the shell.
  std::filesystem::remove(dir.at("root/linux/bin/pcal"));
  EXPECT_TRUE(has(print(LIST_DAY, LIST_EVENTS), failed));
}

}  // namespace
}  // namespace quorvel
