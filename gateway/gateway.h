// gateway.h -- the webquorvel request cycle: query, error page, reply files.
//
// A web server starts webquorvel once per request. The query comes from QUERY_STRING
// (or one line of standard input when that is empty or unset); its values are found by
// loose key matching ("log=" anywhere in the query matches, xlog= included) and
// URL-decoded. The agent's host comes from "dn" (or "hn" when "dn" is absent), decoded a
// second time, with an optional ":<digits>" port offset. The agent's reply pairs with a
// name are written below "../htdocs/"; the pair with the empty name is the page, copied
// to standard output last. Failures before the reply is in hand end in an HTML error
// page, English or (with lan=De) German, and exit status 255.
//
// Results: 0 success; the cycle's own status 255 after an error page. Query values live
// in static areas of 1024 bytes; longer values are truncated to 1023 bytes.
#pragma once

#include <cstddef>
#include <string>

namespace quorvel::gateway {

/* ---- Query ----------------------------------------------------------------------- */

inline constexpr size_t QUERY_VALUE_AREA = 1024;  // each static value area

// Sets the put flag when an argument after the program name is exactly "-put". Nothing
// reads the flag: the option is accepted and has no effect.
void scanPutOption(int argc, char **argv);

// Reads one line of the query from standard input (or fd) in chunks of 16384 bytes; a
// line end closing a chunk is replaced by NUL. Returns a new allocMem'd text.
char *readQueryFromStdin();
char *readQueryFromFd(int fd);

// The decoded value of a three-letter (getQueryValue) or two-letter key, or null. The
// result lies in a static area overwritten by the next call of the same kind.
const char *getQueryValue(const char *query, const char *key3);
const char *getShortQueryValue(const char *query, const char *key2);

// The agent host (a new allocMem'd text) from "dn" or else "hn", or null; *port is the
// port offset given behind a ':' (0 when none).
char *getAgentHost(const char *query, int *port);
// Copies text into hostOut (hostSize bytes, truncating), URL-decodes it, and splits off
// ":<digit>..." as the port offset.
void splitHostPort(const char *text, char *hostOut, size_t hostSize, int *port);
// Decodes %XX escapes in place; a decoded NUL is dropped and '+' stays '+'.
void urlDecode(char *text);

/* ---- Page and messages ------------------------------------------------------------ */

// The process-wide values the error page and the message choice read; each is null
// when its key is missing. The setters take copies.
void setPageValues(const char *loginUrl, const char *iconRoot, const char *pageLanguage);

// The English text, or the German text of that index when the language is exactly "De".
const char *localMsg(int index, const char *englishText);

// Writes text's bytes to file descriptor 1, unbuffered.
void writeStdout(const char *text);
// Prints the whole error page with the formatted message; returns to the caller.
void errorPage(const char *format, ...) __attribute__((format(printf, 1, 2)));
// The whole error page (header, frame, heading, message, button) as one text.
std::string errorPageText(const char *message);
void printPageHead();
void printPageTail();
// Prints the error page with message 6 and exits with status 0 (the cycle never calls it).
[[noreturn]] void invalidArgument();

/* ---- Reply files -------------------------------------------------------------------- */

// Writes contents (up to their first NUL) to "../htdocs/<name>": created, or rewritten
// in place when it exists. When it cannot be opened, message 8 with the path goes to
// standard output and the caller carries on.
void writeHtdocsFile(const char *name, const char *contents);
// Empties "../htdocs/tmp/" with "/bin/rm -rf ../htdocs/tmp/*".
void clearTmpDir();

/* ---- The cycle ------------------------------------------------------------------------ */

// One whole request; returns the process's exit status (0, or 255 after an error page).
int runRequest(int argc, char **argv);

// Forget the page values and the put flag (tests).
void resetGateway();

}  // namespace quorvel::gateway
