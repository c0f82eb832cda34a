// classdef.h -- class definitions: the look (colour, font family, point size, density
// and a free purpose text) of each class of items, read from three files, and the
// choice lists of the values in use.
//
// Text form: one line per attribute of a class, "<class>*<attribute>:\t<value>\n".
// A class is written as "\n" followed by its attributes that are set, in the order
// color, family, density, pointSize, purpose. The reader skips blanks and line ends
// before a line, takes the class name up to "*", the attribute up to ":" and the value
// up to the line end (blanks before the value skipped, CRs before the line end
// dropped), each within one line; a line that lacks a part ends the reading and the
// classes before it stay. Attributes are compared exactly; a later line for the same
// class and attribute replaces the earlier value; an unknown attribute is ignored and
// does not make a class on its own.
//
// Files: the reference classes "db/database/refclassdef" (the path-table setting,
// resolved against the installation root), the system classes HOME +
// "/.quorvel/sysclassdef" and the user classes HOME + "/.quorvel/classdef". A file is
// read whole and written whole: the text goes to path + "TMP", is synced, and is renamed
// over the file (mode 0600).
//
// LoadClassdefs rebuilds the process-wide state: the four choice lists start from
// their built-in lists ("Black, White"; "courier,helvetica,geneva,times";
// "8,10,12,14,18,24"; "75,100"), split at "," with the blanks around each entry
// trimmed, so " White" is "White". Values are added to a choice list once each, in the
// order first seen. The user classes come first, then the reference classes, then the
// system classes merged over them: the merged list holds the reference classes in file
// order, each replaced whole by the system class of the same name, followed by the
// system classes that have no reference class, in file order. Defaults are filled into
// the user and the merged lists only (the reference list stays as read).
// Results: 0 success, -1 for a list that gives no text, positive errno from the files.
#pragma once

#include <string>
#include <vector>

namespace quorvel {

struct ClassDef {
  char *name;       // the class's name (owned, or null when absent)
  char *color;      // owned or null; default "Black"
  char *family;     // owned or null; default "helvetica"
  char *pointSize;  // owned or null; default "12"
  char *density;    // owned or null; default "75"
  char *purpose;    // owned or null; default ""
};

// A list of classes: an array of owned records and its count.
struct ClassList {
  ClassDef **defs = nullptr;
  int count = 0;
};

using ChoiceList = std::vector<std::string>;

/* ---- Records and lists -------------------------------------------------------- */

ClassDef *newClassDef(const char *name);     // every attribute absent; name may be null
ClassDef *copyClassDef(const ClassDef *def); // null gives null
void freeClassDef(ClassDef *def);
void appendClassDef(ClassList *list, ClassDef *def);  // takes ownership
ClassList copyClassList(const ClassList &list);
void freeClassList(ClassList *list);                  // the list is empty afterwards
// Index of the first class called name, or -1.
int findClassDef(const ClassList &list, const char *name);

/* ---- Text form ------------------------------------------------------------------ */

// A null text gives an empty list.
ClassList ParseClassdefs(const char *text);
// Classes without a name are left out.
std::string FormatClassdefs(const ClassList &list);
// Sets the default of every absent attribute (the name stays as it is).
void FillClassDefaults(ClassList *list);

/* ---- Files ---------------------------------------------------------------------- */

// Reads and parses the file; 0, or errno when it cannot be read (*list left empty).
int readClassFile(const char *path, ClassList *list);
// An empty list writes an empty file; a list whose text is empty is not written and
// gives -1. Otherwise 0 or errno of the failed step (the old file is left in place).
int writeClassFile(const char *path, const ClassList &list);

/* ---- The process-wide class state ------------------------------------------------ */

void LoadClassdefs();
const ClassList &referenceClasses();
const ClassList &systemClasses();
const ClassList &userClasses();
const ChoiceList &colorChoices();
const ChoiceList &familyChoices();
const ChoiceList &pointSizeChoices();
const ChoiceList &densityChoices();
// Adds value to choices unless it is there already; null and "" add nothing.
void addChoice(ChoiceList *choices, const char *value);

// Frees the lists and empties the choice lists (tests).
void resetClassdefs();

}  // namespace quorvel
