// mailtext.cpp -- the texts of a mail notice: the time text, the "mailmsg" templates and
// their placeholders.
#include "core/notice/mailtext.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace quorvel {

/* ---- Time and date ---------------------------------------------------------------------- */

static struct tm localStart(int32_t startTime) {
  time_t t = startTime;
  struct tm tm {};
  if (!localtime_r(&t, &tm)) tm = {};
  return tm;
}

std::string mailTimeText(int32_t startTime, bool clock24) {
  struct tm tm = localStart(startTime);
  char text[32];
  if (clock24)
    snprintf(text, sizeof text, "%02d:%02d, ", tm.tm_hour, tm.tm_min);
  else if (tm.tm_hour < 12)
    snprintf(text, sizeof text, "%02d:%02d am, ", tm.tm_hour, tm.tm_min);
  else  // 12:xx stays 12 (pm); 00:xx stays 00 (am): the hour never reads 12 am
    snprintf(text, sizeof text, "%02d:%02d pm, ",
             tm.tm_hour > 12 ? tm.tm_hour - 12 : tm.tm_hour, tm.tm_min);
  return text;
}

std::string mailDateText(int32_t startTime) {
  struct tm tm = localStart(startTime);
  char text[64];
  size_t n = strftime(text, sizeof text, "%B %d, %Y", &tm);
  return std::string(text, n);
}

/* ---- Template names ----------------------------------------------------------------------- */

static const char *const templateNames[3][3][2] = {
    {{"NewEventSubject", "NewEventBody"},
     {"ModifyEventSubject", "ModifyEventBody"},
     {"DeleteEventSubject", "DeleteEventBody"}},
    {{"NewTodoSubject", "NewTodoBody"},
     {"ModTodoSubject", "ModTodoBody"},
     {"DelTodoSubject", "DelTodoBody"}},
    {{"NewMemoSubject", "NewMemoBody"},
     {"ModMemoSubject", "ModMemoBody"},
     {"DelMemoSubject", "DelMemoBody"}},
};

const char *mailTemplateName(int kind, int operation, int body) {
  if (kind < 0 || kind > 2 || operation < 1 || operation > 3) return nullptr;
  return templateNames[kind][operation - 1][body ? 1 : 0];
}

int mailKindOf(uint16_t dWord) {
  // dWord is the item's kind: 2 a to-do, 3 a reminder (the memo templates); every other
  // value, 1 included, is told as an event.
  return dWord == 2 ? 1 : dWord == 3 ? 2 : 0;
}

/* ---- Reading the templates ----------------------------------------------------------------- */

// The name of a line "Name: text" and where its text starts; false when the line starts
// no template (a comment, a blank line, a continuation or a line without ":").
static bool templateStart(const std::string &line, std::string *name, size_t *textAt) {
  if (line.empty() || line[0] == '#' || line[0] == '!' || line[0] == ' ' || line[0] == '\t')
    return false;
  size_t colon = line.find(':');
  if (colon == std::string::npos) return false;
  *name = line.substr(0, colon);
  size_t at = colon + 1;
  while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) at++;
  *textAt = at;
  return true;
}

bool readMailTemplate(const char *path, const char *name, std::string *text) {
  FILE *f = fopen(path, "r");
  if (!f) return false;
  std::string found, line;
  bool inWanted = false, any = false;
  int c;
  do {  // lines of any length; the last one may lack its newline
    c = fgetc(f);
    if (c != '\n' && c != EOF) {
      line += static_cast<char>(c);
      continue;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::string lineName;
    size_t at = 0;
    if (templateStart(line, &lineName, &at)) {
      inWanted = strcasecmp(lineName.c_str(), name) == 0;
      if (inWanted) found = line.substr(at), any = true;
    } else if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) {
      if (inWanted) found += "\n" + line.substr(1);
    } else if (line.empty() || line[0] == '#' || line[0] == '!') {
      // comments and blank lines neither start nor end a template
    } else {
      inWanted = false;  // a stray line without ":" ends the template before it
    }
    line.clear();
  } while (c != EOF);
  fclose(f);
  if (!any || found.empty()) return false;
  *text = found;
  return true;
}

/* ---- Placeholders --------------------------------------------------------------------------- */

std::string expandPlaceholders(const std::string &text, const MailFields &fields) {
  const std::pair<const char *, const std::string *> known[] = {
      {"${title}", &fields.title},         {"${time}", &fields.time},
      {"${date}", &fields.date},           {"${description}", &fields.description},
      {"${sender}", &fields.sender},
  };
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    bool matched = false;
    if (text[i] == '$')
      for (const auto &[key, value] : known)
        if (text.compare(i, strlen(key), key) == 0) {
          out += *value, i += strlen(key), matched = true;
          break;
        }
    if (!matched) out += text[i++];
  }
  return out;
}

}  // namespace quorvel
