// sample_calendar.cpp -- writes a small calendar database for the demo, the tests and the
// benchmark: four calendars, a month of items, permissions, holidays and class looks.
//
//   sample_calendar ROOT YEAR MONTH [BULK]
//
// ROOT/db/users        ann, bob, carol and office (a shared calendar), and big when BULK
// ROOT/db/database/    dat.perm (carol may read ann's calendar; everyone may read
//                      office's), holidays (the 11th, a day off; the 26th, a working
//                      day), refclassdef (the looks of events, to-dos, reminders,
//                      holidays and private items), locks/, and events/<calendar>
// ann's items: meetings shared with office (readable by everyone), a doctor's visit,
// a to-do and a reminder of her own (private to all but ann and carol), and a title
// with markup characters. bob has a few items of his own. With BULK, calendar big gets
// BULK events spread evenly over the month.
// Times are local (mktime), as the agent lists them. Exits 0, or 1 naming the failure.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

int year, month;  // the month written (month 1..12)

// Local time of the day of the month at hour:minute.
long at(int day, int hour, int minute) {
  struct tm tm{};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day;
  tm.tm_hour = hour, tm.tm_min = minute, tm.tm_isdst = -1;
  return static_cast<long>(mktime(&tm));
}

std::string stamp(long t) {
  char text[40];
  snprintf(text, sizeof text, "0x%lx @0x0 %%0x0", static_cast<unsigned long>(t) & 0xffffffffUL);
  return text;
}

// One record: kind letter (T event, D to-do, M reminder), title, times, calendars.
std::string item(char kind, const std::string &title, long start, long end, const char *calendars) {
  return std::string("#") + kind + "\t" + title + "\n#B\t" + stamp(start) + "\n#F\t" + stamp(end) +
         "\n#W\t" + calendars + "\n\n";
}

bool put(const std::string &path, const std::string &text) {
  FILE *f = fopen(path.c_str(), "w");
  bool ok = f != nullptr && fwrite(text.data(), 1, text.size(), f) == text.size();
  if (f != nullptr && fclose(f) != 0) ok = false;
  if (!ok) fprintf(stderr, "sample_calendar: cannot write %s: %s\n", path.c_str(), strerror(errno));
  return ok;
}

std::string annItems() {
  std::string text = "\n";
  for (int day = 2; day <= 28; day += 7) {
    text += item('T', "Team meeting", at(day, 9, 30), at(day, 10, 30), "ann,office");
    text += item('T', "Planning review", at(day + 2, 14, 0), at(day + 2, 15, 0), "ann,office");
  }
  text += item('T', "Doctor's appointment", at(5, 11, 0), at(5, 12, 0), "ann");
  text += item('T', "Lunch with <Bob> & \"Carol\"", at(12, 12, 30), at(12, 13, 30), "ann,office");
  text += item('D', "Send the quarterly report", at(10, 9, 0), at(10, 9, 0), "ann");
  text += item('M', "Renew passport", at(18, 8, 0), at(18, 8, 0), "ann");
  return text;
}

std::string bobItems() {
  return "\n" + item('T', "Dentist", at(3, 8, 0), at(3, 9, 0), "bob") +
         item('T', "Team meeting", at(9, 9, 30), at(9, 10, 30), "bob,office");
}

// count events spread over the month, a few an hour from 07:00.
std::string bulkItems(long count, int days) {
  std::string text = "\n";
  for (long i = 0; i < count; i++) {
    int day = int(i % days) + 1, slot = int(i / days);
    long start = at(day, 7 + slot / 30 % 14, slot * 2 % 60);
    text += item('T', "Booking " + std::to_string(i + 1) + " for the review", start, start + 1200, "big");
  }
  return text;
}

const char CLASSES[] =
    "\nevent*color:\t#1f4e8c\nevent*family:\thelvetica\nevent*pointSize:\t10\nevent*purpose:\tAppointments\n"
    "\ntodo*color:\t#2e7d32\ntodo*pointSize:\t10\ntodo*purpose:\tThings to do\n"
    "\nreminder*color:\t#8e24aa\nreminder*pointSize:\t10\nreminder*purpose:\tReminders\n"
    "\nholiday*color:\t#b71c1c\nholiday*purpose:\tHolidays\n"
    "\nprivate*color:\t#777777\nprivate*purpose:\tNot yours to read\n";

}  // namespace

int main(int argc, char **argv) {
  if (argc < 4 || argc > 5) {
    fprintf(stderr, "usage: sample_calendar ROOT YEAR MONTH [BULK]\n");
    return 2;
  }
  std::string root = argv[1];
  year = atoi(argv[2]), month = atoi(argv[3]);
  long bulk = argc == 5 ? atol(argv[4]) : 0;
  if (year < 1971 || year > 2037 || month < 1 || month > 12 || bulk < 0) {
    fprintf(stderr, "sample_calendar: YEAR 1971..2037, MONTH 1..12, BULK 0 or more\n");
    return 2;
  }
  for (const char *dir : {"", "/db", "/db/database", "/db/database/locks", "/db/database/events"})
    if (mkdir((root + dir).c_str(), 0755) != 0 && errno != EEXIST)
      return fprintf(stderr, "sample_calendar: cannot make %s%s: %s\n", root.c_str(), dir, strerror(errno)), 1;
  char holidays[256], date[2][16];
  struct tm last{};  // day 0 of the next month: the month's last day
  last.tm_year = year - 1900, last.tm_mon = month, last.tm_hour = 12, last.tm_isdst = -1;
  mktime(&last);
  int days = last.tm_mday;
  for (int i = 0; i < 2; i++) snprintf(date[i], sizeof date[i], "%d/%d/%d", month, i == 0 ? 11 : 26, year);
  snprintf(holidays, sizeof holidays, "Founders' Day*nonworkday:\t%s - %s\nLantern Festival*workday:\t%s - %s\n",
           date[0], date[0], date[1], date[1]);
  std::string users = "ann,ann,ann@example.org,Ann Archer\nbob,bob,bob@example.org,Bob Baker\n"
                      "carol,carol,carol@example.org,Carol Chen\noffice,office,,Office\n";
  if (bulk > 0) users += "big,big,,Busy Bee\n";
  const std::string db = root + "/db/database";
  bool ok = put(root + "/db/users", users) &&
            put(db + "/dat.perm", "\n#O\tann\n#R\tcarol\n\n#O\toffice\n#R\t__ALL__\n") &&
            put(db + "/holidays", holidays) && put(db + "/refclassdef", CLASSES) &&
            put(db + "/events/ann", annItems()) && put(db + "/events/bob", bobItems()) &&
            (bulk == 0 || put(db + "/events/big", bulkItems(bulk, days)));
  return ok ? 0 : 1;
}
