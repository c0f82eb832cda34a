// classdef.cpp -- class definition records, their text form, the three class files and
// the process-wide class state with its choice lists.
//
// Divisions: records and lists; parsing and formatting; files; loading.
#include "core/print/classdef.h"

#include <cstdlib>
#include <cstring>

#include "core/base/base.h"
#include "core/db/layout.h"
#include "core/print/textfile.h"

namespace quorvel {

// The class state: rebuilt by LoadClassdefs, read through the accessors, emptied by
// resetClassdefs.
static ClassList refList, sysList, userList;
static ChoiceList colors, families, pointSizes, densities;

/* ==== Records and lists ========================================================== */

static char *copyText(const char *text, size_t len) {
  char *copy = static_cast<char *>(allocMem(nullptr, len + 1));
  if (copy == nullptr) outOfMem("ParseClassdefs");
  memcpy(copy, text, len);
  copy[len] = '\0';
  return copy;
}

static char *copyText(const char *text) { return text == nullptr ? nullptr : copyText(text, strlen(text)); }

// The five attributes in the order they are written.
static char *ClassDef::*const ATTRS[] = {&ClassDef::color, &ClassDef::family, &ClassDef::density,
                                         &ClassDef::pointSize, &ClassDef::purpose};
static const char *const ATTR_NAMES[] = {"color", "family", "density", "pointSize", "purpose"};
static const char *const ATTR_DEFAULTS[] = {"Black", "helvetica", "75", "12", ""};

ClassDef *newClassDef(const char *name) {
  ClassDef *def = static_cast<ClassDef *>(allocMem(nullptr, sizeof(ClassDef)));
  if (def == nullptr) outOfMem("newClassDef");
  *def = ClassDef{copyText(name), nullptr, nullptr, nullptr, nullptr, nullptr};
  return def;
}

ClassDef *copyClassDef(const ClassDef *def) {
  if (def == nullptr) return nullptr;
  ClassDef *copy = newClassDef(def->name);
  for (char *ClassDef::*attr : ATTRS) copy->*attr = copyText(def->*attr);
  return copy;
}

void freeClassDef(ClassDef *def) {
  if (def == nullptr) return;
  freeMem(def->name);
  for (char *ClassDef::*attr : ATTRS) freeMem(def->*attr);
  freeMem(def);
}

void appendClassDef(ClassList *list, ClassDef *def) {
  void *grown = allocMem(list->defs, sizeof(ClassDef *) * size_t(list->count + 1));
  if (grown == nullptr) outOfMem("appendClassDef");
  list->defs = static_cast<ClassDef **>(grown);
  list->defs[list->count++] = def;
}

ClassList copyClassList(const ClassList &list) {
  ClassList copy;
  for (int i = 0; i < list.count; i++) appendClassDef(&copy, copyClassDef(list.defs[i]));
  return copy;
}

void freeClassList(ClassList *list) {
  for (int i = 0; i < list->count; i++) freeClassDef(list->defs[i]);
  freeMem(list->defs);
  *list = ClassList{};
}

int findClassDef(const ClassList &list, const char *name) {
  if (name == nullptr) return -1;
  for (int i = 0; i < list.count; i++)
    if (list.defs[i]->name != nullptr && strcmp(list.defs[i]->name, name) == 0) return i;
  return -1;
}

/* ==== Parsing and formatting ===================================================== */

// One line "<class>*<attribute>:<blanks><value>", each part found within the line.
struct ClassLine {
  const char *name, *attr, *value;
  size_t nameLen, attrLen, valueLen;
  const char *next;  // where the following line starts
};

// Cuts the line at p into its parts; false when a part is missing.
static bool splitLine(const char *p, ClassLine *line) {
  const char *eol = strchr(p, '\n');
  if (eol == nullptr) eol = p + strlen(p);
  const char *star = static_cast<const char *>(memchr(p, '*', size_t(eol - p)));
  if (star == nullptr) return false;
  const char *colon = static_cast<const char *>(memchr(star + 1, ':', size_t(eol - star - 1)));
  if (colon == nullptr) return false;
  const char *value = colon + 1;
  while (value < eol && (*value == ' ' || *value == '\t')) value++;
  const char *end = eol;
  while (end > value && end[-1] == '\r') end--;
  *line = ClassLine{p, star + 1, value, size_t(star - p), size_t(colon - star - 1), size_t(end - value),
                    *eol == '\n' ? eol + 1 : eol};
  return true;
}

static int attributeIndex(const char *attr, size_t len) {
  for (int i = 0; i < 5; i++)
    if (strlen(ATTR_NAMES[i]) == len && memcmp(ATTR_NAMES[i], attr, len) == 0) return i;
  return -1;
}

// The class called name (len bytes) in list, made and appended when missing.
static ClassDef *classNamed(ClassList *list, const char *name, size_t len) {
  for (int i = 0; i < list->count; i++) {
    const char *have = list->defs[i]->name;
    if (strlen(have) == len && memcmp(have, name, len) == 0) return list->defs[i];
  }
  ClassDef *def = newClassDef(nullptr);
  def->name = copyText(name, len);
  appendClassDef(list, def);
  return def;
}

ClassList ParseClassdefs(const char *text) {
  ClassList list;
  const char *p = text == nullptr ? "" : text;
  ClassLine line;
  for (;;) {
    p += strspn(p, " \t\n");
    if (*p == '\0' || !splitLine(p, &line)) break;
    p = line.next;
    int attr = attributeIndex(line.attr, line.attrLen);
    if (attr < 0) continue;  // an unknown attribute makes no class of its own
    ClassDef *def = classNamed(&list, line.name, line.nameLen);
    freeMem(def->*ATTRS[attr]);
    def->*ATTRS[attr] = copyText(line.value, line.valueLen);
  }
  return list;
}

std::string FormatClassdefs(const ClassList &list) {
  std::string text;
  for (int i = 0; i < list.count; i++) {
    const ClassDef *def = list.defs[i];
    if (def == nullptr || def->name == nullptr) continue;
    text += '\n';
    for (int a = 0; a < 5; a++) {
      const char *value = def->*ATTRS[a];
      if (value == nullptr) continue;
      text.append(def->name).append("*").append(ATTR_NAMES[a]).append(":\t").append(value).append("\n");
    }
  }
  return text;
}

void FillClassDefaults(ClassList *list) {
  for (int i = 0; i < list->count; i++)
    for (int a = 0; a < 5; a++)
      if (list->defs[i]->*ATTRS[a] == nullptr) list->defs[i]->*ATTRS[a] = copyText(ATTR_DEFAULTS[a]);
}

/* ==== Files ======================================================================= */

int readClassFile(const char *path, ClassList *list) {
  *list = ClassList{};
  std::string text;
  int rc = readTextFile(path, &text);
  if (rc != 0) return rc;
  *list = ParseClassdefs(text.c_str());
  return 0;
}

int writeClassFile(const char *path, const ClassList &list) {
  std::string text = FormatClassdefs(list);
  if (text.empty() && list.count != 0) return -1;
  return replaceTextFile(path, text, 0600);
}

/* ==== Loading ===================================================================== */

void addChoice(ChoiceList *choices, const char *value) {
  if (value == nullptr || *value == '\0') return;
  for (const std::string &have : *choices)
    if (have == value) return;
  choices->emplace_back(value);
}

// A built-in list split at ",", each entry trimmed of the blanks around it.
static void builtinChoices(ChoiceList *choices, const char *builtin) {
  choices->clear();
  std::string all(builtin);
  size_t from = 0;
  for (;;) {
    size_t comma = all.find(',', from);
    std::string entry = all.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
    size_t first = entry.find_first_not_of(" \t"), last = entry.find_last_not_of(" \t");
    if (first != std::string::npos) addChoice(choices, entry.substr(first, last - first + 1).c_str());
    if (comma == std::string::npos) break;
    from = comma + 1;
  }
}

static void addValues(const ClassList &list) {
  for (int i = 0; i < list.count; i++) {
    addChoice(&colors, list.defs[i]->color);
    addChoice(&pointSizes, list.defs[i]->pointSize);
    addChoice(&families, list.defs[i]->family);
    addChoice(&densities, list.defs[i]->density);
  }
}

// HOME + "/.quorvel/" + leaf, or "" without HOME.
static std::string homeFile(const char *leaf) {
  const char *home = getenv("HOME");
  return home == nullptr ? std::string() : std::string(home) + "/.quorvel/" + leaf;
}

static bool fileExists(const std::string &path) {
  return !path.empty() && fileModTime(path.c_str(), nullptr) != NO_TIME;
}

// The reference classes with each one of the same name replaced by its system class,
// then the system classes that override nothing. Takes the system list's records.
static ClassList mergeOverReference(ClassList *system) {
  ClassList merged = copyClassList(refList);
  for (int i = 0; i < system->count; i++) {
    int at = findClassDef(merged, system->defs[i]->name);
    if (at < 0) {
      appendClassDef(&merged, system->defs[i]);
    } else {
      freeClassDef(merged.defs[at]);
      merged.defs[at] = system->defs[i];
    }
  }
  freeMem(system->defs);
  *system = ClassList{};
  return merged;
}

void LoadClassdefs() {
  builtinChoices(&colors, "Black, White");
  builtinChoices(&families, "courier,helvetica,geneva,times");
  builtinChoices(&pointSizes, "8,10,12,14,18,24");
  builtinChoices(&densities, "75,100");
  freeClassList(&userList);
  freeClassList(&sysList);
  std::string userPath = homeFile("classdef"), sysPath = homeFile("sysclassdef");
  if (fileExists(userPath) && readClassFile(userPath.c_str(), &userList) == 0) {
    FillClassDefaults(&userList);
    addValues(userList);
  }
  freeClassList(&refList);
  char refPath[DB_PATH_MAX];
  readClassFile(resolveDbPath(refPath, dbPathSetting(DBP_CLASS_DEFS)), &refList);
  ClassList system;
  if (fileExists(sysPath) && readClassFile(sysPath.c_str(), &system) == 0) {
    sysList = mergeOverReference(&system);
    FillClassDefaults(&sysList);
    addValues(sysList);
  }
}

const ClassList &referenceClasses() { return refList; }
const ClassList &systemClasses() { return sysList; }
const ClassList &userClasses() { return userList; }
const ChoiceList &colorChoices() { return colors; }
const ChoiceList &familyChoices() { return families; }
const ChoiceList &pointSizeChoices() { return pointSizes; }
const ChoiceList &densityChoices() { return densities; }

void resetClassdefs() {
  freeClassList(&refList);
  freeClassList(&sysList);
  freeClassList(&userList);
  for (ChoiceList *c : {&colors, &families, &pointSizes, &densities}) c->clear();
}

}  // namespace quorvel
