// page.cpp -- the gateway's own output: the message table (English from the caller,
// German from here), the HTML error page and its frame, and the unbuffered writer every
// byte for standard output goes through.
#include "gateway/gateway.h"
#include "gateway/hardening.h"

#include "core/base/base.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace quorvel::gateway {

// Process-wide page values: set once by the request cycle from "log", "rpt" and "lan",
// read by errorPage and localMsg. Null when the key was missing.
static char *loginUrl;
static char *iconRoot;
static char *language;

// The German texts by message index, as ISO 8859-1 bytes. Index 7 has no English caller
// and is never shown, but keeps its place so the indexes stay the system's own.
static const char *const germanText[] = {
    "makeConnection: setsockopt: %d",
    "Hostname in Abfrage %s nicht gefunden",
    "Verbindung mit Quorvel-Webagent auf Host %s nicht m\xF6glich",
    "Fehler beim Schreiben zum Quorvel-Webagent auf Host %s",
    "Fehler beim Lesen vom Quorvel-Webagent auf Host %s",
    "Fehler bei der Verarbeitung Ihrer Anforderung:",
    "webQuorvel: ung\xFCltiges Argument",
    "%s erfolgreich ge\xF6" "ffnet",
    "%s konnte nicht ge\xF6" "ffnet werden",
};

static char *copyText(const char *text) {
  if (!text) return nullptr;
  size_t n = strlen(text);
  char *copy = static_cast<char *>(allocMem(nullptr, n + 1));
  if (!copy) outOfMem("setPageValues");
  memcpy(copy, text, n + 1);
  return copy;
}

void setPageValues(const char *login, const char *icons, const char *lang) {
  freeMem(loginUrl);
  freeMem(iconRoot);
  freeMem(language);
  loginUrl = copyText(login);
  iconRoot = copyText(icons);
  language = copyText(lang);
}

const char *localMsg(int index, const char *englishText) {
  // Only the exact "De" selects German; "de", "DE" and "En_US" all stay English.
  if (!language || strcmp(language, "De") != 0) return englishText;
  if (index < 0 || index >= static_cast<int>(sizeof germanText / sizeof germanText[0]))
    return englishText;
  return germanText[index];
}

void writeStdout(const char *text) {
  size_t left = strlen(text);
  // One write in the normal case; a short write (a full pipe interrupted by a signal)
  // is continued so that nothing of the page is lost.
  while (left > 0) {
    ssize_t n = write(1, text, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    left -= static_cast<size_t>(n);
  }
}

static std::string formatText(const char *format, va_list ap) {
  va_list again;
  va_copy(again, ap);
  int n = vsnprintf(nullptr, 0, format, ap);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<size_t>(n) + 1);
    vsnprintf(out.data(), out.size(), format, again);
    out.resize(static_cast<size_t>(n));
  }
  va_end(again);
  return out;
}

// In hardened mode every value from outside (the message carries the host or the
// query) is shown HTML-escaped; by default exactly as given, as the product always did.
static std::string shown(const char *text) {
  return hardening().on ? htmlEscape(text) : std::string(text);
}

static std::string pageHead() {
  // Two blank lines behind the header line, as the product has always sent.
  std::string head = "Content-type: text/html\n\n\n";
  head += "<html>\n<head>\n<title>Web Quorvel</title>\n</head>\n<body background=\"";
  head += iconRoot ? shown(iconRoot) : "/icons";
  head += "/bg4.gif\">\n";
  return head;
}

static const char PAGE_TAIL[] = "</body>\n</html>\n";

void printPageHead() { writeStdout(pageHead().c_str()); }

void printPageTail() { writeStdout(PAGE_TAIL); }

std::string errorPageText(const char *message) {
  std::string page = pageHead();
  page += "<br><br><br><br><br><br><br><br>";
  page += "<center><table border=1 bgcolor=white><tr><td>";
  page += "<h3>";
  page += localMsg(5, "An error occurred processing your request:");
  page += "</h3>\n<h4>";
  page += shown(message);
  page += "</h4>\n";
  if (loginUrl && iconRoot) {
    page += "<center>\n<a href=\"";
    page += shown(loginUrl);
    page += "\">\n<IMG src=\"";
    page += shown(iconRoot);
    page += "/blogin.gif\" border=0></a>\n</center>\n";
  }
  page += "</td></tr></table></center>\n";
  return page + PAGE_TAIL;
}

void errorPage(const char *format, ...) {
  disarmDeadline();  // one page only: the deadline's page must not follow this one
  va_list ap;
  va_start(ap, format);
  std::string message = formatText(format, ap);
  va_end(ap);
  writeStdout(errorPageText(message.c_str()).c_str());
}

void invalidArgument() {
  errorPage("%s", localMsg(6, "webQuorvel: invalid argument"));
  exitProcess(0);
}

void resetPage() { setPageValues(nullptr, nullptr, nullptr); }

}  // namespace quorvel::gateway
