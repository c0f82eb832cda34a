// page.cpp -- the gateway's own output: the message table (English from the caller,
// German from here), the HTML error page and its frame, and the unbuffered writer every
// byte for standard output goes through.
#include "gateway/gateway.h"

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

void printPageHead() {
  const char *icons = iconRoot ? iconRoot : "/icons";
  // Two blank lines behind the header line, as the product has always sent.
  std::string head = "Content-type: text/html\n\n\n";
  head += "<html>\n<head>\n<title>Web Quorvel</title>\n</head>\n<body background=\"";
  head += icons;
  head += "/bg4.gif\">\n";
  writeStdout(head.c_str());
}

void printPageTail() { writeStdout("</body>\n</html>\n"); }

void errorPage(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string message = formatText(format, ap);
  va_end(ap);

  printPageHead();
  std::string body = "<br><br><br><br><br><br><br><br>";
  body += "<center><table border=1 bgcolor=white><tr><td>";
  body += "<h3>";
  body += localMsg(5, "An error occurred processing your request:");
  body += "</h3>\n<h4>";
  body += message;
  body += "</h4>\n";
  if (loginUrl && iconRoot) {
    body += "<center>\n<a href=\"";
    body += loginUrl;
    body += "\">\n<IMG src=\"";
    body += iconRoot;
    body += "/blogin.gif\" border=0></a>\n</center>\n";
  }
  body += "</td></tr></table></center>\n";
  writeStdout(body.c_str());
  printPageTail();
}

void invalidArgument() {
  errorPage("%s", localMsg(6, "webQuorvel: invalid argument"));
  exitProcess(0);
}

void resetPage() { setPageValues(nullptr, nullptr, nullptr); }

}  // namespace quorvel::gateway
