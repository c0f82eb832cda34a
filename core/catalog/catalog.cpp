// catalog.cpp -- loading the catalogue files into their language slots and the lookups.
//
// A slot's sets form a chain counted from 1; the loader keeps the chain's length and
// indexes the sets that hold messages (a vector for the usual numbers, a map past it),
// so a lookup is two index operations yet answers exactly what walking the chain would.
#include "core/catalog/catalog.h"

#include "core/base/base.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

namespace quorvel {

namespace {

constexpr int kSlots = 6;
constexpr int kLineMax = 1024;              // a line holds at most 1023 characters
constexpr int64_t kDenseSets = 1 << 16;     // sets below this index live in a vector
const char *const kCodes[kSlots] = {"En_US", "De", "Es", "Fr", "No", "It"};

struct FreeText {
  void operator()(char *p) const { freeMem(p); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

struct CatSet {
  std::vector<OwnedText> texts;  // message m is texts[m - 1]; each an owned copy
};

struct CatSlot {
  bool loaded = false;                          // the "loaded" mark: its file was opened
  int64_t length = 0;                           // set nodes in the chain
  std::vector<CatSet> dense;                    // sets at index < kDenseSets
  std::unordered_map<int64_t, CatSet> sparse;   // sets at index >= kDenseSets
};

// Process-wide catalogue state: loaded by catopen, read by catgets, emptied by
// resetCatalog. slotIndex is the slot being loaded, then the slot of the last lookup.
CatSlot slots[kSlots];
int slotIndex;
std::string language;   // current language; set by catsetlang
bool haveLanguage;      // whether a language is set at all
int languageSlot;       // catLanguageIndex of the current language, kept by catsetlang
std::string handleName; // copy of the last catopen name
bool opened;            // whether catopen ran
void *closeBlock;       // the block catclose frees; nothing ever sets it

/* ---- The set chain ------------------------------------------------------------ */

CatSet *findSet(CatSlot &s, int64_t idx) {
  if (idx < static_cast<int64_t>(s.dense.size())) return &s.dense[idx];
  if (idx < kDenseSets) return nullptr;
  auto it = s.sparse.find(idx);
  return it == s.sparse.end() ? nullptr : &it->second;
}

CatSet &makeSet(CatSlot &s, int64_t idx) {
  if (idx >= kDenseSets) return s.sparse[idx];
  if (idx >= static_cast<int64_t>(s.dense.size())) s.dense.resize(idx + 1);
  return s.dense[idx];
}

// The chain index that messages of set `set` go to, or -1 when walking the chain runs
// off its end. A set above the highest one seen appends nodes: one when it is the next,
// set - 1 - highest when it skips some, which leaves the last node one short of `set`
// (files that skip set numbers are malformed, and this is what they get).
int64_t setNodeFor(CatSlot &s, int64_t set, int64_t &highest) {
  int64_t k = set - 1;
  if (set <= highest) {
    int64_t idx = k < 0 ? 0 : k;
    return idx < s.length ? idx : -1;
  }
  s.length += set == highest + 1 ? 1 : k - highest;
  highest = set;
  return s.length - 1;
}

/* ---- Reading one file --------------------------------------------------------- */

// The decimal number of the digit run at `p` (saturating), and where the run ends.
int64_t leadingNumber(const char *p, const char **end) {
  int64_t v = 0;
  while (isdigit(static_cast<unsigned char>(*p))) {
    if (v < INT32_MAX) v = v * 10 + (*p - '0');
    p++;
  }
  if (v > INT32_MAX) v = INT32_MAX;
  *end = p;
  return v;
}

// Turns the first backslash-n escape of `text` into a newline that ends the text.
void endAtEscape(char *text) {
  char *esc = strstr(text, "\\n");
  if (esc) {
    esc[0] = '\n';
    esc[1] = '\0';
  }
}

bool endsInBackslash(const char *text) {
  size_t n = strlen(text);
  return n > 1 && text[n - 2] == '\\';
}

char *appendText(char *text, const char *more) {
  size_t a = strlen(text), b = strlen(more);
  text = static_cast<char *>(allocMem(text, a + b + 1));
  memcpy(text + a, more, b + 1);
  return text;
}

// Joins the continuation lines of a message read straight from the file.
char *readContinuation(char *text, FILE *f) {
  char line[kLineMax];
  while (fgets(line, sizeof line, f)) {
    if (!endsInBackslash(line)) {
      size_t n = strlen(line);
      if (n > 0) line[n - 1] = '\0';  // (an embedded NUL can make it empty)
      return appendText(text, line);
    }
    endAtEscape(line);
    text = appendText(text, line);
  }
  return text;
}

// The text of a message line (digits, one separator, the rest), or null when empty.
char *messageText(const char *line, FILE *f) {
  const char *p;
  leadingNumber(line, &p);
  if (*p == '\0' || p[1] == '\0') return nullptr;
  p++;
  size_t n = strlen(p);
  char *text = static_cast<char *>(allocMem(nullptr, n + 1));
  memcpy(text, p, n + 1);
  if (endsInBackslash(text)) {
    endAtEscape(text);
    return readContinuation(text, f);
  }
  text[n - 1] = '\0';
  return text;
}

void readCatalogFile(CatSlot &s, FILE *f) {
  char line[kLineMax];
  int64_t highest = 0, setNumber = 0, node = -1;
  const char *end;
  while (fgets(line, sizeof line, f)) {
    if (strncmp(line, "$set", 4) == 0) {
      const char *p = line + 4;
      while (isspace(static_cast<unsigned char>(*p))) p++;
      setNumber = leadingNumber(p, &end);
      node = setNodeFor(s, setNumber, highest);
      continue;
    }
    int64_t number = leadingNumber(line, &end);
    if (setNumber < 1 || number < 1) continue;
    char *text = messageText(line, f);
    if (!text) continue;
    if (node < 0) {  // the set walk ran off the chain: nowhere to keep it
      freeMem(text);
      continue;
    }
    makeSet(s, node).texts.emplace_back(text);
  }
}

}  // namespace

/* ---- Opening and lookups ------------------------------------------------------ */

const char *catopen(const char *name) {
  std::string file = std::string(name ? name : "(null)") + ".msg";
  std::string resources = resolveRootPath("resources");
  for (int i = 0; i < kSlots; i++) {
    if (slots[i].loaded) break;
    std::string path = resources + "/" + kCodes[i] + "/" + file;
    FILE *f = fopen(path.c_str(), "r");
    if (!f) continue;
    slotIndex = i;
    slots[i].loaded = true;
    readCatalogFile(slots[i], f);
    fclose(f);
  }
  if (name) {
    handleName = name;
    opened = true;
  }
  return name;
}

const char *catgets(const char *handle, int set, int number, const char *def) {
  slotIndex = languageSlot;
  if (!handle) return def;
  const char *off = getenv("NOQUORVELCATGETS");
  if (off && strcmp(off, "TRUE") == 0) return def;
  CatSlot &s = slots[slotIndex];
  if (!s.loaded || s.length == 0) return def;
  int64_t si = set < 1 ? 0 : static_cast<int64_t>(set) - 1;
  if (si >= s.length) return def;
  const CatSet *cs = findSet(s, si);
  if (!cs || cs->texts.empty()) return def;
  size_t mi = number < 1 ? 0 : static_cast<size_t>(number) - 1;
  if (mi >= cs->texts.size()) return def;
  return cs->texts[mi].get();
}

int catclose(const char *) {
  if (closeBlock) {
    freeMem(closeBlock);
    closeBlock = nullptr;
  }
  return 0;
}

const char *catHandle() { return opened ? handleName.c_str() : nullptr; }

const char *catText(int set, int number, const char *def) {
  return catgets(catHandle(), set, number, def);
}

/* ---- Language ----------------------------------------------------------------- */

void catsetlang(const char *code) {
  haveLanguage = code != nullptr;
  language = code ? code : "";
  languageSlot = catLanguageIndex(code);
}

const char *catgetlang() { return haveLanguage ? language.c_str() : nullptr; }

int catLanguageIndex(const char *code) {
  if (!code) return 0;
  for (int i = 0; i < kSlots; i++)
    if (strcmp(code, kCodes[i]) == 0) return i;
  return 0;
}

/* ---- Tests -------------------------------------------------------------------- */

void resetCatalog() {
  for (CatSlot &s : slots) s = CatSlot();
  slotIndex = 0;
  language.clear();
  haveLanguage = false;
  languageSlot = 0;
  handleName.clear();
  opened = false;
}

}  // namespace quorvel
