// catalog.h -- the message catalogue: every user-visible text by set and number.
//
// The catalogue owns six language slots, loaded side by side by the first catopen, in
// the order 0 "En_US", 1 "De", 2 "Es", 3 "Fr", 4 "No", 5 "It". Slot i is read from
// "<root>/resources/<code>/<name>.msg", a plain-text file of lines:
//   $set <n>           starts set n (sets must rise by one from 1)
//   <m><sep><text>     the next message of the current set (m only has to be >= 1;
//                      messages are numbered by their order in the set)
//   anything else      ignored (comments, blank lines)
// A message whose line ends in a backslash continues: its first "\n" escape becomes a
// real newline that ends the line, and the following lines are joined the same way up
// to one that does not end in a backslash. Lookups choose the slot of the current
// language each time and cost the same whatever the set and message number.
// Nothing loaded is freed before resetCatalog (tests).
#pragma once

#include <string>

namespace quorvel {

/* ---- Opening and lookups ------------------------------------------------------ */

// Loads every language slot up to the first one already loaded (so a second call in a
// process loads nothing once slot 0 is in) and returns `name` itself as the handle.
const char *catopen(const char *name);

// The text of message `number` of set `set` in the current language, or `def` itself
// (never copied) when the handle is null, NOQUORVELCATGETS is exactly "TRUE", or the
// slot, set or message is missing. A set or number of 0 or less means the first one.
const char *catgets(const char *handle, int set, int number, const char *def);

// Always 0; catalogues stay loaded for the life of the process.
int catclose(const char *handle);

// The process-wide handle: a copy of the name given to the last catopen, null before.
const char *catHandle();

// catgets with the process-wide handle: what the core's reports use for their texts.
const char *catText(int set, int number, const char *def);

/* ---- Language ----------------------------------------------------------------- */

// Sets the current language code (a copy is kept; null makes it absent). An absent or
// unknown code reads slot 0. catgetlang returns the code, or null when absent.
void catsetlang(const char *code);
const char *catgetlang();

// The slot index of a language code as catgets chooses it (0 for absent or unknown).
int catLanguageIndex(const char *code);

/* ---- Paths -------------------------------------------------------------------- */

// Splits language_territory.codeset; outputs that are not wanted are passed null, parts
// that are missing come out empty. Only the rightmost "." and "_" past the first
// character count.
void splitLocale(const char *locale, std::string *language, std::string *territory,
                 std::string *codeset);

// Rewrites the template standing in `out`: "%L" becomes the locale, "%l" its language,
// "%N" ends the path with <name>.msg resolved against the installation root. A template
// without substitutions gets "/<locale>" appended; unless "%N" ended it, the path then
// gets "/" and the resolved <name>.msg appended.
void catpath(std::string &out, const char *locale, const char *name);

// A relative path resolved against the installation root ("<root>/<rel>"), or the
// path unchanged when it is absolute or the root is unknown.
std::string resolveRootPath(const std::string &rel);

/* ---- Tests -------------------------------------------------------------------- */

// Unloads every slot and forgets the language and the handle.
void resetCatalog();

}  // namespace quorvel
