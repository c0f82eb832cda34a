// rolo_test_util.h -- a temporary database for the address-book tests: three named
// calendars, the "locks" directory, a fixed clock, and helpers for cards and files.
#pragma once

#include "core/people/people_test_util.h"
#include "core/people/rolo.h"

namespace quorvel {

class RoloTest : public PeopleTest {
 protected:
  static inline time_t now = 1700000000;  // the clock every test runs on
  std::string lockFile, anna;              // the book lock; calendar 0's book
  BookState *book = nullptr;               // anna's book state

  void SetUp() override {
    PeopleTest::SetUp();
    resetRolo();
    setClockHook([] { return now; });
    for (const char *n : {"anna", "bob", "Mary Ann O'Neil-Smith"})
      addCalendarName(nullptr, n, "", "", "");
    mkdir((root + "/db/database").c_str(), 0755);
    mkdir((root + "/db/database/locks").c_str(), 0755);
    lockFile = root + "/db/database/locks/rololock";
    anna = roloPath(0);
    book = findBookState(main, 0);
  }
  void TearDown() override {
    releaseBooks(main);
    resetRolo();
    PeopleTest::TearDown();
  }
  // A card: kind, owner, stamp time, then (number, text) pairs; a null text stays null.
  static RoloEntry *card(int kind, int owner, int32_t when,
                         std::vector<std::pair<int, const char *>> fields) {
    RoloEntry *e = newRoloEntry();
    e->kind = uint8_t(kind), e->owner = int16_t(owner), e->stamp = DateTime{when, 0, 0};
    for (auto &f : fields) addRoloField(e, f.first, f.second);
    return e;
  }
  static RoloEntry *list(std::vector<RoloEntry *> cards) {
    RoloEntry *head = newRoloList();
    for (RoloEntry *e : cards) appendRoloEntry(head, e);
    return head;
  }
  // Each card as "kind owner time number=text|number ...", one per line.
  static std::string show(const RoloEntry *head) {
    std::string s;
    for (const RoloEntry *e = head->next; e != head; e = e->next) {
      s += std::to_string(e->kind) + " " + std::to_string(e->owner) + " " +
           std::to_string(e->stamp.time);
      for (int i = 0; i < e->fieldCount; i++) {
        const char *t = e->fieldTexts[i];
        s += " " + std::to_string(e->fieldNumbers[i]) + (t ? "=" + std::string(t) : "");
      }
      s += "\n";
    }
    return s;
  }
  // anna's book, its "TMP" and "sav" files and the lock: "book|TMP|sav|lock".
  std::string files() {
    return slurp(anna) + "|" + slurp(anna + "TMP") + "|" + slurp(anna + "sav") + "|" +
           slurp(lockFile);
  }
  int write(int force = 1, FILE *stream = nullptr) {
    return writerololist(main, book, 0, force, stream);
  }
};

}  // namespace quorvel
