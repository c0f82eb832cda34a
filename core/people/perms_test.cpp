// Permission records against real files in a temporary tree, and the server-attached
// store and read against the fake calendar server.
#include "core/people/people_test_util.h"
#include "core/people/perms.h"
#include "core/items/item.h"
#include "core/net/link.h"
#include "testing/calserver.h"

#include <unistd.h>

using namespace quorvel;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

static CalSet setOf(std::initializer_list<int> members) {
  CalSet s = nullptr;
  for (int m : members) setbit(&s, m, 1);
  return s;
}

class PermsTest : public PeopleTest {
 protected:
  std::string dbDir, permPath;
  void SetUp() override {
    PeopleTest::SetUp();
    resetPerms();
    dbDir = root + "/db/database", permPath = dbDir + "/dat.perm";
    mkdir(dbDir.c_str(), 0755);
    readMain("ann,a\nbob,b\ncat,c\ndan,d\neve,e\n", 1000);  // calendars 0..4
  }
  void TearDown() override {
    freeDatEntries(main);
    for (DbHandle *db : others) freeDatEntries(db);
    resetPerms();
    PeopleTest::TearDown();
  }
  static std::string encode(const uint16_t *set, int *rc = nullptr) {
    TextSink sink;
    int r = writeCalendarSet(&sink, "#%c\t", 'R', set, textLineWriter);
    if (rc) *rc = r;
    return sink.text;
  }
  static std::string text(DbHandle *ctx) {
    TextSink sink;
    EXPECT_EQ(writeDatRecords(ctx, &sink, textLineWriter), 0);
    return sink.text;
  }
  static std::string members(const uint16_t *set) {
    std::string s;
    for (int i = 0; i < setBitCount(set); i++)
      if (testbit(set, i)) s += (s.empty() ? "" : ",") + std::to_string(i);
    return s;
  }
  // A main context record for owner with readers r.
  DatEntry *rec(int owner, std::initializer_list<int> r) {
    DatEntry *e = AddToDat(main, owner);
    e->readers = setOf(r);
    return e;
  }
};

TEST_F(PermsTest, SetEncoderWritesAllNamesOrNothingAndWrapsPastColumnSixty) {
  struct Row { std::initializer_list<int> members; const char *want; int rc; };
  const Row rows[] = {
      {{}, "", 0},                               // no members: no line at all
      {{0, 1, 2, 3, 4}, "#R\t__ALL__\n", 0},     // every known calendar
      {{4, 1, 3}, "#R\tbob,dan,eve\n", 0},       // index order
      {{1, 7}, "#R\tbob,", -1},                  // calendar 7 has no name
  };
  for (const Row &r : rows) {
    CalSet s = setOf(r.members);
    int rc = 9;
    EXPECT_EQ(encode(s, &rc), r.want); EXPECT_EQ(rc, r.rc);
    freebits(&s);
  }
  CalSet capacityOnly = nullptr;
  allocbits(&capacityOnly, 40);
  EXPECT_EQ(encode(capacityOnly), ""); freebits(&capacityOnly);
  // Names of 51 and 52 characters: after the first one and its comma the column stands
  // at 60 (no wrap) or 61 (wrap: backslash, newline, tab).
  std::string n51(51, 'x'), n52(52, 'y');
  readMain(n51 + ",p\n" + n52 + ",q\nz,r\nw,s\n", 2000);
  CalSet a = setOf({0, 2}), b = setOf({1, 2});
  EXPECT_EQ(encode(a), "#R\t" + n51 + ",z\n"); EXPECT_EQ(encode(b), "#R\t" + n52 + ",\\\n\tz\n");
  freebits(&a), freebits(&b);
}

TEST_F(PermsTest, GuestCalendarsJoinOnlyTheMainContextsKnownCalendars) {
  addCalendarName(main, "guest", "g", "", "");  // index 5, not a user
  CalSet users = setOf({0, 1, 2, 3, 4}), withGuest = setOf({0, 1, 2, 3, 4, 5});
  EXPECT_EQ(encode(users), "#R\t__ALL__\n");
  addGuestCalendar(5);
  EXPECT_EQ(knownCalendarCount(main), 6); EXPECT_EQ(encode(withGuest), "#R\t__ALL__\n");
  EXPECT_EQ(encode(users), "#R\tann,bob,cat,dan,eve\n");
  // Another context knows its own users only, guests or not.
  DbHandle *other = makeContext("other", DB_KIND_LOCAL);
  writeAt("db/remoteUsers/other", "p,1\nq,2\n", 500);
  readUsersFile(other, &changed), setCurrentDb(other);
  CalSet pq = setOf({0, 1}), all = nullptr, back = nullptr;
  EXPECT_EQ(knownCalendarCount(other), 2); EXPECT_EQ(encode(pq), "#R\t__ALL__\n");
  EXPECT_EQ(readCalendarSet("__ALL__", &back), 2); EXPECT_EQ(members(back), "0,1");
  restoreCurrentDb(), setGuestCalendars(nullptr), knownCalendars(main, &all);
  EXPECT_EQ(members(all), "0,1,2,3,4");
  for (CalSet *s : {&users, &withGuest, &pq, &all, &back}) freebits(s);
}

TEST_F(PermsTest, WriterLinesFollowTheRecordAndItsSets) {
  DatEntry *all = rec(PERM_OWNER_ALL, {0, 1, 2, 3, 4});
  all->begin.time = 0x10;  // no final: neither B nor F
  DatEntry *bob = AddToDat(main, 1);
  bob->begin = {0x20, 1, 2}, bob->final = {0x30, 0, 0};
  bob->X = setOf({4}), bob->agents = setOf({2}), bob->writers = setOf({0});
  bob->schedulers = setOf({3}), bob->W = setOf({0, 2});
  DatEntry *cat = AddToDat(main, 2);  // nothing granted: the O line alone
  cat->W = nullptr;
  allocbits(&cat->readers, 16);  // capacity without members: no R line
  EXPECT_EQ(text(main),
            "\n#O\t__ALL__\n#R\t__ALL__\n"
            "\n#O\tbob\n#B\t0x20 @0x1 %0x2\n#F\t0x30 @0x0 %0x0\n#W\tann,cat\n#C\tann\n"
            "#Y\tcat\n#N\tdan\n#X\teve\n"
            "\n#O\tcat\n");
  // A first record without an owner: nothing at all, unless in the administrator's mode,
  // where it becomes the own calendar (none here: still no O line).
  main->perms[0].owner = -1;
  EXPECT_EQ(text(main), "");
  main->permMode = PERM_MODE_ADMIN, setOwnCalendar(3);
  EXPECT_EQ(text(main).substr(0, 9), "\n#O\tdan\n#"); EXPECT_EQ(main->perms[0].owner, 3);
}

TEST_F(PermsTest, ReaderIsTheWritersInverseAcrossTablesAndContinuationLines) {
  std::string f(40, 'f'), g(40, 'g'), h(40, 'h');
  readMain("ann,a\nbob,b\ncat,c\ndan,d\neve,e\n" + f + ",f\n" + g + ",g\n" + h + ",h\n", 3000);
  DbHandle *linked = makeContext("linked", DB_KIND_LOCAL);
  writeAt("db/remoteUsers/linked", "lx,1\nly,2\nlz,3\n", 500);
  readUsersFile(linked, &changed);
  rec(1, {0, 5, 6, 7});     // wraps before the third long name
  rec(PERM_OWNER_ALL, {2});
  DatEntry *j = rec(3, {0, 2});  // names from the linked table from here on
  j->linkedDatabase = "linked";
  j->begin = {100, 0, 0}, j->final = {200, 7, 0};
  rec(0, {1});
  put(permPath, text(main));
  std::string first = slurp(permPath);
  EXPECT_NE(first.find(g + ",\\\n\t" + h + "\n"), std::string::npos);
  EXPECT_NE(first.find("#J\tlinked\n#B\t0x64 @0x0 %0x0\n#F\t0xc8 @0x7 %0x0\n#R\tlx,lz\n"
                       "\n#O\tlx\n#R\tly\n"), std::string::npos);
  freeDatEntries(main);
  EXPECT_EQ(readDatPermFile(main, permPath.c_str()), 4); EXPECT_EQ(currentDb(), main);
  EXPECT_EQ(members(main->perms[0].readers), "0,5,6,7");
  EXPECT_EQ(main->perms[2].linkedDatabase, "linked"); EXPECT_EQ(main->perms[2].final.q1, 7);
  EXPECT_EQ(main->perms[3].owner, 0);  // "lx" in the linked table
  EXPECT_EQ(text(main), first); EXPECT_EQ(datPermFileSize(), long(first.size()));
  // Hand-written lines: unknown names dropped, an unknown owner kept for the rewrite,
  // a record without an owner dropped, a trailing backslash at the end cut.
  put(permPath, "#R\tann\n\n#O\tgone\n#R\tann,nobody,\\\n\tcat\n#Q\tunknown tag\n"
                 "\n#O\tbob\n#C\t__ALL__\n#X\teve\\");
  EXPECT_EQ(readDatPermFile(main, permPath.c_str()), 2);
  EXPECT_EQ(main->perms[0].ownerName, "gone");
  EXPECT_EQ(text(main), "\n#O\tgone\n#R\tann,cat\n\n#O\tbob\n#C\t__ALL__\n#X\teve\n");
  // Lines out of the writer's order: the owner still comes from the table before J.
  put(permPath, "\n#R\tly,lz\n#J\tlinked\n#O\tdan\n");
  EXPECT_EQ(readDatPermFile(main, permPath.c_str()), 1);
  EXPECT_EQ(text(main), "\n#O\tdan\n#J\tlinked\n#R\tly,lz\n");
  remove(permPath.c_str());
  EXPECT_EQ(readDatPermFile(main, permPath.c_str()), 0); EXPECT_EQ(main->permCount, 0);
}

TEST_F(PermsTest, PutDatsRefusesProtectedFilesAndShrinksBelowEightyPercent) {
  put(permPath, "old contents\n");
  chmod(permPath.c_str(), 0444);
  rec(0, {1});
  CaptureStderr();
  EXPECT_EQ(putDats(main, permPath.c_str()), -1);
  EXPECT_EQ(GetCapturedStderr(), "putDats: dat.perm not writeable\n");
  EXPECT_EQ(datPermChangeTime(), -1); EXPECT_EQ(slurp(permPath), "old contents\n");
  main->permMode = PERM_MODE_ADMIN;  // the administrator writes over it
  EXPECT_EQ(putDats(main, permPath.c_str()), 0); EXPECT_EQ(datPermFileSize(), 15);
  EXPECT_EQ(slurp(permPath), "\n#O\tann\n#R\tbob\n"); EXPECT_EQ(modeOf(permPath), 0600u);
  EXPECT_EQ(slurp(permPath + "TMP"), "-");
  main->permMode = 0;
  // A failing file is not installed: the records are dropped, the scratch file kept.
  // Each row writes bob's record with `sets` of R C Y N holding ann: 8 + 7 * sets bytes.
  // 36 of 45 bytes is 80%: passes; 36 of 46 fails; after a failure (-1) and when growing
  // any size passes; an empty file passes.
  struct Row { long remembered; int owner, sets, rc; long after; };
  const Row rows[] = {{45, 1, 4, 0, 36}, {46, 1, 4, -1, -1}, {-1, 1, 1, 0, 15},
                      {10, 1, 2, 0, 22}, {36, -1, 0, 0, 0}};
  for (const Row &r : rows) {
    setDatPermFileSize(r.remembered);
    freeDatEntries(main);
    DatEntry *e = AddToDat(main, r.owner);
    for (int i = 0; i < r.sets; i++) setbit(datPermSet(e, "RCYN"[i]), 0, 1);
    CaptureStderr();
    EXPECT_EQ(putDats(main, permPath.c_str()), r.rc) << r.after;
    EXPECT_EQ(GetCapturedStderr(), r.rc ? "putDats: bad size for dat.perm file\n" : "");
    EXPECT_EQ(datPermFileSize(), r.after); EXPECT_EQ(main->permCount, r.rc ? 0 : 1);
    EXPECT_EQ(access((permPath + "TMP").c_str(), F_OK) == 0, r.rc != 0);
    EXPECT_EQ(modeOf(permPath), 0600u);
  }
}

TEST_F(PermsTest, PutDatsReportsAScratchFileItCannotWriteAndAnOldFileItCannotUnlink) {
  rec(0, {1});
  CaptureStderr();
  EXPECT_EQ(putDats(main, (root + "/missing/dat.perm").c_str()), -1);
  mkdir(permPath.c_str(), 0755);  // a directory in the file's place cannot be unlinked
  put(permPath + "/inside", "x");
  EXPECT_EQ(putDats(main, permPath.c_str()), -1);
  EXPECT_EQ(GetCapturedStderr(),
            "putDats: cannot write out tmp file\nputDats: cannot unlink old dat perm file\n");
  EXPECT_EQ(slurp(permPath + "TMP"), "\n#O\tann\n#R\tbob\n");  // the records stay on disk
  EXPECT_EQ(modeOf(permPath), 0600u); chmod(permPath.c_str(), 0755);
  EXPECT_EQ(putDats(newDbHandle("db/database", "none", 0), permPath.c_str()), 0);
}

TEST_F(PermsTest, StoreWritesTheDatabaseFileAndRemembersItsChangeTime) {
  rec(2, {0, 1});
  EXPECT_EQ(storeDatPerms(main), 0); EXPECT_EQ(slurp(permPath), "\n#O\tcat\n#R\tann,bob\n");
  struct stat st;
  ASSERT_EQ(stat(permPath.c_str(), &st), 0);
  EXPECT_EQ(datPermChangeTime(), static_cast<int32_t>(st.st_ctime));
  chmod(permPath.c_str(), 0400);
  CaptureStderr();
  EXPECT_EQ(storeDatPerms(main), -1);  // the refusal's mark survives the store
  GetCapturedStderr(); EXPECT_EQ(datPermChangeTime(), -1);
  freeDatEntries(main), chmod(permPath.c_str(), 0600);
  EXPECT_EQ(readDatPerms(main), 1);
  EXPECT_EQ(members(findDatEntry(main, 2)->readers), "0,1");
}

TEST_F(PermsTest, SetFileKeepsBothSpellingsOfItsMessagesAndTheNotifyRule) {
  std::string path = dbDir + "/notify.del";
  CalSet s = setOf({1, 4}), empty = nullptr;
  EXPECT_EQ(putExtBitInfo(path.c_str(), nullptr), 0);  // zero capacity: nothing at all
  EXPECT_EQ(slurp(path), "-");
  EXPECT_EQ(putExtBitInfo(path.c_str(), s), 0);
  EXPECT_EQ(slurp(path), "#R\tbob,eve\n"); EXPECT_EQ(modeOf(path), 0600u);
  allocbits(&empty, 8);
  CaptureStderr();
  EXPECT_EQ(putExtBitInfo(path.c_str(), empty), -1);
  main->permMode = PERM_MODE_ADMIN;  // the administrator is not told
  EXPECT_EQ(putExtBitInfo(path.c_str(), empty), -1);
  EXPECT_EQ(putExtBitInfo((root + "/missing/notify.del").c_str(), s), -1);
  std::string dir = dbDir + "/adir";
  mkdir(dir.c_str(), 0755), put(dir + "/x", "x");
  EXPECT_EQ(putExtBitInfo(dir.c_str(), s), -1);
  EXPECT_EQ(GetCapturedStderr(), "putExtBitInfo: tmp file is of zero length\n"
                                 "putExtBitInfo: cannot open tmp file\n"
                                 "putExtBitinfo: cannot unlink " + dir + "\n");
  EXPECT_EQ(modeOf(dir), 0600u); chmod(dir.c_str(), 0755);
  EXPECT_EQ(slurp(path), "#R\tbob,eve\n");  // the old set stays in force
  // The notify set follows a record's readers while their counts differ by at most 1.
  main->permMode = 0;
  DatEntry *e = rec(0, {0, 1, 2});
  main->notifySet = setOf({3});  // differs by 2: kept
  EXPECT_EQ(syncNotifySet(main, e, 1), 0); EXPECT_EQ(members(main->notifySet), "3");
  setbit(&main->notifySet, 4, 1);
  EXPECT_EQ(syncNotifySet(main, e, 1), 1); EXPECT_EQ(members(main->notifySet), "0,1,2");
  EXPECT_EQ(slurp(path), "#R\tann,bob,cat\n");
  freebits(&s), freebits(&empty);
}

TEST_F(PermsTest, DumpAndSetDatPermWorkOnTheRecordsInOrder) {
  for (int i = 0; i < 300; i++) AddToDat(main, i % 5 == 4 ? PERM_OWNER_ALL : i % 5);
  int n = 0;
  for (DatEntry *r = main->perms; r; r = r->next, n++) ASSERT_EQ(r, &main->perms[n]);
  EXPECT_EQ(n, 300);
  freeDatEntries(main);
  rec(1, {0, 2});
  AddToDat(main, PERM_OWNER_ALL);
  EXPECT_EQ(SetDatPerm(main, 1, 'C', 3, 1), 0); EXPECT_EQ(SetDatPerm(main, 1, 'R', 2, 0), 0);
  EXPECT_EQ(SetDatPerm(main, PERM_OWNER_ALL, 'Y', 4, 1), 0);
  EXPECT_EQ(SetDatPerm(main, 1, 'Q', 4, 1), -1);
  CaptureStderr();
  EXPECT_EQ(SetDatPerm(main, 3, 'R', 0, 1), -1);
  dumpDatPerms(main);
  EXPECT_EQ(GetCapturedStderr(), "SetDatPerm: could not find dat entry\n"
                                 "For bob\nReaders are ann\nWriters are dan\nAgents are \n"
                                 "Schedulers are \n"
                                 "For __ALL__\nReaders are \nWriters are \nAgents are eve\n"
                                 "Schedulers are \n");
}

TEST_F(PermsTest, AccessFollowsTheOwnersRecordTheAllRecordRefusalsAndWindows) {
  DatEntry *bob = rec(1, {0});
  bob->writers = setOf({2}), bob->X = setOf({3}), bob->schedulers = setOf({4});
  DatEntry *all = rec(PERM_OWNER_ALL, {3, 4});
  all->agents = setOf({0});
  DatEntry *cat = rec(2, {1});
  cat->begin = {static_cast<int32_t>(time(nullptr)) - 100, 0, 0};
  cat->final = {static_cast<int32_t>(time(nullptr)) + 100, 0, 0};
  struct Row { int who, owner, read, write, act, sched; };
  const Row rows[] = {
      {1, 1, 1, 1, 1, 1},  // the owner
      {0, 1, 1, 0, 1, 0},  // reader of bob, agent of everyone
      {2, 1, 1, 1, 0, 0},  // writer reads too
      {3, 1, 0, 0, 0, 0},  // refused by bob's X despite the all record
      {4, 1, 1, 0, 0, 1},  // all record's reader, bob's scheduler
      {1, 2, 1, 0, 0, 0},  // inside cat's window
      {1, 3, 0, 0, 0, 0},  // dan has no record; bob is in no all-record set
      {-1, 1, 0, 0, 0, 0},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(std::to_string(r.who) + "->" + std::to_string(r.owner));
    EXPECT_EQ(mayReadCalendar(nullptr, r.who, r.owner), r.read);
    EXPECT_EQ(mayWriteCalendar(main, r.who, r.owner), r.write);
    EXPECT_EQ(mayActFor(main, r.who, r.owner), r.act);
    EXPECT_EQ(mayScheduleInto(main, r.who, r.owner), r.sched);
  }
  cat->final.time = static_cast<int32_t>(time(nullptr)) - 50;  // window over
  EXPECT_EQ(mayReadCalendar(main, 4, 2), 1); EXPECT_EQ(mayReadCalendar(main, 1, 2), 0);
  Item item{};
  item.owner = 3;
  EXPECT_EQ(mayReadItem(main, 2, &item), 0);
  item.calendars = setOf({3, 1});  // bob's calendar is readable to its writer cat
  EXPECT_EQ(mayReadItem(main, 2, &item), 1);
  EXPECT_EQ(mayReadItem(main, 3, &item), 1);  // dan's own calendar is among them
  freebits(&item.calendars);
  item.owner = OWNER_ALL;
  EXPECT_EQ(mayReadItem(main, 2, &item), 1);
}

TEST_F(PermsTest, ServerAttachedRecordsTravelAsFileTextForTheCalendarInView) {
  CalServer server;
  setLinkMessageHook([](const char *) {});
  ASSERT_EQ(startCalServer(&server), 0);
  DbHandle *remote = makeContext("srv", DB_KIND_NONE);
  remote->server = newServerLink(calAddress(&server).c_str());
  remote->server->waitMs = 3000;
  installUserList(remote, copyUserList(main->users));  // the same five calendars
  setViewedCalendar(1);
  AddToDat(remote, 0)->readers = setOf({1});
  AddToDat(remote, 1)->readers = setOf({0, 2});
  AddToDat(remote, 1)->writers = setOf({3});
  EXPECT_EQ(storeDatPerms(remote), 0);
  EXPECT_EQ(slurp(permPath), "-");  // no file is written
  std::vector<CalRequest> sent = calRequests(&server);
  ASSERT_EQ(sent.size(), 1u); EXPECT_EQ(sent[0].code, 109);
  EXPECT_EQ(calFieldText(sent[0].fields.at(0)), "bob"); EXPECT_EQ(sent[0].fields.at(1).kind, 50);
  std::string data(sent[0].fields[1].payload.begin(), sent[0].fields[1].payload.end());
  EXPECT_EQ(data, "\n#O\tbob\n#R\tann,cat\n\n#O\tbob\n#C\tdan\n");
  calScript(&server, {calReply({calBytes(50, "\n#O\teve\n#Y\tann,bob\n#R\t__ALL__\n")})});
  EXPECT_EQ(readDatPerms(remote), 1);
  sent = calRequests(&server);
  EXPECT_EQ(sent.back().code, 106); EXPECT_EQ(calFieldNumber(sent.back().fields.at(0)), 0);
  EXPECT_EQ(calFieldText(sent.back().fields.at(1)), "bob"); EXPECT_EQ(remote->perms[0].owner, 4);
  EXPECT_EQ(members(remote->perms[0].agents), "0,1");
  EXPECT_EQ(members(remote->perms[0].readers), "0,1,2,3,4");
  calScript(&server, {calAction(CAL_CLOSE), calAction(CAL_CLOSE), calAction(CAL_CLOSE)});
  EXPECT_EQ(readDatPerms(remote), -1);
  freeServerLink(remote->server), remote->server = nullptr;
  stopCalServer(&server), resetLink();
}
