// item.h -- the calendar item record (events, to-dos, reminders), its copies, its
// chains and the item lists that hold it.
//
// Every item is created by evnew and owns its title, database name, sets, arrays and
// its chained item; evfree releases all of it. An item list is a head Item (set up by
// evlistInit, never by evnew) whose next/prev form a circular doubly linked list with
// the items; an empty list's head points at itself. Chained items are not list members:
// they hang from their item's `chain`, each one owning the next.
//
// Item field mapping: where each field travels on the server wire (tags of the item
// codec, in the codec's order) and in the record files (line tags). Every field not
// listed is in memory only.
//
// | item field                          | wire                      | record file        |
// |-------------------------------------|---------------------------|--------------------|
// | dWord (1 event, 2 to-do, 3 reminder) | D short                  | kind letter T/D/M, ? otherwise |
// | uWord                               | U short                   | U "%d" when not 0  |
// | title                               | T text                    | text of the kind line |
// | owner                               | O number, or f name (peer 1.3+, extended) | O name, "__ALL__" for OWNER_ALL, none when negative |
// | calendars                           | W set                     | W                  |
// | timeValue.start / .end              | untagged 16 bytes (netdate.h) | B / F date-times, list defaults |
// | setY setN setS setR setC setX setM  | Y N S R C X M sets        | Y N R C X; setS, setM not stored |
// | popups[i].title, .mask              | p text, m number          | P "#P\t<title> 0x<mask>" |
// | popups[i].number                    | m number (the second m)   | not stored         |
// | popups[i].setS, .setR               | b set, b set (peer x.2+)  | S, r after the P line |
// | listB[i] (alarm) user, start, freq  | a: 12 bytes, three numbers (granularity 4) | A "%d,%d" start,freq; V one-member set of user (none when user < 0) |
// | listB[i].string                     | e text right after a; a single NUL = absent | E text when present |
// | value8                              | untagged 8 bytes (netdate.h) | not stored      |
// | listC[i] user, when                 | q: 12 bytes, user number then the 8-byte date-time | Z user's name, Q date-time (list defaults); entries with user < 0 not stored |
// | listD[i] label, set                 | c text, b set (peer x.2+) | K "<label>:<members>" when the set is not empty |
// | dbName / dbFlag                     | J text, or j when dbFlag  | J, or j when dbFlag |
// | randomId                            | I number                  | I "%ld" when not negative |
// | hNumber                             | H number                  | H when not NO_TIME |
// | aNumber                             | A number (peer x.2+)      | d when not NO_TIME |
// | fNumber                             | F number (peer x.2+)      | f when not NO_TIME |
// | eNumber                             | E number (peer x.2+)      | e when not NO_TIME |
// | gNumber                             | G number (peer x.2+)      | s when not NO_TIME |
// | gFlag, kFlag                        | g byte, k byte (peer x.4+)| not stored         |
// | linkByte                            | L number when not 0; z carries it (or 0) | L when not 0 |
// | chain (copies in other databases)   | the chained items follow the item | following records with the same I, f and text |
// | typeLetter, chainKey, sub list      | not sent                  | not stored         |
//
// The record-file G line (a text) has no field in this record: it is not written, and a
// reader skips it. Sets use calset.h; the record file writes them as member names.
#pragma once

#include <cstdint>

#include "core/date/datetime.h"
#include "core/net/calset.h"

namespace quorvel {

inline constexpr int32_t OWNER_ALL = 99999;    // owner index meaning every calendar
inline constexpr int ITEM_TEXT_MAX = 255;       // longest title / dbName on the wire
inline constexpr int16_t ITEM_LIST_MAX = INT16_MAX;  // most entries of an owned array
inline constexpr uint16_t KIND_EVENT = 1;       // dWord values
inline constexpr uint16_t KIND_TODO = 2;
inline constexpr uint16_t KIND_REMINDER = 3;

// One popup note entry.
struct Popup {
  char *title;     // owned text (may be null)
  int32_t mask;    // first number: the bit mask
  int32_t number;  // second number
  CalSet setS;     // first set
  CalSet setR;     // second set
};

// One alarm of the item's alarm list (listB); the alarm module gives the meanings.
struct Alarm {
  int32_t user;    // user number, negative for none
  uint32_t start;  // minutes before the item's start of the first announcement
  uint32_t freq;   // minutes between announcements; 0 switched off
  char *string;    // owned text, may be null
};

// One 12-byte entry of listC: a user and a date-time.
struct UserTime {
  int32_t user;   // user index, negative for none
  DateTime when;
};
static_assert(sizeof(UserTime) == 12);

// One entry of listD: a label and a set.
struct LabelSet {
  char *label;  // owned text (may be null)
  CalSet set;
};

// Head of the list of further records belonging to an item (kept, not used here).
struct SubLink {
  SubLink *subNext;
  SubLink *subPrev;
};

struct Item {
  Item *next;            // place in an item list; the item itself when not in one
  Item *prev;
  SubLink sub;           // list head of further records, pointing at itself
  Item *chain;           // chained item of the same type, owned; null
  int32_t unused;        // 0
  uint16_t dWord;        // kind: 1 event, 2 to-do, 3 reminder
  uint16_t uWord;        // 0
  int16_t listCCount;    // entries of listC
  int16_t popupCount;    // entries of popups
  int16_t listBCount;    // entries of listB
  int16_t listDCount;    // entries of listD
  char *title;           // owned, "" in a new item
  int32_t owner;         // calendar number of the owner, -1 none, OWNER_ALL every one
  CalSet calendars;      // W
  TimeRange timeValue;   // start, end
  CalSet setY, setN, setS, setR, setC, setX, setM;
  Popup *popups;         // owned array of popupCount
  Alarm *listB;          // owned array of listBCount
  DateTime value8;       // one date-time
  UserTime *listC;       // owned array of listCCount
  LabelSet *listD;       // owned array of listDCount
  char *dbName;          // owned database name, or null
  int32_t randomId;      // drawn with lrand48 at creation
  uint32_t chainKey;     // copied into each chained item; 0
  int32_t hNumber;       // 0
  int32_t aNumber;       // NO_TIME
  int32_t fNumber;       // NO_TIME
  int32_t eNumber;       // NO_TIME
  int32_t gNumber;       // 0
  uint8_t dbFlag;        // selects j over J
  uint8_t typeLetter;    // 'd' asks for the extended message; 0
  uint8_t linkByte;      // 0
  uint8_t gFlag;         // 255
  uint8_t kFlag;         // 255
};

/* ---- Items -------------------------------------------------------------------- */

// A new item with the initial values above; out of memory reports "evnew".
Item *evnew();
// Frees the item, everything it owns and its chain; it must not be in a list. Null ok.
void evfree(Item *item);
// Deep copy (chain included); typeLetter and chainKey keep a new item's 0, also in the
// copied chain. Null gives null.
Item *evcopy(const Item *item);
// Copy source's contents into target, releasing what target owned (title, the four
// arrays, dbName, sets). target keeps its list place, sub list, typeLetter and
// chainKey. evassign leaves target's chain alone; evassignAll replaces it by a deep
// copy of source's chain.
void evassign(Item *target, const Item *source);
void evassignAll(Item *target, const Item *source);

// Setting owned texts (copied; null clears dbName, makes title "").
void evsetTitle(Item *item, const char *title);
void evsetDbName(Item *item, const char *name);

/* ---- Owned arrays (each entry deep) ------------------------------------------- */

Popup *copyPopups(const Popup *from, int count);
void freePopups(Popup *list, int count);
Alarm *copyAlarms(const Alarm *from, int count);
void freeAlarms(Alarm *list, int count);
UserTime *copyUserTimes(const UserTime *from, int count);
LabelSet *copyLabelSets(const LabelSet *from, int count);
void freeLabelSets(LabelSet *list, int count);
// Appends one zeroed entry, returns it; out of memory reports "evnew", and so does an
// array that already holds ITEM_LIST_MAX entries (its count is 16-bit): readers of
// outside input check the count first.
Popup *addPopup(Item *item);
Alarm *addAlarmEntry(Item *item);
UserTime *addUserTime(Item *item);
LabelSet *addLabelSet(Item *item);

/* ---- Item lists --------------------------------------------------------------- */

void evlistInit(Item *head);           // an empty list
bool evlistEmpty(const Item *head);
int evlistCount(const Item *head);
void evlistAppend(Item *head, Item *item);        // at the end
void evlistInsertAfter(Item *pos, Item *item);    // pos may be the head
void evlistRemove(Item *item);                    // unlinks; the item points at itself
void evlistFree(Item *head);                      // frees every member; list empty

/* ---- Chains ------------------------------------------------------------------- */

// Appends copy at the end of item's chain (ownership passes), giving it item's chainKey.
void chainAppend(Item *item, Item *copy);
int chainLength(const Item *item);  // chained items after item
// The item or chained item whose dbName equals name (null and "" match no name).
Item *chainFind(Item *item, const char *name);

}  // namespace quorvel
