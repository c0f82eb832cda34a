// listing_test.cpp -- day, week and month listings: frames, year lines, every time form,
// private and done items, popup notes, the day order, the to-do tests and the record
// file as the source of a day's items.
#include "core/print/print_test_util.h"

namespace quorvel {
namespace {

// Monday 2 March 2026 as the client holds it.
constexpr int Y = 126, MAR = 2, D2 = 1;

struct DayListing : ListingTest {
  void SetUp() override {
    ListingTest::SetUp();
    add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0), {ann});
    add(KIND_EVENT, "Night shift", utc(3, 1, 22, 0), utc(3, 3, 6, 0), {ann});  // round the whole day
    add(KIND_EVENT, "Lunch", utc(3, 2, 12, 0), utc(3, 2, 13, 15), {ann});
    add(KIND_EVENT, "Secret", utc(3, 2, 15, 0), utc(3, 2, 16, 0), {bob});   // not ann's to read
    setbit(&add(KIND_EVENT, "Declined", utc(3, 2, 8, 0), utc(3, 2, 9, 0), {ann})->setX, ann, 1);
    add(KIND_TODO, "File taxes", utc(3, 2, 8, 0), utc(3, 2, 8, 0), {ann});
    markDone(add(KIND_TODO, "Call mum", utc(2, 27, 9, 0), utc(2, 27, 9, 0), {ann}), ann, utc(3, 2, 10, 0));
    markDone(add(KIND_TODO, "Old", utc(2, 20, 9, 0), utc(2, 20, 9, 0), {ann}), ann, utc(2, 25, 10, 0));
    add(KIND_TODO, "Bob's to-do", utc(3, 2, 9, 0), utc(3, 2, 9, 0), {bob});  // unreadable: left out
    add(KIND_REMINDER, "Buy milk", utc(3, 2, 7, 0), utc(3, 2, 7, 0), {ann});
  }
};

TEST_F(DayListing, AmPmFormWithoutYearLines) {
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS | LIST_TODOS | LIST_REMINDERS),
            "\n\t\t#For March 2, 2026\n\n"
            "03/02 (Monday):\t12:00am-12:00am\tNight shift\n"
            "\t\t09:30am-10:00am\tStandup\n"
            "\t\t12:00pm-01:15pm\tLunch\n"
            "\t\t03:00pm-04:00pm\t(private)\n"
            "ToDos:\t\tCall mum (done)\n"
            "\t\tFile taxes\n"
            "Reminders:\tBuy milk\n");
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, 0), listing(ann, Y, MAR, D2, 0, LIST_DAY, 7))
      << "flags 0 list all three sections of a day";
}

TEST_F(DayListing, TwentyFourHourFormWithYearLines) {
  setListingSwitches({.dayFirst = true, .hours24 = true});
  EXPECT_EQ(listing(ann, Y, MAR, D2, 1, LIST_DAY, LIST_EVENTS | LIST_TODOS | LIST_REMINDERS),
            "\n\t\t#For 2 March, 2026\n\nyear 2026\n\n"
            "03/02 (Monday):\t 24:00 - 00:00 \tNight shift\n"
            "03/02 (Monday):\t 09:30 - 10:00 \tStandup\n"
            "03/02 (Monday):\t 12:00 - 13:15 \tLunch\n"
            "03/02 (Monday):\t 15:00 - 16:00 \t(private)\n"
            "03/02\tToDos:\t\tCall mum (done)\n"
            "03/02\tToDos:\t\tFile taxes\n"
            "03/02\tReminders:\tBuy milk\n");
}

TEST_F(DayListing, DoneFormAndSectionsOnTheirOwn) {
  // The done form lists the to-dos done that day; the day's label opens the first line.
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_DONE_TODOS | LIST_REMINDERS),
            "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\nToDos:\t\tCall mum (done)\nReminders:\tBuy milk\n");
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_TODOS | LIST_DONE_TODOS),
            "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\nToDos:\t\tCall mum (done)\n\t\tFile taxes\n")
      << "the plain to-do section wins over the done form";
  // A reader of bob's calendar sees his event and his to-do by their texts.
  AddToDat(db, bob);
  ASSERT_EQ(SetDatPerm(db, bob, 'R', ann, 1), 0);
  std::string seen = listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS | LIST_TODOS);
  EXPECT_NE(seen.find("\t\t03:00pm-04:00pm\tSecret\n"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\t\tBob's to-do\n"), std::string::npos) << seen;
}

TEST_F(ListingTest, ClockEdgesInBothForms) {
  add(KIND_EVENT, "Midnight", utc(3, 2, 0, 0), utc(3, 2, 0, 5), {ann});
  add(KIND_EVENT, "Noon", utc(3, 2, 12, 0), utc(3, 2, 12, 59), {ann});
  add(KIND_EVENT, "Evening", utc(3, 2, 23, 5), utc(3, 3, 0, 0), {ann});
  add(KIND_EVENT, "Same", utc(3, 2, 11, 59), utc(3, 2, 11, 59), {ann});
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS),
            "\n\t\t#For March 2, 2026\n\n"
            "03/02 (Monday):\t12:00am-12:05am\tMidnight\n"
            "\t\t11:59am-11:59am\tSame\n"
            "\t\t12:00pm-12:59pm\tNoon\n"
            "\t\t11:05pm-12:00am\tEvening\n");
  setListingSwitches({.hours24 = true});
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS),
            "\n\t\t#For March 2, 2026\n\n"
            "03/02 (Monday):\t 00:00 - 00:05 \tMidnight\n"
            "\t\t 11:59 - 11:59 \tSame\n"
            "\t\t 12:00 - 12:59 \tNoon\n"
            "\t\t 23:05 - 00:00 \tEvening\n");
}

TEST_F(ListingTest, WeekRepeatsTheYearLineAtTheTurnOfTheYear) {
  add(KIND_REMINDER, "Old year", utc(12, 31, 9, 0), utc(12, 31, 9, 0), {ann});
  add(KIND_REMINDER, "New year", utc(1, 2, 9, 0, 2027), utc(1, 2, 9, 0, 2027), {ann});
  add(KIND_EVENT, "Party", utc(12, 31, 20, 0), utc(12, 31, 23, 0), {ann});
  EXPECT_EQ(listing(ann, Y, 11, 29, 1, LIST_WEEK, LIST_REMINDERS),
            "\n\t\t#For the week of December 30, 2026\n\nyear 2026\n\n"
            "12/31\tReminders:\tOld year\n"
            "year 2027\n\n"
            "01/02\tReminders:\tNew year\n");
  EXPECT_EQ(listing(ann, Y, 11, 29, 0, LIST_WEEK, 0),
            "\n\t\t#For the week of December 30, 2026\n\n12/31 (Thursday):\t08:00pm-11:00pm\tParty\n")
      << "flags 0 list events only for a week, and no year lines without them";
  // Two weeks: the second starts seven days on, carried into the next year.
  std::string two = listing(ann, Y, 11, 29, 0, LIST_WEEK, LIST_EVENTS, 2);
  EXPECT_NE(two.find("\n\t\t#For the week of January 6, 2027\n\n"), std::string::npos) << two;
}

TEST_F(ListingTest, MonthListsEveryDayFromTheFirstAndAdvancesByMonths) {
  add(KIND_EVENT, "Valentine", utc(2, 14, 19, 0), utc(2, 14, 22, 0), {ann});
  add(KIND_EVENT, "March in", utc(3, 1, 10, 0), utc(3, 1, 11, 0), {ann});
  add(KIND_EVENT, "Leap check", utc(2, 28, 10, 0), utc(2, 28, 11, 0), {ann});
  EXPECT_EQ(listing(ann, Y, 1, 20, 0, LIST_MONTH, 0, 2),
            "\n\t\t#For February 2026\n\n"
            "02/14 (Saturday):\t07:00pm-10:00pm\tValentine\n"
            "02/28 (Saturday):\t10:00am-11:00am\tLeap check\n"
            "\n\t\t#For March 2026\n\n"
            "03/01 (Sunday):\t10:00am-11:00am\tMarch in\n");
  // Day 31 of November is carried into December, and December into January.
  EXPECT_EQ(listing(ann, Y, 10, 30, 1, LIST_MONTH, LIST_EVENTS, 2),
            "\n\t\t#For December 2026\n\nyear 2026\n\n\n\t\t#For January 2027\n\nyear 2027\n\n");
  EXPECT_EQ(listing(ann, Y, 0, 0, 0, 0x800, LIST_EVENTS), "") << "an unknown period writes nothing";
}

const char *bodyOf(const Item *, int index) { return index == 0 ? "Body of the first" : nullptr; }

TEST_F(ListingTest, DetailFlagWritesTheVisibleNotesOfTheItemAndItsChain) {
  Item *item = add(KIND_EVENT, "Review", utc(3, 2, 14, 0), utc(3, 2, 15, 0), {ann});
  addPopup(item)->title = strdup("Agenda");
  setbit(&addPopup(item)->setR, bob, 1);  // for bob only
  setbit(&addPopup(item)->setR, ann, 1);  // ann's, no title
  Item *copy = evnew();
  addPopup(copy)->title = strdup("Chained");
  chainAppend(item, copy);
  setPopupBodyHook(bodyOf);
  std::string day = listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS | LIST_DETAIL);
  EXPECT_EQ(day,
            "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\t02:00pm-03:00pm\tReview\n"
            "\n    Popup title: Agenda\n    Popup body: Body of the first\n:End of Body:\n"
            "\n    Popup title: \n    Popup body: \n:End of Body:\n"
            "\n    Popup title: Chained\n    Popup body: Body of the first\n:End of Body:\n");
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS),
            "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\t02:00pm-03:00pm\tReview\n");
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
    UserTime *other = addUserTime(item);  // another calendar's mark never counts
    other->user = 7, other->when = initDateTime(), other->when.time = day + 1;
    if (r.done != NO_TIME) {
      UserTime *mark = addUserTime(item);
      mark->user = 3, mark->when = initDateTime(), mark->when.time = r.done;
    }
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
  const std::string want = "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\t09:00am-10:00am\tFrom the file\n";
  EXPECT_EQ(listing(ann, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS), want);
  EXPECT_EQ(listing(bob, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS), want) << "bob has no file: ann's is read";
  setOwnCalendar(bob);
  EXPECT_EQ(listing(bob, Y, MAR, D2, 0, LIST_DAY, LIST_EVENTS), "\n\t\t#For March 2, 2026\n\n");
}

TEST_F(ListingTest, ListCalendarWritesFromTheClientDateToStandardOutput) {
  add(KIND_EVENT, "Standup", utc(3, 2, 9, 30), utc(3, 2, 10, 0), {ann});
  setClientDate(Y, MAR, D2);
  ::testing::internal::CaptureStdout();
  ListCalendar(ann, LIST_DAY | LIST_EVENTS, 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "\n\t\t#For March 2, 2026\n\n03/02 (Monday):\t09:30am-10:00am\tStandup\n");
  resetListing();
  setDayItemsLoader(memoryLoader);
  setClockHook([] { return time_t(utc(3, 2, 18, 0)); });
  int y, m, d;
  clientDate(&y, &m, &d);
  EXPECT_TRUE(y == Y && m == MAR && d == D2) << "today until a client sets the date";
  setClockHook(nullptr);
}

}  // namespace
}  // namespace quorvel
