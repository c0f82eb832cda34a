// datperm_fuzz.cpp -- feeds arbitrary bytes to the permission-file reader, then checks
// that writing the records read and reading that text again gives the same text.
#include "core/db/context.h"
#include "core/db/record.h"
#include "core/people/perms.h"
#include "core/people/users.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quorvel;

// The main context with six calendars (one a file-only name) and a linked database
// "linked" with three, made once for every run.
static DbHandle *setUp() {
  static DbHandle *main = nullptr, *linked = nullptr;  // held here: made once, kept
  if (main) return main;
  main = openDefaultDb();
  UserList *list = newUserList();
  for (const char *n : {"ann", "bob", "cat", "dan", "eve", "-gus"})
    addUserEntry(list, n, "l", "", "", 0);
  installUserList(main, list);
  linked = newDbHandle("db/database", "linked", DB_KIND_LOCAL);
  UserList *other = newUserList();
  for (const char *n : {"lx", "ly", "lz"}) addUserEntry(other, n, "l", "", "", 0);
  installUserList(linked, other);
  addGuestCalendar(lookupCalendar(main, "gus"));
  return main;
}

static std::string written(DbHandle *db) {
  TextSink sink;
  writeDatRecords(db, &sink, textLineWriter);
  return sink.text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  DbHandle *main = setUp();
  std::string input(reinterpret_cast<const char *>(data), size);
  input.push_back('\0');  // the reader may write one byte past the text
  parseDatRecords(main, input.data(), size);
  if (currentDb() != main) abort();  // a J line's switch ends with the read
  std::string once = written(main);
  std::string copy = once + '\0';
  parseDatRecords(main, copy.data(), once.size());
  if (written(main) != once) abort();
  for (int who = -1; who < 7; who++) mayReadCalendar(main, who, who ^ 1);
  dropDatRecords(main);
  return 0;
}
