// Address-book tests on real book files in a temporary database, the fake calendar
// server for a server-attached context, and a real second process holding the lock.
#include "core/people/rolo_test_util.h"

#include "core/net/link.h"
#include "core/net/remote.h"
#include "testing/calserver.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quorvel;

static const std::string B9 = "#B\t0x9 @0x0 %0x0\n";  // the stamp line of time 9

TEST_F(RoloTest, BookFilesAreNamedAfterTheCalendarInFourteenSafeCharacters) {
  std::string dir = root + "/db/database/rolo";
  EXPECT_EQ(modeOf(dir), 0700u);  // made on first use
  addCalendarName(nullptr, "ab\ncd", "", "", "");
  addCalendarName(nullptr, "x\xc3\xa9y-12345678901", "", "", "");
  EXPECT_EQ(roloPath(2) + roloPath(ROLO_SHARED) + roloPath(3) + roloPath(4) + roloPath(99),
            dir + "/Mary_Ann_O_Nei" + dir + "/__SHARED__" + dir + "/ab" + dir + "/x__y_123456789");
}

TEST_F(RoloTest, CardsAreWrittenLineByLineAndReadBackWhole) {
  const struct { RoloEntry *e; std::string want; } rows[] = {
      {card(1, -1, 9, {{1, "never"}}), ""},
      {card(2, 1, 9, {{1, "x"}}), "#P:\t2\n#O\tbob\n" + B9 + "#1:\tx\n\n"},
      {card(0, 0, 9, {{5, "a\nb"}, {6, "c\n"}, {7, "\n\nd"}, {-2, "e"}}),
       B9 + "#5:\ta\n\tb\n#6:\tc\n#7:\t\n\t\n\td\n#-2:\te\n\n"},
      {card(0, 77, 9, {}), "#O\t(null)\n" + B9 + "\n"},
      // Fields without a text write only their number; the last one shares its line
      // with the card's end, and the reader still ends the card there.
      {card(0, -1, 9, {{1, nullptr}, {2, ""}, {3, "x"}, {4, nullptr}}), B9 + "#1:#2:#3:\tx\n#4:\n"},
  };
  for (auto &row : rows) {
    RoloEntry *one = list({row.e});
    EXPECT_EQ(formatRoloList(one, 0), row.want);
    freeRoloList(one);
  }
  RoloEntry *all = list({card(2, 1, 50, {{1, "Zed"}, {2, "a\nb"}, {3, nullptr}}),
                         card(0, 0, 60, {{1, nullptr}, {4, "x"}, {5, nullptr}}),
                         card(0, 1, 70, {{9, "z"}})});
  std::string text = formatRoloList(all, 0);
  RoloEntry *back = parseRoloList(text.data(), text.size(), 0);
  EXPECT_EQ(show(back), show(all));
  FILE *full = fopen("/dev/full", "w");  // every line fails at once
  setvbuf(full, nullptr, _IONBF, 0);
  EXPECT_EQ(writeRoloEntry(full, all->next, 0), -1);
  fclose(full);
  freeRoloList(all), freeRoloList(back);
}

TEST_F(RoloTest, TheReaderKeepsOnlyCardsAndBoundsWhatDoesNotFit) {
  std::string longLine(5000, 'L'), many;
  std::string odd = "#P:\t1\n#1:\tone\n\n#P:\t3\n#1:\tthree\n\n#P:\t258\n#1:\twraps\n\n" + B9 +
                    "\n#O\tnobody\n#-4:\tneg\n#2:\tkept\n\ngarbage\n#Q\t?\n#3:\t" + longLine +
                    "\n\tmore\n\n#P:\t2\n#O\tbob\n#B\t0x9 @0x1 %0x2\n#8:\tno end line";
  RoloEntry *got = parseRoloList(odd.data(), odd.size(), 7);
  EXPECT_EQ(show(got), "0 7 1700000000 2=kept\n0 7 1700000000 3=" + longLine +
                           "\nmore\n2 1 9 8=no end line\n");
  EXPECT_EQ(got->prev->stamp.q1 * 10 + got->prev->stamp.q2, 12);
  freeRoloList(got);
  for (int i = 0; i < 300; i++) many += "#" + std::to_string(i) + ":\tf\n";
  got = parseRoloList(many.data(), many.size(), 0);  // the field count is a byte
  EXPECT_TRUE(got->next->fieldCount == 255 && got->next->fieldNumbers[254] == 254);
  freeRoloList(got);
}

TEST_F(RoloTest, CardsSortByTheirFirstFieldIgnoringCaseThenByEveryOtherPart) {
  RoloEntry *l = list({card(0, 1, 1, {{1, "carl"}}), card(0, 0, 1, {{1, "carl"}}),
                       card(0, 0, 1, {{1, "bea"}}), card(0, 1, 1, {{1, "anna"}}),
                       card(0, 0, 1, {{1, "Bea"}}), card(0, 0, 1, {{1, "anna"}, {2, "b"}}),
                       card(0, 0, 1, {{1, "anna"}, {2, "a"}}), card(0, 0, 1, {{1, nullptr}})});
  EXPECT_EQ(roloOutOfOrder(l), 1);
  sortrololist(l);  // ties: byte order of every field (a missing one is ""), the owner
  EXPECT_EQ(show(l), "0 0 1 1\n0 1 1 1=anna\n0 0 1 1=anna 2=a\n0 0 1 1=anna 2=b\n0 0 1 1=Bea\n"
                     "0 0 1 1=bea\n0 0 1 1=carl\n0 1 1 1=carl\n");
  EXPECT_TRUE(l->prev->prev->next == l->prev && roloOutOfOrder(l) == 0);
  freeRoloList(l);
}

TEST_F(RoloTest, ReadingUsesTheCacheUntilTheFileChangesAndSortsABookOutOfOrder) {
  int32_t stamp = NO_TIME;
  RoloEntry *got = readrololist(main, book, 0, nullptr, &stamp);  // no file: empty
  EXPECT_TRUE(roloCount(got) == 0 && stamp == NO_TIME && book->list == got);
  writeAt("db/database/rolo/anna", B9 + "#1:\tann\n\n#1:\tbob\n\n", 5000);
  setRoloTrace(true);
  testing::internal::CaptureStderr();
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "reading " + anna + "\n");
  EXPECT_EQ(show(got), "0 0 9 1=ann\n0 0 1700000000 1=bob\n");
  EXPECT_TRUE(stamp == 5000 && book->lastTime == 5000 && !book->changed);
  got->next->stamp.q1 = 7;  // unchanged: the cache, with what was done to it
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(got->next->stamp.q1, 7);
  writeAt("db/database/rolo/anna", "#1:\tzed\n\n#1:\tAmy\n\n", 6000);  // out of order
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(show(got), "0 0 1700000000 1=Amy\n0 0 1700000000 1=zed\n");
  EXPECT_TRUE(book->changed && stamp == 6000 && main->firstUnsaved == now);
  writeAt("db/database/rolo/anna", "", 7000);  // a newer file: unsaved changes are kept
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(roloCount(got), 2);
  freeRoloList(got);
}

TEST_F(RoloTest, WritingReplacesTheBookUnderTheLockOrWritesAStreamOrMarksADeferredChange) {
  put(anna, "#1:\told\n\n");
  int32_t stamp = NO_TIME;
  RoloEntry *got = readrololist(main, book, 0, nullptr, &stamp);
  appendRoloEntry(got, card(0, 1, 9, {{1, "new"}}));
  appendRoloEntry(got, card(1, 0, 9, {{1, "gone"}}));
  char *text = nullptr;
  size_t len = 0;
  FILE *mem = open_memstream(&text, &len);
  EXPECT_EQ(write(0, mem), 0);  // a stream given: only the stream is written
  fclose(mem);
  EXPECT_EQ(std::string(text, len), formatRoloList(got, 0));
  free(text);
  setRoloTrace(true);
  testing::internal::CaptureStderr();
  EXPECT_EQ(write(0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "writing " + anna + "\n");
  EXPECT_EQ(files(), "#B\t0x6553f100 @0x0 %0x0\n#1:\told\n\n#O\tbob\n" + B9 + "#1:\tnew\n\n|-|-|-");
  struct stat st;
  stat(anna.c_str(), &st);
  EXPECT_TRUE(modeOf(anna) == 0600 && book->lastTime == int32_t(st.st_mtime) && !heldRoloLock());
  setRoloTimes(main, RoloTimes{true, 300, 60, NO_TIME});  // deferred: only marked
  std::string before = files();
  got->next->fieldTexts[0][0] = 'O';
  EXPECT_EQ(write(0), 0);
  EXPECT_TRUE(files() == before && book->changed && book->lastTime == now);
  EXPECT_EQ(write(1), 0);  // forced: written
  EXPECT_NE(files().find("\tOld"), std::string::npos);
  freeRoloList(got);
}

TEST_F(RoloTest, AFailedRewriteBeforeTheMoveAsideLeavesThePreviousBook) {
  book->list = list({card(0, 0, 9, {{1, "new"}})});
  testing::internal::CaptureStderr();  // no book file yet: the move aside fails
  EXPECT_EQ(write(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "writerololist: unable to rename " + anna + " (errno=-1)!\n");
  EXPECT_EQ(files(), "-|" + B9 + "#1:\tnew\n\n|-|-");  // the scratch file stays
  unlink((anna + "TMP").c_str());
  put(anna, "old\n");
  symlink("/dev/full", (anna + "TMP").c_str());  // the lines cannot be written
  EXPECT_EQ(write(), -1);
  EXPECT_EQ(files(), "old\n|-|-|-");
  freeRoloList(book->list);
}

TEST_F(RoloTest, DeferredChangesWaitForTheWriteIntervalUnlessJustFlushed) {
  BookState *shared = findBookState(main, ROLO_SHARED);
  put(anna, ""), put(roloPath(ROLO_SHARED), "");
  book->list = list({card(0, 0, 9, {{1, "a"}})}), shared->list = newRoloList();
  setRoloTimes(main, RoloTimes{true, 300, 60, NO_TIME});
  time_t t0 = now;
  EXPECT_EQ(flushRoloBooks(main), 0);  // nothing unsaved
  write(0);
  now = t0 + 100;
  writerololist(main, shared, ROLO_SHARED, 0, nullptr);
  EXPECT_TRUE(main->firstUnsaved == t0 && main->lastUnsaved == t0 + 100 && shared->changed);
  // (time, flush result): written once the first change is 300 s old, at once within
  // 60 s after a flush, kept again after that.
  const int steps[][3] = {{299, 0, 0}, {300, 2, 0}, {359, 1, 1}, {419, 0, 1}};
  for (auto &s : steps) {
    now = t0 + s[0];
    if (s[2]) write(0);
    EXPECT_EQ(flushRoloBooks(main), s[1]) << s[0];
  }
  EXPECT_TRUE(book->changed && !shared->changed && roloTimes(main).lastFlush == t0 + 359);
  EXPECT_EQ(slurp(anna), B9 + "#1:\ta\n\n");
  unlink(anna.c_str());  // a failed write keeps the book changed for the next flush
  now = t0 + 719;
  testing::internal::CaptureStderr();
  EXPECT_EQ(flushRoloBooks(main), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(book->changed && main->firstUnsaved == now && main->lastUnsaved == now);
  now = t0;
  freeRoloList(book->list), freeRoloList(shared->list);
}

static pid_t holder;      // a second process holding the book lock; let go at the third wait
static std::string heldFile;  // its lock file
static int waits;
static ssize_t exitingWrite(void *, const char *, size_t) { exitProcess(3); }

TEST_F(RoloTest, AWriterWaitsForAnotherProcessesLockTakesOverAStaleOneAndNeverLeavesItsOwn) {
  put(anna, "");
  book->list = list({card(0, 0, 9, {{1, "a"}})});
  char host[64] = "";
  gethostname(host, sizeof host - 1);
  heldFile = lockFile;
  if ((holder = fork()) == 0) {
    put(lockFile, std::to_string(getpid()) + " " + host + "\n");
    pause();
    _exit(0);
  }
  while (slurp(lockFile) == "-") usleep(1000);
  waits = 0;
  setPauseHook([](unsigned) {
    if (++waits == 3) kill(holder, SIGKILL), waitpid(holder, nullptr, 0), unlink(heldFile.c_str());
  });
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(waits, 3);
  EXPECT_EQ(files(), B9 + "#1:\ta\n\n|-|-|-");
  put(lockFile, std::to_string(holder) + " " + host + "\n");  // its holder has gone
  EXPECT_EQ(write(), 0);
  EXPECT_TRUE(waits == 3 && slurp(lockFile) == "-");
  put(lockFile, std::to_string(holder) + " elsewhere\n");  // another host's: it waits
  EXPECT_EXIT(write(), testing::ExitedWithCode(1),
              "Stuck lock file--try again in 5 minutes\n  \\(\"" + lockFile + "\"\\)");
  unlink(lockFile.c_str());
  FILE *exiting = fopencookie(nullptr, "w", {nullptr, exitingWrite, nullptr, nullptr});
  setvbuf(exiting, nullptr, _IONBF, 0);
  // A fatal end in the middle of a write removes the lock.
  EXPECT_EXIT(write(1, exiting), testing::ExitedWithCode(3), "");
  fclose(exiting);
  EXPECT_EQ(slurp(lockFile), "-");
  rmdir((root + "/db/database/locks").c_str());  // no lock directory: stuck at once
  EXPECT_EXIT(write(), testing::ExitedWithCode(1), "notify administrator\n.*errno=2");
  freeRoloList(book->list);
}

TEST_F(RoloTest, AServerAttachedContextReadsAndChangesItsBooksThroughTheServer) {
  CalServer server;
  ASSERT_EQ(startCalServer(&server), 0);
  setLinkMessageHook([](const char *) {});
  main->server = newServerLink(calAddress(&server).c_str());
  book = findBookState(main, 1);
  calScript(&server, {calReply({calBytes(FIELD_BOOK, "#O\tanna\n" + B9 + "#1:\tb\n\n"),
                                calNumber(77)}),
                      calReply({calBytes(FIELD_BOOK_EMPTY, "")}), calAction(CAL_CLOSE),
                      calAction(CAL_CLOSE), calAction(CAL_CLOSE)});
  int32_t stamp = 12;
  RoloEntry *got = readrololist(main, book, 1, nullptr, &stamp);
  EXPECT_TRUE(show(got) == "0 0 9 1=b\n" && stamp == 77);
  std::vector<CalRequest> req = calRequests(&server);
  EXPECT_TRUE(req.size() == 1 && req[0].code == 119 && req[0].fields.size() == 3);
  for (size_t i = 0; i < 3; i++)
    EXPECT_EQ(calFieldNumber(req[0].fields[i]), std::vector<int>({1, 12, 1})[i]);
  got = readrololist(main, book, 1, got, &stamp);  // no entries; the cached list is freed
  EXPECT_TRUE(roloCount(got) == 0 && stamp == 77 && book->list == got);
  got = readrololist(main, book, 1, got, &stamp);  // the server is lost: empty
  appendRoloEntry(got, card(0, 0, 9, {{1, "mine"}}));
  EXPECT_EQ(writerololist(main, book, 1, 1, nullptr), 0);
  RoloEntry *gone = list({card(0, 1, 3, {{1, "old"}})});
  EXPECT_EQ(sendRoloChange(main, 1, got, gone), 0);
  req = calRequests(&server);
  ASSERT_EQ(req.size(), 7u);
  for (size_t i = 5; i < 7; i++) {
    ASSERT_TRUE(req[i].code == 120 && req[i].fields.size() == 3);
    EXPECT_EQ(calFieldNumber(req[i].fields[0]), 1);
    EXPECT_EQ(calFieldText(req[i].fields[1]), "#O\tanna\n" + B9 + "#1:\tmine\n\n");
  }
  EXPECT_TRUE(req[5].fields[2].kind == FIELD_BOOK_EMPTY && req[6].fields[2].kind == FIELD_BOOK);
  EXPECT_EQ(calFieldText(req[6].fields[2]), "#B\t0x3 @0x0 %0x0\n#1:\told\n\n");
  EXPECT_EQ(slurp(roloPath(1)), "-");  // no file was touched
  freeRoloList(got), freeRoloList(gone);
  freeServerLink(main->server), main->server = nullptr;
  stopCalServer(&server), resetLink();
}
