// alarmtext.cpp -- the announcement text: "The event '<event>' is starting" and how soon,
// from catalogue set 2, messages 16 to 24.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/alarm/alarm.h"
#include "core/catalog/catalog.h"

namespace quorvel {

static std::string announcement;  // AlarmMessage's static text, overwritten at each call

// A catalogue text is printed with one number only when it holds exactly one "%d" and
// no other conversion; a translated text with anything else would read past the
// arguments, so the built-in default is used instead.
static bool takesOneNumber(const char *text) {
  int numbers = 0;
  for (const char *p = strchr(text, '%'); p != nullptr; p = strchr(p + 2, '%')) {
    if (p[1] == '%') continue;
    if (p[1] != 'd') return false;
    numbers++;
  }
  return numbers == 1;
}

static void addMessage(int number, const char *def) {
  announcement += catText(2, number, def);
}

static void addCounted(int number, const char *def, int count) {
  const char *text = catText(2, number, def);
  if (!takesOneNumber(text)) text = def;
  int n = snprintf(nullptr, 0, text, count);
  if (n <= 0) return;
  std::string line(size_t(n) + 1, '\0');
  snprintf(line.data(), line.size(), text, count);
  announcement.append(line.data(), size_t(n));
}

const char *AlarmMessage(const char *event, int minutes) {
  announcement.clear();
  addMessage(16, "The event '");
  announcement += event != nullptr ? event : "";
  addMessage(17, "' is starting");
  if (minutes < 1) {
    addMessage(18, " now");
  } else if (minutes <= 59) {
    if (minutes == 1) addMessage(19, " in 1 minute");
    else addCounted(20, " in %d minutes", minutes);
  } else {
    int hours = minutes / 60, rest = minutes % 60;
    if (hours == 1) addMessage(21, " in 1 hour");
    else addCounted(22, " in %d hours", hours);
    if (rest == 1) addMessage(23, " and 1 minute");
    else if (rest > 1) addCounted(24, " and %d minutes", rest);
  }
  announcement += ".";
  return announcement.c_str();
}

}  // namespace quorvel
